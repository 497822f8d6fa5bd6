#include "tools/hivewick/hivewick.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unordered_set>

#include "support/qv_datetime.h"
#include "support/qv_time.h"
#include "tools/hivewick/hive_reader.h"

namespace hivewick {

namespace {

bool word_is(const std::string& arg, const char* name) {
  // Options are taken with one or two dashes and without regard to case.
  size_t i = 0;
  if (i < arg.size() && arg[i] == '-') ++i;
  if (i < arg.size() && arg[i] == '-') ++i;
  if (i == 0) return false;
  std::string_view rest(arg.data() + i, arg.size() - i);
  return names_equal(rest, name);
}

std::string lowered(std::string s) {
  for (char& c : s)
    if (c >= 'A' && c <= 'Z') c = char(c - 'A' + 'a');
  return s;
}

// A file's bytes: mapped when the system can, read otherwise. Only the
// pages a walk touches are brought in, so a large SOFTWARE hive costs little.
class hive_file {
 public:
  ~hive_file() {
    if (map_ != nullptr) munmap(map_, size_);
  }
  bool open(const std::string& path, std::string& error) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
      error = std::strerror(errno);
      return false;
    }
    struct stat st {};
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
      error = "not a regular file";
      ::close(fd);
      return false;
    }
    size_ = size_t(st.st_size);
    if (size_ > 0) {
      void* p = mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, fd, 0);
      if (p != MAP_FAILED) {
        map_ = p;
      } else {
        copy_.resize(size_);
        size_t got = 0;
        while (got < size_) {
          ssize_t n = ::pread(fd, copy_.data() + got, size_ - got, off_t(got));
          if (n <= 0) break;
          got += size_t(n);
        }
        copy_.resize(got);
        size_ = got;
      }
    }
    ::close(fd);
    return true;
  }
  qv::byte_span bytes() const {
    if (map_ != nullptr) return qv::byte_span(static_cast<const uint8_t*>(map_), size_);
    return qv::byte_span(copy_.data(), copy_.size());
  }

 private:
  void* map_ = nullptr;
  size_t size_ = 0;
  std::vector<uint8_t> copy_;
};

// Appends text from the hive so that it can't break the line: line breaks
// become "[CRLF]", "[LFCR]", "[LF]" or "[CR]", other control characters
// "\xNN".
void append_clean(std::string& out, std::string_view s) {
  static const char digits[] = "0123456789abcdef";
  for (size_t i = 0; i < s.size(); ++i) {
    char c = s[i];
    if (c == '\r' || c == '\n') {
      bool pair = i + 1 < s.size() && (s[i + 1] == '\r' || s[i + 1] == '\n') && s[i + 1] != c;
      if (pair) {
        out += c == '\r' ? "[CRLF]" : "[LFCR]";
        ++i;
      } else {
        out += c == '\r' ? "[CR]" : "[LF]";
      }
    } else if (uint8_t(c) < 0x20 && c != '\t') {
      out += "\\x";
      out += digits[uint8_t(c) >> 4];
      out += digits[uint8_t(c) & 15];
    } else {
      out += c;
    }
  }
}

bool is_hex(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// The 36 characters of a GUID key name ("{...}" or bare), lowered; empty
// when the name isn't a GUID.
std::string guid_of_name(std::string_view name) {
  if (name.size() == 38 && name.front() == '{' && name.back() == '}')
    name = name.substr(1, 36);
  if (name.size() != 36) return {};
  for (size_t i = 0; i < 36; ++i) {
    bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash ? name[i] != '-' : !is_hex(name[i])) return {};
  }
  return lowered(std::string(name));
}

bool names_default_value(const std::string& name) {
  return name.empty() || names_equal(name, "(unnamed)") || names_equal(name, "(default)");
}

struct lister {
  hive& h;
  const options& opts;
  qv::datetime_format fmt;
  std::string& out;
  std::unordered_set<uint32_t> visited;
  size_t lines = 0;

  // The text of the value named `want` among `values`; empty when absent.
  std::string column(const std::vector<value_record>& values, const std::string& want) {
    bool unnamed = names_default_value(want);
    for (const value_record& v : values) {
      if (unnamed ? !v.name.empty() : !names_equal(v.name, want)) continue;
      std::vector<uint8_t> data;
      h.value_data(v, data);  // what could be read is shown; the problem is noted
      return value_text(v.type, data);
    }
    return {};
  }

