// Every record a trace holds becomes its own row: each header form Windows
// writes, records of exactly their header's length, the last records of a
// full or compressed buffer, the records behind the log header in the first
// buffer; classic events under full headers decode by their class, pointers
// follow each event's width, stack-trace items show their addresses. On the
// real traces, the rows match a count of the records made without the reader.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "tests/e2e_util.h"
#include "tests/record_count.h"
#include "tests/trace_writer.h"

namespace {

constexpr uint64_t kT0 = 134170743671234567ull;  // 2026-03-04 05:06:07.1234567
constexpr uint64_t kSecond = 10000000;
const char kAcme[] = "5f0b2a11-7c3e-4d10-9a55-0c1d2e3f4a5b";
const char kNoGuid[] = "00000000-0000-0000-0000-000000000000";
const char kPerfInfo[] = "ce1dbfb4-137e-4da6-87b0-3f59aa102cbc";
const char kImage[] = "2cb15d1d-5fc1-11d2-abe1-00a0c911f518";
const char kProcess[] = "3d6fa8d0-fe05-11d0-9dda-00c04fd7ba7c";

std::string padded(const std::string& text, size_t width) {
  return text.size() >= width ? text : text + std::string(width - text.size(), ' ');
}

std::string printed(const char* format, unsigned long long value) {
  char buf[64];
  std::snprintf(buf, sizeof buf, format, value);
  return buf;
}

// The cells of one expected row of the default padded output.
struct row_cells {
  std::string time;            // "2026-03-04 05:06:08.123456700"
  std::string guid = kNoGuid;
  std::string name;
  std::string session;
  std::string activity = kNoGuid;
  unsigned event_id = 0;
  unsigned process_id = 0;
  unsigned thread_id = 0;
  unsigned channel = 0, level = 0, opcode = 0, task = 0;
  unsigned long long keyword = 0;
  unsigned long long time_word = 0;
  unsigned processor = 0;
  std::string data;            // "data{...}", or empty
};

std::string row(const row_cells& c) {
  return " " + c.time + " | " + c.guid + " | " + padded(c.name, 36) + " | " + padded(c.session, 36) + " | " +
         c.activity + " | " + printed("0x%06llx", c.event_id) + " | " + printed("0x%08llx", c.process_id) +
         " | " + printed("0x%07llx", c.thread_id) + " | " + printed("%7llu", c.channel) + " | " +
         printed("%5llu", c.level) + " | " + printed("%6llu", c.opcode) + " | " + printed("%7llu", c.task) +
         " | " + printed("0x%016llx", c.keyword) + " | " + printed("0x%016llx", c.time_word) + " | " +
         printed("%9llu", c.processor) + " | " + padded(c.data, 16) + "\n";
}

// "2026-03-04 05:06:07.123456700" plus whole seconds (under a minute).
std::string at_second(int s) { return printed("2026-03-04 05:06:%02llu.123456700", 7ull + s); }

// The rows behind the column line and the header row.
std::string event_rows(const std::string& out) {
  const size_t columns = out.find(" created [utc or #ticks]");
  if (columns == std::string::npos) return "";
  const size_t header_row = out.find('\n', columns) + 1;
  return out.substr(out.find('\n', header_row) + 1);
}

tw::bytes le32(uint32_t v) { return {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)}; }
tw::bytes le64(uint64_t v) {
  tw::bytes b = le32(uint32_t(v));
  tw::bytes h = le32(uint32_t(v >> 32));
  b.insert(b.end(), h.begin(), h.end());
  return b;
}
void append(tw::bytes& to, const tw::bytes& b) { to.insert(to.end(), b.begin(), b.end()); }

// 4 bytes the guessing engine shows as one 32-bit number.
const tw::bytes kWord = {0x44, 0x33, 0x22, 0x11};
const char kWordData[] = "data{\"01-guess_uint32\":\"0x11223344\"}";

tw::event_spec event_at(uint16_t id, int second, uint32_t thread, uint32_t process, const char* provider = kAcme) {
  tw::event_spec e;
  e.id = id;
  e.time = kT0 + second * kSecond;
  e.thread_id = thread;
  e.process_id = process;
  e.provider = tw::guid_from_text(provider);
  e.level = 0;
  e.payload = kWord;
  return e;
}

