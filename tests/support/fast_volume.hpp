// The place for files whose flushes should not wait for a disk.
#pragma once

#include <cstdint>
#include <filesystem>

#include <sys/statvfs.h>
#include <unistd.h>

namespace ravok::testing {

// Returns a directory in memory or, without one that has room for tests and starts their programs, the one where the
// system keeps temporary files.
inline std::filesystem::path fast_volume() {
  constexpr std::uint64_t room = 1'073'741'824;
  const std::filesystem::path memory = "/dev/shm";
  struct statvfs volume {};
  const bool fits = access(memory.c_str(), W_OK) == 0 && statvfs(memory.c_str(), &volume) == 0 &&
                    (volume.f_flag & ST_NOEXEC) == 0 && std::uint64_t{volume.f_bavail} * volume.f_frsize >= room;
  return fits ? memory : std::filesystem::temp_directory_path();
}

}  // namespace ravok::testing
