// Placeholder until the LDF reader lands.
#include "database/inspect.h"

#include <cstdio>

int vxcli_ldf_inspect_file(const char*, uint32_t* items, uint32_t* members, char* error,
                           size_t error_size) {
  if (items) *items = 0;
  if (members) *members = 0;
  if (error && error_size) snprintf(error, error_size, "LDF support is not available in this build");
  return -1;
}
