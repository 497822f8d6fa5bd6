#include "templates/block_writer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>

#include "support/qv_string.h"
#include "support/uni_fileio.h"
#include "templates/kernel_groups.h"
#include "templates/template_block.h"
#include "templates/template_text.h"

namespace {

using bytes = std::vector<uint8_t>;
using texts = std::vector<std::string>;

const qv::guid16 process = {0xd0, 0xa8, 0x6f, 0x3d, 0x05, 0xfe, 0xd0, 0x11,
                            0x9d, 0xda, 0x00, 0xc0, 0x4f, 0xd7, 0xba, 0x7c};

// Everything of two stores that decoding can see, except `percent_form`,
// which a block never carries.
void expect_same_store(const template_store& a, const template_store& b) {
  ASSERT_EQ(a.templates.size(), b.templates.size());
  for (size_t i = 0; i < a.templates.size(); ++i) {
    EXPECT_EQ(a.templates[i].layout_text, b.templates[i].layout_text) << i;
    EXPECT_EQ(a.templates[i].digest, b.templates[i].digest) << i;
    EXPECT_EQ(a.templates[i].words, b.templates[i].words) << i;
    EXPECT_EQ(a.templates[i].names, b.templates[i].names) << i;
  }
  EXPECT_EQ(a.by_digest, b.by_digest);
  ASSERT_EQ(a.providers.size(), b.providers.size());
  for (auto ia = a.providers.begin(), ib = b.providers.begin(); ia != a.providers.end(); ++ia, ++ib) {
    ASSERT_EQ(ia->first, ib->first);
    EXPECT_EQ(ia->second.name, ib->second.name) << qv::guid_text(ia->first.data());
    EXPECT_TRUE(ia->second.events == ib->second.events) << qv::guid_text(ia->first.data());
    EXPECT_TRUE(ia->second.versioned == ib->second.versioned) << qv::guid_text(ia->first.data());
  }
  EXPECT_EQ(a.group_guids, b.group_guids);
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

template_source source_of(const texts& lines) {
  template_source s;
  reset(s);
  add_template_lines(s, lines);
  return s;
}

TEST(BlockWriter, CountedNumbers) {
  bytes out;
  for (uint32_t v : {0u, 0x7Fu, 0x80u, 0x1234u, 0x7FFFu}) EXPECT_TRUE(append_counted_number(out, v));
  EXPECT_EQ(out, (bytes{0x00, 0x7F, 0x80, 0x80, 0x92, 0x34, 0xFF, 0xFF}));
  EXPECT_FALSE(append_counted_number(out, 0x8000));
  EXPECT_EQ(out.size(), 8u);
  // And back.
  uint32_t v = 0;
  EXPECT_EQ(read_counted_number(v, out.data() + 4, 2), 2u);
  EXPECT_EQ(v, 0x1234u);
}

TEST(BlockWriter, RecordBytes) {
  // The worked 34-byte template record and the 24-byte declaration.
  template_record r;
  r.guid = process;
  r.ids = {0x030B};
  r.words = {0x8001, 8};
  r.name_indices = {6139, 159};
  bytes out;
  ASSERT_TRUE(append_template_record(out, r));
  EXPECT_EQ(out, (bytes{0x20, 0x00, 0x00, 0xd0, 0xa8, 0x6f, 0x3d, 0x05, 0xfe, 0xd0, 0x11, 0x9d,
                        0xda, 0x00, 0xc0, 0x4f, 0xd7, 0xba, 0x7c, 0x00, 0x00, 0x00, 0x01, 0x0b,
                        0x03, 0x02, 0x01, 0x80, 0x08, 0x00, 0xfb, 0x17, 0x9f, 0x00}));

  template_record d;
  d.guid = process;
  d.provider_index = 1;
  out.clear();
  ASSERT_TRUE(append_template_record(out, d));
  bytes expected = {0x16, 0x00, 0x00};
  expected.insert(expected.end(), process.begin(), process.end());
  expected.insert(expected.end(), {0x01, 0x00, 0x00, 0x00, 0x00});
  EXPECT_EQ(out, expected);

  // With builds and a range: both written, has_range 1.
  r.builds = {9600};
  r.range_lo = 10;
  r.range_hi = 0x1234;
  out.clear();
  ASSERT_TRUE(append_template_record(out, r));
  ASSERT_EQ(out.size(), 40u);
  EXPECT_EQ(out[0], 38);
  EXPECT_EQ(out[2], 1);
  EXPECT_EQ(out[3], 0x80);
  EXPECT_EQ(out[4], 0x25);
  EXPECT_EQ(out[23], 1);
  EXPECT_EQ(out[26], 0x34);
  EXPECT_EQ(out[27], 0x12);

  // Counts are single bytes; names and words go in pairs.
  r.ids.assign(256, 1);
  EXPECT_FALSE(append_template_record(out, r));
  r.ids = {1};
  r.name_indices = {1};
  EXPECT_FALSE(append_template_record(out, r));
  EXPECT_EQ(out.size(), 40u);
}

TEST(BlockWriter, TablesAndOrder) {
  template_source s = source_of({
      "{7d44233d-3055-4b9c-ba64-0d47ca40a232} ! $801, LLength, 6, 0xa101, LFlags, 8",
      "{30e1d284-5d88-459c-83fd-6345b39b19ec} ! $14, LFlags, 8, LNew, 1",
      "#{7d44233d-3055-4b9c-ba64-0d47ca40a232} ! Microsoft-Windows-WinHttp",
      "#{11111111-2222-3333-4444-555555555555} ! unk",
  });
  bytes block;
  std::string error;
  ASSERT_TRUE(write_template_block(s, block, error)) << error;

  template_source back;
  ASSERT_TRUE(parse_template_block(back, block));
  EXPECT_EQ(back.field_names, (texts{"", "", "Length", "Flags", "New"}));
  // A provider that is really called "unk" gets its own entry.
  EXPECT_EQ(back.provider_names, (texts{"unk", "Microsoft-Windows-WinHttp", "unk"}));
  ASSERT_EQ(back.records.size(), 4u);
  EXPECT_TRUE(back.records[0].words.empty());  // declarations first
  EXPECT_TRUE(back.records[1].words.empty());
  EXPECT_EQ(back.records[0].provider_index, 1);
  EXPECT_EQ(back.records[1].provider_index, 2);
  EXPECT_EQ(back.records[2].ids, std::vector<uint16_t>{801});
  EXPECT_EQ(back.records[2].name_indices, (std::vector<uint32_t>{2, 1, 3}));
  EXPECT_EQ(back.records[2].provider_index, 1);
  EXPECT_EQ(back.records[3].name_indices, (std::vector<uint32_t>{3, 4}));
  EXPECT_EQ(back.records[3].provider_index, 0);
}

TEST(BlockWriter, RoundTripGivesTheSameStore) {
  std::string builds;
  for (int b = 1; b <= 300; ++b) builds += ", #" + std::to_string(b * 100);
  const texts lines = {
      "// round trip",
      "#{7d44233d-3055-4b9c-ba64-0d47ca40a232} ! Microsoft-Windows-WinHttp",
      "{7d44233d-3055-4b9c-ba64-0d47ca40a232} ! $801, L_ConnectionNameLength, 6, LConnectionName, "
      "0xa101, LDetectFlags, 8",
      "{3d6fa8d0-fe05-11d0-9dda-00c04fd7ba7c} ! $779, LWMI_LOG_TYPE_PROCESS_TERMINATE, 0x8001, "
      "LProcessID, 8",
      "{30e1d284-5d88-459c-83fd-6345b39b19ec} ! $14, #0x3839, Lfid_UcxController, 0x10, "
      "LDeviceDescLength, 8, LDeviceDescription, 1, LStartDeviceFailReason, 8",
      "{30e1d284-5d88-459c-83fd-6345b39b19ec} ! $14, #9600, Lfid_UcxController, 0x10, 8",
      "{c88a4ef5-d048-4013-9408-e04b7db2814a} ! $1-2;4;5, Lfid_USBPORT_HC, 0x8006",
      "{c88a4ef5-d048-4013-9408-e04b7db2814a} ! $300-700, Lfid_USBPORT_HC, 0x8006",
      "{c88a4ef5-d048-4013-9408-e04b7db2814a} ! %9, 8, LX, 0",
      "{11111111-2222-3333-4444-555555555555} ! $1, 8",
      "#{11111111-2222-3333-4444-555555555555} ! Declared-Later",
      "{22222222-2222-3333-4444-555555555555} ! $2, #5" ,  // no fields
      "{33333333-2222-3333-4444-555555555555} ! $3;4" + builds + ", LWide, 8",
      "{3d6fa8d0-fe05-11d0-9dda-00c04fd7ba7c} ! $780, LProcessID, 8",
  };
  template_source text = source_of(lines);
  template_store direct;
  ASSERT_TRUE(link_templates(text, direct, false));
  add_kernel_groups(direct);

  bytes block;
  std::string error;
  ASSERT_TRUE(write_template_block(text, block, error)) << error;
  template_source parsed;
  testing::internal::CaptureStderr();
  ASSERT_TRUE(parse_template_block(parsed, block));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  template_store via_block;
  ASSERT_TRUE(link_templates(parsed, via_block, false));
  add_kernel_groups(via_block);
  expect_same_store(direct, via_block);

  // The lists that don't fit a byte were cut into several records.
  qv::guid16 usb{};
  std::vector<uint8_t> g;
  ASSERT_TRUE(qv::parse_guid("c88a4ef5-d048-4013-9408-e04b7db2814a", g));
  std::copy(g.begin(), g.end(), usb.begin());
  EXPECT_EQ(via_block.providers.at(usb).events.size(), 4u + 401u + 1u);
  EXPECT_GT(parsed.records.size(), text.records.size());

}

TEST(BlockWriter, VersionsRoundTrip) {
  // The worked record with version 3 and a range: flags 0x81, the version
  // byte, then the range.
  template_record r;
  r.guid = process;
  r.version = 3;
  r.range_lo = 10;
  r.range_hi = 12;
  r.ids = {0x030B};
  r.words = {0x8001, 8};
  r.name_indices = {6139, 159};
  bytes out;
  ASSERT_TRUE(append_template_record(out, r));
  bytes expected = {0x25, 0x00, 0x00};
  expected.insert(expected.end(), process.begin(), process.end());
  expected.insert(expected.end(), {0x00, 0x00, 0x81, 0x03, 0x0a, 0x00, 0x0c, 0x00, 0x01, 0x0b, 0x03, 0x02,
                                   0x01, 0x80, 0x08, 0x00, 0xfb, 0x17, 0x9f, 0x00});
  EXPECT_EQ(out, expected);
  template_record back;
  ASSERT_EQ(unpack_template_record(back, out.data(), out.size()), out.size());
  EXPECT_EQ(back.version, 3);
  EXPECT_EQ(back.range_hi, 12);
  EXPECT_EQ(back.ids, std::vector<uint16_t>{0x030B});
  EXPECT_EQ(back.name_indices, (std::vector<uint32_t>{6139, 159}));

  // Lines that differ only in version or builds stay apart through the
  // block, lists longer than a byte are cut with their version kept, and a
  // line without a version stays without one.
  std::string many;
  for (int id = 1000; id < 1300; ++id) {
    many += ';';
    many += std::to_string(id);
  }
  const texts lines = {
      "#{7d44233d-3055-4b9c-ba64-0d47ca40a232} ! Microsoft-Windows-WinHttp",
      "{7d44233d-3055-4b9c-ba64-0d47ca40a232} ! $801, V2, LLength, 6, LName, 0xa101",
      "{7d44233d-3055-4b9c-ba64-0d47ca40a232} ! $801, V1, LLength, 6, LName, 0xa101",
      "{7d44233d-3055-4b9c-ba64-0d47ca40a232} ! $801, V1, #9600, LLength, 6, LName, 0xa101",
      "{7d44233d-3055-4b9c-ba64-0d47ca40a232} ! $801, LLength, 6",
      "{7d44233d-3055-4b9c-ba64-0d47ca40a232} ! $1-2" + many + ", V255, LWide, 8",
      "{7d44233d-3055-4b9c-ba64-0d47ca40a232} ! $3, V0, LWide, 8",
  };
  template_source text = source_of(lines);
  template_store direct;
  ASSERT_TRUE(link_templates(text, direct, false));
  bytes block;
  std::string error;
  ASSERT_TRUE(write_template_block(text, block, error)) << error;
  template_source parsed;
  ASSERT_TRUE(parse_template_block(parsed, block));
  std::vector<int> versions;
  for (const template_record& p : parsed.records) versions.push_back(p.version);
  EXPECT_EQ(versions, (std::vector<int>{-1, 2, 1, 1, -1, 255, 255, 0}));
  template_store via_block;
  ASSERT_TRUE(link_templates(parsed, via_block, false));
  expect_same_store(direct, via_block);
  const provider_entry& e = via_block.providers.begin()->second;
  ASSERT_EQ(e.versioned.at(801).size(), 2u);
  EXPECT_EQ(e.versioned.at(801).at(1).size(), 2u);  // builds 0 and 9600
  EXPECT_EQ(e.events.at(801).size(), 1u);
  EXPECT_EQ(e.versioned.at(1299).count(255), 1u);
}

TEST(BlockWriter, MoreThan32767FieldNames) {
  // Table counts above 0x7FFF are 80 00 and a u32; name indices above
  // 0xFFFF make a record's names u32 (flag 0x40); smaller ones stay u16.
  bytes out;
  append_table_count(out, 5);
  append_table_count(out, 0x7FFF);
  append_table_count(out, 0x12345);
  EXPECT_EQ(out, (bytes{0x05, 0xFF, 0xFF, 0x80, 0x00, 0x45, 0x23, 0x01, 0x00}));
  uint32_t v = 0;
  EXPECT_EQ(read_table_count(v, out.data() + 3, 6), 6u);
  EXPECT_EQ(v, 0x12345u);
  EXPECT_EQ(read_table_count(v, out.data() + 3, 5), 0u);  // cut short
  EXPECT_EQ(read_table_count(v, out.data() + 1, 2), 2u);
  EXPECT_EQ(v, 0x7FFFu);

  texts lines;
  for (int i = 0; i < 70000; i += 4) {
    std::string l = "{7d44233d-3055-4b9c-ba64-0d47ca40a232} ! $" + std::to_string(i / 4) + ", V1";
    for (int f = i; f < i + 4; ++f) l += ", LField_" + std::to_string(f) + ", 8";
    lines.push_back(l);
  }
  lines.push_back("{7d44233d-3055-4b9c-ba64-0d47ca40a232} ! $60000, LField_3, 8, LField_69999, 6");
  template_source text = source_of(lines);
  template_store direct;
  ASSERT_TRUE(link_templates(text, direct, false));
  bytes block;
  std::string error;
  ASSERT_TRUE(write_template_block(text, block, error)) << error;
  EXPECT_EQ(bytes(block.begin(), block.begin() + 6), (bytes{0x80, 0x00, 0x72, 0x11, 0x01, 0x00}));  // 70,002
  template_source parsed;
  ASSERT_TRUE(parse_template_block(parsed, block));
  ASSERT_EQ(parsed.field_names.size(), 70002u);
  EXPECT_EQ(parsed.field_names[70001], "Field_69999");
  EXPECT_EQ(parsed.records.back().name_indices, (std::vector<uint32_t>{5, 70001}));
  EXPECT_EQ(parsed.records.back().names, (texts{"Field_3", "Field_69999"}));
  template_store via_block;
  ASSERT_TRUE(link_templates(parsed, via_block, false));
  expect_same_store(direct, via_block);
  template_store lazy;
  load_templates(lazy, block, "");
  const event_template* t = find_event_template(lazy, text.records[0].guid, 60000);
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(t->layout_text, "Field_38Field_699996");
}

TEST(BlockWriter, SourcesThatDontFit) {
  std::string fields;
  for (int i = 0; i < 256; ++i) fields += ", 8";
  template_source s = source_of({"{7d44233d-3055-4b9c-ba64-0d47ca40a232} ! $1" + fields});
  ASSERT_EQ(s.records.size(), 1u);
  bytes block;
  std::string error;
  EXPECT_FALSE(write_template_block(s, block, error));
  EXPECT_NE(error.find("255 fields"), std::string::npos);

  s = source_of({"{7d44233d-3055-4b9c-ba64-0d47ca40a232} ! $1, L" + std::string(0x8000, 'n') + ", 8"});
  EXPECT_FALSE(write_template_block(s, block, error));
  EXPECT_NE(error.find("longer than"), std::string::npos);
}

TEST(BlockWriter, DamagedBlocksAreReadSafely) {
  // Every cut of a block and every single-byte change is read without a
  // fault (the sanitizer build checks the reads); what is read stays within
  // what the whole block holds.
  template_source s = source_of({
      "#{7d44233d-3055-4b9c-ba64-0d47ca40a232} ! Microsoft-Windows-WinHttp",
      "{7d44233d-3055-4b9c-ba64-0d47ca40a232} ! $801-803;7, #9600, LLength, 6, LName, 0xa101",
      "{3d6fa8d0-fe05-11d0-9dda-00c04fd7ba7c} ! $779, LLabel, 0x8001, LProcessID, 8",
  });
  bytes block;
  std::string error;
  ASSERT_TRUE(write_template_block(s, block, error)) << error;
  template_source full;
  ASSERT_TRUE(parse_template_block(full, block));
  ASSERT_EQ(full.records.size(), 3u);

  testing::internal::CaptureStderr();
  for (size_t n = 0; n <= block.size(); ++n) {
    bytes cut(block.begin(), block.begin() + n);
    template_source part;
    parse_template_block(part, cut);
    EXPECT_LE(part.records.size(), full.records.size()) << n;
    template_store store;
    link_templates(part, store, false);
  }
  for (size_t i = 0; i < block.size(); ++i) {
    for (uint8_t v : {uint8_t(0x00), uint8_t(0xFF), uint8_t(block[i] ^ 0x80)}) {
      bytes changed = block;
      changed[i] = v;
      template_source part;
      parse_template_block(part, changed);
      template_store store;
      link_templates(part, store, false);
    }
  }
  testing::internal::GetCapturedStderr();
}

// Reads the files the way the build step does: one source, each file on its
// own terms.
template_source source_of_files(const std::string& list) {
  template_source s;
  reset(s);
  std::vector<std::string> paths;
  qv::split(list, '|', paths, false, false);
  for (const std::string& path : paths) {
    bytes data = read_all(path);
    EXPECT_FALSE(data.empty()) << path;
    std::vector<std::string> lines;
    qv::split_lines(data, lines);
    add_template_lines(s, lines);
  }
  return s;
}

TEST(EmbeddedBlock, QuonCarriesTheDataSources) {
#if !defined(QUON_EXECUTABLE) || !defined(QUON_TEMPLATE_SOURCE_LIST)
  GTEST_SKIP() << "built without the quon target";
#else
  bytes file = read_all(QUON_EXECUTABLE);
  ASSERT_FALSE(file.empty()) << QUON_EXECUTABLE;

  // Exactly one location record, pointing at a block that ends the file.
  const uint8_t magic[block_location_magic_size] = {QUON_BLOCK_LOCATION_MAGIC};
  std::vector<size_t> found;
  for (auto it = file.begin(); (it = std::search(it, file.end(), magic, magic + 16)) != file.end(); ++it)
    found.push_back(size_t(it - file.begin()));
  ASSERT_EQ(found.size(), 1u);
  ASSERT_LE(found[0] + block_location_record_size, file.size());
  uint32_t offset = 0, length = 0;
  for (int i = 3; i >= 0; --i) {
    offset = offset << 8 | file[found[0] + 16 + i];
    length = length << 8 | file[found[0] + 20 + i];
  }
  ASSERT_GE(offset, 4096u);
  ASSERT_GT(offset, found[0]);
  ASSERT_EQ(uint64_t(offset) + length, file.size());

  template_source embedded;
  testing::internal::CaptureStderr();
  ASSERT_TRUE(parse_template_block(embedded, file.data() + offset, length));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  template_store from_block;
  link_templates(embedded, from_block, false);

  template_source text = source_of_files(QUON_TEMPLATE_SOURCE_LIST);
  template_store from_text;
  link_templates(text, from_text, false);
  EXPECT_FALSE(from_text.templates.empty()) << "the data sources hold no template";
  expect_same_store(from_text, from_block);
#endif
}

// A block of the size that quon carries: about 5,200 records (a thousand
// provider declarations, the rest templates of about four fields, some of
// them equal), 6,600 field names. Reading, parsing and linking it is the
// start-up cost of every run.
TEST(EmbeddedBlock, StartUpCost) {
  uint32_t seed = 12345;
  auto next = [&seed](uint32_t n) {
    seed = seed * 1664525u + 1013904223u;
    return (seed >> 8) % n;
  };
  std::vector<std::string> pool;
  for (int i = 0; i < 6628; ++i) pool.push_back("FieldName_" + std::to_string(i) + "_x");
  const uint16_t common_words[] = {8, 1, 16, 10, 6, 15, 0x8001, 125, 7, 4, 19, 2, 0xA101, 0xA184};

  template_source s;
  reset(s);
  auto guid_of = [](uint32_t n) {
    qv::guid16 g{};
    for (int i = 0; i < 4; ++i) g[i] = uint8_t(n >> (8 * i));
    g[15] = 0x5A;
    return g;
  };
  for (uint32_t p = 1; p <= 978; ++p) {
    template_record d;
    d.guid = guid_of(p);
    d.provider_index = uint16_t(s.provider_names.size());
    s.name_of_guid[d.guid] = d.provider_index;
    s.provider_names.push_back("Microsoft-Windows-Provider-" + std::to_string(p));
    s.records.push_back(d);
  }
  size_t distinct = 0;
  for (uint32_t t = 0; t < 4233; ++t) {
    template_record r;
    r.guid = guid_of(1 + t % 176);
    if (t % 5 == 0) {
      r.range_lo = uint16_t(t);
      r.range_hi = uint16_t(t + next(20));
    } else {
      r.ids = {uint16_t(t)};
    }
    if (t >= 1000 && t % 21 == 0) {  // about 200 layouts that repeat an earlier one
      const template_record& earlier = s.records[978 + next(900)];
      r.words = earlier.words;
      r.names = earlier.names;
    } else {
      size_t fields = 1 + next(7);
      for (size_t f = 0; f < fields; ++f) {
        r.words.push_back(common_words[next(14)]);
        r.names.push_back(pool[next(6628)]);
      }
      r.names.back() = "Unique_" + std::to_string(t);
      ++distinct;
    }
    s.records.push_back(r);
  }
  bytes block;
  std::string error;
  ASSERT_TRUE(write_template_block(s, block, error)) << error;

  char path[] = "/tmp/quon_bench_XXXXXX";
  int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(write(fd, block.data(), block.size()), ssize_t(block.size()));
  close(fd);

  double best_ms = 1e9;
  template_store store;
  for (int run = 0; run < 5; ++run) {
    auto start = std::chrono::steady_clock::now();
    uni::fileio file;
    ASSERT_TRUE(file.open(std::string(path), false, false, false));
    bytes read;
    ASSERT_TRUE(file.read_block(read, file.file_size(), 0));
    template_source parsed;
    ASSERT_TRUE(parse_template_block(parsed, read));
    link_templates(parsed, store, false);
    double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    best_ms = std::min(best_ms, ms);
  }
  unlink(path);
  EXPECT_EQ(store.templates.size(), distinct);
  EXPECT_EQ(store.providers.size(), 978u);
  std::printf("[ measure  ] block of %zu bytes, %zu layouts: read + parse + link %.2f ms\n",
              block.size(), store.templates.size(), best_ms);
  // A generous bound that catches a slip into quadratic work even in
  // sanitizer builds; the target for an optimized build is under 20 ms.
  EXPECT_LT(best_ms, 1000.0);
}

// A block of the size the database is growing to: 40,000 layouts of 1,000
// providers, versions 0 to 5, 120,000 field names. Start-up reads it and
// indexes it; a provider's layouts are linked on its first lookup.
TEST(EmbeddedBlock, StartUpCostOfTheWholeDatabase) {
  uint32_t seed = 4242;
  auto next = [&seed](uint32_t n) {
    seed = seed * 1664525u + 1013904223u;
    return (seed >> 8) % n;
  };
  const uint16_t common_words[] = {8, 1, 16, 10, 6, 15, 7, 4, 19, 2, 13, 17};
  template_source s;
  reset(s);
  auto guid_of = [](uint32_t n) {
    qv::guid16 g{};
    for (int i = 0; i < 4; ++i) g[i] = uint8_t(n >> (8 * i));
    g[15] = 0xA5;
    return g;
  };
  for (uint32_t p = 1; p <= 1100; ++p) {
    template_record d;
    d.guid = guid_of(p);
    d.provider_index = uint16_t(s.provider_names.size());
    s.name_of_guid[d.guid] = d.provider_index;
    s.provider_names.push_back("Microsoft-Windows-Provider-" + std::to_string(p));
    s.records.push_back(d);
  }
  uint32_t name = 0;
  for (uint32_t t = 0; t < 40000; ++t) {
    template_record r;
    r.guid = guid_of(1 + t / 40);
    r.ids = {uint16_t(t % 40 / 3)};
    r.version = int16_t(5 - t % 3);
    size_t fields = 3 + next(7);
    for (size_t f = 0; f < fields; ++f) {
      r.words.push_back(common_words[next(12)]);
      r.names.push_back("Field_" + std::to_string(name < 120000 ? name++ : next(120000)));
    }
    s.records.push_back(r);
  }
  bytes block;
  std::string error;
  ASSERT_TRUE(write_template_block(s, block, error)) << error;

  char path[] = "/tmp/quon_bench_XXXXXX";
  int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(write(fd, block.data(), block.size()), ssize_t(block.size()));
  close(fd);

  double best_ms = 1e9, first_lookup_ms = 1e9;
  template_store store;
  for (int run = 0; run < 5; ++run) {
    auto start = std::chrono::steady_clock::now();
    uni::fileio file;
    ASSERT_TRUE(file.open(std::string(path), false, false, false));
    bytes read;
    ASSERT_TRUE(file.read_block(read, file.file_size(), 0));
    load_templates(store, std::move(read), "");
    auto indexed = std::chrono::steady_clock::now();
    best_ms = std::min(best_ms, std::chrono::duration<double, std::milli>(indexed - start).count());
    ASSERT_NE(find_event_template(store, guid_of(500), 1, 4), nullptr);
    first_lookup_ms = std::min(
        first_lookup_ms,
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - indexed).count());
  }
  unlink(path);
  EXPECT_EQ(provider_name_of(store, guid_of(1100)), "Microsoft-Windows-Provider-1100");
  EXPECT_EQ(store.templates.size(), 40u);  // one provider linked
  unpack_all_providers(store);
  std::printf("[ measure  ] block of %zu bytes, %zu layouts: read + index %.2f ms, "
              "first lookup of a provider %.3f ms\n",
              block.size(), store.templates.size(), best_ms, first_lookup_ms);
  // A generous bound that catches a slip into unpacking at start even in
  // sanitizer builds; the target for an optimized build is a few ms.
  EXPECT_LT(best_ms, 1000.0);
}

}  // namespace
