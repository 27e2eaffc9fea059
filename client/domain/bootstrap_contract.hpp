// The contract of the stable bootstrap: the one snapshot that is not replaced with each release.
#pragma once

#include "domain/manifest.hpp"

namespace ravok {

// Accepts only a bootstrap release of a known ABI for a supported platform, whose executables are its stable entry
// point and those that its platform may declare beside it. Reads the snapshot's raw document. Fails with
// "launcher_incompatible" for another kind, ABI, platform or entry point, and with "invalid_native_package" for an
// executable that is not declared or that the platform does not have.
void validate_bootstrap_contract(const SnapshotManifest& snapshot);

}  // namespace ravok
