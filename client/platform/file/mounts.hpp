// Volumes that are mounted inside a folder: they are not the folder's own, and nothing is removed from them.
#pragma once

#include <filesystem>
#include <functional>

namespace ravok {

// Proves that nothing is mounted at a place in an open directory that `matters`. `path` is where the directory is; the
// places are told as paths below it. Fails with "unsafe_path", and names the place and what to do.
void require_no_mounts(int directory, const std::filesystem::path& path,
                       const std::function<bool(const std::filesystem::path& place)>& matters);

}  // namespace ravok
