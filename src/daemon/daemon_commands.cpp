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
#include "daemon/daemon_services.h"
#include "daemon/daemon_state.h"
#include "daemon/daemon_recv.h"
#include "daemon/rx_broker.h"
#include "message/frame.h"
#include "json/json.h"
#include "message/lin.h"
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

const char* lin_mode_name(uint32_t mode) { return vxcli_lin_mode_name(mode); }

int parse_can_mode(const char* text, uint32_t* mode) {
  if (!text || !strcmp(text, "normal")) *mode = VX_CAN_MODE_NORMAL;
  else if (!strcmp(text, "classic")) *mode = VX_CAN_MODE_CLASSIC;
  else if (!strcmp(text, "listen-only") || !strcmp(text, "listen")) *mode = VX_CAN_MODE_LISTEN_ONLY;
  else if (!strcmp(text, "loopback")) *mode = VX_CAN_MODE_LOOPBACK;
  else return -1;
  return 0;
}

int parse_termination(const char* text, uint32_t* ohm) {
  if (!text || !strcmp(text, "120") || !strcmp(text, "on")) *ohm = 120;
  else if (!strcmp(text, "off")) *ohm = VX_TERMINATION_OFF;
  else return -1;
  return 0;
}

// How one channel is opened: the bus and everything needed to open it again.
struct OpenConfig {
  bool lin;
  uint32_t mode;
  VXBitrate bitrate;  // LIN: bit/s in nominal_kbps
  uint32_t termination;
  uint32_t pullup;
  uint32_t power;
  uint8_t version;
  uint8_t checksum;
};

bool lin_options_given(const vxcli_daemon_channel_options& o) {
  return o.pullup || o.power || o.lin_version || o.checksum;
}

// CAN nominal/data pair from --bitrate, --nbitrate and --dbitrate; 0 or -1.
int parse_can_bitrates(const vxcli_daemon_channel_options& o, VXBitrate* out) {
  if (vxcli_parse_bitrate_pair(o.bitrate, out) != 0) return -1;
  bool explicit_data = o.bitrate && strchr(o.bitrate, '/');
  if (o.nbitrate) {
    VXBitrate n;
    if (strchr(o.nbitrate, '/') || vxcli_parse_bitrate_pair(o.nbitrate, &n) != 0) return -1;
    out->nominal_kbps = n.nominal_kbps;
    if (!explicit_data && n.nominal_kbps <= 65535 / 4) out->data_kbps = static_cast<uint16_t>(n.nominal_kbps * 4);
  }
  if (o.dbitrate) {
    VXBitrate d;
    if (strchr(o.dbitrate, '/') || vxcli_parse_bitrate_pair(o.dbitrate, &d) != 0) return -1;
    out->data_kbps = d.nominal_kbps;
  }
  return 0;
}

// The LIN part of the options; 0 or -1 with the message in error.
int parse_lin_config(const vxcli_daemon_channel_options& o, OpenConfig* c, char* error, size_t size) {
  uint16_t bps = 0;
  if (vxcli_parse_lin_mode(o.mode, VXCLI_LIN_MODE_LISTEN, &c->mode) != 0) {
    snprintf(error, size, "invalid LIN mode '%s'; use master, slave, listen-only, internal-loopback or off",
             o.mode);
    return -1;
  }
  if (vxcli_parse_lin_bitrate(o.bitrate, &bps) != 0) {
    snprintf(error, size, "invalid LIN bitrate; expected auto or 1000..20000 bps");
    return -1;
  }
  if (bps == 0 && c->mode != VXCLI_LIN_MODE_SLAVE) {
    snprintf(error, size, "auto bitrate is only supported in LIN slave mode");
    return -1;
  }
  memset(&c->bitrate, 0, sizeof c->bitrate);
  c->bitrate.nominal_kbps = bps;
  if (vxcli_parse_lin_tres(o.pullup, c->mode, &c->pullup) != 0) {
    snprintf(error, size, "invalid --pullup '%s'; use 1k or off", o.pullup);
    return -1;
  }
  if (vxcli_parse_lin_voltage(o.power, c->mode, &c->power) != 0) {
    snprintf(error, size, "invalid --power '%s'; use on or off", o.power);
    return -1;
  }
  if (vxcli_parse_lin_version(o.lin_version, &c->version) != 0) {
    snprintf(error, size, "invalid --lin-version '%s'; use 1.3, 2.0, 2.1 or 2.2", o.lin_version);
    return -1;
  }
  if (vxcli_parse_lin_checksum(o.checksum, 0, &c->checksum) != 0) {
    snprintf(error, size, "invalid --checksum '%s'; use auto, classic or enhanced", o.checksum);
    return -1;
  }
  return 0;
}

