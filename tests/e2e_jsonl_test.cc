// End-to-end tests of -jsonl: the built quon on synthetic and real traces,
// every line read by an independent strict JSON parser and held against the
// delimited output of the same trace, row by row and field by field.
//
// The projection from a JSON line to the row of the default output:
//   - one line per event row, in the same order (the log header's pseudo-row
//     and the per-file head have no line);
//   - the row's cells 0 to 14 are the line's datetime (or time_raw),
//     provider_guid, provider_name, event_id, process_id, thread_id, channel,
//     level, opcode, task, keywords, processor_time and processor;
//   - "data{corrupted record}" is "damaged": true;
//   - the entries "NN-name":"value" of the data column are the keys of
//     "fields" in the same order: the key is the name (with "_2", "_3"... for
//     a repeat) or "field_NN" for an entry without one, and a time's key is
//     followed by its "_raw" key. The value projects to the row's text by
//     the rules of `projects_to` below.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "report/json_writer.h"
#include "tests/e2e_util.h"
#include "tests/trace_writer.h"

using json = nlohmann::ordered_json;

namespace {

constexpr uint64_t kT0 = 134170743671234567ull;  // 2026-03-04 05:06:07.1234567
// A provider no layout of the embedded database knows: its events are
// decoded by their own schema alone.
constexpr char kSelfDescribing[] = "7d0a4b3c-1111-4222-8333-944455556666";

// ---- reading the two outputs -----------------------------------------------

std::vector<std::string> split(const std::string& text, char sep) {
  std::vector<std::string> out;
  size_t start = 0;
  for (;;) {
    const size_t at = text.find(sep, start);
    if (at == std::string::npos) {
      out.push_back(text.substr(start));
      return out;
    }
    out.push_back(text.substr(start, at - start));
    start = at + 1;
  }
}

// Every line of a -jsonl output, parsed; the text must end with a line end
// and hold nothing but lines of one object each.
std::vector<json> json_lines(const std::string& text) {
  std::vector<json> out;
  if (text.empty()) return out;
  EXPECT_EQ(text.back(), '\n');
  std::vector<std::string> lines = split(text, '\n');
  lines.pop_back();
  for (const std::string& line : lines) {
    json j;
    try {
      j = json::parse(line);
    } catch (const std::exception& e) {
      ADD_FAILURE() << "not JSON: " << e.what() << "\n" << line;
      continue;
    }
    EXPECT_TRUE(j.is_object()) << line;
    out.push_back(std::move(j));
  }
  return out;
}

bool is_guid_text(const std::string& s) {
  if (s.size() != 36) return false;
  for (size_t i = 0; i < 36; ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash ? s[i] != '-' : !std::isxdigit(static_cast<unsigned char>(s[i]))) return false;
  }
  return true;
}

// An event row of the default output run with "-csv_separator tab
// -no_whitespace": sixteen tab-separated cells, the last of which (the data
// column) may hold tabs and line ends of its own.
struct row {
  std::vector<std::string> cells;  // 0 to 14
  std::string data;
};

std::vector<row> event_rows(const std::string& text) {
  std::vector<row> rows;
  bool in_row = false;
  std::vector<std::string> lines = split(text, '\n');
  if (!lines.empty() && lines.back().empty()) lines.pop_back();  // behind the last line end
  for (const std::string& line : lines) {
    std::vector<std::string> cells = split(line, '\t');
    const bool starts = cells.size() >= 16 && (is_guid_text(cells[1]) || cells[1] == "<header info only>");
    if (!starts) {
      // A line end inside the data of the row before, or a head line.
      if (in_row) rows.back().data += "\n" + line;
      continue;
    }
    in_row = cells[1] != "<header info only>";
    if (!in_row) continue;
    row r;
    r.cells.assign(cells.begin(), cells.begin() + 15);
    for (size_t i = 15; i < cells.size(); ++i) r.data += (i > 15 ? "\t" : "") + cells[i];
    rows.push_back(std::move(r));
  }
  return rows;
}

struct entry {
  std::string counter;
  std::string name;
  std::string value;
};

