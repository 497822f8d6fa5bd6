// hivewick: provider names and the files behind them, from a registry hive.
#include <unistd.h>

#include <string>
#include <vector>

#include "tools/hivewick/hivewick.h"

namespace {

// Writes all of `text` to a descriptor in as few calls as the system allows.
void write_all(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n <= 0) return;
    done += size_t(n);
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv, argv + argc);
  std::string out, err;
  int rc = hivewick::run(args, out, err);
  write_all(1, out);
  write_all(2, err);
  return rc;
}
