#include "support/qv_string.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>

namespace {

// UTF-16LE bytes of the given units, in a buffer of exactly that size so
// that the address sanitizer sees any read past it.
std::vector<uint8_t> le16(std::initializer_list<uint16_t> units) {
  std::vector<uint8_t> b;
  for (uint16_t u : units) {
    b.push_back(uint8_t(u));
    b.push_back(uint8_t(u >> 8));
  }
  return b;
}

std::vector<uint8_t> bytes(std::initializer_list<int> v) {
  std::vector<uint8_t> b;
  for (int x : v) b.push_back(uint8_t(x));
  return b;
}

}  // namespace

TEST(QvString, Utf16SurrogatesAndFallback) {
  std::wstring w;
  std::string s;

  // A proper pair gives one code point.
  auto pair = le16({0xD83D, 0xDE00});
  EXPECT_EQ(qv::utf16_to_wide(pair.data(), w, uint32_t(pair.size())), 4u);
  EXPECT_EQ(w, std::wstring(1, wchar_t(0x1F600)));
  EXPECT_EQ(qv::utf16_text(pair.data(), s, uint32_t(pair.size()), false), 4u);
  EXPECT_EQ(s, "\xF0\x9F\x98\x80");

  // A high surrogate followed by something else: every unit stands alone.
  auto broken = le16({0xD83D, 0x0041});
  EXPECT_EQ(qv::utf16_to_wide(broken.data(), w, uint32_t(broken.size())), 4u);
  EXPECT_EQ(w, (std::wstring{wchar_t(0xD83D), L'A'}));
  EXPECT_EQ(qv::utf16_text(broken.data(), s, uint32_t(broken.size()), false), 4u);
  EXPECT_EQ(s, "\xED\xA0\xBD" "A");

  // One broken pair turns off pairing for the whole text, good pairs too.
  auto mixed = le16({0xD83D, 0xDE00, 0xD83D, 0x0041});
  EXPECT_EQ(qv::utf16_to_wide(mixed.data(), w, uint32_t(mixed.size())), 8u);
  EXPECT_EQ(w, (std::wstring{wchar_t(0xD83D), wchar_t(0xDE00), wchar_t(0xD83D), L'A'}));
  qv::utf16_text(mixed.data(), s, uint32_t(mixed.size()), false);
  EXPECT_EQ(s, "\xED\xA0\xBD\xED\xB8\x80\xED\xA0\xBD" "A");

  // A lone low surrogate passes and encodes as three bytes.
  auto lone = le16({0xDC00});
  EXPECT_EQ(qv::utf16_to_wide(lone.data(), w, 2), 2u);
  EXPECT_EQ(w, std::wstring(1, wchar_t(0xDC00)));
  EXPECT_EQ(qv::utf16_text(lone.data(), s, 2, false), 2u);
  EXPECT_EQ(s, "\xED\xB0\x80");

  // A high surrogate cut off by the limit or by the zero unit is broken.
  EXPECT_EQ(qv::utf16_to_wide(pair.data(), w, 2), 2u);
  EXPECT_EQ(w, std::wstring(1, wchar_t(0xD83D)));
  auto cut = le16({0xD83D, 0, 0xDE00});
  EXPECT_EQ(qv::utf16_to_wide(cut.data(), w, uint32_t(cut.size())), 2u);
  EXPECT_EQ(w, std::wstring(1, wchar_t(0xD83D)));

  // Two- and three-byte forms.
  auto bmp = le16({0x00E9, 0x20AC, 0x0041});
  EXPECT_EQ(qv::utf16_text(bmp.data(), s, uint32_t(bmp.size()), false), 6u);
  EXPECT_EQ(s, "\xC3\xA9\xE2\x82\xAC" "A");
}

TEST(QvString, Utf16LimitsAndTerminator) {
  std::wstring w;
  std::string s;

  EXPECT_EQ(qv::utf16_to_wide(nullptr, w, 10), 0u);
  auto ab = le16({'A', 'B'});
  EXPECT_EQ(qv::utf16_to_wide(ab.data(), w, 0), 0u);
  EXPECT_TRUE(w.empty());
  // Less than one whole unit reads nothing.
  EXPECT_EQ(qv::utf16_text(ab.data(), s, 1, true), 0u);
  EXPECT_TRUE(s.empty());
  // An odd limit drops the half unit; the buffer of 3 bytes is never passed.
  std::vector<uint8_t> odd = {'A', 0, 'B'};
  EXPECT_EQ(qv::utf16_text(odd.data(), s, 3, false), 2u);
  EXPECT_EQ(s, "A");

  // Unbounded form: 600 units without a zero unit give 500, from a buffer of
  // exactly 1000 bytes.
  std::vector<uint8_t> big(1000);
  for (size_t i = 0; i < big.size(); i += 2) big[i] = 'x';
  EXPECT_EQ(qv::utf16_to_wide(big.data(), w, 0xFFFFFFFFu), 1000u);
  EXPECT_EQ(w.size(), 500u);
  EXPECT_EQ(qv::utf16_text(big.data(), s, 0xFFFFFFFFu, true), 1000u);
  EXPECT_EQ(s, std::string(500, 'x'));
  std::vector<uint8_t> longer(1200);
  for (size_t i = 0; i < longer.size(); i += 2) longer[i] = 'y';
  EXPECT_EQ(qv::utf16_to_wide(longer.data(), w, 0xFFFFFFFFu), 1000u);

  // The terminator is counted only when it lies inside the limit, and never
  // in the unbounded form.
  auto term = le16({'A', 0, 'B'});
  EXPECT_EQ(qv::utf16_text(term.data(), s, 6, true), 4u);
  EXPECT_EQ(s, "A");
  EXPECT_EQ(qv::utf16_text(term.data(), s, 6, false), 2u);
  EXPECT_EQ(qv::utf16_text(term.data(), s, 4, true), 4u);  // 2 < 4 - 1
  EXPECT_EQ(qv::utf16_text(term.data(), s, 3, true), 2u);  // 2 < 3 - 1 fails
  EXPECT_EQ(qv::utf16_text(term.data(), s, 0xFFFFFFFFu, true), 2u);
  // An empty text (zero unit first) gets nothing added.
  auto empty = le16({0, 'A'});
  EXPECT_EQ(qv::utf16_text(empty.data(), s, 4, true), 0u);
  EXPECT_TRUE(s.empty());
  EXPECT_EQ(qv::utf16_to_wide(empty.data(), w, 4), 0u);
}

