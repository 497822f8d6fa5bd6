#include "support/xml_reader.h"

#include <algorithm>
#include <cstring>

#include "support/qv_string.h"

namespace qv {

namespace {

bool is_space(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }
bool is_name_start(char c) {
  unsigned char u = static_cast<unsigned char>(c);
  return (u >= 'A' && u <= 'Z') || (u >= 'a' && u <= 'z') || u == '_' || u == ':' || u >= 0x80;
}
bool is_name_char(char c) { return is_name_start(c) || (c >= '0' && c <= '9') || c == '-' || c == '.'; }

bool is_xml_char(uint32_t cp) {
  return cp == 0x9 || cp == 0xA || cp == 0xD || (cp >= 0x20 && cp <= 0xD7FF) ||
         (cp >= 0xE000 && cp <= 0xFFFD) || (cp >= 0x10000 && cp <= 0x10FFFF);
}

constexpr uint32_t kReplacement = 0xFFFD;


// UTF-16 of either byte order to UTF-8; an odd last byte is dropped.
void utf16_to_utf8(const uint8_t* p, size_t n, bool big_endian, std::string& out) {
  out.clear();
  out.reserve(n + n / 2);
  size_t units = n / 2;
  auto unit = [&](size_t i) -> uint32_t {
    return big_endian ? uint32_t(p[2 * i]) << 8 | p[2 * i + 1] : uint32_t(p[2 * i + 1]) << 8 | p[2 * i];
  };
  for (size_t i = 0; i < units; ++i) {
    uint32_t u = unit(i);
    if (u >= 0xD800 && u <= 0xDBFF && i + 1 < units) {
      uint32_t lo = unit(i + 1);
      if (lo >= 0xDC00 && lo <= 0xDFFF) {
        append_utf8(out, 0x10000 + ((u - 0xD800) << 10) + (lo - 0xDC00));
        ++i;
        continue;
      }
    }
    append_utf8(out, u);  // a lone surrogate becomes U+FFFD
  }
}

struct parser {
  const char* in;
  size_t n;
  const xml_options& opt;
  xml_document& doc;
  std::string& reason;

  struct open_element {
    uint32_t node;
    uint32_t last_child;
  };
  std::vector<open_element> stack;
  size_t pos = 0;
  bool have_root = false;

  parser(const char* data, size_t size, const xml_options& o, xml_document& d, std::string& r)
      : in(data), n(size), opt(o), doc(d), reason(r) {}

  size_t line_of(size_t at) const {
    if (at > n) at = n;
    return 1 + size_t(std::count(in, in + at, '\n'));
  }

  bool fail(size_t at, const std::string& what) {
    reason = "line " + std::to_string(line_of(at)) + ": " + what;
    return false;
  }

  bool starts(const char* s) const {
    size_t k = std::strlen(s);
    return k <= n - pos && std::memcmp(in + pos, s, k) == 0;
  }

  size_t find(std::string_view what, size_t from) const {
    if (from > n) return std::string_view::npos;
    return std::string_view(in, n).find(what, from);
  }

  std::string_view name_at(const xml_node& e) const { return doc.str(e.name); }

  // Copies characters with references resolved and line ends normalised.
  void decode(const char* p, size_t len, bool attribute) {
    size_t i = 0;
    while (i < len) {
      size_t run = i;
      while (run < len) {
        char c = p[run];
        if (c == '&' || c == '\r' || (attribute && (c == '\n' || c == '\t'))) break;
        ++run;
      }
      doc.pool.append(p + i, run - i);
      i = run;
      if (i >= len) break;
      char c = p[i];
      if (c == '&') {
        i += reference(p + i, len - i);
      } else if (c == '\r') {
        doc.pool.push_back(attribute ? ' ' : '\n');
        i += (i + 1 < len && p[i + 1] == '\n') ? 2 : 1;
      } else {
        doc.pool.push_back(' ');
        ++i;
      }
    }
  }

