// The trace engine: recognises the event records of a buffer among the
// header kinds the logger writes, unpacks each into an `etl_record`, asks the
// payload decoder for its fields, and keeps the records of the current buffer
// in file-offset order until the walker hands them to a record sink.
//
// Records are aligned on 8 bytes. Header kinds (offsets within the record):
//   kind | marker (u16 at 2)       | size at | time at | id at | provider at | thread, process | header
//   1    | 0x9000                  | 0       | 24      | 4     | GUID at 8    | 32, 36         | 40
//   2    | 0x9000                  | 0       | 28      | 4     | GUID at 12   | 36, 40         | 44
//   3    | 0xC002, u16 at 0 in 2-5 | 4       | 16      | 6     | event group  | 8, 12          | 32
//   4    | 0xC011, u16 at 0 in 2-5 | 4       | 8       | 6     | event group  | none           | 16
//   5    | 0xC00A, 0xC014          | 0       | 16      | 40    | GUID at 24   | 8, 12          | 48
//   6, 7 | 0xC012, 0xC013          | 0       | 16      | 40    | GUID at 24   | 8, 12          | 80
//   8    | any, u16 at 0 in 2-5    | 4       | none    | 6     | event group  | none           | 8
// Kinds 6 and 7 carry EVENT_HEADER (80 bytes: Size, HeaderType, Flags,
// EventProperty, ThreadId, ProcessId, TimeStamp, ProviderId, the 16-byte
// EVENT_DESCRIPTOR at 40, a time word at 56 and ActivityId at 64); kind 5
// the first 48 bytes of it. Kinds 3 and 4 carry the classic system header:
// Version, type, Size, HookId (group in the high byte, type in the low).
//
// Damaged stretches are stepped over 8 bytes at a time; a placeholder record
// marks them and takes the key of the first good record behind the damage,
// so that record has no row of its own.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "support/guid.h"
#include "templates/template_store.h"
#include "trace/buffer_header.h"
#include "trace/etl_record.h"
#include "trace/log_header.h"

// The records of one buffer, ordered by key, one record per key. The key is
// the record's file offset, except for a placeholder, which is keyed by the
// record behind the damage it marks. Entries beyond the live count keep their
// storage for the next buffer.
class record_list {
 public:
  // A reset record at `key` (its file_offset set to the key), or nullptr
  // when the key is taken.
  etl_record* add(uint64_t key);
  bool contains(uint64_t key) const;
  size_t size() const { return count_; }
  bool empty() const { return count_ == 0; }
  void clear() { count_ = 0; }
  etl_record* begin() { return items_.data(); }
  etl_record* end() { return items_.data() + count_; }

 private:
  size_t lower_bound(uint64_t key) const;
  std::vector<etl_record> items_;
  std::vector<uint64_t> keys_;  // parallel to items_
  size_t count_ = 0;
};

// Indexes of the side modes: provider list, statistics, subset extraction.
struct trace_indexes {
  std::set<qv::guid16> provider_set;
  std::map<qv::guid16, std::map<uint16_t, uint64_t>> event_counts;
  // Offsets of the records of the provider being extracted (see -pullguid).
  std::multimap<qv::guid16, uint64_t> subset_index;
  // Step of every record of the current buffer, by file offset.
  std::map<uint64_t, uint32_t> record_sizes;
};

struct trace_engine {
  std::string file_name;
  log_header header;
  uint8_t first_block[kBufferHeaderSize] = {};
  bool has_log_header = true;
  std::string logger_name;
  std::string log_file_name;
  template_store store;
  record_list records;
  buffer_rec first_buffer;        // the first buffer of the file seen by read_buffer
  bool have_first_buffer = false;
  buffer_rec current_buffer;
  trace_clock clock;
  uint16_t header_size_hint = 0;
  bool no_guessing = false;
  trace_indexes stats;
  bool stats_enabled = false;
  // Payloads are decoded only when rows are printed.
  bool decode_enabled = true;
  // Only the records of this provider are kept in the subset index.
  bool subset_enabled = false;
  qv::guid16 subset_guid{};
};

// Opens the engine on a log header block; refuses one that fails the
// logfile test.
bool open_with_log_header(trace_engine& engine, const uint8_t* block, size_t size);
// Opens the engine on the 72-byte first header of an "RlFs" or headerless file.
bool open_with_first_buffer(trace_engine& engine, const uint8_t* header, size_t size);

// The buffer loop: every record of the buffer at `file_offset`.
bool read_buffer(trace_engine& engine, const uint8_t* data, size_t size, uint64_t file_offset);

// Drops the records of the current buffer.
void discard_rows(trace_engine& engine);

// Clears all state but the template store and no_guessing.
void reset_engine(trace_engine& engine, bool keep_templates);

// The pointer width of the payloads of a buffer.
bool pointers_are_64(const trace_engine& engine, const buffer_rec* buffer);
