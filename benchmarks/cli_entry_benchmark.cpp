#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "app/command/cli_entry.hpp"
#include "processes.hpp"

namespace {

// One of the longer command lines, whose command is not among the first.
const std::vector<std::string> update = {
    "--data-dir", "/home/player/games/data", "--json",    "update",   "some-game", "--after-exit",
    "--build",    "build-2026-11",           "--session", "session-1"};

void parse_cli_entry(benchmark::State& state) {
  for (auto _ : state) {
    bool json_requested = false;
    benchmark::DoNotOptimize(ravok::parse_cli_entry(update, "/home/player/.local/share/Ravok", &json_requested));
  }
}
BENCHMARK(parse_cli_entry)->Unit(benchmark::kMicrosecond)->UseRealTime();

// What every command costs anyway: the start and the end of a process.
void parse_cli_entry_yardstick(benchmark::State& state) {
  for (auto _ : state) {
    ravok::benchmarks::run(RAVOK_EMPTY_PROGRAM, {});
  }
}
BENCHMARK(parse_cli_entry_yardstick)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace
