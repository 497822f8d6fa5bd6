#include "trace/trace_engine.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "decode/payload_decoder.h"
#include "decode/render.h"
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

// Header markers: the u16 at 2 of a record (header type in the low byte).
constexpr uint16_t kHeaderMessage = 0x9000;
constexpr uint16_t kHeaderSystem32 = 0xC001;
constexpr uint16_t kHeaderSystem64 = 0xC002;
constexpr uint16_t kHeaderCompact32 = 0xC003;
constexpr uint16_t kHeaderCompact64 = 0xC004;
constexpr uint16_t kHeaderFull32 = 0xC00A;
constexpr uint16_t kHeaderInstance32 = 0xC00B;
constexpr uint16_t kHeaderPerfinfo32 = 0xC010;
constexpr uint16_t kHeaderPerfinfo64 = 0xC011;
constexpr uint16_t kHeaderEvent32 = 0xC012;
constexpr uint16_t kHeaderEvent64 = 0xC013;
constexpr uint16_t kHeaderFull64 = 0xC014;
constexpr uint16_t kHeaderInstance64 = 0xC015;

// Header lengths: the bytes ahead of the payload.
constexpr uint32_t kMessageLength = 40;       // kind 1; kind 2 is 4 longer
constexpr uint32_t kSystemLength = 32;
constexpr uint32_t kCompactLength = 24;
constexpr uint32_t kPerfinfoLength = 16;
constexpr uint32_t kFullLength = 48;
constexpr uint32_t kInstanceLength = 72;
constexpr uint32_t kEventHeaderLength = 80;
constexpr uint32_t kOtherLength = 8;

// EVENT_HEADER Flags.
constexpr uint16_t kFlagExtendedInfo = 0x0001;
constexpr uint16_t kFlag32BitHeader = 0x0020;
constexpr uint16_t kFlag64BitHeader = 0x0040;

// Extended item types read here (EVENT_HEADER_EXT_TYPE_*).
constexpr uint16_t kExtRelatedActivity = 1;
constexpr uint16_t kExtSid = 2;
constexpr uint16_t kExtSessionId = 3;
constexpr uint16_t kExtStack32 = 5;
constexpr uint16_t kExtStack64 = 6;
constexpr uint16_t kExtEventKey = 10;
constexpr uint16_t kExtSchema = 11;
constexpr uint16_t kExtProviderTraits = 12;
constexpr uint16_t kExtProcessStartKey = 13;
// A stack item's data: a 64-bit match id, then the return addresses.
constexpr uint32_t kStackMatchIdSize = 8;

// A raw-clocked start value above this is taken for a FILETIME and replaced
// by the header record's SystemTime in the buffer loop.
constexpr uint64_t kRawStartLimit = 0x1C0000000000000ull;

// The pointer width a header type tells: 4 or 8, or 0 when it tells none.
uint32_t pointer_width_of(uint16_t marker) {
  switch (marker) {
    case kHeaderSystem32:
    case kHeaderCompact32:
    case kHeaderFull32:
    case kHeaderInstance32:
    case kHeaderPerfinfo32:
    case kHeaderEvent32:
      return 4;
    case kHeaderSystem64:
    case kHeaderCompact64:
    case kHeaderFull64:
    case kHeaderInstance64:
    case kHeaderPerfinfo64:
    case kHeaderEvent64:
      return 8;
    default:
      return 0;
  }
}

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
    case kind_c001:
    case kind_compact:
      return in.start_valid || in.start <= t;
    case kind_c011:
    case kind_c010:
      return (in.start_valid || in.start <= t) &&
             (static_cast<uint32_t>(t) > 0x4FFFF || (t >> 32) > 4095);
    default:
      return in.start_valid || in.start <= t || qv::is_valid_filetime(t);
  }
}

// The view of one record: its bytes from `p`, of which `remaining` belong to
// the buffer's data (never more than are really there).
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

