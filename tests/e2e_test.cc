// End-to-end tests: the built quon on traces written by the trace writer,
// with its whole output compared.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

#include "tests/e2e_util.h"
#include "tests/trace_writer.h"

using e2e::run_quon;
using e2e::run_result;

namespace {

constexpr uint64_t kT0 = 134170743671234567ull;  // 2026-03-04 05:06:07.1234567

const char kUsage[] =
    "-----------------------------------------------------------------------------\n"
    "\n"
    "quon ver: 0.31\n"
    "\n"
    "Usage:\n"
    "  quon -log \"log1 | log2 | ..\"   = pull data from extracted logs\n"
    "  find /somedir -name *.etl -type f | quon  -pipe [options]\n"
    "  ls /somedir/*.etl | quon  -pipe [options]\n"
    "  quon -enumdir <folder> -num_subdirs <#> [options]\n"
    "\n"
    " Basic options\n"
    "  -csvl2t                     = log2timeline output\n"
    "  -pipe                       = pipe files into logtrawl for processing\n"
    "  -quiet                      = don't display status during run\n"
    "  -filter <*partial*|*.ext>   = filters stdin data from -pipe option\n"
    "  -dateformat mm/dd/yyyy      = \"yyyy-mm-dd\" is the default\n"
    "  -timeformat hh:mm:ss        = \"hh:mm:ss.xxxxxxxxx\" is the default\n"
    "  -no_whitespace              = remove whitespace between csv delimiter\n"
    "  -csv_separator \"|\"          = use a pipe char for csv separator\n"
    "\n"
    " --- the following options are for debugging purposes only ---\n"
    " Other options\n"
    "  -stats                      = list the stats in the ETL file(s)\n"
    "  -templates <file>           = file with template instructions\n"
    "  -guids                      = list the providers in the ETL file(s)\n"
    "  -pullguid <guid> -out <etl> = create subset ETL file with just GUID records\n"
    "\n"
    " Standalone utility options\n"
    "  -extract_bxml <pefile>      = pull out quon encoded bxml for event ids\n"
    "  -providers <sw hive>        = pull out providers from software hive\n"
    "\n";

}  // namespace

TEST(EndToEnd, UsageTextAndExitStatus) {
  for (const char* args : {"", "-h", "/?", "--HELP", "-log x.etl -Help"}) {
    SCOPED_TRACE(args);
    run_result r = run_quon(args);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, kUsage);
    EXPECT_EQ(r.out, "");
  }
}

TEST(EndToEnd, NoInputGivesTheHeaderAndStatus255) {
  run_result r = run_quon("-quiet");
  EXPECT_EQ(r.status, 255);
  EXPECT_EQ(e2e::without_run_time(r.out),
            "quon ver: 0.31\n// run at: <time>\n// command line: " + std::string(QUON_BINARY) + " -quiet\n");
}

TEST(EndToEnd, OptionFailuresEndTheRunWithTheirMessage) {
  run_result r = run_quon("-guids -enumdir /tmp");
  EXPECT_EQ(r.status, 255);
  EXPECT_EQ(r.err, "This option requires -log <etl file>\n");
  r = run_quon("-pullguid 5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b -log x.etl");
  EXPECT_EQ(r.status, 255);
  EXPECT_EQ(r.err, "This option requires -out <file>\n");
  r = run_quon("-sqlite db.sqlite -log x.etl");
  EXPECT_EQ(r.status, 255);
  EXPECT_EQ(r.err, "This option is not offered in this build\n");
  r = run_quon("-alias 'a|b|c' -log x.etl");
  EXPECT_EQ(r.err, "imbalanced alias to true pathfiles, aborting\n");
  r = run_quon("-quiet -out /nonexistent/dir/out.txt -log x.etl");
  EXPECT_EQ(r.status, 255);
  EXPECT_EQ(r.err, "prob opening file /nonexistent/dir/out.txt for output, aborting\n");
  r = run_quon("-quiet -dateformat yyyy-mm-ddx -timeformat hh:mm:ss.xxxxxxxxxx");
  EXPECT_EQ(r.err,
            "invalid yyyy-mm-ddx, using default format\ninvalid hh:mm:ss.xxxxxxxxxx, using default format\n");
}

