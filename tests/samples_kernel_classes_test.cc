// The classic image and process events of the Vista (build 6001) test traces
// in the shared samples folder (skipped when it is absent). A test program
// logged them with full headers (0xC00A) under the kernel image and process
// class GUIDs, in class versions 0 to 3; each version has its own layout. The
// 32-bit files are decoded under the classes' property names with nothing
// left to the guesser.
//
// The expected values were read from the bytes with a separate script (the
// records walked by their sizes, each payload cut by the published layout of
// its class version: pointers of 4 bytes, the SID at its own length, the names
// up to their terminators, which end every payload exactly), and one record of
// each file was read again by hand from a hex dump: the test program's own
// image (at 0x01160000, 0x0019e000 bytes; in versions 1 and 2 followed by the
// process id, 0x1060 in the March files and 0xb2c in the June files) and, for
// the process files, notepad.exe's start.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/e2e_util.h"

namespace {

bool samples_present() {
  struct stat st {};
  return ::stat(QUON_SAMPLES_DIR, &st) == 0 && S_ISDIR(st.st_mode);
}

std::string sample(const std::string& name) { return std::string(QUON_SAMPLES_DIR) + "/" + name; }

using field_list = std::vector<std::pair<std::string, std::string>>;

struct event_row {
  std::string provider;
  field_list fields;  // name without its "NN-" order prefix, value
};

std::string trimmed(const std::string& s) {
  const size_t b = s.find_first_not_of(' ');
  if (b == std::string::npos) return "";
  return s.substr(b, s.find_last_not_of(' ') - b + 1);
}

// One quoted text of the data cell from `at` (on its opening quote); the
// escaped quotes inside are kept as quotes. `at` ends behind the closing one.
std::string quoted(const std::string& cell, size_t& at) {
  std::string out;
  for (++at; at < cell.size() && cell[at] != '"'; ++at) {
    if (cell[at] == '\\' && at + 1 < cell.size()) ++at;
    out += cell[at];
  }
  ++at;
  return out;
}

// The fields of a data cell: data{"NN-Name":"value";...}.
field_list fields_of(const std::string& cell) {
  field_list out;
  size_t at = cell.find("data{");
  if (at == std::string::npos) return out;
  at += 5;
  while (at < cell.size() && cell[at] == '"') {
    std::string name = quoted(cell, at);
    if (at >= cell.size() || cell[at] != ':') break;
    ++at;
    std::string value = quoted(cell, at);
    const size_t dash = name.find('-');
    out.emplace_back(dash == std::string::npos ? name : name.substr(dash + 1), value);
    if (at < cell.size() && cell[at] == ';') ++at;
  }
  return out;
}

// The event rows of the default padded output (cells split at " | ").
std::vector<event_row> event_rows(const std::string& out) {
  std::vector<event_row> rows;
  size_t pos = 0;
  while (pos < out.size()) {
    size_t eol = out.find('\n', pos);
    if (eol == std::string::npos) eol = out.size();
    const std::string line = out.substr(pos, eol - pos);
    pos = eol + 1;
    if (line.find("data{") == std::string::npos) continue;
    std::vector<std::string> cells;
    size_t at = 0;
    for (size_t bar = line.find(" | "); bar != std::string::npos; bar = line.find(" | ", at)) {
      cells.push_back(line.substr(at, bar - at));
      at = bar + 3;
    }
    cells.push_back(line.substr(at));
    if (cells.size() < 16) continue;
    rows.push_back({trimmed(cells[2]), fields_of(cells.back())});
  }
  return rows;
}

std::vector<event_row> rows_of(const std::string& file, const std::string& provider) {
  const e2e::run_result r = e2e::run_quon("-quiet -log '" + sample(file) + "'");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out.find("corrupted record"), std::string::npos);
  std::vector<event_row> out;
  for (event_row& row : event_rows(r.out))
    if (row.provider == provider) out.push_back(std::move(row));
  return out;
}

// Text values are shown with "/" for "\".
std::string shown(std::string path) {
  for (char& c : path)
    if (c == '\\') c = '/';
  return path;
}

struct image {
  const char* base;
  const char* size;
  const char* file;
};

