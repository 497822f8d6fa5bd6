// The report writer. A row is composed into one reused line buffer and handed
// to the stream with a single write: numbers and padding are written by hand,
// and text clean-up (separator character, line breaks) only runs when the
// text holds the characters concerned.

#include "report/report_writer.h"

#include <bit>
#include <cstring>

#include "report/report_options.h"
#include "support/qv_string.h"
#include "support/qv_time.h"
#include "support/simd.h"

using report_detail::cell_at;
using report_detail::cell_view;
using report_detail::is_two_cell;
using report_detail::prepare_cell;

namespace {

constexpr char kHexDigits[] = "0123456789abcdef";
constexpr uint64_t kTicksPerSecond = 10000000;
constexpr uint64_t kTicksPerDay = kTicksPerSecond * 86400;
// Padding is never wider than this, whatever width a column claims.
constexpr uint64_t kMaxPad = 65535;

std::string& line_buffer() {
  thread_local std::string line = [] {
    std::string s;
    s.reserve(8192);
    return s;
  }();
  return line;
}

// Padding of a usual column goes in as one fixed-size fill.
template <class Text>
void put_blanks(Text& out, uint64_t n) {
  if (n > kMaxPad) n = kMaxPad;
  out.append(static_cast<size_t>(n), ' ');
}

// Pads what was appended since `start` with blanks on the right up to `width`.
template <class Text>
void pad_left_aligned(Text& out, size_t start, uint64_t width) {
  const size_t len = out.size() - start;
  if (len < width) put_blanks(out, width - len);
}

// Pads what was appended since `start` with blanks on the left up to `width`.
template <class Text>
void pad_right_aligned(Text& out, size_t start, uint64_t width) {
  const size_t len = out.size() - start;
  if (len >= width) return;
  uint64_t n = width - len;
  if (n > kMaxPad) n = kMaxPad;
  out.insert(start, static_cast<size_t>(n), ' ');
}

template <class Text>
void pad_centred(Text& out, size_t start, uint64_t width) {
  const size_t len = out.size() - start;
  if (len >= width) return;
  uint64_t n = width - len;
  if (n > kMaxPad) n = kMaxPad;
  const uint64_t front = n / 2;
  out.insert(start, static_cast<size_t>(front), ' ');
  put_blanks(out, n - front);
}

void put_decimal(qv::line_text& out, uint64_t v) {
  char buf[20];
  size_t at = sizeof(buf);
  do {
    buf[--at] = static_cast<char>('0' + v % 10);
    v /= 10;
  } while (v != 0);
  out.append(buf + at, sizeof(buf) - at);
}

// Lower-case hexadecimal, zero-filled to `digits` (at most kMaxPad).
void put_hex(qv::line_text& out, uint64_t v, uint64_t digits) {
  char buf[16];
  size_t at = sizeof(buf);
  do {
    buf[--at] = kHexDigits[v & 0xF];
    v >>= 4;
  } while (v != 0);
  const size_t n = sizeof(buf) - at;
  if (digits > kMaxPad) digits = kMaxPad;
  if (digits > n) out.append(static_cast<size_t>(digits - n), '0');
  out.append(buf + at, n);
}

// The two hexadecimal digits of every byte value.
struct hex_pair_table {
  char pairs[256][2];
  constexpr hex_pair_table() : pairs() {
    for (int i = 0; i < 256; ++i) {
      pairs[i][0] = "0123456789abcdef"[i >> 4];
      pairs[i][1] = "0123456789abcdef"[i & 0xF];
    }
  }
};
constexpr hex_pair_table kHexPairs;

// The widest zero fill a number cell writes in place.
constexpr uint64_t kMaxInPlaceDigits = 64;

// Decimal of `v` ending at `end`; returns its first character.
char* decimal_backwards(char* end, uint64_t v) {
  char* p = end;
  do {
    *--p = static_cast<char>('0' + v % 10);
    v /= 10;
  } while (v != 0);
  return p;
}

void put_two(char* p, uint32_t v) {
  p[0] = static_cast<char>('0' + v / 10 % 10);
  p[1] = static_cast<char>('0' + v % 10);
}

// Hexadecimal digits of a number type when no width applies.
uint64_t type_digits(uint16_t type) {
  switch (type) {
    case rt_u8: return 2;
    case rt_u16: return 4;
    case rt_u32:
    case rt_u64: return 8;
    default: return 0;
  }
}

bool is_time_type(uint16_t type) {
  return type == rt_filetime || (type >= rt_unix_two && type <= rt_safari) ||
         type == rt_filetime_two;
}

// The clock kind of a time cell type.
qv::type_time time_kind_of(uint16_t type) {
  switch (type) {
    case rt_unix_two:
    case rt_unix: return qv::type_unix;
    case rt_chrome_two:
    case rt_chrome: return qv::type_chrome;
    case rt_firefox_two:
    case rt_firefox: return qv::type_firefox3;
    case rt_safari_two:
    case rt_safari: return qv::type_safari;
    default: return qv::type_filetime;
  }
}

// The storing-time rules of text cells.
void finish_text(std::string& t, uint32_t flags) {
  if (flags == rf_flatten) flatten_line_breaks(t);
  if (flags & rf_quote) {
    // A text that already opens a quoted structure stays as it is.
    if (!(t.size() > 2 && t[0] == '{' && t[1] == '"')) {
      t.insert(t.begin(), '"');
      t.push_back('"');
    }
  }
}

// Whether every character of the separator but blanks is the separator
// character, and that character is replaced in texts: then a cleaned text
// can't hold the separator, and only a quote in front asks for quotes.
bool separator_always_replaced(const report_options& o) {
  const char from = o.separator_char, to = o.sub_separator_char;
  if (from == 0 || to == 0 || from == to) return false;
  for (char ch : o.separator) {
    if (ch != ' ' && ch != from) return false;
  }
  return true;
}

// Everything the writer needs from the option record for one line.
struct line_settings {
  explicit line_settings(const report_options& opts)
      : line_settings(opts, opts.format_csv || opts.format_csvgen || opts.format_l2t,
                      separator_always_replaced(opts)) {}
  line_settings(const report_options& opts, bool csv_form, bool replaced)
      : o(opts), csv(csv_form), separator_replaced(replaced) {}
  const report_options& o;
  bool csv;  // -csv or -csvgen: text fields are quoted where they must be
  bool separator_replaced;
};

uint64_t column_width(const report_options& o, size_t i) {
  return i < o.column_table.size() ? o.column_table[i].width : 0;
}

// Date and time text of a stamp of any clock kind.
bool render_time(uint64_t value, uint16_t type, const qv::datetime_format& fmt,
                 std::string& date, std::string& time) {
  thread_local filetime_text cache;
  date.clear();
  time.clear();
  const qv::type_time kind = time_kind_of(type);
  if (kind == qv::type_filetime) {
    if (!cache.set(value, fmt)) return false;
    cache.append_date(date);
    cache.append_time(time);
    return true;
  }
  const qv::time t(value, kind);
  if (!t.is_valid()) return false;
  qv::format_datetime(date, time, t, fmt);
  return true;
}

// A one-cell time: a leading blank under pad_with_blanks, then date, one
// blank and time, left-aligned in the column. An invalid stamp leaves a
// blank for each half (none under -no_whitespace).
void write_time_cell(qv::line_text& out, const cell_view& c, uint64_t w, const report_options& o) {
  if (time_kind_of(c.type) == qv::type_filetime) {
    // The usual stamp: date and time go straight into the line.
    thread_local filetime_text stamp;
    if (stamp.set(c.number, o.datetime_format)) {
      if (!o.no_whitespace && o.pad_with_blanks) out.push_back(' ');
      const size_t start = out.size();
      stamp.append_date(out);
      out.push_back(' ');
      stamp.append_time(out);
      if (!o.no_whitespace) pad_left_aligned(out, start, w);
      return;
    }
  }
  thread_local std::string date, time;
  if (!render_time(c.number, c.type, o.datetime_format, date, time) && !o.no_whitespace) {
    date.assign(1, ' ');
    time.assign(1, ' ');
  }
  if (!o.no_whitespace && o.pad_with_blanks) out.push_back(' ');
  const size_t start = out.size();
  out += date;
  out.push_back(' ');
  out += time;
  if (!o.no_whitespace) pad_left_aligned(out, start, w);
}

// A two-cell time: the date in this column, the time in the next.
void write_time_pair(qv::line_text& out, const cell_view& c, uint64_t w, uint64_t w_next,
                     const report_options& o) {
  thread_local std::string date, time;
  if (!render_time(c.number, c.type, o.datetime_format, date, time) && !o.no_whitespace) {
    date.assign(1, ' ');
    time.assign(1, ' ');
  }
  if (!o.no_whitespace && o.pad_with_blanks) out.push_back(' ');
  size_t start = out.size();
  out += date;
  if (!o.no_whitespace) pad_left_aligned(out, start, w);
  out += o.separator;
  start = out.size();
  out += time;
  if (!o.no_whitespace) pad_left_aligned(out, start, w_next);
}

void write_ticks_cell(qv::line_text& out, const cell_view& c, uint64_t w, const report_options& o) {
  if (o.pad_with_blanks) out.push_back(' ');
  const size_t start = out.size();
  if (o.base16 || c.flags == rf_hex) {
    out += "0x";
    put_hex(out, c.number, 16);
  } else {
    put_decimal(out, c.number);
  }
  if (!o.no_whitespace) pad_left_aligned(out, start, w);
}

// The general path of number cells: composed in the line, then padded.
void write_number_cell_general(qv::line_text& out, const cell_view& c, uint64_t w, uint64_t prefix,
                               const report_options& o) {
  const size_t start = out.size();
  const uint64_t field = prefix < w ? w - prefix : 0;
  const uint64_t v = c.number;
  if ((c.flags & rf_zero_blank) && v == 0) {
    // Prints as nothing; the blanks keep later columns in place.
    if (!o.no_whitespace) put_blanks(out, field);
    return;
  }
  if (c.flags & rf_hex) {
    out += "0x";
    put_hex(out, v, (!o.no_whitespace && prefix + 1 < w) ? w - prefix - 2 : 0);
  } else if (c.flags & rf_hex_and_dec) {
    out += "0x";
    put_hex(out, v, 0);
    out += " [";
    put_decimal(out, v);
    out.push_back(']');
  } else if (c.flags & rf_hex_bare) {
    put_hex(out, v, type_digits(c.type));
  } else if ((c.flags & rf_decimal) || !o.base16) {
    put_decimal(out, v);
  } else {
    out += "0x";
    uint64_t digits = type_digits(c.type);
    if (!o.no_whitespace && w >= prefix + 2) digits = w - prefix - 2;
    put_hex(out, v, digits);
  }
  if (!o.no_whitespace) pad_right_aligned(out, start, field);
}

// Hexadecimal digits of `v` (at least one).
size_t hex_length(uint64_t v) {
  return v == 0 ? 1 : static_cast<size_t>((std::bit_width(v) + 3) / 4);
}

size_t decimal_length(uint64_t v) {
  size_t n = 1;
  while (v >= 10) {
    v /= 10;
    ++n;
  }
  return n;
}

// Writes the hexadecimal digits of `v` backwards to end at `end`, zero
// filled to `digits` (at most kMaxInPlaceDigits); returns the first character
// written. The zeros go first, in whole 16-byte stores from the first of
// them that may run up to 15 bytes past `end`, into the room the line keeps
// behind its end; the digits go over them.
char* put_hex_backwards(char* end, uint64_t v, size_t digits) {
  static constexpr char kZeros[16] = {'0', '0', '0', '0', '0', '0', '0', '0',
                                      '0', '0', '0', '0', '0', '0', '0', '0'};
  char* const first = end - digits;
  for (char* z = first; z < end; z += 16) std::memcpy(z, kZeros, 16);
  char* p = end;
  while (v >= 0x100) {
    const char* pair = kHexPairs.pairs[v & 0xFF];
    *--p = pair[1];
    *--p = pair[0];
    v >>= 8;
  }
  if (v >= 0x10) {
    const char* pair = kHexPairs.pairs[v];
    *--p = pair[1];
    *--p = pair[0];
  } else {
    *--p = kHexDigits[v];
  }
  return p < first ? p : first;
}

// Number cells: the cell's room is made at once, blanks in front, and the
// digits are written into it in place; no text is composed on the side to
// be copied in. Zero fills wider than kMaxInPlaceDigits (only from odd column
// widths) and the hexadecimal-and-decimal form take the general path.
void write_number_cell(qv::line_text& out, const cell_view& c, uint64_t w, uint64_t prefix,
                       const report_options& o) {
  const uint64_t field = prefix < w ? w - prefix : 0;
  const uint64_t v = c.number;
  if ((c.flags & rf_zero_blank) && v == 0) {
    if (!o.no_whitespace) put_blanks(out, field);
    return;
  }
  enum { hex_0x, hex_bare, decimal } form;
  uint64_t digits = 0;
  if (c.flags & rf_hex) {
    form = hex_0x;
    digits = (!o.no_whitespace && prefix + 1 < w) ? w - prefix - 2 : 0;
  } else if (c.flags & rf_hex_and_dec) {
    return write_number_cell_general(out, c, w, prefix, o);
  } else if (c.flags & rf_hex_bare) {
    form = hex_bare;
    digits = type_digits(c.type);
  } else if ((c.flags & rf_decimal) || !o.base16) {
    form = decimal;
  } else {
    form = hex_0x;
    digits = type_digits(c.type);
    if (!o.no_whitespace && w >= prefix + 2) digits = w - prefix - 2;
  }
  if (digits > kMaxInPlaceDigits) return write_number_cell_general(out, c, w, prefix, o);
  size_t length;
  if (form == decimal) {
    length = decimal_length(v);
  } else {
    const size_t significant = hex_length(v);
    length = (digits > significant ? static_cast<size_t>(digits) : significant) + (form == hex_0x ? 2 : 0);
  }
  size_t blanks = 0;
  if (!o.no_whitespace && length < field) {
    const uint64_t n = field - length;
    blanks = static_cast<size_t>(n > kMaxPad ? kMaxPad : n);
  }
  const size_t at = out.size();
  out.append(blanks + length, ' ');
  char* const end = out.data() + at + blanks + length;
  if (form == decimal) {
    decimal_backwards(end, v);
  } else {
    char* p = put_hex_backwards(end, v, static_cast<size_t>(digits));
    if (form == hex_0x) {
      *--p = 'x';
      *--p = '0';
    }
  }
}

void write_text_cell(qv::line_text& out, const cell_view& c, uint64_t w, uint64_t prefix,
                     const line_settings& s) {
  const report_options& o = s.o;
  const size_t start = out.size();
  if (c.render) {
    c.render(out, c.source);
    if ((c.flags & rf_cut) && out.size() - start > c.max_text) out.resize(start + c.max_text);
  } else {
    size_t n = c.text.size();
    if ((c.flags & rf_cut) && n > c.max_text) n = c.max_text;
    out.append(c.text.data(), n);
  }
  const char absent = clean_field(out, start, o.separator_char, o.sub_separator_char);
  const uint64_t field = (!o.no_whitespace && prefix <= w) ? w - prefix : 0;
  if (s.csv) {
    // A text stored between quotes (-enable_quoted_csv_fields) is a quoted
    // field already, but for its own quotes, which are doubled now.
    const size_t len = out.size() - start;
    if ((c.flags & rf_quote) && len >= 2 && out[start] == '"' && out.back() == '"') {
      out.pop_back();
      out.erase(start, 1);
      quote_csv_field(out, start, field);
      return;
    }
    // The separator can't stand in a text cleaned of its one character.
    const bool needs = s.separator_replaced && absent == o.separator_char
                           ? len != 0 && out[start] == '"'
                           : csv_field_needs_quotes(out, start, o.separator, absent);
    if (needs) {
      quote_csv_field(out, start, field);
      return;
    }
  }
  if (!o.no_whitespace && prefix <= w) {
    if (c.flags & rf_centre) {
      pad_centred(out, start, field);
    } else if (c.flags & rf_right) {
      pad_right_aligned(out, start, field);
    } else {
      pad_left_aligned(out, start, field);
    }
  }
}

void write_bytes_cell(qv::line_text& out, const cell_view& c, uint64_t w, const report_options& o) {
  const size_t start = out.size();
  if (c.type == rt_hex_pairs) {
    // Pairs between blanks; a value longer than max_text bytes is cut and
    // marked with "...".
    const size_t n = c.bytes.size() > c.max_text ? c.max_text : c.bytes.size();
    for (size_t i = 0; i < n; ++i) {
      if (i != 0) out.push_back(' ');
      out.push_back(kHexDigits[c.bytes[i] >> 4]);
      out.push_back(kHexDigits[c.bytes[i] & 0xF]);
    }
    if (n < c.bytes.size()) out += "...";
  } else {
    for (uint8_t b : c.bytes) {
      out.push_back(kHexDigits[b >> 4]);
      out.push_back(kHexDigits[b & 0xF]);
    }
  }
  if (!o.no_whitespace) pad_left_aligned(out, start, w);
}

// Renders the cell `c` of column `i` of a row of `count` cells (and, for a
// two-cell time, the next column as well); returns the index of the last
// column it used.
size_t render_value(qv::line_text& out, const cell_view& c, size_t i, size_t count, const line_settings& s) {
  const report_options& o = s.o;
  const uint64_t w = column_width(o, i);
  uint64_t prefix = 0;
  if (c.flags & rf_arrow) {
    out += "->";
    prefix += 2;
  }
  if (c.flags & rf_blank) {
    out.push_back(' ');
    prefix += 1;
  }
  switch (c.type) {
    case rt_text:
      write_text_cell(out, c, w, prefix, s);
      break;
    case rt_raw_text:
      out += c.text;
      break;
    case rt_guid: {
      const size_t start = out.size();
      if (c.bytes.size() >= 16) append_cached_guid_text(out, c.bytes.data());
      if (!o.no_whitespace) pad_left_aligned(out, start, w);
      break;
    }
    case rt_u8:
    case rt_u16:
    case rt_number:
    case rt_u32:
    case rt_u64:
      write_number_cell(out, c, w, prefix, o);
      break;
    case rt_ticks:
      write_ticks_cell(out, c, w, o);
      break;
    case rt_hex_pairs:
    case rt_hex:
      write_bytes_cell(out, c, w, o);
      break;
    default:
      if (is_two_cell(c.type)) {
        if (i + 1 < count) {
          write_time_pair(out, c, w, column_width(o, i + 1), o);
          return i + 1;
        }
        write_time_cell(out, c, w, o);
      } else if (is_time_type(c.type)) {
        write_time_cell(out, c, w, o);
      }
      // Any other type writes nothing but its separator.
      break;
  }
  return i;
}

cell_view view_of(const report_cell& c) {
  return cell_view{c.type, c.max_text, c.flags, c.number, c.text, c.bytes, c.render, c.source};
}

// Renders cell `i` of the row (and, for a two-cell time, the next one);
// returns the index of the last cell it used.
size_t render_cell(qv::line_text& out, const report_row& row, size_t i, const line_settings& s) {
  return render_value(out, view_of(row.cells[i]), i, static_cast<size_t>(row.count), s);
}

void write_multiline_row(std::ostream& out, const report_row& row, report_options& o,
                         const line_settings& s) {
  if (o.header_row_pending) {
    o.header_row_pending = false;
    uint64_t longest = 0;
    for (report_cell& col : o.column_table) {
      if (col.type == rt_no_column) continue;
      col.text.push_back(':');
      if (col.text.size() > longest) longest = col.text.size();
    }
    for (report_cell& col : o.column_table) {
      if (col.type != rt_no_column) col.width = longest + 1;
    }
  }
  qv::line_text line(line_buffer());
  const size_t count = static_cast<size_t>(row.count);
  for (size_t i = 0; i < count; ++i) {
    const report_cell* col = i < o.column_table.size() ? &o.column_table[i] : nullptr;
    if (!col || col->type != rt_raw_text) {
      const size_t start = line.size();
      if (col) line += col->text;
      pad_left_aligned(line, start, col ? col->width : 0);
    }
    const size_t last = render_cell(line, row, i, s);
    if (row.cells[i].type != rt_raw_text) line.push_back('\n');
    i = last;
  }
  line.push_back('\n');
  out.write(line.data(), static_cast<std::streamsize>(line.size()));
}

}  // namespace

