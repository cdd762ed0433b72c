// Entry: global options, help and validation, the hardware-free commands,
// device library start-up and dispatch.
#include <cstdio>
#include <cstring>

#include "cli/catalog.h"
#include "cli/dispatch.h"
#include "cli/entry.h"
#include "cli/output.h"

int main(int argc, char** argv) {
  return vxcli_main(argc, argv);
}
