#include "run/dependency_tools.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "run/options.h"
#include "support/console.h"
#include "support/qv_portable_dir.h"
#include "support/qv_string.h"

namespace {

void erase_first_of(std::string& text, const char* what) {
  const size_t at = text.find(what);
  if (at != std::string::npos) text.erase(at, std::strlen(what));
}

}  // namespace

bool run_dependency_tool(std::ostream& report_out, const std::string& tool_name,
                         const std::string& arguments, quon_user_opts& opts) {
  (void)opts;
  std::string tool = tool_name;
  erase_first_of(tool, "32");
  erase_first_of(tool, "64");
  erase_first_of(tool, ".exe");

  std::string dir, self;
  if (!qvportdir::split_path(qvportdir::executable_path(), dir, self)) return false;
  std::string path = dir + "/" + tool;
  if (self.find("quon64") != std::string::npos) path += "64";
  // A folder with a blank gets quotes, and the existence test is given the
  // quoted text as well.
  if (dir.find(' ') != std::string::npos) path = "\"" + path + "\"";
  if (!qvportdir::file_exists(path)) {
    std::fprintf(stderr, "can't find the dependency tool: %s, aborting\n", path.c_str());
    return false;
  }

  const std::string command = path + " " + arguments + " -quiet";
  std::ostringstream collected;
  if (!qv::run_cmd(qv::to_wide(command), qv::to_wide(dir), collected)) {
    std::fprintf(stderr, "prob calling run_cmd: %s\n", command.c_str());
    return false;
  }
  std::string output = collected.str();
  qv::remove_char(output, '\r');

  // The head ends behind the line that holds "cmdline: ".
  size_t head_end = 0;
  const size_t marker = output.find("\"cmdline: ");
  if (marker != std::string::npos) {
    const size_t eol = output.find('\n', marker);
    if (eol != std::string::npos) head_end = eol + 1;
  }
  std::string head = output.substr(0, head_end);
  qv::to_lower(head);
  if (head.find("modsift") != std::string::npos) {
    const size_t ver = head.find("ver:");
    if (ver != std::string::npos) {
      const size_t semi = head.find(';', ver);
      const std::string text = head.substr(ver + 4, semi == std::string::npos ? std::string::npos : semi - ver - 4);
      if (text.size() >= 2 && text[0] == ' ' && text[1] == '0') {
        const std::string number = text.size() > 2 ? text.substr(3) : std::string();
        if (std::atoi(number.c_str()) < 39) {
          std::fputs("This option requires, ver: 0.39 of modsift or later to work, aborting\n", stderr);
          return false;
        }
      }
    }
  }
  if (output.size() <= head_end + 5) {
    std::fprintf(stderr, "Problem with using dependency tool %s, aborting\n", tool.c_str());
    return false;
  }
  report_out.write(output.data() + head_end, static_cast<std::streamsize>(output.size() - head_end));
  return true;
}

int run_extract_bxml(std::ostream& report_out, quon_user_opts& opts) {
  int exit_code = -1;
  if (!opts.use_pipe && !opts.use_enum_dir) {
    std::string args = "\"" + opts.pe_path + "\" -quon";
    if (opts.encoded) args += " -enc";
    if (run_dependency_tool(report_out, "modsift", args, opts)) exit_code = 0;
    return exit_code;
  }
  // Names come from standard input under both -pipe and -enumdir.
  uni::stdin_stream input;
  std::string line;
  while (input.getline(line, true)) {
    if (line.empty()) continue;
    if (!passes_filter(opts, qv::to_wide(line), opts.filter_list)) continue;
    if (opts.show_status) qv::status_line("%s\n", line.c_str());
    if (run_dependency_tool(report_out, "modsift", "-quon \"" + line + "\"", opts)) exit_code = 0;
  }
  return exit_code;
}

int run_providers(std::ostream& report_out, quon_user_opts& opts) {
  std::string args = "-hive \"" + opts.hive_path + "\" ";
  args += "-key \"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\WINEVT\\Publishers\" ";
  args += "-level 1 ";
  args += "-extract \"(unnamed)|MessageFileName\"";
  args += " -dateformat " + opts.report.date_format;
  args += " -timeformat " + opts.report.time_format;
  args += " -pair_datetime";
  return run_dependency_tool(report_out, "hivewick", args, opts) ? 0 : -1;
}