TEST(QvString, Utf16TextMatchesTwoStepConversion) {
  // utf16_text goes straight to UTF-8; it must equal to_narrow(utf16_to_wide).
  const uint16_t pool[] = {0, 'A', 0x7F, 0x80, 0xE9, 0x7FF, 0x800, 0x20AC, 0xFFFF,
                           0xD800, 0xDBFF, 0xDC00, 0xDFFF, 0xD83D, 0xDE00};
  uint32_t seed = 12345;
  auto next = [&seed]() {
    seed = seed * 1103515245u + 12345u;
    return seed >> 16;
  };
  for (int round = 0; round < 3000; ++round) {
    std::vector<uint8_t> buf(2 * (1 + next() % 12));
    for (size_t i = 0; i < buf.size(); i += 2) {
      uint16_t u = pool[next() % (sizeof pool / sizeof pool[0])];
      if (u == 0 && next() % 4) u = 'z';  // keep zero units rarer
      buf[i] = uint8_t(u);
      buf[i + 1] = uint8_t(u >> 8);
    }
    const uint32_t max_bytes = uint32_t(next() % (buf.size() + 1));
    std::wstring w;
    std::string s;
    const uint32_t wide_count = qv::utf16_to_wide(buf.data(), w, max_bytes);
    const uint32_t text_count = qv::utf16_text(buf.data(), s, max_bytes, false);
    ASSERT_EQ(text_count, wide_count) << "round " << round;
    ASSERT_EQ(s, qv::to_narrow(w)) << "round " << round;
  }
}

TEST(QvString, Utf16TextLongMostlyAsciiTexts) {
  // Long texts, mostly ASCII, so that the word-at-a-time copy, the stack
  // buffer's refills (every 256 characters) and the fallback on a late
  // character beyond ASCII all run; each must equal the two-step conversion.
  const uint16_t rare[] = {0, 0x80, 0xE9, 0x20AC, 0xD83D, 0xDE00, 0x100, 0x7F};
  uint32_t seed = 777;
  auto next = [&seed]() {
    seed = seed * 1103515245u + 12345u;
    return seed >> 16;
  };
  for (int round = 0; round < 400; ++round) {
    std::vector<uint8_t> buf(2 * (1 + next() % 700));
    for (size_t i = 0; i < buf.size(); i += 2) {
      uint16_t u = uint16_t(' ' + next() % 95);
      if (next() % 300 == 0) u = rare[next() % (sizeof rare / sizeof rare[0])];
      buf[i] = uint8_t(u);
      buf[i + 1] = uint8_t(u >> 8);
    }
    const uint32_t max_bytes = round % 3 == 0 ? uint32_t(buf.size()) : uint32_t(next() % (buf.size() + 1));
    std::wstring w;
    std::string s;
    const uint32_t wide_count = qv::utf16_to_wide(buf.data(), w, max_bytes);
    const uint32_t text_count = qv::utf16_text(buf.data(), s, max_bytes, false);
    ASSERT_EQ(text_count, wide_count) << "round " << round;
    ASSERT_EQ(s, qv::to_narrow(w)) << "round " << round;
  }
  // A 300-character ASCII text read whole: 256 characters, then 44 more.
  std::vector<uint8_t> long_text;
  for (int i = 0; i < 300; ++i) {
    long_text.push_back(uint8_t('a' + i % 26));
    long_text.push_back(0);
  }
  std::string s;
  EXPECT_EQ(qv::utf16_text(long_text.data(), s, 600, true), 600u);
  ASSERT_EQ(s.size(), 300u);
  EXPECT_EQ(s.substr(0, 3), "abc");
  EXPECT_EQ(s.substr(286, 14), "abcdefghijklmn");  // 286 = 11 * 26
}

