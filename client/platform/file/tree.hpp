// Measuring and removing whole trees that the client has made.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>

namespace ravok {

// Returns the sum in bytes of the sizes of all files below a plain directory of at most
// `max_entries` entries. Fails with "unsafe_path" for a link or a special file, "size_limit"
// beyond the bound, "tree_read" when a directory cannot be read.
std::uint64_t tree_bytes(const std::filesystem::path& path, std::size_t max_entries);

// Removes a plain directory with all that it holds, durably; a missing one is fine. A volume that is mounted
// in it is not entered. Fails with "unsafe_path" for what is no directory or holds a link or a special file,
// "size_limit" beyond 250,000 entries, "tree_read" when a directory cannot be read; nothing is removed then. Fails
// with "file_sync" when only the flush of the parent failed, and with std::filesystem::filesystem_error when the
// removal fails half-way.
void remove_plain_tree(const std::filesystem::path& path);

// Removes whatever the path names with all that it holds. It goes on after what cannot be removed, and enters no volume
// that is mounted in it. Returns whether everything was removed.
bool remove_path_quietly(const std::filesystem::path& path);

}  // namespace ravok
