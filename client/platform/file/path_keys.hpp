// Whether two spellings name one place: a text key of a path that is equal exactly when the paths
// name the same location on the same volume, by the volume's own comparison of names.
//
// A key is "linux-v1" or "macos-apfs-v1", the volume's identity, "s" where the place's directory compares names with
// their case and "i" where it does not, and the names from the volume's root down to the place, all joined by "/"; the
// key of a volume's root ends in "/". The names are those of the volume itself: ahead of what the path spells below a
// mount stands what lies above the part that is mounted there, so two mounts of one volume give one key. Each name is
// written as its directory compares it. A place lies in another when its key begins with the other's up to a "/". The
// keys of two places do not tell that where one directory compares names with their case and the other does not.
//
// A path has at most 128 levels: the names of its normal form below "/", after the system's own links at its head were
// followed, whether they exist or not. The path of the volume's mount has the same bound of its own. What lies above
// the mounted part of a volume counts toward neither.
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
