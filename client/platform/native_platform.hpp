// Which of the supported platforms this build serves.
#pragma once

#include <string_view>

namespace ravok {

// Returns "linux-x86_64", "windows-x86_64" or "macos-aarch64", as documents name platforms.
std::string_view native_platform();

}  // namespace ravok
