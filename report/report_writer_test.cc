#include "report/report_writer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "report/report_options.h"
#include "support/qv_datetime.h"
#include "support/qv_time.h"

namespace {

// 2026-03-04 05:06:07.1234567 UTC.
constexpr uint64_t kStamp = 134170743671234567ULL;

// The option record as the parser leaves it for this program, before any
// format word.
void defaults(report_options& o) {
  o.time_format = "hh:mm:ss.xxxxxxxxx";
  o.header_row_pending = false;
  qv::parse_datetime_format(o.datetime_format, o.date_format, o.time_format, o.pair_datetime);
}
void as_csv(report_options& o) {
  o.format_csv = true;
  o.separator.assign(1, ',');
  o.separator_char = ',';
  o.sub_separator_char = ' ';
  o.no_whitespace = !o.pair_datetime;
}
void as_no_whitespace(report_options& o) {
  o.no_whitespace = true;
  o.pad_with_blanks = false;
  std::string s;
  for (char c : o.separator) if (c != ' ') s += c;
  o.separator = s;
}

void set_columns(report_options& o, const std::vector<std::pair<uint16_t, uint64_t>>& cols) {
  o.column_table.clear();
  for (const auto& [type, width] : cols) {
    report_cell c;
    c.type = type;
    c.width = width;
    c.flags = rf_column;
    c.text = 'c' + std::to_string(o.column_table.size());
    o.column_table.push_back(c);
  }
}

std::string write_row(report_options& o, const report_row& row) {
  std::ostringstream s;
  write_report_row(s, row, o);
  return s.str();
}

}  // namespace

TEST(ReportWriter, RowValidityAndSetterCounts) {
  report_row row;
  EXPECT_FALSE(init_report_row(row, 0, 0));
  EXPECT_FALSE(init_report_row(row, -1, 0));
  EXPECT_FALSE(init_report_row(row, 256, 0));
  // An invalid row takes nothing and advances the caller by one, even for a
  // two-cell type.
  EXPECT_EQ(set_cell_text(row, 0, "x", rt_text, 0), 1);
  EXPECT_EQ(set_cell_number(row, 0, 1, rt_filetime_two, 0), 1);

  report_options o;
  defaults(o);
  o.header_row_pending = true;
  set_columns(o, std::vector<std::pair<uint16_t, uint64_t>>(256, {0, 4}));
  EXPECT_EQ(write_row(o, row), "");
  EXPECT_TRUE(o.header_row_pending);  // nothing at all was written

  ASSERT_TRUE(init_report_row(row, 255, 0));
  EXPECT_EQ(set_cell_text(row, 255, "x", rt_text, 0), 1);   // out of range
  EXPECT_EQ(set_cell_text(row, -1, "x", rt_text, 0), 1);
  EXPECT_EQ(set_cell_text(row, 3, "x", 32, 0), 1);          // type 32: stores nothing
  EXPECT_EQ(row.cells[3].type, 0);
  EXPECT_EQ(row.cells[3].text, "");
  EXPECT_EQ(set_cell_number(row, 4, 7, rt_unix_two, 0), 2);
  EXPECT_EQ(set_cell_number(row, 6, 7, rt_u32, 0x40000000), 1);

  // A reused row starts clean: init resets every cell in range.
  row.cells[0].text = "stale";
  ASSERT_TRUE(init_report_row(row, 2, 0x8000));
  EXPECT_EQ(row.cells[0].text, "");
  EXPECT_EQ(row.cells[0].max_text, 20);
  set_cell_number(row, 1, 5, rt_u8, 0x400000);
  EXPECT_EQ(row.cells[1].flags, 0x408000u);  // default flags OR-ed in
}

TEST(ReportWriter, StoringQuotesAndFlattening) {
  report_row row;
  ASSERT_TRUE(init_report_row(row, 6, rf_quote));
  set_cell_text(row, 0, "abc", rt_text, 0);
  set_cell_text(row, 1, "", rt_text, 0);
  set_cell_text(row, 2, "{\"a\":1}", rt_text, 0);
  set_cell_text(row, 3, "{\"", rt_text, 0);  // not longer than 2: quoted
  set_cell_text(row, 4, "say \"hi\"", rt_text, 0);
  std::ostringstream stream;
  stream << "s" << 12;
  set_cell_stream(row, 5, stream, rt_text, 0);
  EXPECT_EQ(row.cells[0].text, "\"abc\"");
  EXPECT_EQ(row.cells[1].text, "\"\"");
  EXPECT_EQ(row.cells[2].text, "{\"a\":1}");
  EXPECT_EQ(row.cells[3].text, "\"{\"\"");
  EXPECT_EQ(row.cells[4].text, "\"say \"hi\"\"");  // inner quotes left alone
  EXPECT_EQ(row.cells[5].text, "\"s12\"");

  // Flattening at storing time takes the flags 0x10000 exactly.
  ASSERT_TRUE(init_report_row(row, 2, 0));
  set_cell_text(row, 0, "a\nb", rt_text, rf_flatten);
  set_cell_text(row, 1, "a\nb", rt_text, rf_flatten | rf_right);
  EXPECT_EQ(row.cells[0].text, "a[LF]b");
  EXPECT_EQ(row.cells[1].text, "a\nb");

  // The in-place form follows the same rules.
  ASSERT_TRUE(init_report_row(row, 1, rf_quote));
  std::string* t = begin_cell_text(row, 0, rt_text, 0);
  ASSERT_NE(t, nullptr);
  *t += "data{x}";
  finish_cell_text(row, 0);
  EXPECT_EQ(row.cells[0].text, "\"data{x}\"");
  EXPECT_EQ(begin_cell_text(row, 1, rt_text, 0), nullptr);
}