// The entries of a data column "data{...}": "NN[-name]":"value" joined by
// ";", where a value has a backslash only ahead of a quote.
bool data_entries(const std::string& data, std::vector<entry>& out) {
  out.clear();
  if (data.empty()) return true;
  if (data.size() < 6 || data.compare(0, 5, "data{") != 0 || data.back() != '}') return false;
  const std::string body = data.substr(5, data.size() - 6);
  size_t at = 0;
  while (at < body.size()) {
    if (body[at] != '"') return false;
    const size_t name_end = body.find("\":\"", at + 1);
    if (name_end == std::string::npos) return false;
    entry e;
    const std::string label = body.substr(at + 1, name_end - at - 1);
    const size_t dash = label.find('-');
    e.counter = label.substr(0, dash);
    if (dash != std::string::npos) e.name = label.substr(dash + 1);
    size_t p = name_end + 3;
    for (;; ++p) {
      if (p >= body.size()) return false;
      if (body[p] == '\\' && p + 1 < body.size() && body[p + 1] == '"') {
        e.value += '"';
        ++p;
        continue;
      }
      if (body[p] == '"') break;
      e.value += body[p];
    }
    out.push_back(std::move(e));
    at = p + 1;
    if (at < body.size()) {
      if (body[at] != ';') return false;
      ++at;
    }
  }
  return true;
}

// ---- the projection --------------------------------------------------------

bool hex_value(const std::string& v, uint64_t& out, size_t& digits) {
  if (v.size() < 3 || v.compare(0, 2, "0x") != 0 || v.size() > 18) return false;
  out = 0;
  for (size_t i = 2; i < v.size(); ++i) {
    const char c = v[i];
    if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
    out = out * 16 + static_cast<uint64_t>(c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10);
  }
  digits = v.size() - 2;
  return true;
}

// A JSON integer, or an integer written as a decimal string.
bool integer_of(const json& j, uint64_t& out) {
  if (j.is_number_unsigned()) {
    out = j.get<uint64_t>();
    return true;
  }
  if (j.is_number_integer()) {
    out = static_cast<uint64_t>(j.get<int64_t>());
    return true;
  }
  if (!j.is_string()) return false;
  const std::string s = j.get<std::string>();
  if (s.empty() || s.size() > 20) return false;
  const bool negative = s[0] == '-';
  uint64_t v = 0;
  for (size_t i = negative ? 1 : 0; i < s.size(); ++i) {
    if (!std::isdigit(static_cast<unsigned char>(s[i]))) return false;
    v = v * 10 + static_cast<uint64_t>(s[i] - '0');
  }
  out = negative ? uint64_t{0} - v : v;
  return true;
}

// The row's text of a string: backslashes as "/", quotes kept (the parser of
// the data column has taken their escapes off already).
std::string row_text(std::string s) {
  for (char& c : s)
    if (c == '\\') c = '/';
  return s;
}

// "2026-03-04T05:06:07.123456700Z" as the bracketed time of a payload value:
// "2026-03-04 05:06:07.123".
std::string bracket_time(const std::string& iso) { return iso.substr(0, 10) + " " + iso.substr(11, 12); }

