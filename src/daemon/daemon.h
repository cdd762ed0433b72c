// Daemon side: the serving loop, request parsing and the command processor.
#pragma once

#include <cstddef>

inline constexpr size_t VXCLI_DAEMON_BUFFER_SIZE = 0xA00000;
inline constexpr int VXCLI_DAEMON_SLOTS = 32;
inline constexpr int VXCLI_DAEMON_MAX_ARGV = 127;

// Runs the main loop; ends the process with status 0 on shutdown.
[[noreturn]] void vxcli_daemon_run();
int vxcli_daemon_command_try_lock();
void vxcli_daemon_command_unlock();

// Channel options of "daemon start", the daemon's command line and "channel open";
// null means not given.
struct vxcli_daemon_channel_options {
  const char* channel;
  const char* mode;
  const char* bitrate;
  const char* nbitrate;
  const char* dbitrate;
  const char* termination;
  const char* pullup;
  const char* power;
  const char* lin_version;
  const char* checksum;
};
// Option names in field order, without "--".
extern const char* const vxcli_daemon_channel_option_names[10];
void vxcli_daemon_read_channel_options(int count, char** words, vxcli_daemon_channel_options* out);
// Checks every given option's spelling and that CAN-only and LIN-only options are not
// mixed; 0, or -1 with the message (no "ERROR: " prefix) in message.
int vxcli_daemon_validate_channel_options(const vxcli_daemon_channel_options* options, char* message,
                                          size_t size);

// Opens the channels named on the daemon's command line; each failure is logged
// and skipped. Returns the number opened.
int vxcli_daemon_open_channels_config(const vxcli_daemon_channel_options* options);

// A structured request, decoded. argv points into strings.
struct daemon_ipc_request {
  int argc;
  char* argv[VXCLI_DAEMON_MAX_ARGV + 2];  // + "--format=..." + null
  char format[16];
  char project[1024];
  char strings[65536 + 32];
};

// 0 when line is a valid structured request, -1 otherwise.
int daemon_parse_ipc_request(const char* line, daemon_ipc_request* request);

// Answers one request line into response (size VXCLI_DAEMON_BUFFER_SIZE or
// the given size); returns the answer text (response or a constant).
const char* daemon_process_command(const char* request, char* response, size_t size);

// True when the request is "message recv" (served on a receive thread).
bool daemon_request_is_recv(const char* request);
struct daemon_recv_job;
// Prepares a receive under the command lock: a job for a receive thread, or null
// with the answer in *answer.
daemon_recv_job* daemon_recv_begin(const char* request, char* response, size_t size, const char** answer);

// True when the request text asks for a JSON answer.
bool daemon_request_wants_json(const char* request);
// Turns an "ERROR:" answer into the JSON error envelope in out; returns out,
// or answer itself when it needs no envelope.
const char* daemon_json_error_envelope(const char* answer, char* out, size_t size);

// Daemon state the processor and the loop share.
void daemon_state_init();
void daemon_request_stop();
bool daemon_is_running();
// Closes every open slot and shuts the broker down.
void daemon_close_all_slots();
