// The side modes that work on the walk without printing event rows:
// -guids lists the providers of a file, -stats counts their events by id,
// and -pullguid writes a reduced trace holding only one provider's records.
#pragma once

#include <cstdint>
#include <ostream>

class quon_user_opts;
struct trace_engine;

// One subset step for the buffer at `pos`, after the buffer loop has run on it.
bool write_subset_buffer(quon_user_opts& opts, const uint8_t* buffer, uint32_t buffer_size,
                         uint64_t pos, bool is_rlfs_or_headerless);
void print_provider_list(std::ostream& out, quon_user_opts& opts);
void print_statistics(std::ostream& out, quon_user_opts& opts);
