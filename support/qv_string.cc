// Text utilities. See qv_string.h for the contract of each function.
#include "support/qv_string.h"

#include <algorithm>
#include <bit>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <cwctype>
#include <ios>
#include <locale>
#include <sstream>

#include "support/simd.h"

namespace qv {

namespace {

// Writes `cp` (at most 0x10FFFF) as UTF-8 at `p`; returns the bytes written.
// Surrogate values are not refused: they take three bytes like any other
// value of that range.
inline size_t encode_utf8(char* p, uint32_t cp) {
  if (cp < 0x80) {
    p[0] = char(cp);
    return 1;
  }
  if (cp < 0x800) {
    p[0] = char(0xC0 | (cp >> 6));
    p[1] = char(0x80 | (cp & 0x3F));
    return 2;
  }
  if (cp < 0x10000) {
    p[0] = char(0xE0 | (cp >> 12));
    p[1] = char(0x80 | ((cp >> 6) & 0x3F));
    p[2] = char(0x80 | (cp & 0x3F));
    return 3;
  }
  p[0] = char(0xF0 | (cp >> 18));
  p[1] = char(0x80 | ((cp >> 12) & 0x3F));
  p[2] = char(0x80 | ((cp >> 6) & 0x3F));
  p[3] = char(0x80 | (cp & 0x3F));
  return 4;
}

inline bool is_high_surrogate(uint32_t u) { return u >= 0xD800 && u <= 0xDBFF; }
inline bool is_low_surrogate(uint32_t u) { return u >= 0xDC00 && u <= 0xDFFF; }

// The i-th UTF-16LE unit, assembled from bytes (no alignment assumed).
inline uint32_t unit_at(const uint8_t* p, uint32_t i) {
  return uint32_t(p[2 * size_t(i)]) | (uint32_t(p[2 * size_t(i) + 1]) << 8);
}

// One pass over a UTF-16LE text: how many units it has before the zero unit
// or the limit, whether all are ASCII, and whether every high surrogate is
// followed by a low one. A lone low surrogate is accepted as itself.
struct utf16_scan {
  uint32_t units = 0;
  bool ascii = true;
  bool pairs_ok = true;
};

inline utf16_scan scan_utf16(const uint8_t* src, uint32_t max_bytes) {
  utf16_scan r;
  // An unbounded text is cut at 500 units; the caller guarantees the bytes.
  const uint32_t limit = max_bytes == 0xFFFFFFFFu ? 500u : max_bytes / 2;
  bool pending_high = false;
  uint32_t n = 0;
  for (; n < limit; ++n) {
    const uint32_t u = unit_at(src, n);
    if (u == 0) break;
    if (u < 0x80) {
      if (pending_high) r.pairs_ok = false;
      pending_high = false;
      continue;
    }
    r.ascii = false;
    if (pending_high) {
      pending_high = false;
      if (is_low_surrogate(u)) continue;
      r.pairs_ok = false;
    }
    if (is_high_surrogate(u)) pending_high = true;
  }
  if (pending_high) r.pairs_ok = false;
  r.units = n;
  return r;
}

const char kHexDigits[] = "0123456789abcdef";

inline void put_hex(char* p, uint32_t v, int digits) {
  for (int i = digits - 1; i >= 0; --i) {
    p[i] = kHexDigits[v & 0xF];
    v >>= 4;
  }
}

const std::locale& text_locale() {
  static const std::locale loc;
  return loc;
}

// Removes characters of `set` from the chosen ends of `s`.
void trim_set(std::wstring& s, const wchar_t* set, bool left, bool right) {
  if (right) {
    const size_t e = s.find_last_not_of(set);
    if (e == std::wstring::npos) {
      s.clear();
      return;
    }
    s.erase(e + 1);
  }
  if (left) {
    const size_t b = s.find_first_not_of(set);
    if (b == std::wstring::npos) {
      s.clear();
      return;
    }
    s.erase(0, b);
  }
}

inline bool is_sign_or_digit(char c) {
  return c == '-' || c == '+' || (c >= '0' && c <= '9');
}

// Reads a counted number (one byte below 0x80, else two bytes high part
// first, top bit dropped). Returns the bytes it took, 0 when it can't be read.
inline size_t read_counted_number(const uint8_t* data, size_t length, size_t& value) {
  value = 0;
  if (!data || length == 0) return 0;
  if ((data[0] & 0x80) == 0) {
    value = data[0];
    return 1;
  }
  if (length < 2) return 0;
  value = size_t(data[0] & 0x7F) * 256 + data[1];
  return 2;
}

}  // namespace

// ---- Conversions ---------------------------------------------------------

bool wide_to_utf8(std::string& out, const std::wstring& in) {
  out.clear();
  out.reserve(in.size());
  char buf[4];
  for (wchar_t wc : in) {
    const uint32_t cp = static_cast<uint32_t>(wc);
    if (cp > 0x10FFFF) return false;
    if (cp < 0x80) {
      out.push_back(char(cp));
    } else {
      out.append(buf, encode_utf8(buf, cp));
    }
  }
  return true;
}

bool utf8_to_wide(std::wstring& out, const std::string& in) {
  out.clear();
  out.reserve(in.size());
  const size_t n = in.size();
  size_t i = 0;
  while (i < n) {
    const uint8_t lead = uint8_t(in[i]);
    uint32_t cp;
    size_t extra;
    if (lead < 0x80) {
      out.push_back(wchar_t(lead));
      ++i;
      continue;
    } else if ((lead & 0xE0) == 0xC0) {
      cp = lead & 0x1F;
      extra = 1;
    } else if ((lead & 0xF0) == 0xE0) {
      cp = lead & 0x0F;
      extra = 2;
    } else if ((lead & 0xF8) == 0xF0) {
      cp = lead & 0x07;
      extra = 3;
    } else {
      return false;
    }
    if (extra > n - i - 1) return false;
    for (size_t k = 1; k <= extra; ++k) {
      const uint8_t c = uint8_t(in[i + k]);
      if ((c & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (c & 0x3F);
    }
    out.push_back(wchar_t(cp));
    i += extra + 1;
  }
  return true;
}

std::string to_narrow(const std::wstring& in) {
  std::string out;
  wide_to_utf8(out, in);
  return out;
}

std::wstring to_wide(const std::string& in) {
  std::wstring out;
  if (in.empty() || !utf8_to_wide(out, in)) out.clear();
  return out;
}

uint32_t utf16_to_wide(const uint8_t* source, std::wstring& out, uint32_t max_bytes) {
  out.clear();
  if (!source || max_bytes == 0) return 0;
  const utf16_scan sc = scan_utf16(source, max_bytes);
  out.reserve(sc.units);
  if (sc.pairs_ok) {
    for (uint32_t i = 0; i < sc.units; ++i) {
      uint32_t u = unit_at(source, i);
      if (is_high_surrogate(u)) {
        // scan_utf16 made sure a low surrogate follows.
        const uint32_t lo = unit_at(source, ++i);
        u = 0x10000 + ((u - 0xD800) << 10) + (lo - 0xDC00);
      }
      out.push_back(wchar_t(u));
    }
  } else {
    // A broken pair: every unit stands for itself, nothing is dropped.
    for (uint32_t i = 0; i < sc.units; ++i) out.push_back(wchar_t(unit_at(source, i)));
  }
  return sc.units * 2;
}

static uint32_t utf16_general(const uint8_t* source, std::string& out, uint32_t max_bytes);

uint32_t utf16_text(const uint8_t* source, std::string& out, uint32_t max_bytes,
                    bool count_terminator) {
  out.clear();
  if (!source || max_bytes == 0) return 0;
  // Most texts are ASCII: they are written straight into `out` in the same
  // pass that finds their end, eight units at a time where it can. The
  // first unit beyond ASCII sends the text to the general conversion below,
  // which starts over.
  const bool bounded = max_bytes != 0xFFFFFFFFu;
  const uint32_t limit = bounded ? max_bytes / 2 : 500u;
  // Room for the usual short text first; it grows as the text goes on.
  size_t room = limit < 64u ? limit : 64u;
  out.resize(room);
  char* dst = out.data();
  uint32_t n = 0;
  bool ascii = true;
  constexpr uint64_t kHighBits = 0xFF80FF80FF80FF80ULL;
  constexpr uint64_t kOneUnits = 0x0001000100010001ULL;
  constexpr uint64_t kUnitTops = 0x8000800080008000ULL;
  // The low bytes of four ASCII units, side by side.
  auto pack = [](uint64_t w) {
    return uint32_t((w & 0xFF) | ((w >> 8) & 0xFF00) | ((w >> 16) & 0xFF0000) | ((w >> 24) & 0xFF000000));
  };
  for (;;) {
#if defined(QUON_SSE2)
    // Sixteen units at a time: all ASCII, they are packed into sixteen bytes
    // in one step, and the text goes on past them when none is zero or ends
    // at the first zero one. Only inside a bounded text, like the eight
    // units below.
    if (bounded && limit - n >= 16) {
      const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(source + 2 * size_t(n)));
      const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(source + 2 * size_t(n) + 16));
      const __m128i zero = _mm_setzero_si128();
      const __m128i high = _mm_and_si128(_mm_or_si128(a, b), _mm_set1_epi16(static_cast<short>(0xFF80)));
      if (_mm_movemask_epi8(_mm_cmpeq_epi8(high, zero)) == 0xFFFF) {
        const __m128i packed = _mm_packus_epi16(a, b);
        const unsigned zeros = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(packed, zero)));
        if (room - n < 16) {
          room = std::min<size_t>(limit, 2 * room + 16);
          out.resize(room);
          dst = out.data();
        }
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + n), packed);
        if (zeros == 0) {
          n += 16;
          continue;
        }
        n += static_cast<uint32_t>(std::countr_zero(zeros));
        break;
      }
    }
