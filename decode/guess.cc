#include "decode/guess.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <string>
#include <vector>

#include "decode/render.h"
#include "support/byte_reader.h"
#include "support/qv_string.h"
#include "support/qv_time.h"

namespace {

constexpr uint64_t kTicksPerDay = 864000000000ULL;

enum candidate_kind : uint32_t { ck_sid = 1, ck_string = 2 };

// One piece of text or one SID found by a scan.
struct guess_candidate {
  uint32_t offset = 0;  // within the region
  std::string text;     // the string, or the SID's text
  int64_t size = 0;     // bytes it takes in the region
  bool wide = false;    // UTF-16 rather than ASCII
  uint32_t kind = ck_string;
};

// Candidates ordered by offset, one per offset: a second one at a taken
// offset is refused. Entries past `count_` are kept for reuse, strings and
// all, so a steady run of events scans without allocating.
class candidate_list {
 public:
  void clear() { count_ = 0; }
  size_t size() const { return count_; }
  guess_candidate& operator[](size_t i) { return items_[i]; }

  guess_candidate* find(uint32_t offset) {
    size_t i = lower_bound(offset);
    return (i < count_ && items_[i].offset == offset) ? &items_[i] : nullptr;
  }

  // A fresh candidate at `offset`, or nullptr when the offset is taken.
  guess_candidate* add(uint32_t offset) {
    size_t i = lower_bound(offset);
    if (i < count_ && items_[i].offset == offset) return nullptr;
    if (items_.size() == count_) items_.emplace_back();
    std::rotate(items_.begin() + static_cast<std::ptrdiff_t>(i),
                items_.begin() + static_cast<std::ptrdiff_t>(count_),
                items_.begin() + static_cast<std::ptrdiff_t>(count_ + 1));
    ++count_;
    guess_candidate& c = items_[i];
    c.offset = offset;
    c.text.clear();
    c.size = 0;
    c.wide = false;
    c.kind = ck_string;
    return &c;
  }

  void remove(size_t i) {
    std::rotate(items_.begin() + static_cast<std::ptrdiff_t>(i),
                items_.begin() + static_cast<std::ptrdiff_t>(i + 1),
                items_.begin() + static_cast<std::ptrdiff_t>(count_));
    --count_;
  }

 private:
  size_t lower_bound(uint32_t offset) const {
    size_t lo = 0, hi = count_;
    while (lo < hi) {
      size_t mid = lo + (hi - lo) / 2;
      if (items_[mid].offset < offset) lo = mid + 1; else hi = mid;
    }
    return lo;
  }

