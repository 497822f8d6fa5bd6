// The modes that run a sibling tool: stand-in scripts placed beside a copy of
// the built quon show what quon sends them and what it makes of their output.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "tests/e2e_util.h"
#include "tests/trace_writer.h"

namespace {

// A folder holding a copy of quon (under `quon_name`) and stand-in tools.
struct tool_dir {
  e2e::temp_dir dir;
  std::string quon;

  explicit tool_dir(const std::string& quon_name = "quon", const std::string& sub = "") {
    std::string base = dir.root();
    if (!sub.empty()) {
      dir.mkdir(sub);
      base = dir.path(sub);
    }
    quon = base + "/" + quon_name;
    std::system(("cp '" QUON_BINARY "' '" + quon + "'").c_str());
    folder = base;
  }
  // A tool that prints `head`, then one line per argument it was given.
  void tool(const std::string& name, const std::string& head) const {
    const std::string path = folder + "/" + name;
    e2e::write_text(path, "#!/bin/sh\nprintf '%s' '" + head + "'\nfor a in \"$@\"; do echo \"arg:$a\"; done\n");
    ::chmod(path.c_str(), 0755);
  }
  // Runs the copy; -quiet keeps the status line's eraser off standard error.
  e2e::run_result run(const std::string& args, const std::string& input = "") const {
    return e2e::run_program(quon, "-quiet " + args, input);
  }
  std::string folder;
};

const char kHead39[] = "modsift ver: 0.39; stand-in\n\"cmdline: modsift\n";

}  // namespace

TEST(DependencyTools, ExtractBxmlPassesThePathAndPrintsBehindTheHead) {
  tool_dir t;
  t.tool("modsift", kHead39);
  e2e::run_result r = t.run("-extract_bxml /x/y.dll -enc");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
  // The prologue, then everything behind the "cmdline: " line.
  const size_t at = r.out.find("arg:");
  ASSERT_NE(at, std::string::npos);
  EXPECT_EQ(r.out.substr(at), "arg:/x/y.dll\narg:-quon\narg:-enc\narg:-quiet\n");
  EXPECT_EQ(r.out.find("stand-in"), std::string::npos);
}

TEST(DependencyTools, ModsiftVersionTest) {
  tool_dir t;
  t.tool("modsift", "modsift ver: 0.38; old\n\"cmdline: x\nsome template text\n");
  e2e::run_result r = t.run("-extract_bxml a.dll");
  EXPECT_EQ(r.status, 255);
  EXPECT_EQ(r.err, "This option requires, ver: 0.39 of modsift or later to work, aborting\n");
  EXPECT_EQ(r.out.find("arg:"), std::string::npos);

  // A version that doesn't start with a zero isn't tested at all.
  t.tool("modsift", "modsift ver: 1.02; new\n\"cmdline: x\n");
  EXPECT_EQ(t.run("-extract_bxml a.dll").status, 0);

  // No "cmdline: " line: no head, no version test, all of it printed.
  t.tool("modsift", "modsift ver: 0.10;\nplain\n");
  r = t.run("-extract_bxml a.dll");
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("modsift ver: 0.10;\nplain\narg:a.dll\n"), std::string::npos);
}

TEST(DependencyTools, TooLittleOutputOrNoToolFails) {
  tool_dir t;
  const std::string script = t.folder + "/modsift";
  e2e::write_text(script, "#!/bin/sh\nprintf 'modsift ver: 0.40;\\n\"cmdline: x\\nabc'\n");
  ::chmod(script.c_str(), 0755);
  e2e::run_result r = t.run("-extract_bxml a.dll");
  EXPECT_EQ(r.status, 255);
  EXPECT_EQ(r.err, "Problem with using dependency tool modsift, aborting\n");

  tool_dir bare;
  r = bare.run("-providers SOFTWARE");
  EXPECT_EQ(r.status, 255);
  EXPECT_EQ(r.err, "can't find the dependency tool: " + bare.folder + "/hivewick, aborting\n");
}

TEST(DependencyTools, ProvidersArgumentLine) {
  tool_dir t;
  t.tool("hivewick", "hivewick ver: 0.10;\n\"cmdline: x\n");
  e2e::run_result r = t.run("-providers /evidence/SOFTWARE");
  EXPECT_EQ(r.status, 0);
  const size_t at = r.out.find("arg:");
  ASSERT_NE(at, std::string::npos);
  EXPECT_EQ(r.out.substr(at),
            "arg:-hive\narg:/evidence/SOFTWARE\narg:-key\n"
            "arg:SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\WINEVT\\Publishers\n"
            "arg:-level\narg:1\narg:-extract\narg:(unnamed)|MessageFileName\n"
            "arg:-dateformat\narg:yyyy-mm-dd\narg:-timeformat\narg:hh:mm:ss.xxxxxxxxx\n"
            "arg:-pair_datetime\narg:-quiet\n");
}

