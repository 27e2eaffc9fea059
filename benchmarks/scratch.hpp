// A directory for the files of a benchmark, removed at the end.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

#include <unistd.h>

namespace ravok::benchmarks {

class Scratch {
 public:
  Scratch() {
    std::string pattern = std::filesystem::temp_directory_path() / "ravok-benchmark-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
      std::abort();
    }
    path_ = pattern;
  }
  ~Scratch() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace ravok::benchmarks
