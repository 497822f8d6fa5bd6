// Fuzz target for the XML reader and the manifest reader: arbitrary bytes as
// an XML document (with and without subtrees passed over) and as an
// instrumentation manifest, read both as authored and as recreated. Nothing
// may crash or hang, a refusal must say why, and what is read must hold
// together: every node link and text span inside the document, every stopped
// layout ending with word 0.
#include <cstddef>
#include <cstdint>
#include <string>

#include "support/xml_reader.h"
#include "templates/manifest_layout.h"
#include "templates/manifest_xml.h"

namespace {

void check_document(const qv::xml_document& doc) {
  const size_t nodes = doc.nodes.size(), pool = doc.pool.size();
  auto in_pool = [&](qv::xml_span s) { return s.offset <= pool && s.size <= pool - s.offset; };
  for (const qv::xml_node& n : doc.nodes) {
    if (n.parent != qv::kXmlNone && n.parent >= nodes) __builtin_trap();
    if (n.first_child != qv::kXmlNone && n.first_child >= nodes) __builtin_trap();
    if (n.next_sibling != qv::kXmlNone && n.next_sibling >= nodes) __builtin_trap();
    if (n.first_attribute > doc.attributes.size() ||
        n.attribute_count > doc.attributes.size() - n.first_attribute)
      __builtin_trap();
    if (!in_pool(n.name) || !in_pool(n.text)) __builtin_trap();
  }
  for (const qv::xml_attribute& a : doc.attributes)
    if (!in_pool(a.name) || !in_pool(a.value)) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string reason;
  qv::xml_options xo;
  xo.keep_whitespace = size > 0 && (data[0] & 1);
  qv::xml_document doc;
  if (qv::parse_xml(data, size, xo, doc, reason)) check_document(doc);
  else if (reason.empty()) __builtin_trap();
  xo.skip = {"maps", "b", "x:c"};
  if (qv::parse_xml(data, size, xo, doc, reason)) check_document(doc);
  else if (reason.empty()) __builtin_trap();

  for (recreated_form form : {recreated_form::when_marked, recreated_form::yes}) {
    manifest_read_options mo;
    mo.recreated = form;
    manifest_doc md;
    if (!read_manifest_xml(data, size, mo, md, reason)) {
      if (reason.empty() || !md.providers.empty()) __builtin_trap();
      continue;
    }
    if (md.problems.size() > max_manifest_problems + 1) __builtin_trap();
    std::string line;
    for (const manifest_provider& p : md.providers)
      for (const manifest_event& e : p.events) {
        if (e.stopped && (e.fields.empty() || e.fields.back().word != 0 || e.stop_reason.empty()))
          __builtin_trap();
        line.clear();
        append_layout_tokens(line, e.fields);
      }
  }
  return 0;
}
