#include "tools/layoutgen/gen_common.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "templates/template_text.h"

namespace layoutgen {
namespace {

TEST(GenCommon, LayoutLineReadsBackAsTheSameRecord) {
  gen_layout l;
  l.guid = "ce1dbfb4-137e-4da6-87b0-3f59aa102cbc";
  l.id = 0x0F2E;
  l.version = 2;
  l.fields = {{"PerfInfo_SampleProf", 0x8001}, {"InstructionPointer", 16}, {"ThreadId", 8},
              {"Skip", 0xB284}, {"", 68}};
  std::string line = layout_line(l);
  EXPECT_EQ("{ce1dbfb4-137e-4da6-87b0-3f59aa102cbc} ! $3886, V2, LPerfInfo_SampleProf, 0x8001, "
            "LInstructionPointer, 16, LThreadId, 8, LSkip, 0xB284, 68",
            line);
  template_record r;
  ASSERT_TRUE(parse_template_line(r, line));
  EXPECT_EQ(2, r.version);
  ASSERT_EQ(1u, r.ids.size());
  EXPECT_EQ(0x0F2E, r.ids[0]);
  EXPECT_EQ((std::vector<uint16_t>{0x8001, 16, 8, 0xB284, 68}), r.words);
  EXPECT_EQ((std::vector<std::string>{"PerfInfo_SampleProf", "InstructionPointer", "ThreadId",
                                      "Skip", ""}),
            r.names);
}

TEST(GenCommon, NoVersionTokenWhenNoneIsGiven) {
  gen_layout l;
  l.guid = "00000000-0000-0000-0000-000000000001";
  l.id = 5;
  l.fields = {{"A", 8}};
  EXPECT_EQ("{00000000-0000-0000-0000-000000000001} ! $5, LA, 8", layout_line(l));
}

TEST(GenCommon, TokensCantBreakALine) {
  EXPECT_EQ("Thread_KernelQueueEnqueue", clean_token(" Thread_Kernel Queue Enqueue "));
  EXPECT_EQ("a_b_c_", clean_token("a,b!c\x01"));
}

TEST(GenCommon, Guids) {
  EXPECT_EQ("ce1dbfb4-137e-4da6-87b0-3f59aa102cbc",
            normal_guid("{CE1DBFB4-137E-4DA6-87B0-3F59AA102CBC}"));
  EXPECT_EQ("", normal_guid("{CE1DBFB4-137E-4DA6-87B0-3F59AA102CBC"));
  EXPECT_EQ("", normal_guid("CE1DBFB4x137E-4DA6-87B0-3F59AA102CBC"));
  EXPECT_EQ("", normal_guid("CE1DBFB4-137E-4DA6-87B0-3F59AA102CBG"));
  EXPECT_EQ("", normal_guid(""));
}

TEST(GenCommon, SplitsTabsAndLines) {
  EXPECT_EQ((std::vector<std::string>{"a", "", "b"}), split_tabs("a\t\tb\r"));
  EXPECT_EQ((std::vector<std::string>{""}), split_tabs(""));
  EXPECT_EQ((std::vector<std::string>{"x", "", "y"}), split_lines("x\n\ny"));
  EXPECT_TRUE(split_lines("").empty());
}

// The hand-checked keys are every (GUID, identifier) of the data folder's
// non-generated files, ranges and lists included; gen_* files don't count.
TEST(GenCommon, HandCheckedKeysComeFromNonGeneratedFiles) {
  char tmpl[] = "/tmp/layoutgen_test_XXXXXX";
  ASSERT_NE(nullptr, mkdtemp(tmpl));
  std::string dir = tmpl;
  std::ofstream(dir + "/hand.txt")
      << "// comment\n"
      << "{3d6fa8d0-fe05-11d0-9dda-00c04fd7ba7c} ! $0x0301, #65535, LProcess_Start, 0x8001, LA, 8\n"
      << "{3d6fa8d0-fe05-11d0-9dda-00c04fd7ba7c} ! $10-12;20, LB, 8\n"
      << "#{11111111-2222-3333-4444-555555555555} ! Named-Only\n";
  std::ofstream(dir + "/gen_classic.txt")
      << "{3d6fa8d0-fe05-11d0-9dda-00c04fd7ba7c} ! $0x0399, V1, LC, 8\n";
  std::vector<std::string> files;
  hand_checked_keys keys = read_hand_checked_keys(dir, &files);
  EXPECT_EQ((std::vector<std::string>{"hand.txt"}), files);
  const std::string g = "3d6fa8d0-fe05-11d0-9dda-00c04fd7ba7c";
  EXPECT_TRUE(is_hand_checked(keys, g, 0x0301));
  EXPECT_TRUE(is_hand_checked(keys, g, 10));
  EXPECT_TRUE(is_hand_checked(keys, g, 12));
  EXPECT_TRUE(is_hand_checked(keys, g, 20));
  EXPECT_FALSE(is_hand_checked(keys, g, 13));
  EXPECT_FALSE(is_hand_checked(keys, g, 0x0399));
  EXPECT_EQ(5u, keys.size());
  std::remove((dir + "/hand.txt").c_str());
  std::remove((dir + "/gen_classic.txt").c_str());
  std::remove(dir.c_str());
}

TEST(GenCommon, GeneratedFileBeginsWithItsHeadAndCommand) {
  char tmpl[] = "/tmp/layoutgen_test_XXXXXX";
  ASSERT_NE(nullptr, mkdtemp(tmpl));
  std::string path = std::string(tmpl) + "/gen_x.txt";
  std::string error;
  ASSERT_TRUE(write_generated_file(path, "./layoutgen in out", {"line one"}, error));
  std::string text;
  ASSERT_TRUE(read_text_file(path, text));
  EXPECT_EQ(std::string(kGeneratedHead) + "\n// regenerate: ./layoutgen in out\n\nline one\n", text);
  std::remove(path.c_str());
  std::remove(tmpl);
  EXPECT_FALSE(write_generated_file("/nonexistent-dir/x.txt", "c", {}, error));
}

TEST(GenCommon, StatisticsCountDistinctLayoutsAcrossProviders) {
  source_stats s;
  s.source = "test";
  gen_layout a;
  a.guid = "00000000-0000-0000-0000-000000000001";
  a.fields = {{"X", 8}};
  gen_layout b = a;
  b.guid = "00000000-0000-0000-0000-000000000002";
  count_layout(s, a, "P1");
  count_layout(s, b, "P2");
  ++s.cut_short["reason"];
  EXPECT_EQ(2u, s.layouts);
  EXPECT_EQ(1u, s.distinct.size());
  EXPECT_EQ(2u, s.providers.size());
  std::ostringstream out;
  print_stats(out, s);
  EXPECT_NE(std::string::npos, out.str().find("layouts: 2, distinct layouts: 1, providers with layouts: 2, provider names: 2"));
  EXPECT_NE(std::string::npos, out.str().find("1  reason"));
}

}  // namespace
}  // namespace layoutgen
