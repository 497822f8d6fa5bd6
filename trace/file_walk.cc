#include "trace/file_walk.h"

#include <algorithm>
#include <sstream>
#include <vector>

#include "support/byte_reader.h"
#include "support/console.h"
#include "support/limits.h"
#include "support/uni_fileio.h"
#include "trace/buffer_header.h"
#include "trace/trace_engine.h"
#include "trace/trace_stats.h"
#include "trace/xpress.h"

using qv::rd_u16;
using qv::rd_u32;
using qv::rd_u64;

namespace {

const char kNotAvailable[] = "<not available>";

// The buffer flag of a buffer whose records are compressed.
constexpr uint16_t kBufferCompressed = 0x0040;

// True when the last read took from the file every byte asked of it, up to
// the end of the file. A read that stops short before the end (a folder,
// whose reads give nothing; a file cut while it is read) ends the walk, so
// that the walk never goes on over bytes the file didn't give.
bool read_whole(const uni::fileio& file, uint64_t want, uint64_t pos) {
  const uint64_t size = file.file_size();
  return pos < size && file.bytes_read() == std::min(want, size - pos);
}

// Reads `want` bytes at `pos`, but never more than the largest buffer the
// reader holds at once; the walk still steps by the full size. False when
// the file gave nothing; `whole`, when given, tells whether it gave all. (A
// first block that comes short leaves the buffer loop nothing to read.)
bool read_capped(uni::fileio& file, std::vector<uint8_t>& buf, uint64_t want, uint64_t pos,
                 bool* whole = nullptr) {
  if (want > qv::limits::kMaxBufferRead) want = qv::limits::kMaxBufferRead;
  if (!file.read_block(buf, want, pos) || file.bytes_read() == 0 || buf.empty()) return false;
  if (whole) *whole = read_whole(file, want, pos);
  return true;
}

// The same for a block that must come whole.
bool read_exact(uni::fileio& file, std::vector<uint8_t>& buf, uint64_t want, uint64_t pos) {
  return file.read_block(buf, want, pos) && read_whole(file, want, pos);
}

// A compressed buffer of a regular file becomes an ordinary one in `out`: its
// header, with the size set to what it holds and the compressed flag
// cleared, and the records. False when the stream is damaged.
bool expand_buffer(const std::vector<uint8_t>& in, uint32_t largest, std::vector<uint8_t>& out) {
  const uint32_t offset = rd_u32(in.data(), in.size(), 48);
  const uint32_t stored = rd_u32(in.data(), in.size(), 0);
  if (offset < kBufferHeaderSize || offset > largest || stored < kBufferHeaderSize) return false;
  const size_t stream_size = std::min<size_t>(stored, in.size()) - kBufferHeaderSize;
  out.resize(offset);
  std::copy(in.begin(), in.begin() + kBufferHeaderSize, out.begin());
  size_t produced = 0;
  if (!xpress_decompress(in.data() + kBufferHeaderSize, stream_size, out.data() + kBufferHeaderSize,
                         offset - kBufferHeaderSize, produced) ||
      produced != offset - kBufferHeaderSize)
    return false;
  qv::wr_u32(out.data(), offset);
  qv::wr_u16(out.data() + 52, static_cast<uint16_t>(rd_u16(out.data(), out.size(), 52) & ~kBufferCompressed));
  return true;
}

// The records of the buffer just read go to the sink, then are emptied.
void hand_records(trace_engine& engine, record_sink& sink) {
  if (!engine.records.empty()) sink.take_records(engine.records);
  engine.records.clear();
}

}  // namespace

