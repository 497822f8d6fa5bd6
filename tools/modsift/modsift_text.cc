#include "tools/modsift/modsift_text.h"

#include <cstdio>

#include "templates/manifest_layout.h"

namespace modsift {


std::string utf16_at(qv::byte_span s, size_t off, size_t max_units) {
  std::string out;
  if (off > s.size) return out;
  size_t units = (s.size - off) / 2;
  if (units > max_units) units = max_units;
  for (size_t i = 0; i < units; ++i) {
    uint32_t u = qv::rd_u16(s, off + 2 * i);
    if (u == 0) break;
    if (u >= 0xD800 && u <= 0xDBFF && i + 1 < units) {
      uint32_t lo = qv::rd_u16(s, off + 2 * (i + 1));
      if (lo >= 0xDC00 && lo <= 0xDFFF) {
        append_utf8(out, 0x10000 + ((u - 0xD800) << 10) + (lo - 0xDC00));
        ++i;
        continue;
      }
    }
    append_utf8(out, u);  // a lone surrogate turns into U+FFFD here
  }
  return out;
}

std::string guid_text(const qv::guid16& g) {
  char buf[40];
  std::snprintf(buf, sizeof buf, "%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x",
                static_cast<unsigned>(qv::rd_u32(g.data(), 16, 0)),
                static_cast<unsigned>(qv::rd_u16(g.data(), 16, 4)),
                static_cast<unsigned>(qv::rd_u16(g.data(), 16, 6)), g[8], g[9], g[10], g[11],
                g[12], g[13], g[14], g[15]);
  return buf;
}

void append_hex(std::string& out, const uint8_t* p, size_t n) {
  static const char digits[] = "0123456789abcdef";
  out.reserve(out.size() + 2 * n);
  for (size_t i = 0; i < n; ++i) {
    out.push_back(digits[p[i] >> 4]);
    out.push_back(digits[p[i] & 15]);
  }
}

namespace {

std::string clean_name(const std::string& text, const char* breakers) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    unsigned char u = static_cast<unsigned char>(c);
    bool bad = u < 0x20 || u == 0x7F;
    for (const char* b = breakers; *b && !bad; ++b) bad = (c == *b);
    out.push_back(bad ? '_' : c);
  }
  size_t a = out.find_first_not_of(' ');
  if (a == std::string::npos) return std::string();
  size_t b = out.find_last_not_of(' ');
  return out.substr(a, b - a + 1);
}

}  // namespace

std::string clean_field_name(const std::string& text) { return layout_name(text); }

std::string clean_provider_name(const std::string& text) { return clean_name(text, ",!|;"); }

std::string clean_comment(const std::string& text) {
  std::string out = text;
  for (char& c : out) {
    unsigned char u = static_cast<unsigned char>(c);
    if (u < 0x20 || u == 0x7F) c = '?';
  }
  return out;
}

}  // namespace modsift
