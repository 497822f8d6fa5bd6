#include "decode/tracelogging.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "decode/payload_decoder.h"
#include "decode/render.h"
#include "support/byte_reader.h"

namespace {

constexpr uint64_t kBase = 0x4000;

// A schema: the u16 total size in front of `body` (tags, event name, fields).
std::vector<uint8_t> schema(const std::vector<uint8_t>& body) {
  std::vector<uint8_t> out(2 + body.size());
  std::copy(body.begin(), body.end(), out.begin() + 2);
  qv::wr_u16(out.data(), static_cast<uint16_t>(out.size()));
  return out;
}

void add_text(std::vector<uint8_t>& v, const char* text) {
  for (const char* c = text; *c; ++c) v.push_back(uint8_t(*c));
  v.push_back(0);
}

std::string walk(const event_template& t, const std::vector<uint8_t>& payload,
                 int32_t* consumed = nullptr) {
  decoded_fields fields;
  int32_t n = walk_template(t, fields, payload.data(), uint32_t(payload.size()),
                            payload.data() + payload.size(), kBase, true);
  if (consumed) *consumed = n;
  std::string out;
  render_fields(out, fields);
  return out;
}

TEST(TraceLoggingSchema, FieldTypesByHand) {
  std::vector<uint8_t> body = {0x00};  // one tag byte
  add_text(body, "Ev");
  add_text(body, " Name ");  body.push_back(0x01);          // UTF-16 text, name trimmed
  add_text(body, "Count");   body.push_back(0x08);          // u32
  add_text(body, "Hex");     body.insert(body.end(), {0x88, 0x14});  // u32, out-type hex
  add_text(body, "Time");    body.insert(body.end(), {0x92, 0x26});  // SYSTEMTIME, out-type date
  add_text(body, "Tagged");  body.insert(body.end(), {0x84, 0x80, 0x81, 0x01});  // u8 with tags
  add_text(body, "Arr");     body.push_back(0x48);          // u32 array, count in the data
  add_text(body, "Fix");     body.insert(body.end(), {0x26, 0x03, 0x00});  // three u16
  add_text(body, "Bin");     body.push_back(0x0E);          // binary: u16 size, bytes
  add_text(body, "Str");     body.push_back(0x17);          // counted ANSI text
  add_text(body, "S");       body.insert(body.end(), {0x98, 0x02});  // structure of two
  add_text(body, "Wide");    body.insert(body.end(), {0xC6, 0x02});  // u16 characters, counted
  add_text(body, "Null");    body.push_back(0x00);          // no data
  add_text(body, "Cust");    body.insert(body.end(), {0x6E, 0x02, 0x00, 0xAA, 0xBB});  // custom
  add_text(body, "Big");     body.insert(body.end(), {0x24, 0x00, 0x01});  // 256 bytes
  add_text(body, "SArr");    body.insert(body.end(), {0xD8, 0x01});  // array of structures
  add_text(body, "After");   body.push_back(0x08);
  const std::vector<uint8_t> blob = schema(body);

  event_template t;
  ASSERT_TRUE(parse_tracelogging_schema(blob.data(), uint32_t(blob.size()), t));
  EXPECT_EQ(t.words, (std::vector<uint16_t>{0x8001, 1, 8, 8, 18, 4, 6, 0xA188, 6, 6, 6, 6, 0xA184,
                                            6, 0xA102, 6, 0xA101, 6, 0xA184, 0xB284, 256, 14}));
  EXPECT_EQ(t.names, (std::vector<std::string>{
                         "Ev", "Name", "Count", "Hex", "Time", "Tagged", "Arr.Count", "Arr",
                         "Fix[0]", "Fix[1]", "Fix[2]", "Bin.Size", "Bin", "Str.Size", "Str",
                         "Wide.Count", "Wide", "Cust.Size", "Cust", "Big", "", "SArr"}));
  EXPECT_TRUE(t.has_wide_word);
  EXPECT_FALSE(t.percent_form);

  // Every cut of the schema parses without reading past it; without a
  // whole event name there is nothing.
  for (size_t n = 0; n <= blob.size(); ++n) {
    std::vector<uint8_t> cut(blob.begin(), blob.begin() + n);
    event_template c;
    bool ok = parse_tracelogging_schema(cut.data(), uint32_t(cut.size()), c);
    EXPECT_EQ(ok, n >= 6) << n;
    EXPECT_EQ(c.words.size(), c.names.size());
  }
}

TEST(TraceLoggingSchema, SimpleSchemaAndWalk) {
  std::vector<uint8_t> body = {0x00};
  add_text(body, "Ev");
  add_text(body, "a");
  body.push_back(0x08);
  std::vector<uint8_t> blob = schema(body);
  event_template t;
  ASSERT_TRUE(parse_tracelogging_schema(blob.data(), uint32_t(blob.size()), t));
  EXPECT_FALSE(t.has_wide_word);
  EXPECT_EQ(t.layout_text, "Ev32769a8");

  // A name with no type byte behind it is a label.
  blob.pop_back();
  qv::wr_u16(blob.data(), uint16_t(blob.size()));
  ASSERT_TRUE(parse_tracelogging_schema(blob.data(), uint32_t(blob.size()), t));
  EXPECT_EQ(t.words, (std::vector<uint16_t>{0x8001, 0x8001}));

  // The schema's own size bounds it: bytes behind it aren't fields.
  std::vector<uint8_t> padded = schema(body);
  padded.insert(padded.end(), {'X', 0, 0x08});
  ASSERT_TRUE(parse_tracelogging_schema(padded.data(), uint32_t(padded.size()), t));
  EXPECT_EQ(t.names, (std::vector<std::string>{"Ev", "a"}));

  std::vector<uint8_t> proc = {0x00};
  add_text(proc, "Proc");
  add_text(proc, "Pid");   proc.push_back(0x08);
  add_text(proc, "Image"); proc.push_back(0x01);
  add_text(proc, "Tags");  proc.push_back(0x48);
  add_text(proc, "Note");  proc.push_back(0x17);
  const std::vector<uint8_t> proc_blob = schema(proc);
  ASSERT_TRUE(parse_tracelogging_schema(proc_blob.data(), uint32_t(proc_blob.size()), t));
  const std::vector<uint8_t> payload = {0x34, 0x12, 0, 0,  'a', 0, '.', 0, 'e', 0, 0, 0,
                                        2, 0,  1, 0, 0, 0,  2, 0, 0, 0,
                                        3, 0,  'x', 'y', 'z'};
  int32_t consumed = 0;
  EXPECT_EQ(walk(t, payload, &consumed),
            "\"01-Proc\":\"{guess}\";\"02-Pid\":\"0x00001234\";\"03-Image\":\"a.e\";"
            "\"04-Tags.Count\":\"0x0002\";\"05-Tags[0]\":\"0x00000001\";\"06-Tags[1]\":\"0x00000002\";"
            "\"07-Note.Size\":\"0x0003\";\"08-Note\":\"xyz\"");
  EXPECT_EQ(consumed, 27);

  // Refused: no data, no event name, an unterminated name.
  EXPECT_FALSE(parse_tracelogging_schema(nullptr, 10, t));
  const std::vector<uint8_t> no_name = {5, 0, 0x80, 0x80, 0x80};
  EXPECT_FALSE(parse_tracelogging_schema(no_name.data(), 5, t));
  const std::vector<uint8_t> open_name = {6, 0, 0, 'a', 'b', 'c'};
  EXPECT_FALSE(parse_tracelogging_schema(open_name.data(), 6, t));
  EXPECT_TRUE(t.words.empty());
}

// Real traces: the schema item of a self-describing event, and its payload.
struct sample_event {
  std::vector<uint8_t> file;
  size_t schema_at = 0, schema_size = 0;
  size_t payload_at = 0, payload_size = 0;
};

// Reads the EVENT_HEADER record at `record` and walks its extended items:
// u16 total size, u16 type, u16 more-items flag, u16 data size, data.
bool load_sample(const char* name, size_t record, sample_event& ev) {
  std::ifstream in(std::string(QUON_SAMPLES_DIR) + "/" + name, std::ios::binary);
  if (!in) return false;
  ev.file.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  const uint8_t* d = ev.file.data();
  const size_t size = ev.file.size();
  const size_t record_size = qv::rd_u16(d, size, record);
  size_t at = record + 80;
  for (;;) {
    const uint16_t total = qv::rd_u16(d, size, at);
    if (total == 0) return false;
    if (qv::rd_u16(d, size, at + 2) == 11) {
      ev.schema_at = at + 8;
      ev.schema_size = qv::rd_u16(d, size, at + 6);
    }
    const bool more = qv::rd_u16(d, size, at + 4) != 0;
    at += total;
    if (!more) break;
  }
  ev.payload_at = at;
  ev.payload_size = record + record_size - at;
  return ev.schema_size != 0 && record + record_size <= size;
}

bool starts_with(const std::string& text, const std::string& prefix) {
  return text.starts_with(prefix);
}

std::string walk_sample(const sample_event& ev, const event_template& t, int32_t* consumed) {
  const uint8_t* payload = ev.file.data() + ev.payload_at;
  decoded_fields fields;
  *consumed = walk_template(t, fields, payload, uint32_t(ev.payload_size),
                            ev.file.data() + ev.file.size(), kBase, true);
  std::string out;
  render_fields(out, fields);
  return out;
}

TEST(TraceLoggingSchema, RealTraces) {
  sample_event sonde;
  if (!load_sample("sonde-relogged.etl", 0x40048, sonde)) GTEST_SKIP() << "samples absent";

  // Chained in-types: the byte behind is an out-type, not more bits of the
  // type. 0x92 0x26 is a SYSTEMTIME shown as a UTC date, 0x97 0x23 counted
  // ANSI text shown as UTF-8.
  event_template t;
  ASSERT_TRUE(parse_tracelogging_schema(sonde.file.data() + sonde.schema_at,
                                        uint32_t(sonde.schema_size), t));
  EXPECT_EQ(t.words, (std::vector<uint16_t>{0x8001, 18, 6, 0xA102, 6, 0xA102}));
  EXPECT_EQ(t.names, (std::vector<std::string>{"event crates\\sonde-gateway\\src\\modem.rs:583",
                                               "time", "message.Size", "message", "error.Size",
                                               "error"}));
  int32_t consumed = 0;
  const std::string sonde_text = walk_sample(sonde, t, &consumed);
  EXPECT_EQ(consumed, int32_t(sonde.payload_size));
  EXPECT_PRED2(starts_with, sonde_text,
            "\"01-event crates\\sonde-gateway\\src\\modem.rs:583\":\"{guess}\";"
            "\"02-time\":\"0x0150000d00390003001b0000000307ea [2026-03-27 03:57:13.336]\";"
            "\"03-message.Size\":\"0x0018\";\"04-message\":\"modem health poll failed\"");

  sample_event lx;
  ASSERT_TRUE(load_sample("lxcore_kernel.etl", 0x2048, lx));
  ASSERT_TRUE(parse_tracelogging_schema(lx.file.data() + lx.schema_at, uint32_t(lx.schema_size), t));
  EXPECT_EQ(t.words, (std::vector<uint16_t>{0x8001, 4, 15, 7, 7, 7, 6, 0xA102, 2, 8, 2}));
  EXPECT_EQ(walk_sample(lx, t, &consumed),
            "\"01-BreakPoint\":\"{guess}\";\"02-ErrorLevel\":\"0x02\";"
            "\"03-instanceId\":\"{00000000-0000-0000-0000-000000000000}\";"
            "\"04-LxPid\":\"0xffffffff\";\"05-LxTid\":\"0xffffffff\";\"06-LxNs\":\"0x00000000\";"
            "\"07-ExecutablePath.Size\":\"0x0000\";\"08-ExecutablePath\":\"-\";"
            "\"09-Function\":\"LxpInstanceStart\";\"10-Line\":\"0x00000a63\";"
            "\"11-Message\":\"[0xc0000034] LxpInstanceInitialize[LF]\"");
  EXPECT_EQ(consumed, int32_t(lx.payload_size));

  // 0xC6 0x02: 16-bit values counted in the data, shown as characters.
  sample_event amsi;
  ASSERT_TRUE(load_sample("AMSITrace.etl", 0x10048, amsi));
  ASSERT_TRUE(parse_tracelogging_schema(amsi.file.data() + amsi.schema_at,
                                        uint32_t(amsi.schema_size), t));
  EXPECT_EQ(t.words, (std::vector<uint16_t>{0x8001, 1, 1, 6, 0xA101}));
  EXPECT_EQ(t.names.back(), "Raw Script");
  const std::string amsi_text = walk_sample(amsi, t, &consumed);
  EXPECT_EQ(consumed, int32_t(amsi.payload_size));
  EXPECT_PRED2(starts_with, amsi_text,
            "\"01-AmsiScript\":\"{guess}\";\"02-Engine\":\"PowerShell_C:/Windows/System32/"
            "WindowsPowerShell/v1.0/powershell.exe_10.0.18362.1\";\"03-Script\":\"if ");
  EXPECT_NE(amsi_text.find("\"04-Raw Script.Count\":\"0x015e\";\"05-Raw Script\":\"if "),
            std::string::npos);
}

}  // namespace
