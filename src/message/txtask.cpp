// Periodic hardware TX tasks: entries built from options, and the standalone
// "txtask add|remove|list" commands editing a port's table on the device.
#include "message/txtask.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "channel/channel.h"
#include "cli/output.h"
#include "message/frame.h"
#include "message/lin.h"

namespace {

// Whole-text unsigned number, decimal or 0x-hex, within [low, high].
bool parse_number(const char* text, unsigned long low, unsigned long high, unsigned long* out) {
  if (!text || !*text || *text == '-' || isspace(static_cast<unsigned char>(*text))) return false;
  errno = 0;
  char* end = nullptr;
  unsigned long value = strtoul(text, &end, 0);
  if (errno || !end || *end || value < low || value > high) return false;
  *out = value;
  return true;
}

// Payload bytes; -1 on characters that are neither hex digits nor separators, or
// more than max bytes.
int parse_payload(const char* text, uint8_t* out, int max) {
  int digits = 0;
  for (const char* p = text; *p; p++) {
    if (isxdigit(static_cast<unsigned char>(*p))) digits++;
    else if (!strchr(",-: \t", *p)) return -1;
  }
  uint8_t buffer[65];
  int n = vxcli_parse_data(text, buffer, 65);
  if (n > max || (digits > 0 && n == 0)) return -1;
  memcpy(out, buffer, static_cast<size_t>(n));
  return n;
}

}  // namespace

int vxcli_txtask_type_from_word(const char* word) {
  if (!word || !strcasecmp(word, "fixed")) return VX_TXTASK_FIXED;
  if (!strcasecmp(word, "incdata")) return VX_TXTASK_INCDATA;
  if (!strcasecmp(word, "incid")) return VX_TXTASK_INCID;
  // "random" is the short spelling of randomdata.
  if (!strcasecmp(word, "random") || !strcasecmp(word, "randomdata")) return VX_TXTASK_RANDOMDATA;
  if (!strcasecmp(word, "randomid")) return VX_TXTASK_RANDOMID;
  return -1;
}

const char* vxcli_txtask_type_name(int type) {
  switch (type) {
    case VX_TXTASK_FIXED: return "fixed";
    case VX_TXTASK_INCDATA: return "incdata";
    case VX_TXTASK_INCID: return "incid";
    case VX_TXTASK_RANDOMDATA: return "randomdata";
    case VX_TXTASK_RANDOMID: return "randomid";
  }
  return "unknown";
}

bool vxcli_txtask_in_use(const VXTxTask& task) { return task.type >= 1 && task.type <= 5; }

uint32_t vxcli_txtask_shown_id(const VXTxTask& task) {
  if (task.kind != VX_TXTASK_KIND_CAN) return task.lin_id;
  return vxcli_can_id_from_device(task.id, task.flags & VX_FRAME_IDE);
}

int vxcli_txtask_first_free(const VXTxTask* table, int count) {
  for (int i = 0; i < count; i++)
    if (!vxcli_txtask_in_use(table[i])) return i;
  return -1;
}

int vxcli_txtask_used_length(const VXTxTask* table, int count) {
  int length = 0;
  for (int i = 0; i < count; i++)
    if (vxcli_txtask_in_use(table[i])) length = i + 1;
  return length;
}

uint32_t vxcli_txtask_prime_response(VXHandle handle, const VXTxTask& task) {
  VXLinResponseTask response;
  memcpy(&response, &task, sizeof response);
  return vxcli_prime_lin_response_tasks(handle, &response, 1);
}

int vxcli_txtask_parse_flag_words(const char* text, uint32_t* flags) {
  *flags = 0;
  if (!text) return 0;
  char copy[256];
  snprintf(copy, sizeof copy, "%s", text);
  char* save = nullptr;
  for (char* w = strtok_r(copy, ",+ \t", &save); w; w = strtok_r(nullptr, ",+ \t", &save)) {
    if (!strcasecmp(w, "ide")) *flags |= VX_FRAME_IDE;
    else if (!strcasecmp(w, "rtr")) *flags |= VX_FRAME_RTR;
    else if (!strcasecmp(w, "brs")) *flags |= VX_FRAME_BRS;
    else if (!strcasecmp(w, "fdf")) *flags |= VX_FRAME_FDF;
    else if (!strcasecmp(w, "esi")) *flags |= VX_FRAME_ESI;
    else return -1;
  }
  return 0;
}

