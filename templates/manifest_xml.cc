#include "templates/manifest_xml.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace {

using qv::kXmlNone;
using qv::xml_document;
using std::string_view;

// Items of one template, members of its structures included. The largest
// template of the Windows dumps has 220.
constexpr size_t max_template_properties = 4096;

string_view trim(string_view s) {
  size_t a = s.find_first_not_of(" \t\r\n");
  if (a == string_view::npos) return {};
  size_t b = s.find_last_not_of(" \t\r\n");
  return s.substr(a, b - a + 1);
}

// Decimal, or hexadecimal behind "0x"; no sign, no overflow.
bool parse_number(string_view s, uint64_t& out) {
  s = trim(s);
  out = 0;
  unsigned base = 10;
  if (s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) {
    base = 16;
    s.remove_prefix(2);
  }
  if (s.empty()) return false;
  uint64_t v = 0;
  for (char c : s) {
    unsigned d;
    if (c >= '0' && c <= '9') d = unsigned(c - '0');
    else if (base == 16 && c >= 'a' && c <= 'f') d = unsigned(c - 'a' + 10);
    else if (base == 16 && c >= 'A' && c <= 'F') d = unsigned(c - 'A' + 10);
    else return false;
    if (v > (UINT64_MAX - d) / base) return false;
    v = v * base + d;
  }
  out = v;
  return true;
}

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// "{xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}", braces optional, into the
// Windows binary layout.
bool parse_guid_text(string_view s, qv::guid16& g) {
  s = trim(s);
  if (s.size() == 38 && s.front() == '{' && s.back() == '}') s = s.substr(1, 36);
  if (s.size() != 36) return false;
  uint8_t text_order[16];
  size_t k = 0;
  for (size_t i = 0; i < 36;) {
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (s[i] != '-') return false;
      ++i;
      continue;
    }
    int hi = hex_digit(s[i]), lo = hex_digit(s[i + 1]);
    if (hi < 0 || lo < 0) return false;
    text_order[k++] = uint8_t(hi << 4 | lo);
    i += 2;
  }
  // Data1 and the two 16-bit words are little-endian in the binary form.
  const int order[16] = {3, 2, 1, 0, 5, 4, 7, 6, 8, 9, 10, 11, 12, 13, 14, 15};
  for (int i = 0; i < 16; ++i) g[size_t(i)] = text_order[order[i]];
  return true;
}

struct named_value {
  const char* name;
  uint64_t value;
};

const named_value in_type_names[] = {
    {"Null", 0},          {"UnicodeString", 1},  {"AnsiString", 2},    {"Int8", 3},
    {"UInt8", 4},         {"Int16", 5},          {"UInt16", 6},        {"Int32", 7},
    {"UInt32", 8},        {"Int64", 9},          {"UInt64", 10},       {"Float", 11},
    {"Double", 12},       {"Boolean", 13},       {"Binary", 14},       {"GUID", 15},
    {"Pointer", 16},      {"FILETIME", 17},      {"SYSTEMTIME", 18},   {"SID", 19},
    {"HexInt32", 20},     {"HexInt64", 21},      {"CountedUnicodeString", 22},
    {"CountedString", 22}, {"CountedUtf16String", 22}, {"CountedAnsiString", 23},
    {"CountedMbcsString", 23}, {"Struct", 24},   {"CountedBinary", 25},
};

