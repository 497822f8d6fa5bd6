#include "templates/template_block.h"

#include <algorithm>
#include <cstdio>
#include <map>
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

size_t read_table_count(uint32_t& value, const uint8_t* data, size_t available) {
  size_t taken = read_counted_number(value, data, available);
  if (taken != 2 || value != 0) return taken;
  // 80 00: the count follows as a u32.
  if (available - taken < 4) {
    value = 0;
    return 0;
  }
  value = qv::rd_u32(data, available, taken);
  return taken + 4;
}

size_t index_string_table(std::vector<block_text>& out, const uint8_t* bytes, size_t available) {
  out.clear();
  if (available == 0 || bytes == nullptr || available > 0xFFFFFFFFu) return 0;
  uint32_t count = 0;
  size_t pos = read_table_count(count, bytes, available);
  if (pos == 0) return 0;
  // Every entry takes at least its length byte, so a count beyond the bytes
  // left can't be right: the table stays empty.
  if (pos == available || count > available - pos) return pos;
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
    out[i] = block_text{uint32_t(pos), len};
    pos += len;
  }
  return pos;
}

size_t read_string_table(std::vector<std::string>& out, const uint8_t* bytes, size_t available,
                         size_t reserve) {
  out.clear();
  std::vector<block_text> places;
  size_t pos = index_string_table(places, bytes, available);
  out.reserve(std::max(reserve, places.size()));
  out.resize(places.size());
  for (size_t i = 0; i < places.size(); ++i)
    out[i].assign(reinterpret_cast<const char*>(bytes + places[i].offset), places[i].size);
  return pos;
}

size_t scan_template_record(record_view& view, const uint8_t* bytes, size_t available) {
  view = record_view();
  if (bytes == nullptr || available < 20) return 0;
  const size_t size = qv::rd_u16(bytes, available, 0);
  if (size > available - 2) return 0;
  view.size = size;

  // `consumed` counts from behind the size field. Nothing is ever read past
  // `available`: a record that would need that doesn't fit.
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
  // A list of `count` entries of `width` bytes, read while the record's size
  // isn't used up: where it starts and how many entries were read.
  auto list = [&](uint32_t& at, uint32_t& read, size_t count, size_t width) {
    at = uint32_t(consumed + 2);
    read = 0;
    while (count-- > 0 && consumed < size && fits) {
      if (width > room - consumed) {
        fits = false;
        break;
      }
      consumed += width;
      ++read;
    }
  };

  const uint8_t build_count = u8();
  list(view.builds_at, view.build_count, build_count, 2);
  if (fits && 16 <= room - consumed) {
    std::copy(p + consumed, p + consumed + 16, view.guid.begin());
    consumed += 16;
  } else {
    fits = false;
  }
  view.provider_index = u16();
  view.flags = u8();
  if (view.flags & record_has_version) view.version = u8();
  if (view.flags & record_range_bits) {
    view.range_lo = u16();
    view.range_hi = u16();
  }
  const uint8_t id_count = u8();
  list(view.ids_at, view.id_count, id_count, 2);
  const uint8_t field_count = u8();
  list(view.words_at, view.word_count, field_count, 2);
  view.name_width = (view.flags & record_wide_names) ? 4 : 2;
  list(view.names_at, view.name_count, field_count, view.name_width);
  if (!fits) return 0;
  view.consumed = consumed;
  // The walk goes on behind what was really read, not behind `size`.
  return consumed + 2;
}

namespace {

// Copies the lists that `view` found at `bytes` into `record`.
void fill_record(template_record& record, const record_view& view, const uint8_t* bytes) {
  record = template_record();
  const size_t end = view.consumed + 2;
  auto u16_list = [&](std::vector<uint16_t>& out, uint32_t at, uint32_t count) {
    out.resize(count);
    for (uint32_t i = 0; i < count; ++i) out[i] = qv::rd_u16(bytes, end, at + 2 * size_t(i));
  };
  u16_list(record.builds, view.builds_at, view.build_count);
  record.guid = view.guid;
  record.provider_index = view.provider_index;
  record.version = view.version;
  record.range_lo = view.range_lo;
  record.range_hi = view.range_hi;
  u16_list(record.ids, view.ids_at, view.id_count);
  u16_list(record.words, view.words_at, view.word_count);
  record.name_indices.resize(view.name_count);
  for (uint32_t i = 0; i < view.name_count; ++i) {
    const size_t at = view.names_at + size_t(view.name_width) * i;
    record.name_indices[i] = view.name_width == 4 ? qv::rd_u32(bytes, end, at) : qv::rd_u16(bytes, end, at);
  }
}

// The record's names from its name indices; an index beyond the table gives
// an empty name.
template <typename name_of>
void resolve_names(template_record& record, size_t table_size, name_of name) {
  record.names.resize(record.name_indices.size());
  for (size_t i = 0; i < record.name_indices.size(); ++i) {
    uint32_t index = record.name_indices[i];
    if (index < table_size) name(index, record.names[i]);
  }
}

// The identifiers a record would enter: its range and its list.
size_t identifier_count(const record_view& view) {
  size_t n = view.id_count;
  if (view.range_hi != 0 && view.range_lo <= view.range_hi) n += size_t(view.range_hi) - view.range_lo + 1;
  return n;
}

}  // namespace

