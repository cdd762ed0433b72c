#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <string>
#include <thread>
#include <vector>

#include "blf_build.h"
#include "logging/blf_writer.h"
#include "logging/replay.h"

namespace {

struct Sent {
  int destination;
  uint32_t id;
  double at_ms;  // virtual clock when sent
};

// Records sends and sleeps on a virtual clock instead of waiting.
struct FakeBus {
  std::vector<Sent> sent;
  std::vector<int64_t> sleeps;
  double clock_ms = 0;
  uint32_t fail_id = 0xFFFFFFFF;
  int stop_after = -1;
  std::atomic<int> running{1};

  static uint32_t send(void* c, int destination, const vxcli_replay_record* r) {
    FakeBus* bus = static_cast<FakeBus*>(c);
    if (r->id == bus->fail_id) return 0x80;
    bus->sent.push_back({destination, r->id, bus->clock_ms});
    if (bus->stop_after > 0 && (int)bus->sent.size() >= bus->stop_after) bus->running = 0;
    return 0;
  }
  static void sleep(void* c, int64_t us) {
    FakeBus* bus = static_cast<FakeBus*>(c);
    bus->sleeps.push_back(us);
    bus->clock_ms += (double)us / 1000.0;
  }
  vxcli_replay_sink sink(FILE* log) {
    vxcli_replay_sink s = {};
    s.context = this;
    s.send = send;
    s.sleep_us = sleep;
    s.running = &running;
    s.log = log;
    return s;
  }
};

vxcli_replay_plan plan(int channels) {
  vxcli_replay_plan p = {};
  p.speed = 1.0;
  p.channel_count = channels;
  return p;
}

struct Outcome {
  vxcli_replay_result result;
  std::string log;
  int rc;
};

Outcome run(const std::string& path, const vxcli_replay_plan& p, FakeBus& bus) {
  Outcome out;
  vxcli_replay_input input;
  EXPECT_EQ(vxcli_replay_input_open(&input, path.c_str()), 0);
  char* text = nullptr;
  size_t size = 0;
  FILE* log = open_memstream(&text, &size);
  vxcli_replay_sink sink = bus.sink(log);
  out.rc = vxcli_replay_run(&input, &p, &sink, &out.result);
  fclose(log);
  out.log.assign(text, size);
  free(text);
  vxcli_replay_input_close(&input);
  return out;
}

std::string asc(const blftest::TempDir& dir, const std::string& body) {
  std::string path = dir.file("trace.asc");
  FILE* f = fopen(path.c_str(), "w");
  fputs("date Tue Nov 14 10:13:20 pm 2023\nbase hex  timestamps absolute\nBegin Triggerblock\n", f);
  fputs(body.c_str(), f);
  fputs("End TriggerBlock\n", f);
  fclose(f);
  return path;
}

std::vector<char*> argv(std::vector<std::string>& words) {
  std::vector<char*> out;
  for (auto& w : words) out.push_back(w.data());
  return out;
}

}  // namespace

TEST(ReplayOptions, ParsedWithDefaultsAndLimits) {
  vxcli_replay_options o;
  char msg[256];
  std::vector<std::string> w = {"--file=a.asc"};
  auto a = argv(w);
  EXPECT_EQ(vxcli_replay_parse_options((int)a.size(), a.data(), &o, msg, sizeof msg), -1);
  EXPECT_STREQ(msg, "--channel is required");
  w = {"--channel=1"};
  a = argv(w);
  EXPECT_EQ(vxcli_replay_parse_options((int)a.size(), a.data(), &o, msg, sizeof msg), -1);
  EXPECT_STREQ(msg, "--file is required");

  w = {"--channel=10356/0,10356/1", "--file", "t.blf", "--speed=-2", "--msg-delay=-5", "--cycle-delay=-1",
       "--loop", "--map-channel=1:10356/2", "--map-channel", "2:10356/3", "--map-strict"};
  a = argv(w);
  ASSERT_EQ(vxcli_replay_parse_options((int)a.size(), a.data(), &o, msg, sizeof msg), 0);
  EXPECT_STREQ(o.file, "t.blf");
  EXPECT_EQ(o.speed, 1.0);
  EXPECT_EQ(o.msg_delay_ms, 0);
  EXPECT_EQ(o.cycle_delay_ms, 0);
  EXPECT_TRUE(o.fixed_timing);
  EXPECT_TRUE(o.loop && o.map_strict);
  EXPECT_FALSE(o.ignore_channel);
  ASSERT_EQ(o.map_text_count, 2);
  EXPECT_STREQ(o.map_texts[1], "2:10356/3");

  w = {"--channel=1", "--file=t.asc", "--speed=2.5", "--msg-delay=20", "--ignore-timestamp"};
  for (int i = 0; i < 20; i++) w.push_back("--map-channel=" + std::to_string(i) + ":x");
  a = argv(w);
  ASSERT_EQ(vxcli_replay_parse_options((int)a.size(), a.data(), &o, msg, sizeof msg), 0);
  EXPECT_EQ(o.speed, 2.5);
  EXPECT_EQ(o.msg_delay_ms, 0);  // back-to-back wins
  EXPECT_EQ(o.map_text_count, 20);

  w = {"--channel=1", "--file=t.asc"};
  a = argv(w);
  ASSERT_EQ(vxcli_replay_parse_options((int)a.size(), a.data(), &o, msg, sizeof msg), 0);
  EXPECT_FALSE(o.fixed_timing);
  EXPECT_EQ(o.speed, 1.0);
}

