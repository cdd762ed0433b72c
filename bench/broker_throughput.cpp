// Receive broker throughput: one publisher feeding 1, 4 or 16 readers on one
// channel, unpaced (how fast can it go) and paced at 100,000 frames/s (does
// anybody lose a frame at a realistic bus load); and the worker draining a
// channel of the virtual analyzer, against reading that channel directly.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "channel/channel.h"
#include "cli/hooks.h"
#include "daemon/rx_broker.h"

namespace {

constexpr int kChannel = 0;
constexpr size_t kReaderBatch = 256;

VXMessage frame(uint64_t n) {
  VXMessage m{};
  m.header = VX_MSG_HEADER_CAN;
  m.length = VX_MSG_PAYLOAD_LEN;
  m.timestamp = static_cast<uint32_t>(n * 10);
  m.id = static_cast<uint32_t>(n & 0x7FF);
  m.control = 8;
  std::memset(m.data, static_cast<int>(n), 8);
  return m;
}

struct Reader {
  vxcli_rx_cursor cursor{};
  std::thread thread;
};

// Readers drain in batches, as the daemon's logging and receive threads do,
// until the channel is detached.
class ReaderPool {
 public:
  explicit ReaderPool(int count) : readers_(count) {
    for (Reader& r : readers_) {
      vxcli_rx_broker_cursor_open_named(kChannel, 0, "bench", nullptr, &r.cursor);
      r.thread = std::thread([&r] {
        std::vector<vxcli_rx_record> batch(kReaderBatch);
        for (;;) {
          size_t n = 0;
          const int rc = vxcli_rx_broker_read_batch(&r.cursor, batch.data(), batch.size(), &n, 100);
          if (rc < 0) return;
        }
      });
    }
  }
  // Detaching wakes every reader with "not attached".
  void stop() {
    vxcli_rx_broker_detach(kChannel);
    for (Reader& r : readers_) r.thread.join();
  }
  uint64_t delivered() const {
    uint64_t sum = 0;
    for (const Reader& r : readers_) sum += r.cursor.delivered;
    return sum;
  }
  uint64_t lost() const {
    uint64_t sum = 0;
    for (const Reader& r : readers_) sum += r.cursor.lost;
    return sum;
  }
  // Until every reader has consumed or lost everything published so far.
  void wait_caught_up() const {
    vxcli_rx_channel_stats s{};
    vxcli_rx_broker_stats(kChannel, &s);
    for (;;) {
      bool done = true;
      for (const Reader& r : readers_) {
        vxcli_rx_consumer_stats cs{};
        vxcli_rx_broker_consumer_stats(&r.cursor, &cs);
        done = done && cs.position >= s.head;
      }
      if (done) return;
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
  }

 private:
  std::vector<Reader> readers_;
};

void BM_Publish(benchmark::State& state) {
  vxcli_rx_broker_init();
  vxcli_rx_broker_attach(kChannel, nullptr, 0, 8192);
  const VXMessage m = frame(1);
  for (auto _ : state) vxcli_rx_broker_publish(kChannel, &m);
  state.SetItemsProcessed(state.iterations());
  vxcli_rx_broker_shutdown();
}
BENCHMARK(BM_Publish);

// As fast as one publisher can go; counters show what the readers got.
void BM_PublishRead(benchmark::State& state) {
  const int readers = static_cast<int>(state.range(0));
  constexpr uint64_t kPerIteration = 1000;
  vxcli_rx_broker_init();
  vxcli_rx_broker_attach(kChannel, nullptr, 0, 8192);
  ReaderPool pool(readers);
  uint64_t n = 0;
  for (auto _ : state) {
    for (uint64_t i = 0; i < kPerIteration; ++i) {
      const VXMessage m = frame(++n);
      vxcli_rx_broker_publish(kChannel, &m);
    }
  }
  pool.wait_caught_up();
  pool.stop();
  state.SetItemsProcessed(static_cast<int64_t>(n));
  state.counters["delivered_per_reader"] = benchmark::Counter(
      static_cast<double>(pool.delivered()) / readers, benchmark::Counter::kIsRate);
  state.counters["lost_pct"] =
      100.0 * static_cast<double>(pool.lost()) / static_cast<double>(n * readers);
  vxcli_rx_broker_shutdown();
}
BENCHMARK(BM_PublishRead)->Arg(1)->Arg(4)->Arg(16)->UseRealTime()->MinTime(0.5);

// 100,000 frames/s arriving in small bursts, the way a worker drains them.
// lost must stay 0 and cpu_pct shows what the broker costs at that load.
void BM_Paced100k(benchmark::State& state) {
  const int readers = static_cast<int>(state.range(0));
  constexpr uint64_t kFrames = 50000;  // half a second of traffic
  constexpr uint64_t kBurst = 10;
  constexpr auto kBurstPeriod = std::chrono::microseconds(100);
  vxcli_rx_broker_init();
  vxcli_rx_broker_attach(kChannel, nullptr, 0, 8192);
  ReaderPool pool(readers);
  uint64_t n = 0;
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    for (uint64_t burst = 0; burst < kFrames / kBurst; ++burst) {
      std::this_thread::sleep_until(start + burst * kBurstPeriod);
      for (uint64_t i = 0; i < kBurst; ++i) {
        const VXMessage m = frame(++n);
        vxcli_rx_broker_publish(kChannel, &m);
      }
    }
    pool.wait_caught_up();
  }
  pool.stop();
  state.SetItemsProcessed(static_cast<int64_t>(n));
  state.counters["lost"] = static_cast<double>(pool.lost());
  state.counters["delivered_per_reader"] = static_cast<double>(pool.delivered()) / readers;
  vxcli_rx_broker_shutdown();
}
BENCHMARK(BM_Paced100k)->Arg(1)->Arg(4)->Arg(16)->UseRealTime()->MeasureProcessCPUTime()->Iterations(2)
    ->Unit(benchmark::kMillisecond);

// A private virtual analyzer with 10356/0 sending to 10357/0 over bus 0.
class Analyzer {
 public:
  Analyzer() {
    char dir[] = "/tmp/vxcli-broker-bench-XXXXXX";
    if (mkdtemp(dir) == nullptr) return;
    dir_ = dir;
    setenv("VXSIM_DIR", dir_.c_str(), 1);
    char message[512] = "";
    if (vxcli_device_library_init(message, sizeof message) != 0) {
      error_ = message;
      return;
    }
    rx = vxcli_open_can_channel_ex("10357/0", nullptr, VX_CAN_MODE_NORMAL, 0, nullptr);
    tx = vxcli_open_can_channel_ex("10356/0", nullptr, VX_CAN_MODE_NORMAL, 0, nullptr);
    if (rx == nullptr || tx == nullptr || VX_GetNotification(rx, &notify) != VX_OK)
      error_ = "cannot open 10356/0 and 10357/0";
  }
  ~Analyzer() {
    if (rx) VX_Close(rx);
    if (tx) VX_Close(tx);
    vxcli_device_library_shutdown();
    if (dir_.empty()) return;
    // Best effort: the service also ends by itself once idle.
    const std::string stop = std::string(VX_BIN_DIR) + "/vxsim shutdown >/dev/null 2>&1; rm -rf '" +
                             dir_ + "'";
    const int rc = std::system(stop.c_str());
    (void)rc;
    unsetenv("VXSIM_DIR");
  }
  const std::string& error() const { return error_; }

