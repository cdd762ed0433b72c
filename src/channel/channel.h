// Channel specifications, bitrates, opening CAN channels, enumeration and identity.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vxapi.h"

struct vxcli_channel_spec {
  uint32_t kind;    // 0 legacy index or name, 1 serial number, 2 unique id
  char device[32];  // serial, unique id or name
  int32_t port;     // 0..7, -1 when absent
  int32_t index;    // legacy index for kind 0, else -1
};

enum : uint32_t {
  VXCLI_SPEC_INDEX_OR_NAME = 0,
  VXCLI_SPEC_SERIAL = 1,
  VXCLI_SPEC_UNIQUE_ID = 2,
};

// The device library's bitrate record as this program fills it.
using vxcli_bitrate = VXBitrate;

int vxcli_parse_channel_spec(const char* text, vxcli_channel_spec* spec);
const VXChannelInfo* vxcli_resolve_channel(const VXChannelInfo* infos, int count,
                                             const vxcli_channel_spec* spec);
int vxcli_parse_channel_list_ex(const char* text, vxcli_channel_spec* specs, int max);
int vxcli_parse_bitrate_pair(const char* text, vxcli_bitrate* bitrate);
VXHandle vxcli_open_can_channel(int index, int nominal_kbps, uint32_t mode, uint32_t termination);
VXHandle vxcli_open_can_channel_ex(const char* spec_text, const char* bitrate_text, uint32_t mode,
                                    uint32_t termination, VXChannelInfo* info_out);
uint32_t vxcli_get_device_stat(VXHandle handle, uint16_t group, uint16_t item);
int vxcli_parse_device_spec(const char* text, vxcli_channel_spec* spec);
// First enumeration entry on the device named by spec (port ignored when -1).
const VXChannelInfo* vxcli_resolve_device(const VXChannelInfo* infos, int count,
                                            const vxcli_channel_spec* spec);

// Identity rendering shared by every printer.
void vxcli_render_serial(const uint8_t serial[16], char* out, size_t size);
void vxcli_render_unique_id(const uint8_t uid[12], char* out, size_t size);
void vxcli_render_capabilities(uint16_t bits, char* out, size_t size);
void vxcli_print_device_info(const VXChannelInfo* entry, uint32_t format);

// Enumerates at most 32 channels; returns the device library status.
uint32_t vxcli_enumerate(VXChannelInfo* infos, int* count);
// Parses a command's channel list and enumerates the channels (infos holds 32),
// the start every multi-channel command shares; the number of specs, or -1
// once the error is printed.
int vxcli_channel_list_enumerate(const char* text, vxcli_channel_spec* specs, int max, VXChannelInfo* infos,
                                 int* count);

int vxcli_channel_enumerate(int count, char** words);
int vxcli_channel_info_command(int count, char** words);
int vxcli_channel_close_command(int count, char** words);
int vxcli_channel_status_command(int count, char** words);