TEST(ReportWriter, FlattenLineBreaks) {
  const std::pair<std::string, std::string> cases[] = {
      {"", ""},
      {"abc", "abc"},
      {"a\r\nb", "a[CRLF]b"},
      {"a\n\rb", "a[LFCR]b"},
      {"a\rb", "a[CR]b"},
      {"\r\r", "[CR][CR]"},
      {"a\rb\nc", "a\rb[LF]c"},  // a lone CR beside an LF text stays
      {"\n\r\n", "[LFCR]\n[CRLF]"},
      {"a\n\nb", "a[LF][LF]b"},
      {"\r\n\r\n", "[CRLF][CRLF]"},
      {"x\n", "x[LF]"},
      {"\xc3\xa9\n\xc3\xa9", "\xc3\xa9[LF]\xc3\xa9"},
  };
  for (const auto& [in, want] : cases) {
    std::string s = in;
    flatten_line_breaks(s);
    EXPECT_EQ(s, want) << "input of " << in.size() << " bytes";
  }
}

// What flatten_line_breaks leaves standing is marked too: nothing of a text
// can end a line. Texts it flattens whole come out as it gives them.
TEST(ReportWriter, FlattenAllLineBreaks) {
  const std::pair<std::string, std::string> cases[] = {
      {"", ""},
      {"abc", "abc"},
      {"a\r\nb", "a[CRLF]b"},
      {"a\n\rb", "a[LFCR]b"},
      {"a\rb", "a[CR]b"},
      {"a\n\nb", "a[LF][LF]b"},
      // The two cases flatten_line_breaks leaves a raw character in.
      {"\n\r\n", "[LFCR][LF][CRLF]"},
      {"a\rb\nc", "a[CR]b[LF]c"},
      {"\n\r\n\r", "[LFCR][LF][CRLF][CR]"},
      {"x\n\r\ny\r", "x[LFCR][LF][CRLF]y[CR]"},
      {"\t\"a,b\"\t", "\t\"a,b\"\t"},
  };
  for (const auto& [in, want] : cases) {
    std::string s = in;
    flatten_all_line_breaks(s);
    EXPECT_EQ(s, want) << "input of " << in.size() << " bytes";
    EXPECT_EQ(s.find_first_of("\r\n"), std::string::npos);
  }
}

TEST(ReportWriter, CsvFieldQuotingHelpers) {
  std::string line = "ab,";
  EXPECT_FALSE(csv_field_needs_quotes(line, 3, ","));  // empty field
  line += "x\"y";
  EXPECT_FALSE(csv_field_needs_quotes(line, 3, ","));  // a quote inside is a character
  line = "ab,\"x";
  EXPECT_TRUE(csv_field_needs_quotes(line, 3, ","));
  line = "ab,x;y";
  EXPECT_FALSE(csv_field_needs_quotes(line, 3, ","));
  EXPECT_TRUE(csv_field_needs_quotes(line, 3, ";"));
  EXPECT_TRUE(csv_field_needs_quotes(line, 3, "; "));
  line = "ab,x y";
  EXPECT_FALSE(csv_field_needs_quotes(line, 3, " ; "));  // blanks of a separator don't count

  line = "ab,\"x\"\"";
  quote_csv_field(line, 3, 0);
  EXPECT_EQ(line, "ab,\"\"\"x\"\"\"\"\"");
  line = "ab,x";
  quote_csv_field(line, 3, 6);
  EXPECT_EQ(line, "ab,\"x   \"");
  line = "ab,xyzzy";
  quote_csv_field(line, 3, 4);
  EXPECT_EQ(line, "ab,\"xyzzy\"");
  line = "ab,";
  quote_csv_field(line, 3, 0);
  EXPECT_EQ(line, "ab,\"\"");
}

