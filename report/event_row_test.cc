#include "report/event_row.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "report/report_options.h"
#include "support/byte_reader.h"
#include "support/qv_datetime.h"
#include "support/qv_string.h"

namespace {

// 2026-03-04 05:06:07.1234567 UTC.
constexpr uint64_t kStamp = 134170743671234567ULL;

// The option record as the parser leaves it, before and after format words.
void defaults(report_options& o) {
  o.program_name = "quon";
  o.time_format = "hh:mm:ss.xxxxxxxxx";
  o.session_name = "Sample Session";
  o.orig_source_path = "c:\\logs\\a.etl";
  o.row_file_name = "/tmp/a.etl";
  qv::parse_datetime_format(o.datetime_format, o.date_format, o.time_format, o.pair_datetime);
}
void as_csv(report_options& o) {
  o.format_csv = true;
  o.separator = ",";
  o.separator_char = ',';
  o.sub_separator_char = ' ';
  o.no_whitespace = !o.pair_datetime;
}
void as_l2t(report_options& o) {
  o.format_l2t = true;
  o.separator = ",";
  o.separator_char = ',';
  o.sub_separator_char = ' ';
  o.header_row_pending = true;
}
void as_quoted(report_options& o) {
  o.quoted_fields = true;
  std::string s;
  for (char c : o.separator) if (c != ' ') s += c;
  o.separator = s;
  o.pad_with_blanks = false;
  o.separator_char = 0;
}
void as_no_whitespace(report_options& o) {
  o.no_whitespace = true;
  o.pad_with_blanks = false;
  std::string s;
  for (char c : o.separator) if (c != ' ') s += c;
  o.separator = s;
}

// The made-up event of the worked examples.
etl_record example_event() {
  etl_record r;
  std::vector<uint8_t> g;
  qv::parse_guid("5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b", g);
  for (size_t i = 0; i < 16; ++i) r.provider_id[i] = g[i];
  r.provider_name = "Acme-Trace-Provider";
  r.kind = kind_c012;
  r.event_id = 0x2a;
  r.process_id = 0xa3c;
  r.thread_id = 0x1b34;
  r.level = 4;
  r.opcode = 1;
  r.task = 7;
  r.keyword = 0x8000000000000010ULL;
  r.time_word = 0;
  r.processor = 3;
  r.raw_time = 777;
  r.absolute_time = kStamp;
  decoded_field* pid = r.fields.add(200);
  pid->name = "Pid";
  pid->type = 8;
  pid->size = 4;
  pid->number = 0xa3c;
  decoded_field* image = r.fields.add(204);
  image->name = "Image";
  image->type = 2;
  image->size = 12;
  image->text = "a.exe";
  return r;
}

std::string event_text(etl_record& r, report_options& o) {
  std::ostringstream s;
  write_event_row(r, s, o);
  return s.str();
}

const char kData[] = "data{\"01-Pid\":\"0x00000a3c\";\"02-Image\":\"a.exe\"}";
const char kZeroGuid[] = "00000000-0000-0000-0000-000000000000";

}  // namespace

TEST(EventRow, WorkedExamplePadded) {
  report_options o;
  defaults(o);
  etl_record r = example_event();
  const std::string columns =
      " created [utc or #ticks]       | provider guid                        | provider name     "
      "                   | session name                         | activity id                  "
      "        | event id | process id | thread id | channel | level | opcode | task id | keywords"
      "           | processor time     | processor | extra data      \n";
  const std::string row =
      " 2026-03-04 05:06:07.123456700 | 5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b | Acme-Trace-Provider "
      "                 | Sample Session                       | 00000000-0000-0000-0000-0000000000"
      "00 | 0x00002a | 0x00000a3c | 0x0001b34 |       0 |     4 |      1 |       7 | 0x80000000000000"
      "10 | 0x0000000000000000 |         3 | data{\"01-Pid\":\"0x00000a3c\";\"02-Image\":\"a.exe\"}\n";
  EXPECT_EQ(event_text(r, o), columns + row);
  EXPECT_FALSE(o.header_row_pending);
  EXPECT_EQ(event_text(r, o), row);  // one column line per file
  ASSERT_EQ(o.column_table.size(), 16u);
  EXPECT_EQ(o.column_table[0].width, 29u);
  EXPECT_EQ(o.column_table[0].type, 13);
  EXPECT_EQ(o.column_table[15].flags, 128u);

  // A second file brings the column line again.
  o.header_row_pending = true;
  EXPECT_EQ(event_text(r, o), columns + row);
}

