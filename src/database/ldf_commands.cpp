// The ldf inspection and schedule commands.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cli/output.h"
#include "daemon/client.h"
#include "database/ldf.h"
#include "database/ldf_model.h"
#include "database/registry.h"
#include "json/json.h"

namespace {

constexpr size_t kJsonLimit = 64u << 20;
constexpr size_t kDaemonReplySize = 4096;

bool csv_output() { return g_config.format == VXCLI_FORMAT_CSV; }

// Options of the ldf commands whose value may stand in the next word.
bool takes_value(const char* option) {
  static const char* const kOptions[] = {"database", "ldf", "channel", "schedule", "type"};
  for (const char* name : kOptions)
    if (strcmp(option, name) == 0) return true;
  return false;
}

// The first word that is neither an option nor an option's separate value.
const char* positional(int count, char** words) {
  for (int i = 0; i < count; i++) {
    const char* word = words[i];
    if (strncmp(word, "--", 2) == 0) {
      if (!strchr(word, '=') && takes_value(word + 2)) i++;
      continue;
    }
    return word;
  }
  return nullptr;
}

const char* object_name(int count, char** words) {
  const char* name = positional(count, words);
  return name && *name ? name : nullptr;
}

struct Selected {
  LdfModel model;
  std::string database;  // resource name (an unregistered file's default name)
};

bool load_selected(int count, char** words, Selected& out) {
  const char* selector = vxcli_get_option(count, words, "database");
  if (!selector || !*selector) selector = vxcli_get_option(count, words, "ldf");
  char path[4096];
  char name[128];
  char message[256];
  if (vxcli_database_resolve(selector, "ldf", path, sizeof path, name, sizeof name, message,
                             sizeof message) != 0) {
    vxcli_print_error("%s", message);
    return false;
  }
  std::string error;
  if (parse_ldf(path, out.model, error) != 0) {
    vxcli_print_error("%s", error.c_str());
    return false;
  }
  out.database = name[0] ? name : path;
  return true;
}

// Separators inside a field (array initial values) would shift the columns.
std::string csv_field(const std::string& text) {
  if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
  std::string out = "\"";
  for (char c : text) {
    if (c == '"') out += '"';
    out += c;
  }
  return out + "\"";
}

std::string id_text(const LdfFrame& frame) {
  return frame.id >= 0 ? ldf_format("0x%02X", (unsigned)frame.id) : "n/a";
}

std::string or_dash(const std::string& text) { return text.empty() ? "-" : text; }

std::string initial_data_text(const LdfModel& model, const LdfFrame& frame) {
  uint8_t payload[8];
  frame_initial_payload(model, frame, payload);
  std::string out;
  for (int64_t i = 0; i < frame.size && i < 8; i++) {
    if (i) out += ' ';
    out += ldf_format("%02X", payload[i]);
  }
  return out;
}

class JsonOut {
 public:
  JsonOut() { vxcli_json_writer_init(&w_, 4096, kJsonLimit); }
  ~JsonOut() { vxcli_json_writer_free(&w_); }
  JsonOut(const JsonOut&) = delete;
  JsonOut& operator=(const JsonOut&) = delete;

  vxcli_json_writer* w() { return &w_; }
  void raw(const char* text) { vxcli_json_writer_raw(&w_, text); }
  void str(const std::string& text) { vxcli_json_writer_string(&w_, text.c_str()); }
  void str_or_null(const std::string& text) {
    if (text.empty()) raw("null");
    else str(text);
  }
  void key(const char* name) {
    vxcli_json_writer_string(&w_, name);
    raw(":");
  }
  int print() {
    raw("\n");
    if (!vxcli_json_writer_ok(&w_)) {
      vxcli_print_error_code("response_too_large", "LDF output exceeded the JSON size limit");
      return 1;
    }
    fwrite(vxcli_json_writer_data(&w_), 1, vxcli_json_writer_length(&w_), stdout);
    return 0;
  }

