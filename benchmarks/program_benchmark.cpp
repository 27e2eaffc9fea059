#include <benchmark/benchmark.h>

#include "processes.hpp"

namespace {

using ravok::benchmarks::run;

void maintenance_help(benchmark::State& state) {
  for (auto _ : state) {
    run(RAVOK_MAINTENANCE, {"--help"});
  }
}
BENCHMARK(maintenance_help)->Unit(benchmark::kMillisecond)->UseRealTime();

void maintenance_help_yardstick(benchmark::State& state) {
  for (auto _ : state) {
    run(RAVOK_EMPTY_PROGRAM, {});
  }
}
BENCHMARK(maintenance_help_yardstick)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
