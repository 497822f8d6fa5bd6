#include "trace/trace_engine.h"

#include <gtest/gtest.h>

#include "tests/trace_writer.h"

namespace {

constexpr uint64_t kT0 = 134170743671234567ull;  // 2026-03-04 05:06:07.1234567
const tw::guid kAcme = tw::guid_from_text("5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b");
const tw::guid kProcessGroup = tw::guid_from_text("3d6fa8d0-fe05-11d0-9dda-00c04fd7ba7c");

struct fixture {
  trace_engine engine;
  tw::etl_writer w;
  std::vector<size_t> buffers;

  explicit fixture(uint32_t clock = tw::clock_systemtime, uint32_t pointer_size = 8) {
    tw::log_header_spec h;
    h.buffer_size = 4096;
    h.clock = clock;
    h.pointer_size = pointer_size;
    h.start_time = kT0;
    h.system_time = clock == tw::clock_systemtime ? kT0 : 1000;
    w.log_header(h);
    EXPECT_TRUE(open_with_log_header(engine, w.data().data(), w.size()));
    engine.decode_enabled = false;
    engine.store.group_guids[0x0300] = qv::make_guid(kProcessGroup.data());
  }
  size_t add(const std::vector<tw::bytes>& records, tw::buffer_spec shape = {}) {
    if (shape.timestamp == 0) shape.timestamp = kT0 + 1000000;
    size_t at = w.add_buffer(records, shape);
    buffers.push_back(at);
    return at;
  }
  void read(size_t i) {
    const size_t at = buffers[i];
    const uint32_t size = w.data()[at] | w.data()[at + 1] << 8 | w.data()[at + 2] << 16 | uint32_t(w.data()[at + 3]) << 24;
    read_buffer(engine, w.data().data() + at, size, at);
  }
  std::vector<etl_record*> records() {
    std::vector<etl_record*> out;
    for (etl_record& r : engine.records) out.push_back(&r);
    return out;
  }
};

tw::event_spec event(uint16_t id, uint64_t time, size_t payload = 8) {
  tw::event_spec e;
  e.id = id;
  e.time = time;
  e.provider = kAcme;
  e.thread_id = 0x100 + id;
  e.process_id = 0x200 + id;
  e.payload.assign(payload, 0x11);
  return e;
}

}  // namespace

