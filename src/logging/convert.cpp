// "convert <input> <output>": ASC and BLF traces in either direction; the
// format of each side follows its extension.
#include <strings.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>

#include "cli/hooks.h"
#include "cli/output.h"
#include "json/json.h"
#include "logging/asc.h"
#include "logging/blf_writer.h"
#include "logging/replay_input.h"

namespace {

enum Kind { kUnknown, kAsc, kBlf };

Kind kind_of(const char* path) {
  if (vxcli_path_is_blf(path)) return kBlf;
  const char* dot = strrchr(path, '.');
  return dot && strcasecmp(dot + 1, "asc") == 0 ? kAsc : kUnknown;
}

bool same_file(const char* a, const char* b) {
  char* ra = realpath(a, nullptr);
  char* rb = realpath(b, nullptr);
  bool same = ra && rb && strcmp(ra, rb) == 0;
  free(ra);
  free(rb);
  return same;
}

int month_index(const char* word) {
  static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  for (int i = 0; i < 12; i++)
    if (strncasecmp(word, kMonths[i], 3) == 0) return i;
  return -1;
}

// The "date" header line as local wall-clock nanoseconds, or 0. Accepts the
// 24-hour form and the 12-hour form with am/pm, with or without milliseconds.
uint64_t asc_date_ns(const char* path) {
  FILE* file = fopen(path, "r");
  if (!file) return 0;
  char line[256];
  uint64_t result = 0;
  for (int i = 0; i < 20 && fgets(line, sizeof line, file); i++) {
    if (strncmp(line, "date ", 5) != 0) continue;
    char weekday[16], month[16], clock[32], fourth[16], fifth[16];
    int day = 0;
    int n = sscanf(line + 5, "%15s %15s %d %31s %15s %15s", weekday, month, &day, clock, fourth,
                   fifth);
    if (n < 5) break;
    int hour = 0, minute = 0, second = 0, ms = 0;
    if (sscanf(clock, "%d:%d:%d.%d", &hour, &minute, &second, &ms) < 3) break;
    const char* year_text = fourth;
    if (strcasecmp(fourth, "am") == 0 || strcasecmp(fourth, "pm") == 0) {
      if (n < 6) break;
      hour %= 12;
      if (strcasecmp(fourth, "pm") == 0) hour += 12;
      year_text = fifth;
    }
    struct tm tm = {};
    tm.tm_year = atoi(year_text) - 1900;
    tm.tm_mon = month_index(month);
    tm.tm_mday = day;
    tm.tm_hour = hour;
    tm.tm_min = minute;
    tm.tm_sec = second;
    tm.tm_isdst = -1;
    if (tm.tm_mon < 0 || tm.tm_year < 70) break;
    time_t t = mktime(&tm);
    if (t > 0) result = (uint64_t)t * 1000000000ULL + (uint64_t)(ms % 1000) * 1000000ULL;
    break;
  }
  fclose(file);
  return result;
}

uint64_t now_ns() {
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return (uint64_t)ts.tv_sec * 1000000000ULL + (uint64_t)ts.tv_nsec;
}

void print_summary(int frames, const char* input, const char* output) {
  if (vxcli_json_mode()) {
    vxcli_json_writer w;
    if (vxcli_json_writer_init(&w, 256, 1 << 20) == 0) {
      vxcli_json_writer_printf(&w, "{\"status\":\"ok\",\"frames\":%d,\"input\":", frames);
      vxcli_json_writer_string(&w, input);
      vxcli_json_writer_raw(&w, ",\"output\":");
      vxcli_json_writer_string(&w, output);
      vxcli_json_writer_raw(&w, "}\n");
      if (vxcli_json_writer_ok(&w))
        fwrite(vxcli_json_writer_data(&w), 1, vxcli_json_writer_length(&w), stdout);
      vxcli_json_writer_free(&w);
    }
    return;
  }
  printf("Converted %d frame(s) from %s to %s\n", frames, input, output);
}

}  // namespace

int vxcli_convert_command(int count, char** words) {
  const char* paths[2] = {nullptr, nullptr};
  int positional = 0;
  for (int i = 0; i < count; i++) {
    if (strncmp(words[i], "--", 2) == 0) continue;
    if (positional < 2) paths[positional] = words[i];
    positional++;
  }
  if (positional != 2) {
    vxcli_print_error("usage: vxcli convert <input.asc|input.blf> <output.asc|output.blf>");
    return 1;
  }
  const char* input_path = paths[0];
  const char* output_path = paths[1];
  Kind in_kind = kind_of(input_path), out_kind = kind_of(output_path);
  if (in_kind == kUnknown || out_kind == kUnknown) {
    vxcli_print_error("unsupported conversion: %s -> %s (use .asc or .blf files)", input_path,
                      output_path);
    return 1;
  }
  if (same_file(input_path, output_path)) {
    vxcli_print_error("input and output are the same file: %s", input_path);
    return 1;
  }
  vxcli_replay_input input;
  if (vxcli_replay_input_open(&input, input_path) != 0) {
    vxcli_print_error("Failed to open file: %s", input_path);
    return 1;
  }
  input.include_errors = 1;
  uint64_t start_ns = in_kind == kBlf ? vxcli_blf_start_time_ns(input.blf) : asc_date_ns(input_path);
  if (start_ns == 0) start_ns = now_ns();

  vxcli_blf_handle* blf = nullptr;
  vxcli_asc_writer* asc = nullptr;
  char message[1100];
  if (out_kind == kBlf) {
    blf = vxcli_blf_open(output_path, start_ns);
    if (!blf) snprintf(message, sizeof message, "Failed to create file: %s", output_path);
  } else {
    asc = vxcli_asc_open(output_path, (time_t)(start_ns / 1000000000ULL), nullptr, 0, message,
                         sizeof message);
  }
  if (!blf && !asc) {
    vxcli_replay_input_close(&input);
    vxcli_print_error("%s", message);
    return 1;
  }
  int frames = 0;
  int rc;
  bool write_failed = false;
  vxcli_log_frame frame;
  while ((rc = vxcli_replay_input_next(&input, &frame)) == 1) {
    if (frame.channel < 1) continue;  // nothing to record it under
    int written = blf ? vxcli_blf_write_frame(blf, start_ns + frame.time_ns, &frame)
                      : vxcli_asc_write(asc, frame.time, &frame);
    if (written < 0) {
      write_failed = true;
      break;
    }
    frames++;
  }
  uint32_t record = input.records;
  vxcli_replay_input_close(&input);
  int closed = blf ? vxcli_blf_close(blf) : vxcli_asc_close(asc);
  if (rc < 0 || write_failed || closed != 0) {
    unlink(output_path);  // a half-converted file would pass for a complete one
    if (rc < 0)
      vxcli_print_error("Malformed or unsupported record in %s (record %u)", input_path, record);
    else
      vxcli_print_error("Failed to write %s", output_path);
    return 1;
  }
  print_summary(frames, input_path, output_path);
  return 0;
}
