// The template block behind the executable image: its byte format, how it is
// found and read, and the whole start-up load (text file, block, kernel
// groups) into a `template_store`.
//
// Byte order is little-endian throughout, except the two-byte form of a
// counted number.
//
// Counted number (string lengths and table counts):
//   first byte < 0x80: the value, one byte long;
//   first byte >= 0x80: (first & 0x7F) * 256 + second, two bytes, high part
//   first. Largest value 0x7FFF.
// Table count: a counted number; the two-byte form of 0 (80 00), which a
// writer never uses for 0, is followed by the count as a u32, for tables of
// more than 0x7FFF entries.
// String table: table count n, then n times (counted number len, len bytes
// of text without terminator).
//
// Block, with nothing between its parts and no magic, version or checksum:
//   field name table     string table; entries 0 and 1 are empty
//   provider name table  string table; entry 0 is "unk"
//   records              one after another up to the end of the block
//
// Record (offsets from its start; b builds, i identifiers, f fields; w is 2,
// or 4 when the flags say so):
//   0       2      size            bytes of the record that follow this field
//   2       1      build_count     b
//   3       2b     builds          u16 Windows build numbers
//   3+2b    16     guid            provider GUID, Windows binary layout
//   19+2b   2      provider_index  into the provider name table; 0 for none
//   21+2b   1      flags           bits 0-5: not 0 when a range follows
//                                  bit 6: name indices are u32 (w = 4)
//                                  bit 7: a version byte follows
//   next    0|1    version         the event version of the layout (bit 7)
//   next    0|4    range_lo, range_hi (u16 each) when bits 0-5 aren't 0
//   next    1      id_count        i
//   next    2i     ids             u16 event identifiers
//   next    1      field_count     f; 0 makes a provider declaration
//   next    2f     words           the template word of each field
//   next    w*f    name_indices    into the field name table
// A provider declaration with no builds, range or identifiers is 24 bytes.
// Blocks written before versions hold 0 or 1 in the flags byte and read as
// they always did: a record without bit 7 is a layout for every version.
//
// Every list stops as soon as the bytes read reach the record's size, so a
// wrong count can't run past the record; the fixed fields between the lists
// are read regardless. The walk follows the bytes really read, not `size`.
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

// Reads a table count (a counted number, or 80 00 and a u32). Returns the
// bytes it takes, or 0 when `available` doesn't hold it.
size_t read_table_count(uint32_t& value, const uint8_t* data, size_t available);

// Places of a string table's entries, as offsets from `bytes`; returns the
// bytes consumed (0 when not even the count could be read). A count beyond
// the bytes left gives no entries; an entry whose length runs past the end
// stays empty and only its length is taken. Tables beyond 4 GiB aren't read.
size_t index_string_table(std::vector<block_text>& out, const uint8_t* bytes, size_t available);

// Reads a string table into `out`; returns the bytes consumed (0 when not even
// the count could be read). `reserve` is the room kept in `out` up front.
size_t read_string_table(std::vector<std::string>& out, const uint8_t* bytes, size_t available,
                         size_t reserve = 0);

// Where the parts of one record lie, as read: counts are those of the
// entries really read, offsets are from the record's start.
struct record_view {
  size_t size = 0;      // the record's size field
  size_t consumed = 0;  // bytes read behind the size field
  uint32_t builds_at = 0, build_count = 0;
  qv::guid16 guid{};
  uint16_t provider_index = 0;
  uint8_t flags = 0;
  int16_t version = -1;  // -1: a layout for every version
  uint16_t range_lo = 0, range_hi = 0;
  uint32_t ids_at = 0, id_count = 0;
  uint32_t words_at = 0, word_count = 0;
  uint32_t names_at = 0, name_count = 0, name_width = 2;
};

// Reads one record's shape at `bytes` without copying its lists. Returns the
// bytes the record takes (its size field included), or 0 when it doesn't fit.
size_t scan_template_record(record_view& view, const uint8_t* bytes, size_t available);

// Unpacks one record at `bytes`; returns the bytes consumed, or 0 when the
// record doesn't fit. A record whose parts don't add up to its `size` is kept
// as read and reported on stderr.
size_t unpack_template_record(template_record& record, const uint8_t* bytes, size_t available);

// Fills `source` from a whole block; true unless the block is too short or a
// name table can't be read. Records are read until one doesn't fit.
bool parse_template_block(template_source& source, const std::vector<uint8_t>& bytes);
bool parse_template_block(template_source& source, const uint8_t* bytes, size_t size);

// Merges a source into the store; `keep` false clears the store first. False
// when the source has no records. A provider's block records that still wait
// are linked ahead of the source's.
bool link_templates(const template_source& source, template_store& store, bool keep);

// Takes a whole block into the store without unpacking its layouts: the
// records are walked as parse_template_block walks them (and a record whose
// parts don't add up is reported here, once), every GUID gets its entry and
// the block's name for it where it has none yet, and each provider keeps the
// places of its records, which link_pending_records links on first use. The
// store then answers exactly as after parse_template_block and link_templates
// with `keep` true. Records of a block indexed before are linked first.
// False, with the store unchanged, when the block is too short or a name
// table can't be read.
bool index_template_block(template_store& store, std::vector<uint8_t>&& bytes);

// Links the block records that wait in `entry` (an entry of `store`), in
// block order, and forgets them.
void link_pending_records(template_store& store, provider_entry& entry);
// The same for one provider, or for every provider of the store.
void unpack_provider(template_store& store, const qv::guid16& guid);
void unpack_all_providers(template_store& store);

// The start-up load: the text file (if `template_path` isn't empty), then the
// block (if `block_bytes` isn't empty; indexed, its layouts linked per
// provider on first use), then the kernel groups. The first source wins on
// equal (GUID, event id, version, build) keys.
void load_templates(template_store& store, std::vector<uint8_t> block_bytes,
                    const std::string& template_path);

// Most event identifiers that one link enters; a bound on the memory that a
// hostile source with wide ranges can claim. Far above any real database.
constexpr size_t max_linked_event_ids = size_t(1) << 20;

// Flags of a record (the byte behind provider_index).
constexpr uint8_t record_range_bits = 0x3F;
constexpr uint8_t record_wide_names = 0x40;
constexpr uint8_t record_has_version = 0x80;
