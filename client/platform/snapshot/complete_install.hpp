// How programs refuse to run from a tree that is not finished: an installation whose commit has not
// ended, or a package that is being put together.
#pragma once

#include <filesystem>
#include <functional>

#include "domain/data_layout.hpp"

namespace ravok {

// Fails with "native_install_incomplete" when a commit into the folder `root` has not ended.
void require_complete_native_install(const std::filesystem::path& root);

// Calls `visit` for every folder above a program's file but the root of the file system, the nearest first. Fails with
// "unsafe_path" beyond 256 folders, when it has visited these.
void visit_image_folders(const std::filesystem::path& executable,
                         const std::function<void(const std::filesystem::path&)>& visit);

// Fails as require_complete_native_install does for every folder above a program's file, and in the same way for the
// markers of a package that is being put together. Fails with "unsafe_path" beyond 256 folders.
void require_complete_native_install_image(const std::filesystem::path& executable);

}  // namespace ravok
