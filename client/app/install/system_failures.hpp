// The standard library's file operations tell of failures in their own way; setup knows only one.
#pragma once

#include <filesystem>

#include "domain/error.hpp"

namespace ravok {

// Returns what `work` does; the file system's own failures become those of the system, with the code
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
