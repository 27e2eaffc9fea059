// How long operations report their progress and learn that they should stop.
#pragma once

#include <cstdint>
#include <functional>

#include "domain/error.hpp"

namespace ravok {

// Called with the number of bytes that are done and the total. Returns false to cancel.
using ProgressCallback = std::function<bool(std::uint64_t done, std::uint64_t total)>;

// Calls `progress`, which may be empty. Fails with "cancelled" when it returns false, so it may be called only where it
// is safe to stop.
inline void report(const ProgressCallback& progress, std::uint64_t done, std::uint64_t total) {
  require(!progress || progress(done, total), "cancelled", "Operation cancelled at a safe boundary");
}

}  // namespace ravok
