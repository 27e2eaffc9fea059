// What is to be published as a snapshot, and the manifest of it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "domain/json.hpp"
#include "publisher/snapshot_pack.hpp"

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
  std::filesystem::path output;  // a directory outside the tree, which is made where it is missing
  std::string build_id;
  std::string platform;
  std::string executable;  // relative, below the tree
  std::string target;      // the archive's path in the repository; empty for a name that is made here
  int level = 12;          // of compression, 1 (fast) to 19 (small)
  SnapshotScanRules scan;

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

// Accepts only a publication of which nothing that can be judged without looking at any file is refused; its
// presentation and its release notes are from files. Fails as the parser of the kind's manifest does, and with
// "invalid_native_package" for a bootstrap's or a launcher's archive that an initial package could not hold under its
// name.
void require_options(const SnapshotPublication& publication);

// Accepts only texts in UTF-8. Fails with "invalid_manifest".
void require_texts(const SnapshotPublication& publication);

// Return the archive's path in the repository, and the name of the manifest's file.
std::string archive_target(const SnapshotPublication& publication);
std::string manifest_name(const SnapshotPublication& publication);

// Returns the bytes of all files.
std::uint64_t expanded_length(const SnapshotInventory& inventory);

// Returns the manifest of these files in this archive. A file without a digest gets one of the right form.
Json make_document(const SnapshotPublication& publication, const SnapshotInventory& inventory,
                   const PackedArchive& archive);

// Judges the document as the client does, and fails as the parser of the kind's manifest.
void require_accepted(SnapshotKind kind, const Json& document);

}  // namespace ravok
