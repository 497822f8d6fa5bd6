#include "support/qv_portable_dir.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using qvportdir::dir_entry;

class temp_tree {
 public:
  temp_tree() {
    char tmpl[] = "/tmp/quon_dir_XXXXXX";
    const char* p = mkdtemp(tmpl);
    root_ = p ? p : "";
  }
  ~temp_tree() {
    std::error_code ec;
    if (!root_.empty()) std::filesystem::remove_all(root_, ec);
  }
  const std::string& root() const { return root_; }
  void dir(const std::string& rel) { std::filesystem::create_directories(root_ + "/" + rel); }
  void file(const std::string& rel) { std::ofstream(root_ + "/" + rel) << "x"; }

 private:
  std::string root_;
};

// The names in a folder in the order the system lists them, as the test's
// own independent reading.
std::vector<std::string> system_order(const std::string& folder) {
  std::vector<std::string> names;
  DIR* d = opendir(folder.c_str());
  if (d == nullptr) return names;
  while (dirent* e = readdir(d)) {
    std::string n = e->d_name;
    if (n != "." && n != "..") names.push_back(n);
  }
  closedir(d);
  return names;
}

std::set<std::string> paths_of(const std::vector<dir_entry>& entries) {
  std::set<std::string> s;
  for (const dir_entry& e : entries) s.insert(e.path);
  return s;
}

std::vector<std::string> walk(qvportdir::stdin_stream_ex& s) {
  std::vector<std::string> names;
  std::string line;
  while (s.getline(line, true)) names.push_back(line);
  return names;
}

TEST(PortableDir, SplitPath) {
  struct {
    const char* path;
    const char* dir;
    const char* name;
  } cases[] = {
      {"file.etl", ".", "file.etl"},
      {"dir/..", "dir//..", "."},
      {"dir\\..", "dir\\..", "."},
      {"..", ".", ".."},
      {"/etc", ".", "/etc"},
      {"\\etc", ".", "\\etc"},
      {"/tmp/x/y.etl", "/tmp/x", "y.etl"},
      {"/tmp/x/", "/tmp/x", ""},
      {"C:\\traces\\a.etl", "C:\\traces", "a.etl"},
      // The last backslash wins over a later slash.
      {"a\\b/c", "a", "b/c"},
  };
  for (const auto& c : cases) {
    std::string dir = "junk";
    std::string name = "junk";
    ASSERT_TRUE(qvportdir::split_path(c.path, dir, name)) << c.path;
    EXPECT_EQ(dir, c.dir) << c.path;
    EXPECT_EQ(name, c.name) << c.path;
    // The wide form agrees.
    std::string p = c.path;
    std::wstring wdir;
    std::wstring wname;
    ASSERT_TRUE(qvportdir::split_path(std::wstring(p.begin(), p.end()), wdir, wname));
    EXPECT_EQ(wdir, std::wstring(dir.begin(), dir.end())) << c.path;
    EXPECT_EQ(wname, std::wstring(name.begin(), name.end())) << c.path;
  }
  std::string dir;
  std::string name;
  EXPECT_FALSE(qvportdir::split_path("", dir, name));
  std::wstring wdir;
  std::wstring wname;
  EXPECT_FALSE(qvportdir::split_path(std::wstring(), wdir, wname));

  std::string stem;
  std::string ext;
  ASSERT_TRUE(qvportdir::split_path_ext("/a/b.tar.gz", dir, stem, ext));
  EXPECT_EQ(dir, "/a");
  EXPECT_EQ(stem, "b.tar");
  EXPECT_EQ(ext, "gz");
  ASSERT_TRUE(qvportdir::split_path_ext("noext", dir, stem, ext));
  EXPECT_EQ(dir, ".");
  EXPECT_EQ(stem, "noext");
  EXPECT_EQ(ext, "");
  ASSERT_TRUE(qvportdir::split_path_ext("x/end.", dir, stem, ext));
  EXPECT_EQ(stem, "end");
  EXPECT_EQ(ext, "");
  EXPECT_FALSE(qvportdir::split_path_ext("", dir, stem, ext));
}

