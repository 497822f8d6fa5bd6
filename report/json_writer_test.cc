#include "report/json_writer.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "fuzz/json_check.h"
#include "tests/trace_writer.h"
#include "trace/log_header.h"
#include "trace/trace_engine.h"

using json = nlohmann::ordered_json;

namespace {

constexpr uint64_t kT0 = 134170743671234567ull;  // 2026-03-04 05:06:07.1234567

std::string text_of(const std::string& in) {
  std::string out;
  append_json_text(out, in);
  return out;
}

std::string bytes(std::initializer_list<int> b) {
  std::string s;
  for (int c : b) s += static_cast<char>(c);
  return s;
}

// A record of an EVENT_HEADER event, dated kT0, with no fields.
etl_record event_record() {
  etl_record r;
  r.kind = kind_c012;
  r.header_type = 0xC012;
  const tw::guid g = tw::guid_from_text("5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b");
  std::copy(g.begin(), g.end(), r.provider_id.begin());
  r.has_provider = true;
  r.provider_name = "Acme-Trace-Provider";
  r.event_id = 42;
  r.version = 1;
  r.channel = 16;
  r.level = 4;
  r.opcode = 1;
  r.task = 7;
  r.keyword = 0x8000000000000010ull;
  r.process_id = 2620;
  r.thread_id = 6964;
  r.processor = 3;
  r.raw_time = 5;
  r.absolute_time = kT0;
  r.size = 120;
  r.file_offset = 4168;
  r.logger_id = 1;
  return r;
}

decoded_field& add_field(etl_record& r, uint64_t key, const std::string& name, uint8_t type,
                         uint32_t size) {
  decoded_field* f = r.fields.add(key);
  EXPECT_NE(f, nullptr);
  f->name = name;
  f->type = type;
  f->size = size;
  return *f;
}

std::string line_of(const etl_record& r, const std::string& trace_keys = "") {
  json_scratch s;
  std::string out;
  append_json_event(out, r, trace_keys, s);
  return out;
}

void parse_only(const std::string& text) { json::parse(text).size(); }

json parsed(const std::string& line) {
  EXPECT_FALSE(line.empty());
  EXPECT_EQ(line.back(), '\n');
  EXPECT_EQ(line.find('\n'), line.size() - 1);
  return json::parse(line);
}

}  // namespace

// ---- texts -----------------------------------------------------------------

TEST(JsonText, EscapesWhatJsonForbidsAndKeepsTheRest) {
  struct golden {
    std::string in;
    std::string out;
  };
  const golden table[] = {
      {"abc", "abc"},
      {"a\"b\\c/d", "a\\\"b\\\\c/d"},
      {"\x01\x1f\n\r\t\b\f", "\\u0001\\u001f\\n\\r\\t\\b\\f"},
      {std::string("a\0b", 3), "a\\u0000b"},
      {"\x7f", "\x7f"},                                // DEL is allowed as it stands
      {"\xC3\xA9\xE2\x82\xAC", "\xC3\xA9\xE2\x82\xAC"},  // e-acute, euro sign
      {"\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80"},          // U+1F600, four bytes
      {"\xE2\x80\xA8|\xE2\x80\xA9", "\\u2028|\\u2029"},   // line ends of JavaScript
  };
  for (const golden& g : table) {
    SCOPED_TRACE(g.in);
    EXPECT_EQ(text_of(g.in), g.out);
  }
}

