// The walk always ends: its file position only grows, and a read that gives
// fewer bytes than asked before the end of the file ends the walk. Each walk
// here runs in a child process under an alarm, so that a walk that loops
// fails the test instead of hanging it.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <string>

#include "support/uni_fileio.h"
#include "tests/e2e_util.h"
#include "tests/trace_writer.h"
#include "trace/etl_record.h"
#include "trace/file_walk.h"
#include "trace/trace_engine.h"

namespace {

// Seconds a walk of a few KiB may take before it counts as looping.
constexpr unsigned kWalkSeconds = 20;
// The size the file layer is made to believe in: far more than could be
// walked in the time allowed, 72 bytes at a time or 4 GiB at a time.
constexpr off_t kClaimedSize = off_t(1) << 43;  // 8 TiB, sparse

struct walk_outcome {
  bool finished = false;  // false: the child ran out of time
  bool accepted = false;
  long records = -1;
};

// Counts what the walk hands out.
class counting_sink : public record_sink {
 public:
  void file_opened(const file_opening&) override { ++opened; }
  void take_records(record_list& records) override { count += static_cast<long>(records.size()); }
  void file_ended() override {}
  long opened = 0;
  long count = 0;
};

// Opens the file to walk in the child; null when it can't.
using opener = std::function<std::unique_ptr<uni::fileio>()>;

// Walks in a child process under an alarm of `seconds`.
walk_outcome walk_in_child(const opener& open_file, unsigned seconds = kWalkSeconds) {
  int fds[2];
  if (pipe(fds) != 0) return {};
  const pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    alarm(seconds);
    std::unique_ptr<uni::fileio> file = open_file();
    walk_options opts;
    opts.show_status = false;
    opts.list_stats = true;  // records are unpacked, payloads aren't decoded
    trace_engine engine;
    engine.file_name = "walked";
    counting_sink sink;
    const bool accepted = file && walk_trace_file(*file, opts, engine, sink);
    char text[64];
    const int n = std::snprintf(text, sizeof text, "%d %ld", accepted ? 1 : 0, sink.count);
    if (write(fds[1], text, static_cast<size_t>(n)) != n) _exit(2);
    _exit(0);
  }
  close(fds[1]);
  walk_outcome r;
  char text[64] = {};
  size_t got = 0;
  for (ssize_t n; got + 1 < sizeof text && (n = read(fds[0], text + got, sizeof text - 1 - got)) > 0;)
    got += static_cast<size_t>(n);
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return r;
  int accepted = 0;
  if (std::sscanf(text, "%d %ld", &accepted, &r.records) != 2) return r;
  r.finished = true;
  r.accepted = accepted != 0;
  return r;
}

// Opens `path` as a trace is opened, after making the file layer take its
// size as kClaimedSize; the file is then cut back to `real_size`, so that
// every read behind that point gives nothing at all.
std::unique_ptr<uni::fileio> open_with_claimed_size(const std::string& path, off_t real_size) {
  if (truncate(path.c_str(), kClaimedSize) != 0) return nullptr;
  auto file = std::make_unique<uni::fileio>(path, false, true);
  if (truncate(path.c_str(), real_size) != 0 || !file->is_open()) return nullptr;
  if (file->file_size() != static_cast<uint64_t>(kClaimedSize)) return nullptr;
  return file;
}

// Whether the file system here holds a sparse file of kClaimedSize.
bool sparse_files_work(const e2e::temp_dir& dir) {
  const std::string probe = dir.path("sparse_probe");
  e2e::write_text(probe, "x");
  const bool ok = truncate(probe.c_str(), kClaimedSize) == 0;
  unlink(probe.c_str());
  return ok;
}

tw::bytes headerless_zeros(size_t size) { return tw::bytes(size, 0); }

}  // namespace

// A folder opened through the file layer reads as nothing at all, with a
// size that on ext4 is 2^63-1: the probe of its first block gives no byte,
// and the file is refused at once.
TEST(WalkProgress, FolderIsRefusedAtTheFirstRead) {
  e2e::temp_dir dir;
  dir.mkdir("folder");
  const std::string folder = dir.path("folder");
  const walk_outcome r = walk_in_child([&] { return std::make_unique<uni::fileio>(folder, false, true); });
  ASSERT_TRUE(r.finished) << "the walk of a folder didn't end";
  EXPECT_FALSE(r.accepted);
  EXPECT_EQ(r.records, 0);
}