int parse_can_config(const vxcli_daemon_channel_options& o, OpenConfig* c, char* error, size_t size) {
  if (parse_can_mode(o.mode, &c->mode) != 0) {
    snprintf(error, size, "invalid CAN mode '%s'", o.mode);
    return -1;
  }
  if (parse_can_bitrates(o, &c->bitrate) != 0) {
    snprintf(error, size, "invalid bitrate; use forms such as 500, 500K, 500000, or 1M");
    return -1;
  }
  if (parse_termination(o.termination, &c->termination) != 0) {
    snprintf(error, size, "invalid termination '%s'; use 120 or off", o.termination);
    return -1;
  }
  return 0;
}

// Infers the bus of entry and checks the options against it; 0 or -1 with error.
int resolve_open_config(const VXChannelInfo& entry, const char* spec, const vxcli_daemon_channel_options& o,
                        OpenConfig* c, char* error, size_t size) {
  memset(c, 0, sizeof *c);
  uint32_t bus = 0;
  bool has_lin = entry.capability & VX_CAP_LIN;
  if (lin_options_given(o) && has_lin) bus = VXCLI_BUS_LIN;
  else if (vxcli_bus_from_channel(&entry, nullptr, &bus) != 0) {
    snprintf(error, size, "channel '%s' does not support the inferred bus", spec);
    return -1;
  }
  c->lin = bus == VXCLI_BUS_LIN;
  if (c->lin) {
    if (o.termination || o.nbitrate || o.dbitrate) {
      snprintf(error, size, "%s requires a CAN channel",
               o.termination ? "--termination" : "--nbitrate/--dbitrate");
      return -1;
    }
    return parse_lin_config(o, c, error, size);
  }
  if (lin_options_given(o)) {
    snprintf(error, size, "%s require a LIN channel",
             (o.pullup || o.power) ? "--pullup and --power" : "--lin-version and --checksum");
    return -1;
  }
  return parse_can_config(o, c, error, size);
}

// Opens the device for a free slot and attaches it to the broker; 0 or -1 (logged).
int open_into_slot(int index, const VXChannelInfo& info, const OpenConfig& c) {
  Slot& s = g_slots[index];
  VXHandle handle = nullptr;
  if (c.lin) {
    handle = vxcli_open_lin_channel_info(&info, c.bitrate.nominal_kbps, c.mode, c.pullup, c.power, c.version,
                                         c.checksum);
    if (!handle) {
      printf("Daemon: invalid LIN channel configuration\n");
      return -1;
    }
  } else {
    VXStatus status = VX_OpenEx(&handle, &info, c.mode, c.termination, &c.bitrate, 0, 0);
    if (status != VX_OK || !handle) {
      printf("Daemon: VX_OpenEx failed for slot %d (name='%s'): %s (0x%X)\n", index, info.name,
             vxcli_status_to_string(status), status);
      return -1;
    }
    // The daemon keeps every frame; services filter through their own cursors.
    VXRxFilter filter;
    memset(&filter, 0, sizeof filter);
    filter.mode = VX_RXFILTER_ACCEPT;
    VX_SetRxFilters(handle, &filter, 1);
  }
  VXNotifyHandle notify = 0;
  VX_GetNotification(handle, &notify);
  if (vxcli_rx_broker_attach(index, handle, notify, 8192) != 0) {
    printf(c.lin ? "Daemon: failed to attach LIN RX broker for slot %d\n"
                 : "Daemon: failed to attach RX broker for slot %d\n",
           index);
    VX_Close(handle);
    return -1;
  }
  s.handle = handle;
  s.notify = notify;
  s.info = info;
  s.lin = c.lin;
  s.mode = c.mode;
  s.bitrate = c.bitrate;
  s.termination = c.termination;
  s.lin_pullup = c.pullup;
  s.lin_power = c.power;
  s.lin_version = c.version;
  s.lin_checksum = c.checksum;
  s.open = true;
  if (c.lin)
    printf("Daemon: slot %d opened LIN %s port %u (mode=%s, bitrate=%u bps)\n", index, info.name, info.port,
           vxcli_lin_mode_name(c.mode), c.bitrate.nominal_kbps);
  else
    printf("Daemon: slot %d opened %s port %u (mode=%u, bitrate=%d/%d)\n", index, info.name, info.port, c.mode,
           c.bitrate.nominal_kbps, c.bitrate.data_kbps);
  vxcli_control_commit_configuration(&g_arbiter, static_cast<uint32_t>(index));
  return 0;
}

OpenConfig slot_config(const Slot& s) {
  OpenConfig c;
  memset(&c, 0, sizeof c);
  c.lin = s.lin;
  c.mode = s.mode;
  c.bitrate = s.bitrate;
  c.termination = s.termination;
  c.pullup = s.lin_pullup;
  c.power = s.lin_power;
  c.version = s.lin_version;
  c.checksum = s.lin_checksum;
  return c;
}

