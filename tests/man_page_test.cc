// The manual pages in man/ against the option parsers: every word a parser
// accepts is named in the page of its program, and groff, where it is
// installed, renders each page without a warning.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <string>

namespace {

std::string source(const std::string& path) {
  std::ifstream in(std::string(QUON_SOURCE_DIR) + "/" + path, std::ios::binary);
  EXPECT_TRUE(in.good()) << path;
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// The first group of every match of `pattern` in the file, with `prefix`.
void collect(std::set<std::string>& words, const std::string& path, const std::string& pattern,
             const std::string& prefix = "") {
  const std::string text = source(path);
  const std::regex re(pattern);
  for (auto it = std::sregex_iterator(text.begin(), text.end(), re); it != std::sregex_iterator(); ++it)
    words.insert(prefix + (*it)[1].str());
}

// A word as a page writes it: every "-" as "\-", and not followed by more of
// a word.
bool page_names(const std::string& page, const std::string& word) {
  std::string roff;
  for (char c : word) roff += c == '-' ? std::string("\\-") : std::string(1, c);
  for (size_t at = page.find(roff); at != std::string::npos; at = page.find(roff, at + 1)) {
    const size_t behind = at + roff.size();
    if (behind == page.size()) return true;
    const char c = page[behind];
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_') return true;
  }
  return false;
}

void expect_named(const std::string& page_path, const std::set<std::string>& words) {
  const std::string page = source(page_path);
  for (const std::string& w : words) EXPECT_TRUE(page_names(page, w)) << w << " is not in " << page_path;
}

}  // namespace

TEST(ManPages, QuonNamesEveryWordItsParserAccepts) {
  // Every option literal of the two option parsers, and the help words.
  std::set<std::string> words;
  collect(words, "run/cmd_params.cc", "\"(-[A-Za-z0-9_]+)\"");
  collect(words, "run/options.cc", "\"(-[A-Za-z0-9_]+)\"");
  collect(words, "run/quon_main.cc", "a == \"([^\"]+)\"");
  EXPECT_GE(words.size(), 60u);  // the extraction itself works
  for (const char* known : {"-log", "-jsonl", "-filter_sig_offset", "-l3", "-help", "--help", "/?"})
    EXPECT_TRUE(words.count(known)) << known;
  expect_named("man/quon.1", words);
}

TEST(ManPages, SiblingToolsNameTheirWords) {
  std::set<std::string> modsift;
  collect(modsift, "tools/modsift/modsift_main.cc", "strcmp\\(a, \"([^\"]+)\"\\)");
  EXPECT_GE(modsift.size(), 7u);
  expect_named("man/modsift.1", modsift);
  std::set<std::string> hivewick;
  collect(hivewick, "tools/hivewick/hivewick.cc", "word_is\\(a, \"([^\"]+)\"\\)", "-");
  collect(hivewick, "tools/hivewick/hivewick.cc", "a == \"([^\"]+)\"");
  EXPECT_GE(hivewick.size(), 10u);
  expect_named("man/hivewick.1", hivewick);
}

TEST(ManPages, GroffRendersThemWithoutWarnings) {
  if (::access("/usr/bin/groff", X_OK) != 0) GTEST_SKIP() << "no groff";
  for (const char* page : {"man/quon.1", "man/modsift.1", "man/hivewick.1"}) {
    SCOPED_TRACE(page);
    const std::string command =
        "groff -man -Tutf8 -ww -z '" + std::string(QUON_SOURCE_DIR) + "/" + page + "' 2>&1";
    FILE* p = ::popen(command.c_str(), "r");
    ASSERT_NE(p, nullptr);
    std::string out;
    char buf[512];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    EXPECT_EQ(::pclose(p), 0);
    EXPECT_EQ(out, "");
  }
}
