// Hand-written scanner: replay and conversion read millions of lines, and the
// grammar is simple enough that scanf's generality only costs.
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "logging/asc.h"

namespace {

inline bool blank(char c) { return c == ' ' || c == '\t'; }
inline bool line_end(char c) { return c == '\0' || c == '\n' || c == '\r'; }
inline bool word_end(char c) { return blank(c) || line_end(c); }
inline bool digit(char c) { return c >= '0' && c <= '9'; }

struct HexTable {
  int8_t value[256];
  constexpr HexTable() : value() {
    for (int i = 0; i < 256; i++) value[i] = -1;
    for (int i = 0; i < 10; i++) value['0' + i] = (int8_t)i;
    for (int i = 0; i < 6; i++) value['A' + i] = value['a' + i] = (int8_t)(10 + i);
  }
};
constexpr HexTable kHex;

inline int hex_value(char c) { return kHex.value[(unsigned char)c]; }

inline const char* skip_blanks(const char* p) {
  while (blank(*p)) p++;
  return p;
}

inline const char* skip_word(const char* p) {
  while (!word_end(*p)) p++;
  return p;
}

bool starts_with(const char* line, const char* prefix) {
  return strncmp(line, prefix, strlen(prefix)) == 0;
}

// A time stamp in seconds, as written ("12.345678"); leading blanks allowed.
bool parse_time(const char*& p, double* seconds, uint64_t* ns) {
  const char* s = skip_blanks(p);
  const char* q = s;
  bool negative = *q == '-';
  if (*q == '+' || *q == '-') q++;
  uint64_t whole = 0;
  int whole_digits = 0;
  while (digit(*q) && whole_digits < 12) whole = whole * 10 + (uint64_t)(*q++ - '0'), whole_digits++;
  uint64_t fraction = 0;
  int fraction_digits = 0;
  if (*q == '.') {
    q++;
    while (digit(*q)) {
      if (fraction_digits < 9) fraction = fraction * 10 + (uint64_t)(*q - '0'), fraction_digits++;
      q++;
    }
  }
  if (whole_digits > 0 && !digit(*q) && *q != 'e' && *q != 'E') {
    for (int i = fraction_digits; i < 9; i++) fraction *= 10;
    uint64_t total = whole * 1000000000ULL + fraction;
    *seconds = (negative ? -1.0 : 1.0) * (double)total / 1e9;
    *ns = negative ? 0 : total;
    p = q;
    return true;
  }
  // Rare forms (exponents, long integer parts) go the general way.
  char* end = nullptr;
  double value = strtod(s, &end);
  if (end == s || !std::isfinite(value)) return false;
  *seconds = value;
  *ns = value > 0 && value < 1.8e10 ? (uint64_t)llround(value * 1e9) : 0;
  p = end;
  return true;
}

// Decimal integer with optional sign, as "%d" reads it (leading blanks allowed).
bool parse_int(const char*& p, long* out) {
  const char* q = skip_blanks(p);
  bool negative = *q == '-';
  if (*q == '+' || *q == '-') q++;
  if (!digit(*q)) return false;
  long value = 0;
  while (digit(*q)) {
    if (value < 100000000000L) value = value * 10 + (*q - '0');
    q++;
  }
  *out = negative ? -value : value;
  p = q;
  return true;
}

// Hexadecimal number (leading blanks allowed); at most 8 significant digits.
bool parse_hex(const char*& p, uint32_t* out) {
  const char* q = skip_blanks(p);
  uint64_t value = 0;
  int n = 0;
  int v;
  while ((v = hex_value(*q)) >= 0) {
    value = (value << 4) | (uint64_t)v;
    if (value > 0xFFFFFFFFull) return false;
    q++;
    n++;
  }
  if (n == 0) return false;
  *out = (uint32_t)value;
  p = q;
  return true;
}

bool all_decimal(const char* p, const char* end) {
  if (p < end && (*p == '-' || *p == '+')) p++;
  if (p == end) return false;
  for (; p < end; p++)
    if (!digit(*p)) return false;
  return true;
}

int parse_lin(const char* line, vxcli_log_frame* r) {
  const char* p = line;
  double t;
  uint64_t ns;
  if (!parse_time(p, &t, &ns) || !blank(*p)) return 0;
  p = skip_blanks(p);
  const char* word = p;
  const char* word_stop = skip_word(p);
  if ((*word != 'L' && *word != 'l') || word_stop - word > 15) return 0;
  long channel;
  if (word[1] == 'I' || word[1] == 'i') {
    channel = 1;
  } else {
    const char* q = word + 1;
    if (!all_decimal(q, word_stop) || !parse_int(q, &channel) || channel < 1 || channel > 65535)
      return 0;
  }
  p = word_stop;
  uint32_t id;
  if (!parse_hex(p, &id) || id > 63 || !word_end(*p)) return 0;
  p = skip_blanks(p);
  const char* dir = p;
  p = skip_word(p);
  size_t dir_len = (size_t)(p - dir);
  bool tx;
  if (dir_len == 2 && strncmp(dir, "Rx", 2) == 0) tx = false;
  else if ((dir_len == 2 && strncmp(dir, "Tx", 2) == 0) ||
           (dir_len == 4 && strncmp(dir, "TxRq", 4) == 0))
    tx = true;
  else return 0;
  long dlc;
  if (!parse_int(p, &dlc) || dlc < 0 || dlc > 8) return 0;
  for (long i = 0; i < dlc; i++) {
    const char* q = skip_blanks(p);
    int hi = hex_value(q[0]);
    if (hi < 0) return 0;
    int lo = hex_value(q[1]);
    r->data[i] = (uint8_t)(lo < 0 ? hi : hi * 16 + lo);
    p = q + (lo < 0 ? 1 : 2);
  }
  const char* cs = strstr(p, "checksum");
  if (!cs) return 0;  // without a checksum the line is not a LIN frame
  cs = skip_blanks(cs + 8);
  if (*cs != '=') return 0;
  cs++;
  uint32_t checksum;
  if (!parse_hex(cs, &checksum) || checksum > 255) return 0;
  r->time = t;
  r->time_ns = ns;
  r->channel = (int32_t)channel;
  r->is_lin = 1;
  r->id = id;
  r->tx = tx;
  r->dlc = r->length = (int32_t)dlc;
  r->lin_checksum = (uint8_t)checksum;
  const char* csm = strstr(line, "CSM =");
  r->lin_enhanced = csm && strstr(csm, "enhanced") ? 1 : 0;
  return 1;
}

int parse_classic(const char* line, vxcli_log_frame* r) {
  const char* p = line;
  double t;
  uint64_t ns;
  long channel;
  if (!parse_time(p, &t, &ns) || !parse_int(p, &channel)) return 0;
  p = skip_blanks(p);
  uint32_t id;
  bool extended = false, tx = false, remote = false;
  long dlc;
  if (strncmp(p, "Ext", 3) == 0 || strncmp(p, "Std", 3) == 0) {
    extended = p[0] == 'E';
    p += 3;
    if (!parse_hex(p, &id)) return 0;
    p = skip_blanks(p);
    if (line_end(*p)) return 0;
    tx = *p == 'T' || *p == 't';
    p = skip_blanks(p + 1);
    if (!strchr("DdRr", *p) || line_end(*p)) {  // a direction word longer than one letter
      p = skip_blanks(skip_word(p));
      if (line_end(*p) || !strchr("DdRr", *p)) return 0;
    }
    remote = *p == 'R' || *p == 'r';
    p++;
    if (!parse_int(p, &dlc) || dlc < 0 || dlc > 15) return 0;
  } else {
    if (!parse_hex(p, &id)) return 0;
    if (*p == 'x' || *p == 'X') {
      extended = true;
      p++;
    }
    if (!blank(*p)) return 0;
    p = skip_blanks(p);
    if (*p != 'R' && *p != 'r' && *p != 'T' && *p != 't') return 0;
    tx = *p == 'T' || *p == 't';
    p++;
    if (*p == 'x' || *p == 'X') p++;
    p = skip_blanks(p);
    if (*p != 'D' && *p != 'd' && *p != 'R' && *p != 'r') return 0;
    remote = *p == 'R' || *p == 'r';
    p = skip_blanks(p + 1);
    int v = hex_value(*p);
    if (v < 0) return 0;
    dlc = v;
    p++;
  }
  p = skip_blanks(p);
  if (*p == 'R' || *p == 'r') remote = true;
  r->time = t;
  r->time_ns = ns;
  r->channel = (int32_t)channel;
  r->id = extended ? (id & 0x1FFFFFFF) : id;
  r->extended = extended;
  r->tx = tx;
  r->remote = remote;
  r->dlc = (int32_t)dlc;
  r->length = remote ? 0 : parse_hex_data(p, r->data, 64);
  return 1;
}

int parse_fd(const char* line, const char* marker, vxcli_log_frame* r) {
  const char* p = line;
  double t;
  uint64_t ns;
  if (!parse_time(p, &t, &ns)) return 0;
  p = skip_blanks(marker + 5);
  long channel;
  if (!parse_int(p, &channel)) return 0;
  p = skip_blanks(p);
  if (line_end(*p)) return 0;
  bool tx = *p == 'T' || *p == 't';
  p = skip_word(p);
  uint32_t id;
  if (!parse_hex(p, &id)) return 0;
  bool extended = false;
  if (*p == 'x' || *p == 'X') {
    extended = true;
    p++;
  }
  p = skip_blanks(p);
  // An optional symbolic name stands between the identifier and the flags.
  const char* stop = skip_word(p);
  if (!all_decimal(p, stop) && !line_end(*p)) p = skip_blanks(stop);
  long brs = 0, esi = 0;
  parse_int(p, &brs);
  parse_int(p, &esi);
  p = skip_blanks(p);
  int dlc = hex_value(*p);
  if (dlc < 0) return 0;
  p++;
  long length = -1;
  if (!parse_int(p, &length)) length = -1;
  p = skip_blanks(p);
  bool remote = false;
  int count = 0;
  if (*p == 'r') {
    remote = true;
    p++;
  } else {
    int max = length >= 0 && length <= 64 ? (int)length : 64;
    for (; count < max; count++) {
      const char* q = skip_blanks(p);
      int hi = hex_value(q[0]);
      if (hi < 0) break;
      int lo = hex_value(q[1]);
      const char* next = q + (lo < 0 ? 1 : 2);
      if (!word_end(*next)) break;
      r->data[count] = (uint8_t)(lo < 0 ? hi : hi * 16 + lo);
      p = next;
    }
  }
  // The trailer's flags column tells classic frames logged in FD lines apart.
  bool fd = true;
  long duration, bits;
  uint32_t flags;
  const char* q = p;
  if (parse_int(q, &duration) && parse_int(q, &bits) && parse_hex(q, &flags) && word_end(*q)) {
    fd = (flags & 0x1000) != 0;
    if (flags & 0x10) remote = true;
  }
  r->time = t;
  r->time_ns = ns;
  r->channel = (int32_t)channel;
  r->id = extended ? (id & 0x1FFFFFFF) : id;
  r->extended = extended;
  r->tx = tx;
  r->fd = fd;
  // Bit-rate switch and error state exist only in FD frames; a classic frame
  // keeping them would be written back as something else.
  r->brs = fd && brs != 0;
  r->esi = fd && esi != 0;
  r->remote = remote;
  r->dlc = dlc;
  r->length = remote ? 0 : count;
  return 1;
}

int parse_error_frame(const char* line, vxcli_log_frame* r) {
  const char* p = line;
  double t;
  uint64_t ns;
  long channel;
  if (!parse_time(p, &t, &ns) || !parse_int(p, &channel)) return 0;
  p = skip_blanks(p);
  if (strncmp(p, "ErrorFrame", 10) != 0 || !word_end(p[10])) return 0;
  r->time = t;
  r->time_ns = ns;
  r->channel = (int32_t)channel;
  r->error = 1;
  return 2;
}

}  // namespace

