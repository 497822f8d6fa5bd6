#include "trace/record_sink.h"

void append_file_head(std::string& out, const std::string& file_name) {
  out += "---------------------\nfile: ";
  out += file_name;
  out += '\n';
}
