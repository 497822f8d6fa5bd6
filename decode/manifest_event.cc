#include "decode/manifest_event.h"

#include "decode/guess.h"
#include "decode/payload_decoder.h"
#include "support/byte_reader.h"

namespace {

// The envelope and the text, as template words: four 8-bit values, two
// 16-bit values, then text up to a zero byte or the payload's end.
const event_template& envelope_template() {
  static const event_template t = [] {
    event_template e;
    e.words = {4, 4, 4, 4, 6, 6, 2};
    e.names = {"Format", "MajorVersion", "MinorVersion", "Magic", "TotalChunks", "ChunkNumber", "ManifestText"};
    build_layout(e);
    return e;
  }();
  return t;
}

}  // namespace

bool read_manifest_envelope(const uint8_t* payload, uint32_t size, manifest_envelope& out) {
  if (!payload || size < manifest_envelope_size) return false;
  out.format = qv::rd_u8(payload, size, 0);
  out.major_version = qv::rd_u8(payload, size, 1);
  out.minor_version = qv::rd_u8(payload, size, 2);
  out.magic = qv::rd_u8(payload, size, 3);
  out.total_chunks = qv::rd_u16(payload, size, 4);
  out.chunk_number = qv::rd_u16(payload, size, 6);
  out.chunk = payload + manifest_envelope_size;
  out.chunk_size = size - manifest_envelope_size;
  return out.magic == manifest_magic;
}

void decode_manifest_event(decoded_fields& fields, uint64_t base, const uint8_t* payload, uint32_t size,
                           bool& guessed) {
  guessed = false;
  if (!payload || size == 0) return;
  // The payload's own end bounds every read: nothing past it is shown.
  int64_t consumed = walk_template(envelope_template(), fields, payload, size, payload + size, base, false);
  if (consumed < 0) consumed = 0;
  const int64_t rest = int64_t{size} - consumed;
  if (rest > 3) {
    guess_payload(fields, base + static_cast<uint64_t>(consumed), payload + consumed, static_cast<uint32_t>(rest),
                  true);
    guessed = true;
  }
}
