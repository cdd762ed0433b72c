// Output conventions shared by every command: reporters, status texts, option lookup.
#include "cli/output.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "build_info.h"
#include "json/json.h"

vxcli_config g_config = {VXCLI_FORMAT_TEXT, "tcp://127.0.0.1:4502", nullptr, 0};

const char* vxcli_status_to_string(uint32_t status) {
  switch (status) {
    case 0x0: return "OK";
    case 0x1: return "Transmit buffer full";
    case 0x2: return "Bus overrun";
    case 0x4: return "Bus light error";
    case 0x8: return "Bus heavy error";
    case 0x10: return "Bus off";
    case 0x20: return "Receive queue empty";
    case 0x40: return "Queue overrun";
    case 0x80: return "Transmit queue full";
    case 0x100: return "Register test error";
    case 0x200: return "No driver";
    case 0x400: return "Hardware in use";
    case 0x800: return "Network in use";
    case 0x1400: return "Invalid hardware";
    case 0x1800: return "Invalid network";
    case 0x1C00: return "Invalid client";
    case 0x2000: return "Out of resource";
    case 0x4000: return "Invalid parameter type";
    case 0x8000: return "Invalid parameter value";
    case 0x10000: return "Unknown error";
    case 0x20000: return "Invalid data";
    case 0x40000: return "Bus passive";
    case 0x80000: return "Bus timeout";
    case 0x1000000: return "Invalid configuration";
    case 0x2000000: return "Caution";
    case 0x4000000: return "Not initialized";
    case 0x8000000: return "Invalid operation";
    default: return "Unknown status code";
  }
}

const char* vxcli_get_option(int argc, char** argv, const char* name) {
  if (!argv || !name) return nullptr;
  size_t name_length = strlen(name);
  for (int i = 0; i < argc; i++) {
    const char* word = argv[i];
    if (!word || word[0] != '-' || word[1] != '-') continue;
    const char* body = word + 2;
    if (strchr(body, '=')) {
      if (strncmp(body, name, name_length) == 0 && body[name_length] == '=')
        return body + name_length + 1;
    } else if (strcmp(body, name) == 0) {
      return i + 1 < argc ? argv[i + 1] : nullptr;
    }
  }
  return nullptr;
}

bool vxcli_has_flag(int argc, char** argv, const char* name) {
  if (!argv || !name) return false;
  size_t name_length = strlen(name);
  for (int i = 0; i < argc; i++) {
    const char* word = argv[i];
    if (!word || strncmp(word, "--", 2) != 0) continue;
    if (strncmp(word + 2, name, name_length) == 0 &&
        (word[2 + name_length] == 0 || word[2 + name_length] == '='))
      return true;
  }
  return false;
}

char* vxcli_vformat_alloc(const char* format, va_list args) {
  if (!format) return nullptr;
  va_list copy;
  va_copy(copy, args);
  int n = vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  if (n < 0 || n > 0x100000) return nullptr;
  char* text = static_cast<char*>(malloc(static_cast<size_t>(n) + 1));
  if (!text) return nullptr;
  vsnprintf(text, static_cast<size_t>(n) + 1, format, args);
  return text;
}

char* vxcli_format_alloc(const char* format, ...) {
  va_list args;
  va_start(args, format);
  char* text = vxcli_vformat_alloc(format, args);
  va_end(args);
  return text;
}

namespace {

const char kOutOfMemory[] =
    "{\"status\":\"error\",\"message\":\"out of memory while formatting error\",\"error\":{"
    "\"code\":\"out_of_memory\",\"message\":\"out of memory while formatting error\","
    "\"details\":{},\"retryable\":false}}\n";
const char kTooLarge[] =
    "{\"status\":\"error\",\"message\":\"error output exceeded limit\",\"error\":{"
    "\"code\":\"response_too_large\",\"message\":\"error output exceeded limit\","
    "\"details\":{},\"retryable\":false}}\n";

void report(const char* code, const char* format, va_list args) {
  char* message = vxcli_vformat_alloc(format, args);
  const char* text = message;
  if (!text) {
    text = "failed to format error message";
    code = "error_format_failed";
  }
  if (g_config.format == VXCLI_FORMAT_JSON || g_config.format == VXCLI_FORMAT_JSONL) {
    char* line = vxcli_error_json_alloc(code, text);
    fputs(line ? line : kOutOfMemory, stdout);
    fflush(stdout);
    free(line);
  } else {
    fprintf(stderr, "ERROR: %s\n", text);
  }
  free(message);
}

}  // namespace

