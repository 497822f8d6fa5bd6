// Event rows: the sixteen cells of one event, the column table, the pseudo-row
// of the log header, and the timeline line of -csvl2t.
//
// write_event_row runs for every event of a trace, so the row and the
// timeline record are kept across calls and refilled in place: in a steady
// run no cell or text allocates.

#include "report/event_row.h"

#include <climits>
#include <cstring>
#include <sstream>

#include "decode/render.h"
#include "report/report_writer.h"
#include "report/timeline.h"
#include "report/report_options.h"
#include "support/byte_reader.h"
#include "support/qv_string.h"
#include "support/qv_time.h"
#include "trace/trace_engine.h"

namespace {

struct column_spec {
  const char* name;
  uint64_t width;
  uint16_t type;
};

// Column 0's width follows the date and time formats and is set when the
// table is built.
constexpr column_spec kColumns[16] = {
    {"created [utc or #ticks]", 0, rt_filetime},
    {"provider guid", 36, rt_untyped},
    {"provider name", 36, rt_untyped},
    {"session name", 36, rt_untyped},
    {"activity id", 36, rt_untyped},
    {"event id", 8, rt_untyped},
    {"process id", 10, rt_untyped},
    {"thread id", 9, rt_untyped},
    {"channel", 7, rt_untyped},
    {"level", 5, rt_untyped},
    {"opcode", 6, rt_untyped},
    {"task id", 7, rt_untyped},
    {"keywords", 18, rt_untyped},
    {"processor time", 18, rt_untyped},
    {"processor", 9, rt_untyped},
    {"extra data", 16, rt_untyped},
};

constexpr char kHeaderInfo[] = "<header info only>";
constexpr char kCorrupted[] = "data{corrupted record}";

uint32_t row_flags(const report_options& opts) { return opts.quoted_fields ? static_cast<uint32_t>(rf_quote) : 0u; }

int32_t column_count(const report_options& opts) {
  const size_t n = opts.column_table.size();
  return n > static_cast<size_t>(INT32_MAX) ? INT32_MAX : static_cast<int32_t>(n);
}

// The event id the row shows: the compact classic headers carry theirs in
// the hook id.
uint16_t shown_event_id(const etl_record& r) {
  return (r.kind == kind_c002 || r.kind == kind_c011) ? r.hook_id : r.event_id;
}

// "0x" and at least four hexadecimal digits, or decimal, written at `out`
// (20 characters at most); returns the end of what it wrote.
char* put_id(char* out, uint64_t v, bool base16) {
  char buf[24];
  char* const end = buf + sizeof buf;
  char* p = end;
  if (base16) {
    static constexpr char kHex[] = "0123456789abcdef";
    do {
      *--p = kHex[v & 0xF];
      v >>= 4;
    } while (v != 0);
    while (end - p < 4) *--p = '0';
    *--p = 'x';
    *--p = '0';
  } else {
    do {
      *--p = static_cast<char>('0' + v % 10);
      v /= 10;
    } while (v != 0);
  }
  const size_t n = static_cast<size_t>(end - p);
  std::memcpy(out, p, n);
  return out + n;
}

// The extra field of a timeline line: the event's decoded fields.
void render_extra_of(qv::line_text& out, const void* source) {
  render_extra_data(*static_cast<const etl_record*>(source), out);
}

}  // namespace

void bind_event_timeline(timeline_record& tl, const report_options& opts) {
  reset_timeline_record(tl);
  bind_timeline_options(tl, opts);
  set_slot_texts(tl, "", "", "", "ETL Entry");
  tl.source.assign("ETL");
  tl.sourcetype.assign(opts.session_name);
  tl.filename.assign(opts.row_file_name);
  tl.notes.assign("Orig filename: ");
  tl.notes += opts.orig_source_path;
}

void write_timeline_event(etl_record& record, std::ostream& out, report_options& opts, timeline_record& tl) {
  set_time_slots(tl, 0, 0, 0, record.absolute_time, qv::type_filetime);
  // Left from the last line when it was cleaned; this line's data is
  // written from the record.
  tl.extra.clear();

  // "{guid}; Event: id", then the same with the process and the thread
  // behind it: composed once on the stack, each text set with one copy.
  char text[160];  // 1 + 36 + 10 + 20, + 10 + 20, + 12 + 20 at most
  char* p = text;
  *p++ = '{';
  std::memcpy(p, cached_guid_text(record.provider_id.data()), 36);
  p += 36;
  std::memcpy(p, "}; Event: ", 10);
  p += 10;
  p = put_id(p, shown_event_id(record), opts.base16);
  tl.short_text.assign(text, static_cast<size_t>(p - text));
  if (record.process_id != 0) {
    std::memcpy(p, "; ProcID: ", 10);
    p += 10;
    p = put_id(p, record.process_id, opts.base16);
  }
  if (record.thread_id != 0) {
    std::memcpy(p, "; ThreadID: ", 12);
    p += 12;
    p = put_id(p, record.thread_id, opts.base16);
  }
  tl.desc.assign(text, static_cast<size_t>(p - text));
  // The data goes straight into the line.
  tl.render_extra = render_extra_of;
  tl.extra_source = &record;
  write_timeline_lines(opts.header_row_pending, out, tl);
}