// The standard tables of the "win:" names.
// "win:Always" is how the recreated manifests write level 0.
const named_value standard_levels[] = {
    {"win:LogAlways", 0}, {"win:Always", 0}, {"win:Critical", 1}, {"win:Error", 2},
    {"win:Warning", 3},   {"win:Informational", 4}, {"win:Verbose", 5},
};
const named_value standard_tasks[] = {{"win:None", 0}};
const named_value standard_opcodes[] = {
    {"win:Info", 0},   {"win:Start", 1},  {"win:Stop", 2},    {"win:DC_Start", 3},
    {"win:DC_Stop", 4}, {"win:Extension", 5}, {"win:Reply", 6}, {"win:Resume", 7},
    {"win:Suspend", 8}, {"win:Send", 9},   {"win:Receive", 240},
};
const named_value standard_keywords[] = {
    {"win:AnyKeyword", 0},
    {"win:ResponseTime", 0x0001000000000000ull},
    {"win:WDIContext", 0x0002000000000000ull},
    {"win:WDIDiag", 0x0004000000000000ull},
    {"win:SQM", 0x0008000000000000ull},
    {"win:AuditFailure", 0x0010000000000000ull},
    {"win:AuditSuccess", 0x0020000000000000ull},
    {"win:CorrelationHint", 0x0040000000000000ull},
    {"win:EventlogClassic", 0x0080000000000000ull},
};
// Channels that a manifest imports by their well-known names.
const named_value standard_channels[] = {
    {"TraceClassic", 0}, {"System", 8}, {"Application", 9}, {"Security", 10},
    {"TraceLogging", 11}, {"ProviderMetadata", 12},
};

template <size_t N>
bool find_named(const named_value (&table)[N], string_view name, uint64_t& out) {
  for (const named_value& e : table)
    if (name == e.name) {
      out = e.value;
      return true;
    }
  return false;
}

// Names of one provider's table, sorted once for lookups; the first of equal
// names wins.
struct name_table {
  std::vector<std::pair<string_view, uint64_t>> entries;

  void add(string_view name, uint64_t value) { entries.emplace_back(name, value); }
  void seal() {
    std::stable_sort(entries.begin(), entries.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
  }
  bool find(string_view name, uint64_t& out) const {
    auto it = std::lower_bound(entries.begin(), entries.end(), name,
                               [](const auto& e, string_view n) { return e.first < n; });
    if (it == entries.end() || it->first != name) return false;
    out = it->second;
    return true;
  }
};

std::string without_blanks(string_view s) {
  std::string out;
  for (char c : s)
    if (c != ' ') out.push_back(c);
  return out;
}

struct channel_entry {
  bool has_value = false;
  uint64_t value = 0;
  uint64_t keyword = 0;
};

struct channel_list {
  std::vector<channel_entry> entries;
  name_table names;  // chid and name -> position in entries

  // Numbers the channels that have no value of their own, and seals the names.
  void number() {
    names.seal();
    bool used[256] = {};
    for (const channel_entry& c : entries)
      if (c.has_value && c.value <= 0xFF) used[c.value] = true;
    uint64_t next = 16;
    for (channel_entry& c : entries) {
      if (c.has_value) continue;
      while (next <= 0xFF && used[next]) ++next;
      if (next > 0xFF) break;
      c.value = next;
      c.has_value = true;
      used[next] = true;
    }
  }
  bool find(string_view name, uint64_t& value, uint64_t& keyword) const {
    uint64_t position;
    if (!names.find(name, position) || position >= entries.size() || !entries[position].has_value) return false;
    value = entries[position].value;
    keyword = entries[position].keyword;
    return true;
  }
};

// One template converted; shared by every event that refers to it.
struct converted_template {
  bool done = false;
  manifest_layout layout;
  bool plain_at_struct_index = false;
};

struct reader {
  const xml_document& doc;
  const manifest_read_options& opt;
  manifest_doc& out;
  uint64_t budget;
  size_t unshown = 0;

  reader(const xml_document& d, const manifest_read_options& o, manifest_doc& m, uint64_t b)
      : doc(d), opt(o), out(m), budget(b) {}

  void problem(const std::string& what) {
    if (out.problems.size() < max_manifest_problems) out.problems.push_back(what);
    else ++unshown;
  }

  // The children of `parent` that are elements named `local`.
  template <typename F>
  void each_child(uint32_t parent, string_view local, F f) const {
    for (uint32_t c = doc.child_element(parent, local); c != kXmlNone; c = doc.next_element(c, local)) f(c);
  }

