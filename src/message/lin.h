// LIN helpers shared by message send/recv, slave-response tasks, the daemon and LDF
// schedules: option parsers and names, PID/checksum arithmetic, the library's LIN
// message and response-task records, the master transfer loop and channel opening.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vxapi.h"


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

// Bus of a channel from its capability bits: "can", "lin", or empty/"auto" (LIN only for
// LIN-only ports). 0 with *bus = VXCLI_BUS_*, or -1.
int vxcli_bus_from_channel(const VXChannelInfo* channel, const char* bus_text, uint32_t* bus);

// The library's 16-byte LIN message with the checksum computed over data.
void vxcli_init_lin_message(VXLinMessage* out, uint8_t id, const uint8_t* data, uint32_t length,
                            bool master_supplies, uint8_t checksum_type);
// A slave-response table entry answering frame id with data.
void vxcli_init_lin_response_task(VXLinResponseTask* out, uint8_t id, const uint8_t* data,
                                  uint32_t length, uint8_t checksum_type, uint16_t caller_value);
// Preloads the device's response buffers from active entries; 0 or the last failing status.
uint32_t vxcli_prime_lin_response_tasks(VXHandle handle, const VXLinResponseTask* tasks, int count);

// Outcome of one transfer, with the frame that completed it.
struct LinTransferRecord {
  VXMessage frame;      // as delivered by the library (zero when none arrived)
  uint32_t status;      // library status of the failing call
  uint32_t outcome;     // VXCLI_LIN_OUTCOME_*
  uint32_t classified;  // 1 when frame holds a received, classified frame
};

struct LinTransferResult {
  uint32_t sent;        // headers/frames written successfully
  uint32_t ok;
  uint32_t responses;   // master-reads that returned the expected data
  uint32_t unexpected;  // writes or sync-breaks that saw slave data
  uint32_t failed;
  int32_t recordCount;
  int32_t recordCapacity;  // 0 = no records kept
  LinTransferRecord* records;
};

// Delivers the next record for the channel: < 0 error (*status set), 0 nothing arrived
// within remaining_ms, > 0 a record was stored.
using vxcli_lin_receiver = int (*)(void* context, VXMessage* record, uint32_t remaining_ms,
                                   uint32_t* status);

// Runs count master transfers of one operation on frame id. port (-1 = any) selects
// whose completed frames count. Returns 0 when no transfer failed, else 1.
int vxcli_lin_transfer_with_receiver(VXHandle handle, int port, uint32_t operation, uint8_t id,
                                     const uint8_t* data, uint32_t length, uint8_t checksum_type,
                                     int count, uint32_t interval_ms, uint32_t timeout_ms,
                                     vxcli_lin_receiver receiver, void* receiver_context,
                                     LinTransferResult* result);
int vxcli_lin_transfer(VXHandle handle, int port, uint32_t operation, uint8_t id,
                       const uint8_t* data, uint32_t length, uint8_t checksum_type, int count,
                       uint32_t interval_ms, uint32_t timeout_ms, LinTransferResult* result);

// Opens a LIN channel by specification text (bitrate text as --bitrate); prints the reason
// on stderr and returns null on failure. info_out receives the resolved entry.
VXHandle vxcli_open_lin_channel_ex(const char* channel_spec, const char* bitrate_text,
                                   uint32_t mode, uint32_t pullup, uint32_t power,
                                   uint8_t version, uint8_t checksum_type,
                                   VXChannelInfo* info_out);
VXHandle vxcli_open_lin_channel_info(const VXChannelInfo* channel, uint16_t bitrate,
                                     uint32_t mode, uint32_t pullup, uint32_t power,
                                     uint8_t version, uint8_t checksum_type);
