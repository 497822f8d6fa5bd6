// From one input file, a PE image, a raw "CRIM" blob or an instrumentation
// manifest (XML), to template text: a provider line "#{guid} ! Name" per
// provider whose name is known, and an event line "{guid} ! $id, V<version>,
// ..." per event that has a template, highest version of an identifier
// first. Nothing here prints: text and reasons are handed back to the caller.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "support/byte_reader.h"
#include "templates/manifest_xml.h"
#include "tools/modsift/pe_resources.h"

namespace modsift {

struct harvest_options {
  bool enc = false;  // a comment with the template's binary XML above each event line
  manifest_read_options manifest;  // how manifest XML is read
};

struct harvest_result {
  std::string text;                   // template lines and "//" comments
  std::vector<std::string> problems;  // short reasons, for standard error
  size_t provider_lines = 0;
  size_t template_lines = 0;
  // Event lines whose layout ends early, by the reason it ends
  // (layout_stop_text): what the template words can't express.
  std::map<std::string, size_t> ended_early;
};

// What a blob's surroundings add to it.
struct blob_context {
  uint16_t build = 0;                       // Windows build of the PE file, 0 if unknown
  qv::byte_span message_table;              // RT_MESSAGETABLE data, may be empty
  std::string where;                        // for the comment line ahead of the blob's lines
};

// Appends the lines of one blob. A blob that can't be read adds a reason and
// no text.
void harvest_blob(qv::byte_span blob, const blob_context& ctx, const harvest_options& opts,
                  harvest_result& res);

// Appends the lines of one instrumentation manifest. A manifest that can't be
// read adds a reason and no text.
void harvest_manifest(qv::byte_span xml, const std::string& where, const harvest_options& opts,
                      harvest_result& res);

// True when the bytes begin as XML does: "<" after blanks, or after a byte
// order mark (UTF-8, or UTF-16 of either order).
bool looks_like_xml(qv::byte_span head);

// One input, in memory or in an open file: a PE image with WEVT_TEMPLATE
// resources, a blob that starts with "CRIM", or a manifest.
void harvest_input(const input_source& src, const std::string& label, const harvest_options& opts,
                   harvest_result& res);

// Opens `path` and harvests it. False when the file can't be opened.
bool harvest_file(const std::string& path, const harvest_options& opts, harvest_result& res);

}  // namespace modsift