int vxcli_txtask_build(const vxcli_txtask_options& o, bool lin, bool note_decimal, VXTxTask* out,
                       char* error, size_t size) {
  memset(out, 0, sizeof *out);
  if (!o.message) {
    snprintf(error, size, "--message is required");
    return -1;
  }
  long id = note_decimal ? vxcli_parse_message_id(o.message) : vxcli_parse_message_id_quiet(o.message, nullptr);
  if (id < 0 || id > 0x1FFFFFFF) {
    snprintf(error, size, "Invalid message ID: %s", o.message);
    return -1;
  }
  int type = vxcli_txtask_type_from_word(o.type);
  if (type < 0) {
    snprintf(error, size, "Unknown TX task type: %s (fixed/incdata/incid/random/randomdata/randomid)", o.type);
    return -1;
  }
  uint8_t data[64] = {0};
  int length = 8;
  if (o.data) {
    length = parse_payload(o.data, data, lin ? 8 : 64);
    if (length < 0) {
      snprintf(error, size, "Invalid --data: %s (at most %d hex bytes)", o.data, lin ? 8 : 64);
      return -1;
    }
  }

  if (lin) {
    // A LIN port answers headers for its identifier instead of sending on a cycle.
    if (id > 0x3F) {
      snprintf(error, size, "LIN frame ID must be in range 0x00..0x3F");
      return -1;
    }
    unsigned long cycle = 0;
    if (o.cycle && (!parse_number(o.cycle, 0, 0, &cycle))) {
      snprintf(error, size, "LIN slave responses require --cycle=0");
      return -1;
    }
    if (type != VX_TXTASK_FIXED) {
      snprintf(error, size, "LIN slave responses support only --type=fixed");
      return -1;
    }
    uint8_t checksum = 0;
    if (vxcli_parse_lin_checksum(o.checksum, static_cast<uint32_t>(id), &checksum) != 0) {
      snprintf(error, size, "Invalid --checksum: %s (auto/classic/enhanced)", o.checksum);
      return -1;
    }
    VXLinResponseTask response;
    vxcli_init_lin_response_task(&response, static_cast<uint8_t>(id), data, static_cast<uint32_t>(length),
                                 checksum, 0);
    memcpy(out, &response, sizeof *out);
    return 0;
  }

  if (o.checksum) {
    snprintf(error, size, "--checksum applies only to LIN slave responses");
    return -1;
  }
  unsigned long cycle = 0, rounds = 0, delay = 0, startbit = 0, nbits = 32, step = 1, min = 0, max = 0;
  if (!o.cycle) {
    snprintf(error, size, "--cycle is required");
    return -1;
  }
  struct Field {
    const char* text;
    const char* name;
    unsigned long low, high;
    unsigned long* value;
  } fields[] = {
      {o.cycle, "--cycle", 0, 0xFFFFFFFFul, &cycle},
      {o.rounds, "--rounds", 0, 0xFFFFFFFFul, &rounds},
      {o.delay, "--delay", 0, 65535, &delay},
      {o.inc_startbit, "--inc-startbit", 0, 511, &startbit},
      {o.inc_nbits, "--inc-nbits", 1, 32, &nbits},
      {o.inc_step, "--inc-step", 0, 0xFFFFFFFFul, &step},
      {o.inc_min, "--inc-min", 0, 0xFFFFFFFFul, &min},
      {o.inc_max, "--inc-max", 0, 0xFFFFFFFFul, &max},
  };
  for (const Field& f : fields) {
    if (f.text && !parse_number(f.text, f.low, f.high, f.value)) {
      snprintf(error, size, "Invalid %s: %s (expected %lu..%lu)", f.name, f.text, f.low, f.high);
      return -1;
    }
  }
  if (cycle == 0 && rounds != 1) {
    snprintf(error, size, "--cycle must be at least 1 ms unless --rounds=1");
    return -1;
  }
  uint32_t flags = 0;
  if (vxcli_txtask_parse_flag_words(o.flags, &flags) != 0) {
    snprintf(error, size, "Invalid --flags: %s (ide, rtr, brs, fdf, esi)", o.flags);
    return -1;
  }
  // An identifier beyond 11 bits only exists as an extended one.
  if (id > 0x7FF) flags |= VX_FRAME_IDE;
  if (length > 8) {
    if (vxcli_dlc_to_bytes(vxcli_bytes_to_dlc(length)) != length) {
      snprintf(error, size, "Invalid --data: %d bytes is not a CAN FD length", length);
      return -1;
    }
    flags |= VX_FRAME_FDF;
  }
  if ((flags & VX_FRAME_FDF) && (flags & VX_FRAME_RTR)) {
    snprintf(error, size, "CAN FD frames cannot be remote frames");
    return -1;
  }
  if ((flags & VX_FRAME_BRS) && !(flags & VX_FRAME_FDF)) {
    snprintf(error, size, "--flags=brs requires a CAN FD frame");
    return -1;
  }
  uint32_t field_max = nbits >= 32 ? 0xFFFFFFFFu : (1u << nbits) - 1;
  if ((type == VX_TXTASK_INCDATA || type == VX_TXTASK_RANDOMDATA)) {
    if (startbit + nbits > static_cast<unsigned long>(length) * 8) {
      snprintf(error, size, "generated field (bits %lu..%lu) does not fit the %d-byte payload", startbit,
               startbit + nbits - 1, length);
      return -1;
    }
  } else {
    field_max = (flags & VX_FRAME_IDE) ? 0x1FFFFFFF : 0x7FF;
  }
  if (!o.inc_max) max = field_max;
  if (min > max || max > field_max) {
    snprintf(error, size, "--inc-min/--inc-max must satisfy min <= max <= 0x%X", field_max);
    return -1;
  }
  out->type = static_cast<uint8_t>(type);
  out->kind = VX_TXTASK_KIND_CAN;
  out->flags = static_cast<uint8_t>(flags);
  out->length = static_cast<uint8_t>(length);
  out->id = vxcli_can_id_to_device(static_cast<uint32_t>(id), flags & VX_FRAME_IDE);
  out->delay = static_cast<uint16_t>(delay);
  out->cycle = static_cast<uint32_t>(cycle);
  out->rounds = static_cast<uint32_t>(rounds);
  out->inc_startbit = static_cast<uint16_t>(startbit);
  out->inc_nbits = static_cast<uint16_t>(nbits);
  out->inc_step = static_cast<uint32_t>(step);
  out->inc_min = static_cast<uint32_t>(min);
  out->inc_max = static_cast<uint32_t>(max);
  memcpy(out->data, data, sizeof out->data);
  return 0;
}

