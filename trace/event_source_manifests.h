// Event-source manifests carried in the trace: the chunks of manifest events
// (decode/manifest_event.h) joined per provider, a complete manifest read
// with the instrumentation manifest reader, and its layouts learned by the
// template store for the rest of the file (template_store.h: they fill only
// the keys the store's own sources leave empty).
//
// Chunks are taken in the order they are written: chunk 0 starts a manifest
// (dropping an unfinished one of the same provider), chunk n follows chunk
// n - 1 of the same count, and the last completes it. Anything else (a
// count of 0 or beyond max_manifest_chunks, a number beyond the count, a
// chunk out of order, a count that changes mid-way, a format other than
// XML) is refused and leaves what was gathered as it stands. A manifest that
// grows beyond max_manifest_bytes is dropped. A complete manifest is read
// only for the provider whose event carried it: a <provider> of another GUID
// in it teaches nothing. A manifest equal to the last one read for the
// provider (the rundown repeats it) isn't read again. A layout it declares
// for event 65534 itself isn't learned: that event keeps its envelope.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "decode/manifest_event.h"
#include "support/guid.h"
#include "templates/template_store.h"


// Most chunks a manifest may be cut into.
constexpr uint16_t max_manifest_chunks = 64;
// Most bytes of one manifest, all chunks together.
constexpr size_t max_manifest_bytes = size_t(4) << 20;
// Most providers whose manifest is being gathered at one time.
constexpr size_t max_manifests_in_flight = 16;
// Most complete manifests read in one file.
constexpr size_t max_manifests_read = 256;

// What a chunk did.
enum class manifest_chunk : uint8_t {
  gathered,    // taken; the manifest isn't complete yet
  learned,     // completed a manifest that was read (layouts may have been learned)
  repeated,    // completed a manifest equal to the provider's last one
  unreadable,  // completed a manifest the reader refused, or that names no such provider
  refused,     // not taken (see above)
};

struct manifest_gathering {
  uint16_t total_chunks = 0;
  uint16_t next_chunk = 0;
  uint64_t first_offset = 0;  // file offset of the record of chunk 0
  std::vector<uint8_t> bytes;
};

struct manifest_counts {
  size_t chunks = 0;        // manifest events seen
  size_t refused = 0;       // chunks refused
  size_t read = 0;          // complete manifests read
  size_t repeated = 0;      // complete manifests equal to the last one
  size_t unreadable = 0;    // complete manifests that taught nothing
  size_t layouts = 0;       // (identifier, version) keys learned
};

struct event_source_manifests {
  std::map<qv::guid16, manifest_gathering> in_flight;
  std::map<qv::guid16, template_digest> last_read;  // digest of the last manifest read per provider
  manifest_counts counts;
  // Template text of every manifest read, for -manifests; kept only when asked.
  bool keep_text = false;
  std::string text;
};

// Takes one manifest event's chunk for `provider`; `file_offset` is the
// record's (that of chunk 0 goes into the comment above the manifest's text).
manifest_chunk take_manifest_chunk(event_source_manifests& m, template_store& store, const qv::guid16& provider,
                                   const manifest_envelope& envelope, uint64_t file_offset);

// Reads a complete manifest for `provider` and lets the store learn its
// layouts; appends its template text to `text` when not null. Returns how
// many keys were learned; -1 when the manifest can't be read or holds no
// provider of that GUID.
long learn_manifest(template_store& store, const qv::guid16& provider, const uint8_t* xml, size_t size,
                    std::string* text);

