// "logging start|stop|status" without a daemon: recording runs in this
// process until its duration ends or Ctrl+C; replay status likewise has no
// background state to report here.
#include <signal.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "channel/channel.h"
#include "cli/output.h"
#include "logging/asc.h"
#include "logging/blf_writer.h"
#include "logging/commands.h"
#include "logging/log_channels.h"
#include "logging/log_device.h"
#include "logging/log_output.h"

std::atomic<int> g_logging_running{0};

void logging_signal_handler(int) { g_logging_running.store(0); }

namespace {

const int kMaxLogChannels = 16;

uint64_t clock_ns(clockid_t clock) {
  struct timespec ts;
  clock_gettime(clock, &ts);
  return (uint64_t)ts.tv_sec * 1000000000ULL + (uint64_t)ts.tv_nsec;
}

// On-device recording: the device library offers no offline recording call,
// so only generation-2.5 devices get as far as opening the channel.
int hardware_logging(const char* channel_text, const char* bitrate_text, bool stop) {
  vxcli_channel_spec spec;
  VXChannelInfo infos[32];
  int count = 0;
  if (vxcli_channel_list_enumerate(channel_text, &spec, 1, infos, &count) < 0) return 1;
  const VXChannelInfo* entry = vxcli_resolve_channel(infos, count, &spec);
  if (!entry) {
    vxcli_print_error("No matching channels found for: %s", channel_text);
    return 1;
  }
  if (!(entry->generation == 2 && entry->generation_minor == 5)) {
    vxcli_print_error(
        "Offline logging is supported only by generation-2.5 hardware; generation-3 devices use "
        "online logging");
    return 1;
  }
  vxcli_bitrate bitrate;
  vxcli_parse_bitrate_pair(bitrate_text, &bitrate);
  VXHandle handle = nullptr;
  if (VX_OpenEx(&handle, entry, VX_CAN_MODE_NORMAL, VX_TERMINATION_DEFAULT, &bitrate, 0, 0) !=
          VX_OK ||
      !handle) {
    vxcli_print_error("Failed to open channel for hardware logging");
    return 1;
  }
  VX_Close(handle);
  if (stop)
    vxcli_print_error("VX_SetLogging(DISABLED) failed: %s",
                      vxcli_status_to_string(VX_ERR_INVALID_OPERATION));
  else
    vxcli_print_error("Device does not support offline logging");
  return 1;
}

const size_t kRoundLimit = 4096;

// Reads what every live channel holds; true when anything was found.
bool collect_pass(vxcli_log_channel* channels, int opened, bool* alive, int* living,
                  std::vector<vxcli_log_record>* pending) {
  bool found = false;
  for (int i = 0; i < opened; i++) {
    if (!alive[i]) continue;
    vxcli_log_record r;
    r.logical = channels[i].logical;
    while (pending->size() < kRoundLimit) {
      VXStatus status = VX_Read(channels[i].handle, &r.message, 0, nullptr);
      if (status == VX_ERR_QUEUE_EMPTY) break;
      if (status == VX_ERR_QUEUE_OVERRUN) {
        vxcli_print_warning("receive queue overrun on channel %d; frames were lost",
                            channels[i].logical);
        continue;
      }
      if (status != VX_OK) {
        vxcli_print_warning("channel %d stopped: %s", channels[i].logical,
                            vxcli_status_to_string(status));
        alive[i] = false;
        (*living)--;
        break;
      }
      r.ns = vxcli_message_time_ns(channels[i].handle, &r.message);
      pending->push_back(r);
      found = true;
    }
  }
  return found;
}

}  // namespace

