// Event rows: decides what stands in each of the sixteen cells of a row for
// one `etl_record`, builds the column table, writes the column line and the
// pseudo-row of the log header, and sends the timeline form to the timeline
// writer under -csvl2t.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>

#include "trace/etl_record.h"
#include "trace/log_header.h"

class cmd_params;

// One row (or timeline line) for a record. Rendering changes the text of the
// record's fields, so the record is passed for writing.
void write_event_row(etl_record& record, std::ostream& out, cmd_params& opts);
// Rebuilds the column table and writes the column line.
void write_event_columns(std::ostream& out, cmd_params& opts);
// Appends "data{" + the rendered fields + "}" when the record has fields.
void render_extra_data(etl_record& record, std::string& out);
// The pseudo-row of a regular file's log header (full form).
void write_header_info_row(const log_header& header, std::ostream& out, cmd_params& opts);
// The short header row of an "RlFs" or headerless file, from its first
// 72-byte header.
void write_short_header_row(const uint8_t* first_block, std::ostream& out, cmd_params& opts);
