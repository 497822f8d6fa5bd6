#include "templates/kernel_groups.h"

#include <gtest/gtest.h>

#include <set>

namespace {

// 3d6fa8d0-fe05-11d0-9dda-00c04fd7ba7c and 90cbdc39-4a3e-11d1-84f4-0000f80464e3
// in the Windows binary layout, written out by hand.
const qv::guid16 process = {0xd0, 0xa8, 0x6f, 0x3d, 0x05, 0xfe, 0xd0, 0x11,
                            0x9d, 0xda, 0x00, 0xc0, 0x4f, 0xd7, 0xba, 0x7c};
const qv::guid16 file_io = {0x39, 0xdc, 0xcb, 0x90, 0x3e, 0x4a, 0xd1, 0x11,
                            0x84, 0xf4, 0x00, 0x00, 0xf8, 0x04, 0x64, 0xe3};

TEST(KernelGroups, Table) {
  // Group keys 0x0000 to 0x1E00 in order; GUID texts turned into the binary
  // layout (first three groups little-endian).
  const auto& rows = kernel_groups();
  std::set<qv::guid16> guids;
  for (size_t i = 0; i < rows.size(); ++i) {
    EXPECT_EQ(rows[i].key, uint16_t(i << 8)) << i;
    guids.insert(rows[i].guid);
  }
  EXPECT_EQ(guids.size(), 31u);
  EXPECT_EQ(rows[3].guid, process);
  EXPECT_STREQ(rows[3].name, "Kernel-Process-Trace");
  EXPECT_EQ(rows[4].guid, file_io);
  EXPECT_STREQ(rows[0x1E].name, "Kernel-HypervisorX-Trace");
}

TEST(KernelGroups, HookIdentifiersFindTheirClass) {
  template_store store;
  add_kernel_groups(store);
  EXPECT_EQ(store.group_guids.size(), 31u);
  for (uint16_t hook : {0x0301, 0x03FF, 0x0300}) {
    qv::guid16 g{};
    ASSERT_TRUE(group_guid_of(store, hook, g)) << hook;
    EXPECT_EQ(g, process);
    EXPECT_EQ(provider_name_of(store, g), "Kernel-Process-Trace");
  }
  qv::guid16 g{};
  EXPECT_FALSE(group_guid_of(store, 0x1F05, g));
  ASSERT_TRUE(group_guid_of(store, 0x0410, g));
  EXPECT_EQ(provider_name_of(store, g), "Kernel-FileIo-Trace");
  // Names only: the table adds no templates.
  EXPECT_TRUE(store.templates.empty());
}

TEST(KernelGroups, EarlierSourcesWin) {
  // A name from a -templates file or the block stands; so does a group key
  // already entered.
  template_store store;
  set_provider_name(store, process, "My-Process-Name");
  qv::guid16 other{};
  other[0] = 0x42;
  store.group_guids[0x0500] = other;
  add_kernel_groups(store);
  EXPECT_EQ(provider_name_of(store, process), "My-Process-Name");
  qv::guid16 g{};
  ASSERT_TRUE(group_guid_of(store, 0x0524, g));
  EXPECT_EQ(g, other);
  // Running it again changes nothing.
  add_kernel_groups(store);
  EXPECT_EQ(store.group_guids.size(), 31u);
  EXPECT_EQ(provider_name_of(store, process), "My-Process-Name");
}

}  // namespace
