#include "tools/layoutgen/mof_tsv.h"

#include "tools/layoutgen/gen_common.h"

namespace layoutgen {

namespace {

std::string trim(const std::string& s) {
  size_t b = s.find_first_not_of(" \t");
  if (b == std::string::npos) return {};
  size_t e = s.find_last_not_of(" \t");
  return s.substr(b, e - b + 1);
}

}  // namespace

bool parse_u16(const std::string& text, uint16_t& out) {
  std::string t = trim(text);
  if (t.empty() || t.size() > 5) return false;
  uint32_t v = 0;
  for (char c : t) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + uint32_t(c - '0');
  }
  if (v > 0xFFFF) return false;
  out = uint16_t(v);
  return true;
}

bool parse_event_fields(const std::string& text, std::string& name,
                        std::vector<mof_property>& properties) {
  properties.clear();
  std::string t = trim(text);
  size_t open = t.find('(');
  if (open == std::string::npos || t.empty() || t.back() != ')') return false;
  name = trim(t.substr(0, open));
  if (name.empty()) return false;
  std::string inner = t.substr(open + 1, t.size() - open - 2);
  if (inner.find_first_of("()") != std::string::npos) return false;
  if (trim(inner).empty()) return true;
  size_t start = 0;
  for (;;) {
    size_t comma = inner.find(',', start);
    std::string item = trim(inner.substr(start, comma == std::string::npos ? std::string::npos
                                                                            : comma - start));
    size_t blank = item.find(' ');
    if (blank == std::string::npos) return false;
    mof_property p;
    p.type = trim(item.substr(0, blank));
    p.name = trim(item.substr(blank + 1));
    if (p.type.empty() || p.name.empty()) return false;
    if (properties.size() >= kMaxFields) return false;
    properties.push_back(std::move(p));
    if (comma == std::string::npos) return true;
    start = comma + 1;
  }
}

row_fault parse_mof_row(const std::string& line, mof_row& row) {
  if (line.size() > kMaxLineBytes) return row_fault::columns;
  std::vector<std::string> cols = split_tabs(line);
  if (!cols.empty() && cols[0] == "provider") return row_fault::header;
  if (cols.size() < 6) return row_fault::columns;
  row.provider = trim(cols[0]);
  row.guid = normal_guid(trim(cols[1]));
  if (row.guid.empty()) return row_fault::guid;
  if (!parse_u16(cols[2], row.event_type) || !parse_u16(cols[3], row.version))
    return row_fault::number;
  if (!parse_event_fields(cols[4], row.event_name, row.properties)) return row_fault::fields;
  row.type_name = trim(cols[5]);
  return row_fault::none;
}

}  // namespace layoutgen