  // Fills the table from <group><item name=... value=...>.
  void read_table(uint32_t provider, string_view group, string_view item, string_view value_attr,
                  name_table& table) const {
    each_child(provider, group, [&](uint32_t g) {
      each_child(g, item, [&](uint32_t e) {
        uint64_t v;
        string_view name;
        if (doc.attribute(e, "name", name) && parse_number(doc.attribute_or_empty(e, value_attr), v))
          table.add(trim(name), v);
      });
    });
    table.seal();
  }

  // A name of the provider's table, of the standard table, or a number.
  template <size_t N>
  bool resolve(string_view text, const name_table& own, const named_value (&standard)[N], uint64_t& out) const {
    text = trim(text);
    return parse_number(text, out) || own.find(text, out) || find_named(standard, text, out);
  }

  // Finds the item named `ref` that precedes property `i`: among its
  // earlier siblings, then among the items before each enclosing structure.
  // 1 found, 0 not there, -1 out of work.
  int find_reference(string_view ref, uint32_t i, const std::vector<uint32_t>& container_of,
                     const manifest_template& t, bool recreated, uint32_t& found) {
    ref = trim(ref);
    std::string bare = recreated ? without_blanks(ref) : std::string();
    uint32_t at = i;
    for (;;) {
      uint32_t container = container_of[at];
      for (uint32_t j = at; j-- > 0;) {
        if (container_of[j] != container) continue;
        if (budget == 0) return -1;
        --budget;
        const std::string& name = t.properties[j].name;
        if (name == ref || (recreated && name == bare)) {
          found = j;
          return 1;
        }
      }
      if (container == kXmlNone) return 0;
      at = container;
    }
  }

  // length= or count= of one item: a number, or a reference.
  void size_attribute(uint32_t node, string_view attr, uint32_t i, uint32_t fixed_flag, uint32_t var_flag,
                      uint32_t& field, const std::vector<uint32_t>& container_of, manifest_template& t,
                      bool recreated) {
    string_view text;
    if (!doc.attribute(node, attr, text)) return;
    manifest_property& p = t.properties[i];
    uint64_t v;
    if (parse_number(text, v)) {
      p.flags |= fixed_flag;
      field = v > UINT32_MAX ? UINT32_MAX : uint32_t(v);
      return;
    }
    uint32_t j = 0;
    int r = find_reference(text, i, container_of, t, recreated, j);
    if (r > 0) {
      p.flags |= var_flag;
      field = j;
    } else if (p.unreadable == layout_stop::none) {
      p.unreadable = r == 0 ? layout_stop::unknown_reference : layout_stop::work_limit;
    }
  }

  converted_template convert(uint32_t tnode, bool recreated) {
    converted_template c;
    c.done = true;
    manifest_template t;
    std::vector<uint32_t> node_of, container_of;
    bool too_many = false;
    auto collect = [&](uint32_t parent, uint32_t container) {
      for (uint32_t k = doc.nodes[parent].first_child; k != kXmlNone; k = doc.nodes[k].next_sibling) {
        if (doc.nodes[k].kind != qv::xml_kind::element) continue;
        string_view local = doc.local_name(k);
        if (local != "data" && local != "struct") continue;
        if (t.properties.size() >= max_template_properties) {
          too_many = true;
          return;
        }
        t.properties.emplace_back();
        t.properties.back().name = std::string(trim(doc.attribute_or_empty(k, "name")));
        node_of.push_back(k);
        container_of.push_back(container);
      }
    };
    collect(tnode, kXmlNone);
    t.param_count = uint32_t(t.properties.size());
    bool has_struct = false;
    // Members go behind all top-level items, structure by structure.
    for (uint32_t i = 0; i < t.properties.size() && !too_many; ++i) {
      if (doc.local_name(node_of[i]) != "struct") continue;
      has_struct = true;
      uint32_t first = uint32_t(t.properties.size());
      collect(node_of[i], i);
      t.properties[i].flags |= property_struct;
      t.properties[i].first_member = first;
      t.properties[i].member_count = uint32_t(t.properties.size()) - first;
    }
    if (too_many) {
      t.properties.resize(t.param_count ? 1 : 0);
      t.param_count = t.param_count ? 1 : 0;
      if (!t.properties.empty()) t.properties[0].unreadable = layout_stop::work_limit;
    }
    for (uint32_t i = 0; i < t.properties.size() && !too_many; ++i) {
      manifest_property& p = t.properties[i];
      uint32_t node = node_of[i];
      if (!(p.flags & property_struct)) {
        uint32_t type = 0;
        if (!manifest_in_type(trim(doc.attribute_or_empty(node, "inType")), type))
          p.unreadable = layout_stop::unknown_in_type;
        p.in_type = type > 255 ? 0 : uint8_t(type);
        size_attribute(node, "length", i, property_fixed_length, property_var_length, p.length, container_of, t,
                       recreated);
      }
      size_attribute(node, "count", i, property_fixed_count, property_var_count, t.properties[i].count,
                     container_of, t, recreated);
    }
    if (recreated && !has_struct && !too_many) mark_structures(t, node_of, c);
    c.layout = layout_of(t, budget);
    return c;
  }

