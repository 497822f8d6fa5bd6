// The log2timeline CSV writer. Each line is composed in one reused buffer and
// handed to the stream in one write.

#include "report/timeline.h"

#include <cstring>

#include "report/report_writer.h"
#include "report/report_options.h"
#include "support/simd.h"

namespace {

constexpr char kLetters[4] = {'M', 'A', 'C', 'B'};
constexpr int kSlotC = 2;

const qv::datetime_format& default_timeline_format() {
  static const qv::datetime_format fmt = [] {
    qv::datetime_format f;
    qv::parse_datetime_format(f, "yyyy-mm-dd", "hh:mm:ss.xxx", false);
    return f;
  }();
  return fmt;
}

void join(std::string& out, const std::string& text) {
  if (text.empty()) return;
  if (!out.empty()) out += "; ";
  out += text;
}

// The moment of a stamp of any clock kind. A FILETIME is tested from its
// bounds alone, as qv::time would judge it; the other kinds go through
// qv::time.
timeline_time moment_of(uint64_t value, qv::type_time kind) {
  timeline_time t;
  if (kind == qv::type_filetime) {
    t.valid = qv::is_valid_filetime(value);
    t.filetime = value;
    return t;
  }
  const qv::time converted(value, kind);
  t.valid = converted.is_valid();
  t.filetime = converted.get_filetime();
  return t;
}

// Takes entry `n` of the list, reusing the storage of an earlier call.
timeline_entry& entry_at(std::vector<timeline_entry>& entries, size_t n) {
  if (n < entries.size()) {
    timeline_entry& e = entries[n];
    e.raw_time = 0;
    e.time = timeline_time();
    e.macb.clear();
    e.type_text.clear();
    e.source_text.clear();
    e.file_text.clear();
    e.user_text.clear();
    return e;
  }
  return entries.emplace_back();
}

const std::string& item(const std::vector<std::string>& list, size_t i) {
  static const std::string empty;
  return i < list.size() ? list[i] : empty;
}

// Appends one text field: the separator character to its substitute, line
// breaks flattened, and quotes where a CSV reader needs them to read the
// field back as one.
void put_field(qv::line_text& line, const std::string& text, const timeline_record& r) {
  const size_t start = line.size();
  line += text;
  const char absent = clean_field(line, start, r.separator_char, r.sub_separator_char);
  if (csv_field_needs_quotes(line, start, r.separator, absent)) quote_csv_field(line, start, 0);
}

// The fields of a line behind its date and time: 15 of them, 14 separators.
constexpr size_t kTextFields = 15;

// How often `c` stands in the `n` bytes at `p`: sixteen bytes at a time in
// sixteen byte-wide counters, summed every 255 blocks before they overflow,
// where the processor has the instructions for it; the rest in blocks of
// 255 in one byte-wide counter, which the compiler turns into wide compares.
size_t count_byte(const char* p, size_t n, char c) {
  size_t total = 0;
#if defined(QUON_SSE2)
  const __m128i wanted = _mm_set1_epi8(c);
  const __m128i zero = _mm_setzero_si128();
  while (n >= 16) {
    const size_t blocks = n / 16 < 255 ? n / 16 : 255;
    __m128i counts = zero;
    for (size_t i = 0; i < blocks; ++i, p += 16) {
      const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
      counts = _mm_sub_epi8(counts, _mm_cmpeq_epi8(block, wanted));
    }
    const __m128i sums = _mm_sad_epu8(counts, zero);
    total += static_cast<size_t>(_mm_cvtsi128_si32(sums)) + static_cast<size_t>(_mm_extract_epi16(sums, 4));
    n -= blocks * 16;
  }
#endif
  while (n > 0) {
    const size_t m = n < 255 ? n : 255;
    uint8_t k = 0;
    for (size_t i = 0; i < m; ++i) k = static_cast<uint8_t>(k + (p[i] == c));
    total += k;
    p += m;
    n -= m;
  }
  return total;
}

// Whether the fields appended as they are (from `begin` on, starting at
// `starts`) need no clean-up: no CR or LF, no byte of the separator but in
// the separators themselves, and no field that begins with a quote. Nearly
// every line passes, at the cost of a few scans of one buffer.
//
// `end` and `fields` let it look at the first fields alone: the bytes from
// `begin` to `end` hold those fields and the separator behind each of them
// but the last (or behind every one of them when `end` is the start of the
// next field, as when the first 14 are looked at: 14 separators either way).
bool fields_plain(const qv::line_text& line, size_t begin, size_t end,
                  const size_t (&starts)[kTextFields], size_t fields, const timeline_record& r) {
  const char* p = line.data() + begin;
  const size_t n = end - begin;
  if (holds_any_of(p, n, '\n', '\r', '\r')) return false;
  for (size_t k = 0; k < fields; ++k) {
    const size_t at = starts[k];
    if (at < end && line[at] == '"') return false;
  }
  const std::string& sep = r.separator;
  auto expected = [&](char c) { return count_byte(sep.data(), sep.size(), c) * (kTextFields - 1); };
  for (size_t i = 0; i < sep.size(); ++i) {
    const char c = sep[i];
    if (c == ' ' || sep.find(c) != i) continue;  // each byte value once
    if (count_byte(p, n, c) != expected(c)) return false;
  }
  const char from = r.separator_char;
  if (from != 0 && r.sub_separator_char != 0 && sep.find(from) == std::string::npos &&
      std::memchr(p, from, n) != nullptr)
    return false;
  return true;
}

void put_decimal(qv::line_text& out, uint64_t v) {
  char buf[20];
  size_t n = 0;
  do {
    buf[n++] = static_cast<char>('0' + v % 10);
    v /= 10;
  } while (v != 0);
  while (n > 0) out.push_back(buf[--n]);
}

void append_timeline_header(std::string& line, const std::string& separator, bool pair_datetime) {
  static const char* const kNames[] = {"timezone", "MACB",    "source", "sourcetype", "type",
                                       "user",     "host",    "short",  "desc",       "version",
                                       "filename", "inode",   "notes",  "format",     "extra"};
  if (pair_datetime) {
    line += "date/time";
  } else {
    line += "date";
    line += separator;
    line += "time";
  }
  for (const char* name : kNames) {
    line += separator;
    line += name;
  }
}

}  // namespace

