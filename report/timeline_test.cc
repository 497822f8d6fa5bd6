#include "report/timeline.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "report/report_options.h"
#include "support/qv_datetime.h"

namespace {

// 2026-03-04 05:06:07.1234567 UTC, and one second later.
constexpr uint64_t kStamp = 134170743671234567ULL;
constexpr uint64_t kLater = kStamp + 10000000;

// A record set up for an event the way the row writer does it, with the
// record's own default formats.
void event_record(timeline_record& r) {
  reset_timeline_record(r);
  set_time_slots(r, 0, 0, 0, kStamp, qv::type_filetime);
  set_slot_texts(r, "", "", "", "ETL Entry");
  r.source = std::string("ETL");
  r.sourcetype = std::string("S");
  r.short_text = std::string("sh");
  r.desc = std::string("de");
  r.filename = std::string("f");
  r.notes = std::string("n");
  r.format = std::string("quon (ovrelt)");
  r.extra = std::string("x");
}

std::string lines(timeline_record& r, bool pending = false) {
  std::ostringstream s;
  write_timeline_lines(pending, s, r);
  return s.str();
}

}  // namespace

TEST(Timeline, ExpandMacbForEvents) {
  timeline_record r;
  std::vector<timeline_entry> entries;
  event_record(r);
  expand_macb(entries, r);
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].macb, "...B");
  EXPECT_EQ(entries[0].type_text, "ETL Entry");
  EXPECT_EQ(entries[0].raw_time, kStamp);
  EXPECT_EQ(entries[0].time.get_filetime(), kStamp);

  // A B time that isn't valid, or zero, gives no entry.
  set_time_slots(r, 0, 0, 0, 1, qv::type_filetime);
  expand_macb(entries, r);
  EXPECT_TRUE(entries.empty());
  set_time_slots(r, 0, 0, 0, 0, qv::type_filetime);
  expand_macb(entries, r);
  EXPECT_TRUE(entries.empty());

  // A slot without text takes the label with its letters.
  event_record(r);
  set_slot_texts(r, "", "", "", "");
  r.label.assign(1, 'L');
  expand_macb(entries, r);
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].type_text, "L [...B]");
}

TEST(Timeline, ExpandMacbFolding) {
  timeline_record r;
  std::vector<timeline_entry> entries;
  reset_timeline_record(r);
  set_slot_texts(r, "m", "a", "c", "b");

  // Equal stamps fold into the first slot's line; an unmatched C after M is
  // only marked when the record has extra times.
  set_time_slots(r, kStamp, kStamp, 0, kStamp, qv::type_filetime);
  expand_macb(entries, r);
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].macb, "MAB");
  EXPECT_EQ(entries[0].type_text, "m; a; b");

  set_time_slots(r, kStamp, 0, kLater, kLater, qv::type_filetime);
  expand_macb(entries, r);
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].macb, "M..");
  EXPECT_EQ(entries[0].type_text, "m");
  EXPECT_EQ(entries[1].macb, "..CB");
  EXPECT_EQ(entries[1].type_text, "c; b");

  // Extra times: one equal to M folds in as C; another stands alone.
  set_time_slots(r, kStamp, 0, 0, kLater, qv::type_filetime);
  r.extra_times = {kStamp, kLater + 10000000};
  r.extra_texts = {"x1", "x2"};
  r.extra_sources = {"src1", "src2"};
  r.extra_files = {"f1", "f2"};
  expand_macb(entries, r);
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_EQ(entries[0].macb, "M.C.");
  EXPECT_EQ(entries[0].type_text, "m; x1");
  EXPECT_EQ(entries[0].source_text, "src1");
  EXPECT_EQ(entries[0].file_text, "f1");
  EXPECT_EQ(entries[1].macb, "...B");
  EXPECT_EQ(entries[1].type_text, "b");
  EXPECT_EQ(entries[2].macb, "..C.");
  EXPECT_EQ(entries[2].type_text, "x2");
  EXPECT_EQ(entries[2].file_text, "f2");
  EXPECT_EQ(entries[2].raw_time, kLater + 10000000);

  // An extra time equal to B makes it "..CB".
  reset_timeline_record(r);
  set_time_slots(r, 0, 0, 0, kLater, qv::type_filetime);
  r.extra_times = {kLater};
  expand_macb(entries, r);
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].macb, "..CB");

  // Unix seconds as the time kind.
  reset_timeline_record(r);
  set_time_slots(r, 0, 0, 0, 1700000000, qv::type_unix);
  expand_macb(entries, r);
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].time.get_filetime(), 1700000000ULL * 10000000 + 116444736000000000ULL);
}

