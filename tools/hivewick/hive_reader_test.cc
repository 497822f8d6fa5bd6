#include "tools/hivewick/hive_reader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "tools/hivewick/hive_writer.h"

namespace {

using namespace hivewick;

std::vector<uint8_t> read_file(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return std::vector<uint8_t>((std::istreambuf_iterator<char>(f)), {});
}

std::string shared_hive(const char* name) {
  return std::string(QUON_SHARED_DIR) + "/hives/" + name;
}

bool has_problem(const hive& h, const std::string& part) {
  for (const std::string& p : h.problems())
    if (p.find(part) != std::string::npos) return true;
  return false;
}

std::vector<std::string> subkey_names(hive& h, const key_node& k) {
  std::vector<uint32_t> cells;
  h.subkey_cells(k, cells);
  std::vector<std::string> names;
  for (uint32_t c : cells) {
    key_node s;
    if (h.read_key(c, s)) names.push_back(s.name);
  }
  return names;
}

const value_record* value_named(const std::vector<value_record>& vs, const std::string& n) {
  for (const value_record& v : vs)
    if (v.name == n) return &v;
  return nullptr;
}

// ---- The public test hives -------------------------------------------------

class SharedHives : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!std::filesystem::is_directory(std::string(QUON_SHARED_DIR) + "/hives"))
      GTEST_SKIP() << "no shared hives folder";
  }
};

TEST_F(SharedHives, BigDataValuesAreJoinedFromTheirSegments) {
  std::vector<uint8_t> bytes = read_file(shared_hive("BigDataHive"));
  hive h;
  ASSERT_TRUE(h.open(qv::byte_span(bytes.data(), bytes.size())));
  EXPECT_EQ(h.header().major, 1u);
  EXPECT_EQ(h.header().minor, 5u);
  EXPECT_FALSE(h.header().dirty());
  EXPECT_TRUE(h.header().checksum_ok());
  key_node k;
  ASSERT_TRUE(h.find_key("key_with_bigdata", k));
  std::vector<value_record> vs;
  ASSERT_TRUE(h.read_values(k, vs));
  ASSERT_EQ(vs.size(), 2u);
  const value_record* dflt = value_named(vs, "");
  const value_record* v = value_named(vs, "v");
  ASSERT_TRUE(dflt && v);
  std::vector<uint8_t> data;
  // 16,345 bytes: one byte more than a cell keeps, so two segments.
  ASSERT_TRUE(h.value_data(*dflt, data));
  EXPECT_EQ(data.size(), 16345u);
  EXPECT_EQ(std::count(data.begin(), data.end(), '1'), 16345);
  ASSERT_TRUE(h.value_data(*v, data));
  EXPECT_EQ(data.size(), 81725u);
  EXPECT_EQ(std::count(data.begin(), data.end(), '2'), 81725);
  EXPECT_EQ(value_text(REG_BINARY, {'1', '2'}), "3132");
  EXPECT_TRUE(h.problems().empty()) << h.problems().front();
}

TEST_F(SharedHives, FiveThousandSubkeysThroughAnIndexOfLists) {
  std::vector<uint8_t> bytes = read_file(shared_hive("ManySubkeysHive"));
  hive h;
  ASSERT_TRUE(h.open(qv::byte_span(bytes.data(), bytes.size())));
  key_node k;
  ASSERT_TRUE(h.find_key("key_with_many_subkeys", k));
  std::vector<std::string> names = subkey_names(h, k);
  ASSERT_EQ(names.size(), 5000u);
  std::vector<std::string> sorted = names;
  std::sort(sorted.begin(), sorted.end());
  EXPECT_TRUE(std::adjacent_find(sorted.begin(), sorted.end()) == sorted.end());
  // Named "1" to "5000".
  EXPECT_NE(std::find(names.begin(), names.end(), "1"), names.end());
  EXPECT_NE(std::find(names.begin(), names.end(), "5000"), names.end());

  key_node found;
  ASSERT_TRUE(h.find_key("key_with_MAny_subkeys\\2119\\Find_me", found));
  EXPECT_TRUE(names_equal(found.name, "find_me"));
  // The root's own name (a GUID here) may lead the path.
  ASSERT_TRUE(h.find_key("{6214FF27-7B1B-41A3-9AE4-5FB851FFED63}\\key_with_many_subkeys\\2119", found));
  EXPECT_EQ(found.name, "2119");
  std::string missing;
  EXPECT_FALSE(h.find_key("key_with_many_subkeys\\5001", found, &missing));
  EXPECT_EQ(missing, "5001");
}