void reset_timeline_record(timeline_record& r) {
  for (int s = 0; s < 4; ++s) {
    r.slot_time[s] = 0;
    r.slot_text[s].clear();
  }
  r.label.clear();
  r.time_kind = qv::type_filetime;
  r.extra_times.clear();
  r.extra_texts.clear();
  r.extra_sources.clear();
  r.extra_files.clear();
  r.extra_done.clear();
  r.timezone.assign("UTC");
  r.source.clear();
  r.sourcetype.clear();
  r.type.clear();
  r.user.clear();
  r.host.clear();
  r.short_text.clear();
  r.desc.clear();
  r.version = 2;
  r.filename.clear();
  r.inode.clear();
  r.notes.clear();
  r.format.assign("-csvl2t");
  r.extra.clear();
  r.render_extra = nullptr;
  r.extra_source = nullptr;
  r.separator.assign(1, ',');
  r.separator_char = ',';
  r.sub_separator_char = ' ';
  r.no_whitespace = false;
  r.pair_datetime = false;
  r.base16 = false;
  r.datetime_format = default_timeline_format();
}

void bind_timeline_options(timeline_record& r, const report_options& opts) {
  r.separator.assign(opts.separator);
  r.separator_char = opts.separator_char;
  r.sub_separator_char = opts.sub_separator_char;
  r.no_whitespace = opts.no_whitespace;
  r.pair_datetime = opts.pair_datetime;
  r.base16 = opts.base16;
  r.datetime_format = opts.datetime_format;
  r.format.assign(opts.program_name);
  r.format.append(" (ovrelt)");
  r.user.assign(opts.user_name);
  r.host.assign(opts.host_name);
}

void set_time_slots(timeline_record& r, uint64_t m, uint64_t a, uint64_t c, uint64_t b,
                    uint32_t time_kind) {
  r.slot_time[0] = m;
  r.slot_time[1] = a;
  r.slot_time[2] = c;
  r.slot_time[3] = b;
  r.time_kind = time_kind;
}

void set_slot_texts(timeline_record& r, std::string_view m, std::string_view a,
                    std::string_view c, std::string_view b) {
  r.slot_text[0].assign(m);
  r.slot_text[1].assign(a);
  r.slot_text[2].assign(c);
  r.slot_text[3].assign(b);
}

