#include "tests/trace_writer.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include <sys/types.h>
#include <unistd.h>

namespace tw {
namespace {

void put16(bytes& b, size_t off, uint16_t v) {
  if (b.size() < off + 2) b.resize(off + 2);
  b[off] = uint8_t(v);
  b[off + 1] = uint8_t(v >> 8);
}
void put32(bytes& b, size_t off, uint32_t v) {
  if (b.size() < off + 4) b.resize(off + 4);
  for (int i = 0; i < 4; ++i) b[off + i] = uint8_t(v >> (8 * i));
}
void put64(bytes& b, size_t off, uint64_t v) {
  if (b.size() < off + 8) b.resize(off + 8);
  for (int i = 0; i < 8; ++i) b[off + i] = uint8_t(v >> (8 * i));
}
void put_bytes(bytes& b, size_t off, const uint8_t* p, size_t n) {
  if (b.size() < off + n) b.resize(off + n);
  if (n) std::memcpy(b.data() + off, p, n);
}
void put_guid(bytes& b, size_t off, const guid& g) { put_bytes(b, off, g.data(), 16); }

int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Appends the extended items and payload behind a header of `header_len`
// bytes and sets the record's size field.
bytes finish_record(bytes rec, const event_spec& e, size_t size_field_offset) {
  rec.insert(rec.end(), e.extended.begin(), e.extended.end());
  rec.insert(rec.end(), e.payload.begin(), e.payload.end());
  if (rec.size() > 0xFFFF) throw std::length_error("record larger than 65535 bytes");
  put16(rec, size_field_offset, uint16_t(rec.size()));
  return rec;
}

// The first 48 bytes of EVENT_HEADER, shared by the full header and the
// event header forms: type, flags, property, thread, process, time,
// provider and the descriptor up to its task.
void put_header_head(bytes& r, uint16_t type, uint16_t flags, const event_spec& e) {
  put16(r, 2, type);
  put16(r, 4, flags);
  put16(r, 6, e.event_property);
  put32(r, 8, e.thread_id);
  put32(r, 12, e.process_id);
  put64(r, 16, e.time);
  put_guid(r, 24, e.provider);
  put16(r, 40, e.id);
  r[42] = e.version;
  r[43] = e.channel;
  r[44] = e.level;
  r[45] = e.opcode;
  put16(r, 46, e.task);
}

}  // namespace

guid guid_from_text(const std::string& text) {
  std::string hex;
  for (char c : text)
    if (hex_value(c) >= 0) hex += c;
  if (hex.size() != 32) throw std::invalid_argument("bad GUID text: " + text);
  uint8_t raw[16];
  for (int i = 0; i < 16; ++i) raw[i] = uint8_t(hex_value(hex[2 * i]) * 16 + hex_value(hex[2 * i + 1]));
  // Data1 and the two 16-bit words are little-endian in the binary layout.
  guid g{};
  g[0] = raw[3]; g[1] = raw[2]; g[2] = raw[1]; g[3] = raw[0];
  g[4] = raw[5]; g[5] = raw[4];
  g[6] = raw[7]; g[7] = raw[6];
  for (int i = 8; i < 16; ++i) g[i] = raw[i];
  return g;
}

void append_u16(bytes& b, uint16_t v) {
  b.push_back(uint8_t(v));
  b.push_back(uint8_t(v >> 8));
}

void append_u32(bytes& b, uint32_t v) {
  for (int i = 0; i < 4; ++i) b.push_back(uint8_t(v >> (8 * i)));
}

void append_u64(bytes& b, uint64_t v) {
  for (int i = 0; i < 8; ++i) b.push_back(uint8_t(v >> (8 * i)));
}

bytes utf16(const std::string& text) {
  bytes out;
  for (size_t i = 0; i < text.size();) {
    uint32_t c = uint8_t(text[i]);
    size_t n = 1;
    if (c >= 0xE0 && i + 2 < text.size()) {
      c = ((c & 0x0F) << 12) | ((uint8_t(text[i + 1]) & 0x3F) << 6) | (uint8_t(text[i + 2]) & 0x3F);
      n = 3;
    } else if (c >= 0xC0 && i + 1 < text.size()) {
      c = ((c & 0x1F) << 6) | (uint8_t(text[i + 1]) & 0x3F);
      n = 2;
    }
    out.push_back(uint8_t(c));
    out.push_back(uint8_t(c >> 8));
    i += n;
  }
  return out;
}

bytes event_header_record(const event_spec& e, bool kind7) {
  bytes r(80, 0);
  put_header_head(r, kind7 ? 0xC013 : 0xC012, e.extended.empty() ? e.flags : uint16_t(e.flags | 1), e);
  put64(r, 48, e.keyword);
  put64(r, 56, e.time_word);
  put_guid(r, 64, e.activity);
  return finish_record(std::move(r), e, 0);
}

// The class of a full or instance header: type, level and version at 4.
void put_class(bytes& r, const event_spec& e) {
  r[4] = e.class_type;
  r[5] = e.class_level;
  put16(r, 6, e.class_version);
}

bytes full_header_record(const event_spec& e, bool wide) {
  bytes r(48, 0);
  put_header_head(r, wide ? 0xC014 : 0xC00A, 0, e);
  put_class(r, e);
  return finish_record(std::move(r), e, 0);
}

bytes instance_guid_header_record(const event_spec& e, bool wide) {
  bytes r(72, 0);
  put16(r, 2, wide ? 0xC015 : 0xC00B);
  put_class(r, e);
  put32(r, 8, e.thread_id);
  put32(r, 12, e.process_id);
  put64(r, 16, e.time);
  put_guid(r, 24, e.provider);
  put32(r, 48, e.instance_id);
  put32(r, 52, e.parent_instance_id);
  put_guid(r, 56, e.parent);
  return finish_record(std::move(r), e, 0);
}

bytes compact_system_record(const event_spec& e, bool wide) {
  bytes r(24, 0);
  put16(r, 0, e.class_version);
  put16(r, 2, wide ? 0xC004 : 0xC003);
  put16(r, 6, e.id);
  put32(r, 8, e.thread_id);
  put32(r, 12, e.process_id);
  put64(r, 16, e.time);
  return finish_record(std::move(r), e, 4);
}

bytes system_header_record(const event_spec& e, bool wide) {
  bytes r(32, 0);
  put16(r, 0, e.class_version);
  put16(r, 2, wide ? 0xC002 : 0xC001);
  put16(r, 6, e.id);
  put32(r, 8, e.thread_id);
  put32(r, 12, e.process_id);
  put64(r, 16, e.time);
  put64(r, 24, e.time_word);
  return finish_record(std::move(r), e, 4);
}

bytes compact_header_record(const event_spec& e, bool wide) {
  bytes r(16, 0);
  put16(r, 0, e.class_version);
  put16(r, 2, wide ? 0xC011 : 0xC010);
  put16(r, 6, e.id);
  put64(r, 8, e.time);
  return finish_record(std::move(r), e, 4);
}

bytes instance_header_record(const event_spec& e, bool kind2) {
  const size_t shift = kind2 ? 4 : 0;
  bytes r(40 + shift, 0);
  put16(r, 2, 0x9000);
  put16(r, 4, e.id);
  put_guid(r, 8 + shift, e.provider);
  put64(r, 24 + shift, e.time);
  put32(r, 32 + shift, e.thread_id);
  put32(r, 36 + shift, e.process_id);
  return finish_record(std::move(r), e, 0);
}

bytes other_header_record(const event_spec& e, uint16_t header_type) {
  bytes r(8, 0);
  put16(r, 0, e.class_version);
  put16(r, 2, header_type);
  put16(r, 6, e.id);
  return finish_record(std::move(r), e, 4);
}

bytes extended_item(uint16_t ext_type, const bytes& data, bool more) {
  bytes r(8 + data.size(), 0);
  if (!data.empty()) std::memcpy(r.data() + 8, data.data(), data.size());
  put16(r, 0, uint16_t(r.size()));
  put16(r, 2, ext_type);
  put16(r, 4, more ? 1 : 0);
  put16(r, 6, uint16_t(data.size()));
  return r;
}

bytes tracelogging_schema(const std::string& event_name,
                          const std::vector<std::pair<std::string, uint8_t>>& fields) {
  // The size, one tag byte with no continuation, the event name.
  std::string body(3, '\0');
  body += event_name;
  body += '\0';
  for (const auto& [name, type] : fields) {
    body += name;
    body += '\0';
    body += static_cast<char>(type);
  }
  bytes r(body.size());
  std::memcpy(r.data(), body.data(), body.size());
  put16(r, 0, uint16_t(r.size()));
  return r;
}

void etl_writer::log_header(const log_header_spec& s) {
  const bool wide = s.pointer_size == 8;
  const size_t names_at = wide ? 384 : 376;
  const bytes logger = utf16(s.logger_name);
  const bytes file = utf16(s.log_file_name);
  // The two names, each with its zero terminator, end the record.
  const size_t file_at = names_at + logger.size() + 2;
  const size_t record_end = file_at + file.size() + 2;
  size_t used = record_end;
  for (const bytes& r : s.records) used = ((used + 7) & ~size_t(7)) + r.size();
  bytes b(std::max(used, record_end), 0);
  std::copy(logger.begin(), logger.end(), b.begin() + static_cast<std::ptrdiff_t>(names_at));
  std::copy(file.begin(), file.end(), b.begin() + static_cast<std::ptrdiff_t>(file_at));

  // WMI_BUFFER_HEADER of the log header buffer.
  put32(b, 0, s.buffer_size);
  put32(b, 4, uint32_t(record_end));
  put32(b, 8, uint32_t(record_end));
  put64(b, 16, s.system_time);
  put16(b, 42, 1);
  put32(b, 48, uint32_t(record_end));
  // The records behind the header record, each on an 8-byte bound.
  size_t at = record_end;
  for (const bytes& r : s.records) {
    at = (at + 7) & ~size_t(7);
    std::copy(r.begin(), r.end(), b.begin() + static_cast<std::ptrdiff_t>(at));
    at += r.size();
  }
  if (!s.records.empty()) {
    at = (at + 7) & ~size_t(7);
    put32(b, 8, uint32_t(at));
    put32(b, 48, uint32_t(at));
  }
  // The system header of the log header event: 0xC002 for a 64-bit logger,
  // 0xC001 for a 32-bit one.
  put16(b, 72, 2);
  put16(b, 74, wide ? 0xC002 : 0xC001);
  put16(b, 76, s.record_size ? s.record_size : uint16_t(record_end - 72));
  put16(b, 78, 0);
  put32(b, 80, s.thread_id);
  put32(b, 84, s.process_id);
  put64(b, 88, s.system_time);
  put64(b, 96, s.kernel_user_time);
  // TRACE_LOGFILE_HEADER.
  put32(b, 104, s.buffer_size);
  put32(b, 108, s.version);
  put32(b, 112, s.provider_version);
  put32(b, 116, s.number_of_processors);
  put64(b, 120, s.end_time);
  put32(b, 128, s.timer_resolution);
  put32(b, 132, s.maximum_file_size);
  put32(b, 136, s.log_file_mode);
  put32(b, 140, s.buffers_written);
  put32(b, 144, 0);
  put32(b, 148, s.pointer_size);
  put32(b, 152, s.events_lost);
  put32(b, 156, s.cpu_mhz);
  const size_t bias_at = wide ? 176 : 168;
  put32(b, bias_at, s.bias);
  bytes std_name = utf16(s.standard_name);
  put_bytes(b, bias_at + 4, std_name.data(), std::min<size_t>(std_name.size(), 62));
  bytes dl_name = utf16(s.daylight_name);
  put_bytes(b, bias_at + 88, dl_name.data(), std::min<size_t>(dl_name.size(), 62));
  put32(b, bias_at + 168, s.daylight_bias);
  put64(b, bias_at + 176, s.boot_time);
  put64(b, bias_at + 184, s.perf_freq);
  put64(b, bias_at + 192, s.start_time);
  put32(b, bias_at + 200, s.clock);
  put32(b, bias_at + 204, 0);

  if (b.size() < s.buffer_size) b.resize(s.buffer_size, 0);
  append(b);
  buffer_size_ = s.buffer_size;
}

void etl_writer::rlfs_first_block(uint64_t timestamp, uint64_t start_word24, uint32_t block_length,
                                  uint32_t walk_start) {
  bytes b(std::max<uint32_t>(block_length, 72), 0);
  std::memcpy(b.data(), "RlFs", 4);
  put32(b, 4, block_length);
  put64(b, 16, timestamp);
  put64(b, 24, start_word24);
  put32(b, 40, walk_start);
  put64(b, 48, block_length);
  append(b);
}

void etl_writer::zero_first_block() { out_.resize(out_.size() + 72, 0); }

size_t etl_writer::add_buffer(const std::vector<bytes>& records, buffer_spec s) {
  bytes b(72, 0);
  for (const bytes& r : records) {
    b.insert(b.end(), r.begin(), r.end());
    b.resize((b.size() + 7) & ~size_t(7), 0);
  }
  const uint32_t used = uint32_t(b.size());
  const uint32_t size = s.buffer_size == buffer_spec::kAuto ? std::max(buffer_size_, used) : s.buffer_size;
  if (size > used) b.resize(size, s.fill);
  put32(b, 0, size);
  put32(b, 4, s.saved_offset == buffer_spec::kAuto ? used : s.saved_offset);
  put32(b, 8, s.current_offset == buffer_spec::kAuto ? used : s.current_offset);
  put64(b, 16, s.timestamp);
  put64(b, 24, s.sequence);
  b[40] = s.processor;
  b[41] = s.alignment;
  put16(b, 42, s.logger_id);
  put32(b, 48, s.offset == buffer_spec::kAuto ? used : s.offset);
  put16(b, 52, s.buffer_flag);
  put16(b, 54, s.buffer_type);
  put32(b, 60, s.pointer_word);
  const size_t at = out_.size();
  // A buffer whose stated size is below its content keeps the content whole.
  append(b);
  return at;
}

size_t etl_writer::add_compressed_buffer(const std::vector<bytes>& records, uint64_t timestamp) {
  bytes plain;
  for (const bytes& r : records) {
    plain.insert(plain.end(), r.begin(), r.end());
    plain.resize((plain.size() + 7) & ~size_t(7), 0);
  }
  // Literals only: a zero flag bit per byte; the end is a one bit with no
  // input left, in a flag word of its own when the last one is full.
  bytes stream;
  size_t i = 0;
  for (;;) {
    const size_t n = std::min<size_t>(32, plain.size() - i);
    const uint32_t flags = n == 32 ? 0u : (n == 0 ? 0xFFFFFFFFu : (0xFFFFFFFFu >> n));
    for (int k = 0; k < 4; ++k) stream.push_back(uint8_t(flags >> (8 * k)));
    stream.insert(stream.end(), plain.begin() + static_cast<std::ptrdiff_t>(i),
                  plain.begin() + static_cast<std::ptrdiff_t>(i + n));
    i += n;
    if (n < 32) break;
  }
  bytes b(72, 0);
  b.insert(b.end(), stream.begin(), stream.end());
  put32(b, 0, uint32_t(b.size()));
  put32(b, 4, uint32_t(72 + plain.size()));
  put64(b, 16, timestamp);
  put16(b, 42, 1);
  put32(b, 48, uint32_t(72 + plain.size()));
  put16(b, 52, 0x0040);
  const size_t at = out_.size();
  append(b);
  return at;
}

size_t etl_writer::add_rlfs_buffer(const std::vector<bytes>& records, uint32_t buffer_size,
                                   uint64_t timestamp, uint8_t processor) {
  bytes b(72, 0);
  for (const bytes& r : records) {
    b.insert(b.end(), r.begin(), r.end());
    b.resize((b.size() + 7) & ~size_t(7), 0);
  }
  const uint32_t used = uint32_t(b.size());
  if (buffer_size > used) b.resize(buffer_size, 0);
  std::memcpy(b.data(), "RlFs", 4);
  put32(b, 4, buffer_size);
  put64(b, 16, timestamp);
  b[40] = processor;
  put16(b, 42, 1);
  put32(b, 48, used);
  const size_t at = out_.size();
  append(b);
  return at;
}

void etl_writer::patch_u32(size_t offset, uint32_t value) {
  if (offset + 4 <= out_.size()) put32(out_, offset, value);
}
void etl_writer::patch_u16(size_t offset, uint16_t value) {
  if (offset + 2 <= out_.size()) put16(out_, offset, value);
}
void etl_writer::zero_fill(size_t offset, size_t length) {
  for (size_t i = offset; i < offset + length && i < out_.size(); ++i) out_[i] = 0;
}
void etl_writer::truncate(size_t length) {
  if (length < out_.size()) out_.resize(length);
}

bool etl_writer::write_file(const std::string& path) const {
  FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) return false;
  bool ok = std::fwrite(out_.data(), 1, out_.size(), f) == out_.size();
  return std::fclose(f) == 0 && ok;
}

