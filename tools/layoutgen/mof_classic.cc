#include "tools/layoutgen/mof_classic.h"

#include <dirent.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>
#include <tuple>

#include "templates/kernel_groups.h"

namespace layoutgen {

namespace {

// How a property whose table type is lossy is read.
enum class fix : uint8_t {
  pointer,         // pointer-sized (Pointer qualifier, or extension SizeT): word 16
  time64,          // extension WmiTime: an 8-byte time stamp, word 10
  guid,            // extension Guid: word 15
  ansi,            // string without Format("w"): word 2
  utf16,           // string with Format("w"): word 1
  token_user_sid,  // extension Sid: a TOKEN_USER copy (two pointers), then the SID
  utf16_slot,      // char16 array with Max(n): n UTF-16 units in a fixed slot
  u8,              // a one-byte value
  u32,             // a 32-bit value that only looks like a pointer by its name
  s32,             // the same, signed
  pointers_to_end, // Stack1..Stack<n>: pointers up to the end of the payload
  stop,            // still not expressible: the layout ends here
};

// One correction: the properties of a class family (the event name up to its
// first "_") that the table gets wrong, for the class versions given.
// `event` limits it to one event type name; `property` nullptr with `type`
// matches every property of that table type; `property` "*" matches the
// first property of the event, whatever it is.
struct fix_rule {
  const char* family;
  const char* event;      // nullptr: every event type of the family
  uint16_t min_version;
  uint16_t max_version;
  const char* property;   // nullptr: every property of table type `type`
  const char* type;       // the table type matched when `property` is nullptr
  fix kind;
  uint16_t n;             // fix::utf16_slot: characters; fix::pointers_to_end: count
  const char* reason;     // fix::stop: why
};

constexpr uint16_t kAny = 0xFFFF;

// Sources, the published pages of the kernel logger's MOF classes
// (learn.microsoft.com/windows/win32/etw/<page>, also in MicrosoftDocs/win32
// under desktop-src/ETW/<page>.md):
// clang-format off
const fix_rule kFixes[] = {
    // perfinfo, sampledprofile, isr, dpc, syscallenter: InstructionPointer,
    // Routine and SysCallAddress have the Pointer qualifier; InitialTime is
    // extension WmiTime (an 8-byte time stamp).
    {"PerfInfo", nullptr, 0, kAny, "InstructionPointer", nullptr, fix::pointer, 0, nullptr},
    {"PerfInfo", nullptr, 0, kAny, "Routine", nullptr, fix::pointer, 0, nullptr},
    {"PerfInfo", nullptr, 0, kAny, "SysCallAddress", nullptr, fix::pointer, 0, nullptr},
    {"PerfInfo", nullptr, 0, kAny, "InitialTime", nullptr, fix::time64, 0, nullptr},

    // stackwalk-event: Stack1 to Stack192 have the Pointer qualifier, and the
    // event's size tells how many are there (the table lists 32).
    {"StackWalk", "Stack", 0, kAny, "Stack1", nullptr, fix::pointers_to_end, 192, nullptr},
    // The key events are not among the published classes: their key and
    // frame fields' widths are unknown.
    {"StackWalk", "KeyCreate", 0, kAny, "*", nullptr, fix::stop, 0, "StackWalk key event: undocumented"},
    {"StackWalk", "KeyDelete", 0, kAny, "*", nullptr, fix::stop, 0, "StackWalk key event: undocumented"},
    {"StackWalk", "KeyRundown", 0, kAny, "*", nullptr, fix::stop, 0, "StackWalk key event: undocumented"},
    {"StackWalk", nullptr, 0, kAny, "StackKey", nullptr, fix::stop, 0, "StackWalk key event: undocumented"},

    // LastDroppedTimes: the table shows one TimeStamp behind TimeStampCount,
    // which counts them; no page gives the array, so the layout ends there.
    {"EventTrace", "LastDroppedTimes", 0, kAny, "TimeStamp", nullptr, fix::stop, 0,
     "array whose count the table doesn't state"},

    // systemconfig-cpu, systemconfig-v0-cpu: ComputerName Max(256), DomainName
    // Max(132); HyperThreadingFlag has the Pointer qualifier.
    {"SystemConfig", "CPU", 0, kAny, "ComputerName", nullptr, fix::utf16_slot, 256, nullptr},
    {"SystemConfig", "CPU", 0, kAny, "DomainName", nullptr, fix::utf16_slot, 132, nullptr},
    {"SystemConfig", "CPU", 0, kAny, "HyperThreadingFlag", nullptr, fix::pointer, 0, nullptr},
    // systemconfig-phydisk: Manufacturer Max(256), BootDriveLetter Max(3), Spare Max(2).
    {"SystemConfig", "PhyDisk", 0, kAny, "Manufacturer", nullptr, fix::utf16_slot, 256, nullptr},
    {"SystemConfig", "PhyDisk", 0, kAny, "BootDriveLetter", nullptr, fix::utf16_slot, 3, nullptr},
    {"SystemConfig", "PhyDisk", 0, kAny, "Spare", nullptr, fix::utf16_slot, 2, nullptr},
    // systemconfig-logdisk: DriveLetterString Max(4), FileSystem Max(16).
    {"SystemConfig", "LogDisk", 0, kAny, "DriveLetterString", nullptr, fix::utf16_slot, 4, nullptr},
    {"SystemConfig", "LogDisk", 0, kAny, "FileSystem", nullptr, fix::utf16_slot, 16, nullptr},
    // systemconfig-v0-nic: NICName Max(256), PhysicalAddr Max(8) (versions 0
    // and 1; version 2 is systemconfig-nic, with UTF-16 strings).
    {"SystemConfig", "NIC", 0, 1, "NICName", nullptr, fix::utf16_slot, 256, nullptr},
    {"SystemConfig", "NIC", 0, 1, "PhysicalAddr", nullptr, fix::utf16_slot, 8, nullptr},
    {"SystemConfig", "NIC", 0, kAny, "PhysicalAddrLen", nullptr, fix::u32, 0, nullptr},
    {"SystemConfig", "NIC", 0, 1, "IpAddress", nullptr, fix::s32, 0, nullptr},
    // systemconfig-video: ChipType, DACType, AdapterString, BiosString and
    // DeviceId Max(256) each.
    {"SystemConfig", "Video", 0, kAny, "ChipType", nullptr, fix::utf16_slot, 256, nullptr},
    {"SystemConfig", "Video", 0, kAny, "DACType", nullptr, fix::utf16_slot, 256, nullptr},
    {"SystemConfig", "Video", 0, kAny, "AdapterString", nullptr, fix::utf16_slot, 256, nullptr},
    {"SystemConfig", "Video", 0, kAny, "BiosString", nullptr, fix::utf16_slot, 256, nullptr},
    {"SystemConfig", "Video", 0, kAny, "DeviceId", nullptr, fix::utf16_slot, 256, nullptr},
    // systemconfig-v0-services: ServiceName Max(34), DisplayName Max(256),
    // ProcessName Max(34) (versions 0 and 1).
    {"SystemConfig", "Services", 0, 1, "ServiceName", nullptr, fix::utf16_slot, 34, nullptr},
    {"SystemConfig", "Services", 0, 1, "DisplayName", nullptr, fix::utf16_slot, 256, nullptr},
    {"SystemConfig", "Services", 0, 1, "ProcessName", nullptr, fix::utf16_slot, 34, nullptr},
    // systemconfig-pnp, -nic, -services, -irq: every string is
    // StringTermination("NullTerminated"), Format("w"); the class family's
    // later types are read the same way. ClassGuid (version 4 on) is a GUID.
    {"SystemConfig", nullptr, 2, kAny, nullptr, "String", fix::utf16, 0, nullptr},
    {"SystemConfig", "PnP", 4, kAny, "ClassGuid", nullptr, fix::guid, 0, nullptr},

    // process-typegroup1, process-v2-typegroup1, process-v1-typegroup1:
    // UniqueProcessKey, PageDirectoryBase and DirectoryTableBase are pointers;
    // UserSID is extension Sid (a TOKEN_USER, then the SID); ImageFileName is
    // ANSI; CommandLine, PackageFullName and ApplicationId are UTF-16.
    {"Process", nullptr, 0, kAny, "UniqueProcessKey", nullptr, fix::pointer, 0, nullptr},
    {"Process", nullptr, 0, kAny, "PageDirectoryBase", nullptr, fix::pointer, 0, nullptr},
    {"Process", nullptr, 0, kAny, "DirectoryTableBase", nullptr, fix::pointer, 0, nullptr},
    {"Process", nullptr, 0, kAny, "UserSID", nullptr, fix::token_user_sid, 0, nullptr},
    {"Process", nullptr, 0, kAny, "ImageFileName", nullptr, fix::ansi, 0, nullptr},
    {"Process", nullptr, 0, kAny, "CommandLine", nullptr, fix::utf16, 0, nullptr},
    {"Process", nullptr, 0, kAny, "PackageFullName", nullptr, fix::utf16, 0, nullptr},
    {"Process", nullptr, 0, kAny, "ApplicationId", nullptr, fix::utf16, 0, nullptr},
    // process-v2-typegroup2 (PerfCtr, PerfCtrRundown): the sizes and counts
    // behind the first four fields are pointer-sized.
    {"Process", "PerfCtr", 0, kAny, nullptr, "Object", fix::pointer, 0, nullptr},
    {"Process", nullptr, 0, kAny, "HandleCount", nullptr, fix::u32, 0, nullptr},
    {"Process", "PerfCtrRundown", 0, kAny, nullptr, "Object", fix::pointer, 0, nullptr},

    // thread-typegroup1, thread-v2-typegroup1, thread-v1-typegroup1: the stack
    // bounds, start addresses and TebBase are pointers, and so is Affinity
    // (a KAFFINITY) from version 3; ThreadName is UTF-16.
    {"Thread", nullptr, 0, kAny, "StackBase", nullptr, fix::pointer, 0, nullptr},
    {"Thread", nullptr, 0, kAny, "StackLimit", nullptr, fix::pointer, 0, nullptr},
    {"Thread", nullptr, 0, kAny, "UserStackBase", nullptr, fix::pointer, 0, nullptr},
    {"Thread", nullptr, 0, kAny, "UserStackLimit", nullptr, fix::pointer, 0, nullptr},
    {"Thread", nullptr, 0, kAny, "StartAddr", nullptr, fix::pointer, 0, nullptr},
    {"Thread", nullptr, 0, kAny, "Win32StartAddr", nullptr, fix::pointer, 0, nullptr},
    {"Thread", nullptr, 0, kAny, "TebBase", nullptr, fix::pointer, 0, nullptr},
    {"Thread", "Start", 3, kAny, "Affinity", nullptr, fix::pointer, 0, nullptr},
    {"Thread", "End", 3, kAny, "Affinity", nullptr, fix::pointer, 0, nullptr},
    {"Thread", "DCStart", 3, kAny, "Affinity", nullptr, fix::pointer, 0, nullptr},
    {"Thread", "DCEnd", 3, kAny, "Affinity", nullptr, fix::pointer, 0, nullptr},
    {"Thread", nullptr, 0, kAny, "ThreadName", nullptr, fix::utf16, 0, nullptr},

    // image-load, image-v1-load, image-v0-load: ImageBase, ImageSize,
    // DefaultBase and BaseAddress are pointers; FileName and ImageFileName
    // are UTF-16.
    {"Image", "Load", 0, kAny, "ImageBase", nullptr, fix::pointer, 0, nullptr},
    {"Image", "Load", 1, kAny, "ImageSize", nullptr, fix::pointer, 0, nullptr},
    {"Image", "Load", 0, kAny, "DefaultBase", nullptr, fix::pointer, 0, nullptr},
    {"Image", "Load", 0, 0, "BaseAddress", nullptr, fix::pointer, 0, nullptr},
    {"Image", "Load", 0, kAny, "FileName", nullptr, fix::utf16, 0, nullptr},
    {"Image", "Load", 0, kAny, "ImageFileName", nullptr, fix::utf16, 0, nullptr},
    {"Image", "UnLoad", 0, kAny, "ImageBase", nullptr, fix::pointer, 0, nullptr},
    {"Image", "UnLoad", 0, kAny, "ImageSize", nullptr, fix::pointer, 0, nullptr},
    {"Image", "UnLoad", 0, kAny, "DefaultBase", nullptr, fix::pointer, 0, nullptr},
    {"Image", "UnLoad", 0, kAny, "FileName", nullptr, fix::utf16, 0, nullptr},
    {"Image", "DCStart", 0, kAny, "ImageBase", nullptr, fix::pointer, 0, nullptr},
    {"Image", "DCStart", 0, kAny, "ImageSize", nullptr, fix::pointer, 0, nullptr},
    {"Image", "DCStart", 0, kAny, "DefaultBase", nullptr, fix::pointer, 0, nullptr},
    {"Image", "DCStart", 0, kAny, "FileName", nullptr, fix::utf16, 0, nullptr},
    {"Image", "DCEnd", 0, kAny, "ImageBase", nullptr, fix::pointer, 0, nullptr},
    {"Image", "DCEnd", 0, kAny, "ImageSize", nullptr, fix::pointer, 0, nullptr},
    {"Image", "DCEnd", 0, kAny, "DefaultBase", nullptr, fix::pointer, 0, nullptr},
    {"Image", "DCEnd", 0, kAny, "FileName", nullptr, fix::utf16, 0, nullptr},
    {"Image", "KernelBase", 0, kAny, "ImageBase", nullptr, fix::pointer, 0, nullptr},
    {"Image", "HypercallPage", 0, kAny, "HypercallPageVa", nullptr, fix::pointer, 0, nullptr},

    // pagefault-typegroup1, pagefault-transitionfault, pagefault-hardfault,
    // pagefault-virtualalloc, pagefault-imageloadbacked: VirtualAddress,
    // ProgramCounter, FileObject and BaseAddress are pointers, RegionSize is
    // extension SizeT, InitialTime extension WmiTime.
    {"PageFault", nullptr, 0, kAny, "VirtualAddress", nullptr, fix::pointer, 0, nullptr},
    {"PageFault", nullptr, 0, kAny, "ProgramCounter", nullptr, fix::pointer, 0, nullptr},
    {"PageFault", nullptr, 0, kAny, "FileObject", nullptr, fix::pointer, 0, nullptr},
    {"PageFault", "VirtualAlloc", 0, kAny, "BaseAddress", nullptr, fix::pointer, 0, nullptr},
    {"PageFault", "VirtualFree", 0, kAny, "BaseAddress", nullptr, fix::pointer, 0, nullptr},
    {"PageFault", "VirtualAlloc", 0, kAny, "RegionSize", nullptr, fix::pointer, 0, nullptr},
    {"PageFault", "VirtualFree", 0, kAny, "RegionSize", nullptr, fix::pointer, 0, nullptr},
    {"PageFault", "HardFault", 0, kAny, "InitialTime", nullptr, fix::time64, 0, nullptr},

    // diskio-typegroup1..3, drivermajorfunctioncall, drivermajorfunctionreturn,
    // drivercompletionroutine, drivercompleterequest(-return): FileObject,
    // Irp, IrpPtr, RoutineAddr and Routine are pointers; UniqMatchId is not.
    {"DiskIo", nullptr, 0, kAny, "FileObject", nullptr, fix::pointer, 0, nullptr},
    {"DiskIo", nullptr, 0, kAny, "Irp", nullptr, fix::pointer, 0, nullptr},
    {"DiskIo", nullptr, 0, kAny, "IrpPtr", nullptr, fix::pointer, 0, nullptr},
    {"DiskIo", nullptr, 0, kAny, "RoutineAddr", nullptr, fix::pointer, 0, nullptr},
    {"DiskIo", nullptr, 0, kAny, "Routine", nullptr, fix::pointer, 0, nullptr},
    {"DiskIo", nullptr, 0, kAny, "MajorFunction", nullptr, fix::u32, 0, nullptr},
    {"DiskIo", nullptr, 0, kAny, "MinorFunction", nullptr, fix::u32, 0, nullptr},

    // fileio-name, fileio-create, fileio-simpleop, fileio-readwrite,
    // fileio-info, fileio-direnum, fileio-opend: FileObject, IrpPtr, FileKey
    // and ExtraInfo are pointers; file names and paths are UTF-16.
    {"FileIo", nullptr, 0, kAny, "FileObject", nullptr, fix::pointer, 0, nullptr},
    {"FileIo", nullptr, 0, kAny, "IrpPtr", nullptr, fix::pointer, 0, nullptr},
    {"FileIo", nullptr, 0, kAny, "FileKey", nullptr, fix::pointer, 0, nullptr},
    {"FileIo", nullptr, 0, kAny, "ExtraInfo", nullptr, fix::pointer, 0, nullptr},
    {"FileIo", nullptr, 0, kAny, "FileName", nullptr, fix::utf16, 0, nullptr},
    {"FileIo", nullptr, 0, kAny, "OpenPath", nullptr, fix::utf16, 0, nullptr},
    {"FileIo", nullptr, 2, 2, "TTID", nullptr, fix::pointer, 0, nullptr},

    // registry-typegroup1: KeyHandle is a pointer, KeyName UTF-16.
    {"Registry", nullptr, 0, kAny, "KeyHandle", nullptr, fix::pointer, 0, nullptr},
    {"Registry", nullptr, 0, kAny, "KeyName", nullptr, fix::utf16, 0, nullptr},

    // obhandleevent, obhandleduplicateevent, obhandlerundownevent,
    // obtypeevent: Object is a pointer, Handle a 32-bit value, ObjectName and
    // TypeName UTF-16.
    {"Object", nullptr, 0, kAny, "Object", nullptr, fix::pointer, 0, nullptr},
    {"Object", nullptr, 0, kAny, "ObjectName", nullptr, fix::utf16, 0, nullptr},
    {"Object", nullptr, 0, kAny, "Handle", nullptr, fix::u32, 0, nullptr},
    {"Object", nullptr, 0, kAny, "SourceHandle", nullptr, fix::u32, 0, nullptr},
    {"Object", nullptr, 0, kAny, "TargetHandle", nullptr, fix::u32, 0, nullptr},
    {"Object", nullptr, 0, kAny, "TypeName", nullptr, fix::utf16, 0, nullptr},

    // splitio-info: ParentIrp and ChildIrp are pointers.
    {"SplitIo", nullptr, 0, kAny, "ParentIrp", nullptr, fix::pointer, 0, nullptr},
    {"SplitIo", nullptr, 0, kAny, "ChildIrp", nullptr, fix::pointer, 0, nullptr},

    // tcpip-*, udpip-*: addresses and ports are extension IPAddr/Port (kept
    // in network byte order), connid a pointer. The hand-checked layouts hold
    // every event the tables list; these serve any the tables add.
    {"TcpIp", nullptr, 0, kAny, "connid", nullptr, fix::pointer, 0, nullptr},
    {"UdpIp", nullptr, 0, kAny, "connid", nullptr, fix::pointer, 0, nullptr},
};
// clang-format on

// Kernel classes that no published page describes and whose 32-bit fields
// are, by their purpose, addresses and handles as often as not (pool tags
// beside pool entries, heap handles, thread pool tasks and callbacks, lock
// addresses, state names beside subscriptions): every UInt32 ends their
// layouts rather than be read at the wrong width.
const char* const kUndocumentedPointerFamilies[] = {
    "Pool", "Heap", "ThreadPool", "CritSec", "WNFTrace", "LBR",
};

// Name fragments of a 32-bit property that the table may show in place of a
// pointer. Where no correction says otherwise, such a property ends the
// layout.
const char* const kPointerNameParts[] = {
    "Address", "Addr", "Ptr", "Pointer", "Handle", "Routine", "Callback", "Function",
    "Context", "Object", "Base", "Irp", "Entry", "Heap", "SubSegment", "Lock", "Timer",
    "Queue", "Hive", "Notification",
};

std::string clean_comment(const std::string& text) {
  std::string out = text;
  for (char& c : out)
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = '?';
  return out;
}

void l_corrected(gen_layout& l, const std::string& family) {
  l.corrected_in = family;
  ++l.corrected;
}

bool contains(const std::string& s, const char* part) { return s.find(part) != std::string::npos; }

std::string family_of(const std::string& event_name) {
  size_t u = event_name.find('_');
  return u == std::string::npos ? event_name : event_name.substr(0, u);
}

const fix_rule* find_fix(const std::string& family, const std::string& event, uint16_t version,
                         const mof_property& p, bool first) {
  for (const fix_rule& r : kFixes) {
    if (family != r.family) continue;
    if (r.event && event != r.event) continue;
    if (version < r.min_version || version > r.max_version) continue;
    if (r.property) {
      if (std::strcmp(r.property, "*") == 0) {
        if (first) return &r;
        continue;
      }
      if (p.name == r.property) return &r;
    } else if (r.type && p.type == r.type) {
      return &r;
    }
  }
  return nullptr;
}

void add(gen_layout& l, const std::string& name, uint16_t word) { l.fields.push_back({name, word}); }

// A UTF-16 array in a fixed slot of `chars` characters.
void add_utf16_slot(gen_layout& l, const std::string& name, uint16_t chars) {
  switch (chars) {
    case 3: add(l, name, 145); return;     // 6 bytes
    case 4: add(l, name, 161); return;     // 8 bytes
    case 16: add(l, name, 0x8005); return; // 32 bytes
    case 256: add(l, name, 177); return;   // 512 bytes
    default: break;
  }
  uint32_t bytes = uint32_t(chars) * 2;
  if (bytes <= 15) {
    add(l, name, uint16_t(0xD084 | (bytes << 8)));  // the bytes, shown in hexadecimal
  } else {
    add(l, name, 0xB284);                          // the bytes, with their count
    add(l, "", uint16_t(bytes));
  }
}

void end_layout(gen_layout& l, const std::string& name, const std::string& reason, source_stats&) {
  add(l, name, 0);
  l.cut_reason = reason;
}

}  // namespace

int kernel_group_of(const std::string& guid) {
  for (const kernel_group& g : kernel_groups()) {
    const uint8_t* b = g.guid.data();
    char text[40];
    std::snprintf(text, sizeof text,
                  "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", b[3],
                  b[2], b[1], b[0], b[5], b[4], b[7], b[6], b[8], b[9], b[10], b[11], b[12],
                  b[13], b[14], b[15]);
    if (guid == text) return g.key >> 8;
  }
  return -1;
}

bool mof_layout_of(const mof_row& row, gen_layout& layout, source_stats& stats) {
  layout = gen_layout{};
  layout.guid = row.guid;
  layout.version = row.version;
  int group = kernel_group_of(row.guid);
  if (group >= 0) {
    if (row.event_type > 0xFF) {
      ++stats.cut_short["event type above 255 under a kernel group (no hook identifier)"];
      return false;
    }
    layout.id = uint16_t(group << 8 | row.event_type);
  } else {
    layout.id = row.event_type;
  }

  const std::string family = family_of(row.event_name);
  std::string type_name = row.type_name;
  if (type_name.empty()) {
    // "Class_Type_Vn" without an event_type column: the middle part.
    std::string rest = row.event_name.substr(std::min(row.event_name.size(), family.size() + 1));
    std::string suffix = "_V" + std::to_string(row.version);
    if (rest.size() > suffix.size() && rest.compare(rest.size() - suffix.size(), suffix.size(), suffix) == 0)
      rest.resize(rest.size() - suffix.size());
    type_name = rest;
  }
  add(layout, clean_token(family) + "_" + clean_token(type_name), 0x8001);

  const bool pointer_family =
      std::find_if(std::begin(kUndocumentedPointerFamilies), std::end(kUndocumentedPointerFamilies),
                   [&](const char* f) { return family == f; }) != std::end(kUndocumentedPointerFamilies);

  for (size_t i = 0; i < row.properties.size(); ++i) {
    const mof_property& p = row.properties[i];
    const std::string name = clean_token(p.name);
    if (layout.fields.size() + 3 > kMaxFields) {
      end_layout(layout, name, "more fields than a template holds", stats);
      return true;
    }
    if (const fix_rule* r = find_fix(family, row.type_name, row.version, p, i == 0)) {
      l_corrected(layout, family);
      switch (r->kind) {
        case fix::pointer: add(layout, name, 16); break;
        case fix::time64: add(layout, name, 10); break;
        case fix::guid: add(layout, name, 15); break;
        case fix::ansi: add(layout, name, 2); break;
        case fix::utf16: add(layout, name, 1); break;
        case fix::u8: add(layout, name, 4); break;
        case fix::u32: add(layout, name, 8); break;
        case fix::s32: add(layout, name, 7); break;
        case fix::token_user_sid:
          add(layout, "TokenUserSid", 16);
          add(layout, "TokenUserAttributes", 16);
          add(layout, name, 19);
          break;
        case fix::utf16_slot: add_utf16_slot(layout, name, r->n); break;
        case fix::pointers_to_end: {
          // Pointers to the end of the payload: the walk stops where the
          // payload does. The stem is the property name without its digit.
          std::string stem = name;
          while (!stem.empty() && stem.back() >= '0' && stem.back() <= '9') stem.pop_back();
          for (uint16_t k = 1; k <= r->n && layout.fields.size() < kMaxFields; ++k)
            add(layout, stem + std::to_string(k), 16);
          return true;  // the table's further StackN properties are these
        }
        case fix::stop: end_layout(layout, name, r->reason, stats); return true;
      }
      continue;
    }
    const std::string& t = p.type;
    if (t == "UInt8") add(layout, name, 4);
    else if (t == "SInt8") add(layout, name, 3);
    else if (t == "UInt16") add(layout, name, 6);
    else if (t == "SInt16") add(layout, name, 5);
    else if (t == "UInt64") add(layout, name, 10);
    else if (t == "SInt64") add(layout, name, 9);
    else if (t == "UInt32" || t == "SInt32") {
      if (pointer_family) {
        end_layout(layout, name, "UInt32 of an undocumented kernel class: may be a pointer", stats);
        return true;
      }
      bool pointer_like = false;
      for (const char* part : kPointerNameParts) pointer_like = pointer_like || contains(p.name, part);
      if (pointer_like) {
        end_layout(layout, name, "UInt32 named as an address or handle: width not documented", stats);
        return true;
      }
      add(layout, name, t == "UInt32" ? 8 : 7);
    } else if (t == "String") {
      end_layout(layout, name, "String: ANSI or UTF-16 not stated", stats);
      return true;
    } else if (t == "Char16") {
      end_layout(layout, name, "Char16: array length not stated", stats);
      return true;
    } else if (t == "Object") {
      end_layout(layout, name, "Object: embedded type not stated", stats);
      return true;
    } else if (t == "Boolean") {
      end_layout(layout, name, "Boolean: width not stated", stats);
      return true;
    } else {
      end_layout(layout, name, "unknown table type " + clean_token(t), stats);
      return true;
    }
  }
  return true;
}

void convert_mof_tables(const std::string& mof_dir, const hand_checked_keys& hand,
                        std::vector<std::string>& lines, source_stats& stats) {
  std::vector<std::string> names;
  if (DIR* d = opendir(mof_dir.c_str())) {
    while (dirent* e = readdir(d)) {
      std::string name = e->d_name;
      if (name.size() > 4 && name.compare(name.size() - 4, 4, ".tsv") == 0) names.push_back(name);
    }
    closedir(d);
  }
  std::sort(names.begin(), names.end());

  // One line per class version. The lines of one (GUID, identifier) stand
  // together, newest version first: where a lookup doesn't see the version,
  // the first line of an event is the one that serves, and the newest is the
  // one current traces write. A (GUID, identifier, version) that the tables
  // list twice keeps its first row.
  struct entry {
    size_t key_order;
    gen_layout layout;
    std::string provider, file, family;
  };
  std::vector<entry> entries;
  std::map<std::pair<std::string, uint16_t>, size_t> key_order;
  std::set<std::tuple<std::string, uint16_t, int>> seen;
  for (const std::string& file : names) {
    std::string text;
    if (!read_text_file(mof_dir + "/" + file, text)) continue;
    ++stats.files;
    for (const std::string& line : split_lines(text)) {
      if (line.empty() || line == "\r") continue;
      mof_row row;
      row_fault fault = parse_mof_row(line, row);
      if (fault == row_fault::header) continue;
      ++stats.rows;
      if (fault != row_fault::none) {
        ++stats.bad_rows;
        continue;
      }
      gen_layout layout;
      if (!mof_layout_of(row, layout, stats)) continue;
      if (is_hand_checked(hand, layout.guid, layout.id)) {
        ++stats.hand_checked;
        continue;
      }
      if (!seen.insert({layout.guid, layout.id, layout.version}).second) continue;
      size_t order = key_order.emplace(std::make_pair(layout.guid, layout.id), key_order.size())
                         .first->second;
      count_layout(stats, layout, row.provider);
      entries.push_back({order, std::move(layout), row.provider, file, family_of(row.event_name)});
    }
  }
  std::stable_sort(entries.begin(), entries.end(), [](const entry& a, const entry& b) {
    if (a.key_order != b.key_order) return a.key_order < b.key_order;
    return a.layout.version > b.layout.version;
  });
  std::string last_provider, last_family;
  for (const entry& e : entries) {
    if (e.provider != last_provider) {
      lines.push_back("");
      lines.push_back("// " + clean_comment(e.provider) + " (" + e.file + ")");
      last_provider = e.provider;
      last_family.clear();
    }
    if (e.family != last_family) {
      lines.push_back("// " + clean_comment(e.family) + " {" + e.layout.guid + "}");
      last_family = e.family;
    }
    lines.push_back(layout_line(e.layout));
  }
}

}  // namespace layoutgen
