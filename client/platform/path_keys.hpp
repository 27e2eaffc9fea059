// Whether two spellings name one place: a text key of a path that is equal exactly when the paths
// name the same location on the same volume, by the volume's own comparison of names.
#pragma once

#include <filesystem>
#include <string>

namespace ravok {

namespace path_keys {

// Returns the key of an absolute path of at most 4096 bytes on a local volume, whose last component
// may be a file. What does not exist yet is part of the key, by the names that it will have.
// Fails with "unsafe_path" for a linked, unavailable or foreign place, or one that changes
// meanwhile.
std::string path_key(const std::filesystem::path& path);

// The same for a path whose last component, where it exists, must be a directory.
std::string directory_key(const std::filesystem::path& path);

}  // namespace path_keys

// The name that these have on macOS.
namespace macos_paths = path_keys;

}  // namespace ravok
