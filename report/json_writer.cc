// JSON Lines output. Every line is composed in one reused string and handed
// to the stream in one insertion; the scratch texts and the key set keep
// their storage from event to event, so a steady run allocates nothing per
// field.

#include "report/json_writer.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>

#include "decode/render.h"
#include "support/byte_reader.h"
#include "support/qv_string.h"
#include "support/qv_time.h"
#include "trace/log_header.h"
#include "trace/trace_engine.h"

namespace {

constexpr char kHexDigits[] = "0123456789abcdef";
constexpr char kReplacement[] = "\xEF\xBF\xBD";  // U+FFFD in UTF-8

// FILETIME ticks of 1970-01-01 and per second.
constexpr uint64_t kUnixEpochTicks = 116444736000000000ull;
constexpr uint64_t kTicksPerSecond = 10000000ull;

// How many decoded fields the message names, and how long a value may be
// there before it is cut.
constexpr size_t kMessageFields = 3;
constexpr size_t kMessageValueBytes = 64;

// The header kinds by `kind`, as the reader labels them.
constexpr const char* kKindLabels[] = {"0000(00)", "9000(18)", "9000(1c)", "c002(10)", "c011(08)",
                                       "c00a(10)", "c012(10)", "c013(10)", "wxxx(xx)", "xxxx(xx)"};

inline bool in_range(uint8_t c, uint8_t lo, uint8_t hi) { return c >= lo && c <= hi; }

// A literal of known length, without the length being counted at run time.
template <size_t N>
inline void put(std::string& out, const char (&literal)[N]) {
  out.append(literal, N - 1);
}

// Bytes a JSON string can't hold as they stand: controls, the quote, the
// backslash, and every byte of a multi-byte sequence (checked separately).
struct plain_byte_table {
  bool plain[256];
  constexpr plain_byte_table() : plain() {
    for (int c = 0; c < 256; ++c) plain[c] = c >= 0x20 && c < 0x80 && c != '"' && c != '\\';
  }
};
constexpr plain_byte_table kPlain;

// The two decimal digits of 0 to 99.
struct digit_pair_table {
  char pairs[100][2];
  constexpr digit_pair_table() : pairs() {
    for (int i = 0; i < 100; ++i) {
      pairs[i][0] = char('0' + i / 10);
      pairs[i][1] = char('0' + i % 10);
    }
  }
};
constexpr digit_pair_table kDigitPairs;

// `v` in decimal, at least `width` digits (up to 20), two digits a step.
void append_uint(std::string& out, uint64_t v, size_t width = 1) {
  char buf[20];
  char* p = buf + sizeof buf;
  while (v >= 100) {
    const char* pair = kDigitPairs.pairs[v % 100];
    v /= 100;
    *--p = pair[1];
    *--p = pair[0];
  }
  if (v >= 10) {
    *--p = kDigitPairs.pairs[v][1];
    *--p = kDigitPairs.pairs[v][0];
  } else {
    *--p = char('0' + v);
  }
  if (width > sizeof buf) width = sizeof buf;
  while (static_cast<size_t>(buf + sizeof buf - p) < width) *--p = '0';
  out.append(p, static_cast<size_t>(buf + sizeof buf - p));
}

// The length of the well-formed UTF-8 sequence at `p` (2 to 4; surrogate
// code points are not well-formed), or 0 with `bad` set to the length of its
// longest ill-formed beginning (at least 1), which becomes one U+FFFD.
size_t utf8_sequence(const uint8_t* p, size_t n, size_t& bad) {
  const uint8_t c = p[0];
  size_t need;
  uint8_t lo = 0x80, hi = 0xBF;  // range of the second byte
  if (in_range(c, 0xC2, 0xDF)) {
    need = 2;
  } else if (in_range(c, 0xE0, 0xEF)) {
    need = 3;
    if (c == 0xE0) lo = 0xA0;
    if (c == 0xED) hi = 0x9F;
  } else if (in_range(c, 0xF0, 0xF4)) {
    need = 4;
    if (c == 0xF0) lo = 0x90;
    if (c == 0xF4) hi = 0x8F;
  } else {
    bad = 1;
    return 0;
  }
  size_t i = 1;
  for (; i < need; ++i) {
    if (i >= n) break;
    const uint8_t b = p[i];
    if (i == 1 ? !in_range(b, lo, hi) : !in_range(b, 0x80, 0xBF)) break;
  }
  if (i == need) return need;
  bad = i;
  return 0;
}

// A UTF-16 surrogate in the three-byte form that the text conversions give
// it: ED A0..AF xx is a high one, ED B0..BF xx a low one. 0 when `p` holds
// neither.
uint32_t surrogate_at(const uint8_t* p, size_t n) {
  if (n < 3 || p[0] != 0xED || !in_range(p[1], 0xA0, 0xBF) || !in_range(p[2], 0x80, 0xBF)) return 0;
  return 0xD000u | ((p[1] & 0x3Fu) << 6) | (p[2] & 0x3Fu);
}



void append_string(std::string& out, const std::string& s) {
  out += '"';
  append_json_text(out, s);
  out += '"';
}

void append_guid_string(std::string& out, const uint8_t* guid) {
  out += '"';
  qv::append_guid_text(out, guid);
  out += '"';
}

void append_hex_string(std::string& out, uint64_t v) {
  put(out, "\"0x");
  append_hex(out, v, 16);
  out += '"';
}

// A float or double as the shortest text that reads back to the same bits;
// the values JSON has no number for as strings.
template <typename T>
void append_json_float(std::string& out, T v) {
  if (std::isnan(v)) {
    put(out, "\"NaN\"");
    return;
  }
  if (std::isinf(v)) {
    out += v < 0 ? "\"-Infinity\"" : "\"Infinity\"";
    return;
  }
  char buf[64];
  const auto res = std::to_chars(buf, buf + sizeof buf, v);
  out.append(buf, static_cast<size_t>(res.ptr - buf));
}

// A payload time, read from the field's own type and value.
struct field_time {
  bool valid = false;   // a date: `ticks` are FILETIME ticks
  uint64_t ticks = 0;
};

// True for the time types: FILETIME (17), SYSTEMTIME (18, its 16 bytes) and
// 32-bit Unix time (168). A guessed SYSTEMTIME keeps only a number and is
// none of them.
bool time_of(const decoded_field& f, field_time& t) {
  if (f.missing) return false;
  if (f.type == 17 && f.size == 8 && f.bytes.empty()) {
    t.valid = qv::is_valid_filetime(f.number);
    t.ticks = f.number;
    return true;
  }
  if (f.type == 168 && f.size == 4 && f.bytes.empty()) {
    t.ticks = f.number * kTicksPerSecond + kUnixEpochTicks;
    t.valid = f.number != 0 && f.number <= 0xFFFFFFFFu && qv::is_valid_filetime(t.ticks);
    return true;
  }
  if (f.type == 18 && f.bytes.size() == 16) {
    const uint8_t* b = f.bytes.data();
    qv::_windows_systemtime st;
    st.wYear = qv::rd_u16(b, 16, 0);
    st.wMonth = qv::rd_u16(b, 16, 2);
    st.wDayOfWeek = qv::rd_u16(b, 16, 4);
    st.wDay = qv::rd_u16(b, 16, 6);
    st.wHour = qv::rd_u16(b, 16, 8);
    st.wMinute = qv::rd_u16(b, 16, 10);
    st.wSecond = qv::rd_u16(b, 16, 12);
    st.wMilliseconds = qv::rd_u16(b, 16, 14);
    const qv::time when(st);
    t.valid = when.is_valid();
    t.ticks = when.get_filetime();
    return true;
  }
  return false;
}

// The stored form of a time: the number, or the SYSTEMTIME's bytes in hex.
void append_time_raw(std::string& out, const decoded_field& f) {
  if (!f.bytes.empty()) {
    out += '"';
    append_hex_bytes(out, f.bytes.data(), f.bytes.size());
    out += '"';
  } else {
    append_json_uint(out, f.number);
  }
}

// The value of a field that isn't a time, from its type: the same choice of
// form as the data column of the rows (text first, then bytes, then number).
void append_field_value(std::string& out, const decoded_field& f) {
  if (f.missing) {
    put(out, "null");
    return;
  }
  if (!f.text.empty()) {
    append_string(out, f.text);
    return;
  }
  if (!f.bytes.empty()) {
    if (f.type == 15 && f.bytes.size() == 16) {
      append_guid_string(out, f.bytes.data());
    } else {
      out += '"';
      append_hex_bytes(out, f.bytes.data(), f.bytes.size());
      out += '"';
    }
    return;
  }
  const uint8_t family = f.subtype >> 4;
  if (family == 0xC || family == 0xE) {  // skips show no number
    put(out, "\"\"");
    return;
  }
  switch (f.type) {
    case 13:  // BOOLEAN
    case 125:
      if (f.number != 0) put(out, "true");
      else put(out, "false");
      return;
    case 11:  // FLOAT
      if (f.size == 4) {
        const uint32_t bits = static_cast<uint32_t>(f.number);
        float v;
        std::memcpy(&v, &bits, sizeof v);
        append_json_float(out, v);
        return;
      }
      break;
    case 12:  // DOUBLE
      if (f.size == 8) {
        double v;
        std::memcpy(&v, &f.number, sizeof v);
        append_json_float(out, v);
        return;
      }
      break;
    case 3:  // INT8, INT16, INT32, INT64: signed at their width
    case 5:
    case 7:
    case 9:
      if (f.size == 1) return append_json_int(out, static_cast<int8_t>(f.number));
      if (f.size == 2) return append_json_int(out, static_cast<int16_t>(f.number));
      if (f.size == 4) return append_json_int(out, static_cast<int32_t>(f.number));
      if (f.size == 8) return append_json_int(out, static_cast<int64_t>(f.number));
      break;
    default:
      break;
  }
  append_json_uint(out, f.number);
}

// The related activity id: the extended item of type 1, which leads the
// extended area behind the header (its key is the area's offset) and which
// the reader keeps as a field "guid" of type 15.
const decoded_field* related_activity(const etl_record& r) {
  uint32_t header_len;
  switch (r.kind) {
    case kind_c012:
    case kind_c013:
      header_len = 80;
      break;
    case kind_c00a:
      header_len = 48;
      break;
    default:
      return nullptr;
  }
  if (!(r.flags_or_version & 1) || r.fields.empty()) return nullptr;
  const decoded_fields::entry& first = *r.fields.begin();
  if (first.key != r.file_offset + header_len) return nullptr;
  const decoded_field& f = first.field;
  if (f.type != 15 || f.bytes.size() != 16 || f.name != "guid") return nullptr;
  return &f;
}

// The message's text of a value written at `value` (a JSON value): a
// string's content without its quotes, cut to a few dozen bytes at a
// character boundary; other values as written; null as "-".
void append_message_value(std::string& msg, const char* value, size_t n) {
  if (n == 4 && std::memcmp(value, "null", 4) == 0) {
    msg += '-';
    return;
  }
  if (n < 2 || value[0] != '"') {
    msg.append(value, n);
    return;
  }
  const char* p = value + 1;
  const size_t len = n - 2;
  if (len <= kMessageValueBytes) {
    msg.append(p, len);
    return;
  }
  // Step over whole escapes and whole UTF-8 characters only.
  size_t at = 0;
  for (;;) {
    const uint8_t c = static_cast<uint8_t>(p[at]);
    size_t step = 1;
    if (c == '\\') step = p[at + 1] == 'u' ? 6 : 2;
    else if (c >= 0xF0) step = 4;
    else if (c >= 0xE0) step = 3;
    else if (c >= 0xC0) step = 2;
    if (at + step > kMessageValueBytes) break;
    at += step;
  }
  msg.append(p, at);
  put(msg, "...");
}

uint64_t hash_key(const char* p, size_t n) {
  uint64_t h = 0xcbf29ce484222325ull;
  for (size_t i = 0; i < n; ++i) {
    h ^= static_cast<uint8_t>(p[i]);
    h *= 0x100000001b3ull;
  }
  return h;
}

// The event id a row shows: the classic compact headers carry theirs in the
// hook id.
uint16_t shown_event_id(const etl_record& r) {
  return (r.kind == kind_c002 || r.kind == kind_c011) ? r.hook_id : r.event_id;
}

// The event's version: the descriptor's, or for the classic headers (which
// have no descriptor) the Version word they start with.
uint16_t shown_version(const etl_record& r) {
  return (r.kind == kind_c002 || r.kind == kind_c011 || r.kind == kind_other) ? r.flags_or_version : r.version;
}

}  // namespace