TEST(Timeline, ColumnLine) {
  std::ostringstream s;
  write_timeline_header(s, ",", false);
  EXPECT_EQ(s.str(),
            "date,time,timezone,MACB,source,sourcetype,type,user,host,short,desc,version,filename,"
            "inode,notes,format,extra");
  s.str("");
  write_timeline_header(s, ";", true);
  EXPECT_EQ(s.str(),
            "date/time;timezone;MACB;source;sourcetype;type;user;host;short;desc;version;"
            "filename;inode;notes;format;extra");
}

TEST(Timeline, LineForms) {
  timeline_record r;
  event_record(r);
  // The record's own defaults: "yyyy-mm-dd" and "hh:mm:ss.xxx".
  EXPECT_EQ(lines(r), "2026-03-04, 05:06:07.123,UTC,...B,ETL,S,ETL Entry,,,sh,de,2,f,,n,"
                      "quon (ovrelt),x\n");

  r.pair_datetime = true;
  EXPECT_EQ(lines(r).substr(0, 29), " 2026-03-04 05:06:07.123,UTC,");
  r.no_whitespace = true;
  EXPECT_EQ(lines(r).substr(0, 28), "2026-03-04 05:06:07.123,UTC,");
  r.pair_datetime = false;
  EXPECT_EQ(lines(r).substr(0, 28), "2026-03-04,05:06:07.123,UTC,");

  // `type` wins over the slot text; user and host as bound.
  r.type = "T";
  r.user = "U";
  r.host = "H";
  EXPECT_EQ(lines(r).substr(23), ",UTC,...B,ETL,S,T,U,H,sh,de,2,f,,n,quon (ovrelt),x\n");
}

TEST(Timeline, TextCleanUp) {
  timeline_record r;
  event_record(r);
  r.source = "E,T";
  r.sourcetype = "S,1";
  r.short_text = "a,b\nc";
  r.desc = "d,e\r\nf";
  r.filename = "/x,y\nz";
  r.notes = "n,o\rp";
  r.extra = "e,x\n";
  // Commas to blanks and line breaks flattened in every text: no field can
  // shift the columns or split the line.
  EXPECT_EQ(lines(r), "2026-03-04, 05:06:07.123,UTC,...B,E T,S 1,ETL Entry,,,a b[LF]c,"
                      "d e[CRLF]f,2,/x y[LF]z,,n o[CR]p,quon (ovrelt),e x[LF]\n");

  // With no substitute character nothing is replaced: the field is quoted.
  event_record(r);
  r.separator.assign(1, '|');
  r.separator_char = '|';
  r.sub_separator_char = 0;
  r.desc = "a|b";
  EXPECT_NE(lines(r).find("|\"a|b\"|"), std::string::npos);
}

// Only the data field wants a clean-up (the usual case): the other fields
// stand as they are and the data field alone is cleaned, or quoted when its
// separator has no substitute.
TEST(Timeline, DataFieldCleanedAlone) {
  timeline_record r;
  event_record(r);
  r.extra = "data{\"01-a\":\"x,y\";\"02-b\":\"l1\r\nl2\"}";
  EXPECT_EQ(lines(r), "2026-03-04, 05:06:07.123,UTC,...B,ETL,S,ETL Entry,,,sh,de,2,f,,n,quon (ovrelt),"
                      "data{\"01-a\":\"x y\";\"02-b\":\"l1[CRLF]l2\"}\n");
  // A data field that begins with a quote is quoted, its quotes doubled.
  event_record(r);
  r.extra = "\"q\"";
  EXPECT_EQ(lines(r), "2026-03-04, 05:06:07.123,UTC,...B,ETL,S,ETL Entry,,,sh,de,2,f,,n,quon (ovrelt),"
                      "\"\"\"q\"\"\"\n");
  // Without a substitute the field holding the separator is quoted.
  event_record(r);
  r.separator.assign(1, '|');
  r.separator_char = '|';
  r.sub_separator_char = 0;
  r.extra = "a|b";
  EXPECT_EQ(lines(r), "2026-03-04| 05:06:07.123|UTC|...B|ETL|S|ETL Entry|||sh|de|2|f||n|quon (ovrelt)|\"a|b\"\n");
  // An earlier field wanting it too: every field goes through the clean-up.
  event_record(r);
  r.desc = "d,e";
  r.extra = "x,y";
  EXPECT_EQ(lines(r), "2026-03-04, 05:06:07.123,UTC,...B,ETL,S,ETL Entry,,,sh,d e,2,f,,n,quon (ovrelt),x y\n");
}

