// Client side of the daemon: finding, starting, asking and stopping it.
#pragma once

#include <cstddef>

// 0 with a NUL-terminated response; -1 no daemon; -2 any other failure
// (vxcli_daemon_last_ipc_error says which).
int vxcli_daemon_send_argv(int argc, char** argv, unsigned format, char* response,
                           size_t response_size);
int vxcli_daemon_send_command(const char* request, size_t length, char* response,
                              size_t response_size);
bool vxcli_daemon_is_running();
int vxcli_daemon_start_quiet(const char* options);
const char* vxcli_daemon_last_ipc_error();
