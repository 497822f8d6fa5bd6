// Evidence kept safe from -out. The result file, or the subset trace of
// -pullguid, is opened with truncation, and its path is already tried for
// writing (and the test file removed) while the options are parsed. Before
// any of that, a path is refused when it names one of the run's input
// traces (the same file: device and inode, through any link or other name)
// or a file that already holds a trace. Every other path, an existing file
// of another kind included, is written as before.
#pragma once

#include <string>
#include <vector>

enum class output_refusal {
  none,         // the path may be written
  is_input,     // it is the same file as an input trace
  holds_trace,  // it is a trace file already
};

// Why `path` may not be written, given the run's named inputs. For
// `is_input`, `input` gets the name of that input as it was given.
output_refusal check_output_path(const std::string& path, const std::vector<std::string>& inputs,
                                 std::string& input);

// True when `path` is a regular file (or a link to one) whose first block
// passes the walk's test of a trace: a log header buffer, or an "RlFs" first
// block. A file of fewer than 386 bytes is never a trace to the walk.
bool holds_trace(const std::string& path);
