#include "tools/modsift/harvest.h"

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>

#include "tools/modsift/test_pe_builder.h"
#include "tools/modsift/wevt_blob.h"

namespace {

using namespace modsift;
using modsift_test::bytes;

bytes read_all(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return bytes(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

const std::string kWevt = std::string(QUON_SHARED_DIR) + "/wevt";

harvest_result harvest_bytes(const bytes& b, const harvest_options& o) {
  input_source src;
  src.mem = b.data();
  src.size = b.size();
  harvest_result r;
  harvest_input(src, "input", o, r);
  return r;
}

harvest_result harvest_bytes(const bytes& b, bool enc = false) {
  harvest_options o;
  o.enc = enc;
  return harvest_bytes(b, o);
}

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string l; std::getline(in, l);) out.push_back(l);
  return out;
}

std::vector<std::string> without_comments(const std::string& text) {
  std::vector<std::string> out;
  for (const std::string& l : lines_of(text))
    if (l.rfind("//", 0) != 0) out.push_back(l);
  return out;
}

std::string trim(const std::string& s) {
  size_t a = s.find_first_not_of(" \t");
  if (a == std::string::npos) return "";
  return s.substr(a, s.find_last_not_of(" \t") - a + 1);
}

bool is_guid36(const std::string& g) {
  if (g.size() != 36) return false;
  for (size_t i = 0; i < 36; ++i) {
    bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash ? g[i] != '-' : !std::isxdigit(static_cast<unsigned char>(g[i]))) return false;
  }
  return true;
}

bool is_word(const std::string& t) {
  if (t.empty()) return false;
  unsigned long v = 0;
  size_t used = 0;
  try {
    v = t.rfind("0x", 0) == 0 ? std::stoul(t.substr(2), &used, 16) : std::stoul(t, &used, 10);
    if (t.rfind("0x", 0) == 0) used += 2;
  } catch (...) {
    return false;
  }
  return used == t.size() && v <= 0xFFFF;
}

// Checks one output line against the template text format that quon's
// -templates reader takes: a comment, a provider line or an event line, with
// every token readable. Returns an empty text when the line is good.
std::string line_problem(const std::string& line) {
  if (line.rfind("//", 0) == 0) return "";
  if (line.size() < 16) return "short line";
  size_t bang = line.find('!');
  if (bang == std::string::npos || line.find('!', bang + 1) != std::string::npos)
    return "not exactly one '!'";
  std::string c1 = trim(line.substr(0, bang)), c2 = trim(line.substr(bang + 1));
  if (line[0] == '#') {
    if (c1.size() != 39 || c1.substr(0, 2) != "#{" || c1.back() != '}' ||
        !is_guid36(c1.substr(2, 36)))
      return "bad provider GUID";
    if (c2.empty() || c2.find_first_of(",|;") != std::string::npos) return "bad provider name";
    return "";
  }
  if (c1.size() != 38 || c1[0] != '{' || c1.back() != '}' || !is_guid36(c1.substr(1, 36)))
    return "bad event GUID";
  if (c2.empty() || c2[0] != '$') return "no '$'";
  std::vector<std::string> tokens;
  std::stringstream ss(c2.substr(1));
  for (std::string t; std::getline(ss, t, ',');) tokens.push_back(trim(t));
  if (tokens.size() < 2) return "no token behind the identifier";
  if (!is_word(tokens[0])) return "bad identifier";
  bool words = false;
  for (size_t i = 1; i < tokens.size(); ++i) {
    const std::string& t = tokens[i];
    if (t.empty()) return "empty token";
    if (t[0] == '#') {
      if (!is_word(t.substr(1))) return "bad build";
    } else if (t[0] == 'V') {
      if (i != 1) return "version token not right behind the identifier";
      if (!is_word(t.substr(1)) || std::stoul(t.substr(1)) > 255) return "bad version";
    } else if (t[0] == 'L') {
      if (i + 1 == tokens.size() || tokens[i + 1][0] == 'L') return "name without a word";
    } else if (!is_word(t)) {
      return "bad word " + t;
    } else {
      words = true;
    }
  }
  return words ? "" : "no word";
}

void expect_valid(const std::string& text) {
  for (const std::string& l : lines_of(text)) EXPECT_EQ(line_problem(l), "") << l;
}

