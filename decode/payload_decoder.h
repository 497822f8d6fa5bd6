// Payload decoding: walks an event's payload under the control of an
// `event_template` into `decoded_fields`, and hands whatever a layout leaves
// over (4 bytes or more) to the guessing engine.
//
// Every read stays inside the trace buffer: `buffer_end` is one past the last
// byte of the buffer that holds the payload. Fixed-width values may run past
// the payload into the buffer; bytes past `buffer_end` read as zero. A null
// `buffer_end`, or one that falls inside the payload, means the payload's
// own end.
//
// Template words (16 bits): bits 0-7 the type byte, bits 8-11 an argument
// nibble `k`, bits 12-15 the family:
//   0    plain value; the type byte is a trace data input type (1 UTF-16
//        text, 2 ASCII text, 3/4 8-bit, 5/6 16-bit, 7/8 32-bit, 9/10 64-bit,
//        ... 22 counted UTF-16) or one of this program's own (132 and up)
//   8    special operation: labels, comments, device formatters
//   9    a structure that states its own size at offset k; k UTF-16 strings
//   0xA  count or length taken from the k-th field back
//   0xB  count stored in the next template word
//   0xC  fixed skip of k units
//   0xD  fixed-count array of k values
//   0xE  skip sized by the k-th field back
#pragma once

#include <cstdint>

#include "decode/decoded_field.h"
#include "support/guid.h"
#include "templates/template_store.h"

// Returns true when anything was decoded. `provider_id` and `store` may be
// null. `version` is the event version the record carries, -1 for none: the
// layouts declared for it are tried first. The store links a provider's
// embedded layouts on its first lookup, hence not const. Unless `keep_fields`, `fields` is cleared first. `guessed` is set when
// the guessing engine ran, cleared otherwise.
bool decode_payload(decoded_fields& fields, uint64_t payload_file_offset,
                    const qv::guid16* provider_id, uint16_t event_id, int version,
                    const uint8_t* payload, uint32_t payload_size, const uint8_t* buffer_end,
                    template_store* store,
                    bool pointers_are_64, bool keep_fields, bool& guessed);

// Walks one template over `size` bytes at `payload`; `base` is the file
// offset of `payload`. Returns the bytes consumed, which may exceed `size`.
int32_t walk_template(const event_template& tmpl, decoded_fields& fields, const uint8_t* payload,
                      uint32_t size, const uint8_t* buffer_end, uint64_t base,
                      bool pointers_are_64);

// Decodes the word at `field_index` (a word whose family isn't 0) at `p`,
// with `remaining` payload bytes from there; `base` is the file offset of
// `p`, which must lie before `buffer_end`. Returns the bytes consumed.
int32_t decode_complex_field(const event_template& tmpl, decoded_fields& fields,
                             const uint8_t* p, int32_t remaining, const uint8_t* buffer_end,
                             uint32_t field_index, uint64_t base, bool pointers_are_64);

// The `number` of the k-th entry counted back from the greatest key (1 is
// the last one); 0 when there is no such entry, or when the number exceeds
// `remaining`.
uint64_t back_value(const decoded_fields& fields, uint32_t k, int32_t remaining);
