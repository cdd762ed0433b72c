// Help printed from the catalogue: root, category and command level, as text
// for people and as one JSON document (the machine-readable contract).
#include <cstdio>
#include <cstring>
#include <string>

#include "build_info.h"
#include "cli/catalog.h"
#include "cli/output.h"

namespace {

bool is_json(uint32_t format) {
  return format == VXCLI_FORMAT_JSON || format == VXCLI_FORMAT_JSONL;
}

bool is(const char* word, const char* text) { return word && strcmp(word, text) == 0; }

// Help documents keep their own escaping (lower-case \u escapes) so that the
// contract stays byte-stable whatever the shared writer does; null prints "".
void put_string(std::string& out, const char* text) {
  out += '"';
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text ? text : ""); *p;
       p++) {
    switch (*p) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (*p < 0x20) {
          char escaped[8];
          snprintf(escaped, sizeof escaped, "\\u%04x", *p);
          out += escaped;
        } else {
          out += static_cast<char>(*p);
        }
    }
  }
  out += '"';
}

void put_string_or_null(std::string& out, const char* text) {
  if (text) put_string(out, text);
  else out += "null";
}

void put_key(std::string& out, const char* key) {
  put_string(out, key);
  out += ':';
}

// Writes one JSON object's members, placing the commas between them.
struct Members {
  std::string& out;
  bool first = true;
  void key(const char* name) {
    if (!first) out += ',';
    first = false;
    put_key(out, name);
  }
  void text(const char* name, const char* value) {
    key(name);
    put_string(out, value);
  }
  void nullable(const char* name, const char* value) {
    key(name);
    put_string_or_null(out, value);
  }
  void literal(const char* name, const char* value) {
    key(name);
    out += value;
  }
};

void put_metadata(std::string& out, const vxcli_command_entry* entry) {
  vxcli_command_policy policy;
  if (entry->kind != VXCLI_COMMAND_OPERATION || vxcli_command_metadata(entry, &policy) != 0) {
    out += "null";
    return;
  }
  out += '{';
  Members m{out};
  m.text("operation_id", policy.operation_id);
  m.text("permission", vxcli_command_permission_name(policy.permission));
  m.text("execution", vxcli_command_execution_name(policy.execution));
  m.text("http_policy", vxcli_command_http_policy_name(policy.http_policy));
  m.literal("migrated", policy.migrated ? "true" : "false");
  m.literal("retryable", policy.retryable ? "true" : "false");
  m.text("exposure_reason", policy.exposure_reason);
  out += '}';
}

void put_option(std::string& out, const vxcli_command_option* option) {
  char name[128];
  if (vxcli_command_option_name(option, name, sizeof name) != 0) snprintf(name, sizeof name, "argument");
  out += '{';
  Members m{out};
  m.text("syntax", option->syntax);
  m.text("name", name);
  m.text("value_type", vxcli_command_option_value_type(option));
  m.text("required", option->required);
  m.nullable("default", option->default_value);
  m.nullable("unit", option->unit);
  m.nullable("constraints", option->constraints);
  m.literal("mutually_exclusive_with", "[");
  if (option->mutually_exclusive_with) put_string(out, option->mutually_exclusive_with);
  out += ']';
  m.text("description", option->description);
  out += '}';
}

void put_global_options(std::string& out) {
  out += '[';
  int count = vxcli_command_global_option_count();
  for (int i = 0; i < count; i++) {
    if (i) out += ',';
    put_option(out, vxcli_command_global_option_at(i));
  }
  out += ']';
}

std::string path_of(const vxcli_command_entry* entry) {
  char path[128];
  if (vxcli_command_path(entry, path, sizeof path) != 0) return "";
  return path;
}

const char* kind_name(const vxcli_command_entry* entry) {
  return entry->kind == VXCLI_COMMAND_GROUP ? "group" : "operation";
}

const char* callable(const vxcli_command_entry* entry) {
  return entry->kind == VXCLI_COMMAND_GROUP ? "false" : "true";
}

// Path, kind, callable and metadata, shared by the root and category lists.
void put_command_summary(std::string& out, const vxcli_command_entry* entry, bool with_usage) {
  out += '{';
  Members m{out};
  m.text("path", path_of(entry).c_str());
  if (with_usage) m.text("usage", entry->usage);
  m.text("summary", entry->summary);
  m.text("kind", kind_name(entry));
  m.literal("callable", callable(entry));
  m.key("metadata");
  put_metadata(out, entry);
  out += '}';
}