#endif
    // Only inside a bounded text: an unbounded one may end at its zero unit.
    if (bounded && limit - n >= 8) {
      uint64_t w0, w1;
      std::memcpy(&w0, source + 2 * size_t(n), 8);
      std::memcpy(&w1, source + 2 * size_t(n) + 8, 8);
      // All eight ASCII and none zero: high bytes clear, low bytes below
      // 0x80, and no unit that 1 takes below 0.
      if (((w0 | w1) & kHighBits) == 0 && (((w0 - kOneUnits) | (w1 - kOneUnits)) & kUnitTops) == 0) {
        if (room - n < 8) {
          room = std::min<size_t>(limit, 2 * room + 8);
          out.resize(room);
          dst = out.data();
        }
        const uint32_t lo = pack(w0), hi = pack(w1);
        std::memcpy(dst + n, &lo, 4);
        std::memcpy(dst + n + 4, &hi, 4);
        n += 8;
        continue;
      }
    }
    if (n >= limit) break;
    const uint32_t u = unit_at(source, n);
    if (u == 0) break;
    if (u >= 0x80) {
      ascii = false;
      break;
    }
    if (n == room) {
      room = std::min<size_t>(limit, 2 * room + 8);
      out.resize(room);
      dst = out.data();
    }
    dst[n++] = char(u);
  }
  if (ascii) {
    out.resize(n);
  } else {
    out.clear();
    n = utf16_general(source, out, max_bytes);
  }
  uint32_t consumed = n * 2;
  // Step over the zero unit when one was met inside the limit. The compare
  // is on signed values, so an unbounded read (all bits set) never adds it.
  if (count_terminator && consumed != 0 &&
      int64_t(int32_t(consumed)) < int64_t(int32_t(max_bytes)) - 1) {
    consumed += 2;
  }
  return consumed;
}

