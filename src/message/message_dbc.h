// The frame commands' only contact with DBC databases.
#pragma once

#include <cstddef>
#include <cstdint>

// Encodes signal assignments of a DBC message into a 64-byte payload. 0, or -1 with a
// reason in error (database not resolved, message not found, no DBC support).
int vxcli_message_dbc_encode(const char* message, const char* database, int count,
                             const char** names, const double* values, uint8_t out[64],
                             int* length, uint32_t* id, uint32_t* flags, char* error,
                             size_t error_size);

// Decodes a frame's payload into a JSON object; 0, or -1 when the frame is not described.
int vxcli_message_dbc_decode(uint32_t id, const char* database, const uint8_t* data, int length,
                             char* out, size_t out_size);