void flatten_all_line_breaks(std::string& text) {
  if (text.find_first_of("\r\n") == std::string::npos) return;
  flatten_line_breaks(text);
  if (text.find_first_of("\r\n") == std::string::npos) return;
  thread_local std::string marked;
  marked.clear();
  for (char ch : text) {
    if (ch == '\n') marked += "[LF]";
    else if (ch == '\r') marked += "[CR]";
    else marked.push_back(ch);
  }
  text.swap(marked);
}

namespace {

// Every `from` of the `n` bytes at `p` becomes `to`; true when a line break
// is left among them. One pass, sixteen bytes at a time where the processor
// has the instructions for it, the last sixteen taken again from the end
// rather than one by one (doing either twice changes nothing).
bool replace_all(char* p, size_t n, char from, char to) {
#if defined(QUON_SSE2)
  if (n >= 16) {
    const __m128i froms = _mm_set1_epi8(from);
    const __m128i tos = _mm_set1_epi8(to);
    const __m128i lfs = _mm_set1_epi8('\n');
    const __m128i crs = _mm_set1_epi8('\r');
    __m128i breaks = _mm_setzero_si128();
    auto replace_block = [&](char* q) {
      __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(q));
      const __m128i hits = _mm_cmpeq_epi8(block, froms);
      block = _mm_or_si128(_mm_andnot_si128(hits, block), _mm_and_si128(hits, tos));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(q), block);
      breaks = _mm_or_si128(breaks, _mm_or_si128(_mm_cmpeq_epi8(block, lfs), _mm_cmpeq_epi8(block, crs)));
    };
    for (size_t i = 0; i + 16 <= n; i += 16) replace_block(p + i);
    if (n % 16 != 0) replace_block(p + n - 16);
    return _mm_movemask_epi8(breaks) != 0;
  }
