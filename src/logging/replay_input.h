// Replay input: the frames of an ASC or BLF trace, whichever the path names.
#pragma once

#include <cstdint>
#include <cstdio>

#include "logging/blf_reader.h"
#include "logging/log_frame.h"

// The replay record is the log layer's frame record.
typedef vxcli_log_frame vxcli_replay_record;

struct vxcli_replay_input {
  char path[1024];
  int is_blf;
  FILE* asc;
  BLFReader* blf;
  uint32_t records;        // ASC lines or BLF objects read since the last rewind
  int include_errors;      // deliver error frames too (conversion); replay leaves them out
  int relative_times;      // the ASC header declared relative time stamps
  double previous_time;    // running sum for relative time stamps
  char line[1024];
};

// 0, or -1 (null argument, empty path, path of 1024 characters or more, open failure).
// A path ending in ".blf" (any case) is read as BLF, anything else as ASC.
int vxcli_replay_input_open(vxcli_replay_input* input, const char* path);
// 1 a record, 0 end of input, -1 read error or malformed BLF object.
int vxcli_replay_input_next(vxcli_replay_input* input, vxcli_replay_record* record);
// 0 or -1; resets the record counter.
int vxcli_replay_input_rewind(vxcli_replay_input* input);
void vxcli_replay_input_close(vxcli_replay_input* input);
// True when the path's extension is "blf" in any letter case.
bool vxcli_path_is_blf(const char* path);
