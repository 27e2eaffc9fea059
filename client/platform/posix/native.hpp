// What the units below the seam share on systems with POSIX calls.
#pragma once

#include <cerrno>
#include <cstdint>

#include <sys/stat.h>

#include "platform/file/problem.hpp"
#include "platform/file/status.hpp"

namespace ravok::posix {

// The problem that an error number stands for; none for 0.
Problem native_problem(int number);

// The same for the last call that failed.
Problem last_problem();

// The status that the logic above the seam sees; a file of a negative size or a negative number of blocks has none.
Result<Status> status_from(const struct stat& native);

// The flags that open a directory only to pass through it, without permission to list it, and never through a link.
int passage_flags();

// Claims blocks as os::reserve does, all or nothing, for a file that has `allocated` bytes of them; its size may stay
// as it is.
Problem claim_blocks(int descriptor, std::uint64_t allocated, std::uint64_t length);

// Repeats a system call, which answers -1 on failure, for as long as a signal interrupts it.
template <typename Call>
auto retry_interrupted(Call call) {
  auto result = call();
  while (result == -1 && errno == EINTR) {
    result = call();
  }
  return result;
}

// No problem where the call, repeated like that, answers anything but -1.
template <typename Call>
Problem done(Call call) {
  return retry_interrupted(call) == -1 ? last_problem() : Problem();
}

}  // namespace ravok::posix
