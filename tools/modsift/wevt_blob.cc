#include "tools/modsift/wevt_blob.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>

#include "tools/modsift/modsift_text.h"

namespace modsift {

namespace {

// Names longer than this are cut: no manifest name comes near it, and the cap
// keeps a hostile blob from making every lookup read megabytes.
constexpr size_t kMaxNameUnits = 512;

bool has_sig(qv::byte_span s, size_t off, const char* sig) {
  return s.has(off, 4) && std::memcmp(s.data + off, sig, 4) == 0;
}

std::string hex32(uint32_t v) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "0x%x", static_cast<unsigned>(v));
  return buf;
}

// {key, offset} pairs of a PRVA or EVTA element, sorted by key.
bool read_pairs(qv::byte_span s, size_t off, std::vector<std::pair<uint32_t, uint32_t>>& pairs) {
  if (!s.has(off, 12)) return false;
  uint32_t n = qv::rd_u32(s, off + 8);
  if (n > (s.size - off - 12) / 8) return false;
  for (uint32_t i = 0; i < n; ++i) {
    size_t p = off + 12 + size_t(i) * 8;
    pairs.emplace_back(qv::rd_u32(s, p), qv::rd_u32(s, p + 4));
  }
  return true;
}

void read_provider(qv::byte_span s, const qv::guid16& guid, uint32_t off, crim_blob& out) {
  std::string who = "provider {" + guid_text(guid) + "}";
  if (!has_sig(s, off, "WEVT") || !s.has(off, 16)) {
    out.problems.push_back(who + ": no WEVT block at " + hex32(off));
    return;
  }
  wevt_provider p;
  p.guid = guid;
  p.offset = off;
  p.message_id = qv::rd_u32(s, off + 8);
  uint32_t elements = qv::rd_u32(s, off + 12);
  if (elements > (s.size - off - 16) / 8) {
    out.problems.push_back(who + ": element table runs past the blob");
    return;
  }
  std::vector<std::pair<uint32_t, uint32_t>> event_names;
  for (uint32_t i = 0; i < elements; ++i) {
    uint32_t eoff = qv::rd_u32(s, off + 16 + size_t(i) * 8 + 4);
    if (has_sig(s, eoff, "EVNT")) {
      if (!s.has(eoff, 16)) {
        out.problems.push_back(who + ": EVNT header runs past the blob");
        continue;
      }
      uint32_t n = qv::rd_u32(s, eoff + 8);
      if (n > (s.size - eoff - 16) / 48) {
        out.problems.push_back(who + ": EVNT table runs past the blob");
        continue;
      }
      for (uint32_t e = 0; e < n; ++e) {
        size_t b = eoff + 16 + size_t(e) * 48;
        wevt_event ev;
        ev.id = qv::rd_u16(s, b);
        ev.version = qv::rd_u8(s, b + 2);
        ev.channel = qv::rd_u8(s, b + 3);
        ev.level = qv::rd_u8(s, b + 4);
        ev.opcode = qv::rd_u8(s, b + 5);
        ev.task = qv::rd_u16(s, b + 6);
        ev.keywords = qv::rd_u64(s, b + 8);
        ev.message_id = qv::rd_u32(s, b + 16);
        ev.template_offset = qv::rd_u32(s, b + 20);
        p.events.push_back(std::move(ev));
      }
    } else if (has_sig(s, eoff, "PRVA")) {
      std::vector<std::pair<uint32_t, uint32_t>> pairs;
      if (!read_pairs(s, eoff, pairs)) {
        out.problems.push_back(who + ": PRVA table runs past the blob");
        continue;
      }
      for (const auto& kv : pairs)
        if (kv.first == 0x10000001u && p.name.empty()) p.name = utf16_at(s, kv.second, kMaxNameUnits);
    } else if (has_sig(s, eoff, "EVTA")) {
      if (!read_pairs(s, eoff, event_names))
        out.problems.push_back(who + ": EVTA table runs past the blob");
    }
  }
  if (!event_names.empty()) {
    std::stable_sort(event_names.begin(), event_names.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    for (wevt_event& ev : p.events) {
      uint32_t key = uint32_t(ev.id) << 16 | uint32_t(ev.version) << 8 | 0x11u;
      auto it = std::lower_bound(event_names.begin(), event_names.end(), key,
                                 [](const auto& kv, uint32_t k) { return kv.first < k; });
      if (it != event_names.end() && it->first == key) ev.name = utf16_at(s, it->second, kMaxNameUnits);
    }
  }
  out.providers.push_back(std::move(p));
}

}  // namespace