void expand_macb(std::vector<timeline_entry>& entries, timeline_record& r) {
  size_t n = 0;
  timeline_time times[4];
  bool usable[4] = {};
  for (int s = 0; s < 4; ++s) {
    if (r.slot_time[s] == 0) continue;
    times[s] = moment_of(r.slot_time[s], static_cast<qv::type_time>(r.time_kind));
    usable[s] = times[s].is_valid();
  }
  const size_t extras = r.extra_times.size();
  r.extra_done.assign(extras, false);

  for (int s = 0; s < 4; ++s) {
    if (!usable[s]) continue;
    usable[s] = false;
    const uint64_t when = times[s].get_filetime();
    timeline_entry& e = entry_at(entries, n++);
    e.raw_time = r.slot_time[s];
    e.time = times[s];
    bool label_wanted = false;
    auto take_text = [&](int slot) {
      if (!r.slot_text[slot].empty()) {
        join(e.type_text, r.slot_text[slot]);
      } else if (!r.label.empty()) {
        label_wanted = true;
      }
    };
    take_text(s);

    // Later slots with the same moment fold into this line.
    bool folded[4] = {};
    for (int p = s + 1; p < 4; ++p) {
      if (usable[p] && times[p].get_filetime() == when) {
        usable[p] = false;
        folded[p] = true;
        take_text(p);
      }
    }
    // Extra times of the same moment count as a change (C).
    bool extra_folded = false;
    for (size_t x = 0; x < extras; ++x) {
      if (r.extra_done[x]) continue;
      const timeline_time t = moment_of(r.extra_times[x], qv::type_filetime);
      if (!t.is_valid() || t.get_filetime() != when) continue;
      r.extra_done[x] = true;
      extra_folded = true;
      join(e.type_text, item(r.extra_texts, x));
      join(e.source_text, item(r.extra_sources, x));
      join(e.file_text, item(r.extra_files, x));
    }

    if (s == 3) {
      e.macb.assign(extra_folded ? "..CB" : "...B");
    } else {
      for (int p = 0; p < 4; ++p) {
        if (p == s || folded[p]) {
          e.macb.push_back(kLetters[p]);
        } else if (p == kSlotC && extra_folded) {
          e.macb.push_back('C');
        } else if (p == kSlotC && p > s && extras == 0) {
          // An unmatched C after an M or A letter is only marked when the
          // record has extra times.
        } else {
          e.macb.push_back('.');
        }
      }
    }
    if (label_wanted) {
      std::string labelled = r.label;
      labelled += " [";
      labelled += e.macb;
      labelled += ']';
      join(e.type_text, labelled);
    }
  }

  // Extra times that no slot took make lines of their own.
  for (size_t x = 0; x < extras; ++x) {
    if (r.extra_done[x]) continue;
    const timeline_time t = moment_of(r.extra_times[x], qv::type_filetime);
    if (!t.is_valid() || r.extra_times[x] == 0) continue;
    r.extra_done[x] = true;
    timeline_entry& e = entry_at(entries, n++);
    e.raw_time = r.extra_times[x];
    e.time = t;
    e.macb.assign("..C.");
    e.type_text.assign(item(r.extra_texts, x));
    e.source_text.assign(item(r.extra_sources, x));
    e.file_text.assign(item(r.extra_files, x));
  }
  entries.resize(n);
}

