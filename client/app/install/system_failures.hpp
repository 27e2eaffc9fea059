// Turns the failures of the standard library's file operations into failures of setup.
#pragma once

#include <filesystem>

#include "domain/error.hpp"

namespace ravok {

// Returns what `work` returns. A failure of the standard library's file operations becomes one with the code
// "file_system".
template <typename Work>
auto with_system_failures(Work work) {
  try {
    return work();
  } catch (const std::filesystem::filesystem_error& problem) {
    fail("file_system", problem.what());
  }
}

}  // namespace ravok
