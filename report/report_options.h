// The settings the row writers read: separator and output form, number base,
// date and time formats, quoting and padding, the column table, the names of
// the timeline columns, and the texts that change from file to file. The
// command line fills them once; the per-file texts are set for each trace.
#pragma once

#include <string>
#include <vector>

#include "report/report_cell.h"
#include "support/qv_datetime.h"

struct report_options {
  // Output form.
  std::string separator = " | ";
  char separator_char = '|';      // replaced inside text cells by...
  char sub_separator_char = ';';  // ...this one
  bool no_whitespace = false;
  bool pad_with_blanks = true;
  bool base16 = true;
  bool quoted_fields = false;
  bool format_xml = false;
  bool format_csv = false;
  bool format_l2t = false;
  bool format_csvgen = false;
  bool format_bodyfile = false;
  bool format_multiline = false;
  // -jsonl: one JSON object per event (json_writer.h) instead of all the above.
  bool format_jsonl = false;

  // Date and time text of the time cells.
  std::string date_format = "yyyy-mm-dd";
  std::string time_format = "hh:mm:ss.xxx";
  bool pair_datetime = false;
  qv::datetime_format datetime_format;

  // The column table, rebuilt with each column line, and whether that line
  // is still to be written for the current file.
  std::vector<report_cell> column_table;
  bool header_row_pending = true;

  // Timeline columns.
  std::string program_name;
  std::string host_name;
  std::string user_name;

  // Per file: the path as opened, the session name and the log file name
  // recorded in the trace ("<not available>" when it has none).
  std::string row_file_name;
  std::string session_name;
  std::string orig_source_path;
};
