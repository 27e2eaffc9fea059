#include "app/brand/theme_folder.hpp"

#include <string>
#include <utility>

#include "domain/data_layout.hpp"
#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/files.hpp"
#include "platform/file/status.hpp"

namespace ravok {
namespace {

bool is_plain_file(const std::filesystem::path& path) {
  const auto status = link_status_of(path);
  return status && is_file(*status);
}

std::string read_plain(const std::filesystem::path& path, std::uint64_t limit) {
  require(is_plain_file(path), "invalid_theme",
          "Theme file is missing or not a plain file: " + path_utf8(path.filename()));
  return read_file(path, limit);
}

ThemeReader reader_of(const std::filesystem::path& directory) {
  return [directory](const std::string& name, std::uint64_t limit) { return read_plain(directory / name, limit); };
}

}  // namespace

std::filesystem::path theme_directory(const std::filesystem::path& data_root) {
  return DataPaths(data_root).theme_directory;
}

Theme read_theme(const Json& definition, const std::filesystem::path& directory) {
  return read_theme(definition, reader_of(directory));
}

Theme parse_theme(const Json& definition, const std::filesystem::path& directory) {
  return parse_theme(definition, reader_of(directory));
}

std::optional<Theme> load_theme(const std::filesystem::path& directory) {
  const std::filesystem::path definition = directory / theme_definition_file;
  if (!is_plain_file(definition)) {
    return std::nullopt;
  }
  constexpr std::uint64_t limit = maximum_theme_definition_bytes;
  return parse_theme(parse_json(read_file(definition, limit), limit), directory);
}

void use_installed_theme(const std::filesystem::path& data_root) {
  if (std::optional<Theme> installed = load_theme(theme_directory(data_root))) {
    set_theme(std::move(*installed));
  }
}

}  // namespace ravok
