// The daemon's per-channel services: TX tasks, routes, CAN and LIN
// configuration, LIN responses and schedules, power and recovery switches.
#include "daemon/daemon_services.h"

#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "channel/channel.h"
#include "cli/output.h"
#include "daemon/daemon_state.h"
#include "message/frame.h"
#include "message/lin.h"
#include "message/route.h"
#include "message/txtask.h"

namespace {

bool valid_open_slot(int slot) { return slot >= 0 && slot < VXCLI_DAEMON_SLOTS && g_daemon_slots[slot].open; }

uint32_t capped_stat(int slot, uint16_t item, uint32_t cap, uint32_t fallback) {
  uint32_t value = 0;
  if (daemon_get_stat(slot, item, &value) != VX_OK || value == 0) return fallback;
  return value > cap ? cap : value;
}

}  // namespace

VXStatus daemon_get_stat(int slot, uint16_t item, uint32_t* value) {
  if (!valid_open_slot(slot) || !value) return VX_ERR_INVALID_PARAM_VALUE;
  return VX_Control(g_daemon_slots[slot].handle, VX_CONTROL_STATISTIC, VX_STAT_GROUP_DEVICE, item, value,
                    sizeof *value);
}

int daemon_txtask_capacity(int slot) {
  if (!valid_open_slot(slot)) return 0;
  // Older hardware generations run a single task when they cannot say.
  uint32_t fallback = g_daemon_slots[slot].info.generation >= 3 ? 64 : 1;
  return static_cast<int>(capped_stat(slot, VX_STAT_TXTASK_CAPACITY, VXCLI_DAEMON_MAX_TXTASKS, fallback));
}

int daemon_rxfilter_count(int slot) {
  if (!valid_open_slot(slot)) return 0;
  return static_cast<int>(capped_stat(slot, VX_STAT_RXFILTER_COUNT, 32, 2));
}

int daemon_route_capacity(int slot) {
  if (!valid_open_slot(slot)) return 0;
  return static_cast<int>(capped_stat(slot, VX_STAT_ROUTE_CAPACITY, VXCLI_DAEMON_MAX_ROUTES, 4));
}

VXStatus daemon_apply_txtasks(int slot, const VXTxTask* tasks, int count) {
  if (!valid_open_slot(slot) || count < 0 || count > VXCLI_DAEMON_MAX_TXTASKS ||
      count > daemon_txtask_capacity(slot) || (count > 0 && !tasks))
    return VX_ERR_INVALID_PARAM_VALUE;
  Slot& s = g_daemon_slots[slot];
  VXStatus status;
  if (count > 0) {
    status = VX_SetTxTasks(s.handle, tasks, static_cast<uint32_t>(count));
  } else {
    static VXTxTask zeros[VXCLI_DAEMON_MAX_TXTASKS];
    status = VX_SetTxTasks(s.handle, zeros, static_cast<uint32_t>(daemon_txtask_capacity(slot)));
  }
  if (status != VX_OK) return status;
  memset(s.txtasks, 0, sizeof s.txtasks);
  if (count > 0) memcpy(s.txtasks, tasks, sizeof(VXTxTask) * static_cast<size_t>(count));
  s.txtask_count = count;
  return VX_OK;
}

VXStatus daemon_apply_routes(int slot, const VXRoute* routes, int count) {
  if (!valid_open_slot(slot) || count < 0 || count > VXCLI_DAEMON_MAX_ROUTES || count > daemon_route_capacity(slot) ||
      (count > 0 && !routes))
    return VX_ERR_INVALID_PARAM_VALUE;
  Slot& s = g_daemon_slots[slot];
  VXStatus status;
  if (count > 0) {
    status = VX_SetMsgRoutes(s.handle, routes, static_cast<uint32_t>(count));
  } else {
    static VXRoute zeros[VXCLI_DAEMON_MAX_ROUTES];
    status = VX_SetMsgRoutes(s.handle, zeros, static_cast<uint32_t>(daemon_route_capacity(slot)));
  }
  if (status != VX_OK) return status;
  memset(s.routes, 0, sizeof s.routes);
  if (count > 0) memcpy(s.routes, routes, sizeof(VXRoute) * static_cast<size_t>(count));
  s.route_count = count;
  return VX_OK;
}

void daemon_seed_slot_tables(int slot) {
  if (!valid_open_slot(slot)) return;
  Slot& s = g_daemon_slots[slot];
  memset(s.txtasks, 0, sizeof s.txtasks);
  memset(s.routes, 0, sizeof s.routes);
  s.txtask_count = 0;
  s.route_count = 0;
  int tasks = daemon_txtask_capacity(slot);
  if (VX_GetTxTasks(s.handle, s.txtasks, static_cast<uint32_t>(tasks)) == VX_OK)
    s.txtask_count = vxcli_txtask_used_length(s.txtasks, tasks);
  else
    memset(s.txtasks, 0, sizeof s.txtasks);
  if (s.lin) return;
  int routes = daemon_route_capacity(slot);
  if (VX_GetMsgRoutes(s.handle, s.routes, static_cast<uint32_t>(routes)) == VX_OK)
    s.route_count = vxcli_route_used_length(s.routes, routes);
  else
    memset(s.routes, 0, sizeof s.routes);
}

VXStatus daemon_restore_slot_tables(int slot) {
  if (!valid_open_slot(slot)) return VX_ERR_INVALID_PARAM_VALUE;
  Slot& s = g_daemon_slots[slot];
  VXStatus first = VX_OK;
  if (s.txtask_count > 0) {
    VXTxTask copy[VXCLI_DAEMON_MAX_TXTASKS];
    memcpy(copy, s.txtasks, sizeof copy);
    first = daemon_apply_txtasks(slot, copy, s.txtask_count);
  }
  if (s.route_count > 0) {
    VXRoute copy[VXCLI_DAEMON_MAX_ROUTES];
    memcpy(copy, s.routes, sizeof copy);
    VXStatus status = daemon_apply_routes(slot, copy, s.route_count);
    if (first == VX_OK) first = status;
  }
  return first;
}

VXStatus daemon_build_system_schedule(const DaemonScheduleEntry* entries, int count, VXTxTask* table,
                                      int* length) {
  *length = 0;
  if (count < 0 || count > VXCLI_DAEMON_MAX_TXTASKS || (count > 0 && !entries)) return VX_ERR_INVALID_PARAM_VALUE;
  memset(table, 0, sizeof(VXTxTask) * VXCLI_DAEMON_MAX_TXTASKS);
  if (count == 0) return VX_OK;
  uint32_t total = 0, smallest = 0;
  for (int i = 0; i < count; i++) {
    if (entries[i].task.type == 0) continue;
    uint32_t delay = entries[i].delay_ms;
    if (delay == 0 || delay > 65535 || total + delay > 65535) return VX_ERR_INVALID_PARAM_VALUE;
    total += delay;
    if (smallest == 0 || delay < smallest) smallest = delay;
  }
  if (total == 0) return VX_ERR_INVALID_PARAM_VALUE;
  // Every header starts one smallest slot into the round, after the slots of the
  // entries before it, and repeats once per round.
  uint32_t before = 0;
  for (int i = 0; i < count; i++) {
    if (entries[i].task.type == 0) continue;
    table[i] = entries[i].task;
    table[i].delay = static_cast<uint16_t>(smallest + before > 65535 ? 65535 : smallest + before);
    table[i].cycle = total;
    before += entries[i].delay_ms;
    *length = i + 1;
  }
  return VX_OK;
}

VXStatus daemon_compile_system_schedule(int slot, const DaemonScheduleEntry* entries, int count, VXTxTask* table) {
  if (!valid_open_slot(slot) || count > VXCLI_DAEMON_MAX_TXTASKS) return VX_ERR_INVALID_PARAM_VALUE;
  int length = 0;
  VXStatus status = daemon_build_system_schedule(entries, count, table, &length);
  if (status != VX_OK) return status;
  // Slave responses of the port share its table; they stay behind the schedule.
  const Slot& s = g_daemon_slots[slot];
  int capacity = daemon_txtask_capacity(slot);
  for (int i = 0; i < s.txtask_count; i++) {
    const VXTxTask& t = s.txtasks[i];
    if (!vxcli_txtask_in_use(t) || t.kind != VX_TXTASK_KIND_LIN_RESPONSE) continue;
    int free_index = vxcli_txtask_first_free(table, capacity);
    if (free_index < 0) return VX_ERR_INVALID_PARAM_VALUE;
    table[free_index] = t;
    if (free_index + 1 > length) length = free_index + 1;
  }
  return daemon_apply_txtasks(slot, table, length);
}

