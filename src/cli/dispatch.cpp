// Placeholder until dispatch lands.
#include "cli/dispatch.h"
#include "cli/output.h"

int dispatch_command(int count, char** words, int, char**) {
  if (count < 1) return 1;
  vxcli_print_error("unknown category '%s'", words[0]);
  return 1;
}

int dispatch_database_command(const char* category, const char* action, int, char**) {
  if (!action) vxcli_print_error("%s requires an action", category);
  else vxcli_print_error("unknown %s action '%s'", category, action);
  return 1;
}
