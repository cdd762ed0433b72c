// Standalone "message recv": capture CAN, CAN FD or LIN frames from the channels of one
// bus until a count, a duration or an interrupt, printing each frame as it arrives.
#include <csignal>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "channel/channel.h"
#include "cli/output.h"
#include "json/json.h"
#include "message/frame.h"
#include "message/lin.h"
#include "message/message.h"
#include "message/message_dbc.h"
#include "message/options.h"
#include "message/recv.h"

volatile sig_atomic_t g_recv_running = 0;

namespace {

constexpr int kMaxChannels = 32;
constexpr size_t kJsonLimit = 0xA00000;

void recv_signal_handler(int) { g_recv_running = 0; }

struct RecvOptions {
  const char* channel;
  const char* count;
  const char* duration;
  const char* id;
  const char* mask;
  const char* database;
  const char* bitrate;
  const char* mode;
  const char* pullup;
  const char* power;
  const char* lin_version;
  const char* checksum;
  bool decode;
};

struct Capture {
  VXHandle handles[kMaxChannels];
  VXNotifyHandle notify[kMaxChannels];
  int open;
  vxcli_recv_printer printer;
};

// Device time of a record on one continuous clock. Channels are aligned beforehand, so
// a signed difference to the previous record tolerates both wrap and slight reordering.
uint64_t unwrap_time(vxcli_recv_printer& c, uint32_t timestamp) {
  if (!c.have_time) {
    c.have_time = true;
    c.last_timestamp = timestamp;
    c.clock_us = static_cast<uint64_t>(1) << 40;  // headroom for frames slightly older
    c.first_us = c.clock_us;
    return c.clock_us;
  }
  int32_t delta = static_cast<int32_t>(timestamp - c.last_timestamp);
  c.last_timestamp = timestamp;
  c.clock_us += delta;
  return c.clock_us;
}

bool parse_seconds(const char* text, double* out) {
  if (!text) {
    *out = 0;
    return true;
  }
  char* end = nullptr;
  double value = strtod(text, &end);
  if (!*text || end == text || *end || !std::isfinite(value) || value < 0) return false;
  *out = value;
  return true;
}

int open_can_channels(Capture& c, const VXChannelInfo* const* entries, int n,
                      const RecvOptions& o) {
  vxcli_bitrate bitrate;
  if (vxcli_parse_bitrate_pair(o.bitrate, &bitrate) != 0) {
    vxcli_print_error("invalid CAN --bitrate; use forms such as 500/2000, 500K/2M, or 500000/2000000");
    return -1;
  }
  for (int i = 0; i < n; i++) {
    VXHandle handle = nullptr;
    uint32_t st = VX_OpenEx(&handle, entries[i], VX_CAN_MODE_NORMAL, 120, &bitrate, 0, 0);
    if (st != VX_OK || !handle) {
      fprintf(stderr, "VX_OpenEx failed for channel '%s' (port=%u): %s (0x%X)\n", entries[i]->name,
              static_cast<unsigned>(entries[i]->port), vxcli_status_to_string(st), st);
      c.handles[i] = nullptr;
      continue;
    }
    VXRxFilter all;
    memset(&all, 0, sizeof all);
    all.mode = VX_RXFILTER_ACCEPT;
    VX_SetRxFilters(handle, &all, 1);
    c.handles[i] = handle;
  }
  return 0;
}

int open_lin_channels(Capture& c, const VXChannelInfo* const* entries, int n,
                      const RecvOptions& o) {
  uint32_t mode = 0, pullup = 0, power = 0;
  uint16_t bitrate = 0;
  uint8_t version = 0, checksum_type = 0;
  if (vxcli_parse_lin_mode(o.mode, VXCLI_LIN_MODE_LISTEN, &mode) != 0) {
    vxcli_print_error("invalid LIN --mode: %s (use listen-only, master, slave, or internal-loopback)",
                      o.mode);
    return -1;
  }
  if (vxcli_parse_lin_bitrate(o.bitrate, &bitrate) != 0) {
    vxcli_print_error("Invalid LIN bitrate '%s' (expected 1000..20000 bps, e.g. 19200 or 19.2K)",
                      o.bitrate);
    return -1;
  }
  if (vxcli_parse_lin_tres(o.pullup, mode, &pullup) != 0 ||
      vxcli_parse_lin_voltage(o.power, mode, &power) != 0 ||
      vxcli_parse_lin_version(o.lin_version, &version) != 0 ||
      vxcli_parse_lin_checksum(o.checksum, 0, &checksum_type) != 0) {
    vxcli_print_error("invalid LIN electrical/protocol option");
    return -1;
  }
  for (int i = 0; i < n; i++)
    c.handles[i] =
        vxcli_open_lin_channel_info(entries[i], bitrate, mode, pullup, power, version, checksum_type);
  return 0;
}

// One record from channel slot index: filter, count and print. False stops the capture.
bool handle_record(Capture& c, int index, const VXMessage& m) {
  vxcli_recv_printer& p = c.printer;
  int rc = vxcli_recv_printer_add(&p, index, &m);
  if (rc < 0) return false;
  if (rc > 0 && g_config.format != VXCLI_FORMAT_JSON)
    fwrite(vxcli_json_writer_data(&p.line), 1, vxcli_json_writer_length(&p.line), stdout);
  return true;
}

bool count_reached(const Capture& c) { return vxcli_recv_printer_count_reached(&c.printer); }

void capture(Capture& c, uint64_t duration_ms) {
  uint64_t start = vxcli_message_monotonic_ms();
  VXNotifyHandle notify[kMaxChannels];
  int slot_of[kMaxChannels];
  int n = 0;
  for (int i = 0; i < kMaxChannels; i++) {
    if (!c.handles[i]) continue;
    notify[n] = c.notify[i];
    slot_of[n++] = i;
  }
  while (g_recv_running) {
    if (count_reached(c)) break;
    uint64_t elapsed = vxcli_message_monotonic_ms() - start;
    if (duration_ms && elapsed >= duration_ms) break;
    uint32_t wait = 1000;
    if (duration_ms && duration_ms - elapsed < wait) wait = static_cast<uint32_t>(duration_ms - elapsed);
    uint32_t which = 0;
    uint32_t st = VX_WaitForNotificationsEx(notify, static_cast<uint32_t>(n), wait, &which);
    if (st == VX_ERR_QUEUE_EMPTY) continue;
    if (st != VX_OK) {
      c.printer.errors++;
      vxcli_message_sleep_ms(10);
      continue;
    }
    if (which >= static_cast<uint32_t>(n)) which = 0;
    int slot = slot_of[which];
    VXMessage m;
    bool stop = false;
    while (g_recv_running && !count_reached(c)) {
      uint32_t rs = VX_Read(c.handles[slot], &m, 0, nullptr);
      if (rs == VX_ERR_QUEUE_EMPTY) break;
      if (rs != VX_OK) {
        c.printer.errors++;
        if (rs == VX_ERR_QUEUE_OVERRUN) continue;
        break;
      }
      if (!handle_record(c, slot, m)) {
        stop = true;
        break;
      }
    }
    fflush(stdout);
    if (stop) break;
  }
}

void print_json_document(Capture& c) {
  if (vxcli_recv_printer_finish_json(&c.printer, c.open) != 0) {
    vxcli_print_error_code("response_too_large", "Receive result exceeded the 10 MiB JSON limit");
    return;
  }
  fwrite(vxcli_json_writer_data(&c.printer.document), 1,
         vxcli_json_writer_length(&c.printer.document), stdout);
}

int read_options(int count, char** words, RecvOptions* o) {
  memset(o, 0, sizeof *o);
  o->channel = vxcli_get_option(count, words, "channel");
  o->count = vxcli_get_option(count, words, "count");
  o->duration = vxcli_get_option(count, words, "duration");
  o->id = vxcli_get_option(count, words, "id");
  o->mask = vxcli_get_option(count, words, "mask");
  o->database = vxcli_get_option(count, words, "database");
  if (!o->database) o->database = vxcli_get_option(count, words, "dbc");
  o->bitrate = vxcli_get_option(count, words, "bitrate");
  o->mode = vxcli_get_option(count, words, "mode");
  o->pullup = vxcli_get_option(count, words, "pullup");
  o->power = vxcli_get_option(count, words, "power");
  o->lin_version = vxcli_get_option(count, words, "lin-version");
  o->checksum = vxcli_get_option(count, words, "checksum");
  o->decode = vxcli_has_flag(count, words, "decode");
  return 0;
}

void close_all(Capture& c) {
  for (int i = 0; i < kMaxChannels; i++)
    if (c.handles[i]) VX_Close(c.handles[i]);
  vxcli_recv_printer_free(&c.printer);
}

}  // namespace

