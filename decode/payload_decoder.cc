#include "decode/payload_decoder.h"

#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "decode/device_formatters.h"
#include "decode/guess.h"
#include "decode/render.h"
#include "support/byte_reader.h"
#include "support/qv_datetime.h"
#include "support/qv_string.h"
#include "support/qv_time.h"

namespace {

// Operations of the families above 0, keyed by the word with its argument
// nibble cleared (word & 0xF0FF). `k` is the nibble.
enum complex_op : uint16_t {
  op_comment = 0x8000,       // nothing; as first word, "{comment}" for an empty payload
  op_label = 0x8001,         // "{guess}" at base - 2: the event's own name
  op_app_hash = 0x8002,      // 21 bytes named "AppHash"
  op_sqm = 0x8003,           // SQM data point over the rest
  op_skip_rest = 0x8004,     // skip all that remains
  op_text32 = 0x8005,        // 32 bytes of UTF-16 text
  op_iso_packets = 0x800A,   // USB iso packets, count k fields back
  op_counted_next = 0xB084,  // 0xB184 skip / 0xB284 bytes, count in the next word
  op_skip_units = 0xC084,    // skip k bytes
  op_skip_words = 0xC086,    // skip 2k bytes
  op_skip_dwords = 0xC088,   // skip 4k bytes
  op_skip_qwords = 0xC095,   // skip 8k bytes
  op_skip_back = 0xE084,     // skip as many bytes as the field k back says
  op_sized_u8 = 0x9084,      // structure whose 8-bit size stands at offset k
  op_sized_u16 = 0x9086,     // ... 16-bit size
  op_sized_u32 = 0x9088,     // ... 32-bit size
  op_utf16_strings = 0x9081, // k terminated UTF-16 strings
  op_fixed_ascii = 0xD002,   // k bytes of ASCII text
  op_fixed_ascii_strings = 0xD082,  // k ASCII strings, each stepping short by its terminator
  op_fixed_bytes = 0xD084,   // k raw bytes
  op_fixed_u16s = 0xD086,    // k 16-bit values
  op_fixed_u32s = 0xD088,    // k 32-bit values
  op_fixed_u64s = 0xD095,    // k 64-bit values
  op_fixed_pointers = 0xD090,  // k pointers
  op_back_ascii = 0xA002,    // n bytes of ASCII text, n from the field k back
  op_back_utf16 = 0xA001,    // UTF-16 text of n characters (or bytes)
  op_back_utf16_strings = 0xA081,  // n terminated UTF-16 strings
  op_back_ascii_stuck = 0xA082,    // ASCII text of n bytes that consumes nothing
  op_back_bytes = 0xA084,    // n raw bytes, shown as text when they are a string
  op_back_u32s = 0xA088,     // n 32-bit values
  op_back_pointers = 0xA090, // n pointers
};

const std::string& name_at(const event_template& t, size_t i) {
  static const std::string none;
  return i < t.names.size() ? t.names[i] : none;
}

// The map's slot at `key`, or, when the key is taken, a scratch field whose
// content is dropped: the value must still be read to know its width.
decoded_field& slot(decoded_fields& fields, uint64_t key) {
  if (decoded_field* f = fields.add(key)) return *f;
  thread_local decoded_field scratch;
  scratch.reset();
  return scratch;
}

void set_word(decoded_field& f, uint16_t word, const std::string& name) {
  f.type = static_cast<uint8_t>(word & 0xFF);
  f.subtype = static_cast<uint8_t>(word >> 8);
  f.name = name;
}

void set_missing(decoded_field& f) {
  f.text.assign(1, '-');
  f.missing = true;
}

// "name[index]" into `out`.
void set_indexed_name(std::string& out, const std::string& name, uint64_t index) {
  out = name;
  out += '[';
  append_decimal(out, index);
  out += ']';
}

// ASCII text: the bytes up to the first zero byte among `n`.
void assign_ascii(std::string& out, const uint8_t* p, size_t n) {
  const void* zero = n ? std::memchr(p, 0, n) : nullptr;
  size_t length = zero ? static_cast<size_t>(static_cast<const uint8_t*>(zero) - p) : n;
  out.assign(reinterpret_cast<const char*>(p), length);
}

// UTF-16 text read up to a zero unit or `limit` bytes. Returns the bytes
// read, plus 2 for the terminator when the text isn't empty and `limit`
// leaves room for one.
uint32_t read_utf16(std::string& out, const uint8_t* p, int64_t limit) {
  if (limit <= 0) {
    out.clear();
    return 0;
  }
  if (limit > std::numeric_limits<int32_t>::max()) limit = std::numeric_limits<int32_t>::max();
  return qv::utf16_text(p, out, static_cast<uint32_t>(limit), true);
}

// "0x" + the value in `digits` hexadecimal digits + " [" + time + "]".
void set_time_text(std::string& out, uint64_t value, uint32_t digits, const qv::time& t) {
  out = "0x";
  append_hex(out, value, digits);
  out += " [";
  qv::append_fixed_datetime(out, t);
  out += ']';
}

int32_t clamp32(int64_t v) {
  if (v > std::numeric_limits<int32_t>::max()) return std::numeric_limits<int32_t>::max();
  if (v < 0) return 0;
  return static_cast<int32_t>(v);
}

// A skip has no value to show: "{blob}" under "<name>_<count>_bytes", or
// "skip_<count>_bytes" when the template gives no name.
int32_t skip_form(decoded_fields& fields, uint64_t key, uint16_t word, const std::string& name,
                  uint64_t count) {
  if (decoded_field* f = fields.add(key)) {
    f->type = static_cast<uint8_t>(word & 0xFF);
    f->subtype = static_cast<uint8_t>(word >> 8);
    f->name = name.empty() ? "skip" : name;
    f->name += '_';
    append_decimal(f->name, count);
    f->name += "_bytes";
    f->text = "{blob}";
    f->size = static_cast<uint32_t>(count);
  }
  return clamp32(static_cast<int64_t>(count));
}

// `count` unsigned values of `width` bytes, one unnamed field each.
int32_t fixed_numbers(decoded_fields& fields, const uint8_t* p, size_t avail, int32_t remaining,
                      uint64_t base, uint16_t word, uint32_t count, uint32_t width,
                      uint8_t type) {
  int64_t total = int64_t{count} * width;
  if (total > remaining) total = remaining;
  for (int64_t off = 0; off + width <= total; off += width) {
    decoded_field& f = slot(fields, base + static_cast<uint64_t>(off));
    f.type = type;
    f.subtype = static_cast<uint8_t>(word >> 8);
    f.generated = true;
    f.size = width;
    f.number = width == 2 ? qv::rd_u16(p, avail, static_cast<size_t>(off))
             : width == 4 ? qv::rd_u32(p, avail, static_cast<size_t>(off))
                          : qv::rd_u64(p, avail, static_cast<size_t>(off));
  }
  return static_cast<int32_t>(total);
}

// `count` values of `width` bytes named "name[i]"; none when they don't all
// fit. Returns count * width in both cases.
int32_t counted_numbers(decoded_fields& fields, const uint8_t* p, size_t avail,
                        int32_t remaining, uint64_t base, uint16_t word, const std::string& name,
                        uint64_t count, uint32_t width, uint8_t type) {
  const uint64_t total = count * width;
  if (total <= static_cast<uint64_t>(remaining)) {
    for (uint64_t j = 0; j < count; ++j) {
      decoded_field& f = slot(fields, base + j * width);
      f.type = type;
      f.subtype = static_cast<uint8_t>(word >> 8);
      f.generated = true;
      f.size = width;
      set_indexed_name(f.name, name, j);
      f.number = width == 4 ? qv::rd_u32(p, avail, static_cast<size_t>(j * width))
                            : qv::rd_u64(p, avail, static_cast<size_t>(j * width));
    }
  }
  return clamp32(static_cast<int64_t>(total));
}

// Word 0xAk84: a blob that is wholly a string is shown as that string.
void blob_text(decoded_field& f, const uint8_t* p, uint64_t n) {
  if (n < 5 || p[0] < 32 || p[0] > 125) return;
  thread_local std::vector<std::string> runs;
  thread_local std::vector<qv::run_position> positions;
  runs.clear();
  positions.clear();
  qv::ascii_runs(p, static_cast<uint32_t>(n), 5, runs, positions, true, false);
  if (!runs.empty()) {
    if (runs[0].size() >= n - 1) {
      f.text = runs[0];
      return;
    }
  }
  if (p[1] == 0 && p[3] == 0) {
    thread_local std::string text;
    uint32_t read = qv::utf16_text(p, text, static_cast<uint32_t>(n), true);
    if (read > 5 && read == n) f.text = text;
  }
}

}  // namespace

