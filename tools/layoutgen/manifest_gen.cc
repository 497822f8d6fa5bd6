#include "tools/layoutgen/manifest_gen.h"

#include <dirent.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <tuple>
#include <utility>

#include "support/qv_string.h"
#include "templates/manifest_xml.h"
#include "tools/layoutgen/mof_tsv.h"

namespace layoutgen {
namespace {

// The builds whose registered metadata the XML dumps recreate, oldest first.
struct xml_build {
  const char* folder;
  uint16_t build;
};
constexpr xml_build kXmlBuilds[] = {
    {"win7-7600", 7600}, {"win10-10240", 10240}, {"win10-17134", 17134}, {"win10-18990", 18990}};

// The build of the 26H1 tables (tsv-26h1/version.txt).
constexpr uint16_t kTableBuild = 28000;

// The token of the newest run of a layout that changed between builds: it
// also serves traces of builds after the dumps and of unknown build.
constexpr uint16_t kNewestBuild = 65535;

std::vector<std::string> files_in(const std::string& dir, const char* suffix) {
  std::vector<std::string> names;
  const size_t n = std::char_traits<char>::length(suffix);
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      std::string name = e->d_name;
      if (name.size() > n && name.compare(name.size() - n, n, suffix) == 0) names.push_back(name);
    }
    closedir(d);
  }
  std::sort(names.begin(), names.end());
  return names;
}

bool same_layout(const build_layout& a, const build_layout& b) {
  if (a.label != b.label || a.fields.size() != b.fields.size()) return false;
  for (size_t i = 0; i < a.fields.size(); ++i)
    if (a.fields[i].name != b.fields[i].name || a.fields[i].word != b.fields[i].word) return false;
  return true;
}

// A provider's name as the text of a "#{guid} ! Name" line: control
// characters become "_", the ends are trimmed.
std::string clean_provider(const std::string& text) {
  std::string out;
  for (char c : text) {
    unsigned char u = static_cast<unsigned char>(c);
    out += (u < 0x20 || u == 0x7F) ? '_' : c;
  }
  size_t b = out.find_first_not_of(' ');
  if (b == std::string::npos) return "";
  size_t e = out.find_last_not_of(' ');
  return out.substr(b, e - b + 1);
}

std::string lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

bool ends_with_any(const std::string& name, std::initializer_list<const char*> tails) {
  const std::string l = lower(name);
  for (const char* t : tails) {
    const std::string tail = t;
    if (l.size() >= tail.size() && l.compare(l.size() - tail.size(), tail.size(), tail) == 0)
      return true;
  }
  return false;
}

bool starts_with_any(const std::string& name, std::initializer_list<const char*> heads) {
  const std::string l = lower(name);
  for (const char* h : heads)
    if (l.compare(0, std::char_traits<char>::length(h), h) == 0) return true;
  return false;
}

bool is_integer_type(uint32_t in_type) {
  return (in_type >= 3 && in_type <= 10) || in_type == 20 || in_type == 21;
}

}  // namespace

std::vector<keyed_line> lines_of(const event_builds& eb) {
  // A build that read an item as a plain in-type where another build saw a
  // structure start index takes the other's layout, when both agree on
  // everything before it.
  std::vector<const build_layout*> pick;
  for (const build_layout& b : eb.builds) {
    const build_layout* use = &b;
    if (b.plain_at_struct_index) {
      for (const build_layout& o : eb.builds) {
        if (!o.stopped_at_struct || o.fields.empty() || o.label != b.label) continue;
        const size_t before = o.fields.size() - 1;
        if (b.fields.size() <= before) continue;
        bool agree = true;
        for (size_t i = 0; i < before && agree; ++i)
          agree = b.fields[i].name == o.fields[i].name && b.fields[i].word == o.fields[i].word;
        if (agree) {
          use = &o;
          break;
        }
      }
    }
    pick.push_back(use);
  }
  std::vector<keyed_line> out;
  std::vector<uint16_t> first_build;
  for (size_t i = 0; i < pick.size(); ++i) {
    if (!out.empty() && same_layout(*out.back().layout, *pick[i])) continue;
    out.push_back({0, pick[i]});
    first_build.push_back(eb.builds[i].build);
  }
  if (out.size() > 1) {
    for (size_t i = 0; i + 1 < out.size(); ++i) out[i].build = uint16_t(first_build[i + 1] - 1);
    out.back().build = kNewestBuild;
  }
  return out;
}

