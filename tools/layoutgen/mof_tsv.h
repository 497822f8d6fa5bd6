// Rows of the classic (MOF) provider tables of the 26H1 dump
// (tsv-26h1/mof/*.tsv). One row is one event type of one class version:
//
//   column  name           meaning
//   0       provider       the provider's name ("Windows Kernel Trace")
//   1       category       the class GUID, with braces, any case
//   2       event_id       the class event type (decimal)
//   3       version        the class version (decimal)
//   4       event(fields)  "Class_Type_Vn(Type Name, Type Name, ...)"
//   5       event_type     the event type's name ("Load")
//   6       description    free text
//
// Field types are the MOF data types as the dump names them (UInt32,
// String, Object, Char16, ...): the qualifiers that give pointer width,
// string encoding, fixed sizes and embedded types are not in the table.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace layoutgen {

struct mof_property {
  std::string type;  // "UInt32", "String", "Object", ...
  std::string name;  // as the dump spells it
};

struct mof_row {
  std::string provider;
  std::string guid;        // lower case, no braces
  uint16_t event_type = 0;
  uint16_t version = 0;
  std::string event_name;  // the part before "(": "Image_Load_V2"
  std::string type_name;   // the event_type column: "Load"
  std::vector<mof_property> properties;
};

// Why a row was refused.
enum class row_fault {
  none,
  header,       // the table's header line
  columns,      // fewer than 6 columns
  guid,         // the category is not a GUID
  number,       // event_id or version is not a number in 0..65535
  fields,       // the event(fields) column doesn't parse
};

// Parses one line of a table. A refused row leaves `row` in an unspecified
// state.
row_fault parse_mof_row(const std::string& line, mof_row& row);

// Parses "Name(Type Field, Type Field)" into the name and the properties.
// An empty list "Name()" is a class without fields. False when the text has
// no parentheses, a property lacks its type or name, or there are more than
// `kMaxFields` properties.
bool parse_event_fields(const std::string& text, std::string& name,
                        std::vector<mof_property>& properties);

// Reads a decimal number of at most 5 digits into 0..65535.
bool parse_u16(const std::string& text, uint16_t& out);

}  // namespace layoutgen