  // At an "&": appends what the reference stands for and returns the bytes it
  // took. Anything that isn't a reference of the known forms stays as written.
  size_t reference(const char* p, size_t len) {
    if (len >= 2 && p[1] == '#') {
      bool hex = len >= 3 && (p[2] == 'x' || p[2] == 'X');
      size_t i = hex ? 3 : 2;
      uint32_t cp = 0;
      bool too_big = false;
      size_t digits = 0;
      for (; i < len; ++i, ++digits) {
        char c = p[i];
        uint32_t d;
        if (c >= '0' && c <= '9') d = uint32_t(c - '0');
        else if (hex && c >= 'a' && c <= 'f') d = uint32_t(c - 'a' + 10);
        else if (hex && c >= 'A' && c <= 'F') d = uint32_t(c - 'A' + 10);
        else break;
        if (!too_big) cp = cp * (hex ? 16 : 10) + d;
        if (cp > 0x10FFFF) too_big = true;
      }
      if (i < len && p[i] == ';') {
        append_utf8(doc.pool, (digits == 0 || too_big || !is_xml_char(cp)) ? kReplacement : cp);
        return i + 1;
      }
      doc.pool.push_back('&');
      return 1;
    }
    static const struct {
      const char* name;
      char value;
    } named[] = {{"amp;", '&'}, {"lt;", '<'}, {"gt;", '>'}, {"quot;", '"'}, {"apos;", '\''}};
    for (const auto& e : named) {
      size_t k = std::strlen(e.name);
      if (k <= len - 1 && std::memcmp(p + 1, e.name, k) == 0) {
        doc.pool.push_back(e.value);
        return k + 1;
      }
    }
    doc.pool.push_back('&');
    return 1;
  }

  bool add_node(xml_kind kind, size_t at, uint32_t& index) {
    if (doc.nodes.size() >= opt.limits.max_nodes)
      return fail(at, "more than " + std::to_string(opt.limits.max_nodes) + " nodes");
    index = uint32_t(doc.nodes.size());
    xml_node node;
    node.kind = kind;
    node.offset = uint32_t(at);
    if (!stack.empty()) {
      open_element& top = stack.back();
      node.parent = top.node;
      if (top.last_child == kXmlNone) doc.nodes[top.node].first_child = index;
      else doc.nodes[top.last_child].next_sibling = index;
      top.last_child = index;
    }
    doc.nodes.push_back(node);
    return true;
  }

  // Characters up to the next "<".
  bool text_run() {
    size_t start = pos;
    const void* lt = std::memchr(in + pos, '<', n - pos);
    size_t end = lt ? size_t(static_cast<const char*>(lt) - in) : n;
    pos = end;
    bool blank = true;
    for (size_t i = start; i < end && blank; ++i) blank = is_space(in[i]);
    if (stack.empty()) {
      if (!blank) return fail(start, "text outside the root element");
      return true;
    }
    if (blank && !opt.keep_whitespace) return true;
    if (end - start > opt.limits.max_text)
      return fail(start, "a text longer than " + std::to_string(opt.limits.max_text) + " bytes");
    uint32_t index;
    if (!add_node(xml_kind::text, start, index)) return false;
    size_t from = doc.pool.size();
    decode(in + start, end - start, false);
    doc.nodes[index].text = {uint32_t(from), uint32_t(doc.pool.size() - from)};
    return true;
  }

  bool cdata() {
    size_t start = pos;
    if (stack.empty()) return fail(start, "CDATA outside the root element");
    size_t end = find("]]>", pos + 9);
    if (end == std::string_view::npos) return fail(start, "unterminated CDATA section");
    pos = end + 3;
    size_t len = end - (start + 9);
    if (len > opt.limits.max_text)
      return fail(start, "a text longer than " + std::to_string(opt.limits.max_text) + " bytes");
    uint32_t index;
    if (!add_node(xml_kind::text, start, index)) return false;
    size_t from = doc.pool.size();
    // No references inside CDATA; line ends are still normalised.
    const char* p = in + start + 9;
    for (size_t i = 0; i < len; ++i) {
      if (p[i] != '\r') {
        doc.pool.push_back(p[i]);
      } else {
        doc.pool.push_back('\n');
        if (i + 1 < len && p[i + 1] == '\n') ++i;
      }
    }
    doc.nodes[index].text = {uint32_t(from), uint32_t(doc.pool.size() - from)};
    return true;
  }

