// Placeholder until dispatch lands.
#include "cli/dispatch.h"
#include "cli/output.h"
#include "database/commands.h"

#include <cstring>

int dispatch_command(int count, char** words, int, char**) {
  if (count < 1) return 1;
  vxcli_print_error("unknown category '%s'", words[0]);
  return 1;
}

// Temporary wiring of the database handlers until the real dispatcher lands.
int dispatch_database_command(const char* category, const char* action, int count, char** words) {
  auto is = [](const char* a, const char* b) { return a && strcmp(a, b) == 0; };
  if (!action) {
    vxcli_print_error("%s requires an action", category);
    return 1;
  }
  if (is(category, "database")) {
    if (is(action, "load")) return vxcli_database_load_command(count, words);
    if (is(action, "unload")) return vxcli_database_unload_command(count, words);
    if (is(action, "list")) return vxcli_database_list_command(count, words);
    if (is(action, "info")) return vxcli_database_info_command(count, words);
    if (is(action, "validate")) return vxcli_database_validate_command(count, words);
  } else if (is(category, "dbc")) {
    if (is(action, "load")) return vxcli_dbc_load_command(count, words);
    if (is(action, "decode")) return vxcli_dbc_decode_command(count, words);
    if (is(action, "encode")) return vxcli_dbc_encode_command(count, words);
    if (is(action, "message") || is(action, "signal")) {
      const char* sub = count > 0 ? words[0] : nullptr;
      bool message = is(action, "message");
      if (is(sub, "list"))
        return message ? vxcli_dbc_message_list_command(count - 1, words + 1)
                       : vxcli_dbc_signal_list_command(count - 1, words + 1);
      if (is(sub, "show"))
        return message ? vxcli_dbc_message_show_command(count - 1, words + 1)
                       : vxcli_dbc_signal_show_command(count - 1, words + 1);
      vxcli_print_error("dbc %s requires list|show", action);
      return 1;
    }
  } else if (is(category, "ldf") && is(action, "load")) {
    return vxcli_ldf_load_command(count, words);
  } else if (is(category, "a2l") && is(action, "load")) {
    return vxcli_a2l_load_command(count, words);
  }
  vxcli_print_error("unknown %s action '%s'", category, action);
  return 1;
}