// Kinds 1 and 2: the message headers. A record of exactly the header's
// length is an event with no payload.
bool test_9000(const record_view& r, bool kind2, uint16_t hint, const time_inputs& in) {
  if (r.remaining < 8 || r.u16(2) != kHeaderMessage) return false;
  const uint16_t size = r.u16(0);
  if (r.remaining < size) return false;
  if (size < kMessageLength + (kind2 ? 4 : 0)) return false;
  if (hint != 0 && hint != (kind2 ? 28 : 24)) return false;
  return time_test(kind2 ? kind_9000_1c : kind_9000_18, r.u64(kind2 ? 28 : 24), in);
}

// Kinds 6 and 7: EVENT_HEADER.
bool test_event_header(const record_view& r, const time_inputs& in, uint32_t& kind) {
  if (r.remaining < 8) return false;
  const uint16_t type = r.u16(2);
  if (type != kHeaderEvent32 && type != kHeaderEvent64) return false;
  const uint16_t size = r.u16(0);
  if (r.remaining < size || size < kEventHeaderLength) return false;
  if (r.u16(4) & kFlagExtendedInfo) {
    if (size < 82 || static_cast<uint32_t>(r.u16(80)) + kEventHeaderLength > size) return false;
  }
  kind = type == kHeaderEvent32 ? kind_c012 : kind_c013;
  return time_test(kind, r.u64(16), in);
}

// Kind 5: the 48-byte full header (EVENT_TRACE_HEADER), written as 0xC00A
// by 32-bit and as 0xC014 by 64-bit loggers; relogged and compressed traces
// carry their system configuration events in the 64-bit form.
bool test_full_header(const record_view& r, const time_inputs& in) {
  if (r.remaining < 8) return false;
  const uint16_t type = r.u16(2);
  if (type != kHeaderFull32 && type != kHeaderFull64) return false;
  const uint16_t size = r.u16(0);
  if (r.remaining < size || size < kFullLength) return false;
  return time_test(kind_c00a, r.u64(16), in);
}

// Kind 13: the 72-byte instance header (EVENT_INSTANCE_GUID_HEADER).
bool test_instance_header(const record_view& r, const time_inputs& in) {
  if (r.remaining < 8) return false;
  const uint16_t type = r.u16(2);
  if (type != kHeaderInstance32 && type != kHeaderInstance64) return false;
  const uint16_t size = r.u16(0);
  if (r.remaining < size || size < kInstanceLength) return false;
  return time_test(kind_instance, r.u64(16), in);
}

// Kinds 3, 4, 8, 10, 11 and 12 share the classic size test.
bool classic_size_ok(const record_view& r) {
  if (r.remaining < 8 || !version_word_ok(r)) return false;
  const uint16_t size = r.u16(4);
  return size != 0 && size <= r.remaining;
}

// Kinds 3, 10 and 12: the system header of either width, and its compact form.
bool test_system(const record_view& r, const time_inputs& in, uint32_t& kind) {
  if (!classic_size_ok(r)) return false;
  switch (r.u16(2)) {
    case kHeaderSystem64: kind = kind_c002; break;
    case kHeaderSystem32: kind = kind_c001; break;
    case kHeaderCompact32:
    case kHeaderCompact64: kind = kind_compact; break;
    default: return false;
  }
  const uint64_t t = r.u64(16);
  return t != 0 && time_test(kind, t, in);
}

// Kinds 4 and 11: the perfinfo header of either width.
bool test_perfinfo(const record_view& r, const time_inputs& in, uint32_t& kind) {
  if (!classic_size_ok(r)) return false;
  switch (r.u16(2)) {
    case kHeaderPerfinfo64: kind = kind_c011; break;
    case kHeaderPerfinfo32: kind = kind_c010; break;
    default: return false;
  }
  const uint64_t t = r.u64(8);
  return t != 0 && time_test(kind, t, in);
}

bool test_other(const record_view& r) { return classic_size_ok(r); }

