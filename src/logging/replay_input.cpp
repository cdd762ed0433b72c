#include "logging/replay_input.h"

#include <strings.h>

#include <cmath>
#include <cstring>

#include "logging/asc.h"

bool vxcli_path_is_blf(const char* path) {
  if (!path) return false;
  const char* dot = strrchr(path, '.');
  return dot && strlen(dot + 1) == 3 && strcasecmp(dot + 1, "blf") == 0;
}

namespace {

int open_source(vxcli_replay_input* in) {
  if (in->is_blf) {
    in->blf = BLFReader_init(in->path);
    return in->blf ? 0 : -1;
  }
  in->asc = fopen(in->path, "r");
  return in->asc ? 0 : -1;
}

// Reads one line of at most 1023 characters; the rest of a longer line is dropped.
bool read_line(vxcli_replay_input* in) {
  if (!fgets(in->line, sizeof in->line, in->asc)) return false;
  size_t n = strlen(in->line);
  if (n == sizeof in->line - 1 && in->line[n - 1] != '\n') {
    int c;
    while ((c = getc(in->asc)) != EOF && c != '\n') {
    }
  }
  return true;
}

int next_asc(vxcli_replay_input* in, vxcli_replay_record* record) {
  while (read_line(in)) {
    in->records++;
    int rc = vxcli_parse_asc_event(in->line, record);
    if (rc == 0) {
      if (strncmp(in->line, "base ", 5) == 0)
        in->relative_times = strstr(in->line, "timestamps relative") != nullptr;
      continue;
    }
    if (in->relative_times) {
      // Each stamp counts from the previous line; replay needs them absolute.
      in->previous_time += record->time;
      record->time = in->previous_time;
      record->time_ns = record->time > 0 ? (uint64_t)llround(record->time * 1e9) : 0;
    }
    if (rc == 2 && !in->include_errors) continue;
    return 1;
  }
  return ferror(in->asc) ? -1 : 0;
}

}  // namespace

int vxcli_replay_input_open(vxcli_replay_input* in, const char* path) {
  if (!in) return -1;
  memset(in, 0, sizeof *in);
  if (!path || !*path || strlen(path) >= sizeof in->path) return -1;
  strcpy(in->path, path);
  in->is_blf = vxcli_path_is_blf(path);
  return open_source(in);
}

int vxcli_replay_input_next(vxcli_replay_input* in, vxcli_replay_record* record) {
  if (!in || !record) return -1;
  if (!in->is_blf) return in->asc ? next_asc(in, record) : -1;
  if (!in->blf) return -1;
  for (;;) {
    int rc = vxcli_blf_next_frame(in->blf, record, &in->records);
    if (rc <= 0) return rc;
    if (record->error && !in->include_errors) continue;
    return 1;
  }
}

int vxcli_replay_input_rewind(vxcli_replay_input* in) {
  if (!in) return -1;
  in->records = 0;
  in->previous_time = 0;
  in->relative_times = 0;
  if (in->is_blf) {
    BLFReader_close(in->blf);
    in->blf = nullptr;
    return open_source(in);
  }
  if (!in->asc) return -1;
  rewind(in->asc);
  return ferror(in->asc) ? -1 : 0;
}

void vxcli_replay_input_close(vxcli_replay_input* in) {
  if (!in) return;
  if (in->asc) fclose(in->asc);
  in->asc = nullptr;
  BLFReader_close(in->blf);
  in->blf = nullptr;
}