namespace {

// Index of a channel in the enumeration; a text that names no channel is read as
// a decimal index, as older scripts passed one.
int txtask_channel_index(const char* text, const VXChannelInfo* infos, int count,
                         const VXChannelInfo** entry) {
  *entry = nullptr;
  vxcli_channel_spec spec;
  if (vxcli_parse_channel_spec(text, &spec) == 0) {
    if (const VXChannelInfo* e = vxcli_resolve_channel(infos, count, &spec)) {
      *entry = e;
      return static_cast<int>(e - infos);
    }
  }
  return atoi(text);
}

// An open channel of a TX task command: CAN in normal mode, or LIN as slave so that
// the port may hold responses.
struct TaskChannel {
  VXHandle handle = nullptr;
  int index = 0;
  bool lin = false;
  ~TaskChannel() {
    if (handle) VX_Close(handle);
  }
};

int open_task_channel(const char* spec, TaskChannel* ch) {
  VXChannelInfo infos[32];
  int count = 0;
  uint32_t status = vxcli_enumerate(infos, &count);
  const VXChannelInfo* entry = nullptr;
  ch->index = status == VX_OK ? txtask_channel_index(spec, infos, count, &entry) : atoi(spec);
  if (!entry) {
    vxcli_print_error("Failed to open channel %d", ch->index);
    return -1;
  }
  ch->lin = (entry->capability & VX_CAP_LIN) && !(entry->capability & VX_CAP_CAN);
  return 0;
}

int connect_task_channel(const char* spec, TaskChannel* ch) {
  VXChannelInfo info;
  if (ch->lin)
    ch->handle = vxcli_open_lin_channel_ex(spec, nullptr, VXCLI_LIN_MODE_SLAVE, 65535, 0, 0x22,
                                           VXCLI_LIN_CHECKSUM_ENHANCED, &info);
  else
    ch->handle = vxcli_open_can_channel_ex(spec, nullptr, VX_CAN_MODE_NORMAL, 0, &info);
  if (!ch->handle) {
    vxcli_print_error("Failed to open channel %d", ch->index);
    return -1;
  }
  return 0;
}

}  // namespace

