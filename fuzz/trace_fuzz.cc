// Fuzz target for the record reader: arbitrary bytes as a trace buffer read
// by an engine opened on a log header of each clock and pointer size, with
// payload decoding on and the rows written; and as a compressed stream.
//
// Input layout:
//   byte 0     mode: bits 0-1 clock (FILETIME, QPC, cycles, "RlFs" file),
//              bit 2 pointers are 64-bit, bit 3 decompress the rest first,
//              bit 4 the buffer is a first buffer, read behind its log
//              header record
//   the rest   the buffer (or the compressed stream)
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "report/event_row.h"
#include "report/report_options.h"
#include "support/byte_reader.h"
#include "templates/kernel_groups.h"
#include "trace/trace_engine.h"
#include "trace/xpress.h"

namespace {

constexpr uint64_t kT0 = 134170743671234567ull;

// A log header block: 512 bytes, the given clock and pointer size.
std::vector<uint8_t> log_header_block(uint32_t clock, bool wide) {
  std::vector<uint8_t> b(512, 0);
  qv::wr_u32(&b[0], 512);
  qv::wr_u16(&b[76], 400);
  qv::wr_u64(&b[88], clock == 2 ? kT0 : 1000);
  qv::wr_u32(&b[104], 65536);
  qv::wr_u32(&b[148], wide ? 8 : 4);
  qv::wr_u32(&b[156], 2000);
  const size_t at = wide ? 176 : 168;
  qv::wr_u64(&b[at + 184], 10000000);  // PerfFreq
  qv::wr_u64(&b[at + 192], kT0);       // StartTime
  qv::wr_u32(&b[at + 200], clock);
  return b;
}

// The engine and the row settings live for the whole run, as in quon.
struct fuzz_state {
  trace_engine engine;
  report_options report;
};

fuzz_state& state() {
  static fuzz_state* st = [] {
    auto* s = new fuzz_state();
    qv::parse_datetime_format(s->report.datetime_format, s->report.date_format,
                              s->report.time_format, false);
    add_kernel_groups(s->engine.store);
    return s;
  }();
  return *st;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const uint8_t mode = data[0];
  std::vector<uint8_t> buffer(data + 1, data + size);
  if (mode & 8) {
    std::vector<uint8_t> out(65536);
    size_t produced = 0;
    if (!xpress_decompress(buffer.data(), buffer.size(), out.data(), out.size(), produced)) return 0;
    out.resize(produced);
    buffer.swap(out);
  }
  fuzz_state& st = state();
  trace_engine& engine = st.engine;
  reset_engine(engine, true);
  const uint32_t clock = mode & 3;
  if (clock == 3) {
    uint8_t first[72] = {'R', 'l', 'F', 's'};
    qv::wr_u64(first + 16, kT0);
    qv::wr_u64(first + 24, (mode & 4) ? kT0 : 5);
    qv::wr_u64(first + 48, 72);
    open_with_first_buffer(engine, first, sizeof first);
  } else {
    std::vector<uint8_t> header = log_header_block(clock == 0 ? 2 : clock, mode & 4);
    open_with_log_header(engine, header.data(), header.size());
  }
  // Bit 4: the bytes are a first buffer, read behind its log header record.
  if (mode & 16) read_log_header_buffer(engine, buffer.data(), buffer.size());
  else read_buffer(engine, buffer.data(), buffer.size(), 4096);
  std::ostringstream out;
  st.report.header_row_pending = true;
  for (etl_record& rec : engine.records) write_event_row(rec, out, st.report);
  engine.records.clear();
  return 0;
}
