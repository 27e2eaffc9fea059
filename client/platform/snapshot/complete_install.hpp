// How programs refuse to run from a tree that is not finished: an installation whose commit has not
// ended, or a package that is being put together.
#pragma once

#include <filesystem>

#include "domain/data_layout.hpp"

namespace ravok {

// Fails with "native_install_incomplete" when a commit into the folder `root` has not ended.
void require_complete_native_install(const std::filesystem::path& root);

// The same for every folder above a program's file, and for the markers of a package that is being put
// together. Fails with "unsafe_path" beyond 256 folders.
void require_complete_native_install_image(const std::filesystem::path& executable);

}  // namespace ravok
