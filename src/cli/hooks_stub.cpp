// Placeholders for subsystems that have not landed yet; each is replaced by
// its real implementation and this file shrinks accordingly.
#include "cli/hooks.h"
#include "cli/output.h"

#include <cstdio>

int vxcli_daemon_process_main(int, char**) {
  fprintf(stderr, "Daemon: not available in this build\n");
  return 1;
}
int vxcli_convert_command(int, char**) {
  vxcli_print_error("convert is not available in this build");
  return 1;
}
int vxcli_uds_dtc_check_options(int, char**) { return 0; }
