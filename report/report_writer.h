// The table-driven report writer: a row is a list of typed cells, a column
// table gives each column a name and a width, and one routine turns a row
// into one line of text. Widths, padding, number base, separator and text
// clean-up are decided here from the option record.
#pragma once

#include <cstdint>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "support/qv_string.h"

#include "support/qv_datetime.h"

class cmd_params;

// Cell and column types.
enum report_type : uint16_t {
  rt_untyped = 0,
  rt_u8 = 1,
  rt_u16 = 2,
  rt_number = 3,
  rt_u32 = 4,
  rt_u64 = 8,
  rt_text = 11,
  rt_filetime_two = 12,
  rt_filetime = 13,
  rt_ticks = 14,
  rt_unix_two = 15,
  rt_unix = 16,
  rt_chrome_two = 17,
  rt_chrome = 18,
  rt_firefox_two = 19,
  rt_firefox = 20,
  rt_safari_two = 21,
  rt_safari = 22,
  rt_guid = 27,
  rt_hex_pairs = 28,
  rt_hex = 29,
  rt_raw_text = 30,
  rt_no_column = 31,
};

// Cell flags.
enum report_flag : uint32_t {
  rf_quote = 0x8000,
  rf_flatten = 0x10000,
  rf_right = 0x80000,
  rf_hex_and_dec = 0x100000,
  rf_hex = 0x400000,
  rf_cut = 0x1000000,
  rf_centre = 0x2000000,
  rf_zero_blank = 0x4000000,
  rf_arrow = 0x10000000,
  rf_blank = 0x20000000,
  rf_decimal = 0x40000000,
  rf_hex_bare = 0x80000000u,
  rf_column = 128,
};

struct report_cell {
  uint16_t type = 0;
  uint16_t max_text = 20;
  uint32_t flags = 0;
  uint64_t width = 0;
  std::vector<uint8_t> bytes;
  std::string text;
  uint64_t number = 0;
  std::vector<uint64_t> values;

  void reset() {
    type = 0;
    max_text = 20;
    flags = 0;
    width = 0;
    bytes.clear();
    text.clear();
    number = 0;
    values.clear();
  }
};

struct report_row {
  uint32_t valid = 0;
  int32_t count = 0;
  std::vector<report_cell> cells;
  uint32_t default_flags = 0;
};

// Valid when 0 < count < 256. Reuses the cells' storage.
bool init_report_row(report_row& row, int32_t count, uint32_t default_flags);
// Each resets the cell and returns the cells used (1, or 2 for two-cell types).
// An index out of range, an invalid row or a type of 32 or more stores
// nothing and still returns 1.
int32_t set_cell_text(report_row& row, int32_t index, const std::string& text, uint16_t type,
                      uint32_t flags);
int32_t set_cell_bytes(report_row& row, int32_t index, const uint8_t* data, uint32_t length,
                       uint16_t type, uint32_t flags);
int32_t set_cell_number(report_row& row, int32_t index, uint64_t value, uint16_t type,
                        uint32_t flags);
// The stream's text is taken as the cell's text.
int32_t set_cell_stream(report_row& row, int32_t index, const std::ostringstream& stream,
                        uint16_t type, uint32_t flags);

// In-place form of set_cell_text for large texts: resets the cell and hands
// out its (emptied, capacity kept) text to be filled, or nullptr when nothing
// may be stored. finish_cell_text then applies the storing-time rules
// (quotes, line-break flattening) exactly as set_cell_text does.
std::string* begin_cell_text(report_row& row, int32_t index, uint16_t type, uint32_t flags);
void finish_cell_text(report_row& row, int32_t index);

// Writes the column names; clears header_row_pending.
void write_column_line(std::ostream& out, cmd_params& opts);
// Writes one row as one line (the column line first if still pending).
void write_report_row(std::ostream& out, const report_row& row, cmd_params& opts);
// Line breaks to "[CRLF]", "[LFCR]", "[LF]", "[CR]", in place.
using qv::flatten_line_breaks;

// Date and time text of FILETIME stamps for the row writers. The date text
// is kept per day and per format, so a run of events costs a few divisions
// per row; the text equals what qv::format_datetime gives for the stamp.
class filetime_text {
 public:
  // False when the stamp isn't a valid time; nothing may then be printed.
  bool set(uint64_t ticks, const qv::datetime_format& fmt);
  // Valid after a successful set().
  const std::string& date() const { return date_; }
  void append_date(std::string& out) const { out += date_; }
  void append_time(std::string& out) const;

 private:
  uint64_t day_ = UINT64_MAX;
  uint32_t fmt_key_ = 0;
  uint64_t ticks_ = 0;
  uint32_t digits_ = 0;
  std::string date_;
};
