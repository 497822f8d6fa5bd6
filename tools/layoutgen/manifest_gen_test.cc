#include "tools/layoutgen/manifest_gen.h"

#include <gtest/gtest.h>

namespace layoutgen {
namespace {

build_layout layout(uint16_t build, std::vector<gen_field> fields, const std::string& label = "Ev") {
  build_layout b;
  b.build = build;
  b.label = label;
  b.fields = std::move(fields);
  return b;
}

TEST(ManifestGen, BuildsThatAgreeShareOneLineWithoutBuildToken) {
  event_builds eb;
  eb.builds = {layout(7600, {{"A", 8}}), layout(10240, {{"A", 8}}), layout(18990, {{"A", 8}})};
  std::vector<keyed_line> lines = lines_of(eb);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].build, 0);
  EXPECT_EQ(event_line("g", 3, 2, lines[0].build, *lines[0].layout), "{g} ! $3, V2, LEv, 0x8001, LA, 8");
}

TEST(ManifestGen, EachRunOfBuildsEndsBeforeTheNextRunStarts) {
  // 7600 writes A; 10240 and 17134 write B; 18990 goes back to A. A layout
  // that comes back is a run of its own: the token says up to which build.
  event_builds eb;
  eb.builds = {layout(7600, {{"A", 8}}), layout(10240, {{"A", 8}, {"B", 1}}),
               layout(17134, {{"A", 8}, {"B", 1}}), layout(18990, {{"A", 8}})};
  std::vector<keyed_line> lines = lines_of(eb);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].build, 10239);
  EXPECT_EQ(lines[1].build, 18989);
  EXPECT_EQ(lines[2].build, 65535);
  EXPECT_EQ(event_line("g", 1, 0, lines[1].build, *lines[1].layout),
            "{g} ! $1, V0, #18989, LEv, 0x8001, LA, 8, LB, 1");
  // A different label alone is a different layout.
  eb.builds = {layout(7600, {{"A", 8}}, "Old"), layout(10240, {{"A", 8}}, "New")};
  EXPECT_EQ(lines_of(eb).size(), 2u);
}

TEST(ManifestGen, APlainItemGivesWayToAStructureSeenByAnotherBuild) {
  // One build read an item numbered like the structure's start index as a
  // plain in-type; another build saw the structure and ended the layout there.
  build_layout plain = layout(10240, {{"Count", 8}, {"Entries", 3}, {"Tail", 8}});
  plain.plain_at_struct_index = true;
  build_layout cut = layout(18990, {{"Count", 8}, {"Entries", 0}});
  cut.stopped_at_struct = true;
  event_builds eb;
  eb.builds = {plain, cut};
  std::vector<keyed_line> lines = lines_of(eb);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].layout->fields.size(), 2u);
  EXPECT_EQ(lines[0].layout->fields[1].word, 0);
  // Builds that disagree before that point keep their own layouts.
  eb.builds[0].fields[0].name = "Other";
  EXPECT_EQ(lines_of(eb).size(), 2u);
}

TEST(ManifestGen, TableFieldsStopWhereTheyMayHangOnAnEarlierField) {
  std::string label, cut;
  std::vector<gen_field> f;
  ASSERT_TRUE(tsv_fields("Start_V5(UInt32 Pid, UInt64 ProcessSequenceNumber, FILETIME CreateTime, "
                         "SID Label, UnicodeString Name, Pointer Base, GUID Id, HexInt64 Key)",
                         label, f, cut));
  EXPECT_EQ(label, "Start_V5");
  EXPECT_EQ(cut, "");
  ASSERT_EQ(f.size(), 8u);
  EXPECT_EQ(f[1].word, 10);  // a sequence "number" is no count
  EXPECT_EQ(f[2].word, 17);
  EXPECT_EQ(f[3].word, 19);
  EXPECT_EQ(f[4].word, 1);
  EXPECT_EQ(f[5].word, 16);
  EXPECT_EQ(f[6].word, 15);
  EXPECT_EQ(f[7].word, 21);

  ASSERT_TRUE(tsv_fields("E(UInt32 Flags, UInt32 __binLength, Binary binary)", label, f, cut));
  ASSERT_EQ(f.size(), 3u);
  EXPECT_EQ(f[2].name, "binary");
  EXPECT_EQ(f[2].word, 0);
  EXPECT_EQ(cut, "binary data without its length (26H1 table)");

  ASSERT_TRUE(tsv_fields("E(UInt16 NameLength, UnicodeString Name, UInt32 After)", label, f, cut));
  ASSERT_EQ(f.size(), 2u);
  EXPECT_EQ(f[1].word, 0);

  ASSERT_TRUE(tsv_fields("E(UInt32 EntryCount, UInt32 Entry)", label, f, cut));
  ASSERT_EQ(f.size(), 2u);
  EXPECT_EQ(f[1].word, 0);
  ASSERT_TRUE(tsv_fields("E(UInt32 NumEntries, UInt32 Entry)", label, f, cut));
  EXPECT_EQ(f.back().word, 0);

  // A structure appears as a number, or as Struct.
  ASSERT_TRUE(tsv_fields("E(UInt32 A, 29 Items, UInt32 B)", label, f, cut));
  ASSERT_EQ(f.size(), 2u);
  EXPECT_EQ(f[1].word, 0);
  ASSERT_TRUE(tsv_fields("E(Struct S)", label, f, cut));
  ASSERT_EQ(f.size(), 1u);
  EXPECT_EQ(f[0].word, 0);

  EXPECT_FALSE(tsv_fields("no parentheses", label, f, cut));
}

TEST(ManifestGen, ProviderListGivesNamesByGuid) {
  const std::string text =
      "[+] Collecting Information..\n"
      "{5EEFEBDB-E90C-423A-8ABF-0241E7C5B87D}\tMOF     \tWindows Defender Firewall Service\n"
      "\t- keyword:\n"
      "\t\t0x1: TL_ERROR: TL_ERROR Flag\n"
      "{22FB2CD6-0E7B-422B-A0C7-2FAD1FD0E716}\tManifest\tMicrosoft-Windows-Kernel-Process\r\n"
      "{not-a-guid}\tMOF\tBroken\n"
      "{9E814AAD-3204-11D2-9A82-006008A86939}\tMOF\t\n";
  std::map<std::string, std::string> names = read_provider_list(text);
  ASSERT_EQ(names.size(), 2u);
  EXPECT_EQ(names["5eefebdb-e90c-423a-8abf-0241e7c5b87d"], "Windows Defender Firewall Service");
  EXPECT_EQ(names["22fb2cd6-0e7b-422b-a0c7-2fad1fd0e716"], "Microsoft-Windows-Kernel-Process");
}

}  // namespace
}  // namespace layoutgen
