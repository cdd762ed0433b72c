// BLF writer: uncompressed files whose objects are grouped into log containers
// of at most 2560 payload bytes. The file header is rewritten after every
// container, so a file cut off by a crash still names its size and count.
#pragma once

#include <cstddef>
#include <cstdint>

#include "logging/file_access.h"
#include "logging/log_frame.h"

struct BLFWriter {
  uint64_t total_bytes;     // 144 plus every flushed container (payload + 32)
  uint32_t object_count;    // objects added, containers not counted
  FIL file;
  uint32_t used;            // bytes in buffer
  uint8_t buffer[2560];
  uint64_t start_ns;        // 0 = take the first object's time
  uint64_t last_ns;
  int32_t channel_selector; // kept for callers; not consulted
  uint32_t capacity;
  // Flushed containers are collected here (up to 256 KiB) and written in one
  // piece, then the header is rewritten: the file always ends on a whole
  // container and its header names exactly what is in it. The first container
  // and any batch older than a tenth of a second are written at once.
  uint8_t* batch;
  uint32_t batch_used;
  uint32_t batches_written;
  uint64_t batch_since_ns;  // monotonic time of the last batch write
  uint32_t open_objects;    // of object_count, those still in buffer
  int32_t failed;           // a write failed; nothing more is written
};

BLFWriter* create_blf_writer(const char* path, int32_t channel_selector, uint64_t start_ns);
BLFWriter* create_blf_writer_default(const char* path, uint64_t start_ns);
// Flushes, rewrites the header, closes and frees; null is accepted.
void destroy_blf_writer(BLFWriter* writer);
// Writes the completed containers still held back for a batched write, then
// the header. The open container stays in memory until it is full unless
// close_container is set. A long-running logger syncs after each round of
// frames, so that the file keeps up without shrinking containers, and closes
// the container when traffic pauses, so that a quiet bus is on disk too.
void blf_writer_sync(BLFWriter* writer, bool close_container);

// channel_index is 0-based. Type 73 when error, else 100 when fd, else 1.
void on_can_message_received(BLFWriter* writer, uint64_t ts_ns, uint32_t id, const uint8_t* data,
                             uint8_t dlc, int channel_index, bool extended, bool remote,
                             bool error, bool fd, bool received, bool brs, bool esi);
// A checksum model below 2 with write_model set first writes a type 42 object.
void on_lin_message_received_ex(BLFWriter* writer, uint64_t ts_ns, uint8_t id,
                                const uint8_t* data, uint8_t length, int channel_index,
                                uint8_t checksum, uint8_t direction, uint8_t header_time,
                                uint8_t full_time, uint8_t checksum_model, bool write_model);
void on_lin_message_received(BLFWriter* writer, uint64_t ts_ns, uint8_t id, const uint8_t* data,
                             uint8_t length, int channel_index, uint8_t checksum,
                             uint8_t direction);
void on_ethernetex_frame_received(BLFWriter* writer, uint64_t ts_ns, const uint8_t* frame,
                                  uint16_t length, uint16_t direction);

// True once a write failed (disk full, file-size limit). The file then ends
// on its last whole container and the writer accepts nothing more.
bool blf_writer_failed(const BLFWriter* writer);

// Size the file would have if closed now; 0 for a null or closed writer.
uint64_t blf_writer_current_file_size(BLFWriter* writer);
// Size after one more object of payload_len payload bytes.
uint64_t blf_writer_projected_file_size(BLFWriter* writer, uint32_t payload_len);

// Calendar time (year, month, weekday Monday=1, day, hour, minute, second, ms)
// in UTC; all zero before 1990.
void vxcli_blf_calendar_time(uint64_t ns, uint16_t out[8]);

// Facade used by the logging paths. The handle owns one writer.
struct vxcli_blf_handle;
vxcli_blf_handle* vxcli_blf_open(const char* path, uint64_t start_ns);
// Writes one frame with an absolute timestamp; the frame's channel (1-based)
// is the logical channel. LIN frames also record their checksum model.
// 1 written, 0 not a loggable frame, -1 bad arguments or a failed write.
int vxcli_blf_write_frame(vxcli_blf_handle* handle, uint64_t ts_ns, const vxcli_log_frame* frame);
// 0, or -1 for null or when any write failed.
int vxcli_blf_close(vxcli_blf_handle* handle);
BLFWriter* vxcli_blf_writer(vxcli_blf_handle* handle);
