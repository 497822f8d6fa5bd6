// The trace engine: recognises the event records of a buffer among the
// header kinds the logger writes, unpacks each into an `etl_record`, asks the
// payload decoder for its fields, and keeps the records of the current buffer
// in file-offset order until the walker hands them to a record sink.
//
// Records are aligned on 8 bytes. Every record starts with a 32-bit marker:
// trace headers carry the flags 0xC0 in byte 3 and the header type in byte 2,
// so the u16 at 2 names the form; messages (WPP) carry 0x90 in byte 3. The
// header type also tells the pointer width of the payload: the 32-bit forms
// are written by 32-bit loggers and processes, the 64-bit forms by 64-bit
// ones. Forms (offsets within the record):
//
//   u16 at 2 | kind | header                          | length | size at | time at | thread, process | id, provider
//   0x9000   | 1    | message, 24-byte form           | 40     | 0       | 24      | 32, 36          | u16 at 4, GUID at 8
//   0x9000   | 2    | message, 28-byte form           | 44     | 0       | 28      | 36, 40          | u16 at 4, GUID at 12
//   0xC001   | 10   | SYSTEM_TRACE_HEADER, 32-bit     | 32     | 4       | 16      | 8, 12           | hook at 6, event group
//   0xC002   | 3    | SYSTEM_TRACE_HEADER, 64-bit     | 32     | 4       | 16      | 8, 12           | hook at 6, event group
//   0xC003   | 12   | compact system header, 32-bit   | 24     | 4       | 16      | 8, 12           | hook at 6, event group
//   0xC004   | 12   | compact system header, 64-bit   | 24     | 4       | 16      | 8, 12           | hook at 6, event group
//   0xC00A   | 5    | EVENT_TRACE_HEADER, 32-bit      | 48     | 0       | 16      | 8, 12           | u16 at 40, GUID at 24
//   0xC014   | 5    | EVENT_TRACE_HEADER, 64-bit      | 48     | 0       | 16      | 8, 12           | u16 at 40, GUID at 24
//   0xC00B   | 13   | EVENT_INSTANCE_GUID_HEADER, 32  | 72     | 0       | 16      | 8, 12           | class type, GUID at 24
//   0xC015   | 13   | EVENT_INSTANCE_GUID_HEADER, 64  | 72     | 0       | 16      | 8, 12           | class type, GUID at 24
//   0xC010   | 11   | PERFINFO_TRACE_HEADER, 32-bit   | 16     | 4       | 8       | none            | hook at 6, event group
//   0xC011   | 4    | PERFINFO_TRACE_HEADER, 64-bit   | 16     | 4       | 8       | none            | hook at 6, event group
//   0xC012   | 6    | EVENT_HEADER, 32-bit            | 80     | 0       | 16      | 8, 12           | u16 at 40, GUID at 24
//   0xC013   | 7    | EVENT_HEADER, 64-bit            | 80     | 0       | 16      | 8, 12           | u16 at 40, GUID at 24
//   other    | 8    | any record whose u16 at 0 is 2-5| 8      | 4       | none    | none            | hook at 6, event group
//
// The system, compact and perfinfo headers (kinds 3, 4, 10, 11, 12) start
// with the class version (u16 at 0), the header type, the record's Size
// (u16 at 4) and the HookId (u16 at 6: group in the high byte, type in the
// low); the system header ends with KernelTime and UserTime, which the
// compact form leaves out, and the perfinfo header has only the time. The
// full and instance headers (kinds 5, 13) start with Size, the header type
// and the class: type (byte 4), level (byte 5) and version (u16 at 6); then
// ThreadId, ProcessId, TimeStamp and the class GUID; the instance header adds
// InstanceId (u32 at 48), ParentInstanceId (u32 at 52) and the parent's GUID
// (at 56). Kinds 6 and 7 carry EVENT_HEADER (80 bytes: Size, HeaderType,
// Flags, EventProperty, ThreadId, ProcessId, TimeStamp, ProviderId, the
// 16-byte EVENT_DESCRIPTOR at 40, a time word at 56 and ActivityId at 64);
// its Flags 0x20 (32-bit header) and 0x40 (64-bit header) tell the pointer
// width before the header type does. A message header (WPP) is the Size, the
// marker and the message number (u16 at 4), then the GUID, the time stamp,
// the thread and the process; the 28-byte form has a 4-byte sequence number
// ahead of the GUID. Its pointer width is the log header's.
//
// The payload of a full or instance header is decoded by its class: the
// class GUID's event group where the kernel groups have one (group key |
// class type, the hook identifier of the same event), else the class type
// alone under the class GUID; its row keeps the columns of the EVENT_HEADER
// reading (event id: the u16 at 40). An instance header's row shows the class
// type as event id and opcode, and its instance ids as the first fields.
//
// Header types 0x0C (timed) and 0x0E (WNODE) are defined but unused, and 0x0D
// marks an error while logging; none is known to reach a trace file, and
// they are not recognised.
//
// A record of exactly its header length is an event with no payload. Records
// are read up to the end of the buffer's data: its Offset (the filled bytes),
// which for a compressed buffer is its expanded size.
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
#include "trace/event_source_manifests.h"
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
  std::set<qv::guid16, qv::guid_less> provider_set;
  std::map<qv::guid16, std::map<uint16_t, uint64_t>, qv::guid_less> event_counts;
  // Offsets of the records of the provider being extracted (see -pullguid).
  std::multimap<qv::guid16, uint64_t> subset_index;
  // Step of every record of the current buffer, by file offset.
  std::map<uint64_t, uint32_t> record_sizes;
};

// The kernel group of the last class GUID a full or instance header named.
struct class_group_cache {
  qv::guid16 guid{};
  uint16_t key = 0;     // the group key (hook identifier with its low byte clear)
  bool looked_up = false;
  bool found = false;
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
  class_group_cache class_group;
  // The manifests that event sources wrote into this file, and what the
  // store learned from them; both go with the file.
  event_source_manifests manifests;
  // Manifests are gathered even when payloads aren't decoded (-manifests).
  bool gather_manifests = false;
};

// Opens the engine on a log header block; refuses one that fails the
// logfile test.
bool open_with_log_header(trace_engine& engine, const uint8_t* block, size_t size);
// Opens the engine on the 72-byte first header of an "RlFs" or headerless file.
bool open_with_first_buffer(trace_engine& engine, const uint8_t* header, size_t size);

// The buffer loop: every record of the buffer at `file_offset`.
bool read_buffer(trace_engine& engine, const uint8_t* data, size_t size, uint64_t file_offset);
// The records of a regular file's first buffer (at file offset 0) behind the
// log header's own record, which is the file's header row and not read here.
bool read_log_header_buffer(trace_engine& engine, const uint8_t* data, size_t size);

// Drops the records of the current buffer.
void discard_rows(trace_engine& engine);

// Clears all state but the template store (less what it learned from the
// file's manifests), no_guessing and whether manifests are gathered.
void reset_engine(trace_engine& engine, bool keep_templates);

// The pointer width of the payloads of a buffer.
bool pointers_are_64(const trace_engine& engine, const buffer_rec* buffer);
