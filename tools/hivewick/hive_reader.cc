#include "tools/hivewick/hive_reader.h"

#include <algorithm>
#include <cstdio>

namespace hivewick {

namespace {

constexpr uint32_t hbin_header_size = 32;
constexpr uint32_t key_node_fixed = 76;  // nk fields ahead of the name
constexpr uint32_t value_fixed = 20;     // vk fields ahead of the name
constexpr int max_index_depth = 8;       // "ri" inside "ri": never deeper in a real hive
constexpr size_t max_problems = 200;

bool sig_is(qv::byte_span d, char a, char b) {
  return d.size >= 2 && d.data[0] == uint8_t(a) && d.data[1] == uint8_t(b);
}

std::string hex32(uint32_t v) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "0x%x", v);
  return buf;
}

void put_utf8(std::string& out, uint32_t cp) {
  if (cp < 0x80) {
    out += char(cp);
  } else if (cp < 0x800) {
    out += char(0xC0 | (cp >> 6));
    out += char(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += char(0xE0 | (cp >> 12));
    out += char(0x80 | ((cp >> 6) & 0x3F));
    out += char(0x80 | (cp & 0x3F));
  } else {
    out += char(0xF0 | (cp >> 18));
    out += char(0x80 | ((cp >> 12) & 0x3F));
    out += char(0x80 | ((cp >> 6) & 0x3F));
    out += char(0x80 | (cp & 0x3F));
  }
}

// Next code point of UTF-8 text; a byte that doesn't start a well-formed
// sequence stands for itself, so text from a command line of any encoding
// still compares byte for byte.
uint32_t next_code_point(std::string_view s, size_t& i) {
  uint8_t b = uint8_t(s[i]);
  size_t need = 0;
  uint32_t cp = 0;
  if (b >= 0xC2 && b <= 0xDF) {
    need = 1;
    cp = b & 0x1F;
  } else if (b >= 0xE0 && b <= 0xEF) {
    need = 2;
    cp = b & 0x0F;
  } else if (b >= 0xF0 && b <= 0xF4) {
    need = 3;
    cp = b & 0x07;
  }
  if (need == 0 || need > s.size() - i - 1) {
    ++i;
    return b;
  }
  for (size_t k = 1; k <= need; ++k) {
    uint8_t c = uint8_t(s[i + k]);
    if ((c & 0xC0) != 0x80) {
      ++i;
      return b;
    }
    cp = (cp << 6) | (c & 0x3F);
  }
  i += need + 1;
  return cp;
}

// Upper case of one character as the registry compares names: ASCII,
// Latin-1, Latin Extended-A, Greek, Cyrillic and the full-width letters.
uint32_t upcase(uint32_t c) {
  if (c < 0x80) return (c >= 'a' && c <= 'z') ? c - 0x20 : c;
  if (c >= 0xE0 && c <= 0xFE && c != 0xF7) return c - 0x20;
  if (c == 0xFF) return 0x178;
  if (c >= 0x100 && c <= 0x17F) {
    if ((c >= 0x100 && c <= 0x12F) || (c >= 0x132 && c <= 0x137) || (c >= 0x14A && c <= 0x177))
      return (c & 1) ? c - 1 : c;
    if ((c >= 0x139 && c <= 0x148) || (c >= 0x179 && c <= 0x17E)) return (c & 1) ? c : c - 1;
    return c;
  }
  if ((c >= 0x3B1 && c <= 0x3C1) || (c >= 0x3C3 && c <= 0x3CB)) return c - 0x20;
  if (c == 0x3C2) return 0x3A3;
  if (c >= 0x430 && c <= 0x44F) return c - 0x20;
  if (c >= 0x450 && c <= 0x45F) return c - 0x50;
  if (c >= 0xFF41 && c <= 0xFF5A) return c - 0x20;
  return c;
}

bool is_hive_alias(std::string_view e) {
  static const char* const aliases[] = {"HKLM", "HKEY_LOCAL_MACHINE", "HKU", "HKEY_USERS",
                                        "HKCU", "HKEY_CURRENT_USER"};
  for (const char* a : aliases)
    if (names_equal(e, a)) return true;
  return false;
}

// Names a hive file goes by on a Windows machine.
bool is_hive_file_name(std::string_view e) {
  static const char* const names[] = {"SOFTWARE",    "SYSTEM",     "SAM",          "SECURITY",
                                      "DEFAULT",     "COMPONENTS", "DRIVERS",      "ELAM",
                                      "BCD00000000", "NTUSER.DAT", "USRCLASS.DAT", "AMCACHE.HVE"};
  for (const char* n : names)
    if (names_equal(e, n)) return true;
  return false;
}

}  // namespace

