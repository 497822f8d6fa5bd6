#include "tools/modsift/test_pe_builder.h"

#include <cstring>

namespace modsift_test {

namespace {

void put16(bytes& b, size_t off, uint32_t v) {
  if (b.size() < off + 2) b.resize(off + 2);
  b[off] = uint8_t(v);
  b[off + 1] = uint8_t(v >> 8);
}
void put32(bytes& b, size_t off, uint32_t v) {
  if (b.size() < off + 4) b.resize(off + 4);
  for (int i = 0; i < 4; ++i) b[off + i] = uint8_t(v >> (8 * i));
}
void append16(bytes& b, uint32_t v) { put16(b, b.size(), v); }
void append32(bytes& b, uint32_t v) { put32(b, b.size(), v); }
void align(bytes& b, size_t a) {
  while (b.size() % a) b.push_back(0);
}
// ASCII text as UTF-16LE units, no terminator.
void append_utf16(bytes& b, const std::string& s) {
  for (unsigned char c : s) append16(b, c);
}

struct lang_node {
  uint32_t language;
  const bytes* data;
  uint32_t entry_off = 0;
  uint32_t data_off = 0;
};
struct name_node {
  std::string name;
  uint32_t id;
  std::vector<lang_node> langs;
  uint32_t dir_off = 0;
  uint32_t str_off = 0;
};
struct type_node {
  std::string name;
  uint32_t id;
  std::vector<name_node> names;
  uint32_t dir_off = 0;
  uint32_t str_off = 0;
};

bytes build_rsrc(const std::vector<test_resource>& resources, uint32_t section_rva) {
  std::vector<type_node> types;
  for (const test_resource& r : resources) {
    type_node* t = nullptr;
    for (type_node& x : types)
      if (x.name == r.type_name && (!r.type_name.empty() || x.id == r.type_id)) t = &x;
    if (!t) {
      types.push_back(type_node{r.type_name, r.type_id, {}});
      t = &types.back();
    }
    name_node* n = nullptr;
    for (name_node& x : t->names)
      if (x.name == r.name && (!r.name.empty() || x.id == r.name_id)) n = &x;
    if (!n) {
      t->names.push_back(name_node{r.name, r.name_id, {}});
      n = &t->names.back();
    }
    n->langs.push_back(lang_node{r.language, &r.data});
  }
  // Offsets: directories, then data entries, then name strings, then data.
  uint32_t off = 16 + 8 * uint32_t(types.size());
  for (type_node& t : types) {
    t.dir_off = off;
    off += 16 + 8 * uint32_t(t.names.size());
  }
  for (type_node& t : types)
    for (name_node& n : t.names) {
      n.dir_off = off;
      off += 16 + 8 * uint32_t(n.langs.size());
    }
  for (type_node& t : types)
    for (name_node& n : t.names)
      for (lang_node& l : n.langs) {
        l.entry_off = off;
        off += 16;
      }
  for (type_node& t : types) {
    if (!t.name.empty()) {
      t.str_off = off;
      off += 2 + 2 * uint32_t(t.name.size());
    }
    for (name_node& n : t.names)
      if (!n.name.empty()) {
        n.str_off = off;
        off += 2 + 2 * uint32_t(n.name.size());
      }
  }
  off = (off + 7) & ~7u;
  for (type_node& t : types)
    for (name_node& n : t.names)
      for (lang_node& l : n.langs) {
        l.data_off = off;
        off += (uint32_t(l.data->size()) + 7) & ~7u;
      }

  bytes b(off, 0);
  auto write_dir = [&](uint32_t at, uint32_t named, uint32_t ids) {
    put16(b, at + 12, named);
    put16(b, at + 14, ids);
  };
  // Named entries come before the numbered ones in every directory.
  auto named_count = [](const auto& v) {
    uint32_t c = 0;
    for (const auto& x : v) c += !x.name.empty();
    return c;
  };
  write_dir(0, named_count(types), uint32_t(types.size()) - named_count(types));
  uint32_t slot = 16;
  for (int pass = 0; pass < 2; ++pass)
    for (type_node& t : types) {
      if (t.name.empty() == (pass == 0)) continue;
      put32(b, slot, t.name.empty() ? t.id : (0x80000000u | t.str_off));
      put32(b, slot + 4, 0x80000000u | t.dir_off);
      slot += 8;
    }
  for (type_node& t : types) {
    write_dir(t.dir_off, named_count(t.names), uint32_t(t.names.size()) - named_count(t.names));
    slot = t.dir_off + 16;
    for (int pass = 0; pass < 2; ++pass)
      for (name_node& n : t.names) {
        if (n.name.empty() == (pass == 0)) continue;
        put32(b, slot, n.name.empty() ? n.id : (0x80000000u | n.str_off));
        put32(b, slot + 4, 0x80000000u | n.dir_off);
        slot += 8;
      }
    for (name_node& n : t.names) {
      write_dir(n.dir_off, 0, uint32_t(n.langs.size()));
      slot = n.dir_off + 16;
      for (lang_node& l : n.langs) {
        put32(b, slot, l.language);
        put32(b, slot + 4, l.entry_off);
        slot += 8;
        put32(b, l.entry_off, section_rva + l.data_off);
        put32(b, l.entry_off + 4, uint32_t(l.data->size()));
        if (!l.data->empty()) std::memcpy(&b[l.data_off], l.data->data(), l.data->size());
      }
    }
  }
  auto write_str = [&](uint32_t at, const std::string& s) {
    put16(b, at, uint32_t(s.size()));
    for (size_t i = 0; i < s.size(); ++i) put16(b, at + 2 + 2 * i, uint8_t(s[i]));
  };
  for (type_node& t : types) {
    if (!t.name.empty()) write_str(t.str_off, t.name);
    for (name_node& n : t.names)
      if (!n.name.empty()) write_str(n.str_off, n.name);
  }
  return b;
}

}  // namespace

pe_layout layout_of_built_pe(bool pe32_plus) {
  pe_layout l;
  l.section_table = 0x40 + 24 + (pe32_plus ? 240 : 224);
  return l;
}

bytes build_pe(bool pe32_plus, const std::vector<test_resource>& resources, uint32_t section_rva) {
  bytes rsrc = build_rsrc(resources, section_rva);
  pe_layout lay = layout_of_built_pe(pe32_plus);
  const uint32_t file_align = 0x200, section_align = 0x1000;
  uint32_t raw_size = (uint32_t(rsrc.size()) + file_align - 1) & ~(file_align - 1);
  bytes b(lay.rsrc_file_offset, 0);
  b[0] = 'M';
  b[1] = 'Z';
  put32(b, 0x3C, lay.e_lfanew);
  uint32_t nt = lay.e_lfanew;
  std::memcpy(&b[nt], "PE\0\0", 4);
  put16(b, nt + 4, pe32_plus ? 0x8664 : 0x14C);
  put16(b, nt + 6, 1);  // one section
  uint32_t opt_size = pe32_plus ? 240 : 224;
  put16(b, nt + 20, opt_size);
  put16(b, nt + 22, 0x2102);  // DLL, executable
  uint32_t opt = nt + 24;
  put16(b, opt, pe32_plus ? 0x20B : 0x10B);
  put32(b, opt + 32, section_align);
  put32(b, opt + 36, file_align);
  uint32_t image_size = section_rva + ((uint32_t(rsrc.size()) + section_align - 1) & ~(section_align - 1));
  put32(b, opt + 56, image_size);
  put32(b, opt + 60, lay.rsrc_file_offset);  // SizeOfHeaders
  uint32_t dirs = opt + (pe32_plus ? 112 : 96);
  put32(b, opt + (pe32_plus ? 108 : 92), 16);
  put32(b, dirs + 16, section_rva);
  put32(b, dirs + 20, uint32_t(rsrc.size()));
  uint32_t sec = lay.section_table;
  std::memcpy(&b[sec], ".rsrc\0\0\0", 8);
  put32(b, sec + 8, uint32_t(rsrc.size()));
  put32(b, sec + 12, section_rva);
  put32(b, sec + 16, raw_size);
  put32(b, sec + 20, lay.rsrc_file_offset);
  put32(b, sec + 36, 0x40000040u);
  rsrc.resize(raw_size, 0);
  b.insert(b.end(), rsrc.begin(), rsrc.end());
  return b;
}

bytes build_version_info(uint16_t a, uint16_t b, uint16_t c, uint16_t d) {
  bytes v;
  append16(v, 0);   // wLength, set below
  append16(v, 52);  // wValueLength
  append16(v, 0);   // wType: binary
  append_utf16(v, "VS_VERSION_INFO");
  append16(v, 0);
  align(v, 4);
  append32(v, 0xFEEF04BDu);
  append32(v, 0x00010000u);
  append32(v, uint32_t(a) << 16 | b);  // file version
  append32(v, uint32_t(c) << 16 | d);
  append32(v, uint32_t(a) << 16 | b);  // product version
  append32(v, uint32_t(c) << 16 | d);
  for (int i = 0; i < 7; ++i) append32(v, 0);
  put16(v, 0, uint32_t(v.size()));
  return v;
}

bytes build_message_table(const std::vector<std::pair<uint32_t, std::string>>& messages, int form) {
  // Group runs of consecutive ids into blocks.
  std::vector<std::pair<size_t, size_t>> runs;  // [first, last] indices into messages
  for (size_t i = 0; i < messages.size(); ++i) {
    if (!runs.empty() && messages[i].first == messages[runs.back().second].first + 1)
      runs.back().second = i;
    else
      runs.push_back({i, i});
  }
  bytes b;
  append32(b, uint32_t(runs.size()));
  size_t blocks_at = b.size();
  b.resize(b.size() + 12 * runs.size(), 0);
  for (size_t r = 0; r < runs.size(); ++r) {
    put32(b, blocks_at + 12 * r, messages[runs[r].first].first);
    put32(b, blocks_at + 12 * r + 4, messages[runs[r].second].first);
    put32(b, blocks_at + 12 * r + 8, uint32_t(b.size()));
    for (size_t i = runs[r].first; i <= runs[r].second; ++i) {
      std::string text = messages[i].second + "\r\n";
      bytes body;
      if (form == 1) {
        append_utf16(body, text);
        append16(body, 0);
      } else {
        body.insert(body.end(), text.begin(), text.end());
        body.push_back(0);
      }
      align(body, 4);
      append16(b, uint32_t(body.size() + 4));
      append16(b, uint32_t(form));
      b.insert(b.end(), body.begin(), body.end());
    }
  }
  return b;
}

namespace {

// Appends a name record: its size (counting the size field), then UTF-16
// text with a terminator, padded to 4 bytes.
uint32_t append_name(bytes& b, const std::string& s) {
  uint32_t at = uint32_t(b.size());
  append32(b, 0);
  append_utf16(b, s);
  append16(b, 0);
  align(b, 4);
  put32(b, at, uint32_t(b.size() - at));
  return at;
}

}  // namespace

bytes build_crim(uint16_t major, const std::vector<t_provider>& providers) {
  bytes b;
  b.insert(b.end(), {'C', 'R', 'I', 'M'});
  append32(b, 0);  // size, set at the end
  append16(b, major);
  append16(b, 1);
  append32(b, uint32_t(providers.size()));
  size_t table = b.size();
  b.resize(b.size() + 20 * providers.size(), 0);
  for (size_t pi = 0; pi < providers.size(); ++pi) {
    const t_provider& p = providers[pi];
    std::memcpy(&b[table + 20 * pi], p.guid.data(), 16);
    uint32_t wevt = uint32_t(b.size());
    put32(b, table + 20 * pi + 16, wevt);
    bool names = major >= 5;
    bool has_prva = names && !p.name.empty();
    bool has_evta = false;
    for (const t_event& e : p.events) has_evta |= names && !e.name.empty();
    uint32_t elements = 2 + has_prva + has_evta;
    b.insert(b.end(), {'W', 'E', 'V', 'T'});
    append32(b, 0);
    append32(b, p.message_id);
    append32(b, elements);
    size_t pairs = b.size();
    b.resize(b.size() + 8 * elements, 0);
    uint32_t slot = 0;
    auto element = [&](uint32_t kind) {
      put32(b, pairs + 8 * slot, kind);
      put32(b, pairs + 8 * slot + 4, uint32_t(b.size()));
      ++slot;
    };
    // TTBL with one TEMP per template.
    element(7);
    size_t ttbl = b.size();
    b.insert(b.end(), {'T', 'T', 'B', 'L'});
    append32(b, 0);
    append32(b, uint32_t(p.templates.size()));
    std::vector<uint32_t> temp_at;
    for (const t_template& t : p.templates) {
      uint32_t at = uint32_t(b.size());
      temp_at.push_back(at);
      b.insert(b.end(), {'T', 'E', 'M', 'P'});
      append32(b, 0);
      append32(b, t.param_count);
      append32(b, uint32_t(t.properties.size()));
      append32(b, 0);  // property table offset
      append32(b, 1);
      b.resize(b.size() + 16, 0);  // GUID
      b.insert(b.end(), t.binxml.begin(), t.binxml.end());
      align(b, 4);
      uint32_t items = uint32_t(b.size());
      put32(b, at + 16, items);
      b.resize(b.size() + 20 * t.properties.size(), 0);
      for (size_t q = 0; q < t.properties.size(); ++q) {
        const t_property& pr = t.properties[q];
        size_t e = items + 20 * q;
        put32(b, e, pr.flags);
        if (pr.flags & 1) {
          put16(b, e + 4, pr.first_member);
          put16(b, e + 6, pr.member_count);
        } else {
          b[e + 4] = pr.in_type;
          b[e + 5] = pr.out_type ? pr.out_type : pr.in_type;
        }
        put16(b, e + 12, pr.count);
        put16(b, e + 14, pr.length);
        uint32_t name_at = append_name(b, pr.name);
        put32(b, e + 16, name_at);
      }
      put32(b, at + 4, uint32_t(b.size() - at));
    }
    put32(b, ttbl + 4, uint32_t(b.size() - ttbl));
    // EVNT.
    element(4);
    size_t evnt = b.size();
    b.insert(b.end(), {'E', 'V', 'N', 'T'});
    append32(b, 0);
    append32(b, uint32_t(p.events.size()));
    append32(b, 0);
    for (const t_event& e : p.events) {
      size_t at = b.size();
      b.resize(at + 48, 0);
      put16(b, at, e.id);
      b[at + 2] = e.version;
      put32(b, at + 16, 0xFFFFFFFFu);
      if (e.template_index >= 0) put32(b, at + 20, temp_at.at(size_t(e.template_index)));
    }
    put32(b, evnt + 4, uint32_t(b.size() - evnt));
    if (has_prva) {
      element(13);
      size_t at = b.size();
      b.insert(b.end(), {'P', 'R', 'V', 'A'});
      append32(b, 0);
      append32(b, 1);
      append32(b, 0x10000001u);
      append32(b, 0);
      put32(b, at + 16, uint32_t(b.size()));
      append_utf16(b, p.name);
      append16(b, 0);
      align(b, 4);
      put32(b, at + 4, uint32_t(b.size() - at));
    }
    if (has_evta) {
      element(12);
      size_t at = b.size();
      std::vector<const t_event*> named;
      for (const t_event& e : p.events)
        if (!e.name.empty()) named.push_back(&e);
      b.insert(b.end(), {'E', 'V', 'T', 'A'});
      append32(b, 0);
      append32(b, uint32_t(named.size()));
      size_t keys = b.size();
      b.resize(b.size() + 8 * named.size(), 0);
      for (size_t i = 0; i < named.size(); ++i) {
        put32(b, keys + 8 * i, uint32_t(named[i]->id) << 16 | uint32_t(named[i]->version) << 8 | 0x11);
        put32(b, keys + 8 * i + 4, uint32_t(b.size()));
        append_utf16(b, named[i]->name);
        append16(b, 0);
      }
      align(b, 4);
      put32(b, at + 4, uint32_t(b.size() - at));
    }
    put32(b, wevt + 4, uint32_t(b.size() - wevt));
  }
  put32(b, 4, uint32_t(b.size()));
  return b;
}

t_property prop(const std::string& name, uint8_t in_type, uint32_t flags, uint16_t count,
                uint16_t length) {
  t_property p;
  p.name = name;
  p.in_type = in_type;
  p.flags = flags;
  p.count = count;
  p.length = length;
  return p;
}

t_property struct_prop(const std::string& name, uint16_t first, uint16_t members, uint32_t flags,
                       uint16_t count) {
  t_property p;
  p.name = name;
  p.flags = flags;
  p.first_member = first;
  p.member_count = members;
  p.count = count;
  return p;
}

qv::guid16 guid_from(uint32_t d1) {
  qv::guid16 g{};
  for (int i = 0; i < 4; ++i) g[i] = uint8_t(d1 >> (8 * i));
  for (int i = 4; i < 16; ++i) g[i] = uint8_t(0x10 + i);
  return g;
}

}  // namespace modsift_test
