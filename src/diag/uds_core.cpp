// UDS request/response rules shared by every uds command.
#include "diag/uds.h"

#include <cctype>
#include <cstdio>
#include <cstring>

namespace {

int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool is_separator(char c) { return c == ',' || c == ':' || c == '-' || c == '.' || isspace(c); }

}  // namespace

bool vxcli_uds_has_suppressible_subfunction(uint8_t sid) {
  switch (sid) {
    case 0x10: case 0x11: case 0x19: case 0x27: case 0x28: case 0x29: case 0x2C:
    case 0x31: case 0x3E: case 0x83: case 0x85: case 0x86: case 0x87:
      return true;
    default:
      return false;
  }
}

int vxcli_uds_prepare_suppression(uint8_t* request, size_t length, int suppress,
                                  int* out_suppressed, char* error_text, size_t error_size) {
  if (out_suppressed) *out_suppressed = 0;
  if (!request || length == 0) {
    snprintf(error_text, error_size, "UDS request is empty");
    return -1;
  }
  const uint8_t sid = request[0];
  if (!vxcli_uds_has_suppressible_subfunction(sid)) {
    if (suppress) {
      snprintf(error_text, error_size, "service 0x%02X has no suppressible subfunction byte", sid);
      return -1;
    }
    return 0;
  }
  if (suppress) {
    if (length < 2) {
      snprintf(error_text, error_size, "service 0x%02X has no suppressible subfunction byte", sid);
      return -1;
    }
    request[1] |= 0x80;
  }
  if (length >= 2 && (request[1] & 0x80) && out_suppressed) *out_suppressed = 1;
  return 0;
}

int vxcli_uds_parse_hex_words(int count, char** words, uint8_t* out, size_t max, char* error_text,
                              size_t error_size) {
  size_t n = 0;
  for (int w = 0; w < count; w++) {
    const char* p = words[w];
    if (!p || !*p) {
      snprintf(error_text, error_size, "empty hex byte word");
      return -1;
    }
    while (*p) {
      if (is_separator(*p)) {
        p++;
        continue;
      }
      if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X') && hex_value(p[2]) >= 0) p += 2;
      int hi = hex_value(p[0]);
      if (hi < 0) {
        snprintf(error_text, error_size, "invalid hex byte in '%s'", words[w]);
        return -1;
      }
      int lo = hex_value(p[1]);
      uint8_t value;
      if (lo >= 0) {
        value = static_cast<uint8_t>(hi << 4 | lo);
        p += 2;
      } else {
        // A lone digit is one byte only when it stands by itself ("3E 0").
        if (p[1] && !is_separator(p[1])) {
          snprintf(error_text, error_size, "invalid hex byte in '%s'", words[w]);
          return -1;
        }
        value = static_cast<uint8_t>(hi);
        p += 1;
      }
      if (n >= max) {
        snprintf(error_text, error_size, "request longer than %zu bytes", max);
        return -1;
      }
      out[n++] = value;
    }
  }
  return static_cast<int>(n);
}

std::string vxcli_uds_hex(const uint8_t* bytes, size_t length, const char* separator) {
  std::string s;
  s.reserve(length * 3);
  char b[4];
  for (size_t i = 0; i < length; i++) {
    if (i && separator) s += separator;
    snprintf(b, sizeof b, "%02X", bytes[i]);
    s += b;
  }
  return s;
}

bool vxcli_uds_is_pending(const uint8_t* r, uint32_t n, uint8_t sid) {
  return n >= 3 && r[0] == 0x7F && r[1] == sid && r[2] == 0x78;
}

bool vxcli_uds_is_negative(const uint8_t* r, uint32_t n) { return n >= 1 && r[0] == 0x7F; }

