// Fuzz target for payload decoding: arbitrary bytes as a payload walked by
// a template taken from the input, as a TraceLogging schema, and as input to
// the guessing engine and the device formatters. Everything read must stay
// inside the input, which stands for the trace buffer. The decoded fields
// are written as a row's data column and as a JSON line, which must read as
// strict JSON (a hostile provider name and file name included).
//
// With bit 3 of the mode, the rest is a run of manifest events instead: each
// a u16 length, one byte choosing the provider, then the payload. Each is
// read as a manifest event's row and its chunk gathered, complete manifests
// are learned, and every identifier and version the input names is looked
// up and walked over the last payload.
//
// Input layout:
//   byte 0       mode: bit 0 pointers are 64-bit, bits 1-2 what to run,
//                bit 3 manifest events
//   byte 1       n, the number of template words (0 to 31)
//   2n bytes     the words, little-endian
//   byte         where the payload starts within the rest (mod its size)
//   the rest     payload, then bytes of the buffer behind it
#include <cstddef>
#include <cstdint>
#include <string>

#include "decode/decoded_field.h"
#include "decode/device_formatters.h"
#include "decode/guess.h"
#include "decode/manifest_event.h"
#include "decode/payload_decoder.h"
#include "decode/render.h"
#include "decode/tracelogging.h"
#include "fuzz/json_check.h"
#include "report/json_writer.h"
#include "support/byte_reader.h"
#include "templates/template_store.h"
#include "trace/etl_record.h"
#include "trace/event_source_manifests.h"
#include "trace/log_header.h"

namespace {

const char* const kNames[] = {"", "A", "Name", "Pad", "skip", "x"};

// The JSON line of the record that holds the fields: one strict object, one
// line end, nothing else.
void write_json(const etl_record& record, const std::string& trace_keys) {
  thread_local std::string line;
  thread_local json_scratch scratch;
  line.clear();
  append_json_event(line, record, trace_keys, scratch);
  if (!json_check::is_json_lines(line)) __builtin_trap();
}

void render(etl_record& record, const std::string& trace_keys) {
  write_json(record, trace_keys);
  thread_local std::string out;
  out.clear();
  render_fields(out, record.fields);
}

// Manifest events of two providers, one of them known to the store, read
// one after another as the engine reads them.
void manifest_events(const uint8_t* data, size_t size, etl_record& record, const std::string& trace_keys,
                     bool pointers_are_64) {
  template_store store;
  qv::guid16 known{};
  known[0] = 1;
  event_template t;
  t.words = {8};
  t.names = {"Known"};
  build_layout(t);
  store.templates.push_back(t);
  store.by_digest[t.digest] = 0;
  store.providers[known].events[1][0] = t.digest;
  qv::guid16 unknown{};
  unknown[0] = 2;  // {00000002-0000-0000-0000-000000000000}
  const qv::guid16 providers[2] = {known, unknown};
  event_source_manifests gathered;
  gathered.keep_text = true;
  size_t pos = 0;
  const uint8_t* last = data;
  uint32_t last_size = 0;
  while (size - pos >= 3) {
    const size_t length = qv::rd_u16(data, size, pos);
    const qv::guid16& provider = providers[data[pos + 2] & 1];
    pos += 3;
    const uint32_t n = uint32_t(length < size - pos ? length : size - pos);
    const uint8_t* payload = data + pos;
    pos += n;
    manifest_envelope envelope;
    if (!read_manifest_envelope(payload, n, envelope)) continue;
    take_manifest_chunk(gathered, store, provider, envelope, pos);
    bool guessed = false;
    record.fields.clear();
    decode_manifest_event(record.fields, 0x10000, payload, n, guessed);
    render(record, trace_keys);
    last = payload;
    last_size = n;
  }
  for (const qv::guid16& provider : providers) {
    for (uint32_t id = 0; id < 4; ++id) {
      for (int version = -1; version < 3; ++version) {
        const event_template* found = find_event_template(store, provider, uint16_t(id), version);
        if (!found) continue;
        record.fields.clear();
        walk_template(*found, record.fields, last, last_size, last + last_size, 0x10000, pointers_are_64);
        render(record, trace_keys);
      }
    }
  }
  forget_learned(store);
  if (find_event_template(store, providers[1], 1, 0)) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) return 0;
  const uint8_t mode = data[0];
  const bool pointers_are_64 = mode & 1;
  const uint32_t count = data[1] & 31;
  size_t pos = 2;
  if (size - pos < size_t{count} * 2 + 1) return 0;