// A PerfInfo sampled profile under its group (0x0F2E): the instruction
// pointer is pointer-sized.
const char kPerfInfoLayout[] =
    "{ce1dbfb4-137e-4da6-87b0-3f59aa102cbc} ! $0x0F2E, LInstructionPointer, 16, LThreadId, 8, LCount, 6, "
    "LReserved, 6\n";

}  // namespace

// One trace with every header form: three records behind the log header,
// then a buffer of each form, a compressed buffer and a regular one whose
// last record starts 40 bytes before the end.
TEST(Records, EveryHeaderFormGivesItsRow) {
  e2e::temp_dir dir;
  tw::log_header_spec h;
  h.buffer_size = 4096;
  h.start_time = h.system_time = kT0;
  h.logger_name = "Records";
  tw::event_spec empty = event_at(7, 2, 0x12, 0x22);
  empty.payload.clear();
  tw::event_spec message = event_at(9, 3, 0x13, 0x23);
  h.records = {tw::system_header_record(event_at(0x1F01, 1, 0x11, 0x21)), tw::event_header_record(empty),
               tw::instance_header_record(message, false)};
  tw::etl_writer w;
  w.log_header(h);

  tw::event_spec full = event_at(0x31, 10, 0x1a, 0x2a);
  full.class_type = 1;
  full.class_level = 4;
  tw::event_spec instance = event_at(0x32, 12, 0x1c, 0x2c);
  instance.class_type = 5;
  instance.class_level = 3;
  instance.class_version = 1;
  instance.instance_id = 0x10;
  instance.parent_instance_id = 0x0f;
  instance.parent = tw::guid_from_text(kAcme);
  tw::buffer_spec shape;
  shape.timestamp = kT0 + 20 * kSecond;
  shape.processor = 2;
  w.add_buffer({tw::system_header_record(event_at(0x1F02, 4, 0x14, 0x24), false),
                tw::system_header_record(event_at(0x1F03, 5, 0x15, 0x25), true),
                tw::compact_system_record(event_at(0x1F04, 6, 0x16, 0x26), false),
                tw::compact_system_record(event_at(0x1F05, 7, 0x17, 0x27), true),
                tw::compact_header_record(event_at(0x1F06, 8, 0, 0), false),
                tw::compact_header_record(event_at(0x1F07, 9, 0, 0), true),
                tw::full_header_record(full, false),
                tw::full_header_record(event_at(0x33, 11, 0x1b, 0x2b), true),
                tw::instance_guid_header_record(instance, false),
                tw::instance_guid_header_record(event_at(0x34, 13, 0x1d, 0x2d), true),
                tw::event_header_record(event_at(0x35, 14, 0x1e, 0x2e)),
                tw::event_header_record(event_at(0x36, 15, 0x1f, 0x2f), true),
                tw::instance_header_record(event_at(0x37, 16, 0x20, 0x30), false)},
               shape);

  // A sampled profile, 32 bytes: 8-byte instruction pointer, thread, count.
  tw::event_spec sample = event_at(0x0F2E, 18, 0, 0);
  sample.payload = le64(0xfffff80312345678ull);
  append(sample.payload, le32(0x1234));
  append(sample.payload, {1, 0, 0, 0});
  const tw::bytes tail = tw::compact_header_record(sample);
  const tw::bytes filler = tw::event_header_record(event_at(0x38, 17, 0x21, 0x31));  // 84 bytes
  // Compressed: expanded, the records end at 72 + 88 + 32 + 8 = 200.
  w.add_compressed_buffer({filler, tail, tw::bytes(8, 0)}, kT0 + 20 * kSecond);
  // Regular and full: Offset is BufferSize, 8 bytes of padding behind the tail.
  tw::buffer_spec full_shape;
  full_shape.buffer_size = full_shape.offset = full_shape.saved_offset = 200;
  full_shape.timestamp = kT0 + 20 * kSecond;
  full_shape.processor = 3;
  w.add_buffer({filler, tail}, full_shape);

  const std::string trace = dir.write("forms.etl", w.data());
  e2e::write_text(dir.path("t.txt"), kPerfInfoLayout);
  const e2e::run_result r = e2e::run_quon("-quiet -templates " + dir.path("t.txt") + " -log " + trace);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");

  auto classic = [](int second, unsigned hook, unsigned thread, unsigned process, unsigned processor) {
    row_cells c;
    c.time = at_second(second);
    c.session = "Records";
    c.event_id = hook;
    c.thread_id = thread;
    c.process_id = process;
    c.processor = processor;
    c.data = kWordData;
    return c;
  };
  auto acme = [](int second, unsigned id, unsigned thread, unsigned process, unsigned processor) {
    row_cells c;
    c.time = at_second(second);
    c.guid = kAcme;
    c.session = "Records";
    c.event_id = id;
    c.thread_id = thread;
    c.process_id = process;
    c.processor = processor;
    c.data = kWordData;
    return c;
  };
  std::string expected;
  // The first buffer, behind the log header: a system record with no group,
  // an 80-byte event (no data), a message.
  expected += row(classic(1, 0x1F01, 0x11, 0x21, 0));
  row_cells no_payload = acme(2, 7, 0x12, 0x22, 0);
  no_payload.data = "";
  expected += row(no_payload);
  expected += row(acme(3, 9, 0x13, 0x23, 0));
  // System headers of both widths and their compact forms: thread, process.
  expected += row(classic(4, 0x1F02, 0x14, 0x24, 2));
  expected += row(classic(5, 0x1F03, 0x15, 0x25, 2));
  expected += row(classic(6, 0x1F04, 0x16, 0x26, 2));
  expected += row(classic(7, 0x1F05, 0x17, 0x27, 2));
  // Perfinfo headers: the time alone.
  expected += row(classic(8, 0x1F06, 0, 0, 2));
  expected += row(classic(9, 0x1F07, 0, 0, 2));
  // Full headers: the columns of the EVENT_HEADER reading (event id at 40).
  expected += row(acme(10, 0x31, 0x1a, 0x2a, 2));
  expected += row(acme(11, 0x33, 0x1b, 0x2b, 2));
  // Instance headers: class type as event id and opcode, class level, then
  // the instance ids ahead of the payload.
  row_cells inst = acme(12, 5, 0x1c, 0x2c, 2);
  inst.opcode = 5;
  inst.level = 3;
  inst.data = "data{\"01-InstanceId\":\"0x00000010\";\"02-ParentInstanceId\":\"0x0000000f\";\"03-ParentGuid\":\"{" +
              std::string(kAcme) + "}\";\"04-guess_uint32\":\"0x11223344\"}";
  expected += row(inst);
  inst = acme(13, 0, 0x1d, 0x2d, 2);
  inst.data = "data{\"01-InstanceId\":\"0x00000000\";\"02-ParentInstanceId\":\"0x00000000\";\"03-ParentGuid\":\"{" +
              std::string(kNoGuid) + "}\";\"04-guess_uint32\":\"0x11223344\"}";
  expected += row(inst);
  expected += row(acme(14, 0x35, 0x1e, 0x2e, 2));
  expected += row(acme(15, 0x36, 0x1f, 0x2f, 2));
  expected += row(acme(16, 0x37, 0x20, 0x30, 2));
  // The compressed buffer and the full one end with the sampled profile.
  row_cells profile;
  profile.time = at_second(18);
  profile.guid = kPerfInfo;
  profile.name = "Kernel-PerfInfo-Trace";
  profile.session = "Records";
  profile.event_id = 0x0F2E;
  profile.data = "data{\"01-InstructionPointer\":\"0xfffff80312345678\";\"02-ThreadId\":\"0x00001234\";"
                 "\"03-Count\":\"0x0001\";\"04-Reserved\":\"0x0000\"}";
  expected += row(acme(17, 0x38, 0x21, 0x31, 0));
  expected += row(profile);
  profile.processor = 3;
  expected += row(acme(17, 0x38, 0x21, 0x31, 3));
  expected += row(profile);
  EXPECT_EQ(event_rows(r.out), expected);
  EXPECT_EQ(e2e::count(r.out, "corrupted record"), 0u);
}

