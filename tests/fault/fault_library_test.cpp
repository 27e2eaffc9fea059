// The fault library spoils exactly the call that it is told to, and exactly as it is told.

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <iostream>
#include <numeric>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "fault/fault_runner.hpp"
#include "support/temporary_root.hpp"
#include "support/tree_state.hpp"

namespace ravok::testing::fault_library_test {
namespace {

ProgramRun sample(const std::vector<std::string>& arguments) {
  return {RAVOK_SAMPLE_PLAIN, arguments, {{"HOME", "/nowhere"}}, ""};
}

// What the sample prints when the first `count` of its calls work.
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

  // Returns the calls of the steps in a run that only counts, on a fresh state.
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
  plan.every_call = true;
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

TEST_F(FaultLibrary, SpoilsNothingBeyondTheEnd) {
  const std::vector<FaultCall> calls = counted_steps();
  for (const FaultMode mode : all_fault_modes) {
    clear();
    const FaultRun run = run_with_fault(steps_, root_.path(), calls.size() + 2, mode);
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

TEST_F(FaultLibrary, TellsOfTheEndOfAProcessThatEndsByItself) {
  const ProgramRun run = sample({"unflushed", root_.path()});
  const FaultRun counted = run_with_fault(run, root_.path());
  ASSERT_TRUE(counted.end);
  EXPECT_EQ(counted.end->name, "end");
  EXPECT_EQ(counted.end->number, counted.calls.size() + 1);
  EXPECT_EQ(counted.end->modes, (std::vector<FaultMode>{FaultMode::power, FaultMode::names}));
  const FaultRun cut = run_with_fault(run, root_.path(), counted.end->number, FaultMode::power);
  EXPECT_EQ(cut.result.signal, SIGKILL);
  EXPECT_EQ(cut.end->applied, (std::vector<FaultMode>{FaultMode::power}));
  EXPECT_FALSE(run_with_fault(run, root_.path(), 1, FaultMode::exit).end);
}

// Changes names in a directory with the files "old", "target" and "full/in" and a directory "empty".
class LostNames : public ::testing::Test {
 protected:
  using Steps = std::vector<std::string>;

  LostNames() : work_(root_ / "work") { restart(); }

  void restart() const {
    std::filesystem::remove_all(work_);
    for (const char* name : {"old", "target", "full/in"}) {
      root_.write(std::string("work/") + name, name);
    }
    root_.directory("work/empty");
  }

  ProgramRun program(const Steps& steps) const {
    ProgramRun run = sample({"names", work_});
    run.arguments.insert(run.arguments.end(), steps.begin(), steps.end());
    return run;
  }

  // Returns the unspoilt run, and then makes everything as it was before.
  FaultRun counted(const Steps& steps) const {
    restart();
    FaultRun run = run_with_fault(program(steps), root_.path());
    EXPECT_EQ(run.result.exit_code, 0) << run.result.output;
    restart();
    return run;
  }

  std::size_t pending(const Steps& steps) const { return counted(steps).end.value().pending.size(); }

  // Returns what the steps leave when nothing is lost.
  TreeState after(const Steps& steps) const {
    restart();
    EXPECT_EQ(run_program(program(steps)).exit_code, 0);
    return tree_state(work_);
  }

  // Returns what the steps leave when the power goes after the last of them and these changes are lost. `change`
  // counts, from 0, the changes that may be lost.
  TreeState left(const Steps& steps, NameLoss::Kind kind, std::size_t change = 0) const {
    const FaultRun run = counted(steps);
    const FaultCall last = run.calls.back();
    EXPECT_EQ(last.name, "stat");
    const NameLoss loss = {kind, kind == NameLoss::Kind::all ? 0 : last.pending.at(change)};
    const FaultRun cut = run_with_fault(program(steps), root_.path(), last.number, FaultMode::names, loss);
    EXPECT_EQ(cut.result.signal, SIGKILL) << cut.result.errors;
    EXPECT_EQ(cut.calls.back().applied, (std::vector<FaultMode>{FaultMode::names}));
    return tree_state(work_);
  }

  const TemporaryRoot root_;
  const std::filesystem::path work_;
};

// Steps that change names in every way.
constexpr const char* every_kind[] = {
    "make:new",          "mkdir:new",         "link:old:new",         "symlink:old:new",
    "unlink:old",        "remove:old",        "remove:empty",         "rmdir:empty",
    "rename:old:new",    "rename:old:target", "rename:old:empty/new", "rename:full:empty",
    "rename:full:moved", "new:old:moved",     "swap:old:target",      "swap:old:full",
    "unlink:full/in"};

constexpr NameLoss::Kind all = NameLoss::Kind::all;
constexpr NameLoss::Kind only = NameLoss::Kind::only;
constexpr NameLoss::Kind but = NameLoss::Kind::but;
constexpr NameLoss::Kind half = NameLoss::Kind::half;

TEST_F(LostNames, EveryKindOfChangeIsTakenBack) {
  const TreeState before = tree_state(work_);
  for (const char* step : every_kind) {
    const ::testing::ScopedTrace trace(__FILE__, __LINE__, step);
    EXPECT_FALSE(same_tree(after({step}), before));
    EXPECT_TRUE(same_tree(left({step}, all), before));
    EXPECT_TRUE(same_tree(left({step}, but), after({step})));
  }
}

TEST_F(LostNames, AFlushedDirectoryKeepsItsNames) {
  for (const Steps& steps :
       {Steps{"make:new", "flush:."}, Steps{"mkdir:new", "flush:."}, Steps{"link:old:new", "flush:."},
        Steps{"unlink:old", "flush:."}, Steps{"rmdir:empty", "flush:."}, Steps{"rename:old:target", "flush:."},
        Steps{"rename:old:full/new", "flush:full"}, Steps{"swap:old:target", "flush:."},
        Steps{"swap:old:full/in", "flush:.", "flush:full"}}) {
    const ::testing::ScopedTrace trace(__FILE__, __LINE__, steps.front());
    const FaultRun run = counted(steps);
    EXPECT_EQ(run.end.value().pending, std::vector<std::uint64_t>{});
    EXPECT_EQ(run.end.value().modes, std::vector<FaultMode>{});
  }
}

TEST_F(LostNames, AnotherDirectorysFlushKeepsNothing) {
  EXPECT_EQ(pending({"make:new", "flush:full"}), 1u);
  EXPECT_EQ(pending({"make:full/new", "flush:."}), 1u);
  EXPECT_EQ(pending({"rename:old:full/new", "flush:."}), 1u);
  EXPECT_EQ(pending({"rename:full/in:new", "flush:full"}), 1u);
  EXPECT_EQ(pending({"swap:old:full/in", "flush:."}), 1u);
  EXPECT_EQ(pending({"swap:old:full/in", "flush:full"}), 1u);
}

TEST_F(LostNames, ChangesAreLostEachByItselfAndAllButEach) {
  const Steps steps = {"make:a", "unlink:old", "rename:target:b"};
  EXPECT_TRUE(same_tree(left(steps, only, 0), after({"unlink:old", "rename:target:b"})));
  EXPECT_TRUE(same_tree(left(steps, only, 1), after({"make:a", "rename:target:b"})));
  EXPECT_TRUE(same_tree(left(steps, only, 2), after({"make:a", "unlink:old"})));
  EXPECT_TRUE(same_tree(left(steps, but, 0), after({"make:a"})));
  EXPECT_TRUE(same_tree(left(steps, but, 1), after({"unlink:old"})));
  EXPECT_TRUE(same_tree(left(steps, but, 2), after({"rename:target:b"})));
  EXPECT_TRUE(same_tree(left(steps, all), after({})));
}

TEST_F(LostNames, WhatCannotBeWithoutALostChangeIsLostToo) {
  EXPECT_TRUE(same_tree(left({"mkdir:a", "make:a/b", "mkdir:a/c", "rename:old:a/d"}, only, 0), after({})));
  EXPECT_TRUE(same_tree(left({"mkdir:a", "make:a/b", "flush:a"}, all), after({})));
  EXPECT_TRUE(same_tree(left({"make:a", "rename:a:target"}, only, 0), after({})));
  EXPECT_TRUE(same_tree(left({"make:a", "rename:a:target"}, only, 1), after({"make:a"})));
  EXPECT_TRUE(same_tree(left({"unlink:full/in", "rmdir:full"}, only, 0), after({})));
  EXPECT_TRUE(same_tree(left({"unlink:full/in", "rmdir:full"}, only, 1), after({"unlink:full/in"})));
  EXPECT_TRUE(same_tree(left({"unlink:old", "make:old"}, only, 0), after({})));
  EXPECT_TRUE(same_tree(left({"unlink:old", "make:old", "unlink:old"}, only, 1), after({"unlink:old"})));
  EXPECT_TRUE(same_tree(left({"rename:old:a", "rename:a:b", "rename:b:c"}, only, 0), after({})));
  EXPECT_TRUE(same_tree(left({"rename:old:a", "rename:a:b", "rename:b:c"}, only, 1), after({"rename:old:a"})));
  EXPECT_TRUE(same_tree(left({"link:old:a", "unlink:old"}, only, 1), after({"link:old:a"})));
  EXPECT_TRUE(same_tree(left({"link:old:a", "unlink:old"}, only, 0), after({"unlink:old"})));
}

TEST_F(LostNames, HalfOfAMoveTakesTheReplacedFileAlong) {
  EXPECT_TRUE(same_tree(left({"rename:old:target"}, half), after({"unlink:target"})));
  EXPECT_TRUE(
      same_tree(left({"link:target:a", "rename:old:target"}, half, 1), after({"link:target:a", "unlink:target"})));
  EXPECT_TRUE(same_tree(left({"make:a", "rename:full/in:old"}, half, 1), after({"make:a", "unlink:old"})));
}

TEST_F(LostNames, OnlyTheMoveOfAFileThatWasNotChangedAndFlushedMayBeHalfLost) {
  const auto halves = [this](const Steps& steps) { return counted(steps).end.value().halves.size(); };
  EXPECT_EQ(halves({"rename:old:target"}), 1u);
  EXPECT_EQ(halves({"flush:old", "rename:old:target"}), 1u);
  EXPECT_EQ(halves({"change:old", "rename:old:target"}), 1u);
  EXPECT_EQ(halves({"flush:old", "change:old", "rename:old:target"}), 1u);
  EXPECT_EQ(halves({"change:old", "flush:old", "rename:old:target"}), 0u);
  EXPECT_EQ(halves({"change:old", "flush:old", "change:old", "rename:old:target"}), 1u);
  EXPECT_EQ(halves({"rename:old:new"}), 0u);
  EXPECT_EQ(halves({"new:old:moved"}), 0u);
  EXPECT_EQ(halves({"swap:old:target"}), 0u);
  EXPECT_EQ(halves({"mkdir:a", "rename:a:empty"}), 0u);
  EXPECT_EQ(halves({"rename:old:target", "flush:."}), 0u);
}

TEST_F(LostNames, WhatLastsTakesAlongWhatItStandsOn) {
  EXPECT_EQ(pending({"make:a", "rename:a:full/a"}), 2u);
  EXPECT_EQ(pending({"make:a", "rename:a:full/a", "flush:full"}), 0u);
  EXPECT_EQ(pending({"make:a", "make:b", "rename:a:full/a", "flush:full"}), 1u);
  EXPECT_EQ(pending({"rename:old:full/old", "make:old", "flush:."}), 0u);
  EXPECT_EQ(pending({"unlink:full/in", "rmdir:full"}), 2u);
  EXPECT_EQ(pending({"unlink:full/in", "rmdir:full", "flush:."}), 0u);
  EXPECT_EQ(pending({"rename:full/in:empty/in", "rmdir:full", "flush:."}), 0u);
}

TEST_F(LostNames, WhatComesBackIsWhatItWas) {
  struct stat before = {};
  struct stat now = {};
  for (const Steps& steps : {Steps{"unlink:old"}, Steps{"link:old:a", "unlink:old"}, Steps{"rename:target:old"},
                             Steps{"rename:old:a", "unlink:a", "make:old"}}) {
    const ::testing::ScopedTrace trace(__FILE__, __LINE__, steps.front());
    restart();
    const FaultCall last = run_with_fault(program(steps), root_.path()).calls.back();
    restart();
    ASSERT_EQ(lstat((work_ / "old").c_str(), &before), 0);
    run_with_fault(program(steps), root_.path(), last.number, FaultMode::names);
    ASSERT_EQ(lstat((work_ / "old").c_str(), &now), 0);
    EXPECT_EQ(now.st_ino, before.st_ino);
    EXPECT_EQ(now.st_nlink, 1u);
    EXPECT_EQ(root_.read("work/old"), "old");
  }
}

TEST_F(LostNames, AProgramSeesNothingOfWhatIsKept) {
  const Steps steps = {"link:old:a", "unlink:old", "rename:a:target", "unlink:full/in", "rmdir:full", "mkdir:full"};
  const TreeState plain = after(steps);
  restart();
  EXPECT_EQ(run_with_fault(program(steps), root_.path()).result.exit_code, 0);
  EXPECT_TRUE(same_tree(tree_state(work_), plain));
  struct stat status = {};
  ASSERT_EQ(lstat((work_ / "target").c_str(), &status), 0);
  EXPECT_EQ(status.st_nlink, 1u);
  EXPECT_EQ(root_.names(), (std::vector<std::string>{"work/", "work/empty/", "work/full/", "work/target"}));
}

TEST_F(LostNames, FailingChangesFailAsTheyWould) {
  const std::pair<const char*, int> cases[] = {{"rmdir:full", ENOTEMPTY},        {"rmdir:old", ENOTDIR},
                                               {"unlink:nothing", ENOENT},       {"rename:full:old", ENOTDIR},
                                               {"rename:empty:full", ENOTEMPTY}, {"rename:old:empty", EISDIR},
                                               {"new:old:target", EEXIST},       {"mkdir:old", EEXIST},
                                               {"rename:nothing:old", ENOENT},   {"link:old:target", EEXIST}};
  for (const auto& [step, problem] : cases) {
    restart();
    const TreeState before = tree_state(work_);
    const FaultRun run = run_with_fault(program({step}), root_.path());
    EXPECT_EQ(run.result.output, std::string(step) + ": " + std::to_string(problem) + "\n");
    EXPECT_EQ(run.end.value().pending, std::vector<std::uint64_t>{}) << step;
    EXPECT_TRUE(same_tree(tree_state(work_), before)) << step;
  }
}

TEST_F(LostNames, CutsDifferInWhatTheyLeaveAndAreBounded) {
  const auto text = [&](const Steps& steps, std::uint64_t most) {
    const FaultRun run = counted(steps);
    std::vector<std::string> cuts;
    for (const NameCut& cut : name_cuts(run, most)) {
      const char* kind = cut.loss.kind == all ? "all" : cut.loss.kind == only ? "only " : "but ";
      const std::string change = cut.loss.kind == all ? "" : run.calls.at(cut.loss.change - 1).name;
      cuts.push_back((cut.number <= run.calls.size() ? run.calls[cut.number - 1].name : "end") + ": " + kind + change);
    }
    return cuts;
  };
  // A single change can be lost before the end and at the end. Of two changes, losing only one is the same as losing
  // all but the other.
  EXPECT_EQ(text({"unlink:old"}, 100), (std::vector<std::string>{"end: all", "stat: all"}));
  EXPECT_EQ(text({"unlink:old", "flush:."}, 100), (std::vector<std::string>{"open: all"}));
  EXPECT_EQ(
      text({"unlink:old", "rmdir:empty"}, 100),
      (std::vector<std::string>{"end: all", "end: only unlink", "end: but unlink", "rmdir: all", "stat: only unlink"}));
  Steps many;
  for (int i = 0; i < 40; ++i) {
    many.push_back("mkdir:" + std::to_string(i));
  }
  const std::vector<std::string> cuts = text(many, 50);
  EXPECT_EQ(cuts.size(), 50u);
  EXPECT_EQ(std::count(cuts.begin(), cuts.end(), "end: all"), 1);
  EXPECT_EQ(std::count(cuts.begin(), cuts.end(), "end: only mkdir"), 8);
  EXPECT_EQ(std::count(cuts.begin(), cuts.end(), "end: but mkdir"), 8);
  EXPECT_GT(text(many, 1000).size(), 300u);
}

// What a program has not flushed, another one may still lose.
class CarriedLosses : public LostNames {
 protected:
  CarriedLosses() : store_(root_.path().parent_path()) {}

  // Runs steps after those that were run before, unspoilt or with a fault.
  FaultRun run(const Steps& steps, const Fault& fault = {}) const {
    return run_with_fault(program(steps), root_.path(), fault, store_.path());
  }
  // Runs steps and lets the power go when they have ended.
  FaultRun run_and_cut(const Steps& steps, const NameLoss& loss = {}) const {
    const FaultRun done = run(steps);
    EXPECT_EQ(done.result.exit_code, 0) << done.result.output;
    const FaultRun cut = run({}, {1, FaultMode::names, loss, true});
    EXPECT_EQ(cut.result.signal, SIGKILL) << cut.result.errors;
    return cut;
  }
  std::string carried() const {
    const std::string state = store_.read("pending");
    return state.substr(0, state.find('\n'));
  }

  const TemporaryRoot store_;
};

TEST_F(CarriedLosses, EveryKindOfChangeIsTakenBackInTheNextProgram) {
  const TreeState before = tree_state(work_);
  for (const char* step : every_kind) {
    const ::testing::ScopedTrace trace(__FILE__, __LINE__, step);
    restart();
    run_and_cut({step});
    EXPECT_TRUE(same_tree(tree_state(work_), before));
    EXPECT_EQ(carried(), "0 names, 0 files");
  }
}

TEST_F(CarriedLosses, ChangesOfSeveralProgramsAreTakenBackTogether) {
  const TreeState before = tree_state(work_);
  EXPECT_EQ(run({"link:old:a", "unlink:old"}).result.exit_code, 0);
  EXPECT_EQ(carried(), "2 names, 0 files");
  EXPECT_EQ(run({"rename:a:target", "mkdir:b"}).result.exit_code, 0);
  EXPECT_EQ(carried(), "4 names, 0 files");
  const FaultRun cut = run_and_cut({"rename:target:b/c", "rename:b:d"});
  EXPECT_TRUE(same_tree(tree_state(work_), before));
  EXPECT_EQ(cut.calls.front().pending,
            (std::vector<std::uint64_t>{1'000'001, 1'000'002, 1'000'003, 1'000'004, 1'000'005, 1'000'006}));
}

TEST_F(CarriedLosses, AChangeOfAnEarlierProgramIsLostByItself) {
  run({"make:a", "unlink:old"});
  run_and_cut({"make:b"}, {only, 1'000'001});
  EXPECT_TRUE(same_tree(tree_state(work_), after({"unlink:old", "make:b"})));
}

TEST_F(CarriedLosses, TheNextProgramMakesThemLastByItsFlush) {
  run({"make:a", "unlink:full/in", "mkdir:empty/b"});
  EXPECT_EQ(carried(), "3 names, 0 files");
  EXPECT_EQ(run({"flush:full"}).result.exit_code, 0);
  EXPECT_EQ(carried(), "2 names, 0 files");
  run_and_cut({"flush:."});
  EXPECT_TRUE(same_tree(tree_state(work_), after({"make:a", "unlink:full/in"})));
}

TEST_F(CarriedLosses, WhatIsHalfFlushedStaysSo) {
  run({"swap:old:full/in", "flush:."});
  EXPECT_EQ(carried(), "1 names, 0 files");
  run({"flush:full"});
  EXPECT_EQ(carried(), "0 names, 0 files");
}

TEST_F(CarriedLosses, APowerCutLetsAllLastThatItHasNotLost) {
  for (const FaultMode mode : {FaultMode::names, FaultMode::power}) {
    restart();
    run({"make:a", "make:b"});
    const TreeState whole = tree_state(work_);
    // Cut before the first call of the next program.
    const FaultRun cut = run({"make:full/c"}, {1, FaultMode::names, {but, 1'000'002}, true});
    EXPECT_EQ(cut.result.signal, SIGKILL);
    EXPECT_EQ(carried(), "0 names, 0 files");
    const TreeState left = tree_state(work_);
    EXPECT_FALSE(same_tree(left, whole));
    EXPECT_TRUE(left.contains("b"));
    // Nothing is left to lose, in whatever way.
    EXPECT_EQ(run({"flush:empty"}, {1, mode, {}, true}).result.exit_code, 0);
    EXPECT_TRUE(same_tree(tree_state(work_), left));
  }
}

TEST_F(CarriedLosses, AProgramThatIsKilledOrFailsLeavesThemToo) {
  const TreeState before = tree_state(work_);
  const std::uint64_t last = counted({"make:a", "unlink:old"}).calls.back().number;
  EXPECT_EQ(run({"make:a", "unlink:old"}, {last, FaultMode::exit, {}, false}).result.signal, SIGKILL);
  EXPECT_EQ(carried(), "2 names, 0 files");
  EXPECT_EQ(run({"make:b", "make:c"}, {1, FaultMode::enospc, {}, true}).result.exit_code, 1);
  run_and_cut({});
  EXPECT_TRUE(same_tree(tree_state(work_), before));
}

TEST_F(CarriedLosses, ContentsAreLostUnlessTheNextProgramFlushesThem) {
  const ProgramRun writing = sample({"unflushed", work_});
  for (const bool is_flushed : {false, true}) {
    const ::testing::ScopedTrace trace(__FILE__, __LINE__, is_flushed);
    restart();
    EXPECT_EQ(run_with_fault(writing, root_.path(), Fault(), store_.path()).result.exit_code, 0);
    EXPECT_EQ(carried(), "2 names, 1 files");
    // The file is known by whatever name it has got.
    EXPECT_EQ(run({"rename:unflushed:full/named", "flush:full", "flush:."}).result.exit_code, 0);
    EXPECT_EQ(carried(), "0 names, 1 files");
    if (is_flushed) {
      EXPECT_EQ(run({"flush:full/named"}).result.exit_code, 0);
      EXPECT_EQ(carried(), "0 names, 0 files");
    }
    EXPECT_EQ(run({}, {1, FaultMode::power, {}, true}).result.signal, is_flushed ? 0 : SIGKILL);
    EXPECT_EQ(root_.read("work/full/named"), is_flushed ? "content" : "");
    EXPECT_EQ(carried(), "0 names, 0 files");
  }
}

TEST_F(CarriedLosses, SomeAreLostAsTheNumberSays) {
  const TreeState before = tree_state(work_);
  std::set<std::string> met;
  for (std::uint64_t seed = 0; seed < 32; ++seed) {
    restart();
    run({"make:a"});
    run_and_cut({"make:b"}, {NameLoss::Kind::some, seed});
    const TreeState left = tree_state(work_);
    met.insert(std::string(left.contains("a") ? "a" : "") + (left.contains("b") ? "b" : ""));
  }
  EXPECT_EQ(met, (std::set<std::string>{"", "a", "b", "ab"}));
}

TEST_F(FaultLibrary, SpoilsTheFirstCallFromANumberOnThatCanBe) {
  const std::vector<FaultCall> calls = counted_steps();
  const TemporaryRoot store(root_.path().parent_path());
  const auto next = std::find_if(calls.begin() + 1, calls.end(), [](const FaultCall& c) {
    return std::find(c.modes.begin(), c.modes.end(), FaultMode::torn) != c.modes.end();
  });
  ASSERT_NE(next, calls.end());
  ASSERT_GT(next->number, 2u);
  const FaultRun run = run_with_fault(steps_, root_.path(), {2, FaultMode::torn, {}, true}, store.path());
  EXPECT_EQ(run.result.signal, SIGKILL);
  EXPECT_EQ(run.calls.back().number, next->number);
  EXPECT_EQ(run.calls.back().applied, (std::vector<FaultMode>{FaultMode::torn}));
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
      {"RAVOK_FAULT_MODE", "enoent", "RAVOK_FAULT_MODE must be exit, power, names, torn, eio or enospc"},
      {"RAVOK_FAULT_LOST", "none", "RAVOK_FAULT_LOST must be all, only N, but N, some N or half N"},
      {"RAVOK_FAULT_LOST", "only 1x", "RAVOK_FAULT_LOST must be all, only N, but N, some N or half N"},
      {"RAVOK_FAULT_STORE", "/nowhere/store", "RAVOK_FAULT_STORE must be a directory"},
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
}  // namespace ravok::testing::fault_library_test
