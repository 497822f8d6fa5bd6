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
  // A folder that can't be opened is refused (tests/odd_inputs_test.cc).
  EXPECT_EQ(run_quon("-quiet -enumdir " + dir.path("missing") + " -num_subdirs 1").status, 255);
}

namespace {

// The layout and name of the sample trace's manifest events, as a user's
// template file gives them.
const char kAcmeTemplates[] =
    "// the sample provider\n"
    "#{5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b} ! Acme-Trace-Provider\n"
    "{5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b} ! $42, LPid, 8, LImage, 2\n";

}  // namespace

// The whole default output of the sample trace. Every value was worked out
// from the bytes the trace writer puts in the sample: QPC clock at 1e7 Hz,
// StartTime 2026-03-04 05:06:07.1234567 for the raw counter 1e9.
TEST(EndToEnd, SampleTraceWholeOutput) {
  e2e::temp_dir dir;
  const std::string trace = dir.write("a.etl", tw::sample_trace());
  e2e::write_text(dir.path("acme.txt"), kAcmeTemplates);
  run_result r = run_quon("-quiet -templates " + dir.path("acme.txt") + " -log " + trace);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
  const std::string expected =
      "quon ver: 0.31\n"
      "// run at: <time>\n"
      "// command line: " + std::string(QUON_BINARY) + " -quiet -templates " + dir.path("acme.txt") + " -log " + trace + "\n"
      "---------------------\n"
      "file: " + trace + "\n"
      "orig source path: c:\\logs\\a.etl\n"
      " created [utc or #ticks]       | provider guid                        | provider name                        | session name                         | activity id                          | event id | process id | thread id | channel | level | opcode | task id | keywords           | processor time     | processor | extra data      \n"
      " 2026-03-04 05:06:07.123456700 | <header info only>                   |                                      | Sample Session                       |                                      |          | 0x00001234 | 0x0005678 |         |       |        |         |                    | 0x0000000000000000 |           | "
      "data{\"00-TimeType:QPC time\";\"01-Version:0x0a000000\";\"02-NumProcessors:4\";\"03-EndTime:2026-03-04T05:07:47.123456700Z\";"
      "\"04-TimerRes:0x0002625a\";\"05-LogfileMode:0x00000001\";\"06-CPUSpeed:0x00000bb8\";\"07-TimezoneBias:0\";\"08-DaylightBias:0\";"
      "\"09-BootTime:2026-03-04T03:53:20.000000000Z\";\"10-PerfFreq:0x01dcab8a70c3f800\";\"11-LogfileName:c:/logs/a.etl\"}\n"
      // The worked example row, at the 100-ns resolution of a FILETIME.
      " 2026-03-04 05:06:07.123456700 | 5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b | Acme-Trace-Provider                  | Sample Session                       | 00000000-0000-0000-0000-000000000000 | 0x00002a | 0x00000a3c | 0x0001b34 |       0 |     4 |      1 |       7 | 0x8000000000000010 | 0x0000000000000000 |         3 | data{\"01-Pid\":\"0x00000a3c\";\"02-Image\":\"a.exe\"}\n"
      // A classic process start, decoded through the embedded database.
      " 2026-03-04 05:06:07.133456700 | 3d6fa8d0-fe05-11d0-9dda-00c04fd7ba7c | Kernel-Process-Trace                 | Sample Session                       | 00000000-0000-0000-0000-000000000000 | 0x000301 | 0x00000004 | 0x0000044 |       0 |     0 |      0 |       0 | 0x0000000000000000 | 0x0000000000000000 |         3 | "
      "data{\"01-Process_Start\":\"{guess}\";\"02-UniqueProcessKey\":\"0xffff8a0c12345678\";\"03-ProcessId\":\"0x00000a3c\";\"04-ParentId\":\"0x00000004\";"
      "\"05-SessionId\":\"0x00000001\";\"06-ExitStatus\":\"0x00000103\";\"07-DirectoryTableBase\":\"0x00000001aa000000\";\"08-Flags\":\"0x00000000\";"
      "\"09-TokenUserSid\":\"0xffff8a0c00001000\";\"10-TokenUserAttributes\":\"0x0000000000000000\";\"11-UserSID\":\"S-1-5-18\";"
      "\"12-ImageFileName\":\"cmd.exe\";\"13-CommandLine\":\"cmd.exe /c dir\";\"14-PackageFullName\":\"-\";\"15-ApplicationId\":\"-\"}\n"
      // A TraceLogging event: its schema names the fields.
      " 2026-03-04 05:06:07.143456700 | 2a576b87-09a7-520e-c21a-4942f0271d67 | Microsoft-Antimalware-Scan-Interface | Sample Session                       | 00000000-0000-0000-0000-000000000000 | 0x000000 | 0x00000990 | 0x0000991 |       0 |     4 |      0 |       0 | 0x0000000000000000 | 0x0000000000000000 |         3 | "
      "data{\"01-TestEvent\":\"{guess}\";\"02-b\":\"Hello\";\"03-c\":\"World!\"}\n"
      // The second buffer, of processor 1, with an 0xC013 header.
      " 2026-03-04 05:06:07.163456700 | 5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b | Acme-Trace-Provider                  | Sample Session                       | 00000000-0000-0000-0000-000000000000 | 0x00002a | 0x00000a3c | 0x0001b34 |       0 |     4 |      1 |       7 | 0x8000000000000010 | 0x0000000000000000 |         1 | data{\"01-Pid\":\"0x04030201\";\"02-Image\":\"notepad.exe\"}\n";
  EXPECT_EQ(e2e::without_run_time(r.out), expected);
}