int vxcli_logging_start_command(int count, char** words) {
  const char* channel_text = vxcli_get_option(count, words, "channel");
  const char* output = vxcli_get_option(count, words, "output");
  const char* format = vxcli_get_option(count, words, "format");
  const char* duration_text = vxcli_get_option(count, words, "duration");
  const char* bitrate_text = vxcli_get_option(count, words, "bitrate");
  bool hardware = vxcli_has_flag(count, words, "hardware");
  if (!channel_text) {
    vxcli_print_error("--channel is required");
    return 1;
  }
  if (hardware) return hardware_logging(channel_text, bitrate_text, false);
  if (!output) {
    vxcli_print_error("--output is required");
    return 1;
  }
  bool blf = format && strcmp(format, "blf") == 0;
  if (format && !blf && strcmp(format, "asc") != 0) {
    vxcli_print_error("--format must be asc or blf");
    return 1;
  }
  vxcli_bitrate bitrate;
  if (vxcli_parse_bitrate_pair(bitrate_text, &bitrate) != 0) {
    vxcli_print_error("invalid --bitrate; use forms such as 500/2000, 500K/2M, or 500000/2000000");
    return 1;
  }
  double duration = 0;
  if (duration_text) {
    char* end = nullptr;
    duration = strtod(duration_text, &end);
    if (end == duration_text || *end || !(duration > 0)) {
      vxcli_print_error("--duration must be a positive number of seconds");
      return 1;
    }
  }
  vxcli_channel_spec specs[kMaxLogChannels];
  VXChannelInfo infos[32];
  int enumerated = 0;
  int wanted = vxcli_channel_list_enumerate(channel_text, specs, kMaxLogChannels, infos, &enumerated);
  if (wanted < 0) return 1;
  // Taken before the channels open, so that no frame predates the file.
  uint64_t start_ns = clock_ns(CLOCK_REALTIME);
  vxcli_log_channel channels[kMaxLogChannels];
  int matched = 0;
  int opened = vxcli_log_open_channels(specs, wanted, infos, enumerated, &bitrate,
                                       VXCLI_OPEN_FOR_LOGGING, channels, kMaxLogChannels, &matched);
  if (matched == 0) {
    vxcli_print_error("No matching channels found for: %s", channel_text);
    return 1;
  }
  if (opened == 0) {
    vxcli_print_error("No channels could be opened for logging");
    return 1;
  }

  vxcli_asc_channel_label labels[kMaxLogChannels];
  char serials[kMaxLogChannels][32];
  for (int i = 0; i < opened; i++) {
    vxcli_render_serial(channels[i].info.serial, serials[i], sizeof serials[i]);
    labels[i] = {channels[i].logical, serials[i], channels[i].info.port};
  }
  char message[1200];
  vxcli_log_output* out =
      vxcli_log_output_open(output, blf, start_ns, labels, opened, message, sizeof message);
  if (!out) {
    vxcli_log_close_channels(channels, opened);
    vxcli_print_error("%s", message);
    return 1;
  }
  if (!vxcli_json_mode())
    printf("Software logging started: %d channel(s) -> %s (%s)\n", opened, output,
           blf ? "BLF" : "ASC");
  fflush(stdout);

  VXNotifyHandle notify[kMaxLogChannels];
  bool alive[kMaxLogChannels];
  for (int i = 0; i < opened; i++) {
    notify[i] = 0;
    VX_GetNotification(channels[i].handle, &notify[i]);
    alive[i] = true;
  }
  struct sigaction previous, handler;
  memset(&handler, 0, sizeof handler);
  handler.sa_handler = logging_signal_handler;
  sigemptyset(&handler.sa_mask);
  sigaction(SIGINT, &handler, &previous);
  g_logging_running = 1;

  uint64_t deadline = duration > 0 ? clock_ns(CLOCK_MONOTONIC) + (uint64_t)(duration * 1e9) : 0;
  unsigned captured = 0;
  bool write_failed = false;
  int living = opened;
  // What one round of reads collected; the output interleaves the channels
  // in time order, as they were on the bus.
  std::vector<vxcli_log_record> pending;
  pending.reserve(kRoundLimit);
  while (g_logging_running.load() && living > 0 && !write_failed) {
    if (deadline && clock_ns(CLOCK_MONOTONIC) >= deadline) break;
    VX_WaitForNotifications(notify, (uint32_t)opened, 50);
    // Passes over the channels until one finds nothing: every frame collected
    // then predates every frame left, whichever channel it came on.
    while (collect_pass(channels, opened, alive, &living, &pending) && pending.size() < kRoundLimit) {
    }
    long written = vxcli_log_output_write(out, pending.data(), pending.size());
    pending.clear();
    if (written < 0 || vxcli_log_output_flush(out) != 0) write_failed = true;
    else captured += (unsigned)written;
  }
  sigaction(SIGINT, &previous, nullptr);
  g_logging_running = 0;
  if (!write_failed) {
    long rest = vxcli_log_output_write_all(out);
    if (rest < 0) write_failed = true;
    else captured += (unsigned)rest;
  }
  int closed = vxcli_log_output_close(out);
  vxcli_log_close_channels(channels, opened);
  if (write_failed || closed != 0) {
    vxcli_print_error("Failed to write %s; %u messages captured before the failure", output,
                      captured);
    return 1;
  }
  if (vxcli_json_mode()) {
    char escaped[1024 * 6];
    vxcli_json_escape_to(output, escaped, sizeof escaped);
    printf("{\"status\":\"ok\",\"messages\":%u,\"channels\":%d,\"format\":\"%s\",\"output\":\"%s\"}\n",
           captured, opened, blf ? "blf" : "asc", escaped);
  } else {
    printf("Logging stopped. %u messages captured.\n", captured);
  }
  return 0;
}

int vxcli_logging_stop_command(int count, char** words) {
  if (vxcli_has_flag(count, words, "hardware")) {
    const char* channel_text = vxcli_get_option(count, words, "channel");
    if (!channel_text) {
      vxcli_print_error("--channel is required");
      return 1;
    }
    return hardware_logging(channel_text, vxcli_get_option(count, words, "bitrate"), true);
  }
  vxcli_print_error("logging stop requires daemon mode; standalone logging is stopped with Ctrl+C");
  return 1;
}

namespace {

int idle_status(const char* what) {
  if (vxcli_json_mode()) {
    printf("{\"status\":\"ok\",\"active\":false,\"mode\":\"standalone\"}\n");
  } else {
    printf("=== %s status ===\n", what);
    printf("No %s session: without a daemon, %s runs in the foreground of the command that "
           "started it.\n",
           what, what);
  }
  return 0;
}

}  // namespace

int vxcli_logging_status_command(int, char**) { return idle_status("logging"); }

int vxcli_replay_status_command(int, char**) { return idle_status("replay"); }
