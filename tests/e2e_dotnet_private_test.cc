// The .NET runtime's private provider (data/manifest_dotnet_private.txt) end
// to end, on synthetic traces: the provider is named, the stack walk reads as
// many return addresses as its FrameCount says, at the pointer width of the
// event's header type, each version of an event reads with its own layout, and a version
// the manifest leaves undescribed goes to the guesser whole. Every expected
// value is worked out from the payload bytes written here.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/e2e_util.h"
#include "tests/trace_writer.h"

namespace {

const char kPrivate[] = "763fd754-7086-4dfe-95eb-c01a46faf4ca";

struct private_event {
  uint16_t id;
  uint8_t version;
  bool wide;  // header type 0xC013 (a 64-bit process), else 0xC012 (32-bit)
  tw::bytes payload;
};

std::string trace_of(const e2e::temp_dir& dir, const std::string& name, uint32_t pointer_size,
                     const std::vector<private_event>& events) {
  tw::log_header_spec h;
  h.buffer_size = 4096;
  h.pointer_size = pointer_size;
  h.start_time = h.system_time = 134170743671234567ull;
  tw::etl_writer w;
  w.log_header(h);
  std::vector<tw::bytes> records;
  for (const private_event& e : events) {
    tw::event_spec s;
    s.provider = tw::guid_from_text(kPrivate);
    s.id = e.id;
    s.version = e.version;
    s.time = h.start_time;
    s.payload = e.payload;
    records.push_back(tw::event_header_record(s, e.wide));
  }
  w.add_buffer(records);
  return dir.write(name, w.data());
}

// The provider name and data cell of each row of the private provider.
std::vector<std::string> rows_of(const std::string& out) {
  std::vector<std::string> rows;
  size_t at = 0;
  while (at < out.size()) {
    size_t eol = out.find('\n', at);
    if (eol == std::string::npos) eol = out.size();
    const std::string line = out.substr(at, eol - at);
    at = eol + 1;
    const size_t guid = line.find(std::string("| ") + kPrivate + " | ");
    const size_t data = line.find("data{");
    if (guid == std::string::npos || data == std::string::npos) continue;
    const size_t name_at = guid + 2 + 36 + 3;
    const size_t name_end = line.find(" |", name_at);
    std::string name = line.substr(name_at, name_end - name_at);
    name.erase(name.find_last_not_of(' ') + 1);
    rows.push_back(name + " " + line.substr(data));
  }
  return rows;
}

const std::string kName = "Microsoft-Windows-DotNETRuntimePrivate";

// A stack walk payload: ClrInstanceID, two reserved bytes, FrameCount and the
// frames at `width` bytes each.
tw::bytes stack_walk(uint16_t clr, const std::vector<uint64_t>& frames, int width) {
  tw::bytes b;
  tw::append_u16(b, clr);
  b.push_back(0);
  b.push_back(0);
  tw::append_u32(b, uint32_t(frames.size()));
  for (uint64_t f : frames) width == 8 ? tw::append_u64(b, f) : tw::append_u32(b, uint32_t(f));
  return b;
}

}  // namespace

TEST(DotNetPrivate, StackWalkReadsFrameCountAddresses) {
  e2e::temp_dir dir;
  // A 64-bit process: three frames of 8 bytes; then a 32-bit process in the
  // same trace (header type 0xC012): two frames of 4 bytes; then a walk of
  // one frame, which the manifest's fixed count of two would have overrun.
  const std::string trace =
      trace_of(dir, "stack.etl", 8,
               {{151, 0, true, stack_walk(7, {0x00007ffa12345678ull, 0x00007ffa9abcdef0ull, 0x0000000140001000ull}, 8)},
                {151, 0, false, stack_walk(7, {0x77001122, 0x6f003344}, 4)},
                {151, 0, true, stack_walk(9, {0x00007ff612340000ull}, 8)}});
  const e2e::run_result r = e2e::run_quon("-quiet -log " + trace);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(rows_of(r.out),
            (std::vector<std::string>{
                kName + " data{\"01-ClrInstanceID\":\"0x0007\";\"02-Reserved1\":\"0x00\";\"03-Reserved2\":\"0x00\";"
                        "\"04-FrameCount\":\"0x00000003\";\"05-Stack[0]\":\"0x00007ffa12345678\";"
                        "\"06-Stack[1]\":\"0x00007ffa9abcdef0\";\"07-Stack[2]\":\"0x0000000140001000\"}",
                kName + " data{\"01-ClrInstanceID\":\"0x0007\";\"02-Reserved1\":\"0x00\";\"03-Reserved2\":\"0x00\";"
                        "\"04-FrameCount\":\"0x00000002\";\"05-Stack[0]\":\"0x77001122\";"
                        "\"06-Stack[1]\":\"0x6f003344\"}",
                kName + " data{\"01-ClrInstanceID\":\"0x0009\";\"02-Reserved1\":\"0x00\";\"03-Reserved2\":\"0x00\";"
                        "\"04-FrameCount\":\"0x00000001\";\"05-Stack[0]\":\"0x00007ff612340000\"}",
            }));
}

