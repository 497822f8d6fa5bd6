#include "run/cmd_params.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

namespace {

std::vector<std::string> args_of(std::initializer_list<const char*> words) {
  std::vector<std::string> a{"/usr/bin/quon.bin"};
  for (const char* w : words) a.emplace_back(w);
  return a;
}

bool parsed(cmd_params& o, std::initializer_list<const char*> words) {
  std::vector<std::string> a = args_of(words);
  return parse_shared(o, a);
}

}  // namespace

TEST(CmdParams, WordsAndValuesIgnoreCaseAndAreRemoved) {
  std::vector<std::string> a = args_of({"-QUIET", "-Hostname", "H1", "-x", "-username"});
  EXPECT_TRUE(has_word("-quiet", a));
  EXPECT_FALSE(has_word("-quiet", a));
  std::string v;
  EXPECT_TRUE(take_value("-hostname", v, a));
  EXPECT_EQ(v, "H1");
  // A word at the very end, with no value behind it, isn't found and stays.
  EXPECT_FALSE(take_value("-username", v, a));
  EXPECT_EQ(a, (std::vector<std::string>{"/usr/bin/quon.bin", "-x", "-username"}));
  EXPECT_FALSE(has_word("-qui", a));
}

TEST(CmdParams, CommandLineProgramNameAndFormats) {
  cmd_params o;
  ASSERT_TRUE(parsed(o, {"-log", "a b.etl", "-csv"}));
  EXPECT_EQ(o.command_line, "/usr/bin/quon.bin -log \"a b.etl\" -csv");
  EXPECT_EQ(o.program_name, "quon");
  EXPECT_TRUE(o.report.format_csv);
  EXPECT_EQ(o.report.separator, ",");
  EXPECT_TRUE(o.report.no_whitespace);
  EXPECT_TRUE(o.report.pad_with_blanks);

  cmd_params paired;
  ASSERT_TRUE(parsed(paired, {"-csv", "-pair_datetime"}));
  EXPECT_FALSE(paired.report.no_whitespace);  // -pair_datetime keeps the padding of -csv

  cmd_params multi;
  ASSERT_TRUE(parsed(multi, {"-multiline"}));
  EXPECT_EQ(multi.report.separator, "");
  EXPECT_TRUE(multi.report.header_row_pending);
}

TEST(CmdParams, Separators) {
  cmd_params tab;
  ASSERT_TRUE(parsed(tab, {"-csv_separator", "TAB"}));
  EXPECT_EQ(tab.report.separator, "\t");
  EXPECT_EQ(tab.report.separator_char, 0);
  EXPECT_EQ(tab.report.sub_separator_char, 0);

  cmd_params bar;
  ASSERT_TRUE(parsed(bar, {"-csv_separator", " | "}));
  EXPECT_EQ(bar.report.separator, " | ");
  EXPECT_EQ(bar.report.separator_char, '|');
  EXPECT_EQ(bar.report.sub_separator_char, ';');

  cmd_params colon;
  ASSERT_TRUE(parsed(colon, {"-csv_separator", ":"}));
  EXPECT_EQ(colon.report.separator_char, 0);  // nothing is replaced inside cells

  cmd_params quoted;
  ASSERT_TRUE(parsed(quoted, {"-enable_quoted_csv_fields"}));
  EXPECT_EQ(quoted.report.separator, "|");
  EXPECT_FALSE(quoted.report.pad_with_blanks);
  EXPECT_EQ(quoted.report.separator_char, 0);

  cmd_params bare;
  ASSERT_TRUE(parsed(bare, {"-no_whitespace"}));
  EXPECT_EQ(bare.report.separator, "|");
  EXPECT_TRUE(bare.report.no_whitespace);
}

TEST(CmdParams, DateAndTimeFormatChecks) {
  cmd_params o;
  o.report.time_format = "hh:mm:ss.xxxxxxxxx";
  ASSERT_TRUE(parsed(o, {"-dateformat", "MM/DD/YY", "-timeformat", "hh:mm:ss.xxxxxxxxx"}));
  EXPECT_EQ(o.report.date_format, "mm/dd/yy");
  EXPECT_EQ(o.report.datetime_format.fraction_digits(), 9u);

  cmd_params bad;
  bad.report.time_format = "hh:mm:ss.xxxxxxxxx";
  ASSERT_TRUE(parsed(bad, {"-dateformat", "dd-mmm-yy", "-timeformat", "hh:mm:ss.xxxxxxxxxx"}));
  EXPECT_EQ(bad.report.date_format, "yyyy-mm-dd");
  EXPECT_EQ(bad.report.time_format, "hh:mm:ss.xxxxxxxxx");

  cmd_params short_time;
  ASSERT_TRUE(parsed(short_time, {"-timeformat", "hh:mm:ss"}));
  EXPECT_EQ(short_time.report.time_format, "hh:mm:ss");
  EXPECT_EQ(short_time.report.datetime_format.fraction_digits(), 0u);
}

