// The hand-checked classic kernel layouts of data/kernel_classic.txt, linked
// through the real store (compiled into a block, indexed and linked on first
// use, kernel groups added, as quon loads them): which layout each record
// version gets at each trace build. The process and image classes carry
// layouts by class version (V0, V1, V2 without a build token) beside the
// layouts by build that Windows itself wrote (#2195, #3790, #7601, #65535);
// both must answer as intended under the store's rules.
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "support/qv_string.h"
#include "templates/block_writer.h"
#include "templates/template_block.h"
#include "templates/template_text.h"

namespace {

const qv::guid16 process_class = {0xd0, 0xa8, 0x6f, 0x3d, 0x05, 0xfe, 0xd0, 0x11,
                                  0x9d, 0xda, 0x00, 0xc0, 0x4f, 0xd7, 0xba, 0x7c};
const qv::guid16 image_class = {0x1d, 0x5d, 0xb1, 0x2c, 0xc1, 0x5f, 0xd2, 0x11,
                                0xab, 0xe1, 0x00, 0xa0, 0xc9, 0x11, 0xf5, 0x18};

std::string data_file(const std::string& name) { return std::string(QUON_SOURCE_DIR) + "/data/" + name; }

// The store quon would hold with `source` as its block.
void load_as_block(template_store& store, const template_source& source) {
  std::vector<uint8_t> block;
  std::string error;
  ASSERT_TRUE(write_template_block(source, block, error)) << error;
  load_templates(store, std::move(block), "");
}

// A layout as "name/word name/word ...", the label first.
std::string fields_of(const event_template* t) {
  if (!t) return "(none)";
  std::string out;
  for (size_t i = 0; i < t->words.size(); ++i) {
    if (!out.empty()) out += ' ';
    out += t->names[i] + "/" + std::to_string(t->words[i]);
  }
  return out;
}

std::string answer(template_store& store, const qv::guid16& guid, uint16_t hook, int version,
                   uint32_t build) {
  set_trace_build(store, build);
  return fields_of(find_event_template(store, guid, hook, version));
}

// The layouts of the classes' versions, as the published MOF classes give
// them (32769 is the label word 0x8001; 16 a pointer, 8 uint32, 7 sint32,
// 19 the SID, 2 ANSI and 1 UTF-16 text, 4 uint8, 6 uint16).
const std::string token_user = "TokenUserSid/16 TokenUserAttributes/16 UserSID/19";
const std::string process_v0 = "ProcessId/16 ParentId/16 " + token_user + " ImageFileName/2";
const std::string process_v1 = "PageDirectoryBase/16 ProcessId/8 ParentId/8 SessionId/8 ExitStatus/7 " +
                               token_user + " ImageFileName/2";
const std::string process_v2 = "UniqueProcessKey/16 ProcessId/8 ParentId/8 SessionId/8 ExitStatus/7 " +
                               token_user + " ImageFileName/2 CommandLine/1";
const std::string process_v3 = "UniqueProcessKey/16 ProcessId/8 ParentId/8 SessionId/8 ExitStatus/7 "
                               "DirectoryTableBase/16 " + token_user + " ImageFileName/2 CommandLine/1";
const std::string process_v4 = "UniqueProcessKey/16 ProcessId/8 ParentId/8 SessionId/8 ExitStatus/7 "
                               "DirectoryTableBase/16 Flags/8 " + token_user +
                               " ImageFileName/2 CommandLine/1 PackageFullName/1 ApplicationId/1";
const std::string image_v0 = "BaseAddress/16 ModuleSize/8 ImageFileName/1";
const std::string image_v1 = "ImageBase/16 ImageSize/16 ProcessId/8 FileName/1";
const std::string image_v2 = "ImageBase/16 ImageSize/16 ProcessId/8 ImageChecksum/8 TimeDateStamp/8 "
                             "Reserved0/8 DefaultBase/16 Reserved1/8 Reserved2/8 Reserved3/8 Reserved4/8 "
                             "FileName/1";
const std::string image_v3 = "ImageBase/16 ImageSize/16 ProcessId/8 ImageChecksum/8 TimeDateStamp/8 "
                             "SignatureLevel/4 SignatureType/4 Reserved0/6 DefaultBase/16 Reserved1/8 "
                             "Reserved2/8 Reserved3/8 Reserved4/8 FileName/1";

std::string labelled(const std::string& label, const std::string& fields) {
  return label + "/32769 " + fields;
}

struct expected_choice {
  uint16_t hook;
  int version;     // -1: the record carries none
  uint32_t build;  // the trace's build; 0 unknown
  std::string label;
  const std::string* fields;
};

// Every (version, build) that matters for the two classes: the versions of
// their own lines at any build, and the versions Windows wrote at the builds
// that wrote them, which the build lines serve as before.
std::vector<expected_choice> expected_choices() {
  return {
      // Process Start: versions 0, 1, 2 by their own lines, whatever the build
      // (Vista 6001 is the build of the test traces that carry them).
      {0x0301, 0, 6001, "Process_Start", &process_v0},
      {0x0301, 1, 6001, "Process_Start", &process_v1},
      {0x0301, 2, 6001, "Process_Start", &process_v2},
      {0x0301, 0, 0, "Process_Start", &process_v0},
      {0x0301, 1, 2600, "Process_Start", &process_v1},
      {0x0301, 2, 18362, "Process_Start", &process_v2},
      // Versions 3 and 4 have no line of their own: the build decides, as
      // before (the oldest build line not older than the trace, else the newest).
      {0x0301, 3, 6001, "Process_Start", &process_v3},
      {0x0301, 3, 7601, "Process_Start", &process_v3},
      {0x0301, 4, 9200, "Process_Start", &process_v4},
      {0x0301, 4, 18362, "Process_Start", &process_v4},
      {0x0301, 4, 0, "Process_Start", &process_v4},
      {0x0301, 3, 0, "Process_Start", &process_v4},
      // A record without a version: the build lines alone.
      {0x0301, -1, 2195, "Process_Start", &process_v0},
      {0x0301, -1, 2600, "Process_Start", &process_v1},
      {0x0301, -1, 3790, "Process_Start", &process_v1},
      {0x0301, -1, 6001, "Process_Start", &process_v3},
      {0x0301, -1, 18362, "Process_Start", &process_v4},
      {0x0301, -1, 0, "Process_Start", &process_v4},
      // The other types of the group share the layouts under their labels.
      {0x0302, 2, 6001, "Process_End", &process_v2},
      {0x0302, 1, 6001, "Process_End", &process_v1},
      {0x0303, 2, 6001, "Process_DCStart", &process_v2},
      {0x0303, 3, 6001, "Process_DCStart", &process_v3},
      {0x0304, 2, 6001, "Process_DCEnd", &process_v2},
      {0x0304, 0, 6001, "Process_DCEnd", &process_v0},
      {0x0327, 2, 6001, "Process_Defunct", &process_v2},
      {0x0327, 3, 6001, "Process_Defunct", &process_v3},

      // Image Load, DCStart, Unload: versions 0 and 1 by their own lines.
      {0x140A, 0, 6001, "Image_Load", &image_v0},
      {0x140A, 1, 6001, "Image_Load", &image_v1},
      {0x140A, 0, 0, "Image_Load", &image_v0},
      {0x140A, 1, 18362, "Image_Load", &image_v1},
      {0x1403, 0, 6001, "Image_DCStart", &image_v0},
      {0x1403, 1, 6001, "Image_DCStart", &image_v1},
      {0x1402, 0, 6001, "Image_Unload", &image_v0},
      {0x1402, 1, 6001, "Image_Unload", &image_v1},
      {0x1404, 1, 6001, "Image_DCEnd", &image_v1},
      // Versions 2 and 3 by build, as before: Vista and 7 wrote version 2,
      // Windows 8 and later the signature fields in Reserved0's place.
      {0x140A, 2, 6001, "Image_Load", &image_v2},
      {0x1403, 2, 6001, "Image_DCStart", &image_v2},
      {0x140A, 2, 7601, "Image_Load", &image_v2},
      {0x140A, 2, 9200, "Image_Load", &image_v3},
      {0x140A, 3, 18362, "Image_Load", &image_v3},
      {0x1402, 3, 18362, "Image_Unload", &image_v3},
      {0x140A, 2, 0, "Image_Load", &image_v3},
      {0x140A, -1, 2195, "Image_Load", &image_v0},
      {0x140A, -1, 3790, "Image_Load", &image_v1},
      {0x140A, -1, 6001, "Image_Load", &image_v2},
      // Unload and the rundowns have no build lines before Vista: a record
      // without a version at an older build gets the Vista layout.
      {0x1403, -1, 2600, "Image_DCStart", &image_v2},
  };
}

void expect_choices(template_store& store) {
  for (const expected_choice& c : expected_choices()) {
    const qv::guid16& guid = (c.hook >> 8) == 0x14 ? image_class : process_class;
    EXPECT_EQ(answer(store, guid, c.hook, c.version, c.build), labelled(c.label, *c.fields))
        << "hook 0x" << std::hex << c.hook << std::dec << " version " << c.version << " build " << c.build;
  }
}

}  // namespace

