#include "database/dbc_text.h"

#include <cstring>

#include "json/json.h"

namespace {

// Length of the valid UTF-8 sequence at text[i], or 0.
size_t utf8_sequence(const unsigned char* text, size_t length, size_t i) {
  unsigned char c = text[i];
  size_t n;
  uint32_t min;
  if (c < 0x80) return 1;
  if ((c & 0xE0) == 0xC0) { n = 2; min = 0x80; }
  else if ((c & 0xF0) == 0xE0) { n = 3; min = 0x800; }
  else if ((c & 0xF8) == 0xF0) { n = 4; min = 0x10000; }
  else return 0;
  if (i + n > length) return 0;
  uint32_t code = c & (0x7F >> n);
  for (size_t k = 1; k < n; k++) {
    if ((text[i + k] & 0xC0) != 0x80) return 0;
    code = (code << 6) | (text[i + k] & 0x3F);
  }
  if (code < min || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return 0;
  return n;
}

}  // namespace

size_t vxcli_database_utf8_sequence(const char* text, size_t length) {
  if (!length) return 0;
  return utf8_sequence(reinterpret_cast<const unsigned char*>(text), length, 0);
}

std::string vxcli_database_utf8(const char* text, size_t length) {
  const unsigned char* bytes = reinterpret_cast<const unsigned char*>(text);
  std::string out;
  out.reserve(length);
  for (size_t i = 0; i < length;) {
    size_t n = utf8_sequence(bytes, length, i);
    if (n) {
      out.append(text + i, n);
      i += n;
    } else {
      out += char(0xC0 | (bytes[i] >> 6));
      out += char(0x80 | (bytes[i] & 0x3F));
      i++;
    }
  }
  return out;
}

int vxcli_database_json_string(vxcli_json_writer* writer, const std::string& text) {
  return vxcli_json_writer_string(writer, vxcli_database_utf8(text).c_str());
}

std::string vxcli_database_csv_field(const std::string& text) {
  std::string shown = vxcli_database_utf8(text);
  if (shown.find_first_of(",\"\r\n") == std::string::npos) return shown;
  std::string out = "\"";
  for (char c : shown) {
    if (c == '"') out += '"';
    out += c;
  }
  out += '"';
  return out;
}

const char* vxcli_database_positional(int count, char** words, int nth) {
  for (int i = 0; i < count; i++) {
    const char* word = words[i];
    if (strncmp(word, "--", 2) == 0) {
      if (!strchr(word, '=') && strcmp(word, "--all") != 0) i++;  // skip its value
      continue;
    }
    if (nth-- == 0) return word;
  }
  return nullptr;
}
