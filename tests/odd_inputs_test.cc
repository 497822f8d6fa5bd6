// The built quon on inputs that aren't trace files and on options it can't
// honour: folders, FIFOs, devices and links to them under every input mode
// (each run under a time limit, so that a run that hangs fails), -out paths
// that would overwrite evidence, malformed -pullguid values and -enumdir
// folders that can't be opened.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/e2e_util.h"
#include "tests/trace_writer.h"

using e2e::run_result;

namespace {

// Seconds a run on a few small files may take; `timeout` ends it with
// status 124 after that.
const std::string kTimeLimit = "60";

run_result run_limited(const std::string& args, const std::string& input = "") {
  return e2e::run_program("timeout", "-s KILL " + kTimeLimit + " '" + std::string(QUON_BINARY) + "' " + args, input);
}

std::string quoted(const std::string& path) { return "'" + path + "'"; }

// The message of a failed file: the status line is erased first, and the
// message loses its last character, the line end. (With status lines on,
// the next status line follows it directly, starting with ESC [2K.)
std::string failed_file(const std::string& name) { return e2e::kStatusEraser + "prob parsing file: " + name; }

// A folder with one good trace and every kind of name that isn't a regular
// file: a folder, a FIFO, links to both, a link to a device, a dangling link.
struct odd_tree {
  e2e::temp_dir dir;
  std::string good, folder, fifo, to_folder, to_fifo, to_device, dangling;
  odd_tree() {
    good = dir.write("good.etl", tw::sample_trace());
    dir.mkdir("folder.etl");
    folder = dir.path("folder.etl");
    // A trace inside the linked folder is never reached through the link.
    dir.write("folder.etl/inner.etl", tw::sample_trace());
    fifo = dir.path("fifo.etl");
    EXPECT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    to_folder = dir.path("to_folder.etl");
    to_fifo = dir.path("to_fifo.etl");
    to_device = dir.path("to_device.etl");
    dangling = dir.path("dangling.etl");
    EXPECT_EQ(::symlink(folder.c_str(), to_folder.c_str()), 0);
    EXPECT_EQ(::symlink(fifo.c_str(), to_fifo.c_str()), 0);
    EXPECT_EQ(::symlink("/dev/zero", to_device.c_str()), 0);
    EXPECT_EQ(::symlink(dir.path("gone").c_str(), dangling.c_str()), 0);
  }
  std::vector<std::string> odd() const { return {folder, fifo, to_folder, to_fifo, to_device, dangling, "/dev/zero"}; }
};

}  // namespace

// -log: a name that isn't a regular file fails at once, like a file that
// isn't a trace: the message, the later names of the list untried, status 0.
TEST(OddInputs, LogRefusesWhatIsNotARegularFile) {
  odd_tree t;
  for (const std::string& name : t.odd()) {
    SCOPED_TRACE(name);
    run_result r = run_limited("-quiet -log " + quoted(name + " | " + t.good));
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, failed_file(name));
    EXPECT_EQ(r.out.find("file: "), std::string::npos);
  }
  // In front of it the good trace gives its rows.
  run_result r = run_limited("-quiet -log " + quoted(t.good + " | " + t.folder));
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, failed_file(t.folder));
  EXPECT_EQ(e2e::count(r.out, "file: " + t.good + "\n"), 1u);
  EXPECT_EQ(e2e::count(r.out, "| 5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b |"), 2u);
}

// -pipe: each odd name fails with its message and the walk goes on to the
// good trace behind them all.
TEST(OddInputs, PipeRefusesWhatIsNotARegularFileAndGoesOn) {
  odd_tree t;
  std::string names;
  for (const std::string& name : t.odd()) names += name + "\n";
  names += t.good + "\n";
  run_result r = run_limited("-pipe", names);
  EXPECT_EQ(r.status, 0);
  for (const std::string& name : t.odd()) {
    SCOPED_TRACE(name);
    EXPECT_EQ(e2e::count(r.err, "prob parsing file: " + name + "\x1b[2K"), 1u);
  }
  EXPECT_EQ(e2e::count(r.out, "file: "), 1u);
  EXPECT_EQ(e2e::count(r.out, "file: " + t.good + "\n"), 1u);
  // Under -quiet without a word.
  r = run_limited("-pipe -quiet", names);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(e2e::count(r.out, "file: " + t.good + "\n"), 1u);
}

// -enumdir: the walk lists links and FIFOs as files; they fail, and the
// trace beside them is read. The trace inside the linked folder is not.
TEST(OddInputs, EnumdirRefusesLinksAndFifosAndReadsTheTraceBesideThem) {
  odd_tree t;
  run_result r = run_limited("-enumdir " + quoted(t.dir.root()) + " -num_subdirs 0");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(e2e::count(r.out, "file: "), 1u);
  EXPECT_EQ(e2e::count(r.out, "file: " + t.good + "\n"), 1u);
  for (const std::string& name : {t.fifo, t.to_folder, t.to_fifo, t.to_device, t.dangling}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(e2e::count(r.err, "prob parsing file: " + name + "\x1b[2K"), 1u);
  }
  // One level down the real folder is walked, and its trace read; the link
  // to it stays a name that fails.
  r = run_limited("-quiet -enumdir " + quoted(t.dir.root()) + " -num_subdirs 1");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(e2e::count(r.out, "file: "), 2u);
  EXPECT_EQ(e2e::count(r.out, "file: " + t.folder + "/inner.etl\n"), 1u);
}

