// The two modes that run a sibling executable from the program's own folder
// and copy its output to the report: -extract_bxml (modsift) and -providers
// (hivewick).
#pragma once

#include <ostream>
#include <string>

class quon_user_opts;

// True when the tool ran and its output was printed.
bool run_dependency_tool(std::ostream& report_out, const std::string& tool_name,
                         const std::string& arguments, quon_user_opts& opts);

// -extract_bxml for one PE file, or for names read from standard input.
// Returns the exit value (0 when a tool run succeeded, else -1).
int run_extract_bxml(std::ostream& report_out, quon_user_opts& opts);
// -providers: hivewick over a SOFTWARE hive. Returns the exit value.
int run_providers(std::ostream& report_out, quon_user_opts& opts);
