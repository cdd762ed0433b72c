// The built-in command catalogue, help and validation.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

enum : int32_t {
  VXCLI_COMMAND_OPERATION = 0,  // callable
  VXCLI_COMMAND_GROUP = 1,      // only holds sub-commands
};

enum : uint32_t {
  VXCLI_PERMISSION_READ = 0,
  VXCLI_PERMISSION_BUS_WRITE = 1,
  VXCLI_PERMISSION_HOST_FILE_WRITE = 2,
  VXCLI_PERMISSION_SERVICE_ADMIN = 3,
  VXCLI_PERMISSION_DEVICE_DISRUPTIVE = 4,
};

enum : uint32_t {
  VXCLI_EXECUTION_LOCAL = 0,
  VXCLI_EXECUTION_DAEMON = 1,
  VXCLI_EXECUTION_JOB = 2,
};

enum : uint32_t {
  VXCLI_HTTP_DISABLED = 0,
  VXCLI_HTTP_READ = 1,
  VXCLI_HTTP_MUTATE = 2,
  VXCLI_HTTP_JOB = 3,
};

// One option row of a command. Every field is text; null where absent.
// The member defaults let the data file leave trailing fields out.
struct vxcli_command_option {
  const char* syntax = nullptr;       // as written in help: "--channel=<spec>"
  const char* required = nullptr;     // free text: "yes", "no", "CAN only", ...
  const char* default_value = nullptr;
  const char* unit = nullptr;         // "ms", "s", "kbps", ...
  const char* description = nullptr;  // one sentence
  const char* value_type = nullptr;   // explicit type, or null to infer
  const char* constraints = nullptr;  // "1..65535"
  const char* mutually_exclusive_with = nullptr;  // one other option
};

struct vxcli_command_entry {
  const char* category;
  const char* action;     // null for one-word commands
  const char* subaction;  // null for one- and two-word commands
  const char* usage;
  const char* summary;
  const char* arguments;  // help for positional arguments, or null
  const vxcli_command_option* options;
  int32_t option_count;
  const char* example;
  const char* notes;
  int32_t kind;  // VXCLI_COMMAND_*
};

struct vxcli_command_category {
  const char* name;
  const char* summary;
  const char* aliases;  // null for every built-in category
};

// Fixed metadata of one operation, keyed by operation id.
struct vxcli_command_policy {
  const char* operation_id;
  uint32_t permission;   // VXCLI_PERMISSION_*
  uint32_t execution;    // VXCLI_EXECUTION_*
  uint32_t http_policy;  // VXCLI_HTTP_*
  uint32_t retryable;
  uint32_t migrated;     // a typed handler exists for the automation API
  const char* exposure_reason;
};

// A command line resolved to one operation.
struct vxcli_command_request {
  const vxcli_command_entry* entry;
  const char* operation_id;  // the caller's id buffer
  int32_t count;             // all words, path included
  char** words;
  int32_t path_words;        // 1..3
  uint32_t format;           // VXCLI_FORMAT_*
  void* context;
};

// --- catalogue data ---------------------------------------------------------
int vxcli_command_count();
const vxcli_command_entry* vxcli_command_at(int index);
int vxcli_command_category_count();
const vxcli_command_category* vxcli_command_category_at(int index);
const vxcli_command_category* vxcli_command_category_find(const char* name);
int vxcli_command_global_option_count();
const vxcli_command_option* vxcli_command_global_option_at(int index);
int vxcli_command_policy_count();
const vxcli_command_policy* vxcli_command_policy_at(int index);

// --- lookup and naming ------------------------------------------------------
// Exact, case-sensitive; a null word matches only an entry without that word.
const vxcli_command_entry* vxcli_command_find(const char* w1, const char* w2, const char* w3);
// "channel power status"; 0, or -1 when arguments are missing or it does not fit.
int vxcli_command_path(const vxcli_command_entry* entry, char* out, size_t size);
// "channel.power.status"; 0 or -1 as above.
int vxcli_command_operation_id(const vxcli_command_entry* entry, char* out, size_t size);
// Bare option name taken from its syntax ("channel" from "--channel=<spec>"); 0 or -1.
int vxcli_command_option_name(const vxcli_command_option* option, char* out, size_t size);
// "integer", "string", "boolean", "enum" or the explicit type.
const char* vxcli_command_option_value_type(const vxcli_command_option* option);

// --- resolution and validation ---------------------------------------------
// Resolves words to an operation (longest existing path). 0, or -1 with a message.
int vxcli_command_request_init(vxcli_command_request* request, int count, char** words,
                               uint32_t format, void* context, char* id_out, size_t id_size,
                               char* message, size_t message_size);
// 0, or -1 with a message; unknown paths and groups pass (dispatch reports them).
int vxcli_command_validate_options(int count, char** words, char* message, size_t size);
int vxcli_command_validate_format(int count, char** words, uint32_t format, char* message,
                                  size_t size);

// --- metadata ---------------------------------------------------------------
// Copies the operation's row; -1 for a group or an operation without a row.
int vxcli_command_metadata(const vxcli_command_entry* entry, vxcli_command_policy* out);
const char* vxcli_command_permission_name(uint32_t permission);
const char* vxcli_command_execution_name(uint32_t execution);
const char* vxcli_command_http_policy_name(uint32_t http_policy);

// --- help -------------------------------------------------------------------
bool vxcli_help_requested(int count, char** words);
// Prints help for the words in g_config's format; returns the exit status.
int vxcli_help_run(int count, char** words);
void vxcli_help_print_root();
// The same documents written to any stream in a given format (text/csv or json/jsonl).
void vxcli_help_write_root(FILE* out, uint32_t format);
void vxcli_help_write_category(FILE* out, const vxcli_command_category* category,
                               uint32_t format);
void vxcli_help_write_command(FILE* out, const vxcli_command_entry* entry, uint32_t format);
