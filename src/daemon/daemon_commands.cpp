// The daemon's command processor and its table of open channel slots.
#include <time.h>
#include <unistd.h>

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "channel/channel.h"
#include "cli/output.h"
#include "daemon/arbiter.h"
#include "daemon/client.h"
#include "daemon/daemon.h"
#include "daemon/daemon_state.h"
#include "daemon/rx_broker.h"
#include "message/frame.h"
#include "vxapi.h"

Slot g_daemon_slots[VXCLI_DAEMON_SLOTS];
vxcli_control_arbiter g_daemon_arbiter;
bool g_daemon_auto_recover = true;

uint64_t daemon_now_ms() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000 + static_cast<uint64_t>(ts.tv_nsec) / 1000000;
}

void daemon_put(Out* out, const char* format, ...) {
  if (out->length + 1 >= out->size) return;
  va_list args;
  va_start(args, format);
  int n = vsnprintf(out->data + out->length, out->size - out->length, format, args);
  va_end(args);
  if (n > 0) out->length += static_cast<size_t>(n);
  if (out->length >= out->size) out->length = out->size - 1;
}

void daemon_put_json_string(Out* out, const char* text) {
  char escaped[512];
  vxcli_json_escape_to(text, escaped, sizeof escaped);
  daemon_put(out, "\"%s\"", escaped);
}

const char* Words::option(const char* name) const { return vxcli_get_option(argc, argv, name); }
bool Words::flag(const char* name) const { return vxcli_has_flag(argc, argv, name); }

bool daemon_is(const char* a, const char* b) { return a && b && strcmp(a, b) == 0; }

void daemon_slot_identity(const Slot& s, char* out, size_t size) {
  char serial[40];
  vxcli_render_serial(s.info.serial, serial, sizeof serial);
  snprintf(out, size, "SN%s/port%d", serial, s.info.port);
}

bool daemon_same_physical(const VXChannelInfo& a, const VXChannelInfo& b) {
  if (a.port != b.port) return false;
  if (a.serial[0] || b.serial[0]) return memcmp(a.serial, b.serial, sizeof a.serial) == 0;
  return memcmp(a.unique_id, b.unique_id, sizeof a.unique_id) == 0 && a.usb_vid == b.usb_vid &&
         a.usb_pid == b.usb_pid;
}

int daemon_open_count() {
  int n = 0;
  for (const Slot& s : g_daemon_slots) n += s.open ? 1 : 0;
  return n;
}

int daemon_required_slot(const Words& w, const char** error, Out* out) {
  if (!w.option("channel")) {
    *error = "ERROR: --channel is required\n";
    return -1;
  }
  int slots[VXCLI_DAEMON_SLOTS];
  if (daemon_selected_slots(w, slots, error, out) < 0) return -1;
  return slots[0];
}

