#include "templates/template_store.h"

#include <charconv>
#include <new>
#include <utility>


void reset(template_source& source) {
  source.records.clear();
  source.by_key.clear();
  source.provider_names.assign(1, "unk");
  source.name_of_guid.clear();
  source.field_names.assign(1, std::string());
  source.field_name_index.clear();
}

void append_layout_text(std::string& out, const std::vector<uint16_t>& words,
                        const std::vector<std::string>& names) {
  char digits[8];
  for (size_t i = 0; i < words.size(); ++i) {
    if (i < names.size()) out += names[i];
    auto r = std::to_chars(digits, digits + sizeof digits, words[i]);
    out.append(digits, r.ptr);
  }
}

void build_layout(event_template& t) {
  // The interpreter indexes words and names with one field index, so the two
  // lists are kept the same length: missing names are empty.
  t.names.resize(t.words.size());
  t.layout_text.clear();
  append_layout_text(t.layout_text, t.words, t.names);
  t.digest = digest_of(t.layout_text);
}

// 128-bit FNV-1a over the bytes of the text (offset basis
// 0x6c62272e07bb014262b821756295c58d, prime 2^88 + 0x13b). The digest is
// stored most significant byte first. It never leaves the process.
template_digest digest_of(const std::string& text) {
  using u128 = unsigned __int128;
  u128 h = (u128(0x6c62272e07bb0142ULL) << 64) | u128(0x62b821756295c58dULL);
  for (unsigned char c : text) {
    h ^= c;
    h = h * 0x13b + (h << 88);  // h * (2^88 + 0x13b) mod 2^128
  }
  template_digest d;
  for (int i = 15; i >= 0; --i) {
    d[i] = uint8_t(h);
    h >>= 8;
  }
  return d;
}

const provider_entry* find_provider(const template_store& store, const qv::guid16& guid) {
  provider_lookup_cache::slot& c = store.last_provider.slot_of(guid);
  if (c.entry && c.guid == guid) return c.entry;
  auto p = store.providers.find(guid);
  if (p == store.providers.end()) return nullptr;
  c.entry = &p->second;
  c.guid = guid;
  return c.entry;
}

provider_entry* find_provider(template_store& store, const qv::guid16& guid) {
  // The entry belongs to a store that isn't const.
  return const_cast<provider_entry*>(find_provider(std::as_const(store), guid));
}