// A folder that can't be opened ends the run with the reason and 255.
TEST(OddInputs, EnumdirOfAFolderThatCannotBeOpenedIsRefused) {
  e2e::temp_dir dir;
  const std::string file = dir.write("a.etl", tw::sample_trace());
  run_result r = run_limited("-quiet -enumdir " + dir.path("missing"));
  EXPECT_EQ(r.status, 255);
  EXPECT_EQ(r.err, "prob opening folder " + dir.path("missing") + ": No such file or directory, aborting\n");
  EXPECT_EQ(e2e::without_run_time(r.out),
            "quon ver: 0.31\n// run at: <time>\n// command line: " + std::string(QUON_BINARY) +
                " -quiet -enumdir " + dir.path("missing") + "\n");
  r = run_limited("-quiet -enumdir " + file);
  EXPECT_EQ(r.status, 255);
  EXPECT_EQ(r.err, "prob opening folder " + file + ": Not a directory, aborting\n");
  // -pipe wins over -enumdir: the folder isn't looked at.
  r = run_limited("-quiet -pipe -enumdir " + dir.path("missing"), file + "\n");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(e2e::count(r.out, "file: " + file + "\n"), 1u);
}

// -out never destroys evidence: not the input, not any other trace, with or
// without -append and -pullguid. Nothing is truncated or removed.
TEST(OddInputs, OutRefusesTheInputAndOtherTraces) {
  e2e::temp_dir dir;
  const tw::bytes sample = tw::sample_trace();
  const std::string sample_text(sample.begin(), sample.end());
  const std::string trace = dir.write("x.etl", sample);
  const std::string other = dir.write("other.etl", sample);
  ASSERT_EQ(::symlink(trace.c_str(), dir.path("link.etl").c_str()), 0);
  const std::string g = "5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b";

  struct refused_case {
    std::string args;
    std::string message;
  };
  const std::vector<refused_case> cases = {
      {"-out " + trace + " -log " + trace, "-out " + trace + " is the input " + trace},
      {"-append -out " + dir.path("link.etl") + " -log " + trace, "-out " + dir.path("link.etl") + " is the input " + trace},
      {"-out " + other + " -log " + trace, "-out " + other + " already holds a trace file"},
      {"-out " + other + " -pullguid " + g + " -log " + trace, "-out " + other + " already holds a trace file"},
      {"-outfile " + trace + " -pipe", "-out " + trace + " already holds a trace file"},
  };
  for (const refused_case& c : cases) {
    SCOPED_TRACE(c.args);
    run_result r = run_limited("-quiet " + c.args);
    EXPECT_EQ(r.status, 255);
    EXPECT_EQ(r.err, c.message + ": refusing to overwrite it, aborting\n");
    EXPECT_EQ(e2e::count(r.out, "file: "), 0u);
    EXPECT_EQ(e2e::read_text(trace), sample_text);
    EXPECT_EQ(e2e::read_text(other), sample_text);
  }

  // A subset trace is evidence once written: the same run again is refused.
  const std::string subset = dir.path("subset.etl");
  run_result r = run_limited("-quiet -out " + subset + " -pullguid " + g + " -log " + trace);
  ASSERT_EQ(r.status, 0);
  const std::string first = e2e::read_text(subset);
  ASSERT_GT(first.size(), 386u);
  r = run_limited("-quiet -out " + subset + " -pullguid " + g + " -log " + trace);
  EXPECT_EQ(r.status, 255);
  EXPECT_EQ(e2e::read_text(subset), first);

  // Another existing file is overwritten as before.
  const std::string rows = dir.path("rows.txt");
  e2e::write_text(rows, "an older result\n");
  r = run_limited("-quiet -out " + rows + " -log " + trace);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
  const std::string written = e2e::read_text(rows);
  EXPECT_EQ(written.find("an older result"), std::string::npos);
  EXPECT_EQ(e2e::count(written, "file: " + trace + "\n"), 1u);
}

// -pullguid takes a GUID with or without braces; anything else ends the run
// with a message and 255, and no subset file is left behind.
TEST(OddInputs, PullguidRefusesWhatIsNotAGuid) {
  e2e::temp_dir dir;
  const std::string trace = dir.write("x.etl", tw::sample_trace());
  const std::string g = "5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b";
  run_result r = run_limited("-quiet -out " + dir.path("bare.etl") + " -pullguid " + g + " -log " + trace);
  ASSERT_EQ(r.status, 0);
  r = run_limited("-quiet -out " + dir.path("braced.etl") + " -pullguid '{" + g + "}' -log " + trace);
  ASSERT_EQ(r.status, 0);
  const std::string bare = e2e::read_text(dir.path("bare.etl"));
  // The sample's provider has two events: the subset holds more than the
  // first block, and both spellings give the same bytes.
  EXPECT_GT(bare.size(), 8192u);
  EXPECT_EQ(e2e::read_text(dir.path("braced.etl")), bare);

  for (const std::string& text : {"'{" + g + "'", g + "}", g.substr(0, 30), std::string("'{guid}'"), g + "00"}) {
    SCOPED_TRACE(text);
    const std::string out = dir.path("refused.etl");
    r = run_limited("-quiet -out " + out + " -pullguid " + text + " -log " + trace);
    EXPECT_EQ(r.status, 255);
    std::string shown = text;
    if (shown.front() == '\'') shown = shown.substr(1, shown.size() - 2);
    EXPECT_EQ(r.err, "-pullguid " + shown +
                         " is not a GUID (xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx, braces allowed), aborting\n");
    EXPECT_EQ(::access(out.c_str(), F_OK), -1);
  }
}
