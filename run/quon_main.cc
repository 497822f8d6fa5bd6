#include "run/quon_main.h"

#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "report/event_row.h"
#include "report/json_writer.h"
#include "run/dependency_tools.h"
#include "run/options.h"
#include "support/console.h"
#include "support/qv_datetime.h"
#include "support/qv_portable_dir.h"
#include "support/qv_string.h"
#include "support/qv_time.h"
#include "support/uni_fileio.h"
#include "templates/template_block.h"
#include "trace/file_walk.h"
#include "trace/trace_stats.h"

namespace {

// The sink of -pullguid: the walk writes the subset, nothing is printed.
class null_sink : public record_sink {
 public:
  void file_opened(const file_opening&) override {}
  void take_records(record_list&) override {}
  void file_ended() override {}
};

const char kBanner[] = "quon ver: 0.31";

void print_usage() {
  std::string u;
  u += std::string(77, '-') + "\n\n";
  u += std::string(kBanner) + "\n\n";
  u += "Usage:\n";
  u += "  quon -log \"log1 | log2 | ..\"   = pull data from extracted logs\n";
  u += "  find /somedir -name *.etl -type f | quon  -pipe [options]\n";
  u += "  ls /somedir/*.etl | quon  -pipe [options]\n";
  u += "  quon -enumdir <folder> -num_subdirs <#> [options]\n";
  u += "\n";
  u += " Basic options\n";
  u += "  -csvl2t                     = log2timeline output\n";
  u += "  -pipe                       = pipe files into logtrawl for processing\n";
  u += "  -quiet                      = don't display status during run\n";
  u += "  -filter <*partial*|*.ext>   = filters stdin data from -pipe option\n";
  u += "  -dateformat mm/dd/yyyy      = \"yyyy-mm-dd\" is the default\n";
  u += "  -timeformat hh:mm:ss        = \"hh:mm:ss.xxxxxxxxx\" is the default\n";
  u += "  -no_whitespace              = remove whitespace between csv delimiter\n";
  u += "  -csv_separator \"|\"          = use a pipe char for csv separator\n";
  u += "\n";
  u += " --- the following options are for debugging purposes only ---\n";
  u += " Other options\n";
  u += "  -stats                      = list the stats in the ETL file(s)\n";
  u += "  -templates <file>           = file with template instructions\n";
  u += "  -guids                      = list the providers in the ETL file(s)\n";
  u += "  -pullguid <guid> -out <etl> = create subset ETL file with just GUID records\n";
  u += "\n";
  u += " Standalone utility options\n";
  u += "  -extract_bxml <pefile>      = pull out quon encoded bxml for event ids\n";
  u += "  -providers <sw hive>        = pull out providers from software hive\n";
  u += "\n";
  std::fwrite(u.data(), 1, u.size(), stderr);
  std::fflush(stderr);
}

bool wants_help(const std::vector<std::string>& args) {
  if (args.size() <= 1) return true;
  for (size_t i = 1; i < args.size(); ++i) {
    std::string a = args[i];
    qv::to_lower(a);
    if (a == "-h" || a == "-help" || a == "/?" || a == "--help") return true;
  }
  return false;
}

// The banner and the run's header lines. The header lines are comments of
// the template text format, so a result file of -extract_bxml can be given
// back to -templates as it stands.
std::string compose_prologue(const std::vector<std::string>& args) {
  std::string text = kBanner;
  text += "\n// run at: ";
  qv::append_fixed_datetime(text, qv::qv_time_now());
  text += " UTC\n// command line: ";
  bool pipe = false;
  std::string line;
  for (size_t i = 0; i < args.size(); ++i) {
    std::string lowered = args[i];
    qv::to_lower(lowered);
    if (lowered == "-pipe") pipe = true;
    if (i) line += ' ';
    if (args[i].find(' ') != std::string::npos) line += "'" + args[i] + "'";
    else line += args[i];
  }
  if (pipe) text += "<filelist> ... | ";
  text += line;
  return text;
}

void set_current_file(quon_user_opts& opts, const std::string& name) {
  opts.current_file = name;
  opts.report.row_file_name = name;
  opts.engine.file_name = name;
}

// The walk of one file, with the sink of the run's mode: rows, the provider
// listing of -guids and -stats, or nothing but the subset of -pullguid.
bool walk_file(std::ostream& report_out, uni::fileio& file, quon_user_opts& opts) {
  if (opts.walk.subset.on) {
    null_sink none;
    return walk_trace_file(file, opts.walk, opts.engine, none);
  }
  if (opts.walk.gather_manifests) {
    manifest_sink manifests(report_out, opts.engine);
    return walk_trace_file(file, opts.walk, opts.engine, manifests);
  }
  if (opts.walk.list_guids || opts.walk.list_stats) {
    listing_sink listing(report_out, opts.engine, opts.walk.list_stats);
    return walk_trace_file(file, opts.walk, opts.engine, listing);
  }
  if (opts.report.format_jsonl) {
    json_sink json(report_out);
    return walk_trace_file(file, opts.walk, opts.engine, json);
  }
  row_sink rows(report_out, opts.report);
  return walk_trace_file(file, opts.walk, opts.engine, rows);
}

}  // namespace

