#include "logging/blf_reader.h"

#include <zlib.h>

#include <cstdlib>
#include <cstring>

#include "logging/blf_bytes.h"

using namespace blf;

namespace {

const size_t kWindow = 64 * 1024;    // inflated or stored bytes not yet parsed
const size_t kInput = 64 * 1024;     // compressed bytes read ahead
const size_t kMaxParse = 256;        // most bytes any object needs in one piece

enum StreamMode { kTop, kStored, kDeflate };

}  // namespace

struct BLFReaderStream {
  uint8_t out[kWindow];
  size_t head;
  size_t tail;
  uint8_t in[kInput];
  z_stream zs;
  bool zs_ready;
  bool zlib_header;  // the two-byte zlib header is still to be checked
  bool stream_end;
  bool failed;
  StreamMode mode;
  uint64_t raw_left;        // stored: bytes still to copy; deflate: compressed bytes unread
  uint64_t expected;        // deflate: declared uncompressed size
  uint64_t produced;
  uint32_t container_size;  // 0 for an object found outside any container
};

namespace {

bool raw_read(BLFReader* r, void* buf, uint64_t n) {
  if (n > r->file_size - r->position) return false;
  UINT got = 0;
  f_read(&r->file, buf, (UINT)n, &got);
  r->position += got;
  return got == n;
}

bool raw_seek(BLFReader* r, uint64_t target) {
  if (target > r->file_size || f_lseek(&r->file, target) != FR_OK) return false;
  r->position = target;
  return true;
}

void stream_restart(BLFReader* r) {
  BLFReaderStream* s = r->stream;
  s->head = s->tail = 0;
  s->mode = kTop;
  s->failed = false;
  s->raw_left = 0;
}

long stream_fail(BLFReaderStream* s) {
  s->failed = true;
  return -1;
}

// Padding after a container: (-size) & 3 by the format, but some writers put
// size % 4 bytes. The one followed by an object signature or the file's end wins.
int finish_container(BLFReader* r) {
  BLFReaderStream* s = r->stream;
  s->mode = kTop;
  if (s->container_size == 0) return 0;
  uint32_t pad = pad4(s->container_size);
  uint32_t alt = s->container_size % 4;
  uint64_t left = r->file_size - r->position;
  if (pad != alt) {
    uint8_t peek[8];
    uint64_t n = left < sizeof peek ? left : sizeof peek;
    uint64_t start = r->position;
    if (!raw_read(r, peek, n) || !raw_seek(r, start)) return -1;
    auto fits = [&](uint32_t p) { return p == left || (p + 4 <= n && is_lobj(peek + p)); };
    if (!fits(pad) && fits(alt)) pad = alt;
  }
  if (pad > left) pad = (uint32_t)left;  // a file may end without the last padding
  return raw_seek(r, r->position + pad) ? 0 : -1;
}

// Appends logical bytes to the window: >0 added, 0 end of file, -1 malformed.
long stream_more(BLFReader* r) {
  BLFReaderStream* s = r->stream;
  for (;;) {
    if (s->failed) return -1;
    size_t space = kWindow - s->tail;
    if (s->mode == kStored) {
      if (s->raw_left == 0) {
        if (finish_container(r) < 0) return stream_fail(s);
        continue;
      }
      size_t n = s->raw_left < space ? (size_t)s->raw_left : space;
      if (!raw_read(r, s->out + s->tail, n)) return stream_fail(s);
      s->raw_left -= n;
      s->tail += n;
      return (long)n;
    }
    if (s->mode == kDeflate) {
      if (s->stream_end) {
        if (s->produced != s->expected || !raw_seek(r, r->position + s->raw_left))
          return stream_fail(s);
        s->raw_left = 0;
        if (finish_container(r) < 0) return stream_fail(s);
        continue;
      }
      if (s->zs.avail_in == 0 && s->raw_left > 0) {
        size_t n = s->raw_left < kInput ? (size_t)s->raw_left : kInput;
        if (!raw_read(r, s->in, n)) return stream_fail(s);
        s->raw_left -= n;
        s->zs.next_in = s->in;
        s->zs.avail_in = (uInt)n;
      }
      if (s->zlib_header) {
        // Inflated raw: the trailing checksum would only report damage after
        // the frames before it were handed out, and costs a sixth of the time.
        if (s->zs.avail_in < 2) return stream_fail(s);
        uint8_t cmf = s->zs.next_in[0], flg = s->zs.next_in[1];
        if ((cmf & 0x0F) != 8 || (cmf >> 4) > 7 || ((cmf << 8) | flg) % 31 != 0 || (flg & 0x20))
          return stream_fail(s);
        s->zs.next_in += 2;
        s->zs.avail_in -= 2;
        s->zlib_header = false;
      }
      s->zs.next_out = s->out + s->tail;
      s->zs.avail_out = (uInt)space;
      int rc = inflate(&s->zs, Z_NO_FLUSH);
      size_t made = space - s->zs.avail_out;
      s->tail += made;
      s->produced += made;
      if (s->produced > s->expected) return stream_fail(s);
      if (rc == Z_STREAM_END) {
        s->stream_end = true;
      } else if (rc == Z_BUF_ERROR) {
        if (s->zs.avail_in == 0 && s->raw_left == 0) return stream_fail(s);  // cut short
      } else if (rc != Z_OK) {
        return stream_fail(s);
      }
      if (made > 0) return (long)made;
      continue;
    }
    // Top level: the next container, or an object outside any container.
    if (r->position >= r->file_size) return 0;
    uint8_t head[16];
    uint64_t left = r->file_size - r->position;
    if (left < sizeof head) {
      if (!raw_read(r, head, left)) return stream_fail(s);
      for (uint64_t i = 0; i < left; i++)
        if (head[i]) return stream_fail(s);
      return 0;  // trailing zero padding
    }
    if (!raw_read(r, head, sizeof head) || !is_lobj(head)) return stream_fail(s);
    uint32_t size = rd32(head + 8);
    if (rd32(head + 12) == kTypeLogContainer) {
      uint8_t ch[16];
      if (rd32(head + 4) != kContainerHeaderWord || size < 32 || !raw_read(r, ch, sizeof ch))
        return stream_fail(s);
      uint16_t method = rd16(ch);
      uint32_t declared = rd32(ch + 8);
      s->container_size = size;
      s->raw_left = size - 32;
      if (s->raw_left > r->file_size - r->position) return stream_fail(s);
      if (method == 0) {
        if (declared != size - 32) return stream_fail(s);
        s->mode = kStored;
      } else if (method == 2) {
        if (!s->zs_ready) {
          memset(&s->zs, 0, sizeof s->zs);
          if (inflateInit2(&s->zs, -15) != Z_OK) return stream_fail(s);
          s->zs_ready = true;
        } else if (inflateReset(&s->zs) != Z_OK) {
          return stream_fail(s);
        }
        s->zs.avail_in = 0;
        s->zlib_header = true;
        s->expected = declared;
        s->produced = 0;
        s->stream_end = false;
        s->mode = kDeflate;
      } else {
        return stream_fail(s);
      }
      continue;
    }
    if (size < 16 || space < 16) return stream_fail(s);
    memcpy(s->out + s->tail, head, 16);
    s->tail += 16;
    s->container_size = 0;
    s->raw_left = (uint64_t)size - 16 + pad4(size);
    if (s->raw_left > left - 16) s->raw_left = left - 16;
    s->mode = kStored;
    return 16;
  }
}

// Makes at least need bytes available when the stream has them; returns the
// count available (possibly fewer at the end), or -1 after a fault.
long stream_fill(BLFReader* r, size_t need) {
  BLFReaderStream* s = r->stream;
  if (s->tail - s->head >= need) return (long)(s->tail - s->head);
  // Keep room for a whole parse unit and for an object header found outside containers.
  if (kWindow - s->tail < kMaxParse || s->head == s->tail) {
    memmove(s->out, s->out + s->head, s->tail - s->head);
    s->tail -= s->head;
    s->head = 0;
  }
  while (s->tail - s->head < need) {
    long n = stream_more(r);
    if (n < 0) return -1;
    if (n == 0) break;
  }
  return (long)(s->tail - s->head);
}

bool stream_skip(BLFReader* r, uint64_t n) {
  BLFReaderStream* s = r->stream;
  while (n > 0) {
    if (s->head == s->tail) {
      s->head = s->tail = 0;
      if (stream_more(r) <= 0) return false;
    }
    size_t have = s->tail - s->head;
    size_t k = n < have ? (size_t)n : have;
    s->head += k;
    n -= k;
  }
  return true;
}

// Padding after an object inside the stream; tolerant of size % 4 like containers.
bool skip_object_padding(BLFReader* r, uint32_t size) {
  uint32_t pad = pad4(size);
  uint32_t alt = size % 4;
  if (pad != alt) {
    long have = stream_fill(r, alt + 4);
    if (have < 0) return false;
    const uint8_t* p = r->stream->out + r->stream->head;
    auto fits = [&](uint32_t k) { return (long)k == have || ((long)k + 4 <= have && is_lobj(p + k)); };
    if (!fits(pad) && fits(alt)) pad = alt;
  }
  return stream_skip(r, pad);
}

uint8_t bit_time(uint64_t span_ns, uint32_t baud, bool* overflow) {
  unsigned __int128 product = (unsigned __int128)span_ns * baud + 500000000u;
  *overflow = product > 255999999999ULL;
  return *overflow ? 255 : (uint8_t)(product / 1000000000u);
}

void map_lin2(const uint8_t* p, uint8_t* frame) {
  uint8_t dlc = p[38];
  wr16(frame, rd16(p + 12));
  frame[2] = p[37];
  frame[3] = dlc;
  memcpy(frame + 4, p + 112, 8);
  frame[12] = p[127];
  frame[13] = p[128];
  wr16(frame + 16, rd16(p + 120));
  frame[18] = p[122];
  uint8_t model = p[39];
  frame[24] = model;
  frame[25] = model <= 1;
  uint32_t baud = rd32(p + 8);
  wr32(frame + 28, baud);
  frame[32] = baud != 0;
  uint64_t sof = rd64(p);
  uint64_t eoh = rd64(p + 40);
  if (baud != 0 && eoh >= sof) {
    bool overflow;
    frame[14] = bit_time(eoh - sof, baud, &overflow);
    uint64_t last = rd64(p + 40 + 8 * dlc);
    if (last >= sof) {
      uint8_t t = bit_time(last - sof, baud, &overflow);
      frame[15] = (overflow || t > 245) ? 255 : (uint8_t)(t + 10);
    }
  }
}

// Frame record of a CAN FD 64 object; -1 when malformed.
int map_fd64(const uint8_t* p, uint32_t payload, uint8_t* frame, uint32_t* type) {
  uint8_t valid = p[2];
  if (valid > payload - 40) return -1;
  uint32_t copy = valid > 64 ? 64 : valid;
  uint32_t flags = rd32(p + 12);
  bool remote = flags & (1u << 4);
  uint8_t record_flags = (uint8_t)((remote ? 0x80 : 0) | (p[34] ? 1 : 0));
  wr16(frame, p[0]);
  frame[2] = record_flags;
  frame[3] = p[1];
  wr32(frame + 4, rd32(p + 4));
  if (flags & (1u << 12)) {
    wr32(frame + 8, rd32(p + 8));
    frame[13] = (uint8_t)(1 | ((flags >> 13) & 1) << 1 | ((flags >> 14) & 1) << 2);
    frame[14] = (uint8_t)copy;
    memcpy(frame + 20, p + 40, copy);
    *type = kTypeCanFdMessage;
  } else {
    if (p[1] > 8 || valid > 8) return -1;
    if (!remote) memcpy(frame + 8, p + 40, copy);
    *type = kTypeCanMessage;
  }
  return 1;
}

}  // namespace