namespace {

void write_timeline_event(etl_record& record, std::ostream& out, report_options& opts) {
  thread_local timeline_record tl;
  bind_event_timeline(tl, opts);
  write_timeline_event(record, out, opts, tl);
}

// Cells 0 to 3, common to both forms of the header row.
int32_t set_header_head(report_row& row, uint64_t start_time, uint16_t start_type,
                        const report_options& opts) {
  int32_t i = 0;
  i += set_cell_number(row, i, start_time, start_type, 0);
  i += set_cell_text(row, i, kHeaderInfo, rt_text, 0);
  i += set_cell_text(row, i, std::string(), rt_text, 0);
  i += set_cell_text(row, i, opts.session_name, rt_text, 0);
  return i;
}

}  // namespace

void write_event_columns(std::ostream& out, report_options& opts) {
  opts.column_table.clear();
  opts.column_table.resize(16);
  for (size_t i = 0; i < 16; ++i) {
    report_cell& col = opts.column_table[i];
    col.type = kColumns[i].type;
    col.flags = rf_column;
    col.width = kColumns[i].width;
    col.text.assign(kColumns[i].name);
  }
  opts.column_table[0].width = opts.date_format.size() + opts.time_format.size() + 1;
  if (opts.no_whitespace) {
    for (report_cell& col : opts.column_table) col.width = 0;
  }
  write_column_line(out, opts);
}

void render_extra_data(const etl_record& record, qv::line_text& out) {
  if (record.fields.empty()) return;
  out += std::string_view("data{");
  render_fields(out, record.fields);
  out.push_back('}');
}

void render_extra_data(const etl_record& record, std::string& out) {
  qv::line_text line(out, qv::line_text::behind);
  render_extra_data(record, line);
  line.settle();
}

namespace {

// The data cell of an event row: the mark of a corrupted record, then the
// decoded fields.
void render_data_cell(qv::line_text& out, const void* source) {
  const etl_record& record = *static_cast<const etl_record*>(source);
  if (!record.valid) out += std::string_view(kCorrupted);
  render_extra_data(record, out);
}

// The sixteen values of an event's row, in column order, handed to `cells`:
// straight into the line (direct_cells) or stored in a row (stored_cells).
template <class Cells>
void put_event_cells(Cells& cells, const etl_record& record, const report_options& opts) {
  if (record.absolute_time != 0) {
    cells.number(record.absolute_time, rt_filetime, 0);
  } else {
    cells.number(record.raw_time, rt_ticks, 0);
  }
  cells.bytes(record.provider_id.data(), 16, rt_guid, 0);
  cells.text(record.provider_name, rt_text, 0);
  cells.text(opts.session_name, rt_text, 0);
  cells.bytes(record.activity_id.data(), 16, rt_guid, 0);
  cells.number(shown_event_id(record), rt_u16, 0);
  cells.number(record.process_id, rt_u32, 0);
  cells.number(record.thread_id, rt_u32, 0);
  cells.number(record.channel, rt_u8, rf_decimal);
  cells.number(record.level, rt_u8, rf_decimal);
  cells.number(record.opcode, rt_u8, rf_decimal);
  cells.number(record.task, rt_u16, rf_decimal);
  cells.number(record.keyword, rt_u64, rf_hex);
  cells.number(record.time_word, rt_u64, rf_hex);
  cells.number(record.processor, rt_u8, rf_decimal);
  cells.data(record);
}

struct direct_cells {
  row_line line;
  void number(uint64_t v, uint16_t type, uint32_t flags) { line.number(v, type, flags); }
  void text(const std::string& t, uint16_t type, uint32_t flags) { line.text(t, type, flags); }
  void bytes(const uint8_t* data, uint32_t length, uint16_t type, uint32_t flags) {
    line.bytes(data, length, type, flags);
  }
  // The data cell is written straight into the line, or, when the row's
  // flags ask for quotes or flattening, composed aside and then given.
  void data(const etl_record& record) {
    if (line.rendered_text(render_data_cell, &record)) return;
    thread_local std::string extra;
    extra.clear();
    qv::line_text text(extra, qv::line_text::behind);
    render_data_cell(text, &record);
    line.text(text.settle(), rt_text, 0);
  }
};

struct stored_cells {
  report_row& row;
  int32_t i = 0;
  void number(uint64_t v, uint16_t type, uint32_t flags) { i += set_cell_number(row, i, v, type, flags); }
  void text(const std::string& t, uint16_t type, uint32_t flags) { i += set_cell_text(row, i, t, type, flags); }
  void bytes(const uint8_t* data, uint32_t length, uint16_t type, uint32_t flags) {
    i += set_cell_bytes(row, i, data, length, type, flags);
  }
  // As direct_cells::data, in the stored cell.
  void data(const etl_record& record) {
    if (set_cell_rendered_text(row, i, render_data_cell, &record)) return;
    if (std::string* extra = begin_cell_text(row, i, rt_text, 0)) {
      qv::line_text text(*extra, qv::line_text::behind);
      render_data_cell(text, &record);
      text.settle();
      finish_cell_text(row, i);
    }
  }
};

}  // namespace

