// External seed/key libraries: a shared object exporting GenerateKeyExOpt or
// GenerateKeyEx, called with seven arguments.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr uint32_t VXCLI_SEEDKEY_MAX_KEY = 64;

struct vxcli_seedkey {
  void* handle;
  void* function;
  const char* symbol;  // the name found
};

// 0, or -1 with the loader's message.
int vxcli_seedkey_load(const char* path, vxcli_seedkey* out, char* error_text, size_t error_size);
// Fills key (64 bytes) and *key_length; -1 when the library claims a longer key.
int vxcli_seedkey_compute(const vxcli_seedkey* library, const uint8_t* seed, uint32_t seed_length,
                          uint32_t level, uint8_t* key, uint32_t* key_length, char* error_text,
                          size_t error_size);
void vxcli_seedkey_close(vxcli_seedkey* library);