// Large.man, worked by hand: provider 1's events sorted by identifier with
// their manifest names as labels, then providers 2 to 4 (2 and 4 have no
// event with a template; 3's single event has no name).
const char* const kLarge[] = {
    "#{716efef7-5ac2-4ee0-8277-d9226411a155} ! ProviderName1.716EFEF75AC24EE08277D9226411A155",
    // Template4: UInt8 count="0" and Int8 count="1" are plain; 2 UTF-16
    // strings; 3 ANSI strings have no word.
    "{716efef7-5ac2-4ee0-8277-d9226411a155} ! $1, V55, LEventName5, 0x8001, LCountData1, 4, "
    "LCountData2, 3, LCountData3, 0x9281, LCountData4, 0",
    // Template3: maps don't change the in-types.
    "{716efef7-5ac2-4ee0-8277-d9226411a155} ! $2, V44, LEventName4, 0x8001, LData4, 4, LData6, 6, "
    "LData8, 8, LData22, 20",
    // Template2: out-types don't matter; Binary length="16" is 0xB284 16;
    // OutData65 is a CountedAnsiString.
    "{716efef7-5ac2-4ee0-8277-d9226411a155} ! $3, V33, LEventName3, 0x8001, LOutData1, 1, LOutData2, 1, "
    "LOutData3, 1, LOutData4, 2, LOutData5, 2, LOutData6, 2, LOutData7, 2, LOutData8, 3, "
    "LOutData9, 3, LOutData10, 4, LOutData11, 4, LOutData12, 4, LOutData13, 4, LOutData14, 5, "
    "LOutData15, 6, LOutData16, 6, LOutData17, 6, LOutData18, 6, LOutData19, 7, LOutData20, 7, "
    "LOutData21, 8, LOutData22, 8, LOutData23, 8, LOutData24, 8, LOutData25, 8, LOutData26, 8, "
    "LOutData27, 8, LOutData28, 8, LOutData29, 8, LOutData30, 8, LOutData31, 9, LOutData32, 10, "
    "LOutData33, 10, LOutData34, 10, LOutData35, 10, LOutData36, 11, LOutData37, 12, "
    "LOutData38, 13, LOutData39, 0xb284, 16, LOutData40, 0xb284, 16, LOutData41, 0xb284, 16, "
    "LOutData42, 0xb284, 16, LOutData43, 15, LOutData44, 16, LOutData45, 16, LOutData46, 16, "
    "LOutData47, 16, LOutData48, 17, LOutData49, 17, LOutData50, 17, LOutData51, 18, "
    "LOutData52, 18, LOutData53, 18, LOutData54, 19, LOutData55, 20, LOutData56, 20, "
    "LOutData57, 20, LOutData58, 20, LOutData59, 20, LOutData60, 21, LOutData61, 21, "
    "LOutData62, 22, LOutData63, 22, LOutData64, 22, LOutData65, 0",
    // Template1: every in-type once; Binary length="3" is 0xD384.
    "{716efef7-5ac2-4ee0-8277-d9226411a155} ! $5, V11, LEventName511, 0x8001, LData1, 1, LData2, 2, "
    "LData3, 3, LData4, 4, LData5, 5, LData6, 6, LData7, 7, LData8, 8, LData9, 9, LData10, 10, "
    "LData11, 11, LData12, 12, LData13, 13, LData14, 0xd384, LData15, 15, LData16, 16, "
    "LData17, 17, LData18, 18, LData19, 19, LData20, 20, LData21, 21, LData22, 22, LData23, 0",
    // Template5: Count1..3, then arrays counted by them, each count three
    // entries back; ANSI arrays have no word.
    "{716efef7-5ac2-4ee0-8277-d9226411a155} ! $6, V66, LZzEventName6, 0x8001, LCount1, 4, LCount2, 4, "
    "LCount3, 4, LVarCountData1, 0xa384, LVarCountData2, 0xa384, LVarCountData3, 0xa381, "
    "LVarCountData4, 0",
    // Template6: UTF-16 of one character has no word.
    "{716efef7-5ac2-4ee0-8277-d9226411a155} ! $7, V0, LLengthData1, 1, LLengthData2, 0",
    // Template7: lengths from Length1..3, each three entries back; a SID
    // with a variable count has no word.
    "{716efef7-5ac2-4ee0-8277-d9226411a155} ! $8, V0, LLength1, 4, LLength2, 4, LLength3, 4, "
    "LVarLengthData3, 0xa301, LVarLengthData4, 0xa302, LVarLengthData16, 0xa384, "
    "LVarLengthData21, 0",
    "{716efef7-5ac2-4ee0-8277-d9226411a155} ! $9, V254, LCount1, 4, LCount2, 4, LCount3, 4, "
    "LLength1, 4, LLength2, 4, LLength3, 4, LCountLengthData1_L0_C0, 1, "
    "LCountLengthData1_L0_C1, 1, LCountLengthData1_L0_C2, 0x9281, LCountLengthData1_L1_C0, 0",
    // Template9: Struct1 flattened (23 members), Field2, Struct3 (count="0")
    // and Struct4 (count="1") flattened, Struct5 (count="3") stops.
    "{716efef7-5ac2-4ee0-8277-d9226411a155} ! $65535, V255, LField1, 4, LField2, 3, LField3, 1, "
    "LField4, 2, LField5, 3, LField6, 4, LField7, 5, LField8, 6, LField9, 7, LField10, 8, "
    "LField11, 9, LField12, 10, LField13, 11, LField14, 12, LField15, 13, LField16, 0xd384, "
    "LField17, 15, LField18, 16, LField19, 17, LField20, 18, LField21, 19, LField22, 20, "
    "LField23, 21, LField2, 4, LField1, 4, LField2, 0xd384, LField3, 4, LField1, 4, "
    "LField2, 0xd384, LField3, 4, LStruct5, 0",
    "#{d2eb3575-b9ae-4b4f-a0b7-61034a28c267} ! ProviderName2",
    "#{d2eb3575-b9ae-4b4f-a0b7-61034a28c268} ! ProviderName3",
    "{d2eb3575-b9ae-4b4f-a0b7-61034a28c268} ! $1, V0, LField1, 4",
    "#{13bcf70a-af93-4ad6-bb33-d9b383a110b8} ! ProviderName4",
};

