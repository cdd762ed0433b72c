// Channel text grammar, resolution against the enumeration, bitrates.
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "channel/channel.h"

namespace {

bool all_digits(const char* s, size_t n) {
  if (n == 0) return false;
  for (size_t i = 0; i < n; i++)
    if (!isdigit(static_cast<unsigned char>(s[i]))) return false;
  return true;
}

bool all_alnum(const char* s, size_t n) {
  for (size_t i = 0; i < n; i++)
    if (!isalnum(static_cast<unsigned char>(s[i]))) return false;
  return true;
}

bool all_hex(const char* s, size_t n) {
  for (size_t i = 0; i < n; i++)
    if (!isxdigit(static_cast<unsigned char>(s[i]))) return false;
  return true;
}

void clear_spec(vxcli_channel_spec* spec) {
  memset(spec, 0, sizeof *spec);
  spec->port = -1;
  spec->index = -1;
}

// Classifies the device part: 1 serial, 2 unique id, -1 invalid.
int device_kind(const char* device, size_t n) {
  if (n == 12 && all_alnum(device, n)) return VXCLI_SPEC_UNIQUE_ID;
  if (n == 24 && all_hex(device, n)) return VXCLI_SPEC_UNIQUE_ID;
  if (n >= 4 && n <= 6 && all_digits(device, n)) return VXCLI_SPEC_SERIAL;
  return -1;
}

bool parse_port(const char* text, int32_t* port) {
  size_t n = strlen(text);
  if (n == 0 || n > 3 || !all_digits(text, n)) return false;
  int value = atoi(text);
  if (value > 7) return false;
  *port = value;
  return true;
}

void copy_device(vxcli_channel_spec* spec, const char* text, size_t n) {
  if (n > sizeof spec->device - 1) n = sizeof spec->device - 1;
  memcpy(spec->device, text, n);
  spec->device[n] = 0;
}

bool printable(uint8_t c) { return c >= 0x20 && c <= 0x7E; }

// Reads one bitrate value in kbit/s; note_out is set when the user should be told.
bool parse_bitrate_value(const char* text, int* kbps, bool* note) {
  char cleaned[64];
  size_t n = 0;
  bool separators = false;
  for (const char* p = text; *p; p++) {
    if (*p == ',' || *p == '_') {
      separators = true;
      continue;
    }
    if (n >= 63) return false;
    cleaned[n++] = *p;
  }
  cleaned[n] = 0;
  if (n == 0) return false;
  char* end = nullptr;
  double value = strtod(cleaned, &end);
  if (end == cleaned || !(value > 0)) return false;
  char suffix[16];
  size_t sn = strlen(end);
  if (sn > 15) return false;
  for (size_t i = 0; i <= sn; i++) suffix[i] = static_cast<char>(tolower(static_cast<unsigned char>(end[i])));
  bool from_bps = false;
  if (sn == 0) {
    if (value > 10000) {
      value /= 1000.0;
      from_bps = true;
    }
  } else if (suffix[0] == 'k') {
  } else if (suffix[0] == 'm') {
    value *= 1000.0;
  } else if (strcmp(suffix, "bps") == 0) {
    value /= 1000.0;
  } else {
    return false;
  }
  double rounded = std::round(value);
  if (rounded < 1 || rounded > 65535 || std::fabs(value - rounded) > 0.000001) return false;
  *kbps = static_cast<int>(rounded);
  if (from_bps || separators) {
    fprintf(stderr, "NOTE: bitrate '%s' interpreted as %d kbps (%d bps).\n", text, *kbps, *kbps * 1000);
  }
  *note = from_bps || separators;
  return true;
}

}  // namespace