BLFReader* BLFReader_init(const char* path) {
  if (!path) return nullptr;
  BLFReader* r = static_cast<BLFReader*>(calloc(1, sizeof(BLFReader)));
  if (!r) return nullptr;
  r->stream = static_cast<BLFReaderStream*>(calloc(1, sizeof(BLFReaderStream)));
  if (!r->stream || f_open(&r->file, path, FA_READ) != FR_OK) {
    free(r->stream);
    free(r);
    return nullptr;
  }
  r->file_size = f_size(&r->file);
  if (!raw_read(r, r->header, sizeof r->header) || memcmp(r->header, "LOGG", 4) != 0 ||
      rd32(r->header + 4) < 72 || rd32(r->header + 4) > r->file_size ||
      !raw_seek(r, rd32(r->header + 4))) {
    BLFReader_close(r);
    return nullptr;
  }
  stream_restart(r);
  return r;
}

void BLFReader_close(BLFReader* r) {
  if (!r) return;
  if (r->file.fp) f_close(&r->file);
  if (r->stream && r->stream->zs_ready) inflateEnd(&r->stream->zs);
  free(r->stream);
  free(r);
}

int BLFReader_getnextmsg(BLFReader* r, uint8_t base_out[16], uint8_t ext_out[16],
                         uint8_t frame[84], uint32_t* type_out) {
  if (!r || !base_out || !ext_out || !frame || !type_out) return -1;
  BLFReaderStream* s = r->stream;
  if (s->failed) return -1;
  long have = stream_fill(r, 16);
  if (have < 0) return -1;
  if (have == 0) return 0;
  const uint8_t* p = s->out + s->head;
  if (have < 16) {
    for (long i = 0; i < have; i++)
      if (p[i]) return stream_fail(s);
    s->head = s->tail;
    return 0;
  }
  if (!is_lobj(p)) return stream_fail(s);
  memcpy(base_out, p, 16);
  uint16_t header_size = rd16(p + 4);
  uint16_t version = rd16(p + 6);
  uint32_t size = rd32(p + 8);
  uint32_t type = rd32(p + 12);
  *type_out = type;
  if (type == kTypeLogContainer || size < header_size) return stream_fail(s);
  uint32_t ext_len = version == 1 ? 16 : version == 2 ? 24 : 0;
  if (ext_len == 0 || header_size < 16 + ext_len)
    return stream_fail(s);
  if (stream_fill(r, 16 + ext_len) < (long)(16 + ext_len)) return stream_fail(s);
  p = s->out + s->head + 16;
  memset(ext_out, 0, 16);
  if (version == 1) {
    memcpy(ext_out, p, 16);
  } else {
    wr32(ext_out, rd32(p));
    wr16(ext_out + 6, rd16(p + 6));
    wr64(ext_out + 8, rd64(p + 8));
  }
  s->head += 16 + ext_len;
  if (!stream_skip(r, header_size - 16 - ext_len)) return stream_fail(s);

  uint32_t payload = size - header_size;
  memset(frame, 0, 84);
  uint32_t need = 0;
  switch (type) {
    case kTypeCanMessage: case kTypeCanMessage2: need = 16; break;
    case kTypeLinMessage: need = 24; break;
    case kTypeLinChecksumInfo: need = 8; break;
    case kTypeLinMessage2: need = 132; break;
    case kTypeCanErrorExt: need = 32; break;
    case kTypeCanFdMessage: need = 84; break;
    case kTypeCanFdMessage64: need = 40; break;
    default: break;
  }
  if (payload < need) return stream_fail(s);
  uint32_t take = need;
  if (type == kTypeCanFdMessage64) take = payload < 40 + 64 ? payload : 40 + 64;
  if (take && stream_fill(r, take) < (long)take) return stream_fail(s);
  p = s->out + s->head;
  int result = 1;
  switch (type) {
    case kTypeCanMessage:
    case kTypeCanMessage2:
      memcpy(frame, p, 16);
      *type_out = kTypeCanMessage;
      break;
    case kTypeLinMessage: {
      memcpy(frame, p, 24);
      if (frame[3] > 8) return stream_fail(s);
      unsigned ch = rd16(frame) - 1u;
      uint8_t id = frame[2];
      if (ch < 32 && id < 64 && r->lin_known[ch][id]) {
        frame[24] = r->lin_model[ch][id];
        frame[25] = 1;
      }
      break;
    }
    case kTypeLinChecksumInfo: {
      unsigned ch = rd16(p) - 1u;
      uint8_t id = p[2], model = p[3];
      if (ch < 32 && id < 64 && model < 2) {
        r->lin_model[ch][id] = model;
        r->lin_known[ch][id] = 1;
      }
      result = 2;
      break;
    }
    case kTypeLinMessage2:
      if (p[38] > 8) return stream_fail(s);
      map_lin2(p, frame);
      break;
    case kTypeCanErrorExt:
      memcpy(frame, p, 32);
      break;
    case kTypeCanFdMessage:
      memcpy(frame, p, 84);
      break;
    case kTypeCanFdMessage64:
      if (map_fd64(p, payload, frame, type_out) < 0) return stream_fail(s);
      take = 0;  // the data bytes were only looked at; the whole payload is skipped below
      break;
    default:
      result = 2;
      break;
  }
  s->head += take;
  if (!stream_skip(r, payload - take) || !skip_object_padding(r, size)) return stream_fail(s);
  r->count++;
  return result;
}

