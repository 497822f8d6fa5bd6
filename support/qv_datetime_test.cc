#include "support/qv_datetime.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace {

// 2024-01-15 09:05:03.1234567 UTC.
constexpr uint64_t kStamp = 133497831031234567ULL;
// 2024-01-15 09:05:03.0001234 UTC: small fractions need their leading zeros.
constexpr uint64_t kSmallFraction = 133497831030001234ULL;
// 2024-01-15 23:59:59.9999999 UTC: cut, never rounded into the next day.
constexpr uint64_t kLastTick = 133498367999999999ULL;

qv::datetime_format compile(const std::string& date, const std::string& time,
                            bool pair = false) {
  qv::datetime_format f;
  qv::parse_datetime_format(f, date, time, pair);
  return f;
}

std::string date_of(uint64_t ticks, const qv::datetime_format& f) {
  std::string d, t;
  qv::format_datetime(d, t, qv::time(ticks, qv::type_filetime), f);
  return d;
}

std::string time_of(uint64_t ticks, const qv::datetime_format& f) {
  std::string d, t;
  qv::format_datetime(d, t, qv::time(ticks, qv::type_filetime), f);
  return t;
}

TEST(QvDatetime, CompileFormats) {
  qv::datetime_format f;
  ASSERT_TRUE(qv::parse_datetime_format(f, "yyyy-mm-dd", "hh:mm:ss.xxx", false));
  EXPECT_EQ(f.separator, '-');
  EXPECT_EQ(f.date_flags, 2 | 4 | 128);
  EXPECT_EQ(f.time_flags, 3 << 1);
  EXPECT_EQ(f.fraction_digits(), 3u);
  EXPECT_EQ(f.year_floor, 1900);
  EXPECT_EQ(f.year_ceiling, 2600);
  EXPECT_TRUE(f.is_set());

  ASSERT_TRUE(qv::parse_datetime_format(f, "mm/dd/yy", "hh:mm:ss", true));
  EXPECT_EQ(f.separator, '/');
  EXPECT_EQ(f.date_flags, 2 | 8 | 64);
  EXPECT_EQ(f.time_flags, 1);  // pair flag, no fraction

  ASSERT_TRUE(qv::parse_datetime_format(f, "dd-mmm-yy ", "", false));
  EXPECT_EQ(f.separator, '-');  // '-' is looked for before the blank
  EXPECT_EQ(f.date_flags, 1 | 8 | 32);

  ASSERT_TRUE(qv::parse_datetime_format(f, "mmm dd, yyyy", "", false));
  EXPECT_EQ(f.separator, ' ');
  EXPECT_EQ(f.date_flags, 1 | 4 | 16 | 64);

  ASSERT_TRUE(qv::parse_datetime_format(f, "yyyymmdd", "", false));
  EXPECT_EQ(f.separator, 0);
  EXPECT_EQ(f.date_flags, 2 | 4 | 128);

  // Order test fails: the flags found so far stay, the time text is ignored.
  EXPECT_FALSE(qv::parse_datetime_format(f, "yyyy/dd/mm", "hh:mm:ss.xxxxxx", true));
  EXPECT_EQ(f.separator, '/');
  EXPECT_EQ(f.date_flags, 2 | 4);
  EXPECT_EQ(f.time_flags, 1);

  EXPECT_FALSE(qv::parse_datetime_format(f, "abcdefgh", "hh:mm:ss.xxx", false));
  EXPECT_FALSE(f.is_set());
  EXPECT_FALSE(qv::parse_datetime_format(f, "mm-dd-xx", "", false));  // no year
  EXPECT_EQ(f.date_flags, 2);
  EXPECT_FALSE(qv::parse_datetime_format(f, "mm-yyyy", "", false));  // no day
  EXPECT_EQ(f.date_flags, 2 | 4);

  // Fraction digits: from the first "xxx" to the last "x", capped at 9.
  const std::pair<const char*, uint32_t> fractions[] = {
      {"hh:mm:ss", 0},           {"hh:mm:ss.xx", 0},          {"hh:mm:ss.xxxx", 4},
      {"hh:mm:ss.xxxxxxxxx", 9}, {"hh:mm:ss.xxxxxxxxxxxx", 9}, {"hh:mm:ss.xxx  x", 6}};
  for (const auto& [text, digits] : fractions) {
    ASSERT_TRUE(qv::parse_datetime_format(f, "", text, false));
    EXPECT_EQ(f.fraction_digits(), digits) << text;
    EXPECT_EQ(f.date_flags, 0);
  }
}

