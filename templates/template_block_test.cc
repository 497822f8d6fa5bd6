#include "templates/template_block.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "support/byte_reader.h"
#include "support/qv_string.h"
#include "templates/block_writer.h"
#include "templates/kernel_groups.h"
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

// ---- Versions, precedence and the lazy link -------------------------------

template_source source_of(const texts& lines) {
  template_source s;
  reset(s);
  add_template_lines(s, lines);
  return s;
}

bytes block_of(const texts& lines) {
  bytes block;
  std::string error;
  EXPECT_TRUE(write_template_block(source_of(lines), block, error)) << error;
  return block;
}

qv::guid16 guid_of(const std::string& text) {
  std::vector<uint8_t> b;
  qv::guid16 g{};
  if (qv::parse_guid(text, b) && b.size() == 16) std::copy(b.begin(), b.end(), g.begin());
  return g;
}

// What a store answers, as text: each provider's name, then for every
// identifier, version and trace build the chosen layout ("-" for none).
std::string answers(template_store& store, const std::vector<qv::guid16>& guids,
                    const std::vector<uint16_t>& event_ids) {
  std::string out;
  for (const qv::guid16& g : guids) {
    out += qv::guid_text(g.data()) + " " + provider_name_of(store, g) + "\n";
    for (uint16_t id : event_ids) {
      out += ' ';
      out += std::to_string(id);
      out += ':';
      for (int version : {-1, 0, 1, 2, 3, 5, 255}) {
        for (uint32_t build : {0u, 9200u, 9600u, 14393u, 20000u, 70000u}) {
          set_trace_build(store, build);
          const event_template* t = find_event_template(store, g, id, version);
          out += t ? t->layout_text : "-";
          out += ',';
        }
      }
      out += "\n";
    }
  }
  set_trace_build(store, 0);
  return out;
}

// Everything two stores hold that a lookup can reach, once every provider
// of the lazy one is linked: names, identifiers, versions and builds, and
// the layout behind every digest.
void expect_same_answers(template_store& eager, template_store& lazy) {
  unpack_all_providers(lazy);
  ASSERT_EQ(eager.providers.size(), lazy.providers.size());
  for (auto a = eager.providers.begin(), b = lazy.providers.begin(); a != eager.providers.end(); ++a, ++b) {
    ASSERT_EQ(a->first, b->first);
    const std::string g = qv::guid_text(a->first.data());
    EXPECT_EQ(a->second.name, b->second.name) << g;
    EXPECT_TRUE(a->second.events == b->second.events) << g;
    EXPECT_TRUE(a->second.versioned == b->second.versioned) << g;
    EXPECT_TRUE(b->second.pending.empty()) << g;
  }
  ASSERT_EQ(eager.by_digest.size(), lazy.by_digest.size());
  for (const auto& [digest, index] : eager.by_digest) {
    auto other = lazy.by_digest.find(digest);
    ASSERT_NE(other, lazy.by_digest.end());
    EXPECT_EQ(eager.templates.at(index).layout_text, lazy.templates.at(other->second).layout_text);
    EXPECT_EQ(eager.templates.at(index).names, lazy.templates.at(other->second).names);
  }
  EXPECT_EQ(eager.group_guids, lazy.group_guids);
}

const char kP1[] = "a1000000-0000-4000-8000-000000000001";
const char kP2[] = "a2000000-0000-4000-8000-000000000002";
const char kP3[] = "a3000000-0000-4000-8000-000000000003";
const char kP4[] = "a4000000-0000-4000-8000-000000000004";
const char kProcessClass[] = "3d6fa8d0-fe05-11d0-9dda-00c04fd7ba7c";

std::string line(const char* guid, const std::string& rest) {
  std::string text = "{";
  text += guid;
  text += "} ! ";
  text += rest;
  return text;
}

