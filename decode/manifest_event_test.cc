#include "decode/manifest_event.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

TEST(ManifestEvent, EnvelopeFieldsByNameAndTheTextOnce) {
  // Format 1, version 1.2, magic 0x5B, 3 chunks, chunk 1, then "<a/>".
  const std::vector<uint8_t> payload = {1, 1, 2, 0x5B, 3, 0, 1, 0, '<', 'a', '/', '>'};
  manifest_envelope e;
  ASSERT_TRUE(read_manifest_envelope(payload.data(), uint32_t(payload.size()), e));
  EXPECT_EQ(e.format, 1);
  EXPECT_EQ(e.major_version, 1);
  EXPECT_EQ(e.minor_version, 2);
  EXPECT_EQ(e.total_chunks, 3);
  EXPECT_EQ(e.chunk_number, 1);
  EXPECT_EQ(e.chunk_size, 4u);
  EXPECT_EQ(e.chunk, payload.data() + 8);

  decoded_fields fields;
  bool guessed = true;
  decode_manifest_event(fields, 1000, payload.data(), uint32_t(payload.size()), guessed);
  EXPECT_FALSE(guessed);
  std::vector<std::string> seen;
  for (const auto& entry : fields) seen.push_back(std::to_string(entry.key) + " " + entry.field.name);
  EXPECT_EQ(seen, (std::vector<std::string>{"1000 Format", "1001 MajorVersion", "1002 MinorVersion", "1003 Magic",
                                            "1004 TotalChunks", "1006 ChunkNumber", "1008 ManifestText"}));
  const decoded_field* text = fields.from_end(1);
  EXPECT_EQ(text->text, "<a/>");
  EXPECT_EQ(fields.from_end(3)->number, 3u);

  // Short, or another magic byte: not a manifest event.
  EXPECT_FALSE(read_manifest_envelope(payload.data(), 7, e));
  std::vector<uint8_t> other = payload;
  other[3] = 0x5C;
  EXPECT_FALSE(read_manifest_envelope(other.data(), uint32_t(other.size()), e));

  // A zero byte ends the text; what follows it, 4 bytes or more, is guessed.
  std::vector<uint8_t> tail = {1, 1, 0, 0x5B, 1, 0, 0, 0, 'x', 0, 0x10, 0x20, 0x30, 0x40};
  decode_manifest_event(fields, 0, tail.data(), uint32_t(tail.size()), guessed);
  EXPECT_TRUE(guessed);
}