TEST(EventRow, WorkedExampleCsv) {
  report_options o;
  defaults(o);
  as_csv(o);
  etl_record r = example_event();
  EXPECT_EQ(event_text(r, o),
            " created [utc or #ticks],provider guid,provider name,session name,activity id,"
            "event id,process id,thread id,channel,level,opcode,task id,keywords,processor time,"
            "processor,extra data\n"
            "2026-03-04 05:06:07.123456700,5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b,Acme-Trace-"
            "Provider,Sample Session,00000000-0000-0000-0000-000000000000,0x002a,0x00000a3c,"
            "0x00001b34,0,4,1,7,0x8000000000000010,0x0,3,"
            "data{\"01-Pid\":\"0x00000a3c\";\"02-Image\":\"a.exe\"}\n");
  EXPECT_EQ(o.column_table[0].width, 0u);

  // Commas in texts turn to blanks, line breaks are flattened.
  r.provider_name = "Acme,Trace\r\nX";
  o.session_name = "S,1";
  const std::string line = event_text(r, o);
  EXPECT_NE(line.find(",Acme Trace[CRLF]X,S 1,"), std::string::npos) << line;
}

TEST(EventRow, BaseAndWhitespaceForms) {
  etl_record r = example_event();
  report_options b10;
  defaults(b10);
  b10.base16 = false;
  b10.header_row_pending = false;
  std::ostringstream sink;
  write_event_columns(sink, b10);  // table only
  const std::string line = event_text(r, b10);
  // Event id, process id, thread id decimal; keywords and processor time stay
  // hexadecimal; the small numbers are decimal anyway.
  EXPECT_NE(line.find(" |       42 |       2620 |      6964 |       0 |     4 |      1 |       7 | "
                      "0x8000000000000010 | 0x0000000000000000 |         3 | data{"),
            std::string::npos)
      << line;

  report_options nw;
  defaults(nw);
  as_no_whitespace(nw);
  EXPECT_EQ(event_text(r, nw),
            "created [utc or #ticks]|provider guid|provider name|session name|activity id|event "
            "id|process id|thread id|channel|level|opcode|task id|keywords|processor "
            "time|processor|extra data\n"
            "2026-03-04 05:06:07.123456700|5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b|Acme-Trace-"
            "Provider|Sample Session|" +
                std::string(kZeroGuid) +
                "|0x002a|0x00000a3c|0x00001b34|0|4|1|7|0x8000000000000010|0x0|3|" + kData + "\n");

  // -csv -base10.
  report_options c;
  defaults(c);
  as_csv(c);
  c.base16 = false;
  c.header_row_pending = false;
  write_event_columns(sink, c);
  EXPECT_NE(event_text(r, c).find("," + std::string(kZeroGuid) +
                                  ",42,2620,6964,0,4,1,7,0x8000000000000010,0x0,3,data{"),
            std::string::npos);

  // A short time format narrows column 0 to 10 + 8 + 1.
  report_options t;
  defaults(t);
  t.time_format = "hh:mm:ss";
  qv::parse_datetime_format(t.datetime_format, t.date_format, t.time_format, false);
  const std::string out = event_text(r, t);
  EXPECT_EQ(t.column_table[0].width, 19u);
  EXPECT_EQ(out.substr(0, 40), " created [utc or #ticks] | provider guid");
  EXPECT_NE(out.find("\n 2026-03-04 05:06:07 | 5f0b2a11-"), std::string::npos) << out;
}

TEST(EventRow, UnusualRecords) {
  report_options o;
  defaults(o);
  as_csv(o);
  o.header_row_pending = false;
  std::ostringstream sink;
  write_event_columns(sink, o);

  // A corrupted record: zeros everywhere, the raw tick value, and the marker.
  etl_record bad;
  bad.valid = false;
  EXPECT_EQ(event_text(bad, o), " 0x0000000000000000," + std::string(kZeroGuid) +
                                    ",,Sample Session," + kZeroGuid +
                                    ",0x0000,0x00000000,0x00000000,0,0,0,0,0x0,0x0,0,"
                                    "data{corrupted record}\n");
  // A corrupted record that still carries fields keeps them behind the marker.
  etl_record bad2 = example_event();
  bad2.valid = false;
  EXPECT_NE(event_text(bad2, o).find(",3,data{corrupted record}" + std::string(kData) + "\n"),
            std::string::npos);

  // No decoded fields: an empty last cell, no braces; the row reused from the
  // event before keeps nothing of it.
  etl_record plain = example_event();
  plain.fields.clear();
  plain.absolute_time = 0;  // the raw tick value stands in the time column
  plain.raw_time = 0x1234;
  const std::string line = event_text(plain, o);
  EXPECT_EQ(line.substr(0, 20), " 0x0000000000001234,");
  EXPECT_EQ(line.substr(line.size() - 7), "0x0,3,\n");

  // Compact classic headers show their hook id.
  etl_record classic = example_event();
  classic.kind = kind_c002;
  classic.hook_id = 0x1234;
  EXPECT_NE(event_text(classic, o).find(",0x1234,0x00000a3c,"), std::string::npos);
  classic.kind = kind_c011;
  EXPECT_NE(event_text(classic, o).find(",0x1234,0x00000a3c,"), std::string::npos);
  classic.kind = kind_c00a;
  EXPECT_NE(event_text(classic, o).find(",0x002a,0x00000a3c,"), std::string::npos);

  // A time stamp that isn't valid blanks the time cell.
  etl_record late = example_event();
  late.absolute_time = 0xffffffffffffffffULL;
  EXPECT_EQ(event_text(late, o).substr(0, 3), " ,5");

  // The table can't make a row: dropped without a word.
  o.column_table.resize(256);
  EXPECT_EQ(event_text(plain, o), "");
  o.column_table.clear();
  EXPECT_EQ(event_text(plain, o), "");
}