namespace {

Slot* const g_slots = g_daemon_slots;
vxcli_control_arbiter& g_arbiter = g_daemon_arbiter;
uint64_t g_start_ms = 0;
bool g_running = false;

const char* can_mode_name(uint32_t mode) {
  switch (mode) {
    case VX_CAN_MODE_NORMAL: return "normal";
    case VX_CAN_MODE_CLASSIC: return "classic";
    case VX_CAN_MODE_LISTEN_ONLY: return "listen-only";
    case VX_CAN_MODE_LOOPBACK: return "loopback";
  }
  return "unknown";
}

const char* lin_mode_name(uint32_t mode) {
  switch (mode) {
    case VX_LIN_MODE_OFF: return "off";
    case VX_LIN_MODE_SLAVE: return "slave";
    case VX_LIN_MODE_LOOPBACK: return "internal-loopback";
    case VX_LIN_MODE_LISTEN_ONLY: return "listen-only";
    case VX_LIN_MODE_MASTER: return "master";
  }
  return "unknown";
}

int parse_can_mode(const char* text, uint32_t* mode) {
  if (!text || !strcmp(text, "normal")) *mode = VX_CAN_MODE_NORMAL;
  else if (!strcmp(text, "classic")) *mode = VX_CAN_MODE_CLASSIC;
  else if (!strcmp(text, "listen-only") || !strcmp(text, "listen")) *mode = VX_CAN_MODE_LISTEN_ONLY;
  else if (!strcmp(text, "loopback")) *mode = VX_CAN_MODE_LOOPBACK;
  else return -1;
  return 0;
}

int parse_lin_mode(const char* text, uint32_t* mode) {
  if (!text || !strcmp(text, "master")) *mode = VX_LIN_MODE_MASTER;
  else if (!strcmp(text, "slave")) *mode = VX_LIN_MODE_SLAVE;
  else if (!strcmp(text, "listen-only")) *mode = VX_LIN_MODE_LISTEN_ONLY;
  else if (!strcmp(text, "internal-loopback") || !strcmp(text, "loopback")) *mode = VX_LIN_MODE_LOOPBACK;
  else if (!strcmp(text, "off")) *mode = VX_LIN_MODE_OFF;
  else return -1;
  return 0;
}

int parse_termination(const char* text, uint32_t* ohm) {
  if (!text || !strcmp(text, "120") || !strcmp(text, "on")) *ohm = 120;
  else if (!strcmp(text, "off")) *ohm = VX_TERMINATION_OFF;
  else return -1;
  return 0;
}

// Opens the device for a free slot and attaches it to the broker; 0 or -1 (logged).
int open_into_slot(int index, const VXChannelInfo& info, bool lin, uint32_t mode, const VXBitrate& bitrate,
                   uint32_t termination) {
  Slot& s = g_slots[index];
  VXHandle handle = nullptr;
  VXStatus status = VX_OpenEx(&handle, &info, mode, termination, &bitrate, 0, lin ? VX_OPEN_LIN : 0);
  if (status != VX_OK || !handle) {
    printf("Daemon: VX_OpenEx failed for slot %d (name='%s'): %s (0x%X)\n", index, info.name,
           vxcli_status_to_string(status), status);
    return -1;
  }
  if (!lin) {
    // The daemon keeps every frame; services filter through their own cursors.
    VXRxFilter filter;
    memset(&filter, 0, sizeof filter);
    filter.mode = 1;
    VX_SetRxFilters(handle, &filter, 1);
  }
  VXNotifyHandle notify = 0;
  VX_GetNotification(handle, &notify);
  if (vxcli_rx_broker_attach(index, handle, notify, 8192) != 0) {
    printf(lin ? "Daemon: failed to attach LIN RX broker for slot %d\n"
               : "Daemon: failed to attach RX broker for slot %d\n",
           index);
    VX_Close(handle);
    return -1;
  }
  s.handle = handle;
  s.notify = notify;
  s.info = info;
  s.lin = lin;
  s.mode = mode;
  s.bitrate = bitrate;
  s.termination = termination;
  s.open = true;
  if (lin)
    printf("Daemon: slot %d opened LIN %s port %u (mode=%s, bitrate=%u bps)\n", index, info.name, info.port,
           lin_mode_name(mode), bitrate.nominal_kbps);
  else
    printf("Daemon: slot %d opened %s port %u (mode=%u, bitrate=%d/%d)\n", index, info.name, info.port, mode,
           bitrate.nominal_kbps, bitrate.data_kbps);
  vxcli_control_commit_configuration(&g_arbiter, static_cast<uint32_t>(index));
  return 0;
}

}  // namespace

void daemon_close_channel(int index) {
  Slot& s = g_slots[index];
  if (!s.open) return;
  vxcli_rx_broker_detach(index);
  VX_Close(s.handle);
  s.handle = nullptr;
  s.notify = 0;
  s.open = false;
  vxcli_control_clear_slot(&g_arbiter, static_cast<uint32_t>(index));
  printf("Daemon: slot %d closed\n", index);
}

namespace {

}  // namespace

int daemon_reopen_slot(int index) {
  Slot& s = g_slots[index];
  VXChannelInfo infos[32];
  int count = 0;
  if (vxcli_enumerate(infos, &count) == VX_OK) {
    for (int i = 0; i < count; i++) {
      if (!daemon_same_physical(infos[i], s.info)) continue;
      if (open_into_slot(index, infos[i], s.lin, s.mode, s.bitrate, s.termination) != 0) return -1;
      char serial[40];
      vxcli_render_serial(s.info.serial, serial, sizeof serial);
      printf("Daemon: slot %d recovered (SN=%s port=%u)\n", index, serial, s.info.port);
      return 0;
    }
  }
  char serial[40];
  vxcli_render_serial(s.info.serial, serial, sizeof serial);
  printf("Daemon: recovery failed for slot %d (SN=%s port=%u not found)\n", index, serial, s.info.port);
  return -1;
}

