// Time stamps: one moment in all the forms its users want.
//
// The internal unit is the FILETIME tick, 100 ns since 1601-01-01 00:00:00
// UTC. A raw number and the kind of clock it belongs to are normalised to
// ticks; everything else derives from those. Forensic output must never
// invent a date, so `valid` has exact bounds and every printer asks it first.
#pragma once

#include <cstdint>
#include <ctime>

namespace qv {

enum type_time : uint32_t {
  type_filetime = 1,
  type_chrome = 2,
  type_firefox3 = 4,
  type_unix = 8,
  type_unix_millisec = 16,
  type_dos = 32,
  type_ntp = 64,
  type_guid = 128,
  type_ole = 256,
  type_systemtime = 512,
  type_systemtime2 = 1024,
  type_vhd = 2048,
  type_qpc = 4096,
  type_csharp = 32768,
  type_snowflake = 131072,
  type_safari = 262144,
  type_hfsplus = 524288,
};

// The label of a kind ("filetime", "unix time", ...); empty for unknown kinds.
const char* type_time_label(uint32_t kind);

// Broken-down UTC time: the Windows SYSTEMTIME fields in their published
// order, then three independent renderings of the fraction of the second.
struct _windows_systemtime {
  uint16_t wYear = 0;
  uint16_t wMonth = 0;
  uint16_t wDayOfWeek = 0;
  uint16_t wDay = 0;
  uint16_t wHour = 0;
  uint16_t wMinute = 0;
  uint16_t wSecond = 0;
  uint16_t wMilliseconds = 0;
  uint64_t microsecond = 0;  // ticks within the second div 10
  uint64_t nanosecond = 0;   // ticks within the second times 100
  uint64_t picosecond = 0;   // ticks within the second times 100000
};

struct filetime_pair {
  uint32_t dwLowDateTime = 0;
  uint32_t dwHighDateTime = 0;
};

struct dos_stamp_words {
  uint16_t date = 0;
  uint16_t time = 0;
};

class time {
 public:
  time();
  // Kinds 1, 2, 4, 8, 16, 2048, 32768, 131072, 262144, 524288; any other
  // kind leaves the object cleared. Pass a uint64_t or int64_t: a plain
  // literal such as 5ULL matches no overload better than the others.
  time(uint64_t value, type_time kind);
  // The same kinds with signed arithmetic, but 256 (OLE days) instead of
  // 32768 (.NET ticks).
  time(int64_t value, type_time kind);
  // Fractional values as databases keep them: kinds 256, 262144, 8 and 16
  // (the last read as seconds, like 8). Non-finite or out-of-range values
  // leave the object cleared.
  time(double value, type_time kind);
  // Through the C struct tm conversion of filetime_from_tm, with its leap
  // rule on the years since 1900.
  explicit time(const _windows_systemtime& st);

  // The single place that decides validity. Returns `valid`.
  bool set_filetime(uint64_t ticks);

  bool is_valid() const { return valid; }
  uint64_t get_filetime() const { return filetime; }
  uint32_t year() const { return utc.wYear; }
  uint32_t month() const { return utc.wMonth; }
  uint32_t day() const { return utc.wDay; }
  uint32_t hour() const { return utc.wHour; }
  uint32_t minute() const { return utc.wMinute; }
  uint32_t second() const { return utc.wSecond; }
  uint32_t millisecond() const { return utc.wMilliseconds; }
  uint64_t microsecond() const { return utc.microsecond; }
  uint64_t nanosecond() const { return utc.nanosecond; }

  uint64_t unix_seconds = 0;
  uint64_t filetime = 0;
  filetime_pair filetime_parts;
  dos_stamp_words dos_stamp;
  struct tm local_tm {};
  _windows_systemtime utc;
  bool valid = false;
  bool no_local_tm = false;

 private:
  void clear();
  void set_from_fields(const _windows_systemtime& st);
};

// The date test of the trace reader: `ticks` passes when it makes a valid
// qv::time as a FILETIME (not zero, UTC year 1900 to 3000). Gives exactly the
// answer of qv::time(ticks, type_filetime).is_valid(), from precomputed tick
// bounds, without building the broken-down forms.
bool is_valid_filetime(uint64_t ticks);

time qv_time_now();
// Seconds east of UTC: mktime(localtime(t)) - mktime(gmtime(t)) for the
// moment `t` of the first call. The value is cached for the whole process, so
// every stamp's `local_tm` is shifted by the offset in force when the run
// started, not by the offset of the moment being converted.
int32_t local_offset_seconds();
// Works the cached offset out again from the present time zone setting (after
// a change of TZ and tzset()). Returns the new offset.
int32_t refresh_local_offset();
uint64_t filetime_from_tm(const struct tm& tm, uint32_t milliseconds);
bool filetime_from_systemtime(const _windows_systemtime& st, filetime_pair& out);
// False on negative ticks (the record is then cleared).
bool filetime_to_systemtime(uint64_t ticks, _windows_systemtime& out);
// MS-DOS date and time words of a UTC record; both zero outside 1980..2037.
dos_stamp_words filetime_to_dos(const _windows_systemtime& utc);
// Local broken-down time of Unix `seconds` shifted by `hours_offset` hours.
// Fails, with `out` cleared, for negative seconds (as a signed number), for a
// shifted moment before 1970 and from the year 3001 on.
bool unix_to_tm(uint64_t seconds, float hours_offset, struct tm& out);

// NTP stamp: seconds since 1900 and fraction, both words big-endian in memory.
struct ntp_stamp {
  uint32_t seconds_be = 0;
  uint32_t fraction_be = 0;
};
ntp_stamp ntp_now();
double ntp_seconds_between(const ntp_stamp& a, const ntp_stamp& b);

}  // namespace qv
