// The general option record and its parser of the shared option words, the
// `path_filter` list of -filter, and the filter test used by the file-name
// sources. The program's own options derive from it (run/options.h).
#pragma once

#include <cstdint>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "report/report_options.h"
#include "support/qv_datetime.h"

namespace uni { class fileio; }

struct path_filter {
  std::wstring path;        // -filter_path
  std::wstring raw_text;
  std::wstring name_pattern;
  std::wstring ext_pattern;
  std::vector<uint8_t> signature;  // -filter_sig
  uint64_t signature_offset = 0;
  bool rooted = false;
  bool match_all = false;
  bool name_star_front = false;
  bool name_star_back = false;
  bool has_ext = false;
  bool ext_all = false;
  bool ext_star_front = false;
  bool ext_star_back = false;
};

// A file-time limit of -cmd_start_time / -cmd_stop_time.
struct time_limit {
  uint64_t filetime = 0;
  uint64_t unix_seconds = 0;
};

class cmd_params {
 public:
  cmd_params();
  virtual ~cmd_params();

  std::string command_line;
  std::string program_name;
  std::string results_path;
  // Asked about the -out path before the path is tried for writing (which
  // truncates it and removes the test file): false refuses it, and the parse
  // fails. The program sets it to keep its input traces safe; the check
  // gives its own message. None: every path is tried.
  std::function<bool(const std::string& path)> output_check;
  std::string out_dir;
  // Everything the row writers read: output form, formats, column table and
  // the per-file texts.
  report_options report;
  bool verbose = true;
  bool show_status = true;
  bool split_pathfile = false;
  bool append = false;
  std::string diags_path;
  std::unique_ptr<std::ofstream> diags_stream;
  uint32_t diags_level = 0;
  bool profile = false;
  std::string signal_text;
  std::vector<path_filter> filter_list;
  std::vector<path_filter> skip_list;
  std::vector<std::string> alias_pairs;
  bool use_pipe = false;
  std::string enum_dir;
  bool use_enum_dir = false;
  uint32_t num_subdirs = 0;
  std::optional<time_limit> start_time;
  std::optional<time_limit> stop_time;
};

// A word equal to `word` without regard to case is found and, unless `keep`,
// removed.
bool has_word(const std::string& word, std::vector<std::string>& args, bool keep = false);
// As has_word, with the next argument as value; both removed. The word at the
// very end of the list, with no value, doesn't count.
bool take_value(const std::string& word, std::string& out, std::vector<std::string>& args);

// Parses the shared option words; false (with its message) on failure.
bool parse_shared(cmd_params& opts, std::vector<std::string>& args);

// An empty list passes everything. `matched_by_name` tells that a name
// pattern (not a time limit or signature) decided.
bool passes_filter(const cmd_params& opts, const std::wstring& path,
                   const std::vector<path_filter>& filters, bool* matched_by_name = nullptr);
