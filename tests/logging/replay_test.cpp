#include <chrono>
#include <list>
#include <thread>

#include "log_test.h"
#include "logging/replay.h"

using namespace logtest;

namespace {

// Records sends and sleeps on a virtual clock instead of waiting.
struct FakeBus {
  struct Sent {
    int destination;
    uint32_t id;
  };
  std::vector<Sent> sent;
  std::vector<int64_t> sleeps;
  uint32_t fail_id = 0xFFFFFFFF;
  size_t stop_after = 0;
  std::atomic<int> running{1};
  std::string log;

  vxcli_replay_result run(const std::string& path, const vxcli_replay_plan& plan) {
    vxcli_replay_sink sink = {};
    sink.context = this;
    sink.send = [](void* c, int destination, const vxcli_replay_record* r) -> uint32_t {
      FakeBus* bus = static_cast<FakeBus*>(c);
      if (r->id == bus->fail_id) return 0x80;
      bus->sent.push_back({destination, r->id});
      if (bus->sent.size() == bus->stop_after) bus->running = 0;
      return 0;
    };
    sink.sleep_us = [](void* c, int64_t us) { static_cast<FakeBus*>(c)->sleeps.push_back(us); };
    sink.running = &running;
    char* text = nullptr;
    size_t size = 0;
    sink.log = open_memstream(&text, &size);
    vxcli_replay_input input;
    EXPECT_EQ(vxcli_replay_input_open(&input, path.c_str()), 0);
    vxcli_replay_result result;
    vxcli_replay_run(&input, &plan, &sink, &result);
    vxcli_replay_input_close(&input);
    fclose(sink.log);
    log.assign(text, size);
    free(text);
    return result;
  }
};

vxcli_replay_plan plan(int channels) {
  vxcli_replay_plan p = {};
  p.speed = 1.0;
  p.channel_count = channels;
  return p;
}

std::string trace(const TempDir& dir, const std::string& body) {
  std::string path = dir.file("trace.asc");
  FILE* f = fopen(path.c_str(), "w");
  fprintf(f, "base hex  timestamps absolute\n%s", body.c_str());
  fclose(f);
  return path;
}

// The options point into the words, which therefore stay alive.
int parse(std::vector<std::string> words, vxcli_replay_options* o, char* msg) {
  static std::list<std::vector<std::string>> kept;
  std::vector<char*> argv;
  for (auto& w : kept.emplace_back(std::move(words))) argv.push_back(w.data());
  return vxcli_replay_parse_options((int)argv.size(), argv.data(), o, msg, 256);
}

}  // namespace

TEST(ReplayOptions, TimingChoicesAndMaps) {
  vxcli_replay_options o;
  char msg[256];
  ASSERT_EQ(parse({"--channel=1", "--file", "t.blf", "--speed=-2", "--msg-delay=-5", "--cycle-delay=-1",
                   "--map-channel=1:10356/2", "--map-channel", "2:10356/3"}, &o, msg), 0);
  EXPECT_EQ(o.speed, 1.0);
  EXPECT_EQ(o.msg_delay_ms + o.cycle_delay_ms, 0);
  EXPECT_TRUE(o.fixed_timing);
  ASSERT_EQ(o.map_text_count, 2);
  EXPECT_STREQ(o.map_texts[1], "2:10356/3");
  ASSERT_EQ(parse({"--channel=1", "--file=t.asc", "--msg-delay=20", "--ignore-timestamp"}, &o, msg), 0);
  EXPECT_EQ(o.msg_delay_ms, 0);  // back-to-back wins
  ASSERT_EQ(parse({"--channel=1", "--file=t.asc"}, &o, msg), 0);
  EXPECT_FALSE(o.fixed_timing);

  vxcli_replay_map m;
  ASSERT_EQ(vxcli_replay_parse_map("0:10356/0", &m, msg, sizeof msg), 0);
  EXPECT_EQ(m.asc_channel, 0);
  EXPECT_STREQ(m.spec, "10356/0");
  for (const char* bad : {"10356/0", "a:x", ":x", "1:", "1x:y"}) {
    EXPECT_EQ(vxcli_replay_parse_map(bad, &m, msg, sizeof msg), -1) << bad;
    EXPECT_EQ(std::string(msg), std::string("Invalid --map-channel (expected N:spec): ") + bad);
  }

  // Mappings first (open ones only), then strict, then ignore-channel, then by number.
  vxcli_replay_plan p = plan(2);
  p.map_count = 2, p.map_asc[0] = 5, p.map_asc[1] = 5, p.map_open[1] = 1;
  int counted;
  EXPECT_EQ(vxcli_replay_destination(&p, 5, &counted), 3);
  EXPECT_EQ(vxcli_replay_destination(&p, 2, &counted), 1);
  p.ignore_channel = 1;
  EXPECT_EQ(vxcli_replay_destination(&p, 2, &counted), 0);
}