TEST_F(SharedHives, LatinOneAndUtf16NamesAndInlineData) {
  std::vector<uint8_t> bytes = read_file(shared_hive("ExtendedASCIIHive"));
  hive h;
  ASSERT_TRUE(h.open(qv::byte_span(bytes.data(), bytes.size())));
  key_node k;
  // Stored as the byte 0xEB; looked up with the upper-case letter.
  ASSERT_TRUE(h.find_key("\xC3\x8BIGENAARDIG", k));
  EXPECT_EQ(k.name, "\xC3\xABigenaardig");
  std::vector<value_record> vs;
  ASSERT_TRUE(h.read_values(k, vs));
  ASSERT_EQ(vs.size(), 1u);
  EXPECT_EQ(vs[0].name, "\xC3\xABigenaardig");
  std::vector<uint8_t> data;
  ASSERT_TRUE(h.value_data(vs[0], data));
  EXPECT_EQ(value_text(vs[0].type, data), "\xC3\xABigenaardig");

  bytes = read_file(shared_hive("CompHive"));
  ASSERT_TRUE(h.open(qv::byte_span(bytes.data(), bytes.size())));
  key_node root;
  ASSERT_TRUE(h.root_key(root));
  // The byte 0x9F stored compressed is U+009F (not the letter that code
  // page 1252 puts there); U+0178 is stored in UTF-16. Two distinct names.
  EXPECT_EQ(subkey_names(h, root), (std::vector<std::string>{"\xC2\x9F", "\xC5\xB8"}));
  ASSERT_TRUE(h.find_key("\xC3\xBF", k));  // lower-case y with diaeresis
  EXPECT_EQ(k.name, "\xC5\xB8");
  ASSERT_TRUE(h.find_key("\xC2\x9F\\123", k));
  EXPECT_EQ(k.name, "123");

  bytes = read_file(shared_hive("MultiSzHive"));
  ASSERT_TRUE(h.open(qv::byte_span(bytes.data(), bytes.size())));
  ASSERT_TRUE(h.find_key("KEY", k));
  vs.clear();
  ASSERT_TRUE(h.read_values(k, vs));
  ASSERT_EQ(vs.size(), 2u);
  const value_record* one = value_named(vs, "1");
  const value_record* two = value_named(vs, "2");
  ASSERT_TRUE(one && two);
  // Two bytes kept in the offset field: an empty list.
  EXPECT_TRUE(one->data_inline());
  ASSERT_TRUE(h.value_data(*one, data));
  EXPECT_EQ(data, (std::vector<uint8_t>{0, 0}));
  EXPECT_EQ(value_text(REG_MULTI_SZ, data), "");
  ASSERT_TRUE(h.value_data(*two, data));
  EXPECT_EQ(value_text(REG_MULTI_SZ, data),
            "\xD0\xBF\xD1\x80\xD0\xB8\xD0\xB2\xD0\xB5\xD1\x82;"
            "\xD0\xBA\xD0\xB0\xD0\xBA \xD0\xB4\xD0\xB5\xD0\xBB\xD0\xB0?");
}

// ---- Hives of the project's own writer ------------------------------------

