#include "run/cmd_params.h"

#include <sys/stat.h>

#include <cstdio>
#include <fstream>

#include "support/qv_portable_dir.h"
#include "support/qv_string.h"
#include "support/qv_time.h"
#include "support/uni_fileio.h"

cmd_params::cmd_params() = default;
cmd_params::~cmd_params() = default;

namespace {

bool word_matches(const std::string& arg, const std::string& word) {
  if (arg.size() != word.size()) return false;
  std::string a = arg, w = word;
  return qv::equal_nocase(a, w);
}

void complain(const char* text) {
  std::fputs(text, stderr);
  std::fflush(stderr);
}

std::string base_program_name(const std::string& path) {
  std::string dir, name;
  qvportdir::split_path(path, dir, name);
  const size_t slash = name.find_last_of("/\\");
  if (slash != std::string::npos) name = name.substr(slash + 1);
  const size_t dot = name.rfind('.');
  if (dot != std::string::npos && dot != 0) name.resize(dot);
  return name;
}

// The separator of an output form, and the character replaced inside cells
// by its substitute.
void use_separator(cmd_params& o, const char* separator, char replaced, char substitute) {
  o.report.separator = separator;
  o.report.separator_char = replaced;
  o.report.sub_separator_char = substitute;
}

// -filter patterns: lowered, split at "|" (else ","), one path_filter each.
void add_filters(std::vector<path_filter>& list, std::string text, const std::string& filter_path) {
  qv::to_lower(text);
  std::vector<std::string> pieces;
  const char delimiter = text.find('|') != std::string::npos ? '|' : ',';
  if (text.find(delimiter) != std::string::npos) qv::split(text, delimiter, pieces, true, false);
  else pieces.push_back(text);
  for (std::string piece : pieces) {
    qv::trim(piece);
    if (piece.empty()) continue;
    path_filter f;
    f.raw_text = qv::to_wide(piece);
    f.path = qv::to_wide(filter_path);
    if (piece == "*") {
      f.match_all = true;
      list.push_back(f);
      break;
    }
    f.rooted = piece[0] == '/';
    std::string name = piece, ext;
    const size_t dot = piece.find('.');
    if (dot != std::string::npos) {
      f.has_ext = true;
      name = piece.substr(0, dot);
      ext = piece.substr(dot + 1);
      f.ext_all = ext == "*" || ext.empty();
      f.ext_star_front = !ext.empty() && ext.front() == '*';
      f.ext_star_back = !ext.empty() && ext.back() == '*';
      qv::remove_char(ext, '*');
    }
    f.name_star_front = !name.empty() && name.front() == '*';
    f.name_star_back = !name.empty() && name.back() == '*';
    qv::remove_char(name, '*');
    f.name_pattern = qv::to_wide(name);
    f.ext_pattern = qv::to_wide(ext);
    list.push_back(f);
  }
}

bool match_star(const std::wstring& text, const std::wstring& pattern, bool front, bool back) {
  if (front && back) return text.find(pattern) != std::wstring::npos;
  if (front) return text.size() >= pattern.size() && text.compare(text.size() - pattern.size(), pattern.size(), pattern) == 0;
  if (back) return text.compare(0, pattern.size(), pattern) == 0;
  return text == pattern;
}

// A date and, behind a blank, a time, as a FILETIME limit.
bool parse_time_limit(const std::string& value, bool stop, time_limit& out) {
  std::string date = value, time;
  const size_t blank = value.find(' ');
  if (blank != std::string::npos) {
    date = value.substr(0, blank);
    time = value.substr(blank + 1);
  } else if (stop) {
    time = "23:59:59";
  }
  char separator = 0;
  if (date.find('/') != std::string::npos) separator = '/';
  else if (date.find('-') != std::string::npos) separator = '-';
  else return false;
  // A stop limit stands at its date alone.
  if (stop) time.clear();
  qv::_windows_systemtime st;
  if (!qv::parse_date_time_text(date, time, "YMD", separator, st)) return false;
  qv::filetime_pair ft;
  qv::filetime_from_systemtime(st, ft);
  out.filetime = (static_cast<uint64_t>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
  out.unix_seconds = out.filetime >= 116444736000000000ull ? (out.filetime - 116444736000000000ull) / 10000000 : 0;
  return out.filetime != 0;
}

}  // namespace

bool has_word(const std::string& word, std::vector<std::string>& args, bool keep) {
  for (size_t i = 1; i < args.size(); ++i) {
    if (word_matches(args[i], word)) {
      if (!keep) args.erase(args.begin() + static_cast<std::ptrdiff_t>(i));
      return true;
    }
  }
  return false;
}

bool take_value(const std::string& word, std::string& out, std::vector<std::string>& args) {
  for (size_t i = 1; i < args.size(); ++i) {
    if (word_matches(args[i], word)) {
      if (i + 1 >= args.size()) return false;
      out = args[i + 1];
      args.erase(args.begin() + static_cast<std::ptrdiff_t>(i), args.begin() + static_cast<std::ptrdiff_t>(i) + 2);
      return true;
    }
  }
  return false;
}

bool parse_shared(cmd_params& o, std::vector<std::string>& args) {
  for (size_t i = 0; i < args.size(); ++i) {
    if (i) o.command_line += ' ';
    if (args[i].find(' ') != std::string::npos) o.command_line += "\"" + args[i] + "\"";
    else o.command_line += args[i];
  }
  if (!args.empty()) o.program_name = base_program_name(args[0]);
  o.report.program_name = o.program_name;
  std::string v;

  if (has_word("-pair_datetime", args)) o.report.pair_datetime = true;
  if (take_value("-diags", v, args)) {
    o.diags_stream = std::make_unique<std::ofstream>(v);
    if (o.diags_stream->good()) {
      o.diags_path = v;
      *o.diags_stream << "->" << o.command_line << "\n";
    }
  }
  if (has_word("-l2", args)) o.diags_level = 2;
  if (has_word("-l3", args)) o.diags_level = 3;
  if (has_word("-csv", args)) {
    o.report.format_csv = true;
    use_separator(o, ",", ',', ' ');
    o.report.no_whitespace = !o.report.pair_datetime;
  }
  if (has_word("-csvgen", args)) {
    o.report.format_csvgen = true;
    use_separator(o, ",", ',', ' ');
    o.report.no_whitespace = true;
  }
  if (has_word("-csvl2t", args)) {
    o.report.format_l2t = true;
    use_separator(o, ",", ',', ' ');
    o.report.header_row_pending = true;
  }
  if (has_word("-bodyfile", args)) {
    o.report.format_bodyfile = true;
    use_separator(o, "|", '|', ';');
    o.report.header_row_pending = true;
  }
  if (has_word("-xml", args)) {
    o.report.format_xml = true;
    o.report.separator.clear();
    o.report.separator_char = 0;
    o.report.header_row_pending = false;
  }
  if (has_word("-multiline", args)) {
    o.report.format_multiline = true;
    o.report.separator.clear();
    o.report.separator_char = 0;
    o.report.header_row_pending = true;
  }
  for (const char* word : {"-alias", "-aliaspath"}) {
    if (take_value(word, v, args)) {
      qv::expand_environment(v, true);
      std::vector<std::string> pairs;
      qv::split(v, '|', pairs, true, false);
      if (pairs.size() % 2 != 0) {
        std::fprintf(stderr, "%s, aborting\n", "imbalanced alias to true pathfiles");
        return false;
      }
      o.alias_pairs.insert(o.alias_pairs.end(), pairs.begin(), pairs.end());
    }
  }
  for (const char* word : {"-gzip", "-zlib", "-zlibex", "-threads"}) has_word(word, args);
  for (const char* word : {"-sqlite_log", "-sqlite"}) {
    if (take_value(word, v, args)) {
      complain("This option is not offered in this build\n");
      return false;
    }
  }
  if (take_value("-signal", v, args)) o.signal_text = v;
  if (take_value("-hostname", v, args)) o.report.host_name = v;
  if (take_value("-username", v, args)) o.report.user_name = v;
  if (has_word("-split_pathfile", args)) o.split_pathfile = true;
  for (const char* word : {"-cpuinst", "-cpu", "-fragment_files", "-separate_files"}) has_word(word, args);
  if (has_word("-append", args)) o.append = true;
  for (const char* word : {"-out", "-outfile"}) {
    if (take_value(word, v, args)) {
      qv::replace_char(v, '\\', '/');
      qv::expand_environment(v, true);
      o.results_path = v;
      if (o.output_check && !o.output_check(v)) return false;
      // The path is tried for writing, and the test file removed again.
      uni::fileio probe;
      if (!probe.open(v, true, false, true)) {
        std::fprintf(stderr, "prob opening file %s for output, aborting\n", v.c_str());
        return false;
      }
      probe.close();
      // Only a regular file is removed again: a device such as /dev/null or
      // a pipe named as output must survive the test.
      struct stat st {};
      if (::stat(v.c_str(), &st) == 0 && S_ISREG(st.st_mode)) std::remove(v.c_str());
    }
  }
  if (take_value("-outdir", v, args)) o.out_dir = qv::expand_environment(v, true);
  if (take_value("-enumdir", v, args)) {
    o.enum_dir = qv::expand_environment(v, true);
    o.use_enum_dir = true;
  }
  if (take_value("-num_subdirs", v, args)) {
    uint32_t n = 0;
    qv::parse_uint32(v, n);
    o.num_subdirs = n;
  }
  if (has_word("-profile", args)) o.profile = true;
  if (has_word("-pipe", args)) o.use_pipe = true;
  std::string filter_path;
  {
    std::vector<std::string> probe = args;
    take_value("-filter_path", filter_path, probe);
  }
  while (take_value("-filter_skip", v, args)) add_filters(o.skip_list, v, filter_path);
  while (take_value("-filter", v, args)) add_filters(o.filter_list, v, filter_path);
  take_value("-filter_path", v, args);
  {
    std::string sig, offset;
    if (take_value("-filter_sig", sig, args)) {
      path_filter f;
      for (size_t i = 0; i + 1 < sig.size(); i += 2) {
        uint32_t b = 0;
        if (qv::parse_uint32("0x" + sig.substr(i, 2), b)) f.signature.push_back(static_cast<uint8_t>(b));
      }
      if (take_value("-filter_sig_offset", offset, args)) qv::parse_uint64(offset, f.signature_offset);
      f.raw_text = qv::to_wide(sig);
      if (!f.signature.empty()) o.filter_list.push_back(f);
    }
  }
  if (take_value("-cmd_start_time", v, args)) {
    time_limit t;
    if (v.find('/') != std::string::npos || v.find('-') != std::string::npos) {
      if (parse_time_limit(v, false, t)) o.start_time = t;
      else complain("invalid start time, ignoring\n");
    }
  }
  if (take_value("-cmd_stop_time", v, args)) {
    time_limit t;
    if (v.find('/') != std::string::npos || v.find('-') != std::string::npos) {
      if (!parse_time_limit(v, true, t) || (o.start_time && t.filetime <= o.start_time->filetime))
        complain("invalid stop time, ignoring\n");
      else o.stop_time = t;
    }
  }
  if (has_word("-base10", args)) o.report.base16 = false;
  if (has_word("-base16", args)) o.report.base16 = true;
  if (take_value("-csv_separator", v, args)) {
    o.report.separator = v;
    if (!o.report.quoted_fields) {
      std::string lowered = v;
      qv::to_lower(lowered);
      if (lowered.find('|') != std::string::npos) {
        o.report.separator_char = '|';
        o.report.sub_separator_char = ';';
      } else if (lowered.find(',') != std::string::npos) {
        o.report.separator_char = ',';
        o.report.sub_separator_char = ' ';
      } else if (lowered == "tab" || lowered == "\\t") {
        o.report.separator = "\t";
        o.report.separator_char = 0;
        o.report.sub_separator_char = 0;
      } else {
        o.report.separator_char = 0;
        o.report.sub_separator_char = 0;
      }
    }
  }
  if (has_word("-enable_quoted_csv_fields", args)) {
    o.report.quoted_fields = true;
    if (o.report.separator.find('\t') == std::string::npos) qv::remove_char(o.report.separator, ' ');
    o.report.pad_with_blanks = false;
    o.report.separator_char = 0;
  }
  if (has_word("-no_whitespace", args)) {
    o.report.no_whitespace = true;
    o.report.pad_with_blanks = false;
    qv::remove_char(o.report.separator, ' ');
  }
  if (take_value("-dateformat", v, args)) {
    if (v.size() == 8 || v.size() == 10) {
      o.report.date_format = qv::to_lower(v);
    } else {
      std::fprintf(stderr, "invalid %s, using default format\n", v.c_str());
    }
  }
  if (take_value("-timeformat", v, args)) {
    if ((v.size() == 8 || (v.size() >= 12 && v.size() <= 18)) && v.find(':') != std::string::npos) {
      o.report.time_format = qv::to_lower(v);
    } else {
      std::fprintf(stderr, "invalid %s, using default format\n", v.c_str());
    }
  }
  if (has_word("-verbose", args) || has_word("-v", args)) o.verbose = true;
  if (has_word("-quiet", args)) o.show_status = false;

  qv::parse_datetime_format(o.report.datetime_format, o.report.date_format, o.report.time_format, o.report.pair_datetime);
  return true;
}

bool passes_filter(const cmd_params& opts, const std::wstring& path,
                   const std::vector<path_filter>& filters, bool* matched_by_name) {
  if (matched_by_name) *matched_by_name = false;
  if (path.empty()) return false;
  if (filters.empty()) return true;

  if (opts.start_time || opts.stop_time) {
    struct stat st {};
    if (::stat(qv::to_narrow(path).c_str(), &st) == 0) {
      const uint64_t modified = static_cast<uint64_t>(st.st_mtime);
      const uint64_t changed = static_cast<uint64_t>(st.st_ctime);
      if (opts.start_time && modified < opts.start_time->unix_seconds && changed < opts.start_time->unix_seconds)
        return false;
      if (opts.stop_time && (modified > opts.stop_time->unix_seconds || changed > opts.stop_time->unix_seconds))
        return false;
    }
  }
  if (filters.size() == 1 && filters[0].match_all) return true;

  std::wstring lowered = path;
  qv::to_lower(lowered);
  std::wstring dir, name;
  qvportdir::split_path(lowered, dir, name);
  std::wstring stem = name, ext;
  const size_t dot = name.rfind(L'.');
  const bool name_has_ext = dot != std::wstring::npos;
  if (name_has_ext) {
    stem = name.substr(0, dot);
    ext = name.substr(dot + 1);
  }
  for (const path_filter& f : filters) {
    if (!f.signature.empty()) {
      uni::fileio file(path, false);
      std::vector<uint8_t> head;
      if (file.is_open() && file.read_block(head, f.signature.size(), f.signature_offset) && head == f.signature)
        return true;
      continue;
    }
    if (f.match_all) {
      if (matched_by_name) *matched_by_name = true;
      return true;
    }
    if (f.rooted) {
      for (wchar_t slash : {L'/', L'\\'}) {
        std::wstring pattern = f.raw_text;
        if (slash == L'\\') qv::replace_char(pattern, L'/', L'\\');
        const size_t at = lowered.find(pattern);
        if (at == std::wstring::npos) continue;
        const size_t behind = at + pattern.size();
        if (behind == lowered.size() || lowered[behind] == 0 || lowered[behind] == L'/') {
          if (matched_by_name) *matched_by_name = true;
          return true;
        }
      }
      continue;
    }
    if (f.has_ext) {
      if (!name_has_ext) continue;
      if (!f.ext_all && !match_star(ext, f.ext_pattern, f.ext_star_front, f.ext_star_back)) continue;
      if (match_star(stem, f.name_pattern, f.name_star_front, f.name_star_back) ||
          (f.name_pattern.empty() && (f.name_star_front || f.name_star_back))) {
        if (matched_by_name) *matched_by_name = true;
        return true;
      }
      continue;
    }
    if (match_star(name, f.name_pattern, f.name_star_front, f.name_star_back)) {
      if (matched_by_name) *matched_by_name = true;
      return true;
    }
  }
  return false;
}
