// How long operations tell how far they are, and are told to stop.
#pragma once

#include <cstdint>
#include <functional>

#include "domain/error.hpp"

namespace ravok {

// Told how many bytes of how many are done; answers false to cancel.
using ProgressCallback = std::function<bool(std::uint64_t done, std::uint64_t total)>;

// Calls `progress`, which may be empty. Fails with "cancelled" when it answers false: only where
// stopping leaves nothing half-described.
inline void report(const ProgressCallback& progress, std::uint64_t done, std::uint64_t total) {
  require(!progress || progress(done, total), "cancelled", "Operation cancelled at a safe boundary");
}

}  // namespace ravok
