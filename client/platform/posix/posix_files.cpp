// The two operations of private storage that answer with errno.
#include "platform/file/posix_files.hpp"

#include <cerrno>

#include "platform/file/file_operations.hpp"

namespace ravok::posix_files {

int sync(int descriptor) {
  const Problem problem = os::flush(descriptor);
  if (!problem) {
    return 0;
  }
  errno = problem.number;
  return -1;
}

int reserve(int descriptor, std::uint64_t length) { return os::reserve(descriptor, length).number; }

}  // namespace ravok::posix_files