  // Recreated metadata: finds the first structure written as its start
  // index, by the rule told in the header.
  void mark_structures(manifest_template& t, const std::vector<uint32_t>& node_of, converted_template& c) {
    const uint32_t n_top = t.param_count;
    std::vector<int64_t> number(n_top, -1);
    bool evidence = false, plain_at_index = false;
    for (uint32_t i = 0; i < n_top; ++i) {
      uint32_t type;
      if (!manifest_in_type(trim(doc.attribute_or_empty(node_of[i], "inType")), type)) continue;
      number[i] = type;
      bool counted = doc.attribute_or_empty(node_of[i], "count").size() > 0;
      bool no_in_type = type == 24 || type > 25;
      if ((type >= n_top && no_in_type) || (type == n_top && counted)) evidence = true;
      if (type == n_top) plain_at_index = true;
    }
    if (!evidence) {
      c.plain_at_struct_index = plain_at_index;
      return;
    }
    for (uint32_t i = 0; i < n_top; ++i) {
      int64_t v = number[i];
      if (v == int64_t(n_top) || (v >= int64_t(n_top) && (v == 24 || v > 25))) {
        t.properties[i].unreadable = layout_stop::structure_index;
        return;
      }
    }
  }

  void read_provider(uint32_t p) {
    manifest_provider mp;
    mp.name = std::string(trim(doc.attribute_or_empty(p, "name")));
    mp.symbol = std::string(trim(doc.attribute_or_empty(p, "symbol")));
    std::string who = "provider " + (mp.name.empty() ? std::string(doc.attribute_or_empty(p, "guid")) : mp.name);
    if (!parse_guid_text(doc.attribute_or_empty(p, "guid"), mp.guid)) {
      problem(who + ": no readable GUID, passed over");
      return;
    }
    mp.recreated = opt.recreated == recreated_form::yes ||
                   (opt.recreated == recreated_form::when_marked && doc.attribute_or_empty(p, "source") == "Xml");

    name_table levels, tasks, opcodes, keywords, task_nodes, templates;
    read_table(p, "levels", "level", "value", levels);
    read_table(p, "tasks", "task", "value", tasks);
    read_table(p, "opcodes", "opcode", "value", opcodes);
    read_table(p, "keywords", "keyword", "mask", keywords);
    each_child(p, "tasks", [&](uint32_t g) {
      each_child(g, "task", [&](uint32_t e) { task_nodes.add(trim(doc.attribute_or_empty(e, "name")), e); });
    });
    task_nodes.seal();
    each_child(p, "templates", [&](uint32_t g) {
      each_child(g, "template", [&](uint32_t e) { templates.add(trim(doc.attribute_or_empty(e, "tid")), e); });
    });
    templates.seal();
    // Channels by chid and by name, in the order the provider lists them:
    // their own value, else the well-known value of an imported channel,
    // else the lowest value from 16 up that no channel has, as the message
    // compiler numbers them. The first eight also give their events a
    // keyword bit, from bit 63 down, as the compiler sets it.
    channel_list channels;
    each_child(p, "channels", [&](uint32_t g) {
      for (uint32_t e = doc.nodes[g].first_child; e != kXmlNone; e = doc.nodes[e].next_sibling) {
        if (doc.nodes[e].kind != qv::xml_kind::element) continue;
        string_view local = doc.local_name(e);
        if (local != "channel" && local != "importChannel") continue;
        channel_entry c;
        string_view name = trim(doc.attribute_or_empty(e, "name"));
        c.has_value = parse_number(doc.attribute_or_empty(e, "value"), c.value) ||
                      (local == "importChannel" && find_named(standard_channels, name, c.value));
        size_t position = channels.entries.size();
        c.keyword = position < 8 ? uint64_t(1) << (63 - position) : 0;
        channels.entries.push_back(c);
        string_view chid = trim(doc.attribute_or_empty(e, "chid"));
        if (!chid.empty()) channels.names.add(chid, position);
        if (!name.empty()) channels.names.add(name, position);
      }
    });
    channels.number();

    std::vector<converted_template> cache(templates.entries.size());
    each_child(p, "events", [&](uint32_t g) {
      each_child(g, "event", [&](uint32_t e) {
        read_event(e, mp, who, levels, tasks, opcodes, keywords, task_nodes, templates, channels, cache);
      });
    });
    out.providers.push_back(std::move(mp));
  }

