// The theme of an installation: the folder that it lies in, and how the process takes it over.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>

#include "domain/theme.hpp"

namespace ravok {

// Returns the folder of the theme below a data folder.
std::filesystem::path theme_directory(const std::filesystem::path& data_root);

// Return the theme of a definition whose files lie in a directory; the first whatever the contrast of its colours.
// Fail with "invalid_theme", and with "size_limit" or "file_read" as read_file does.
Theme read_theme(const Json& definition, const std::filesystem::path& directory);
Theme parse_theme(const Json& definition, const std::filesystem::path& directory);

// Returns the theme of a folder, or none where it has no plain "theme.json". Fails as parse_theme does, and with
// "invalid_json" and the other codes of parse_json.
std::optional<Theme> load_theme(const std::filesystem::path& directory);

// Makes the theme of an installation, if it has one, that of the process. Fails as load_theme does.
void use_installed_theme(const std::filesystem::path& data_root);

}  // namespace ravok
