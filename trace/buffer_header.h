// The buffer headers of a trace file and the tests that decide what the
// reader accepts.
//
// A trace file is a sequence of buffers. Every buffer starts with a 72-byte
// header, in one of two layouts. All fields are little-endian.
//
// WMI_BUFFER_HEADER (regular files):
//   Offset | Size | Field            | Use here
//   0      | 4    | BufferSize       | whole size; walk step; payload limit
//   4      | 4    | SavedOffset      | first choice of the end of data in resync
//   8      | 4    | CurrentOffset    | rewritten in subset files
//   12     | 4    | ReferenceCount   |
//   16     | 8    | TimeStamp        | buffer time, upper bound of its events
//   24     | 8    | SequenceNumber   |
//   32     | 8    | clock word       |
//   40     | 1    | ProcessorNumber  | copied to every event of the buffer
//   41     | 1    | Alignment        | copied to every event of the buffer
//   42     | 2    | LoggerId         | copied to every event of the buffer
//   44     | 4    | BufferState      |
//   48     | 4    | Offset           | used bytes of the buffer
//   52     | 2+2  | BufferFlag, BufferType
//   56     | 8    | reference word   | its high u32 (at 60) tells 64-bit kernel addresses
//   64     | 8    | reference word   |
//
// "RlFs" header (relogged files), rearranged into the layout above:
//   0      | 2+2  | "Rl" "Fs"        | first half lands in CurrentOffset; second is marker_word
//   4      | 4    | buffer size      | becomes BufferSize
//   8      | 4    |                  | becomes ReferenceCount
//   16     | 8    | TimeStamp        |
//   24     | 8    |                  | low half becomes the SequenceNumber's low word
//   32..47 |      | clock word, processor, alignment, logger id, state (same places)
//   48     | 4    | Offset           | becomes SavedOffset too
//   52..71 |      | flags and reference words (same places)
// In the first block of an "RlFs" file the u64 at 48 is the block's length
// and the u32 at 40 the offset where the buffer walk begins.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr uint32_t kBufferHeaderSize = 72;
inline constexpr uint32_t kRlfsMarker = 0x73466C52;  // "RlFs"
// Bytes the walker reads to decide a file's kind.
inline constexpr uint32_t kFirstProbeSize = 386;

struct WMI_BUFFER_HEADER {
  uint32_t BufferSize = 0;
  uint32_t SavedOffset = 0;
  uint32_t CurrentOffset = 0;
  uint32_t ReferenceCount = 0;
  uint64_t TimeStamp = 0;
  uint64_t SequenceNumber = 0;
  uint64_t ClockWord = 0;
  uint8_t ProcessorNumber = 0;
  uint8_t Alignment = 0;
  uint16_t LoggerId = 0;
  uint32_t BufferState = 0;
  uint32_t Offset = 0;
  uint16_t BufferFlag = 0;
  uint16_t BufferType = 0;
  uint64_t ReferenceWord1 = 0;
  uint64_t ReferenceWord2 = 0;
};

// One normalised buffer header.
struct buffer_rec {
  WMI_BUFFER_HEADER header;
  uint64_t file_offset = 0;
  uint16_t marker_word = 0;
  bool is_rlfs = false;
  uint64_t absolute_time = 0;
  uint16_t header_size_hint = 0;
  // u32 at 60: its top 12 bits all set means the buffer came from a 64-bit kernel.
  uint32_t pointer_word() const { return uint32_t(header.ReferenceWord1 >> 32); }
};

// Reads the 72 bytes at `data` as a regular header (`size` >= 72).
WMI_BUFFER_HEADER read_buffer_header(const uint8_t* data, size_t size);
// Reads the 72 bytes at `data` as an "RlFs" header and rearranges them.
WMI_BUFFER_HEADER read_rlfs_header(const uint8_t* data, size_t size, uint16_t& marker_word);

// True when `size` > 385, BufferSize isn't zero and `size` >= BufferSize.
bool is_logfile_buffer(const uint8_t* block, size_t size);
// True when `size` >= 72 and >= the u64 at 48, the first word is "RlFs" and
// the TimeStamp passes the date test.
bool is_rlfs_buffer(const uint8_t* block, size_t size);
// True when the nine 64-bit words of the first 72 bytes sum to zero (with
// wrap-around).
bool is_zero_block(const uint8_t* block, size_t size);
// False when `remaining` < 72 or < the u32 at 4; false when that u32 is zero
// unless `lenient`.
bool is_buffer_header(const uint8_t* block, size_t remaining, bool lenient);