// ---- values ----------------------------------------------------------------

void append_json_text(std::string& out, const char* text, size_t n) {
  const uint8_t* p = reinterpret_cast<const uint8_t*>(text);
  size_t i = 0, run = 0;
  while (i < n) {
    const uint8_t c = p[i];
    if (kPlain.plain[c]) {
      ++i;
      continue;
    }
    out.append(text + run, i - run);
    if (c < 0x80) {
      out += '\\';
      switch (c) {
        case '"': out += '"'; break;
        case '\\': out += '\\'; break;
        case '\b': out += 'b'; break;
        case '\f': out += 'f'; break;
        case '\n': out += 'n'; break;
        case '\r': out += 'r'; break;
        case '\t': out += 't'; break;
        default:
          put(out, "u00");
          out += kHexDigits[c >> 4];
          out += kHexDigits[c & 0xF];
          break;
      }
      ++i;
    } else if (const uint32_t s = surrogate_at(p + i, n - i)) {
      // A high surrogate with its low half behind it is the character they
      // make together; any other surrogate stands alone and is replaced.
      const uint32_t low = s < 0xDC00 ? surrogate_at(p + i + 3, n - i - 3) : 0;
      if (low >= 0xDC00) {
        qv::append_utf8(out, 0x10000 + ((s - 0xD800) << 10) + (low - 0xDC00));
        i += 6;
      } else {
        out += kReplacement;
        i += 3;
      }
    } else {
      size_t bad = 0;
      const size_t len = utf8_sequence(p + i, n - i, bad);
      if (len == 0) {
        out += kReplacement;
        i += bad;
      } else if (len == 3 && c == 0xE2 && p[i + 1] == 0x80 && (p[i + 2] == 0xA8 || p[i + 2] == 0xA9)) {
        // U+2028 and U+2029 are valid JSON, but end a line in JavaScript.
        out += p[i + 2] == 0xA8 ? "\\u2028" : "\\u2029";
        i += 3;
      } else {
        out.append(text + i, len);
        i += len;
      }
    }
    run = i;
  }
  out.append(text + run, n - run);
}

