// Event versions end to end: one event in two versions whose layouts differ
// decodes each with its own version's layout, whether the layouts come from
// a -templates file or from the block behind the executable; and a
// -templates file still wins over the block on equal keys.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/e2e_util.h"
#include "tests/trace_writer.h"

namespace {

const char kGuid[] = "6d3e1c2b-4a5f-4e60-8b71-92a3b4c5d6e7";

// Event 5 of one provider in versions 1, 2 and 3, each with six bytes of
// payload: version 1 writes a u32 count and u16 flags, version 2 the flags
// first. No layout is declared for version 3.
std::vector<uint8_t> versions_trace() {
  tw::log_header_spec h;
  h.buffer_size = 4096;
  h.start_time = h.system_time = 134170743671234567ull;
  tw::etl_writer w;
  w.log_header(h);
  tw::event_spec v1;
  v1.provider = tw::guid_from_text(kGuid);
  v1.id = 5;
  v1.time = h.start_time;
  v1.version = 1;
  v1.payload = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06};
  tw::event_spec v2 = v1;
  v2.version = 2;
  v2.payload = {0x0a, 0x0b, 0x0c, 0x0d, 0x0e, 0x0f};
  tw::event_spec v3 = v2;
  v3.version = 3;
  w.add_buffer({tw::event_header_record(v1), tw::event_header_record(v2), tw::event_header_record(v3)});
  return w.data();
}

// The provider name and data cell of each row of the provider, in file order.
std::vector<std::string> rows_of(const std::string& out) {
  std::vector<std::string> rows;
  size_t at = 0;
  while (at < out.size()) {
    size_t eol = out.find('\n', at);
    if (eol == std::string::npos) eol = out.size();
    const std::string line = out.substr(at, eol - at);
    at = eol + 1;
    const size_t guid = line.find(std::string("| ") + kGuid + " | ");
    const size_t data = line.find("data{");
    if (guid == std::string::npos || data == std::string::npos) continue;
    const size_t name_at = guid + 2 + 36 + 3;
    const size_t name_end = line.find(" |", name_at);
    rows.push_back(line.substr(name_at, name_end - name_at) + " " + line.substr(data));
  }
  return rows;
}

// A copy of quon carrying a block compiled from `block_text` by templatec,
// as the build embeds the data sources.
std::string quon_with_block(const e2e::temp_dir& dir, const std::string& block_text) {
  e2e::write_text(dir.path("block.txt"), block_text);
  const std::string copy = dir.path("quon");
  EXPECT_EQ(std::system(("cp '" QUON_BINARY "' '" + copy + "'").c_str()), 0);
  e2e::run_result r = e2e::run_program(QUON_TEMPLATEC, "compile '" + dir.path("block.blk") + "' '" +
                                                           dir.path("block.txt") + "'");
  EXPECT_EQ(r.status, 0) << r.err;
  r = e2e::run_program(QUON_TEMPLATEC, "embed '" + copy + "' '" + dir.path("block.blk") + "'");
  EXPECT_EQ(r.status, 0) << r.err;
  return copy;
}

// What each row shows under a layout, worked out from the payload bytes:
// little-endian u32 and u16 values.
std::string count_first(const std::string& provider, const std::string& count, const std::string& flags,
                         bool second_payload) {
  return provider + " data{\"01-" + count + "\":\"" + (second_payload ? "0x0d0c0b0a" : "0x04030201") +
         "\";\"02-" + flags + "\":\"" + (second_payload ? "0x0f0e" : "0x0605") + "\"}";
}
std::string flags_first(const std::string& provider, const std::string& flags, const std::string& count,
                        bool second_payload) {
  return provider + " data{\"01-" + flags + "\":\"" + (second_payload ? "0x0b0a" : "0x0201") + "\";\"02-" +
         count + "\":\"" + (second_payload ? "0x0f0e0d0c" : "0x06050403") + "\"}";
}

}  // namespace