TEST(QvDatetime, DateLayouts) {
  EXPECT_EQ(date_of(kStamp, compile("yyyy-mm-dd", "")), "2024-01-15");
  EXPECT_EQ(date_of(kStamp, compile("yyyy/mm/dd", "")), "2024/01/15");
  // Two-digit year forms only lower the minimum width.
  EXPECT_EQ(date_of(kStamp, compile("mm/dd/yy", "")), "01/15/2024");
  EXPECT_EQ(date_of(kStamp, compile("dd/mm/yyyy", "")), "15/01/2024");
  EXPECT_EQ(date_of(kStamp, compile("dd-mmm-yy ", "")), "15-Jan-2024");
  EXPECT_EQ(date_of(kStamp, compile("mmm-dd-yy ", "")), "Jan-15-2024");
  EXPECT_EQ(date_of(kStamp, compile("dd mmm yyyy", "")), "15 Jan 2024");
  // Year first with a month name has no layout.
  EXPECT_EQ(date_of(kStamp, compile("yyyy-mmm-dd", "")), "");
  // No separator: a zero character stands in its place.
  EXPECT_EQ(date_of(kStamp, compile("yyyymmdd", "")), std::string("2024\0" "01\0" "15", 10));
  // A rejected order leaves no date and no fraction.
  const qv::datetime_format bad = compile("yyyy/dd/mm", "hh:mm:ss.xxx");
  EXPECT_EQ(date_of(kStamp, bad), "");
  EXPECT_EQ(time_of(kStamp, bad), "09:05:03");
  // December, for the name table's other end.
  EXPECT_EQ(date_of(133800000000000000ULL, compile("dd-mmm-yy ", "")), "30-Dec-2024");
}

TEST(QvDatetime, FractionDigits) {
  const char* fmts[] = {"hh:mm:ss",        "hh:mm:ss.x",       "hh:mm:ss.xx",
                        "hh:mm:ss.xxx",    "hh:mm:ss.xxxx",    "hh:mm:ss.xxxxx",
                        "hh:mm:ss.xxxxxx", "hh:mm:ss.xxxxxxx", "hh:mm:ss.xxxxxxxx",
                        "hh:mm:ss.xxxxxxxxx"};
  const char* full[] = {"09:05:03",          "",                  "",
                        "09:05:03.123",      "09:05:03.1234",     "09:05:03.12345",
                        "09:05:03.123456",   "09:05:03.1234567",  "09:05:03.12345670",
                        "09:05:03.123456700"};
  const char* small[] = {"09:05:03",         "",                  "",
                         "09:05:03.000",     "09:05:03.0001",     "09:05:03.00012",
                         "09:05:03.000123",  "09:05:03.0001234",  "09:05:03.00012340",
                         "09:05:03.000123400"};
  const char* last[] = {"23:59:59",          "",                  "",
                        "23:59:59.999",      "23:59:59.9999",     "23:59:59.99999",
                        "23:59:59.999999",   "23:59:59.9999999",  "23:59:59.99999990",
                        "23:59:59.999999900"};
  for (int d = 0; d < 10; ++d) {
    if (d == 1 || d == 2) continue;  // "x" and "xx" hold no "xxx"
    const qv::datetime_format f = compile("yyyy-mm-dd", fmts[d]);
    EXPECT_EQ(time_of(kStamp, f), full[d]) << d;
    EXPECT_EQ(time_of(kSmallFraction, f), small[d]) << d;
    EXPECT_EQ(time_of(kLastTick, f), last[d]) << d;
    EXPECT_EQ(date_of(kLastTick, f), "2024-01-15") << d;
  }
  // One and two digits are reachable only by setting the count directly.
  qv::datetime_format f = compile("yyyy-mm-dd", "");
  f.time_flags = 1 << 1;
  EXPECT_EQ(time_of(kStamp, f), "09:05:03.1");
  EXPECT_EQ(time_of(kLastTick, f), "23:59:59.9");
  f.time_flags = 2 << 1;
  EXPECT_EQ(time_of(kSmallFraction, f), "09:05:03.00");
  EXPECT_EQ(time_of(kStamp, f), "09:05:03.12");
}

TEST(QvDatetime, FormatResultsAndAppending) {
  const qv::datetime_format f = compile("dd/mm/yyyy", "hh:mm:ss.xxxxxx", true);
  std::string d = "old", t = "old";
  EXPECT_TRUE(qv::format_datetime(d, t, qv::time(kStamp, qv::type_filetime), f));
  EXPECT_EQ(d, "15/01/2024");
  EXPECT_EQ(t, "09:05:03.123456");

  // Not valid: both texts empty.
  EXPECT_FALSE(qv::format_datetime(d, t, qv::time(uint64_t{0}, qv::type_filetime), f));
  EXPECT_EQ(d, "");
  EXPECT_EQ(t, "");

  // Not set: the default forms are filled, and the result says so.
  EXPECT_FALSE(qv::format_datetime(d, t, qv::time(kStamp, qv::type_filetime),
                                   qv::datetime_format()));
  EXPECT_EQ(d, "2024-01-15");
  EXPECT_EQ(t, "09:05:03.123");

  std::string row = "a,";
  qv::append_date(row, qv::time(kStamp, qv::type_filetime), f);
  row += ',';
  qv::append_time(row, qv::time(kStamp, qv::type_filetime), f);
  row += ',';
  qv::append_time(row, qv::time(uint64_t{1}, qv::type_filetime), f);  // not valid
  EXPECT_EQ(row, "a,15/01/2024,09:05:03.123456,");
}

TEST(QvDatetime, FixedForm) {
  std::ostringstream os;
  os << qv::time(kStamp, qv::type_filetime) << '|' << qv::time(uint64_t{0}, qv::type_filetime)
     << '|';
  EXPECT_EQ(os.str(), "2024-01-15 09:05:03.123| |");
  std::string s = ">";
  qv::append_fixed_datetime(s, qv::time(kSmallFraction, qv::type_filetime));
  EXPECT_EQ(s, ">2024-01-15 09:05:03.000");

  EXPECT_STREQ(qv::month_abbreviation(0), "");
  EXPECT_STREQ(qv::month_abbreviation(1), "Jan");
  EXPECT_STREQ(qv::month_abbreviation(6), "Jun");
  EXPECT_STREQ(qv::month_abbreviation(12), "Dec");
  EXPECT_STREQ(qv::month_abbreviation(13), "");
}

TEST(QvDatetime, ParseDateText) {
  uint32_t d = 9, m = 9, y = 9;
  ASSERT_TRUE(qv::parse_date_text("2024/01/15", "YMD", '/', d, m, y));
  EXPECT_EQ(y, 2024u);
  EXPECT_EQ(m, 1u);
  EXPECT_EQ(d, 15u);
  ASSERT_TRUE(qv::parse_date_text("15-01-2024", "DMY", '-', d, m, y));
  EXPECT_EQ(y, 2024u);
  EXPECT_EQ(d, 15u);

  // Year windows.
  ASSERT_TRUE(qv::parse_date_text("30/1/2", "YMD", '/', d, m, y));
  EXPECT_EQ(y, 2030u);
  EXPECT_EQ(m, 1u);
  EXPECT_EQ(d, 2u);
  ASSERT_TRUE(qv::parse_date_text("31/1/2", "YMD", '/', d, m, y));
  EXPECT_EQ(y, 1931u);
  ASSERT_TRUE(qv::parse_date_text("99/1/2", "YMD", '/', d, m, y));
  EXPECT_EQ(y, 1999u);
  ASSERT_TRUE(qv::parse_date_text("0/1/2", "YMD", '/', d, m, y));
  EXPECT_EQ(y, 2000u);
  ASSERT_TRUE(qv::parse_date_text("100/1/2", "YMD", '/', d, m, y));
  EXPECT_EQ(y, 100u);

  // Doubled separators: up to three empty tokens are passed over per part.
  ASSERT_TRUE(qv::parse_date_text("2024//1///15", "YMD", '/', d, m, y));
  EXPECT_EQ(m, 1u);
  EXPECT_EQ(d, 15u);
  ASSERT_TRUE(qv::parse_date_text("2024////1/15", "YMD", '/', d, m, y));
  EXPECT_FALSE(qv::parse_date_text("2024/////1/15", "YMD", '/', d, m, y));

  // Limits: month 12 and day 31 at most, zero allowed.
  EXPECT_TRUE(qv::parse_date_text("2024/12/31", "YMD", '/', d, m, y));
  EXPECT_TRUE(qv::parse_date_text("2024/0/0", "YMD", '/', d, m, y));
  EXPECT_FALSE(qv::parse_date_text("2024/13/1", "YMD", '/', d, m, y));
  EXPECT_FALSE(qv::parse_date_text("2024/1/32", "YMD", '/', d, m, y));

  // Refusals, with the results back at zero.
  EXPECT_FALSE(qv::parse_date_text("2024/01", "YMD", '/', d, m, y));
  EXPECT_FALSE(qv::parse_date_text("2024/01/", "YMD", '/', d, m, y));
  EXPECT_FALSE(qv::parse_date_text("", "YMD", '/', d, m, y));
  EXPECT_FALSE(qv::parse_date_text("2024/ab/15", "YMD", '/', d, m, y));
  EXPECT_FALSE(qv::parse_date_text("/2024/1/15", "YMD", '/', d, m, y));
  EXPECT_FALSE(qv::parse_date_text("2024/1/15", "YM", '/', d, m, y));
  EXPECT_FALSE(qv::parse_date_text("2024/1/15", "YMX", '/', d, m, y));
  EXPECT_FALSE(qv::parse_date_text("2024/1/15", "ymd", '/', d, m, y));
  EXPECT_EQ(d + m + y, 0u);
}

TEST(QvDatetime, ParseTimeText) {
  double h = -1, m = -1, s = -1;
  ASSERT_TRUE(qv::parse_time_text("5:07", h, m, s));
  EXPECT_EQ(h, 5);
  EXPECT_EQ(m, 7);
  EXPECT_EQ(s, 0);
  EXPECT_FALSE(qv::parse_time_text("5", h, m, s));
  EXPECT_FALSE(qv::parse_time_text("", h, m, s));
  EXPECT_FALSE(qv::parse_time_text("5:", h, m, s));  // empty minute

  ASSERT_TRUE(qv::parse_time_text(" \t13:45:30.25\r\n", h, m, s));
  EXPECT_EQ(h, 13);
  EXPECT_EQ(m, 45);
  EXPECT_DOUBLE_EQ(s, 30.25);

  // pm adds twelve, even to twelve; am changes nothing.
  ASSERT_TRUE(qv::parse_time_text("12:30 pm", h, m, s));
  EXPECT_EQ(h, 24);
  EXPECT_EQ(m, 30);
  ASSERT_TRUE(qv::parse_time_text("12:30 am", h, m, s));
  EXPECT_EQ(h, 12);
  ASSERT_TRUE(qv::parse_time_text("5:07PM", h, m, s));
  EXPECT_EQ(h, 17);
  EXPECT_EQ(m, 7);
  ASSERT_TRUE(qv::parse_time_text("1:02:03.5 pm", h, m, s));
  EXPECT_EQ(h, 13);
  EXPECT_EQ(m, 2);
  EXPECT_DOUBLE_EQ(s, 3.5);

  // Hour and minute are truncated; seconds keep their fraction.
  ASSERT_TRUE(qv::parse_time_text("7.9:8.9:1.75", h, m, s));
  EXPECT_EQ(h, 7);
  EXPECT_EQ(m, 8);
  EXPECT_DOUBLE_EQ(s, 1.75);

  // Minute text of 31 characters passes, 32 fails.
  EXPECT_TRUE(qv::parse_time_text("1:" + std::string(31, '0'), h, m, s));
  EXPECT_FALSE(qv::parse_time_text("1:" + std::string(32, '0'), h, m, s));
}

