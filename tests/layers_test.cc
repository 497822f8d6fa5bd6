// The source tree reads as a pipeline, each folder built on the ones before
// it: support <- templates <- decode <- trace <- report <- run. This test
// reads the includes of every unit of those folders and fails on an include
// that runs upward (or out to tools/, tests/, fuzz/ from code other than a
// test), and on units that include each other, directly or through others.
#include <dirent.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace {

const std::vector<std::string> kLayers = {"support", "templates", "decode", "trace", "report", "run"};

int layer_of(const std::string& folder) {
  auto it = std::find(kLayers.begin(), kLayers.end(), folder);
  return it == kLayers.end() ? -1 : static_cast<int>(it - kLayers.begin());
}

// One source file: "folder/name.ext" and the project headers it includes.
struct source_file {
  std::string path;
  std::vector<std::string> includes;
};

bool is_test(const std::string& path) {
  return path.size() > 8 && path.compare(path.size() - 8, 8, "_test.cc") == 0;
}

std::string folder_of(const std::string& path) { return path.substr(0, path.find('/')); }

// "folder/foo" for folder/foo.h, folder/foo.cc and folder/foo_test.cc.
std::string unit_of(const std::string& path) {
  std::string u = path.substr(0, path.rfind('.'));
  if (is_test(path)) u.resize(u.size() - 5);
  return u;
}

// Every fault of the tree, one line each; empty when the layers hold.
std::vector<std::string> layer_faults(const std::vector<source_file>& files) {
  std::vector<std::string> faults;
  std::map<std::string, std::set<std::string>> edges;  // unit -> units it includes
  for (const source_file& f : files) {
    const int own = layer_of(folder_of(f.path));
    if (own < 0) continue;
    for (const std::string& inc : f.includes) {
      const std::string folder = folder_of(inc);
      const int target = layer_of(folder);
      if (target < 0) {
        if (!is_test(f.path) && (folder == "tools" || folder == "tests" || folder == "fuzz"))
          faults.push_back(f.path + " includes " + inc + " (outside the layers)");
        continue;
      }
      if (target > own) faults.push_back(f.path + " includes " + inc + " (a layer above its own)");
      if (!is_test(f.path) && unit_of(inc) != unit_of(f.path)) edges[unit_of(f.path)].insert(unit_of(inc));
    }
  }
  // Loops among units: a depth-first walk that meets a unit still on its path.
  std::map<std::string, int> state;  // 1 on the path, 2 done
  std::vector<std::string> path;
  std::set<std::string> reported;
  std::function<void(const std::string&)> visit = [&](const std::string& u) {
    state[u] = 1;
    path.push_back(u);
    for (const std::string& v : edges[u]) {
      if (state[v] == 1) {
        auto from = std::find(path.begin(), path.end(), v);
        std::string loop;
        for (auto it = from; it != path.end(); ++it) loop += *it + " -> ";
        loop += v;
        if (reported.insert(v).second) faults.push_back("units include each other: " + loop);
      } else if (state[v] == 0) {
        visit(v);
      }
    }
    path.pop_back();
    state[u] = 2;
  };
  for (const auto& [u, targets] : edges)
    if (state[u] == 0) visit(u);
  return faults;
}

std::vector<std::string> project_includes(const std::string& file) {
  std::vector<std::string> out;
  std::ifstream in(file);
  std::string line;
  while (std::getline(in, line)) {
    size_t p = line.find_first_not_of(" \t");
    if (p == std::string::npos || line.compare(p, 8, "#include") != 0) continue;
    const size_t open = line.find('"', p);
    if (open == std::string::npos) continue;
    const size_t close = line.find('"', open + 1);
    if (close == std::string::npos) continue;
    const std::string inc = line.substr(open + 1, close - open - 1);
    if (inc.find('/') != std::string::npos) out.push_back(inc);
  }
  return out;
}

std::vector<source_file> read_tree(const std::string& root) {
  std::vector<source_file> files;
  for (const std::string& folder : kLayers) {
    DIR* d = opendir((root + "/" + folder).c_str());
    if (!d) continue;
    while (dirent* e = readdir(d)) {
      const std::string name = e->d_name;
      const size_t dot = name.rfind('.');
      if (dot == std::string::npos) continue;
      const std::string ext = name.substr(dot);
      if (ext != ".h" && ext != ".cc") continue;
      files.push_back({folder + "/" + name, project_includes(root + "/" + folder + "/" + name)});
    }
    closedir(d);
  }
  return files;
}

}  // namespace

TEST(Layers, IncludesRunOneWay) {
  const std::vector<source_file> files = read_tree(QUON_SOURCE_DIR);
  ASSERT_GT(files.size(), 50u);  // the tree was found
  const std::vector<std::string> faults = layer_faults(files);
  std::string all;
  for (const std::string& f : faults) all += f + "\n";
  EXPECT_TRUE(faults.empty()) << all;
}

TEST(Layers, TheCheckFindsUpwardIncludesAndLoops) {
  const std::vector<source_file> files = {
      {"trace/walk.cc", {"trace/walk.h", "report/row.h", "support/text.h"}},  // upward
      {"report/row.cc", {"report/row.h", "tools/gen/x.h"}},                   // out to tools/
      {"report/row_test.cc", {"run/options.h", "tests/trace_writer.h"}},      // a test too, upward
      {"decode/a.cc", {"decode/b.h"}},
      {"decode/b.cc", {"decode/c.h"}},
      {"decode/c.h", {"decode/a.h"}},  // a -> b -> c -> a
      {"support/text.cc", {"support/text.h"}},
  };
  const std::vector<std::string> faults = layer_faults(files);
  ASSERT_EQ(faults.size(), 4u);
  EXPECT_EQ(faults[0], "trace/walk.cc includes report/row.h (a layer above its own)");
  EXPECT_EQ(faults[1], "report/row.cc includes tools/gen/x.h (outside the layers)");
  EXPECT_EQ(faults[2], "report/row_test.cc includes run/options.h (a layer above its own)");
  EXPECT_EQ(faults[3], "units include each other: decode/a -> decode/b -> decode/c -> decode/a");
}