TEST(EndToEnd, LogListStopsAtTheFirstFileThatIsNotATrace) {
  e2e::temp_dir dir;
  const std::string a = dir.write("a.etl", tw::sample_trace());
  const std::string bad = dir.write("b.etl", tw::bytes(1000, 'x'));
  const std::string c = dir.write("c.etl", tw::sample_trace());
  run_result r = run_quon("-quiet -log \"" + a + " | " + bad + " | " + c + "\"");
  EXPECT_EQ(r.status, 0);
  // The message erases the status line first, and loses its line end.
  EXPECT_EQ(r.err, e2e::kStatusEraser + "prob parsing file: " + bad);
  EXPECT_NE(r.out.find("file: " + a + "\n"), std::string::npos);
  EXPECT_EQ(r.out.find("file: " + c + "\n"), std::string::npos);
  // "," and ";" split the list the same way.
  r = run_quon("-quiet -LOG '" + a + ";" + c + "'");
  EXPECT_NE(r.out.find("file: " + c + "\n"), std::string::npos);
}

TEST(EndToEnd, PipeSkipsFilteredAndEmptyNamesAndGoesOnAfterFailures) {
  e2e::temp_dir dir;
  const std::string a = dir.write("a.etl", tw::sample_trace());
  const std::string bad = dir.write("bad.etl", tw::bytes(500, 'x'));
  const std::string other = dir.write("c.txt", tw::sample_trace());
  run_result r = run_quon("-pipe -filter '*.etl'", a + "\n\n" + other + "\n" + bad + "\n" + a + "\n");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(e2e::count(r.out, "file: " + a + "\n"), 2u);
  EXPECT_EQ(r.out.find(other), std::string::npos);
  EXPECT_NE(r.err.find("prob parsing file: " + bad), std::string::npos);
  // Under -quiet a failing file is passed over without a word.
  r = run_quon("-pipe -quiet", bad + "\n" + a + "\n");
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(e2e::count(r.out, "file: " + a + "\n"), 1u);
  // Both -log and -pipe: the list wins, standard input isn't read.
  r = run_quon("-quiet -pipe -log " + a, bad + "\n");
  EXPECT_EQ(e2e::count(r.out, "file: "), 1u);
}

TEST(EndToEnd, EnumdirWalksFilesBeforeSubfoldersToTheGivenDepth) {
  e2e::temp_dir dir;
  dir.mkdir("top");
  dir.mkdir("top/sub");
  dir.mkdir("top/sub/deeper");
  dir.write("top/one.etl", tw::sample_trace());
  dir.write("top/sub/two.etl", tw::sample_trace());
  dir.write("top/sub/deeper/three.etl", tw::sample_trace());
  run_result r = run_quon("-quiet -enumdir " + dir.path("top") + " -num_subdirs 1");
  EXPECT_EQ(r.status, 0);
  const size_t one = r.out.find("one.etl\n");
  const size_t two = r.out.find("two.etl\n");
  ASSERT_NE(one, std::string::npos);
  ASSERT_NE(two, std::string::npos);
  EXPECT_LT(one, two);
  EXPECT_EQ(r.out.find("three.etl"), std::string::npos);
  r = run_quon("-quiet -enumdir " + dir.path("top") + " -num_subdirs 2 -filter three*");
  EXPECT_EQ(e2e::count(r.out, "file: "), 1u);
  EXPECT_NE(r.out.find("three.etl\n"), std::string::npos);
  EXPECT_EQ(run_quon("-quiet -enumdir " + dir.path("missing") + " -num_subdirs 1").status, 0);
}
