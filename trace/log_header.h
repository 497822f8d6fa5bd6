// The log header of a regular trace file, its text form, and the trace clock
// that turns raw event time stamps into FILETIME ticks.
//
// The first buffer of a regular file holds, behind its 72-byte buffer header,
// one event of system form whose payload is TRACE_LOGFILE_HEADER:
//   Offset | Size | Field
//   72     | 2    | Version            (system header)
//   74     | 2    | HeaderType
//   76     | 2    | Size               record ends at 72 + Size
//   78     | 2    | HookId
//   80     | 4    | ThreadId
//   84     | 4    | ProcessId
//   88     | 8    | SystemTime         in the file's clock
//   96     | 8    | KernelTime, UserTime
//   104    | 4    | BufferSize         start of TRACE_LOGFILE_HEADER
//   108    | 4    | Version
//   112    | 4    | ProviderVersion    the Windows build
//   116    | 4    | NumberOfProcessors
//   120    | 8    | EndTime            FILETIME
//   128    | 4    | TimerResolution
//   132    | 4    | MaximumFileSize
//   136    | 4    | LogFileMode
//   140    | 4    | BuffersWritten
//   144    | 4    | StartBuffers
//   148    | 4    | PointerSize        8 selects the wide layout below
//   152    | 4    | EventsLost
//   156    | 4    | CpuSpeedInMHz
// Behind 160 the offsets depend on PointerSize (8 | other):
//   LoggerName pointer 160|160, LogFileName pointer 168|164, Bias 176|168,
//   StandardName (64 bytes UTF-16) 180|172, StandardDate 244|236,
//   StandardBias 260|252, DaylightName 264|256, DaylightDate 328|320,
//   DaylightBias 344|336, BootTime 352|344, PerfFreq 360|352,
//   StartTime 368|360, ReservedFlags (clock type) 376|368,
//   BuffersLost 380|372, LoggerName text 384|376, LogFileName text behind it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "support/qv_datetime.h"

// Turns raw time stamps of a file into absolute FILETIME ticks.
struct trace_clock {
  bool raw_clock = false;         // the file's clock isn't FILETIME
  bool is_qpc = false;
  bool is_cycle_counter = false;
  double scale = 0.0;             // 100-ns ticks per raw tick
  int64_t base = 0;               // absolute time of raw zero

  uint64_t to_absolute(uint64_t raw) const;
};

// Sets up the clock from the log header fields.
void setup_clock(trace_clock& clock, uint32_t reserved_flags, uint64_t perf_freq,
                 uint32_t cpu_speed_mhz, uint64_t start_time, uint64_t system_time);

// A double truncated toward zero into a signed 64-bit value, with the result
// x86 gives for values that don't fit (NaN, infinities, out of range): the
// lowest 64-bit value.
int64_t truncate_to_i64(double v);

struct log_header {
  uint8_t raw[160] = {};          // the first 160 bytes as they stand in the file
  // System header of the log header record.
  uint16_t Size = 0;
  uint32_t ThreadId = 0;
  uint32_t ProcessId = 0;
  uint64_t SystemTime = 0;
  uint64_t KernelUserTime = 0;    // the u64 at 96
  // TRACE_LOGFILE_HEADER.
  uint32_t BufferSize = 0;
  uint32_t Version = 0;
  uint32_t ProviderVersion = 0;
  uint32_t NumberOfProcessors = 0;
  uint64_t EndTime = 0;
  uint32_t TimerResolution = 0;
  uint32_t MaximumFileSize = 0;
  uint32_t LogFileMode = 0;
  uint32_t BuffersWritten = 0;
  uint32_t StartBuffers = 0;
  uint32_t PointerSize = 0;
  uint32_t EventsLost = 0;
  uint32_t CpuSpeedInMHz = 0;
  uint32_t Bias = 0;
  std::string StandardName;
  uint32_t StandardBias = 0;
  std::string DaylightName;
  uint32_t DaylightBias = 0;
  uint64_t BootTime = 0;
  uint64_t PerfFreq = 0;
  uint64_t StartTime = 0;
  uint32_t ReservedFlags = 0;
  uint32_t BuffersLost = 0;
  std::string LoggerName;
  std::string LogFileName;
  trace_clock clock;
};

// Fails when `block` is null or `size` < 386.
bool parse_log_header(const uint8_t* block, size_t size, log_header& out);

// The data column of the header row: "data{" and twelve fields "}".
std::string log_header_text(const log_header& h, bool base16, const qv::datetime_format& fmt);