uint64_t back_value(const decoded_fields& fields, uint32_t k, int32_t remaining) {
  const decoded_field* f = fields.from_end(k);
  if (!f) return 0;
  const uint64_t limit = static_cast<uint32_t>(remaining);
  return f->number > limit ? 0 : f->number;
}

int32_t decode_complex_field(const event_template& tmpl, decoded_fields& fields,
                             const uint8_t* p, int32_t remaining, const uint8_t* buffer_end,
                             uint32_t field_index, uint64_t base, bool pointers_are_64) {
  if (!p || remaining <= 0 || field_index >= tmpl.words.size()) return 0;
  // Every read stays below the buffer's end; without one, inside the payload.
  size_t avail = static_cast<size_t>(remaining);
  if (buffer_end) {
    avail = buffer_end > p ? static_cast<size_t>(buffer_end - p) : 0;
    if (avail < static_cast<size_t>(remaining)) remaining = static_cast<int32_t>(avail);
    if (remaining <= 0) return 0;
  }
  const uint8_t* end = p + avail;

  const uint16_t word = tmpl.words[field_index];
  const uint16_t op = word & 0xF0FF;
  const uint32_t k = (word >> 8) & 0xF;
  const std::string& name = name_at(tmpl, field_index);
  const uint32_t pointer_size = pointers_are_64 ? 8 : 4;

  switch (op) {
    case op_comment:
      return 0;

    case op_label:
      if (decoded_field* f = fields.add(base - 2)) {
        set_word(*f, word, name);
        f->text = "{guess}";
      }
      return 0;

    case op_app_hash: {
      if (remaining < 21) return 0;
      decoded_field& f = slot(fields, base);
      set_word(f, word, name);
      f.name = "AppHash";
      f.bytes.assign(p, p + 21);
      f.size = 21;
      return 21;
    }

    case op_sqm:
      return format_sqm_payload(fields, p, remaining, end, base) ? remaining : 0;

    case op_skip_rest:
      return skip_form(fields, base, word, name, static_cast<uint64_t>(remaining));

    case op_text32: {
      if (remaining < 32) return 0;
      thread_local std::string text;
      qv::utf16_text(p, text, 32, true);
      decoded_field& f = slot(fields, text.empty() ? base - 1 : base);
      set_word(f, word, name);
      f.size = 32;
      if (text.empty()) set_missing(f); else f.text = text;
      return 32;
    }

    case op_iso_packets: {
      if (k == 0) return 0;
      return format_usb_iso_packets(fields, p, remaining, end, base,
                                    back_value(fields, k, remaining));
    }

    case 0x8006: case 0x8007: case 0x8008: case 0x8009:
    case 0x800B: case 0x800C: case 0x800D: case 0x800E: case 0x800F:
    case 0x8010: case 0x8011: case 0x8012: case 0x8013:
    case 0x8014: case 0x8015: case 0x8016: case 0x8017: {
      int32_t n = run_device_formatter(op, fields, p, remaining, end, base, pointers_are_64);
      return n < 0 ? 0 : n;
    }

    case op_counted_next: {
      if (word != 0xB184 && word != 0xB284) return 0;
      if (static_cast<size_t>(field_index) + 1 >= tmpl.words.size()) return 0;
      const uint32_t count = tmpl.words[field_index + 1];
      if (count > static_cast<uint32_t>(remaining)) return 0;
      if (word == 0xB184) return skip_form(fields, base, word, name, count);
      decoded_field& f = slot(fields, base);
      set_word(f, word, name);
      f.bytes.assign(p, p + count);
      f.size = count;
      return static_cast<int32_t>(count);
    }

    case op_skip_units:
    case op_skip_words:
    case op_skip_dwords:
    case op_skip_qwords: {
      const uint32_t unit = op == op_skip_units ? 1 : op == op_skip_words ? 2
                          : op == op_skip_dwords ? 4 : 8;
      const uint32_t count = k * unit;
      if (count > static_cast<uint32_t>(remaining)) return 0;
      return skip_form(fields, base, word, name, count);
    }

    case op_skip_back: {
      if (k == 0) return 0;
      const uint64_t n = back_value(fields, k, remaining);
      if (n == 0) return 0;
      return skip_form(fields, base, word, name, n);
    }

    case op_sized_u8:
    case op_sized_u16:
    case op_sized_u32: {
      if (remaining <= static_cast<int32_t>(k) + 3) return 0;
      const uint64_t length = op == op_sized_u8  ? qv::rd_u8(p, avail, k)
                            : op == op_sized_u16 ? qv::rd_u16(p, avail, k)
                                                 : qv::rd_u32(p, avail, k);
      if (length == 0 || length > static_cast<uint64_t>(remaining)) return 0;
      decoded_field& f = slot(fields, base);
      set_word(f, word, name);
      f.bytes.assign(p, p + length);
      f.size = static_cast<uint32_t>(length);
      return static_cast<int32_t>(length);
    }

    case op_utf16_strings: {
      if (k == 0) return 0;
      int64_t off = 0;
      for (uint32_t j = 0; j < k && remaining - off > 0; ++j) {
        decoded_field& f = slot(fields, base + static_cast<uint64_t>(off));
        set_word(f, word, name);
        set_indexed_name(f.name, name, j);
        uint32_t n = read_utf16(f.text, p + off, remaining - off);
        if (f.text.empty()) {
          set_missing(f);
          n = 2;
        } else {
          qv::flatten_line_breaks(f.text);
        }
        f.size = n;
        off += n;
      }
      return clamp32(off);
    }

    case op_fixed_ascii: {
      if (k == 0) return 0;
      const uint32_t n = k < static_cast<uint32_t>(remaining) ? k : static_cast<uint32_t>(remaining);
      decoded_field& f = slot(fields, base);
      set_word(f, word, name);
      assign_ascii(f.text, p, n);
      if (f.text.empty()) set_missing(f); else qv::flatten_line_breaks(f.text);
      f.size = n;
      return static_cast<int32_t>(n);
    }

    case op_fixed_ascii_strings: {
      // A string steps by its length without the terminator, so the next
      // one starts on that terminator, comes out empty and steps by 2,
      // taking the first character of the string behind it along.
      if (k == 0) return 0;
      int64_t off = 0;
      for (uint32_t j = 0; j < k && remaining - off > 0; ++j) {
        const size_t left = static_cast<size_t>(remaining - off);
        decoded_field& f = slot(fields, base + static_cast<uint64_t>(off));
        set_word(f, word, name);
        set_indexed_name(f.name, name, j);
        assign_ascii(f.text, p + off, left);
        uint32_t step = static_cast<uint32_t>(f.text.size());
        if (step == 0) {
          set_missing(f);
          step = 2;
        } else {
          qv::flatten_line_breaks(f.text);
        }
        f.size = step;
        off += step;
      }
      return clamp32(off);
    }

    case op_fixed_bytes: {
      if (k == 0) return 0;
      const uint32_t n = k < static_cast<uint32_t>(remaining) ? k : static_cast<uint32_t>(remaining);
      decoded_field& f = slot(fields, base);
      set_word(f, word, name);
      f.bytes.assign(p, p + n);
      f.size = n;
      return static_cast<int32_t>(n);
    }

    case op_fixed_u16s:
      if (k == 0) return 0;
      return fixed_numbers(fields, p, avail, remaining, base, word, k, 2, 6);
    case op_fixed_u32s:
      if (k == 0) return 0;
      return fixed_numbers(fields, p, avail, remaining, base, word, k, 4, 8);
    case op_fixed_u64s:
      if (k == 0) return 0;
      return fixed_numbers(fields, p, avail, remaining, base, word, k, 8, 21);
    case op_fixed_pointers:
      if (k == 0) return 0;
      return fixed_numbers(fields, p, avail, remaining, base, word, k, pointer_size, 16);

    case op_back_ascii:
    case op_back_utf16:
    case op_back_utf16_strings:
    case op_back_ascii_stuck:
    case op_back_bytes:
    case op_back_u32s:
    case op_back_pointers:
      break;  // below

    default:
      return 0;
  }

  // Family 0xA: the count or length is the number of the field k back. A
  // zero (or one larger than what remains) marks the value as absent and
  // consumes nothing.
  if (k == 0) return 0;
  const uint64_t n = back_value(fields, k, remaining);
  if (n == 0) {
    if (decoded_field* f = fields.add(base - 1)) {
      set_word(*f, word, name);
      set_missing(*f);
    }
    return 0;
  }

  switch (op) {
    case op_back_ascii: {
      decoded_field& f = slot(fields, base);
      set_word(f, word, name);
      assign_ascii(f.text, p, n);
      if (f.text.empty()) set_missing(f); else qv::flatten_line_breaks(f.text);
      f.size = static_cast<uint32_t>(n);
      return static_cast<int32_t>(n);
    }

    case op_back_utf16: {
      // n counts characters when the payload holds that many, else bytes.
      const uint64_t limit = uint64_t{static_cast<uint32_t>(remaining)} >= 2 * n ? 2 * n : n;
      decoded_field& f = slot(fields, base);
      set_word(f, word, name);
      const uint32_t read = read_utf16(f.text, p, static_cast<int64_t>(limit));
      // A length field that counted bytes where characters were meant shows
      // as a limit of exactly twice what the text took.
      const uint64_t used = (limit == 2 * uint64_t{read}) ? read : limit;
      if (f.text.empty()) set_missing(f); else qv::flatten_line_breaks(f.text);
      f.size = static_cast<uint32_t>(used);
      return clamp32(static_cast<int64_t>(used));
    }

    case op_back_utf16_strings: {
      int64_t off = 0;
      for (uint64_t j = 0; j < n; ++j) {
        const int64_t left = remaining - off;
        if (left < 3) return remaining;
        decoded_field& f = slot(fields, base + static_cast<uint64_t>(off));
        set_word(f, word, name);
        uint32_t read = read_utf16(f.text, p + off, left);
        if (f.text.empty()) {
          set_missing(f);
          read = 2;
        } else {
          qv::flatten_line_breaks(f.text);
        }
        f.size = read;
        off += read;
      }
      return clamp32(off);
    }

    case op_back_ascii_stuck: {
      // A loop of n rounds at one key: all but the first round are refused
      // by the map, nothing is consumed, and the next word reads the same
      // bytes. The layouts that use this word decode this way.
      if (remaining < 2) return remaining;
      if (decoded_field* f = fields.add(base)) {
        set_word(*f, word, name);
        assign_ascii(f->text, p, n);
        if (f->text.empty()) set_missing(*f); else qv::flatten_line_breaks(f->text);
        f->size = 0;
      }
      return 0;
    }

    case op_back_bytes: {
      decoded_field& f = slot(fields, base);
      set_word(f, word, name);
      f.bytes.assign(p, p + n);
      f.size = static_cast<uint32_t>(n);
      blob_text(f, p, n);
      return static_cast<int32_t>(n);
    }

    case op_back_u32s:
      return counted_numbers(fields, p, avail, remaining, base, word, name, n, 4, 8);

    case op_back_pointers:
      return counted_numbers(fields, p, avail, remaining, base, word, name, n, pointer_size, 16);

    default:
      return 0;
  }
}

