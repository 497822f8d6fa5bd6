// The trace writer: test tooling that writes synthetic .etl files byte by
// byte, so that every test of the reader starts from a file whose every byte
// is known.
//
// A file is built in memory: a first block (the log header buffer of the
// regular kind, the 72-byte block of the "RlFs" kind, or 72 zero bytes of the
// headerless kind), then buffers, each a 72-byte header and records aligned on
// 8 bytes. Records of every header kind are made by the `*_record` functions.
// Damage is done afterwards on the bytes: a zero size, a size past the end, a
// truncated tail, a zero-filled stretch.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace tw {

using bytes = std::vector<uint8_t>;
using guid = std::array<uint8_t, 16>;

// "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx" to the Windows binary layout.
guid guid_from_text(const std::string& text);
// UTF-16LE of an ASCII/UTF-8 text (BMP only), without terminator.
bytes utf16(const std::string& text);
// Little-endian values appended to `b`, as payloads hold them.
void append_u16(bytes& b, uint16_t v);
void append_u32(bytes& b, uint32_t v);
void append_u64(bytes& b, uint64_t v);

// Clock types of the log header's ReservedFlags.
enum clock_type : uint32_t { clock_qpc = 1, clock_systemtime = 2, clock_cycles = 3 };

// The log header buffer of a regular file: WMI_BUFFER_HEADER, a system event
// header and TRACE_LOGFILE_HEADER with the logger and log file names.
struct log_header_spec {
  uint32_t buffer_size = 65536;   // BufferSize of the log header and of every buffer
  // Records behind the log header's own record in the first buffer; Offset
  // then covers them, SavedOffset stays at the end of the header record.
  std::vector<bytes> records;
  uint32_t pointer_size = 8;      // 8: the wide layout of the pointer fields
  uint32_t clock = clock_systemtime;
  uint64_t perf_freq = 10000000;
  uint32_t cpu_mhz = 3000;
  uint64_t start_time = 0;        // FILETIME (or raw, to test the swapped case)
  uint64_t system_time = 0;       // the header record's time, in the file's clock
  uint64_t end_time = 0;
  uint64_t boot_time = 0;
  uint32_t version = 0x0A000000;  // shown as "Version"
  uint32_t provider_version = 19041;  // the Windows build
  uint32_t number_of_processors = 4;
  uint32_t timer_resolution = 156250;
  uint32_t maximum_file_size = 0;
  uint32_t log_file_mode = 0x00000001;
  uint32_t buffers_written = 0;
  uint32_t events_lost = 0;
  uint32_t bias = 0;
  uint32_t daylight_bias = 0;
  uint32_t process_id = 0x1234;
  uint32_t thread_id = 0x5678;
  uint64_t kernel_user_time = 0;
  std::string logger_name = "Sample Session";
  std::string log_file_name = "c:\\logs\\a.etl";
  std::string standard_name = "UTC";
  std::string daylight_name = "UTC";
  // Size field of the header record (u16 at 76); 0 computes it from the names.
  uint16_t record_size = 0;
};

// The 72-byte header of a buffer in the regular layout. Fields left at their
// marker value are computed by `add_buffer`.
struct buffer_spec {
  static constexpr uint32_t kAuto = 0xFFFFFFFFu;
  uint32_t buffer_size = kAuto;     // 0 bytes of record space means "header only"
  uint32_t saved_offset = kAuto;    // used bytes
  uint32_t current_offset = kAuto;  // used bytes
  uint32_t offset = kAuto;          // used bytes
  uint64_t timestamp = 0;           // the buffer's time, in the file's clock
  uint64_t sequence = 0;
  uint8_t processor = 0;
  uint8_t alignment = 0;
  uint16_t logger_id = 1;
  uint16_t buffer_flag = 0;
  uint16_t buffer_type = 0;
  uint32_t pointer_word = 0;        // u32 at 60: the pointer-width test
  uint8_t fill = 0;                 // byte behind the used part
};

// The fields of an event record, for every header kind.
struct event_spec {
  uint16_t id = 1;                  // event id, or hook id for classic kinds
  uint64_t time = 0;                // raw time stamp in the file's clock
  uint32_t thread_id = 0;
  uint32_t process_id = 0;
  guid provider{};
  uint8_t version = 0;
  uint8_t channel = 0;
  uint8_t level = 4;
  uint8_t opcode = 0;
  uint16_t task = 0;
  uint64_t keyword = 0;
  uint64_t time_word = 0;
  guid activity{};
  uint16_t flags = 0;               // EVENT_HEADER Flags (bit 0: extended items)
  uint16_t event_property = 0;
  uint16_t class_version = 2;       // classic kinds: u16 at 0 (2..5); full and
                                    // instance headers: the class version at 6
  uint8_t class_type = 0;           // full and instance headers: byte 4
  uint8_t class_level = 0;          // full and instance headers: byte 5
  uint32_t instance_id = 0;         // instance headers: at 48
  uint32_t parent_instance_id = 0;  // instance headers: at 52
  guid parent{};                    // instance headers: the parent's GUID at 56
  bytes extended;                   // extended items, see `extended_item`
  bytes payload;
};

