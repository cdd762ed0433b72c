// Logging and replay served by a daemon on its own slots, end to end on the
// virtual analyzer (port k of devices 10356 and 10357 share bus k).
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "json/json.h"
#include "background.h"
#include "log_test.h"
#include "vxtest.h"

using namespace logtest;

namespace {

// A sandbox with a daemon on a port of this test process's own; the daemon is
// stopped on the way out, also after a failed assertion.
struct DaemonBox {
  vxtest::Sandbox box;
  int port = 0;
  DaemonBox() {
    // Another daemon may take the port between the pick and the start: pick again.
    vxtest::RunResult r;
    for (int attempt = 0; attempt < 3; attempt++) {
      port = free_port();
      box.env()["VXCLI_DAEMON_PORT"] = std::to_string(port);
      r = run({"daemon", "start"});
      if (r.rc == 0) break;
    }
    EXPECT_EQ(r.rc, 0) << r.out << r.err;
  }
  ~DaemonBox() { box.vxcli({"daemon", "stop"}, 30); }
  vxtest::RunResult run(const std::vector<std::string>& args) const { return box.vxcli(args, 60); }
  void open(const std::string& channel, const std::string& extra = "") {
    std::vector<std::string> args = {"channel", "open", "--channel=" + channel};
    if (!extra.empty()) args.push_back(extra);
    auto r = run(args);
    ASSERT_EQ(r.rc, 0) << r.out << r.err;
  }
  // Waits until the replay has ended by itself.
  bool wait_replay_done(int timeout_ms = 30000) {
    for (int waited = 0; waited < timeout_ms; waited += 100) {
      auto r = run({"replay", "status", "--format=json"});
      if (r.out.find("\"active\":false") != std::string::npos) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
  }
};

std::string daemon_log(const DaemonBox& d) {
  return vxtest::read_file(d.box.path("state/vxcli/daemon_" + std::to_string(d.port) + ".log"));
}

}  // namespace

TEST(DaemonLogging, TwoChannelsIntoOneBlfWhileAReplayRuns) {
  DaemonBox d;
  // Slots 0 and 1 record what slots 2 and 3 replay.
  d.open("10357/0");
  d.open("10357/1");
  d.open("10356/0");
  d.open("10356/1");
  std::string source = vxtest::testdata("interop/pycan_stored.blf");
  auto want = read_frames(source);
  ASSERT_EQ(want.size(), 192u);

  std::string path = d.box.path("both.blf");
  auto start = d.run({"logging", "start", "--channel=0,10357/1", "--output=both.blf", "--format=blf"});
  ASSERT_EQ(start.rc, 0) << start.out << start.err;
  EXPECT_EQ(start.out, "OK: logging started: 2 channel(s) -> " + path +
                           " (BLF)\n  ch1 = SN10357/port0 (slot 0)\n  ch2 = SN10357/port1 (slot 1)\n");
  auto again = d.run({"logging", "start", "--channel=0", "--output=" + d.box.path("x.asc")});
  EXPECT_EQ(again.rc, 1);
  EXPECT_EQ(again.out, "ERROR: logging already active\n");

  auto replay = d.run({"replay", "start", "--channel=2,3", "--file=" + source});
  ASSERT_EQ(replay.rc, 0) << replay.out << replay.err;
  EXPECT_EQ(replay.out.rfind("OK: replay started: " + source + " on 2 channel(s) (speed=1.0x, timing=retain)", 0),
            0u) << replay.out;
  EXPECT_EQ(d.run({"replay", "start", "--channel=2", "--file=" + source}).out, "ERROR: replay already active\n");
  auto busy = d.run({"replay", "status"});
  EXPECT_EQ(busy.out.rfind("OK: replay active\n=== replay status ===\n  state: active\n  file: " + source, 0), 0u)
      << busy.out;
  ASSERT_TRUE(d.wait_replay_done());
  auto done = d.run({"replay", "status"});
  EXPECT_NE(done.out.find("  last: 192 sent, 0 errors from " + source), std::string::npos) << done.out;

  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  auto status = d.run({"logging", "status"});
  EXPECT_EQ(status.out.rfind("OK: logging active\n=== logging status ===\n  state: active\n  format: BLF\n"
                             "  output: " + path + "\n  messages: 192\n  lost: 0\n", 0),
            0u) << status.out;
  EXPECT_NE(status.out.find("  ch2 = SN10357/port1 (slot 1, reading, received=9"), std::string::npos) << status.out;
  auto json = d.run({"logging", "status", "--channel=1", "--format=json"});
  EXPECT_NE(json.out.find("\"channels\":[{\"channel\":2,\"slot\":1,\"device\":\"SN10357/port1\",\"reading\":true"),
            std::string::npos) << json.out;

  auto stop = d.run({"logging", "stop"});
  ASSERT_EQ(stop.rc, 0) << stop.out;
  EXPECT_EQ(stop.out, "OK: logging stopped, 192 messages written to " + path + "\n");
  EXPECT_EQ(d.run({"logging", "stop"}).out, "ERROR: logging not active\n");
  std::string log = daemon_log(d);
  EXPECT_NE(log.find("Daemon: logging stopped, 192 messages written to " + path + "\n"), std::string::npos);
  EXPECT_NE(log.find("Daemon: replay stopped, 192 sent, 0 errors from " + source + "\n"), std::string::npos);

  // Both channels in one file, interleaved as on the bus, with the trace's timing.
  Bytes f = read(path);
  ASSERT_GT(f.size(), 144u);
  EXPECT_EQ(get(f, 16, 8), f.size());
  EXPECT_EQ(get(f, 32, 4), 192u);
  auto got = read_frames(path);
  expect_same_frames(got, want, true);
  expect_retained_timing(got, want);
}

TEST(DaemonLogging, LinReplayOnDaemonLinChannelsLoggedToAsc) {
  DaemonBox d;
  d.open("10356/4", "--mode=master");  // slot 0, master: sends the trace's frames
  d.open("10357/4", "--mode=slave");  // slot 1, hears them
  d.open("10356/0");                 // slot 2, CAN
  std::string trace = d.box.write_file("lin.asc",
                                       "base hex  timestamps absolute\n"
                                       "1.000000 L1 21 Tx 2 11 22 checksum = AB\n"
                                       "1.020000 L1 3C Tx 8 00 11 22 33 44 55 66 77 checksum = 5A CSM = enhanced\n"
                                       "1.040000 1 123 Rx d 1 55\n"
                                       "1.060000 L2 10 Tx 1 99 checksum = 01\n");
  std::string path = d.box.path("lin.asc.log");
  ASSERT_EQ(d.run({"logging", "start", "--channel=1", "--output=" + path}).rc, 0);
  // ASC channel 1 -> the master, 2 -> the CAN slot: the CAN record on the LIN
  // slot and the LIN record on the CAN slot each count one error.
  auto r = d.run({"replay", "start", "--channel=0,2", "--file=" + trace, "--format=json"});
  ASSERT_EQ(r.rc, 0) << r.out;
  EXPECT_EQ(r.out.rfind("{\"status\":\"ok\",\"state\":\"replaying\",\"file\":", 0), 0u) << r.out;
  ASSERT_TRUE(d.wait_replay_done());
  auto status = d.run({"replay", "status", "--format=json"});
  EXPECT_NE(status.out.find("\"last\":{\"file\":\"" + trace + "\",\"sent\":2,\"errors\":2,\"passes\":1}"),
            std::string::npos) << status.out;
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  ASSERT_EQ(d.run({"logging", "stop"}).rc, 0);

  auto got = read_frames(path);
  ASSERT_EQ(got.size(), 2u) << vxtest::read_file(path);
  EXPECT_TRUE(got[0].is_lin);
  EXPECT_EQ(describe(got[0], true), "ch1 lin id=21 dlc=2 len=2 cs=AB 1122");
  EXPECT_EQ(got[1].id, 0x3Cu);
  EXPECT_EQ(got[1].length, 8);
  EXPECT_EQ(got[1].data[7], 0x77);
  EXPECT_TRUE(got[1].lin_enhanced);
  EXPECT_NEAR(got[1].time - got[0].time, 0.020, 0.015);  // 19200 bit/s frames of 2 and 8 bytes
}

TEST(DaemonLogging, StopEndsALoopingReplayAndRefusals) {
  DaemonBox d;
  d.open("10356/0");
  d.open("10357/0");
  std::string trace = d.box.write_file("loop.asc",
                                       "1.000000 1 101 Rx d 1 01\n"
                                       "1.100000 1 102 Rx d 1 02\n");
  EXPECT_EQ(d.run({"replay", "stop"}).out, "ERROR: replay not active\n");
  auto missing = d.run({"replay", "start", "--channel=10356/3", "--file=" + trace});
  EXPECT_EQ(missing.rc, 1);
  EXPECT_EQ(missing.out, "ERROR: channel 10356/3 is not open in the daemon; open it with channel open first\n");
  EXPECT_EQ(d.run({"replay", "start", "--channel=0", "--file=none.asc"}).out,
            "ERROR: Failed to open file: " + d.box.path("none.asc") + "\n");
  EXPECT_EQ(d.run({"logging", "start", "--channel=1", "--output=x.trc", "--format=trc"}).out,
            "ERROR: --format must be asc or blf\n");
  auto idle = d.run({"logging", "status"});
  EXPECT_EQ(idle.out, "OK: logging idle\n=== logging status ===\n  state: idle\n");

  std::string path = d.box.path("loop.blf");
  ASSERT_EQ(d.run({"logging", "start", "--channel=1", "--output=" + path, "--format=blf", "--duration=30"}).rc, 0);
  ASSERT_EQ(d.run({"replay", "start", "--channel=0", "--file=" + trace, "--loop", "--cycle-delay=200"}).rc, 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(1200));
  auto stop = d.run({"replay", "stop", "--format=json"});
  ASSERT_EQ(stop.rc, 0) << stop.out;
  EXPECT_EQ(stop.out.rfind("{\"status\":\"ok\",\"state\":\"stopped\",\"sent\":", 0), 0u) << stop.out;
  EXPECT_NE(stop.out.find("\"errors\":0,"), std::string::npos) << stop.out;
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  auto logged = d.run({"logging", "stop", "--format=json"});
  ASSERT_EQ(logged.rc, 0) << logged.out;
  auto frames = read_frames(path);
  ASSERT_GE(frames.size(), 6u);
  EXPECT_NE(stop.out.find("\"sent\":" + std::to_string(frames.size()) + ","), std::string::npos) << stop.out;
  EXPECT_NE(logged.out.find("\"messages\":" + std::to_string(frames.size()) + ","), std::string::npos);
  for (size_t i = 1; i < frames.size(); i++) {
    SCOPED_TRACE(i);
    EXPECT_EQ(frames[i].id, i % 2 ? 0x102u : 0x101u);
    EXPECT_NEAR(frames[i].time - frames[i - 1].time, i % 2 ? 0.100 : 0.200, 0.05);
  }
}

// The daemon is a logging process too: a restart of its channels only pauses
// the recording, and killed while recording it leaves a file whose header
// names what is in it.
TEST(DaemonLogging, SurvivesRestartAndKilledDaemonLeavesReadableBlf) {
  DaemonBox d;
  d.open("10356/0");
  d.open("10357/0");
  std::string path = d.box.path("killed.blf");
  ASSERT_EQ(d.run({"logging", "start", "--channel=1", "--output=" + path, "--format=blf"}).rc, 0);
  auto send = [&](int count) {
    auto r = d.run({"message", "send", "--channel=0", "--id=0x321", "--data=0102030405060708",
                    "--count=" + std::to_string(count)});
    ASSERT_EQ(r.rc, 0) << r.out;
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
  };
  send(30);
  ASSERT_EQ(d.run({"daemon", "restart"}).rc, 0);
  send(60);
  auto status = d.run({"logging", "status"});
  EXPECT_NE(status.out.find("  messages: 90\n"), std::string::npos) << status.out;
  EXPECT_NE(daemon_log(d).find("Daemon: logging resumed on slot 1 (SN10357/port0)\n"), std::string::npos);

  auto json = d.run({"daemon", "status", "--format=json"});
  vxcli_json_token t[256];
  ASSERT_GT(vxcli_json_parse(json.out.c_str(), t, 256), 0) << json.out;
  int64_t pid = 0;
  int at = vxcli_json_object_get(json.out.c_str(), t, 0, "pid");
  ASSERT_GE(at, 0);
  ASSERT_EQ(vxcli_json_integer(json.out.c_str(), &t[at], &pid), 0);
  ASSERT_EQ(kill((pid_t)pid, SIGKILL), 0);
  for (int i = 0; i < 100 && kill((pid_t)pid, 0) == 0; i++)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));

  // The 30 frames before the restart went to disk when the channel closed; of
  // the 60 after it the first 53 filled a container (all 60 once the quiet
  // bus had the logger close the open container).
  Bytes f = read(path);
  ASSERT_GT(f.size(), 144u);
  EXPECT_EQ(get(f, 16, 8), f.size());
  uint64_t count = get(f, 32, 4);
  EXPECT_TRUE(count == 83u || count == 90u) << count;
  auto frames = read_frames(path);
  ASSERT_EQ(frames.size(), count);
  for (const auto& fr : frames) {
    EXPECT_EQ(fr.id, 0x321u);
    EXPECT_EQ(fr.data[7], 0x08);
  }
}