bool read_crim(qv::byte_span blob, crim_blob& out, std::string& reason) {
  out = crim_blob();
  if (!has_sig(blob, 0, "CRIM") || !blob.has(0, 16)) {
    reason = "no CRIM header";
    return false;
  }
  uint32_t size = qv::rd_u32(blob, 4);
  out.major = qv::rd_u16(blob, 8);
  out.minor = qv::rd_u16(blob, 10);
  uint32_t count = qv::rd_u32(blob, 12);
  if (size < 16 || size > blob.size) {
    reason = "CRIM size " + std::to_string(size) + " doesn't fit the " +
             std::to_string(blob.size) + " bytes of data (truncated?)";
    return false;
  }
  if (out.major < 1 || out.major > 5) {
    reason = "unknown format version " + std::to_string(out.major) + "." + std::to_string(out.minor);
    return false;
  }
  // Everything the header describes lies within its own size; bytes behind
  // it (resource padding) are not looked at.
  qv::byte_span s(blob.data, size);
  if (count > (size - 16) / 20) {
    reason = "provider table runs past the blob";
    return false;
  }
  for (uint32_t i = 0; i < count; ++i) {
    size_t b = 16 + size_t(i) * 20;
    qv::guid16 g = qv::make_guid(s.data + b);
    read_provider(s, g, qv::rd_u32(s, b + 16), out);
  }
  return true;
}

bool read_temp(qv::byte_span blob, uint32_t offset, temp_block& out, std::string& reason) {
  out = temp_block();
  if (!has_sig(blob, offset, "TEMP") || !blob.has(offset, 40)) {
    reason = "no TEMP at " + hex32(offset);
    return false;
  }
  uint32_t size = qv::rd_u32(blob, offset + 4);
  if (size < 40 || !blob.has(offset, size)) {
    reason = "TEMP at " + hex32(offset) + " runs past the blob";
    return false;
  }
  uint32_t params = qv::rd_u32(blob, offset + 8);
  uint32_t props = qv::rd_u32(blob, offset + 12);
  uint32_t items = qv::rd_u32(blob, offset + 16);
  size_t end = size_t(offset) + size;
  if (items < size_t(offset) + 40 || items > end || props > (end - items) / 20) {
    reason = "TEMP at " + hex32(offset) + ": property table outside the TEMP";
    return false;
  }
  if (params > props) {
    reason = "TEMP at " + hex32(offset) + ": more parameters than properties";
    return false;
  }
  out.offset = offset;
  out.size = size;
  out.param_count = params;
  out.binxml = qv::byte_span(blob.data + offset + 40, items - (size_t(offset) + 40));
  out.properties.resize(props);
  for (uint32_t q = 0; q < props; ++q) {
    size_t b = items + size_t(q) * 20;
    manifest_property& p = out.properties[q];
    p.flags = qv::rd_u32(blob, b);
    p.in_type = qv::rd_u8(blob, b + 4);
    p.out_type = qv::rd_u8(blob, b + 5);
    p.first_member = qv::rd_u16(blob, b + 4);
    p.member_count = qv::rd_u16(blob, b + 6);
    p.count = qv::rd_u16(blob, b + 12);
    p.length = qv::rd_u16(blob, b + 14);
    uint32_t name_off = qv::rd_u32(blob, b + 16);
    uint32_t name_size = qv::rd_u32(blob, name_off);
    if (name_off != 0 && name_size >= 4 && blob.has(name_off, name_size)) {
      qv::byte_span name(blob.data + name_off + 4, name_size - 4);
      p.name = utf16_at(name, 0, kMaxNameUnits);
    }
  }
  return true;
}

}  // namespace modsift
