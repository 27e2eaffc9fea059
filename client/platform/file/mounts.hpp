// Volumes that are mounted inside a folder: they are not the folder's own, and nothing is removed from them.
#pragma once

#include <filesystem>
#include <functional>

namespace ravok {

// Accepts only an open directory in which no volume is mounted at a place for which `matters` answers true. `path` is
// where the directory is, and `matters` is given places as paths below it. Fails with "unsafe_path"; the message names
// the place and what to do.
void require_no_mounts(int directory, const std::filesystem::path& path,
                       const std::function<bool(const std::filesystem::path& place)>& matters);

}  // namespace ravok
