// The guessing engine: infers a plausible structure for payload bytes that
// no layout explains. It looks for UTF-16 and ASCII strings first, then for
// NT-authority SIDs, and fills the stretches between them with numbers
// chosen by what their bytes look like. Every field it makes is named
// "guess_..." and has `generated` set.
//
//   name             type  size
//   guess_utf16      1     the string's bytes
//   guess_ascii      2     the string's bytes
//   guess_sid        19    28 or 12
//   guess_uint64     21    8
//   guess_filetime   17    8
//   guess_systime    18    16 (number holds the first eight bytes)
//   guess_uint32     8     4
//   guess_uint16     6     2
//   guess_byte       4     1
#pragma once

#include <cstdint>

#include "decode/decoded_field.h"

// Decodes `size` bytes at `data`, keyed from `base` (the file offset of
// `data`). Unless `keep`, `fields` is cleared first. Fewer than 4 bytes add
// nothing.
void guess_payload(decoded_fields& fields, uint64_t base, const uint8_t* data, uint32_t size,
                   bool keep);

// The numeric pass over a stretch without text: 32-bit words, except where
// a word and the next one look like a 64-bit kernel address (or, under that
// same test, a time stamp), then a 16-bit value or single bytes for the tail.
void guess_numbers(decoded_fields& fields, uint64_t base, const uint8_t* data, uint32_t size);

// The FILETIME window of the numeric pass: from 3650 days before to 730
// days after the moment of first use, fixed for the life of the process.
struct filetime_window {
  uint64_t low = 0;
  uint64_t high = 0;
};
const filetime_window& guess_filetime_window();