uint64_t BLFReader_timestampToNanoseconds(uint32_t flags, uint64_t ts) {
  if (flags == 1) return ts >= 1844674407370956ULL ? UINT64_MAX : ts * 10000u;
  return ts;
}

int BLFReader_fseek(BLFReader* r, int64_t offset, int whence) {
  if (!r) return -1;
  int64_t base = whence == 1 ? (int64_t)r->position : whence == 2 ? (int64_t)r->file_size : 0;
  int64_t target;
  if (__builtin_add_overflow(base, offset, &target) || target < 0 ||
      (uint64_t)target > r->file_size)
    return -1;
  if (!raw_seek(r, (uint64_t)target)) return -1;
  stream_restart(r);
  return 0;
}

size_t BLFReader_fread(BLFReader* r, void* buf, size_t size, size_t count) {
  if (!r || !buf || size == 0 || count == 0) return 0;
  size_t total;
  if (__builtin_mul_overflow(size, count, &total)) return 0;
  uint64_t left = r->file_size - r->position;
  size_t items = total <= left ? count : (size_t)(left / size);
  size_t want = items * size, done = 0;
  while (done < want) {
    UINT chunk = want - done > (1u << 30) ? (1u << 30) : (UINT)(want - done);
    UINT got = 0;
    f_read(&r->file, static_cast<uint8_t*>(buf) + done, chunk, &got);
    done += got;
    if (got != chunk) break;
  }
  r->position += done;
  stream_restart(r);
  return done / size;
}

