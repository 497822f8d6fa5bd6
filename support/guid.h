// A GUID as 16 bytes in the Windows binary layout (Data1 and the two 16-bit
// words little-endian, then eight plain bytes). Ordered as plain bytes.
#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>

namespace qv {

using guid16 = std::array<uint8_t, 16>;

inline guid16 make_guid(const uint8_t* bytes) {
  guid16 g;
  std::memcpy(g.data(), bytes, 16);
  return g;
}

// The order of plain bytes (as std::less gives it), in two 64-bit compares
// instead of a call to memcmp: the GUID maps are searched for every event.
struct guid_less {
  bool operator()(const guid16& a, const guid16& b) const {
    uint64_t x, y;
    std::memcpy(&x, a.data(), 8);
    std::memcpy(&y, b.data(), 8);
    if (x != y) return high_first(x) < high_first(y);
    std::memcpy(&x, a.data() + 8, 8);
    std::memcpy(&y, b.data() + 8, 8);
    return high_first(x) < high_first(y);
  }

 private:
  // The eight bytes as a number whose first byte is the most significant.
  static uint64_t high_first(uint64_t v) {
    if constexpr (std::endian::native == std::endian::little) return __builtin_bswap64(v);
    return v;
  }
};

inline bool is_zero_guid(const guid16& g) {
  for (uint8_t b : g) if (b) return false;
  return true;
}

}  // namespace qv
