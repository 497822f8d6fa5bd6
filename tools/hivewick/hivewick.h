// hivewick: lists the subkeys of one key of a registry hive, with chosen
// values and each key's last-write time, one line per key.
//
// The lines are those of the template text format: a subkey named by a GUID
// makes a provider line "#{guid} ! <first value> | <more values> | <time>",
// any other subkey a comment line "// <name> ! ...". Run on the WINEVT
// publishers key of a SOFTWARE hive with "(unnamed)|MessageFileName", the
// output is a template file that names every registered provider.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/byte_reader.h"

namespace hivewick {

// The first line of the output.
inline constexpr const char* version_line = "hivewick ver: 0.10;";

struct options {
  std::string hive_path;
  std::string key_path;            // empty: the root key
  uint32_t level = 1;              // depth of subkeys listed; 0: the key itself
  std::vector<std::string> extract;  // value names; "(unnamed)" is the default value
  std::string date_format = "yyyy-mm-dd";
  std::string time_format = "hh:mm:ss.xxxxxxxxx";
  bool pair_datetime = false;      // date and time in one column
  bool quiet = false;
  bool help = false;
};

// The deepest level listed; no registry path is deeper.
constexpr uint32_t max_level = 512;

// Reads the arguments that follow the program name. False with a reason in
// `error` when they can't be used. Notes about values replaced by defaults
// are appended to `notes`.
bool parse_options(const std::vector<std::string>& args, options& opts, std::string& error,
                   std::string& notes);

std::string usage_text();

// The second line of the output: a double quote, "cmdline: ", the
// arguments (quoted where the shell would need it) and a closing quote.
std::string cmdline_line(const std::vector<std::string>& argv);

// Lists the key named by `opts` in the hive held in `bytes`: appends one
// line per key to `out` and the problems met to `err`. Returns 0 when the key
// was found (however damaged the hive), 1 otherwise.
int list_key(qv::byte_span bytes, const options& opts, std::string& out, std::string& err);

// The whole program over `argv` (program name first): the output text goes
// to `out`, status and problems to `err`. Returns the exit value: 0 done,
// 1 the hive or the key couldn't be read, 2 the arguments were wrong.
int run(const std::vector<std::string>& argv, std::string& out, std::string& err);

}  // namespace hivewick
