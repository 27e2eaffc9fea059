// The seam to the operating system: the few things that each system does in its own way. The
// folder of the system that is built for defines all of them; everything above is written once.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace ravok::os {

// The name of the platform that this build serves: "linux-x86_64" or "macos-aarch64".
std::string_view platform_name();

// The name of the operating system as messages spell it: "Linux" or "macOS".
std::string_view system_name();

// The relative path, below the user's home directory, of the folder that holds the client's data.
std::string_view data_root_below_home();

// The absolute path of the running image in at most `limit` bytes, or nothing when it cannot be
// told.
std::optional<std::string> executable_path(std::size_t limit);

}  // namespace ravok::os