std::string event_line(const std::string& guid, uint16_t id, uint8_t version, uint16_t build,
                       const build_layout& layout) {
  gen_layout g;
  g.guid = guid;
  g.id = id;
  g.version = version;
  if (!layout.label.empty()) g.fields.push_back({layout.label, 0x8001});
  for (const gen_field& f : layout.fields) g.fields.push_back(f);
  if (g.fields.empty()) g.fields.push_back({"", 0});
  std::string line = layout_line(g);
  // The build token stands right behind the V token.
  if (build) {
    const std::string head = "{" + guid + "} ! $" + std::to_string(id) + ", V" + std::to_string(version);
    line.insert(head.size(), ", #" + std::to_string(build));
  }
  return line;
}

bool tsv_fields(const std::string& event_fields, std::string& label, std::vector<gen_field>& fields,
                std::string& cut) {
  std::string name;
  std::vector<mof_property> props;
  fields.clear();
  cut.clear();
  if (!parse_event_fields(event_fields, name, props)) return false;
  label = clean_token(name);
  uint32_t previous_type = 0;
  std::string previous_name;
  for (const mof_property& p : props) {
    const std::string field = clean_token(p.name);
    uint32_t in_type = 0;
    const bool known = manifest_in_type("win:" + p.type, in_type);
    auto stop = [&](const char* why) {
      fields.push_back({field, 0});
      cut = why;
    };
    if (!known || in_type == 0 || in_type == 24 || in_type > 25 ||
        std::all_of(p.type.begin(), p.type.end(),
                    [](char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; })) {
      stop("a structure or unknown type (26H1 table)");
      break;
    }
    if (in_type == 14 || in_type == 25) {
      stop("binary data without its length (26H1 table)");
      break;
    }
    if (in_type == 23) {
      stop("counted ANSI text (26H1 table)");
      break;
    }
    if (is_integer_type(previous_type)) {
      if (ends_with_any(previous_name, {"count", "entries", "elements"}) ||
          starts_with_any(previous_name, {"num", "countof"})) {
        stop("may be an array counted by the field before (26H1 table)");
        break;
      }
      if ((in_type == 1 || in_type == 2) &&
          ends_with_any(previous_name, {"length", "len", "size", "cch", "cb", "chars", "bytes"})) {
        stop("text that may take its length from the field before (26H1 table)");
        break;
      }
    }
    fields.push_back({field, static_cast<uint16_t>(in_type)});
    previous_type = in_type;
    previous_name = p.name;
  }
  return true;
}

std::map<std::string, std::string> read_provider_list(const std::string& text) {
  std::map<std::string, std::string> out;
  for (const std::string& line : split_lines(text)) {
    if (line.empty() || line[0] != '{') continue;
    std::vector<std::string> cols = split_tabs(line);
    if (cols.size() < 3) continue;
    const std::string guid = normal_guid(cols[0]);
    std::string name = clean_provider(cols[2]);
    if (guid.empty() || name.empty()) continue;
    out.emplace(guid, name);
  }
  return out;
}

