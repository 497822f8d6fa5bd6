// File access over POSIX descriptors, always with 64-bit offsets.

#include "support/uni_fileio.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <new>

#include "support/qv_string.h"

namespace uni {

namespace {

// Pseudo-files under /proc that can't report a length are read as if they
// held this many bytes.
constexpr int64_t kProcDefaultSize = 262144;
// One read() never asks for more than this.
constexpr uint64_t kMaxReadChunk = 268435456;
// Buffer of the stream that get_ostream hands out.
constexpr size_t kOutputCapacity = 262144;
// Largest single block read_block will size a vector for.
constexpr uint64_t kMaxBlock = 0xFFFFFFFFu;

// write() of one block to a descriptor, retried when a signal interrupts it.
// Returns the count written, or -1.
ssize_t write_once(int fd, const void* data, size_t length) {
  for (;;) {
    ssize_t r = ::write(fd, data, length);
    if (r >= 0 || errno != EINTR) return r;
  }
}

}  // namespace

// ---- streambuf_generic_output ---------------------------------------------

template <typename CharT, typename Traits>
streambuf_generic_output<CharT, Traits>::streambuf_generic_output(size_t capacity) {
  if (capacity == 0) return;
  try {
    buffer_.resize(capacity);
  } catch (const std::bad_alloc&) {
    return;
  }
  capacity_ = capacity;
  ready_ = true;
  this->setp(buffer_.data(), buffer_.data() + capacity_ - 1);
}

template <typename CharT, typename Traits>
typename Traits::int_type streambuf_generic_output<CharT, Traits>::overflow(
    typename Traits::int_type c) {
  if (!ready_) return Traits::eof();
  const bool is_eof = Traits::eq_int_type(c, Traits::eof());
  CharT* base = this->pbase();
  size_t pending = static_cast<size_t>(this->pptr() - base);
  // The put area stops one short of the buffer, so this slot always exists.
  if (!is_eof) base[pending++] = Traits::to_char_type(c);
  size_t written = 0;
  while (written < pending) {
    size_t part = std::min<size_t>(pending - written, std::numeric_limits<int>::max());
    int r = write_block(base + written, static_cast<int>(part));
    if (r <= 0) {
      // Give up. What did get out is dropped from the buffer so that a later
      // flush doesn't write it twice; the character that caused the call isn't
      // kept, and the stream sees the failure.
      const size_t buffered = is_eof ? pending : pending - 1;
      const size_t left = buffered > written ? buffered - written : 0;
      if (written > 0 && left > 0) {
        std::memmove(base, base + written, left * sizeof(CharT));
      }
      this->setp(buffer_.data(), buffer_.data() + capacity_ - 1);
      this->pbump(static_cast<int>(left));
      return Traits::eof();
    }
    written += std::min(static_cast<size_t>(r), part);
  }
  this->setp(buffer_.data(), buffer_.data() + capacity_ - 1);
  return is_eof ? Traits::to_int_type(CharT()) : c;
}

template <typename CharT, typename Traits>
int streambuf_generic_output<CharT, Traits>::flush_buffer() {
  return Traits::eq_int_type(overflow(Traits::eof()), Traits::eof()) ? -1 : 0;
}

template <typename CharT, typename Traits>
std::streamsize streambuf_generic_output<CharT, Traits>::xsputn(const CharT* s,
                                                                std::streamsize n) {
  if (!ready_ || n <= 0) return 0;
  const size_t count = static_cast<size_t>(n);
  const size_t room = static_cast<size_t>(this->epptr() - this->pptr());
  if (count <= room) {
    std::memcpy(this->pptr(), s, count * sizeof(CharT));
    this->pbump(static_cast<int>(count));
    return n;
  }
  if (flush_buffer() != 0) return 0;
  if (count < capacity_ - 1) {
    std::memcpy(this->pptr(), s, count * sizeof(CharT));
    this->pbump(static_cast<int>(count));
    return n;
  }
  // Larger than the whole buffer: no point in copying it through.
  size_t done = 0;
  while (done < count) {
    size_t part = std::min<size_t>(count - done, std::numeric_limits<int>::max());
    int r = write_block(s + done, static_cast<int>(part));
    if (r <= 0) break;
    done += std::min(static_cast<size_t>(r), part);
  }
  return static_cast<std::streamsize>(done);
}

template class streambuf_generic_output<char>;

// ---- fileio_ostream / fileio_output ----------------------------------------

fileio_ostream::fileio_ostream(fileio* file, size_t capacity)
    : streambuf_generic_output<char>(capacity), file_(file) {}

fileio_ostream::~fileio_ostream() { flush_buffer(); }

int fileio_ostream::write_block(const char* data, int length) {
  if (file_ == nullptr || length < 0) return -1;
  return file_->append(data, static_cast<uint32_t>(length)) ? length : -1;
}

fileio_output::fileio_output(fileio* file, size_t capacity)
    : std::ostream(nullptr), buf_(file, capacity) {
  rdbuf(&buf_);
}

fileio_output::~fileio_output() { buf_.flush_buffer(); }

void fileio_output::flush_now() {
  if (buf_.flush_buffer() != 0) setstate(std::ios_base::badbit);
}

// ---- fd_output -------------------------------------------------------------

// The largest pipe size the output asks for.
constexpr size_t kMaxPipeSize = 1u << 20;

fd_output::buf::buf(int fd, size_t capacity)
    : streambuf_generic_output<char>(capacity), fd_(fd) {
#ifdef F_SETPIPE_SZ
  // Output into a pipe: a pipe that holds a whole block takes each write at
  // once, rather than in pieces the reader must take in turn. Where the
  // system refuses the size, the pipe stays as it is.
  struct stat st;
  if (fd >= 0 && capacity <= kMaxPipeSize && fstat(fd, &st) == 0 && S_ISFIFO(st.st_mode) &&
      fcntl(fd, F_GETPIPE_SZ) < static_cast<int>(capacity)) {
    fcntl(fd, F_SETPIPE_SZ, static_cast<int>(capacity));
  }
#endif
}

fd_output::buf::~buf() { flush_buffer(); }

int fd_output::buf::write_block(const char* data, int length) {
  if (fd_ < 0 || length < 0) return -1;
  ssize_t r = write_once(fd_, data, static_cast<size_t>(length));
  return r < 0 ? -1 : static_cast<int>(r);
}

fd_output::fd_output(int fd, size_t capacity) : std::ostream(nullptr), buf_(fd, capacity) {
  rdbuf(&buf_);
}

fd_output::~fd_output() { buf_.flush_buffer(); }

void fd_output::flush_now() {
  if (buf_.flush_buffer() != 0) setstate(std::ios_base::badbit);
}

// ---- fileio ----------------------------------------------------------------

fileio::fileio() = default;

fileio::fileio(const std::string& path_in, bool writable_in, bool line_flag_in, bool) {
  open(path_in, writable_in, line_flag_in, true);
}

fileio::fileio(const std::wstring& path_in, bool writable_in, bool line_flag_in, bool) {
  open(path_in, writable_in, line_flag_in, true);
}

fileio::~fileio() { close(); }

void fileio::reset() {
  fd = -1;
  size = 0;
  writable = false;
  opened = false;
  line_flag = false;
  path.clear();
  read_count = 0;
}

bool fileio::open(const std::string& path_in, bool writable_in, bool line_flag_in, bool create) {
  // A name that isn't valid UTF-8 converts to nothing and fails below.
  return open(qv::to_wide(path_in), writable_in, line_flag_in, create);
}

bool fileio::open(const std::wstring& path_in, bool writable_in, bool line_flag_in, bool create) {
  if (path_in.empty()) return false;
  std::wstring name = path_in;
  size_t end = name.find_last_not_of(L"/\\");
  name.erase(end == std::wstring::npos ? 0 : end + 1);

  if (fd != -1) close();
  reset();
  writable = writable_in;
  line_flag = line_flag_in;
  path = name;

  std::string narrow;
  // A name that doesn't convert whole, or that holds a NUL, would name some
  // other file once cut short: refuse it.
  if (name.empty() || name.find(L'\0') != std::wstring::npos || !qv::wide_to_utf8(narrow, name) ||
      narrow.empty()) {
    reset();
    return false;
  }

  int flags = O_NONBLOCK | O_CLOEXEC;
  if (writable_in) {
    flags |= O_RDWR;
    if (create) flags |= O_CREAT | O_TRUNC;
  } else {
    flags |= O_RDONLY;
  }
  int d = ::open64(narrow.c_str(), flags, writable_in ? 0606 : 0404);
  if (d == -1) {
    reset();
    return false;
  }
  struct stat64 st;
  if (::fstat64(d, &st) != 0 || S_ISFIFO(st.st_mode) || S_ISSOCK(st.st_mode)) {
    ::close(d);
    reset();
    return false;
  }
  fd = d;
  opened = true;
  size = query_size();
  return true;
}

void fileio::close() {
  output.reset();  // flushes what the stream still holds
  if (fd != -1) ::close(fd);
  reset();
}

int64_t fileio::query_size() {
  if (fd == -1) return 0;
  off64_t here = ::lseek64(fd, 0, SEEK_CUR);
  // Cleared so that the /proc rule below sees this call's error only.
  errno = 0;
  off64_t end = ::lseek64(fd, 0, SEEK_END);
  int err = errno;
  int64_t result = end;
  if (end == 0 || end == -1) {
    result = (err == EINVAL && path.compare(0, 5, L"/proc") == 0) ? kProcDefaultSize : 0;
  }
  if (here != -1) ::lseek64(fd, here, SEEK_SET);
  return result;
}

bool fileio::read_block(std::vector<uint8_t>& out, uint64_t length, uint64_t offset) {
  read_count = 0;
  if (!is_open() || size < 0 || offset >= static_cast<uint64_t>(size)) return false;
  if (length == 0) return true;
  if (::lseek64(fd, static_cast<off64_t>(offset), SEEK_SET) == -1) return false;
  const uint64_t left = static_cast<uint64_t>(size) - offset;
  if (length > left) length = left;
  if (length > kMaxBlock) return false;
  if (out.size() != length) {
    try {
      out.resize(static_cast<size_t>(length));
    } catch (const std::bad_alloc&) {
      return false;
    } catch (const std::length_error&) {
      return false;
    }
  }
  uint64_t done = 0;
  while (done < length) {
    size_t ask = static_cast<size_t>(std::min(length - done, kMaxReadChunk));
    ssize_t r = ::read(fd, out.data() + done, ask);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) break;
    done += static_cast<uint64_t>(r);
  }
  read_count = done;
  if (done < length) {
    if (done > 0) {
      out.resize(static_cast<size_t>(done));
    } else {
      // Nothing came: the block stays at full length, all zero, never holding
      // what an earlier read left in a reused vector.
      std::fill(out.begin(), out.end(), 0);
    }
  }
  return true;
}

