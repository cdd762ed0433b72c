// Entry: global options, help and validation, the hardware-free commands,
// device library start-up and dispatch.
#include <csignal>
#include <cstdio>
#include <cstring>

#include "cli/catalog.h"
#include "cli/dispatch.h"
#include "cli/entry.h"
#include "cli/output.h"

int main(int argc, char** argv) {
  // A file-size limit must turn into a failed write we can report, not a
  // silent kill in the middle of rewriting a file.
  signal(SIGXFSZ, SIG_IGN);
  return vxcli_main(argc, argv);
}