  void line(const key_node& key, const std::string& label) {
    std::vector<value_record> values;
    if (!opts.extract.empty()) h.read_values(key, values);
    std::vector<std::string> columns;
    columns.reserve(opts.extract.size());
    for (const std::string& want : opts.extract) columns.push_back(column(values, want));

    // A "#" line declares a provider by its name, so it needs a GUID and a
    // name; anything else is kept as a comment line.
    std::string guid = label.find('\\') == std::string::npos ? guid_of_name(label) : "";
    bool provider = !guid.empty() && !columns.empty() &&
                    columns[0].find_first_not_of(" \t") != std::string::npos;
    if (provider) {
      out += "#{";
      out += guid;
      out += "} ! ";
    } else {
      out += "// ";
      append_clean(out, label);
      out += " ! ";
    }
    for (const std::string& c : columns) {
      append_clean(out, c);
      out += " | ";
    }
    qv::time stamp(uint64_t(key.last_written), qv::type_filetime);
    std::string date, time;
    if (stamp.is_valid()) qv::format_datetime(date, time, stamp, fmt);
    out += date;
    if (opts.pair_datetime) {
      if (!date.empty() && !time.empty()) out += ' ';
    } else {
      out += " | ";
    }
    out += time;
    out += '\n';
    ++lines;
  }

  void walk(const key_node& key, const std::string& label, uint32_t depth) {
    std::vector<uint32_t> cells;
    h.subkey_cells(key, cells);
    for (uint32_t c : cells) {
      if (!visited.insert(c).second) continue;  // a loop back to a key already listed
      key_node sub;
      if (!h.read_key(c, sub)) continue;
      std::string sub_label = label.empty() ? sub.name : label + "\\" + sub.name;
      line(sub, sub_label);
      if (depth + 1 < opts.level) walk(sub, sub_label, depth + 1);
    }
  }
};

bool valid_date_format(const std::string& v) { return v.size() == 8 || v.size() == 10; }
bool valid_time_format(const std::string& v) {
  return v.size() == 8 || (v.size() >= 12 && v.size() <= 18 && v.find(':') != std::string::npos);
}

}  // namespace

std::string usage_text() {
  return "usage: hivewick -hive <file> [-key <path>] [-level N] [-extract <value>|<value>...]\n"
         "                [-dateformat F] [-timeformat F] [-pair_datetime] [-quiet] [-h]\n"
         "  -hive <file>      a registry hive file (regf), e.g. a SOFTWARE hive copied from a machine\n"
         "  -key <path>       the key whose subkeys are listed, names separated by \"\\\"; a first\n"
         "                    element naming the hive itself (\"SOFTWARE\\...\") is dropped\n"
         "  -level N          depth of subkeys listed (1: the direct subkeys; 0: the key itself)\n"
         "  -extract <names>  values shown per key, separated by \"|\"; \"(unnamed)\" is the default value\n"
         "  -dateformat F     e.g. yyyy-mm-dd, mm/dd/yyyy, dd/mm/yyyy\n"
         "  -timeformat F     e.g. hh:mm:ss, hh:mm:ss.xxx, hh:mm:ss.xxxxxxxxx\n"
         "  -pair_datetime    date and time of the key's last write in one column\n"
         "  -quiet            no status on standard error\n"
         "Each key gives one line: \"#{guid} ! <values> | <last write>\" for a key named by a GUID\n"
         "(a provider line of a template file), \"// <name> ! ...\" for any other key.\n";
}

std::string cmdline_line(const std::vector<std::string>& argv) {
  std::string line = "\"cmdline: ";
  for (size_t i = 0; i < argv.size(); ++i) {
    const std::string& a = argv[i];
    if (i) line += ' ';
    bool quote = a.empty() || a.find_first_of(" \t|&;<>()$`'*?\\") != std::string::npos;
    if (quote) line += '"';
    append_clean(line, a);
    if (quote) line += '"';
  }
  line += '"';
  return line;
}