  bool doctype() {
    size_t start = pos;
    if (have_root || !stack.empty()) return fail(start, "DOCTYPE inside the document");
    size_t i = pos + 9;
    char quote = 0;
    bool subset = false;
    for (; i < n; ++i) {
      char c = in[i];
      if (quote) {
        if (c == quote) quote = 0;
      } else if (c == '"' || c == '\'') {
        quote = c;
      } else if (c == '[' && !subset) {
        subset = true;
      } else if (c == ']' && subset) {
        subset = false;
      } else if (c == '>' && !subset) {
        pos = i + 1;
        return true;
      }
    }
    return fail(start, "unterminated DOCTYPE");
  }

  // Texts for reasons, made only when something fails.
  static std::string tag_text(std::string_view name) {
    std::string t(1, '<');
    t.append(name).push_back('>');
    return t;
  }
  static std::string attribute_text(std::string_view attr, std::string_view element) {
    std::string t = "attribute ";
    t.append(attr).append(" of ").append(tag_text(element));
    return t;
  }

  bool parse_name(size_t& at, size_t& len, size_t tag_start, std::string_view what,
                  std::string_view element = {}) {
    at = pos;
    if (pos >= n || !is_name_start(in[pos])) {
      std::string m(what);
      if (!element.empty()) m.append(" of ").append(tag_text(element));
      return fail(tag_start, m + " without a name");
    }
    while (pos < n && is_name_char(in[pos])) ++pos;
    len = pos - at;
    if (len > opt.limits.max_name)
      return fail(tag_start, "a name longer than " + std::to_string(opt.limits.max_name) + " bytes");
    return true;
  }

  void skip_spaces() {
    while (pos < n && is_space(in[pos])) ++pos;
  }

  bool end_tag() {
    size_t start = pos;
    pos += 2;
    size_t at, len;
    if (!parse_name(at, len, start, "an end tag")) return false;
    std::string_view name(in + at, len);
    skip_spaces();
    if (pos >= n || in[pos] != '>') return fail(start, "malformed end tag </" + std::string(name));
    ++pos;
    if (stack.empty()) return fail(start, "end tag </" + std::string(name) + "> without a start tag");
    const xml_node& open = doc.nodes[stack.back().node];
    if (name_at(open) != name)
      return fail(start, "end tag </" + std::string(name) + "> doesn't match <" +
                             std::string(name_at(open)) + "> of line " +
                             std::to_string(line_of(open.offset)));
    stack.pop_back();
    return true;
  }

  bool skipped_by_name(std::string_view name) const {
    size_t colon = name.rfind(':');
    std::string_view local = colon == std::string_view::npos ? name : name.substr(colon + 1);
    for (std::string_view s : opt.skip)
      if (s == name || s == local) return true;
    return false;
  }

