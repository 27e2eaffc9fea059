// Time that passes only in sleep, so that a test of waiting neither waits nor depends on how busy the machine is.
// Linked into a test with the linker's wrapping of the calls' names.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>

namespace ravok::testing {

// As long as it lives, the steady clock stands still. A sleep ends at once and moves the clock by its length. One
// object at a time.
class StillClock {
 public:
  // `at_sleep` runs at each sleep, after the clock has moved.
  explicit StillClock(std::function<void()> at_sleep = {});
  ~StillClock();
  StillClock(const StillClock&) = delete;
  StillClock& operator=(const StillClock&) = delete;

  // How many sleeps there were, and how long they were in all.
  std::size_t sleeps() const;
  std::chrono::nanoseconds slept() const;
};

}  // namespace ravok::testing