bool walk_trace_file(uni::fileio& file, walk_options& opts, trace_engine& engine, record_sink& sink) {
  if (!file.is_open()) return false;
  const uint64_t file_size = file.file_size();
  if (file_size < kFirstProbeSize) return false;

  std::vector<uint8_t> block;
  if (!read_exact(file, block, kFirstProbeSize, 0) || block.size() < kFirstProbeSize) return false;

  subset_target& subset = opts.subset;
  if (subset.on && !subset.file) {
    auto out = std::make_unique<uni::fileio>();
    if (out->open(subset.path, true, true, true)) subset.file = std::move(out);
  }

  const bool pulling = subset.on;
  const bool listing = opts.list_guids || opts.list_stats;
  engine.decode_enabled = !pulling && !listing && !opts.gather_manifests;
  engine.gather_manifests = opts.gather_manifests;
  engine.manifests.keep_text = opts.gather_manifests;
  engine.subset_enabled = pulling && subset.file && subset.file->is_open();
  engine.subset_guid = subset.guid;

  file_opening opening;
  opening.file_name = &engine.file_name;
  opening.session_name = kNotAvailable;
  opening.orig_source_path = kNotAvailable;
  uint32_t first_block_size = 0;
  bool is_rlfs = false;
  bool is_headerless = false;
  uint32_t largest_buffer = 0;
  if (is_logfile_buffer(block.data(), file_size)) {
    const uint32_t buffer_size = rd_u32(block.data(), block.size(), 0);
    // The whole first block, and at least the probe, for the header's fields.
    if (!read_capped(file, block, std::max<uint32_t>(buffer_size, kFirstProbeSize), 0)) return false;
    first_block_size = buffer_size;
    if (subset.file) {
      subset.file->write_at(block.data(), std::min<uint32_t>(buffer_size, static_cast<uint32_t>(block.size())), 0);
      subset.pos = buffer_size;
    }
    if (!open_with_log_header(engine, block.data(), block.size())) return false;
    // A compressed buffer expands to at most the buffer size the session
    // ran with, which the log header states (its own first buffer may be
    // smaller).
    largest_buffer = static_cast<uint32_t>(std::min<uint64_t>(
        std::max(engine.header.BufferSize, buffer_size), qv::limits::kMaxBufferRead));
    opening.kind = trace_file_kind::regular;
    opening.header = &engine.header;
    if (!engine.logger_name.empty()) opening.session_name = engine.logger_name;
    if (!engine.log_file_name.empty()) opening.orig_source_path = engine.log_file_name;
  } else if (is_rlfs_buffer(block.data(), file_size)) {
    is_rlfs = true;
    const uint64_t length = rd_u64(block.data(), block.size(), 48);
    if (length > block.size() && !read_capped(file, block, static_cast<uint32_t>(length), 0)) return false;
    const uint32_t walk_start = rd_u32(block.data(), block.size(), 40);
    if (subset.file) {
      subset.file->write_at(block.data(), static_cast<uint32_t>(std::min<uint64_t>(length, block.size())), 0);
      subset.pos = walk_start;
    }
    open_with_first_buffer(engine, block.data(), block.size());
    first_block_size = walk_start;
    opening.kind = trace_file_kind::rlfs;
    opening.first_block = engine.first_block;
  } else {
    if (!is_zero_block(block.data(), block.size())) return false;
    is_headerless = true;
    if (subset.file) {
      const uint8_t zeros[kBufferHeaderSize] = {};
      subset.file->write_at(zeros, kBufferHeaderSize, 0);
      subset.pos = kBufferHeaderSize;
    }
    first_block_size = kBufferHeaderSize;
    opening.kind = trace_file_kind::headerless;
    opening.first_block = engine.first_block;
  }
  sink.file_opened(opening);

  // The records behind the log header's own record in the first buffer come
  // first.
  if (opening.kind == trace_file_kind::regular) {
    const uint32_t held = static_cast<uint32_t>(std::min<size_t>(first_block_size, block.size()));
    read_log_header_buffer(engine, block.data(), held);
    if (engine.subset_enabled) write_subset_first_block(subset, engine, block.data(), held);
    engine.stats.subset_index.clear();
    hand_records(engine, sink);
  }

  // The buffer loop.
  std::vector<uint8_t> buffer;
  // The 72-byte headers are read apart, so that the buffer keeps its size
  // from one buffer to the next and is never zero-filled again.
  std::vector<uint8_t> header;
  std::vector<uint8_t> expanded;
  uint64_t pos = first_block_size;
  uint32_t buffer_size = 0;  // kept from one pass to the next on purpose
  uint32_t buffer_count = 0;
  const bool size_at_4 = is_rlfs || is_headerless;
  for (;;) {
    if (pos >= file_size) break;
    if (!read_exact(file, header, kBufferHeaderSize, pos) || header.size() < kBufferHeaderSize) break;
    buffer_size = rd_u32(header.data(), header.size(), size_at_4 ? 4 : 0);
    if (buffer_size == 0 || static_cast<uint64_t>(buffer_size) + pos > file_size) {
      if (buffer_size != 0 || !size_at_4) {
        // Zero-sized or running past the end: the rest of the file is one
        // buffer, if enough of it is left to hold one.
        if (pos + 512 >= file_size) break;
        buffer_size = static_cast<uint32_t>(std::min<uint64_t>(file_size - pos, UINT32_MAX));
      } else {
        // A zero size in an "RlFs" or headerless file: scan on in steps of
        // 72 bytes for a header. A zero size that leaves the scan ends the
        // walk at the read below.
        bool stop = false;
        for (;;) {
          if (is_buffer_header(header.data(), file_size - pos, false)) break;
          if (!is_buffer_header(header.data(), file_size - pos, true)) { stop = true; break; }
          pos += kBufferHeaderSize;
          if (pos > file_size) { stop = true; break; }
          if (!read_exact(file, header, kBufferHeaderSize, pos) || header.size() < kBufferHeaderSize) {
            stop = true;
            break;
          }
        }
        if (stop) break;
      }
    }
    if (buffer_size == 0) break;  // the read of zero bytes fails
    bool whole = true;
    if (!read_capped(file, buffer, buffer_size, pos, &whole)) break;
    if (opts.show_status) {
      ++buffer_count;
      qv::status_line("processing buffer %2d", buffer_count);
    }

    const std::vector<uint8_t>* data = &buffer;
    bool refused = false;
    if (!size_at_4 && buffer.size() >= kBufferHeaderSize &&
        (rd_u16(buffer.data(), buffer.size(), 52) & kBufferCompressed)) {
      if (expand_buffer(buffer, std::max<uint32_t>(largest_buffer, kBufferHeaderSize), expanded)) {
        data = &expanded;
      } else {
        refused = true;  // a damaged compressed buffer is passed over
      }
    }
    if (!refused) read_buffer(engine, data->data(), data->size(), pos);

    if (engine.subset_enabled && !refused)
      write_subset_buffer(subset, engine, data->data(), static_cast<uint32_t>(data->size()), pos, size_at_4);
    hand_records(engine, sink);
    if (!whole) break;  // the bytes it gave are read; the file ends there
    pos += buffer_size;
  }

  hand_records(engine, sink);
  // The subset belongs to this walk: later inputs don't reach it.
  if (pulling && subset.file) subset.file->close();
  sink.file_ended();
  return true;
}