TEST(ReplayOptions, ChannelMaps) {
  vxcli_replay_map m;
  char msg[256];
  ASSERT_EQ(vxcli_replay_parse_map("0:10356/0", &m, msg, sizeof msg), 0);
  EXPECT_EQ(m.asc_channel, 0);
  EXPECT_STREQ(m.spec, "10356/0");
  ASSERT_EQ(vxcli_replay_parse_map("64:a:b", &m, msg, sizeof msg), 0);
  EXPECT_STREQ(m.spec, "a:b");
  EXPECT_EQ(vxcli_replay_parse_map("65:10356/0", &m, msg, sizeof msg), -1);
  EXPECT_STREQ(msg, "Invalid ASC channel in --map-channel: 65");
  EXPECT_EQ(vxcli_replay_parse_map("-1:x", &m, msg, sizeof msg), -1);
  EXPECT_STREQ(msg, "Invalid ASC channel in --map-channel: -1");
  for (const char* bad : {"10356/0", "a:x", ":x", "1:", "1x:y"}) {
    EXPECT_EQ(vxcli_replay_parse_map(bad, &m, msg, sizeof msg), -1) << bad;
    EXPECT_EQ(std::string(msg), std::string("Invalid --map-channel (expected N:spec): ") + bad);
  }
  EXPECT_EQ(vxcli_replay_parse_map(("1:" + std::string(64, 'a')).c_str(), &m, msg, sizeof msg), -1);
}

TEST(ReplayPlan, DestinationsAndDelays) {
  vxcli_replay_plan p = plan(2);
  int counted;
  EXPECT_EQ(vxcli_replay_destination(&p, 1, &counted), 0);
  EXPECT_EQ(vxcli_replay_destination(&p, 2, &counted), 1);
  EXPECT_EQ(vxcli_replay_destination(&p, 3, &counted), -1);
  EXPECT_EQ(counted, 0);
  EXPECT_EQ(vxcli_replay_destination(&p, 0, &counted), -1);
  p.map_count = 2;
  p.map_asc[0] = 5, p.map_open[0] = 0;  // not open: passed over
  p.map_asc[1] = 5, p.map_open[1] = 1;
  EXPECT_EQ(vxcli_replay_destination(&p, 5, &counted), 3);
  p.ignore_channel = 1;
  EXPECT_EQ(vxcli_replay_destination(&p, 2, &counted), 0);
  p.map_strict = 1;
  EXPECT_EQ(vxcli_replay_destination(&p, 2, &counted), -1);
  EXPECT_EQ(counted, 1);

  p = plan(1);
  EXPECT_EQ(vxcli_replay_delay_ms(&p, -1, 5.0), 0);
  EXPECT_NEAR(vxcli_replay_delay_ms(&p, 1.0, 1.1), 100.0, 1e-9);
  EXPECT_EQ(vxcli_replay_delay_ms(&p, 1.1, 1.0), 0);
  p.speed = 2.0;
  EXPECT_NEAR(vxcli_replay_delay_ms(&p, 1.0, 1.1), 50.0, 1e-9);
  p.fixed_timing = 1;
  p.msg_delay_ms = 7;
  EXPECT_EQ(vxcli_replay_delay_ms(&p, 1.0, 0.5), 7.0);
}

