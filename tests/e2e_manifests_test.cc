// Event-source manifests carried in the trace, end to end on synthetic
// traces: a provider's manifest written as event 65534 in two chunks, the
// events after it decoded under the manifest's names, the events before it
// as before; what the database and -templates hold wins; what one file
// taught is gone in the next; broken and forged manifests teach nothing and
// cost only their own rows; -manifests writes the template text that decodes
// the earlier events too. Every expected value is worked out from the bytes
// written here.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "tests/e2e_util.h"
#include "tests/trace_writer.h"

namespace {

const char kSource[] = "6f1c2a3b-4d5e-4f60-8a7b-9c0d1e2f3a4b";
const char kPrivate[] = "763fd754-7086-4dfe-95eb-c01a46faf4ca";  // in the embedded database

// A manifest as an event source writes it (on one line, attributes in
// single quotes so that its text needs no escaping in a row).
std::string manifest_of(const std::string& guid, const std::string& name, const std::string& events,
                        const std::string& templates) {
  return "<instrumentationManifest xmlns='http://schemas.microsoft.com/win/2004/08/events'>"
         "<instrumentation xmlns:win='http://manifests.microsoft.com/win/2004/08/windows/events'>"
         "<events xmlns='http://schemas.microsoft.com/win/2004/08/events'>"
         "<provider name='" + name + "' guid='{" + guid + "}' symbol='Demo'>"
         "<events>" + events + "</events><templates>" + templates + "</templates>"
         "</provider></events></instrumentation></instrumentationManifest>";
}

// Events 1 (versions 0 and 1) and 2 of the demo source.
std::string demo_manifest() {
  return manifest_of(kSource, "Contoso-Demo",
                     "<event value='1' version='0' symbol='Tick' template='TickArgs'/>"
                     "<event value='1' version='1' symbol='Tick' template='TickArgs_V1'/>"
                     "<event value='2' version='0' symbol='Big' template='BigArgs'/>",
                     "<template tid='TickArgs'><data name='Count' inType='win:UInt32'/></template>"
                     "<template tid='TickArgs_V1'><data name='Count' inType='win:UInt32'/>"
                     "<data name='Name' inType='win:UnicodeString'/></template>"
                     "<template tid='BigArgs'><data name='Value' inType='win:UInt64'/></template>");
}

// One chunk's payload: Format 1, version 1.0, magic 0x5B, the chunk count
// and number, then the chunk's text.
tw::bytes chunk(uint16_t total, uint16_t number, const std::string& text, uint8_t magic = 0x5B,
                uint8_t format = 1) {
  tw::bytes b = {format, 1, 0, magic};
  tw::append_u16(b, total);
  tw::append_u16(b, number);
  b.insert(b.end(), text.begin(), text.end());
  return b;
}

struct event {
  std::string provider;
  uint16_t id;
  uint8_t version;
  tw::bytes payload;
};

event manifest_event(const std::string& provider, const tw::bytes& payload) {
  return {provider, 0xFFFE, 1, payload};
}

std::string trace_of(const e2e::temp_dir& dir, const std::string& name, const std::vector<event>& events) {
  tw::log_header_spec h;
  h.buffer_size = 65536;
  h.start_time = h.system_time = 134170743671234567ull;
  tw::etl_writer w;
  w.log_header(h);
  std::vector<tw::bytes> records;
  for (const event& e : events) {
    tw::event_spec s;
    s.provider = tw::guid_from_text(e.provider);
    s.id = e.id;
    s.version = e.version;
    s.time = h.start_time;
    s.payload = e.payload;
    records.push_back(tw::event_header_record(s, true));
  }
  w.add_buffer(records);
  return dir.write(name, w.data());
}

// The data cell of each row of `guid`, in file order.
std::vector<std::string> cells_of(const std::string& out, const std::string& guid) {
  std::vector<std::string> cells;
  size_t at = 0;
  while (at < out.size()) {
    size_t eol = out.find('\n', at);
    if (eol == std::string::npos) eol = out.size();
    const std::string line = out.substr(at, eol - at);
    at = eol + 1;
    const size_t data = line.find("data{");
    if (line.find("| " + guid + " | ") == std::string::npos || data == std::string::npos) continue;
    cells.push_back(line.substr(data));
  }
  return cells;
}

tw::bytes u32_payload(uint32_t v) {
  tw::bytes b;
  tw::append_u32(b, v);
  return b;
}

// Count 5, then "ab" in UTF-16 with its terminator.
tw::bytes tick_v1_payload() {
  tw::bytes b;
  tw::append_u32(b, 5);
  const tw::bytes ab = tw::utf16("ab");
  b.insert(b.end(), ab.begin(), ab.end());
  tw::append_u16(b, 0);
  return b;
}

const char kTick0[] = "data{\"01-Tick\":\"{guess}\";\"02-Count\":\"0x11223344\"}";
const char kTick1[] = "data{\"01-Tick\":\"{guess}\";\"02-Count\":\"0x00000005\";\"03-Name\":\"ab\"}";
const char kBig[] = "data{\"01-Big\":\"{guess}\";\"02-Value\":\"0x0102030405060708\"}";

// The demo trace: event 1 before the manifest, the manifest in two chunks,
// then events 1 (both versions) and 2.
std::string demo_trace(const e2e::temp_dir& dir, const std::string& name) {
  const std::string xml = demo_manifest();
  const size_t half = xml.size() / 2;
  tw::bytes big;
  tw::append_u64(big, 0x0102030405060708ull);
  return trace_of(dir, name,
                  {{kSource, 1, 0, u32_payload(0x11223344)},
                   manifest_event(kSource, chunk(2, 0, xml.substr(0, half))),
                   manifest_event(kSource, chunk(2, 1, xml.substr(half))),
                   {kSource, 1, 0, u32_payload(0x11223344)},
                   {kSource, 1, 1, tick_v1_payload()},
                   {kSource, 2, 0, big}});
}

std::string envelope_cell(uint16_t total, uint16_t number, const std::string& text) {
  char head[200];
  std::snprintf(head, sizeof head,
                "data{\"01-Format\":\"0x01\";\"02-MajorVersion\":\"0x01\";\"03-MinorVersion\":\"0x00\";"
                "\"04-Magic\":\"0x5b\";\"05-TotalChunks\":\"0x%04x\";\"06-ChunkNumber\":\"0x%04x\";",
                unsigned(total), unsigned(number));
  return std::string(head) + "\"07-ManifestText\":\"" + text + "\"}";
}

}  // namespace

