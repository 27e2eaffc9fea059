#include "platform/file/directory_identity.hpp"

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/file_operations.hpp"

namespace ravok {

DirectoryIdentity inspect_storage_directory(const std::filesystem::path& path) {
  const std::filesystem::path name = without_end_separator(path);
  const Result<Handle> directory = os::open(name, os::OpenAs::directory);
  require(directory.has_value(), "unsafe_path", "Cannot inspect prepared directory identity");
  const auto opened = status_of(directory->get());
  const auto named = link_status_of(name);
  require(opened && named && is_directory(*opened) && is_directory(*named) && same_file(*opened, *named), "unsafe_path",
          "Prepared directory is linked, replaced or unavailable");
  return {opened->device, opened->inode};
}

}  // namespace ravok
