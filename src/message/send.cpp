// Standalone "message send": one frame or a counted series on a CAN, CAN FD or LIN
// channel, LIN master reads and sync breaks.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "channel/channel.h"
#include "cli/output.h"
#include "json/json.h"
#include "message/frame.h"
#include "message/lin.h"
#include "message/message.h"
#include "message/message_dbc.h"
#include "message/options.h"

namespace {

constexpr int kMaxSignals = 256;

struct SendOptions {
  const char* channel;
  const char* message;
  const char* data;
  const char* dlc;
  const char* flags;
  const char* type;
  const char* count;
  const char* cycle;
  const char* timeout;
  const char* database;
  const char* bitrate;
  const char* pullup;
  const char* power;
  const char* lin_version;
  const char* checksum;
  const char* signals[kMaxSignals];
  int signal_count;
};

void read_options(int count, char** words, SendOptions* o) {
  memset(o, 0, sizeof *o);
  o->channel = vxcli_get_option(count, words, "channel");
  o->message = vxcli_get_option(count, words, "message");
  if (!o->message) o->message = vxcli_get_option(count, words, "id");
  o->data = vxcli_get_option(count, words, "data");
  o->dlc = vxcli_get_option(count, words, "dlc");
  o->flags = vxcli_get_option(count, words, "flags");
  o->type = vxcli_get_option(count, words, "type");
  o->count = vxcli_get_option(count, words, "count");
  o->cycle = vxcli_get_option(count, words, "cycle");
  o->timeout = vxcli_get_option(count, words, "timeout");
  o->database = vxcli_get_option(count, words, "database");
  if (!o->database) o->database = vxcli_get_option(count, words, "dbc");
  o->bitrate = vxcli_get_option(count, words, "bitrate");
  o->pullup = vxcli_get_option(count, words, "pullup");
  o->power = vxcli_get_option(count, words, "power");
  o->lin_version = vxcli_get_option(count, words, "lin-version");
  o->checksum = vxcli_get_option(count, words, "checksum");
  o->signal_count = vxcli_message_collect_option(count, words, "signal", o->signals, kMaxSignals);
}

bool is_lin_operation(const char* type) {
  return type && (strcasecmp(type, "master-write") == 0 || strcasecmp(type, "master-read") == 0 ||
                  strcasecmp(type, "sync-break") == 0);
}

bool starts_like_number(const char* text) { return text && text[0] >= '0' && text[0] <= '9'; }

// The frame a CAN send puts on the bus.
struct CanFrame {
  uint32_t id;
  uint32_t flags;
  uint8_t dlc;
  uint8_t data[64];
  int length;
};

// DBC message by name (or id with signals): identifier, flags and payload.
int encode_from_dbc(const SendOptions& o, long id_number, CanFrame* frame) {
  const char* names[kMaxSignals];
  double values[kMaxSignals];
  char assignment[256][128];
  int n = 0;
  for (int i = 0; i < o.signal_count; i++) {
    const char* eq = strchr(o.signals[i], '=');
    size_t name_length = eq ? static_cast<size_t>(eq - o.signals[i]) : 0;
    if (!eq || name_length == 0 || name_length >= sizeof assignment[0]) {
      vxcli_print_error("Invalid --signal assignment: %s (expected name=value)", o.signals[i]);
      return -1;
    }
    char* end = nullptr;
    double value = strtod(eq + 1, &end);
    if (end == eq + 1 || *end) {
      vxcli_print_error("Invalid --signal value: %s", o.signals[i]);
      return -1;
    }
    memcpy(assignment[n], o.signals[i], name_length);
    assignment[n][name_length] = 0;
    names[n] = assignment[n];
    values[n] = value;
    n++;
  }
  char reason[320];
  int length = 0;
  uint32_t id = 0, flags = 0;
  // A numeric message selects by identifier; the text was already parsed (and noted) once.
  char selector[24] = "";
  if (id_number >= 0) snprintf(selector, sizeof selector, "0x%lX", id_number);
  if (vxcli_message_dbc_encode(id_number >= 0 ? selector : o.message, o.database, n, names, values,
                               frame->data, &length, &id,
                               &flags, reason, sizeof reason) != 0) {
    if (n == 0 && starts_like_number(o.message))
      vxcli_print_error("Invalid message ID: %s", o.message);
    else
      vxcli_print_error("Failed to encode signals for message: %s (%s)", o.message, reason);
    return -1;
  }
  frame->id = id;
  frame->flags = flags & (VXCLI_FRAME_IDE | VXCLI_FRAME_FDF | VXCLI_FRAME_BRS);
  frame->length = length;
  return 0;
}

// Waits briefly for the confirmation of the frame just written and echoes it.
void echo_tx(VXHandle handle, const VXChannelInfo& info, const CanFrame& frame) {
  VXMessage record;
  uint64_t start = vxcli_message_monotonic_ms();
  bool have = false;
  while (vxcli_message_monotonic_ms() - start < 100) {
    if (VX_Read(handle, &record, 20, nullptr) != VX_OK) continue;
    if (vxcli_message_is_can(&record) && (record.header & VX_MSG_TX)) {
      have = true;
      break;
    }
  }
  fprintf(stderr, "TX CH%d ID=0x%03X DLC=%d [", info.port, frame.id, frame.dlc);
  int bytes = (frame.flags & VXCLI_FRAME_RTR) ? 0 : vxcli_dlc_to_bytes(frame.dlc);
  if (!(frame.flags & VXCLI_FRAME_FDF) && bytes > 8) bytes = 8;
  const uint8_t* data = have ? record.data : frame.data;
  for (int i = 0; i < bytes && i < 64; i++) fprintf(stderr, "%02X ", data[i]);
  if (have) fprintf(stderr, "] ts=%u\n", record.timestamp);
  else fputs("]\n", stderr);
}

int send_can(const SendOptions& o, long id, const VXChannelInfo& info, long count, long cycle,
             long timeout) {
  bool remote = false;
  if (o.type && strcasecmp(o.type, "data") != 0) {
    if (strcasecmp(o.type, "remote") == 0) {
      remote = true;
    } else if (is_lin_operation(o.type)) {
      vxcli_print_error("LIN operations use --type=master-write|master-read|sync-break");
      return 1;
    } else {
      vxcli_print_error("CAN --type must be data or remote");
      return 1;
    }
  }
  if (remote && o.data) {
    vxcli_print_error("CAN remote frames cannot include --data");
    return 1;
  }
  if (o.pullup || o.power || o.lin_version || o.checksum) {
    vxcli_print_error("LIN-only options require a LIN channel");
    return 1;
  }

  CanFrame frame;
  memset(&frame, 0, sizeof frame);
  bool from_dbc = id < 0 || o.signal_count > 0;
  if (from_dbc) {
    if (o.data && o.signal_count > 0) {
      vxcli_print_error("--data cannot be combined with --signal");
      return 1;
    }
    if (encode_from_dbc(o, id, &frame) != 0) return 1;
  } else {
    frame.id = static_cast<uint32_t>(id);
  }
  if (o.data) {
    uint8_t payload[64];
    int n = vxcli_parse_data(o.data, payload, 64);
    if (n == 0 && *o.data) {
      vxcli_print_error("Failed to parse data hex bytes: %s", o.data);
      return 1;
    }
    memset(frame.data, 0, sizeof frame.data);
    memcpy(frame.data, payload, static_cast<size_t>(n));
    frame.length = n;
  }
  if (!from_dbc && frame.id > 0x1FFFFFFF) {
    vxcli_print_error("Invalid message ID: %s", o.message);
    return 1;
  }
  frame.flags |= vxcli_parse_flags(o.flags);
  // An identifier beyond 11 bits can only be sent as an extended one.
  if (frame.id > 0x7FF) frame.flags |= VXCLI_FRAME_IDE;
  // Classic CAN carries at most eight bytes; a longer payload means CAN FD.
  if (frame.length > 8) frame.flags |= VXCLI_FRAME_FDF;
  if (remote) frame.flags |= VXCLI_FRAME_RTR;
  if ((frame.flags & VXCLI_FRAME_RTR) && (frame.flags & VXCLI_FRAME_FDF)) {
    vxcli_print_error("CAN FD frames cannot be remote frames");
    return 1;
  }
  if (o.dlc) {
    long dlc = -1;
    if (!vxcli_message_parse_long(o.dlc, &dlc) || dlc < 0 || dlc > 15) {
      vxcli_print_error("Invalid --dlc: %s (expected 0..15)", o.dlc);
      return 1;
    }
    frame.dlc = static_cast<uint8_t>(dlc);
  } else {
    frame.dlc = static_cast<uint8_t>(vxcli_bytes_to_dlc(frame.length));
  }

  VXChannelInfo opened;
  VXHandle handle = vxcli_open_can_channel_ex(o.channel, o.bitrate, VX_CAN_MODE_NORMAL, 0, &opened);
  if (!handle) {
    vxcli_print_error("Failed to open channel %s", o.channel);
    return 1;
  }
  VXMessage record;
  vxcli_can_message_init(&record, frame.id, frame.flags, frame.dlc, frame.data, frame.length);
  int sent = 0, errors = 0;
  for (long i = 1; i <= count; i++) {
    uint32_t st;
    if (timeout > 0) st = VX_Write(handle, &record, static_cast<uint32_t>(timeout), nullptr);
    else st = VX_WriteCanMessage(handle, &record);
    if (st == VX_OK) {
      sent++;
      if (g_config.verbose) echo_tx(handle, opened, frame);
    } else {
      errors++;
      fprintf(stderr, "Send failed (%ld/%ld): %s (0x%X)\n", i, count, vxcli_status_to_string(st),
              st);
    }
    if (cycle > 0 && i < count) vxcli_message_sleep_ms(static_cast<uint32_t>(cycle));
  }
  VX_Close(handle);

  if (vxcli_json_mode()) {
    printf("{\"status\":\"%s\",\"sent\":%d,\"errors\":%d,\"channel\":%d,\"id\":\"0x%X\"}\n",
           errors ? "error" : "ok", sent, errors, info.port, frame.id);
  } else if (errors == 0) {
    printf("Sent %d message(s) on channel %d, ID=0x%X\n", sent, info.port, frame.id);
  } else {
    fprintf(stderr, "Sent %d/%ld message(s), %d error(s)\n", sent, count, errors);
  }
  return errors ? 1 : 0;
}

// Counters shown in every LIN report.
struct LinSummary {
  int completed;  // transfers the device reported back
  int received;   // of those, frames that carried slave data
};

LinSummary summarize(const LinTransferResult& result, uint32_t operation) {
  LinSummary s = {0, 0};
  if (operation == VXCLI_LIN_MASTER_WRITE) s.completed = static_cast<int>(result.sent);
  for (int i = 0; i < result.recordCount; i++) {
    const LinTransferRecord& r = result.records[i];
    if (!r.classified) continue;
    if (operation != VXCLI_LIN_MASTER_WRITE) s.completed++;
    if (r.frame.control & VX_LIN_CTRL_LEN_MASK) s.received++;
  }
  return s;
}

uint64_t first_timestamp(const LinTransferResult& result) {
  for (int i = 0; i < result.recordCount; i++)
    if (result.records[i].classified) return result.records[i].frame.timestamp;
  return 0;
}

uint64_t relative_us(uint32_t timestamp, uint64_t first) {
  // The device clock is 32-bit; the difference modulo 2^32 survives one wrap.
  return static_cast<uint32_t>(timestamp - static_cast<uint32_t>(first));
}

int report_lin_json(const SendOptions& o, uint32_t operation, uint8_t id, uint8_t checksum_type,
                    const LinTransferResult& result, int rc) {
  LinSummary s = summarize(result, operation);
  vxcli_json_writer w;
  vxcli_json_writer_init(&w, 1024, 0x4000000);
  vxcli_json_writer_printf(&w, "{\"status\":\"%s\",\"bus\":\"lin\",\"operation\":\"%s\",\"channel\":",
                           rc ? "error" : "ok", vxcli_lin_operation_name(operation));
  vxcli_json_writer_string(&w, o.channel);
  vxcli_json_writer_printf(&w,
                           ",\"id\":\"0x%02X\",\"sent\":%u,\"completed\":%d,\"received\":%d,"
                           "\"unexpected_responses\":%u,\"errors\":%u,\"checksum_type\":\"%s\","
                           "\"results\":[",
                           id, result.sent, s.completed, s.received, result.unexpected,
                           result.failed, vxcli_lin_checksum_name(checksum_type));
  for (int i = 0; i < result.recordCount; i++) {
    const LinTransferRecord& r = result.records[i];
    if (i) vxcli_json_writer_char(&w, ',');
    vxcli_json_writer_printf(&w, "{\"outcome\":\"%s\"", vxcli_lin_outcome_name(r.outcome));
    if (r.classified) {
      vxcli_lin_frame f;
      vxcli_lin_frame_from_message(&r.frame, &f);
      vxcli_json_writer_printf(&w, ",\"id\":\"0x%02X\",\"dlc\":%u,\"data\":\"", f.id, f.dlc);
      for (int b = 0; b < f.dlc; b++) vxcli_json_writer_printf(&w, "%02X", f.data[b]);
      vxcli_json_writer_printf(
          &w,
          "\",\"checksum_type\":\"%s\",\"checksum\":\"0x%02X\",\"errors\":%u,\"sync_break\":%s,"
          "\"timestamp_us\":%u",
          vxcli_lin_checksum_name(f.checksum_type), f.checksum, f.errors,
          (r.frame.lin_status & VX_LIN_STATUS_HEADER_ONLY) ? "true" : "false", r.frame.timestamp);
    }
    if (r.status) vxcli_json_writer_printf(&w, ",\"vxapi_status\":\"0x%X\"", r.status);
    vxcli_json_writer_char(&w, '}');
  }
  vxcli_json_writer_raw(&w, "]}\n");
  if (!vxcli_json_writer_ok(&w)) {
    vxcli_json_writer_free(&w);
    vxcli_print_error_code("response_too_large", "LIN result exceeded the JSON output limit");
    return 1;
  }
  fwrite(vxcli_json_writer_data(&w), 1, vxcli_json_writer_length(&w), stdout);
  vxcli_json_writer_free(&w);
  return rc;
}

int report_lin(const SendOptions& o, uint32_t operation, uint8_t id, uint8_t checksum_type,
               const LinTransferResult& result, int rc) {
  if (g_config.format == VXCLI_FORMAT_JSON)
    return report_lin_json(o, operation, id, checksum_type, result, rc);
  LinSummary s = summarize(result, operation);
  uint64_t first = first_timestamp(result);
  if (g_config.format == VXCLI_FORMAT_CSV) fputs(vxcli_lin_csv_header, stdout);
  bool text = g_config.format == VXCLI_FORMAT_TEXT;
  if (text && rc == 0) {
    printf("LIN %s completed on %s: id=0x%02X sent=%u", vxcli_lin_operation_name(operation),
           o.channel, id, result.sent);
    if (operation != VXCLI_LIN_MASTER_WRITE)
      printf(" completed=%d responses=%u", s.completed, result.responses);
    printf(" checksum=%s\n", vxcli_lin_checksum_name(checksum_type));
  }
  if (!text || rc == 0) {
    for (int i = 0; i < result.recordCount; i++) {
      if (!result.records[i].classified) continue;
      vxcli_lin_frame f;
      vxcli_lin_frame_from_message(&result.records[i].frame, &f);
      vxcli_print_lin_message(&f, relative_us(result.records[i].frame.timestamp, first));
    }
  }
  if (g_config.format == VXCLI_FORMAT_JSONL) {
    printf("{\"status\":\"%s\",\"event\":\"summary\",\"bus\":\"lin\",\"operation\":\"%s\","
           "\"sent\":%u,\"completed\":%d,\"received\":%d,\"errors\":%u}\n",
           rc ? "error" : "ok", vxcli_lin_operation_name(operation), result.sent, s.completed,
           s.received, result.failed);
  }
  if (rc != 0 && g_config.format != VXCLI_FORMAT_JSONL) {
    fprintf(stderr,
            "LIN %s failed on %s: sent=%u completed=%d received=%d unexpected_responses=%u "
            "errors=%u\n",
            vxcli_lin_operation_name(operation), o.channel, result.sent, s.completed, s.received,
            result.unexpected, result.failed);
  }
  return rc;
}

int send_lin(const SendOptions& o, long id, long count, long cycle, long timeout,
             bool timeout_given) {
  uint32_t operation = 0;
  if (vxcli_parse_lin_operation(o.type, &operation) != 0) {
    vxcli_print_error("LIN --type must be master-write, master-read, or sync-break");
    return 1;
  }
  uint8_t payload[64];
  int length = 0;
  if (o.data) {
    length = vxcli_parse_data(o.data, payload, 64);
    if (length == 0 && *o.data) {
      vxcli_print_error("Failed to parse data hex bytes: %s", o.data);
      return 1;
    }
  }
  long dlc = -1;
  if (o.dlc && (!vxcli_message_parse_long(o.dlc, &dlc) || dlc < 0)) dlc = 99;
  if (id > 0x3F) {
    vxcli_print_error("LIN ID must be in range 0x00..0x3F");
    return 1;
  }
  if (length > 8 || dlc > 8) {
    vxcli_print_error("LIN payload/DLC must be in range 0..8 bytes");
    return 1;
  }
  if (operation != VXCLI_LIN_MASTER_WRITE && o.data) {
    vxcli_print_error("master-read and sync-break cannot be combined with --data");
    return 1;
  }
  if (operation == VXCLI_LIN_SYNC_BREAK && dlc > 0) {
    vxcli_print_error("sync-break is header-only; omit --dlc or use --dlc=0");
    return 1;
  }
  if (count < 1 || count > 100000) {
    vxcli_print_error("--count must be in range 1..100000");
    return 1;
  }
  if (cycle < 0 || timeout < 0 || timeout > 60000) {
    vxcli_print_error("LIN --cycle must be non-negative and --timeout must be 0..60000 ms");
    return 1;
  }
  uint32_t frame_length;
  if (operation == VXCLI_LIN_SYNC_BREAK) frame_length = 0;
  else if (operation == VXCLI_LIN_MASTER_READ) frame_length = dlc >= 0 ? dlc : 8;
  // A write without data sends a zero payload: of --dlc bytes, or a full frame.
  else frame_length = dlc >= 0 ? dlc : (o.data ? length : 8);
  if (static_cast<int>(frame_length) > length) memset(payload + length, 0, frame_length - length);

  uint32_t pullup = 0, power = 0;
  uint8_t version = 0, checksum_type = 0;
  if (vxcli_parse_lin_tres(o.pullup, VXCLI_LIN_MODE_MASTER, &pullup) != 0 ||
      vxcli_parse_lin_voltage(o.power, VXCLI_LIN_MODE_MASTER, &power) != 0 ||
      vxcli_parse_lin_version(o.lin_version, &version) != 0 ||
      vxcli_parse_lin_checksum(o.checksum, static_cast<uint32_t>(id), &checksum_type) != 0) {
    vxcli_print_error("invalid LIN electrical/protocol option");
    return 1;
  }
  VXChannelInfo info;
  VXHandle handle = vxcli_open_lin_channel_ex(o.channel, o.bitrate, VXCLI_LIN_MODE_MASTER, pullup,
                                              power, version, checksum_type, &info);
  if (!handle) {
    vxcli_print_error("Failed to open LIN channel %s as master", o.channel);
    return 1;
  }
  LinTransferResult result;
  memset(&result, 0, sizeof result);
  result.records = static_cast<LinTransferRecord*>(calloc(static_cast<size_t>(count),
                                                           sizeof(LinTransferRecord)));
  if (!result.records) {
    VX_Close(handle);
    vxcli_print_error_code("out_of_memory", "out of memory for LIN results");
    return 1;
  }
  result.recordCapacity = static_cast<int32_t>(count);
  uint32_t completion_timeout = static_cast<uint32_t>(timeout);
  if (operation != VXCLI_LIN_MASTER_WRITE && (!timeout_given || timeout == 0))
    completion_timeout = 500;

  VXNotifyHandle notify = 0;
  VX_GetNotification(handle, &notify);
  VX_ClearBuffer(handle);
  int rc = vxcli_lin_transfer(handle, info.port, operation, static_cast<uint8_t>(id), payload,
                              frame_length, checksum_type, static_cast<int>(count),
                              static_cast<uint32_t>(cycle), completion_timeout, &result);
  VX_Close(handle);
  rc = report_lin(o, operation, static_cast<uint8_t>(id), checksum_type, result, rc);
  free(result.records);
  return rc;
}

bool parse_count_like(const char* text, const char* name, long fallback, long* out) {
  if (!text) {
    *out = fallback;
    return true;
  }
  if (vxcli_message_parse_long(text, out)) return true;
  vxcli_print_error("Invalid --%s: %s (expected an integer)", name, text);
  return false;
}

}  // namespace

