#include "run/output_guard.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "run/options.h"
#include "tests/trace_writer.h"

namespace {

class temp_dir {
 public:
  temp_dir() {
    char tmpl[] = "/tmp/quon_guard_XXXXXX";
    const char* p = mkdtemp(tmpl);
    root_ = p ? p : "";
  }
  ~temp_dir() {
    if (!root_.empty()) std::system(("rm -rf '" + root_ + "'").c_str());
  }
  std::string path(const std::string& name) const { return root_ + "/" + name; }
  std::string write(const std::string& name, const std::string& bytes) const {
    std::ofstream out(path(name), std::ios::binary | std::ios::trunc);
    out << bytes;
    return path(name);
  }
  std::string write(const std::string& name, const tw::bytes& bytes) const {
    return write(name, std::string(bytes.begin(), bytes.end()));
  }

 private:
  std::string root_;
};

std::string read_all(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// An "RlFs" file: its 72-byte first block and some bytes behind it.
tw::bytes rlfs_file() {
  tw::etl_writer w;
  w.rlfs_first_block(134170743671234567ull, 0);
  w.append(tw::bytes(400, 0));
  return w.data();
}

bool parsed(quon_user_opts& o, const std::vector<std::string>& words) {
  std::vector<std::string> a{"quon"};
  a.insert(a.end(), words.begin(), words.end());
  return parse_options(o, a);
}

}  // namespace

TEST(OutputGuard, TheTraceTestIsTheWalksFirstStep) {
  temp_dir d;
  const tw::bytes sample = tw::sample_trace();
  EXPECT_TRUE(holds_trace(d.write("regular.etl", sample)));
  EXPECT_TRUE(holds_trace(d.write("relogged.etl", rlfs_file())));
  ASSERT_EQ(::symlink(d.path("regular.etl").c_str(), d.path("link.etl").c_str()), 0);
  EXPECT_TRUE(holds_trace(d.path("link.etl")));

  // Under 386 bytes no file is a trace to the walk.
  EXPECT_FALSE(holds_trace(d.write("short.etl", tw::bytes(sample.begin(), sample.begin() + 385))));
  // A headerless file is a trace to the walk, but nothing marks it as one:
  // it isn't protected, and neither is a result file of rows.
  EXPECT_FALSE(holds_trace(d.write("zeros.etl", tw::bytes(4096, 0))));
  EXPECT_FALSE(holds_trace(d.write("rows.txt", "quon ver: 0.31\n" + std::string(1000, 'x'))));
  // A log header whose BufferSize runs past the end of the file isn't one.
  tw::bytes cut(sample.begin(), sample.begin() + 4000);
  EXPECT_FALSE(holds_trace(d.write("cut.etl", cut)));

  // What isn't a regular file is never opened for the test.
  ASSERT_EQ(::mkfifo(d.path("fifo").c_str(), 0600), 0);
  EXPECT_FALSE(holds_trace(d.path("fifo")));
  EXPECT_FALSE(holds_trace(d.path("missing")));
  EXPECT_FALSE(holds_trace("/tmp"));
  EXPECT_FALSE(holds_trace("/dev/zero"));
}

TEST(OutputGuard, InputsByAnyNameAndOtherTracesAreRefused) {
  temp_dir d;
  const std::string trace = d.write("in.etl", tw::sample_trace());
  const std::string text_input = d.write("notes.txt", std::string("not a trace"));
  const std::string other = d.write("other.etl", tw::sample_trace());
  const std::string rows = d.write("rows.txt", std::string("quon ver: 0.31\n"));
  ASSERT_EQ(::link(trace.c_str(), d.path("hard.etl").c_str()), 0);
  ASSERT_EQ(::symlink(trace.c_str(), d.path("soft.etl").c_str()), 0);
  const std::vector<std::string> inputs = {text_input, trace};
  std::string input;

  for (const std::string& name : {trace, d.path("hard.etl"), d.path("soft.etl"), trace + "/",
                                  d.path("./in.etl")}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(check_output_path(name, inputs, input), output_refusal::is_input);
    EXPECT_EQ(input, trace);
  }
  // An input is protected whatever it holds.
  EXPECT_EQ(check_output_path(text_input, inputs, input), output_refusal::is_input);
  EXPECT_EQ(input, text_input);
  // Any trace is protected, an input or not.
  EXPECT_EQ(check_output_path(other, inputs, input), output_refusal::holds_trace);
  EXPECT_EQ(input, "");
  EXPECT_EQ(check_output_path(other, {}, input), output_refusal::holds_trace);

  // Everything else may be written: a new name, a file of rows, a device.
  EXPECT_EQ(check_output_path(d.path("new.txt"), inputs, input), output_refusal::none);
  EXPECT_EQ(check_output_path(rows, inputs, input), output_refusal::none);
  EXPECT_EQ(check_output_path("/dev/null", inputs, input), output_refusal::none);
  EXPECT_EQ(check_output_path("", inputs, input), output_refusal::none);
  // An input that doesn't exist matches nothing.
  EXPECT_EQ(check_output_path(rows, {d.path("missing.etl")}, input), output_refusal::none);
}

// The check runs before the path is tried: a refused path keeps every byte,
// a path that is allowed is tried and removed as before.
TEST(OutputGuard, OptionsRefuseBeforeAnythingIsTruncated) {
  temp_dir d;
  const tw::bytes sample = tw::sample_trace();
  const std::string sample_text(sample.begin(), sample.end());
  const std::string trace = d.write("in.etl", sample);
  const std::string other = d.write("other.etl", sample);
  const std::string rows = d.write("rows.txt", std::string("old rows\n"));

  for (const std::vector<std::string>& line :
       {std::vector<std::string>{"-out", trace, "-log", trace},
        {"-log", trace, "-OUTFILE", trace},
        {"-append", "-out", trace, "-log", "x.etl | " + trace},
        {"-out", other, "-log", trace},
        {"-out", other, "-pipe"},
        {"-out", trace, "-log", trace, "-pullguid", "5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b"},
        // A -log word taken as the value of another option still protects.
        {"-hostname", "-log", "-log", trace, "-out", trace}}) {
    quon_user_opts o;
    EXPECT_FALSE(parsed(o, line)) << line[1];
    EXPECT_EQ(read_all(trace), sample_text);
    EXPECT_EQ(read_all(other), sample_text);
  }

  quon_user_opts o;
  ASSERT_TRUE(parsed(o, {"-out", rows, "-log", trace}));
  EXPECT_EQ(o.results_path, rows);
  EXPECT_EQ(::access(rows.c_str(), F_OK), -1);  // tried and removed, as ever
  EXPECT_EQ(o.log_files, std::vector<std::string>{trace});
}

TEST(OutputGuard, PullguidTakesAGuidWithOrWithoutBracesAndNothingElse) {
  const std::string g = "5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b";
  const qv::guid16 expected = {0x11, 0x2a, 0x0b, 0x5f, 0x3e, 0x7c, 0x10, 0x4d,
                               0x9a, 0x55, 0x0c, 0x1d, 0x2e, 0x3f, 0x4a, 0x5b};
  for (const std::string& text : {g, "{" + g + "}", std::string("{5F0B2A11-7C3E-4D10-9A55-0C1D2E3F4A5B}")}) {
    SCOPED_TRACE(text);
    quon_user_opts o;
    ASSERT_TRUE(parsed(o, {"-out", "/dev/null", "-pullguid", text}));
    EXPECT_TRUE(o.walk.subset.on);
    EXPECT_EQ(o.walk.subset.guid, expected);
  }
  for (const std::string& text :
       {std::string(""), std::string("{}"), "{" + g, g + "}", "{" + g + "}}", "(" + g + ")", " " + g, g + " ",
        g + "0", g.substr(1), std::string("5f0b2a117c3e4d109a550c1d2e3f4a5b"),
        std::string("5f0b2a11-7c3e-4d10-9a55_0c1d2e3f4a5b"), std::string("5f0b2a11-7c3e-4d10-9a5-50c1d2e3f4a5b"),
        std::string("0x0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b"), std::string("5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5g"),
        std::string("00000000-0000-0000-0000-00000000000"), std::string("not a guid at all, long enough")}) {
    SCOPED_TRACE(text);
    quon_user_opts o;
    EXPECT_FALSE(parsed(o, {"-out", "/dev/null", "-pullguid", text}));
    EXPECT_FALSE(o.walk.subset.on);
  }
}