TEST(ReplayRun, RetainTimingScaledAndLongGapsSentAtOnce) {
  blftest::TempDir dir;
  std::string path = asc(dir,
                         "0.100000 1 101 Rx d 1 00\n"
                         "0.200000 2 102 Rx d 1 00\n"
                         "0.200000 1 103 Rx d 1 00\n"
                         "150.200000 1 104 Rx d 1 00\n"
                         "150.300000 3 105 Rx d 1 00\n"
                         "150.400000 1 106 Rx d 1 00\n");
  FakeBus bus;
  vxcli_replay_plan p = plan(2);
  p.speed = 2.0;
  Outcome r = run(path, p, bus);
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.result.sent, 5);
  EXPECT_EQ(r.result.errors, 0);  // channel 3 is dropped without counting
  ASSERT_EQ(bus.sent.size(), 5u);
  EXPECT_EQ(bus.sent[1].destination, 1);
  // 100 ms at speed 2 is 50 ms; equal stamps and a gap of a minute or more
  // (150 s, 75 s at speed 2) do not wait;
  // the dropped record does not move the reference time.
  EXPECT_EQ(bus.sleeps, (std::vector<int64_t>{50000, 100000}));
  EXPECT_NEAR(bus.sent[4].at_ms - bus.sent[3].at_ms, 100.0, 1e-6);
}

TEST(ReplayRun, FixedTimingLoopAndStop) {
  blftest::TempDir dir;
  std::string path = asc(dir, "0.1 1 1 Rx d 0\n5.0 1 2 Rx d 0\n9.0 1 3 Rx d 0\n");
  FakeBus bus;
  bus.stop_after = 7;
  vxcli_replay_plan p = plan(1);
  p.fixed_timing = 1;
  p.msg_delay_ms = 20;
  p.loop = 1;
  p.cycle_delay_ms = 500;
  Outcome r = run(path, p, bus);
  EXPECT_EQ(r.result.sent, 7);
  EXPECT_EQ(r.result.passes, 3);
  // 20 ms between records, 500 ms between passes, nothing after the stop.
  EXPECT_EQ(bus.sleeps, (std::vector<int64_t>{20000, 20000, 500000, 20000, 20000, 500000}));
  EXPECT_EQ(bus.sent[6].id, 1u);
}

TEST(ReplayRun, ErrorsAreCountedAndReported) {
  blftest::TempDir dir;
  std::string path = asc(dir,
                         "0.1 1 10 Rx d 0\n"
                         "0.2 L1 3C Rx 1 AA checksum = 12\n"
                         "0.3 4 11 Rx d 0\n"
                         "0.4 1 12 Rx d 2 01 02\n");
  FakeBus bus;
  bus.fail_id = 0x12;
  vxcli_replay_plan p = plan(1);
  p.map_count = 1;
  p.map_asc[0] = 1;
  p.map_open[0] = 1;
  p.map_strict = 1;
  p.verbose = 1;
  Outcome r = run(path, p, bus);
  EXPECT_EQ(r.result.sent, 1);
  EXPECT_EQ(r.result.errors, 3);  // LIN, unmapped channel 4, failed send
  EXPECT_NE(r.log.find("LIN replay requires a daemon-opened LIN channel; skipping record 5\n"),
            std::string::npos) << r.log;
  EXPECT_NE(r.log.find("recorded channel 4 not in map (strict), skipping record 6\n"),
            std::string::npos) << r.log;
  EXPECT_NE(r.log.find("Send failed record 7: "), std::string::npos) << r.log;
  EXPECT_NE(r.log.find("TX ASCch1 ID=0x010 DLC=0 []\n"), std::string::npos) << r.log;
  ASSERT_EQ(bus.sent.size(), 1u);
  EXPECT_EQ(bus.sent[0].destination, 1);  // the mapping, after the opened channel
}

