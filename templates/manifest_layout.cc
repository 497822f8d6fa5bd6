#include "templates/manifest_layout.h"

#include <cstdio>

namespace {

// Manifest structures rarely nest; the limit stops a table whose member
// ranges refer back to themselves.
constexpr int max_struct_depth = 4;
constexpr size_t max_layout_fields = 4096;

// Types whose value can serve as a count or length: the walker takes a back
// reference from a decoded field's number.
bool is_integer_type(uint8_t t) { return (t >= 3 && t <= 10) || t == 20 || t == 21; }

uint16_t family(uint16_t base, uint32_t k) { return static_cast<uint16_t>(base | (k << 8)); }

struct converter {
  const manifest_template& t;
  uint64_t& budget;
  manifest_layout out;
  // Entries of the decoded list that the fields so far make, when that number
  // is fixed; `epoch` moves on after a field whose entry count depends on the
  // payload, and a back reference can't reach across such a field.
  uint32_t entries = 0;
  uint32_t epoch = 0;
  std::vector<uint32_t> entry_at;  // per property: its entry's ordinal, 0 for none
  std::vector<uint32_t> epoch_at;
  bool ended = false;  // word 14 was written: the walk ends there anyway
  std::string stop_name;
  layout_stop why = layout_stop::none;

  converter(const manifest_template& tb, uint64_t& b)
      : t(tb), budget(b), entry_at(tb.properties.size(), 0), epoch_at(tb.properties.size(), 0) {}

  bool fail(const std::string& name, layout_stop reason) {
    stop_name = name;
    why = reason;
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
    const manifest_property& p = t.properties[i];
    std::string name = layout_name(p.name);
    if (budget == 0 || out.fields.size() + 2 > max_layout_fields) return fail(name, layout_stop::work_limit);
    --budget;
    if (p.unreadable != layout_stop::none) return fail(name, p.unreadable);

    bool var_count = (p.flags & property_var_count) != 0;
    bool fixed_count = !var_count && (p.flags & property_fixed_count) && p.count > 1;

    if (p.flags & property_struct) {
      // A structure with one element is its members in a row; arrays of
      // structures have no word.
      if (var_count || fixed_count) return fail(name, layout_stop::struct_array);
      if (depth >= max_struct_depth) return fail(name, layout_stop::bad_structure);
      uint32_t first = p.first_member, n = p.member_count;
      if (first > t.properties.size() || n > t.properties.size() - first)
        return fail(name, layout_stop::bad_structure);
      for (uint32_t m = first; m < first + n; ++m) {
        if (!emit(m, depth + 1)) return false;
        if (ended) return true;
      }
      return true;
    }

    uint8_t type = p.in_type;
    // Length attributes mean something for strings and binary only; a SID or
    // a number has its own size.
    bool sized_type = type == in_type_unicode_string || type == in_type_ansi_string || type == in_type_binary;
    bool var_len = sized_type && (p.flags & property_var_length);
    uint32_t fixed_len = (sized_type && !var_len && (p.flags & property_fixed_length)) ? p.length : 0;
    uint32_t k = 0;

    if (!var_count && !fixed_count) {
      switch (type) {
        case in_type_unicode_string:
          if (var_len) {
            if (!back_ref(p.length, k)) return fail(name, layout_stop::out_of_reach);
            push(family(0xA001, k), name);
          } else if (fixed_len == 3) {
            push(145, name);
          } else if (fixed_len == 4) {
            push(161, name);
          } else if (fixed_len == 256) {
            push(177, name);
          } else if (fixed_len == 0) {
            push(in_type_unicode_string, name);
          } else {
            return fail(name, layout_stop::utf16_length);
          }
          break;
        case in_type_ansi_string:
          if (var_len) {
            if (!back_ref(p.length, k)) return fail(name, layout_stop::out_of_reach);
            push(family(0xA002, k), name);
          } else if (fixed_len > 15) {
            return fail(name, layout_stop::ansi_length_over_15);
          } else {
            push(fixed_len ? family(0xD002, fixed_len) : uint16_t(in_type_ansi_string), name);
          }
          break;
        case in_type_binary:
          if (var_len) {
            if (!back_ref(p.length, k)) return fail(name, layout_stop::out_of_reach);
            push(family(0xA084, k), name);
          } else if (fixed_len == 0) {
            // No size: the walker shows "{blob}" and ends there.
            push(in_type_binary, name);
            ended = true;
          } else {
            if (!push_blob(fixed_len, name)) return false;
          }
          break;
        case in_type_counted_ansi_string:
          return fail(name, layout_stop::counted_ansi);
        case in_type_counted_binary:
          return fail(name, layout_stop::counted_binary);
        default:
          if (type < 3 || type > 22) return fail(name, layout_stop::no_word);
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
      if (!back_ref(p.count, k)) return fail(name, layout_stop::out_of_reach);
      switch (type) {
        case 3:
        case 4:
          push(family(0xA084, k), name);  // n bytes: one blob entry
          ++entries;
          return true;
        case 7: case 8: case 11: case 13: case 20:
          push(family(0xA088, k), name);
          break;
        case in_type_pointer:
          push(family(0xA090, k), name);
          break;
        case in_type_unicode_string:
          if (var_len || fixed_len) return fail(name, layout_stop::array_of_type);
          push(family(0xA081, k), name);
          break;
        default:
          return fail(name, layout_stop::array_of_type);
      }
      ++epoch;  // one entry per element: the number depends on the payload
      return true;
    }

    uint32_t c = p.count;
    if (c > 15) return fail(name, layout_stop::count_over_15);
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
      case in_type_pointer:
        push(family(0xD090, c), name);
        break;
      case in_type_unicode_string:
        if (var_len || fixed_len) return fail(name, layout_stop::array_of_type);
        push(family(0x9081, c), name);
        break;
      case in_type_guid:
      case in_type_systemtime:
        if (!push_blob(16 * c, name)) return false;
        entries += 1;
        return true;
      case in_type_binary:
        if (fixed_len == 0) return fail(name, layout_stop::array_of_type);
        if (!push_blob(uint64_t(fixed_len) * c, name)) return false;
        entries += 1;
        return true;
      default:
        return fail(name, layout_stop::array_of_type);
    }
    entries += c;
    return true;
  }

