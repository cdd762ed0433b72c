// Small text helpers shared by the database commands: display-safe UTF-8,
// JSON and CSV fields, and positional words among options.
#pragma once

#include <cstddef>
#include <string>

struct vxcli_json_writer;

// DBC and registry texts are kept byte-exact; output turns bytes that are not
// valid UTF-8 (Latin-1/cp1252 files) into their Latin-1 characters.
std::string vxcli_database_utf8(const char* text, size_t length);
inline std::string vxcli_database_utf8(const std::string& text) {
  return vxcli_database_utf8(text.data(), text.size());
}
// Length of the valid UTF-8 sequence that text starts with, 0 when invalid.
size_t vxcli_database_utf8_sequence(const char* text, size_t length);
// Appends a JSON string (quotes included) of the display form of text.
int vxcli_database_json_string(vxcli_json_writer* writer, const std::string& text);
// One CSV field, quoted only when it holds a comma, quote or line break.
std::string vxcli_database_csv_field(const std::string& text);
// The nth (0-based) word that is not an option and not the value of a
// "--name value" option; "--all" is the only bare flag these commands know.
const char* vxcli_database_positional(int count, char** words, int nth);
