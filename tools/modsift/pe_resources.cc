#include "tools/modsift/pe_resources.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tools/modsift/modsift_text.h"

namespace modsift {

bool fetch(const input_source& src, uint64_t off, size_t n, std::vector<uint8_t>& out) {
  out.clear();
  if (off > src.size || n > src.size - off) return false;
  out.resize(n);
  if (n == 0) return true;
  if (src.mem) {
    std::memcpy(out.data(), src.mem + off, n);
    return true;
  }
  size_t done = 0;
  while (done < n) {
    ssize_t r = ::pread(src.fd, out.data() + done, n - done, static_cast<off_t>(off + done));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) {
      out.clear();
      return false;
    }
    done += static_cast<size_t>(r);
  }
  return true;
}

bool read_pe_headers(const input_source& src, pe_image& pe, std::string& reason) {
  pe = pe_image();
  std::vector<uint8_t> b;
  if (!fetch(src, 0, 64, b) || b[0] != 'M' || b[1] != 'Z') {
    reason = "not a PE file (no MZ header)";
    return false;
  }
  uint32_t nt = qv::rd_u32(b.data(), b.size(), 0x3C);
  if (!fetch(src, nt, 24, b) || std::memcmp(b.data(), "PE\0\0", 4) != 0) {
    reason = "not a PE file (no PE signature)";
    return false;
  }
  pe.machine = qv::rd_u16(b.data(), b.size(), 4);
  uint16_t section_count = qv::rd_u16(b.data(), b.size(), 6);
  uint16_t optional_size = qv::rd_u16(b.data(), b.size(), 20);
  uint64_t optional_off = uint64_t(nt) + 24;
  std::vector<uint8_t> opt;
  if (optional_size < 2 || !fetch(src, optional_off, optional_size, opt)) {
    reason = "damaged PE header (optional header)";
    return false;
  }
  uint16_t magic = qv::rd_u16(opt.data(), opt.size(), 0);
  if (magic != 0x10B && magic != 0x20B) {
    reason = "damaged PE header (unknown optional header magic)";
    return false;
  }
  pe.pe32_plus = (magic == 0x20B);
  pe.size_of_headers = qv::rd_u32(opt.data(), opt.size(), 60);
  size_t count_at = pe.pe32_plus ? 108 : 92;
  size_t dirs_at = pe.pe32_plus ? 112 : 96;
  uint32_t dir_count = qv::rd_u32(opt.data(), opt.size(), count_at);
  // The resource directory is entry 2 of the data directories; it counts only
  // when the header says it has that many entries and they fit in the header.
  if (dir_count > 2 && qv::byte_span(opt.data(), opt.size()).has(dirs_at + 16, 8)) {
    pe.resource_rva = qv::rd_u32(opt.data(), opt.size(), dirs_at + 16);
    pe.resource_size = qv::rd_u32(opt.data(), opt.size(), dirs_at + 20);
  }
  // Sections past the end of the file are dropped; the ones before stand.
  uint64_t table = optional_off + optional_size;
  for (uint32_t i = 0; i < section_count; ++i) {
    if (!fetch(src, table + uint64_t(i) * 40, 40, b)) break;
    pe_section s;
    s.virtual_size = qv::rd_u32(b.data(), b.size(), 8);
    s.virtual_address = qv::rd_u32(b.data(), b.size(), 12);
    s.raw_size = qv::rd_u32(b.data(), b.size(), 16);
    s.raw_pointer = qv::rd_u32(b.data(), b.size(), 20);
    pe.sections.push_back(s);
  }
  return true;
}

bool rva_to_offset(const input_source& src, const pe_image& pe, uint32_t rva, uint32_t n,
                   uint64_t& off) {
  for (const pe_section& s : pe.sections) {
    if (rva < s.virtual_address) continue;
    uint32_t delta = rva - s.virtual_address;
    if (delta >= s.raw_size || n > s.raw_size - delta) continue;
    uint64_t o = uint64_t(s.raw_pointer) + delta;
    if (o > src.size || n > src.size - o) continue;
    off = o;
    return true;
  }
  // Bytes in the headers sit at their RVA.
  if (rva < pe.size_of_headers && n <= pe.size_of_headers - rva && rva <= src.size &&
      n <= src.size - rva) {
    off = rva;
    return true;
  }
  return false;
}

