// Shared by the log tests: a private directory, BLF files built byte by byte,
// and reading a trace back as frames.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <zlib.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "logging/replay_input.h"

namespace logtest {

using Bytes = std::vector<uint8_t>;

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

inline void put(Bytes& b, uint64_t v, int width) {
  for (int i = 0; i < width; i++) b.push_back((uint8_t)(v >> (8 * i)));
}
inline uint64_t get(const Bytes& b, size_t at, int width) {
  uint64_t v = 0;
  for (int i = width - 1; i >= 0; i--) v = (v << 8) | b[at + (size_t)i];
  return v;
}

// One object with a version-1 header (version 2 when v2), padded to 4 bytes.
inline Bytes object(uint32_t type, const Bytes& payload, uint64_t ts, uint32_t flags = 2,
                    bool v2 = false) {
  Bytes b = {'L', 'O', 'B', 'J'};
  uint16_t header = v2 ? 40 : 32;
  put(b, header, 2);
  put(b, v2 ? 2 : 1, 2);
  put(b, header + payload.size(), 4);
  put(b, type, 4);
  put(b, flags, 4);
  put(b, 0, 4);  // client index and object version, or status bytes and object version
  put(b, ts, 8);
  if (v2) put(b, 0xDEADBEEF, 8);  // original time stamp, not used
  b.insert(b.end(), payload.begin(), payload.end());
  while (b.size() % 4) b.push_back(0);
  return b;
}

inline Bytes can_payload(uint16_t channel, uint32_t id, uint8_t dlc, const Bytes& data,
                         uint8_t flags = 0) {
  Bytes p;
  put(p, channel, 2);
  p.push_back(flags);
  p.push_back(dlc);
  put(p, id, 4);
  for (size_t i = 0; i < 8; i++) p.push_back(i < data.size() ? data[i] : 0);
  return p;
}

// A log container holding body as is; trailing_pad -1 gives (-size) & 3.
inline Bytes container_raw(const Bytes& body, int method, uint32_t uncompressed,
                           int trailing_pad = -1) {
  Bytes b = {'L', 'O', 'B', 'J', 16, 0, 1, 0};
  uint32_t size = 32 + (uint32_t)body.size();
  put(b, size, 4);
  put(b, 10, 4);
  put(b, (uint32_t)method, 2);
  put(b, 0, 6);
  put(b, uncompressed, 4);
  put(b, 0, 4);
  b.insert(b.end(), body.begin(), body.end());
  b.resize(b.size() + (size_t)(trailing_pad < 0 ? (-size & 3u) : (uint32_t)trailing_pad), 0);
  return b;
}

// A container around contents, compressed with zlib when method is 2.
inline Bytes container(const Bytes& contents, int method = 0, int trailing_pad = -1) {
  Bytes body = contents;
  if (method == 2) {
    uLongf n = compressBound(contents.size());
    body.assign(n, 0);
    compress2(body.data(), &n, contents.data(), contents.size(), 6);
    body.resize(n);
  }
  return container_raw(body, method, (uint32_t)contents.size(), trailing_pad);
}

inline Bytes file_header() {
  Bytes b(144, 0);
  memcpy(b.data(), "LOGG", 4);
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

// Every frame of an ASC or BLF trace; *rc receives the final result.
inline std::vector<vxcli_log_frame> read_frames(const std::string& path, bool errors = false,
                                                int* rc = nullptr) {
  std::vector<vxcli_log_frame> out;
  vxcli_replay_input in;
  int result = vxcli_replay_input_open(&in, path.c_str()) == 0 ? 0 : -2;
  if (result == 0) {
    in.include_errors = errors;
    vxcli_log_frame f;
    while ((result = vxcli_replay_input_next(&in, &f)) == 1) out.push_back(f);
    vxcli_replay_input_close(&in);
  }
  if (rc) *rc = result;
  return out;
}

// A mix of every kind of frame on two channels: classic and FD, standard and
// extended, remote, transmitted, BRS/ESI, every DLC, LIN (every fifth from 3)
// and two error frames; times in microseconds with one 1.5 s pause.
inline std::vector<vxcli_log_frame> sample_frames(bool with_lin = true) {
  std::vector<vxcli_log_frame> out;
  for (int i = 0; i < 160; i++) {
    vxcli_log_frame f = {};
    f.channel = 1 + i % 2;
    f.time_ns = (uint64_t)i * 1234000 + (i > 60 ? 1500000000ULL : 0);
    f.time = (double)f.time_ns / 1e9;
    if (i == 40 || i == 90) {
      f.error = 1;
    } else if (with_lin && i % 10 == 3) {
      f.is_lin = 1, f.id = (uint32_t)i % 64, f.dlc = f.length = i % 9;
      f.lin_checksum = (uint8_t)i, f.lin_enhanced = i % 20 == 3, f.tx = i % 3 == 0;
    } else {
      f.extended = i % 3 == 0;
      f.id = f.extended ? 0x18FE0000u + (uint32_t)i * 13 : (uint32_t)(i * 17) & 0x7FF;
      f.tx = i % 4 == 0;
      f.fd = i % 5 >= 3;
      f.brs = f.fd && i % 2;
      f.esi = f.fd && i % 10 == 4;
      f.remote = !f.fd && i % 11 == 0;
      f.dlc = f.fd ? i % 16 : i % 9;
      static const int kLengths[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 20, 24, 32, 48, 64};
      f.length = f.remote ? 0 : kLengths[f.dlc];
    }
    for (int k = 0; k < f.length; k++) f.data[k] = (uint8_t)(i + 31 * k);
    out.push_back(f);
  }
  return out;
}

// A frame as comparable text; bus: only what crosses a bus (direction and
// ESI belong to the receiver).
inline std::string describe(const vxcli_log_frame& f, bool bus = false) {
  char text[512];
  int n = snprintf(text, sizeof text, "ch%d %s%s id=%X%s%s%s%s%s dlc=%d len=%d cs=%02X%s%s ",
                   f.channel, f.is_lin ? "lin" : "can", f.error ? " error" : "", f.id,
                   f.extended ? " ext" : "", f.remote ? " rtr" : "", f.fd ? " fd" : "",
                   f.brs ? " brs" : "", !bus && f.esi ? " esi" : "", f.dlc, f.length,
                   f.lin_checksum, f.lin_enhanced ? " enhanced" : "", !bus && f.tx ? " tx" : "");
  for (int i = 0; i < f.length && i < 64 && n < (int)sizeof text - 3; i++)
    n += snprintf(text + n, sizeof text - (size_t)n, "%02X", f.data[i]);
  return text;
}

inline void expect_same_frames(const std::vector<vxcli_log_frame>& got,
                               const std::vector<vxcli_log_frame>& want, bool bus = false) {
  ASSERT_EQ(got.size(), want.size());
  for (size_t i = 0; i < got.size(); i++)
    EXPECT_EQ(describe(got[i], bus), describe(want[i], bus)) << "frame " << i;
}

// Gaps between neighbours in the capture against the source: the long pause
// exactly, and the typical gap within a couple of milliseconds.
inline void expect_retained_timing(const std::vector<vxcli_log_frame>& got,
                            const std::vector<vxcli_log_frame>& want, double scale = 1.0) {
  ASSERT_EQ(got.size(), want.size());
  std::vector<double> errors;
  double longest = 0, longest_got = 0;
  for (size_t i = 1; i < got.size(); i++) {
    double a = got[i].time - got[i - 1].time;
    double b = (want[i].time - want[i - 1].time) / scale;
    errors.push_back(std::fabs(a - b));
    if (b > longest) longest = b, longest_got = a;
  }
  std::sort(errors.begin(), errors.end());
  EXPECT_LT(errors[errors.size() / 2], 0.002) << "median gap error";
  EXPECT_NEAR(longest_got, longest, 0.02) << "longest gap";
}

}  // namespace logtest
