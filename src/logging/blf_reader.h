// BLF reader. Containers are entered and their contents read as one
// continuous object stream, so objects may span containers; stored (method 0)
// and zlib-compressed (method 2) containers are accepted, the latter inflated
// through fixed-size buffers. Any structural fault yields -1; the reader does
// not resynchronise.
#pragma once

#include <cstddef>
#include <cstdint>

#include "logging/file_access.h"
#include "logging/log_frame.h"

struct BLFReaderStream;

struct BLFReader {
  FIL file;
  uint64_t file_size;
  uint8_t header[72];       // first 72 bytes of the file header, as read
  uint64_t position;        // raw file position
  uint32_t count;           // objects returned
  uint8_t lin_model[32][64];
  uint8_t lin_known[32][64];
  BLFReaderStream* stream;  // object stream over the containers' contents
};

BLFReader* BLFReader_init(const char* path);
void BLFReader_close(BLFReader* reader);

// 1 a frame was delivered, 2 a non-frame object was consumed, 0 end of file,
// -1 malformed file or bad arguments. base_header_out receives the 16-byte
// base header, header_ext_out the version-1 extension (flags, client, object
// version, timestamp), frame_out the 84-byte frame record of the reported type.
int BLFReader_getnextmsg(BLFReader* reader, uint8_t base_header_out[16],
                         uint8_t header_ext_out[16], uint8_t frame_out[84], uint32_t* type_out);

uint64_t BLFReader_timestampToNanoseconds(uint32_t flags, uint64_t ts);

// Raw file access; moving the position restarts the object stream there.
int BLFReader_fseek(BLFReader* reader, int64_t offset, int whence);
size_t BLFReader_fread(BLFReader* reader, void* buf, size_t size, size_t count);
const uint8_t* BLFReader_getFileHeader(const BLFReader* reader);
uint64_t BLFReader_getFileSize(const BLFReader* reader);
// 1 when exactly n bytes were read (skipped); 0 when that would overflow or
// pass the file size.
int read_exact(BLFReader* reader, void* buf, uint64_t n);
int skip_exact(BLFReader* reader, uint64_t n);

// Reads the next CAN, CAN FD, LIN or error frame as a log frame (time relative
// to the file's start). 1 a frame, 0 end of file, -1 malformed. Non-frame
// objects are passed over; *objects (if given) counts every object read.
int vxcli_blf_next_frame(BLFReader* reader, vxcli_log_frame* frame, uint32_t* objects);
// Converts a frame record delivered by BLFReader_getnextmsg; 1, or -1 when the
// record is malformed (a classic frame longer than 8 bytes, FD beyond 64).
int vxcli_blf_frame_to_log(uint32_t type, const uint8_t header_ext[16], const uint8_t frame[84],
                           vxcli_log_frame* out);
// Measurement start of the file header as nanoseconds since 1970 (UTC, as
// written by this writer), or 0 when the header carries no valid time.
uint64_t vxcli_blf_start_time_ns(const BLFReader* reader);
