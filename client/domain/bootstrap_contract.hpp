// The contract of the stable bootstrap: the one snapshot that is not replaced with each release.
#pragma once

#include <array>
#include <string_view>

#include "domain/manifest.hpp"

namespace ravok {

// The programs of a bootstrap that the system starts, by their paths in its tree: the stable entry, and the helper that
// opens launch documents on a platform that has them.
inline constexpr std::string_view bootstrap_entry = "bin/ravok-bootstrap";
inline constexpr std::string_view bootstrap_shortcut_entry = "bin/RavokShortcut.app/Contents/MacOS/ravok-shortcut";
inline constexpr std::array<std::string_view, 2> bootstrap_entries = {bootstrap_entry, bootstrap_shortcut_entry};

// Accepts only a bootstrap release of a known ABI for a supported platform, whose executables are its stable entry
// point and those that its platform may declare beside it. Reads the snapshot's raw document. Fails with
// "launcher_incompatible" for another kind, ABI, platform or entry point, and with "invalid_native_package" for an
// executable that is not declared or that the platform does not have.
void validate_bootstrap_contract(const SnapshotManifest& snapshot);

}  // namespace ravok