const uint8_t* BLFReader_getFileHeader(const BLFReader* r) { return r ? r->header : nullptr; }

uint64_t BLFReader_getFileSize(const BLFReader* r) { return r ? r->file_size : 0; }

int read_exact(BLFReader* r, void* buf, uint64_t n) {
  if (!r || (!buf && n) || n > r->file_size - r->position) return 0;
  stream_restart(r);
  return raw_read(r, buf, n) ? 1 : 0;
}

int skip_exact(BLFReader* r, uint64_t n) {
  if (!r || n > r->file_size - r->position) return 0;
  stream_restart(r);
  return raw_seek(r, r->position + n) ? 1 : 0;
}

int vxcli_blf_frame_to_log(uint32_t type, const uint8_t ext[16], const uint8_t f[84],
                           vxcli_log_frame* out) {
  memset(out, 0, sizeof *out);
  vxcli_log_frame_set_time_ns(out, BLFReader_timestampToNanoseconds(rd32(ext), rd64(ext + 8)));
  out->channel = rd16(f);
  if (type == kTypeLinMessage || type == kTypeLinMessage2) {
    out->is_lin = 1;
    out->id = f[2];
    out->dlc = out->length = f[3];
    memcpy(out->data, f + 4, 8);
    out->lin_checksum = (uint8_t)rd16(f + 16);
    out->lin_enhanced = f[25] ? f[24] : 0;
    out->tx = f[18] != 0;
    return 1;
  }
  if (type == kTypeCanErrorExt) {
    // An error frame has no identifier format of its own; some writers set
    // the extended bit on every identifier, so it is not reported here.
    out->error = 1;
    out->id = rd32(f + 16) & 0x7FFFFFFF;
    out->dlc = f[10];
    out->length = f[10] > 8 ? 8 : f[10];
    memcpy(out->data, f + 24, out->length);
    return 1;
  }
  if (type != kTypeCanMessage && type != kTypeCanFdMessage) return -1;
  uint32_t id = rd32(f + 4);
  out->id = id & 0x7FFFFFFF;
  out->extended = (id >> 31) & 1;
  out->remote = (f[2] & 0x80) != 0;
  out->tx = f[2] & 0x01;
  out->dlc = f[3];
  if (type == kTypeCanMessage) {
    int length = (out->remote || out->dlc > 15) ? 0 : vxcli_log_dlc_to_length(out->dlc);
    if (length > 8) return -1;
    out->length = length;
    memcpy(out->data, f + 8, length);
    return 1;
  }
  out->fd = f[13] & 0x01;
  out->brs = (f[13] >> 1) & 1;
  out->esi = (f[13] >> 2) & 1;
  int length = out->remote ? 0 : f[14];
  if (length > 64) return -1;
  out->length = length;
  memcpy(out->data, f + 20, length);
  return 1;
}

