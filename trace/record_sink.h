// What the walk hands out: the consumer of a trace's records. The walk reads
// a file buffer by buffer; whoever wants the records (the row writers, the
// provider listing, a test) supplies a sink and is told, in order:
//
//   file_opened    once, when the first block was accepted: the file kind and
//                  its log header (or its first 72-byte header), before any
//                  record;
//   take_records   once per buffer: the records of that buffer in key order.
//                  The sink may change the records (rendering rewrites field
//                  texts); the walk empties them afterwards;
//   file_ended     once, when the walk has left the file's last buffer.
#pragma once

#include <cstdint>
#include <string>

class record_list;
struct log_header;
struct trace_engine;

enum class trace_file_kind { regular, rlfs, headerless };

struct file_opening {
  trace_file_kind kind = trace_file_kind::regular;
  const std::string* file_name = nullptr;  // the path as opened
  const log_header* header = nullptr;      // regular files: the log header
  const uint8_t* first_block = nullptr;    // other kinds: the 72-byte first header
  // From the log header, or "<not available>".
  std::string session_name;
  std::string orig_source_path;
};

class record_sink {
 public:
  virtual ~record_sink() = default;
  virtual void file_opened(const file_opening& file) = 0;
  virtual void take_records(record_list& records) = 0;
  virtual void file_ended() = 0;
};

// The head of a file's output: a line of dashes and "file: " with its path.
void append_file_head(std::string& out, const std::string& file_name);