  // Sends `count` frames from another thread, as another node on the bus
  // would: as fast as possible, or paced at `per_second` in bursts of ten.
  std::thread send_async(uint64_t count, uint64_t per_second = 0) {
    sending = true;
    return std::thread([this, count, per_second] {
      VXMessage m{};
      m.id = 0x123;
      m.control = 8;
      const auto start = std::chrono::steady_clock::now();
      for (uint64_t n = 0; n < count; ++n) {
        if (per_second != 0 && n % 10 == 0)
          std::this_thread::sleep_until(start + std::chrono::microseconds(n * 1000000 / per_second));
        std::memcpy(m.data, &n, sizeof n);
        VX_WriteCanMessage(tx, &m);
      }
      sending = false;
    });
  }
  // Frames the device dropped because the receiving queue was full.
  uint32_t dropped() const { return vxcli_get_device_stat(rx, VX_STAT_GROUP_CHANNEL, VX_STAT_RX_DROPPED); }

  std::atomic<bool> sending{false};

  VXHandle rx = nullptr;
  VXHandle tx = nullptr;
  VXNotifyHandle notify = 0;

 private:
  std::string dir_;
  std::string error_;
};

constexpr uint64_t kAnalyzerFrames = 20000;

// The baseline: one reader on the library's own queue, no broker.
void BM_AnalyzerDirect(benchmark::State& state) {
  Analyzer analyzer;
  if (!analyzer.error().empty()) {
    state.SkipWithError(analyzer.error().c_str());
    return;
  }
  uint64_t received = 0;
  for (auto _ : state) {
    std::thread sender = analyzer.send_async(kAnalyzerFrames);
    uint64_t got = 0;
    VXMessage m{};
    while (got < kAnalyzerFrames) {
      const VXStatus status = VX_Read(analyzer.rx, &m, 100, nullptr);
      if (status == VX_OK) ++got;
      else if (status == VX_ERR_QUEUE_EMPTY && !analyzer.sending) break;  // some were dropped
      else if (status != VX_ERR_QUEUE_EMPTY && status != VX_ERR_QUEUE_OVERRUN) break;
    }
    sender.join();
    received += got;
  }
  state.SetItemsProcessed(static_cast<int64_t>(received));
  state.counters["device_dropped"] = analyzer.dropped();
}
BENCHMARK(BM_AnalyzerDirect)->UseRealTime()->Iterations(3)->Unit(benchmark::kMillisecond);

// The broker's worker drains the same traffic for 1, 4 or 16 readers;
// range(1) paces the sender (frames/s, 0 = as fast as it goes).
void BM_AnalyzerThroughBroker(benchmark::State& state) {
  const int readers = static_cast<int>(state.range(0));
  const uint64_t rate = static_cast<uint64_t>(state.range(1));
  Analyzer analyzer;
  if (!analyzer.error().empty()) {
    state.SkipWithError(analyzer.error().c_str());
    return;
  }
  vxcli_rx_broker_init();
  vxcli_rx_broker_attach(kChannel, analyzer.rx, analyzer.notify, 8192);
  ReaderPool pool(readers);
  uint64_t sent = 0;
  for (auto _ : state) {
    vxcli_rx_channel_stats before{};
    vxcli_rx_broker_stats(kChannel, &before);
    std::thread sender = analyzer.send_async(kAnalyzerFrames, rate);
    sender.join();
    sent += kAnalyzerFrames;
    // Until the worker has published everything that reached the device.
    for (uint64_t last = 0, still = 0; still < 500;) {
      vxcli_rx_channel_stats now{};
      vxcli_rx_broker_stats(kChannel, &now);
      if (now.published - before.published >= kAnalyzerFrames - analyzer.dropped()) break;
      still = now.published == last ? still + 1 : 0;
      last = now.published;
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    pool.wait_caught_up();
  }
  pool.stop();
  state.SetItemsProcessed(static_cast<int64_t>(sent));
  state.counters["lost"] = static_cast<double>(pool.lost());
  state.counters["device_dropped"] = analyzer.dropped();
  vxcli_rx_broker_shutdown();
}
BENCHMARK(BM_AnalyzerThroughBroker)
    ->ArgsProduct({{1, 4, 16}, {0, 100000}})
    ->ArgNames({"readers", "rate"})
    ->UseRealTime()->MeasureProcessCPUTime()->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
