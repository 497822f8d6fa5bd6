#include "trace/trace_stats.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "support/byte_reader.h"
#include "support/limits.h"
#include "support/qv_string.h"
#include "trace/buffer_header.h"
#include "trace/trace_engine.h"

using qv::rd_u16;

namespace {

// "guid : name" for each provider of the file.
std::string provider_line(const trace_engine& engine, const qv::guid16& guid) {
  std::string line = qv::guid_text(guid.data());
  line += " : ";
  line += provider_name_of(engine.store, guid);
  line += '\n';
  return line;
}

}  // namespace

void print_provider_list(std::ostream& out, const trace_engine& engine) {
  std::string text;
  for (const qv::guid16& g : engine.stats.provider_set) text += provider_line(engine, g);
  out.write(text.data(), static_cast<std::streamsize>(text.size()));
}

void print_statistics(std::ostream& out, const trace_engine& engine) {
  std::string text;
  char line[64];
  for (const qv::guid16& g : engine.stats.provider_set) {
    text += provider_line(engine, g);
    auto counts = engine.stats.event_counts.find(g);
    if (counts == engine.stats.event_counts.end()) continue;
    std::snprintf(line, sizeof line, "%8s | %10s\n", "event id", "occurances");
    text += line;
    for (const auto& [id, count] : counts->second) {
      std::snprintf(line, sizeof line, "%8u | %10llu\n", static_cast<unsigned>(id),
                    static_cast<unsigned long long>(count));
      text += line;
    }
    text += '\n';
  }
  out.write(text.data(), static_cast<std::streamsize>(text.size()));
}

bool write_subset_buffer(subset_target& subset, trace_engine& engine, const uint8_t* buffer,
                         uint32_t buffer_size, uint64_t pos, bool is_rlfs_or_headerless) {
  trace_indexes& stats = engine.stats;
  auto range = stats.subset_index.equal_range(subset.guid);
  if (range.first == range.second) return true;  // this buffer is left out
  if (!subset.file || buffer_size < kBufferHeaderSize) {
    stats.subset_index.clear();
    return false;
  }

  // The buffer is padded to a multiple of 4096 bytes; 0xFF fills what the
  // provider's records leave.
  const uint64_t padded = (static_cast<uint64_t>(buffer_size) + 4095) / 4096 * 4096;
  std::vector<uint8_t> work(static_cast<size_t>(padded), 0xFF);
  std::copy(buffer, buffer + kBufferHeaderSize, work.begin());
  uint64_t used = kBufferHeaderSize;
  for (auto it = range.first; it != range.second; ++it) {
    const uint64_t relative = it->second - pos;
    auto size_it = stats.record_sizes.find(it->second);
    if (size_it == stats.record_sizes.end()) continue;
    const uint64_t length = (static_cast<uint64_t>(size_it->second) + 7) / 8 * 8;
    if (relative >= buffer_size || length > buffer_size - relative || length > padded - used) continue;
    std::copy(buffer + relative, buffer + relative + length, work.begin() + static_cast<std::ptrdiff_t>(used));
    used += length;
  }
  stats.subset_index.clear();

  uint8_t* header = work.data();
  if (is_rlfs_or_headerless) {
    qv::wr_u32(header + 48, static_cast<uint32_t>(used));
    qv::wr_u32(header + 4, static_cast<uint32_t>(padded));
  } else {
    qv::wr_u32(header + 4, static_cast<uint32_t>(used));
    qv::wr_u32(header + 48, static_cast<uint32_t>(used));
    qv::wr_u32(header + 8, static_cast<uint32_t>(used));
    qv::wr_u32(header + 0, static_cast<uint32_t>(padded));
  }
  const bool ok = subset.file->write_at(work.data(), static_cast<uint32_t>(padded), subset.pos);
  subset.pos += padded;
  return ok;
}

bool write_subset_first_block(subset_target& subset, trace_engine& engine, const uint8_t* block,
                              uint32_t block_size) {
  trace_indexes& stats = engine.stats;
  const bool had_records = !stats.record_sizes.empty();
  auto range = stats.subset_index.equal_range(subset.guid);
  std::vector<std::pair<uint64_t, uint64_t>> keep;  // offset, length
  for (auto it = range.first; it != range.second; ++it) {
    auto size_it = stats.record_sizes.find(it->second);
    if (size_it != stats.record_sizes.end())
      keep.emplace_back(it->second, (static_cast<uint64_t>(size_it->second) + 7) / 8 * 8);
  }
  stats.subset_index.clear();
  if (!had_records) return true;  // the block as it stands holds nothing else
  // The header and the log header's own record stay where they are.
  const uint64_t header_end = kBufferHeaderSize + (static_cast<uint64_t>(rd_u16(block, block_size, 76)) + 7) / 8 * 8;
  if (!subset.file || block_size < kFirstProbeSize || header_end > block_size) return false;
  std::vector<uint8_t> work(block, block + header_end);
  work.resize(block_size, 0xFF);
  uint64_t used = header_end;
  for (const auto& [offset, length] : keep) {
    if (offset >= block_size || length > block_size - offset || length > block_size - used) continue;
    std::copy(block + offset, block + offset + length, work.begin() + static_cast<std::ptrdiff_t>(used));
    used += length;
  }
  qv::wr_u32(work.data() + 48, static_cast<uint32_t>(used));
  qv::wr_u32(work.data() + 8, static_cast<uint32_t>(used));
  return subset.file->write_at(work.data(), block_size, 0);
}

void listing_sink::file_opened(const file_opening& file) {
  std::string head;
  append_file_head(head, file.file_name ? *file.file_name : std::string());
  head += '\n';
  out_.write(head.data(), static_cast<std::streamsize>(head.size()));
}

void listing_sink::file_ended() {
  if (stats_) print_statistics(out_, engine_);
  else print_provider_list(out_, engine_);
}

void manifest_sink::file_ended() {
  const event_source_manifests& m = engine_.manifests;
  if (m.text.empty()) return;
  std::string text = "// file: ";
  for (char c : engine_.file_name) text += (static_cast<unsigned char>(c) < 0x20 ? '?' : c);
  text += "\n";
  text += m.text;
  out_.write(text.data(), static_cast<std::streamsize>(text.size()));
}