void append_json_uint(std::string& out, uint64_t v) {
  if (v <= kJsonExactLimit) {
    append_uint(out, v);
  } else {
    out += '"';
    append_uint(out, v);
    out += '"';
  }
}

void append_json_int(std::string& out, int64_t v) {
  if (v >= 0) return append_json_uint(out, static_cast<uint64_t>(v));
  const uint64_t magnitude = uint64_t{0} - static_cast<uint64_t>(v);
  const bool exact = magnitude <= kJsonExactLimit;
  if (!exact) out += '"';
  out += '-';
  append_uint(out, magnitude);
  if (!exact) out += '"';
}

void append_iso_time(std::string& out, uint64_t ticks) {
  qv::_windows_systemtime st;
  if (!qv::is_valid_filetime(ticks) || !qv::filetime_to_systemtime(ticks, st)) return;
  append_uint(out, st.wYear, 4);
  out += '-';
  append_uint(out, st.wMonth, 2);
  out += '-';
  append_uint(out, st.wDay, 2);
  out += 'T';
  append_uint(out, st.wHour, 2);
  out += ':';
  append_uint(out, st.wMinute, 2);
  out += ':';
  append_uint(out, st.wSecond, 2);
  out += '.';
  append_uint(out, st.nanosecond, 9);
  out += 'Z';
}