 private:
  vxcli_json_writer w_{};
};

void json_node(JsonOut& j, const LdfNode& node) {
  j.raw("{\"name\":");
  j.str(node.name);
  j.raw(",\"role\":");
  j.str(node.role);
  if (node.role == "master")
    vxcli_json_writer_printf(j.w(), ",\"time_base_ms\":%.17g,\"jitter_ms\":%.17g",
                             node.time_base_ms, node.jitter_ms);
  j.raw("}");
}

void json_signal(JsonOut& j, const LdfSignal& signal) {
  j.raw("{\"name\":");
  j.str(signal.name);
  vxcli_json_writer_printf(j.w(), ",\"size_bits\":%d,\"initial\":", signal.size_bits);
  j.str(signal.initial);
  j.raw(",\"publisher\":");
  j.str_or_null(signal.publisher);
  j.raw(signal.diagnostic ? ",\"diagnostic\":true" : ",\"diagnostic\":false");
  j.raw(",\"subscribers\":[");
  for (size_t i = 0; i < signal.subscribers.size(); i++) {
    if (i) j.raw(",");
    j.str(signal.subscribers[i]);
  }
  j.raw("]}");
}

void json_frame(JsonOut& j, const LdfModel& model, const LdfFrame& frame) {
  j.raw("{\"name\":");
  j.str(frame.name);
  j.raw(",\"type\":");
  j.str(frame.type);
  j.raw(",\"id\":");
  j.str_or_null(frame.id >= 0 ? id_text(frame) : "");
  j.raw(",\"publisher\":");
  j.str_or_null(frame.publisher);
  vxcli_json_writer_printf(j.w(), ",\"dlc\":%d,\"checksum\":", (int)frame.size);
  j.str(checksum_name(model, frame));
  j.raw(",\"operation\":");
  const char* operation = frame_operation(model, frame);
  j.str_or_null(operation ? operation : "");
  if (frame.type == "event-triggered") {
    j.raw(",\"collision_schedule\":");
    j.str_or_null(frame.collision_schedule);
  }
  j.raw(",\"initial_data\":");
  j.str(initial_data_text(model, frame));
  j.raw(",\"signals\":[");
  for (size_t i = 0; i < frame.signals.size(); i++) {
    if (i) j.raw(",");
    j.raw("{\"name\":");
    j.str(frame.signals[i].signal);
    vxcli_json_writer_printf(j.w(), ",\"start_bit\":%lld}", (long long)frame.signals[i].offset);
  }
  j.raw("],\"referenced_frames\":[");
  for (size_t i = 0; i < frame.referenced.size(); i++) {
    if (i) j.raw(",");
    j.str(frame.referenced[i]);
  }
  j.raw("]}");
}

void json_schedule(JsonOut& j, const LdfModel& model, const LdfSchedule& schedule) {
  j.raw("{\"name\":");
  j.str(schedule.name);
  vxcli_json_writer_printf(j.w(), ",\"entry_count\":%u,\"entries\":[",
                           (unsigned)schedule.entries.size());
  for (size_t i = 0; i < schedule.entries.size(); i++) {
    const LdfScheduleEntry& entry = schedule.entries[i];
    if (i) j.raw(",");
    vxcli_json_writer_printf(j.w(), "{\"index\":%u,\"command\":", (unsigned)i);
    j.str(entry.command);
    j.raw(",\"kind\":");
    j.str(entry.kind);
    vxcli_json_writer_printf(j.w(), ",\"delay_ms\":%.17g", entry.delay_ms);
    if (entry.kind == "frame") {
      const LdfFrame* frame = schedule_entry_frame(model, entry);
      j.raw(",\"frame_type\":");
      j.str_or_null(frame ? frame->type : "");
      j.raw(",\"id\":");
      j.str_or_null(frame && frame->id >= 0 ? id_text(*frame) : "");
      j.raw(",\"operation\":");
      const char* operation = frame ? frame_operation(model, *frame) : nullptr;
      j.str_or_null(operation ? operation : "");
    }
    j.raw("}");
  }
  j.raw("]}");
}

bool valid_frame_type(const char* type) {
  static const char* const kTypes[] = {"unconditional", "diagnostic", "event-triggered",
                                       "sporadic"};
  for (const char* name : kTypes)
    if (strcmp(type, name) == 0) return true;
  return false;
}

int send_to_daemon(const std::string& request, std::string& reply) {
  char buffer[kDaemonReplySize];
  int rc = vxcli_daemon_send_command(request.c_str(), request.size(), buffer, sizeof buffer);
  if (rc == -1) {
    reply = "daemon is not running";
    return rc;
  }
  if (rc != 0) {
    reply = vxcli_daemon_last_ipc_error();
    return rc;
  }
  reply = buffer;
  return 0;
}

}  // namespace

