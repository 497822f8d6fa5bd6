#include "tools/hivewick/hive_writer.h"

#include <algorithm>
#include <cstdio>

namespace hw {

namespace {

void put16(bytes& b, size_t off, uint16_t v) {
  b[off] = uint8_t(v);
  b[off + 1] = uint8_t(v >> 8);
}
void put32(bytes& b, size_t off, uint32_t v) {
  for (int i = 0; i < 4; ++i) b[off + i] = uint8_t(v >> (8 * i));
}
void put64(bytes& b, size_t off, uint64_t v) {
  for (int i = 0; i < 8; ++i) b[off + i] = uint8_t(v >> (8 * i));
}

// Code points of UTF-8 text (well-formed input assumed: test data).
std::vector<uint32_t> code_points(const std::string& s) {
  std::vector<uint32_t> out;
  for (size_t i = 0; i < s.size();) {
    uint8_t b = uint8_t(s[i]);
    int n = b < 0x80 ? 0 : b < 0xE0 ? 1 : b < 0xF0 ? 2 : 3;
    uint32_t cp = n == 0 ? b : n == 1 ? (b & 0x1F) : n == 2 ? (b & 0x0F) : (b & 0x07);
    for (int k = 1; k <= n && i + k < s.size(); ++k) cp = (cp << 6) | (uint8_t(s[i + k]) & 0x3F);
    out.push_back(cp);
    i += size_t(n) + 1;
  }
  return out;
}

bytes utf16(const std::string& s) {
  bytes out;
  for (uint32_t cp : code_points(s)) {
    auto unit = [&](uint32_t u) {
      out.push_back(uint8_t(u));
      out.push_back(uint8_t(u >> 8));
    };
    if (cp >= 0x10000) {
      unit(0xD800 + ((cp - 0x10000) >> 10));
      unit(0xDC00 + ((cp - 0x10000) & 0x3FF));
    } else {
      unit(cp);
    }
  }
  return out;
}

bytes latin1(const std::string& s) {
  bytes out;
  for (uint32_t cp : code_points(s)) out.push_back(uint8_t(cp));
  return out;
}

uint32_t upper(uint32_t c) {
  if (c >= 'a' && c <= 'z') return c - 32;
  if (c >= 0xE0 && c <= 0xFE && c != 0xF7) return c - 32;
  return c;
}

class builder {
 public:
  builder(const hive_spec& shape, written_hive& out) : spec_(shape), out_(out) {
    out_.data.assign(4096, 0);
  }

  // Reserves a cell for `size` data bytes, in the current bin when it fits.
  uint32_t alloc(size_t size) {
    size_t cell_size = (size + 4 + 7) & ~size_t(7);
    if (bin_end_ == 0 || cell_size > bin_end_ - pos_) {
      close_bin();
      size_t bin = std::max<size_t>(spec_.bin_size, (cell_size + 32 + 4095) & ~size_t(4095));
      size_t start = out_.data.size();
      out_.data.resize(start + bin, 0);
      std::copy_n("hbin", 4, out_.data.begin() + start);
      put32(out_.data, start + 4, uint32_t(start - 4096));
      put32(out_.data, start + 8, uint32_t(bin));
      if (start == 4096) put64(out_.data, start + 20, spec_.time_stamp);
      pos_ = start + 32;
      bin_end_ = start + bin;
    }
    put32(out_.data, pos_, uint32_t(0) - uint32_t(cell_size));
    uint32_t index = uint32_t(pos_ - 4096);
    pos_ += cell_size;
    return index;
  }
  // Marks what is left of the current bin as one free cell.
  void close_bin() {
    if (bin_end_ != 0 && bin_end_ > pos_) put32(out_.data, pos_, uint32_t(bin_end_ - pos_));
  }
  size_t data_at(uint32_t cell) const { return size_t(4096) + cell + 4; }
  bytes& data() { return out_.data; }

