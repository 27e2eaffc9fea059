#include "app/publish_files.hpp"

#include "platform/file_status.hpp"
#include "platform/files.hpp"

namespace ravok {

void require_absent(const std::filesystem::path& path) {
  require(is_missing(path), "output_exists", "The output already exists: " + path_utf8(path));
}

std::filesystem::path output_path(const std::filesystem::path& path) {
  return path.has_parent_path() ? path : "." / path;
}

void write_new_file(const std::filesystem::path& path, std::string_view bytes) {
  ExportFile file(path);
  file.write(bytes);
  file.commit();
}

}  // namespace ravok
