// The classic (MOF) source of layoutgen: every class of the MOF tables with
// its event types and versions, as template text.
//
// GUID is the class GUID, the identifier is the event type, and the layout
// carries the class version (V token). For a class whose GUID is a kernel
// event group, the identifier is the whole hook identifier (group << 8 |
// type) under the group's GUID: the kernel logger's records carry only the
// hook identifier.
//
// The tables lose the MOF qualifiers: a pointer shows as UInt32, a size_t,
// GUID, SID, time or address as Object, a fixed-size UTF-16 array as Char16,
// and a string doesn't say whether it is ANSI or UTF-16. The documented
// kernel classes are corrected from Microsoft's published class pages by the
// table in mof_classic.cc; a property that still can't be expressed ends its
// layout there (word 0 under that property's name), counted by reason.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/layoutgen/gen_common.h"
#include "tools/layoutgen/mof_tsv.h"

namespace layoutgen {

// The GUID's kernel event group (the high byte of a hook identifier), or -1
// when the GUID is not one of the kernel group table's.
int kernel_group_of(const std::string& guid);

// Makes the layout of one row. False when the row makes no line at all (an
// event type a hook identifier can't hold); `stats` counts why. A layout
// that ends early is still made, and `stats.cut_short` counts its reason.
bool mof_layout_of(const mof_row& row, gen_layout& layout, source_stats& stats);

// Converts every "*.tsv" of `mof_dir` into lines, leaving out what the
// hand-checked keys hold, and appends them to `lines` with a comment line
// per class family. Counts into `stats`.
void convert_mof_tables(const std::string& mof_dir, const hand_checked_keys& hand,
                        std::vector<std::string>& lines, source_stats& stats);

}  // namespace layoutgen
