// Same-device hardware routes: entries, matching, and the standalone
// "route add|remove|list" commands editing a source port's table on the device.
#include "message/route.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "channel/channel.h"
#include "cli/output.h"
#include "message/frame.h"
#include "message/txtask.h"

void vxcli_route_build(const vxcli_route_request& r, VXRoute* out) {
  memset(out, 0, sizeof *out);
  out->type = static_cast<uint8_t>(r.type);
  out->src_port = static_cast<uint8_t>(r.src_port);
  out->target = static_cast<uint8_t>(r.target);
  if (r.has_flags) {
    // Given flags must match exactly.
    out->flags_mask = 0xFF;
    out->flags_value = static_cast<uint8_t>(r.flags);
  }
  if (r.has_id) {
    out->id_mask = 0x1FFFFFFF;
    out->id_value = r.id;
  }
}

const char* vxcli_route_type_name(int type) {
  if (type == VX_ROUTE_UNICAST) return "unicast";
  if (type == VX_ROUTE_BROADCAST) return "broadcast";
  return "unknown";
}

int vxcli_route_first_free(const VXRoute* table, int count) {
  for (int i = 0; i < count; i++)
    if (table[i].type == VX_ROUTE_FREE) return i;
  return -1;
}

int vxcli_route_used_length(const VXRoute* table, int count) {
  int length = 0;
  for (int i = 0; i < count; i++)
    if (table[i].type != VX_ROUTE_FREE) length = i + 1;
  return length;
}

int vxcli_route_remove_matching(VXRoute* table, int count, bool has_target, int target, bool has_id,
                                uint32_t id) {
  int cleared = 0;
  for (int i = 0; i < count; i++) {
    VXRoute& r = table[i];
    if (r.type == VX_ROUTE_FREE) continue;
    if (has_target && r.target != target) continue;
    if (has_id && r.id_value != id) continue;
    memset(&r, 0, sizeof r);
    cleared++;
  }
  return cleared;
}

namespace {

bool json_format() { return g_config.format == VXCLI_FORMAT_JSON || g_config.format == VXCLI_FORMAT_JSONL; }

// Enumeration of the attached devices, once per command.
struct Devices {
  VXChannelInfo infos[32];
  int count = 0;
  bool load() {
    if (vxcli_enumerate(infos, &count) != VX_OK) {
      vxcli_print_error("VX_Enumerate failed");
      return false;
    }
    return true;
  }
  const VXChannelInfo* find(const char* text) const {
    vxcli_channel_spec spec;
    if (vxcli_parse_channel_spec(text, &spec) != 0) return nullptr;
    return vxcli_resolve_channel(infos, count, &spec);
  }
};

struct OpenSource {
  VXHandle handle = nullptr;
  ~OpenSource() {
    if (handle) VX_Close(handle);
  }
};

bool parse_mask(const char* text, int* mask) {
  if (!text || !*text || *text == '-') return false;
  errno = 0;
  char* end = nullptr;
  unsigned long v = strtoul(text, &end, 0);
  if (errno || *end || v < 1 || v > 0xFF) return false;
  *mask = static_cast<int>(v);
  return true;
}

bool same_device(const VXChannelInfo& a, const VXChannelInfo& b) {
  return memcmp(a.serial, b.serial, sizeof a.serial) == 0;
}

int read_table(VXHandle handle, VXRoute* table) {
  memset(table, 0, sizeof(VXRoute) * VXCLI_ROUTE_TABLE);
  return static_cast<int>(VX_GetMsgRoutes(handle, table, VXCLI_ROUTE_TABLE));
}

}  // namespace