int vxcli_recv_printer_init(vxcli_recv_printer* p, uint32_t format, size_t json_limit) {
  memset(p, 0, sizeof *p);
  p->format = format;
  p->filter_mask = 0x7FF;
  if (vxcli_json_writer_init(&p->line, 1024, 0x100000) != 0 ||
      (format == VXCLI_FORMAT_JSON && vxcli_json_writer_init(&p->document, 64 * 1024, json_limit) != 0)) {
    vxcli_recv_printer_free(p);
    return -1;
  }
  if (format == VXCLI_FORMAT_JSON) vxcli_json_writer_raw(&p->document, "{\"messages\":[");
  return 0;
}

void vxcli_recv_printer_free(vxcli_recv_printer* p) {
  vxcli_json_writer_free(&p->line);
  vxcli_json_writer_free(&p->document);
}

bool vxcli_recv_printer_count_reached(const vxcli_recv_printer* p) {
  return p->count > 0 && p->received >= p->count;
}

int vxcli_recv_printer_add(vxcli_recv_printer* p, int index, const VXMessage* m) {
  bool can = vxcli_message_is_can(m);
  bool lin = vxcli_message_is_lin(m);
  if (!(can || lin)) return 0;
  if (p->bus && !(p->bus == VXCLI_BUS_CAN ? can : lin)) return 0;
  uint64_t device_time = unwrap_time(*p, m->timestamp);

  vxcli_can_frame can_frame;
  vxcli_lin_frame lin_frame;
  uint32_t id;
  if (can) {
    vxcli_can_frame_from_message(m, &can_frame);
    id = can_frame.id;
  } else {
    vxcli_lin_frame_from_message(m, &lin_frame);
    id = lin_frame.id;
  }
  if (p->filter && ((id ^ p->filter_id) & p->filter_mask) != 0) return 0;

  const bool json = p->format == VXCLI_FORMAT_JSON;
  if (!json) p->line.length = 0;
  if (p->received == 0) p->first_us = device_time;
  if (p->format == VXCLI_FORMAT_CSV && !(can ? p->can_header : p->lin_header)) {
    vxcli_json_writer_raw(&p->line, can ? vxcli_can_csv_header : vxcli_lin_csv_header);
    (can ? p->can_header : p->lin_header) = true;
  }
  p->received++;
  uint64_t relative = device_time > p->first_us ? device_time - p->first_us : 0;

  vxcli_frame_print_options options = {p->format, p->channel_prefix ? 1 : 0, index, nullptr};
  char decoded[4096];
  if (can && p->decode && p->format != VXCLI_FORMAT_CSV) {
    int bytes = (can_frame.flags & VXCLI_FRAME_RTR) ? 0 : vxcli_dlc_to_bytes(can_frame.dlc);
    bool text = p->format == VXCLI_FORMAT_TEXT;
    if (vxcli_message_dbc_decode(p->database, can_frame.id, can_frame.data, bytes, text, decoded,
                                 sizeof decoded) == 0)
      options.decoded = decoded;
  }

  if (json) {
    if (p->received > 1) vxcli_json_writer_char(&p->document, ',');
    if (can) vxcli_format_can_frame(&p->document, &can_frame, relative, &options);
    else vxcli_format_lin_frame(&p->document, &lin_frame, relative, &options);
    if (!vxcli_json_writer_ok(&p->document)) {
      p->overflow = true;
      return -1;
    }
    return 1;
  }
  int rc = can ? vxcli_format_can_frame(&p->line, &can_frame, relative, &options)
               : vxcli_format_lin_frame(&p->line, &lin_frame, relative, &options);
  if (rc != 0) {
    // A frame too large for the line buffer cannot happen short of a broken decoder;
    // start over with a fresh buffer rather than lose the rest of the capture.
    vxcli_json_writer_free(&p->line);
    vxcli_json_writer_init(&p->line, 1024, 0x100000);
    p->errors++;
    return 0;
  }
  if (can && options.decoded && p->format == VXCLI_FORMAT_TEXT) {
    vxcli_json_writer_raw(&p->line, "    ");
    vxcli_json_writer_raw(&p->line, decoded);
    vxcli_json_writer_char(&p->line, '\n');
  }
  return 1;
}

