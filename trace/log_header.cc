#include "trace/log_header.h"

#include <cmath>
#include <cstring>

#include "support/byte_reader.h"
#include "support/qv_string.h"
#include "support/qv_time.h"
#include "trace/buffer_header.h"

using qv::rd_u16;
using qv::rd_u32;
using qv::rd_u64;

int64_t truncate_to_i64(double v) {
  // The range of int64 is [-2^63, 2^63); anything else (and NaN) gives the
  // "integer indefinite" value of the x86 conversion instruction.
  if (!(v >= -9223372036854775808.0 && v < 9223372036854775808.0)) return INT64_MIN;
  return static_cast<int64_t>(v);
}

uint64_t trace_clock::to_absolute(uint64_t raw) const {
  if (!is_qpc && !is_cycle_counter) return raw;
  const int64_t scaled = truncate_to_i64(static_cast<double>(raw) * scale);
  return static_cast<uint64_t>(scaled) + static_cast<uint64_t>(base);
}

void setup_clock(trace_clock& c, uint32_t reserved_flags, uint64_t perf_freq,
                 uint32_t cpu_speed_mhz, uint64_t start_time, uint64_t system_time) {
  c = trace_clock();
  if (reserved_flags == 1) {
    c.is_qpc = c.raw_clock = true;
    c.scale = 1e7 / static_cast<double>(perf_freq);
  } else if (reserved_flags == 3) {
    c.is_cycle_counter = c.raw_clock = true;
    c.scale = 10.0 / static_cast<double>(cpu_speed_mhz);
  }
  // Whichever of the two looks like a date is the wall clock, and the other
  // the raw counter at the same moment.
  const bool start_ok = qv::is_valid_filetime(start_time);
  const bool system_ok = qv::is_valid_filetime(system_time);
  if (start_ok && !system_ok) {
    c.base = static_cast<int64_t>(start_time -
                                  static_cast<uint64_t>(truncate_to_i64(c.scale * static_cast<double>(system_time))));
  } else if (system_ok && !start_ok) {
    c.base = static_cast<int64_t>(system_time -
                                  static_cast<uint64_t>(truncate_to_i64(c.scale * static_cast<double>(start_time))));
  }
}

namespace {

// UTF-16 text of at most `limit` bytes at `off`, inside the block.
std::string utf16_at(const uint8_t* block, size_t size, size_t off, size_t limit) {
  std::string out;
  if (off >= size) return out;
  if (limit > size - off) limit = size - off;
  if (limit > 0xFFFFFFFEu) limit = 0xFFFFFFFEu;
  qv::utf16_text(block + off, out, static_cast<uint32_t>(limit), false);
  return out;
}

void append_number(std::string& out, uint64_t v, int width, bool base16) {
  char buf[40];
  if (base16) {
    std::snprintf(buf, sizeof buf, "0x%0*llx", width, static_cast<unsigned long long>(v));
  } else {
    std::snprintf(buf, sizeof buf, "%llu", static_cast<unsigned long long>(v));
  }
  out += buf;
}

void append_date_form(std::string& out, uint64_t v, int width, bool base16,
                      const qv::datetime_format& fmt) {
  qv::time t(v, qv::type_filetime);
  if (t.is_valid()) {
    std::string date, time;
    qv::format_datetime(date, time, t, fmt);
    out += date;
    out += 'T';
    out += time;
    out += 'Z';
  } else {
    append_number(out, v, width, base16);
  }
}

void begin_field(std::string& out, int index, const char* label) {
  char buf[8];
  std::snprintf(buf, sizeof buf, "%02d", index);
  if (index) out += ';';
  out += '"';
  out += buf;
  out += '-';
  out += label;
  out += ':';
}

}  // namespace

