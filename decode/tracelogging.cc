#include "decode/tracelogging.h"

#include <cstring>
#include <string>

#include "decode/render.h"
#include "support/byte_reader.h"

namespace {

// In-type bits.
constexpr uint8_t kTypeMask = 0x1F;
constexpr uint8_t kCountMask = 0x60;
constexpr uint8_t kFixedCount = 0x20;     // u16 count in the schema
constexpr uint8_t kVariableCount = 0x40;  // u16 count in the data
constexpr uint8_t kCustom = 0x60;         // u16 size + type info in the schema; u16 size + bytes in the data
constexpr uint8_t kChain = 0x80;          // another byte follows

// Value types that need more than their plain word.
constexpr uint8_t kNull = 0;
constexpr uint8_t kUnicodeString = 1;
constexpr uint8_t kBinary = 14;             // u16 byte count, then the bytes
constexpr uint8_t kPointerUnsupported = 16;
constexpr uint8_t kCountedAnsiString = 23;  // u16 byte count, then the text
constexpr uint8_t kStruct = 24;             // no data; the out-type holds the member count
constexpr uint8_t kCountedBinary = 25;
constexpr uint8_t kLastType = 25;

constexpr uint8_t kOutString = 2;  // out-type: the values are characters

// Template words used for what a plain word can't say.
constexpr uint16_t kWordLabel = 0x8001;
constexpr uint16_t kWordU16 = 6;
constexpr uint16_t kWordBlobEnd = 14;         // "{blob}", the rest goes to the guesser
constexpr uint16_t kWordBytesNext = 0xB284;   // bytes, count in the next word
constexpr uint16_t kWordBackAscii = 0xA102;   // ASCII text, length one field back
constexpr uint16_t kWordBackUtf16 = 0xA101;   // UTF-16 text, length one field back
constexpr uint16_t kWordBackStrings = 0xA181; // UTF-16 strings, count one field back
constexpr uint16_t kWordBackBytes = 0xA184;   // bytes, count one field back
constexpr uint16_t kWordBackU32s = 0xA188;    // 32-bit values, count one field back

// No schema of a real event comes near this; it bounds what a hostile one
// can make us build.
constexpr size_t kMaxSchemaWords = 4096;

// Bytes of a fixed-width value type, 0 for the variable-size ones.
uint32_t fixed_width(uint8_t type) {
  switch (type) {
    case 3: case 4: return 1;
    case 5: case 6: return 2;
    case 7: case 8: case 11: case 13: case 20: return 4;
    case 9: case 10: case 12: case 17: case 21: return 8;
    case 15: case 18: return 16;
    default: return 0;
  }
}

class schema_builder {
 public:
  explicit schema_builder(event_template& t) : t_(t) {}

  bool ended() const { return ended_; }

  // A word with its name; also the parameter word behind 0xB284.
  void add(uint16_t word, const std::string& name) {
    if (ended_) return;
    t_.words.push_back(word);
    t_.names.push_back(name);
  }

  // The word of a field. Past kMaxSchemaWords the layout ends in a blob.
  void add_field_word(uint16_t word, const std::string& name) {
    if (ended_) return;
    if (t_.words.size() >= kMaxSchemaWords) {
      end_with_blob(name);
      return;
    }
    if (word > 255) t_.has_wide_word = true;
    add(word, name);
  }

  // A field this decoder can't lay out: the walk stops at it and the rest
  // of the payload is guessed.
  void end_with_blob(const std::string& name) {
    if (ended_) return;
    t_.words.push_back(kWordBlobEnd);
    t_.names.push_back(name);
    ended_ = true;
  }

  // One value of `type` that isn't an array.
  void scalar(uint8_t type, const std::string& name) {
    switch (type) {
      case kNull:
        return;  // no data
      case kBinary:
      case kCountedBinary:
        counted(name, ".Size", kWordBackBytes);
        return;
      case kCountedAnsiString:
        counted(name, ".Size", kWordBackAscii);
        return;
      case kPointerUnsupported:
        end_with_blob(name);
        return;
      default:
        if (type > kLastType) {
          end_with_blob(name);
          return;
        }
        add_field_word(type, name);
    }
  }

  // A u16 count field, then `word`, which takes its count from it.
  void counted(const std::string& name, const char* suffix, uint16_t word) {
    scratch_ = name;
    scratch_ += suffix;
    add_field_word(kWordU16, scratch_);
    add_field_word(word, name);
  }