namespace {

// Options for opening one channel; fills *error with an answer on failure.
struct OpenRequest {
  const char* spec;
  const char* mode;
  const char* bitrate;
  const char* termination;
};

// Slot index, or -1 with error set. *reused tells whether the channel was already open.
int open_channel(const OpenRequest& request, bool* reused, char* error, size_t size) {
  *reused = false;
  vxcli_channel_spec spec;
  if (vxcli_parse_channel_spec(request.spec, &spec) != 0) {
    snprintf(error, size, "ERROR: invalid channel specification '%s'\n", request.spec);
    return -1;
  }
  VXChannelInfo infos[32];
  int count = 0;
  uint32_t status = vxcli_enumerate(infos, &count);
  if (status != VX_OK) {
    printf("Daemon: VX_Enumerate failed: %s (0x%X)\n", vxcli_status_to_string(status), status);
    snprintf(error, size, "ERROR: VX_Enumerate failed: %s (0x%X)\n", vxcli_status_to_string(status), status);
    return -1;
  }
  const VXChannelInfo* entry = vxcli_resolve_channel(infos, count, &spec);
  if (!entry) {
    printf("Daemon: channel not found for spec (type=%u)\n", spec.kind);
    snprintf(error, size, "ERROR: could not open channel %s\n", request.spec);
    return -1;
  }
  for (int i = 0; i < VXCLI_DAEMON_SLOTS; i++) {
    if (g_slots[i].open && daemon_same_physical(g_slots[i].info, *entry)) {
      char serial[40];
      vxcli_render_serial(entry->serial, serial, sizeof serial);
      printf("Daemon: channel SN%s/port%d already open (slot %d)\n", serial, entry->port, i);
      *reused = true;
      return i;
    }
  }
  bool lin = !(entry->capability & VX_CAP_CAN) && (entry->capability & VX_CAP_LIN);
  uint32_t mode = 0, termination = 0;
  VXBitrate bitrate;
  memset(&bitrate, 0, sizeof bitrate);
  if (lin) {
    if (request.termination) {
      snprintf(error, size, "ERROR: --termination requires a CAN channel\n");
      return -1;
    }
    if (parse_lin_mode(request.mode, &mode) != 0) {
      snprintf(error, size, "ERROR: invalid LIN mode '%s'\n", request.mode);
      return -1;
    }
    long bps = 19200;
    if (request.bitrate) {
      char* end = nullptr;
      bps = strtol(request.bitrate, &end, 10);
      if (!end || *end || bps < 1000 || bps > 20000) {
        snprintf(error, size, "ERROR: invalid LIN bitrate; expected 1000..20000 bps\n");
        return -1;
      }
    }
    bitrate.nominal_kbps = static_cast<uint16_t>(bps);
  } else {
    if (!(entry->capability & VX_CAP_CAN)) {
      snprintf(error, size, "ERROR: channel '%s' does not support CAN or LIN\n", request.spec);
      return -1;
    }
    if (parse_can_mode(request.mode, &mode) != 0) {
      snprintf(error, size, "ERROR: invalid CAN mode '%s'\n", request.mode);
      return -1;
    }
    if (vxcli_parse_bitrate_pair(request.bitrate, &bitrate) != 0) {
      snprintf(error, size, "ERROR: invalid bitrate; use forms such as 500, 500K, 500000, or 1M\n");
      return -1;
    }
    if (parse_termination(request.termination, &termination) != 0) {
      snprintf(error, size, "ERROR: invalid termination '%s'; use 120 or off\n", request.termination);
      return -1;
    }
  }
  int index = -1;
  for (int i = 0; i < VXCLI_DAEMON_SLOTS && index < 0; i++)
    if (!g_slots[i].open) index = i;
  if (index < 0) {
    printf("Daemon: no free channel slots\n");
    snprintf(error, size, "ERROR: no free channel slots\n");
    return -1;
  }
  if (open_into_slot(index, *entry, lin, mode, bitrate, termination) != 0) {
    snprintf(error, size, "ERROR: could not open channel %s\n", request.spec);
    return -1;
  }
  return index;
}

bool all_digits(const char* text) {
  if (!text || !*text) return false;
  for (const char* p = text; *p; p++)
    if (!isdigit(static_cast<unsigned char>(*p))) return false;
  return true;
}

}  // namespace