bool parse_log_header(const uint8_t* b, size_t n, log_header& h) {
  h = log_header();
  if (!b || n < kFirstProbeSize) return false;
  std::memcpy(h.raw, b, sizeof h.raw);
  h.Size = rd_u16(b, n, 76);
  h.ThreadId = rd_u32(b, n, 80);
  h.ProcessId = rd_u32(b, n, 84);
  h.SystemTime = rd_u64(b, n, 88);
  h.KernelUserTime = rd_u64(b, n, 96);
  h.BufferSize = rd_u32(b, n, 104);
  h.Version = rd_u32(b, n, 108);
  h.ProviderVersion = rd_u32(b, n, 112);
  h.NumberOfProcessors = rd_u32(b, n, 116);
  h.EndTime = rd_u64(b, n, 120);
  h.TimerResolution = rd_u32(b, n, 128);
  h.MaximumFileSize = rd_u32(b, n, 132);
  h.LogFileMode = rd_u32(b, n, 136);
  h.BuffersWritten = rd_u32(b, n, 140);
  h.StartBuffers = rd_u32(b, n, 144);
  h.PointerSize = rd_u32(b, n, 148);
  h.EventsLost = rd_u32(b, n, 152);
  h.CpuSpeedInMHz = rd_u32(b, n, 156);
  const size_t bias_at = h.PointerSize == 8 ? 176 : 168;
  h.Bias = rd_u32(b, n, bias_at);
  h.StandardName = utf16_at(b, n, bias_at + 4, 64);
  h.StandardBias = rd_u32(b, n, bias_at + 84);
  h.DaylightName = utf16_at(b, n, bias_at + 88, 64);
  h.DaylightBias = rd_u32(b, n, bias_at + 168);
  h.BootTime = rd_u64(b, n, bias_at + 176);
  h.PerfFreq = rd_u64(b, n, bias_at + 184);
  h.StartTime = rd_u64(b, n, bias_at + 192);
  h.ReservedFlags = rd_u32(b, n, bias_at + 200);
  h.BuffersLost = rd_u32(b, n, bias_at + 204);

  // The names may use the bytes up to the record's end at 72 + Size.
  const size_t names_at = bias_at + 208;
  const size_t record_end = 72 + static_cast<size_t>(h.Size);
  if (record_end > names_at) {
    h.LoggerName = utf16_at(b, n, names_at, record_end - names_at);
    std::wstring wide = qv::to_wide(h.LoggerName);
    const size_t file_at = names_at + 2 * wide.size() + 2;
    if (record_end > file_at) h.LogFileName = utf16_at(b, n, file_at, record_end - file_at);
  }
  setup_clock(h.clock, h.ReservedFlags, h.PerfFreq, h.CpuSpeedInMHz, h.StartTime, h.SystemTime);
  return true;
}

std::string log_header_text(const log_header& h, bool base16, const qv::datetime_format& fmt) {
  std::string out = "data{";
  begin_field(out, 0, "TimeType");
  out += h.clock.is_qpc ? "QPC time" : h.clock.is_cycle_counter ? "CPU Cycle Counter" : "Filetime";
  out += '"';
  begin_field(out, 1, "Version");
  append_number(out, h.Version, 8, base16);
  out += '"';
  begin_field(out, 2, "NumProcessors");
  out += std::to_string(h.NumberOfProcessors);
  out += '"';
  begin_field(out, 3, "EndTime");
  append_date_form(out, h.EndTime, 16, base16, fmt);
  out += '"';
  begin_field(out, 4, "TimerRes");
  append_number(out, h.TimerResolution, 8, base16);
  out += '"';
  begin_field(out, 5, "LogfileMode");
  append_number(out, h.LogFileMode, 8, base16);
  out += '"';
  begin_field(out, 6, "CPUSpeed");
  append_number(out, h.CpuSpeedInMHz, 8, base16);
  out += '"';
  // Both bias fields are shown unsigned, and the hours part of each depends
  // on Bias, not on its own value.
  begin_field(out, 7, "TimezoneBias");
  out += std::to_string(h.Bias);
  if (h.Bias != 0) out += " (" + std::to_string(h.Bias / 60) + " hours)";
  out += '"';
  begin_field(out, 8, "DaylightBias");
  out += std::to_string(h.DaylightBias);
  if (h.Bias != 0) out += " (" + std::to_string(h.DaylightBias / 60) + "hours)";
  out += '"';
  begin_field(out, 9, "BootTime");
  {
    qv::time t(h.BootTime, qv::type_filetime);
    if (t.is_valid()) {
      append_date_form(out, h.BootTime, 16, base16, fmt);
    } else {
      // The fixed text of a stamp that isn't valid: its two empty halves
      // around the blank.
      qv::append_fixed_datetime(out, t);
    }
  }
  out += '"';
  // This label shows BootTime in the number form; PerfFreq isn't printed.
  begin_field(out, 10, "PerfFreq");
  append_number(out, h.BootTime, 16, base16);
  out += '"';
  begin_field(out, 11, "LogfileName");
  for (char c : h.LogFileName) out += c == '\\' ? '/' : c == '"' ? '\\' : c;
  out += '"';
  out += '}';
  return out;
}
