// A small RFC 4180 reader for the tests: it is written from the RFC, not
// from the writer, so that the writer's output is checked by an independent
// reading.
//
//   - Records end at a line feed (or CR LF); a line feed inside a quoted
//     field belongs to the field.
//   - A field that begins with a double quote is a quoted field: it runs to
//     the next double quote that isn't doubled, and "" inside stands for one
//     quote. Behind the closing quote only the separator or the end of the
//     record may follow.
//   - Any other field runs to the next separator or the end of the record. A
//     double quote inside it is taken as a character, as common readers take
//     it (the rows' extra data, data{"name":"value"}, relies on that); a
//     carriage return inside it is an error, since it would end the record
//     for some readers and not for others.
#pragma once

#include <string>
#include <vector>

namespace csv {

using record = std::vector<std::string>;

struct reading {
  std::vector<record> records;
  bool ok = true;
  std::string error;  // what went wrong, and where
};

inline reading read(const std::string& text, char separator) {
  reading r;
  size_t i = 0;
  const size_t n = text.size();
  auto fail = [&](const std::string& what) {
    r.ok = false;
    r.error = what + " at byte " + std::to_string(i) + " of record " + std::to_string(r.records.size());
  };
  while (i < n) {
    record rec;
    for (;;) {
      std::string field;
      if (i < n && text[i] == '"') {
        ++i;
        for (;;) {
          if (i >= n) {
            fail("quoted field without its closing quote");
            return r;
          }
          if (text[i] == '"') {
            if (i + 1 < n && text[i + 1] == '"') {
              field.push_back('"');
              i += 2;
              continue;
            }
            ++i;
            break;
          }
          field.push_back(text[i++]);
        }
        if (i < n && text[i] != separator && text[i] != '\n' &&
            !(text[i] == '\r' && i + 1 < n && text[i + 1] == '\n')) {
          fail("characters behind a closing quote");
          return r;
        }
      } else {
        while (i < n && text[i] != separator && text[i] != '\n') {
          if (text[i] == '\r') {
            if (i + 1 < n && text[i + 1] == '\n') break;
            fail("carriage return inside a field");
            return r;
          }
          field.push_back(text[i++]);
        }
      }
      rec.push_back(field);
      if (i < n && text[i] == separator) {
        ++i;
        continue;
      }
      if (i < n && text[i] == '\r') ++i;
      if (i < n && text[i] == '\n') ++i;
      break;
    }
    r.records.push_back(rec);
  }
  return r;
}

}  // namespace csv
