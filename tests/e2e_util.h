// Helpers of the end-to-end tests: run the built quon through the shell and
// collect its standard output, standard error and exit status.
#pragma once

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace e2e {

// What erases the status line on standard error: ESC [2K, CR, 27 blanks, CR.
inline const std::string kStatusEraser = "\x1b[2K\r" + std::string(27, ' ') + "\r";

struct run_result {
  std::string out;
  std::string err;
  int status = -1;
};

inline std::string read_text(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

inline void write_text(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary);
  out << text;
}

// A folder of its own for one test, removed at the end.
class temp_dir {
 public:
  temp_dir() {
    std::string base = testing::TempDir() + "quon_e2e_XXXXXX";
    std::vector<char> name(base.begin(), base.end());
    name.push_back(0);
    root_ = mkdtemp(name.data()) ? name.data() : "/tmp";
  }
  ~temp_dir() { std::system(("rm -rf '" + root_ + "'").c_str()); }
  std::string path(const std::string& name) const { return root_ + "/" + name; }
  void mkdir(const std::string& name) const { ::mkdir(path(name).c_str(), 0755); }
  std::string write(const std::string& name, const std::vector<uint8_t>& bytes) const {
    std::ofstream out(path(name), std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return path(name);
  }
  const std::string& root() const { return root_; }

 private:
  std::string root_;
};

// Runs `binary args` with `input` on standard input. `args` is shell text.
inline run_result run_program(const std::string& binary, const std::string& args,
                              const std::string& input = "") {
  temp_dir io;
  const std::string in = io.path("in"), out = io.path("out"), err = io.path("err");
  write_text(in, input);
  const std::string command = "'" + binary + "' " + args + " < '" + in + "' > '" + out + "' 2> '" + err + "'";
  const int raw = std::system(command.c_str());
  run_result r;
  r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  r.out = read_text(out);
  r.err = read_text(err);
  return r;
}

inline run_result run_quon(const std::string& args, const std::string& input = "") {
  return run_program(QUON_BINARY, args, input);
}

// The header line with the run's date and time, made comparable.
inline std::string without_run_time(std::string text) {
  const std::string marker = "// run at: ";
  const size_t at = text.find(marker);
  if (at != std::string::npos) {
    const size_t eol = text.find('\n', at);
    text.replace(at + marker.size(), eol - at - marker.size(), "<time>");
  }
  return text;
}

inline size_t count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size())) ++n;
  return n;
}

}  // namespace e2e