// ---- Names and text ------------------------------------------------------

std::string latin1_to_utf8(const uint8_t* data, size_t size) {
  std::string out;
  out.reserve(size);
  for (size_t i = 0; i < size; ++i) put_utf8(out, data[i]);
  return out;
}

std::string utf16_to_utf8(const uint8_t* data, size_t size, bool stop_at_nul) {
  std::string out;
  size_t units = size / 2;
  out.reserve(units);
  for (size_t i = 0; i < units; ++i) {
    uint32_t u = uint32_t(data[2 * i]) | (uint32_t(data[2 * i + 1]) << 8);
    if (u == 0 && stop_at_nul) break;
    if (u >= 0xD800 && u <= 0xDBFF && i + 1 < units) {
      uint32_t lo = uint32_t(data[2 * i + 2]) | (uint32_t(data[2 * i + 3]) << 8);
      if (lo >= 0xDC00 && lo <= 0xDFFF) {
        put_utf8(out, 0x10000 + ((u - 0xD800) << 10) + (lo - 0xDC00));
        ++i;
        continue;
      }
    }
    if (u >= 0xD800 && u <= 0xDFFF) u = 0xFFFD;
    put_utf8(out, u);
  }
  return out;
}

bool names_equal(std::string_view a, std::string_view b) {
  size_t i = 0, j = 0;
  while (i < a.size() && j < b.size()) {
    if (upcase(next_code_point(a, i)) != upcase(next_code_point(b, j))) return false;
  }
  return i == a.size() && j == b.size();
}

std::string value_text(uint32_t type, const std::vector<uint8_t>& data) {
  const uint8_t* p = data.data();
  size_t n = data.size();
  switch (type) {
    case REG_SZ:
    case REG_EXPAND_SZ:
    case REG_LINK:
      return utf16_to_utf8(p, n, true);
    case REG_MULTI_SZ: {
      // Items end at a zero unit; an empty item ends the list.
      std::string out;
      size_t units = n / 2, start = 0;
      for (size_t i = 0; i <= units; ++i) {
        bool end = i == units || (p[2 * i] == 0 && p[2 * i + 1] == 0);
        if (!end) continue;
        if (i == start) break;
        if (!out.empty()) out += ';';
        out += utf16_to_utf8(p + 2 * start, 2 * (i - start), false);
        start = i + 1;
      }
      return out;
    }
    case REG_DWORD:
      if (n == 4) return std::to_string(qv::rd_u32(p, n, 0));
      break;
    case REG_DWORD_BIG_ENDIAN:
      if (n == 4)
        return std::to_string((uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) |
                              (uint32_t(p[2]) << 8) | uint32_t(p[3]));
      break;
    case REG_QWORD:
      if (n == 8) return std::to_string(qv::rd_u64(p, n, 0));
      break;
    default:
      break;
  }
  static const char digits[] = "0123456789abcdef";
  std::string out;
  out.reserve(n * 2);
  for (size_t i = 0; i < n; ++i) {
    out += digits[p[i] >> 4];
    out += digits[p[i] & 15];
  }
  return out;
}

// ---- The hive ------------------------------------------------------------

bool hive::noting() {
  if (problems_.size() < max_problems) return true;
  ++problems_dropped_;
  return false;
}

void hive::reset_budget() {
  budget_ = uint64_t(file_.size) * 8 + (1u << 20);
  budget_reported_ = false;
}

