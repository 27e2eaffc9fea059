#include <cerrno>

#include <fcntl.h>

#include "platform/os.hpp"

namespace ravok::os {

// A plain fsync leaves data in the drive's own cache here.
int flush(int descriptor) { return fcntl(descriptor, F_FULLFSYNC); }

int claim_blocks(int descriptor, std::uint64_t allocated, std::uint64_t length) {
  const auto wanted = static_cast<off_t>(length - allocated);
  fstore_t claim{};
  claim.fst_flags = F_ALLOCATEALL;
  claim.fst_posmode = F_PEOFPOSMODE;
  claim.fst_offset = 0;
  claim.fst_length = wanted;
  if (fcntl(descriptor, F_PREALLOCATE, &claim) != 0) {
    // Two numbers mean the same here.
    return errno == EOPNOTSUPP ? ENOTSUP : errno;
  }
  return claim.fst_bytesalloc < wanted ? ENOSPC : 0;
}

}  // namespace ravok::os