TEST(CmdParams, FailuresStopParsing) {
  cmd_params o;
  EXPECT_FALSE(parsed(o, {"-sqlite", "db"}));
  cmd_params a;
  EXPECT_FALSE(parsed(a, {"-alias", "a|b|c"}));
  cmd_params b;
  EXPECT_TRUE(parsed(b, {"-alias", "a|b"}));
  cmd_params c;
  EXPECT_FALSE(parsed(c, {"-out", "/nonexistent/dir/x.txt"}));
  // A writable path is tried and removed again.
  const std::string path = testing::TempDir() + "cmd_params_out_" + std::to_string(getpid());
  cmd_params d;
  EXPECT_TRUE(parsed(d, {"-out", path.c_str()}));
  EXPECT_EQ(d.results_path, path);
  EXPECT_NE(access(path.c_str(), F_OK), 0);
  // A device named as output survives the test.
  cmd_params e;
  EXPECT_TRUE(parsed(e, {"-out", "/dev/null"}));
  EXPECT_EQ(access("/dev/null", F_OK), 0);
}

TEST(CmdParams, TimeLimits) {
  cmd_params o;
  ASSERT_TRUE(parsed(o, {"-cmd_start_time", "2024/01/15 10:30:00", "-cmd_stop_time", "2024-02-01"}));
  ASSERT_TRUE(o.start_time.has_value());
  ASSERT_TRUE(o.stop_time.has_value());
  EXPECT_EQ(o.start_time->unix_seconds, 1705314600u);  // 2024-01-15 10:30:00 UTC
  EXPECT_EQ(o.stop_time->unix_seconds, 1706745600u);   // 2024-02-01, at the date alone

  cmd_params reversed;
  ASSERT_TRUE(parsed(reversed, {"-cmd_start_time", "2024/03/01", "-cmd_stop_time", "2024/02/01"}));
  EXPECT_TRUE(reversed.start_time.has_value());
  EXPECT_FALSE(reversed.stop_time.has_value());

  cmd_params undelimited;
  ASSERT_TRUE(parsed(undelimited, {"-cmd_start_time", "20240301"}));
  EXPECT_FALSE(undelimited.start_time.has_value());
}

TEST(CmdParams, FilterPatterns) {
  cmd_params o;
  ASSERT_TRUE(parsed(o, {"-filter", "*.ETL|trace*", "-filter", "*part*"}));
  ASSERT_EQ(o.filter_list.size(), 3u);
  EXPECT_TRUE(o.filter_list[0].has_ext);
  EXPECT_EQ(o.filter_list[0].ext_pattern, L"etl");

  EXPECT_TRUE(passes_filter(o, L"/x/y/Sys.Etl", o.filter_list));
  EXPECT_TRUE(passes_filter(o, L"/x/trace_01.bin", o.filter_list));
  EXPECT_TRUE(passes_filter(o, L"/x/apartment", o.filter_list));
  EXPECT_FALSE(passes_filter(o, L"/x/y/sys.etl2", o.filter_list));
  EXPECT_FALSE(passes_filter(o, L"/x/other.txt", o.filter_list));
  EXPECT_FALSE(passes_filter(o, L"", o.filter_list));
  EXPECT_TRUE(passes_filter(o, L"/anything", {}));

  cmd_params all;
  ASSERT_TRUE(parsed(all, {"-filter", "*,*.etl"}));
  ASSERT_EQ(all.filter_list.size(), 1u);  // "*" ends the list
  EXPECT_TRUE(passes_filter(all, L"/a/b.c", all.filter_list));

  cmd_params exact;
  ASSERT_TRUE(parsed(exact, {"-filter", "kernel.etl"}));
  EXPECT_TRUE(passes_filter(exact, L"/logs/KERNEL.etl", exact.filter_list));
  EXPECT_FALSE(passes_filter(exact, L"/logs/kernel2.etl", exact.filter_list));

  cmd_params rooted;
  ASSERT_TRUE(parsed(rooted, {"-filter", "/logs/keep"}));
  EXPECT_TRUE(passes_filter(rooted, L"/data/logs/keep/a.etl", rooted.filter_list));
  EXPECT_FALSE(passes_filter(rooted, L"/data/logs/keeper/a.etl", rooted.filter_list));

  // -filter as the last word is no filter at all.
  cmd_params last;
  ASSERT_TRUE(parsed(last, {"-pipe", "-filter"}));
  EXPECT_TRUE(last.filter_list.empty());
}
