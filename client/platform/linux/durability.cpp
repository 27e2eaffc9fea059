#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

#include "platform/file/file_status.hpp"
#include "platform/os.hpp"

namespace ravok::os {

// On Linux fsync reaches through the device's cache.
int flush(int descriptor) { return fsync(descriptor); }

int claim_blocks(int descriptor, std::uint64_t, std::uint64_t length) {
  if (fallocate(descriptor, FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(length)) == 0) {
    return 0;
  }
  const int problem = errno;
  // A volume that ran out half-way keeps what it claimed beyond the end; setting the size that
  // the file already has gives that back.
  if (const auto status = status_of(descriptor); status && problem != EINTR) {
    [[maybe_unused]] const int ignored = ftruncate(descriptor, status->st_size);
  }
  return problem;
}

}  // namespace ravok::os