TEST(TraceEngine, EveryHeaderKindIsRecognisedAndUnpacked) {
  fixture f;
  tw::event_spec e6 = event(6, kT0 + 1);
  e6.version = 2;
  e6.channel = 16;
  e6.level = 4;
  e6.opcode = 1;
  e6.task = 7;
  e6.keyword = 0x8000000000000010ull;
  e6.time_word = 0x55;
  e6.activity = tw::guid_from_text("01020304-0506-0708-090a-0b0c0d0e0f10");
  tw::event_spec e3 = event(0x0301, kT0 + 3);
  e3.class_version = 3;
  tw::event_spec e4 = event(0x030B, kT0 + 4);
  tw::event_spec e8 = event(0x1F05, 0);
  f.w.add_buffer({}, {});  // not read: just to move offsets
  f.buffers.clear();
  const size_t at = f.add({tw::event_header_record(e6), tw::event_header_record(event(7, kT0 + 2), true),
                           tw::full_header_record(event(5, kT0 + 5)), tw::system_header_record(e3),
                           tw::compact_header_record(e4), tw::other_header_record(e8),
                           tw::instance_header_record(event(1, kT0 + 6), false),
                           tw::full_header_record(event(15, kT0 + 7), true)},
                          tw::buffer_spec{.processor = 3, .alignment = 8, .logger_id = 9});
  f.read(0);
  auto r = f.records();
  ASSERT_EQ(r.size(), 8u);

  // Offsets follow the 8-byte aligned layout of the buffer.
  EXPECT_EQ(r[0]->file_offset, at + 72);
  EXPECT_EQ(r[1]->file_offset, at + 72 + 88);

  EXPECT_EQ(r[0]->kind, kind_c012);
  EXPECT_EQ(r[0]->event_id, 6);
  EXPECT_EQ(r[0]->thread_id, 0x106u);
  EXPECT_EQ(r[0]->process_id, 0x206u);
  EXPECT_EQ(r[0]->version, 2);
  EXPECT_EQ(r[0]->channel, 16);
  EXPECT_EQ(r[0]->level, 4);
  EXPECT_EQ(r[0]->opcode, 1);
  EXPECT_EQ(r[0]->task, 7);
  EXPECT_EQ(r[0]->keyword, 0x8000000000000010ull);
  EXPECT_EQ(r[0]->time_word, 0x55u);
  EXPECT_EQ(r[0]->activity_id[0], 0x04);
  EXPECT_EQ(r[0]->provider_id, qv::make_guid(kAcme.data()));
  EXPECT_EQ(r[0]->absolute_time, kT0 + 1);
  EXPECT_EQ(r[0]->processor, 3);
  EXPECT_EQ(r[0]->alignment, 8);
  EXPECT_EQ(r[0]->logger_id, 9);
  EXPECT_TRUE(r[0]->valid);

  EXPECT_EQ(r[1]->kind, kind_c013);
  EXPECT_EQ(r[2]->kind, kind_c00a);
  EXPECT_EQ(r[2]->event_id, 5);
  EXPECT_EQ(r[2]->keyword, 0u);  // only the first 48 bytes of a full header

  EXPECT_EQ(r[3]->kind, kind_c002);
  EXPECT_EQ(r[3]->hook_id, 0x0301);
  EXPECT_EQ(r[3]->flags_or_version, 3);
  EXPECT_EQ(r[3]->thread_id, 0x100u + 0x301);
  EXPECT_TRUE(r[3]->has_provider);  // group 3 is known
  EXPECT_EQ(r[3]->provider_id, qv::make_guid(kProcessGroup.data()));

  EXPECT_EQ(r[4]->kind, kind_c011);
  EXPECT_EQ(r[4]->hook_id, 0x030B);
  EXPECT_EQ(r[4]->thread_id, 0u);
  EXPECT_EQ(r[4]->absolute_time, kT0 + 4);

  EXPECT_EQ(r[5]->kind, kind_other);
  EXPECT_FALSE(r[5]->has_provider);  // group 0x1F has no entry
  EXPECT_EQ(r[5]->absolute_time, 0u);

  EXPECT_EQ(r[6]->kind, kind_9000_18);
  EXPECT_EQ(r[6]->event_id, 1);
  EXPECT_EQ(r[6]->raw_time, kT0 + 6);

  // The 64-bit form of the full header reads the same way.
  EXPECT_EQ(r[7]->kind, kind_c00a);
  EXPECT_EQ(r[7]->event_id, 15);
  EXPECT_EQ(r[7]->process_id, 0x200u + 15);

  // Providers of the file are collected, classic groups included.
  EXPECT_EQ(f.engine.stats.provider_set.size(), 2u);
}

TEST(TraceEngine, DamageIsSteppedOverAndThePlaceholderTakesTheNextKey) {
  fixture f;
  const tw::bytes good = tw::event_header_record(event(1, kT0));
  tw::bytes garbage(24, 0xAB);
  const size_t at = f.add({good, garbage, tw::event_header_record(event(2, kT0)),
                           tw::event_header_record(event(3, kT0))});
  f.read(0);
  auto r = f.records();
  ASSERT_EQ(r.size(), 3u);
  EXPECT_EQ(r[0]->event_id, 1);
  // The placeholder sits under the key of the record behind the damage, which
  // therefore has no row of its own; it records where the damage began.
  const uint64_t damage = at + 72 + good.size();
  EXPECT_FALSE(r[1]->valid);
  EXPECT_EQ(r[1]->kind, kind_placeholder);
  EXPECT_EQ(r[1]->file_offset, damage);
  EXPECT_EQ(r[1]->size, 24);
  EXPECT_EQ(r[2]->event_id, 3);
  EXPECT_EQ(f.engine.records.size(), 3u);
}

TEST(TraceEngine, DamageWithNoOffsetGivesUpTheRestOfTheBuffer) {
  fixture f;
  tw::buffer_spec shape;
  shape.offset = 0;
  f.add({tw::event_header_record(event(1, kT0)), tw::bytes(16, 0xAB), tw::event_header_record(event(2, kT0))},
        shape);
  f.read(0);
  ASSERT_EQ(f.engine.records.size(), 1u);
  EXPECT_EQ(f.engine.records.begin()->event_id, 1);
}

