// The other side of snapshot_archive: makes one archive and its inventory of a publisher's tree. What the client would
// refuse is refused here, with a message that names the file.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "domain/manifest.hpp"
#include "platform/snapshot/progress.hpp"

namespace ravok {

// The files of a tree by their relative paths.
using SnapshotInventory = std::map<std::string, SnapshotFile>;

// Returns the files below a directory with their lengths and modes, and without digests. Fails with the client's own
// code and message, followed by the path: "unsafe_path" or "invalid_manifest" for a name or a mode, "archive_type" for
// a link, a special file or an empty directory, "size_limit" for a file that is too large or lies too deep, and
// "path_collision" for paths that are the same without regard to case. Fails also with "size_limit" for too many files
// or none, and with "tree_read".
SnapshotInventory scan_snapshot_tree(const std::filesystem::path& root);

// An archive as it was packed.
struct PackedArchive {
  std::uint64_t length = 0;  // bytes
  std::string sha256;        // lower-case digest text
};

// Packs the files of an inventory below `root`, in the order of their paths, into an archive of the form "tar.zst-v1",
// which `sink` gets piece by piece, and writes their digests into the inventory. The same files give the same bytes at
// the same `level`, 1 (fast) to 19 (small). `progress`, which may be empty, is told of the content bytes read. Fails
// with "usage" for another level, "content_mismatch" for a file that is not as it was scanned, "file_read", "archive",
// "size_limit" for an archive beyond 2 to the 42nd bytes, "cancelled", and with what `sink` throws.
PackedArchive pack_snapshot(const std::filesystem::path& root, SnapshotInventory& inventory, int level,
                            const std::function<void(std::string_view bytes)>& sink, const ProgressCallback& progress);

}  // namespace ravok
