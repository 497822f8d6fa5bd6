// The table-driven report writer: a row is a list of typed cells, a column
// table gives each column a name and a width, and one routine turns a row
// into one line of text. Widths, padding, number base, separator and text
// clean-up are decided here from the option record.
#pragma once

#include <cstdint>
#include <ostream>
#include <span>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "report/report_cell.h"
#include "support/line_text.h"
#include "support/qv_datetime.h"
#include "support/qv_string.h"

struct report_options;

// Valid when 0 < count < 256. Reuses the cells' storage.
bool init_report_row(report_row& row, int32_t count, uint32_t default_flags);
// init_report_row for a caller that sets every one of the `count` cells
// before the row is written: each cell is reset when it is set, and not here
// as well.
bool init_report_row_for_all_cells(report_row& row, int32_t count, uint32_t default_flags);
// Each resets the cell and returns the cells used (1, or 2 for two-cell types).
// An index out of range, an invalid row or a type of 32 or more stores
// nothing and still returns 1.
int32_t set_cell_text(report_row& row, int32_t index, const std::string& text, uint16_t type,
                      uint32_t flags);
int32_t set_cell_bytes(report_row& row, int32_t index, const uint8_t* data, uint32_t length,
                       uint16_t type, uint32_t flags);
inline int32_t set_cell_number(report_row& row, int32_t index, uint64_t value, uint16_t type,
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

// A text cell whose text `render` writes from `source` straight into the
// line when the row is written (`source` must live until then). Only for a
// cell without storing-time rules: false, and nothing stored, when the
// row's flags ask for quotes or line-break flattening; the caller then
// stores the text with begin_cell_text.
bool set_cell_rendered_text(report_row& row, int32_t index,
                            void (*render)(qv::line_text& out, const void* source),
                            const void* source);

// Appends the 36 characters of qv::append_guid_text, from a small table of
// the texts of the GUIDs seen last.
void append_cached_guid_text(std::string& out, const uint8_t* guid);
// The same 36 characters where they are kept (until the next call).
const char* cached_guid_text(const uint8_t* guid);
void append_cached_guid_text(qv::line_text& out, const uint8_t* guid);

// Writes the column names; clears header_row_pending.
void write_column_line(std::ostream& out, report_options& opts);
// Writes one row as one line (the column line first if still pending).
void write_report_row(std::ostream& out, const report_row& row, report_options& opts);
// Line breaks to "[CRLF]", "[LFCR]", "[LF]", "[CR]", in place.
using qv::flatten_line_breaks;
// flatten_line_breaks, and then what it leaves standing marked as well: the
// last LF of LF CR LF (whose CR went into "[LFCR]") becomes "[LF]", a CR in a
// text that also has an LF becomes "[CR]". Nothing of the text can end or
// break a line. A text without CR and LF is left as it is.
void flatten_all_line_breaks(std::string& text);

// Text fields of a line. Every form flattens line breaks in its texts; the
// CSV forms (-csv, -csvgen, -csvl2t) also quote a field that a CSV reader
// would otherwise not read back as one field.
//
// Whether one of the `n` bytes at `p` is `a`, `b` or `c`.
bool holds_any_of(const char* p, size_t n, char a, char b, char c);
// Cleans what stands in `out` from `start` on: every `from` becomes `to`
// (when both are set), then flatten_all_line_breaks. Returns a character
// the cleaned text is known not to hold (`from`, when it was replaced and
// no line break was marked), or 0.
char clean_field(std::string& out, size_t start, char from, char to);
char clean_field(qv::line_text& out, size_t start, char from, char to);
// Whether the field in `out` from `start` on needs quotes to read back as
// one CSV field: it begins with a double quote, or holds a character of
// `separator` other than a blank (a separator without a substitute, as
// after -csv_separator or -enable_quoted_csv_fields). `absent` is a
// character not to look for, as clean_field returns it.
bool csv_field_needs_quotes(const std::string& out, size_t start, const std::string& separator,
                            char absent = 0);
bool csv_field_needs_quotes(const qv::line_text& out, size_t start, const std::string& separator,
                            char absent = 0);
// Puts the field in `out` from `start` on between double quotes, its own
// quotes doubled, as RFC 4180 has it; blanks up to `width` go inside the
// closing quote, so that padding stays part of the field.
void quote_csv_field(std::string& out, size_t start, uint64_t width);
void quote_csv_field(qv::line_text& out, size_t start, uint64_t width);

// Date and time text of FILETIME stamps for the row writers. The date text
// is kept per day and per format and the "hh:mm:ss" text per second, so a
// run of events costs a few divisions per row; the text equals what
// qv::format_datetime gives for the stamp.
class filetime_text {
 public:
  // False when the stamp isn't a valid time; nothing may then be printed.
  bool set(uint64_t ticks, const qv::datetime_format& fmt);
  // Valid after a successful set().
  const std::string& date() const { return date_; }
  void append_date(std::string& out) const { out += date_; }
  void append_date(qv::line_text& out) const { out += date_; }
  void append_time(std::string& out) const;
  void append_time(qv::line_text& out) const;

 private:
  uint64_t day_ = UINT64_MAX;
  uint32_t fmt_key_ = 0;
  uint64_t ticks_ = 0;
  uint32_t digits_ = 0;
  std::string date_;
  size_t time_size() const;
  void write_time(char* p) const;
  // The second of the day that `clock_` shows ("hh:mm:ss").
  mutable uint64_t second_ = UINT64_MAX;
  mutable char clock_[8] = {};
};

namespace report_detail {

// What the writer reads of a cell, whether the cell is stored in a row or
// handed straight to a row_line.
struct cell_view {
  uint16_t type = 0;
  uint16_t max_text = 20;
  uint32_t flags = 0;
  uint64_t number = 0;
  std::string_view text;
  std::span<const uint8_t> bytes;
  void (*render)(qv::line_text& out, const void* source) = nullptr;
  const void* source = nullptr;
};

}  // namespace report_detail

// A row written straight into its line, cell after cell, without its values
// being stored first: for rows written for every event. Each call takes the
// next column's value as the setter of the same name takes it for a stored
// row (the column line, when pending, is written first), and `finish`
// writes the line, which equals what write_report_row writes for the same
// cells. Columns not given show nothing. Not for -multiline, whose rows are
// laid out whole.
class row_line {
 public:
  row_line(std::ostream& out, report_options& opts, int32_t count, uint32_t default_flags);
  row_line(const row_line&) = delete;
  row_line& operator=(const row_line&) = delete;

  void number(uint64_t value, uint16_t type, uint32_t flags);
  void text(std::string_view text, uint16_t type, uint32_t flags);
  void bytes(const uint8_t* data, uint32_t length, uint16_t type, uint32_t flags);
  // As set_cell_rendered_text: false, and the column still to be given,
  // when the row's flags ask for quotes or line-break flattening.
  bool rendered_text(void (*render)(qv::line_text& out, const void* source), const void* source);
  void finish();

 private:
  void put(const report_detail::cell_view& c);
  void skip(uint16_t type);

  std::ostream& out_;
  report_options& opts_;
  size_t count_;
  uint32_t default_flags_;
  bool csv_;                  // a CSV form: texts quoted where they must be
  bool separator_replaced_;   // the separator can't stand in a cleaned text
  qv::line_text line_;
  size_t next_ = 0;  // the next column to be written
};

// ---- Inline parts of the cell setters -------------------------------------
// Rows are filled for every event: the setters of numbers and what they share
// are kept where the compiler can see them.

namespace report_detail {

inline bool is_two_cell(uint16_t type) {
  return type == rt_filetime_two || type == rt_unix_two || type == rt_chrome_two ||
         type == rt_firefox_two || type == rt_safari_two;
}

inline report_cell* cell_at(report_row& row, int32_t index, uint16_t type) {
  if (!row.valid || index < 0 || index >= row.count || type >= 32) return nullptr;
  if (static_cast<size_t>(index) >= row.cells.size()) return nullptr;
  return &row.cells[static_cast<size_t>(index)];
}

// Resets the cell and sets its type and flags; the second cell of a two-cell
// type is reset to type 0. Returns the cells used.
inline int32_t prepare_cell(report_row& row, int32_t index, uint16_t type, uint32_t flags,
                            report_cell*& cell) {
  cell = cell_at(row, index, type);
  const int32_t used = is_two_cell(type) ? 2 : 1;
  if (!cell) return 1;
  cell->reset();
  cell->type = type;
  cell->flags = flags | row.default_flags;
  if (used == 2) {
    if (report_cell* second = cell_at(row, index + 1, rt_untyped)) second->reset();
  }
  return used;
}

}  // namespace report_detail

inline int32_t set_cell_number(report_row& row, int32_t index, uint64_t value, uint16_t type,
                               uint32_t flags) {
  report_cell* cell = nullptr;
  const int32_t used = report_detail::prepare_cell(row, index, type, flags, cell);
  if (cell) cell->number = value;
  return used;
}