// A slot number or a serial/port specification naming an open slot; -1 otherwise.
int daemon_resolve_ch(const char* text) {
  if (all_digits(text)) {
    int index = atoi(text);
    return (index < VXCLI_DAEMON_SLOTS && g_slots[index].open) ? index : -1;
  }
  vxcli_channel_spec spec;
  if (vxcli_parse_channel_spec(text, &spec) != 0) return -1;
  VXChannelInfo infos[VXCLI_DAEMON_SLOTS];
  int map[VXCLI_DAEMON_SLOTS];
  int count = 0;
  for (int i = 0; i < VXCLI_DAEMON_SLOTS; i++) {
    if (!g_slots[i].open) continue;
    infos[count] = g_slots[i].info;
    map[count++] = i;
  }
  const VXChannelInfo* entry = vxcli_resolve_channel(infos, count, &spec);
  return entry ? map[entry - infos] : -1;
}

namespace {

const char* answer_daemon_status(const Words& w, Out* out) {
  unsigned uptime = static_cast<unsigned>((daemon_now_ms() - g_start_ms) / 1000);
  unsigned pid = static_cast<unsigned>(getpid());
  if (w.json) {
    daemon_put(out, "{\"status\":\"ok\",\"state\":\"running\",\"pid\":%u,\"port\":%d,\"uptime_seconds\":%u,"
             "\"open_channels\":%d,\"channels\":[",
        pid, vxcli_daemon_port(), uptime, daemon_open_count());
    bool first = true;
    for (int i = 0; i < VXCLI_DAEMON_SLOTS; i++) {
      const Slot& s = g_slots[i];
      if (!s.open) continue;
      char identity[64];
      daemon_slot_identity(s, identity, sizeof identity);
      const vxcli_control_channel& c = g_arbiter.channels[i];
      daemon_put(out, "%s{\"slot\":%d,\"channel\":", first ? "" : ",", i);
      daemon_put_json_string(out, identity);
      daemon_put(out, ",\"bus\":\"%s\",\"owner\":\"%s\",\"phase\":\"%s\",\"generation\":%llu}", s.lin ? "lin" : "can",
          vxcli_control_owner_name(c.owner), vxcli_control_phase_name(c.phase),
          static_cast<unsigned long long>(c.config_generation));
      first = false;
    }
    daemon_put(out, "]}\n");
    return out->data;
  }
  daemon_put(out, "OK: daemon running, %d channel(s) open, pid=%d, uptime=%us\n", daemon_open_count(), static_cast<int>(pid),
      uptime);
  for (int i = 0; i < VXCLI_DAEMON_SLOTS; i++) {
    const Slot& s = g_slots[i];
    if (!s.open) continue;
    char serial[40];
    vxcli_render_serial(s.info.serial, serial, sizeof serial);
    const vxcli_control_channel& c = g_arbiter.channels[i];
    daemon_put(out, "  ch%d = SN%s/port%d (slot %d, owner=%s, phase=%s, generation=%llu)\n", i, serial, s.info.port, i,
        vxcli_control_owner_name(c.owner), vxcli_control_phase_name(c.phase),
        static_cast<unsigned long long>(c.config_generation));
  }
  return out->data;
}

const char* answer_channel_open(const Words& w, Out* out) {
  OpenRequest request{w.option("channel"), w.option("mode"), w.option("bitrate"), w.option("termination")};
  if (!request.spec || !*request.spec) return "ERROR: --channel is required\n";
  bool reused = false;
  int index = open_channel(request, &reused, out->data, out->size);
  if (index < 0) return out->data;
  const Slot& s = g_slots[index];
  char identity[64];
  daemon_slot_identity(s, identity, sizeof identity);
  if (w.json) {
    daemon_put(out, "{\"status\":\"ok\",\"state\":\"%s\",\"slot\":%d,\"channel\":", reused ? "already_open" : "opened",
        index);
    daemon_put_json_string(out, identity);
    if (s.lin)
      daemon_put(out, ",\"bus\":\"lin\",\"mode\":\"%s\",\"bitrate\":%u}\n", lin_mode_name(s.mode), s.bitrate.nominal_kbps);
    else
      daemon_put(out, ",\"bus\":\"can\",\"mode\":\"%s\",\"bitrate\":%u,\"data_bitrate\":%u}\n", can_mode_name(s.mode),
          s.bitrate.nominal_kbps, s.bitrate.data_kbps);
  } else if (reused) {
    daemon_put(out, "OK: channel %s already open (slot %d, %s)\n", request.spec, index, identity);
  } else if (s.lin) {
    daemon_put(out, "OK: channel %s opened (slot %d, %s, LIN, mode=%s, bitrate=%u bps)\n", request.spec, index, identity,
        lin_mode_name(s.mode), s.bitrate.nominal_kbps);
  } else {
    daemon_put(out, "OK: channel %s opened (slot %d, %s, CAN, mode=%s, bitrate=%u/%u)\n", request.spec, index, identity,
        can_mode_name(s.mode), s.bitrate.nominal_kbps, s.bitrate.data_kbps);
  }
  return out->data;
}

}  // namespace

