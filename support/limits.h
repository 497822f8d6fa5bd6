// Named limits of the readers: every length, count and depth read from a file
// is checked against these before it sizes an allocation or a loop.
#pragma once

#include <cstdint>

namespace qv::limits {

// The most bytes of one trace buffer held in memory at once. Windows writes
// buffers of at most a few MiB; a damaged size beyond this is read only this
// far, while the walk still steps by the full size.
inline constexpr uint64_t kMaxBufferRead = 16u * 1024 * 1024;

}  // namespace qv::limits