// True when the JSON value `j` (with its "_raw" value `raw` for a time, else
// null) is what the row shows as `v`.
bool projects_to(const json& j, const json& raw, const std::string& v) {
  uint64_t n = 0, r = 0;
  size_t digits = 0;
  if (!raw.is_null()) {  // a time
    const size_t open = v.find(" [");
    if (j.is_string() && open != std::string::npos) {
      if (v.substr(open + 2) != bracket_time(j.get<std::string>()) + "]") return false;
      // A SYSTEMTIME's digits are those of the payload's start; a number's
      // are the raw value.
      if (raw.is_string() && raw.get<std::string>().size() == 32) return true;
      return integer_of(raw, r) && hex_value(v.substr(0, open), n, digits) && n == r;
    }
    if (raw.is_string() && raw.get<std::string>().size() == 32) return v == raw.get<std::string>();
    // No date in the row (guessed times never have one): the raw number.
    return integer_of(raw, r) && hex_value(v, n, digits) && n == r;
  }
  if (j.is_null()) return v == "-";
  if (j.is_boolean()) return hex_value(v, n, digits) && (n != 0) == j.get<bool>();
  if (j.is_number_float()) {
    if (!hex_value(v, n, digits)) return false;
    const double d = j.get<double>();
    if (digits == 8) {
      const float f = static_cast<float>(d);
      uint32_t bits;
      std::memcpy(&bits, &f, 4);
      return bits == n;
    }
    uint64_t bits;
    std::memcpy(&bits, &d, 8);
    return bits == n;
  }
  if (j.is_number()) {
    if (!integer_of(j, r) || !hex_value(v, n, digits)) return false;
    const uint64_t mask = digits >= 16 ? ~uint64_t{0} : (uint64_t{1} << (4 * digits)) - 1;
    return (r & mask) == n && (j.is_number_unsigned() || j.get<int64_t>() >= 0 ? r == n : true);
  }
  const std::string s = j.get<std::string>();
  if (row_text(s) == v) return true;
  // A row text that isn't valid UTF-8 (an ANSI string of high bytes) reads
  // in JSON with each ill-formed sequence replaced.
  std::string quoted = "\"";
  append_json_text(quoted, v);
  quoted += '"';
  if (row_text(s) == json::parse(quoted).get<std::string>()) return true;
  if (is_guid_text(s) && v == "{" + s + "}") return true;
  if (s == "NaN" || s == "Infinity" || s == "-Infinity") {
    if (!hex_value(v, n, digits)) return false;
    const double d = digits == 8 ? [&] { float f; uint32_t b = uint32_t(n); std::memcpy(&f, &b, 4); return double(f); }()
                                 : [&] { double x; std::memcpy(&x, &n, 8); return x; }();
    return s == "NaN" ? std::isnan(d) : std::isinf(d) && (s[0] == '-') == (d < 0);
  }
  // A 64-bit number beyond 2^53, as a decimal string.
  return integer_of(j, r) && hex_value(v, n, digits) && r == n;
}

bool key_matches(const std::string& key, const entry& e) {
  const std::string base = e.name.empty() ? "field_" + e.counter : e.name;
  if (key == base) return true;
  if (key.size() <= base.size() + 1 || key.compare(0, base.size() + 1, base + "_") != 0) return false;
  return key.find_first_not_of("0123456789", base.size() + 1) == std::string::npos;
}

// The four keys of Timesketch with the types they must have: message and
// timestamp_desc strings; datetime an ISO 8601 text with nine fraction digits
// and timestamp an integer, or, for an event whose time isn't a valid date,
// both null and time_raw present.
void check_timesketch_keys(const json& j) {
  ASSERT_TRUE(j.contains("message") && j.at("message").is_string()) << j.dump();
  ASSERT_TRUE(j.contains("timestamp_desc") && j.at("timestamp_desc") == "Event Recorded");
  ASSERT_TRUE(j.contains("datetime") && j.contains("timestamp"));
  const json& dt = j.at("datetime");
  if (dt.is_string()) {
    const std::string s = dt.get<std::string>();
    EXPECT_EQ(s.size(), 30u) << s;
    EXPECT_EQ(s[10], 'T');
    EXPECT_EQ(s.back(), 'Z');
    EXPECT_TRUE(j.at("timestamp").is_number_integer());
    EXPECT_FALSE(j.contains("time_raw"));
  } else {
    EXPECT_TRUE(dt.is_null());
    EXPECT_TRUE(j.at("timestamp").is_null());
    EXPECT_TRUE(j.contains("time_raw"));
  }
}

