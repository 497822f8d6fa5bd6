#include "templates/manifest_text.h"

#include <algorithm>
#include <cstdio>
#include <vector>

#include "support/byte_reader.h"
#include "templates/manifest_layout.h"

namespace {

// A provider name as a provider line takes it: the characters that end the
// name (",", "!", "|", ";") and control characters become "_", blanks at
// both ends are dropped.
std::string provider_line_name(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    const unsigned char u = static_cast<unsigned char>(c);
    const bool bad = u < 0x20 || u == 0x7F || c == ',' || c == '!' || c == '|' || c == ';';
    out.push_back(bad ? '_' : c);
  }
  const size_t a = out.find_first_not_of(' ');
  if (a == std::string::npos) return std::string();
  const size_t b = out.find_last_not_of(' ');
  return out.substr(a, b - a + 1);
}

}  // namespace

std::string manifest_guid_text(const qv::guid16& g) {
  char buf[40];
  std::snprintf(buf, sizeof buf, "%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x",
                static_cast<unsigned>(qv::rd_u32(g.data(), 16, 0)), static_cast<unsigned>(qv::rd_u16(g.data(), 16, 4)),
                static_cast<unsigned>(qv::rd_u16(g.data(), 16, 6)), g[8], g[9], g[10], g[11], g[12], g[13], g[14],
                g[15]);
  return buf;
}

size_t append_provider_template_text(const manifest_provider& provider, std::string& out) {
  const std::string guid = manifest_guid_text(provider.guid);
  const std::string name = provider_line_name(provider.name);
  if (!name.empty()) out += "#{" + guid + "} ! " + name + "\n";
  std::vector<const manifest_event*> events;
  for (const manifest_event& ev : provider.events)
    if (ev.has_template) events.push_back(&ev);
  std::stable_sort(events.begin(), events.end(), [](const manifest_event* a, const manifest_event* b) {
    return a->id != b->id ? a->id < b->id : a->version > b->version;
  });
  std::string tokens;
  for (const manifest_event* ev : events) {
    const std::string label = layout_name(ev->name);
    out += "{" + guid + "} ! $" + std::to_string(ev->id) + ", V" + std::to_string(ev->version);
    if (!label.empty()) out += ", L" + label + ", 0x8001";
    if (ev->fields.empty() && label.empty()) {
      out += ", 0";
    } else {
      tokens.clear();
      append_layout_tokens(tokens, ev->fields);
      out += tokens;
    }
    out += "\n";
  }
  return events.size();
}
