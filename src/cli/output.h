// Process-wide configuration and the output conventions every command follows.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <cstddef>

enum : uint32_t {
  VXCLI_FORMAT_TEXT = 0,
  VXCLI_FORMAT_JSON = 1,
  VXCLI_FORMAT_JSONL = 2,
  VXCLI_FORMAT_CSV = 3,
};

struct vxcli_config {
  uint32_t format;      // VXCLI_FORMAT_*
  const char* to;       // daemon endpoint as given; recorded only
  const char* project;  // project directory or null
  uint32_t verbose;     // 1 = diagnostics on stderr
};

// Written only by entry, read everywhere.
extern vxcli_config g_config;

#define VXCLI_VXAPI_HEADER_VERSION 0x010E002Au

// Handler convention: the words after the command path; returns 0 or 1.
using vxcli_handler = int (*)(int count, char** words);

const char* vxcli_status_to_string(uint32_t status);

// First "--name=value" or "--name value"; null when absent (or a bare final flag).
const char* vxcli_get_option(int argc, char** argv, const char* name);
// True when "--name" or "--name=..." appears anywhere among the words.
bool vxcli_has_flag(int argc, char** argv, const char* name);

// Newly allocated formatted text (caller frees with free()); null on failure or > 1 MiB.
char* vxcli_vformat_alloc(const char* format, va_list args);
char* vxcli_format_alloc(const char* format, ...) __attribute__((format(printf, 1, 2)));

void vxcli_print_error(const char* format, ...) __attribute__((format(printf, 1, 2)));
void vxcli_print_error_code(const char* code, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
void vxcli_print_warning(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The error line of json/jsonl mode for one message (what vxcli_print_error writes).
// Returned text is newly allocated; null only when out of memory.
char* vxcli_error_json_alloc(const char* code, const char* message);

void print_version();

struct vxcli_json_writer;
// True when the output format is json or jsonl.
bool vxcli_json_mode();
// Starts a bounded (64 MiB) JSON answer; false, with the error printed, when out of memory.
bool vxcli_json_document_start(vxcli_json_writer* w);
// Prints a finished JSON answer, or the size error in its place, and frees the writer; 0 or 1.
int vxcli_json_document_print(vxcli_json_writer* w);

// Escapes a text for a JSON string body the way warnings and identity lines do
// (upper-case \u%04X for other control bytes). Appends to out (std::string-free API).
size_t vxcli_json_escape_to(const char* text, char* out, size_t out_size);