  void read_event(uint32_t e, manifest_provider& mp, const std::string& who, const name_table& levels,
                  const name_table& tasks, const name_table& opcodes, const name_table& keywords,
                  const name_table& task_nodes, const name_table& templates, const channel_list& channels,
                  std::vector<converted_template>& cache) {
    uint64_t v = 0;
    if (!parse_number(doc.attribute_or_empty(e, "value"), v) || v > 0xFFFF) {
      problem(who + ": an event without a readable value (\"" +
              std::string(doc.attribute_or_empty(e, "value")) + "\"), passed over");
      return;
    }
    manifest_event ev;
    ev.id = uint16_t(v);
    string_view text;
    if (doc.attribute(e, "version", text)) {
      if (!parse_number(text, v) || v > 0xFF) {
        problem(who + ": event " + std::to_string(ev.id) + ": version \"" + std::string(text) +
                "\" unreadable, passed over");
        return;
      }
      ev.version = uint8_t(v);
    }
    std::string what = who + ": event " + std::to_string(ev.id) + " version " + std::to_string(ev.version);
    auto unknown = [&](const char* kind, string_view name) {
      problem(what + ": unknown " + kind + " \"" + std::string(name) + "\"");
    };
    if (doc.attribute(e, "level", text)) {
      if (resolve(text, levels, standard_levels, v) && v <= 0xFF) ev.level = uint8_t(v);
      else unknown("level", text);
    }
    uint64_t task_node = kXmlNone;
    if (doc.attribute(e, "task", text)) {
      if (resolve(text, tasks, standard_tasks, v) && v <= 0xFFFF) ev.task = uint16_t(v);
      else unknown("task", text);
      task_nodes.find(trim(text), task_node);
    }
    if (doc.attribute(e, "opcode", text)) {
      // A task's own opcodes first.
      bool found = false;
      string_view name = trim(text);
      if (task_node != kXmlNone) {
        each_child(uint32_t(task_node), "opcodes", [&](uint32_t g) {
          each_child(g, "opcode", [&](uint32_t o) {
            if (!found && trim(doc.attribute_or_empty(o, "name")) == name &&
                parse_number(doc.attribute_or_empty(o, "value"), v))
              found = true;
          });
        });
      }
      if (found || resolve(text, opcodes, standard_opcodes, v)) {
        if (v <= 0xFF) ev.opcode = uint8_t(v);
        else unknown("opcode", text);
      } else {
        unknown("opcode", text);
      }
    }
    if (doc.attribute(e, "keywords", text)) {
      size_t pos = 0;
      while (pos < text.size()) {
        size_t end = text.find_first_of(" \t\r\n", pos);
        if (end == string_view::npos) end = text.size();
        string_view word = text.substr(pos, end - pos);
        pos = end + 1;
        if (word.empty()) continue;
        if (resolve(word, keywords, standard_keywords, v)) ev.keywords |= v;
        else unknown("keyword", word);
      }
    }
    if (doc.attribute(e, "channel", text)) {
      uint64_t keyword = 0;
      if ((parse_number(text, v) || channels.find(trim(text), v, keyword) ||
           find_named(standard_channels, trim(text), v)) &&
          v <= 0xFF) {
        ev.channel = uint8_t(v);
        ev.keywords |= keyword;
      } else {
        unknown("channel", text);
      }
    }
    ev.symbol = std::string(trim(doc.attribute_or_empty(e, "symbol")));
    ev.name = std::string(trim(doc.attribute_or_empty(e, "name")));
    if (ev.name.empty() && opt.symbol_as_name) ev.name = ev.symbol;

    if (doc.attribute(e, "template", text) && !trim(text).empty()) {
      ev.template_id = std::string(trim(text));
      auto it = std::lower_bound(templates.entries.begin(), templates.entries.end(), trim(text),
                                 [](const auto& x, string_view n) { return x.first < n; });
      if (it != templates.entries.end() && it->first == trim(text)) {
        converted_template& c = cache[size_t(it - templates.entries.begin())];
        if (!c.done) c = convert(uint32_t(it->second), mp.recreated);
        ev.has_template = true;
        ev.fields = c.layout.fields;
        ev.stopped = c.layout.stopped;
        ev.stop = c.layout.stop;
        if (ev.stopped) {
          ev.stop_reason = layout_stop_text(ev.stop);
          ev.stop_item = ev.fields.empty() ? std::string() : ev.fields.back().name;
        }
        ev.plain_at_struct_index = c.plain_at_struct_index;
      } else {
        problem(what + ": template \"" + ev.template_id + "\" isn't there");
      }
    }
    mp.events.push_back(std::move(ev));
  }

