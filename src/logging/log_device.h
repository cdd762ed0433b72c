// Edge between the log layer and the device library's message record.
#pragma once

#include <cstdint>

#include "logging/blf_writer.h"
#include "logging/log_frame.h"
#include "vxapi.h"

// A received or transmitted CAN or LIN record as a log frame on the given
// logical channel (1-based). 1 converted, 0 a record of another kind. The
// time fields are left at zero: the caller knows which clock applies.
int vxcli_log_frame_from_message(const VXMessage* message, int channel_number,
                                 vxcli_log_frame* out);
// A CAN frame as the record VX_WriteCanMessage takes (up to 64 data bytes).
void vxcli_log_frame_to_message(const vxcli_log_frame* frame, VXMessage* out);
// A LIN frame as the record VX_WriteLinMessage takes, the master supplying the
// data and the recorded checksum byte.
void vxcli_log_frame_to_lin_message(const vxcli_log_frame* frame, VXLinMessage* out);

// Absolute time of a record in ns: the library's PTP time when a channel is
// given and it has one, otherwise the 32-bit microsecond timestamp x 1000.
uint64_t vxcli_message_time_ns(VXHandle channel_handle, const VXMessage* message);

// Writes one device record through the BLF facade. The checksum model is
// recorded for LIN frames (0 classic, 1 enhanced; 2 and above: not recorded).
// 1 written, 0 a record of another kind, -1 bad arguments (null handle or
// message, channel_number < 1).
int vxcli_blf_write(vxcli_blf_handle* handle, VXHandle channel_handle, const VXMessage* message,
                    int channel_number, int lin_checksum_model, int reserved);
