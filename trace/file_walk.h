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
//
// The walk prints nothing: what it reads goes to a record sink (the file's
// kind and log header first, then the records of each buffer).
#pragma once

#include "trace/record_sink.h"
#include "trace/trace_stats.h"

namespace uni { class fileio; }
struct trace_engine;

struct walk_options {
  bool show_status = true;  // "processing buffer" in the status line
  // -guids and -stats: providers and counts only, payloads aren't decoded.
  bool list_guids = false;
  bool list_stats = false;
  subset_target subset;     // -pullguid
  // -manifests: the event sources' manifests only, as template text; no
  // payload is decoded.
  bool gather_manifests = false;
};

// True when the file was accepted and walked, however early its buffer loop
// stopped; false when it was refused.
bool walk_trace_file(uni::fileio& file, walk_options& opts, trace_engine& engine, record_sink& sink);