// ---- key set ---------------------------------------------------------------

void json_key_set::clear() {
  text_.clear();
  entries_.clear();
  if (++mark_ == 0) {
    std::fill(slot_mark_.begin(), slot_mark_.end(), 0u);
    mark_ = 1;
  }
}

bool json_key_set::find(const char* p, size_t n, uint64_t hash, size_t& slot) const {
  const size_t mask = slots_.size() - 1;
  for (size_t i = hash & mask;; i = (i + 1) & mask) {
    if (slot_mark_[i] != mark_) {
      slot = i;
      return false;
    }
    const entry& e = entries_[slots_[i] - 1];
    if (e.length == n && std::memcmp(text_.data() + e.offset, p, n) == 0) {
      slot = i;
      return true;
    }
  }
}

void json_key_set::add(const std::string& key, size_t slot) {
  entry e;
  e.offset = static_cast<uint32_t>(text_.size());
  e.length = static_cast<uint32_t>(key.size());
  text_ += key;
  entries_.push_back(e);
  slots_[slot] = static_cast<uint32_t>(entries_.size());
  slot_mark_[slot] = mark_;
}

void json_key_set::grow() {
  const size_t size = slots_.empty() ? 64 : slots_.size() * 2;
  slots_.assign(size, 0);
  slot_mark_.assign(size, 0);
  mark_ = 1;
  const size_t mask = size - 1;
  for (size_t k = 0; k < entries_.size(); ++k) {
    const entry& e = entries_[k];
    size_t i = hash_key(text_.data() + e.offset, e.length) & mask;
    while (slot_mark_[i] == mark_) i = (i + 1) & mask;
    slots_[i] = static_cast<uint32_t>(k + 1);
    slot_mark_[i] = mark_;
  }
}

