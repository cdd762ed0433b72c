// LIN description files: the in-memory model, the reader and the helpers the
// ldf commands share. Nothing outside src/database/ldf* uses this header; the
// registry sees only vxcli_ldf_inspect_file (database/inspect.h).
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

struct LdfNode {
  std::string name;
  std::string role;  // "master" or "slave"
  double time_base_ms = 0;
  double jitter_ms = 0;
};

struct LdfSignal {
  std::string name;
  int size_bits = 0;
  std::string initial;    // number as written, or "{b0, b1, ...}"
  std::string publisher;  // empty for diagnostic signals declared without one
  std::vector<std::string> subscribers;
  bool diagnostic = false;
};

struct LdfPlacement {
  std::string signal;
  int64_t offset = 0;
};

struct LdfFrame {
  std::string name;
  std::string type;       // "unconditional", "diagnostic", "event-triggered", "sporadic"
  int64_t id = -1;        // negative when the frame has no identifier (sporadic)
  std::string publisher;  // empty when no single node publishes it
  int64_t size = 0;       // bytes
  std::vector<LdfPlacement> signals;
  std::vector<std::string> referenced;  // sporadic and event-triggered frames
  std::string collision_schedule;       // event-triggered frames, may be empty
};

struct LdfScheduleEntry {
  std::string command;  // frame name, or configuration command with its arguments
  std::string kind;     // "frame" or "configuration"
  double delay_ms = 0;
};

struct LdfSchedule {
  std::string name;
  std::vector<LdfScheduleEntry> entries;
};

struct LdfModel {
  std::string path;
  std::string protocol_version;
  std::string language_version;
  int32_t speed_bps = 0;
  std::string master;
  std::vector<LdfNode> nodes;
  std::vector<LdfSignal> signals;
  std::vector<LdfFrame> frames;
  std::vector<LdfSchedule> schedules;
};

// Reads and validates a file (at most 4 MiB). 0, or -1 with the first problem in error.
int parse_ldf(const char* path, LdfModel& model, std::string& error);
// The same over text already in memory; path is only recorded.
int parse_ldf_text(const std::string& text, const std::string& path, LdfModel& model,
                   std::string& error);

const LdfNode* find_node(const LdfModel& model, const std::string& name);
const LdfFrame* find_frame(const LdfModel& model, const std::string& name);
const LdfSignal* find_signal(const LdfModel& model, const std::string& name);
const LdfSchedule* find_schedule(const LdfModel& model, const std::string& name);

// "classic" or "enhanced".
const char* checksum_name(const LdfModel& model, const LdfFrame& frame);
// Payload built from the initial values of the frame's signals (8 bytes, unused bits 0).
void frame_initial_payload(const LdfModel& model, const LdfFrame& frame, uint8_t out[8]);
// "master-write" or "master-read" for frames the master can schedule directly
// (unconditional and diagnostic), else null.
const char* frame_operation(const LdfModel& model, const LdfFrame& frame);

// What a schedule entry's command names: a frame of the model, one of the
// diagnostic frames MasterReq/SlaveResp (implied when the file does not declare
// them), or nothing. The returned pointer lives as long as the model or is static.
const LdfFrame* schedule_entry_frame(const LdfModel& model, const LdfScheduleEntry& entry);
bool is_configuration_command(const std::string& word);

// printf-style formatting into a string (empty when formatting fails).
std::string ldf_format(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Daemon command lines that turn one schedule into the runtime system table:
// clear, one add per entry, activate. 0, or -1 with the reason in error (nothing
// must be sent then).
int ldf_schedule_commands(const LdfModel& model, const std::string& schedule,
                          const std::string& channel, std::vector<std::string>& commands,
                          std::string& error);

// Sends one daemon command line; 0 with the reply, or non-zero with the
// transport's reason in reply.
using LdfDaemonSend = std::function<int(const std::string& request, std::string& reply)>;

// Materialises a schedule through send. On success entries holds the entry
// count. A failure after the clear leaves the table cleared and inactive.
int ldf_schedule_activate(const LdfModel& model, const std::string& schedule,
                          const std::string& channel, const LdfDaemonSend& send,
                          unsigned* entries, std::string& error);
int ldf_schedule_deactivate(const std::string& channel, const LdfDaemonSend& send,
                            std::string& error);
