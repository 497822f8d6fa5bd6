// Fuzz target for the template readers: arbitrary bytes as an embedded block
// and as template text. A block is read both ways the program can read it,
// unpacked and linked at once or indexed with each provider linked on first
// use, and the two stores must answer alike; text is read, written as a block
// and read back, and every lookup runs on the result.
//
// The readers report a damaged record on stderr: run with -close_fd_mask=2.
//
// Input layout:
//   byte 0    mode: bit 0 text (else block); bits 1-7 the trace build's choice
//   the rest  the block, or the text
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "support/qv_string.h"
#include "templates/block_writer.h"
#include "templates/template_block.h"
#include "templates/template_store.h"
#include "templates/template_text.h"

namespace {

const uint32_t kBuilds[] = {0, 9200, 9600, 14393, 20000, 70000};

// The identifiers that `store` holds layouts for, by provider; of a wide
// range only every so many, to keep a run short.
std::vector<std::pair<qv::guid16, uint16_t>> keys_of(const template_store& store) {
  constexpr size_t kMostKeys = 512;
  std::vector<std::pair<qv::guid16, uint16_t>> keys;
  for (const auto& [guid, entry] : store.providers) {
    for (const auto& e : entry.events) keys.emplace_back(guid, e.first);
    for (const auto& e : entry.versioned) keys.emplace_back(guid, e.first);
  }
  if (keys.size() > kMostKeys) {
    const size_t step = keys.size() / kMostKeys + 1;
    size_t kept = 0;
    for (size_t i = 0; i < keys.size(); i += step) keys[kept++] = keys[i];
    keys.resize(kept);
  }
  return keys;
}

// Looks every key up in `store` (and in `other`, when given, which must give
// the same layout) under `build`.
void look_up(const std::vector<std::pair<qv::guid16, uint16_t>>& keys, uint32_t build,
             template_store& store, template_store* other = nullptr) {
  set_trace_build(store, build);
  if (other) set_trace_build(*other, build);
  for (const auto& [guid, id] : keys) {
    for (int version : {-1, 0, 1, 2, 255}) {
      const event_template* t = find_event_template(store, guid, id, version);
      if (t && t->names.size() != t->words.size()) __builtin_trap();
      if (!other) continue;
      const event_template* u = find_event_template(*other, guid, id, version);
      if ((t == nullptr) != (u == nullptr) || (t && t->layout_text != u->layout_text)) __builtin_trap();
    }
  }
}

// The two readings of one block must hold the same providers, names,
// identifiers, versions, builds and layouts.
void compare(template_store& eager, template_store& lazy) {
  unpack_all_providers(lazy);
  if (eager.providers.size() != lazy.providers.size()) __builtin_trap();
  for (auto a = eager.providers.begin(), b = lazy.providers.begin(); a != eager.providers.end(); ++a, ++b) {
    if (a->first != b->first || a->second.name != b->second.name || a->second.events != b->second.events ||
        a->second.versioned != b->second.versioned || !b->second.pending.empty())
      __builtin_trap();
  }
  if (eager.by_digest.size() != lazy.by_digest.size()) __builtin_trap();
  for (const auto& [digest, index] : eager.by_digest) {
    auto other = lazy.by_digest.find(digest);
    if (other == lazy.by_digest.end() ||
        eager.templates.at(index).layout_text != lazy.templates.at(other->second).layout_text)
      __builtin_trap();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const uint8_t mode = data[0];
  const uint32_t build = kBuilds[(mode >> 1) % (sizeof kBuilds / sizeof kBuilds[0])];
  std::vector<uint8_t> rest(data + 1, data + size);

  if (mode & 1) {
    template_source text;
    reset(text);
    std::vector<std::string> lines;
    qv::split_lines(rest, lines);
    add_template_lines(text, lines);
    template_store direct;
    link_templates(text, direct, false);
    look_up(keys_of(direct), build, direct);
    std::vector<uint8_t> block;
    std::string error;
    if (write_template_block(text, block, error)) {
      template_source parsed;
      if (!parse_template_block(parsed, block) && block.size() >= 36) __builtin_trap();
      template_store via_block;
      link_templates(parsed, via_block, false);
      look_up(keys_of(via_block), build, via_block);
    }
    return 0;
  }

  template_store eager;
  template_source source;
  const bool parsed = parse_template_block(source, rest);
  if (parsed) link_templates(source, eager, true);
  template_store lazy;
  std::vector<uint8_t> copy = rest;
  if (index_template_block(lazy, std::move(copy)) != parsed) __builtin_trap();
  // The lazy store links each provider on its first lookup.
  look_up(keys_of(eager), build, eager, &lazy);
  compare(eager, lazy);
  return 0;
}
