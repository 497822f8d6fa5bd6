#include "tools/hivewick/hivewick.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "templates/template_text.h"
#include "tests/trace_writer.h"
#include "tools/hivewick/hive_reader.h"
#include "tools/hivewick/hive_writer.h"

namespace {

namespace fs = std::filesystem;

// FILETIME ticks of UTC moments, worked out from the calendar by hand:
// 2023-04-05 06:07:08.1234567, 2019-12-31 23:59:59.9999999, 2021-01-02 03:04:05.
constexpr uint64_t t1 = 133251484281234567ull;
constexpr uint64_t t2 = 132223103999999999ull;
constexpr uint64_t t3 = 132540302450000000ull;

const char* const publishers_key = "SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\WINEVT\\Publishers";

// A SOFTWARE-like hive: two named publishers (one without a message file),
// one GUID key without a name, one key whose name isn't a GUID.
hw::written_hive software_hive() {
  hw::hive_spec shape;
  shape.root = hw::software_root(
      {hw::publisher("{1AC55562-D4FF-4BC5-8EF3-A18E07C4668E}", "Microsoft-Windows-Test-One",
                     "%SystemRoot%\\system32\\one.dll", t1),
       hw::publisher("{2B0EAC4F-0000-4D2A-9000-0000000000AB}", "Test-NoMessageFile", "", t2),
       hw::publisher("{3c0a1f00-aaaa-bbbb-cccc-ddddeeeeffff}", "", "x.dll", t3),
       hw::publisher("Not-A-Guid", "Odd", "odd.dll", 0)},
      t3);
  // A subkey below the first publisher, as Windows keeps channel references.
  shape.root.subkeys[1].subkeys[0].subkeys[0].subkeys[0].subkeys[0].subkeys[0].subkeys.push_back(
      {"ChannelReferences", t3});
  return hw::write_hive(shape);
}

struct temp_dir {
  fs::path path;
  temp_dir() {
    path = fs::temp_directory_path() / ("hivewick_test_" + std::to_string(getpid()));
    fs::create_directories(path);
  }
  ~temp_dir() {
    std::error_code ec;
    fs::remove_all(path, ec);
  }
  std::string file(const std::string& name) const { return (path / name).string(); }
};

std::vector<std::string> quon_args(const std::string& hive) {
  return {"hivewick", "-hive", hive, "-key", publishers_key, "-level", "1",
          "-extract", "(unnamed)|MessageFileName", "-dateformat", "yyyy-mm-dd",
          "-timeformat", "hh:mm:ss.xxxxxxxxx", "-pair_datetime", "-quiet"};
}

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string l; std::getline(in, l);) lines.push_back(l);
  return lines;
}

TEST(Hivewick, PublishersBecomeProviderLinesThatTemplateFilesRead) {
  temp_dir dir;
  std::string hive = dir.file("SOFTWARE");
  ASSERT_TRUE(software_hive().write_file(hive));
  std::string out, err;
  ASSERT_EQ(hivewick::run(quon_args(hive), out, err), 0) << err;
  EXPECT_EQ(err, "");
  std::string expected =
      "hivewick ver: 0.10;\n"
      "\"cmdline: hivewick -hive " + hive +
      " -key \"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\WINEVT\\Publishers\" -level 1"
      " -extract \"(unnamed)|MessageFileName\" -dateformat yyyy-mm-dd"
      " -timeformat hh:mm:ss.xxxxxxxxx -pair_datetime -quiet\"\n"
      "#{1ac55562-d4ff-4bc5-8ef3-a18e07c4668e} ! Microsoft-Windows-Test-One |"
      " %SystemRoot%\\system32\\one.dll | 2023-04-05 06:07:08.123456700\n"
      "#{2b0eac4f-0000-4d2a-9000-0000000000ab} ! Test-NoMessageFile |  |"
      " 2019-12-31 23:59:59.999999900\n"
      "// {3c0a1f00-aaaa-bbbb-cccc-ddddeeeeffff} !  | x.dll | 2021-01-02 03:04:05.000000000\n"
      "// Not-A-Guid ! Odd | odd.dll | \n";
  EXPECT_EQ(out, expected);

  // Read back as a template file, behind the head that quon strips: the two
  // named publishers, nothing else, and the file is read to its end.
  std::vector<std::string> lines = lines_of(out);
  lines.erase(lines.begin(), lines.begin() + 2);
  lines.push_back("#{44444444-4444-4444-4444-444444444444} ! Sentinel");
  template_source source;
  reset(source);
  EXPECT_TRUE(add_template_lines(source, lines));
  EXPECT_EQ(source.provider_names,
            (std::vector<std::string>{"unk", "Microsoft-Windows-Test-One", "Test-NoMessageFile",
                                      "Sentinel"}));
  EXPECT_EQ(source.name_of_guid.size(), 3u);
}