int vxcli_txtask_add(int count, char** words) {
  const char* channel = vxcli_get_option(count, words, "channel");
  if (!channel) {
    vxcli_print_error("--channel is required");
    return 1;
  }
  vxcli_txtask_options o;
  vxcli_txtask_read_options([&](const char* name) { return vxcli_get_option(count, words, name); }, &o);
  if (!o.message) {
    vxcli_print_error("--message is required");
    return 1;
  }
  TaskChannel ch;
  if (open_task_channel(channel, &ch) != 0) return 1;
  VXTxTask task;
  char error[256];
  if (vxcli_txtask_build(o, ch.lin, true, &task, error, sizeof error) != 0) {
    vxcli_print_error("%s", error);
    return 1;
  }
  if (connect_task_channel(channel, &ch) != 0) return 1;

  VXTxTask table[VXCLI_TXTASK_TABLE];
  memset(table, 0, sizeof table);
  int slot = 0, written = 1;
  VXStatus status = VX_GetTxTasks(ch.handle, table, VXCLI_TXTASK_TABLE);
  if (status & ~VX_ERR_INVALID_PARAM_VALUE) {
    // Devices that cannot report their table take the new task as their only one.
    memset(table, 0, sizeof table);
  } else {
    slot = vxcli_txtask_first_free(table, VXCLI_TXTASK_TABLE);
    if (slot < 0) {
      vxcli_print_error("Maximum number of TX tasks (%d) reached", VXCLI_TXTASK_TABLE);
      return 1;
    }
    written = VXCLI_TXTASK_TABLE;
  }
  if (ch.lin) task.user = static_cast<uint16_t>(slot);
  table[slot] = task;
  if (ch.lin) {
    // Preload the response so the very first header after this command is answered.
    vxcli_txtask_prime_response(ch.handle, table[slot]);
  }
  status = VX_SetTxTasks(ch.handle, table, static_cast<uint32_t>(written));
  if (status != VX_OK) {
    vxcli_print_error("VX_SetTxTasks failed: %s", vxcli_status_to_string(status));
    return 1;
  }
  VX_Activate(ch.handle);
  uint32_t shown_id = vxcli_txtask_shown_id(task);
  if (g_config.format == VXCLI_FORMAT_JSON || g_config.format == VXCLI_FORMAT_JSONL)
    printf("{\"status\":\"ok\",\"taskid\":%d,\"channel\":%d,\"type\":%d,\"cycle\":%d,\"id\":\"0x%X\"}\n", slot,
           ch.index, task.type, static_cast<int>(task.cycle), shown_id);
  else
    printf("TX task %d added on channel %d: type=%s cycle=%dms id=0x%X\n", slot, ch.index,
           vxcli_txtask_type_name(task.type), static_cast<int>(task.cycle), shown_id);
  return 0;
}