TEST(JsonText, BytesThatAreNotUtf8BecomeTheReplacementCharacter) {
  const std::string fffd = "\xEF\xBF\xBD";
  struct golden {
    std::string in;
    std::string out;
  };
  const golden table[] = {
      {"caf\xE9!", "caf" + fffd + "!"},                      // a Latin-1 byte
      {bytes({0xE2, 0x82}) + "x", fffd + "x"},               // a cut sequence: one mark
      {bytes({0xC0, 0xAF}), fffd + fffd},                    // overlong: two bad leads
      {bytes({0xF4, 0x90, 0x80, 0x80}), fffd + fffd + fffd + fffd},  // past U+10FFFF
      {bytes({0xE0, 0x80, 0x80}), fffd + fffd + fffd},       // overlong three-byte form
      {bytes({0xFF, 'a', 0x80}), fffd + "a" + fffd},
      {bytes({0xF0, 0x9F, 0x98}), fffd},                     // cut at the end of the text
  };
  for (const golden& g : table) {
    SCOPED_TRACE(g.in);
    EXPECT_EQ(text_of(g.in), g.out);
  }
}

TEST(JsonText, SurrogatesFromUtf16AreJoinedWhenPairedAndReplacedAlone) {
  // The UTF-16 reader keeps every unit of a text with a broken pair as a
  // three-byte form of its own (ED A0..BF xx).
  const std::string high = bytes({0xED, 0xA0, 0xBD});  // D83D
  const std::string low = bytes({0xED, 0xB8, 0x80});   // DE00
  const std::string fffd = "\xEF\xBF\xBD";
  EXPECT_EQ(text_of(high + low), "\xF0\x9F\x98\x80");
  EXPECT_EQ(text_of("a" + high + "b"), "a" + fffd + "b");
  EXPECT_EQ(text_of(low + high), fffd + fffd);
  EXPECT_EQ(text_of(high), fffd);
  EXPECT_EQ(text_of(high + high + low), fffd + "\xF0\x9F\x98\x80");
  // Cut short: ED A0 begins no well-formed sequence, so each byte is one mark.
  EXPECT_EQ(text_of(bytes({0xED, 0xA0})), fffd + fffd);
}

TEST(JsonText, AnyBytesGiveAStringThatStrictParsersAccept) {
  uint64_t state = 0x243F6A8885A308D3ull;
  auto next = [&state] {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    return state;
  };
  // Bytes drawn so that lead bytes, continuation bytes, surrogate forms and
  // controls all come up often.
  const uint8_t pool[] = {0x00, 0x01, 0x1F, '"', '\\', 'a', 0x7F, 0x80, 0xBF, 0xC0, 0xC2, 0xDF,
                          0xE0, 0xE2, 0xED, 0xA0, 0xB0, 0xEF, 0xF0, 0xF4, 0xF5, 0xFF, 0x9F, 0x8F};
  for (int round = 0; round < 20000; ++round) {
    std::string in;
    const size_t n = next() % 12;
    for (size_t i = 0; i < n; ++i) in += static_cast<char>(pool[next() % sizeof pool]);
    std::string quoted = "\"";
    quoted += text_of(in);
    quoted += '"';
    ASSERT_TRUE(json_check::reader(quoted.data(), quoted.size()).whole_value()) << quoted;
    ASSERT_NO_THROW(parse_only(quoted)) << quoted;
  }
}

// ---- numbers and times -----------------------------------------------------

TEST(JsonNumbers, IntegersBeyondTwoToThe53AreDecimalStrings) {
  auto u = [](uint64_t v) {
    std::string s;
    append_json_uint(s, v);
    return s;
  };
  auto i = [](int64_t v) {
    std::string s;
    append_json_int(s, v);
    return s;
  };
  EXPECT_EQ(u(0), "0");
  EXPECT_EQ(u(9007199254740992ull), "9007199254740992");
  EXPECT_EQ(u(9007199254740993ull), "\"9007199254740993\"");
  EXPECT_EQ(u(UINT64_MAX), "\"18446744073709551615\"");
  EXPECT_EQ(i(-1), "-1");
  EXPECT_EQ(i(-9007199254740992ll), "-9007199254740992");
  EXPECT_EQ(i(-9007199254740993ll), "\"-9007199254740993\"");
  EXPECT_EQ(i(INT64_MIN), "\"-9223372036854775808\"");
}

