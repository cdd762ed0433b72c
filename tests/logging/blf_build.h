// Builds BLF files byte by byte for reader tests: objects, containers stored
// or compressed, split across containers, either padding convention.
#pragma once

#include <zlib.h>

#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

namespace blftest {

using Bytes = std::vector<uint8_t>;

inline void put16(Bytes& b, uint16_t v) {
  b.push_back((uint8_t)v);
  b.push_back((uint8_t)(v >> 8));
}
inline void put32(Bytes& b, uint32_t v) {
  put16(b, (uint16_t)v);
  put16(b, (uint16_t)(v >> 16));
}
inline void put64(Bytes& b, uint64_t v) {
  put32(b, (uint32_t)v);
  put32(b, (uint32_t)(v >> 32));
}
inline uint32_t get32(const Bytes& b, size_t at) {
  return b[at] | (b[at + 1] << 8) | (b[at + 2] << 16) | ((uint32_t)b[at + 3] << 24);
}
inline uint64_t get64(const Bytes& b, size_t at) {
  return get32(b, at) | ((uint64_t)get32(b, at + 4) << 32);
}
inline uint16_t get16(const Bytes& b, size_t at) { return (uint16_t)(b[at] | (b[at + 1] << 8)); }

// One object with a version-1 header (or version 2 when v2), padded to 4.
inline Bytes object(uint32_t type, const Bytes& payload, uint64_t ts, uint32_t flags = 2,
                    bool v2 = false, bool pad = true) {
  Bytes b = {'L', 'O', 'B', 'J'};
  uint16_t header = v2 ? 40 : 32;
  put16(b, header);
  put16(b, v2 ? 2 : 1);
  put32(b, header + (uint32_t)payload.size());
  put32(b, type);
  put32(b, flags);
  if (v2) {
    b.push_back(0);  // time-stamp status
    b.push_back(0);
    put16(b, 0);     // object version
    put64(b, ts);
    put64(b, 0xDEADBEEF);  // original timestamp, not used
  } else {
    put16(b, 0);
    put16(b, 0);
    put64(b, ts);
  }
  b.insert(b.end(), payload.begin(), payload.end());
  if (pad)
    while (b.size() % 4) b.push_back(0);
  return b;
}

inline Bytes can_payload(uint16_t channel, uint32_t id, uint8_t dlc, const Bytes& data,
                         uint8_t flags = 0) {
  Bytes p;
  put16(p, channel);
  p.push_back(flags);
  p.push_back(dlc);
  put32(p, id);
  for (size_t i = 0; i < 8; i++) p.push_back(i < data.size() ? data[i] : 0);
  return p;
}

// A log container around contents; method 2 compresses. trailing_pad selects
// the padding after it: -1 = (-size) & 3, otherwise that many zero bytes.
inline Bytes container(const Bytes& contents, int method = 0, int trailing_pad = -1) {
  Bytes body = contents;
  if (method == 2) {
    uLongf n = compressBound(contents.size());
    body.assign(n, 0);
    compress2(body.data(), &n, contents.data(), contents.size(), 6);
    body.resize(n);
  }
  Bytes b = {'L', 'O', 'B', 'J'};
  put16(b, 16);
  put16(b, 1);
  uint32_t size = 32 + (uint32_t)body.size();
  put32(b, size);
  put32(b, 10);
  put16(b, (uint16_t)method);
  for (int i = 0; i < 6; i++) b.push_back(0);
  put32(b, (uint32_t)contents.size());
  put32(b, 0);
  b.insert(b.end(), body.begin(), body.end());
  int pad = trailing_pad < 0 ? (int)(-size & 3u) : trailing_pad;
  for (int i = 0; i < pad; i++) b.push_back(0);
  return b;
}

// A container around a body taken as is, declaring the given uncompressed size.
inline Bytes container_raw(const Bytes& body, int method, uint32_t uncompressed) {
  Bytes b = {'L', 'O', 'B', 'J'};
  put16(b, 16);
  put16(b, 1);
  uint32_t size = 32 + (uint32_t)body.size();
  put32(b, size);
  put32(b, 10);
  put16(b, (uint16_t)method);
  for (int i = 0; i < 6; i++) b.push_back(0);
  put32(b, uncompressed);
  put32(b, 0);
  b.insert(b.end(), body.begin(), body.end());
  while (b.size() % 4) b.push_back(0);
  return b;
}

inline Bytes file_header() {
  Bytes b(144, 0);
  b[0] = 'L'; b[1] = 'O'; b[2] = 'G'; b[3] = 'G';
  b[4] = 144;
  return b;
}

inline void append(Bytes& to, const Bytes& more) { to.insert(to.end(), more.begin(), more.end()); }

inline void write(const std::string& path, const Bytes& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), (std::streamsize)bytes.size());
}

inline Bytes read(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

}  // namespace blftest

#include <stdlib.h>

#include <filesystem>

namespace blftest {

// A private directory removed with everything in it.
class TempDir {
 public:
  TempDir() {
    char templ[] = "/tmp/vxlog-XXXXXX";
    path_ = mkdtemp(templ) ? templ : "/tmp";
  }
  ~TempDir() {
    std::error_code ec;
    if (path_ != "/tmp") std::filesystem::remove_all(path_, ec);
  }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

}  // namespace blftest
