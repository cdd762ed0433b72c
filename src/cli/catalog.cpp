// Catalogue lookup, naming, request resolution and validation of command lines.
#include "cli/catalog.h"

#include <cstdio>
#include <cstring>
#include <initializer_list>

#include "cli/output.h"

namespace {

bool same_word(const char* entry_word, const char* word) {
  if (!entry_word || !word) return entry_word == word;
  return strcmp(entry_word, word) == 0;
}

const vxcli_command_entry* find_command(const char* w1, const char* w2, const char* w3) {
  if (!w1) return nullptr;
  int count = vxcli_command_count();
  for (int i = 0; i < count; i++) {
    const vxcli_command_entry* entry = vxcli_command_at(i);
    if (same_word(entry->category, w1) && same_word(entry->action, w2) &&
        same_word(entry->subaction, w3))
      return entry;
  }
  return nullptr;
}

void set_message(char* message, size_t size, const char* text) {
  if (message && size) snprintf(message, size, "%s", text);
}

// Joins the present words with sep; -1 when missing arguments or it does not fit.
int join_path(const vxcli_command_entry* entry, char sep, char* out, size_t size) {
  if (!entry || !entry->category || !out || size == 0) return -1;
  const char* parts[3] = {entry->category, entry->action, entry->subaction};
  size_t used = 0;
  for (const char* part : parts) {
    if (!part) break;
    size_t length = strlen(part);
    size_t needed = length + (used ? 1 : 0);
    if (used + needed + 1 > size) {
      out[0] = 0;
      return -1;
    }
    if (used) out[used++] = sep;
    memcpy(out + used, part, length);
    used += length;
  }
  out[used] = 0;
  return 0;
}

bool ends_candidate(char c) {
  return c == 0 || c == ' ' || c == ')' || c == ',' || c == '=' || c == ']' || c == '|';
}

// True when any "--name" inside the syntax has exactly this name.
bool syntax_names(const char* syntax, const char* name, size_t length) {
  if (!syntax) return false;
  for (const char* p = strstr(syntax, "--"); p; p = strstr(p + 2, "--")) {
    const char* start = p + 2;
    const char* end = start;
    while (!ends_candidate(*end)) end++;
    if (static_cast<size_t>(end - start) == length && memcmp(start, name, length) == 0)
      return true;
  }
  return false;
}

bool entry_accepts(const vxcli_command_entry* entry, const char* name, size_t length) {
  for (int i = 0; i < entry->option_count; i++)
    if (syntax_names(entry->options[i].syntax, name, length)) return true;
  return false;
}

bool name_is(const char* name, size_t length, const char* text) {
  return strlen(text) == length && memcmp(name, text, length) == 0;
}

const char* format_name(uint32_t format) {
  switch (format) {
    case VXCLI_FORMAT_TEXT: return "text";
    case VXCLI_FORMAT_JSON: return "json";
    case VXCLI_FORMAT_JSONL: return "jsonl";
    case VXCLI_FORMAT_CSV: return "csv";
  }
  return "unknown";
}

}  // namespace

const vxcli_command_entry* vxcli_command_find(const char* w1, const char* w2, const char* w3) {
  return find_command(w1, w2, w3);
}

int vxcli_command_path(const vxcli_command_entry* entry, char* out, size_t size) {
  return join_path(entry, ' ', out, size);
}

int vxcli_command_operation_id(const vxcli_command_entry* entry, char* out, size_t size) {
  return join_path(entry, '.', out, size);
}

int vxcli_command_option_name(const vxcli_command_option* option, char* out, size_t size) {
  if (!option || !option->syntax || !out || size == 0) return -1;
  const char* p = option->syntax;
  while (*p == ' ' || *p == '(' || *p == '[') p++;
  if (p[0] == '-' && p[1] == '-') p += 2;
  else if (*p == '<') p++;
  const char* end = p;
  while (*end && *end != ' ' && *end != ')' && *end != ',' && *end != '=' && *end != '>' &&
         *end != ']' && *end != '|')
    end++;
  size_t length = static_cast<size_t>(end - p);
  if (length == 0 || length + 1 > size) {
    out[0] = 0;
    return -1;
  }
  memcpy(out, p, length);
  out[length] = 0;
  return 0;
}

const char* vxcli_command_option_value_type(const vxcli_command_option* option) {
  if (!option) return "string";
  if (option->value_type) return option->value_type;
  const char* syntax = option->syntax ? option->syntax : "";
  if (strncmp(syntax, "--", 2) == 0 && !strchr(syntax, '=')) return "boolean";
  if (const char* unit = option->unit) {
    for (const char* word : {"ms", "s", "bps", "kbps", "ohm", "events"})
      if (strcmp(unit, word) == 0) return "integer";
  }
  for (const char* word : {"<count>", "<index>", "<byte>", "<port>"})
    if (strstr(syntax, word)) return "integer";
  if (!strchr(syntax, '<')) return "string";
  if (strchr(syntax, '|')) return "enum";
  return "string";
}

