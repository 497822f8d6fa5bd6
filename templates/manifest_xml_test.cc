#include "templates/manifest_xml.h"

#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

namespace {

// "F" and 7 make "F7" (without operator+ on a temporary, which g++ 12
// warns about wrongly).
std::string numbered(const char* prefix, int i) {
  std::string s(prefix);
  s += std::to_string(i);
  return s;
}

bool read(const std::string& text, manifest_doc& doc, std::string& reason,
          const manifest_read_options& opt = manifest_read_options()) {
  return read_manifest_xml(reinterpret_cast<const uint8_t*>(text.data()), text.size(), opt, doc, reason);
}

// The tokens of an event's layout, as a template line carries them.
std::string tokens(const manifest_event& e) {
  std::string out;
  append_layout_tokens(out, e.fields);
  return out;
}

const manifest_event* find_event(const manifest_doc& doc, uint16_t id, uint8_t version = 0, size_t provider = 0) {
  if (provider >= doc.providers.size()) return nullptr;
  for (const manifest_event& e : doc.providers[provider].events)
    if (e.id == id && e.version == version) return &e;
  return nullptr;
}

std::string wrap(const std::string& provider_body, const std::string& provider_attrs = "") {
  return "<instrumentationManifest xmlns=\"http://schemas.microsoft.com/win/2004/08/events\">"
         "<instrumentation><events>"
         "<provider name=\"Test-Provider\" guid=\"{0a0b0c0d-1514-1716-1819-1a1b1c1d1e1f}\" symbol=\"TP\"" +
         provider_attrs + ">" + provider_body +
         "</provider></events></instrumentation></instrumentationManifest>";
}

TEST(ManifestXml, ProvidersEventsAndTheirNames) {
  const std::string body =
      "<events>"
      "<event value=\"1\" version=\"2\" level=\"L7\" task=\"Connect\" opcode=\"Begin\" "
      "keywords=\"K1  win:ResponseTime K2\" channel=\"C1\" symbol=\"Sym1\" name=\"Name1\" template=\"T1\"/>"
      "<event value=\"0x10\" level=\"win:Always\" task=\"win:None\" opcode=\"win:Receive\" "
      "keywords=\"0x8\" channel=\"Security\" symbol=\"OnlySymbol\" template=\"T1\"/>"
      "<event value=\"3\" level=\"5\" task=\"Other\" opcode=\"Begin\"/>"
      "<event value=\"4\" level=\"NoSuchLevel\" opcode=\"win:Nope\" keywords=\"Bad\" channel=\"X\" "
      "template=\"Missing\"/>"
      "<event value=\"70000\"/><event value=\"5\" version=\"256\"/><event version=\"1\"/>"
      "</events>"
      "<levels><level name=\"L7\" value=\"7\"/></levels>"
      "<tasks><task name=\"Connect\" value=\"0x21\"><opcodes><opcode name=\"Begin\" value=\"30\"/></opcodes></task>"
      "<task name=\"Other\" value=\"2\"/></tasks>"
      "<opcodes><opcode name=\"Begin\" value=\"40\"/></opcodes>"
      "<keywords><keyword name=\"K1\" mask=\"0x1\"/><keyword name=\"K2\" mask=\"0x8000000000000000\"/></keywords>"
      "<channels><channel chid=\"C1\" name=\"Prov/Operational\" value=\"17\"/>"
      "<importChannel chid=\"sec\" name=\"Security\"/></channels>"
      "<maps><valueMap name=\"M\"><map value=\"1\" message=\"broken \"quotes\"\"/></valueMap></maps>"
      "<templates><template tid=\"T1\"><data name=\"A\" inType=\"win:UInt32\"/></template></templates>";
  manifest_doc doc;
  std::string reason;
  ASSERT_TRUE(read(wrap(body), doc, reason)) << reason;
  ASSERT_EQ(doc.providers.size(), 1u);
  const manifest_provider& p = doc.providers[0];
  EXPECT_EQ(p.name, "Test-Provider");
  EXPECT_EQ(p.symbol, "TP");
  // Data1 and the two 16-bit words little-endian, then eight plain bytes.
  const qv::guid16 want = {0x0d, 0x0c, 0x0b, 0x0a, 0x14, 0x15, 0x16, 0x17,
                           0x18, 0x19, 0x1a, 0x1b, 0x1c, 0x1d, 0x1e, 0x1f};
  EXPECT_EQ(p.guid, want);
  EXPECT_FALSE(p.recreated);
  ASSERT_EQ(p.events.size(), 4u);  // three without a readable value or version are passed over

  const manifest_event& e1 = p.events[0];
  EXPECT_EQ(e1.id, 1);
  EXPECT_EQ(e1.version, 2);
  EXPECT_EQ(e1.level, 7);
  EXPECT_EQ(e1.task, 0x21);
  EXPECT_EQ(e1.opcode, 30);  // the task's own opcode goes ahead of the provider's
  EXPECT_EQ(e1.keywords, 0x8001000000000001ull);
  EXPECT_EQ(e1.channel, 17);
  EXPECT_EQ(e1.name, "Name1");
  EXPECT_EQ(e1.symbol, "Sym1");
  EXPECT_TRUE(e1.has_template);
  EXPECT_EQ(tokens(e1), ", LA, 8");

  const manifest_event& e2 = p.events[1];
  EXPECT_EQ(e2.id, 16);
  EXPECT_EQ(e2.level, 0);
  EXPECT_EQ(e2.task, 0);
  EXPECT_EQ(e2.opcode, 240);
  // An imported well-known channel, the second of the list: its value, and
  // bit 62 for the channel.
  EXPECT_EQ(e2.channel, 10);
  EXPECT_EQ(e2.keywords, 0x4000000000000008ull);
  EXPECT_EQ(e2.name, "OnlySymbol");

  const manifest_event& e3 = p.events[2];
  EXPECT_EQ(e3.level, 5);
  EXPECT_EQ(e3.task, 2);
  EXPECT_EQ(e3.opcode, 40);  // "Other" has no opcodes of its own
  EXPECT_FALSE(e3.has_template);
  EXPECT_TRUE(e3.template_id.empty());

  const manifest_event& e4 = p.events[3];
  EXPECT_EQ(e4.level, 0);
  EXPECT_EQ(e4.opcode, 0);
  EXPECT_EQ(e4.keywords, 0u);
  EXPECT_FALSE(e4.has_template);
  EXPECT_EQ(e4.template_id, "Missing");

  std::string all;
  for (const std::string& s : doc.problems) all += s + "\n";
  for (const char* part :
       {"event 4 version 0: unknown level \"NoSuchLevel\"", "unknown opcode \"win:Nope\"",
        "unknown keyword \"Bad\"", "unknown channel \"X\"", "template \"Missing\" isn't there",
        "an event without a readable value (\"70000\")", "event 5: version \"256\" unreadable",
        "an event without a readable value (\"\")"})
    EXPECT_NE(all.find(part), std::string::npos) << part << "\n" << all;
  EXPECT_EQ(doc.problems.size(), 8u) << all;

  // Without symbol_as_name only name= names an event.
  manifest_read_options strict;
  strict.symbol_as_name = false;
  ASSERT_TRUE(read(wrap(body), doc, reason, strict)) << reason;
  EXPECT_EQ(doc.providers[0].events[1].name, "");
  EXPECT_EQ(doc.providers[0].events[0].name, "Name1");
}

TEST(ManifestXml, DocumentsAndProviders) {
  manifest_doc doc;
  std::string reason;
  EXPECT_FALSE(read("<doc><member/></doc>", doc, reason));
  EXPECT_EQ(reason, "not an instrumentation manifest (root element <doc>)");
  EXPECT_FALSE(read("<instrumentationManifest>", doc, reason));
  EXPECT_NE(reason.find("line 1"), std::string::npos) << reason;
  EXPECT_TRUE(doc.providers.empty());
  ASSERT_TRUE(read("<instrumentationManifest/>", doc, reason)) << reason;
  EXPECT_TRUE(doc.providers.empty());
  // Providers wherever they stand, not inside another; one without a GUID
  // is passed over with a word.
  const std::string text =
      "<m:instrumentationManifest xmlns:m=\"x\"><m:instrumentation>"
      "<m:events><m:provider name=\"A\" guid=\"01234567-89ab-cdef-0123-456789abcdef\">"
      "<provider name=\"Inner\" guid=\"{11111111-2222-3333-4444-555555555555}\"/></m:provider>"
      "<provider name=\"NoGuid\" guid=\"{0123}\"/></m:events>"
      "<provider name=\"Loose\" guid=\"{ffffffff-ffff-ffff-ffff-ffffffffffff}\"/>"
      "</m:instrumentation></m:instrumentationManifest>";
  ASSERT_TRUE(read(text, doc, reason)) << reason;
  ASSERT_EQ(doc.providers.size(), 2u);
  EXPECT_EQ(doc.providers[0].name, "A");
  EXPECT_EQ(doc.providers[0].guid[0], 0x67);
  EXPECT_EQ(doc.providers[1].name, "Loose");
  ASSERT_EQ(doc.problems.size(), 1u);
  EXPECT_EQ(doc.problems[0], "provider NoGuid: no readable GUID, passed over");
}

// The templates of one provider, each under an event of the same number.
manifest_doc layouts(const std::vector<std::string>& templates, const std::string& attrs = "",
                     recreated_form form = recreated_form::when_marked) {
  std::string events = "<events>", tmpl = "<templates>";
  for (size_t i = 0; i < templates.size(); ++i) {
    std::string n = std::to_string(i);
    events += "<event value=\"" + n + "\" template=\"t" + n + "\"/>";
    tmpl += "<template tid=\"t" + n + "\">" + templates[i] + "</template>";
  }
  manifest_doc doc;
  std::string reason;
  manifest_read_options opt;
  opt.recreated = form;
  EXPECT_TRUE(read(wrap(events + "</events>" + tmpl + "</templates>", attrs), doc, reason, opt)) << reason;
  return doc;
}

std::string d(const std::string& name, const std::string& type, const std::string& more = "") {
  return "<data name=\"" + name + "\" inType=\"" + type + "\"" + more + "/>";
}

TEST(ManifestXml, DataForms) {
  manifest_doc doc = layouts({
      // 0: lengths and counts, numbers and references.
      d("Len", "win:UInt16") + d("Name", "win:UnicodeString", " length=\"Len\"") +
          d("Mac", "win:Binary", " length=\"6\"") + d("N", "win:UInt32") +
          d("Ptrs", "win:Pointer", " count=\"N\"") + d("Fixed", "win:UInt16", " count=\"0x3\""),
      // 1: a structure: members in place; a member's length from a sibling
      // and from an item ahead of the structure.
      d("Outer", "win:UInt8") + "<struct name=\"S\">" + d("Inner", "win:UInt8") +
          d("A", "win:AnsiString", " length=\"Inner\"") + d("B", "win:Binary", " length=\"Outer\"") +
          "</struct>" + d("After", "win:GUID"),
      // 2: an array of structures.
      d("N", "win:UInt8") + "<struct name=\"Arr\" count=\"N\">" + d("X", "win:UInt32") + "</struct>",
      // 3: a reference to a later item, 4: to nothing, 5: an unknown in-type.
      d("S", "win:UnicodeString", " length=\"Len\"") + d("Len", "win:UInt16"),
      d("X", "win:UInt8") + d("S", "win:AnsiString", " count=\"Nothing\""),
      d("X", "win:UInt8") + d("Y", "win:Float128"),
      // 6: numeric in-types, the dumps' names of 22 and 23, an empty template.
      d("A", "win:8") + d("B", "win:CountedUtf16String") + d("C", "win:CountedMbcsString"),
      "",
      // 8: sibling names with blanks are not matched without blanks here.
      d("Hash Size", "win:UInt32") + d("HashSize", "win:UInt32") + d("Hash", "win:Binary", " length=\"Hash Size\""),
  });
  ASSERT_EQ(doc.providers.size(), 1u);
  const std::vector<manifest_event>& ev = doc.providers[0].events;
  ASSERT_EQ(ev.size(), 9u);
  // Len is 1 entry back from Name, N 1 back from Ptrs.
  EXPECT_EQ(tokens(ev[0]), ", LLen, 6, LName, 0xa101, LMac, 0xd684, LN, 8, LPtrs, 0xa190, LFixed, 0xd386");
  EXPECT_FALSE(ev[0].stopped);
  // Inner is 1 back from A, Outer 3 back from B.
  EXPECT_EQ(tokens(ev[1]), ", LOuter, 4, LInner, 4, LA, 0xa102, LB, 0xa384, LAfter, 15");
  EXPECT_EQ(tokens(ev[2]), ", LN, 4, LArr, 0");
  EXPECT_EQ(ev[2].stop, layout_stop::struct_array);
  EXPECT_EQ(ev[2].stop_reason, "array of structures");
  EXPECT_EQ(ev[2].stop_item, "Arr");
  EXPECT_EQ(tokens(ev[3]), ", LS, 0");
  EXPECT_EQ(ev[3].stop, layout_stop::unknown_reference);
  EXPECT_EQ(tokens(ev[4]), ", LX, 4, LS, 0");
  EXPECT_EQ(ev[4].stop, layout_stop::unknown_reference);
  EXPECT_EQ(tokens(ev[5]), ", LX, 4, LY, 0");
  EXPECT_EQ(ev[5].stop, layout_stop::unknown_in_type);
  EXPECT_EQ(tokens(ev[6]), ", LA, 8, LB, 22, LC, 0");
  EXPECT_EQ(ev[6].stop, layout_stop::counted_ansi);
  EXPECT_TRUE(ev[7].has_template);
  EXPECT_TRUE(ev[7].fields.empty());
  EXPECT_FALSE(ev[7].stopped);
  EXPECT_EQ(tokens(ev[8]), ", LHash Size, 8, LHashSize, 8, LHash, 0xa284");

  uint32_t t = 0;
  EXPECT_TRUE(manifest_in_type("win:SYSTEMTIME", t));
  EXPECT_EQ(t, 18u);
  EXPECT_TRUE(manifest_in_type("CountedBinary", t));
  EXPECT_EQ(t, 25u);
  EXPECT_TRUE(manifest_in_type("win:300", t));
  EXPECT_EQ(t, 300u);
  EXPECT_FALSE(manifest_in_type("win:", t));
  EXPECT_FALSE(manifest_in_type("win:-1", t));
  EXPECT_FALSE(manifest_in_type("win:uint32", t));
}

// The recreated form: structures written as their start index.
TEST(ManifestXml, RecreatedStructures) {
  const std::string marked = " source=\"Xml\"";
  std::vector<std::string> t = {
      // 0: an array of structures of a three-item template as "Int8" (3)
      // with a count: the layout ends there.
      d("Count", "win:UInt16") + d("Values", "win:Int8", " count=\"Count\"") + d("Tail", "win:UInt32"),
      // 1: no in-type 28 in a template of 28 items: a structure.
      [] {
        std::string s;
        for (int i = 0; i < 27; ++i) s += d(numbered("F", i), "win:UInt32");
        return s + d("S", "win:28");
      }(),
      // 2: a one-element structure first ("UInt64" in a ten-item template),
      // the template's other structures with no in-types: ends at the first.
      d("Hc", "win:UInt64") + d("P", "win:Pointer") + d("E", "win:26") +
          d("A", "win:UInt8") + d("B", "win:UInt8") + d("C", "win:UInt8") + d("D", "win:UInt8") +
          d("F", "win:UInt8") + d("G", "win:UInt8") + d("H", "win:UInt8"),
      // 3: no sign of structures: "UInt32" in an eight-item template stays,
      // flagged.
      d("A", "win:UInt32") + d("B", "win:UInt8") + d("C", "win:UInt8") + d("D", "win:UInt8") +
          d("E", "win:UInt8") + d("F", "win:UInt8") + d("G", "win:UInt8") + d("H", "win:UInt8"),
      // 4: a counted pointer array whose in-type isn't the item count stays.
      d("N", "win:UInt32") + d("Stack", "win:Pointer", " count=\"N\""),
      // 5: a reference that lost its blanks.
      d("HashSize", "win:UInt32") + d("Hash", "win:Binary", " length=\"Hash Size\""),
      // 6: a real <struct> makes the template an authored one.
      d("N", "win:UInt8") + "<struct name=\"S\">" + d("X", "win:UInt8") + "</struct>" +
          d("V", "win:UInt8", " count=\"N\""),
  };
  manifest_doc doc = layouts(t, marked);
  ASSERT_EQ(doc.providers.size(), 1u);
  EXPECT_TRUE(doc.providers[0].recreated);
  const std::vector<manifest_event>& ev = doc.providers[0].events;
  ASSERT_EQ(ev.size(), t.size());
  EXPECT_EQ(tokens(ev[0]), ", LCount, 6, LValues, 0");
  EXPECT_EQ(ev[0].stop, layout_stop::structure_index);
  EXPECT_EQ(ev[0].stop_reason, "structure written as its start index");
  EXPECT_EQ(ev[1].fields.size(), 28u);
  EXPECT_EQ(ev[1].fields.back().name, "S");
  EXPECT_EQ(ev[1].stop, layout_stop::structure_index);
  EXPECT_EQ(tokens(ev[2]), ", LHc, 0");
  EXPECT_EQ(ev[2].stop, layout_stop::structure_index);
  EXPECT_FALSE(ev[3].stopped);
  EXPECT_EQ(ev[3].fields.front().word, 8);
  EXPECT_TRUE(ev[3].plain_at_struct_index);
  EXPECT_FALSE(ev[0].plain_at_struct_index);
  EXPECT_EQ(tokens(ev[4]), ", LN, 8, LStack, 0xa190");
  EXPECT_EQ(tokens(ev[5]), ", LHashSize, 8, LHash, 0xa184");
  EXPECT_EQ(tokens(ev[6]), ", LN, 4, LX, 4, LV, 0xa284");

  // The same templates in an authored provider: read as they stand.
  doc = layouts(t);
  ASSERT_EQ(doc.providers.size(), 1u);
  EXPECT_FALSE(doc.providers[0].recreated);
  EXPECT_EQ(tokens(doc.providers[0].events[0]), ", LCount, 6, LValues, 0xa184, LTail, 8");
  EXPECT_EQ(doc.providers[0].events[1].stop, layout_stop::no_word);
  EXPECT_EQ(doc.providers[0].events[5].stop, layout_stop::unknown_reference);
  EXPECT_FALSE(doc.providers[0].events[3].plain_at_struct_index);
  // And forced either way.
  doc = layouts(t, marked, recreated_form::no);
  EXPECT_FALSE(doc.providers[0].recreated);
  doc = layouts(t, "", recreated_form::yes);
  EXPECT_TRUE(doc.providers[0].recreated);
  EXPECT_EQ(doc.providers[0].events[0].stop, layout_stop::structure_index);
}

TEST(ManifestXml, HostileInput) {
  // Structures nested past the converter's depth, a structure as deep as the
  // XML limit allows, counts and lengths beyond any word.
  std::string nest = d("A", "win:UInt8"), close;
  for (int i = 0; i < 200; ++i) nest += numbered("<struct name=\"S", i) + "\">", close += "</struct>";
  manifest_doc doc = layouts({nest + d("Z", "win:UInt8") + close,
                              d("A", "win:UInt8", " count=\"99999999999999999999\""),
                              d("A", "win:Binary", " length=\"4294967296\""),
                              d("A", "win:Binary", " length=\"4294967295\"")});
  ASSERT_EQ(doc.providers.size(), 1u);
  const std::vector<manifest_event>& ev = doc.providers[0].events;
  ASSERT_EQ(ev.size(), 4u);
  EXPECT_EQ(ev[0].stop, layout_stop::bad_structure);
  // A count that isn't a number is taken for a name, and names nothing.
  EXPECT_EQ(ev[1].stop, layout_stop::unknown_reference);
  EXPECT_EQ(ev[2].stop, layout_stop::binary_length);
  EXPECT_EQ(ev[3].stop, layout_stop::binary_length);

  // A template of more items than the reader takes stops at once; many
  // events on one template convert it once.
  std::string big;
  for (int i = 0; i < 5000; ++i) big += d("F", "win:UInt8");
  doc = layouts({big});
  ASSERT_EQ(doc.providers[0].events.size(), 1u);
  EXPECT_EQ(doc.providers[0].events[0].stop, layout_stop::work_limit);

  // Items that all share one name, each referring back: bounded work.
  std::string same = d("N", "win:UInt8");
  for (int i = 0; i < 3000; ++i) same += d("X", "win:UInt8", " count=\"N\"");
  doc = layouts({same});
  EXPECT_TRUE(doc.providers[0].events[0].stopped);

  // Problems don't flood.
  std::string events = "<events>";
  for (int i = 0; i < 500; ++i) events += "<event value=\"1\" level=\"nope\"/>";
  std::string reason;
  ASSERT_TRUE(read(wrap(events + "</events>"), doc, reason)) << reason;
  ASSERT_EQ(doc.problems.size(), max_manifest_problems + 1);
  EXPECT_EQ(doc.problems.back(), "436 more problems not shown");
}

// Every prefix of a small manifest: no fault; the whole one reads.
TEST(ManifestXml, EveryTruncation) {
  const std::string text = wrap(
      "<events><event value=\"1\" version=\"1\" level=\"win:Error\" template=\"T\"/></events>"
      "<templates><template tid=\"T\">" + d("Len", "win:UInt16") + d("S", "win:UnicodeString", " length=\"Len\"") +
      "<struct name=\"P\" count=\"2\">" + d("X", "win:UInt8") + "</struct></template></templates>");
  manifest_doc doc;
  std::string reason;
  for (size_t n = 0; n < text.size(); ++n) {
    EXPECT_FALSE(read(text.substr(0, n), doc, reason)) << n;
    EXPECT_FALSE(reason.empty());
    EXPECT_TRUE(doc.providers.empty());
  }
  ASSERT_TRUE(read(text, doc, reason)) << reason;
  ASSERT_EQ(doc.providers.size(), 1u);
  EXPECT_EQ(tokens(doc.providers[0].events.at(0)), ", LLen, 6, LS, 0xa101, LP, 0");
}

std::string read_file(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

const std::string kShared = QUON_SHARED_DIR;

std::map<std::string, size_t> stops_of(const manifest_doc& doc) {
  std::map<std::string, size_t> out;
  for (const manifest_provider& p : doc.providers)
    for (const manifest_event& e : p.events)
      if (e.has_template) ++out[e.stopped ? e.stop_reason : "expressed"];
  return out;
}

// Large.man, by hand: provider 1 has nine events with templates, provider 3
// one. Template4 (event 1) stops at CountData4, ANSI strings with count 3;
// Template2 (event 3) and Template1 (event 5) at their CountedAnsiString;
// Template5 (event 6) at VarCountData4, whose count Count1 lies behind the
// UTF-16 strings counted by Count3, whose entries the payload decides;
// Template6 (event 7) at LengthData2, UTF-16 of length 1; Template7 (event 8)
// at VarLengthData21, SIDs counted by Length3; Template8 (event 9) at
// CountLengthData1_L1_C0, UTF-16 of length 1 (a count of 0 is one value);
// Template9 (event 0xFFFF) at Struct5, three structures. Template3 (event 2)
// and provider 3's Template4 are expressed whole.
TEST(ManifestXml, LargeManifestEveryFormExpressedOrCounted) {
  std::string text = read_file(kShared + "/wevt/Large.man");
  if (text.empty()) GTEST_SKIP() << "no test vectors in " << kShared;
  manifest_doc doc;
  std::string reason;
  ASSERT_TRUE(read(text, doc, reason)) << reason;
  EXPECT_TRUE(doc.problems.empty()) << doc.problems.at(0);
  ASSERT_EQ(doc.providers.size(), 4u);
  std::map<std::string, size_t> want = {
      {"expressed", 2},
      {"array of a type without an array word", 2},
      {"length or count out of reach", 1},
      {"counted ANSI string", 2},
      {"UTF-16 text of a fixed length other than 3, 4 or 256", 2},
      {"array of structures", 1},
  };
  EXPECT_EQ(stops_of(doc), want);
  const std::map<uint16_t, std::string> where = {{1, "CountData4"},    {3, "OutData65"},
                                                 {5, "Data23"},        {6, "VarCountData4"},
                                                 {7, "LengthData2"},   {8, "VarLengthData21"},
                                                 {9, "CountLengthData1_L1_C0"}, {65535, "Struct5"}};
  for (const manifest_event& e : doc.providers[0].events) {
    if (!e.has_template) continue;
    auto it = where.find(e.id);
    if (it == where.end()) {
      EXPECT_FALSE(e.stopped) << e.id;
    } else {
      EXPECT_EQ(e.stop_item, it->second) << e.id;
    }
  }
  // Names: name= where there is one, else the symbol.
  EXPECT_EQ(find_event(doc, 3, 33)->name, "EventName3");
  EXPECT_EQ(find_event(doc, 7)->name, "EventSym7");
  EXPECT_EQ(find_event(doc, 9, 0xFE)->name, "");
}

}  // namespace

namespace {

std::vector<std::string> files_in(const std::string& dir) {
  std::vector<std::string> out;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      std::string name = e->d_name;
      if (name.size() > 4 && name.substr(name.size() - 4) == ".xml") out.push_back(dir + "/" + name);
    }
    closedir(d);
  }
  std::sort(out.begin(), out.end());
  return out;
}

