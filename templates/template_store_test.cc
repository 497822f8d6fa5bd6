#include "templates/template_store.h"

#include <gtest/gtest.h>

#include <cstdio>

namespace {

std::string hex(const template_digest& d) {
  std::string s;
  char b[3];
  for (uint8_t v : d) {
    std::snprintf(b, sizeof b, "%02x", v);
    s += b;
  }
  return s;
}

qv::guid16 guid_with(uint8_t first) {
  qv::guid16 g{};
  g[0] = first;
  g[15] = 0x7c;
  return g;
}

// Adds a one-field template with word `word` and returns its digest.
template_digest add_template(template_store& store, uint16_t word) {
  event_template t;
  t.words = {word};
  t.names = {"f"};
  build_layout(t);
  store.by_digest.emplace(t.digest, uint32_t(store.templates.size()));
  store.templates.push_back(t);
  return t.digest;
}

TEST(TemplateStore, DigestIsFnv1a128) {
  // Published FNV-1a 128-bit test values, most significant byte first.
  EXPECT_EQ(hex(digest_of("")), "6c62272e07bb014262b821756295c58d");
  EXPECT_EQ(hex(digest_of("a")), "d228cb696f1a8caf78912b704e4a8964");
  EXPECT_EQ(hex(digest_of("foobar")), "343e1662793c64bf6f0d3597ba446f18");
  EXPECT_NE(digest_of("ProcessID8"), digest_of("ProcessID10"));
}

TEST(TemplateStore, LayoutTextIsNamesAndDecimalWords) {
  event_template t;
  t.words = {0x8001, 8};
  t.names = {"WMI_LOG_TYPE_PROCESS_TERMINATE", "ProcessID"};
  build_layout(t);
  EXPECT_EQ(t.layout_text, "WMI_LOG_TYPE_PROCESS_TERMINATE32769ProcessID8");
  EXPECT_EQ(t.digest, digest_of(t.layout_text));

  // Missing names are padded with empty ones, which add nothing to the text.
  event_template u;
  u.words = {1, 0xA101, 0};
  u.names = {"Name"};
  build_layout(u);
  EXPECT_EQ(u.layout_text, "Name1412170");
  ASSERT_EQ(u.names.size(), 3u);
  EXPECT_EQ(u.names[2], "");
}

TEST(TemplateStore, BuildChoice) {
  template_store store;
  const qv::guid16 g = guid_with(1);
  template_digest d9200 = add_template(store, 1);
  template_digest d9600 = add_template(store, 2);
  template_digest d14393 = add_template(store, 3);
  build_map& builds = store.providers[g].events[14];
  builds = {{9200, d9200}, {9600, d9600}, {14393, d14393}};

  auto word_for = [&](uint32_t trace_build) -> int {
    set_trace_build(store, trace_build);
    const event_template* t = find_event_template(store, g, 14);
    return t ? t->words[0] : -1;
  };
  EXPECT_EQ(word_for(9600), 2);    // exact build
  EXPECT_EQ(word_for(9000), 1);    // oldest layout not older than the trace
  EXPECT_EQ(word_for(9201), 2);
  EXPECT_EQ(word_for(10000), 3);
  EXPECT_EQ(word_for(20000), 3);   // nothing newer: the highest
  EXPECT_EQ(word_for(0), 3);       // unknown build: the highest
  EXPECT_EQ(word_for(70000), 3);   // beyond 16 bits: the highest

  // A build-less layout (key 0) serves only where no build key answers.
  template_digest d0 = add_template(store, 4);
  store.providers[g].events[15] = {{0, d0}, {14393, d14393}};
  store.providers[g].events[16] = {{0, d0}};
  for (uint32_t b : {0u, 9600u, 14393u, 20000u}) {
    set_trace_build(store, b);
    const event_template* t = find_event_template(store, g, 15);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->words[0], 3) << b;
    t = find_event_template(store, g, 16);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->words[0], 4) << b;
  }
}

TEST(TemplateStore, MissesAreEmptyAnswers) {
  template_store store;
  const qv::guid16 g = guid_with(2);
  template_digest d = add_template(store, 8);
  EXPECT_EQ(find_event_template(store, g, 1), nullptr);  // unknown provider

  // A provider known only by its declaration: named, but no events.
  ASSERT_TRUE(set_provider_name(store, g, "Microsoft-Windows-Demo"));
  EXPECT_EQ(find_event_template(store, g, 1), nullptr);
  EXPECT_EQ(provider_name_of(store, g), "Microsoft-Windows-Demo");

  store.providers[g].events[1] = {{0, d}};
  EXPECT_NE(find_event_template(store, g, 1), nullptr);
  EXPECT_EQ(find_event_template(store, g, 2), nullptr);  // unknown id

  // A digest without a template, and an index beyond the list.
  template_digest orphan = digest_of("nothing");
  store.providers[g].events[3] = {{0, orphan}};
  EXPECT_EQ(find_event_template(store, g, 3), nullptr);
  store.by_digest[orphan] = 99;
  EXPECT_EQ(find_event_template(store, g, 3), nullptr);
  store.providers[g].events[4];  // an empty build map
  EXPECT_EQ(find_event_template(store, g, 4), nullptr);
}