namespace {

// The common case in one step: a CAN or CAN FD object with a plain version-1
// header lying whole in the window. 1 done, -1 malformed, 0 take the long way.
int quick_frame(BLFReader* r, vxcli_log_frame* out) {
  BLFReaderStream* s = r->stream;
  size_t have = s->tail - s->head;
  if (have < 32 || s->failed) return 0;
  const uint8_t* p = s->out + s->head;
  uint32_t size = rd32(p + 8);
  uint32_t type = rd32(p + 12);
  if (!is_lobj(p) || rd32(p + 4) != 0x00010020u || (size & 1) || have < (size_t)size + pad4(size))
    return 0;
  const uint8_t* f = p + 32;
  memset(out, 0, sizeof *out);
  if (type == kTypeCanMessage) {
    if (size < 48) return 0;
    out->dlc = f[3];
    out->remote = (f[2] & 0x80) != 0;
    int length = (out->remote || out->dlc > 15) ? 0 : vxcli_log_dlc_to_length(out->dlc);
    if (length > 8) length = -1;
    else memcpy(out->data, f + 8, (size_t)length);
    out->length = length;
  } else if (type == kTypeCanFdMessage) {
    if (size < 116) return 0;
    out->dlc = f[3];
    out->remote = (f[2] & 0x80) != 0;
    out->fd = f[13] & 0x01;
    out->brs = (f[13] >> 1) & 1;
    out->esi = (f[13] >> 2) & 1;
    int length = out->remote ? 0 : f[14];
    if (length > 64) length = -1;
    else memcpy(out->data, f + 20, (size_t)length);
    out->length = length;
  } else {
    return 0;
  }
  vxcli_log_frame_set_time_ns(out, BLFReader_timestampToNanoseconds(rd32(p + 16), rd64(p + 24)));
  out->channel = rd16(f);
  uint32_t id = rd32(f + 4);
  out->id = id & 0x7FFFFFFF;
  out->extended = (id >> 31) & 1;
  out->tx = f[2] & 0x01;
  s->head += size + pad4(size);
  r->count++;
  return out->length < 0 ? -1 : 1;
}

}  // namespace