// The block of the mixed store: versions newest first, builds, a range,
// layouts shared between providers, a provider that is only declared, and a
// name for the classic process class.
const texts kBlockLines = {
    "#{" + std::string(kP1) + "} ! Block-One",
    "#{" + std::string(kP2) + "} ! Block-Two",
    "#{" + std::string(kP4) + "} ! Declared-Only",
    "#{" + std::string(kProcessClass) + "} ! Block-Process-Name",
    line(kP1, "$5, V2, LB_Size, 8, LB_Name, 1"),
    line(kP1, "$5, V1, LB_Size, 8"),
    line(kP1, "$6-8;12, V0, LB_Flags, 6"),
    line(kP1, "$9, LB_Plain, 10"),
    line(kP2, "$7, V2, LB_Seven2, 8, LB_Tail, 6"),
    line(kP2, "$7, V1, LB_Seven1, 8"),
    line(kP2, "$8, #9600, LB_Size, 8"),
    line(kP2, "$8, #14393, LB_Size, 8, LB_Name, 1"),
    line(kP3, "$1;2, V3, LB_Size, 8"),
    line(kP3, "$3, LB_Plain, 10"),
    line(kProcessClass, "$769, V4, LProcess_Start, 0x8001, LProcessId, 8"),
    line(kProcessClass, "$769, V3, LProcess_Start, 0x8001, LOldId, 8"),
};

// The user's file: it covers some of the block's keys and not others.
const char kFileText[] =
    "#{a2000000-0000-4000-8000-000000000002} ! File-Two\n"
    "{a1000000-0000-4000-8000-000000000001} ! $5, LF_Any, 7\n"                // covers every version of 5 at build 0
    "{a2000000-0000-4000-8000-000000000002} ! $7, V1, LF_Seven1, 7\n"        // wins over the block's V1 only
    "{a2000000-0000-4000-8000-000000000002} ! $8, #9600, LF_Eight9600, 7\n"  // wins at 9600; 14393 comes from the block
    "{a3000000-0000-4000-8000-000000000003} ! $1, V3, #14393, LF_One, 7\n";  // beside the block's build-less V3

std::vector<qv::guid16> mixed_guids() {
  return {guid_of(kP1), guid_of(kP2), guid_of(kP3), guid_of(kP4), guid_of(kProcessClass),
          guid_of("a5000000-0000-4000-8000-000000000005")};
}

TEST(TemplateBlockVersions, PrecedenceBetweenTheFileAndTheBlock) {
  temp_file file(kFileText);
  template_store store;
  load_templates(store, block_of(kBlockLines), file.path);
  const qv::guid16 p1 = guid_of(kP1), p2 = guid_of(kP2), p3 = guid_of(kP3);
  auto text = [&](const qv::guid16& g, uint16_t id, int version, uint32_t build) -> std::string {
    set_trace_build(store, build);
    const event_template* t = find_event_template(store, g, id, version);
    return t ? t->layout_text : "-";
  };
  // The file's layout for every version of 5 at build 0 covers the block's
  // build-less versions 1 and 2.
  for (int version : {-1, 1, 2, 3})
    for (uint32_t build : {0u, 9600u, 20000u}) EXPECT_EQ(text(p1, 5, version, build), "F_Any7");
  EXPECT_EQ(text(p1, 6, 0, 0), "B_Flags6");
  EXPECT_EQ(text(p1, 12, 3, 0), "B_Flags6");        // the only layout, whatever the version
  // Equal keys: the file's version 1 wins; the block's version 2 stands.
  EXPECT_EQ(text(p2, 7, 1, 0), "F_Seven17");
  EXPECT_EQ(text(p2, 7, 2, 0), "B_Seven28B_Tail6");
  EXPECT_EQ(text(p2, 7, 9, 0), "B_Seven28B_Tail6");  // among all: the highest version
  // Builds: the file's 9600, the block's 14393 beside it.
  EXPECT_EQ(text(p2, 8, -1, 9600), "F_Eight96007");
  EXPECT_EQ(text(p2, 8, -1, 10000), "B_Size8B_Name1");
  // A build-specific layout of the file beside the block's build-less one.
  EXPECT_EQ(text(p3, 1, 3, 9600), "F_One7");
  EXPECT_EQ(text(p3, 2, 3, 9600), "B_Size8");
  // Names: the file first, then the block; the kernel table doesn't replace
  // the block's name of the process class.
  EXPECT_EQ(provider_name_of(store, p2), "File-Two");
  EXPECT_EQ(provider_name_of(store, p1), "Block-One");
  EXPECT_EQ(provider_name_of(store, guid_of(kProcessClass)), "Block-Process-Name");
  EXPECT_EQ(provider_name_of(store, guid_of(kP4)), "Declared-Only");
  EXPECT_EQ(text(guid_of(kProcessClass), 769, 3, 0), "Process_Start32769OldId8");
  EXPECT_EQ(text(guid_of(kProcessClass), 769, 2, 0), "Process_Start32769ProcessId8");
}

