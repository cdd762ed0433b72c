// ISO 15765-2 transport: a segmentation/reassembly engine over an abstract
// frame link, so the same code runs on a direct channel or a broker cursor.
#pragma once

#include <cstddef>
#include <cstdint>

enum : int {
  VXCLI_ISOTP_OK = 0,
  VXCLI_ISOTP_INVALID_ARGUMENT = 1,
  VXCLI_ISOTP_TIMEOUT = 2,
  VXCLI_ISOTP_IO_ERROR = 3,
  VXCLI_ISOTP_PROTOCOL_ERROR = 4,
  VXCLI_ISOTP_SEQUENCE_ERROR = 5,
  VXCLI_ISOTP_REMOTE_OVERFLOW = 6,
  VXCLI_ISOTP_BUFFER_TOO_SMALL = 7,
  VXCLI_ISOTP_WAIT_LIMIT = 8,
  VXCLI_ISOTP_BROKER_GAP = 9,
  VXCLI_ISOTP_BROKER_EPOCH = 10,
  VXCLI_ISOTP_CHANNEL_CLOSED = 11,
  VXCLI_ISOTP_CANCELLED = 12,
};

// Largest payload the 12-bit first-frame length can announce.
constexpr uint32_t VXCLI_ISOTP_MAX_PAYLOAD = 4095;

struct vxcli_isotp_config {
  uint32_t tx_id;
  uint32_t rx_id;
  uint8_t tx_extended;
  uint8_t rx_extended;
  uint8_t fd;
  uint8_t brs;
  uint8_t tx_dl;        // 1-8, 12, 16, 20, 24, 32, 48 or 64
  uint8_t padding;
  uint8_t pad_byte;
  uint8_t block_size;   // BS we announce in our flow control
  uint8_t st_min;       // STmin byte we announce in our flow control
  uint8_t wait_limit;   // WAIT frames accepted in a row
  uint16_t max_length;  // largest payload sent or accepted
};

struct vxcli_isotp_frame {
  uint32_t id;
  uint8_t extended;
  uint8_t fd;
  uint8_t brs;
  uint8_t length;  // 1-64
  uint8_t data[64];
  uint64_t device_timestamp;   // receive time from the device (received frames)
  uint64_t host_timestamp_us;  // receive time on the host clock (received frames)
};

// What the engine needs from a link. send_frame and receive_frame are
// mandatory; the rest may be null. Every function gets `context`.
// send/receive return an engine status (0, 2 timeout, 3 I/O, 9-12, ...).
struct vxcli_isotp_callbacks {
  int (*send_frame)(void* context, const vxcli_isotp_frame* frame, int32_t timeout_ms);
  int (*receive_frame)(void* context, vxcli_isotp_frame* frame, int32_t timeout_ms);
  uint64_t (*now_us)(void* context);
  void (*sleep_us)(void* context, uint32_t microseconds);
  int (*cancelled)(void* context);
  void (*prepare)(void* context);
  void* context;
};

struct vxcli_isotp_stats {
  uint32_t bytes;
  uint32_t frames_sent;
  uint32_t frames_received;
  uint32_t wait_frames;
  uint32_t flow_control_frames;
  uint8_t last_block_size;
  uint8_t last_st_min;
  uint64_t first_device_timestamp;
  uint64_t last_device_timestamp;
  uint64_t first_host_timestamp_us;
  uint64_t last_host_timestamp_us;
};

void vxcli_isotp_config_init(vxcli_isotp_config* config);
// 0, or VXCLI_ISOTP_INVALID_ARGUMENT when the configuration or link is unusable.
int vxcli_isotp_config_check(const vxcli_isotp_config* config, const vxcli_isotp_callbacks* link);
uint32_t vxcli_isotp_stmin_us(uint8_t st_min);
// Frame length for a payload of n bytes on CAN FD (n itself up to 8, else the next FD length).
uint8_t vxcli_isotp_fd_length(uint32_t n);

// timeout_ms < 0 waits without limit; 0 polls.
int vxcli_isotp_engine_send(const vxcli_isotp_config* config, const vxcli_isotp_callbacks* link,
                            const uint8_t* data, uint32_t length, int32_t timeout_ms,
                            vxcli_isotp_stats* stats);
// *length_in_out: capacity on entry, payload length on return (the needed length on status 7).
int vxcli_isotp_engine_receive(const vxcli_isotp_config* config,
                               const vxcli_isotp_callbacks* link, uint8_t* buffer,
                               uint32_t* length_in_out, int32_t timeout_ms,
                               vxcli_isotp_stats* stats);

const char* vxcli_isotp_engine_status_string(int status);
uint32_t vxcli_isotp_status_to_vxapi(int status, uint32_t last_device_status);