TEST(Harvest, LargeManifestFromBlobAndBothImages) {
  std::vector<std::string> want(std::begin(kLarge), std::end(kLarge));
  for (const char* name : {"/Large.wevt.v5.bin", "/pe/large32.dll", "/pe/large64.dll"}) {
    bytes in = read_all(kWevt + name);
    if (in.empty()) GTEST_SKIP() << "no test vectors in " << kWevt;
    harvest_result r = harvest_bytes(in);
    EXPECT_TRUE(r.problems.empty()) << name << ": " << r.problems.at(0);
    EXPECT_EQ(r.provider_lines, 4u);
    EXPECT_EQ(r.template_lines, 10u);
    EXPECT_EQ(without_comments(r.text), want) << name;
    expect_valid(r.text);
  }
}

TEST(Harvest, EveryPropertyForm) {
  bytes in = read_all(kWevt + "/TypeMangling.wevt.v5.bin");
  if (in.empty()) GTEST_SKIP() << "no test vectors in " << kWevt;
  harvest_result r = harvest_bytes(in);
  EXPECT_EQ(r.template_lines, 137u);  // TypeMangling.man has 137 events, all with templates
  expect_valid(r.text);
  std::map<int, std::string> got;
  for (const std::string& l : without_comments(r.text)) {
    // Behind "$id, V0": the fields.
    size_t d = l.find('$'), c = l.find(',', l.find(", V") + 1);
    if (d != std::string::npos) got[std::stoi(l.substr(d + 1))] = l.substr(c);
  }
  // From TypeMangling.man: event N uses the template named in its line.
  const std::map<int, std::string> want = {
      {1, ", LField, 1"},             // UnicodeString
      {2, ", LField, 2"},             // AnsiString
      {13, ", LField, 13"},           // Boolean
      {14, ", LField, 0xd384"},       // Binary length="3"
      {15, ", LField, 15"},           // GUID
      {19, ", LField, 19"},           // SID
      {22, ", LField, 22"},           // CountedUnicodeString
      {23, ", LField, 0"},            // CountedAnsiString
      {24, ", LField, 0"},            // CountedBinary
      {101, ", LField, 0x9581"},      // 5 UnicodeStrings
      {102, ", LField, 0"},           // 5 AnsiStrings
      {103, ", LField, 0xd584"},      // 5 Int8
      {105, ", LField, 0xd586"},      // 5 Int16
      {107, ", LField, 0xd588"},      // 5 Int32
      {110, ", LField, 0xd595"},      // 5 UInt64
      {111, ", LField, 0xd588"},      // 5 Float
      {112, ", LField, 0xd595"},      // 5 Double
      {114, ", LField, 0xdf84"},      // 5 Binary of 3 bytes
      {115, ", LField, 0xb284, 80"},  // 5 GUIDs
      {116, ", LField, 0xd590"},      // 5 Pointers
      {117, ", LField, 0xd595"},      // 5 FILETIMEs
      {118, ", LField, 0xb284, 80"},  // 5 SYSTEMTIMEs
      {119, ", LField, 0"},           // 5 SIDs
      {121, ", LField, 0xd595"},      // 5 HexInt64
      {205, ", LField, 5"},           // count="0": plain
      {305, ", LField, 5"},           // count="1": plain
      {401, ", LVarCount, 8, LField, 0xa181"},
      {402, ", LVarCount, 8, LField, 0"},
      {403, ", LVarCount, 8, LField, 0xa184"},
      {405, ", LVarCount, 8, LField, 0"},  // no variable array of 16-bit values
      {408, ", LVarCount, 8, LField, 0xa188"},
      {409, ", LVarCount, 8, LField, 0"},
      {416, ", LVarCount, 8, LField, 0xa190"},
      {420, ", LVarCount, 8, LField, 0xa188"},
      {501, ", LVarLength, 4, LField, 0xa101"},
      {502, ", LVarLength, 4, LField, 0xa102"},
      {503, ", LVarLength, 4, LField, 0xa184"},
      {504, ", LVarLength, 4, LField, 19"},  // a SID sizes itself
  };
  for (const auto& [id, tokens] : want) EXPECT_EQ(got[id], tokens) << "event " << id;
}