int vxcli_recv_printer_finish_json(vxcli_recv_printer* p, int channels) {
  vxcli_json_writer_printf(&p->document, "],\"received\":%ld,\"errors\":%ld,\"channels\":%d,",
                           p->received, p->errors, channels);
  if (p->received > 0) {
    vxcli_json_writer_raw(&p->document, "\"status\":\"ok\"}\n");
  } else {
    vxcli_json_writer_raw(&p->document,
                          "\"status\":\"error\",\"message\":\"No messages received\",\"error\":{"
                          "\"code\":\"no_messages_received\",\"message\":\"No messages received\","
                          "\"details\":{},\"retryable\":true}}\n");
  }
  return vxcli_json_writer_ok(&p->document) ? 0 : -1;
}

int vxcli_message_recv_command(int count, char** words) {
  if (vxcli_message_refuse_legacy_options(count, words)) return 1;
  RecvOptions o;
  read_options(count, words, &o);
  if (!o.channel) {
    vxcli_print_error("--channel is required");
    return 1;
  }
  long frames = 0;
  if (o.count && (!vxcli_message_parse_long(o.count, &frames) || frames < 0)) {
    vxcli_print_error("Invalid --count: %s (expected a non-negative integer)", o.count);
    return 1;
  }
  double duration = 0;
  if (!parse_seconds(o.duration, &duration)) {
    vxcli_print_error("Invalid --duration: %s (expected seconds)", o.duration);
    return 1;
  }
  static Capture c;
  memset(&c, 0, sizeof c);
  bool filter = false;
  uint32_t filter_id = 0, filter_mask = 0x7FF;
  if (o.id) {
    long id = vxcli_parse_message_id_quiet(o.id, nullptr);
    if (id < 0 || id > 0x1FFFFFFF) {
      vxcli_print_error("Invalid --id: %s", o.id);
      return 1;
    }
    filter = true;
    filter_id = static_cast<uint32_t>(id);
  }
  if (o.mask) {
    long mask = vxcli_parse_message_id_quiet(o.mask, nullptr);
    if (mask < 0 || mask > 0xFFFFFFFFL) {
      vxcli_print_error("Invalid --mask: %s", o.mask);
      return 1;
    }
    filter_mask = static_cast<uint32_t>(mask);
  }

  vxcli_channel_spec specs[kMaxChannels];
  VXChannelInfo infos[32];
  int enumerated = 0;
  int n = vxcli_channel_list_enumerate(o.channel, specs, kMaxChannels, infos, &enumerated);
  if (n < 0) return 1;
  const VXChannelInfo* entries[kMaxChannels];
  bool has_can = false, has_lin = false;
  for (int i = 0; i < n; i++) {
    entries[i] = vxcli_resolve_channel(infos, enumerated, &specs[i]);
    if (!entries[i]) {
      char piece[48];
      if (specs[i].kind == VXCLI_SPEC_INDEX_OR_NAME && specs[i].index >= 0)
        snprintf(piece, sizeof piece, "%d", specs[i].index);
      else if (specs[i].port >= 0)
        snprintf(piece, sizeof piece, "%s/%d", specs[i].device, specs[i].port);
      else
        snprintf(piece, sizeof piece, "%s", specs[i].device);
      vxcli_print_error("No matching channel found for %s", piece);
      return 1;
    }
    uint32_t bus = 0;
    if (vxcli_bus_from_channel(entries[i], nullptr, &bus) != 0) {
      vxcli_print_error("channel capability does not identify a supported bus");
      return 1;
    }
    (bus == VXCLI_BUS_LIN ? has_lin : has_can) = true;
  }
  if (has_can && has_lin) {
    vxcli_print_error(
        "standalone message recv does not mix CAN and LIN channels; use the daemon or separate "
        "captures");
    return 1;
  }
  const uint32_t bus = has_lin ? VXCLI_BUS_LIN : VXCLI_BUS_CAN;
  if (has_lin && o.decode) {
    vxcli_print_error("--decode is available only on CAN channels");
    return 1;
  }
  const DbcLoadedFile* database = nullptr;
  if (o.decode) {
    char reason[320];
    database = vxcli_message_dbc_open(o.database, reason, sizeof reason);
    if (!database) {
      vxcli_print_error("--decode needs a DBC database: %s", *reason ? reason : "none resolved");
      return 1;
    }
  }
  if (has_can && (o.mode || o.pullup || o.power || o.lin_version || o.checksum)) {
    vxcli_print_error("LIN-only options require a LIN channel");
    return 1;
  }

  if (vxcli_recv_printer_init(&c.printer, g_config.format, kJsonLimit) != 0) {
    vxcli_print_error_code("out_of_memory", "Unable to allocate bounded receive output");
    return 1;
  }
  c.printer.bus = bus;
  c.printer.count = frames;
  c.printer.filter = filter;
  c.printer.filter_id = filter_id;
  c.printer.filter_mask = filter_mask;
  c.printer.decode = o.decode;
  c.printer.database = database;

  int rc = bus == VXCLI_BUS_CAN ? open_can_channels(c, entries, n, o)
                                  : open_lin_channels(c, entries, n, o);
  if (rc != 0) {
    close_all(c);
    return 1;
  }
  VXHandle opened[kMaxChannels];
  for (int i = 0; i < n; i++) {
    if (!c.handles[i]) continue;
    VX_GetNotification(c.handles[i], &c.notify[i]);
    opened[c.open++] = c.handles[i];
  }
  if (c.open == 0) {
    close_all(c);
    vxcli_print_error("No channels could be opened");
    return 1;
  }
  if (c.open > 1) {
    VX_SyncPtpTimes(opened, static_cast<uint32_t>(c.open));
    if (g_config.verbose) {
      fprintf(stderr, "Multi-channel recv: %d channel(s)\n", c.open);
      for (int i = 0; i < n; i++) {
        if (!c.handles[i]) continue;
        char serial[40];
        vxcli_render_serial(entries[i]->serial, serial, sizeof serial);
        fprintf(stderr, " ch%d = SN%s/port%d\n", i, serial, entries[i]->port);
      }
    }
  }

  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = recv_signal_handler;
  sigemptyset(&action.sa_mask);
  struct sigaction old_int, old_term;
  sigaction(SIGINT, &action, &old_int);
  sigaction(SIGTERM, &action, &old_term);
  g_recv_running = 1;
  // Announced only once an interrupt can be handled, so callers may signal right away.
  if (g_config.verbose)
    fprintf(stderr, "Receiving on %d channel(s) (duration=%ss, count=%s)\n", c.open,
            duration > 0 ? o.duration : "infinite", frames > 0 ? o.count : "infinite");

  c.printer.channel_prefix = c.open > 1;
  capture(c, static_cast<uint64_t>(std::llround(duration * 1000.0)));

  g_recv_running = 0;
  sigaction(SIGINT, &old_int, nullptr);
  sigaction(SIGTERM, &old_term, nullptr);

  int status = c.printer.received > 0 ? 0 : 1;
  if (g_config.format == VXCLI_FORMAT_JSON) {
    if (c.printer.overflow) {
      vxcli_print_error_code("response_too_large", "Receive result exceeded the 10 MiB JSON limit");
      status = 1;
    } else {
      print_json_document(c);
    }
  } else if (c.printer.received == 0 && frames > 0) {
    printf("No messages received (count=%ld not reached in %ss)\n", frames,
           duration > 0 ? o.duration : "infinite");
  }
  fflush(stdout);
  for (int i = 0; i < kMaxChannels; i++)
    if (c.handles[i]) VX_Close(c.handles[i]);
  memset(c.handles, 0, sizeof c.handles);
  close_all(c);
  return status;
}