TEST(ReplayRun, MalformedBlfEndsThePass) {
  blftest::TempDir dir;
  using namespace blftest;
  Bytes s;
  append(s, object(1, can_payload(1, 0x1, 1, {1}), 0));
  append(s, object(1, can_payload(1, 0x2, 12, {}), 100000000));  // classic DLC 12
  append(s, object(1, can_payload(1, 0x3, 1, {1}), 200000000));
  Bytes f = file_header();
  append(f, container(s));
  std::string path = dir.file("bad.blf");
  write(path, f);
  FakeBus bus;
  vxcli_replay_plan p = plan(1);
  p.loop = 1;
  bus.stop_after = 3;
  Outcome r = run(path, p, bus);
  EXPECT_EQ(bus.sent.size(), 3u);  // passes continue while each one sends something
  EXPECT_EQ(r.result.errors, 2);    // the third pass was stopped before its fault
  EXPECT_NE(r.log.find("Malformed or unsupported replay record in " + path), std::string::npos);

  // A file that never yields a frame does not loop forever.
  s = object(1, can_payload(1, 0x2, 12, {}), 0);
  f = file_header();
  append(f, container(s));
  write(path, f);
  FakeBus idle;
  r = run(path, p, idle);
  EXPECT_EQ(r.result.passes, 1);
  EXPECT_EQ(r.result.errors, 1);
}

TEST(ReplayRun, RealSleepWakesOnStop) {
  blftest::TempDir dir;
  std::string path = asc(dir, "0.0 1 1 Rx d 0\n30.0 1 2 Rx d 0\n");
  std::atomic<int> running{1};
  int sent = 0;
  vxcli_replay_sink sink = {};
  sink.context = &sent;
  sink.send = [](void* c, int, const vxcli_replay_record*) -> uint32_t {
    ++*static_cast<int*>(c);
    return 0;
  };
  sink.running = &running;
  vxcli_replay_plan p = plan(1);
  vxcli_replay_input input;
  ASSERT_EQ(vxcli_replay_input_open(&input, path.c_str()), 0);
  vxcli_replay_result result;
  std::thread stopper([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    running = 0;
  });
  auto t0 = std::chrono::steady_clock::now();
  vxcli_replay_run(&input, &p, &sink, &result);
  double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  stopper.join();
  vxcli_replay_input_close(&input);
  EXPECT_LT(took, 5.0);  // not the 30 s of the gap
  EXPECT_EQ(sent, 2);    // the record in hand is still sent
}

TEST(ReplayInput, OpenRewindAndRelativeTimes) {
  blftest::TempDir dir;
  vxcli_replay_input in;
  EXPECT_EQ(vxcli_replay_input_open(nullptr, "x.asc"), -1);
  EXPECT_EQ(vxcli_replay_input_open(&in, ""), -1);
  EXPECT_EQ(vxcli_replay_input_open(&in, std::string(1024, 'a').c_str()), -1);
  EXPECT_EQ(vxcli_replay_input_open(&in, dir.file("missing.asc").c_str()), -1);
  EXPECT_TRUE(vxcli_path_is_blf("a.BLF"));
  EXPECT_TRUE(vxcli_path_is_blf("dir.x/a.blf"));
  EXPECT_FALSE(vxcli_path_is_blf("a.blff"));
  EXPECT_FALSE(vxcli_path_is_blf("blf"));
  // An ASC path that is really a BLF file just yields no frames, and the reverse fails.
  std::string path = dir.file("rel.asc");
  FILE* f = fopen(path.c_str(), "w");
  fputs("base hex  timestamps relative\n0.5 1 1 Rx d 0\n0.25 1 2 Rx d 0\n", f);
  fprintf(f, "%s\n", std::string(3000, 'z').c_str());  // an overlong line counts once
  fputs("0.25 1 3 Rx d 0\n", f);
  fclose(f);
  ASSERT_EQ(vxcli_replay_input_open(&in, path.c_str()), 0);
  vxcli_replay_record r;
  for (int pass = 0; pass < 2; pass++) {
    ASSERT_EQ(vxcli_replay_input_next(&in, &r), 1);
    EXPECT_DOUBLE_EQ(r.time, 0.5);
    ASSERT_EQ(vxcli_replay_input_next(&in, &r), 1);
    EXPECT_DOUBLE_EQ(r.time, 0.75);
    ASSERT_EQ(vxcli_replay_input_next(&in, &r), 1);
    EXPECT_DOUBLE_EQ(r.time, 1.0);
    EXPECT_EQ(in.records, 5u);
    EXPECT_EQ(vxcli_replay_input_next(&in, &r), 0);
    ASSERT_EQ(vxcli_replay_input_rewind(&in), 0);
    EXPECT_EQ(in.records, 0u);
  }
  vxcli_replay_input_close(&in);
  std::string blf = dir.file("not.blf");
  rename(path.c_str(), blf.c_str());
  EXPECT_EQ(vxcli_replay_input_open(&in, blf.c_str()), -1);
}
