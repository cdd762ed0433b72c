#include "logging/blf_writer.h"

#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "logging/blf_bytes.h"
#include "message/frame.h"

using namespace blf;

namespace {

const uint64_t kBefore1990Ns = 631151999999999999ULL;

uint64_t container_size(uint64_t contained) { return contained + pad4(contained) + 32; }

const uint32_t kBatchSize = 256 * 1024;
const uint64_t kBatchAgeNs = 100000000ULL;

uint64_t monotonic_ns() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
  return (uint64_t)ts.tv_sec * 1000000000ULL + (uint64_t)ts.tv_nsec;
}

void write_header(BLFWriter* w) {
  uint8_t header[kFileHeaderPrefix];
  memset(header, 0, sizeof header);
  uint64_t position = f_tell(&w->file);
  memcpy(header, "LOGG", 4);
  wr32(header + 4, kFileHeaderSize);
  header[8] = 5;  // application id
  header[12] = 2;
  header[13] = 5;
  header[14] = 8;
  header[15] = 1;
  wr64(header + 16, position);
  wr64(header + 24, position);
  // Only objects in written containers: the header names what the file holds.
  wr32(header + 32, w->object_count - w->open_objects);
  uint16_t times[8];
  vxcli_blf_calendar_time(w->start_ns, times);
  for (int i = 0; i < 8; i++) wr16(header + 40 + 2 * i, times[i]);
  vxcli_blf_calendar_time(w->last_ns, times);
  for (int i = 0; i < 8; i++) wr16(header + 56 + 2 * i, times[i]);
  if (f_write_at(&w->file, 0, header, sizeof header) != FR_OK) w->failed = 1;
}

// Writes the collected containers and then the header that names them.
void write_batch(BLFWriter* w) {
  if (w->failed) {
    w->batch_used = 0;
    return;
  }
  if (w->batch_used) {
    const FSIZE_t before = w->file.pos;
    UINT written = 0;
    FRESULT result = f_write(&w->file, w->batch, w->batch_used, &written);
    if (result != FR_OK || written != w->batch_used) {
      // Cut the partial batch off: the file ends on its last whole container
      // again, and the header, left as it is, still describes it.
      w->failed = 1;
      w->batch_used = 0;
      if (ftruncate(fileno(w->file.fp), (off_t)before) == 0 && f_lseek(&w->file, before) == FR_OK)
        w->file.fsize = before;
      return;
    }
    w->batch_used = 0;
  }
  write_header(w);
  w->batches_written++;
  w->batch_since_ns = monotonic_ns();
}

void flush(BLFWriter* w) {
  if (w->used == 0) return;
  uint32_t pad = pad4(w->used + 32);
  if (kBatchSize - w->batch_used < w->used + 32 + pad) write_batch(w);
  uint8_t* head = w->batch + w->batch_used;
  memset(head, 0, 32);
  memcpy(head, "LOBJ", 4);
  wr32(head + 4, kContainerHeaderWord);
  wr32(head + 8, w->used + 32);
  wr32(head + 12, kTypeLogContainer);
  wr16(head + 16, 0);  // stored
  wr32(head + 24, w->used);
  memcpy(head + 32, w->buffer, w->used);
  memset(head + 32 + w->used, 0, pad);
  w->batch_used += w->used + 32 + pad;
  w->total_bytes += w->used + 32;
  w->used = 0;
  w->open_objects = 0;
}

// After a container flush: write the batch when it is the first container,
// when the batch is nearly full, or when it has waited long enough.
void checkpoint(BLFWriter* w) {
  if (w->batches_written == 0 || kBatchSize - w->batch_used < kContainerCapacity + 36 ||
      monotonic_ns() - w->batch_since_ns >= kBatchAgeNs)
    write_batch(w);
}

// Appends an object header and returns its zeroed payload area, or null for
// an object larger than a container. Inlined with constant lengths, the
// header and the zeroing become a few plain stores.
inline uint8_t* reserve(BLFWriter* w, uint32_t type, uint32_t length, uint64_t ts_ns) {
  uint64_t relative = 0;
  if (w->start_ns == 0)
    w->start_ns = ts_ns;
  else
    relative = ts_ns - w->start_ns;
  w->last_ns = ts_ns;
  uint32_t pad = pad4(length);
  if (w->capacity - w->used < pad + length + 32) {
    flush(w);
    checkpoint(w);
    if (w->capacity - w->used < pad + length + 32) return nullptr;
  }
  uint8_t* p = w->buffer + w->used;
  static const uint8_t kHead[8] = {'L', 'O', 'B', 'J', 32, 0, 1, 0};
  memcpy(p, kHead, sizeof kHead);
  wr32(p + 8, length + 32);
  wr32(p + 12, type);
  wr64(p + 16, 2);  // nanoseconds; client index and object version 0
  wr64(p + 24, relative);
  memset(p + 32, 0, length + pad);
  w->used += 32 + length + pad;
  w->object_count++;
  w->open_objects++;
  return p + 32;
}

uint64_t logical_position(BLFWriter* w) { return f_tell(&w->file) + w->batch_used; }

