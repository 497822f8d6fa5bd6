#include "trace/buffer_header.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace {

constexpr uint64_t kT0 = 134170743671234567ull;

void put32(std::vector<uint8_t>& b, size_t off, uint32_t v) {
  for (int i = 0; i < 4; ++i) b[off + i] = uint8_t(v >> (8 * i));
}
void put64(std::vector<uint8_t>& b, size_t off, uint64_t v) {
  for (int i = 0; i < 8; ++i) b[off + i] = uint8_t(v >> (8 * i));
}

}  // namespace

TEST(BufferHeader, KindTests) {
  std::vector<uint8_t> b(386, 0);
  // Log header test: BufferSize non-zero and within the given size.
  EXPECT_FALSE(is_logfile_buffer(b.data(), 386));
  put32(b, 0, 386);
  EXPECT_TRUE(is_logfile_buffer(b.data(), 386));
  EXPECT_FALSE(is_logfile_buffer(b.data(), 385));
  put32(b, 0, 4096);
  EXPECT_FALSE(is_logfile_buffer(b.data(), 4095));
  EXPECT_TRUE(is_logfile_buffer(b.data(), 4096));

  // "RlFs": marker, a block length within the size, and a dated TimeStamp.
  std::vector<uint8_t> r(72, 0);
  std::memcpy(r.data(), "RlFs", 4);
  put64(r, 48, 72);
  EXPECT_FALSE(is_rlfs_buffer(r.data(), 72));  // no date
  put64(r, 16, kT0);
  EXPECT_TRUE(is_rlfs_buffer(r.data(), 72));
  put64(r, 48, 73);
  EXPECT_FALSE(is_rlfs_buffer(r.data(), 72));
  EXPECT_TRUE(is_rlfs_buffer(r.data(), 100));  // the size given is the file's

  // Zero test: the nine words sum to zero with wrap-around.
  std::vector<uint8_t> z(72, 0);
  EXPECT_TRUE(is_zero_block(z.data(), 72));
  put64(z, 0, 1);
  EXPECT_FALSE(is_zero_block(z.data(), 72));
  put64(z, 8, ~0ull);  // 1 + (2^64 - 1) wraps to 0
  EXPECT_TRUE(is_zero_block(z.data(), 72));
}

TEST(BufferHeader, BufferHeaderTestStrictAndLenient) {
  std::vector<uint8_t> b(72, 0);
  EXPECT_FALSE(is_buffer_header(b.data(), 72, false));  // zero size
  EXPECT_TRUE(is_buffer_header(b.data(), 72, true));
  EXPECT_FALSE(is_buffer_header(b.data(), 71, true));   // under 72 left
  put32(b, 4, 200);
  EXPECT_FALSE(is_buffer_header(b.data(), 199, true));
  EXPECT_TRUE(is_buffer_header(b.data(), 200, false));
}

TEST(BufferHeader, RlfsHeaderIsRearranged) {
  std::vector<uint8_t> r(72, 0);
  std::memcpy(r.data(), "RlFs", 4);
  put32(r, 4, 0x2000);
  put32(r, 8, 7);
  put64(r, 16, kT0);
  put64(r, 24, 0x1122334455667788ull);
  r[40] = 5;
  r[41] = 8;
  r[42] = 3;
  put32(r, 48, 0x400);
  uint16_t marker = 0;
  WMI_BUFFER_HEADER h = read_rlfs_header(r.data(), r.size(), marker);
  EXPECT_EQ(h.BufferSize, 0x2000u);
  EXPECT_EQ(h.CurrentOffset, 0x6C52u);  // "Rl"
  EXPECT_EQ(marker, 0x7346);            // "Fs"
  EXPECT_EQ(h.ReferenceCount, 7u);
  EXPECT_EQ(h.TimeStamp, kT0);
  EXPECT_EQ(h.SequenceNumber, 0x55667788u);
  EXPECT_EQ(h.ProcessorNumber, 5);
  EXPECT_EQ(h.Alignment, 8);
  EXPECT_EQ(h.LoggerId, 3);
  EXPECT_EQ(h.Offset, 0x400u);
  EXPECT_EQ(h.SavedOffset, 0x400u);
}
