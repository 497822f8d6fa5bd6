#include "trace/xpress.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using bytes = std::vector<uint8_t>;

// A small encoder of the same stream, driven by explicit literals and
// matches, so that every length form can be produced on purpose.
class stream_builder {
 public:
  stream_builder() { start_flags(); }

  stream_builder& literal(const std::string& s) {
    for (char c : s) {
      out_.push_back(static_cast<uint8_t>(c));
      expected_.push_back(static_cast<uint8_t>(c));
      flag(false);
    }
    return *this;
  }
  stream_builder& match(size_t offset, size_t length) {
    for (size_t i = 0; i < length; ++i) expected_.push_back(expected_[expected_.size() - offset]);
    size_t l = length - 3;
    const uint16_t off = static_cast<uint16_t>((offset - 1) << 3);
    if (l < 7) {
      put16(off | static_cast<uint16_t>(l));
    } else {
      put16(off | 7);
      l -= 7;
      const uint8_t nibble = static_cast<uint8_t>(l < 15 ? l : 15);
      if (nibble_at_ == 0) {
        nibble_at_ = out_.size();
        out_.push_back(nibble);
      } else {
        out_[nibble_at_] |= static_cast<uint8_t>(nibble << 4);
        nibble_at_ = 0;
      }
      if (l >= 15) {
        l -= 15;
        if (l < 255) {
          out_.push_back(static_cast<uint8_t>(l));
        } else {
          out_.push_back(255);
          l += 15 + 7;
          if (l < 65536) {
            put16(static_cast<uint16_t>(l));
          } else {
            put16(0);
            for (int i = 0; i < 4; ++i) out_.push_back(static_cast<uint8_t>(l >> (8 * i)));
          }
        }
      }
    }
    flag(true);
    return *this;
  }
  // Ends the stream: the remaining flag bits are ones, so the next bit read
  // is a one with no input left.
  bytes finish() {
    const uint32_t rest = 32 - count_;
    const uint32_t f = rest == 32 ? 0xFFFFFFFFu : (flags_ << rest) | ((1u << rest) - 1);
    for (int i = 0; i < 4; ++i) out_[flags_at_ + i] = static_cast<uint8_t>(f >> (8 * i));
    return out_;
  }
  const bytes& expected() const { return expected_; }

 private:
  void start_flags() {
    flags_at_ = out_.size();
    out_.resize(out_.size() + 4);
    flags_ = 0;
    count_ = 0;
  }
  // A full word is written in place and the next one reserved behind the
  // item that completed it.
  void flag(bool bit) {
    flags_ = (flags_ << 1) | (bit ? 1 : 0);
    if (++count_ == 32) {
      for (int i = 0; i < 4; ++i) out_[flags_at_ + i] = static_cast<uint8_t>(flags_ >> (8 * i));
      start_flags();
    }
  }
  void put16(uint16_t v) {
    out_.push_back(static_cast<uint8_t>(v));
    out_.push_back(static_cast<uint8_t>(v >> 8));
  }

  bytes out_;
  bytes expected_;
  size_t flags_at_ = 0;
  uint32_t flags_ = 0;
  uint32_t count_ = 0;
  size_t nibble_at_ = 0;
};

bytes decode(const bytes& in, size_t capacity, bool& ok) {
  bytes out(capacity);
  size_t produced = 0;
  ok = xpress_decompress(in.data(), in.size(), out.data(), out.size(), produced);
  out.resize(produced);
  return out;
}

}  // namespace

TEST(Xpress, HandMadeStreams) {
  bool ok;
  // Three literals, then the end marker: a one bit with no input left.
  EXPECT_EQ(decode({0x00, 0x00, 0x00, 0x10, 'a', 'b', 'c'}, 16, ok), (bytes{'a', 'b', 'c'}));
  EXPECT_TRUE(ok);
  // A literal and an overlapping match of offset 1, length 7.
  EXPECT_EQ(decode({0x00, 0x00, 0x00, 0x60, 'a', 0x04, 0x00}, 16, ok), bytes(8, 'a'));
  EXPECT_TRUE(ok);
  // Length 15 through the half byte (7 + 5 + 3).
  EXPECT_EQ(decode({0x00, 0x00, 0x00, 0x60, 'x', 0x07, 0x00, 0x05}, 32, ok), bytes(16, 'x'));
  EXPECT_TRUE(ok);
}

TEST(Xpress, EveryLengthFormRoundTrips) {
  stream_builder b;
  b.literal("abcdefgh").match(8, 3).match(3, 9).match(5, 10)  // two matches share one half byte
      .match(1, 3 + 7 + 15 + 100)                              // byte escape
      .match(2, 3 + 7 + 15 + 254)                              // largest byte form
      .match(4, 3 + 7 + 15 + 255)                              // 16-bit escape
      .match(1, 70000)                                         // 32-bit escape
      .literal("z");
  const bytes stream = b.finish();
  bool ok;
  const bytes out = decode(stream, b.expected().size(), ok);
  EXPECT_TRUE(ok);
  EXPECT_EQ(out, b.expected());
}

TEST(Xpress, FlagWordAtTheVeryEnd) {
  // Exactly 32 literals fill one flag word; the end marker is a word of its
  // own standing last in the stream.
  stream_builder b;
  b.literal(std::string(32, 'q'));
  bytes stream = b.finish();
  bool ok;
  EXPECT_EQ(decode(stream, 64, ok), b.expected());
  EXPECT_TRUE(ok);
}

TEST(Xpress, CorruptStreamsAreRefused) {
  bool ok;
  // A match reaching before the start of the output.
  decode({0x00, 0x00, 0x00, 0x60, 'a', 0x0C, 0x00}, 16, ok);
  EXPECT_FALSE(ok);
  // A literal with no input left.
  decode({0x00, 0x00, 0x00, 0x00, 'a'}, 16, ok);
  EXPECT_FALSE(ok);
  // Output past the capacity.
  decode({0x00, 0x00, 0x00, 0x60, 'a', 0x04, 0x00}, 4, ok);
  EXPECT_FALSE(ok);
  // A truncated flag word, a truncated match word, a missing length byte.
  decode({0x00, 0x00}, 16, ok);
  EXPECT_FALSE(ok);
  decode({0x00, 0x00, 0x00, 0x40, 'a', 0x04}, 16, ok);
  EXPECT_FALSE(ok);
  decode({0x00, 0x00, 0x00, 0x40, 'a', 0x07, 0x00}, 64, ok);
  EXPECT_FALSE(ok);
  // Every truncation of a good stream fails or stops without a fault.
  stream_builder b;
  b.literal("hello, hello, hello").match(7, 12).match(1, 300);
  const bytes stream = b.finish();
  for (size_t n = 0; n < stream.size(); ++n) {
    bytes cut(stream.begin(), stream.begin() + static_cast<std::ptrdiff_t>(n));
    bytes out = decode(cut, b.expected().size(), ok);
    if (ok) {
      EXPECT_LT(out.size(), b.expected().size());
    }
  }
}
