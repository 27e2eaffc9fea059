// The fault library spoils exactly the call that it is told to, in exactly the way that it is told to.

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <iostream>
#include <numeric>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fault/fault_runner.hpp"
#include "support/temporary_root.hpp"

namespace ravok::testing {
namespace {

ProgramRun sample(const std::vector<std::string>& arguments) {
  return {RAVOK_SAMPLE_PLAIN, arguments, {{"HOME", "/nowhere"}}, ""};
}

// What the sample's steps say when the first `count` of the calls work.
std::string first_names(const std::vector<FaultCall>& calls, std::uint64_t count) {
  std::string names;
  for (std::uint64_t i = 0; i < count; ++i) {
    names += calls[i].name + "\n";
  }
  return names;
}

std::uint64_t number_of(const std::vector<FaultCall>& calls, const std::string& name) {
  const auto call = std::find_if(calls.begin(), calls.end(), [&](const FaultCall& c) { return c.name == name; });
  return call == calls.end() ? 0 : call->number;
}

class FaultLibrary : public ::testing::Test {
 protected:
  FaultLibrary() : work_(root_ / "work"), steps_(sample({"steps", work_})) {}

  // The steps' calls in a run that only counts, on a fresh state.
  std::vector<FaultCall> counted_steps() {
    clear();
    const FaultRun run = run_with_fault(steps_, root_.path());
    EXPECT_EQ(run.result.exit_code, 0) << run.result.output;
    clear();
    return run.calls;
  }

  void clear() const { std::filesystem::remove_all(work_); }

