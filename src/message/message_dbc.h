// The frame commands' only contact with DBC databases.
#pragma once

#include <cstddef>
#include <cstdint>

struct DbcLoadedFile;

// Encodes signal assignments of a DBC message (name, or "0x.." identifier) into a 64-byte
// payload; *flags receives VXCLI_FRAME_IDE/FDF/BRS. 0, or -1 with a reason in error.
int vxcli_message_dbc_encode(const char* message, const char* database, int count,
                             const char* const* names, const double* values, uint8_t out[64],
                             int* length, uint32_t* id, uint32_t* flags, char* error,
                             size_t error_size);

// The database --decode uses, resolved once per capture; null with a reason in error.
const DbcLoadedFile* vxcli_message_dbc_open(const char* database, char* error, size_t error_size);

// Decodes a frame's payload as a JSON object ({"message":...,"signals":{...}}) or, with
// text set, as "Name: signal=value unit, ..."; 0, or -1 when the frame is not described.
int vxcli_message_dbc_decode(const DbcLoadedFile* database, uint32_t id, const uint8_t* data,
                             int length, bool text, char* out, size_t out_size);