hw::key_spec tree() {
  hw::key_spec root{"CMI-CreateHive{2A7FB991-7BBE-4F9D-B91E-7CB51D4737F5}", 1};
  hw::key_spec a{"Alpha", 2};
  a.list_kind = 'f';
  a.subkeys = {{"a1", 3}, {"a2", 4}};
  hw::key_spec b{"B\xC3\xA9ta", 5};  // Latin-1 name
  b.list_kind = 'i';
  b.subkeys = {{"\xCE\xB1\xCE\xB2", 6, false}};  // Greek, UTF-16 name
  hw::key_spec many{"Many", 7};
  many.list_kind = 'r';
  many.ri_chunk = 3;
  for (char i = '0'; i <= '9'; ++i) many.subkeys.push_back({std::string("k") + i, 8});
  hw::key_spec vals{"Values", 9};
  std::vector<uint8_t> big(40000);
  for (size_t i = 0; i < big.size(); ++i) big[i] = uint8_t(i * 7);
  vals.values = {{"", REG_SZ, hw::sz("default text")},
                 {"small", 3, {1, 2, 3}},
                 {"dw", 4, hw::dword(4000000000u)},
                 {"qw", 11, hw::qword(12345678901234ull)},
                 {"big", 3, big},
                 {"multi", 7, hw::multi_sz({"x", "yz"})},
                 {"N\xC3\xA4me", REG_SZ, hw::sz(std::string("cut\0here", 8)), false}};
  root.subkeys = {a, b, many, vals};
  return root;
}

TEST(HiveWriter, EveryStructureReadsBack) {
  for (uint32_t minor : {3u, 5u}) {
    hw::hive_spec shape;
    shape.root = tree();
    shape.minor = minor;
    hw::written_hive w = hw::write_hive(shape);
    hive h;
    ASSERT_TRUE(h.open(qv::byte_span(w.data.data(), w.data.size())));
    EXPECT_TRUE(h.header().checksum_ok());
    key_node root;
    ASSERT_TRUE(h.root_key(root));
    EXPECT_EQ(root.flags & KEY_HIVE_ENTRY, KEY_HIVE_ENTRY);
    EXPECT_EQ(subkey_names(h, root),
              (std::vector<std::string>{"Alpha", "B\xC3\xA9ta", "Many", "Values"}));
    key_node k;
    ASSERT_TRUE(h.find_key("alpha", k));
    EXPECT_EQ(k.last_written, 2u);
    EXPECT_EQ(subkey_names(h, k), (std::vector<std::string>{"a1", "a2"}));
    ASSERT_TRUE(h.find_key("B\xC3\x89TA\\\xCE\x91\xCE\x92", k));  // upper-case both
    EXPECT_EQ(k.name, "\xCE\xB1\xCE\xB2");
    ASSERT_TRUE(h.find_key("many", k));
    std::vector<std::string> many = subkey_names(h, k);
    ASSERT_EQ(many.size(), 10u);
    EXPECT_EQ(many.front(), "k0");
    EXPECT_EQ(many.back(), "k9");
    EXPECT_EQ(w.data[w.at(w.list_cells["Many"], 0)], 'r');

    ASSERT_TRUE(h.find_key("Values", k));
    std::vector<value_record> vs;
    ASSERT_TRUE(h.read_values(k, vs));
    ASSERT_EQ(vs.size(), 7u);
    std::vector<uint8_t> data;
    auto text = [&](const char* name) {
      const value_record* v = value_named(vs, name);
      if (v == nullptr) return std::string("(absent)");
      EXPECT_TRUE(h.value_data(*v, data)) << name;
      return value_text(v->type, data);
    };
    EXPECT_EQ(text(""), "default text");
    EXPECT_EQ(text("small"), "010203");
    EXPECT_TRUE(value_named(vs, "small")->data_inline());
    EXPECT_EQ(text("dw"), "4000000000");
    EXPECT_EQ(text("qw"), "12345678901234");
    EXPECT_EQ(text("multi"), "x;yz");
    EXPECT_EQ(text("N\xC3\xA4me"), "cut");
    text("big");
    ASSERT_EQ(data.size(), 40000u);
    bool same = true;
    for (size_t i = 0; i < data.size(); ++i) same = same && data[i] == uint8_t(i * 7);
    EXPECT_TRUE(same);
    // From format 1.4 on, data over 16,344 bytes goes through a "db" record.
    uint32_t big_cell = w.data_cells["Values:big"];
    bool db = w.data[w.at(big_cell, 0)] == 'd' && w.data[w.at(big_cell, 1)] == 'b';
    EXPECT_EQ(db, minor >= 4);
    EXPECT_TRUE(h.problems().empty()) << h.problems().front();
  }
}

