// A small XML reader for instrumentation manifests and other modest documents
// from untrusted sources: whole input in, a flat tree of nodes out.
//
// What it reads: elements, attributes in single or double quotes, character
// data, CDATA sections (as text), comments, processing instructions and the
// XML declaration (passed over), a DOCTYPE (passed over, internal subset
// included; its entity declarations are not used). References: the five
// named entities and numeric character references; a numeric reference to
// no valid character (0, a surrogate, a control character other than tab,
// line feed and carriage return, beyond U+10FFFF, no digits) becomes U+FFFD.
// An "&" that doesn't begin a reference it knows is kept as it stands, and so
// is an unknown named entity: documents written by hand rarely get those
// right, and nothing here depends on them.
//
// Encoding: UTF-8, with or without its byte order mark. UTF-16 input (a
// UTF-16 byte order mark, or a first character "<" followed or preceded by a
// zero byte) is converted to UTF-8 first; unpaired surrogates become U+FFFD.
// The declaration's encoding name is not consulted. Bytes of UTF-8 text are
// not validated; a zero byte is malformed.
//
// Normalisation as XML asks for it: line ends in text become LF; tab, LF and
// CR in an attribute value become blanks.
//
// The result is one pool of decoded characters and flat vectors of nodes and
// attributes that refer to it by offset and length: a few allocations per
// document, whatever its size. Nodes are elements and text runs, in document
// order; node 0 is the root element. Text that is only white space is dropped
// unless asked for.
//
// Elements can be passed over by name: the reader then looks only for the end
// tag of that name ("</name" and ">", blanks allowed before the ">") and keeps
// nothing in between, so a subtree whose insides are not well-formed (quotes
// or "<" inside attribute values, say) doesn't make the document unreadable.
// Nested elements of the same name are not looked for: the first such end
// tag closes it.
//
// Hostile input: the input size, the nesting depth, the attributes of one
// element, the node count, the length of a name and of one text run or
// attribute value are checked against the limits below. Every construct is
// found by a forward scan, so the work is linear in the input, and the
// nesting is kept on an explicit stack, never by recursion. Malformed input
// gives false and a reason with its line number; nothing is kept then.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qv {

// Default limits. A recreated manifest of the largest Windows provider is
// under 1 MiB with about 6,500 elements, nested 8 deep.
inline constexpr size_t kXmlMaxInput = size_t(32) << 20;
inline constexpr uint32_t kXmlMaxDepth = 256;
inline constexpr uint32_t kXmlMaxAttributes = 256;  // of one element
inline constexpr uint32_t kXmlMaxNodes = uint32_t(1) << 20;
inline constexpr uint32_t kXmlMaxName = 1024;                // bytes
inline constexpr uint32_t kXmlMaxText = uint32_t(16) << 20;  // bytes of one text run or value

struct xml_limits {
  size_t max_input = kXmlMaxInput;
  uint32_t max_depth = kXmlMaxDepth;
  uint32_t max_attributes = kXmlMaxAttributes;
  uint32_t max_nodes = kXmlMaxNodes;
  uint32_t max_name = kXmlMaxName;
  uint32_t max_text = kXmlMaxText;
};

struct xml_options {
  xml_limits limits;
  // Elements whose content is passed over unread, by full name ("maps") or
  // by the part after a prefix ("evt:maps" matches "maps").
  std::vector<std::string_view> skip;
  // Keep text runs that are only blanks, tabs and line ends.
  bool keep_whitespace = false;
};

// A run of characters in the document's pool.
struct xml_span {
  uint32_t offset = 0;
  uint32_t size = 0;
};

inline constexpr uint32_t kXmlNone = 0xFFFFFFFFu;

enum class xml_kind : uint8_t {
  element,
  text,  // character data and CDATA
};

struct xml_node {
  xml_kind kind = xml_kind::element;
  bool skipped = false;           // an element passed over by name: no children
  uint32_t parent = kXmlNone;     // kXmlNone for the root element
  uint32_t first_child = kXmlNone;
  uint32_t next_sibling = kXmlNone;
  uint32_t first_attribute = 0;   // index into attributes
  uint32_t attribute_count = 0;
  xml_span name;                  // element: its name as written, prefix included
  xml_span text;                  // text: its decoded characters
  uint32_t offset = 0;            // where the node starts in the (UTF-8) input
};

struct xml_attribute {
  xml_span name;
  xml_span value;  // decoded
};

struct xml_document {
  std::string pool;
  std::vector<xml_node> nodes;
  std::vector<xml_attribute> attributes;

  std::string_view str(xml_span s) const { return std::string_view(pool).substr(s.offset, s.size); }
  // The element's name without a prefix ("win:Foo" gives "Foo").
  std::string_view local_name(uint32_t node) const;
  // The value of the attribute of that exact name, and whether it is there.
  bool attribute(uint32_t node, std::string_view name, std::string_view& value) const;
  // The value, or empty text when the attribute is absent.
  std::string_view attribute_or_empty(uint32_t node, std::string_view name) const;
  // The first child element with this local name at or after `child`
  // (kXmlNone to start from the first child of `parent`), or kXmlNone.
  uint32_t child_element(uint32_t parent, std::string_view local) const;
  uint32_t next_element(uint32_t after, std::string_view local) const;
  // The element's text children joined.
  std::string text_of(uint32_t node) const;
};

// Reads `size` bytes at `data`. On failure `out` is left empty and `reason`
// says what was wrong and on which line.
bool parse_xml(const uint8_t* data, size_t size, const xml_options& options, xml_document& out,
               std::string& reason);

}  // namespace qv
