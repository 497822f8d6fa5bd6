// The template store: the program's database of event layouts and provider
// names.
//
// A layout (`event_template`) is a list of 16-bit words, one per field, each
// with a name. Bits 0-7 of a word are the value type or operation, bits 8-11
// an argument nibble, bits 12-15 the family (0 plain value, 8 special, 9 self
// sized, 0xA count from an earlier field, 0xB count in the next word, 0xC
// fixed skip, 0xD fixed-count array, 0xE skip sized by an earlier field).
//
// Providers map event identifiers to a `build_map`: Windows build number to
// the digest of a layout. Layouts are stored once per distinct text, so equal
// layouts of different providers share one template. A layout declared for
// one event version sits in a second map, by identifier and version.
//
// The embedded block is kept whole in the store and indexed by provider: a
// provider's block records are unpacked and linked when its layouts are first
// asked for (templates/template_block.h).
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "support/guid.h"

using template_digest = std::array<uint8_t, 16>;

struct event_template {
  std::string layout_text;        // names and decimal words, no separators
  template_digest digest{};       // 128-bit hash of layout_text
  std::vector<uint16_t> words;
  std::vector<std::string> names;  // same length as words
  bool percent_form = false;
  bool has_wide_word = false;
};

// Windows build -> digest; build 0 stands for "all builds".
using build_map = std::map<uint16_t, template_digest>;
// Event version -> the builds of the layouts declared for that version.
using version_map = std::map<uint8_t, build_map>;

// A record of the embedded block that waits to be linked: where it starts in
// the block, and how many of its identifiers it may still enter (a link
// enters at most max_linked_event_ids, counted in block order).
struct block_record_ref {
  uint32_t offset = 0;
  uint32_t id_allowance = 0;
};

struct provider_entry {
  std::map<uint16_t, build_map> events;       // layouts for every version of an event
  std::map<uint16_t, version_map> versioned;  // layouts declared for one event version
  std::string name;
  std::vector<block_record_ref> pending;      // block records not linked yet, in block order
};

// The providers of the last lookups that found one: events of a few
// providers mostly come one after the other, and the map search is then
// passed over. A GUID has one slot, chosen by its bytes. Entries of the
// providers map stay where they are while others are added; the cache is
// emptied when the store is cleared, and a moved or copied store starts with
// an empty one.
struct provider_lookup_cache {
  static constexpr size_t kSlots = 8;
  struct slot {
    qv::guid16 guid{};
    const provider_entry* entry = nullptr;
  };
  slot slots[kSlots];

  provider_lookup_cache() = default;
  provider_lookup_cache(const provider_lookup_cache&) {}
  provider_lookup_cache(provider_lookup_cache&& from) noexcept { from.clear(); }
  provider_lookup_cache& operator=(const provider_lookup_cache&) {
    clear();
    return *this;
  }
  provider_lookup_cache& operator=(provider_lookup_cache&& from) noexcept {
    clear();
    from.clear();
    return *this;
  }
  void clear() {
    for (slot& s : slots) s.entry = nullptr;
  }
  slot& slot_of(const qv::guid16& guid) {
    return slots[(guid[0] ^ guid[5] ^ guid[10] ^ guid[15]) % kSlots];
  }
};

// A text in the block: `size` bytes at `offset`.
struct block_text {
  uint32_t offset = 0;
  uint32_t size = 0;
};

struct template_store {
  // A deque, so that a template stays where it is while later links append.
  std::deque<event_template> templates;
  std::map<template_digest, uint32_t, qv::guid_less> by_digest;  // ordered as plain bytes
  std::map<qv::guid16, provider_entry, qv::guid_less> providers;
  std::map<uint16_t, qv::guid16> group_guids;  // hook id with low byte cleared -> GUID
  uint32_t trace_build = 0;
  // The embedded block, kept whole while records of it wait to be linked,
  // and its field name table as places in it.
  std::vector<uint8_t> block;
  std::vector<block_text> block_field_names;
  // Links the records that wait in an entry; set by the block's indexer, so
  // that a lookup can unpack a provider without the store knowing the
  // block's format.
  void (*link_pending)(template_store& store, provider_entry& entry) = nullptr;
  // Layouts learned from the trace being read (the instrumentation manifests
  // that event sources write into it), kept apart from the sources above:
  // they fill only keys those sources leave empty, and they are forgotten
  // with the file. Null until a first layout is learned.
  std::unique_ptr<template_store> learned;
  mutable provider_lookup_cache last_provider;
};

// The store's entry of a provider, or nullptr.
const provider_entry* find_provider(const template_store& store, const qv::guid16& guid);
provider_entry* find_provider(template_store& store, const qv::guid16& guid);

