#include "support/guid.h"

#include <gtest/gtest.h>

#include <functional>

namespace {

TEST(Guid, LessOrdersAsPlainBytes) {
  // By hand: the first byte that differs decides, wherever it stands.
  qv::guid16 a{}, b{};
  b[15] = 1;
  EXPECT_TRUE(qv::guid_less()(a, b));
  EXPECT_FALSE(qv::guid_less()(b, a));
  EXPECT_FALSE(qv::guid_less()(a, a));
  a[0] = 0x01;
  b[0] = 0x00;
  b[1] = 0xFF;  // a byte after the first weighs less than the first
  EXPECT_TRUE(qv::guid_less()(b, a));
  qv::guid16 c{}, d{};
  c[7] = 0x80;
  d[8] = 0xFF;
  EXPECT_TRUE(qv::guid_less()(d, c));

  // Random pairs drawn from few byte values, so that long equal stretches
  // come up: the same answer as std::less in both directions.
  const uint8_t pool[] = {0x00, 0x01, 0x7F, 0x80, 0xFE, 0xFF};
  uint32_t seed = 99;
  auto next = [&seed]() {
    seed = seed * 1103515245u + 12345u;
    return seed >> 16;
  };
  for (int round = 0; round < 20000; ++round) {
    qv::guid16 x, y;
    for (size_t i = 0; i < 16; ++i) {
      x[i] = pool[next() % sizeof pool];
      y[i] = (next() % 4 == 0) ? pool[next() % sizeof pool] : x[i];
    }
    ASSERT_EQ(qv::guid_less()(x, y), std::less<qv::guid16>()(x, y)) << round;
    ASSERT_EQ(qv::guid_less()(y, x), std::less<qv::guid16>()(y, x)) << round;
  }
}

}  // namespace
