#include "platform/file/foreign_folders.hpp"

#include <cstdlib>
#include <system_error>

#include "platform/file/file_operations.hpp"

namespace ravok {

std::optional<std::filesystem::path> foreign_folder(const std::filesystem::path& path) {
  if (!os::acts_for_system()) {
    return std::nullopt;
  }
  std::error_code problem;
  std::filesystem::path folder = std::filesystem::absolute(path, problem).lexically_normal();
  if (problem) {
    // Such a path cannot be used either, and the caller's own checks refuse it.
    return std::nullopt;
  }
  Result<Status> status = target_status_of(folder);
  while (!status) {
    if (folder == folder.root_path()) {
      return std::nullopt;
    }
    folder = folder.parent_path();
    status = target_status_of(folder);
  }
  return status->is_of_system ? std::nullopt : std::optional(folder);
}

std::optional<std::filesystem::path> foreign_home() {
  const char* const home = std::getenv("HOME");
  return home == nullptr || *home == '\0' ? std::nullopt : foreign_folder(home);
}

}  // namespace ravok