int vxcli_ldf_info_command(int count, char** words) {
  Selected s;
  if (!load_selected(count, words, s)) return 1;
  const LdfModel& m = s.model;
  if (vxcli_json_mode()) {
    JsonOut j;
    j.raw("{\"status\":\"ok\",\"database\":");
    j.str(s.database);
    j.raw(",\"path\":");
    j.str(m.path);
    j.raw(",\"protocol_version\":");
    j.str(m.protocol_version);
    j.raw(",\"language_version\":");
    j.str(m.language_version);
    vxcli_json_writer_printf(j.w(), ",\"speed_bps\":%d,\"master\":", m.speed_bps);
    j.str(m.master);
    vxcli_json_writer_printf(
        j.w(), ",\"counts\":{\"nodes\":%u,\"signals\":%u,\"frames\":%u,\"schedules\":%u}}",
        (unsigned)m.nodes.size(), (unsigned)m.signals.size(), (unsigned)m.frames.size(),
        (unsigned)m.schedules.size());
    return j.print();
  }
  printf("LDF %s: LIN %s, %d bps, master=%s, nodes=%u, signals=%u, frames=%u, schedules=%u\n",
         s.database.c_str(), m.protocol_version.c_str(), m.speed_bps, m.master.c_str(),
         (unsigned)m.nodes.size(), (unsigned)m.signals.size(), (unsigned)m.frames.size(),
         (unsigned)m.schedules.size());
  return 0;
}

int vxcli_ldf_node_list_command(int count, char** words) {
  Selected s;
  if (!load_selected(count, words, s)) return 1;
  const LdfModel& m = s.model;
  if (vxcli_json_mode()) {
    JsonOut j;
    j.raw("{\"status\":\"ok\",\"nodes\":[");
    for (size_t i = 0; i < m.nodes.size(); i++) {
      if (i) j.raw(",");
      json_node(j, m.nodes[i]);
    }
    vxcli_json_writer_printf(j.w(), "],\"count\":%u}", (unsigned)m.nodes.size());
    return j.print();
  }
  if (csv_output()) {
    printf("name,role,time_base_ms,jitter_ms\n");
    for (const LdfNode& node : m.nodes)
      printf("%s,%s,%.17g,%.17g\n", node.name.c_str(), node.role.c_str(), node.time_base_ms,
             node.jitter_ms);
    return 0;
  }
  for (const LdfNode& node : m.nodes)
    printf("%-24s %s%s\n", node.name.c_str(), node.role.c_str(),
           node.role == "master" ? " (cluster master)" : "");
  return 0;
}

int vxcli_ldf_node_show_command(int count, char** words) {
  const char* name = object_name(count, words);
  if (!name) {
    vxcli_print_error("node name is required");
    return 1;
  }
  Selected s;
  if (!load_selected(count, words, s)) return 1;
  const LdfNode* node = find_node(s.model, name);
  if (!node) {
    vxcli_print_error("LDF node not found: %s", name);
    return 1;
  }
  if (vxcli_json_mode()) {
    JsonOut j;
    j.raw("{\"status\":\"ok\",\"node\":");
    json_node(j, *node);
    j.raw("}");
    return j.print();
  }
  printf("%s role=%s time-base=%.17g ms jitter=%.17g ms\n", node->name.c_str(),
         node->role.c_str(), node->time_base_ms, node->jitter_ms);
  return 0;
}

