#include "templates/template_block.h"

#include <algorithm>
#include <cstdio>
#include <new>

#include "support/byte_reader.h"
#include "support/qv_portable_dir.h"
#include "support/uni_fileio.h"
#include "templates/kernel_groups.h"
#include "templates/template_text.h"

// The fixed location record. It sits in the executable's read-only data with
// zeros behind its magic; after linking, the build step finds the magic in the
// file, appends the block and writes the block's offset and length (u32,
// little-endian) behind it. It is read only through volatile accesses, so the
// compiler reads the patched bytes at run time instead of folding the zeros
// it was built with, and it has C linkage so the link can be told to keep it.
extern "C" {
struct quon_block_location_record {
  uint8_t magic[16];
  uint8_t block_offset[4];
  uint8_t block_length[4];
};
extern const quon_block_location_record quon_embedded_block_location;
__attribute__((used)) const quon_block_location_record quon_embedded_block_location = {
    {QUON_BLOCK_LOCATION_MAGIC}, {0, 0, 0, 0}, {0, 0, 0, 0}};
}

static_assert(sizeof(quon_block_location_record) == block_location_record_size);

namespace {

uint32_t volatile_u32(const volatile uint8_t* p) {
  uint32_t v = 0;
  for (int i = 3; i >= 0; --i) v = (v << 8) | p[i];
  return v;
}

void report_unpack_problem() { std::fputs("Problem unpacking chunk data\n", stderr); }

}  // namespace

bool embedded_block_location(uint32_t& block_offset, uint32_t& block_length) {
  const volatile quon_block_location_record& record = quon_embedded_block_location;
  block_offset = volatile_u32(record.block_offset);
  block_length = volatile_u32(record.block_length);
  return block_offset != 0 && block_length != 0;
}

bool read_embedded_block(std::vector<uint8_t>& out, uint32_t block_offset, uint32_t block_length) {
  out.clear();
  // The block lies behind the image and its headers, never in the first page.
  if (block_offset < 4096) return false;
  std::string path = qvportdir::executable_path();
  if (path.empty()) return false;
  uni::fileio file;
  if (!file.open(path, false, false, false)) return false;
  uint64_t size = file.file_size();
  // A stripped or otherwise rewritten executable is shorter than the offset
  // it was built with: the block is gone and the run goes on without it.
  if (block_offset >= size) return false;
  uint64_t length = std::min<uint64_t>(block_length, size - block_offset);
  try {
    if (!file.read_block(out, length, block_offset)) {
      out.clear();
      return false;
    }
  } catch (const std::bad_alloc&) {
    out.clear();
    return false;
  }
  if (out.size() > length) out.resize(length);
  return !out.empty();
}

bool read_own_block(std::vector<uint8_t>& out) {
  uint32_t offset = 0, length = 0;
  if (!embedded_block_location(offset, length)) {
    out.clear();
    return false;
  }
  return read_embedded_block(out, offset, length);
}

size_t read_counted_number(uint32_t& value, const uint8_t* data, size_t available) {
  value = 0;
  if (available == 0) return 0;
  if (data[0] < 0x80) {
    value = data[0];
    return 1;
  }
  if (available < 2) return 0;
  value = uint32_t(data[0] & 0x7F) * 256 + data[1];
  return 2;
}

size_t read_string_table(std::vector<std::string>& out, const uint8_t* bytes, size_t available,
                         size_t reserve) {
  out.clear();
  if (available == 0 || bytes == nullptr) return 0;
  uint32_t count = 0;
  size_t pos = read_counted_number(count, bytes, available);
  if (pos == 0) return 0;
  // Every entry takes at least its length byte, so a count beyond the bytes
  // left can't be right: the table stays empty.
  if (pos == available || count > available - pos) return pos;
  out.reserve(std::max<size_t>(reserve, count));
  out.resize(count);
  for (uint32_t i = 0; i < count && pos < available; ++i) {
    uint32_t len = 0;
    size_t taken = read_counted_number(len, bytes + pos, available - pos);
    if (taken == 0) {  // a two-byte length cut by the end of the table
      pos = available;
      break;
    }
    pos += taken;
    // A length beyond the bytes left leaves the entry empty; only the
    // length's own bytes are taken, and the next entry starts behind them.
    if (len > available - pos) continue;
    out[i].assign(reinterpret_cast<const char*>(bytes + pos), len);
    pos += len;
  }
  return pos;
}