namespace {

// The tree is at most type, name and language deep; a bigger budget of
// entries than any real image has stops a tree that refers back to itself.
constexpr size_t kEntryBudget = 1u << 20;
constexpr size_t kLeafLimit = 4096;

struct tree_walk {
  const input_source& src;
  const pe_image& pe;
  size_t budget = kEntryBudget;
};

struct dir_entry {
  uint32_t name;  // high bit: offset of a name string
  uint32_t data;  // high bit: offset of a subdirectory
};

bool fetch_rel(tree_walk& w, uint32_t rel, uint32_t n, std::vector<uint8_t>& out) {
  uint64_t rva = uint64_t(w.pe.resource_rva) + rel;
  if (rva > 0xFFFFFFFFu) return false;
  uint64_t off = 0;
  if (!rva_to_offset(w.src, w.pe, static_cast<uint32_t>(rva), n, off)) return false;
  return fetch(w.src, off, n, out);
}

bool read_dir(tree_walk& w, uint32_t rel, std::vector<dir_entry>& entries) {
  entries.clear();
  std::vector<uint8_t> b;
  if (!fetch_rel(w, rel, 16, b)) return false;
  uint32_t n = uint32_t(qv::rd_u16(b.data(), b.size(), 12)) + qv::rd_u16(b.data(), b.size(), 14);
  if (n == 0) return true;
  if (n > w.budget) return false;
  w.budget -= n;
  if (rel > 0xFFFFFFFFu - 16) return false;
  if (!fetch_rel(w, rel + 16, n * 8, b)) return false;
  entries.resize(n);
  for (uint32_t i = 0; i < n; ++i) {
    entries[i].name = qv::rd_u32(b.data(), b.size(), i * 8);
    entries[i].data = qv::rd_u32(b.data(), b.size(), i * 8 + 4);
  }
  return true;
}

// A name entry's string: a 16-bit count of UTF-16 units, then the units.
std::string read_name(tree_walk& w, uint32_t name_field) {
  std::vector<uint8_t> b;
  uint32_t rel = name_field & 0x7FFFFFFFu;
  if (!fetch_rel(w, rel, 2, b)) return std::string();
  uint32_t units = qv::rd_u16(b.data(), b.size(), 0);
  if (units == 0 || rel > 0xFFFFFFFFu - 2 || !fetch_rel(w, rel + 2, units * 2, b))
    return std::string();
  return utf16_at(qv::byte_span(b.data(), b.size()), 0, units);
}

bool read_data_entry(tree_walk& w, uint32_t rel, resource_leaf& leaf) {
  std::vector<uint8_t> b;
  if (!fetch_rel(w, rel, 16, b)) return false;
  leaf.data_rva = qv::rd_u32(b.data(), b.size(), 0);
  leaf.data_size = qv::rd_u32(b.data(), b.size(), 4);
  return true;
}

bool equal_ascii_nocase(const std::string& a, const char* b) {
  size_t n = std::strlen(b);
  if (a.size() != n) return false;
  for (size_t i = 0; i < n; ++i) {
    char x = a[i], y = b[i];
    if (x >= 'a' && x <= 'z') x = static_cast<char>(x - 32);
    if (y >= 'a' && y <= 'z') y = static_cast<char>(y - 32);
    if (x != y) return false;
  }
  return true;
}

// Collects the leaves below one type's directory: its entries are names, and
// below each name the languages. A data entry found at the name level is
// taken as a leaf of language 0.
void collect_type(tree_walk& w, uint32_t type_rel, std::vector<resource_leaf>& out) {
  std::vector<dir_entry> names, langs;
  if (!read_dir(w, type_rel, names)) return;
  for (const dir_entry& ne : names) {
    resource_leaf leaf;
    if (ne.name & 0x80000000u) leaf.name = read_name(w, ne.name);
    else leaf.name_id = ne.name;
    if (!(ne.data & 0x80000000u)) {
      if (out.size() < kLeafLimit && read_data_entry(w, ne.data, leaf)) out.push_back(leaf);
      continue;
    }
    if (!read_dir(w, ne.data & 0x7FFFFFFFu, langs)) continue;
    for (const dir_entry& le : langs) {
      if (le.data & 0x80000000u) continue;  // deeper than a language: not a leaf
      resource_leaf l = leaf;
      l.language = (le.name & 0x80000000u) ? 0 : le.name;
      if (out.size() < kLeafLimit && read_data_entry(w, le.data, l)) out.push_back(l);
    }
  }
}

}  // namespace

