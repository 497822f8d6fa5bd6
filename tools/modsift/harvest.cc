#include "tools/modsift/harvest.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>

#include "templates/manifest_layout.h"
#include "tools/modsift/modsift_text.h"
#include "tools/modsift/wevt_blob.h"

namespace modsift {

namespace {

constexpr size_t kMaxBlobSize = size_t(256) << 20;
constexpr size_t kMaxMessageTableSize = size_t(16) << 20;
constexpr size_t kMaxVersionSize = size_t(64) << 10;
// Real harvests are a few megabytes per file; past this a blob is taken to be
// built to flood the output.
constexpr size_t kMaxOutput = size_t(64) << 20;
constexpr size_t kMaxNotes = 20;
// Leading bytes looked at to tell a manifest: blanks before its "<" are few.
constexpr uint64_t kXmlSniff = 4096;

struct cached_template {
  bool ok = false;
  std::string reason;
  std::string first_user;  // the first event that refers to a bad TEMP
  size_t users = 0;        // how many do
  std::string tokens;  // ", L<name>, <word>..." ready for the line
  bool empty = true;   // no fields at all
  std::string ended;   // why the layout ends early; empty when it doesn't
  qv::byte_span binxml;
};

// "{guid} ! $id, V<version>[, #build][, L<label>, 0x8001]" and the fields.
// An empty template still gets its line: the event is known to carry no
// data, and a lone word 0 says so (whatever a payload holds is guessed).
void append_event_line(std::string& text, const std::string& guid, uint16_t id, uint8_t version,
                       uint16_t build, const std::string& label, bool empty, const std::string& tokens) {
  text += "{" + guid + "} ! $" + std::to_string(id) + ", V" + std::to_string(version);
  if (build) text += ", #" + std::to_string(build);
  if (!label.empty()) text += ", L" + label + ", 0x8001";
  if (empty && label.empty()) text += ", 0";
  else text += tokens;
  text += "\n";
}

std::string event_ref(const std::string& guid, const wevt_event& ev) {
  return "provider {" + guid + "} event " + std::to_string(ev.id) + " version " +
         std::to_string(ev.version);
}

}  // namespace

void harvest_blob(qv::byte_span blob, const blob_context& ctx, const harvest_options& opts,
                  harvest_result& res) {
  crim_blob cb;
  std::string reason;
  if (!read_crim(blob, cb, reason)) {
    res.problems.push_back("damaged template blob: " + reason);
    return;
  }
  std::string text;
  size_t provider_lines = 0, template_lines = 0;
  // Damage is told once per damaged part, and a hostile blob can't turn that
  // into a flood: past kMaxNotes the rest is only counted.
  size_t unshown = 0;
  auto note = [&](const std::string& what) {
    if (res.problems.size() >= kMaxNotes) {
      ++unshown;
      return;
    }
    res.problems.push_back(what);
    text += "// skipped: " + clean_comment(what) + "\n";
  };
  for (const std::string& p : cb.problems) note(p);

  // Each TEMP is converted once, however many events share it. The budget
  // bounds the property visits of the whole blob: real tables come nowhere
  // near it, a table of overlapping TEMPs runs out of it.
  std::map<uint32_t, cached_template> cache;
  uint64_t budget = 4 * uint64_t(blob.size) + 100000;
  bool flooded = false;

  for (const wevt_provider& p : cb.providers) {
    std::string guid = guid_text(p.guid);
    std::string name = p.name;
    if (name.empty() && p.message_id != 0xFFFFFFFFu && ctx.message_table.size)
      message_text_of(ctx.message_table, p.message_id, name);
    name = clean_provider_name(name);
    if (!name.empty()) {
      text += "#{" + guid + "} ! " + name + "\n";
      ++provider_lines;
    }

    // The template store keeps the first layout it reads for an identifier,
    // so the newest version of an event goes first.
    std::vector<const wevt_event*> events;
    for (const wevt_event& ev : p.events)
      if (ev.template_offset != 0) events.push_back(&ev);
    std::stable_sort(events.begin(), events.end(), [](const wevt_event* a, const wevt_event* b) {
      return a->id != b->id ? a->id < b->id : a->version > b->version;
    });

    for (const wevt_event* ev : events) {
      if (text.size() + res.text.size() > kMaxOutput) {
        flooded = true;
        break;
      }
      auto it = cache.find(ev->template_offset);
      if (it == cache.end()) {
        cached_template c;
        temp_block t;
        if (!read_temp(blob, ev->template_offset, t, c.reason)) {
          c.ok = false;
        } else if (t.properties.size() > budget) {
          c.reason = "too many template properties for the size of the blob";
          budget = 0;
        } else {
          budget -= t.properties.size();
          manifest_layout l = layout_of(t, budget);
          append_layout_tokens(c.tokens, l.fields);
          c.empty = l.fields.empty();
          if (l.stopped) c.ended = layout_stop_text(l.stop);
          c.binxml = t.binxml;
          c.ok = true;
        }
        it = cache.emplace(ev->template_offset, std::move(c)).first;
      }
      cached_template& c = it->second;
      if (!c.ok) {
        if (c.users++ == 0) c.first_user = event_ref(guid, *ev);
        continue;
      }
      std::string label = clean_field_name(ev->name);
      if (opts.enc) {
        text += "// bxml $" + std::to_string(ev->id) + " v" + std::to_string(ev->version) + ": ";
        append_hex(text, c.binxml.data, c.binxml.size);
        text += "\n";
      }
      append_event_line(text, guid, ev->id, ev->version, ctx.build, label, c.empty, c.tokens);
      if (!c.ended.empty()) ++res.ended_early[c.ended];
      ++template_lines;
    }
    if (flooded) break;
  }
  for (const auto& [offset, c] : cache) {
    if (c.ok || c.users == 0) continue;
    std::string more = c.users > 1 ? " (and " + std::to_string(c.users - 1) + " more events)" : "";
    note(c.first_user + ": " + c.reason + more);
  }
  if (flooded) {
    res.problems.push_back("output limit reached, the rest of the blob is left out");
    text += "// skipped: output limit reached, the rest of the blob is left out\n";
  }
  if (unshown) {
    res.problems.push_back(std::to_string(unshown) + " more problems not shown");
    text += "// skipped: " + std::to_string(unshown) + " more problems not shown\n";
  }

  if (provider_lines + template_lines == 0) {
    res.problems.push_back("the blob names no provider and holds no event template");
    return;
  }
  char head[96];
  std::snprintf(head, sizeof head, ": format %u.%u, %zu providers, %zu templates\n",
                unsigned(cb.major), unsigned(cb.minor), cb.providers.size(), template_lines);
  res.text += "// " + clean_comment(ctx.where) + head;
  res.text += text;
  res.provider_lines += provider_lines;
  res.template_lines += template_lines;
}

void harvest_manifest(qv::byte_span xml, const std::string& where, const harvest_options& opts,
                      harvest_result& res) {
  manifest_doc doc;
  std::string reason;
  if (!read_manifest_xml(xml.data, xml.size, opts.manifest, doc, reason)) {
    res.problems.push_back("unreadable manifest: " + reason);
    return;
  }
  std::string text;
  size_t provider_lines = 0, template_lines = 0;
  for (const std::string& p : doc.problems) {
    if (res.problems.size() < kMaxNotes) res.problems.push_back(p);
    text += "// skipped: " + clean_comment(p) + "\n";
  }
  bool flooded = false;
  for (const manifest_provider& p : doc.providers) {
    std::string guid = guid_text(p.guid);
    std::string name = clean_provider_name(p.name);
    if (!name.empty()) {
      text += "#{" + guid + "} ! " + name + "\n";
      ++provider_lines;
    }
    // Newest version of an identifier first, as for a compiled template.
    std::vector<const manifest_event*> events;
    for (const manifest_event& ev : p.events)
      if (ev.has_template) events.push_back(&ev);
    std::stable_sort(events.begin(), events.end(), [](const manifest_event* a, const manifest_event* b) {
      return a->id != b->id ? a->id < b->id : a->version > b->version;
    });
    std::string tokens;
    for (const manifest_event* ev : events) {
      if (text.size() + res.text.size() > kMaxOutput) {
        flooded = true;
        break;
      }
      tokens.clear();
      append_layout_tokens(tokens, ev->fields);
      append_event_line(text, guid, ev->id, ev->version, 0, clean_field_name(ev->name), ev->fields.empty(),
                        tokens);
      if (ev->stopped) ++res.ended_early[ev->stop_reason];
      ++template_lines;
    }
    if (flooded) break;
  }
  if (flooded) {
    res.problems.push_back("output limit reached, the rest of the manifest is left out");
    text += "// skipped: output limit reached, the rest of the manifest is left out\n";
  }
  if (provider_lines + template_lines == 0) {
    res.problems.push_back("the manifest names no provider and holds no event template");
    return;
  }
  char head[96];
  std::snprintf(head, sizeof head, ": instrumentation manifest, %zu providers, %zu templates\n",
                doc.providers.size(), template_lines);
  res.text += "// " + clean_comment(where) + head;
  res.text += text;
  res.provider_lines += provider_lines;
  res.template_lines += template_lines;
}

bool looks_like_xml(qv::byte_span head) {
  size_t i = 0;
  size_t step = 1;
  if (head.has(0, 3) && head.data[0] == 0xEF && head.data[1] == 0xBB && head.data[2] == 0xBF) {
    i = 3;
  } else if (head.has(0, 2) && ((head.data[0] == 0xFF && head.data[1] == 0xFE) ||
                                (head.data[0] == 0xFE && head.data[1] == 0xFF))) {
    // UTF-16: look at the low byte of each unit.
    i = head.data[0] == 0xFF ? 2 : 3;
    step = 2;
  }
  for (; i < head.size; i += step) {
    uint8_t c = head.data[i];
    if (c == '<') return true;
    if (c != ' ' && c != '\t' && c != '\r' && c != '\n') return false;
  }
  return false;
}

void harvest_input(const input_source& src, const std::string& label, const harvest_options& opts,
                   harvest_result& res) {
  std::vector<uint8_t> magic;
  if (fetch(src, 0, size_t(std::min<uint64_t>(src.size, kXmlSniff)), magic) &&
      looks_like_xml(qv::byte_span(magic.data(), magic.size()))) {
    if (src.size > opts.manifest.limits.max_input) {
      res.problems.push_back("manifest too large");
      return;
    }
    std::vector<uint8_t> xml;
    if (!fetch(src, 0, static_cast<size_t>(src.size), xml)) {
      res.problems.push_back("read error");
      return;
    }
    harvest_manifest(qv::byte_span(xml.data(), xml.size()), label, opts, res);
    return;
  }
  if (!fetch(src, 0, 4, magic)) {
    res.problems.push_back("not a PE file, a template blob or a manifest (too short)");
    return;
  }
  if (std::memcmp(magic.data(), "CRIM", 4) == 0) {
    if (src.size > kMaxBlobSize) {
      res.problems.push_back("template blob too large");
      return;
    }
    std::vector<uint8_t> blob;
    if (!fetch(src, 0, static_cast<size_t>(src.size), blob)) {
      res.problems.push_back("read error");
      return;
    }
    blob_context ctx;
    ctx.where = label;
    harvest_blob(qv::byte_span(blob.data(), blob.size()), ctx, opts, res);
    return;
  }
  if (magic[0] != 'M' || magic[1] != 'Z') {
    res.problems.push_back("not a PE file, a template blob or a manifest");
    return;
  }
  pe_image pe;
  std::string reason;
  if (!read_pe_headers(src, pe, reason)) {
    res.problems.push_back(reason);
    return;
  }
  resource_set rs;
  if (!find_resources(src, pe, rs) || rs.wevt.empty()) {
    res.problems.push_back("no WEVT_TEMPLATE resource");
    return;
  }

  blob_context ctx;
  std::string version_text;
  std::vector<uint8_t> data;
  for (const resource_leaf& leaf : rs.version) {
    uint16_t v[4];
    if (read_leaf(src, pe, leaf, kMaxVersionSize, data) &&
        file_version_of(qv::byte_span(data.data(), data.size()), v)) {
      ctx.build = v[2];
      version_text = ", file version " + std::to_string(v[0]) + "." + std::to_string(v[1]) + "." +
                     std::to_string(v[2]) + "." + std::to_string(v[3]);
      break;
    }
  }
  // Provider names from the message table: US English when the image has it,
  // else the first language.
  std::vector<uint8_t> messages;
  const resource_leaf* pick = nullptr;
  for (const resource_leaf& leaf : rs.messages)
    if (!pick || (leaf.language == 0x409 && pick->language != 0x409)) pick = &leaf;
  if (pick) read_leaf(src, pe, *pick, kMaxMessageTableSize, messages);
  ctx.message_table = qv::byte_span(messages.data(), messages.size());

  std::vector<std::vector<uint8_t>> seen;
  size_t outside = 0;
  for (const resource_leaf& leaf : rs.wevt) {
    std::vector<uint8_t> blob;
    if (!read_leaf(src, pe, leaf, kMaxBlobSize, blob)) {
      ++outside;
      continue;
    }
    // The same blob under several languages is read once.
    if (std::find(seen.begin(), seen.end(), blob) != seen.end()) continue;
    char where[64];
    if (leaf.name.empty()) std::snprintf(where, sizeof where, " %u", unsigned(leaf.name_id));
    else where[0] = 0;
    ctx.where = label + (pe.pe32_plus ? " (PE32+" : " (PE32") + version_text +
                "), WEVT_TEMPLATE" + (leaf.name.empty() ? std::string(where) : " " + leaf.name);
    char lang[32];
    std::snprintf(lang, sizeof lang, " language 0x%04x", unsigned(leaf.language));
    ctx.where += lang;
    harvest_blob(qv::byte_span(blob.data(), blob.size()), ctx, opts, res);
    seen.push_back(std::move(blob));
  }
  if (outside == 1) res.problems.push_back("WEVT_TEMPLATE data lies outside the file");
  if (outside > 1)
    res.problems.push_back(std::to_string(outside) + " WEVT_TEMPLATE resources lie outside the file");
}

bool harvest_file(const std::string& path, const harvest_options& opts, harvest_result& res) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    res.problems.push_back("can't open the file");
    return false;
  }
  struct stat st;
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    ::close(fd);
    res.problems.push_back("not a regular file");
    return false;
  }
  input_source src;
  src.fd = fd;
  src.size = static_cast<uint64_t>(st.st_size);
  harvest_input(src, path, opts, res);
  ::close(fd);
  return true;
}

}  // namespace modsift
