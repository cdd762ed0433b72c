// UDS client building blocks that need no device: request building,
// response classification, the response-pending loop, DTC texts and the
// download bookkeeping.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

constexpr uint32_t VXCLI_UDS_BUFFER = 4096;
constexpr uint32_t VXCLI_UDS_PENDING_MAX_RECEPTIONS = 30;
constexpr uint32_t VXCLI_UDS_PENDING_MAX_MS = 30000;

// Sets bit 7 of the sub-function when asked. *out_suppressed tells whether the
// request, as it now stands, suppresses the positive response. 0 or -1.
int vxcli_uds_prepare_suppression(uint8_t* request, size_t length, int suppress,
                                  int* out_suppressed, char* error_text, size_t error_size);
bool vxcli_uds_has_suppressible_subfunction(uint8_t service_id);

// Hex payload from words: each word may hold several bytes ("22F190", "22 F1 90",
// "0x22", "22:F1:90"). Number of bytes, or -1 with a message for a word that is
// not hex or when more than `max` bytes result.
int vxcli_uds_parse_hex_words(int count, char** words, uint8_t* out, size_t max, char* error_text,
                              size_t error_size);
// Upper-case bytes separated by blanks ("22 F1 90").
std::string vxcli_uds_hex(const uint8_t* bytes, size_t length, const char* separator = " ");

// 7F <sid> 78: the ECU asks for more time.
bool vxcli_uds_is_pending(const uint8_t* response, uint32_t length, uint8_t service_id);
bool vxcli_uds_is_negative(const uint8_t* response, uint32_t length);
const char* vxcli_uds_nrc_name(uint8_t nrc);
const char* vxcli_uds_service_name(uint8_t service_id);

// Where responses come from: a link receive returning a device-library status
// (0 success), and an optional millisecond clock (null: elapsed time is not checked).
struct vxcli_uds_receiver {
  uint32_t (*receive)(void* context, uint8_t* buffer, uint32_t* length_in_out, int32_t timeout_ms);
  uint64_t (*now_ms)(void* context);
  void* context;
};

struct vxcli_uds_exchange {
  uint32_t status;      // link status of the last reception (0 = final response in buffer)
  uint32_t length;      // length of the last response received (also after a later failure)
  uint32_t receptions;  // responses received, pending ones included
  uint32_t pending;     // of which "response pending"
};

// Waits for the final response to service_id: pending answers are skipped up to
// 30 receptions and 30 s after `start_ms` (the receiver's clock at send time);
// the one that ends either budget is final whatever it says.
void vxcli_uds_receive_final(const vxcli_uds_receiver* receiver, uint8_t service_id,
                             uint8_t* buffer, uint32_t capacity, int32_t timeout_ms,
                             uint64_t start_ms, vxcli_uds_exchange* result);

// "testFailed|confirmed" for the set bits, "none" for 0.
std::string vxcli_uds_dtc_status_desc(uint8_t status);
// 0x012345 -> "P0123-45" (SAE letter from the two top bits).
std::string vxcli_uds_dtc_name(uint32_t dtc);

struct vxcli_uds_dtc_record {
  uint32_t dtc;
  uint8_t status;
};
// DTC+status records of a 59 02 / 59 0A / 59 0F... answer (from byte 3 on).
// -1 when the answer is not of that shape.
int vxcli_uds_parse_dtc_list(const uint8_t* response, uint32_t length,
                             std::vector<vxcli_uds_dtc_record>* out, uint8_t* availability_mask);

// Download bookkeeping.
// ALF: high nibble size bytes, low nibble address bytes, each 1..4.
int vxcli_uds_check_alf(uint8_t alf, char* error_text, size_t error_size);
// 34 00 <alf> <address> <size>; -1 when the values do not fit the widths.
int vxcli_uds_build_request_download(uint8_t alf, uint32_t address, uint32_t size,
                                     std::vector<uint8_t>* out, char* error_text,
                                     size_t error_size);
// Data bytes per TransferData from the RequestDownload answer and --maxblock (0 = none).
int vxcli_uds_download_chunk(const uint8_t* response, uint32_t length, uint32_t maxblock,
                             uint32_t* chunk, char* error_text, size_t error_size);
// Block sequence counter: 1, 2, ... 0xFF, 0x01 (0 is only used before the first block).
uint8_t vxcli_uds_next_block_counter(uint8_t counter);
