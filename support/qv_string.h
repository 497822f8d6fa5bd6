// Text utilities: UTF-8 / UTF-16 / wide conversions, trimming and splitting,
// number and GUID parsing, SID text, and the string scans over binary data
// that the payload decoder and the guessing engine use.
//
// Text is std::string holding UTF-8; wide text is std::wstring with one code
// point per 32-bit element; trace text is UTF-16LE read from byte buffers.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace qv {

// ---- Conversions ---------------------------------------------------------

// Encodes each element by its value (1 to 4 bytes). A value above 0x10FFFF
// stops the conversion: the bytes so far stay in `out`, result false.
// Appends the UTF-8 form of one code point; a surrogate or a value beyond
// U+10FFFF becomes U+FFFD.
void append_utf8(std::string& out, uint32_t cp);

bool wide_to_utf8(std::string& out, const std::wstring& in);
// Decodes by lead byte; a bad or missing continuation byte or a bad lead byte
// stops it with false, keeping what was decoded.
bool utf8_to_wide(std::wstring& out, const std::string& in);
// Keeps what was converted before a failure.
std::string to_narrow(const std::wstring& in);
// Empty on any failure and on empty input.
std::wstring to_wide(const std::string& in);

// UTF-16LE at `source` (no alignment needed), read up to `max_bytes` bytes or
// a zero unit; never reads past `max_bytes` (an odd last byte is not read).
// `max_bytes` 0xFFFFFFFF means "up to the zero unit", limited to 500 units:
// the caller must then guarantee 1000 readable bytes at `source`. Returns the
// bytes consumed (units copied times 2, the zero unit not included). A high
// surrogate followed by a low one gives one code point; a lone low surrogate
// passes as itself; a high surrogate without its low half makes the whole
// text fall back to one element per unit, nothing replaced or dropped.
uint32_t utf16_to_wide(const uint8_t* source, std::wstring& out, uint32_t max_bytes);
// As utf16_to_wide, giving UTF-8 directly (surrogate values of the fallback
// take three bytes each). With `count_terminator`, a non-zero count below
// `max_bytes - 1`, compared as signed 32-bit numbers, has 2 added for the
// terminator; so the unbounded form (0xFFFFFFFF) never adds it.
uint32_t utf16_text(const uint8_t* source, std::string& out, uint32_t max_bytes,
                    bool count_terminator);

// ---- Case and trimming ---------------------------------------------------

std::string& to_lower(std::string& s);
std::string& to_upper(std::string& s);
std::wstring& to_lower(std::wstring& s);
// False when sizes differ; otherwise lowers both in place and compares.
bool equal_nocase(std::string& a, std::string& b);
// Removes blanks, tabs, CR and LF from both ends. False (and empty) when
// nothing remains.
bool trim(std::string& s);
bool trim(std::wstring& s);
// Removes trailing CR and LF; returns the count removed.
size_t strip_eol(std::string& s);
// Removes trailing "/" and "\"; true when text remains.
bool strip_trailing_separators(std::wstring& s);

// ---- Characters and substrings ------------------------------------------

size_t remove_char(std::string& s, char c);
void escape_char(std::string& s, char c, char escape);
void replace_char(std::string& s, char from, char to, bool ignore_case = false);
void replace_char(std::wstring& s, wchar_t from, wchar_t to, bool ignore_case = false);
// Removes the first occurrence of `what`; with `ignore_case` lowers `what` in place.
bool erase_first(std::string& s, std::string& what, bool ignore_case);
void pad_blanks(std::ostream& out, size_t n);
// Line breaks to "[CRLF]", "[LFCR]" and "[LF]", left to right over the LFs;
// only a text without any LF has its CRs turned to "[CR]". An LF whose CR
// was already taken by an "[LFCR]" is copied through, then "[CRLF]". In place.
void flatten_line_breaks(std::string& text);
// Expands %NAME% references from the environment, in place; returns `text`.
// Expanded values are scanned again; the work stops once the text exceeds 512
// characters. With `shadow_form`, an undefined %vss% becomes the prefix of a
// volume shadow copy device path. Unknown names stay as written.
std::string& expand_environment(std::string& text, bool shadow_form);

