// What a release of the bootstrap must be to take the place of an installed one.
#pragma once

#include <string>
#include <string_view>

#include "domain/manifest.hpp"

namespace ravok {

// What follows the name of a file that an update has replaced. No file of a release has such a name.
inline constexpr std::string_view replaced_file_ending = ".old";

// Whether a name is that of a replaced file, and whether a manifest names one.
bool is_replaced_file(std::string_view name);
bool has_replaced_file(const SnapshotManifest& manifest);

// Returns the path in a repository of the manifest of the current bootstrap for this platform.
std::string bootstrap_manifest_target();

// Accepts only the manifest of a bootstrap that can take the place of an installed one on this platform: at most 4096
// files, in an archive of at most 1 GiB. Reads the manifest's raw document. Fails as validate_bootstrap_contract does,
// with "launcher_incompatible" for contracts of another version and for another platform, and with "size_limit".
void validate_bootstrap_update(const SnapshotManifest& manifest);

// Returns the manifest of an update, read from its text of at most 524,288 bytes. Fails as parse_json,
// SnapshotManifest::parse and validate_bootstrap_update do, and with "launcher_incompatible" for a file whose name ends
// as those of replaced files do.
SnapshotManifest parse_bootstrap_update(std::string_view text);

}  // namespace ravok
