#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

#include "platform/file/file_operations.hpp"
#include "platform/posix/native.hpp"

namespace ravok {

// On Linux fsync reaches through the device's cache.
Problem os::flush(int handle) {
  return posix::done([&] { return fsync(handle); });
}

void os::begin_flush(int file, std::uint64_t offset, std::uint64_t size) {
  static_cast<void>(sync_file_range(file, static_cast<off_t>(offset), static_cast<off_t>(size), SYNC_FILE_RANGE_WRITE));
}

Problem posix::claim_blocks(int descriptor, std::uint64_t, std::uint64_t length) {
  const Problem problem =
      done([&] { return fallocate(descriptor, FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(length)); });
  // A volume that runs out of room half-way keeps the blocks that it claimed. Setting the size that the file already
  // has frees them.
  if (const auto status = status_of(descriptor); problem && status) {
    os::set_size(descriptor, status->size);
  }
  return problem;
}

}  // namespace ravok