// Holds every line against its row. `compare_fields` is off for traces whose
// texts the row prints raw (bytes that aren't UTF-8, control characters).
// Returns the number of field values compared.
size_t check_against_rows(const std::string& args, bool compare_fields = true) {
  size_t compared = 0;
  SCOPED_TRACE(args);
  const e2e::run_result rows_run = e2e::run_quon("-quiet -csv_separator tab -no_whitespace " + args);
  const e2e::run_result json_run = e2e::run_quon("-quiet -jsonl " + args);
  EXPECT_EQ(rows_run.status, json_run.status);
  EXPECT_EQ(json_run.err, rows_run.err);
  const std::vector<row> rows = event_rows(rows_run.out);
  const std::vector<json> lines = json_lines(json_run.out);
  EXPECT_EQ(lines.size(), rows.size());
  if (lines.size() != rows.size()) return 0;
  std::vector<entry> entries;
  for (size_t i = 0; i < rows.size(); ++i) {
    const row& r = rows[i];
    const json& j = lines[i];
    SCOPED_TRACE("event " + std::to_string(i) + ": " + j.dump().substr(0, 400));
    check_timesketch_keys(j);
    if (testing::Test::HasFatalFailure()) return compared;
    if (j.at("datetime").is_string()) {
      std::string t = j.at("datetime").get<std::string>();
      t[10] = ' ';
      t.pop_back();
      EXPECT_EQ(r.cells[0], t);
    } else if (r.cells[0].compare(0, 2, "0x") == 0) {
      uint64_t n = 0, raw = 0;
      size_t d = 0;
      EXPECT_TRUE(hex_value(r.cells[0], n, d) && integer_of(j.at("time_raw"), raw) && n == raw);
    }
    EXPECT_EQ(r.cells[1], j.at("provider_guid").get<std::string>());
    EXPECT_EQ(r.cells[2], j.at("provider_name").is_null() ? "" : j.at("provider_name").get<std::string>());
    const char* numeric[] = {"event_id", "process_id", "thread_id"};
    for (int k = 0; k < 3; ++k) {
      uint64_t n = 0;
      size_t d = 0;
      EXPECT_TRUE(hex_value(r.cells[5 + k], n, d) && n == j.at(numeric[k]).get<uint64_t>()) << numeric[k];
    }
    EXPECT_EQ(r.cells[8], std::to_string(j.at("channel").get<int>()));
    EXPECT_EQ(r.cells[9], std::to_string(j.at("level").get<int>()));
    EXPECT_EQ(r.cells[10], std::to_string(j.at("opcode").get<int>()));
    EXPECT_EQ(r.cells[11], std::to_string(j.at("task").get<int>()));
    uint64_t kw = 0, jkw = 0, pt = 0, jpt = 0;
    size_t d = 0;
    EXPECT_TRUE(hex_value(r.cells[12], kw, d) && hex_value(j.at("keywords").get<std::string>(), jkw, d) && kw == jkw);
    EXPECT_TRUE(hex_value(r.cells[13], pt, d) && hex_value(j.at("processor_time").get<std::string>(), jpt, d) &&
                pt == jpt);
    EXPECT_EQ(r.cells[14], std::to_string(j.at("processor").get<int>()));

    const bool damaged = r.data.compare(0, 22, "data{corrupted record}") == 0;
    EXPECT_EQ(j.at("damaged").get<bool>(), damaged);
    if (damaged) {
      EXPECT_EQ(r.data, "data{corrupted record}");
      EXPECT_TRUE(j.at("fields").empty());
      continue;
    }
    if (!compare_fields) continue;
    if (!data_entries(r.data, entries)) {
      ADD_FAILURE() << "can't read the data column: " << r.data;
      continue;
    }
    const json& fields = j.at("fields");
    auto it = fields.begin();
    for (const entry& e : entries) {
      if (it == fields.end()) {
        ADD_FAILURE() << "no key for " << e.counter << "-" << e.name;
        break;
      }
      const std::string key = it.key();
      EXPECT_TRUE(key_matches(key, e)) << key << " for " << e.counter << "-" << e.name;
      const json& value = it.value();
      ++it;
      json raw;
      if (it != fields.end() && it.key() == key + "_raw") {
        raw = it.value();
        ++it;
      }
      EXPECT_TRUE(projects_to(value, raw, e.value))
          << key << ": " << value.dump() << " / " << raw.dump() << " vs \"" << e.value << "\"";
      ++compared;
    }
    EXPECT_TRUE(it == fields.end());
  }
  return compared;
}

// ---- synthetic traces ------------------------------------------------------

tw::log_header_spec header_spec() {
  tw::log_header_spec h;
  h.buffer_size = 4096;
  h.start_time = h.system_time = kT0;
  return h;
}

// A TraceLogging event: its schema in an extended item, then the payload.
tw::bytes tracelogging_event(const std::string& name, const std::vector<std::pair<std::string, uint8_t>>& schema,
                             const tw::bytes& payload, uint64_t time) {
  tw::event_spec e;
  e.provider = tw::guid_from_text(kSelfDescribing);
  e.id = 7;
  e.time = time;
  e.process_id = 0x990;
  e.thread_id = 0x991;
  e.flags = 1;
  e.extended = tw::extended_item(11, tw::tracelogging_schema(name, schema), false);
  e.payload = payload;
  return tw::event_header_record(e);
}

