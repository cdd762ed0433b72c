// JSON reader: tokenise, then read every string and integer token back. The
// input is also written as a JSON string, which must read back unchanged.
#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz_util.h"
#include "json/json.h"

namespace {

void check_string_round_trip(const std::string& text) {
  vxcli_json_writer writer;
  if (vxcli_json_writer_init(&writer, 64, 1 << 20) != 0) return;
  vxcli_json_writer_raw(&writer, "[");
  vxcli_json_writer_string(&writer, text.c_str());  // up to the first NUL
  vxcli_json_writer_raw(&writer, "]");
  if (vxcli_json_writer_ok(&writer)) {
    std::string document(vxcli_json_writer_data(&writer), vxcli_json_writer_length(&writer));
    vxcli_json_token tokens[2];
    std::vector<char> back(text.size() + 1);
    if (vxcli_json_parse(document.c_str(), tokens, 2) != 2 ||
        vxcli_json_string(document.c_str(), &tokens[1], back.data(), back.size()) < 0 ||
        strcmp(back.data(), text.c_str()) != 0)
      __builtin_trap();
  }
  vxcli_json_writer_free(&writer);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text = fuzz::text(data, size);
  check_string_round_trip(text);
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
