// The other side of snapshot_archive: a publisher's tree becomes one archive and its inventory. What
// the client would refuse is refused here, in words that name the file.
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

// Returns the files below a directory with their lengths and modes, and without digests. Fails, with the
// client's own code and words followed by the path, for a name, a mode, a link, a special file or a
// size that no snapshot may hold, for an empty directory, which none can hold, and for paths that collide
// where case is ignored; with "size_limit" for too many files, and with "tree_read".
SnapshotInventory scan_snapshot_tree(const std::filesystem::path& root);

// An archive as it was packed.
struct PackedArchive {
  std::uint64_t length = 0;  // bytes
  std::string sha256;        // lower-case digest text
};

// Packs the files of an inventory below `root`, in the order of their paths, into an archive of the
// form "tar.zst-v1", which `sink` gets piece by piece, and writes their digests into the inventory. The
// same files give the same bytes at the same `level`, 1 (fast) to 19 (small). `progress`, which may
// be empty, is told of the content bytes read. Fails with "content_mismatch" for a file that is not
// as it was scanned, "file_read", "archive", "cancelled", and with what `sink` throws.
PackedArchive pack_snapshot(const std::filesystem::path& root, SnapshotInventory& inventory, int level,
                            const std::function<void(std::string_view bytes)>& sink, const ProgressCallback& progress);

}  // namespace ravok
