// State the daemon's command processor shares with its service files: the
// channel slot table, the arbiter, the request words and the answer buffer.
// Everything here is touched only under the daemon command lock, except where
// a comment says otherwise.
#pragma once

#include <cstddef>
#include <cstdint>

#include "daemon/arbiter.h"
#include "daemon/daemon.h"
#include "vxapi.h"

inline constexpr int VXCLI_DAEMON_MAX_TXTASKS = 64;
inline constexpr int VXCLI_DAEMON_MAX_ROUTES = 64;

struct Slot {
  VXHandle handle;
  VXNotifyHandle notify;
  VXChannelInfo info;
  bool lin;
  // Open configuration, kept to reopen the slot.
  uint32_t mode;
  VXBitrate bitrate;
  uint32_t termination;
  bool open;
  // LIN open configuration (pull-up in ohm, 12 V output, protocol version, checksum model).
  uint32_t lin_pullup;
  uint32_t lin_power;
  uint8_t lin_version;
  uint8_t lin_checksum;
  // What the device last accepted, restored after a reopen.
  VXTxTask txtasks[VXCLI_DAEMON_MAX_TXTASKS];
  int txtask_count;
  VXRoute routes[VXCLI_DAEMON_MAX_ROUTES];
  int route_count;
};

extern Slot g_daemon_slots[VXCLI_DAEMON_SLOTS];
extern vxcli_control_arbiter g_daemon_arbiter;

// Bounded appender over the response buffer; output past the end is dropped.
struct Out {
  char* data;
  size_t size;
  size_t length;
};
void daemon_put(Out* out, const char* format, ...) __attribute__((format(printf, 2, 3)));
void daemon_put_json_string(Out* out, const char* text);

// One request's words (command words first, then options) and its format.
struct Words {
  int argc;
  char** argv;
  bool json;
  const char* word(int i) const { return i < argc ? argv[i] : nullptr; }
  const char* option(const char* name) const;
  bool flag(const char* name) const;
};

bool daemon_is(const char* a, const char* b);
uint64_t daemon_now_ms();

// "SN<serial>/port<n>" of a slot.
void daemon_slot_identity(const Slot& s, char* out, size_t size);
bool daemon_same_physical(const VXChannelInfo& a, const VXChannelInfo& b);
int daemon_open_count();

// A slot number or a serial/port selector naming an open slot; -1 otherwise.
int daemon_resolve_ch(const char* text);
// Slots a command addresses: the one of --channel=, else every open slot.
// Returns the count, or -1 with the error answer in *error.
int daemon_selected_slots(const Words& w, int* slots, const char** error, Out* out);
// The slot of the required --channel= option; -1 with the error answer in *error.
int daemon_required_slot(const Words& w, const char** error, Out* out);

void daemon_close_channel(int slot);
// Reopens a slot from its stored configuration (device found again by serial
// and port); 0 or -1, logged. Restoring tasks and routes is the caller's.
int daemon_reopen_slot(int slot);

// Service families. Each answers the commands of its families into out and
// returns the answer, or returns null when the command is not one of them.
const char* daemon_answer_services(const Words& w, Out* out);  // txtask, route, can, lin, channel services
const char* daemon_answer_logging(const Words& w, Out* out);   // logging, replay
const char* daemon_answer_diag(const Words& w, Out* out);      // isotp, uds

// Stops host replay and logging and finishes the log file (waits up to 10 s
// each). Call before the slots close when the daemon stops, under the command
// lock or not; the threads never wait for the lock while stopping.
void vxcli_daemon_logging_shutdown();

// Automatic bus-off recovery after each synchronous request (on at start);
// switched by "channel auto-recover on|off".
extern bool g_daemon_auto_recover;
// One pass of bus-off recovery over the open CAN slots; restores a reopened
// slot's TX tasks and routes from its copies.
void vxcli_daemon_recovery_tick();

// Command guard. Operation classes of a command line: 0 read-only, 1 shared
// (sending, monitoring), 2 control (configuration, persistent jobs, close).
int daemon_local_operation(char** argv, int argc);
// The open slots a command names through --channel=, --src= and --dst= (lists
// allowed, duplicates dropped, unknown selectors skipped), else every open slot.
int daemon_collect_command_slots(char** argv, int argc, int* slots);
// Null when a local control command may proceed, else the refusal in message.
const char* daemon_guard_local_control(char** argv, int argc, char* message, size_t size);
// After a control command succeeded: commits the touched slots' configuration.
void daemon_commit_local_result(char** argv, int argc, const char* answer);
// "channel claim" / "channel release".
const char* daemon_answer_claim(const Words& w, Out* out);
// Current time as the arbiter expects it from the command path (low 32 bits of ms).
uint64_t daemon_arbiter_now();
// A slot whose device vanished: closed on the device side, kept for reopening.
bool daemon_slot_disconnected(int slot);
