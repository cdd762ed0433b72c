// Rules of the ECU simulator: "<request-pattern> <response>" per line.
//   pattern   hex bytes ("22F190", "22.F1.90"); "XX" matches any one byte; a
//             trailing "*" matches whatever follows (also nothing); "*" alone
//             matches every request.
//   response  hex bytes; "XX" copies the request byte at the same position;
//             several responses are separated by "/", each may end in "(n)" to
//             be sent n times ("7F3178(3)/7101FF00"); "-" sends nothing.
// The first matching rule answers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

constexpr size_t VXCLI_ECU_SIM_MAX_RULES = 64;
constexpr size_t VXCLI_ECU_SIM_MAX_LINE = 1023;
constexpr size_t VXCLI_ECU_SIM_MAX_WORD = 255;

struct vxcli_ecu_byte {
  uint8_t value;
  uint8_t wildcard;  // pattern: any byte; response: copy from the request
};

struct vxcli_ecu_response {
  std::vector<vxcli_ecu_byte> bytes;
  uint32_t repeat;
};

struct vxcli_ecu_rule {
  std::vector<vxcli_ecu_byte> pattern;
  bool tail;  // "*" after the pattern (or alone)
  std::vector<vxcli_ecu_response> responses;  // empty: stay silent
  std::string request_text;
  std::string response_text;
};

// Reads rule lines; blank and "#" lines are skipped, at most 64 rules are kept
// (*ignored counts the rest). 0 or -1 with "line N: ..." in the message.
int vxcli_ecu_sim_parse_rules(const std::string& text, std::vector<vxcli_ecu_rule>* out,
                              size_t* ignored, char* error_text, size_t error_size);
const vxcli_ecu_rule* vxcli_ecu_sim_match(const std::vector<vxcli_ecu_rule>& rules,
                                          const uint8_t* request, uint32_t length);
// The payloads to send, in order, with repetitions expanded.
std::vector<std::vector<uint8_t>> vxcli_ecu_sim_responses(const vxcli_ecu_rule& rule,
                                                           const uint8_t* request,
                                                           uint32_t length);
