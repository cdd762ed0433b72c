// Files written here are read by Debian's python3-can, an independent reader.
#include <sstream>

#include "background.h"
#include "log_test.h"
#include "logging/asc.h"
#include "logging/blf_writer.h"

namespace {

// One line per message: the compared fields, then microseconds since the first.
const char* const kScript = R"PY(
import sys, can
reader = can.BLFReader(sys.argv[2]) if sys.argv[1] == "blf" else can.ASCReader(sys.argv[2])
t0 = None
for m in reader:
    t0 = m.timestamp if t0 is None else t0
    us = round((m.timestamp - t0) * 1e6)
    if m.is_error_frame:
        print("E %d %d" % (m.channel, us))
    else:
        print("%d %X %d %d %d %d %d %d %d %s %d" % (m.channel, m.arbitration_id, m.is_extended_id,
              m.is_remote_frame, m.is_fd, m.bitrate_switch, m.error_state_indicator, m.is_rx, m.dlc,
              "" if m.is_remote_frame else m.data.hex().upper(), us))
)PY";

// asc: that reader takes every FD line with data length 0 for a remote frame.
void compare(const std::string& output, const std::vector<vxcli_log_frame>& frames, bool asc) {
  std::vector<std::string> want;
  std::vector<long long> want_us;
  for (const auto& f : frames) {
    if (f.is_lin) continue;
    std::string data;
    char line[512];
    for (int k = 0; k < f.length; k++) snprintf(line, 3, "%02X", f.data[k]), data += line;
    if (f.error)
      snprintf(line, sizeof line, "E %d", f.channel - 1);
    else
      snprintf(line, sizeof line, "%d %X %d %d %d %d %d %d %d %s", f.channel - 1, f.id, f.extended,
               f.remote || (asc && f.fd && f.length == 0), f.fd, f.brs, f.esi, !f.tx,
               f.fd ? f.length : f.dlc, data.c_str());
    want.push_back(line);
    want_us.push_back((long long)((f.time_ns - frames[0].time_ns + 500) / 1000));
  }
  std::istringstream in(output);
  std::string line;
  size_t i = 0;
  for (; std::getline(in, line); i++) {
    ASSERT_LT(i, want.size()) << output;
    size_t cut = line.find_last_of(' ');
    EXPECT_EQ(line.substr(0, cut), want[i]) << "frame " << i;
    EXPECT_LE(llabs(atoll(line.c_str() + cut + 1) - want_us[i]), 1) << "frame " << i;
  }
  EXPECT_EQ(i, want.size()) << output;
}

void check_with_python(const std::string& kind, const std::string& path,
                       const std::vector<vxcli_log_frame>& frames = logtest::sample_frames()) {
  if (system("/usr/bin/python3 -c 'import can' >/dev/null 2>&1") != 0)
    GTEST_SKIP() << "python3-can is not installed";
  logtest::TempDir dir;
  std::string script = dir.file("read.py");
  FILE* f = fopen(script.c_str(), "w");
  fputs(kScript, f);
  fclose(f);
  FILE* p = popen(("/usr/bin/python3 " + script + " " + kind + " " + path + " 2>&1").c_str(), "r");
  std::string out;
  char buf[4096];
  for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
  pclose(p);
  compare(out, frames, kind == "asc");
}

}  // namespace

TEST(PythonCan, ReadsOurBlf) {
  logtest::TempDir dir;
  std::string path = dir.file("ours.blf");
  const uint64_t start = 1700000000ULL * 1000000000ULL;
  vxcli_blf_handle* h = vxcli_blf_open(path.c_str(), start);
  for (const auto& f : logtest::sample_frames()) ASSERT_EQ(vxcli_blf_write_frame(h, start + f.time_ns, &f), 1);
  ASSERT_EQ(vxcli_blf_close(h), 0);
  check_with_python("blf", path);
}

TEST(PythonCan, ReadsOurAsc) {
  logtest::TempDir dir;
  std::string path = dir.file("ours.asc");
  vxcli_asc_channel_label labels[2] = {{1, "10356", 0}, {2, "10356", 1}};
  char message[256];
  vxcli_asc_writer* w = vxcli_asc_open(path.c_str(), 1700000000, labels, 2, message, sizeof message);
  ASSERT_NE(w, nullptr) << message;
  for (const auto& f : logtest::sample_frames()) ASSERT_EQ(vxcli_asc_write(w, f.time, &f), 1);
  ASSERT_EQ(vxcli_asc_close(w), 0);
  check_with_python("asc", path);
}

// What "logging start" records, in both formats, reads the same in python-can
// as in our reader.
TEST(PythonCan, ReadsWhatLoggingStartWrote) {
  logtest::StandaloneBox box;
  std::string source = vxtest::testdata("interop/pycan_stored.blf");
  for (const std::string kind : {"blf", "asc"}) {
    SCOPED_TRACE(kind);
    std::string path = box.path("capture." + kind);
    logtest::Background logger(box, {"logging", "start", "--channel=10357/0,10357/1",
                                     "--output=" + path, "--format=" + kind},
                               "logger-" + kind);
    ASSERT_TRUE(logger.wait_for_output("Software logging started")) << logger.err();
    auto r = box.vxcli({"replay", "start", "--channel=10356/0,10356/1", "--file=" + source,
                        "--ignore-timestamp"});
    ASSERT_EQ(r.rc, 0) << r.err;
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    logger.signal(SIGINT);
    ASSERT_EQ(logger.wait(), 0) << logger.err();
    auto frames = logtest::read_frames(path);
    ASSERT_EQ(frames.size(), 192u);
    check_with_python(kind, path, frames);
  }
}
