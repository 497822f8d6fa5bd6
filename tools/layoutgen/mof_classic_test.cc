#include "tools/layoutgen/mof_classic.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "templates/template_text.h"

namespace layoutgen {
namespace {

const char kPerfInfo[] = "{ce1dbfb4-137e-4da6-87b0-3f59aa102cbc}";

mof_row row_of(const std::string& guid, const std::string& type, const std::string& version,
               const std::string& fields, const std::string& type_name) {
  mof_row row;
  std::string line = "Windows Kernel Trace\t" + guid + "\t" + type + "\t" + version + "\t" + fields +
                     "\t" + type_name + "\tdescription";
  EXPECT_EQ(row_fault::none, parse_mof_row(line, row)) << line;
  return row;
}

std::vector<uint16_t> words_of(const gen_layout& l) {
  std::vector<uint16_t> w;
  for (const gen_field& f : l.fields) w.push_back(f.word);
  return w;
}

TEST(MofClassic, SampledProfileGetsItsPointerAndTheHookIdentifier) {
  source_stats stats;
  gen_layout l;
  ASSERT_TRUE(mof_layout_of(row_of(kPerfInfo, "46", "2",
                                   "PerfInfo_SampleProf_V2(UInt32 InstructionPointer, UInt32 "
                                   "ThreadId, UInt16 Count, UInt16 Reserved)",
                                   "SampleProf"),
                            l, stats));
  EXPECT_EQ("ce1dbfb4-137e-4da6-87b0-3f59aa102cbc", l.guid);
  EXPECT_EQ(0x0F2E, l.id);  // group 0x0F, type 46
  EXPECT_EQ(2, l.version);
  EXPECT_EQ((std::vector<uint16_t>{0x8001, 16, 8, 6, 6}), words_of(l));
  EXPECT_EQ("PerfInfo_SampleProf", l.fields[0].name);
  EXPECT_EQ("InstructionPointer", l.fields[1].name);
  EXPECT_TRUE(l.cut_reason.empty());
  EXPECT_EQ("PerfInfo", l.corrected_in);
  EXPECT_EQ(1u, l.corrected);
}

TEST(MofClassic, StackIsPointersToTheEndOfThePayload) {
  std::string fields = "StackWalk_Stack_V2(UInt64 EventTimeStamp, UInt32 StackProcess, UInt32 StackThread";
  for (int i = 1; i <= 32; ++i) fields += ", UInt32 Stack" + std::to_string(i);
  fields += ")";
  source_stats stats;
  gen_layout l;
  ASSERT_TRUE(mof_layout_of(row_of("{def2fe46-7bd6-4b80-bd94-f57fe20d0ce3}", "32", "2", fields, "Stack"),
                            l, stats));
  EXPECT_EQ(0x1820, l.id);
  ASSERT_EQ(4u + 192u, l.fields.size());
  EXPECT_EQ(10, l.fields[1].word);
  EXPECT_EQ(8, l.fields[2].word);
  EXPECT_EQ(8, l.fields[3].word);
  EXPECT_EQ("Stack1", l.fields[4].name);
  EXPECT_EQ(16, l.fields[4].word);
  EXPECT_EQ("Stack192", l.fields.back().name);
  EXPECT_EQ(16, l.fields.back().word);
}

TEST(MofClassic, FixedUtf16ArraysTakeTheirSlots) {
  source_stats stats;
  gen_layout l;
  ASSERT_TRUE(mof_layout_of(
      row_of("{01853a65-418f-4f36-aefc-dc0f1d2fd235}", "10", "2",
             "SystemConfig_CPU_V2(UInt32 MHz, UInt32 NumberOfProcessors, UInt32 MemSize, UInt32 "
             "PageSize, UInt32 AllocationGranularity, Char16 ComputerName, Char16 DomainName, "
             "UInt32 HyperThreadingFlag)",
             "CPU"),
      l, stats));
  EXPECT_EQ(0x0B0A, l.id);
  // 256 characters: the 512-byte slot; 132 characters: 264 bytes with their count.
  EXPECT_EQ((std::vector<uint16_t>{0x8001, 8, 8, 8, 8, 8, 177, 0xB284, 264, 16}), words_of(l));
  EXPECT_EQ("SystemConfig_CPU", l.fields[0].name);
  EXPECT_EQ("DomainName", l.fields[7].name);
  EXPECT_EQ("", l.fields[8].name);

  ASSERT_TRUE(mof_layout_of(
      row_of("{01853a65-418f-4f36-aefc-dc0f1d2fd235}", "12", "2",
             "SystemConfig_LogDisk_V2(UInt32 DriveType, Char16 DriveLetterString, Char16 FileSystem)",
             "LogDisk"),
      l, stats));
  EXPECT_EQ((std::vector<uint16_t>{0x8001, 8, 161, 0x8005}), words_of(l));
}

TEST(MofClassic, WhatStaysLossyEndsTheLayoutThereByReason) {
  source_stats stats;
  gen_layout l;
  // A string of a class that says nothing of its encoding.
  ASSERT_TRUE(mof_layout_of(row_of("{8a3b8d86-db1e-47a9-9264-146e097b3c64}", "1", "0",
                                   "NlServerAuth_Start(UInt32 ChannelType, String Client, UInt32 Flags)",
                                   "Start"),
                            l, stats));
  EXPECT_EQ(1, l.id);  // not a kernel group: the event type itself
  EXPECT_EQ((std::vector<uint16_t>{0x8001, 8, 0}), words_of(l));
  EXPECT_EQ("Client", l.fields.back().name);
  EXPECT_EQ("String: ANSI or UTF-16 not stated", l.cut_reason);

  // A 32-bit field named as an address in a class no page describes.
  ASSERT_TRUE(mof_layout_of(row_of("{8a3b8d86-db1e-47a9-9264-146e097b3c64}", "2", "0",
                                   "X_End(UInt32 Count, UInt32 CallbackAddress)", "End"),
                            l, stats));
  EXPECT_EQ((std::vector<uint16_t>{0x8001, 8, 0}), words_of(l));
  EXPECT_EQ("UInt32 named as an address or handle: width not documented", l.cut_reason);

  // Every UInt32 of an undocumented kernel class.
  ASSERT_TRUE(mof_layout_of(row_of("{c861d0e2-a2c1-4d36-9f9c-970bab943a12}", "37", "2",
                                   "ThreadPool_PoolCreate_V2(UInt32 PoolId)", "PoolCreate"),
                            l, stats));
  EXPECT_EQ(0x1C25, l.id);
  EXPECT_EQ((std::vector<uint16_t>{0x8001, 0}), words_of(l));

  // Object, Char16 and unknown types without a correction.
  for (const char* t : {"Object", "Char16", "Boolean", "Real32"}) {
    ASSERT_TRUE(mof_layout_of(row_of("{8a3b8d86-db1e-47a9-9264-146e097b3c64}", "3", "0",
                                     std::string("Y_Z(UInt8 A, ") + t + " B, UInt8 C)", "Z"),
                              l, stats));
    EXPECT_EQ((std::vector<uint16_t>{0x8001, 4, 0}), words_of(l)) << t;
    EXPECT_FALSE(l.cut_reason.empty()) << t;
  }
  // Counted when a layout is written, not when it is made.
  EXPECT_TRUE(stats.cut_short.empty());
  count_layout(stats, l, "P");
  EXPECT_EQ(1u, stats.cut_short[l.cut_reason]);
}

TEST(MofClassic, AKernelEventTypeAboveAByteHasNoHookIdentifier) {
  source_stats stats;
  gen_layout l;
  EXPECT_FALSE(mof_layout_of(row_of(kPerfInfo, "300", "2", "PerfInfo_X_V2(UInt32 A)", "X"), l, stats));
  EXPECT_EQ(1u, stats.cut_short.size());
}

TEST(MofClassic, ProcessUserSidIsATokenUserAndTheSid) {
  source_stats stats;
  gen_layout l;
  ASSERT_TRUE(mof_layout_of(
      row_of("{3d6fa8d0-fe05-11d0-9dda-00c04fd7ba7c}", "39", "2",
             "Process_Defunct_V2(UInt32 UniqueProcessKey, UInt32 ProcessId, Object UserSID, "
             "String ImageFileName, String CommandLine)",
             "Defunct"),
      l, stats));
  EXPECT_EQ((std::vector<uint16_t>{0x8001, 16, 8, 16, 16, 19, 2, 1}), words_of(l));
  EXPECT_EQ("TokenUserSid", l.fields[3].name);
  EXPECT_EQ("UserSID", l.fields[5].name);
}

TEST(MofClassic, TablesConvertWithoutTheHandCheckedKeys) {
  char tmpl[] = "/tmp/layoutgen_mof_XXXXXX";
  ASSERT_NE(nullptr, mkdtemp(tmpl));
  std::string dir = tmpl;
  std::ofstream(dir + "/Windows_Kernel_Trace.tsv")
      << "provider\tcategory\tevent_id\tversion\tevent(fields)\tevent_type\tdescription\n"
      << "Windows Kernel Trace\t{3d6fa8d1-fe05-11d0-9dda-00c04fd7ba7c}\t1\t2\tThread_Start_V2(UInt32 ProcessId)\tStart\td\n"
      << "Windows Kernel Trace\t{3d6fa8d1-fe05-11d0-9dda-00c04fd7ba7c}\t36\t2\tThread_CSwitch_V2(UInt32 NewThreadId)\tCSwitch\td\n"
      << "Windows Kernel Trace\t{3d6fa8d1-fe05-11d0-9dda-00c04fd7ba7c}\t36\t3\tThread_CSwitch_V3(UInt32 NewThreadId, UInt32 OldThreadId)\tCSwitch\td\n"
      << "Windows Kernel Trace\t{3d6fa8d1-fe05-11d0-9dda-00c04fd7ba7c}\t36\t3\tThread_CSwitch_V3(UInt32 Again)\tCSwitch\td\n"
      << "garbage line\n"
      << "Windows Kernel Trace\t{bad}\t1\t0\tA_B()\tB\td\n";
  hand_checked_keys hand{{"3d6fa8d1-fe05-11d0-9dda-00c04fd7ba7c", 0x0501}};
  std::vector<std::string> lines;
  source_stats stats;
  convert_mof_tables(dir, hand, lines, stats);
  EXPECT_EQ(1u, stats.files);
  EXPECT_EQ(6u, stats.rows);
  EXPECT_EQ(2u, stats.bad_rows);
  EXPECT_EQ(1u, stats.hand_checked);
  EXPECT_EQ(2u, stats.layouts);  // the repeated (GUID, 0x0524, 3) keeps its first row
  std::vector<std::string> events;
  for (const std::string& s : lines)
    if (!s.empty() && s[0] == '{') events.push_back(s);
  // Newest version first: where the version isn't looked at, the first line
  // of an event serves.
  EXPECT_EQ((std::vector<std::string>{
                "{3d6fa8d1-fe05-11d0-9dda-00c04fd7ba7c} ! $1316, V3, LThread_CSwitch, 0x8001, LNewThreadId, 8, LOldThreadId, 8",
                "{3d6fa8d1-fe05-11d0-9dda-00c04fd7ba7c} ! $1316, V2, LThread_CSwitch, 0x8001, LNewThreadId, 8"}),
            events);
  std::remove((dir + "/Windows_Kernel_Trace.tsv").c_str());
  std::remove(dir.c_str());
}

}  // namespace
}  // namespace layoutgen