int vxcli_blf_next_frame(BLFReader* r, vxcli_log_frame* frame, uint32_t* objects) {
  if (!r || !frame) return -1;
  int quick = quick_frame(r, frame);
  if (quick != 0) {
    if (objects) (*objects)++;
    return quick;
  }
  uint8_t base[16], ext[16], record[84];
  for (;;) {
    uint32_t type = 0;
    int rc = BLFReader_getnextmsg(r, base, ext, record, &type);
    if (rc <= 0) return rc;
    if (objects) (*objects)++;
    if (rc == 2) continue;
    return vxcli_blf_frame_to_log(type, ext, record, frame) < 0 ? -1 : 1;
  }
}

uint64_t vxcli_blf_start_time_ns(const BLFReader* r) {
  if (!r) return 0;
  const uint8_t* t = r->header + 40;
  unsigned year = rd16(t), month = rd16(t + 2), day = rd16(t + 6);
  unsigned hour = rd16(t + 8), minute = rd16(t + 10), second = rd16(t + 12), ms = rd16(t + 14);
  if (year < 1970 || month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 ||
      minute > 59 || second > 60 || ms > 999)
    return 0;
  // Days from civil date (proleptic Gregorian).
  int64_t y = (int64_t)year - (month <= 2);
  int64_t era = y / 400;
  unsigned yoe = (unsigned)(y - era * 400);
  unsigned doy = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
  unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  int64_t days = era * 146097 + (int64_t)doe - 719468;
  uint64_t seconds = (uint64_t)days * 86400 + hour * 3600u + minute * 60u + second;
  return seconds * 1000000000ULL + ms * 1000000ULL;
}
