#include "decode/render.h"

#include <bit>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

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
constexpr char kZeros[kMaxNumberDigits + 1] = "00000000000000000000000000000000";

// Writes `value` in lower-case hexadecimal at `p`, zero-filled to `digits`
// (at most kMaxNumberDigits); returns the end of what it wrote.
char* put_hex_at(char* p, uint64_t value, uint32_t digits) {
  uint32_t significant = 1;
  for (uint64_t v = value >> 4; v != 0; v >>= 4) ++significant;
  const uint32_t width = digits > significant ? digits : significant;
  char* const end = p + width;
  char* q = end;
  uint32_t left = significant;
  for (; left >= 2; left -= 2, value >>= 8) {
    const char* pair = kHexPairs[value & 0xFF];
    *--q = pair[1];
    *--q = pair[0];
  }
  if (left) *--q = kHexDigits[value & 0xF];
  while (q > p) *--q = '0';
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

void append_text_value(std::string& out, const std::string& text) {
  const char* p = text.data();
  const char* end = p + text.size();
  const char* from = p;
  // Eight bytes at a time up to the first word that may hold a backslash or
  // a quote; most texts hold neither and go to the line in one piece.
  while (end - p >= 8) {
    uint64_t w;
    std::memcpy(&w, p, 8);
    if (has_escape_byte(w)) break;
    p += 8;
  }
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

// Writing straight into the end of a string: room is made in large steps
// (the string grows, zero-filled, by a kilobyte or more at a time) and what
// was written is counted; the string is cut back to it when done. Texts go
// from their field to the line in one copy, and nothing is composed on the
// side only to be copied again.
class direct_writer {
 public:
  explicit direct_writer(std::string& s) : s_(s), used_(s.size()) {}
  ~direct_writer() { s_.resize(used_); }
  direct_writer(const direct_writer&) = delete;
  direct_writer& operator=(const direct_writer&) = delete;

  // At least `n` writable bytes at the returned place.
  char* room(size_t n) {
    if (s_.size() - used_ < n) s_.resize(used_ + (n > kStep ? n : kStep));
    return s_.data() + used_;
  }
  void advance(size_t n) { used_ += n; }
  void put(const char* p, size_t n) {
    std::memcpy(room(n), p, n);
    used_ += n;
  }
  // The string as written so far, for helpers that append to it; `resume`
  // takes back what they added.
  std::string& settle() {
    s_.resize(used_);
    return s_;
  }
  void resume() { used_ = s_.size(); }

 private:
  static constexpr size_t kStep = 1024;
  std::string& s_;
  size_t used_;
};

// A text value (see append_text_value) written at the writer. Sixteen bytes
// are looked at and stored at a time: a block without a backslash or a quote
// goes to the line as it is, and one with them is taken up to the first of
// them, which is then written in its escaped form.
void write_text_value(direct_writer& w, const std::string& text) {
  const char* p = text.data();
  const char* const end = p + text.size();
  // Each character takes two places at most (a quote and its backslash); the
  // block stores may write up to 16 bytes beyond what they keep.
  char* q = w.room(2 * text.size() + 16);
  char* const start = q;
#if defined(__SSE2__)
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
  direct_writer w(out);
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
      w.put("\"", 1);
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
    // GUIDs and bytes through the string helpers.
    w.advance(static_cast<size_t>(p - start));
    std::string& s = w.settle();
    append_value(s, f);
    s += '"';
    w.resume();
  }
}