// Slots a command addresses: the one of --channel=, else every open slot.
// Returns the count, or -1 with the error answer in *error.
int daemon_selected_slots(const Words& w, int* slots, const char** error, Out* out) {
  const char* selector = w.option("channel");
  if (selector) {
    int index = daemon_resolve_ch(selector);
    if (index < 0) {
      if (all_digits(selector)) daemon_put(out, "ERROR: channel slot %s not open\n", selector);
      else daemon_put(out, "ERROR: channel %s is not open\n", selector);
      *error = out->data;
      return -1;
    }
    slots[0] = index;
    return 1;
  }
  int n = 0;
  for (int i = 0; i < VXCLI_DAEMON_SLOTS; i++)
    if (g_slots[i].open) slots[n++] = i;
  if (n == 0) {
    *error = "ERROR: no channels open\n";
    return -1;
  }
  return n;
}

namespace {

const char* answer_channel_close(const Words& w, Out* out) {
  const char* selector = w.option("channel");
  if (!selector) return "ERROR: --channel is required\n";
  int slots[VXCLI_DAEMON_SLOTS];
  const char* error = nullptr;
  if (daemon_selected_slots(w, slots, &error, out) < 0) return error;
  char identity[64];
  daemon_slot_identity(g_slots[slots[0]], identity, sizeof identity);
  daemon_close_channel(slots[0]);
  if (w.json) {
    daemon_put(out, "{\"status\":\"ok\",\"state\":\"closed\",\"slot\":%d,\"channel\":", slots[0]);
    daemon_put_json_string(out, identity);
    daemon_put(out, "}\n");
  } else {
    daemon_put(out, "OK: channel %d closed (%s)\n", slots[0], identity);
  }
  return out->data;
}

const char* answer_channel_status(const Words& w, Out* out) {
  int slots[VXCLI_DAEMON_SLOTS];
  const char* error = nullptr;
  int n = daemon_selected_slots(w, slots, &error, out);
  if (n < 0) return error;
  if (w.json) daemon_put(out, "{\"status\":\"ok\",\"channels\":[");
  else daemon_put(out, "OK: %d channel(s)\n", n);
  for (int k = 0; k < n; k++) {
    int i = slots[k];
    const Slot& s = g_slots[i];
    char identity[64];
    daemon_slot_identity(s, identity, sizeof identity);
    vxcli_rx_channel_stats stats;
    memset(&stats, 0, sizeof stats);
    vxcli_rx_broker_stats(i, &stats);
    VXCanStatus can;
    memset(&can, 0, sizeof can);
    const char* state = "lin";
    if (!s.lin) {
      VXStatus st = VX_GetCanStatus(s.handle, &can);
      state = st != VX_OK ? "unknown"
              : can.state == 0 ? "error-active"
              : can.state == VX_ERR_BUS_OFF ? "bus-off"
              : can.state == VX_ERR_BUS_PASSIVE ? "error-passive"
                                                : "error-warning";
    }
    if (w.json) {
      daemon_put(out, "%s{\"slot\":%d,\"channel\":", k ? "," : "", i);
      daemon_put_json_string(out, identity);
      if (s.lin)
        daemon_put(out, ",\"bus\":\"lin\",\"mode\":\"%s\",\"bitrate\":%u", lin_mode_name(s.mode), s.bitrate.nominal_kbps);
      else
        daemon_put(out, ",\"bus\":\"can\",\"mode\":\"%s\",\"bitrate\":%u,\"data_bitrate\":%u,\"state\":\"%s\","
                 "\"tx_errors\":%u,\"rx_errors\":%u,\"busoff_count\":%u",
            can_mode_name(s.mode), s.bitrate.nominal_kbps, s.bitrate.data_kbps, state, can.tx_errors,
            can.rx_errors, can.busoff_count);
      daemon_put(out, ",\"received\":%llu,\"buffered\":%llu}", static_cast<unsigned long long>(stats.published),
          static_cast<unsigned long long>(stats.buffered_records));
    } else if (s.lin) {
      daemon_put(out, "  slot %d: %s LIN mode=%s bitrate=%u bps received=%llu\n", i, identity, lin_mode_name(s.mode),
          s.bitrate.nominal_kbps, static_cast<unsigned long long>(stats.published));
    } else {
      daemon_put(out, "  slot %d: %s CAN mode=%s bitrate=%u/%u state=%s tec=%u rec=%u received=%llu\n", i, identity,
          can_mode_name(s.mode), s.bitrate.nominal_kbps, s.bitrate.data_kbps, state, can.tx_errors, can.rx_errors,
          static_cast<unsigned long long>(stats.published));
    }
  }
  if (w.json) daemon_put(out, "]}\n");
  return out->data;
}

const char* answer_channel_info(const Words& w, Out* out) {
  int slots[VXCLI_DAEMON_SLOTS];
  const char* error = nullptr;
  int n = daemon_selected_slots(w, slots, &error, out);
  if (n < 0) return error;
  if (w.json) daemon_put(out, "{\"status\":\"ok\",\"channels\":[");
  for (int k = 0; k < n; k++) {
    const Slot& s = g_slots[slots[k]];
    char serial[40], uid[40], caps[128];
    vxcli_render_serial(s.info.serial, serial, sizeof serial);
    vxcli_render_unique_id(s.info.unique_id, uid, sizeof uid);
    vxcli_render_capabilities(s.info.capability, caps, sizeof caps);
    if (w.json) {
      daemon_put(out, "%s{\"slot\":%d,\"name\":", k ? "," : "", slots[k]);
      daemon_put_json_string(out, s.info.name);
      daemon_put(out, ",\"serial\":");
      daemon_put_json_string(out, serial);
      daemon_put(out, ",\"unique_id\":");
      daemon_put_json_string(out, uid);
      daemon_put(out, ",\"port\":%u,\"firmware\":\"%u.%u.%u.%u\",\"capabilities\":", s.info.port, s.info.firmware[0],
          s.info.firmware[1], s.info.firmware[2], s.info.firmware[3]);
      daemon_put_json_string(out, caps);
      daemon_put(out, "}");
    } else {
      daemon_put(out, "slot %d: %s SN%s/port%u uid=%s firmware=%u.%u.%u.%u capabilities=%s\n", slots[k], s.info.name,
          serial, s.info.port, uid, s.info.firmware[0], s.info.firmware[1], s.info.firmware[2],
          s.info.firmware[3], caps);
    }
  }
  if (w.json) daemon_put(out, "]}\n");
  return out->data;
}

long parse_count(const char* text, long fallback, long low, long high) {
  if (!text) return fallback;
  char* end = nullptr;
  long v = strtol(text, &end, 10);
  if (!end || end == text || *end || v < low || v > high) return -1;
  return v;
}

const char* answer_message_send(const Words& w, Out* out) {
  const char* selector = w.option("channel");
  if (!selector) return "ERROR: --channel is required\n";
  int slots[VXCLI_DAEMON_SLOTS];
  const char* error = nullptr;
  if (daemon_selected_slots(w, slots, &error, out) < 0) return error;
  int index = slots[0];
  const Slot& s = g_slots[index];
  if (s.lin) return "ERROR: LIN message send through the daemon is not supported yet\n";
  const char* id_text = w.option("id");
  if (!id_text) id_text = w.option("message");
  if (!id_text) return "ERROR: --id is required\n";
  bool decimal = false;
  long id = vxcli_parse_message_id_quiet(id_text, &decimal);
  if (id < 0) {
    daemon_put(out, "ERROR: invalid CAN identifier '%s'\n", id_text);
    return out->data;
  }
  uint32_t flags = vxcli_parse_flags(w.option("flags") ? w.option("flags") : "");
  if (id > 0x7FF) flags |= VXCLI_FRAME_IDE;
  if (id > 0x1FFFFFFF) return "ERROR: CAN identifier exceeds 29 bits\n";
  const char* type = w.option("type");
  if (daemon_is(type, "remote")) flags |= VXCLI_FRAME_RTR;
  else if (type && !daemon_is(type, "data")) return "ERROR: CAN --type must be data or remote\n";
  uint8_t data[64];
  memset(data, 0, sizeof data);
  int length = 0;
  if (const char* text = w.option("data")) {
    length = vxcli_parse_data(text, data, 64);
    if (length < 0) return "ERROR: invalid --data\n";
  }
  if (length > 8) flags |= VXCLI_FRAME_FDF;
  if ((flags & VXCLI_FRAME_FDF) && (flags & VXCLI_FRAME_RTR)) return "ERROR: CAN FD frames cannot be remote\n";
  int dlc = vxcli_bytes_to_dlc(length);
  if (const char* text = w.option("dlc")) {
    long v = parse_count(text, 0, 0, 15);
    if (v < 0) return "ERROR: --dlc must be 0..15\n";
    if (v > 8 && !(flags & VXCLI_FRAME_FDF)) return "ERROR: DLC above 8 requires an FD frame (--flags=fdf)\n";
    if (vxcli_dlc_to_bytes(static_cast<int>(v)) < length) return "ERROR: --data is longer than --dlc allows\n";
    dlc = static_cast<int>(v);
  }
  long count = parse_count(w.option("count"), 1, 1, 1000000);
  if (count < 0) return "ERROR: --count must be 1..1000000\n";
  long cycle = parse_count(w.option("cycle"), 0, 0, 3600000);
  if (cycle < 0) return "ERROR: --cycle must be 0..3600000 ms\n";
  long timeout = parse_count(w.option("timeout"), 100, 0, 600000);
  if (timeout < 0) return "ERROR: --timeout must be 0..600000 ms\n";

  VXMessage m;
  memset(&m, 0, sizeof m);
  m.header = VX_MSG_HEADER_CAN;
  m.length = VX_MSG_PAYLOAD_LEN;
  m.id = vxcli_can_id_to_device(static_cast<uint32_t>(id), flags & VXCLI_FRAME_IDE);
  m.control = static_cast<uint8_t>(dlc & VX_CTRL_DLC_MASK);
  if (flags & VXCLI_FRAME_IDE) m.control |= VX_CTRL_IDE;
  if (flags & VXCLI_FRAME_RTR) m.control |= VX_CTRL_RTR;
  if (flags & VXCLI_FRAME_BRS) m.control |= VX_CTRL_BRS;
  if (flags & VXCLI_FRAME_FDF) m.control |= VX_CTRL_EDL;
  if (flags & VXCLI_FRAME_ESI) m.flags |= VX_MSGF_ESI;
  memcpy(m.data, data, sizeof m.data);
  long sent = 0;
  uint32_t timestamp = 0;
  for (; sent < count; sent++) {
    if (sent > 0 && cycle > 0) usleep(static_cast<useconds_t>(cycle) * 1000);
    VXStatus status = VX_Write(s.handle, &m, static_cast<uint32_t>(timeout), &timestamp);
    if (status != VX_OK) {
      daemon_put(out, "ERROR: VX_Write failed: %s (0x%X) after %ld of %ld frame(s)\n", vxcli_status_to_string(status),
          status, sent, count);
      return out->data;
    }
  }
  char words[64];
  vxcli_frame_flag_words(flags, words, sizeof words);
  if (w.json)
    daemon_put(out, "{\"status\":\"ok\",\"slot\":%d,\"id\":\"0x%lX\",\"dlc\":%d,\"flags\":\"%s\",\"sent\":%ld,"
             "\"timestamp_us\":%u}\n",
        index, id, dlc, words, sent, timestamp);
  else
    daemon_put(out, "OK: sent %ld frame(s) id=0x%lX dlc=%d%s%s on slot %d\n", sent, id, dlc, words[0] ? " flags=" : "",
        words, index);
  return out->data;
}

const char* answer_daemon_restart(const Words& w, Out* out) {
  int failed = 0;
  for (int i = 0; i < VXCLI_DAEMON_SLOTS; i++) {
    if (!g_slots[i].open) continue;
    daemon_close_channel(i);
    if (daemon_reopen_slot(i) != 0) failed++;
  }
  if (failed) {
    daemon_put(out, "ERROR: daemon restart failed to reopen %d channel(s)\n", failed);
    return out->data;
  }
  return w.json ? "{\"status\":\"ok\",\"state\":\"restarted\"}\n" : "OK: restarted\n";
}

// Splits a text request into words in place.
int split_words(char* text, char** argv, int max) {
  int n = 0;
  char* save = nullptr;
  for (char* t = strtok_r(text, " \t", &save); t && n < max; t = strtok_r(nullptr, " \t", &save)) argv[n++] = t;
  argv[n] = nullptr;
  return n;
}

}  // namespace

