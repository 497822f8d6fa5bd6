// layoutgen: builds the generated part of the embedded layout database from
// the public dumps of Windows event layouts (the folder ../shared/manifests
// of the workplace), as template text files in data/. Not run by the build:
// its outputs are committed, and the repository builds without the dumps.
//
//   layoutgen <manifests folder> <data folder>
//
// Each source has one function that reads its part of the dumps and returns
// the lines of its generated file; main writes the files and prints each
// source's statistics on standard error.
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "tools/layoutgen/gen_common.h"
#include "tools/layoutgen/mof_classic.h"

namespace {

const char kUsage[] =
    "usage: layoutgen <manifests folder> <data folder>\n"
    "  reads the public event layout dumps under <manifests folder> (tsv-26h1/mof/*.tsv)\n"
    "  and writes data/gen_*.txt; the hand-checked *.txt of <data folder> win for\n"
    "  every (GUID, identifier) they define, so generated lines leave those out\n";

// One source of generated layouts: its output file and its converter.
struct source {
  const char* file;       // written in the data folder
  const char* describes;  // comment under the head of the file
  void (*convert)(const std::string& manifests, const layoutgen::hand_checked_keys& hand,
                  std::vector<std::string>& lines, layoutgen::source_stats& stats);
};

void convert_classic(const std::string& manifests, const layoutgen::hand_checked_keys& hand,
                     std::vector<std::string>& lines, layoutgen::source_stats& stats) {
  stats.source = "classic MOF tables (tsv-26h1/mof)";
  layoutgen::convert_mof_tables(manifests + "/tsv-26h1/mof", hand, lines, stats);
}

const source kSources[] = {
    {"gen_classic.txt",
     "// Classic (MOF) event layouts of the Windows 11 26H1 tables: class GUID, event type\n"
     "// (the whole hook identifier under a kernel group's GUID) and class version (V).\n"
     "// Fields the tables leave lossy were corrected from the published class pages;\n"
     "// a field still not expressible ends its layout with word 0 under its name.",
     convert_classic},
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  const std::string manifests = argv[1];
  const std::string data = argv[2];
  std::vector<std::string> hand_files;
  const layoutgen::hand_checked_keys hand = layoutgen::read_hand_checked_keys(data, &hand_files);
  std::cerr << "layoutgen: " << hand.size() << " (GUID, identifier) keys in " << hand_files.size()
            << " hand-checked files\n";
  int status = 0;
  for (const source& s : kSources) {
    std::vector<std::string> lines{s.describes};
    layoutgen::source_stats stats;
    s.convert(manifests, hand, lines, stats);
    std::string error;
    if (stats.layouts == 0) {
      std::cerr << "layoutgen: " << s.file << ": no layouts from " << manifests
                << "; file left as it is\n";
      status = 1;
      continue;
    }
    if (!layoutgen::write_generated_file(
            data + "/" + s.file,
            "./build/tools/layoutgen/layoutgen ../shared/manifests data", lines, error)) {
      std::cerr << "layoutgen: " << error << "\n";
      status = 1;
    }
    layoutgen::print_stats(std::cerr, stats);
  }
  return status;
}