TEST(EventRow, QuotedFields) {
  report_options o;
  defaults(o);
  as_csv(o);
  as_quoted(o);
  etl_record r = example_event();
  r.provider_name = "Acme,Trace";
  const std::string out = event_text(r, o);
  // No blank before the time column once pad_with_blanks is off; text cells
  // quoted, the comma left alone since no separator character is set.
  EXPECT_EQ(out.substr(0, 40), "created [utc or #ticks],provider guid,pr");
  EXPECT_NE(out.find("\n2026-03-04 05:06:07.123456700,5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b,"
                     "\"Acme,Trace\",\"Sample Session\"," +
                     std::string(kZeroGuid) + ",0x002a,"),
            std::string::npos)
      << out;
  // The quotes of the extra data are doubled inside the field's quotes.
  std::string doubled;
  for (char c : std::string(kData)) {
    if (c == '"') doubled.push_back('"');
    doubled.push_back(c);
  }
  EXPECT_EQ(out.substr(out.size() - doubled.size() - 4), ",\"" + doubled + "\"\n");
}

TEST(EventRow, HeaderRows) {
  log_header h;
  h.StartTime = kStamp;
  h.SystemTime = 0x55;
  h.ProcessId = 0x10;
  h.ThreadId = 0x20;
  h.KernelUserTime = 0x1122;
  const std::string data = log_header_text(h, true, report_options().datetime_format);
  ASSERT_EQ(data.substr(0, 5), "data{");

  report_options o;
  defaults(o);
  o.format_bodyfile = true;  // padding kept, texts flattened
  o.separator = "|";
  std::ostringstream full;
  write_header_info_row(h, full, o);
  std::string want_data = log_header_text(h, true, o.datetime_format);
  for (char& c : want_data) if (c == '|') c = ';';
  const std::string s = full.str();
  const size_t eol = s.find('\n');
  ASSERT_NE(eol, std::string::npos);
  EXPECT_EQ(s.substr(0, 25), " created [utc or #ticks] ");  // column line first
  EXPECT_EQ(s.substr(eol + 1),
            " 2026-03-04 05:06:07.123456700|<header info only>                  |" +
                std::string(36, ' ') + "|Sample Session" + std::string(22, ' ') + "|" +
                std::string(36, ' ') + "|" + std::string(8, ' ') +
                "|0x00000010|0x0000020|       |     |      |       |" + std::string(18, ' ') +
                "|0x0000000000001122|" + std::string(9, ' ') + "|" + want_data + "\n");

  // Without a valid start time the header's own time goes in as ticks.
  h.StartTime = 0;
  report_options c;
  defaults(c);
  as_csv(c);
  std::ostringstream ticks;
  write_header_info_row(h, ticks, c);
  std::string csv_data = log_header_text(h, true, c.datetime_format);
  for (char& ch : csv_data) if (ch == ',') ch = ' ';
  const std::string t = ticks.str();
  EXPECT_EQ(t.substr(t.find('\n') + 1),
            " 0x0000000000000055,<header info only>,,Sample Session,,,0x00000010,0x00000020,,,,,,"
            "0x1122,," + csv_data + "\n");
}

