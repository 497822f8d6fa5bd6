// The file walk: opens a trace file's first block, decides which of the
// three file kinds it has, prints the per-file head, and moves from buffer
// to buffer, handing each to the event reader. It owns all recovery from bad
// buffer sizes.
//
//   kind       | test on the first 386 bytes          | first block             | size of later buffers
//   regular    | the log header buffer test           | BufferSize bytes        | u32 at 0
//   "RlFs"     | "RlFs" marker and a dated TimeStamp  | u64 at 48 bytes; walk   | u32 at 4
//              |                                      | starts at u32 at 40     |
//   headerless | the first 72 bytes are all zero      | 72 bytes                | u32 at 4
#pragma once

#include <ostream>

namespace uni { class fileio; }
class quon_user_opts;

// True when the file was accepted and walked, however early its buffer loop
// stopped; false when it was refused.
bool walk_trace_file(std::ostream& report_out, uni::fileio& file, quon_user_opts& opts);