int vxcli_ldf_frame_list_command(int count, char** words) {
  const char* type = vxcli_get_option(count, words, "type");
  if (type && !valid_frame_type(type)) {
    vxcli_print_error("invalid LDF frame type: %s", type);
    return 1;
  }
  Selected s;
  if (!load_selected(count, words, s)) return 1;
  const LdfModel& m = s.model;
  std::vector<const LdfFrame*> frames;
  for (const LdfFrame& frame : m.frames)
    if (!type || frame.type == type) frames.push_back(&frame);
  if (vxcli_json_mode()) {
    JsonOut j;
    j.raw("{\"status\":\"ok\",\"frames\":[");
    for (size_t i = 0; i < frames.size(); i++) {
      if (i) j.raw(",");
      json_frame(j, m, *frames[i]);
    }
    vxcli_json_writer_printf(j.w(), "],\"count\":%d}", (int)frames.size());
    return j.print();
  }
  if (csv_output()) {
    printf("name,type,id,publisher,dlc,checksum,operation\n");
    for (const LdfFrame* frame : frames) {
      const char* operation = frame_operation(m, *frame);
      printf("%s,%s,%s,%s,%d,%s,%s\n", frame->name.c_str(), frame->type.c_str(),
             id_text(*frame).c_str(), frame->publisher.c_str(), (int)frame->size,
             checksum_name(m, *frame), operation ? operation : "");
    }
    return 0;
  }
  for (const LdfFrame* frame : frames)
    printf("%-24s %-16s %s publisher=%s dlc=%d\n", frame->name.c_str(), frame->type.c_str(),
           id_text(*frame).c_str(), or_dash(frame->publisher).c_str(), (int)frame->size);
  return 0;
}

int vxcli_ldf_frame_show_command(int count, char** words) {
  const char* name = object_name(count, words);
  if (!name) {
    vxcli_print_error("frame name is required");
    return 1;
  }
  Selected s;
  if (!load_selected(count, words, s)) return 1;
  const LdfFrame* frame = find_frame(s.model, name);
  if (!frame) {
    vxcli_print_error("LDF frame not found: %s", name);
    return 1;
  }
  if (vxcli_json_mode()) {
    JsonOut j;
    j.raw("{\"status\":\"ok\",\"frame\":");
    json_frame(j, s.model, *frame);
    j.raw("}");
    return j.print();
  }
  printf("%s type=%s id=%s publisher=%s dlc=%d signals=%u\n", frame->name.c_str(),
         frame->type.c_str(), id_text(*frame).c_str(), or_dash(frame->publisher).c_str(),
         (int)frame->size, (unsigned)frame->signals.size());
  return 0;
}

int vxcli_ldf_signal_list_command(int count, char** words) {
  Selected s;
  if (!load_selected(count, words, s)) return 1;
  const LdfModel& m = s.model;
  if (vxcli_json_mode()) {
    JsonOut j;
    j.raw("{\"status\":\"ok\",\"signals\":[");
    for (size_t i = 0; i < m.signals.size(); i++) {
      if (i) j.raw(",");
      json_signal(j, m.signals[i]);
    }
    vxcli_json_writer_printf(j.w(), "],\"count\":%u}", (unsigned)m.signals.size());
    return j.print();
  }
  if (csv_output()) {
    printf("name,size_bits,initial,publisher,diagnostic\n");
    for (const LdfSignal& signal : m.signals)
      printf("%s,%d,%s,%s,%s\n", signal.name.c_str(), signal.size_bits,
             csv_field(signal.initial).c_str(), signal.publisher.c_str(),
             signal.diagnostic ? "true" : "false");
    return 0;
  }
  for (const LdfSignal& signal : m.signals)
    printf("%-24s %d bits initial=%s publisher=%s\n", signal.name.c_str(), signal.size_bits,
           signal.initial.c_str(), or_dash(signal.publisher).c_str());
  return 0;
}

int vxcli_ldf_signal_show_command(int count, char** words) {
  const char* name = object_name(count, words);
  if (!name) {
    vxcli_print_error("signal name is required");
    return 1;
  }
  Selected s;
  if (!load_selected(count, words, s)) return 1;
  const LdfSignal* signal = find_signal(s.model, name);
  if (!signal) {
    vxcli_print_error("LDF signal not found: %s", name);
    return 1;
  }
  if (vxcli_json_mode()) {
    JsonOut j;
    j.raw("{\"status\":\"ok\",\"signal\":");
    json_signal(j, *signal);
    j.raw("}");
    return j.print();
  }
  printf("%s size=%d initial=%s publisher=%s subscribers=%u\n", signal->name.c_str(),
         signal->size_bits, signal->initial.c_str(), or_dash(signal->publisher).c_str(),
         (unsigned)signal->subscribers.size());
  return 0;
}

