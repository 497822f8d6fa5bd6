#include "trace/trace_engine.h"

#include <algorithm>
#include <cstring>

#include "decode/payload_decoder.h"
#include "decode/tracelogging.h"
#include "support/byte_reader.h"
#include "support/qv_string.h"
#include "support/qv_time.h"

using qv::rd_u16;
using qv::rd_u32;
using qv::rd_u64;

// ---- record_list -----------------------------------------------------------

size_t record_list::lower_bound(uint64_t key) const {
  size_t lo = 0, hi = count_;
  while (lo < hi) {
    size_t mid = lo + (hi - lo) / 2;
    if (keys_[mid] < key) lo = mid + 1; else hi = mid;
  }
  return lo;
}

bool record_list::contains(uint64_t key) const {
  size_t i = lower_bound(key);
  return i < count_ && keys_[i] == key;
}

etl_record* record_list::add(uint64_t key) {
  size_t i = count_;
  if (count_ != 0 && keys_[count_ - 1] >= key) {
    i = lower_bound(key);
    if (i < count_ && keys_[i] == key) return nullptr;
  }
  if (items_.size() == count_) {
    items_.emplace_back();
    keys_.push_back(0);
  }
  if (i != count_) {
    // Bring the spare entry at `count_` to position `i`.
    const auto at = static_cast<std::ptrdiff_t>(i), live = static_cast<std::ptrdiff_t>(count_);
    std::rotate(items_.begin() + at, items_.begin() + live, items_.begin() + live + 1);
    std::rotate(keys_.begin() + at, keys_.begin() + live, keys_.begin() + live + 1);
  }
  ++count_;
  keys_[i] = key;
  etl_record& r = items_[i];
  r.reset();
  r.file_offset = key;
  return &r;
}

