// The description of one game release: its snapshot, its identity and presentation, and the ways in which it may be
// delivered other than as the full archive.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "domain/manifest.hpp"
#include "domain/presentation.hpp"

namespace ravok {

// A file of the repository.
struct ArtifactDescriptor {
  std::string target;        // its path in the repository
  std::uint64_t length = 0;  // bytes
  std::string sha256;        // lower-case digest text
};

// The full archive once more, encrypted, with the file that holds its key.
struct EncryptedArchive {
  std::string format;  // the decoder's name
  ArtifactDescriptor artifact;
  ArtifactDescriptor key;  // 32 bytes
};

// A file that makes this build's archive out of another's.
struct DirectPatch {
  std::string format;
  std::string source_build_id;
  ArtifactDescriptor source;  // the full archive of that other build
  ArtifactDescriptor artifact;
};

struct GameManifest : SnapshotManifest {
  // Returns the manifest of a document. Fails with "unsupported_schema"; "launcher_incompatible" for a build that needs
  // another launcher; "sdk_incompatible"; "invalid_presentation"; "size_limit"; "path_collision", "invalid_identity"
  // and "unsafe_path" as SnapshotManifest::parse does; and "invalid_manifest" for every other rule.
  static GameManifest parse(const Json& document);
  // The same, and keeps the document itself instead of a copy.
  static GameManifest parse(Json&& document);

  std::string game_id;
  std::string display_name;
  GamePresentation presentation;  // only the display name where the document has none
  std::string release_notes;
  bool sdk_required = false;
  std::uint64_t sdk_abi_version = 0;  // 1 where the SDK is required
  std::optional<EncryptedArchive> encrypted;
  std::vector<DirectPatch> patches;
};

}  // namespace ravok
