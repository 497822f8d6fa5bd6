// Time stamps: conversion of the clock kinds to FILETIME ticks and of ticks
// to the broken-down forms.
//
// All tick arithmetic that may wrap on hostile input is done in unsigned
// 64-bit numbers, where wrapping is defined; signed numbers are used only
// for the divisions and shifts whose sign matters.

#include "support/qv_time.h"

#include <sys/time.h>

#include <cmath>
#include <cstdint>
#include <cstring>

namespace qv {
namespace {

constexpr uint64_t ticks_per_second = 10000000ULL;
constexpr uint64_t seconds_per_day = 86400ULL;

// Ticks of 1970-01-01 00:00:00 UTC.
constexpr uint64_t unix_epoch_ticks = 116444736000000000ULL;
// Ticks of 1900-01-01 00:00:00 UTC, the first valid moment.
constexpr uint64_t year1900_ticks = 94354848000000000ULL;
// Ticks of 3001-01-01 00:00:00 UTC, the first moment past the valid years
// (unless the local offset is negative, see filetime_bounds).
constexpr uint64_t year3001_ticks = 441796896000000000ULL;
// Days from 1601-01-01 to 1970-01-01.
constexpr int64_t days_1601_to_1970 = 134774;
// Days from 1970-01-01 to 3001-01-01: the local-time walk ends there.
constexpr uint64_t days_1970_to_3001 = 376565;

constexpr uint64_t vhd_base_ticks = 125912196000000000ULL;        // 2000-01-01 17:00 UTC
constexpr uint64_t snowflake_base_ticks = 130645440000000000ULL;  // 2015-01-01 UTC
constexpr uint64_t dotnet_base_ticks = 504911232000000000ULL;     // 1601-01-01 in .NET ticks
constexpr uint64_t ole_base_seconds = 9435312000ULL;              // 1899-12-30
constexpr uint64_t unix_base_seconds = 11644473600ULL;            // 1970-01-01
constexpr uint64_t safari_base_seconds = 12622780800ULL;          // 2001-01-01
constexpr uint64_t hfsplus_base_seconds = 9561628800ULL;          // 1904-01-01
constexpr uint64_t ntp_base_ticks = 94354848000000000ULL;         // 1900-01-01

constexpr uint16_t month_start_plain[13] = {0, 31, 59, 90, 120, 151, 181,
                                            212, 243, 273, 304, 334, 365};
constexpr uint16_t month_start_leap[13] = {0, 31, 60, 91, 121, 152, 182,
                                           213, 244, 274, 305, 335, 366};

constexpr bool is_leap_year(uint64_t y) { return y % 4 == 0 && (y % 100 != 0 || y % 400 == 0); }

struct civil_date {
  uint32_t year;
  uint32_t month;  // 1..12
  uint32_t day;    // 1..31
  uint32_t yday;   // 0..365
};

// Proleptic Gregorian date of a day count from 1601-01-01. 1601 opens a
// 400-year cycle, so the count splits into whole cycles, centuries, four-year
// groups and years; the last century and year of a group take the leap day.
civil_date civil_from_days_1601(uint64_t days) {
  const uint64_t q400 = days / 146097;
  uint64_t r = days % 146097;
  uint64_t q100 = r / 36524;
  if (q100 > 3) q100 = 3;
  r -= q100 * 36524;
  const uint64_t q4 = r / 1461;
  r -= q4 * 1461;
  uint64_t q1 = r / 365;
  if (q1 > 3) q1 = 3;
  r -= q1 * 365;

  civil_date out;
  out.year = static_cast<uint32_t>(1601 + q400 * 400 + q100 * 100 + q4 * 4 + q1);
  out.yday = static_cast<uint32_t>(r);
  const uint16_t* starts = is_leap_year(out.year) ? month_start_leap : month_start_plain;
  uint32_t m = out.yday / 32;  // never past the true month: no month exceeds 31 days
  while (m < 11 && out.yday >= starts[m + 1]) ++m;
  out.month = m + 1;
  out.day = out.yday - starts[m] + 1;
  return out;
}

// The process-wide local offset and what derives from it. Worked out once at
// first use, because the libc calls behind it are far too slow to run for
// every event; the offset is therefore that of the moment the run starts.
struct offset_cache {
  bool ready = false;
  int32_t offset_seconds = 0;
  float hours = 0.0f;
  // First tick count that is never valid. It is the start of 3001 unless the
  // offset is negative: then a moment early in 3001 still has a local time
  // in 3000 and stays valid.
  uint64_t upper_ticks = year3001_ticks;
};
offset_cache g_offset;

int32_t compute_local_offset() {
  const std::time_t now = std::time(nullptr);
  struct tm local {};
  struct tm utc {};
  if (localtime_r(&now, &local) == nullptr || gmtime_r(&now, &utc) == nullptr) return 0;
  const std::time_t a = std::mktime(&local);
  const std::time_t b = std::mktime(&utc);
  if (a == static_cast<std::time_t>(-1) || b == static_cast<std::time_t>(-1)) return 0;
  return static_cast<int32_t>(a - b);
}

// The shift in whole seconds that unix_to_tm applies for `hours`: a float
// product, truncated. False when it is no usable number.
bool shift_seconds(float hours, int64_t& out) {
  const float product = hours * 3600.0f;
  // Anything beyond a few thousand years pushes every stamp out of range.
  if (!std::isfinite(product) || std::fabs(product) > 1.0e12f) return false;
  out = static_cast<int64_t>(product);
  return true;
}

void fill_offset_cache() {
  g_offset.offset_seconds = compute_local_offset();
  g_offset.hours = static_cast<float>(static_cast<float>(g_offset.offset_seconds) / 3600.0);
  int64_t shift = 0;
  shift_seconds(g_offset.hours, shift);
  g_offset.upper_ticks = year3001_ticks;
  if (shift < 0) g_offset.upper_ticks += static_cast<uint64_t>(-shift) * ticks_per_second;
  g_offset.ready = true;
}

inline const offset_cache& offsets() {
  if (!g_offset.ready) fill_offset_cache();
  return g_offset;
}

// Unsigned wrap-around arithmetic on values that may be negative.
inline uint64_t as_u(int64_t v) { return static_cast<uint64_t>(v); }

}  // namespace

const char* type_time_label(uint32_t kind) {
  switch (kind) {
    case type_filetime: return "filetime";
    case type_chrome: return "chrome";
    case type_firefox3: return "firefox3";
    case type_unix: return "unix time";
    case type_unix_millisec: return "unix millisec time";
    case type_dos: return "dos time";
    case type_ntp: return "ntp";
    case type_guid: return "guid";
    case type_ole: return "ole";
    case type_systemtime:
    case type_systemtime2: return "system time";
    case type_vhd: return "VHD time";
    case type_qpc: return "QPC time";
    case type_csharp: return "c# time";
    case type_snowflake: return "snowflake time";
    case type_safari: return "safari time";
    case type_hfsplus: return "hfs+ time";
    default: return "";
  }
}

// ---- offsets ---------------------------------------------------------------

int32_t local_offset_seconds() { return offsets().offset_seconds; }

int32_t refresh_local_offset() {
  fill_offset_cache();
  return g_offset.offset_seconds;
}

bool is_valid_filetime(uint64_t ticks) {
  const uint64_t upper = offsets().upper_ticks;
  // One unsigned comparison rejects 0, negative ticks, years before 1900 and
  // moments past the upper bound.
  if (ticks - year1900_ticks >= upper - year1900_ticks) return false;
  // The first second of 1970 has Unix second 0 and is refused.
  return ticks - unix_epoch_ticks >= ticks_per_second;
}

// ---- broken-down forms -------------------------------------------------------

bool filetime_to_systemtime(uint64_t ticks, _windows_systemtime& out) {
  out = _windows_systemtime();
  if (static_cast<int64_t>(ticks) < 0) return false;
  const uint64_t f = ticks % ticks_per_second;
  const uint64_t s = ticks / ticks_per_second;
  const uint64_t days = s / seconds_per_day;
  const uint64_t sod = s % seconds_per_day;
  const civil_date d = civil_from_days_1601(days);
  out.wYear = static_cast<uint16_t>(d.year);
  out.wMonth = static_cast<uint16_t>(d.month);
  out.wDay = static_cast<uint16_t>(d.day);
  out.wDayOfWeek = static_cast<uint16_t>((days + 1) % 7);  // 1601-01-01 was a Monday
  out.wHour = static_cast<uint16_t>(sod / 3600);
  out.wMinute = static_cast<uint16_t>(sod / 60 % 60);
  out.wSecond = static_cast<uint16_t>(sod % 60);
  out.wMilliseconds = static_cast<uint16_t>(f / 10000);
  out.microsecond = f / 10;
  out.nanosecond = f * 100;
  out.picosecond = f * 100000;
  return true;
}

dos_stamp_words filetime_to_dos(const _windows_systemtime& utc) {
  dos_stamp_words out;
  if (utc.wYear < 1980 || utc.wYear > 2037) return out;
  out.date = static_cast<uint16_t>((utc.wDay & 0x1F) | ((utc.wMonth & 0x0F) << 5) |
                                   ((utc.wYear - 1980) << 9));
  // Two-second units, rounded up for odd seconds (59 stores 30), five bits.
  const uint32_t halves = (utc.wSecond / 2u + (utc.wSecond & 1u)) & 0x1F;
  out.time = static_cast<uint16_t>((utc.wHour << 11) | ((utc.wMinute & 0x3F) << 5) | halves);
  return out;
}

bool unix_to_tm(uint64_t seconds, float hours_offset, struct tm& out) {
  out = tm{};
  if (static_cast<int64_t>(seconds) < 0) return false;
  int64_t shift = 0;
  if (!shift_seconds(hours_offset, shift)) return false;
  // Keeps the sum below from overflowing; such counts lie far past the year
  // 3000 whatever the shift.
  if (seconds > static_cast<uint64_t>(INT64_MAX) - 2000000000000ULL) return false;
  const int64_t local = static_cast<int64_t>(seconds) + shift;
  if (local < 0) return false;
  const uint64_t days = static_cast<uint64_t>(local) / seconds_per_day;
  const uint64_t sod = static_cast<uint64_t>(local) % seconds_per_day;
  if (days >= days_1970_to_3001) return false;

  const civil_date d = civil_from_days_1601(days + days_1601_to_1970);
  out.tm_sec = static_cast<int>(sod % 60);
  out.tm_min = static_cast<int>(sod / 60 % 60);
  out.tm_hour = static_cast<int>(sod / 3600);
  out.tm_wday = static_cast<int>((days + 4) % 7);  // 1970-01-01 was a Thursday
  out.tm_year = static_cast<int>(d.year) - 1900;
  out.tm_yday = static_cast<int>(d.yday);
  out.tm_mon = static_cast<int>(d.month) - 1;
  out.tm_mday = static_cast<int>(d.day);
  out.tm_isdst = 0;
  return true;
}

uint64_t filetime_from_tm(const struct tm& tm, uint32_t milliseconds) {
  int64_t year = tm.tm_year;
  int64_t mon = tm.tm_mon;
  if (mon < 0 || mon > 11) {
    year += mon / 12;
    mon %= 12;
    if (mon < 0) {
      mon += 12;
      year -= 1;
    }
  }
  // Days before the month in a plain year, minus one: January is -1.
  int64_t day_count = static_cast<int64_t>(month_start_plain[mon]) - 1;
  // The leap test here looks at the years since 1900, not at the calendar
  // year, so 2000 counts as plain (its March 1 lands on February 29) and 2300
  // as leap. Stamps made this way are expected to carry that shift.
  if (mon >= 2 && year > 0 && year % 4 == 0 && (year % 100 != 0 || year % 400 == 0)) ++day_count;

  const int64_t y = year + 1900;
  const int64_t days = (y - 1601) * 365 + (y - 1) / 4 - (y - 1) / 100 + (y - 1) / 400 - 388 +
                       day_count + tm.tm_mday;
  // No field is range-checked: an hour of 25 carries into the next day.
  uint64_t t = as_u(days) * 24 + as_u(tm.tm_hour);
  t = t * 60 + as_u(tm.tm_min);
  t = t * 60 + as_u(tm.tm_sec);
  return t * ticks_per_second + static_cast<uint64_t>(milliseconds) * 10000;
}

bool filetime_from_systemtime(const _windows_systemtime& st, filetime_pair& out) {
  struct tm t {};
  t.tm_year = static_cast<int>(st.wYear) - 1900;
  t.tm_mon = static_cast<int>(st.wMonth) - 1;
  t.tm_mday = st.wDay;
  t.tm_hour = st.wHour;
  t.tm_min = st.wMinute;
  t.tm_sec = st.wSecond;
  const uint64_t ticks = filetime_from_tm(t, st.wMilliseconds);
  out.dwLowDateTime = static_cast<uint32_t>(ticks);
  out.dwHighDateTime = static_cast<uint32_t>(ticks >> 32);
  return true;
}

// ---- qv::time ------------------------------------------------------------------

void time::clear() { *this = time(); }

time::time() = default;

bool time::set_filetime(uint64_t ticks) {
  valid = false;
  if (ticks == 0) return false;
  filetime = ticks;
  if (static_cast<int64_t>(ticks) < 0) return false;
  // Before 1970 this wraps to a very large number, which is kept.
  unix_seconds = (ticks - unix_epoch_ticks) / ticks_per_second;
  if (unix_seconds == 0) return false;

  filetime_to_systemtime(ticks, utc);
  filetime_parts.dwLowDateTime = static_cast<uint32_t>(ticks);
  filetime_parts.dwHighDateTime = static_cast<uint32_t>(ticks >> 32);
  dos_stamp = filetime_to_dos(utc);

  no_local_tm = false;
  struct tm local {};
  if (!unix_to_tm(unix_seconds, offsets().hours, local)) no_local_tm = true;
  if (no_local_tm) {
    if (utc.wYear > 3000) return false;
  } else {
    local_tm = local;
  }
  if (utc.wYear > 1899) valid = true;
  return valid;
}

time::time(uint64_t value, type_time kind) {
  switch (kind) {
    case type_filetime:
      set_filetime(value);
      break;
    case type_chrome:
      set_filetime(value * 10);
      break;
    case type_firefox3: {
      const int64_t v = static_cast<int64_t>(value);
      set_filetime(as_u(v / 1000000) * ticks_per_second + unix_epoch_ticks +
                   as_u(v % 1000000) * 10);
      break;
    }
    case type_unix:
      unix_seconds = value;
      filetime = value * ticks_per_second + unix_epoch_ticks;
      if (static_cast<int64_t>(value) > 0) {
        set_filetime(filetime);
      } else {
        unix_seconds = 0;
      }
      break;
    case type_unix_millisec: {
      unix_seconds = value / 1000;
      uint64_t ticks = unix_seconds * ticks_per_second + unix_epoch_ticks;
      const uint64_t ms = value % 1000;
      if (ms != 0) ticks += ms * 10000;
      filetime = ticks;
      if (static_cast<int64_t>(unix_seconds) > 0) {
        set_filetime(ticks);
      } else {
        unix_seconds = 0;
      }
      break;
    }
    case type_vhd:
      set_filetime((value & 0xFFFFFFFFULL) * ticks_per_second + vhd_base_ticks);
      break;
    case type_csharp:
      set_filetime(value - dotnet_base_ticks);
      break;
    case type_snowflake:
      set_filetime(as_u(static_cast<int64_t>(value) >> 22) * 10000 + snowflake_base_ticks);
      break;
    case type_safari:
      if (value > 0xFFFFFFFFULL) {
        // Large values are nanoseconds. The fraction kept is the low seven
        // decimal digits of the value, as stored stamps have always shown it.
        set_filetime((value / 1000000000ULL + safari_base_seconds) * ticks_per_second +
                     value % ticks_per_second);
      } else {
        set_filetime((value + safari_base_seconds) * ticks_per_second);
      }
      break;
    case type_hfsplus:
      set_filetime((value + hfsplus_base_seconds) * ticks_per_second);
      break;
    default:
      break;
  }
}

time::time(int64_t value, type_time kind) {
  const uint64_t u = as_u(value);
  switch (kind) {
    case type_filetime:
      set_filetime(u);
      break;
    case type_chrome:
      set_filetime(u * 10);
      break;
    case type_firefox3:
      set_filetime(as_u(value / 1000000) * ticks_per_second + unix_epoch_ticks +
                   as_u(value % 1000000) * 10);
      break;
    case type_unix:
      unix_seconds = u;
      filetime = u * ticks_per_second + unix_epoch_ticks;
      if (value > 0) {
        set_filetime(filetime);
      } else {
        unix_seconds = 0;
      }
      break;
    case type_unix_millisec: {
      const int64_t secs = value / 1000;
      const int64_t ms = value % 1000;
      unix_seconds = as_u(secs);
      uint64_t ticks = as_u(secs) * ticks_per_second + unix_epoch_ticks;
      if (ms != 0) ticks += as_u(ms) * 10000;
      filetime = ticks;
      if (secs > 0) {
        set_filetime(ticks);
      } else {
        unix_seconds = 0;
      }
      break;
    }
    case type_ole:
      set_filetime((u * seconds_per_day + ole_base_seconds) * ticks_per_second);
      break;
    case type_vhd:
      set_filetime((u & 0xFFFFFFFFULL) * ticks_per_second + vhd_base_ticks);
      break;
    case type_snowflake:
      set_filetime(as_u(value >> 22) * 10000 + snowflake_base_ticks);
      break;
    case type_safari:
      if (value > 0xFFFFFFFFLL) {
        set_filetime(as_u(value / 1000000000LL + static_cast<int64_t>(safari_base_seconds)) *
                         ticks_per_second +
                     as_u(value % 10000000LL));
      } else {
        set_filetime((u + safari_base_seconds) * ticks_per_second);
      }
      break;
    case type_hfsplus:
      set_filetime((u + hfsplus_base_seconds) * ticks_per_second);
      break;
    default:
      break;
  }
}

time::time(double value, type_time kind) {
  if (kind != type_ole && kind != type_safari && kind != type_unix && kind != type_unix_millisec)
    return;
  // Values whose whole part doesn't fit a signed 64-bit number make no date.
  if (!std::isfinite(value) || std::fabs(value) >= 9.0e18) return;
  if (kind == type_ole) {
    const double ticks = (value * 86400.0 + 9435312000.0) * 10000000.0;
    // Before 1601 or beyond 64 bits there is no tick count to hold.
    if (!(ticks >= 0.0) || ticks >= 18446744073709551616.0) return;
    set_filetime(static_cast<uint64_t>(ticks));
    return;
  }
  const int64_t s = static_cast<int64_t>(value);  // truncated towards zero
  // The fraction keeps the sign of the value, so a negative value counts
  // back from its whole second.
  const int64_t f = static_cast<int64_t>((value - static_cast<double>(s)) * 10000000.0);
  const uint64_t base = kind == type_safari ? safari_base_seconds : unix_base_seconds;
  // Milliseconds are read as seconds too when the value is fractional.
  set_filetime((as_u(s) + base) * ticks_per_second + as_u(f));
}

time::time(const _windows_systemtime& st) { set_from_fields(st); }

void time::set_from_fields(const _windows_systemtime& st) {
  local_tm.tm_sec = st.wSecond;
  local_tm.tm_min = st.wMinute;
  local_tm.tm_hour = st.wHour;
  local_tm.tm_mday = st.wDay;
  local_tm.tm_mon = static_cast<int>(st.wMonth) - 1;
  local_tm.tm_year = static_cast<int>(st.wYear) - 1900;
  const uint64_t ticks = filetime_from_tm(local_tm, st.wMilliseconds);
  if (ticks == 0) return;
  filetime_parts.dwLowDateTime = static_cast<uint32_t>(ticks);
  filetime_parts.dwHighDateTime = static_cast<uint32_t>(ticks >> 32);
  set_filetime(ticks);
}

// ---- present moment ------------------------------------------------------------

time qv_time_now() {
  struct timeval tv {};
  gettimeofday(&tv, nullptr);
  const uint64_t ticks = as_u(static_cast<int64_t>(tv.tv_sec)) * ticks_per_second +
                         unix_epoch_ticks + as_u(static_cast<int64_t>(tv.tv_usec)) * 10;
  return time(static_cast<int64_t>(ticks), type_filetime);
}

namespace {
// A 32-bit word whose bytes in memory are in big-endian order.
uint32_t to_big_endian_word(uint32_t v) {
  const uint8_t b[4] = {static_cast<uint8_t>(v >> 24), static_cast<uint8_t>(v >> 16),
                        static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)};
  uint32_t out;
  std::memcpy(&out, b, 4);
  return out;
}

uint32_t from_big_endian_word(uint32_t stored) {
  uint8_t b[4];
  std::memcpy(b, &stored, 4);
  return (static_cast<uint32_t>(b[0]) << 24) | (static_cast<uint32_t>(b[1]) << 16) |
         (static_cast<uint32_t>(b[2]) << 8) | b[3];
}
}  // namespace

ntp_stamp ntp_now() {
  struct timeval tv {};
  gettimeofday(&tv, nullptr);
  const time now(static_cast<uint64_t>(tv.tv_sec), type_unix);
  ntp_stamp out;
  const uint64_t since1900 = now.get_filetime() - ntp_base_ticks;
  if (static_cast<int64_t>(now.get_filetime()) < 0 || static_cast<int64_t>(since1900) < 0)
    return out;
  out.seconds_be = to_big_endian_word(static_cast<uint32_t>(since1900 / ticks_per_second));
  out.fraction_be = to_big_endian_word(0);
  return out;
}

double ntp_seconds_between(const ntp_stamp& a, const ntp_stamp& b) {
  const double x = from_big_endian_word(a.seconds_be) +
                   from_big_endian_word(a.fraction_be) / 4294967296.0;
  const double y = from_big_endian_word(b.seconds_be) +
                   from_big_endian_word(b.fraction_be) / 4294967296.0;
  return x > y ? x - y : y - x;
}

}  // namespace qv
