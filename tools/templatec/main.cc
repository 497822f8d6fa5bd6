// templatec: the build step that gives quon its template database.
//
//   templatec compile <block out> <template text>...
//       Reads template text files (the -templates format) in the order given,
//       as one source, and writes the block.
//   templatec embed <executable> <block>
//       Appends the block to a linked executable and writes its offset and
//       length into the executable's location record, found by its magic.
//       A block that an earlier run appended is replaced.
//
// Messages go to standard error; the exit value is 0 on success, 1 on failure.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "support/byte_reader.h"
#include "support/qv_string.h"
#include "templates/block_writer.h"
#include "templates/template_block.h"
#include "templates/template_text.h"

namespace {

int fail(const std::string& message) {
  std::fprintf(stderr, "templatec: %s\n", message.c_str());
  return 1;
}

bool read_file(const std::string& path, std::vector<uint8_t>& out) {
  out.clear();
  int fd = ::open(path.c_str(), O_RDONLY);
  if (fd < 0) return false;
  uint8_t chunk[65536];
  for (;;) {
    ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      ::close(fd);
      return false;
    }
    if (n == 0) break;
    out.insert(out.end(), chunk, chunk + n);
  }
  ::close(fd);
  return true;
}

bool write_all(int fd, const uint8_t* data, size_t size, off_t offset) {
  while (size > 0) {
    ssize_t n = ::pwrite(fd, data, size, offset);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= size_t(n);
    offset += n;
  }
  return true;
}

int compile(const std::string& out_path, const std::vector<std::string>& inputs) {
  template_source source;
  reset(source);
  for (const std::string& path : inputs) {
    std::vector<uint8_t> bytes;
    if (!read_file(path, bytes)) return fail("can't read " + path + ": " + std::strerror(errno));
    std::vector<std::string> lines;
    qv::split_lines(bytes, lines);
    // Each file is read on its own terms: an early end stops that file only.
    // Lines are counted as split_lines gives them, one per line feed.
    size_t line_number = 0;
    for (const std::string& line : lines) {
      ++line_number;
      template_line kind = add_template_line(source, line);
      if (kind == template_line::not_parsed) {
        std::fprintf(stderr, "templatec: %s:%zu: not a template line, passed over\n",
                     path.c_str(), line_number);
      } else if (kind == template_line::end_of_file) {
        std::fprintf(stderr,
                     "templatec: %s:%zu: provider line with a short GUID column ends the file\n",
                     path.c_str(), line_number);
        break;
      }
    }
  }

  std::vector<uint8_t> block;
  std::string error;
  if (!write_template_block(source, block, error)) return fail(error);

  // Written beside the target and renamed, so a failed run never leaves a
  // half-written block for the next build step.
  std::string temp = out_path + ".part";
  int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd < 0) return fail("can't write " + temp + ": " + std::strerror(errno));
  bool ok = write_all(fd, block.data(), block.size(), 0);
  ok = (::close(fd) == 0) && ok;
  if (!ok || std::rename(temp.c_str(), out_path.c_str()) != 0) {
    std::remove(temp.c_str());
    return fail("can't write " + out_path);
  }
  return 0;
}

int embed(const std::string& exe_path, const std::string& block_path) {
  std::vector<uint8_t> block;
  if (!read_file(block_path, block)) return fail("can't read " + block_path);
  std::vector<uint8_t> image;
  if (!read_file(exe_path, image)) return fail("can't read " + exe_path);

  static const uint8_t magic[block_location_magic_size] = {QUON_BLOCK_LOCATION_MAGIC};
  std::vector<size_t> found;
  for (auto it = image.begin();;) {
    it = std::search(it, image.end(), magic, magic + sizeof magic);
    if (it == image.end()) break;
    found.push_back(size_t(it - image.begin()));
    ++it;
  }
  if (found.empty()) return fail(exe_path + ": no template location record in the file");
  if (found.size() > 1)
    return fail(exe_path + ": the location record's magic occurs " + std::to_string(found.size()) +
                " times; refusing to guess which one to patch");
  const size_t record = found[0];
  if (block_location_record_size > image.size() - record)
    return fail(exe_path + ": the location record is cut off by the end of the file");

  // A block appended by an earlier run lies at the end of the file, behind
  // the record; cut it off and append the new one in its place.
  uint64_t end = image.size();
  uint32_t old_offset = qv::rd_u32(image.data(), image.size(), record + 16);
  uint32_t old_length = qv::rd_u32(image.data(), image.size(), record + 20);
  if (old_offset != 0 || old_length != 0) {
    if (old_offset <= record || old_offset > image.size() ||
        old_length != image.size() - old_offset)
      return fail(exe_path + ": the location record holds values that don't describe its block");
    end = old_offset;
  }
  if (end < 4096) return fail(exe_path + ": too small to carry a block");
  if (block.size() > 0xFFFFFFFFu - end) return fail("the block doesn't fit 32-bit offsets");

  int fd = ::open(exe_path.c_str(), O_WRONLY);
  if (fd < 0) return fail("can't open " + exe_path + " for writing: " + std::strerror(errno));
  uint8_t values[8];
  qv::wr_u32(values, uint32_t(end));
  qv::wr_u32(values + 4, uint32_t(block.size()));
  bool ok = ::ftruncate(fd, off_t(end)) == 0 && write_all(fd, block.data(), block.size(), off_t(end)) &&
            write_all(fd, values, sizeof values, off_t(record + block_location_magic_size));
  ok = (::close(fd) == 0) && ok;
  if (!ok) return fail("can't write " + exe_path + ": " + std::strerror(errno));
  return 0;
}

void usage() {
  std::fputs(
      "usage: templatec compile <block out> <template text>...\n"
      "       templatec embed <executable> <block>\n",
      stderr);
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.size() >= 2 && args[0] == "compile")
    return compile(args[1], std::vector<std::string>(args.begin() + 2, args.end()));
  if (args.size() == 3 && args[0] == "embed") return embed(args[1], args[2]);
  usage();
  return 1;
}