// One value of every kind of number, time, GUID and SID the decoder types.
tw::bytes typed_event() {
  tw::bytes p;
  p.push_back(0xFE);                          // i8 -2
  tw::append_u16(p, 0x8000);                           // i16 -32768
  tw::append_u32(p, 0xFFFFFFF6);                       // i32 -10
  tw::append_u64(p, 0xFFFFFFFFFFFFFFFFull);            // i64 -1
  tw::append_u64(p, 0xFFFFFFFFFFFFFFFFull);            // u64 beyond 2^53
  tw::append_u64(p, 9007199254740992ull);              // u64 2^53
  tw::append_u32(p, 0x3FC00000);                       // f 1.5
  tw::append_u64(p, 0x3FB999999999999Aull);            // d 0.1
  tw::append_u32(p, 1);                                // b true
  tw::append_u32(p, 0);                                // b2 false
  const tw::guid g = tw::guid_from_text("5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b");
  p.insert(p.end(), g.begin(), g.end());      // g
  tw::append_u64(p, kT0);                              // ft
  tw::append_u64(p, 0);                                // ft0
  for (uint16_t v : {2026, 3, 3, 4, 5, 6, 7, 123}) tw::append_u16(p, v);  // st
  for (uint8_t b : {1, 1, 0, 0, 0, 0, 0, 5, 18, 0, 0, 0}) p.push_back(b);  // sid S-1-5-18
  tw::append_u32(p, 0xDEADBEEF);                       // hex
  tw::append_u32(p, 0x7FC00000);                       // nan
  return tracelogging_event("Typed",
                            {{"i8", 3}, {"i16", 5}, {"i32", 7}, {"i64", 9}, {"u64", 10}, {"exact", 10}, {"f", 11},
                             {"d", 12}, {"b", 13}, {"b2", 13}, {"g", 15}, {"ft", 17}, {"ft0", 17}, {"st", 18},
                             {"sid", 19}, {"hex", 20}, {"nan", 11}},
                            p, kT0 + 10);
}

// Texts holding quotes, backslashes, control characters, lone surrogates,
// pairs, characters beyond the BMP, and narrow bytes that aren't UTF-8.
tw::bytes hostile_event() {
  tw::bytes p;
  auto units = [&p](std::initializer_list<uint16_t> us) {
    for (uint16_t u : us) tw::append_u16(p, u);
    tw::append_u16(p, 0);
  };
  units({'a', '"', 'b', '\\', 'c', 0x01, 0x1F, 0x09, 'd'});
  units({'x', 0xD800, 'y', 0xDC00, 'z', 0xD83D, 0xDE00});  // lone halves: the text falls back per unit
  units({0xD83D, 0xDE00, '!', 0x00E9, 0x2028});             // well paired
  for (int b : std::initializer_list<int>{'c', 'a', 'f', 0xE9, '"', '\\', 0x07, 0}) p.push_back(uint8_t(b));
  for (int b : std::initializer_list<int>{'l', '1', '\r', '\n', 'l', '2', 0}) p.push_back(uint8_t(b));
  return tracelogging_event("Hostile", {{"s1", 1}, {"s2", 1}, {"s3", 1}, {"a1", 2}, {"a2", 2}}, p, kT0 + 20);
}

tw::bytes plain_event(uint16_t id, uint64_t time, uint32_t payload_word) {
  tw::event_spec e;
  e.provider = tw::guid_from_text("5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b");
  e.id = id;
  e.time = time;
  e.process_id = 0xa3c;
  e.thread_id = 0x1b34;
  tw::append_u32(e.payload, payload_word);
  for (char c : std::string("cmd.exe")) e.payload.push_back(uint8_t(c));
  e.payload.push_back(0);
  return tw::event_header_record(e);
}

std::string write_regular(const e2e::temp_dir& dir, const std::string& name, const std::vector<tw::bytes>& records) {
  tw::etl_writer w;
  w.log_header(header_spec());
  w.add_buffer(records);
  return dir.write(name, w.data());
}

// A trace with damage of three kinds: garbage between records (a
// placeholder row), a zeroed stretch, and a broken tail.
std::string write_damaged(const e2e::temp_dir& dir) {
  tw::etl_writer w;
  w.log_header(header_spec());
  w.add_buffer({plain_event(1, kT0 + 1, 11), tw::bytes(24, 0xAB), plain_event(2, kT0 + 2, 12),
                plain_event(3, kT0 + 3, 13)});
  const size_t second = w.add_buffer({plain_event(4, kT0 + 4, 14), plain_event(5, kT0 + 5, 15),
                                      plain_event(6, kT0 + 6, 16), plain_event(7, kT0 + 7, 17)});
  w.zero_fill(second + 72 + 8, 40);
  w.add_buffer({plain_event(8, kT0 + 8, 18), plain_event(9, kT0 + 9, 19)});
  w.truncate(w.size() - 3000);
  return dir.write("damaged.etl", w.data());
}

