// Files written here are read by Debian's python3-can, an independent reader.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "blf_build.h"
#include "logging/asc.h"
#include "logging/blf_writer.h"

namespace {

// Prints one line per message: the fields compared, then microseconds since
// the first message.
const char* const kScript = R"PY(
import sys, can
reader = can.BLFReader(sys.argv[2]) if sys.argv[1] == "blf" else can.ASCReader(sys.argv[2])
t0 = None
for m in reader:
    if t0 is None:
        t0 = m.timestamp
    us = round((m.timestamp - t0) * 1e6)
    if m.is_error_frame:
        print("E %d %d" % (m.channel, us))
        continue
    data = "" if m.is_remote_frame else m.data.hex().upper()
    print("%d %X %d %d %d %d %d %d %d %s %d" % (m.channel, m.arbitration_id, m.is_extended_id,
          m.is_remote_frame, m.is_fd, m.bitrate_switch, m.error_state_indicator, m.is_rx,
          m.dlc, data, us))
)PY";

bool python_can_available() {
  return system("/usr/bin/python3 -c 'import can' >/dev/null 2>&1") == 0;
}

std::string run_python(const blftest::TempDir& dir, const std::string& kind, const std::string& path) {
  std::string script = dir.file("read.py");
  FILE* f = fopen(script.c_str(), "w");
  fputs(kScript, f);
  fclose(f);
  std::string cmd = "/usr/bin/python3 " + script + " " + kind + " " + path + " 2>&1";
  FILE* p = popen(cmd.c_str(), "r");
  std::string out;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
  pclose(p);
  return out;
}

std::vector<vxcli_log_frame> frame_set() {
  std::vector<vxcli_log_frame> out;
  for (int i = 0; i < 120; i++) {
    vxcli_log_frame f = {};
    f.channel = 1 + i % 2;
    f.extended = i % 3 == 0;
    f.id = f.extended ? 0x18FE0000u + (uint32_t)i * 13 : (uint32_t)(i * 17) & 0x7FF;
    f.tx = i % 4 == 0;
    f.fd = i % 5 >= 3;
    f.brs = f.fd && i % 2;
    f.esi = f.fd && i % 10 == 3;
    f.remote = !f.fd && i % 11 == 0;
    f.dlc = f.fd ? i % 16 : i % 9;
    f.length = f.remote ? 0 : vxcli_log_dlc_to_length(f.dlc);
    for (int k = 0; k < f.length; k++) f.data[k] = (uint8_t)(i + 31 * k);
    f.time_ns = (uint64_t)i * 1234567 + (i > 60 ? 1500000000ULL : 0);
    f.time = (double)f.time_ns / 1e9;
    if (i == 40 || i == 90) {  // error frames
      vxcli_log_frame e = {};
      e.channel = f.channel;
      e.error = 1;
      e.time_ns = f.time_ns;
      e.time = f.time;
      f = e;
    }
    if (i % 25 == 7) {  // LIN frames, which this reader passes over
      vxcli_log_frame l = {};
      l.channel = 1;
      l.is_lin = 1;
      l.id = 0x21;
      l.dlc = l.length = 4;
      l.lin_checksum = 0x33;
      l.time_ns = f.time_ns;
      l.time = f.time;
      f = l;
    }
    out.push_back(f);
  }
  return out;
}

// asc: that reader takes every FD line with data length 0 for a remote frame.
std::vector<std::string> expected_lines(const std::vector<vxcli_log_frame>& frames, bool asc) {
  std::vector<std::string> out;
  for (const auto& f : frames) {
    if (f.is_lin) continue;
    char line[512];
    if (f.error) {
      snprintf(line, sizeof line, "E %d", f.channel - 1);
    } else {
      std::string data;
      for (int k = 0; k < f.length; k++) {
        char b[3];
        snprintf(b, sizeof b, "%02X", f.data[k]);
        data += b;
      }
      snprintf(line, sizeof line, "%d %X %d %d %d %d %d %d %d %s", f.channel - 1, f.id, f.extended,
               f.remote || (asc && f.fd && f.length == 0), f.fd, f.brs, f.esi, !f.tx, f.fd ? f.length : f.dlc, data.c_str());
    }
    out.push_back(line);
  }
  return out;
}

// Splits python's output into the compared fields and the microseconds.
void compare(const std::string& output, const std::vector<vxcli_log_frame>& frames, bool asc) {
  std::vector<std::string> want = expected_lines(frames, asc);
  std::vector<uint64_t> times;
  for (const auto& f : frames)
    if (!f.is_lin) times.push_back(f.time_ns);
  std::istringstream in(output);
  std::string line;
  size_t i = 0;
  while (std::getline(in, line)) {
    ASSERT_LT(i, want.size()) << "extra line: " << line << "\n" << output;
    size_t cut = line.find_last_of(' ');
    ASSERT_NE(cut, std::string::npos) << line;
    EXPECT_EQ(line.substr(0, cut), want[i]) << "frame " << i;
    long long us = atoll(line.c_str() + cut + 1);
    long long expected_us = (long long)((times[i] - times[0] + 500) / 1000);
    EXPECT_LE(llabs(us - expected_us), 1) << "frame " << i;
    i++;
  }
  EXPECT_EQ(i, want.size()) << output;
}

}  // namespace

TEST(PythonCan, ReadsOurBlf) {
  if (!python_can_available()) GTEST_SKIP() << "python3-can is not installed";
  blftest::TempDir dir;
  std::string path = dir.file("ours.blf");
  auto frames = frame_set();
  const uint64_t start = 1700000000ULL * 1000000000ULL;
  vxcli_blf_handle* h = vxcli_blf_open(path.c_str(), start);
  ASSERT_NE(h, nullptr);
  for (const auto& f : frames) ASSERT_EQ(vxcli_blf_write_frame(h, start + f.time_ns, &f), 1);
  ASSERT_EQ(vxcli_blf_close(h), 0);
  compare(run_python(dir, "blf", path), frames, false);
}

TEST(PythonCan, ReadsOurAsc) {
  if (!python_can_available()) GTEST_SKIP() << "python3-can is not installed";
  blftest::TempDir dir;
  std::string path = dir.file("ours.asc");
  auto frames = frame_set();
  vxcli_asc_channel_label labels[2] = {{1, "10356", 0}, {2, "10356", 1}};
  char message[256];
  vxcli_asc_writer* w = vxcli_asc_open(path.c_str(), 1700000000, labels, 2, message, sizeof message);
  ASSERT_NE(w, nullptr) << message;
  for (const auto& f : frames) ASSERT_EQ(vxcli_asc_write(w, f.time, &f), 1);
  ASSERT_EQ(vxcli_asc_close(w), 0);
  compare(run_python(dir, "asc", path), frames, true);
}