int parse_hex_data(const char* text, uint8_t* out, int max) {
  int count = 0;
  const char* p = text;
  while (count < max) {
    p = skip_blanks(p);
    if (line_end(*p)) break;
    int hi = hex_value(p[0]), lo = hex_value(p[1]);
    if (hi >= 0 && lo >= 0 && word_end(p[2])) {  // the usual two-digit byte
      out[count++] = (uint8_t)(hi * 16 + lo);
      p += 2;
      continue;
    }
    const char* stop = skip_word(p);
    for (const char* q = p; q < stop; q++)
      if (hex_value(*q) < 0) return count;
    while (p < stop && count < max) {
      int hi = hex_value(*p++);
      if (p < stop) hi = hi * 16 + hex_value(*p++);
      out[count++] = (uint8_t)hi;
    }
  }
  return count;
}

int vxcli_parse_asc_event(const char* line, vxcli_log_frame* record) {
  if (!record) return 0;
  memset(record, 0, sizeof *record);
  if (!line || line_end(line[0])) return 0;
  switch (line[0]) {  // cheap first-letter test before the header prefixes
    case 'd': if (starts_with(line, "date ")) return 0; break;
    case 'b': if (starts_with(line, "base ")) return 0; break;
    case 'n': if (starts_with(line, "no internal")) return 0; break;
    case '/': if (line[1] == '/') return 0; break;
    case 'B': if (starts_with(line, "Begin")) return 0; break;
    case 'E': if (starts_with(line, "End")) return 0; break;
    default: break;
  }
  if (parse_lin(line, record)) return 1;
  memset(record, 0, sizeof *record);
  const char* fd = strstr(line, "CANFD");
  bool spaced = fd && fd > line && blank(fd[-1]) && blank(fd[5]);
  if (!spaced && parse_classic(line, record)) return 1;
  memset(record, 0, sizeof *record);
  if (fd && parse_fd(line, fd, record)) return 1;
  memset(record, 0, sizeof *record);
  if (!fd && parse_error_frame(line, record)) return 2;
  memset(record, 0, sizeof *record);
  return 0;
}

int vxcli_parse_asc_line(const char* line, vxcli_log_frame* record) {
  int rc = vxcli_parse_asc_event(line, record);
  if (rc == 1) return 1;
  if (record) memset(record, 0, sizeof *record);
  return 0;
}