// The conversion of a text with units beyond ASCII: its units are counted
// and checked first, then converted. Returns the units read.
static uint32_t utf16_general(const uint8_t* source, std::string& out, uint32_t max_bytes) {
  const utf16_scan sc = scan_utf16(source, max_bytes);
  const uint32_t n = sc.units;
  if (n != 0) {
    if (sc.ascii) {
      out.resize(n);
      char* p = out.data();
      for (uint32_t i = 0; i < n; ++i) p[i] = char(source[2 * size_t(i)]);
    } else {
      // Three bytes per unit is the most any unit or pair can take.
      out.resize(size_t(n) * 3);
      char* p = out.data();
      size_t w = 0;
      for (uint32_t i = 0; i < n; ++i) {
        uint32_t u = unit_at(source, i);
        if (sc.pairs_ok && is_high_surrogate(u)) {
          const uint32_t lo = unit_at(source, ++i);
          u = 0x10000 + ((u - 0xD800) << 10) + (lo - 0xDC00);
        }
        w += encode_utf8(p + w, u);
      }
      out.resize(w);
    }
  }
  return n;
}

// ---- Case and trimming ---------------------------------------------------

std::string& to_lower(std::string& s) {
  if (s.empty()) return s;
  const auto& ct = std::use_facet<std::ctype<char>>(text_locale());
  ct.tolower(s.data(), s.data() + s.size());
  return s;
}

std::string& to_upper(std::string& s) {
  if (s.empty()) return s;
  const auto& ct = std::use_facet<std::ctype<char>>(text_locale());
  ct.toupper(s.data(), s.data() + s.size());
  return s;
}