// The recreated manifests of four Windows builds: every file read but the
// two .NET documentation files that share their folder, the 13 that are
// malformed inside <maps> or the string table read all the same, and the
// figures of what the words express.
TEST(ManifestXml, RecreatedDumpsOfFourBuilds) {
  const std::string root = kShared + "/manifests/xml";
  std::vector<std::string> files;
  for (const char* build : {"win7-7600", "win10-10240", "win10-17134", "win10-18990"})
    for (const std::string& f : files_in(root + "/" + build)) files.push_back(f);
  if (files.empty()) GTEST_SKIP() << "no manifests in " << root;

  size_t read_ok = 0, providers = 0, events = 0, with_template = 0, expressed = 0, missing_template = 0,
         plain_at_index = 0, strict_refused = 0, problems = 0;
  std::map<std::string, size_t> refused, stops;
  for (const std::string& path : files) {
    std::string text = read_file(path);
    manifest_doc doc;
    std::string reason;
    const uint8_t* p = reinterpret_cast<const uint8_t*>(text.data());
    if (!read_manifest_xml(p, text.size(), manifest_read_options(), doc, reason)) {
      refused[path.substr(root.size() + 1) + ": " + reason]++;
      continue;
    }
    ++read_ok;
    problems += doc.problems.size();
    qv::xml_document strict;
    if (!qv::parse_xml(p, text.size(), qv::xml_options(), strict, reason)) ++strict_refused;
    for (const manifest_provider& mp : doc.providers) {
      ++providers;
      EXPECT_TRUE(mp.recreated || mp.name == "Microsoft-Windows-Kernel-General") << path;
      for (const manifest_event& e : mp.events) {
        ++events;
        if (!e.template_id.empty() && !e.has_template) ++missing_template;
        if (!e.has_template) continue;
        ++with_template;
        if (e.stopped) ++stops[e.stop_reason];
        else ++expressed;
        plain_at_index += e.plain_at_struct_index;
      }
    }
  }
  std::printf("files %zu, read %zu, refused %zu, malformed until maps and string tables are passed over %zu\n",
              files.size(), read_ok, files.size() - read_ok, strict_refused);
  for (const auto& [what, n] : refused) std::printf("  refused: %s\n", what.c_str());
  std::printf("providers %zu, events %zu, with a template %zu, template missing %zu, problems %zu\n", providers,
              events, with_template, missing_template, problems);
  std::printf("expressed whole %zu, ended early %zu, plain item at a structure's index %zu\n", expressed,
              with_template - expressed, plain_at_index);
  for (const auto& [why, n] : stops) std::printf("  %6zu %s\n", n, why.c_str());

  EXPECT_EQ(files.size(), 412u + 530u + 870u + 607u);
  EXPECT_EQ(files.size() - read_ok, 2u);  // Microsoft.Diagnostics.*.xml: code documentation
  for (const auto& [what, n] : refused)
    EXPECT_NE(what.find("not an instrumentation manifest (root element <doc>)"), std::string::npos) << what;
  EXPECT_EQ(strict_refused, 13u);
  // Every <event> of the four builds: 132,525 in the files that are
  // well-formed XML, 5,371 in the 13 that aren't.
  EXPECT_EQ(events, 132525u + 5371u);
  EXPECT_GT(expressed, with_template * 9 / 10);
}

}  // namespace
