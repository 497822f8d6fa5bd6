#include "trace/xpress.h"

#include "support/byte_reader.h"

bool xpress_decompress(const uint8_t* in, size_t in_size, uint8_t* out, size_t out_capacity,
                       size_t& produced) {
  produced = 0;
  if (!in || !out) return false;
  size_t ip = 0;
  size_t op = 0;
  uint32_t flags = 0;
  int flag_count = 0;
  size_t shared_nibble_at = 0;  // position of a half-used length byte, 0 when none
  bool have_nibble = false;
  for (;;) {
    if (flag_count == 0) {
      if (in_size - ip < 4) return false;
      flags = qv::rd_u32(in, in_size, ip);
      ip += 4;
      flag_count = 32;
    }
    --flag_count;
    if ((flags & (1u << flag_count)) == 0) {
      if (ip >= in_size || op >= out_capacity) return false;
      out[op++] = in[ip++];
      continue;
    }
    if (ip == in_size) break;  // the end of the stream
    if (in_size - ip < 2) return false;
    const uint16_t match = qv::rd_u16(in, in_size, ip);
    ip += 2;
    size_t length = match & 7;
    const size_t offset = (match >> 3) + 1;
    if (length == 7) {
      if (!have_nibble) {
        if (ip >= in_size) return false;
        length = in[ip] & 0x0F;
        shared_nibble_at = ip;
        have_nibble = true;
        ++ip;
      } else {
        length = in[shared_nibble_at] >> 4;
        have_nibble = false;
      }
      if (length == 15) {
        if (ip >= in_size) return false;
        length = in[ip++];
        if (length == 255) {
          if (in_size - ip < 2) return false;
          length = qv::rd_u16(in, in_size, ip);
          ip += 2;
          if (length == 0) {
            if (in_size - ip < 4) return false;
            length = qv::rd_u32(in, in_size, ip);
            ip += 4;
          }
          if (length < 15 + 7) return false;
          length -= 15 + 7;
        }
        length += 15;
      }
      length += 7;
    }
    length += 3;
    if (offset > op || length > out_capacity - op) return false;
    // Byte by byte: a match may overlap the bytes it produces.
    const uint8_t* src = out + op - offset;
    for (size_t i = 0; i < length; ++i) out[op + i] = src[i];
    op += length;
  }
  produced = op;
  return true;
}
