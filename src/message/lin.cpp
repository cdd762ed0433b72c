// LIN option parsers, names, PID/checksum arithmetic and outcome classification.
#include "message/lin.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

namespace {

bool empty(const char* text) { return !text || !*text; }
bool is(const char* text, const char* word) { return strcasecmp(text, word) == 0; }

}  // namespace

int vxcli_parse_lin_bitrate(const char* text, uint16_t* out) {
  if (!out) return -1;
  if (empty(text)) {
    *out = 19200;
    return 0;
  }
  if (is(text, "auto")) {
    *out = 0;
    return 0;
  }
  char buf[64];
  size_t n = 0;
  for (const char* p = text; *p && n < sizeof buf - 1; p++) {
    unsigned char c = static_cast<unsigned char>(*p);
    if (c == ',' || c == '_' || isspace(c)) continue;
    buf[n++] = static_cast<char>(tolower(c));
  }
  buf[n] = 0;
  double multiplier = 1;
  if (n >= 4 && strcmp(buf + n - 4, "kbps") == 0) {
    multiplier = 1000;
    buf[n -= 4] = 0;
  } else if (n >= 3 && strcmp(buf + n - 3, "bps") == 0) {
    buf[n -= 3] = 0;
  } else if (n >= 1 && buf[n - 1] == 'k') {
    multiplier = 1000;
    buf[--n] = 0;
  }
  if (n == 0) return -1;
  char* end = nullptr;
  double value = strtod(buf, &end);
  if (!end || *end || !(value > 0) || !std::isfinite(value)) return -1;
  double bps = value * multiplier;
  if (bps < 1000 || bps > 20000) return -1;
  double whole = std::round(bps);
  if (std::fabs(bps - whole) > 1e-6) return -1;
  *out = static_cast<uint16_t>(whole);
  return 0;
}

int vxcli_parse_lin_mode(const char* text, uint32_t default_mode, uint32_t* out) {
  if (!out) return -1;
  uint32_t mode;
  if (empty(text)) mode = default_mode;
  else if (is(text, "master")) mode = VXCLI_LIN_MODE_MASTER;
  else if (is(text, "slave")) mode = VXCLI_LIN_MODE_SLAVE;
  else if (is(text, "listen-only")) mode = VXCLI_LIN_MODE_LISTEN;
  else if (is(text, "internal-loopback") || is(text, "loopback")) mode = VXCLI_LIN_MODE_LOOPBACK;
  else if (is(text, "off")) mode = VXCLI_LIN_MODE_OFF;
  else return -1;
  *out = mode;
  return 0;
}

int vxcli_parse_lin_voltage(const char* text, uint32_t mode, uint32_t* out) {
  if (!out) return -1;
  if (empty(text) || is(text, "auto")) *out = mode == VXCLI_LIN_MODE_MASTER ? 1 : 0;
  else if (is(text, "on")) *out = 1;
  else if (is(text, "off")) *out = 0;
  else return -1;
  return 0;
}

int vxcli_parse_lin_tres(const char* text, uint32_t mode, uint32_t* out) {
  if (!out) return -1;
  // 65535 ohm stands for "no pull-up" in the library's termination parameter.
  if (empty(text) || is(text, "auto")) *out = mode == VXCLI_LIN_MODE_MASTER ? 1000 : 65535;
  else if (is(text, "1k")) *out = 1000;
  else if (is(text, "off")) *out = 65535;
  else return -1;
  return 0;
}

int vxcli_parse_lin_version(const char* text, uint8_t* out) {
  if (!out) return -1;
  if (empty(text) || is(text, "2.2") || is(text, "22")) *out = 0x22;
  else if (is(text, "2.1") || is(text, "21")) *out = 0x21;
  else if (is(text, "2.0") || is(text, "20")) *out = 0x20;
  else if (is(text, "1.3") || is(text, "13")) *out = 0x13;
  else return -1;
  return 0;
}