int vxcli_txtask_remove(int count, char** words) {
  const char* channel = vxcli_get_option(count, words, "channel");
  if (!channel) {
    vxcli_print_error("--channel is required");
    return 1;
  }
  const char* taskid_text = vxcli_get_option(count, words, "taskid");
  if (!taskid_text) {
    vxcli_print_error("--taskid is required");
    return 1;
  }
  long taskid = -1;
  char* end = nullptr;
  taskid = strtol(taskid_text, &end, 10);
  if (!*taskid_text || *end) taskid = -1;
  TaskChannel ch;
  if (open_task_channel(channel, &ch) != 0 || connect_task_channel(channel, &ch) != 0) return 1;
  VXTxTask table[VXCLI_TXTASK_TABLE];
  memset(table, 0, sizeof table);
  VXStatus status = VX_GetTxTasks(ch.handle, table, VXCLI_TXTASK_TABLE);
  if (status != VX_OK) {
    vxcli_print_error("VX_GetTxTasks failed: %s", vxcli_status_to_string(status));
    return 1;
  }
  if (taskid < 0 || taskid >= VXCLI_TXTASK_TABLE) {
    vxcli_print_error("Invalid task ID %ld (valid range: 0-%d)", taskid, VXCLI_TXTASK_TABLE - 1);
    return 1;
  }
  memset(&table[taskid], 0, sizeof table[taskid]);
  status = VX_SetTxTasks(ch.handle, table, VXCLI_TXTASK_TABLE);
  if (status != VX_OK) {
    vxcli_print_error("VX_SetTxTasks failed: %s", vxcli_status_to_string(status));
    return 1;
  }
  if (g_config.format == VXCLI_FORMAT_JSON || g_config.format == VXCLI_FORMAT_JSONL)
    printf("{\"status\":\"ok\",\"message\":\"task removed\"}\n");
  else
    printf("TX task %ld removed from channel %d\n", taskid, ch.index);
  return 0;
}

int vxcli_txtask_list(int count, char** words) {
  const char* channel = vxcli_get_option(count, words, "channel");
  if (!channel) {
    vxcli_print_error("--channel is required");
    return 1;
  }
  TaskChannel ch;
  if (open_task_channel(channel, &ch) != 0 || connect_task_channel(channel, &ch) != 0) return 1;
  VXTxTask table[VXCLI_TXTASK_TABLE];
  memset(table, 0, sizeof table);
  VXStatus status = VX_GetTxTasks(ch.handle, table, VXCLI_TXTASK_TABLE);
  if (status != VX_OK) {
    vxcli_print_error("VX_GetTxTasks failed: %s", vxcli_status_to_string(status));
    return 1;
  }
  bool json = g_config.format == VXCLI_FORMAT_JSON || g_config.format == VXCLI_FORMAT_JSONL;
  bool csv = g_config.format == VXCLI_FORMAT_CSV;
  int shown = 0;
  if (json) printf("{\"status\":\"ok\",\"channel\":%d,\"tasks\":[", ch.index);
  if (csv) printf("taskid,type,cycle,delay,nrounds,id,flags,length\n");
  for (int i = 0; i < VXCLI_TXTASK_TABLE; i++) {
    const VXTxTask& t = table[i];
    if (!vxcli_txtask_in_use(t)) continue;
    const char* type = vxcli_txtask_type_name(t.type);
    uint32_t id = vxcli_txtask_shown_id(t);
    int cycle = static_cast<int>(t.cycle), rounds = static_cast<int>(t.rounds);
    if (json) {
      printf("%s{\"taskid\":%d,\"type\":\"%s\",\"cycle\":%d,\"delay\":%d,\"nrounds\":%d,\"id\":\"0x%X\","
             "\"flags\":%d,\"length\":%d}",
             shown ? "," : "", i, type, cycle, t.delay, rounds, id, t.flags, t.length);
    } else if (csv) {
      printf("%d,%s,%d,%d,%d,0x%X,%d,%d\n", i, type, cycle, t.delay, rounds, id, t.flags, t.length);
    } else {
      printf("Task %d: type=%s cycle=%dms delay=%d rounds=%d id=0x%X flags=0x%02X len=%d\n", i, type, cycle,
             t.delay, rounds, id, t.flags, t.length);
      printf("  Payload: ");
      for (int k = 0; k < t.length && k < 64; k++) printf("%02X ", t.data[k]);
      printf("\n");
    }
    shown++;
  }
  if (json) printf("],\"count\":%d}\n", shown);
  else if (!csv && shown == 0) printf("No TX tasks on channel %d\n", ch.index);
  return 0;
}