TEST(Harvest, FormatThreeAndFiveAgree) {
  bytes v3 = read_all(kWevt + "/wpf-etw.wevt.v3.bin");
  bytes v5 = read_all(kWevt + "/wpf-etw.wevt.v5.bin");
  if (v3.empty() || v5.empty()) GTEST_SKIP() << "no test vectors in " << kWevt;
  harvest_result a = harvest_bytes(v3), b = harvest_bytes(v5);
  // 333 events, each with a template (199 of them the empty Template_0).
  EXPECT_EQ(a.template_lines, 333u);
  EXPECT_EQ(b.template_lines, 333u);
  std::vector<std::string> la = without_comments(a.text), lb = without_comments(b.text);
  ASSERT_FALSE(lb.empty());
  // Only format 5 names the provider.
  EXPECT_EQ(lb[0], "#{e13b77a8-14b6-11de-8069-001b212b5009} ! Microsoft-Windows-WPF");
  lb.erase(lb.begin());
  EXPECT_EQ(la, lb);
  // Event 1: Template_18, Int32 "Id" and Int64 "HWND", version 2; event 2:
  // Template_0.
  EXPECT_EQ(la.at(0), "{e13b77a8-14b6-11de-8069-001b212b5009} ! $1, V2, LId, 7, LHWND, 9");
  EXPECT_EQ(la.at(1), "{e13b77a8-14b6-11de-8069-001b212b5009} ! $2, V2, 0");
  expect_valid(a.text);
  expect_valid(b.text);
}

// Each manifest of the test vectors against its compiled form: the same
// lines, field by field, once the manifest's events are named as the
// compiled form names them (by name= only); the same layouts ended early;
// and the same numbers for every event through both readers (levels, tasks,
// opcodes and keywords by name, the provider's own and the "win:" ones;
// channels numbered and given their keyword bit as the compiler does).
TEST(Harvest, ManifestAndCompiledFormAgree) {
  const char* const names[] = {"EventAttributes", "ImportChannels", "Large",  "ProviderTraits",
                               "TaskOpcodes",     "TypeMangling",   "wpf-etw"};
  size_t lines = 0, events = 0;
  for (const char* name : names) {
    bytes man = read_all(kWevt + "/" + name + ".man");
    bytes bin = read_all(kWevt + "/" + name + ".wevt.v5.bin");
    if (man.empty() || bin.empty()) GTEST_SKIP() << "no test vectors in " << kWevt;
    harvest_options o;
    o.manifest.symbol_as_name = false;
    harvest_result x = harvest_bytes(man, o), c = harvest_bytes(bin);
    EXPECT_TRUE(x.problems.empty()) << name << ": " << x.problems.at(0);
    std::vector<std::string> lx = without_comments(x.text), lc = without_comments(c.text);
    EXPECT_EQ(lx, lc) << name;
    EXPECT_EQ(x.ended_early, c.ended_early) << name;
    EXPECT_EQ(x.template_lines, c.template_lines) << name;
    expect_valid(x.text);
    lines += lx.size();

    crim_blob cb;
    std::string reason;
    ASSERT_TRUE(read_crim(qv::byte_span(bin.data(), bin.size()), cb, reason)) << reason;
    manifest_doc doc;
    ASSERT_TRUE(read_manifest_xml(man.data(), man.size(), o.manifest, doc, reason)) << reason;
    EXPECT_TRUE(doc.problems.empty()) << name << ": " << doc.problems.at(0);
    ASSERT_EQ(doc.providers.size(), cb.providers.size()) << name;
    for (size_t i = 0; i < cb.providers.size(); ++i) {
      const wevt_provider& wp = cb.providers[i];
      const manifest_provider& mp = doc.providers[i];
      EXPECT_EQ(mp.guid, wp.guid) << name;
      ASSERT_EQ(mp.events.size(), wp.events.size()) << name << " provider " << i;
      for (const wevt_event& we : wp.events) {
        const manifest_event* me = nullptr;
        for (const manifest_event& e : mp.events)
          if (e.id == we.id && e.version == we.version) me = &e;
        ASSERT_NE(me, nullptr) << name << " event " << we.id << " version " << int(we.version);
        std::string which = std::string(name) + " event " + std::to_string(we.id);
        EXPECT_EQ(me->level, we.level) << which;
        EXPECT_EQ(me->opcode, we.opcode) << which;
        EXPECT_EQ(me->task, we.task) << which;
        EXPECT_EQ(me->keywords, we.keywords) << which;
        EXPECT_EQ(me->channel, we.channel) << which;
        EXPECT_EQ(me->name, we.name) << which;
        EXPECT_EQ(me->has_template, we.template_offset != 0) << which;
        ++events;
      }
    }
  }
  // 4 + 12 + 7 lines of Large, TypeMangling's 137 events and wpf-etw's 333
  // among them; every event of the seven manifests compared.
  EXPECT_GT(lines, 137u + 333u + 14u);
  EXPECT_EQ(events, size_t(7 + 6 + 12 + 3 + 2 + 137 + 333)) << events;
}

