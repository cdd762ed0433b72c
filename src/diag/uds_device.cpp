// Device transport for the uds commands.
#include "diag/uds_client.h"

#include <cstdio>

int vxcli_uds_open_device_transport(const vxcli_uds_session* session, const char*,
                                    vxcli_uds_transport*, char* error_text, size_t error_size) {
  snprintf(error_text, error_size, "Failed to open channel %s", session->channel.c_str());
  return -1;
}