TEST(TemplateStore, ProviderNames) {
  template_store store;
  const qv::guid16 g = guid_with(3), unknown = guid_with(4);
  const std::string& none = provider_name_of(store, unknown);
  EXPECT_EQ(none, "");
  EXPECT_EQ(&none, &provider_name_of(store, guid_with(5)));  // one static empty text
  EXPECT_EQ(store.providers.count(unknown), 0u);             // asking adds nothing

  // An entry without a name takes one; a name already there stays.
  store.providers[g];
  EXPECT_TRUE(set_provider_name(store, g, ""));
  EXPECT_EQ(provider_name_of(store, g), "");
  EXPECT_TRUE(set_provider_name(store, g, "First"));
  EXPECT_TRUE(set_provider_name(store, g, "Second"));
  EXPECT_EQ(provider_name_of(store, g), "First");
}

TEST(TemplateStore, GroupKeyClearsTheLowByte) {
  template_store store;
  const qv::guid16 process = guid_with(0xd0);
  store.group_guids[0x0300] = process;
  qv::guid16 out{};
  ASSERT_TRUE(group_guid_of(store, 0x0301, out));
  EXPECT_EQ(out, process);
  out = {};
  ASSERT_TRUE(group_guid_of(store, 0x03FF, out));
  EXPECT_EQ(out, process);
  EXPECT_FALSE(group_guid_of(store, 0x1F00, out));
  EXPECT_FALSE(group_guid_of(store, 0x0201, out));
}

// A store whose layouts are entered through the precedence rule, one word
// per layout so that a lookup's answer is easy to name.
struct versioned_store {
  template_store store;
  qv::guid16 g = guid_with(6);

  // Enters a one-field layout of word `word` at (version, build) for `id`.
  bool add(uint16_t id, int version, uint16_t build, uint16_t word) {
    return enter_layout(store.providers[g], id, version, build, add_template(store, word));
  }
  // The word of the layout chosen for (id, version) under `trace_build`, or -1.
  int word_for(uint16_t id, int version, uint32_t trace_build = 0) {
    set_trace_build(store, trace_build);
    const event_template* t = find_event_template(store, g, id, version);
    return t ? t->words[0] : -1;
  }
};

TEST(TemplateStoreVersions, TheRecordsOwnVersionFirst) {
  versioned_store v;
  v.add(10, 1, 0, 101);
  v.add(10, 2, 0, 102);
  EXPECT_EQ(v.word_for(10, 1), 101);
  EXPECT_EQ(v.word_for(10, 2), 102);
  // A version with no layout of its own: the choice runs over all, and at
  // one build the highest version wins.
  EXPECT_EQ(v.word_for(10, 0), 102);
  EXPECT_EQ(v.word_for(10, 7), 102);
  EXPECT_EQ(v.word_for(10, -1), 102);
  EXPECT_EQ(v.word_for(10, 256), 102);  // not a version byte: none
  EXPECT_EQ(v.word_for(11, 1), -1);     // unknown id
  EXPECT_EQ(find_event_template(v.store, guid_with(7), 10, 1), nullptr);

  // A layout for every version, entered after them, stands beside them and
  // wins among all at its build; it doesn't hide the versions' own layouts.
  EXPECT_TRUE(v.add(10, -1, 0, 100));
  EXPECT_EQ(v.word_for(10, 1), 101);
  EXPECT_EQ(v.word_for(10, 2), 102);
  EXPECT_EQ(v.word_for(10, 3), 100);
  EXPECT_EQ(v.word_for(10, -1), 100);
}