std::wstring& to_lower(std::wstring& s) {
  for (wchar_t& c : s) c = wchar_t(std::towlower(wint_t(c)));
  return s;
}

bool equal_nocase(std::string& a, std::string& b) {
  if (a.size() != b.size()) return false;
  to_lower(a);
  to_lower(b);
  return a == b;
}

bool trim(std::string& s) {
  static const char kSpace[] = " \t\r\n";
  const size_t e = s.find_last_not_of(kSpace);
  if (e == std::string::npos) {
    s.clear();
    return false;
  }
  s.erase(e + 1);
  s.erase(0, s.find_first_not_of(kSpace));
  return true;
}

bool trim(std::wstring& s) {
  trim_set(s, L" \t", true, true);
  trim_set(s, L"\t\r", true, true);
  trim_set(s, L"\r\n", false, true);
  trim_set(s, L"\n", false, true);
  return !s.empty();
}

size_t strip_eol(std::string& s) {
  size_t n = 0;
  while (!s.empty() && (s.back() == '\r' || s.back() == '\n')) {
    s.pop_back();
    ++n;
  }
  return n;
}

bool strip_trailing_separators(std::wstring& s) {
  while (!s.empty() && (s.back() == L'/' || s.back() == L'\\')) s.pop_back();
  return !s.empty();
}

// ---- Characters and substrings ------------------------------------------

size_t remove_char(std::string& s, char c) {
  const size_t before = s.size();
  size_t w = 0;
  for (size_t r = 0; r < before; ++r) {
    if (s[r] != c) s[w++] = s[r];
  }
  s.resize(w);
  return before - w;
}

void escape_char(std::string& s, char c, char escape) {
  size_t hits = 0;
  for (char ch : s) hits += ch == c;
  if (hits == 0) return;
  std::string r;
  r.reserve(s.size() + hits);
  for (char ch : s) {
    if (ch == c) r.push_back(escape);
    r.push_back(ch);
  }
  s.swap(r);
}

void replace_char(std::string& s, char from, char to, bool ignore_case) {
  if (from == to) return;
  if (!ignore_case) {
    for (char& ch : s) if (ch == from) ch = to;
    return;
  }
  const char lo = char(std::tolower(uint8_t(from)));
  const char up = char(std::toupper(uint8_t(from)));
  for (char& ch : s) if (ch == lo || ch == up) ch = to;
}

void replace_char(std::wstring& s, wchar_t from, wchar_t to, bool ignore_case) {
  if (!ignore_case) {
    for (wchar_t& ch : s) if (ch == from) ch = to;
    return;
  }
  const wchar_t lo = wchar_t(std::towlower(wint_t(from)));
  const wchar_t up = wchar_t(std::towupper(wint_t(from)));
  for (wchar_t& ch : s) if (ch == lo || ch == up) ch = to;
}

bool erase_first(std::string& s, std::string& what, bool ignore_case) {
  if (what.empty()) return false;
  size_t at;
  if (ignore_case) {
    to_lower(what);
    std::string lowered = s;
    to_lower(lowered);  // byte for byte, so positions stay the same
    at = lowered.find(what);
  } else {
    at = s.find(what);
  }
  if (at == std::string::npos) return false;
  s.erase(at, what.size());
  return true;
}

void pad_blanks(std::ostream& out, size_t n) {
  static const char kBlanks[64] = {' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ',
                                   ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ',
                                   ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ',
                                   ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ',
                                   ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' '};
  while (n > 0) {
    const size_t k = n < sizeof kBlanks ? n : sizeof kBlanks;
    out.write(kBlanks, std::streamsize(k));
    n -= k;
  }
}

std::string& expand_environment(std::string& text, bool shadow_form) {
  static const char kShadow[] = "\\\\?\\GLOBALROOT\\Device\\HarddiskVolumeShadowCopy";
  // A value that names itself (FOO=%FOO%) would never grow the text; the
  // substitution count bounds such loops.
  int substitutions = 0;
  size_t at = 0;
  while (text.size() <= 512 && substitutions < 4096) {
    at = text.find('%', at);
    if (at == std::string::npos) break;
    const size_t close = text.find('%', at + 1);
    if (close == std::string::npos) break;
    const std::string name = text.substr(at + 1, close - at - 1);
    const char* value = name.empty() ? nullptr : std::getenv(name.c_str());
    if (value) {
      // The value is scanned again from the same place.
      text.replace(at, close - at + 1, value);
      ++substitutions;
      continue;
    }
    if (shadow_form) {
      std::string lowered = name;
      if (to_lower(lowered) == "vss") text.replace(at, close - at + 1, kShadow);
    }
    at = close + 1;
  }
  return text;
}