namespace {

constexpr uint16_t kHeader9000 = 0x9000;
constexpr uint16_t kHeaderC002 = 0xC002;
constexpr uint16_t kHeaderC011 = 0xC011;
constexpr uint16_t kHeaderC00A = 0xC00A;
constexpr uint16_t kHeaderC014 = 0xC014;
constexpr uint16_t kHeaderC012 = 0xC012;
constexpr uint16_t kHeaderC013 = 0xC013;

// A raw-clocked start value above this is taken for a FILETIME and replaced
// by the header record's SystemTime in the buffer loop.
constexpr uint64_t kRawStartLimit = 0x1C0000000000000ull;

// The provider whose kind 5 events with id 0 carry their id in Flags.
const qv::guid16 kFlagsIdProvider = {0x91, 0xee, 0x79, 0x9b, 0xfd, 0xb5, 0xc0, 0x41,
                                     0xa2, 0x43, 0x42, 0x48, 0xe2, 0x66, 0xe9, 0xd0};

// What a record's time is tested against.
struct time_inputs {
  bool raw = false;           // the file's clock is raw
  uint64_t start = 0;         // start of the trace
  bool start_valid = false;   // `start` passes the date test
  uint64_t buffer_time = 0;   // TimeStamp of the buffer
};

time_inputs make_time_inputs(const trace_engine& e, uint64_t start, uint64_t buffer_time) {
  time_inputs t;
  t.raw = e.clock.raw_clock;
  t.start = start;
  t.start_valid = qv::is_valid_filetime(start);
  t.buffer_time = buffer_time;
  return t;
}

bool time_test(uint32_t kind, uint64_t t, const time_inputs& in) {
  if (!in.raw) return qv::is_valid_filetime(t);
  if (t > in.buffer_time) return false;
  switch (kind) {
    case kind_c002:
      return in.start_valid || in.start <= t;
    case kind_c011:
      return (in.start_valid || in.start <= t) &&
             (static_cast<uint32_t>(t) > 0x4FFFF || (t >> 32) > 4095);
    default:
      return in.start_valid || in.start <= t || qv::is_valid_filetime(t);
  }
}

// The view of one record: its bytes from `p`, of which `remaining` belong to
// the buffer (never more than are really there).
struct record_view {
  const uint8_t* p;
  int64_t remaining;
  uint16_t u16(size_t off) const { return rd_u16(p, avail(), off); }
  uint32_t u32(size_t off) const { return rd_u32(p, avail(), off); }
  uint64_t u64(size_t off) const { return rd_u64(p, avail(), off); }
  size_t avail() const { return remaining > 0 ? static_cast<size_t>(remaining) : 0; }
};

bool version_word_ok(const record_view& r) {
  const uint16_t v = r.u16(0);
  return v >= 2 && v <= 5;
}

// Kinds 1 and 2: the 0x9000 headers.
bool test_9000(const record_view& r, bool kind2, uint16_t hint, const time_inputs& in) {
  if (r.remaining < 8 || r.u16(2) != kHeader9000) return false;
  const uint16_t size = r.u16(0);
  if (r.remaining < size) return false;
  if (size <= (kind2 ? 44 : 40)) return false;
  if (hint != 0 && hint != (kind2 ? 28 : 24)) return false;
  return time_test(kind2 ? kind_9000_1c : kind_9000_18, r.u64(kind2 ? 28 : 24), in);
}

// Kinds 6 and 7: EVENT_HEADER.
bool test_event_header(const record_view& r, const time_inputs& in, uint32_t& kind) {
  if (r.remaining < 8) return false;
  const uint16_t type = r.u16(2);
  if (type != kHeaderC012 && type != kHeaderC013) return false;
  const uint16_t size = r.u16(0);
  if (r.remaining < size || size <= 80) return false;
  if (r.u16(4) & 1) {
    if (size < 82 || static_cast<uint32_t>(r.u16(80)) + 80 > size) return false;
  }
  kind = type == kHeaderC012 ? kind_c012 : kind_c013;
  return time_test(kind, r.u64(16), in);
}

// Kind 5: the 48-byte full header (EVENT_TRACE_HEADER), written as 0xC00A
// by 32-bit and as 0xC014 by 64-bit loggers; relogged and compressed traces
// carry their system configuration events in the 64-bit form.
bool test_full_header(const record_view& r, const time_inputs& in) {
  if (r.remaining < 8) return false;
  const uint16_t type = r.u16(2);
  if (type != kHeaderC00A && type != kHeaderC014) return false;
  const uint16_t size = r.u16(0);
  if (r.remaining < size || size <= 48) return false;
  return time_test(kind_c00a, r.u64(16), in);
}

// Kinds 3, 4 and 8 share the classic size test.
bool classic_size_ok(const record_view& r) {
  if (r.remaining < 8 || !version_word_ok(r)) return false;
  const uint16_t size = r.u16(4);
  return size != 0 && size <= r.remaining;
}

bool test_system(const record_view& r, const time_inputs& in) {
  if (!classic_size_ok(r) || r.u16(2) != kHeaderC002) return false;
  const uint64_t t = r.u64(16);
  return t != 0 && time_test(kind_c002, t, in);
}

bool test_compact(const record_view& r, const time_inputs& in) {
  if (!classic_size_ok(r) || r.u16(2) != kHeaderC011) return false;
  const uint64_t t = r.u64(8);
  return t != 0 && time_test(kind_c011, t, in);
}

bool test_other(const record_view& r) { return classic_size_ok(r); }

// The loop's test (and resync's): kinds 2, 6/7, 5, 1 with no hint, then 8.
bool loop_test(const record_view& r, const time_inputs& in, bool& classic) {
  uint32_t kind;
  classic = false;
  if (test_9000(r, true, 0, in) || test_event_header(r, in, kind) || test_full_header(r, in) ||
      test_9000(r, false, 0, in))
    return true;
  if (test_other(r)) {
    classic = true;
    return true;
  }
  return false;
}

uint32_t aligned_step(uint16_t size) { return (static_cast<uint32_t>(size) + 7) & ~7u; }

// Extended items behind an EVENT_HEADER. Returns the bytes used, including
// those of a TraceLogging payload decoded through the schema.
uint32_t decode_extended_items(trace_engine& e, etl_record& rec, const uint8_t* area,
                               uint32_t limit, uint64_t base, const uint8_t* buffer_end,
                               bool ptr64) {
  uint32_t used = 0;
  // Reused from event to event: a schema's lists keep their storage.
  thread_local event_template schema;
  bool have_schema = false;
  const size_t readable = static_cast<size_t>(buffer_end - area);
  for (;;) {
    const uint32_t left = limit - used;
    if (left < 8) break;
    const uint8_t* item = area + used;
    const size_t item_avail = readable - used;
    const uint16_t total = rd_u16(item, item_avail, 0);
    const uint16_t ext_type = rd_u16(item, item_avail, 2);
    const uint16_t more = rd_u16(item, item_avail, 4);
    const uint16_t data_size = rd_u16(item, item_avail, 6);
    if (total == 0) break;
    if (total > left || data_size > total) break;
    if (!(ext_type == 1 || ext_type == 2 || ext_type == 3 || ext_type == 10 || ext_type == 11 ||
          ext_type == 12 || ext_type == 13))
      break;
    const uint8_t* data = item + 8;
    // The data never reaches past the item's own bytes.
    const uint32_t dsize = std::min<uint32_t>(data_size, total >= 8 ? total - 8u : 0u);
    const uint64_t key = base + used;
    switch (ext_type) {
      case 1:  // related activity id
        if (decoded_field* f = rec.fields.add(key)) {
          f->type = 15;
          f->name = "guid";
          f->size = 16;
          f->bytes.assign(data, data + std::min<uint32_t>(dsize, 16));
          f->bytes.resize(16, 0);
        }
        break;
      case 2: {  // user SID
        std::string sid = qv::format_sid(data, dsize);
        if (!sid.empty()) {
          if (decoded_field* f = rec.fields.add(key)) {
            f->type = 19;
            f->name = "sid";
            f->size = dsize;
            f->text = std::move(sid);
          }
        }
        break;
      }
      case 3:  // terminal session id
        if (decoded_field* f = rec.fields.add(key)) {
          f->type = 8;
          f->name = "value";
          f->size = 4;
          f->number = rd_u32(data, dsize, 0);
        }
        break;
      case 10:  // event key
      case 13:  // process start key
        if (decoded_field* f = rec.fields.add(key)) {
          f->type = 10;
          f->name = "value";
          f->size = 8;
          f->number = rd_u64(data, dsize, 0);
        }
        break;
      case 11:  // TraceLogging schema
        if (parse_tracelogging_schema(data, dsize, schema)) have_schema = !schema.words.empty();
        break;
      case 12: {  // provider traits: u16 size, the provider's UTF-8 name, then traits
        const uint32_t traits_size = std::min<uint32_t>(rd_u16(data, dsize, 0), dsize);
        std::string name;
        for (uint32_t i = 2; i < traits_size && data[i]; ++i) name += static_cast<char>(data[i]);
        if (!name.empty()) {
          if (decoded_field* f = rec.fields.add(key)) {
            f->type = 2;
            f->name = "utf8";
            f->size = static_cast<uint32_t>(name.size()) + 1;
            f->text = name;
          }
          if (rec.has_provider) set_provider_name(e.store, rec.provider_id, name);
        }
        break;
      }
    }
    used += total;
    if (more == 0) break;
  }
  if (have_schema && used < limit && e.decode_enabled) {
    const uint8_t* payload = area + used;
    const int32_t consumed = walk_template(schema, rec.fields, payload, limit - used, buffer_end,
                                           base + used, ptr64);
    if (consumed > 0) used += static_cast<uint32_t>(consumed);
  }
  return used;
}

// One record at `p`; fills an etl_record keyed by `file_offset`.
void unpack_event(trace_engine& e, const record_view& r, uint64_t file_offset,
                  const buffer_rec& buffer, const uint8_t* buffer_end) {
  etl_record* rec = e.records.add(file_offset);
  if (!rec) return;  // the key stays with the earlier record
  rec->valid = true;
  rec->processor = buffer.header.ProcessorNumber;
  rec->alignment = buffer.header.Alignment;
  rec->logger_id = buffer.header.LoggerId;
  uint32_t step = aligned_step(r.u16(0));

  const uint16_t hint = buffer.header_size_hint;
  const time_inputs in = make_time_inputs(e, e.header.StartTime, buffer.header.TimeStamp);
  uint32_t kind = kind_unknown;
  uint32_t ev_kind;
  if (test_9000(r, true, hint, in)) kind = kind_9000_1c;
  else if (test_9000(r, false, hint, in)) kind = kind_9000_18;
  else if (test_event_header(r, in, ev_kind)) kind = ev_kind;
  else if (test_full_header(r, in)) kind = kind_c00a;
  else if (test_compact(r, in)) kind = kind_c011;
  else if (test_system(r, in)) kind = kind_c002;
  else if (test_other(r)) kind = kind_other;
  rec->kind = kind;

  uint32_t header_len = 0;
  switch (kind) {
    case kind_9000_18:
    case kind_9000_1c: {
      const size_t shift = kind == kind_9000_1c ? 4 : 0;
      rec->size = r.u16(0);
      rec->header_type = r.u16(2);
      rec->flags_or_version = r.u16(4);
      rec->event_property = r.u16(6);
      rec->event_id = r.u16(4);
      qv::rd_bytes(rec->provider_id.data(), 16, r.p, r.avail(), 8 + shift);
      rec->raw_time = r.u64(24 + shift);
      rec->thread_id = r.u32(32 + shift);
      rec->process_id = r.u32(36 + shift);
      if (kind == kind_9000_1c) rec->reserved_word = r.u32(8);
      rec->has_provider = true;
      header_len = 40 + static_cast<uint32_t>(shift);
      break;
    }
    case kind_c012:
    case kind_c013:
    case kind_c00a:
      rec->size = r.u16(0);
      rec->header_type = r.u16(2);
      rec->flags_or_version = r.u16(4);
      rec->event_property = r.u16(6);
      rec->thread_id = r.u32(8);
      rec->process_id = r.u32(12);
      rec->raw_time = r.u64(16);
      qv::rd_bytes(rec->provider_id.data(), 16, r.p, r.avail(), 24);
      rec->event_id = r.u16(40);
      rec->version = static_cast<uint8_t>(r.u16(42));
      rec->channel = static_cast<uint8_t>(r.u16(42) >> 8);
      rec->level = static_cast<uint8_t>(r.u16(44));
      rec->opcode = static_cast<uint8_t>(r.u16(44) >> 8);
      rec->task = r.u16(46);
      if (kind != kind_c00a) {
        rec->keyword = r.u64(48);
        rec->time_word = r.u64(56);
        qv::rd_bytes(rec->activity_id.data(), 16, r.p, r.avail(), 64);
        header_len = 80;
      } else {
        header_len = 48;
      }
      rec->has_provider = true;
      break;
    case kind_c002:
    case kind_c011:
    case kind_other:
      rec->flags_or_version = r.u16(0);
      rec->header_type = r.u16(2);
      rec->size = r.u16(4);
      rec->hook_id = rec->event_id = r.u16(6);
      if (kind == kind_c002) {
        rec->thread_id = r.u32(8);
        rec->process_id = r.u32(12);
        rec->raw_time = r.u64(16);
        rec->time_word = r.u64(24);
        header_len = 32;
      } else if (kind == kind_c011) {
        rec->raw_time = r.u64(8);
        header_len = 16;
      } else {
        header_len = 8;
      }
      step = aligned_step(r.u16(4));
      rec->has_provider = group_guid_of(e.store, rec->event_id, rec->provider_id);
      break;
    default:
      rec->valid = false;
      rec->size = r.u16(0);
      rec->header_type = r.u16(2);
      break;
  }

  if (kind != kind_unknown) {
    if (kind != kind_other) rec->absolute_time = e.clock.to_absolute(rec->raw_time);
    const bool ptr64 = pointers_are_64(e, &buffer);
    uint32_t payload_at = header_len;
    bool has_payload = rec->size > header_len;
    if ((kind == kind_c012 || kind == kind_c013 || kind == kind_c00a) && (rec->flags_or_version & 1)) {
      const uint16_t first = r.u16(header_len);
      if (first != 0 && static_cast<uint32_t>(first) + header_len <= rec->size) {
        const uint32_t used = decode_extended_items(e, *rec, r.p + header_len, rec->size - header_len,
                                                    file_offset + header_len, buffer_end, ptr64);
        payload_at = header_len + used;
        has_payload = static_cast<uint64_t>(payload_at) + 1 < rec->size;
      }
    }
    if (has_payload && e.decode_enabled) {
      uint16_t id = rec->event_id;
      if (kind == kind_c00a && id == 0 && rec->provider_id == kFlagsIdProvider) id = rec->flags_or_version;
      bool guessed = false;
      const int version = kind == kind_c012 || kind == kind_c013 ? rec->version : -1;
      decode_payload(rec->fields, file_offset + payload_at, rec->has_provider ? &rec->provider_id : nullptr,
                     id, version, r.p + payload_at, rec->size - payload_at, buffer_end, &e.store, ptr64,
                     true, guessed);
      rec->guessed = guessed;
    }
  }

  if (rec->has_provider) {
    e.stats.provider_set.insert(rec->provider_id);
    if (e.subset_enabled && rec->provider_id == e.subset_guid)
      e.stats.subset_index.emplace(rec->provider_id, file_offset);
    rec->provider_name = provider_name_of(e.store, rec->provider_id);
    if (e.stats_enabled) ++e.stats.event_counts[rec->provider_id][rec->event_id];
  }
  if (e.subset_enabled) e.stats.record_sizes[file_offset] = step;
}

// Steps over a damaged stretch 8 bytes at a time, up to the next record that
// passes a test; leaves a placeholder under the key of that record. Returns
// the bytes stepped over, or 0 to give up the rest of the buffer.
uint32_t resync(trace_engine& e, record_view r, uint32_t pos, uint64_t file_offset,
                const buffer_rec& buffer) {
  const WMI_BUFFER_HEADER& h = buffer.header;
  const uint32_t limit = h.SavedOffset ? h.SavedOffset : h.BufferSize ? h.BufferSize : h.Offset;
  if (limit == 0 || static_cast<int64_t>(pos) >= static_cast<int64_t>(limit) - 8) return 0;
  const int64_t start_remaining = r.remaining;
  const uint64_t start_offset = file_offset;
  const time_inputs in = make_time_inputs(e, e.header.StartTime, h.TimeStamp);
  for (;;) {
    bool classic;
    if (loop_test(r, in, classic)) break;
    r.p += 8;
    r.remaining -= 8;
    file_offset += 8;
    if (r.remaining <= 8) break;
  }
  if (r.remaining <= 7) return 0;
  etl_record* rec = e.records.add(file_offset);
  const uint16_t size = static_cast<uint16_t>(start_remaining - r.remaining);
  if (rec) {
    rec->valid = false;
    rec->kind = kind_placeholder;
    rec->size = size;
    rec->file_offset = start_offset;
    rec->processor = h.ProcessorNumber;
    rec->alignment = h.Alignment;
    rec->logger_id = h.LoggerId;
  }
  return size;
}

}  // namespace