TEST(PortableDir, ListDirectory) {
  temp_tree t;
  ASSERT_FALSE(t.root().empty());
  const std::string& r = t.root();
  t.dir("a/sub1/b");
  t.dir("a/sub2");
  t.dir("a/sub3/b");
  t.file("a/x.etl");
  t.file("a/Y.ETL");
  t.file("a/z.txt");
  t.file("a/noext");
  t.file("a/sub1/b/f1.etl");
  t.file("a/sub3/b/f3.etl");
  ASSERT_EQ(symlink((r + "/a/sub1").c_str(), (r + "/a/link").c_str()), 0);

  std::vector<dir_entry> entries{dir_entry{}};
  // The separator is added to a folder given without one.
  qvportdir::list_directory(r + "/a", "", entries);
  EXPECT_EQ(paths_of(entries),
            (std::set<std::string>{r + "/a/x.etl", r + "/a/Y.ETL", r + "/a/z.txt", r + "/a/noext",
                                   r + "/a/link", r + "/a/sub1/", r + "/a/sub2/",
                                   r + "/a/sub3/"}));
  // Listed in the system's order.
  std::vector<std::string> expect_order;
  for (const std::string& n : system_order(r + "/a")) {
    struct stat st;
    lstat((r + "/a/" + n).c_str(), &st);
    expect_order.push_back(r + "/a/" + n + (S_ISDIR(st.st_mode) ? "/" : ""));
  }
  std::vector<std::string> got_order;
  for (const dir_entry& e : entries) got_order.push_back(e.path);
  EXPECT_EQ(got_order, expect_order);

  for (const dir_entry& e : entries) {
    // A link to a folder is a file and isn't followed.
    const bool folder = e.path.back() == '/';
    EXPECT_EQ(e.is_dir, folder);
    EXPECT_EQ(e.depth, folder ? 1u : 0u);
    EXPECT_EQ(e.name, folder ? "" : e.path.substr(r.size() + 3));
  }

  // Masks compare lowered stem and extension whole; folders always pass.
  qvportdir::list_directory(r + "/a/", "*.ETL", entries);
  EXPECT_EQ(paths_of(entries), (std::set<std::string>{r + "/a/x.etl", r + "/a/Y.ETL",
                                                      r + "/a/sub1/", r + "/a/sub2/",
                                                      r + "/a/sub3/"}));
  // No partial matching.
  qvportdir::list_directory(r + "/a/", "*.et", entries);
  EXPECT_EQ(entries.size(), 3u);

  // A whole-element star visits b under every subfolder; sub2 has none and
  // lists as empty.
  qvportdir::list_directory(r + "/a/*/b", "", entries);
  EXPECT_EQ(paths_of(entries),
            (std::set<std::string>{r + "/a/sub1/b/f1.etl", r + "/a/sub3/b/f3.etl"}));
  qvportdir::list_directory(r + "/*/*/b/", "", entries);
  EXPECT_EQ(paths_of(entries),
            (std::set<std::string>{r + "/a/sub1/b/f1.etl", r + "/a/sub3/b/f3.etl"}));

  // A subfolder literally named "*" is listed, not expanded forever.
  t.dir("s/*");
  t.file("s/*/in_star");
  qvportdir::list_directory(r + "/s/*/", "", entries);
  EXPECT_EQ(paths_of(entries), (std::set<std::string>{r + "/s/*/in_star"}));

  // Mixed separators use "/": "b\" is a name here.
  t.dir("m/b\\");
  t.file("m/b\\/f");
  qvportdir::list_directory(r + "/m/b\\", "", entries);
  EXPECT_EQ(paths_of(entries), (std::set<std::string>{r + "/m/b\\/f"}));

  qvportdir::list_directory(r + "/nonexistent", "", entries);
  EXPECT_TRUE(entries.empty());
  // A regular file isn't a folder.
  qvportdir::list_directory(r + "/a/x.etl", "", entries);
  EXPECT_TRUE(entries.empty());

  std::vector<dir_entry> only_dirs;
  EXPECT_TRUE(qvportdir::read_folder(r + "/a/", only_dirs, 4, true, true));
  EXPECT_EQ(paths_of(only_dirs),
            (std::set<std::string>{r + "/a/sub1/", r + "/a/sub2/", r + "/a/sub3/"}));
  for (const dir_entry& e : only_dirs) EXPECT_EQ(e.depth, 5u);
  EXPECT_FALSE(qvportdir::read_folder(r + "/a/sub2/", only_dirs, 0, false, true));
}