void json_key_set::make_unique(std::string& key) {
  // At least half the table stays free, so every probe ends.
  if ((entries_.size() + 1) * 2 > slots_.size()) grow();
  size_t slot = 0;
  uint64_t h = hash_key(key.data(), key.size());
  if (!find(key.data(), key.size(), h, slot)) {
    add(key, slot);
    return;
  }
  const size_t first = slots_[slot] - 1;
  const size_t base_length = key.size();
  uint32_t n = entries_[first].next_suffix;
  for (;;) {
    key.resize(base_length);
    key += '_';
    append_uint(key, n);
    ++n;
    h = hash_key(key.data(), key.size());
    if (!find(key.data(), key.size(), h, slot)) break;
  }
  entries_[first].next_suffix = n;
  add(key, slot);
}

// ---- lines -----------------------------------------------------------------

void compose_trace_keys(std::string& out, const file_opening& file) {
  const log_header* h = file.header;
  put(out, ",\"trace_file\":");
  if (file.file_name) append_string(out, *file.file_name);
  else put(out, "null");
  put(out, ",\"trace_kind\":");
  switch (file.kind) {
    case trace_file_kind::regular: put(out, "\"regular\""); break;
    case trace_file_kind::rlfs: put(out, "\"RlFs\""); break;
    case trace_file_kind::headerless: put(out, "\"headerless\""); break;
  }
  put(out, ",\"trace_source_path\":");
  if (h && !h->LogFileName.empty()) append_string(out, h->LogFileName);
  else put(out, "null");
  put(out, ",\"trace_session\":");
  if (h && !h->LoggerName.empty()) append_string(out, h->LoggerName);
  else put(out, "null");
  put(out, ",\"trace_build\":");
  if (h) append_json_uint(out, h->ProviderVersion);
  else put(out, "null");
  put(out, ",\"trace_pointer_size\":");
  if (h) append_json_uint(out, h->PointerSize);
  else put(out, "null");
  put(out, ",\"trace_clock\":");
  if (h) out += h->clock.is_qpc ? "\"qpc\"" : h->clock.is_cycle_counter ? "\"cpu_cycles\"" : "\"filetime\"";
  else put(out, "null");
  // The start of an "RlFs" or headerless file is the time word of its first
  // header.
  const uint64_t start = h ? h->StartTime : qv::rd_u64(file.first_block, file.first_block ? 72 : 0, 24);
  put(out, ",\"trace_start\":");
  if (qv::is_valid_filetime(start)) {
    out += '"';
    append_iso_time(out, start);
    out += '"';
  } else {
    put(out, "null");
  }
  put(out, ",\"trace_end\":");
  if (h && qv::is_valid_filetime(h->EndTime)) {
    out += '"';
    append_iso_time(out, h->EndTime);
    out += '"';
  } else {
    put(out, "null");
  }
  put(out, ",\"trace_log_file_mode\":");
  if (h) append_json_uint(out, h->LogFileMode);
  else put(out, "null");
  put(out, ",\"trace_events_lost\":");
  if (h) append_json_uint(out, h->EventsLost);
  else put(out, "null");
}

