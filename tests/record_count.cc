#include "tests/record_count.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <vector>

#include "trace/xpress.h"

namespace {

uint16_t u16_at(const std::vector<uint8_t>& b, size_t at) {
  return at + 2 <= b.size() ? uint16_t(b[at] | b[at + 1] << 8) : 0;
}
uint32_t u32_at(const std::vector<uint8_t>& b, size_t at) {
  return at + 4 <= b.size() ? uint32_t(u16_at(b, at)) | uint32_t(u16_at(b, at + 2)) << 16 : 0;
}

// Where a record's size stands, by its header type; 0 for a type unknown here.
size_t size_offset(uint16_t marker) {
  if (marker == 0x9000) return 0;           // message
  if ((marker & 0xFF00) != 0xC000) return SIZE_MAX;
  switch (marker & 0xFF) {
    case 0x01: case 0x02: case 0x03: case 0x04: case 0x10: case 0x11:
      return 4;                             // system, compact and perfinfo headers
    case 0x0A: case 0x0B: case 0x12: case 0x13: case 0x14: case 0x15:
      return 0;                             // full, instance and event headers
    default:
      return SIZE_MAX;
  }
}

}  // namespace

record_count count_records(const std::string& path) {
  record_count c;
  std::ifstream in(path, std::ios::binary);
  const std::vector<uint8_t> file((std::istreambuf_iterator<char>(in)), {});
  const uint32_t header_buffer_size = u32_at(file, 104);
  size_t pos = 0;
  while (pos < file.size()) {
    const uint32_t size = u32_at(file, pos);
    if (size < 72 || size > file.size() - pos) {
      c.problem = "buffer size " + std::to_string(size) + " at " + std::to_string(pos);
      return c;
    }
    std::vector<uint8_t> buffer(file.begin() + static_cast<std::ptrdiff_t>(pos),
                                file.begin() + static_cast<std::ptrdiff_t>(pos + size));
    const uint32_t filled = u32_at(buffer, 48);
    if (pos != 0 && (u16_at(buffer, 52) & 0x0040)) {
      if (filled < 72 || filled > std::max(header_buffer_size, size)) {
        c.problem = "compressed buffer at " + std::to_string(pos);
        return c;
      }
      std::vector<uint8_t> expanded(filled);
      std::copy(buffer.begin(), buffer.begin() + 72, expanded.begin());
      size_t produced = 0;
      if (!xpress_decompress(buffer.data() + 72, buffer.size() - 72, expanded.data() + 72, filled - 72,
                             produced) ||
          produced != filled - 72) {
        c.problem = "compressed stream at " + std::to_string(pos);
        return c;
      }
      buffer.swap(expanded);
    }
    const size_t end = std::min<size_t>(filled, buffer.size());
    size_t at = 72;
    while (at + 8 <= end) {
      const uint16_t marker = u16_at(buffer, at + 2);
      const size_t where = size_offset(marker);
      if (where == SIZE_MAX) {
        c.problem = "header type " + std::to_string(marker) + " at " + std::to_string(pos + at);
        return c;
      }
      const uint16_t record_size = u16_at(buffer, at + where);
      if (record_size < 8 || record_size > end - at) {
        c.problem = "record size " + std::to_string(record_size) + " at " + std::to_string(pos + at);
        return c;
      }
      ++c.records;
      ++c.by_type[marker];
      auto [it, fresh] = c.smallest.emplace(marker, record_size);
      if (!fresh) it->second = std::min<uint64_t>(it->second, record_size);
      at += (record_size + 7u) & ~7u;
    }
    ++c.buffers;
    pos += size;
  }
  c.ok = true;
  return c;
}