bytes sample_trace() {
  // A QPC-clocked trace of a 64-bit machine: the wall clock of raw zero is
  // the start time less SystemTime / 1e7 * 1e7 ticks.
  log_header_spec h;
  h.buffer_size = 8192;
  h.clock = clock_qpc;
  h.perf_freq = 10000000;                  // one raw tick = 100 ns
  h.system_time = 1000000000;              // raw counter at the start
  h.start_time = 134170743671234567ull;    // 2026-03-04 05:06:07.1234567 UTC
  h.end_time = 134170744671234567ull;
  h.boot_time = 134170700000000000ull;
  h.provider_version = 19045;
  h.logger_name = "Sample Session";
  h.log_file_name = "c:\\logs\\a.etl";
  etl_writer w;
  w.log_header(h);

  const guid acme = guid_from_text("5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b");
  event_spec e;
  e.provider = acme;
  e.id = 42;
  e.time = 1000000000;
  e.process_id = 0xa3c;
  e.thread_id = 0x1b34;
  e.level = 4;
  e.opcode = 1;
  e.task = 7;
  e.keyword = 0x8000000000000010ull;
  e.payload = {0x3c, 0x0a, 0, 0, 'a', '.', 'e', 'x', 'e', 0};

  event_spec proc;  // a classic process start (group 3, type 1)
  proc.id = 0x0301;
  proc.class_version = 4;
  proc.time = 1000100000;
  proc.thread_id = 0x44;
  proc.process_id = 0x4;
  // Process start, version 4, 64-bit: key, ids, session, exit status,
  // directory base, flags, the TOKEN_USER pair, S-1-5-18, image name,
  // command line, and two empty strings.
  append_u64(proc.payload, 0xffff8a0c12345678ull);
  for (uint32_t v : {0xa3cu, 4u, 1u, 0x103u}) append_u32(proc.payload, v);
  append_u64(proc.payload, 0x1aa000000ull);
  for (int i = 0; i < 4; ++i) proc.payload.push_back(0);
  for (uint64_t v : {0xffff8a0c00001000ull, 0ull}) append_u64(proc.payload, v);
  for (uint8_t b : {1, 1, 0, 0, 0, 0, 0, 5, 18, 0, 0, 0}) proc.payload.push_back(b);
  for (char c : std::string("cmd.exe")) proc.payload.push_back(uint8_t(c));
  proc.payload.push_back(0);
  const bytes command = utf16("cmd.exe /c dir");
  proc.payload.insert(proc.payload.end(), command.begin(), command.end());
  for (int i = 0; i < 6; ++i) proc.payload.push_back(0);

  event_spec tl;  // a TraceLogging event with its schema in an extended item
  tl.provider = guid_from_text("2a576b87-09a7-520e-c21a-4942f0271d67");
  tl.id = 0;
  tl.time = 1000200000;
  tl.process_id = 0x990;
  tl.thread_id = 0x991;
  tl.extended = extended_item(11, tracelogging_schema("TestEvent", {{"b", 2}, {"c", 2}}), false);
  tl.payload = {'H', 'e', 'l', 'l', 'o', 0, 'W', 'o', 'r', 'l', 'd', '!', 0};

  buffer_spec bs;
  bs.timestamp = 1000300000;
  bs.processor = 3;
  w.add_buffer({event_header_record(e), system_header_record(proc), event_header_record(tl)}, bs);

  event_spec e2 = e;
  e2.time = 1000400000;
  e2.payload = {0x01, 0x02, 0x03, 0x04, 'n', 'o', 't', 'e', 'p', 'a', 'd', '.', 'e', 'x', 'e', 0};
  bs.timestamp = 1000500000;
  bs.processor = 1;
  bs.sequence = 1;
  w.add_buffer({event_header_record(e2, true)}, bs);
  return w.data();
}