// Closes a slot's device but keeps its configuration, tables and arbiter entry,
// for reopening it in place.
void close_device_keep_slot(int index) {
  Slot& s = g_slots[index];
  vxcli_rx_broker_detach(index);
  if (s.handle) VX_Close(s.handle);
  s.handle = nullptr;
  s.notify = 0;
  s.open = false;
}

// Brings a reopened slot's device-side tables back from the slot's copies.
void restore_tables(int index) {
  VXStatus st = daemon_restore_slot_tables(index);
  if (st != VX_OK)
    printf("Daemon: slot %d table restore failed: %s (0x%X)\n", index, vxcli_status_to_string(st), st);
}

}  // namespace

void daemon_close_channel(int index) {
  Slot& s = g_slots[index];
  if (!s.open) return;
  vxcli_rx_broker_detach(index);
  if (s.handle) VX_Close(s.handle);
  s.handle = nullptr;
  s.notify = 0;
  s.open = false;
  vxcli_control_clear_slot(&g_arbiter, static_cast<uint32_t>(index));
  printf("Daemon: slot %d closed\n", index);
}

int daemon_reopen_slot(int index) {
  Slot& s = g_slots[index];
  VXChannelInfo infos[32];
  int count = 0;
  if (vxcli_enumerate(infos, &count) == VX_OK) {
    for (int i = 0; i < count; i++) {
      if (!daemon_same_physical(infos[i], s.info)) continue;
      if (open_into_slot(index, infos[i], slot_config(s)) != 0) {
        printf(s.lin ? "Daemon: recovery LIN open failed for slot %d\n" : "Daemon: recovery open failed for slot %d\n",
               index);
        return -1;
      }
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

// Slot index of the channel spec opened with the options, or -1 with the answer in
// error. *reused tells whether the channel was already open.
int open_channel(const char* spec_text, const vxcli_daemon_channel_options& o, bool* reused, char* error,
                 size_t size) {
  *reused = false;
  vxcli_channel_spec spec;
  if (vxcli_parse_channel_spec(spec_text, &spec) != 0) {
    snprintf(error, size, "ERROR: invalid channel specification '%s'\n", spec_text);
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
    snprintf(error, size, "ERROR: could not open channel %s\n", spec_text);
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
  OpenConfig config;
  char reason[200];
  if (resolve_open_config(*entry, spec_text, o, &config, reason, sizeof reason) != 0) {
    snprintf(error, size, "ERROR: %s\n", reason);
    return -1;
  }
  int index = -1;
  for (int i = 0; i < VXCLI_DAEMON_SLOTS && index < 0; i++)
    if (!g_slots[i].open) index = i;
  if (index < 0) {
    printf("Daemon: no free channel slots\n");
    snprintf(error, size, "ERROR: no free channel slots\n");
    return -1;
  }
  // A channel new to the slot starts without the tables of the slot's previous channel
  // (close keeps them, so that a close-and-reopen can restore them).
  g_slots[index].txtask_count = 0;
  g_slots[index].route_count = 0;
  if (open_into_slot(index, *entry, config) != 0) {
    snprintf(error, size, "ERROR: could not open channel %s\n", spec_text);
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

// A slot number or a serial/port selector naming an open slot; -1 otherwise.
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
  // A lapsed lease is shown as gone, as the next guarded command would find it.
  vxcli_control_expire_local(&g_arbiter, daemon_arbiter_now());
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

void describe_open(const Words& w, Out* out, const char* spec, int index, bool reused, bool first) {
  const Slot& s = g_slots[index];
  char identity[64];
  daemon_slot_identity(s, identity, sizeof identity);
  if (w.json) {
    daemon_put(out, "%s{\"state\":\"%s\",\"slot\":%d,\"channel\":", first ? "" : ",",
               reused ? "already_open" : "opened", index);
    daemon_put_json_string(out, identity);
    if (s.lin)
      daemon_put(out, ",\"bus\":\"lin\",\"mode\":\"%s\",\"bitrate\":%u}", lin_mode_name(s.mode),
                 s.bitrate.nominal_kbps);
    else
      daemon_put(out, ",\"bus\":\"can\",\"mode\":\"%s\",\"bitrate\":%u,\"data_bitrate\":%u}", can_mode_name(s.mode),
                 s.bitrate.nominal_kbps, s.bitrate.data_kbps);
  } else if (reused) {
    daemon_put(out, "OK: channel %s already open (slot %d, %s)\n", spec, index, identity);
  } else if (s.lin) {
    daemon_put(out, "OK: channel %s opened (slot %d, %s, LIN, mode=%s, bitrate=%u bps)\n", spec, index, identity,
               lin_mode_name(s.mode), s.bitrate.nominal_kbps);
  } else {
    daemon_put(out, "OK: channel %s opened (slot %d, %s, CAN, mode=%s, bitrate=%u/%u)\n", spec, index, identity,
               can_mode_name(s.mode), s.bitrate.nominal_kbps, s.bitrate.data_kbps);
  }
}

// One channel answers with one object ({"status":"ok","state":...,"slot":...}); a list
// answers with every opened channel, and names the ones that failed.
const char* answer_channel_open(const Words& w, Out* out) {
  vxcli_daemon_channel_options o;
  vxcli_daemon_read_channel_options(w.argc, w.argv, &o);
  if (!o.channel || !*o.channel) return "ERROR: --channel is required\n";
  char message[256];
  if (vxcli_daemon_validate_channel_options(&o, message, sizeof message) != 0) {
    daemon_put(out, "ERROR: %s\n", message);
    return out->data;
  }
  char copy[1024];
  snprintf(copy, sizeof copy, "%s", o.channel);
  char* pieces[VXCLI_DAEMON_SLOTS];
  int n = 0;
  char* save = nullptr;
  for (char* piece = strtok_r(copy, ",", &save); piece && n < VXCLI_DAEMON_SLOTS;
       piece = strtok_r(nullptr, ",", &save))
    pieces[n++] = piece;
  if (n == 0) return "ERROR: --channel is required\n";
  if (n == 1) {
    bool reused = false;
    int index = open_channel(pieces[0], o, &reused, out->data, out->size);
    if (index < 0) return out->data;
    if (w.json) daemon_put(out, "{\"status\":\"ok\",");
    size_t mark = out->length;
    describe_open(w, out, pieces[0], index, reused, true);
    // The single form is the channel object itself, merged into the status object.
    if (w.json) {
      memmove(out->data + mark, out->data + mark + 1, out->length - mark);
      out->length--;
      daemon_put(out, "\n");
    }
    return out->data;
  }
  int opened[VXCLI_DAEMON_SLOTS];
  bool reused[VXCLI_DAEMON_SLOTS];
  char errors[VXCLI_DAEMON_SLOTS][256];
  int ok = 0;
  for (int k = 0; k < n; k++) {
    bool again = false;
    opened[k] = open_channel(pieces[k], o, &again, errors[k], sizeof errors[k]);
    reused[k] = again;
    if (opened[k] >= 0) ok++;
  }
  if (ok == 0) return "ERROR: no matching channels could be opened\n";
  if (w.json) daemon_put(out, "{\"status\":\"ok\",\"channels\":[");
  bool first = true;
  for (int k = 0; k < n; k++) {
    if (opened[k] < 0) continue;
    describe_open(w, out, pieces[k], opened[k], reused[k], first);
    first = false;
  }
  if (w.json) daemon_put(out, "],\"failed\":[");
  first = true;
  for (int k = 0; k < n; k++) {
    if (opened[k] >= 0) continue;
    char* reason = errors[k] + 7;  // without "ERROR: "
    reason[strcspn(reason, "\n")] = 0;
    if (w.json) {
      daemon_put(out, "%s{\"channel\":", first ? "" : ",");
      daemon_put_json_string(out, pieces[k]);
      daemon_put(out, ",\"message\":");
      daemon_put_json_string(out, reason);
      daemon_put(out, "}");
    } else {
      daemon_put(out, "  failed: %s: %s\n", pieces[k], reason);
    }
    first = false;
  }
  if (w.json) daemon_put(out, "]}\n");
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
  vxcli_control_expire_local(&g_arbiter, daemon_arbiter_now());
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
    if (!s.handle) {
      state = "disconnected";
    } else if (!s.lin) {
      VXStatus st = VX_GetCanStatus(s.handle, &can);
      bool known = st == VX_OK || st == VX_ERR_BUS_OFF || st == VX_ERR_BUS_PASSIVE || st == VX_ERR_BUS_HEAVY_ERROR;
      state = st == VX_ERR_INVALID_HARDWARE ? "unplugged"
              : !known                      ? "unknown"
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
      const vxcli_control_channel& c = g_arbiter.channels[i];
      daemon_put(out, ",\"owner\":\"%s\",\"phase\":\"%s\",\"received\":%llu,\"buffered\":%llu,\"consumers\":%llu,"
                 "\"overwritten\":%llu}",
                 vxcli_control_owner_name(c.owner), vxcli_control_phase_name(c.phase),
                 static_cast<unsigned long long>(stats.published),
                 static_cast<unsigned long long>(stats.buffered_records),
                 static_cast<unsigned long long>(stats.active_consumers),
                 static_cast<unsigned long long>(stats.overwritten));
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

// Completed LIN frames arrive through the broker, which owns the device's
// receive queue in the daemon; the transfer reads them from its own cursor.
int lin_cursor_receiver(void* context, VXMessage* record, uint32_t remaining_ms, uint32_t* status) {
  vxcli_rx_record r;
  int rc = vxcli_rx_broker_read(static_cast<vxcli_rx_cursor*>(context), &r, static_cast<int>(remaining_ms));
  if (rc == VXCLI_RX_READ_RECORD) {
    *record = r.message;
    return 1;
  }
  if (rc == VXCLI_RX_READ_NONE || rc == VXCLI_RX_READ_OVERRUN || rc == VXCLI_RX_READ_RESET) return 0;
  *status = VX_ERR_INVALID_CLIENT;
  return -1;
}

// "message send" on a LIN slot: master writes, reads and sync breaks.
const char* answer_lin_send(const Words& w, Out* out, int index) {
  const Slot& s = g_slots[index];
  if (s.mode != VXCLI_LIN_MODE_MASTER) return "ERROR: LIN message send requires a channel opened as master\n";
  uint32_t operation = 0;
  if (vxcli_parse_lin_operation(w.option("type"), &operation) != 0)
    return "ERROR: LIN --type must be master-write, master-read, or sync-break\n";
  const char* id_text = w.option("id") ? w.option("id") : w.option("message");
  if (!id_text) return "ERROR: --id is required\n";
  long id = vxcli_parse_message_id_quiet(id_text, nullptr);
  if (id < 0 || id > 0x3F) return "ERROR: LIN ID must be in range 0x00..0x3F\n";
  uint8_t payload[64];
  memset(payload, 0, sizeof payload);
  int length = 0;
  const char* data = w.option("data");
  if (data) {
    length = vxcli_parse_data(data, payload, 64);
    if (length < 0 || (length == 0 && *data)) return "ERROR: invalid --data\n";
  }
  long dlc = parse_count(w.option("dlc"), -1, 0, 8);
  if ((w.option("dlc") && dlc < 0) || length > 8) return "ERROR: LIN payload/DLC must be in range 0..8 bytes\n";
  if (operation != VXCLI_LIN_MASTER_WRITE && data)
    return "ERROR: master-read and sync-break cannot be combined with --data\n";
  if (operation == VXCLI_LIN_SYNC_BREAK && dlc > 0) return "ERROR: sync-break is header-only; omit --dlc or use --dlc=0\n";
  long count = parse_count(w.option("count"), 1, 1, 100000);
  if (count < 0) return "ERROR: --count must be in range 1..100000\n";
  long cycle = parse_count(w.option("cycle"), 0, 0, 3600000);
  long timeout = parse_count(w.option("timeout"), 100, 0, 60000);
  if (cycle < 0 || timeout < 0) return "ERROR: LIN --cycle must be non-negative and --timeout must be 0..60000 ms\n";
  if (operation != VXCLI_LIN_MASTER_WRITE && (!w.option("timeout") || timeout == 0)) timeout = 500;
  uint8_t checksum = s.lin_checksum;
  if (w.option("checksum") || id == 0x3C || id == 0x3D) {
    if (vxcli_parse_lin_checksum(w.option("checksum"), static_cast<uint32_t>(id), &checksum) != 0)
      return "ERROR: invalid --checksum; use auto, classic or enhanced\n";
  }
  uint32_t frame_length = operation == VXCLI_LIN_SYNC_BREAK    ? 0
                          : operation == VXCLI_LIN_MASTER_READ ? static_cast<uint32_t>(dlc >= 0 ? dlc : 8)
                          : static_cast<uint32_t>(dlc >= 0 ? dlc : (data ? length : 8));

  LinTransferResult result;
  memset(&result, 0, sizeof result);
  result.records = static_cast<LinTransferRecord*>(calloc(static_cast<size_t>(count), sizeof(LinTransferRecord)));
  if (!result.records) return "ERROR: out of memory for LIN results\n";
  result.recordCapacity = static_cast<int32_t>(count);
  vxcli_rx_cursor cursor;
  if (vxcli_rx_broker_cursor_open_named(index, 0, "lin-send", nullptr, &cursor) != 0) {
    free(result.records);
    return "ERROR: LIN receive cursor unavailable\n";
  }
  int rc = vxcli_lin_transfer_with_receiver(s.handle, static_cast<int>(s.info.port), operation,
                                            static_cast<uint8_t>(id), payload, frame_length, checksum,
                                            static_cast<int>(count), static_cast<uint32_t>(cycle),
                                            static_cast<uint32_t>(timeout), lin_cursor_receiver, &cursor, &result);
  vxcli_rx_broker_cursor_close(&cursor);
  int completed = operation == VXCLI_LIN_MASTER_WRITE ? static_cast<int>(result.sent) : 0;
  if (operation != VXCLI_LIN_MASTER_WRITE)
    for (int i = 0; i < result.recordCount; i++) completed += result.records[i].classified ? 1 : 0;
  const char* op = vxcli_lin_operation_name(operation);
  if (rc != 0) {
    daemon_put(out, "ERROR: LIN %s failed on slot %d: id=0x%02lX sent=%u completed=%d unexpected_responses=%u errors=%u\n",
               op, index, id, result.sent, completed, result.unexpected, result.failed);
  } else if (w.json) {
    daemon_put(out, "{\"status\":\"ok\",\"bus\":\"lin\",\"operation\":\"%s\",\"slot\":%d,\"id\":\"0x%02lX\",\"sent\":%u,"
               "\"completed\":%d,\"responses\":%u,\"checksum_type\":\"%s\",\"frames\":[",
               op, index, id, result.sent, completed, result.responses, vxcli_lin_checksum_name(checksum));
  } else {
    daemon_put(out, "OK: LIN %s completed on slot %d: id=0x%02lX sent=%u", op, index, id, result.sent);
    if (operation != VXCLI_LIN_MASTER_WRITE) daemon_put(out, " completed=%d", completed);
    daemon_put(out, " checksum=%s\n", vxcli_lin_checksum_name(checksum));
  }
  if (rc == 0) {
    // The frames that came back, in the standalone printers' layout.
    vxcli_json_writer line;
    vxcli_json_writer_init(&line, 512, 65536);
    vxcli_frame_print_options options = {w.json ? static_cast<uint32_t>(VXCLI_FORMAT_JSON) : VXCLI_FORMAT_TEXT, 0,
                                         index, nullptr};
    uint32_t first = 0;
    bool have_first = false, comma = false;
    for (int i = 0; i < result.recordCount; i++) {
      if (!result.records[i].classified) continue;
      const VXMessage& m = result.records[i].frame;
      if (!have_first) first = m.timestamp, have_first = true;
      vxcli_lin_frame f;
      vxcli_lin_frame_from_message(&m, &f);
      line.length = 0;
      vxcli_format_lin_frame(&line, &f, static_cast<uint32_t>(m.timestamp - first), &options);
      daemon_put(out, "%s%.*s", w.json && comma ? "," : "", static_cast<int>(vxcli_json_writer_length(&line)),
                 vxcli_json_writer_data(&line));
      comma = true;
    }
    vxcli_json_writer_free(&line);
    if (w.json) daemon_put(out, "]}\n");
  }
  free(result.records);
  return out->data;
}

const char* answer_message_send(const Words& w, Out* out) {
  const char* selector = w.option("channel");
  if (!selector) return "ERROR: --channel is required\n";
  int slots[VXCLI_DAEMON_SLOTS];
  const char* error = nullptr;
  if (daemon_selected_slots(w, slots, &error, out) < 0) return error;
  int index = slots[0];
  const Slot& s = g_slots[index];
  if (s.lin) return answer_lin_send(w, out, index);
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
    close_device_keep_slot(i);
    if (daemon_reopen_slot(i) != 0) {
      // A channel that cannot come back is closed for good.
      failed++;
      g_slots[i].open = true;
      daemon_close_channel(i);
      continue;
    }
    restore_tables(i);
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

const char* const vxcli_daemon_channel_option_names[10] = {
    "channel", "mode", "bitrate", "nbitrate", "dbitrate", "termination", "pullup", "power", "lin-version", "checksum"};

void vxcli_daemon_read_channel_options(int count, char** words, vxcli_daemon_channel_options* o) {
  const char* const* n = vxcli_daemon_channel_option_names;
  o->channel = vxcli_get_option(count, words, n[0]);
  o->mode = vxcli_get_option(count, words, n[1]);
  o->bitrate = vxcli_get_option(count, words, n[2]);
  o->nbitrate = vxcli_get_option(count, words, n[3]);
  o->dbitrate = vxcli_get_option(count, words, n[4]);
  o->termination = vxcli_get_option(count, words, n[5]);
  o->pullup = vxcli_get_option(count, words, n[6]);
  o->power = vxcli_get_option(count, words, n[7]);
  o->lin_version = vxcli_get_option(count, words, n[8]);
  o->checksum = vxcli_get_option(count, words, n[9]);
}

int vxcli_daemon_validate_channel_options(const vxcli_daemon_channel_options* o, char* message, size_t size) {
  if (o->channel) {
    vxcli_channel_spec specs[VXCLI_DAEMON_SLOTS];
    if (vxcli_parse_channel_list_ex(o->channel, specs, VXCLI_DAEMON_SLOTS) <= 0) {
      snprintf(message, size, "Invalid channel specification: %s", o->channel);
      return -1;
    }
  }
  const bool lin_only = lin_options_given(*o);
  const bool can_only = o->termination || o->nbitrate || o->dbitrate;
  if (lin_only && can_only) {
    snprintf(message, size, "bus is inferred; use --termination for CAN or --pullup/--power for LIN");
    return -1;
  }
  // Mode and bitrate are shared by both buses: valid when one of them accepts them,
  // and when the other options already name the bus, that one must.
  OpenConfig c;
  char can_error[200] = "", lin_error[200] = "";
  vxcli_daemon_channel_options as_can = *o, as_lin = *o;
  as_can.pullup = as_can.power = as_can.lin_version = as_can.checksum = nullptr;
  as_lin.termination = as_lin.nbitrate = as_lin.dbitrate = nullptr;
  bool can_ok = !lin_only && parse_can_config(as_can, &c, can_error, sizeof can_error) == 0;
  bool lin_ok = !can_only && parse_lin_config(as_lin, &c, lin_error, sizeof lin_error) == 0;
  if (can_ok || lin_ok) return 0;
  snprintf(message, size, "%s", lin_only ? lin_error : can_error);
  return -1;
}

int vxcli_daemon_open_channels_config(const vxcli_daemon_channel_options* o) {
  char copy[1024];
  snprintf(copy, sizeof copy, "%s", o->channel ? o->channel : "");
  int opened = 0, n = 0;
  char* save = nullptr;
  for (char* piece = strtok_r(copy, ",", &save); piece && n < VXCLI_DAEMON_SLOTS;
       piece = strtok_r(nullptr, ",", &save), n++) {
    char error[256];
    bool reused = false;
    if (open_channel(piece, *o, &reused, error, sizeof error) >= 0) {
      opened++;
    } else {
      printf("Daemon: startup channel %d cannot be resolved\n", n);
      printf("Daemon: %s", error + 7);  // the answer without its "ERROR: " prefix
    }
  }
  return opened;
}

namespace {

// The words of one request, parsed into storage that lives until the next request
// (the main loop handles one at a time). 0, or -1 for an invalid structured request.
int request_words(const char* request, Words* w, const char** project) {
  static daemon_ipc_request parsed;
  static char text[4096];
  static char* argv[130];
  *w = Words{0, argv, false};
  *project = nullptr;
  if (request[0] == '{') {
    if (daemon_parse_ipc_request(request, &parsed) != 0) return -1;
    w->argc = parsed.argc;
    w->argv = parsed.argv;
    w->json = !strcmp(parsed.format, "json") || !strcmp(parsed.format, "jsonl");
    if (parsed.project[0]) *project = parsed.project;
  } else {
    snprintf(text, sizeof text, "%s", request);
    w->argc = split_words(text, argv, 128);
    w->json = daemon_request_wants_json(request);
  }
  return 0;
}

// Applies a request's project directory while it is processed.
struct ProjectScope {
  const char* saved;
  explicit ProjectScope(const char* project) : saved(g_config.project) {
    if (project) g_config.project = project;
  }
  ~ProjectScope() { g_config.project = saved; }
};

const char* answer_words(const Words& w, Out* out) {
  const char* a = w.word(0);
  const char* b = w.word(1);
  if (daemon_is(a, "daemon") && daemon_is(b, "status")) return answer_daemon_status(w, out);
  if (daemon_is(a, "daemon") && daemon_is(b, "stop")) {
    printf("Daemon: stop requested\n");
    vxcli_daemon_logging_shutdown();  // finish the log file before its channels go away
    daemon_close_all_slots();
    g_running = false;
    return w.json ? "{\"status\":\"ok\",\"state\":\"stopping\"}\n" : "OK: stopped\n";
  }
  if (daemon_is(a, "daemon") && daemon_is(b, "restart")) return answer_daemon_restart(w, out);
  if (daemon_is(a, "channel") && daemon_is(b, "open")) return answer_channel_open(w, out);
  if (daemon_is(a, "channel") && daemon_is(b, "close")) return answer_channel_close(w, out);
  if (daemon_is(a, "channel") && daemon_is(b, "status")) return answer_channel_status(w, out);
  if (daemon_is(a, "channel") && daemon_is(b, "info")) return answer_channel_info(w, out);
  if (daemon_is(a, "channel") && (daemon_is(b, "claim") || daemon_is(b, "release")))
    return daemon_answer_claim(w, out);
  if (daemon_is(a, "message") && daemon_is(b, "send")) return answer_message_send(w, out);
  if (const char* answer = daemon_answer_services(w, out)) return answer;
  if (const char* answer = daemon_answer_logging(w, out)) return answer;
  if (const char* answer = daemon_answer_diag(w, out)) return answer;
  out->length = 0;
  daemon_put(out, "ERROR: unknown command '%s%s%s'\n", a ? a : "", b ? " " : "", b ? b : "");
  return out->data;
}

}  // namespace

const char* daemon_process_command(const char* request, char* response, size_t size) {
  Words w;
  const char* project = nullptr;
  response[0] = 0;
  Out out{response, size, 0};
  if (request_words(request, &w, &project) != 0) return "ERROR: invalid or unsupported structured IPC request\n";
  ProjectScope scope(project);
  // Every family passes the same guard, so a channel under another owner's
  // control is refused before any handler touches it.
  const bool control = daemon_local_operation(w.argv, w.argc) == 2;
  if (control) {
    char refusal[160];
    if (daemon_guard_local_control(w.argv, w.argc, refusal, sizeof refusal)) {
      daemon_put(&out, "%s", refusal);
      return response;
    }
  }
  const char* answer = answer_words(w, &out);
  if (control) daemon_commit_local_result(w.argv, w.argc, answer);
  return answer;
}

bool daemon_request_is_recv(const char* request) {
  if (request[0] != '{') {
    if (strncmp(request, "message", 7) != 0) return false;
    const char* p = request + 7;
    if (*p != ' ' && *p != '\t') return false;
    while (*p == ' ' || *p == '\t') p++;
    return strncmp(p, "recv", 4) == 0 && (p[4] == 0 || p[4] == ' ' || p[4] == '\t');
  }
  static daemon_ipc_request parsed;
  if (daemon_parse_ipc_request(request, &parsed) != 0) return false;
  return parsed.argc >= 2 && !strcmp(parsed.argv[0], "message") && !strcmp(parsed.argv[1], "recv");
}

daemon_recv_job* daemon_recv_begin(const char* request, char* response, size_t size, const char** answer) {
  Words w;
  const char* project = nullptr;
  response[0] = 0;
  Out out{response, size, 0};
  if (request_words(request, &w, &project) != 0) {
    *answer = "ERROR: invalid or unsupported structured IPC request\n";
    return nullptr;
  }
  ProjectScope scope(project);
  *answer = nullptr;
  return daemon_recv_prepare(w, &out, answer);
}

namespace {

// Closes the device side of a slot but keeps the slot, its configuration and
// its tables, so that a later tick can reopen it.
void reopen_in_place(int index) {
  Slot& s = g_slots[index];
  close_device_keep_slot(index);
  if (daemon_reopen_slot(index) == 0) {
    restore_tables(index);
    return;
  }
  // Still gone: hold the slot as disconnected; control is refused until it returns.
  s.open = true;
  vxcli_control_set_phase(&g_arbiter, static_cast<uint32_t>(index), VXCLI_CONTROL_PHASE_DISCONNECTED);
}

}  // namespace

bool daemon_slot_disconnected(int index) {
  return index >= 0 && index < VXCLI_DAEMON_SLOTS && g_slots[index].open && !g_slots[index].handle;
}

void vxcli_daemon_recovery_tick() {
  if (!g_daemon_auto_recover) return;
  for (int i = 0; i < VXCLI_DAEMON_SLOTS && g_running; i++) {
    Slot& s = g_slots[i];
    if (!s.open) continue;
    if (!s.handle) {
      // A device that went away: try again each tick until it is back.
      if (daemon_reopen_slot(i) == 0) restore_tables(i);
      else {
        s.open = true;
        vxcli_control_set_phase(&g_arbiter, static_cast<uint32_t>(i), VXCLI_CONTROL_PHASE_DISCONNECTED);
      }
      continue;
    }
    if (s.lin) continue;
    VXCanStatus can;
    memset(&can, 0, sizeof can);
    VXStatus st = VX_GetCanStatus(s.handle, &can);
    if (st == VX_ERR_INVALID_HARDWARE) {
      printf("Daemon: slot %d device unplugged, re-opening\n", i);
      reopen_in_place(i);
      continue;
    }
    // The call answers with the bus state itself, bus-off included.
    if (!((st & VX_ERR_BUS_OFF) || (st == VX_OK && (can.state & VX_ERR_BUS_OFF)))) continue;
    printf("Daemon: slot %d BUSOFF, recovering via VX_RecoverBusOff\n", i);
    VXStatus rs = VX_RecoverBusOff(s.handle);
    if (rs == VX_OK) {
      printf("Daemon: slot %d BUSOFF recovery complete\n", i);
      continue;
    }
    printf("Daemon: slot %d BUSOFF recovery failed (%s), re-opening\n", i, vxcli_status_to_string(rs));
    reopen_in_place(i);
  }
}