  uint32_t write_key(const key_spec& k, uint32_t parent, const std::string& path, bool root) {
    bytes name = k.latin1_name ? latin1(k.name) : utf16(k.name);
    uint32_t nk = alloc(76 + name.size());
    out_.key_cells[path] = nk;
    std::string prefix = path.empty() ? "" : path + "\\";

    uint32_t value_list = 0xFFFFFFFFu;
    if (!k.values.empty()) {
      std::vector<uint32_t> vks;
      for (const value_spec& v : k.values) vks.push_back(write_value(v, path + ":" + v.name));
      value_list = alloc(4 * vks.size());
      out_.value_list_cells[path] = value_list;
      for (size_t i = 0; i < vks.size(); ++i) put32(data(), data_at(value_list) + 4 * i, vks[i]);
    }

    std::vector<uint32_t> children;
    for (const key_spec& s : k.subkeys) children.push_back(write_key(s, nk, prefix + s.name, false));
    uint32_t list = 0xFFFFFFFFu;
    if (!children.empty()) {
      if (k.list_kind == 'r') {
        std::vector<uint32_t> lists;
        size_t chunk = std::max<uint32_t>(k.ri_chunk, 1);
        for (size_t i = 0; i < children.size(); i += chunk) {
          size_t n = std::min(chunk, children.size() - i);
          lists.push_back(write_list('h', k.subkeys, i, n, children));
        }
        list = alloc(4 + 4 * lists.size());
        size_t d = data_at(list);
        data()[d] = 'r';
        data()[d + 1] = 'i';
        put16(data(), d + 2, uint16_t(lists.size()));
        for (size_t i = 0; i < lists.size(); ++i) put32(data(), d + 4 + 4 * i, lists[i]);
      } else {
        list = write_list(k.list_kind, k.subkeys, 0, children.size(), children);
      }
      out_.list_cells[path] = list;
    }

    size_t d = data_at(nk);
    bytes& b = data();
    b[d] = 'n';
    b[d + 1] = 'k';
    uint16_t flags = uint16_t((root ? 0x0C : 0) | (k.latin1_name ? 0x20 : 0));
    put16(b, d + 2, flags);
    put64(b, d + 4, k.last_written);
    put32(b, d + 16, parent);
    put32(b, d + 20, uint32_t(children.size()));
    put32(b, d + 28, list);
    put32(b, d + 32, 0xFFFFFFFFu);  // volatile subkeys: none in a file
    put32(b, d + 36, uint32_t(k.values.size()));
    put32(b, d + 40, value_list);
    put32(b, d + 44, 0xFFFFFFFFu);  // no security record written
    put32(b, d + 48, 0xFFFFFFFFu);  // no class name
    put16(b, d + 72, uint16_t(name.size()));
    std::copy(name.begin(), name.end(), b.begin() + long(d + 76));
    return nk;
  }

 private:
  uint32_t write_list(char kind, const std::vector<key_spec>& keys, size_t first, size_t n,
                      const std::vector<uint32_t>& cells) {
    size_t stride = kind == 'i' ? 4 : 8;
    uint32_t list = alloc(4 + stride * n);
    size_t d = data_at(list);
    bytes& b = data();
    b[d] = 'l';
    b[d + 1] = uint8_t(kind);
    put16(b, d + 2, uint16_t(n));
    for (size_t i = 0; i < n; ++i) {
      size_t e = d + 4 + stride * i;
      put32(b, e, cells[first + i]);
      std::vector<uint32_t> cps = code_points(keys[first + i].name);
      if (kind == 'f') {
        // Name hint: the first four characters.
        for (size_t c = 0; c < 4 && c < cps.size(); ++c) b[e + 4 + c] = uint8_t(cps[c]);
      } else if (kind == 'h') {
        uint32_t hash = 0;
        for (uint32_t c : cps) hash = hash * 37 + upper(c);
        put32(b, e + 4, hash);
      }
    }
    return list;
  }

  uint32_t write_value(const value_spec& v, const std::string& id) {
    bytes name = v.latin1_name ? latin1(v.name) : utf16(v.name);
    uint32_t vk = alloc(20 + name.size());
    out_.value_cells[id] = vk;
    uint32_t size = uint32_t(v.data.size());
    uint32_t size_field = size;
    uint32_t offset = 0;
    if (size <= 4) {
      // Kept in the offset field itself.
      size_field = size | 0x80000000u;
      for (size_t i = 0; i < size; ++i) offset |= uint32_t(v.data[i]) << (8 * i);
    } else if (spec_.minor >= 4 && size > 16344) {
      size_t segments = (size + 16343) / 16344;
      std::vector<uint32_t> segs;
      for (size_t s = 0; s < segments; ++s) {
        size_t n = std::min<size_t>(16344, size - s * 16344);
        uint32_t c = alloc(n);
        std::copy_n(v.data.begin() + long(s * 16344), n, data().begin() + long(data_at(c)));
        segs.push_back(c);
      }
      uint32_t list = alloc(4 * segs.size());
      for (size_t s = 0; s < segs.size(); ++s) put32(data(), data_at(list) + 4 * s, segs[s]);
      offset = alloc(8);
      size_t d = data_at(offset);
      data()[d] = 'd';
      data()[d + 1] = 'b';
      put16(data(), d + 2, uint16_t(segs.size()));
      put32(data(), d + 4, list);
      out_.data_cells[id] = offset;
    } else {
      offset = alloc(size);
      std::copy(v.data.begin(), v.data.end(), data().begin() + long(data_at(offset)));
      out_.data_cells[id] = offset;
    }
    size_t d = data_at(vk);
    bytes& b = data();
    b[d] = 'v';
    b[d + 1] = 'k';
    put16(b, d + 2, uint16_t(name.size()));
    put32(b, d + 4, size_field);
    put32(b, d + 8, offset);
    put32(b, d + 12, v.type);
    put16(b, d + 16, v.latin1_name && !v.name.empty() ? 1 : 0);
    std::copy(name.begin(), name.end(), b.begin() + long(d + 20));
    return vk;
  }