bool hive::spend(uint64_t units) {
  if (units <= budget_) {
    budget_ -= units;
    return true;
  }
  if (!budget_reported_) {
    if (noting())
      problems_.push_back(
          "cells are reached over and over (shared or looped lists): reading stopped");
    budget_reported_ = true;
  }
  budget_ = 0;
  return false;
}

bool hive::open(qv::byte_span bytes) {
  file_ = bytes;
  base_ = base_block();
  bins_.clear();
  clear_problems();
  reset_budget();

  const uint8_t* d = bytes.data;
  const size_t size = bytes.size;
  if (size < 4) {
    if (noting()) problems_.push_back("file too short to be a hive");
    return false;
  }
  if (!(d[0] == 'r' && d[1] == 'e' && d[2] == 'g' && d[3] == 'f')) {
    if (noting()) problems_.push_back("not a registry hive (no \"regf\" signature)");
    return false;
  }
  if (size < base_block_size + hbin_header_size) {
    if (noting()) problems_.push_back("file too short to hold a hive bin");
    return false;
  }

  base_.sequence1 = qv::rd_u32(d, size, 4);
  base_.sequence2 = qv::rd_u32(d, size, 8);
  base_.time_stamp = qv::rd_u64(d, size, 12);
  base_.major = qv::rd_u32(d, size, 20);
  base_.minor = qv::rd_u32(d, size, 24);
  base_.type = qv::rd_u32(d, size, 28);
  base_.format = qv::rd_u32(d, size, 32);
  base_.root_cell = qv::rd_u32(d, size, 36);
  base_.length = qv::rd_u32(d, size, 40);
  base_.file_name = utf16_to_utf8(d + 48, 64, true);
  base_.checksum = qv::rd_u32(d, size, 508);
  uint32_t sum = 0;
  for (size_t off = 0; off < 508; off += 4) sum ^= qv::rd_u32(d, size, off);
  if (sum == 0xFFFFFFFFu) sum = 0xFFFFFFFEu;
  if (sum == 0) sum = 1;
  base_.checksum_computed = sum;

  if (base_.dirty())
    if (noting())
      problems_.push_back("hive is dirty (sequence numbers " + std::to_string(base_.sequence1) +
                          " and " + std::to_string(base_.sequence2) +
                          " differ): read as it stands, without its transaction logs");
  if (!base_.checksum_ok())
    if (noting())
      problems_.push_back("base block checksum " + hex32(base_.checksum) +
                          " doesn't match its bytes (" + hex32(base_.checksum_computed) + ")");
  if (base_.major != 1)
    if (noting())
      problems_.push_back("unknown hive format version " + std::to_string(base_.major) + "." +
                          std::to_string(base_.minor));
  if (base_.type != 0)
    if (noting())
      problems_.push_back("file type " + std::to_string(base_.type) +
                          " is not that of a primary hive file");

  // Map the hive bins. A bin header that doesn't make sense inside the
  // declared data starts a search for the next one on a 4096-byte boundary;
  // past the declared data the walk just ends (slack of a padded file).
  const uint64_t declared_end = uint64_t(base_block_size) + base_.length;
  if (declared_end > size)
    if (noting())
      problems_.push_back("hive data (" + std::to_string(base_.length) +
                          " bytes) runs past the end of the file");
  uint64_t pos = base_block_size;
  bool in_damage = false;
  while (pos <= size && hbin_header_size <= size - pos) {
    const uint8_t* h = d + pos;
    uint32_t bin_size = qv::rd_u32(d, size, pos + 8);
    bool good = h[0] == 'h' && h[1] == 'b' && h[2] == 'i' && h[3] == 'n' && bin_size >= 4096 &&
                bin_size % 4096 == 0;
    if (good) {
      uint64_t end = pos + bin_size;
      if (end > size) {
        if (noting())
          problems_.push_back("hive bin at file offset " + std::to_string(pos) +
                              " is cut by the end of the file");
        end = size;
      }
      bins_.push_back({pos, end});
      pos = end;
      in_damage = false;
      continue;
    }
    if (pos >= declared_end) break;
    if (!in_damage)
      if (noting())
        problems_.push_back("damaged hive bin header at file offset " + std::to_string(pos) +
                            ": looking for the next bin");
    in_damage = true;
    pos += 4096;
  }
  if (bins_.empty()) {
    if (noting()) problems_.push_back("no hive bin found");
    return false;
  }
  return true;
}

