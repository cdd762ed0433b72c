// "replay start" without a daemon: the trace's frames go out on channels this
// process opens, until the trace ends or Ctrl+C.
#include <signal.h>

#include <cstdio>
#include <cstring>

#include "channel/channel.h"
#include "cli/output.h"
#include "logging/commands.h"
#include "logging/log_channels.h"
#include "logging/log_device.h"
#include "logging/replay.h"

namespace {

struct Destinations {
  VXHandle handles[VXCLI_REPLAY_MAX_CHANNELS + VXCLI_REPLAY_MAX_MAPS];
};

uint32_t send_can(void* context, int destination, const vxcli_replay_record* record) {
  VXHandle handle = static_cast<Destinations*>(context)->handles[destination];
  VXMessage message;
  vxcli_log_frame_to_message(record, &message);
  return VX_WriteCanMessage(handle, &message);
}

void print_summary(const vxcli_replay_result& result, int channels, const char* file) {
  if (g_config.format == VXCLI_FORMAT_JSON) {
    char escaped[1024 * 6];
    vxcli_json_escape_to(file, escaped, sizeof escaped);
    printf("{\"status\":\"%s\",\"sent\":%d,\"errors\":%d,\"channels\":%d,\"file\":\"%s\"}\n",
           result.errors ? "error" : "ok", result.sent, result.errors, channels, escaped);
  } else if (result.errors) {
    fprintf(stderr, "Replayed %d message(s), %d error(s)\n", result.sent, result.errors);
  } else {
    printf("Replayed %d message(s) from %s on %d channel(s)\n", result.sent, file, channels);
  }
}

}  // namespace

int vxcli_replay_file(int count, char** words) {
  vxcli_replay_options options;
  char message[512];
  if (vxcli_replay_parse_options(count, words, &options, message, sizeof message) != 0) {
    vxcli_print_error("%s", message);
    return 1;
  }
  vxcli_replay_input input;
  if (vxcli_replay_input_open(&input, options.file) != 0) {
    vxcli_print_error("Failed to open file: %s", options.file);
    return 1;
  }
  struct sigaction previous, handler;
  memset(&handler, 0, sizeof handler);
  handler.sa_handler = replay_signal_handler;  // no SA_RESTART: a sleep ends at once
  sigemptyset(&handler.sa_mask);
  sigaction(SIGINT, &handler, &previous);
  g_replay_running = 1;

  vxcli_log_channel channels[VXCLI_REPLAY_MAX_CHANNELS];
  vxcli_replay_map maps[VXCLI_REPLAY_MAX_MAPS];
  VXHandle mapped[VXCLI_REPLAY_MAX_MAPS] = {};
  int opened = 0, map_count = 0;
  int status = 1;
  vxcli_bitrate bitrate;
  do {
    vxcli_channel_spec specs[VXCLI_REPLAY_MAX_CHANNELS];
    VXChannelInfo infos[32];
    int enumerated = 0;
    int wanted =
        vxcli_channel_list_enumerate(options.channel, specs, VXCLI_REPLAY_MAX_CHANNELS, infos, &enumerated);
    if (wanted < 0) break;
    if (vxcli_parse_bitrate_pair(options.bitrate, &bitrate) != 0) {
      vxcli_print_error("invalid --bitrate; use forms such as 500/2000, 500K/2M, or 500000/2000000");
      break;
    }
    int matched = 0;
    opened = vxcli_log_open_channels(specs, wanted, infos, enumerated, &bitrate,
                                     VXCLI_OPEN_FOR_REPLAY, channels, VXCLI_REPLAY_MAX_CHANNELS,
                                     &matched);
    if (opened == 0) {
      vxcli_print_error("No channels could be opened for: %s", options.channel);
      break;
    }
    bool maps_ok = true;
    for (int i = 0; i < options.map_text_count && maps_ok; i++) {
      if (i >= VXCLI_REPLAY_MAX_MAPS) {
        vxcli_print_error("Too many --map-channel entries (max %d)", VXCLI_REPLAY_MAX_MAPS);
        maps_ok = false;
        break;
      }
      if (vxcli_replay_parse_map(options.map_texts[i], &maps[i], message, sizeof message) != 0) {
        vxcli_print_error("%s", message);
        maps_ok = false;
        break;
      }
      mapped[i] = vxcli_open_can_channel_ex(maps[i].spec, options.bitrate, VX_CAN_MODE_NORMAL,
                                            VX_TERMINATION_DEFAULT, nullptr);
      if (!mapped[i]) {
        vxcli_print_error("Failed to open mapped channel for ASC %d: %s", maps[i].asc_channel,
                          maps[i].spec);
        maps_ok = false;
        break;
      }
      map_count = i + 1;
      if (g_config.verbose)
        fprintf(stderr, "Mapped ASC channel %d -> %s\n", maps[i].asc_channel, maps[i].spec);
    }
    if (!maps_ok) break;

    vxcli_replay_plan plan = {};
    plan.speed = options.speed;
    plan.fixed_timing = options.fixed_timing;
    plan.msg_delay_ms = options.msg_delay_ms;
    plan.cycle_delay_ms = options.cycle_delay_ms;
    plan.loop = options.loop;
    plan.ignore_channel = options.ignore_channel;
    plan.map_strict = options.map_strict;
    plan.channel_count = opened;
    plan.map_count = map_count;
    plan.verbose = (int)g_config.verbose;
    Destinations destinations = {};
    for (int i = 0; i < opened; i++) destinations.handles[i] = channels[i].handle;
    for (int m = 0; m < map_count; m++) {
      plan.map_asc[m] = maps[m].asc_channel;
      plan.map_open[m] = mapped[m] != nullptr;
      destinations.handles[opened + m] = mapped[m];
    }
    if (g_config.verbose) {
      char delay[32];
      snprintf(delay, sizeof delay, "%ldms", options.msg_delay_ms);
      fprintf(stderr, "Replaying %s on %d channel(s) (speed=%.1fx%s, timing=%s%s%s%s%s)\n",
              options.file, opened, options.speed, options.loop ? ", looping" : "",
              options.fixed_timing ? "fixed" : "retain", options.fixed_timing ? "(" : "",
              options.fixed_timing ? (options.ignore_timestamp ? "back-to-back" : delay) : "",
              options.fixed_timing ? ")" : "", options.ignore_channel ? ", ignore-channel" : "");
    }
    vxcli_replay_sink sink = {};
    sink.context = &destinations;
    sink.send = send_can;
    sink.running = &g_replay_running;
    vxcli_replay_result result;
    vxcli_replay_run(&input, &plan, &sink, &result);
    print_summary(result, opened, options.file);
    status = result.errors ? 1 : 0;
  } while (false);

  for (int m = 0; m < VXCLI_REPLAY_MAX_MAPS; m++)
    if (mapped[m]) VX_Close(mapped[m]);
  vxcli_log_close_channels(channels, opened);
  vxcli_replay_input_close(&input);
  sigaction(SIGINT, &previous, nullptr);
  return status;
}