TEST(QvString, Utf16TextStopsAtEveryPlaceOfABlock) {
  // Forty ASCII units with one unit beyond ASCII, or a zero unit, at each
  // place: the sixteen-unit blocks must hand over to the slower paths at the
  // right unit, and a zero unit ends the text there.
  for (size_t at = 0; at < 40; ++at) {
    for (const uint16_t odd : {uint16_t{0xE9}, uint16_t{0x20AC}, uint16_t{0x80}, uint16_t{0}}) {
      std::vector<uint8_t> buf;
      for (size_t i = 0; i < 40; ++i) {
        const uint16_t u = i == at ? odd : uint16_t('a' + i % 26);
        buf.push_back(uint8_t(u));
        buf.push_back(uint8_t(u >> 8));
      }
      std::string expected;
      for (size_t i = 0; i < 40; ++i) {
        if (i != at) {
          expected += char('a' + i % 26);
        } else if (odd == 0) {
          break;
        } else {
          std::string one;
          ASSERT_TRUE(qv::wide_to_utf8(one, std::wstring(1, wchar_t(odd))));
          expected += one;
        }
      }
      std::string s;
      const uint32_t read = qv::utf16_text(buf.data(), s, uint32_t(buf.size()), true);
      ASSERT_EQ(s, expected) << "unit " << std::hex << odd << " at " << std::dec << at;
      // The zero unit is counted as read; otherwise every unit is.
      ASSERT_EQ(read, odd == 0 ? uint32_t(2 * at + (at == 0 ? 0 : 2)) : 80u) << at;
    }
  }
}

TEST(QvString, Utf8WideConversions) {
  std::string s;
  std::wstring w;

  // Boundaries of each encoded length.
  const std::wstring bounds = {wchar_t(0x7F),   wchar_t(0x80),    wchar_t(0x7FF),
                               wchar_t(0x800),  wchar_t(0xFFFF),  wchar_t(0x10000),
                               wchar_t(0x10FFFF)};
  EXPECT_TRUE(qv::wide_to_utf8(s, bounds));
  EXPECT_EQ(s, "\x7F" "\xC2\x80" "\xDF\xBF" "\xE0\xA0\x80" "\xEF\xBF\xBF" "\xF0\x90\x80\x80"
               "\xF4\x8F\xBF\xBF");
  EXPECT_TRUE(qv::utf8_to_wide(w, s));
  EXPECT_EQ(w, bounds);

  // A value past 0x10FFFF stops with what came before it.
  EXPECT_FALSE(qv::wide_to_utf8(s, std::wstring{L'A', wchar_t(0x110000), L'B'}));
  EXPECT_EQ(s, "A");
  EXPECT_EQ(qv::to_narrow(std::wstring{L'A', wchar_t(0x110000), L'B'}), "A");
  // Surrogate values encode as three bytes.
  EXPECT_EQ(qv::to_narrow(std::wstring(1, wchar_t(0xD800))), "\xED\xA0\x80");

  // Decoding failures keep what was decoded.
  EXPECT_FALSE(qv::utf8_to_wide(w, "\xC3"));
  EXPECT_TRUE(w.empty());
  EXPECT_FALSE(qv::utf8_to_wide(w, "ab\xC3"));
  EXPECT_EQ(w, L"ab");
  EXPECT_FALSE(qv::utf8_to_wide(w, "a\xC3" "A"));  // bad continuation
  EXPECT_EQ(w, L"a");
  EXPECT_FALSE(qv::utf8_to_wide(w, "a\x80"));  // stray continuation as lead
  EXPECT_FALSE(qv::utf8_to_wide(w, "a\xF8\x80\x80\x80\x80"));
  EXPECT_EQ(w, L"a");
  // Overlong forms and encoded surrogates are taken at their value.
  EXPECT_TRUE(qv::utf8_to_wide(w, std::string("\xC1\x81")));
  EXPECT_EQ(w, L"A");
  EXPECT_TRUE(qv::utf8_to_wide(w, "\xED\xA0\xBD"));
  EXPECT_EQ(w, std::wstring(1, wchar_t(0xD83D)));

  // to_wide is all or nothing.
  EXPECT_EQ(qv::to_wide("ok\xFFmore"), L"");
  EXPECT_EQ(qv::to_wide(""), L"");
  EXPECT_EQ(qv::to_wide("caf\xC3\xA9"), L"caf\u00e9");
}

TEST(QvString, CaseAndTrim) {
  std::string a = "MiXeD 1!";
  EXPECT_EQ(qv::to_lower(a), "mixed 1!");
  EXPECT_EQ(qv::to_upper(a), "MIXED 1!");
  std::wstring wa = L"AbC";
  EXPECT_EQ(qv::to_lower(wa), L"abc");

  std::string x = "Provider", y = "PROVIDER", z = "PROVIDERS";
  EXPECT_TRUE(qv::equal_nocase(x, y));
  EXPECT_EQ(x, "provider");  // arguments are lowered in place
  EXPECT_FALSE(qv::equal_nocase(x, z));

  std::string t = " \t a b \r\n";
  EXPECT_TRUE(qv::trim(t));
  EXPECT_EQ(t, "a b");
  t = " \r\n\t ";
  EXPECT_FALSE(qv::trim(t));
  EXPECT_TRUE(t.empty());

  // The wide trim works in passes: a blank behind a leading CR survives, and
  // an LF is only taken from the right.
  std::wstring wt = L" \r x\t";
  EXPECT_TRUE(qv::trim(wt));
  EXPECT_EQ(wt, L" x");
  wt = L"\n abc \n";
  EXPECT_TRUE(qv::trim(wt));
  EXPECT_EQ(wt, L"\n abc ");
  wt = L"\t\r\n";
  EXPECT_FALSE(qv::trim(wt));
  EXPECT_TRUE(wt.empty());

  std::string eol = "line\r\n\n";
  EXPECT_EQ(qv::strip_eol(eol), 3u);
  EXPECT_EQ(eol, "line");
  EXPECT_EQ(qv::strip_eol(eol), 0u);

  std::wstring path = L"C:\\dir/sub\\/";
  EXPECT_TRUE(qv::strip_trailing_separators(path));
  EXPECT_EQ(path, L"C:\\dir/sub");
  path = L"/\\/";
  EXPECT_FALSE(qv::strip_trailing_separators(path));
}

