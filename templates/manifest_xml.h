// Instrumentation manifests in their XML form: providers, their events, and
// each event's layout converted to template words.
//
// What is read, per <provider> (wherever it stands, but not inside another):
//   provider   guid, name, symbol
//   event      value, version, level, task, opcode, keywords, channel,
//              template, name, symbol
//   template   <data name inType outType length count> and
//              <struct name count length> with its <data> members; a
//              length= or count= is a number or the name of an earlier item
//              (an earlier sibling, or an item before the enclosing structure)
//   levels, tasks (with their own opcodes), opcodes, keywords, channels: the
//              tables that the event's names refer to, with the standard
//              "win:" names behind them. A name that resolves nowhere stays
//              0 and is noted in the problems; a number is taken as it is.
// <maps> and <localization> (string tables) are passed over unread.
//
// In-types by name (the message compiler's "win:" names, numbered as the
// trace data helper numbers them): Null 0, UnicodeString 1, AnsiString 2,
// Int8 3, UInt8 4, Int16 5, UInt16 6, Int32 7, UInt32 8, Int64 9, UInt64 10,
// Float 11, Double 12, Boolean 13, Binary 14, GUID 15, Pointer 16,
// FILETIME 17, SYSTEMTIME 18, SID 19, HexInt32 20, HexInt64 21,
// CountedUnicodeString (or CountedString, CountedUtf16String) 22,
// CountedAnsiString (or CountedMbcsString) 23, Struct 24, CountedBinary 25;
// "win:<number>" is that number. A name beyond these ends the layout there.
//
// The layout of an event is its template's property table (see
// manifest_layout.h) converted to words; a data item the words can't express
// ends it with word 0 under the item's name, and `stop` says why.
//
// Manifests recreated from registered metadata (the dumps of Windows builds
// that carry source="Xml" on every provider) differ from authored ones:
//   - a structure is written as a plain <data> whose in-type number is the
//     structure's start index in the property table, its members lost; the
//     first structure of a template starts right behind its N top-level
//     items, so its number is N. An item is taken for a structure when its
//     number is N or more and no in-type (24, or above 25), or when its
//     number is N and it carries a count=; once a template shows either, its
//     first item numbered N is its first structure. The layout ends there.
//     A template with neither sign keeps an item numbered N as the in-type it
//     names (it can't be told apart in one file: a one-element structure whose
//     start index happens to be a valid in-type), and the event is flagged
//     `plain_at_struct_index` so that a caller comparing builds can check;
//   - data names lost their blanks, references to them kept theirs: a
//     reference that names no item is tried again without blanks;
//   - a fixed count= is dropped (an array comes out as one value). Nothing
//     in the file says so; nothing is done about it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "support/guid.h"
#include "support/xml_reader.h"
#include "templates/manifest_layout.h"

enum class recreated_form : uint8_t {
  no,           // every provider as its authors wrote it
  yes,          // every provider as recreated from registered metadata
  when_marked,  // providers with source="Xml" as recreated, the others not
};

struct manifest_read_options {
  // An event without name= takes its symbol= as its name. The compiled form
  // keeps name= only; off, the names come out as a WEVT_TEMPLATE has them.
  bool symbol_as_name = true;
  recreated_form recreated = recreated_form::when_marked;
  qv::xml_limits limits;
};

// One event of one provider, with its layout converted to template words.
struct manifest_event {
  uint16_t id = 0;
  uint8_t version = 0;
  uint8_t channel = 0;
  uint8_t level = 0;
  uint8_t opcode = 0;
  uint16_t task = 0;
  uint64_t keywords = 0;
  std::string name;          // name=, or symbol= (see symbol_as_name); may be empty
  std::string symbol;
  std::string template_id;   // the tid it refers to; empty when none
  bool has_template = false; // it refers to a template that was found
  std::vector<layout_field> fields;
  bool stopped = false;      // the layout ends with word 0 at an item it can't express
  layout_stop stop = layout_stop::none;
  std::string stop_reason;   // layout_stop_text(stop) when stopped
  std::string stop_item;     // the name of that item
  bool plain_at_struct_index = false;  // recreated: see above
};

struct manifest_provider {
  qv::guid16 guid{};
  std::string name;
  std::string symbol;
  bool recreated = false;  // read with the rules of recreated manifests
  std::vector<manifest_event> events;  // in document order
};

struct manifest_doc {
  std::vector<manifest_provider> providers;
  // What was passed over or left unresolved (an event without a readable
  // value, a provider without a GUID, a name no table knows, a template
  // that isn't there); at most max_manifest_problems, then a count.
  std::vector<std::string> problems;
};

constexpr size_t max_manifest_problems = 64;

// Reads a manifest. False, with a reason, when the XML isn't readable or its
// root element isn't an instrumentationManifest; then `out` is empty. True
// otherwise, even with no provider.
bool read_manifest_xml(const uint8_t* data, size_t size, const manifest_read_options& options,
                       manifest_doc& out, std::string& reason);

// In-type number of a name as written in inType= ("win:UInt32", "win:28");
// false when it names none.
bool manifest_in_type(std::string_view name, uint32_t& out);
