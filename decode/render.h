// Field value rendering: an event's decoded fields as the one-line text of
// the data cell, and the small text helpers the decoder shares with it.
//
// Entry form, in key order, counted from 1:
//   "NN-name":"value"   entries joined by ";", no other space or line end.
// NN is the counter, at least two digits; "-name" is left out when the name
// is empty. Numbers are always hexadecimal here.
#pragma once

#include <cstdint>
#include <string>

#include "decode/decoded_field.h"
#include "support/line_text.h"

// Appends the entries of `fields` to `out` (nothing for an empty list). The
// caller puts "data{" and "}" around it.
void render_fields(std::string& out, const decoded_fields& fields);
// The same, into a line being composed: the form the row writers use.
void render_fields(qv::line_text& out, const decoded_fields& fields);

// Appends `value` in lower-case hexadecimal, zero-filled to `digits` digits;
// `digits` 0 gives the minimal digits ("0" for zero). No "0x".
void append_hex(std::string& out, uint64_t value, uint32_t digits);

// Appends every byte as two lower-case hexadecimal digits, in order.
void append_hex_bytes(std::string& out, const uint8_t* data, size_t size);

// Appends `value` in decimal.
void append_decimal(std::string& out, uint64_t value);