// A 32-bit kernel trace (QPC clock): its 0xC001 and 0xC010 records carry
// their dates, and their payloads 4-byte pointers. The whole output.
TEST(Records, ThirtyTwoBitKernelTraceWholeOutput) {
  e2e::temp_dir dir;
  tw::log_header_spec h;
  h.buffer_size = 4096;
  h.pointer_size = 4;
  h.clock = tw::clock_qpc;
  h.perf_freq = 10000000;
  h.system_time = 1000000000;
  h.start_time = kT0;
  h.end_time = 134170744671234567ull;
  h.boot_time = 134170700000000000ull;
  h.provider_version = 7601;
  h.logger_name = "NT Kernel Logger";
  h.log_file_name = "c:\\k.etl";
  tw::etl_writer w;
  w.log_header(h);

  // A process start of Windows 7 (version 3), from a 32-bit kernel.
  tw::event_spec start;
  start.id = 0x0301;
  start.class_version = 3;
  start.time = 1000000000 + kSecond;
  start.thread_id = 0x10;
  start.process_id = 4;
  for (uint32_t v : {0x85a0c120u, 0x1f4u, 4u, 1u, 0x103u, 0x7e0c0000u, 0x8c3a1000u, 0u}) append(start.payload, le32(v));
  append(start.payload, {1, 1, 0, 0, 0, 0, 0, 5, 18, 0, 0, 0});  // S-1-5-18
  append(start.payload, {'c', 'a', 'l', 'c', '.', 'e', 'x', 'e', 0});
  append(start.payload, {'c', 0, 'a', 0, 'l', 0, 'c', 0, 0, 0});
  // A sampled profile: a 4-byte instruction pointer.
  tw::event_spec sample;
  sample.id = 0x0F2E;
  sample.time = 1000000000 + 2 * kSecond;
  sample.payload = le32(0x8054a123);
  append(sample.payload, le32(0x10));
  append(sample.payload, {1, 0, 0, 0});
  tw::buffer_spec shape;
  shape.timestamp = 1000000000 + 10 * kSecond;
  shape.processor = 1;
  w.add_buffer({tw::system_header_record(start, false), tw::compact_header_record(sample, false)}, shape);

  const std::string trace = dir.write("k.etl", w.data());
  e2e::write_text(dir.path("t.txt"), kPerfInfoLayout);
  const e2e::run_result r = e2e::run_quon("-quiet -templates " + dir.path("t.txt") + " -log " + trace);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
  row_cells process;
  process.time = at_second(1);
  process.guid = kProcess;
  process.name = "Kernel-Process-Trace";
  process.session = "NT Kernel Logger";
  process.event_id = 0x0301;
  process.thread_id = 0x10;
  process.process_id = 4;
  process.processor = 1;
  process.data = "data{\"01-Process_Start\":\"{guess}\";\"02-UniqueProcessKey\":\"0x85a0c120\";\"03-ProcessId\":\"0x000001f4\";"
                 "\"04-ParentId\":\"0x00000004\";\"05-SessionId\":\"0x00000001\";\"06-ExitStatus\":\"0x00000103\";"
                 "\"07-DirectoryTableBase\":\"0x7e0c0000\";\"08-TokenUserSid\":\"0x8c3a1000\";"
                 "\"09-TokenUserAttributes\":\"0x00000000\";\"10-UserSID\":\"S-1-5-18\";\"11-ImageFileName\":\"calc.exe\";"
                 "\"12-CommandLine\":\"calc\"}";
  row_cells profile;
  profile.time = at_second(2);
  profile.guid = kPerfInfo;
  profile.name = "Kernel-PerfInfo-Trace";
  profile.session = "NT Kernel Logger";
  profile.event_id = 0x0F2E;
  profile.processor = 1;
  profile.data = "data{\"01-InstructionPointer\":\"0x8054a123\";\"02-ThreadId\":\"0x00000010\";\"03-Count\":\"0x0001\";"
                 "\"04-Reserved\":\"0x0000\"}";
  const std::string expected =
      "quon ver: 0.31\n"
      "// run at: <time>\n"
      "// command line: " + std::string(QUON_BINARY) + " -quiet -templates " + dir.path("t.txt") + " -log " + trace + "\n"
      "---------------------\n"
      "file: " + trace + "\n"
      "orig source path: c:\\k.etl\n"
      " created [utc or #ticks]       | provider guid                        | provider name                        | session name                         | activity id                          | event id | process id | thread id | channel | level | opcode | task id | keywords           | processor time     | processor | extra data      \n"
      " 2026-03-04 05:06:07.123456700 | <header info only>                   |                                      | NT Kernel Logger                     |                                      |          | 0x00001234 | 0x0005678 |         |       |        |         |                    | 0x0000000000000000 |           | "
      "data{\"00-TimeType:QPC time\";\"01-Version:0x0a000000\";\"02-NumProcessors:4\";\"03-EndTime:2026-03-04T05:07:47.123456700Z\";"
      "\"04-TimerRes:0x0002625a\";\"05-LogfileMode:0x00000001\";\"06-CPUSpeed:0x00000bb8\";\"07-TimezoneBias:0\";\"08-DaylightBias:0\";"
      "\"09-BootTime:2026-03-04T03:53:20.000000000Z\";\"10-PerfFreq:0x01dcab8a70c3f800\";\"11-LogfileName:c:/k.etl\"}\n" +
      row(process) + row(profile);
  EXPECT_EQ(e2e::without_run_time(r.out), expected);
}

