// libFuzzer entry: any bytes, read as lines of a MOF table, of a manifest
// table and of the provider list. Every row that parses is turned into a
// layout and a line; nothing may crash, and a line must read back as a
// template record with the layout's words.
#include <cstddef>
#include <cstdint>
#include <string>

#include "templates/template_text.h"
#include "tools/layoutgen/gen_common.h"
#include "tools/layoutgen/manifest_gen.h"
#include "tools/layoutgen/mof_classic.h"
#include "tools/layoutgen/mof_tsv.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  layoutgen::source_stats stats;
  for (const std::string& line : layoutgen::split_lines(text)) {
    layoutgen::mof_row row;
    if (layoutgen::parse_mof_row(line, row) != layoutgen::row_fault::none) continue;
    layoutgen::gen_layout layout;
    if (!layoutgen::mof_layout_of(row, layout, stats)) continue;
    if (layout.fields.size() > layoutgen::kMaxFields) __builtin_trap();
    template_record record;
    if (!parse_template_line(record, layoutgen::layout_line(layout))) __builtin_trap();
    if (record.words.size() != layout.fields.size()) __builtin_trap();
  }
  for (const std::string& line : layoutgen::split_lines(text)) {
    layoutgen::build_layout b;
    if (!layoutgen::tsv_fields(line, b.label, b.fields, b.cut_reason)) continue;
    if (b.fields.size() > layoutgen::kMaxFields) __builtin_trap();
    template_record record;
    if (!parse_template_line(record, layoutgen::event_line("00000000-0000-0000-0000-000000000001", 1, 0, 0, b)))
      __builtin_trap();
  }
  layoutgen::read_provider_list(text);
  return 0;
}
