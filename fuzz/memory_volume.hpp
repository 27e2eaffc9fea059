// Where fuzzers put their files.
#pragma once

#include <filesystem>

#include <unistd.h>

namespace ravok::fuzz {

// Returns a directory in memory, which is quick to write and to flush, or else where the system keeps temporary files.
inline std::filesystem::path memory_volume() {
  const std::filesystem::path memory = "/dev/shm";
  return access(memory.c_str(), W_OK) == 0 ? memory : std::filesystem::temp_directory_path();
}

}  // namespace ravok::fuzz