TEST(JsonTimes, IsoTextWithNineDigitsOnlyForValidDates) {
  std::string s;
  append_iso_time(s, kT0);
  EXPECT_EQ(s, "2026-03-04T05:06:07.123456700Z");
  s.clear();
  append_iso_time(s, 0);
  append_iso_time(s, 1);  // 1601: not a date this reader prints
  EXPECT_EQ(s, "");
}

// ---- key names -------------------------------------------------------------

TEST(JsonKeys, RepeatedNamesGetTheFirstFreeSuffix) {
  json_key_set keys;
  std::vector<std::string> got;
  for (const char* name : {"a", "a", "a_2", "a", "b", "a_3"}) {
    std::string k = name;
    keys.make_unique(k);
    got.push_back(k);
  }
  EXPECT_EQ(got, (std::vector<std::string>{"a", "a_2", "a_2_2", "a_3", "b", "a_3_2"}));
  // The next event starts afresh.
  keys.clear();
  std::string k = "a";
  keys.make_unique(k);
  EXPECT_EQ(k, "a");
  // Many repeats stay unique through the growth of the table.
  keys.clear();
  std::vector<std::string> many;
  for (int n = 0; n < 3000; ++n) {
    std::string key = n % 3 ? "guess_uint32" : "x";
    if (n % 3 == 0) key += std::to_string(n % 7);
    keys.make_unique(key);
    many.push_back(key);
  }
  std::sort(many.begin(), many.end());
  EXPECT_EQ(std::adjacent_find(many.begin(), many.end()), many.end());
}

// ---- whole lines -----------------------------------------------------------

TEST(JsonLine, OneEventAsAWholeLine) {
  etl_record r = event_record();
  add_field(r, 4248, "Pid", 8, 4).number = 2620;
  add_field(r, 4252, "Image", 2, 6).text = "a.exe";
  add_field(r, 4258, "Path", 1, 14).text = "C:\\x\"y";
  file_opening file;
  const std::string name = "/tmp/a.etl";
  const uint8_t zeros[72] = {};
  file.kind = trace_file_kind::headerless;
  file.file_name = &name;
  file.first_block = zeros;
  std::string keys;
  compose_trace_keys(keys, file);
  EXPECT_EQ(line_of(r, keys),
            R"j({"message":"Acme-Trace-Provider event 42: Pid=2620, Image=a.exe, Path=C:\\x\"y",)j"
            R"j("datetime":"2026-03-04T05:06:07.123456700Z","timestamp":1772600767123456,)j"
            R"j("timestamp_desc":"Event Recorded","provider_guid":"5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b",)j"
            R"j("provider_name":"Acme-Trace-Provider","event_id":42,"version":1,"channel":16,"level":4,)j"
            R"j("opcode":1,"task":7,"keywords":"0x8000000000000010","process_id":2620,"thread_id":6964,)j"
            R"j("processor":3,"activity_id":"00000000-0000-0000-0000-000000000000",)j"
            R"j("processor_time":"0x0000000000000000","header_kind":"c012(10)","record_size":120,)j"
            R"j("file_offset":4168,"logger_id":1,"damaged":false,"guessed":false,)j"
            R"j("trace_file":"/tmp/a.etl","trace_kind":"headerless","trace_source_path":null,)j"
            R"j("trace_session":null,"trace_build":null,"trace_pointer_size":null,"trace_clock":null,)j"
            R"j("trace_start":null,"trace_end":null,"trace_log_file_mode":null,"trace_events_lost":null,)j"
            R"j("fields":{"Pid":2620,"Image":"a.exe","Path":"C:\\x\"y"}})j"
            "\n");
}