const char* vxcli_uds_nrc_name(uint8_t nrc) {
  switch (nrc) {
    case 0x10: return "generalReject";
    case 0x11: return "serviceNotSupported";
    case 0x12: return "subFunctionNotSupported";
    case 0x13: return "incorrectMessageLengthOrInvalidFormat";
    case 0x14: return "responseTooLong";
    case 0x21: return "busyRepeatRequest";
    case 0x22: return "conditionsNotCorrect";
    case 0x24: return "requestSequenceError";
    case 0x25: return "noResponseFromSubnetComponent";
    case 0x26: return "failurePreventsExecutionOfRequestedAction";
    case 0x31: return "requestOutOfRange";
    case 0x33: return "securityAccessDenied";
    case 0x35: return "invalidKey";
    case 0x36: return "exceededNumberOfAttempts";
    case 0x37: return "requiredTimeDelayNotExpired";
    case 0x70: return "uploadDownloadNotAccepted";
    case 0x71: return "transferDataSuspended";
    case 0x72: return "generalProgrammingFailure";
    case 0x73: return "wrongBlockSequenceCounter";
    case 0x78: return "requestCorrectlyReceivedResponsePending";
    case 0x7E: return "subFunctionNotSupportedInActiveSession";
    case 0x7F: return "serviceNotSupportedInActiveSession";
    case 0x81: return "rpmTooHigh";
    case 0x82: return "rpmTooLow";
    case 0x83: return "engineIsRunning";
    case 0x84: return "engineIsNotRunning";
    case 0x85: return "engineRunTimeTooLow";
    case 0x86: return "temperatureTooHigh";
    case 0x87: return "temperatureTooLow";
    case 0x88: return "vehicleSpeedTooHigh";
    case 0x89: return "vehicleSpeedTooLow";
    case 0x8A: return "throttlePedalTooHigh";
    case 0x8B: return "throttlePedalTooLow";
    case 0x8C: return "transmissionRangeNotInNeutral";
    case 0x8D: return "transmissionRangeNotInGear";
    case 0x8F: return "brakeSwitchesNotClosed";
    case 0x90: return "shifterLeverNotInPark";
    case 0x91: return "torqueConverterClutchLocked";
    case 0x92: return "voltageTooHigh";
    case 0x93: return "voltageTooLow";
    default: return "unknown";
  }
}

const char* vxcli_uds_service_name(uint8_t sid) {
  switch (sid) {
    case 0x10: return "DiagnosticSessionControl";
    case 0x11: return "ECUReset";
    case 0x14: return "ClearDiagnosticInformation";
    case 0x19: return "ReadDTCInformation";
    case 0x22: return "ReadDataByIdentifier";
    case 0x23: return "ReadMemoryByAddress";
    case 0x24: return "ReadScalingDataByIdentifier";
    case 0x27: return "SecurityAccess";
    case 0x28: return "CommunicationControl";
    case 0x29: return "Authentication";
    case 0x2A: return "ReadDataByPeriodicIdentifier";
    case 0x2C: return "DynamicallyDefineDataIdentifier";
    case 0x2E: return "WriteDataByIdentifier";
    case 0x2F: return "InputOutputControlByIdentifier";
    case 0x31: return "RoutineControl";
    case 0x34: return "RequestDownload";
    case 0x35: return "RequestUpload";
    case 0x36: return "TransferData";
    case 0x37: return "RequestTransferExit";
    case 0x38: return "RequestFileTransfer";
    case 0x3D: return "WriteMemoryByAddress";
    case 0x3E: return "TesterPresent";
    case 0x83: return "AccessTimingParameter";
    case 0x84: return "SecuredDataTransmission";
    case 0x85: return "ControlDTCSetting";
    case 0x86: return "ResponseOnEvent";
    case 0x87: return "LinkControl";
    default: return "unknown";
  }
}

void vxcli_uds_receive_final(const vxcli_uds_receiver* receiver, uint8_t service_id,
                             uint8_t* buffer, uint32_t capacity, int32_t timeout_ms,
                             uint64_t start_ms, vxcli_uds_exchange* result) {
  memset(result, 0, sizeof *result);
  uint32_t skipped = 0;
  for (;;) {
    uint32_t length = capacity;
    uint32_t status = receiver->receive(receiver->context, buffer, &length, timeout_ms);
    result->status = status;
    if (status != 0) return;  // length of the previous (pending) response stays
    // A late TesterPresent answer (a keepalive task shares the endpoint) is
    // not the answer to this request.
    if (service_id != 0x3E && length == 2 && buffer[0] == 0x7E) {
      const bool in_time =
          !receiver->now_ms || receiver->now_ms(receiver->context) - start_ms < VXCLI_UDS_PENDING_MAX_MS;
      if (++skipped <= VXCLI_UDS_PENDING_MAX_RECEPTIONS && in_time) continue;
      result->status = 0x80000;  // as a link timeout
      return;
    }
    result->length = length;
    result->receptions++;
    if (!vxcli_uds_is_pending(buffer, length, service_id)) return;
    result->pending++;
    if (result->receptions >= VXCLI_UDS_PENDING_MAX_RECEPTIONS) return;
    if (receiver->now_ms && receiver->now_ms(receiver->context) - start_ms >= VXCLI_UDS_PENDING_MAX_MS)
      return;
  }
}