bytes text_bytes(const std::string& s) { return bytes(s.begin(), s.end()); }

TEST(Harvest, ManifestInput) {
  auto xml = [](const std::string& s) { return looks_like_xml(qv::byte_span(reinterpret_cast<const uint8_t*>(s.data()), s.size())); };
  EXPECT_TRUE(xml("<x/>"));
  EXPECT_TRUE(xml(" \r\n\t<?xml?>"));
  EXPECT_TRUE(xml("\xEF\xBB\xBF<x/>"));
  EXPECT_TRUE(xml(std::string("\xFF\xFE \0<\0", 6)));
  EXPECT_TRUE(xml(std::string("\xFE\xFF\0 \0<", 6)));
  EXPECT_FALSE(xml("MZ<"));
  EXPECT_FALSE(xml("CRIM"));
  EXPECT_FALSE(xml("   "));
  EXPECT_FALSE(xml(""));

  const std::string manifest =
      "<instrumentationManifest><instrumentation><events>"
      "<provider name=\"Odd,Name;x\" guid=\"{0a0b0c0d-1514-1716-1819-1a1b1c1d1e1f}\">"
      "<events><event value=\"2\" version=\"1\" symbol=\"B!ang\" template=\"T\" level=\"nope\"/>"
      "<event value=\"2\" version=\"3\" template=\"U\"/><event value=\"1\" template=\"E\"/>"
      "<event value=\"5\"/></events>"
      "<templates><template tid=\"T\"><data name=\"A\" inType=\"win:UInt16\"/></template>"
      "<template tid=\"U\"><data name=\"N\" inType=\"win:UInt8\"/>"
      "<struct name=\"S\" count=\"N\"><data name=\"X\" inType=\"win:UInt8\"/></struct></template>"
      "<template tid=\"E\"/></templates></provider></events></instrumentation></instrumentationManifest>";
  const std::string g = "{0a0b0c0d-1514-1716-1819-1a1b1c1d1e1f}";
  std::vector<std::string> want = {
      "#" + g + " ! Odd_Name_x",
      g + " ! $1, V0, 0",                      // an empty template: a lone word 0
      g + " ! $2, V3, LN, 4, LS, 0",           // newest version first
      g + " ! $2, V1, LB_ang, 0x8001, LA, 6",  // named by its symbol
  };
  harvest_result r = harvest_bytes(text_bytes(manifest));
  EXPECT_EQ(without_comments(r.text), want);
  EXPECT_EQ(r.provider_lines, 1u);
  EXPECT_EQ(r.template_lines, 3u);
  ASSERT_EQ(r.problems.size(), 1u);
  EXPECT_NE(r.problems[0].find("event 2 version 1: unknown level \"nope\""), std::string::npos) << r.problems[0];
  EXPECT_NE(r.text.find("// skipped: provider Odd,Name;x: event 2 version 1: unknown level"), std::string::npos);
  EXPECT_EQ(r.text.rfind("// input: instrumentation manifest, 1 providers, 3 templates\n", 0), 0u) << r.text;
  std::map<std::string, size_t> ended = {{"array of structures", 1}};
  EXPECT_EQ(r.ended_early, ended);
  expect_valid(r.text);

  // The same manifest in UTF-16 with its byte order mark.
  bytes wide = {0xFF, 0xFE};
  for (char ch : manifest) {
    wide.push_back(uint8_t(ch));
    wide.push_back(0);
  }
  EXPECT_EQ(without_comments(harvest_bytes(wide).text), want);

  // Refusals: unreadable XML, another XML document, a manifest of nothing.
  r = harvest_bytes(text_bytes(manifest.substr(0, manifest.size() - 3)));
  EXPECT_TRUE(r.text.empty());
  ASSERT_EQ(r.problems.size(), 1u);
  EXPECT_EQ(r.problems[0].rfind("unreadable manifest: line 1: ", 0), 0u) << r.problems[0];
  r = harvest_bytes(text_bytes("<doc/>"));
  ASSERT_EQ(r.problems.size(), 1u);
  EXPECT_EQ(r.problems[0], "unreadable manifest: not an instrumentation manifest (root element <doc>)");
  r = harvest_bytes(text_bytes("<instrumentationManifest/>"));
  ASSERT_EQ(r.problems.size(), 1u);
  EXPECT_EQ(r.problems[0], "the manifest names no provider and holds no event template");
  EXPECT_TRUE(r.text.empty());

  // Every prefix of a real manifest: valid text or nothing, never a fault.
  bytes real = read_all(kWevt + "/EventAttributes.man");
  for (size_t n = 0; n < real.size(); ++n) expect_valid(harvest_bytes(bytes(real.begin(), real.begin() + n)).text);
}

