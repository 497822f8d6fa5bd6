// The real traces written by Windows (read from the shared samples folder,
// skipped when it is absent): each is accepted, walked to its end, and read
// the same way every time.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
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

namespace {

// What each trace's log header names, and how many buffers follow it, as read
// from the bytes with a separate script (UTF-16 names up to the header
// record's end; buffers stepped by their first word to the file's end).
struct sample_facts {
  const char* name;
  const char* logger;
  const char* log_file;
  int buffers;
};
const sample_facts kFacts[] = {
    {"AMSITrace.etl", "AMSITraceSession", "c:\\work\\AMSITrace.etl", 5},
    {"ShutdownPerfDiagLogger.etl", "PerfDiag Logger",
     "C:\\Windows\\system32\\WDI\\LogFiles\\ShutdownPerfDiagLogger.etl", 48},
    {"hw3d-trace.etl", "trace", "C:\\Users\\RBees\\OneDrive\\Source\\Cpp\\hw3d\\trace.etl", 1},
    {"lxcore_kernel.etl", "lxcore_kernel", "C:\\Prog\\lxcore_kernel.etl", 2},
    {"perfview/SelfDescribingSingleEvent.etl", "Relogger", "[multiple files]", 2},
    {"perfview/gcevents.etl", "PerfViewSession", "C:\\Dev\\runtime\\CoreLab\\PerfViewData.etl", 4},
    {"perfview/smallEtlFile.etl", "PerfWatsonGCHeapETLSession688", "ReloggedFile.ETL", 1},
    {"powershell.etl", "usermode_trace", "C:\\Users\\aaaaa\\output1.etl", 25},
    {"sonde-relogged.etl", "Relogger", "[multiple files]", 8},
    {"syzygy-2010-03/test_data_32_v0.etl", "Make Test Data Session",
     "c:\\code\\sawbuck\\src\\sawbuck\\viewer\\test_data\\test_data_32_v0.etl", 2},
    {"syzygy-2010-06/image_data_64_v2.etl", "Make Test Data Session",
     "C:\\code\\sawbuck\\src\\sawbuck\\viewer\\test_data\\image_data_64_v2.etl", 2},
};

// The last buffer number the status line showed.
int buffers_shown(const std::string& err) {
  const std::string marker = "processing buffer ";
  const size_t at = err.rfind(marker);
  return at == std::string::npos ? 0 : std::atoi(err.c_str() + at + marker.size());
}

}  // namespace

TEST(Samples, LogHeaderNamesAndEveryBuffer) {
  if (!samples_present()) GTEST_SKIP() << "no samples folder";
  for (const sample_facts& f : kFacts) {
    SCOPED_TRACE(f.name);
    e2e::run_result r = e2e::run_quon("-log '" + sample(f.name) + "'");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(orig_source(r.out), f.log_file);
    EXPECT_NE(r.out.find(std::string("| ") + f.logger + " "), std::string::npos);
    EXPECT_EQ(buffers_shown(r.err), f.buffers);
  }
}

TEST(Samples, CompressedTracesGiveTheirEvents) {
  if (!samples_present()) GTEST_SKIP() << "no samples folder";
  e2e::run_result r = e2e::run_quon("-quiet -log '" + sample("perfview/SelfDescribingSingleEvent.etl") + "'");
  EXPECT_EQ(e2e::count(r.out, "corrupted record"), 0u);
  // One event, named by its provider traits and decoded by its own schema.
  EXPECT_EQ(e2e::count(r.out, "| MySource "), 1u);
  EXPECT_NE(r.out.find("\"02-TestEvent\":\"{guess}\";\"03-b\":\"Hello\";\"04-c\":\"World!\"}"), std::string::npos);

  r = e2e::run_quon("-quiet -log '" + sample("perfview/smallEtlFile.etl") + "'");
  EXPECT_EQ(e2e::count(r.out, "corrupted record"), 0u);
  EXPECT_EQ(e2e::count(r.out, "| Microsoft-Windows-DotNETRuntimeRundown "), 1u);
  EXPECT_NE(r.out.find("Microsoft.VisualStudio.Services.Client.dll"), std::string::npos);
}

TEST(Samples, ClassicKernelEventsAreNamedAndDecoded) {
  if (!samples_present()) GTEST_SKIP() << "no samples folder";
  e2e::run_result r = e2e::run_quon("-quiet -log '" + sample("ShutdownPerfDiagLogger.etl") + "'");
  EXPECT_EQ(e2e::count(r.out, "corrupted record"), 0u);
  EXPECT_GT(e2e::count(r.out, "| Kernel-ImageLoad-Trace "), 10000u);
  EXPECT_GT(e2e::count(r.out, "| Kernel-Process-Trace "), 300u);
  // The System process of the process rundown, with its SID and image name.
  EXPECT_NE(r.out.find("\"03-ProcessId\":\"0x00000004\";\"04-ParentId\":\"0x00000000\";"), std::string::npos);
  EXPECT_NE(r.out.find("\"11-UserSID\":\"S-1-5-18\";\"12-ImageFileName\":\"System\""), std::string::npos);
  EXPECT_EQ(r.out.find("guess_"), std::string::npos);
}