void root_json(std::string& out) {
  out += "{\"status\":\"ok\",\"level\":\"root\",\"program\":\"vxcli\",\"version\":";
  put_string(out, VXCLI_VERSION);
  out += ",\"time_units\":{\"timeout\":\"ms\",\"cycle\":\"ms\",\"interval\":\"ms\","
         "\"delay\":\"ms\",\"duration\":\"s\"}";
  out += ",\"output_contract\":{\"bounded_json\":\"one document\",\"success_status\":\"ok\","
         "\"failure_status\":\"error\",\"jsonl\":\"one object per event\","
         "\"exit_codes\":[0,1]}";
  out += ",\"categories\":[";
  int categories = vxcli_command_category_count();
  for (int i = 0; i < categories; i++) {
    const vxcli_command_category* category = vxcli_command_category_at(i);
    if (i) out += ',';
    out += '{';
    Members m{out};
    m.text("name", category->name);
    m.text("summary", category->summary);
    m.nullable("aliases", category->aliases);
    out += '}';
  }
  out += "],\"commands\":[";
  int commands = vxcli_command_count();
  for (int i = 0; i < commands; i++) {
    if (i) out += ',';
    put_command_summary(out, vxcli_command_at(i), false);
  }
  out += "],\"global_options\":";
  put_global_options(out);
  out += "}\n";
}

void root_text(std::string& out) {
  char line[512];
  snprintf(line, sizeof line, "VXCLI v%s - QUELTAR Command Line Interface\n", VXCLI_VERSION);
  out += line;
  out += "Usage: vxcli <category> <action> [options]\n";
  out += "       vxcli help [category [action [subaction]]]\n";
  out += "\n";
  out += "Categories:\n";
  int categories = vxcli_command_category_count();
  for (int i = 0; i < categories; i++) {
    const vxcli_command_category* category = vxcli_command_category_at(i);
    snprintf(line, sizeof line, "  %-10s %s%s%s\n", category->name, category->summary,
             category->aliases ? " Alias: " : "", category->aliases ? category->aliases : "");
    out += line;
  }
  out += "\n";
  out += "Time units: timeout/cycle/interval/delay are milliseconds; duration is seconds.\n";
  out += "Channel selection: SN/port is recommended; UID/port and legacy index are supported.\n";
  out += "Use 'vxcli help <category>' or 'vxcli <category> <action> --help'.\n";
  out += "Use '--format=json' for the machine-readable command contract.\n";
  out += "Bounded JSON is one status=ok|error document; public exit codes are 0 and 1.\n";
}

void category_json(std::string& out, const vxcli_command_category* category) {
  out += "{\"status\":\"ok\",\"level\":\"category\",\"category\":";
  put_string(out, category->name);
  out += ",\"summary\":";
  put_string(out, category->summary);
  out += ",\"commands\":[";
  int commands = vxcli_command_count();
  bool first = true;
  for (int i = 0; i < commands; i++) {
    const vxcli_command_entry* entry = vxcli_command_at(i);
    if (strcmp(entry->category, category->name) != 0) continue;
    if (!first) out += ',';
    first = false;
    put_command_summary(out, entry, true);
  }
  out += "]}\n";
}

void category_text(std::string& out, const vxcli_command_category* category) {
  char line[1024];
  snprintf(line, sizeof line, "vxcli %s - %s\n\nCommands:\n", category->name, category->summary);
  out += line;
  int commands = vxcli_command_count();
  for (int i = 0; i < commands; i++) {
    const vxcli_command_entry* entry = vxcli_command_at(i);
    if (strcmp(entry->category, category->name) != 0) continue;
    snprintf(line, sizeof line, "  %-28s %s\n", entry->usage, entry->summary);
    out += line;
  }
  snprintf(line, sizeof line, "Use 'vxcli %s <action> [subaction] --help' for command options.\n",
           category->name);
  out += line;
}

void command_json(std::string& out, const vxcli_command_entry* entry) {
  out += "{\"status\":\"ok\",\"level\":\"command\",\"path\":";
  put_string(out, path_of(entry).c_str());
  out += ",\"kind\":";
  put_string(out, kind_name(entry));
  out += ",\"callable\":";
  out += callable(entry);
  out += ",\"metadata\":";
  put_metadata(out, entry);
  out += ",\"usage\":";
  put_string(out, entry->usage);
  out += ",\"summary\":";
  put_string(out, entry->summary);
  out += ",\"arguments\":";
  put_string_or_null(out, entry->arguments);
  out += ",\"options\":[";
  for (int i = 0; i < entry->option_count; i++) {
    if (i) out += ',';
    put_option(out, &entry->options[i]);
  }
  out += "],\"global_options\":";
  put_global_options(out);
  out += ",\"example\":";
  put_string_or_null(out, entry->example);
  out += ",\"notes\":";
  put_string_or_null(out, entry->notes);
  out += "}\n";
}

// A block's text, each line indented by two spaces.
void indented(std::string& out, const char* text) {
  out += "  ";
  for (const char* p = text; *p; p++) {
    out += *p;
    if (*p == '\n' && p[1]) out += "  ";
  }
  if (!*text || text[strlen(text) - 1] != '\n') out += '\n';
}