TEST(JsonLine, FieldValuesByTheirType) {
  etl_record r = event_record();
  uint64_t key = 5000;
  auto add = [&](const std::string& name, uint8_t type, uint32_t size) -> decoded_field& {
    key += 16;
    return add_field(r, key, name, type, size);
  };
  decoded_field& missing = add("missing", 1, 0);
  missing.text = "-";
  missing.missing = true;
  add("guid", 15, 16).bytes = {0x11, 0x2a, 0x0b, 0x5f, 0x3e, 0x7c, 0x10, 0x4d,
                               0x9a, 0x55, 0x0c, 0x1d, 0x2e, 0x3f, 0x4a, 0x5b};
  add("blob", 14, 4).bytes = {1, 2, 3, 4};
  add("yes", 13, 4).number = 2;
  add("no", 13, 4).number = 0;
  add("f", 11, 4).number = 0x3FC00000;      // 1.5
  add("nan", 11, 4).number = 0x7FC00000;
  add("minf", 11, 4).number = 0xFF800000;
  add("d", 12, 8).number = 0x3FB999999999999Aull;  // 0.1
  add("i8", 3, 1).number = 0xFF;
  add("i32", 7, 4).number = 0x80000000;
  add("i64", 9, 8).number = 0xFFFFFFFFFFFFFFFFull;
  add("i64min", 9, 8).number = 0x8000000000000000ull;
  add("u32", 8, 4).number = 0xFFFFFFFF;
  add("hex64", 21, 8).number = 0x8000000000000000ull;
  decoded_field& skip = add("", 0x84, 0);
  skip.subtype = 0xC3;
  add("sid", 19, 12).text = "S-1-5-18";
  add("guess_systime", 18, 16).number = 0x0004000300030000ull | 2026;  // no bytes: a number
  const json j = parsed(line_of(r));
  const json& f = j.at("fields");
  EXPECT_TRUE(f.at("missing").is_null());
  EXPECT_EQ(f.at("guid"), "5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b");
  EXPECT_EQ(f.at("blob"), "01020304");
  EXPECT_EQ(f.at("yes"), true);
  EXPECT_EQ(f.at("no"), false);
  EXPECT_EQ(f.at("f"), 1.5);
  EXPECT_EQ(f.at("nan"), "NaN");
  EXPECT_EQ(f.at("minf"), "-Infinity");
  EXPECT_EQ(f.at("d").get<double>(), 0.1);
  EXPECT_EQ(f.at("i8"), -1);
  EXPECT_EQ(f.at("i32"), -2147483648ll);
  EXPECT_EQ(f.at("i64"), -1);
  EXPECT_EQ(f.at("i64min"), "-9223372036854775808");
  EXPECT_EQ(f.at("u32"), 4294967295ll);
  EXPECT_EQ(f.at("hex64"), "9223372036854775808");
  EXPECT_EQ(f.at("field_16"), "");
  EXPECT_EQ(f.at("sid"), "S-1-5-18");
  EXPECT_EQ(f.at("guess_systime"), 1125912791943146ll);
  EXPECT_EQ(f.size(), 18u);
}

TEST(JsonLine, TimesGiveIsoTextAndTheRawValueBeside) {
  etl_record r = event_record();
  add_field(r, 5000, "Created", 17, 8).number = kT0;
  add_field(r, 5008, "Zero", 17, 8).number = 0;
  add_field(r, 5016, "Unix", 168, 4).number = 1772600767;
  decoded_field& st = add_field(r, 5020, "When", 18, 16);
  st.bytes = {0xea, 0x07, 3, 0, 3, 0, 4, 0, 5, 0, 6, 0, 7, 0, 0x7b, 0};
  decoded_field& bad = add_field(r, 5036, "Bad", 18, 16);
  bad.bytes.assign(16, 0);
  // A real field that happens to be named like a raw sibling moves aside.
  add_field(r, 5052, "Created_raw", 8, 4).number = 7;
  const json j = parsed(line_of(r));
  const json& f = j.at("fields");
  const std::vector<std::string> names = {"Created", "Created_raw", "Zero", "Zero_raw", "Unix", "Unix_raw",
                                          "When", "When_raw", "Bad", "Bad_raw", "Created_raw_2"};
  std::vector<std::string> got;
  for (auto it = f.begin(); it != f.end(); ++it) got.push_back(it.key());
  EXPECT_EQ(got, names);
  EXPECT_EQ(f.at("Created"), "2026-03-04T05:06:07.123456700Z");
  EXPECT_EQ(f.at("Created_raw"), "134170743671234567");
  EXPECT_TRUE(f.at("Zero").is_null());
  EXPECT_EQ(f.at("Zero_raw"), 0);
  EXPECT_EQ(f.at("Unix"), "2026-03-04T05:06:07.000000000Z");
  EXPECT_EQ(f.at("Unix_raw"), 1772600767);
  EXPECT_EQ(f.at("When"), "2026-03-04T05:06:07.123000000Z");
  EXPECT_EQ(f.at("When_raw"), "ea070300030004000500060007007b00");
  EXPECT_TRUE(f.at("Bad").is_null());
  EXPECT_EQ(f.at("Bad_raw"), "00000000000000000000000000000000");
  EXPECT_EQ(f.at("Created_raw_2"), 7);
}

