// The two records of a game's installation: a preparation binds a staging directory to a build while
// work is under way, and a readiness record says that its tree is complete and may be activated. Only the directory
// that a record binds is ever removed; any other is preserved.
//
// A build's folder is its versions folder joined with the reference's version.
#pragma once

#include <filesystem>

#include "domain/game_manifest.hpp"
#include "domain/json.hpp"
#include "platform/file/directory_identity.hpp"
#include "platform/snapshot/reserved_tree.hpp"

namespace ravok {

// Accept only a preparation, or a readiness record, of at most 16,384 bytes. Fail with "install_preparation_state" or
// "install_ready_state", "unsupported_schema", "size_limit", and for identifiers and paths with "invalid_identity" or
// "unsafe_path".
void validate_install_preparation(const Json& document);
void validate_install_ready(const Json& document);

// Returns the preparation of an installation into the versions folder, with no staging directory
// recorded yet. `reference` names the saved manifest: `version`, `build_id`, `manifest_ref`,
// `manifest_target`. Fails as validate_install_preparation does, and with "install_preparation_state"
// when the reference is not that manifest's or the build is for another platform.
Json make_install_preparation(const GameManifest& manifest, const Json& reference,
                              const std::filesystem::path& versions);

// Records the staging directory in a preparation that has none. Fails with "install_preparation_state"
// and as validate_install_preparation does; the document is then as it was.
void record_install_preparation(Json& document, const DirectoryIdentity& identity);

// Returns the readiness record of a complete tree in the recorded staging directory, whose build's
// folder does not exist yet. Fails with "install_ready_state", "destination_exists", and as
// validate_install_ready and ReservedTree::validate do.
Json make_install_ready(const GameManifest& manifest, const Json& preparation, const std::filesystem::path& staging,
                        const ReservedTree& tree);

// Removes the staging directory that a preparation binds, when it holds nothing but files of the
// manifest; a missing one is fine. `destination` is the build's folder, which must not exist.
// Fails with "install_preparation_state", "allocation_changed" for what is not the directory recorded,
// "unexpected_file" for what the manifest does not name, "size_limit", "unsafe_path" or "tree_read"; nothing is
// removed then. A removal that fails half-way ends with "file_sync" or std::filesystem::filesystem_error, and a later
// call continues it.
void cleanup_prepared_install(const GameManifest& manifest, const Json& preparation,
                              const std::filesystem::path& staging, const std::filesystem::path& destination);

// The same for a readiness record: the tree is the staging directory or, once it was activated, the
// build's folder; there must be one of the two. Without `checked`, only proves that it may be removed.
// Fails with "install_ready_state" and otherwise as cleanup_prepared_install does.
void cleanup_ready_install(const GameManifest& manifest, const Json& ready, const std::filesystem::path& staging,
                           const std::filesystem::path& destination, bool checked);

}  // namespace ravok
