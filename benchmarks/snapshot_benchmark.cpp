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

#include "app/publish_snapshot.hpp"
#include "bare_digest.hpp"
#include "platform/files.hpp"
#include "platform/snapshot_archive.hpp"
#include "platform/snapshot_tree.hpp"
#include "platform/tree.hpp"
#include "scratch.hpp"

namespace {

using ravok::SnapshotManifest;
using ravok::benchmarks::BareDigest;
using ravok::benchmarks::check;
using ravok::benchmarks::piece_bytes;
using ravok::benchmarks::Scratch;

// Content of which about a half compresses away.
void write_content(const std::filesystem::path& path, std::uint64_t length, std::uint32_t seed) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream file(path, std::ios::binary);
  std::uint32_t state = seed * 2654435761u + 1;
  std::string piece(4096, '\0');
  for (std::uint64_t written = 0; written < length; written += piece.size()) {
    for (std::size_t i = 0; i < piece.size(); i += 2) {
      state = state * 1664525u + 1013904223u;
      piece[i] = static_cast<char>(state >> 24);
    }
    file.write(piece.data(), static_cast<std::streamsize>(piece.size()));
  }
  file.close();
  check(file.good() && chmod(path.c_str(), 0644) == 0);
}

// A published tree, made once and warm.
struct Sample {
  // The first of the files that `fill` makes becomes the executable.
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

// Headers of this machine.
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

std::vector<std::string> file_paths(const Sample& sample, const std::filesystem::path& root) {
  std::vector<std::string> paths;
  for (const auto& [path, file] : sample.manifest.files) {
    paths.push_back(root / path);
  }
  return paths;
}

void verify(benchmark::State& state, const Sample& sample) {
  for (auto _ : state) {
    ravok::verify_snapshot_tree(sample.manifest, sample.tree(), {});
  }
}

void digest_all(benchmark::State& state, const Sample& sample) {
  const std::vector<std::string> paths = file_paths(sample, sample.tree());
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

// The bytes of an archive's only frame, decoded as they are asked for.
class BareDecoder {
 public:
  explicit BareDecoder(const std::filesystem::path& archive) : file_(open(archive.c_str(), O_RDONLY | O_CLOEXEC)) {}
  ~BareDecoder() { close(file_); }
  BareDecoder(const BareDecoder&) = delete;
  BareDecoder& operator=(const BareDecoder&) = delete;

  // Returns at most `most` of the next bytes.
  std::string_view next(std::size_t most) {
    while (taken_ == decoded_) {
      if (input_.pos == input_.size) {
        const ssize_t count = read(file_, in_.data(), in_.size());
        check(count > 0);
        input_ = {in_.data(), static_cast<std::size_t>(count), 0};
      }
      ZSTD_outBuffer output = {out_.data(), out_.size(), 0};
      check(ZSTD_isError(ZSTD_decompressStream(context_.get(), &output, &input_)) == 0);
      taken_ = 0;
      decoded_ = output.pos;
    }
    const std::size_t size = std::min(most, decoded_ - taken_);
    taken_ += size;
    return {out_.data() + taken_ - size, size};
  }

  void take(char* bytes, std::size_t size) {
    while (size > 0) {
      const std::string_view piece = next(size);
      piece.copy(bytes, piece.size());
      bytes += piece.size();
      size -= piece.size();
    }
  }

 private:
  struct Release {
    void operator()(ZSTD_DCtx* context) const { ZSTD_freeDCtx(context); }
  };
  int file_;
  std::unique_ptr<ZSTD_DCtx, Release> context_{ZSTD_createDCtx()};
  std::vector<char> in_ = std::vector<char>(piece_bytes);
  std::vector<char> out_ = std::vector<char>(piece_bytes);
  ZSTD_inBuffer input_ = {nullptr, 0, 0};
  std::size_t taken_ = 0;
  std::size_t decoded_ = 0;
};

void write_whole(int file, std::string_view bytes) {
  check(write(file, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
}

// What cannot be left out: the archive is digested and decoded, each file is written and flushed, and
// then digested twice.
void extract_bare(const Sample& sample, BareDigest& digest) {
  digest.file(sample.archive.c_str());
  BareDecoder decoder(sample.archive);
  check(mkdir(sample.staging().c_str(), 0700) == 0);
  std::array<char, 512> header;
  for (;;) {
    decoder.take(header.data(), header.size());
    if (header[0] == '\0') {
      break;
    }
    const std::filesystem::path path = sample.staging() / header.data();
    std::uint64_t left = std::strtoull(std::string(header.data() + 124, 12).c_str(), nullptr, 8);
    const std::uint64_t padding = (512 - left % 512) % 512;
    if (mkdir(path.parent_path().c_str(), 0700) != 0) {
      std::filesystem::create_directories(path.parent_path());
    }
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    while (left > 0) {
      const std::string_view bytes = decoder.next(std::min<std::uint64_t>(left, piece_bytes));
      write_whole(file, bytes);
      left -= bytes.size();
    }
    check(fsync(file) == 0 && close(file) == 0);
    digest.file(path.c_str());
    decoder.take(header.data(), padding);
  }
  for (const std::string& path : file_paths(sample, sample.staging())) {
    digest.file(path.c_str());
  }
}

void extract_yardstick(benchmark::State& state, const Sample& sample) {
  BareDigest digest;
  for (auto _ : state) {
    state.PauseTiming();
    sample.clear_staging();
    state.ResumeTiming();
    extract_bare(sample, digest);
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
