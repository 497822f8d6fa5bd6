// Manifest event layouts from the public dumps: the instrumentation manifests
// recreated from four Windows builds (xml/<os>-<build>/*.xml), the 26H1
// tables (tsv-26h1/manifest/*.tsv) where they add events the manifests lack,
// and the provider names of provider-list.txt.
//
// Keys and builds. A layout is kept per (provider GUID, event identifier,
// event version). Where the builds agree on it, one line with its V token
// and no build token serves every build. Where they don't, each run of
// consecutive builds with one layout gets a line whose build token is the
// last build before the next run starts (a run that ends with build 7600 and
// is followed by one from 10240 gets #10239, so Windows 7 SP1 and 8 keep the
// older layout), and the newest run gets #65535.
//
// The 26H1 tables give in-types without length or count references, so only
// what they state unambiguously is taken from them: a (GUID, identifier,
// version) that no manifest declares, whose fields are read up to the first
// one that may hang on an earlier field (binary data, a structure, a value
// behind an integer named as a length, size or count).
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tools/layoutgen/gen_common.h"

namespace layoutgen {

// One event of one build, as a template line would hold it.
struct build_layout {
  uint16_t build = 0;
  std::string label;               // the event's name, the 0x8001 label
  std::vector<gen_field> fields;
  std::string cut_reason;          // empty when the layout is whole
  bool plain_at_struct_index = false;
  bool stopped_at_struct = false;  // ends where a structure stood
};

// Every build's layout of one (GUID, identifier, version), in build order.
struct event_builds {
  std::vector<build_layout> builds;
};

using event_key = std::tuple<std::string, uint16_t, uint8_t>;  // GUID, identifier, version

// The lines of one key: its runs of equal layouts with their build tokens
// (0: none). A layout flagged as a possible structure start index gives way
// to another build's layout that stopped there as a structure, when the two
// agree up to that point.
struct keyed_line {
  uint16_t build = 0;
  const build_layout* layout = nullptr;
};
std::vector<keyed_line> lines_of(const event_builds& builds);

// The template line of an event: "{guid} ! $id, V<v>[, #build], LLabel,
// 0x8001, fields..." (the form modsift writes for a manifest).
std::string event_line(const std::string& guid, uint16_t id, uint8_t version, uint16_t build,
                       const build_layout& layout);

// Fields of a 26H1 table row ("Name(Type Field, ...)") as far as they are
// unambiguous; `cut` says why they end early (empty when they don't).
bool tsv_fields(const std::string& event_fields, std::string& label, std::vector<gen_field>& fields,
                std::string& cut);

// Provider names of provider-list.txt: "{GUID}\tMOF|Manifest\tName" lines,
// keyed by lower-case GUID. Indented lines (keywords, levels) are passed over.
std::map<std::string, std::string> read_provider_list(const std::string& text);

// Reads the manifest dumps under `manifests` and appends the lines of
// gen_manifest.txt to `lines`; fills `names` with every GUID that the file
// declares a name for.
void convert_manifests(const std::string& manifests, const hand_checked_keys& hand,
                       std::vector<std::string>& lines, source_stats& stats,
                       std::set<std::string>& names);

// The lines of gen_providers.txt: the name of every provider of the list
// that neither the manifests' file nor a hand-checked file names.
void convert_provider_list(const std::string& manifests, const std::set<std::string>& named,
                           std::vector<std::string>& lines, source_stats& stats);

}  // namespace layoutgen
