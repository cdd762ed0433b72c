// ISO-TP throughput of 4095-byte transfers with BS 0 and STmin 0: between
// two engines over an in-memory frame pipe (the engine alone), and over the
// virtual analyzer from 10356/1 to 10357/1, with the receiver reading its
// channel directly or through the daemon's receive broker. Classic CAN and
// CAN FD (64-byte frames).
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "cli/hooks.h"
#include "daemon/rx_broker.h"
#include "diag/commands.h"
#include "diag/isotp.h"
#include "diag/isotp_link.h"
#include "vxapi.h"

extern char** environ;

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

// --- over the virtual analyzer ---

std::string g_dir;

void stop_service() {
  if (g_dir.empty()) return;
  std::string ctl = std::string(VX_BIN_DIR) + "/vxsim";
  pid_t pid;
  char* argv[] = {ctl.data(), const_cast<char*>("shutdown"), nullptr};
  if (posix_spawn(&pid, ctl.c_str(), nullptr, nullptr, argv, environ) == 0) waitpid(pid, nullptr, 0);
  std::error_code ec;
  std::filesystem::remove_all(g_dir, ec);
}

// A private analyzer service, so that nothing else shares the bus.
bool device_ready() {
  static bool ready = [] {
    char templ[] = "/tmp/vxsim-isotp-bench-XXXXXX";
    if (!mkdtemp(templ)) return false;
    g_dir = templ;
    setenv("VXSIM_DIR", g_dir.c_str(), 1);
    atexit(stop_service);
    char message[256];
    if (vxcli_device_library_load(message, sizeof message) != 0) {
      fprintf(stderr, "%s\n", message);
      return false;
    }
    VX_Init();
    return vxcli_rx_broker_init() == 0;
  }();
  return ready;
}

VXHandle open_can(const char* serial, unsigned port) {
  std::vector<VXChannelInfo> infos(64);
  uint32_t n = 64;
  if (VX_Enumerate(infos.data(), &n) != VX_OK) return nullptr;
  for (uint32_t i = 0; i < n; i++) {
    if (strcmp(reinterpret_cast<const char*>(infos[i].serial), serial) != 0 || infos[i].port != port) continue;
    VXBitrate b{500, 2000, 75, 75, {}};
    VXHandle h = nullptr;
    return VX_OpenEx(&h, &infos[i], VX_CAN_MODE_NORMAL, 120, &b, 0, VX_OPEN_NO_TX_CONFIRM) == VX_OK ? h : nullptr;
  }
  return nullptr;
}

void device_transfer(benchmark::State& state, bool fd, bool broker) {
  if (!device_ready()) {
    state.SkipWithError("virtual analyzer not available");
    return;
  }
  vxcli_isotp_use_rx_broker();
  VXHandle tester = open_can("10356", 1), ecu = open_can("10357", 1);
  if (!tester || !ecu) {
    state.SkipWithError("cannot open 10356/1 and 10357/1");
    return;
  }
  VXNotifyHandle notify = 0;
  VX_GetNotification(ecu, &notify);
  const int slot = 0;
  if (broker && vxcli_rx_broker_attach(slot, ecu, notify, 0) != 0) {
    state.SkipWithError("cannot attach the broker");
    return;
  }
  vxcli_isotp_endpoint e;
  e.reqid = 0x7E0;
  e.respid = 0x7E8;
  e.fd = fd;
  e.block_size = 0;  // one flow control per transfer
  static vxcli_isotp_link tx, rx;
  if (vxcli_isotp_endpoint_link_open(e, VXCLI_ISOTP_ROLE_TESTER, &tx, tester, -1, "bench-tx") != 0 ||
      vxcli_isotp_endpoint_link_open(e, VXCLI_ISOTP_ROLE_ECU, &rx, ecu, broker ? slot : -1, "bench-rx") != 0) {
    state.SkipWithError("cannot open the links");
    return;
  }
  std::vector<uint8_t> data(4095), got(4095);
  for (size_t i = 0; i < data.size(); i++) data[i] = static_cast<uint8_t>(i * 7);
  for (auto _ : state) {
    uint32_t length = 4095, rrc = 1;
    std::thread receiver([&] { rrc = vxcli_isotp_link_receive(&rx, got.data(), &length, 5000); });
    uint32_t src = vxcli_isotp_link_send(&tx, data.data(), 4095, 5000);
    receiver.join();
    if (src != 0 || rrc != 0 || length != 4095 || got != data) {
      state.SkipWithError("transfer failed");
      break;
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 4095);
  vxcli_isotp_link_close(&tx);
  vxcli_isotp_link_close(&rx);
  if (broker) vxcli_rx_broker_detach(slot);
  VX_Close(tester);
  VX_Close(ecu);
}

void BM_IsotpDeviceDirectClassic(benchmark::State& state) { device_transfer(state, false, false); }
void BM_IsotpDeviceDirectFd(benchmark::State& state) { device_transfer(state, true, false); }
void BM_IsotpDeviceBrokerClassic(benchmark::State& state) { device_transfer(state, false, true); }
void BM_IsotpDeviceBrokerFd(benchmark::State& state) { device_transfer(state, true, true); }

}  // namespace

BENCHMARK(BM_IsotpClassic4095)->UseRealTime();
BENCHMARK(BM_IsotpFd4095)->UseRealTime();
BENCHMARK(BM_IsotpDeviceDirectClassic)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_IsotpDeviceDirectFd)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_IsotpDeviceBrokerClassic)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_IsotpDeviceBrokerFd)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
