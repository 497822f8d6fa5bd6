// Little-endian reads from untrusted byte ranges.
//
// Every field of a trace, template block or hive is read through these
// helpers. Values are assembled from bytes, never by casting a pointer into
// the file's data, so alignment and host byte order never matter. A read that
// would run past the end of the range takes the bytes that are there and reads
// the missing ones as zero: a truncated field can never reach outside the
// buffer it belongs to.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace qv {

// A read-only view of untrusted bytes.
struct byte_span {
  const uint8_t* data = nullptr;
  size_t size = 0;

  byte_span() = default;
  byte_span(const uint8_t* d, size_t n) : data(d), size(n) {}

  // True when `n` bytes starting at `off` lie inside the span. Written so that
  // it cannot overflow: `off <= size` first, then `n <= size - off`.
  bool has(size_t off, size_t n) const { return off <= size && n <= size - off; }
  // The span from `off` to the end; empty when `off` is past the end.
  byte_span from(size_t off) const {
    return off <= size ? byte_span(data + off, size - off) : byte_span(data + size, 0);
  }
};

namespace detail {
template <typename T>
inline T read_le(const uint8_t* data, size_t size, size_t off) {
  if (off <= size && sizeof(T) <= size - off) {
    if constexpr (std::endian::native == std::endian::little) {
      // The bytes already stand in the value's order: one copy.
      T v;
      std::memcpy(&v, data + off, sizeof(T));
      return v;
    } else {
      uint8_t b[sizeof(T)];
      std::memcpy(b, data + off, sizeof(T));
      T v = 0;
      for (size_t i = sizeof(T); i-- > 0;) v = static_cast<T>((v << 8) | b[i]);
      return v;
    }
  }
  // Partial read at the end of the range: missing bytes read as zero.
  T v = 0;
  for (size_t i = 0; i < sizeof(T); ++i) {
    if (off <= size && i < size - off) v |= static_cast<T>(static_cast<T>(data[off + i]) << (8 * i));
  }
  return v;
}
}  // namespace detail

inline uint8_t rd_u8(const uint8_t* data, size_t size, size_t off) {
  return off < size ? data[off] : 0;
}
inline uint16_t rd_u16(const uint8_t* data, size_t size, size_t off) {
  return detail::read_le<uint16_t>(data, size, off);
}
inline uint32_t rd_u32(const uint8_t* data, size_t size, size_t off) {
  return detail::read_le<uint32_t>(data, size, off);
}
inline uint64_t rd_u64(const uint8_t* data, size_t size, size_t off) {
  return detail::read_le<uint64_t>(data, size, off);
}
// Copies `n` bytes at `off` to `out`; bytes past the end of the range are zero.
inline void rd_bytes(uint8_t* out, size_t n, const uint8_t* data, size_t size, size_t off) {
  for (size_t i = 0; i < n; ++i) out[i] = (off <= size && i < size - off) ? data[off + i] : 0;
}

inline uint8_t rd_u8(byte_span s, size_t off) { return rd_u8(s.data, s.size, off); }
inline uint16_t rd_u16(byte_span s, size_t off) { return rd_u16(s.data, s.size, off); }
inline uint32_t rd_u32(byte_span s, size_t off) { return rd_u32(s.data, s.size, off); }
inline uint64_t rd_u64(byte_span s, size_t off) { return rd_u64(s.data, s.size, off); }

// Writes little-endian values into a byte array the caller has sized.
inline void wr_u16(uint8_t* p, uint16_t v) { p[0] = uint8_t(v); p[1] = uint8_t(v >> 8); }
inline void wr_u32(uint8_t* p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = uint8_t(v >> (8 * i));
}
inline void wr_u64(uint8_t* p, uint64_t v) {
  for (int i = 0; i < 8; ++i) p[i] = uint8_t(v >> (8 * i));
}

// A sequential reader with a sticky failure: once a read runs past the end,
// `ok()` stays false, every later read yields 0 and the position stays put.
// A structure is then checked once at its end rather than after every field.
class byte_reader {
 public:
  byte_reader(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  explicit byte_reader(byte_span s) : data_(s.data), size_(s.size) {}

  bool ok() const { return ok_; }
  size_t pos() const { return pos_; }
  size_t size() const { return size_; }
  size_t left() const { return size_ - pos_; }
  const uint8_t* here() const { return data_ + pos_; }

  uint8_t u8() { return take<uint8_t>(); }
  uint16_t u16() { return take<uint16_t>(); }
  uint32_t u32() { return take<uint32_t>(); }
  uint64_t u64() { return take<uint64_t>(); }
  // Copies `n` bytes; on failure `out` is zero-filled.
  bool bytes(uint8_t* out, size_t n) {
    if (!ok_ || n > size_ - pos_) {
      ok_ = false;
      std::memset(out, 0, n);
      return false;
    }
    std::memcpy(out, data_ + pos_, n);
    pos_ += n;
    return true;
  }
  bool skip(size_t n) {
    if (!ok_ || n > size_ - pos_) return ok_ = false;
    pos_ += n;
    return true;
  }
  bool seek(size_t off) {
    if (!ok_ || off > size_) return ok_ = false;
    pos_ = off;
    return true;
  }

 private:
  template <typename T>
  T take() {
    if (!ok_ || sizeof(T) > size_ - pos_) {
      ok_ = false;
      return 0;
    }
    T v = detail::read_le<T>(data_, size_, pos_);
    pos_ += sizeof(T);
    return v;
  }

  const uint8_t* data_;
  size_t size_;
  size_t pos_ = 0;
  bool ok_ = true;
};

}  // namespace qv