bool pointers_are_64(const trace_engine& e, const buffer_rec* buffer) {
  if (e.has_log_header) return e.header.PointerSize == 8;
  if (!buffer && e.have_first_buffer) buffer = &e.first_buffer;
  if (!buffer) return true;
  return (buffer->pointer_word() & 0xFFF00000u) == 0xFFF00000u;
}

bool open_with_log_header(trace_engine& e, const uint8_t* block, size_t size) {
  if (!is_logfile_buffer(block, size)) return false;
  if (!parse_log_header(block, size, e.header)) return false;
  e.has_log_header = true;
  e.logger_name = e.header.LoggerName;
  e.log_file_name = e.header.LogFileName;
  e.clock = e.header.clock;
  set_trace_build(e.store, e.header.ProviderVersion);
  return true;
}

bool open_with_first_buffer(trace_engine& e, const uint8_t* header, size_t size) {
  if (!is_rlfs_buffer(header, size) && !is_zero_block(header, size)) return false;
  e.clock = trace_clock();
  if (!qv::is_valid_filetime(rd_u64(header, size, 24))) {
    // No wall clock to anchor raw stamps: every absolute time is 0 and rows
    // fall back to the raw value.
    e.clock.is_qpc = true;
    e.clock.raw_clock = true;
  }
  std::memset(e.first_block, 0, sizeof e.first_block);
  std::memcpy(e.first_block, header, std::min<size_t>(size, sizeof e.first_block));
  e.has_log_header = false;
  return true;
}