// Full headers under a kernel class GUID decode as that class's events: the
// image class with type 10 is an image load (hook 0x140A), in the layout of
// the trace's build and at the pointer width of the header type.
TEST(Records, ClassicFullHeaderUnderTheImageClassIsAnImageLoad) {
  e2e::temp_dir dir;
  // 64-bit, build 19041: the current layout.
  tw::log_header_spec h;
  h.buffer_size = 4096;
  h.start_time = h.system_time = kT0;
  h.logger_name = "Images";
  tw::etl_writer w;
  w.log_header(h);
  tw::event_spec load = event_at(0, 1, 0x40, 0x1f4, kImage);
  load.class_type = 10;
  load.class_version = 3;
  load.payload = le64(0x00007ff6a1b20000ull);
  append(load.payload, le64(0x5000));
  for (uint32_t v : {0x1f4u, 0x12345u, 0x5f000000u}) append(load.payload, le32(v));
  append(load.payload, {0x0c, 0x01, 0, 0});
  append(load.payload, le64(0x00007ff6a1b20000ull));
  for (int i = 0; i < 4; ++i) append(load.payload, le32(0));
  append(load.payload, {'n', 0, 'o', 0, 't', 0, 'e', 0, '.', 0, 'e', 0, 'x', 0, 'e', 0, 0, 0});
  w.add_buffer({tw::full_header_record(load, true)}, {.timestamp = kT0 + 20 * kSecond});
  e2e::run_result r = e2e::run_quon("-quiet -log " + dir.write("wide.etl", w.data()));
  row_cells c;
  c.time = at_second(1);
  c.guid = kImage;
  c.name = "Kernel-ImageLoad-Trace";
  c.session = "Images";
  c.thread_id = 0x40;
  c.process_id = 0x1f4;
  c.data = "data{\"01-Image_Load\":\"{guess}\";\"02-ImageBase\":\"0x00007ff6a1b20000\";\"03-ImageSize\":\"0x0000000000005000\";"
           "\"04-ProcessId\":\"0x000001f4\";\"05-ImageChecksum\":\"0x00012345\";\"06-TimeDateStamp\":\"0x5f000000\";"
           "\"07-SignatureLevel\":\"0x0c\";\"08-SignatureType\":\"0x01\";\"09-Reserved0\":\"0x0000\";"
           "\"10-DefaultBase\":\"0x00007ff6a1b20000\";\"11-Reserved1\":\"0x00000000\";\"12-Reserved2\":\"0x00000000\";"
           "\"13-Reserved3\":\"0x00000000\";\"14-Reserved4\":\"0x00000000\";\"15-FileName\":\"note.exe\"}";
  EXPECT_EQ(event_rows(r.out), row(c));

  // 32-bit, build 6001 (Vista): its layout, 4-byte pointers.
  h.pointer_size = 4;
  h.provider_version = 6001;
  tw::etl_writer narrow;
  narrow.log_header(h);
  load.class_version = 2;
  load.payload = le32(0x01160000);
  for (uint32_t v : {0x19e000u, 0xb2cu, 0x4ba26867u, 0xcafebabeu, 0u, 0x01000000u, 0u, 0u, 0u, 0u})
    append(load.payload, le32(v));
  append(load.payload, {'a', 0, '.', 0, 'e', 0, 'x', 0, 'e', 0, 0, 0});
  load.process_id = 0xb2c;
  narrow.add_buffer({tw::full_header_record(load, false)}, {.timestamp = kT0 + 20 * kSecond});
  r = e2e::run_quon("-quiet -log " + dir.write("narrow.etl", narrow.data()));
  c.process_id = 0xb2c;
  c.data = "data{\"01-Image_Load\":\"{guess}\";\"02-ImageBase\":\"0x01160000\";\"03-ImageSize\":\"0x0019e000\";"
           "\"04-ProcessId\":\"0x00000b2c\";\"05-ImageChecksum\":\"0x4ba26867\";\"06-TimeDateStamp\":\"0xcafebabe\";"
           "\"07-Reserved0\":\"0x00000000\";\"08-DefaultBase\":\"0x01000000\";\"09-Reserved1\":\"0x00000000\";"
           "\"10-Reserved2\":\"0x00000000\";\"11-Reserved3\":\"0x00000000\";\"12-Reserved4\":\"0x00000000\";"
           "\"13-FileName\":\"a.exe\"}";
  EXPECT_EQ(event_rows(r.out), row(c));
}

