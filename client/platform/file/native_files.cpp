#include "platform/file/native_files.hpp"

#include <system_error>

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/tree.hpp"

namespace ravok::native_files {

bool remove_or_trash(const std::filesystem::path& path, const std::filesystem::path&) {
  std::error_code problem;
  std::filesystem::remove(path, problem);
  require(!problem, "file_remove", "Cannot remove " + path_utf8(path));
  return true;
}

void remove_after_exit(const std::filesystem::path& path) { remove_path_quietly(path); }

std::filesystem::path temporary_directory(const std::filesystem::path&) {
  std::error_code problem;
  const std::filesystem::path directory = std::filesystem::temp_directory_path(problem);
  return problem ? "/tmp" : directory;
}

void rename_replace(const std::filesystem::path& from, const std::filesystem::path& to) {
  std::error_code problem;
  std::filesystem::rename(from, to, problem);
  require(!problem, "file_write", "Cannot move " + path_utf8(from) + " into place");
}

}  // namespace ravok::native_files
