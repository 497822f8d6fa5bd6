// One decoded payload value, and the ordered list of them that an event
// carries.
//
// `decoded_fields` is keyed by the absolute file offset of a field's first
// byte. Its key order is the output order, and it holds one field per key: a
// second insertion at a key that is taken is refused and the first stays. The
// decoder relies on that refusal (labels sit at position - 2 and marks for
// absent values at position - 1 so that they sort ahead of a real value).
//
// The list is reused from event to event: `clear()` keeps the storage of its
// entries (and of their strings), so a steady run of events decodes without
// allocating.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

struct decoded_field {
  uint8_t type = 0;      // the word's low byte, or the type a formatter or guess gives
  uint8_t subtype = 0;   // the word's high byte
  bool generated = false;  // name or value made by the program
  bool missing = false;    // value absent; `text` holds "-"
  uint32_t size = 0;       // width in the payload, in bytes
  uint64_t number = 0;
  std::string name;
  std::string text;        // UTF-8
  std::vector<uint8_t> bytes;

  void reset() {
    type = subtype = 0;
    generated = missing = false;
    size = 0;
    number = 0;
    name.clear();
    text.clear();
    bytes.clear();
  }
};

class decoded_fields {
 public:
  struct entry {
    uint64_t key = 0;
    decoded_field field;
  };

  // A reset field placed at `key`, or nullptr when the key is taken. The
  // pointer stays good until the next `add` or `clear`.
  decoded_field* add(uint64_t key) {
    // The usual case, a key past the last one with a spare entry behind the
    // live ones, is kept small; the rest goes through add_elsewhere.
    if ((count_ == 0 || entries_[count_ - 1].key < key) && count_ < entries_.size()) {
      entry& e = entries_[count_++];
      e.key = key;
      e.field.reset();
      return &e.field;
    }
    return add_elsewhere(key);
  }

  // Inserts a copy; false when the key is taken.
  bool insert(uint64_t key, const decoded_field& f) {
    decoded_field* slot = add(key);
    if (!slot) return false;
    *slot = f;
    return true;
  }

  bool contains(uint64_t key) const {
    size_t i = lower_bound(key);
    return i < count_ && entries_[i].key == key;
  }

  size_t size() const { return count_; }
  bool empty() const { return count_ == 0; }
  void clear() { count_ = 0; }

  // The k-th entry counted back from the greatest key (1 is the last one);
  // nullptr when there is no such entry.
  const decoded_field* from_end(uint32_t k) const {
    if (k == 0 || k > count_) return nullptr;
    return &entries_[count_ - k].field;
  }

  const entry* begin() const { return entries_.data(); }
  const entry* end() const { return entries_.data() + count_; }
  entry* begin() { return entries_.data(); }
  entry* end() { return entries_.data() + count_; }

 private:
  [[gnu::noinline]] decoded_field* add_elsewhere(uint64_t key) {
    size_t i = count_;
    if (count_ != 0 && entries_[count_ - 1].key >= key) {
      i = lower_bound(key);
      if (i < count_ && entries_[i].key == key) return nullptr;
    }
    if (entries_.size() == count_) entries_.emplace_back();
    if (i != count_) {
      // Bring the spare entry at `count_` to position `i`.
      std::rotate(entries_.begin() + static_cast<std::ptrdiff_t>(i),
                  entries_.begin() + static_cast<std::ptrdiff_t>(count_),
                  entries_.begin() + static_cast<std::ptrdiff_t>(count_ + 1));
    }
    ++count_;
    entry& e = entries_[i];
    e.key = key;
    e.field.reset();
    return &e.field;
  }

  size_t lower_bound(uint64_t key) const {
    size_t lo = 0, hi = count_;
    while (lo < hi) {
      size_t mid = lo + (hi - lo) / 2;
      if (entries_[mid].key < key) lo = mid + 1; else hi = mid;
    }
    return lo;
  }

  std::vector<entry> entries_;  // [0, count_) live, sorted by key; the rest spare
  size_t count_ = 0;
};
