// Frame parsers, identifier layout and the per-frame printers.
#include "message/frame.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cli/output.h"
#include "json/json.h"

const char vxcli_can_csv_header[] = "timestamp,channel,direction,id,dlc,data,flags\n";
const char vxcli_lin_csv_header[] =
    "timestamp,channel,bus,direction,id,dlc,data,checksum_type,checksum,errors,header_only\n";

namespace {

const char kHex[] = "0123456789ABCDEF";

int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Whole-text number in the given base; false on empty text, junk, sign or overflow.
bool parse_whole(const char* text, int base, long* value) {
  if (!text || !*text) return false;
  for (const char* p = text; *p; p++) {
    if (base == 16 ? hex_value(*p) < 0 : !isdigit(static_cast<unsigned char>(*p))) return false;
  }
  errno = 0;
  char* end = nullptr;
  long v = strtol(text, &end, base);
  if (errno != 0 || !end || *end || v < 0) return false;
  *value = v;
  return true;
}

// Small append buffer for one output line; frames are formatted here and handed to the
// writer in one piece because the printing path is the hot path of a capture.
struct Line {
  char buf[640];
  size_t n = 0;
  void put(char c) {
    if (n + 1 < sizeof buf) buf[n++] = c;
  }
  void put(const char* s) {
    while (*s) put(*s++);
  }
  void hex2(uint8_t b) {
    put(kHex[b >> 4]);
    put(kHex[b & 15]);
  }
  void dec(uint64_t v) {
    char tmp[24];
    int k = 0;
    do {
      tmp[k++] = static_cast<char>('0' + v % 10);
      v /= 10;
    } while (v);
    while (k) put(tmp[--k]);
  }
  void hexnum(uint32_t v, int min_digits) {
    char tmp[8];
    int k = 0;
    do {
      tmp[k++] = kHex[v & 15];
      v >>= 4;
    } while (v || k < min_digits);
    while (k) put(tmp[--k]);
  }
  // Seconds with six decimals, optionally right-aligned in a field of width.
  void seconds(uint64_t us, int width) {
    char tmp[40];
    int len = snprintf(tmp, sizeof tmp, "%llu.%06llu",
                       static_cast<unsigned long long>(us / 1000000),
                       static_cast<unsigned long long>(us % 1000000));
    for (int i = len; i < width; i++) put(' ');
    put(tmp);
  }
};

void put_flag_words(Line& line, uint32_t flags) {
  if (flags & VXCLI_FRAME_IDE) line.put("ide+");
  if (flags & VXCLI_FRAME_FDF) line.put("fdf+");
  if (flags & VXCLI_FRAME_BRS) line.put("brs+");
  if (flags & VXCLI_FRAME_ESI) line.put("esi+");
  if (flags & VXCLI_FRAME_RTR) line.put("rtr+");
}

int finish(vxcli_json_writer* out, const Line& line) {
  return vxcli_json_writer_raw_n(out, line.buf, line.n);
}

}  // namespace

long vxcli_parse_message_id_quiet(const char* text, bool* decimal) {
  if (decimal) *decimal = false;
  if (!text || !*text) return -1;
  long value = 0;
  if (text[0] == '0' && (text[1] == 'x' || text[1] == 'X'))
    return parse_whole(text + 2, 16, &value) ? value : -1;
  bool has_hex_letter = false;
  for (const char* p = text; *p; p++) {
    if (isxdigit(static_cast<unsigned char>(*p)) && !isdigit(static_cast<unsigned char>(*p)))
      has_hex_letter = true;
  }
  if (has_hex_letter && parse_whole(text, 16, &value)) return value;
  if (!parse_whole(text, 10, &value)) return -1;
  if (decimal) *decimal = true;
  return value;
}

long vxcli_parse_message_id(const char* text) {
  bool decimal = false;
  long value = vxcli_parse_message_id_quiet(text, &decimal);
  // Small decimal numbers are exactly the ones a user may have meant as hex.
  if (value >= 0 && decimal && value <= 2047)
    fprintf(stderr, "NOTE: --message=%s parsed as decimal (%ld). Use 0x prefix for hex.\n", text,
            value);
  return value;
}