TEST(PortableDir, EnumerationOrderAndDepth) {
  temp_tree t;
  ASSERT_FALSE(t.root().empty());
  const std::string r = t.root() + "/top";
  t.dir("top/d1/dd");
  t.dir("top/d2");
  t.dir("top/d1/dd/deeper");
  for (const char* f : {"top/f1.etl", "top/f2.etl", "top/f3.txt", "top/d1/g1.etl",
                        "top/d1/g2.etl", "top/d2/h1.etl", "top/d1/dd/k1.etl",
                        "top/d1/dd/deeper/m1.etl"}) {
    t.file(f);
  }
  ASSERT_EQ(symlink((r + "/d1").c_str(), (r + "/linked").c_str()), 0);

  // What the walk should give, worked out from the system's listing order:
  // a folder's files in reverse order, then its subfolders depth first, the
  // one listed last first.
  auto files_reversed = [](const std::string& folder) {
    std::vector<std::string> files;
    for (const std::string& n : system_order(folder)) {
      struct stat st;
      lstat((folder + "/" + n).c_str(), &st);
      if (!S_ISDIR(st.st_mode)) files.insert(files.begin(), folder + "/" + n);
    }
    return files;
  };
  std::vector<std::string> top_subs;
  for (const std::string& n : system_order(r)) {
    if (n == "d1" || n == "d2") top_subs.insert(top_subs.begin(), n);
  }
  ASSERT_EQ(top_subs.size(), 2u);
  auto expected = [&](uint32_t depth) {
    std::vector<std::string> e = files_reversed(r);
    if (depth == 0) return e;
    for (const std::string& sub : top_subs) {
      for (const std::string& f : files_reversed(r + "/" + sub)) e.push_back(f);
      if (sub == "d1" && depth >= 2) {
        for (const std::string& f : files_reversed(r + "/d1/dd")) e.push_back(f);
        if (depth >= 3) e.push_back(r + "/d1/dd/deeper/m1.etl");
      }
    }
    return e;
  };

  qvportdir::stdin_stream_ex s;
  for (uint32_t depth : {0u, 1u, 2u, 3u, 100u}) {
    ASSERT_TRUE(s.start_enumeration(r, depth, {}));
    std::vector<std::string> got = walk(s);
    EXPECT_EQ(got, expected(depth)) << "depth " << depth;
  }
  // The symbolic link to a folder comes out as a name, its contents don't.
  ASSERT_TRUE(s.start_enumeration(r + "/", 0, {}));
  std::vector<std::string> top = walk(s);
  EXPECT_NE(std::find(top.begin(), top.end(), r + "/linked"), top.end());
  EXPECT_EQ(top.size(), 4u);
  // The wide form delivers the same names.
  ASSERT_TRUE(s.start_enumeration(r, 0, {}));
  std::wstring w;
  ASSERT_TRUE(s.getline(w, true));
  EXPECT_EQ(w, std::wstring(top[0].begin(), top[0].end()));

  EXPECT_FALSE(s.start_enumeration("", 1, {}));
  ASSERT_TRUE(s.start_enumeration(t.root() + "/missing", 5, {}));
  std::string line = "junk";
  EXPECT_FALSE(s.getline(line, true));
  EXPECT_TRUE(line.empty());
}

TEST(PortableDir, EnumerationFilterAndLongNames) {
  temp_tree t;
  ASSERT_FALSE(t.root().empty());
  const std::string r = t.root();
  t.dir("sub");
  t.file("a.etl");
  t.file("b.txt");
  t.file("sub/c.etl");

  // The filter sees every file the walk finds and nothing else.
  std::vector<std::wstring> asked;
  qvportdir::stdin_stream_ex s([&](const std::wstring& name) {
    asked.push_back(name);
    return name.size() > 4 && name.compare(name.size() - 4, 4, L".etl") == 0;
  });
  ASSERT_TRUE(s.start_enumeration(r, 1, {L"*.etl"}));
  std::vector<std::string> got = walk(s);
  std::sort(got.begin(), got.end());
  EXPECT_EQ(got, (std::vector<std::string>{r + "/a.etl", r + "/sub/c.etl"}));
  std::sort(asked.begin(), asked.end());
  std::vector<std::wstring> want_asked;
  for (const std::string& p : {r + "/a.etl", r + "/b.txt", r + "/sub/c.etl"}) {
    want_asked.emplace_back(p.begin(), p.end());
  }
  EXPECT_EQ(asked, want_asked);

  // The \\?\ prefix is dropped from a name of up to 46 characters, and from
  // a longer one unless GLOBALROOT stands behind it.
  qvportdir::stdin_stream_ex plain;
  ASSERT_TRUE(plain.start_enumeration("\\\\?\\" + r + "/sub", 0, {}));
  EXPECT_EQ(walk(plain), std::vector<std::string>{r + "/sub/c.etl"});

  std::string long_dir = "sub";
  while ((r + "/" + long_dir).size() <= 46) long_dir += "/deeper";
  t.dir(long_dir);
  t.file(long_dir + "/l.etl");
  ASSERT_TRUE(plain.start_enumeration("\\\\?\\" + r + "/" + long_dir, 0, {}));
  EXPECT_EQ(walk(plain), std::vector<std::string>{r + "/" + long_dir + "/l.etl"});

  // With GLOBALROOT the prefix stays, and no such folder exists here.
  ASSERT_TRUE(plain.start_enumeration(
      "\\\\?\\GLOBALROOT\\Device\\HarddiskVolumeShadowCopy1\\Windows\\System32", 0, {}));
  EXPECT_TRUE(walk(plain).empty());
}