  void fixed_array(uint8_t type, uint32_t count, const std::string& name) {
    if (count == 0) return;  // no data
    const uint32_t width = fixed_width(type);
    if (count <= kMaxSchemaArrayElements && type != kNull && type != kStruct) {
      std::string element;
      for (uint32_t i = 0; i < count && !ended_; ++i) {
        element = name;
        element += '[';
        append_decimal(element, i);
        element += ']';
        scalar(type, element);
      }
      return;
    }
    const uint64_t total = uint64_t{width} * count;
    if (width != 0 && total <= 0xFFFF) {
      add_field_word(kWordBytesNext, name);
      add(static_cast<uint16_t>(total), std::string());
      return;
    }
    end_with_blob(name);
  }

  void variable_array(uint8_t type, uint8_t out_type, const std::string& name) {
    switch (type) {
      case 3: case 4:
        counted(name, ".Count", kWordBackBytes);
        return;
      case 5: case 6:
        if (out_type == kOutString) {
          counted(name, ".Count", kWordBackUtf16);
          return;
        }
        break;
      case 7: case 8: case 11: case 13: case 20:
        counted(name, ".Count", kWordBackU32s);
        return;
      case kUnicodeString:
        counted(name, ".Count", kWordBackStrings);
        return;
      default:
        break;
    }
    end_with_blob(name);
  }

 private:
  event_template& t_;
  std::string scratch_;
  bool ended_ = false;
};

void trim_blanks(std::string& s) {
  size_t b = s.find_first_not_of(' ');
  if (b == std::string::npos) {
    s.clear();
    return;
  }
  size_t e = s.find_last_not_of(' ');
  s = s.substr(b, e - b + 1);
}

}  // namespace

bool parse_tracelogging_schema(const uint8_t* data, uint32_t size, event_template& out) {
  out.layout_text.clear();
  out.digest = template_digest{};
  out.words.clear();
  out.names.clear();
  out.percent_form = false;
  out.has_wide_word = false;
  if (!data || size < 3) return false;

  // The schema's own size bounds it when it is smaller than the item.
  size_t limit = size;
  const uint16_t total = qv::rd_u16(data, size, 0);
  if (total >= 3 && total < size) limit = total;

  size_t pos = 2;
  while (pos < limit) {  // event tags
    if ((data[pos++] & kChain) == 0) break;
  }
  if (pos >= limit) return false;
  const void* zero = std::memchr(data + pos, 0, limit - pos);
  if (!zero) return false;
  const size_t name_end = static_cast<size_t>(static_cast<const uint8_t*>(zero) - data);
  const std::string event_name(reinterpret_cast<const char*>(data + pos), name_end - pos);
  pos = name_end + 1;

  schema_builder b(out);
  b.add(kWordLabel, event_name);

  std::string name;
  while (pos < limit && !b.ended()) {
    zero = std::memchr(data + pos, 0, limit - pos);
    if (!zero) break;  // a cut name: nothing more to learn
    const size_t end = static_cast<size_t>(static_cast<const uint8_t*>(zero) - data);
    name.assign(reinterpret_cast<const char*>(data + pos), end - pos);
    trim_blanks(name);
    pos = end + 1;
    if (pos >= limit) {
      b.add(kWordLabel, name);  // a name without a type
      break;
    }

    const uint8_t in_type = data[pos++];
    uint8_t out_type = 0;
    bool cut = false;
    if (in_type & kChain) {
      if (pos < limit) {
        out_type = data[pos++];
        if (out_type & kChain) {
          while (pos < limit) {  // field tags
            if ((data[pos++] & kChain) == 0) break;
          }
        }
      } else {
        cut = true;
      }
    }
    const uint8_t type = in_type & kTypeMask;
    const uint8_t count_kind = in_type & kCountMask;
    uint32_t fixed_count = 0;
    if (count_kind == kFixedCount || count_kind == kCustom) {
      if (limit - pos < 2) {
        cut = true;
      } else {
        fixed_count = qv::rd_u16(data, limit, pos);
        pos += 2;
        if (count_kind == kCustom) {  // type info: skipped
          pos = fixed_count <= limit - pos ? pos + fixed_count : limit;
        }
      }
    }
    if (cut) {
      b.end_with_blob(name);
      break;
    }

    if (count_kind == kCustom) {
      b.counted(name, ".Size", kWordBackBytes);
    } else if (type == kStruct) {
      // Members follow as fields of their own; an array of structures has
      // no flat layout.
      if (count_kind != 0) b.end_with_blob(name);
    } else if (count_kind == kFixedCount) {
      b.fixed_array(type, fixed_count, name);
    } else if (count_kind == kVariableCount) {
      b.variable_array(type, out_type, name);
    } else {
      b.scalar(type, name);
    }
  }

  build_layout(out);
  return true;
}