TEST(ReportWriter, HoldsAnyOfAgreesWithALookAtEachByte) {
  // Every length up to past where the C library takes over, with none of
  // the three characters or one of them at a place drawn from a fixed seed.
  uint32_t seed = 99;
  auto next = [&seed]() {
    seed = seed * 1103515245u + 12345u;
    return seed >> 16;
  };
  for (size_t length = 0; length < 300; ++length) {
    for (int round = 0; round < 8; ++round) {
      std::string text;
      for (size_t i = 0; i < length; ++i) text += char('a' + next() % 26);
      if (round != 0 && length != 0) text[next() % length] = "|\n\r"[round % 3];
      const bool expected = text.find_first_of("|\n\r") != std::string::npos;
      ASSERT_EQ(holds_any_of(text.data(), text.size(), '|', '\n', '\r'), expected)
          << "length " << length << " round " << round;
    }
  }
}

TEST(ReportWriter, CleanFieldFindsMarksAtEveryPlace) {
  // The separator character, an LF or a CR at each place of a 40-byte text
  // behind a prefix that isn't cleaned: each is found wherever it stands in
  // the sixteen-byte blocks, and the text comes out as replacing and then
  // flattening it gives. The character returned is one the cleaned text is
  // known not to hold.
  // Texts of every length the looks treat apart (below a word, below a
  // block, whole blocks, past the point where the C library takes over).
  for (const size_t length : {0u, 1u, 3u, 7u, 8u, 9u, 15u, 16u, 17u, 31u, 40u, 255u, 256u, 300u}) {
    std::string plain;
    for (size_t i = 0; i < length; ++i) plain += char('a' + i % 26);
    std::string line = "head|" + plain;
    EXPECT_EQ(clean_field(line, 5, '|', ';'), length == 0 ? '\0' : '|') << length;
    EXPECT_EQ(line, "head|" + plain);
    for (size_t at = 0; at < length; ++at) {
      for (const char mark : {'|', '\n', '\r'}) {
        std::string text = plain;
        text[at] = mark;
        line = "head|" + text;
        const char absent = clean_field(line, 5, '|', ';');
        std::string expected = text;
        std::replace(expected.begin(), expected.end(), '|', ';');
        flatten_all_line_breaks(expected);
        ASSERT_EQ(line, "head|" + expected) << int(mark) << " at " << at << " of " << length;
        ASSERT_EQ(absent, mark == '|' ? '|' : '\0') << at << " of " << length;
      }
    }
  }
  // Every separator character of a text goes, however many there are.
  std::string line = "||a|b||c|||";
  EXPECT_EQ(clean_field(line, 0, '|', ';'), '|');
  EXPECT_EQ(line, ";;a;b;;c;;;");
  // Without a substitute nothing is replaced, and nothing is known absent.
  line = "a|b";
  EXPECT_EQ(clean_field(line, 0, '|', 0), '\0');
  EXPECT_EQ(line, "a|b");
  // A start at or past the end leaves the line as it is.
  EXPECT_EQ(clean_field(line, 3, '|', ';'), '\0');
  EXPECT_EQ(line, "a|b");

  // The character known absent is not looked for; the others still are.
  line = "x,a;b";
  EXPECT_TRUE(csv_field_needs_quotes(line, 2, ",;", 0));
  EXPECT_TRUE(csv_field_needs_quotes(line, 2, ",;", ','));
  EXPECT_FALSE(csv_field_needs_quotes(line, 2, ",;", ';'));
  line = "x,\"a";
  EXPECT_TRUE(csv_field_needs_quotes(line, 2, ",", ','));  // a quote in front still counts
}

// A text cell of a CSV form reads back as one field whatever it holds; the
// padded form keeps its layout with every line break flattened.
TEST(ReportWriter, HostileTextsInEveryForm) {
  const std::string hostile = "\"lead, \"quote\"\n\r\n\tx\ry";
  report_options o;
  defaults(o);
  set_columns(o, {{0, 4}, {0, 40}, {0, 4}});
  report_row row;
  ASSERT_TRUE(init_report_row(row, 3, 0));
  set_cell_text(row, 0, "a", rt_text, 0);
  set_cell_text(row, 1, hostile, rt_text, 0);
  set_cell_text(row, 2, "b|c", rt_text, 0);
  // Padded: the bar to a semicolon, line breaks flattened, nothing quoted.
  EXPECT_EQ(write_row(o, row), "a    | \"lead, \"quote\"[LFCR][LF][CRLF]\tx[CR]y    | b;c \n");

  // -csv: commas to blanks; the leading quote makes a quoted field.
  as_csv(o);
  EXPECT_EQ(write_row(o, row), "a,\"\"\"lead  \"\"quote\"\"[LFCR][LF][CRLF]\tx[CR]y\",b|c\n");

  // -csv -pair_datetime pads: the blanks go inside the quotes, the width
  // is kept.
  report_options p;
  defaults(p);
  p.pair_datetime = true;
  as_csv(p);
  set_columns(p, {{0, 4}, {0, 50}, {0, 4}});
  const std::string padded = write_row(p, row);
  const std::string field = "\"\"\"lead  \"\"quote\"\"[LFCR][LF][CRLF]\tx[CR]y";
  EXPECT_EQ(padded, "a   ," + field + std::string(50 - field.size() - 1, ' ') + "\",b|c \n");

  // -csvgen quotes the same way; -bodyfile isn't a CSV form and doesn't.
  report_options g;
  defaults(g);
  g.format_csvgen = true;
  g.separator = ",";
  g.separator_char = ',';
  g.sub_separator_char = ' ';
  g.no_whitespace = true;
  set_columns(g, {{0, 0}, {0, 0}, {0, 0}});
  EXPECT_EQ(write_row(g, row), "a,\"\"\"lead  \"\"quote\"\"[LFCR][LF][CRLF]\tx[CR]y\",b|c\n");

  // -multiline and -xml flatten too.
  report_options m;
  defaults(m);
  m.format_multiline = true;
  m.separator = "";
  m.separator_char = 0;
  m.header_row_pending = true;
  set_columns(m, {{0, 0}, {0, 0}, {0, 0}});
  const std::string multi = write_row(m, row);
  EXPECT_EQ(std::count(multi.begin(), multi.end(), '\n'), 4);
  EXPECT_EQ(multi.find('\r'), std::string::npos);
}

