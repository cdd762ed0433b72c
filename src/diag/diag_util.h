// Small helpers shared by the diag command files.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

// "0x7E0", "7E0" (hex letters make it hex) or decimal; false on anything else.
bool vxcli_diag_parse_u32(const char* text, uint32_t* out);
// Words that are not options. Options are "--name=value", a flag from `flags`,
// or "--name value" (the value word is skipped too).
std::vector<char*> vxcli_diag_positionals(int count, char** words,
                                          std::initializer_list<const char*> flags);
// Reads an integer option within [low, high]; absent leaves *out unchanged.
// 0, or 1 after reporting "--name ... invalid".
int vxcli_diag_int_option(int count, char** words, const char* name, int64_t low, int64_t high,
                          int64_t* out);
// The same with the message returned instead of reported (daemon answers).
int vxcli_diag_int_option_text(int count, char** words, const char* name, int64_t low,
                               int64_t high, int64_t* out, std::string* error);
std::string vxcli_diag_hex_compact(const uint8_t* bytes, size_t length);
// Text escaped for a JSON string body (without quotes).
std::string vxcli_diag_json_escape(const char* text);
