// DBC load time and decode throughput (values alone, and the JSON object of
// message receive), with python3-canmatrix measured on the same frames for
// comparison when it is installed.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "database/dbc.h"
#include "database/registry.h"

namespace {

const std::string kLargest = std::string(VX_TESTDATA_DIR) + "/dbc/ford_lincoln_base_pt.dbc";

struct Frame {
  const Message* message;
  std::string selector;
  std::vector<uint8_t> data;
};

// Every message of the largest file with a payload, four random payloads each,
// in a shuffled order.
struct Workload {
  DBCIterator dbc{kLargest};
  std::vector<Frame> frames;
  size_t signals = 0;
  Workload() {
    std::mt19937 random(1);
    for (const Message& m : dbc) {
      if (m.size == 0) continue;
      for (int i = 0; i < 4; i++) {
        Frame f{&m, "", std::vector<uint8_t>(std::min<size_t>(m.size, 64))};
        char selector[16];
        snprintf(selector, sizeof selector, "0x%X", m.id & 0x7FFFFFFFu);
        f.selector = selector;
        for (uint8_t& b : f.data) b = uint8_t(random());
        frames.push_back(std::move(f));
      }
    }
    std::shuffle(frames.begin(), frames.end(), random);
    std::vector<DbcSignalValue> values(512);
    for (const Frame& f : frames)
      signals += vxcli_dbc_decode_message(*f.message, f.data.data(), f.data.size(), values.data(),
                                          values.size());
  }
};

Workload& workload() {
  static Workload w;
  return w;
}

void report(benchmark::State& state, size_t frames, size_t signals) {
  state.counters["frames/s"] = benchmark::Counter(double(frames), benchmark::Counter::kIsRate);
  state.counters["signals/s"] = benchmark::Counter(double(signals), benchmark::Counter::kIsRate);
}

void BM_LoadLargestDbc(benchmark::State& state) {
  for (auto _ : state) {
    DBCIterator dbc(kLargest);
    benchmark::DoNotOptimize(dbc.size());
  }
}
BENCHMARK(BM_LoadLargestDbc)->Unit(benchmark::kMillisecond);

void BM_DecodeValues(benchmark::State& state) {
  Workload& w = workload();
  std::vector<DbcSignalValue> values(512);
  size_t frames = 0, signals = 0, i = 0;
  for (auto _ : state) {
    const Frame& f = w.frames[i];
    if (++i == w.frames.size()) i = 0;
    size_t n = vxcli_dbc_decode_message(*f.message, f.data.data(), f.data.size(), values.data(),
                                        values.size());
    benchmark::DoNotOptimize(values.data());
    frames++;
    signals += n;
  }
  report(state, frames, signals);
}
BENCHMARK(BM_DecodeValues);

// The full library call of message receive: database and message looked up
// by selector, the object written into a 4096-byte buffer.
void BM_DecodeToJson(benchmark::State& state) {
  Workload& w = workload();
  char dir[] = "/tmp/vxbench-XXXXXX";
  if (!mkdtemp(dir)) {
    state.SkipWithError("mkdtemp failed");
    return;
  }
  setenv("XDG_STATE_HOME", dir, 1);
  unsetenv("VXCLI_STATE_DIR");
  VXCLI_DatabaseResourceInfo info;
  int created = 0;
  char error[256];
  if (vxcli_database_resource_load(kLargest.c_str(), "bench", "dbc", &info, &created, error,
                                   sizeof error) != 0) {
    state.SkipWithError(error);
    return;
  }
  char out[4096];
  size_t frames = 0, signals = 0, i = 0;
  for (auto _ : state) {
    const Frame& f = w.frames[i];
    if (++i == w.frames.size()) i = 0;
    if (vxcli_dbc_decode_to_json(f.selector.c_str(), "bench", f.data.data(), f.data.size(), out,
                                 sizeof out) != 0) {
      state.SkipWithError("decode failed");
      break;
    }
    benchmark::DoNotOptimize(out);
    frames++;
  }
  signals = size_t(double(frames) * double(w.signals) / double(w.frames.size()));
  report(state, frames, signals);
  std::filesystem::remove_all(dir);
}
BENCHMARK(BM_DecodeToJson);

// The JSON object alone, for a message already at hand.
void BM_MessageDecodeJson(benchmark::State& state) {
  Workload& w = workload();
  char out[4096];
  size_t frames = 0, i = 0;
  for (auto _ : state) {
    const Frame& f = w.frames[i];
    if (++i == w.frames.size()) i = 0;
    vxcli_dbc_message_decode_json(*f.message, f.data.data(), f.data.size(), out, sizeof out);
    benchmark::DoNotOptimize(out);
    frames++;
  }
  report(state, frames, size_t(double(frames) * double(w.signals) / double(w.frames.size())));
}
BENCHMARK(BM_MessageDecodeJson);

const char kCanmatrix[] = R"PY(
import logging, sys, time, warnings
logging.disable(logging.CRITICAL)
warnings.filterwarnings("ignore")
import canmatrix.formats
out = sys.stdout
sys.stdout = sys.stderr
by_id = {}
for db in canmatrix.formats.loadp(sys.argv[1]).values():
    for frame in db.frames:
        by_id.setdefault(frame.arbitration_id.id, frame)
work = []
for line in open(sys.argv[2]):
    ident, data = line.split()
    frame = by_id.get(int(ident))
    if frame is not None:
        work.append((frame, bytes.fromhex(data)))
frames = signals = 0
# CPU time, as the other figures of this program report
start = time.process_time()
while time.process_time() - start < 3.0:
    for frame, data in work:
        signals += len(frame.decode(data))
    frames += len(work)
elapsed = time.process_time() - start
print(frames, signals, elapsed, file=out)
)PY";

// One run of the third-party decoder over the same frames, timed by its own CPU clock.
void BM_Canmatrix(benchmark::State& state) {
  if (std::system("/usr/bin/python3 -c 'import canmatrix' >/dev/null 2>&1") != 0) {
    state.SkipWithError("python3-canmatrix is not installed");
    return;
  }
  Workload& w = workload();
  char dir[] = "/tmp/vxbench-XXXXXX";
  if (!mkdtemp(dir)) {
    state.SkipWithError("mkdtemp failed");
    return;
  }
  std::string base = dir;
  std::ofstream(base + "/decode.py") << kCanmatrix;
  {
    std::ofstream frames(base + "/frames.txt");
    for (const Frame& f : w.frames) {
      frames << (f.message->id & 0x7FFFFFFFu) << ' ';
      for (uint8_t b : f.data) frames << "0123456789abcdef"[b >> 4] << "0123456789abcdef"[b & 15];
      frames << '\n';
    }
  }
  double frames = 0, signals = 0, seconds = 0;
  for (auto _ : state) {
    std::string command = "/usr/bin/python3 " + base + "/decode.py " + kLargest + " " + base +
                          "/frames.txt 2>/dev/null";
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe || fscanf(pipe, "%lf %lf %lf", &frames, &signals, &seconds) != 3) {
      if (pipe) pclose(pipe);
      state.SkipWithError("canmatrix run failed");
      break;
    }
    pclose(pipe);
    state.SetIterationTime(seconds);
  }
  state.counters["frames/s"] = frames / seconds;
  state.counters["signals/s"] = signals / seconds;
  std::filesystem::remove_all(base);
}
BENCHMARK(BM_Canmatrix)->UseManualTime()->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace

BENCHMARK_MAIN();
