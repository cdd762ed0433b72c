// Receive broker throughput: one publisher feeding 1, 4 or 16 readers on one
// channel, unpaced (how fast can it go) and paced at 100,000 frames/s (does
// anybody lose a frame at a realistic bus load).
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

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

}  // namespace

BENCHMARK_MAIN();
