#include "decode/render.h"

#include "support/qv_string.h"

namespace {

const char kHexDigits[] = "0123456789abcdef";

// The two hexadecimal digits of every byte value.
struct hex_pair_table {
  char pairs[256][2];
  constexpr hex_pair_table() : pairs() {
    for (int i = 0; i < 256; ++i) {
      pairs[i][0] = "0123456789abcdef"[i >> 4];
      pairs[i][1] = "0123456789abcdef"[i & 0xF];
    }
  }
  const char* operator[](uint64_t i) const { return pairs[i]; }
};
constexpr hex_pair_table kHexPairs;

// Zero padding of a number never goes past the width of a 128-bit value,
// whatever size a field claims: the number itself holds 64 bits at most.
constexpr uint32_t kMaxNumberDigits = 32;

// Text values: backslashes become "/" first, then a backslash goes ahead of
// every double quote, so that the escape itself survives.
void append_text_value(std::string& out, const std::string& text) {
  const char* p = text.data();
  const char* end = p + text.size();
  const char* from = p;
  for (; p != end; ++p) {
    if (*p != '\\' && *p != '"') continue;
    out.append(from, static_cast<size_t>(p - from));
    if (*p == '\\') {
      out += '/';
    } else {
      out += "\\\"";
    }
    from = p + 1;
  }
  out.append(from, static_cast<size_t>(end - from));
}

void append_value(std::string& out, const decoded_field& f) {
  if (!f.text.empty()) {
    append_text_value(out, f.text);
    return;
  }
  if (!f.bytes.empty()) {
    if (f.type == 15 && f.bytes.size() == 16) {
      out += '{';
      qv::append_guid_text(out, f.bytes.data());
      out += '}';
    } else {
      append_hex_bytes(out, f.bytes.data(), f.bytes.size());
    }
    return;
  }
  // Skips (families 0xC and 0xE) carry their "{blob}" in the text; should
  // one ever come without it, it still shows no number.
  const uint8_t family = f.subtype >> 4;
  if (family == 0xC || family == 0xE) return;
  out += "0x";
  uint64_t digits = uint64_t{f.size} * 2;
  if (digits > kMaxNumberDigits) digits = kMaxNumberDigits;
  append_hex(out, f.number, static_cast<uint32_t>(digits));
}

}  // namespace

void append_hex(std::string& out, uint64_t value, uint32_t digits) {
  // The significant digits, at least one, then the width with zeros in
  // front; written in place, two digits per step from a table.
  uint32_t significant = 1;
  for (uint64_t v = value >> 4; v != 0; v >>= 4) ++significant;
  if (digits > kMaxNumberDigits) digits = kMaxNumberDigits;
  const size_t width = digits > significant ? digits : significant;
  const size_t at = out.size();
  out.resize(at + width, '0');
  char* p = out.data() + at + width;
  uint32_t left = significant;
  for (; left >= 2; left -= 2, value >>= 8) {
    const char* pair = kHexPairs[value & 0xFF];
    *--p = pair[1];
    *--p = pair[0];
  }
  if (left) *--p = kHexDigits[value & 0xF];
}

void append_hex_bytes(std::string& out, const uint8_t* data, size_t size) {
  size_t at = out.size();
  out.resize(at + size * 2);
  for (size_t i = 0; i < size; ++i) {
    const char* pair = kHexPairs[data[i]];
    out[at++] = pair[0];
    out[at++] = pair[1];
  }
}

void append_decimal(std::string& out, uint64_t value) {
  char buf[20];
  size_t at = sizeof buf;
  do {
    buf[--at] = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value != 0);
  out.append(buf + at, sizeof buf - at);
}

void render_fields(std::string& out, decoded_fields& fields) {
  uint64_t counter = 0;
  for (const auto& e : fields) {
    const decoded_field& f = e.field;
    ++counter;
    out.append(counter > 1 ? ";\"" : "\"");
    if (counter < 10) {
      out += '0';
      out += static_cast<char>('0' + counter);
    } else {
      append_decimal(out, counter);
    }
    if (!f.name.empty()) {
      out += '-';
      out += f.name;
    }
    out += "\":\"";
    append_value(out, f);
    out += '"';
  }
}

