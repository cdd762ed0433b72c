// The daemon's structured request parser and its error envelope.
#include <cstdint>
#include <cstring>
#include <vector>

#include "daemon/daemon.h"
#include "fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string line = fuzz::text(data, size);
  static daemon_ipc_request request;
  if (daemon_parse_ipc_request(line.c_str(), &request) == 0) {
    // argv must be a null-terminated list of strings inside the request.
    for (int i = 0; i < request.argc; i++) {
      if (!request.argv[i]) __builtin_trap();
      (void)strlen(request.argv[i]);
    }
    if (request.argv[request.argc] != nullptr) __builtin_trap();
  }
  daemon_request_wants_json(line.c_str());
  static std::vector<char> envelope(1 << 16);
  daemon_json_error_envelope(line.c_str(), envelope.data(), envelope.size());
  return 0;
}
