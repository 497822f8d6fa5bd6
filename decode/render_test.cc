#include "decode/render.h"
#include "support/qv_string.h"

#include <gtest/gtest.h>

#include <string>

namespace {

decoded_field& put(decoded_fields& fields, uint64_t key, const char* name) {
  decoded_field* f = fields.add(key);
  EXPECT_NE(f, nullptr);
  f->name = name;
  return *f;
}

std::string render(decoded_fields& fields) {
  std::string out;
  render_fields(out, fields);
  return out;
}

const uint8_t kGuidBytes[16] = {0x33, 0x22, 0x11, 0x00, 0x55, 0x44, 0x77, 0x66,
                                0x88, 0x99, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff};

TEST(RenderFields, TextPathsAndQuotes) {
  decoded_fields fields;
  put(fields, 10, "Path").text = "C:\\Windows\\System32";
  put(fields, 20, "Quote").text = "say \"hi\"";
  put(fields, 30, "Both").text = "a\\\"b";  // backslash, then a quote
  EXPECT_EQ(render(fields),
            "\"01-Path\":\"C:/Windows/System32\";"
            "\"02-Quote\":\"say \\\"hi\\\"\";"
            "\"03-Both\":\"a/\\\"b\"");
}

TEST(RenderFields, LongTextsEscapeEveryPlace) {
  // Texts longer than a word: the marks stand in the first word, at a word's
  // edge, in a later word and in the last bytes, one after another.
  decoded_fields fields;
  put(fields, 1, "A").text = "abcdefgh\\ijklmnop";        // backslash at 8
  put(fields, 2, "B").text = "abcdefg\"hijklmnopqrstuvw";  // quote at 7
  put(fields, 3, "C").text = "0123456789abcdefghij\\\"";  // both at the end
  put(fields, 4, "D").text = "no marks in this long text at all";
  put(fields, 5, "E").text = "\\\\\\\\\\\\\\\\\"";  // eight backslashes, a quote
  EXPECT_EQ(render(fields),
            "\"01-A\":\"abcdefgh/ijklmnop\";"
            "\"02-B\":\"abcdefg\\\"hijklmnopqrstuvw\";"
            "\"03-C\":\"0123456789abcdefghij/\\\"\";"
            "\"04-D\":\"no marks in this long text at all\";"
            "\"05-E\":\"////////\\\"\"");
}

TEST(RenderFields, MarksAtEveryPlaceOfBlockLongTexts) {
  // Texts read sixteen bytes at a time: a backslash or a quote at each place
  // of a 40-byte text (first block, block edges, the tail behind the last
  // whole block), alone and beside a second mark, and texts of marks only,
  // each checked against the rule itself: a backslash becomes "/", a quote
  // gets a backslash in front.
  auto escaped = [](const std::string& t) {
    std::string e;
    for (char c : t) {
      if (c == '\\') e += '/';
      else if (c == '"') e += "\\\"";
      else e += c;
    }
    return e;
  };
  const std::string plain = "0123456789abcdefghijklmnopqrstuvwxyzABCD";
  for (size_t at = 0; at < plain.size(); ++at) {
    for (const char mark : {'\\', '"'}) {
      std::string one = plain;
      one[at] = mark;
      std::string two = one;
      two[(at + 17) % two.size()] = mark == '"' ? '\\' : '"';
      decoded_fields fields;
      put(fields, 1, "A").text = one;
      put(fields, 2, "B").text = two;
      ASSERT_EQ(render(fields), "\"01-A\":\"" + escaped(one) + "\";\"02-B\":\"" + escaped(two) + "\"")
          << "mark at " << at;
    }
  }
  for (const size_t n : {15u, 16u, 17u, 32u, 33u, 100u}) {
    std::string marks;
    for (size_t i = 0; i < n; ++i) marks += i % 3 == 0 ? '\\' : '"';
    decoded_fields fields;
    put(fields, 1, "M").text = marks;
    ASSERT_EQ(render(fields), "\"01-M\":\"" + escaped(marks) + "\"") << n << " marks";
  }
}

TEST(RenderFields, GuidBytesAndNumbers) {
  decoded_fields fields;
  decoded_field& g = put(fields, 1, "guid");
  g.type = 15;
  g.bytes.assign(kGuidBytes, kGuidBytes + 16);
  decoded_field& raw = put(fields, 2, "");  // word 146: the same bytes, no braces
  raw.type = 146;
  raw.bytes.assign(kGuidBytes, kGuidBytes + 16);
  decoded_field& four = put(fields, 3, "Four");
  four.type = 14;
  four.bytes = {0x01, 0x02, 0x03, 0x04};  // memory order, not a number
  decoded_field& b = put(fields, 4, "B");
  b.number = 5;
  b.size = 1;
  decoded_field& d = put(fields, 5, "D");
  d.number = 0x1234;
  d.size = 4;
  decoded_field& q = put(fields, 6, "Q");
  q.number = 0xABC;
  q.size = 8;
  put(fields, 7, "Nothing");  // no text, no bytes, size 0
  decoded_field& st = put(fields, 8, "Sys");
  st.number = 0x1122;
  st.size = 16;
  EXPECT_EQ(render(fields),
            "\"01-guid\":\"{00112233-4455-6677-8899-aabbccddeeff}\";"
            "\"02\":\"33221100554477668899aabbccddeeff\";"
            "\"03-Four\":\"01020304\";"
            "\"04-B\":\"0x05\";"
            "\"05-D\":\"0x00001234\";"
            "\"06-Q\":\"0x0000000000000abc\";"
            "\"07-Nothing\":\"0x0\";"
            "\"08-Sys\":\"0x00000000000000000000000000001122\"");

  // A GUID type with other than 16 bytes is plain hexadecimal.
  decoded_fields short_guid;
  decoded_field& sg = put(short_guid, 1, "g");
  sg.type = 15;
  sg.bytes = {0xAB, 0xCD};
  EXPECT_EQ(render(short_guid), "\"01-g\":\"abcd\"");
}

TEST(RenderFields, SkipsWithoutTextShowNothing) {
  decoded_fields fields;
  decoded_field& c = put(fields, 1, "C");
  c.subtype = 0xC2;
  c.number = 7;
  c.size = 4;
  decoded_field& e = put(fields, 2, "E");
  e.subtype = 0xE1;
  decoded_field& skip = put(fields, 3, "Pad_3_bytes");
  skip.subtype = 0xB1;
  skip.text = "{blob}";
  EXPECT_EQ(render(fields), "\"01-C\":\"\";\"02-E\":\"\";\"03-Pad_3_bytes\":\"{blob}\"");
}

TEST(RenderFields, CounterAndEmptyList) {
  decoded_fields fields;
  std::string out = "keep";
  render_fields(out, fields);
  EXPECT_EQ(out, "keep");

  for (uint64_t i = 0; i < 100; ++i) {
    decoded_field* f = fields.add(i);
    f->number = i;
    f->size = 1;
  }
  std::string text = render(fields);
  EXPECT_EQ(text.substr(0, 20), "\"01\":\"0x00\";\"02\":\"0x");
  EXPECT_NE(text.find(";\"09\":\"0x08\";\"10\":\"0x09\";"), std::string::npos);
  EXPECT_NE(text.find(";\"99\":\"0x62\";\"100\":\"0x63\""), std::string::npos);
  EXPECT_EQ(text.back(), '"');
  EXPECT_EQ(text.find('\n'), std::string::npos);
}

TEST(RenderHelpers, HexAndDecimal) {
  std::string s;
  append_hex(s, 0, 0);
  s += ' ';
  append_hex(s, 0xABC, 0);
  s += ' ';
  append_hex(s, 0xABC, 6);
  s += ' ';
  append_hex(s, 0xFFFFFFFFFFFFFFFFULL, 16);
  s += ' ';
  append_hex(s, 1, 32);
  s += ' ';
  append_hex(s, 0x123456789ULL, 40);  // wider than 32 digits: 32
  s += ' ';
  append_hex(s, 0x10, 1);  // narrower than the number: the number
  s += ' ';
  append_decimal(s, 0);
  s += ' ';
  append_decimal(s, 18446744073709551615ULL);
  EXPECT_EQ(s, "0 abc 000abc ffffffffffffffff 00000000000000000000000000000001 "
               "00000000000000000000000123456789 10 0 18446744073709551615");
}

TEST(MarkLineEnds, LineBreakForms) {
  struct {
    std::string in;
    std::string out;
  } cases[] = {
      {"a\r\nb", "a[CRLF]b"},
      {"a\n\rb", "a[LFCR]b"},
      {"a\rb", "a[CR]b"},
      {"a\rb\nc", "a\rb[LF]c"},        // a CR stays when the text has an LF
      {"\n\r\n", "[LFCR]\n[CRLF]"},    // the last LF's CR was already used
      {"x\ny\nz", "x[LF]y[LF]z"},
      {"\n", "[LF]"},
      {"\r\r", "[CR][CR]"},
      {"plain", "plain"},
      {"", ""},
  };
  for (const auto& c : cases) {
    std::string text = c.in;
    qv::flatten_line_breaks(text);
    EXPECT_EQ(text, c.out) << "input of " << c.in.size() << " bytes";
  }
}

}  // namespace
