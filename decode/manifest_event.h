// The manifest event of an event source: event 65534 (0xFFFE) of a
// provider, in which a .NET event source writes its own instrumentation
// manifest into the trace, cut into chunks that fit an event.
//
// Its payload is an 8-byte envelope, then one chunk of the manifest:
//
//   offset  size  field
//   0       1     Format        1: the manifest is XML
//   1       1     MajorVersion
//   2       1     MinorVersion
//   3       1     Magic         0x5B
//   4       2     TotalChunks   how many chunks the manifest was cut into
//   6       2     ChunkNumber   this chunk's place among them, from 0
//   8       ...   the chunk: UTF-8 text, to the end of the payload
//
// The chunks of one manifest are written one after another, in order; the
// manifest is written when a session enables the source and again at
// rundown.
#pragma once

#include <cstdint>

#include "decode/decoded_field.h"

constexpr uint16_t manifest_event_id = 0xFFFE;
constexpr uint8_t manifest_magic = 0x5B;
constexpr uint8_t manifest_format_xml = 1;
constexpr uint32_t manifest_envelope_size = 8;

struct manifest_envelope {
  uint8_t format = 0;
  uint8_t major_version = 0;
  uint8_t minor_version = 0;
  uint8_t magic = 0;
  uint16_t total_chunks = 0;
  uint16_t chunk_number = 0;
  const uint8_t* chunk = nullptr;  // the bytes behind the envelope
  uint32_t chunk_size = 0;
};

// Reads the envelope of a payload; false when the payload is shorter than an
// envelope or its magic byte isn't 0x5B. Whatever else it says is for the
// caller to judge.
bool read_manifest_envelope(const uint8_t* payload, uint32_t size, manifest_envelope& out);

// The row of a manifest event: the envelope's fields under their names
// (Format, MajorVersion, MinorVersion, Magic, TotalChunks, ChunkNumber) and
// the chunk as one text field (ManifestText), keyed by file offset from
// `base`; a zero byte ends the text, and 4 bytes or more behind it go to the
// guessing engine (`guessed` set). Reads stay inside `size` bytes.
void decode_manifest_event(decoded_fields& fields, uint64_t base, const uint8_t* payload, uint32_t size,
                           bool& guessed);