namespace {

// The 15 fields behind the date and time; `starts` gets where each begins.
void append_fields(qv::line_text& line, const timeline_entry& e, const timeline_record& r,
                   size_t (&starts)[kTextFields], bool clean) {
  const std::string& sep = r.separator;
  if (!clean) {
    // The texts as they are: room for all of them is made at once and each
    // goes in with one copy. The version (field 9) is a number, and the
    // data (field 14) may be written by its renderer straight behind them.
    const std::string* const texts[kTextFields] = {
        &r.timezone,
        &e.macb,
        e.source_text.empty() ? &r.source : &e.source_text,
        &r.sourcetype,
        r.type.empty() ? &e.type_text : &r.type,
        e.user_text.empty() ? &r.user : &e.user_text,
        &r.host,
        &r.short_text,
        &r.desc,
        nullptr,
        e.file_text.empty() ? &r.filename : &e.file_text,
        &r.inode,
        &r.notes,
        &r.format,
        &r.extra};
    constexpr size_t kVersion = 9;
    const bool rendered = r.render_extra != nullptr;
    size_t room = 10 + kTextFields * sep.size();  // 10: the version's digits
    for (const std::string* t : texts) {
      if (t) room += t->size();
    }
    const size_t at = line.size();
    char* const base = line.room(room) - at;
    char* p = base + at;
    for (size_t k = 0; k < kTextFields; ++k) {
      if (k != 0) {
        qv::line_text::copy(p, sep.data(), sep.size());
        p += sep.size();
      }
      starts[k] = static_cast<size_t>(p - base);
      if (k == kVersion) {
        char digits[10];
        char* const end = digits + sizeof digits;
        char* d = end;
        uint32_t v = r.version;
        do {
          *--d = static_cast<char>('0' + v % 10);
          v /= 10;
        } while (v != 0);
        qv::line_text::copy(p, d, static_cast<size_t>(end - d));
        p += end - d;
      } else if (k + 1 == kTextFields && rendered) {
        line.advance(static_cast<size_t>(p - base) - at);
        r.render_extra(line, r.extra_source);
        return;
      } else {
        qv::line_text::copy(p, texts[k]->data(), texts[k]->size());
        p += texts[k]->size();
      }
    }
    line.advance(static_cast<size_t>(p - base) - at);
    return;
  }
  size_t k = 0;
  auto text = [&](const std::string& t) {
    if (k != 0) line += sep;
    starts[k++] = line.size();
    put_field(line, t, r);
  };
  auto own = [&](auto&& put) {
    if (k != 0) line += sep;
    starts[k++] = line.size();
    put();
  };
  text(r.timezone);
  own([&] { line += e.macb; });
  text(e.source_text.empty() ? r.source : e.source_text);
  text(r.sourcetype);
  text(r.type.empty() ? e.type_text : r.type);
  text(e.user_text.empty() ? r.user : e.user_text);
  text(r.host);
  text(r.short_text);
  text(r.desc);
  own([&] { put_decimal(line, r.version); });
  text(e.file_text.empty() ? r.filename : e.file_text);
  text(r.inode);
  text(r.notes);
  text(r.format);
  text(r.extra);
}

}  // namespace

void write_timeline_header(std::ostream& out, const std::string& separator, bool pair_datetime) {
  std::string line;
  append_timeline_header(line, separator, pair_datetime);
  out.write(line.data(), static_cast<std::streamsize>(line.size()));
}

void write_timeline_lines(bool& header_row_pending, std::ostream& out, timeline_record& r) {
  thread_local std::vector<timeline_entry> entries;
  expand_macb(entries, r);
  if (header_row_pending) {
    header_row_pending = false;
    std::string head;
    append_timeline_header(head, r.separator, r.pair_datetime);
    head.push_back('\n');
    out.write(head.data(), static_cast<std::streamsize>(head.size()));
  }

  thread_local std::string storage;
  qv::line_text line(storage);
  thread_local filetime_text stamp;
  const std::string& sep = r.separator;
  for (const timeline_entry& e : entries) {
    if (!e.time.is_valid()) continue;
    if (!stamp.set(e.time.get_filetime(), r.datetime_format)) continue;
    line.clear();
    if (r.pair_datetime) {
      if (!r.no_whitespace) line.push_back(' ');
      stamp.append_date(line);
      line.push_back(' ');
      stamp.append_time(line);
    } else {
      stamp.append_date(line);
      line += sep;
      if (!r.no_whitespace) line.push_back(' ');
      stamp.append_time(line);
    }
    line += sep;
    // The texts go in as they are; only a line whose texts hold a line
    // break, a quote in front or a separator byte is written again with
    // each text cleaned: the separator character can't stand in it, no line
    // break is left in it, and a field that needs them gets its quotes.
    const size_t begin = line.size();
    size_t starts[kTextFields];
    append_fields(line, e, r, starts, false);
    const size_t last = starts[kTextFields - 1];
    if (fields_plain(line, begin, last, starts, kTextFields - 1, r)) {
      // The first 14 fields stand as they are; the last, the event's data,
      // is cleaned where it stands, as put_field would clean it behind
      // them (a data text that needs nothing is only looked at once).
      const char absent = clean_field(line, last, r.separator_char, r.sub_separator_char);
      if (csv_field_needs_quotes(line, last, r.separator, absent)) quote_csv_field(line, last, 0);
    } else {
      // The clean-up reads the extra field's text from the record: a
      // text written straight into the line is taken back from there.
      if (r.render_extra) r.extra.assign(line.data() + last, line.size() - last);
      line.resize(begin);
      append_fields(line, e, r, starts, true);
    }
    line.push_back('\n');
    out.write(line.data(), static_cast<std::streamsize>(line.size()));
  }
}
