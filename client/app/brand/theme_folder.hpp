// The theme of an installation: the folder that it lies in, and how it becomes the process's.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>

#include "domain/theme.hpp"

namespace ravok {

// Returns the folder of the theme below a data folder.
std::filesystem::path theme_directory(const std::filesystem::path& data_root);

// Returns the theme of a definition whose files lie in a directory. Fails with "invalid_theme", and as
// read_file does.
Theme parse_theme(const Json& definition, const std::filesystem::path& directory);

// Returns the theme of a folder, or none where it has no plain "theme.json". Fails as parse_theme does.
std::optional<Theme> load_theme(const std::filesystem::path& directory);

// Makes the theme of an installation, if it has one, the process's. Fails as load_theme does.
void use_installed_theme(const std::filesystem::path& data_root);

}  // namespace ravok
