// -pullguid: a reduced trace of one provider, which quon reads back with
// exactly the rows of that provider in the original.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include "tests/e2e_util.h"
#include "tests/trace_writer.h"

namespace {

constexpr uint64_t kT0 = 134170743671234567ull;
const char kA[] = "5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b";
const char kB[] = "00000001-0002-0003-0405-060708090a0b";

tw::bytes event(const char* provider, uint16_t id, size_t payload) {
  tw::event_spec e;
  e.id = id;
  e.time = kT0 + id;
  e.provider = tw::guid_from_text(provider);
  for (size_t i = 0; i < payload; ++i) e.payload.push_back(uint8_t('a' + (id + i) % 26));
  return tw::event_header_record(e);
}

// The event rows of a run's output (behind the column line and header row).
std::vector<std::string> event_rows(const std::string& out, const std::string& guid = "") {
  std::vector<std::string> rows;
  std::istringstream in(out);
  std::string line;
  int seen_columns = 0;
  while (std::getline(in, line)) {
    if (line.find("created [utc or #ticks]") != std::string::npos) { seen_columns = 1; continue; }
    if (seen_columns == 1) { seen_columns = 2; continue; }  // the header row
    if (seen_columns == 2 && (guid.empty() || line.find(guid) != std::string::npos)) rows.push_back(line);
  }
  return rows;
}

// Pulls `guid` out of `source` and compares the reduced trace's rows with
// the original's rows of that provider.
void check_round_trip(const e2e::temp_dir& dir, const std::string& source, const std::string& guid) {
  SCOPED_TRACE(source + " " + guid);
  const std::string subset = dir.path("subset.etl");
  // The subset of the last round is a trace now, which -out refuses to
  // overwrite: it goes first.
  ::unlink(subset.c_str());
  e2e::run_result pulled = e2e::run_quon("-quiet -pullguid " + guid + " -out " + subset + " -log '" + source + "'");
  EXPECT_EQ(pulled.status, 0);
  const std::string original = e2e::run_quon("-quiet -log '" + source + "'").out;
  const std::string reduced = e2e::run_quon("-quiet -log " + subset).out;
  const std::vector<std::string> want = event_rows(original, guid);
  EXPECT_FALSE(want.empty());
  EXPECT_EQ(event_rows(reduced), want);
}

bool samples_present() {
  struct stat st {};
  return ::stat(QUON_SAMPLES_DIR, &st) == 0;
}

}  // namespace

TEST(Subset, RoundTripOnEveryFileKind) {
  e2e::temp_dir dir;
  // Regular.
  tw::log_header_spec h;
  h.buffer_size = 4096;
  h.start_time = h.system_time = kT0;
  tw::etl_writer regular;
  regular.log_header(h);
  regular.add_buffer({event(kA, 1, 12), event(kB, 2, 30), event(kA, 3, 7)});
  regular.add_buffer({event(kB, 4, 9)});
  regular.add_buffer({event(kB, 5, 9), event(kA, 6, 40)});
  const std::string regular_path = dir.write("regular.etl", regular.data());
  check_round_trip(dir, regular_path, kA);
  check_round_trip(dir, regular_path, kB);

  // Records of both providers behind the log header: the subset's first
  // block keeps only the pulled provider's.
  h.records = {event(kB, 7, 10), event(kA, 8, 20), event(kB, 9, 30)};
  tw::etl_writer first;
  first.log_header(h);
  first.add_buffer({event(kA, 10, 12), event(kB, 11, 30)});
  const std::string first_path = dir.write("first.etl", first.data());
  check_round_trip(dir, first_path, kA);
  check_round_trip(dir, first_path, kB);

  // "RlFs".
  tw::etl_writer rlfs;
  rlfs.rlfs_first_block(kT0, kT0, 72, 72);
  rlfs.add_rlfs_buffer({event(kA, 1, 12), event(kB, 2, 30)}, 2048, kT0 + 100);
  rlfs.add_rlfs_buffer({event(kA, 3, 12)}, 1024, kT0 + 100);
  const std::string rlfs_path = dir.write("rlfs.etl", rlfs.data());
  check_round_trip(dir, rlfs_path, kA);
  check_round_trip(dir, rlfs_path, kB);

  // Headerless: the walk steps by the word at 4, the reader's limit is the
  // word at 0; the subset pads both to 4096.
  tw::etl_writer headerless;
  headerless.zero_first_block();
  tw::buffer_spec shape;
  shape.buffer_size = 4096;
  shape.saved_offset = 4096;
  shape.timestamp = kT0 + 100;
  headerless.add_buffer({event(kA, 1, 12), event(kB, 2, 30), event(kA, 3, 5)}, shape);
  const std::string headerless_path = dir.write("headerless.etl", headerless.data());
  check_round_trip(dir, headerless_path, kA);
  check_round_trip(dir, headerless_path, kB);
}

TEST(Subset, RoundTripOnRealTraces) {
  if (!samples_present()) GTEST_SKIP() << "no samples folder";
  e2e::temp_dir dir;
  const std::string samples = QUON_SAMPLES_DIR;
  // Each with a provider it holds: a user-mode trace, a kernel trace (its
  // classic events find their provider by group), and a compressed one.
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"AMSITrace.etl", "8e805eb3-6a8f-4a1e-90fa-a831d94e54a1"},
      {"powershell.etl", "a0c1853b-5c40-4b15-8766-3cf1c58f985a"},
      {"ShutdownPerfDiagLogger.etl", "3d6fa8d0-fe05-11d0-9dda-00c04fd7ba7c"},
      {"perfview/gcevents.etl", "e13c0d23-ccbc-4e12-931b-d9cc2eee27e4"},
      {"perfview/SelfDescribingSingleEvent.etl", "a61ea624-4944-55fc-c2a8-37838829438d"},
      // The session's own records, behind the log header in the first buffer.
      {"sonde-relogged.etl", "68fdd900-4a3e-11d1-84f4-0000f80464e3"},
  };
  for (const auto& [name, guid] : cases) check_round_trip(dir, samples + "/" + name, guid);
}
