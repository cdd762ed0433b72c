// Intel HEX and S-record readers; the first byte picks the reader.
#include <cstdint>
#include <string>
#include <vector>

#include "diag/image.h"
#include "fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  std::string text = fuzz::text(data + 1, size - 1);
  std::vector<vxcli_image_segment> segments;
  char error[256];
  int rc = (data[0] & 1) ? vxcli_image_parse_srec(text, &segments, error, sizeof error)
                         : vxcli_image_parse_ihex(text, &segments, error, sizeof error);
  vxcli_image_detect("fuzz.bin", text);
  if (rc != 0) return 0;
  // Segments come out sorted and non-overlapping.
  for (size_t i = 1; i < segments.size(); i++) {
    uint64_t previous_end = uint64_t{segments[i - 1].address} + segments[i - 1].data.size();
    if (segments[i].address < previous_end) __builtin_trap();
  }
  return 0;
}