TEST(TraceEngine, RecordsOfExactlyTheirHeaderLengthAreEvents) {
  // An 80-byte EVENT_HEADER with no payload is an event with no fields, and
  // the record behind it keeps its own row. (Id 2 at offset 40 would read as
  // a classic version word if the record were stepped over 8 bytes at a time.)
  fixture f;
  f.engine.decode_enabled = true;
  const size_t at = f.add({tw::event_header_record(event(1, kT0)), tw::event_header_record(event(2, kT0, 0)),
                           tw::event_header_record(event(3, kT0)), tw::full_header_record(event(5, kT0, 0)),
                           tw::instance_header_record(event(6, kT0, 0), false),
                           tw::instance_header_record(event(7, kT0, 0), true),
                           tw::event_header_record(event(4, kT0))});
  f.read(0);
  auto r = f.records();
  ASSERT_EQ(r.size(), 7u);
  EXPECT_EQ(r[1]->file_offset, at + 72 + 88);
  EXPECT_EQ(r[1]->kind, kind_c012);
  EXPECT_EQ(r[1]->event_id, 2);
  EXPECT_EQ(r[1]->size, 80);
  EXPECT_TRUE(r[1]->fields.empty());
  EXPECT_EQ(r[2]->event_id, 3);
  EXPECT_FALSE(r[2]->fields.empty());  // 8 bytes, guessed
  EXPECT_EQ(r[3]->kind, kind_c00a);
  EXPECT_EQ(r[3]->size, 48);
  EXPECT_EQ(r[4]->kind, kind_9000_18);
  EXPECT_EQ(r[4]->size, 40);
  EXPECT_EQ(r[5]->kind, kind_9000_1c);  // no hint: the first record was no message
  EXPECT_EQ(r[5]->size, 44);
  EXPECT_EQ(r[6]->event_id, 4);
  for (etl_record* rec : r) EXPECT_NE(rec->kind, kind_placeholder);
}

TEST(TraceEngine, HeaderSizeHintFromTheFirstRecord) {
  fixture f;
  f.add({tw::instance_header_record(event(1, kT0), false), tw::instance_header_record(event(2, kT0), true),
         tw::instance_header_record(event(3, kT0), false)});
  f.read(0);
  EXPECT_EQ(f.engine.header_size_hint, 24);
  auto r = f.records();
  ASSERT_EQ(r.size(), 3u);
  EXPECT_EQ(r[0]->kind, kind_9000_18);
  // The loop's test takes the 0x1c form without a hint, but the file's hint
  // refuses it when unpacked: a corrupted row keeps the count.
  EXPECT_EQ(r[1]->kind, kind_unknown);
  EXPECT_FALSE(r[1]->valid);
  EXPECT_EQ(r[2]->kind, kind_9000_18);

  fixture g;
  g.add({tw::instance_header_record(event(1, kT0), true)});
  g.read(0);
  EXPECT_EQ(g.engine.header_size_hint, 28);
  EXPECT_EQ(g.engine.records.begin()->kind, kind_9000_1c);
  EXPECT_EQ(g.engine.records.begin()->reserved_word, 0u);
}

TEST(TraceEngine, RawClockTimeTests) {
  // QPC clock, raw start 1000 and SystemTime... the buffer's time bounds its
  // events; compact headers need a plausible counter value.
  fixture f(tw::clock_qpc);
  tw::event_spec late = event(1, 5000000);
  tw::event_spec ok = event(2, 4000000);
  tw::event_spec small_compact = event(0x0302, 0x40000);
  tw::event_spec good_compact = event(0x0303, 0x50000);
  tw::buffer_spec shape;
  shape.timestamp = 4500000;
  shape.offset = 0;  // no resync: a refused record ends the buffer
  f.add({tw::event_header_record(ok), tw::compact_header_record(good_compact)}, shape);
  f.add({tw::event_header_record(late)}, shape);
  f.add({tw::compact_header_record(small_compact)}, shape);
  f.read(0);
  ASSERT_EQ(f.engine.records.size(), 2u);
  EXPECT_EQ(f.engine.records.begin()[1].kind, kind_c011);
  // 1e7 / 1e7 = 1 tick per raw tick; StartTime anchors SystemTime 1000.
  EXPECT_EQ(f.engine.records.begin()[0].absolute_time, kT0 - 1000 + 4000000);
  discard_rows(f.engine);
  f.read(1);
  EXPECT_EQ(f.engine.records.size(), 0u);
  f.read(2);
  // 0x40000 is too small for a compact header's counter: the record falls
  // to the generic classic form.
  ASSERT_EQ(f.engine.records.size(), 1u);
  EXPECT_EQ(f.engine.records.begin()->kind, kind_other);
}

