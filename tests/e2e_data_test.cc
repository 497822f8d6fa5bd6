// The manifest layouts of data/ against real traces (read from the shared
// samples folder, skipped when it is absent): PowerShell and .NET runtime events
// come out under their manifest field names, with the values that an
// independent reading of the same files gives, and with nothing left over for
// the guesser.
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

struct event_row {
  std::string provider;  // the provider name cell, trimmed
  std::string event_id;  // the event id cell, trimmed, e.g. "0x001f01"
  std::string data;      // the last cell: data{...}
};

std::string trimmed(const std::string& s) {
  const size_t b = s.find_first_not_of(' ');
  if (b == std::string::npos) return "";
  return s.substr(b, s.find_last_not_of(' ') - b + 1);
}

// The event rows of the default padded output: cells are split at " | ", the
// provider name is the third cell, the event id the sixth, the data the last.
std::vector<event_row> event_rows(const std::string& out) {
  std::vector<event_row> rows;
  size_t pos = 0;
  while (pos < out.size()) {
    size_t eol = out.find('\n', pos);
    if (eol == std::string::npos) eol = out.size();
    const std::string line = out.substr(pos, eol - pos);
    pos = eol + 1;
    if (line.find("data{") == std::string::npos) continue;
    std::vector<std::string> cells;
    size_t at = 0;
    for (size_t bar = line.find(" | "); bar != std::string::npos; bar = line.find(" | ", at)) {
      cells.push_back(line.substr(at, bar - at));
      at = bar + 3;
    }
    cells.push_back(line.substr(at));
    if (cells.size() < 16) continue;
    rows.push_back({trimmed(cells[2]), trimmed(cells[5]), trimmed(cells.back())});
  }
  return rows;
}

std::vector<event_row> rows_of(const std::vector<event_row>& rows, const std::string& provider,
                               const std::string& event_id) {
  std::vector<event_row> out;
  for (const event_row& r : rows)
    if (r.provider == provider && r.event_id == event_id) out.push_back(r);
  return out;
}

}  // namespace

TEST(ManifestData, PowerShellEventsDecodeWithTheirManifestNames) {
  if (!samples_present()) GTEST_SKIP() << "no samples folder";
  const e2e::run_result r = e2e::run_quon("-quiet -log '" + sample("powershell.etl") + "'");
  ASSERT_EQ(r.status, 0);
  const std::vector<event_row> rows = event_rows(r.out);

  // Every PowerShell event of the trace is consumed by its layout.
  size_t powershell = 0;
  for (const event_row& row : rows) {
    if (row.provider != "Microsoft-Windows-PowerShell") continue;
    ++powershell;
    SCOPED_TRACE(row.event_id + " " + row.data.substr(0, 80));
    EXPECT_EQ(row.data.find("guess_"), std::string::npos);
  }
  // 110: the 0x1f01 event behind an 80-byte 0xa002 event (at 19624) counts
  // too; the two 80-byte events have no data and aren't among these rows.
  EXPECT_EQ(powershell, 110u);

  // 7937 command lifecycle: ContextInfo (an indented block of "name = value"
  // lines), an empty UserData, and the message as Payload.
  const std::vector<event_row> lifecycle = rows_of(rows, "Microsoft-Windows-PowerShell", "0x001f01");
  ASSERT_EQ(lifecycle.size(), 101u);
  EXPECT_EQ(lifecycle[0].data.rfind("data{\"01-ContextInfo\":\"        Severity = Informational[CRLF]"
                                    "        Host Name = ConsoleHost[CRLF]",
                                    0),
            0u);
  EXPECT_NE(lifecycle[0].data.find("\";\"02-UserData\":\"-\";\"03-Payload\":\"Script execution is Started.[CRLF]\"}"),
            std::string::npos);

  // 7942 engine trace: eight strings, the last four empty.
  const std::vector<event_row> trace = rows_of(rows, "Microsoft-Windows-PowerShell", "0x001f06");
  ASSERT_EQ(trace.size(), 1u);
  EXPECT_EQ(trace[0].data,
            "data{\"01-ClassName\":\"RemoteSessionNamedPipeServer\";\"02-MethodName\":\"StartListening\";"
            "\"03-WorkflowGuid\":\"00000000-0000-0000-0000-000000000000\";"
            "\"04-Message\":\"Listener thread started on Process 16040 in AppDomainName DefaultAppDomain.\";"
            "\"05-JobData\":\"-\";\"06-ActivityName\":\"-\";\"07-ActivityGuid\":\"-\";\"08-Parameters\":\"-\"}");

  // 53504 named pipe listener started: the process id (0x3ea8 in the row's own
  // process cell) and the AppDomain.
  const std::vector<event_row> pipe = rows_of(rows, "Microsoft-Windows-PowerShell", "0x00d100");
  ASSERT_EQ(pipe.size(), 1u);
  EXPECT_EQ(pipe[0].data, "data{\"01-param1\":\"16040\";\"02-param2\":\"DefaultAppDomain\"}");
}

