// SHA-256 of a file's content.
#pragma once

#include <cstddef>

// Writes 64 lowercase hexadecimal digits and a NUL into hex (hex_size >= 65).
// 0, or -1 with a message in error.
int vxcli_sha256_file(const char* path, char* hex, size_t hex_size, char* error, size_t error_size);
