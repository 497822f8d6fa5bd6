#include "support/line_text.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// Random edits applied to a line_text and to a plain std::string side by
// side: after each, the line must hold what the string holds. The pieces
// run from empty to past the fixed-size stores and the room, so that every
// path of each edit runs, and the storage is reused from line to line.
TEST(LineText, EditsMatchThoseOfAString) {
  uint32_t seed = 12345;
  auto next = [&seed]() {
    seed = seed * 1103515245u + 12345u;
    return seed >> 16;
  };
  std::string storage;
  for (int round = 0; round < 300; ++round) {
    qv::line_text line(storage);
    std::string model;
    for (int step = 0; step < 60; ++step) {
      const uint32_t op = next() % 9;
      const size_t n = next() % 4 == 0 ? next() % 300 : next() % 20;
      std::string piece;
      for (size_t i = 0; i < n; ++i) piece += char('a' + next() % 26);
      switch (op) {
        case 0:
          line.append(piece.data(), piece.size());
          model.append(piece);
          break;
        case 1:
          line.append(n, ' ');
          model.append(n, ' ');
          break;
        case 2:
          line += piece;
          model += piece;
          break;
        case 3:
          line.push_back('x');
          model.push_back('x');
          break;
        case 4:
          if (!model.empty()) {
            line.pop_back();
            model.pop_back();
          }
          break;
        case 5: {
          const size_t at = model.empty() ? 0 : next() % (model.size() + 1);
          line.insert(at, n, '-');
          model.insert(at, n, '-');
          break;
        }
        case 6:
          if (!model.empty()) {
            const size_t at = next() % model.size();
            const size_t k = next() % (model.size() - at + 1);
            line.erase(at, k);
            model.erase(at, k);
          }
          break;
        case 7: {
          const size_t to = next() % (model.size() + 40);
          line.resize(to);
          model.resize(to);
          break;
        }
        case 8: {
          // A helper that appends to a string sees the line and adds to it.
          std::string& s = line.settle();
          ASSERT_EQ(s, model);
          s += piece;
          line.resume();
          model += piece;
          break;
        }
      }
      ASSERT_EQ(line.view(), model) << "round " << round << " step " << step << " op " << op;
      ASSERT_EQ(line.size(), model.size());
      if (!model.empty()) {
        ASSERT_EQ(line.back(), model.back());
      }
    }
  }
}

TEST(LineText, StartsEmptyOnReusedStorageAndKeepsItsRoom) {
  std::string storage = "left over from an earlier line";
  qv::line_text line(storage);
  EXPECT_TRUE(line.empty());
  line += std::string_view("ab");
  EXPECT_EQ(line.view(), "ab");
  // The stores that run over stay in the room behind the line.
  EXPECT_GE(storage.size(), line.size() + qv::line_text::kSlack);
  line.clear();
  EXPECT_EQ(line.view(), "");
}

}  // namespace
