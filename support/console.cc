// The status line and error printer on standard error, and the command
// runner behind the sibling tools.

#include "support/console.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "support/qv_string.h"

namespace qv {

namespace {

// Longest status text shown; longer text is cut without a mark.
constexpr int kStatusKeep = 60;
// A message longer than this is not printed at all.
constexpr int kErrorMax = 4096;
// run_cmd reads the command's output in chunks of this size; its buffers
// hold two bytes more, so the byte behind a chunk's last one is always inside.
constexpr size_t kCmdChunk = 16384;
constexpr size_t kCmdBuffer = 16386;

// ESC [2K erases the whole line, the carriage return goes back to its start.
constexpr char kEraseLine[] = "\x1b[2K\r";

}  // namespace

int status_line(const char* format, ...) {
  if (format == nullptr) return 0;
  char text[256];
  va_list ap;
  va_start(ap, format);
  int n = std::vsnprintf(text, sizeof text, format, ap);
  va_end(ap);
  if (n < 0) return 0;
  if (n > static_cast<int>(sizeof text) - 1) n = sizeof text - 1;
  const int kept = n < kStatusKeep ? n : kStatusKeep;

  char line[sizeof kEraseLine + 3 + kStatusKeep + 2];
  size_t at = 0;
  std::memcpy(line, kEraseLine, sizeof kEraseLine - 1);
  at += sizeof kEraseLine - 1;
  std::memcpy(line + at, "   ", 3);
  at += 3;
  // Line feeds would break the one line apart; they are left out.
  for (int i = 0; i < kept; ++i) {
    if (text[i] != '\n') line[at++] = text[i];
  }
  line[at++] = '\r';
  line[at] = '\0';
  std::fputs(line, stderr);
  std::fflush(stderr);
  return kept;
}

void clear_status_line() {
  // ESC [2K, CR, 27 blanks, CR: 33 bytes.
  static const char kClear[] = "\x1b[2K\r                           \r";
  static_assert(sizeof kClear - 1 == 33);
  std::fputs(kClear, stderr);
  std::fflush(stderr);
}

int error_out(const char* format, ...) {
  clear_status_line();
  if (format == nullptr) return 0;
  va_list ap;
  va_start(ap, format);
  va_list measure;
  va_copy(measure, ap);
  const int n = std::vsnprintf(nullptr, 0, format, measure);
  va_end(measure);
  if (n < 0 || n > kErrorMax) {
    va_end(ap);
    return 0;
  }
  // The size given is the measured length, so the last character of the
  // text doesn't fit: a message ending in a line feed prints without it.
  char text[kErrorMax + 1];
  text[0] = '\0';
  if (n > 0) std::vsnprintf(text, static_cast<size_t>(n), format, ap);
  va_end(ap);
  std::fputs(text, stderr);
  std::fflush(stderr);
  return n;
}

bool run_cmd(const std::wstring& command, const std::wstring& work_dir, std::ostream& out,
             uint32_t, bool, bool merge_stderr) {
  if (command.empty()) return false;
  std::wstring full = command;
  if (merge_stderr) full += L" 2>&1";
  const std::string narrow = to_narrow(full);
  // Kept with the command but not applied: the command runs where we are.
  const std::string narrow_dir = to_narrow(work_dir);
  (void)narrow_dir;
  if (narrow.empty()) return false;

  std::vector<char> in;
  std::vector<char> kept;
  try {
    in.assign(kCmdBuffer, 0);
    kept.assign(kCmdBuffer, 0);
  } catch (const std::bad_alloc&) {
    return false;
  }

  FILE* pipe = ::popen(narrow.c_str(), "r");
  if (pipe == nullptr) return false;
  bool any = false;
  for (;;) {
    size_t got = std::fread(in.data(), 1, kCmdChunk, pipe);
    if (got == 0) break;
    any = true;
    size_t k = 0;
    for (size_t i = 0; i < got; ++i) {
      // A CR directly before an LF is dropped. For the last byte of a chunk
      // the byte behind it is whatever the buffer still holds from before,
      // so a pair split across two reads may keep its CR.
      if (in[i] == '\r' && in[i + 1] == '\n') continue;
      kept[k++] = in[i];
    }
    out.write(kept.data(), static_cast<std::streamsize>(k));
  }
  ::pclose(pipe);
  return any;
}

}  // namespace qv