#endif
  bool breaks = false;
  for (char* const end = p + n; p != end; ++p) {
    if (*p == from) *p = to;
    if (*p == '\n' || *p == '\r') breaks = true;
  }
  return breaks;
}

}  // namespace

// Texts of cells are mostly short, and three calls of the C library's search
// cost more than the look itself: sixteen bytes at a time, the last sixteen
// taken again from the end, and eight bytes at a time below that. Long texts
// go to the C library, whose searches use the widest instructions the
// processor has.
bool holds_any_of(const char* p, size_t n, char a, char b, char c) {
#if defined(QUON_SSE2)
  constexpr size_t kLong = 256;
  if (n >= 16 && n < kLong) {
    const __m128i va = _mm_set1_epi8(a), vb = _mm_set1_epi8(b), vc = _mm_set1_epi8(c);
    auto any = [&](const char* q) {
      const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(q));
      return _mm_movemask_epi8(_mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(block, va), _mm_cmpeq_epi8(block, vb)),
                                            _mm_cmpeq_epi8(block, vc))) != 0;
    };
    size_t i = 0;
    for (; i + 16 <= n; i += 16) {
      if (any(p + i)) return true;
    }
    return i < n && any(p + n - 16);
  }
#endif
  if (n >= 16) {
    return std::memchr(p, a, n) != nullptr || std::memchr(p, b, n) != nullptr || std::memchr(p, c, n) != nullptr;
  }
  if (n >= 8) {
    // Two words that overlap cover 8 to 15 bytes; a byte equal to `x` leaves
    // a zero byte in the word xor `x` repeated.
    constexpr uint64_t kOnes = 0x0101010101010101ULL;
    constexpr uint64_t kHighs = 0x8080808080808080ULL;
    auto zero_byte = [](uint64_t w) { return ((w - kOnes) & ~w & kHighs) != 0; };
    auto hit = [&](uint64_t w) {
      return zero_byte(w ^ (kOnes * static_cast<uint8_t>(a))) || zero_byte(w ^ (kOnes * static_cast<uint8_t>(b))) ||
             zero_byte(w ^ (kOnes * static_cast<uint8_t>(c)));
    };
    uint64_t first, last;
    std::memcpy(&first, p, 8);
    std::memcpy(&last, p + n - 8, 8);
    return hit(first) || hit(last);
  }
  for (size_t i = 0; i < n; ++i) {
    if (p[i] == a || p[i] == b || p[i] == c) return true;
  }
  return false;
}

