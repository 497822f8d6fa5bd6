// Paths and directory enumeration: splitting path texts, listing a folder,
// and the file-name source that feeds the main loop from standard input
// (-pipe) or from a walk of a folder tree (-enumdir).
#pragma once

#include <cstdint>
#include <functional>
#include <stack>
#include <string>
#include <vector>

#include "support/uni_fileio.h"

namespace qvportdir {

struct dir_entry {
  std::string path;   // full name; a folder's ends in the separator
  std::string name;   // last element of a file; empty for a folder
  bool is_dir = false;
  bool long_form = false;  // path starts with \\?\ and is longer than four
  uint32_t depth = 0;
};

// Splits at the last "\", failing that the last "/". No split point, or one at
// the first character, gives dir "." and the whole path as name; a name of
// ".." becomes "." with "\.." or "//.." added to dir. False on empty path.
bool split_path(const std::string& path, std::string& dir, std::string& name);
bool split_path(const std::wstring& path, std::wstring& dir, std::wstring& name);
// split_path, then the last "." of the name divides stem from extension.
bool split_path_ext(const std::string& path, std::string& dir, std::string& stem,
                    std::string& extension);

// Lists `path` (files and folders) after expanding whole-element "*" folders;
// `mask` filters file names by stem and extension ("*.*" when empty).
void list_directory(const std::string& path, const std::string& mask,
                    std::vector<dir_entry>& entries);

// Appends the entries of one folder, in the order the system gives, to
// `list`. Symbolic links are files and are never followed. Folders get
// `depth + 1`; files are skipped with `dirs_only`. True when any was added.
bool read_folder(const std::string& dir, std::vector<dir_entry>& list, uint32_t depth,
                 bool dirs_only, bool unix_separator);

bool file_exists(const std::string& path);
bool file_exists(const std::wstring& path);
// True when `path`, with trailing separators dropped as the file layer drops
// them, is a regular file or a link to one; false for a folder, a device, a
// FIFO, a socket, a link to any of those, and a name that doesn't exist.
bool is_regular_file(const std::string& path);
// 0 when `path` opens as a folder; otherwise the error of the attempt
// (ENOENT for a name that doesn't exist, ENOTDIR for a file, EACCES...).
int folder_open_error(const std::string& path);

// The running executable's path through /proc/self/exe; empty on failure.
std::string executable_path();

// Answers whether a file name found by the walk is admitted (the -filter list).
using name_filter = std::function<bool(const std::wstring& name)>;

class stdin_stream_ex : public uni::stdin_stream {
 public:
  // `filter` is consulted for every file the walk finds; empty admits all.
  explicit stdin_stream_ex(name_filter filter = {});
  ~stdin_stream_ex() override;

  bool open_stdin(bool flag);
  bool start_enumeration(const std::string& folder, uint32_t max_depth,
                         const std::vector<std::wstring>& name_filters);
  bool getline(std::string& out, bool strip_eol) override;
  bool getline(std::wstring& out, bool strip_eol) override;

 private:
  struct pending_dir {
    std::wstring path;
    uint32_t depth = 0;
  };
  bool next_name(std::wstring& out);
  bool admit_path(std::wstring& name, bool unfiltered);

  std::stack<pending_dir, std::vector<pending_dir>> pending_dirs_;
  std::stack<std::wstring, std::vector<std::wstring>> pending_files_;
  uint32_t max_depth_ = 1;
  std::vector<std::wstring> name_filters_;
  bool enumerating_ = false;
  name_filter filter_;
};

// A scoped guard held around file-system work; does nothing on this platform.
class wow64_redirect_adt {
 public:
  wow64_redirect_adt() = default;
  virtual ~wow64_redirect_adt() = default;
};

}  // namespace qvportdir