size_t unpack_template_record(template_record& record, const uint8_t* bytes, size_t available) {
  record = template_record();
  if (bytes == nullptr || available < 20) return 0;
  const size_t size = qv::rd_u16(bytes, available, 0);
  if (size > available - 2) return 0;

  // `consumed` counts from behind the size field. The counted lists stop as
  // soon as the record's `size` is used up, so a wrong count can't run past
  // the record; the fixed fields between them are read regardless. Nothing
  // is ever read past `available`: a record that would need that doesn't fit.
  const uint8_t* p = bytes + 2;
  const size_t room = available - 2;
  size_t consumed = 0;
  bool fits = true;
  auto u8 = [&]() -> uint8_t {
    if (!fits || consumed >= room) {
      fits = false;
      return 0;
    }
    return p[consumed++];
  };
  auto u16 = [&]() -> uint16_t {
    if (!fits || 2 > room - consumed) {
      fits = false;
      return 0;
    }
    uint16_t v = qv::rd_u16(p, room, consumed);
    consumed += 2;
    return v;
  };
  auto list = [&](std::vector<uint16_t>& out, size_t count) {
    out.reserve(count);
    while (count-- > 0 && consumed < size && fits) out.push_back(u16());
  };

  const uint8_t build_count = u8();
  list(record.builds, build_count);
  if (fits && 16 <= room - consumed) {
    std::copy(p + consumed, p + consumed + 16, record.guid.begin());
    consumed += 16;
  } else {
    fits = false;
  }
  record.provider_index = u16();
  if (u8() != 0) {
    record.range_lo = u16();
    record.range_hi = u16();
  }
  const uint8_t id_count = u8();
  list(record.ids, id_count);
  const uint8_t field_count = u8();
  list(record.words, field_count);
  list(record.name_indices, field_count);
  if (!fits) return 0;

  if (consumed != size) report_unpack_problem();
  // The walk goes on behind what was really read, not behind `size`.
  return consumed + 2;
}

bool parse_template_block(template_source& source, const uint8_t* bytes, size_t size) {
  reset(source);
  if (bytes == nullptr || size < 36) return false;
  // Both tables keep room for 4096 entries so that they rarely grow.
  size_t pos = read_string_table(source.field_names, bytes, size, 4096);
  if (pos == 0) return false;
  size_t taken = read_string_table(source.provider_names, bytes + pos, size - pos, 4096);
  if (taken == 0) return false;
  pos += taken;

  // At least one record is tried; after that a tail of 16 bytes or fewer
  // can't be a record and is left alone.
  do {
    template_record record;
    size_t used = unpack_template_record(record, bytes + pos, size - pos);
    if (used == 0) break;  // a record that doesn't fit ends the block
    record.names.resize(record.name_indices.size());
    for (size_t i = 0; i < record.name_indices.size(); ++i) {
      uint16_t index = record.name_indices[i];
      if (index < source.field_names.size()) record.names[i] = source.field_names[index];
    }
    if (record.provider_index != 0) source.name_of_guid.emplace(record.guid, record.provider_index);
    source.records.push_back(std::move(record));
    pos += used;
  } while (size - pos > 16);
  return true;
}

bool parse_template_block(template_source& source, const std::vector<uint8_t>& bytes) {
  return parse_template_block(source, bytes.data(), bytes.size());
}

bool link_templates(const template_source& source, template_store& store, bool keep) {
  if (!keep) clear(store);
  if (source.records.empty()) return false;

  std::string layout;
  layout.reserve(512);
  size_t id_budget = max_linked_event_ids;
  for (const template_record& record : source.records) {
    provider_entry& entry = store.providers[record.guid];
    if (entry.name.empty()) {
      auto n = source.name_of_guid.find(record.guid);
      if (n != source.name_of_guid.end() && n->second < source.provider_names.size())
        entry.name = source.provider_names[n->second];
    }
    // A provider declaration names the GUID and adds nothing more, whatever
    // identifiers it carries.
    if (record.words.empty()) continue;

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

    // Every identifier gets the record's builds (or build 0, "all builds").
    // A build already mapped for an identifier keeps its layout: the first
    // source, and the first record of a source, wins.
    auto enter = [&](uint16_t id) {
      if (id_budget == 0) return;
      --id_budget;
      build_map& builds = entry.events[id];
      if (record.builds.empty()) {
        builds.emplace(uint16_t(0), digest);
      } else {
        for (uint16_t b : record.builds) builds.emplace(b, digest);
      }
    };
    if (record.range_hi != 0) {
      for (uint32_t id = record.range_lo; id <= record.range_hi && id_budget; ++id) enter(uint16_t(id));
    }
    for (uint16_t id : record.ids) enter(id);
  }
  return true;
}

void load_templates(template_store& store, const std::vector<uint8_t>& block_bytes,
                    const std::string& template_path) {
  clear(store);
  // An allocation failure in one source leaves what was linked so far and
  // goes on with the next.
  if (!template_path.empty()) {
    try {
      template_source source;
      load_template_text(source, template_path);  // an unreadable file simply adds nothing
      link_templates(source, store, false);
    } catch (const std::bad_alloc&) {
    }
  }
  if (!block_bytes.empty()) {
    try {
      template_source source;
      if (parse_template_block(source, block_bytes)) link_templates(source, store, true);
    } catch (const std::bad_alloc&) {
    }
  }
  add_kernel_groups(store);
}
