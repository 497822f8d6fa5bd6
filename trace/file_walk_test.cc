#include "trace/file_walk.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <sstream>

#include "support/uni_fileio.h"
#include "tests/trace_writer.h"
#include "trace/trace_engine.h"

namespace {

constexpr uint64_t kT0 = 134170743671234567ull;
const tw::guid kAcme = tw::guid_from_text("5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b");

std::string temp_path(const std::string& name) {
  return testing::TempDir() + "walk_" + std::to_string(getpid()) + "_" + name;
}

tw::bytes event(uint16_t id) {
  tw::event_spec e;
  e.id = id;
  e.time = kT0 + id;
  e.provider = kAcme;
  e.payload.assign(8, 0x22);
  return tw::event_header_record(e);
}

struct walk_result {
  bool accepted = false;
  std::string text;  // what the walk printed under -stats
};

// Walks `bytes` in -stats mode: the counts show which records were read.
walk_result walk(const tw::bytes& bytes, const std::string& name) {
  const std::string path = temp_path(name);
  {
    tw::etl_writer w;
    w.append(bytes);
    EXPECT_TRUE(w.write_file(path));
  }
  walk_options opts;
  opts.show_status = false;
  opts.list_stats = true;
  trace_engine engine;
  engine.stats_enabled = true;
  engine.file_name = name;
  uni::fileio file(path, false);
  std::ostringstream out;
  listing_sink sink(out, engine, true);
  walk_result r;
  r.accepted = walk_trace_file(file, opts, engine, sink);
  r.text = out.str();
  unlink(path.c_str());
  return r;
}

// The -stats table of the sample provider for the given ids and counts.
std::string stats_of(const std::vector<std::pair<int, int>>& counts) {
  std::string s = "5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b : \nevent id | occurances\n";
  for (auto [id, n] : counts) {
    char line[40];
    std::snprintf(line, sizeof line, "%8d | %10d\n", id, n);
    s += line;
  }
  return s + "\n";
}

tw::etl_writer regular(uint32_t buffer_size = 4096) {
  tw::log_header_spec h;
  h.buffer_size = buffer_size;
  h.start_time = kT0;
  h.system_time = kT0;
  tw::etl_writer w;
  w.log_header(h);
  return w;
}

}  // namespace

TEST(FileWalk, TheThreeKindsAreWalkedToTheEnd) {
  tw::etl_writer w = regular();
  w.add_buffer({event(1), event(2)});
  w.add_buffer({event(2)});
  walk_result r = walk(w.data(), "regular.etl");
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.text, "---------------------\nfile: regular.etl\n\n" + stats_of({{1, 1}, {2, 2}}));

  tw::etl_writer rl;
  rl.rlfs_first_block(kT0, kT0, 200, 200);
  rl.add_rlfs_buffer({event(3)}, 1024, kT0 + 100);
  rl.add_rlfs_buffer({event(3), event(4)}, 2048, kT0 + 100);
  r = walk(rl.data(), "rlfs.etl");
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.text, "---------------------\nfile: rlfs.etl\n\n" + stats_of({{3, 2}, {4, 1}}));

  tw::etl_writer hl;
  hl.zero_first_block();
  tw::buffer_spec shape;
  shape.buffer_size = 1024;
  shape.saved_offset = 1024;  // the walk steps by the word at 4 here
  shape.timestamp = kT0 + 100;
  hl.add_buffer({event(5)}, shape);
  hl.add_buffer({event(5)}, shape);
  r = walk(hl.data(), "headerless.etl");
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.text, "---------------------\nfile: headerless.etl\n\n" + stats_of({{5, 2}}));
}

TEST(FileWalk, SmallFilesAndNonTraces) {
  EXPECT_FALSE(walk(tw::bytes(385, 0), "short.etl").accepted);
  walk_result r = walk(tw::bytes(386, 0), "zeros.etl");
  EXPECT_TRUE(r.accepted);  // headerless, with no events
  EXPECT_EQ(r.text, "---------------------\nfile: zeros.etl\n\n");
  tw::bytes text(1000, 'x');
  EXPECT_FALSE(walk(text, "text.etl").accepted);
  // A file of exactly one log header block.
  EXPECT_TRUE(walk(regular().data(), "header.etl").accepted);
}

TEST(FileWalk, ZeroOrOversizedBufferTakesTheRestOfTheFile) {
  for (uint32_t bad_size : {0u, 0x7FFFFFFFu}) {
    SCOPED_TRACE(bad_size);
    tw::etl_writer w = regular();
    w.add_buffer({event(1)});
    tw::buffer_spec shape;
    shape.buffer_size = 600;
    const size_t at = w.add_buffer({event(2)}, shape);
    w.patch_u32(at, bad_size);
    // 600 bytes remain: parsed as one buffer. Its records are tested against
    // the bytes read: a zero size tells nothing, a size past them is cut.
    walk_result r = walk(w.data(), "rest.etl");
    EXPECT_TRUE(r.accepted);
    EXPECT_EQ(r.text, "---------------------\nfile: rest.etl\n\n" + stats_of({{1, 1}, {2, 1}}));

    // With 512 bytes or fewer left, the walk just ends.
    w.truncate(at + 512);
    r = walk(w.data(), "short_rest.etl");
    EXPECT_TRUE(r.accepted);
    EXPECT_EQ(r.text, "---------------------\nfile: short_rest.etl\n\n" + stats_of({{1, 1}}));
  }
}

TEST(FileWalk, RlfsZeroStretchEndsTheWalk) {
  tw::etl_writer rl;
  rl.rlfs_first_block(kT0, kT0, 72, 72);
  rl.add_rlfs_buffer({event(1)}, 512, kT0 + 100);
  rl.append(tw::bytes(72 * 3, 0));
  rl.add_rlfs_buffer({event(2)}, 512, kT0 + 100);
  walk_result r = walk(rl.data(), "stretch.etl");
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.text, "---------------------\nfile: stretch.etl\n\n" + stats_of({{1, 1}}));
}

TEST(FileWalk, EveryTruncationIsReadWithoutAFault) {
  tw::etl_writer w = regular(1024);
  w.add_buffer({event(1), event(2)});
  w.add_buffer({event(3)});
  const tw::bytes full = w.data();
  for (size_t n = full.size(); n > 0; n -= 7) {
    walk(tw::bytes(full.begin(), full.begin() + static_cast<std::ptrdiff_t>(n)), "cut.etl");
    if (n < 7) break;
  }
}

TEST(FileWalk, CompressedBuffersAreExpandedAndDamagedOnesPassedOver) {
  tw::etl_writer w = regular();
  w.add_compressed_buffer({event(1), event(2)}, kT0 + 100);
  const size_t damaged = w.add_compressed_buffer({event(3)}, kT0 + 100);
  w.add_buffer({event(4)});
  walk_result r = walk(w.data(), "compressed.etl");
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.text, "---------------------\nfile: compressed.etl\n\n" + stats_of({{1, 1}, {2, 1}, {3, 1}, {4, 1}}));
  // A stream that doesn't give Offset - 72 bytes is damage: that buffer
  // alone is given up.
  w.patch_u32(damaged + 48, 72 + 200);
  r = walk(w.data(), "damaged.etl");
  EXPECT_EQ(r.text, "---------------------\nfile: damaged.etl\n\n" + stats_of({{1, 1}, {2, 1}, {4, 1}}));
}