int vxcli_command_request_init(vxcli_command_request* request, int count, char** words,
                               uint32_t format, void* context, char* id_out, size_t id_size,
                               char* message, size_t message_size) {
  if (!request || count <= 0 || !words || !words[0] || !id_out || id_size == 0) {
    set_message(message, message_size, "empty command request");
    return -1;
  }
  const vxcli_command_entry* entry = nullptr;
  int path_words = 0;
  if (count >= 3 && words[1] && words[2] && words[2][0] != '-') {
    entry = find_command(words[0], words[1], words[2]);
    path_words = 3;
  }
  if (!entry && count >= 2 && words[1] && words[1][0] != '-') {
    entry = find_command(words[0], words[1], nullptr);
    path_words = 2;
  }
  if (!entry) {
    entry = find_command(words[0], nullptr, nullptr);
    path_words = 1;
  }
  if (!entry) {
    set_message(message, message_size, "unknown command path");
    return -1;
  }
  if (entry->kind == VXCLI_COMMAND_GROUP) {
    set_message(message, message_size, "command path is a group, not an operation");
    return -1;
  }
  if (vxcli_command_operation_id(entry, id_out, id_size) != 0) {
    set_message(message, message_size, "operation id buffer is too small");
    return -1;
  }
  request->entry = entry;
  request->operation_id = id_out;
  request->count = count;
  request->words = words;
  request->path_words = path_words;
  request->format = format;
  request->context = context;
  set_message(message, message_size, "");
  return 0;
}

int vxcli_command_validate_options(int count, char** words, char* message, size_t size) {
  set_message(message, size, "");
  vxcli_command_request request;
  char id[128];
  char ignored[96];
  if (vxcli_command_request_init(&request, count, words, VXCLI_FORMAT_TEXT, nullptr, id,
                                 sizeof id, ignored, sizeof ignored) != 0)
    return 0;  // dispatch words unknown paths and groups itself
  for (int i = request.path_words; i < count; i++) {
    const char* word = words[i];
    if (!word || strncmp(word, "--", 2) != 0) continue;
    const char* name = word + 2;
    const char* equals = strchr(name, '=');
    size_t length = equals ? static_cast<size_t>(equals - name) : strlen(name);
    if (length == 0) {
      set_message(message, size, "invalid empty option");
      return -1;
    }
    if (entry_accepts(request.entry, name, length)) continue;
    int shown = length > 4096 ? 4096 : static_cast<int>(length);
    if (strcmp(id, "update") == 0 && name_is(name, length, "dry-run")) {
      set_message(message, size, "--dry-run was removed; use update --check");
    } else if (strcmp(id, "message.send") == 0 &&
               (name_is(name, length, "master-read") || name_is(name, length, "sync-break") ||
                name_is(name, length, "request"))) {
      if (message && size)
        snprintf(message, size, "--%.*s was removed; use --type=<operation>", shown, name);
    } else if (message && size) {
      snprintf(message, size, "unknown option '--%.*s' for %s", shown, name, id);
    }
    return -1;
  }
  return 0;
}

int vxcli_command_validate_format(int count, char** words, uint32_t format, char* message,
                                  size_t size) {
  set_message(message, size, "");
  vxcli_command_request request;
  char id[128];
  char ignored[96];
  if (vxcli_command_request_init(&request, count, words, format, nullptr, id, sizeof id, ignored,
                                 sizeof ignored) != 0)
    return 0;
  if (strcmp(id, "xcp.daq.receive") == 0 &&
      (format == VXCLI_FORMAT_JSONL || format == VXCLI_FORMAT_CSV)) {
    if (message && size)
      snprintf(message, size,
               "xcp daq receive supports text or bounded JSON; use --format=json, not %s",
               format_name(format));
    return -1;
  }
  if (strncmp(id, "modbus.", 7) == 0 && format != VXCLI_FORMAT_JSON &&
      format != VXCLI_FORMAT_JSONL) {
    if (message && size)
      snprintf(message, size,
               "Modbus commands return structured JSON; use --format=json, not %s",
               format_name(format));
    return -1;
  }
  return 0;
}

int vxcli_command_metadata(const vxcli_command_entry* entry, vxcli_command_policy* out) {
  if (!entry || !out || entry->kind != VXCLI_COMMAND_OPERATION) return -1;
  char id[128];
  if (vxcli_command_operation_id(entry, id, sizeof id) != 0) return -1;
  int count = vxcli_command_policy_count();
  for (int i = 0; i < count; i++) {
    const vxcli_command_policy* policy = vxcli_command_policy_at(i);
    if (strcmp(policy->operation_id, id) == 0) {
      *out = *policy;
      return 0;
    }
  }
  return -1;
}

const char* vxcli_command_permission_name(uint32_t permission) {
  switch (permission) {
    case VXCLI_PERMISSION_READ: return "read";
    case VXCLI_PERMISSION_BUS_WRITE: return "bus-write";
    case VXCLI_PERMISSION_HOST_FILE_WRITE: return "host-file-write";
    case VXCLI_PERMISSION_SERVICE_ADMIN: return "service-admin";
    case VXCLI_PERMISSION_DEVICE_DISRUPTIVE: return "device-disruptive";
  }
  return "unknown";
}

const char* vxcli_command_execution_name(uint32_t execution) {
  switch (execution) {
    case VXCLI_EXECUTION_LOCAL: return "local";
    case VXCLI_EXECUTION_DAEMON: return "daemon";
    case VXCLI_EXECUTION_JOB: return "job";
  }
  return "unknown";
}

const char* vxcli_command_http_policy_name(uint32_t http_policy) {
  switch (http_policy) {
    case VXCLI_HTTP_DISABLED: return "disabled";
    case VXCLI_HTTP_READ: return "read";
    case VXCLI_HTTP_MUTATE: return "mutate";
    case VXCLI_HTTP_JOB: return "job";
  }
  return "unknown";
}