TEST(HiveReader, BaseBlockChecks) {
  hw::hive_spec shape;
  shape.root = tree();
  hw::written_hive w = hw::write_hive(shape);
  hive h;

  std::vector<uint8_t> junk(8192, 0x41);
  EXPECT_FALSE(h.open(qv::byte_span(junk.data(), junk.size())));
  EXPECT_TRUE(has_problem(h, "regf"));
  EXPECT_FALSE(h.open(qv::byte_span(w.data.data(), 4100)));
  EXPECT_TRUE(has_problem(h, "too short"));
  EXPECT_FALSE(h.open(qv::byte_span(w.data.data(), 2)));

  // A dirty hive is read all the same, with a note.
  hw::written_hive dirty = w;
  dirty.patch_u32(4, 8);
  dirty.fix_checksum();
  ASSERT_TRUE(h.open(qv::byte_span(dirty.data.data(), dirty.data.size())));
  EXPECT_TRUE(h.header().dirty());
  EXPECT_TRUE(h.header().checksum_ok());
  EXPECT_TRUE(has_problem(h, "dirty"));
  key_node k;
  EXPECT_TRUE(h.find_key("Many\\k9", k));

  // A checksum that doesn't match is reported, the hive still read.
  hw::written_hive bad = w;
  bad.patch_u32(508, bad.data[508] ^ 1u);
  ASSERT_TRUE(h.open(qv::byte_span(bad.data.data(), bad.data.size())));
  EXPECT_FALSE(h.header().checksum_ok());
  EXPECT_TRUE(has_problem(h, "checksum"));
  EXPECT_TRUE(h.find_key("Alpha\\a2", k));

  // No bin at all behind a good base block.
  std::vector<uint8_t> head(w.data.begin(), w.data.begin() + 4096);
  head.resize(8192, 0);
  EXPECT_FALSE(h.open(qv::byte_span(head.data(), head.size())));
  EXPECT_TRUE(has_problem(h, "no hive bin"));
}

TEST(HiveReader, DamagedBinHeaderIsSteppedOver) {
  hw::hive_spec shape;
  shape.root = tree();
  hw::written_hive w = hw::write_hive(shape);
  // The bins as written, to pick one that doesn't hold the key "Many".
  std::vector<size_t> starts;
  for (size_t at = 4096; at + 32 <= w.data.size();
       at += qv::rd_u32(w.data.data(), w.data.size(), at + 8))
    starts.push_back(at);
  ASSERT_GE(starts.size(), 4u);
  uint32_t many = w.key_cells["Many"];
  size_t many_at = size_t(4096) + many;
  size_t victim = 0;
  for (size_t i = 1; i + 1 < starts.size() && victim == 0; ++i)
    if (many_at < starts[i] || many_at >= starts[i + 1]) victim = starts[i];
  ASSERT_NE(victim, 0u);
  ASSERT_EQ(w.data[victim], 'h');
  // Break its header: its cells are lost, the bins behind it are found again
  // on a later 4096-byte boundary.
  w.data[victim] = 'X';
  hive h;
  ASSERT_TRUE(h.open(qv::byte_span(w.data.data(), w.data.size())));
  EXPECT_TRUE(has_problem(h, "damaged hive bin header at file offset " + std::to_string(victim)));
  qv::byte_span d;
  EXPECT_TRUE(h.cell(many, d));
  EXPECT_FALSE(h.cell(uint32_t(victim - 4096 + 32), d));
  EXPECT_TRUE(h.cell(uint32_t(starts.back() - 4096 + 32), d));
}