TEST(EventSourceManifests, TwoChunksThenEventsUnderTheManifestsNames) {
  e2e::temp_dir dir;
  const std::string trace = demo_trace(dir, "demo.etl");
  const e2e::run_result r = e2e::run_quon("-quiet -log " + trace);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
  const std::vector<std::string> cells = cells_of(r.out, kSource);
  ASSERT_EQ(cells.size(), 6u) << r.out;
  // Before the manifest: nothing knows the source, the guesser has the four
  // bytes, and no name of the manifest appears.
  EXPECT_EQ(cells[0].find("Count"), std::string::npos) << cells[0];
  EXPECT_NE(cells[0].find("guess_"), std::string::npos) << cells[0];
  EXPECT_NE(cells[0].find("0x11223344"), std::string::npos) << cells[0];
  // The two chunks: their envelopes by name, each chunk's text once.
  const std::string xml = demo_manifest();
  EXPECT_EQ(cells[1], envelope_cell(2, 0, xml.substr(0, xml.size() / 2)));
  EXPECT_EQ(cells[2], envelope_cell(2, 1, xml.substr(xml.size() / 2)));
  // After it: each version with its own template.
  EXPECT_EQ(cells[3], kTick0);
  EXPECT_EQ(cells[4], kTick1);
  EXPECT_EQ(cells[5], kBig);
  // The row that completes the manifest and the rows after it carry the
  // provider's name from it.
  EXPECT_EQ(e2e::count(r.out, "| Contoso-Demo"), 4u) << r.out;
}