size_t unpack_template_record(template_record& record, const uint8_t* bytes, size_t available) {
  record = template_record();
  record_view view;
  const size_t used = scan_template_record(view, bytes, available);
  if (used == 0) return 0;
  fill_record(record, view, bytes);
  if (view.consumed != view.size) report_unpack_problem();
  return used;
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
    resolve_names(record, source.field_names.size(),
                  [&](uint32_t index, std::string& name) { name = source.field_names[index]; });
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
    // Block records that wait came first: they are linked ahead of these.
    if (!entry.pending.empty()) link_pending_records(store, entry);
    if (entry.name.empty()) {
      auto n = source.name_of_guid.find(record.guid);
      if (n != source.name_of_guid.end() && n->second < source.provider_names.size())
        entry.name = source.provider_names[n->second];
    }
    link_template_record(store, entry, record, id_budget, layout);
  }
  return true;
}

bool index_template_block(template_store& store, std::vector<uint8_t>&& bytes) {
  const size_t size = bytes.size();
  if (size < 36 || size > 0xFFFFFFFFu) return false;
  std::vector<block_text> field_names;
  size_t pos = index_string_table(field_names, bytes.data(), size);
  if (pos == 0) return false;
  std::vector<std::string> provider_names;
  size_t taken = read_string_table(provider_names, bytes.data() + pos, size - pos);
  if (taken == 0) return false;
  pos += taken;
  // The records of a block indexed before are linked now: they came first,
  // and their places are in the bytes that this block replaces.
  unpack_all_providers(store);

  // What the walk learns of each GUID: its entry, and the first provider
  // index that a record of it gives (the block's name for it).
  struct guid_state {
    provider_entry* entry = nullptr;
    uint16_t name_index = 0;
  };
  std::map<qv::guid16, guid_state> guids;
  guid_state* last = nullptr;
  qv::guid16 last_guid{};
  size_t id_budget = max_linked_event_ids;
  do {
    record_view view;
    size_t used = scan_template_record(view, bytes.data() + pos, size - pos);
    if (used == 0) break;
    if (view.consumed != view.size) report_unpack_problem();
    // Records of one provider mostly stand together: the map is searched
    // only when the GUID changes.
    if (last == nullptr || view.guid != last_guid) {
      last = &guids[view.guid];
      last_guid = view.guid;
      if (last->entry == nullptr) last->entry = &store.providers[view.guid];
    }
    if (last->name_index == 0) last->name_index = view.provider_index;
    if (view.word_count != 0) {
      // The link spends its identifier budget in block order: what this
      // record may enter is settled here, whenever it is linked.
      const size_t allowance = std::min(identifier_count(view), id_budget);
      id_budget -= allowance;
      last->entry->pending.push_back(block_record_ref{uint32_t(pos), uint32_t(allowance)});
    }
    pos += used;
  } while (size - pos > 16);

  // A name from the block fills only a name that is still empty; an index
  // beyond the table gives none.
  for (auto& [guid, state] : guids) {
    if (state.name_index != 0 && state.entry->name.empty() && state.name_index < provider_names.size())
      state.entry->name = provider_names[state.name_index];
  }
  store.block = std::move(bytes);
  store.block_field_names = std::move(field_names);
  store.link_pending = link_pending_records;
  return true;
}

void link_pending_records(template_store& store, provider_entry& entry) {
  std::vector<block_record_ref> refs;
  refs.swap(entry.pending);
  const std::vector<uint8_t>& block = store.block;
  template_record record;
  std::string layout;
  // An allocation failure leaves what was linked so far; the rest is dropped.
  try {
    for (const block_record_ref& ref : refs) {
      if (ref.offset >= block.size()) continue;
      record_view view;
      if (scan_template_record(view, block.data() + ref.offset, block.size() - ref.offset) == 0) continue;
      fill_record(record, view, block.data() + ref.offset);
      resolve_names(record, store.block_field_names.size(), [&](uint32_t index, std::string& name) {
        const block_text& t = store.block_field_names[index];
        name.assign(reinterpret_cast<const char*>(block.data() + t.offset), t.size);
      });
      size_t id_budget = ref.id_allowance;
      link_template_record(store, entry, record, id_budget, layout);
    }
  } catch (const std::bad_alloc&) {
  }
}

void unpack_provider(template_store& store, const qv::guid16& guid) {
  auto p = store.providers.find(guid);
  if (p != store.providers.end() && !p->second.pending.empty()) link_pending_records(store, p->second);
}

void unpack_all_providers(template_store& store) {
  for (auto& [guid, entry] : store.providers)
    if (!entry.pending.empty()) link_pending_records(store, entry);
}

void load_templates(template_store& store, std::vector<uint8_t> block_bytes,
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
      index_template_block(store, std::move(block_bytes));
    } catch (const std::bad_alloc&) {
    }
  }
  add_kernel_groups(store);
}
