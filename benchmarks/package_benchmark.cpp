#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "app/install/native_package.hpp"
#include "bare_digest.hpp"
#include "scratch.hpp"
#include "support/package_builder.hpp"

namespace {

constexpr std::uint64_t archive_bytes = 300 << 20;

// A package with large archives, made once and warm.
struct Sample {
  ravok::benchmarks::Scratch scratch;
  std::filesystem::path directory = scratch.path() / "package";
  std::string seal = ravok::testing::write_large_package(directory, archive_bytes);
};

const Sample& sample() {
  static const Sample made{};
  return made;
}

void package_read(benchmark::State& state) {
  const Sample& package = sample();
  for (auto _ : state) {
    benchmark::DoNotOptimize(ravok::read_native_package(package.directory, package.seal, {}));
  }
}
BENCHMARK(package_read)->Unit(benchmark::kMillisecond)->UseRealTime();

// Digests each file once.
void package_read_yardstick(benchmark::State& state) {
  std::vector<std::string> paths;
  for (const auto& entry : std::filesystem::directory_iterator(sample().directory)) {
    paths.push_back(entry.path());
  }
  ravok::benchmarks::BareDigest digest;
  for (auto _ : state) {
    for (const std::string& path : paths) {
      digest.file(path.c_str());
    }
  }
}
BENCHMARK(package_read_yardstick)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
