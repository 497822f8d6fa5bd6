#include "trace/log_header.h"

#include <gtest/gtest.h>

#include <cmath>

#include "tests/trace_writer.h"

namespace {

qv::datetime_format default_format() {
  qv::datetime_format f;
  qv::parse_datetime_format(f, "yyyy-mm-dd", "hh:mm:ss.xxxxxxxxx", false);
  return f;
}

tw::log_header_spec sample_spec() {
  tw::log_header_spec s;
  s.clock = tw::clock_qpc;
  s.perf_freq = 10000000;
  s.system_time = 1000000000;
  s.start_time = 134170743671234567ull;  // 2026-03-04 05:06:07.1234567
  s.end_time = 134170744671234567ull;    // 100 s later
  s.boot_time = 134170700000000000ull;   // 2026-03-04 03:53:20
  s.logger_name = "My Logger";
  s.log_file_name = "c:\\logs\\a \"b\".etl";
  return s;
}

log_header parse(const tw::bytes& b) {
  log_header h;
  EXPECT_TRUE(parse_log_header(b.data(), b.size(), h));
  return h;
}

}  // namespace

TEST(LogHeader, BothPointerLayoutsGiveTheSameFields) {
  for (uint32_t ptr : {4u, 8u}) {
    tw::log_header_spec s = sample_spec();
    s.pointer_size = ptr;
    s.bias = 300;
    s.daylight_bias = 0xFFFFFFC4;  // -60
    tw::etl_writer w;
    w.log_header(s);
    log_header h = parse(w.data());
    SCOPED_TRACE(ptr);
    EXPECT_EQ(h.PointerSize, ptr);
    EXPECT_EQ(h.BufferSize, 65536u);
    EXPECT_EQ(h.ProviderVersion, 19041u);
    EXPECT_EQ(h.LoggerName, "My Logger");
    EXPECT_EQ(h.LogFileName, "c:\\logs\\a \"b\".etl");
    EXPECT_EQ(h.StartTime, 134170743671234567ull);
    EXPECT_EQ(h.PerfFreq, 10000000u);
    EXPECT_EQ(h.BootTime, 134170700000000000ull);
    EXPECT_EQ(h.ReservedFlags, 1u);
    EXPECT_EQ(h.Bias, 300u);
    EXPECT_EQ(h.DaylightBias, 0xFFFFFFC4u);
    EXPECT_EQ(h.StandardName, "UTC");
    EXPECT_EQ(h.ProcessId, 0x1234u);
    EXPECT_EQ(h.ThreadId, 0x5678u);
  }
}

TEST(LogHeader, NamesStopAtTheRecordEnd) {
  tw::log_header_spec s = sample_spec();
  s.logger_name = "ABCDEFGH";
  // The record ends two characters into the logger name.
  s.record_size = static_cast<uint16_t>(384 - 72 + 4);
  tw::etl_writer w;
  w.log_header(s);
  log_header h = parse(w.data());
  EXPECT_EQ(h.LoggerName, "AB");
  EXPECT_EQ(h.LogFileName, "");
}

TEST(LogHeader, SmallestAcceptedBlockHasEmptyNames) {
  // A 386-byte block whose Size leaves no room for names.
  tw::bytes b(386, 0);
  b[104] = 0x82;  // BufferSize 386
  b[105] = 0x01;
  b[76] = 0x10;  // Size 16
  log_header h;
  ASSERT_TRUE(parse_log_header(b.data(), b.size(), h));
  EXPECT_EQ(h.BufferSize, 386u);
  EXPECT_TRUE(h.LoggerName.empty());
  EXPECT_TRUE(h.LogFileName.empty());
  EXPECT_FALSE(parse_log_header(b.data(), 385, h));
  EXPECT_FALSE(parse_log_header(nullptr, 386, h));
}

TEST(TraceClock, ClockTypesAndBase) {
  // QPC: scale 1e7 / PerfFreq; StartTime is the wall clock of SystemTime.
  trace_clock c;
  setup_clock(c, 1, 3000000, 0, 134170743671234567ull, 3000000);
  EXPECT_TRUE(c.is_qpc && c.raw_clock && !c.is_cycle_counter);
  EXPECT_DOUBLE_EQ(c.scale, 1e7 / 3e6);
  // 3e6 raw ticks are one second, so raw 3e6 is the start time itself...
  EXPECT_EQ(c.to_absolute(3000000), 134170743671234567ull);
  // ...and 6e6 one second later.
  EXPECT_EQ(c.to_absolute(6000000), 134170743681234567ull);

  // The two fields may stand either way round.
  setup_clock(c, 1, 10000000, 0, 500, 134170743671234567ull);
  EXPECT_EQ(c.base, static_cast<int64_t>(134170743671234567ull - 500));

  // Cycle counter: scale 10 / MHz.
  setup_clock(c, 3, 0, 2000, 134170743671234567ull, 2000);
  EXPECT_TRUE(c.is_cycle_counter && c.raw_clock && !c.is_qpc);
  EXPECT_DOUBLE_EQ(c.scale, 0.005);
  EXPECT_EQ(c.to_absolute(2000 + 200000), 134170743671234567ull + 1000);

  // Any other type is a FILETIME clock: stamps pass unchanged.
  setup_clock(c, 2, 10000000, 0, 134170743671234567ull, 5);
  EXPECT_FALSE(c.raw_clock);
  EXPECT_EQ(c.to_absolute(12345), 12345u);

  // Both fields dated: base stays 0 and events are scale times raw.
  setup_clock(c, 1, 5000000, 0, 134170743671234567ull, 134170743671234567ull);
  EXPECT_EQ(c.base, 0);
  EXPECT_EQ(c.to_absolute(1000), 2000u);
}