// -enable_quoted_csv_fields under -csv: every text is a quoted field, its
// own quotes doubled; the padded form keeps its padding inside the quotes.
TEST(ReportWriter, QuotedFieldsUnderCsv) {
  report_options o;
  defaults(o);
  as_csv(o);
  o.quoted_fields = true;
  o.pad_with_blanks = false;
  o.separator_char = 0;
  set_columns(o, {{0, 8}, {0, 8}, {0, 8}, {0, 8}});
  report_row row;
  ASSERT_TRUE(init_report_row(row, 4, rf_quote));
  set_cell_text(row, 0, "a,b", rt_text, 0);
  set_cell_text(row, 1, "data{\"k\":\"v\"}", rt_text, 0);
  set_cell_text(row, 2, "", rt_text, 0);
  // Stored as it stands (it opens a quoted structure): a comma in it makes
  // it a quoted field all the same.
  set_cell_text(row, 3, "{\"k\",1}", rt_text, 0);
  EXPECT_EQ(row.cells[1].text, "\"data{\"k\":\"v\"}\"");
  EXPECT_EQ(write_row(o, row), "\"a,b\",\"data{\"\"k\"\":\"\"v\"\"}\",\"\",\"{\"\"k\"\",1}\"\n");

  o.no_whitespace = false;  // -pair_datetime
  EXPECT_EQ(write_row(o, row), "\"a,b   \",\"data{\"\"k\"\":\"\"v\"\"}\",\"      \",\"{\"\"k\"\",1}\"\n");
}

TEST(ReportWriter, ColumnLine) {
  report_options o;
  defaults(o);
  set_columns(o, {{rt_filetime, 10}, {rt_untyped, 3}, {rt_untyped, 2}});
  o.column_table[0].text = "created";
  o.column_table[2].text = "long name";
  o.header_row_pending = true;
  std::ostringstream s;
  write_column_line(s, o);
  EXPECT_EQ(s.str(), " created    | c1  | long name\n");
  EXPECT_FALSE(o.header_row_pending);

  // -csv leaves pad_with_blanks set: the time column keeps its blank.
  as_csv(o);
  s.str("");
  write_column_line(s, o);
  EXPECT_EQ(s.str(), " created,c1,long name\n");

  as_no_whitespace(o);
  s.str("");
  write_column_line(s, o);
  EXPECT_EQ(s.str(), "created,c1,long name\n");

  // A pending column line comes ahead of the first row only.
  report_options p;
  defaults(p);
  set_columns(p, {{rt_untyped, 2}});
  p.header_row_pending = true;
  report_row row;
  ASSERT_TRUE(init_report_row(row, 1, 0));
  set_cell_text(row, 0, "v", rt_text, 0);
  EXPECT_EQ(write_row(p, row), "c0\nv \n");
  EXPECT_EQ(write_row(p, row), "v \n");
}

