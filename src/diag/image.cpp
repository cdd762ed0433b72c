// Image readers. Records may come in any order; adjacent records are joined
// into one segment so that the ECU sees as few RequestDownloads as possible.
#include "diag/image.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>

namespace {

constexpr size_t kMaxImageBytes = 64u << 20;  // far beyond any ECU flash; stops runaway inputs

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Decodes the hex pairs of one record line.
bool decode_pairs(const std::string& line, size_t from, std::vector<uint8_t>* out) {
  out->clear();
  if ((line.size() - from) % 2 != 0) return false;
  for (size_t i = from; i < line.size(); i += 2) {
    int hi = hex_digit(line[i]), lo = hex_digit(line[i + 1]);
    if (hi < 0 || lo < 0) return false;
    out->push_back(static_cast<uint8_t>(hi << 4 | lo));
  }
  return true;
}

// Collects bytes by address; detects overlaps with different content.
struct Collector {
  std::map<uint32_t, std::vector<uint8_t>> runs;  // start -> bytes
  size_t total = 0;

  int add(uint64_t address, const uint8_t* data, size_t n, char* error_text, size_t error_size,
          size_t line) {
    if (n == 0) return 0;
    if (address + n > 0x100000000ull) {
      snprintf(error_text, error_size, "line %zu: data beyond the 32-bit address space", line);
      return -1;
    }
    auto next = runs.lower_bound(static_cast<uint32_t>(address));
    if (next != runs.begin()) {
      auto prev = std::prev(next);
      if (static_cast<uint64_t>(prev->first) + prev->second.size() > address) {
        snprintf(error_text, error_size, "line %zu: data at 0x%llX overlaps earlier data", line,
                 static_cast<unsigned long long>(address));
        return -1;
      }
    }
    if (next != runs.end() && address + n > next->first) {
      snprintf(error_text, error_size, "line %zu: data at 0x%llX overlaps earlier data", line,
               static_cast<unsigned long long>(address));
      return -1;
    }
    total += n;
    if (total > kMaxImageBytes) {
      snprintf(error_text, error_size, "image larger than %zu bytes", kMaxImageBytes);
      return -1;
    }
    runs[static_cast<uint32_t>(address)].assign(data, data + n);
    return 0;
  }

  void finish(std::vector<vxcli_image_segment>* out) {
    out->clear();
    for (auto& [start, bytes] : runs) {
      if (!out->empty()) {
        auto& last = out->back();
        if (static_cast<uint64_t>(last.address) + last.data.size() == start) {
          last.data.insert(last.data.end(), bytes.begin(), bytes.end());
          continue;
        }
      }
      out->push_back({start, std::move(bytes)});
    }
  }
};

template <typename F>
void for_each_line(const std::string& text, F&& f) {
  size_t pos = 0, number = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(pos, end - pos);
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t'))
      line.pop_back();
    size_t lead = line.find_first_not_of(" \t");
    line = lead == std::string::npos ? std::string() : line.substr(lead);
    number++;
    if (!f(line, number)) return;
    pos = end + 1;
  }
}

std::string lower(std::string s) {
  for (char& c : s) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return s;
}

}  // namespace

int vxcli_image_parse_format(const char* text) {
  if (!text) return VXCLI_IMAGE_AUTO;
  std::string t = lower(text);
  if (t == "auto") return VXCLI_IMAGE_AUTO;
  if (t == "bin" || t == "binary" || t == "raw") return VXCLI_IMAGE_BINARY;
  if (t == "hex" || t == "ihex" || t == "intel-hex" || t == "intelhex") return VXCLI_IMAGE_IHEX;
  if (t == "srec" || t == "s19" || t == "s28" || t == "s37" || t == "mot" || t == "motorola")
    return VXCLI_IMAGE_SREC;
  return -1;
}

int vxcli_image_detect(const std::string& path, const std::string& content) {
  size_t i = content.find_first_not_of(" \t\r\n");
  if (i != std::string::npos && i + 3 < content.size()) {
    char c = content[i];
    if (c == ':' && hex_digit(content[i + 1]) >= 0 && hex_digit(content[i + 2]) >= 0)
      return VXCLI_IMAGE_IHEX;
    if (c == 'S' && content[i + 1] >= '0' && content[i + 1] <= '9' && hex_digit(content[i + 2]) >= 0)
      return VXCLI_IMAGE_SREC;
  }
  size_t dot = path.rfind('.');
  std::string ext = dot == std::string::npos ? "" : lower(path.substr(dot + 1));
  if (ext == "hex" || ext == "ihex") return VXCLI_IMAGE_IHEX;
  if (ext == "s19" || ext == "s28" || ext == "s37" || ext == "srec" || ext == "mot")
    return VXCLI_IMAGE_SREC;
  return VXCLI_IMAGE_BINARY;
}

