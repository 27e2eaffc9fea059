// Whether a tree holds exactly the files of a manifest, byte for byte; and what is wrong where not.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "domain/manifest.hpp"
#include "platform/snapshot/progress.hpp"

namespace ravok {

// What a tree holds that differs from its manifest.
struct DamagedFiles {
  std::uint64_t count = 0;         // all damaged entries
  std::vector<std::string> paths;  // relative; the first of them, as many as were asked for
};

// Proves that the tree below `root` holds every file of the manifest with its length, its content and
// its executable bit, nothing else but directories, and no link. `progress`, which may be empty, is
// told of the bytes digested. The caller keeps the tree from changing.
// Fails at the first difference: with "unsafe_path" for a root that is no directory, a link, or a name
// that no managed file can have; "size_limit" beyond 250,000 entries or as many files as the manifest has;
// "unexpected_file", "missing_file", "content_mismatch" or "content_mode"; "cancelled" when `progress`
// says so; "tree_read" or "file_read" when the tree cannot be read.
void verify_snapshot_tree(const SnapshotManifest& manifest, const std::filesystem::path& root,
                          const ProgressCallback& progress);

// Makes the same walk and returns all that verify_snapshot_tree would refuse, with at most `limit`
// paths: what the manifest does not name, and what of it is missing, different, not executable or cannot
// be read. Fails for a tree that cannot be walked safely: with "unsafe_path", "size_limit" beyond 250,000
// entries, "tree_read" and "cancelled".
DamagedFiles damaged_snapshot_files(const SnapshotManifest& manifest, const std::filesystem::path& root,
                                    const ProgressCallback& progress, std::size_t limit);

}  // namespace ravok