TEST(QvString, CharactersAndSubstrings) {
  std::string s = "a-b--c";
  EXPECT_EQ(qv::remove_char(s, '-'), 3u);
  EXPECT_EQ(s, "abc");

  s = "say \"hi\"";
  qv::escape_char(s, '"', '\\');
  EXPECT_EQ(s, "say \\\"hi\\\"");
  s = "50%";
  qv::escape_char(s, '%', '%');  // escape equal to the character: doubled once
  EXPECT_EQ(s, "50%%");

  s = "aAbB";
  qv::replace_char(s, 'a', 'x');
  EXPECT_EQ(s, "xAbB");
  s = "aAbB";
  qv::replace_char(s, 'a', 'x', true);
  EXPECT_EQ(s, "xxbB");
  s = "aA";
  qv::replace_char(s, 'a', 'a', true);  // narrow: same from and to does nothing
  EXPECT_EQ(s, "aA");
  std::wstring ws = L"aA";
  qv::replace_char(ws, L'a', L'a', true);  // wide: the other case form is replaced
  EXPECT_EQ(ws, L"aa");
  ws = L"a|b|c";
  qv::replace_char(ws, L'|', L',');
  EXPECT_EQ(ws, L"a,b,c");

  s = "Hello World world";
  std::string what = "WORLD";
  EXPECT_FALSE(qv::erase_first(s, what, false));
  EXPECT_TRUE(qv::erase_first(s, what, true));
  EXPECT_EQ(what, "world");
  EXPECT_EQ(s, "Hello  world");

  std::ostringstream os;
  qv::pad_blanks(os, 0);
  EXPECT_EQ(os.str(), "");
  qv::pad_blanks(os, 130);
  EXPECT_EQ(os.str(), std::string(130, ' '));
}

TEST(QvString, ExpandEnvironment) {
  ::setenv("QV_TEST_A", "alpha", 1);
  ::setenv("QV_TEST_B", "%QV_TEST_A%/b", 1);
  ::setenv("QV_TEST_SELF", "%QV_TEST_SELF%", 1);
  ::setenv("QV_TEST_GROW", "x%QV_TEST_GROW%", 1);
  ::unsetenv("QV_TEST_NOPE");
  ::unsetenv("vss");
  ::unsetenv("VSS");

  std::string t = "x%QV_TEST_A%y";
  EXPECT_EQ(qv::expand_environment(t, false), "xalphay");
  t = "%QV_TEST_B%";  // a value with a reference is expanded in turn
  EXPECT_EQ(qv::expand_environment(t, false), "alpha/b");
  // An unknown reference stays; its closing "%" doesn't open another one.
  t = "%QV_TEST_NOPE%QV_TEST_A%";
  EXPECT_EQ(qv::expand_environment(t, false), "%QV_TEST_NOPE%QV_TEST_A%");
  t = "%QV_TEST_NOPE%x%QV_TEST_A%";
  EXPECT_EQ(qv::expand_environment(t, false), "%QV_TEST_NOPE%xalpha");
  t = "100% sure";
  EXPECT_EQ(qv::expand_environment(t, true), "100% sure");

  t = "%vss%7\\Windows";
  EXPECT_EQ(qv::expand_environment(t, false), "%vss%7\\Windows");
  EXPECT_EQ(qv::expand_environment(t, true),
            "\\\\?\\GLOBALROOT\\Device\\HarddiskVolumeShadowCopy7\\Windows");
  t = "%VsS%1%QV_TEST_A%";
  EXPECT_EQ(qv::expand_environment(t, true),
            "\\\\?\\GLOBALROOT\\Device\\HarddiskVolumeShadowCopy1alpha");

  // Self reference ends; growth stops once past 512 characters.
  t = "%QV_TEST_SELF%";
  EXPECT_EQ(qv::expand_environment(t, false), "%QV_TEST_SELF%");
  t = "%QV_TEST_GROW%";
  qv::expand_environment(t, false);
  EXPECT_EQ(t, std::string(499, 'x') + "%QV_TEST_GROW%");
}