char* vxcli_error_json_alloc(const char* code, const char* message) {
  vxcli_json_writer w;
  if (vxcli_json_writer_init(&w, 256, 0x100000) != 0) {
    vxcli_json_writer_free(&w);
    return nullptr;
  }
  vxcli_json_writer_raw(&w, "{\"status\":\"error\",\"message\":");
  vxcli_json_writer_string(&w, message);
  vxcli_json_writer_raw(&w, ",\"error\":{\"code\":");
  vxcli_json_writer_string(&w, code);
  vxcli_json_writer_raw(&w, ",\"message\":");
  vxcli_json_writer_string(&w, message);
  vxcli_json_writer_raw(&w, ",\"details\":{},\"retryable\":false}}\n");
  char* result = nullptr;
  if (vxcli_json_writer_ok(&w)) {
    result = strdup(vxcli_json_writer_data(&w));
  } else {
    result = strdup(kTooLarge);
  }
  vxcli_json_writer_free(&w);
  return result;
}

void vxcli_print_error(const char* format, ...) {
  va_list args;
  va_start(args, format);
  report("command_failed", format, args);
  va_end(args);
}

void vxcli_print_error_code(const char* code, const char* format, ...) {
  va_list args;
  va_start(args, format);
  report(code ? code : "command_failed", format, args);
  va_end(args);
}

size_t vxcli_json_escape_to(const char* text, char* out, size_t out_size) {
  size_t n = 0;
  if (!out || out_size == 0) return 0;
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text ? text : ""); *p; p++) {
    char esc[8];
    const char* e = nullptr;
    switch (*p) {
      case '\b': e = "\\b"; break;
      case '\t': e = "\\t"; break;
      case '\n': e = "\\n"; break;
      case '\f': e = "\\f"; break;
      case '\r': e = "\\r"; break;
      case '"': e = "\\\""; break;
      case '\\': e = "\\\\"; break;
      default:
        if (*p < 0x20) {
          snprintf(esc, sizeof esc, "\\u%04X", *p);
          e = esc;
        }
    }
    if (e) {
      size_t len = strlen(e);
      if (n + len >= out_size) break;
      memcpy(out + n, e, len);
      n += len;
    } else {
      if (n + 1 >= out_size) break;
      out[n++] = static_cast<char>(*p);
    }
  }
  out[n] = 0;
  return n;
}

void vxcli_print_warning(const char* format, ...) {
  char message[512];
  va_list args;
  va_start(args, format);
  vsnprintf(message, sizeof message, format, args);
  va_end(args);
  if (g_config.format == VXCLI_FORMAT_JSONL) {
    char escaped[512 * 6 + 1];
    vxcli_json_escape_to(message, escaped, sizeof escaped);
    printf("{\"status\":\"ok\",\"event\":\"warning\",\"message\":\"%s\"}\n", escaped);
    fflush(stdout);
  } else {
    fprintf(stderr, "WARN: %s\n", message);
  }
}

void print_version() {
  if (g_config.format == VXCLI_FORMAT_JSON || g_config.format == VXCLI_FORMAT_JSONL) {
    printf("{\"status\":\"ok\",\"version\":\"%s\",\"build_number\":\"%s\",\"git_commit\":\"%s\","
           "\"vxapi_header_version\":\"0x%08X\"}\n",
           VXCLI_VERSION, VXCLI_BUILD_NUMBER, VXCLI_GIT_COMMIT, VXCLI_VXAPI_HEADER_VERSION);
  } else {
    printf("VXCLI v%s (build %s, commit %s, VXAPI 0x%08X)\n", VXCLI_VERSION, VXCLI_BUILD_NUMBER,
           VXCLI_GIT_COMMIT, VXCLI_VXAPI_HEADER_VERSION);
  }
}

bool vxcli_json_mode() {
  return g_config.format == VXCLI_FORMAT_JSON || g_config.format == VXCLI_FORMAT_JSONL;
}

bool vxcli_json_document_start(vxcli_json_writer* w) {
  *w = vxcli_json_writer{};
  if (vxcli_json_writer_init(w, 4096, 64u << 20) == 0) return true;
  vxcli_print_error("out of memory");
  return false;
}

int vxcli_json_document_print(vxcli_json_writer* w) {
  int rc = 0;
  if (vxcli_json_writer_ok(w)) {
    fwrite(vxcli_json_writer_data(w), 1, vxcli_json_writer_length(w), stdout);
  } else {
    vxcli_print_error_code("response_too_large", "response exceeded the output limit");
    rc = 1;
  }
  vxcli_json_writer_free(w);
  return rc;
}