namespace {

// A small deterministic generator (xorshift) for the big trace.
struct rng {
  uint64_t state = 0x9E3779B97F4A7C15ull;
  uint32_t next() {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    return static_cast<uint32_t>(state >> 11);
  }
};

void append_utf16(bytes& b, const std::string& text) {
  bytes u = utf16(text);
  b.insert(b.end(), u.begin(), u.end());
  b.push_back(0);
  b.push_back(0);
}

}  // namespace

namespace {

// The log header of the large traces, with the given buffer size.
log_header_spec big_header(uint32_t buffer_size) {
  log_header_spec h;
  h.buffer_size = buffer_size;
  h.clock = clock_qpc;
  h.perf_freq = 10000000;
  h.system_time = 1000000000;
  h.start_time = 134170743671234567ull;
  h.logger_name = "Big Session";
  h.log_file_name = "c:\\logs\\big.etl";
  return h;
}

// The events of a large trace, made buffer by buffer: a realistic mix that
// fills up to `space` bytes of a buffer (its 72-byte header included).
class big_events {
 public:
  std::vector<bytes> next_buffer(size_t space) {
    static const char* const kPaths[] = {
        "\\Device\\HarddiskVolume3\\Windows\\System32\\kernel32.dll",
        "\\Device\\HarddiskVolume3\\Users\\analyst\\AppData\\Local\\Temp\\x.tmp",
        "C:\\Program Files\\App\\app.exe",
        "\\REGISTRY\\MACHINE\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Run"};
    const guid manifest = guid_from_text("22fb2cd6-0e7b-422b-a0c7-2fad1fd0e716");  // Kernel-Process
    const guid tl = guid_from_text("8e805eb3-8c20-4d38-a4a5-5a3b2b69bd16");
    std::vector<bytes> records;
    size_t used = 72;
    for (;;) {
      raw_ += 1 + r_.next() % 50;
      event_spec e;
      e.time = raw_;
      e.process_id = 0x100 + r_.next() % 64;
      e.thread_id = 0x2000 + r_.next() % 512;
      bytes rec;
      const uint32_t pick = r_.next() % 10;
      const std::string path_text = kPaths[r_.next() % 4];
      if (pick < 4) {  // a manifest event: numbers and a string, guessed
        e.provider = manifest;
        e.id = static_cast<uint16_t>(1 + r_.next() % 8);
        e.keyword = 0x8000000000000010ull;
        append_u32(e.payload, e.process_id);
        append_u32(e.payload, r_.next());
        append_utf16(e.payload, path_text);
        append_u32(e.payload, r_.next() % 1000);
        rec = event_header_record(e);
      } else if (pick < 8) {  // a classic file name event: pointer and path
        e.id = 0x0400;
        e.class_version = 2;
        for (int i = 0; i < 8; ++i) e.payload.push_back(uint8_t(r_.next()));
        append_utf16(e.payload, path_text);
        rec = system_header_record(e);
      } else {  // TraceLogging: schema and a payload of two strings and a number
        e.provider = tl;
        e.extended = extended_item(11, tracelogging_schema("ScanBuffer", {{"appname", 2}, {"contentname", 1}, {"size", 8}}), false);
        const std::string app = "powershell.exe";
        e.payload.insert(e.payload.end(), app.begin(), app.end());
        e.payload.push_back(0);
        append_utf16(e.payload, path_text);
        append_u32(e.payload, r_.next() % 65536);
        rec = event_header_record(e);
      }
      const size_t step = (rec.size() + 7) & ~size_t(7);
      if (used + step > space) break;
      used += step;
      records.push_back(std::move(rec));
    }
    return records;
  }

