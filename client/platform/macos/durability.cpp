#include <cerrno>

#include <fcntl.h>

#include "platform/file/file_operations.hpp"
#include "platform/posix/native.hpp"

namespace ravok {

// A plain fsync leaves data in the drive's own cache here.
Problem os::flush(int handle) {
  return posix::done([&] { return fcntl(handle, F_FULLFSYNC); });
}

void os::begin_flush(int, std::uint64_t, std::uint64_t) {}

Problem posix::claim_blocks(int descriptor, std::uint64_t allocated, std::uint64_t length) {
  const auto wanted = static_cast<off_t>(length - allocated);
  fstore_t claim{};
  claim.fst_flags = F_ALLOCATEALL;
  claim.fst_posmode = F_PEOFPOSMODE;
  claim.fst_offset = 0;
  claim.fst_length = wanted;
  if (const Problem problem = done([&] { return fcntl(descriptor, F_PREALLOCATE, &claim); })) {
    // Two error numbers mean the same here.
    return problem == Cause::unsupported ? problem_of(Cause::unsupported) : problem;
  }
  return claim.fst_bytesalloc < wanted ? problem_of(Cause::no_space) : Problem();
}

}  // namespace ravok
