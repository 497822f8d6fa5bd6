// The binary template resource of a manifest-based provider ("CRIM" blob, as
// the message compiler writes it into the WEVT_TEMPLATE resource).
//
// Layout, all offsets absolute from the start of the blob:
//   CRIM header    "CRIM", size, major and minor version (16 bits each),
//                  provider count; then per provider its GUID and the offset
//                  of its WEVT block (20 bytes each).
//   WEVT           "WEVT", size, message id, element count, then per element
//                  a {kind, offset} pair. Elements are found by signature:
//                  EVNT, TTBL, PRVA and EVTA are read here; CHAN, LEVL,
//                  TASK, OPCO, KEYW, MAPS, QTAB, FLTR are not needed.
//   EVNT           "EVNT", size, count, a reserved word, then 48-byte entries:
//                  id (16), version, channel, level, opcode (8 each), task
//                  (16), keywords (64), message id, TEMP offset at +20, ...
//   TEMP           "TEMP", size, top-level parameter count, property count
//                  (members of structures included), offset of the property
//                  table, a reserved word, GUID; the binary XML of the event
//                  lies between byte 40 and the property table. Properties are
//                  20 bytes: flags, in-type and out-type (8 bits each) or, for
//                  a structure, its first member index and member count (16
//                  bits each), map offset, count (16), length (16), offset of
//                  the name (a 32-bit size that counts itself, then UTF-16).
//                  For the variable forms count and length hold the index of
//                  the property that carries the value.
//   PRVA           (format 5) "PRVA", size, count, {key, offset} pairs; key
//                  0x10000001 points at the provider's name.
//   EVTA           (format 5) "EVTA", size, count, {key, offset} pairs; a key
//                  is id << 16 | version << 8 | kind, kind 0x11 being the
//                  event's name, a UTF-16 string ending in a zero unit.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/byte_reader.h"
#include "support/guid.h"
#include "templates/manifest_layout.h"

namespace modsift {

struct wevt_event {
  uint16_t id = 0;
  uint8_t version = 0;
  uint8_t channel = 0;
  uint8_t level = 0;
  uint8_t opcode = 0;
  uint16_t task = 0;
  uint64_t keywords = 0;
  uint32_t message_id = 0;
  uint32_t template_offset = 0;  // 0: the event has no template
  std::string name;              // from EVTA; empty when the blob has none
};

struct wevt_provider {
  qv::guid16 guid{};
  uint32_t offset = 0;
  uint32_t message_id = 0xFFFFFFFFu;
  std::string name;  // from PRVA; empty when the blob has none
  std::vector<wevt_event> events;
};

struct crim_blob {
  uint16_t major = 0;
  uint16_t minor = 0;
  std::vector<wevt_provider> providers;
  // Parts that were damaged and passed over; the rest stands.
  std::vector<std::string> problems;
};

// Reads the header, the provider table and each provider's events and names.
// False with a reason when the header itself is unusable (then nothing is
// trusted); damage inside one provider is noted in `problems` and only that
// part is dropped.
bool read_crim(qv::byte_span blob, crim_blob& out, std::string& reason);

// A TEMP block: its property table (flags, in-type and out-type or first
// member and member count, count and length as the table holds them, name)
// and where it lies.
struct temp_block : manifest_template {
  uint32_t offset = 0;
  uint32_t size = 0;
  qv::byte_span binxml;
};

// Reads the TEMP at `offset`. The block, its property table and the names
// must lie inside the blob and inside the TEMP's own extent.
bool read_temp(qv::byte_span blob, uint32_t offset, temp_block& out, std::string& reason);

}  // namespace modsift