TEST(EndToEnd, SampleTraceWorkedExampleUnderCsvAndTimeline) {
  e2e::temp_dir dir;
  const std::string trace = dir.write("a.etl", tw::sample_trace());
  e2e::write_text(dir.path("acme.txt"), kAcmeTemplates);
  run_result r = run_quon("-quiet -csv -templates " + dir.path("acme.txt") + " -log " + trace);
  EXPECT_NE(r.out.find("\n created [utc or #ticks],provider guid,provider name,session name,activity id,event id,"
                       "process id,thread id,channel,level,opcode,task id,keywords,processor time,processor,extra data\n"),
            std::string::npos);
  EXPECT_NE(r.out.find("\n2026-03-04 05:06:07.123456700,5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b,Acme-Trace-Provider,"
                       "Sample Session,00000000-0000-0000-0000-000000000000,0x002a,0x00000a3c,0x00001b34,0,4,1,7,"
                       "0x8000000000000010,0x0,3,data{\"01-Pid\":\"0x00000a3c\";\"02-Image\":\"a.exe\"}\n"),
            std::string::npos);

  r = run_quon("-quiet -csvl2t -hostname H1 -username U1 -templates " + dir.path("acme.txt") + " -log " + trace);
  EXPECT_NE(r.out.find("\ndate,time,timezone,MACB,source,sourcetype,type,user,host,short,desc,version,filename,"
                       "inode,notes,format,extra\n"),
            std::string::npos);
  EXPECT_NE(r.out.find("\n2026-03-04, 05:06:07.123456700,UTC,...B,ETL,Sample Session,ETL Entry,U1,H1,"
                       "{5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b}; Event: 0x002a,"
                       "{5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b}; Event: 0x002a; ProcID: 0x0a3c; ThreadID: 0x1b34,2," +
                       trace + ",,Orig filename: c:\\logs\\a.etl,quon (ovrelt),"
                       "data{\"01-Pid\":\"0x00000a3c\";\"02-Image\":\"a.exe\"}\n"),
            std::string::npos);
  // The log header gives no line in the timeline form: four events, four lines.
  EXPECT_EQ(e2e::count(r.out, ",...B,"), 4u);
}

// Two traces in one list under -csvl2t: every line carries the session, the
// path and the recorded log file name of its own file, not those of the file
// before it.
TEST(EndToEnd, TimelineLinesCarryTheirOwnFilesTexts) {
  e2e::temp_dir dir;
  auto one_event_trace = [](const std::string& session, const std::string& log_file, uint32_t pid) {
    tw::log_header_spec h;
    h.clock = tw::clock_qpc;
    h.system_time = 1000000000;
    h.start_time = 134170743671234567ull;  // 2026-03-04 05:06:07.1234567 UTC
    h.logger_name = session;
    h.log_file_name = log_file;
    tw::etl_writer w;
    w.log_header(h);
    tw::event_spec e;
    e.provider = tw::guid_from_text("5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b");
    e.id = 7;
    e.time = 1000000000;
    e.process_id = pid;
    e.thread_id = 0x20;
    tw::buffer_spec bs;
    bs.timestamp = 1000000000;
    w.add_buffer({tw::event_header_record(e)}, bs);
    return w.data();
  };
  const std::string first = dir.write("first.etl", one_event_trace("Session One", "c:\\one.etl", 0x11));
  const std::string second = dir.write("second.etl", one_event_trace("Session Two", "d:\\two.etl", 0x22));
  run_result r = run_quon("-quiet -csvl2t -log \"" + first + " | " + second + "\"");
  const std::string head = "\n2026-03-04, 05:06:07.123456700,UTC,...B,ETL,";
  const std::string event = ",ETL Entry,,,{5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b}; Event: 0x0007,"
                            "{5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b}; Event: 0x0007; ProcID: ";
  const size_t a = r.out.find(head + "Session One" + event + "0x0011; ThreadID: 0x0020,2," + first +
                              ",,Orig filename: c:\\one.etl,quon (ovrelt),");
  const size_t b = r.out.find(head + "Session Two" + event + "0x0022; ThreadID: 0x0020,2," + second +
                              ",,Orig filename: d:\\two.etl,quon (ovrelt),");
  ASSERT_NE(a, std::string::npos) << r.out;
  ASSERT_NE(b, std::string::npos) << r.out;
  EXPECT_LT(a, b);
  EXPECT_EQ(e2e::count(r.out, ",...B,"), 2u);
}

TEST(EndToEnd, ShippedSampleIsTheTraceWritersSample) {
  const std::string shipped = e2e::read_text(std::string(QUON_SOURCE_DIR) + "/examples/sample.etl");
  const tw::bytes expected = tw::sample_trace();
  EXPECT_EQ(shipped, std::string(expected.begin(), expected.end()))
      << "regenerate with: build/tests/write_trace sample examples/sample.etl";
}