// ---- Parse-time objects -----------------------------------------------------
//
// Both loaders (the embedded block and the template text files) produce a
// `template_source`, which lives only while one source is being loaded and is
// then linked into the store.

// One template or one provider declaration (a record with no words).
struct template_record {
  std::vector<uint16_t> builds;  // Windows builds of this layout; may be empty
  int16_t version = -1;          // event version the layout was declared for; -1: any
  std::string layout_text;       // text line only: GUID column, names and words
  template_digest key{};         // text line only: digest of layout_text
  qv::guid16 guid{};
  uint16_t provider_index = 0;   // into provider_names; 0 when none
  uint16_t range_lo = 0;         // inclusive identifier range;
  uint16_t range_hi = 0;         //   range_hi 0 means no range
  std::vector<uint16_t> ids;     // further event identifiers
  std::vector<uint16_t> words;   // empty: a provider declaration only
  std::vector<std::string> names;
  std::vector<uint32_t> name_indices;  // the same names as indices into field_names
  std::string line_text;         // text line only: the whole line
  bool percent_form = false;
};

struct template_source {
  std::vector<template_record> records;           // in source order
  std::map<template_digest, uint32_t> by_key;     // text loader: merges equal layouts
  std::vector<std::string> provider_names{"unk"};  // index 0 stands for "no name"
  std::map<qv::guid16, uint32_t> name_of_guid;     // GUID -> index into provider_names
  std::vector<std::string> field_names{""};
  std::map<std::string, uint32_t> field_name_index;  // text loader only
};

// Empties a source: no records, provider_names {"unk"}, field_names {""}.
void reset(template_source& source);

// ---- Store -------------------------------------------------------------------

// Appends the layout text of words/names (each field: its name, then its word
// in decimal, no separators) to `out`. Missing names count as empty.
void append_layout_text(std::string& out, const std::vector<uint16_t>& words,
                        const std::vector<std::string>& names);

// Builds `layout_text` from words and names (padding names with empty ones)
// and hashes it into `digest`.
void build_layout(event_template& t);
// The 128-bit hash used for digests and text-line keys.
template_digest digest_of(const std::string& text);

// The layout for a provider, event id and event version (-1: the record
// carries none) under the store's trace build, or nullptr. A layout learned
// from the trace for exactly that identifier and version comes first (it was
// learned only where the store's own sources had none); then the store's own
// choice; then the learned layouts' choice among other versions. Layouts declared
// for that version come first, chosen by build; without any, the choice by
// build runs over all layouts of the identifier, and where two stand at the
// chosen build the one for every version wins, else the highest version.
// The first lookup of a provider links its block records; after that a
// lookup is a few ordered-map searches and allocates nothing. A returned
// template stays valid while the store lives.
const event_template* find_event_template(template_store& store, const qv::guid16& guid,
                                          uint16_t event_id, int version = -1);

// True when the store's own sources (text file and block, not learned
// layouts) hold a layout for exactly this key: one for every version of the
// identifier, or one declared for `version`. Links the provider's block
// records first.
bool store_covers(template_store& store, const qv::guid16& guid, uint16_t event_id, uint8_t version);

// Links an event record learned from the trace into `store.learned` under
// `guid`, for the identifiers and the version it names that the store's own
// sources don't cover; a key learned before keeps its layout. Returns how
// many identifiers it entered.
size_t learn_template_record(template_store& store, const qv::guid16& guid, const template_record& record);
// Names a provider among the learned layouts when it has no name there yet.
void learn_provider_name(template_store& store, const qv::guid16& guid, const std::string& name);
// Drops every learned layout.
void forget_learned(template_store& store);

// Enters a layout for an identifier at (version, build) unless one stands
// there already; an earlier layout for every version at that build also
// covers every version. `version` -1: for every version. False when an
// earlier layout covers the key.
bool enter_layout(provider_entry& entry, uint16_t event_id, int version, uint16_t build,
                  const template_digest& digest);

// Links one template record into the store: its layout (shared with an equal
// one already stored) under each of its identifiers, range first, spending
// one of `id_budget` per identifier. Provider declarations add nothing.
// `layout` is scratch text.
void link_template_record(template_store& store, provider_entry& entry,
                          const template_record& record, size_t& id_budget, std::string& layout);
// The provider's name (the learned one when the store's own sources have
// none), or an empty text when unknown or unnamed.
const std::string& provider_name_of(const template_store& store, const qv::guid16& guid);
// The GUID of a classic event's group (event_id with its low byte cleared).
bool group_guid_of(const template_store& store, uint16_t event_id, qv::guid16& out);
// Makes an entry for the GUID if missing and names it if it has no name yet.
bool set_provider_name(template_store& store, const qv::guid16& guid, const std::string& name);
void clear(template_store& store);
void set_trace_build(template_store& store, uint32_t build);