// Days since 1970-01-01 to proleptic Gregorian year, month and day.
void civil_from_days(int64_t days, int64_t* year, unsigned* month, unsigned* day) {
  days += 719468;
  int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  unsigned doe = (unsigned)(days - era * 146097);
  unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  int64_t y = (int64_t)yoe + era * 400;
  unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  unsigned mp = (5 * doy + 2) / 153;
  *day = doy - (153 * mp + 2) / 5 + 1;
  *month = mp < 10 ? mp + 3 : mp - 9;
  *year = y + (*month <= 2);
}

}  // namespace

void vxcli_blf_calendar_time(uint64_t ns, uint16_t out[8]) {
  memset(out, 0, 8 * sizeof(uint16_t));
  if (ns <= kBefore1990Ns) return;
  uint64_t seconds = ns / 1000000000ULL;
  uint64_t days = seconds / 86400;
  uint64_t rest = seconds % 86400;
  int64_t year;
  unsigned month, day;
  civil_from_days((int64_t)days, &year, &month, &day);
  out[0] = (uint16_t)year;
  out[1] = (uint16_t)month;
  out[2] = (uint16_t)((days + 3) % 7 + 1);  // Monday = 1, kept on purpose
  out[3] = (uint16_t)day;
  out[4] = (uint16_t)(rest / 3600);
  out[5] = (uint16_t)(rest / 60 % 60);
  out[6] = (uint16_t)(rest % 60);
  out[7] = (uint16_t)(ns / 1000000ULL % 1000);
}

BLFWriter* create_blf_writer(const char* path, int32_t channel_selector, uint64_t start_ns) {
  if (!path) return nullptr;
  BLFWriter* w = static_cast<BLFWriter*>(calloc(1, sizeof(BLFWriter)));
  if (!w) return nullptr;
  w->batch = static_cast<uint8_t*>(malloc(kBatchSize));
  if (!w->batch || f_open(&w->file, path, FA_WRITE | FA_CREATE_ALWAYS) != FR_OK) {
    free(w->batch);
    free(w);
    return nullptr;
  }
  setvbuf(w->file.fp, nullptr, _IONBF, 0);  // batches are already whole writes
  uint8_t zeros[kFileHeaderSize];
  memset(zeros, 0, sizeof zeros);
  UINT written = 0;
  if (f_write(&w->file, zeros, sizeof zeros, &written) != FR_OK || written != sizeof zeros) {
    f_close(&w->file);
    free(w->batch);
    free(w);
    return nullptr;
  }
  w->total_bytes = kFileHeaderSize;
  w->start_ns = start_ns;
  w->channel_selector = channel_selector;
  w->capacity = kContainerCapacity;
  w->batch_since_ns = monotonic_ns();
  return w;
}

BLFWriter* create_blf_writer_default(const char* path, uint64_t start_ns) {
  return create_blf_writer(path, -1, start_ns);
}

void destroy_blf_writer(BLFWriter* writer) {
  if (!writer) return;
  if (writer->file.fp) {
    flush(writer);
    write_batch(writer);
    f_close(&writer->file);
  }
  free(writer->batch);
  free(writer);
}

void blf_writer_sync(BLFWriter* writer, bool close_container) {
  if (!writer || !writer->file.fp) return;
  if (close_container) flush(writer);
  if (writer->batch_used) write_batch(writer);
}

void on_can_message_received(BLFWriter* w, uint64_t ts_ns, uint32_t id, const uint8_t* data,
                             uint8_t dlc, int channel_index, bool extended, bool remote,
                             bool error, bool fd, bool received, bool brs, bool esi) {
  if (!w) return;
  uint16_t channel = (uint16_t)(channel_index + 1);
  uint32_t ident = id | (extended ? 0x80000000u : 0);
  uint8_t flags = (uint8_t)((received ? 0 : 0x01) | (remote ? 0x80 : 0));
  if (error) {
    uint8_t* p = reserve(w, kTypeCanErrorExt, 32, ts_ns);
    if (!p) return;
    wr16(p, channel);
    p[10] = dlc;
    p[11] = 255;
    wr32(p + 12, 1);
    wr32(p + 16, ident);
    if (data) memcpy(p + 24, data, dlc > 8 ? 8 : dlc);
  } else if (fd) {
    uint8_t* p = reserve(w, kTypeCanFdMessage, 84, ts_ns);
    if (!p) return;
    int valid = vxcli_dlc_to_bytes(dlc & 0x0F);
    wr16(p, channel);
    p[2] = flags;
    p[3] = (uint8_t)(dlc & 0x0F);
    wr32(p + 4, ident);
    p[13] = (uint8_t)(0x01 | (brs ? 0x02 : 0) | (esi ? 0x04 : 0));
    p[14] = (uint8_t)valid;
    if (data && !remote) memcpy(p + 20, data, (size_t)valid);
  } else {
    uint8_t* p = reserve(w, kTypeCanMessage, 16, ts_ns);
    if (!p) return;
    uint8_t capped = dlc > 8 ? 8 : dlc;
    wr16(p, channel);
    p[2] = flags;
    p[3] = capped;
    wr32(p + 4, ident);
    if (data && !remote) {
      if (capped == 8)
        memcpy(p + 8, data, 8);  // the usual case, as one store
      else
        memcpy(p + 8, data, capped);
    }
  }
}

