#include "templates/template_block.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "templates/template_text.h"

namespace {

using bytes = std::vector<uint8_t>;
using ids = std::vector<uint16_t>;
using name_ids = std::vector<uint32_t>;
using texts = std::vector<std::string>;

// 3d6fa8d0-fe05-11d0-9dda-00c04fd7ba7c, the classic process class.
const qv::guid16 process = {0xd0, 0xa8, 0x6f, 0x3d, 0x05, 0xfe, 0xd0, 0x11,
                            0x9d, 0xda, 0x00, 0xc0, 0x4f, 0xd7, 0xba, 0x7c};

// The worked template record: 32 bytes follow, no builds, the process GUID,
// no provider name, no range, id 0x030B, words 0x8001 and 8 named by
// entries 6139 and 159.
const bytes record34 = {0x20, 0x00, 0x00, 0xd0, 0xa8, 0x6f, 0x3d, 0x05, 0xfe, 0xd0, 0x11, 0x9d,
                        0xda, 0x00, 0xc0, 0x4f, 0xd7, 0xba, 0x7c, 0x00, 0x00, 0x00, 0x01, 0x0b,
                        0x03, 0x02, 0x01, 0x80, 0x08, 0x00, 0xfb, 0x17, 0x9f, 0x00};

// A provider declaration of 24 bytes: name index `name`, nothing else.
bytes declaration(const qv::guid16& g, uint8_t name) {
  bytes b = {0x16, 0x00, 0x00};
  b.insert(b.end(), g.begin(), g.end());
  b.insert(b.end(), {name, 0x00, 0x00, 0x00, 0x00});
  return b;
}

// A template record with one identifier and no builds or range.
bytes template_record_bytes(const qv::guid16& g, uint16_t id, const ids& words, const ids& names,
                            uint16_t provider = 0, const ids& builds = {}) {
  bytes b = {0, 0, uint8_t(builds.size())};
  for (uint16_t v : builds) b.insert(b.end(), {uint8_t(v), uint8_t(v >> 8)});
  b.insert(b.end(), g.begin(), g.end());
  b.insert(b.end(), {uint8_t(provider), uint8_t(provider >> 8), 0, 1, uint8_t(id), uint8_t(id >> 8),
                     uint8_t(words.size())});
  for (uint16_t v : words) b.insert(b.end(), {uint8_t(v), uint8_t(v >> 8)});
  for (uint16_t v : names) b.insert(b.end(), {uint8_t(v), uint8_t(v >> 8)});
  b[0] = uint8_t(b.size() - 2);
  return b;
}

// Two string tables of short entries (each under 128 bytes).
bytes tables(const texts& fields, const texts& providers) {
  bytes b;
  for (const texts* t : {&fields, &providers}) {
    b.push_back(uint8_t(t->size()));
    for (const std::string& s : *t) {
      b.push_back(uint8_t(s.size()));
      b.insert(b.end(), s.begin(), s.end());
    }
  }
  return b;
}

bytes operator+(bytes a, const bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

qv::guid16 guid_with(uint8_t first) {
  qv::guid16 g{};
  g[0] = first;
  g[8] = 0x80;
  return g;
}

// The whole file, or nothing.
std::vector<uint8_t> read_all(const std::string& path) {
  std::ifstream in(path, std::ios::binary | std::ios::ate);
  if (!in) return {};
  std::vector<uint8_t> data(size_t(in.tellg()));
  in.seekg(0);
  in.read(reinterpret_cast<char*>(data.data()), std::streamsize(data.size()));
  if (!in) data.clear();
  return data;
}

const texts field_table = {"", "", "WMI_LOG_TYPE_PROCESS_TERMINATE", "ProcessID", "Size"};
const texts provider_table = {"unk", "Microsoft-Windows-Kernel-Process", "Other"};

TEST(TemplateBlock, WorkedRecordAndDeclaration) {
  template_record r;
  ASSERT_EQ(unpack_template_record(r, record34.data(), record34.size()), 34u);
  EXPECT_TRUE(r.builds.empty());
  EXPECT_EQ(r.guid, process);
  EXPECT_EQ(r.provider_index, 0);
  EXPECT_EQ(r.range_hi, 0);
  EXPECT_EQ(r.ids, ids{0x030B});
  EXPECT_EQ(r.words, (ids{0x8001, 8}));
  EXPECT_EQ(r.name_indices, (name_ids{6139, 159}));
  EXPECT_TRUE(r.layout_text.empty());
  EXPECT_FALSE(r.percent_form);

  bytes d = declaration(process, 1);
  ASSERT_EQ(d.size(), 24u);
  ASSERT_EQ(unpack_template_record(r, d.data(), d.size()), 24u);
  EXPECT_EQ(r.provider_index, 1);
  EXPECT_TRUE(r.words.empty());
  EXPECT_TRUE(r.ids.empty());
}

TEST(TemplateBlock, RecordsThatDontFit) {
  template_record r;
  EXPECT_EQ(unpack_template_record(r, nullptr, 100), 0u);
  EXPECT_EQ(unpack_template_record(r, record34.data(), 19), 0u);  // under 20 bytes
  EXPECT_EQ(unpack_template_record(r, record34.data(), 33), 0u);  // size beyond the bytes
  // Counts that claim more than the bytes hold: the fixed fields would pass
  // the end of what is available.
  bytes d = declaration(process, 1);
  d[0] = 0x12;  // size 18, so the size test passes with 20 bytes
  d[2] = 0x00;
  EXPECT_EQ(unpack_template_record(r, d.data(), 20), 0u);
}

TEST(TemplateBlock, SizeThatDoesntAddUp) {
  // A declaration whose size says 10 although its fixed fields take 22: the
  // record stands, the message appears once, and the walk goes on behind the
  // 24 bytes really read, where a second declaration lies.
  bytes lying = declaration(process, 1);
  lying[0] = 10;
  bytes block = tables(field_table, provider_table) + lying + declaration(guid_with(1), 2);
  template_source s;
  testing::internal::CaptureStderr();
  ASSERT_TRUE(parse_template_block(s, block));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Problem unpacking chunk data\n");
  ASSERT_EQ(s.records.size(), 2u);
  EXPECT_EQ(s.records[0].guid, process);
  EXPECT_EQ(s.records[1].guid, guid_with(1));
  EXPECT_EQ(s.records[1].provider_index, 2);

  // A size that is too large: the walk also follows what was read, not size.
  bytes padded = declaration(process, 1);
  padded[0] = 0x18;
  template_record r;
  bytes two = padded + declaration(guid_with(1), 2);
  testing::internal::CaptureStderr();
  EXPECT_EQ(unpack_template_record(r, two.data(), two.size()), 24u);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Problem unpacking chunk data\n");

  // Lists stop at the record's size: a field count of 200 in a 34-byte record
  // reads only what the size covers, here the two name indices as words.
  bytes big = record34;
  big[25] = 200;
  big.resize(big.size() + 40, 0xEE);  // bytes behind the record aren't taken
  testing::internal::CaptureStderr();
  EXPECT_EQ(unpack_template_record(r, big.data(), big.size()), 34u);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(r.words, (ids{0x8001, 8, 6139, 159}));
  EXPECT_TRUE(r.name_indices.empty());
}

TEST(TemplateBlock, StringTables) {
  texts t;
  EXPECT_EQ(read_string_table(t, nullptr, 0), 0u);
  const bytes cut_count = {0x81};
  EXPECT_EQ(read_string_table(t, cut_count.data(), 1), 0u);

  const bytes plain = {0x03, 0x00, 0x01, 'a', 0x02, 'b', 'c', 0xEE};
  EXPECT_EQ(read_string_table(t, plain.data(), plain.size()), 7u);
  EXPECT_EQ(t, (texts{"", "a", "bc"}));

  // A count beyond the bytes left, or nothing behind the count: no table.
  const bytes too_many = {0x05, 0x01, 'a'};
  EXPECT_EQ(read_string_table(t, too_many.data(), too_many.size()), 1u);
  EXPECT_TRUE(t.empty());
  const bytes count_only = {0x01};
  EXPECT_EQ(read_string_table(t, count_only.data(), 1), 1u);
  EXPECT_TRUE(t.empty());

  // A length beyond the bytes left leaves the entry empty and takes only the
  // length: the next entry's length is read from the text ('a' = 0x61).
  const bytes long_entry = {0x02, 0x05, 'a', 'b'};
  EXPECT_EQ(read_string_table(t, long_entry.data(), long_entry.size()), 3u);
  EXPECT_EQ(t, (texts{"", ""}));

  // Two-byte numbers, high part first: count 0x0002, lengths 3 and 0x0101.
  bytes two = {0x80, 0x02, 0x80, 0x03, 'x', 'y', 'z', 0x81, 0x01};
  two.insert(two.end(), 0x101, 'q');
  EXPECT_EQ(read_string_table(t, two.data(), two.size()), two.size());
  ASSERT_EQ(t.size(), 2u);
  EXPECT_EQ(t[0], "xyz");
  EXPECT_EQ(t[1], std::string(0x101, 'q'));

  // A two-byte length cut by the end.
  const bytes cut_length = {0x01, 0x81};
  EXPECT_EQ(read_string_table(t, cut_length.data(), 2), 2u);
  EXPECT_EQ(t, texts{""});
}

TEST(TemplateBlock, BlockShapes) {
  template_source s;
  EXPECT_FALSE(parse_template_block(s, bytes(35, 0)));
  // Field names take all the bytes: the provider table can't be read.
  bytes one_name = {0x01, 34};
  one_name.insert(one_name.end(), 34, 'n');
  EXPECT_FALSE(parse_template_block(s, one_name));

  // Ending right behind its two tables: accepted, and adds nothing.
  bytes only_tables = tables(field_table, provider_table);
  ASSERT_GE(only_tables.size(), 36u);
  ASSERT_TRUE(parse_template_block(s, only_tables));
  EXPECT_TRUE(s.records.empty());
  EXPECT_EQ(s.field_names, field_table);
  EXPECT_EQ(s.provider_names, provider_table);
  template_store store;
  set_provider_name(store, process, "kept");
  EXPECT_FALSE(link_templates(s, store, true));
  EXPECT_EQ(provider_name_of(store, process), "kept");

  // A tail of 16 bytes behind the first record isn't tried as a record.
  bytes tail = only_tables + declaration(process, 1) + bytes(16, 0x16);
  testing::internal::CaptureStderr();
  ASSERT_TRUE(parse_template_block(s, tail));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(s.records.size(), 1u);

  // A record that doesn't fit ends the walk; the records before it stand.
  bytes cut = only_tables + declaration(process, 1) + record34;
  cut.resize(cut.size() - 1);
  ASSERT_TRUE(parse_template_block(s, cut));
  EXPECT_EQ(s.records.size(), 1u);
}

TEST(TemplateBlock, NamesResolved) {
  // Index 4 is "Size"; index 9 lies beyond the table: an empty name, and the
  // field still counts.
  bytes block = tables(field_table, provider_table) + declaration(process, 1) +
                template_record_bytes(process, 0x030B, {0x8001, 8, 10}, {2, 3, 9}) +
                template_record_bytes(guid_with(1), 1, {8}, {4}, 2) +
                template_record_bytes(guid_with(1), 2, {8}, {4}, 1);
  template_source s;
  ASSERT_TRUE(parse_template_block(s, block));
  ASSERT_EQ(s.records.size(), 4u);
  EXPECT_EQ(s.records[1].names, (texts{"WMI_LOG_TYPE_PROCESS_TERMINATE", "ProcessID", ""}));
  EXPECT_EQ(s.records[2].names, texts{"Size"});
  // The first record that names a GUID gives its provider name.
  EXPECT_EQ(s.name_of_guid.at(process), 1u);
  EXPECT_EQ(s.name_of_guid.at(guid_with(1)), 2u);

  template_store store;
  ASSERT_TRUE(link_templates(s, store, false));
  const event_template* t = find_event_template(store, process, 0x030B);
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(t->words.size(), 3u);
  EXPECT_EQ(t->names[2], "");
  EXPECT_EQ(t->layout_text, "WMI_LOG_TYPE_PROCESS_TERMINATE32769ProcessID810");
  EXPECT_EQ(provider_name_of(store, process), "Microsoft-Windows-Kernel-Process");
  EXPECT_EQ(provider_name_of(store, guid_with(1)), "Other");
  // Equal layouts of two events share one template.
  EXPECT_EQ(store.templates.size(), 2u);
}

TEST(TemplateBlock, LinkRules) {
  template_source s;
  reset(s);
  auto add = [&](const qv::guid16& g, ids event_ids, ids words, ids builds = {}, uint16_t lo = 0,
                 uint16_t hi = 0) {
    template_record r;
    r.guid = g;
    r.ids = std::move(event_ids);
    r.words = std::move(words);
    r.builds = std::move(builds);
    r.range_lo = lo;
    r.range_hi = hi;
    s.records.push_back(r);
  };
  const qv::guid16 g = guid_with(2);
  add(g, {5}, {8});
  add(g, {5}, {10});              // same id, no builds: the first wins
  add(g, {6}, {1}, {9600});
  add(g, {6}, {2}, {9600, 14393});  // 9600 is taken; 14393 is added
  add(g, {1}, {}, {}, 100, 102);    // a stray record with ids and no fields
  add(g, {3}, {4}, {}, 20, 22);     // a range and an id
  add(g, {}, {4}, {}, 30, 0);       // range_hi 0 means no range
  add(g, {}, {4}, {}, 0xFFFE, 0xFFFF);  // a range at the top of the id space
  s.name_of_guid[g] = 7;            // beyond the provider names: no name

  template_store store;
  store.providers[guid_with(9)];
  ASSERT_TRUE(link_templates(s, store, false));
  EXPECT_EQ(store.providers.count(guid_with(9)), 0u);  // keep false cleared the store
  EXPECT_EQ(provider_name_of(store, g), "");
  const provider_entry& e = store.providers.at(g);
  EXPECT_EQ(find_event_template(store, g, 5)->words, ids{8});
  ASSERT_EQ(e.events.at(6).size(), 2u);
  set_trace_build(store, 9600);
  EXPECT_EQ(find_event_template(store, g, 6)->words, ids{1});
  set_trace_build(store, 14393);
  EXPECT_EQ(find_event_template(store, g, 6)->words, ids{2});
  EXPECT_EQ(e.events.count(1), 0u);
  EXPECT_EQ(e.events.count(100), 0u);
  for (uint16_t id : {3, 20, 21, 22, 0xFFFE, 0xFFFF}) EXPECT_EQ(e.events.count(id), 1u) << id;
  EXPECT_EQ(e.events.count(23), 0u);
  EXPECT_EQ(e.events.count(30), 0u);
  EXPECT_EQ(store.templates.size(), 5u);  // 8, 10, 1, 2, 4
  EXPECT_FALSE(link_templates(template_source(), store, true));
  EXPECT_EQ(store.templates.size(), 5u);
}

TEST(TemplateBlock, DigestCollisionMovesToTheNextDigest) {
  // A stored template whose digest is that of the layout "8" but whose text
  // differs stands for a collision of the hash.
  template_store store;
  event_template impostor;
  impostor.words = {9};
  impostor.names = {""};
  impostor.layout_text = "something else";
  impostor.digest = digest_of("8");
  store.templates.push_back(impostor);
  store.by_digest[impostor.digest] = 0;

  template_source s;
  template_record r;
  r.guid = process;
  r.ids = {1};
  r.words = {8};
  s.records.push_back(r);
  ASSERT_TRUE(link_templates(s, store, true));
  ASSERT_EQ(store.templates.size(), 2u);
  template_digest moved = digest_of("8");
  moved[15] = uint8_t(moved[15] + 1);
  EXPECT_EQ(store.templates[1].digest, moved);
  EXPECT_EQ(store.by_digest.at(moved), 1u);
  const event_template* t = find_event_template(store, process, 1);
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(t->layout_text, "8");
}

struct temp_file {
  std::string path;
  explicit temp_file(const std::string& content) {
    char name[] = "/tmp/quon_blk_XXXXXX";
    int fd = mkstemp(name);
    path = name;
    if (fd >= 0) {
      EXPECT_EQ(write(fd, content.data(), content.size()), ssize_t(content.size()));
      close(fd);
    }
  }
  ~temp_file() { unlink(path.c_str()); }
};

TEST(TemplateBlock, LoadOrderTextFileFirst) {
  // The block: a name for the process class, event 14 with build 14393,
  // event 5 with no build, and a named provider.
  const qv::guid16 g = guid_with(3);
  bytes block = tables(field_table, provider_table) + declaration(g, 2) +
                template_record_bytes(g, 14, {8}, {4}, 0, {14393}) +
                template_record_bytes(g, 5, {10}, {4}) +
                template_record_bytes(process, 0x0301, {8}, {3});
  // The text file: event 14 with no build, event 5 with another layout, a
  // name for the same provider.
  temp_file text(
      "#{00000003-0000-0000-8000-000000000000} ! From-The-File\n"
      "{00000003-0000-0000-8000-000000000000} ! $14, LFile, 1\n"
      "{00000003-0000-0000-8000-000000000000} ! $5, LFile, 2\n");

  template_store store;
  load_templates(store, block, text.path);
  EXPECT_EQ(provider_name_of(store, g), "From-The-File");
  // The block's records of a provider are linked when it is first looked up.
  unpack_provider(store, g);
  const build_map& b14 = store.providers.at(g).events.at(14);
  ASSERT_EQ(b14.size(), 2u);
  EXPECT_EQ(b14.begin()->first, 0);
  EXPECT_EQ(b14.rbegin()->first, 14393);
  // The block's build-specific layout decodes every trace of a known build.
  for (uint32_t build : {0u, 9600u, 14393u, 20000u}) {
    set_trace_build(store, build);
    EXPECT_EQ(find_event_template(store, g, 14)->words, ids{8}) << build;
  }
  // Equal keys: the file's layout wins.
  EXPECT_EQ(find_event_template(store, g, 5)->words, ids{2});
  // The block fills in what the file lacks, and the kernel table comes last.
  EXPECT_NE(find_event_template(store, process, 0x0301), nullptr);
  EXPECT_EQ(provider_name_of(store, process), "Kernel-Process-Trace");
  qv::guid16 group{};
  EXPECT_TRUE(group_guid_of(store, 0x0305, group));

  // A file that can't be read adds nothing and says nothing.
  testing::internal::CaptureStderr();
  load_templates(store, block, "/nonexistent/quon.txt");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(provider_name_of(store, g), "Other");
  EXPECT_EQ(find_event_template(store, g, 5)->words, ids{10});

  // Neither source: only the kernel groups.
  load_templates(store, {}, "");
  EXPECT_TRUE(store.templates.empty());
  EXPECT_EQ(store.group_guids.size(), 31u);
}

TEST(TemplateBlock, ReadFromTheRunningExecutable) {
  bytes file = read_all("/proc/self/exe");
  ASSERT_GT(file.size(), 8192u);

  bytes out = {1};
  EXPECT_FALSE(read_embedded_block(out, 0, 100));
  EXPECT_TRUE(out.empty());
  EXPECT_FALSE(read_embedded_block(out, 4095, 100));
  EXPECT_FALSE(read_embedded_block(out, uint32_t(file.size()), 100));
  EXPECT_FALSE(read_embedded_block(out, uint32_t(file.size() + 1), 100));

  ASSERT_TRUE(read_embedded_block(out, 4096, 100));
  EXPECT_EQ(out, bytes(file.begin() + 4096, file.begin() + 4196));
  // A length beyond the end of the file is cut to the bytes there.
  uint32_t near_end = uint32_t(file.size() - 10);
  ASSERT_TRUE(read_embedded_block(out, near_end, 1000));
  EXPECT_EQ(out, bytes(file.end() - 10, file.end()));

  // The test binary is never patched: no location, no block, no message.
  uint32_t offset = 1, length = 1;
  EXPECT_FALSE(embedded_block_location(offset, length));
  EXPECT_EQ(offset, 0u);
  EXPECT_EQ(length, 0u);
  EXPECT_FALSE(read_own_block(out));
  EXPECT_TRUE(out.empty());
}

}  // namespace