TEST(TemplateBlockVersions, LazyLinkAnswersAsTheEagerLink) {
  temp_file file(kFileText);
  const bytes block = block_of(kBlockLines);
  std::vector<uint16_t> event_ids = {0, 1, 2, 3, 5, 6, 7, 8, 9, 10, 12, 769};

  // Eager: the file, then every record of the block, then the kernel table.
  template_store eager;
  template_source text;
  ASSERT_TRUE(load_template_text(text, file.path));
  link_templates(text, eager, false);
  template_source parsed;
  ASSERT_TRUE(parse_template_block(parsed, block));
  ASSERT_TRUE(link_templates(parsed, eager, true));
  add_kernel_groups(eager);

  // Lazy, looked up in another order and with names that a trace supplies
  // before any lookup: only names that are still empty take them.
  template_store lazy;
  load_templates(lazy, block, file.path);
  EXPECT_FALSE(lazy.providers.at(guid_of(kP1)).pending.empty());
  std::vector<qv::guid16> guids = mixed_guids();
  for (template_store* s : {&eager, &lazy}) {
    set_provider_name(*s, guid_of(kP3), "From-The-Trace");
    set_provider_name(*s, guid_of(kP1), "Not-Taken");
  }
  std::vector<qv::guid16> reversed(guids.rbegin(), guids.rend());
  EXPECT_EQ(answers(lazy, reversed, event_ids), answers(eager, reversed, event_ids));
  EXPECT_EQ(answers(lazy, guids, event_ids), answers(eager, guids, event_ids));
  EXPECT_EQ(provider_name_of(lazy, guid_of(kP3)), "From-The-Trace");
  EXPECT_EQ(provider_name_of(lazy, guid_of(kP1)), "Block-One");
  expect_same_answers(eager, lazy);

  // A provider's first lookup links its records, and only its records.
  template_store fresh;
  load_templates(fresh, block, "");
  EXPECT_EQ(fresh.templates.size(), 0u);
  EXPECT_NE(find_event_template(fresh, guid_of(kP2), 7, 2), nullptr);
  EXPECT_TRUE(fresh.providers.at(guid_of(kP2)).pending.empty());
  EXPECT_FALSE(fresh.providers.at(guid_of(kP1)).pending.empty());
  EXPECT_EQ(fresh.templates.size(), 4u);  // P2's four layouts
}

TEST(TemplateBlockVersions, SourcesLinkedAfterABlockComeBehindIt) {
  // Whatever is linked into a store after a block was indexed comes behind
  // the block's records, as it would behind an eager link of them: a source
  // of text, and a second block.
  const bytes block = block_of(kBlockLines);
  const bytes second = block_of({line(kP1, "$5, V2, LSecond, 8"), line(kP3, "$4, LSecond, 8")});
  template_source text = source_of({line(kP1, "$5, V2, LLater, 7"), line(kP2, "$9, LLater, 7")});

  template_store eager;
  template_source parsed;
  ASSERT_TRUE(parse_template_block(parsed, block));
  link_templates(parsed, eager, false);
  link_templates(text, eager, true);
  ASSERT_TRUE(parse_template_block(parsed, second));
  link_templates(parsed, eager, true);

  template_store lazy;
  bytes copy = block;
  ASSERT_TRUE(index_template_block(lazy, std::move(copy)));
  link_templates(text, lazy, true);
  copy = second;
  ASSERT_TRUE(index_template_block(lazy, std::move(copy)));
  EXPECT_EQ(find_event_template(lazy, guid_of(kP1), 5, 2)->layout_text, "B_Size8B_Name1");
  EXPECT_EQ(find_event_template(lazy, guid_of(kP2), 9, 2)->layout_text, "Later7");
  EXPECT_EQ(find_event_template(lazy, guid_of(kP3), 4, 2)->layout_text, "Second8");
  expect_same_answers(eager, lazy);
}