TEST(TraceClock, ZeroFrequencyFollowsTheHardwareConversion) {
  trace_clock c;
  setup_clock(c, 1, 0, 0, 0, 0);
  EXPECT_TRUE(std::isinf(c.scale));
  // inf * raw doesn't fit: the lowest 64-bit value; raw 0 gives NaN, the same.
  EXPECT_EQ(c.to_absolute(5), 0x8000000000000000ull);
  EXPECT_EQ(c.to_absolute(0), 0x8000000000000000ull);
  EXPECT_EQ(truncate_to_i64(-2.9), -2);
  EXPECT_EQ(truncate_to_i64(9223372036854775808.0), INT64_MIN);
}

TEST(LogHeaderText, TwelveFieldsInBase16AndBase10) {
  tw::log_header_spec s = sample_spec();
  s.log_file_name = "c:\\logs\\a.etl";
  tw::etl_writer w;
  w.log_header(s);
  log_header h = parse(w.data());
  EXPECT_EQ(log_header_text(h, true, default_format()),
            "data{\"00-TimeType:QPC time\";\"01-Version:0x0a000000\";\"02-NumProcessors:4\";"
            "\"03-EndTime:2026-03-04T05:07:47.123456700Z\";\"04-TimerRes:0x0002625a\";"
            "\"05-LogfileMode:0x00000001\";\"06-CPUSpeed:0x00000bb8\";\"07-TimezoneBias:0\";"
            "\"08-DaylightBias:0\";\"09-BootTime:2026-03-04T03:53:20.000000000Z\";"
            "\"10-PerfFreq:0x01dcab8a70c3f800\";\"11-LogfileName:c:/logs/a.etl\"}");
  EXPECT_EQ(log_header_text(h, false, default_format()),
            "data{\"00-TimeType:QPC time\";\"01-Version:167772160\";\"02-NumProcessors:4\";"
            "\"03-EndTime:2026-03-04T05:07:47.123456700Z\";\"04-TimerRes:156250\";"
            "\"05-LogfileMode:1\";\"06-CPUSpeed:3000\";\"07-TimezoneBias:0\";"
            "\"08-DaylightBias:0\";\"09-BootTime:2026-03-04T03:53:20.000000000Z\";"
            "\"10-PerfFreq:134170700000000000\";\"11-LogfileName:c:/logs/a.etl\"}");
}

TEST(LogHeaderText, BiasHoursUndatedTimesAndQuotes) {
  tw::log_header_spec s = sample_spec();
  s.clock = tw::clock_cycles;
  s.end_time = 0x1234;     // not a date: number form, 16 digits
  s.boot_time = 0;         // not a date: the blank of an invalid stamp
  s.bias = 0xFFFFFF88;     // -120, shown unsigned and divided unsigned
  s.daylight_bias = 120;
  s.log_file_name = "c:\\x\"y.etl";
  tw::etl_writer w;
  w.log_header(s);
  log_header h = parse(w.data());
  const std::string text = log_header_text(h, true, default_format());
  EXPECT_NE(text.find("\"00-TimeType:CPU Cycle Counter\""), std::string::npos);
  EXPECT_NE(text.find("\"03-EndTime:0x0000000000001234\""), std::string::npos);
  EXPECT_NE(text.find("\"07-TimezoneBias:4294967176 (71582786 hours)\""), std::string::npos);
  EXPECT_NE(text.find("\"08-DaylightBias:120 (2hours)\""), std::string::npos);
  EXPECT_NE(text.find("\"09-BootTime: \""), std::string::npos);
  EXPECT_NE(text.find("\"11-LogfileName:c:/x\\y.etl\"}"), std::string::npos);

  // A daylight bias alone prints no hours part.
  s.bias = 0;
  tw::etl_writer w2;
  w2.log_header(s);
  h = parse(w2.data());
  EXPECT_NE(log_header_text(h, true, default_format()).find("\"08-DaylightBias:120\";"), std::string::npos);
}
