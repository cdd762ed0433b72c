// BLF throughput for 1,000,000 CAN frames: our writer (stored containers) and
// our reader (zlib containers as other tools write them), beside python-can
// doing the same work on this machine in the same run.
#include <benchmark/benchmark.h>
#include <zlib.h>

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "logging/blf_reader.h"
#include "logging/blf_writer.h"

namespace {

const int kFrames = 1000000;
const uint64_t kStart = 1700000000ULL * 1000000000ULL;

std::string work_dir() {
  static std::string dir = [] {
    char templ[] = "/tmp/vxbench-blf-XXXXXX";
    return std::string(mkdtemp(templ) ? templ : "/tmp");
  }();
  return dir;
}

// The frame mix: classic 8-byte frames, standard and extended, two channels.
std::vector<vxcli_log_frame> make_frames(int n) {
  std::vector<vxcli_log_frame> out((size_t)n);
  uint32_t seed = 12345;
  for (int i = 0; i < n; i++) {
    vxcli_log_frame& f = out[(size_t)i];
    memset(&f, 0, sizeof f);
    f.channel = 1 + (i & 1);
    f.extended = (i % 3) == 0;
    f.id = f.extended ? 0x18FF0000u + (uint32_t)(i % 4096) : (uint32_t)(i % 2048);
    f.dlc = f.length = 8;
    for (int k = 0; k < 8; k++) {
      seed = seed * 1103515245u + 12345u;
      f.data[k] = (uint8_t)(seed >> 16);
    }
    f.time_ns = (uint64_t)i * 100000;  // 10 kHz
  }
  return out;
}

// Python-can doing the same: write 1M frames uncompressed (timed), write them
// compressed with its defaults (untimed: that is the file both readers read),
// then read the compressed file (timed).
const char* const kScript = R"PY(
import sys, time, random, can
out_plain, out_zlib = sys.argv[1], sys.argv[2]
n = int(sys.argv[3])
rnd = random.Random(12345)
msgs = []
for i in range(n):
    ext = i % 3 == 0
    ident = 0x18FF0000 + (i % 4096) if ext else i % 2048
    msgs.append(can.Message(timestamp=1700000000 + i * 1e-4, arbitration_id=ident,
                            is_extended_id=ext, channel=i & 1,
                            data=bytes(rnd.getrandbits(8) for _ in range(8))))
t = time.process_time()
with can.BLFWriter(out_plain, compression_level=0) as w:
    for m in msgs:
        w.on_message_received(m)
write_s = time.process_time() - t
with can.BLFWriter(out_zlib) as w:
    for m in msgs:
        w.on_message_received(m)
del msgs
t = time.process_time()
count = 0
for m in can.BLFReader(out_zlib):
    count += 1
read_s = time.process_time() - t
t = time.process_time()
for m in can.BLFReader(out_plain):
    pass
read_plain_s = time.process_time() - t
print(write_s, read_s, count, read_plain_s)
)PY";

struct PythonFigures {
  bool ran = false;
  double write_s = 0, read_s = 0, read_plain_s = 0;
  long count = 0;
};

const PythonFigures& python_figures() {
  static PythonFigures figures = [] {
    PythonFigures p;
    if (system("/usr/bin/python3 -c 'import can' >/dev/null 2>&1") != 0) return p;
    std::string script = work_dir() + "/pycan_blf.py";
    FILE* f = fopen(script.c_str(), "w");
    if (!f) return p;
    fputs(kScript, f);
    fclose(f);
    std::string cmd = "/usr/bin/python3 " + script + " " + work_dir() + "/pycan_plain.blf " +
                      work_dir() + "/pycan_zlib.blf " + std::to_string(kFrames);
    FILE* pipe = popen(cmd.c_str(), "r");
    if (!pipe) return p;
    p.ran = fscanf(pipe, "%lf %lf %ld %lf", &p.write_s, &p.read_s, &p.count, &p.read_plain_s) == 4;
    pclose(pipe);
    return p;
  }();
  return figures;
}

void put(std::vector<uint8_t>& b, const void* p, size_t n) {
  const uint8_t* c = static_cast<const uint8_t*>(p);
  b.insert(b.end(), c, c + n);
}

// Without python-can: a compressed file in the same layout (128 KiB containers,
// zlib level 6, objects cut across containers).
std::string own_compressed_file(const std::vector<vxcli_log_frame>& frames) {
  std::string path = work_dir() + "/own_zlib.blf";
  std::vector<uint8_t> stream;
  for (const auto& f : frames) {
    uint8_t obj[48] = {'L', 'O', 'B', 'J', 32, 0, 1, 0, 48, 0, 0, 0, 1, 0, 0, 0, 2};
    memcpy(obj + 24, &f.time_ns, 8);
    uint16_t ch = (uint16_t)f.channel;
    memcpy(obj + 32, &ch, 2);
    obj[35] = 8;
    uint32_t id = f.id | (f.extended ? 0x80000000u : 0);
    memcpy(obj + 36, &id, 4);
    memcpy(obj + 40, f.data, 8);
    put(stream, obj, sizeof obj);
  }
  std::vector<uint8_t> file(144, 0);
  memcpy(file.data(), "LOGG", 4);
  file[4] = 144;
  const size_t chunk = 128 * 1024;
  std::vector<uint8_t> packed(compressBound(chunk));
  for (size_t at = 0; at < stream.size(); at += chunk) {
    size_t n = std::min(chunk, stream.size() - at);
    uLongf z = packed.size();
    compress2(packed.data(), &z, stream.data() + at, n, 6);
    uint32_t size = 32 + (uint32_t)z;
    uint8_t head[32] = {'L', 'O', 'B', 'J', 16, 0, 1, 0};
    memcpy(head + 8, &size, 4);
    head[12] = 10;
    head[16] = 2;
    uint32_t un = (uint32_t)n;
    memcpy(head + 24, &un, 4);
    put(file, head, sizeof head);
    put(file, packed.data(), z);
    file.resize(file.size() + size % 4, 0);
  }
  FILE* f = fopen(path.c_str(), "wb");
  fwrite(file.data(), 1, file.size(), f);
  fclose(f);
  return path;
}