void write_event_row(etl_record& record, std::ostream& out, report_options& opts) {
  if (opts.header_row_pending && !opts.format_l2t) write_event_columns(out, opts);
  if (opts.format_l2t && record.absolute_time != 0) {
    write_timeline_event(record, out, opts);
    return;
  }
  // No columns (as under -csvl2t, which never fills the table) or too many:
  // the event is dropped without a word.
  const int32_t count = column_count(opts);
  if (count == 16 && !opts.format_multiline) {
    // The usual table: the values go straight into the line.
    direct_cells cells{row_line(out, opts, count, row_flags(opts))};
    put_event_cells(cells, record, opts);
    cells.line.finish();
    return;
  }
  // Any other table, and -multiline, which lays the whole row out at once:
  // the cells are stored first.
  thread_local report_row row;
  if (count == 16 ? !init_report_row_for_all_cells(row, count, row_flags(opts))
                  : !init_report_row(row, count, row_flags(opts))) {
    return;
  }
  stored_cells cells{row};
  put_event_cells(cells, record, opts);
  write_report_row(out, row, opts);
}

void write_header_info_row(const log_header& header, std::ostream& out, report_options& opts) {
  if (opts.format_l2t && header.StartTime != 0) return;
  if (opts.header_row_pending && !opts.format_l2t) write_event_columns(out, opts);
  report_row row;
  if (!init_report_row(row, column_count(opts), row_flags(opts))) return;

  const bool start_valid = qv::time(header.StartTime, qv::type_filetime).is_valid();
  int32_t i = start_valid ? set_header_head(row, header.StartTime, rt_filetime, opts)
                          : set_header_head(row, header.SystemTime, rt_ticks, opts);
  i += set_cell_text(row, i, std::string(), rt_text, 0);
  i += set_cell_text(row, i, std::string(), rt_text, 0);
  i += set_cell_number(row, i, header.ProcessId, rt_u32, 0);
  i += set_cell_number(row, i, header.ThreadId, rt_u32, 0);
  for (int k = 8; k <= 12; ++k) i += set_cell_text(row, i, std::string(), rt_text, 0);
  i += set_cell_number(row, i, header.KernelUserTime, rt_u64, rf_hex);
  i += set_cell_text(row, i, std::string(), rt_text, 0);
  set_cell_text(row, i, log_header_text(header, opts.base16, opts.datetime_format), rt_text, 0);
  write_report_row(out, row, opts);
}

void write_short_header_row(const uint8_t* first_block, std::ostream& out, report_options& opts) {
  // The first 72-byte header: its time word at 24, the fallback word at 16.
  const size_t size = first_block ? 72 : 0;
  const uint64_t start_time = qv::rd_u64(first_block, size, 24);
  const uint64_t fallback = qv::rd_u64(first_block, size, 16);
  if (opts.format_l2t && start_time != 0) return;
  if (opts.header_row_pending && !opts.format_l2t) write_event_columns(out, opts);
  report_row row;
  if (!init_report_row(row, column_count(opts), row_flags(opts))) return;

  const bool start_valid = qv::time(start_time, qv::type_filetime).is_valid();
  int32_t i = start_valid ? set_header_head(row, start_time, rt_filetime, opts)
                          : set_header_head(row, fallback, rt_ticks, opts);
  for (; i < 16; ++i) set_cell_text(row, i, std::string(), rt_text, 0);
  write_report_row(out, row, opts);
}

void row_sink::file_opened(const file_opening& file) {
  opts_.session_name = file.session_name;
  opts_.orig_source_path = file.orig_source_path;
  timeline_bound_ = opts_.format_l2t;
  if (timeline_bound_) bind_event_timeline(timeline_, opts_);
  // The column line and the header row stand behind the file's head.
  std::ostringstream held;
  if (file.header) write_header_info_row(*file.header, held, opts_);
  else write_short_header_row(file.first_block, held, opts_);
  // The file's name and the log file name recorded in the trace stand in
  // lines of their own: a line break in either is flattened, so that neither
  // can split its line or pass for a row.
  std::string name = file.file_name ? *file.file_name : std::string();
  flatten_all_line_breaks(name);
  std::string head;
  append_file_head(head, name);
  const size_t path_at = head.size() + std::strlen("orig source path: ");
  head += "orig source path: ";
  head += opts_.orig_source_path;
  clean_field(head, path_at, 0, 0);
  head += '\n';
  head += held.str();
  out_.write(head.data(), static_cast<std::streamsize>(head.size()));
}

void row_sink::take_records(record_list& records) {
  for (etl_record& rec : records) {
    // Timeline lines of this file: the record bound when the file opened.
    if (timeline_bound_ && opts_.format_l2t && rec.absolute_time != 0) {
      write_timeline_event(rec, out_, opts_, timeline_);
    } else {
      write_event_row(rec, out_, opts_);
    }
  }
}
