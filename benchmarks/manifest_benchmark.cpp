#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "domain/manifest.hpp"
#include "support/manifest_builder.hpp"

namespace {

// The inventory of 100,000 files in 200 directories.
const std::string& inventory() {
  static const std::string text = [] {
    std::vector<ravok::testing::ManifestFile> files;
    for (int i = 1; i < 100000; ++i) {
      files.push_back({"content/part" + std::to_string(i / 500) + "/asset-" + std::to_string(i) + ".bin"});
    }
    return ravok::testing::manifest_document(files).dump();
  }();
  return text;
}

void manifest_parse(benchmark::State& state) {
  const ravok::Json document = ravok::Json::parse(inventory());
  for (auto _ : state) {
    benchmark::DoNotOptimize(ravok::SnapshotManifest::parse(document));
  }
}
BENCHMARK(manifest_parse)->Unit(benchmark::kMillisecond);

void manifest_parse_yardstick(benchmark::State& state) {
  const std::string& text = inventory();
  for (auto _ : state) {
    benchmark::DoNotOptimize(ravok::Json::parse(text));
  }
}
BENCHMARK(manifest_parse_yardstick)->Unit(benchmark::kMillisecond);

}  // namespace
