// Event rows: decides what stands in each of the sixteen cells of a row for
// one `etl_record`, builds the column table, writes the column line and the
// pseudo-row of the log header, and sends the timeline form to the timeline
// writer under -csvl2t.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>

#include "report/timeline.h"
#include "support/line_text.h"
#include "trace/etl_record.h"
#include "trace/log_header.h"
#include "trace/record_sink.h"

struct report_options;

// One row (or timeline line) for a record. Rendering changes the text of the
// record's fields, so the record is passed for writing.
void write_event_row(etl_record& record, std::ostream& out, report_options& opts);
// Rebuilds the column table and writes the column line.
void write_event_columns(std::ostream& out, report_options& opts);
// Appends "data{" + the rendered fields + "}" when the record has fields.
void render_extra_data(const etl_record& record, std::string& out);
void render_extra_data(const etl_record& record, qv::line_text& out);
// The pseudo-row of a regular file's log header (full form).
void write_header_info_row(const log_header& header, std::ostream& out, report_options& opts);
// The short header row of an "RlFs" or headerless file, from its first
// 72-byte header.
void write_short_header_row(const uint8_t* first_block, std::ostream& out, report_options& opts);

// The timeline record of an event, but for the event's own values: output
// settings, and the texts that are the same for every event of the file
// (session, file name, recorded log file name).
void bind_event_timeline(timeline_record& tl, const report_options& opts);
// The timeline line of an event whose time is set, from a record bound as
// above; the record's per-event values are set here.
void write_timeline_event(etl_record& record, std::ostream& out, report_options& opts, timeline_record& tl);

// The sink of the row output: for each file its head, column line and the
// pseudo-row of its log header, then one row (or timeline line) per record.
class row_sink : public record_sink {
 public:
  row_sink(std::ostream& out, report_options& opts) : out_(out), opts_(opts) {}
  void file_opened(const file_opening& file) override;
  void take_records(record_list& records) override;
  void file_ended() override {}

 private:
  std::ostream& out_;
  report_options& opts_;
  // Under -csvl2t, bound for the file that is open.
  timeline_record timeline_;
  bool timeline_bound_ = false;
};
