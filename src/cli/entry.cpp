// Entry algorithm: decides client or daemon, strips global options, runs help,
// validation and the commands that need no hardware, then dispatches.
#include "cli/entry.h"

#include <cstdio>
#include <cstring>

#include "cli/catalog.h"
#include "cli/dispatch.h"
#include "cli/hooks.h"
#include "cli/output.h"

namespace {

bool is(const char* word, const char* text) { return word && strcmp(word, text) == 0; }

int run_ai(int count, char** words) {
  if (count < 2) {
    vxcli_print_error("ai requires an action");
    return 1;
  }
  if (is(words[1], "setup") || is(words[1], "status")) {
    vxcli_print_error("ai %s is not available in this build", words[1]);
    return 1;
  }
  vxcli_print_error("unknown ai action '%s'", words[1]);
  return 1;
}

// Returns -1 when the bench line must continue to the hardware path.
int run_bench(int count, char** words) {
  if (count < 2) {
    vxcli_print_error("bench requires an action");
    return 1;
  }
  const char* action = words[1];
  if (is(action, "validate")) {
    for (int i = 2; i < count; i++)
      if (is(words[i], "hardware") || is(words[i], "--hardware")) return -1;
  }
  if (is(action, "init") || is(action, "show") || is(action, "validate") || is(action, "import")) {
    vxcli_print_error("bench %s is not available in this build", action);
    return 1;
  }
  vxcli_print_error("unknown bench action '%s'", action);
  return 1;
}

}  // namespace

int vxcli_strip_global_options(int count, char** words) {
  int kept = 0;
  for (int i = 0; i < count; i++) {
    char* word = words[i];
    if (strncmp(word, "--format=", 9) == 0) {
      const char* value = word + 9;
      if (is(value, "json")) { g_config.format = VXCLI_FORMAT_JSON; continue; }
      if (is(value, "jsonl")) { g_config.format = VXCLI_FORMAT_JSONL; continue; }
      if (is(value, "csv")) { g_config.format = VXCLI_FORMAT_CSV; continue; }
      if (is(value, "text")) { g_config.format = VXCLI_FORMAT_TEXT; continue; }
      words[kept++] = word;  // left for validation to refuse
      continue;
    }
    if (strncmp(word, "--to=", 5) == 0) {
      g_config.to = word + 5;
      continue;
    }
    if (strncmp(word, "--project=", 10) == 0) {
      if (word[10] == 0) {
        vxcli_print_error("--project requires a directory");
        return -1;
      }
      g_config.project = word + 10;
      continue;
    }
    if (is(word, "--project")) {
      if (i + 1 >= count || words[i + 1][0] == 0) {
        vxcli_print_error("--project requires a directory");
        return -1;
      }
      g_config.project = words[++i];
      continue;
    }
    if (is(word, "--verbose")) {
      g_config.verbose = 1;
      continue;
    }
    words[kept++] = word;
  }
  return kept;
}

int vxcli_main(int argc, char** argv) {
  if (argc < 2) {
    vxcli_help_print_root();
    return 0;
  }
  if (is(argv[1], "--version") || is(argv[1], "-v")) {
    print_version();
    return 0;
  }
  if (is(argv[1], "__daemon__")) return vxcli_daemon_process_main(argc - 2, argv + 2);

  int count = vxcli_strip_global_options(argc - 1, argv + 1);
  if (count < 0) return 1;
  char** words = argv + 1;

  if (vxcli_help_requested(count, words)) return vxcli_help_run(count, words);

  char message[192];
  if (vxcli_command_validate_format(count, words, g_config.format, message, sizeof message) != 0) {
    vxcli_print_error("%s", message);
    return 1;
  }
  if (vxcli_command_validate_options(count, words, message, sizeof message) != 0) {
    vxcli_print_error("%s", message);
    return 1;
  }
  if (count == 0) {
    vxcli_help_print_root();
    return 1;
  }

  const char* first = words[0];
  const char* action = count > 1 ? words[1] : nullptr;
  if (is(first, "version")) {
    print_version();
    return 0;
  }
  if (is(first, "update")) {
    vxcli_print_error("update is not available in this build");
    return 1;
  }
  if (is(first, "ai")) return run_ai(count, words);
  if (is(first, "bench")) {
    int rc = run_bench(count, words);
    if (rc >= 0) return rc;
  }
  if (is(first, "checksum")) {
    vxcli_print_error("checksum is not available in this build");
    return 1;
  }
  if (is(first, "convert")) return vxcli_convert_command(count - 1, words + 1);
  if (is(first, "database") || is(first, "dbc") || is(first, "ldf") || is(first, "a2l"))
    return dispatch_database_command(first, action, count > 2 ? count - 2 : 0, words + 2);
  if (is(first, "uds") && is(action, "dtc") && vxcli_uds_dtc_check_options(count - 2, words + 2) != 0)
    return 1;
  if (is(first, "modbus")) return dispatch_command(count, words, count, words);

  if (vxcli_device_library_init(message, sizeof message) != 0) {
    vxcli_print_error("%s", message);
    return 1;
  }
  int rc = dispatch_command(count, words, count, words);
  vxcli_device_library_shutdown();
  return rc;
}