TEST(QvDatetime, ParseDateTimeText) {
  qv::_windows_systemtime st;
  ASSERT_TRUE(qv::parse_date_time_text("2024/01/15", "13:45:30.25", "YMD", '/', st));
  EXPECT_EQ(st.wYear, 2024);
  EXPECT_EQ(st.wMonth, 1);
  EXPECT_EQ(st.wDay, 15);
  EXPECT_EQ(st.wHour, 13);
  EXPECT_EQ(st.wMinute, 45);
  EXPECT_EQ(st.wSecond, 30);
  EXPECT_EQ(st.wMilliseconds, 250);
  EXPECT_EQ(st.wDayOfWeek, 0);

  ASSERT_TRUE(qv::parse_date_time_text("24-1-2", "", "YMD", '-', st));
  EXPECT_EQ(st.wYear, 2024);
  EXPECT_EQ(st.wHour, 0);
  EXPECT_EQ(st.wMilliseconds, 0);
  // Milliseconds round to the nearest.
  ASSERT_TRUE(qv::parse_date_time_text("2024/1/2", "0:0:1.0006", "YMD", '/', st));
  EXPECT_EQ(st.wSecond, 1);
  EXPECT_EQ(st.wMilliseconds, 1);

  EXPECT_FALSE(qv::parse_date_time_text("", "13:45", "YMD", '/', st));
  EXPECT_FALSE(qv::parse_date_time_text("2024/13/1", "13:45", "YMD", '/', st));
  EXPECT_FALSE(qv::parse_date_time_text("2024/1/1", "1345", "YMD", '/', st));
  EXPECT_FALSE(qv::parse_date_time_text("70000/1/1", "", "YMD", '/', st));
  EXPECT_FALSE(qv::parse_date_time_text("2024/1/1", "-1:00", "YMD", '/', st));

  // The round trip the start and stop options take.
  ASSERT_TRUE(qv::parse_date_time_text("2024/01/15", "09:05:03", "YMD", '/', st));
  qv::filetime_pair p;
  qv::filetime_from_systemtime(st, p);
  EXPECT_EQ((uint64_t{p.dwHighDateTime} << 32) | p.dwLowDateTime, 133497831030000000ULL);
}

// Arbitrary texts: no trap, and an accepted date respects its limits.
TEST(QvDatetime, ArbitraryTexts) {
  const char alphabet[] = "0123456789/-: .,apmxydhsAPMX\t";
  uint64_t state = 99;
  auto next = [&] {
    state = state * 6364136223846793005ULL + 1442695040888963407ULL;
    return static_cast<uint32_t>(state >> 33);
  };
  const qv::time t(kStamp, qv::type_filetime);
  for (int i = 0; i < 20000; ++i) {
    std::string a, b;
    for (uint32_t n = next() % 24; n > 0; --n) a += alphabet[next() % (sizeof(alphabet) - 1)];
    for (uint32_t n = next() % 24; n > 0; --n) b += alphabet[next() % (sizeof(alphabet) - 1)];
    uint32_t d = 0, m = 0, y = 0;
    if (qv::parse_date_text(a, "DMY", '/', d, m, y)) {
      EXPECT_LE(m, 12u);
      EXPECT_LE(d, 31u);
    }
    double h = 0, mi = 0, s = 0;
    qv::parse_time_text(b, h, mi, s);
    qv::_windows_systemtime st;
    qv::parse_date_time_text(a, b, "YMD", '-', st);
    qv::datetime_format f;
    qv::parse_datetime_format(f, a, b, (i & 1) != 0);
    std::string ds, ts;
    qv::format_datetime(ds, ts, t, f);
    EXPECT_LE(ds.size(), 11u);
    EXPECT_LE(ts.size(), 18u);
  }
}

}  // namespace
