#include "trace/event_source_manifests.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

qv::guid16 guid_of(uint8_t first) {
  qv::guid16 g{};
  g[0] = first;  // {000000NN-0000-0000-0000-000000000000}
  return g;
}

std::string manifest_for(uint8_t first, const std::string& field = "Count") {
  char guid[40];
  std::snprintf(guid, sizeof guid, "%08x-0000-0000-0000-000000000000", unsigned(first));
  return std::string("<instrumentationManifest><instrumentation><events><provider name='P' guid='{") + guid +
         "}'><events><event value='1' version='0' symbol='E' template='T'/></events><templates>"
         "<template tid='T'><data name='" + field + "' inType='win:UInt32'/></template>"
         "</templates></provider></events></instrumentation></instrumentationManifest>";
}

// An envelope over `text`, as read_manifest_envelope would give it.
manifest_envelope envelope(uint16_t total, uint16_t number, const std::string& text, uint8_t format = 1) {
  manifest_envelope e;
  e.format = format;
  e.major_version = 1;
  e.magic = manifest_magic;
  e.total_chunks = total;
  e.chunk_number = number;
  e.chunk = reinterpret_cast<const uint8_t*>(text.data());
  e.chunk_size = uint32_t(text.size());
  return e;
}

std::string field_of(template_store& store, const qv::guid16& g) {
  const event_template* t = find_event_template(store, g, 1, 0);
  return t && t->names.size() == 2 ? t->names[1] : "none";
}

}  // namespace

TEST(EventSourceManifests, ChunksJoinInOrderAndRefuseTheRest) {
  template_store store;
  event_source_manifests m;
  const qv::guid16 g = guid_of(1);
  const std::string xml = manifest_for(1);
  const std::string a = xml.substr(0, 40), b = xml.substr(40, 60), c = xml.substr(100);

  // A chunk without its predecessor, a number beyond the count, a count of
  // 0 or beyond the limit, another format: refused, nothing gathered.
  EXPECT_EQ(take_manifest_chunk(m, store, g, envelope(3, 1, b), 0), manifest_chunk::refused);
  EXPECT_EQ(take_manifest_chunk(m, store, g, envelope(3, 3, b), 0), manifest_chunk::refused);
  EXPECT_EQ(take_manifest_chunk(m, store, g, envelope(0, 0, xml), 0), manifest_chunk::refused);
  EXPECT_EQ(take_manifest_chunk(m, store, g, envelope(max_manifest_chunks + 1, 0, a), 0), manifest_chunk::refused);
  EXPECT_EQ(take_manifest_chunk(m, store, g, envelope(1, 0, xml, 2), 0), manifest_chunk::refused);
  EXPECT_TRUE(m.in_flight.empty());

  EXPECT_EQ(take_manifest_chunk(m, store, g, envelope(3, 0, a), 100), manifest_chunk::gathered);
  // Out of order, or with another count: refused, what was gathered stands.
  EXPECT_EQ(take_manifest_chunk(m, store, g, envelope(3, 2, c), 0), manifest_chunk::refused);
  EXPECT_EQ(take_manifest_chunk(m, store, g, envelope(4, 1, b), 0), manifest_chunk::refused);
  EXPECT_EQ(take_manifest_chunk(m, store, g, envelope(3, 1, b), 200), manifest_chunk::gathered);
  EXPECT_EQ(field_of(store, g), "none");
  EXPECT_EQ(take_manifest_chunk(m, store, g, envelope(3, 2, c), 300), manifest_chunk::learned);
  EXPECT_EQ(field_of(store, g), "Count");
  EXPECT_TRUE(m.in_flight.empty());
  EXPECT_EQ(m.counts.chunks, 10u);
  EXPECT_EQ(m.counts.refused, 7u);
  EXPECT_EQ(m.counts.read, 1u);
  EXPECT_EQ(m.counts.layouts, 1u);

  // The same manifest again (rundown) isn't read again; another one is read
  // but can't change a key learned before.
  EXPECT_EQ(take_manifest_chunk(m, store, g, envelope(1, 0, xml), 400), manifest_chunk::repeated);
  EXPECT_EQ(take_manifest_chunk(m, store, g, envelope(1, 0, manifest_for(1, "Other")), 500), manifest_chunk::learned);
  EXPECT_EQ(field_of(store, g), "Count");
  EXPECT_EQ(m.counts.repeated, 1u);
  EXPECT_EQ(m.counts.read, 2u);
  EXPECT_EQ(m.counts.layouts, 1u);

  // A chunk 0 restarts an unfinished manifest.
  const qv::guid16 h = guid_of(2);
  const std::string other = manifest_for(2);
  EXPECT_EQ(take_manifest_chunk(m, store, h, envelope(2, 0, "<broken"), 0), manifest_chunk::gathered);
  EXPECT_EQ(take_manifest_chunk(m, store, h, envelope(2, 0, other.substr(0, 10)), 0), manifest_chunk::gathered);
  EXPECT_EQ(take_manifest_chunk(m, store, h, envelope(2, 1, other.substr(10)), 0), manifest_chunk::learned);
  EXPECT_EQ(field_of(store, h), "Count");
}