// An EVENT_HEADER's pointers: its Flags 0x20 (32-bit header) or 0x40 (64-bit
// header) first, else its header type (0xC012 32-bit, 0xC013 64-bit),
// whatever the log header says.
TEST(Records, PointerWidthOfEachEvent) {
  e2e::temp_dir dir;
  tw::log_header_spec h;
  h.buffer_size = 4096;
  h.start_time = h.system_time = kT0;
  h.logger_name = "Widths";
  tw::etl_writer w;
  w.log_header(h);  // PointerSize 8
  const tw::bytes payload = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99, 0xaa, 0xbb, 0xcc};
  std::vector<tw::bytes> records;
  const struct { uint16_t flags; bool kind7; } cases[] = {{0x20, true}, {0, true}, {0, false}, {0x40, false}};
  for (int i = 0; i < 4; ++i) {
    tw::event_spec e = event_at(1, i + 1, 0x10, 0x20);
    e.flags = cases[i].flags;
    e.payload = payload;
    records.push_back(tw::event_header_record(e, cases[i].kind7));
  }
  w.add_buffer(records, {.timestamp = kT0 + 20 * kSecond});
  e2e::write_text(dir.path("t.txt"), std::string("{") + kAcme + "} ! $1, LAddress, 16, LValue, 8\n");
  const e2e::run_result r =
      e2e::run_quon("-quiet -templates " + dir.path("t.txt") + " -log " + dir.write("w.etl", w.data()));
  const std::string narrow =
      "data{\"01-Address\":\"0x44332211\";\"02-Value\":\"0x88776655\";\"03-guess_uint32\":\"0xccbbaa99\"}";
  const std::string wide = "data{\"01-Address\":\"0x8877665544332211\";\"02-Value\":\"0xccbbaa99\"}";
  std::string expected;
  for (int i = 0; i < 4; ++i) {
    row_cells c;
    c.time = at_second(i + 1);
    c.guid = kAcme;
    c.session = "Widths";
    c.event_id = 1;
    c.thread_id = 0x10;
    c.process_id = 0x20;
    c.data = i == 0 || i == 2 ? narrow : wide;
    expected += row(c);
  }
  EXPECT_EQ(event_rows(r.out), expected);
}