bool process_file(std::ostream& report_out, const std::string& path, quon_user_opts& opts) {
  // Only a regular file (or a link to one) is read as a trace: a folder, a
  // device, a FIFO or a socket is refused before it is opened.
  uni::fileio file;
  if (qvportdir::is_regular_file(path)) file.open(path, false, true, true);
  bool ok = false;
  if (file.is_open()) {
    opts.report.header_row_pending = true;
    ok = walk_file(report_out, file, opts);
    if (opts.show_status) qv::clear_status_line();
  }
  file.close();
  reset_engine(opts.engine, true);
  opts.engine.stats_enabled = opts.walk.list_stats;
  return ok;
}

namespace {

void load_template_store(quon_user_opts& opts) {
  std::vector<uint8_t> block;
  uint32_t offset = 0, length = 0;
  if (embedded_block_location(offset, length)) read_embedded_block(block, offset, length);
  load_templates(opts.engine.store, std::move(block), opts.templates_given ? opts.templates_path : std::string());
  opts.engine.no_guessing = opts.no_guessing;
}

int list_walk(std::ostream& report_out, quon_user_opts& opts) {
  for (const std::string& name : opts.log_files) {
    set_current_file(opts, name);
    if (!process_file(report_out, name, opts)) {
      qv::error_out("prob parsing file: %s\n", name.c_str());
      break;
    }
  }
  return 0;
}

int stream_walk(std::ostream& report_out, quon_user_opts& opts) {
  qvportdir::stdin_stream_ex source([&opts](const std::wstring& name) {
    return passes_filter(opts, name, opts.filter_list);
  });
  if (opts.use_pipe) {
    if (!source.open_stdin(true)) return -1;
  } else {
    // A folder that can't be opened ends the run, and says why: a misspelt
    // name must not read as a walk that found nothing.
    if (const int error = qvportdir::folder_open_error(opts.enum_dir)) {
      const std::string text = "prob opening folder " + opts.enum_dir + ": " + std::strerror(error) + ", aborting\n";
      std::fputs(text.c_str(), stderr);
      std::fflush(stderr);
      return -1;
    }
    std::vector<std::wstring> filters;
    for (const path_filter& f : opts.filter_list) filters.push_back(f.raw_text);
    if (!source.start_enumeration(opts.enum_dir, opts.num_subdirs, filters)) return -1;
  }
  std::string line;
  while (source.getline(line, true)) {
    if (line.empty()) continue;
    if (!passes_filter(opts, qv::to_wide(line), opts.filter_list)) continue;
    try {
      qv::expand_environment(line, true);
      set_current_file(opts, line);
      std::string dir, name;
      if (!qvportdir::split_path(line, dir, name)) continue;
      if (opts.show_status) qv::status_line("%s\n", line.c_str());
      if (!process_file(report_out, line, opts) && opts.show_status)
        qv::error_out("prob parsing file: %s\n", line.c_str());
    } catch (const std::exception&) {
      qv::error_out("exception caught on file %s\n", line.c_str());
    }
  }
  return 0;
}

}  // namespace

int quon_main(int argc, char** argv) {
  uni::fd_output standard_out(1);
  std::vector<std::string> args;
  for (int i = 0; i < argc; ++i) args.emplace_back(argv[i] ? argv[i] : "");
  cmdline_ctx ctx;
  int exit_code = -1;
  std::ostream* report_out = &standard_out;

  std::string prologue;
  {
    qvportdir::wow64_redirect_adt guard;
    if (wants_help(args)) {
      print_usage();
      return 0;
    }
    prologue = compose_prologue(args);
  }
  qvportdir::wow64_redirect_adt guard;

  quon_user_opts opts;
  std::unique_ptr<uni::fileio> results;
  if (!parse_options(opts, args)) {
    prologue += '\n';
    report_out->write(prologue.data(), static_cast<std::streamsize>(prologue.size()));
    return exit_code;
  }
  ctx.take_options(opts);

  if (!opts.results_path.empty()) {
    results = std::make_unique<uni::fileio>();
    if (!results->open(opts.results_path, true, false, true)) {
      qv::error_out("prob opening results file: %s for writing\n", opts.results_path.c_str());
      return -1;
    }
    report_out = results->get_ostream();
  }
  // A subset trace holds nothing but trace data, and JSON Lines nothing but
  // events: the header text that would go to the same stream is left out.
  if (!opts.walk.subset.on && !opts.report.format_jsonl) {
    prologue += '\n';
    report_out->write(prologue.data(), static_cast<std::streamsize>(prologue.size()));
  }

  if (opts.extract_bxml) {
    exit_code = run_extract_bxml(*report_out, opts);
  } else if (opts.providers) {
    exit_code = run_providers(*report_out, opts);
  } else if (!opts.log_files.empty()) {
    load_template_store(opts);
    exit_code = list_walk(*report_out, opts);
  } else if (opts.use_pipe || opts.use_enum_dir) {
    load_template_store(opts);
    exit_code = stream_walk(*report_out, opts);
  }
  return exit_code;
}