namespace {

// ---------------------------------------------------------------------------
// Per-slot service state kept beside the shared slot table: the LIN settings the
// slot record has no room for, and the system schedule. Reset when the slot
// names another physical channel.

struct LinExtra {
  uint8_t version = 0x22;
  uint8_t checksum = VXCLI_LIN_CHECKSUM_ENHANCED;
  bool power_known = false;
  uint32_t power = 0;
};

struct ServiceState {
  bool used = false;
  VXChannelInfo owner;
  LinExtra lin;
  DaemonScheduleEntry schedule[VXCLI_DAEMON_MAX_TXTASKS];
  int schedule_count = 0;
  bool schedule_active = false;
};

ServiceState g_state[VXCLI_DAEMON_SLOTS];

ServiceState& state_of(int slot) {
  ServiceState& st = g_state[slot];
  const Slot& s = g_daemon_slots[slot];
  if (!st.used || !daemon_same_physical(st.owner, s.info)) {
    // Another channel in this slot: its copies must not carry the last one's tables.
    st = ServiceState();
    st.used = true;
    st.owner = s.info;
    daemon_seed_slot_tables(slot);
  }
  return st;
}

const char* put_error(Out* out, const char* format, ...) __attribute__((format(printf, 2, 3)));
const char* put_error(Out* out, const char* format, ...) {
  va_list args;
  va_start(args, format);
  char text[512];
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  out->length = 0;
  out->data[0] = 0;
  daemon_put(out, "%s", text);
  return out->data;
}

const char* device_error(Out* out, const char* operation, VXStatus status) {
  return put_error(out, "ERROR: %s failed: %s (0x%X)\n", operation, vxcli_status_to_string(status), status);
}

void put_identity(Out* out, int slot) {
  char identity[64];
  daemon_slot_identity(g_daemon_slots[slot], identity, sizeof identity);
  daemon_put_json_string(out, identity);
}

void hex_bytes(const uint8_t* data, int length, char* out, size_t size, const char* separator) {
  size_t n = 0;
  out[0] = 0;
  for (int i = 0; i < length && n + 4 < size; i++)
    n += static_cast<size_t>(snprintf(out + n, size - n, "%s%02X", i && *separator ? separator : "", data[i]));
}

bool parse_ulong(const char* text, unsigned long low, unsigned long high, unsigned long* out) {
  if (!text || !*text || *text == '-') return false;
  errno = 0;
  char* end = nullptr;
  unsigned long v = strtoul(text, &end, 0);
  if (errno || *end || v < low || v > high) return false;
  *out = v;
  return true;
}

const char* can_state_name(VXHandle handle) {
  VXCanStatus can;
  VXStatus st = VX_GetCanStatus(handle, &can);
  if (st == VX_OK) return "error-active";
  if (st == VX_ERR_BUS_OFF) return "bus-off";
  if (st == VX_ERR_BUS_PASSIVE) return "error-passive";
  return "unknown";
}

// The device's current table, or the slot's copy when the device cannot say.
int current_tasks(int slot, VXTxTask* table) {
  state_of(slot);
  const Slot& s = g_daemon_slots[slot];
  int capacity = daemon_txtask_capacity(slot);
  memset(table, 0, sizeof(VXTxTask) * VXCLI_DAEMON_MAX_TXTASKS);
  if (VX_GetTxTasks(s.handle, table, static_cast<uint32_t>(capacity)) != VX_OK) {
    memset(table, 0, sizeof(VXTxTask) * VXCLI_DAEMON_MAX_TXTASKS);
    memcpy(table, s.txtasks, sizeof(VXTxTask) * static_cast<size_t>(s.txtask_count));
  }
  return capacity;
}

int current_routes(int slot, VXRoute* table) {
  state_of(slot);
  const Slot& s = g_daemon_slots[slot];
  int capacity = daemon_route_capacity(slot);
  memset(table, 0, sizeof(VXRoute) * VXCLI_DAEMON_MAX_ROUTES);
  if (VX_GetMsgRoutes(s.handle, table, static_cast<uint32_t>(capacity)) != VX_OK) {
    memset(table, 0, sizeof(VXRoute) * VXCLI_DAEMON_MAX_ROUTES);
    memcpy(table, s.routes, sizeof(VXRoute) * static_cast<size_t>(s.route_count));
  }
  return capacity;
}

// ---------------------------------------------------------------------------
// txtask

const char* txtask_add(const Words& w, Out* out) {
  const char* error = nullptr;
  int slot = daemon_required_slot(w, &error, out);
  if (slot < 0) return error;
  Slot& s = g_daemon_slots[slot];
  vxcli_txtask_options o;
  vxcli_txtask_read_options([&](const char* name) { return w.option(name); }, &o);
  VXTxTask task;
  char reason[256];
  if (vxcli_txtask_build(o, s.lin, false, &task, reason, sizeof reason) != 0)
    return put_error(out, "ERROR: %s\n", reason);
  VXTxTask table[VXCLI_DAEMON_MAX_TXTASKS];
  int capacity = current_tasks(slot, table);
  int index = vxcli_txtask_first_free(table, capacity);
  if (index < 0) return put_error(out, "ERROR: Maximum number of TX tasks (%d) reached\n", capacity);
  if (s.lin) task.user = static_cast<uint16_t>(index);
  table[index] = task;
  if (s.lin && s.mode == VX_LIN_MODE_SLAVE)
    vxcli_txtask_prime_response(s.handle, task);
  VXStatus status = daemon_apply_txtasks(slot, table, vxcli_txtask_used_length(table, capacity));
  if (status != VX_OK) return device_error(out, "VX_SetTxTasks", status);
  uint32_t id = vxcli_txtask_shown_id(task);
  if (w.json)
    daemon_put(out, "{\"status\":\"ok\",\"taskid\":%d,\"channel\":%d,\"type\":%d,\"cycle\":%u,\"id\":\"0x%X\"}\n", index,
               slot, task.type, task.cycle, id);
  else
    daemon_put(out, "OK: TX task %d added on slot %d: type=%s cycle=%ums id=0x%X%s\n", index, slot,
               vxcli_txtask_type_name(task.type), task.cycle, id, s.lin ? " (LIN slave response)" : "");
  return out->data;
}

const char* txtask_remove(const Words& w, Out* out) {
  const char* error = nullptr;
  int slot = daemon_required_slot(w, &error, out);
  if (slot < 0) return error;
  const char* text = w.option("taskid");
  if (!text) return "ERROR: --taskid is required\n";
  VXTxTask table[VXCLI_DAEMON_MAX_TXTASKS];
  int capacity = current_tasks(slot, table);
  unsigned long taskid = 0;
  if (!parse_ulong(text, 0, static_cast<unsigned long>(capacity - 1), &taskid))
    return put_error(out, "ERROR: Invalid task ID %s (valid range: 0-%d)\n", text, capacity - 1);
  memset(&table[taskid], 0, sizeof table[taskid]);
  VXStatus status = daemon_apply_txtasks(slot, table, vxcli_txtask_used_length(table, capacity));
  if (status != VX_OK) return device_error(out, "VX_SetTxTasks", status);
  if (w.json) return "{\"status\":\"ok\",\"message\":\"task removed\"}\n";
  daemon_put(out, "OK: TX task %lu removed from slot %d\n", taskid, slot);
  return out->data;
}

const char* txtask_list(const Words& w, Out* out) {
  const char* error = nullptr;
  int slot = daemon_required_slot(w, &error, out);
  if (slot < 0) return error;
  VXTxTask table[VXCLI_DAEMON_MAX_TXTASKS];
  int capacity = current_tasks(slot, table);
  int used = 0;
  for (int i = 0; i < capacity; i++) used += vxcli_txtask_in_use(table[i]) ? 1 : 0;
  if (w.json) daemon_put(out, "{\"status\":\"ok\",\"channel\":%d,\"tasks\":[", slot);
  else daemon_put(out, "OK: %d TX task(s) on slot %d\n", used, slot);
  int shown = 0;
  for (int i = 0; i < capacity; i++) {
    const VXTxTask& t = table[i];
    if (!vxcli_txtask_in_use(t)) continue;
    const char* type = vxcli_txtask_type_name(t.type);
    uint32_t id = vxcli_txtask_shown_id(t);
    if (w.json) {
      daemon_put(out, "%s{\"taskid\":%d,\"type\":\"%s\",\"cycle\":%u,\"delay\":%u,\"nrounds\":%u,\"id\":\"0x%X\","
                 "\"flags\":%u,\"length\":%u}",
                 shown ? "," : "", i, type, t.cycle, t.delay, t.rounds, id, t.flags, t.length);
    } else {
      char payload[200];
      hex_bytes(t.data, t.length > 64 ? 64 : t.length, payload, sizeof payload, " ");
      daemon_put(out, "Task %d: type=%s cycle=%ums delay=%u rounds=%u id=0x%X flags=0x%02X len=%u\n  Payload: %s\n", i,
                 type, t.cycle, t.delay, t.rounds, id, t.flags, t.length, payload);
    }
    shown++;
  }
  if (w.json) daemon_put(out, "],\"count\":%d}\n", shown);
  return out->data;
}

// ---------------------------------------------------------------------------
// route

int resolve_slot_option(const Words& w, const char* name, const char** error, Out* out) {
  const char* text = w.option(name);
  int slot = text ? daemon_resolve_ch(text) : -1;
  if (slot < 0) *error = put_error(out, "ERROR: channel %s is not open\n", text);
  return slot;
}

const char* route_add(const Words& w, Out* out) {
  const char* src = w.option("src");
  const char* dst = w.option("dst");
  if (!src) return "ERROR: --src is required (source channel)\n";
  if (!dst) return "ERROR: --dst is required (destination channel)\n";
  const char* error = nullptr;
  int slot = resolve_slot_option(w, "src", &error, out);
  if (slot < 0) return error;
  const Slot& s = g_daemon_slots[slot];
  if (s.lin) return "ERROR: routes require a CAN source channel\n";
  vxcli_route_request request;
  memset(&request, 0, sizeof request);
  const char* type = w.option("type");
  if (!type || !strcasecmp(type, "unicast")) request.type = VX_ROUTE_UNICAST;
  else if (!strcasecmp(type, "broadcast")) request.type = VX_ROUTE_BROADCAST;
  else return put_error(out, "ERROR: Invalid route type: %s (unicast/broadcast)\n", type);
  const char* message = w.option("message") ? w.option("message") : w.option("id");
  if (message) {
    long id = vxcli_parse_message_id_quiet(message, nullptr);
    if (id < 0 || id > 0x1FFFFFFF) return put_error(out, "ERROR: Invalid message ID: %s\n", message);
    request.has_id = true;
    request.id = static_cast<uint32_t>(id);
  }
  if (const char* flags = w.option("flags")) {
    if (vxcli_txtask_parse_flag_words(flags, &request.flags) != 0)
      return put_error(out, "ERROR: Invalid --flags: %s (ide, rtr)\n", flags);
    request.has_flags = true;
  }
  if (request.type == VX_ROUTE_BROADCAST) {
    unsigned long mask = 0;
    if (!parse_ulong(dst, 1, 0xFF, &mask)) return put_error(out, "ERROR: Invalid --dst port mask: %s (1..0xFF)\n", dst);
    request.target = static_cast<int>(mask);
  } else {
    vxcli_channel_spec spec;
    if (vxcli_parse_channel_spec(dst, &spec) != 0) return put_error(out, "ERROR: Invalid --dst channel spec: %s\n", dst);
    // The destination need not be open in the daemon; only its device and port count.
    int open_dst = daemon_resolve_ch(dst);
    VXChannelInfo target;
    if (open_dst >= 0) {
      target = g_daemon_slots[open_dst].info;
    } else {
      VXChannelInfo infos[32];
      int count = 0;
      if (vxcli_enumerate(infos, &count) != VX_OK) return "ERROR: VX_Enumerate failed\n";
      const VXChannelInfo* e = vxcli_resolve_channel(infos, count, &spec);
      if (!e) return put_error(out, "ERROR: Destination channel not found: %s\n", dst);
      target = *e;
    }
    if (memcmp(target.serial, s.info.serial, sizeof target.serial) != 0)
      return put_error(out,
                       "ERROR: Hardware route cannot cross devices: src %s -> dst %s. Routes are confined to one "
                       "device's own ports.\n",
                       src, dst);
    request.target = target.port;
  }
  request.src_port = s.info.port;
  VXRoute table[VXCLI_DAEMON_MAX_ROUTES];
  int capacity = current_routes(slot, table);
  int index = vxcli_route_first_free(table, capacity);
  if (index < 0) return put_error(out, "ERROR: max routes (%d) reached\n", capacity);
  vxcli_route_build(request, &table[index]);
  VXStatus status = daemon_apply_routes(slot, table, vxcli_route_used_length(table, capacity));
  if (status != VX_OK) return device_error(out, "VX_SetMsgRoutes", status);
  if (w.json) {
    daemon_put(out, "{\"status\":\"ok\",\"routeid\":%d,\"src_port\":%d,\"target\":%d,\"id\":\"0x%X\"}\n", index,
               request.src_port, request.target, request.id);
  } else {
    char id_text[32];
    if (request.has_id) snprintf(id_text, sizeof id_text, "0x%X", request.id);
    else snprintf(id_text, sizeof id_text, "(any)");
    daemon_put(out, "OK: Route %d added: port%d -> %s%d, message ID %s\n", index, request.src_port,
               request.type == VX_ROUTE_UNICAST ? "port" : "mask 0x", request.target, id_text);
  }
  return out->data;
}

const char* route_remove(const Words& w, Out* out) {
  const char* src = w.option("src");
  if (!src) return "ERROR: --src is required (source channel)\n";
  const char* error = nullptr;
  int slot = resolve_slot_option(w, "src", &error, out);
  if (slot < 0) return error;
  int target = -1;
  if (const char* dst = w.option("dst")) {
    unsigned long port = 0;
    if (parse_ulong(dst, 0, 255, &port)) {
      target = static_cast<int>(port);
    } else {
      vxcli_channel_spec spec;
      if (vxcli_parse_channel_spec(dst, &spec) != 0 || spec.port < 0)
        return put_error(out, "ERROR: Invalid --dst: %s (destination port)\n", dst);
      target = spec.port;
    }
  }
  long id = -1;
  if (const char* message = w.option("message")) {
    id = vxcli_parse_message_id_quiet(message, nullptr);
    if (id < 0 || id > 0x1FFFFFFF) return put_error(out, "ERROR: Invalid message ID: %s\n", message);
  }
  VXRoute table[VXCLI_DAEMON_MAX_ROUTES];
  int capacity = current_routes(slot, table);
  int cleared =
      vxcli_route_remove_matching(table, capacity, target >= 0, target, id >= 0, static_cast<uint32_t>(id));
  if (cleared == 0) return "ERROR: No matching route found\n";
  VXStatus status = daemon_apply_routes(slot, table, vxcli_route_used_length(table, capacity));
  if (status != VX_OK) return device_error(out, "VX_SetMsgRoutes", status);
  if (w.json) return "{\"status\":\"ok\",\"message\":\"route removed\"}\n";
  daemon_put(out, "OK: Removed %d route(s) from channel %s\n", cleared, src);
  return out->data;
}

const char* route_list(const Words& w, Out* out) {
  const char* error = nullptr;
  int slot = daemon_required_slot(w, &error, out);
  if (slot < 0) return error;
  VXRoute table[VXCLI_DAEMON_MAX_ROUTES];
  int capacity = current_routes(slot, table);
  int used = 0;
  for (int i = 0; i < capacity; i++) used += table[i].type != VX_ROUTE_FREE ? 1 : 0;
  if (w.json) daemon_put(out, "{\"status\":\"ok\",\"channel\":%d,\"routes\":[", slot);
  else daemon_put(out, "OK: %d route(s) on slot %d\n", used, slot);
  int shown = 0;
  for (int i = 0; i < capacity; i++) {
    const VXRoute& r = table[i];
    if (r.type == VX_ROUTE_FREE) continue;
    const char* type = vxcli_route_type_name(r.type);
    if (w.json)
      daemon_put(out, "%s{\"routeid\":%d,\"type\":\"%s\",\"source\":%d,\"dest\":%d,\"idmask\":\"0x%X\","
                 "\"idvalue\":\"0x%X\",\"flagsmask\":%d,\"flagsvalue\":%d}",
                 shown ? "," : "", i, type, r.src_port, r.target, r.id_mask, r.id_value, r.flags_mask, r.flags_value);
    else
      daemon_put(out, "Route %d: %s CH%d -> CH%d, ID mask=0x%X value=0x%X, flags mask=0x%02X value=0x%02X\n", i, type,
                 r.src_port, r.target, r.id_mask, r.id_value, r.flags_mask, r.flags_value);
    shown++;
  }
  if (w.json) daemon_put(out, "],\"count\":%d}\n", shown);
  return out->data;
}

// ---------------------------------------------------------------------------
// channel power, recover, auto-recover, reset-defaults

const char* lin_slot_or_error(const Words& w, Out* out, int* slot, const char* what) {
  const char* error = nullptr;
  *slot = daemon_required_slot(w, &error, out);
  if (*slot < 0) return error;
  if (!g_daemon_slots[*slot].lin) return put_error(out, "ERROR: %s requires a LIN channel (slot %d is CAN)\n", what, *slot);
  return nullptr;
}

const char* can_slot_or_error(const Words& w, Out* out, int* slot, const char* what) {
  const char* error = nullptr;
  *slot = daemon_required_slot(w, &error, out);
  if (*slot < 0) return error;
  if (g_daemon_slots[*slot].lin) return put_error(out, "ERROR: %s requires a CAN channel (slot %d is LIN)\n", what, *slot);
  return nullptr;
}

uint32_t current_power(int slot) {
  VXChannelConfig config;
  if (VX_GetChannelConfig(g_daemon_slots[slot].handle, &config) == VX_OK) return config.lin_power;
  return state_of(slot).lin.power;
}

const char* answer_power(const Words& w, const char* action, Out* out) {
  int slot = -1;
  if (const char* e = lin_slot_or_error(w, out, &slot, "channel power")) return e;
  Slot& s = g_daemon_slots[slot];
  ServiceState& st = state_of(slot);
  if (!daemon_is(action, "status")) {
    if (daemon_is(action, "cycle")) {
      unsigned long delay = 1000;
      if (w.option("delay") && !parse_ulong(w.option("delay"), 1, 60000, &delay))
        return "ERROR: --delay must be 1..60000 ms\n";
      VXStatus status = VX_SetLinVoltage(s.handle, 0);
      if (status != VX_OK) return device_error(out, "VX_SetLinVoltage", status);
      usleep(static_cast<useconds_t>(delay) * 1000);
    }
    uint32_t power = daemon_is(action, "off") ? 0 : 1;
    VXStatus status = VX_SetLinVoltage(s.handle, power);
    if (status != VX_OK) return device_error(out, "VX_SetLinVoltage", status);
    st.lin.power = power;
    st.lin.power_known = true;
  }
  uint32_t power = current_power(slot);
  if (w.json) {
    daemon_put(out, "{\"status\":\"ok\",\"slot\":%d,\"channel\":", slot);
    put_identity(out, slot);
    daemon_put(out, ",\"action\":\"%s\",\"power\":\"%s\"}\n", action, power ? "on" : "off");
  } else if (daemon_is(action, "status")) {
    daemon_put(out, "OK: slot %d power is %s\n", slot, power ? "on" : "off");
  } else {
    daemon_put(out, "OK: slot %d power %s%s\n", slot, daemon_is(action, "cycle") ? "cycled, now " : "", power ? "on" : "off");
  }
  return out->data;
}

// Brings a CAN slot back from bus-off: in place when the controller restarts,
// else by reopening it and writing its tables back. 0 in place, 1 reopened, -1.
int recover_slot(int slot) {
  Slot& s = g_daemon_slots[slot];
  if (VX_RecoverBusOff(s.handle) == VX_OK) return 0;
  daemon_close_channel(slot);
  if (daemon_reopen_slot(slot) != 0) return -1;
  daemon_restore_slot_tables(slot);
  return 1;
}

const char* answer_recover(const Words& w, Out* out) {
  int slot = -1;
  if (const char* e = can_slot_or_error(w, out, &slot, "channel recover")) return e;
  int how = recover_slot(slot);
  if (how < 0) return put_error(out, "ERROR: channel %d could not be recovered; the device did not reopen\n", slot);
  const Slot& s = g_daemon_slots[slot];
  const char* state = can_state_name(s.handle);
  if (w.json) {
    daemon_put(out, "{\"status\":\"ok\",\"slot\":%d,\"channel\":", slot);
    put_identity(out, slot);
    daemon_put(out, ",\"recovery\":\"%s\",\"state\":\"%s\",\"txtasks\":%d,\"routes\":%d}\n",
               how ? "reopened" : "in-place", state, s.txtask_count, s.route_count);
  } else if (how) {
    daemon_put(out, "OK: slot %d reopened and restored (%d TX task(s), %d route(s)), state=%s\n", slot, s.txtask_count,
               s.route_count, state);
  } else {
    daemon_put(out, "OK: slot %d recovered in place, state=%s\n", slot, state);
  }
  return out->data;
}

const char* answer_auto_recover(const Words& w, const char* action, Out* out) {
  if (daemon_is(action, "on") || daemon_is(action, "off")) {
    g_daemon_auto_recover = daemon_is(action, "on");
    if (w.json) return g_daemon_auto_recover ? "{\"status\":\"ok\",\"auto_recover\":true}\n"
                                             : "{\"status\":\"ok\",\"auto_recover\":false}\n";
    return g_daemon_auto_recover ? "OK: auto-recover on\n" : "OK: auto-recover off\n";
  }
  int slots[VXCLI_DAEMON_SLOTS];
  int n = 0;
  if (w.option("channel")) {
    const char* error = nullptr;
    n = daemon_selected_slots(w, slots, &error, out);
    if (n < 0) return error;
  } else {
    for (int i = 0; i < VXCLI_DAEMON_SLOTS; i++)
      if (g_daemon_slots[i].open) slots[n++] = i;
  }
  if (w.json) daemon_put(out, "{\"status\":\"ok\",\"auto_recover\":%s,\"channels\":[", g_daemon_auto_recover ? "true" : "false");
  else daemon_put(out, "OK: auto-recover is %s\n", g_daemon_auto_recover ? "on" : "off");
  for (int k = 0; k < n; k++) {
    const Slot& s = g_daemon_slots[slots[k]];
    const char* state = s.lin ? "lin" : can_state_name(s.handle);
    char identity[64];
    daemon_slot_identity(s, identity, sizeof identity);
    if (w.json) {
      daemon_put(out, "%s{\"slot\":%d,\"channel\":", k ? "," : "", slots[k]);
      daemon_put_json_string(out, identity);
      daemon_put(out, ",\"state\":\"%s\"}", state);
    } else {
      daemon_put(out, "  slot %d: %s state=%s\n", slots[k], identity, state);
    }
  }
  if (w.json) daemon_put(out, "]}\n");
  return out->data;
}

VXStatus apply_lin_protocol(int slot) {
  const LinExtra& lin = state_of(slot).lin;
  VXLinProtocol protocol;
  memset(&protocol, 0, sizeof protocol);
  protocol.version = lin.version;
  protocol.checksum_type = lin.checksum;
  return VX_SetLinProtocol(g_daemon_slots[slot].handle, &protocol);
}

const char* answer_reset_defaults(const Words& w, Out* out) {
  const char* error = nullptr;
  int slot = daemon_required_slot(w, &error, out);
  if (slot < 0) return error;
  Slot& s = g_daemon_slots[slot];
  int tasks = daemon_txtask_capacity(slot), filters = daemon_rxfilter_count(slot), routes = daemon_route_capacity(slot);
  ServiceState& st = state_of(slot);
  st.schedule_count = 0;
  st.schedule_active = false;
  memset(st.schedule, 0, sizeof st.schedule);
  VXStatus status = daemon_apply_txtasks(slot, nullptr, 0);
  if (status != VX_OK) return device_error(out, "VX_SetTxTasks", status);
  if (!s.lin) {
    // Accept-all entries: the daemon's receive path wants every frame.
    VXRxFilter table[32];
    memset(table, 0, sizeof table);
    for (int i = 0; i < filters; i++) table[i].mode = VX_RXFILTER_ACCEPT;
    status = VX_SetRxFilters(s.handle, table, static_cast<uint32_t>(filters));
    if (status != VX_OK) return device_error(out, "VX_SetRxFilters", status);
    status = daemon_apply_routes(slot, nullptr, 0);
    if (status != VX_OK) return device_error(out, "VX_SetMsgRoutes", status);
    if ((status = VX_SetCanMode(s.handle, s.mode)) != VX_OK) return device_error(out, "set CAN mode", status);
    if ((status = VX_SetCanBitrate(s.handle, &s.bitrate)) != VX_OK) return device_error(out, "set CAN bitrate", status);
    if ((status = VX_SetCanTermination(s.handle, s.termination)) != VX_OK)
      return device_error(out, "set CAN termination", status);
  } else {
    st.lin = LinExtra();
    if ((status = apply_lin_protocol(slot)) != VX_OK) return device_error(out, "VX_SetLinProtocol", status);
    uint32_t power = s.mode == VX_LIN_MODE_MASTER ? 1 : 0;
    if ((status = VX_SetLinVoltage(s.handle, power)) != VX_OK) return device_error(out, "VX_SetLinVoltage", status);
  }
  if (w.json) {
    daemon_put(out, "{\"status\":\"ok\",\"slot\":%d,\"channel\":", slot);
    put_identity(out, slot);
    daemon_put(out, ",\"txtasks_cleared\":%d,\"filters_cleared\":%d,\"routes_cleared\":%d}\n", tasks,
               s.lin ? 0 : filters, s.lin ? 0 : routes);
  } else {
    daemon_put(out, "OK: slot %d reset to defaults (%d TX task, %d filter and %d route entries cleared)\n", slot, tasks,
               s.lin ? 0 : filters, s.lin ? 0 : routes);
  }
  return out->data;
}

// ---------------------------------------------------------------------------
// can config

const char* can_mode_word(uint32_t mode) {
  switch (mode) {
    case VX_CAN_MODE_NORMAL: return "normal";
    case VX_CAN_MODE_CLASSIC: return "classic";
    case VX_CAN_MODE_LISTEN_ONLY: return "listen-only";
    case VX_CAN_MODE_LOOPBACK: return "loopback";
  }
  return "unknown";
}

const char* put_can_config(const Words& w, int slot, const char* verb, Out* out) {
  const Slot& s = g_daemon_slots[slot];
  VXChannelConfig c;
  memset(&c, 0, sizeof c);
  VXStatus status = VX_GetChannelConfig(s.handle, &c);
  if (status != VX_OK) return device_error(out, "VX_GetChannelConfig", status);
  char termination[16];
  if (c.resistance == VX_TERMINATION_OFF) snprintf(termination, sizeof termination, "off");
  else snprintf(termination, sizeof termination, "%u", c.resistance ? c.resistance : 120);
  if (w.json) {
    daemon_put(out, "{\"status\":\"ok\",\"slot\":%d,\"channel\":", slot);
    put_identity(out, slot);
    daemon_put(out, ",\"bus\":\"can\",\"mode\":\"%s\",\"bitrate\":%u,\"data_bitrate\":%u,\"termination\":\"%s\","
               "\"fd\":%s}\n",
               can_mode_word(c.mode), c.bitrate.nominal_kbps, c.bitrate.data_kbps, termination,
               c.fd_enabled ? "true" : "false");
  } else {
    daemon_put(out, "OK: slot %d CAN %smode=%s bitrate=%u/%u termination=%s fd=%s\n", slot, verb, can_mode_word(c.mode),
               c.bitrate.nominal_kbps, c.bitrate.data_kbps, termination, c.fd_enabled ? "on" : "off");
  }
  return out->data;
}

const char* can_config_set(const Words& w, int slot, Out* out) {
  Slot& s = g_daemon_slots[slot];
  uint32_t mode = s.mode, termination = s.termination;
  VXBitrate bitrate = s.bitrate;
  const char* mode_text = w.option("mode");
  if (mode_text) {
    if (!strcmp(mode_text, "normal")) mode = VX_CAN_MODE_NORMAL;
    else if (!strcmp(mode_text, "classic")) mode = VX_CAN_MODE_CLASSIC;
    else if (!strcmp(mode_text, "listen-only") || !strcmp(mode_text, "listen")) mode = VX_CAN_MODE_LISTEN_ONLY;
    else if (!strcmp(mode_text, "loopback")) mode = VX_CAN_MODE_LOOPBACK;
    else return put_error(out, "ERROR: invalid CAN mode '%s'\n", mode_text);
  }
  if (const char* text = w.option("bitrate")) {
    if (vxcli_parse_bitrate_pair(text, &bitrate) != 0)
      return "ERROR: invalid bitrate; use forms such as 500, 500K, 500000, or 1M\n";
  }
  unsigned long kbps = 0;
  if (const char* text = w.option("nbitrate")) {
    if (!parse_ulong(text, 1, 65535, &kbps)) return "ERROR: --nbitrate must be 1..65535 kbps\n";
    bitrate.nominal_kbps = static_cast<uint16_t>(kbps);
  }
  if (const char* text = w.option("dbitrate")) {
    if (!parse_ulong(text, 1, 65535, &kbps)) return "ERROR: --dbitrate must be 1..65535 kbps\n";
    bitrate.data_kbps = static_cast<uint16_t>(kbps);
  }
  if (const char* text = w.option("termination")) {
    if (!strcmp(text, "120") || !strcmp(text, "on")) termination = 120;
    else if (!strcmp(text, "off")) termination = VX_TERMINATION_OFF;
    else return put_error(out, "ERROR: invalid termination '%s'; use 120 or off\n", text);
  }
  if (!mode_text && !w.option("bitrate") && !w.option("nbitrate") && !w.option("dbitrate") && !w.option("termination"))
    return "ERROR: can config set needs --mode, --bitrate, --nbitrate, --dbitrate or --termination\n";
  VXStatus status;
  if (memcmp(&bitrate, &s.bitrate, sizeof bitrate) != 0) {
    if ((status = VX_SetCanBitrate(s.handle, &bitrate)) != VX_OK) return device_error(out, "set CAN bitrate", status);
    s.bitrate = bitrate;
  }
  if (mode != s.mode) {
    if ((status = VX_SetCanMode(s.handle, mode)) != VX_OK) return device_error(out, "set CAN mode", status);
    s.mode = mode;
  }
  if (termination != s.termination) {
    if ((status = VX_SetCanTermination(s.handle, termination)) != VX_OK)
      return device_error(out, "set CAN termination", status);
    s.termination = termination;
  }
  return put_can_config(w, slot, "configuration updated: ", out);
}

const char* answer_can_config(const Words& w, const char* action, Out* out) {
  int slot = -1;
  if (const char* e = can_slot_or_error(w, out, &slot, "can config")) return e;
  if (daemon_is(action, "get")) return put_can_config(w, slot, "", out);
  if (daemon_is(action, "set")) return can_config_set(w, slot, out);
  return put_error(out, "ERROR: unknown can config action '%s'\n", action ? action : "");
}

// ---------------------------------------------------------------------------
// lin config

const char* put_lin_config(const Words& w, int slot, const char* verb, Out* out) {
  const Slot& s = g_daemon_slots[slot];
  ServiceState& st = state_of(slot);
  VXChannelConfig c;
  memset(&c, 0, sizeof c);
  VXStatus status = VX_GetChannelConfig(s.handle, &c);
  if (status != VX_OK) return device_error(out, "VX_GetChannelConfig", status);
  const char* pullup = c.resistance == VX_TERMINATION_OFF ? "off" : "1k";
  const char* version = vxcli_lin_version_name(c.lin_version ? c.lin_version : st.lin.version);
  const char* checksum = vxcli_lin_checksum_name(c.lin_checksum ? c.lin_checksum : st.lin.checksum);
  if (w.json) {
    daemon_put(out, "{\"status\":\"ok\",\"slot\":%d,\"channel\":", slot);
    put_identity(out, slot);
    daemon_put(out, ",\"bus\":\"lin\",\"mode\":\"%s\",\"bitrate\":%u,\"pullup\":\"%s\",\"power\":\"%s\","
               "\"lin_version\":\"%s\",\"checksum\":\"%s\"}\n",
               vxcli_lin_mode_name(c.mode), c.bitrate.nominal_kbps, pullup, c.lin_power ? "on" : "off", version,
               checksum);
  } else {
    daemon_put(out, "OK: slot %d LIN %smode=%s bitrate=%u bps pullup=%s power=%s version=%s checksum=%s\n", slot, verb,
               vxcli_lin_mode_name(c.mode), c.bitrate.nominal_kbps, pullup, c.lin_power ? "on" : "off", version,
               checksum);
  }
  return out->data;
}

const char* lin_config_set(const Words& w, int slot, Out* out) {
  Slot& s = g_daemon_slots[slot];
  ServiceState& st = state_of(slot);
  uint32_t mode = s.mode;
  if (const char* text = w.option("mode")) {
    if (vxcli_parse_lin_mode(text, s.mode, &mode) != 0) return put_error(out, "ERROR: invalid LIN mode '%s'\n", text);
  }
  uint16_t bps = s.bitrate.nominal_kbps;
  if (const char* text = w.option("bitrate")) {
    if (vxcli_parse_lin_bitrate(text, &bps) != 0)
      return put_error(out, "ERROR: Invalid LIN bitrate '%s' (expected 1000..20000 bps, e.g. 19200 or 19.2K)\n", text);
  }
  if (bps == 0 && mode != VX_LIN_MODE_SLAVE) return "ERROR: auto bitrate is only supported in LIN slave mode\n";
  if (bps == 0) return "ERROR: connected ZQX LIN firmware does not yet support safe auto bitrate\n";
  uint32_t pullup = s.termination;
  if (const char* text = w.option("pullup")) {
    if (vxcli_parse_lin_tres(text, mode, &pullup) != 0) return put_error(out, "ERROR: invalid --pullup '%s'\n", text);
  }
  LinExtra lin = st.lin;
  if (const char* text = w.option("power")) {
    if (vxcli_parse_lin_voltage(text, mode, &lin.power) != 0) return put_error(out, "ERROR: invalid --power '%s'\n", text);
    lin.power_known = true;
  }
  if (const char* text = w.option("lin-version")) {
    if (vxcli_parse_lin_version(text, &lin.version) != 0)
      return put_error(out, "ERROR: invalid --lin-version '%s'\n", text);
  }
  if (const char* text = w.option("checksum")) {
    if (vxcli_parse_lin_checksum(text, 0, &lin.checksum) != 0)
      return put_error(out, "ERROR: invalid --checksum '%s'\n", text);
  }
  if (mode != VX_LIN_MODE_MASTER && st.schedule_active)
    return "ERROR: deactivate the system schedule before leaving master mode\n";
  // Role, bitrate and pull-up are fixed when the channel opens; change them by
  // reopening the slot with the new configuration.
  if (mode != s.mode || bps != s.bitrate.nominal_kbps || pullup != s.termination) {
    uint32_t old_mode = s.mode, old_pullup = s.termination;
    VXBitrate old_bitrate = s.bitrate;
    daemon_close_channel(slot);
    s.mode = mode;
    s.bitrate.nominal_kbps = bps;
    s.termination = pullup;
    if (daemon_reopen_slot(slot) != 0) {
      s.mode = old_mode;
      s.bitrate = old_bitrate;
      s.termination = old_pullup;
      if (daemon_reopen_slot(slot) != 0) return put_error(out, "ERROR: channel %d could not be reopened\n", slot);
      return put_error(out, "ERROR: could not reopen channel %d with the new LIN configuration\n", slot);
    }
  }
  st.lin = lin;
  VXStatus status = apply_lin_protocol(slot);
  if (status != VX_OK) return device_error(out, "VX_SetLinProtocol", status);
  if (lin.power_known && (status = VX_SetLinVoltage(s.handle, lin.power)) != VX_OK)
    return device_error(out, "VX_SetLinVoltage", status);
  return put_lin_config(w, slot, "configuration updated: ", out);
}

const char* answer_lin_config(const Words& w, const char* action, Out* out) {
  int slot = -1;
  if (const char* e = lin_slot_or_error(w, out, &slot, "lin config")) return e;
  if (daemon_is(action, "get")) return put_lin_config(w, slot, "", out);
  if (daemon_is(action, "set")) return lin_config_set(w, slot, out);
  return put_error(out, "ERROR: unknown lin config action '%s'\n", action ? action : "");
}

// ---------------------------------------------------------------------------
// lin response: slave responses kept as response entries of the port's task table

bool parse_lin_id(const char* text, uint8_t* id) {
  long value = vxcli_parse_message_id_quiet(text, nullptr);
  if (value < 0 || value > 0x3F) return false;
  *id = static_cast<uint8_t>(value);
  return true;
}

int find_response(const VXTxTask* table, int capacity, uint8_t id) {
  for (int i = 0; i < capacity; i++)
    if (vxcli_txtask_in_use(table[i]) && table[i].kind == VX_TXTASK_KIND_LIN_RESPONSE && table[i].lin_id == id)
      return i;
  return -1;
}

void put_response_json(Out* out, const VXTxTask& t, int index) {
  char data[32];
  hex_bytes(t.data, t.length > 8 ? 8 : t.length, data, sizeof data, "");
  daemon_put(out, "{\"id\":\"0x%02X\",\"taskid\":%d,\"length\":%u,\"data\":\"%s\",\"checksum\":\"%s\","
             "\"checksum_byte\":\"0x%02X\"}",
             t.lin_id, index, t.length, data,
             vxcli_lin_checksum_name((t.flags & VX_LINTASK_ENHANCED) ? VXCLI_LIN_CHECKSUM_ENHANCED
                                                                     : VXCLI_LIN_CHECKSUM_CLASSIC),
             t.lin_checksum);
}

void put_response_text(Out* out, const VXTxTask& t) {
  char data[32];
  hex_bytes(t.data, t.length > 8 ? 8 : t.length, data, sizeof data, " ");
  daemon_put(out, "  0x%02X [%u] %s %s (0x%02X)\n", t.lin_id, t.length, data,
             (t.flags & VX_LINTASK_ENHANCED) ? "enhanced" : "classic", t.lin_checksum);
}

const char* answer_lin_response(const Words& w, const char* action, Out* out) {
  int slot = -1;
  if (const char* e = lin_slot_or_error(w, out, &slot, "lin response")) return e;
  Slot& s = g_daemon_slots[slot];
  VXTxTask table[VXCLI_DAEMON_MAX_TXTASKS];
  int capacity = current_tasks(slot, table);
  bool needs_id = daemon_is(action, "get") || daemon_is(action, "set") || daemon_is(action, "remove");
  uint8_t id = 0;
  if (needs_id) {
    const char* text = w.option("id");
    if (!text) return "ERROR: --id is required\n";
    if (!parse_lin_id(text, &id)) return put_error(out, "ERROR: LIN --id must be 0x00..0x3F, got '%s'\n", text);
  }
  int index = needs_id ? find_response(table, capacity, id) : -1;

  if (daemon_is(action, "get")) {
    if (index < 0) return put_error(out, "ERROR: no LIN response for ID 0x%02X on slot %d\n", id, slot);
    if (w.json) {
      daemon_put(out, "{\"status\":\"ok\",\"slot\":%d,\"response\":", slot);
      put_response_json(out, table[index], index);
      daemon_put(out, "}\n");
    } else {
      daemon_put(out, "OK: LIN response on slot %d\n", slot);
      put_response_text(out, table[index]);
    }
    return out->data;
  }
  if (daemon_is(action, "list")) {
    int n = 0;
    if (w.json) daemon_put(out, "{\"status\":\"ok\",\"slot\":%d,\"responses\":[", slot);
    for (int pass = 0; pass < 2; pass++) {
      for (int i = 0; i < capacity; i++) {
        const VXTxTask& t = table[i];
        if (!vxcli_txtask_in_use(t) || t.kind != VX_TXTASK_KIND_LIN_RESPONSE) continue;
        if (pass == 0) {
          n++;
          continue;
        }
        if (w.json) {
          if (out->data[out->length - 1] == '}') daemon_put(out, ",");
          put_response_json(out, t, i);
        } else {
          put_response_text(out, t);
        }
      }
      if (pass == 0 && !w.json) daemon_put(out, "OK: %d LIN response(s) on slot %d\n", n, slot);
    }
    if (w.json) daemon_put(out, "],\"count\":%d}\n", n);
    return out->data;
  }
  if (daemon_is(action, "set")) {
    const char* data_text = w.option("data");
    if (!data_text) return "ERROR: --data is required\n";
    vxcli_txtask_options o;
    memset(&o, 0, sizeof o);
    char id_text[8];
    snprintf(id_text, sizeof id_text, "0x%02X", id);
    o.message = id_text;
    o.data = data_text;
    o.checksum = w.option("checksum");
    VXTxTask task;
    char reason[256];
    if (vxcli_txtask_build(o, true, false, &task, reason, sizeof reason) != 0)
      return put_error(out, "ERROR: %s\n", reason);
    if (index < 0) index = vxcli_txtask_first_free(table, capacity);
    if (index < 0) return put_error(out, "ERROR: Maximum number of TX tasks (%d) reached\n", capacity);
    task.user = static_cast<uint16_t>(index);
    table[index] = task;
    if (s.mode == VX_LIN_MODE_SLAVE)
      vxcli_txtask_prime_response(s.handle, task);
  } else if (daemon_is(action, "remove")) {
    if (index < 0) return put_error(out, "ERROR: no LIN response for ID 0x%02X on slot %d\n", id, slot);
    memset(&table[index], 0, sizeof table[index]);
  } else if (daemon_is(action, "clear")) {
    int cleared = 0;
    for (int i = 0; i < capacity; i++) {
      if (!vxcli_txtask_in_use(table[i]) || table[i].kind != VX_TXTASK_KIND_LIN_RESPONSE) continue;
      memset(&table[i], 0, sizeof table[i]);
      cleared++;
    }
    index = cleared;
  } else {
    return put_error(out, "ERROR: unknown lin response action '%s'\n", action ? action : "");
  }
  VXStatus status = daemon_apply_txtasks(slot, table, vxcli_txtask_used_length(table, capacity));
  if (status != VX_OK) return device_error(out, "VX_SetTxTasks", status);
  if (daemon_is(action, "set")) {
    if (w.json) {
      daemon_put(out, "{\"status\":\"ok\",\"slot\":%d,\"response\":", slot);
      put_response_json(out, table[index], index);
      daemon_put(out, "}\n");
    } else {
      daemon_put(out, "OK: LIN response 0x%02X set on slot %d (%u bytes, %s checksum)\n", id, slot, table[index].length,
                 (table[index].flags & VX_LINTASK_ENHANCED) ? "enhanced" : "classic");
    }
  } else if (daemon_is(action, "remove")) {
    if (w.json) daemon_put(out, "{\"status\":\"ok\",\"slot\":%d,\"removed\":\"0x%02X\"}\n", slot, id);
    else daemon_put(out, "OK: LIN response 0x%02X removed from slot %d\n", id, slot);
  } else {
    if (w.json) daemon_put(out, "{\"status\":\"ok\",\"slot\":%d,\"cleared\":%d}\n", slot, index);
    else daemon_put(out, "OK: %d LIN response(s) cleared on slot %d\n", index, slot);
  }
  return out->data;
}

// ---------------------------------------------------------------------------
// lin schedule: the one reserved "system" table, run as header tasks

uint32_t schedule_round(const ServiceState& st) {
  uint32_t total = 0;
  for (int i = 0; i < st.schedule_count; i++) total += st.schedule[i].delay_ms;
  return total;
}

uint32_t entry_operation(const VXTxTask& t) {
  if (t.flags & VX_LINTASK_SYNC_BREAK) return VXCLI_LIN_SYNC_BREAK;
  if (t.flags & VX_LINTASK_MASTER_WRITE) return VXCLI_LIN_MASTER_WRITE;
  return VXCLI_LIN_MASTER_READ;
}

const char* entry_checksum(const VXTxTask& t) {
  return (t.flags & VX_LINTASK_ENHANCED) ? "enhanced" : "classic";
}

const char* schedule_apply(int slot, ServiceState& st, bool active, Out* out) {
  VXTxTask table[VXCLI_DAEMON_MAX_TXTASKS];
  VXStatus status = daemon_compile_system_schedule(slot, st.schedule, active ? st.schedule_count : 0, table);
  if (status != VX_OK) return device_error(out, "VX_SetTxTasks", status);
  st.schedule_active = active;
  return nullptr;
}

const char* schedule_add(const Words& w, int slot, ServiceState& st, Out* out) {
  const char* id_text = w.option("id");
  if (!id_text) return "ERROR: --id is required\n";
  uint8_t id = 0;
  if (!parse_lin_id(id_text, &id)) return put_error(out, "ERROR: LIN --id must be 0x00..0x3F, got '%s'\n", id_text);
  unsigned long delay = 0;
  if (!parse_ulong(w.option("delay"), 1, 65535, &delay)) return "ERROR: schedule --delay must be 1..65535 ms\n";
  uint32_t operation = 0;
  if (vxcli_parse_lin_operation(w.option("type"), &operation) != 0)
    return "ERROR: schedule --type must be master-write, master-read, or sync-break\n";
  const char* data_text = w.option("data");
  const char* dlc_text = w.option("dlc");
  if (data_text && operation != VXCLI_LIN_MASTER_WRITE)
    return "ERROR: master-read and sync-break schedule entries cannot include --data\n";
  unsigned long dlc = 8;
  if (dlc_text && !parse_ulong(dlc_text, 0, 8, &dlc)) return "ERROR: --dlc must be 0..8\n";
  if (operation == VXCLI_LIN_SYNC_BREAK && dlc_text && dlc != 0)
    return "ERROR: sync-break is header-only; omit --dlc or use --dlc=0\n";
  uint8_t data[8] = {0};
  int length = static_cast<int>(dlc);
  if (data_text) {
    uint8_t buffer[65];
    int n = vxcli_parse_data(data_text, buffer, 65);
    if (n > 8 || (n == 0 && *data_text)) return "ERROR: LIN --data must be 1..8 hex bytes\n";
    if (dlc_text && n > length) return "ERROR: --data is longer than --dlc allows\n";
    memcpy(data, buffer, static_cast<size_t>(n));
    if (!dlc_text) length = n;
  }
  if (operation == VXCLI_LIN_SYNC_BREAK) length = 0;
  uint8_t checksum = 0;
  if (vxcli_parse_lin_checksum(w.option("checksum"), id, &checksum) != 0)
    return put_error(out, "ERROR: invalid --checksum '%s'\n", w.option("checksum"));
  if (st.schedule_count >= VXCLI_DAEMON_MAX_TXTASKS) return "ERROR: system schedule is full\n";
  if (schedule_round(st) + delay > 65535) return "ERROR: system schedule round would exceed 65535 ms\n";

  DaemonScheduleEntry& e = st.schedule[st.schedule_count];
  memset(&e, 0, sizeof e);
  e.task.type = VX_TXTASK_FIXED;
  e.task.kind = VX_TXTASK_KIND_LIN_HEADER;
  e.task.flags = static_cast<uint8_t>((checksum == VXCLI_LIN_CHECKSUM_ENHANCED ? VX_LINTASK_ENHANCED : 0) |
                                      (operation == VXCLI_LIN_MASTER_WRITE ? VX_LINTASK_MASTER_WRITE : 0) |
                                      (operation == VXCLI_LIN_SYNC_BREAK ? VX_LINTASK_SYNC_BREAK : 0));
  e.task.length = static_cast<uint8_t>(length);
  e.task.lin_id = id;
  e.task.lin_checksum = vxcli_lin_checksum(data, static_cast<uint32_t>(length), id, checksum);
  memcpy(e.task.data, data, sizeof data);
  e.delay_ms = static_cast<uint32_t>(delay);
  int index = st.schedule_count++;
  if (st.schedule_active) {
    if (const char* error = schedule_apply(slot, st, true, out)) {
      st.schedule_count--;
      return error;
    }
  }
  if (w.json)
    daemon_put(out, "{\"status\":\"ok\",\"slot\":%d,\"schedule\":\"system\",\"entry\":%d,\"id\":\"0x%02X\","
               "\"type\":\"%s\",\"delay_ms\":%lu,\"dlc\":%d,\"entries\":%d,\"active\":%s}\n",
               slot, index, id, vxcli_lin_operation_name(operation), delay, length, st.schedule_count,
               st.schedule_active ? "true" : "false");
  else
    daemon_put(out, "OK: system schedule entry %d added on slot %d: id=0x%02X type=%s delay=%lu ms dlc=%d (%d entries)\n",
               index, slot, id, vxcli_lin_operation_name(operation), delay, length, st.schedule_count);
  return out->data;
}

const char* schedule_show(const Words& w, int slot, const ServiceState& st, Out* out) {
  uint32_t round = schedule_round(st);
  if (w.json) {
    daemon_put(out, "{\"status\":\"ok\",\"slot\":%d,\"schedule\":\"system\",\"active\":%s,\"cycle_ms\":%u,\"entries\":[",
               slot, st.schedule_active ? "true" : "false", round);
  } else {
    daemon_put(out, "OK: system schedule on slot %d: %d entries, cycle %u ms, %s\n", slot, st.schedule_count, round,
               st.schedule_active ? "active" : "inactive");
  }
  for (int i = 0; i < st.schedule_count; i++) {
    const VXTxTask& t = st.schedule[i].task;
    char data[32] = "";
    // Only a master-write entry carries data of its own.
    if (entry_operation(t) == VXCLI_LIN_MASTER_WRITE) hex_bytes(t.data, t.length, data, sizeof data, "");
    const char* op = vxcli_lin_operation_name(entry_operation(t));
    if (w.json)
      daemon_put(out, "%s{\"index\":%d,\"id\":\"0x%02X\",\"type\":\"%s\",\"delay_ms\":%u,\"dlc\":%u,\"checksum\":\"%s\","
                 "\"data\":\"%s\"}",
                 i ? "," : "", i, t.lin_id, op, st.schedule[i].delay_ms, t.length, entry_checksum(t), data);
    else
      daemon_put(out, "  %d: id=0x%02X type=%s delay=%u ms dlc=%u checksum=%s%s%s\n", i, t.lin_id, op,
                 st.schedule[i].delay_ms, t.length, entry_checksum(t),
                 entry_operation(t) == VXCLI_LIN_MASTER_WRITE ? " data=" : "",
                 entry_operation(t) == VXCLI_LIN_MASTER_WRITE ? data : "");
  }
  if (w.json) daemon_put(out, "],\"count\":%d}\n", st.schedule_count);
  return out->data;
}

const char* answer_lin_schedule(const Words& w, const char* action, Out* out) {
  int slot = -1;
  if (const char* e = lin_slot_or_error(w, out, &slot, "lin schedule")) return e;
  const char* name = w.option("schedule");
  if (name && strcmp(name, "system") != 0)
    return "ERROR: only the reserved system schedule is available until LDF loading is implemented\n";
  if (g_daemon_slots[slot].mode != VX_LIN_MODE_MASTER) return "ERROR: lin schedule requires a channel configured as master\n";
  ServiceState& st = state_of(slot);

  if (daemon_is(action, "list")) {
    if (w.json)
      daemon_put(out, "{\"status\":\"ok\",\"slot\":%d,\"schedules\":[{\"name\":\"system\",\"entries\":%d,\"active\":%s,"
                 "\"cycle_ms\":%u}],\"count\":1}\n",
                 slot, st.schedule_count, st.schedule_active ? "true" : "false", schedule_round(st));
    else
      daemon_put(out, "OK: 1 schedule(s) on slot %d\n  system entries=%d cycle=%u ms %s\n", slot, st.schedule_count,
                 schedule_round(st), st.schedule_active ? "active" : "inactive");
    return out->data;
  }
  if (daemon_is(action, "show")) return schedule_show(w, slot, st, out);
  if (daemon_is(action, "add")) return schedule_add(w, slot, st, out);
  if (daemon_is(action, "remove")) {
    if (st.schedule_count == 0) return "ERROR: system schedule is empty\n";
    unsigned long entry = 0;
    if (!parse_ulong(w.option("entry"), 0, static_cast<unsigned long>(st.schedule_count - 1), &entry))
      return "ERROR: invalid system schedule --entry\n";
    DaemonScheduleEntry removed = st.schedule[entry];
    memmove(&st.schedule[entry], &st.schedule[entry + 1],
            sizeof(DaemonScheduleEntry) * static_cast<size_t>(st.schedule_count - 1 - static_cast<int>(entry)));
    st.schedule_count--;
    if (st.schedule_active) {
      if (const char* error = schedule_apply(slot, st, st.schedule_count > 0, out)) return error;
    }
    if (w.json)
      daemon_put(out, "{\"status\":\"ok\",\"slot\":%d,\"schedule\":\"system\",\"removed\":%lu,\"entries\":%d,"
                 "\"active\":%s}\n",
                 slot, entry, st.schedule_count, st.schedule_active ? "true" : "false");
    else
      daemon_put(out, "OK: system schedule entry %lu (id=0x%02X) removed from slot %d (%d entries left)\n", entry,
                 removed.task.lin_id, slot, st.schedule_count);
    return out->data;
  }
  if (daemon_is(action, "clear")) {
    if (st.schedule_count == 0 && !st.schedule_active)
      return w.json ? "{\"status\":\"ok\",\"schedule\":\"system\",\"entries\":0,\"removed\":0}\n"
                    : "OK: system schedule is empty\n";
    int removed = st.schedule_count;
    if (st.schedule_active) {
      if (const char* error = schedule_apply(slot, st, false, out)) return error;
    }
    st.schedule_count = 0;
    memset(st.schedule, 0, sizeof st.schedule);
    if (w.json)
      daemon_put(out, "{\"status\":\"ok\",\"slot\":%d,\"schedule\":\"system\",\"entries\":0,\"removed\":%d}\n", slot,
                 removed);
    else
      daemon_put(out, "OK: system schedule cleared on slot %d (%d entries removed)\n", slot, removed);
    return out->data;
  }
  if (daemon_is(action, "activate")) {
    if (st.schedule_count == 0) return "ERROR: system schedule is empty\n";
    if (const char* error = schedule_apply(slot, st, true, out)) return error;
    if (w.json)
      daemon_put(out, "{\"status\":\"ok\",\"slot\":%d,\"schedule\":\"system\",\"active\":true,\"entries\":%d,"
                 "\"cycle_ms\":%u}\n",
                 slot, st.schedule_count, schedule_round(st));
    else
      daemon_put(out, "OK: system schedule activated on slot %d (%d entries, cycle %u ms)\n", slot, st.schedule_count,
                 schedule_round(st));
    return out->data;
  }
  if (daemon_is(action, "deactivate")) {
    bool was = st.schedule_active;
    if (const char* error = schedule_apply(slot, st, false, out)) return error;
    if (w.json)
      daemon_put(out, "{\"status\":\"ok\",\"slot\":%d,\"schedule\":\"system\",\"active\":false,\"was_active\":%s}\n",
                 slot, was ? "true" : "false");
    else
      daemon_put(out, "OK: system schedule %s on slot %d\n", was ? "deactivated" : "was not active", slot);
    return out->data;
  }
  return put_error(out, "ERROR: unknown lin schedule action '%s'\n", action ? action : "");
}

}  // namespace

