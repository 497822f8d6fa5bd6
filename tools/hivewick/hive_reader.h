// A reader of Windows registry hive files (the "regf" format), for hives
// copied from evidence: the base block, the hive bins, and the cells behind
// them (key nodes "nk", subkey lists "lf" / "lh" / "li" / "ri", value lists,
// value records "vk", big-data records "db").
//
// The file is hostile input. Every cell index is looked up in the map of hive
// bins and its size checked against the bin that holds it; list recursion is
// bounded; and one work budget per walk bounds the total of list entries and
// data bytes read, so that cells shared or looped by a damaged or crafted
// file cost at most a few passes over it. Nothing here prints: problems are
// collected as short texts in `problems()`, and the caller decides.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "support/byte_reader.h"

namespace hivewick {

// The "no cell" index of every offset field.
constexpr uint32_t no_cell = 0xFFFFFFFFu;
// The base block's size; cell indexes count from its end.
constexpr uint32_t base_block_size = 4096;
// The data a value keeps in one cell before big-data records take over.
constexpr uint32_t big_data_segment = 16344;

// Value types (winnt.h names).
enum reg_type : uint32_t {
  REG_NONE = 0,
  REG_SZ = 1,
  REG_EXPAND_SZ = 2,
  REG_BINARY = 3,
  REG_DWORD = 4,
  REG_DWORD_BIG_ENDIAN = 5,
  REG_LINK = 6,
  REG_MULTI_SZ = 7,
  REG_RESOURCE_LIST = 8,
  REG_FULL_RESOURCE_DESCRIPTOR = 9,
  REG_RESOURCE_REQUIREMENTS_LIST = 10,
  REG_QWORD = 11,
};

// Key node flags used here.
constexpr uint16_t KEY_HIVE_ENTRY = 0x0004;
constexpr uint16_t KEY_COMP_NAME = 0x0020;
// Value record flag: the name is stored one byte per character (Latin-1).
constexpr uint16_t VALUE_COMP_NAME = 0x0001;

// The facts of the base block (the first 4096 bytes of the file).
struct base_block {
  uint32_t sequence1 = 0;       // primary sequence number, raised when a write starts
  uint32_t sequence2 = 0;       // secondary, set equal when the write ended
  uint64_t time_stamp = 0;      // FILETIME of the last write
  uint32_t major = 0;
  uint32_t minor = 0;
  uint32_t type = 0;            // 0: primary file
  uint32_t format = 0;          // 1: direct memory load
  uint32_t root_cell = no_cell;
  uint32_t length = 0;          // bytes of hive bins behind the base block
  uint32_t checksum = 0;        // as stored
  uint32_t checksum_computed = 0;
  std::string file_name;        // the hive's own name for itself, UTF-8

  bool dirty() const { return sequence1 != sequence2; }
  bool checksum_ok() const { return checksum == checksum_computed; }
};

// One key node.
struct key_node {
  uint32_t cell = no_cell;
  uint16_t flags = 0;
  uint64_t last_written = 0;    // FILETIME
  uint32_t parent = no_cell;
  uint32_t subkey_count = 0;
  uint32_t subkey_list = no_cell;
  uint32_t value_count = 0;
  uint32_t value_list = no_cell;
  std::string name;             // UTF-8
};

// One value record; its data is read on demand by `hive::value_data`.
struct value_record {
  uint32_t cell = no_cell;
  uint16_t flags = 0;
  uint32_t type = REG_NONE;
  uint32_t data_size = 0;       // as stored: bit 31 marks data kept in `data_offset`
  uint32_t data_offset = no_cell;
  std::string name;             // UTF-8; empty for the key's default (unnamed) value

  bool data_inline() const { return (data_size & 0x80000000u) != 0; }
  uint32_t size() const { return data_size & 0x7FFFFFFFu; }
};

class hive {
 public:
  // Reads the base block and maps the hive bins of `bytes`, which must stay
  // alive as long as this object. False when the bytes can't be a hive (too
  // short, no "regf" signature, no hive bin); `problems()` then says why.
  // A dirty hive, a bad checksum or damaged bins are read anyway, each with
  // a problem text.
  bool open(qv::byte_span bytes);