TEST(EventSourceManifests, EveryOutputFormShowsTheEnvelopeFields) {
  e2e::temp_dir dir;
  const std::string xml = manifest_of(kSource, "Contoso-Demo", "", "");
  const std::string trace = trace_of(dir, "one.etl", {manifest_event(kSource, chunk(1, 0, xml))});
  for (const char* form : {"-csv", "-csvl2t"}) {
    SCOPED_TRACE(form);
    const e2e::run_result r = e2e::run_quon(std::string("-quiet ") + form + " -log " + trace);
    EXPECT_EQ(r.status, 0);
    for (const char* name : {"Format", "MajorVersion", "MinorVersion", "Magic", "TotalChunks", "ChunkNumber"})
      EXPECT_EQ(e2e::count(r.out, name), 1u) << name << "\n" << r.out;
    EXPECT_EQ(e2e::count(r.out, "<instrumentationManifest"), 1u) << r.out;
    EXPECT_EQ(r.out.find("guess_"), std::string::npos) << r.out;
  }
  const e2e::run_result j = e2e::run_quon("-quiet -jsonl -log " + trace);
  EXPECT_EQ(j.status, 0);
  EXPECT_NE(j.out.find("\"fields\":{\"Format\":1,\"MajorVersion\":1,\"MinorVersion\":0,\"Magic\":91,"
                       "\"TotalChunks\":1,\"ChunkNumber\":0,\"ManifestText\":\"<instrumentationManifest"),
            std::string::npos)
      << j.out;
  EXPECT_EQ(e2e::count(j.out, "<instrumentationManifest"), 1u);
}

TEST(EventSourceManifests, TemplatesFileAndDatabaseWin) {
  e2e::temp_dir dir;
  // A -templates line for version 0 of event 1: it wins over the manifest's;
  // version 1 has no line and takes the manifest's.
  const std::string layouts = dir.path("layouts.txt");
  e2e::write_text(layouts, std::string("{") + kSource + "} ! $1, V0, LFromFile, 8\n");
  const std::string trace = demo_trace(dir, "demo.etl");
  const e2e::run_result r = e2e::run_quon("-quiet -templates " + layouts + " -log " + trace);
  EXPECT_EQ(r.status, 0);
  const std::vector<std::string> cells = cells_of(r.out, kSource);
  ASSERT_EQ(cells.size(), 6u) << r.out;
  EXPECT_EQ(cells[0], "data{\"01-FromFile\":\"0x11223344\"}");
  EXPECT_EQ(cells[3], "data{\"01-FromFile\":\"0x11223344\"}");
  EXPECT_EQ(cells[4], kTick1);
  EXPECT_EQ(cells[5], kBig);

  // A manifest that claims a provider of the database: event 80 version 1
  // is in the database (ClrInstanceID, 16 bits) and stays so; version 7 is
  // not, and takes the manifest's layout.
  const std::string forged = manifest_of(kPrivate, "Forged",
                                         "<event value='80' version='1' template='T'/>"
                                         "<event value='80' version='7' template='T'/>",
                                         "<template tid='T'><data name='Seven' inType='win:UInt32'/></template>");
  tw::bytes clr;
  tw::append_u16(clr, 9);
  const std::string db = trace_of(dir, "db.etl",
                                  {manifest_event(kPrivate, chunk(1, 0, forged)),
                                   {kPrivate, 80, 1, clr},
                                   {kPrivate, 80, 7, u32_payload(0x0a0b0c0d)}});
  const e2e::run_result d = e2e::run_quon("-quiet -log " + db);
  const std::vector<std::string> private_cells = cells_of(d.out, kPrivate);
  ASSERT_EQ(private_cells.size(), 3u) << d.out;
  EXPECT_EQ(private_cells[1], "data{\"01-ClrInstanceID\":\"0x0009\"}");
  EXPECT_EQ(private_cells[2], "data{\"01-Seven\":\"0x0a0b0c0d\"}");
  // The database's provider name stands.
  EXPECT_EQ(e2e::count(d.out, "| Microsoft-Windows-DotNETRuntimePrivate "), 3u) << d.out;
  EXPECT_EQ(d.out.find("| Forged"), std::string::npos) << d.out;
}

