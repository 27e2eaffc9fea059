// The applying of a prepared update of the bootstrap, from its locks to the removal of what it needed; and beside it
// the least that this takes: the digests of the new files, a second name for each old one, a move for each new one, the
// flushes between these steps, a start of the new program, the write of the manifest and the removals.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "app/launcher/bootstrap_apply.hpp"
#include "bare_digest.hpp"
#include "scratch.hpp"
#include "support/bootstrap_place.hpp"

namespace {

using ravok::benchmarks::check;
using ravok::testing::BootstrapPlace;
using ravok::testing::BootstrapRelease;

constexpr std::size_t update_bytes = 20'000'000;
constexpr std::size_t data_files = 40;

std::string content_of(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

BootstrapRelease release_of(const std::string& build) {
  const std::string program = content_of(RAVOK_BOOTSTRAP) + build;
  check(program.size() < update_bytes);
  std::vector<ravok::testing::SampleFile> files(data_files);
  for (std::size_t i = 0; i < files.size(); ++i) {
    files[i].path = "data/file-" + std::to_string(i);
    files[i].content = build + std::string((update_bytes - program.size()) / data_files, 'x');
  }
  return ravok::testing::bootstrap_release(build, program, files);
}

// An installation that is updated to one of two releases and back again. Only the updates are timed.
class Updates {
 public:
  Updates() { place_.install(releases_[0]); }

  template <typename Apply>
  double seconds(Apply apply) {
    next_ = 1 - next_;
    place_.prepare(releases_[next_]);
    const auto start = std::chrono::steady_clock::now();
    apply(place_, releases_[next_]);
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
    check(!std::filesystem::exists(place_.paths.update_manifest));
    return time.count();
  }

 private:
  const ravok::benchmarks::Scratch scratch_;
  const BootstrapPlace place_{scratch_.path() / "data"};
  const BootstrapRelease releases_[2] = {release_of("build-1"), release_of("build-2")};
  std::size_t next_ = 0;
};

void flush(const std::filesystem::path& path) {
  const int handle = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  check(handle >= 0 && fsync(handle) == 0);
  close(handle);
}

void flush_tree(const BootstrapPlace& place) {
  flush(place.paths.tree / "bin");
  flush(place.paths.tree / "data");
}

void start(const std::filesystem::path& program) {
  char variable[] = "RAVOK_BOOTSTRAP_START_CHECK=1";
  char* environment[] = {variable, nullptr};
  char* words[] = {const_cast<char*>(program.c_str()), nullptr};
  pid_t child = 0;
  int status = 1;
  check(posix_spawn(&child, program.c_str(), nullptr, nullptr, words, environment) == 0);
  check(waitpid(child, &status, 0) == child && status == 0);
}

void write_manifest(const BootstrapPlace& place, const std::string& text) {
  const std::string temporary = place.paths.manifest.native() + ".tmp";
  const int file = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  check(file >= 0 && write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size()));
  check(fsync(file) == 0);
  close(file);
  check(rename(temporary.c_str(), place.paths.manifest.c_str()) == 0);
  flush(place.data.native);
}

void apply_barely(const BootstrapPlace& place, const BootstrapRelease& release) {
  ravok::benchmarks::BareDigest digest;
  for (const auto& file : release.files) {
    digest.file((place.paths.update_tree / file.path).c_str());
  }
  for (const auto& file : release.files) {
    const std::filesystem::path path = place.paths.tree / file.path;
    check(link(path.c_str(), (path.native() + ".old").c_str()) == 0);
  }
  flush_tree(place);
  for (const auto& file : release.files) {
    check(rename((place.paths.update_tree / file.path).c_str(), (place.paths.tree / file.path).c_str()) == 0);
  }
  flush_tree(place);
  start(place.program());
  write_manifest(place, release.text());
  for (const auto& file : release.files) {
    check(unlink(((place.paths.tree / file.path).native() + ".old").c_str()) == 0);
  }
  flush_tree(place);
  std::filesystem::remove_all(place.paths.update_tree);
  check(unlink(place.paths.update_manifest.c_str()) == 0);
}

void bootstrap_update(benchmark::State& state) {
  Updates updates;
  for (auto _ : state) {
    state.SetIterationTime(updates.seconds([](const BootstrapPlace& place, const BootstrapRelease&) {
      check(ravok::apply_bootstrap_update(place.data.root, ravok::system_trial_clock()).end ==
            ravok::BootstrapUpdateEnd::applied);
    }));
  }
}
BENCHMARK(bootstrap_update)->Unit(benchmark::kMillisecond)->UseManualTime();

void bootstrap_update_yardstick(benchmark::State& state) {
  Updates updates;
  for (auto _ : state) {
    state.SetIterationTime(updates.seconds(apply_barely));
  }
}
BENCHMARK(bootstrap_update_yardstick)->Unit(benchmark::kMillisecond)->UseManualTime();

}  // namespace
