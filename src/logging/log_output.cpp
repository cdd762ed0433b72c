#include "logging/log_output.h"

#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "logging/blf_writer.h"
#include "logging/log_device.h"

namespace {

const uint64_t kHoldBackNs = 100000000ULL;
const uint64_t kQuietNs = 100000000ULL;
const size_t kHeldLimit = 65536;
const uint64_t kDayNs = 86400ULL * 1000000000ULL;

uint64_t clock_ns(clockid_t clock) {
  struct timespec ts;
  clock_gettime(clock, &ts);
  return (uint64_t)ts.tv_sec * 1000000000ULL + (uint64_t)ts.tv_nsec;
}

bool by_time(const vxcli_log_record& a, const vxcli_log_record& b) { return a.ns < b.ns; }

}  // namespace

struct vxcli_log_output {
  uint64_t start_ns;
  vxcli_asc_writer* asc;
  vxcli_blf_handle* blf;
  bool failed;
  // Records stamped by a device clock rather than wall-clock (PTP) time are
  // moved onto the wall clock by the offset seen at the first of them.
  bool have_offset;
  uint64_t device_offset;
  std::vector<vxcli_log_record> held;  // in time order
  uint64_t newest;
  uint64_t last_added;  // monotonic
};

vxcli_log_output* vxcli_log_output_open(const char* path, bool blf, uint64_t start_ns,
                                        const vxcli_asc_channel_label* labels, int count,
                                        char* message, size_t size) {
  auto* out = new (std::nothrow) vxcli_log_output();
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
    delete out;
    return nullptr;
  }
  return out;
}

namespace {

// Writes the first count held records and drops them from the hold.
long write_held(vxcli_log_output* out, size_t count) {
  long written = 0;
  for (size_t i = 0; i < count && !out->failed; i++) {
    const vxcli_log_record& r = out->held[i];
    vxcli_log_frame frame;
    if (!vxcli_log_frame_from_message(&r.message, r.logical, &frame)) continue;
    int rc;
    if (out->blf) {
      rc = vxcli_blf_write_frame(out->blf, r.ns, &frame);
    } else {
      double seconds = r.ns > out->start_ns ? (double)(r.ns - out->start_ns) / 1e9 : 0.0;
      rc = vxcli_asc_write(out->asc, seconds, &frame);
    }
    if (rc < 0) out->failed = true;
    else written += rc;
  }
  out->held.erase(out->held.begin(), out->held.begin() + (long)count);
  return out->failed ? -1 : written;
}

}  // namespace

long vxcli_log_output_write(vxcli_log_output* out, const vxcli_log_record* records, size_t count) {
  if (!out || out->failed) return -1;
  uint64_t now = clock_ns(CLOCK_MONOTONIC);
  if (count > 0) {
    size_t middle = out->held.size();
    out->held.insert(out->held.end(), records, records + count);
    for (size_t i = middle; i < out->held.size(); i++) {
      vxcli_log_record& r = out->held[i];
      if (r.ns + kDayNs < out->start_ns) {
        if (!out->have_offset) {
          out->device_offset = clock_ns(CLOCK_REALTIME) - r.ns;
          out->have_offset = true;
        }
        r.ns += out->device_offset;
      }
      if (r.ns > out->newest) out->newest = r.ns;
    }
    std::stable_sort(out->held.begin() + (long)middle, out->held.end(), by_time);
    std::inplace_merge(out->held.begin(), out->held.begin() + (long)middle, out->held.end(), by_time);
    out->last_added = now;
  }
  size_t due;
  if (now - out->last_added >= kQuietNs) {
    due = out->held.size();
  } else {
    vxcli_log_record limit;
    limit.ns = out->newest > kHoldBackNs ? out->newest - kHoldBackNs : 0;
    due = (size_t)(std::upper_bound(out->held.begin(), out->held.end(), limit, by_time) - out->held.begin());
  }
  if (out->held.size() - due > kHeldLimit) due = out->held.size() - kHeldLimit;
  return due ? write_held(out, due) : 0;
}

long vxcli_log_output_write_all(vxcli_log_output* out) {
  if (!out || out->failed) return -1;
  return write_held(out, out->held.size());
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
  if (!out->failed) write_held(out, out->held.size());
  int closed = out->blf ? vxcli_blf_close(out->blf) : vxcli_asc_close(out->asc);
  bool ok = !out->failed && closed == 0;
  delete out;
  return ok ? 0 : -1;
}
