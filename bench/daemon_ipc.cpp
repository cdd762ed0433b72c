// The daemon's cost and capacity: one forwarded "message send" invocation against
// the standalone path, and "message recv --format=jsonl" clients served from the
// broker while other ports flood the listened buses with TX tasks.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "channel/channel.h"
#include "cli/hooks.h"
#include "vxapi.h"

extern char** environ;

namespace {

constexpr int kChannels = 4;
constexpr int kTasksPerPort = 20;  // 1 ms cycle each: 20,000 frames/s per port
constexpr int kMaxTasksPerPort = 64;

std::string g_dir;

// Runs vxcli with extra environment settings; stdout into out (when given) or
// /dev/null. Exit status, or -1.
int run_vxcli(const std::vector<std::string>& args, const std::vector<std::string>& extra_env = {},
              const std::string& out = "/dev/null") {
  std::string exe = std::string(VX_BIN_DIR) + "/vxcli";
  std::vector<char*> argv{const_cast<char*>(exe.c_str())};
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  std::vector<std::string> env;
  for (char** e = environ; *e; e++) {
    bool replaced = false;
    for (const auto& x : extra_env) replaced = replaced || strncmp(*e, x.c_str(), x.find('=') + 1) == 0;
    if (!replaced) env.push_back(*e);
  }
  for (const auto& x : extra_env) env.push_back(x);
  std::vector<char*> envp;
  for (auto& e : env) envp.push_back(const_cast<char*>(e.c_str()));
  envp.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  pid_t pid = -1;
  int rc = posix_spawn(&pid, exe.c_str(), &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) return -1;
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string slurp(const std::string& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

// A private device service and daemon. Device 30001 ports 0..3 flood buses 0..3;
// device 30002 ports 0..3 listen there and are the daemon's slots 0..3.
struct Bench {
  VXHandle flood[kChannels] = {};
  bool ok = false;

  Bench() {
    char templ[] = "/tmp/vxbench-daemon-XXXXXX";
    if (!mkdtemp(templ)) return;
    g_dir = templ;
    std::string topology = g_dir + "/topology.yaml";
    FILE* f = fopen(topology.c_str(), "w");
    if (!f) return;
    for (const char* serial : {"30001", "30002"}) {
      fprintf(f, "%s  - serial: \"%s\"\n    ports:\n", serial[4] == '1' ? "devices:\n" : "", serial);
      for (int p = 0; p < kChannels; p++) fprintf(f, "      - {capability: CANFD, bus: %d}\n", p);
    }
    fclose(f);
    // Everything below (service, daemon, pid and log files) stays in the temporary directory.
    setenv("VXSIM_DIR", (g_dir + "/sim").c_str(), 1);
    setenv("VXSIM_TOPOLOGY", topology.c_str(), 1);
    setenv("XDG_RUNTIME_DIR", g_dir.c_str(), 1);
    setenv("XDG_STATE_HOME", g_dir.c_str(), 1);
    setenv("VXCLI_DAEMON_PORT", std::to_string(40000 + getpid() % 20000).c_str(), 1);
    char message[256];
    if (vxcli_device_library_init(message, sizeof message) != 0) {
      fprintf(stderr, "%s\n", message);
      return;
    }
    VXChannelInfo infos[64];
    int count = 0;
    if (vxcli_enumerate(infos, &count) != VX_OK) return;
    for (int p = 0; p < kChannels; p++) {
      vxcli_channel_spec spec;
      std::string text = "30001/" + std::to_string(p);
      if (vxcli_parse_channel_spec(text.c_str(), &spec) != 0) return;
      const VXChannelInfo* info = vxcli_resolve_channel(infos, count, &spec);
      VXBitrate rate = {500, 2000, 75, 75, {0, 0, 0, 0, 0, 0}};
      if (!info || VX_OpenEx(&flood[p], info, VX_CAN_MODE_NORMAL, 120, &rate, 16, VX_OPEN_NO_TX_CONFIRM) != VX_OK)
        return;
      VXRxFilter none;
      memset(&none, 0, sizeof none);
      none.mode = VX_RXFILTER_REJECT;
      VX_SetRxFilters(flood[p], &none, 1);
    }
    if (run_vxcli({"daemon", "start", "--channel=30002/0,30002/1,30002/2,30002/3"}) != 0) return;
    ok = true;
  }
  // tasks one-millisecond TX tasks on every flooding port (0 stops the flood).
  void run(int tasks_per_port) {
    std::vector<VXTxTask> tasks(kMaxTasksPerPort);
    for (int p = 0; p < kChannels; p++) {
      for (int i = 0; i < tasks_per_port; i++) {
        VXTxTask& t = tasks[i];
        memset(&t, 0, sizeof t);
        t.type = VX_TXTASK_FIXED;
        t.kind = VX_TXTASK_KIND_CAN;
        t.length = 8;
        t.id = 0x100 + static_cast<uint32_t>(i) + 0x40 * static_cast<uint32_t>(p);
        t.cycle = 1;
        for (int b = 0; b < 8; b++) t.data[b] = static_cast<uint8_t>(i + b);
      }
      VX_SetTxTasks(flood[p], tasks.data(), static_cast<uint32_t>(tasks_per_port));
    }
  }
  ~Bench() {
    run(0);
    run_vxcli({"daemon", "stop"});
    for (VXHandle h : flood)
      if (h) VX_Close(h);
    vxcli_device_library_shutdown();
    std::string shutdown = std::string(VX_BIN_DIR) + "/vxsim shutdown >/dev/null 2>&1";
    if (system(shutdown.c_str()) != 0) {
    }
    std::string remove = "rm -rf '" + g_dir + "'";
    if (!g_dir.empty() && system(remove.c_str()) != 0) {
    }
  }
};

Bench& bench() {
  static Bench b;
  return b;
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

// One "vxcli message send" process, start to exit. Argument 1: through the daemon's
// open slot; 0: standalone (the client finds no daemon on another port and opens
// the channel itself).
void BM_MessageSendInvocation(benchmark::State& state) {
  Bench& b = bench();
  if (!b.ok) {
    state.SkipWithError("daemon or virtual analyzer could not be set up");
    return;
  }
  b.run(0);
  const bool forwarded = state.range(0) == 1;
  std::vector<std::string> args = {"message", "send", forwarded ? "--channel=1" : "--channel=30002/1", "--id=0x123",
                                   "--data=11223344"};
  std::vector<std::string> env;
  if (!forwarded) env.push_back("VXCLI_DAEMON_PORT=" + std::to_string(1 + 40000 + getpid() % 20000));
  std::vector<double> times;
  for (auto _ : state) {
    auto start = std::chrono::steady_clock::now();
    int rc = run_vxcli(args, env);
    double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (rc != 0) state.SkipWithError("message send failed");
    times.push_back(elapsed);
    state.SetIterationTime(elapsed);
  }
  state.counters["median_ms"] = median(times) * 1000.0;
}
BENCHMARK(BM_MessageSendInvocation)->Arg(1)->Arg(0)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(15);

// Flood on all four buses at state.range(2) x 1,000 frames/s each; state.range(0)
// clients capture state.range(1) frames each, one channel per client, concurrently.
void BM_DaemonRecvJsonlUnderFlood(benchmark::State& state) {
  Bench& b = bench();
  if (!b.ok) {
    state.SkipWithError("daemon or virtual analyzer could not be set up");
    return;
  }
  const int clients = static_cast<int>(state.range(0));
  const std::string count = "--count=" + std::to_string(state.range(1));
  b.run(static_cast<int>(state.range(2)));
  usleep(300000);
  std::string log_path = g_dir + "/vxcli/daemon_" + std::string(getenv("VXCLI_DAEMON_PORT")) + ".log";
  size_t log_mark = slurp(log_path).size();
  double seconds = 0;
  long frames = 0;
  bool failed = false;
  for (auto _ : state) {
    auto start = std::chrono::steady_clock::now();
    std::vector<pid_t> pids;
    std::vector<std::string> outs;
    for (int c = 0; c < clients; c++) {
      outs.push_back(g_dir + "/recv" + std::to_string(c) + ".jsonl");
      std::string exe = std::string(VX_BIN_DIR) + "/vxcli";
      pid_t pid = fork();
      if (pid == 0) {
        int fd = open(outs.back().c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        int err = open((outs.back() + ".err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(fd, 1);
        dup2(err, 2);
        std::string channel = "--channel=" + std::to_string(c);
        execl(exe.c_str(), exe.c_str(), "message", "recv", channel.c_str(), count.c_str(), "--duration=20",
              "--format=jsonl", static_cast<char*>(nullptr));
        _exit(127);
      }
      pids.push_back(pid);
    }
    for (pid_t pid : pids) {
      int status = 0;
      waitpid(pid, &status, 0);
      failed = failed || !WIFEXITED(status) || WEXITSTATUS(status) != 0;
    }
    double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    for (const auto& o : outs) {
      std::string text = slurp(o);
      std::string err = slurp(o + ".err");
      if (!err.empty()) fprintf(stderr, "recv client: %s", err.c_str());
      if (text.rfind("ERROR", 0) == 0 || text.rfind("{\"status\":\"error\"", 0) == 0)
        fprintf(stderr, "recv client: %.300s\n", text.c_str());
      frames += std::count(text.begin(), text.end(), '\n');
    }
    seconds += elapsed;
    state.SetIterationTime(elapsed);
  }
  b.run(0);
  if (failed) state.SkipWithError("a receive client failed");
  // Every record a cursor missed is logged by the daemon when the receive ends.
  std::string log = slurp(log_path).substr(log_mark);
  long lost = 0;
  for (size_t at = log.find(" lost "); at != std::string::npos; at = log.find(" lost ", at + 6))
    lost += atol(log.c_str() + at + 6);
  state.counters["frames_per_s_per_client"] = static_cast<double>(frames) / seconds / clients;
  state.counters["lost_records"] = static_cast<double>(lost);
}
BENCHMARK(BM_DaemonRecvJsonlUnderFlood)
    ->Args({1, 40000, kTasksPerPort})
    ->Args({4, 40000, kTasksPerPort})
    ->Args({1, 70000, kMaxTasksPerPort})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(2);

}  // namespace

BENCHMARK_MAIN();