  event_template tmpl;
  for (uint32_t i = 0; i < count; ++i) {
    tmpl.words.push_back(qv::rd_u16(data, size, pos));
    tmpl.names.push_back(kNames[data[pos] % (sizeof kNames / sizeof kNames[0])]);
    pos += 2;
  }
  const uint8_t split = data[pos++];
  const uint8_t* rest = data + pos;
  const size_t rest_size = size - pos;
  const uint8_t* end = data + size;
  // The payload may stop short of the buffer's end, so that fixed-width
  // reads run on into the bytes behind it.
  const size_t payload_size = rest_size == 0 ? 0 : rest_size - (split % (rest_size + 1));

  // The record around the fields, its texts taken from the input too.
  etl_record record;
  decoded_fields& fields = record.fields;
  const uint64_t base = 0x10000;
  const size_t text_size = rest_size < 24 ? rest_size : 24;
  record.provider_name.assign(reinterpret_cast<const char*>(rest), text_size);
  record.kind = split % 11;
  record.valid = record.kind != 0 && record.kind != 9;
  record.flags_or_version = split & 1;
  record.file_offset = base - 80;
  record.absolute_time = qv::rd_u64(rest, rest_size, 0);
  record.raw_time = qv::rd_u64(rest, rest_size, 8);
  log_header header;
  header.LoggerName.assign(reinterpret_cast<const char*>(rest), text_size / 2);
  header.LogFileName.assign(reinterpret_cast<const char*>(rest) + text_size / 2, text_size - text_size / 2);
  header.StartTime = record.raw_time;
  const std::string file_name(reinterpret_cast<const char*>(data), pos);
  file_opening file;
  file.file_name = &file_name;
  file.header = &header;
  std::string trace_keys;
  compose_trace_keys(trace_keys, file);
  if (mode & 8) {
    manifest_events(rest, rest_size, record, trace_keys, pointers_are_64);
    return 0;
  }
  switch ((mode >> 1) & 3) {
    case 0: {
      walk_template(tmpl, fields, rest, uint32_t(payload_size), end, base, pointers_are_64);
      render(record, trace_keys);
      template_store store;
      qv::guid16 guid{};
      tmpl.digest = template_digest{{1}};
      store.templates.push_back(tmpl);
      store.by_digest[tmpl.digest] = 0;
      store.providers[guid].events[1][0] = tmpl.digest;
      bool guessed = false;
      decode_payload(fields, base, &guid, 1, -1, rest, uint32_t(payload_size), end, &store,
                     pointers_are_64, false, guessed);
      render(record, trace_keys);
      break;
    }
    case 1: {
      event_template schema;
      if (parse_tracelogging_schema(rest, uint32_t(rest_size), schema)) {
        const size_t used = qv::rd_u16(rest, rest_size, 0);
        const size_t behind = used < rest_size ? used : rest_size;
        walk_template(schema, fields, rest + behind, uint32_t(rest_size - behind), end, base,
                      pointers_are_64);
        render(record, trace_keys);
      }
      break;
    }
    case 2:
      guess_payload(fields, base, rest, uint32_t(payload_size), false);
      render(record, trace_keys);
      break;
    default: {
      const uint16_t code = uint16_t(0x8006 + (split % 18));
      if (rest_size == 0) break;
      if (run_device_formatter(code, fields, rest, int32_t(payload_size), end, base,
                               pointers_are_64) < 0) {
        format_sqm_payload(fields, rest, int32_t(payload_size), end, base);
        format_usb_iso_packets(fields, rest, int32_t(payload_size), end, base, split);
      }
      render(record, trace_keys);
      break;
    }
  }
  return 0;
}
