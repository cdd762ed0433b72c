// JSON reader: tokenise, then read every string and integer token back.
#include <cstdint>
#include <cstring>

#include "fuzz_util.h"
#include "json/json.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text = fuzz::text(data, size);
  static vxcli_json_token tokens[256];
  int count = vxcli_json_parse(text.c_str(), tokens, 256);
  if (count < 1) return 0;
  char out[64];
  for (int i = 0; i < count; i++) {
    int64_t number = 0;
    vxcli_json_string(text.c_str(), &tokens[i], out, sizeof out);
    vxcli_json_integer(text.c_str(), &tokens[i], &number);
    if (tokens[i].type == VXCLI_JSON_OBJECT) {
      vxcli_json_object_get(text.c_str(), tokens, i, "argv");
      vxcli_json_object_get(text.c_str(), tokens, i, "");
    }
  }
  // Walking siblings from the root must stay inside the token array.
  for (int index = 1; index > 0 && index < count;) index = vxcli_json_next(tokens, index);
  return 0;
}
