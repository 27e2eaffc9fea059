// Removing trees by open directories: never through a link, and never into a volume that is mounted inside.
#pragma once

#include <filesystem>
#include <string>

#include "platform/file/problem.hpp"

namespace ravok {

// Removes what a name in an open directory stands for, with all that it holds; a missing name is fine, and a link is
// removed itself. `path` is where the name is, for the messages. The number of entries and the depth are unbounded; at
// most 40 directories are open at a time. Fails with "file_remove" for the first entry that cannot be removed, with
// "unsafe_path" for a mounted volume, before anything in it is touched, with "tree_read" for a directory that cannot be
// read, and with "too_many_files". What was removed before a failure is gone.
void remove_tree_at(int directory, const std::string& name, const std::filesystem::path& path);

// The same, but goes on with the other entries after one that cannot be removed. Returns no problem when everything was
// removed, otherwise that of the first failure.
Problem remove_tree_quietly_at(int directory, const std::string& name) noexcept;

}  // namespace ravok
