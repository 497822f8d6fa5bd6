// The typed cell and row of the report writer. A cell is used both for a
// value of a row and for an entry of the column table (name and width).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/line_text.h"

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
  // A text cell whose text is written straight into the line when the row
  // is written, by `render` from `source`, instead of being held in `text`.
  void (*render)(qv::line_text& out, const void* source) = nullptr;
  const void* source = nullptr;

  void reset() {
    type = 0;
    max_text = 20;
    flags = 0;
    width = 0;
    bytes.clear();
    text.clear();
    number = 0;
    values.clear();
    render = nullptr;
    source = nullptr;
  }
};

struct report_row {
  uint32_t valid = 0;
  int32_t count = 0;
  std::vector<report_cell> cells;
  uint32_t default_flags = 0;
};
