#include "templates/template_store.h"

#include <charconv>
#include <new>

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

const event_template* find_event_template(const template_store& store, const qv::guid16& guid,
                                          uint16_t event_id) {
  auto p = store.providers.find(guid);
  if (p == store.providers.end()) return nullptr;
  auto e = p->second.events.find(event_id);
  if (e == p->second.events.end() || e->second.empty()) return nullptr;
  const build_map& builds = e->second;

  // The oldest layout that is not older than the trace's build; failing
  // that (or with no build known) the newest. Key 0 (no build given) is
  // therefore chosen only when no build-specific layout exists.
  auto chosen = builds.end();
  if (store.trace_build != 0 && store.trace_build <= 0xFFFF)
    chosen = builds.lower_bound(uint16_t(store.trace_build));
  if (chosen == builds.end()) chosen = std::prev(builds.end());

  auto d = store.by_digest.find(chosen->second);
  if (d == store.by_digest.end() || d->second >= store.templates.size()) return nullptr;
  return &store.templates[d->second];
}

const std::string& provider_name_of(const template_store& store, const qv::guid16& guid) {
  static const std::string empty;
  auto p = store.providers.find(guid);
  return p == store.providers.end() ? empty : p->second.name;
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
}

void set_trace_build(template_store& store, uint32_t build) { store.trace_build = build; }