bool fileio::write_at(const void* data, uint32_t length, uint64_t offset) {
  if (!is_open() || data == nullptr) return false;
  if (length == 0) return true;
  if (offset > static_cast<uint64_t>(std::numeric_limits<off64_t>::max())) return false;
  if (::lseek64(fd, static_cast<off64_t>(offset), SEEK_SET) == -1) return false;
  if (write_once(fd, data, length) == -1) return false;
  size = query_size();
  return true;
}

namespace {

// Seeks to the end, writes once and gives the new end, or -1.
int64_t append_bytes(int fd, const void* data, size_t length) {
  off64_t end = ::lseek64(fd, 0, SEEK_END);
  if (end == -1) return -1;
  ssize_t r = write_once(fd, data, length);
  if (r == -1) return -1;
  return static_cast<int64_t>(end) + r;
}

}  // namespace

bool fileio::append(const std::vector<uint8_t>& data) {
  if (!is_open() || data.empty()) return false;
  int64_t end = append_bytes(fd, data.data(), data.size());
  if (end < 0) return false;
  size = end;
  return true;
}

bool fileio::append(const void* data, uint32_t length) {
  if (!is_open() || data == nullptr) return false;
  if (length == 0) return true;
  int64_t end = append_bytes(fd, data, length);
  if (end < 0) return false;
  size = end;
  return true;
}

