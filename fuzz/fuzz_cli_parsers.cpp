// Command-line value parsers: channel and device specifications, channel lists,
// bitrates, identifiers, flags and payload bytes.
#include <cstdint>
#include <string>

#include "channel/channel.h"
#include "fuzz_util.h"
#include "message/frame.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text = fuzz::text(data, size);
  const char* s = text.c_str();
  vxcli_channel_spec spec;
  vxcli_parse_channel_spec(s, &spec);
  vxcli_parse_device_spec(s, &spec);
  vxcli_channel_spec specs[8];
  int n = vxcli_parse_channel_list_ex(s, specs, 8);
  if (n > 8) __builtin_trap();
  vxcli_bitrate bitrate;
  vxcli_parse_bitrate_pair(s, &bitrate);
  bool decimal = false;
  // vxcli_parse_message_id is this plus a note on stderr.
  vxcli_parse_message_id_quiet(s, &decimal);
  vxcli_parse_flags(s);
  uint8_t payload[64];
  int count = vxcli_parse_data(s, payload, 64);
  if (count > 64) __builtin_trap();
  return 0;
}
