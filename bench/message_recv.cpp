// Throughput of the receive printing path: the formatter alone, and a standalone
// "message recv --format=jsonl" process on a bus that device TX tasks flood.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "channel/channel.h"
#include "cli/hooks.h"
#include "cli/output.h"
#include "json/json.h"
#include "message/frame.h"

extern char** environ;

namespace {

void BM_FormatCanFrameJsonl(benchmark::State& state) {
  vxcli_can_frame frame = {};
  frame.id = 0x18DAF110;
  frame.flags = VXCLI_FRAME_IDE | VXCLI_FRAME_FDF | VXCLI_FRAME_BRS;
  frame.dlc = static_cast<uint8_t>(state.range(0));
  for (int i = 0; i < 64; i++) frame.data[i] = static_cast<uint8_t>(i * 7);
  vxcli_json_writer w;
  vxcli_json_writer_init(&w, 1024, 0x100000);
  vxcli_frame_print_options options = {VXCLI_FORMAT_JSONL, 0, 0, nullptr};
  uint64_t t = 0;
  for (auto _ : state) {
    w.length = 0;
    vxcli_format_can_frame(&w, &frame, t += 137, &options);
    benchmark::DoNotOptimize(w.data);
  }
  vxcli_json_writer_free(&w);
  state.counters["frames_per_s"] =
      benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_FormatCanFrameJsonl)->Arg(8)->Arg(15);

// A private device service: device 20001 has eight CAN FD ports on bus 0, each able to
// run 64 one-millisecond TX tasks (64k frames/s per port); device 20002 listens there.
constexpr int kFloodPorts = 8;

struct Flood {
  std::string dir;
  VXHandle ports[kFloodPorts] = {};
  bool ok = false;

  Flood() {
    char templ[] = "/tmp/vxbench-XXXXXX";
    if (!mkdtemp(templ)) return;
    dir = templ;
    std::string topology = dir + "/topology.yaml";
    FILE* f = fopen(topology.c_str(), "w");
    if (!f) return;
    fputs("devices:\n  - serial: \"20001\"\n    ports:\n", f);
    for (int p = 0; p < kFloodPorts; p++) fputs("      - {capability: CANFD, bus: 0}\n", f);
    fputs("  - serial: \"20002\"\n    ports:\n      - {capability: CANFD, bus: 0}\n", f);
    fclose(f);
    setenv("VXSIM_DIR", dir.c_str(), 1);
    setenv("VXSIM_TOPOLOGY", topology.c_str(), 1);
    char message[256];
    if (vxcli_device_library_init(message, sizeof message) != 0) {
      fprintf(stderr, "%s\n", message);
      return;
    }
    for (int p = 0; p < kFloodPorts; p++) {
      std::string spec = "20001/" + std::to_string(p);
      // The flooding channels keep nothing: no confirmations, every received frame rejected.
      VXChannelInfo infos[64];
      int count = 0;
      vxcli_channel_spec parsed;
      if (vxcli_enumerate(infos, &count) != VX_OK || vxcli_parse_channel_spec(spec.c_str(), &parsed) != 0)
        return;
      const VXChannelInfo* info = vxcli_resolve_channel(infos, count, &parsed);
      VXBitrate rate = {500, 2000, 75, 75, {0, 0, 0, 0, 0, 0}};
      if (!info || VX_OpenEx(&ports[p], info, VX_CAN_MODE_NORMAL, 120, &rate, 16, VX_OPEN_NO_TX_CONFIRM) != VX_OK)
        return;
      VXRxFilter none;
      memset(&none, 0, sizeof none);
      none.mode = VX_RXFILTER_REJECT;
      VX_SetRxFilters(ports[p], &none, 1);
    }
    ok = true;
  }
  // Puts the 64 tasks on the first active ports and clears the rest.
  void run(int active) {
    std::vector<VXTxTask> tasks(VX_TXTASK_CAPACITY);
    for (int p = 0; p < kFloodPorts; p++) {
      for (uint32_t i = 0; i < VX_TXTASK_CAPACITY; i++) {
        VXTxTask& t = tasks[i];
        memset(&t, 0, sizeof t);
        t.type = VX_TXTASK_FIXED;
        t.kind = VX_TXTASK_KIND_CAN;
        t.length = 8;
        t.id = 0x100 + i + 0x40 * static_cast<uint32_t>(p);
        t.cycle = 1;
        for (int b = 0; b < 8; b++) t.data[b] = static_cast<uint8_t>(i + b);
      }
      VX_SetTxTasks(ports[p], tasks.data(), p < active ? VX_TXTASK_CAPACITY : 0);
    }
  }
  ~Flood() {
    for (VXHandle h : ports) {
      if (!h) continue;
      VX_SetTxTasks(h, nullptr, 0);
      VX_Close(h);
    }
    vxcli_device_library_shutdown();
    std::string shutdown = std::string(VX_BIN_DIR) + "/vxsim shutdown >/dev/null 2>&1";
    if (system(shutdown.c_str()) != 0) {
    }
    std::string remove = "rm -rf '" + dir + "'";
    if (!dir.empty() && system(remove.c_str()) != 0) {
    }
  }
  uint32_t task_frames() const {
    uint32_t sum = 0;
    for (VXHandle h : ports)
      sum += vxcli_get_device_stat(h, VX_STAT_GROUP_PORT, VX_STAT_PORT_TASK_FRAMES);
    return sum;
  }
};

// Runs vxcli with stdout to /dev/null; the exit status, or -1. cpu_seconds receives the
// child's user and system time.
int run_vxcli(const std::vector<std::string>& args, double* cpu_seconds) {
  std::string exe = std::string(VX_BIN_DIR) + "/vxcli";
  std::vector<char*> argv{const_cast<char*>(exe.c_str())};
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  pid_t pid = -1;
  int rc = posix_spawn(&pid, exe.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) return -1;
  int status = 0;
  rusage usage;
  memset(&usage, 0, sizeof usage);
  wait4(pid, &status, 0, &usage);
  *cpu_seconds = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                 static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Arguments: flooding ports (64 tasks each, 1 kHz) and frames per capture. Frames per
// second of wall time is bounded by the flood and by the CPU the device service leaves;
// frames per CPU second of the capture process is the printing path's own cost.
void BM_RecvJsonlUnderFlood(benchmark::State& state) {
  static Flood flood;
  if (!flood.ok) {
    state.SkipWithError("virtual analyzer flood could not be set up");
    return;
  }
  flood.run(static_cast<int>(state.range(0)));
  const long frames = state.range(1);
  std::string count = "--count=" + std::to_string(frames);
  double seconds = 0, cpu = 0;
  uint32_t offered = 0;
  for (auto _ : state) {
    uint32_t before = flood.task_frames();
    auto start = std::chrono::steady_clock::now();
    double used = 0;
    int rc = run_vxcli({"message", "recv", "--channel=20002/0", count, "--format=jsonl"}, &used);
    auto elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    offered += flood.task_frames() - before;
    if (rc != 0) state.SkipWithError("message recv failed");
    seconds += elapsed;
    cpu += used;
    state.SetIterationTime(elapsed);
  }
  double total = static_cast<double>(frames) * static_cast<double>(state.iterations());
  state.counters["printed_frames_per_s"] = total / seconds;
  state.counters["frames_per_cpu_s"] = total / cpu;
  state.counters["offered_frames_per_s"] = offered / seconds;
}
BENCHMARK(BM_RecvJsonlUnderFlood)
    ->Args({2, 200000})
    ->Args({8, 200000})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);

}  // namespace

BENCHMARK_MAIN();