int vxcli_route_add(int count, char** words) {
  const char* src = vxcli_get_option(count, words, "src");
  const char* dst = vxcli_get_option(count, words, "dst");
  if (!src) {
    vxcli_print_error("--src is required (source channel)");
    return 1;
  }
  if (!dst) {
    vxcli_print_error("--dst is required (destination channel)");
    return 1;
  }
  const char* message = vxcli_get_option(count, words, "message");
  if (!message) message = vxcli_get_option(count, words, "id");
  const char* type_text = vxcli_get_option(count, words, "type");
  const char* flags_text = vxcli_get_option(count, words, "flags");

  vxcli_route_request request;
  memset(&request, 0, sizeof request);
  if (!type_text || !strcasecmp(type_text, "unicast")) request.type = VX_ROUTE_UNICAST;
  else if (!strcasecmp(type_text, "broadcast")) request.type = VX_ROUTE_BROADCAST;
  else {
    vxcli_print_error("Invalid route type: %s (unicast/broadcast)", type_text);
    return 1;
  }
  if (message) {
    long id = vxcli_parse_message_id(message);
    if (id < 0 || id > 0x1FFFFFFF) {
      vxcli_print_error("Invalid message ID: %s", message);
      return 1;
    }
    request.has_id = true;
    request.id = static_cast<uint32_t>(id);
  }
  if (flags_text) {
    if (vxcli_txtask_parse_flag_words(flags_text, &request.flags) != 0) {
      vxcli_print_error("Invalid --flags: %s (ide, rtr)", flags_text);
      return 1;
    }
    request.has_flags = true;
  }
  vxcli_channel_spec spec;
  if (vxcli_parse_channel_spec(src, &spec) != 0) {
    vxcli_print_error("Invalid --src channel spec: %s", src);
    return 1;
  }
  if (request.type == VX_ROUTE_UNICAST && vxcli_parse_channel_spec(dst, &spec) != 0) {
    vxcli_print_error("Invalid --dst channel spec: %s", dst);
    return 1;
  }
  if (request.type == VX_ROUTE_BROADCAST && !parse_mask(dst, &request.target)) {
    vxcli_print_error("Invalid --dst port mask: %s (1..0xFF)", dst);
    return 1;
  }
  Devices devices;
  if (!devices.load()) return 1;
  const VXChannelInfo* source = devices.find(src);
  if (!source) {
    vxcli_print_error("Source channel not found: %s", src);
    return 1;
  }
  if (request.type == VX_ROUTE_UNICAST) {
    const VXChannelInfo* target = devices.find(dst);
    if (!target) {
      vxcli_print_error("Destination channel not found: %s", dst);
      return 1;
    }
    if (!same_device(*source, *target)) {
      vxcli_print_error(
          "Hardware route cannot cross devices: src %s -> dst %s. Routes are confined to one device's own ports.",
          src, dst);
      return 1;
    }
    request.target = target->port;
  }
  request.src_port = source->port;
  VXRoute route;
  vxcli_route_build(request, &route);

  OpenSource open;
  open.handle = vxcli_open_can_channel_ex(src, nullptr, VX_CAN_MODE_NORMAL, 0, nullptr);
  if (!open.handle) {
    vxcli_print_error("Failed to open source channel: %s", src);
    return 1;
  }
  VXRoute table[VXCLI_ROUTE_TABLE];
  int index = 0, written = 1;
  if (read_table(open.handle, table) != 0) {
    memset(table, 0, sizeof table);
  } else {
    index = vxcli_route_first_free(table, VXCLI_ROUTE_TABLE);
    if (index < 0) {
      vxcli_print_error("Maximum number of routes (%d) reached", VXCLI_ROUTE_TABLE);
      return 1;
    }
    written = VXCLI_ROUTE_TABLE;
  }
  table[index] = route;
  VXStatus status = VX_SetMsgRoutes(open.handle, table, static_cast<uint32_t>(written));
  if (status != VX_OK) {
    vxcli_print_error("VX_SetMsgRoutes failed: %s", vxcli_status_to_string(status));
    return 1;
  }
  if (json_format()) {
    printf("{\"status\":\"ok\",\"routeid\":%d,\"src_port\":%d,\"target\":%d,\"id\":\"0x%X\"}\n", index,
           route.src_port, route.target, route.id_value);
  } else {
    char id_text[32];
    if (request.has_id) snprintf(id_text, sizeof id_text, "0x%X", request.id);
    else snprintf(id_text, sizeof id_text, "(any)");
    printf("Route %d added: port%d -> %s%d, message ID %s\n", index, route.src_port,
           request.type == VX_ROUTE_UNICAST ? "port" : "mask 0x", route.target, id_text);
  }
  return 0;
}