const json& field(const json& line, const std::string& name) { return line.at("fields").at(name); }

}  // namespace

// ---- tests -----------------------------------------------------------------

TEST(Jsonl, SyntheticTracesLineForRow) {
  e2e::temp_dir dir;
  EXPECT_EQ(check_against_rows("-log " + dir.write("sample.etl", tw::sample_trace())), 22u);
  EXPECT_EQ(check_against_rows("-log " + write_regular(dir, "typed.etl", {typed_event(), plain_event(1, kT0 + 30, 5)})),
            20u);
  check_against_rows("-log " + write_damaged(dir));
  // The other two kinds of file.
  tw::etl_writer rlfs;
  rlfs.rlfs_first_block(kT0, kT0, 72, 72);
  rlfs.add_rlfs_buffer({plain_event(1, kT0 + 1, 1), typed_event()}, 2048, kT0 + 100);
  check_against_rows("-log " + dir.write("rlfs.etl", rlfs.data()));
  tw::etl_writer headerless;
  headerless.zero_first_block();
  tw::buffer_spec shape;
  shape.buffer_size = 4096;
  shape.saved_offset = 4096;
  shape.timestamp = kT0 + 100;
  headerless.add_buffer({plain_event(1, kT0 + 1, 1), plain_event(2, kT0 + 2, 2)}, shape);
  check_against_rows("-log " + dir.write("headerless.etl", headerless.data()));
  // A realistic mix: manifest, classic kernel and TraceLogging events.
  ASSERT_TRUE(tw::write_big_trace(dir.path("big.etl"), 3 << 20));
  check_against_rows("-log " + dir.path("big.etl"));
}

TEST(Jsonl, TypedValues) {
  e2e::temp_dir dir;
  const e2e::run_result r = e2e::run_quon("-quiet -jsonl -log " + write_regular(dir, "typed.etl", {typed_event()}));
  const std::vector<json> lines = json_lines(r.out);
  ASSERT_EQ(lines.size(), 1u);
  const json& j = lines[0];
  EXPECT_EQ(j.at("message"), std::string(kSelfDescribing) + " event 7: Typed, i8=-2, i16=-32768");
  EXPECT_EQ(j.at("datetime"), "2026-03-04T05:06:07.123457700Z");
  EXPECT_EQ(j.at("timestamp"), 1772600767123457);
  EXPECT_EQ(field(j, "Typed"), "{guess}");
  EXPECT_EQ(field(j, "i8"), -2);
  EXPECT_EQ(field(j, "i16"), -32768);
  EXPECT_EQ(field(j, "i32"), -10);
  EXPECT_EQ(field(j, "i64"), -1);
  EXPECT_EQ(field(j, "u64"), "18446744073709551615");
  EXPECT_EQ(field(j, "exact"), 9007199254740992ull);
  EXPECT_EQ(field(j, "f"), 1.5);
  EXPECT_EQ(field(j, "d"), 0.1);
  EXPECT_EQ(field(j, "b"), true);
  EXPECT_EQ(field(j, "b2"), false);
  EXPECT_EQ(field(j, "g"), "5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b");
  EXPECT_EQ(field(j, "ft"), "2026-03-04T05:06:07.123456700Z");
  EXPECT_EQ(field(j, "ft_raw"), "134170743671234567");
  EXPECT_TRUE(field(j, "ft0").is_null());
  EXPECT_EQ(field(j, "ft0_raw"), 0);
  EXPECT_EQ(field(j, "st"), "2026-03-04T05:06:07.123000000Z");
  EXPECT_EQ(field(j, "st_raw"), "ea070300030004000500060007007b00");
  EXPECT_EQ(field(j, "sid"), "S-1-5-18");
  EXPECT_EQ(field(j, "hex"), 3735928559u);
  EXPECT_EQ(field(j, "nan"), "NaN");
  EXPECT_EQ(j.at("guessed"), false);
}