TEST(EventVersions, EachVersionDecodesWithItsOwnLayoutFromATemplatesFile) {
  e2e::temp_dir dir;
  const std::string trace = dir.write("v.etl", versions_trace());
  e2e::write_text(dir.path("layouts.txt"),
                  "#{" + std::string(kGuid) + "} ! Versioned-Provider\n"
                  "{" + kGuid + "} ! $5, V2, LFlags, 6, LCount, 8\n"
                  "{" + kGuid + "} ! $5, V1, LCount, 8, LFlags, 6\n");
  e2e::run_result r = e2e::run_quon("-quiet -templates " + dir.path("layouts.txt") + " -log " + trace);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
  const std::string p = "Versioned-Provider                  ";
  EXPECT_EQ(rows_of(r.out), (std::vector<std::string>{
                                count_first(p, "Count", "Flags", false),
                                flags_first(p, "Flags", "Count", true),
                                // Version 3 has no layout: the highest version's serves.
                                flags_first(p, "Flags", "Count", true),
                            }));

  // The same file without its V tokens: one layout, the first line's, for
  // every version, as before versions were known.
  e2e::write_text(dir.path("plain.txt"),
                  "#{" + std::string(kGuid) + "} ! Versioned-Provider\n"
                  "{" + kGuid + "} ! $5, LFlags, 6, LCount, 8\n"
                  "{" + kGuid + "} ! $5, LCount, 8, LFlags, 6\n");
  r = e2e::run_quon("-quiet -templates " + dir.path("plain.txt") + " -log " + trace);
  EXPECT_EQ(rows_of(r.out), (std::vector<std::string>{
                                flags_first(p, "Flags", "Count", false),
                                flags_first(p, "Flags", "Count", true),
                                flags_first(p, "Flags", "Count", true),
                            }));
}

TEST(EventVersions, EachVersionDecodesWithItsOwnLayoutFromTheBlock) {
  e2e::temp_dir dir;
  const std::string trace = dir.write("v.etl", versions_trace());
  const std::string quon = quon_with_block(dir,
                                           "#{" + std::string(kGuid) + "} ! Block-Provider\n"
                                           "{" + kGuid + "} ! $5, V2, LBlockFlags, 6, LBlockCount, 8\n"
                                           "{" + kGuid + "} ! $5, V1, LBlockCount, 8, LBlockFlags, 6\n");
  e2e::run_result r = e2e::run_program(quon, "-quiet -log " + trace);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
  const std::string p = "Block-Provider                      ";
  EXPECT_EQ(rows_of(r.out), (std::vector<std::string>{
                                count_first(p, "BlockCount", "BlockFlags", false),
                                flags_first(p, "BlockFlags", "BlockCount", true),
                                flags_first(p, "BlockFlags", "BlockCount", true),
                            }));

  // A -templates file's layout for every version of the event, at the same
  // (empty) build, wins over both of the block's.
  e2e::write_text(dir.path("any.txt"), "{" + std::string(kGuid) + "} ! $5, LFileCount, 8, LFileFlags, 6\n");
  r = e2e::run_program(quon, "-quiet -templates " + dir.path("any.txt") + " -log " + trace);
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(rows_of(r.out), (std::vector<std::string>{
                                count_first(p, "FileCount", "FileFlags", false),
                                count_first(p, "FileCount", "FileFlags", true),
                                count_first(p, "FileCount", "FileFlags", true),
                            }));

  // A file's layout for version 1 wins over the block's version 1 only.
  e2e::write_text(dir.path("v1.txt"), "{" + std::string(kGuid) + "} ! $5, V1, LFileCount, 8, LFileFlags, 6\n");
  r = e2e::run_program(quon, "-quiet -templates " + dir.path("v1.txt") + " -log " + trace);
  EXPECT_EQ(rows_of(r.out), (std::vector<std::string>{
                                count_first(p, "FileCount", "FileFlags", false),
                                flags_first(p, "BlockFlags", "BlockCount", true),
                                flags_first(p, "BlockFlags", "BlockCount", true),
                            }));

  // The provider listing names the provider from the block.
  r = e2e::run_program(quon, "-quiet -guids -log " + trace);
  EXPECT_NE(r.out.find(std::string(kGuid) + " : Block-Provider\n"), std::string::npos) << r.out;
}