namespace {

// The first part of clean_field, on the bytes themselves: every `from`
// becomes `to` (when both are set). True when a line break is left to mark.
bool replace_and_find_breaks(char* p, size_t n, char from, char to) {
  const bool replace = from != 0 && to != 0;
  if (!holds_any_of(p, n, replace ? from : '\n', '\n', '\r')) return false;
  if (replace) return replace_all(p, n, from, to);
  return true;  // no replacing: what was found is a line break
}

// Line breaks of what `out` holds from `start` on, marked.
void mark_breaks(std::string& out, size_t start) {
  thread_local std::string piece;
  piece.assign(out, start, std::string::npos);
  flatten_all_line_breaks(piece);
  out.resize(start);
  out += piece;
}

bool needs_quotes(std::string_view field, const std::string& separator, char absent) {
  if (field.empty()) return false;
  if (field[0] == '"') return true;
  for (char ch : separator) {
    if (ch != ' ' && ch != absent && field.find(ch) != std::string_view::npos) return true;
  }
  return false;
}

template <class Text>
void quote_field(Text& out, size_t start, uint64_t width) {
  if (start > out.size()) return;
  thread_local std::string piece;
  piece.assign(out.data() + start, out.size() - start);
  out.resize(start);
  out.push_back('"');
  for (char ch : piece) {
    if (ch == '"') out.push_back('"');
    out.push_back(ch);
  }
  // The closing quote takes the last place of the width.
  if (width > 0) pad_left_aligned(out, start, width - 1);
  out.push_back('"');
}

}  // namespace