  bool start_tag() {
    size_t start = pos;
    pos += 1;
    size_t at, len;
    if (!parse_name(at, len, start, "'<'")) return false;
    std::string_view name(in + at, len);
    if (stack.empty() && have_root) return fail(start, "a second root element " + tag_text(name));
    uint32_t index;
    if (!add_node(xml_kind::element, start, index)) return false;
    have_root = true;
    {
      xml_node& e = doc.nodes[index];
      e.name = {uint32_t(doc.pool.size()), uint32_t(len)};
      e.first_attribute = uint32_t(doc.attributes.size());
      doc.pool.append(name);
    }
    bool self_closing = false;
    for (;;) {
      size_t before = pos;
      skip_spaces();
      bool spaced = pos > before;
      if (pos >= n) return fail(start, "the input ends inside the start tag " + tag_text(name));
      char c = in[pos];
      if (c == '>') {
        ++pos;
        break;
      }
      if (c == '/') {
        if (pos + 1 < n && in[pos + 1] == '>') {
          pos += 2;
          self_closing = true;
          break;
        }
        return fail(start, "'/' inside the start tag " + tag_text(name));
      }
      if (!spaced) return fail(start, "attributes not separated by blanks in " + tag_text(name));
      size_t a_at, a_len;
      if (!parse_name(a_at, a_len, start, "an attribute", name)) return false;
      std::string_view a_name(in + a_at, a_len);
      auto which = [&] { return attribute_text(a_name, name); };
      skip_spaces();
      if (pos >= n || in[pos] != '=') return fail(start, which() + " has no value");
      ++pos;
      skip_spaces();
      if (pos >= n || (in[pos] != '"' && in[pos] != '\'')) return fail(start, which() + " isn't quoted");
      char quote = in[pos];
      const void* close = std::memchr(in + pos + 1, quote, n - pos - 1);
      if (!close) return fail(start, "unterminated value of " + which());
      size_t v_at = pos + 1;
      size_t v_end = size_t(static_cast<const char*>(close) - in);
      if (std::memchr(in + v_at, '<', v_end - v_at)) return fail(start, "'<' inside the value of " + which());
      if (v_end - v_at > opt.limits.max_text)
        return fail(start, "the value of " + which() + " is longer than " +
                               std::to_string(opt.limits.max_text) + " bytes");
      xml_node& e = doc.nodes[index];
      if (e.attribute_count >= opt.limits.max_attributes)
        return fail(start, "more than " + std::to_string(opt.limits.max_attributes) +
                               " attributes in " + tag_text(name));
      for (uint32_t k = 0; k < e.attribute_count; ++k)
        if (doc.str(doc.attributes[e.first_attribute + k].name) == a_name)
          return fail(start, which() + " is repeated");
      xml_attribute a;
      a.name = {uint32_t(doc.pool.size()), uint32_t(a_len)};
      doc.pool.append(a_name);
      size_t from = doc.pool.size();
      decode(in + v_at, v_end - v_at, true);
      a.value = {uint32_t(from), uint32_t(doc.pool.size() - from)};
      doc.attributes.push_back(a);
      ++e.attribute_count;
      pos = v_end + 1;
    }
    if (self_closing) return true;
    if (skipped_by_name(name)) {
      std::string close = "</" + std::string(name);
      size_t from = pos;
      for (;;) {
        size_t hit = find(close, from);
        if (hit == std::string_view::npos)
          return fail(start, "the input ends inside " + tag_text(name) + ", whose content was passed over");
        size_t j = hit + close.size();
        while (j < n && is_space(in[j])) ++j;
        if (j < n && in[j] == '>') {
          pos = j + 1;
          doc.nodes[index].skipped = true;
          return true;
        }
        from = hit + 1;
      }
    }
    if (stack.size() >= opt.limits.max_depth)
      return fail(start, "elements nested deeper than " + std::to_string(opt.limits.max_depth));
    stack.push_back({index, kXmlNone});
    return true;
  }

