// A record counter for tests, independent of the reader: it walks a regular
// trace file buffer by buffer (each buffer's size is its first word) and
// steps through each buffer's records up to its filled size (the Offset at
// 48; a compressed buffer is expanded first) by their size and header type
// alone, with no time, provider or plausibility test. It counts the log
// header's own record too, so that its count matches the rows of quon's
// output with the header row included.
#pragma once

#include <cstdint>
#include <map>
#include <string>

struct record_count {
  bool ok = false;        // the file was walked to its end without a surprise
  std::string problem;    // what stopped it, when not ok
  uint64_t records = 0;
  uint64_t buffers = 0;
  std::map<uint16_t, uint64_t> by_type;  // u16 at 2 -> records
  std::map<uint16_t, uint64_t> smallest;  // u16 at 2 -> smallest record size
};

record_count count_records(const std::string& path);
