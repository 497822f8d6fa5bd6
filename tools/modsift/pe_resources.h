// The parts of a PE image (PE32 and PE32+) that modsift needs: headers,
// section table, RVA mapping, and the resource tree down to the leaves of the
// types "WEVT_TEMPLATE", RT_VERSION and RT_MESSAGETABLE. Bytes are read on
// demand at file offsets, so a large image costs only the few blocks that are
// looked at. Every offset and length comes from the file and is checked
// before use.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "support/byte_reader.h"

namespace modsift {

// Where input bytes come from: a block of memory, or an open file read with
// pread. Exactly one of the two is set.
struct input_source {
  const uint8_t* mem = nullptr;
  int fd = -1;
  uint64_t size = 0;
};

// Reads `n` bytes at `off` into `out` (resized to `n`). False, with `out`
// empty, when the range isn't wholly inside the input or the read fails.
bool fetch(const input_source& src, uint64_t off, size_t n, std::vector<uint8_t>& out);

struct pe_section {
  uint32_t virtual_address = 0;
  uint32_t virtual_size = 0;
  uint32_t raw_pointer = 0;
  uint32_t raw_size = 0;
};

struct pe_image {
  bool pe32_plus = false;
  uint16_t machine = 0;
  uint32_t size_of_headers = 0;
  uint32_t resource_rva = 0;
  uint32_t resource_size = 0;
  std::vector<pe_section> sections;
};

// Reads the DOS header, the PE signature, the file header, the optional
// header's magic and data directories, and the section table. False with a
// short reason when the input isn't a PE image. An image without a resource
// directory is a valid image with `resource_rva` 0.
bool read_pe_headers(const input_source& src, pe_image& pe, std::string& reason);

// Maps `n` bytes at `rva` to a file offset. The bytes must lie in the raw
// data of one section (or in the headers) and inside the file.
bool rva_to_offset(const input_source& src, const pe_image& pe, uint32_t rva, uint32_t n,
                   uint64_t& off);

// One data leaf of the resource tree.
struct resource_leaf {
  std::string name;       // the name when the name level is a string
  uint32_t name_id = 0;   // the identifier otherwise
  uint32_t language = 0;  // the language level's identifier
  uint32_t data_rva = 0;  // IMAGE_RESOURCE_DATA_ENTRY.OffsetToData: an RVA
  uint32_t data_size = 0;
};

struct resource_set {
  std::vector<resource_leaf> wevt;      // type name "WEVT_TEMPLATE"
  std::vector<resource_leaf> version;   // RT_VERSION (16)
  std::vector<resource_leaf> messages;  // RT_MESSAGETABLE (11)
};

// Walks the resource tree (type, name, language) and collects the leaves of
// the three types. Damaged directories are passed over; the walk is bounded
// in depth and in the number of entries it visits, so a tree that loops on
// itself ends. False when the image has no readable resource directory.
bool find_resources(const input_source& src, const pe_image& pe, resource_set& out);

// Reads the data of a leaf, at most `max_size` bytes long.
bool read_leaf(const input_source& src, const pe_image& pe, const resource_leaf& leaf,
               size_t max_size, std::vector<uint8_t>& out);

// The file version of a VS_VERSIONINFO block (from its VS_FIXEDFILEINFO):
// the four parts major.minor.build.revision. False when there's none.
bool file_version_of(qv::byte_span version_info, uint16_t parts[4]);

// Looks `id` up in a MESSAGE_RESOURCE_DATA block and gives its text as UTF-8
// (UTF-16, UTF-8 and ANSI entries; ANSI bytes are read as Latin-1), trimmed
// of line ends and blanks at the end, cut at its first line end.
bool message_text_of(qv::byte_span table, uint32_t id, std::string& text);

}  // namespace modsift