void BM_BlfWriteStored(benchmark::State& state) {
  auto frames = make_frames(kFrames);
  std::string path = work_dir() + "/ours.blf";
  for (auto _ : state) {
    vxcli_blf_handle* h = vxcli_blf_open(path.c_str(), kStart);
    for (const auto& f : frames) vxcli_blf_write_frame(h, kStart + f.time_ns, &f);
    vxcli_blf_close(h);
  }
  state.counters["frames/s"] =
      benchmark::Counter((double)kFrames, benchmark::Counter::kIsIterationInvariantRate);
  const PythonFigures& py = python_figures();
  if (py.ran) {
    state.counters["python_frames/s"] = kFrames / py.write_s;
  }
}
BENCHMARK(BM_BlfWriteStored)->Unit(benchmark::kMillisecond)->MinTime(2.0);

void BM_BlfReadCompressed(benchmark::State& state) {
  const PythonFigures& py = python_figures();
  std::string path = py.ran ? work_dir() + "/pycan_zlib.blf" : own_compressed_file(make_frames(kFrames));
  long count = 0;
  for (auto _ : state) {
    BLFReader* r = BLFReader_init(path.c_str());
    vxcli_log_frame f;
    count = 0;
    while (vxcli_blf_next_frame(r, &f, nullptr) == 1) count++;
    BLFReader_close(r);
    benchmark::DoNotOptimize(f);
  }
  if (count != kFrames) state.SkipWithError("frame count differs");
  state.counters["frames/s"] =
      benchmark::Counter((double)kFrames, benchmark::Counter::kIsIterationInvariantRate);
  if (py.ran) state.counters["python_frames/s"] = py.count / py.read_s;
  state.SetLabel(py.ran ? "file written by python-can" : "file written by zlib here");
}
BENCHMARK(BM_BlfReadCompressed)->Unit(benchmark::kMillisecond)->MinTime(2.0);

// Stored containers as our writer makes them; python-can reads its own
// uncompressed file of the same frames.
void BM_BlfReadStored(benchmark::State& state) {
  auto frames = make_frames(kFrames);
  std::string path = work_dir() + "/ours_read.blf";
  vxcli_blf_handle* h = vxcli_blf_open(path.c_str(), kStart);
  for (const auto& f : frames) vxcli_blf_write_frame(h, kStart + f.time_ns, &f);
  vxcli_blf_close(h);
  long count = 0;
  for (auto _ : state) {
    BLFReader* r = BLFReader_init(path.c_str());
    vxcli_log_frame f;
    count = 0;
    while (vxcli_blf_next_frame(r, &f, nullptr) == 1) count++;
    BLFReader_close(r);
    benchmark::DoNotOptimize(f);
  }
  if (count != kFrames) state.SkipWithError("frame count differs");
  state.counters["frames/s"] =
      benchmark::Counter((double)kFrames, benchmark::Counter::kIsIterationInvariantRate);
  const PythonFigures& py = python_figures();
  if (py.ran) state.counters["python_frames/s"] = kFrames / py.read_plain_s;
}
BENCHMARK(BM_BlfReadStored)->Unit(benchmark::kMillisecond)->MinTime(2.0);

// The ceiling for compressed input: zlib alone inflating the same containers.
void BM_ZlibInflateOnly(benchmark::State& state) {
  const PythonFigures& py = python_figures();
  std::string path = py.ran ? work_dir() + "/pycan_zlib.blf" : own_compressed_file(make_frames(kFrames));
  FILE* f = fopen(path.c_str(), "rb");
  std::vector<uint8_t> file;
  uint8_t buf[65536];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, f)) > 0) file.insert(file.end(), buf, buf + n);
  fclose(f);
  std::vector<uint8_t> out(256 * 1024);
  for (auto _ : state) {
    size_t at = 144, produced = 0;
    while (at + 32 <= file.size()) {
      uint32_t size;
      memcpy(&size, file.data() + at + 8, 4);
      uLongf len = out.size();
      uncompress(out.data(), &len, file.data() + at + 32, size - 32);
      produced += len;
      at += size + size % 4;
    }
    benchmark::DoNotOptimize(produced);
  }
  state.counters["frames/s"] =
      benchmark::Counter((double)kFrames, benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_ZlibInflateOnly)->Unit(benchmark::kMillisecond)->MinTime(2.0);

}  // namespace

BENCHMARK_MAIN();