TEST(JsonLine, RepeatedAndUnnamedFieldsKeepEveryValue) {
  etl_record r = event_record();
  add_field(r, 5000, "guess_uint32", 8, 4).number = 1;
  add_field(r, 5004, "guess_uint32", 8, 4).number = 2;
  add_field(r, 5008, "", 6, 2).number = 3;
  add_field(r, 5010, "guess_uint32", 8, 4).number = 4;
  const std::string line = line_of(r);
  EXPECT_NE(line.find(R"j("fields":{"guess_uint32":1,"guess_uint32_2":2,"field_03":3,"guess_uint32_3":4}})j"),
            std::string::npos)
      << line;
}

TEST(JsonLine, HostileNamesAndTextsStayValid) {
  etl_record r = event_record();
  r.provider_name = "Bad\"Name\\\x01\xff";
  add_field(r, 5000, "a\"b", 1, 2).text = "x";
  add_field(r, 5002, "a\"b", 1, 2).text = "y";
  add_field(r, 5004, bytes({0xFE}), 1, 2).text = "z";
  add_field(r, 5006, bytes({0xFD}), 1, 2).text = bytes({0xED, 0xA0, 0x80, '\n'});
  const std::string line = line_of(r);
  ASSERT_TRUE(json_check::is_json_lines(line)) << line;
  const json j = parsed(line);
  EXPECT_EQ(j.at("provider_name"), "Bad\"Name\\\x01\xEF\xBF\xBD");
  const json& f = j.at("fields");
  EXPECT_EQ(f.at("a\"b"), "x");
  EXPECT_EQ(f.at("a\"b_2"), "y");
  // Two names that differ only in bytes that aren't UTF-8 are one name once
  // replaced: the second moves aside.
  EXPECT_EQ(f.at("\xEF\xBF\xBD"), "z");
  EXPECT_EQ(f.at("\xEF\xBF\xBD_2"), "\xEF\xBF\xBD\n");
}

TEST(JsonLine, MessageNamesProviderIdAndTheFirstFields) {
  etl_record r = event_record();
  add_field(r, 4998, "Process_Start", 1, 0).text = "{guess}";  // a label: the event's name
  add_field(r, 5000, "Long", 1, 2).text = std::string(60, 'x') + "\xC3\xA9\xC3\xA9\xC3\xA9";
  add_field(r, 5002, "Quote", 1, 2).text = std::string(62, 'q') + "\"\"";
  add_field(r, 5004, "Fourth", 8, 4).number = 4;
  json j = parsed(line_of(r));
  // The 64-byte cut falls inside the third e-acute and inside the second
  // escape: both are left out whole.
  EXPECT_EQ(j.at("message"), "Acme-Trace-Provider event 42: Process_Start, Long=" + std::string(60, 'x') +
                              "\xC3\xA9\xC3\xA9..., Quote=" + std::string(62, 'q') + "\"...");

  etl_record kernel = event_record();
  kernel.kind = kind_c002;
  kernel.flags_or_version = 4;  // the classic header's Version
  kernel.hook_id = 0x0301;
  kernel.event_id = 0x0301;
  kernel.provider_name.clear();
  add_field(kernel, 5000, "", 8, 4).number = 9;
  j = parsed(line_of(kernel));
  EXPECT_EQ(j.at("message"), "5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b event 769: 9");
  EXPECT_EQ(j.at("event_id"), 769);
  EXPECT_TRUE(j.at("provider_name").is_null());
  EXPECT_EQ(j.at("header_kind"), "c002(10)");
  EXPECT_EQ(j.at("version"), 4);
}

