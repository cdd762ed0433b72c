// Turning an LDF schedule table into the daemon's runtime "system" LIN schedule.
#include <cmath>
#include <cstdio>
#include <cstring>

#include "database/ldf_model.h"
#include "json/json.h"

namespace {

constexpr size_t kMaxScheduleEntries = 64;

// The daemon takes whole milliseconds; a fractional delay must not shorten the slot.
int delay_ms_rounded_up(double delay) {
  double whole = std::floor(delay);
  if (delay - whole < 1e-9) return (int)whole;
  return (int)whole + 1;
}

bool reply_failed(int rc, const std::string& reply) {
  return rc != 0 || reply.rfind("ERROR:", 0) == 0 ||
         reply.find("\"status\":\"error\"") != std::string::npos;
}

// The daemon's reason: the message of a JSON error, or the text without the
// "ERROR:" prefix and the line end.
std::string reply_reason(const std::string& reply) {
  if (!reply.empty() && reply[0] == '{') {
    vxcli_json_token tokens[64];
    if (vxcli_json_parse(reply.c_str(), tokens, 64) > 0) {
      int message = vxcli_json_object_get(reply.c_str(), tokens, 0, "message");
      std::string out(reply.size() + 1, '\0');
      if (message > 0 &&
          vxcli_json_string(reply.c_str(), &tokens[message], &out[0], out.size()) == 0 &&
          out[0] != 0) {
        out.resize(strlen(out.c_str()));
        return out;
      }
    }
  }
  std::string text = reply;
  if (text.rfind("ERROR:", 0) == 0) {
    size_t start = 6;
    while (start < text.size() && (text[start] == ' ' || text[start] == '\t')) start++;
    text = text.substr(start);
  }
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  if (text.empty()) text = "daemon command failed";
  return text;
}

bool valid_channel_text(const std::string& channel) {
  if (channel.empty()) return false;
  for (char c : channel)
    if (c == ' ' || c == '\t' || c == '\n' || c == '\r') return false;
  return true;
}

}  // namespace

int ldf_schedule_commands(const LdfModel& model, const std::string& name,
                          const std::string& channel, std::vector<std::string>& commands,
                          std::string& error) {
  commands.clear();
  if (name.empty() || channel.empty()) {
    error = "schedule name and --channel are required";
    return -1;
  }
  // The daemon reads one whitespace-separated command line.
  if (!valid_channel_text(channel)) {
    error = ldf_format("invalid channel specification '%s'", channel.c_str());
    return -1;
  }
  const LdfSchedule* schedule = find_schedule(model, name);
  if (!schedule) {
    error = ldf_format("LDF schedule not found: %s", name.c_str());
    return -1;
  }
  if (schedule->entries.empty() || schedule->entries.size() > kMaxScheduleEntries) {
    error = "LDF schedule must contain 1..64 entries";
    return -1;
  }
  std::vector<const LdfFrame*> frames;
  long cycle_ms = 0;
  for (size_t i = 0; i < schedule->entries.size(); i++) {
    const LdfScheduleEntry& entry = schedule->entries[i];
    const LdfFrame* frame = schedule_entry_frame(model, entry);
    if (!frame || !frame_operation(model, *frame) || frame->id < 0 || frame->id > 0x3F) {
      error = ldf_format(
          "schedule entry %u (%s) is not directly executable; only unconditional and diagnostic "
          "frames can be materialized",
          (unsigned)i, entry.command.c_str());
      return -1;
    }
    frames.push_back(frame);
    cycle_ms += delay_ms_rounded_up(entry.delay_ms);
  }
  // The daemon runs one round within a 16-bit millisecond cycle; refuse here
  // rather than after half the table was sent.
  if (cycle_ms > 65535) {
    error = ldf_format("LDF schedule cycle of %ld ms exceeds 65535 ms", cycle_ms);
    return -1;
  }

  commands.push_back("lin schedule clear --channel=" + channel);
  for (size_t i = 0; i < frames.size(); i++) {
    const LdfFrame& frame = *frames[i];
    const char* operation = frame_operation(model, frame);
    std::string line = ldf_format("lin schedule add --channel=%s --id=0x%02X --type=%s --delay=%d --checksum=%s",
                              channel.c_str(), (unsigned)frame.id, operation,
                              delay_ms_rounded_up(schedule->entries[i].delay_ms),
                              checksum_name(model, frame));
    if (strcmp(operation, "master-write") == 0) {
      uint8_t payload[8];
      frame_initial_payload(model, frame, payload);
      line += " --data=";
      for (int64_t b = 0; b < frame.size && b < 8; b++) line += ldf_format("%02X", payload[b]);
    } else {
      line += ldf_format(" --dlc=%d", (int)frame.size);
    }
    commands.push_back(line);
  }
  commands.push_back("lin schedule activate --channel=" + channel);
  return 0;
}

int ldf_schedule_activate(const LdfModel& model, const std::string& name,
                          const std::string& channel, const LdfDaemonSend& send,
                          unsigned* entries, std::string& error) {
  std::vector<std::string> commands;
  if (ldf_schedule_commands(model, name, channel, commands, error) != 0) return -1;
  const LdfSchedule* schedule = find_schedule(model, name);

  std::string reply;
  int rc = send(commands.front(), reply);
  if (reply_failed(rc, reply)) {
    error = "cannot clear runtime LIN schedule: " + reply_reason(reply);
    return -1;
  }
  for (size_t i = 1; i + 1 < commands.size(); i++) {
    rc = send(commands[i], reply);
    if (reply_failed(rc, reply)) {
      unsigned index = (unsigned)(i - 1);
      error = ldf_format("failed to materialize schedule entry %u (%s): %s", index,
                     schedule->entries[index].command.c_str(), reply_reason(reply).c_str());
      // Leave no partial table behind; the original failure is what gets reported.
      std::string ignored;
      send(commands.front(), ignored);
      return -1;
    }
  }
  rc = send(commands.back(), reply);
  if (reply_failed(rc, reply)) {
    error = "cannot activate runtime LIN schedule: " + reply_reason(reply);
    return -1;
  }
  if (entries) *entries = (unsigned)(commands.size() - 2);
  return 0;
}

int ldf_schedule_deactivate(const std::string& channel, const LdfDaemonSend& send,
                            std::string& error) {
  if (channel.empty()) {
    error = "--channel is required";
    return -1;
  }
  if (!valid_channel_text(channel)) {
    error = ldf_format("invalid channel specification '%s'", channel.c_str());
    return -1;
  }
  std::string reply;
  int rc = send("lin schedule deactivate --channel=" + channel, reply);
  if (reply_failed(rc, reply)) {
    error = "cannot deactivate runtime LIN schedule: " + reply_reason(reply);
    return -1;
  }
  return 0;
}
