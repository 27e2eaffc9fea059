// What the units below the seam share on systems with POSIX calls.
#pragma once

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

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

// The table that the system wants: pointers into the texts, and a null behind the last.
std::vector<char*> pointers_to(std::vector<std::string>& texts);

// Open both ends of a pipe, the end to read from first, or of a pair of sockets, neither of them for programs that this
// process starts where the system can open them like that. Return what the system call does.
int open_pipe(int (&ends)[2]);
int open_sockets(int (&ends)[2]);

// The flags with which a byte is sent without a signal if its reader is gone.
int quiet_sending();

// Closes the descriptors from `first` to `last`, both included. Safe between fork and exec. Returns whether the system
// can do that at once.
bool close_descriptors(unsigned first, unsigned last);

// Returns how many descriptors are looked at one by one where the system cannot close them at once.
int descriptors_to_look_at();

// Closes the descriptors from `first` to before `end`; one by one only those below `count`. Safe between fork and exec.
void close_between(int first, int end, int count);

// Returns the descriptor that the parent has announced for its interrupts, or -1 where it has announced none, or none
// that could be one.
int announced_reader();

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
