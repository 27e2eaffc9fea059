// Showing the user a place on their own desktop.
#pragma once

#include <filesystem>

namespace ravok {

// Shows a directory to the user with the desktop's own program. Fails with "location_unavailable" or
// "desktop_unavailable".
void open_directory(const std::filesystem::path& path);

}  // namespace ravok
