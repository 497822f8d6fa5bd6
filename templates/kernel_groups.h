// Classic kernel event classes: the group byte of a hook identifier (its high
// byte) mapped to the class GUID under which Windows documents it, and a
// readable name of the program's own ("Kernel-...-Trace").
#pragma once

#include <array>
#include <cstdint>

#include "support/guid.h"
#include "templates/template_store.h"

struct kernel_group {
  uint16_t key;      // hook identifier with its low byte cleared
  const char* name;
  qv::guid16 guid;
};

constexpr size_t kernel_group_count = 31;
const std::array<kernel_group, kernel_group_count>& kernel_groups();

// Enters every group key that isn't there yet, and names each class GUID
// unless it already has a name.
void add_kernel_groups(template_store& store);