TEST(EventSourceManifests, ForgottenBetweenFiles) {
  e2e::temp_dir dir;
  const std::string first = demo_trace(dir, "first.etl");
  // The second file has the same source's events, but no manifest.
  const std::string second = trace_of(dir, "second.etl", {{kSource, 1, 0, u32_payload(0x11223344)}});
  const e2e::run_result r = e2e::run_quon("-quiet -log \"" + first + " | " + second + "\"");
  EXPECT_EQ(r.status, 0);
  const std::vector<std::string> cells = cells_of(r.out, kSource);
  ASSERT_EQ(cells.size(), 7u) << r.out;
  EXPECT_EQ(cells[3], kTick0);
  EXPECT_EQ(cells[6].find("Count"), std::string::npos) << cells[6];
  EXPECT_NE(cells[6].find("guess_"), std::string::npos) << cells[6];
}

TEST(EventSourceManifests, BrokenAndForgedManifestsTeachNothing) {
  e2e::temp_dir dir;
  const std::string xml = demo_manifest();
  const size_t half = xml.size() / 2;
  const std::string other = "0a0b0c0d-0e0f-4011-9213-141516171819";
  struct case_ {
    const char* what;
    std::vector<event> manifest;
  };
  const std::vector<case_> cases = {
      {"second chunk only", {manifest_event(kSource, chunk(2, 1, xml.substr(half)))}},
      {"chunks out of order",
       {manifest_event(kSource, chunk(2, 1, xml.substr(half))), manifest_event(kSource, chunk(2, 0, xml.substr(0, half)))}},
      {"first chunk only", {manifest_event(kSource, chunk(2, 0, xml.substr(0, half)))}},
      {"counts that change",
       {manifest_event(kSource, chunk(2, 0, xml.substr(0, half))), manifest_event(kSource, chunk(3, 1, xml.substr(half)))}},
      {"chunk number beyond the count", {manifest_event(kSource, chunk(1, 1, xml))}},
      {"count beyond the limit", {manifest_event(kSource, chunk(65, 0, xml))}},
      {"zero count", {manifest_event(kSource, chunk(0, 0, xml))}},
      {"not XML format", {manifest_event(kSource, chunk(1, 0, xml, 0x5B, 2))}},
      {"malformed XML", {manifest_event(kSource, chunk(1, 0, xml.substr(0, xml.size() - 30)))}},
      {"another provider's chunks", {manifest_event(other, chunk(1, 0, xml))}},
      {"a manifest of another provider",
       {manifest_event(kSource, chunk(1, 0, manifest_of(other, "Other", "<event value='1' version='0' template='T'/>",
                                                        "<template tid='T'><data name='Count' inType='win:UInt32'/></template>")))}},
  };
  for (const case_& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<event> events = c.manifest;
    events.push_back({kSource, 1, 0, u32_payload(0x11223344)});
    const std::string trace = trace_of(dir, "broken.etl", events);
    const e2e::run_result r = e2e::run_quon("-quiet -log " + trace);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    const std::vector<std::string> cells = cells_of(r.out, kSource);
    ASSERT_FALSE(cells.empty()) << r.out;
    EXPECT_EQ(cells.back().find("Count"), std::string::npos) << cells.back();
    EXPECT_NE(cells.back().find("0x11223344"), std::string::npos) << cells.back();
  }

  // A chunk with another magic byte isn't a manifest chunk: its row is
  // guessed as any payload without a layout, and the manifest after it reads.
  const std::string trace =
      trace_of(dir, "magic.etl",
               {manifest_event(kSource, chunk(1, 0, xml, 0x5C)), manifest_event(kSource, chunk(1, 0, xml)),
                {kSource, 1, 0, u32_payload(0x11223344)}});
  const e2e::run_result r = e2e::run_quon("-quiet -log " + trace);
  const std::vector<std::string> cells = cells_of(r.out, kSource);
  ASSERT_EQ(cells.size(), 3u) << r.out;
  EXPECT_EQ(cells[0].find("Magic"), std::string::npos) << cells[0];
  EXPECT_EQ(cells[1], envelope_cell(1, 0, xml));
  EXPECT_EQ(cells[2], kTick0);

  // A repeated manifest, and a second one that says otherwise: the first
  // layouts stand.
  const std::string changed =
      manifest_of(kSource, "Contoso-Demo", "<event value='1' version='0' symbol='Tock' template='T'/>",
                  "<template tid='T'><data name='Other' inType='win:UInt32'/></template>");
  const std::string again =
      trace_of(dir, "again.etl",
               {manifest_event(kSource, chunk(1, 0, xml)), manifest_event(kSource, chunk(1, 0, xml)),
                manifest_event(kSource, chunk(1, 0, changed)), {kSource, 1, 0, u32_payload(0x11223344)}});
  const e2e::run_result a = e2e::run_quon("-quiet -log " + again);
  const std::vector<std::string> again_cells = cells_of(a.out, kSource);
  ASSERT_EQ(again_cells.size(), 4u) << a.out;
  EXPECT_EQ(again_cells[3], kTick0);
}