namespace {

// The layout that a digest names, or nullptr.
const event_template* template_of(const template_store& store, const template_digest& digest) {
  auto d = store.by_digest.find(digest);
  if (d == store.by_digest.end() || d->second >= store.templates.size()) return nullptr;
  return &store.templates[d->second];
}

// The trace's build as a key, or 0 when unknown or beyond 16 bits: then only
// the highest build answers.
uint16_t build_key(const template_store& store) {
  return store.trace_build <= 0xFFFF ? uint16_t(store.trace_build) : 0;
}

// The oldest layout that is not older than the trace's build; failing that
// (or with no build known) the newest. Key 0 (no build given) is therefore
// chosen only when no build-specific layout exists.
const template_digest* choose_by_build(const build_map& builds, uint16_t build) {
  if (builds.empty()) return nullptr;
  auto chosen = builds.end();
  if (build != 0) chosen = builds.lower_bound(build);
  if (chosen == builds.end()) chosen = std::prev(builds.end());
  return &chosen->second;
}

// The same choice over every layout of an identifier, for every version and
// for single versions alike. Where several stand at the chosen build, the
// layout for every version wins, else that of the highest version.
const template_digest* choose_among_all(const build_map* any, const version_map* versions,
                                        uint16_t build) {
  bool found = false;
  uint16_t key = 0;
  auto consider = [&](const build_map& builds) {
    if (builds.empty()) return;
    auto at = build != 0 ? builds.lower_bound(build) : builds.end();
    if (at != builds.end() && (!found || at->first < key)) {
      key = at->first;
      found = true;
    }
  };
  if (any) consider(*any);
  if (versions)
    for (const auto& v : *versions) consider(v.second);
  if (!found) {  // nothing at or above the trace's build: the highest build
    if (any && !any->empty()) {
      key = any->rbegin()->first;
      found = true;
    }
    if (versions) {
      for (const auto& v : *versions) {
        if (v.second.empty()) continue;
        if (!found || v.second.rbegin()->first > key) key = v.second.rbegin()->first;
        found = true;
      }
    }
  }
  if (!found) return nullptr;
  if (any) {
    auto at = any->find(key);
    if (at != any->end()) return &at->second;
  }
  if (versions) {
    for (auto v = versions->rbegin(); v != versions->rend(); ++v) {
      auto at = v->second.find(key);
      if (at != v->second.end()) return &at->second;
    }
  }
  return nullptr;
}

// The choice of one store's own layouts (see find_event_template).
const event_template* find_own_template(template_store& store, const qv::guid16& guid,
                                        uint16_t event_id, int version) {
  provider_entry* p = find_provider(store, guid);
  if (!p) return nullptr;
  provider_entry& entry = *p;
  if (!entry.pending.empty() && store.link_pending) store.link_pending(store, entry);
  const uint16_t build = build_key(store);

  auto versioned = entry.versioned.find(event_id);
  const version_map* versions = versioned == entry.versioned.end() ? nullptr : &versioned->second;
  // The record's own version first, when some layout was declared for it.
  if (versions && version >= 0 && version <= 0xFF) {
    auto v = versions->find(uint8_t(version));
    if (v != versions->end() && !v->second.empty()) {
      const template_digest* d = choose_by_build(v->second, build);
      return d ? template_of(store, *d) : nullptr;
    }
  }
  auto e = entry.events.find(event_id);
  const build_map* any = e == entry.events.end() ? nullptr : &e->second;
  const template_digest* d =
      versions ? choose_among_all(any, versions, build) : any ? choose_by_build(*any, build) : nullptr;
  return d ? template_of(store, *d) : nullptr;
}

// A learned layout declared for exactly this identifier and version.
const event_template* find_learned_exact(const template_store& learned, const qv::guid16& guid,
                                         uint16_t event_id, int version) {
  if (version < 0 || version > 0xFF) return nullptr;
  auto p = learned.providers.find(guid);
  if (p == learned.providers.end()) return nullptr;
  auto v = p->second.versioned.find(event_id);
  if (v == p->second.versioned.end()) return nullptr;
  auto b = v->second.find(uint8_t(version));
  if (b == v->second.end() || b->second.empty()) return nullptr;
  return template_of(learned, b->second.begin()->second);
}

}  // namespace

const event_template* find_event_template(template_store& store, const qv::guid16& guid,
                                          uint16_t event_id, int version) {
  template_store* learned = store.learned.get();
  if (!learned) return find_own_template(store, guid, event_id, version);
  if (const event_template* t = find_learned_exact(*learned, guid, event_id, version)) return t;
  if (const event_template* t = find_own_template(store, guid, event_id, version)) return t;
  return find_own_template(*learned, guid, event_id, version);
}

bool store_covers(template_store& store, const qv::guid16& guid, uint16_t event_id, uint8_t version) {
  auto p = store.providers.find(guid);
  if (p == store.providers.end()) return false;
  provider_entry& entry = p->second;
  if (!entry.pending.empty() && store.link_pending) store.link_pending(store, entry);
  auto any = entry.events.find(event_id);
  if (any != entry.events.end() && !any->second.empty()) return true;
  auto versioned = entry.versioned.find(event_id);
  if (versioned == entry.versioned.end()) return false;
  auto v = versioned->second.find(version);
  return v != versioned->second.end() && !v->second.empty();
}

size_t learn_template_record(template_store& store, const qv::guid16& guid, const template_record& record) {
  if (record.words.empty() || record.version < 0 || record.version > 0xFF) return 0;
  const uint8_t version = uint8_t(record.version);
  template_record own;
  own.version = record.version;
  own.words = record.words;
  own.names = record.names;
  own.percent_form = record.percent_form;
  auto consider = [&](uint16_t id) {
    if (store_covers(store, guid, id, version)) return;
    if (store.learned && find_learned_exact(*store.learned, guid, id, version)) return;
    own.ids.push_back(id);
  };
  if (record.range_hi != 0)
    for (uint32_t id = record.range_lo; id <= record.range_hi; ++id) consider(uint16_t(id));
  for (uint16_t id : record.ids) consider(id);
  if (own.ids.empty()) return 0;
  if (!store.learned) store.learned = std::make_unique<template_store>();
  size_t budget = own.ids.size();
  const size_t entered = budget;
  std::string scratch;
  link_template_record(*store.learned, store.learned->providers[guid], own, budget, scratch);
  return entered;
}