TEST(ReportWriter, NumbersPadded) {
  report_options o;
  defaults(o);
  set_columns(o, {{0, 8}, {0, 10}, {0, 7}, {0, 18}, {0, 3}, {0, 1}, {0, 8}, {0, 4}, {0, 6}, {0, 4},
                  {0, 2}});
  report_row row;
  ASSERT_TRUE(init_report_row(row, 11, 0));
  int32_t i = 0;
  i += set_cell_number(row, i, 42, rt_u16, 0);
  i += set_cell_number(row, i, 0xa3c, rt_u32, 0);
  i += set_cell_number(row, i, 0, rt_u8, rf_decimal);
  i += set_cell_number(row, i, 0x10, rt_u64, rf_hex);
  i += set_cell_number(row, i, 0x1234, rt_u32, 0);     // wider than its column
  i += set_cell_number(row, i, 42, rt_u16, 0);         // too narrow for "0x": type digits
  i += set_cell_number(row, i, 42, rt_u16, rf_arrow);  // "->" takes two of the width
  i += set_cell_number(row, i, 5, rt_u8, rf_blank | rf_decimal);
  i += set_cell_number(row, i, 0xa, rt_u32, rf_arrow | rf_hex);
  i += set_cell_number(row, i, 0, rt_u32, rf_zero_blank);
  i += set_cell_number(row, i, 42, rt_u16, 0);         // room for "0x" only: no zero-fill
  EXPECT_EQ(write_row(o, row),
            "0x00002a | 0x00000a3c |       0 | 0x0000000000000010 | 0x1234 | 0x002a | "
            "->0x002a |    5 | ->0x0a |      | 0x2a\n");

  // -base10: plain cells turn decimal, flagged hexadecimal stays.
  o.base16 = false;
  ASSERT_TRUE(init_report_row(row, 4, 0));
  set_cell_number(row, 0, 42, rt_u16, 0);
  set_cell_number(row, 1, 2620, rt_u32, 0);
  set_cell_number(row, 2, 3, rt_u8, rf_decimal);
  set_cell_number(row, 3, 0x10, rt_u64, rf_hex);
  EXPECT_EQ(write_row(o, row), "      42 |       2620 |       3 | 0x0000000000000010\n");
}

TEST(ReportWriter, NumbersWithoutWhitespace) {
  report_options o;
  defaults(o);
  as_csv(o);
  set_columns(o, {{0, 8}, {0, 8}, {0, 8}, {0, 8}, {0, 8}, {0, 8}, {0, 8}});
  report_row row;
  ASSERT_TRUE(init_report_row(row, 7, 0));
  set_cell_number(row, 0, 5, rt_u8, 0);
  set_cell_number(row, 1, 42, rt_u16, 0);
  set_cell_number(row, 2, 0xa3c, rt_u32, 0);
  set_cell_number(row, 3, 1, rt_u64, 0);
  set_cell_number(row, 4, 0, rt_u64, rf_hex);
  set_cell_number(row, 5, 7, rt_u16, rf_decimal);
  set_cell_number(row, 6, 0x8000000000000010ULL, rt_u64, rf_hex);
  EXPECT_EQ(write_row(o, row), "0x05,0x002a,0x00000a3c,0x00000001,0x0,7,0x8000000000000010\n");
}

TEST(ReportWriter, TextCells) {
  report_options o;
  defaults(o);
  set_columns(o, {{0, 6}, {0, 4}, {0, 3}, {0, 5}});
  report_row row;
  ASSERT_TRUE(init_report_row(row, 4, 0));
  set_cell_text(row, 0, "a|b", rt_text, 0);
  set_cell_text(row, 1, "abcdefgh", rt_text, 0);  // overruns; later cells shift
  set_cell_text(row, 2, "x\ny", rt_text, 0);      // no line break stands in a row
  set_cell_text(row, 3, "a,b", rt_text, rf_blank);
  EXPECT_EQ(write_row(o, row), "a;b    | abcdefgh | x[LF]y |  a,b \n");

  // -csv: comma to blank, line breaks flattened, no padding.
  as_csv(o);
  ASSERT_TRUE(init_report_row(row, 2, 0));
  set_cell_text(row, 0, "a,b|c", rt_text, 0);
  set_cell_text(row, 1, "l1\r\nl2", rt_text, 0);
  EXPECT_EQ(write_row(o, row), "a b|c,l1[CRLF]l2\n");

  // Another separator text: no character is replaced, and a CSV field that
  // holds the separator is quoted.
  o.separator = ":";
  o.separator_char = 0;
  o.sub_separator_char = 0;
  set_cell_text(row, 0, "a:b,c", rt_text, 0);
  EXPECT_EQ(write_row(o, row), "\"a:b,c\":l1[CRLF]l2\n");

  // -bodyfile: bar to semicolon, padding kept, line breaks flattened.
  report_options b;
  defaults(b);
  b.format_bodyfile = true;
  b.separator = "|";
  set_columns(b, {{0, 6}, {0, 2}});
  ASSERT_TRUE(init_report_row(row, 2, 0));
  set_cell_text(row, 0, "a|b\n", rt_text, 0);
  set_cell_text(row, 1, "", rt_text, 0);
  EXPECT_EQ(write_row(b, row), "a;b[LF]|  \n");

  // Quoted fields: stored with quotes, no separator character.
  report_options q;
  defaults(q);
  q.quoted_fields = true;
  q.separator.assign(1, '|');
  q.pad_with_blanks = false;
  q.separator_char = 0;
  set_columns(q, {{0, 6}, {0, 3}});
  ASSERT_TRUE(init_report_row(row, 2, rf_quote));
  set_cell_text(row, 0, "a|b", rt_text, 0);
  set_cell_number(row, 1, 1, rt_u8, rf_decimal);
  EXPECT_EQ(write_row(q, row), "\"a|b\" |  1\n");
}

