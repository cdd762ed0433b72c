// Signal codec: bit extraction and insertion for both byte orders, scaling,
// message lookup, multiplexing, the per-process list of parsed DBC files and
// the encode/decode entry points used by other commands and the daemon.
#include <endian.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <ctime>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>

#include "database/dbc.h"
#include "database/dbc_text.h"
#include "database/registry.h"

namespace {

constexpr size_t kMaxDbcFiles = 8;
constexpr size_t kMaxPayload = 64;

// Position of a DBC bit number in the motorola bit order (the table is its
// own inverse within each byte).
inline uint32_t motorola_index(uint32_t bit) { return (bit & ~7u) + 7 - (bit & 7); }

inline uint64_t low_mask(uint32_t bits) { return bits >= 64 ? ~0ull : (1ull << bits) - 1; }

void set_error(char* error, size_t size, const char* text) {
  if (error && size) snprintf(error, size, "%s", text);
}

// ---- number parsing for message selectors ----

bool parse_digits(const char* text, int base, uint64_t* out) {
  if (!*text) return false;
  uint64_t value = 0;
  for (const char* p = text; *p; p++) {
    int digit;
    char c = *p;
    if (c >= '0' && c <= '9') digit = c - '0';
    else if (base == 16 && c >= 'a' && c <= 'f') digit = c - 'a' + 10;
    else if (base == 16 && c >= 'A' && c <= 'F') digit = c - 'A' + 10;
    else return false;
    if (value > (~0ull - uint64_t(digit)) / uint64_t(base)) return false;
    value = value * uint64_t(base) + uint64_t(digit);
  }
  *out = value;
  return true;
}

bool has_hex_letter(const char* text) {
  for (const char* p = text; *p; p++)
    if ((*p >= 'a' && *p <= 'f') || (*p >= 'A' && *p <= 'F')) return true;
  return false;
}

// The identifier a selector names, if it is a number at all.
bool selector_number(const char* selector, uint64_t* number) {
  if (selector[0] == '0' && (selector[1] == 'x' || selector[1] == 'X'))
    return parse_digits(selector + 2, 16, number);
  if (has_hex_letter(selector) && parse_digits(selector, 16, number)) return true;
  if (!parse_digits(selector, 10, number)) return false;
  if (*number < 2048)
    fprintf(stderr, "NOTE: --message=%s parsed as decimal (%ld). Use 0x prefix for hex.\n",
            selector, long(*number));
  return true;
}

// ---- the process-wide list of parsed files ----

std::vector<std::unique_ptr<DbcLoadedFile>> g_dbc_files;

// Resolution goes through the registry file; remembering the last answers
// keeps per-frame decoding from reading it every time. Changes made by this
// process are seen at once, changes by other processes (a stat of the file)
// within kRecheckNs, and a change of the directory environment at once.
constexpr int64_t kRecheckNs = 50'000'000;

struct ResolveMemo {
  bool primed = false;
  std::string env[4];
  bool env_set[4] = {};
  std::string registry;
  uint64_t generation = 0;
  int64_t checked_at = 0;
  bool registry_exists = false;
  struct stat registry_stat {};
  std::vector<std::pair<std::string, const DbcLoadedFile*>> answers;
};
ResolveMemo g_memo;

const char* const kDirectoryVariables[4] = {"VXCLI_STATE_DIR", "XDG_STATE_HOME", "HOME",
                                            "XDG_RUNTIME_DIR"};

bool same_stat(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
         a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec &&
         a.st_ctim.tv_sec == b.st_ctim.tv_sec && a.st_ctim.tv_nsec == b.st_ctim.tv_nsec;
}

int64_t coarse_now() {
  struct timespec now {};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return int64_t(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

// True when the memo's answers still hold; refreshes its keys otherwise.
bool memo_current() {
  bool current = g_memo.primed;
  for (int i = 0; i < 4; i++) {
    const char* value = getenv(kDirectoryVariables[i]);
    bool set = value != nullptr;
    if (set != g_memo.env_set[i] || (set && g_memo.env[i] != value)) {
      current = false;
      g_memo.env_set[i] = set;
      g_memo.env[i] = set ? value : "";
      g_memo.registry.clear();
    }
  }
  if (g_memo.registry.empty()) {
    char path[4096], error[256];
    if (vxcli_database_registry_path(path, sizeof path, error, sizeof error) != 0) {
      g_memo.primed = false;
      g_memo.answers.clear();
      return false;
    }
    g_memo.registry = path;
    current = false;
  }
  if (g_memo.generation != vxcli_database_registry_generation()) {
    g_memo.generation = vxcli_database_registry_generation();
    current = false;
  }
  int64_t now = coarse_now();
  if (!current || now - g_memo.checked_at >= kRecheckNs) {
    struct stat info {};
    bool exists = stat(g_memo.registry.c_str(), &info) == 0;
    if (exists != g_memo.registry_exists || (exists && !same_stat(info, g_memo.registry_stat)))
      current = false;
    g_memo.registry_exists = exists;
    g_memo.registry_stat = info;
    g_memo.checked_at = now;
  }
  if (!current) g_memo.answers.clear();
  g_memo.primed = true;
  return current;
}

const DbcLoadedFile* load_file(const char* selector, char* error, size_t error_size) {
  char path[4096], name[128], message[256];
  if (vxcli_database_resolve(selector, "dbc", path, sizeof path, name, sizeof name, message,
                             sizeof message) != 0) {
    set_error(error, error_size, message);
    return nullptr;
  }
  for (const auto& file : g_dbc_files)
    if (file->path == path) return file.get();
  char failed[256];
  snprintf(failed, sizeof failed, "failed to parse DBC resource '%.160s'", path);
  // At most eight distinct files per process: a long-running daemon must not
  // grow without bound when clients name ever new files.
  if (g_dbc_files.size() >= kMaxDbcFiles) {
    set_error(error, error_size, failed);
    return nullptr;
  }
  try {
    auto file = std::make_unique<DbcLoadedFile>();
    file->path = path;
    file->dbc = DBCIterator(std::string(path));
    vxcli_dbc_index_file(*file);
    g_dbc_files.push_back(std::move(file));
    return g_dbc_files.back().get();
  } catch (const std::exception&) {
    set_error(error, error_size, failed);
    return nullptr;
  }
}

int resolve_message(const char* message_selector, const char* database_selector,
                    const Message** message) {
  if (!message_selector) return -2;
  const DbcLoadedFile* file = vxcli_dbc_resolve(database_selector, nullptr, 0);
  if (!file) return -1;
  *message = vxcli_dbc_find_message(*file, message_selector);
  return *message ? 0 : -2;
}

// ---- bounded output for the decode object ----

struct Sink {
  char* p;
  char* end;
  bool ok = true;
  void put(const char* text, size_t n) {
    if (!ok || size_t(end - p) < n) {
      ok = false;
      return;
    }
    memcpy(p, text, n);
    p += n;
  }
  // Literals: the copy has a constant size and is inlined.
  template <size_t N>
  void put(const char (&text)[N]) {
    put(text, N - 1);
  }
  void put_text(const char* text) { put(text, strlen(text)); }
  void put(char c) {
    if (!ok || p == end) {
      ok = false;
      return;
    }
    *p++ = c;
  }
  void put_u64(uint64_t value) {
    char digits[24];
    auto r = std::to_chars(digits, digits + sizeof digits, value);
    put(digits, size_t(r.ptr - digits));
  }
  void put_hex(uint32_t value) {
    char digits[8];
    int n = 0;
    do {
      digits[7 - n++] = "0123456789ABCDEF"[value & 15];
      value >>= 4;
    } while (value);
    put(digits + 8 - n, size_t(n));
  }
  // printf's %.10g; non-finite values have no JSON form.
  void put_g10(double value) {
    if (!std::isfinite(value)) return put("null");
    // Whole numbers of up to ten digits print as %.10g prints them, only faster
    // (-0 keeps its sign through the general path).
    if (value == std::trunc(value) && std::fabs(value) < 1e10 &&
        (value != 0 || !std::signbit(value))) {
      char digits[24];
      auto r = std::to_chars(digits, digits + sizeof digits, static_cast<int64_t>(value));
      return put(digits, size_t(r.ptr - digits));
    }
    // The shortest form that reads back has the digits %.10g prints whenever
    // there are at most ten of them; it is taken unless it chose a positive
    // exponent, which %.10g would not have for a non-integer below 1e10.
    char digits[40];
    auto r = std::to_chars(digits, digits + sizeof digits, value, std::chars_format::general);
    int significant = 0;
    bool leading = true, positive_exponent = false;
    for (const char* p = digits; p < r.ptr; p++) {
      if (*p == 'e') {
        positive_exponent = p[1] == '+';
        break;
      }
      if (*p < '0' || *p > '9' || (leading && *p == '0')) continue;
      leading = false;
      significant++;
    }
    if (significant > 10 || positive_exponent)
      r = std::to_chars(digits, digits + sizeof digits, value, std::chars_format::general, 10);
    put(digits, size_t(r.ptr - digits));
  }
  void put_string(const std::string& text);
};

// Length of the run of bytes at the start of text that JSON takes as they
// are (printable ASCII other than the quote and the backslash), 8 at a time.
size_t plain_run(const unsigned char* text, size_t n) {
  constexpr uint64_t ones = 0x0101010101010101ull, highs = 0x8080808080808080ull;
  size_t i = 0;
  for (; i + 8 <= n; i += 8) {
    uint64_t x;
    memcpy(&x, text + i, 8);
    uint64_t quote = x ^ (ones * '"'), backslash = x ^ (ones * '\\');
    // Classic zero-byte tests: a byte below 0x20, a quote, a backslash, or a
    // high bit (the byte loop below sorts out what it was).
    uint64_t special = (((x - ones * 0x20) & ~x) | ((quote - ones) & ~quote) |
                        ((backslash - ones) & ~backslash) | x) &
                       highs;
    if (special) break;
  }
  while (i < n && text[i] >= 0x20 && text[i] < 0x80 && text[i] != '"' && text[i] != '\\') i++;
  return i;
}

void Sink::put_string(const std::string& text) {
  static const char hex[] = "0123456789ABCDEF";
  put('"');
  const unsigned char* s = reinterpret_cast<const unsigned char*>(text.data());
  size_t n = text.size();
  for (size_t i = 0; i < n && ok;) {
    size_t run = plain_run(s + i, n - i);
    if (run) {
      put(text.data() + i, run);
      i += run;
      continue;
    }
    unsigned char c = s[i];
    if (c < 0x80) {
      switch (c) {
        case '"': put("\\\""); break;
        case '\\': put("\\\\"); break;
        case '\b': put("\\b"); break;
        case '\f': put("\\f"); break;
        case '\n': put("\\n"); break;
        case '\r': put("\\r"); break;
        case '\t': put("\\t"); break;
        default: {
          char e[6] = {'\\', 'u', '0', '0', hex[c >> 4], hex[c & 15]};
          put(e, 6);
        }
      }
      i++;
      continue;
    }
    size_t valid = vxcli_database_utf8_sequence(text.data() + i, n - i);
    if (valid) {
      put(text.data() + i, valid);
      i += valid;
    } else {  // a Latin-1 byte
      char latin1[2] = {char(0xC0 | (c >> 6)), char(0x80 | (c & 0x3F))};
      put(latin1, 2);
      i++;
    }
  }
  put('"');
}

void put_decode_header(Sink& out, const Message& message) {
  bool fd = vxcli_dbc_is_fd(message);
  out.put("{\"message\":");
  out.put_string(message.name);
  out.put(",\"id\":\"0x");
  out.put_hex(message.id & 0x7FFFFFFFu);
  out.put_text(message.extended ? "\",\"extended\":true" : "\",\"extended\":false");
  out.put_text(fd ? ",\"fd\":true" : ",\"fd\":false");
  out.put_text(vxcli_dbc_is_brs(message) ? ",\"brs\":true" : ",\"brs\":false");
  out.put(",\"signals\":{");
}

}  // namespace

const uint16_t* vxcli_dbc_motorola_bittable() {
  static const auto table = [] {
    static uint16_t entries[512];
    for (uint16_t j = 0; j < 64; j++)
      for (uint16_t m = 0; m < 8; m++) entries[8 * j + m] = uint16_t(8 * j + 7 - m);
    return entries;
  }();
  return table;
}

uint64_t vxcli_dbc_extract_raw(const uint8_t* data, size_t dataLength, uint32_t startBit,
                               uint32_t bitLength, int byteOrder, uint32_t motorolaStartBit) {
  if (!data || bitLength < 1 || bitLength > 64 || dataLength > kMaxPayload) return 0;
  unsigned __int128 bits = 0;
  if (byteOrder == DBC_INTEL) {
    size_t first = startBit / 8;
    uint32_t shift = startBit % 8;
    size_t count = (shift + bitLength + 7) / 8;
    for (size_t i = 0; i < count && first + i < dataLength; i++)
      bits |= static_cast<unsigned __int128>(data[first + i]) << (8 * i);
    return static_cast<uint64_t>(bits >> shift) & low_mask(bitLength);
  }
  // Motorola: in the table's order the signal is one run of bits, MSB first,
  // so the payload reads as a big-endian bit string.
  if (motorolaStartBit >= 512) return 0;
  uint32_t position = motorola_index(motorolaStartBit);
  size_t first = position / 8;
  size_t last = (position + bitLength - 1) / 8;
  for (size_t b = first; b <= last; b++)
    bits = (bits << 8) | (b < dataLength ? data[b] : 0);
  uint32_t tail = uint32_t(last - first + 1) * 8 - position % 8 - bitLength;
  return static_cast<uint64_t>(bits >> tail) & low_mask(bitLength);
}

double vxcli_dbc_raw_to_physical(uint64_t raw, bool isSigned, uint32_t bitLength, double factor,
                                 double offset) {
  int64_t value;
  if (isSigned && bitLength >= 1 && bitLength <= 63 && ((raw >> (bitLength - 1)) & 1))
    value = static_cast<int64_t>(raw | (~0ull << bitLength));
  else
    value = static_cast<int64_t>(raw);  // a 64-bit raw with its top bit set reads negative
  return static_cast<double>(value) * factor + offset;
}

void vxcli_dbc_insert_raw(uint8_t* buffer, size_t bufferLength, uint32_t startBit,
                          uint32_t bitLength, ByteOrder order, uint32_t motorolaStartBit,
                          uint64_t raw) {
  if (!buffer || bitLength < 1 || bitLength > 64) return;
  raw &= low_mask(bitLength);
  const uint16_t* table = vxcli_dbc_motorola_bittable();
  bool in_table = motorolaStartBit < 512;
  uint32_t index = in_table ? motorola_index(motorolaStartBit) : 0;
  for (uint32_t i = 0; i < bitLength; i++) {
    uint64_t position;
    bool bit;
    if (order == DBC_INTEL) {
      position = uint64_t(startBit) + i;
      bit = (raw >> i) & 1;
    } else {
      if (in_table) {
        if (index + i > 511) break;
        position = table[index + i];
      } else {
        position = motorolaStartBit;
      }
      bit = (raw >> (bitLength - 1 - i)) & 1;
    }
    size_t byte = size_t(position / 8);
    if (byte >= bufferLength) continue;
    uint8_t mask = uint8_t(1u << (position % 8));
    if (bit) buffer[byte] |= mask;
    else buffer[byte] &= uint8_t(~mask);
  }
}

uint64_t vxcli_dbc_physical_to_raw(const Signal& signal, double value) {
  // A zero factor maps nothing; encode 0 rather than an undefined conversion.
  if (signal.factor == 0) return 0;
  double scaled = std::round((value - signal.offset) / signal.factor);
  uint64_t raw;
  if (std::isnan(scaled)) raw = 0;
  else if (scaled >= 18446744073709551616.0) raw = ~0ull;
  else if (scaled >= 9223372036854775808.0) raw = static_cast<uint64_t>(scaled);
  else if (scaled < -9223372036854775808.0) raw = 1ull << 63;
  else raw = static_cast<uint64_t>(static_cast<int64_t>(scaled));
  return raw & low_mask(signal.length);
}

void vxcli_dbc_index_file(DbcLoadedFile& file) {
  file.by_id.clear();
  file.by_name.clear();
  for (size_t i = 0; i < file.dbc.size(); i++) {
    file.by_id.emplace(file.dbc[i].id & 0x7FFFFFFFu, i);
    file.by_name.emplace(file.dbc[i].name, i);
  }
}

const Message* vxcli_dbc_find_message(const std::vector<Message>& messages, const char* selector) {
  if (!selector) return nullptr;
  uint64_t number = 0;
  if (selector_number(selector, &number))
    for (const Message& message : messages)
      if ((message.id & 0x7FFFFFFFu) == number) return &message;
  for (const Message& message : messages)
    if (message.name == selector) return &message;
  return nullptr;
}

const Message* vxcli_dbc_find_message(const DbcLoadedFile& file, const char* selector) {
  if (file.by_id.empty() && file.dbc.size() > 0)
    return vxcli_dbc_find_message(file.dbc.messages(), selector);
  if (!selector) return nullptr;
  uint64_t number = 0;
  if (selector_number(selector, &number) && number <= 0x7FFFFFFFu) {
    auto it = file.by_id.find(uint32_t(number));
    if (it != file.by_id.end()) return &file.dbc[it->second];
  }
  auto it = file.by_name.find(selector);
  return it == file.by_name.end() ? nullptr : &file.dbc[it->second];
}

namespace {

uint64_t extract_signal(const Signal& signal, const uint8_t* data, size_t length) {
  if (signal.order == DBC_INTEL)
    return vxcli_dbc_extract_raw(data, length, signal.startBit, signal.length, DBC_INTEL,
                                 signal.startBit);
  return vxcli_dbc_extract_raw(data, length, signal.getLastBit(), signal.length, DBC_MOTOROLA,
                               signal.startBit);
}

const Signal* multiplexor_of(const Message& message) {
  for (const Signal& signal : message.signals)
    if (signal.multiplexor == DBC_MULTIPLEXOR) return &signal;
  return nullptr;
}

// The payload as decoding sees it: zero-padded to 64 bytes, with the length
// in use being the larger of the bytes given and the message size. The slack
// behind the 64 bytes lets extraction read whole words without bounds checks.
struct Payload {
  uint8_t bytes[kMaxPayload + 16] = {};
  bool readable = true;  // lengths in use above 64 bytes read as all zero
  Payload(const Message& message, const uint8_t* data, size_t data_length) {
    if (data) memcpy(bytes, data, data_length < kMaxPayload ? data_length : kMaxPayload);
    readable = vxcli_dbc_payload_length(message, data_length) <= kMaxPayload;
  }
  // vxcli_dbc_extract_raw over the padded bytes, a word at a time.
  uint64_t extract(const Signal& signal) const {
    uint32_t length = signal.length;
    if (!readable || length < 1 || length > 64) return 0;
    uint64_t word;
    if (signal.order == DBC_INTEL) {
      uint32_t byte = signal.startBit >> 3, shift = signal.startBit & 7;
      if (byte >= kMaxPayload) return 0;
      memcpy(&word, bytes + byte, 8);
      word = le64toh(word) >> shift;
      if (shift && shift + length > 64) word |= uint64_t(bytes[byte + 8]) << (64 - shift);
      return word & low_mask(length);
    }
    if (signal.startBit >= 512) return 0;
    uint32_t position = motorola_index(signal.startBit);
    uint32_t byte = position >> 3, skip = position & 7;
    memcpy(&word, bytes + byte, 8);
    word = be64toh(word) << skip;
    if (skip && skip + length > 64) word |= uint64_t(bytes[byte + 8]) >> (8 - skip);
    return word >> (64 - length);
  }
};

}  // namespace

bool vxcli_dbc_signal_is_active(const Message& message, const Signal& signal, const uint8_t* data,
                                size_t dataLength) {
  if (signal.multiplexor != DBC_MULTIPLEXED) return true;
  const Signal* mux = multiplexor_of(message);
  if (!mux) return false;
  return extract_signal(*mux, data, dataLength) == uint16_t(signal.multiplexNum);
}

size_t vxcli_dbc_payload_length(const Message& message, size_t dataLength) {
  return dataLength > message.size ? dataLength : size_t(message.size);
}

bool vxcli_dbc_is_fd(const Message& message) { return message.fd || message.size > 8; }
bool vxcli_dbc_is_brs(const Message& message) { return vxcli_dbc_is_fd(message) && message.brs; }

size_t vxcli_dbc_decode_message(const Message& message, const uint8_t* data, size_t dataLength,
                                DbcSignalValue* out, size_t capacity) {
  Payload payload(message, data, dataLength);
  const Signal* mux = nullptr;
  uint64_t mux_raw = 0;
  size_t written = 0;
  for (const Signal& signal : message.signals) {
    if (written >= capacity) break;
    if (signal.multiplexor == DBC_MULTIPLEXED) {
      if (!mux) {
        mux = multiplexor_of(message);
        if (!mux) continue;
        mux_raw = payload.extract(*mux);
      }
      if (mux_raw != uint16_t(signal.multiplexNum)) continue;
    }
    uint64_t raw = payload.extract(signal);
    out[written++] = {&signal, raw,
                      vxcli_dbc_raw_to_physical(raw, signal.sign != 0, signal.length,
                                                signal.factor, signal.offset)};
  }
  return written;
}

int vxcli_dbc_message_decode_json(const Message& message, const uint8_t* data, size_t dataLength,
                                  char* out, size_t outSize) {
  if (!out || outSize < 3) return -3;
  Sink sink{out, out + outSize - 3};  // room for "}}" and the NUL
  put_decode_header(sink, message);
  if (!sink.ok) {
    out[0] = 0;
    return -3;
  }
  Payload payload(message, data, dataLength);
  const Signal* mux = multiplexor_of(message);
  uint64_t mux_raw = mux ? payload.extract(*mux) : 0;
  bool first = true;
  for (const Signal& signal : message.signals) {
    if (signal.multiplexor == DBC_MULTIPLEXED &&
        (!mux || mux_raw != uint16_t(signal.multiplexNum)))
      continue;
    if (outSize - size_t(sink.p - out) < 128) break;
    char* mark = sink.p;
    uint64_t raw = payload.extract(signal);
    if (!first) sink.put(',');
    sink.put_string(signal.name);
    sink.put(":{\"raw\":");
    sink.put_u64(raw);
    sink.put(",\"physical\":");
    sink.put_g10(vxcli_dbc_raw_to_physical(raw, signal.sign != 0, signal.length, signal.factor,
                                           signal.offset));
    sink.put(",\"unit\":");
    sink.put_string(signal.unit);
    sink.put('}');
    if (!sink.ok) {  // an entry that does not fit is left out whole
      sink.p = mark;
      break;
    }
    first = false;
  }
  memcpy(sink.p, "}}", 3);
  return 0;
}

const DbcLoadedFile* vxcli_dbc_resolve(const char* selector, char* error, size_t errorSize) {
  std::string key = selector ? selector : "";
  if (memo_current())
    for (const auto& [memo_key, file] : g_memo.answers)
      if (memo_key == key) return file;
  const DbcLoadedFile* file = load_file(key.c_str(), error, errorSize);
  if (file && g_memo.primed) {
    if (g_memo.answers.size() >= 16) g_memo.answers.erase(g_memo.answers.begin());
    g_memo.answers.emplace_back(key, file);
  }
  return file;
}

// ---- library entry points ----

uint32_t vxcli_dbc_encode_message(const Message& message, int count,
                                  const char* const* signalNames, const double* values,
                                  uint8_t outBuffer[64], uint32_t* outLength) {
  uint32_t flags = 0;
  if (message.extended) flags |= VXCLI_DBC_FLAG_EXTENDED;
  if (vxcli_dbc_is_fd(message)) {
    flags |= VXCLI_DBC_FLAG_FD;
    if (message.brs) flags |= VXCLI_DBC_FLAG_BRS;
  }
  memset(outBuffer, 0, kMaxPayload);
  uint64_t length = message.size == 0 ? 8 : message.size;
  if (length > kMaxPayload) length = kMaxPayload;  // the buffer is 64 bytes, whatever the file says
  if (outLength) *outLength = uint32_t(length);
  for (int i = 0; i < count && signalNames && values; i++) {
    if (!signalNames[i]) continue;
    for (const Signal& signal : message.signals) {
      if (signal.name != signalNames[i]) continue;  // unknown names are ignored
      vxcli_dbc_insert_raw(outBuffer, size_t(length),
                           signal.order == DBC_INTEL ? signal.startBit : signal.getLastBit(),
                           signal.length, signal.order, signal.startBit,
                           vxcli_dbc_physical_to_raw(signal, values[i]));
      break;
    }
  }
  return flags;
}

std::string vxcli_dbc_encode_json(const Message& message, const uint8_t* data, uint32_t length) {
  std::string name = vxcli_database_utf8(message.name);
  std::vector<char> text(name.size() * 6 + 2 * length + 192);
  Sink sink{text.data(), text.data() + text.size()};
  sink.put("{\"message\":");
  sink.put_string(message.name);
  sink.put(",\"id\":\"0x");
  sink.put_hex(message.id & 0x7FFFFFFFu);
  char numbers[128];
  bool fd = vxcli_dbc_is_fd(message);
  snprintf(numbers, sizeof numbers, "\",\"dlc\":%u,\"extended\":%s,\"fd\":%s,\"brs\":%s,\"data\":\"",
           length, message.extended ? "true" : "false", fd ? "true" : "false",
           vxcli_dbc_is_brs(message) ? "true" : "false");
  sink.put_text(numbers);
  static const char hex[] = "0123456789ABCDEF";
  for (uint32_t i = 0; i < length; i++) {
    sink.put(hex[data[i] >> 4]);
    sink.put(hex[data[i] & 15]);
  }
  sink.put("\"}");
  return std::string(text.data(), size_t(sink.p - text.data()));
}

int vxcli_dbc_encode_to_buf(const char* messageSelector, const char* databaseSelector, int count,
                            const char* const* signalNames, const double* values,
                            uint8_t outBuffer[64], uint32_t* outLength, uint32_t* outId,
                            uint32_t* outFlags) {
  if (outId) *outId = 0xFFFFFFFFu;
  if (outFlags) *outFlags = 0;
  if (outLength) *outLength = 0;
  const Message* message = nullptr;
  int rc = resolve_message(messageSelector, databaseSelector, &message);
  if (rc != 0) return rc;
  if (!outBuffer) return -3;
  uint32_t flags = vxcli_dbc_encode_message(*message, count, signalNames, values, outBuffer,
                                            outLength);
  if (outId) *outId = message->id & 0x7FFFFFFFu;
  if (outFlags) *outFlags = flags;
  return 0;
}

int vxcli_dbc_encode_to_json(const char* messageSelector, const char* databaseSelector, int count,
                             const char* const* signalNames, const double* values, char* out,
                             size_t outSize) {
  if (out && outSize) out[0] = 0;
  const Message* message = nullptr;
  int rc = resolve_message(messageSelector, databaseSelector, &message);
  if (rc != 0) return rc;
  uint8_t data[kMaxPayload];
  uint32_t length = 0;
  vxcli_dbc_encode_message(*message, count, signalNames, values, data, &length);
  std::string text = vxcli_dbc_encode_json(*message, data, length);
  if (!out || text.size() + 1 > outSize) return -3;
  memcpy(out, text.c_str(), text.size() + 1);
  return 0;
}

int vxcli_dbc_decode_to_json(const char* messageSelector, const char* databaseSelector,
                             const uint8_t* data, size_t dataLength, char* out, size_t outSize) {
  if (out && outSize) out[0] = 0;
  const Message* message = nullptr;
  int rc = resolve_message(messageSelector, databaseSelector, &message);
  if (rc != 0) return rc;
  return vxcli_dbc_message_decode_json(*message, data, dataLength, out, outSize);
}