void daemon_state_init() {
  memset(g_daemon_slots, 0, sizeof g_daemon_slots);
  vxcli_control_arbiter_init(&g_arbiter);
  g_start_ms = daemon_now_ms();
  g_running = true;
  g_daemon_auto_recover = true;
}

void daemon_request_stop() { g_running = false; }
bool daemon_is_running() { return g_running; }

void daemon_close_all_slots() {
  for (int i = 0; i < VXCLI_DAEMON_SLOTS; i++) daemon_close_channel(i);
}

int vxcli_daemon_open_channels_config(const char* channels, const char* mode, const char* bitrate,
                                      const char* termination) {
  char copy[1024];
  snprintf(copy, sizeof copy, "%s", channels ? channels : "");
  int opened = 0, n = 0;
  char* save = nullptr;
  for (char* piece = strtok_r(copy, ",", &save); piece && n < VXCLI_DAEMON_SLOTS;
       piece = strtok_r(nullptr, ",", &save), n++) {
    char error[256];
    bool reused = false;
    if (open_channel(OpenRequest{piece, mode, bitrate, termination}, &reused, error, sizeof error) >= 0) {
      opened++;
    } else {
      printf("Daemon: startup channel %d cannot be resolved\n", n);
      printf("Daemon: %s", error + 7);  // the answer without its "ERROR: " prefix
    }
  }
  return opened;
}

