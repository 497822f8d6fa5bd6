#include "support/qv_time.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <utility>
#include <vector>

namespace {

constexpr uint64_t kSecond = 10000000ULL;
constexpr uint64_t kEpoch1970 = 116444736000000000ULL;
constexpr uint64_t k1900 = 94354848000000000ULL;   // 1900-01-01 00:00:00 UTC
constexpr uint64_t k3001 = 441796896000000000ULL;  // 3001-01-01 00:00:00 UTC

// Switches the process time zone and the cached offset; restores UTC after.
struct zone_guard {
  explicit zone_guard(const char* tz) { use(tz); }
  ~zone_guard() { use("UTC0"); }
  static void use(const char* tz) {
    setenv("TZ", tz, 1);
    tzset();
    qv::refresh_local_offset();
  }
};

void expect_utc(const qv::time& t, int y, int mo, int d, int h, int mi, int s) {
  EXPECT_EQ(t.year(), static_cast<uint32_t>(y));
  EXPECT_EQ(t.month(), static_cast<uint32_t>(mo));
  EXPECT_EQ(t.day(), static_cast<uint32_t>(d));
  EXPECT_EQ(t.hour(), static_cast<uint32_t>(h));
  EXPECT_EQ(t.minute(), static_cast<uint32_t>(mi));
  EXPECT_EQ(t.second(), static_cast<uint32_t>(s));
}

TEST(QvTime, FiletimeValidityBounds) {
  zone_guard utc("UTC0");
  EXPECT_EQ(qv::local_offset_seconds(), 0);

  qv::time zero(uint64_t{0}, qv::type_filetime);
  EXPECT_FALSE(zero.is_valid());
  EXPECT_EQ(zero.get_filetime(), 0u);

  const uint64_t negative = 0x8000000000000123ULL;
  qv::time neg(negative, qv::type_filetime);
  EXPECT_FALSE(neg.is_valid());
  EXPECT_EQ(neg.get_filetime(), negative);
  EXPECT_EQ(neg.unix_seconds, 0u);
  EXPECT_EQ(neg.utc.wYear, 0);

  // The first second of 1970 has Unix second 0.
  EXPECT_FALSE(qv::time(kEpoch1970, qv::type_filetime).is_valid());
  EXPECT_FALSE(qv::time(kEpoch1970 + kSecond - 1, qv::type_filetime).is_valid());
  qv::time one(kEpoch1970 + kSecond, qv::type_filetime);
  EXPECT_TRUE(one.is_valid());
  expect_utc(one, 1970, 1, 1, 0, 0, 1);
  EXPECT_EQ(one.unix_seconds, 1u);

  qv::time late1899(k1900 - 1, qv::type_filetime);
  EXPECT_FALSE(late1899.is_valid());
  expect_utc(late1899, 1899, 12, 31, 23, 59, 59);
  EXPECT_EQ(late1899.get_filetime(), k1900 - 1);

  qv::time t1900(k1900, qv::type_filetime);
  EXPECT_TRUE(t1900.is_valid());
  expect_utc(t1900, 1900, 1, 1, 0, 0, 0);
  EXPECT_TRUE(t1900.no_local_tm);
  // (2^64 - (1970 ticks - 1900 ticks)) / 10^7, worked out by hand.
  EXPECT_EQ(t1900.unix_seconds, 1842465418570ULL);

  qv::time t1601(uint64_t{1}, qv::type_filetime);
  EXPECT_FALSE(t1601.is_valid());
  expect_utc(t1601, 1601, 1, 1, 0, 0, 0);
  EXPECT_EQ(t1601.utc.wDayOfWeek, 1);  // a Monday

  qv::time end3000(k3001 - kSecond, qv::type_filetime);
  EXPECT_TRUE(end3000.is_valid());
  expect_utc(end3000, 3000, 12, 31, 23, 59, 59);
  EXPECT_FALSE(end3000.no_local_tm);
  EXPECT_EQ(end3000.local_tm.tm_year, 1100);
  EXPECT_TRUE(qv::time(k3001 - 1, qv::type_filetime).is_valid());
  qv::time start3001(k3001, qv::type_filetime);
  EXPECT_FALSE(start3001.is_valid());
  expect_utc(start3001, 3001, 1, 1, 0, 0, 0);
  EXPECT_TRUE(start3001.no_local_tm);
}

TEST(QvTime, BrokenDownForms) {
  zone_guard utc("UTC0");
  // 2024-02-29 13:45:30.1234567 UTC, a Thursday.
  const uint64_t ticks = 133536879301234567ULL;
  qv::time t(ticks, qv::type_filetime);
  ASSERT_TRUE(t.is_valid());
  expect_utc(t, 2024, 2, 29, 13, 45, 30);
  EXPECT_EQ(t.utc.wDayOfWeek, 4);
  EXPECT_EQ(t.millisecond(), 123u);
  EXPECT_EQ(t.microsecond(), 123456u);
  EXPECT_EQ(t.nanosecond(), 123456700u);
  EXPECT_EQ(t.utc.picosecond, 123456700000ULL);
  EXPECT_EQ(t.unix_seconds, 1709214330u);
  EXPECT_EQ(t.filetime_parts.dwHighDateTime, 0x01da6b15u);
  EXPECT_EQ(t.filetime_parts.dwLowDateTime, 0x8f2a0f87u);
  EXPECT_EQ(t.dos_stamp.date, 22621);  // 29 | 2 << 5 | 44 << 9
  EXPECT_EQ(t.dos_stamp.time, 28079);  // 13 << 11 | 45 << 5 | 15
  EXPECT_FALSE(t.no_local_tm);
  EXPECT_EQ(t.local_tm.tm_year, 124);
  EXPECT_EQ(t.local_tm.tm_mon, 1);
  EXPECT_EQ(t.local_tm.tm_mday, 29);
  EXPECT_EQ(t.local_tm.tm_hour, 13);
  EXPECT_EQ(t.local_tm.tm_min, 45);
  EXPECT_EQ(t.local_tm.tm_sec, 30);
  EXPECT_EQ(t.local_tm.tm_wday, 4);
  EXPECT_EQ(t.local_tm.tm_yday, 59);
  EXPECT_EQ(t.local_tm.tm_isdst, 0);

  qv::_windows_systemtime st;
  st.wYear = 77;
  EXPECT_FALSE(qv::filetime_to_systemtime(0x8000000000000000ULL, st));
  EXPECT_EQ(st.wYear, 0);
}

// Every day from 1601 to 3000 against a calendar counted day by day.
TEST(QvTime, CalendarMatchesDayByDayCount) {
  int y = 1601, m = 1, d = 1, dow = 1;
  const int lengths[13] = {0, 31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  int failures = 0;
  for (uint64_t day = 0; y < 3001 && failures < 5; ++day) {
    const uint64_t ticks = day * 86400 * kSecond + 45296 * kSecond + 7;  // 12:34:56
    qv::_windows_systemtime st;
    ASSERT_TRUE(qv::filetime_to_systemtime(ticks, st));
    if (st.wYear != y || st.wMonth != m || st.wDay != d || st.wDayOfWeek != dow ||
        st.wHour != 12 || st.wMinute != 34 || st.wSecond != 56) {
      ADD_FAILURE() << "day " << day << " expected " << y << "-" << m << "-" << d;
      ++failures;
    }
    if (y >= 1970) {
      struct tm tm {};
      const uint64_t unix_secs = (ticks - kEpoch1970) / kSecond;
      if (!qv::unix_to_tm(unix_secs, 0.0f, tm) || tm.tm_year != y - 1900 || tm.tm_mon != m - 1 ||
          tm.tm_mday != d || tm.tm_wday != dow || tm.tm_hour != 12) {
        ADD_FAILURE() << "unix_to_tm day " << day;
        ++failures;
      }
    }
    const bool leap = (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
    const int len = (m == 2 && leap) ? 29 : lengths[m];
    dow = (dow + 1) % 7;
    if (++d > len) {
      d = 1;
      if (++m > 12) {
        m = 1;
        ++y;
      }
    }
  }
  EXPECT_EQ(y, 3001);
}

TEST(QvTime, UnixToTmLimitsAndOffset) {
  struct tm tm {};
  const uint64_t to3001 = 32535216000ULL;  // seconds 1970 -> 3001
  EXPECT_TRUE(qv::unix_to_tm(to3001 - 1, 0.0f, tm));
  EXPECT_EQ(tm.tm_year, 1100);
  EXPECT_EQ(tm.tm_yday, 364);
  EXPECT_FALSE(qv::unix_to_tm(to3001, 0.0f, tm));
  EXPECT_EQ(tm.tm_year, 0);  // cleared
  EXPECT_TRUE(qv::unix_to_tm(to3001, -1.0f, tm));
  EXPECT_EQ(tm.tm_year, 1100);
  EXPECT_EQ(tm.tm_hour, 23);
  // Shifted before 1970, or negative as a signed number.
  EXPECT_FALSE(qv::unix_to_tm(100, -5.0f, tm));
  EXPECT_FALSE(qv::unix_to_tm(0x8000000000000000ULL, 0.0f, tm));
  // Half hours: 1970-01-01 00:00:10 at +5:30.
  ASSERT_TRUE(qv::unix_to_tm(10, 5.5f, tm));
  EXPECT_EQ(tm.tm_hour, 5);
  EXPECT_EQ(tm.tm_min, 30);
  EXPECT_EQ(tm.tm_sec, 10);
  EXPECT_EQ(tm.tm_wday, 4);
}

TEST(QvTime, LocalOffsetMovesTheYear3001Bound) {
  {
    zone_guard est("EST5");
    EXPECT_EQ(qv::local_offset_seconds(), -18000);
    // Five hours into 3001 the local time is still in 3000.
    qv::time early3001(k3001, qv::type_filetime);
    EXPECT_TRUE(early3001.is_valid());
    EXPECT_FALSE(early3001.no_local_tm);
    EXPECT_EQ(early3001.local_tm.tm_year, 1100);
    EXPECT_EQ(early3001.local_tm.tm_hour, 19);
    EXPECT_TRUE(qv::time(k3001 + 18000 * kSecond - 1, qv::type_filetime).is_valid());
    EXPECT_FALSE(qv::time(k3001 + 18000 * kSecond, qv::type_filetime).is_valid());
    // An ordinary stamp: local_tm five hours back, utc untouched.
    qv::time t(uint64_t{133536879301234567ULL}, qv::type_filetime);
    EXPECT_EQ(t.local_tm.tm_hour, 8);
    EXPECT_EQ(t.hour(), 13u);
    // The first hours of 1970 shift before 1970: no local form, still valid.
    qv::time t1970(kEpoch1970 + 60 * kSecond, qv::type_filetime);
    EXPECT_TRUE(t1970.is_valid());
    EXPECT_TRUE(t1970.no_local_tm);
  }
  {
    zone_guard jst("JST-9");
    EXPECT_EQ(qv::local_offset_seconds(), 32400);
    qv::time late3000(k3001 - 1, qv::type_filetime);
    EXPECT_TRUE(late3000.is_valid());
    EXPECT_TRUE(late3000.no_local_tm);
    EXPECT_FALSE(qv::time(k3001, qv::type_filetime).is_valid());
  }
}

// The fast date test must agree with the full construction everywhere.
TEST(QvTime, FastDateTestMatchesConstruction) {
  const char* zones[] = {"UTC0", "EST5", "JST-9", "IST-5:30", "NST3:30", "LMT4:56:02"};
  std::vector<uint64_t> values;
  const uint64_t marks[] = {0,
                            1,
                            k1900,
                            kEpoch1970,
                            kEpoch1970 + kSecond,
                            k3001,
                            k3001 + 12600 * kSecond,
                            k3001 + 17762 * kSecond,
                            k3001 + 18000 * kSecond,
                            0x7FFFFFFFFFFFFFFFULL,
                            0x8000000000000000ULL,
                            0xFFFFFFFFFFFFFFFFULL};
  const int64_t deltas[] = {-10000001, -10000000, -9999999, -2, -1, 0, 1, 2, 9999999, 10000000};
  for (uint64_t m : marks)
    for (int64_t d : deltas) values.push_back(m + static_cast<uint64_t>(d));
  uint64_t state = 0x9E3779B97F4A7C15ULL;
  auto next = [&] {
    state = state * 6364136223846793005ULL + 1442695040888963407ULL;
    return state ^ (state >> 29);
  };
  for (int i = 0; i < 20000; ++i) {
    values.push_back(next());
    values.push_back(k1900 - 1000 * kSecond + next() % (k3001 - k1900 + 40000 * kSecond));
    values.push_back(k3001 - 50000 * kSecond + next() % (100000 * kSecond));
  }
  for (const char* zone : zones) {
    zone_guard g(zone);
    int mismatches = 0;
    for (uint64_t v : values) {
      const bool full = qv::time(v, qv::type_filetime).is_valid();
      if (full != qv::is_valid_filetime(v) && ++mismatches <= 5)
        ADD_FAILURE() << "zone " << zone << " ticks " << v << " full " << full;
    }
    EXPECT_EQ(mismatches, 0) << zone;
  }
}

TEST(QvTime, IntegerKinds) {
  zone_guard utc("UTC0");
  EXPECT_EQ(qv::time(uint64_t{13345678901234567ULL}, qv::type_chrome).get_filetime(),
            133456789012345670ULL);

  qv::time ff(uint64_t{1700000000123456ULL}, qv::type_firefox3);
  EXPECT_EQ(ff.get_filetime(), 133444736001234560ULL);
  EXPECT_EQ(ff.microsecond(), 123456u);

  qv::time unix_t(uint64_t{1700000000}, qv::type_unix);
  EXPECT_TRUE(unix_t.is_valid());
  expect_utc(unix_t, 2023, 11, 14, 22, 13, 20);
  EXPECT_EQ(unix_t.unix_seconds, 1700000000u);

  qv::time unix0(uint64_t{0}, qv::type_unix);
  EXPECT_FALSE(unix0.is_valid());
  EXPECT_EQ(unix0.unix_seconds, 0u);
  EXPECT_EQ(unix0.get_filetime(), kEpoch1970);
  EXPECT_EQ(unix0.utc.wYear, 0);
  EXPECT_EQ(unix0.dos_stamp.date, 0);
  EXPECT_FALSE(qv::time(int64_t{-1}, qv::type_unix).is_valid());
  EXPECT_EQ(qv::time(int64_t{-1}, qv::type_unix).unix_seconds, 0u);

  qv::time ms(uint64_t{1700000000123ULL}, qv::type_unix_millisec);
  EXPECT_EQ(ms.get_filetime(), 133444736001230000ULL);
  EXPECT_EQ(ms.millisecond(), 123u);
  EXPECT_FALSE(qv::time(uint64_t{999}, qv::type_unix_millisec).is_valid());
  qv::time ms1000(uint64_t{1000}, qv::type_unix_millisec);
  EXPECT_TRUE(ms1000.is_valid());
  expect_utc(ms1000, 1970, 1, 1, 0, 0, 1);
  EXPECT_FALSE(qv::time(int64_t{999}, qv::type_unix_millisec).is_valid());

  // OLE days only through the signed constructor; .NET ticks only unsigned.
  EXPECT_FALSE(qv::time(uint64_t{45000}, qv::type_ole).is_valid());
  EXPECT_EQ(qv::time(uint64_t{45000}, qv::type_ole).get_filetime(), 0u);
  qv::time ole(int64_t{45000}, qv::type_ole);
  EXPECT_TRUE(ole.is_valid());
  expect_utc(ole, 2023, 3, 15, 0, 0, 0);
  qv::time ole0(int64_t{0}, qv::type_ole);  // 1899-12-30
  EXPECT_FALSE(ole0.is_valid());
  EXPECT_EQ(ole0.get_filetime(), 94353120000000000ULL);

  qv::time cs(uint64_t{638396640000000000ULL}, qv::type_csharp);
  EXPECT_EQ(cs.get_filetime(), 133485408000000000ULL);
  expect_utc(cs, 2024, 1, 1, 0, 0, 0);
  EXPECT_FALSE(qv::time(int64_t{638396640000000000LL}, qv::type_csharp).is_valid());
  EXPECT_FALSE(qv::time(uint64_t{1}, qv::type_csharp).is_valid());  // before 1601

  // VHD: base at 17:00, only the low 32 bits count.
  expect_utc(qv::time(uint64_t{0}, qv::type_vhd), 2000, 1, 1, 17, 0, 0);
  expect_utc(qv::time((uint64_t{1} << 32) | 5, qv::type_vhd), 2000, 1, 1, 17, 0, 5);

  // Snowflake: a published identifier and the epoch itself.
  qv::time sf(uint64_t{175928847299117063ULL}, qv::type_snowflake);
  expect_utc(sf, 2016, 4, 30, 11, 18, 25);
  EXPECT_EQ(sf.millisecond(), 796u);
  EXPECT_EQ(qv::time(uint64_t{0}, qv::type_snowflake).get_filetime(), 130645440000000000ULL);
  qv::time sf_neg(int64_t{-(int64_t{1} << 22)}, qv::type_snowflake);
  expect_utc(sf_neg, 2014, 12, 31, 23, 59, 59);
  EXPECT_EQ(sf_neg.millisecond(), 999u);
  EXPECT_EQ(qv::time(uint64_t{0xFFFFFFFFFFC00000ULL}, qv::type_snowflake).get_filetime(),
            sf_neg.get_filetime());

  // Safari: up to 2^32 - 1 seconds, above that nanoseconds whose low seven
  // digits become the fraction.
  qv::time sa(uint64_t{4294967295ULL}, qv::type_safari);
  expect_utc(sa, 2137, 2, 7, 6, 28, 15);
  qv::time sa_ns(uint64_t{4294967296ULL}, qv::type_safari);
  expect_utc(sa_ns, 2001, 1, 1, 0, 0, 4);
  EXPECT_EQ(sa_ns.get_filetime() % kSecond, 4967296u);
  qv::time sa_big(uint64_t{700000000123456789ULL}, qv::type_safari);
  expect_utc(sa_big, 2023, 3, 8, 20, 26, 40);
  EXPECT_EQ(sa_big.microsecond(), 345678u);
  EXPECT_EQ(qv::time(int64_t{700000000123456789LL}, qv::type_safari).get_filetime(),
            sa_big.get_filetime());
  expect_utc(qv::time(int64_t{-1}, qv::type_safari), 2000, 12, 31, 23, 59, 59);

  qv::time hfs(uint64_t{0}, qv::type_hfsplus);
  EXPECT_TRUE(hfs.is_valid());
  expect_utc(hfs, 1904, 1, 1, 0, 0, 0);

  for (qv::type_time k : {qv::type_dos, qv::type_ntp, qv::type_guid, qv::type_systemtime,
                          qv::type_systemtime2, qv::type_qpc}) {
    qv::time u(uint64_t{133536879301234567ULL}, k);
    qv::time s(int64_t{133536879301234567LL}, k);
    EXPECT_FALSE(u.is_valid()) << k;
    EXPECT_EQ(u.get_filetime(), 0u) << k;
    EXPECT_FALSE(s.is_valid()) << k;
    EXPECT_EQ(s.get_filetime(), 0u) << k;
  }
}

TEST(QvTime, FloatingKinds) {
  zone_guard utc("UTC0");
  qv::time ole(45000.5, qv::type_ole);
  expect_utc(ole, 2023, 3, 15, 12, 0, 0);

  qv::time u(1700000000.25, qv::type_unix);
  expect_utc(u, 2023, 11, 14, 22, 13, 20);
  EXPECT_EQ(u.millisecond(), 250u);
  // Milliseconds are read as seconds in this form.
  EXPECT_EQ(qv::time(1700000000.25, qv::type_unix_millisec).get_filetime(), u.get_filetime());

  qv::time sa(0.5, qv::type_safari);
  expect_utc(sa, 2001, 1, 1, 0, 0, 0);
  EXPECT_EQ(sa.millisecond(), 500u);

  qv::time before(-1.5, qv::type_unix);
  EXPECT_EQ(before.get_filetime(), kEpoch1970 - 15000000);
  expect_utc(before, 1969, 12, 31, 23, 59, 58);

  EXPECT_FALSE(qv::time(1.0e17, qv::type_filetime).is_valid());
  EXPECT_EQ(qv::time(1.0e17, qv::type_filetime).get_filetime(), 0u);
  EXPECT_FALSE(qv::time(std::numeric_limits<double>::quiet_NaN(), qv::type_unix).is_valid());
  EXPECT_FALSE(qv::time(1.0e300, qv::type_ole).is_valid());
  EXPECT_FALSE(qv::time(-1.0e6, qv::type_ole).is_valid());
}

TEST(QvTime, SystemtimeConstruction) {
  zone_guard utc("UTC0");
  auto make = [](int y, int mo, int d, int h, int ms) {
    qv::_windows_systemtime st;
    st.wYear = static_cast<uint16_t>(y);
    st.wMonth = static_cast<uint16_t>(mo);
    st.wDay = static_cast<uint16_t>(d);
    st.wHour = static_cast<uint16_t>(h);
    st.wMilliseconds = static_cast<uint16_t>(ms);
    return qv::time(st);
  };
  // The leap rule of this direction looks at years since 1900: 2000 is plain.
  qv::time y2000 = make(2000, 3, 1, 12, 0);
  EXPECT_TRUE(y2000.is_valid());
  expect_utc(y2000, 2000, 2, 29, 12, 0, 0);
  expect_utc(make(2004, 3, 1, 12, 0), 2004, 3, 1, 12, 0, 0);
  expect_utc(make(2004, 2, 29, 0, 0), 2004, 2, 29, 0, 0, 0);
  // Month 0 folds into December of the year before; 13 into the next January.
  expect_utc(make(2005, 0, 15, 0, 0), 2004, 12, 15, 0, 0, 0);
  expect_utc(make(2004, 13, 1, 0, 0), 2005, 1, 1, 0, 0, 0);
  // No range checks: the hour carries.
  expect_utc(make(2024, 1, 15, 25, 0), 2024, 1, 16, 1, 0, 0);
  qv::time with_ms = make(2024, 1, 15, 0, 500);
  EXPECT_EQ(with_ms.millisecond(), 500u);
  EXPECT_EQ(with_ms.filetime_parts.dwLowDateTime,
            static_cast<uint32_t>(with_ms.get_filetime()));

  qv::time y1600 = make(1600, 1, 1, 0, 0);
  EXPECT_FALSE(y1600.is_valid());
  EXPECT_TRUE(static_cast<int64_t>(y1600.get_filetime()) < 0);
  EXPECT_FALSE(qv::time(qv::_windows_systemtime()).is_valid());

  struct tm t {};
  t.tm_year = 400;  // 2300 counts as leap here: March 1 lands on March 2
  t.tm_mon = 2;
  t.tm_mday = 1;
  EXPECT_EQ(qv::filetime_from_tm(t, 0), 220634496000000000ULL);
  t.tm_year = 500;  // 2400 counts as plain: March 1 lands on February 29
  EXPECT_EQ(qv::filetime_from_tm(t, 0), 252190368000000000ULL);
  t = tm{};
  t.tm_year = 124;
  t.tm_mon = 0;
  t.tm_mday = 15;
  t.tm_hour = 9;
  t.tm_min = 5;
  t.tm_sec = 3;
  EXPECT_EQ(qv::filetime_from_tm(t, 7), 133497831030070000ULL);

  qv::_windows_systemtime st;
  st.wYear = 2024;
  st.wMonth = 1;
  st.wDay = 15;
  st.wHour = 9;
  st.wMinute = 5;
  st.wSecond = 3;
  st.wDayOfWeek = 6;  // ignored
  qv::filetime_pair pair;
  EXPECT_TRUE(qv::filetime_from_systemtime(st, pair));
  EXPECT_EQ((uint64_t{pair.dwHighDateTime} << 32) | pair.dwLowDateTime, 133497831030000000ULL);
}

TEST(QvTime, DosStamps) {
  zone_guard utc("UTC0");
  auto at = [](int y, int mo, int d, int h, int mi, int s) {
    qv::_windows_systemtime st;
    st.wYear = static_cast<uint16_t>(y);
    st.wMonth = static_cast<uint16_t>(mo);
    st.wDay = static_cast<uint16_t>(d);
    st.wHour = static_cast<uint16_t>(h);
    st.wMinute = static_cast<uint16_t>(mi);
    st.wSecond = static_cast<uint16_t>(s);
    return qv::filetime_to_dos(st);
  };
  qv::dos_stamp_words w = at(1980, 1, 1, 0, 0, 1);
  EXPECT_EQ(w.date, 33);  // day 1, month 1, year 0
  EXPECT_EQ(w.time, 1);   // odd second rounds up
  w = at(2037, 12, 31, 23, 59, 59);
  EXPECT_EQ(w.date, 29599);  // 31 | 12 << 5 | 57 << 9
  EXPECT_EQ(w.time, 49022);  // 23 << 11 | 59 << 5 | 30
  w = at(2038, 1, 1, 0, 0, 0);
  EXPECT_EQ(w.date, 0);
  EXPECT_EQ(w.time, 0);
  w = at(1979, 12, 31, 23, 59, 58);
  EXPECT_EQ(w.date, 0);
  EXPECT_EQ(w.time, 0);
  // Through the constructor: a 2038 moment has no DOS form.
  qv::time t2038(uint64_t{2147483648ULL}, qv::type_unix);  // 2038-01-19
  EXPECT_TRUE(t2038.is_valid());
  EXPECT_EQ(t2038.dos_stamp.date, 0);
  EXPECT_EQ(t2038.dos_stamp.time, 0);
}

TEST(QvTime, PresentMomentAndNtp) {
  const std::time_t before = std::time(nullptr);
  qv::time now = qv::qv_time_now();
  const qv::ntp_stamp stamp = qv::ntp_now();
  EXPECT_TRUE(now.is_valid());
  EXPECT_LE(static_cast<uint64_t>(before), now.unix_seconds);
  EXPECT_LE(now.unix_seconds, static_cast<uint64_t>(before) + 5);

  // Big-endian words: read the bytes back in order.
  uint8_t b[8];
  std::memcpy(b, &stamp.seconds_be, 4);
  std::memcpy(b + 4, &stamp.fraction_be, 4);
  const uint64_t secs = (uint64_t{b[0]} << 24) | (b[1] << 16) | (b[2] << 8) | b[3];
  EXPECT_NEAR(static_cast<double>(secs), static_cast<double>(before) + 2208988800.0, 5.0);
  EXPECT_EQ(b[4] | b[5] | b[6] | b[7], 0);

  auto make = [](uint32_t s, uint32_t f) {
    const uint8_t bytes[8] = {uint8_t(s >> 24), uint8_t(s >> 16), uint8_t(s >> 8), uint8_t(s),
                              uint8_t(f >> 24), uint8_t(f >> 16), uint8_t(f >> 8), uint8_t(f)};
    qv::ntp_stamp n;
    std::memcpy(&n.seconds_be, bytes, 4);
    std::memcpy(&n.fraction_be, bytes + 4, 4);
    return n;
  };
  EXPECT_DOUBLE_EQ(qv::ntp_seconds_between(make(100, 0x80000000u), make(98, 0)), 2.5);
  EXPECT_DOUBLE_EQ(qv::ntp_seconds_between(make(98, 0), make(100, 0x80000000u)), 2.5);
  EXPECT_DOUBLE_EQ(qv::ntp_seconds_between(make(0x01020304u, 0), make(0x01020304u, 0)), 0.0);
}

// Arbitrary bit patterns for every kind and every field: no trap (the
// sanitizer build checks overflow and bounds), and whatever comes out valid
// is a real calendar moment inside the accepted years.
TEST(QvTime, ArbitraryInputStaysInBounds) {
  zone_guard est("EST5");
  uint64_t state = 12345;
  auto next = [&] {
    state = state * 6364136223846793005ULL + 1442695040888963407ULL;
    return state ^ (state >> 31);
  };
  auto check = [](const qv::time& t) {
    if (!t.is_valid()) return;
    EXPECT_GE(t.year(), 1900u);
    EXPECT_LE(t.year(), 3001u);
    EXPECT_GE(t.month(), 1u);
    EXPECT_LE(t.month(), 12u);
    EXPECT_GE(t.day(), 1u);
    EXPECT_LE(t.day(), 31u);
    EXPECT_LE(t.hour(), 23u);
    EXPECT_TRUE(qv::is_valid_filetime(t.get_filetime()));
  };
  for (int i = 0; i < 3000; ++i) {
    const uint64_t v = next();
    double d;
    std::memcpy(&d, &v, sizeof d);
    for (uint32_t bit = 0; bit < 20; ++bit) {
      const auto kind = static_cast<qv::type_time>(1u << bit);
      check(qv::time(v, kind));
      check(qv::time(static_cast<int64_t>(v), kind));
      check(qv::time(v >> (i % 64), kind));
      check(qv::time(d, kind));
      check(qv::time(static_cast<double>(static_cast<int64_t>(v) >> (i % 64)), kind));
    }
    qv::_windows_systemtime st;
    st.wYear = static_cast<uint16_t>(v);
    st.wMonth = static_cast<uint16_t>(v >> 16);
    st.wDay = static_cast<uint16_t>(v >> 32);
    st.wHour = static_cast<uint16_t>(v >> 48);
    st.wMinute = static_cast<uint16_t>(v >> 8);
    st.wSecond = static_cast<uint16_t>(v >> 24);
    st.wMilliseconds = static_cast<uint16_t>(v >> 40);
    check(qv::time(st));
    struct tm tm {};
    qv::unix_to_tm(v, static_cast<float>(d), tm);
  }
}

TEST(QvTime, KindLabels) {
  const std::pair<uint32_t, const char*> labels[] = {
      {1, "filetime"},        {2, "chrome"},         {4, "firefox3"},
      {8, "unix time"},       {16, "unix millisec time"}, {32, "dos time"},
      {64, "ntp"},            {128, "guid"},         {256, "ole"},
      {512, "system time"},   {1024, "system time"}, {2048, "VHD time"},
      {4096, "QPC time"},     {32768, "c# time"},    {131072, "snowflake time"},
      {262144, "safari time"}, {524288, "hfs+ time"}};
  for (const auto& [kind, label] : labels) EXPECT_STREQ(qv::type_time_label(kind), label);
  for (uint32_t kind : {0u, 3u, 8192u, 16384u, 65536u, 1048576u})
    EXPECT_STREQ(qv::type_time_label(kind), "") << kind;
}

}  // namespace
