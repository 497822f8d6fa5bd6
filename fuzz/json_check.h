// A strict reader of one JSON text, for the fuzz targets (which link no JSON
// library): the grammar of RFC 8259, strings of well-formed UTF-8 with no raw
// control characters, and no key twice in one object. It only says yes or
// no. Nesting is bounded, so hostile input can't exhaust the stack.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <set>
#include <string>

namespace json_check {

constexpr int kMaxDepth = 64;

class reader {
 public:
  reader(const char* p, size_t n) : p_(reinterpret_cast<const uint8_t*>(p)), n_(n) {}

  // The whole text is one value with nothing but blanks around it.
  bool whole_value() {
    blanks();
    if (!value(0)) return false;
    blanks();
    return at_ == n_;
  }

 private:
  bool more() const { return at_ < n_; }
  uint8_t peek() const { return at_ < n_ ? p_[at_] : 0; }

  void blanks() {
    while (more() && (p_[at_] == ' ' || p_[at_] == '\t' || p_[at_] == '\n' || p_[at_] == '\r')) ++at_;
  }

  bool literal(const char* word) {
    const size_t len = std::strlen(word);
    if (n_ - at_ < len || std::memcmp(p_ + at_, word, len) != 0) return false;
    at_ += len;
    return true;
  }

  bool value(int depth) {
    if (depth > kMaxDepth) return false;
    switch (peek()) {
      case '{': return object(depth);
      case '[': return array(depth);
      case '"': return string(nullptr);
      case 't': return literal("true");
      case 'f': return literal("false");
      case 'n': return literal("null");
      default: return number();
    }
  }

  bool object(int depth) {
    ++at_;
    blanks();
    std::set<std::string> keys;
    if (peek() == '}') {
      ++at_;
      return true;
    }
    for (;;) {
      blanks();
      std::string key;
      if (peek() != '"' || !string(&key)) return false;
      if (!keys.insert(key).second) return false;
      blanks();
      if (peek() != ':') return false;
      ++at_;
      blanks();
      if (!value(depth + 1)) return false;
      blanks();
      if (peek() == ',') {
        ++at_;
        continue;
      }
      if (peek() != '}') return false;
      ++at_;
      return true;
    }
  }

  bool array(int depth) {
    ++at_;
    blanks();
    if (peek() == ']') {
      ++at_;
      return true;
    }
    for (;;) {
      blanks();
      if (!value(depth + 1)) return false;
      blanks();
      if (peek() == ',') {
        ++at_;
        continue;
      }
      if (peek() != ']') return false;
      ++at_;
      return true;
    }
  }

  static bool hex(uint8_t c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

  // A string; its raw bytes between the quotes go to `text` when asked (the
  // escaped form names a key uniquely as well as the decoded one would,
  // since the writer under test escapes one way only).
  bool string(std::string* text) {
    ++at_;
    const size_t start = at_;
    for (;;) {
      if (!more()) return false;
      const uint8_t c = p_[at_];
      if (c == '"') break;
      if (c < 0x20) return false;
      if (c == '\\') {
        ++at_;
        const uint8_t e = peek();
        if (e == 'u') {
          if (n_ - at_ < 5) return false;
          for (size_t i = 1; i <= 4; ++i)
            if (!hex(p_[at_ + i])) return false;
          at_ += 5;
        } else if (e == '"' || e == '\\' || e == '/' || e == 'b' || e == 'f' || e == 'n' || e == 'r' || e == 't') {
          ++at_;
        } else {
          return false;
        }
        continue;
      }
      if (c < 0x80) {
        ++at_;
        continue;
      }
      if (!utf8()) return false;
    }
    if (text) text->assign(reinterpret_cast<const char*>(p_ + start), at_ - start);
    ++at_;
    return true;
  }

  // One well-formed UTF-8 character of two bytes or more.
  bool utf8() {
    const uint8_t c = p_[at_];
    size_t need;
    uint8_t lo = 0x80, hi = 0xBF;
    if (c >= 0xC2 && c <= 0xDF) {
      need = 2;
    } else if (c >= 0xE0 && c <= 0xEF) {
      need = 3;
      if (c == 0xE0) lo = 0xA0;
      if (c == 0xED) hi = 0x9F;
    } else if (c >= 0xF0 && c <= 0xF4) {
      need = 4;
      if (c == 0xF0) lo = 0x90;
      if (c == 0xF4) hi = 0x8F;
    } else {
      return false;
    }
    if (n_ - at_ < need) return false;
    for (size_t i = 1; i < need; ++i) {
      const uint8_t b = p_[at_ + i];
      if (i == 1 ? (b < lo || b > hi) : (b < 0x80 || b > 0xBF)) return false;
    }
    at_ += need;
    return true;
  }

  bool digits() {
    const size_t start = at_;
    while (more() && p_[at_] >= '0' && p_[at_] <= '9') ++at_;
    return at_ > start;
  }

  bool number() {
    if (peek() == '-') ++at_;
    if (peek() == '0') {
      ++at_;
    } else if (peek() >= '1' && peek() <= '9') {
      digits();
    } else {
      return false;
    }
    if (peek() == '.') {
      ++at_;
      if (!digits()) return false;
    }
    if (peek() == 'e' || peek() == 'E') {
      ++at_;
      if (peek() == '+' || peek() == '-') ++at_;
      if (!digits()) return false;
    }
    return true;
  }

  const uint8_t* p_;
  size_t n_;
  size_t at_ = 0;
};

// True when `text` is one JSON object.
inline bool is_object(const std::string& text) {
  if (text.empty() || text[0] != '{') return false;
  return reader(text.data(), text.size()).whole_value();
}

// True when `text` is a run of lines, each one JSON object ended by "\n".
inline bool is_json_lines(const std::string& text) {
  size_t start = 0;
  while (start < text.size()) {
    const size_t end = text.find('\n', start);
    if (end == std::string::npos) return false;
    if (!is_object(text.substr(start, end - start))) return false;
    start = end + 1;
  }
  return true;
}

}  // namespace json_check
