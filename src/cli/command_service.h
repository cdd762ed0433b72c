// Registry of typed operation handlers used by the automation API: requests
// carry an operation id and named text parameters, results carry named typed
// values instead of printed output.
#pragma once

#include <cstddef>
#include <cstdint>

enum : uint32_t {
  VXCLI_SERVICE_VALUE_BOOL = 1,
  VXCLI_SERVICE_VALUE_UINT64 = 3,
  VXCLI_SERVICE_VALUE_STRING = 5,
};

enum : size_t {
  VXCLI_SERVICE_MAX_HANDLERS = 128,
  VXCLI_SERVICE_MAX_ID = 95,       // characters of an operation id
  VXCLI_SERVICE_MAX_VALUES = 64,
  VXCLI_SERVICE_MAX_NAME = 47,     // characters of a value name
  VXCLI_SERVICE_MAX_TEXT = 255,    // characters of a text value or error message
  VXCLI_SERVICE_MAX_CODE = 63,     // characters of an error code
};

struct vxcli_service_param {
  const char* name;
  const char* value;
};

struct vxcli_service_request {
  const char* operation_id;  // first field: what the invoker dispatches on
  const vxcli_service_param* params;
  uint32_t param_count;
  uint32_t format;           // VXCLI_FORMAT_* the caller wants, if it prints anything
};

struct vxcli_service_result_value {
  char name[VXCLI_SERVICE_MAX_NAME + 1];
  uint32_t type;  // VXCLI_SERVICE_VALUE_*
  uint32_t boolean;
  uint64_t number;
  char text[VXCLI_SERVICE_MAX_TEXT + 1];
};

struct vxcli_service_result {
  uint32_t ok;
  int32_t status;  // HTTP-like: 200 on success
  char code[VXCLI_SERVICE_MAX_CODE + 1];
  char message[VXCLI_SERVICE_MAX_TEXT + 1];
  uint32_t retryable;
  uint32_t value_count;
  vxcli_service_result_value values[VXCLI_SERVICE_MAX_VALUES];
};

// Handler: fills result; returns 0 on success or -1.
using vxcli_service_handler = int (*)(void* context, const vxcli_service_request* request,
                                      vxcli_service_result* result);

struct vxcli_command_service;

// A new service with the "version" operation registered; null when that fails.
vxcli_command_service* vxcli_command_service_create();
void vxcli_command_service_destroy(vxcli_command_service* service);
// Adds or replaces the handler of an id; 0, or -1 (empty or too long id, null
// handler, or no room for a new id).
int vxcli_command_service_register(vxcli_command_service* service, const char* operation_id,
                                   vxcli_service_handler handler, void* context);
bool vxcli_command_service_has_handler(const vxcli_command_service* service,
                                       const char* operation_id);
// Clears result, then runs the handler; returns its result, or -1 with status
// 400 "invalid_request" / 404 "operation_not_migrated".
int vxcli_command_service_invoke(vxcli_command_service* service,
                                 const vxcli_service_request* request,
                                 vxcli_service_result* result);

// Clears the record and marks success (ok, 200).
void vxcli_service_result_ok(vxcli_service_result* result);
// Marks failure; empty code and message become "operation_failed" / "operation failed".
void vxcli_service_result_error(vxcli_service_result* result, int32_t status, const char* code,
                                const char* message, bool retryable);
// Appends one named value; 0, or -1 when the name or text does not fit or 64 are held.
int vxcli_service_result_string(vxcli_service_result* result, const char* name,
                                const char* value);
int vxcli_service_result_uint64(vxcli_service_result* result, const char* name, uint64_t value);
int vxcli_service_result_bool(vxcli_service_result* result, const char* name, bool value);
// First parameter of the request with exactly this name, or null.
const char* vxcli_service_value(const vxcli_service_request* request, const char* name);