  bool run() {
    if (const void* zero = std::memchr(in, 0, n)) return fail(size_t(static_cast<const char*>(zero) - in), "a zero byte");
    while (pos < n) {
      bool ok;
      if (in[pos] != '<') {
        ok = text_run();
      } else if (starts("<!--")) {
        size_t end = find("-->", pos + 4);
        if (end == std::string_view::npos) return fail(pos, "unterminated comment");
        pos = end + 3;
        ok = true;
      } else if (starts("<![CDATA[")) {
        ok = cdata();
      } else if (starts("<!DOCTYPE")) {
        ok = doctype();
      } else if (starts("<?")) {
        size_t end = find("?>", pos + 2);
        if (end == std::string_view::npos) return fail(pos, "unterminated processing instruction");
        pos = end + 2;
        ok = true;
      } else if (starts("</")) {
        ok = end_tag();
      } else if (starts("<!")) {
        ok = fail(pos, "unknown markup \"<!\"");
      } else {
        ok = start_tag();
      }
      if (!ok) return false;
    }
    if (!stack.empty()) {
      const xml_node& open = doc.nodes[stack.back().node];
      return fail(n, "the input ends inside <" + std::string(name_at(open)) + "> of line " +
                         std::to_string(line_of(open.offset)));
    }
    if (!have_root) return fail(n, "no root element");
    return true;
  }
};

}  // namespace

std::string_view xml_document::local_name(uint32_t node) const {
  if (node >= nodes.size()) return {};
  std::string_view name = str(nodes[node].name);
  size_t colon = name.rfind(':');
  return colon == std::string_view::npos ? name : name.substr(colon + 1);
}

bool xml_document::attribute(uint32_t node, std::string_view name, std::string_view& value) const {
  if (node >= nodes.size()) return false;
  const xml_node& e = nodes[node];
  for (uint32_t k = 0; k < e.attribute_count; ++k) {
    const xml_attribute& a = attributes[e.first_attribute + k];
    if (str(a.name) == name) {
      value = str(a.value);
      return true;
    }
  }
  return false;
}

std::string_view xml_document::attribute_or_empty(uint32_t node, std::string_view name) const {
  std::string_view v;
  return attribute(node, name, v) ? v : std::string_view();
}

uint32_t xml_document::child_element(uint32_t parent, std::string_view local) const {
  if (parent >= nodes.size()) return kXmlNone;
  for (uint32_t c = nodes[parent].first_child; c != kXmlNone && c < nodes.size(); c = nodes[c].next_sibling)
    if (nodes[c].kind == xml_kind::element && local_name(c) == local) return c;
  return kXmlNone;
}

uint32_t xml_document::next_element(uint32_t after, std::string_view local) const {
  if (after >= nodes.size()) return kXmlNone;
  for (uint32_t c = nodes[after].next_sibling; c != kXmlNone && c < nodes.size(); c = nodes[c].next_sibling)
    if (nodes[c].kind == xml_kind::element && local_name(c) == local) return c;
  return kXmlNone;
}

std::string xml_document::text_of(uint32_t node) const {
  std::string out;
  if (node >= nodes.size()) return out;
  for (uint32_t c = nodes[node].first_child; c != kXmlNone && c < nodes.size(); c = nodes[c].next_sibling)
    if (nodes[c].kind == xml_kind::text) out += str(nodes[c].text);
  return out;
}

bool parse_xml(const uint8_t* data, size_t size, const xml_options& options, xml_document& out,
               std::string& reason) {
  out = xml_document();
  reason.clear();
  if (size > options.limits.max_input) {
    reason = "input of " + std::to_string(size) + " bytes, more than the " +
             std::to_string(options.limits.max_input) + " read";
    return false;
  }
  if (size == 0 || data == nullptr) {
    reason = "empty input";
    return false;
  }
  const char* text = reinterpret_cast<const char*>(data);
  size_t n = size;
  std::string converted;
  bool le_mark = data[0] == 0xFF && size >= 2 && data[1] == 0xFE;
  bool be_mark = data[0] == 0xFE && size >= 2 && data[1] == 0xFF;
  bool le_bare = data[0] == '<' && size >= 2 && data[1] == 0;
  bool be_bare = data[0] == 0 && size >= 2 && data[1] == '<';
  if (le_mark || be_mark || le_bare || be_bare) {
    size_t mark = (le_mark || be_mark) ? 2 : 0;
    utf16_to_utf8(data + mark, size - mark, be_mark || be_bare, converted);
    text = converted.data();
    n = converted.size();
  } else if (n >= 3 && data[0] == 0xEF && data[1] == 0xBB && data[2] == 0xBF) {
    text += 3;
    n -= 3;
  }
  if (n == 0) {
    reason = "empty input";
    return false;
  }
  // One allocation for the characters, and the nodes sized by the tags.
  out.pool.reserve(n);
  size_t tags = size_t(std::count(text, text + n, '<'));
  out.nodes.reserve(std::min<size_t>(tags / 2 + 1, options.limits.max_nodes));
  parser p(text, n, options, out, reason);
  if (!p.run()) {
    out = xml_document();
    return false;
  }
  return true;
}

}  // namespace qv