TEST(TraceEngine, ExtendedItemsBecomeFields) {
  fixture f;
  f.engine.decode_enabled = true;
  tw::event_spec e = event(9, kT0, 3);  // 3 bytes of payload: too few to guess
  const tw::bytes sid = {1, 1, 0, 0, 0, 0, 0, 5, 18, 0, 0, 0};  // S-1-5-18
  tw::bytes related(16);
  for (int i = 0; i < 16; ++i) related[i] = uint8_t(i);
  e.extended = tw::extended_item(2, sid, true);
  const tw::bytes item2 = tw::extended_item(1, related, true);
  e.extended.insert(e.extended.end(), item2.begin(), item2.end());
  const tw::bytes item3 = tw::extended_item(3, {7, 0, 0, 0}, false);
  e.extended.insert(e.extended.end(), item3.begin(), item3.end());
  const size_t at = f.add({tw::event_header_record(e)});
  f.read(0);
  ASSERT_EQ(f.engine.records.size(), 1u);
  const etl_record& r = *f.engine.records.begin();
  ASSERT_EQ(r.fields.size(), 3u);
  const auto* it = r.fields.begin();
  EXPECT_EQ(it[0].key, at + 72 + 80);
  EXPECT_EQ(it[0].field.name, "sid");
  EXPECT_EQ(it[0].field.text, "S-1-5-18");
  EXPECT_EQ(it[1].key, at + 72 + 80 + 20);
  EXPECT_EQ(it[1].field.name, "guid");
  EXPECT_EQ(it[1].field.bytes.size(), 16u);
  EXPECT_EQ(it[2].field.name, "value");
  EXPECT_EQ(it[2].field.number, 7u);
}

TEST(TraceEngine, PointerWidthFromHeaderOrBuffer) {
  fixture wide(tw::clock_systemtime, 8);
  EXPECT_TRUE(pointers_are_64(wide.engine, nullptr));
  fixture narrow(tw::clock_systemtime, 4);
  EXPECT_FALSE(pointers_are_64(narrow.engine, nullptr));

  trace_engine rlfs;
  uint8_t first[72] = {'R', 'l', 'F', 's'};
  for (int i = 0; i < 8; ++i) first[16 + i] = uint8_t(kT0 >> (8 * i));
  first[48] = 72;
  ASSERT_TRUE(open_with_first_buffer(rlfs, first, 72));
  EXPECT_TRUE(pointers_are_64(rlfs, nullptr));  // nothing to look at yet
  buffer_rec b;
  b.header.ReferenceWord1 = 0xFFFFF80000000000ull;
  EXPECT_TRUE(pointers_are_64(rlfs, &b));
  b.header.ReferenceWord1 = 0x00000000FFFF0000ull;
  EXPECT_FALSE(pointers_are_64(rlfs, &b));
}

TEST(TraceEngine, FirstBufferWithoutDateMakesEveryAbsoluteTimeZero) {
  trace_engine e;
  uint8_t first[72] = {'R', 'l', 'F', 's'};
  for (int i = 0; i < 8; ++i) first[16 + i] = uint8_t(kT0 >> (8 * i));
  first[48] = 72;
  first[24] = 5;  // not a date
  ASSERT_TRUE(open_with_first_buffer(e, first, 72));
  EXPECT_TRUE(e.clock.is_qpc);
  EXPECT_EQ(e.clock.to_absolute(123456), 0u);
  uint8_t junk[72] = {1};
  EXPECT_FALSE(open_with_first_buffer(e, junk, 72));
}