TEST(Jsonl, TraceLoggingSchemasThatComeBackKeepTheirOwnFields) {
  // Three schemas of one provider, each coming back after the others (a
  // schema seen before is not parsed again), and one whose name and field
  // differ only in a byte from another's.
  auto number_event = [](const std::string& name, const std::string& field_name, uint32_t value, uint64_t time) {
    tw::bytes p;
    tw::append_u32(p, value);
    return tracelogging_event(name, {{field_name, 8}}, p, time);
  };
  auto text_event = [](const std::string& name, const std::string& text, uint64_t time) {
    tw::bytes p(text.begin(), text.end());
    p.push_back(0);
    return tracelogging_event(name, {{"s", 2}}, p, time);
  };
  e2e::temp_dir dir;
  const std::vector<tw::bytes> records = {
      number_event("EvA", "a", 1, kT0 + 1), text_event("EvB", "one", kT0 + 2),
      number_event("EvA", "a", 2, kT0 + 3), number_event("EvA", "b", 3, kT0 + 4),
      text_event("EvB", "two", kT0 + 5),    number_event("EvA", "a", 4, kT0 + 6),
      number_event("EvA", "b", 5, kT0 + 7)};
  const e2e::run_result r = e2e::run_quon("-quiet -jsonl -log " + write_regular(dir, "schemas.etl", records));
  const std::vector<json> lines = json_lines(r.out);
  ASSERT_EQ(lines.size(), 7u);
  const char* names[7] = {"EvA", "EvB", "EvA", "EvA", "EvB", "EvA", "EvA"};
  const char* fields[7] = {"a", "s", "a", "b", "s", "a", "b"};
  for (size_t i = 0; i < 7; ++i) {
    SCOPED_TRACE(i);
    const json& f = lines[i].at("fields");
    EXPECT_EQ(f.at(names[i]), "{guess}");
    ASSERT_TRUE(f.contains(fields[i]));
    EXPECT_EQ(f.size(), 2u);
  }
  EXPECT_EQ(field(lines[0], "a"), 1u);
  EXPECT_EQ(field(lines[1], "s"), "one");
  EXPECT_EQ(field(lines[2], "a"), 2u);
  EXPECT_EQ(field(lines[3], "b"), 3u);
  EXPECT_EQ(field(lines[4], "s"), "two");
  EXPECT_EQ(field(lines[5], "a"), 4u);
  EXPECT_EQ(field(lines[6], "b"), 5u);
}