TEST(EventSourceManifests, ManifestsModeWritesTemplateTextThatDecodesEarlierEvents) {
  e2e::temp_dir dir;
  const std::string trace = demo_trace(dir, "demo.etl");
  const std::string layouts = dir.path("layouts.txt");
  const e2e::run_result m = e2e::run_quon("-quiet -manifests -log " + trace + " -out " + layouts);
  EXPECT_EQ(m.status, 0);
  EXPECT_EQ(m.err, "");
  const std::string text = e2e::read_text(layouts);
  // The run's header lines, then the file and the manifest's lines: the
  // provider, then per identifier the newest version first.
  const std::string g = std::string("{") + kSource + "}";
  // The manifest's first chunk: behind the 65536-byte log header buffer, the
  // next buffer's 72-byte header and the first event (80 + 4 bytes, 88 on
  // the 8-byte step): 65536 + 72 + 88 = 65696.
  EXPECT_NE(text.find("// file: " + trace + "\n// manifest of " + g + " at offset 65696\n"), std::string::npos)
      << text;
  EXPECT_NE(text.find("#" + g + " ! Contoso-Demo\n" + g + " ! $1, V1, LTick, 0x8001, LCount, 8, LName, 1\n" + g +
                      " ! $1, V0, LTick, 0x8001, LCount, 8\n" + g + " ! $2, V0, LBig, 0x8001, LValue, 10\n"),
            std::string::npos)
      << text;
  // Given back with -templates, the event before the manifest reads too.
  const e2e::run_result r = e2e::run_quon("-quiet -templates " + layouts + " -log " + trace);
  const std::vector<std::string> cells = cells_of(r.out, kSource);
  ASSERT_EQ(cells.size(), 6u) << r.out;
  EXPECT_EQ(cells[0], kTick0);
  EXPECT_EQ(cells[3], kTick0);
  EXPECT_EQ(cells[4], kTick1);
  // The same lines as modsift writes for the manifest as a file.
  const std::string xml_path = dir.path("demo.man");
  e2e::write_text(xml_path, demo_manifest());
  const std::string quon = QUON_BINARY;
  const e2e::run_result sift = e2e::run_program(quon.substr(0, quon.rfind('/')) + "/modsift", xml_path);
  EXPECT_EQ(sift.status, 0) << sift.err;
  auto layout_lines = [](const std::string& all) {
    std::string kept;
    std::istringstream in(all);
    for (std::string line; std::getline(in, line);)
      if (line.rfind("{", 0) == 0 || line.rfind("#{", 0) == 0) kept += line + "\n";
    return kept;
  };
  EXPECT_EQ(layout_lines(text), layout_lines(sift.out));
  EXPECT_EQ(e2e::count(layout_lines(text), "\n"), 4u);
  // Without a trace the mode is refused, as -stats is.
  const e2e::run_result bare = e2e::run_quon("-manifests");
  EXPECT_NE(bare.err.find("This option requires -log <etl file>"), std::string::npos) << bare.err;
}