const char* daemon_process_command(const char* request, char* response, size_t size) {
  static daemon_ipc_request parsed;
  static char text[4096];
  char* argv[130];
  Words w{0, argv, false};
  response[0] = 0;
  Out out{response, size, 0};
  if (request[0] == '{') {
    if (daemon_parse_ipc_request(request, &parsed) != 0)
      return "ERROR: invalid or unsupported structured IPC request\n";
    w.argc = parsed.argc;
    w.argv = parsed.argv;
    w.json = !strcmp(parsed.format, "json") || !strcmp(parsed.format, "jsonl");
  } else {
    snprintf(text, sizeof text, "%s", request);
    w.argc = split_words(text, argv, 128);
    w.json = daemon_request_wants_json(request);
  }
  const char* a = w.word(0);
  const char* b = w.word(1);
  if (daemon_is(a, "daemon") && daemon_is(b, "status")) return answer_daemon_status(w, &out);
  if (daemon_is(a, "daemon") && daemon_is(b, "stop")) {
    printf("Daemon: stop requested\n");
    daemon_close_all_slots();
    g_running = false;
    return w.json ? "{\"status\":\"ok\",\"state\":\"stopping\"}\n" : "OK: stopped\n";
  }
  if (daemon_is(a, "daemon") && daemon_is(b, "restart")) return answer_daemon_restart(w, &out);
  if (daemon_is(a, "channel") && daemon_is(b, "open")) return answer_channel_open(w, &out);
  if (daemon_is(a, "channel") && daemon_is(b, "close")) return answer_channel_close(w, &out);
  if (daemon_is(a, "channel") && daemon_is(b, "status")) return answer_channel_status(w, &out);
  if (daemon_is(a, "channel") && daemon_is(b, "info")) return answer_channel_info(w, &out);
  if (daemon_is(a, "message") && daemon_is(b, "send")) return answer_message_send(w, &out);
  if (const char* answer = daemon_answer_services(w, &out)) return answer;
  if (const char* answer = daemon_answer_logging(w, &out)) return answer;
  if (const char* answer = daemon_answer_diag(w, &out)) return answer;
  daemon_put(&out, "ERROR: unknown command '%s%s%s'\n", a ? a : "", b ? " " : "", b ? b : "");
  return response;
}

void vxcli_daemon_recovery_tick() {
  // Filled in with bus-off detection and slot reopening.
}
