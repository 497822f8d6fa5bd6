#include "templates/manifest_text.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "templates/template_text.h"

TEST(ManifestText, GuidInLowerCase) {
  qv::guid16 g{};
  const uint8_t bytes[16] = {0x47, 0xba, 0x5d, 0x2e, 0xd2, 0xa3, 0x16, 0x4d,
                             0x8e, 0xe0, 0x66, 0x71, 0xff, 0xdc, 0xd7, 0xb5};
  for (int i = 0; i < 16; ++i) g[size_t(i)] = bytes[i];
  EXPECT_EQ(manifest_guid_text(g), "2e5dba47-a3d2-4d16-8ee0-6671ffdcd7b5");
}

TEST(ManifestText, LinesReadBackAsTheLayouts) {
  const std::string xml =
      "<instrumentationManifest><instrumentation><events>"
      "<provider name='  A|B;C  ' guid='{00000001-0000-0000-0000-000000000000}'><events>"
      "<event value='7' version='0' symbol='Tick' template='T0'/>"
      "<event value='3' version='0' symbol='NoData'/>"
      "<event value='7' version='1' symbol='Tick' template='T1'/></events><templates>"
      "<template tid='T0'><data name='Count' inType='win:UInt32'/></template>"
      "<template tid='T1'><data name='Count' inType='win:UInt32'/><data name='Na,me' inType='win:UnicodeString'/>"
      "</template></templates></provider></events></instrumentation></instrumentationManifest>";
  manifest_doc doc;
  std::string reason;
  ASSERT_TRUE(read_manifest_xml(reinterpret_cast<const uint8_t*>(xml.data()), xml.size(), manifest_read_options(),
                                doc, reason))
      << reason;
  ASSERT_EQ(doc.providers.size(), 1u);
  std::string text;
  EXPECT_EQ(append_provider_template_text(doc.providers[0], text), 2u);
  // The provider's name without "|" and ";" and its blanks; the newest
  // version first; "," in a field name made "_"; no line for the event
  // without a template.
  const std::string g = "{00000001-0000-0000-0000-000000000000}";
  const std::string v1 = g + " ! $7, V1, LTick, 0x8001, LCount, 8, LNa_me, 1";
  EXPECT_EQ(text, "#" + g + " ! A_B_C\n" + v1 + "\n" + g + " ! $7, V0, LTick, 0x8001, LCount, 8\n");

  // A line parses back into the words and names it was made from.
  template_record r;
  ASSERT_TRUE(parse_template_line(r, v1));
  EXPECT_EQ(r.version, 1);
  EXPECT_EQ(r.ids, (std::vector<uint16_t>{7}));
  EXPECT_EQ(r.words, (std::vector<uint16_t>{0x8001, 8, 1}));
  EXPECT_EQ(r.names, (std::vector<std::string>{"Tick", "Count", "Na_me"}));
}