modsift_test::t_provider sample_provider() {
  using namespace modsift_test;
  t_provider p;
  p.guid = guid_from(0x0a0b0c0d);
  t_template t;
  t.param_count = 2;
  t.properties = {prop("Size", 6), prop("Name", 1, 4, 0, 0)};
  t.binxml = {0x0F, 0x01, 0x01, 0x00, 0x0C, 0x01, 0x02, 0x00};
  p.templates.push_back(t);
  t_template u;
  u.param_count = 1;
  u.properties = {prop("Flags", 8)};
  p.templates.push_back(u);
  // Event 7 in three versions, out of order, and event 3.
  p.events = {{7, 0, 1, "Old"}, {7, 2, 0, "Newest"}, {3, 0, 1, ""}, {7, 1, 1, "Mid"}, {9, 0, -1, "NoTemplate"}};
  p.message_id = 0x90000001u;
  return p;
}

TEST(Harvest, VersionsOrderBuildTokenAndNames) {
  using namespace modsift_test;
  t_provider p = sample_provider();
  p.name = "Sample-Provider";
  harvest_result r = harvest_bytes(build_crim(5, {p}));
  // guid_from: Data1 0x0a0b0c0d, then the bytes 0x14..0x1f, so Data2 and
  // Data3 (little-endian) read 0x1514 and 0x1716.
  const std::string g = "{0a0b0c0d-1514-1716-1819-1a1b1c1d1e1f}";
  std::vector<std::string> want = {
      "#" + g + " ! Sample-Provider",
      g + " ! $3, V0, LFlags, 8",
      g + " ! $7, V2, LNewest, 0x8001, LSize, 6, LName, 0xa101",
      g + " ! $7, V1, LMid, 0x8001, LFlags, 8",
      g + " ! $7, V0, LOld, 0x8001, LFlags, 8",
  };
  EXPECT_EQ(without_comments(r.text), want);
  EXPECT_EQ(r.template_lines, 4u);

  // In a PE with a version resource every event line carries the build; a
  // format 3 blob (no PRVA) takes the provider's name from the message table.
  std::vector<test_resource> res(3);
  res[0].type_name = "WEVT_TEMPLATE";
  res[0].data = build_crim(3, {sample_provider()});
  res[1].type_id = 16;
  res[1].data = build_version_info(10, 0, 17763, 1);
  res[2].type_id = 11;
  res[2].data = build_message_table({{0x90000001u, "Sample-From-Messages"}}, 1);
  harvest_result q = harvest_bytes(build_pe(false, res));
  EXPECT_TRUE(q.problems.empty());
  std::vector<std::string> lines = without_comments(q.text);
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_EQ(lines[0], "#" + g + " ! Sample-From-Messages");
  EXPECT_EQ(lines[1], g + " ! $3, V0, #17763, LFlags, 8");
  EXPECT_EQ(lines[2], g + " ! $7, V2, #17763, LSize, 6, LName, 0xa101");  // format 3: no names
  EXPECT_NE(q.text.find("file version 10.0.17763.1"), std::string::npos);
  expect_valid(q.text);

  // A name in the blob wins over the message table.
  res[0].data = build_crim(5, {p});
  harvest_result n = harvest_bytes(build_pe(true, res));
  EXPECT_EQ(without_comments(n.text).at(0), "#" + g + " ! Sample-Provider");
}

TEST(Harvest, EncodedTemplateComments) {
  using namespace modsift_test;
  harvest_result r = harvest_bytes(build_crim(5, {sample_provider()}), true);
  std::vector<std::string> lines = lines_of(r.text);
  // Each event line has its template's binary XML right above it.
  size_t events = 0;
  for (size_t i = 0; i < lines.size(); ++i) {
    if (lines[i][0] != '{') continue;
    ++events;
    ASSERT_GT(i, 0u);
    bool newest = lines[i].find("$7, LNewest") != std::string::npos;
    EXPECT_EQ(lines[i - 1].rfind("// bxml $", 0), 0u) << lines[i - 1];
    if (newest) {
      EXPECT_EQ(lines[i - 1], "// bxml $7 v2: 0f0101000c010200");
    }
  }
  EXPECT_EQ(events, 4u);
  expect_valid(r.text);
}

