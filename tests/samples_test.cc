// The real traces written by Windows (read from the shared samples folder,
// skipped when it is absent): each is accepted, walked to its end, and read
// the same way every time.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "tests/e2e_util.h"

namespace {

bool samples_present() {
  struct stat st {};
  return ::stat(QUON_SAMPLES_DIR, &st) == 0 && S_ISDIR(st.st_mode);
}

std::string sample(const std::string& name) { return std::string(QUON_SAMPLES_DIR) + "/" + name; }

const std::vector<std::string>& all_samples() {
  static const std::vector<std::string> names = {
      "AMSITrace.etl",
      "ShutdownPerfDiagLogger.etl",
      "hw3d-trace.etl",
      "lxcore_kernel.etl",
      "powershell.etl",
      "sonde-relogged.etl",
      "perfview/gcevents.etl",
      "perfview/SelfDescribingSingleEvent.etl",
      "perfview/smallEtlFile.etl",
      "syzygy-2010-03/test_data_32_v0.etl",
      "syzygy-2010-03/test_data_64_v2.etl",
      "syzygy-2010-06/image_data_32_v1.etl",
      "syzygy-2010-06/process_data_32_v3.etl",
      "syzygy-2010-06/process_data_64_v3.etl",
  };
  return names;
}

// The line of the per-file head that names the trace's own log file.
std::string orig_source(const std::string& out) {
  const std::string marker = "orig source path: ";
  const size_t at = out.find(marker);
  if (at == std::string::npos) return "";
  return out.substr(at + marker.size(), out.find('\n', at) - at - marker.size());
}

}  // namespace

TEST(Samples, EveryTraceIsReadToTheEndTheSameWayTwice) {
  if (!samples_present()) GTEST_SKIP() << "no samples folder";
  for (const std::string& name : all_samples()) {
    SCOPED_TRACE(name);
    e2e::run_result first = e2e::run_quon("-quiet -log '" + sample(name) + "'");
    EXPECT_EQ(first.status, 0);
    EXPECT_EQ(first.err, "");
    EXPECT_NE(first.out.find("file: " + sample(name) + "\n"), std::string::npos);
    e2e::run_result second = e2e::run_quon("-quiet -log '" + sample(name) + "'");
    EXPECT_EQ(e2e::without_run_time(first.out), e2e::without_run_time(second.out));
  }
}

TEST(Samples, LogHeaderNamesAreRead) {
  if (!samples_present()) GTEST_SKIP() << "no samples folder";
  e2e::run_result r = e2e::run_quon("-quiet -log '" + sample("AMSITrace.etl") + "'");
  EXPECT_EQ(orig_source(r.out), "c:\\work\\AMSITrace.etl");
  EXPECT_NE(r.out.find("| AMSITraceSession "), std::string::npos);
}