// The test program's process with its modules, in the order of its image
// rundown (DCStart records); the same in every image file.
const image kModules[] = {
    {"0x01160000", "0x0019e000", R"(C:\code\sawbuck\src\sawbuck\Debug\test_program.exe)"},
    {"0x76e10000", "0x00127000", R"(C:\Windows\system32\ntdll.dll)"},
    {"0x75680000", "0x000db000", R"(C:\Windows\system32\kernel32.dll)"},
    {"0x73cb0000", "0x00032000", R"(C:\Windows\system32\WINMM.dll)"},
    {"0x76b00000", "0x000aa000", R"(C:\Windows\system32\msvcrt.dll)"},
    {"0x76d70000", "0x0009d000", R"(C:\Windows\system32\USER32.dll)"},
    {"0x75e00000", "0x0004b000", R"(C:\Windows\system32\GDI32.dll)"},
    {"0x76ca0000", "0x000c6000", R"(C:\Windows\system32\ADVAPI32.dll)"},
    {"0x75cf0000", "0x000c2000", R"(C:\Windows\system32\RPCRT4.dll)"},
    {"0x758e0000", "0x00144000", R"(C:\Windows\system32\ole32.dll)"},
    {"0x75e50000", "0x0008d000", R"(C:\Windows\system32\OLEAUT32.dll)"},
    {"0x73c70000", "0x00039000", R"(C:\Windows\system32\OLEACC.dll)"},
    {"0x76f40000", "0x00058000", R"(C:\Windows\system32\SHLWAPI.dll)"},
    {"0x75ee0000", "0x00b10000", R"(C:\Windows\system32\SHELL32.dll)"},
    {"0x75a30000", "0x0001e000", R"(C:\Windows\system32\IMM32.DLL)"},
    {"0x76fa0000", "0x000c8000", R"(C:\Windows\system32\MSCTF.dll)"},
    {"0x76aa0000", "0x00009000", R"(C:\Windows\system32\LPK.DLL)"},
    {"0x769f0000", "0x0007d000", R"(C:\Windows\system32\USP10.dll)"},
    {"0x6c2b0000", "0x00023000", R"(C:\PROGRA~1\GOOGLE\GO333C~1\GOEC62~1.DLL)"},
    {"0x75dd0000", "0x0002d000", R"(C:\Windows\system32\WS2_32.dll)"},
    {"0x75dc0000", "0x00006000", R"(C:\Windows\system32\NSI.dll)"},
    {"0x6fa00000", "0x0003e000", R"(C:\PROGRA~1\Sophos\SOPHOS~1\SOPHOS~1.DLL)"},
    {"0x75670000", "0x00007000", R"(C:\Windows\system32\PSAPI.DLL)"},
    {"0x746a0000", "0x0019e000",
     R"(C:\Windows\WinSxS\x86_microsoft.windows.common-controls_6595b64144ccf1df_6.0.6001.18000_none_5cdbaa5a083979cc\comctl32.dll)"},
};

struct image_file {
  const char* name;
  int version;
  const char* process_id;  // versions 1 and 2 carry it
};

const image_file kImageFiles[] = {
    {"syzygy-2010-03/test_data_32_v0.etl", 0, ""},
    {"syzygy-2010-03/test_data_32_v1.etl", 1, "0x00001060"},
    {"syzygy-2010-03/test_data_32_v2.etl", 2, "0x00001060"},
    {"syzygy-2010-06/image_data_32_v0.etl", 0, ""},
    {"syzygy-2010-06/image_data_32_v1.etl", 1, "0x00000b2c"},
    {"syzygy-2010-06/image_data_32_v2.etl", 2, "0x00000b2c"},
};

// The whole field list an image row of `version` must have: the class's
// property names in order, nothing guessed.
field_list image_fields(const std::string& label, int version, const image& m, const std::string& pid) {
  switch (version) {
    case 0:
      return {{label, "{guess}"}, {"BaseAddress", m.base}, {"ModuleSize", m.size}, {"ImageFileName", shown(m.file)}};
    case 1:
      return {{label, "{guess}"}, {"ImageBase", m.base}, {"ImageSize", m.size}, {"ProcessId", pid},
              {"FileName", shown(m.file)}};
    default:
      return {};
  }
}

}  // namespace

