// Starts programs for tests whose result must not depend on how busy the machine is.
#pragma once

#include <chrono>
#include <cstdint>

#include "app/launcher/bootstrap_trial.hpp"
#include "app/launcher/launcher_attempt.hpp"

namespace ravok::testing {

// Starts the program as start_launcher does. Who tells it to end waits for as long as that takes here.
inline LauncherChild start_to_be_ended(const LauncherProgram& program) {
  LauncherChild child = start_launcher(program);
  child.terminate = [terminate = child.terminate](std::uint64_t grace) {
    while (!terminate(grace)) {
    }
    return true;
  };
  return child;
}

// A clock by which no trial of a bootstrap takes too long.
inline TrialClock endless_trial_clock() {
  return {[] { return std::chrono::steady_clock::time_point(); }, system_trial_clock().pause};
}

}  // namespace ravok::testing
