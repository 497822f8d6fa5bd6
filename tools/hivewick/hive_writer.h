// Test tooling: writes registry hive files (regf) byte by byte from a tree of
// keys and values, so that every test of the reader starts from a hive whose
// every byte is known. Keys, values, subkey lists of each kind ("lf", "lh",
// "li", "ri"), inline data, data cells and big-data ("db") records are
// written as Windows lays them out; the cell indexes of what was written are
// returned, so that a test can damage any field afterwards.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace hw {

using bytes = std::vector<uint8_t>;

struct value_spec {
  value_spec() = default;
  value_spec(std::string n, uint32_t t, bytes d, bool latin1 = true)
      : name(std::move(n)), type(t), data(std::move(d)), latin1_name(latin1) {}

  std::string name;               // UTF-8; empty: the key's default value
  uint32_t type = 1;              // REG_SZ
  bytes data;
  bool latin1_name = true;        // stored one byte per character
};

struct key_spec {
  key_spec() = default;
  key_spec(std::string n, uint64_t t, bool latin1 = true)
      : name(std::move(n)), last_written(t), latin1_name(latin1) {}

  std::string name;               // UTF-8
  uint64_t last_written = 0;      // FILETIME
  bool latin1_name = true;
  char list_kind = 'h';           // 'f': "lf", 'h': "lh", 'i': "li", 'r': "ri" over "lh" lists
  uint32_t ri_chunk = 512;        // subkeys per "lh" list under an "ri"
  std::vector<value_spec> values;
  std::vector<key_spec> subkeys;
};

struct hive_spec {
  key_spec root;
  uint32_t minor = 5;             // format 1.minor; big data is written from 1.4 on
  uint32_t sequence1 = 7;
  uint32_t sequence2 = 7;
  uint64_t time_stamp = 0;
  std::string file_name = "\\REGISTRY\\MACHINE\\SOFTWARE";
  uint32_t bin_size = 4096;       // bins are this size, or larger for a large cell
};

struct written_hive {
  bytes data;
  // Cell indexes, by key path below the root ("" is the root, "a\b" a
  // subkey of a subkey), and by "path:value name" for values.
  std::map<std::string, uint32_t> key_cells;
  std::map<std::string, uint32_t> list_cells;
  std::map<std::string, uint32_t> value_list_cells;
  std::map<std::string, uint32_t> value_cells;
  std::map<std::string, uint32_t> data_cells;  // data cell, or the "db" record

  // File offset of byte `off` of the data of cell `cell` (behind its size).
  static size_t at(uint32_t cell, size_t off) { return size_t(4096) + cell + 4 + off; }
  void patch_u16(size_t file_offset, uint16_t v);
  void patch_u32(size_t file_offset, uint32_t v);
  // Recomputes the base block checksum after a patch of its fields.
  void fix_checksum();
  bool write_file(const std::string& path) const;
};

written_hive write_hive(const hive_spec& shape);

// UTF-16LE of UTF-8 text with a terminating zero unit (REG_SZ data).
bytes sz(const std::string& utf8);
// REG_MULTI_SZ data: each item and its zero unit, then one more zero unit.
bytes multi_sz(const std::vector<std::string>& items);
bytes dword(uint32_t v);
bytes qword(uint64_t v);

// The key tree of a SOFTWARE hive down to the WINEVT publishers key, with
// `publishers` as that key's subkeys.
key_spec software_root(const std::vector<key_spec>& publishers, uint64_t last_written);
// A publisher key: "{guid}" with its unnamed value and, when not empty, the
// MessageFileName and ResourceFileName values (REG_EXPAND_SZ).
key_spec publisher(const std::string& key_name, const std::string& provider_name,
                   const std::string& message_file, uint64_t last_written);

}  // namespace hw
