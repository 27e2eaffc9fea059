// Removing the files of a snapshot that is no longer wanted. Only what its manifest names is removed; what others have
// changed, linked or added is preserved.
#pragma once

#include <filesystem>
#include <functional>

#include "domain/manifest.hpp"

namespace ravok {

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
