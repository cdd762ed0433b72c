// Typed operation registry of the automation API.
#include "cli/command_service.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "build_info.h"

struct vxcli_command_service {
  struct Registration {
    char operation_id[VXCLI_SERVICE_MAX_ID + 1];
    vxcli_service_handler handler;
    void* context;
  };
  Registration registrations[VXCLI_SERVICE_MAX_HANDLERS];
  size_t count;
};

namespace {

// Copies text when it fits completely; a cut name or value would be a wrong answer.
bool copy_text(char* out, size_t size, const char* text) {
  size_t length = strlen(text);
  if (length + 1 > size) return false;
  memcpy(out, text, length + 1);
  return true;
}

vxcli_service_result_value* next_value(vxcli_service_result* result, const char* name,
                                       uint32_t type) {
  if (!result || !name || !*name || result->value_count >= VXCLI_SERVICE_MAX_VALUES)
    return nullptr;
  vxcli_service_result_value* value = &result->values[result->value_count];
  memset(value, 0, sizeof *value);
  if (!copy_text(value->name, sizeof value->name, name)) return nullptr;
  value->type = type;
  return value;
}

int version_handler(void*, const vxcli_service_request*, vxcli_service_result* result) {
  vxcli_service_result_ok(result);
  if (vxcli_service_result_string(result, "product_version", VXCLI_VERSION) != 0 ||
      vxcli_service_result_string(result, "build_number", VXCLI_BUILD_NUMBER) != 0 ||
      vxcli_service_result_string(result, "git_commit", VXCLI_GIT_COMMIT) != 0) {
    vxcli_service_result_error(result, 500, "result_capacity",
                               "version result capacity exceeded", false);
    return -1;
  }
  return 0;
}

vxcli_command_service::Registration* find(const vxcli_command_service* service,
                                          const char* operation_id) {
  if (!service || !operation_id) return nullptr;
  for (size_t i = 0; i < service->count; i++) {
    const vxcli_command_service::Registration& r = service->registrations[i];
    if (strcmp(r.operation_id, operation_id) == 0)
      return const_cast<vxcli_command_service::Registration*>(&r);
  }
  return nullptr;
}

}  // namespace

vxcli_command_service* vxcli_command_service_create() {
  auto* service = new (std::nothrow) vxcli_command_service();
  if (!service) return nullptr;
  if (vxcli_command_service_register(service, "version", version_handler, nullptr) != 0) {
    delete service;
    return nullptr;
  }
  return service;
}

void vxcli_command_service_destroy(vxcli_command_service* service) { delete service; }

int vxcli_command_service_register(vxcli_command_service* service, const char* operation_id,
                                   vxcli_service_handler handler, void* context) {
  if (!service || !operation_id || !*operation_id || !handler) return -1;
  if (strlen(operation_id) > VXCLI_SERVICE_MAX_ID) return -1;
  vxcli_command_service::Registration* existing = find(service, operation_id);
  if (existing) {
    existing->handler = handler;
    existing->context = context;
    return 0;
  }
  if (service->count >= VXCLI_SERVICE_MAX_HANDLERS) return -1;
  vxcli_command_service::Registration& r = service->registrations[service->count];
  copy_text(r.operation_id, sizeof r.operation_id, operation_id);
  r.handler = handler;
  r.context = context;
  service->count++;
  return 0;
}

bool vxcli_command_service_has_handler(const vxcli_command_service* service,
                                       const char* operation_id) {
  return find(service, operation_id) != nullptr;
}

int vxcli_command_service_invoke(vxcli_command_service* service,
                                 const vxcli_service_request* request,
                                 vxcli_service_result* result) {
  if (!result) return -1;
  memset(result, 0, sizeof *result);
  if (!request || !request->operation_id || !*request->operation_id) {
    vxcli_service_result_error(result, 400, "invalid_request",
                               "missing structured operation request", false);
    return -1;
  }
  vxcli_command_service::Registration* registration = find(service, request->operation_id);
  if (!registration) {
    vxcli_service_result_error(result, 404, "operation_not_migrated",
                               "operation has no typed handler", false);
    return -1;
  }
  return registration->handler(registration->context, request, result);
}

void vxcli_service_result_ok(vxcli_service_result* result) {
  if (!result) return;
  memset(result, 0, sizeof *result);
  result->ok = 1;
  result->status = 200;
}

void vxcli_service_result_error(vxcli_service_result* result, int32_t status, const char* code,
                                const char* message, bool retryable) {
  if (!result) return;
  result->ok = 0;
  result->status = status;
  snprintf(result->code, sizeof result->code, "%s",
           code && *code ? code : "operation_failed");
  snprintf(result->message, sizeof result->message, "%s",
           message && *message ? message : "operation failed");
  result->retryable = retryable ? 1 : 0;
}

int vxcli_service_result_string(vxcli_service_result* result, const char* name,
                                const char* value) {
  if (!value) return -1;
  vxcli_service_result_value* slot = next_value(result, name, VXCLI_SERVICE_VALUE_STRING);
  if (!slot || !copy_text(slot->text, sizeof slot->text, value)) return -1;
  result->value_count++;
  return 0;
}

int vxcli_service_result_uint64(vxcli_service_result* result, const char* name, uint64_t value) {
  vxcli_service_result_value* slot = next_value(result, name, VXCLI_SERVICE_VALUE_UINT64);
  if (!slot) return -1;
  slot->number = value;
  result->value_count++;
  return 0;
}

int vxcli_service_result_bool(vxcli_service_result* result, const char* name, bool value) {
  vxcli_service_result_value* slot = next_value(result, name, VXCLI_SERVICE_VALUE_BOOL);
  if (!slot) return -1;
  slot->boolean = value ? 1 : 0;
  result->value_count++;
  return 0;
}

const char* vxcli_service_value(const vxcli_service_request* request, const char* name) {
  if (!request || !name || !request->params) return nullptr;
  for (uint32_t i = 0; i < request->param_count; i++) {
    const vxcli_service_param& param = request->params[i];
    if (param.name && strcmp(param.name, name) == 0) return param.value;
  }
  return nullptr;
}