TEST(Jsonl, HostileTextsAreValidJsonWithEveryCharacterKept) {
  e2e::temp_dir dir;
  const std::string trace = write_regular(dir, "hostile.etl", {hostile_event()});
  const e2e::run_result r = e2e::run_quon("-quiet -jsonl -log " + trace);
  const std::vector<json> lines = json_lines(r.out);
  ASSERT_EQ(lines.size(), 1u);
  const json& j = lines[0];
  EXPECT_EQ(field(j, "s1"), "a\"b\\c\x01\x1f\td");
  EXPECT_EQ(field(j, "s2"), "x\xEF\xBF\xBDy\xEF\xBF\xBDz\xF0\x9F\x98\x80");
  EXPECT_EQ(field(j, "s3"), "\xF0\x9F\x98\x80!\xC3\xA9\xE2\x80\xA8");
  EXPECT_EQ(field(j, "a1"), "caf\xEF\xBF\xBD\"\\\x07");
  EXPECT_EQ(field(j, "a2"), "l1[CRLF]l2");
  // The escapes as written: controls as \u00XX, the line separator escaped.
  EXPECT_NE(r.out.find(R"j("s1":"a\"b\\c\u0001\u001f\td")j"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("\\u2028"), std::string::npos);
  // One line per row all the same; the row's own texts aren't compared.
  check_against_rows("-log " + trace, false);
}

TEST(Jsonl, DamageIsMarkedAndEveryLineParses) {
  e2e::temp_dir dir;
  const e2e::run_result r = e2e::run_quon("-quiet -jsonl -log " + write_damaged(dir));
  EXPECT_EQ(r.status, 0);
  const std::vector<json> lines = json_lines(r.out);
  size_t damaged = 0;
  for (const json& j : lines) {
    if (!j.at("damaged").get<bool>()) continue;
    ++damaged;
    EXPECT_EQ(j.at("message"), "corrupted record");
    EXPECT_GT(j.at("record_size").get<int>(), 0);
  }
  EXPECT_GE(damaged, 2u);
}

TEST(Jsonl, EveryInputModeGivesTheSameLinesAndNothingElse) {
  e2e::temp_dir dir;
  dir.mkdir("in");
  dir.mkdir("in/sub");
  const std::string a = dir.write("in/a.etl", tw::sample_trace());
  const std::string b = dir.write("in/sub/b.etl", tw::sample_trace());
  dir.write("in/c.txt", tw::sample_trace());
  const std::string one = e2e::run_quon("-quiet -jsonl -log " + a).out;
  ASSERT_EQ(json_lines(one).size(), 4u);
  // The same events from b, but for the file name.
  std::string two = e2e::run_quon("-quiet -jsonl -log " + b).out;
  EXPECT_EQ(e2e::count(two, "\"trace_file\":\"" + b + "\""), 4u);

  const e2e::run_result list = e2e::run_quon("-quiet -jsonl -log '" + a + "|" + b + "'");
  EXPECT_EQ(list.out, one + two);
  const e2e::run_result pipe = e2e::run_quon("-jsonl -quiet -pipe -filter '*.etl'", a + "\n" + dir.path("in/c.txt") + "\n" + b + "\n");
  EXPECT_EQ(pipe.out, one + two);
  const e2e::run_result walk = e2e::run_quon("-quiet -JSONL -enumdir " + dir.path("in") + " -num_subdirs 1 -filter '*.etl'");
  EXPECT_EQ(walk.out, one + two);
  // A time limit that no file passes: nothing at all.
  const e2e::run_result none =
      e2e::run_quon("-quiet -jsonl -pipe -filter '*.etl' -cmd_start_time '2999-01-01 00:00:00'", a + "\n");
  EXPECT_EQ(none.out, "");
  // A result file holds the lines alone.
  const e2e::run_result to_file = e2e::run_quon("-quiet -jsonl -out " + dir.path("out.jsonl") + " -log " + a);
  EXPECT_EQ(to_file.status, 0);
  EXPECT_EQ(to_file.out, "");
  EXPECT_EQ(e2e::read_text(dir.path("out.jsonl")), one);
  // A file that isn't a trace says so on standard error, as without -jsonl.
  const std::string bad = dir.write("bad.etl", tw::bytes(1000, 'x'));
  const e2e::run_result failed = e2e::run_quon("-quiet -jsonl -log '" + a + "|" + bad + "'");
  EXPECT_EQ(failed.out, one);
  EXPECT_NE(failed.err.find("prob parsing file: " + bad), std::string::npos);
}

TEST(Jsonl, OptionsItCannotHonourAreRefused) {
  for (const char* word : {"-csv", "-csvgen", "-csvl2t", "-bodyfile", "-xml", "-multiline", "-csv_separator",
                           "-enable_quoted_csv_fields", "-no_whitespace", "-pair_datetime", "-dateformat",
                           "-timeformat", "-base10", "-base16", "-hostname", "-username", "-guids",
                           "-stats", "-pullguid", "-extract_bxml", "-providers"}) {
    SCOPED_TRACE(word);
    const e2e::run_result r = e2e::run_quon(std::string("-quiet -log x.etl -jsonl ") + word + " v");
    EXPECT_EQ(r.status, 255);
    EXPECT_EQ(r.err, std::string("-jsonl can't be combined with ") + word + "\n");
  }
  // Options that only pick the input go with it.
  EXPECT_EQ(e2e::run_quon("-quiet -jsonl -no_guessing -templates /dev/null -log /dev/null").status, 0);
}

namespace {

bool samples_present() { return std::filesystem::is_directory(QUON_SAMPLES_DIR); }

}  // namespace

TEST(Jsonl, EveryRealTraceLineForRow) {
  if (!samples_present()) GTEST_SKIP() << "no samples folder";
  size_t traces = 0, compared = 0;
  for (const auto& f : std::filesystem::recursive_directory_iterator(QUON_SAMPLES_DIR)) {
    if (!f.is_regular_file() || f.path().extension() != ".etl") continue;
    ++traces;
    compared += check_against_rows("-log '" + f.path().string() + "'");
  }
  EXPECT_GE(traces, 10u);
  EXPECT_GE(compared, 100000u);
}
