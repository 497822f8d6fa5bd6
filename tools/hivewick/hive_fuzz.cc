// libFuzzer entry: any bytes as a hive. Opens it, walks every key from the
// root down to a bounded depth, reads every value and its text, and lists
// the publishers key and the root as the tool does, so that each structure
// the reader knows meets hostile bytes.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "tools/hivewick/hive_reader.h"
#include "tools/hivewick/hivewick.h"

namespace {

void walk(hivewick::hive& h, const hivewick::key_node& key, int depth) {
  std::vector<hivewick::value_record> values;
  h.read_values(key, values);
  for (const hivewick::value_record& v : values) {
    std::vector<uint8_t> data;
    h.value_data(v, data);
    (void)hivewick::value_text(v.type, data);
  }
  if (depth >= 16) return;
  std::vector<uint32_t> cells;
  h.subkey_cells(key, cells);
  for (uint32_t c : cells) {
    hivewick::key_node sub;
    if (h.read_key(c, sub) && sub.cell != key.cell) walk(h, sub, depth + 1);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  hivewick::hive h;
  if (!h.open(qv::byte_span(data, size))) return 0;
  hivewick::key_node root;
  if (h.root_key(root)) walk(h, root, 0);
  hivewick::key_node found;
  h.find_key("SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\WINEVT\\Publishers", found);

  hivewick::options opts;
  opts.extract = {"(unnamed)", "MessageFileName"};
  opts.level = 3;
  std::string out, err;
  hivewick::list_key(qv::byte_span(data, size), opts, out, err);
  opts.key_path = "SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\WINEVT\\Publishers";
  opts.level = 1;
  opts.pair_datetime = true;
  hivewick::list_key(qv::byte_span(data, size), opts, out, err);
  return 0;
}
