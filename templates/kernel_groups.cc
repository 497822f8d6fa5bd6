#include "templates/kernel_groups.h"

namespace {

constexpr uint8_t hex_digit(char c) {
  return c >= '0' && c <= '9' ? uint8_t(c - '0')
         : c >= 'a' && c <= 'f' ? uint8_t(c - 'a' + 10)
         : c >= 'A' && c <= 'F' ? uint8_t(c - 'A' + 10)
                                : throw "not a hex digit";  // rejected at compile time
}
constexpr uint8_t hex_byte(const char* s, int at) {
  return uint8_t(hex_digit(s[at]) << 4 | hex_digit(s[at + 1]));
}

// "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx" to the Windows binary layout: the
// first three groups little-endian, the last two in text order.
constexpr qv::guid16 guid_of(const char* s) {
  if (s[8] != '-' || s[13] != '-' || s[18] != '-' || s[23] != '-' || s[36] != 0)
    throw "not a GUID text";
  qv::guid16 g{};
  g[0] = hex_byte(s, 6);
  g[1] = hex_byte(s, 4);
  g[2] = hex_byte(s, 2);
  g[3] = hex_byte(s, 0);
  g[4] = hex_byte(s, 11);
  g[5] = hex_byte(s, 9);
  g[6] = hex_byte(s, 16);
  g[7] = hex_byte(s, 14);
  g[8] = hex_byte(s, 19);
  g[9] = hex_byte(s, 21);
  for (int i = 0; i < 6; ++i) g[10 + i] = hex_byte(s, 24 + 2 * i);
  return g;
}

// The event groups of classic kernel events (EVENT_TRACE_GROUP_* of Windows)
// with the GUIDs of their MOF classes.
constexpr std::array<kernel_group, kernel_group_count> table = {{
    {0x0000, "Kernel-Event-Trace", guid_of("68fdd900-4a3e-11d1-84f4-0000f80464e3")},
    {0x0100, "Kernel-DiskIo-Trace", guid_of("3d6fa8d4-fe05-11d0-9dda-00c04fd7ba7c")},
    {0x0200, "Kernel-PageFault-Trace", guid_of("3d6fa8d3-fe05-11d0-9dda-00c04fd7ba7c")},
    {0x0300, "Kernel-Process-Trace", guid_of("3d6fa8d0-fe05-11d0-9dda-00c04fd7ba7c")},
    {0x0400, "Kernel-FileIo-Trace", guid_of("90cbdc39-4a3e-11d1-84f4-0000f80464e3")},
    {0x0500, "Kernel-Thread-Trace", guid_of("3d6fa8d1-fe05-11d0-9dda-00c04fd7ba7c")},
    {0x0600, "Kernel-TcpIp-Trace", guid_of("9a280ac0-c8e0-11d1-84e2-00c04fb998a2")},
    {0x0700, "Kernel-Job-Trace", guid_of("3282fc76-feed-498e-8aa7-e70f459d430e")},
    {0x0800, "Kernel-UdpIp-Trace", guid_of("bf3a50c5-a9c9-4988-a005-2df0b7c80f80")},
    {0x0900, "Kernel-Registry-Trace", guid_of("ae53722e-c863-11d2-8659-00c04fa321a1")},
    {0x0A00, "Kernel-DbgPrint-Trace", guid_of("13976d09-a327-438c-950b-7f03192815c7")},
    {0x0B00, "Kernel-EventConfig-Trace", guid_of("01853a65-418f-4f36-aefc-dc0f1d2fd235")},
    {0x0C00, "Kernel-EventSpare1-Trace", guid_of("99134383-5248-43fc-834b-529454e75df3")},
    {0x0D00, "Kernel-Wnf-Trace", guid_of("42695762-ea50-497a-9068-5cbbb35e0b95")},
    {0x0E00, "Kernel-Pool-Trace", guid_of("0268a8b6-74fd-4302-9dd0-6e8f1795c0cf")},
    {0x0F00, "Kernel-PerfInfo-Trace", guid_of("ce1dbfb4-137e-4da6-87b0-3f59aa102cbc")},
    {0x1000, "Kernel-Heap-Trace", guid_of("222962ab-6180-4b88-a825-346b75f2a24a")},
    {0x1100, "Kernel-Object-Trace", guid_of("89497f50-effe-4440-8cf2-ce6b1cdcaca7")},
    {0x1200, "Kernel-Power-Trace", guid_of("e43445e0-0903-48c3-b878-ff0fccebdd04")},
    {0x1300, "Kernel-Module-Trace", guid_of("a9152f00-3f58-4bee-92a1-70c7d079d5dd")},
    {0x1400, "Kernel-ImageLoad-Trace", guid_of("2cb15d1d-5fc1-11d2-abe1-00a0c911f518")},
    {0x1500, "Kernel-Dpc-Trace", guid_of("b2d14872-7c5b-463d-8419-ee9bf7d23e04")},
    {0x1600, "Kernel-CacheCntl-Trace", guid_of("7687a439-f752-45b8-b741-321aec0f8df9")},
    {0x1700, "Kernel-CriticalSec-Trace", guid_of("3ac66736-cc59-4cff-8115-8df50e39816b")},
    {0x1800, "Kernel-StackWalk-Trace", guid_of("def2fe46-7bd6-4b80-bd94-f57fe20d0ce3")},
    {0x1900, "Kernel-UmsEvent-Trace", guid_of("9aec974b-5b8e-4118-9b92-3186d8002ce5")},
    {0x1A00, "Kernel-ALPC-Trace", guid_of("45d8cccd-539f-4b72-a8b7-5c683142609a")},
    {0x1B00, "Kernel-SplitIo-Trace", guid_of("d837ca92-12b9-44a5-ad6a-3a65b3578aa8")},
    {0x1C00, "Kernel-ThreadPool-Trace", guid_of("c861d0e2-a2c1-4d36-9f9c-970bab943a12")},
    {0x1D00, "Kernel-Hypervisor-Trace", guid_of("7f2a405c-69b5-4bf9-a1f5-30e8f1afab5e")},
    {0x1E00, "Kernel-HypervisorX-Trace", guid_of("2ce9a149-effe-42f0-a635-a1d39e26c8f2")},
}};

}  // namespace

const std::array<kernel_group, kernel_group_count>& kernel_groups() { return table; }

void add_kernel_groups(template_store& store) {
  // Runs after both sources: a group key or a name that a source already
  // gave is kept.
  for (const kernel_group& row : table) {
    store.group_guids.emplace(row.key, row.guid);
    set_provider_name(store, row.guid, row.name);
  }
}
