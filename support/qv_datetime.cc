// Date and time text: the compiled format, the renderers the row writers call
// for every time column, and the parsers of the start and stop options.
//
// Rendering writes digits straight into a small stack buffer and appends it
// in one piece: it runs for every row, so no stream or printf is involved.

#include "support/qv_datetime.h"

#include <cmath>
#include <cstdlib>
#include <cstring>

#include "support/qv_string.h"

namespace qv {
namespace {

// A fixed-capacity line of characters. Every writer checks the room left, so
// oversized field values can only shorten the text, never overrun it.
struct text_buffer {
  char data[96];
  size_t size = 0;

  void put(char c) {
    if (size < sizeof(data)) data[size++] = c;
  }
  // `v` in decimal, zero-filled to at least `width` digits.
  void put_number(uint64_t v, uint32_t width) {
    char digits[24];
    size_t n = 0;
    do {
      digits[n++] = static_cast<char>('0' + v % 10);
      v /= 10;
    } while (v != 0 && n < sizeof(digits));
    while (n < width && n < sizeof(digits)) digits[n++] = '0';
    while (n > 0) put(digits[--n]);
  }
  void put_two(uint32_t v) {
    if (v < 100 && size + 2 <= sizeof(data)) {
      data[size] = static_cast<char>('0' + v / 10);
      data[size + 1] = static_cast<char>('0' + v % 10);
      size += 2;
    } else {
      put_number(v, 2);
    }
  }
  void put_text(const char* s) {
    while (*s != 0) put(*s++);
  }
};

constexpr uint64_t powers_of_ten[10] = {1,      10,      100,      1000,      10000,
                                        100000, 1000000, 10000000, 100000000, 1000000000};

// What "yyyy-mm-dd" and "hh:mm:ss.xxx" compile to; used when no format is set.
constexpr datetime_format make_default_format() {
  datetime_format f;
  f.separator = '-';
  f.date_flags = datetime_format::month_number | datetime_format::year4 |
                 datetime_format::order_ymd;
  f.time_flags = 3 << 1;
  return f;
}
constexpr datetime_format default_format = make_default_format();

void build_date(text_buffer& b, const _windows_systemtime& u, const datetime_format& f) {
  const uint8_t flags = f.date_flags;
  const uint32_t year_width = (flags & datetime_format::year4) ? 4 : 2;
  // A missing month-number flag means the name form.
  const bool by_name = (flags & datetime_format::month_number) == 0;
  const char sep = f.separator;  // written even when zero
  auto put_month = [&] {
    if (by_name) {
      b.put_text(month_abbreviation(u.wMonth));
    } else {
      b.put_two(u.wMonth);
    }
  };
  if (flags & datetime_format::order_mdy) {
    put_month();
    b.put(sep);
    b.put_two(u.wDay);
    b.put(sep);
    b.put_number(u.wYear, year_width);
  } else if (flags & datetime_format::order_dmy) {
    b.put_two(u.wDay);
    b.put(sep);
    put_month();
    b.put(sep);
    b.put_number(u.wYear, year_width);
  } else if ((flags & datetime_format::order_ymd) && !by_name) {
    b.put_number(u.wYear, year_width);
    b.put(sep);
    b.put_two(u.wMonth);
    b.put(sep);
    b.put_two(u.wDay);
  }
  // Any other combination renders no date.
}

void build_time(text_buffer& b, const _windows_systemtime& u, uint32_t digits) {
  b.put_two(u.wHour);
  b.put(':');
  b.put_two(u.wMinute);
  b.put(':');
  b.put_two(u.wSecond);
  if (digits == 0) return;
  if (digits > 9) digits = 9;
  b.put('.');
  // Fractions are cut, never rounded: a stamp at .9999999 stays in its second.
  switch (digits) {
    case 3:
      b.put_number(u.wMilliseconds, 3);
      break;
    case 6:
      b.put_number(u.microsecond, 6);
      break;
    case 9:
      b.put_number(u.nanosecond, 9);
      break;
    case 7:
    case 8:
      b.put_number(u.nanosecond / powers_of_ten[9 - digits], digits);
      break;
    default:  // 1, 2, 4, 5
      b.put_number(u.microsecond / powers_of_ten[6 - digits], digits);
      break;
  }
}

inline const datetime_format& effective(const datetime_format& fmt) {
  return fmt.is_set() ? fmt : default_format;
}

// Reads one token up to `sep` from `pos`, as a line reader with that
// delimiter would: fails only when no input is left; a token may be empty.
bool next_token(const std::string& text, size_t& pos, char sep, std::string& token) {
  if (pos >= text.size()) return false;
  const size_t end = text.find(sep, pos);
  if (end == std::string::npos) {
    token.assign(text, pos, std::string::npos);
    pos = text.size();
  } else {
    token.assign(text, pos, end - pos);
    pos = end + 1;
  }
  return true;
}

// Reads the leading number of `text` as floating text; 0 when there is none.
double leading_double(const std::string& text) { return std::strtod(text.c_str(), nullptr); }

double truncate(double v) { return std::trunc(v); }

// A double that fits the 16-bit SYSTEMTIME fields.
bool fits_word(double v) { return v >= 0.0 && v < 65536.0; }

}  // namespace

const char* month_abbreviation(uint32_t month) {
  static const char* const names[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  if (month < 1 || month > 12) return "";
  return names[month - 1];
}

bool parse_datetime_format(datetime_format& out, const std::string& date_text,
                           const std::string& time_text, bool pair_flag) {
  out.clear();
  if (pair_flag) out.time_flags |= 1;

  if (!date_text.empty()) {
    if (date_text.find('/') != std::string::npos) {
      out.separator = '/';
    } else if (date_text.find('-') != std::string::npos) {
      out.separator = '-';
    } else if (date_text.find(' ') != std::string::npos) {
      out.separator = ' ';
    }

    size_t month_at = date_text.find("mmm");
    if (month_at != std::string::npos) {
      out.date_flags |= datetime_format::month_name;
    } else {
      month_at = date_text.find("mm");
      if (month_at == std::string::npos) return false;
      out.date_flags |= datetime_format::month_number;
    }

    size_t year_at = date_text.find("yyyy");
    if (year_at != std::string::npos) {
      out.date_flags |= datetime_format::year4;
    } else {
      year_at = date_text.find("yy");
      if (year_at == std::string::npos) return false;
      out.date_flags |= datetime_format::year2;
    }

    if (date_text.find(',') != std::string::npos) out.date_flags |= datetime_format::comma;

    const size_t day_at = date_text.find("dd");
    if (day_at == std::string::npos) return false;

    if (day_at < month_at && month_at < year_at) {
      out.date_flags |= datetime_format::order_dmy;
    } else if (month_at < day_at && day_at < year_at) {
      out.date_flags |= datetime_format::order_mdy;
    } else if (year_at < month_at && month_at < day_at) {
      out.date_flags |= datetime_format::order_ymd;
    } else {
      return false;
    }
  }

  if (!time_text.empty()) {
    const size_t first = time_text.find("xxx");
    if (first != std::string::npos) {
      const size_t last = time_text.rfind('x');
      size_t digits = last - first + 1;
      if (digits > 9) digits = 9;
      out.time_flags = static_cast<uint8_t>(out.time_flags | (digits << 1));
    }
  }
  return true;
}

void append_date(std::string& out, const time& t, const datetime_format& fmt) {
  if (!t.is_valid()) return;
  text_buffer b;
  build_date(b, t.utc, effective(fmt));
  out.append(b.data, b.size);
}

void append_time(std::string& out, const time& t, const datetime_format& fmt) {
  if (!t.is_valid()) return;
  text_buffer b;
  build_time(b, t.utc, effective(fmt).fraction_digits());
  out.append(b.data, b.size);
}

bool format_datetime(std::string& date_text, std::string& time_text, const time& t,
                     const datetime_format& fmt) {
  date_text.clear();
  time_text.clear();
  if (!t.is_valid()) return false;
  append_date(date_text, t, fmt);
  append_time(time_text, t, fmt);
  return fmt.is_set();
}

void append_fixed_datetime(std::string& out, const time& t) {
  if (!t.is_valid()) {
    out.push_back(' ');
    return;
  }
  const _windows_systemtime& u = t.utc;
  text_buffer b;
  b.put_number(u.wYear, 4);
  b.put('-');
  b.put_two(u.wMonth);
  b.put('-');
  b.put_two(u.wDay);
  b.put(' ');
  build_time(b, u, 3);
  out.append(b.data, b.size);
}

std::ostream& operator<<(std::ostream& out, const time& t) {
  std::string text;
  append_fixed_datetime(text, t);
  return out.write(text.data(), static_cast<std::streamsize>(text.size()));
}

bool parse_date_text(const std::string& text, const std::string& order, char separator,
                     uint32_t& day, uint32_t& month, uint32_t& year) {
  day = 0;
  month = 0;
  year = 0;
  if (order.size() <= 2) return false;

  auto take = [&](char what, const std::string& token) {
    uint32_t value = 0;
    if (!parse_uint32(token, value)) return false;
    switch (what) {
      case 'Y': year = value; return true;
      case 'M': month = value; return true;
      case 'D': day = value; return true;
      default: return false;
    }
  };

  size_t pos = 0;
  std::string token;
  if (!next_token(text, pos, separator, token)) return false;
  if (!take(order[0], token)) return false;
  for (size_t part = 1; part < 3; ++part) {
    if (!next_token(text, pos, separator, token)) return false;
    // Doubled separators leave empty tokens; up to three are passed over.
    for (int extra = 0; extra < 3 && token.empty(); ++extra) {
      if (!next_token(text, pos, separator, token)) return false;
    }
    if (!take(order[part], token)) return false;
  }

  // Two-digit years: 31..99 are 1900s, 30 and below 2000s.
  if (year < 100) year += year > 30 ? 1900 : 2000;
  return month <= 12 && day <= 31;
}

bool parse_time_text(const std::string& text, double& hour, double& minute, double& seconds) {
  hour = 0;
  minute = 0;
  seconds = 0;

  const char* blanks = " \t\r\n";
  const size_t first_char = text.find_first_not_of(blanks);
  if (first_char == std::string::npos) return false;
  const size_t last_char = text.find_last_not_of(blanks);
  std::string s = text.substr(first_char, last_char - first_char + 1);
  for (char& c : s) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }

  const size_t colon = s.find(':');
  if (colon == std::string::npos) return false;
  const size_t colon2 = s.find(':', colon + 1);
  const size_t m_at = s.find('m', colon + 1);
  // The character before the "m" is the am/pm marker.
  size_t marker = std::string::npos;
  double hour_base = 0;
  if (m_at != std::string::npos) {
    marker = m_at - 1;
    // The twelfth hour is not special: 12 pm gives 24 and 12 am gives 12.
    if (s[marker] == 'p') hour_base = 12;
  }

  // End of a part that runs up to the marker, with one blank before it skipped.
  auto end_at_marker = [&](size_t start) {
    if (marker == std::string::npos || marker < start) return s.size();
    size_t end = marker;
    if (end > start && s[end - 1] == ' ') --end;
    return end;
  };

  hour = hour_base + truncate(leading_double(s.substr(0, colon)));

  const size_t minute_start = colon + 1;
  const size_t minute_end = colon2 != std::string::npos ? colon2 : end_at_marker(minute_start);
  if (minute_end <= minute_start || minute_end - minute_start > 31) return false;
  minute = truncate(leading_double(s.substr(minute_start, minute_end - minute_start)));

  if (colon2 != std::string::npos) {
    const size_t sec_start = colon2 + 1;
    const size_t sec_end = end_at_marker(sec_start);
    seconds = leading_double(s.substr(sec_start, sec_end - sec_start));
  }
  return true;
}

bool parse_date_time_text(const std::string& date_text, const std::string& time_text,
                          const std::string& order, char separator, _windows_systemtime& out) {
  out = _windows_systemtime();
  if (date_text.empty()) return false;
  uint32_t day = 0, month = 0, year = 0;
  if (!parse_date_text(date_text, order, separator, day, month, year)) return false;
  // A year the record can't hold would silently become another year.
  if (year > 0xFFFF) return false;

  double hour = 0, minute = 0, seconds = 0;
  if (!time_text.empty() && !parse_time_text(time_text, hour, minute, seconds)) return false;
  if (!fits_word(hour) || !fits_word(minute) || !fits_word(seconds)) return false;

  const double whole = truncate(seconds);
  out.wYear = static_cast<uint16_t>(year);
  out.wMonth = static_cast<uint16_t>(month);
  out.wDay = static_cast<uint16_t>(day);
  out.wHour = static_cast<uint16_t>(hour);
  out.wMinute = static_cast<uint16_t>(minute);
  out.wSecond = static_cast<uint16_t>(whole);
  out.wMilliseconds = static_cast<uint16_t>((seconds - whole) * 1000.0 + 0.5);
  return true;
}

}  // namespace qv