TEST(ReportWriter, RenderedTextCellsWriteWhatStoredTextsWrite) {
  // A text written into the line when the row is written comes out as the
  // same text stored in the cell would, in every form.
  struct text_source {
    std::string text;
  };
  auto render = [](qv::line_text& out, const void* source) {
    out += static_cast<const text_source*>(source)->text;
  };
  const text_source texts[] = {{"a|b"}, {"l1\r\nl2,x"}, {"\"q\" and:colon"}, {""}, {"abcdefghijklmnop"}};
  auto check_both = [&](report_options& o, const std::string& expected_first) {
    report_row stored, rendered;
    for (const text_source& t : texts) {
      ASSERT_TRUE(init_report_row(stored, 2, 0));
      ASSERT_TRUE(init_report_row(rendered, 2, 0));
      set_cell_number(stored, 0, 7, rt_u8, rf_decimal);
      set_cell_number(rendered, 0, 7, rt_u8, rf_decimal);
      set_cell_text(stored, 1, t.text, rt_text, 0);
      ASSERT_TRUE(set_cell_rendered_text(rendered, 1, render, &t));
      const std::string a = write_row(o, stored);
      EXPECT_EQ(write_row(o, rendered), a) << t.text;
      if (&t == &texts[0]) {
        EXPECT_EQ(a, expected_first);
      }
    }
  };
  report_options d;
  defaults(d);
  set_columns(d, {{0, 3}, {0, 6}});
  check_both(d, "  7 | a;b   \n");
  report_options c;
  defaults(c);
  as_csv(c);
  set_columns(c, {{0, 3}, {0, 6}});
  check_both(c, "7,a|b\n");
  c.separator = ":";
  c.separator_char = 0;
  c.sub_separator_char = 0;
  check_both(c, "7:a|b\n");
  report_options n;
  defaults(n);
  as_no_whitespace(n);
  set_columns(n, {{0, 3}, {0, 6}});
  check_both(n, "7|a;b\n");

  // Rows whose texts get quotes or flattening when stored refuse it: the
  // caller stores the text instead.
  report_row row;
  const text_source t{"x"};
  ASSERT_TRUE(init_report_row(row, 2, rf_quote));
  EXPECT_FALSE(set_cell_rendered_text(row, 1, render, &t));
  ASSERT_TRUE(init_report_row(row, 2, rf_flatten));
  EXPECT_FALSE(set_cell_rendered_text(row, 1, render, &t));
}

