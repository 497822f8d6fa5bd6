// Writes a template_source in the byte format of the embedded block (see
// templates/template_block.h): the field name table (two empty entries
// first, then names in order of first use), the provider name table ("unk"
// first, then names in order of first use), provider declarations, then the
// templates in source order.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "templates/template_store.h"

// Appends a counted number; false (nothing appended) above 0x7FFF.
bool append_counted_number(std::vector<uint8_t>& out, uint32_t value);
// Appends a table count: a counted number up to 0x7FFF, above that 80 00 and
// the count as a u32.
void append_table_count(std::vector<uint8_t>& out, uint32_t value);

// Appends one record as it stands: its builds, GUID, provider_index, version
// (when not -1), range, ids, words and name_indices (u32 when one of them
// needs it). False (nothing appended) when a list holds more than 255 entries
// or names and words differ in length.
bool append_template_record(std::vector<uint8_t>& out, const template_record& record);

// Serializes a whole source into `out`. Records with more than 255
// identifiers or builds are split into several records that link to the
// same result. False, with a reason in `error`, when the source can't be
// represented: a template of more than 255 fields, a name longer than 0x7FFF
// bytes, more than 0x7FFF distinct provider names or more than 0xFFFFFF
// distinct field names.
bool write_template_block(const template_source& source, std::vector<uint8_t>& out,
                          std::string& error);