bool hive::cell(uint32_t index, qv::byte_span& out) {
  out = qv::byte_span();
  if (index == no_cell) return false;
  const uint64_t pos = uint64_t(base_block_size) + index;
  auto it = std::upper_bound(bins_.begin(), bins_.end(), pos,
                             [](uint64_t p, const bin_range& b) { return p < b.start; });
  if (it == bins_.begin()) return false;
  --it;
  if (pos >= it->end || pos < it->start + hbin_header_size || it->end - pos < 8) return false;
  uint32_t raw = qv::rd_u32(file_, size_t(pos));
  // Allocated cells carry a negative size, free ones a positive size.
  uint32_t cell_size = (raw & 0x80000000u) ? 0u - raw : raw;
  if (cell_size < 8) return false;
  uint64_t avail = it->end - pos;
  if (cell_size > avail) {
    if (noting())
      problems_.push_back("cell " + hex32(index) + " runs past the end of its hive bin");
    cell_size = uint32_t(avail);
  }
  out = qv::byte_span(file_.data + pos + 4, cell_size - 4);
  return true;
}

bool hive::root_key(key_node& out) {
  if (!read_key(base_.root_cell, out)) {
    if (noting()) problems_.push_back("root key cell " + hex32(base_.root_cell) + " can't be read");
    return false;
  }
  return true;
}

bool hive::read_key(uint32_t index, key_node& out) {
  out = key_node();
  qv::byte_span d;
  if (!cell(index, d)) {
    if (noting()) problems_.push_back("key cell " + hex32(index) + " lies outside the hive bins");
    return false;
  }
  if (d.size < key_node_fixed || !sig_is(d, 'n', 'k')) {
    if (noting()) problems_.push_back("cell " + hex32(index) + " is not a key node");
    return false;
  }
  size_t name_size = qv::rd_u16(d, 72);
  if (!spend(key_node_fixed + name_size)) return false;
  out.cell = index;
  out.flags = qv::rd_u16(d, 2);
  out.last_written = qv::rd_u64(d, 4);
  out.parent = qv::rd_u32(d, 16);
  out.subkey_count = qv::rd_u32(d, 20);
  out.subkey_list = qv::rd_u32(d, 28);
  out.value_count = qv::rd_u32(d, 36);
  out.value_list = qv::rd_u32(d, 40);
  if (name_size > d.size - key_node_fixed) {
    if (noting())
      problems_.push_back("name of key cell " + hex32(index) + " is cut by the end of its cell");
    name_size = d.size - key_node_fixed;
  }
  const uint8_t* name = d.data + key_node_fixed;
  out.name = (out.flags & KEY_COMP_NAME) ? latin1_to_utf8(name, name_size)
                                         : utf16_to_utf8(name, name_size, false);
  return true;
}

bool hive::read_list(uint32_t list, int depth, std::vector<uint32_t>& out,
                     std::unordered_set<uint32_t>& seen_lists) {
  if (depth > max_index_depth) {
    if (noting()) problems_.push_back("subkey index " + hex32(list) + " is nested too deep");
    return false;
  }
  // A list met twice in one walk is a loop.
  if (!seen_lists.insert(list).second) {
    if (noting()) problems_.push_back("subkey list " + hex32(list) + " is reached twice");
    return false;
  }

  qv::byte_span d;
  if (!cell(list, d) || d.size < 4) {
    if (noting()) problems_.push_back("subkey list cell " + hex32(list) + " can't be read");
    return false;
  }
  size_t stride = 0;
  bool index_of_lists = false;
  if (sig_is(d, 'l', 'f') || sig_is(d, 'l', 'h')) {
    stride = 8;  // cell index, then a name hint or hash
  } else if (sig_is(d, 'l', 'i')) {
    stride = 4;
  } else if (sig_is(d, 'r', 'i')) {
    stride = 4;
    index_of_lists = true;
  } else {
    if (noting()) problems_.push_back("cell " + hex32(list) + " is not a subkey list");
    return false;
  }
  bool ok = true;
  size_t count = qv::rd_u16(d, 2);
  size_t room = (d.size - 4) / stride;
  if (count > room) {
    if (noting())
      problems_.push_back("subkey list " + hex32(list) + " holds " + std::to_string(room) +
                          " of its " + std::to_string(count) + " entries");
    count = room;
    ok = false;
  }
  if (!spend(uint64_t(count) * 4)) return false;
  for (size_t i = 0; i < count; ++i) {
    uint32_t entry = qv::rd_u32(d, 4 + i * stride);
    if (index_of_lists) {
      if (!read_list(entry, depth + 1, out, seen_lists)) ok = false;
    } else {
      out.push_back(entry);
    }
  }
  return ok;
}