TEST(Hivewick, OptionsAsQuonSendsThem) {
  hivewick::options o;
  std::string error, notes;
  std::vector<std::string> args = quon_args("/x/SOFTWARE");
  args.erase(args.begin());
  ASSERT_TRUE(hivewick::parse_options(args, o, error, notes)) << error;
  EXPECT_EQ(o.hive_path, "/x/SOFTWARE");
  EXPECT_EQ(o.key_path, publishers_key);
  EXPECT_EQ(o.level, 1u);
  EXPECT_EQ(o.extract, (std::vector<std::string>{"(unnamed)", "MessageFileName"}));
  EXPECT_EQ(o.date_format, "yyyy-mm-dd");
  EXPECT_EQ(o.time_format, "hh:mm:ss.xxxxxxxxx");
  EXPECT_TRUE(o.pair_datetime);
  EXPECT_TRUE(o.quiet);
  EXPECT_EQ(notes, "");

  // Formats go through the same checks as quon's own: lowered when accepted,
  // the default kept with a note when not.
  hivewick::options p;
  ASSERT_TRUE(hivewick::parse_options({"-hive", "h", "-DateFormat", "MM/DD/YYYY", "-timeformat",
                                       "hh:mm:ss.xx", "--level", "9999"},
                                      p, error, notes));
  EXPECT_EQ(p.date_format, "mm/dd/yyyy");
  EXPECT_EQ(p.time_format, "hh:mm:ss.xxxxxxxxx");
  EXPECT_EQ(notes, "invalid hh:mm:ss.xx, using default format\n");
  EXPECT_EQ(p.level, hivewick::max_level);
  EXPECT_FALSE(p.pair_datetime);

  hivewick::options q;
  EXPECT_TRUE(hivewick::parse_options({"-h"}, q, error, notes));
  EXPECT_TRUE(q.help);
  for (const std::vector<std::string>& bad :
       std::vector<std::vector<std::string>>{{"-hive"},
                                             {"-hive", "h", "-level", "-1"},
                                             {"-hive", "h", "-level", "x"},
                                             {"-hive", "h", "-bogus"},
                                             {"-key", "k"}}) {
    hivewick::options r;
    error.clear();
    EXPECT_FALSE(hivewick::parse_options(bad, r, error, notes)) << bad.back();
    EXPECT_FALSE(error.empty());
  }
}

