// The daemon's host logging and replay. Logging reads a "logging" broker
// cursor on each recorded slot and writes one ASC or BLF file on its own
// thread; replay sends a trace on open slots (CAN and LIN) on another. One
// session of each at a time. Both threads take the command lock for every
// look at the slot table and never wait for it while a stop is pending, so a
// stop answered under the lock can wait for them.
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "channel/channel.h"
#include "cli/output.h"
#include "daemon/daemon_state.h"
#include "daemon/rx_broker.h"
#include "logging/log_device.h"
#include "logging/log_output.h"
#include "logging/replay.h"

namespace {

const int kStopWaitMs = 10000;
// A quiet spell after which the open BLF container goes to disk.
const uint64_t kIdleCheckpointMs = 500;
const size_t kRoundLimit = 8192;
const uint64_t kRefreshMs = 100;

uint64_t wall_ns() {
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return (uint64_t)ts.tv_sec * 1000000000ULL + (uint64_t)ts.tv_nsec;
}

// Session threads end by setting done under this pair; a stop waits on it.
struct Completion {
  std::mutex mutex;
  std::condition_variable cv;
  bool done = false;
  void finish() {
    std::lock_guard<std::mutex> guard(mutex);
    done = true;
    cv.notify_all();
  }
  bool wait(int ms) {
    std::unique_lock<std::mutex> lock(mutex);
    return cv.wait_for(lock, std::chrono::milliseconds(ms), [this] { return done; });
  }
  bool finished() {
    std::lock_guard<std::mutex> guard(mutex);
    return done;
  }
};

// The --channel list of a request as open slots, in order, duplicates
// dropped. Returns the count, or -1 with the answer in *error.
int resolve_slot_list(const char* text, int* slots, int max, const char** error, Out* out) {
  char copy[1024];
  snprintf(copy, sizeof copy, "%s", text);
  int count = 0;
  char* save = nullptr;
  for (char* piece = strtok_r(copy, ",", &save); piece; piece = strtok_r(nullptr, ",", &save)) {
    while (*piece == ' ') piece++;
    if (!*piece) continue;
    int slot = daemon_resolve_ch(piece);
    if (slot < 0) {
      daemon_put(out, "ERROR: channel %s is not open in the daemon; open it with channel open first\n",
                 piece);
      *error = out->data;
      return -1;
    }
    bool seen = false;
    for (int i = 0; i < count; i++) seen = seen || slots[i] == slot;
    if (seen) continue;
    if (count == max) {
      daemon_put(out, "ERROR: at most %d channels per session\n", max);
      *error = out->data;
      return -1;
    }
    slots[count++] = slot;
  }
  if (count == 0) {
    *error = "ERROR: --channel is required\n";
    return -1;
  }
  return count;
}

// The file format among the request's --format values: the client appends
// its answer format (json, text, ...) as --format too.
const char* file_format(const Words& w, bool* bad) {
  *bad = false;
  const char* chosen = nullptr;
  for (int i = 0; i < w.argc; i++) {
    const char* value = nullptr;
    if (strncmp(w.argv[i], "--format=", 9) == 0) value = w.argv[i] + 9;
    else if (strcmp(w.argv[i], "--format") == 0 && i + 1 < w.argc) value = w.argv[++i];
    if (!value) continue;
    if (!strcmp(value, "json") || !strcmp(value, "jsonl") || !strcmp(value, "text") ||
        !strcmp(value, "csv"))
      continue;
    if (strcmp(value, "asc") != 0 && strcmp(value, "blf") != 0) *bad = true;
    if (!chosen) chosen = value;
  }
  return chosen ? chosen : "asc";
}

// ---------------------------------------------------------------- logging

struct LogChannel {
  int slot;
  int logical;
  VXChannelInfo info;  // to recognise the slot's device after a reopen
  char identity[64];
  char serial[40];
  VXHandle handle;     // copy refreshed under the command lock (for PTP times)
  vxcli_rx_cursor cursor;
  std::atomic<bool> reading{false};  // cursor open
  uint64_t lost_seen;
  std::atomic<uint64_t> received{0};
};

struct LogSession {
  std::thread thread;
  std::atomic<int> running{1};
  Completion completion;
  char path[1024];
  bool blf;
  int count;
  LogChannel channels[VXCLI_DAEMON_SLOTS];
  vxcli_log_output* output;
  uint64_t start_ns;
  uint64_t start_ms;
  double duration;  // seconds, 0 = until stopped
  std::atomic<uint64_t> written{0};
  std::atomic<uint64_t> lost{0};
  // Set by the thread before it finishes.
  bool write_failed;
  char end_reason[64];
};

LogSession* g_log = nullptr;

// Under the command lock: handle copies, and cursors again on slots that came
// back (recovery, restart) as the same device.
void refresh_channels(LogSession* s) {
  for (int i = 0; i < s->count; i++) {
    LogChannel& c = s->channels[i];
    const Slot& slot = g_daemon_slots[c.slot];
    bool same = slot.open && daemon_same_physical(slot.info, c.info);
    c.handle = same ? slot.handle : nullptr;
    if (c.reading || !same || !vxcli_rx_broker_is_attached(c.slot)) continue;
    if (vxcli_rx_broker_cursor_open_named(c.slot, 1, "logging", nullptr, &c.cursor) == 0) {
      c.reading = true;
      c.lost_seen = 0;
      printf("Daemon: logging resumed on slot %d (%s)\n", c.slot, c.identity);
    }
  }
}

// Hands a round of records to the output, which writes the due ones; false
// once writing failed (logged).
bool write_round(LogSession* s, std::vector<vxcli_log_record>* round, bool all = false) {
  if (s->write_failed) return false;
  long n = vxcli_log_output_write(s->output, round->data(), round->size());
  round->clear();
  long rest = n >= 0 && all ? vxcli_log_output_write_all(s->output) : 0;
  if (n < 0 || rest < 0 || vxcli_log_output_flush(s->output) != 0) {
    s->write_failed = true;
    snprintf(s->end_reason, sizeof s->end_reason, "write failed");
    printf("Daemon: logging to %s failed: cannot write the file\n", s->path);
    return false;
  }
  s->written += (uint64_t)(n + rest);
  return true;
}

// Reads what the session's cursors hold into round (waiting up to wait_ms for
// the first record); returns the number of channels still being read.
int read_cursors(LogSession* s, std::vector<vxcli_log_record>* round, std::vector<vxcli_rx_record>* batch,
                 int wait_ms) {
  int reading = 0;
  for (int i = 0; i < s->count && round->size() < kRoundLimit; i++) {
    LogChannel& c = s->channels[i];
    if (!c.reading) continue;
    reading++;
    for (;;) {
      size_t n = 0;
      size_t room = kRoundLimit - round->size();
      int rc = vxcli_rx_broker_read_batch(&c.cursor, batch->data(), room < batch->size() ? room : batch->size(),
                                          &n, wait_ms);
      wait_ms = 0;
      for (size_t k = 0; k < n; k++) {
        const VXMessage& m = (*batch)[k].message;
        round->push_back({vxcli_message_time_ns(c.handle, &m), c.logical, m});
      }
      c.received += n;
      if (c.cursor.lost != c.lost_seen) {
        s->lost += c.cursor.lost - c.lost_seen;
        c.lost_seen = c.cursor.lost;
      }
      if (rc == VXCLI_RX_READ_DETACHED || rc == VXCLI_RX_READ_ERROR) {
        vxcli_rx_broker_cursor_close(&c.cursor);
        c.reading = false;
        reading--;
        printf("Daemon: logging paused on slot %d (%s): channel closed\n", c.slot, c.identity);
        // The daemon may be on its way down: have everything so far on disk.
        if (write_round(s, round, true)) vxcli_log_output_checkpoint(s->output);
        break;
      }
      if (rc == VXCLI_RX_READ_OVERRUN || rc == VXCLI_RX_READ_RESET) continue;
      if (n == 0 || round->size() >= kRoundLimit) break;
    }
  }
  return reading;
}

void logging_thread(LogSession* s) {
  std::vector<vxcli_log_record> round;
  round.reserve(kRoundLimit);
  std::vector<vxcli_rx_record> batch(512);
  uint64_t last_refresh = 0, last_arrival = daemon_now_ms();
  bool unsynced = false;
  snprintf(s->end_reason, sizeof s->end_reason, "stopped");
  while (s->running.load() && !s->write_failed) {
    uint64_t now = daemon_now_ms();
    if (s->duration > 0 && (double)(now - s->start_ms) >= s->duration * 1000.0) {
      snprintf(s->end_reason, sizeof s->end_reason, "duration elapsed");
      break;
    }
    if (now - last_refresh >= kRefreshMs && vxcli_daemon_command_try_lock()) {
      refresh_channels(s);
      vxcli_daemon_command_unlock();
      last_refresh = now;
    }
    // A poll of every channel; when all were empty, a short wait on the first.
    int reading = read_cursors(s, &round, &batch, 0);
    if (reading > 0 && round.empty()) reading = read_cursors(s, &round, &batch, 20);
    if (reading < s->count) last_refresh = std::min(last_refresh, now - kRefreshMs / 2);
    if (reading == 0 && round.empty()) usleep(20000);
    if (!round.empty()) {
      last_arrival = daemon_now_ms();
      unsynced = true;
    }
    if (!write_round(s, &round)) break;
    if (unsynced && daemon_now_ms() - last_arrival >= kIdleCheckpointMs) {
      vxcli_log_output_checkpoint(s->output);
      unsynced = false;
    }
  }
  // What arrived before the stop still belongs in the file.
  if (!s->write_failed) {
    while (read_cursors(s, &round, &batch, 0) > 0 && !round.empty())
      if (!write_round(s, &round)) break;
    write_round(s, &round, true);
  }
  for (int i = 0; i < s->count; i++)
    if (s->channels[i].reading) vxcli_rx_broker_cursor_close(&s->channels[i].cursor);
  if (vxcli_log_output_close(s->output) != 0) s->write_failed = true;
  s->output = nullptr;
  printf("Daemon: logging stopped, %d messages written to %s\n", (int)s->written.load(), s->path);
  fflush(stdout);
  s->completion.finish();
}

// Last finished session, for status after it is gone.
struct LastLog {
  bool valid;
  char path[1024];
  uint64_t written;
  uint64_t lost;
  char reason[64];
};
LastLog g_last_log;

void reap_logging() {
  if (!g_log || !g_log->completion.finished()) return;
  g_log->thread.join();
  g_last_log.valid = true;
  snprintf(g_last_log.path, sizeof g_last_log.path, "%s", g_log->path);
  g_last_log.written = g_log->written.load();
  g_last_log.lost = g_log->lost.load();
  snprintf(g_last_log.reason, sizeof g_last_log.reason, "%s", g_log->end_reason);
  delete g_log;
  g_log = nullptr;
}

const char* logging_start(const Words& w, Out* out) {
  reap_logging();
  if (g_log) return "ERROR: logging already active\n";
  const char* channel_text = w.option("channel");
  const char* path = w.option("output");
  if (!channel_text) return "ERROR: --channel is required\n";
  if (!path || !*path) return "ERROR: --output is required\n";
  if (path[0] != '/') return "ERROR: --output must be an absolute path for daemon logging\n";
  bool bad = false;
  const char* format = file_format(w, &bad);
  if (bad) return "ERROR: --format must be asc or blf\n";
  double duration = 0;
  if (const char* text = w.option("duration")) {
    char* end = nullptr;
    duration = strtod(text, &end);
    if (end == text || *end || !(duration > 0)) return "ERROR: --duration must be a positive number of seconds\n";
  }
  int slots[VXCLI_DAEMON_SLOTS];
  const char* error = nullptr;
  int count = resolve_slot_list(channel_text, slots, VXCLI_DAEMON_SLOTS, &error, out);
  if (count < 0) return error;

  auto* s = new LogSession();
  snprintf(s->path, sizeof s->path, "%s", path);
  s->blf = strcmp(format, "blf") == 0;
  s->count = count;
  s->duration = duration;
  vxcli_asc_channel_label labels[VXCLI_DAEMON_SLOTS];
  for (int i = 0; i < count; i++) {
    LogChannel& c = s->channels[i];
    const Slot& slot = g_daemon_slots[slots[i]];
    c.slot = slots[i];
    c.logical = i + 1;
    c.info = slot.info;
    c.handle = slot.handle;
    daemon_slot_identity(slot, c.identity, sizeof c.identity);
    vxcli_render_serial(slot.info.serial, c.serial, sizeof c.serial);
    labels[i] = {c.logical, c.serial, (int)slot.info.port};
  }
  // Cursors first: the file's start time then precedes every frame in it.
  for (int i = 0; i < count; i++) {
    LogChannel& c = s->channels[i];
    if (vxcli_rx_broker_cursor_open_named(c.slot, 0, "logging", nullptr, &c.cursor) != 0) {
      for (int k = 0; k < i; k++) vxcli_rx_broker_cursor_close(&s->channels[k].cursor);
      delete s;
      daemon_put(out, "ERROR: cannot read slot %d for logging (receive broker refused a cursor)\n",
                 slots[i]);
      return out->data;
    }
    c.reading = true;
  }
  s->start_ns = wall_ns();
  s->start_ms = daemon_now_ms();
  char message[1200];
  s->output = vxcli_log_output_open(path, s->blf, s->start_ns, labels, count, message, sizeof message);
  if (!s->output) {
    for (int i = 0; i < count; i++) vxcli_rx_broker_cursor_close(&s->channels[i].cursor);
    delete s;
    daemon_put(out, "ERROR: %s\n", message);
    return out->data;
  }
  g_log = s;
  s->thread = std::thread(logging_thread, s);
  printf("Daemon: logging started, %d channel(s) -> %s (%s)\n", count, path, s->blf ? "BLF" : "ASC");
  if (w.json) {
    daemon_put(out, "{\"status\":\"ok\",\"state\":\"logging\",\"format\":\"%s\",\"output\":",
               s->blf ? "blf" : "asc");
    daemon_put_json_string(out, path);
    daemon_put(out, ",\"channels\":[");
    for (int i = 0; i < count; i++) {
      daemon_put(out, "%s{\"channel\":%d,\"slot\":%d,\"device\":", i ? "," : "", s->channels[i].logical,
                 s->channels[i].slot);
      daemon_put_json_string(out, s->channels[i].identity);
      daemon_put(out, "}");
    }
    daemon_put(out, "]}\n");
  } else {
    daemon_put(out, "OK: logging started: %d channel(s) -> %s (%s)\n", count, path, s->blf ? "BLF" : "ASC");
    for (int i = 0; i < count; i++)
      daemon_put(out, "  ch%d = %s (slot %d)\n", s->channels[i].logical, s->channels[i].identity,
                 s->channels[i].slot);
  }
  return out->data;
}

// Stops the session and waits for its file; -1 when it did not finish in time.
int stop_logging_session(int wait_ms) {
  if (!g_log) return 0;
  if (g_log->running.exchange(0)) printf("Daemon: logging stop requested\n");
  if (!g_log->completion.wait(wait_ms)) return -1;
  return 0;
}

const char* logging_stop(const Words& w, Out* out) {
  if (!g_log) {
    reap_logging();
    return "ERROR: logging not active\n";
  }
  if (const char* channel = w.option("channel")) {
    int slot = daemon_resolve_ch(channel);
    bool recorded = false;
    for (int i = 0; i < g_log->count; i++) recorded = recorded || g_log->channels[i].slot == slot;
    if (!recorded) {
      daemon_put(out, "ERROR: logging is not recording channel %s\n", channel);
      return out->data;
    }
  }
  if (stop_logging_session(kStopWaitMs) != 0) return "ERROR: logging stop timed out while finalizing log file\n";
  bool failed = g_log->write_failed;
  reap_logging();
  const LastLog& l = g_last_log;
  if (failed) {
    daemon_put(out, "ERROR: logging stopped, but writing %s failed; %llu messages written before the failure\n",
               l.path, (unsigned long long)l.written);
    return out->data;
  }
  if (w.json) {
    daemon_put(out, "{\"status\":\"ok\",\"state\":\"stopped\",\"messages\":%llu,\"lost\":%llu,\"output\":",
               (unsigned long long)l.written, (unsigned long long)l.lost);
    daemon_put_json_string(out, l.path);
    daemon_put(out, "}\n");
  } else {
    daemon_put(out, "OK: logging stopped, %llu messages written to %s\n", (unsigned long long)l.written, l.path);
    if (l.lost) daemon_put(out, "  lost: %llu (receive buffer overrun)\n", (unsigned long long)l.lost);
  }
  return out->data;
}

const char* logging_status(const Words& w, Out* out) {
  reap_logging();
  int filter = -2;
  if (const char* channel = w.option("channel")) {
    filter = daemon_resolve_ch(channel);
    if (filter < 0) {
      daemon_put(out, "ERROR: channel %s is not open\n", channel);
      return out->data;
    }
  }
  LogSession* s = g_log;
  const char* state = s ? (s->running.load() ? "active" : "stopping") : "idle";
  double elapsed = s ? (double)(daemon_now_ms() - s->start_ms) / 1000.0 : 0;
  if (w.json) {
    daemon_put(out, "{\"status\":\"ok\",\"active\":%s,\"state\":\"%s\"", s ? "true" : "false", state);
    if (s) {
      daemon_put(out, ",\"format\":\"%s\",\"output\":", s->blf ? "blf" : "asc");
      daemon_put_json_string(out, s->path);
      daemon_put(out, ",\"messages\":%llu,\"lost\":%llu,\"elapsed_seconds\":%.1f,\"duration_seconds\":%.1f,\"channels\":[",
                 (unsigned long long)s->written.load(), (unsigned long long)s->lost.load(), elapsed, s->duration);
      bool first = true;
      for (int i = 0; i < s->count; i++) {
        const LogChannel& c = s->channels[i];
        if (filter >= 0 && c.slot != filter) continue;
        daemon_put(out, "%s{\"channel\":%d,\"slot\":%d,\"device\":", first ? "" : ",", c.logical, c.slot);
        daemon_put_json_string(out, c.identity);
        daemon_put(out, ",\"reading\":%s,\"received\":%llu}", c.reading ? "true" : "false",
                   (unsigned long long)c.received.load());
        first = false;
      }
      daemon_put(out, "]");
    } else if (g_last_log.valid) {
      daemon_put(out, ",\"last\":{\"output\":");
      daemon_put_json_string(out, g_last_log.path);
      daemon_put(out, ",\"messages\":%llu,\"lost\":%llu,\"ended\":\"%s\"}", (unsigned long long)g_last_log.written,
                 (unsigned long long)g_last_log.lost, g_last_log.reason);
    }
    daemon_put(out, "}\n");
    return out->data;
  }
  daemon_put(out, "OK: logging %s\n=== logging status ===\n", state);
  if (!s) {
    daemon_put(out, "  state: idle\n");
    if (g_last_log.valid)
      daemon_put(out, "  last: %llu messages written to %s (%s)\n", (unsigned long long)g_last_log.written,
                 g_last_log.path, g_last_log.reason);
    return out->data;
  }
  daemon_put(out, "  state: %s\n  format: %s\n  output: %s\n  messages: %llu\n  lost: %llu\n  elapsed: %.1fs\n",
             state, s->blf ? "BLF" : "ASC", s->path, (unsigned long long)s->written.load(),
             (unsigned long long)s->lost.load(), elapsed);
  if (s->duration > 0) daemon_put(out, "  duration: %.1fs\n", s->duration);
  for (int i = 0; i < s->count; i++) {
    const LogChannel& c = s->channels[i];
    if (filter >= 0 && c.slot != filter) continue;
    daemon_put(out, "  ch%d = %s (slot %d, %s, received=%llu)\n", c.logical, c.identity, c.slot,
               c.reading ? "reading" : "paused", (unsigned long long)c.received.load());
  }
  return out->data;
}

// ---------------------------------------------------------------- replay

struct ReplayDestination {
  int slot;
  VXChannelInfo info;
};

struct ReplaySession {
  std::thread thread;
  std::atomic<int> running{1};
  Completion completion;
  vxcli_replay_input input;
  vxcli_replay_plan plan;
  ReplayDestination destinations[VXCLI_REPLAY_MAX_CHANNELS + VXCLI_REPLAY_MAX_MAPS];
  int channel_count;
  uint64_t start_ms;
  std::atomic<int> sent{0};
  std::atomic<int> send_errors{0};
  vxcli_replay_result result;  // final, set before completion
};

ReplaySession* g_replay = nullptr;

// Waits for the command lock unless a stop is pending (the stop holds it).
bool lock_unless_stopping(const std::atomic<int>& running) {
  while (!vxcli_daemon_command_try_lock()) {
    if (!running.load()) return false;
    usleep(100);
  }
  return true;
}

uint32_t replay_send(void* context, int destination, const vxcli_replay_record* record) {
  auto* s = static_cast<ReplaySession*>(context);
  const ReplayDestination& d = s->destinations[destination];
  if (!lock_unless_stopping(s->running)) return VX_ERR_INVALID_OPERATION;
  const Slot& slot = g_daemon_slots[d.slot];
  VXStatus status;
  if (!slot.open || !daemon_same_physical(slot.info, d.info)) {
    status = VX_ERR_INVALID_HARDWARE;  // closed since the replay started
  } else if (record->is_lin != 0 && slot.lin) {
    if (slot.mode != VX_LIN_MODE_MASTER) {
      status = VX_ERR_INVALID_OPERATION;  // a slave would only store a response
    } else {
      VXLinMessage m;
      vxcli_log_frame_to_lin_message(record, &m);
      status = VX_WriteLinMessage(slot.handle, &m, 0, 1000, nullptr);
    }
  } else if (record->is_lin == 0 && !slot.lin) {
    VXMessage m;
    vxcli_log_frame_to_message(record, &m);
    status = VX_WriteCanMessage(slot.handle, &m);
  } else {
    status = VX_ERR_INVALID_OPERATION;  // LIN record for a CAN slot or the reverse
  }
  vxcli_daemon_command_unlock();
  if (status == VX_OK) s->sent++;
  else s->send_errors++;
  return status;
}

void replay_thread(ReplaySession* s) {
  vxcli_replay_sink sink = {};
  sink.context = s;
  sink.send = replay_send;
  sink.send_lin = replay_send;
  sink.running = &s->running;
  sink.log = stdout;
  sink.log_prefix = "Daemon: replay: ";
  vxcli_replay_run(&s->input, &s->plan, &sink, &s->result);
  vxcli_replay_input_close(&s->input);
  printf("Daemon: replay stopped, %d sent, %d errors from %s\n", s->result.sent, s->result.errors,
         s->input.path);
  fflush(stdout);
  s->completion.finish();
}

struct LastReplay {
  bool valid;
  char path[1024];
  vxcli_replay_result result;
};
LastReplay g_last_replay;

void reap_replay() {
  if (!g_replay || !g_replay->completion.finished()) return;
  g_replay->thread.join();
  g_last_replay.valid = true;
  snprintf(g_last_replay.path, sizeof g_last_replay.path, "%s", g_replay->input.path);
  g_last_replay.result = g_replay->result;
  delete g_replay;
  g_replay = nullptr;
}

const char* replay_start(const Words& w, Out* out) {
  reap_replay();
  if (g_replay) return "ERROR: replay already active\n";
  vxcli_replay_options options;
  char message[512];
  if (vxcli_replay_parse_options(w.argc - 2, w.argv + 2, &options, message, sizeof message) != 0) {
    daemon_put(out, "ERROR: %s\n", message);
    return out->data;
  }
  if (options.file[0] != '/') return "ERROR: --file must be an absolute path for daemon replay\n";
  int slots[VXCLI_REPLAY_MAX_CHANNELS];
  const char* error = nullptr;
  int count = resolve_slot_list(options.channel, slots, VXCLI_REPLAY_MAX_CHANNELS, &error, out);
  if (count < 0) return error;
  if (options.map_text_count > VXCLI_REPLAY_MAX_MAPS) {
    daemon_put(out, "ERROR: Too many --map-channel entries (max %d)\n", VXCLI_REPLAY_MAX_MAPS);
    return out->data;
  }
  auto* s = new ReplaySession();
  vxcli_replay_plan& plan = s->plan;
  plan.speed = options.speed;
  plan.fixed_timing = options.fixed_timing;
  plan.msg_delay_ms = options.msg_delay_ms;
  plan.cycle_delay_ms = options.cycle_delay_ms;
  plan.loop = options.loop;
  plan.ignore_channel = options.ignore_channel;
  plan.map_strict = options.map_strict;
  plan.channel_count = count;
  for (int i = 0; i < count; i++) s->destinations[i] = {slots[i], g_daemon_slots[slots[i]].info};
  for (int m = 0; m < options.map_text_count; m++) {
    vxcli_replay_map map;
    if (vxcli_replay_parse_map(options.map_texts[m], &map, message, sizeof message) != 0) {
      delete s;
      daemon_put(out, "ERROR: %s\n", message);
      return out->data;
    }
    int slot = daemon_resolve_ch(map.spec);
    if (slot < 0) {
      delete s;
      daemon_put(out, "ERROR: mapped channel for ASC %d is not open in the daemon: %s\n", map.asc_channel,
                 map.spec);
      return out->data;
    }
    plan.map_asc[m] = map.asc_channel;
    plan.map_open[m] = 1;
    s->destinations[count + m] = {slot, g_daemon_slots[slot].info};
    plan.map_count = m + 1;
  }
  if (vxcli_replay_input_open(&s->input, options.file) != 0) {
    delete s;
    daemon_put(out, "ERROR: Failed to open file: %s\n", options.file);
    return out->data;
  }
  s->channel_count = count;
  s->start_ms = daemon_now_ms();
  g_replay = s;
  s->thread = std::thread(replay_thread, s);
  char timing[64];
  if (options.fixed_timing)
    snprintf(timing, sizeof timing, "fixed(%s)",
             options.ignore_timestamp ? "back-to-back" : (std::to_string(options.msg_delay_ms) + "ms").c_str());
  else
    snprintf(timing, sizeof timing, "retain");
  printf("Daemon: replay started, %s on %d channel(s) (speed=%.1fx%s, timing=%s)\n", options.file, count,
         options.speed, options.loop ? ", looping" : "", timing);
  if (w.json) {
    daemon_put(out, "{\"status\":\"ok\",\"state\":\"replaying\",\"file\":");
    daemon_put_json_string(out, options.file);
    daemon_put(out, ",\"channels\":%d,\"maps\":%d,\"speed\":%.3f,\"timing\":\"%s\",\"loop\":%s}\n", count,
               plan.map_count, options.speed, options.fixed_timing ? "fixed" : "retain",
               options.loop ? "true" : "false");
  } else {
    daemon_put(out, "OK: replay started: %s on %d channel(s) (speed=%.1fx%s, timing=%s)\n", options.file, count,
               options.speed, options.loop ? ", looping" : "", timing);
  }
  return out->data;
}

int stop_replay_session(int wait_ms) {
  if (!g_replay) return 0;
  g_replay->running.store(0);
  return g_replay->completion.wait(wait_ms) ? 0 : -1;
}

const char* replay_stop(const Words& w, Out* out) {
  if (!g_replay) {
    reap_replay();
    return "ERROR: replay not active\n";
  }
  if (stop_replay_session(kStopWaitMs) != 0) return "ERROR: replay stop timed out\n";
  reap_replay();
  const LastReplay& l = g_last_replay;
  if (w.json) {
    daemon_put(out, "{\"status\":\"ok\",\"state\":\"stopped\",\"sent\":%d,\"errors\":%d,\"passes\":%d,\"file\":",
               l.result.sent, l.result.errors, l.result.passes);
    daemon_put_json_string(out, l.path);
    daemon_put(out, "}\n");
  } else {
    daemon_put(out, "OK: replay stopped, %d sent, %d errors from %s\n", l.result.sent, l.result.errors, l.path);
  }
  return out->data;
}

const char* replay_status(const Words& w, Out* out) {
  reap_replay();
  ReplaySession* s = g_replay;
  const char* state = s ? (s->running.load() ? "active" : "stopping") : "idle";
  if (w.json) {
    daemon_put(out, "{\"status\":\"ok\",\"active\":%s,\"state\":\"%s\"", s ? "true" : "false", state);
    if (s) {
      daemon_put(out, ",\"file\":");
      daemon_put_json_string(out, s->input.path);
      daemon_put(out, ",\"sent\":%d,\"send_errors\":%d,\"elapsed_seconds\":%.1f,\"speed\":%.3f,\"timing\":\"%s\","
                 "\"loop\":%s,\"channels\":[",
                 s->sent.load(), s->send_errors.load(), (double)(daemon_now_ms() - s->start_ms) / 1000.0,
                 s->plan.speed, s->plan.fixed_timing ? "fixed" : "retain", s->plan.loop ? "true" : "false");
      for (int i = 0; i < s->channel_count + s->plan.map_count; i++)
        daemon_put(out, "%s%d", i ? "," : "", s->destinations[i].slot);
      daemon_put(out, "]");
    } else if (g_last_replay.valid) {
      daemon_put(out, ",\"last\":{\"file\":");
      daemon_put_json_string(out, g_last_replay.path);
      daemon_put(out, ",\"sent\":%d,\"errors\":%d,\"passes\":%d}", g_last_replay.result.sent,
                 g_last_replay.result.errors, g_last_replay.result.passes);
    }
    daemon_put(out, "}\n");
    return out->data;
  }
  daemon_put(out, "OK: replay %s\n=== replay status ===\n", state);
  if (!s) {
    daemon_put(out, "  state: idle\n");
    if (g_last_replay.valid)
      daemon_put(out, "  last: %d sent, %d errors from %s\n", g_last_replay.result.sent,
                 g_last_replay.result.errors, g_last_replay.path);
    return out->data;
  }
  daemon_put(out, "  state: %s\n  file: %s\n  sent: %d\n  send errors: %d\n  elapsed: %.1fs\n  speed: %.1fx\n"
             "  timing: %s\n  loop: %s\n",
             state, s->input.path, s->sent.load(), s->send_errors.load(),
             (double)(daemon_now_ms() - s->start_ms) / 1000.0, s->plan.speed,
             s->plan.fixed_timing ? "fixed" : "retain", s->plan.loop ? "on" : "off");
  for (int i = 0; i < s->channel_count; i++) {
    const Slot& slot = g_daemon_slots[s->destinations[i].slot];
    char identity[64];
    daemon_slot_identity(slot, identity, sizeof identity);
    daemon_put(out, "  ch%d -> slot %d (%s)\n", i + 1, s->destinations[i].slot, identity);
  }
  for (int m = 0; m < s->plan.map_count; m++)
    daemon_put(out, "  ASC %d -> slot %d\n", s->plan.map_asc[m], s->destinations[s->channel_count + m].slot);
  return out->data;
}

}  // namespace

void vxcli_daemon_logging_shutdown() {
  if (g_replay) {
    stop_replay_session(kStopWaitMs);
    reap_replay();
  }
  if (g_log) {
    stop_logging_session(kStopWaitMs);
    reap_logging();
  }
}

const char* daemon_answer_logging(const Words& w, Out* out) {
  const char* a = w.word(0);
  const char* b = w.word(1);
  bool logging = daemon_is(a, "logging");
  if (!logging && !daemon_is(a, "replay")) return nullptr;
  // On-device recording is the device's own business; the local handler does it.
  if (logging && w.flag("hardware")) return nullptr;
  if (logging) {
    if (daemon_is(b, "start")) return logging_start(w, out);
    if (daemon_is(b, "stop")) return logging_stop(w, out);
    if (daemon_is(b, "status")) return logging_status(w, out);
    return nullptr;
  }
  if (daemon_is(b, "start")) return replay_start(w, out);
  if (daemon_is(b, "stop")) return replay_stop(w, out);
  if (daemon_is(b, "status")) return replay_status(w, out);
  return nullptr;
}
