// Channel enumeration, the identity printer, channel info and the local refusals.
#include <cstdio>
#include <cstring>

#include "channel/channel.h"
#include "cli/output.h"

namespace {

struct CapabilityName {
  uint16_t bit;
  const char* name;
};

const CapabilityName kCapabilities[] = {
    {0x0004, "CANFD"}, {0x0002, "CAN"}, {0x0001, "LIN"}, {0x0008, "FR"},   {0x0010, "MB"},
    {0x0020, "ETH"},   {0x0100, "AIO"}, {0x0200, "DIO"}, {0x4000, "VIRT"}, {0x8000, "RMT"},
};

struct Identity {
  char serial[40];
  char uid[32];
};

Identity identity_of(const VXChannelInfo* e) {
  Identity id{};
  vxcli_render_serial(e->serial, id.serial, sizeof id.serial);
  vxcli_render_unique_id(e->unique_id, id.uid, sizeof id.uid);
  return id;
}

// The name field is NUL-terminated by contract; guard against a full field anyway.
void copy_name(const VXChannelInfo* e, char* out, size_t size) {
  snprintf(out, size, "%.*s", static_cast<int>(sizeof e->name), e->name);
}

}  // namespace

void vxcli_render_capabilities(uint16_t bits, char* out, size_t size) {
  size_t n = 0;
  if (size) out[0] = 0;
  for (const CapabilityName& c : kCapabilities) {
    if (!(bits & c.bit)) continue;
    int w = snprintf(out + n, size - n, "%s%s", n ? "," : "", c.name);
    if (w < 0 || static_cast<size_t>(w) >= size - n) break;
    n += static_cast<size_t>(w);
  }
}

uint32_t vxcli_enumerate(VXChannelInfo* infos, int* count) {
  uint32_t n = 32;
  VXStatus status = VX_Enumerate(infos, &n);
  *count = status == VX_OK ? static_cast<int>(n > 32 ? 32 : n) : 0;
  return status;
}

int vxcli_channel_list_enumerate(const char* text, vxcli_channel_spec* specs, int max, VXChannelInfo* infos,
                                 int* count) {
  int wanted = vxcli_parse_channel_list_ex(text, specs, max);
  if (wanted <= 0) {
    vxcli_print_error("Invalid channel specification: %s", text);
    return -1;
  }
  if (vxcli_enumerate(infos, count) != VX_OK) {
    vxcli_print_error("VX_Enumerate failed");
    return -1;
  }
  return wanted;
}

void vxcli_print_device_info(const VXChannelInfo* e, uint32_t format) {
  Identity id = identity_of(e);
  char name[80];
  copy_name(e, name, sizeof name);
  if (format == VXCLI_FORMAT_JSON || format == VXCLI_FORMAT_JSONL) {
    char escaped[80 * 6];
    vxcli_json_escape_to(name, escaped, sizeof escaped);
    printf("{\"status\":\"ok\",\"port\":%d,\"name\":\"%s\",\"sn\":\"%s\",\"uid\":\"%s\",\"vid\":%d,\"pid\":%d,"
           "\"capability\":%d,\"firmware\":\"%d.%d.%d.%d\"}\n",
           e->port, escaped, id.serial, id.uid, e->usb_vid, e->usb_pid, e->capability, e->firmware[0],
           e->firmware[1], e->firmware[2], e->firmware[3]);
    return;
  }
  char caps[96];
  vxcli_render_capabilities(e->capability, caps, sizeof caps);
  printf("Port %d: %s\n", e->port, name);
  printf("  SN:          %s\n", id.serial);
  printf("  UID:         %s\n", id.uid);
  printf("  VID/PID:     0x%04X / 0x%04X\n", e->usb_vid, e->usb_pid);
  printf("  Firmware:    %d.%d.%d.%d\n", e->firmware[0], e->firmware[1], e->firmware[2], e->firmware[3]);
  printf("  Capability:  0x%04X (%s)\n", e->capability, caps);
}