  void run() {
    for (uint32_t i = 0; i < doc.nodes.size(); ++i) {
      if (doc.nodes[i].kind != qv::xml_kind::element || doc.local_name(i) != "provider") continue;
      bool nested = false;
      for (uint32_t a = doc.nodes[i].parent; a != kXmlNone && !nested; a = doc.nodes[a].parent)
        nested = doc.local_name(a) == "provider";
      if (!nested) read_provider(i);
    }
    if (unshown) out.problems.push_back(std::to_string(unshown) + " more problems not shown");
  }
};

}  // namespace

bool manifest_in_type(std::string_view name, uint32_t& out) {
  size_t colon = name.rfind(':');
  string_view local = colon == string_view::npos ? name : name.substr(colon + 1);
  uint64_t v;
  if (find_named(in_type_names, local, v)) {
    out = uint32_t(v);
    return true;
  }
  if (!local.empty() && local.find_first_not_of("0123456789") == string_view::npos && parse_number(local, v) &&
      v <= 0xFFFF) {
    out = uint32_t(v);
    return true;
  }
  return false;
}

bool read_manifest_xml(const uint8_t* data, size_t size, const manifest_read_options& options,
                       manifest_doc& out, std::string& reason) {
  out = manifest_doc();
  qv::xml_options xo;
  xo.limits = options.limits;
  // Value and bit maps, string tables: nothing here needs them, and in the
  // dumps of Windows builds they hold the quotes and "<" that make some
  // files malformed.
  xo.skip = {"maps", "localization", "stringTable"};
  xml_document doc;
  if (!qv::parse_xml(data, size, xo, doc, reason)) return false;
  if (doc.local_name(0) != "instrumentationManifest") {
    reason = "not an instrumentation manifest (root element <" + std::string(doc.str(doc.nodes[0].name)) + ">)";
    return false;
  }
  // The conversion's work is bounded by the size of the input, as for the
  // compiled form.
  reader r(doc, options, out, 4 * uint64_t(size) + 100000);
  r.run();
  return true;
}