int vxcli_parse_channel_spec(const char* text, vxcli_channel_spec* spec) {
  if (!spec) return -1;
  clear_spec(spec);
  if (!text || !text[0]) return -1;
  const char* slash = strchr(text, '/');
  if (!slash) {
    size_t n = strlen(text);
    if (all_digits(text, n)) {
      // Longer numbers would wrap around and select some other channel.
      if (n > 6) return -1;
      spec->kind = VXCLI_SPEC_INDEX_OR_NAME;
      spec->index = atoi(text);
      return 0;
    }
    spec->kind = VXCLI_SPEC_INDEX_OR_NAME;
    copy_device(spec, text, n);
    return 0;
  }
  int32_t port;
  if (!parse_port(slash + 1, &port)) return -1;
  size_t n = static_cast<size_t>(slash - text);
  int kind = device_kind(text, n);
  if (kind < 0) return -1;
  spec->kind = static_cast<uint32_t>(kind);
  spec->port = port;
  copy_device(spec, text, n);
  return 0;
}

namespace {

void hex_bytes(const uint8_t* bytes, size_t n, char* out, size_t size) {
  static const char kDigits[] = "0123456789ABCDEF";
  size_t pos = 0;
  for (size_t i = 0; i < n && pos + 2 < size; i++) {
    out[pos++] = kDigits[bytes[i] >> 4];
    out[pos++] = kDigits[bytes[i] & 0xF];
  }
  if (size) out[pos] = 0;
}

// Serial as text when the bytes before the first zero are printable; otherwise hex of
// those bytes (identity output) or of all 16 bytes (matching against a user's text).
void render_serial(const uint8_t serial[16], bool all_bytes, char* out, size_t size) {
  size_t n = 0;
  while (n < 16 && serial[n]) n++;
  bool text = n > 0;
  for (size_t i = 0; i < n; i++)
    if (!printable(serial[i])) text = false;
  if (text) snprintf(out, size, "%.*s", static_cast<int>(n), reinterpret_cast<const char*>(serial));
  else hex_bytes(serial, all_bytes ? 16 : n, out, size);
}

// Unique id as 12 characters when all are non-zero and printable, else 24 hex digits;
// identity output prints an all-zero id as the empty text.
void render_unique_id(const uint8_t uid[12], bool empty_when_zero, char* out, size_t size) {
  bool zero = true, text = true;
  for (int i = 0; i < 12; i++) {
    if (uid[i]) zero = false;
    if (!uid[i] || !printable(uid[i])) text = false;
  }
  if (zero && empty_when_zero) {
    if (size) out[0] = 0;
  } else if (text) {
    snprintf(out, size, "%.12s", reinterpret_cast<const char*>(uid));
  } else {
    hex_bytes(uid, 12, out, size);
  }
}

void serial_for_match(const uint8_t serial[16], char* out, size_t size) { render_serial(serial, true, out, size); }
void uid_for_match(const uint8_t uid[12], char* out, size_t size) { render_unique_id(uid, false, out, size); }

}  // namespace

void vxcli_render_serial(const uint8_t serial[16], char* out, size_t size) {
  render_serial(serial, false, out, size);
}

void vxcli_render_unique_id(const uint8_t uid[12], char* out, size_t size) {
  render_unique_id(uid, true, out, size);
}

const VXChannelInfo* vxcli_resolve_channel(const VXChannelInfo* infos, int count,
                                             const vxcli_channel_spec* spec) {
  if (!infos || !spec || count <= 0) return nullptr;
  char rendered[64];
  if (spec->kind == VXCLI_SPEC_SERIAL) {
    for (int i = 0; i < count; i++) {
      if (infos[i].port != spec->port) continue;
      serial_for_match(infos[i].serial, rendered, sizeof rendered);
      if (strcmp(rendered, spec->device) == 0) return &infos[i];
    }
    return nullptr;
  }
  if (spec->kind == VXCLI_SPEC_UNIQUE_ID) {
    for (int i = 0; i < count; i++) {
      if (infos[i].port != spec->port) continue;
      uid_for_match(infos[i].unique_id, rendered, sizeof rendered);
      if (strcasecmp(rendered, spec->device) == 0) return &infos[i];
    }
    return nullptr;
  }
  if (spec->index >= 0 && spec->index < count) return &infos[spec->index];
  if (spec->index >= 0) {
    for (int i = 0; i < count; i++)
      if (infos[i].port == spec->index) return &infos[i];
  }
  if (spec->index < 0 && spec->device[0]) {
    for (int i = 0; i < count; i++)
      if (strncmp(infos[i].name, spec->device, sizeof infos[i].name) == 0) return &infos[i];
  }
  return nullptr;
}

