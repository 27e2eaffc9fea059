// Whatever call of an install, a repair or an uninstall is spoilt, the folder is in one of its known states and says
// so, the player's data is as it was, and the next run finishes.

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <map>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "fault/fault_chain.hpp"
#include "fault/fault_runner.hpp"
#include "fault/setup_trial.hpp"

namespace ravok::testing::setup_fault_test {
namespace {

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
  plan.most_name_cuts = 120;
  plan.reset = [&] { trial.restart(); };
  plan.judge = [&](const FaultOutcome& outcome) {
    EXPECT_EQ(outcome.result.signal == SIGKILL, ends_process(outcome.mode));
    ++met[trial.judge({outcome.result, outcome.call.path, outcome.mode == FaultMode::names, outcome.at_end()})];
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

class SetupFaultChain : public ::testing::TestWithParam<SetupOperation> {};

TEST_P(SetupFaultChain, LeavesAKnownStateThatTheNextRunFinishes) {
  SetupTrial trial(GetParam());
  FaultChainPlan plan;
  plan.root = trial.place().root().path();
  plan.folders = {trial.place().place()};
  plan.chains = 8;
  plan.reset = [&] { trial.restart(); };
  plan.next = [&](ChainRandom& random) { return trial.next(random); };
  plan.judge = [&](const ChainLink& link) { return trial.judge(link); };
  const FaultChainTable table = run_fault_chains(plan);
  std::cout << name_of(GetParam()) << ", " << trial.states() << " states, " << table;
}

INSTANTIATE_TEST_SUITE_P(Setup, SetupFaultChain, ::testing::ValuesIn(all_setup_operations),
                         [](const auto& each) { return std::string(name_of(each.param)); });

TEST(SetupCalls, AnInstallFlushesTheNamesOfTheFolderThatAnEndedOneHasMade) {
  const SetupTrial trial(SetupOperation::first_install);
  const std::filesystem::path data = trial.place().data();
  const DataPaths paths = trial.place().paths();
  for (const std::filesystem::path& made : {trial.place().place(), data, paths.native}) {
    std::filesystem::create_directory(made);
    std::filesystem::permissions(made, std::filesystem::perms::owner_all);
  }
  const FaultRun run = run_with_fault(trial.program(), trial.place().root().path());
  ASSERT_EQ(run.result.exit_code, 0) << run.result.errors;
  // The next name in the folder is that of a lock, which alone does not mark a data folder.
  const auto lock = std::find_if(run.calls.begin(), run.calls.end(),
                                 [&](const FaultCall& call) { return call.path == paths.bootstrap_lock; });
  ASSERT_NE(lock, run.calls.end());
  for (const std::filesystem::path& parent : {data, data.parent_path(), data.parent_path().parent_path()}) {
    EXPECT_TRUE(std::any_of(run.calls.begin(), lock, [&](const FaultCall& call) {
      return call.name == "fsync" && call.path == parent;
    })) << parent;
  }
}

TEST(SetupCalls, AnUninstallLetsTheEndOfTheRecordLastBeforeItTakesMore) {
  const SetupTrial trial(SetupOperation::bare_uninstall);
  const DataPaths paths = trial.place().paths();
  const FaultRun run = run_with_fault(trial.program(), trial.place().root().path());
  ASSERT_EQ(run.result.exit_code, 0) << run.result.errors;
  const auto is_removal = [](const FaultCall& call) { return call.name == "remove" || call.name == "unlinkat"; };
  const auto removal = std::find_if(run.calls.begin(), run.calls.end(), [&](const FaultCall& call) {
    return is_removal(call) && std::filesystem::path(call.path).filename() == paths.installation_record.filename();
  });
  ASSERT_NE(removal, run.calls.end());
  const auto next = std::find_if(removal + 1, run.calls.end(),
                                 [&](const FaultCall& call) { return call.name == "fsync" || is_removal(call); });
  ASSERT_NE(next, run.calls.end());
  EXPECT_EQ(next->name, "fsync");
  EXPECT_EQ(next->path, paths.native);
}

}  // namespace
}  // namespace ravok::testing::setup_fault_test
