// Per-user runtime, state and configuration directories, and files shipped
// beside the executable. Nothing is cached: environment changes apply at once.
#pragma once

#include <cstddef>

int vxcli_get_runtime_dir(char* buffer, size_t size);
int vxcli_get_state_dir(char* buffer, size_t size);
int vxcli_get_config_dir(char* buffer, size_t size);
int vxcli_resolve_resource(const char* name, char* out, size_t size);
// Directory of the running executable (no trailing slash); 0 or -1.
int vxcli_executable_dir(char* out, size_t size);