TEST(TemplateStoreVersions, BuildRulesWithinAVersion) {
  versioned_store v;
  v.add(20, 2, 9200, 29);
  v.add(20, 2, 14393, 214);
  v.add(20, 1, 0, 10);
  v.add(20, -1, 10586, 99);  // any version, but builds don't mix with a version's own
  // Version 2: the oldest of its layouts not older than the trace, else its newest.
  EXPECT_EQ(v.word_for(20, 2, 9000), 29);
  EXPECT_EQ(v.word_for(20, 2, 9600), 214);
  EXPECT_EQ(v.word_for(20, 2, 10586), 214);
  EXPECT_EQ(v.word_for(20, 2, 20000), 214);
  EXPECT_EQ(v.word_for(20, 2, 0), 214);
  // Version 1 has only a build-less layout: it serves every build.
  for (uint32_t b : {0u, 9200u, 10586u, 70000u}) EXPECT_EQ(v.word_for(20, 1, b), 10) << b;
  // No layout of version 5: the build rules over all four layouts.
  EXPECT_EQ(v.word_for(20, 5, 9000), 29);
  EXPECT_EQ(v.word_for(20, 5, 9600), 99);
  EXPECT_EQ(v.word_for(20, 5, 12000), 214);
  EXPECT_EQ(v.word_for(20, 5, 20000), 214);  // nothing newer: the highest build
  EXPECT_EQ(v.word_for(20, -1, 0), 214);
  // At a build that both a single version and all versions hold, the
  // layout for all versions wins the choice among all.
  v.add(20, -1, 14393, 98);
  EXPECT_EQ(v.word_for(20, 5, 12000), 98);
  EXPECT_EQ(v.word_for(20, 2, 12000), 214);
}

TEST(TemplateStoreVersions, AnEarlierLayoutForEveryVersionCoversItsBuild) {
  versioned_store v;
  EXPECT_TRUE(v.add(30, -1, 0, 1));
  EXPECT_FALSE(v.add(30, 4, 0, 2));      // covered: not added
  EXPECT_FALSE(v.add(30, -1, 0, 3));     // the same key: the first stays
  EXPECT_TRUE(v.add(30, 4, 14393, 4));   // another build is added beside
  EXPECT_FALSE(v.add(30, 5, 0, 5));
  EXPECT_EQ(v.word_for(30, 4, 0), 4);    // version 4 has its build-specific layout
  EXPECT_EQ(v.word_for(30, 4, 9600), 4);
  EXPECT_EQ(v.word_for(30, 3, 9600), 4);  // among all: 14393 is the oldest not older
  EXPECT_EQ(v.word_for(30, 3, 20000), 4);
  EXPECT_EQ(v.store.providers[v.g].versioned[30].count(5), 0u);

  // An earlier layout for one version doesn't block a later one for every
  // version, nor one for another version.
  EXPECT_TRUE(v.add(31, 1, 0, 11));
  EXPECT_FALSE(v.add(31, 1, 0, 12));
  EXPECT_TRUE(v.add(31, 2, 0, 12));
  EXPECT_TRUE(v.add(31, -1, 0, 13));
  EXPECT_EQ(v.word_for(31, 1), 11);
  EXPECT_EQ(v.word_for(31, 2), 12);
  EXPECT_EQ(v.word_for(31, 0), 13);
}

TEST(TemplateStoreVersions, WithoutVersionsTheChoiceIsTheBuildsAlone) {
  // Only layouts for every version: whatever version a record carries, the
  // answer is the one the build alone gives.
  versioned_store v;
  v.add(40, -1, 0, 1);
  v.add(40, -1, 14393, 2);
  v.add(41, -1, 9600, 3);
  for (int version : {-1, 0, 1, 255}) {
    EXPECT_EQ(v.word_for(40, version, 9600), 2) << version;
    EXPECT_EQ(v.word_for(41, version, 0), 3) << version;
    EXPECT_EQ(v.word_for(41, version, 20000), 3) << version;
  }
}

}  // namespace

namespace {

template_record learned_record(uint16_t id, int version, uint16_t word, const char* name) {
  template_record r;
  r.ids = {id};
  r.version = int16_t(version);
  r.words = {word};
  r.names = {name};
  return r;
}

}  // namespace