TEST(Hivewick, TimeColumnsLevelsAndNestedKeys) {
  hw::written_hive w = software_hive();
  qv::byte_span bytes(w.data.data(), w.data.size());
  hivewick::options o;
  o.key_path = publishers_key;
  o.extract = {"(unnamed)"};
  o.quiet = true;
  o.date_format = "mm/dd/yyyy";
  o.time_format = "hh:mm:ss";
  o.level = 2;
  std::string out, err;
  ASSERT_EQ(hivewick::list_key(bytes, o, out, err), 0);
  // Depth first; a nested key is a comment line under its relative path;
  // date and time in two columns without -pair_datetime.
  EXPECT_EQ(out,
            "#{1ac55562-d4ff-4bc5-8ef3-a18e07c4668e} ! Microsoft-Windows-Test-One |"
            " 04/05/2023 | 06:07:08\n"
            "// {1AC55562-D4FF-4BC5-8EF3-A18E07C4668E}\\ChannelReferences !  |"
            " 01/02/2021 | 03:04:05\n"
            "#{2b0eac4f-0000-4d2a-9000-0000000000ab} ! Test-NoMessageFile | 12/31/2019 | 23:59:59\n"
            "// {3c0a1f00-aaaa-bbbb-cccc-ddddeeeeffff} !  | 01/02/2021 | 03:04:05\n"
            "// Not-A-Guid ! Odd |  | \n");

  // Level 0: the key itself, its values in the order asked. With no
  // -extract a GUID key has no name to give, so it stays a comment.
  out.clear();
  o.key_path = std::string(publishers_key) + "\\{2b0eac4f-0000-4d2a-9000-0000000000AB}";
  o.level = 0;
  o.extract = {"ENABLED", "MessageFileName", "(default)"};
  o.time_format = "hh:mm:ss.xxxx";
  o.pair_datetime = true;
  ASSERT_EQ(hivewick::list_key(bytes, o, out, err), 0);
  EXPECT_EQ(out, "#{2b0eac4f-0000-4d2a-9000-0000000000ab} ! 1 |  | Test-NoMessageFile |"
                 " 12/31/2019 23:59:59.9999\n");
  out.clear();
  o.extract.clear();
  ASSERT_EQ(hivewick::list_key(bytes, o, out, err), 0);
  EXPECT_EQ(out, "// {2B0EAC4F-0000-4D2A-9000-0000000000AB} ! 12/31/2019 23:59:59.9999\n");
  EXPECT_EQ(err, "");
}

TEST(Hivewick, FailuresLeaveOnlyTheHead) {
  temp_dir dir;
  std::string hive = dir.file("SOFTWARE");
  hw::written_hive w = software_hive();
  ASSERT_TRUE(w.write_file(hive));
  std::string out, err;
  const std::string head_start = "hivewick ver: 0.10;\n\"cmdline: hivewick ";

  std::vector<std::string> args = quon_args(hive);
  args[4] = "SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\WINEVT\\Channels";
  EXPECT_EQ(hivewick::run(args, out, err), 1);
  EXPECT_EQ(lines_of(out).size(), 2u);
  EXPECT_EQ(out.rfind(head_start, 0), 0u);
  EXPECT_NE(err.find("key not found"), std::string::npos);
  EXPECT_NE(err.find("\"Channels\""), std::string::npos);

  out.clear();
  err.clear();
  EXPECT_EQ(hivewick::run(quon_args(dir.file("absent")), out, err), 1);
  EXPECT_EQ(lines_of(out).size(), 2u);
  EXPECT_NE(err.find("can't open"), std::string::npos);

  std::ofstream(dir.file("text")) << "not a hive at all\n";
  out.clear();
  err.clear();
  EXPECT_EQ(hivewick::run(quon_args(dir.file("text")), out, err), 1);
  EXPECT_EQ(lines_of(out).size(), 2u);
  EXPECT_NE(err.find("regf"), std::string::npos);

  out.clear();
  err.clear();
  EXPECT_EQ(hivewick::run({"hivewick"}, out, err), 2);
  EXPECT_NE(err.find("usage: hivewick"), std::string::npos);
  out.clear();
  err.clear();
  EXPECT_EQ(hivewick::run({"hivewick", "-h"}, out, err), 0);
  EXPECT_EQ(out.rfind(head_start + "-h\"\nusage: hivewick", 0), 0u);

  // Status goes to standard error unless -quiet.
  out.clear();
  err.clear();
  args = quon_args(hive);
  args.pop_back();
  EXPECT_EQ(hivewick::run(args, out, err), 0);
  EXPECT_EQ(err, "hivewick: 4 keys listed from \"" + std::string(publishers_key) + "\"\n");
}

