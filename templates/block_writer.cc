#include "templates/block_writer.h"

#include <algorithm>
#include <map>
#include <set>

#include "templates/template_block.h"


namespace {

constexpr size_t max_list = 255;          // counts in a record are single bytes
constexpr uint32_t max_counted = 0x7FFF;  // largest counted number
// Most field names in a block: their table count is a u32 and name indices
// may be u32, but no database comes near this.
constexpr uint32_t max_field_names = 0x00FFFFFF;
// Most provider names: provider indices are u16 and the table count stays a
// counted number.
constexpr uint32_t max_provider_names = max_counted;

void put_u16(std::vector<uint8_t>& out, uint16_t v) {
  out.push_back(uint8_t(v));
  out.push_back(uint8_t(v >> 8));
}

// A string table under construction: entries in order, each text once.
struct name_table {
  uint32_t limit = max_counted;
  std::vector<std::string> entries;
  std::map<std::string, uint32_t> index;

  // The entry's index, adding it when new; false when the table is full.
  bool add(const std::string& text, uint32_t& at) {
    auto found = index.find(text);
    if (found != index.end()) {
      at = found->second;
      return true;
    }
    if (entries.size() >= limit) return false;
    at = uint32_t(entries.size());
    entries.push_back(text);
    index.emplace(text, at);
    return true;
  }
};

bool append_table(std::vector<uint8_t>& out, const std::vector<std::string>& entries,
                  const char* what, std::string& error) {
  append_table_count(out, uint32_t(entries.size()));
  for (const std::string& text : entries) {
    if (!append_counted_number(out, uint32_t(std::min<size_t>(text.size(), max_counted + 1)))) {
      error = std::string("a name longer than 32767 bytes in the ") + what + " table: " +
              text.substr(0, 40) + "...";
      return false;
    }
    out.insert(out.end(), text.begin(), text.end());
  }
  return true;
}

template_record declaration(const qv::guid16& guid, uint16_t provider_index) {
  template_record r;
  r.guid = guid;
  r.provider_index = provider_index;
  return r;
}

}  // namespace

bool append_counted_number(std::vector<uint8_t>& out, uint32_t value) {
  if (value > max_counted) return false;
  if (value < 0x80) {
    out.push_back(uint8_t(value));
  } else {
    out.push_back(uint8_t(0x80 | (value >> 8)));
    out.push_back(uint8_t(value));
  }
  return true;
}

void append_table_count(std::vector<uint8_t>& out, uint32_t value) {
  if (append_counted_number(out, value)) return;
  // 80 00, the two-byte form of 0, announces a u32 count.
  out.insert(out.end(), {0x80, 0x00, uint8_t(value), uint8_t(value >> 8), uint8_t(value >> 16),
                         uint8_t(value >> 24)});
}

bool append_template_record(std::vector<uint8_t>& out, const template_record& r) {
  if (r.builds.size() > max_list || r.ids.size() > max_list || r.words.size() > max_list ||
      r.name_indices.size() != r.words.size())
    return false;
  const bool has_range = r.range_hi != 0;
  const bool has_version = r.version >= 0 && r.version <= 0xFF;
  bool wide_names = false;
  for (uint32_t n : r.name_indices) wide_names = wide_names || n > 0xFFFF;
  const size_t name_width = wide_names ? 4 : 2;
  const size_t size = 1 + 2 * r.builds.size() + 16 + 2 + 1 + (has_version ? 1 : 0) +
                      (has_range ? 4 : 0) + 1 + 2 * r.ids.size() + 1 +
                      (2 + name_width) * r.words.size();
  put_u16(out, uint16_t(size));  // at most 2,582 bytes
  out.push_back(uint8_t(r.builds.size()));
  for (uint16_t b : r.builds) put_u16(out, b);
  out.insert(out.end(), r.guid.begin(), r.guid.end());
  put_u16(out, r.provider_index);
  out.push_back(uint8_t((has_range ? 1 : 0) | (wide_names ? record_wide_names : 0) |
                        (has_version ? record_has_version : 0)));
  if (has_version) out.push_back(uint8_t(r.version));
  if (has_range) {
    put_u16(out, r.range_lo);
    put_u16(out, r.range_hi);
  }
  out.push_back(uint8_t(r.ids.size()));
  for (uint16_t id : r.ids) put_u16(out, id);
  out.push_back(uint8_t(r.words.size()));
  for (uint16_t w : r.words) put_u16(out, w);
  for (uint32_t n : r.name_indices) {
    put_u16(out, uint16_t(n));
    if (wide_names) put_u16(out, uint16_t(n >> 16));
  }
  return true;
}