int vxcli_parse_lin_checksum(const char* text, uint32_t frame_id, uint8_t* out) {
  if (!out) return -1;
  // Diagnostic frames 0x3C/0x3D always use the classic checksum.
  if (empty(text) || is(text, "auto"))
    *out = (frame_id == 0x3C || frame_id == 0x3D) ? VXCLI_LIN_CHECKSUM_CLASSIC
                                                  : VXCLI_LIN_CHECKSUM_ENHANCED;
  else if (is(text, "classic") || is(text, "normal")) *out = VXCLI_LIN_CHECKSUM_CLASSIC;
  else if (is(text, "enhanced")) *out = VXCLI_LIN_CHECKSUM_ENHANCED;
  else return -1;
  return 0;
}

int vxcli_parse_lin_operation(const char* text, uint32_t* out) {
  if (!out) return -1;
  if (empty(text) || is(text, "master-write")) *out = VXCLI_LIN_MASTER_WRITE;
  else if (is(text, "master-read")) *out = VXCLI_LIN_MASTER_READ;
  else if (is(text, "sync-break")) *out = VXCLI_LIN_SYNC_BREAK;
  else return -1;
  return 0;
}

const char* vxcli_lin_mode_name(uint32_t mode) {
  switch (mode) {
    case VXCLI_LIN_MODE_OFF: return "off";
    case VXCLI_LIN_MODE_SLAVE: return "slave";
    case VXCLI_LIN_MODE_LOOPBACK: return "internal-loopback";
    case VXCLI_LIN_MODE_LISTEN: return "listen-only";
    case VXCLI_LIN_MODE_MASTER: return "master";
    default: return "unknown";
  }
}

const char* vxcli_lin_version_name(uint32_t version) {
  switch (version) {
    case 0x13: return "1.3";
    case 0x20: return "2.0";
    case 0x21: return "2.1";
    case 0x22: return "2.2";
    default: return "unknown";
  }
}

const char* vxcli_lin_checksum_name(uint32_t checksum_type) {
  return checksum_type == VXCLI_LIN_CHECKSUM_ENHANCED ? "enhanced" : "classic";
}

const char* vxcli_lin_operation_name(uint32_t operation) {
  if (operation == VXCLI_LIN_MASTER_READ) return "master-read";
  if (operation == VXCLI_LIN_SYNC_BREAK) return "sync-break";
  return "master-write";
}

const char* vxcli_lin_outcome_name(uint32_t outcome) {
  static const char* const kNames[] = {"none",         "ok",          "write-error",
                                       "read-error",   "host-timeout", "no-response",
                                       "unexpected-response", "protocol-error"};
  return outcome < sizeof kNames / sizeof kNames[0] ? kNames[outcome] : "none";
}

uint8_t vxcli_lin_pid(uint8_t id) {
  auto bit = [id](int n) { return (id >> n) & 1; };
  int p0 = bit(0) ^ bit(1) ^ bit(2) ^ bit(4);
  int p1 = !(bit(1) ^ bit(3) ^ bit(4) ^ bit(5));
  return static_cast<uint8_t>((id & 0x3F) | p0 << 6 | p1 << 7);
}

uint8_t vxcli_lin_checksum(const uint8_t* data, uint32_t length, uint8_t id,
                           uint32_t checksum_type) {
  unsigned sum = checksum_type == VXCLI_LIN_CHECKSUM_ENHANCED ? vxcli_lin_pid(id) : 0;
  for (uint32_t i = 0; data && i < length; i++) {
    sum += data[i];
    if (sum >= 256) sum -= 255;
  }
  return static_cast<uint8_t>(~sum & 0xFF);
}

uint32_t vxcli_lin_classify(uint32_t operation, uint32_t requested_length,
                            uint32_t received_length, uint8_t status) {
  bool has_data = received_length > 0;
  if (operation == VXCLI_LIN_MASTER_READ) {
    if (has_data && status <= 1 && received_length == requested_length)
      return VXCLI_LIN_OUTCOME_OK;
    if (has_data && !(status & VXCLI_LIN_STATUS_NO_RESPONSE))
      return VXCLI_LIN_OUTCOME_PROTOCOL_ERROR;
    return VXCLI_LIN_OUTCOME_NO_RESPONSE;
  }
  if (has_data) return VXCLI_LIN_OUTCOME_UNEXPECTED;
  if (status & VXCLI_LIN_STATUS_HEADER_ONLY) return VXCLI_LIN_OUTCOME_OK;
  return VXCLI_LIN_OUTCOME_PROTOCOL_ERROR;
}
