// Option helpers shared by the frame commands.
#include "message/options.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "cli/output.h"

bool vxcli_message_parse_long(const char* text, long* out) {
  if (!text || !*text) return false;
  errno = 0;
  char* end = nullptr;
  long value = strtol(text, &end, 10);
  if (errno != 0 || !end || *end || end == text) return false;
  if (*text == ' ' || *text == '\t') return false;
  *out = value;
  return true;
}

bool vxcli_message_refuse_legacy_options(int count, char** words) {
  // The bus follows from the channel; electrical settings have their own names now.
  if (vxcli_has_flag(count, words, "bus") || vxcli_has_flag(count, words, "tres") ||
      vxcli_has_flag(count, words, "voltage")) {
    vxcli_print_error("bus is inferred; use --pullup/--power for standalone LIN");
    return true;
  }
  return false;
}

int vxcli_message_collect_option(int count, char** words, const char* name, const char** values,
                                 int max) {
  int found = 0;
  size_t length = strlen(name);
  for (int i = 0; i < count && found < max; i++) {
    const char* word = words[i];
    if (!word || strncmp(word, "--", 2) != 0 || strncmp(word + 2, name, length) != 0) continue;
    const char* rest = word + 2 + length;
    if (*rest == '=') values[found++] = rest + 1;
    else if (*rest == 0 && i + 1 < count) values[found++] = words[++i];
  }
  return found;
}

void vxcli_message_sleep_ms(uint32_t ms) {
  timespec ts = {static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
  while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
  }
}

uint64_t vxcli_message_monotonic_ms() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000 + static_cast<uint64_t>(ts.tv_nsec) / 1000000;
}
