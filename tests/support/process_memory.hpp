// How much memory a piece of work takes of the system at its peak.
#pragma once

#include <cstdint>
#include <functional>

namespace ravok::testing {

// Runs `work` in a process of its own and returns the most bytes that the process took beyond those that it had before.
std::uint64_t peak_of(const std::function<void()>& work);

}  // namespace ravok::testing
