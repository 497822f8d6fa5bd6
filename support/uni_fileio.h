// File access: 64-bit reads of blocks at absolute offsets into byte vectors,
// writes and appends, a buffered output stream over a file, and a line reader
// over standard input. Every failure is a boolean result; nothing throws and
// nothing prints.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <ostream>
#include <sstream>
#include <streambuf>
#include <string>
#include <vector>

namespace uni {

class fileio;

// A put-area buffer that hands full blocks to `write_block`. The put area is
// one element short of the capacity so that `overflow` always has room for
// the character that caused it. `sync` writes nothing: a `flush()` on the
// stream doesn't reach the file before the buffer fills or the owner flushes.
template <typename CharT, typename Traits = std::char_traits<CharT>>
class streambuf_generic_output : public std::basic_streambuf<CharT, Traits> {
 public:
  explicit streambuf_generic_output(size_t capacity);
  ~streambuf_generic_output() override = default;

  // Writes out what is buffered. 0 on success, -1 on failure.
  virtual int flush_buffer();
  // Returns the count written or -1.
  virtual int write_block(const CharT* data, int length) = 0;

 protected:
  typename Traits::int_type overflow(typename Traits::int_type c) override;
  // A run of characters goes into the buffer in one copy; a run larger than
  // the buffer goes straight to `write_block` after what is pending.
  std::streamsize xsputn(const CharT* s, std::streamsize n) override;
  int sync() override { return 0; }  // flush() doesn't reach the file

  std::vector<CharT> buffer_;
  size_t capacity_ = 0;
  bool ready_ = false;
};

// Instantiated once, for char, in uni_fileio.cc.
extern template class streambuf_generic_output<char>;

// Writes its blocks by `append` on the file it belongs to.
class fileio_ostream : public streambuf_generic_output<char> {
 public:
  fileio_ostream(fileio* file, size_t capacity);
  ~fileio_ostream() override;
  int write_block(const char* data, int length) override;

 private:
  fileio* file_;
};

// The ostream that `fileio::get_ostream` hands out; flushes on destruction.
class fileio_output : public std::ostream {
 public:
  fileio_output(fileio* file, size_t capacity);
  ~fileio_output() override;
  // Writes out the buffered bytes now.
  void flush_now();

 private:
  fileio_ostream buf_;
};

// An output stream over an already open descriptor (standard output), with
// the same 256 KiB buffering as the result file. The descriptor isn't closed.
class fd_output : public std::ostream {
 public:
  explicit fd_output(int fd, size_t capacity = 262144);
  ~fd_output() override;
  void flush_now();

 private:
  class buf : public streambuf_generic_output<char> {
   public:
    buf(int fd, size_t capacity);
    ~buf() override;
    int write_block(const char* data, int length) override;

   private:
    int fd_;
  } buf_;
};

class fileio {
 public:
  fileio();
  fileio(const std::string& path, bool writable, bool line_flag = false, bool ignored = false);
  fileio(const std::wstring& path, bool writable, bool line_flag = false, bool ignored = false);
  virtual ~fileio();

  fileio(const fileio&) = delete;
  fileio& operator=(const fileio&) = delete;

  // Trailing "/" and "\" are dropped from the name. Reads are O_RDONLY;
  // `writable` is O_RDWR, with `create` also O_CREAT | O_TRUNC (mode 0606
  // before the umask). FIFOs and sockets are refused. The constructors open
  // as if `create` were set.
  bool open(const std::string& path, bool writable, bool line_flag, bool create);
  bool open(const std::wstring& path, bool writable, bool line_flag, bool create);
  void close();
  bool is_open() const { return fd != -1 && opened; }
  uint64_t file_size() const { return is_open() ? static_cast<uint64_t>(size) : 0; }
  // Measures the length anew; a /proc pseudo-file that can't seek to its end
  // counts as 262144 bytes.
  int64_t query_size();

  // Reads up to `length` bytes at `offset` (cut at the end of the file; a
  // single block stays below 4 GiB). Fails when `offset` is at or past the
  // end. A short read shrinks `out` to the bytes read, a read of nothing
  // keeps `out` at its full length, zero-filled, and both succeed. A vector
  // that already has the size is reused.
  bool read_block(std::vector<uint8_t>& out, uint64_t length, uint64_t offset);
  // The bytes that the last read_block took from the file: fewer than its
  // block when the read stopped short, 0 for a read of nothing (whose block
  // is all zero) or a failed call. A folder, or a file cut short while it is
  // read, tells itself here.
  uint64_t bytes_read() const { return read_count; }
  bool write_at(const void* data, uint32_t length, uint64_t offset);
  bool append(const std::vector<uint8_t>& data);
  bool append(const void* data, uint32_t length);
  bool append(std::ostringstream& text);
  // The buffered text stream over this file (262144 bytes); null when closed.
  std::ostream* get_ostream();

  const std::wstring& name() const { return path; }

 private:
  void reset();

  int32_t fd = -1;
  int64_t size = 0;
  bool writable = false;
  bool opened = false;
  bool line_flag = false;
  std::wstring path;
  std::unique_ptr<fileio_output> output;
  uint64_t read_count = 0;
};

bool read_whole_file(std::vector<uint8_t>& out, const std::string& path, uint32_t limit);

// Line reader over standard input (fgets into a 4096-byte buffer).
class stdin_stream {
 public:
  explicit stdin_stream(bool flag = false);
  virtual ~stdin_stream();
  virtual bool getline(std::string& out, bool strip_eol);
  virtual bool getline(std::wstring& out, bool strip_eol);

 protected:
  std::vector<char> line_;
  FILE* input_ = nullptr;
  bool ready_ = false;
  bool flag_ = false;
  uint32_t capacity_ = 4096;
};

}  // namespace uni
