// Memory on a multi-gigabyte trace: quon holds one buffer at a time, so its
// peak resident memory stays under 64 MB whatever the size of the file.
//
// The trace is a sparse file of 2 GiB and more: 4 MiB buffers whose events
// fill their first 64 KiB, the rest of each buffer a hole. The walk still
// reads every buffer whole, so the run goes through every byte of the file
// and writes a row for every event of it.
//
// It takes a while (half a minute on a small machine, mostly the kernel
// reading the holes), so it runs only when QUON_BIG_TESTS is set in the
// environment, as `QUON_BIG_TESTS=1 ctest -L big` does; otherwise it is
// skipped.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tests/e2e_util.h"
#include "tests/record_count.h"
#include "tests/trace_writer.h"

namespace {

constexpr uint64_t kFileBytes = (2ull << 30) + (64ull << 20);  // 2 GiB and 64 MiB
constexpr uint32_t kBufferBytes = 4u << 20;
constexpr uint32_t kUsedBytes = 64u << 10;
constexpr long kPeakLimitKiB = 64 * 1024;

struct child_run {
  int status = -1;
  uint64_t lines = 0;
  long peak_kib = 0;  // the child's own peak resident memory
};

// Runs quon with `args`, counts the lines of its standard output as they
// come through a pipe, and takes the child's peak resident memory from its
// resource use.
child_run run_counting(const std::vector<std::string>& args) {
  child_run r;
  int fds[2];
  if (pipe(fds) != 0) return r;
  const pid_t pid = fork();
  if (pid < 0) return r;
  if (pid == 0) {
    dup2(fds[1], 1);
    close(fds[0]);
    close(fds[1]);
    const int null = open("/dev/null", O_WRONLY);
    if (null >= 0) dup2(null, 2);
    std::vector<char*> argv;
    std::string program = QUON_BINARY;
    argv.push_back(program.data());
    std::vector<std::string> copy = args;
    for (std::string& a : copy) argv.push_back(a.data());
    argv.push_back(nullptr);
    execv(program.c_str(), argv.data());
    _exit(127);
  }
  close(fds[1]);
  std::vector<char> buf(1 << 16);
  for (;;) {
    const ssize_t n = read(fds[0], buf.data(), buf.size());
    if (n <= 0) break;
    for (ssize_t i = 0; i < n; ++i) r.lines += buf[static_cast<size_t>(i)] == '\n';
  }
  close(fds[0]);
  int status = 0;
  struct rusage use;
  std::memset(&use, 0, sizeof use);
  if (wait4(pid, &status, 0, &use) == pid) {
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    r.peak_kib = use.ru_maxrss;  // KiB on Linux
  }
  return r;
}

}  // namespace

TEST(BigTrace, PeakMemoryStaysUnder64MBOnAMultiGigabyteTrace) {
  if (std::getenv("QUON_BIG_TESTS") == nullptr) GTEST_SKIP() << "QUON_BIG_TESTS is not set";
  e2e::temp_dir dir;
  const std::string path = dir.path("big.etl");
  ASSERT_TRUE(tw::write_sparse_big_trace(path, kFileBytes, kBufferBytes, kUsedBytes));
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  ASSERT_GE(static_cast<uint64_t>(st.st_size), 2ull << 30);
  ASSERT_EQ(static_cast<uint64_t>(st.st_size) % kBufferBytes, 0u);

  // Every record of the file gives a row (the log header's own included).
  const record_count count = count_records(path);
  ASSERT_TRUE(count.ok) << count.problem;
  ASSERT_EQ(count.buffers, st.st_size / kBufferBytes);
  ASSERT_GT(count.records, 100000u);

  // The default output: the banner (3 lines and the rule), the file's head
  // (2 lines), the column line, then a row per record.
  const child_run plain = run_counting({"-quiet", "-log", path});
  EXPECT_EQ(plain.status, 0);
  EXPECT_EQ(plain.lines, count.records + 7);
  EXPECT_GT(plain.peak_kib, 0);
  EXPECT_LT(plain.peak_kib, kPeakLimitKiB);

  // JSON Lines: one line per event, nothing else; the log header is no event.
  const child_run jsonl = run_counting({"-quiet", "-jsonl", "-log", path});
  EXPECT_EQ(jsonl.status, 0);
  EXPECT_EQ(jsonl.lines, count.records - 1);
  EXPECT_GT(jsonl.peak_kib, 0);
  EXPECT_LT(jsonl.peak_kib, kPeakLimitKiB);
}