int vxcli_channel_enumerate(int, char**) {
  VXChannelInfo infos[32];
  int count = 0;
  uint32_t status = vxcli_enumerate(infos, &count);
  if (status != VX_OK) {
    vxcli_print_error("VX_Enumerate failed: %s (0x%X)", vxcli_status_to_string(status), status);
    return 1;
  }
  if (g_config.format == VXCLI_FORMAT_JSON) {
    printf("{\"status\":\"ok\",\"count\":%d,\"devices\":[", count);
    for (int i = 0; i < count; i++) {
      const VXChannelInfo* e = &infos[i];
      Identity id = identity_of(e);
      char name[80];
      copy_name(e, name, sizeof name);
      printf("%s{\"port\":%u,\"name\":\"%s\",\"vid\":%u,\"pid\":%u,\"sn\":\"%s\",\"uid\":\"%s\","
             "\"firmware\":\"%u.%u.%u.%u\",\"cap\":%u}",
             i ? "," : "", e->port, name, e->usb_vid, e->usb_pid, id.serial, id.uid, e->firmware[0],
             e->firmware[1], e->firmware[2], e->firmware[3], e->capability);
    }
    printf("]}\n");
    return 0;
  }
  if (g_config.format == VXCLI_FORMAT_CSV) {
    printf("port,name,vid,pid,sn,uid,version,capability\n");
    for (int i = 0; i < count; i++) {
      const VXChannelInfo* e = &infos[i];
      Identity id = identity_of(e);
      char name[80];
      copy_name(e, name, sizeof name);
      printf("%u,%s,%u,%u,%s,%s,%u.%u.%u.%u,%u\n", e->port, name, e->usb_vid, e->usb_pid, id.serial, id.uid,
             e->firmware[0], e->firmware[1], e->firmware[2], e->firmware[3], e->capability);
    }
    return 0;
  }
  printf("Found %d device channel(s):\n", count);
  for (int i = 0; i < count; i++) vxcli_print_device_info(&infos[i], g_config.format);
  return 0;
}

int vxcli_channel_info_command(int count, char** words) {
  const char* spec_text = nullptr;
  for (int i = 0; i < count && !spec_text; i++) {
    // NOLINTNEXTLINE(clang-analyzer-core.NonNullParamChecker): argv entries are never null
    if (strncmp(words[i], "--channel=", 10) == 0) spec_text = words[i] + 10;
    else if (strcmp(words[i], "--channel") == 0 && i + 1 < count) spec_text = words[i + 1];
  }
  VXChannelInfo infos[32];
  int n = 0;
  uint32_t status = vxcli_enumerate(infos, &n);
  if (status != VX_OK) {
    vxcli_print_error("VX_Enumerate failed: %s", vxcli_status_to_string(status));
    return 1;
  }
  if (spec_text) {
    vxcli_channel_spec spec;
    if (vxcli_parse_channel_spec(spec_text, &spec) != 0) {
      vxcli_print_error("Invalid channel specification: %s", spec_text);
      return 1;
    }
    const VXChannelInfo* match = vxcli_resolve_channel(infos, n, &spec);
    if (!match) {
      vxcli_print_error("Channel '%s' not found", spec_text);
      return 1;
    }
    vxcli_print_device_info(match, g_config.format);
    return 0;
  }
  if (g_config.format == VXCLI_FORMAT_JSON) return vxcli_channel_enumerate(count, words);
  for (int i = 0; i < n; i++) vxcli_print_device_info(&infos[i], g_config.format);
  return 0;
}

int vxcli_channel_close_command(int, char**) {
  vxcli_print_error("channel close requires daemon mode; start daemon first");
  return 1;
}

int vxcli_channel_status_command(int, char**) {
  vxcli_print_error("channel status requires daemon mode; start daemon first");
  return 1;
}
