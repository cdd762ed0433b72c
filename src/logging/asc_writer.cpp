#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "logging/asc.h"

namespace {

const char kHex[] = "0123456789ABCDEF";

struct Out {
  char* p;
  size_t left;
  bool overflow;
};

void put(Out* o, const char* format, ...) __attribute__((format(printf, 2, 3)));
void put(Out* o, const char* format, ...) {
  if (o->overflow) return;
  va_list args;
  va_start(args, format);
  int n = vsnprintf(o->p, o->left, format, args);
  va_end(args);
  if (n < 0 || (size_t)n >= o->left) {
    o->overflow = true;
    return;
  }
  o->p += n;
  o->left -= (size_t)n;
}

// Data bytes as " %02X" each (lead blank) or "%02X" joined by blanks.
void put_bytes(Out* o, const uint8_t* data, int count, bool lead) {
  if (o->overflow) return;
  size_t need = (size_t)count * 3 + 1;
  if (need > o->left) {
    o->overflow = true;
    return;
  }
  char* p = o->p;
  for (int i = 0; i < count; i++) {
    if (lead || i > 0) *p++ = ' ';
    *p++ = kHex[data[i] >> 4];
    *p++ = kHex[data[i] & 15];
  }
  *p = '\0';
  o->left -= (size_t)(p - o->p);
  o->p = p;
}

}  // namespace

int vxcli_asc_format_frame(char* out, size_t size, double seconds, const vxcli_log_frame* f) {
  if (!out || !f || size == 0) return -1;
  Out o = {out, size, false};
  const char* dir = f->tx ? "Tx" : "Rx";
  int length = f->length < 0 ? 0 : f->length > 64 ? 64 : f->length;
  if (f->is_lin) {
    int n = f->dlc < 0 ? 0 : f->dlc > 8 ? 8 : f->dlc;
    put(&o, "%.6f L%d %02X %s %d", seconds, f->channel, (unsigned)f->id & 0x3F, dir, n);
    put_bytes(&o, f->data, n, true);
    put(&o, " checksum = %02X CSM = %s\n", f->lin_checksum,
        f->lin_enhanced ? "enhanced" : "classic");
  } else if (f->error) {
    put(&o, "%.6f %d  ErrorFrame\n", seconds, f->channel);
  } else if (f->fd) {
    put(&o, "%.6f CANFD %3d %s    %8X%s %32s %d %d %x %2d ", seconds, f->channel, dir, f->id,
        f->extended ? "x" : "", "", f->brs ? 1 : 0, f->esi ? 1 : 0, f->dlc & 0x0F,
        f->remote ? 0 : length);
    if (f->remote)
      put(&o, "r");
    else
      put_bytes(&o, f->data, length, false);
    // Flags column: EDL, BRS, ESI, so that other readers tell FD frames apart.
    unsigned flags = 0x1000u | (f->brs ? 0x2000u : 0) | (f->esi ? 0x4000u : 0);
    put(&o, " %8d %4d %08X %8X %8d %8d %8d %8d\n", 0, 0, flags, 0u, 0, 0, 0, 0);
  } else {
    put(&o, "%.6f %2d  ", seconds, f->channel);
    if (f->extended) {
      // The "x" belongs to the identifier; the column is padded after it.
      char id[16];
      snprintf(id, sizeof id, "%Xx", f->id);
      put(&o, "%-8s", id);
    } else {
      put(&o, "%-8X", f->id);
    }
    put(&o, " %4s ", dir);
    if (f->remote) {
      put(&o, "r %x\n", f->dlc & 0x0F);
    } else {
      put(&o, "d %x", f->dlc & 0x0F);
      put_bytes(&o, f->data, length, true);
      put(&o, "\n");
    }
  }
  return o.overflow ? -1 : (int)(size - o.left);
}

int vxcli_asc_format_header(char* out, size_t size, const struct tm* start,
                            const vxcli_asc_channel_label* labels, int count) {
  static const char* const kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  if (!out || !start || size == 0) return -1;
  Out o = {out, size, false};
  int hour12 = start->tm_hour % 12 == 0 ? 12 : start->tm_hour % 12;
  put(&o, "date %s %s %d %d:%02d:%02d %s %d\n", kDays[(unsigned)start->tm_wday % 7],
      kMonths[(unsigned)start->tm_mon % 12], start->tm_mday, hour12, start->tm_min, start->tm_sec,
      start->tm_hour < 12 ? "am" : "pm", start->tm_year + 1900);
  put(&o, "base hex  timestamps absolute\n");
  put(&o, "no internal events logged\n");
  put(&o, "// version 8.1.0\n");
  if (count > 0) {
    put(&o, "// channel mapping (logical = SN/port physical):\n");
    for (int i = 0; i < count; i++)
      put(&o, "//   ch%d = SN%s/port%d\n", labels[i].channel,
          labels[i].serial ? labels[i].serial : "", labels[i].port);
  }
  put(&o, "Begin Triggerblock\n");
  return o.overflow ? -1 : (int)(size - o.left);
}

struct vxcli_asc_writer {
  FILE* file;
  bool failed;
  char buffer[64 * 1024];
};

vxcli_asc_writer* vxcli_asc_open(const char* path, time_t start,
                                 const vxcli_asc_channel_label* labels, int count, char* message,
                                 size_t message_size) {
  auto fail = [&](const char* text) -> vxcli_asc_writer* {
    if (message && message_size) snprintf(message, message_size, "%s", text);
    return nullptr;
  };
  if (!path || !*path) return fail("no output path");
  if (count < 0 || (count > 0 && !labels)) return fail("bad channel labels");
  vxcli_asc_writer* w = static_cast<vxcli_asc_writer*>(calloc(1, sizeof(vxcli_asc_writer)));
  if (!w) return fail("out of memory");
  w->file = fopen(path, "w");
  if (!w->file) {
    free(w);
    if (message && message_size) snprintf(message, message_size, "Failed to create file: %s", path);
    return nullptr;
  }
  setvbuf(w->file, w->buffer, _IOFBF, sizeof w->buffer);
  struct tm local;
  localtime_r(&start, &local);
  size_t size = 512 + (size_t)count * 96;
  char* header = static_cast<char*>(malloc(size));
  int n = header ? vxcli_asc_format_header(header, size, &local, labels, count) : -1;
  if (n < 0 || fwrite(header, 1, (size_t)n, w->file) != (size_t)n || fflush(w->file) != 0) {
    free(header);
    fclose(w->file);
    free(w);
    return fail("Failed to write the log header");
  }
  free(header);
  return w;
}

int vxcli_asc_write(vxcli_asc_writer* w, double seconds, const vxcli_log_frame* frame) {
  if (!w || !frame) return -1;
  if (w->failed) return -1;
  char line[512];
  int n = vxcli_asc_format_frame(line, sizeof line, seconds, frame);
  if (n < 0 || fwrite(line, 1, (size_t)n, w->file) != (size_t)n) {
    w->failed = true;
    return -1;
  }
  return 1;
}

int vxcli_asc_flush(vxcli_asc_writer* w) {
  if (!w) return -1;
  if (fflush(w->file) != 0) w->failed = true;
  return w->failed ? -1 : 0;
}

int vxcli_asc_close(vxcli_asc_writer* w) {
  if (!w) return -1;
  bool ok = !w->failed;
  if (fputs("End TriggerBlock\n", w->file) < 0) ok = false;
  if (fclose(w->file) != 0) ok = false;
  free(w);
  return ok ? 0 : -1;
}