bool read_buffer(trace_engine& e, const uint8_t* data, size_t size, uint64_t file_offset) {
  if (!data || size < kBufferHeaderSize) return false;
  e.stats.record_sizes.clear();
  buffer_rec& b = e.current_buffer;
  b = buffer_rec();
  b.file_offset = file_offset;
  if (e.has_log_header) {
    b.header = read_buffer_header(data, size);
  } else {
    b.header = read_rlfs_header(data, size, b.marker_word);
    b.is_rlfs = true;
  }
  b.absolute_time = e.clock.to_absolute(b.header.TimeStamp);

  const bool first = !e.have_first_buffer;
  if (first && size - 8 > kBufferHeaderSize && e.header_size_hint == 0) {
    const time_inputs probe = make_time_inputs(e, e.header.StartTime, b.header.TimeStamp);
    record_view r{data + kBufferHeaderSize,
                  std::min<int64_t>(static_cast<int64_t>(b.header.BufferSize) - kBufferHeaderSize,
                                    static_cast<int64_t>(size - kBufferHeaderSize))};
    if (test_9000(r, true, 0, probe)) e.header_size_hint = 28;
    else if (test_9000(r, false, 0, probe)) e.header_size_hint = 24;
  }
  if (b.header_size_hint == 0) b.header_size_hint = e.header_size_hint;
  if (first) {
    e.first_buffer = b;
    e.have_first_buffer = true;
  }

  uint64_t start = e.has_log_header ? e.header.StartTime : rd_u64(e.first_block, sizeof e.first_block, 24);
  if (e.clock.raw_clock && start > kRawStartLimit) start = e.header.SystemTime;
  const time_inputs in = make_time_inputs(e, start, b.header.TimeStamp);

  const uint8_t* end = data + size;
  int32_t left = static_cast<int32_t>(b.header.BufferSize - kBufferHeaderSize);
  uint32_t pos = kBufferHeaderSize;
  for (;;) {
    // The bytes a record may use: what BufferSize leaves, and never more
    // than the buffer really holds.
    record_view r{data + pos, std::min<int64_t>(left, static_cast<int64_t>(size - pos))};
    const uint64_t at = file_offset + pos;
    uint32_t step;
    bool classic;
    if (loop_test(r, in, classic)) {
      unpack_event(e, r, at, b, end);
      step = aligned_step(classic ? r.u16(4) : r.u16(0));
    } else {
      const uint32_t offset = b.header.Offset;
      if (offset == 0 || offset < static_cast<uint64_t>(pos) + 8) break;
      step = resync(e, r, pos, at, b);
      if (step == 0) break;
    }
    left -= static_cast<int32_t>(step);
    pos += step;
    if (size - 8 <= pos || left < 0 || left <= 79) break;
  }
  return true;
}

void discard_rows(trace_engine& e) { e.records.clear(); }

void reset_engine(trace_engine& e, bool keep_templates) {
  template_store store = std::move(e.store);
  record_list records = std::move(e.records);
  const bool no_guessing = e.no_guessing;
  const bool decode_enabled = e.decode_enabled;
  e = trace_engine();
  if (keep_templates) e.store = std::move(store);
  records.clear();
  e.records = std::move(records);
  e.no_guessing = no_guessing;
  e.decode_enabled = decode_enabled;
  e.has_log_header = true;
  e.stats_enabled = false;
}