TEST(QvString, SplitAndLines) {
  std::vector<std::string> out;
  EXPECT_TRUE(qv::split("a,,b", ',', out, false, false));
  EXPECT_EQ(out, (std::vector<std::string>{"a", "b"}));
  EXPECT_TRUE(qv::split("a,,b", ',', out, false, true));
  EXPECT_EQ(out, (std::vector<std::string>{"a", "", "b"}));
  EXPECT_TRUE(qv::split("a,", ',', out, false, true));
  EXPECT_EQ(out, (std::vector<std::string>{"a", ""}));
  EXPECT_TRUE(qv::split(",a", ',', out, false, true));
  EXPECT_EQ(out, (std::vector<std::string>{"", "a"}));
  EXPECT_TRUE(qv::split(" a , b ,  ", ',', out, true, false));
  EXPECT_EQ(out, (std::vector<std::string>{"a", "b"}));
  EXPECT_TRUE(qv::split(" a , b ,  ", ',', out, true, true));
  EXPECT_EQ(out, (std::vector<std::string>{"a", "b", ""}));
  EXPECT_TRUE(qv::split(" a ,b", ',', out, false, false));
  EXPECT_EQ(out, (std::vector<std::string>{" a ", "b"}));
  EXPECT_TRUE(qv::split("no delimiter", ',', out, false, false));
  EXPECT_EQ(out, (std::vector<std::string>{"no delimiter"}));
  // append keeps what was there; empty text clears unless appending.
  EXPECT_TRUE(qv::split("x|y", '|', out, false, false, true));
  EXPECT_EQ(out, (std::vector<std::string>{"no delimiter", "x", "y"}));
  EXPECT_FALSE(qv::split("", '|', out, false, false, true));
  EXPECT_EQ(out.size(), 3u);
  EXPECT_FALSE(qv::split("", '|', out, false, false));
  EXPECT_TRUE(out.empty());

  std::vector<std::wstring> wout;
  EXPECT_TRUE(qv::split(L"a;; b ;", L';', wout, true, true));
  EXPECT_EQ(wout, (std::vector<std::wstring>{L"a", L"", L"b", L""}));

  auto lines = [](const std::string& s) { return std::vector<uint8_t>(s.begin(), s.end()); };
  EXPECT_TRUE(qv::split_lines(lines("a\r\n\r\n  b  \n\r\rc"), out));
  EXPECT_EQ(out, (std::vector<std::string>{"a", "", "b", "c"}));
  EXPECT_TRUE(qv::split_lines(lines("whole"), out));
  EXPECT_EQ(out, (std::vector<std::string>{"whole"}));
  EXPECT_TRUE(qv::split_lines(lines("a\n"), out));
  EXPECT_EQ(out, (std::vector<std::string>{"a"}));
  EXPECT_TRUE(qv::split_lines(lines("\n"), out));
  EXPECT_EQ(out, (std::vector<std::string>{""}));
  EXPECT_FALSE(qv::split_lines({}, out));
  EXPECT_TRUE(out.empty());
}

TEST(QvString, ParseNumbers) {
  struct u32_case { const char* text; bool ok; uint32_t value; };
  const u32_case u32_cases[] = {
      {"0x10", true, 16},          {"x10", true, 16},
      {"0XfF", true, 255},         {"  0x10 ", true, 16},  // hex tested on the trimmed text
      {"o17", true, 15},           {"'A'", true, 65},
      {"4000000000", true, 4000000000u},
      {"12abc", true, 12},         // trailing garbage is not checked
      {"0x123456789", true, 0x23456789u},  // cut to 32 bits
      {"abc", false, 0},           {" 12", false, 0},  // decimal needs a digit first, untrimmed
      {"", false, 0},              {"'AB'", false, 0}};
  for (const auto& c : u32_cases) {
    uint32_t u = 99;
    EXPECT_EQ(qv::parse_uint32(c.text, u), c.ok) << c.text;
    EXPECT_EQ(u, c.value) << c.text;
  }

  struct u64_case { std::string text; bool ok; uint64_t value; };
  const u64_case u64_cases[] = {
      {"0x10", true, 16},  {"X1f", true, 31},  {"O17", true, 15},  {"   42", true, 42},
      {"18446744073709551615", true, 18446744073709551615ull},
      {"0xFFFFFFFFFFFFFFFF", true, 18446744073709551615ull},  // 16 digits
      {"0x1FFFFFFFFFFFFFFFF", false, 0},                     // 17 digits
      {"123456789012345678901", false, 0},                   // 21 characters
      {"o12345670123456701234567", false, 0},                // 23 octal digits
      {"42 ", false, 0},  {"4 2", false, 0},  {"", false, 0},  {"    ", false, 0},
      {std::string(25, ' ') + "123456", false, 0},           // 31 in all
      // Not a number or out of range: the stream fails, out 0, still true.
      {"abc", true, 0},  {"99999999999999999999", true, 0}};
  for (const auto& c : u64_cases) {
    uint64_t v = 99;
    EXPECT_EQ(qv::parse_uint64(c.text, v), c.ok) << c.text;
    EXPECT_EQ(v, c.value) << c.text;
  }

  struct i32_case { const char* text; bool ok; int32_t value; };
  const i32_case i32_cases[] = {{" -5 ", true, -5},       {"+12", true, 12},
                                {"0X10", true, 16},       {"0xFFFFFFFF", true, -1},
                                {"o17", true, 15},        {"abc", false, 0},
                                {"   ", false, 0}};
  for (const auto& c : i32_cases) {
    int32_t i = 99;
    EXPECT_EQ(qv::parse_int32(c.text, i), c.ok) << c.text;
    EXPECT_EQ(i, c.value) << c.text;
  }
}