TEST(SamplesKernelClasses, EveryImageOfThe32BitTracesUnderItsClassNames) {
  if (!samples_present()) GTEST_SKIP() << "no samples folder";
  for (const image_file& f : kImageFiles) {
    SCOPED_TRACE(f.name);
    const std::vector<event_row> rows = rows_of(f.name, "Kernel-ImageLoad-Trace");
    // 24 rundown records, the program's unload and its load.
    ASSERT_EQ(rows.size(), 26u);
    size_t rundown = 0, unloads = 0, loads = 0;
    for (const event_row& row : rows) {
      ASSERT_FALSE(row.fields.empty());
      const std::string& label = row.fields[0].first;
      const image* m = nullptr;
      if (label == "Image_DCStart") {
        ASSERT_LT(rundown, std::size(kModules));
        m = &kModules[rundown++];
      } else if (label == "Image_Unload") {
        m = &kModules[0];
        ++unloads;
      } else if (label == "Image_Load") {
        m = &kModules[0];
        ++loads;
      } else {
        ADD_FAILURE() << "unexpected label " << label;
        continue;
      }
      if (f.version < 2) {
        EXPECT_EQ(row.fields, image_fields(label, f.version, *m, f.process_id));
        continue;
      }
      // Version 2: the Vista layout, twelve properties; the PE check sum and
      // time stamp the test program logged differ per module and aren't
      // checked here, the reserved words are 0.
      ASSERT_EQ(row.fields.size(), 13u);
      const field_list head(row.fields.begin(), row.fields.begin() + 4);
      EXPECT_EQ(head, (field_list{{label, "{guess}"}, {"ImageBase", m->base}, {"ImageSize", m->size},
                                  {"ProcessId", f.process_id}}));
      const char* names[] = {"ImageChecksum", "TimeDateStamp", "Reserved0", "DefaultBase", "Reserved1",
                             "Reserved2",     "Reserved3",     "Reserved4", "FileName"};
      for (size_t i = 0; i < std::size(names); ++i) EXPECT_EQ(row.fields[4 + i].first, names[i]);
      for (size_t i = 6; i < 12; ++i) EXPECT_EQ(row.fields[i].second, "0x00000000") << row.fields[i].first;
      EXPECT_EQ(row.fields[12].second, shown(m->file));
    }
    EXPECT_EQ(rundown, std::size(kModules));
    EXPECT_EQ(unloads, 1u);
    EXPECT_EQ(loads, 1u);
  }
}

TEST(SamplesKernelClasses, Version2ImagesCarryTheirModulesStamps) {
  if (!samples_present()) GTEST_SKIP() << "no samples folder";
  // The first two rundown records of each version 2 file, all twelve values:
  // the test program's own words 0x4ba26867 and 0xcafebabe, and ntdll's
  // 0x4791a7a6 and 0x00135d86, in the order the class declares them
  // (ImageChecksum, then TimeDateStamp).
  for (const char* name : {"syzygy-2010-03/test_data_32_v2.etl", "syzygy-2010-06/image_data_32_v2.etl"}) {
    SCOPED_TRACE(name);
    const std::vector<event_row> rows = rows_of(name, "Kernel-ImageLoad-Trace");
    std::vector<const event_row*> rundown;
    for (const event_row& row : rows)
      if (!row.fields.empty() && row.fields[0].first == "Image_DCStart") rundown.push_back(&row);
    ASSERT_GE(rundown.size(), 2u);
    EXPECT_EQ(rundown[0]->fields[4], (std::pair<std::string, std::string>{"ImageChecksum", "0x4ba26867"}));
    EXPECT_EQ(rundown[0]->fields[5], (std::pair<std::string, std::string>{"TimeDateStamp", "0xcafebabe"}));
    EXPECT_EQ(rundown[1]->fields[4], (std::pair<std::string, std::string>{"ImageChecksum", "0x4791a7a6"}));
    EXPECT_EQ(rundown[1]->fields[5], (std::pair<std::string, std::string>{"TimeDateStamp", "0x00135d86"}));
  }
}

namespace {

const std::string kUserSid = "S-1-5-21-753675414-103939432-3550797041-1000";
const std::string kNotepadLine = R"("C:\Windows\system32\notepad.exe" )";

// The rundown of the process files: Idle, System and smss.exe, all in
// session 0xffffffff with exit status 0x103 (still running) and SID S-1-5-18.
struct rundown_process {
  const char* id;
  const char* parent;
  const char* image;
  const char* command_line;
};
const rundown_process kRundown[] = {
    {"0x00000000", "0x00000000", "Idle", "-"},
    {"0x00000004", "0x00000000", "System", "-"},
    {"0x00000108", "0x00000004", "smss.exe", R"(\SystemRoot\System32\smss.exe)"},
};

}  // namespace

