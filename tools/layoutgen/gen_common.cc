#include "tools/layoutgen/gen_common.h"

#include <dirent.h>

#include <algorithm>
#include <cstdio>
#include <fstream>

#include "support/qv_string.h"
#include "templates/template_text.h"

namespace layoutgen {

namespace {

void append_word(std::string& out, uint16_t word) {
  char buf[16];
  if (word >= 0x8000) std::snprintf(buf, sizeof buf, "0x%04X", unsigned(word));
  else std::snprintf(buf, sizeof buf, "%u", unsigned(word));
  out += buf;
}

bool is_hex(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

}  // namespace

std::string layout_line(const gen_layout& layout) {
  std::string line = "{" + layout.guid + "} ! $" + std::to_string(layout.id);
  if (layout.version >= 0) line += ", V" + std::to_string(layout.version);
  for (const gen_field& f : layout.fields) {
    line += ", ";
    if (!f.name.empty()) line += "L" + f.name + ", ";
    append_word(line, f.word);
  }
  return line;
}

std::string layout_identity(const gen_layout& layout) {
  std::string out;
  for (const gen_field& f : layout.fields) {
    out += f.name;
    out += '\x01';
    out += std::to_string(f.word);
    out += '\x02';
  }
  return out;
}

std::string clean_token(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    unsigned char u = static_cast<unsigned char>(c);
    if (c == ' ' || c == '\t') continue;
    if (c == ',' || c == '!' || u < 0x20 || u == 0x7F) out += '_';
    else out += c;
  }
  return out;
}

std::string normal_guid(const std::string& text) {
  std::string t = text;
  if (t.size() == 38 && t.front() == '{' && t.back() == '}') t = t.substr(1, 36);
  if (t.size() != 36) return {};
  for (size_t i = 0; i < 36; ++i) {
    bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash ? t[i] != '-' : !is_hex(t[i])) return {};
    if (t[i] >= 'A' && t[i] <= 'F') t[i] = char(t[i] - 'A' + 'a');
  }
  return t;
}

std::vector<std::string> split_tabs(const std::string& line) {
  std::vector<std::string> cols;
  size_t end = line.size();
  if (end && line[end - 1] == '\r') --end;
  size_t start = 0;
  for (;;) {
    size_t tab = line.find('\t', start);
    if (tab == std::string::npos || tab >= end) {
      cols.push_back(line.substr(start, end - start));
      return cols;
    }
    cols.push_back(line.substr(start, tab - start));
    start = tab + 1;
  }
}

bool read_text_file(const std::string& path, std::string& out) {
  out.clear();
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  char buf[65536];
  while (in) {
    in.read(buf, sizeof buf);
    size_t got = size_t(in.gcount());
    if (got > kMaxFileBytes - std::min(out.size(), kMaxFileBytes)) return false;
    out.append(buf, got);
  }
  return in.eof();
}

std::vector<std::string> split_lines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t lf = text.find('\n', start);
    if (lf == std::string::npos) lf = text.size();
    lines.push_back(text.substr(start, lf - start));
    start = lf + 1;
  }
  return lines;
}

hand_checked_keys read_hand_checked_keys(const std::string& data_dir,
                                         std::vector<std::string>* files_read,
                                         std::set<std::string>* named) {
  hand_checked_keys keys;
  std::vector<std::string> names;
  if (DIR* d = opendir(data_dir.c_str())) {
    while (dirent* e = readdir(d)) {
      std::string name = e->d_name;
      if (name.size() > 4 && name.compare(name.size() - 4, 4, ".txt") == 0 &&
          name.compare(0, 4, "gen_") != 0)
        names.push_back(name);
    }
    closedir(d);
  }
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    template_source source;
    if (!load_template_text(source, data_dir + "/" + name)) continue;
    if (files_read) files_read->push_back(name);
    for (const template_record& r : source.records) {
      const std::string text = qv::guid_text(r.guid.data());
      if (r.words.empty()) {
        if (named && r.provider_index != 0) named->insert(text);
        continue;
      }
      if (r.range_hi != 0)
        for (uint32_t id = r.range_lo; id <= r.range_hi; ++id) keys.emplace(text, uint16_t(id));
      for (uint16_t id : r.ids) keys.emplace(text, id);
    }
  }
  return keys;
}

bool is_hand_checked(const hand_checked_keys& keys, const std::string& guid, uint16_t id) {
  return keys.count({guid, id}) != 0;
}

void count_layout(source_stats& stats, const gen_layout& layout, const std::string& provider_name) {
  ++stats.layouts;
  stats.distinct.insert(layout_identity(layout));
  stats.providers.insert(layout.guid);
  if (!provider_name.empty()) stats.provider_names.insert(provider_name);
  if (!layout.cut_reason.empty()) ++stats.cut_short[layout.cut_reason];
  if (layout.corrected) stats.corrected[layout.corrected_in] += layout.corrected;
}

void print_stats(std::ostream& out, const source_stats& s) {
  out << "layoutgen: " << s.source << ": " << s.files << " files, " << s.rows << " rows ("
      << s.bad_rows << " not parsed, " << s.hand_checked << " left to hand-checked files)\n";
  out << "  layouts: " << s.layouts << ", distinct layouts: " << s.distinct.size()
      << ", providers with layouts: " << s.providers.size()
      << ", provider names: " << s.provider_names.size() << "\n";
  size_t cut = 0;
  for (const auto& [reason, n] : s.cut_short) cut += n;
  out << "  layouts ended early (a field not expressible): " << cut << "\n";
  for (const auto& [reason, n] : s.cut_short) out << "    " << n << "  " << reason << "\n";
  if (!s.corrected.empty()) {
    size_t fields = 0;
    for (const auto& [cls, n] : s.corrected) fields += n;
    out << "  fields corrected from documentation: " << fields << " in " << s.corrected.size()
        << " classes\n";
  }
}

bool write_generated_file(const std::string& path, const std::string& regenerate,
                          const std::vector<std::string>& body, std::string& error) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out) {
    error = "can't write " + path;
    return false;
  }
  out << kGeneratedHead << "\n// regenerate: " << regenerate << "\n\n";
  for (const std::string& line : body) out << line << "\n";
  out.flush();
  if (!out) {
    error = "write failed on " + path;
    return false;
  }
  return true;
}

}  // namespace layoutgen