// Kinds 6 and 7: EVENT_HEADER records (0xC012, 0xC013), 80 bytes + items + payload.
bytes event_header_record(const event_spec& e, bool kind7 = false);
// Kind 5: the 48-byte full header, 0xC00A (or 0xC014, the 64-bit form): the
// class (type, level, version) at 4, and at 40 the descriptor fields of
// `e`, where the reader takes its columns from.
bytes full_header_record(const event_spec& e, bool wide = false);
// Kind 13: the 72-byte instance header, 0xC00B (or 0xC015, the 64-bit form).
bytes instance_guid_header_record(const event_spec& e, bool wide = true);
// Kinds 3 and 10: the system header 0xC002 (or 0xC001, the 32-bit form), 32 bytes.
bytes system_header_record(const event_spec& e, bool wide = true);
// Kind 12: the compact system header 0xC004 (or 0xC003, 32-bit), 24 bytes.
bytes compact_system_record(const event_spec& e, bool wide = true);
// Kinds 4 and 11: the perfinfo header 0xC011 (or 0xC010, 32-bit), 16 bytes.
bytes compact_header_record(const event_spec& e, bool wide = true);
// Kinds 1 and 2: the 0x9000 headers (40 and 44 bytes).
bytes instance_header_record(const event_spec& e, bool kind2);
// Kind 8: any other record with a version word of 2..5 (8-byte header).
bytes other_header_record(const event_spec& e, uint16_t header_type = 0x1234);

// One extended item: u16 total size, u16 type, u16 more-flag, u16 data size, data.
bytes extended_item(uint16_t ext_type, const bytes& data, bool more);
// A TraceLogging schema item's data: u16 size, one tag byte, the event name,
// then per field a name and one in-type byte.
bytes tracelogging_schema(const std::string& event_name,
                          const std::vector<std::pair<std::string, uint8_t>>& fields);

class etl_writer {
 public:
  // First blocks.
  void log_header(const log_header_spec& shape);
  // The "RlFs" first block: 72 bytes (`block_length` at 48, walk start at 40).
  void rlfs_first_block(uint64_t timestamp, uint64_t start_word24, uint32_t block_length = 72,
                        uint32_t walk_start = 72);
  void zero_first_block();

  // A buffer in the regular layout with `records` packed on 8-byte bounds.
  // The total size is `shape.buffer_size` (default: the log header's buffer
  // size, or 4096 without one).
  size_t add_buffer(const std::vector<bytes>& records, buffer_spec shape = {});
  // A buffer as a session in compressed mode writes it: the header with flag
  // 0x0040 and Offset the size of the records, then the records as a stream
  // of literals only (a valid stream, if not a small one); BufferSize is the
  // size on disk.
  size_t add_compressed_buffer(const std::vector<bytes>& records, uint64_t timestamp);
  // A buffer with an "RlFs" header: marker, size at 4, Offset at 48.
  size_t add_rlfs_buffer(const std::vector<bytes>& records, uint32_t buffer_size,
                         uint64_t timestamp, uint8_t processor = 0);
  // Raw bytes, for damage of any shape.
  void append(const bytes& b) { out_.insert(out_.end(), b.begin(), b.end()); }

  // Damage.
  void patch_u32(size_t offset, uint32_t value);
  void patch_u16(size_t offset, uint16_t value);
  void zero_fill(size_t offset, size_t length);
  void truncate(size_t length);

  const bytes& data() const { return out_; }
  size_t size() const { return out_.size(); }
  bool write_file(const std::string& path) const;

 private:
  bytes out_;
  uint32_t buffer_size_ = 4096;
};

// Writes the sample trace of the README: a small regular trace with events of
// several kinds. Deterministic: the same bytes every time.
bytes sample_trace();

// Writes a large regular trace of about `total_bytes`, buffer by buffer
// (never held whole): 64 KiB buffers of a realistic mix of events (manifest
// events with strings and numbers, classic kernel file and process events,
// TraceLogging events with their schema). Deterministic.
bool write_big_trace(const std::string& path, uint64_t total_bytes);

// The same mix of events in a sparse file of about `total_bytes` (never more):
// buffers of `buffer_size` bytes whose events fill only the first
// `used_size` bytes; the rest of each buffer, zeros, is left as a hole, so
// that a file of gigabytes takes a few megabytes of disk. Deterministic.
bool write_sparse_big_trace(const std::string& path, uint64_t total_bytes, uint32_t buffer_size,
                            uint32_t used_size);

}  // namespace tw
