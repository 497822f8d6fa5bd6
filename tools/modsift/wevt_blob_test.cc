#include "tools/modsift/wevt_blob.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "tools/modsift/modsift_text.h"
#include "tools/modsift/test_pe_builder.h"

namespace {

using namespace modsift;
using modsift_test::bytes;

bytes read_all(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return bytes(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}
qv::byte_span span_of(const bytes& b) { return qv::byte_span(b.data(), b.size()); }

const std::string kWevt = std::string(QUON_SHARED_DIR) + "/wevt";

const wevt_event* find_event(const wevt_provider& p, uint16_t id, uint8_t version) {
  for (const wevt_event& e : p.events)
    if (e.id == id && e.version == version) return &e;
  return nullptr;
}

TEST(WevtBlob, LargeManifest) {
  bytes blob = read_all(kWevt + "/Large.wevt.v5.bin");
  if (blob.empty()) GTEST_SKIP() << "no test vectors in " << kWevt;
  crim_blob cb;
  std::string reason;
  ASSERT_TRUE(read_crim(span_of(blob), cb, reason)) << reason;
  EXPECT_EQ(cb.major, 5);
  EXPECT_TRUE(cb.problems.empty());
  // Large.man: four providers, in this order, with these names and GUIDs.
  ASSERT_EQ(cb.providers.size(), 4u);
  EXPECT_EQ(guid_text(cb.providers[0].guid), "716efef7-5ac2-4ee0-8277-d9226411a155");
  EXPECT_EQ(cb.providers[0].name, "ProviderName1.716EFEF75AC24EE08277D9226411A155");
  EXPECT_EQ(guid_text(cb.providers[1].guid), "d2eb3575-b9ae-4b4f-a0b7-61034a28c267");
  EXPECT_EQ(cb.providers[1].name, "ProviderName2");
  EXPECT_EQ(cb.providers[2].name, "ProviderName3");
  EXPECT_EQ(guid_text(cb.providers[3].guid), "13bcf70a-af93-4ad6-bb33-d9b383a110b8");
  EXPECT_EQ(cb.providers[3].name, "ProviderName4");
  EXPECT_TRUE(cb.providers[3].events.empty());

  const wevt_provider& p1 = cb.providers[0];
  EXPECT_EQ(p1.events.size(), 10u);
  // <event value="5" version="11" name="EventName511" channel="P1/ChannelName2"
  //  level="ns1:LevelName1" (105) task="ns1:TaskName1" (103) opcode="OpcodeName1"
  //  (239) keywords="ns1:KeywordName1 KeywordName2" (0x4000.. | 0x8000..)
  //  template="Template1">. ChannelName2 has no value: the compiler gives it
  // the first free one from 16 up, and 16 is ChannelName3's: 17.
  const wevt_event* e5 = find_event(p1, 5, 11);
  ASSERT_NE(e5, nullptr);
  EXPECT_EQ(e5->name, "EventName511");
  EXPECT_EQ(e5->channel, 17);
  EXPECT_EQ(e5->level, 105);
  EXPECT_EQ(e5->opcode, 239);
  EXPECT_EQ(e5->task, 103);
  EXPECT_EQ(e5->keywords & 0xFFFFFFFFFFFFull, 0xC00000000000ull);
  EXPECT_NE(e5->template_offset, 0u);
  const wevt_event* e4 = find_event(p1, 4, 0);  // <event value="4"/>
  ASSERT_NE(e4, nullptr);
  EXPECT_EQ(e4->template_offset, 0u);
  EXPECT_EQ(e4->name, "");
  ASSERT_NE(find_event(p1, 3, 33), nullptr);
  EXPECT_EQ(find_event(p1, 3, 33)->name, "EventName3");
  const wevt_event* last = find_event(p1, 0xFFFF, 0xFF);  // no name attribute
  ASSERT_NE(last, nullptr);
  EXPECT_EQ(last->name, "");

  // Template9 of event 0xFFFF: eight top-level items, 44 properties in all.
  temp_block t;
  ASSERT_TRUE(read_temp(span_of(blob), last->template_offset, t, reason)) << reason;
  EXPECT_EQ(t.param_count, 8u);
  ASSERT_EQ(t.properties.size(), 44u);
  const manifest_property& s1 = t.properties[0];  // Struct1: Field1..Field23
  EXPECT_EQ(s1.name, "Struct1");
  EXPECT_EQ(s1.flags, property_struct);
  EXPECT_EQ(s1.first_member, 8);
  EXPECT_EQ(s1.member_count, 23);
  EXPECT_EQ(t.properties[8].name, "Field1");
  EXPECT_EQ(t.properties[8].in_type, 4);  // UInt8
  const manifest_property& f16 = t.properties[8 + 15];  // Field16: Binary, length 3
  EXPECT_EQ(f16.name, "Field16");
  EXPECT_EQ(f16.in_type, 14);
  EXPECT_EQ(f16.flags, property_fixed_length);
  EXPECT_EQ(f16.length, 3);
  const manifest_property& s5 = t.properties[4];  // <struct name="Struct5" count="3">
  EXPECT_EQ(s5.flags, property_struct | property_fixed_count);
  EXPECT_EQ(s5.count, 3);
  const manifest_property& s8 = t.properties[7];  // <struct name="Struct8" count="Field6">
  EXPECT_EQ(s8.name, "Struct8");
  EXPECT_EQ(s8.flags, property_struct | property_var_count);
  EXPECT_EQ(s8.count, 5);  // index of Field6
  EXPECT_EQ(s8.member_count, 4);
  // Binary XML starts with a fragment header token (0x0F, version 1.1).
  ASSERT_GE(t.binxml.size, 4u);
  EXPECT_EQ(t.binxml.data[0], 0x0F);
  EXPECT_EQ(t.binxml.data[1], 1);
  EXPECT_EQ(t.binxml.data[2], 1);
}

TEST(WevtBlob, EventNamesByVersionAndOldFormat) {
  bytes attrs = read_all(kWevt + "/EventAttributes.wevt.v5.bin");
  bytes v3 = read_all(kWevt + "/wpf-etw.wevt.v3.bin");
  bytes v5 = read_all(kWevt + "/wpf-etw.wevt.v5.bin");
  if (attrs.empty() || v3.empty() || v5.empty()) GTEST_SKIP() << "no test vectors in " << kWevt;
  crim_blob cb;
  std::string reason;
  ASSERT_TRUE(read_crim(span_of(attrs), cb, reason)) << reason;
  ASSERT_EQ(cb.providers.size(), 1u);
  const wevt_provider& p = cb.providers[0];
  EXPECT_EQ(p.name, "ProviderName1");
  // EventAttributes.man: value 1 in versions 0 and 1 both named EventName1,
  // 2/23 EventName2, 3/22 EventName3, 4 EventName4, 5 and 6 unnamed.
  ASSERT_EQ(p.events.size(), 7u);
  EXPECT_EQ(find_event(p, 1, 0)->name, "EventName1");
  EXPECT_EQ(find_event(p, 1, 1)->name, "EventName1");
  EXPECT_EQ(find_event(p, 2, 23)->name, "EventName2");
  EXPECT_EQ(find_event(p, 3, 22)->name, "EventName3");
  EXPECT_EQ(find_event(p, 4, 0)->name, "EventName4");
  EXPECT_EQ(find_event(p, 5, 0)->name, "");
  EXPECT_EQ(find_event(p, 6, 0)->name, "");

  // The same manifest compiled to format 3 and 5: only format 5 names the
  // provider.
  crim_blob a, b;
  ASSERT_TRUE(read_crim(span_of(v3), a, reason)) << reason;
  ASSERT_TRUE(read_crim(span_of(v5), b, reason)) << reason;
  EXPECT_EQ(a.major, 3);
  ASSERT_EQ(a.providers.size(), 1u);
  ASSERT_EQ(b.providers.size(), 1u);
  EXPECT_EQ(a.providers[0].name, "");
  EXPECT_EQ(b.providers[0].name, "Microsoft-Windows-WPF");
  EXPECT_EQ(guid_text(a.providers[0].guid), "e13b77a8-14b6-11de-8069-001b212b5009");
  ASSERT_EQ(a.providers[0].events.size(), 333u);
  ASSERT_EQ(b.providers[0].events.size(), 333u);
  // (That the two give the same layouts is checked on the harvested lines.)
}

TEST(WevtBlob, DamagedBlobs) {
  using namespace modsift_test;
  t_provider p;
  p.guid = guid_from(0x11112222);
  p.name = "Prov";
  t_template t;
  t.param_count = 1;
  t.properties.push_back(prop("A", 8));
  p.templates.push_back(t);
  p.events.push_back({1, 0, 0, "Ev"});
  t_provider q = p;
  q.guid = guid_from(0x33334444);
  bytes good = build_crim(5, {p, q});
  crim_blob cb;
  std::string reason;
  ASSERT_TRUE(read_crim(span_of(good), cb, reason)) << reason;
  ASSERT_EQ(cb.providers.size(), 2u);
  EXPECT_EQ(cb.providers[0].events.at(0).name, "Ev");

  // Size field beyond the data: a cut blob is refused as a whole.
  bytes cut(good.begin(), good.end() - 1);
  EXPECT_FALSE(read_crim(span_of(cut), cb, reason));
  EXPECT_FALSE(read_crim(qv::byte_span(good.data(), 15), cb, reason));
  bytes b = good;
  b[8] = 9;  // format version 9
  EXPECT_FALSE(read_crim(span_of(b), cb, reason));
  b = good;
  b[12] = 0xFF;  // provider count that can't fit
  b[13] = 0xFF;
  EXPECT_FALSE(read_crim(span_of(b), cb, reason));

  // The first provider's WEVT offset points at nothing: that provider is
  // reported, the second stands.
  b = good;
  b[16 + 16] = 3;
  ASSERT_TRUE(read_crim(span_of(b), cb, reason));
  ASSERT_EQ(cb.providers.size(), 1u);
  EXPECT_EQ(guid_text(cb.providers[0].guid), guid_text(q.guid));
  ASSERT_EQ(cb.problems.size(), 1u);
  EXPECT_NE(cb.problems[0].find("11112222"), std::string::npos);

  // An EVNT count that runs past the blob.
  ASSERT_TRUE(read_crim(span_of(good), cb, reason));
  uint32_t wevt = qv::rd_u32(good.data(), good.size(), 32);
  for (uint32_t i = 0; i < 4; ++i) {
    uint32_t eoff = qv::rd_u32(good.data(), good.size(), wevt + 16 + 8 * i + 4);
    if (std::string(reinterpret_cast<const char*>(&good[eoff]), 4) == "EVNT") {
      b = good;
      b[eoff + 11] = 0x10;
      ASSERT_TRUE(read_crim(span_of(b), cb, reason));
      EXPECT_TRUE(cb.providers[0].events.empty());
      EXPECT_EQ(cb.problems.size(), 1u);
    }
  }

  // TEMP checks.
  uint32_t temp = cb.providers[1].events.at(0).template_offset;
  temp_block tb;
  ASSERT_TRUE(read_temp(span_of(good), temp, tb, reason)) << reason;
  ASSERT_EQ(tb.properties.size(), 1u);
  EXPECT_EQ(tb.properties[0].name, "A");
  EXPECT_FALSE(read_temp(span_of(good), temp + 4, tb, reason));  // no signature there
  b = good;
  b[temp + 12] = 0x40;  // 64 properties: the table leaves the TEMP
  EXPECT_FALSE(read_temp(span_of(b), temp, tb, reason));
  b = good;
  b[temp + 8] = 2;  // two parameters, one property
  EXPECT_FALSE(read_temp(span_of(b), temp, tb, reason));
  b = good;
  b[temp + 6] = 0x10;  // TEMP size past the blob
  EXPECT_FALSE(read_temp(span_of(b), temp, tb, reason));
  // A name offset that points past the blob leaves the name empty.
  b = good;
  uint32_t items = qv::rd_u32(b.data(), b.size(), temp + 16);
  b[items + 19] = 0x7F;
  ASSERT_TRUE(read_temp(span_of(b), temp, tb, reason));
  EXPECT_EQ(tb.properties[0].name, "");
}

}  // namespace
