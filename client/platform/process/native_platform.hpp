// Which of the supported platforms this build serves.
#pragma once

#include <string>
#include <string_view>

namespace ravok {

// Returns "linux-x86_64", "windows-x86_64" or "macos-aarch64", as documents name platforms.
std::string_view native_platform();

// Returns the path in a repository of the manifest of the current launcher for this platform.
std::string launcher_manifest_target();

// Whether programs for users are bundles on this platform: folders that users see and start as one file.
bool programs_are_bundles();

}  // namespace ravok