// The TplEventSource of a real .NET Core trace: 20 records of the provider
// (found by scanning the file for EVENT_HEADER records that name its GUID),
// the manifest at offset 920992 and again at 8891560, 8 events before it and
// 10 after. Those after decode with the manifest's templates, nothing left
// to the guesser; those before are guessed as before.
TEST(EventSourceManifests, TplEventSourceOfARealTrace) {
  struct stat st;
  const std::string path = std::string(QUON_SAMPLES_DIR) + "/perfview/diaghub-user-paged.etl";
  if (::stat(path.c_str(), &st) != 0) GTEST_SKIP() << "no samples folder";
  const e2e::run_result r = e2e::run_quon("-quiet -jsonl -log " + path);
  ASSERT_EQ(r.status, 0);
  const std::string tpl = "2e5dba47-a3d2-4d16-8ee0-6671ffdcd7b5";
  std::vector<nlohmann::json> rows;
  std::istringstream lines(r.out);
  for (std::string line; std::getline(lines, line);) {
    nlohmann::json j = nlohmann::json::parse(line);
    if (j["provider_guid"] == tpl) rows.push_back(j);
  }
  ASSERT_EQ(rows.size(), 20u);
  size_t before = 0, after = 0, manifests = 0;
  for (const nlohmann::json& j : rows) {
    const uint64_t offset = j["file_offset"];
    if (j["event_id"] == 65534) {
      ++manifests;
      EXPECT_FALSE(j["guessed"].get<bool>());
      const nlohmann::json& f = j["fields"];
      EXPECT_EQ(f["Format"], 1);
      EXPECT_EQ(f["Magic"], 0x5B);
      EXPECT_EQ(f["TotalChunks"], 1);
      EXPECT_EQ(f["ChunkNumber"], 0);
      EXPECT_EQ(f["ManifestText"].get<std::string>().rfind("<instrumentationManifest", 0), 0u);
    } else if (offset < 920992) {
      ++before;
      EXPECT_TRUE(j["guessed"].get<bool>()) << j.dump();
    } else {
      ++after;
      EXPECT_FALSE(j["guessed"].get<bool>()) << j.dump();
      for (const auto& [key, value] : j["fields"].items()) EXPECT_EQ(key.rfind("guess_", 0), std::string::npos) << key;
    }
  }
  EXPECT_EQ(manifests, 2u);
  EXPECT_EQ(before, 8u);
  EXPECT_EQ(after, 10u);
  // The first event after the manifest (offset 938896): TaskScheduled,
  // version 1, six Int32 values behind the provider-traits item: 01000000
  // 00000000 01000000 00000000 08200000 01000000.
  const nlohmann::json* first = nullptr;
  for (const nlohmann::json& j : rows)
    if (j["file_offset"] == 938896) first = &j;
  ASSERT_NE(first, nullptr);
  EXPECT_EQ((*first)["event_id"], 7);
  EXPECT_EQ((*first)["version"], 1);
  const nlohmann::json& f = (*first)["fields"];
  EXPECT_EQ(f["TaskScheduled"], "{guess}");
  EXPECT_EQ(f["OriginatingTaskSchedulerID"], 1);
  EXPECT_EQ(f["OriginatingTaskID"], 0);
  EXPECT_EQ(f["TaskID"], 1);
  EXPECT_EQ(f["CreatingTaskID"], 0);
  EXPECT_EQ(f["TaskCreationOptions"], 0x2008);
  EXPECT_EQ(f["appDomain"], 1);
}