  std::vector<guess_candidate> items_;
  size_t count_ = 0;
};

struct scan_scratch {
  candidate_list candidates;
  std::vector<qv::run_position> narrow;  // ASCII runs
  std::vector<qv::run_position> wide;    // UTF-16 runs
};

scan_scratch& scratch() {
  thread_local scan_scratch s;
  return s;
}

decoded_field* emit(decoded_fields& fields, uint64_t key, const char* name, uint8_t type,
                    uint32_t size) {
  decoded_field* f = fields.add(key);
  if (!f) return nullptr;
  f->type = type;
  f->generated = true;
  f->size = size;
  f->name = name;
  return f;
}

void emit_number(decoded_fields& fields, uint64_t key, const char* name, uint8_t type,
                 uint32_t size, uint64_t number) {
  if (decoded_field* f = emit(fields, key, name, type, size)) f->number = number;
}

// Drops the first UTF-8 character of `text`.
void drop_first_char(std::string& text) {
  if (text.empty()) return;
  size_t n = 1;
  while (n < text.size() && (static_cast<uint8_t>(text[n]) & 0xC0) == 0x80) ++n;
  text.erase(0, n);
}

// A short narrow string whose first character is lower case and whose second
// is an upper-case letter or a digit is mostly the bytes of a binary number.
bool is_noise(const guess_candidate& c) {
  if (c.wide && c.size > 3) return false;
  if (!c.wide && c.size > 5) return false;
  if (c.text.size() < 2) return false;
  const unsigned char first = static_cast<unsigned char>(c.text[0]);
  const unsigned char second = static_cast<unsigned char>(c.text[1]);
  const bool first_lower = first < 0x80 && std::islower(first);
  const bool second_upper_or_digit = second < 0x80 && (std::isupper(second) || std::isdigit(second));
  return first_lower && second_upper_or_digit;
}

// Removes noise candidates. Each removal restarts the pass from the second
// candidate: the first has been tested already. So when the very first
// candidate is noise, the one that takes its place is never tested; that is
// how the engine reads, and rows depend on it.
void weed_noise(candidate_list& list) {
  size_t i = 0;
  while (i < list.size()) {
    if (is_noise(list[i])) {
      list.remove(i);
      // Restart at index 1; the candidates before `i` were all kept by the
      // same test, so testing them again changes nothing.
      if (i == 0) i = 1;
      continue;
    }
    ++i;
  }
}

// The first occurrence of an 8-byte pattern in `data`, or -1.
int64_t find_pattern(const uint8_t* data, uint32_t size, const uint8_t (&pattern)[8]) {
  if (size < 8) return -1;
  const uint8_t* end = data + size - 7;
  const uint8_t* at = data;
  while (at < end) {
    const void* hit = std::memchr(at, pattern[0], static_cast<size_t>(end - at));
    if (!hit) return -1;
    at = static_cast<const uint8_t*>(hit);
    if (std::memcmp(at, pattern, 8) == 0) return at - data;
    ++at;
  }
  return -1;
}

void add_sid_candidate(candidate_list& list, const uint8_t* data, uint32_t size, int64_t off,
                       uint32_t sid_size) {
  // The SID's text is made only from bytes of the region.
  if (static_cast<uint64_t>(size) - static_cast<uint64_t>(off) < sid_size) return;
  std::string text = qv::format_sid(data + off, sid_size);
  if (text.empty()) return;
  if (guess_candidate* c = list.add(static_cast<uint32_t>(off))) {
    c->text = std::move(text);
    c->size = sid_size;
    c->kind = ck_sid;
  }
}

}  // namespace

const filetime_window& guess_filetime_window() {
  static const filetime_window window = [] {
    filetime_window w;
    const uint64_t now = qv::qv_time_now().get_filetime();
    w.low = now - 3650 * kTicksPerDay;
    w.high = now + 730 * kTicksPerDay;
    return w;
  }();
  return window;
}

void guess_numbers(decoded_fields& fields, uint64_t base, const uint8_t* data, uint32_t size) {
  if (!data || size == 0) return;
  const uint32_t words = size / 4;
  const uint32_t rest = size % 4;
  uint32_t off = 0;
  uint32_t i = 0;
  while (i < words) {
    const uint8_t* p = data + off;
    // Two words whose top bytes are set have the shape of a 64-bit kernel
    // address. The time tests sit under the same shape test, so in practice
    // real time stamps come out as pairs of 32-bit numbers.
    if (i + 1 < words && p[5] > 0xC0 && p[6] == 0xFF && p[7] == 0xFF) {
      const uint64_t value = qv::rd_u64(p, 8, 0);
      if (qv::rd_u32(p, 4, 0) > 0xFFFF) {
        emit_number(fields, base + off, "guess_uint64", 21, 8, value);
        off += 8;
        i += 2;
        continue;
      }
      const filetime_window& window = guess_filetime_window();
      const bool in_window = value > window.low && value < window.high;
      if (in_window && qv::time(value, qv::type_filetime).is_valid()) {
        emit_number(fields, base + off, "guess_filetime", 17, 8, value);
        off += 8;
        i += 2;
        continue;
      }
      if (!in_window && i + 3 < words) {
        qv::_windows_systemtime st;
        st.wYear = qv::rd_u16(p, 16, 0);
        st.wMonth = qv::rd_u16(p, 16, 2);
        st.wDayOfWeek = qv::rd_u16(p, 16, 4);
        st.wDay = qv::rd_u16(p, 16, 6);
        st.wHour = qv::rd_u16(p, 16, 8);
        st.wMinute = qv::rd_u16(p, 16, 10);
        st.wSecond = qv::rd_u16(p, 16, 12);
        st.wMilliseconds = qv::rd_u16(p, 16, 14);
        if (qv::time(st).is_valid()) {
          emit_number(fields, base + off, "guess_systime", 18, 16, value);
          off += 16;
          i += 4;
          continue;
        }
      }
    }
    emit_number(fields, base + off, "guess_uint32", 8, 4, qv::rd_u32(p, 4, 0));
    off += 4;
    ++i;
  }
  if (rest == 2) {
    emit_number(fields, base + off, "guess_uint16", 6, 2, qv::rd_u16(data + off, 2, 0));
  } else {
    for (uint32_t j = 0; j < rest; ++j) {
      emit_number(fields, base + off + j, "guess_byte", 4, 1, data[off + j]);
    }
  }
}

