#include "support/xml_reader.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using qv::kXmlNone;
using qv::parse_xml;
using qv::xml_document;
using qv::xml_kind;
using qv::xml_options;

bool parse(const std::string& text, xml_document& doc, std::string& reason,
           const xml_options& opt = xml_options()) {
  return parse_xml(reinterpret_cast<const uint8_t*>(text.data()), text.size(), opt, doc, reason);
}

std::string text_of(const xml_document& doc, const std::string& name) {
  for (uint32_t i = 0; i < doc.nodes.size(); ++i)
    if (doc.nodes[i].kind == xml_kind::element && doc.str(doc.nodes[i].name) == name) return doc.text_of(i);
  return "(no element)";
}

const char kManifest[] =
    "\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE m [ <!ENTITY x \"]>\"> ]>\n"
    "<!-- a comment with <tags> -->\n"
    "<instrumentationManifest xmlns=\"http://schemas.microsoft.com/win/2004/08/events\">\n"
    " <instrumentation>\n"
    "  <events>\n"
    "   <provider name='P&amp;Q' guid=\"{01234567-89AB-CDEF-0123-456789ABCDEF}\">\n"
    "    <events><event value=\"1\" template=\"T\"/><event value=\"2\"/></events>\n"
    "    <templates>\n"
    "     <template tid=\"T\"><data name=\"A\" inType=\"win:UInt32\"/><?pi x?>"
    "<evt:data name=\"B\" inType=\"win:UnicodeString\"/></template>\n"
    "    </templates>\n"
    "    <note>a &lt;b&gt; <![CDATA[<raw & text>]]> c</note>\n"
    "   </provider>\n"
    "  </events>\n"
    " </instrumentation>\n"
    "</instrumentationManifest>\n"
    "<!-- trailing comment -->\n";

TEST(XmlReader, TreeOfAManifest) {
  xml_document doc;
  std::string reason;
  ASSERT_TRUE(parse(kManifest, doc, reason)) << reason;
  ASSERT_FALSE(doc.nodes.empty());
  EXPECT_EQ(doc.local_name(0), "instrumentationManifest");
  EXPECT_EQ(doc.nodes[0].parent, kXmlNone);
  uint32_t inst = doc.child_element(0, "instrumentation");
  uint32_t events = doc.child_element(inst, "events");
  uint32_t provider = doc.child_element(events, "provider");
  ASSERT_NE(provider, kXmlNone);
  EXPECT_EQ(doc.attribute_or_empty(provider, "name"), "P&Q");
  EXPECT_EQ(doc.attribute_or_empty(provider, "guid"), "{01234567-89AB-CDEF-0123-456789ABCDEF}");
  std::string_view v;
  EXPECT_FALSE(doc.attribute(provider, "symbol", v));
  // Siblings in order; whitespace between elements makes no nodes.
  uint32_t pev = doc.child_element(provider, "events");
  uint32_t first = doc.child_element(pev, "event");
  uint32_t second = doc.next_element(first, "event");
  ASSERT_NE(second, kXmlNone);
  EXPECT_EQ(doc.attribute_or_empty(first, "value"), "1");
  EXPECT_EQ(doc.attribute_or_empty(second, "value"), "2");
  EXPECT_EQ(doc.next_element(second, "event"), kXmlNone);
  EXPECT_EQ(doc.nodes[second].parent, pev);
  // A prefixed name keeps its prefix, and is found by its local part.
  uint32_t tmpl = doc.child_element(doc.child_element(provider, "templates"), "template");
  uint32_t a = doc.child_element(tmpl, "data");
  uint32_t b = doc.next_element(a, "data");
  ASSERT_NE(b, kXmlNone);
  EXPECT_EQ(doc.str(doc.nodes[b].name), "evt:data");
  EXPECT_EQ(doc.attribute_or_empty(b, "name"), "B");
  // Text, references and CDATA joined in order.
  EXPECT_EQ(text_of(doc, "note"), "a <b> <raw & text> c");
  for (const qv::xml_node& n : doc.nodes) {
    if (n.kind == xml_kind::text) {
      EXPECT_NE(doc.str(n.text).find_first_not_of(" \n"), std::string_view::npos);
    }
  }

  // With whitespace kept, the same tree gains text nodes and nothing else.
  xml_options keep;
  keep.keep_whitespace = true;
  xml_document full;
  ASSERT_TRUE(parse(kManifest, full, reason, keep)) << reason;
  EXPECT_GT(full.nodes.size(), doc.nodes.size());
  EXPECT_EQ(full.attributes.size(), doc.attributes.size());
}