TEST(TraceEngine, StatisticsCountByIdAndResetClearsAllButTemplates) {
  fixture f;
  f.engine.stats_enabled = true;
  f.add({tw::event_header_record(event(1, kT0)), tw::event_header_record(event(1, kT0)),
         tw::event_header_record(event(2, kT0))});
  f.read(0);
  const auto& counts = f.engine.stats.event_counts.at(qv::make_guid(kAcme.data()));
  EXPECT_EQ(counts.at(1), 2u);
  EXPECT_EQ(counts.at(2), 1u);
  f.engine.store.trace_build = 9600;
  reset_engine(f.engine, true);
  EXPECT_TRUE(f.engine.records.empty());
  EXPECT_TRUE(f.engine.stats.provider_set.empty());
  EXPECT_FALSE(f.engine.stats_enabled);
  EXPECT_TRUE(f.engine.has_log_header);
  EXPECT_EQ(f.engine.store.group_guids.size(), 1u);
  EXPECT_EQ(f.engine.store.trace_build, 9600u);
}

TEST(TraceEngine, ShortOrLyingBuffersAreBounded) {
  fixture f;
  // A buffer that claims far more bytes than it holds: records are only
  // taken from what is there.
  const size_t at = f.add({tw::event_header_record(event(1, kT0))});
  tw::bytes copy(f.w.data().begin() + at, f.w.data().begin() + at + 200);
  copy[0] = 0x00;
  copy[1] = 0x00;
  copy[2] = 0x10;  // 1 MiB claimed
  read_buffer(f.engine, copy.data(), copy.size(), at);
  EXPECT_EQ(f.engine.records.size(), 1u);
  discard_rows(f.engine);
  // Under 72 bytes: refused.
  EXPECT_FALSE(read_buffer(f.engine, copy.data(), 71, at));
  // Every truncation of the buffer is read without a fault.
  for (size_t n = 72; n < 200; ++n) {
    read_buffer(f.engine, copy.data(), n, at);
    discard_rows(f.engine);
  }
}

namespace {

const tw::guid kImageClass = tw::guid_from_text("2cb15d1d-5fc1-11d2-abe1-00a0c911f518");
constexpr uint32_t kPayloadWord = 0x11223344;

tw::event_spec with_word(tw::event_spec e) {
  e.payload = {0x44, 0x33, 0x22, 0x11};
  return e;
}

// The first field of a record: where its payload starts and what it holds.
void expect_payload_at(const etl_record& r, uint64_t at) {
  ASSERT_FALSE(r.fields.empty());
  EXPECT_EQ(r.fields.begin()->key, at);
  EXPECT_EQ(r.fields.begin()->field.number, kPayloadWord);
}

}  // namespace