TEST(TemplateStore, LearnedLayoutsFillOnlyKeysTheStoreLacks) {
  template_store store;
  const qv::guid16 g = guid_with(0x31);
  const qv::guid16 other = guid_with(0x32);
  // The store's own: event 1 for every version, event 2 version 0 only at
  // build 22000, event 3 version 1.
  store.providers[g].events[1][0] = add_template(store, 4);
  store.providers[g].versioned[2][0][22000] = add_template(store, 5);
  store.providers[g].versioned[3][1][0] = add_template(store, 6);
  set_trace_build(store, 19041);

  EXPECT_TRUE(store_covers(store, g, 1, 7));   // every version
  EXPECT_TRUE(store_covers(store, g, 2, 0));   // whatever the build
  EXPECT_FALSE(store_covers(store, g, 2, 1));
  EXPECT_FALSE(store_covers(store, g, 3, 0));  // another version only
  EXPECT_FALSE(store_covers(store, other, 1, 0));

  EXPECT_EQ(learn_template_record(store, g, learned_record(1, 0, 8, "L1")), 0u);
  EXPECT_EQ(learn_template_record(store, g, learned_record(2, 0, 8, "L2v0")), 0u);
  EXPECT_EQ(learn_template_record(store, g, learned_record(2, 1, 8, "L2v1")), 1u);
  EXPECT_EQ(learn_template_record(store, g, learned_record(3, 0, 8, "L3v0")), 1u);
  EXPECT_EQ(learn_template_record(store, other, learned_record(1, 0, 10, "O1")), 1u);
  // A record for every version isn't learned: a manifest declares versions.
  EXPECT_EQ(learn_template_record(store, other, learned_record(2, -1, 10, "any")), 0u);
  // A key learned once keeps its layout.
  EXPECT_EQ(learn_template_record(store, g, learned_record(2, 1, 9, "again")), 0u);

  auto name_of = [&](const qv::guid16& guid, uint16_t id, int version) -> std::string {
    const event_template* t = find_event_template(store, guid, id, version);
    return t ? t->names[0] : "none";
  };
  EXPECT_EQ(name_of(g, 1, 0), "f");      // the store's, for every version
  EXPECT_EQ(name_of(g, 2, 0), "f");      // the store's, at its build
  EXPECT_EQ(name_of(g, 2, 1), "L2v1");   // learned, exact
  EXPECT_EQ(name_of(g, 3, 0), "L3v0");   // learned, exact, ahead of the store's version 1
  EXPECT_EQ(name_of(g, 3, 1), "f");      // the store's own version
  EXPECT_EQ(name_of(other, 1, 0), "O1");
  EXPECT_EQ(name_of(other, 1, 5), "O1"); // no layout anywhere for version 5: the learned choice
  EXPECT_EQ(name_of(other, 9, 0), "none");

  learn_provider_name(store, other, "Learned-Name");
  set_provider_name(store, g, "Own-Name");
  learn_provider_name(store, g, "Learned-Own");
  EXPECT_EQ(provider_name_of(store, other), "Learned-Name");
  EXPECT_EQ(provider_name_of(store, g), "Own-Name");

  forget_learned(store);
  EXPECT_EQ(name_of(g, 2, 1), "f");  // back to the store's choice among versions
  EXPECT_EQ(name_of(g, 3, 0), "f");
  EXPECT_EQ(name_of(other, 1, 0), "none");
  EXPECT_EQ(provider_name_of(store, other), "");
}

TEST(TemplateStore, TheLastProviderFoundIsKeptOnlyWhileItsEntryIsValid) {
  template_store store;
  const qv::guid16 a = guid_with(1), b = guid_with(2);
  store.providers[a].name = "A";
  EXPECT_EQ(provider_name_of(store, a), "A");
  // Providers added later don't move the kept entry, and a miss keeps nothing.
  for (uint8_t i = 10; i < 60; ++i) store.providers[guid_with(i)].name = "other";
  EXPECT_EQ(provider_name_of(store, b), "");
  store.providers[b].name = "B";
  EXPECT_EQ(provider_name_of(store, b), "B");
  EXPECT_EQ(find_provider(store, a), &store.providers[a]);
  // A cleared store forgets it.
  clear(store);
  EXPECT_EQ(find_provider(store, a), nullptr);
  EXPECT_EQ(provider_name_of(store, a), "");
  // A moved store starts afresh, and the one it came from finds nothing.
  store.providers[a].name = "A2";
  EXPECT_EQ(provider_name_of(store, a), "A2");
  template_store moved = std::move(store);
  EXPECT_EQ(find_provider(moved, a), &moved.providers[a]);
  store.providers.clear();
  EXPECT_EQ(find_provider(store, a), nullptr);

  // Providers taking turns, more of them than the cache has slots, so that
  // some share a slot: each lookup finds its own entry, whatever was kept.
  template_store turns;
  for (uint8_t i = 0; i < 20; ++i) {
    std::string& name = turns.providers[guid_with(uint8_t(100 + i))].name;
    name = "p";
    name += std::to_string(i);
  }
  for (int round = 0; round < 3; ++round) {
    for (uint8_t i = 0; i < 20; ++i) {
      const qv::guid16 g = guid_with(uint8_t(100 + (i * 7 + round) % 20));
      ASSERT_EQ(find_provider(turns, g), &turns.providers[g]) << int(i) << " round " << round;
    }
  }
  EXPECT_EQ(find_provider(turns, guid_with(99)), nullptr);
}
