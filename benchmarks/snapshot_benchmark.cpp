#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zstd.h>

#include "bare_digest.hpp"
#include "bare_extraction.hpp"
#include "platform/file/files.hpp"
#include "platform/file/tree.hpp"
#include "platform/snapshot/snapshot_archive.hpp"
#include "platform/snapshot/snapshot_tree.hpp"
#include "publisher/publish_snapshot.hpp"
#include "scratch.hpp"

namespace {

using ravok::SnapshotManifest;
using ravok::benchmarks::BareDigest;
using ravok::benchmarks::check;
using ravok::benchmarks::extract_bare;
using ravok::benchmarks::file_paths;
using ravok::benchmarks::Scratch;
using ravok::benchmarks::write_content;

// A published tree, made once and warm.
struct Sample {
  // `fill` returns the name of the file that becomes the executable: the first of those that it makes.
  explicit Sample(const std::function<std::string(const std::filesystem::path& tree)>& fill) {
    const std::string executable = fill(tree());
    check(chmod((tree() / executable).c_str(), 0755) == 0);
    ravok::SnapshotPublication publication;
    publication.tree = tree();
    publication.output = scratch.path();
    publication.build_id = "sample";
    publication.platform = "linux-x86_64";
    publication.executable = executable;
    publication.level = 1;
    publication.game_id = "sample";
    publication.display_name = "Sample";
    const ravok::PublishedSnapshot published = ravok::publish_snapshot(publication, {});
    archive = published.archive;
    constexpr std::uint64_t limit = 1 << 30;
    manifest = SnapshotManifest::parse(ravok::parse_json(ravok::read_file(published.manifest, limit), limit));
  }

  std::filesystem::path tree() const { return scratch.path() / "tree"; }
  std::filesystem::path staging() const { return scratch.path() / "staging"; }
  void clear_staging() const {
    std::filesystem::remove_all(staging());
    sync();
  }

  Scratch scratch;
  std::filesystem::path archive;
  SnapshotManifest manifest;
};

std::string fill(const std::filesystem::path& tree, int directories, int files, std::uint64_t length) {
  for (int d = 0; d < directories; ++d) {
    for (int f = 0; f < files; ++f) {
      const std::string name = "directory-" + std::to_string(d) + "/file-" + std::to_string(f);
      write_content(tree / name, length, static_cast<std::uint32_t>(d * files + f));
    }
  }
  return "directory-0/file-0";
}

// Fills the tree with headers of this machine.
std::string fill_with_headers(const std::filesystem::path& tree) {
  const std::filesystem::path from = "/usr/include/c++";
  std::string first;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(from)) {
    if (entry.is_regular_file() && !entry.is_symlink()) {
      const std::filesystem::path path = entry.path().lexically_relative(from);
      std::filesystem::create_directories((tree / path).parent_path());
      std::filesystem::copy_file(entry.path(), tree / path);
      check(chmod((tree / path).c_str(), 0644) == 0);
      first = first.empty() ? path.native() : first;
    }
  }
  return first;
}

const Sample& large_sample() {
  static const Sample sample([](const auto& tree) { return fill(tree, 1, 4, std::uint64_t{1} << 28); });
  return sample;
}

const Sample& small_sample() {
  static const Sample sample([](const auto& tree) { return fill(tree, 200, 100, 4096); });
  return sample;
}

const Sample& real_sample() {
  static const Sample sample(fill_with_headers);
  return sample;
}

void verify(benchmark::State& state, const Sample& sample) {
  for (auto _ : state) {
    ravok::verify_snapshot_tree(sample.manifest, sample.tree(), {});
  }
}

void digest_all(benchmark::State& state, const Sample& sample) {
  const std::vector<std::string> paths = file_paths(sample.manifest, sample.tree());
  BareDigest digest;
  for (auto _ : state) {
    for (const std::string& path : paths) {
      digest.file(path.c_str());
    }
  }
}

void extract(benchmark::State& state, const Sample& sample) {
  for (auto _ : state) {
    state.PauseTiming();
    sample.clear_staging();
    state.ResumeTiming();
    ravok::extract_snapshot(sample.manifest, sample.archive, sample.staging(), {}, nullptr);
  }
}

void extract_yardstick(benchmark::State& state, const Sample& sample) {
  BareDigest digest;
  for (auto _ : state) {
    state.PauseTiming();
    sample.clear_staging();
    state.ResumeTiming();
    extract_bare(sample.archive, sample.staging(), file_paths(sample.manifest, sample.staging()), digest);
  }
}

void verify_large(benchmark::State& state) { verify(state, large_sample()); }
void verify_large_yardstick(benchmark::State& state) { digest_all(state, large_sample()); }
void verify_small(benchmark::State& state) { verify(state, small_sample()); }
void verify_small_yardstick(benchmark::State& state) { digest_all(state, small_sample()); }
void extract_large(benchmark::State& state) { extract(state, large_sample()); }
void extract_large_yardstick(benchmark::State& state) { extract_yardstick(state, large_sample()); }
void extract_small(benchmark::State& state) { extract(state, small_sample()); }
void extract_small_yardstick(benchmark::State& state) { extract_yardstick(state, small_sample()); }
void verify_real(benchmark::State& state) { verify(state, real_sample()); }
void verify_real_yardstick(benchmark::State& state) { digest_all(state, real_sample()); }
void extract_real(benchmark::State& state) { extract(state, real_sample()); }
void extract_real_yardstick(benchmark::State& state) { extract_yardstick(state, real_sample()); }

BENCHMARK(verify_large)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(verify_large_yardstick)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(verify_small)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(verify_small_yardstick)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(extract_large)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(extract_large_yardstick)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(extract_small)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(extract_small_yardstick)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(verify_real)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(verify_real_yardstick)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(extract_real)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(extract_real_yardstick)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
