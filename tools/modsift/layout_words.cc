#include "tools/modsift/layout_words.h"

#include <cstdio>

#include "tools/modsift/modsift_text.h"

namespace modsift {

namespace {

// Manifest structures don't nest; the limit only stops a table whose member
// ranges refer back to themselves.
constexpr int kMaxDepth = 4;
constexpr size_t kMaxFields = 4096;

// In-types (the trace data helper's numbering) used below.
enum : uint8_t {
  kUnicodeString = 1,
  kAnsiString = 2,
  kBinary = 14,
  kGuid = 15,
  kPointer = 16,
  kSystemTime = 18,
};

// Types whose value can serve as a count or length: the walker takes a back
// reference from a decoded field's number.
bool is_integer_type(uint8_t t) { return (t >= 3 && t <= 10) || t == 20 || t == 21; }

uint16_t family(uint16_t base, uint32_t k) { return static_cast<uint16_t>(base | (k << 8)); }

struct converter {
  const temp_block& t;
  uint64_t& budget;
  layout out;
  // Entries of the decoded list that the fields so far make, when that number
  // is fixed; `epoch` moves on after a field whose entry count depends on the
  // payload, and a back reference can't reach across such a field.
  uint32_t entries = 0;
  uint32_t epoch = 0;
  std::vector<uint32_t> entry_at;  // per property: its entry's ordinal, 0 for none
  std::vector<uint32_t> epoch_at;
  bool ended = false;  // word 14 was written: the walk ends there anyway
  std::string stop_name;

  converter(const temp_block& tb, uint64_t& b)
      : t(tb), budget(b), entry_at(tb.properties.size(), 0), epoch_at(tb.properties.size(), 0) {}

  bool fail(const std::string& name) {
    stop_name = name;
    return false;
  }

  void push(uint16_t word, const std::string& name) {
    layout_field f;
    f.word = word;
    f.name = name;
    out.fields.push_back(std::move(f));
  }

  // How many entries back the value of property `index` lies from the field
  // about to be written.
  bool back_ref(uint32_t index, uint32_t& k) {
    if (index >= t.properties.size() || entry_at[index] == 0 || epoch_at[index] != epoch ||
        !is_integer_type(t.properties[index].in_type))
      return false;
    k = entries - entry_at[index] + 1;
    return k >= 1 && k <= 15;
  }