// Extended items are walked by their sizes: stack traces give their
// addresses, an unknown type is stepped over, and the payload starts behind
// the last item.
TEST(Records, StackTraceItemsAndItemsOfUnknownType) {
  e2e::temp_dir dir;
  tw::log_header_spec h;
  h.buffer_size = 4096;
  h.start_time = h.system_time = kT0;
  h.logger_name = "Stacks";
  tw::etl_writer w;
  w.log_header(h);
  tw::event_spec e = event_at(1, 1, 0x10, 0x20);
  tw::bytes stack64 = le64(0);  // the match id
  for (uint64_t a : {0x00007ffd77b2c974ull, 0xfffff80312345678ull}) append(stack64, le64(a));
  tw::bytes stack32 = le64(7);
  for (uint32_t a : {0x77b2c974u, 0x00401000u}) append(stack32, le32(a));
  e.extended = tw::extended_item(6, stack64, true);
  append(e.extended, tw::extended_item(15, le64(0x1234), true));  // not read here
  append(e.extended, tw::extended_item(5, stack32, true));
  append(e.extended, tw::extended_item(2, {1, 1, 0, 0, 0, 0, 0, 5, 18, 0, 0, 0}, false));
  e.payload = le32(0xabcdef01);
  w.add_buffer({tw::event_header_record(e, true)}, {.timestamp = kT0 + 20 * kSecond});
  e2e::write_text(dir.path("t.txt"), std::string("{") + kAcme + "} ! $1, LValue, 8\n");
  const e2e::run_result r =
      e2e::run_quon("-quiet -templates " + dir.path("t.txt") + " -log " + dir.write("s.etl", w.data()));
  row_cells c;
  c.time = at_second(1);
  c.guid = kAcme;
  c.session = "Stacks";
  c.event_id = 1;
  c.thread_id = 0x10;
  c.process_id = 0x20;
  c.data = "data{\"01-stack[0]\":\"0x00007ffd77b2c974\";\"02-stack[1]\":\"0xfffff80312345678\";"
           "\"03-stack[0]\":\"0x77b2c974\";\"04-stack[1]\":\"0x00401000\";\"05-sid\":\"S-1-5-18\";"
           "\"06-Value\":\"0xabcdef01\"}";
  EXPECT_EQ(event_rows(r.out), row(c));
}