char clean_field(std::string& out, size_t start, char from, char to) {
  if (start >= out.size()) return 0;
  if (replace_and_find_breaks(out.data() + start, out.size() - start, from, to)) {
    mark_breaks(out, start);
    // The marks of the line breaks are text of their own.
    return 0;
  }
  return from != 0 && to != 0 && to != from ? from : 0;
}

char clean_field(qv::line_text& out, size_t start, char from, char to) {
  if (start >= out.size()) return 0;
  if (replace_and_find_breaks(out.data() + start, out.size() - start, from, to)) {
    mark_breaks(out.settle(), start);
    out.resume();
    return 0;
  }
  return from != 0 && to != 0 && to != from ? from : 0;
}

bool csv_field_needs_quotes(const std::string& out, size_t start, const std::string& separator, char absent) {
  if (start >= out.size()) return false;
  return needs_quotes(std::string_view(out).substr(start), separator, absent);
}

bool csv_field_needs_quotes(const qv::line_text& out, size_t start, const std::string& separator, char absent) {
  if (start >= out.size()) return false;
  return needs_quotes(out.view().substr(start), separator, absent);
}

void quote_csv_field(std::string& out, size_t start, uint64_t width) { quote_field(out, start, width); }

void quote_csv_field(qv::line_text& out, size_t start, uint64_t width) { quote_field(out, start, width); }