  const hive_spec& spec_;
  written_hive& out_;
  size_t pos_ = 0;
  size_t bin_end_ = 0;
};

}  // namespace

void written_hive::patch_u16(size_t off, uint16_t v) {
  if (off + 2 <= data.size()) put16(data, off, v);
}
void written_hive::patch_u32(size_t off, uint32_t v) {
  if (off + 4 <= data.size()) put32(data, off, v);
}

void written_hive::fix_checksum() {
  uint32_t sum = 0;
  for (size_t off = 0; off < 508; off += 4)
    sum ^= uint32_t(data[off]) | uint32_t(data[off + 1]) << 8 | uint32_t(data[off + 2]) << 16 |
           uint32_t(data[off + 3]) << 24;
  if (sum == 0xFFFFFFFFu) sum = 0xFFFFFFFEu;
  if (sum == 0) sum = 1;
  put32(data, 508, sum);
}

bool written_hive::write_file(const std::string& path) const {
  FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) return false;
  bool ok = std::fwrite(data.data(), 1, data.size(), f) == data.size();
  return std::fclose(f) == 0 && ok;
}

written_hive write_hive(const hive_spec& shape) {
  written_hive out;
  builder b(shape, out);
  uint32_t root = b.write_key(shape.root, 0xFFFFFFFFu, "", true);
  b.close_bin();
  bytes& d = out.data;
  std::copy_n("regf", 4, d.begin());
  put32(d, 4, shape.sequence1);
  put32(d, 8, shape.sequence2);
  put64(d, 12, shape.time_stamp);
  put32(d, 20, 1);
  put32(d, 24, shape.minor);
  put32(d, 28, 0);
  put32(d, 32, 1);
  put32(d, 36, root);
  put32(d, 40, uint32_t(d.size() - 4096));
  put32(d, 44, 1);
  bytes name = utf16(shape.file_name);
  std::copy_n(name.begin(), std::min<size_t>(name.size(), 62), d.begin() + 48);
  out.fix_checksum();
  return out;
}

bytes sz(const std::string& utf8) {
  bytes b = utf16(utf8);
  b.push_back(0);
  b.push_back(0);
  return b;
}

bytes multi_sz(const std::vector<std::string>& items) {
  bytes b;
  for (const std::string& s : items) {
    bytes one = sz(s);
    b.insert(b.end(), one.begin(), one.end());
  }
  b.push_back(0);
  b.push_back(0);
  return b;
}

bytes dword(uint32_t v) {
  bytes b(4);
  put32(b, 0, v);
  return b;
}

bytes qword(uint64_t v) {
  bytes b(8);
  put64(b, 0, v);
  return b;
}

key_spec software_root(const std::vector<key_spec>& publishers, uint64_t last_written) {
  key_spec pubs{"Publishers", last_written};
  pubs.subkeys = publishers;
  key_spec cur = pubs;
  for (const char* name : {"WINEVT", "CurrentVersion", "Windows", "Microsoft"}) {
    key_spec up{name, last_written};
    up.subkeys.push_back(cur);
    cur = up;
  }
  key_spec classes{"Classes", last_written};
  key_spec root{"ROOT", last_written};
  root.subkeys = {classes, cur};
  return root;
}

key_spec publisher(const std::string& key_name, const std::string& provider_name,
                   const std::string& message_file, uint64_t last_written) {
  key_spec k{key_name, last_written};
  if (!provider_name.empty()) k.values.push_back({"", 1, sz(provider_name)});
  if (!message_file.empty()) {
    k.values.push_back({"MessageFileName", 2, sz(message_file)});
    k.values.push_back({"ResourceFileName", 2, sz(message_file)});
  }
  k.values.push_back({"Enabled", 4, dword(1)});
  return k;
}

}  // namespace hw
