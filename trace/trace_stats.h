// The side modes that work on the walk without printing event rows:
// -guids lists the providers of a file, -stats counts their events by id,
// and -pullguid writes a reduced trace holding only one provider's records.
#pragma once

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>

#include "support/guid.h"
#include "support/uni_fileio.h"
#include "trace/record_sink.h"

struct trace_engine;

// -pullguid: the reduced trace that holds one provider's records.
struct subset_target {
  bool on = false;
  qv::guid16 guid{};
  std::string path;                   // where it is written (the -out path)
  std::unique_ptr<uni::fileio> file;  // open during the walk of the first input
  uint64_t pos = 0;                   // next write position
};

// One subset step for the buffer at `pos`, after the buffer loop has run on it.
bool write_subset_buffer(subset_target& subset, trace_engine& engine, const uint8_t* buffer,
                         uint32_t buffer_size, uint64_t pos, bool is_rlfs_or_headerless);
// The subset's first block once its records are read: the log header buffer
// as it stands up to the end of the log header's own record, then the
// provider's records from behind it, the rest 0xFF; written over the copy
// made when the file was opened. Nothing is rewritten when the block holds
// no records behind the log header.
bool write_subset_first_block(subset_target& subset, trace_engine& engine, const uint8_t* block,
                              uint32_t block_size);
void print_provider_list(std::ostream& out, const trace_engine& engine);
void print_statistics(std::ostream& out, const trace_engine& engine);

// The sink of -guids and -stats: the file's head, then, when the walk is
// done, the provider list or the count tables. Records are dropped.
class listing_sink : public record_sink {
 public:
  listing_sink(std::ostream& out, const trace_engine& engine, bool stats)
      : out_(out), engine_(engine), stats_(stats) {}
  void file_opened(const file_opening& file) override;
  void take_records(record_list&) override {}
  void file_ended() override;

 private:
  std::ostream& out_;
  const trace_engine& engine_;
  bool stats_;
};

// The sink of -manifests: at the end of each file, a comment line with the
// file's name and the template text of the manifests read in it (nothing
// for a file without any), so that the output can be given to -templates.
class manifest_sink : public record_sink {
 public:
  manifest_sink(std::ostream& out, const trace_engine& engine) : out_(out), engine_(engine) {}
  void file_opened(const file_opening&) override {}
  void take_records(record_list&) override {}
  void file_ended() override;

 private:
  std::ostream& out_;
  const trace_engine& engine_;
};