  // A run of raw bytes of known size: 0xDk84 up to 15 bytes, else 0xB284
  // with the size as the following word.
  bool push_blob(uint64_t size, const std::string& name) {
    if (size > 0xFFFF) return fail(name, layout_stop::binary_length);
    if (size <= 15) {
      push(family(0xD084, uint32_t(size)), name);
      return true;
    }
    push(0xB284, name);
    layout_field f;
    f.word = static_cast<uint16_t>(size);
    f.parameter = true;
    out.fields.push_back(std::move(f));
    return true;
  }
};

}  // namespace

const char* layout_stop_text(layout_stop stop) {
  switch (stop) {
    case layout_stop::none: return "none";
    case layout_stop::struct_array: return "array of structures";
    case layout_stop::count_over_15: return "fixed count above 15";
    case layout_stop::ansi_length_over_15: return "ANSI text of a fixed length above 15";
    case layout_stop::utf16_length: return "UTF-16 text of a fixed length other than 3, 4 or 256";
    case layout_stop::binary_length: return "binary of a fixed size above 65535";
    case layout_stop::array_of_type: return "array of a type without an array word";
    case layout_stop::counted_ansi: return "counted ANSI string";
    case layout_stop::counted_binary: return "counted binary";
    case layout_stop::no_word: return "in-type without a word";
    case layout_stop::out_of_reach: return "length or count out of reach";
    case layout_stop::bad_structure: return "structure outside the table";
    case layout_stop::work_limit: return "work limit";
    case layout_stop::unknown_in_type: return "unknown in-type";
    case layout_stop::unknown_reference: return "length or count naming no earlier item";
    case layout_stop::structure_index: return "structure written as its start index";
  }
  return "?";
}

void stop_layout(manifest_layout& l, const std::string& name, layout_stop why) {
  layout_field f;
  f.word = 0;
  f.name = name;
  l.fields.push_back(std::move(f));
  l.stopped = true;
  l.stop = why;
}

manifest_layout layout_of(const manifest_template& t, uint64_t& budget) {
  converter c(t, budget);
  for (uint32_t i = 0; i < t.param_count && i < t.properties.size(); ++i) {
    if (!c.emit(i, 0)) {
      stop_layout(c.out, c.stop_name, c.why);
      break;
    }
    if (c.ended) break;
  }
  return std::move(c.out);
}

void append_layout_tokens(std::string& out, const std::vector<layout_field>& fields) {
  char buf[16];
  for (const layout_field& f : fields) {
    if (!f.parameter && !f.name.empty()) {
      out += ", L";
      out += f.name;
    }
    if (f.parameter || f.word < 0x100) std::snprintf(buf, sizeof buf, ", %u", unsigned(f.word));
    else std::snprintf(buf, sizeof buf, ", 0x%x", unsigned(f.word));
    out += buf;
  }
}

std::string layout_name(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    unsigned char u = static_cast<unsigned char>(c);
    bool bad = u < 0x20 || u == 0x7F || c == ',' || c == '!';
    out.push_back(bad ? '_' : c);
  }
  size_t a = out.find_first_not_of(' ');
  if (a == std::string::npos) return std::string();
  size_t b = out.find_last_not_of(' ');
  return out.substr(a, b - a + 1);
}
