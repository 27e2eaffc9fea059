// Patterns of target paths beside the C library's matcher of path names, on patterns that mean the same to both.

#include <array>
#include <cstddef>
#include <cstdlib>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <fnmatch.h>

#include "tuf/target_pattern.hpp"

namespace {

const std::array<std::string, 3> paths = {"games/a-long-name/linux-x86_64/build-2026-11/content.tar.zst",
                                          "launcher/linux-x86_64/4.2.0/manifest.json", "games/other/0/part-000017.bin"};

// What a role with a thousand delegations has: games by their names, platforms, builds, and everything in a folder.
const std::vector<std::string>& patterns() {
  static const std::vector<std::string> all = [] {
    std::vector<std::string> made = {"launcher/*/*/manifest.json", "games/*/?/part-*[0-9].bin", "*/*/*/*/*.tar.zst"};
    for (int i = 0; i < 997; ++i) {
      made.push_back("games/name-" + std::to_string(i) + "/*/build-[0-9]*/content.tar.zst");
    }
    return made;
  }();
  return all;
}

void count_as_equal(benchmark::State& state, std::size_t matches) {
  if (matches != 3) {
    state.SkipWithError("Each path matches one pattern");
  }
}

void target_pattern(benchmark::State& state) {
  std::size_t matches = 0;
  for (auto _ : state) {
    matches = 0;
    for (const std::string& path : paths) {
      for (const std::string& pattern : patterns()) {
        matches += ravok::path_pattern_matches(pattern, path) ? 1u : 0u;
      }
    }
  }
  count_as_equal(state, matches);
}
BENCHMARK(target_pattern)->Unit(benchmark::kMicrosecond);

void target_pattern_yardstick(benchmark::State& state) {
  std::size_t matches = 0;
  for (auto _ : state) {
    matches = 0;
    for (const std::string& path : paths) {
      for (const std::string& pattern : patterns()) {
        matches += fnmatch(pattern.c_str(), path.c_str(), FNM_PATHNAME | FNM_NOESCAPE) == 0 ? 1u : 0u;
      }
    }
  }
  count_as_equal(state, matches);
}
BENCHMARK(target_pattern_yardstick)->Unit(benchmark::kMicrosecond);

}  // namespace