namespace {

bool samples_present() {
  struct stat st {};
  return ::stat(QUON_SAMPLES_DIR, &st) == 0 && S_ISDIR(st.st_mode);
}

// Every .etl file under `folder`, in name order per folder.
void find_traces(const std::string& folder, std::vector<std::string>& out) {
  DIR* d = opendir(folder.c_str());
  if (!d) return;
  std::vector<std::string> names;
  while (dirent* entry = readdir(d)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  closedir(d);
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    const std::string path = folder + "/" + name;
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) continue;
    if (S_ISDIR(st.st_mode)) find_traces(path, out);
    else if (name.size() > 4 && name.compare(name.size() - 4, 4, ".etl") == 0) out.push_back(path);
  }
}

// The rows of the default output, the header row included: lines whose
// second cell is a GUID or "<header info only>".
uint64_t rows_of(const std::string& out) {
  uint64_t rows = 0;
  size_t pos = 0;
  while (pos < out.size()) {
    size_t eol = out.find('\n', pos);
    if (eol == std::string::npos) eol = out.size();
    const std::string line = out.substr(pos, eol - pos);
    pos = eol + 1;
    const size_t bar = line.find(" | ");
    if (line.empty() || line[0] != ' ' || bar == std::string::npos) continue;
    const std::string cell = line.substr(bar + 3, 36);
    const bool guid = cell.size() == 36 && cell[8] == '-' && cell[13] == '-' && cell[18] == '-' && cell[23] == '-' &&
                      cell.find_first_not_of("0123456789abcdef-") == std::string::npos;
    if (guid || cell.rfind("<header info only>", 0) == 0) ++rows;
  }
  return rows;
}

}  // namespace

