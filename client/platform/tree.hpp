// Measuring and removing trees that the client manages: only what is known is removed, and what
// was changed, linked or added by others is preserved.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>

#include "domain/manifest.hpp"

namespace ravok {

// Returns the sum in bytes of the sizes of all files below a plain directory of at most
// `max_entries` entries. Fails with "unsafe_path" for a link or a special file, "size_limit"
// beyond the bound, "tree_read" when a directory cannot be read.
std::uint64_t tree_bytes(const std::filesystem::path& path, std::size_t max_entries);

// Removes a plain directory with all that it holds, durably; a missing one is fine. Nothing is
// removed when it holds a link, a special file or more than 250,000 entries. A volume that is mounted
// in it is not entered. Fails as tree_bytes does, with "unsafe_path" for what is no directory, "file_sync" when only
// the flush of the parent failed, and with the file system's own error when the removal fails half-way.
void remove_plain_tree(const std::filesystem::path& path);

// Removes whatever the path names with all that it holds, as far as that goes, but enters no volume that
// is mounted in it. Returns whether all of it went.
bool remove_path_quietly(const std::filesystem::path& path);

// Proves that every file of the manifest below `root` is missing or a regular file, so that
// retiring it would remove nothing else. Changes nothing. Fails with "unsafe_path".
void validate_snapshot_retirement(const SnapshotManifest& manifest, const std::filesystem::path& root);

// Removes the manifest's files below `root`, and the directories that become empty by that, the
// root included, durably. Files that the manifest does not name stay, with their directories.
// `hook`, which may be empty, runs before each file and may stop the work by throwing; what was
// removed stays removed, and a later call goes on. Fails with "unsafe_path" for what was changed
// and is preserved, "file_remove" and "file_sync".
void retire_snapshot_files(const SnapshotManifest& manifest, const std::filesystem::path& root,
                           const std::function<void()>& hook);

}  // namespace ravok
