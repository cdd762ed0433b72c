// Opening the channel lists of the standalone logging and replay commands.
#pragma once

#include <cstdint>

#include "channel/channel.h"
#include "vxapi.h"

struct vxcli_log_channel {
  VXHandle handle;
  VXChannelInfo info;
  int logical;  // 1-based position in the opened list
};

enum vxcli_log_channel_purpose { VXCLI_OPEN_FOR_REPLAY, VXCLI_OPEN_FOR_LOGGING };

// Opens the channels named in the parsed list among the enumerated ones as
// CAN channels, in list order, warning about the ones skipped. Returns the
// number opened; *matched receives how many list entries named an existing
// channel.
int vxcli_log_open_channels(const vxcli_channel_spec* specs, int wanted, const VXChannelInfo* infos,
                            int count, const VXBitrate* bitrate, vxcli_log_channel_purpose purpose,
                            vxcli_log_channel* out, int max, int* matched);
void vxcli_log_close_channels(vxcli_log_channel* channels, int count);
