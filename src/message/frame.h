// Frame-level building blocks shared by message send/recv, TX tasks, routes and the
// daemon: identifier, flag and payload parsers, CAN FD length codes, the identifier
// layout of the device library's message record, and the per-frame printers.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vxapi.h"

struct vxcli_json_writer;

// CAN frame flag bits as written with --flags (words joined by '+').
constexpr uint32_t VXCLI_FRAME_IDE = 0x01;  // 29-bit identifier
constexpr uint32_t VXCLI_FRAME_RTR = 0x02;  // remote frame
constexpr uint32_t VXCLI_FRAME_BRS = 0x04;  // bit-rate switch
constexpr uint32_t VXCLI_FRAME_FDF = 0x08;  // CAN FD frame
constexpr uint32_t VXCLI_FRAME_ESI = 0x10;  // error state indicator

// Identifier from "0x1A0", "1A0" or "416"; -1 when invalid. A decimal value that fits an
// 11-bit identifier prints a note on stderr because it may have been meant as hex.
long vxcli_parse_message_id(const char* text);
// Same rules without the note; *decimal (optional) tells whether the text was decimal.
long vxcli_parse_message_id_quiet(const char* text, bool* decimal);
// Flag bits from "fdf+brs"; unknown words are ignored.
uint32_t vxcli_parse_flags(const char* text);
// Payload bytes from hex text ("11 22-33:44", "11223344"); returns the number stored.
int vxcli_parse_data(const char* text, uint8_t* out, int max);
// Byte count of a CAN FD length code (0..8, 12, 16, 20, 24, 32, 48, 64).
int vxcli_dlc_to_bytes(int code);
// Smallest length code that holds length bytes.
int vxcli_bytes_to_dlc(int length);

// The device library's identifier field: a standard id sits in bits 0..10; an extended
// id has its bits 18..28 in bits 0..10 and its bits 0..17 in bits 11..28.
uint32_t vxcli_can_id_to_device(uint32_t id, bool extended);
uint32_t vxcli_can_id_from_device(uint32_t field, bool extended);

// One CAN / CAN FD frame as the printers see it.
struct vxcli_can_frame {
  uint32_t id;            // plain identifier (29-bit when VXCLI_FRAME_IDE)
  uint32_t flags;         // VXCLI_FRAME_*
  uint8_t dlc;            // length code 0..15
  uint8_t tx;             // 1 = own transmission
  uint16_t channel;       // channel number shown in output
  uint64_t timestamp_us;  // device time
  uint8_t data[64];
};

// One LIN frame as the printers see it.
struct vxcli_lin_frame {
  uint8_t id;             // 0x00..0x3F
  uint8_t dlc;            // 0..8
  uint8_t checksum;
  uint8_t checksum_type;  // 1 classic, 2 enhanced
  uint8_t errors;         // error flags of the status byte (bits 1..6)
  uint8_t header_only;    // header completed without a response
  uint8_t tx;             // 1 = own transmission
  uint8_t reserved;
  uint16_t channel;
  uint64_t timestamp_us;
  uint8_t data[8];
};

// Device message record <-> printer records.
void vxcli_can_message_init(VXMessage* out, uint32_t id, uint32_t flags, uint8_t dlc,
                            const uint8_t* data, int length);
void vxcli_can_frame_from_message(const VXMessage* message, vxcli_can_frame* out);
void vxcli_lin_frame_from_message(const VXMessage* message, vxcli_lin_frame* out);
inline bool vxcli_message_is_can(const VXMessage* m) {
  return (m->header & VX_MSG_TYPE_MASK) == VX_MSG_TYPE_CAN;
}
inline bool vxcli_message_is_lin(const VXMessage* m) {
  return (m->header & VX_MSG_TYPE_MASK) == VX_MSG_TYPE_LIN;
}

struct vxcli_frame_print_options {
  uint32_t format;         // VXCLI_FORMAT_*
  int channel_prefix;      // text: precede each line with "ch%d " (several channels)
  int channel_index;       // the number used by that prefix
  const char* decoded;     // CAN: DBC decoding as a JSON object, or null
};

// Joined flag words "ide+fdf+brs+esi+rtr+" (empty when none); returns the length.
size_t vxcli_frame_flag_words(uint32_t flags, char* out, size_t size);

// Appends one frame in the given format. Text, CSV and JSONL end with a newline; JSON
// appends the bare object so callers can collect frames into an array. Times are
// relative_us / 1e6 seconds. 0 or -1 (writer failed).
int vxcli_format_can_frame(vxcli_json_writer* out, const vxcli_can_frame* frame,
                           uint64_t relative_us, const vxcli_frame_print_options* options);
int vxcli_format_lin_frame(vxcli_json_writer* out, const vxcli_lin_frame* frame,
                           uint64_t relative_us, const vxcli_frame_print_options* options);

extern const char vxcli_can_csv_header[];  // "timestamp,channel,direction,id,dlc,data,flags\n"
extern const char vxcli_lin_csv_header[];  // "timestamp,channel,bus,direction,...\n"

// Prints one LIN frame on stdout in the current output format (g_config.format).
void vxcli_print_lin_message(const vxcli_lin_frame* frame, uint64_t relative_us);
