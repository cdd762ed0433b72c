// Seed/key plug-ins. The exported function's result is not trusted: only the
// key length it stores decides whether the key is usable.
#include "diag/seedkey.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstring>
#include <initializer_list>

namespace {

using generate_key_fn = int (*)(const unsigned char* seed, unsigned int seed_length,
                                unsigned int security_level, const char* variant,
                                unsigned char* key, unsigned int max_key_length,
                                unsigned int* key_length);

}  // namespace

int vxcli_seedkey_load(const char* path, vxcli_seedkey* out, char* error_text, size_t error_size) {
  memset(out, 0, sizeof *out);
  dlerror();
  void* handle = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (!handle) {
    const char* why = dlerror();
    snprintf(error_text, error_size, "--algo '%s' could not be loaded: %s", path,
             why ? why : "unknown error");
    return -1;
  }
  for (const char* name : {"GenerateKeyExOpt", "GenerateKeyEx"}) {
    void* fn = dlsym(handle, name);
    if (fn) {
      out->handle = handle;
      out->function = fn;
      out->symbol = name;
      return 0;
    }
  }
  dlclose(handle);
  snprintf(error_text, error_size,
           "security library '%s' does not export GenerateKeyEx or GenerateKeyExOpt", path);
  return -1;
}

int vxcli_seedkey_compute(const vxcli_seedkey* library, const uint8_t* seed, uint32_t seed_length,
                          uint32_t level, uint8_t* key, uint32_t* key_length, char* error_text,
                          size_t error_size) {
  if (!library || !library->function) {
    snprintf(error_text, error_size, "security library is not loaded");
    return -1;
  }
  auto fn = reinterpret_cast<generate_key_fn>(library->function);
  unsigned int length = 0;
  memset(key, 0, VXCLI_SEEDKEY_MAX_KEY);
  fn(seed, seed_length, level, nullptr, key, VXCLI_SEEDKEY_MAX_KEY, &length);
  if (length > VXCLI_SEEDKEY_MAX_KEY) {
    snprintf(error_text, error_size, "security library returned a %u-byte key (at most %u)", length,
             VXCLI_SEEDKEY_MAX_KEY);
    return -1;
  }
  *key_length = length;
  return 0;
}

void vxcli_seedkey_close(vxcli_seedkey* library) {
  if (library && library->handle) dlclose(library->handle);
  if (library) memset(library, 0, sizeof *library);
}
