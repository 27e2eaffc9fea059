#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include "platform/file/allocated_file.hpp"
#include "scratch.hpp"

namespace {

constexpr std::uint64_t file_bytes = std::uint64_t{1} << 30;
constexpr std::size_t piece_bytes = 65536;

const std::string& piece() {
  static const std::string content = [] {
    std::string bytes(piece_bytes, '\0');
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      bytes[i] = static_cast<char>(i * 2654435761u >> 13);
    }
    return bytes;
  }();
  return content;
}

// Returns the path for the file of a run: no file is there, and the disk is at rest.
std::filesystem::path prepare(const ravok::benchmarks::Scratch& scratch) {
  std::filesystem::path path = scratch.path() / "file";
  std::filesystem::remove(path);
  sync();
  return path;
}

void check(bool done) {
  if (!done) {
    std::abort();
  }
}

void allocated_file(benchmark::State& state) {
  const ravok::benchmarks::Scratch scratch;
  const std::string_view bytes = piece();
  for (auto _ : state) {
    state.PauseTiming();
    const std::filesystem::path path = prepare(scratch);
    state.ResumeTiming();
    ravok::AllocatedFile file(path, file_bytes, {});
    for (std::uint64_t written = 0; written < file_bytes; written += piece_bytes) {
      file.write(bytes);
    }
    file.finish(true);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(file_bytes));
}
BENCHMARK(allocated_file)->Unit(benchmark::kMillisecond)->UseRealTime();

// The same file by the system calls alone: claimed, written in the same pieces and flushed.
void allocated_file_yardstick(benchmark::State& state) {
  const ravok::benchmarks::Scratch scratch;
  const std::string_view bytes = piece();
  for (auto _ : state) {
    state.PauseTiming();
    const std::filesystem::path path = prepare(scratch);
    state.ResumeTiming();
    const int file = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    check(file >= 0 && fallocate(file, 0, 0, static_cast<off_t>(file_bytes)) == 0);
    for (std::uint64_t written = 0; written < file_bytes; written += piece_bytes) {
      check(write(file, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
    }
    check(fsync(file) == 0);
    close(file);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(file_bytes));
}
BENCHMARK(allocated_file_yardstick)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