std::string vxcli_uds_dtc_status_desc(uint8_t status) {
  static const char* const kNames[8] = {"testFailed",
                                        "testFailedThisCycle",
                                        "pending",
                                        "confirmed",
                                        "notCompletedSinceClear",
                                        "failedSinceClear",
                                        "notCompletedThisCycle",
                                        "warningIndicator"};
  if (status == 0) return "none";
  std::string s;
  for (int bit = 0; bit < 8; bit++) {
    if (!(status & (1u << bit))) continue;
    if (!s.empty()) s += "|";
    s += kNames[bit];
  }
  return s;
}

std::string vxcli_uds_dtc_name(uint32_t dtc) {
  static const char kLetters[4] = {'P', 'C', 'B', 'U'};
  char b[16];
  snprintf(b, sizeof b, "%c%X%03X-%02X", kLetters[(dtc >> 22) & 3], (dtc >> 20) & 3,
           (dtc >> 8) & 0xFFF, dtc & 0xFF);
  return b;
}

int vxcli_uds_parse_dtc_list(const uint8_t* r, uint32_t n, std::vector<vxcli_uds_dtc_record>* out,
                             uint8_t* availability_mask) {
  out->clear();
  if (n < 3 || r[0] != 0x59) return -1;
  if (availability_mask) *availability_mask = r[2];
  if ((n - 3) % 4 != 0) return -1;
  for (uint32_t i = 3; i + 4 <= n; i += 4)
    out->push_back({static_cast<uint32_t>(r[i] << 16 | r[i + 1] << 8 | r[i + 2]), r[i + 3]});
  return 0;
}

int vxcli_uds_check_alf(uint8_t alf, char* error_text, size_t error_size) {
  int size_bytes = alf >> 4, address_bytes = alf & 0x0F;
  if (size_bytes < 1 || size_bytes > 4 || address_bytes < 1 || address_bytes > 4) {
    snprintf(error_text, error_size, "invalid --alf=0x%02X: addr/size nibbles must be 1..4", alf);
    return -1;
  }
  return 0;
}

int vxcli_uds_build_request_download(uint8_t alf, uint32_t address, uint32_t size,
                                     std::vector<uint8_t>* out, char* error_text,
                                     size_t error_size) {
  if (vxcli_uds_check_alf(alf, error_text, error_size) != 0) return -1;
  const int size_bytes = alf >> 4, address_bytes = alf & 0x0F;
  if (address_bytes < 4 && (address >> (8 * address_bytes)) != 0) {
    snprintf(error_text, error_size, "address 0x%X does not fit in %d address byte(s) of --alf=0x%02X",
             address, address_bytes, alf);
    return -1;
  }
  if (size_bytes < 4 && (size >> (8 * size_bytes)) != 0) {
    snprintf(error_text, error_size, "size %u does not fit in %d size byte(s) of --alf=0x%02X",
             size, size_bytes, alf);
    return -1;
  }
  out->assign({0x34, 0x00, alf});
  for (int i = address_bytes - 1; i >= 0; i--) out->push_back(static_cast<uint8_t>(address >> (8 * i)));
  for (int i = size_bytes - 1; i >= 0; i--) out->push_back(static_cast<uint8_t>(size >> (8 * i)));
  return 0;
}

int vxcli_uds_download_chunk(const uint8_t* r, uint32_t n, uint32_t maxblock, uint32_t* chunk,
                             char* error_text, size_t error_size) {
  uint64_t block = 0;
  bool known = false;
  if (n >= 2) {
    uint32_t width = r[1] >> 4;
    if (width >= 1 && width <= 4 && n >= 2 + width) {
      for (uint32_t i = 0; i < width; i++) block = block << 8 | r[2 + i];
      known = true;
    }
  }
  if (maxblock > 0) {
    block = maxblock;
    known = true;
  }
  if (!known) {
    *chunk = 4093;
    return 0;
  }
  if (block < 3) {
    snprintf(error_text, error_size, "ECU maxBlock too small (%llu; expected maxBlock > 2)",
             static_cast<unsigned long long>(block));
    return -1;
  }
  // 36 <counter> <data> must still fit one transport payload (4095 bytes).
  uint64_t data = block - 2;
  *chunk = static_cast<uint32_t>(data > 4093 ? 4093 : data);
  return 0;
}

uint8_t vxcli_uds_next_block_counter(uint8_t counter) {
  return counter == 0xFF ? 0x01 : static_cast<uint8_t>(counter + 1);
}