// A small block of every record shape: a declaration, versions, builds, a
// range, and a record whose name indices are u32.
bytes shapes_block() {
  template_source s = source_of({
      "#{a1000000-0000-4000-8000-000000000001} ! Block-One",
      line(kP1, "$5, V2, #9600, LSize, 8, LName, 1"),
      line(kP1, "$6-8;12, V0, LFlags, 6"),
      line(kP2, "$7, LSize, 8"),
  });
  bytes block;
  std::string error;
  EXPECT_TRUE(write_template_block(s, block, error)) << error;
  template_record wide;
  wide.guid = guid_of(kP2);
  wide.version = 1;
  wide.ids = {9};
  wide.words = {8, 6};
  wide.name_indices = {2, 0x10002};  // the second lies beyond the table
  EXPECT_TRUE(append_template_record(block, wide));
  return block;
}

// Reads `block` eagerly and lazily: both give the same messages and the
// same answers.
void expect_same_reading(const bytes& block, const std::string& what) {
  SCOPED_TRACE(what);
  template_store eager, lazy;
  template_source source;
  testing::internal::CaptureStderr();
  const bool parsed = parse_template_block(source, block);
  if (parsed) link_templates(source, eager, true);
  const std::string eager_err = testing::internal::GetCapturedStderr();
  testing::internal::CaptureStderr();
  bytes copy = block;
  const bool indexed = index_template_block(lazy, std::move(copy));
  const std::string lazy_err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(parsed, indexed);
  EXPECT_EQ(eager_err, lazy_err);
  testing::internal::CaptureStderr();
  expect_same_answers(eager, lazy);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");  // linking says nothing more
}

TEST(TemplateBlockVersions, ShapesReadTheSameEagerlyAndLazily) {
  const bytes block = shapes_block();
  template_source s;
  ASSERT_TRUE(parse_template_block(s, block));
  ASSERT_EQ(s.records.size(), 5u);
  EXPECT_EQ(s.records[0].version, -1);  // the declaration of Block-One
  EXPECT_EQ(s.records[1].version, 2);
  EXPECT_EQ(s.records[1].builds, ids{9600});
  EXPECT_EQ(s.records[2].version, 0);
  EXPECT_EQ(s.records[2].range_hi, 8);
  EXPECT_EQ(s.records[3].version, -1);
  EXPECT_EQ(s.records[3].names, texts{"Size"});
  EXPECT_EQ(s.records[4].version, 1);
  EXPECT_EQ(s.records[4].name_indices, (name_ids{2, 0x10002}));
  EXPECT_EQ(s.records[4].names, (texts{"Size", ""}));
  expect_same_reading(block, "whole");
}

TEST(TemplateBlockVersions, EveryCutAndChangeReadsTheSameEagerlyAndLazily) {
  bytes block = shapes_block();
  template_record wide;
  wide.guid = guid_of(kP2);
  wide.version = 1;
  wide.ids = {9};
  wide.words = {8, 6};
  wide.name_indices = {2, 0x10002};
  ASSERT_TRUE(append_template_record(block, wide));  // and a second, so that a cut one isn't last
  for (size_t n = 0; n <= block.size(); ++n)
    expect_same_reading(bytes(block.begin(), block.begin() + n), "cut at " + std::to_string(n));
  for (size_t i = 0; i < block.size(); ++i) {
    for (int change : {0x00, 0xFF, 0x80 ^ block[i], 0x40 ^ block[i], block[i] + 1, block[i] - 1}) {
      bytes changed = block;
      changed[i] = uint8_t(change);
      expect_same_reading(changed, "byte " + std::to_string(i) + " = " + std::to_string(uint8_t(change)));
    }
  }
}

TEST(TemplateBlockVersions, LyingSizesReadTheSameEagerlyAndLazily) {
  // Each record's size made smaller and larger by a few bytes: the walk goes
  // on behind what was read, and both readings report the same records.
  const bytes block = shapes_block();
  template_source s;
  size_t pos = 0;
  {
    std::vector<std::string> t;
    pos = read_string_table(t, block.data(), block.size());
    pos += read_string_table(t, block.data() + pos, block.size() - pos);
  }
  std::vector<size_t> starts;
  while (pos + 2 <= block.size()) {
    starts.push_back(pos);
    pos += 2 + qv::rd_u16(block.data(), block.size(), pos);
  }
  ASSERT_EQ(starts.size(), 5u);
  for (size_t at : starts) {
    for (int delta : {-7, -3, -2, -1, 1, 2, 5, 300}) {
      bytes changed = block;
      const int size = qv::rd_u16(changed.data(), changed.size(), at) + delta;
      changed[at] = uint8_t(size);
      changed[at + 1] = uint8_t(size >> 8);
      expect_same_reading(changed, "record at " + std::to_string(at) + " size " + std::to_string(delta));
    }
  }
}

