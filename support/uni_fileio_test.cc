#include "support/uni_fileio.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

// A fresh folder under /tmp, removed with everything in it at the end.
class temp_dir {
 public:
  temp_dir() {
    char tmpl[] = "/tmp/quon_fileio_XXXXXX";
    const char* p = mkdtemp(tmpl);
    path_ = p ? p : "";
  }
  ~temp_dir() {
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove_all(path_, ec);
  }
  std::string file(const std::string& name) const { return path_ + "/" + name; }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

void write_file(const std::string& path, const std::string& bytes) {
  std::ofstream f(path, std::ios::binary | std::ios::trunc);
  f.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::string slurp(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::ostringstream s;
  s << f.rdbuf();
  return s.str();
}

std::string as_text(const std::vector<uint8_t>& v) { return std::string(v.begin(), v.end()); }

TEST(UniFileio, OpenNamesAndKinds) {
  temp_dir dir;
  ASSERT_FALSE(dir.path().empty());
  const std::string x = dir.file("x");
  write_file(x, "hello");

  // Trailing separators of either kind are dropped from the name.
  uni::fileio f(x + "///", false, true);
  ASSERT_TRUE(f.is_open());
  EXPECT_EQ(f.file_size(), 5u);
  EXPECT_EQ(f.name(), std::wstring(x.begin(), x.end()));
  ASSERT_TRUE(f.open(x + "\\/\\", false, true, false));
  EXPECT_EQ(f.file_size(), 5u);

  // A name of separators only is empty after stripping; so is an invalid
  // UTF-8 name after conversion. A failed open leaves the object closed.
  EXPECT_FALSE(f.open("/", false, true, false));
  EXPECT_FALSE(f.is_open());
  EXPECT_EQ(f.file_size(), 0u);
  EXPECT_FALSE(f.open("", false, true, false));
  EXPECT_FALSE(f.open(dir.file("\xff\xfe"), false, true, false));
  // A wide name opens the same file.
  EXPECT_TRUE(f.open(std::wstring(x.begin(), x.end()), false, true, false));
  // A NUL inside a wide name would name another file once cut short.
  std::wstring with_nul(x.begin(), x.end());
  with_nul += L'\0';
  with_nul += L"zz";
  EXPECT_FALSE(f.open(with_nul, false, true, false));

  EXPECT_FALSE(uni::fileio(dir.file("missing"), false).is_open());

  // A FIFO would block a reader forever: refused at once, without waiting
  // for a writer.
  const std::string fifo = dir.file("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_FALSE(uni::fileio(fifo, false).is_open());
  EXPECT_FALSE(uni::fileio(fifo, true, false, false).is_open());

  // A folder opens; reading it is what fails later.
  EXPECT_TRUE(uni::fileio(dir.path(), false).is_open());
}

TEST(UniFileio, CreateTruncateAndMode) {
  temp_dir dir;
  const std::string r = dir.file("result.txt");

  mode_t old = umask(0);
  {
    uni::fileio f;
    ASSERT_TRUE(f.open(r, true, false, true));
    EXPECT_EQ(f.file_size(), 0u);
  }
  umask(old);
  struct stat st;
  ASSERT_EQ(stat(r.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0606u);

  write_file(r, "0123456789");
  {
    // Without create the content stays and appends go behind it.
    uni::fileio f;
    ASSERT_TRUE(f.open(r, true, false, false));
    EXPECT_EQ(f.file_size(), 10u);
    EXPECT_TRUE(f.append("ab", 2));
    EXPECT_EQ(f.file_size(), 12u);
  }
  EXPECT_EQ(slurp(r), "0123456789ab");
  {
    // The constructor form with writable set always creates or truncates.
    uni::fileio f(r, true);
    ASSERT_TRUE(f.is_open());
    EXPECT_EQ(f.file_size(), 0u);
  }
  EXPECT_EQ(slurp(r), "");

  // Appending to a file that isn't there fails without create, so the caller
  // can retry with it.
  uni::fileio g;
  EXPECT_FALSE(g.open(dir.file("new.txt"), true, false, false));
  EXPECT_TRUE(g.open(dir.file("new.txt"), true, false, true));
}

TEST(UniFileio, ReadBlockBounds) {
  temp_dir dir;
  const std::string empty = dir.file("empty");
  write_file(empty, "");
  uni::fileio e(empty, false, true);
  ASSERT_TRUE(e.is_open());
  EXPECT_EQ(e.file_size(), 0u);
  std::vector<uint8_t> out;
  EXPECT_FALSE(e.read_block(out, 1, 0));

  const std::string ten = dir.file("ten");
  write_file(ten, "0123456789");
  uni::fileio f(ten, false, true);
  ASSERT_TRUE(f.is_open());

  EXPECT_FALSE(f.read_block(out, 1, 10));  // offset at size
  ASSERT_TRUE(f.read_block(out, 5, 9));    // one byte below size
  EXPECT_EQ(as_text(out), "9");

  // Length 0 succeeds and leaves the vector as it was.
  out.assign(3, 0xAA);
  EXPECT_TRUE(f.read_block(out, 0, 2));
  EXPECT_EQ(out, std::vector<uint8_t>(3, 0xAA));

  // The length is cut at the end of the file.
  ASSERT_TRUE(f.read_block(out, 1000, 4));
  EXPECT_EQ(as_text(out), "456789");

  // A vector that already has the size is reused, not reallocated.
  out.assign(4, 0);
  const uint8_t* data = out.data();
  ASSERT_TRUE(f.read_block(out, 4, 1));
  EXPECT_EQ(out.data(), data);
  EXPECT_EQ(as_text(out), "1234");
}

TEST(UniFileio, ReadBlockAfterTruncationBySomeoneElse) {
  temp_dir dir;
  const std::string p = dir.file("t");
  write_file(p, std::string(100, 'z'));
  uni::fileio f(p, false, true);
  ASSERT_TRUE(f.is_open());
  ASSERT_EQ(f.file_size(), 100u);
  ASSERT_EQ(truncate(p.c_str(), 40), 0);

  // Part of the block is still there: the vector shrinks to what was read.
  std::vector<uint8_t> out;
  ASSERT_TRUE(f.read_block(out, 50, 20));
  EXPECT_EQ(out.size(), 20u);
  EXPECT_EQ(as_text(out), std::string(20, 'z'));

  // Nothing is left: full length, all zero, even in a vector that held
  // bytes of an earlier block.
  out.assign(30, 0xAA);
  ASSERT_TRUE(f.read_block(out, 30, 60));
  EXPECT_EQ(out, std::vector<uint8_t>(30, 0));
}

// What the block doesn't show: how many bytes the file actually gave. A
// read of nothing and a block of real zeros look the same in the vector.
TEST(UniFileio, BytesReadTellsShortAndEmptyReads) {
  temp_dir dir;
  const std::string p = dir.file("z");
  write_file(p, std::string(100, '\0'));
  uni::fileio f(p, false, true);
  ASSERT_TRUE(f.is_open());
  std::vector<uint8_t> out;
  EXPECT_EQ(f.bytes_read(), 0u);
  ASSERT_TRUE(f.read_block(out, 72, 10));
  EXPECT_EQ(f.bytes_read(), 72u);
  // Cut at the end of the file: all that was asked of the file came.
  ASSERT_TRUE(f.read_block(out, 72, 50));
  EXPECT_EQ(out.size(), 50u);
  EXPECT_EQ(f.bytes_read(), 50u);

  ASSERT_EQ(truncate(p.c_str(), 30), 0);
  ASSERT_TRUE(f.read_block(out, 72, 10));
  EXPECT_EQ(out.size(), 20u);
  EXPECT_EQ(f.bytes_read(), 20u);
  // Nothing left behind offset 30: the 60 bytes up to the size taken at
  // open, all zero, that the file never gave.
  ASSERT_TRUE(f.read_block(out, 72, 40));
  EXPECT_EQ(out, std::vector<uint8_t>(60, 0));
  EXPECT_EQ(f.bytes_read(), 0u);
  // A failed call and a call for no bytes take nothing either.
  ASSERT_TRUE(f.read_block(out, 5, 0));
  EXPECT_FALSE(f.read_block(out, 5, 100));
  EXPECT_EQ(f.bytes_read(), 0u);
  ASSERT_TRUE(f.read_block(out, 5, 0));
  EXPECT_TRUE(f.read_block(out, 0, 0));
  EXPECT_EQ(f.bytes_read(), 0u);
  f.close();
  EXPECT_EQ(f.bytes_read(), 0u);

  // A folder opens (the layer doesn't refuse it) and every read of it gives
  // nothing, whatever length the file system claims for it.
  uni::fileio folder(dir.path(), false, true);
  ASSERT_TRUE(folder.is_open());
  if (folder.file_size() > 0) {
    ASSERT_TRUE(folder.read_block(out, 386, 0));
    EXPECT_EQ(out, std::vector<uint8_t>(386, 0));
    EXPECT_EQ(folder.bytes_read(), 0u);
  }
}

TEST(UniFileio, WriteAtAndAppendForms) {
  temp_dir dir;
  const std::string p = dir.file("w");
  uni::fileio f;
  ASSERT_TRUE(f.open(p, true, false, true));

  EXPECT_FALSE(f.write_at(nullptr, 1, 0));
  EXPECT_TRUE(f.write_at("x", 0, 0));
  EXPECT_EQ(f.file_size(), 0u);
  EXPECT_TRUE(f.write_at("abc", 3, 5));  // past the end: a hole of zeros
  EXPECT_EQ(f.file_size(), 8u);
  EXPECT_TRUE(f.write_at("Q", 1, 0));
  EXPECT_EQ(f.file_size(), 8u);

  EXPECT_FALSE(f.append(std::vector<uint8_t>()));
  EXPECT_TRUE(f.append(std::vector<uint8_t>{'d', 'e'}));
  EXPECT_TRUE(f.append("f", 0));
  EXPECT_FALSE(f.append(nullptr, 0));
  EXPECT_TRUE(f.append("gh", 2));
  std::ostringstream text;
  EXPECT_TRUE(f.append(text));  // empty text succeeds
  text << "ij";
  EXPECT_TRUE(f.append(text));
  EXPECT_EQ(f.file_size(), 14u);

  f.close();
  EXPECT_EQ(slurp(p), std::string("Q\0\0\0\0abcdeghij", 14));

  // Closed: every form fails but the empty text.
  EXPECT_FALSE(f.append("a", 1));
  std::ostringstream empty;
  EXPECT_TRUE(f.append(empty));
  EXPECT_FALSE(f.append(text));
}

TEST(UniFileio, OutputStreamBuffering) {
  temp_dir dir;
  uni::fileio closed;
  EXPECT_EQ(closed.get_ostream(), nullptr);

  const std::string p = dir.file("rows");
  uni::fileio f;
  ASSERT_TRUE(f.open(p, true, false, true));
  std::ostream* out = f.get_ostream();
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(f.get_ostream(), out);  // one stream per file

  // The put area holds capacity - 1 = 262143 bytes; flush() doesn't write.
  const std::string chunk(262143, 'r');
  *out << chunk << std::flush;
  EXPECT_TRUE(out->good());
  EXPECT_EQ(slurp(p).size(), 0u);
  // The next character overflows and the whole buffer, with it, goes out.
  *out << 'X';
  EXPECT_EQ(slurp(p).size(), 262144u);
  *out << "tail";
  EXPECT_EQ(slurp(p).size(), 262144u);
  // Closing flushes and drops the stream.
  f.close();
  const std::string all = slurp(p);
  ASSERT_EQ(all.size(), 262148u);
  EXPECT_EQ(all.substr(262142), "rXtail");
  EXPECT_EQ(f.get_ostream(), nullptr);

  // A row larger than the buffer goes straight through, after what was
  // pending, in order.
  ASSERT_TRUE(f.open(p, true, false, true));
  out = f.get_ostream();
  ASSERT_NE(out, nullptr);
  std::string big(300000, 'b');
  big.front() = '<';
  big.back() = '>';
  *out << "head" << big << "end";
  f.close();
  EXPECT_EQ(slurp(p), "head" + big + "end");
}

// A buffer whose writer accepts a few bytes, then fails once.
class flaky_output : public uni::streambuf_generic_output<char> {
 public:
  flaky_output() : streambuf_generic_output<char>(8) {}
  int write_block(const char* data, int length) override {
    ++calls;
    if (calls == 1) {
      int n = length < 3 ? length : 3;
      written.append(data, n);
      return n;
    }
    if (calls == 2) return -1;
    written.append(data, length);
    return length;
  }
  int calls = 0;
  std::string written;
};

TEST(UniFileio, GenericBufferWriteFailure) {
  flaky_output b;
  std::ostream os(&b);
  os << "abcdefg";  // fills the 7-byte put area
  EXPECT_EQ(b.calls, 0);
  os << 'h';        // overflow: 3 bytes go, then the writer fails
  EXPECT_TRUE(os.bad());
  EXPECT_EQ(b.written, "abc");
  // Later flushes write what was left, once.
  EXPECT_EQ(b.flush_buffer(), 0);
  EXPECT_EQ(b.written, "abcdefg");
  EXPECT_EQ(b.flush_buffer(), 0);
  EXPECT_EQ(b.written, "abcdefg");
}

TEST(UniFileio, DescriptorOutput) {
  temp_dir dir;
  const std::string p = dir.file("stdout");
  int fd = ::open(p.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  ASSERT_GE(fd, 0);
  {
    uni::fd_output out(fd, 16);
    out << "0123456789";
    out.write("abcd", 4);
    EXPECT_EQ(slurp(p), "");  // 14 bytes fit in the 15-byte put area
    out << "efg";             // 17 bytes: the buffer goes out
    EXPECT_EQ(slurp(p), "0123456789abcd");
    out << std::string(40, 'L');  // larger than the buffer: written through
    EXPECT_EQ(slurp(p), "0123456789abcdefg" + std::string(40, 'L'));
    out << "end";
    out.flush();
    EXPECT_EQ(slurp(p).size(), 57u);
  }
  // Destruction flushes; the descriptor stays open.
  EXPECT_EQ(slurp(p), "0123456789abcdefg" + std::string(40, 'L') + "end");
  EXPECT_EQ(::write(fd, "!", 1), 1);
  ::close(fd);

  uni::fd_output bad(-1, 4);
  bad << "abcdef";
  EXPECT_TRUE(bad.bad());
}

#ifdef F_SETPIPE_SZ
TEST(UniFileio, DescriptorOutputIntoAPipeHoldsABlock) {
  // A pipe that the output writes into is made large enough for a whole
  // block of the output (the system allows up to a megabyte by default).
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  const int before = fcntl(fds[1], F_GETPIPE_SZ);
  ASSERT_GT(before, 0);
  {
    uni::fd_output out(fds[1], 262144);
    const int after = fcntl(fds[1], F_GETPIPE_SZ);
    if (before < 262144) {
      // Refused only beyond the system's own limit for one user's pipes.
      EXPECT_TRUE(after >= 262144 || after == before) << after;
    } else {
      EXPECT_EQ(after, before);
    }
    out << "through the pipe";
  }
  char got[32] = {};
  EXPECT_EQ(::read(fds[0], got, sizeof got), 16);
  EXPECT_EQ(std::string(got), "through the pipe");
  ::close(fds[0]);
  ::close(fds[1]);

  // A regular file is left alone.
  temp_dir dir;
  const std::string p = dir.file("plain");
  int fd = ::open(p.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  ASSERT_GE(fd, 0);
  {
    uni::fd_output out(fd, 262144);
    out << "x";
  }
  EXPECT_EQ(slurp(p), "x");
  ::close(fd);
}
#endif

TEST(UniFileio, ProcSizeAndWholeFile) {
  // seq_file pseudo-files refuse a seek to the end with EINVAL.
  if (access("/proc/self/status", R_OK) == 0) {
    uni::fileio proc("/proc/self/status", false, true);
    ASSERT_TRUE(proc.is_open());
    EXPECT_EQ(proc.file_size(), 262144u);
    std::vector<uint8_t> out;
    ASSERT_TRUE(proc.read_block(out, 262144, 0));
    EXPECT_GT(out.size(), 0u);
    EXPECT_LT(out.size(), 262144u);
    EXPECT_EQ(as_text(out).compare(0, 5, "Name:"), 0);
  }

  temp_dir dir;
  const std::string p = dir.file("whole");
  write_file(p, "abcdef");
  std::vector<uint8_t> out{1, 2, 3};
  EXPECT_FALSE(uni::read_whole_file(out, p, 0));
  EXPECT_TRUE(out.empty());
  EXPECT_FALSE(uni::read_whole_file(out, "", 10));
  EXPECT_FALSE(uni::read_whole_file(out, dir.file("none"), 10));
  ASSERT_TRUE(uni::read_whole_file(out, p, 4));
  EXPECT_EQ(as_text(out), "abcd");
  ASSERT_TRUE(uni::read_whole_file(out, p, 4294967295u));
  EXPECT_EQ(as_text(out), "abcdef");
  write_file(p, "");
  EXPECT_FALSE(uni::read_whole_file(out, p, 10));
}

TEST(UniFileio, StdinLines) {
  temp_dir dir;
  const std::string p = dir.file("stdin");
  write_file(p, std::string(5000, 'A') + "\r\n" + "caf\xc3\xa9\n" + "ab\xff" "cd\n" + "last");
  ASSERT_NE(std::freopen(p.c_str(), "r", stdin), nullptr);

  uni::stdin_stream in;
  std::string line;
  // 5000 characters arrive as 4095 and the rest.
  ASSERT_TRUE(in.getline(line, true));
  EXPECT_EQ(line, std::string(4095, 'A'));
  ASSERT_TRUE(in.getline(line, false));
  EXPECT_EQ(line, std::string(905, 'A') + "\r\n");
  std::wstring wide;
  ASSERT_TRUE(in.getline(wide, true));
  EXPECT_EQ(wide, L"caf\u00e9");
  // Text that doesn't decode keeps what came before the bad byte.
  ASSERT_TRUE(in.getline(wide, true));
  EXPECT_EQ(wide, L"ab");
  ASSERT_TRUE(in.getline(line, true));
  EXPECT_EQ(line, "last");
  EXPECT_FALSE(in.getline(line, true));
  EXPECT_TRUE(line.empty());
  EXPECT_FALSE(in.getline(wide, true));
  EXPECT_TRUE(wide.empty());

  std::freopen("/dev/null", "r", stdin);
}

}  // namespace
