// The start of the client as a menu entry makes it: from the start of the bootstrap to the first line of the launcher
// that it becomes, with all of the launcher's files proved on the way.

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
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "app/launcher/launcher_store.hpp"
#include "bare_digest.hpp"
#include "domain/crypto.hpp"
#include "domain/data_layout.hpp"
#include "platform/process/native_platform.hpp"
#include "scratch.hpp"
#include "support/launcher_builder.hpp"
#include "support/manifest_builder.hpp"

namespace {

using ravok::Json;
using ravok::benchmarks::check;
using ravok::benchmarks::Scratch;
using Words = std::vector<std::string>;

constexpr std::uint64_t megabyte = 1'000'000;

struct TreeSize {
  int files;
  std::uint64_t bytes;  // of all together
};
constexpr TreeSize small_tree = {40, 20 * megabyte};
constexpr TreeSize large_tree = {3000, 300 * megabyte};

std::string content_of(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void write_content(const std::filesystem::path& path, const std::string& content, int mode) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << content;
  check(chmod(path.c_str(), static_cast<mode_t>(mode)) == 0);
}

// Starts a program and returns the seconds until it, or what it has become, has said a line.
double seconds_to_first_line(const Words& words) {
  int ends[2];
  check(pipe2(ends, O_CLOEXEC) == 0);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[1], 1);
  std::vector<char*> table;
  for (const std::string& word : words) {
    table.push_back(const_cast<char*>(word.c_str()));
  }
  table.push_back(nullptr);
  char* environment[] = {nullptr};
  const auto start = std::chrono::steady_clock::now();
  pid_t child = 0;
  check(posix_spawn(&child, table.front(), &actions, nullptr, table.data(), environment) == 0);
  close(ends[1]);
  char first = 0;
  check(read(ends[0], &first, 1) == 1 && first == 'r');
  const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
  close(ends[0]);
  posix_spawn_file_actions_destroy(&actions);
  int status = 1;
  check(waitpid(child, &status, 0) == child && status == 0);
  return time.count();
}

// An installation with one launcher.
class Installation {
 public:
  explicit Installation(TreeSize size) : store_(scratch_.path()) {
    const std::filesystem::path bootstrap = ravok::DataPaths(scratch_.path()).bootstrap_directory;
    bootstrap_ = bootstrap / "bin/ravok-bootstrap";
    write_content(bootstrap_, content_of(RAVOK_BOOTSTRAP), 0755);
    const std::string program = content_of(RAVOK_FIRST_LINE_PROGRAM);
    const std::string data(size.bytes / static_cast<std::uint64_t>(size.files), 'x');
    const std::string data_sha256 = ravok::digest(data, "sha256");
    std::vector<ravok::testing::ManifestFile> files = {
        {"bin/window", program.size(), 0755, ravok::digest(program, "sha256")}};
    for (int i = 0; i < size.files; ++i) {
      files.push_back({"data/file-" + std::to_string(i), data.size(), 0644, data_sha256});
    }
    Json document = ravok::testing::as_launcher(ravok::testing::manifest_document(files));
    document["platform"] = ravok::native_platform();
    // The console's entry, which the document names first, is the same program.
    document["files"].front().update({{"length", program.size()}, {"sha256", ravok::digest(program, "sha256")}});
    document["archive"]["expanded_length"] =
        document["archive"]["expanded_length"].get<std::uint64_t>() - 10 + program.size();
    files.push_back({"bin/program", program.size(), 0755});
    const std::string text = document.dump();
    const std::string sha256 = ravok::digest(text, "sha256");
    write_content(store_.store() / "manifests" / (sha256 + ".json"), text, 0600);
    const std::filesystem::path folder = store_.store() / "versions" / sha256;
    entry_ = folder / "bin/window";
    std::ofstream list(list_);
    for (const ravok::testing::ManifestFile& file : files) {
      write_content(folder / file.path, file.mode == 0755 ? program : data, file.mode);
      list << (folder / file.path).native() << "\n";
    }
    Json state = store_.load();
    state["active"] = {{"manifest_sha256", sha256}, {"build_id", document.at("build_id")}};
    store_.save(state);
  }

  Words start() const { return {bootstrap_, "--data-dir", scratch_.path()}; }
  Words bare_start() const { return {RAVOK_BARE_START_PROGRAM, list_, entry_}; }

 private:
  const Scratch scratch_;
  const ravok::LauncherStore store_;
  const std::filesystem::path list_ = scratch_.path() / "list";
  std::filesystem::path bootstrap_;
  std::filesystem::path entry_;
};

void measure(benchmark::State& state, TreeSize size, Words (Installation::*command)() const) {
  const Installation installation(size);
  const Words words = (installation.*command)();
  for (auto _ : state) {
    state.SetIterationTime(seconds_to_first_line(words));
  }
}

void start_small(benchmark::State& state) { measure(state, small_tree, &Installation::start); }
BENCHMARK(start_small)->Unit(benchmark::kMillisecond)->UseManualTime();

void start_small_yardstick(benchmark::State& state) { measure(state, small_tree, &Installation::bare_start); }
BENCHMARK(start_small_yardstick)->Unit(benchmark::kMillisecond)->UseManualTime();

void start_large(benchmark::State& state) { measure(state, large_tree, &Installation::start); }
BENCHMARK(start_large)->Unit(benchmark::kMillisecond)->UseManualTime();

void start_large_yardstick(benchmark::State& state) { measure(state, large_tree, &Installation::bare_start); }
BENCHMARK(start_large_yardstick)->Unit(benchmark::kMillisecond)->UseManualTime();

}  // namespace
