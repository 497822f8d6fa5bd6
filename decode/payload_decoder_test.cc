#include "decode/payload_decoder.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "decode/render.h"

namespace {

constexpr uint64_t kBase = 0x1000;

event_template layout(std::vector<std::pair<uint16_t, std::string>> fields) {
  event_template t;
  for (auto& f : fields) {
    t.words.push_back(f.first);
    t.names.push_back(f.second);
  }
  return t;
}

std::string render(decoded_fields& fields) {
  std::string out;
  render_fields(out, fields);
  return out;
}

// Walks `t` over `payload` (the payload is the whole buffer) and renders.
std::string walk(const event_template& t, const std::vector<uint8_t>& payload,
                 int32_t* consumed = nullptr, bool pointers_are_64 = false) {
  decoded_fields fields;
  int32_t n = walk_template(t, fields, payload.data(), static_cast<uint32_t>(payload.size()),
                            payload.data() + payload.size(), kBase, pointers_are_64);
  if (consumed) *consumed = n;
  return render(fields);
}

std::vector<uint64_t> keys(const decoded_fields& fields) {
  std::vector<uint64_t> out;
  for (const auto& e : fields) out.push_back(e.key);
  return out;
}

TEST(WalkTemplate, PlainNumbers) {
  const event_template t = layout(
      {{4, "B"}, {6, "W"}, {8, "D"}, {10, "Q"}, {13, "Flag"}, {16, "Ptr"}});
  const std::vector<uint8_t> payload = {
      0xAB,                                            // B
      0x34, 0x12,                                      // W
      0x78, 0x56, 0x34, 0x12,                          // D
      0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11,  // Q
      0x01, 0xFF, 0xFF, 0xFF,                          // Flag: only the first byte counts
      0xEF, 0xBE, 0xAD, 0xDE,                          // Ptr, 4 bytes
      0x00, 0x00, 0x00, 0x80,                          // the upper half when 8 bytes
  };
  int32_t consumed = 0;
  EXPECT_EQ(walk(t, payload, &consumed),
            "\"01-B\":\"0xab\";\"02-W\":\"0x1234\";\"03-D\":\"0x12345678\";"
            "\"04-Q\":\"0x1122334455667788\";\"05-Flag\":\"0x00000001\";\"06-Ptr\":\"0xdeadbeef\"");
  EXPECT_EQ(consumed, 23);
  EXPECT_EQ(walk(t, payload, &consumed, true),
            "\"01-B\":\"0xab\";\"02-W\":\"0x1234\";\"03-D\":\"0x12345678\";"
            "\"04-Q\":\"0x1122334455667788\";\"05-Flag\":\"0x00000001\";"
            "\"06-Ptr\":\"0x80000000deadbeef\"");
  EXPECT_EQ(consumed, 27);
}

TEST(WalkTemplate, TerminatedStrings) {
  const event_template t = layout({{1, "U"}, {1, "Empty"}, {2, "A"}, {2, "A2"}});
  const std::vector<uint8_t> payload = {
      'h', 0, 'i', 0, 0, 0,    // "hi" and its terminator: 6 bytes
      0, 0,                    // empty: "-", 2 bytes
      'x', '\r', '\n', 'y', 0,  // line end marked; 5 bytes with the terminator
      0,                       // empty: "-", 1 byte
  };
  decoded_fields fields;
  int32_t n = walk_template(t, fields, payload.data(), uint32_t(payload.size()),
                            payload.data() + payload.size(), kBase, false);
  EXPECT_EQ(render(fields), "\"01-U\":\"hi\";\"02-Empty\":\"-\";\"03-A\":\"x[CRLF]y\";\"04-A2\":\"-\"");
  EXPECT_EQ(n, 14);
  EXPECT_EQ(keys(fields), (std::vector<uint64_t>{kBase, kBase + 6, kBase + 8, kBase + 13}));
  const decoded_field* empty = fields.from_end(3);
  EXPECT_TRUE(empty->missing);
  EXPECT_EQ(empty->size, 0u);
}

TEST(WalkTemplate, TimeValues) {
  // 2020-01-01 12:34:56.123 UTC as FILETIME 0x01d5c09fdf9cdcb0, as Unix
  // seconds 1577836800 (midnight) and as SYSTEMTIME.
  const event_template t = layout({{17, "Ft"}, {168, "Unix"}, {17, "Zero"}});
  const std::vector<uint8_t> payload = {
      0xb0, 0xdc, 0x9c, 0xdf, 0x9f, 0xc0, 0xd5, 0x01,
      0x00, 0xe1, 0x0b, 0x5e,
      0, 0, 0, 0, 0, 0, 0, 0,
  };
  EXPECT_EQ(walk(t, payload),
            "\"01-Ft\":\"0x01d5c09fdf9cdcb0 [2020-01-01 12:34:56.123]\";"
            "\"02-Unix\":\"0x5e0be100 [2020-01-01 00:00:00.000]\";"
            "\"03-Zero\":\"0x0000000000000000\"");

  const std::vector<uint8_t> systime = {0xe4, 0x07, 0x01, 0x00, 0x03, 0x00, 0x01, 0x00,
                                        0x0c, 0x00, 0x22, 0x00, 0x38, 0x00, 0x7b, 0x00};
  EXPECT_EQ(walk(layout({{18, "When"}}), systime),
            "\"01-When\":\"0x007b00380022000c00010003000107e4 [2020-01-01 12:34:56.123]\"");

  // Not first in its payload: the digits are still those of the payload's
  // first sixteen bytes, last byte first.
  std::vector<uint8_t> behind = {0x11, 0x22, 0x33, 0x44};
  behind.insert(behind.end(), systime.begin(), systime.end());
  EXPECT_EQ(walk(layout({{8, "Before"}, {18, "When"}}), behind),
            "\"01-Before\":\"0x44332211\";"
            "\"02-When\":\"0x0022000c00010003000107e444332211 [2020-01-01 12:34:56.123]\"");

  // An invalid SYSTEMTIME shows its bytes.
  EXPECT_EQ(walk(layout({{18, "When"}}), std::vector<uint8_t>(16, 0)),
            "\"01-When\":\"00000000000000000000000000000000\"");
}

TEST(WalkTemplate, GuidSidAndCountedText) {
  const event_template t =
      layout({{15, ""}, {146, "Raw"}, {19, "Sid"}, {22, "Counted"}, {145, "Six"}});
  const std::vector<uint8_t> payload = {
      0x33, 0x22, 0x11, 0x00, 0x55, 0x44, 0x77, 0x66, 0x88, 0x99, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff,
      0x33, 0x22, 0x11, 0x00, 0x55, 0x44, 0x77, 0x66, 0x88, 0x99, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff,
      0x01, 0x01, 0, 0, 0, 0, 0, 0x05, 0x12, 0, 0, 0,  // S-1-5-18
      0x04, 0x00, 'o', 0, 'k', 0,                       // counted: 4 bytes
      'a', 0, 'b', 0, 0, 0,                             // a 6-byte slot
  };
  decoded_fields fields;
  int32_t n = walk_template(t, fields, payload.data(), uint32_t(payload.size()),
                            payload.data() + payload.size(), kBase, false);
  EXPECT_EQ(render(fields),
            "\"01-guid\":\"{00112233-4455-6677-8899-aabbccddeeff}\";"
            "\"02-Raw\":\"33221100554477668899aabbccddeeff\";"
            "\"03-Sid\":\"S-1-5-18\";\"04-Counted\":\"ok\";\"05-Six\":\"ab\"");
  EXPECT_EQ(n, 56);
  // The counted text is keyed behind its count.
  EXPECT_EQ(keys(fields)[3], kBase + 46);

  // A GUID with 15 bytes left: all consumed, no field, the walk ends.
  int32_t consumed = 0;
  EXPECT_EQ(walk(layout({{15, "G"}, {8, "After"}}), std::vector<uint8_t>(15, 1), &consumed), "");
  EXPECT_EQ(consumed, 15);

  // A SID that can't be read makes no field and takes nothing: the next
  // word reads the same bytes.
  const std::vector<uint8_t> bad_sid = {0x01, 0x05, 0, 0, 0, 0, 0, 0x05, 0x12, 0, 0, 0};
  EXPECT_EQ(walk(layout({{19, "Sid"}, {8, "Next"}}), bad_sid, &consumed),
            "\"01-Next\":\"0x00000501\"");
  EXPECT_EQ(consumed, 4);

  // A count beyond what remains consumes everything and makes no field.
  EXPECT_EQ(walk(layout({{22, "C"}, {8, "After"}}), {0x10, 0x00, 'a', 0}, &consumed), "");
  EXPECT_EQ(consumed, 4);
}

TEST(WalkTemplate, EndsAndUnknownWords) {
  const std::vector<uint8_t> payload = {1, 0, 0, 0, 2, 0, 0, 0};
  int32_t consumed = 0;
  EXPECT_EQ(walk(layout({{8, "A"}, {0x8A, "Unknown"}, {0, ""}, {8, "Never"}}), payload, &consumed),
            "\"01-A\":\"0x00000001\"");
  EXPECT_EQ(consumed, 4);
  EXPECT_EQ(walk(layout({{8, "A"}, {14, "Rest"}, {8, "Never"}}), payload, &consumed),
            "\"01-A\":\"0x00000001\";\"02-Rest\":\"{blob}\"");
  EXPECT_EQ(consumed, 4);
  EXPECT_EQ(walk(layout({{142, "All"}, {8, "Never"}}), payload, &consumed), "\"01-All\":\"{blob}\"");
  EXPECT_EQ(consumed, 8);
  // More words than the payload has room for: the walk just ends.
  EXPECT_EQ(walk(layout({{8, "A"}, {8, "B"}, {8, "C"}, {8, "D"}}), payload, &consumed),
            "\"01-A\":\"0x00000001\";\"02-B\":\"0x00000002\"");
  EXPECT_EQ(consumed, 8);
}

TEST(WalkTemplate, FixedWidthReadsStopAtBufferEnd) {
  // The payload holds 2 bytes; the buffer behind it 2 more.
  const uint8_t buffer[4] = {0x01, 0x02, 0xAA, 0xBB};
  const event_template t = layout({{8, "D"}});
  decoded_fields fields;
  EXPECT_EQ(walk_template(t, fields, buffer, 2, buffer + 4, kBase, false), 4);
  EXPECT_EQ(render(fields), "\"01-D\":\"0xbbaa0201\"");

  // The payload ends the buffer: the missing bytes read as zero. The
  // buffer is a heap block of exactly two bytes so that a read past it
  // would be caught by the address sanitizer.
  std::unique_ptr<uint8_t[]> tight(new uint8_t[2]{0x01, 0x02});
  fields.clear();
  EXPECT_EQ(walk_template(layout({{10, "Q"}, {8, "D"}}), fields, tight.get(), 2, tight.get() + 2,
                          kBase, false),
            8);
  EXPECT_EQ(render(fields), "\"01-Q\":\"0x0000000000000201\"");

  // Every fixed-width and slot word over a 1-byte payload at a buffer's end.
  const uint16_t words[] = {3, 5, 7, 9, 13, 15, 16, 17, 18, 19, 22, 145, 146, 161, 168, 177};
  for (uint16_t w : words) {
    std::unique_ptr<uint8_t[]> one(new uint8_t[1]{0x41});
    fields.clear();
    walk_template(layout({{w, "X"}}), fields, one.get(), 1, one.get() + 1, kBase, true);
  }

  // decode_payload doesn't guess when the walk took more than the payload.
  template_store store;
  const qv::guid16 guid{};
  event_template tmpl = layout({{8, "D"}});
  tmpl.digest = template_digest{{1}};
  store.templates.push_back(tmpl);
  store.by_digest[tmpl.digest] = 0;
  store.providers[guid].events[7][0] = tmpl.digest;
  bool guessed = true;
  fields.clear();
  EXPECT_TRUE(decode_payload(fields, kBase, &guid, 7, -1, tight.get(), 2, tight.get() + 2, &store,
                             false, false, guessed));
  EXPECT_FALSE(guessed);
  EXPECT_EQ(render(fields), "\"01-D\":\"0x00000201\"");
}

TEST(DecodeComplexField, CountInNextWordAndSkips) {
  int32_t consumed = 0;
  EXPECT_EQ(walk(layout({{0xB184, "Pad"}, {3, ""}, {0xB284, "Raw"}, {2, ""}, {8, "After"}}),
                 {0xaa, 0xbb, 0xcc, 0x11, 0x22, 0x78, 0x56, 0x34, 0x12}, &consumed),
            "\"01-Pad_3_bytes\":\"{blob}\";\"02-Raw\":\"1122\";\"03-After\":\"0x12345678\"");
  EXPECT_EQ(consumed, 9);
  // At the end of a template, without its parameter: nothing.
  EXPECT_EQ(walk(layout({{8, "A"}, {0xB184, "Pad"}}), {1, 0, 0, 0, 5, 5, 5, 5}),
            "\"01-A\":\"0x00000001\"");
  // A count beyond what remains: nothing, but the parameter is passed over.
  EXPECT_EQ(walk(layout({{0xB184, "Pad"}, {10, ""}, {8, "After"}}), {0x78, 0x56, 0x34, 0x12}),
            "\"01-After\":\"0x12345678\"");
  // 0xB384 isn't one of the two: no field, and its next word is a word.
  EXPECT_EQ(walk(layout({{0xB384, "X"}, {3, ""}, {8, "After"}}), {0x05, 0x78, 0x56, 0x34, 0x12}),
            "\"01\":\"0x05\";\"02-After\":\"0x12345678\"");

  EXPECT_EQ(walk(layout({{0xC284, "Pad"}, {0xC186, ""}, {0xC188, "Gap"}, {0xC195, "Big"}, {8, "End"}}),
                 {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 0x78, 0x56, 0x34, 0x12}),
            "\"01-Pad_2_bytes\":\"{blob}\";\"02-skip_2_bytes\":\"{blob}\";\"03-Gap_4_bytes\":\"{blob}\";"
            "\"04-Big_8_bytes\":\"{blob}\";\"05-End\":\"0x12345678\"");
  EXPECT_EQ(walk(layout({{0xC484, "Pad"}}), {1, 2}, &consumed), "");
  EXPECT_EQ(consumed, 0);

  EXPECT_EQ(walk(layout({{4, "Len"}, {0xE184, "Body"}, {8, "End"}}),
                 {0x03, 0xaa, 0xbb, 0xcc, 0x78, 0x56, 0x34, 0x12}),
            "\"01-Len\":\"0x03\";\"02-Body_3_bytes\":\"{blob}\";\"03-End\":\"0x12345678\"");
  // A zero length skips nothing and makes no field.
  EXPECT_EQ(walk(layout({{4, "Len"}, {0xE184, "Body"}, {4, "End"}}), {0x00, 0x07}),
            "\"01-Len\":\"0x00\";\"02-End\":\"0x07\"");

  // Family 8: skip the rest.
  EXPECT_EQ(walk(layout({{4, "A"}, {0x8004, ""}}), {1, 2, 3, 4, 5, 6}, &consumed),
            "\"01-A\":\"0x01\";\"02-skip_5_bytes\":\"{blob}\"");
  EXPECT_EQ(consumed, 6);
}

TEST(DecodeComplexField, SelfSizedAndStringArrays) {
  EXPECT_EQ(walk(layout({{0x9284, "Blob"}, {8, "End"}}),
                 {0xaa, 0xbb, 0x05, 0xcc, 0xdd, 0x78, 0x56, 0x34, 0x12}),
            "\"01-Blob\":\"aabb05ccdd\";\"02-End\":\"0x12345678\"");
  EXPECT_EQ(walk(layout({{0x9086, "S"}}), {0x04, 0x00, 0xaa, 0xbb}), "\"01-S\":\"0400aabb\"");
  // A zero length, a length beyond the payload, too short a payload: nothing.
  EXPECT_EQ(walk(layout({{0x9088, "S"}, {4, "B"}}), {0, 0, 0, 0, 9}), "\"01-B\":\"0x00\"");
  EXPECT_EQ(walk(layout({{0x9084, "S"}, {4, "B"}}), {9, 1, 2, 3, 4}), "\"01-B\":\"0x09\"");
  EXPECT_EQ(walk(layout({{0x9184, "S"}, {4, "B"}}), {4, 4, 2, 3}), "\"01-B\":\"0x04\"");

  EXPECT_EQ(walk(layout({{0x9281, "Names"}, {4, "End"}}), {'a', 0, 0, 0, 0, 0, 0x07}),
            "\"01-Names[0]\":\"a\";\"02-Names[1]\":\"-\";\"03-End\":\"0x07\"");
}

TEST(DecodeComplexField, FixedCountWords) {
  EXPECT_EQ(walk(layout({{0xD302, "Tag"}, {0xD684, "Mac"}, {0xD286, ""}, {0xD190, ""}}),
                 {'A', 'B', 'C', 1, 2, 3, 4, 5, 6, 0x34, 0x12, 0x78, 0x56, 0xef, 0xbe, 0xad, 0xde}),
            "\"01-Tag\":\"ABC\";\"02-Mac\":\"010203040506\";\"03\":\"0x1234\";\"04\":\"0x5678\";"
            "\"05\":\"0xdeadbeef\"");
  int32_t consumed = 0;
  // A 6-byte value with 4 bytes left: a 4-byte blob.
  EXPECT_EQ(walk(layout({{0xD684, "Mac"}}), {1, 2, 3, 4}, &consumed), "\"01-Mac\":\"01020304\"");
  EXPECT_EQ(consumed, 4);
  // The total is cut to what remains: one whole value of four, and all 6
  // bytes are taken.
  EXPECT_EQ(walk(layout({{0xD488, ""}, {4, "After"}}), {1, 0, 0, 0, 2, 0}, &consumed),
            "\"01\":\"0x00000001\"");
  EXPECT_EQ(consumed, 6);
  // Eight-byte values and pointers of the trace's width.
  EXPECT_EQ(walk(layout({{0xD195, ""}, {0xD190, ""}}),
                 {1, 0, 0, 0, 0, 0, 0, 0x80, 2, 0, 0, 0, 0, 0, 0, 0}, nullptr, true),
            "\"01\":\"0x8000000000000001\";\"02\":\"0x0000000000000002\"");

  // k ASCII strings: each steps by its length without the terminator, so
  // the second comes out empty and swallows the 't' of the third.
  EXPECT_EQ(walk(layout({{0xD382, "S"}}), {'o', 'n', 'e', 0, 't', 'w', 'o', 0}, &consumed),
            "\"01-S[0]\":\"one\";\"02-S[1]\":\"-\";\"03-S[2]\":\"wo\"");
  EXPECT_EQ(consumed, 7);
  // k of 0 does nothing.
  EXPECT_EQ(walk(layout({{0xD084, "X"}, {4, "B"}}), {7}), "\"01-B\":\"0x07\"");
}

TEST(DecodeComplexField, CountFromEarlierField) {
  EXPECT_EQ(walk(layout({{4, "Len"}, {0xA102, "Name"}, {8, "End"}}),
                 {0x03, 'a', 'b', 'c', 0x78, 0x56, 0x34, 0x12}),
            "\"01-Len\":\"0x03\";\"02-Name\":\"abc\";\"03-End\":\"0x12345678\"");

  // Size 6, Name 0xA101, Flags 8: characters counted.
  const event_template sized = layout({{6, "Size"}, {0xA101, "Name"}, {8, "Flags"}});
  int32_t consumed = 0;
  EXPECT_EQ(walk(sized, {3, 0, 'a', 0, 'b', 0, 'c', 0, 0x78, 0x56, 0x34, 0x12}, &consumed),
            "\"01-Size\":\"0x0003\";\"02-Name\":\"abc\";\"03-Flags\":\"0x12345678\"");
  EXPECT_EQ(consumed, 12);
  // Size 0: Name is a mark that takes nothing, keyed ahead of Flags.
  decoded_fields fields;
  const std::vector<uint8_t> zero = {0, 0, 0x78, 0x56, 0x34, 0x12};
  walk_template(sized, fields, zero.data(), 6, zero.data() + 6, kBase, false);
  EXPECT_EQ(render(fields), "\"01-Size\":\"0x0000\";\"02-Name\":\"-\";\"03-Flags\":\"0x12345678\"");
  EXPECT_EQ(keys(fields), (std::vector<uint64_t>{kBase, kBase + 1, kBase + 2}));
  // A count beyond what remains reads as 0.
  EXPECT_EQ(walk(sized, {0x50, 0, 0x78, 0x56, 0x34, 0x12}),
            "\"01-Size\":\"0x0050\";\"02-Name\":\"-\";\"03-Flags\":\"0x12345678\"");
  // A length that counted bytes (terminator included) where characters were
  // meant: the limit is twice what the text took, and the size is repaired.
  EXPECT_EQ(walk(sized, {10, 0, 'h', 0, 'e', 0, 'l', 0, 'l', 0, 0, 0, 0x78, 0x56, 0x34, 0x12,
                         0, 0, 0, 0, 0, 0, 0, 0},
                 &consumed),
            "\"01-Size\":\"0x000a\";\"02-Name\":\"hell\";\"03-Flags\":\"0x12345678\"");
  EXPECT_EQ(consumed, 16);

  // n UTF-16 strings under the bare name.
  EXPECT_EQ(walk(layout({{4, "N"}, {0xA181, "Items"}}), {2, 'a', 0, 0, 0, 'b', 0, 0, 0}),
            "\"01-N\":\"0x02\";\"02-Items\":\"a\";\"03-Items\":\"b\"");

  // 0xAk82 consumes nothing: the next field reads the same bytes at the same
  // key and is refused.
  EXPECT_EQ(walk(layout({{4, "N"}, {0xA182, "Text"}, {4, "Next"}}), {3, 'a', 'b', 'c'}, &consumed),
            "\"01-N\":\"0x03\";\"02-Text\":\"abc\"");
  EXPECT_EQ(consumed, 2);

  // Blobs that are wholly a string show as that string.
  EXPECT_EQ(walk(layout({{4, "N"}, {0xA184, "Data"}}), {6, 'h', 'e', 'l', 'l', 'o', '!'}),
            "\"01-N\":\"0x06\";\"02-Data\":\"hello!\"");
  EXPECT_EQ(walk(layout({{4, "N"}, {0xA184, "Data"}}), {8, 'a', 0, 'b', 0, 'c', 0, 0, 0}),
            "\"01-N\":\"0x08\";\"02-Data\":\"abc\"");
  EXPECT_EQ(walk(layout({{4, "N"}, {0xA184, "Data"}}), {6, 'h', 'e', 'l', 0x01, 'o', '!'}),
            "\"01-N\":\"0x06\";\"02-Data\":\"68656c016f21\"");
  EXPECT_EQ(walk(layout({{4, "N"}, {0xA184, "Data"}}), {4, 1, 2, 3, 4}),
            "\"01-N\":\"0x04\";\"02-Data\":\"01020304\"");

  // n 32-bit values, and none when they don't all fit (4n is taken anyway).
  EXPECT_EQ(walk(layout({{4, "N"}, {0xA188, "V"}}), {2, 1, 0, 0, 0, 2, 0, 0, 0}),
            "\"01-N\":\"0x02\";\"02-V[0]\":\"0x00000001\";\"03-V[1]\":\"0x00000002\"");
  EXPECT_EQ(walk(layout({{4, "N"}, {0xA188, "V"}}), {2, 1, 0, 0, 0}, &consumed), "\"01-N\":\"0x02\"");
  EXPECT_EQ(consumed, 9);
  EXPECT_EQ(walk(layout({{4, "N"}, {0xA190, "P"}}), {1, 1, 0, 0, 0, 0, 0, 0, 0xff}, nullptr, true),
            "\"01-N\":\"0x01\";\"02-P[0]\":\"0xff00000000000001\"");

  // The count may lie further back: k is counted in map entries.
  EXPECT_EQ(walk(layout({{4, "N"}, {4, "Other"}, {0xA202, "Name"}}), {2, 9, 'h', 'i'}),
            "\"01-N\":\"0x02\";\"02-Other\":\"0x09\";\"03-Name\":\"hi\"");
  // k 0 does nothing.
  EXPECT_EQ(walk(layout({{4, "N"}, {0xA002, "Name"}, {4, "B"}}), {2, 7}),
            "\"01-N\":\"0x02\";\"02-B\":\"0x07\"");
}

TEST(DecodeComplexField, SpecialWords) {
  // The label stands ahead of the payload's first field.
  decoded_fields fields;
  const event_template terminate =
      layout({{0x8001, "WMI_LOG_TYPE_PROCESS_TERMINATE"}, {8, "ProcessID"}});
  const std::vector<uint8_t> pid = {0x34, 0x12, 0, 0};
  walk_template(terminate, fields, pid.data(), 4, pid.data() + 4, kBase, false);
  EXPECT_EQ(render(fields),
            "\"01-WMI_LOG_TYPE_PROCESS_TERMINATE\":\"{guess}\";\"02-ProcessID\":\"0x00001234\"");
  EXPECT_EQ(keys(fields), (std::vector<uint64_t>{kBase - 2, kBase}));

  // A second label at the same position is refused; after a field it isn't.
  EXPECT_EQ(walk(layout({{0x8001, "A"}, {0x8001, "B"}, {8, "X"}}), {1, 0, 0, 0}),
            "\"01-A\":\"{guess}\";\"02-X\":\"0x00000001\"");
  EXPECT_EQ(walk(layout({{0x8001, "A"}, {8, "X"}, {0x8001, "B"}, {8, "Y"}}), {1, 0, 0, 0, 2, 0, 0, 0}),
            "\"01-A\":\"{guess}\";\"02-X\":\"0x00000001\";\"03-B\":\"{guess}\";\"04-Y\":\"0x00000002\"");

  // An empty payload: "{comment}" under the first name when the first word
  // is 0x8000 or 0x8001.
  fields.clear();
  EXPECT_EQ(walk_template(layout({{0x8000, "Ev"}, {8, "X"}}), fields, nullptr, 0, nullptr, kBase,
                          false),
            0);
  EXPECT_EQ(render(fields), "\"01-Ev\":\"{comment}\"");
  fields.clear();
  walk_template(layout({{8, "X"}}), fields, nullptr, 0, nullptr, kBase, false);
  EXPECT_TRUE(fields.empty());

  // AppHash replaces the template's name; it needs 21 bytes.
  std::vector<uint8_t> hash(21);
  for (size_t i = 0; i < hash.size(); ++i) hash[i] = uint8_t(i);
  EXPECT_EQ(walk(layout({{0x8002, "ApplicationImageHeaderHash"}}), hash),
            "\"01-AppHash\":\"000102030405060708090a0b0c0d0e0f1011121314\"");
  hash.pop_back();
  int32_t consumed = 0;
  EXPECT_EQ(walk(layout({{0x8002, "ApplicationImageHeaderHash"}}), hash, &consumed), "");
  EXPECT_EQ(consumed, 0);

  // 32 bytes of UTF-16 text; an empty one is a mark at base - 1.
  std::vector<uint8_t> text32(32, 0);
  text32[0] = 'a';
  text32[2] = 'b';
  EXPECT_EQ(walk(layout({{0x8005, "Tag"}}), text32, &consumed), "\"01-Tag\":\"ab\"");
  EXPECT_EQ(consumed, 32);
  fields.clear();
  const std::vector<uint8_t> blank(32, 0);
  walk_template(layout({{0x8005, "Tag"}}), fields, blank.data(), 32, blank.data() + 32, kBase, false);
  EXPECT_EQ(render(fields), "\"01-Tag\":\"-\"");
  EXPECT_EQ(keys(fields), std::vector<uint64_t>{kBase - 1});

  // USB iso packets, counted by the field k back.
  std::vector<uint8_t> iso = {2, 0, 0, 0};
  for (uint8_t i = 1; i <= 6; ++i) iso.insert(iso.end(), {i, 0, 0, 0});
  EXPECT_EQ(walk(layout({{8, "Count"}, {0x810A, "Packets"}}), iso, &consumed),
            "\"01-Count\":\"0x00000002\";\"02-Offset\":\"0x00000001\";\"03-Length\":\"0x00000002\";"
            "\"04-Status\":\"0x00000003\";\"05-Offset\":\"0x00000004\";\"06-Length\":\"0x00000005\";"
            "\"07-Status\":\"0x00000006\"");
  EXPECT_EQ(consumed, 28);
  EXPECT_EQ(walk(layout({{8, "Count"}, {0x800A, "Packets"}}), iso), "\"01-Count\":\"0x00000002\"");
}

TEST(BackValue, EntriesCountedFromTheEnd) {
  decoded_fields fields;
  fields.add(10)->number = 5;
  fields.add(20)->number = 9;
  EXPECT_EQ(back_value(fields, 1, 100), 9u);
  EXPECT_EQ(back_value(fields, 2, 100), 5u);
  EXPECT_EQ(back_value(fields, 3, 100), 0u);
  EXPECT_EQ(back_value(fields, 1, 8), 0u);  // larger than what remains
  EXPECT_EQ(back_value(fields, 1, 9), 9u);
  EXPECT_EQ(back_value(fields, 0, 100), 0u);
}

class DecodePayload : public ::testing::Test {
 protected:
  void SetUp() override {
    event_template t = layout({{8, "A"}});
    t.digest = template_digest{{7}};
    store_.templates.push_back(t);
    store_.by_digest[t.digest] = 0;
    guid_[0] = 0x42;
    store_.providers[guid_].events[7][0] = t.digest;
  }
  template_store store_;
  qv::guid16 guid_{};
};

TEST_F(DecodePayload, TemplateThenGuess) {
  const std::vector<uint8_t> payload = {1, 0, 0, 0, 2, 0, 0, 0, 3, 0};
  decoded_fields fields;
  bool guessed = false;
  EXPECT_TRUE(decode_payload(fields, kBase, &guid_, 7, -1, payload.data(), 10, payload.data() + 10,
                             &store_, false, false, guessed));
  EXPECT_TRUE(guessed);
  EXPECT_EQ(render(fields),
            "\"01-A\":\"0x00000001\";\"02-guess_uint32\":\"0x00000002\";\"03-guess_uint16\":\"0x0003\"");
  EXPECT_EQ(keys(fields), (std::vector<uint64_t>{kBase, kBase + 4, kBase + 8}));

  // Three bytes left over are dropped unseen.
  fields.clear();
  EXPECT_TRUE(decode_payload(fields, kBase, &guid_, 7, -1, payload.data(), 7, payload.data() + 7,
                             &store_, false, false, guessed));
  EXPECT_FALSE(guessed);
  EXPECT_EQ(render(fields), "\"01-A\":\"0x00000001\"");
}

TEST_F(DecodePayload, NoTemplate) {
  const std::vector<uint8_t> payload = {1, 2, 3, 4, 5};
  decoded_fields fields;
  bool guessed = true;
  // Three bytes and no template: nothing at all.
  EXPECT_FALSE(decode_payload(fields, kBase, &guid_, 8, -1, payload.data(), 3, payload.data() + 3,
                              &store_, false, false, guessed));
  EXPECT_FALSE(guessed);
  EXPECT_TRUE(fields.empty());
  // No provider: the guesser takes all.
  EXPECT_TRUE(decode_payload(fields, kBase, nullptr, 7, -1, payload.data(), 5, payload.data() + 5,
                             &store_, false, false, guessed));
  EXPECT_TRUE(guessed);
  EXPECT_EQ(render(fields), "\"01-guess_uint32\":\"0x04030201\";\"02-guess_byte\":\"0x05\"");

  // keep_fields leaves what is there (extended items); otherwise it goes.
  fields.clear();
  fields.add(5)->text = "ext";
  decode_payload(fields, kBase, &guid_, 7, -1, payload.data(), 4, payload.data() + 4, &store_, false,
                 true, guessed);
  EXPECT_EQ(render(fields), "\"01\":\"ext\";\"02-A\":\"0x04030201\"");
  decode_payload(fields, kBase, &guid_, 7, -1, payload.data(), 4, payload.data() + 4, &store_, false,
                 false, guessed);
  EXPECT_EQ(render(fields), "\"01-A\":\"0x04030201\"");

  // A template whose names don't match its words isn't used.
  store_.templates[0].names.push_back("Extra");
  EXPECT_TRUE(decode_payload(fields, kBase, &guid_, 7, -1, payload.data(), 4, payload.data() + 4,
                             &store_, false, false, guessed));
  EXPECT_TRUE(guessed);
  EXPECT_EQ(render(fields), "\"01-guess_uint32\":\"0x04030201\"");
}

}  // namespace