TEST(DependencyTools, ExtractBxmlOverAListFromStandardInput) {
  tool_dir t;
  t.tool("modsift", kHead39);
  e2e::run_result r = t.run("-pipe -extract_bxml -enc -filter '*.dll'", "a.dll\n\nb.txt\nc d.dll\n");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(e2e::count(r.out, "arg:-quon\n"), 2u);
  EXPECT_NE(r.out.find("arg:-quon\narg:a.dll\narg:-quiet\n"), std::string::npos);
  EXPECT_NE(r.out.find("arg:-quon\narg:c d.dll\narg:-quiet\n"), std::string::npos);
  EXPECT_EQ(r.out.find("b.txt"), std::string::npos);
  EXPECT_EQ(r.out.find("arg:-enc"), std::string::npos);
}

TEST(DependencyTools, Quon64NamesAndFoldersWithBlanks) {
  tool_dir wide("quon64");
  wide.tool("modsift64", kHead39);
  EXPECT_EQ(wide.run("-extract_bxml a.dll").status, 0);

  // In a folder with a blank the path is quoted, and the existence test is
  // given the quoted text, so the tool isn't found.
  tool_dir blank("quon", "with blank");
  blank.tool("modsift", kHead39);
  e2e::run_result r = blank.run("-extract_bxml a.dll");
  EXPECT_EQ(r.status, 255);
  EXPECT_EQ(r.err, "can't find the dependency tool: \"" + blank.folder + "/modsift\", aborting\n");
}

// The harvest round trip: layouts taken from a Windows DLL by the real
// modsift beside quon, then used to decode a trace whose events carry
// payloads laid out as that manifest's templates say (Large.man: event 2,
// Template3 of UInt8, UInt16, UInt32, HexInt32; event 8, Template7 of three
// UInt8 lengths and a UTF-16, an ANSI and a binary field of those lengths).
TEST(DependencyTools, HarvestedLayoutsDecodeATrace) {
  const std::string dll = std::string(QUON_SHARED_DIR) + "/wevt/pe/large64.dll";
  struct stat st {};
  if (::stat(dll.c_str(), &st) != 0) GTEST_SKIP() << "no test DLL";
  e2e::temp_dir dir;
  const std::string layouts = dir.path("layouts.txt");
  e2e::run_result r = e2e::run_quon("-quiet -extract_bxml " + dll + " -out " + layouts);
  ASSERT_EQ(r.status, 0) << r.err;

  const tw::guid provider = tw::guid_from_text("716efef7-5ac2-4ee0-8277-d9226411a155");
  tw::log_header_spec h;
  h.buffer_size = 4096;
  h.start_time = h.system_time = 134170743671234567ull;
  tw::etl_writer w;
  w.log_header(h);
  tw::event_spec two;
  two.provider = provider;
  two.id = 2;
  two.time = h.start_time;
  two.payload = {0x11, 0x33, 0x22, 0x77, 0x66, 0x55, 0x44, 0xbb, 0xaa, 0x99, 0x88};
  tw::event_spec eight = two;
  eight.id = 8;
  eight.payload = {3, 4, 2, 'a', 0, 'b', 0, 'c', 0, 'w', 'x', 'y', 'z', 0xbe, 0xef};
  w.add_buffer({tw::event_header_record(two), tw::event_header_record(eight)});
  const std::string trace = dir.write("large.etl", w.data());

  r = e2e::run_quon("-quiet -templates " + layouts + " -log " + trace);
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("| ProviderName1.716EFEF75AC24EE08277D9226411A155 "), std::string::npos);
  EXPECT_NE(r.out.find("data{\"01-EventName4\":\"{guess}\";\"02-Data4\":\"0x11\";\"03-Data6\":\"0x2233\";"
                       "\"04-Data8\":\"0x44556677\";\"05-Data22\":\"0x8899aabb\"}\n"),
            std::string::npos);
  EXPECT_NE(r.out.find("data{\"01-Length1\":\"0x03\";\"02-Length2\":\"0x04\";\"03-Length3\":\"0x02\";"
                       "\"04-VarLengthData3\":\"abc\";\"05-VarLengthData4\":\"wxyz\";\"06-VarLengthData16\":\"beef\"}\n"),
            std::string::npos);
}
