// Payload decoding: walks an event's payload under the control of an
// `event_template` into `decoded_fields`, and hands whatever a layout leaves
// over (4 bytes or more) to the guessing engine.
//
// Every read stays inside the trace buffer: `buffer_end` is one past the last
// byte of the buffer that holds the payload. Fixed-width values may run past
// the payload into the buffer; bytes past `buffer_end` read as zero.
#pragma once

#include <cstdint>

#include "decode/decoded_field.h"
#include "support/guid.h"
#include "templates/template_store.h"

// Returns true when anything was decoded. `provider_id` and `store` may be
// null. Unless `keep_fields`, `fields` is cleared first. `guessed` is set when
// the guessing engine ran.
bool decode_payload(decoded_fields& fields, uint64_t payload_file_offset,
                    const qv::guid16* provider_id, uint16_t event_id, const uint8_t* payload,
                    uint32_t payload_size, const uint8_t* buffer_end, const template_store* store,
                    bool pointers_are_64, bool keep_fields, bool& guessed);

// Walks one template over `size` bytes at `payload`; `base` is the file
// offset of `payload`. Returns the bytes consumed, which may exceed `size`.
int32_t walk_template(const event_template& tmpl, decoded_fields& fields, const uint8_t* payload,
                      uint32_t size, const uint8_t* buffer_end, uint64_t base,
                      bool pointers_are_64);
