#include "run/output_guard.h"

#include <sys/stat.h>

#include <vector>

#include "support/qv_portable_dir.h"
#include "support/uni_fileio.h"
#include "trace/buffer_header.h"

namespace {

// The name the file layer opens: trailing separators of either kind go.
std::string opened_name(const std::string& path) {
  const size_t end = path.find_last_not_of("/\\");
  return end == std::string::npos ? std::string() : path.substr(0, end + 1);
}

bool same_file(const struct stat64& a, const std::string& other) {
  const std::string name = opened_name(other);
  struct stat64 b;
  return !name.empty() && ::stat64(name.c_str(), &b) == 0 && a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

}  // namespace

bool holds_trace(const std::string& path) {
  // A folder, device or FIFO is never read for this test.
  if (!qvportdir::is_regular_file(path)) return false;
  uni::fileio file(path, false, true);
  if (!file.is_open()) return false;
  const uint64_t size = file.file_size();
  if (size < kFirstProbeSize) return false;
  std::vector<uint8_t> block;
  if (!file.read_block(block, kFirstProbeSize, 0) || file.bytes_read() != kFirstProbeSize) return false;
  // The same calls, with the same file size, as the walk's first step.
  return is_logfile_buffer(block.data(), size) || is_rlfs_buffer(block.data(), size);
}

output_refusal check_output_path(const std::string& path, const std::vector<std::string>& inputs,
                                 std::string& input) {
  input.clear();
  const std::string name = opened_name(path);
  struct stat64 st;
  // A path that doesn't exist yet can't be anything's evidence.
  if (name.empty() || ::stat64(name.c_str(), &st) != 0) return output_refusal::none;
  for (const std::string& in : inputs) {
    if (same_file(st, in)) {
      input = in;
      return output_refusal::is_input;
    }
  }
  return holds_trace(name) ? output_refusal::holds_trace : output_refusal::none;
}
