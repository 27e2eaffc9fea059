#include "platform/file/directory_identity.hpp"

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/descriptor.hpp"
#include "platform/file/file_status.hpp"
#include "platform/file/posix_files.hpp"

namespace ravok {

DirectoryIdentity inspect_storage_directory(const std::filesystem::path& path) {
  const std::filesystem::path name = without_end_separator(path);
  const Descriptor directory(retry_interrupted([&] { return open(name.c_str(), posix_files::walk_flags); }));
  require(static_cast<bool>(directory), "unsafe_path", "Cannot inspect prepared directory identity");
  const auto opened = status_of(directory.get());
  const auto named = link_status_of(name);
  require(opened && named && is_directory(*opened) && is_directory(*named) && same_file(*opened, *named), "unsafe_path",
          "Prepared directory is linked, replaced or unavailable");
  return {device_number(*opened), opened->st_ino};
}

}  // namespace ravok
