#include "logging/log_channels.h"

#include <cstring>

#include "channel/channel.h"
#include "cli/output.h"

int vxcli_log_open_channels(const vxcli_channel_spec* specs, int wanted, const VXChannelInfo* infos,
                            int count, const VXBitrate* bitrate, vxcli_log_channel_purpose purpose,
                            vxcli_log_channel* out, int max, int* matched) {
  *matched = 0;
  // Replay only sends: confirmations of its own frames would just fill the queue.
  uint32_t flags = purpose == VXCLI_OPEN_FOR_REPLAY ? VX_OPEN_NO_TX_CONFIRM : 0;
  int opened = 0;
  for (int i = 0; i < wanted && opened < max; i++) {
    const VXChannelInfo* entry = vxcli_resolve_channel(infos, count, &specs[i]);
    if (!entry) {
      if (purpose == VXCLI_OPEN_FOR_LOGGING)
        vxcli_print_warning("channel spec not found, skipping (port=%d)", specs[i].port);
      else
        vxcli_print_warning("channel spec not found, skipping");
      continue;
    }
    (*matched)++;
    VXHandle handle = nullptr;
    VXStatus status = VX_OpenEx(&handle, entry, VX_CAN_MODE_NORMAL, VX_TERMINATION_DEFAULT,
                                bitrate, 0, flags);
    if (status != VX_OK || !handle) {
      vxcli_print_warning("failed to open channel, skipping");
      continue;
    }
    out[opened].handle = handle;
    out[opened].info = *entry;
    out[opened].logical = opened + 1;
    opened++;
  }
  return opened;
}

void vxcli_log_close_channels(vxcli_log_channel* channels, int count) {
  for (int i = 0; i < count; i++) {
    if (channels[i].handle) VX_Close(channels[i].handle);
    channels[i].handle = nullptr;
  }
}
