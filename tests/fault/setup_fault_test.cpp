// Whatever call of an install, a repair or an uninstall is spoilt: the folder is in one of its known states and says
// so, the player's data is as it was, and the next run finishes.

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <iomanip>
#include <iostream>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <utility>

#include <gtest/gtest.h>

#include "fault/fault_runner.hpp"
#include "fault/setup_trial.hpp"

namespace ravok::testing {
namespace {

// Whether the call changes what is on the disk, or makes the change last.
bool changes(const FaultCall& call) {
  static const std::set<std::string> changing = {"fallocate", "fchmod", "fsync",    "ftruncate", "linkat",
                                                 "mkdirat",   "remove", "rename",   "renameat",  "renameat2",
                                                 "rmdir",     "unlink", "unlinkat", "write"};
  const bool takes_space = std::find(call.modes.begin(), call.modes.end(), FaultMode::enospc) != call.modes.end();
  return takes_space || changing.contains(call.name);
}

// Chooses among calls of which most only look. An ended process leaves what the last change has left; and of the calls
// that only look, every so manyth fails.
class Choice {
 public:
  bool operator()(const FaultCall& call, FaultMode mode) {
    const bool changing = changes(call);
    if (ends_process(mode)) {
      return std::exchange(changed_, changing) || every_call_;
    }
    return changing || every_call_ || looks_++ % stride == 0;
  }

 private:
  static constexpr std::uint64_t stride = 11;
  const bool every_call_ = std::getenv("RAVOK_SPOIL_EVERY_CALL") != nullptr;
  bool changed_ = true;
  std::uint64_t looks_ = 0;
};

class SetupFault : public ::testing::TestWithParam<std::tuple<SetupOperation, FaultMode>> {};

TEST_P(SetupFault, LeavesAKnownStateThatTheNextRunFinishes) {
  const auto [operation, mode] = GetParam();
  SetupTrial trial(operation);
  std::map<std::string, std::uint64_t> met;
  FaultPlan plan;
  plan.run = trial.program();
  plan.root = trial.place().root().path();
  plan.modes = {mode};
  plan.most_calls = 10'000;
  plan.chooses = Choice();
  plan.reset = [&] { trial.restart(); };
  plan.judge = [&](const FaultOutcome& outcome) {
    EXPECT_EQ(outcome.result.signal == SIGKILL, ends_process(outcome.mode));
    ++met[trial.judge({outcome.result, outcome.call.path})];
  };
  const FaultTable table = run_faults(plan);
  EXPECT_GT(table.runs, 1u);
  std::cout << table << std::left << std::setw(18) << name_of(operation) << std::setw(8) << fault_mode_name(mode)
            << table.runs << " calls, " << trial.states() << " states:";
  for (const auto& [state, count] : met) {
    std::cout << ' ' << state << " (" << count << ')';
  }
  std::cout << '\n';
}

INSTANTIATE_TEST_SUITE_P(Setup, SetupFault,
                         ::testing::Combine(::testing::ValuesIn(all_setup_operations),
                                            ::testing::ValuesIn(all_fault_modes)),
                         [](const auto& each) {
                           return std::string(name_of(std::get<0>(each.param))) + "_" +
                                  fault_mode_name(std::get<1>(each.param));
                         });

}  // namespace
}  // namespace ravok::testing
