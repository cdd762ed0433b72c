#include "logging/log_output.h"

#include <time.h>

#include <algorithm>
#include <cstdlib>
#include <cstdio>

#include "logging/blf_writer.h"
#include "logging/log_device.h"

struct vxcli_log_output {
  uint64_t start_ns;
  // Records stamped by a device clock rather than wall-clock (PTP) time are
  // moved onto the wall clock by the offset seen at the first of them.
  bool have_offset;
  uint64_t device_offset;
  vxcli_asc_writer* asc;
  vxcli_blf_handle* blf;
  bool failed;
};

vxcli_log_output* vxcli_log_output_open(const char* path, bool blf, uint64_t start_ns,
                                        const vxcli_asc_channel_label* labels, int count,
                                        char* message, size_t size) {
  auto* out = static_cast<vxcli_log_output*>(calloc(1, sizeof(vxcli_log_output)));
  if (!out) {
    if (message && size) snprintf(message, size, "out of memory");
    return nullptr;
  }
  out->start_ns = start_ns;
  if (blf) {
    out->blf = vxcli_blf_open(path, start_ns);
    if (!out->blf && message && size) snprintf(message, size, "Failed to create file: %s", path);
  } else {
    out->asc = vxcli_asc_open(path, (time_t)(start_ns / 1000000000ULL), labels, count, message, size);
  }
  if (!out->blf && !out->asc) {
    free(out);
    return nullptr;
  }
  return out;
}

long vxcli_log_output_write(vxcli_log_output* out, vxcli_log_record* records, size_t count) {
  if (!out) return -1;
  if (out->failed) return -1;
  if (count > 1)
    std::stable_sort(records, records + count,
                     [](const vxcli_log_record& a, const vxcli_log_record& b) { return a.ns < b.ns; });
  const uint64_t kDay = 86400ULL * 1000000000ULL;
  for (size_t i = 0; i < count; i++) {
    vxcli_log_record& r = records[i];
    if (r.ns + kDay >= out->start_ns) continue;
    if (!out->have_offset) {
      struct timespec now;
      clock_gettime(CLOCK_REALTIME, &now);
      out->device_offset = (uint64_t)now.tv_sec * 1000000000ULL + (uint64_t)now.tv_nsec - r.ns;
      out->have_offset = true;
    }
    r.ns += out->device_offset;
  }
  long written = 0;
  for (size_t i = 0; i < count; i++) {
    const vxcli_log_record& r = records[i];
    vxcli_log_frame frame;
    if (!vxcli_log_frame_from_message(&r.message, r.logical, &frame)) continue;
    int rc;
    if (out->blf) {
      rc = vxcli_blf_write_frame(out->blf, r.ns, &frame);
    } else {
      double seconds = r.ns > out->start_ns ? (double)(r.ns - out->start_ns) / 1e9 : 0.0;
      rc = vxcli_asc_write(out->asc, seconds, &frame);
    }
    if (rc < 0) {
      out->failed = true;
      return -1;
    }
    written += rc;
  }
  return written;
}

namespace {

int sync(vxcli_log_output* out, bool close_container) {
  if (!out) return -1;
  if (out->asc && vxcli_asc_flush(out->asc) != 0) out->failed = true;
  if (out->blf) blf_writer_sync(vxcli_blf_writer(out->blf), close_container);
  return out->failed ? -1 : 0;
}

}  // namespace

int vxcli_log_output_flush(vxcli_log_output* out) { return sync(out, false); }

int vxcli_log_output_checkpoint(vxcli_log_output* out) { return sync(out, true); }

int vxcli_log_output_close(vxcli_log_output* out) {
  if (!out) return -1;
  int closed = out->blf ? vxcli_blf_close(out->blf) : vxcli_asc_close(out->asc);
  bool ok = !out->failed && closed == 0;
  free(out);
  return ok ? 0 : -1;
}