TEST(Hivewick, DamagedHivesAreListedAsFarAsTheyGo) {
  hw::written_hive w = software_hive();
  hivewick::options o;
  o.key_path = publishers_key;
  o.extract = {"(unnamed)"};
  o.quiet = true;
  o.level = 50;
  std::string out, err;

  // A dirty hive is listed, with a note even under -quiet.
  hw::written_hive dirty = w;
  dirty.patch_u32(8, 6);
  ASSERT_EQ(hivewick::list_key(qv::byte_span(dirty.data.data(), dirty.data.size()), o, out, err), 0);
  EXPECT_EQ(lines_of(out).size(), 5u);
  EXPECT_NE(err.find("hivewick: hive is dirty"), std::string::npos);

  // A subkey entry looping back to the publishers key: each key once.
  hw::written_hive loop = w;
  std::string first = "Microsoft\\Windows\\CurrentVersion\\WINEVT\\Publishers\\"
                      "{1AC55562-D4FF-4BC5-8EF3-A18E07C4668E}";
  loop.patch_u32(hw::written_hive::at(loop.list_cells[first], 4),
                 loop.key_cells["Microsoft\\Windows\\CurrentVersion\\WINEVT\\Publishers"]);
  out.clear();
  err.clear();
  ASSERT_EQ(hivewick::list_key(qv::byte_span(loop.data.data(), loop.data.size()), o, out, err), 0);
  EXPECT_EQ(lines_of(out).size(), 4u);

  // A loop onto the first publisher itself, nested deep.
  hw::written_hive self = w;
  self.patch_u32(hw::written_hive::at(self.list_cells[first], 4), self.key_cells[first]);
  out.clear();
  ASSERT_EQ(hivewick::list_key(qv::byte_span(self.data.data(), self.data.size()), o, out, err), 0);
  EXPECT_EQ(lines_of(out).size(), 4u);

  // Text that would break the line is marked instead.
  hw::hive_spec shape;
  shape.root = {"R", t1};
  hw::key_spec k{"{55555555-5555-5555-5555-555555555555}", t1};
  k.values.push_back({"", hivewick::REG_SZ, hw::sz("a\r\nb\nc\rd\n\re\tf\x01g")});
  shape.root.subkeys.push_back(k);
  hw::key_spec blank{"{66666666-6666-6666-6666-666666666666}", 0};
  blank.values.push_back({"", hivewick::REG_SZ, hw::sz(" \t ")});
  shape.root.subkeys.push_back(blank);
  hw::written_hive odd = hw::write_hive(shape);
  out.clear();
  o.key_path = "";
  o.pair_datetime = true;
  ASSERT_EQ(hivewick::list_key(qv::byte_span(odd.data.data(), odd.data.size()), o, out, err), 0);
  // A name of blanks alone is no name: a comment line.
  EXPECT_EQ(out, "#{55555555-5555-5555-5555-555555555555} ! a[CRLF]b[LF]c[CR]d[LFCR]e\tf\\x01g |"
                 " 2023-04-05 06:07:08.123456700\n"
                 "// {66666666-6666-6666-6666-666666666666} !  \t  | \n");
}

// ---- The programs themselves ------------------------------------------------

std::string run_command(const std::string& command, int& status) {
  std::string out;
  FILE* p = popen(command.c_str(), "r");
  if (p == nullptr) {
    status = -1;
    return out;
  }
  char buf[4096];
  for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
  status = pclose(p);
  return out;
}

