// The generated layout database behind the executable, end to end: an event
// of Microsoft-Windows-Kernel-Process whose versions reorder fields decodes
// each version with its own layout, and a provider known only from the
// provider list gets its name.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/e2e_util.h"
#include "tests/trace_writer.h"

namespace {

const char kKernelProcess[] = "22fb2cd6-0e7b-422b-a0c7-2fad1fd0e716";

void put_utf16(std::vector<uint8_t>& b, const std::string& ascii) {
  for (char c : ascii) {
    b.push_back(uint8_t(c));
    b.push_back(0);
  }
  b.push_back(0);
  b.push_back(0);
}

}  // namespace

TEST(LayoutDatabase, KernelProcessStartDecodesEachVersionWithItsOwnLayout) {
  // ProcessStart (event 1) in version 1: ProcessID, CreateTime, ParentProcessID,
  // SessionID, Flags, ImageName; version 3 puts a 64-bit sequence number behind
  // each process id and the token's elevation and label before the name.
  tw::log_header_spec h;
  h.buffer_size = 4096;
  h.start_time = h.system_time = 134170743671234567ull;
  tw::etl_writer w;
  w.log_header(h);
  tw::event_spec v1;
  v1.provider = tw::guid_from_text(kKernelProcess);
  v1.id = 1;
  v1.version = 1;
  v1.time = h.start_time;
  tw::append_u32(v1.payload, 0x1234);                // ProcessID
  tw::append_u64(v1.payload, 0);                     // CreateTime: 0 is no date
  tw::append_u32(v1.payload, 0x4);                   // ParentProcessID
  tw::append_u32(v1.payload, 1);                     // SessionID
  tw::append_u32(v1.payload, 0);                     // Flags
  put_utf16(v1.payload, "\\cmd.exe");       // ImageName
  tw::event_spec v3 = v1;
  v3.version = 3;
  v3.payload.clear();
  tw::append_u32(v3.payload, 0x1234);                // ProcessID
  tw::append_u64(v3.payload, 0x77);                  // ProcessSequenceNumber
  tw::append_u64(v3.payload, 0);                     // CreateTime
  tw::append_u32(v3.payload, 0x4);                   // ParentProcessID
  tw::append_u64(v3.payload, 0x2);                   // ParentProcessSequenceNumber
  tw::append_u32(v3.payload, 1);                     // SessionID
  tw::append_u32(v3.payload, 0);                     // Flags
  tw::append_u32(v3.payload, 2);                     // ProcessTokenElevationType
  tw::append_u32(v3.payload, 1);                     // ProcessTokenIsElevated
  // MandatoryLabel: S-1-16-12288 (revision 1, one sub-authority, authority 16).
  for (uint8_t b : {1, 1, 0, 0, 0, 0, 0, 16, 0x00, 0x30, 0, 0}) v3.payload.push_back(b);
  put_utf16(v3.payload, "\\cmd.exe");       // ImageName
  tw::append_u32(v3.payload, 0xabcd);                // ImageChecksum
  tw::append_u32(v3.payload, 0x5f000000);            // TimeDateStamp
  put_utf16(v3.payload, "");                // PackageFullName
  put_utf16(v3.payload, "");                // PackageRelativeAppId
  w.add_buffer({tw::event_header_record(v1), tw::event_header_record(v3)});

  e2e::temp_dir dir;
  const std::string trace = dir.write("p.etl", w.data());
  e2e::run_result r = e2e::run_quon("-quiet -jsonl -log " + trace);
  ASSERT_EQ(r.status, 0) << r.err;
  std::vector<std::string> lines;
  for (size_t at = 0, eol; at < r.out.size(); at = eol + 1) {
    eol = r.out.find('\n', at);
    if (eol == std::string::npos) eol = r.out.size();
    const std::string line = r.out.substr(at, eol - at);
    if (line.find(kKernelProcess) != std::string::npos) lines.push_back(line);
  }
  ASSERT_EQ(lines.size(), 2u) << r.out;
  const auto fields = [](const std::string& line) { return line.substr(line.find("\"fields\":")); };
  EXPECT_EQ(fields(lines[0]),
            "\"fields\":{\"ProcessStart_V1\":\"{guess}\",\"ProcessID\":4660,\"CreateTime\":null,\"CreateTime_raw\":0,"
            "\"ParentProcessID\":4,\"SessionID\":1,\"Flags\":0,\"ImageName\":\"\\\\cmd.exe\"}}");
  EXPECT_EQ(fields(lines[1]),
            "\"fields\":{\"ProcessStart_V3\":\"{guess}\",\"ProcessID\":4660,\"ProcessSequenceNumber\":119,"
            "\"CreateTime\":null,\"CreateTime_raw\":0,\"ParentProcessID\":4,\"ParentProcessSequenceNumber\":2,\"SessionID\":1,"
            "\"Flags\":0,\"ProcessTokenElevationType\":2,\"ProcessTokenIsElevated\":1,"
            "\"MandatoryLabel\":\"S-1-16-12288\",\"ImageName\":\"\\\\cmd.exe\",\"ImageChecksum\":43981,"
            "\"TimeDateStamp\":1593835520,\"PackageFullName\":null,\"PackageRelativeAppId\":null}}");
  EXPECT_NE(lines[0].find("\"provider_name\":\"Microsoft-Windows-Kernel-Process\""), std::string::npos);
}

TEST(LayoutDatabase, ProvidersOfTheProviderListAreNamed) {
  // A provider of the list of registered providers, a classic (MOF) one with
  // no layout in the database:
  // "Windows Defender Firewall Service" {5EEFEBDB-E90C-423A-8ABF-0241E7C5B87D}.
  tw::log_header_spec h;
  h.buffer_size = 4096;
  h.start_time = h.system_time = 134170743671234567ull;
  tw::etl_writer w;
  w.log_header(h);
  tw::event_spec e;
  e.time = h.start_time;
  e.provider = tw::guid_from_text("5eefebdb-e90c-423a-8abf-0241e7c5b87d");
  e.id = 9;
  tw::append_u32(e.payload, 7);
  w.add_buffer({tw::event_header_record(e)});
  e2e::temp_dir dir;
  const std::string trace = dir.write("n.etl", w.data());
  e2e::run_result r = e2e::run_quon("-quiet -guids -log " + trace);
  EXPECT_NE(r.out.find("5eefebdb-e90c-423a-8abf-0241e7c5b87d : Windows Defender Firewall Service\n"),
            std::string::npos)
      << r.out;
}