  const TemporaryRoot root_;
  const std::filesystem::path work_;
  const ProgramRun steps_;
};

TEST_F(FaultLibrary, CountsEachCallOnceInItsOrderUnderItsName) {
  const FaultRun run = run_with_fault(steps_, root_.path());
  EXPECT_EQ(run.result.exit_code, 0);
  EXPECT_GT(run.calls.size(), 90u);
  EXPECT_EQ(run.result.output, first_names(run.calls, run.calls.size()));
  for (std::size_t i = 0; i < run.calls.size(); ++i) {
    EXPECT_EQ(run.calls[i].number, i + 1);
    EXPECT_TRUE(run.calls[i].applied.empty());
    EXPECT_TRUE(run.calls[i].path.string().starts_with(work_.string())) << run.calls[i].path;
  }
}

TEST_F(FaultLibrary, EndsOrFailsEveryCallExactlyWhereItIsTold) {
  std::vector<FaultCall> calls = counted_steps();
  FaultPlan plan;
  plan.run = steps_;
  plan.root = root_.path();
  plan.reset = [&] { clear(); };
  plan.judge = [&](const FaultOutcome& outcome) {
    const std::string before = first_names(calls, outcome.call.number - 1);
    if (ends_process(outcome.mode)) {
      EXPECT_EQ(outcome.result.signal, SIGKILL);
      EXPECT_EQ(outcome.result.output, before);
    } else {
      const int problem = outcome.mode == FaultMode::eio ? EIO : ENOSPC;
      EXPECT_EQ(outcome.result.exit_code, 1);
      EXPECT_EQ(outcome.result.output, before + outcome.call.name + ": " + std::to_string(problem) + "\n");
    }
  };
  const FaultTable table = run_faults(plan);
  std::cout << table;
  EXPECT_EQ(table.calls.size(), calls.size());
  for (const FaultCall& call : calls) {
    EXPECT_EQ(table.endings.count({call.name, "exit"}), 1u) << call.name;
    EXPECT_EQ(table.endings.count({call.name, "eio"}), 1u) << call.name;
  }
}

TEST_F(FaultLibrary, SpoilsNothingBeyondTheLastCall) {
  const std::vector<FaultCall> calls = counted_steps();
  for (const FaultMode mode : all_fault_modes) {
    clear();
    const FaultRun run = run_with_fault(steps_, root_.path(), calls.size() + 1, mode);
    EXPECT_EQ(run.result.exit_code, 0);
    EXPECT_EQ(run.result.output, first_names(calls, calls.size()));
    EXPECT_TRUE(std::all_of(run.calls.begin(), run.calls.end(), [](const FaultCall& c) { return c.applied.empty(); }));
  }
}

TEST_F(FaultLibrary, ChangesNothingThatAnUnspoiltProgramDoes) {
  const ProgramResult plain = run_program(steps_);
  const std::vector<std::string> names = root_.names();
  const std::string content = root_.read("work/file");
  clear();
  const ProgramResult counted = run_with_fault(steps_, root_.path()).result;
  EXPECT_EQ(plain.exit_code, 0);
  EXPECT_EQ(counted.exit_code, plain.exit_code);
  EXPECT_EQ(counted.output, plain.output);
  EXPECT_EQ(counted.errors, plain.errors);
  EXPECT_EQ(root_.names(), names);
  EXPECT_EQ(root_.read("work/file"), content);
}

TEST_F(FaultLibrary, DoesNothingWithoutARoot) {
  ProgramRun run = steps_;
  run.environment["LD_PRELOAD"] = RAVOK_FAULT_LIBRARY;
  run.environment["RAVOK_FAULT_CALL"] = "1";
  run.environment["RAVOK_FAULT_MODE"] = "eio";
  EXPECT_EQ(run_program(run).exit_code, 0);
}

TEST_F(FaultLibrary, FindsEnospcOnlyWhereSpaceIsTaken) {
  std::string names;
  for (const FaultCall& call : counted_steps()) {
    if (std::find(call.modes.begin(), call.modes.end(), FaultMode::enospc) != call.modes.end()) {
      names += call.name + " ";
    }
  }
  EXPECT_EQ(names,
            "mkdir openat write pwrite pwrite64 writev fsync fallocate fallocate64 posix_fallocate posix_fallocate64 "
            "fdatasync setxattr lsetxattr fsetxattr rename renameat renameat2 link linkat symlink symlinkat mkdirat "
            "open64 creat creat64 sendfile copy_file_range fopen close ");
}

TEST_F(FaultLibrary, TearsAWriteInTheMiddle) {
  const std::uint64_t number = number_of(counted_steps(), "write");
  run_with_fault(steps_, root_.path(), number, FaultMode::torn);
  EXPECT_EQ(root_.read("work/file"), std::string("sixty-three bytes and a nul, and it matters").substr(0, 32));
}

TEST_F(FaultLibrary, EndsTheProcessBeforeTheCallTakesEffect) {
  const std::uint64_t number = number_of(counted_steps(), "rename");
  run_with_fault(steps_, root_.path(), number, FaultMode::exit);
  EXPECT_EQ(root_.names(), (std::vector<std::string>{"work/", "work/file"}));
}

TEST_F(FaultLibrary, FailsACallWithoutItsEffect) {
  const std::uint64_t number = number_of(counted_steps(), "rename");
  run_with_fault(steps_, root_.path(), number, FaultMode::eio);
  EXPECT_EQ(root_.names(), (std::vector<std::string>{"work/", "work/file"}));
}

TEST_F(FaultLibrary, ReleasesTheDescriptorOfAFailingClose) {
  const ProgramRun run = sample({"close", root_.path()});
  const std::uint64_t number = number_of(run_with_fault(run, root_.path()).calls, "close");
  EXPECT_EQ(run_with_fault(run, root_.path(), number, FaultMode::eio).result.output, std::to_string(EIO) + " gone\n");
  EXPECT_EQ(run_with_fault(run, root_.path()).result.output, "0 gone\n");
}

TEST_F(FaultLibrary, LosesWithThePowerWhatWasNotFlushed) {
  const ProgramRun run = sample({"unflushed", root_.path()});
  const std::vector<FaultCall> calls = run_with_fault(run, root_.path()).calls;
  ASSERT_EQ(calls.back().name, "stat");
  run_with_fault(run, root_.path(), calls.size(), FaultMode::exit);
  EXPECT_EQ(root_.read("unflushed"), "content");
  std::filesystem::remove(root_ / "unflushed");
  run_with_fault(run, root_.path(), calls.size(), FaultMode::power);
  EXPECT_EQ(root_.read("unflushed"), "");
  EXPECT_EQ(root_.read("flushed"), "content");
}

TEST_F(FaultLibrary, CountsNoStreamsPipesDevicesNorWhatComesBeforeTheRoot) {
  const FaultRun run = run_with_fault(sample({"elsewhere", root_.path()}), root_.path());
  EXPECT_EQ(run.result.exit_code, 0);
  ASSERT_EQ(run.calls.size(), 2u);
  EXPECT_EQ(run.calls[0].path, root_.path());
  EXPECT_EQ(run.calls[1].path, "/usr");
}

TEST_F(FaultLibrary, FailsOneCallOfManyThreads) {
  const FaultRun run = run_with_fault(sample({"threads", root_.path()}), root_.path(), 400, FaultMode::eio);
  EXPECT_EQ(run.result.output, std::to_string(EIO) + "\n");
  ASSERT_EQ(run.calls.size(), 800u);
  for (std::size_t i = 0; i < run.calls.size(); ++i) {
    EXPECT_EQ(run.calls[i].number, i + 1);
    EXPECT_EQ(run.calls[i].applied.empty(), run.calls[i].number != 400);
  }
}

TEST_F(FaultLibrary, LeavesProgramsThatTheProgramStartsAlone) {
  const FaultRun run = run_with_fault(sample({"child", work_}), root_.path(), 2, FaultMode::exit);
  EXPECT_EQ(run.result.exit_code, 0);
  ASSERT_EQ(run.calls.size(), 1u);
  EXPECT_EQ(run.calls[0].path, "/");
}

TEST_F(FaultLibrary, ActsInTheProgramThatIsNamed) {
  ProgramRun run = sample({"child", work_});
  run.environment["RAVOK_FAULT_PROGRAM"] = "sample_plain";
  EXPECT_EQ(run_with_fault(run, root_.path()).calls.size(), 1u);
  clear();
  run.environment["RAVOK_FAULT_PROGRAM"] = "another";
  const FaultRun another = run_with_fault(run, root_.path(), 1, FaultMode::exit);
  EXPECT_EQ(another.result.exit_code, 0);
  EXPECT_TRUE(another.calls.empty());
}

TEST_F(FaultLibrary, TakesItsVariablesOutOfTheEnvironment) {
  EXPECT_EQ(run_with_fault(sample({"environment"}), root_.path()).result.output, "HOME=/nowhere\n");
}

TEST_F(FaultLibrary, RefusesSettingsThatMeanNothing) {
  const struct {
    std::string variable, value, message;
  } cases[] = {
      {"RAVOK_FAULT_ROOT", "relative", "RAVOK_FAULT_ROOT must be an absolute path without a slash at its end"},
      {"RAVOK_FAULT_ROOT", "/tmp/", "RAVOK_FAULT_ROOT must be an absolute path without a slash at its end"},
      {"RAVOK_FAULT_CALL", "-1", "RAVOK_FAULT_CALL must be a decimal number"},
      {"RAVOK_FAULT_CALL", "1x", "RAVOK_FAULT_CALL must be a decimal number"},
      {"RAVOK_FAULT_MODE", "enoent", "RAVOK_FAULT_MODE must be exit, power, torn, eio or enospc"},
      {"RAVOK_FAULT_REPORT", "/nowhere/report", "RAVOK_FAULT_REPORT cannot be opened"},
  };
  for (const auto& [variable, value, message] : cases) {
    ProgramRun run = steps_;
    run.environment["LD_PRELOAD"] = RAVOK_FAULT_LIBRARY;
    run.environment["RAVOK_FAULT_ROOT"] = root_.path();
    run.environment["RAVOK_FAULT_CALL"] = "1";
    run.environment["RAVOK_FAULT_MODE"] = "eio";
    run.environment[variable] = value;
    const ProgramResult result = run_program(run);
    EXPECT_EQ(result.exit_code, 125);
    EXPECT_EQ(result.errors, "fault library: " + message + "\n");
    EXPECT_FALSE(std::filesystem::exists(work_));
  }
}

TEST_F(FaultLibrary, RunnerRefusesAProgramThatFailsUnspoilt) {
  FaultPlan plan;
  plan.run = sample({"bogus"});
  plan.root = root_.path();
  plan.reset = [] {};
  plan.judge = [](const FaultOutcome&) { ADD_FAILURE() << "judged"; };
  EXPECT_THROW(run_faults(plan), std::runtime_error);
}

TEST_F(FaultLibrary, RunnerRefusesAProgramWithTooManyCalls) {
  FaultPlan plan;
  plan.run = steps_;
  plan.root = root_.path();
  plan.reset = [&] { clear(); };
  plan.judge = [](const FaultOutcome&) { ADD_FAILURE() << "judged"; };
  plan.most_calls = 10;
  EXPECT_THROW(run_faults(plan), std::runtime_error);
}

}  // namespace
}  // namespace ravok::testing
