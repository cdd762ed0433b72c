// ECU simulator rules: parsing and matching, kept apart from the bus so they
// can be checked without a device.
#include "diag/ecu_sim.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool is_separator(char c) { return c == '.' || c == '-' || c == '_' || c == ':' || c == ','; }

// Hex pairs and XX wildcards; returns false with a reason.
bool parse_bytes(const std::string& word, std::vector<vxcli_ecu_byte>* out, const char** why) {
  out->clear();
  size_t i = 0;
  while (i < word.size()) {
    if (is_separator(word[i])) {
      i++;
      continue;
    }
    if (i + 1 >= word.size()) {
      *why = "odd number of hex digits";
      return false;
    }
    char a = word[i], b = word[i + 1];
    if ((a == 'X' || a == 'x') && (b == 'X' || b == 'x')) {
      out->push_back({0, 1});
    } else if (hex_digit(a) >= 0 && hex_digit(b) >= 0) {
      out->push_back({static_cast<uint8_t>(hex_digit(a) << 4 | hex_digit(b)), 0});
    } else {
      *why = "expected hex bytes or XX";
      return false;
    }
    i += 2;
  }
  return true;
}

bool parse_pattern(const std::string& word, vxcli_ecu_rule* rule, const char** why) {
  std::string body = word;
  rule->tail = false;
  if (!body.empty() && body.back() == '*') {
    rule->tail = true;
    body.pop_back();
  }
  if (body.find('*') != std::string::npos) {
    *why = "'*' may only end a request pattern";
    return false;
  }
  if (!parse_bytes(body, &rule->pattern, why)) return false;
  if (rule->pattern.empty() && !rule->tail) {
    *why = "empty request pattern";
    return false;
  }
  return true;
}

bool parse_response(const std::string& word, vxcli_ecu_rule* rule, const char** why) {
  rule->responses.clear();
  if (word == "-") return true;
  size_t start = 0;
  for (;;) {
    size_t slash = word.find('/', start);
    std::string part = word.substr(start, slash == std::string::npos ? std::string::npos : slash - start);
    vxcli_ecu_response response{{}, 1};
    size_t open = part.find('(');
    if (open != std::string::npos) {
      if (part.back() != ')' || open + 2 >= part.size()) {
        *why = "repeat count must be written (n) at the end of a response";
        return false;
      }
      std::string count = part.substr(open + 1, part.size() - open - 2);
      char* end = nullptr;
      long n = strtol(count.c_str(), &end, 10);
      if (count.empty() || *end || n < 1 || n > 1000) {
        *why = "repeat count must be 1..1000";
        return false;
      }
      response.repeat = static_cast<uint32_t>(n);
      part.resize(open);
    }
    if (!parse_bytes(part, &response.bytes, why)) return false;
    if (response.bytes.empty()) {
      *why = "empty response (use - for no response)";
      return false;
    }
    rule->responses.push_back(std::move(response));
    if (slash == std::string::npos) break;
    start = slash + 1;
  }
  return true;
}

}  // namespace

int vxcli_ecu_sim_parse_rules(const std::string& text, std::vector<vxcli_ecu_rule>* out,
                              size_t* ignored, char* error_text, size_t error_size) {
  out->clear();
  if (ignored) *ignored = 0;
  size_t pos = 0, number = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(pos, end - pos);
    pos = end + 1;
    number++;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.size() > VXCLI_ECU_SIM_MAX_LINE) {
      snprintf(error_text, error_size, "line %zu: longer than %zu characters", number,
               VXCLI_ECU_SIM_MAX_LINE);
      return -1;
    }
    size_t first = line.find_first_not_of(" \t");
    if (first == std::string::npos || line[first] == '#') continue;
    std::vector<std::string> words;
    size_t i = first;
    while (i < line.size()) {
      size_t j = line.find_first_of(" \t", i);
      if (j == std::string::npos) j = line.size();
      words.push_back(line.substr(i, j - i));
      i = line.find_first_not_of(" \t", j);
      if (i == std::string::npos) break;
    }
    if (words.size() < 2 || (words.size() > 2 && words[2][0] != '#')) {
      snprintf(error_text, error_size,
               "line %zu: expected '<request-pattern> <response>' (got %zu words)", number,
               words.size());
      return -1;
    }
    if (words[0].size() > VXCLI_ECU_SIM_MAX_WORD || words[1].size() > VXCLI_ECU_SIM_MAX_WORD) {
      snprintf(error_text, error_size, "line %zu: a word is longer than %zu characters", number,
               VXCLI_ECU_SIM_MAX_WORD);
      return -1;
    }
    if (out->size() >= VXCLI_ECU_SIM_MAX_RULES) {
      if (ignored) (*ignored)++;
      continue;
    }
    vxcli_ecu_rule rule;
    const char* why = nullptr;
    if (!parse_pattern(words[0], &rule, &why)) {
      snprintf(error_text, error_size, "line %zu: request '%s': %s", number, words[0].c_str(), why);
      return -1;
    }
    if (!parse_response(words[1], &rule, &why)) {
      snprintf(error_text, error_size, "line %zu: response '%s': %s", number, words[1].c_str(), why);
      return -1;
    }
    rule.request_text = words[0];
    rule.response_text = words[1];
    out->push_back(std::move(rule));
  }
  return 0;
}

const vxcli_ecu_rule* vxcli_ecu_sim_match(const std::vector<vxcli_ecu_rule>& rules,
                                          const uint8_t* request, uint32_t length) {
  for (const auto& rule : rules) {
    size_t n = rule.pattern.size();
    if (rule.tail ? length < n : length != n) continue;
    bool ok = true;
    for (size_t i = 0; i < n && ok; i++)
      ok = rule.pattern[i].wildcard || rule.pattern[i].value == request[i];
    if (ok) return &rule;
  }
  return nullptr;
}

std::vector<std::vector<uint8_t>> vxcli_ecu_sim_responses(const vxcli_ecu_rule& rule,
                                                           const uint8_t* request,
                                                           uint32_t length) {
  std::vector<std::vector<uint8_t>> out;
  for (const auto& r : rule.responses) {
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i < r.bytes.size(); i++) {
      if (r.bytes[i].wildcard) bytes.push_back(i < length ? request[i] : 0x00);
      else bytes.push_back(r.bytes[i].value);
    }
    for (uint32_t k = 0; k < r.repeat; k++) out.push_back(bytes);
  }
  return out;
}
