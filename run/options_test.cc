#include "run/options.h"

#include <gtest/gtest.h>

namespace {

bool parsed(quon_user_opts& o, std::initializer_list<const char*> words) {
  std::vector<std::string> a{"quon"};
  for (const char* w : words) a.emplace_back(w);
  return parse_options(o, a);
}

}  // namespace

TEST(Options, LogListSplitsAtThePreferredDelimiter) {
  quon_user_opts bar;
  ASSERT_TRUE(parsed(bar, {"-log", " a.etl | b,c.etl ;d "}));
  EXPECT_EQ(bar.log_files, (std::vector<std::string>{"a.etl", "b,c.etl ;d"}));
  quon_user_opts comma;
  ASSERT_TRUE(parsed(comma, {"-LOG", "a.etl,b.etl;c"}));
  EXPECT_EQ(comma.log_files, (std::vector<std::string>{"a.etl", "b.etl;c"}));
  quon_user_opts semi;
  ASSERT_TRUE(parsed(semi, {"-log", "a.etl;b.etl"}));
  EXPECT_EQ(semi.log_files, (std::vector<std::string>{"a.etl", "b.etl"}));
  quon_user_opts one;
  ASSERT_TRUE(parsed(one, {"-log", "my trace.etl"}));
  EXPECT_EQ(one.log_files, (std::vector<std::string>{"my trace.etl"}));
  // The program's own default time format.
  EXPECT_EQ(one.report.time_format, "hh:mm:ss.xxxxxxxxx");
}

TEST(Options, ModesAndTheirRequirements) {
  quon_user_opts guids;
  EXPECT_FALSE(parsed(guids, {"-guids", "-enumdir", "/tmp"}));
  quon_user_opts piped;
  EXPECT_TRUE(parsed(piped, {"-stats", "-pipe"}));
  EXPECT_TRUE(piped.walk.list_stats);
  EXPECT_TRUE(piped.engine.stats_enabled);

  quon_user_opts pull;
  EXPECT_FALSE(parsed(pull, {"-log", "a.etl", "-pullguid", "5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b"}));
  quon_user_opts pull_ok;
  ASSERT_TRUE(parsed(pull_ok, {"-log", "a.etl", "-out", "/dev/null", "-pullguid",
                               "5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b"}));
  EXPECT_TRUE(pull_ok.walk.subset.on);
  // The GUID is kept in the binary layout: Data1 little-endian first.
  EXPECT_EQ(pull_ok.walk.subset.guid[0], 0x11);
  EXPECT_EQ(pull_ok.walk.subset.guid[3], 0x5f);
  EXPECT_EQ(pull_ok.walk.subset.guid[15], 0x5b);
  quon_user_opts short_guid;
  EXPECT_FALSE(parsed(short_guid, {"-out", "/dev/null", "-pullguid", "5f0b2a11-7c3e"}));

  quon_user_opts manifests_alone;
  EXPECT_FALSE(parsed(manifests_alone, {"-manifests"}));
  EXPECT_FALSE(manifests_alone.walk.gather_manifests);
  quon_user_opts manifests;
  ASSERT_TRUE(parsed(manifests, {"-MANIFESTS", "-log", "a.etl"}));
  EXPECT_TRUE(manifests.walk.gather_manifests);
  quon_user_opts manifests_json;
  EXPECT_FALSE(parsed(manifests_json, {"-jsonl", "-manifests", "-log", "a.etl"}));

  quon_user_opts bxml;
  ASSERT_TRUE(parsed(bxml, {"-pipe", "-extract_bxml"}));
  EXPECT_TRUE(bxml.extract_bxml);
  EXPECT_TRUE(bxml.pe_path.empty());
  quon_user_opts rest;
  ASSERT_TRUE(parsed(rest, {"-templates", "t.txt", "-providers", "SOFTWARE", "-no_guessing", "-enc"}));
  EXPECT_TRUE(rest.templates_given);
  EXPECT_EQ(rest.templates_path, "t.txt");
  EXPECT_EQ(rest.hive_path, "SOFTWARE");
  EXPECT_TRUE(rest.no_guessing);
  EXPECT_TRUE(rest.encoded);
}
