#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include "platform/file/file_digest.hpp"
#include "scratch.hpp"

namespace {

constexpr std::int64_t file_bytes = std::int64_t{1} << 30;

// A file of 1 GiB that stays in the page cache.
const std::filesystem::path& warm_file() {
  static const ravok::benchmarks::Scratch scratch;
  static const std::filesystem::path path = [] {
    std::string piece(1 << 20, '\0');
    for (std::size_t i = 0; i < piece.size(); ++i) {
      piece[i] = static_cast<char>(i * 2654435761u >> 13);
    }
    std::ofstream file(scratch.path() / "warm", std::ios::binary);
    for (std::int64_t written = 0; written < file_bytes; written += static_cast<std::int64_t>(piece.size())) {
      file.write(piece.data(), static_cast<std::streamsize>(piece.size()));
    }
    return scratch.path() / "warm";
  }();
  return path;
}

void digest_file(benchmark::State& state) {
  const std::filesystem::path& path = warm_file();
  for (auto _ : state) {
    benchmark::DoNotOptimize(ravok::digest_file(path, "sha256"));
  }
  state.SetBytesProcessed(state.iterations() * file_bytes);
}
BENCHMARK(digest_file)->Unit(benchmark::kMillisecond);

// The library's digest over the same bytes, read in the same pieces.
void digest_file_yardstick(benchmark::State& state) {
  const std::filesystem::path& path = warm_file();
  std::vector<unsigned char> buffer(65536);
  for (auto _ : state) {
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    EVP_MD_CTX* const context = EVP_MD_CTX_new();
    EVP_DigestInit_ex(context, EVP_sha256(), nullptr);
    ssize_t count = 0;
    while ((count = read(file, buffer.data(), buffer.size())) > 0) {
      EVP_DigestUpdate(context, buffer.data(), static_cast<std::size_t>(count));
    }
    unsigned char value[EVP_MAX_MD_SIZE];
    EVP_DigestFinal_ex(context, value, nullptr);
    benchmark::DoNotOptimize(value);
    EVP_MD_CTX_free(context);
    close(file);
  }
  state.SetBytesProcessed(state.iterations() * file_bytes);
}
BENCHMARK(digest_file_yardstick)->Unit(benchmark::kMillisecond);

}  // namespace
