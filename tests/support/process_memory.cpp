#include "support/process_memory.hpp"

#include <fstream>
#include <string>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace ravok::testing {
namespace {

// Returns a number of bytes from a line of the kernel's account of this process.
std::uint64_t account(const std::string& line) {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    if (word == line) {
      std::uint64_t kibibytes = 0;
      status >> kibibytes;
      return kibibytes * 1024;
    }
  }
  return 0;
}

}  // namespace

std::uint64_t peak_of(const std::function<void()>& work) {
  int ends[2] = {};
  EXPECT_EQ(pipe(ends), 0);
  const pid_t child = fork();
  if (child == 0) {
    // The kernel counts the peak afresh from here on.
    std::ofstream("/proc/self/clear_refs") << 5;
    const std::uint64_t before = account("VmRSS:");
    work();
    const std::uint64_t peak = account("VmHWM:");
    const std::uint64_t taken = before != 0 && peak > before ? peak - before : 0;
    _exit(write(ends[1], &taken, sizeof taken) == sizeof taken ? 0 : 1);
  }
  // So that a child that ends early leaves nobody who could still write.
  close(ends[1]);
  std::uint64_t taken = 0;
  EXPECT_EQ(read(ends[0], &taken, sizeof taken), static_cast<ssize_t>(sizeof taken));
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  close(ends[0]);
  return taken;
}

}  // namespace ravok::testing