int vxcli_message_send_command(int count, char** words) {
  if (vxcli_message_refuse_legacy_options(count, words)) return 1;
  SendOptions o;
  read_options(count, words, &o);
  if (!o.channel) {
    vxcli_print_error("--channel is required");
    return 1;
  }
  if (!o.message) {
    vxcli_print_error("--message or --id is required");
    return 1;
  }
  long frames = 1, cycle = 0, timeout = 0;
  if (!parse_count_like(o.count, "count", 1, &frames) ||
      !parse_count_like(o.cycle, "cycle", 0, &cycle) ||
      !parse_count_like(o.timeout, "timeout", 0, &timeout))
    return 1;
  long id = vxcli_parse_message_id(o.message);

  vxcli_channel_spec spec;
  if (vxcli_parse_channel_spec(o.channel, &spec) != 0) {
    vxcli_print_error("Invalid channel specification: %s", o.channel);
    return 1;
  }
  VXChannelInfo infos[32];
  int channels = 0;
  uint32_t st = vxcli_enumerate(infos, &channels);
  if (st != VX_OK) {
    vxcli_print_error("VX_Enumerate failed: %s (0x%X)", vxcli_status_to_string(st), st);
    return 1;
  }
  const VXChannelInfo* info = vxcli_resolve_channel(infos, channels, &spec);
  if (!info) {
    vxcli_print_error("No matching channel found for %s", o.channel);
    return 1;
  }
  uint32_t bus = 0;
  if (vxcli_bus_from_channel(info, nullptr, &bus) != 0) {
    vxcli_print_error("channel capability does not identify a supported bus");
    return 1;
  }
  if (bus == VXCLI_BUS_LIN) {
    if (o.signal_count > 0 || (id < 0 && !starts_like_number(o.message))) {
      vxcli_print_error("DBC signal encoding is currently available only on CAN channels");
      return 1;
    }
    if (id < 0) {
      vxcli_print_error("Invalid message ID: %s", o.message);
      return 1;
    }
    return send_lin(o, id, frames, cycle, timeout, o.timeout != nullptr);
  }
  if (frames < 1) {
    vxcli_print_error("--count must be at least 1");
    return 1;
  }
  if (cycle < 0 || timeout < 0) {
    vxcli_print_error("--cycle and --timeout must be non-negative");
    return 1;
  }
  return send_can(o, id, *info, frames, cycle, timeout);
}
