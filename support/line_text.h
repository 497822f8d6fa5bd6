// A line of output composed piece by piece into a string that is kept longer
// than the line itself. std::string checks and sets its length, and writes
// its terminating zero, with every piece; a row of sixty pieces pays for
// that sixty times. Here the string keeps its length (the room), the line's
// own end is counted aside, and short pieces go in with a few fixed-size
// stores that may run into the room behind the line and are overwritten by
// the next piece.
//
// Code that appends to a std::string gets the string cut to the line from
// settle(), and resume() takes the line back with what that code added.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace qv {

class line_text {
 public:
  // The line starts empty; `storage` keeps what it holds as room.
  explicit line_text(std::string& storage) : s_(storage) {}
  // The line goes on behind what `storage` holds; settle() gives the string
  // back with what was added.
  struct behind_t {};
  static constexpr behind_t behind{};
  line_text(std::string& storage, behind_t) : s_(storage), used_(storage.size()) {}
  line_text(const line_text&) = delete;
  line_text& operator=(const line_text&) = delete;

  size_t size() const { return used_; }
  bool empty() const { return used_ == 0; }
  char* data() { return s_.data(); }
  const char* data() const { return s_.data(); }
  char& operator[](size_t i) { return s_[i]; }
  char operator[](size_t i) const { return s_[i]; }
  char back() const { return s_[used_ - 1]; }
  std::string_view view() const { return std::string_view(s_.data(), used_); }
  void clear() { used_ = 0; }

  // At least `n` writable bytes at the end of the line, and kSlack more
  // behind them for the stores that run over.
  char* room(size_t n) {
    if (s_.size() - used_ < n + kSlack) grow(n);
    return s_.data() + used_;
  }
  // Counts `n` bytes written at room() as part of the line.
  void advance(size_t n) { used_ += n; }

  void push_back(char c) {
    *room(1) = c;
    ++used_;
  }
  void pop_back() { --used_; }
  void append(const char* p, size_t n) {
    copy(room(n), p, n);
    used_ += n;
  }
  // Copies `n` bytes to `d`, the short ones without a call.
  static void copy(char* d, const char* p, size_t n) {
    if (n <= 16) {
      copy_short(d, p, n);
    } else {
      std::memcpy(d, p, n);
    }
  }
  // `n` copies of `c`; up to kSlack of them in one fixed-size fill.
  void append(size_t n, char c) {
    char* d = room(n);
    if (n <= kSlack) {
      std::memset(d, c, kSlack);
    } else {
      std::memset(d, c, n);
    }
    used_ += n;
  }
  line_text& operator+=(std::string_view t) {
    append(t.data(), t.size());
    return *this;
  }
  line_text& operator+=(char c) {
    push_back(c);
    return *this;
  }
  // Shorter: the line is cut; longer: zero bytes are added.
  void resize(size_t n) {
    if (n > used_) {
      std::memset(room(n - used_), 0, n - used_);
    }
    used_ = n;
  }
  // `n` copies of `c` at `pos`, the rest of the line moved behind them.
  void insert(size_t pos, size_t n, char c) {
    char* d = room(n) - used_;
    std::memmove(d + pos + n, d + pos, used_ - pos);
    std::memset(d + pos, c, n);
    used_ += n;
  }
  void erase(size_t pos, size_t n) {
    char* d = s_.data();
    std::memmove(d + pos, d + pos + n, used_ - pos - n);
    used_ -= n;
  }

  // The string cut to the line, for code that appends to a std::string.
  std::string& settle() {
    s_.resize(used_);
    return s_;
  }
  // The line as settle()'s string now holds it.
  void resume() { used_ = s_.size(); }

  static constexpr size_t kSlack = 64;

 private:
  // Copies 0 to 16 bytes with stores of fixed size that overlap.
  static void copy_short(char* d, const char* p, size_t n) {
    if (n >= 8) {
      uint64_t a, b;
      std::memcpy(&a, p, 8);
      std::memcpy(&b, p + n - 8, 8);
      std::memcpy(d, &a, 8);
      std::memcpy(d + n - 8, &b, 8);
    } else if (n >= 4) {
      uint32_t a, b;
      std::memcpy(&a, p, 4);
      std::memcpy(&b, p + n - 4, 4);
      std::memcpy(d, &a, 4);
      std::memcpy(d + n - 4, &b, 4);
    } else if (n != 0) {
      d[0] = p[0];
      d[n / 2] = p[n / 2];
      d[n - 1] = p[n - 1];
    }
  }
  void grow(size_t n);

  std::string& s_;
  size_t used_ = 0;
};

}  // namespace qv