int vxcli_ldf_schedule_list_command(int count, char** words) {
  Selected s;
  if (!load_selected(count, words, s)) return 1;
  const LdfModel& m = s.model;
  if (vxcli_json_mode()) {
    JsonOut j;
    j.raw("{\"status\":\"ok\",\"schedules\":[");
    for (size_t i = 0; i < m.schedules.size(); i++) {
      if (i) j.raw(",");
      json_schedule(j, m, m.schedules[i]);
    }
    vxcli_json_writer_printf(j.w(), "],\"count\":%u}", (unsigned)m.schedules.size());
    return j.print();
  }
  if (csv_output()) {
    printf("name,entry_count\n");
    for (const LdfSchedule& schedule : m.schedules)
      printf("%s,%u\n", schedule.name.c_str(), (unsigned)schedule.entries.size());
    return 0;
  }
  for (const LdfSchedule& schedule : m.schedules)
    printf("%-24s entries=%u\n", schedule.name.c_str(), (unsigned)schedule.entries.size());
  return 0;
}

int vxcli_ldf_schedule_show_command(int count, char** words) {
  const char* name = object_name(count, words);
  if (!name) {
    vxcli_print_error("schedule name is required");
    return 1;
  }
  Selected s;
  if (!load_selected(count, words, s)) return 1;
  const LdfSchedule* schedule = find_schedule(s.model, name);
  if (!schedule) {
    vxcli_print_error("LDF schedule not found: %s", name);
    return 1;
  }
  if (vxcli_json_mode()) {
    JsonOut j;
    j.raw("{\"status\":\"ok\",\"schedule\":");
    json_schedule(j, s.model, *schedule);
    j.raw("}");
    return j.print();
  }
  printf("%s entries=%u\n", schedule->name.c_str(), (unsigned)schedule->entries.size());
  for (size_t i = 0; i < schedule->entries.size(); i++)
    printf("  %u: %s delay=%.17g ms\n", (unsigned)i, schedule->entries[i].command.c_str(),
           schedule->entries[i].delay_ms);
  return 0;
}

int vxcli_ldf_schedule_activate_command(int count, char** words) {
  const char* name = positional(count, words);
  if (!name || !*name) name = vxcli_get_option(count, words, "schedule");
  const char* channel = vxcli_get_option(count, words, "channel");
  if (!name || !*name || !channel || !*channel) {
    vxcli_print_error("schedule name and --channel are required");
    return 1;
  }
  Selected s;
  if (!load_selected(count, words, s)) return 1;
  unsigned entries = 0;
  std::string error;
  if (ldf_schedule_activate(s.model, name, channel, send_to_daemon, &entries, error) != 0) {
    vxcli_print_error("%s", error.c_str());
    return 1;
  }
  if (vxcli_json_mode()) {
    JsonOut j;
    j.raw("{\"status\":\"ok\",\"database\":");
    j.str(s.database);
    j.raw(",\"source_schedule\":");
    j.str(name);
    j.raw(",\"runtime_schedule\":\"system\",\"channel\":");
    j.str(channel);
    vxcli_json_writer_printf(j.w(), ",\"entries\":%u,\"active\":true}", entries);
    return j.print();
  }
  printf("Activated LDF schedule %s as runtime system table on %s (%u entries)\n", name, channel,
         entries);
  return 0;
}

int vxcli_ldf_schedule_deactivate_command(int count, char** words) {
  const char* channel = vxcli_get_option(count, words, "channel");
  std::string error;
  if (ldf_schedule_deactivate(channel ? channel : "", send_to_daemon, error) != 0) {
    vxcli_print_error("%s", error.c_str());
    return 1;
  }
  if (vxcli_json_mode()) {
    JsonOut j;
    j.raw("{\"status\":\"ok\",\"runtime_schedule\":\"system\",\"channel\":");
    j.str(channel);
    j.raw(",\"active\":false}");
    return j.print();
  }
  printf("Deactivated runtime system schedule on %s\n", channel);
  return 0;
}
