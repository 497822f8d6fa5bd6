// JSON Lines output (-jsonl): one JSON object per event row, one line each,
// for Timesketch, Elastic/OpenSearch, Splunk and jq. The rows are those the
// delimited output prints (placeholders of damaged stretches included), in
// the same order; the stream holds nothing else.
//
// A line, keys in this order (see README.md for the full table):
//   message, datetime, timestamp, timestamp_desc   Timesketch's four keys;
//                         an event whose time isn't a valid date has null in
//                         datetime and timestamp, and its raw stamp in time_raw
//   provider_guid ... damaged, guessed            the event header
//   trace_file ... trace_events_lost              the trace, the same on every
//                                                 line of a file
//   fields                the payload, keyed by decoded names in payload order
//
// Values. Texts are valid UTF-8 whatever the trace holds: quotes, backslashes
// and control characters are escaped, bytes that aren't UTF-8 and UTF-16
// surrogates without their other half become U+FFFD. Numbers are JSON
// numbers, except integers beyond 2^53 (what a double holds exactly), which
// are decimal strings. A payload time gives two keys: the name with the
// ISO 8601 text (null when the value isn't a valid date) and name + "_raw"
// with the value as stored. A name met twice in one event gets "_2", "_3"...
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "trace/etl_record.h"
#include "trace/record_sink.h"

// The largest integer a JSON number carries exactly through a double.
constexpr uint64_t kJsonExactLimit = uint64_t{1} << 53;

// Appends `n` bytes as the content of a JSON string (no quotes around it).
void append_json_text(std::string& out, const char* p, size_t n);
inline void append_json_text(std::string& out, const std::string& s) {
  append_json_text(out, s.data(), s.size());
}

// An unsigned or signed integer: a number up to 2^53 in size, else a
// decimal string.
void append_json_uint(std::string& out, uint64_t v);
void append_json_int(std::string& out, int64_t v);

// "YYYY-MM-DDThh:mm:ss.fffffffffZ" of FILETIME ticks that make a valid date
// (is_valid_filetime); nothing otherwise.
void append_iso_time(std::string& out, uint64_t ticks);

// The names of a fields object: a name already used in the event gets "_2",
// "_3"... (the first free one). Keys are compared as written, escaped.
// Storage is kept from event to event.
class json_key_set {
 public:
  void clear();
  // Makes `key` unique among the keys of the event (appending a suffix when
  // needed) and records it.
  void make_unique(std::string& key);

 private:
  struct entry {
    uint32_t offset = 0;      // into text_
    uint32_t length = 0;
    uint32_t next_suffix = 2;  // the suffix to try first for a repeat
  };
  bool find(const char* p, size_t n, uint64_t hash, size_t& slot) const;
  void add(const std::string& key, size_t slot);
  void grow();

  std::string text_;
  std::vector<entry> entries_;
  std::vector<uint32_t> slots_;      // entry index + 1; 0 empty
  std::vector<uint32_t> slot_mark_;  // a slot is live when its mark is mark_
  uint32_t mark_ = 1;
};

// Scratch storage of one writer, kept from line to line.
struct json_scratch {
  std::string fields;
  std::string message;
  std::string key;
  json_key_set keys;
};

// The trace keys of a file (",\"trace_file\":...", ready to be put in every
// line), from what the walk says when it opens the file.
void compose_trace_keys(std::string& out, const file_opening& file);

// Appends the line of one record: the object and a line end.
void append_json_event(std::string& out, const etl_record& record, const std::string& trace_keys,
                       json_scratch& scratch);

// The sink of -jsonl: one line per record, nothing else.
class json_sink : public record_sink {
 public:
  explicit json_sink(std::ostream& out) : out_(out) {}
  void file_opened(const file_opening& file) override;
  void take_records(record_list& records) override;
  void file_ended() override {}

 private:
  std::ostream& out_;
  std::string trace_keys_;
};