TEST(ReplayRun, RetainTimingScaledAndLongGapsSentAtOnce) {
  TempDir dir;
  FakeBus bus;
  vxcli_replay_plan p = plan(2);
  p.speed = 2.0;
  auto result = bus.run(trace(dir, "0.1 1 101 Rx d 0\n0.2 2 102 Rx d 0\n0.2 1 103 Rx d 0\n"
                                   "150.2 1 104 Rx d 0\n150.3 3 105 Rx d 0\n150.4 1 106 Rx d 0\n"), p);
  EXPECT_EQ(result.sent, 5);
  EXPECT_EQ(result.errors, 0);  // channel 3 is not opened: dropped without counting
  EXPECT_EQ(bus.sent[1].destination, 1);
  // 100 ms at speed 2 is 50; equal stamps and a gap of a minute or more (75 s
  // at speed 2) do not wait; the dropped record does not move the reference.
  EXPECT_EQ(bus.sleeps, (std::vector<int64_t>{50000, 100000}));
}

TEST(ReplayRun, FixedTimingLoopAndStop) {
  TempDir dir;
  FakeBus bus;
  bus.stop_after = 7;
  vxcli_replay_plan p = plan(1);
  p.fixed_timing = 1, p.msg_delay_ms = 20, p.loop = 1, p.cycle_delay_ms = 500;
  auto result = bus.run(trace(dir, "0.1 1 1 Rx d 0\n5.0 1 2 Rx d 0\n9.0 1 3 Rx d 0\n"), p);
  EXPECT_EQ(result.sent, 7);
  EXPECT_EQ(result.passes, 3);
  EXPECT_EQ(bus.sleeps, (std::vector<int64_t>{20000, 20000, 500000, 20000, 20000, 500000}));
}

TEST(ReplayRun, ErrorsAreCountedAndReported) {
  TempDir dir;
  FakeBus bus;
  bus.fail_id = 0x12;
  vxcli_replay_plan p = plan(1);
  p.map_count = 1, p.map_asc[0] = 1, p.map_open[0] = 1, p.map_strict = 1, p.verbose = 1;
  auto result = bus.run(trace(dir, "0.1 1 10 Rx d 0\n0.2 L1 3C Rx 1 AA checksum = 12\n"
                                   "0.3 4 11 Rx d 0\n0.4 1 12 Rx d 2 01 02\n"), p);
  EXPECT_EQ(result.sent, 1);
  EXPECT_EQ(result.errors, 3);  // LIN, unmapped channel 4, failed send
  for (const char* line : {"TX ASCch1 ID=0x010 DLC=0 []\n",
                           "LIN replay requires a daemon-opened LIN channel; skipping record 3\n",
                           "recorded channel 4 not in map (strict), skipping record 4\n",
                           "Send failed record 5: "})
    EXPECT_NE(bus.log.find(line), std::string::npos) << line << bus.log;
  EXPECT_EQ(bus.sent[0].destination, 1);  // the mapping comes after the opened channel

  // A malformed BLF object ends the pass; a file that never yields a frame does not loop forever.
  Bytes f = file_header();
  append(f, container(object(1, can_payload(1, 2, 12, {}), 0)));
  std::string path = dir.file("bad.blf");
  write(path, f);
  FakeBus idle;
  p = plan(1);
  p.loop = 1;
  result = idle.run(path, p);
  EXPECT_EQ(result.passes, 1);
  EXPECT_EQ(result.errors, 1);
  EXPECT_NE(idle.log.find("Malformed or unsupported replay record in " + path), std::string::npos);
}

TEST(ReplayRun, RealSleepWakesOnStop) {
  TempDir dir;
  std::string path = trace(dir, "0.0 1 1 Rx d 0\n30.0 1 2 Rx d 0\n");
  std::atomic<int> running{1};
  int sent = 0;
  vxcli_replay_sink sink = {};
  sink.context = &sent;
  sink.send = [](void* c, int, const vxcli_replay_record*) -> uint32_t { return ++*static_cast<int*>(c), 0u; };
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
  EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count(), 5.0);
  stopper.join();
  vxcli_replay_input_close(&input);
  EXPECT_EQ(sent, 2);  // the record in hand is still sent
}

TEST(ReplayInput, OpenRewindAndRelativeTimes) {
  TempDir dir;
  vxcli_replay_input in;
  EXPECT_EQ(vxcli_replay_input_open(&in, ""), -1);
  EXPECT_EQ(vxcli_replay_input_open(&in, std::string(1024, 'a').c_str()), -1);
  EXPECT_EQ(vxcli_replay_input_open(&in, dir.file("missing.asc").c_str()), -1);
  EXPECT_TRUE(vxcli_path_is_blf("dir.x/a.BLF"));
  EXPECT_FALSE(vxcli_path_is_blf("a.blff"));
  std::string path = dir.file("rel.asc");
  FILE* f = fopen(path.c_str(), "w");
  fprintf(f, "base hex  timestamps relative\n0.5 1 1 Rx d 0\n0.25 1 2 Rx d 0\n%s\n0.25 1 3 Rx d 0\n",
          std::string(3000, 'z').c_str());  // an overlong line counts once
  fclose(f);
  ASSERT_EQ(vxcli_replay_input_open(&in, path.c_str()), 0);
  vxcli_replay_record r;
  for (int pass = 0; pass < 2; pass++) {
    for (double t : {0.5, 0.75, 1.0}) {
      ASSERT_EQ(vxcli_replay_input_next(&in, &r), 1);
      EXPECT_DOUBLE_EQ(r.time, t);
    }
    EXPECT_EQ(in.records, 5u);
    EXPECT_EQ(vxcli_replay_input_next(&in, &r), 0);
    ASSERT_EQ(vxcli_replay_input_rewind(&in), 0);
  }
  vxcli_replay_input_close(&in);
}