void append_json_event(std::string& out, const etl_record& r, const std::string& trace_keys,
                       json_scratch& s) {
  // The payload first: the message names its first fields.
  s.fields.clear();
  s.message.clear();
  s.keys.clear();
  size_t counter = 0;
  size_t named = 0;
  for (const decoded_fields::entry& e : r.fields) {
    const decoded_field& f = e.field;
    ++counter;
    s.key.clear();
    if (f.name.empty()) {
      put(s.key, "field_");
      append_uint(s.key, counter, 2);
    } else {
      append_json_text(s.key, f.name);
    }
    s.keys.make_unique(s.key);
    if (counter > 1) s.fields += ',';
    s.fields += '"';
    s.fields += s.key;
    put(s.fields, "\":");
    const size_t value_at = s.fields.size();
    field_time t;
    const bool is_time = time_of(f, t);
    if (is_time && t.valid) {
      s.fields += '"';
      append_iso_time(s.fields, t.ticks);
      s.fields += '"';
    } else if (is_time) {
      put(s.fields, "null");
    } else {
      append_field_value(s.fields, f);
    }
    const size_t value_end = s.fields.size();

    if (named < kMessageFields) {
      if (named == 0) put(s.message, ": ");
      else put(s.message, ", ");
      ++named;
      const char* value = s.fields.data() + value_at;
      const size_t value_size = value_end - value_at;
      // A label holds the event's own name; its value says nothing.
      const bool label = value_size == 9 && std::memcmp(value, "\"{guess}\"", 9) == 0;
      if (!f.name.empty()) {
        s.message += s.key;
        if (!label) s.message += '=';
      }
      if (!label || f.name.empty()) append_message_value(s.message, value, value_size);
    }

    if (is_time) {
      put(s.key, "_raw");
      s.keys.make_unique(s.key);
      put(s.fields, ",\"");
      s.fields += s.key;
      put(s.fields, "\":");
      append_time_raw(s.fields, f);
    }
  }

  put(out, "{\"message\":\"");
  if (!r.valid) {
    put(out, "corrupted record");
  } else {
    if (!r.provider_name.empty()) append_json_text(out, r.provider_name);
    else qv::append_guid_text(out, r.provider_id.data());
    put(out, " event ");
    append_uint(out, shown_event_id(r));
    out += s.message;
  }
  put(out, "\",\"datetime\":");
  const bool dated = qv::is_valid_filetime(r.absolute_time);
  if (dated) {
    out += '"';
    append_iso_time(out, r.absolute_time);
    put(out, "\",\"timestamp\":");
    // Microseconds since 1970, rounded down (also before 1970).
    const int64_t since = static_cast<int64_t>(r.absolute_time - kUnixEpochTicks);
    const int64_t micros = since >= 0 ? since / 10 : -((-since + 9) / 10);
    if (micros < 0) {
      out += '-';
      append_uint(out, uint64_t{0} - static_cast<uint64_t>(micros));
    } else {
      append_uint(out, static_cast<uint64_t>(micros));
    }
    put(out, ",\"timestamp_desc\":\"Event Recorded\"");
  } else {
    put(out, "null,\"timestamp\":null,\"timestamp_desc\":\"Event Recorded\",\"time_raw\":");
    append_json_uint(out, r.raw_time);
  }

  put(out, ",\"provider_guid\":");
  append_guid_string(out, r.provider_id.data());
  put(out, ",\"provider_name\":");
  if (r.provider_name.empty()) put(out, "null");
  else append_string(out, r.provider_name);
  put(out, ",\"event_id\":");
  append_uint(out, shown_event_id(r));
  put(out, ",\"version\":");
  append_uint(out, shown_version(r));
  put(out, ",\"channel\":");
  append_uint(out, r.channel);
  put(out, ",\"level\":");
  append_uint(out, r.level);
  put(out, ",\"opcode\":");
  append_uint(out, r.opcode);
  put(out, ",\"task\":");
  append_uint(out, r.task);
  put(out, ",\"keywords\":");
  append_hex_string(out, r.keyword);
  put(out, ",\"process_id\":");
  append_uint(out, r.process_id);
  put(out, ",\"thread_id\":");
  append_uint(out, r.thread_id);
  put(out, ",\"processor\":");
  append_uint(out, r.processor);
  put(out, ",\"activity_id\":");
  append_guid_string(out, r.activity_id.data());
  if (const decoded_field* related = related_activity(r)) {
    put(out, ",\"related_activity_id\":");
    append_guid_string(out, related->bytes.data());
  }
  put(out, ",\"processor_time\":");
  append_hex_string(out, r.time_word);
  put(out, ",\"header_kind\":\"");
  if (r.kind < sizeof kKindLabels / sizeof kKindLabels[0]) {
    out += kKindLabels[r.kind];
  } else {
    put(out, "kind ");
    append_uint(out, r.kind);
  }
  put(out, "\",\"record_size\":");
  append_uint(out, r.size);
  put(out, ",\"file_offset\":");
  append_json_uint(out, r.file_offset);
  put(out, ",\"logger_id\":");
  append_uint(out, r.logger_id);
  if (r.valid) put(out, ",\"damaged\":false");
  else put(out, ",\"damaged\":true");
  if (r.guessed) put(out, ",\"guessed\":true");
  else put(out, ",\"guessed\":false");
  out += trace_keys;
  put(out, ",\"fields\":{");
  out += s.fields;
  put(out, "}}\n");
}

// ---- sink ------------------------------------------------------------------

void json_sink::file_opened(const file_opening& file) {
  trace_keys_.clear();
  compose_trace_keys(trace_keys_, file);
}

void json_sink::take_records(record_list& records) {
  thread_local std::string line;
  thread_local json_scratch scratch;
  for (const etl_record& r : records) {
    line.clear();
    append_json_event(line, r, trace_keys_, scratch);
    out_.write(line.data(), static_cast<std::streamsize>(line.size()));
  }
}