int vxcli_image_parse_ihex(const std::string& text, std::vector<vxcli_image_segment>* out,
                           char* error_text, size_t error_size) {
  Collector collector;
  uint32_t base = 0;
  bool ended = false;
  int rc = 0;
  std::vector<uint8_t> rec;
  for_each_line(text, [&](const std::string& line, size_t number) {
    if (line.empty()) return true;
    if (ended) {
      snprintf(error_text, error_size, "line %zu: data after the end-of-file record", number);
      rc = -1;
      return false;
    }
    if (line[0] != ':' || !decode_pairs(line, 1, &rec) || rec.size() < 5) {
      snprintf(error_text, error_size, "line %zu: not an Intel HEX record", number);
      rc = -1;
      return false;
    }
    size_t count = rec[0];
    if (rec.size() != count + 5) {
      snprintf(error_text, error_size, "line %zu: record length %zu does not match its byte count %zu",
               number, rec.size() - 5, count);
      rc = -1;
      return false;
    }
    uint8_t sum = 0;
    for (uint8_t b : rec) sum = static_cast<uint8_t>(sum + b);
    if (sum != 0) {
      snprintf(error_text, error_size, "line %zu: checksum mismatch", number);
      rc = -1;
      return false;
    }
    uint32_t offset = static_cast<uint32_t>(rec[1] << 8 | rec[2]);
    const uint8_t* data = rec.data() + 4;
    switch (rec[3]) {
      case 0x00:
        if (collector.add(static_cast<uint64_t>(base) + offset, data, count, error_text, error_size,
                          number) != 0) {
          rc = -1;
          return false;
        }
        return true;
      case 0x01:
        ended = true;
        return true;
      case 0x02:
      case 0x04:
        if (count != 2) {
          snprintf(error_text, error_size, "line %zu: address record needs 2 data bytes", number);
          rc = -1;
          return false;
        }
        base = rec[3] == 0x02 ? static_cast<uint32_t>((data[0] << 8 | data[1]) << 4)
                              : static_cast<uint32_t>((data[0] << 8 | data[1]) << 16);
        return true;
      case 0x03:
      case 0x05:
        return true;  // start address: nothing to download
      default:
        snprintf(error_text, error_size, "line %zu: unknown record type %02X", number, rec[3]);
        rc = -1;
        return false;
    }
  });
  if (rc != 0) return rc;
  collector.finish(out);
  return 0;
}

int vxcli_image_parse_srec(const std::string& text, std::vector<vxcli_image_segment>* out,
                           char* error_text, size_t error_size) {
  Collector collector;
  int rc = 0;
  std::vector<uint8_t> rec;
  for_each_line(text, [&](const std::string& line, size_t number) {
    if (line.empty()) return true;
    if (line.size() < 4 || line[0] != 'S' || line[1] < '0' || line[1] > '9' ||
        !decode_pairs(line, 2, &rec) || rec.empty()) {
      snprintf(error_text, error_size, "line %zu: not an S-record", number);
      rc = -1;
      return false;
    }
    if (rec.size() != static_cast<size_t>(rec[0]) + 1) {
      snprintf(error_text, error_size, "line %zu: record length does not match its byte count", number);
      rc = -1;
      return false;
    }
    uint8_t sum = 0;
    for (size_t i = 0; i + 1 < rec.size(); i++) sum = static_cast<uint8_t>(sum + rec[i]);
    if (static_cast<uint8_t>(~sum) != rec.back()) {
      snprintf(error_text, error_size, "line %zu: checksum mismatch", number);
      rc = -1;
      return false;
    }
    int type = line[1] - '0';
    size_t address_bytes = 0;
    switch (type) {
      case 1: address_bytes = 2; break;
      case 2: address_bytes = 3; break;
      case 3: address_bytes = 4; break;
      case 0: case 4: case 5: case 6: case 7: case 8: case 9:
        return true;  // header, counts and start addresses carry no image data
    }
    if (rec.size() < 1 + address_bytes + 1) {
      snprintf(error_text, error_size, "line %zu: record too short for its address", number);
      rc = -1;
      return false;
    }
    uint64_t address = 0;
    for (size_t i = 0; i < address_bytes; i++) address = address << 8 | rec[1 + i];
    size_t n = rec.size() - 2 - address_bytes;
    if (collector.add(address, rec.data() + 1 + address_bytes, n, error_text, error_size, number) != 0) {
      rc = -1;
      return false;
    }
    return true;
  });
  if (rc != 0) return rc;
  collector.finish(out);
  return 0;
}

int vxcli_image_load(const char* path, int format, uint32_t address, uint32_t size,
                     std::vector<vxcli_image_segment>* out, char* error_text, size_t error_size) {
  out->clear();
  FILE* f = fopen(path, "rb");
  if (!f) {
    snprintf(error_text, error_size, "cannot open image '%s': %s", path, strerror(errno));
    return -1;
  }
  std::string content;
  char buffer[65536];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, f)) > 0) {
    content.append(buffer, n);
    if (content.size() > 4 * kMaxImageBytes) break;
  }
  bool failed = ferror(f) != 0;
  fclose(f);
  if (failed) {
    snprintf(error_text, error_size, "cannot read image '%s'", path);
    return -1;
  }
  if (content.size() > 4 * kMaxImageBytes) {
    snprintf(error_text, error_size, "image '%s' is too large", path);
    return -1;
  }
  if (format == VXCLI_IMAGE_AUTO) format = vxcli_image_detect(path, content);
  char message[256];
  int rc = 0;
  switch (format) {
    case VXCLI_IMAGE_IHEX:
      rc = vxcli_image_parse_ihex(content, out, message, sizeof message);
      break;
    case VXCLI_IMAGE_SREC:
      rc = vxcli_image_parse_srec(content, out, message, sizeof message);
      break;
    case VXCLI_IMAGE_BINARY: {
      if (size > 0) {
        if (size > content.size()) {
          snprintf(error_text, error_size, "--size %u exceeds the %zu bytes of '%s'", size,
                   content.size(), path);
          return -1;
        }
        content.resize(size);
      }
      if (content.size() > kMaxImageBytes ||
          static_cast<uint64_t>(address) + content.size() > 0x100000000ull) {
        snprintf(error_text, error_size, "image '%s' does not fit the address space", path);
        return -1;
      }
      if (!content.empty())
        out->push_back({address, std::vector<uint8_t>(content.begin(), content.end())});
      return 0;
    }
    default:
      snprintf(error_text, error_size, "unknown image format");
      return -1;
  }
  if (rc != 0) {
    snprintf(error_text, error_size, "%s: %s", path, message);
    return -1;
  }
  return 0;
}