TEST(EventRow, ShortHeaderRows) {
  uint8_t block[72] = {};
  report_options o;
  defaults(o);
  as_csv(o);
  o.session_name = "<not available>";
  std::ostringstream zero;
  write_short_header_row(block, zero, o);
  write_short_header_row(nullptr, zero, o);  // no block reads as zeros
  const std::string z = zero.str();
  const std::string zero_row = " 0x0000000000000000,<header info only>,,<not available>,,,,,,,,,,,,\n";
  EXPECT_EQ(z.substr(z.find('\n') + 1), zero_row + zero_row);

  qv::wr_u64(block + 24, kStamp);
  std::ostringstream valid;
  write_short_header_row(block, valid, o);
  EXPECT_EQ(valid.str(),
            "2026-03-04 05:06:07.123456700,<header info only>,,<not available>,,,,,,,,,,,,\n");

  // A word at 24 that isn't a valid time falls back to the word at 16.
  qv::wr_u64(block + 24, 1);
  qv::wr_u64(block + 16, 0x99);
  std::ostringstream fallback;
  write_short_header_row(block, fallback, o);
  EXPECT_EQ(fallback.str(),
            " 0x0000000000000099,<header info only>,,<not available>,,,,,,,,,,,,\n");

  // Quoted fields quote every text cell, empty ones too.
  as_quoted(o);
  std::ostringstream quoted;
  write_short_header_row(block, quoted, o);
  EXPECT_EQ(quoted.str(), "0x0000000000000099,\"<header info only>\",\"\",\"<not available>\"," +
                              [] {
                                std::string s;
                                for (int k = 0; k < 12; ++k) s += k ? ",\"\"" : "\"\"";
                                return s;
                              }() + "\n");
}

TEST(EventRow, TimelineMode) {
  report_options o;
  defaults(o);
  as_l2t(o);
  o.host_name = "H1";
  o.user_name = "U1";

  // The log header never gives a line, whatever its time word.
  log_header h;
  std::ostringstream head;
  write_header_info_row(h, head, o);
  h.StartTime = kStamp;
  write_header_info_row(h, head, o);
  uint8_t block[72] = {};
  write_short_header_row(block, head, o);
  qv::wr_u64(block + 24, kStamp);
  write_short_header_row(block, head, o);
  EXPECT_EQ(head.str(), "");
  EXPECT_TRUE(o.header_row_pending);

  // No time: no line, and no column line either.
  etl_record r = example_event();
  r.absolute_time = 0;
  EXPECT_EQ(event_text(r, o), "");

  r = example_event();
  EXPECT_EQ(event_text(r, o),
            "date,time,timezone,MACB,source,sourcetype,type,user,host,short,desc,version,filename,"
            "inode,notes,format,extra\n"
            "2026-03-04, 05:06:07.123456700,UTC,...B,ETL,Sample Session,ETL Entry,U1,H1,"
            "{5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b}; Event: 0x002a,"
            "{5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b}; Event: 0x002a; ProcID: 0x0a3c; ThreadID: "
            "0x1b34,2,/tmp/a.etl,,Orig filename: c:\\logs\\a.etl,quon (ovrelt),"
            "data{\"01-Pid\":\"0x00000a3c\";\"02-Image\":\"a.exe\"}\n");
  EXPECT_FALSE(o.header_row_pending);
  EXPECT_TRUE(o.column_table.empty());

  // -base10, zero thread id, classic hook id, corrupted record without text.
  o.base16 = false;
  r.thread_id = 0;
  r.kind = kind_c011;
  r.hook_id = 0x20;
  r.valid = false;
  r.fields.clear();
  EXPECT_EQ(event_text(r, o),
            "2026-03-04, 05:06:07.123456700,UTC,...B,ETL,Sample Session,ETL Entry,U1,H1,"
            "{5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b}; Event: 32,"
            "{5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b}; Event: 32; ProcID: 2620,2,/tmp/a.etl,,"
            "Orig filename: c:\\logs\\a.etl,quon (ovrelt),\n");
  o.base16 = true;
  r.process_id = 0;
  r.thread_id = 0x12345;  // wider than four digits: not cut
  r.kind = kind_c012;
  const std::string line = event_text(r, o);
  EXPECT_NE(line.find(",{5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b}; Event: 0x002a; ThreadID: 0x12345,2,"),
            std::string::npos)
      << line;

  // A stamp that isn't valid: no line.
  r.absolute_time = 1;
  EXPECT_EQ(event_text(r, o), "");
}

TEST(EventRow, MultilineKeepsTheColumnLineFlow) {
  // The column line is written (and the pending flag cleared) before the row,
  // so the cells carry the plain column names in the column widths.
  report_options o;
  defaults(o);
  o.format_multiline = true;
  o.separator = "";
  o.separator_char = 0;
  etl_record r = example_event();
  const std::string out = event_text(r, o);
  EXPECT_EQ(out.substr(0, 30), " created [utc or #ticks]      ");
  EXPECT_NE(out.find("\nevent id0x00002a\nprocess id0x00000a3c\n"), std::string::npos) << out;
  EXPECT_NE(out.find("\nprovider name                       Acme-Trace-Provider                 \n"),
            std::string::npos);
  EXPECT_EQ(out.substr(out.size() - sizeof(kData) - 17), "extra data      " + std::string(kData) +
                                                              "\n\n");
}
