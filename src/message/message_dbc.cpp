// DBC access for message send/recv.
#include "message/message_dbc.h"

#include <cstdio>

#include "database/dbc.h"

int vxcli_message_dbc_encode(const char* message, const char* database, int count,
                             const char** names, const double* values, uint8_t out[64],
                             int* length, uint32_t* id, uint32_t* flags, char* error,
                             size_t error_size) {
  const DbcLoadedFile* file = vxcli_dbc_resolve(database ? database : "", error, error_size);
  if (!file) return -1;
  const Message* found = message ? vxcli_dbc_find_message(*file, message) : nullptr;
  if (!found) {
    if (error && error_size)
      snprintf(error, error_size, "message %s is not in %s", message ? message : "",
               file->path.c_str());
    return -1;
  }
  uint32_t bytes = 0;
  uint32_t bits = vxcli_dbc_encode_message(*found, count, names, values, out, &bytes);
  if (length) *length = int(bytes);
  if (id) *id = found->id & 0x7FFFFFFFu;
  if (flags) *flags = bits;
  return 0;
}

int vxcli_message_dbc_decode(uint32_t id, const char* database, const uint8_t* data, int length,
                             char* out, size_t out_size) {
  char selector[16];
  snprintf(selector, sizeof selector, "0x%X", id);
  if (vxcli_dbc_decode_to_json(selector, database ? database : "", data,
                               length > 0 ? size_t(length) : 0, out, out_size) == 0)
    return 0;
  if (out && out_size) out[0] = 0;
  return -1;
}