bool hive::subkey_cells(const key_node& key, std::vector<uint32_t>& out) {
  if (key.subkey_count == 0) return true;
  if (key.subkey_list == no_cell) {
    if (noting())
      problems_.push_back("key \"" + key.name + "\" counts " + std::to_string(key.subkey_count) +
                          " subkeys but has no subkey list");
    return false;
  }
  std::unordered_set<uint32_t> seen;
  size_t before = out.size();
  bool ok = read_list(key.subkey_list, 0, out, seen);
  size_t found = out.size() - before;
  if (ok && found != key.subkey_count)
    if (noting())
      problems_.push_back("key \"" + key.name + "\" counts " + std::to_string(key.subkey_count) +
                          " subkeys, its list holds " + std::to_string(found));
  return ok;
}

bool hive::read_value(uint32_t index, value_record& out) {
  out = value_record();
  qv::byte_span d;
  if (!cell(index, d)) {
    if (noting()) problems_.push_back("value cell " + hex32(index) + " lies outside the hive bins");
    return false;
  }
  if (d.size < value_fixed || !sig_is(d, 'v', 'k')) {
    if (noting()) problems_.push_back("cell " + hex32(index) + " is not a value record");
    return false;
  }
  size_t name_size = qv::rd_u16(d, 2);
  if (!spend(value_fixed + name_size)) return false;
  out.cell = index;
  out.data_size = qv::rd_u32(d, 4);
  out.data_offset = qv::rd_u32(d, 8);
  out.type = qv::rd_u32(d, 12);
  out.flags = qv::rd_u16(d, 16);
  if (name_size > d.size - value_fixed) {
    if (noting())
      problems_.push_back("name of value cell " + hex32(index) + " is cut by the end of its cell");
    name_size = d.size - value_fixed;
  }
  const uint8_t* name = d.data + value_fixed;
  out.name = (out.flags & VALUE_COMP_NAME) ? latin1_to_utf8(name, name_size)
                                           : utf16_to_utf8(name, name_size, false);
  return true;
}

bool hive::read_values(const key_node& key, std::vector<value_record>& out) {
  if (key.value_count == 0) return true;
  qv::byte_span d;
  if (!cell(key.value_list, d)) {
    if (noting()) problems_.push_back("value list of key \"" + key.name + "\" can't be read");
    return false;
  }
  bool ok = true;
  size_t count = key.value_count;
  if (count > d.size / 4) {
    if (noting())
      problems_.push_back("value list of key \"" + key.name + "\" holds " +
                          std::to_string(d.size / 4) + " of its " + std::to_string(count) +
                          " entries");
    count = d.size / 4;
    ok = false;
  }
  if (!spend(uint64_t(count) * 4)) return false;
  for (size_t i = 0; i < count; ++i) {
    value_record v;
    if (read_value(qv::rd_u32(d, 4 * i), v))
      out.push_back(std::move(v));
    else
      ok = false;
  }
  return ok;
}

