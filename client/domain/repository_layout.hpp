// Where a service keeps its signed repository: two folders below its origin, one for each transport of a client.
#pragma once

#include <string>

namespace ravok {

// The folders, relative to what the server shows as its root.
inline constexpr const char* repository_metadata_folder = "tuf/metadata";
inline constexpr const char* repository_targets_folder = "tuf/targets";

// Return the addresses of the two at an origin, which ends without a slash.
inline std::string metadata_address(const std::string& origin) {
  return origin + "/" + repository_metadata_folder + "/";
}
inline std::string targets_address(const std::string& origin) { return origin + "/" + repository_targets_folder + "/"; }

}  // namespace ravok
