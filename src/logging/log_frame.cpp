#include "logging/log_frame.h"

namespace {
const int kFdLengths[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 20, 24, 32, 48, 64};
}

int vxcli_log_dlc_to_length(int dlc) {
  if (dlc <= 0) return 0;
  if (dlc >= 15) return 64;
  return kFdLengths[dlc];
}

int vxcli_log_length_to_dlc(int length) {
  if (length <= 8) return length < 0 ? 0 : length;
  for (int code = 9; code < 15; code++)
    if (length <= kFdLengths[code]) return code;
  return 15;
}