TEST(Harvest, BadInput) {
  using namespace modsift_test;
  harvest_result r = harvest_bytes({'h', 'e', 'l', 'l', 'o'});
  EXPECT_TRUE(r.text.empty());
  ASSERT_EQ(r.problems.size(), 1u);
  EXPECT_NE(r.problems[0].find("not a PE"), std::string::npos);
  r = harvest_bytes({'M', 'Z'});
  EXPECT_TRUE(r.text.empty());
  EXPECT_EQ(r.problems.size(), 1u);

  std::vector<test_resource> res(1);
  res[0].type_id = 16;
  res[0].data = build_version_info(6, 1, 7601, 0);
  r = harvest_bytes(build_pe(true, res));
  EXPECT_TRUE(r.text.empty());
  ASSERT_EQ(r.problems.size(), 1u);
  EXPECT_EQ(r.problems[0], "no WEVT_TEMPLATE resource");

  // A cut blob, alone or inside an image: no template line, one reason.
  bytes blob = build_crim(5, {sample_provider()});
  bytes cut(blob.begin(), blob.begin() + blob.size() / 2);
  r = harvest_bytes(cut);
  EXPECT_TRUE(r.text.empty());
  ASSERT_EQ(r.problems.size(), 1u);
  EXPECT_NE(r.problems[0].find("damaged template blob"), std::string::npos);
  res[0].type_name = "WEVT_TEMPLATE";
  res[0].data = cut;
  r = harvest_bytes(build_pe(false, res));
  EXPECT_TRUE(r.text.empty());
  EXPECT_EQ(r.problems.size(), 1u);

  // One event's TEMP offset broken: that event is reported and marked, the
  // others stand.
  bytes b = blob;
  crim_blob cb;
  std::string reason;
  ASSERT_TRUE(read_crim(qv::byte_span(b.data(), b.size()), cb, reason));
  uint32_t bad = cb.providers[0].events[1].template_offset;  // event 7 version 2
  b[bad] = 'X';
  r = harvest_bytes(b);
  ASSERT_EQ(r.problems.size(), 1u);
  EXPECT_NE(r.problems[0].find("event 7 version 2"), std::string::npos);
  EXPECT_EQ(r.template_lines, 3u);
  EXPECT_NE(r.text.find("// skipped: "), std::string::npos);
  expect_valid(r.text);

  // Damage shared by many parts is told once, and never floods: three events
  // on one broken TEMP make one reason; sixty broken providers make twenty
  // and a count.
  t_provider three = sample_provider();
  three.events = {{1, 0, 1, ""}, {2, 0, 1, ""}, {3, 0, 1, ""}};
  b = build_crim(5, {three});
  ASSERT_TRUE(read_crim(qv::byte_span(b.data(), b.size()), cb, reason));
  b[cb.providers[0].events[0].template_offset] = 'X';
  r = harvest_bytes(b);
  ASSERT_EQ(r.problems.size(), 2u);  // the reason, and "nothing to harvest"
  EXPECT_NE(r.problems[0].find("event 1 version 0: no TEMP at"), std::string::npos);
  EXPECT_NE(r.problems[0].find("(and 2 more events)"), std::string::npos);
  std::vector<t_provider> many(60, sample_provider());
  b = build_crim(5, many);
  for (size_t i = 0; i < 60; ++i) b[16 + 20 * i + 16] = 1;  // WEVT offsets to nowhere
  r = harvest_bytes(b);
  EXPECT_TRUE(r.text.empty());
  ASSERT_EQ(r.problems.size(), 22u);
  EXPECT_EQ(r.problems[20], "40 more problems not shown");

  // Every prefix and many single-byte changes of a valid image: no crash,
  // and whatever comes out is valid template text.
  res[0].data = blob;
  bytes img = build_pe(true, res);
  for (size_t n = 0; n < img.size(); n += 13) expect_valid(harvest_bytes(bytes(img.begin(), img.begin() + n)).text);
  uint32_t seed = 12345;
  for (int i = 0; i < 3000; ++i) {
    bytes m = img;
    seed = seed * 1103515245u + 12345u;
    size_t at = (seed >> 8) % m.size();
    m[at] = uint8_t(seed >> 24);
    expect_valid(harvest_bytes(m).text);
  }
}

// The executable as quon runs it.
std::string run(const std::string& cmd, int& status) {
  std::string out;
  FILE* f = popen(cmd.c_str(), "r");
  if (!f) return out;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, f)) > 0) out.append(buf, n);
  status = pclose(f);
  return out;
}

