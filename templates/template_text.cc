#include "templates/template_text.h"

#include <charconv>
#include <new>

#include "support/qv_string.h"
#include "support/uni_fileio.h"

namespace {

// The common number syntax (0x / x hex, o octal, decimal with sign, 'c');
// what can't be read counts as 0.
uint32_t number_of(const std::string& text) {
  uint32_t value = 0;
  if (!qv::parse_uint32(text, value)) value = 0;
  return value;
}

qv::guid16 guid_of(const std::string& text) {
  std::vector<uint8_t> bytes;
  qv::guid16 g{};
  if (qv::parse_guid(text, bytes) && bytes.size() == g.size())
    std::copy(bytes.begin(), bytes.end(), g.begin());
  return g;
}

void remove_braces(std::string& text) {
  qv::remove_char(text, '{');
  qv::remove_char(text, '}');
}

enum class provider_line { passed_over, added, end_of_file };

// "#{guid} ! Name, ..." : declares a provider's name. A GUID column that is
// too short after cleaning ends the file.
provider_line add_provider_line(template_source& source, const std::string& line) {
  std::vector<std::string> columns;
  qv::split(line, '!', columns, true, false);
  if (columns.size() < 2) return provider_line::passed_over;

  std::string guid_text = columns[0];
  qv::remove_char(guid_text, '#');
  remove_braces(guid_text);
  qv::trim(guid_text);
  if (guid_text.size() < 36) return provider_line::end_of_file;

  qv::guid16 guid = guid_of(guid_text);
  if (source.name_of_guid.count(guid)) return provider_line::passed_over;
  // Indices into the name list are 16-bit in a record.
  if (source.provider_names.size() > 0xFFFF) return provider_line::passed_over;

  std::string name = columns[1];
  size_t end = name.find_first_of(",|;");
  if (end != std::string::npos) name.erase(end);
  qv::trim(name);

  uint32_t index = uint32_t(source.provider_names.size());
  source.provider_names.push_back(name);
  source.name_of_guid.emplace(guid, index);

  template_record record;
  record.guid = guid;
  record.provider_index = uint16_t(index);
  record.line_text = line;
  record.key = digest_of(guid_text + name);
  source.by_key.emplace(record.key, uint32_t(source.records.size()));
  source.records.push_back(std::move(record));
  return provider_line::added;
}

}  // namespace

bool parse_template_line(template_record& record, const std::string& line) {
  record = template_record();
  std::string text = line;
  if (!qv::trim(text)) return false;
  std::vector<std::string> columns;
  qv::split(text, '!', columns, true, false);
  if (columns.size() < 2) return false;
  std::string& guid_text = columns[0];
  if (guid_text.size() < 36 || guid_text.compare(0, 2, "//") == 0) return false;

  record.line_text = text;
  remove_braces(guid_text);
  record.guid = guid_of(guid_text);
  record.layout_text = guid_text;

  // The marker "$" (or "%"), then the identifier list up to the first ",".
  const std::string& body = columns[1];
  size_t marker = body.find('$');
  if (marker == std::string::npos) {
    marker = body.find('%');
    if (marker == std::string::npos) return false;
    record.percent_form = true;
  }
  size_t comma = body.find(',', marker + 1);
  if (comma == std::string::npos) return false;
  std::string id_list = body.substr(marker + 1, comma - marker - 1);
  std::string rest = body.substr(comma + 1);
  qv::trim(id_list);
  qv::trim(rest);

  std::vector<std::string> items;
  size_t dash = id_list.find('-');
  if (dash != std::string::npos) {
    // A range first, then possibly further identifiers: "1-2;4;5".
    record.range_lo = uint16_t(number_of(id_list.substr(0, dash)));
    record.range_hi = uint16_t(number_of(id_list.substr(dash + 1)));
    if (id_list.find(';') != std::string::npos) {
      qv::split(id_list, ';', items, true, false);
      for (size_t i = 1; i < items.size(); ++i) record.ids.push_back(uint16_t(number_of(items[i])));
    }
  } else if (id_list.find(';') != std::string::npos) {
    qv::split(id_list, ';', items, true, false);
    for (const std::string& item : items) record.ids.push_back(uint16_t(number_of(item)));
  } else {
    record.ids.push_back(uint16_t(number_of(id_list)));
  }

  std::vector<std::string> tokens;
  qv::split(rest, ',', tokens, true, false);
  if (tokens.empty()) return false;

  std::string pending_name;  // from an "L" token, for the next word only
  char digits[16];
  for (const std::string& token : tokens) {
    switch (token[0]) {
      case '#':
        if (token.size() > 1) record.builds.push_back(uint16_t(number_of(token.substr(1))));
        break;
      case 'L':
        if (token.size() > 1) pending_name = token.substr(1);
        break;
      case 'C':  // a comment column
        break;
      case 'V':  // the event version this layout was declared for
        if (token.size() > 1) record.version = int16_t(uint8_t(number_of(token.substr(1))));
        break;
      default: {
        uint32_t word = number_of(token);
        record.words.push_back(uint16_t(word));
        record.layout_text += pending_name;
        auto r = std::to_chars(digits, digits + sizeof digits, word);
        record.layout_text.append(digits, r.ptr);
        record.names.push_back(std::move(pending_name));
        pending_name.clear();
        break;
      }
    }
  }
  // A versioned line is its own layout: its version and builds are part of
  // what makes two lines equal, so lines that differ only in them don't merge.
  if (record.version >= 0) {
    auto append = [&](char marker, unsigned value) {
      record.layout_text += marker;
      auto r = std::to_chars(digits, digits + sizeof digits, value);
      record.layout_text.append(digits, r.ptr);
    };
    append('V', unsigned(record.version));
    for (uint16_t b : record.builds) append('#', b);
  }
  record.key = digest_of(record.layout_text);
  return true;
}

