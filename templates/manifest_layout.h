// What an instrumentation manifest says of one event's data, and how that
// becomes template words.
//
// The property table is the form in which the message compiler writes a
// <template> into the TEMP block of a WEVT_TEMPLATE resource, and the form in
// which the trace data helper reports an event's properties: the template's
// top-level items first (`param_count` of them), the members of its
// structures after them; a structure names its first member and its member
// count, and a length or count taken from another item holds that item's
// index in the table. Both the WEVT reader and the manifest XML reader fill
// it, so that a manifest's layouts come out the same from either form.
//
// Words, one per value, in payload order, the property's name beside it:
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
// Whatever can't be said this way ends the layout with word 0 under that
// property's name, and the reason is kept: the rest of the payload then goes
// to the guessing engine rather than being decoded wrong.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Flags of a property.
enum : uint32_t {
  property_struct = 0x1,
  property_fixed_length = 0x2,
  property_var_length = 0x4,   // `length` is the index of the item holding it
  property_fixed_count = 0x8,
  property_var_count = 0x10,   // `count` is the index of the item holding it
};

// In-types (the trace data helper's numbering) that the conversion tells
// apart; the plain ones 1 to 22 are the walker's own words.
enum : uint8_t {
  in_type_unicode_string = 1,
  in_type_ansi_string = 2,
  in_type_binary = 14,
  in_type_guid = 15,
  in_type_pointer = 16,
  in_type_systemtime = 18,
  in_type_counted_unicode_string = 22,
  in_type_counted_ansi_string = 23,
  in_type_counted_binary = 25,
};

// Why a layout ends before its template does.
enum class layout_stop : uint8_t {
  none,
  struct_array,         // an array of structures, fixed or counted
  count_over_15,        // a fixed count beyond the nibble
  ansi_length_over_15,  // ANSI text of a fixed length beyond the nibble
  utf16_length,         // UTF-16 text of a fixed length other than 3, 4, 256
  binary_length,        // binary of a fixed size beyond 65535 bytes
  array_of_type,        // a count on a type that has no array word
  counted_ansi,         // in-type 23, counted ANSI text
  counted_binary,       // in-type 25, counted binary
  no_word,              // any other in-type without a word (0, 24, above 25)
  out_of_reach,         // a length or count out of reach (later, not an
                        // integer, over 15 entries back, across a variable count)
  bad_structure,        // members outside the table, or nested too deep
  work_limit,           // the conversion's budget ran out
  // Found by the manifest XML reader before conversion:
  unknown_in_type,      // an in-type name it doesn't know
  unknown_reference,    // length= or count= names no earlier item
  structure_index,      // recreated metadata: a structure written as its start index
};
constexpr int layout_stop_count = int(layout_stop::structure_index) + 1;

struct manifest_property {
  uint32_t flags = 0;
  uint8_t in_type = 0;
  uint8_t out_type = 0;
  uint32_t first_member = 0;  // structures
  uint32_t member_count = 0;
  uint32_t count = 0;         // fixed count, or the index of the count's item
  uint32_t length = 0;        // fixed length, or the index of the length's item
  std::string name;
  // Set by a reader that couldn't make the item out: the layout ends here.
  layout_stop unreadable = layout_stop::none;
};

struct manifest_template {
  uint32_t param_count = 0;  // the top-level items, first in the table
  std::vector<manifest_property> properties;
};

// A short text for summaries: "array of structures", ...
const char* layout_stop_text(layout_stop stop);

struct layout_field {
  uint16_t word = 0;
  bool parameter = false;  // the count word behind 0xB284: written in decimal, no name
  std::string name;
};

struct manifest_layout {
  std::vector<layout_field> fields;
  bool stopped = false;  // ends with word 0 where a property couldn't be expressed
  layout_stop stop = layout_stop::none;
};

// Converts the top-level items of `t` (structures flattened). `budget` is
// decremented by the work done; at 0 the layout stops with word 0, so that a
// hostile property table can't make the conversion run away.
manifest_layout layout_of(const manifest_template& t, uint64_t& budget);

// Ends a layout with word 0 under `name` for `why`.
void stop_layout(manifest_layout& l, const std::string& name, layout_stop why);

// Appends the tokens of a layout to a template line: ", L<name>" when the
// name isn't empty, then ", <word>" (in-types in decimal, family words in
// hexadecimal, the parameter of 0xB284 in decimal).
void append_layout_tokens(std::string& out, const std::vector<layout_field>& fields);

// Makes `text` safe as a field or event name token of a template line: the
// characters that end a token or a column ("," and "!"), every control
// character and DEL become "_", and blanks at both ends are dropped, as the
// template reader would drop them.
std::string layout_name(const std::string& text);
