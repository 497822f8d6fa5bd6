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

}  // namespace
