#include "trace/trace_stats.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <sstream>

#include "support/uni_fileio.h"
#include "tests/trace_writer.h"
#include "trace/file_walk.h"
#include "trace/trace_engine.h"

namespace {

constexpr uint64_t kT0 = 134170743671234567ull;
const tw::guid kA = tw::guid_from_text("5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b");
const tw::guid kB = tw::guid_from_text("00000001-0002-0003-0405-060708090a0b");

tw::bytes event(const tw::guid& provider, uint16_t id, size_t payload) {
  tw::event_spec e;
  e.id = id;
  e.time = kT0 + id;
  e.provider = provider;
  e.payload.assign(payload, uint8_t(id));
  return tw::event_header_record(e);
}

std::string temp_path(const std::string& name) {
  return testing::TempDir() + "stats_" + std::to_string(getpid()) + "_" + name;
}

tw::bytes read_all(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return tw::bytes(std::istreambuf_iterator<char>(in), {});
}

uint32_t u32(const tw::bytes& b, size_t off) {
  return b[off] | b[off + 1] << 8 | b[off + 2] << 16 | uint32_t(b[off + 3]) << 24;
}

// The sink of -pullguid walks: nothing is printed.
class quiet_sink : public record_sink {
 public:
  void file_opened(const file_opening&) override {}
  void take_records(record_list&) override {}
  void file_ended() override {}
};

// Walks a file with the given mode switches and returns what was printed.
std::string walk_file(const std::string& path, bool stats, bool guids, const std::string& pull = "",
                      const std::string& out_path = "") {
  walk_options opts;
  opts.show_status = false;
  opts.list_stats = stats;
  opts.list_guids = guids;
  trace_engine engine;
  engine.stats_enabled = stats;
  engine.file_name = "f.etl";
  if (!pull.empty()) {
    opts.subset.on = true;
    opts.subset.path = out_path;
    std::copy(pull.begin(), pull.end(), opts.subset.guid.begin());
  }
  uni::fileio file(path, false);
  std::ostringstream out;
  listing_sink listing(out, engine, stats);
  quiet_sink quiet;
  record_sink& sink = pull.empty() ? static_cast<record_sink&>(listing) : quiet;
  EXPECT_TRUE(walk_trace_file(file, opts, engine, sink));
  return out.str();
}

}  // namespace

TEST(TraceStats, ProviderListAndCountTables) {
  tw::log_header_spec h;
  h.buffer_size = 4096;
  h.start_time = h.system_time = kT0;
  tw::etl_writer w;
  w.log_header(h);
  w.add_buffer({event(kA, 300, 8), event(kB, 7, 8), event(kA, 300, 8), event(kA, 2, 8)});
  const std::string path = temp_path("list.etl");
  ASSERT_TRUE(w.write_file(path));

  // Providers in byte order of their GUIDs; no names without templates.
  const std::string head = "---------------------\nfile: f.etl\n\n";
  EXPECT_EQ(walk_file(path, false, true),
            head + "00000001-0002-0003-0405-060708090a0b : \n5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b : \n");
  const std::string table =
      "00000001-0002-0003-0405-060708090a0b : \n"
      "event id | occurances\n"
      "       7 |          1\n"
      "\n"
      "5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b : \n"
      "event id | occurances\n"
      "       2 |          1\n"
      "     300 |          2\n"
      "\n";
  EXPECT_EQ(walk_file(path, true, false), head + table);
  EXPECT_EQ(walk_file(path, true, true), head + table);  // -stats wins
  unlink(path.c_str());
}

TEST(TraceStats, SubsetTraceHoldsOnlyOneProviderAndReadsBack) {
  tw::log_header_spec h;
  h.buffer_size = 6000;  // not a multiple of 4096: padded to 8192
  h.start_time = h.system_time = kT0;
  tw::etl_writer w;
  w.log_header(h);
  const tw::bytes a1 = event(kA, 1, 5);  // 85 bytes, stored in 88
  w.add_buffer({a1, event(kB, 2, 8), event(kA, 3, 16)});
  w.add_buffer({event(kB, 4, 8)});  // no record of A: left out
  w.add_buffer({event(kA, 5, 8)});
  const std::string src = temp_path("src.etl");
  const std::string dst = temp_path("dst.etl");
  ASSERT_TRUE(w.write_file(src));
  const std::string pull(reinterpret_cast<const char*>(kA.data()), 16);
  EXPECT_EQ(walk_file(src, false, false, pull, dst), "");

  const tw::bytes out = read_all(dst);
  // The first block as it stands, then two padded buffers.
  ASSERT_EQ(out.size(), 6000u + 8192u + 8192u);
  EXPECT_TRUE(std::equal(out.begin(), out.begin() + 6000, w.data().begin()));
  const size_t b1 = 6000;
  const uint32_t used1 = 72 + 88 + 96;
  EXPECT_EQ(u32(out, b1 + 0), 8192u);
  EXPECT_EQ(u32(out, b1 + 4), used1);
  EXPECT_EQ(u32(out, b1 + 8), used1);
  EXPECT_EQ(u32(out, b1 + 48), used1);
  EXPECT_EQ(out[b1 + 72 + 2], 0x12);  // the first record's header type, 0xC012
  EXPECT_EQ(out[b1 + used1], 0xFF);
  EXPECT_EQ(out[b1 + 8191], 0xFF);

  // The reduced trace reads back with exactly that provider's records.
  EXPECT_EQ(walk_file(dst, true, false),
            "---------------------\nfile: f.etl\n\n"
            "5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b : \n"
            "event id | occurances\n"
            "       1 |          1\n"
            "       3 |          1\n"
            "       5 |          1\n\n");

  // A provider that occurs nowhere gives the first block alone.
  const std::string none(16, '\x77');
  walk_file(src, false, false, none, dst);
  EXPECT_EQ(read_all(dst).size(), 6000u);
  unlink(src.c_str());
  unlink(dst.c_str());
}