void command_text(std::string& out, const vxcli_command_entry* entry) {
  out += "Usage: ";
  out += entry->usage ? entry->usage : "";
  out += "\n\n";
  out += entry->summary ? entry->summary : "";
  out += '\n';
  if (entry->arguments) {
    out += "\nArguments:\n";
    indented(out, entry->arguments);
  }
  if (entry->option_count > 0) {
    out += "\nOptions:\n";
    for (int i = 0; i < entry->option_count; i++) {
      const vxcli_command_option& option = entry->options[i];
      char line[1024];
      snprintf(line, sizeof line, "  %-42s %s", option.syntax ? option.syntax : "",
               option.description ? option.description : "");
      out += line;
      if (option.required) out += std::string(" [required: ") + option.required + "]";
      if (option.default_value) out += std::string(" [default: ") + option.default_value + "]";
      if (option.unit) out += std::string(" [unit: ") + option.unit + "]";
      out += '\n';
    }
  }
  if (entry->example) {
    out += "\nExample:\n";
    indented(out, entry->example);
  }
  if (entry->notes) {
    out += "\nNotes:\n";
    indented(out, entry->notes);
  }
  out += "\nGlobal options: --format=<text|json|jsonl|csv>, --to=<URL>, --project=<directory>, "
         "--verbose, --help\n";
}

void write_all(FILE* out, const std::string& text) {
  fwrite(text.data(), 1, text.size(), out);
  fflush(out);
}

void unknown_target_json(const char* const* targets, int count) {
  std::string out = "{\"status\":\"error\",\"message\":\"unknown help target\",\"category\":";
  put_string_or_null(out, count > 0 ? targets[0] : nullptr);
  out += ",\"action\":";
  put_string_or_null(out, count > 1 ? targets[1] : nullptr);
  out += ",\"subaction\":";
  put_string_or_null(out, count > 2 ? targets[2] : nullptr);
  out += "}\n";
  write_all(stdout, out);
}

}  // namespace

void vxcli_help_write_root(FILE* out, uint32_t format) {
  std::string text;
  if (is_json(format)) root_json(text);
  else root_text(text);
  write_all(out, text);
}

void vxcli_help_write_category(FILE* out, const vxcli_command_category* category,
                               uint32_t format) {
  if (!category) return;
  std::string text;
  if (is_json(format)) category_json(text, category);
  else category_text(text, category);
  write_all(out, text);
}

void vxcli_help_write_command(FILE* out, const vxcli_command_entry* entry, uint32_t format) {
  if (!entry) return;
  std::string text;
  if (is_json(format)) command_json(text, entry);
  else command_text(text, entry);
  write_all(out, text);
}

void vxcli_help_print_root() { vxcli_help_write_root(stdout, g_config.format); }

bool vxcli_help_requested(int count, char** words) {
  if (count > 0 && is(words[0], "help")) return true;
  for (int i = 0; i < count; i++)
    if (is(words[i], "--help") || is(words[i], "-h")) return true;
  return false;
}

int vxcli_help_run(int count, char** words) {
  uint32_t format = g_config.format;
  if (count <= 0 || (count == 1 && is(words[0], "help"))) {
    vxcli_help_write_root(stdout, format);
    return 0;
  }
  const char* targets[3] = {nullptr, nullptr, nullptr};
  int found = 0;
  for (int i = is(words[0], "help") ? 1 : 0; i < count && found < 3; i++) {
    const char* word = words[i];
    if (is(word, "--help") || is(word, "-h")) break;
    if (word[0] == '-') continue;
    targets[found++] = word;
  }
  if (found == 0) {
    vxcli_help_write_root(stdout, format);
    return 0;
  }
  const vxcli_command_entry* entry = nullptr;
  if (found == 3) entry = vxcli_command_find(targets[0], targets[1], targets[2]);
  if (!entry && found >= 2) entry = vxcli_command_find(targets[0], targets[1], nullptr);
  if (!entry && found == 1) entry = vxcli_command_find(targets[0], nullptr, nullptr);
  if (entry) {
    vxcli_help_write_command(stdout, entry, format);
    return 0;
  }
  const vxcli_command_category* category = vxcli_command_category_find(targets[0]);
  if (category && found == 1) {
    vxcli_help_write_category(stdout, category, format);
    return 0;
  }
  if (is_json(format)) {
    unknown_target_json(targets, found);
    return 1;
  }
  if (!category) {
    fprintf(stderr, "ERROR: unknown help category '%s'\n", targets[0]);
    vxcli_help_write_root(stdout, format);
  } else {
    fprintf(stderr, "ERROR: unknown %s action '%s'\n", category->name, targets[1]);
    vxcli_help_write_category(stdout, category, format);
  }
  return 1;
}
