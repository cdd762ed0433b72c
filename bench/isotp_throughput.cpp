// ISO-TP engine throughput: 4095-byte transfers, BS 0, STmin 0, between two
// engines over an in-memory frame pipe (no device), classic CAN and CAN FD.
#include <benchmark/benchmark.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "diag/isotp.h"

namespace {

struct Pipe {
  std::mutex mu;
  std::condition_variable cv;
  std::deque<vxcli_isotp_frame> q;
};

struct End {
  Pipe* out;
  Pipe* in;
  static int send(void* c, const vxcli_isotp_frame* f, int32_t) {
    auto* e = static_cast<End*>(c);
    std::lock_guard<std::mutex> lock(e->out->mu);
    e->out->q.push_back(*f);
    e->out->cv.notify_one();
    return 0;
  }
  static int receive(void* c, vxcli_isotp_frame* f, int32_t timeout_ms) {
    auto* e = static_cast<End*>(c);
    std::unique_lock<std::mutex> lock(e->in->mu);
    if (!e->in->cv.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                            [&] { return !e->in->q.empty(); }))
      return 2;
    *f = e->in->q.front();
    e->in->q.pop_front();
    return 0;
  }
};

void transfer(benchmark::State& state, bool fd) {
  Pipe a, b;
  End tester{&a, &b}, ecu{&b, &a};
  vxcli_isotp_config tc, ec;
  vxcli_isotp_config_init(&tc);
  tc.tx_id = 0x7E0;
  tc.rx_id = 0x7E8;
  tc.fd = fd;
  tc.tx_dl = fd ? 64 : 8;
  ec = tc;
  ec.tx_id = 0x7E8;
  ec.rx_id = 0x7E0;
  vxcli_isotp_callbacks tcb{End::send, End::receive, nullptr, nullptr, nullptr, nullptr, &tester};
  vxcli_isotp_callbacks ecb{End::send, End::receive, nullptr, nullptr, nullptr, nullptr, &ecu};
  std::vector<uint8_t> data(4095, 0x5A), got(4095);
  for (auto _ : state) {
    uint32_t len = 4095;
    int rrc = -1;
    std::thread receiver([&] { rrc = vxcli_isotp_engine_receive(&ec, &ecb, got.data(), &len, 1000, nullptr); });
    int src = vxcli_isotp_engine_send(&tc, &tcb, data.data(), 4095, 1000, nullptr);
    receiver.join();
    if (src != 0 || rrc != 0) state.SkipWithError("transfer failed");
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 4095);
}

void BM_IsotpClassic4095(benchmark::State& state) { transfer(state, false); }
void BM_IsotpFd4095(benchmark::State& state) { transfer(state, true); }

}  // namespace

BENCHMARK(BM_IsotpClassic4095)->UseRealTime();
BENCHMARK(BM_IsotpFd4095)->UseRealTime();
BENCHMARK_MAIN();