bool hive::value_data(const value_record& v, std::vector<uint8_t>& out) {
  out.clear();
  const uint32_t size = v.size();
  auto who = [&v] { return "data of value \"" + v.name + "\""; };
  if (v.data_inline()) {
    // Up to four bytes are kept in the offset field itself.
    uint8_t b[4];
    qv::wr_u32(b, v.data_offset);
    out.assign(b, b + std::min<uint32_t>(size, 4));
    if (size > 4) {
      if (noting())
        problems_.push_back(who() + ": " + std::to_string(size) + " bytes can't be kept inline");
      return false;
    }
    return true;
  }
  if (size == 0) return true;
  qv::byte_span d;
  if (!cell(v.data_offset, d)) {
    if (noting()) problems_.push_back(who() + ": cell " + hex32(v.data_offset) + " can't be read");
    return false;
  }
  if (size > d.size && size > big_data_segment && d.size >= 8 && sig_is(d, 'd', 'b')) {
    // Big data: a list of segment cells, each holding up to 16344 bytes.
    size_t segments = qv::rd_u16(d, 2);
    qv::byte_span list;
    if (!cell(qv::rd_u32(d, 4), list)) {
      if (noting()) problems_.push_back(who() + ": its segment list can't be read");
      return false;
    }
    segments = std::min(segments, list.size / 4);
    out.reserve(std::min<size_t>(size, file_.size));
    std::unordered_set<uint32_t> seen;
    uint32_t left = size;
    for (size_t i = 0; i < segments && left > 0; ++i) {
      uint32_t seg_index = qv::rd_u32(list, 4 * i);
      qv::byte_span seg;
      if (!seen.insert(seg_index).second || !cell(seg_index, seg)) break;
      size_t take = std::min<size_t>({left, big_data_segment, seg.size});
      if (!spend(take)) break;
      out.insert(out.end(), seg.data, seg.data + take);
      left -= uint32_t(take);
    }
    if (left > 0) {
      if (noting())
        problems_.push_back(who() + ": " + std::to_string(size - left) + " of " +
                            std::to_string(size) + " bytes could be read");
      return false;
    }
    return true;
  }
  size_t take = std::min<size_t>(size, d.size);
  if (!spend(take)) return false;
  out.assign(d.data, d.data + take);
  if (take < size) {
    if (noting())
      problems_.push_back(who() + ": " + std::to_string(take) + " of " + std::to_string(size) +
                          " bytes could be read");
    return false;
  }
  return true;
}

bool hive::find_subkey(const key_node& parent, std::string_view name, key_node& out) {
  std::vector<uint32_t> cells;
  subkey_cells(parent, cells);
  for (uint32_t c : cells) {
    key_node k;
    if (read_key(c, k) && names_equal(k.name, name)) {
      out = std::move(k);
      return true;
    }
  }
  return false;
}

bool hive::find_key(std::string_view path, key_node& out, std::string* missing) {
  std::vector<std::string_view> parts;
  size_t start = 0;
  while (start <= path.size()) {
    size_t stop = path.find('\\', start);
    if (stop == std::string_view::npos) stop = path.size();
    if (stop > start) parts.push_back(path.substr(start, stop - start));
    start = stop + 1;
  }
  key_node cur;
  if (!root_key(cur)) {
    if (missing) missing->clear();
    return false;
  }
  size_t i = 0;
  key_node next;
  bool found = false;  // `next` is the subkey named parts[i]
  if (i < parts.size() && is_hive_alias(parts[i])) {
    found = find_subkey(cur, parts[i], next);
    if (!found) ++i;
  }
  if (!found && i < parts.size()) {
    found = find_subkey(cur, parts[i], next);
    if (!found) {
      // The root key's own name is arbitrary; a path may start with it or
      // with the name the hive's file goes by.
      std::string_view first = parts[i];
      std::string_view own = base_.file_name;
      size_t slash = own.find_last_of("\\/");
      if (slash != std::string_view::npos) own = own.substr(slash + 1);
      if (!names_equal(first, cur.name) && !(!own.empty() && names_equal(first, own)) &&
          !is_hive_file_name(first)) {
        if (missing) *missing = std::string(first);
        return false;
      }
      ++i;
    }
  }
  for (; i < parts.size(); ++i) {
    if (!found && !find_subkey(cur, parts[i], next)) {
      if (missing) *missing = std::string(parts[i]);
      return false;
    }
    found = false;
    cur = std::move(next);
  }
  out = std::move(cur);
  return true;
}

}  // namespace hivewick
