// Reading and validating the largest real LDF, and building a schedule's daemon lines.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "database/ldf_model.h"

namespace {

const std::string kPath = std::string(VX_TESTDATA_DIR) + "/ldf/J3068-2.ldf";

void BM_ParseJ3068(benchmark::State& state) {
  for (auto _ : state) {
    LdfModel model;
    std::string error;
    if (parse_ldf(kPath.c_str(), model, error) != 0) state.SkipWithError(error.c_str());
    benchmark::DoNotOptimize(model.frames.data());
  }
}
BENCHMARK(BM_ParseJ3068);

void BM_ScheduleCommands(benchmark::State& state) {
  LdfModel model;
  std::string error;
  if (parse_ldf(kPath.c_str(), model, error) != 0) {
    state.SkipWithError(error.c_str());
    return;
  }
  std::vector<std::string> lines;
  for (auto _ : state) {
    ldf_schedule_commands(model, "Op252", "10356/4", lines, error);
    benchmark::DoNotOptimize(lines.data());
  }
}
BENCHMARK(BM_ScheduleCommands);

}  // namespace

BENCHMARK_MAIN();