  // The next buffer's header fields.
  buffer_spec next_shape(uint32_t buffer_size) {
    buffer_spec shape;
    shape.buffer_size = buffer_size;
    shape.timestamp = raw_ + 1;
    shape.sequence = sequence_++;
    shape.processor = static_cast<uint8_t>(sequence_ % 4);
    return shape;
  }

 private:
  rng r_;
  uint64_t raw_ = 1000000000;
  uint32_t sequence_ = 0;
};

}  // namespace

bool write_big_trace(const std::string& path, uint64_t total_bytes) {
  FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) return false;
  etl_writer w;
  w.log_header(big_header(65536));
  bool ok = std::fwrite(w.data().data(), 1, w.size(), f) == w.size();
  big_events events;
  uint64_t written = w.size();
  while (ok && written < total_bytes) {
    std::vector<bytes> records = events.next_buffer(65536);
    etl_writer b;
    b.add_buffer(records, events.next_shape(65536));
    ok = std::fwrite(b.data().data(), 1, b.size(), f) == b.size();
    written += b.size();
  }
  return std::fclose(f) == 0 && ok;
}

bool write_sparse_big_trace(const std::string& path, uint64_t total_bytes, uint32_t buffer_size,
                            uint32_t used_size) {
  if (buffer_size < 4096 || used_size < 4096 || used_size > buffer_size) return false;
  FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) return false;
  etl_writer w;
  w.log_header(big_header(buffer_size));
  // The first block's own padding is left as a hole too.
  size_t head = w.size();
  while (head > 0 && w.data()[head - 1] == 0) --head;
  bool ok = std::fwrite(w.data().data(), 1, head, f) == head;
  big_events events;
  uint64_t at = w.size();
  while (ok && at + buffer_size <= total_bytes) {
    std::vector<bytes> records = events.next_buffer(used_size);
    etl_writer b;
    b.add_buffer(records, events.next_shape(buffer_size));
    size_t n = b.size();
    while (n > 0 && b.data()[n - 1] == 0) --n;
    ok = fseeko(f, static_cast<off_t>(at), SEEK_SET) == 0 &&
         std::fwrite(b.data().data(), 1, n, f) == n;
    at += buffer_size;
  }
  // The last buffer's padding: the file ends where its buffers do.
  ok = ok && std::fflush(f) == 0 && ftruncate(fileno(f), static_cast<off_t>(at)) == 0;
  return std::fclose(f) == 0 && ok;
}

}  // namespace tw