TEST(PortableDir, StdinAfterEnumeration) {
  temp_tree t;
  ASSERT_FALSE(t.root().empty());
  const std::string list = t.root() + "/list";
  std::ofstream(list) << "/data/one.etl\r\n\n/data/two.etl\n";
  t.file("only.etl");
  ASSERT_NE(std::freopen(list.c_str(), "r", stdin), nullptr);

  qvportdir::stdin_stream_ex s;
  ASSERT_TRUE(s.start_enumeration(t.root(), 0, {}));
  std::string line;
  // Switching to standard input drops what the walk still had.
  ASSERT_TRUE(s.open_stdin(true));
  ASSERT_TRUE(s.getline(line, true));
  EXPECT_EQ(line, "/data/one.etl");
  ASSERT_TRUE(s.getline(line, true));
  EXPECT_EQ(line, "");
  std::wstring w;
  ASSERT_TRUE(s.getline(w, true));
  EXPECT_EQ(w, L"/data/two.etl");
  EXPECT_FALSE(s.getline(line, true));

  std::freopen("/dev/null", "r", stdin);
}

// What the main loop asks before it opens a name as a trace, and before it
// walks a folder.
TEST(PortableDir, RegularFilesAndFoldersThatOpen) {
  temp_tree t;
  ASSERT_FALSE(t.root().empty());
  t.dir("sub");
  t.file("a.etl");
  const std::string root = t.root();
  ASSERT_EQ(::mkfifo((root + "/fifo").c_str(), 0600), 0);
  ASSERT_EQ(::symlink((root + "/a.etl").c_str(), (root + "/to_file").c_str()), 0);
  ASSERT_EQ(::symlink((root + "/sub").c_str(), (root + "/to_dir").c_str()), 0);
  ASSERT_EQ(::symlink((root + "/fifo").c_str(), (root + "/to_fifo").c_str()), 0);
  ASSERT_EQ(::symlink((root + "/gone").c_str(), (root + "/dangling").c_str()), 0);

  EXPECT_TRUE(qvportdir::is_regular_file(root + "/a.etl"));
  EXPECT_TRUE(qvportdir::is_regular_file(root + "/to_file"));
  // Trailing separators go, as they go when the file is opened.
  EXPECT_TRUE(qvportdir::is_regular_file(root + "/a.etl//"));
  for (const char* name : {"sub", "to_dir", "fifo", "to_fifo", "dangling", "missing", ""}) {
    SCOPED_TRACE(name);
    EXPECT_FALSE(qvportdir::is_regular_file(root + "/" + name));
  }
  EXPECT_FALSE(qvportdir::is_regular_file(""));
  EXPECT_FALSE(qvportdir::is_regular_file("//"));
  EXPECT_FALSE(qvportdir::is_regular_file("/dev/null"));
  EXPECT_FALSE(qvportdir::is_regular_file("/dev/zero"));

  EXPECT_EQ(qvportdir::folder_open_error(root), 0);
  EXPECT_EQ(qvportdir::folder_open_error(root + "/to_dir"), 0);
  EXPECT_EQ(qvportdir::folder_open_error(root + "/missing"), ENOENT);
  EXPECT_EQ(qvportdir::folder_open_error(root + "/a.etl"), ENOTDIR);
  EXPECT_EQ(qvportdir::folder_open_error(""), ENOENT);
}

TEST(PortableDir, ExistsAndExecutable) {
  const std::string exe = qvportdir::executable_path();
  ASSERT_FALSE(exe.empty());
  EXPECT_EQ(exe.front(), '/');
  EXPECT_TRUE(qvportdir::file_exists(exe));
  EXPECT_TRUE(qvportdir::file_exists(std::wstring(exe.begin(), exe.end())));
  EXPECT_EQ(exe, std::filesystem::canonical("/proc/self/exe").string());
  EXPECT_FALSE(qvportdir::file_exists(std::string()));
  EXPECT_FALSE(qvportdir::file_exists(std::wstring()));
  EXPECT_FALSE(qvportdir::file_exists(exe + ".does-not-exist"));
  EXPECT_TRUE(qvportdir::file_exists("/"));
  qvportdir::wow64_redirect_adt guard;
  (void)guard;
}

}  // namespace
