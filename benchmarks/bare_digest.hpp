// The least that digesting a file takes, for yardsticks.
#pragma once

#include <array>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <vector>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

namespace ravok::benchmarks {

inline constexpr std::size_t piece_bytes = 65536;

inline void check(bool done) {
  if (!done) {
    std::abort();
  }
}

// The library's digest of a file, with a context and a buffer that are kept.
class BareDigest {
 public:
  void file(const char* path) {
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    check(file >= 0 && EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) == 1);
    ssize_t count = 0;
    while ((count = read(file, buffer_.data(), buffer_.size())) > 0) {
      EVP_DigestUpdate(context_.get(), buffer_.data(), static_cast<std::size_t>(count));
    }
    std::array<unsigned char, EVP_MAX_MD_SIZE> value;
    check(count == 0 && EVP_DigestFinal_ex(context_.get(), value.data(), nullptr) == 1);
    benchmark::DoNotOptimize(value);
    close(file);
  }

 private:
  struct Release {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
  };
  std::unique_ptr<EVP_MD_CTX, Release> context_{EVP_MD_CTX_new()};
  std::vector<unsigned char> buffer_ = std::vector<unsigned char>(piece_bytes);
};

}  // namespace ravok::benchmarks
