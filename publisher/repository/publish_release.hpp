// Puts new builds into a signed repository: of launchers, bootstraps and games, for any platform.
//
// Clients find a build by the target path of its manifest: "launcher-PLATFORM.manifest.json",
// "bootstrap-PLATFORM.manifest.json", and for a game "games/GAME/PLATFORM.manifest.json" or a path of the publisher's
// choice that ends in ".manifest.json". The files that a manifest names keep the paths that it gives them. What only a
// replaced manifest has named is no target any more; its files stay in the folder.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "domain/json.hpp"
#include "platform/snapshot/progress.hpp"
#include "publisher/repository/repository_session.hpp"
#include "publisher/signing/signer.hpp"
#include "publisher/snapshot_document.hpp"

namespace ravok {

// A manifest that is to be released, with the files that it names beside it.
struct ReleaseInput {
  std::filesystem::path manifest;
  std::string target;  // of a game's manifest; empty for the usual one
};

struct RepositoryRelease {
  std::filesystem::path folder;
  std::vector<ReleaseInput> manifests;
  std::optional<std::uint64_t> days;  // for which the new documents are valid; else as the repository's record says
};

// A build that has been released.
struct ReleasedBuild {
  SnapshotKind kind = SnapshotKind::game;
  std::string platform;
  std::string build_id;
  std::string game_id;  // of a game
  std::string target;   // of its manifest
  std::string manifest_sha256;
  std::vector<std::string> files;    // the targets of the files that it names
  std::vector<std::string> missing;  // those of them that did not lie beside it and are to be released later
  bool is_new = false;               // whether the repository did not describe exactly this before
};

struct ReleaseOutcome {
  RepositoryOutcome repository;
  std::vector<ReleasedBuild> builds;
};

// Return how people call a build, such as "launcher build 1.0.1 for linux-x86_64"; the second one that of a manifest's
// "custom" in the repository.
std::string build_text(const ReleasedBuild& build);
std::string build_text(const Json& custom);

// Releases the manifests, signed by the signers. With too few of them, a draft waits for the other signatures. Nothing
// is published or drafted when something is refused, and no copy of a file is left behind; only a publication that has
// begun stays for the next run to finish. `progress`, which may be empty, is told of the bytes copied. Of a
// game that is also delivered encrypted, the archive and its key need not lie beside the manifest yet: the same
// manifest, released again with them, adds them. Fails with
// - "usage" for two manifests with one target, and for a target that is not one of the manifest's kind;
// - "build_released" for a build identifier that was released before with another manifest;
// - "target_conflict" for two manifests that name one target with different content;
// - "content_mismatch" or "file_read" for a file that is not the one of its manifest, or not there;
// - "draft_pending", "unsigned_role" and "expired_role" for a repository that cannot be changed as it is;
// - "wrong_key" for a signer who speaks for no role of the repository;
// - "invalid_expiry" for days that require_days refuses;
// - as the client's parsers do for a manifest, with its path before the message;
// - and as RepositorySession does.
ReleaseOutcome publish_release(const RepositoryRelease& release, const std::vector<Signer>& signers, TufTime now,
                               const ProgressCallback& progress);

}  // namespace ravok