void convert_manifests(const std::string& manifests, const hand_checked_keys& hand,
                       std::vector<std::string>& lines, source_stats& stats,
                       std::set<std::string>& names) {
  std::map<event_key, event_builds> events;
  std::map<std::string, std::string> provider_name;  // GUID -> newest build's name
  std::map<std::string, std::string> guid_of_name;   // name -> GUID
  size_t hand_left = 0;

  manifest_read_options opts;
  opts.symbol_as_name = true;
  opts.recreated = recreated_form::when_marked;
  for (const xml_build& b : kXmlBuilds) {
    const std::string dir = manifests + "/xml/" + b.folder;
    for (const std::string& file : files_in(dir, ".xml")) {
      std::string text;
      ++stats.files;
      if (!read_text_file(dir + "/" + file, text)) {
        ++stats.bad_rows;
        continue;
      }
      manifest_doc doc;
      std::string reason;
      if (!read_manifest_xml(reinterpret_cast<const uint8_t*>(text.data()), text.size(), opts, doc,
                             reason)) {
        std::fprintf(stderr, "layoutgen: %s/%s: %s\n", b.folder, file.c_str(), reason.c_str());
        ++stats.bad_rows;
        continue;
      }
      for (const manifest_provider& p : doc.providers) {
        if (qv::is_zero_guid(p.guid)) continue;
        const std::string guid = qv::guid_text(p.guid.data());
        if (!p.name.empty()) {
          provider_name[guid] = clean_provider(p.name);
          guid_of_name[p.name] = guid;
        }
        for (const manifest_event& ev : p.events) {
          ++stats.rows;
          if (is_hand_checked(hand, guid, ev.id)) {
            ++hand_left;
            continue;
          }
          event_builds& eb = events[{guid, ev.id, ev.version}];
          if (!eb.builds.empty() && eb.builds.back().build == b.build) continue;  // first wins
          build_layout bl;
          bl.build = b.build;
          bl.label = clean_token(ev.name);
          for (const layout_field& f : ev.fields)
            bl.fields.push_back({f.parameter ? std::string() : clean_token(f.name), f.word});
          if (ev.stopped) bl.cut_reason = ev.stop_reason;
          bl.stopped_at_struct = ev.stopped && ev.stop == layout_stop::structure_index;
          bl.plain_at_struct_index = ev.plain_at_struct_index;
          eb.builds.push_back(std::move(bl));
        }
      }
    }
  }

  // The 26H1 tables: keys the manifests don't declare.
  std::string list_text;
  std::map<std::string, std::string> listed;
  if (read_text_file(manifests + "/provider-list.txt", list_text)) listed = read_provider_list(list_text);
  for (const auto& [guid, name] : listed) guid_of_name.emplace(name, guid);
  const std::string tsv_dir = manifests + "/tsv-26h1/manifest";
  size_t table_rows = 0, table_keys = 0, unmapped = 0;
  for (const std::string& file : files_in(tsv_dir, ".tsv")) {
    std::string text;
    ++stats.files;
    if (!read_text_file(tsv_dir + "/" + file, text)) continue;
    bool header = true;
    for (const std::string& line : split_lines(text)) {
      if (header) {
        header = false;
        continue;
      }
      if (line.empty()) continue;
      std::vector<std::string> cols = split_tabs(line);
      ++table_rows;
      uint16_t id = 0, version = 0;
      if (cols.size() < 4 || !parse_u16(cols[1], id) || !parse_u16(cols[2], version) || version > 255) {
        ++stats.bad_rows;
        continue;
      }
      auto g = guid_of_name.find(cols[0]);
      if (g == guid_of_name.end()) {
        ++unmapped;
        continue;
      }
      const std::string& guid = g->second;
      if (is_hand_checked(hand, guid, id)) {
        ++hand_left;
        continue;
      }
      const event_key key{guid, id, uint8_t(version)};
      if (events.count(key)) continue;
      build_layout bl;
      bl.build = kTableBuild;
      if (!tsv_fields(cols[3], bl.label, bl.fields, bl.cut_reason)) {
        ++stats.bad_rows;
        continue;
      }
      provider_name.emplace(guid, clean_provider(cols[0]));
      events[key].builds.push_back(std::move(bl));
      ++table_keys;
    }
  }
  stats.hand_checked = hand_left;
  std::fprintf(stderr,
               "layoutgen: 26H1 tables: %zu rows, %zu (GUID, identifier, version) keys added, "
               "%zu rows of providers without a known GUID\n",
               table_rows, table_keys, unmapped);

  // Lines: providers in GUID order, identifiers ascending, newest version
  // first, builds ascending.
  std::string current;
  for (auto it = events.begin(); it != events.end(); ++it) {
    const auto& [guid, id, version] = it->first;
    if (guid != current) {
      current = guid;
      auto n = provider_name.find(guid);
      if (n != provider_name.end() && !n->second.empty() && !names.count(guid)) {
        lines.push_back("#{" + guid + "} ! " + n->second);
        names.insert(guid);
      }
    }
  }
  std::vector<const std::pair<const event_key, event_builds>*> order;
  for (const auto& e : events) order.push_back(&e);
  std::stable_sort(order.begin(), order.end(), [](const auto* a, const auto* b) {
    const auto& [ga, ia, va] = a->first;
    const auto& [gb, ib, vb] = b->first;
    if (ga != gb) return ga < gb;
    if (ia != ib) return ia < ib;
    return va > vb;
  });
  for (const auto* e : order) {
    const auto& [guid, id, version] = e->first;
    auto n = provider_name.find(guid);
    const std::string pname = n == provider_name.end() ? std::string() : n->second;
    for (const keyed_line& k : lines_of(e->second)) {
      lines.push_back(event_line(guid, id, version, k.build, *k.layout));
      gen_layout g;
      g.guid = guid;
      g.id = id;
      g.version = version;
      g.fields.push_back({k.layout->label, 0x8001});
      for (const gen_field& f : k.layout->fields) g.fields.push_back(f);
      g.cut_reason = k.layout->cut_reason;
      count_layout(stats, g, pname);
    }
  }
}

void convert_provider_list(const std::string& manifests, const std::set<std::string>& named,
                           std::vector<std::string>& lines, source_stats& stats) {
  std::string text;
  if (!read_text_file(manifests + "/provider-list.txt", text)) return;
  stats.files = 1;
  for (const auto& [guid, name] : read_provider_list(text)) {
    ++stats.rows;
    stats.provider_names.insert(guid);
    if (named.count(guid)) continue;
    lines.push_back("#{" + guid + "} ! " + name);
    ++stats.layouts;
  }
}

}  // namespace layoutgen