void merge_template_record(template_source& source, template_record&& record) {
  auto found = source.by_key.find(record.key);
  if (found != source.by_key.end() && found->second < source.records.size()) {
    // A further use of a layout already read for this GUID: only the
    // identifiers are added. The key doesn't cover builds, so this line's
    // builds are dropped and the first line's stand.
    template_record& earlier = source.records[found->second];
    for (uint16_t id : record.ids) {
      if (earlier.ids.size() >= max_merged_ids) break;
      earlier.ids.push_back(id);
    }
    if (record.range_hi != 0) {
      if (earlier.range_hi == 0) {
        earlier.range_lo = record.range_lo;
        earlier.range_hi = record.range_hi;
      } else {
        for (uint32_t id = record.range_lo; id <= record.range_hi; ++id) {
          if (earlier.ids.size() >= max_merged_ids) break;
          earlier.ids.push_back(uint16_t(id));
        }
      }
    }
    return;
  }

  // A new layout: its names get indices in the field name table, in order of
  // first use. The table's first entry is an empty name that the index
  // doesn't know, so the first empty name used adds a second one.
  record.name_indices.reserve(record.names.size());
  for (const std::string& name : record.names) {
    auto n = source.field_name_index.find(name);
    uint32_t index;
    if (n != source.field_name_index.end()) {
      index = n->second;
    } else {
      index = uint32_t(source.field_names.size());
      source.field_names.push_back(name);
      source.field_name_index.emplace(name, index);
    }
    record.name_indices.push_back(index);
  }
  auto named = source.name_of_guid.find(record.guid);
  if (named != source.name_of_guid.end()) record.provider_index = uint16_t(named->second);
  source.by_key.emplace(record.key, uint32_t(source.records.size()));
  source.records.push_back(std::move(record));
}

template_line add_template_line(template_source& source, const std::string& line) {
  if (line.size() < 16 || line[0] == '/') return template_line::passed_over;
  if (line[0] == '#') {
    switch (add_provider_line(source, line)) {
      case provider_line::added: return template_line::provider;
      case provider_line::end_of_file: return template_line::end_of_file;
      case provider_line::passed_over: break;
    }
    return template_line::passed_over;
  }
  template_record record;
  if (!parse_template_line(record, line)) return template_line::not_parsed;
  merge_template_record(source, std::move(record));
  return template_line::event;
}

bool add_template_lines(template_source& source, const std::vector<std::string>& lines) {
  for (const std::string& line : lines) {
    // What came before an early end stands; what follows is ignored.
    if (add_template_line(source, line) == template_line::end_of_file) return false;
  }
  return true;
}

bool load_template_text(template_source& source, const std::string& path) {
  reset(source);
  std::vector<uint8_t> bytes;
  std::vector<std::string> lines;
  try {
    uni::fileio file;
    if (!file.open(path, false, false, false)) return false;
    uint64_t size = file.file_size();
    if (size == 0 || !file.read_block(bytes, size, 0)) return false;
    if (!qv::split_lines(bytes, lines)) return false;
  } catch (const std::bad_alloc&) {
    return false;
  }
  bytes = std::vector<uint8_t>();
  add_template_lines(source, lines);
  return true;
}