TEST(KernelClassicData, EachVersionAndBuildGetsItsLayout) {
  template_source source;
  ASSERT_TRUE(load_template_text(source, data_file("kernel_classic.txt")));
  template_store store;
  load_as_block(store, source);
  expect_choices(store);
}

TEST(KernelClassicData, TheWholeDatabaseChoosesAlike) {
  // Every data file in name order, as the build compiles them: the generated
  // classic layouts leave the hand-checked events alone.
#ifndef QUON_TEMPLATE_SOURCE_LIST
  GTEST_SKIP() << "built without the list of data sources";
#else
  template_source source;
  reset(source);
  std::vector<std::string> paths;
  qv::split(QUON_TEMPLATE_SOURCE_LIST, '|', paths, false, false);
  for (const std::string& path : paths) {
    std::ifstream in(path, std::ios::binary);
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    ASSERT_FALSE(bytes.empty()) << path;
    std::vector<std::string> lines;
    qv::split_lines(bytes, lines);
    add_template_lines(source, lines);
  }
  template_store store;
  load_as_block(store, source);
  expect_choices(store);
#endif
}

TEST(KernelClassicData, BuildLinesAnswerAsBeforeForVersionsWithoutALineOfTheirOwn) {
  // The file against itself without its versioned lines: for every event of
  // the file, every version that has no line of its own gets at every build
  // exactly the layout the build lines alone give.
  template_source full;
  ASSERT_TRUE(load_template_text(full, data_file("kernel_classic.txt")));
  template_source builds_only = full;
  size_t versioned_lines = 0;
  std::vector<template_record> kept;
  for (const template_record& r : full.records) {
    if (r.version >= 0) {
      ++versioned_lines;
      continue;
    }
    kept.push_back(r);
  }
  builds_only.records = kept;
  builds_only.by_key.clear();
  // Process versions 0 and 1 (types 1-4) and 2 (types 1-4 and 39); image
  // versions 0 and 1 (types 10, 2, 3, 4).
  EXPECT_EQ(versioned_lines, 21u);

  template_store with_versions, without_versions;
  load_as_block(with_versions, full);
  load_as_block(without_versions, builds_only);
  // The block's records wait in their providers until first asked for.
  unpack_all_providers(with_versions);
  unpack_all_providers(without_versions);

  size_t compared = 0, own_lines = 0, events = 0;
  for (auto& [guid, entry] : without_versions.providers) {
    std::vector<uint16_t> ids;
    for (const auto& e : entry.events) ids.push_back(e.first);
    events += ids.size();
    for (uint16_t id : ids) {
      for (int version = -1; version <= 6; ++version) {
        for (uint32_t build : {0u, 1u, 2195u, 2600u, 3790u, 6000u, 6001u, 7601u, 9200u, 18362u, 65535u}) {
          set_trace_build(with_versions, build);
          const event_template* chosen = find_event_template(with_versions, guid, id, version);
          const provider_entry& e = with_versions.providers.at(guid);
          auto v = e.versioned.find(id);
          if (version >= 0 && v != e.versioned.end() && v->second.count(uint8_t(version)) != 0) {
            ++own_lines;
            continue;
          }
          set_trace_build(without_versions, build);
          const event_template* before = find_event_template(without_versions, guid, id, version);
          ASSERT_NE(before, nullptr);
          ASSERT_NE(chosen, nullptr);
          EXPECT_EQ(chosen->layout_text, before->layout_text)
              << qv::guid_text(guid.data()) << " id 0x" << std::hex << id << std::dec << " version "
              << version << " build " << build;
          ++compared;
        }
      }
    }
  }
  EXPECT_GT(events, 100u);  // every hook identifier of the file
  EXPECT_EQ(compared + own_lines, events * 8 * 11);
  // Each of the 21 (id, version) pairs at each of the 11 builds.
  EXPECT_EQ(own_lines, 21u * 11u);
}