// The loop's test (and resync's): kinds 2, 6/7, 5, 13, 1 with no hint, then
// 8. Each of the first stands for its own marker, so the marker picks the
// one to try. `size_at` is where the record's size stands: 0, or 4 for the
// classic forms.
bool loop_test(const record_view& r, const time_inputs& in, uint32_t& size_at) {
  size_at = 0;
  if (r.remaining < 8) return false;
  uint32_t kind;
  switch (r.u16(2)) {
    case kHeaderMessage:
      if (test_9000(r, true, 0, in) || test_9000(r, false, 0, in)) return true;
      break;
    case kHeaderEvent32:
    case kHeaderEvent64:
      if (test_event_header(r, in, kind)) return true;
      break;
    case kHeaderFull32:
    case kHeaderFull64:
      if (test_full_header(r, in)) return true;
      break;
    case kHeaderInstance32:
    case kHeaderInstance64:
      if (test_instance_header(r, in)) return true;
      break;
    default:
      break;
  }
  if (test_other(r)) {
    size_at = 4;
    return true;
  }
  return false;
}

// The kind of the record at `r` as unpacked: the form its marker names, when
// the record passes that form's test with the buffer's hint (for messages,
// the 28-byte form first), else kind 8 when it passes that test, else 9.
uint32_t kind_of(const record_view& r, uint16_t hint, const time_inputs& in) {
  uint32_t kind = kind_unknown;
  if (r.remaining < 8) return kind;
  switch (r.u16(2)) {
    case kHeaderMessage:
      if (test_9000(r, true, hint, in)) kind = kind_9000_1c;
      else if (test_9000(r, false, hint, in)) kind = kind_9000_18;
      break;
    case kHeaderEvent32:
    case kHeaderEvent64:
      if (!test_event_header(r, in, kind)) kind = kind_unknown;
      break;
    case kHeaderFull32:
    case kHeaderFull64:
      if (test_full_header(r, in)) kind = kind_c00a;
      break;
    case kHeaderInstance32:
    case kHeaderInstance64:
      if (test_instance_header(r, in)) kind = kind_instance;
      break;
    case kHeaderPerfinfo32:
    case kHeaderPerfinfo64:
      if (!test_perfinfo(r, in, kind)) kind = kind_unknown;
      break;
    case kHeaderSystem32:
    case kHeaderSystem64:
    case kHeaderCompact32:
    case kHeaderCompact64:
      if (!test_system(r, in, kind)) kind = kind_unknown;
      break;
    default:
      break;
  }
  if (kind == kind_unknown && test_other(r)) kind = kind_other;
  return kind;
}

uint32_t aligned_step(uint16_t size) { return (static_cast<uint32_t>(size) + 7) & ~7u; }

// The identifier a full or instance header's payload is decoded by: the
// hook identifier of the same event (group key | class type) when the class
// GUID is a kernel group's, else the class type alone.
uint16_t class_event_id(trace_engine& e, const qv::guid16& guid, uint8_t class_type) {
  class_group_cache& c = e.class_group;
  if (!c.looked_up || c.guid != guid) {
    c.guid = guid;
    c.looked_up = true;
    c.found = false;
    for (const auto& [key, group_guid] : e.store.group_guids) {
      if (group_guid == guid) {
        c.key = key;
        c.found = true;
        break;
      }
    }
  }
  return c.found ? static_cast<uint16_t>(c.key | class_type) : class_type;
}

// A stack-trace item: its return addresses become one field each,
// "stack[0]", "stack[1]"..., keyed by where each address stands; the match id
// ahead of them is not shown.
void add_stack_fields(etl_record& rec, const uint8_t* data, uint32_t size, uint64_t key,
                      uint32_t width) {
  if (size < kStackMatchIdSize) return;
  const uint32_t count = (size - kStackMatchIdSize) / width;
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t at = kStackMatchIdSize + i * width;
    decoded_field* f = rec.fields.add(key + at);
    if (!f) continue;
    f->type = 16;  // a pointer
    f->size = width;
    f->number = width == 8 ? rd_u64(data, size, at) : rd_u32(data, size, at);
    f->name.assign("stack[");
    append_decimal(f->name, i);
    f->name.push_back(']');
  }
}

