#include "templates/template_text.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "templates/template_block.h"

namespace {

using ids = std::vector<uint16_t>;
using name_ids = std::vector<uint32_t>;
using texts = std::vector<std::string>;

// 7d44233d-3055-4b9c-ba64-0d47ca40a232 in the Windows binary layout.
const qv::guid16 winhttp = {0x3d, 0x23, 0x44, 0x7d, 0x55, 0x30, 0x9c, 0x4b,
                            0xba, 0x64, 0x0d, 0x47, 0xca, 0x40, 0xa2, 0x32};
// 3d6fa8d0-fe05-11d0-9dda-00c04fd7ba7c
const qv::guid16 process = {0xd0, 0xa8, 0x6f, 0x3d, 0x05, 0xfe, 0xd0, 0x11,
                            0x9d, 0xda, 0x00, 0xc0, 0x4f, 0xd7, 0xba, 0x7c};

const char* const G = "{c88a4ef5-d048-4013-9408-e04b7db2814a}";

struct temp_file {
  std::string path;
  explicit temp_file(const std::string& content) {
    char name[] = "/tmp/quon_tpl_XXXXXX";
    int fd = mkstemp(name);
    path = name;
    if (fd >= 0) {
      if (!content.empty()) {
        EXPECT_EQ(write(fd, content.data(), content.size()), ssize_t(content.size()));
      }
      close(fd);
    }
  }
  ~temp_file() { unlink(path.c_str()); }
};

template_source load_lines(const texts& lines) {
  template_source s;
  reset(s);
  add_template_lines(s, lines);
  return s;
}

TEST(TemplateText, WorkedExampleFile) {
  temp_file f(
      "// connection events of one provider\n"
      "#{7d44233d-3055-4b9c-ba64-0d47ca40a232} ! Microsoft-Windows-WinHttp\n"
      "{7d44233d-3055-4b9c-ba64-0d47ca40a232} ! $801, L_ConnectionNameLength, 6, LConnectionName, "
      "0xa101, LDetectFlags, 8\n"
      "{3d6fa8d0-fe05-11d0-9dda-00c04fd7ba7c} ! $779, LWMI_LOG_TYPE_PROCESS_TERMINATE, 0x8001, "
      "LProcessID, 8\n"
      "{30e1d284-5d88-459c-83fd-6345b39b19ec} ! $14, #0x3839, Lfid_UcxController, 0x10, "
      "LDeviceDescLength, 8, LDeviceDescription, 1, LStartDeviceFailReason, 8\n"
      "{c88a4ef5-d048-4013-9408-e04b7db2814a} ! $1-2;4;5, Lfid_USBPORT_HC, 0x8006");
  template_source s;
  ASSERT_TRUE(load_template_text(s, f.path));
  ASSERT_EQ(s.records.size(), 5u);
  EXPECT_EQ(s.provider_names, (texts{"unk", "Microsoft-Windows-WinHttp"}));
  ASSERT_EQ(s.name_of_guid.count(winhttp), 1u);
  EXPECT_EQ(s.name_of_guid.at(winhttp), 1u);

  const template_record& decl = s.records[0];
  EXPECT_EQ(decl.guid, winhttp);
  EXPECT_EQ(decl.provider_index, 1);
  EXPECT_TRUE(decl.words.empty());

  const template_record& r801 = s.records[1];
  EXPECT_EQ(r801.guid, winhttp);
  EXPECT_EQ(r801.provider_index, 1);
  EXPECT_EQ(r801.ids, ids{801});
  EXPECT_EQ(r801.words, (ids{6, 0xA101, 8}));
  EXPECT_EQ(r801.names, (texts{"_ConnectionNameLength", "ConnectionName", "DetectFlags"}));
  EXPECT_EQ(r801.layout_text,
            "7d44233d-3055-4b9c-ba64-0d47ca40a232_ConnectionNameLength6ConnectionName41217DetectFlags8");
  EXPECT_EQ(r801.key, digest_of(r801.layout_text));
  EXPECT_FALSE(r801.percent_form);

  const template_record& r779 = s.records[2];
  EXPECT_EQ(r779.guid, process);
  EXPECT_EQ(r779.provider_index, 0);
  EXPECT_EQ(r779.ids, ids{0x030B});
  EXPECT_EQ(r779.words, (ids{0x8001, 8}));

  const template_record& r14 = s.records[3];
  EXPECT_EQ(r14.builds, ids{14393});
  EXPECT_EQ(r14.ids, ids{14});
  EXPECT_EQ(r14.words, (ids{0x10, 8, 1, 8}));

  const template_record& usb = s.records[4];
  EXPECT_EQ(usb.range_lo, 1);
  EXPECT_EQ(usb.range_hi, 2);
  EXPECT_EQ(usb.ids, (ids{4, 5}));
  EXPECT_EQ(usb.words, ids{0x8006});
  EXPECT_EQ(usb.names, texts{"fid_USBPORT_HC"});

  // Field names in order of first use behind the initial empty entry.
  EXPECT_EQ(s.field_names[0], "");
  EXPECT_EQ(s.field_names[1], "_ConnectionNameLength");
  EXPECT_EQ(r801.name_indices, (name_ids{1, 2, 3}));
  EXPECT_EQ(r779.name_indices, (name_ids{4, 5}));
  EXPECT_EQ(s.field_names.back(), "fid_USBPORT_HC");

  template_store store;
  ASSERT_TRUE(link_templates(s, store, false));
  const event_template* t = find_event_template(store, winhttp, 801);
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(t->names[1], "ConnectionName");
  EXPECT_EQ(provider_name_of(store, winhttp), "Microsoft-Windows-WinHttp");
  qv::guid16 usb_guid = usb.guid;
  for (uint16_t id : {1, 2, 4, 5}) EXPECT_NE(find_event_template(store, usb_guid, id), nullptr) << id;
  EXPECT_EQ(find_event_template(store, usb_guid, 3), nullptr);
}

TEST(TemplateText, LinesThatMakeNoRecord) {
  template_record r;
  const std::string g = G;
  EXPECT_FALSE(parse_template_line(r, ""));
  EXPECT_FALSE(parse_template_line(r, g + " $1, 8"));                // no "!"
  EXPECT_FALSE(parse_template_line(r, g + " ! 1, 8"));               // no marker
  EXPECT_FALSE(parse_template_line(r, g + " ! $1 8"));               // no "," behind the ids
  EXPECT_FALSE(parse_template_line(r, g + " ! $1,  , ,"));           // no tokens
  EXPECT_FALSE(parse_template_line(r, "{c88a4ef5-d048-4013-9408-e04b7db28} ! $1, 8"));  // 35
  EXPECT_FALSE(parse_template_line(r, "//c88a4ef5-d048-4013-9408-e04b7db2814a ! $1, 8"));
  EXPECT_TRUE(parse_template_line(r, "c88a4ef5-d048-4013-9408-e04b7db2814a ! $1, 8"));  // no braces
  EXPECT_TRUE(parse_template_line(r, g + " ! $1, #14393"));          // builds, no fields
  EXPECT_TRUE(r.words.empty());

  // A line of 15 characters is passed over whatever it holds (here a "#"
  // line that would end the file at 16); so is a "/" line however long.
  const std::string fifteen = "#{7d44233d} ! x";
  ASSERT_EQ(fifteen.size(), 15u);
  template_source s = load_lines({fifteen, "/c88a4ef5-d048-4013-9408-e04b7db2814a ! $1, 8",
                                  g + " ! $1 8", g + " ! $1, 8"});
  EXPECT_EQ(s.records.size(), 1u);
  s = load_lines({fifteen + "y", g + " ! $1, 8"});
  EXPECT_EQ(s.records.size(), 0u);
}

TEST(TemplateText, TokensAndNumbers) {
  template_record r;
  ASSERT_TRUE(parse_template_line(
      r, std::string(G) + " ! junk %7, C a comment, LFirst, 0x10, L, x10, LThird, o17, 'A', abc, #, 0"));
  EXPECT_TRUE(r.percent_form);
  EXPECT_EQ(r.ids, ids{7});
  EXPECT_EQ(r.words, (ids{16, 16, 15, 65, 0, 0}));
  // "L" alone neither names nor forgets; a name serves one word only.
  EXPECT_EQ(r.names, (texts{"First", "", "Third", "", "", ""}));
  EXPECT_TRUE(r.builds.empty());
  EXPECT_EQ(r.line_text.substr(0, 38), G);

  ASSERT_TRUE(parse_template_line(r, std::string(G) + " ! $1037;9517, #9600, #0x3839, 8"));
  EXPECT_EQ(r.ids, (ids{1037, 9517}));
  EXPECT_EQ(r.range_hi, 0);
  EXPECT_EQ(r.builds, (ids{9600, 14393}));

  ASSERT_TRUE(parse_template_line(r, std::string(G) + " ! $10-12, 8"));
  EXPECT_EQ(r.range_lo, 10);
  EXPECT_EQ(r.range_hi, 12);
  EXPECT_TRUE(r.ids.empty());

  // "$" is looked for before "%".
  ASSERT_TRUE(parse_template_line(r, std::string(G) + " ! %1$2, 8"));
  EXPECT_FALSE(r.percent_form);
  EXPECT_EQ(r.ids, ids{2});
}

TEST(TemplateText, ProviderLines) {
  const std::string line = "#{7d44233d-3055-4b9c-ba64-0d47ca40a232} ! Microsoft-Windows-WinHttp, x | y";
  const std::string event = "{7d44233d-3055-4b9c-ba64-0d47ca40a232} ! $1, 8";
  // A later line for the same GUID is passed over: the first name stands.
  template_source s = load_lines({event, line, "## 7d44233d-3055-4b9c-ba64-0d47ca40a232 ! Other"});
  EXPECT_EQ(s.provider_names, (texts{"unk", "Microsoft-Windows-WinHttp"}));
  ASSERT_EQ(s.records.size(), 2u);
  // Declared after its event: the event has no index, but linking names it.
  EXPECT_EQ(s.records[0].provider_index, 0);
  EXPECT_EQ(s.records[1].key, digest_of("7d44233d-3055-4b9c-ba64-0d47ca40a232Microsoft-Windows-WinHttp"));
  template_store store;
  link_templates(s, store, false);
  EXPECT_EQ(provider_name_of(store, winhttp), "Microsoft-Windows-WinHttp");

  // A "#" line with "!" and a short GUID column ends the file; without "!"
  // it is merely passed over.
  const std::string short_line = "#{7d44233d-3055} ! Truncated name";
  s = load_lines({short_line.substr(0, 16) + "xx", event, short_line, line});
  EXPECT_EQ(s.records.size(), 1u);
  EXPECT_EQ(s.provider_names.size(), 1u);
  template_source t;
  reset(t);
  EXPECT_FALSE(add_template_lines(t, {event, short_line, line}));

  temp_file f(event + "\n" + short_line + "\n" + line + "\n");
  ASSERT_TRUE(load_template_text(t, f.path));  // the early end still reads the file
  EXPECT_EQ(t.records.size(), 1u);
}

TEST(TemplateText, EqualLayoutsMerge) {
  const std::string g = G;
  template_source s = load_lines({
      g + " ! $5, #9600, LA, 8, 1",
      g + " ! $6;7, #14393, LA, 8, 1",  // builds of a merged line are dropped
      g + " ! $1-2, LA, 8, 1",
      g + " ! $5-6;9, LA, 8, 1",
      g + " ! $3, LB, 8, 1",            // another name: another layout
  });
  ASSERT_EQ(s.records.size(), 2u);
  const template_record& r = s.records[0];
  EXPECT_EQ(r.builds, ids{9600});
  EXPECT_EQ(r.range_lo, 1);
  EXPECT_EQ(r.range_hi, 2);
  EXPECT_EQ(r.ids, (ids{5, 6, 7, 9, 5, 6}));
  EXPECT_EQ(s.records[1].ids, ids{3});

  // The first empty name adds a second empty entry to the field names.
  EXPECT_EQ(s.field_names, (texts{"", "A", "", "B"}));
  EXPECT_EQ(r.name_indices, (name_ids{1, 2}));
  EXPECT_EQ(s.records[1].name_indices, (name_ids{3, 2}));

  // Another GUID text (upper case) is another key.
  s = load_lines({g + " ! $1, 8", "{C88A4EF5-D048-4013-9408-E04B7DB2814A} ! $2, 8"});
  EXPECT_EQ(s.records.size(), 2u);
}

TEST(TemplateText, VersionedLinesStayApart) {
  const std::string g = G;
  template_source s = load_lines({
      g + " ! $5, V2, LA, 8, 1",
      g + " ! $5, V1, LA, 8, 1",          // another version: another layout
      g + " ! $6, V2, LA, 8, 1",          // same version and builds: merged
      g + " ! $7, V2, #18990, LA, 8, 1",  // same version, other builds: apart
      g + " ! $8, LA, 8, 1",              // no version: any version
      g + " ! $9, V300, LA, 8, 1",        // a version is one byte
  });
  ASSERT_EQ(s.records.size(), 5u);
  EXPECT_EQ(s.records[0].version, 2);
  EXPECT_EQ(s.records[0].ids, (ids{5, 6}));
  EXPECT_EQ(s.records[1].version, 1);
  EXPECT_EQ(s.records[2].builds, ids{18990});
  EXPECT_EQ(s.records[3].version, -1);
  EXPECT_EQ(s.records[4].version, 300 & 0xFF);
  // The version token makes no field.
  EXPECT_EQ(s.records[0].words, (ids{8, 1}));
}

TEST(TemplateText, FilesAndLineBreaks) {
  template_source s;
  EXPECT_FALSE(load_template_text(s, "/nonexistent/quon/templates.txt"));
  temp_file empty("");
  EXPECT_FALSE(load_template_text(s, empty.path));

  temp_file crlf(std::string("\r\n  ") + G + " ! $1, 8\r\n\r\n\t" + G + " ! $2, LX, 10");
  ASSERT_TRUE(load_template_text(s, crlf.path));
  ASSERT_EQ(s.records.size(), 2u);
  EXPECT_EQ(s.records[1].words, ids{10});  // the last line counts without its LF
  EXPECT_EQ(s.records[1].line_text, std::string(G) + " ! $2, LX, 10");
}

}  // namespace

