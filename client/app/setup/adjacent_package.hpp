// The place of the initial package that comes with an installer.
#pragma once

#include <filesystem>

namespace ravok {

// Returns the package inside the installer bundle that the executable belongs to, or an empty
// path when the path is not that of such a bundle's program. Touches no file.
std::filesystem::path macos_installer_package(const std::filesystem::path& executable);

// Returns the package beside the installer program, the one for the console or the one with a window,
// or an empty path when the path is not that of an installer program. Touches no file.
std::filesystem::path linux_installer_package(const std::filesystem::path& executable);

// Returns the directory of the package lying with the running installer, as this platform lays
// it out, or an empty path. Never fails for what the file system answers.
std::filesystem::path adjacent_initial_package(const std::filesystem::path& executable);

}  // namespace ravok
