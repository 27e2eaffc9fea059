// The manifests among the targets of a repository, read as clients read them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "domain/game_manifest.hpp"

namespace ravok {

// A release that a repository offers.
struct OfferedRelease {
  std::string manifest;  // its path in the repository
  std::string kind;      // "launcher", "bootstrap" or "game"
  std::string build_id;
  std::string platform;
  std::string game_id;                        // of a game
  std::vector<ArtifactDescriptor> artifacts;  // the files that a client fetches for it, the archive first
};

// Whether a target is taken for a manifest: its name says so, or its description names a build.
bool is_manifest(std::string_view path, const Json& description);

// The most bytes that a client reads of the manifest with this path.
std::uint64_t manifest_limit(std::string_view path);

// Returns the release of a manifest. Clients find those of launcher and bootstrap by their paths, one for each
// platform; any other is a game's, or whatever kind it says that it is. Fails with "launcher_incompatible" for a
// platform that is not that of the path, and as parse_json, LauncherManifest::parse, SnapshotManifest::parse,
// validate_bootstrap_contract, GameManifest::parse and, for a bootstrap of this platform, validate_bootstrap_update do.
OfferedRelease read_release(const std::string& path, std::string_view text);

}  // namespace ravok
