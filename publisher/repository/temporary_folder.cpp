#include "publisher/repository/temporary_folder.hpp"

#include <system_error>

#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "platform/file/posix_files.hpp"

namespace ravok {
namespace {

std::filesystem::path place_for_temporary_files() {
  std::error_code problem;
  std::filesystem::path place = std::filesystem::temp_directory_path(problem);
  require(!problem, "file_system", "There is no folder for temporary files: " + problem.message());
  return place;
}

}  // namespace

TemporaryFolder::TemporaryFolder() : path_(place_for_temporary_files() / ("ravok-publish-" + random_id())) {
  private_directory_new(path_);
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code problem;
  std::filesystem::remove_all(path_, problem);
}

}  // namespace ravok