TEST(EventSourceManifests, UnreadableAndForeignManifestsTeachNothing) {
  template_store store;
  event_source_manifests m;
  const qv::guid16 g = guid_of(1);
  const std::string xml = manifest_for(1);
  EXPECT_EQ(take_manifest_chunk(m, store, g, envelope(1, 0, xml.substr(0, xml.size() - 20)), 0),
            manifest_chunk::unreadable);
  EXPECT_EQ(take_manifest_chunk(m, store, g, envelope(1, 0, "not xml at all"), 0), manifest_chunk::unreadable);
  // The manifest of provider 1 carried by provider 3's event.
  EXPECT_EQ(take_manifest_chunk(m, store, guid_of(3), envelope(1, 0, xml), 0), manifest_chunk::unreadable);
  EXPECT_EQ(field_of(store, g), "none");
  EXPECT_EQ(field_of(store, guid_of(3)), "none");
  EXPECT_EQ(m.counts.unreadable, 3u);
  EXPECT_EQ(store.learned, nullptr);

  // A manifest that gives event 65534 a layout: the rest is learned, that
  // event isn't.
  std::string self = manifest_for(1);
  const std::string event_one = "<event value='1' version='0' symbol='E' template='T'/>";
  self.insert(self.find(event_one) + event_one.size(), "<event value='65534' version='1' template='T'/>");
  EXPECT_EQ(take_manifest_chunk(m, store, g, envelope(1, 0, self), 0), manifest_chunk::learned);
  EXPECT_EQ(m.counts.layouts, 1u);
  EXPECT_EQ(field_of(store, g), "Count");
  EXPECT_EQ(find_event_template(store, g, manifest_event_id, 1), nullptr);
}

TEST(EventSourceManifests, LimitsOfSizeAndOfProvidersUnderWay) {
  template_store store;
  event_source_manifests m;
  // One chunk beyond the size limit, and chunks that grow beyond it together.
  const std::string big(max_manifest_bytes / 2 + 1, ' ');
  const qv::guid16 g = guid_of(1);
  EXPECT_EQ(take_manifest_chunk(m, store, g, envelope(1, 0, big + big), 0), manifest_chunk::refused);
  EXPECT_EQ(take_manifest_chunk(m, store, g, envelope(3, 0, big), 0), manifest_chunk::gathered);
  EXPECT_EQ(take_manifest_chunk(m, store, g, envelope(3, 1, big), 0), manifest_chunk::refused);
  EXPECT_TRUE(m.in_flight.empty());  // dropped: it can't complete

  // Providers under way at one time.
  for (size_t i = 0; i < max_manifests_in_flight; ++i)
    EXPECT_EQ(take_manifest_chunk(m, store, guid_of(uint8_t(10 + i)), envelope(2, 0, "<a"), 0),
              manifest_chunk::gathered);
  const qv::guid16 late = guid_of(200);
  EXPECT_EQ(take_manifest_chunk(m, store, late, envelope(1, 0, manifest_for(200)), 0), manifest_chunk::refused);
  // One that completes makes room.
  EXPECT_EQ(take_manifest_chunk(m, store, guid_of(10), envelope(2, 1, "/>"), 0), manifest_chunk::unreadable);
  EXPECT_EQ(take_manifest_chunk(m, store, late, envelope(1, 0, manifest_for(200)), 0), manifest_chunk::learned);
  EXPECT_EQ(field_of(store, late), "Count");
}

TEST(EventSourceManifests, ManifestsReadPerFileAreBounded) {
  template_store store;
  event_source_manifests m;
  const qv::guid16 g = guid_of(1);
  for (size_t i = 0; i < max_manifests_read; ++i) {
    // Each differs from the last, so each is read.
    std::string field = "F";
    field += std::to_string(i);
    const std::string xml = manifest_for(1, field);
    ASSERT_EQ(take_manifest_chunk(m, store, g, envelope(1, 0, xml), 0), manifest_chunk::learned) << i;
  }
  EXPECT_EQ(take_manifest_chunk(m, store, guid_of(5), envelope(1, 0, manifest_for(5)), 0), manifest_chunk::refused);
  EXPECT_EQ(field_of(store, guid_of(5)), "none");
  EXPECT_EQ(field_of(store, g), "F0");
}

TEST(EventSourceManifests, TextIsTheTemplateLinesOfTheProvider) {
  template_store store;
  event_source_manifests m;
  m.keep_text = true;
  const std::string xml =
      "<instrumentationManifest><instrumentation><events>"
      "<provider name='Demo, Inc!' guid='{00000001-0000-0000-0000-000000000000}'><events>"
      "<event value='2' version='0' symbol='Empty'/>"
      "<event value='1' version='0' symbol='One' template='T'/>"
      "<event value='1' version='2' symbol='One, again' template='U'/>"
      "<event value='3' version='0' template='V'/></events><templates>"
      "<template tid='T'><data name='Count' inType='win:UInt32'/></template>"
      "<template tid='U'><data name='Count' inType='win:UInt32'/><data name='Name' inType='win:UnicodeString'/>"
      "</template><template tid='V'></template></templates></provider>"
      "<provider name='Else' guid='{00000009-0000-0000-0000-000000000000}'/>"
      "</events></instrumentation></instrumentationManifest>";
  EXPECT_EQ(take_manifest_chunk(m, store, guid_of(1), envelope(1, 0, xml), 4096), manifest_chunk::learned);
  // The provider's name with "," and "!" made "_"; events with a template,
  // by identifier, newest version first; the names cleaned as field names;
  // an empty template without a name as a lone 0. The other provider adds
  // nothing.
  const std::string g = "{00000001-0000-0000-0000-000000000000}";
  EXPECT_EQ(m.text, "// manifest of " + g + " at offset 4096\n" +
                        "#" + g + " ! Demo_ Inc_\n" +
                        g + " ! $1, V2, LOne_ again, 0x8001, LCount, 8, LName, 1\n" +
                        g + " ! $1, V0, LOne, 0x8001, LCount, 8\n" +
                        g + " ! $3, V0, 0\n");
  // Event 3's lone 0 is learned too, as -templates would read it: the event
  // is known to carry no data, and whatever it holds goes to the guesser.
  EXPECT_EQ(m.counts.layouts, 3u);
  EXPECT_EQ(provider_name_of(store, guid_of(1)), "Demo, Inc!");
}