TEST(TraceEngine, EveryHeaderTypeIsReadWithItsTimeIdsAndPayload) {
  fixture f;
  f.engine.decode_enabled = true;
  f.engine.store.group_guids[0x1400] = qv::make_guid(kImageClass.data());
  tw::event_spec sys = with_word(event(0x0301, kT0 + 1));
  tw::event_spec perf = with_word(event(0x0302, kT0 + 2));
  tw::event_spec compact = with_word(event(0x0303, kT0 + 3));
  tw::event_spec full = with_word(event(0x20, kT0 + 4));
  full.provider = kImageClass;
  full.class_type = 10;
  full.class_level = 4;
  full.class_version = 3;
  tw::event_spec instance = with_word(event(0x21, kT0 + 5));
  instance.class_type = 7;
  instance.class_level = 2;
  instance.class_version = 1;
  instance.instance_id = 0x55;
  instance.parent_instance_id = 0x54;
  instance.parent = kImageClass;
  tw::event_spec message = with_word(event(0x22, kT0 + 6));
  const std::vector<tw::bytes> records = {
      tw::system_header_record(sys, false),    tw::system_header_record(sys, true),
      tw::compact_header_record(perf, false),  tw::compact_header_record(perf, true),
      tw::compact_system_record(compact, false), tw::compact_system_record(compact, true),
      tw::full_header_record(full, false),     tw::full_header_record(full, true),
      tw::instance_guid_header_record(instance, false), tw::instance_guid_header_record(instance, true),
      tw::event_header_record(with_word(event(0x23, kT0 + 7))),
      tw::event_header_record(with_word(event(0x24, kT0 + 8)), true),
      tw::instance_header_record(message, false)};
  const size_t at = f.add(records);
  f.read(0);
  auto r = f.records();
  ASSERT_EQ(r.size(), records.size());
  uint64_t offset = at + 72;
  const uint32_t header_length[] = {32, 32, 16, 16, 24, 24, 48, 48, 72, 72, 80, 80, 40};
  const uint32_t kinds[] = {kind_c001,     kind_c002,     kind_c010,      kind_c011,     kind_compact,
                            kind_compact,  kind_c00a,     kind_c00a,      kind_instance, kind_instance,
                            kind_c012,     kind_c013,     kind_9000_18};
  for (size_t i = 0; i < r.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(r[i]->file_offset, offset);
    EXPECT_EQ(r[i]->kind, kinds[i]);
    EXPECT_TRUE(r[i]->valid);
    if (kinds[i] != kind_instance) expect_payload_at(*r[i], offset + header_length[i]);
    offset += (records[i].size() + 7) / 8 * 8;
  }
  // Classic forms: the hook id is the event id, the group gives the
  // provider, the u16 at 0 is the class version; the perfinfo forms carry no
  // thread or process.
  for (int i : {0, 1, 4, 5}) {
    EXPECT_EQ(r[i]->thread_id, 0x100u + r[i]->hook_id);
    EXPECT_EQ(r[i]->process_id, 0x200u + r[i]->hook_id);
    EXPECT_EQ(r[i]->provider_id, qv::make_guid(kProcessGroup.data()));
    EXPECT_EQ(r[i]->layout_version, 2);
  }
  EXPECT_EQ(r[0]->hook_id, 0x0301);
  EXPECT_EQ(r[0]->absolute_time, kT0 + 1);
  EXPECT_EQ(r[2]->hook_id, 0x0302);
  EXPECT_EQ(r[2]->event_id, 0x0302);
  EXPECT_EQ(r[2]->thread_id, 0u);
  EXPECT_EQ(r[2]->absolute_time, kT0 + 2);
  EXPECT_EQ(r[4]->hook_id, 0x0303);
  EXPECT_EQ(r[4]->absolute_time, kT0 + 3);
  EXPECT_EQ(r[4]->time_word, 0u);  // the compact form ends behind the time
  // Full headers keep their columns (event id: the u16 at 40) and carry the
  // class version for the lookup.
  EXPECT_EQ(r[6]->event_id, 0x20);
  EXPECT_EQ(r[6]->absolute_time, kT0 + 4);
  EXPECT_EQ(r[6]->thread_id, 0x120u);
  EXPECT_EQ(r[6]->provider_id, qv::make_guid(kImageClass.data()));
  EXPECT_EQ(r[6]->layout_version, 3);
  // Instance headers: the class type as event id and opcode, the class
  // level, and the instance ids as the first fields, ahead of the payload.
  EXPECT_EQ(r[8]->event_id, 7);
  EXPECT_EQ(r[8]->opcode, 7);
  EXPECT_EQ(r[8]->level, 2);
  EXPECT_EQ(r[8]->layout_version, 1);
  EXPECT_EQ(r[8]->absolute_time, kT0 + 5);
  EXPECT_EQ(r[8]->process_id, 0x221u);
  const auto* inst = r[9]->fields.begin();
  ASSERT_EQ(r[9]->fields.size(), 4u);
  EXPECT_EQ(inst[0].field.name, "InstanceId");
  EXPECT_EQ(inst[0].field.number, 0x55u);
  EXPECT_EQ(inst[1].field.name, "ParentInstanceId");
  EXPECT_EQ(inst[1].field.number, 0x54u);
  EXPECT_EQ(inst[2].field.name, "ParentGuid");
  EXPECT_EQ(inst[2].field.bytes, std::vector<uint8_t>(kImageClass.begin(), kImageClass.end()));
  EXPECT_EQ(inst[3].key, r[9]->file_offset + 72);
  // Event headers carry the descriptor's version for the lookup.
  EXPECT_EQ(r[10]->event_id, 0x23);
  EXPECT_EQ(r[10]->absolute_time, kT0 + 7);
  EXPECT_EQ(r[12]->event_id, 0x22);
  EXPECT_EQ(r[12]->absolute_time, kT0 + 6);
  EXPECT_EQ(r[12]->layout_version, -1);
}

