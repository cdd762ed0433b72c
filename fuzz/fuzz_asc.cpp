// ASC line parser, fed line by line as replay and conversion do.
#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz_util.h"
#include "logging/asc.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text = fuzz::text(data, size);
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(start, end - start);
    vxcli_log_frame frame;
    int kind = vxcli_parse_asc_event(line.c_str(), &frame);
    if (kind == 1) {
      if (frame.length < 0 || frame.length > 64) __builtin_trap();
      // What the writer makes of a parsed frame must parse back to the same frame.
      char written[512];
      vxcli_log_frame again;
      if (vxcli_asc_format_frame(written, sizeof written, frame.time, &frame) < 0 ||
          vxcli_parse_asc_event(written, &again) != 1)
        __builtin_trap();
      if (again.id != frame.id || again.extended != frame.extended || again.is_lin != frame.is_lin ||
          again.fd != frame.fd || again.brs != frame.brs || again.remote != frame.remote ||
          again.length != frame.length || memcmp(again.data, frame.data, frame.length) != 0)
        __builtin_trap();
    }
    vxcli_parse_asc_line(line.c_str(), &frame);
    uint8_t bytes[64];
    parse_hex_data(line.c_str(), bytes, 64);
    start = end + 1;
  }
  return 0;
}
