// The other side of snapshot_archive: makes one archive of the files that a scan of a publisher's tree has found.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

#include "platform/snapshot/progress.hpp"
#include "publisher/snapshot_scan.hpp"

namespace ravok {

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

// The same for files whose permissions were judged by `modes`.
PackedArchive pack_snapshot(const std::filesystem::path& root, SnapshotInventory& inventory, int level,
                            const std::function<void(std::string_view bytes)>& sink, const ProgressCallback& progress,
                            SnapshotModes modes);

}  // namespace ravok