bool init_report_row(report_row& row, int32_t count, uint32_t default_flags) {
  if (!init_report_row_for_all_cells(row, count, default_flags)) return false;
  for (int32_t i = 0; i < count; ++i) row.cells[static_cast<size_t>(i)].reset();
  return true;
}

bool init_report_row_for_all_cells(report_row& row, int32_t count, uint32_t default_flags) {
  row.valid = 0;
  row.count = 0;
  row.default_flags = default_flags;
  if (count <= 0 || count >= 256) return false;
  try {
    if (row.cells.size() < static_cast<size_t>(count)) row.cells.resize(static_cast<size_t>(count));
  } catch (const std::bad_alloc&) {
    return false;
  }
  row.count = count;
  row.valid = 1;
  return true;
}

std::string* begin_cell_text(report_row& row, int32_t index, uint16_t type, uint32_t flags) {
  report_cell* cell = nullptr;
  prepare_cell(row, index, type, flags, cell);
  return cell ? &cell->text : nullptr;
}

bool set_cell_rendered_text(report_row& row, int32_t index,
                            void (*render)(qv::line_text& out, const void* source),
                            const void* source) {
  // The rules that finish_text would apply to a stored text.
  if (row.default_flags & rf_quote) return false;
  if (row.default_flags == rf_flatten) return false;
  report_cell* cell = nullptr;
  prepare_cell(row, index, rt_text, 0, cell);
  if (!cell) return true;
  cell->render = render;
  cell->source = source;
  return true;
}