bool write_template_block(const template_source& source, std::vector<uint8_t>& out,
                          std::string& error) {
  out.clear();
  error.clear();

  // Provider names: "unk" stands at index 0 for "no name" and is never
  // shared with a provider that happens to carry that text.
  name_table providers;
  providers.limit = max_provider_names;
  providers.entries.push_back("unk");
  auto provider_name = [&](const qv::guid16& guid, const std::string*& name) {
    auto n = source.name_of_guid.find(guid);
    name = (n != source.name_of_guid.end() && n->second != 0 &&
            n->second < source.provider_names.size())
               ? &source.provider_names[n->second]
               : nullptr;
    return name != nullptr;
  };

  // Declarations go ahead of all templates: one for every named GUID and
  // one for every GUID that a source declares without a name, so that the
  // store gets the same provider entries from the block as from the source.
  std::vector<template_record> declarations;
  std::map<qv::guid16, uint16_t> provider_index;  // GUID -> index in the new table
  std::set<qv::guid16> declared;
  auto declare = [&](const qv::guid16& guid) -> bool {
    if (!declared.insert(guid).second) return true;
    const std::string* name = nullptr;
    uint32_t index = 0;
    if (provider_name(guid, name)) {
      if (!providers.add(*name, index)) {
        error = "too many provider names";
        return false;
      }
      provider_index.emplace(guid, uint16_t(index));
    }
    declarations.push_back(declaration(guid, uint16_t(index)));
    return true;
  };
  const std::string* unused = nullptr;
  for (const template_record& r : source.records) {
    if ((r.words.empty() || provider_name(r.guid, unused)) && !declare(r.guid)) return false;
  }
  for (const auto& named : source.name_of_guid) {
    if (!declare(named.first)) return false;
  }

  // Field names in order of first use, after the two empty entries.
  name_table fields;
  fields.limit = max_field_names;
  fields.entries = {"", ""};
  fields.index.emplace("", uint32_t(1));
  std::vector<template_record> templates;
  for (const template_record& r : source.records) {
    if (r.words.empty()) continue;
    if (r.words.size() > max_list) {
      error = "a template of more than 255 fields: " +
              (r.line_text.empty() ? std::string("(from a block)") : r.line_text.substr(0, 120));
      return false;
    }
    template_record t;
    t.guid = r.guid;
    t.version = r.version;
    auto p = provider_index.find(r.guid);
    t.provider_index = p == provider_index.end() ? 0 : p->second;
    t.words = r.words;
    t.name_indices.resize(r.words.size());
    for (size_t i = 0; i < r.words.size(); ++i) {
      static const std::string none;
      if (!fields.add(i < r.names.size() ? r.names[i] : none, t.name_indices[i])) {
        error = "too many field names";
        return false;
      }
    }

    // Counts are single bytes: longer lists are cut into records that give
    // every identifier every build, which links to the same build maps.
    const size_t id_chunks = std::max<size_t>(1, (r.ids.size() + max_list - 1) / max_list);
    const size_t build_chunks = std::max<size_t>(1, (r.builds.size() + max_list - 1) / max_list);
    for (size_t i = 0; i < id_chunks; ++i) {
      for (size_t b = 0; b < build_chunks; ++b) {
        template_record part = t;
        if (i == 0) {
          part.range_lo = r.range_lo;
          part.range_hi = r.range_hi;
        }
        auto ids_from = r.ids.begin() + std::min(r.ids.size(), i * max_list);
        auto ids_to = r.ids.begin() + std::min(r.ids.size(), (i + 1) * max_list);
        part.ids.assign(ids_from, ids_to);
        auto builds_from = r.builds.begin() + std::min(r.builds.size(), b * max_list);
        auto builds_to = r.builds.begin() + std::min(r.builds.size(), (b + 1) * max_list);
        part.builds.assign(builds_from, builds_to);
        templates.push_back(std::move(part));
      }
    }
  }

  if (!append_table(out, fields.entries, "field name", error)) return false;
  if (!append_table(out, providers.entries, "provider name", error)) return false;
  for (const template_record& r : declarations) append_template_record(out, r);
  for (const template_record& r : templates) append_template_record(out, r);
  return true;
}
