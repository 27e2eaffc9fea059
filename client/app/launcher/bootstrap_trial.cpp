#include "app/launcher/bootstrap_trial.hpp"

#include <algorithm>
#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <thread>

#include "app/launcher/bootstrap_image.hpp"
#include "domain/error.hpp"
#include "platform/process/child_process.hpp"

namespace ravok {
namespace {

constexpr std::string_view start_failed = "bootstrap_start";
constexpr std::chrono::milliseconds longest_step(20);

// A program on trial, which does not outlive its trial.
class Trial {
 public:
  explicit Trial(const std::filesystem::path& program)
      : child_(program, {}, program.parent_path(), {{std::string(bootstrap_start_check_variable), "1"}}) {}
  ~Trial() {
    try {
      child_.terminate(failed_start_grace);
    } catch (const std::exception&) {
      // The system does not know the child, so there is nothing to end.
    }
  }
  Trial(const Trial&) = delete;
  Trial& operator=(const Trial&) = delete;

  // Returns the exit code, or nothing where the time is over.
  std::optional<std::uint64_t> wait(const TrialClock& clock) {
    const auto deadline = clock.now() + bootstrap_trial_limit;
    // A program that starts takes a few milliseconds, so the pauses begin short.
    for (std::chrono::milliseconds step(1);; step = std::min(2 * step, longest_step)) {
      if (const std::optional<std::uint64_t> code = child_.poll()) {
        return code;
      }
      if (clock.now() >= deadline) {
        return std::nullopt;
      }
      clock.pause(step);
    }
  }

 private:
  ChildProcess child_;
};

}  // namespace

TrialClock system_trial_clock() {
  return {[] { return std::chrono::steady_clock::now(); },
          [](std::chrono::milliseconds step) { std::this_thread::sleep_for(step); }};
}

void require_bootstrap_starts(const std::filesystem::path& program, const TrialClock& clock) {
  std::optional<Trial> trial;
  try {
    trial.emplace(program);
  } catch (const Error&) {
    fail(start_failed, "The new bootstrap cannot be started");
  }
  const std::optional<std::uint64_t> code = trial->wait(clock);
  require(code.has_value(), start_failed, "The new bootstrap did not start within 10 seconds");
  require(*code == 0, start_failed,
          "The new bootstrap does not start; it ended with exit code " + std::to_string(*code));
}

}  // namespace ravok
