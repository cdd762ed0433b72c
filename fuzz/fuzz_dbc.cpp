// DBC reader, then decode and encode every message it produced.
#include <cstdint>
#include <sstream>
#include <vector>

#include "database/dbc.h"
#include "fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::istringstream stream(fuzz::text(data, size));
  DBCIterator dbc(stream);
  uint8_t payload[64];
  for (size_t i = 0; i < sizeof payload; i++) payload[i] = static_cast<uint8_t>(i * 37 + 11);
  std::vector<DbcSignalValue> values(64);
  size_t messages = 0;
  for (const Message& message : dbc) {
    if (++messages > 64) break;
    vxcli_dbc_decode_message(message, payload, sizeof payload, values.data(), values.size());
    char json[4096];
    vxcli_dbc_message_decode_json(message, payload, 8, json, sizeof json);
    std::vector<const char*> names;
    std::vector<double> physical;
    for (const Signal& signal : message.signals) {
      names.push_back(signal.name.c_str());
      physical.push_back(signal.maximum);
      if (names.size() >= 32) break;
    }
    uint8_t out[64];
    uint32_t length = 0;
    vxcli_dbc_encode_message(message, static_cast<int>(names.size()), names.data(), physical.data(),
                             out, &length);
    vxcli_dbc_encode_json(message, out, length > 64 ? 64 : length);
  }
  return 0;
}