bool find_resources(const input_source& src, const pe_image& pe, resource_set& out) {
  out = resource_set();
  if (pe.resource_rva == 0) return false;
  tree_walk w{src, pe};
  std::vector<dir_entry> types;
  if (!read_dir(w, 0, types)) return false;
  for (const dir_entry& te : types) {
    if (!(te.data & 0x80000000u)) continue;
    uint32_t rel = te.data & 0x7FFFFFFFu;
    if (te.name & 0x80000000u) {
      if (equal_ascii_nocase(read_name(w, te.name), "WEVT_TEMPLATE")) collect_type(w, rel, out.wevt);
    } else if (te.name == 16) {
      collect_type(w, rel, out.version);
    } else if (te.name == 11) {
      collect_type(w, rel, out.messages);
    }
  }
  return true;
}

bool read_leaf(const input_source& src, const pe_image& pe, const resource_leaf& leaf,
               size_t max_size, std::vector<uint8_t>& out) {
  out.clear();
  if (leaf.data_size > max_size) return false;
  uint64_t off = 0;
  if (!rva_to_offset(src, pe, leaf.data_rva, leaf.data_size, off)) return false;
  return fetch(src, off, leaf.data_size, out);
}

bool file_version_of(qv::byte_span vi, uint16_t parts[4]) {
  // VS_VERSIONINFO: wLength, wValueLength, wType, the key "VS_VERSION_INFO"
  // with its terminator, padding to a 32-bit boundary, then VS_FIXEDFILEINFO.
  const uint32_t kSignature = 0xFEEF04BDu;
  size_t pos = 6;
  while (vi.has(pos, 2) && qv::rd_u16(vi, pos) != 0 && pos < 6 + 2 * 64) pos += 2;
  pos = (pos + 2 + 3) & ~size_t(3);
  size_t found = SIZE_MAX;
  if (vi.has(pos, 52) && qv::rd_u32(vi, pos) == kSignature) {
    found = pos;
  } else {
    // A key that isn't the usual one: look for the signature near the start.
    for (size_t p = 0; p < 256 && vi.has(p, 52); p += 4) {
      if (qv::rd_u32(vi, p) == kSignature) {
        found = p;
        break;
      }
    }
  }
  if (found == SIZE_MAX) return false;
  uint32_t ms = qv::rd_u32(vi, found + 8);
  uint32_t ls = qv::rd_u32(vi, found + 12);
  parts[0] = static_cast<uint16_t>(ms >> 16);
  parts[1] = static_cast<uint16_t>(ms);
  parts[2] = static_cast<uint16_t>(ls >> 16);
  parts[3] = static_cast<uint16_t>(ls);
  return true;
}

bool message_text_of(qv::byte_span t, uint32_t id, std::string& text) {
  text.clear();
  uint32_t blocks = qv::rd_u32(t, 0);
  if (!t.has(4, 0) || blocks > (t.size - 4) / 12) return false;
  for (uint32_t i = 0; i < blocks; ++i) {
    size_t b = 4 + size_t(i) * 12;
    uint32_t low = qv::rd_u32(t, b), high = qv::rd_u32(t, b + 4);
    size_t pos = qv::rd_u32(t, b + 8);
    if (id < low || id > high) continue;
    // Entries follow each other; each starts with its own length in bytes.
    for (uint32_t k = low; k < id; ++k) {
      if (!t.has(pos, 4)) return false;
      uint16_t len = qv::rd_u16(t, pos);
      if (len < 4) return false;
      pos += len;
    }
    if (!t.has(pos, 4)) return false;
    uint16_t len = qv::rd_u16(t, pos);
    uint16_t flags = qv::rd_u16(t, pos + 2);
    if (len < 4 || !t.has(pos, len)) return false;
    qv::byte_span body(t.data + pos + 4, len - 4u);
    if (flags & 1) {
      text = utf16_at(body, 0, body.size / 2);
    } else {
      for (size_t j = 0; j < body.size && body.data[j]; ++j) {
        if (flags & 2) text.push_back(static_cast<char>(body.data[j]));  // UTF-8 as it stands
        else append_utf8(text, body.data[j]);                            // ANSI as Latin-1
      }
    }
    size_t cut = text.find_first_of("\r\n");
    if (cut != std::string::npos) text.resize(cut);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.pop_back();
    return true;
  }
  return false;
}

}  // namespace modsift
