// ASC text logs: the line parser used by replay and conversion, and the
// writer used by host logging.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>

#include "logging/log_frame.h"

// Non-zero when the line is a LIN, classic CAN or CAN FD frame and record was
// filled (record is cleared first); 0 for headers, comments, events and
// error frames.
int vxcli_parse_asc_line(const char* line, vxcli_log_frame* record);
// As above, but also recognises "<time> <channel> ErrorFrame": 1 frame,
// 2 error frame (record->error set), 0 anything else.
int vxcli_parse_asc_event(const char* line, vxcli_log_frame* record);
// Data bytes of one or two hexadecimal digits each ("0102" is two bytes),
// separated by blanks or tabs; stops at the end of the line or at the first
// word that is not hexadecimal. Returns the count stored (at most max).
int parse_hex_data(const char* text, uint8_t* out, int max);

// Physical identity of a logical channel, for the header's mapping comments.
struct vxcli_asc_channel_label {
  int channel;         // logical channel (1-based)
  const char* serial;  // device serial number
  int port;
};

// One frame line (newline included) with the time in seconds; returns its
// length, or -1 when it does not fit. LIN frames are written in the LIN form
// the parser reads.
int vxcli_asc_format_frame(char* out, size_t size, double seconds, const vxcli_log_frame* frame);
// The header up to and including "Begin Triggerblock"; start is local time.
int vxcli_asc_format_header(char* out, size_t size, const struct tm* start,
                            const vxcli_asc_channel_label* labels, int count);

struct vxcli_asc_writer;
// Creates the file and writes the header dated start (wall clock). Null with a
// message on failure.
vxcli_asc_writer* vxcli_asc_open(const char* path, time_t start,
                                 const vxcli_asc_channel_label* labels, int count,
                                 char* message, size_t message_size);
// 1 written, -1 bad arguments or a write error (sticky).
int vxcli_asc_write(vxcli_asc_writer* writer, double seconds, const vxcli_log_frame* frame);
// Hands buffered lines to the file (a long-running logger calls this now and
// then, so that a crash loses little); 0, or -1 when any write failed.
int vxcli_asc_flush(vxcli_asc_writer* writer);
// Ends the trigger block and closes; 0, or -1 when any write failed.
int vxcli_asc_close(vxcli_asc_writer* writer);