int vxcli_parse_channel_list_ex(const char* text, vxcli_channel_spec* specs, int max) {
  if (!text || !specs || max <= 0) return -1;
  char copy[256];
  snprintf(copy, sizeof copy, "%s", text);
  int n = 0;
  char* save = nullptr;
  for (char* piece = strtok_r(copy, ",", &save); piece && n < max; piece = strtok_r(nullptr, ",", &save)) {
    while (*piece == ' ') piece++;
    if (vxcli_parse_channel_spec(piece, &specs[n]) != 0) return -1;
    n++;
  }
  return n;
}

int vxcli_parse_bitrate_pair(const char* text, vxcli_bitrate* bitrate) {
  if (!bitrate) return -1;
  memset(bitrate, 0, sizeof *bitrate);
  bitrate->nominal_kbps = 500;
  bitrate->data_kbps = 2000;
  bitrate->nominal_sample = 75;
  bitrate->data_sample = 75;
  if (!text || !text[0]) return 0;
  int nominal = 0, data = 0;
  bool note = false;
  const char* slash = strchr(text, '/');
  if (!slash) {
    if (!parse_bitrate_value(text, &nominal, &note)) return -1;
    data = nominal * 4;
  } else {
    char first[32];
    size_t n = static_cast<size_t>(slash - text);
    if (n == 0 || n > 31 || !slash[1]) return -1;
    memcpy(first, text, n);
    first[n] = 0;
    if (!parse_bitrate_value(first, &nominal, &note) || !parse_bitrate_value(slash + 1, &data, &note)) return -1;
  }
  if (nominal < 1 || nominal > 65535 || data < 1 || data > 65535) return -1;
  bitrate->nominal_kbps = static_cast<uint16_t>(nominal);
  bitrate->data_kbps = static_cast<uint16_t>(data);
  return 0;
}

int vxcli_parse_device_spec(const char* text, vxcli_channel_spec* spec) {
  if (!spec) return -1;
  clear_spec(spec);
  if (!text || !text[0]) return -1;
  const char* slash = strchr(text, '/');
  size_t n = slash ? static_cast<size_t>(slash - text) : strlen(text);
  if (n > 31) return -1;
  int kind = device_kind(text, n);
  if (kind < 0) return -1;
  if (slash) {
    if (strchr(slash + 1, '/')) return -1;
    if (!parse_port(slash + 1, &spec->port)) return -1;
  }
  spec->kind = static_cast<uint32_t>(kind);
  copy_device(spec, text, n);
  return 0;
}

const VXChannelInfo* vxcli_resolve_device(const VXChannelInfo* infos, int count,
                                            const vxcli_channel_spec* spec) {
  if (!infos || !spec) return nullptr;
  char rendered[64];
  for (int i = 0; i < count; i++) {
    if (spec->port >= 0 && infos[i].port != spec->port) continue;
    if (spec->kind == VXCLI_SPEC_SERIAL) serial_for_match(infos[i].serial, rendered, sizeof rendered);
    else uid_for_match(infos[i].unique_id, rendered, sizeof rendered);
    bool match = spec->kind == VXCLI_SPEC_SERIAL ? strcmp(rendered, spec->device) == 0
                                                 : strcasecmp(rendered, spec->device) == 0;
    if (match) return &infos[i];
  }
  return nullptr;
}
