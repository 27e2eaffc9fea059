#include "platform/file/foreign_folders.hpp"

#include <cstdlib>
#include <system_error>

#include <sys/stat.h>
#include <unistd.h>

#include "platform/file/file_status.hpp"

namespace ravok {
namespace {

constexpr uid_t root_user = 0;

}  // namespace

std::optional<std::filesystem::path> foreign_folder(const std::filesystem::path& path) {
  if (geteuid() != root_user) {
    return std::nullopt;
  }
  std::error_code problem;
  std::filesystem::path folder = std::filesystem::absolute(path, problem).lexically_normal();
  if (problem) {
    // What has no place is judged by whoever uses it.
    return std::nullopt;
  }
  FileStatus status;
  while (stat(folder.c_str(), &status) != 0) {
    if (folder == folder.root_path()) {
      return std::nullopt;
    }
    folder = folder.parent_path();
  }
  return status.st_uid == root_user ? std::nullopt : std::optional(folder);
}

std::optional<std::filesystem::path> foreign_home() {
  const char* const home = std::getenv("HOME");
  return home == nullptr || *home == '\0' ? std::nullopt : foreign_folder(home);
}

}  // namespace ravok