uint32_t vxcli_parse_flags(const char* text) {
  if (!text) return 0;
  char copy[256];
  snprintf(copy, sizeof copy, "%s", text);
  uint32_t flags = 0;
  char* save = nullptr;
  for (char* word = strtok_r(copy, "+", &save); word; word = strtok_r(nullptr, "+", &save)) {
    if (strcmp(word, "ide") == 0) flags |= VXCLI_FRAME_IDE;
    else if (strcmp(word, "rtr") == 0) flags |= VXCLI_FRAME_RTR;
    else if (strcmp(word, "brs") == 0) flags |= VXCLI_FRAME_BRS;
    else if (strcmp(word, "fdf") == 0) flags |= VXCLI_FRAME_FDF;
    else if (strcmp(word, "esi") == 0) flags |= VXCLI_FRAME_ESI;
  }
  return flags;
}

int vxcli_parse_data(const char* text, uint8_t* out, int max) {
  if (!text || !out || max <= 0) return 0;
  int count = 0;
  const char* p = text;
  while (*p && count < max) {
    char c = *p;
    if (c == ',' || c == '-' || c == ':' || isspace(static_cast<unsigned char>(c))) {
      p++;
      continue;
    }
    int hi = hex_value(c);
    if (hi < 0) break;
    p++;
    int lo = hex_value(*p);
    if (lo >= 0) {
      out[count++] = static_cast<uint8_t>(hi << 4 | lo);
      p++;
    } else {
      out[count++] = static_cast<uint8_t>(hi);
    }
  }
  return count;
}

int vxcli_dlc_to_bytes(int code) {
  static const int kLengths[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 20, 24, 32, 48, 64};
  if (code <= 0) return 0;
  return code >= 15 ? 64 : kLengths[code];
}

int vxcli_bytes_to_dlc(int length) {
  if (length <= 8) return length < 0 ? 0 : length;
  if (length <= 12) return 9;
  if (length <= 16) return 10;
  if (length <= 20) return 11;
  if (length <= 24) return 12;
  if (length <= 32) return 13;
  if (length <= 48) return 14;
  return 15;
}

uint32_t vxcli_can_id_to_device(uint32_t id, bool extended) {
  if (!extended) return id & 0x7FF;
  return ((id >> 18) & 0x7FF) | ((id & 0x3FFFF) << 11);
}

uint32_t vxcli_can_id_from_device(uint32_t field, bool extended) {
  if (!extended) return field & 0x7FF;
  return ((field & 0x7FF) << 18) | ((field >> 11) & 0x3FFFF);
}

void vxcli_can_message_init(VXMessage* out, uint32_t id, uint32_t flags, uint8_t dlc,
                            const uint8_t* data, int length) {
  if (!out) return;
  memset(out, 0, sizeof *out);
  out->header = VX_MSG_HEADER_CAN;
  out->length = VX_MSG_PAYLOAD_LEN;
  bool extended = flags & VXCLI_FRAME_IDE;
  out->id = vxcli_can_id_to_device(id, extended);
  out->control = static_cast<uint8_t>((dlc & VX_CTRL_DLC_MASK) | (extended ? VX_CTRL_IDE : 0) |
                                      ((flags & VXCLI_FRAME_RTR) ? VX_CTRL_RTR : 0) |
                                      ((flags & VXCLI_FRAME_BRS) ? VX_CTRL_BRS : 0) |
                                      ((flags & VXCLI_FRAME_FDF) ? VX_CTRL_EDL : 0));
  if (flags & VXCLI_FRAME_ESI) out->flags = VX_MSGF_ESI;
  if (data && length > 0) memcpy(out->data, data, length > 64 ? 64 : static_cast<size_t>(length));
}

void vxcli_can_frame_from_message(const VXMessage* m, vxcli_can_frame* out) {
  if (!m || !out) return;
  bool extended = m->control & VX_CTRL_IDE;
  out->id = vxcli_can_id_from_device(m->id, extended);
  out->flags = (extended ? VXCLI_FRAME_IDE : 0) | ((m->control & VX_CTRL_RTR) ? VXCLI_FRAME_RTR : 0) |
               ((m->control & VX_CTRL_BRS) ? VXCLI_FRAME_BRS : 0) |
               ((m->control & VX_CTRL_EDL) ? VXCLI_FRAME_FDF : 0) |
               ((m->flags & VX_MSGF_ESI) ? VXCLI_FRAME_ESI : 0);
  uint8_t dlc = m->control & VX_CTRL_DLC_MASK;
  // Without FD a length code above 8 still means eight bytes.
  if (!(m->control & VX_CTRL_EDL) && dlc > 8) dlc = 8;
  out->dlc = dlc;
  out->tx = (m->header & VX_MSG_TX) ? 1 : 0;
  out->channel = m->port;
  out->timestamp_us = m->timestamp;
  memcpy(out->data, m->data, sizeof out->data);
}