  const base_block& header() const { return base_; }
  // Short texts of what was found wrong, in the order met, at most 200 of
  // them; `problems_dropped()` counts the rest.
  const std::vector<std::string>& problems() const { return problems_; }
  size_t problems_dropped() const { return problems_dropped_; }
  void clear_problems() { problems_.clear(); problems_dropped_ = 0; }

  // Restarts the work budget (several passes over the file's size).
  void reset_budget();

  // The data of the cell at `index` (behind its size field). False when the
  // index lies outside every hive bin or the cell's size is impossible; a
  // cell that overruns its bin is cut at the bin's end.
  bool cell(uint32_t index, qv::byte_span& out);

  bool root_key(key_node& out);
  bool read_key(uint32_t cell_index, key_node& out);
  // Appends the key-node indexes of `key`'s subkeys, in list order. False
  // when the list is damaged; what could be read is still appended.
  bool subkey_cells(const key_node& key, std::vector<uint32_t>& out);
  // Appends `key`'s value records. False when any of them was unreadable.
  bool read_values(const key_node& key, std::vector<value_record>& out);
  // The value's data bytes. False when they could not all be read; `out`
  // then holds what could.
  bool value_data(const value_record& value, std::vector<uint8_t>& out);

  // The subkey of `parent` named `name`, compared without regard to case.
  bool find_subkey(const key_node& parent, std::string_view name, key_node& out);
  // Looks up a path of names separated by "\" from the root key. Empty
  // elements are passed over. When the first element isn't a subkey of the
  // root, it is taken for the hive's own name ("SOFTWARE\...", or the root
  // key's name) and dropped; a leading "HKLM", "HKEY_LOCAL_MACHINE", "HKU",
  // "HKEY_USERS", "HKCU" or "HKEY_CURRENT_USER" is dropped first, likewise.
  // On failure `missing` names the first element that wasn't found.
  bool find_key(std::string_view path, key_node& out, std::string* missing = nullptr);

 private:
  // True when one more problem text is kept; texts are built only then, so
  // a hostile list of a million bad entries costs a counter, not strings.
  bool noting();
  bool spend(uint64_t units);
  bool read_list(uint32_t list, int depth, std::vector<uint32_t>& out,
                 std::unordered_set<uint32_t>& seen_lists);
  bool read_value(uint32_t cell_index, value_record& out);

  struct bin_range {
    uint64_t start = 0;  // file offset of the "hbin" header
    uint64_t end = 0;
  };

  qv::byte_span file_;
  base_block base_;
  std::vector<bin_range> bins_;
  std::vector<std::string> problems_;
  size_t problems_dropped_ = 0;
  uint64_t budget_ = 0;
  bool budget_reported_ = false;
};

// ---- Names and value text ------------------------------------------------

// UTF-8 of a name stored one byte per character (Latin-1).
std::string latin1_to_utf8(const uint8_t* data, size_t size);
// UTF-8 of UTF-16LE; an odd last byte is dropped, a broken surrogate becomes
// U+FFFD. With `stop_at_nul`, the text ends at the first zero unit.
std::string utf16_to_utf8(const uint8_t* data, size_t size, bool stop_at_nul);
// True when the two UTF-8 names are equal without regard to case, in the way
// the registry compares names (each character upper-cased on its own).
bool names_equal(std::string_view a, std::string_view b);

// The text of a value's data for a listing: REG_SZ, REG_EXPAND_SZ and
// REG_LINK up to the first NUL; REG_MULTI_SZ items joined by ";"; REG_DWORD,
// REG_DWORD_BIG_ENDIAN and REG_QWORD in decimal; anything else, and numbers
// of the wrong length, as lower-case hex digits.
std::string value_text(uint32_t type, const std::vector<uint8_t>& data);

}  // namespace hivewick