TEST(QvString, GuidTextAndParse) {
  // The system trace control GUID, as it lies in a file.
  const uint8_t g[16] = {0xd0, 0xa8, 0x6f, 0x3d, 0x05, 0xfe, 0xd0, 0x11,
                         0x9d, 0xda, 0x00, 0xc0, 0x4f, 0xd7, 0xba, 0x7c};
  EXPECT_EQ(qv::guid_text(g), "3d6fa8d0-fe05-11d0-9dda-00c04fd7ba7c");
  std::string row = "guid=";
  qv::append_guid_text(row, g);
  EXPECT_EQ(row, "guid=3d6fa8d0-fe05-11d0-9dda-00c04fd7ba7c");
  const uint8_t z[16] = {};
  EXPECT_EQ(qv::guid_text(z), "00000000-0000-0000-0000-000000000000");

  std::vector<uint8_t> out;
  EXPECT_TRUE(qv::parse_guid("3D6FA8D0-FE05-11D0-9DDA-00C04FD7BA7C", out));
  ASSERT_EQ(out.size(), 16u);
  EXPECT_EQ(out, std::vector<uint8_t>(g, g + 16));
  EXPECT_EQ(qv::guid_text(out.data()), "3d6fa8d0-fe05-11d0-9dda-00c04fd7ba7c");

  // Braces stop the reading: true, all zero.
  EXPECT_TRUE(qv::parse_guid("{3d6fa8d0-fe05-11d0-9dda-00c04fd7ba7c}", out));
  EXPECT_EQ(out, std::vector<uint8_t>(16, 0));
  // A malformed middle keeps what came before it.
  EXPECT_TRUE(qv::parse_guid("3d6fa8d0-zzzz-11d0-9dda-00c04fd7ba7c", out));
  EXPECT_EQ(out, (std::vector<uint8_t>{0xd0, 0xa8, 0x6f, 0x3d, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                                       0}));
  out.assign(3, 1);
  EXPECT_FALSE(qv::parse_guid("3d6fa8d0-fe05-11d0-9d", out));  // 21 characters
  EXPECT_EQ(out.size(), 3u);
  EXPECT_TRUE(qv::parse_guid("3d6fa8d0-fe05-11d0-9dd", out));  // 22 are enough
  EXPECT_EQ(out, (std::vector<uint8_t>{0xd0, 0xa8, 0x6f, 0x3d, 0x05, 0xfe, 0xd0, 0x11, 0x09,
                                       0xdd, 0, 0, 0, 0, 0, 0}));
}

TEST(QvString, FormatSid) {
  const uint8_t system[12] = {1, 1, 0, 0, 0, 0, 0, 5, 18, 0, 0, 0};
  EXPECT_EQ(qv::format_sid(system, 12), "S-1-5-18");
  EXPECT_EQ(qv::format_sid(system, 11), "");
  EXPECT_EQ(qv::format_sid(nullptr, 12), "");

  const uint8_t user[28] = {1, 5, 0, 0, 0, 0, 0, 5, 21, 0, 0, 0, 0x15, 0xCD, 0x5B, 0x07,
                            2, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0xe9, 0x03, 0, 0};
  EXPECT_EQ(qv::format_sid(user, 28), "S-1-5-21-123456789-2-4294967295-1001");
  EXPECT_EQ(qv::format_sid(user, 27), "");  // five sub-authorities need 28

  // Only the last authority byte is shown; no sub-authorities is fine.
  const uint8_t odd[12] = {1, 0, 0, 0, 0, 0, 1, 16, 0, 0, 0, 0};
  EXPECT_EQ(qv::format_sid(odd, 12), "S-1-16");
}

TEST(QvString, AsciiRuns) {
  std::vector<std::string> runs;
  std::vector<qv::run_position> pos;
  auto d = bytes({1, 2, 'H', 'e', 'l', 'l', 'o', 0, ' ', ' ', 'a', 'b', 0, ' ', 'x', 'y', 'z',
                  'w'});
  qv::ascii_runs(d.data(), uint32_t(d.size()), 4, runs, pos, true, false);
  EXPECT_EQ(runs, (std::vector<std::string>{"Hello", "xyzw"}));
  ASSERT_EQ(pos.size(), 2u);
  EXPECT_EQ(pos[0].offset, 2u);
  EXPECT_EQ(pos[0].length, 5u);
  EXPECT_EQ(pos[1].offset, 14u);  // the leading blank is skipped
  EXPECT_EQ(pos[1].length, 4u);
  qv::ascii_runs(d.data(), uint32_t(d.size()), 6, runs, pos, true, false);
  EXPECT_TRUE(runs.empty());
  EXPECT_TRUE(pos.empty());
  qv::ascii_runs(d.data(), uint32_t(d.size()), 2, runs, pos, true, false);
  EXPECT_EQ(runs, (std::vector<std::string>{"Hello", "ab", "xyzw"}));

  // Line controls join or split runs.
  auto lc = bytes({'a', 'b', '\r', '\n', 'c', 'd', 1});
  qv::ascii_runs(lc.data(), uint32_t(lc.size()), 2, runs, pos, true, false);
  EXPECT_EQ(runs, (std::vector<std::string>{"ab\r\ncd"}));
  qv::ascii_runs(lc.data(), uint32_t(lc.size()), 2, runs, pos, false, false);
  EXPECT_EQ(runs, (std::vector<std::string>{"ab", "cd"}));

  // Inside the data a run of line ends alone is dropped; at the end only
  // the length counts.
  auto eols = bytes({'\r', '\n', '\r', 0, '\r', '\n', '\r'});
  qv::ascii_runs(eols.data(), uint32_t(eols.size()), 2, runs, pos, true, false);
  EXPECT_EQ(runs, (std::vector<std::string>{"\r\n\r"}));
  ASSERT_EQ(pos.size(), 1u);
  EXPECT_EQ(pos[0].offset, 4u);

  auto punct = bytes({'-', '-', '=', '@', 'a', 'b', 'c', 0});
  qv::ascii_runs(punct.data(), uint32_t(punct.size()), 3, runs, pos, true, true);
  EXPECT_EQ(runs, (std::vector<std::string>{"abc"}));
  EXPECT_EQ(pos[0].offset, 4u);
  qv::ascii_runs(punct.data(), uint32_t(punct.size()), 3, runs, pos, true, false);
  EXPECT_EQ(runs, (std::vector<std::string>{"--=@abc"}));

  qv::ascii_runs(nullptr, 10, 1, runs, pos, true, false);
  EXPECT_TRUE(runs.empty());
  qv::ascii_runs(d.data(), 0, 0, runs, pos, true, false);
  EXPECT_TRUE(runs.empty());
}