// ---- Splitting -----------------------------------------------------------

bool split(const std::string& text, char delimiter, std::vector<std::string>& out,
           bool trim_parts, bool keep_empty, bool append) {
  if (!append) out.clear();
  if (text.empty()) return false;
  size_t pos = 0;
  for (;;) {
    const size_t d = text.find(delimiter, pos);
    const size_t end = d == std::string::npos ? text.size() : d;
    std::string part(text, pos, end - pos);
    if (trim_parts) trim(part);
    if (keep_empty || !part.empty()) out.push_back(std::move(part));
    if (d == std::string::npos) break;
    pos = d + 1;
  }
  return true;
}

bool split(const std::wstring& text, wchar_t delimiter, std::vector<std::wstring>& out,
           bool trim_parts, bool keep_empty) {
  out.clear();
  if (text.empty()) return false;
  size_t pos = 0;
  for (;;) {
    const size_t d = text.find(delimiter, pos);
    const size_t end = d == std::wstring::npos ? text.size() : d;
    std::wstring part(text, pos, end - pos);
    if (trim_parts) trim(part);
    if (keep_empty || !part.empty()) out.push_back(std::move(part));
    if (d == std::wstring::npos) break;
    pos = d + 1;
  }
  return true;
}

bool split_lines(const std::vector<uint8_t>& data, std::vector<std::string>& out) {
  out.clear();
  if (data.empty()) return false;
  const uint8_t* p = data.data();
  const size_t n = data.size();
  size_t pos = 0;
  while (pos < n) {
    const void* lf = std::memchr(p + pos, '\n', n - pos);
    const size_t end = lf ? size_t(static_cast<const uint8_t*>(lf) - p) : n;
    size_t from = pos;
    while (from < end && p[from] == '\r') ++from;
    std::string line(reinterpret_cast<const char*>(p + from), end - from);
    trim(line);
    out.push_back(std::move(line));
    if (!lf) break;
    pos = end + 1;
  }
  return !out.empty();
}

// ---- Numbers from text ---------------------------------------------------

bool parse_uint32(const std::string& text, uint32_t& out) {
  out = 0;
  if (text.empty()) return false;
  std::string t = text;
  trim(t);
  to_lower(t);
  if (t.size() >= 2 && t[1] == 'x') {
    out = uint32_t(std::strtoul(t.c_str() + 2, nullptr, 16));
    return true;
  }
  if (!t.empty() && t[0] == 'x') {
    out = uint32_t(std::strtoul(t.c_str() + 1, nullptr, 16));
    return true;
  }
  if (!t.empty() && t[0] == 'o') {
    out = uint32_t(std::strtoul(t.c_str() + 1, nullptr, 8));
    return true;
  }
  // Decimal is decided on the text as given: leading blanks don't qualify.
  if (is_sign_or_digit(text[0])) {
    out = uint32_t(std::strtoul(text.c_str(), nullptr, 10));
    return true;
  }
  if (text.size() == 3 && text[0] == '\'' && text[2] == '\'') {
    out = uint8_t(text[1]);
    return true;
  }
  return false;
}

bool parse_uint64(const std::string& text, uint64_t& out) {
  out = 0;
  if (text.size() > 30) return false;
  size_t i = 0;
  while (i < text.size() && text[i] == ' ') ++i;
  if (i == text.size()) return false;
  if (text.find(' ', i) != std::string::npos) return false;
  const size_t len = text.size() - i;
  const char* t = text.c_str() + i;
  std::ios_base::fmtflags base = std::ios_base::dec;
  size_t from = 0;
  size_t max_digits = 20;
  if (len > 2 && (t[1] == 'x' || t[1] == 'X')) {
    base = std::ios_base::hex;
    from = 2;
    max_digits = 16;
  } else if (len > 2 && (t[0] == 'x' || t[0] == 'X')) {
    base = std::ios_base::hex;
    from = 1;
    max_digits = 16;
  } else if (t[0] == 'o' || t[0] == 'O') {
    base = std::ios_base::oct;
    from = 1;
    max_digits = 22;
  }
  if (len - from > max_digits) return false;
  std::istringstream in(std::string(t + from, len - from));
  in.imbue(std::locale::classic());
  in.setf(base, std::ios_base::basefield);
  unsigned long long v = 0;
  if (in >> v) out = v;
  return true;
}

