#include "trace/buffer_header.h"

#include "support/byte_reader.h"
#include "support/qv_time.h"

using qv::rd_u16;
using qv::rd_u32;
using qv::rd_u64;
using qv::rd_u8;

WMI_BUFFER_HEADER read_buffer_header(const uint8_t* d, size_t n) {
  WMI_BUFFER_HEADER h;
  h.BufferSize = rd_u32(d, n, 0);
  h.SavedOffset = rd_u32(d, n, 4);
  h.CurrentOffset = rd_u32(d, n, 8);
  h.ReferenceCount = rd_u32(d, n, 12);
  h.TimeStamp = rd_u64(d, n, 16);
  h.SequenceNumber = rd_u64(d, n, 24);
  h.ClockWord = rd_u64(d, n, 32);
  h.ProcessorNumber = rd_u8(d, n, 40);
  h.Alignment = rd_u8(d, n, 41);
  h.LoggerId = rd_u16(d, n, 42);
  h.BufferState = rd_u32(d, n, 44);
  h.Offset = rd_u32(d, n, 48);
  h.BufferFlag = rd_u16(d, n, 52);
  h.BufferType = rd_u16(d, n, 54);
  h.ReferenceWord1 = rd_u64(d, n, 56);
  h.ReferenceWord2 = rd_u64(d, n, 64);
  return h;
}

WMI_BUFFER_HEADER read_rlfs_header(const uint8_t* d, size_t n, uint16_t& marker_word) {
  WMI_BUFFER_HEADER h;
  h.CurrentOffset = rd_u16(d, n, 0);
  marker_word = rd_u16(d, n, 2);
  h.BufferSize = rd_u32(d, n, 4);
  h.ReferenceCount = rd_u32(d, n, 8);
  h.TimeStamp = rd_u64(d, n, 16);
  h.SequenceNumber = rd_u32(d, n, 24);
  h.ClockWord = rd_u64(d, n, 32);
  h.ProcessorNumber = rd_u8(d, n, 40);
  h.Alignment = rd_u8(d, n, 41);
  h.LoggerId = rd_u16(d, n, 42);
  h.BufferState = rd_u32(d, n, 44);
  h.Offset = rd_u32(d, n, 48);
  h.SavedOffset = h.Offset;
  h.BufferFlag = rd_u16(d, n, 52);
  h.BufferType = rd_u16(d, n, 54);
  h.ReferenceWord1 = rd_u64(d, n, 56);
  h.ReferenceWord2 = rd_u64(d, n, 64);
  return h;
}

bool is_logfile_buffer(const uint8_t* block, size_t size) {
  if (!block || size < kFirstProbeSize) return false;
  const uint32_t buffer_size = rd_u32(block, size, 0);
  return buffer_size != 0 && size >= buffer_size;
}

bool is_rlfs_buffer(const uint8_t* block, size_t size) {
  if (!block || size < kBufferHeaderSize) return false;
  if (size < rd_u64(block, size, 48)) return false;
  if (rd_u32(block, size, 0) != kRlfsMarker) return false;
  return qv::is_valid_filetime(rd_u64(block, size, 16));
}

bool is_zero_block(const uint8_t* block, size_t size) {
  if (!block) return false;
  uint64_t sum = 0;
  for (size_t i = 0; i < 9; ++i) sum += rd_u64(block, size, i * 8);
  return sum == 0;
}

bool is_buffer_header(const uint8_t* block, size_t remaining, bool lenient) {
  if (!block || remaining < kBufferHeaderSize) return false;
  const uint32_t size = rd_u32(block, remaining, 4);
  if (remaining < size) return false;
  if (size == 0 && !lenient) return false;
  return true;
}
