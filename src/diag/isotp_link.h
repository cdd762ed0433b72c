// The ISO-TP engine bound to a device channel: directly (VX_Read plus the
// channel's notification) or through a receive-broker cursor in the daemon.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "diag/isotp.h"
#include "vxapi.h"

enum : int {
  VXCLI_ISOTP_ROLE_TESTER = 0,  // sends with the request identifier
  VXCLI_ISOTP_ROLE_ECU = 1,     // sends with the response identifier
};

struct vxcli_isotp_link_params {
  int role;
  VXMessage request_template;   // identifier word, IDE/EDL/BRS and DLC (-> tx_dl) as on the wire
  VXMessage response_template;
  uint8_t st_min;
  uint8_t block_size;  // 0 becomes 8
  uint8_t padding;
  uint8_t pad_byte;
};

// Broker access for links with a broker slot; registered by the daemon.
// read returns an engine status: 0 with a message, 2 timeout, 9 gap,
// 10 epoch changed, 11 closed, 3 anything else.
struct vxcli_isotp_broker_ops {
  bool (*slot_attached)(int slot);
  void* (*open_cursor)(int slot, const char* name, uint32_t rx_id, uint32_t mask);
  int (*read)(void* cursor, VXMessage* message, int32_t timeout_ms);
  void (*close_cursor)(void* cursor);
};
void vxcli_isotp_set_broker_ops(const vxcli_isotp_broker_ops* ops);
// Installs the operations of the daemon's receive broker (daemon/rx_broker.h).
void vxcli_isotp_use_rx_broker();

struct vxcli_isotp_link {
  vxcli_isotp_config config;
  vxcli_isotp_callbacks callbacks;
  VXHandle channel;
  int broker_slot;            // -1 for direct use
  VXNotifyHandle notification;
  std::atomic<int> cancel;
  uint32_t last_device_status;
  void* cursor;               // broker cursor
  int last_status;            // engine status of the last call
  vxcli_isotp_stats stats;    // of the last call
  int open;
};

// 0 or -1. The link record must stay at the same address while open.
int vxcli_isotp_link_open(vxcli_isotp_link* link, VXHandle channel_handle, int broker_slot,
                          const vxcli_isotp_link_params* parameters, const char* cursor_name);
// Both return a device-library status (0 success; see vxcli_isotp_status_to_vxapi).
uint32_t vxcli_isotp_link_send(vxcli_isotp_link* link, const uint8_t* data, uint32_t length,
                               int32_t timeout_ms);
uint32_t vxcli_isotp_link_receive(vxcli_isotp_link* link, uint8_t* buffer,
                                  uint32_t* length_in_out, int32_t timeout_ms);
const char* vxcli_isotp_link_error(const vxcli_isotp_link* link);
void vxcli_isotp_link_cancel(vxcli_isotp_link* link);
void vxcli_isotp_link_close(vxcli_isotp_link* link);

// Device message <-> transport frame, shared with tests and the daemon.
void vxcli_isotp_frame_to_message(const vxcli_isotp_frame* frame, VXMessage* message);
// false for anything but a received CAN data frame with a non-zero DLC.
bool vxcli_isotp_message_to_frame(const VXMessage* message, vxcli_isotp_frame* frame);
// Identifier word of the device layout <-> plain 11/29-bit identifier.
uint32_t vxcli_isotp_wire_id(uint32_t id, bool extended);
uint32_t vxcli_isotp_plain_id(uint32_t word, bool extended);