void on_lin_message_received_ex(BLFWriter* w, uint64_t ts_ns, uint8_t id, const uint8_t* data,
                                uint8_t length, int channel_index, uint8_t checksum,
                                uint8_t direction, uint8_t header_time, uint8_t full_time,
                                uint8_t checksum_model, bool write_model) {
  if (!w) return;
  uint16_t channel = (uint16_t)(channel_index + 1);
  if (write_model && checksum_model < 2) {
    uint8_t* info = reserve(w, kTypeLinChecksumInfo, 8, ts_ns);
    if (info) {
      wr16(info, channel);
      info[2] = id;
      info[3] = checksum_model;
    }
  }
  uint8_t* p = reserve(w, kTypeLinMessage, 24, ts_ns);
  if (!p) return;
  uint8_t capped = length > 8 ? 8 : length;
  wr16(p, channel);
  p[2] = id;
  p[3] = capped;
  if (data) memcpy(p + 4, data, capped);
  p[14] = header_time;
  p[15] = full_time;
  wr16(p + 16, checksum);
  p[18] = direction;
}

void on_lin_message_received(BLFWriter* w, uint64_t ts_ns, uint8_t id, const uint8_t* data,
                             uint8_t length, int channel_index, uint8_t checksum,
                             uint8_t direction) {
  on_lin_message_received_ex(w, ts_ns, id, data, length, channel_index, checksum, direction, 0,
                             0, 2, false);
}

void on_ethernetex_frame_received(BLFWriter* w, uint64_t ts_ns, const uint8_t* frame,
                                  uint16_t length, uint16_t direction) {
  if (!w) return;
  if (length > 1612) length = 1612;  // keeps the object inside one container
  uint8_t* p = reserve(w, kTypeEthernetFrameEx, 32u + length, ts_ns);
  if (!p) return;
  wr16(p, (uint16_t)(length + 64));
  wr16(p + 4, 1);
  wr64(p + 8, 1);
  wr16(p + 20, direction);
  wr16(p + 22, length);
  if (frame && length) memcpy(p + 32, frame, length);
}

bool blf_writer_failed(const BLFWriter* w) { return w && w->failed; }

uint64_t blf_writer_current_file_size(BLFWriter* w) {
  if (!w || !w->file.fp) return 0;
  uint64_t position = logical_position(w);
  return w->used ? position + container_size(w->used) : position;
}

uint64_t blf_writer_projected_file_size(BLFWriter* w, uint32_t payload_len) {
  if (!w || !w->file.fp) return 0;
  uint64_t position = logical_position(w);
  uint64_t object = (uint64_t)payload_len + pad4(payload_len) + 32;
  if (w->capacity - w->used >= object) return position + container_size(w->used + object);
  return position + (w->used ? container_size(w->used) : 0) + container_size(object);
}

struct vxcli_blf_handle {
  BLFWriter* writer;
};

vxcli_blf_handle* vxcli_blf_open(const char* path, uint64_t start_ns) {
  if (!path || !*path) return nullptr;
  vxcli_blf_handle* handle = static_cast<vxcli_blf_handle*>(calloc(1, sizeof *handle));
  if (!handle) return nullptr;
  handle->writer = create_blf_writer_default(path, start_ns);
  if (!handle->writer) {
    free(handle);
    return nullptr;
  }
  return handle;
}

int vxcli_blf_write_frame(vxcli_blf_handle* handle, uint64_t ts_ns, const vxcli_log_frame* f) {
  if (!handle || !handle->writer || !f || f->channel < 1 || handle->writer->failed) return -1;
  int index = f->channel - 1;
  if (f->is_lin) {
    on_lin_message_received_ex(handle->writer, ts_ns, (uint8_t)f->id, f->data,
                               (uint8_t)(f->dlc < 0 ? 0 : f->dlc), index, f->lin_checksum,
                               f->tx ? 1 : 0, 0, 0, f->lin_enhanced ? 1 : 0, true);
    return 1;
  }
  on_can_message_received(handle->writer, ts_ns, f->id, f->data, (uint8_t)(f->dlc & 0x0F), index,
                          f->extended != 0, f->remote != 0, f->error != 0, f->fd != 0, !f->tx,
                          f->brs != 0, f->esi != 0);
  return 1;
}

int vxcli_blf_close(vxcli_blf_handle* handle) {
  if (!handle) return -1;
  BLFWriter* w = handle->writer;
  if (w && w->file.fp) {
    flush(w);
    write_batch(w);
  }
  int rc = blf_writer_failed(w) ? -1 : 0;
  destroy_blf_writer(w);
  free(handle);
  return rc;
}

BLFWriter* vxcli_blf_writer(vxcli_blf_handle* handle) { return handle ? handle->writer : nullptr; }
