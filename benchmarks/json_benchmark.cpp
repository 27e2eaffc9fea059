#include <string>

#include <benchmark/benchmark.h>

#include "domain/crypto.hpp"
#include "domain/json.hpp"

namespace {

// Records as a snapshot's inventory has them, about 4 MiB of text.
const std::string& records() {
  static const std::string text = [] {
    ravok::Json files = ravok::Json::array();
    std::size_t bytes = 0;
    for (int i = 0; bytes < (4u << 20); ++i) {
      const std::string path = "data/level" + std::to_string(i % 97) + "/asset-" + std::to_string(i) + ".bin";
      files.push_back({{"path", path},
                       {"length", 4096 + i},
                       {"sha256", ravok::digest(path, "sha256")},
                       {"executable", i % 50 == 0}});
      bytes += files.back().dump().size() + 1;
    }
    return ravok::Json{{"schema_version", 1}, {"files", files}}.dump();
  }();
  return text;
}

void parse_json(benchmark::State& state) {
  const std::string& text = records();
  for (auto _ : state) {
    benchmark::DoNotOptimize(ravok::parse_json(text, text.size()));
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(parse_json)->Unit(benchmark::kMillisecond);

void parse_json_yardstick(benchmark::State& state) {
  const std::string& text = records();
  for (auto _ : state) {
    benchmark::DoNotOptimize(ravok::Json::parse(text));
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(parse_json_yardstick)->Unit(benchmark::kMillisecond);

void canonical_json(benchmark::State& state) {
  const ravok::Json value = ravok::Json::parse(records());
  for (auto _ : state) {
    benchmark::DoNotOptimize(ravok::canonical_json(value));
  }
}
BENCHMARK(canonical_json)->Unit(benchmark::kMillisecond);

void canonical_json_yardstick(benchmark::State& state) {
  const ravok::Json value = ravok::Json::parse(records());
  for (auto _ : state) {
    benchmark::DoNotOptimize(value.dump());
  }
}
BENCHMARK(canonical_json_yardstick)->Unit(benchmark::kMillisecond);

}  // namespace
