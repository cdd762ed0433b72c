// Standalone logging and replay on the virtual analyzer: devices 10356 and
// 10357, port k of both on bus k, so what one sends the other receives.
#include "background.h"
#include "log_test.h"

using namespace logtest;

namespace {

struct Capture {
  std::vector<vxcli_log_frame> frames;
  std::string summary;
};

// Logs channels into path while a replay runs; returns what was logged.
Capture capture_replay(vxtest::Sandbox& box, const std::string& log_channels,
                       const std::string& path, const std::string& format,
                       const std::vector<std::string>& replay_args) {
  Capture c;
  logtest::Background logger(box, {"logging", "start", "--channel=" + log_channels,
                                   "--output=" + path, "--format=" + format},
                             "logger");
  EXPECT_TRUE(logger.wait_for_output("Software logging started: 2 channel(s) -> " + path))
      << logger.err();
  std::vector<std::string> args = {"replay", "start"};
  args.insert(args.end(), replay_args.begin(), replay_args.end());
  auto r = box.vxcli(args);
  EXPECT_EQ(r.rc, 0) << r.err;
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  logger.signal(SIGINT);
  EXPECT_EQ(logger.wait(), 0) << logger.err();
  c.summary = logger.out();
  c.frames = read_frames(path);
  return c;
}

}  // namespace

TEST(LoggingReplay, CapturesReplayToTheSameFramesThroughAscAndBlf) {
  StandaloneBox box;
  std::string source = vxtest::testdata("interop/pycan_stored.blf");
  auto want = read_frames(source);
  ASSERT_EQ(want.size(), 192u);

  // Trace -> bus 0/1 -> ASC.
  std::string asc = box.path("first.asc");
  Capture first = capture_replay(box, "10357/0,10357/1", asc, "asc",
                                 {"--channel=10356/0,10356/1", "--file=" + source});
  EXPECT_NE(first.summary.find("Logging stopped. 192 messages captured."), std::string::npos)
      << first.summary;
  std::string text = vxtest::read_file(asc);
  EXPECT_NE(text.find("//   ch1 = SN10357/port0\n//   ch2 = SN10357/port1\nBegin Triggerblock\n"),
            std::string::npos);
  EXPECT_EQ(text.substr(text.size() - 17), "End TriggerBlock\n");
  expect_same_frames(first.frames, want, true);
  expect_retained_timing(first.frames, want);

  // That ASC capture -> bus 2/3 -> BLF.
  std::string blf = box.path("second.blf");
  Capture second = capture_replay(box, "10357/2,10357/3", blf, "blf",
                                  {"--channel=10356/2,10356/3", "--file=" + asc});
  expect_same_frames(second.frames, want, true);
  expect_retained_timing(second.frames, first.frames);

  // That BLF capture, twice as fast -> bus 6/7 -> ASC.
  std::string third_path = box.path("third.asc");
  Capture third = capture_replay(box, "10357/6,10357/7", third_path, "asc",
                                 {"--channel=10356/6,10356/7", "--file=" + blf, "--speed=2.0"});
  expect_same_frames(third.frames, want, true);
  expect_retained_timing(third.frames, second.frames, 2.0);
}

TEST(LoggingReplay, LoopWithCycleDelayUntilInterrupted) {
  StandaloneBox box;
  std::string trace = box.write_file("loop.asc",
                                     "base hex  timestamps absolute\n"
                                     "1.000000 1 101 Rx d 1 01\n"
                                     "1.100000 1 102 Rx d 1 02\n");
  std::string path = box.path("loop.blf");
  logtest::Background logger(box, {"logging", "start", "--channel=10357/0", "--output=" + path,
                                   "--format=blf"},
                             "logger");
  ASSERT_TRUE(logger.wait_for_output("Software logging started")) << logger.err();
  logtest::Background replay(box, {"--format=json", "replay", "start", "--channel=10356/0",
                                   "--file=" + trace, "--loop", "--cycle-delay=300"},
                             "replay");
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  replay.signal(SIGINT);
  EXPECT_EQ(replay.wait(), 0) << replay.err();
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  logger.signal(SIGINT);
  EXPECT_EQ(logger.wait(), 0);
  auto frames = read_frames(path);
  ASSERT_GE(frames.size(), 4u);
  EXPECT_NE(replay.out().find("{\"status\":\"ok\",\"sent\":" + std::to_string(frames.size()) +
                              ",\"errors\":0,\"channels\":1,\"file\":"),
            std::string::npos)
      << replay.out();
  for (size_t i = 1; i < frames.size(); i++) {
    SCOPED_TRACE(i);
    EXPECT_EQ(frames[i].id, i % 2 ? 0x102u : 0x101u);
    double gap = frames[i].time - frames[i - 1].time;
    EXPECT_NEAR(gap, i % 2 ? 0.100 : 0.300, 0.05);  // a loaded machine oversleeps
  }
}

TEST(LoggingReplay, BlfKilledAfterFirstContainerStaysReadable) {
  StandaloneBox box;
  std::string trace;
  for (int i = 0; i < 70; i++) {
    char line[64];
    snprintf(line, sizeof line, "%d.%06d 1 %X Rx d 2 %02X %02X\n", i / 100, (i % 100) * 10000,
             0x200 + i, i, 255 - i);
    trace += line;
  }
  std::string source = box.write_file("many.asc", trace);
  std::string path = box.path("killed.blf");
  logtest::Background logger(box, {"logging", "start", "--channel=10357/0", "--output=" + path,
                                   "--format=blf"},
                             "logger");
  ASSERT_TRUE(logger.wait_for_output("Software logging started")) << logger.err();
  auto r = box.vxcli({"replay", "start", "--channel=10356/0", "--file=" + source});
  ASSERT_EQ(r.rc, 0) << r.err;
  std::this_thread::sleep_for(std::chrono::milliseconds(400));
  logger.signal(SIGKILL);
  EXPECT_EQ(logger.wait(), 128 + SIGKILL);

  Bytes f = read(path);
  ASSERT_GT(f.size(), 144u);
  EXPECT_EQ(get(f, 16, 8), f.size());
  EXPECT_EQ(get(f, 32, 4), 53u);  // the first container, flushed by the 54th frame
  auto frames = read_frames(path);
  ASSERT_EQ(frames.size(), 53u);
  for (size_t i = 0; i < frames.size(); i++) {
    EXPECT_EQ(frames[i].id, 0x200u + i);
    EXPECT_EQ(frames[i].data[1], 255 - i);
  }
}

TEST(LoggingReplay, RefusalsAndCountedErrors) {
  StandaloneBox box;
  std::string trace = box.write_file("t.asc",
                                     "1.0 1 100 Rx d 1 00\n"
                                     "1.1 2 101 Rx d 1 00\n"
                                     "1.2 L1 3C Rx 1 AA checksum = 12\n");
  auto r = box.vxcli({"replay", "start", "--channel=10356/0"});
  EXPECT_EQ(r.rc, 1);
  EXPECT_NE(r.err.find("ERROR: --file is required"), std::string::npos);
  r = box.vxcli({"replay", "start", "--channel=10356/0", "--file=" + box.path("none.asc")});
  EXPECT_NE(r.err.find("Failed to open file: " + box.path("none.asc")), std::string::npos);
  r = box.vxcli({"replay", "start", "--channel=99999/0", "--file=" + trace});
  EXPECT_EQ(r.rc, 1);
  EXPECT_NE(r.err.find("channel spec not found, skipping"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("No channels could be opened for: 99999/0"), std::string::npos) << r.err;
  r = box.vxcli({"replay", "start", "--channel=10356/0", "--file=" + trace, "--map-channel=65:10356/1"});
  EXPECT_NE(r.err.find("Invalid ASC channel in --map-channel: 65"), std::string::npos);

  // Channel 2 is not mapped (strict) and LIN cannot be sent standalone: 1 sent, 2 errors.
  r = box.vxcli({"--verbose", "replay", "start", "--channel=10356/0", "--file=" + trace,
                 "--map-channel=1:10356/1", "--map-strict"});
  EXPECT_EQ(r.rc, 1);
  EXPECT_NE(r.err.find("Mapped ASC channel 1 -> 10356/1\n"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("Replaying " + trace + " on 1 channel(s) (speed=1.0x, timing=retain)\n"),
            std::string::npos) << r.err;
  EXPECT_NE(r.err.find("LIN replay requires a daemon-opened LIN channel; skipping record 3"),
            std::string::npos);
  EXPECT_NE(r.err.find("Replayed 1 message(s), 2 error(s)\n"), std::string::npos) << r.err;

  r = box.vxcli({"logging", "start", "--channel=10357/0", "--output=x.trc", "--format=trc"});
  EXPECT_NE(r.err.find("--format must be asc or blf"), std::string::npos);
  r = box.vxcli({"logging", "start", "--channel=99999/1", "--output=x.asc"});
  EXPECT_NE(r.err.find("channel spec not found, skipping (port=1)"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("No matching channels found for: 99999/1"), std::string::npos);
  r = box.vxcli({"logging", "start", "--channel=10357/0", "--output=x.asc", "--hardware"});
  EXPECT_EQ(r.rc, 1);
  EXPECT_NE(r.err.find("Offline logging is supported only by generation-2.5 hardware"),
            std::string::npos) << r.err;

  // A short recording ends by itself.
  r = box.vxcli({"--format=json", "logging", "start", "--channel=10357/0",
                 "--output=" + box.path("quiet.asc"), "--duration=0.3"});
  EXPECT_EQ(r.rc, 0) << r.err;
  EXPECT_NE(r.out.find("{\"status\":\"ok\",\"messages\":0,\"channels\":1,\"format\":\"asc\""),
            std::string::npos) << r.out;
}
