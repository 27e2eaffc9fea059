// Publishing a snapshot: makes an archive of a tree, and the manifest that names it. The client's own parser has
// accepted every manifest that is published.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

#include "platform/snapshot/progress.hpp"
#include "publisher/snapshot_document.hpp"
#include "publisher/snapshot_refusals.hpp"

namespace ravok {

struct PublishedSnapshot {
  std::filesystem::path archive;
  std::filesystem::path manifest;
  std::uint64_t files = 0;
  std::uint64_t expanded_length = 0;  // bytes
  // Of what was written; not of a check.
  std::uint64_t archive_length = 0;  // bytes
  std::string archive_sha256;
  std::uint64_t manifest_length = 0;  // bytes
  std::string manifest_sha256;
};

// Who is told of the look through the tree. Both may be empty.
struct SnapshotListener {
  // Told of the entries seen, with a total of 0; answers false to cancel.
  ProgressCallback scanning;
  // Told of each pattern to leave out that matches nothing in the tree.
  std::function<void(const std::string& pattern)> unmatched;
};

// Packs the tree and writes the archive and its manifest into the output directory, under two names that must not exist
// yet; the manifest is last. `progress`, which may be empty, is told of the content bytes packed. Whatever the client
// would refuse is refused before anything is written, except an archive that comes out too large; so is what would keep
// a bootstrap or a launcher from an initial package. All that is refused of the tree is refused at once. After a
// failure nothing is left behind, a directory that was made for the output included.
// Fails with "output_exists"; "unsafe_path" for an output in the tree; with SnapshotRefused, whose codes are those of
// scan_snapshot_tree and of the parser of the kind's manifest; "size_limit" for an archive that is too large;
// "content_mismatch", "file_read", "archive" and "cancelled" as pack_snapshot does; "insufficient_space", "file_write"
// and "file_sync" as OutputFile does; and as require_options, require_texts, scan_snapshot_tree and that parser do.
PublishedSnapshot publish_snapshot(const SnapshotPublication& publication, const ProgressCallback& progress);
PublishedSnapshot publish_snapshot(const SnapshotPublication& publication, const ProgressCallback& progress,
                                   const SnapshotListener& listener);

// Judges all that is judged before anything is written, and writes nothing.
PublishedSnapshot check_snapshot(const SnapshotPublication& publication, const SnapshotListener& listener);

}  // namespace ravok
