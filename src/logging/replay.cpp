#include "logging/replay.h"

#include <errno.h>
#include <time.h>

#include <cstdlib>
#include <cstring>

#include "cli/output.h"
#include "message/frame.h"

std::atomic<int> g_replay_running{0};

void replay_signal_handler(int) { g_replay_running.store(0); }

namespace {

// Gaps of a minute or more are sent at once, on purpose: a trace that spans a
// pause should not stall the replay.
const double kMaxDelayMs = 60000.0;

void report(char* message, size_t size, const char* format, const char* text) {
  if (message && size) snprintf(message, size, format, text);
}

void sleep_for_real(const std::atomic<int>* running, int64_t microseconds) {
  struct timespec deadline;
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += microseconds / 1000000;
  deadline.tv_nsec += (long)(microseconds % 1000000) * 1000;
  if (deadline.tv_nsec >= 1000000000L) {
    deadline.tv_sec++;
    deadline.tv_nsec -= 1000000000L;
  }
  // Slices keep a stop request from waiting out a long gap.
  for (;;) {
    if (running && running->load() == 0) return;
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    int64_t left_ns = (int64_t)(deadline.tv_sec - now.tv_sec) * 1000000000LL +
                      (deadline.tv_nsec - now.tv_nsec);
    if (left_ns <= 0) return;
    if (left_ns <= 50000000LL) {
      while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR)
        if (running && running->load() == 0) return;
      return;
    }
    struct timespec slice = {0, 50000000L};
    nanosleep(&slice, nullptr);
  }
}

void pause_us(const vxcli_replay_sink* sink, int64_t microseconds) {
  if (sink->sleep_us)
    sink->sleep_us(sink->context, microseconds);
  else
    sleep_for_real(sink->running, microseconds);
}

bool running(const vxcli_replay_sink* sink) { return !sink->running || sink->running->load() != 0; }

}  // namespace

int vxcli_replay_parse_map(const char* text, vxcli_replay_map* map, char* message, size_t size) {
  if (!text || !map) return -1;
  const char* colon = strchr(text, ':');
  char* end = nullptr;
  long channel = colon ? strtol(text, &end, 10) : 0;
  if (!colon || end != colon || end == text || colon[1] == '\0' || strlen(colon + 1) > 63) {
    report(message, size, "Invalid --map-channel (expected N:spec): %s", text);
    return -1;
  }
  if (channel < 0 || channel > 64) {
    if (message && size) snprintf(message, size, "Invalid ASC channel in --map-channel: %ld", channel);
    return -1;
  }
  map->asc_channel = (int)channel;
  snprintf(map->spec, sizeof map->spec, "%s", colon + 1);
  return 0;
}

int vxcli_replay_parse_options(int count, char** words, vxcli_replay_options* o, char* message,
                               size_t size) {
  if (!o) return -1;
  memset(o, 0, sizeof *o);
  o->channel = vxcli_get_option(count, words, "channel");
  if (!o->channel) {
    report(message, size, "%s", "--channel is required");
    return -1;
  }
  o->file = vxcli_get_option(count, words, "file");
  if (!o->file) {
    report(message, size, "%s", "--file is required");
    return -1;
  }
  o->bitrate = vxcli_get_option(count, words, "bitrate");
  const char* speed = vxcli_get_option(count, words, "speed");
  o->speed = speed ? strtod(speed, nullptr) : 1.0;
  if (!(o->speed > 0)) o->speed = 1.0;
  o->loop = vxcli_has_flag(count, words, "loop");
  o->ignore_channel = vxcli_has_flag(count, words, "ignore-channel");
  o->map_strict = vxcli_has_flag(count, words, "map-strict");
  o->ignore_timestamp = vxcli_has_flag(count, words, "ignore-timestamp");
  const char* delay = vxcli_get_option(count, words, "msg-delay");
  o->has_msg_delay = delay != nullptr;
  o->msg_delay_ms = delay ? strtol(delay, nullptr, 10) : 0;
  if (o->msg_delay_ms < 0 || o->ignore_timestamp) o->msg_delay_ms = 0;
  o->fixed_timing = o->has_msg_delay || o->ignore_timestamp;
  const char* cycle = vxcli_get_option(count, words, "cycle-delay");
  o->cycle_delay_ms = cycle ? strtol(cycle, nullptr, 10) : 0;
  if (o->cycle_delay_ms < 0) o->cycle_delay_ms = 0;
  for (int i = 0; i < count; i++) {
    const char* value = nullptr;
    if (strncmp(words[i], "--map-channel=", 14) == 0)
      value = words[i] + 14;
    else if (strcmp(words[i], "--map-channel") == 0 && i + 1 < count)
      value = words[++i];
    if (!value) continue;
    if (o->map_text_count <= VXCLI_REPLAY_MAX_MAPS) o->map_texts[o->map_text_count] = value;
    o->map_text_count++;
  }
  return 0;
}

