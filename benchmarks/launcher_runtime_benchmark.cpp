// The start of a launcher that is tried out: it attaches to its version and reports health. Only a version's own entry
// can do that, so each start is a process that runs from a store and measures itself.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <sys/stat.h>
#include <unistd.h>

#include "app/launcher/launcher_store.hpp"
#include "bare_digest.hpp"
#include "domain/crypto.hpp"
#include "platform/process/child_process.hpp"
#include "platform/process/native_platform.hpp"
#include "scratch.hpp"
#include "support/launcher_builder.hpp"
#include "support/manifest_builder.hpp"

namespace {

using ravok::Json;
using ravok::benchmarks::check;
using ravok::benchmarks::Scratch;

constexpr int data_files = 200;

std::string content_of(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// A store with one version, whose entry with windows is the program that measures. Its manifest names as many files as
// a real launcher's.
class LauncherVersion {
 public:
  LauncherVersion() : store_(scratch_.path()) {
    const std::string program = content_of(RAVOK_LAUNCHER_RUNTIME_PROGRAM);
    std::vector<ravok::testing::ManifestFile> files = {
        {"bin/window", program.size(), 0755, ravok::digest(program, "sha256")}};
    for (int i = 0; i < data_files; ++i) {
      files.push_back({"data/file-" + std::to_string(i)});
    }
    Json document = ravok::testing::as_launcher(ravok::testing::manifest_document(files));
    document["platform"] = ravok::native_platform();
    const std::string text = document.dump();
    sha256_ = ravok::digest(text, "sha256");
    std::ofstream(store_.store() / "manifests" / (sha256_ + ".json"), std::ios::binary) << text;
    folder_ = store_.store() / "versions" / sha256_;
    std::filesystem::create_directories(folder_ / "bin");
    std::filesystem::copy_file(RAVOK_LAUNCHER_RUNTIME_PROGRAM, folder_ / "bin/window");
    check(chmod((folder_ / "bin/window").c_str(), 0755) == 0);
  }

  // Begins a new attempt, runs the program as its launcher, and returns the seconds that its start took.
  double start(const std::string& task) {
    const Json attempt = {{"nonce", ravok::random_id()},
                          {"reference", {{"manifest_sha256", sha256_}, {"build_id", "build-1"}}}};
    Json document = store_.load();
    document["attempt"] = attempt;
    store_.save(document);
    const std::filesystem::path times = scratch_.path() / "times";
    const std::string nonce = attempt.at("nonce").get<std::string>();
    ravok::ChildProcess child(folder_ / "bin/window", {task, scratch_.path().string(), times.string(), sha256_, nonce},
                              folder_, store_.health_environment(attempt, "gui"));
    std::optional<std::uint64_t> end;
    while (!(end = child.poll())) {
      usleep(200);
    }
    check(end == 0U && std::filesystem::exists(store_.health_path(attempt)));
    for (const auto& path :
         {store_.health_path(attempt), store_.startup_ack_path(attempt), store_.startup_lease_path(attempt)}) {
      std::filesystem::remove(path);
    }
    return std::stod(content_of(times)) * 1e-9;
  }

 private:
  const Scratch scratch_;
  const ravok::LauncherStore store_;
  std::string sha256_;
  std::filesystem::path folder_;
};

void measure(benchmark::State& state, const std::string& task) {
  LauncherVersion version;
  for (auto _ : state) {
    state.SetIterationTime(version.start(task));
  }
}

void launcher_runtime(benchmark::State& state) { measure(state, "runtime"); }
BENCHMARK(launcher_runtime)->Unit(benchmark::kMicrosecond)->UseManualTime();

void launcher_runtime_yardstick(benchmark::State& state) { measure(state, "bare"); }
BENCHMARK(launcher_runtime_yardstick)->Unit(benchmark::kMicrosecond)->UseManualTime();

}  // namespace