const char* daemon_answer_services(const Words& w, Out* out) {
  const char* a = w.word(0);
  const char* b = w.word(1);
  const char* c = w.word(2);
  // A third word is an action only when it is not an option.
  if (c && c[0] == '-') c = nullptr;
  if (daemon_is(a, "txtask")) {
    if (daemon_is(b, "add")) return txtask_add(w, out);
    if (daemon_is(b, "remove")) return txtask_remove(w, out);
    if (daemon_is(b, "list")) return txtask_list(w, out);
    return nullptr;
  }
  if (daemon_is(a, "route")) {
    if (daemon_is(b, "add")) return route_add(w, out);
    if (daemon_is(b, "remove")) return route_remove(w, out);
    if (daemon_is(b, "list")) return route_list(w, out);
    return nullptr;
  }
  if (daemon_is(a, "channel")) {
    if (daemon_is(b, "power")) {
      if (!c) return "ERROR: channel power requires status, on, off or cycle\n";
      if (daemon_is(c, "status") || daemon_is(c, "on") || daemon_is(c, "off") || daemon_is(c, "cycle"))
        return answer_power(w, c, out);
      return put_error(out, "ERROR: unknown channel power action '%s'\n", c);
    }
    if (daemon_is(b, "recover")) return answer_recover(w, out);
    if (daemon_is(b, "auto-recover")) {
      if (!c) return "ERROR: channel auto-recover requires on, off or status\n";
      if (daemon_is(c, "on") || daemon_is(c, "off") || daemon_is(c, "status")) return answer_auto_recover(w, c, out);
      return put_error(out, "ERROR: unknown channel auto-recover action '%s'\n", c);
    }
    if (daemon_is(b, "reset-defaults")) return answer_reset_defaults(w, out);
    return nullptr;
  }
  if (daemon_is(a, "can") && daemon_is(b, "config")) {
    if (!c) return "ERROR: can config requires get or set\n";
    return answer_can_config(w, c, out);
  }
  if (daemon_is(a, "lin")) {
    if (!c) {
      if (daemon_is(b, "config")) return "ERROR: lin config requires get or set\n";
      if (daemon_is(b, "response")) return "ERROR: lin response requires get, set, list, remove or clear\n";
      if (daemon_is(b, "schedule"))
        return "ERROR: lin schedule requires list, show, add, remove, clear, activate or deactivate\n";
      return nullptr;
    }
    if (daemon_is(b, "config")) return answer_lin_config(w, c, out);
    if (daemon_is(b, "response")) return answer_lin_response(w, c, out);
    if (daemon_is(b, "schedule")) return answer_lin_schedule(w, c, out);
  }
  return nullptr;
}