  bool emit(uint32_t i, int depth) {
    const temp_property& p = t.properties[i];
    std::string name = clean_field_name(p.name);
    if (budget == 0 || out.fields.size() + 2 > kMaxFields) return fail(name);
    --budget;

    bool var_count = (p.flags & kPropVarCount) != 0;
    bool fixed_count = !var_count && (p.flags & kPropFixedCount) && p.count > 1;

    if (p.flags & kPropStruct) {
      // A structure with one element is its members in a row; arrays of
      // structures have no word.
      if (var_count || fixed_count || depth >= kMaxDepth) return fail(name);
      uint32_t first = p.first_member, n = p.member_count;
      if (first > t.properties.size() || n > t.properties.size() - first) return fail(name);
      for (uint32_t m = first; m < first + n; ++m) {
        if (!emit(m, depth + 1)) return false;
        if (ended) return true;
      }
      return true;
    }

    uint8_t type = p.in_type;
    // Length attributes mean something for strings and binary only; a SID or
    // a number has its own size.
    bool sized_type = type == kUnicodeString || type == kAnsiString || type == kBinary;
    bool var_len = sized_type && (p.flags & kPropVarLength);
    uint32_t fixed_len = (sized_type && !var_len && (p.flags & kPropFixedLength)) ? p.length : 0;
    uint32_t k = 0;

    if (!var_count && !fixed_count) {
      switch (type) {
        case kUnicodeString:
          if (var_len) {
            if (!back_ref(p.length, k)) return fail(name);
            push(family(0xA001, k), name);
          } else if (fixed_len == 3) {
            push(145, name);
          } else if (fixed_len == 4) {
            push(161, name);
          } else if (fixed_len == 256) {
            push(177, name);
          } else if (fixed_len == 0) {
            push(kUnicodeString, name);
          } else {
            return fail(name);
          }
          break;
        case kAnsiString:
          if (var_len) {
            if (!back_ref(p.length, k)) return fail(name);
            push(family(0xA002, k), name);
          } else if (fixed_len > 15) {
            return fail(name);
          } else {
            push(fixed_len ? family(0xD002, fixed_len) : uint16_t(kAnsiString), name);
          }
          break;
        case kBinary:
          if (var_len) {
            if (!back_ref(p.length, k)) return fail(name);
            push(family(0xA084, k), name);
          } else if (fixed_len == 0) {
            // No size: the walker shows "{blob}" and ends there.
            push(kBinary, name);
            ended = true;
          } else {
            push_blob(fixed_len, name);
          }
          break;
        default:
          if (type < 3 || type > 22) return fail(name);  // 23 counted ANSI, 25 counted binary, ...
          push(type, name);
          if (is_integer_type(type)) {
            entry_at[i] = entries + 1;
            epoch_at[i] = epoch;
          }
          break;
      }
      ++entries;
      return true;
    }

    if (var_count) {
      if (!back_ref(p.count, k)) return fail(name);
      switch (type) {
        case 3:
        case 4:
          push(family(0xA084, k), name);  // n bytes: one blob entry
          ++entries;
          return true;
        case 7: case 8: case 11: case 13: case 20:
          push(family(0xA088, k), name);
          break;
        case kPointer:
          push(family(0xA090, k), name);
          break;
        case kUnicodeString:
          if (var_len || fixed_len) return fail(name);
          push(family(0xA081, k), name);
          break;
        default:
          return fail(name);
      }
      ++epoch;  // one entry per element: the number depends on the payload
      return true;
    }

    uint32_t c = p.count;
    if (c > 15) return fail(name);
    switch (type) {
      case 3:
      case 4:
        push(family(0xD084, c), name);
        entries += 1;
        return true;
      case 5: case 6:
        push(family(0xD086, c), name);
        break;
      case 7: case 8: case 11: case 13: case 20:
        push(family(0xD088, c), name);
        break;
      case 9: case 10: case 12: case 17: case 21:
        push(family(0xD095, c), name);
        break;
      case kPointer:
        push(family(0xD090, c), name);
        break;
      case kUnicodeString:
        if (var_len || fixed_len) return fail(name);
        push(family(0x9081, c), name);
        break;
      case kGuid:
      case kSystemTime:
        push_blob(16 * c, name);
        entries += 1;
        return true;
      case kBinary:
        if (fixed_len == 0 || fixed_len * c > 0xFFFF) return fail(name);
        push_blob(fixed_len * c, name);
        entries += 1;
        return true;
      default:
        return fail(name);
    }
    entries += c;
    return true;
  }

  // A run of raw bytes of known size: 0xDk84 up to 15 bytes, else 0xB284
  // with the size as the following word.
  void push_blob(uint32_t size, const std::string& name) {
    if (size <= 15) {
      push(family(0xD084, size), name);
      return;
    }
    push(0xB284, name);
    layout_field f;
    f.word = static_cast<uint16_t>(size);
    f.parameter = true;
    out.fields.push_back(std::move(f));
  }
};

}  // namespace

layout layout_of(const temp_block& t, uint64_t& budget) {
  converter c(t, budget);
  for (uint32_t i = 0; i < t.param_count && i < t.properties.size(); ++i) {
    if (!c.emit(i, 0)) {
      c.push(0, c.stop_name);
      c.out.stopped = true;
      break;
    }
    if (c.ended) break;
  }
  return std::move(c.out);
}

void append_layout_tokens(std::string& out, const layout& l) {
  char buf[16];
  for (const layout_field& f : l.fields) {
    if (!f.parameter && !f.name.empty()) {
      out += ", L";
      out += f.name;
    }
    if (f.parameter || f.word < 0x100) std::snprintf(buf, sizeof buf, ", %u", unsigned(f.word));
    else std::snprintf(buf, sizeof buf, ", 0x%x", unsigned(f.word));
    out += buf;
  }
}

}  // namespace modsift