TEST(HiveReader, DamagedCellsAndListsGiveWhatCanBeRead) {
  hw::hive_spec shape;
  shape.root = tree();
  hw::written_hive w0 = hw::write_hive(shape);
  hive h;
  key_node k;
  auto open = [&](hw::written_hive& w) {
    return h.open(qv::byte_span(w.data.data(), w.data.size()));
  };

  {  // Subkey list index outside every bin.
    hw::written_hive w = w0;
    w.patch_u32(w.at(w.key_cells["Alpha"], 28), 0x7FFFFFF0u);
    ASSERT_TRUE(open(w));
    ASSERT_TRUE(h.find_key("Alpha", k));
    std::vector<uint32_t> cells;
    EXPECT_FALSE(h.subkey_cells(k, cells));
    EXPECT_TRUE(cells.empty());
    EXPECT_TRUE(has_problem(h, "can't be read"));
  }
  {  // A list whose count is larger than its cell: the entries that fit.
    hw::written_hive w = w0;
    w.patch_u16(w.at(w.list_cells["Alpha"], 2), 60000);
    ASSERT_TRUE(open(w));
    ASSERT_TRUE(h.find_key("Alpha", k));
    std::vector<std::string> names = subkey_names(h, k);
    ASSERT_GE(names.size(), 2u);
    EXPECT_EQ(names[0], "a1");
    EXPECT_TRUE(has_problem(h, "of its 60000 entries"));
  }
  {  // An index of lists that names itself: a loop, ended.
    hw::written_hive w = w0;
    uint32_t ri = w.list_cells["Many"];
    w.patch_u32(w.at(ri, 4), ri);
    ASSERT_TRUE(open(w));
    ASSERT_TRUE(h.find_key("Many", k));
    std::vector<std::string> names = subkey_names(h, k);
    EXPECT_EQ(names.size(), 7u);  // the first chunk of 3 is replaced by the loop
    EXPECT_TRUE(has_problem(h, "reached twice"));
  }
  {  // A subkey entry that points at a value record, not a key node.
    hw::written_hive w = w0;
    w.patch_u32(w.at(w.list_cells["Alpha"], 4), w.value_cells["Values:dw"]);
    ASSERT_TRUE(open(w));
    EXPECT_FALSE(h.find_key("Alpha\\a1", k));
    EXPECT_TRUE(h.find_key("Alpha\\a2", k));
    EXPECT_TRUE(has_problem(h, "is not a key node"));
  }
  {  // A cell size past its bin is cut at the bin's end.
    hw::written_hive w = w0;
    uint32_t c = w.key_cells["Alpha"];
    w.patch_u32(size_t(4096) + c, 0x80000008u);  // -0x7ffffff8
    ASSERT_TRUE(open(w));
    qv::byte_span d;
    ASSERT_TRUE(h.cell(c, d));
    EXPECT_LE(size_t(d.data - w.data.data()) + d.size, w.data.size());
    EXPECT_TRUE(has_problem(h, "runs past the end of its hive bin"));
    // Impossible sizes: zero and the smallest negative number.
    w.patch_u32(size_t(4096) + c, 0);
    EXPECT_FALSE(h.cell(c, d));
    w.patch_u32(size_t(4096) + c, 0x80000000u);
    EXPECT_TRUE(h.cell(c, d));  // 2 GiB, cut to the bin
    EXPECT_FALSE(h.cell(no_cell, d));
    EXPECT_FALSE(h.cell(0x7FFFFFFFu, d));
  }
  {  // Value data larger than its cell; a value count larger than its list.
    hw::written_hive w = w0;
    uint32_t vk = w.value_cells["Values:"];
    w.patch_u32(w.at(vk, 4), 5000);
    w.patch_u32(w.at(w.key_cells["Values"], 36), 0xFFFFFFFFu);
    ASSERT_TRUE(open(w));
    ASSERT_TRUE(h.find_key("Values", k));
    std::vector<value_record> vs;
    EXPECT_FALSE(h.read_values(k, vs));
    EXPECT_GE(vs.size(), 7u);
    const value_record* v = value_named(vs, "");
    ASSERT_TRUE(v);
    std::vector<uint8_t> data;
    EXPECT_FALSE(h.value_data(*v, data));
    EXPECT_GE(data.size(), hw::sz("default text").size());
    EXPECT_LT(data.size(), 5000u);
    EXPECT_EQ(value_text(REG_SZ, data), "default text");
    EXPECT_TRUE(has_problem(h, "of 5000 bytes could be read"));
  }
  {  // Big data whose segments repeat one cell, and a count over its list.
    hw::written_hive w = w0;
    uint32_t db = w.data_cells["Values:big"];
    uint32_t list = qv::rd_u32(w.data.data(), w.data.size(), w.at(db, 4));
    uint32_t first = qv::rd_u32(w.data.data(), w.data.size(), w.at(list, 0));
    w.patch_u32(w.at(list, 4), first);
    ASSERT_TRUE(open(w));
    ASSERT_TRUE(h.find_key("Values", k));
    std::vector<value_record> vs;
    h.read_values(k, vs);
    std::vector<uint8_t> data;
    EXPECT_FALSE(h.value_data(*value_named(vs, "big"), data));
    EXPECT_EQ(data.size(), 16344u);
    EXPECT_TRUE(has_problem(h, "16344 of 40000 bytes"));
    w.patch_u16(w.at(db, 2), 0xFFFF);
    ASSERT_TRUE(open(w));
    EXPECT_FALSE(h.value_data(*value_named(vs, "big"), data));
  }
}

