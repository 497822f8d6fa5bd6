// The program's own options on top of the shared option record, and the
// run's closing context.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "run/cmd_params.h"
#include "support/guid.h"
#include "support/qv_time.h"
#include "support/uni_fileio.h"
#include "trace/file_walk.h"
#include "trace/trace_engine.h"

class quon_user_opts : public cmd_params {
 public:
  quon_user_opts();
  ~quon_user_opts() override;

  std::vector<std::string> log_files;
  // What the walk reads: -guids, -stats, -pullguid and its subset file.
  walk_options walk;
  bool no_guessing = false;
  bool extract_bxml = false;
  bool encoded = false;
  std::string pe_path;
  bool providers = false;
  std::string hive_path;
  bool templates_given = false;
  std::string templates_path;
  std::string current_file;
  trace_engine engine;
};

// Parses the whole command line: the shared words, then the program's own.
// Recognised words are removed from `args`. False (with its message) on
// failure.
bool parse_options(quon_user_opts& opts, std::vector<std::string>& args);

// The run's closing context: constructed first, destroyed last. At
// destruction it erases the status line and prints the run time when asked.
class cmdline_ctx {
 public:
  cmdline_ctx();
  virtual ~cmdline_ctx();

  // Takes over the diagnostics and timing settings of the options.
  void take_options(const cmd_params& opts);

  uint32_t console_mode = 0;
  bool clear_status = false;
  qv::ntp_stamp start_stamp;
  bool stamp_taken = false;
  bool profile = false;
  std::string diags_path;
  std::string signal_text;
  std::function<void(const std::string&)> signal_hook;
};
