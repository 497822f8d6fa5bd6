// Decompression of the plain LZ77 "Xpress" stream (not the Huffman variant)
// that Windows uses for the buffers of a trace written in compressed mode.
//
// The stream is a run of 32-bit flag words, read from the most significant
// bit; each 0 bit is a literal byte, each 1 bit a 16-bit match word (offset
// in the high 13 bits + 1, length in the low 3), with length escapes through
// a shared half byte, a byte, a 16-bit and a 32-bit word; the minimum match is
// 3 bytes. The stream ends on a 1 bit with no input left.
#pragma once

#include <cstddef>
#include <cstdint>

// Decompresses `in` into `out` (capacity `out_capacity`). False on damage:
// a read past the input, a match reaching before the start of the output, or
// output past the capacity. `produced` is the bytes written.
bool xpress_decompress(const uint8_t* in, size_t in_size, uint8_t* out, size_t out_capacity,
                       size_t& produced);
