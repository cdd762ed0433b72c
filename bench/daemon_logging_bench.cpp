// The daemon's logging path, broker ring to file: how many frames per second
// the logging thread keeps up with without losing any. The frames are
// published into the broker the way a channel worker does; the publisher
// never lets the ring overflow (it waits while the logging cursor is more
// than half a ring behind), so the rate is what the logger drains, and the
// lost count must stay 0.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "daemon/daemon_state.h"
#include "daemon/rx_broker.h"
#include "logging/replay_input.h"

namespace {

const uint64_t kFrames = 1000000;

std::string work_dir() {
  static std::string dir = [] {
    char templ[] = "/tmp/vxbench-dlog-XXXXXX";
    return std::string(mkdtemp(templ) ? templ : "/tmp");
  }();
  return dir;
}

void setup_slots(int count) {
  static bool initialised = false;
  if (!initialised) {
    daemon_state_init();
    vxcli_rx_broker_init();
    initialised = true;
  }
  for (int i = 0; i < count; i++) {
    Slot& s = g_daemon_slots[i];
    s.open = true;
    memset(&s.info, 0, sizeof s.info);
    memcpy(s.info.serial, "90000", 5);
    s.info.port = (uint8_t)i;
    vxcli_rx_broker_attach(i, nullptr, 0, 0);  // the caller publishes
  }
}

std::string ask(const std::vector<std::string>& words, bool json = false) {
  std::vector<std::string> copy = words;
  std::vector<char*> argv;
  for (auto& w : copy) argv.push_back(w.data());
  argv.push_back(nullptr);
  Words w{(int)copy.size(), argv.data(), json};
  static std::vector<char> buffer(1 << 20);
  Out out{buffer.data(), buffer.size(), 0};
  buffer[0] = 0;
  while (!vxcli_daemon_command_try_lock()) std::this_thread::yield();
  const char* answer = daemon_answer_logging(w, &out);
  std::string text = answer ? answer : "(null)";
  vxcli_daemon_command_unlock();
  return text;
}

uint64_t number_after(const std::string& text, const char* key) {
  size_t at = text.find(key);
  return at == std::string::npos ? 0 : strtoull(text.c_str() + at + strlen(key), nullptr, 10);
}

// The logging cursor's backlog on a channel.
uint64_t backlog(int channel) {
  vxcli_rx_consumer_stats stats;
  for (uint32_t n = 0; vxcli_rx_broker_consumer_at(channel, n, &stats) == 0; n++)
    if (strcmp(stats.name, "logging") == 0) return stats.pending;
  return 0;
}

void run(benchmark::State& state, const char* format) {
  const int channels = (int)state.range(0);
  setup_slots(channels);
  const uint64_t half_ring = VXCLI_RX_DEFAULT_CAPACITY / 2;
  uint64_t lost = 0, written = 0;
  for (auto _ : state) {
    std::string path = work_dir() + "/daemon." + format;
    std::string list;
    for (int i = 0; i < channels; i++) list += (i ? "," : "") + std::to_string(i);
    std::string started = ask({"logging", "start", "--channel=" + list, "--output=" + path,
                               std::string("--format=") + format});
    if (started.rfind("OK:", 0) != 0) {
      state.SkipWithError(started.c_str());
      return;
    }
    VXMessage m;
    memset(&m, 0, sizeof m);
    m.header = VX_MSG_HEADER_CAN;
    m.length = VX_MSG_PAYLOAD_LEN;
    m.control = 8;
    for (uint64_t i = 0; i < kFrames; i++) {
      int channel = (int)(i % (uint64_t)channels);
      if ((i & 1023) == 0)
        for (int c = 0; c < channels; c++)
          while (backlog(c) > half_ring) std::this_thread::sleep_for(std::chrono::microseconds(100));
      m.timestamp = (uint32_t)(i * 10);
      m.id = (uint32_t)(i & 0x7FF);
      memcpy(m.data, &i, 8);
      vxcli_rx_broker_publish(channel, &m);
    }
    // Until everything is in the file's writer, then stop (which finishes the file).
    for (;;) {
      std::string status = ask({"logging", "status", "--format=json"}, true);
      if (number_after(status, "\"messages\":") + number_after(status, "\"lost\":") >= kFrames) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::string stopped = ask({"logging", "stop", "--format=json"}, true);
    written = number_after(stopped, "\"messages\":");
    lost = number_after(stopped, "\"lost\":");
  }
  state.counters["frames/s"] =
      benchmark::Counter((double)kFrames, benchmark::Counter::kIsIterationInvariantRate);
  state.counters["lost"] = (double)lost;
  state.counters["written"] = (double)written;
}

void BM_DaemonLoggingBlf(benchmark::State& state) { run(state, "blf"); }
void BM_DaemonLoggingAsc(benchmark::State& state) { run(state, "asc"); }
BENCHMARK(BM_DaemonLoggingBlf)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);
BENCHMARK(BM_DaemonLoggingAsc)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);

}  // namespace

BENCHMARK_MAIN();
