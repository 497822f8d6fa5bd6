// Path splitting, folder listing and the file-name source of the main loop.

#include "support/qv_portable_dir.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cwctype>

#include "support/qv_string.h"

namespace qvportdir {

namespace {

// Length of a Windows volume name ("\\?\Volume{guid}\"); a longer \\?\ name
// may be a GLOBALROOT device path, which keeps its prefix.
constexpr size_t kVolumeNameLength = 46;
// Readlink buffer for the executable's own path.
constexpr size_t kExePathBuffer = 2048;

template <typename S>
bool split_path_impl(const S& path, S& dir, S& name, const S& back_up, const S& slash_up) {
  using C = typename S::value_type;
  if (path.empty()) {
    dir.clear();
    name.clear();
    return false;
  }
  size_t at = path.rfind(static_cast<C>('\\'));
  bool at_backslash = at != S::npos;
  if (!at_backslash) at = path.rfind(static_cast<C>('/'));
  if (at == S::npos || at == 0) {
    // A rooted name of one element keeps its separator in the name.
    dir.assign(1, static_cast<C>('.'));
    name = path;
    return true;
  }
  S d = path.substr(0, at);
  S n = path.substr(at + 1);
  if (n.size() == 2 && n[0] == static_cast<C>('.') && n[1] == static_cast<C>('.')) {
    n.assign(1, static_cast<C>('.'));
    d += at_backslash ? back_up : slash_up;
  }
  dir = std::move(d);
  name = std::move(n);
  return true;
}

bool starts_long_prefix(const std::string& s) {
  return s.size() > 4 && s.compare(0, 4, "\\\\?\\") == 0;
}

// Splits a file's name at its last "." into lowered stem and extension.
void lowered_stem_ext(const std::string& name, std::string& stem, std::string& ext) {
  size_t dot = name.rfind('.');
  if (dot == std::string::npos) {
    stem = name;
    ext.clear();
  } else {
    stem = name.substr(0, dot);
    ext = name.substr(dot + 1);
  }
  qv::to_lower(stem);
  qv::to_lower(ext);
}

}  // namespace

bool split_path(const std::string& path, std::string& dir, std::string& name) {
  return split_path_impl<std::string>(path, dir, name, "\\..", "//..");
}

bool split_path(const std::wstring& path, std::wstring& dir, std::wstring& name) {
  return split_path_impl<std::wstring>(path, dir, name, L"\\..", L"//..");
}

bool split_path_ext(const std::string& path, std::string& dir, std::string& stem,
                    std::string& extension) {
  std::string name;
  stem.clear();
  extension.clear();
  if (!split_path(path, dir, name)) return false;
  size_t dot = name.rfind('.');
  if (dot == std::string::npos) {
    stem = name;
  } else {
    stem = name.substr(0, dot);
    extension = name.substr(dot + 1);
  }
  return true;
}

bool read_folder(const std::string& dir, std::vector<dir_entry>& list, uint32_t depth,
                 bool dirs_only, bool unix_separator) {
  DIR* d = ::opendir(dir.c_str());
  if (d == nullptr) return false;
  const char sep = unix_separator ? '/' : '\\';
  // Names are joined to the folder text with the separator; a folder text
  // cut short at a star may lack it.
  std::string base = dir;
  if (base.empty() || base.back() != sep) base += sep;
  bool added = false;
  std::string full;
  while (struct dirent* e = ::readdir(d)) {
    const char* n = e->d_name;
    if (n[0] == '.' && (n[1] == '\0' || (n[1] == '.' && n[2] == '\0'))) continue;
    full = base;
    full += n;
    bool is_dir;
    struct stat64 st;
    if (::lstat64(full.c_str(), &st) == 0) {
      is_dir = S_ISDIR(st.st_mode);
    } else {
      // A name that can't be examined is still reported, as a file unless
      // the folder itself says otherwise, so that the reader can say it
      // couldn't open it.
      is_dir = e->d_type == DT_DIR;
    }
    dir_entry entry;
    if (is_dir) {
      entry.path = full + sep;
      entry.is_dir = true;
      entry.depth = depth + 1;
    } else {
      if (dirs_only) continue;
      entry.path = full;
      entry.name = n;
      entry.depth = depth;
    }
    entry.long_form = starts_long_prefix(entry.path);
    list.push_back(std::move(entry));
    added = true;
  }
  ::closedir(d);
  return added;
}

void list_directory(const std::string& path, const std::string& mask,
                    std::vector<dir_entry>& entries) {
  entries.clear();
  if (path.empty()) return;
  // "/" wherever the text holds one; a text of backslashes only is a Windows
  // form and keeps "\"; a bare name can only be a local folder.
  char sep = '/';
  if (path.find('/') == std::string::npos && path.find('\\') != std::string::npos) sep = '\\';
  const bool unix_sep = sep == '/';
  std::string root = path;
  if (root.back() != sep) root += sep;

  // Whole-element wildcards ("/*/") stand for every subfolder at that level.
  // Each text remembers where its search resumes, so a subfolder that is
  // itself named "*" is not expanded again.
  struct folder_text {
    std::string text;
    size_t scan_from;
  };
  std::vector<folder_text> folders{{root, 0}};
  const std::string wildcard{sep, '*', sep};
  for (bool found = true; found;) {
    found = false;
    for (size_t i = 0; i < folders.size(); ++i) {
      if (folders[i].text.empty()) continue;
      const size_t at = folders[i].text.find(wildcard, folders[i].scan_from);
      if (at == std::string::npos) continue;
      found = true;
      const std::string prefix = folders[i].text.substr(0, at + 1);
      const std::string rest = folders[i].text.substr(at + 3);
      std::vector<dir_entry> subs;
      if (!read_folder(prefix, subs, 0, true, unix_sep)) {
        folders[i].text.clear();
        continue;
      }
      folders[i] = {subs[0].path + rest, subs[0].path.size() - 1};
      for (size_t j = 1; j < subs.size(); ++j) {
        folders.push_back({subs[j].path + rest, subs[j].path.size() - 1});
      }
    }
  }

  std::string mask_stem;
  std::string mask_ext;
  {
    std::string m = mask.empty() ? std::string("*.*") : mask;
    qv::to_lower(m);
    std::string unused;
    split_path_ext(m, unused, mask_stem, mask_ext);
    if (mask_stem.empty()) mask_stem = "*";
    if (mask_ext.empty()) mask_ext = "*";
  }
  const bool match_all = mask_stem == "*" && mask_ext == "*";

  std::vector<dir_entry> working;
  std::string stem;
  std::string ext;
  for (const folder_text& f : folders) {
    if (f.text.empty()) continue;
    working.clear();
    // A star left inside an element isn't matched: the text before it is
    // what gets opened. Names substituted for a wildcard are real folder
    // names, so the search starts behind them.
    const size_t star = f.text.find('*', f.scan_from);
    read_folder(star == std::string::npos ? f.text : f.text.substr(0, star), working, 0, false,
                unix_sep);
    for (dir_entry& e : working) {
      if (!e.is_dir && !match_all) {
        lowered_stem_ext(e.name, stem, ext);
        if (mask_stem != "*" && stem != mask_stem) continue;
        if (mask_ext != "*" && ext != mask_ext) continue;
      }
      entries.push_back(std::move(e));
    }
  }
}

bool file_exists(const std::string& path) {
  if (path.empty()) return false;
  struct stat64 st;
  return ::stat64(path.c_str(), &st) == 0;
}

bool file_exists(const std::wstring& path) {
  if (path.empty()) return false;
  std::string narrow;
  if (!qv::wide_to_utf8(narrow, path)) return false;
  return file_exists(narrow);
}

bool is_regular_file(const std::string& path) {
  const size_t end = path.find_last_not_of("/\\");
  if (end == std::string::npos) return false;
  struct stat64 st;
  return ::stat64(path.substr(0, end + 1).c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

int folder_open_error(const std::string& path) {
  if (path.empty()) return ENOENT;
  DIR* d = ::opendir(path.c_str());
  if (d == nullptr) return errno != 0 ? errno : ENOENT;
  ::closedir(d);
  return 0;
}

std::string executable_path() {
  char buf[kExePathBuffer];
  ssize_t n = ::readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n <= 0) return std::string();
  return std::string(buf, static_cast<size_t>(n));
}

// ---- stdin_stream_ex ---------------------------------------------------------

stdin_stream_ex::stdin_stream_ex(name_filter filter)
    : uni::stdin_stream(false), filter_(std::move(filter)) {}

stdin_stream_ex::~stdin_stream_ex() = default;

bool stdin_stream_ex::open_stdin(bool) {
  pending_dirs_ = {};
  pending_files_ = {};
  ready_ = input_ != nullptr && !line_.empty();
  enumerating_ = false;
  return ready_;
}

bool stdin_stream_ex::start_enumeration(const std::string& folder, uint32_t max_depth,
                                        const std::vector<std::wstring>& name_filters) {
  if (folder.empty()) return false;
  pending_dirs_ = {};
  pending_files_ = {};
  max_depth_ = max_depth;
  name_filters_ = name_filters;
  std::wstring wide = qv::to_wide(folder);
  // A folder name that isn't UTF-8 can't travel as a wide name.
  if (wide.empty()) return false;
  admit_path(wide, true);
  pending_dirs_.push({std::move(wide), 0});
  ready_ = true;
  enumerating_ = true;
  return ready_;
}

bool stdin_stream_ex::getline(std::string& out, bool strip_eol) {
  if (!enumerating_) return uni::stdin_stream::getline(out, strip_eol);
  out.clear();
  std::wstring name;
  if (!next_name(name)) return false;
  out = qv::to_narrow(name);
  return true;
}

bool stdin_stream_ex::getline(std::wstring& out, bool strip_eol) {
  if (!enumerating_) return uni::stdin_stream::getline(out, strip_eol);
  out.clear();
  return next_name(out);
}

bool stdin_stream_ex::next_name(std::wstring& out) {
  std::vector<dir_entry> entries;
  for (;;) {
    if (!pending_files_.empty()) {
      out = std::move(pending_files_.top());
      pending_files_.pop();
      return true;
    }
    if (pending_dirs_.empty()) {
      out.clear();
      return false;
    }
    pending_dir dir = std::move(pending_dirs_.top());
    pending_dirs_.pop();
    // Folders deeper than asked for are dropped without being listed.
    if (dir.depth > max_depth_) continue;
    admit_path(dir.path, true);
    std::string narrow;
    if (!qv::wide_to_utf8(narrow, dir.path)) continue;
    list_directory(narrow, std::string(), entries);
    for (const dir_entry& e : entries) {
      // A name that isn't UTF-8 can't be carried as wide text, nor opened
      // through it, so it is left out.
      std::wstring wide = qv::to_wide(e.path);
      if (wide.empty()) continue;
      if (e.is_dir) {
        pending_dirs_.push({std::move(wide), dir.depth + 1});
      } else if (admit_path(wide, false)) {
        pending_files_.push(std::move(wide));
      }
    }
  }
}

bool stdin_stream_ex::admit_path(std::wstring& name, bool unfiltered) {
  if (!unfiltered && filter_ && !filter_(name)) return false;
  if (name.size() > 4 && name.compare(0, 4, L"\\\\?\\") == 0) {
    bool keep_prefix = false;
    if (name.size() > kVolumeNameLength && name.size() >= 10) {
      static const wchar_t kGlobal[] = L"global";
      keep_prefix = true;
      for (size_t i = 0; i < 6; ++i) {
        if (static_cast<wchar_t>(std::towlower(static_cast<wint_t>(name[4 + i]))) != kGlobal[i]) {
          keep_prefix = false;
          break;
        }
      }
    }
    if (!keep_prefix) name.erase(0, 4);
  }
  return true;
}

}  // namespace qvportdir
