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
#include <set>
#include <string>
#include <vector>

#include "tools/layoutgen/gen_common.h"
#include "tools/layoutgen/manifest_gen.h"
#include "tools/layoutgen/mof_classic.h"

namespace {

const char kUsage[] =
    "usage: layoutgen <manifests folder> <data folder>\n"
    "  reads the public event layout dumps under <manifests folder> (tsv-26h1/mof/*.tsv,\n"
    "  tsv-26h1/manifest/*.tsv, xml/*/*.xml, provider-list.txt)\n"
    "  and writes data/gen_*.txt; the hand-checked *.txt of <data folder> win for\n"
    "  every (GUID, identifier) they define, so generated lines leave those out\n";

// One source of generated layouts: its output file and its converter.
struct source {
  const char* file;       // written in the data folder
  const char* describes;  // comment under the head of the file
  // `named` holds the GUIDs that already have a name (hand-checked files,
  // earlier sources); a source adds those it names.
  void (*convert)(const std::string& manifests, const layoutgen::hand_checked_keys& hand,
                  std::vector<std::string>& lines, layoutgen::source_stats& stats,
                  std::set<std::string>& named);
};

void convert_classic(const std::string& manifests, const layoutgen::hand_checked_keys& hand,
                     std::vector<std::string>& lines, layoutgen::source_stats& stats,
                     std::set<std::string>&) {
  stats.source = "classic MOF tables (tsv-26h1/mof)";
  layoutgen::convert_mof_tables(manifests + "/tsv-26h1/mof", hand, lines, stats);
}

void convert_manifest(const std::string& manifests, const layoutgen::hand_checked_keys& hand,
                      std::vector<std::string>& lines, layoutgen::source_stats& stats,
                      std::set<std::string>& named) {
  stats.source = "manifests (xml/*) and 26H1 manifest tables (tsv-26h1/manifest)";
  layoutgen::convert_manifests(manifests, hand, lines, stats, named);
}

void convert_names(const std::string& manifests, const layoutgen::hand_checked_keys&,
                   std::vector<std::string>& lines, layoutgen::source_stats& stats,
                   std::set<std::string>& named) {
  stats.source = "provider list (provider-list.txt)";
  layoutgen::convert_provider_list(manifests, named, lines, stats);
}

const source kSources[] = {
    {"gen_classic.txt",
     "// Classic (MOF) event layouts of the Windows 11 26H1 tables: class GUID, event type\n"
     "// (the whole hook identifier under a kernel group's GUID) and class version (V).\n"
     "// Fields the tables leave lossy were corrected from the published class pages;\n"
     "// a field still not expressible ends its layout with word 0 under its name.",
     convert_classic},
    {"gen_manifest.txt",
     "// Manifest event layouts of the instrumentation manifests recreated from Windows builds\n"
     "// 7600, 10240, 17134 and 18990, keyed by provider GUID, event identifier and event\n"
     "// version (V). Where builds disagree on one version's layout, each run of builds gets\n"
     "// a build token: the last build before the next run, 65535 for the newest. Events the\n"
     "// manifests lack come from the Windows 11 26H1 tables, up to the first field that may\n"
     "// depend on another (those tables show no length or count references).",
     convert_manifest},
    {"gen_providers.txt",
     "// Names of the providers registered on Windows 10 (provider-list.txt) that neither\n"
     "// gen_manifest.txt nor a hand-checked file names.",
     convert_names},
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
  std::set<std::string> named;
  const layoutgen::hand_checked_keys hand =
      layoutgen::read_hand_checked_keys(data, &hand_files, &named);
  std::cerr << "layoutgen: " << hand.size() << " (GUID, identifier) keys in " << hand_files.size()
            << " hand-checked files\n";
  int status = 0;
  for (const source& s : kSources) {
    std::vector<std::string> lines{s.describes};
    layoutgen::source_stats stats;
    s.convert(manifests, hand, lines, stats, named);
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