bool parse_options(const std::vector<std::string>& args, options& opts, std::string& error,
                   std::string& notes) {
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    auto value = [&](std::string& to) {
      if (i + 1 >= args.size()) {
        error = "option " + a + " needs a value";
        return false;
      }
      to = args[++i];
      return true;
    };
    std::string v;
    if (word_is(a, "h") || word_is(a, "help") || a == "-?") {
      opts.help = true;
    } else if (word_is(a, "hive")) {
      if (!value(opts.hive_path)) return false;
    } else if (word_is(a, "key")) {
      if (!value(opts.key_path)) return false;
    } else if (word_is(a, "level")) {
      if (!value(v)) return false;
      if (v.empty() || v.size() > 9 || v.find_first_not_of("0123456789") != std::string::npos) {
        error = "-level needs a number, not \"" + v + "\"";
        return false;
      }
      opts.level = std::min<uint32_t>(uint32_t(std::stoul(v)), max_level);
    } else if (word_is(a, "extract")) {
      if (!value(v)) return false;
      opts.extract.clear();
      size_t start = 0;
      while (start <= v.size()) {
        size_t stop = v.find('|', start);
        if (stop == std::string::npos) stop = v.size();
        opts.extract.push_back(v.substr(start, stop - start));
        start = stop + 1;
      }
    } else if (word_is(a, "dateformat")) {
      if (!value(v)) return false;
      if (valid_date_format(v))
        opts.date_format = lowered(v);
      else
        notes += "invalid " + v + ", using default format\n";
    } else if (word_is(a, "timeformat")) {
      if (!value(v)) return false;
      if (valid_time_format(v))
        opts.time_format = lowered(v);
      else
        notes += "invalid " + v + ", using default format\n";
    } else if (word_is(a, "pair_datetime")) {
      opts.pair_datetime = true;
    } else if (word_is(a, "quiet")) {
      opts.quiet = true;
    } else {
      error = "unknown option \"" + a + "\"";
      return false;
    }
  }
  if (!opts.help && opts.hive_path.empty()) {
    error = "no hive named (-hive <file>)";
    return false;
  }
  return true;
}

int list_key(qv::byte_span bytes, const options& opts, std::string& out, std::string& err) {
  hive h;
  auto flush_problems = [&] {
    for (const std::string& p : h.problems()) {
      err += "hivewick: ";
      append_clean(err, p);
      err += '\n';
    }
    if (h.problems_dropped() > 0)
      err += "hivewick: " + std::to_string(h.problems_dropped()) + " more problems not shown\n";
    h.clear_problems();
  };
  if (!h.open(bytes)) {
    err += "hivewick: can't read " + opts.hive_path + " as a hive\n";
    flush_problems();
    return 1;
  }
  key_node key;
  std::string missing;
  if (!h.find_key(opts.key_path, key, &missing)) {
    flush_problems();
    err += "hivewick: key not found: ";
    append_clean(err, opts.key_path);
    if (!missing.empty()) {
      err += " (no subkey \"";
      append_clean(err, missing);
      err += "\")";
    }
    err += "\n";
    return 1;
  }
  lister l{h, opts, {}, out, {}, 0};
  qv::parse_datetime_format(l.fmt, opts.date_format, opts.time_format, opts.pair_datetime);
  l.visited.insert(key.cell);
  if (opts.level == 0)
    l.line(key, key.name);
  else
    l.walk(key, "", 0);
  flush_problems();
  if (!opts.quiet)
    err += "hivewick: " + std::to_string(l.lines) + " keys listed from \"" +
           (opts.key_path.empty() ? key.name : opts.key_path) + "\"\n";
  return 0;
}

int run(const std::vector<std::string>& argv, std::string& out, std::string& err) {
  options opts;
  std::string error, notes;
  std::vector<std::string> args(argv.begin() + (argv.empty() ? 0 : 1), argv.end());
  out += version_line;
  out += '\n';
  out += cmdline_line(argv);
  out += '\n';
  if (args.empty()) {
    err += usage_text();
    return 2;
  }
  bool ok = parse_options(args, opts, error, notes);
  err += notes;
  if (!ok) {
    err += "hivewick: " + error + "\n" + usage_text();
    return 2;
  }
  if (opts.help) {
    out += usage_text();
    return 0;
  }
  hive_file file;
  if (!file.open(opts.hive_path, error)) {
    err += "hivewick: can't open " + opts.hive_path + ": " + error + "\n";
    return 1;
  }
  return list_key(file.bytes(), opts, out, err);
}

}  // namespace hivewick
