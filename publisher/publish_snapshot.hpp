// Publishing a snapshot: out of a tree come an archive and the manifest that names it, of which the
// client has said with its own parser that it would take them.
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

// What is to be published. What belongs to one kind is not looked at for another.
struct SnapshotPublication {
  SnapshotKind kind = SnapshotKind::game;
  std::filesystem::path tree;
  std::filesystem::path output;  // an existing directory, outside the tree
  std::string build_id;
  std::string platform;
  std::string executable;  // relative, below the tree
  std::string target;      // the archive's path in the repository; empty for a flat name of its own
  int level = 12;          // of compression, 1 (fast) to 19 (small)

  // Of a launcher, and where its platform asks for one, of a bootstrap.
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

// Packs the tree and writes the archive and its manifest into the output directory, under two names that
// must not exist yet; the manifest is last. `progress`, which may be empty, is told of the content
// bytes packed. Whatever the client would refuse is refused before anything is written, but for an
// archive that comes out too large; after a failure nothing is left behind.
// Fails with "output_exists", as scan_snapshot_tree and pack_snapshot do, as ExportFile does, and as the
// parser of the kind's manifest does.
PublishedSnapshot publish_snapshot(const SnapshotPublication& publication, const ProgressCallback& progress);

}  // namespace ravok
