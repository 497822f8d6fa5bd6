#include "run/options.h"

#include <cstdio>
#include <fstream>
#include <sstream>

#include "support/console.h"
#include "support/qv_string.h"

quon_user_opts::quon_user_opts() {
  // The program's own default: nine digits of fraction.
  report.time_format = "hh:mm:ss.xxxxxxxxx";
}

quon_user_opts::~quon_user_opts() = default;

namespace {

void complain(const char* text) {
  std::fputs(text, stderr);
  std::fflush(stderr);
}

// -jsonl writes one JSON object per event and nothing else: it can't honour
// the words that shape delimited or timeline text, nor the modes that print
// something other than event rows.
constexpr const char* kNotWithJsonl[] = {
    "-csv", "-csvgen", "-csvl2t", "-bodyfile", "-xml", "-multiline", "-csv_separator",
    "-enable_quoted_csv_fields", "-no_whitespace", "-pair_datetime", "-dateformat", "-timeformat",
    "-base10", "-base16", "-hostname", "-username", "-guids", "-stats",
    "-pullguid", "-extract_bxml", "-providers"};

}  // namespace

bool parse_options(quon_user_opts& o, std::vector<std::string>& args) {
  if (has_word("-jsonl", args, true)) {
    for (const char* word : kNotWithJsonl) {
      if (has_word(word, args, true)) {
        std::fprintf(stderr, "-jsonl can't be combined with %s\n", word);
        return false;
      }
    }
  }
  if (!parse_shared(o, args)) return false;
  std::string v;
  if (has_word("-jsonl", args)) o.report.format_jsonl = true;

  if (take_value("-log", v, args)) {
    // Split at the first of "|", "," and ";" that the value holds.
    char delimiter = 0;
    for (char c : {'|', ',', ';'}) {
      if (v.find(c) != std::string::npos) {
        delimiter = c;
        break;
      }
    }
    if (delimiter) {
      qv::split(v, delimiter, o.log_files, true, false);
    } else {
      qv::trim(v);
      if (!v.empty()) o.log_files.push_back(v);
    }
  }
  if (take_value("-templates", v, args)) {
    o.templates_given = true;
    o.templates_path = v;
  }
  if (take_value("-extract_bxml", v, args)) {
    o.extract_bxml = true;
    o.pe_path = v;
  } else if (o.use_pipe && has_word("-extract_bxml", args)) {
    o.extract_bxml = true;
  }
  if (has_word("-enc", args)) o.encoded = true;
  if (take_value("-providers", v, args)) {
    o.providers = true;
    o.hive_path = v;
  }
  if (has_word("-guids", args)) {
    if (o.log_files.empty() && !o.use_pipe) {
      complain("This option requires -log <etl file>\n");
      return false;
    }
    o.walk.list_guids = true;
  }
  if (has_word("-stats", args)) {
    if (o.log_files.empty() && !o.use_pipe) {
      complain("This option requires -log <etl file>\n");
      return false;
    }
    o.walk.list_stats = true;
    o.engine.stats_enabled = true;
  }
  if (has_word("-no_guessing", args)) o.no_guessing = true;
  if (take_value("-pullguid", v, args)) {
    if (o.results_path.empty()) {
      complain("This option requires -out <file>\n");
      return false;
    }
    std::vector<uint8_t> guid;
    if (v.size() < 22 || !qv::parse_guid(v, guid) || guid.size() != 16) return false;
    std::copy(guid.begin(), guid.end(), o.walk.subset.guid.begin());
    o.walk.subset.on = true;
    o.walk.subset.path = o.results_path;
  }
  o.walk.show_status = o.show_status;
  return true;
}

cmdline_ctx::cmdline_ctx() = default;

void cmdline_ctx::take_options(const cmd_params& opts) {
  clear_status = opts.show_status;
  if (opts.diags_stream && opts.diags_stream->good()) diags_path = opts.diags_path;
  profile = opts.profile;
  if (profile || !diags_path.empty()) {
    start_stamp = qv::ntp_now();
    stamp_taken = true;
  }
  if (!opts.signal_text.empty()) {
    signal_text = opts.signal_text;
    signal_hook = [](const std::string&) {};
  }
}

cmdline_ctx::~cmdline_ctx() {
  if (clear_status) qv::clear_status_line();
  if (stamp_taken) {
    std::ostringstream text;
    text << "->" << qv::ntp_seconds_between(start_stamp, qv::ntp_now()) << " secs";
    if (profile) {
      std::string line = text.str() + "\n";
      std::fputs(line.c_str(), stderr);
      std::fflush(stderr);
    }
    if (!diags_path.empty()) {
      std::ofstream diags(diags_path, std::ios::app);
      diags << text.str() << "\n";
    }
  }
  if (signal_hook) signal_hook(signal_text);
}