TEST(JsonLine, DamagedRecordsSaySo) {
  etl_record r;
  r.kind = kind_placeholder;
  r.valid = false;
  r.size = 24;
  r.file_offset = 4240;
  const json j = parsed(line_of(r));
  EXPECT_EQ(j.at("message"), "corrupted record");
  EXPECT_EQ(j.at("damaged"), true);
  EXPECT_EQ(j.at("header_kind"), "0000(00)");
  EXPECT_EQ(j.at("record_size"), 24);
  EXPECT_EQ(j.at("file_offset"), 4240);
  EXPECT_TRUE(j.at("fields").empty());
  // No time: the four keys stand, with null for the date, and the raw stamp.
  EXPECT_TRUE(j.at("datetime").is_null());
  EXPECT_TRUE(j.at("timestamp").is_null());
  EXPECT_EQ(j.at("timestamp_desc"), "Event Recorded");
  EXPECT_EQ(j.at("time_raw"), 0);
}

TEST(JsonLine, TimeKeysOfEventsBeforeEpochAndWithoutADate) {
  etl_record r = event_record();
  r.absolute_time = 110264112001234567ull;  // 1950-06-01 12:00:00.1234567
  json j = parsed(line_of(r));
  EXPECT_EQ(j.at("datetime"), "1950-06-01T12:00:00.123456700Z");
  EXPECT_EQ(j.at("timestamp"), -618062399876544ll);  // rounded down
  EXPECT_FALSE(j.contains("time_raw"));

  r.absolute_time = 0;  // a raw clock with no wall-clock anchor
  r.raw_time = 123456789;
  j = parsed(line_of(r));
  EXPECT_TRUE(j.at("datetime").is_null());
  EXPECT_TRUE(j.at("timestamp").is_null());
  EXPECT_EQ(j.at("time_raw"), 123456789);
  r.absolute_time = 0xFFFF000000000000ull;  // converted, but no date
  r.raw_time = 0xFFFF000000000000ull;
  j = parsed(line_of(r));
  EXPECT_TRUE(j.at("datetime").is_null());
  EXPECT_EQ(j.at("time_raw"), "18446462598732840960");
}

TEST(JsonLine, RelatedActivityIdFromTheFirstExtendedItem) {
  etl_record r = event_record();
  r.flags_or_version = 1;  // extended items behind the header
  decoded_field& g = add_field(r, r.file_offset + 80, "guid", 15, 16);
  g.bytes = {0x11, 0x2a, 0x0b, 0x5f, 0x3e, 0x7c, 0x10, 0x4d, 0x9a, 0x55, 0x0c, 0x1d, 0x2e, 0x3f, 0x4a, 0x5b};
  json j = parsed(line_of(r));
  EXPECT_EQ(j.at("related_activity_id"), "5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b");
  // It stays among the fields too, as in the row's data column.
  EXPECT_EQ(j.at("fields")["guid"], "5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b");
  // A payload GUID, or one without the extended-items flag, isn't one.
  r.flags_or_version = 0;
  EXPECT_FALSE(parsed(line_of(r)).contains("related_activity_id"));
  etl_record p = event_record();
  p.flags_or_version = 1;
  add_field(p, p.file_offset + 96, "guid", 15, 16).bytes.assign(16, 1);
  EXPECT_FALSE(parsed(line_of(p)).contains("related_activity_id"));
}

