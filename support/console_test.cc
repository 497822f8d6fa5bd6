#include "support/console.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

namespace {

// Sends standard error to a temporary file for the lifetime of the object;
// text() gives what was written so far.
class stderr_capture {
 public:
  stderr_capture() {
    std::fflush(stderr);
    file_ = std::tmpfile();
    saved_ = dup(2);
    if (file_ != nullptr) dup2(fileno(file_), 2);
  }
  ~stderr_capture() {
    std::fflush(stderr);
    dup2(saved_, 2);
    close(saved_);
    if (file_ != nullptr) std::fclose(file_);
  }
  std::string text() {
    std::fflush(stderr);
    std::string out;
    if (file_ == nullptr) return out;
    std::rewind(file_);
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, file_)) > 0) out.append(buf, n);
    return out;
  }

 private:
  FILE* file_ = nullptr;
  int saved_ = -1;
};

const std::string kClear = std::string("\x1b[2K\r") + std::string(27, ' ') + "\r";

TEST(Console, StatusLine) {
  ASSERT_EQ(kClear.size(), 33u);
  {
    stderr_capture cap;
    qv::clear_status_line();
    EXPECT_EQ(cap.text(), kClear);
  }
  {
    // 100 characters show their first 60, without a mark.
    std::string hundred;
    for (int i = 0; i < 100; ++i) hundred += static_cast<char>('0' + i % 10);
    stderr_capture cap;
    EXPECT_EQ(qv::status_line("%s", hundred.c_str()), 60);
    EXPECT_EQ(cap.text(), "\x1b[2K\r   " + hundred.substr(0, 60) + "\r");
  }
  {
    stderr_capture cap;
    EXPECT_EQ(qv::status_line("processing buffer %2d", 3), 20);
    EXPECT_EQ(cap.text(), "\x1b[2K\r   processing buffer  3\r");
  }
  {
    // Line feeds are taken out so the line stays one line.
    stderr_capture cap;
    qv::status_line("percent done %4.2f\n", 12.5);
    qv::status_line("a\nb\n");
    EXPECT_EQ(cap.text(), "\x1b[2K\r   percent done 12.50\r\x1b[2K\r   ab\r");
  }
}

TEST(Console, ErrorOutDropsLastCharacter) {
  {
    stderr_capture cap;
    EXPECT_EQ(qv::error_out("abc\n"), 4);
    EXPECT_EQ(cap.text(), kClear + "abc");
  }
  {
    stderr_capture cap;
    EXPECT_EQ(qv::error_out("prob parsing file: %s\n", "a.etl"), 25);
    EXPECT_EQ(cap.text(), kClear + "prob parsing file: a.etl");
  }
  {
    // One letter: nothing visible but the erased status line.
    stderr_capture cap;
    EXPECT_EQ(qv::error_out("x"), 1);
    EXPECT_EQ(cap.text(), kClear);
  }
  {
    // 4096 characters print 4095; 4097 print nothing, but still erase.
    std::string text(4097, 'e');
    stderr_capture cap;
    EXPECT_EQ(qv::error_out("%s", text.c_str()), 0);
    EXPECT_EQ(cap.text(), kClear);
    text.pop_back();
    EXPECT_EQ(qv::error_out("%s", text.c_str()), 4096);
    EXPECT_EQ(cap.text(), kClear + kClear + std::string(4095, 'e'));
  }
  {
    stderr_capture cap;
    EXPECT_EQ(qv::error_out("%s", ""), 0);
    EXPECT_EQ(cap.text(), kClear);
  }
}

TEST(Console, RunCmd) {
  std::ostringstream out;
  EXPECT_FALSE(qv::run_cmd(L"", L"", out));
  // Success means output, not exit status.
  EXPECT_FALSE(qv::run_cmd(L"true", L"", out));
  EXPECT_FALSE(qv::run_cmd(L"exit 0", L"", out));
  EXPECT_TRUE(out.str().empty());
  ASSERT_TRUE(qv::run_cmd(L"printf 'a\\r\\nb\\rc\\r'; exit 1", L"/nonexistent", out));
  // CR before LF is dropped; a lone CR stays.
  EXPECT_EQ(out.str(), "a\nb\rc\r");

  {
    // Without merging, standard error isn't collected.
    stderr_capture cap;
    std::ostringstream err_only;
    EXPECT_FALSE(qv::run_cmd(L"sh -c 'echo oops 1>&2'", L"", err_only));
    EXPECT_EQ(cap.text(), "oops\n");
    EXPECT_TRUE(err_only.str().empty());
  }
  // " 2>&1" goes behind the whole command line.
  std::ostringstream merged;
  ASSERT_TRUE(qv::run_cmd(L"sh -c 'echo oops 1>&2'", L"", merged, 0, false, true));
  EXPECT_EQ(merged.str(), "oops\n");

  // A CR that is the last byte of a 16384-byte chunk is compared with the
  // byte behind it in the buffer (still zero here), so it is kept.
  std::ostringstream split;
  ASSERT_TRUE(qv::run_cmd(L"printf '%16383s\\r\\n' ''", L"", split));
  EXPECT_EQ(split.str(), std::string(16383, ' ') + "\r\n");
  // A short last chunk is compared with what the chunk before left there:
  // here an LF at index 1, so the final lone CR goes.
  std::ostringstream stale;
  ASSERT_TRUE(qv::run_cmd(L"printf 'x\\n%16382s\\r' ''", L"", stale));
  EXPECT_EQ(stale.str(), "x\n" + std::string(16382, ' '));
  std::ostringstream inside;
  ASSERT_TRUE(qv::run_cmd(L"printf '%16382s\\r\\n' ''", L"", inside));
  EXPECT_EQ(inside.str(), std::string(16382, ' ') + "\n");
  // Output past one chunk arrives whole.
  std::ostringstream large;
  ASSERT_TRUE(qv::run_cmd(L"head -c 40000 /dev/zero | tr '\\0' 'q'", L"", large));
  EXPECT_EQ(large.str(), std::string(40000, 'q'));
}

}  // namespace
