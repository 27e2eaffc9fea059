// Publishing a snapshot: makes an archive of a tree, and the manifest that names it. The client's own parser has
// accepted every manifest that is published.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "domain/json.hpp"
#include "platform/snapshot/progress.hpp"

namespace ravok {

enum class SnapshotKind { bootstrap, launcher, game };

// A helper program of a launcher.
struct PublishedHelper {
  std::string path;  // relative, below the tree
  std::string role;  // "crash-handler", "maintenance" or "maintenance-gui"
};

// What is to be published. Fields of another kind than this one are ignored.
struct SnapshotPublication {
  SnapshotKind kind = SnapshotKind::game;
  std::filesystem::path tree;
  std::filesystem::path output;  // an existing directory, outside the tree
  std::string build_id;
  std::string platform;
  std::string executable;  // relative, below the tree
  std::string target;      // the archive's path in the repository; empty for a name that is made here
  int level = 12;          // of compression, 1 (fast) to 19 (small)

  // Of a launcher, and of a bootstrap on a platform where it may have one.
  std::string gui_executable;
  // Of a launcher.
  std::vector<PublishedHelper> helpers;
  // Of a bootstrap for macOS.
  std::string shortcut_executable;
  // Of a game.
  std::string game_id;
  std::string display_name;
  std::optional<Json> presentation;
  std::string release_notes;
  bool sdk_required = false;
};

struct PublishedSnapshot {
  std::filesystem::path archive;
  std::filesystem::path manifest;
  std::uint64_t files = 0;
  std::uint64_t expanded_length = 0;  // bytes
  std::uint64_t archive_length = 0;   // bytes
};

// Packs the tree and writes the archive and its manifest into the output directory, under two names that must not exist
// yet; the manifest is last. `progress`, which may be empty, is told of the content bytes packed. Whatever the client
// would refuse is refused before anything is written, except an archive that comes out too large. After a failure
// nothing is left behind.
// Fails with "output_exists"; "unsafe_path" for an output in the tree; "content_mismatch", "file_read", "archive" and
// "cancelled" as pack_snapshot does; "insufficient_space", "file_write" and "file_sync" as ExportFile does; and as
// scan_snapshot_tree and the parser of the kind's manifest do.
PublishedSnapshot publish_snapshot(const SnapshotPublication& publication, const ProgressCallback& progress);

}  // namespace ravok
