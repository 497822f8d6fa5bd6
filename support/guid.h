// A GUID as 16 bytes in the Windows binary layout (Data1 and the two 16-bit
// words little-endian, then eight plain bytes). Ordered as plain bytes.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>

namespace qv {

using guid16 = std::array<uint8_t, 16>;

inline guid16 make_guid(const uint8_t* bytes) {
  guid16 g;
  std::memcpy(g.data(), bytes, 16);
  return g;
}

inline bool is_zero_guid(const guid16& g) {
  for (uint8_t b : g) if (b) return false;
  return true;
}

}  // namespace qv