int32_t walk_template(const event_template& tmpl, decoded_fields& fields, const uint8_t* payload,
                      uint32_t size, const uint8_t* buffer_end, uint64_t base,
                      bool pointers_are_64) {
  const std::vector<uint16_t>& words = tmpl.words;
  if (!payload || size == 0) {
    if (!words.empty() && (words[0] == op_comment || words[0] == op_label)) {
      if (decoded_field* f = fields.add(base)) {
        set_word(*f, words[0], name_at(tmpl, 0));
        f->text = "{comment}";
      }
    }
    return 0;
  }

  // `limit`: the bytes readable from `payload`, up to the buffer's end.
  size_t limit = size;
  if (buffer_end && buffer_end >= payload && static_cast<size_t>(buffer_end - payload) >= size) {
    limit = static_cast<size_t>(buffer_end - payload);
  }
  const uint8_t* end = payload + limit;
  const uint32_t pointer_size = pointers_are_64 ? 8 : 4;

  int64_t pos = 0;
  int64_t remaining = size;
  size_t i = 0;
  while (i < words.size() && remaining > 0 && words[i] != 0) {
    const uint16_t word = words[i];
    const uint8_t* p = payload + pos;
    const uint64_t key = base + static_cast<uint64_t>(pos);

    if ((word >> 12) != 0) {
      const int32_t rem32 = clamp32(remaining);
      const int32_t n = decode_complex_field(tmpl, fields, p, rem32, end,
                                             static_cast<uint32_t>(i), key, pointers_are_64);
      if (word == 0xB184 || word == 0xB284) ++i;  // the next word is the count
      pos += n;
      remaining -= n;
      ++i;
      continue;
    }

    // Plain words: the type byte says what to read; the nibble only lands
    // in `subtype`. Fixed-width values don't test `remaining`: they take the
    // bytes that follow in the buffer, and the walk then ends.
    const uint8_t type = static_cast<uint8_t>(word & 0xFF);
    const std::string& name = name_at(tmpl, i);
    int64_t advance = 0;
    auto number = [&](uint32_t width) {
      decoded_field& f = slot(fields, key);
      set_word(f, word, name);
      f.size = width;
      f.number = width == 1 ? qv::rd_u8(payload, limit, static_cast<size_t>(pos))
               : width == 2 ? qv::rd_u16(payload, limit, static_cast<size_t>(pos))
               : width == 4 ? qv::rd_u32(payload, limit, static_cast<size_t>(pos))
                            : qv::rd_u64(payload, limit, static_cast<size_t>(pos));
      advance = width;
      return &f;
    };

    switch (type) {
      case 1: {  // UTF-16 text, terminated
        decoded_field& f = slot(fields, key);
        set_word(f, word, name);
        const uint32_t n = read_utf16(f.text, p, remaining);
        if (n == 0 || f.text.empty()) {
          set_missing(f);
          f.size = 0;
          advance = n == 0 ? 2 : n;
        } else {
          qv::flatten_line_breaks(f.text);
          f.size = n;
          advance = n;
        }
        break;
      }
      case 2: {  // ASCII text, terminated
        decoded_field& f = slot(fields, key);
        set_word(f, word, name);
        assign_ascii(f.text, p, static_cast<size_t>(remaining));
        const size_t length = f.text.size();
        if (length == 0) {
          set_missing(f);
          f.size = 1;
          advance = 1;
        } else {
          qv::flatten_line_breaks(f.text);
          const size_t next = static_cast<size_t>(pos) + length;
          advance = static_cast<int64_t>(length) + (qv::rd_u8(payload, limit, next) == 0 ? 1 : 0);
          f.size = static_cast<uint32_t>(advance);
        }
        break;
      }
      case 3: case 4: case 84: case 132:
        number(1);
        break;
      case 5: case 6:
        number(2);
        break;
      case 7: case 8: case 11: case 20: case 135: case 136:
        number(4);  // 11 (float) is kept as its bit pattern
        break;
      case 9: case 10: case 12: case 21:
        number(8);  // 12 (double) likewise
        break;
      case 13: case 125: {  // 32-bit truth value: the first byte is the value
        decoded_field* f = number(4);
        f->number = qv::rd_u8(payload, limit, static_cast<size_t>(pos));
        break;
      }
      case 14: {  // the rest is a blob: the walk ends and the guesser gets it
        decoded_field& f = slot(fields, key);
        set_word(f, word, name);
        f.text = "{blob}";
        remaining = 0;
        break;
      }
      case 142: {  // the rest is consumed and not shown
        decoded_field& f = slot(fields, key);
        set_word(f, word, name);
        f.text = "{blob}";
        advance = remaining;
        break;
      }
      case 15: {  // GUID
        if (remaining < 16) {
          advance = remaining;
          break;
        }
        decoded_field& f = slot(fields, key);
        set_word(f, word, name);
        if (f.name.empty()) f.name = "guid";
        f.bytes.assign(p, p + 16);
        f.size = 16;
        advance = 16;
        break;
      }
      case 146: {  // 16 raw bytes
        decoded_field& f = slot(fields, key);
        set_word(f, word, name);
        f.bytes.resize(16);
        qv::rd_bytes(f.bytes.data(), 16, payload, limit, static_cast<size_t>(pos));
        f.size = 16;
        advance = 16;
        break;
      }
      case 16: case 144:
        number(pointer_size);
        break;
      case 17: {  // FILETIME
        decoded_field* f = number(8);
        if (f->number != 0) {
          qv::time t(f->number, qv::type_filetime);
          if (t.is_valid()) set_time_text(f->text, f->number, 16, t);
        }
        break;
      }
      case 168: {  // 32-bit Unix time
        decoded_field* f = number(4);
        if (f->number != 0) {
          qv::time t(f->number, qv::type_unix);
          if (t.is_valid()) set_time_text(f->text, f->number, 8, t);
        }
        break;
      }
      case 18: {  // SYSTEMTIME
        decoded_field& f = slot(fields, key);
        set_word(f, word, name);
        f.bytes.resize(16);
        qv::rd_bytes(f.bytes.data(), 16, payload, limit, static_cast<size_t>(pos));
        f.size = 16;
        advance = 16;
        qv::_windows_systemtime st;
        const uint8_t* b = f.bytes.data();
        st.wYear = qv::rd_u16(b, 16, 0);
        st.wMonth = qv::rd_u16(b, 16, 2);
        st.wDayOfWeek = qv::rd_u16(b, 16, 4);
        st.wDay = qv::rd_u16(b, 16, 6);
        st.wHour = qv::rd_u16(b, 16, 8);
        st.wMinute = qv::rd_u16(b, 16, 10);
        st.wSecond = qv::rd_u16(b, 16, 12);
        st.wMilliseconds = qv::rd_u16(b, 16, 14);
        qv::time t(st);
        if (t.is_valid()) {
          // The digits are those of the payload's first sixteen bytes, last
          // byte first, not of the field: a SYSTEMTIME that isn't first in
          // its payload shows other digits beside its time. Rows keep that.
          f.text = "0x";
          for (size_t j = 16; j-- > 0;) {
            uint8_t byte = qv::rd_u8(payload, limit, j);
            append_hex(f.text, byte, 2);
          }
          f.text += " [";
          qv::append_fixed_datetime(f.text, t);
          f.text += ']';
        }
        break;
      }
      case 19: {  // SID, at its own length
        std::string text = qv::format_sid(p, static_cast<uint32_t>(remaining));
        if (text.empty()) break;  // no field, nothing consumed
        decoded_field& f = slot(fields, key);
        set_word(f, word, name);
        f.text = std::move(text);
        f.size = 8 + 4 * uint32_t{p[1]};
        advance = f.size;
        break;
      }
      case 22: {  // counted UTF-16 text: a 16-bit byte count, then the text
        const uint32_t count = qv::rd_u16(payload, limit, static_cast<size_t>(pos));
        const int64_t after = remaining - 2;
        if (after < 0 || count > after) {
          advance = remaining;  // all consumed, no field
          break;
        }
        decoded_field& f = slot(fields, key + 2);
        set_word(f, word, name);
        qv::utf16_text(p + 2, f.text, count, false);
        if (f.text.empty()) set_missing(f);
        f.size = count;
        advance = 2 + int64_t{count};
        break;
      }
      case 145: case 161: case 177: {  // UTF-16 text in a fixed slot
        const uint32_t slot_size = type == 145 ? 6 : type == 161 ? 8 : 512;
        decoded_field& f = slot(fields, key);
        set_word(f, word, name);
        read_utf16(f.text, p, remaining);
        if (f.text.empty()) set_missing(f);
        f.size = slot_size;
        advance = slot_size;
        break;
      }
      default:
        break;  // a word this walk doesn't know: no field, the walk goes on
    }
    pos += advance;
    remaining -= advance;
    ++i;
  }
  return clamp32(pos);
}

bool decode_payload(decoded_fields& fields, uint64_t payload_file_offset,
                    const qv::guid16* provider_id, uint16_t event_id, int version,
                    const uint8_t* payload, uint32_t payload_size, const uint8_t* buffer_end,
                    template_store* store,
                    bool pointers_are_64, bool keep_fields, bool& guessed) {
  if (!keep_fields) fields.clear();
  guessed = false;
  int64_t consumed = 0;
  bool decoded = false;
  if (payload && payload_size != 0 && store && provider_id) {
    const event_template* t = find_event_template(*store, *provider_id, event_id, version);
    if (t && !t->words.empty() && t->words.size() == t->names.size()) {
      consumed = walk_template(*t, fields, payload, payload_size, buffer_end, payload_file_offset,
                               pointers_are_64);
      decoded = true;
    }
  }
  // Whatever the layout left over, 4 bytes or more, is decoded by inference;
  // 3 bytes or fewer are dropped.
  const int64_t rest = int64_t{payload_size} - consumed;
  if (payload && rest > 3) {
    guess_payload(fields, payload_file_offset + static_cast<uint64_t>(consumed),
                  payload + consumed, static_cast<uint32_t>(rest), true);
    decoded = true;
    guessed = true;
  }
  return decoded;
}
