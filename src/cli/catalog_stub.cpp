// Placeholder until the catalogue lands: no help, every line passes validation.
#include "cli/catalog.h"

#include <cstdio>
#include <cstring>

bool vxcli_help_requested(int count, char** words) {
  if (count > 0 && strcmp(words[0], "help") == 0) return true;
  for (int i = 0; i < count; i++)
    if (strcmp(words[i], "--help") == 0 || strcmp(words[i], "-h") == 0) return true;
  return false;
}
int vxcli_help_run(int, char**) { vxcli_help_print_root(); return 0; }
void vxcli_help_print_root() { printf("Usage: vxcli <category> <action> [options]\n"); }
int vxcli_command_validate_format(int, char**, uint32_t, char* message, size_t size) {
  if (message && size) message[0] = 0;
  return 0;
}
int vxcli_command_validate_options(int, char**, char* message, size_t size) {
  if (message && size) message[0] = 0;
  return 0;
}
