#include "decode/render.h"

#include <bit>
#include <cstring>

#include "support/qv_string.h"
#include "support/simd.h"

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
constexpr char kZeros[kMaxNumberDigits + 1] = "00000000000000000000000000000000";

// Writes `value` in lower-case hexadecimal at `p`, zero-filled to `digits`
// (at most kMaxNumberDigits); returns the end of what it wrote. The zeros
// go first in whole 16-byte stores, which may run up to 32 bytes past `p`,
// and the digits over them.
char* put_hex_at(char* p, uint64_t value, uint32_t digits) {
  const uint32_t significant = value == 0 ? 1 : static_cast<uint32_t>(std::bit_width(value) + 3) / 4;
  const uint32_t width = digits > significant ? digits : significant;
  std::memcpy(p, kZeros, 16);
  if (width > 16) std::memcpy(p + 16, kZeros, 16);
  char* const end = p + width;
  char* q = end;
  uint32_t left = significant;
  for (; left >= 2; left -= 2, value >>= 8) {
    const char* pair = kHexPairs[value & 0xFF];
    *--q = pair[1];
    *--q = pair[0];
  }
  if (left) *--q = kHexDigits[value & 0xF];
  return end;
}

// Text values: backslashes become "/" first, then a backslash goes ahead of
// every double quote, so that the escape itself survives.
// Whether one of the 8 bytes of `w` is a backslash or a double quote.
inline bool has_escape_byte(uint64_t w) {
  constexpr uint64_t kOnes = 0x0101010101010101ULL;
  constexpr uint64_t kHighs = 0x8080808080808080ULL;
  const uint64_t b = w ^ (kOnes * '\\');
  const uint64_t q = w ^ (kOnes * '"');
  return (((b - kOnes) & ~b) | ((q - kOnes) & ~q)) & kHighs;
}

}  // namespace

void append_hex(std::string& out, uint64_t value, uint32_t digits) {
  // Written backwards into a buffer on the stack, two digits per step from a
  // table, then zeros in front up to the width, and appended at once.
  char buf[kMaxNumberDigits];
  // Zeros first, in one fixed-size copy; the digits go over them.
  std::memcpy(buf, kZeros, sizeof buf);
  char* const end = buf + sizeof buf;
  char* p = end;
  while (value >= 0x100) {
    const char* pair = kHexPairs[value & 0xFF];
    *--p = pair[1];
    *--p = pair[0];
    value >>= 8;
  }
  if (value >= 0x10) {
    const char* pair = kHexPairs[value];
    *--p = pair[1];
    *--p = pair[0];
  } else {
    *--p = kHexDigits[value];
  }
  if (digits > kMaxNumberDigits) digits = kMaxNumberDigits;
  char* const first = end - digits;
  if (first < p) p = first;
  out.append(p, static_cast<size_t>(end - p));
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

namespace {

// A text value (see append_text_value) written into the line. Sixteen bytes
// are looked at and stored at a time: a block without a backslash or a quote
// goes to the line as it is, and one with them is taken up to the first of
// them, which is then written in its escaped form.
void write_text_value(qv::line_text& w, const std::string& text) {
  const char* p = text.data();
  const char* const end = p + text.size();
  // Each character takes two places at most (a quote and its backslash); the
  // block stores may write up to 16 bytes beyond what they keep.
  char* q = w.room(2 * text.size() + 16);
  char* const start = q;
#if defined(QUON_SSE2)
  const __m128i backslashes = _mm_set1_epi8('\\');
  const __m128i quotes = _mm_set1_epi8('"');
  while (end - p >= 16) {
    const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(q), block);
    const unsigned hits = static_cast<unsigned>(_mm_movemask_epi8(
        _mm_or_si128(_mm_cmpeq_epi8(block, backslashes), _mm_cmpeq_epi8(block, quotes))));
    if (hits == 0) {
      p += 16;
      q += 16;
      continue;
    }
    const int first = std::countr_zero(hits);
    p += first;
    q += first;
    if (*p++ == '\\') {
      *q++ = '/';
    } else {
      *q++ = '\\';
      *q++ = '"';
    }
  }
#endif
  while (p != end) {
    // Eight bytes at a time while none is a backslash or a quote.
    if (end - p >= 8) {
      uint64_t word;
      std::memcpy(&word, p, 8);
      if (!has_escape_byte(word)) {
        std::memcpy(q, p, 8);
        p += 8;
        q += 8;
        continue;
      }
    }
    const char ch = *p++;
    if (ch == '\\') {
      *q++ = '/';
    } else if (ch == '"') {
      *q++ = '\\';
      *q++ = '"';
    } else {
      *q++ = ch;
    }
  }
  w.advance(static_cast<size_t>(q - start));
}

}  // namespace

void render_fields(std::string& out, const decoded_fields& fields) {
  qv::line_text line(out, qv::line_text::behind);
  render_fields(line, fields);
  line.settle();
}

void render_fields(qv::line_text& w, const decoded_fields& fields) {
  uint64_t counter = 0;
  for (const auto& e : fields) {
    const decoded_field& f = e.field;
    ++counter;
    // The head ;"NN-name":" and, for a number, the value and its quote: the
    // head's fixed part, the name, and "0x" and 32 digits at most.
    char* const start = w.room(32 + f.name.size() + 8 + kMaxNumberDigits);
    char* p = start;
    if (counter > 1) *p++ = ';';
    *p++ = '"';
    if (counter < 10) {
      *p++ = '0';
      *p++ = static_cast<char>('0' + counter);
    } else {
      char digits[20];
      size_t at = sizeof digits;
      uint64_t v = counter;
      do {
        digits[--at] = static_cast<char>('0' + v % 10);
        v /= 10;
      } while (v != 0);
      for (; at < sizeof digits; ++at) *p++ = digits[at];
    }
    if (!f.name.empty()) {
      *p++ = '-';
      std::memcpy(p, f.name.data(), f.name.size());
      p += f.name.size();
    }
    *p++ = '"';
    *p++ = ':';
    *p++ = '"';
    if (!f.text.empty()) {
      w.advance(static_cast<size_t>(p - start));
      write_text_value(w, f.text);
      w.push_back('"');
      continue;
    }
    if (f.bytes.empty()) {
      // A number (or a skip without its text, which shows nothing).
      const uint8_t family = f.subtype >> 4;
      if (family != 0xC && family != 0xE) {
        uint64_t width = uint64_t{f.size} * 2;
        if (width > kMaxNumberDigits) width = kMaxNumberDigits;
        *p++ = '0';
        *p++ = 'x';
        p = put_hex_at(p, f.number, static_cast<uint32_t>(width));
      }
      *p++ = '"';
      w.advance(static_cast<size_t>(p - start));
      continue;
    }
    w.advance(static_cast<size_t>(p - start));
    if (f.type == 15 && f.bytes.size() == 16) {
      // A GUID between braces.
      char* q = w.room(39);
      q[0] = '{';
      qv::write_guid_text(q + 1, f.bytes.data());
      q[37] = '}';
      q[38] = '"';
      w.advance(39);
      continue;
    }
    // Bytes: two digits each.
    const size_t n = f.bytes.size();
    char* q = w.room(2 * n + 1);
    for (size_t i = 0; i < n; ++i) {
      const char* pair = kHexPairs[f.bytes[i]];
      q[2 * i] = pair[0];
      q[2 * i + 1] = pair[1];
    }
    q[2 * n] = '"';
    w.advance(2 * n + 1);
  }
}