// TraceLogging schemas repeat from event to event of a provider: each one is
// parsed once and kept, beside its bytes, in a small table indexed by a hash
// of the bytes. A slot holds what the parse gave, a failed parse included.
struct schema_slot {
  std::vector<uint8_t> bytes;
  event_template layout;
  bool parsed = false;
  bool ok = false;
};
constexpr size_t kSchemaSlots = 32;

const event_template& cached_schema(const uint8_t* data, uint32_t size, bool& ok) {
  thread_local std::array<schema_slot, kSchemaSlots> slots;
  uint64_t h = 1469598103934665603ULL;  // FNV-1a
  for (uint32_t i = 0; i < size; ++i) h = (h ^ data[i]) * 1099511628211ULL;
  schema_slot& slot = slots[(h ^ (h >> 29)) % kSchemaSlots];
  if (!slot.parsed || slot.bytes.size() != size ||
      (size != 0 && std::memcmp(slot.bytes.data(), data, size) != 0)) {
    slot.bytes.assign(data, data + size);
    slot.ok = parse_tracelogging_schema(data, size, slot.layout);
    slot.parsed = true;
  }
  ok = slot.ok;
  return slot.layout;
}

// Extended items behind an EVENT_HEADER: a run of items, each a u16 total
// size, u16 ExtType, u16 more-items flag, u16 data size and the data. Every
// item is stepped over by its total size, whatever its type; types not read
// here show nothing. The walk ends at a zero size, an item that doesn't fit,
// or one whose more-flag is clear. Returns the bytes used, including those of
// a TraceLogging payload decoded through the schema.
uint32_t decode_extended_items(trace_engine& e, etl_record& rec, const uint8_t* area,
                               uint32_t limit, uint64_t base, const uint8_t* buffer_end,
                               bool ptr64) {
  uint32_t used = 0;
  const event_template* schema = nullptr;
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
    const uint8_t* data = item + 8;
    // The data never reaches past the item's own bytes.
    const uint32_t dsize = std::min<uint32_t>(data_size, total >= 8 ? total - 8u : 0u);
    const uint64_t key = base + used;
    switch (ext_type) {
      case kExtRelatedActivity:
        if (decoded_field* f = rec.fields.add(key)) {
          f->type = 15;
          f->name = "guid";
          f->size = 16;
          f->bytes.assign(data, data + std::min<uint32_t>(dsize, 16));
          f->bytes.resize(16, 0);
        }
        break;
      case kExtSid: {
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
      case kExtSessionId:
        if (decoded_field* f = rec.fields.add(key)) {
          f->type = 8;
          f->name = "value";
          f->size = 4;
          f->number = rd_u32(data, dsize, 0);
        }
        break;
      case kExtStack32:
      case kExtStack64:
        add_stack_fields(rec, data, dsize, key + 8, ext_type == kExtStack64 ? 8 : 4);
        break;
      case kExtEventKey:
      case kExtProcessStartKey:
        if (decoded_field* f = rec.fields.add(key)) {
          f->type = 10;
          f->name = "value";
          f->size = 8;
          f->number = rd_u64(data, dsize, 0);
        }
        break;
      case kExtSchema: {  // TraceLogging schema
        bool ok = false;
        schema = &cached_schema(data, dsize, ok);
        if (ok) have_schema = !schema->words.empty();
        break;
      }
      case kExtProviderTraits: {  // u16 size, the provider's UTF-8 name, then traits
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
      default:  // stepped over
        break;
    }
    used += total;
    if (more == 0) break;
  }
  if (have_schema && used < limit && e.decode_enabled) {
    const uint8_t* payload = area + used;
    const int32_t consumed = walk_template(*schema, rec.fields, payload, limit - used, buffer_end,
                                           base + used, ptr64);
    if (consumed > 0) used += static_cast<uint32_t>(consumed);
  }
  return used;
}

// The pointer width of a record's payload: an EVENT_HEADER's flags when they
// name one width, else the header type, else the log header or the buffer.
bool payload_pointers_64(const trace_engine& e, const etl_record& rec, const buffer_rec& buffer) {
  if (rec.kind == kind_c012 || rec.kind == kind_c013) {
    const bool narrow = rec.flags_or_version & kFlag32BitHeader;
    const bool wide = rec.flags_or_version & kFlag64BitHeader;
    if (narrow != wide) return wide;
  }
  switch (pointer_width_of(rec.header_type)) {
    case 4: return false;
    case 8: return true;
    default: return pointers_are_64(e, &buffer);
  }
}

// An instance header's own identity: its instance id, its parent's instance
// id and its parent's GUID, as the record's first fields.
void add_instance_fields(etl_record& rec, const record_view& r, uint64_t file_offset) {
  if (decoded_field* f = rec.fields.add(file_offset + 48)) {
    f->type = 8;
    f->name = "InstanceId";
    f->size = 4;
    f->number = r.u32(48);
  }
  if (decoded_field* f = rec.fields.add(file_offset + 52)) {
    f->type = 8;
    f->name = "ParentInstanceId";
    f->size = 4;
    f->number = r.u32(52);
  }
  if (decoded_field* f = rec.fields.add(file_offset + 56)) {
    f->type = 15;
    f->name = "ParentGuid";
    f->size = 16;
    f->bytes.resize(16);
    qv::rd_bytes(f->bytes.data(), 16, r.p, r.avail(), 56);
  }
}

// One record at `p`; fills an etl_record keyed by `file_offset`. `in` holds
// the trace's StartTime as it stands (without the buffer loop's adjustment)
// and the buffer's TimeStamp.
void unpack_event(trace_engine& e, const record_view& r, uint64_t file_offset,
                  const buffer_rec& buffer, const uint8_t* buffer_end, const time_inputs& in) {
  etl_record* rec = e.records.add(file_offset);
  if (!rec) return;  // the key stays with the earlier record
  rec->valid = true;
  rec->processor = buffer.header.ProcessorNumber;
  rec->alignment = buffer.header.Alignment;
  rec->logger_id = buffer.header.LoggerId;
  uint32_t step = aligned_step(r.u16(0));

  const uint16_t hint = buffer.header_size_hint;
  const uint32_t kind = kind_of(r, hint, in);
  rec->kind = kind;

  uint32_t header_len = 0;
  uint16_t layout_id = 0;  // the identifier the payload's layout is found by
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
      header_len = kMessageLength + static_cast<uint32_t>(shift);
      layout_id = rec->event_id;
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
        header_len = kEventHeaderLength;
        layout_id = rec->event_id;
        rec->layout_version = rec->version;
      } else {
        // A classic event: the payload follows its class, not the columns.
        header_len = kFullLength;
        layout_id = class_event_id(e, rec->provider_id, static_cast<uint8_t>(r.u16(4)));
        rec->layout_version = r.u16(6);
      }
      rec->has_provider = true;
      break;
    case kind_instance: {
      const uint8_t class_type = static_cast<uint8_t>(r.u16(4));
      rec->size = r.u16(0);
      rec->header_type = r.u16(2);
      rec->flags_or_version = r.u16(4);
      rec->event_property = r.u16(6);
      rec->thread_id = r.u32(8);
      rec->process_id = r.u32(12);
      rec->raw_time = r.u64(16);
      qv::rd_bytes(rec->provider_id.data(), 16, r.p, r.avail(), 24);
      rec->event_id = class_type;
      rec->opcode = class_type;
      rec->level = static_cast<uint8_t>(r.u16(4) >> 8);
      rec->version = static_cast<uint8_t>(r.u16(6));
      rec->has_provider = true;
      header_len = kInstanceLength;
      layout_id = class_event_id(e, rec->provider_id, class_type);
      rec->layout_version = r.u16(6);
      if (e.decode_enabled) add_instance_fields(*rec, r, file_offset);
      break;
    }
    case kind_c002:
    case kind_c001:
    case kind_compact:
    case kind_c011:
    case kind_c010:
    case kind_other:
      rec->flags_or_version = r.u16(0);
      rec->header_type = r.u16(2);
      rec->size = r.u16(4);
      rec->hook_id = rec->event_id = r.u16(6);
      if (kind == kind_c002 || kind == kind_c001 || kind == kind_compact) {
        rec->thread_id = r.u32(8);
        rec->process_id = r.u32(12);
        rec->raw_time = r.u64(16);
        if (kind == kind_compact) {
          header_len = kCompactLength;
        } else {
          rec->time_word = r.u64(24);
          header_len = kSystemLength;
        }
      } else if (kind == kind_c011 || kind == kind_c010) {
        rec->raw_time = r.u64(8);
        header_len = kPerfinfoLength;
      } else {
        header_len = kOtherLength;
      }
      step = aligned_step(r.u16(4));
      rec->has_provider = group_guid_of(e.store, rec->event_id, rec->provider_id);
      layout_id = rec->hook_id;
      rec->layout_version = rec->flags_or_version;
      break;
    default:
      rec->valid = false;
      rec->size = r.u16(0);
      rec->header_type = r.u16(2);
      break;
  }

  if (kind != kind_unknown) {
    if (kind != kind_other) rec->absolute_time = e.clock.to_absolute(rec->raw_time);
    const bool ptr64 = payload_pointers_64(e, *rec, buffer);
    uint32_t payload_at = header_len;
    bool has_payload = rec->size > header_len;
    if ((kind == kind_c012 || kind == kind_c013) && (rec->flags_or_version & kFlagExtendedInfo)) {
      const uint16_t first = r.u16(header_len);
      if (first != 0 && static_cast<uint32_t>(first) + header_len <= rec->size) {
        const uint32_t used = decode_extended_items(e, *rec, r.p + header_len, rec->size - header_len,
                                                    file_offset + header_len, buffer_end, ptr64);
        payload_at = header_len + used;
        has_payload = static_cast<uint64_t>(payload_at) + 1 < rec->size;
      }
    }
    // An event source's manifest event: its chunk is gathered, and its row
    // shows the envelope and the text unless the store has a layout for it.
    bool manifest_row = false;
    if (has_payload && (kind == kind_c012 || kind == kind_c013) && rec->event_id == manifest_event_id &&
        (e.decode_enabled || e.gather_manifests)) {
      const uint32_t readable = r.avail() > payload_at ? static_cast<uint32_t>(r.avail() - payload_at) : 0;
      const uint32_t payload_size = std::min<uint32_t>(rec->size - payload_at, readable);
      manifest_envelope envelope;
      if (read_manifest_envelope(r.p + payload_at, payload_size, envelope)) {
        take_manifest_chunk(e.manifests, e.store, rec->provider_id, envelope, file_offset);
        manifest_row = e.decode_enabled &&
                       !find_event_template(e.store, rec->provider_id, layout_id, rec->layout_version);
        if (manifest_row) {
          bool guessed = false;
          decode_manifest_event(rec->fields, file_offset + payload_at, r.p + payload_at, payload_size, guessed);
          rec->guessed = guessed;
        }
      }
    }
    if (has_payload && e.decode_enabled && !manifest_row) {
      bool guessed = false;
      decode_payload(rec->fields, file_offset + payload_at, rec->has_provider ? &rec->provider_id : nullptr,
                     layout_id, rec->layout_version, r.p + payload_at, rec->size - payload_at, buffer_end,
                     &e.store, ptr64, true, guessed);
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
    uint32_t size_at;
    if (loop_test(r, in, size_at)) break;
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

// The end of a buffer's data: its Offset, the bytes the logger filled (for a
// compressed buffer its expanded size), when that lies inside the buffer;
// else the buffer's end. The buffer ends at BufferSize, or at the bytes read
// when BufferSize can't be a buffer's (0, below the header) or exceeds them.
size_t data_end_of(const WMI_BUFFER_HEADER& h, size_t size) {
  const size_t buffer_end = h.BufferSize >= kBufferHeaderSize && h.BufferSize <= size ? h.BufferSize : size;
  return h.Offset >= kBufferHeaderSize && h.Offset <= buffer_end ? h.Offset : buffer_end;
}

// The time inputs of the buffer loop: the trace's start, or with a raw clock
// and a start that reads as a FILETIME, the header record's SystemTime.
time_inputs loop_time_inputs(const trace_engine& e, const buffer_rec& b) {
  uint64_t start = e.has_log_header ? e.header.StartTime : rd_u64(e.first_block, sizeof e.first_block, 24);
  if (e.clock.raw_clock && start > kRawStartLimit) start = e.header.SystemTime;
  return make_time_inputs(e, start, b.header.TimeStamp);
}

// Every record of the buffer `data` from `pos` to the end of its data. A
// record that fits in the bytes that remain is read, whatever its size.
void walk_records(trace_engine& e, const uint8_t* data, size_t size, uint64_t file_offset, size_t pos,
                  const buffer_rec& b) {
  const time_inputs in = loop_time_inputs(e, b);
  const time_inputs unpack_in = make_time_inputs(e, e.header.StartTime, b.header.TimeStamp);
  const size_t data_end = data_end_of(b.header, size);
  const uint8_t* end = data + size;
  while (pos <= data_end && data_end - pos >= 8) {
    const record_view r{data + pos, static_cast<int64_t>(data_end - pos)};
    const uint64_t at = file_offset + pos;
    uint32_t step;
    uint32_t size_at;
    if (loop_test(r, in, size_at)) {
      unpack_event(e, r, at, b, end, unpack_in);
      step = aligned_step(r.u16(size_at));
    } else {
      const uint32_t offset = b.header.Offset;
      if (offset == 0 || offset < static_cast<uint64_t>(pos) + 8) break;
      step = resync(e, r, static_cast<uint32_t>(pos), at, b);
    }
    if (step == 0 || step > data_end - pos) break;
    pos += step;
  }
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
    const record_view r{data + kBufferHeaderSize,
                        static_cast<int64_t>(data_end_of(b.header, size) - kBufferHeaderSize)};
    if (test_9000(r, true, 0, probe)) e.header_size_hint = 28;
    else if (test_9000(r, false, 0, probe)) e.header_size_hint = 24;
  }
  if (b.header_size_hint == 0) b.header_size_hint = e.header_size_hint;
  if (first) {
    e.first_buffer = b;
    e.have_first_buffer = true;
  }
  walk_records(e, data, size, file_offset, kBufferHeaderSize, b);
  return true;
}

bool read_log_header_buffer(trace_engine& e, const uint8_t* data, size_t size) {
  if (!data || size < kFirstProbeSize) return false;
  e.stats.record_sizes.clear();
  buffer_rec& b = e.current_buffer;
  b = buffer_rec();
  b.header = read_buffer_header(data, size);
  b.absolute_time = e.clock.to_absolute(b.header.TimeStamp);
  // This buffer is written with a TimeStamp of 0: a raw time stamp of its
  // records then has no upper bound.
  if (b.header.TimeStamp == 0) b.header.TimeStamp = UINT64_MAX;
  b.header_size_hint = e.header_size_hint;
  // The log header's own record stands at 72, its Size at 76.
  const uint16_t header_record = rd_u16(data, size, kBufferHeaderSize + 4);
  if (header_record == 0) return false;
  walk_records(e, data, size, 0, kBufferHeaderSize + aligned_step(header_record), b);
  return true;
}

void discard_rows(trace_engine& e) { e.records.clear(); }

void reset_engine(trace_engine& e, bool keep_templates) {
  template_store store = std::move(e.store);
  record_list records = std::move(e.records);
  const bool no_guessing = e.no_guessing;
  const bool decode_enabled = e.decode_enabled;
  const bool gather_manifests = e.gather_manifests;
  e = trace_engine();
  // Layouts learned from one file's manifests don't hold for the next: it
  // may come from another machine with another version of the same source.
  forget_learned(store);
  if (keep_templates) e.store = std::move(store);
  e.gather_manifests = gather_manifests;
  records.clear();
  e.records = std::move(records);
  e.no_guessing = no_guessing;
  e.decode_enabled = decode_enabled;
  e.has_log_header = true;
  e.stats_enabled = false;
}
