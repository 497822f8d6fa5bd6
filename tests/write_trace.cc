// Command-line front of the trace writer.
//
//   write_trace sample <out.etl>          the sample trace of the README
//   write_trace big <megabytes> <out.etl> a large trace for memory and speed runs
//   write_trace sparse <megabytes> <out.etl>
//                                         the same events in 4 MiB buffers of which
//                                         only the first 64 KiB are used (a sparse file)
#include <cstdio>
#include <cstdlib>
#include <string>

#include "tests/trace_writer.h"

int main(int argc, char** argv) {
  if (argc == 3 && std::string(argv[1]) == "sample") {
    tw::etl_writer w;
    w.append(tw::sample_trace());
    return w.write_file(argv[2]) ? 0 : 1;
  }
  if (argc == 4 && std::string(argv[1]) == "big") {
    const uint64_t megabytes = std::strtoull(argv[2], nullptr, 10);
    return tw::write_big_trace(argv[3], megabytes * 1024 * 1024) ? 0 : 1;
  }
  if (argc == 4 && std::string(argv[1]) == "sparse") {
    const uint64_t megabytes = std::strtoull(argv[2], nullptr, 10);
    return tw::write_sparse_big_trace(argv[3], megabytes * 1024 * 1024, 4u << 20, 65536) ? 0 : 1;
  }
  std::fprintf(stderr,
               "usage: write_trace sample <out.etl> | big <megabytes> <out.etl> | sparse <megabytes> <out.etl>\n");
  return 2;
}
