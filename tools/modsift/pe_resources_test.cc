#include "tools/modsift/pe_resources.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "tools/modsift/test_pe_builder.h"

namespace {

using namespace modsift;
using modsift_test::bytes;
using modsift_test::test_resource;

bytes read_all(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return bytes(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

input_source mem(const bytes& b) {
  input_source s;
  s.mem = b.data();
  s.size = b.size();
  return s;
}

const std::string kWevt = std::string(QUON_SHARED_DIR) + "/wevt";

TEST(PeResources, RealImagesCarryTheLargeBlob) {
  bytes blob = read_all(kWevt + "/Large.wevt.v5.bin");
  if (blob.empty()) GTEST_SKIP() << "no test vectors in " << kWevt;
  // large32.dll is PE32, large64.dll PE32+; both hold the blob as
  // WEVT_TEMPLATE, name 1, language 0x409 (see the folder's README).
  for (int plus = 0; plus < 2; ++plus) {
    bytes img = read_all(kWevt + (plus ? "/pe/large64.dll" : "/pe/large32.dll"));
    ASSERT_FALSE(img.empty());
    pe_image pe;
    std::string reason;
    ASSERT_TRUE(read_pe_headers(mem(img), pe, reason)) << reason;
    EXPECT_EQ(pe.pe32_plus, plus == 1);
    EXPECT_EQ(pe.machine, plus ? 0x8664 : 0x14C);
    resource_set rs;
    ASSERT_TRUE(find_resources(mem(img), pe, rs));
    ASSERT_EQ(rs.wevt.size(), 1u);
    EXPECT_TRUE(rs.version.empty());
    EXPECT_TRUE(rs.messages.empty());
    EXPECT_TRUE(rs.wevt[0].name.empty());
    EXPECT_EQ(rs.wevt[0].name_id, 1u);
    EXPECT_EQ(rs.wevt[0].language, 0x409u);
    bytes data;
    ASSERT_TRUE(read_leaf(mem(img), pe, rs.wevt[0], size_t(1) << 20, data));
    EXPECT_EQ(data, blob);
    EXPECT_FALSE(read_leaf(mem(img), pe, rs.wevt[0], blob.size() - 1, data));  // size cap
  }
}

TEST(PeResources, BuiltImageWithVersionAndMessages) {
  bytes blob = {'C', 'R', 'I', 'M', 1, 2, 3};
  bytes other = {'C', 'R', 'I', 'M', 9};
  std::vector<test_resource> res(6);
  res[0].type_name = "WEVT_TEMPLATE";
  res[0].data = blob;
  res[1].type_name = "WEVT_TEMPLATE";
  res[1].name = "MUI";
  res[1].language = 0x407;
  res[1].data = other;
  res[2].type_id = 16;
  res[2].data = modsift_test::build_version_info(10, 0, 19041, 1741);
  res[3].type_id = 11;
  res[3].data = modsift_test::build_message_table(
      {{0x90000001u, "Microsoft-Windows-Test"}, {0x90000002u, "Second"}, {7, "Seven"}}, 1);
  res[4].type_id = 3;  // an icon: not collected
  res[4].data = {1, 2, 3, 4};
  res[5].type_name = "Wevt_Template";  // type names compare without case
  res[5].name_id = 2;
  res[5].data = blob;
  for (int plus = 0; plus < 2; ++plus) {
    bytes img = modsift_test::build_pe(plus == 1, res);
    pe_image pe;
    std::string reason;
    ASSERT_TRUE(read_pe_headers(mem(img), pe, reason)) << reason;
    EXPECT_EQ(pe.pe32_plus, plus == 1);
    resource_set rs;
    ASSERT_TRUE(find_resources(mem(img), pe, rs));
    ASSERT_EQ(rs.wevt.size(), 3u);
    ASSERT_EQ(rs.version.size(), 1u);
    ASSERT_EQ(rs.messages.size(), 1u);
    bytes d;
    // Named entries come first in a directory: "MUI" before 1.
    EXPECT_EQ(rs.wevt[0].name, "MUI");
    EXPECT_EQ(rs.wevt[0].language, 0x407u);
    ASSERT_TRUE(read_leaf(mem(img), pe, rs.wevt[0], 1000, d));
    EXPECT_EQ(d, other);
    EXPECT_EQ(rs.wevt[1].name_id, 1u);
    ASSERT_TRUE(read_leaf(mem(img), pe, rs.wevt[1], 1000, d));
    EXPECT_EQ(d, blob);
    EXPECT_EQ(rs.wevt[2].name_id, 2u);

    ASSERT_TRUE(read_leaf(mem(img), pe, rs.version[0], 1000, d));
    uint16_t v[4] = {};
    ASSERT_TRUE(file_version_of(qv::byte_span(d.data(), d.size()), v));
    EXPECT_EQ(v[0], 10);
    EXPECT_EQ(v[1], 0);
    EXPECT_EQ(v[2], 19041);
    EXPECT_EQ(v[3], 1741);

    ASSERT_TRUE(read_leaf(mem(img), pe, rs.messages[0], 1000, d));
    std::string text;
    qv::byte_span t(d.data(), d.size());
    EXPECT_TRUE(message_text_of(t, 0x90000001u, text));
    EXPECT_EQ(text, "Microsoft-Windows-Test");  // the "\r\n" is cut
    EXPECT_TRUE(message_text_of(t, 0x90000002u, text));
    EXPECT_EQ(text, "Second");
    EXPECT_TRUE(message_text_of(t, 7, text));
    EXPECT_EQ(text, "Seven");
    EXPECT_FALSE(message_text_of(t, 0x90000003u, text));
    EXPECT_FALSE(message_text_of(t, 8, text));
  }
}

TEST(PeResources, MessageTableForms) {
  // ANSI entries read as Latin-1, UTF-8 entries as they stand.
  bytes ansi = modsift_test::build_message_table({{5, "Caf\xE9 one"}}, 0);
  bytes utf8 = modsift_test::build_message_table({{5, "Caf\xC3\xA9 two"}}, 2);
  std::string text;
  EXPECT_TRUE(message_text_of(qv::byte_span(ansi.data(), ansi.size()), 5, text));
  EXPECT_EQ(text, "Caf\xC3\xA9 one");
  EXPECT_TRUE(message_text_of(qv::byte_span(utf8.data(), utf8.size()), 5, text));
  EXPECT_EQ(text, "Caf\xC3\xA9 two");
  // Damage: an entry length below the entry header, a block count that
  // can't fit, entries past the end.
  bytes two = modsift_test::build_message_table({{1, "a"}, {2, "b"}}, 1);
  bytes bad = two;
  bad[16] = 2;  // first entry's length (block table ends at 16)
  bad[17] = 0;
  EXPECT_FALSE(message_text_of(qv::byte_span(bad.data(), bad.size()), 2, text));
  bad = two;
  bad[0] = 0xFF;
  EXPECT_FALSE(message_text_of(qv::byte_span(bad.data(), bad.size()), 1, text));
  EXPECT_FALSE(message_text_of(qv::byte_span(two.data(), 20), 2, text));
  EXPECT_FALSE(message_text_of(qv::byte_span(), 1, text));
  uint16_t v[4];
  bytes junk(100, 0x41);
  EXPECT_FALSE(file_version_of(qv::byte_span(junk.data(), junk.size()), v));
  EXPECT_FALSE(file_version_of(qv::byte_span(), v));
}

TEST(PeResources, DamagedImages) {
  std::vector<test_resource> res(1);
  res[0].type_name = "WEVT_TEMPLATE";
  res[0].data = bytes(300, 7);
  bytes good = modsift_test::build_pe(true, res);
  modsift_test::pe_layout lay = modsift_test::layout_of_built_pe(true);
  pe_image pe;
  resource_set rs;
  std::string reason;

  bytes not_pe = {'Z', 'M', 0, 0};
  EXPECT_FALSE(read_pe_headers(mem(not_pe), pe, reason));
  bytes b = good;
  b[0x3C] = 0xF0;  // e_lfanew far outside the file
  b[0x3F] = 0x7F;
  EXPECT_FALSE(read_pe_headers(mem(b), pe, reason));
  b = good;
  b[lay.e_lfanew + 24] = 0x0C;  // optional header magic neither PE32 nor PE32+
  EXPECT_FALSE(read_pe_headers(mem(b), pe, reason));

  // Cut inside the resource section: the root directory still reads, but
  // the type's name lies past the cut, so no leaf is found.
  b.assign(good.begin(), good.begin() + lay.rsrc_file_offset + 40);
  ASSERT_TRUE(read_pe_headers(mem(b), pe, reason));
  find_resources(mem(b), pe, rs);
  EXPECT_TRUE(rs.wevt.empty());

  // A type directory entry that points back at the root directory: the walk
  // must end, and find nothing.
  b = good;
  uint32_t root = lay.rsrc_file_offset;
  b[root + 16 + 4] = 0;  // OffsetToData of the only type entry: subdirectory 0
  b[root + 16 + 5] = 0;
  b[root + 16 + 6] = 0;
  b[root + 16 + 7] = 0x80;
  ASSERT_TRUE(read_pe_headers(mem(b), pe, reason));
  EXPECT_TRUE(find_resources(mem(b), pe, rs));
  EXPECT_TRUE(rs.wevt.empty());

  // A root that claims 65535 entries of each kind.
  b = good;
  for (int i = 12; i < 16; ++i) b[root + i] = 0xFF;
  ASSERT_TRUE(read_pe_headers(mem(b), pe, reason));
  EXPECT_FALSE(find_resources(mem(b), pe, rs));

  // A data entry whose size runs past the section.
  ASSERT_TRUE(read_pe_headers(mem(good), pe, reason));
  ASSERT_TRUE(find_resources(mem(good), pe, rs));
  ASSERT_EQ(rs.wevt.size(), 1u);
  resource_leaf leaf = rs.wevt[0];
  bytes d;
  EXPECT_TRUE(read_leaf(mem(good), pe, leaf, 1 << 20, d));
  leaf.data_size = 0x10000;
  EXPECT_FALSE(read_leaf(mem(good), pe, leaf, 1 << 20, d));
  leaf.data_size = 300;
  leaf.data_rva = 0xFFFFFFF0u;
  EXPECT_FALSE(read_leaf(mem(good), pe, leaf, 1 << 20, d));

  // RVA mapping: inside the section's raw data only.
  uint64_t off = 0;
  EXPECT_TRUE(rva_to_offset(mem(good), pe, 0x1000, 16, off));
  EXPECT_EQ(off, lay.rsrc_file_offset);
  EXPECT_FALSE(rva_to_offset(mem(good), pe, 0x1000, 0x10000, off));
  EXPECT_FALSE(rva_to_offset(mem(good), pe, 0x0FFF, 2, off));  // straddles headers and section
  EXPECT_TRUE(rva_to_offset(mem(good), pe, 0x3C, 4, off));      // in the headers
  EXPECT_EQ(off, 0x3Cu);
  // A section whose raw size is smaller than what follows it in the file:
  // the bytes behind its raw data belong to no section.
  b = good;
  b[lay.section_table + 16] = 0x10;  // SizeOfRawData 0x10
  b[lay.section_table + 17] = 0;
  ASSERT_TRUE(read_pe_headers(mem(b), pe, reason));
  EXPECT_TRUE(rva_to_offset(mem(b), pe, 0x1000, 0x10, off));
  EXPECT_FALSE(rva_to_offset(mem(b), pe, 0x1000, 0x11, off));
  EXPECT_FALSE(rva_to_offset(mem(b), pe, 0x1010, 1, off));
  ASSERT_TRUE(read_pe_headers(mem(good), pe, reason));

  // Every prefix of the image: no crash, no read outside.
  for (size_t n = 0; n < good.size(); n += 7) {
    bytes cut(good.begin(), good.begin() + n);
    if (read_pe_headers(mem(cut), pe, reason) && find_resources(mem(cut), pe, rs))
      for (const resource_leaf& l : rs.wevt) read_leaf(mem(cut), pe, l, 1 << 20, d);
  }
}

}  // namespace
