// The proof that a bootstrap starts: it is run as a start check, which a program passes that links and loads.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>

namespace ravok {

// How long a start check may take.
inline constexpr std::chrono::seconds bootstrap_trial_limit(10);

// The time that a trial goes by.
struct TrialClock {
  std::function<std::chrono::steady_clock::time_point()> now;
  std::function<void(std::chrono::milliseconds)> pause;
};

// The time of the system.
TrialClock system_trial_clock();

// Runs the program in its own folder and waits for its end, at most as long as the limit above. A program that still
// runs then is ended. Fails with "bootstrap_start" unless it ends with exit code 0.
void require_bootstrap_starts(const std::filesystem::path& program, const TrialClock& clock);

}  // namespace ravok
