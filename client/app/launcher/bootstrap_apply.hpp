// The applying of a prepared update of the bootstrap, from its locks to its end.
#pragma once

#include <filesystem>
#include <optional>

#include "app/launcher/bootstrap_trial.hpp"
#include "domain/error.hpp"

namespace ravok {

enum class BootstrapUpdateEnd {
  none,       // no update waits
  postponed,  // one waits and goes on waiting
  applied,    // the installed bootstrap is the new one
  rejected,   // the update was given up, and the installed bootstrap is the old one
};

struct BootstrapUpdateResult {
  BootstrapUpdateEnd end = BootstrapUpdateEnd::none;
  std::optional<Error> problem;  // why it was given up or goes on waiting; none where others only hold the locks
};

// Applies the update that waits for the bootstrap of a data folder, as apply_pending_bootstrap_update says. The new
// bootstrap is tried out twice, both times against the clock: where it was prepared, so that none that does not start
// is ever put into the installed tree, and in its place.
BootstrapUpdateResult apply_bootstrap_update(const std::filesystem::path& data_root, const TrialClock& clock);

}  // namespace ravok