TEST(DaemonLogging, UnpluggedDeviceKeepsTheFileValidAndLoggingResumes) {
  DaemonBox d;
  d.open("10356/0");
  d.open("10357/0");
  std::string path = d.box.path("unplug.blf");
  ASSERT_EQ(d.run({"logging", "start", "--channel=1", "--output=" + path, "--format=blf"}).rc, 0);
  auto send = [&](const char* id, int count) {
    auto r = d.run({"message", "send", "--channel=0", std::string("--id=") + id, "--data=11",
                    "--count=" + std::to_string(count)});
    ASSERT_EQ(r.rc, 0) << r.out;
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
  };
  send("0x101", 20);
  // The logged device goes away: the daemon reports the slot, the file keeps
  // what was logged; when the device returns the logger picks it up again.
  ASSERT_EQ(d.box.run_program("vxsim", {"unplug", "10357"}).rc, 0);
  d.run({"daemon", "status"});
  EXPECT_NE(d.run({"daemon", "status"}).out.find("slot 1, owner=none, phase=disconnected"), std::string::npos);
  ASSERT_EQ(d.box.run_program("vxsim", {"replug", "10357"}).rc, 0);
  d.run({"daemon", "status"});
  EXPECT_NE(d.run({"daemon", "status"}).out.find("slot 1, owner=none, phase=active"), std::string::npos);
  for (int i = 0; i < 50 && daemon_log(d).find("logging resumed on slot 1") == std::string::npos; i++)
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  send("0x102", 20);
  ASSERT_EQ(d.run({"logging", "stop"}).rc, 0);

  auto frames = read_frames(path);
  int before = 0, after = 0;
  for (const auto& f : frames) {
    before += f.id == 0x101;
    after += f.id == 0x102;
  }
  EXPECT_EQ(before, 20);
  EXPECT_EQ(after, 20);
  Bytes f = read(path);
  EXPECT_EQ(get(f, 16, 8), f.size());
  EXPECT_EQ(get(f, 32, 4), frames.size());
}