bool parse_int32(const std::string& text, int32_t& out) {
  out = 0;
  std::string t = text;
  if (!trim(t)) return false;
  to_lower(t);
  const size_t x = t.find('x');
  if (x != std::string::npos) {
    out = int32_t(uint32_t(std::strtoul(t.c_str() + x + 1, nullptr, 16)));
    return true;
  }
  const size_t o = t.find('o');
  if (o != std::string::npos) {
    out = int32_t(uint32_t(std::strtoul(t.c_str() + o + 1, nullptr, 8)));
    return true;
  }
  if (!is_sign_or_digit(t[0])) return false;
  // Low 32 bits of the long value, as atoi gives them.
  out = int32_t(uint32_t(static_cast<unsigned long>(std::strtol(t.c_str(), nullptr, 10))));
  return true;
}

// ---- Identifiers ---------------------------------------------------------

void append_guid_text(std::string& out, const uint8_t* guid) {
  char b[36];
  write_guid_text(b, guid);
  out.append(b, sizeof b);
}

void write_guid_text(char* b, const uint8_t* guid) {
  const uint32_t d1 = uint32_t(guid[0]) | (uint32_t(guid[1]) << 8) | (uint32_t(guid[2]) << 16) |
                      (uint32_t(guid[3]) << 24);
  const uint32_t d2 = uint32_t(guid[4]) | (uint32_t(guid[5]) << 8);
  const uint32_t d3 = uint32_t(guid[6]) | (uint32_t(guid[7]) << 8);
  put_hex(b, d1, 8);
  b[8] = '-';
  put_hex(b + 9, d2, 4);
  b[13] = '-';
  put_hex(b + 14, d3, 4);
  b[18] = '-';
  put_hex(b + 19, guid[8], 2);
  put_hex(b + 21, guid[9], 2);
  b[23] = '-';
  for (int i = 0; i < 6; ++i) put_hex(b + 24 + 2 * i, guid[10 + i], 2);
}

