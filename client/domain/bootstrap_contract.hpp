// The contract of the stable bootstrap: the one snapshot that is not replaced with each release.
#pragma once

#include "domain/manifest.hpp"

namespace ravok {

// Returns when the snapshot is a bootstrap release of a known ABI whose every executable is its
// stable entry point or one that its platform may declare beside it. Reads the snapshot's raw
// document. Fails with "launcher_incompatible" or "invalid_native_package".
void validate_bootstrap_contract(const SnapshotManifest& snapshot);

}  // namespace ravok
