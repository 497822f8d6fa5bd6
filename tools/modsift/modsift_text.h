// Small text helpers of modsift: UTF-16 strings out of untrusted bytes, GUID
// text, hexadecimal dumps, and the cleaning that keeps a name from breaking a
// line of template text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "support/byte_reader.h"
#include "support/guid.h"
#include "support/qv_string.h"

namespace modsift {

using qv::append_utf8;

// Reads UTF-16LE text at `off` up to a zero unit, the end of `s`, or
// `max_units` units, whichever comes first, and returns it as UTF-8.
// Unpaired surrogates become U+FFFD. Never reads outside `s`.
std::string utf16_at(qv::byte_span s, size_t off, size_t max_units);

// "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx", lower case, no braces, from the
// Windows binary layout.
std::string guid_text(const qv::guid16& g);

// Appends every byte as two lower-case hexadecimal digits.
void append_hex(std::string& out, const uint8_t* p, size_t n);

// Makes `text` safe as a field or event name token of a template line: the
// characters that end a token or a column ("," and "!"), every control
// character and DEL become "_", and blanks at both ends are dropped, as the
// template reader would drop them.
std::string clean_field_name(const std::string& text);

// The same for a provider name, which the reader also cuts at "|" and ";".
std::string clean_provider_name(const std::string& text);

// Makes any text safe inside a comment line: control characters become "?".
std::string clean_comment(const std::string& text);

}  // namespace modsift