bool fileio::append(std::ostringstream& text) {
  const std::string s = text.str();
  if (s.empty()) return true;
  if (!is_open()) return false;
  int64_t end = append_bytes(fd, s.data(), s.size());
  if (end < 0) return false;
  size = end;
  return true;
}

std::ostream* fileio::get_ostream() {
  if (!is_open()) return nullptr;
  if (output) return output.get();
  try {
    output = std::make_unique<fileio_output>(this, kOutputCapacity);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
  return output.get();
}

bool read_whole_file(std::vector<uint8_t>& out, const std::string& path, uint32_t limit) {
  out.clear();
  if (path.empty() || limit == 0) return false;
  fileio file(path, false, true);
  if (!file.is_open()) return false;
  // The length is taken to 32 bits, as a single block can't be larger.
  const uint32_t size32 = static_cast<uint32_t>(file.file_size());
  if (size32 == 0) return false;
  return file.read_block(out, std::min(limit, size32), 0);
}

// ---- stdin_stream ----------------------------------------------------------

stdin_stream::stdin_stream(bool flag) : flag_(flag) {
  capacity_ = 4096;
  input_ = stdin;
  try {
    line_.resize(capacity_);
  } catch (const std::bad_alloc&) {
    return;
  }
  ready_ = true;
}

stdin_stream::~stdin_stream() = default;

bool stdin_stream::getline(std::string& out, bool strip_eol) {
  out.clear();
  if (!ready_ || input_ == nullptr) return false;
  if (std::fgets(line_.data(), static_cast<int>(capacity_), input_) == nullptr) return false;
  out.assign(line_.data());
  if (strip_eol) qv::strip_eol(out);
  return true;
}

bool stdin_stream::getline(std::wstring& out, bool strip_eol) {
  out.clear();
  std::string narrow;
  if (!stdin_stream::getline(narrow, strip_eol)) return false;
  // What decodes before a bad sequence is kept.
  qv::utf8_to_wide(out, narrow);
  return true;
}

}  // namespace uni