TEST(XmlReader, References) {
  struct {
    const char* value;  // written inside an attribute in double quotes
    const char* want;
  } cases[] = {
      {"&amp;&lt;&gt;&quot;&apos;", "&<>\"'"},
      {"&#65;&#x42;&#X43;&#x00044;", "ABCD"},
      {"&#xE9;&#x20AC;&#x1F600;", "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"},
      // No character: zero, a surrogate, a control, past U+10FFFF, a huge
      // number, no digits, U+FFFE.
      {"&#0;", "\xEF\xBF\xBD"},
      {"&#xD800;", "\xEF\xBF\xBD"},
      {"&#1;", "\xEF\xBF\xBD"},
      {"&#x110000;", "\xEF\xBF\xBD"},
      {"&#99999999999999999999;", "\xEF\xBF\xBD"},
      {"&#;&#x;", "\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"&#xFFFE;", "\xEF\xBF\xBD"},
      {"&#9;&#10;", "\t\n"},  // references keep what normalisation would change
      // What isn't a reference stays as written.
      {"a & b", "a & b"},
      {"&nbsp;&copy", "&nbsp;&copy"},
      {"&#12x;&#x;y", "&#12x;\xEF\xBF\xBDy"},
      {"&amp", "&amp"},
      {"&", "&"},
      {"&#", "&#"},
      // Attribute values: tab, LF, CR and CR LF each become one blank.
      {"a\tb\nc\rd\r\ne", "a b c d e"},
  };
  for (const auto& c : cases) {
    xml_document doc;
    std::string reason;
    std::string text = std::string("<r a=\"") + c.value + "\"/>";
    ASSERT_TRUE(parse(text, doc, reason)) << c.value << ": " << reason;
    EXPECT_EQ(doc.attribute_or_empty(0, "a"), c.want) << c.value;
  }
  // In text, line ends become LF and blanks stay.
  xml_document doc;
  std::string reason;
  ASSERT_TRUE(parse("<r>a\r\nb\rc\td&#13;</r>", doc, reason)) << reason;
  EXPECT_EQ(doc.text_of(0), "a\nb\nc\td\r");
  ASSERT_TRUE(parse("<r><![CDATA[x\r\ny&amp;]]></r>", doc, reason)) << reason;
  EXPECT_EQ(doc.text_of(0), "x\ny&amp;");
}

TEST(XmlReader, Encodings) {
  auto utf16 = [](const std::u16string& s, bool big_endian, bool mark) {
    std::string out;
    if (mark) out += big_endian ? "\xFE\xFF" : "\xFF\xFE";
    for (char16_t u : s) {
      char hi = char(u >> 8), lo = char(u & 0xFF);
      out += big_endian ? std::string{hi, lo} : std::string{lo, hi};
    }
    return out;
  };
  const std::u16string text = u"<r a=\"\u00e9\U0001F600\">x</r>";
  for (bool be : {false, true})
    for (bool mark : {false, true}) {
      xml_document doc;
      std::string reason;
      ASSERT_TRUE(parse(utf16(text, be, mark), doc, reason)) << be << mark << ": " << reason;
      EXPECT_EQ(doc.attribute_or_empty(0, "a"), "\xC3\xA9\xF0\x9F\x98\x80");
      EXPECT_EQ(doc.text_of(0), "x");
    }
  // A lone surrogate becomes U+FFFD; an odd last byte is dropped.
  xml_document doc;
  std::string reason;
  std::string lone = utf16(u"<r a=\"", false, true) + std::string("\x00\xD8", 2) + utf16(u"\"/>", false, false) + "x";
  ASSERT_TRUE(parse(lone, doc, reason)) << reason;
  EXPECT_EQ(doc.attribute_or_empty(0, "a"), "\xEF\xBF\xBD");
  // A zero byte in UTF-8 text is malformed.
  EXPECT_FALSE(parse(std::string("<r>a\0b</r>", 10), doc, reason));
  EXPECT_NE(reason.find("zero byte"), std::string::npos) << reason;
}

TEST(XmlReader, SkippedSubtrees) {
  // The shape of a recreated manifest's maps and string table: quotes and
  // "<" inside attribute values.
  const std::string text =
      "<m>\n <maps>\n  <map value=\"0\" message=\"$(string.map_Mode\"No loopback\")\"/>\n"
      "  <map message=\"$(string.Token<Property>)\"/>\n </maps >\n"
      " <events><event value=\"7\"/></events>\n"
      " <evt:localization><stringTable><string value=\"a\"b\"/></stringTable></evt:localization>\n</m>";
  xml_document doc;
  std::string reason;
  EXPECT_FALSE(parse(text, doc, reason));
  EXPECT_NE(reason.find("line 3"), std::string::npos) << reason;
  EXPECT_TRUE(doc.nodes.empty());
  xml_options opt;
  opt.skip = {"maps", "localization"};
  ASSERT_TRUE(parse(text, doc, reason, opt)) << reason;
  uint32_t maps = doc.child_element(0, "maps");
  ASSERT_NE(maps, kXmlNone);
  EXPECT_TRUE(doc.nodes[maps].skipped);
  EXPECT_EQ(doc.nodes[maps].first_child, kXmlNone);
  EXPECT_EQ(doc.attribute_or_empty(doc.child_element(doc.child_element(0, "events"), "event"), "value"), "7");
  EXPECT_TRUE(doc.nodes[doc.child_element(0, "localization")].skipped);

  // Only the end tag of the same name closes it: "</mapsX>" and "</maps"
  // without its ">" don't.
  ASSERT_TRUE(parse("<m><maps></mapsX></maps x></maps></m>", doc, reason, opt)) << reason;
  EXPECT_EQ(doc.nodes.size(), 2u);
  EXPECT_FALSE(parse("<m><maps><a></maps", doc, reason, opt));
  EXPECT_NE(reason.find("passed over"), std::string::npos) << reason;
  // A self-closing skipped element is simply empty.
  ASSERT_TRUE(parse("<m><maps/><x/></m>", doc, reason, opt)) << reason;
  EXPECT_NE(doc.child_element(0, "x"), kXmlNone);
}

TEST(XmlReader, MalformedInputIsRefusedWithAReason) {
  struct {
    const char* text;
    const char* reason;  // a part of the reason
  } cases[] = {
      {"", "empty input"},
      {"   ", "no root element"},
      {"<!-- only a comment -->", "no root element"},
      {"text", "text outside the root element"},
      {"<a/>tail", "text outside the root element"},
      {"<a/><b/>", "second root element <b>"},
      {"<a>", "the input ends inside <a> of line 1"},
      {"<a>\n<b>\n</a>", "line 3: end tag </a> doesn't match <b> of line 2"},
      {"</a>", "without a start tag"},
      {"<a></a >x</a>", "text outside the root element"},
      {"<a><!-- x -- </a>", "unterminated comment"},
      {"<a><![CDATA[ x ]> </a>", "unterminated CDATA"},
      {"<![CDATA[x]]><a/>", "CDATA outside the root element"},
      {"<?xml version='1.0'", "unterminated processing instruction"},
      {"<!DOCTYPE a [ <!ENTITY x '>'> ", "unterminated DOCTYPE"},
      {"<a/><!DOCTYPE a>", "DOCTYPE inside the document"},
      {"<a><!ELEMENT x></a>", "unknown markup"},
      {"< a/>", "'<' without a name"},
      {"<1a/>", "'<' without a name"},
      {"<a></ a>", "an end tag without a name"},
      {"<a></a", "malformed end tag </a"},
      {"<a b/>", "attribute b of <a> has no value"},
      {"<a b=c/>", "isn't quoted"},
      {"<a b=\"c/>", "unterminated value of attribute b of <a>"},
      {"<a b='c\"/>", "unterminated value"},
      {"<a b=\"x\"c=\"y\"/>", "not separated by blanks"},
      {"<a b=\"x\" b='y'/>", "attribute b of <a> is repeated"},
      {"<a b=\"<\"/>", "'<' inside the value of attribute b"},
      {"<a / >", "'/' inside the start tag <a>"},
      {"<a b=\"1\"", "the input ends inside the start tag <a>"},
      {"<a =\"1\"/>", "an attribute of <a> without a name"},
  };
  for (const auto& c : cases) {
    xml_document doc;
    std::string reason;
    EXPECT_FALSE(parse(c.text, doc, reason)) << c.text;
    EXPECT_NE(reason.find(c.reason), std::string::npos) << c.text << " -> " << reason;
    EXPECT_TRUE(doc.nodes.empty() && doc.pool.empty()) << c.text;
  }
}

TEST(XmlReader, Limits) {
  xml_document doc;
  std::string reason;
  // Nesting: a hundred thousand levels are refused at the limit, without
  // recursion; up to the limit is fine.
  std::string deep;
  for (int i = 0; i < 100000; ++i) deep += "<a>";
  EXPECT_FALSE(parse(deep, doc, reason));
  EXPECT_NE(reason.find("nested deeper than 256"), std::string::npos) << reason;
  std::string ok_deep, close;
  for (int i = 0; i < 256; ++i) ok_deep += "<a>", close += "</a>";
  EXPECT_TRUE(parse(ok_deep + close, doc, reason)) << reason;
  EXPECT_FALSE(parse("<b>" + ok_deep + close + "</b>", doc, reason));

  xml_options small;
  small.limits.max_attributes = 3;
  small.limits.max_nodes = 5;
  small.limits.max_name = 8;
  small.limits.max_text = 10;
  small.limits.max_input = 100;
  EXPECT_TRUE(parse("<a x='1' y='2' z='3'/>", doc, reason, small)) << reason;
  EXPECT_FALSE(parse("<a w='0' x='1' y='2' z='3'/>", doc, reason, small));
  EXPECT_NE(reason.find("more than 3 attributes"), std::string::npos) << reason;
  EXPECT_TRUE(parse("<a><b/><b/><b/><b/></a>", doc, reason, small)) << reason;
  EXPECT_FALSE(parse("<a><b/><b/><b/><b/><b/></a>", doc, reason, small));
  EXPECT_NE(reason.find("more than 5 nodes"), std::string::npos) << reason;
  EXPECT_TRUE(parse("<abcdefgh abcdefgh='1'/>", doc, reason, small)) << reason;
  EXPECT_FALSE(parse("<abcdefghi/>", doc, reason, small));
  EXPECT_FALSE(parse("<a abcdefghi='1'/>", doc, reason, small));
  EXPECT_NE(reason.find("longer than 8"), std::string::npos) << reason;
  EXPECT_TRUE(parse("<a x='0123456789'>0123456789</a>", doc, reason, small)) << reason;
  EXPECT_FALSE(parse("<a x='0123456789a'/>", doc, reason, small));
  EXPECT_FALSE(parse("<a>0123456789a</a>", doc, reason, small));
  EXPECT_FALSE(parse("<a><![CDATA[0123456789a]]></a>", doc, reason, small));
  EXPECT_FALSE(parse("<a>" + std::string(100, ' ') + "</a>", doc, reason, small));
  EXPECT_NE(reason.find("more than the 100 read"), std::string::npos) << reason;

  // A huge attribute under the default limit reads whole.
  std::string big(4 << 20, 'x');
  ASSERT_TRUE(parse("<a v=\"" + big + "\"/>", doc, reason)) << reason;
  EXPECT_EQ(doc.attribute_or_empty(0, "v").size(), big.size());
  // Many attributes on many elements: the limit is per element.
  std::string many = "<r>";
  for (int i = 0; i < 1000; ++i) many += "<e a='1' b='2'/>";
  EXPECT_TRUE(parse(many + "</r>", doc, reason)) << reason;
  EXPECT_EQ(doc.attributes.size(), 2000u);
}

// Every prefix of a small manifest: refused with a reason until the root
// element's end tag is whole, read from there on; never a fault.
TEST(XmlReader, EveryTruncation) {
  const std::string text = kManifest;
  size_t root_end = text.find("</instrumentationManifest>") + std::string("</instrumentationManifest>").size();
  xml_document doc;
  std::string reason;
  for (size_t n = 0; n <= text.size(); ++n) {
    bool ok = parse(text.substr(0, n), doc, reason);
    std::string tail = text.substr(root_end, n > root_end ? n - root_end : 0);
    bool whole = n >= root_end && (tail.find('<') == std::string::npos || tail.find("-->") != std::string::npos);
    EXPECT_EQ(ok, whole) << n << ": " << reason;
    if (!ok) {
      EXPECT_FALSE(reason.empty()) << n;
    }
  }
  // And every prefix of the skipping form.
  xml_options opt;
  opt.skip = {"templates"};
  for (size_t n = 0; n < root_end; ++n) EXPECT_FALSE(parse(text.substr(0, n), doc, reason, opt)) << n;
}

}  // namespace