TEST(DotNetPrivate, EachVersionWithItsOwnLayout) {
  e2e::temp_dir dir;
  tw::bytes decision_v1, decision_v0, join_v1, handle;
  tw::append_u32(decision_v1, 1);  // DoCompact
  tw::append_u16(decision_v1, 5);  // ClrInstanceID
  tw::append_u32(decision_v0, 0);
  tw::append_u32(join_v1, 3);      // Heap
  tw::append_u32(join_v1, 0x1f4);  // JoinTime
  tw::append_u32(join_v1, 2);      // JoinType
  tw::append_u16(join_v1, 5);
  tw::append_u64(handle, 0x000001a2b3c4d5e8ull);  // HandleID
  tw::append_u64(handle, 0x000001a2b3c40010ull);  // ObjectID
  tw::append_u32(handle, 3);                      // Kind: pinned
  tw::append_u32(handle, 2);                      // Generation
  tw::append_u64(handle, 0x00007ff8aabbccddull);  // AppDomainID
  tw::append_u16(handle, 5);
  // Event 4 in version 2: a payload the manifest doesn't describe (eight
  // bytes); in version 1 only the ClrInstanceID.
  tw::bytes history_v2 = {0x10, 0x00, 0x00, 0x00, 0x20, 0x00, 0x00, 0x00};
  tw::bytes history_v1;
  tw::append_u16(history_v1, 5);

  const std::string trace = trace_of(dir, "versions.etl", 8,
                                     {{1, 1, true, decision_v1},
                                      {1, 0, true, decision_v0},
                                      {6, 1, true, join_v1},
                                      {194, 0, true, handle},
                                      {4, 2, true, history_v2},
                                      {4, 1, true, history_v1}});
  const e2e::run_result r = e2e::run_quon("-quiet -log " + trace);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
  const std::vector<std::string> rows = rows_of(r.out);
  ASSERT_EQ(rows.size(), 6u);
  // Booleans are 4 bytes wide, shown as a number of that width.
  EXPECT_EQ(rows[0], kName + " data{\"01-DoCompact\":\"0x00000001\";\"02-ClrInstanceID\":\"0x0005\"}");
  EXPECT_EQ(rows[1], kName + " data{\"01-DoCompact\":\"0x00000000\"}");
  EXPECT_EQ(rows[2], kName + " data{\"01-Heap\":\"0x00000003\";\"02-JoinTime\":\"0x000001f4\";"
                             "\"03-JoinType\":\"0x00000002\";\"04-ClrInstanceID\":\"0x0005\"}");
  EXPECT_EQ(rows[3], kName + " data{\"01-HandleID\":\"0x000001a2b3c4d5e8\";\"02-ObjectID\":\"0x000001a2b3c40010\";"
                             "\"03-Kind\":\"0x00000003\";\"04-Generation\":\"0x00000002\";"
                             "\"05-AppDomainID\":\"0x00007ff8aabbccdd\";\"06-ClrInstanceID\":\"0x0005\"}");
  // Version 2 of event 4: nothing is named; the guesser has all eight bytes.
  EXPECT_EQ(rows[4].find("ClrInstanceID"), std::string::npos) << rows[4];
  EXPECT_NE(rows[4].find("guess_"), std::string::npos) << rows[4];
  EXPECT_EQ(rows[5], kName + " data{\"01-ClrInstanceID\":\"0x0005\"}");

  // The provider listing names it.
  const e2e::run_result g = e2e::run_quon("-quiet -guids -log " + trace);
  EXPECT_NE(g.out.find(std::string(kPrivate) + " : " + kName + "\n"), std::string::npos) << g.out;
}
