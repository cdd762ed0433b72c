// ASC parse throughput over a 1,000,000-line trace, beside python-can's ASC
// reader on the same file in the same run.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "logging/asc.h"
#include "logging/replay_input.h"

namespace {

const int kLines = 1000000;

std::string work_dir() {
  static std::string dir = [] {
    char templ[] = "/tmp/vxbench-asc-XXXXXX";
    return std::string(mkdtemp(templ) ? templ : "/tmp");
  }();
  return dir;
}

// Four in five lines classic frames with 8 bytes, the rest CAN FD with 16.
const std::string& trace() {
  static std::string path = [] {
    std::string p = work_dir() + "/trace.asc";
    vxcli_asc_channel_label labels[2] = {{1, "10356", 0}, {2, "10356", 1}};
    char message[256];
    vxcli_asc_writer* w = vxcli_asc_open(p.c_str(), 1700000000, labels, 2, message, sizeof message);
    uint32_t seed = 99;
    for (int i = 0; i < kLines; i++) {
      vxcli_log_frame f = {};
      f.channel = 1 + (i & 1);
      f.extended = i % 7 == 0;
      f.id = f.extended ? 0x18FEF100u + (uint32_t)(i % 256) : (uint32_t)(i % 2048);
      f.fd = i % 5 == 4;
      f.brs = f.fd;
      f.dlc = f.fd ? 10 : 8;
      f.length = f.fd ? 16 : 8;
      f.tx = i % 9 == 0;
      for (int k = 0; k < f.length; k++) {
        seed = seed * 1103515245u + 12345u;
        f.data[k] = (uint8_t)(seed >> 16);
      }
      vxcli_asc_write(w, i * 0.0001, &f);
    }
    vxcli_asc_close(w);
    return p;
  }();
  return path;
}

const char* const kScript = R"PY(
import sys, time, can
t = time.process_time()
n = 0
for m in can.ASCReader(sys.argv[1]):
    n += 1
print(time.process_time() - t, n)
)PY";

struct PythonFigures {
  bool ran = false;
  double seconds = 0;
  long frames = 0;
};

const PythonFigures& python_figures() {
  static PythonFigures figures = [] {
    PythonFigures p;
    if (system("/usr/bin/python3 -c 'import can' >/dev/null 2>&1") != 0) return p;
    std::string script = work_dir() + "/pycan_asc.py";
    FILE* f = fopen(script.c_str(), "w");
    if (!f) return p;
    fputs(kScript, f);
    fclose(f);
    std::string cmd = "/usr/bin/python3 " + script + " " + trace() + " 2>/dev/null";
    FILE* pipe = popen(cmd.c_str(), "r");
    if (!pipe) return p;
    p.ran = fscanf(pipe, "%lf %ld", &p.seconds, &p.frames) == 2;
    pclose(pipe);
    return p;
  }();
  return figures;
}

// Reading the file line by line through the replay input, as replay does.
void BM_AscReadFile(benchmark::State& state) {
  const std::string& path = trace();
  uint32_t lines = 0;
  long frames = 0;
  for (auto _ : state) {
    vxcli_replay_input in;
    vxcli_replay_input_open(&in, path.c_str());
    vxcli_log_frame f;
    frames = 0;
    while (vxcli_replay_input_next(&in, &f) == 1) frames++;
    lines = in.records;
    vxcli_replay_input_close(&in);
  }
  if (frames != kLines) state.SkipWithError("frame count differs");
  state.counters["lines/s"] =
      benchmark::Counter((double)lines, benchmark::Counter::kIsIterationInvariantRate);
  const PythonFigures& py = python_figures();
  if (py.ran) state.counters["python_lines/s"] = (double)lines / py.seconds;
}
BENCHMARK(BM_AscReadFile)->Unit(benchmark::kMillisecond)->MinTime(2.0);

// The line parser alone, on lines already in memory.
void BM_AscParseLine(benchmark::State& state) {
  FILE* file = fopen(trace().c_str(), "r");
  std::vector<std::string> lines;
  char buf[1024];
  while (lines.size() < 100000 && fgets(buf, sizeof buf, file)) lines.push_back(buf);
  fclose(file);
  vxcli_log_frame f;
  for (auto _ : state)
    for (const auto& line : lines) benchmark::DoNotOptimize(vxcli_parse_asc_line(line.c_str(), &f));
  state.counters["lines/s"] =
      benchmark::Counter((double)lines.size(), benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_AscParseLine)->Unit(benchmark::kMillisecond)->MinTime(2.0);

}  // namespace

BENCHMARK_MAIN();