TEST(TemplateBlockVersions, TheIdentifierCapIsSpentInBlockOrder) {
  // Sixteen records of 65,535 identifiers each leave 16 of the link's
  // 1,048,576; the next record enters its first 16 identifiers, the one
  // after it none. Linked lazily, in another order, the same holds.
  template_source s;
  reset(s);
  template_record wide;
  wide.guid = guid_of(kP1);
  wide.words = {8};
  wide.range_lo = 0;
  wide.range_hi = 0xFFFE;
  for (int i = 0; i < 16; ++i) s.records.push_back(wide);
  template_record late = wide;
  late.guid = guid_of(kP2);
  late.range_lo = 100;
  late.range_hi = 199;
  s.records.push_back(late);
  template_record later = late;
  later.range_hi = 0;
  later.ids = {7};
  s.records.push_back(later);
  bytes block;
  std::string error;
  ASSERT_TRUE(write_template_block(s, block, error)) << error;

  template_store lazy;
  load_templates(lazy, block, "");
  const qv::guid16 p2 = guid_of(kP2);
  EXPECT_NE(find_event_template(lazy, p2, 115), nullptr);
  EXPECT_EQ(find_event_template(lazy, p2, 116), nullptr);
  EXPECT_EQ(find_event_template(lazy, p2, 7), nullptr);
  EXPECT_NE(find_event_template(lazy, guid_of(kP1), 0xFFFE), nullptr);

  template_store eager;
  template_source parsed;
  ASSERT_TRUE(parse_template_block(parsed, block));
  link_templates(parsed, eager, false);
  add_kernel_groups(eager);
  expect_same_answers(eager, lazy);
}

TEST(TemplateBlockVersions, BlocksBeforeVersionsReadAsBefore) {
  // The worked record (flags byte 0) and a record with a range (flags 1):
  // no version, u16 names, as they always read.
  template_record r;
  ASSERT_EQ(unpack_template_record(r, record34.data(), record34.size()), 34u);
  EXPECT_EQ(r.version, -1);
  bytes ranged = {0x1e, 0x00, 0x00};
  ranged.insert(ranged.end(), process.begin(), process.end());
  ranged.insert(ranged.end(), {0x00, 0x00, 0x01, 0x0a, 0x00, 0x0c, 0x00, 0x00, 0x01, 0x08, 0x00, 0x03, 0x00});
  ASSERT_EQ(ranged.size(), 32u);
  ASSERT_EQ(unpack_template_record(r, ranged.data(), ranged.size()), 32u);
  EXPECT_EQ(r.version, -1);
  EXPECT_EQ(r.range_lo, 10);
  EXPECT_EQ(r.range_hi, 12);
  EXPECT_EQ(r.words, ids{8});
  EXPECT_EQ(r.name_indices, name_ids{3});

  // Bit 7 adds the version byte ahead of the range; bit 6 widens the names.
  bytes versioned = {0x21, 0x00, 0x00};
  versioned.insert(versioned.end(), process.begin(), process.end());
  versioned.insert(versioned.end(), {0x00, 0x00, 0xC1, 0x05, 0x0a, 0x00, 0x0c, 0x00, 0x00, 0x01, 0x08,
                                     0x00, 0x03, 0x00, 0x01, 0x00});
  ASSERT_EQ(versioned.size(), 35u);
  testing::internal::CaptureStderr();
  ASSERT_EQ(unpack_template_record(r, versioned.data(), versioned.size()), 35u);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(r.version, 5);
  EXPECT_EQ(r.range_lo, 10);
  EXPECT_EQ(r.range_hi, 12);
  EXPECT_EQ(r.name_indices, name_ids{0x10003});
}

}  // namespace
