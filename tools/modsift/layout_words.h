// Turns the properties of a TEMP block into the template words that quon's
// payload walker runs: one word per value, in payload order, with the
// property's name beside it.
//
//   plain value            its in-type (1 to 22): the walker's plain words
//   length from a field    0xAk01 (UTF-16), 0xAk02 (ANSI), 0xAk84 (binary),
//                          k = how many decoded entries back the length is
//   fixed length           0xDk02 (ANSI, k bytes), 0xDk84 (binary, k bytes),
//                          0xB284 and the length as a second word beyond 15;
//                          UTF-16 of 3, 4 or 256 characters: slot words 145,
//                          161, 177
//   fixed count            0xDk84 (8-bit), 0xDk86, 0xDk88, 0xDk95 (16, 32,
//                          64-bit), 0xDk90 (pointers), 0x9k81 (UTF-16
//                          strings); GUIDs, SYSTEMTIMEs and fixed-length
//                          binary as one blob of the whole size
//   count from a field     0xAk84 (8-bit), 0xAk88 (32-bit), 0xAk90
//                          (pointers), 0xAk81 (UTF-16 strings)
//   structure, count 1     its members, flattened in place
//
// A back reference counts entries of the decoded list, so it can only be
// computed while every field between the two has a fixed number of entries.
// Whatever can't be said this way (a count or back reference over 15, arrays
// of structures, counted ANSI strings and counted binary, a count on a type
// with no word family, a reference across a field of variable entry count)
// ends the template with word 0 under that property's name: the rest of the
// payload then goes to the guessing engine rather than being decoded wrong.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/modsift/wevt_blob.h"

namespace modsift {

struct layout_field {
  uint16_t word = 0;
  bool parameter = false;  // the count word behind 0xB284: written in decimal, no name
  std::string name;
};

struct layout {
  std::vector<layout_field> fields;
  bool stopped = false;  // ends with word 0 where a property couldn't be expressed
};

// Converts the top-level parameters of `t` (structures flattened). `budget`
// is decremented by the work done; at 0 the layout stops with word 0, so
// that a hostile property table can't make the conversion run away.
layout layout_of(const temp_block& t, uint64_t& budget);

// Appends the tokens of a layout to a template line: ", L<name>" when the
// name isn't empty, then ", <word>" (in-types in decimal, family words in
// hexadecimal, the parameter of 0xB284 in decimal).
void append_layout_tokens(std::string& out, const layout& l);

}  // namespace modsift