namespace {

TEST(TemplateText, HostileLines) {
  // Random lines over the characters that matter to the format: nothing may
  // fault (the sanitizer build checks), and every record keeps its lists in
  // step.
  const std::string alphabet = "{}#!$%,;-LCx0'o19aF/ \t";
  uint32_t seed = 7;
  auto next = [&seed](uint32_t n) {
    seed = seed * 1103515245u + 12345u;
    return (seed >> 8) % n;
  };
  std::vector<std::string> lines;
  for (int i = 0; i < 20000; ++i) {
    std::string line = i % 3 ? std::string(G) + " ! " : std::string();
    size_t n = next(60);
    for (size_t k = 0; k < n; ++k) line += alphabet[next(uint32_t(alphabet.size()))];
    lines.push_back(line);
  }
  template_source s;
  reset(s);
  add_template_lines(s, lines);
  for (const template_record& r : s.records) {
    EXPECT_EQ(r.names.size(), r.words.size());
    if (!r.words.empty()) {
      EXPECT_EQ(r.name_indices.size(), r.words.size());
    }
  }
  template_store store;
  link_templates(s, store, false);

  // Repeating the widest range merges into one record whose identifiers are
  // bounded.
  lines.assign(20, std::string(G) + " ! $0-65535, 8");
  lines[0] = std::string(G) + " ! $1-65535, 8";
  template_source wide;
  reset(wide);
  add_template_lines(wide, lines);
  ASSERT_EQ(wide.records.size(), 1u);
  EXPECT_EQ(wide.records[0].ids.size(), max_merged_ids);
  link_templates(wide, store, false);
  EXPECT_EQ(store.providers.begin()->second.events.size(), 65536u);
}

}  // namespace
