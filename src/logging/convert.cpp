// "convert <input> <output>": kept in the command set for scripts that probe
// for it, but this build offers no file conversion.
#include "cli/hooks.h"
#include "cli/output.h"

int vxcli_convert_command(int, char**) {
  vxcli_print_error("File conversion not supported in this build (requires BLF library)");
  return 1;
}
