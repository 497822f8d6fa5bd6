// One unpacked event record, common to every event header kind.
#pragma once

#include <cstdint>
#include <string>

#include "decode/decoded_field.h"
#include "support/guid.h"

// Event header kinds, as the reader recognises them.
enum record_kind : uint32_t {
  kind_placeholder = 0,  // marks a damaged stretch stepped over
  kind_9000_18 = 1,      // 0x9000 header, 24-byte form
  kind_9000_1c = 2,      // 0x9000 header, 28-byte form
  kind_c002 = 3,         // system header 0xC002 (64-bit) with thread, process and time
  kind_c011 = 4,         // perfinfo header 0xC011 (64-bit): time, no thread or process
  kind_c00a = 5,         // full header 0xC00A or 0xC014: first 48 bytes of EVENT_HEADER
  kind_c012 = 6,         // EVENT_HEADER 0xC012 (32-bit)
  kind_c013 = 7,         // EVENT_HEADER 0xC013 (64-bit)
  kind_other = 8,        // any record with a plausible version word and size
  kind_unknown = 9,      // passed the buffer loop's test, failed the file's hint
  kind_c001 = 10,        // system header 0xC001 (32-bit), as kind 3
  kind_c010 = 11,        // perfinfo header 0xC010 (32-bit), as kind 4
  kind_compact = 12,     // compact system header 0xC003 (32-bit) or 0xC004 (64-bit)
  kind_instance = 13,    // instance header 0xC00B (32-bit) or 0xC015 (64-bit)
};

// Every value of a record but its name and fields: reset as one.
struct etl_record_values {
  uint16_t size = 0;
  uint16_t header_type = 0;
  uint16_t flags_or_version = 0;
  uint16_t event_property = 0;
  uint32_t thread_id = 0;
  uint32_t process_id = 0;
  uint64_t raw_time = 0;
  qv::guid16 provider_id{};
  uint16_t event_id = 0;
  uint8_t version = 0;
  uint8_t channel = 0;
  uint8_t level = 0;
  uint8_t opcode = 0;
  uint16_t task = 0;
  uint64_t keyword = 0;
  uint64_t time_word = 0;
  qv::guid16 activity_id{};
  uint32_t reserved_word = 0;
  uint16_t hook_id = 0;
  uint8_t processor = 0;
  uint8_t alignment = 0;
  uint16_t logger_id = 0;
  uint64_t absolute_time = 0;
  uint32_t kind = kind_placeholder;
  bool has_provider = false;
  bool valid = true;
  bool guessed = false;
  uint64_t file_offset = 0;
  // The event version its payload's layout is looked up with: the
  // descriptor's Version of an EVENT_HEADER, the class version of a classic
  // record; -1 when the header carries none.
  int32_t layout_version = -1;
};

struct etl_record : etl_record_values {
  std::string provider_name;
  decoded_fields fields;

  // Clears every value but keeps the storage of the name and the fields for
  // reuse.
  void reset() {
    // Copied from a kept set of defaults: a fresh one would be zeroed on
    // the stack first, which costs more than the copy.
    static const etl_record_values kDefaults{};
    static_cast<etl_record_values&>(*this) = kDefaults;
    provider_name.clear();
    fields.clear();
  }
};

