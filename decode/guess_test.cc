#include "decode/guess.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "decode/render.h"

namespace {

constexpr uint64_t kBase = 0x2000;

std::string guess(const std::vector<uint8_t>& data, std::vector<uint64_t>* keys = nullptr) {
  decoded_fields fields;
  guess_payload(fields, kBase, data.data(), static_cast<uint32_t>(data.size()), false);
  if (keys) {
    keys->clear();
    for (const auto& e : fields) keys->push_back(e.key - kBase);
  }
  std::string out;
  render_fields(out, fields);
  return out;
}

std::vector<uint8_t> bytes_of(const char* text) {
  return std::vector<uint8_t>(text, text + std::strlen(text));
}

TEST(GuessPayload, ShortRegions) {
  std::vector<uint64_t> keys;
  EXPECT_EQ(guess({0x78, 0x56, 0x34, 0x12}), "\"01-guess_uint32\":\"0x12345678\"");
  EXPECT_EQ(guess({1, 2, 3, 4, 5}), "\"01-guess_uint32\":\"0x04030201\";\"02-guess_byte\":\"0x05\"");
  EXPECT_EQ(guess(std::vector<uint8_t>(7, 0), &keys),
            "\"01-guess_uint32\":\"0x00000000\";\"02-guess_byte\":\"0x00\";"
            "\"03-guess_byte\":\"0x00\";\"04-guess_byte\":\"0x00\"");
  EXPECT_EQ(keys, (std::vector<uint64_t>{0, 4, 5, 6}));
  EXPECT_EQ(guess({1, 0, 0, 0, 2, 0}), "\"01-guess_uint32\":\"0x00000001\";\"02-guess_uint16\":\"0x0002\"");
  // Fewer than 4 bytes: nothing; a 4-byte text is not scanned for strings.
  EXPECT_EQ(guess({1, 2, 3}), "");
  EXPECT_EQ(guess(bytes_of("abcd")), "\"01-guess_uint32\":\"0x64636261\"");

  // guess_payload with keep leaves what is there; without, it clears.
  decoded_fields fields;
  fields.add(1)->text = "kept";
  const uint8_t four[4] = {1, 0, 0, 0};
  guess_payload(fields, kBase, four, 4, true);
  EXPECT_EQ(fields.size(), 2u);
  guess_payload(fields, kBase, four, 4, false);
  EXPECT_EQ(fields.size(), 1u);
}

TEST(GuessPayload, Strings) {
  std::vector<uint64_t> keys;
  // The two zero bytes are the terminator of "AB".
  EXPECT_EQ(guess({0x41, 0, 0x42, 0, 0, 0}), "\"01-guess_utf16\":\"AB\"");
  // A number, a terminated ASCII string, a number.
  EXPECT_EQ(guess({5, 0, 0, 0, 'c', 'm', 'd', '.', 'e', 'x', 'e', 0, 7, 0, 0, 0}, &keys),
            "\"01-guess_uint32\":\"0x00000005\";\"02-guess_ascii\":\"cmd.exe\";"
            "\"03-guess_uint32\":\"0x00000007\"");
  EXPECT_EQ(keys, (std::vector<uint64_t>{0, 4, 12}));
  // Line ends in a guessed string are marked.
  EXPECT_EQ(guess(bytes_of("line1\r\nline2")), "\"01-guess_ascii\":\"line1[CRLF]line2\"");
}

TEST(GuessPayload, NoiseRule) {
  // "aB1x": four characters, lower then upper case: dropped, and its bytes
  // become numbers.
  EXPECT_EQ(guess({0x01, 'a', 'B', '1', 'x', 0, 0, 0}),
            "\"01-guess_uint32\":\"0x31426101\";\"02-guess_uint32\":\"0x00000078\"");
  // Five characters are tested too ...
  EXPECT_EQ(guess({0x01, 'a', 'B', 'c', 'd', 'e', 0, 0}),
            "\"01-guess_uint32\":\"0x63426101\";\"02-guess_uint32\":\"0x00006564\"");
  // ... and stay when the second is lower case; six or more always stay.
  EXPECT_EQ(guess({0x01, 'a', 'b', 'c', 'd', 'e', 0, 0}),
            "\"01-guess_byte\":\"0x01\";\"02-guess_ascii\":\"abcde\";\"03-guess_byte\":\"0x00\"");
  EXPECT_EQ(guess({0x01, 'a', 'B', 'c', 'd', 'e', 'f', 0}),
            "\"01-guess_byte\":\"0x01\";\"02-guess_ascii\":\"aBcdef\"");
  // A noise candidate first: the one behind it takes its place and is
  // never tested, so a second noise string stays.
  EXPECT_EQ(guess({'a', 'B', '1', 'x', 0, 'c', 'D', '2', 'y', 0, 0, 0}),
            "\"01-guess_uint32\":\"0x78314261\";\"02-guess_byte\":\"0x00\";"
            "\"03-guess_ascii\":\"cD2y\";\"04-guess_uint16\":\"0x0000\"");
}

TEST(GuessPayload, SidBehindNumbers) {
  const std::vector<uint8_t> data = {1, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0, 4, 0, 0, 0,
                                     0x01, 0x01, 0, 0, 0, 0, 0, 0x05, 0x12, 0, 0, 0};
  std::vector<uint64_t> keys;
  EXPECT_EQ(guess(data, &keys),
            "\"01-guess_uint32\":\"0x00000001\";\"02-guess_uint32\":\"0x00000002\";"
            "\"03-guess_uint32\":\"0x00000003\";\"04-guess_uint32\":\"0x00000004\";"
            "\"05-guess_sid\":\"S-1-5-18\"");
  EXPECT_EQ(keys.back(), 16u);

  // Five sub-authorities: S-1-5-21-1-2-3-500, 28 bytes.
  std::vector<uint8_t> domain = {0x01, 0x05, 0, 0, 0, 0, 0, 0x05, 21, 0, 0, 0, 1, 0, 0, 0,
                                 2, 0, 0, 0, 3, 0, 0, 0, 0xf4, 0x01, 0, 0};
  EXPECT_EQ(guess(domain), "\"01-guess_sid\":\"S-1-5-21-1-2-3-500\"");
  // Found where fewer than its 28 bytes are left: it isn't read from bytes
  // outside the region.
  std::vector<uint8_t> cut = {9, 0, 0, 0};
  cut.insert(cut.end(), domain.begin(), domain.begin() + 26);
  ASSERT_EQ(cut.size(), 30u);
  EXPECT_EQ(guess(cut).find("guess_sid"), std::string::npos);
}

TEST(GuessPayload, SecondCandidateIsShifted) {
  // Past the first candidate, `pos` moves by the next candidate's offset,
  // not by the gap: "world!" at offset 16 is keyed at 27.
  std::vector<uint8_t> data = {1, 0, 0, 0};
  for (char c : std::string("hello!")) data.push_back(uint8_t(c));
  data.insert(data.end(), {0, 2, 0, 0, 0, 0});
  for (char c : std::string("world!")) data.push_back(uint8_t(c));
  data.push_back(0);
  ASSERT_EQ(data.size(), 23u);
  std::vector<uint64_t> keys;
  EXPECT_EQ(guess(data, &keys),
            "\"01-guess_uint32\":\"0x00000001\";\"02-guess_ascii\":\"hello!\";"
            "\"03-guess_uint32\":\"0x00000002\";\"04-guess_byte\":\"0x00\";"
            "\"05-guess_ascii\":\"world!\"");
  EXPECT_EQ(keys, (std::vector<uint64_t>{0, 4, 11, 15, 27}));
}

TEST(GuessNumbers, KernelAddressShape) {
  EXPECT_EQ(guess({0x78, 0x56, 0x34, 0x12, 0x00, 0xc8, 0xff, 0xff}),
            "\"01-guess_uint64\":\"0xffffc80012345678\"");
  EXPECT_EQ(guess({0x78, 0x56, 0x34, 0x12, 0x00, 0x8a, 0xff, 0xff}),
            "\"01-guess_uint32\":\"0x12345678\";\"02-guess_uint32\":\"0xffff8a00\"");
  // The shape needs a following word: in the last word it is a 32-bit number.
  EXPECT_EQ(guess({1, 0, 0, 0, 0x78, 0x56, 0x34, 0x12, 0x00, 0xc8, 0xff}),
            "\"01-guess_uint32\":\"0x00000001\";\"02-guess_uint32\":\"0x12345678\";"
            "\"03-guess_byte\":\"0x00\";\"04-guess_byte\":\"0xc8\";\"05-guess_byte\":\"0xff\"");
  // A low word of 0xFFFF or less isn't an address; the value lies outside the
  // FILETIME window, and with too few words behind it no SYSTEMTIME is tried.
  EXPECT_EQ(guess({0x34, 0x12, 0x00, 0x00, 0x00, 0xc8, 0xff, 0xff}),
            "\"01-guess_uint32\":\"0x00001234\";\"02-guess_uint32\":\"0xffffc800\"");

  // Under that same shape, 16 bytes that make a valid SYSTEMTIME: year 2020,
  // month 0 (December of the year before), day 65535.
  const std::vector<uint8_t> systime = {0xe4, 0x07, 0x00, 0x00, 0x00, 0xc8, 0xff, 0xff,
                                        0, 0, 0, 0, 0, 0, 0, 0};
  decoded_fields fields;
  guess_numbers(fields, kBase, systime.data(), 16);
  ASSERT_EQ(fields.size(), 1u);
  EXPECT_EQ(fields.begin()->field.name, "guess_systime");
  EXPECT_EQ(fields.begin()->field.size, 16u);
  EXPECT_EQ(fields.begin()->field.number, 0xffffc800000007e4ULL);

  const filetime_window& w = guess_filetime_window();
  EXPECT_EQ(w.high - w.low, (3650ULL + 730ULL) * 864000000000ULL);
}

}  // namespace