void vxcli_lin_frame_from_message(const VXMessage* m, vxcli_lin_frame* out) {
  if (!m || !out) return;
  memset(out, 0, sizeof *out);
  out->id = static_cast<uint8_t>(m->id & 0x3F);
  uint8_t length = m->control & VX_LIN_CTRL_LEN_MASK;
  out->dlc = length > 8 ? 8 : length;
  out->checksum = m->lin_checksum;
  out->checksum_type = (m->control & VX_LIN_CTRL_ENHANCED) ? 2 : 1;
  out->errors = m->lin_status & VX_LIN_STATUS_ERROR_MASK;
  out->header_only = out->dlc == 0;
  out->tx = (m->header & VX_MSG_TX) ? 1 : 0;
  out->channel = m->port;
  out->timestamp_us = m->timestamp;
  memcpy(out->data, m->data, 8);
}

size_t vxcli_frame_flag_words(uint32_t flags, char* out, size_t size) {
  if (!out || size == 0) return 0;
  Line line;
  put_flag_words(line, flags);
  size_t n = line.n < size - 1 ? line.n : size - 1;
  memcpy(out, line.buf, n);
  out[n] = 0;
  return n;
}

int vxcli_format_can_frame(vxcli_json_writer* out, const vxcli_can_frame* frame,
                           uint64_t relative_us, const vxcli_frame_print_options* options) {
  if (!out || !frame || !options) return -1;
  int bytes = vxcli_dlc_to_bytes(frame->dlc);
  // A remote frame carries a length code but no payload.
  int shown = (frame->flags & VXCLI_FRAME_RTR) ? 0 : bytes;
  Line line;
  switch (options->format) {
    case VXCLI_FORMAT_CSV:
      line.seconds(relative_us, 0);
      line.put(',');
      line.dec(frame->channel);
      line.put(frame->tx ? ",TX,0x" : ",RX,0x");
      line.hexnum(frame->id, 1);
      line.put(',');
      line.dec(static_cast<uint64_t>(bytes));
      line.put(',');
      for (int i = 0; i < shown; i++) line.hex2(frame->data[i]);
      line.put(',');
      put_flag_words(line, frame->flags);
      line.put('\n');
      return finish(out, line);
    case VXCLI_FORMAT_JSON:
    case VXCLI_FORMAT_JSONL:
      line.put("{\"status\":\"ok\",\"channel\":");
      line.dec(frame->channel);
      line.put(frame->tx ? ",\"direction\":\"TX\",\"id\":\"0x" : ",\"direction\":\"RX\",\"id\":\"0x");
      line.hexnum(frame->id, 1);
      line.put("\",\"dlc\":");
      line.dec(static_cast<uint64_t>(bytes));
      line.put(",\"flags\":\"");
      put_flag_words(line, frame->flags);
      line.put("\",\"data\":\"");
      for (int i = 0; i < shown; i++) line.hex2(frame->data[i]);
      line.put("\",\"timestamp\":");
      line.seconds(relative_us, 0);
      if (finish(out, line) != 0) return -1;
      if (options->decoded && *options->decoded) {
        vxcli_json_writer_raw(out, ",\"decoded\":");
        vxcli_json_writer_raw(out, options->decoded);
      }
      vxcli_json_writer_raw(out, options->format == VXCLI_FORMAT_JSONL ? "}\n" : "}");
      return vxcli_json_writer_ok(out) ? 0 : -1;
    default:
      if (options->channel_prefix) {
        line.put("ch");
        line.dec(static_cast<uint64_t>(options->channel_index));
        line.put(' ');
      }
      line.seconds(relative_us, 10);
      line.put(" CH");
      line.dec(frame->channel);
      line.put(frame->tx ? " TX " : " RX ");
      if (frame->flags & VXCLI_FRAME_IDE) line.put("EXT ");
      line.put("0x");
      line.hexnum(frame->id, 8);
      line.put(" [");
      line.dec(static_cast<uint64_t>(bytes));
      line.put("] ");
      for (int i = 0; i < shown; i++) {
        line.hex2(frame->data[i]);
        line.put(' ');
      }
      if (frame->flags & VXCLI_FRAME_FDF) line.put("FD ");
      if (frame->flags & VXCLI_FRAME_BRS) line.put("BRS ");
      if (frame->flags & VXCLI_FRAME_ESI) line.put("ESI ");
      if (frame->flags & VXCLI_FRAME_RTR) line.put("(RTR)");
      line.put('\n');
      return finish(out, line);
  }
}

