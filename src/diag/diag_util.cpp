#include "diag/diag_util.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cli/output.h"

bool vxcli_diag_parse_u32(const char* text, uint32_t* out) {
  if (!text || !*text) return false;
  int base = 10;
  const char* digits = text;
  if (text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    base = 16;
    digits = text + 2;
  } else {
    for (const char* p = text; *p; p++)
      if (isxdigit(static_cast<unsigned char>(*p)) && !isdigit(static_cast<unsigned char>(*p))) base = 16;
  }
  if (!*digits || !isxdigit(static_cast<unsigned char>(*digits))) return false;
  errno = 0;
  char* end = nullptr;
  unsigned long long v = strtoull(digits, &end, base);
  if (errno || *end || v > 0xFFFFFFFFull) return false;
  *out = static_cast<uint32_t>(v);
  return true;
}

std::vector<char*> vxcli_diag_positionals(int count, char** words,
                                          std::initializer_list<const char*> flags) {
  std::vector<char*> out;
  for (int i = 0; i < count; i++) {
    const char* w = words[i];
    if (strncmp(w, "--", 2) != 0 || w[2] == 0) {
      out.push_back(words[i]);
      continue;
    }
    if (strchr(w, '=')) continue;
    bool flag = false;
    for (const char* f : flags)
      if (strcmp(w + 2, f) == 0) flag = true;
    if (!flag) i++;  // "--name value"
  }
  return out;
}

int vxcli_diag_int_option_text(int count, char** words, const char* name, int64_t low,
                               int64_t high, int64_t* out, std::string* error) {
  const char* text = vxcli_get_option(count, words, name);
  char message[200];
  if (!text) {
    if (vxcli_has_flag(count, words, name)) {
      snprintf(message, sizeof message, "--%s requires a value", name);
      *error = message;
      return 1;
    }
    return 0;
  }
  uint32_t v = 0;
  bool negative = text[0] == '-';
  if (negative || !vxcli_diag_parse_u32(text, &v) || v < low || v > high) {
    snprintf(message, sizeof message, "--%s=%s is invalid (expected %lld..%lld)", name, text,
             static_cast<long long>(low), static_cast<long long>(high));
    *error = message;
    return 1;
  }
  *out = v;
  return 0;
}

int vxcli_diag_int_option(int count, char** words, const char* name, int64_t low, int64_t high,
                          int64_t* out) {
  std::string error;
  if (vxcli_diag_int_option_text(count, words, name, low, high, out, &error) == 0) return 0;
  vxcli_print_error("%s", error.c_str());
  return 1;
}

std::string vxcli_diag_hex_compact(const uint8_t* bytes, size_t length) {
  static const char kDigits[] = "0123456789ABCDEF";
  std::string s;
  s.reserve(length * 2);
  for (size_t i = 0; i < length; i++) {
    s += kDigits[bytes[i] >> 4];
    s += kDigits[bytes[i] & 0x0F];
  }
  return s;
}

std::string vxcli_diag_json_escape(const char* text) {
  size_t n = strlen(text ? text : "");
  std::string out(n * 6 + 1, '\0');
  size_t written = vxcli_json_escape_to(text, out.data(), out.size());
  out.resize(written);
  return out;
}
