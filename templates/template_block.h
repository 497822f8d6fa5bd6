// The template block behind the executable image: its byte format, how it is
// found and read, and the whole start-up load (text file, block, kernel
// groups) into a `template_store`.
//
// Byte order is little-endian throughout, except the two-byte form of a
// counted number.
//
// Counted number (string table counts and string lengths):
//   first byte < 0x80: the value, one byte long;
//   first byte >= 0x80: (first & 0x7F) * 256 + second, two bytes, high part
//   first. Largest value 0x7FFF.
// String table: counted number n, then n times (counted number len, len bytes
// of text without terminator).
//
// Block, with nothing between its parts and no magic, version or checksum:
//   field name table     string table; entries 0 and 1 are empty
//   provider name table  string table; entry 0 is "unk"
//   records              one after another up to the end of the block
//
// Record (offsets from its start; b builds, i identifiers, f fields):
//   0       2      size            bytes of the record that follow this field
//   2       1      build_count     b
//   3       2b     builds          u16 Windows build numbers
//   3+2b    16     guid            provider GUID, Windows binary layout
//   19+2b   2      provider_index  into the provider name table; 0 for none
//   21+2b   1      has_range       0 or not 0
//   22+2b   0|4    range_lo, range_hi (u16 each) when has_range isn't 0
//   next    1      id_count        i
//   next    2i     ids             u16 event identifiers
//   next    1      field_count     f; 0 makes a provider declaration
//   next    2f     words           the template word of each field
//   next    2f     name_indices    into the field name table
// A provider declaration with no builds, range or identifiers is 24 bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "templates/template_store.h"

// The fixed location record in the executable's read-only data: a 16-byte
// magic, then block_offset and block_length (u32, little-endian). The build
// step finds the record by its magic, which must occur exactly once in the
// linked file, appends the block to the file and writes the two values.
#define QUON_BLOCK_LOCATION_MAGIC \
  'Q', 'U', 'O', 'N', '-', 'B', 'L', 'O', 'C', 'K', '-', 'L', 'O', 'C', 0xA5, 0x5A
constexpr size_t block_location_magic_size = 16;
constexpr size_t block_location_record_size = 24;

// Where the block lies in the running executable, from the fixed location
// record that the build step patches after linking. False when the record
// was never patched (offset or length 0).
bool embedded_block_location(uint32_t& block_offset, uint32_t& block_length);

// Reads `block_length` bytes at `block_offset` of the running executable
// (/proc/self/exe). False, with `out` empty, when the offset is below 4096,
// beyond the file, or the file can't be read. A block cut short by the end of
// the file gives the bytes that are there.
bool read_embedded_block(std::vector<uint8_t>& out, uint32_t block_offset, uint32_t block_length);

// embedded_block_location followed by read_embedded_block.
bool read_own_block(std::vector<uint8_t>& out);

// Reads a counted number at `data`. Returns the bytes it takes (1 or 2), or 0
// when `available` doesn't hold it.
size_t read_counted_number(uint32_t& value, const uint8_t* data, size_t available);

// Reads a string table into `out`; returns the bytes consumed (0 when not even
// the count could be read). `reserve` is the room kept in `out` up front.
size_t read_string_table(std::vector<std::string>& out, const uint8_t* bytes, size_t available,
                         size_t reserve = 0);

// Unpacks one record at `bytes`; returns the bytes consumed, or 0 when the
// record doesn't fit. A record whose parts don't add up to its `size` is kept
// as read and reported on stderr.
size_t unpack_template_record(template_record& record, const uint8_t* bytes, size_t available);

// Fills `source` from a whole block; true unless the block is too short or a
// name table can't be read. Records are read until one doesn't fit.
bool parse_template_block(template_source& source, const std::vector<uint8_t>& bytes);
bool parse_template_block(template_source& source, const uint8_t* bytes, size_t size);

// Merges a source into the store; `keep` false clears the store first. False
// when the source has no records.
bool link_templates(const template_source& source, template_store& store, bool keep);

// The start-up load: the text file (if `template_path` isn't empty), then the
// block (if `block_bytes` isn't empty), then the kernel groups. The first
// source wins on equal (GUID, event id, build) keys.
void load_templates(template_store& store, const std::vector<uint8_t>& block_bytes,
                    const std::string& template_path);

// Most event identifiers that one link enters; a bound on the memory that a
// hostile source with wide ranges can claim. Far above any real database.
constexpr size_t max_linked_event_ids = size_t(1) << 20;
