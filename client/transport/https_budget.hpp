// What an optional check for updates may cost in all its requests together.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>

namespace ravok {

// Shared by all requests of one check, which are made one after the other. Each of them may last until the deadline
// and at most 30 seconds; it is not begun when less than a millisecond is left, nor when more than 30 seconds are.
struct HttpsBudget {
  std::chrono::steady_clock::time_point deadline;
  std::uint64_t limit = 0;  // bytes of all response bodies together
  std::uint64_t used = 0;   // of these; grows as they arrive, also where a request fails
  // Returns true once the user has called the check off. Asked before each request and during it; may be empty.
  std::function<bool()> cancel;
};

}  // namespace ravok
