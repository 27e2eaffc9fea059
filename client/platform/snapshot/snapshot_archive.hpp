// Unpacking a sealed snapshot: out come exactly the manifest's files, or a clean failure within
// bounded memory.
#pragma once

#include <filesystem>

#include "domain/manifest.hpp"
#include "platform/file/file_range.hpp"
#include "platform/snapshot/progress.hpp"

namespace ravok {

class ReservedTree;

// Unpacks an archive of the form "tar.zst-v1" below `staging`, file by file, each durable and read
// back, and proves the whole tree at the end. Without `reserved`, which may be null, `staging` must not
// exist and is made as a private directory; with it, `staging` is the reserved tree's root, and the
// files go into the blocks that it holds. A separator at the end of `staging` is ignored, and a
// link there is never followed. An `archive` with a separator at its end is refused. `progress`, which may be empty, is
// told of the bytes unpacked and then of the bytes proved; it is asked at least once in every 65,536 bytes. The caller
// holds the lock of what is unpacked.
//
// Memory is bounded by the decoder's window, 64 MiB at most, and the names of the manifest's files.
//
// Fails with "content_mismatch" when the archive or a file differs from the manifest;
// "staging_exists"; "archive" for an archive that cannot be read or is malformed; "size_limit" when
// it expands beyond what the manifest says; "archive_path", "archive_type" and "archive_inventory" for
// entries that the manifest does not have in that form; "cancelled"; "insufficient_space" without room;
// "allocation_changed" when the reserved tree or a file in it is another; "unsafe_path", "permissions", "file_write"
// and "file_sync"; and as verify_snapshot_tree does. After a failure `staging` stays as it is: a fresh one is for the
// caller to remove, a reserved one can be unpacked into again.
void extract_snapshot(const SnapshotManifest& manifest, const std::filesystem::path& archive,
                      const std::filesystem::path& staging, const ProgressCallback& progress,
                      const ReservedTree* reserved);

// The same for an archive that is a part of a file.
void extract_snapshot(const SnapshotManifest& manifest, const FileRange& archive, const std::filesystem::path& staging,
                      const ProgressCallback& progress, const ReservedTree* reserved);

}  // namespace ravok
