// The frame record shared by the log readers, the log writers and replay.
// It is independent of the device library's message layout so that log files
// can be read and written without a device; the daemon and the standalone
// commands convert from and to the device record at their edge.
#pragma once

#include <cstddef>
#include <cstdint>

struct vxcli_log_frame {
  double time;           // seconds as recorded (ASC: the line's time; BLF: object time / 1e9)
  uint64_t time_ns;      // the same time in nanoseconds (exact for BLF)
  int32_t channel;       // recorded channel number, 1-based
  int32_t is_lin;        // 1 for a LIN frame
  uint32_t id;           // identifier without the extended marker
  int32_t extended;      // 29-bit identifier
  int32_t fd;            // CAN FD frame
  int32_t brs;           // bit-rate switch
  int32_t esi;           // error-state indicator
  int32_t remote;        // remote frame (no data)
  int32_t error;         // error frame (never replayed)
  int32_t tx;            // transmitted by the logging node
  int32_t dlc;           // DLC code 0-15 (LIN: data length 0-8)
  int32_t length;        // number of data bytes present
  uint8_t lin_checksum;  // LIN checksum byte
  uint8_t lin_enhanced;  // 1 when the LIN checksum model is enhanced
  uint8_t data[64];
};

// Byte count of a CAN FD length code (0-8, 12, 16, 20, 24, 32, 48, 64; 15 and up give 64).
int vxcli_log_dlc_to_length(int dlc);
// Smallest length code that carries n bytes (0-8 as is, then 9..15).
int vxcli_log_length_to_dlc(int length);
// Fills time and time_ns from nanoseconds.
inline void vxcli_log_frame_set_time_ns(vxcli_log_frame* frame, uint64_t ns) {
  frame->time_ns = ns;
  frame->time = (double)ns / 1e9;
}