TEST(HiveReader, KeyPathsStartWhereAnalystsWriteThem) {
  hw::hive_spec shape;
  shape.root = hw::software_root({hw::publisher("{00000000-0000-0000-0000-000000000001}", "P",
                                               "p.dll", 1)},
                                1);
  hw::written_hive w = hw::write_hive(shape);
  hive h;
  ASSERT_TRUE(h.open(qv::byte_span(w.data.data(), w.data.size())));
  key_node k;
  const char* tail = "Microsoft\\Windows\\CurrentVersion\\WINEVT\\Publishers";
  ASSERT_TRUE(h.find_key(tail, k));
  EXPECT_EQ(k.name, "Publishers");
  for (std::string lead : {"SOFTWARE\\", "software\\", "HKLM\\SOFTWARE\\",
                           "HKEY_LOCAL_MACHINE\\Software\\", "ROOT\\", "\\SOFTWARE\\\\"}) {
    EXPECT_TRUE(h.find_key(lead + tail, k)) << lead;
    EXPECT_EQ(k.name, "Publishers");
  }
  EXPECT_TRUE(h.find_key("", k));
  EXPECT_EQ(k.name, "ROOT");
  EXPECT_TRUE(h.find_key("SOFTWARE", k));
  EXPECT_EQ(k.name, "ROOT");
  // An element that is neither a subkey nor a name of the hive is missing,
  // not dropped.
  std::string missing;
  EXPECT_FALSE(h.find_key(std::string("Typo\\") + tail, k, &missing));
  EXPECT_EQ(missing, "Typo");
  EXPECT_FALSE(h.find_key("SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\WINEVT\\Channels", k,
                          &missing));
  EXPECT_EQ(missing, "Channels");
}

