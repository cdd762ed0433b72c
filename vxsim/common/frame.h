// Frame arithmetic shared by the device library, the device service and the
// control tool: identifier layouts, length codes, LIN checksums, filter and
// route matching. Pure functions over the records of vxapi.h.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vxapi.h"

namespace vxsim {

// Identifier word (base in bits 0-10, extension in 11-28) <-> plain identifier.
uint32_t id_from_word(uint32_t word, bool extended);
uint32_t id_to_word(uint32_t id, bool extended);

// CAN FD length codes.
unsigned dlc_to_bytes(unsigned code);
unsigned bytes_to_dlc(unsigned bytes);

// Payload bytes a CAN record carries (its DLC code, capped at 8 for classic frames).
unsigned can_payload_length(const VXMessage& m);
// VX_FRAME_* bits of a CAN record.
uint8_t can_frame_flags(const VXMessage& m);
// Plain 11/29-bit identifier of a CAN record.
uint32_t can_plain_id(const VXMessage& m);

// LIN protected identifier and checksum (type 2 = enhanced, else classic).
uint8_t lin_pid(uint8_t id);
uint8_t lin_checksum(const uint8_t* data, unsigned length, uint8_t id, unsigned type);
// Checksum model a node expects for a frame: 0x3C/0x3D and LIN 1.3 are classic.
unsigned lin_expected_model(uint8_t id, unsigned configured_model, uint8_t version);

// Receive filters: true when a CAN record passes the channel's table.
bool rx_filters_pass(const VXRxFilter* filters, unsigned count, const VXMessage& m);
// True when a CAN record matches a route entry's identifier and flag condition.
bool route_matches(const VXRoute& r, const VXMessage& m);

// Builds a fresh CAN record (marker header, length word) from the plain parts.
void make_can_record(VXMessage& m, uint32_t plain_id, uint8_t frame_flags, const uint8_t* data,
                     unsigned length);

// Bit field in little-endian byte order: bit n is data[n/8] bit n%8.
uint32_t get_bits(const uint8_t* data, unsigned start, unsigned nbits);
void set_bits(uint8_t* data, unsigned start, unsigned nbits, uint32_t value);

// Text of a status code, for the control tool and diagnostics.
const char* status_text(VXStatus status);

}  // namespace vxsim
