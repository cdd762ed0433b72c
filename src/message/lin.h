// LIN helpers shared by message send/recv, slave-response tasks, the daemon and LDF
// schedules: option parsers and names, PID/checksum arithmetic, the library's LIN
// message and response-task records, the master transfer loop and channel opening.
#pragma once

#include <cstddef>
#include <cstdint>


enum : uint32_t {
  VXCLI_BUS_CAN = 1,
  VXCLI_BUS_LIN = 2,
};

enum : uint32_t {
  VXCLI_LIN_MODE_OFF = 0,
  VXCLI_LIN_MODE_SLAVE = 1,
  VXCLI_LIN_MODE_LOOPBACK = 2,
  VXCLI_LIN_MODE_LISTEN = 3,
  VXCLI_LIN_MODE_MASTER = 8,
};

enum : uint8_t {
  VXCLI_LIN_CHECKSUM_CLASSIC = 1,
  VXCLI_LIN_CHECKSUM_ENHANCED = 2,
};

enum : uint32_t {
  VXCLI_LIN_MASTER_WRITE = 0,
  VXCLI_LIN_MASTER_READ = 1,
  VXCLI_LIN_SYNC_BREAK = 2,
};

enum : uint32_t {
  VXCLI_LIN_OUTCOME_NONE = 0,
  VXCLI_LIN_OUTCOME_OK = 1,
  VXCLI_LIN_OUTCOME_WRITE_ERROR = 2,
  VXCLI_LIN_OUTCOME_READ_ERROR = 3,
  VXCLI_LIN_OUTCOME_HOST_TIMEOUT = 4,
  VXCLI_LIN_OUTCOME_NO_RESPONSE = 5,
  VXCLI_LIN_OUTCOME_UNEXPECTED = 6,
  VXCLI_LIN_OUTCOME_PROTOCOL_ERROR = 7,
};

// Status byte of a received LIN frame.
enum : uint8_t {
  VXCLI_LIN_STATUS_ERRORS = 0x7E,       // bits 1..6
  VXCLI_LIN_STATUS_NO_RESPONSE = 0x40,
  VXCLI_LIN_STATUS_HEADER_ONLY = 0x80,
};

// Option parsers: 0 with *out set, or -1 (unknown spelling, null out). Case-insensitive.
int vxcli_parse_lin_bitrate(const char* text, uint16_t* out);
int vxcli_parse_lin_mode(const char* text, uint32_t default_mode, uint32_t* out);
int vxcli_parse_lin_voltage(const char* text, uint32_t mode, uint32_t* out);
int vxcli_parse_lin_tres(const char* text, uint32_t mode, uint32_t* out);
int vxcli_parse_lin_version(const char* text, uint8_t* out);
int vxcli_parse_lin_checksum(const char* text, uint32_t frame_id, uint8_t* out);
int vxcli_parse_lin_operation(const char* text, uint32_t* out);

const char* vxcli_lin_mode_name(uint32_t mode);
const char* vxcli_lin_version_name(uint32_t version);
const char* vxcli_lin_checksum_name(uint32_t checksum_type);
const char* vxcli_lin_operation_name(uint32_t operation);
const char* vxcli_lin_outcome_name(uint32_t outcome);

uint8_t vxcli_lin_pid(uint8_t id);
uint8_t vxcli_lin_checksum(const uint8_t* data, uint32_t length, uint8_t id,
                           uint32_t checksum_type);

// Outcome of one completed master transfer from the frame that came back.
uint32_t vxcli_lin_classify(uint32_t operation, uint32_t requested_length,
                            uint32_t received_length, uint8_t status);
