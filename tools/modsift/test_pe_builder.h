// Test-only builders: PE images with a resource section, version and message
// table resources, and template blobs, all in memory, so that tests can make
// exactly the case they need (and damage it).
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "support/guid.h"

namespace modsift_test {

using bytes = std::vector<uint8_t>;

struct test_resource {
  std::string type_name;  // used when not empty, else type_id
  uint32_t type_id = 0;
  std::string name;       // used when not empty, else name_id
  uint32_t name_id = 1;
  uint32_t language = 0x409;
  bytes data;
};

// A PE32 (or PE32+) image with one section ".rsrc" at RVA `section_rva`
// holding the resource tree of `resources`.
bytes build_pe(bool pe32_plus, const std::vector<test_resource>& resources,
               uint32_t section_rva = 0x1000);

// Where build_pe put things, for tests that damage an image on purpose.
struct pe_layout {
  uint32_t e_lfanew = 0x40;
  uint32_t section_table = 0;  // file offset of the section header
  uint32_t rsrc_file_offset = 0x200;
};
pe_layout layout_of_built_pe(bool pe32_plus);

// A VS_VERSIONINFO block with the given file version.
bytes build_version_info(uint16_t a, uint16_t b, uint16_t c, uint16_t d);

// A MESSAGE_RESOURCE_DATA block; ids that follow each other share a block.
// `form` 0 ANSI, 1 UTF-16, 2 UTF-8. Each text gets "\r\n" appended, as the
// message compiler does.
bytes build_message_table(const std::vector<std::pair<uint32_t, std::string>>& messages, int form);

// Template blobs.
struct t_property {
  uint32_t flags = 0;
  uint8_t in_type = 0;
  uint8_t out_type = 0;
  uint16_t first_member = 0;  // structures
  uint16_t member_count = 0;
  uint16_t count = 0;
  uint16_t length = 0;
  std::string name;
};
struct t_template {
  uint32_t param_count = 0;  // top-level ones; the rest are members
  std::vector<t_property> properties;
  bytes binxml;
};
struct t_event {
  uint16_t id = 0;
  uint8_t version = 0;
  int template_index = -1;  // into the provider's templates; -1: none
  std::string name;         // written to EVTA when not empty (format 5)
};
struct t_provider {
  qv::guid16 guid{};
  std::string name;  // written to PRVA when not empty (format 5)
  uint32_t message_id = 0xFFFFFFFFu;
  std::vector<t_template> templates;
  std::vector<t_event> events;
};

bytes build_crim(uint16_t major, const std::vector<t_provider>& providers);

// Plain property helpers.
t_property prop(const std::string& name, uint8_t in_type, uint32_t flags = 0, uint16_t count = 0,
                uint16_t length = 0);
t_property struct_prop(const std::string& name, uint16_t first, uint16_t members,
                       uint32_t flags = 1, uint16_t count = 0);

qv::guid16 guid_from(uint32_t d1);

}  // namespace modsift_test
