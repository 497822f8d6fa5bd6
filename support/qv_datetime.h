// Date and time text: the -dateformat / -timeformat language compiled once
// into a `datetime_format`, rendering of a qv::time with it, and the parsers
// of date and time texts used by the -cmd_start_time / -cmd_stop_time options.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>

#include "support/qv_time.h"

namespace qv {

struct datetime_format {
  // Bits of `date_flags`.
  static constexpr uint8_t month_name = 1;
  static constexpr uint8_t month_number = 2;
  static constexpr uint8_t year4 = 4;
  static constexpr uint8_t year2 = 8;
  static constexpr uint8_t comma = 16;
  static constexpr uint8_t order_dmy = 32;
  static constexpr uint8_t order_mdy = 64;
  static constexpr uint8_t order_ymd = 128;

  char separator = 0;        // '/', '-', ' ' or 0
  uint8_t date_flags = 0;
  uint8_t time_flags = 0;    // bit 0: pair flag; bits 1-4: fraction digits 0..9
  uint8_t reserved = 0;
  uint16_t year_floor = 1900;
  uint16_t year_ceiling = 2600;
  uint32_t reserved_word = 0;

  // The first four bytes as one word: zero means "not set".
  bool is_set() const { return separator != 0 || date_flags != 0 || time_flags != 0 || reserved != 0; }
  uint32_t fraction_digits() const { return (time_flags >> 1) & 0x0F; }
  void clear() { *this = datetime_format(); }
};

bool parse_datetime_format(datetime_format& out, const std::string& date_text,
                           const std::string& time_text, bool pair_flag);

// Fills `date_text` and `time_text`; both empty when the stamp isn't valid.
// Appending forms write into existing strings without clearing them, for
// the row writers' hot path.
bool format_datetime(std::string& date_text, std::string& time_text, const time& t,
                     const datetime_format& fmt);
void append_date(std::string& out, const time& t, const datetime_format& fmt);
void append_time(std::string& out, const time& t, const datetime_format& fmt);

// Fixed form: "%04d-%02d-%02d %02d:%02d:%02d.%03d" (date, blank, time).
std::ostream& operator<<(std::ostream& out, const time& t);
// The same fixed form appended to a string.
void append_fixed_datetime(std::string& out, const time& t);

const char* month_abbreviation(uint32_t month);

bool parse_date_text(const std::string& text, const std::string& order, char separator,
                     uint32_t& day, uint32_t& month, uint32_t& year);
bool parse_time_text(const std::string& text, double& hour, double& minute, double& seconds);
bool parse_date_time_text(const std::string& date_text, const std::string& time_text,
                          const std::string& order, char separator, _windows_systemtime& out);

}  // namespace qv
