// A directory of a fuzzer's own, in memory where there is a volume for that, since such a volume flushes
// quickly.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

#include <unistd.h>

namespace ravok::fuzz {

inline std::filesystem::path make_root() {
  const std::filesystem::path memory = "/dev/shm";
  const bool has_memory = access(memory.c_str(), W_OK) == 0;
  std::string pattern = (has_memory ? memory : std::filesystem::temp_directory_path()) / "ravok-fuzz-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) {
    std::abort();
  }
  return pattern;
}

struct MemoryRoot {
  std::filesystem::path path = make_root();
  ~MemoryRoot() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
};

}  // namespace ravok::fuzz