TEST(ManifestData, DotNetGcEventsAgreeWithTheReferenceReading) {
  if (!samples_present()) GTEST_SKIP() << "no samples folder";
  const e2e::run_result r = e2e::run_quon("-quiet -log '" + sample("perfview/gcevents.etl") + "'");
  ASSERT_EQ(r.status, 0);
  const std::vector<event_row> rows = event_rows(r.out);
  const std::string runtime = "Microsoft-Windows-DotNETRuntime";

  // 69 runtime events, as the reference reading counts them. Only LOHCompact
  // (208) and FitBucketInfo (209) leave their padded records to the guesser.
  size_t total = 0;
  for (const event_row& row : rows) {
    if (row.provider != runtime) continue;
    ++total;
    if (row.event_id == "0x0000d0" || row.event_id == "0x0000d1") continue;
    SCOPED_TRACE(row.event_id + " " + row.data.substr(0, 80));
    EXPECT_EQ(row.data.find("guess_"), std::string::npos);
  }
  EXPECT_EQ(total, 69u);

  // GCStart: Count=1, Depth=1, Reason=Induced (1), Type=NonConcurrentGC (0),
  // then Count=2, Depth=2 for the second collection.
  const std::vector<event_row> start = rows_of(rows, runtime, "0x000001");
  ASSERT_EQ(start.size(), 2u);
  EXPECT_EQ(start[0].data,
            "data{\"01-Count\":\"0x00000001\";\"02-Depth\":\"0x00000001\";\"03-Reason\":\"0x00000001\";"
            "\"04-Type\":\"0x00000000\";\"05-ClrInstanceID\":\"0x0008\";"
            "\"06-ClientSequenceNumber\":\"0x0000000000000000\"}");
  EXPECT_EQ(start[1].data.rfind("data{\"01-Count\":\"0x00000002\";\"02-Depth\":\"0x00000002\";", 0), 0u);

  // GCEnd of the first collection: Count=1, Depth=1.
  const std::vector<event_row> end = rows_of(rows, runtime, "0x000002");
  ASSERT_EQ(end.size(), 2u);
  EXPECT_EQ(end[0].data, "data{\"01-Count\":\"0x00000001\";\"02-Depth\":\"0x00000001\";\"03-ClrInstanceID\":\"0x0008\"}");

  // CreateSegment: the pinned object heap at 0x1b0f1000028, 0x01ffffd8 bytes.
  const std::vector<event_row> segment = rows_of(rows, runtime, "0x000005");
  ASSERT_EQ(segment.size(), 7u);
  EXPECT_EQ(segment[0].data,
            "data{\"01-Address\":\"0x000001b0f1000028\";\"02-Size\":\"0x0000000001ffffd8\";"
            "\"03-Type\":\"0x00000003\";\"04-ClrInstanceID\":\"0x0008\"}");

  // AllocationTick: 109,120 bytes, a System.String of 32 bytes at 0x1b0f3818b30.
  const std::vector<event_row> tick = rows_of(rows, runtime, "0x00000a");
  ASSERT_EQ(tick.size(), 12u);
  EXPECT_NE(tick[0].data.find("\"01-AllocationAmount\":\"0x0001aa40\""), std::string::npos);
  EXPECT_NE(tick[0].data.find("\"05-TypeID\":\"0x00007ffb485e1c08\";\"06-TypeName\":\"System.String\""),
            std::string::npos);
  EXPECT_NE(tick[0].data.find("\"08-Address\":\"0x000001b0f3818b30\";\"09-ObjectSize\":\"0x0000000000000020\"}"),
            std::string::npos);

  // HeapStats after the first collection: GenerationSize0=584,
  // TotalPromotedSize0=310,952, FinalizationPromotedCount=6, GCHandleCount=53,
  // GenerationSize4=16,368.
  const std::vector<event_row> stats = rows_of(rows, runtime, "0x000004");
  ASSERT_EQ(stats.size(), 2u);
  EXPECT_NE(stats[0].data.find("\"01-GenerationSize0\":\"0x0000000000000248\";"
                               "\"02-TotalPromotedSize0\":\"0x000000000004bea8\""),
            std::string::npos);
  EXPECT_NE(stats[0].data.find("\"10-FinalizationPromotedCount\":\"0x0000000000000006\""), std::string::npos);
  EXPECT_NE(stats[0].data.find("\"13-GCHandleCount\":\"0x00000035\""), std::string::npos);
  EXPECT_NE(stats[0].data.find("\"15-GenerationSize4\":\"0x0000000000003ff0\""), std::string::npos);

  // GlobalHeapHistory: FinalYoungestDesired=4,677,560, MemoryPressure=59, and
  // the Count of 8 phase times that follows it.
  const std::vector<event_row> global = rows_of(rows, runtime, "0x0000cd");
  ASSERT_EQ(global.size(), 2u);
  EXPECT_EQ(global[0].data.rfind("data{\"01-FinalYoungestDesired\":\"0x0000000000475fb8\"", 0), 0u);
  EXPECT_NE(global[0].data.find("\"09-MemoryPressure\":\"0x0000003b\""), std::string::npos);
  EXPECT_NE(global[0].data.find("\"12-Count\":\"0x00000008\";\"13-Time[0]\""), std::string::npos);
  EXPECT_NE(global[0].data.find("\"20-Time[7]\""), std::string::npos);
  EXPECT_EQ(global[0].data.find("Time[8]"), std::string::npos);

  // PerHeapHistory: CondemnReasons0=5, and Count=5 generation records of which
  // the last field is read.
  const std::vector<event_row> heap = rows_of(rows, runtime, "0x0000cc");
  ASSERT_EQ(heap.size(), 2u);
  EXPECT_NE(heap[0].data.find("\"09-CondemnReasons0\":\"0x00000005\""), std::string::npos);
  EXPECT_NE(heap[0].data.find("\"15-Count\":\"0x00000005\";\"16-Values[0].SizeBefore\""), std::string::npos);
  EXPECT_NE(heap[0].data.find("\"65-Values[4].NewAllocation\""), std::string::npos);

  // RuntimeInformation: CoreClr (2), runtime 8.0, VMQfeNumber 42,424, the
  // runtime's path.
  const std::vector<event_row> info = rows_of(rows, runtime, "0x0000bb");
  ASSERT_EQ(info.size(), 1u);
  EXPECT_NE(info[0].data.find("\"02-Sku\":\"0x0002\";\"03-BclMajorVersion\":\"0x0008\""), std::string::npos);
  EXPECT_NE(info[0].data.find("\"10-VMQfeNumber\":\"0xa5b8\""), std::string::npos);
  EXPECT_NE(info[0].data.find("\"15-RuntimeDllPath\":\"C:/Dev/runtime/"), std::string::npos);
}

TEST(ManifestData, DotNetRundownModuleEventDecodesWhole) {
  if (!samples_present()) GTEST_SKIP() << "no samples folder";
  const e2e::run_result r = e2e::run_quon("-quiet -log '" + sample("perfview/smallEtlFile.etl") + "'");
  ASSERT_EQ(r.status, 0);
  const std::vector<event_row> module = rows_of(event_rows(r.out), "Microsoft-Windows-DotNETRuntimeRundown", "0x00009a");
  ASSERT_EQ(module.size(), 1u);
  EXPECT_EQ(module[0].data.find("guess_"), std::string::npos);
  EXPECT_NE(module[0].data.find("Microsoft.VisualStudio.Services.Client.dll\";\"06-ModuleNativePath\":\"-\""),
            std::string::npos);
  EXPECT_NE(module[0].data.find("\"13-NativePdbBuildPath\":\"-\"}"), std::string::npos);
}