TEST(QvString, Utf16Runs) {
  std::vector<std::string> runs;
  std::vector<qv::run_position> pos;

  auto ab = bytes({'A', 0, 'B', 0, 0, 0});
  qv::utf16_runs(ab.data(), uint32_t(ab.size()), 2, runs, pos, true, false);
  EXPECT_EQ(runs, (std::vector<std::string>{"AB"}));
  EXPECT_EQ(pos[0].offset, 0u);
  EXPECT_EQ(pos[0].length, 2u);

  // An odd start is found because a failing position steps by one.
  auto odd = bytes({1, 'H', 0, 'i', 0, '!', 0});
  qv::utf16_runs(odd.data(), uint32_t(odd.size()), 2, runs, pos, true, false);
  EXPECT_EQ(runs, (std::vector<std::string>{"Hi!"}));
  EXPECT_EQ(pos[0].offset, 1u);

  // A broken character ends a run; leading blanks are skipped.
  auto two = bytes({'A', 0, 1, 0, ' ', 0, 'B', 0, 'C', 0});
  qv::utf16_runs(two.data(), uint32_t(two.size()), 1, runs, pos, true, false);
  EXPECT_EQ(runs, (std::vector<std::string>{"A", "BC"}));
  ASSERT_EQ(pos.size(), 2u);
  EXPECT_EQ(pos[1].offset, 6u);
  EXPECT_EQ(pos[1].length, 2u);

  // A last low byte with no high byte behind it is not read as a character
  // (exact-size buffer: nothing past it is touched).
  auto tail = bytes({'A', 0, 'B'});
  qv::utf16_runs(tail.data(), uint32_t(tail.size()), 1, runs, pos, true, false);
  EXPECT_EQ(runs, (std::vector<std::string>{"A"}));

  // A non-zero high byte is not text.
  auto cjk = bytes({'A', 0x4E, 'B', 0, 'C', 0});
  qv::utf16_runs(cjk.data(), uint32_t(cjk.size()), 2, runs, pos, true, false);
  EXPECT_EQ(runs, (std::vector<std::string>{"BC"}));
  EXPECT_EQ(pos[0].offset, 2u);

  // Only the length is tested: blanks after the first character stay.
  auto blanks = bytes({'a', 0, ' ', 0, ' ', 0});
  qv::utf16_runs(blanks.data(), uint32_t(blanks.size()), 3, runs, pos, true, false);
  EXPECT_EQ(runs, (std::vector<std::string>{"a  "}));
}

TEST(QvString, TextRunsFindBothKindsInOnePass) {
  // Hand-made: "Hi!" in UTF-16 at offset 1, then "abcd" in ASCII.
  auto d = bytes({1, 'H', 0, 'i', 0, '!', 0, 0, 'a', 'b', 'c', 'd', 0});
  std::vector<qv::run_position> narrow, wide;
  qv::text_runs(d.data(), uint32_t(d.size()), 4, 2, true, false, narrow, wide);
  ASSERT_EQ(wide.size(), 1u);
  EXPECT_EQ(wide[0].offset, 1u);
  EXPECT_EQ(wide[0].length, 3u);
  ASSERT_EQ(narrow.size(), 1u);
  EXPECT_EQ(narrow[0].offset, 8u);
  EXPECT_EQ(narrow[0].length, 4u);

  // Random bytes drawn mostly from text, blanks, line ends, punctuation and
  // zeros: the one pass finds exactly what the two searches find, under
  // every setting.
  const uint8_t pool[] = {0, 0, 0, 0, ' ', '\r', '\n', '\t', '.', '-', 'A', 'z', '5', 1, 0xC3, 0x7F};
  uint32_t seed = 4242;
  auto next = [&seed]() {
    seed = seed * 1103515245u + 12345u;
    return seed >> 16;
  };
  for (int round = 0; round < 4000; ++round) {
    std::vector<uint8_t> buf(next() % 90);
    for (uint8_t& b : buf) b = pool[next() % sizeof pool];
    const bool controls = next() % 2;
    const bool punct = next() % 2;
    const uint32_t amin = next() % 6, wmin = next() % 4;
    std::vector<std::string> runs;
    std::vector<qv::run_position> a_pos, w_pos;
    qv::ascii_runs(buf.data(), uint32_t(buf.size()), amin, runs, a_pos, controls, punct);
    qv::utf16_runs(buf.data(), uint32_t(buf.size()), wmin, runs, w_pos, controls, punct);
    qv::text_runs(buf.data(), uint32_t(buf.size()), amin, wmin, controls, punct, narrow, wide);
    ASSERT_EQ(narrow.size(), a_pos.size()) << "round " << round;
    ASSERT_EQ(wide.size(), w_pos.size()) << "round " << round;
    for (size_t i = 0; i < narrow.size(); ++i) {
      ASSERT_EQ(narrow[i].offset, a_pos[i].offset) << "round " << round;
      ASSERT_EQ(narrow[i].length, a_pos[i].length) << "round " << round;
    }
    for (size_t i = 0; i < wide.size(); ++i) {
      ASSERT_EQ(wide[i].offset, w_pos[i].offset) << "round " << round;
      ASSERT_EQ(wide[i].length, w_pos[i].length) << "round " << round;
    }
  }
  qv::text_runs(nullptr, 10, 1, 1, true, false, narrow, wide);
  EXPECT_TRUE(narrow.empty());
  EXPECT_TRUE(wide.empty());
}

