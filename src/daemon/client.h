// Client side of the daemon: finding, starting, asking and stopping it.
#pragma once

#include <cstddef>

// The daemon's TCP port: VXCLI_DAEMON_PORT when valid, else 4502.
int vxcli_daemon_port();

// 0 with a NUL-terminated response; -1 no daemon; -2 any other failure
// (vxcli_daemon_last_ipc_error says which).
int vxcli_daemon_send_argv(int argc, char** argv, unsigned format, char* response,
                           size_t response_size);
int vxcli_daemon_send_command(const char* request, size_t length, char* response,
                              size_t response_size);
// Builds the structured request line (without the newline) into a new text; null on failure
// with the last IPC error set.
char* vxcli_daemon_build_request(int argc, char** argv, unsigned format);
bool vxcli_daemon_is_running();
const char* vxcli_daemon_last_ipc_error();

// Lifecycle; options are the words after "daemon start" (channel options).
int vxcli_daemon_start(int count, char** words);
int vxcli_daemon_start_quiet(const char* options);
int vxcli_daemon_stop();
int vxcli_daemon_stop_quiet();
int vxcli_daemon_restart();
int vxcli_daemon_status();

// Pid/log/semaphore names for the current port; 0 or -1.
int vxcli_daemon_pid_path(char* out, size_t size);
int vxcli_daemon_log_path(char* out, size_t size);
void vxcli_daemon_semaphore_name(char* out, size_t size);
