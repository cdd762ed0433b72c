// Validation entry points of the database parsers, used by the registry.
#pragma once

#include <cstddef>
#include <cstdint>

// Parses and validates an LDF file. items = frames, members = signals.
// Returns 0, or -1 with one message in error.
int vxcli_ldf_inspect_file(const char* path, uint32_t* items, uint32_t* members, char* error,
                           size_t error_size);