TEST(TraceEngine, ThirtyTwoBitKernelRecordsCarryDatesThreadsAndProcesses) {
  // A QPC-clocked 32-bit kernel trace: 0xC001 and 0xC010 records are
  // recognised (not the catch-all form with time 0) and get their dates.
  fixture f(tw::clock_qpc, 4);
  tw::event_spec sys = event(0x0301, 4000000);
  tw::event_spec perf = event(0x0F2E, 4000100);
  tw::buffer_spec shape;
  shape.timestamp = 4500000;
  f.add({tw::system_header_record(sys, false), tw::compact_header_record(perf, false)}, shape);
  f.read(0);
  auto r = f.records();
  ASSERT_EQ(r.size(), 2u);
  EXPECT_EQ(r[0]->kind, kind_c001);
  EXPECT_EQ(r[0]->absolute_time, kT0 - 1000 + 4000000);
  EXPECT_EQ(r[0]->thread_id, 0x401u);
  EXPECT_EQ(r[1]->kind, kind_c010);
  EXPECT_EQ(r[1]->absolute_time, kT0 - 1000 + 4000100);
}

TEST(TraceEngine, ABufferOfOnlyEightyByteEvents) {
  fixture f;
  f.engine.decode_enabled = true;
  std::vector<tw::bytes> records;
  for (uint16_t id = 1; id <= 50; ++id) records.push_back(tw::event_header_record(event(id, kT0 + id, 0)));
  tw::buffer_spec shape;
  shape.buffer_size = 72 + 50 * 80;  // full: Offset is BufferSize
  const size_t at = f.add(records, shape);
  f.read(0);
  auto r = f.records();
  ASSERT_EQ(r.size(), 50u);
  for (size_t i = 0; i < r.size(); ++i) {
    EXPECT_EQ(r[i]->event_id, i + 1);
    EXPECT_EQ(r[i]->file_offset, at + 72 + 80 * i);
    EXPECT_TRUE(r[i]->fields.empty());
    EXPECT_EQ(r[i]->absolute_time, kT0 + i + 1);
  }
}

TEST(TraceEngine, TheLastRecordsOfAFullBufferAreRead) {
  // A 32-byte perfinfo record 40 bytes before the end of a full buffer, then
  // 8 bytes of padding; and a buffer whose last record ends exactly at its end.
  fixture f;
  tw::event_spec sample = event(0x0F2E, kT0 + 9);
  sample.payload.assign(16, 0x5A);
  const tw::bytes tail = tw::compact_header_record(sample);
  ASSERT_EQ(tail.size(), 32u);
  const tw::bytes filler = tw::event_header_record(event(1, kT0, 4096 - 72 - 40 - 80));
  tw::buffer_spec shape;
  shape.buffer_size = 4096;
  shape.offset = 4096;
  shape.saved_offset = 4096;
  const size_t at = f.add({filler, tail}, shape);
  shape.offset = shape.saved_offset = tw::buffer_spec::kAuto;
  f.add({filler, tail, tw::bytes(8, 0)}, shape);
  const tw::bytes exact = tw::event_header_record(event(2, kT0, 4096 - 72 - 32 - 80));
  f.add({exact, tail}, shape);
  for (size_t i = 0; i < 3; ++i) {
    SCOPED_TRACE(i);
    f.read(i);
    auto r = f.records();
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[1]->kind, kind_c011);
    EXPECT_EQ(r[1]->hook_id, 0x0F2E);
    EXPECT_EQ(r[1]->file_offset, f.buffers[i] + (i < 2 ? 4096 - 40 : 4096 - 32));
    discard_rows(f.engine);
  }
  EXPECT_EQ(f.buffers[0], at);
}

