#include "database/sha256.h"

#include <openssl/evp.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace {

void set_error(char* error, size_t size, const char* format, const char* a, const char* b) {
  if (error && size) snprintf(error, size, format, a, b);
}

}  // namespace

int vxcli_sha256_file(const char* path, char* hex, size_t hex_size, char* error,
                      size_t error_size) {
  if (!path || !*path || !hex || hex_size < 65) {
    set_error(error, error_size, "%s%s", "invalid arguments for file hashing", "");
    return -1;
  }
  hex[0] = 0;
  FILE* file = fopen(path, "rb");
  if (!file) {
    set_error(error, error_size, "cannot open %.200s for hashing: %s", path, strerror(errno));
    return -1;
  }
  std::unique_ptr<FILE, int (*)(FILE*)> closer(file, fclose);
  std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) {
    set_error(error, error_size, "%s%s", "cannot initialise SHA-256", "");
    return -1;
  }
  unsigned char buffer[65536];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, file)) > 0) {
    if (EVP_DigestUpdate(context.get(), buffer, n) != 1) {
      set_error(error, error_size, "%s%s", "SHA-256 update failed", "");
      return -1;
    }
  }
  if (ferror(file)) {
    set_error(error, error_size, "cannot read %.200s for hashing: %s", path, strerror(errno));
    return -1;
  }
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int digest_length = 0;
  if (EVP_DigestFinal_ex(context.get(), digest, &digest_length) != 1 || digest_length != 32) {
    set_error(error, error_size, "%s%s", "SHA-256 finalisation failed", "");
    return -1;
  }
  static const char digits[] = "0123456789abcdef";
  for (unsigned i = 0; i < 32; i++) {
    hex[2 * i] = digits[digest[i] >> 4];
    hex[2 * i + 1] = digits[digest[i] & 15];
  }
  hex[64] = 0;
  return 0;
}
