// The place for files whose flushes should not wait for a disk.
#pragma once

#include <filesystem>

#include <unistd.h>

namespace ravok::testing {

// Returns a directory in memory or, without one, the one where the system keeps temporary files.
inline std::filesystem::path fast_volume() {
  const std::filesystem::path memory = "/dev/shm";
  return access(memory.c_str(), W_OK) == 0 ? memory : std::filesystem::temp_directory_path();
}

}  // namespace ravok::testing
