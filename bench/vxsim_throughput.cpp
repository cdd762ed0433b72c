// Cross-process throughput of the virtual analyzer: a sender process writes
// 8-byte CAN frames as fast as it can on 10356/0; this process receives them
// on 10357/0 the way the daemon's receive worker does (wait for a
// notification, drain with VX_Read) and checks that none was lost.
#include <benchmark/benchmark.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "cli/hooks.h"
#include "vxapi.h"

extern char** environ;

namespace {

constexpr uint32_t kFrames = 200000;

const VXChannelInfo* find(const std::vector<VXChannelInfo>& infos, const char* serial, unsigned port) {
  for (auto& i : infos)
    if (std::strcmp(reinterpret_cast<const char*>(i.serial), serial) == 0 && i.port == port) return &i;
  return nullptr;
}

std::vector<VXChannelInfo> enumerate() {
  std::vector<VXChannelInfo> infos(64);
  uint32_t n = 64;
  if (VX_Enumerate(infos.data(), &n) != VX_OK) n = 0;
  infos.resize(n);
  return infos;
}

VXHandle open_can(const char* serial, unsigned port, uint32_t rx_queue, uint32_t flags) {
  auto infos = enumerate();
  const VXChannelInfo* info = find(infos, serial, port);
  if (!info) return nullptr;
  VXBitrate b{500, 2000, 75, 75, {}};
  VXHandle h = nullptr;
  return VX_OpenEx(&h, info, VX_CAN_MODE_NORMAL, 120, &b, rx_queue, flags) == VX_OK ? h : nullptr;
}

// Loads libvxapi64.so from the program's directory, as vxcli does.
bool load_library() {
  char message[256];
  if (vxcli_device_library_load(message, sizeof message) == 0) return true;
  std::fprintf(stderr, "%s\n", message);
  return false;
}

// The sender, run as a separate process (this binary with VXSIM_BENCH_ROLE set).
int sender(uint32_t count) {
  if (!load_library()) return 1;
  VX_Init();
  VXHandle h = open_can("10356", 0, 64, VX_OPEN_NO_TX_CONFIRM);
  if (!h) return 2;
  VXMessage m{};
  m.control = 8;
  m.id = 0x123;
  for (uint32_t i = 0; i < count; ++i) {
    std::memcpy(m.data, &i, 4);
    VXStatus st;
    while ((st = VX_WriteCanMessage(h, &m)) == VX_ERR_TX_QUEUE_FULL) {
    }
    if (st != VX_OK) return 3;
  }
  VX_Close(h);
  VX_UnInit();
  return 0;
}

const int g_role = [] {
  if (const char* role = getenv("VXSIM_BENCH_ROLE"); role && *role) _exit(sender(static_cast<uint32_t>(atol(role))));
  return 0;
}();

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

void private_hardware() {
  if (!g_dir.empty()) return;
  char templ[] = "/tmp/vxsim-bench-XXXXXX";
  if (!mkdtemp(templ)) return;
  g_dir = templ;
  setenv("VXSIM_DIR", g_dir.c_str(), 1);
  atexit(stop_service);
}

double now_s() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec + ts.tv_nsec * 1e-9;
}

void BM_CrossProcessFrames(benchmark::State& state) {
  (void)g_role;
  private_hardware();
  if (!load_library()) {
    state.SkipWithError("cannot load libvxapi64.so");
    return;
  }
  VX_Init();
  VXHandle rx = open_can("10357", 0, 1 << 18, 0);
  if (!rx) {
    state.SkipWithError("cannot open the receiving channel");
    VX_UnInit();
    return;
  }
  VXNotifyHandle notify;
  VX_GetNotification(rx, &notify);
  uint64_t total_lost = 0, total_received = 0;
  double total_time = 0;
  for (auto _ : state) {
    VX_ClearBuffer(rx);
    std::string role = "VXSIM_BENCH_ROLE=" + std::to_string(kFrames);
    std::vector<char*> envp;
    for (char** e = environ; *e; ++e) envp.push_back(*e);
    envp.push_back(role.data());
    envp.push_back(nullptr);
    char self[] = "/proc/self/exe";
    char* argv[] = {self, nullptr};
    pid_t pid;
    if (posix_spawn(&pid, self, nullptr, nullptr, argv, envp.data()) != 0) {
      state.SkipWithError("cannot start the sender");
      break;
    }
    uint32_t received = 0, expected = 0, lost = 0;
    double first = 0, last = 0;
    VXMessage m;
    while (received + lost < kFrames) {
      VXStatus st = VX_Read(rx, &m, 0, nullptr);
      if (st == VX_ERR_QUEUE_EMPTY) {
        if (VX_WaitForNotifications(&notify, 1, 2000) != VX_OK) break;  // the sender stopped early
        continue;
      }
      if (st == VX_ERR_QUEUE_OVERRUN) continue;
      if (st != VX_OK) break;
      if (received == 0) first = now_s();
      uint32_t index;
      std::memcpy(&index, m.data, 4);
      if (index != expected) lost += index - expected;
      expected = index + 1;
      ++received;
      last = now_s();
    }
    lost += kFrames - received - lost;
    int status = 0;
    waitpid(pid, &status, 0);
    double elapsed = last > first ? last - first : 1e-9;
    state.SetIterationTime(elapsed);
    total_received += received;
    total_lost += lost;
    total_time += elapsed;
  }
  state.counters["frames_per_s"] = total_time > 0 ? total_received / total_time : 0;
  state.counters["lost"] = static_cast<double>(total_lost);
  state.counters["frames"] = static_cast<double>(total_received);
  VX_Close(rx);
  VX_UnInit();
}

BENCHMARK(BM_CrossProcessFrames)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
