// Replay: option parsing, channel choice and timing, independent of how a
// frame finally reaches the bus (standalone channels or daemon slots).
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "logging/replay_input.h"

enum : int { VXCLI_REPLAY_MAX_CHANNELS = 16, VXCLI_REPLAY_MAX_MAPS = 16 };

struct vxcli_replay_options {
  const char* channel;        // --channel list as given
  const char* file;
  const char* bitrate;        // null = default
  double speed;               // > 0
  int loop;
  int ignore_channel;
  int map_strict;
  int ignore_timestamp;
  int fixed_timing;           // --msg-delay given or --ignore-timestamp
  int has_msg_delay;
  long msg_delay_ms;          // >= 0
  long cycle_delay_ms;        // >= 0
  int map_text_count;         // every --map-channel seen (may exceed the maximum)
  const char* map_texts[VXCLI_REPLAY_MAX_MAPS + 1];
};

// Reads the replay start options; 0, or -1 with the message to report.
int vxcli_replay_parse_options(int count, char** words, vxcli_replay_options* options,
                               char* message, size_t message_size);

struct vxcli_replay_map {
  int asc_channel;  // recorded channel, 0-64
  char spec[64];    // destination channel (serial/port, unique id, index or name)
};
// Splits "N:spec"; 0, or -1 with the message to report.
int vxcli_replay_parse_map(const char* text, vxcli_replay_map* map, char* message,
                           size_t message_size);

// What the pass loop needs to know about the destinations. Destinations
// 0..channel_count-1 are the opened channels (numbered 1..N in list order);
// destination channel_count + m is mapping m.
struct vxcli_replay_plan {
  double speed;
  int fixed_timing;
  long msg_delay_ms;
  long cycle_delay_ms;
  int loop;
  int ignore_channel;
  int map_strict;
  int channel_count;
  int map_count;
  int map_asc[VXCLI_REPLAY_MAX_MAPS];
  int map_open[VXCLI_REPLAY_MAX_MAPS];
  int verbose;
};

struct vxcli_replay_sink {
  void* context;
  // Sends one CAN record; 0 on success, otherwise the device status.
  uint32_t (*send)(void* context, int destination, const vxcli_replay_record* record);
  // Sends one LIN record; null when LIN records cannot be sent here.
  uint32_t (*send_lin)(void* context, int destination, const vxcli_replay_record* record);
  // Sleeps; null = sleep for real, waking early when running clears.
  void (*sleep_us)(void* context, int64_t microseconds);
  std::atomic<int>* running;  // cleared to stop after the record in hand
  FILE* log;                  // diagnostics (stderr when null)
  const char* log_prefix;     // put before each diagnostic line (null: none)
};

struct vxcli_replay_result {
  int sent;
  int errors;
  int passes;
};

// Destination for a record's channel, or -1 to drop it; *counted is set when
// the drop counts as an error (strict mapping).
int vxcli_replay_destination(const vxcli_replay_plan* plan, int recorded_channel, int* counted);
// Milliseconds to wait before a record at time after one at previous (-1 = first).
double vxcli_replay_delay_ms(const vxcli_replay_plan* plan, double previous, double time);
// Runs passes over the input until it ends (or loops until stopped). 0, or -1
// when the input could not be rewound (counted as an error).
int vxcli_replay_run(vxcli_replay_input* input, const vxcli_replay_plan* plan,
                     const vxcli_replay_sink* sink, vxcli_replay_result* result);

// Running flag of the standalone replay, cleared by SIGINT.
extern std::atomic<int> g_replay_running;
void replay_signal_handler(int signal_number);