void finish_cell_text(report_row& row, int32_t index) {
  if (report_cell* cell = cell_at(row, index, 0)) finish_text(cell->text, cell->flags);
}

int32_t set_cell_text(report_row& row, int32_t index, const std::string& text, uint16_t type,
                      uint32_t flags) {
  report_cell* cell = nullptr;
  const int32_t used = prepare_cell(row, index, type, flags, cell);
  if (cell) {
    cell->text.assign(text);
    finish_text(cell->text, cell->flags);
  }
  return used;
}

int32_t set_cell_stream(report_row& row, int32_t index, const std::ostringstream& stream,
                        uint16_t type, uint32_t flags) {
  return set_cell_text(row, index, stream.str(), type, flags);
}

int32_t set_cell_bytes(report_row& row, int32_t index, const uint8_t* data, uint32_t length,
                       uint16_t type, uint32_t flags) {
  report_cell* cell = nullptr;
  const int32_t used = prepare_cell(row, index, type, flags, cell);
  if (cell && data != nullptr) cell->bytes.assign(data, data + length);
  return used;
}

void write_column_line(std::ostream& out, report_options& opts) {
  opts.header_row_pending = false;
  qv::line_text line(line_buffer());
  const size_t n = opts.column_table.size();
  for (size_t i = 0; i < n; ++i) {
    const report_cell& col = opts.column_table[i];
    // Time columns get the blank that their cells start with; this looks at
    // pad_with_blanks only, so a bare -csv keeps it.
    if ((col.type == rt_filetime || col.type == rt_chrome || col.type == 24) &&
        opts.pad_with_blanks) {
      line.push_back(' ');
    }
    const size_t start = line.size();
    line += col.text;
    if (!opts.no_whitespace) pad_left_aligned(line, start, col.width);
    if (i + 1 < n) line += opts.separator;
  }
  line.push_back('\n');
  out.write(line.data(), static_cast<std::streamsize>(line.size()));
}

void write_report_row(std::ostream& out, const report_row& row, report_options& opts) {
  if (!row.valid || row.count <= 0 || static_cast<size_t>(row.count) > row.cells.size()) return;
  const line_settings s(opts);
  if (opts.format_multiline) {
    write_multiline_row(out, row, opts, s);
    return;
  }
  if (opts.header_row_pending) write_column_line(out, opts);
  qv::line_text line(line_buffer());
  const size_t count = static_cast<size_t>(row.count);
  for (size_t i = 0; i < count; ++i) {
    i = render_cell(line, row, i, s);
    if (i + 1 < count) line += opts.separator;
  }
  line.push_back('\n');
  out.write(line.data(), static_cast<std::streamsize>(line.size()));
}

bool filetime_text::set(uint64_t ticks, const qv::datetime_format& fmt) {
  if (!qv::is_valid_filetime(ticks)) return false;
  const uint32_t key = static_cast<uint32_t>(static_cast<uint8_t>(fmt.separator)) |
                       static_cast<uint32_t>(fmt.date_flags) << 8 |
                       static_cast<uint32_t>(fmt.time_flags) << 16 |
                       static_cast<uint32_t>(fmt.reserved) << 24;
  const uint64_t day = ticks / kTicksPerDay;
  if (day != day_ || key != fmt_key_) {
    date_.clear();
    qv::append_date(date_, qv::time(ticks, qv::type_filetime), fmt);
    day_ = day;
    fmt_key_ = key;
    // An unset format renders as "yyyy-mm-dd" and "hh:mm:ss.xxx".
    digits_ = fmt.is_set() ? fmt.fraction_digits() : 3;
    if (digits_ > 9) digits_ = 9;
  }
  ticks_ = ticks;
  return true;
}

size_t filetime_text::time_size() const { return digits_ != 0 ? 9 + digits_ : 8; }

void filetime_text::write_time(char* p) const {
  // "hh:mm:ss" and the fraction, cut (never rounded) from the nanoseconds to
  // `digits_` places.
  static constexpr uint64_t kPowers[10] = {1,      10,      100,      1000,      10000,
                                           100000, 1000000, 10000000, 100000000, 1000000000};
  const uint64_t second = ticks_ / kTicksPerSecond;
  if (second != second_) {
    const uint32_t of_day = static_cast<uint32_t>(second % 86400);
    put_two(clock_, of_day / 3600);
    clock_[2] = ':';
    put_two(clock_ + 3, of_day / 60 % 60);
    clock_[5] = ':';
    put_two(clock_ + 6, of_day % 60);
    second_ = second;
  }
  std::memcpy(p, clock_, 8);
  if (digits_ != 0) {
    p[8] = '.';
    uint64_t v = ticks_ % kTicksPerSecond * 100 / kPowers[9 - digits_];
    for (uint32_t k = digits_; k > 0; --k) {
      p[8 + k] = static_cast<char>('0' + v % 10);
      v /= 10;
    }
  }
}

