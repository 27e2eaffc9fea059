// Which folder may take an installation, and what must stand there already: the judgement with which every install and
// repair begins, and which a front end shows before the user decides.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>

#include "domain/data_layout.hpp"
#include "domain/launcher_contract.hpp"
#include "domain/manifest.hpp"

namespace ravok {

// Accepts only a folder that a client can run from and that has room for the longest of its paths. `package` is where
// the package lies, which must be apart from it. Changes nothing. Fails with "unsafe_path" for the folder and for its
// place, and with "path_limit" as require_path_room does.
void require_install_place(const DataPaths& paths, const std::filesystem::path& package,
                           const SnapshotManifest& bootstrap, const SnapshotManifest& launcher);

// Accepts only what an install, or with `repair` a repair, can begin with. `missing` says that the folder does not
// exist. Changes nothing. Fails with "already_installed", "not_installed", with "unsafe_path" for a folder with other
// things in it, with "unsupported_schema" for an installation that is not understood, and as installation_state does.
void require_install_state(const DataPaths& paths, bool missing, bool repair);

// The room for an installation, in bytes.
struct InstallRoom {
  std::uint64_t needed = 0;
  std::uint64_t available = 0;
};

// Returns the room that a first installation of two snapshots takes at its peak, and what the volume of the folder, or
// of the nearest one above it that exists, can still take. Returns nothing where the volume does not tell.
std::optional<InstallRoom> install_room(const std::filesystem::path& root, const SnapshotManifest& bootstrap,
                                        const SnapshotManifest& launcher);

}  // namespace ravok
