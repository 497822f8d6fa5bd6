// CSV that parses: a trace whose session name, log file name, file name,
// event name, field names and payload strings hold separators, quotes, CR,
// LF, LF CR LF and tabs, run through every CSV form and read back with an
// RFC 4180 reader (tests/csv_reader.h): every line has the column count of
// its column line, and the texts come back whole, flattened where they had
// line breaks. The padded form keeps one line per row as well.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "tests/csv_reader.h"
#include "tests/e2e_util.h"
#include "tests/trace_writer.h"

using e2e::run_result;

namespace {

constexpr uint64_t kT0 = 134170743671234567ull;  // 2026-03-04 05:06:07.1234567

const char kSession[] = "\"Evil\", session\n\r\n\tname\rX";
const char kLogFile[] = "c:\\evil,\"x\"\n\r\nname.etl";
const char kFileName[] = "a,\"b\"\n\r\n\tc.etl";

// The same texts as a row shows them, worked out by hand from the rules:
// the separator character to its substitute (a comma to a blank) where the
// form has one, then LF CR -> [LFCR], the LF whose CR went into it ->
// [LF], CR LF -> [CRLF], a CR beside LFs -> [CR].
const char kSessionCsv[] = "\"Evil\"  session[LFCR][LF][CRLF]\tname[CR]X";
const char kSessionKept[] = "\"Evil\", session[LFCR][LF][CRLF]\tname[CR]X";
const char kNotesCsv[] = "Orig filename: c:\\evil \"x\"[LFCR][LF][CRLF]name.etl";
const char kFileCsv[] = "a \"b\"[LFCR][LF][CRLF]\tc.etl";

tw::bytes ansi(const std::string& text) {
  tw::bytes b(text.begin(), text.end());
  b.push_back(0);
  return b;
}

// A regular trace: the hostile log header, a TraceLogging event with hostile
// names and strings, and an event of an unknown provider whose UTF-16
// string the guessing engine finds.
tw::bytes hostile_trace() {
  tw::log_header_spec h;
  h.buffer_size = 4096;
  h.start_time = h.system_time = kT0;
  h.logger_name = kSession;
  h.log_file_name = kLogFile;
  tw::etl_writer w;
  w.log_header(h);

  tw::event_spec tl;
  tl.provider = tw::guid_from_text("2a576b87-09a7-520e-c21a-4942f0271d67");
  tl.time = kT0 + 10;
  tl.process_id = 0x990;
  tl.thread_id = 0x991;
  tl.extended = tw::extended_item(
      11, tw::tracelogging_schema("Ev,\"t\"\n", {{"f,\"1\"\r", 2}, {"g\n\r\n", 2}}), false);
  tl.payload = ansi("v,\"1\"\n\r\n\tz");
  const tw::bytes second = ansi("\"lead\r\nq\r");
  tl.payload.insert(tl.payload.end(), second.begin(), second.end());

  tw::event_spec guess;
  guess.provider = tw::guid_from_text("00000001-0002-0003-0405-060708090a0b");
  guess.id = 7;
  guess.time = kT0 + 20;
  guess.payload = tw::utf16("x,\"y\"\r\n\tz\n\r\nw, long enough");
  guess.payload.push_back(0);
  guess.payload.push_back(0);

  w.add_buffer({tw::event_header_record(tl), tw::event_header_record(guess)});
  return w.data();
}

std::vector<std::string> split_lines(const std::string& text) {
  std::vector<std::string> lines;
  std::string line;
  std::istringstream in(text);
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

// One file's part of the output: its head lines and its CSV records.
struct file_part {
  std::string file_line;
  std::string source_line;
  csv::reading csv;
};

// Cuts the output into the prologue and the files' parts; the CSV part of a
// file is read as a whole with the RFC 4180 reader.
std::vector<file_part> read_output(const std::string& out, char separator) {
  std::vector<file_part> parts;
  EXPECT_FALSE(out.empty());
  EXPECT_EQ(out.back(), '\n');
  EXPECT_EQ(out.find('\r'), std::string::npos) << "a carriage return in the output";
  const std::vector<std::string> lines = split_lines(out);
  EXPECT_GE(lines.size(), 3u);
  if (lines.size() < 3) return parts;
  EXPECT_EQ(lines[0], "quon ver: 0.31");
  EXPECT_EQ(lines[1].rfind("// run at: ", 0), 0u);
  EXPECT_EQ(lines[2].rfind("// command line: ", 0), 0u);
  size_t i = 3;
  while (i < lines.size()) {
    EXPECT_EQ(lines[i], "---------------------");
    if (i + 2 >= lines.size()) {
      ADD_FAILURE() << "a file's head is cut short";
      break;
    }
    file_part p;
    p.file_line = lines[i + 1];
    p.source_line = lines[i + 2];
    i += 3;
    std::string text;
    for (; i < lines.size() && lines[i] != "---------------------"; ++i) text += lines[i] + "\n";
    p.csv = csv::read(text, separator);
    parts.push_back(p);
  }
  return parts;
}

struct csv_form {
  std::string options;
  char separator;
  size_t session_column;  // where the session name stands in every record
  size_t rows;            // records behind the column line
};

}  // namespace

TEST(CsvOutput, HostileTextsReadBackInEveryCsvForm) {
  e2e::temp_dir dir;
  dir.mkdir("in");
  const std::string folder = dir.path("in");
  const std::string name = folder + "/" + kFileName;
  dir.write(std::string("in/") + kFileName, hostile_trace());
  const std::string name_flat = folder + "/a,\"b\"[LFCR][LF][CRLF]\tc.etl";
  const std::string file_csv = folder + "/" + kFileCsv;

  // The -csv forms: the header row and two events; -csvl2t: two events.
  const std::vector<csv_form> forms = {
      {"-csv", ',', 3, 3},
      {"-csv -pair_datetime", ',', 3, 3},
      {"-csv -no_whitespace -base10", ',', 3, 3},
      {"-csv -enable_quoted_csv_fields", ',', 3, 3},
      {"-csv -pair_datetime -enable_quoted_csv_fields", ',', 3, 3},
      {"-csv -csv_separator tab", '\t', 3, 3},
      {"-csvgen", ',', 3, 3},
      {"-csvl2t", ',', 5, 2},
      {"-csvl2t -pair_datetime", ',', 4, 2},
      {"-csvl2t -hostname 'h,\"1' -username '\"u\t'", ',', 5, 2},
  };
  for (const csv_form& f : forms) {
    SCOPED_TRACE(f.options);
    run_result r = e2e::run_quon("-quiet " + f.options + " -enumdir '" + folder + "' -num_subdirs 0");
    ASSERT_EQ(r.status, 0);
    const std::vector<file_part> parts = read_output(r.out, f.separator);
    ASSERT_EQ(parts.size(), 1u) << r.out;
    const file_part& p = parts[0];
    EXPECT_EQ(p.file_line, "file: " + name_flat);
    EXPECT_EQ(p.source_line, "orig source path: c:\\evil,\"x\"[LFCR][LF][CRLF]name.etl");
    ASSERT_TRUE(p.csv.ok) << p.csv.error << "\n" << r.out;
    ASSERT_EQ(p.csv.records.size(), f.rows + 1) << r.out;
    const size_t columns = p.csv.records[0].size();
    EXPECT_GE(columns, 16u);
    const bool quoted = f.options.find("quoted") != std::string::npos;
    const bool tab = f.options.find("tab") != std::string::npos;
    const bool l2t = f.options.find("l2t") != std::string::npos;
    for (size_t k = 1; k < p.csv.records.size(); ++k) {
      SCOPED_TRACE("record " + std::to_string(k));
      const csv::record& rec = p.csv.records[k];
      ASSERT_EQ(rec.size(), columns) << r.out;
      for (const std::string& field : rec) EXPECT_EQ(field.find('\n'), std::string::npos);
      std::string session = rec[f.session_column];
      // Padding is part of a padded field; the text is what comes before it.
      while (!session.empty() && session.back() == ' ') session.pop_back();
      EXPECT_EQ(session, quoted || tab ? kSessionKept : kSessionCsv);
      if (l2t) {
        EXPECT_EQ(rec[columns - 5], file_csv);
        EXPECT_EQ(rec[columns - 3], kNotesCsv);
      }
    }
    // The payload strings, flattened, in the last column of the events.
    const std::string extra = p.csv.records.back().back();
    EXPECT_NE(extra.find("[LFCR][LF][CRLF]"), std::string::npos) << extra;
    if (f.options.find("hostname") != std::string::npos) {
      EXPECT_EQ(p.csv.records[1][7], "\"u\t");
      EXPECT_EQ(p.csv.records[1][8], "h \"1");
    }
  }
}

// The padded default form: one line per row, every line break flattened, a
// bar inside a text a semicolon.
TEST(CsvOutput, PaddedFormKeepsOneLinePerRow) {
  e2e::temp_dir dir;
  dir.mkdir("in");
  dir.write(std::string("in/") + kFileName, hostile_trace());
  run_result r = e2e::run_quon("-quiet -enumdir '" + dir.path("in") + "' -num_subdirs 0");
  ASSERT_EQ(r.status, 0);
  EXPECT_EQ(r.out.find('\r'), std::string::npos);
  const std::vector<std::string> lines = split_lines(r.out);
  // Prologue 3, head 3, column line, header row, two events.
  ASSERT_EQ(lines.size(), 10u) << r.out;
  const std::string bar = " | ";
  const size_t columns = e2e::count(lines[6], bar) + 1;
  EXPECT_EQ(columns, 16u);
  for (size_t i = 7; i < lines.size(); ++i) {
    SCOPED_TRACE(lines[i]);
    // The session name overruns its column of 36: the next separator follows.
    EXPECT_NE(lines[i].find(" | " + std::string(kSessionKept) + " | "), std::string::npos);
  }
}
