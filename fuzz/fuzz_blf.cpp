// BLF reader over whole files. An input that is not a file ("LOGG...") is the
// inflated content of one zlib container and is wrapped here into a valid
// file, so mutations reach the object stream behind the decompressor.
#include <zlib.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz_util.h"
#include "logging/blf_reader.h"

namespace {

void put32(std::vector<uint8_t>& out, size_t at, uint32_t v) {
  for (int i = 0; i < 4; i++) out[at + i] = static_cast<uint8_t>(v >> (8 * i));
}

std::vector<uint8_t> wrap_compressed(const uint8_t* data, size_t size) {
  uLongf packed_size = compressBound(size);
  std::vector<uint8_t> packed(packed_size);
  if (compress2(packed.data(), &packed_size, data, size, 6) != Z_OK) return {};
  std::vector<uint8_t> file(144 + 32 + packed_size, 0);
  memcpy(file.data(), "LOGG", 4);
  put32(file, 4, 144);
  memcpy(file.data() + 144, "LOBJ", 4);
  put32(file, 148, 0x00010010);
  put32(file, 152, static_cast<uint32_t>(32 + packed_size));
  put32(file, 156, 10);
  file[160] = 2;  // method: zlib
  put32(file, 168, static_cast<uint32_t>(size));
  memcpy(file.data() + 176, packed.data(), packed_size);
  return file;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static fuzz::MemFile file("fuzz.blf");
  if (size >= 4 && memcmp(data, "LOGG", 4) == 0) {
    if (!file.set(data, size)) return 0;
  } else {
    std::vector<uint8_t> wrapped = wrap_compressed(data, size);
    if (wrapped.empty() || !file.set(wrapped.data(), wrapped.size())) return 0;
  }
  BLFReader* reader = BLFReader_init(file.path());
  if (!reader) return 0;
  vxcli_blf_start_time_ns(reader);
  vxcli_log_frame frame;
  uint32_t objects = 0;
  // Every call consumes input, so the file size bounds the loop; the cap is a
  // backstop that turns a reader stuck in place into a reported hang.
  for (int i = 0; i < 1000000; i++) {
    int rc = vxcli_blf_next_frame(reader, &frame, &objects);
    if (rc <= 0) break;
    if (frame.length < 0 || frame.length > 64) __builtin_trap();
  }
  BLFReader_close(reader);
  return 0;
}
