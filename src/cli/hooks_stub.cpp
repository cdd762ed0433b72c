// Placeholders for subsystems that have not landed yet; each is replaced by
// its real implementation and this file shrinks accordingly.
#include "cli/hooks.h"

#include <cstdio>

int vxcli_daemon_process_main(int, char**) {
  fprintf(stderr, "Daemon: not available in this build\n");
  return 1;
}