TEST(ReportWriter, RowRefilledCellByCellWritesLikeAFreshRow) {
  // A row taken again without the reset of its cells, every cell then set:
  // nothing of the earlier row stays, whatever kind each cell was before.
  report_options o;
  defaults(o);
  set_columns(o, {{0, 6}, {0, 4}, {0, 5}});
  report_row reused;
  ASSERT_TRUE(init_report_row(reused, 3, 0));
  set_cell_text(reused, 0, "old text", rt_text, rf_cut);
  const uint8_t guid[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
  set_cell_bytes(reused, 1, guid, 16, rt_guid, 0);
  set_cell_number(reused, 2, 77, rt_u8, rf_hex);
  ASSERT_TRUE(init_report_row_for_all_cells(reused, 3, 0));
  set_cell_number(reused, 0, 5, rt_u16, 0);
  set_cell_text(reused, 1, "ab", rt_text, 0);
  set_cell_number(reused, 2, 9, rt_u8, rf_decimal);
  report_row fresh;
  ASSERT_TRUE(init_report_row(fresh, 3, 0));
  set_cell_number(fresh, 0, 5, rt_u16, 0);
  set_cell_text(fresh, 1, "ab", rt_text, 0);
  set_cell_number(fresh, 2, 9, rt_u8, rf_decimal);
  EXPECT_EQ(write_row(o, reused), write_row(o, fresh));
  EXPECT_EQ(write_row(o, fresh), "0x0005 | ab   |     9\n");
  EXPECT_FALSE(init_report_row_for_all_cells(reused, 0, 0));
  EXPECT_FALSE(init_report_row_for_all_cells(reused, 256, 0));
}

TEST(ReportWriter, TimeTicksAndGuidCells) {
  report_options o;
  defaults(o);
  set_columns(o, {{rt_filetime, 29}, {0, 29}, {0, 36}});
  report_row row;
  ASSERT_TRUE(init_report_row(row, 3, 0));
  set_cell_number(row, 0, kStamp, rt_filetime, 0);
  set_cell_number(row, 1, 1234, rt_ticks, 0);
  const uint8_t guid[16] = {0x11, 0x2a, 0x0b, 0x5f, 0x3e, 0x7c, 0x10, 0x4d,
                            0x9a, 0x55, 0x0c, 0x1d, 0x2e, 0x3f, 0x4a, 0x5b};
  set_cell_bytes(row, 2, guid, 16, rt_guid, 0);
  EXPECT_EQ(write_row(o, row),
            " 2026-03-04 05:06:07.123456700 |  0x00000000000004d2            | "
            "5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b\n");

  // Invalid time: blank, three blanks padded to 29. Short GUID: empty cell.
  set_cell_number(row, 0, 1, rt_filetime, 0);
  set_cell_number(row, 1, 1234, rt_ticks, 0);
  set_cell_bytes(row, 2, guid, 15, rt_guid, 0);
  o.base16 = false;
  EXPECT_EQ(write_row(o, row), std::string(30, ' ') + " |  1234" + std::string(25, ' ') + " | " +
                                   std::string(36, ' ') + "\n");
  // Flags of exactly 0x400000 keep a ticks cell hexadecimal under -base10.
  set_cell_number(row, 1, 1234, rt_ticks, rf_hex);
  EXPECT_EQ(write_row(o, row).substr(33, 20), " 0x00000000000004d2 ");

  // -csv: no blank before a valid time, yet the ticks cell keeps its blank.
  o.base16 = true;
  as_csv(o);
  set_cell_number(row, 0, kStamp, rt_filetime, 0);
  set_cell_number(row, 1, 1234, rt_ticks, 0);
  EXPECT_EQ(write_row(o, row), "2026-03-04 05:06:07.123456700, 0x00000000000004d2,\n");
  set_cell_number(row, 0, 0x8000000000000000ULL, rt_filetime, 0);
  EXPECT_EQ(write_row(o, row), " , 0x00000000000004d2,\n");

  as_no_whitespace(o);
  EXPECT_EQ(write_row(o, row), " ,0x00000000000004d2,\n");

  // The time text follows the compiled formats.
  report_options f;
  defaults(f);
  f.date_format = "mm/dd/yyyy";
  f.time_format = "hh:mm:ss";
  qv::parse_datetime_format(f.datetime_format, f.date_format, f.time_format, false);
  set_columns(f, {{rt_filetime, 19}});
  ASSERT_TRUE(init_report_row(row, 1, 0));
  set_cell_number(row, 0, kStamp, rt_filetime, 0);
  EXPECT_EQ(write_row(f, row), " 03/04/2026 05:06:07\n");
}

TEST(ReportWriter, MultilineRecord) {
  report_options o;
  defaults(o);
  o.format_multiline = true;
  o.separator = "";
  o.separator_char = 0;
  o.header_row_pending = true;
  set_columns(o, {{0, 8}, {0, 3}});
  o.column_table[0].text = "event id";
  o.column_table[1].text = "name";
  report_row row;
  ASSERT_TRUE(init_report_row(row, 2, 0));
  set_cell_number(row, 0, 42, rt_u16, 0);
  set_cell_text(row, 1, "x|y", rt_text, 0);
  // Labels get ":" and the longest label plus one as width; the values are
  // rendered in that width too.
  EXPECT_EQ(write_row(o, row), "event id: 0x0000002a\nname:     x|y       \n\n");
  EXPECT_FALSE(o.header_row_pending);
  EXPECT_EQ(o.column_table[1].text, "name:");
  EXPECT_EQ(write_row(o, row), "event id: 0x0000002a\nname:     x|y       \n\n");
}

TEST(ReportWriter, FiletimeTextMatchesFormatDatetime) {
  struct format_case {
    const char* date;
    const char* time;
  };
  const format_case formats[] = {
      {"yyyy-mm-dd", "hh:mm:ss.xxxxxxxxx"}, {"yyyy-mm-dd", "hh:mm:ss.xxx"},
      {"mm/dd/yy", "hh:mm:ss"},             {"dd-mmm-yy ", "hh:mm:ss.xxxx"},
      {"yyyymmdd", "hh:mm:ss.xxxxxxx"},     {"yyyy/dd/mm", "hh:mm:ss.xxxxxx"},
      {"abcdefgh", "hh:mm:ss.xxxxx"},       {"dd/mm/yyyy", "hh:mm:ss.xxxxxxxx"},
  };
  const uint64_t ticks[] = {
      kStamp,
      kStamp + 1,
      kStamp + 864000000000ULL - 1,  // next day
      116444736000000000ULL,         // first second of 1970: refused
      116444736000000000ULL + 9999999,
      116444736010000000ULL,
      94354848000000000ULL,          // 1900-01-01
      94354848000000000ULL - 1,
      0,
      1,
      0x7fffffffffffffffULL,
      0x8000000000000000ULL,
      0xffffffffffffffffULL,
      125911584000000000ULL + 1234567,  // 2000-01-01
      159334272009999999ULL,
  };
  filetime_text cache;
  for (const format_case& fc : formats) {
    for (int empty = 0; empty < 2; ++empty) {
      qv::datetime_format fmt;
      if (!empty) qv::parse_datetime_format(fmt, fc.date, fc.time, false);
      for (uint64_t t : ticks) {
        const qv::time stamp(t, qv::type_filetime);
        std::string date, time;
        qv::format_datetime(date, time, stamp, fmt);
        ASSERT_EQ(cache.set(t, fmt), stamp.is_valid()) << t;
        if (!stamp.is_valid()) continue;
        std::string got_time;
        cache.append_time(got_time);
        EXPECT_EQ(cache.date(), date) << fc.date << " " << t;
        EXPECT_EQ(got_time, time) << fc.time << " " << t;
      }
    }
  }
}

// A row written straight into its line is the line the same cells give when
// stored first, in every form and with every kind of value: numbers under
// each flag, times of one and two cells, GUIDs, bytes, texts that need
// cleaning or quotes, a rendered text, a type that stores nothing, and
// columns left out at the end.
TEST(ReportWriter, RowLineWritesWhatStoredCellsWrite) {
  struct text_source {
    std::string text;
  };
  auto render = [](qv::line_text& out, const void* source) { out += static_cast<const text_source*>(source)->text; };
  const text_source rendered{"data{\"01-a\":\"x|y,z\"}"};
  const uint8_t guid[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
  const uint8_t raw[3] = {0xab, 0x00, 0x7f};
  // How many of the twelve values below each row gets, and its flags.
  for (const size_t given : {12u, 9u}) {
    for (const uint32_t row_flags : {0u, uint32_t{rf_quote}, uint32_t{rf_flatten}}) {
      for (int form = 0; form < 4; ++form) {
        report_options o;
        defaults(o);
        if (form == 1) as_csv(o);
        if (form == 2) as_no_whitespace(o);
        if (form == 3) o.base16 = false;
        set_columns(o, {{rt_filetime, 30}, {rt_u32, 12}, {rt_u8, 4}, {rt_u64, 20}, {rt_guid, 36}, {rt_text, 16},
                        {rt_text, 16}, {rt_unix_two, 12}, {0, 10}, {rt_hex_pairs, 12}, {rt_ticks, 20}, {0, 6},
                        {rt_text, 10}, {rt_text, 30}});
        const int32_t count = static_cast<int32_t>(o.column_table.size());
        report_row row;
        ASSERT_TRUE(init_report_row(row, count, row_flags));
        std::ostringstream direct;
        row_line line(direct, o, count, row_flags);
        int32_t i = 0;
        size_t n = 0;
        auto number = [&](uint64_t v, uint16_t type, uint32_t flags) {
          if (n++ >= given) return;
          i += set_cell_number(row, i, v, type, flags);
          line.number(v, type, flags);
        };
        auto text = [&](const std::string& t, uint16_t type, uint32_t flags) {
          if (n++ >= given) return;
          i += set_cell_text(row, i, t, type, flags);
          line.text(t, type, flags);
        };
        auto bytes = [&](const uint8_t* data, uint32_t length, uint16_t type, uint32_t flags) {
          if (n++ >= given) return;
          i += set_cell_bytes(row, i, data, length, type, flags);
          line.bytes(data, length, type, flags);
        };
        number(kStamp, rt_filetime, 0);
        number(0x1234, rt_u32, 0);
        number(7, rt_u8, rf_decimal);
        number(0x8000000000000010ULL, rt_u64, rf_hex);
        bytes(guid, 16, rt_guid, 0);
        text("a|b\r\nc", rt_text, 0);
        text("\"quoted, text\"", rt_text, 0);
        number(1700000000, rt_unix_two, 0);  // two cells
        bytes(raw, 3, rt_hex_pairs, 0);
        number(123456789, rt_ticks, 0);
        text("nothing", 40, 0);  // a type that stores nothing
        number(0, rt_u16, rf_zero_blank);
        if (given == 12) {
          if (set_cell_rendered_text(row, i, render, &rendered)) {
            ASSERT_TRUE(line.rendered_text(render, &rendered));
          } else {
            ASSERT_FALSE(line.rendered_text(render, &rendered));
            set_cell_text(row, i, rendered.text, rt_text, 0);
            line.text(rendered.text, rt_text, 0);
          }
        }
        line.finish();
        const std::string stored = write_row(o, row);
        ASSERT_FALSE(stored.empty());
        EXPECT_EQ(direct.str(), stored) << "form " << form << " flags " << row_flags << " given " << given;
      }
    }
  }
  // An invalid count writes nothing either way.
  report_options o;
  defaults(o);
  std::ostringstream direct;
  row_line line(direct, o, 0, 0);
  line.number(1, rt_u8, 0);
  line.finish();
  EXPECT_EQ(direct.str(), "");
}