TEST(SamplesKernelClasses, ProcessesOfThe32BitTracesUnderTheirClassNames) {
  if (!samples_present()) GTEST_SKIP() << "no samples folder";

  // Version 1: notepad.exe started and ended, no command line in this version.
  {
    SCOPED_TRACE("process_data_32_v1");
    const std::vector<event_row> rows = rows_of("syzygy-2010-06/process_data_32_v1.etl", "Kernel-Process-Trace");
    ASSERT_EQ(rows.size(), 2u);
    for (size_t i = 0; i < 2; ++i) {
      const bool start = i == 0;
      EXPECT_EQ(rows[i].fields,
                (field_list{{start ? "Process_Start" : "Process_End", "{guess}"},
                            {"PageDirectoryBase", "0x00000000"},
                            {"ProcessId", "0x000006f0"},
                            {"ParentId", "0x000003dc"},
                            {"SessionId", "0x00000001"},
                            {"ExitStatus", start ? "0x00000103" : "0x00000000"},
                            {"TokenUserSid", "0x00000000"},
                            {"TokenUserAttributes", "0x00000000"},
                            {"UserSID", kUserSid},
                            {"ImageFileName", "notepad.exe"}}));
    }
  }

  // Versions 2 and 3: the rundown at both ends (DCStart, DCEnd) around
  // notepad.exe's start and end, with its command line; version 3 adds
  // DirectoryTableBase after ExitStatus.
  for (int version : {2, 3}) {
    const std::string name = "syzygy-2010-06/process_data_32_v" + std::to_string(version) + ".etl";
    SCOPED_TRACE(name);
    const std::vector<event_row> rows = rows_of(name, "Kernel-Process-Trace");
    ASSERT_EQ(rows.size(), 8u);
    auto expected = [&](const std::string& label, const char* id, const char* parent, const char* session,
                        const char* status, const std::string& sid, const std::string& image,
                        const std::string& command_line) {
      field_list f = {{label, "{guess}"},     {"UniqueProcessKey", "0x00000000"},
                      {"ProcessId", id},       {"ParentId", parent},
                      {"SessionId", session},  {"ExitStatus", status}};
      if (version == 3) f.emplace_back("DirectoryTableBase", "0x00000000");
      f.insert(f.end(), {{"TokenUserSid", "0x00000000"},
                         {"TokenUserAttributes", "0x00000000"},
                         {"UserSID", sid},
                         {"ImageFileName", image},
                         {"CommandLine", shown(command_line)}});
      return f;
    };
    for (size_t i = 0; i < 3; ++i) {
      const rundown_process& p = kRundown[i];
      EXPECT_EQ(rows[i].fields, expected("Process_DCStart", p.id, p.parent, "0xffffffff", "0x00000103",
                                         "S-1-5-18", p.image, p.command_line));
      EXPECT_EQ(rows[5 + i].fields, expected("Process_DCEnd", p.id, p.parent, "0xffffffff", "0x00000103",
                                             "S-1-5-18", p.image, p.command_line));
    }
    EXPECT_EQ(rows[3].fields, expected("Process_Start", "0x000006f0", "0x000003dc", "0x00000001", "0x00000103",
                                       kUserSid, "notepad.exe", kNotepadLine));
    EXPECT_EQ(rows[4].fields, expected("Process_End", "0x000006f0", "0x000003dc", "0x00000001", "0x00000000",
                                       kUserSid, "notepad.exe", kNotepadLine));
  }
}

TEST(SamplesKernelClasses, The64BitTracesAreReadToTheirEnd) {
  if (!samples_present()) GTEST_SKIP() << "no samples folder";
  // Their payloads hold 8-byte pointers under a log header that says 4: the
  // values are misread, but every record gives its row and its class label.
  const std::pair<const char*, size_t> files[] = {
      {"syzygy-2010-03/test_data_64_v0.etl", 26}, {"syzygy-2010-03/test_data_64_v1.etl", 26},
      {"syzygy-2010-03/test_data_64_v2.etl", 26}, {"syzygy-2010-06/image_data_64_v0.etl", 26},
      {"syzygy-2010-06/image_data_64_v1.etl", 26}, {"syzygy-2010-06/image_data_64_v2.etl", 26},
      {"syzygy-2010-06/process_data_64_v2.etl", 8}, {"syzygy-2010-06/process_data_64_v3.etl", 8},
  };
  for (const auto& [name, count] : files) {
    SCOPED_TRACE(name);
    const std::string provider =
        std::string(name).find("process") != std::string::npos ? "Kernel-Process-Trace" : "Kernel-ImageLoad-Trace";
    const std::vector<event_row> rows = rows_of(name, provider);
    ASSERT_EQ(rows.size(), count);
    for (const event_row& row : rows) {
      ASSERT_FALSE(row.fields.empty());
      EXPECT_EQ(row.fields[0].second, "{guess}");
    }
  }
}