void guess_payload(decoded_fields& fields, uint64_t base, const uint8_t* data, uint32_t size,
                   bool keep) {
  if (!keep) fields.clear();
  if (!data || size < 4) return;

  scan_scratch& s = scratch();
  candidate_list& list = s.candidates;
  list.clear();

  if (size >= 5) {
    // Both searches in one pass over the payload; the texts are taken from
    // the payload's bytes, once.
    qv::text_runs(data, size, 4, 2, true, false, s.narrow, s.wide);
    for (const qv::run_position& at : s.wide) {
      if (guess_candidate* c = list.add(at.offset)) {
        c->text.resize(at.length);
        for (uint32_t k = 0; k < at.length; ++k) {
          c->text[k] = static_cast<char>(data[at.offset + 2 * size_t{k}]);
        }
        c->size = int64_t{at.length} * 2;
        c->wide = true;
      }
    }
    for (const qv::run_position& at : s.narrow) {
      if (at.length == 0) continue;
      // A UTF-16 string that starts on this run's last byte took that byte
      // as its first character: that character belongs to the ASCII run.
      if (guess_candidate* overlap = list.find(at.offset + at.length - 1)) {
        const int64_t step = overlap->wide ? 2 : 1;
        if (overlap->size > step) {
          drop_first_char(overlap->text);
          overlap->size -= step;
        }
      }
      if (guess_candidate* c = list.add(at.offset)) {
        c->text.assign(reinterpret_cast<const char*>(data) + at.offset, at.length);
        c->size = at.length;
      }
    }

    weed_noise(list);
  }

  // NT-authority SIDs: five sub-authorities, then one. Only the first of
  // each form is looked for.
  static const uint8_t kSid5[8] = {0x01, 0x05, 0x00, 0x00, 0x00, 0x00, 0x00, 0x05};
  static const uint8_t kSid1[8] = {0x01, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x05};
  if (size > 27) {
    int64_t off = find_pattern(data, size, kSid5);
    if (off >= 0 && size > off + 19) add_sid_candidate(list, data, size, off, 28);
  }
  if (size > 11) {
    int64_t off = find_pattern(data, size, kSid1);
    if (off >= 0 && size > off + 3) add_sid_candidate(list, data, size, off, 12);
  }

  // Walk the candidates, with numbers in the gaps. After a gap, `pos` moves
  // by the candidate's offset rather than by the gap, so past the first
  // candidate later keys and contents are shifted; rows read this way.
  int64_t pos = 0;
  int64_t left = size;
  for (size_t i = 0; i < list.size() && left > 0; ++i) {
    guess_candidate& c = list[i];
    const int64_t off = c.offset;
    if (pos < off) {
      guess_numbers(fields, base + static_cast<uint64_t>(pos), data + pos,
                    static_cast<uint32_t>(off - pos));
      pos += off;
      left -= off;
    }
    const char* name = c.kind == ck_sid ? "guess_sid" : (c.wide ? "guess_utf16" : "guess_ascii");
    const uint8_t type = c.kind == ck_sid ? 19 : (c.wide ? 1 : 2);
    if (decoded_field* f = emit(fields, base + static_cast<uint64_t>(pos), name, type,
                                static_cast<uint32_t>(c.size))) {
      // The candidate isn't read again: its text moves to the field, and
      // the field's old storage goes back to the list for reuse.
      f->text.swap(c.text);
      if (c.kind == ck_string) qv::flatten_line_breaks(f->text);
    }
    pos += c.size;
    left -= c.size;
    if (left > 0 && c.kind == ck_string && data[pos] == 0) {
      const int64_t step = (c.wide && left >= 2) ? 2 : 1;
      pos += step;
      left -= step;
    }
  }
  if (left > 0) {
    guess_numbers(fields, base + static_cast<uint64_t>(pos), data + pos,
                  static_cast<uint32_t>(left));
  }
}