TEST(TraceEngine, EightyByteEventsBesideDamageKeepTheirRows) {
  // Damaged bytes between two 80-byte events: the one before keeps its row,
  // the placeholder takes the key of the one behind (as for any record).
  fixture f;
  const tw::bytes before = tw::event_header_record(event(1, kT0, 0));
  const tw::bytes after = tw::event_header_record(event(2, kT0, 0));
  const size_t at = f.add({before, tw::bytes(24, 0xAB), after, tw::event_header_record(event(3, kT0, 0))});
  f.read(0);
  auto r = f.records();
  ASSERT_EQ(r.size(), 3u);
  EXPECT_EQ(r[0]->event_id, 1);
  EXPECT_TRUE(r[0]->valid);
  EXPECT_EQ(r[1]->kind, kind_placeholder);
  EXPECT_EQ(r[1]->file_offset, at + 72 + 80);
  EXPECT_EQ(r[1]->size, 24);
  EXPECT_EQ(r[2]->event_id, 3);
}

TEST(TraceEngine, DamageInTheLastEightyBytesOfABufferIsMarked) {
  // A record whose header is smashed in the last 80 bytes of a full buffer:
  // once those bytes went unread; now the damage gets its placeholder.
  fixture f;
  const tw::bytes filler = tw::event_header_record(event(1, kT0, 4096 - 72 - 48 - 80));
  tw::bytes smashed = tw::event_header_record(event(2, kT0, 0));
  smashed.resize(48);
  for (size_t i = 0; i < 8; ++i) smashed[i] = 0xAB;
  tw::buffer_spec shape;
  shape.buffer_size = 4096;
  const size_t at = f.add({filler, smashed}, shape);
  f.read(0);
  auto r = f.records();
  ASSERT_EQ(r.size(), 2u);
  EXPECT_EQ(r[0]->event_id, 1);
  EXPECT_EQ(r[1]->kind, kind_placeholder);
  EXPECT_EQ(r[1]->file_offset, at + 4096 - 48);
}

TEST(TraceEngine, ZeroSizedBufferIsReadAgainstTheBytesInHand) {
  fixture f;
  tw::buffer_spec shape;
  shape.buffer_size = 600;
  const size_t at = f.add({tw::event_header_record(event(1, kT0)), tw::event_header_record(event(2, kT0))}, shape);
  tw::bytes copy(f.w.data().begin() + static_cast<std::ptrdiff_t>(at), f.w.data().end());
  for (uint32_t size_word : {0u, 40u}) {
    SCOPED_TRACE(size_word);
    for (int i = 0; i < 4; ++i) copy[i] = uint8_t(size_word >> (8 * i));
    read_buffer(f.engine, copy.data(), copy.size(), at);
    EXPECT_EQ(f.engine.records.size(), 2u);
    discard_rows(f.engine);
  }
}

TEST(TraceEngine, TheLogHeaderBufferGivesTheRecordsBehindItsOwn) {
  tw::log_header_spec h;
  h.buffer_size = 4096;
  h.start_time = kT0;
  h.system_time = 5000000;
  h.clock = tw::clock_qpc;
  tw::event_spec ext = event(0x0005, 5000000);
  ext.payload.assign(36, 0);
  tw::event_spec part = event(0x0050, 5000000);
  part.payload.assign(48, 0);
  tw::event_spec build = event(0x0042, 5000000);
  build.payload = {'1', '0', '.', '0', 0};
  h.records = {tw::system_header_record(ext), tw::system_header_record(part), tw::compact_header_record(build)};
  tw::etl_writer w;
  w.log_header(h);
  w.patch_u32(16, 0);  // Windows writes this buffer with a TimeStamp of 0
  w.patch_u32(20, 0);
  trace_engine engine;
  ASSERT_TRUE(open_with_log_header(engine, w.data().data(), w.size()));
  engine.decode_enabled = false;
  ASSERT_TRUE(read_log_header_buffer(engine, w.data().data(), w.size()));
  std::vector<uint16_t> hooks;
  for (const etl_record& r : engine.records) {
    hooks.push_back(r.hook_id);
    // The buffer's TimeStamp is 0: the raw times stand unbounded.
    EXPECT_EQ(r.absolute_time, kT0);
  }
  EXPECT_EQ(hooks, (std::vector<uint16_t>{0x0005, 0x0050, 0x0042}));
  // The header record itself is not among them, and the walk of the next
  // buffer is not disturbed: the first buffer of the loop is still unseen.
  EXPECT_FALSE(engine.have_first_buffer);
}