int vxcli_replay_destination(const vxcli_replay_plan* plan, int recorded, int* counted) {
  *counted = 0;
  for (int m = 0; m < plan->map_count; m++)
    if (plan->map_asc[m] == recorded && plan->map_open[m]) return plan->channel_count + m;
  if (plan->map_strict) {
    *counted = 1;
    return -1;
  }
  if (plan->ignore_channel) return plan->channel_count > 0 ? 0 : -1;
  if (recorded >= 1 && recorded <= plan->channel_count) return recorded - 1;
  return -1;
}

double vxcli_replay_delay_ms(const vxcli_replay_plan* plan, double previous, double time) {
  if (previous < 0) return 0;
  if (plan->fixed_timing) return (double)plan->msg_delay_ms;
  if (time > previous) return (time - previous) * 1000.0 / plan->speed;
  return 0;
}

int vxcli_replay_run(vxcli_replay_input* input, const vxcli_replay_plan* plan,
                     const vxcli_replay_sink* sink, vxcli_replay_result* result) {
  memset(result, 0, sizeof *result);
  FILE* log = sink->log ? sink->log : stderr;
  const char* prefix = sink->log_prefix ? sink->log_prefix : "";
  vxcli_replay_record record;
  for (;;) {
    if (vxcli_replay_input_rewind(input) != 0) {
      fprintf(log, "%sFailed to rewind replay input: %s\n", prefix, input->path);
      result->errors++;
      return -1;
    }
    result->passes++;
    double previous = -1;
    int sent_before = result->sent;
    bool malformed = false;
    while (running(sink)) {
      int rc = vxcli_replay_input_next(input, &record);
      if (rc == 0) break;
      if (rc < 0) {
        fprintf(log, "%sMalformed or unsupported replay record in %s\n", prefix, input->path);
        result->errors++;
        malformed = true;
        break;
      }
      int number = (int)input->records;
      if (record.is_lin && !sink->send_lin) {
        fprintf(log, "%sLIN replay requires a daemon-opened LIN channel; skipping record %d\n",
                prefix, number);
        result->errors++;
        continue;
      }
      int counted = 0;
      int destination = vxcli_replay_destination(plan, record.channel, &counted);
      if (destination < 0) {
        if (counted) {
          result->errors++;
          if (plan->verbose)
            fprintf(log, "%srecorded channel %d not in map (strict), skipping record %d\n",
                    prefix, record.channel, number);
        }
        continue;
      }
      double delay = vxcli_replay_delay_ms(plan, previous, record.time);
      if (delay > 0 && delay < kMaxDelayMs) pause_us(sink, (int64_t)(delay * 1000.0));
      previous = record.time;
      uint32_t status = record.is_lin ? sink->send_lin(sink->context, destination, &record)
                                      : sink->send(sink->context, destination, &record);
      if (status != 0) {
        if (!running(sink)) break;  // cut short by a stop, not a fault of the trace
        result->errors++;
        if (plan->verbose)
          fprintf(log, "%sSend failed record %d: %s (0x%X)\n", prefix, number,
                  vxcli_status_to_string(status), status);
        continue;
      }
      result->sent++;
      if (plan->verbose) {
        int dlc = record.dlc & 0x0F;
        fprintf(log, "%sTX ASCch%d ID=0x%03X DLC=%d [", prefix, record.channel, record.id, dlc);
        int n = record.is_lin ? record.length : vxcli_dlc_to_bytes(dlc);
        for (int i = 0; i < n && i < 64; i++) fprintf(log, "%02X ", record.data[i]);
        fprintf(log, "]\n");
      }
    }
    if (!running(sink) || !plan->loop) break;
    // A file that breaks before yielding anything would otherwise spin forever.
    if (malformed && result->sent == sent_before) break;
    if (plan->cycle_delay_ms > 0 && plan->cycle_delay_ms < kMaxDelayMs)
      pause_us(sink, (int64_t)plan->cycle_delay_ms * 1000);
  }
  return 0;
}
