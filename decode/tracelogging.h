// TraceLogging self-describing events: the event schema that an extended
// data item of type 11 carries, turned into a transient `event_template`
// that the template interpreter can walk over the event's payload.
//
// Schema layout (byte-packed, no alignment):
//   u16      total size of the schema, these two bytes included
//   u8[]     tag bytes: a byte with its top bit set is followed by another
//   char[]   event name, UTF-8, zero-terminated
//   then per field:
//   char[]   field name, UTF-8, zero-terminated
//   u8       in-type: bits 0-4 the value type (the trace data input types:
//            1 UTF-16 text, 2 ANSI text, 3-10 integers, ... 22 counted UTF-16,
//            23 counted ANSI, 24 structure, 25 counted binary), bits 5-6 the
//            count kind (0x20 fixed count, 0x40 count in the data, 0x60
//            custom), bit 7 set when an out-type byte follows
//   u8       out-type (only with bit 7 of the in-type): display hint; bit 7
//            set when tag bytes follow; for a structure, the member count
//   u8[]     field tag bytes (only with bit 7 of the out-type), as above
//   u16      value count (fixed-count arrays only)
//   u16, u8[] type-info size and bytes (custom fields only)
//
// Payload encodings that a single template word can't say get two words: a
// 16-bit count field named "<name>.Count" (elements) or "<name>.Size"
// (bytes), then a word that takes its count from it. Structures have no
// data of their own: their members follow as plain fields. A field whose
// data this decoder can't lay out (arrays of structures or of variable-size
// values, unknown types) becomes a blob word that ends the walk there, so
// the rest of the payload goes to the guessing engine and nothing is lost.
#pragma once

#include <cstdint>

#include "templates/template_store.h"

// Builds `out` from the schema at `data`: the event name under word 0x8001
// first, then one or more words per field. False, with `out` empty, when
// there is no complete event name. `layout_text` and `digest` are built as
// for any other template; `has_wide_word` is set when a field's word is
// above 255.
bool parse_tracelogging_schema(const uint8_t* data, uint32_t size, event_template& out);

// Largest fixed-count array of variable-size values that is spelled out
// element by element; larger ones end the layout with a blob.
constexpr uint32_t kMaxSchemaArrayElements = 64;