TEST(HiveReader, NamesAndValueText) {
  EXPECT_TRUE(names_equal("WINEVT", "winevt"));
  EXPECT_TRUE(names_equal("\xC3\xA9t\xC3\xA9", "\xC3\x89T\xC3\x89"));        // é / É
  EXPECT_TRUE(names_equal("\xD0\xB4\xD0\xB0", "\xD0\x94\xD0\x90"));          // да / ДА
  EXPECT_FALSE(names_equal("abc", "abd"));
  EXPECT_FALSE(names_equal("abc", "ab"));
  EXPECT_FALSE(names_equal("\xC3\xA9", "e"));
  // A stray byte compares as itself.
  EXPECT_TRUE(names_equal("a\xFF", "A\xFF"));
  EXPECT_FALSE(names_equal("a\xFF", "a\xFE"));

  const uint8_t pair[] = {0x3D, 0xD8, 0x00, 0xDE, 'x', 0};  // U+1F600, then "x"
  EXPECT_EQ(utf16_to_utf8(pair, sizeof pair, true), "\xF0\x9F\x98\x80x");
  const uint8_t lone[] = {0x3D, 0xD8, 'x', 0, 'y'};  // broken pair, odd tail
  EXPECT_EQ(utf16_to_utf8(lone, sizeof lone, true), "\xEF\xBF\xBDx");
  const uint8_t latin[] = {'a', 0xE9, 0xFF};
  EXPECT_EQ(latin1_to_utf8(latin, 3), "a\xC3\xA9\xC3\xBF");

  EXPECT_EQ(value_text(REG_SZ, hw::sz("abc")), "abc");
  EXPECT_EQ(value_text(REG_EXPAND_SZ, {'%', 0, 'a', 0, 0, 0, 'z', 0}), "%a");
  EXPECT_EQ(value_text(REG_DWORD, {1, 0, 0, 0}), "1");
  EXPECT_EQ(value_text(REG_DWORD, {1, 0, 0}), "010000");
  EXPECT_EQ(value_text(REG_DWORD_BIG_ENDIAN, {0, 0, 1, 2}), "258");
  EXPECT_EQ(value_text(REG_QWORD, hw::qword(0xFFFFFFFFFFFFFFFFull)), "18446744073709551615");
  EXPECT_EQ(value_text(REG_MULTI_SZ, hw::multi_sz({"a", "b", "c"})), "a;b;c");
  // An empty item ends the list; a last item without its zero unit counts.
  EXPECT_EQ(value_text(REG_MULTI_SZ, {'a', 0, 0, 0, 0, 0, 'b', 0}), "a");
  EXPECT_EQ(value_text(REG_MULTI_SZ, {'a', 0, 0, 0, 'b', 0}), "a;b");
  EXPECT_EQ(value_text(REG_NONE, {0xAB, 0x01}), "ab01");
  EXPECT_EQ(value_text(12345, {}), "");
}

// Hostile bytes: every cut of a written hive and a spray of flipped bytes.
// Nothing may crash (the sanitizer build checks the reads) or run away.
TEST(HiveReader, CutsAndFlipsNeverEscape) {
  hw::hive_spec shape;
  shape.root = tree();
  shape.bin_size = 8192;
  hw::written_hive w = hw::write_hive(shape);
  // Returns the keys read on a walk from the root.
  auto exercise = [](const std::vector<uint8_t>& bytes) {
    hive h;
    if (!h.open(qv::byte_span(bytes.data(), bytes.size()))) return size_t(0);
    std::vector<uint32_t> stack = {h.header().root_cell};
    size_t keys = 0;
    for (size_t steps = 0; !stack.empty() && steps < 100000; ++steps) {
      key_node k;
      uint32_t c = stack.back();
      stack.pop_back();
      if (!h.read_key(c, k)) continue;
      ++keys;
      std::vector<value_record> vs;
      h.read_values(k, vs);
      for (const value_record& v : vs) {
        std::vector<uint8_t> data;
        h.value_data(v, data);
        value_text(v.type, data);
      }
      h.subkey_cells(k, stack);
    }
    key_node k;
    h.find_key("Many\\k5", k);
    return keys;
  };
  // root, Alpha with 2, Beta with 1, Many with 10, Values
  EXPECT_EQ(exercise(w.data), 18u);
  for (size_t cut = 0; cut <= w.data.size(); cut += 97) {
    std::vector<uint8_t> part(w.data.begin(), w.data.begin() + long(cut));
    size_t keys = exercise(part);
    if (cut < 4096 + 32) {
      EXPECT_EQ(keys, 0u);
    }
    EXPECT_LE(keys, 18u);
  }
  uint32_t seed = 12345;
  auto next = [&] { return seed = seed * 1103515245u + 12345u; };
  for (int round = 0; round < 300; ++round) {
    std::vector<uint8_t> bytes = w.data;
    for (int i = 0; i < 20; ++i) {
      size_t at = 4096 + next() % (bytes.size() - 4096);
      bytes[at] = uint8_t(next() >> 16);
    }
    // A flipped list entry may point at any key, so a key can be read more
    // than once; the work budget still ends the walk.
    EXPECT_LT(exercise(bytes), 100000u);
  }
}

}  // namespace