TEST(QvString, Varint) {
  uint64_t v = 7;
  auto one = bytes({0x05, 0xFF});
  EXPECT_TRUE(qv::decode_varint(v, one.data(), one.size()));
  EXPECT_EQ(v, 5u);
  auto two = bytes({0x81, 0x00});
  EXPECT_TRUE(qv::decode_varint(v, two.data(), two.size()));
  EXPECT_EQ(v, 128u);
  auto big = bytes({0xFF, 0x7F});
  EXPECT_TRUE(qv::decode_varint(v, big.data(), big.size()));
  EXPECT_EQ(v, 0x3FFFu);

  // Nine bytes: eight 7-bit groups, then a whole byte shifted in by 8.
  auto nine_max = bytes({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x12});
  EXPECT_TRUE(qv::decode_varint(v, nine_max.data(), nine_max.size()));
  EXPECT_EQ(v, 0xFFFFFFFFFFFFFFFFull);
  auto nine_top = bytes({0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80});
  EXPECT_TRUE(qv::decode_varint(v, nine_top.data(), nine_top.size()));
  EXPECT_EQ(v, 0x80u);  // the ninth byte's top bit is data
  auto nine_ones = bytes({0x81, 0x81, 0x81, 0x81, 0x81, 0x81, 0x81, 0x81, 0x01});
  EXPECT_TRUE(qv::decode_varint(v, nine_ones.data(), nine_ones.size()));
  EXPECT_EQ(v, 0x0204081020408101ull);

  // Data that ends inside the number, or no data.
  auto cut = bytes({0x81, 0x82});
  EXPECT_FALSE(qv::decode_varint(v, cut.data(), cut.size()));
  EXPECT_EQ(v, 0u);
  EXPECT_FALSE(qv::decode_varint(v, nine_top.data(), 8));
  EXPECT_FALSE(qv::decode_varint(v, one.data(), 0));
  EXPECT_FALSE(qv::decode_varint(v, nullptr, 4));
}

TEST(QvString, CountedStrings) {
  std::string s = "old";
  auto shortf = bytes({3, 'a', 'b', 'c', 'z'});
  EXPECT_EQ(qv::read_counted_string(s, shortf.data(), shortf.size()), 4u);
  EXPECT_EQ(s, "abc");
  auto longf = bytes({0x80, 0x03, 'a', 'b', 'c'});
  EXPECT_EQ(qv::read_counted_string(s, longf.data(), longf.size()), 5u);
  EXPECT_EQ(s, "abc");
  // The two-byte form is high part first: 0x81 0x00 is 256.
  std::vector<uint8_t> l256 = {0x81, 0x00};
  l256.resize(2 + 256, 'q');
  EXPECT_EQ(qv::read_counted_string(s, l256.data(), l256.size()), 258u);
  EXPECT_EQ(s, std::string(256, 'q'));
  EXPECT_EQ(qv::read_counted_string(s, l256.data(), l256.size() - 1), 2u);  // one short
  EXPECT_TRUE(s.empty());

  auto trunc = bytes({5, 'a', 'b'});
  EXPECT_EQ(qv::read_counted_string(s, trunc.data(), trunc.size()), 1u);
  EXPECT_TRUE(s.empty());
  auto zero = bytes({0, 'a'});
  EXPECT_EQ(qv::read_counted_string(s, zero.data(), zero.size()), 1u);
  auto half = bytes({0x80});
  EXPECT_EQ(qv::read_counted_string(s, half.data(), half.size()), 0u);
  EXPECT_EQ(qv::read_counted_string(s, shortf.data(), 0), 0u);

  std::vector<std::string> list;
  auto table = bytes({2, 1, 'a', 2, 'b', 'c', 9});
  EXPECT_EQ(qv::read_counted_strings(list, table.data(), table.size()), 6u);
  EXPECT_EQ(list, (std::vector<std::string>{"a", "bc"}));
  // A count larger than the bytes left: nothing is read.
  auto toomany = bytes({5, 1, 'a'});
  EXPECT_EQ(qv::read_counted_strings(list, toomany.data(), toomany.size()), 1u);
  EXPECT_TRUE(list.empty());
  // An entry that doesn't fit stays empty and costs only its length byte.
  auto misfit = bytes({3, 1, 'a', 5, 'x'});
  EXPECT_EQ(qv::read_counted_strings(list, misfit.data(), misfit.size()), 5u);
  EXPECT_EQ(list, (std::vector<std::string>{"a", "", ""}));
  // The data running out leaves the last entries empty.
  auto short_data = bytes({2, 2, 'a', 'b'});
  EXPECT_EQ(qv::read_counted_strings(list, short_data.data(), short_data.size()), 4u);
  EXPECT_EQ(list, (std::vector<std::string>{"ab", ""}));
  auto long_count = bytes({0x80, 0x02, 1, 'a', 1, 'b'});
  EXPECT_EQ(qv::read_counted_strings(list, long_count.data(), long_count.size()), 6u);
  EXPECT_EQ(list, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(qv::read_counted_strings(list, half.data(), half.size()), 0u);
}