int vxcli_format_lin_frame(vxcli_json_writer* out, const vxcli_lin_frame* frame,
                           uint64_t relative_us, const vxcli_frame_print_options* options) {
  if (!out || !frame || !options) return -1;
  int length = frame->dlc > 8 ? 8 : frame->dlc;
  const char* model = frame->checksum_type == 2 ? "enhanced" : "classic";
  Line line;
  switch (options->format) {
    case VXCLI_FORMAT_CSV:
      line.seconds(relative_us, 0);
      line.put(',');
      line.dec(frame->channel);
      line.put(frame->tx ? ",LIN,TX,0x" : ",LIN,RX,0x");
      line.hexnum(frame->id, 2);
      line.put(',');
      line.dec(frame->dlc);
      line.put(',');
      for (int i = 0; i < length; i++) line.hex2(frame->data[i]);
      line.put(',');
      line.put(model);
      line.put(",0x");
      line.hex2(frame->checksum);
      line.put(',');
      line.dec(frame->errors);
      line.put(frame->header_only ? ",true\n" : ",false\n");
      return finish(out, line);
    case VXCLI_FORMAT_JSON:
    case VXCLI_FORMAT_JSONL:
      line.put("{\"status\":\"ok\",\"bus\":\"lin\",\"channel\":");
      line.dec(frame->channel);
      line.put(frame->tx ? ",\"direction\":\"tx\",\"id\":\"0x" : ",\"direction\":\"rx\",\"id\":\"0x");
      line.hexnum(frame->id, 2);
      line.put("\",\"dlc\":");
      line.dec(frame->dlc);
      line.put(",\"data\":\"");
      for (int i = 0; i < length; i++) line.hex2(frame->data[i]);
      line.put("\",\"checksum_type\":\"");
      line.put(model);
      line.put("\",\"checksum\":\"0x");
      line.hex2(frame->checksum);
      line.put("\",\"errors\":");
      line.dec(frame->errors);
      line.put(frame->header_only ? ",\"header_only\":true" : ",\"header_only\":false");
      line.put(",\"timestamp\":");
      line.seconds(relative_us, 0);
      line.put(options->format == VXCLI_FORMAT_JSONL ? "}\n" : "}");
      return finish(out, line);
    default:
      if (options->channel_prefix) {
        line.put("ch");
        line.dec(static_cast<uint64_t>(options->channel_index));
        line.put(' ');
      }
      line.seconds(relative_us, 10);
      line.put(" CH");
      line.dec(frame->channel);
      line.put(frame->tx ? " TX LIN 0x" : " RX LIN 0x");
      line.hex2(frame->id);
      line.put(" [");
      line.dec(frame->dlc);
      line.put("] ");
      for (int i = 0; i < length; i++) {
        line.hex2(frame->data[i]);
        line.put(' ');
      }
      line.put(model);
      line.put(" checksum=0x");
      line.hex2(frame->checksum);
      if (frame->errors) {
        line.put(" errors=0x");
        line.hex2(frame->errors);
      }
      if (frame->header_only) line.put(" header-only");
      line.put('\n');
      return finish(out, line);
  }
}

void vxcli_print_lin_message(const vxcli_lin_frame* frame, uint64_t relative_us) {
  if (!frame) return;
  vxcli_json_writer w;
  if (vxcli_json_writer_init(&w, 256, 4096) != 0) {
    vxcli_json_writer_free(&w);
    return;
  }
  vxcli_frame_print_options options = {g_config.format, 0, 0, nullptr};
  if (options.format == VXCLI_FORMAT_JSON) options.format = VXCLI_FORMAT_JSONL;
  if (vxcli_format_lin_frame(&w, frame, relative_us, &options) == 0)
    fwrite(vxcli_json_writer_data(&w), 1, vxcli_json_writer_length(&w), stdout);
  vxcli_json_writer_free(&w);
}
