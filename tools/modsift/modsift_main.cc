// modsift: harvests the event templates of manifest-based providers (the
// binary resource "WEVT_TEMPLATE" of DLL, EXE and SYS files, or the
// instrumentation manifest itself, in XML) into the template text that
// `quon -templates` reads.
//
// Output: a head of two lines that quon checks and strips (the program name
// with "ver: 0.NN;", then a line starting with a double quote and "cmdline: "),
// then only template lines and "//" comments, so that a file of collected
// outputs loads as it is. Reasons for unreadable input go to standard error.
#include <algorithm>
#include <cstdio>
#include <map>
#include <cstring>
#include <string>
#include <vector>

#include "tools/modsift/harvest.h"
#include "tools/modsift/modsift_text.h"

namespace {

const char kHead[] =
    "modsift ver: 0.41; event layouts from WEVT_TEMPLATE resources and manifests as quon template text\n";

const char kUsage[] =
    "usage: modsift [-quon] [-enc] [-quiet] <file> [<file> ...]\n"
    "  <file>  a PE image (DLL, EXE, SYS) carrying WEVT_TEMPLATE resources, a raw\n"
    "          template blob starting with \"CRIM\", or an instrumentation manifest\n"
    "          (XML: UTF-8, or UTF-16 with its byte order mark)\n"
    "  -quon   template text for quon -templates (the default, and the only form)\n"
    "  -enc    add above each event line a comment with the event's template\n"
    "          (its binary XML) in hexadecimal\n"
    "  -quiet  no summary per file on standard error; reasons for input that\n"
    "          can't be read are still given\n"
    "  -h      this text\n"
    "Lines: \"#{guid} ! Name\" per named provider, \"{guid} ! $id, V<version>, #build,\n"
    "...\" per event with a template, newest version first; words as quon's walker\n"
    "reads them. A field the words can't express ends its layout with a word 0; the\n"
    "summary counts such layouts by reason. Manifests recreated from registered\n"
    "metadata (providers marked source=\"Xml\") are read with their quirks.\n";

void write_all(FILE* f, const std::string& s) {
  if (!s.empty()) std::fwrite(s.data(), 1, s.size(), f);
}

// The command line as one line of text. A "!" is written as "\x21": the line
// then can't pass for a template line should the head be loaded as templates.
std::string command_line_text(int argc, char** argv) {
  std::string out;
  for (int i = 0; i < argc; ++i) {
    std::string a = argv[i];
    if (i) out += ' ';
    bool quote = a.empty() || a.find_first_of(" \t") != std::string::npos;
    if (quote) out += '"';
    for (char c : a) {
      if (c == '!') out += "\\x21";
      else out += c;
    }
    if (quote) out += '"';
  }
  return modsift::clean_comment(out);
}

// "3 array of structures, 1 counted ANSI string": most frequent first.
std::string ended_early_text(const std::map<std::string, size_t>& counts) {
  std::vector<std::pair<size_t, std::string>> order;
  for (const auto& [reason, n] : counts) order.emplace_back(n, reason);
  std::stable_sort(order.begin(), order.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
  std::string out;
  for (const auto& [n, reason] : order) {
    if (!out.empty()) out += ", ";
    out += std::to_string(n) + " " + reason;
  }
  return out;
}

}  // namespace

int main(int argc, char** argv) {
  modsift::harvest_options opts;
  bool quiet = false;
  std::vector<std::string> files;
  for (int i = 1; i < argc; ++i) {
    const char* a = argv[i];
    if (!std::strcmp(a, "-h") || !std::strcmp(a, "-help") || !std::strcmp(a, "--help") ||
        !std::strcmp(a, "-?")) {
      std::fputs(kHead, stdout);
      std::fputs(kUsage, stdout);
      return 0;
    }
    if (!std::strcmp(a, "-quon")) continue;
    if (!std::strcmp(a, "-enc")) {
      opts.enc = true;
    } else if (!std::strcmp(a, "-quiet")) {
      quiet = true;
    } else if (a[0] == '-' && a[1] != 0) {
      std::fprintf(stderr, "modsift: unknown option %s\n", a);
      std::fputs(kUsage, stderr);
      return 2;
    } else {
      files.push_back(a);
    }
  }
  if (files.empty()) {
    std::fputs("modsift: no input file named\n", stderr);
    std::fputs(kUsage, stderr);
    return 2;
  }

  std::string head = kHead;
  head += "\"cmdline: " + command_line_text(argc, argv) + "\"\n";
  write_all(stdout, head);

  int status = 0;
  for (const std::string& path : files) {
    modsift::harvest_result res;
    modsift::harvest_file(path, opts, res);
    write_all(stdout, res.text);
    std::string err;
    for (const std::string& p : res.problems)
      err += "modsift: " + modsift::clean_comment(path) + ": " + p + "\n";
    if (!quiet && res.provider_lines + res.template_lines > 0) {
      err += "modsift: " + modsift::clean_comment(path) + ": " + std::to_string(res.provider_lines) +
             " provider lines, " + std::to_string(res.template_lines) + " template lines\n";
      if (!res.ended_early.empty())
        err += "modsift: " + modsift::clean_comment(path) + ": layouts ended early: " +
               ended_early_text(res.ended_early) + "\n";
    }
    if (!err.empty()) {
      std::fflush(stdout);
      write_all(stderr, err);
    }
    if (res.provider_lines + res.template_lines == 0) status = 1;
  }
  return std::fflush(stdout) == 0 ? status : 1;
}