void filetime_text::append_time(std::string& out) const {
  const size_t at = out.size();
  out.append(time_size(), '0');
  write_time(out.data() + at);
}

void filetime_text::append_time(qv::line_text& out) const {
  const size_t n = time_size();
  write_time(out.room(n));
  out.advance(n);
}

// Rows repeat the same few GUIDs (the providers of a trace, the empty
// activity id), so texts are kept in a small table indexed by a hash of the
// GUID's bytes. The 36 characters of the GUID's text.
const char* cached_guid_text(const uint8_t* guid) {
  struct entry {
    uint8_t key[16];
    char text[36];
    bool used;
  };
  thread_local entry table[64] = {};
  uint64_t lo, hi;
  std::memcpy(&lo, guid, 8);
  std::memcpy(&hi, guid + 8, 8);
  const uint64_t h = (lo ^ (hi * 0x9E3779B97F4A7C15ULL)) * 0x9E3779B97F4A7C15ULL;
  entry& e = table[h >> 58];
  if (!e.used || std::memcmp(e.key, guid, 16) != 0) {
    std::memcpy(e.key, guid, 16);
    qv::write_guid_text(e.text, guid);
    e.used = true;
  }
  return e.text;
}

void append_cached_guid_text(std::string& out, const uint8_t* guid) { out.append(cached_guid_text(guid), 36); }

void append_cached_guid_text(qv::line_text& out, const uint8_t* guid) { out.append(cached_guid_text(guid), 36); }

row_line::row_line(std::ostream& out, report_options& opts, int32_t count, uint32_t default_flags)
    : out_(out),
      opts_(opts),
      count_(count > 0 && count < 256 ? static_cast<size_t>(count) : 0),
      default_flags_(default_flags),
      csv_(opts.format_csv || opts.format_csvgen || opts.format_l2t),
      separator_replaced_(separator_always_replaced(opts)),
      line_(line_buffer()) {
  // The column line goes through the same line buffer, so it comes first.
  if (count_ != 0 && opts.header_row_pending) write_column_line(out, opts);
}

void row_line::put(const cell_view& c) {
  if (next_ >= count_) return;
  const line_settings s(opts_, csv_, separator_replaced_);
  if (next_ != 0) line_ += opts_.separator;
  next_ = render_value(line_, c, next_, count_, s) + 1;
}

void row_line::skip(uint16_t type) {
  // A cell that stores nothing still takes its column (two for a two-cell
  // type), which then shows nothing.
  const size_t used = is_two_cell(type) ? 2 : 1;
  for (size_t k = 0; k < used; ++k) put(cell_view{});
}

void row_line::number(uint64_t value, uint16_t type, uint32_t flags) {
  if (type >= 32) return skip(type);
  put(cell_view{type, 20, flags | default_flags_, value, {}, {}, nullptr, nullptr});
}

void row_line::text(std::string_view text, uint16_t type, uint32_t flags) {
  if (type >= 32) return skip(type);
  flags |= default_flags_;
  if (flags == rf_flatten || (flags & rf_quote)) {
    // The storing-time rules work on a copy, as on a stored text.
    thread_local std::string held;
    held.assign(text);
    finish_text(held, flags);
    put(cell_view{type, 20, flags, 0, held, {}, nullptr, nullptr});
    return;
  }
  put(cell_view{type, 20, flags, 0, text, {}, nullptr, nullptr});
}

void row_line::bytes(const uint8_t* data, uint32_t length, uint16_t type, uint32_t flags) {
  if (type >= 32) return skip(type);
  std::span<const uint8_t> b;
  if (data != nullptr) b = std::span<const uint8_t>(data, length);
  put(cell_view{type, 20, flags | default_flags_, 0, {}, b, nullptr, nullptr});
}

bool row_line::rendered_text(void (*render)(qv::line_text& out, const void* source), const void* source) {
  if (default_flags_ & rf_quote) return false;
  if (default_flags_ == rf_flatten) return false;
  put(cell_view{rt_text, 20, default_flags_, 0, {}, {}, render, source});
  return true;
}

void row_line::finish() {
  if (count_ == 0) return;
  // Columns not given show nothing, between their separators.
  while (next_ < count_) put(cell_view{});
  line_.push_back('\n');
  out_.write(line_.data(), static_cast<std::streamsize>(line_.size()));
}
