// DBC access for message send/recv.
#include "message/message_dbc.h"

#include <cstdio>

int vxcli_message_dbc_encode(const char* message, const char*, int, const char**, const double*,
                             uint8_t*, int*, uint32_t*, uint32_t*, char* error,
                             size_t error_size) {
  if (error && error_size)
    snprintf(error, error_size, "DBC signal encoding is not available in this build (message %s)",
             message ? message : "");
  return -1;
}

int vxcli_message_dbc_decode(uint32_t, const char*, const uint8_t*, int, char* out,
                             size_t out_size) {
  if (out && out_size) out[0] = 0;
  return -1;
}