void append_utf8(std::string& out, uint32_t cp) {
  if (cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) cp = 0xFFFD;
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

std::string guid_text(const uint8_t* guid) {
  std::string s;
  s.reserve(36);
  append_guid_text(s, guid);
  return s;
}

bool parse_guid(const std::string& text, std::vector<uint8_t>& out) {
  if (text.size() < 22) return false;
  out.assign(16, 0);
  // Read as a hexadecimal stream: a malformed text (braces included) stops
  // the stream and leaves the remaining words zero.
  std::istringstream in(text);
  in.imbue(std::locale::classic());
  in.setf(std::ios_base::hex, std::ios_base::basefield);
  uint32_t d1 = 0;
  uint16_t d2 = 0, d3 = 0, d4 = 0;
  unsigned long long d5 = 0;
  char sep = 0;
  in >> d1 >> sep >> d2 >> sep >> d3 >> sep >> d4 >> sep >> d5;
  for (int i = 0; i < 4; ++i) out[i] = uint8_t(d1 >> (8 * i));
  out[4] = uint8_t(d2);
  out[5] = uint8_t(d2 >> 8);
  out[6] = uint8_t(d3);
  out[7] = uint8_t(d3 >> 8);
  out[8] = uint8_t(d4 >> 8);
  out[9] = uint8_t(d4);
  // The last group is twelve digits: six bytes in text order.
  for (int i = 0; i < 6; ++i) out[10 + i] = uint8_t(d5 >> (8 * (5 - i)));
  return true;
}

std::string format_sid(const uint8_t* sid, uint32_t length) {
  std::string s;
  if (!sid || length < 12) return s;
  const uint32_t subs = sid[1];
  if (length < (subs + 2) * 4) return s;
  s.reserve(16 + subs * 11);
  s += "S-";
  s += std::to_string(sid[0]);
  s += '-';
  s += std::to_string(sid[7]);
  for (uint32_t i = 0; i < subs; ++i) {
    const uint8_t* p = sid + 8 + 4 * size_t(i);
    const uint32_t v = uint32_t(p[0]) | (uint32_t(p[1]) << 8) | (uint32_t(p[2]) << 16) |
                       (uint32_t(p[3]) << 24);
    s += '-';
    s += std::to_string(v);
  }
  return s;
}

// ---- Scanning binary data -----------------------------------------------

namespace {

inline bool counts_as_text(uint8_t b, bool allow_line_controls) {
  if (b >= 32 && b <= 126) return true;
  return allow_line_controls && (b == '\r' || b == '\n' || b == '\t');
}

inline bool is_leading_punctuation(uint8_t b) {
  return (b >= 32 && b <= 46) || (b >= 58 && b <= 64) || (b >= 92 && b <= 96) ||
         (b >= 124 && b <= 126);
}

}  // namespace

void ascii_runs(const uint8_t* data, uint32_t length, uint32_t min_length,
                std::vector<std::string>& runs, std::vector<run_position>& positions,
                bool allow_line_controls, bool skip_leading_punctuation) {
  runs.clear();
  positions.clear();
  if (!data) return;
  uint32_t start = 0, len = 0;
  bool visible = false;  // holds a character other than blank, CR and LF
  auto finish = [&](bool need_visible) {
    if (len > 0 && len >= min_length && (visible || !need_visible)) {
      runs.emplace_back(reinterpret_cast<const char*>(data + start), len);
      positions.push_back({start, len});
    }
    len = 0;
    visible = false;
  };
  for (uint32_t i = 0; i < length; ++i) {
    const uint8_t b = data[i];
    if (!counts_as_text(b, allow_line_controls)) {
      finish(true);
      continue;
    }
    if (len == 0) {
      if (b == ' ' || (skip_leading_punctuation && is_leading_punctuation(b))) continue;
      start = i;
    }
    ++len;
    if (b != ' ' && b != '\r' && b != '\n') visible = true;
  }
  finish(false);
}

void utf16_runs(const uint8_t* data, uint32_t length, uint32_t min_length,
                std::vector<std::string>& runs, std::vector<run_position>& positions,
                bool allow_line_controls, bool skip_leading_punctuation) {
  runs.clear();
  positions.clear();
  if (!data) return;
  uint32_t start = 0, len = 0;
  auto finish = [&]() {
    if (len > 0 && len >= min_length) {
      std::string s(len, '\0');
      for (uint32_t k = 0; k < len; ++k) s[k] = char(data[start + 2 * size_t(k)]);
      runs.push_back(std::move(s));
      positions.push_back({start, len});
    }
    len = 0;
  };
  uint32_t i = 0;
  // A position needs its high byte too, so the scan stops one short of the end.
  while (i < length && length - i >= 2) {
    const uint8_t b = data[i];
    if (data[i + 1] != 0 || !counts_as_text(b, allow_line_controls)) {
      finish();
      i += 1;  // may fall into step on an odd offset
      continue;
    }
    if (len == 0) {
      if (b == ' ' || (skip_leading_punctuation && is_leading_punctuation(b))) {
        i += 2;
        continue;
      }
      start = i;
    }
    ++len;
    i += 2;
  }
  finish();
}

namespace {

// What the run searches ask of a byte, in one table per setting: whether it
// counts as text, whether a run may not start with it, and whether it is
// something besides blank, CR and LF.
enum : uint8_t { byte_text = 1, byte_lead_skip = 2, byte_visible = 4 };

struct byte_classes {
  uint8_t of[4][256];
  constexpr byte_classes() : of() {
    for (int setting = 0; setting < 4; ++setting) {
      const bool controls = setting & 1;
      const bool punct = setting & 2;
      for (int v = 0; v < 256; ++v) {
        const uint8_t b = uint8_t(v);
        const bool text = (b >= 32 && b <= 126) || (controls && (b == '\r' || b == '\n' || b == '\t'));
        const bool lead = (b >= 32 && b <= 46) || (b >= 58 && b <= 64) || (b >= 92 && b <= 96) ||
                          (b >= 124 && b <= 126);
        uint8_t c = 0;
        if (text) c |= byte_text;
        if (b == ' ' || (punct && lead)) c |= byte_lead_skip;
        if (b != ' ' && b != '\r' && b != '\n') c |= byte_visible;
        of[setting][v] = c;
      }
    }
  }
};
constexpr byte_classes kByteClasses;

}  // namespace

void text_runs(const uint8_t* data, uint32_t length, uint32_t ascii_min, uint32_t utf16_min,
               bool allow_line_controls, bool skip_leading_punctuation,
               std::vector<run_position>& ascii, std::vector<run_position>& utf16) {
  ascii.clear();
  utf16.clear();
  if (!data) return;
  const uint8_t* classes =
      kByteClasses.of[(allow_line_controls ? 1 : 0) | (skip_leading_punctuation ? 2 : 0)];
  // The ASCII search looks at every byte. The UTF-16 search looks at the
  // byte at `wide_next` and the one after it, and moves on by 2 after a
  // character and by 1 otherwise; it ends when fewer than 2 bytes are left.
  uint32_t a_start = 0, a_len = 0;
  bool visible = false;
  uint32_t w_start = 0, w_len = 0;
  uint32_t wide_next = 0;
  const uint32_t wide_end = length >= 2 ? length - 1 : 0;  // first position it can't read
  for (uint32_t i = 0; i < length; ++i) {
    const uint8_t c = classes[data[i]];
    if (!(c & byte_text)) {
      if (a_len > 0 && a_len >= ascii_min && visible) ascii.push_back({a_start, a_len});
      a_len = 0;
      visible = false;
    } else if (a_len != 0 || !(c & byte_lead_skip)) {
      if (a_len == 0) a_start = i;
      ++a_len;
      visible |= (c & byte_visible) != 0;
    }
    if (i != wide_next || i >= wide_end) continue;
    if (data[i + 1] != 0 || !(c & byte_text)) {
      if (w_len > 0 && w_len >= utf16_min) utf16.push_back({w_start, w_len});
      w_len = 0;
      wide_next = i + 1;
      continue;
    }
    wide_next = i + 2;
    if (w_len == 0) {
      if (c & byte_lead_skip) continue;
      w_start = i;
    }
    ++w_len;
  }
  if (a_len > 0 && a_len >= ascii_min) ascii.push_back({a_start, a_len});
  if (w_len > 0 && w_len >= utf16_min) utf16.push_back({w_start, w_len});
}

bool decode_varint(uint64_t& out, const uint8_t* data, size_t length) {
  out = 0;
  if (!data || length == 0) return false;
  uint64_t v = 0;
  for (size_t i = 0; i < 9; ++i) {
    if (i >= length) return false;  // the number runs past the data
    const uint8_t b = data[i];
    if (i == 8) {
      v = (v << 8) | b;  // the ninth byte carries eight bits
      break;
    }
    v = (v << 7) | (b & 0x7F);
    if ((b & 0x80) == 0) break;
  }
  out = v;
  return true;
}

size_t read_counted_string(std::string& out, const uint8_t* data, size_t length) {
  out.clear();
  size_t len = 0;
  const size_t head = read_counted_number(data, length, len);
  if (head == 0) return 0;
  if (len == 0 || len > length - head) return head;
  out.assign(reinterpret_cast<const char*>(data + head), len);
  return head + len;
}

size_t read_counted_strings(std::vector<std::string>& out, const uint8_t* data, size_t length) {
  out.clear();
  size_t count = 0;
  size_t consumed = read_counted_number(data, length, count);
  if (consumed == 0) return 0;
  if (consumed == length || count > length - consumed) return consumed;
  out.resize(count);
  for (size_t i = 0; i < count && consumed < length; ++i) {
    const size_t r = read_counted_string(out[i], data + consumed, length - consumed);
    if (r == 0) break;
    consumed += r;
  }
  return consumed;
}

void flatten_line_breaks(std::string& text) {
  if (text.empty()) return;
  const size_t first_lf = text.find('\n');
  if (first_lf == std::string::npos) {
    if (text.find('\r') == std::string::npos) return;
    // No LF anywhere: every CR stands alone.
    thread_local std::string marked;
    marked.clear();
    for (char c : text) {
      if (c == '\r') marked += "[CR]"; else marked.push_back(c);
    }
    text.swap(marked);
    return;
  }
  // The LFs are taken left to right; a CR is only consumed by an LF beside
  // it, so a lone CR in a text that has LFs stays as it is. `copied` is where
  // the text not yet copied starts.
  thread_local std::string marked;
  marked.clear();
  size_t copied = 0;
  for (size_t i = first_lf; i != std::string::npos; i = text.find('\n', i + 1)) {
    if (i > 0 && text[i - 1] == '\r') {
      if (i - 1 >= copied) {
        marked.append(text, copied, i - 1 - copied);
      } else {
        // The CR before this LF already went into an "[LFCR]": the LF
        // itself is copied through.
        marked.append(text, copied, i + 1 - copied);
      }
      marked += "[CRLF]";
      copied = i + 1;
    } else if (i + 1 < text.size() && text[i + 1] == '\r') {
      marked.append(text, copied, i - copied);
      marked += "[LFCR]";
      copied = i + 2;
    } else {
      marked.append(text, copied, i - copied);
      marked += "[LF]";
      copied = i + 1;
    }
  }
  if (copied < text.size()) marked.append(text, copied, std::string::npos);
  text.swap(marked);
}

}  // namespace qv