TEST(JsonLine, TraceKeysOfARegularFile) {
  log_header h;
  h.LoggerName = "Sample Session";
  h.LogFileName = "c:\\logs\\a.etl";
  h.ProviderVersion = 19041;
  h.PointerSize = 8;
  h.StartTime = kT0;
  h.EndTime = 0;
  h.LogFileMode = 0x11001;
  h.EventsLost = 3;
  h.clock.is_qpc = h.clock.raw_clock = true;
  file_opening file;
  const std::string name = "/evidence/a b.etl";
  file.file_name = &name;
  file.header = &h;
  std::string keys;
  compose_trace_keys(keys, file);
  EXPECT_EQ(keys,
            R"j(,"trace_file":"/evidence/a b.etl","trace_kind":"regular","trace_source_path":"c:\\logs\\a.etl",)j"
            R"j("trace_session":"Sample Session","trace_build":19041,"trace_pointer_size":8,"trace_clock":"qpc",)j"
            R"j("trace_start":"2026-03-04T05:06:07.123456700Z","trace_end":null,"trace_log_file_mode":69633,)j"
            R"j("trace_events_lost":3)j");
}

TEST(JsonSink, OneLinePerRecordInKeyOrderAndNothingElse) {
  record_list records;
  for (uint64_t key : {300u, 100u, 200u}) {
    etl_record* r = records.add(key);
    ASSERT_NE(r, nullptr);
    *r = event_record();
    r->file_offset = key;
    r->event_id = static_cast<uint16_t>(key);
  }
  std::ostringstream out;
  json_sink sink(out);
  file_opening file;
  const std::string name = "x.etl";
  file.file_name = &name;
  file.kind = trace_file_kind::rlfs;
  uint8_t first[72] = {'R', 'l', 'F', 's'};
  for (int i = 0; i < 8; ++i) first[24 + i] = static_cast<uint8_t>(kT0 >> (8 * i));
  file.first_block = first;
  sink.file_opened(file);
  sink.take_records(records);
  sink.file_ended();
  const std::string text = out.str();
  ASSERT_TRUE(json_check::is_json_lines(text)) << text;
  std::istringstream lines(text);
  std::string line;
  std::vector<int> ids;
  while (std::getline(lines, line)) {
    const json j = json::parse(line);
    ids.push_back(j.at("event_id").get<int>());
    EXPECT_EQ(j.at("trace_kind"), "RlFs");
    EXPECT_EQ(j.at("trace_start"), "2026-03-04T05:06:07.123456700Z");
  }
  EXPECT_EQ(ids, (std::vector<int>{100, 200, 300}));
}

// ---- the strict reader of the fuzz targets --------------------------------

TEST(JsonCheck, AgreesWithAStrictParserOnTexts) {
  const char* good[] = {"{}", R"j({"a":[1,-2.5e+3,true,false,null,"x\u00e9\n"],"b":{"c":0}})j", "{\"\xC3\xA9\":1}",
                        R"j({"a":-0.0})j"};
  const char* bad[] = {"{", R"j({"a":1,})", R"({"a":01})", R"({"a":"\x"})j", "{\"a\":\"\x01\"}", "{\"a\":\"\xC0\xAF\"}",
                       R"j({"a":1,"a":2})", R"({"a":.5})", R"({"a":1} x)j", "[1]", "{\"a\":\"\xED\xA0\x80\"}",
                       R"j({"a":tru})", R"({"a":"\ud83"})j"};
  for (const char* t : good) {
    SCOPED_TRACE(t);
    EXPECT_TRUE(json_check::is_object(t));
    EXPECT_NO_THROW(parse_only(t));
  }
  for (const char* t : bad) {
    SCOPED_TRACE(t);
    EXPECT_FALSE(json_check::is_object(t));
  }
  // Valid, but nested deeper than the reader goes.
  const std::string deep = "{\"a\":" + std::string(200, '[') + std::string(200, ']') + "}";
  EXPECT_FALSE(json_check::is_object(deep));
  EXPECT_NO_THROW(parse_only(deep));
}
