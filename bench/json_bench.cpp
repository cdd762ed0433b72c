// JSON reader and writer on a 1 MiB document.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "json/json.h"

namespace {

// About 1 MiB of frames as the receive path prints them.
std::string make_document(int* token_count) {
  std::string doc = "{\"status\":\"ok\",\"messages\":[";
  int tokens = 3;
  for (int i = 0; doc.size() < (1u << 20) - 200; i++) {
    if (i) doc += ",";
    doc += "{\"t\":" + std::to_string(i * 0.001) + ",\"id\":\"0x" + std::to_string(100 + i % 900) +
           "\",\"dlc\":8,\"data\":\"11 22 33 44 55 66 77 88\",\"name\":\"frame \\\"q\\\"\"}";
    tokens += 11;
  }
  doc += "]}";
  *token_count = tokens;
  return doc;
}

void BM_JsonParse1MiB(benchmark::State& state) {
  int tokens = 0;
  std::string doc = make_document(&tokens);
  std::vector<vxcli_json_token> t(static_cast<size_t>(tokens) + 16);
  for (auto _ : state) {
    int n = vxcli_json_parse(doc.c_str(), t.data(), static_cast<int>(t.size()));
    if (n <= 0) state.SkipWithError("parse failed");
    benchmark::DoNotOptimize(n);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(doc.size()));
}
BENCHMARK(BM_JsonParse1MiB);

void BM_JsonWrite1MiB(benchmark::State& state) {
  size_t bytes = 0;
  for (auto _ : state) {
    vxcli_json_writer w;
    vxcli_json_writer_init(&w, 0, 2u << 20);
    vxcli_json_writer_raw(&w, "{\"status\":\"ok\",\"messages\":[");
    for (int i = 0; vxcli_json_writer_length(&w) < (1u << 20) - 200; i++) {
      if (i) vxcli_json_writer_char(&w, ',');
      vxcli_json_writer_printf(&w, "{\"t\":%.6f,\"id\":\"0x%X\",\"dlc\":8,\"data\":", i * 0.001, 100 + i % 900);
      vxcli_json_writer_string(&w, "11 22 33 44 55 66 77 88");
      vxcli_json_writer_raw(&w, ",\"name\":");
      vxcli_json_writer_string(&w, "frame \"q\"");
      vxcli_json_writer_char(&w, '}');
    }
    vxcli_json_writer_raw(&w, "]}");
    if (!vxcli_json_writer_ok(&w)) state.SkipWithError("writer failed");
    bytes = vxcli_json_writer_length(&w);
    vxcli_json_writer_free(&w);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(bytes));
}
BENCHMARK(BM_JsonWrite1MiB);

}  // namespace

BENCHMARK_MAIN();