int vxcli_route_remove(int count, char** words) {
  const char* src = vxcli_get_option(count, words, "src");
  if (!src) {
    vxcli_print_error("--src is required (source channel)");
    return 1;
  }
  const char* dst = vxcli_get_option(count, words, "dst");
  const char* message = vxcli_get_option(count, words, "message");
  int target = -1;
  if (dst) {
    // A port number, or a channel whose port is meant.
    long port = -1;
    char* end = nullptr;
    port = strtol(dst, &end, 0);
    if (!*dst || *end) {
      Devices devices;
      if (!devices.load()) return 1;
      const VXChannelInfo* e = devices.find(dst);
      port = e ? e->port : -1;
    }
    if (port < 0 || port > 255) {
      vxcli_print_error("Invalid --dst: %s (destination port)", dst);
      return 1;
    }
    target = static_cast<int>(port);
  }
  long id = -1;
  if (message) {
    id = vxcli_parse_message_id(message);
    if (id < 0 || id > 0x1FFFFFFF) {
      vxcli_print_error("Invalid message ID: %s", message);
      return 1;
    }
  }
  OpenSource open;
  open.handle = vxcli_open_can_channel_ex(src, nullptr, VX_CAN_MODE_NORMAL, 0, nullptr);
  if (!open.handle) {
    vxcli_print_error("Failed to open source channel: %s", src);
    return 1;
  }
  VXRoute table[VXCLI_ROUTE_TABLE];
  int status = read_table(open.handle, table);
  if (status != 0) {
    vxcli_print_error("VX_GetMsgRoutes failed: %s", vxcli_status_to_string(static_cast<uint32_t>(status)));
    return 1;
  }
  int cleared = vxcli_route_remove_matching(table, VXCLI_ROUTE_TABLE, target >= 0, target, id >= 0,
                                            static_cast<uint32_t>(id));
  if (cleared == 0) {
    vxcli_print_error("No matching route found");
    return 1;
  }
  VXStatus set = VX_SetMsgRoutes(open.handle, table, VXCLI_ROUTE_TABLE);
  if (set != VX_OK) {
    vxcli_print_error("VX_SetMsgRoutes failed: %s", vxcli_status_to_string(set));
    return 1;
  }
  if (json_format()) printf("{\"status\":\"ok\",\"message\":\"route removed\"}\n");
  else printf("Removed %d route(s) from channel %s\n", cleared, src);
  return 0;
}

int vxcli_route_list(int count, char** words) {
  const char* channel = vxcli_get_option(count, words, "channel");
  if (!channel) {
    vxcli_print_error("--channel is required");
    return 1;
  }
  Devices devices;
  if (!devices.load()) return 1;
  const VXChannelInfo* entry = devices.find(channel);
  int index = entry ? static_cast<int>(entry - devices.infos) : atoi(channel);
  OpenSource open;
  if (entry) open.handle = vxcli_open_can_channel_ex(channel, nullptr, VX_CAN_MODE_NORMAL, 0, nullptr);
  if (!open.handle) {
    vxcli_print_error("Failed to open channel: %s", channel);
    return 1;
  }
  VXRoute table[VXCLI_ROUTE_TABLE];
  int status = read_table(open.handle, table);
  if (status != 0) {
    vxcli_print_error("VX_GetMsgRoutes failed: %s", vxcli_status_to_string(static_cast<uint32_t>(status)));
    return 1;
  }
  bool json = json_format(), csv = g_config.format == VXCLI_FORMAT_CSV;
  int shown = 0;
  if (json) printf("{\"status\":\"ok\",\"channel\":%d,\"routes\":[", index);
  if (csv) printf("routeid,type,source,dest,idmask,idvalue,flagsmask,flagsvalue\n");
  for (int i = 0; i < VXCLI_ROUTE_TABLE; i++) {
    const VXRoute& r = table[i];
    if (r.type == VX_ROUTE_FREE) continue;
    const char* type = vxcli_route_type_name(r.type);
    if (json)
      printf("%s{\"routeid\":%d,\"type\":\"%s\",\"source\":%d,\"dest\":%d,\"idmask\":\"0x%X\",\"idvalue\":\"0x%X\","
             "\"flagsmask\":%d,\"flagsvalue\":%d}",
             shown ? "," : "", i, type, r.src_port, r.target, r.id_mask, r.id_value, r.flags_mask, r.flags_value);
    else if (csv)
      printf("%d,%s,%d,%d,0x%X,0x%X,%d,%d\n", i, type, r.src_port, r.target, r.id_mask, r.id_value, r.flags_mask,
             r.flags_value);
    else
      printf("Route %d: %s CH%d -> CH%d, ID mask=0x%X value=0x%X, flags mask=0x%02X value=0x%02X\n", i, type,
             r.src_port, r.target, r.id_mask, r.id_value, r.flags_mask, r.flags_value);
    shown++;
  }
  if (json) printf("],\"count\":%d}\n", shown);
  else if (!csv && shown == 0) printf("No routes on channel %s\n", channel);
  return 0;
}
