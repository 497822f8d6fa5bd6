// libFuzzer entry: any bytes, read as a PE image or a template blob, in both
// output forms. Nothing may crash, hang or touch memory outside the input.
#include <cstddef>
#include <cstdint>

#include "tools/modsift/harvest.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  modsift::input_source src;
  src.mem = data;
  src.size = size;
  modsift::harvest_options opts;
  opts.enc = size > 0 && (data[size - 1] & 1);
  modsift::harvest_result res;
  modsift::harvest_input(src, "fuzz", opts, res);
  // Every line of the text must be a comment or end in a line feed.
  if (!res.text.empty() && res.text.back() != '\n') __builtin_trap();
  return 0;
}
