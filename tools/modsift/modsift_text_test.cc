#include "tools/modsift/modsift_text.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using modsift::utf16_at;

qv::byte_span span_of(const std::vector<uint8_t>& v) { return qv::byte_span(v.data(), v.size()); }

TEST(ModsiftText, Utf16Reads) {
  // "Ab", a terminator, then more text that must not be read.
  std::vector<uint8_t> v = {'A', 0, 'b', 0, 0, 0, 'x', 0};
  EXPECT_EQ(utf16_at(span_of(v), 0, 100), "Ab");
  EXPECT_EQ(utf16_at(span_of(v), 6, 100), "x");
  EXPECT_EQ(utf16_at(span_of(v), 0, 1), "A");  // unit cap
  EXPECT_EQ(utf16_at(span_of(v), 9, 100), "");  // past the end
  // U+00E9 (2 bytes in UTF-8), U+20AC (3 bytes), U+1F600 as a surrogate pair.
  std::vector<uint8_t> w = {0xE9, 0x00, 0xAC, 0x20, 0x3D, 0xD8, 0x00, 0xDE};
  EXPECT_EQ(utf16_at(span_of(w), 0, 100), "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
  // A high surrogate with nothing behind it, and a lone low one.
  std::vector<uint8_t> lone = {0x3D, 0xD8, 0x00, 0xDE, 'z', 0};
  EXPECT_EQ(utf16_at(qv::byte_span(lone.data(), 2), 0, 100), "\xEF\xBF\xBD");
  EXPECT_EQ(utf16_at(span_of(lone), 2, 100), "\xEF\xBF\xBD" "z");
  // An odd byte at the end is not half a unit.
  std::vector<uint8_t> odd = {'q', 0, 'r'};
  EXPECT_EQ(utf16_at(span_of(odd), 0, 100), "q");
}

TEST(ModsiftText, GuidTextAndNames) {
  // The first provider of the Large test manifest,
  // {716EFEF7-5AC2-4EE0-8277-D9226411A155}, as its bytes lie in the blob.
  const uint8_t raw[16] = {0xf7, 0xfe, 0x6e, 0x71, 0xc2, 0x5a, 0xe0, 0x4e,
                           0x82, 0x77, 0xd9, 0x22, 0x64, 0x11, 0xa1, 0x55};
  EXPECT_EQ(modsift::guid_text(qv::make_guid(raw)), "716efef7-5ac2-4ee0-8277-d9226411a155");

  // What would end a token or a column is replaced; blanks at the ends go.
  EXPECT_EQ(modsift::clean_field_name("  a,b!c\td\r\n "), "a_b_c_d__");
  EXPECT_EQ(modsift::clean_field_name("Field.1.1"), "Field.1.1");
  EXPECT_EQ(modsift::clean_field_name("   "), "");
  EXPECT_EQ(modsift::clean_field_name("x|y;z"), "x|y;z");  // fine inside an event line
  EXPECT_EQ(modsift::clean_provider_name("Name{A+B)|c;d,e!f"), "Name{A+B)_c_d_e_f");
  EXPECT_EQ(modsift::clean_comment("a\nb\x7f"), "a?b?");

  std::string hex;
  const uint8_t b[3] = {0x0f, 0xa0, 0x01};
  modsift::append_hex(hex, b, 3);
  EXPECT_EQ(hex, "0fa001");
}

}  // namespace