// A headerless file whose reads give nothing behind its first 14 steps of
// 72 bytes, though the file layer holds it for 8 TiB long: the scan for a
// buffer header steps 72 bytes at a time and would walk the 8 TiB of zeros
// that the file layer makes up for reads of nothing. It ends at the first
// read that gives nothing. (At a length that isn't a multiple of 72, the
// last read gives a few bytes and ends the scan by its size alone.)
TEST(WalkProgress, ReadsOfNothingEndAHeaderlessScan) {
  e2e::temp_dir dir;
  if (!sparse_files_work(dir)) GTEST_SKIP() << "no sparse files of 8 TiB here";
  const off_t real = 14 * 72;
  const std::string path = dir.write("zeros.etl", headerless_zeros(real));
  const walk_outcome r = walk_in_child([&] { return open_with_claimed_size(path, real); });
  ASSERT_TRUE(r.finished) << "the walk went on over bytes the file never gave";
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.records, 0);
}

// A regular trace whose file layer claims 8 TiB: every buffer that is there
// is read and its records handed out, then the first read past the real end
// gives nothing and the walk ends, instead of taking the rest as buffers of
// made-up zeros, 4 GiB at a time (which ends too, after some 2000 reads).
TEST(WalkProgress, ReadsOfNothingEndARegularWalkAfterEveryRealRecord) {
  e2e::temp_dir dir;
  if (!sparse_files_work(dir)) GTEST_SKIP() << "no sparse files of 8 TiB here";
  const tw::bytes sample = tw::sample_trace();
  const std::string path = dir.write("sample.etl", sample);
  // The sample as it is: its four events.
  const walk_outcome plain = walk_in_child([&] { return std::make_unique<uni::fileio>(path, false, true); });
  ASSERT_TRUE(plain.finished);
  ASSERT_TRUE(plain.accepted);
  ASSERT_EQ(plain.records, 4);

  const walk_outcome r = walk_in_child([&] { return open_with_claimed_size(path, static_cast<off_t>(sample.size())); });
  ASSERT_TRUE(r.finished) << "the walk went on over bytes the file never gave";
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.records, 4);
}

// A buffer cut short while the file is read: the bytes that came are still
// read (its records stand), and the walk ends there.
TEST(WalkProgress, AShortBufferReadKeepsWhatCameAndEndsTheWalk) {
  e2e::temp_dir dir;
  if (!sparse_files_work(dir)) GTEST_SKIP() << "no sparse files of 8 TiB here";
  const tw::bytes sample = tw::sample_trace();
  // The log header block and the first buffer are 8192 bytes each; the
  // first buffer's three records lie in its first 1 KiB. Cut in the middle
  // of the first buffer.
  const off_t cut = 8192 + 4096;
  ASSERT_GT(sample.size(), static_cast<size_t>(cut));
  const std::string path = dir.write("cut.etl", sample);
  const walk_outcome r = walk_in_child([&] { return open_with_claimed_size(path, cut); });
  ASSERT_TRUE(r.finished);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.records, 3);
}

// Every length of the sample, and of a headerless file of zeros, cut short
// after opening: whatever the cut, the walk ends.
TEST(WalkProgress, EveryCutAfterOpeningEnds) {
  e2e::temp_dir dir;
  const tw::bytes sample = tw::sample_trace();
  const std::string path = dir.write("every.etl", sample);
  const walk_outcome r = walk_in_child(
      [&]() -> std::unique_ptr<uni::fileio> {
        // All cuts in one child: each opens the whole file, then loses its tail.
        const std::string p = dir.path("cut_each.etl");
        for (size_t cut = 0; cut < sample.size(); cut += 61) {
          dir.write("cut_each.etl", sample);
          uni::fileio file(p, false, true);
          if (truncate(p.c_str(), static_cast<off_t>(cut)) != 0) _exit(3);
          walk_options opts;
          opts.show_status = false;
          opts.list_stats = true;
          trace_engine engine;
          counting_sink sink;
          walk_trace_file(file, opts, engine, sink);
        }
        return std::make_unique<uni::fileio>(path, false, true);
      },
      60);
  ASSERT_TRUE(r.finished);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.records, 4);
}