TEST(HivewickProgram, RunsAsQuonCallsIt) {
  if (!fs::exists(HIVEWICK_BINARY)) GTEST_SKIP() << "hivewick not built";
  temp_dir dir;
  std::string hive = dir.file("SOFTWARE");
  ASSERT_TRUE(software_hive().write_file(hive));
  int status = 0;
  std::string out = run_command(std::string(HIVEWICK_BINARY) + " -hive \"" + hive +
                                    "\" -key \"" + publishers_key +
                                    "\" -level 1 -extract \"(unnamed)|MessageFileName\""
                                    " -dateformat yyyy-mm-dd -timeformat hh:mm:ss.xxx"
                                    " -pair_datetime -quiet 2>&1",
                                status);
  EXPECT_EQ(status, 0);
  std::vector<std::string> lines = lines_of(out);
  ASSERT_EQ(lines.size(), 6u) << out;
  EXPECT_EQ(lines[0], "hivewick ver: 0.10;");
  EXPECT_EQ(lines[1].rfind("\"cmdline: ", 0), 0u);
  EXPECT_EQ(lines[2], "#{1ac55562-d4ff-4bc5-8ef3-a18e07c4668e} ! Microsoft-Windows-Test-One |"
                      " %SystemRoot%\\system32\\one.dll | 2023-04-05 06:07:08.123");
}

// quon -providers on the hive, then -templates with what it wrote: the
// provider's name reaches the rows of a trace.
TEST(HivewickProgram, QuonNamesProvidersFromTheHive) {
#ifndef QUON_BINARY
  GTEST_SKIP() << "quon is not part of this build";
#else
  if (!fs::exists(QUON_BINARY) || !fs::exists(HIVEWICK_BINARY)) GTEST_SKIP() << "not built";
  if (fs::path(QUON_BINARY).parent_path() != fs::path(HIVEWICK_BINARY).parent_path())
    GTEST_SKIP() << "hivewick is not beside quon";
  temp_dir dir;
  std::string hive = dir.file("SOFTWARE");
  ASSERT_TRUE(software_hive().write_file(hive));
  std::string names = dir.file("names.txt");
  int status = 0;
  run_command(std::string(QUON_BINARY) + " -providers \"" + hive + "\" -out \"" + names +
                  "\" 2>&1",
              status);
  std::ifstream in(names);
  std::string text((std::istreambuf_iterator<char>(in)), {});
  EXPECT_NE(text.find("#{1ac55562-d4ff-4bc5-8ef3-a18e07c4668e} ! Microsoft-Windows-Test-One |"),
            std::string::npos)
      << text;
  EXPECT_EQ(text.find("hivewick ver:"), std::string::npos);
  EXPECT_EQ(text.find("\"cmdline: hivewick"), std::string::npos);

  // A trace with one event of that provider: its rows carry the name.
  tw::log_header_spec lh;
  lh.buffer_size = 8192;
  lh.clock = tw::clock_systemtime;
  lh.start_time = t1;
  lh.system_time = t1;
  lh.end_time = t1 + 10000000;
  tw::etl_writer trace;
  trace.log_header(lh);
  tw::event_spec e;
  e.provider = tw::guid_from_text("1ac55562-d4ff-4bc5-8ef3-a18e07c4668e");
  e.id = 7;
  e.time = t1 + 1000;
  e.payload = {1, 2, 3, 4};
  trace.add_buffer({tw::event_header_record(e)});
  std::string etl = dir.file("one.etl");
  ASSERT_TRUE(trace.write_file(etl));
  std::string rows_file = dir.file("rows.txt");
  run_command(std::string(QUON_BINARY) + " -log \"" + etl + "\" -templates \"" + names +
                  "\" -out \"" + rows_file + "\" 2>&1",
              status);
  std::ifstream rows_in(rows_file);
  std::string rows((std::istreambuf_iterator<char>(rows_in)), {});
  EXPECT_NE(rows.find("Microsoft-Windows-Test-One"), std::string::npos) << rows;
  // Without the names file the provider stays unnamed.
  run_command(std::string(QUON_BINARY) + " -log \"" + etl + "\" -out \"" + rows_file + "\" 2>&1",
              status);
  std::ifstream bare_in(rows_file);
  std::string bare((std::istreambuf_iterator<char>(bare_in)), {});
  EXPECT_NE(bare.find("1ac55562-d4ff-4bc5-8ef3-a18e07c4668e"), std::string::npos) << bare;
  EXPECT_EQ(bare.find("Microsoft-Windows-Test-One"), std::string::npos);
#endif
}

}  // namespace
