// Console status line on standard error, the error printer that erases it
// first, and the runner of external commands.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>

namespace qv {

// Rewrites the one status line on standard error; returns the characters kept
// (at most 60).
int status_line(const char* format, ...) __attribute__((format(printf, 1, 2)));
// Erases the status line.
void clear_status_line();
// Erases the status line, then prints the message. The text is formatted with
// a buffer one short, so its last character is dropped: a format that ends in
// a line feed prints without it. Returns the measured length.
int error_out(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Runs `command` through the shell and copies its standard output to `out`.
// True when at least one byte came out; the exit status isn't looked at.
bool run_cmd(const std::wstring& command, const std::wstring& work_dir, std::ostream& out,
             uint32_t reserved = 0, bool reserved_flag = false, bool merge_stderr = false);

}  // namespace qv
