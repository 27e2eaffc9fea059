// The immutable inventory of one build: which archive carries it, how large it expands, and the
// path, length, mode and digest of every file. The manifests of games and launchers extend it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <set>
#include <string>
#include <string_view>

#include "domain/json.hpp"

namespace ravok {

// One file of a snapshot.
struct SnapshotFile {
  std::uint64_t length = 0;  // bytes
  std::string sha256;        // lower-case digest text
  bool executable = false;   // mode 0755, otherwise 0644
};

// A manifest whose every rule was checked: paths are safe on all platforms and collide on none,
// and no sum of its lengths overflows.
struct SnapshotManifest {
  // Returns the manifest of a document. Fails with "unsupported_schema" for another schema; "size_limit" beyond 100,000
  // files or 2 to the 42nd bytes, of the archive or expanded; "path_collision" for paths that some platform cannot tell
  // apart; "invalid_identity" or "unsafe_path" for a build ID, "unsafe_path" for a path; and "invalid_manifest" for
  // every other rule.
  static SnapshotManifest parse(const Json& document);
  // The same, and keeps the document itself instead of a copy.
  static SnapshotManifest parse(Json&& document);

  // Returns the length in bytes of the longest file path in its native form, 0 without files.
  std::size_t longest_native_path() const;

  // Returns the directories that the files imply, without the root, as views into the keys of `files`, each before
  // those below it. Stops once it has found more than `most`.
  std::set<std::string_view> directories(std::size_t most = std::numeric_limits<std::size_t>::max()) const;

  Json raw;  // the whole document, to be written out again exactly
  std::string build_id;
  std::string platform;
  std::string executable;             // a key of `files`
  std::string target;                 // the archive's path in the repository
  std::uint64_t archive_length = 0;   // bytes
  std::uint64_t expanded_length = 0;  // bytes, the sum over all files
  std::string archive_sha256;
  std::string owner;  // set by whoever owns the snapshot; empty after parse
  std::map<std::string, SnapshotFile> files;
};

}  // namespace ravok
