// Template text files: the readable twin of the embedded block, given with
// -templates. One line is one template_record:
//
//   // comment                         (lines starting with "/")
//   #{guid} ! Provider-Name            (provider line; the name ends at , | or ;)
//   {guid} ! $ids, token, token, ...   (event line; "%" in place of "$" also)
//
// Identifiers: 801 | 1037;9517 | 10-12 | 1-2;4;5 (the range first).
// Tokens: "#" build, "L" name of the next field, "V" event version (0-255;
// a line without one holds for every version), "C" comment, else a word.
// Lines under 16 characters are passed over; a "#" line whose GUID column is
// shorter than 36 characters ends the file.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "templates/template_store.h"

// Resets `source` and reads the file into it. True when the file was read,
// whatever its lines held; false when it can't be read or is empty.
bool load_template_text(template_source& source, const std::string& path);

// What one line did to a source.
enum class template_line {
  passed_over,  // short, a comment, or a provider line that adds nothing
  provider,     // a provider's name was declared
  event,        // an event record was added or merged
  not_parsed,   // an event line that doesn't make a record
  end_of_file,  // a "#" line with a short GUID column: reading stops here
};

// Adds one split and trimmed line to `source`.
template_line add_template_line(template_source& source, const std::string& line);

// Adds already split and trimmed lines to `source` without resetting it.
// False when a provider line ended the text early.
bool add_template_lines(template_source& source, const std::vector<std::string>& lines);

// Parses one event line into `record`; true when it makes an event record.
bool parse_template_line(template_record& record, const std::string& line);

// Adds a parsed event record to the source: merged into an earlier record of
// the same key (identifiers added, builds dropped) or appended.
void merge_template_record(template_source& source, template_record&& record);

// Most identifiers that merging lines gathers in one record; a bound on the
// memory that a hostile file repeating wide ranges can claim.
constexpr size_t max_merged_ids = size_t(1) << 20;
