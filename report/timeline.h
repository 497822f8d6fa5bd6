// The log2timeline CSV form of -csvl2t. A timeline record carries up to four
// time stamps (modified, accessed, changed, born) and equal stamps fold into
// one line with a MACB text. An event has one time, in the B slot, so one
// event gives one line.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "support/line_text.h"
#include "support/qv_datetime.h"
#include "support/qv_time.h"

struct report_options;

struct timeline_record {
  uint64_t slot_time[4] = {};     // M, A, C, B
  std::string slot_text[4];
  std::string label;
  uint32_t time_kind = qv::type_filetime;
  // Further times of the record, with their texts; taken as FILETIME.
  std::vector<uint64_t> extra_times;
  std::vector<std::string> extra_texts;
  std::vector<std::string> extra_sources;
  std::vector<std::string> extra_files;
  std::vector<bool> extra_done;
  std::string timezone = "UTC";
  std::string source;
  std::string sourcetype;
  std::string type;
  std::string user;
  std::string host;
  std::string short_text;         // the "short" column
  std::string desc;
  uint32_t version = 2;
  std::string filename;
  std::string inode;
  std::string notes;
  std::string format = "-csvl2t";
  std::string extra;
  // When set, the extra field's text is written by `render_extra` from
  // `extra_source` straight into the line (and into `extra` only when the
  // line must be cleaned); `extra` is then not read otherwise.
  void (*render_extra)(qv::line_text& out, const void* source) = nullptr;
  const void* extra_source = nullptr;
  std::string separator = ",";
  char separator_char = ',';
  char sub_separator_char = ' ';
  bool no_whitespace = false;
  bool pair_datetime = false;
  bool base16 = false;
  qv::datetime_format datetime_format;
};

// The moment of a timeline line, as a FILETIME, and whether it is a valid
// time (what qv::time gives for the stamp, without its broken-down forms).
struct timeline_time {
  uint64_t filetime = 0;
  bool valid = false;
  uint64_t get_filetime() const { return filetime; }
  bool is_valid() const { return valid; }
};

struct timeline_entry {
  uint64_t raw_time = 0;
  timeline_time time;
  std::string macb;
  std::string type_text;
  std::string source_text;
  std::string file_text;
  std::string user_text;
};

// The defaults, compiled date and time format included. Keeps the storage of
// the texts for reuse.
void reset_timeline_record(timeline_record& record);
// Copies the output settings from the option record; `format`, `user` and
// `host` take their values here.
void bind_timeline_options(timeline_record& record, const report_options& opts);
void set_time_slots(timeline_record& record, uint64_t m, uint64_t a, uint64_t c, uint64_t b,
                    uint32_t time_kind);
void set_slot_texts(timeline_record& record, std::string_view m, std::string_view a,
                    std::string_view c, std::string_view b);
// One entry per distinct valid time; equal times fold into one MACB text.
void expand_macb(std::vector<timeline_entry>& entries, timeline_record& record);
// The column names joined by `separator`; the caller ends the line.
void write_timeline_header(std::ostream& out, const std::string& separator, bool pair_datetime);
// The column line when pending (then clears the flag), then one line per
// entry. Cleans the record's texts (separator character, line breaks).
void write_timeline_lines(bool& header_row_pending, std::ostream& out, timeline_record& record);
