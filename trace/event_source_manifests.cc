#include "trace/event_source_manifests.h"

#include <new>

#include "support/qv_string.h"
#include "templates/manifest_text.h"
#include "templates/manifest_xml.h"
#include "templates/template_text.h"

long learn_manifest(template_store& store, const qv::guid16& provider, const uint8_t* xml, size_t size,
                    std::string* text) {
  manifest_doc doc;
  std::string reason;
  manifest_read_options options;
  if (!read_manifest_xml(xml, size, options, doc, reason)) return -1;
  const manifest_provider* own = nullptr;
  for (const manifest_provider& p : doc.providers) {
    if (p.guid == provider) {
      own = &p;
      break;
    }
  }
  if (!own) return -1;
  // The layouts go through their template text, so that they are learned
  // exactly as -templates would read the text back.
  std::string lines;
  append_provider_template_text(*own, lines);
  if (!own->name.empty()) learn_provider_name(store, provider, own->name);
  long learned = 0;
  size_t at = 0;
  template_record record;
  while (at < lines.size()) {
    size_t eol = lines.find('\n', at);
    if (eol == std::string::npos) eol = lines.size();
    const std::string line = lines.substr(at, eol - at);
    at = eol + 1;
    if (line.empty() || line[0] == '#') continue;
    if (!parse_template_line(record, line) || record.guid != provider) continue;
    // The manifest event itself keeps its envelope, whatever a manifest says.
    if (record.range_hi == 0 && record.ids.size() == 1 && record.ids[0] == manifest_event_id) continue;
    learned += static_cast<long>(learn_template_record(store, provider, record));
  }
  if (text) *text += lines;
  return learned;
}

manifest_chunk take_manifest_chunk(event_source_manifests& m, template_store& store, const qv::guid16& provider,
                                   const manifest_envelope& envelope, uint64_t file_offset) {
  ++m.counts.chunks;
  auto refuse = [&m] {
    ++m.counts.refused;
    return manifest_chunk::refused;
  };
  if (envelope.format != manifest_format_xml || envelope.total_chunks == 0 ||
      envelope.total_chunks > max_manifest_chunks || envelope.chunk_number >= envelope.total_chunks ||
      envelope.chunk_size > max_manifest_bytes)
    return refuse();

  try {
    auto found = m.in_flight.find(provider);
    if (envelope.chunk_number == 0) {
      if (found == m.in_flight.end()) {
        if (m.in_flight.size() >= max_manifests_in_flight) return refuse();
        found = m.in_flight.emplace(provider, manifest_gathering()).first;
      }
      found->second.total_chunks = envelope.total_chunks;
      found->second.next_chunk = 0;
      found->second.first_offset = file_offset;
      found->second.bytes.clear();
    } else if (found == m.in_flight.end() || found->second.total_chunks != envelope.total_chunks ||
               found->second.next_chunk != envelope.chunk_number) {
      return refuse();
    }
    manifest_gathering& g = found->second;
    if (g.bytes.size() + envelope.chunk_size > max_manifest_bytes) {
      m.in_flight.erase(found);
      return refuse();
    }
    g.bytes.insert(g.bytes.end(), envelope.chunk, envelope.chunk + envelope.chunk_size);
    ++g.next_chunk;
    if (g.next_chunk < g.total_chunks) return manifest_chunk::gathered;

    // Complete.
    std::vector<uint8_t> xml = std::move(g.bytes);
    const uint64_t first_offset = g.first_offset;
    m.in_flight.erase(found);
    const template_digest digest =
        digest_of(std::string(reinterpret_cast<const char*>(xml.data()), xml.size()));
    auto last = m.last_read.find(provider);
    if (last != m.last_read.end() && last->second == digest) {
      ++m.counts.repeated;
      return manifest_chunk::repeated;
    }
    if (m.counts.read + m.counts.unreadable >= max_manifests_read) return refuse();
    m.last_read[provider] = digest;
    std::string text;
    const long learned = learn_manifest(store, provider, xml.data(), xml.size(), m.keep_text ? &text : nullptr);
    if (learned < 0) {
      ++m.counts.unreadable;
      return manifest_chunk::unreadable;
    }
    ++m.counts.read;
    m.counts.layouts += static_cast<size_t>(learned);
    if (m.keep_text) {
      m.text += "// manifest of {" + manifest_guid_text(provider) + "} at offset " + std::to_string(first_offset) +
                "\n";
      m.text += text;
    }
    return manifest_chunk::learned;
  } catch (const std::bad_alloc&) {
    m.in_flight.erase(provider);
    return refuse();
  }
}
