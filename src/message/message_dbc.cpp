// DBC access for message send/recv.
#include "message/message_dbc.h"

#include <cstdio>
#include <cstring>

#include "database/dbc.h"
#include "message/frame.h"

int vxcli_message_dbc_encode(const char* message, const char* database, int count,
                             const char* const* names, const double* values, uint8_t out[64],
                             int* length, uint32_t* id, uint32_t* flags, char* error,
                             size_t error_size) {
  char reason[320] = "";
  const DbcLoadedFile* file = vxcli_dbc_resolve(database ? database : "", reason, sizeof reason);
  if (!file) {
    snprintf(error, error_size, "%s", *reason ? reason : "no DBC database resolved");
    return -1;
  }
  const Message* found = vxcli_dbc_find_message(*file, message);
  if (!found) {
    snprintf(error, error_size, "message not found in %s", file->path.c_str());
    return -1;
  }
  uint32_t out_length = 0;
  uint32_t dbc_flags = vxcli_dbc_encode_message(*found, count, names, values, out, &out_length);
  *length = static_cast<int>(out_length);
  *id = found->id & 0x7FFFFFFFu;
  *flags = ((dbc_flags & VXCLI_DBC_FLAG_EXTENDED) ? VXCLI_FRAME_IDE : 0) |
           ((dbc_flags & VXCLI_DBC_FLAG_FD) ? VXCLI_FRAME_FDF : 0) |
           ((dbc_flags & VXCLI_DBC_FLAG_BRS) ? VXCLI_FRAME_BRS : 0);
  return 0;
}

const DbcLoadedFile* vxcli_message_dbc_open(const char* database, char* error, size_t error_size) {
  if (error && error_size) error[0] = 0;
  return vxcli_dbc_resolve(database ? database : "", error, error_size);
}

int vxcli_message_dbc_decode(const DbcLoadedFile* database, uint32_t id, const uint8_t* data,
                             int length, bool text, char* out, size_t out_size) {
  if (!database || !out || out_size == 0) return -1;
  char selector[16];
  snprintf(selector, sizeof selector, "0x%X", id);
  const Message* message = vxcli_dbc_find_message(*database, selector);
  if (!message) return -1;
  size_t used = length > 0 ? static_cast<size_t>(length) : 0;
  if (!text) return vxcli_dbc_message_decode_json(*message, data, used, out, out_size) == 0 ? 0 : -1;
  DbcSignalValue values[256];
  size_t n = vxcli_dbc_decode_message(*message, data, used, values, 256);
  int w = snprintf(out, out_size, "%s:", message->name.c_str());
  for (size_t i = 0; i < n && w >= 0 && static_cast<size_t>(w) < out_size; i++) {
    const Signal& s = *values[i].signal;
    w += snprintf(out + w, out_size - static_cast<size_t>(w), "%s %s=%.10g%s%s", i ? "," : "",
                  s.name.c_str(), values[i].physical, s.unit.empty() ? "" : " ", s.unit.c_str());
  }
  return 0;
}
