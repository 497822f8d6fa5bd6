#include "run/options.h"

#include <cstdio>
#include <fstream>
#include <sstream>

#include "run/output_guard.h"
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

void complain(const std::string& text) { complain(text.c_str()); }

// A -log value: split at the first of "|", "," and ";" that it holds, the
// pieces trimmed; a value with none of them is one name.
void split_log_list(std::string v, std::vector<std::string>& out) {
  char delimiter = 0;
  for (char c : {'|', ',', ';'}) {
    if (v.find(c) != std::string::npos) {
      delimiter = c;
      break;
    }
  }
  if (delimiter) {
    qv::split(v, delimiter, out, true, false, true);
  } else {
    qv::trim(v);
    if (!v.empty()) out.push_back(v);
  }
}

// The names of every -log list on the line, read ahead of the parse for the
// -out check. Every value behind a -log word counts, so that no reading of
// the line leaves an input out.
std::vector<std::string> named_inputs(const std::vector<std::string>& args) {
  std::vector<std::string> inputs;
  for (size_t i = 1; i + 1 < args.size(); ++i) {
    std::string word = args[i], log = "-log";
    if (word.size() == log.size() && qv::equal_nocase(word, log)) split_log_list(args[i + 1], inputs);
  }
  return inputs;
}

// The -out check of this program: never the input, never a trace.
bool output_allowed(const std::string& path, const std::vector<std::string>& inputs) {
  std::string input;
  switch (check_output_path(path, inputs, input)) {
    case output_refusal::none:
      return true;
    case output_refusal::is_input:
      complain("-out " + path + " is the input " + input + ": refusing to overwrite it, aborting\n");
      return false;
    case output_refusal::holds_trace:
      complain("-out " + path + " already holds a trace file: refusing to overwrite it, aborting\n");
      return false;
  }
  return false;
}

bool is_hex_digit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// A GUID as -pullguid takes it: xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx in
// hexadecimal digits of either case, with or without braces around it, and
// nothing else. The bytes go in the binary layout.
bool parse_guid_option(const std::string& text, qv::guid16& out) {
  std::string bare = text;
  if (bare.size() >= 2 && bare.front() == '{' && bare.back() == '}') bare = bare.substr(1, bare.size() - 2);
  if (bare.size() != 36) return false;
  for (size_t i = 0; i < bare.size(); ++i) {
    const bool dash_place = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash_place ? bare[i] != '-' : !is_hex_digit(bare[i])) return false;
  }
  std::vector<uint8_t> bytes;
  if (!qv::parse_guid(bare, bytes) || bytes.size() != out.size()) return false;
  std::copy(bytes.begin(), bytes.end(), out.begin());
  return true;
}
// -jsonl writes one JSON object per event and nothing else: it can't honour
// the words that shape delimited or timeline text, nor the modes that print
// something other than event rows.
constexpr const char* kNotWithJsonl[] = {
    "-csv", "-csvgen", "-csvl2t", "-bodyfile", "-xml", "-multiline", "-csv_separator",
    "-enable_quoted_csv_fields", "-no_whitespace", "-pair_datetime", "-dateformat", "-timeformat",
    "-base10", "-base16", "-hostname", "-username", "-guids", "-stats",
    "-pullguid", "-extract_bxml", "-providers", "-manifests"};

}  // namespace

bool parse_options(quon_user_opts& o, std::vector<std::string>& args) {
  o.output_check = [inputs = named_inputs(args)](const std::string& path) {
    return output_allowed(path, inputs);
  };
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

  if (take_value("-log", v, args)) split_log_list(v, o.log_files);
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
  if (has_word("-manifests", args)) {
    if (o.log_files.empty() && !o.use_pipe) {
      complain("This option requires -log <etl file>\n");
      return false;
    }
    o.walk.gather_manifests = true;
  }
  if (has_word("-no_guessing", args)) o.no_guessing = true;
  if (take_value("-pullguid", v, args)) {
    if (o.results_path.empty()) {
      complain("This option requires -out <file>\n");
      return false;
    }
    if (!parse_guid_option(v, o.walk.subset.guid)) {
      complain("-pullguid " + v + " is not a GUID (xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx, braces allowed), aborting\n");
      return false;
    }
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
