// Placeholders for subsystems that have not landed yet; each is replaced by
// its real implementation and this file shrinks accordingly.
#include "cli/hooks.h"
#include "cli/output.h"

#include <cstdio>

int vxcli_daemon_process_main(int, char**) {
  fprintf(stderr, "Daemon: not available in this build\n");
  return 1;
}
int vxcli_device_library_init(char* message, size_t size) {
  snprintf(message, size, "device library is not available in this build");
  return -1;
}
void vxcli_device_library_shutdown() {}
int vxcli_convert_command(int, char**) {
  vxcli_print_error("convert is not available in this build");
  return 1;
}
