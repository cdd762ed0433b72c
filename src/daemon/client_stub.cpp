// Placeholder until the daemon lands: a client that never finds a daemon.
#include "daemon/client.h"

#include <cstdio>

namespace {
char g_last_error[256] = "no IPC error";
}

int vxcli_daemon_send_argv(int, char**, unsigned, char* response, size_t size) {
  if (response && size) response[0] = 0;
  snprintf(g_last_error, sizeof g_last_error, "daemon is not running");
  return -1;
}
int vxcli_daemon_send_command(const char*, size_t, char* response, size_t size) {
  if (response && size) response[0] = 0;
  snprintf(g_last_error, sizeof g_last_error, "daemon is not running");
  return -1;
}
bool vxcli_daemon_is_running() { return false; }
int vxcli_daemon_start_quiet(const char*) { return -1; }
const char* vxcli_daemon_last_ipc_error() { return g_last_error; }
