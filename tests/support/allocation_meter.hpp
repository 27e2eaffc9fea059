// How much memory a piece of work holds at its peak, in bytes. Linked into a test, it replaces
// the program's own allocation functions.
#pragma once

#include <cstddef>
#include <functional>

namespace ravok::testing {

// Runs `work` and returns the most bytes that it held at once beyond those held before.
std::size_t peak_bytes(const std::function<void()>& work);

}  // namespace ravok::testing
