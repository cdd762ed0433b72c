// Opening CAN channels by channel text or legacy index, and device statistics.
#include <cstdio>
#include <cstring>

#include "channel/channel.h"
#include "cli/output.h"

namespace {

// Every frame passes: the filter's first field enables accept-all.
void install_accept_all(VXHandle handle) {
  VXRxFilter filter;
  memset(&filter, 0, sizeof filter);
  filter.mode = 1;
  VX_SetRxFilters(handle, &filter, 1);
}

}  // namespace

VXHandle vxcli_open_can_channel_ex(const char* spec_text, const char* bitrate_text, uint32_t mode,
                                   uint32_t termination, VXChannelInfo* info_out) {
  VXChannelInfo infos[32];
  int count = 0;
  if (vxcli_enumerate(infos, &count) != VX_OK) return nullptr;
  vxcli_bitrate bitrate;
  if (vxcli_parse_bitrate_pair(bitrate_text, &bitrate) != 0) {
    fprintf(stderr, "Invalid bitrate specification: '%s'\n", bitrate_text ? bitrate_text : "");
    return nullptr;
  }
  vxcli_channel_spec spec;
  if (vxcli_parse_channel_spec(spec_text, &spec) != 0) {
    fprintf(stderr, "Invalid channel specification: '%s'\n", spec_text ? spec_text : "");
    return nullptr;
  }
  const VXChannelInfo* entry = vxcli_resolve_channel(infos, count, &spec);
  if (!entry) {
    fprintf(stderr, "No matching channel found for '%s' (enumerated %d channel(s))\n", spec_text, count);
    return nullptr;
  }
  VXHandle handle = nullptr;
  VXStatus status = VX_OpenEx(&handle, entry, mode, termination ? termination : 120, &bitrate, 0, 0);
  if (status != VX_OK || !handle) {
    fprintf(stderr, "VX_OpenEx failed for channel '%s' (port=%u): %s (0x%X)\n", spec_text,
            static_cast<unsigned>(entry->port), vxcli_status_to_string(status), status);
    return nullptr;
  }
  install_accept_all(handle);
  if (info_out) *info_out = *entry;
  return handle;
}

VXHandle vxcli_open_can_channel(int index, int nominal_kbps, uint32_t mode, uint32_t termination) {
  VXChannelInfo infos[32];
  int count = 0;
  if (vxcli_enumerate(infos, &count) != VX_OK) return nullptr;
  VXBitrate bitrate;
  memset(&bitrate, 0, sizeof bitrate);
  int nominal = nominal_kbps > 0 ? nominal_kbps : 500;
  bitrate.nominal_kbps = static_cast<uint16_t>(nominal);
  bitrate.data_kbps = static_cast<uint16_t>(nominal * 4 > 65535 ? 65535 : nominal * 4);
  bitrate.nominal_sample = 75;
  bitrate.data_sample = 75;
  uint32_t ohm = termination ? termination : 120;
  auto try_open = [&](const VXChannelInfo* e) -> VXHandle {
    VXHandle h = nullptr;
    if (VX_OpenEx(&h, e, mode, ohm, &bitrate, 0, 0) != VX_OK) return nullptr;
    install_accept_all(h);
    return h;
  };
  if (index >= 0 && index < count) {
    if (VXHandle h = try_open(&infos[index])) return h;
  }
  for (int i = 0; i < count; i++) {
    if (infos[i].port != index) continue;
    if (VXHandle h = try_open(&infos[i])) return h;
  }
  return nullptr;
}

uint32_t vxcli_get_device_stat(VXHandle handle, uint16_t group, uint16_t item) {
  if (!handle) return 0;
  uint32_t value = 0;
  if (VX_Control(handle, VX_CONTROL_STATISTIC, group, item, &value, sizeof value) != VX_OK) return 0;
  return value;
}