// The counter itself, on a trace whose records are known: the log header,
// three records behind it, four in a buffer, three in a compressed one.
TEST(Records, TheSeparateCountOfAWrittenTrace) {
  e2e::temp_dir dir;
  tw::log_header_spec h;
  h.buffer_size = 4096;
  h.start_time = h.system_time = kT0;
  h.records = {tw::system_header_record(event_at(0x1F01, 1, 1, 1)), tw::compact_header_record(event_at(0x1F02, 1, 0, 0)),
               tw::event_header_record(event_at(3, 1, 1, 1))};
  tw::etl_writer w;
  w.log_header(h);
  w.add_buffer({tw::event_header_record(event_at(4, 2, 1, 1)), tw::full_header_record(event_at(5, 2, 1, 1), true),
                tw::instance_guid_header_record(event_at(6, 2, 1, 1)), tw::instance_header_record(event_at(7, 2, 1, 1), false)},
               {.timestamp = kT0 + 20 * kSecond});
  w.add_compressed_buffer({tw::event_header_record(event_at(8, 3, 1, 1)), tw::compact_system_record(event_at(0x1F09, 3, 1, 1)),
                           tw::system_header_record(event_at(0x1F0A, 3, 1, 1), false)},
                          kT0 + 20 * kSecond);
  const std::string trace = dir.write("c.etl", w.data());
  const record_count c = count_records(trace);
  ASSERT_TRUE(c.ok) << c.problem;
  EXPECT_EQ(c.records, 11u);
  EXPECT_EQ(c.buffers, 3u);
  EXPECT_EQ(c.by_type.at(0xC002), 2u);
  EXPECT_EQ(c.by_type.count(0xC013), 0u);  // the writer's default form is 0xC012
  EXPECT_EQ(c.by_type.at(0xC012), 3u);
  const e2e::run_result r = e2e::run_quon("-quiet -log " + trace);
  EXPECT_EQ(rows_of(r.out), c.records);
}

// On every real trace: one row per record (the header row for the log
// header's own), and no placeholder, since none of them is damaged.
TEST(Records, EverySampleGivesOneRowPerRecord) {
  if (!samples_present()) GTEST_SKIP() << "no samples folder";
  std::vector<std::string> traces;
  find_traces(QUON_SAMPLES_DIR, traces);
  EXPECT_GE(traces.size(), 14u);
  for (const std::string& trace : traces) {
    SCOPED_TRACE(trace);
    const record_count c = count_records(trace);
    ASSERT_TRUE(c.ok) << c.problem;
    const e2e::run_result r = e2e::run_quon("-quiet -log '" + trace + "'");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(rows_of(r.out), c.records);
    EXPECT_EQ(e2e::count(r.out, "data{corrupted record}"), 0u);
  }
}

// The Vista image events of a test program, logged under the image class
// GUID with full headers (class version 2, the layout of build 6001): every
// one decodes as an image event with its base, size and file name.
TEST(Records, VistaImageEventsUnderFullHeadersDecodeByTheirClass) {
  if (!samples_present()) GTEST_SKIP() << "no samples folder";
  const e2e::run_result r =
      e2e::run_quon("-quiet -log '" + std::string(QUON_SAMPLES_DIR) + "/syzygy-2010-06/image_data_32_v2.etl'");
  EXPECT_EQ(e2e::count(r.out, "| Kernel-ImageLoad-Trace "), 26u);
  EXPECT_EQ(e2e::count(r.out, "\"13-FileName\":\"C:/"), 26u);
  EXPECT_EQ(r.out.find("guess_"), std::string::npos);
  // The record at 65608: base, size, process, checksum, time stamp, name.
  EXPECT_NE(r.out.find("data{\"01-Image_DCStart\":\"{guess}\";\"02-ImageBase\":\"0x01160000\";"
                       "\"03-ImageSize\":\"0x0019e000\";\"04-ProcessId\":\"0x00000b2c\";"
                       "\"05-ImageChecksum\":\"0x4ba26867\";\"06-TimeDateStamp\":\"0xcafebabe\";"),
            std::string::npos);
  EXPECT_NE(r.out.find("\"13-FileName\":\"C:/code/sawbuck/src/sawbuck/Debug/test_program.exe\"}"),
            std::string::npos);
}