// ---- Splitting -----------------------------------------------------------

bool split(const std::string& text, char delimiter, std::vector<std::string>& out,
           bool trim_parts, bool keep_empty, bool append = false);
bool split(const std::wstring& text, wchar_t delimiter, std::vector<std::wstring>& out,
           bool trim_parts, bool keep_empty);
// Splits at LF; every line is trimmed and kept, empty ones included. Bytes
// after the last LF make a last line. True when a line was stored.
bool split_lines(const std::vector<uint8_t>& data, std::vector<std::string>& out);

// ---- Numbers from text ---------------------------------------------------
// Forms: 0x1f / x1f hexadecimal, o17 octal, decimal; parse_uint32 also reads
// 'A' as the character's code. out is 0 on failure.

bool parse_uint32(const std::string& text, uint32_t& out);
bool parse_uint64(const std::string& text, uint64_t& out);
bool parse_int32(const std::string& text, int32_t& out);

// ---- Identifiers ---------------------------------------------------------

// 36 characters, lower case, no braces, from 16 bytes in Windows GUID layout.
std::string guid_text(const uint8_t* guid);
// Appends the same 36 characters to `out` without a temporary.
void append_guid_text(std::string& out, const uint8_t* guid);
// The same 36 characters written at `out`.
void write_guid_text(char* out, const uint8_t* guid);
// Parses "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx" into 16 bytes (Windows layout).
// False only for a text under 22 characters; a malformed longer text (braces
// included) gives true with the unread part of the bytes left zero.
bool parse_guid(const std::string& text, std::vector<uint8_t>& out);
// "S-1-5-..." or empty when the bytes can't hold the SID. Only the low byte
// of the identifier authority is shown.
std::string format_sid(const uint8_t* sid, uint32_t length);

// ---- Scanning binary data -----------------------------------------------

struct run_position {
  uint32_t offset = 0;  // byte offset of the run's first character
  uint32_t length = 0;  // characters in the run
};
// Printable runs of at least `min_length` characters (`runs` and `positions`
// are cleared first). ascii_runs: bytes 32..126, plus CR, LF and tab when
// allowed; leading blanks (and punctuation when asked) are skipped; a run
// ended inside the data must hold something besides blanks, CR and LF.
// utf16_runs: the same for characters whose high byte is zero, stepping by 2
// on a character and by 1 otherwise; offsets are in bytes.
void ascii_runs(const uint8_t* data, uint32_t length, uint32_t min_length,
                std::vector<std::string>& runs, std::vector<run_position>& positions,
                bool allow_line_controls, bool skip_leading_punctuation);
void utf16_runs(const uint8_t* data, uint32_t length, uint32_t min_length,
                std::vector<std::string>& runs, std::vector<run_position>& positions,
                bool allow_line_controls, bool skip_leading_punctuation);

// ascii_runs and utf16_runs in one pass over the bytes, positions only:
// `ascii` gets what ascii_runs would find with `ascii_min`, `utf16` what
// utf16_runs would find with `utf16_min` (both lists are cleared first).
void text_runs(const uint8_t* data, uint32_t length, uint32_t ascii_min, uint32_t utf16_min,
               bool allow_line_controls, bool skip_leading_punctuation,
               std::vector<run_position>& ascii, std::vector<run_position>& utf16);

// 7-bit groups, first byte most significant, a clear top bit ends the number;
// a ninth byte is taken whole. False (out 0) when the data ends first.
bool decode_varint(uint64_t& out, const uint8_t* data, size_t length);
// A counted number (one byte below 0x80, else 15 bits high byte first) and that
// many bytes of text. Returns the bytes consumed: 0 when the number can't be
// read, only the number's bytes when the text is empty or doesn't fit.
size_t read_counted_string(std::string& out, const uint8_t* data, size_t length);
// A counted number of entries, then that many counted strings; `out` is sized
// to the count and entries past the end of the data stay empty.
size_t read_counted_strings(std::vector<std::string>& out, const uint8_t* data, size_t length);

}  // namespace qv
