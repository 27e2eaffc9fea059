// Removing trees by open directories: never through a link, and never into a volume that is mounted inside.
#pragma once

#include <filesystem>
#include <string>

#include "platform/file/problem.hpp"

namespace ravok {

// Removes what a name in an open directory stands for, with all that it holds; a missing name is fine, and a link is
// removed itself. `path` is where the name is, for the messages. The number of entries and the depth are unbounded; at
// most 40 directories are open at a time. Fails with "file_remove" for the first entry that cannot be removed, with
// "unsafe_path" for a mounted volume, before anything in that is touched, and as walk_tree does; what was removed until
// then is gone.
void remove_tree_at(int directory, const std::string& name, const std::filesystem::path& path);

// The same as far as that goes: after an entry that cannot be removed it goes on with the others. Returns no
// problem when all of it went, or that of the first failure.
Problem remove_tree_quietly_at(int directory, const std::string& name) noexcept;

}  // namespace ravok