void learn_provider_name(template_store& store, const qv::guid16& guid, const std::string& name) {
  if (!store.learned) store.learned = std::make_unique<template_store>();
  set_provider_name(*store.learned, guid, name);
}

void forget_learned(template_store& store) { store.learned.reset(); }

bool enter_layout(provider_entry& entry, uint16_t event_id, int version, uint16_t build,
                  const template_digest& digest) {
  if (version < 0) return entry.events[event_id].emplace(build, digest).second;
  // A layout for every version at this build covers this version too.
  auto any = entry.events.find(event_id);
  if (any != entry.events.end() && any->second.count(build) != 0) return false;
  return entry.versioned[event_id][uint8_t(version)].emplace(build, digest).second;
}

void link_template_record(template_store& store, provider_entry& entry,
                          const template_record& record, size_t& id_budget, std::string& layout) {
  // A provider declaration names the GUID and adds nothing more, whatever
  // identifiers it carries.
  if (record.words.empty()) return;

  layout.clear();
  append_layout_text(layout, record.words, record.names);
  template_digest digest = digest_of(layout);
  auto found = store.by_digest.find(digest);
  bool append = found == store.by_digest.end();
  if (!append && !(found->second < store.templates.size() &&
                   store.templates[found->second].layout_text == layout)) {
    // Two different layouts with one digest: this one moves to the next
    // digest value. The hash makes this practically unreachable, so the
    // moved digest isn't checked again.
    ++digest[15];
    append = true;
  }
  if (append) {
    event_template t;
    t.layout_text = layout;
    t.digest = digest;
    t.words = record.words;
    t.names = record.names;
    t.names.resize(t.words.size());
    t.percent_form = record.percent_form;
    uint32_t index = uint32_t(store.templates.size());
    store.templates.push_back(std::move(t));
    store.by_digest.emplace(digest, index);
  }

  // Every identifier gets the record's builds (or build 0, "all builds") at
  // its version. A key already mapped keeps its layout: the first source,
  // and the first record of a source, wins.
  auto enter = [&](uint16_t id) {
    if (id_budget == 0) return;
    --id_budget;
    if (record.builds.empty()) {
      enter_layout(entry, id, record.version, 0, digest);
    } else {
      for (uint16_t b : record.builds) enter_layout(entry, id, record.version, b, digest);
    }
  };
  if (record.range_hi != 0) {
    for (uint32_t id = record.range_lo; id <= record.range_hi && id_budget; ++id) enter(uint16_t(id));
  }
  for (uint16_t id : record.ids) enter(id);
}

const std::string& provider_name_of(const template_store& store, const qv::guid16& guid) {
  static const std::string empty;
  const provider_entry* p = find_provider(store, guid);
  if (p && !p->name.empty()) return p->name;
  if (store.learned) return provider_name_of(*store.learned, guid);
  return empty;
}

bool group_guid_of(const template_store& store, uint16_t event_id, qv::guid16& out) {
  auto g = store.group_guids.find(uint16_t(event_id & 0xFF00));
  if (g == store.group_guids.end()) return false;
  out = g->second;
  return true;
}

bool set_provider_name(template_store& store, const qv::guid16& guid, const std::string& name) {
  try {
    provider_entry& entry = store.providers[guid];
    if (entry.name.empty()) entry.name = name;
    return true;
  } catch (const std::bad_alloc&) {
    return store.providers.count(guid) != 0;
  }
}

void clear(template_store& store) {
  store.templates.clear();
  store.by_digest.clear();
  store.providers.clear();
  store.group_guids.clear();
  store.trace_build = 0;
  store.block.clear();
  store.block.shrink_to_fit();
  store.block_field_names.clear();
  store.block_field_names.shrink_to_fit();
  store.link_pending = nullptr;
  store.learned.reset();
  store.last_provider.clear();
}

void set_trace_build(template_store& store, uint32_t build) { store.trace_build = build; }