namespace layoutgen {
namespace {

// The committed generated file: it begins with its head and command, every
// event line reads as a versioned record, and none of its (GUID, identifier)
// pairs is one that a hand-checked file of data/ defines (a hand-checked file
// changed without regenerating fails here).
TEST(MofClassic, CommittedFileLeavesTheHandCheckedKeysAlone) {
  const std::string data = std::string(QUON_SOURCE_DIR) + "/data";
  std::string text;
  ASSERT_TRUE(read_text_file(data + "/gen_classic.txt", text));
  std::vector<std::string> lines = split_lines(text);
  ASSERT_GE(lines.size(), 3u);
  EXPECT_EQ(kGeneratedHead, lines[0]);
  EXPECT_EQ("// regenerate: ./build/tools/layoutgen/layoutgen ../shared/manifests data", lines[1]);
  const hand_checked_keys hand = read_hand_checked_keys(data);
  ASSERT_FALSE(hand.empty());
  size_t events = 0;
  for (const std::string& line : lines) {
    if (line.empty() || line[0] != '{') continue;
    template_record r;
    ASSERT_TRUE(parse_template_line(r, line)) << line;
    ASSERT_EQ(1u, r.ids.size()) << line;
    EXPECT_GE(r.version, 0) << line;
    EXPECT_TRUE(r.builds.empty()) << line;
    EXPECT_EQ(0x8001, r.words.front()) << line;
    std::string guid = line.substr(1, 36);
    EXPECT_FALSE(is_hand_checked(hand, guid, r.ids[0])) << line;
    ++events;
  }
  EXPECT_GT(events, 500u);
}

}  // namespace
}  // namespace layoutgen