// An extra field written straight into the line gives the line that the
// same text set in the record gives, whether the line is plain or cleaned.
TEST(Timeline, RenderedExtraFieldWritesWhatTheTextWrites) {
  struct source_text {
    std::string text;
  };
  auto render = [](qv::line_text& out, const void* source) { out += static_cast<const source_text*>(source)->text; };
  const source_text texts[] = {{"x"}, {""}, {"data{\"01-a\":\"x,y\"}"}, {"\"q\""}, {"l1\nl2"}};
  for (const source_text& t : texts) {
    for (int form = 0; form < 3; ++form) {
      timeline_record a, b;
      event_record(a);
      event_record(b);
      if (form == 1) {  // an earlier field wants a clean-up too
        a.desc = b.desc = "d,e";
      } else if (form == 2) {  // a separator without a substitute
        for (timeline_record* r : {&a, &b}) {
          r->separator.assign(1, '|');
          r->separator_char = '|';
          r->sub_separator_char = 0;
        }
      }
      a.extra = t.text;
      b.render_extra = render;
      b.extra_source = &t;
      EXPECT_EQ(lines(b), lines(a)) << t.text << " form " << form;
    }
  }
  timeline_record r;
  event_record(r);
  const source_text plain{"p"};
  r.render_extra = render;
  r.extra_source = &plain;
  EXPECT_EQ(lines(r), "2026-03-04, 05:06:07.123,UTC,...B,ETL,S,ETL Entry,,,sh,de,2,f,,n,quon (ovrelt),p\n");
  // A reset record writes its extra field from its text again.
  reset_timeline_record(r);
  EXPECT_EQ(r.render_extra, nullptr);
  EXPECT_EQ(r.extra_source, nullptr);
}

// The texts the audit found to break a timeline line: the session name, the
// file name and the notes, and the user's own -hostname and -username. A
// field that would still start a quoted field is quoted, its quotes doubled.
TEST(Timeline, HostileTextsStayOneFieldEach) {
  timeline_record r;
  event_record(r);
  r.sourcetype = "\"Evil, \"session\"\n";
  r.user = "u,1";
  r.host = "h\r\n";
  r.filename = "/t/a\nb,\"c\".etl";
  r.notes = "Orig filename: c:\\\"x\",\n\r\ny";
  r.extra = "data{\"01-s\":\"\tq\n\r\n\"}";
  EXPECT_EQ(lines(r),
            "2026-03-04, 05:06:07.123,UTC,...B,ETL,\"\"\"Evil  \"\"session\"\"[LF]\",ETL Entry,u 1,h[CRLF],"
            "sh,de,2,/t/a[LF]b \"c\".etl,,Orig filename: c:\\\"x\" [LFCR][LF][CRLF]y,quon (ovrelt),"
            "data{\"01-s\":\"\tq[LFCR][LF][CRLF]\"}\n");
  // The record's own texts are left as they were set.
  EXPECT_EQ(r.sourcetype, "\"Evil, \"session\"\n");
}

// Only the texts are cleaned and quoted: the date, the time, the MACB text
// and the version are the writer's own and stand as they are, even when a
// separator shares a byte with them.
TEST(Timeline, OwnFieldsStandAsTheyAre) {
  timeline_record r;
  event_record(r);
  r.separator.assign(1, '.');
  r.separator_char = 0;
  r.sub_separator_char = 0;
  r.filename = std::string("f.etl");
  EXPECT_EQ(lines(r), "2026-03-04. 05:06:07.123.UTC....B.ETL.S.ETL Entry...sh.de.2.\"f.etl\"..n.quon (ovrelt).x\n");
  // A plain line is the same whichever way it goes.
  event_record(r);
  EXPECT_EQ(lines(r), "2026-03-04, 05:06:07.123,UTC,...B,ETL,S,ETL Entry,,,sh,de,2,f,,n,quon (ovrelt),x\n");
  // The widest version, in a plain line and in a cleaned one.
  event_record(r);
  r.version = 4294967295u;
  EXPECT_EQ(lines(r), "2026-03-04, 05:06:07.123,UTC,...B,ETL,S,ETL Entry,,,sh,de,4294967295,f,,n,quon (ovrelt),x\n");
  r.desc = "d,e";
  EXPECT_EQ(lines(r), "2026-03-04, 05:06:07.123,UTC,...B,ETL,S,ETL Entry,,,sh,d e,4294967295,f,,n,quon (ovrelt),x\n");
}

TEST(Timeline, BindOptions) {
  report_options o;
  o.program_name = "quon";
  o.user_name = "U1";
  o.host_name = "H1";
  o.separator = ";";
  o.separator_char = ';';
  o.sub_separator_char = '_';
  o.no_whitespace = true;
  o.pair_datetime = true;
  o.base16 = true;
  o.time_format = "hh:mm:ss";
  qv::parse_datetime_format(o.datetime_format, "dd/mm/yyyy", o.time_format, true);
  timeline_record r;
  event_record(r);
  bind_timeline_options(r, o);
  EXPECT_EQ(r.format, "quon (ovrelt)");
  EXPECT_EQ(r.user, "U1");
  EXPECT_EQ(r.host, "H1");
  EXPECT_TRUE(r.base16);
  r.short_text = "a;b";
  EXPECT_EQ(lines(r), "04/03/2026 05:06:07;UTC;...B;ETL;S;ETL Entry;U1;H1;a_b;de;2;f;;n;"
                      "quon (ovrelt);x\n");
}