TEST(Harvest, CommandLine) {
  std::string dll = kWevt + "/pe/large64.dll";
  if (read_all(dll).empty()) GTEST_SKIP() << "no test vectors in " << kWevt;
  int status = -1;
  std::string out = run(std::string(MODSIFT_EXE) + " \"" + dll + "\" -quon -quiet 2>/dev/null", status);
  EXPECT_EQ(status, 0);
  std::vector<std::string> lines = lines_of(out);
  ASSERT_GE(lines.size(), 3u);
  // The head as quon checks it: "modsift", then "ver:" with a blank, a zero,
  // and a version of 39 or more before the ";".
  EXPECT_NE(lines[0].find("modsift"), std::string::npos);
  size_t v = lines[0].find("ver:");
  ASSERT_NE(v, std::string::npos);
  size_t semi = lines[0].find(';', v);
  ASSERT_NE(semi, std::string::npos);
  std::string ver = lines[0].substr(v + 4, semi - v - 4);
  EXPECT_EQ(ver, " 0.41");
  EXPECT_GE(std::stoi(ver.substr(3)), 39);
  EXPECT_EQ(lines[1], "\"cmdline: " + std::string(MODSIFT_EXE) + " " + dll + " -quon -quiet\"");
  // After the head: only comments and template lines, the same as the
  // library gives.
  std::vector<std::string> body(lines.begin() + 2, lines.end());
  std::string rest;
  for (const std::string& l : body) rest += l + "\n";
  expect_valid(rest);
  std::vector<std::string> want(std::begin(kLarge), std::end(kLarge));
  EXPECT_EQ(without_comments(rest), want);

  // The list form, and -enc adding a comment per event line.
  out = run(std::string(MODSIFT_EXE) + " -quon -enc \"" + dll + "\" -quiet 2>/dev/null", status);
  EXPECT_EQ(status, 0);
  size_t bxml = 0;
  for (const std::string& l : lines_of(out)) bxml += l.rfind("// bxml $", 0) == 0;
  EXPECT_EQ(bxml, 10u);

  // Usage, and the exit values of failures.
  out = run(std::string(MODSIFT_EXE) + " -h", status);
  EXPECT_EQ(status, 0);
  EXPECT_NE(out.find("usage: modsift"), std::string::npos);
  run(std::string(MODSIFT_EXE) + " 2>/dev/null", status);
  EXPECT_EQ(WEXITSTATUS(status), 2);
  run(std::string(MODSIFT_EXE) + " -bogus x 2>/dev/null", status);
  EXPECT_EQ(WEXITSTATUS(status), 2);
  // The manifest itself: the same layouts, events named by their symbol where
  // they have no name (7 and 8 of provider 1, 1 of provider 3), and the
  // layouts that end early counted.
  std::string err = run(std::string(MODSIFT_EXE) + " \"" + kWevt + "/Large.man\" -quon 2>&1 >/dev/null", status);
  EXPECT_EQ(WEXITSTATUS(status), 0);
  const std::string large = kWevt + "/Large.man: ";
  EXPECT_EQ(err, "modsift: " + large + "4 provider lines, 10 template lines\nmodsift: " + large +
                     "layouts ended early: 2 UTF-16 text of a fixed length other than 3, 4 or 256, "
                     "2 array of a type without an array word, 2 counted ANSI string, "
                     "1 array of structures, 1 length or count out of reach\n");
  out = run(std::string(MODSIFT_EXE) + " \"" + kWevt + "/Large.man\" 2>/dev/null", status);
  lines = lines_of(out);
  ASSERT_GE(lines.size(), 3u);
  body.assign(lines.begin() + 2, lines.end());
  rest.clear();
  for (const std::string& l : body) rest += l + "\n";
  expect_valid(rest);
  for (std::string& w : want) {
    const std::pair<const char*, const char*> symbols[] = {
        {"a155} ! $7, V0, ", "LEventSym7, 0x8001, "},
        {"a155} ! $8, V0, ", "LEventSym8, 0x8001, "},
        {"c268} ! $1, V0, ", "LEventSym1, 0x8001, "}};
    for (const auto& [ev, label] : symbols) {
      size_t at = w.find(ev);
      if (at != std::string::npos) w.insert(at + std::strlen(ev), label);
    }
  }
  EXPECT_EQ(without_comments(rest), want);
  err = run(std::string(MODSIFT_EXE) + " \"" + kWevt + "/README.md\" 2>&1 >/dev/null", status);
  EXPECT_EQ(WEXITSTATUS(status), 1);
  EXPECT_NE(err.find("README.md: not a PE file, a template blob or a manifest"), std::string::npos) << err;
  // A "!" in the command line can't make the head pass for a template line.
  out = run(std::string(MODSIFT_EXE) + " '/nonexistent/a!b$1,2' 2>/dev/null", status);
  lines = lines_of(out);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[1].find('!'), std::string::npos);
  EXPECT_NE(lines[1].find("a\\x21b$1,2"), std::string::npos);
}

}  // namespace
