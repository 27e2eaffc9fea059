// Whatever call of a refresh is spoilt, each file is the old one or the new one, whole, and takes its place only after
// those that vouch for it; the root never goes back; and the next run finishes.

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <functional>
#include <iostream>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fault/fault_runner.hpp"
#include "platform/file/files.hpp"
#include "support/tuf_place.hpp"

namespace ravok::testing::repository_fault_test {
namespace {

constexpr const char* mark = "root-invalidation.json";

// The codes with which a run may refuse when a call of it fails.
const std::set<std::string> known_codes = {"unsafe_path", "permissions", "file_sync",   "file_read",
                                           "file_write",  "file_system", "file_remove", "insufficient_space",
                                           "lock_failed", "busy"};

class RepositoryFault : public ::testing::Test, protected TufPlace {
 protected:
  ProgramRun sample(const char* action) const {
    return {RAVOK_SAMPLE_REPOSITORY, {action, directory, served_ / "metadata"}, {{"HOME", "/nowhere"}}, ""};
  }

  // A client that knows the first documents of a repository, while the repository has others by now.
  void begin_and_publish(const std::function<void()>& change) {
    begin();
    refresh();
    old_ = stored();
    change();
    repository.targets().add("game", "content");
    repository.publish();
    repository.write(served_.path());
    for (const char* role : {"root", "timestamp", "snapshot", "targets"}) {
      new_[std::string(role) + ".json"] = repository.text_of(role);
    }
  }

  // Gives the directory exactly these files.
  void reset(const StoredFiles& files) const {
    std::filesystem::remove_all(directory);
    private_directory(directory);
    for (const auto& [name, text] : files) {
      atomic_write(directory / name, text);
    }
  }

  // What is there of a file: nothing, the old or the new, or something else.
  static char state_of(const StoredFiles& files, const std::string& name, const StoredFiles& before,
                       const StoredFiles& after) {
    const auto found = files.find(name);
    if (found == files.end()) {
      return '-';
    }
    const auto is = [&](const StoredFiles& known) { return known.contains(name) && known.at(name) == found->second; };
    return is(after) ? 'n' : is(before) ? 'o' : '?';
  }

  // The states of root, timestamp, snapshot and targets, and "!" behind them where the mark is.
  std::string states() const {
    const StoredFiles files = stored();
    std::string states;
    for (const char* role : {"root", "timestamp", "snapshot", "targets"}) {
      states += state_of(files, std::string(role) + ".json", old_, new_);
    }
    return states + (files.contains(mark) ? "!" : "");
  }

  void judge_ending(const FaultOutcome& outcome) const {
    if (ends_process(outcome.mode)) {
      EXPECT_EQ(outcome.result.signal, SIGKILL);
    } else if (outcome.result.exit_code != 0) {
      EXPECT_EQ(outcome.result.exit_code, 1) << outcome.result.errors;
      const std::string code = outcome.result.errors.substr(0, outcome.result.errors.find(':'));
      EXPECT_TRUE(known_codes.contains(code)) << outcome.result.errors;
    } else {
      EXPECT_EQ(outcome.result.errors, "");
    }
  }

  // Beside the known names, only an ended process leaves anything: one transaction file.
  void judge_strays(const FaultOutcome& outcome) const {
    static const std::regex transaction(
        R"((root|timestamp|snapshot|targets|root-invalidation)\.json\.[0-9a-f]{32}\.tmp)");
    int strays = 0;
    for (const auto& [name, text] : stored()) {
      const bool is_known = new_.contains(name) || name == mark;
      EXPECT_TRUE(is_known || std::regex_match(name, transaction)) << name;
      strays += is_known ? 0 : 1;
    }
    EXPECT_LE(strays, ends_process(outcome.mode) ? 1 : 0);
  }

  void expect_finished_by(const char* action, const StoredFiles& expected) const {
    const ProgramResult result = run_program(sample(action));
    EXPECT_EQ(result.exit_code, 0) << result.errors;
    StoredFiles files = stored();
    std::erase_if(files, [](const auto& file) { return file.first.ends_with(".tmp"); });
    EXPECT_EQ(files, expected);
  }

  // Spoils every call of an action that begins with `before`. What it leaves must be one of these states, and a refresh
  // must finish from there.
  void try_all(const char* action, const StoredFiles& before, const std::set<std::string>& allowed,
               const std::string& at_the_end) {
    std::set<std::string> seen;
    FaultPlan plan;
    plan.run = sample(action);
    plan.root = directory;
    plan.reset = [&] { reset(before); };
    plan.judge = [&](const FaultOutcome& outcome) {
      judge_ending(outcome);
      judge_strays(outcome);
      const std::string state = states();
      seen.insert(state);
      EXPECT_TRUE(allowed.contains(state)) << state;
      if (outcome.result.exit_code == 0) {
        EXPECT_EQ(state, at_the_end);
      }
      if (state.ends_with("!")) {
        EXPECT_EQ(stored().at(mark), R"({"version":2})");
      }
      expect_finished_by("refresh", new_);
    };
    const FaultTable table = run_faults(plan);
    std::cout << table;
    EXPECT_GT(table.runs, 20u);
    // Each of the states is met, so that none of them is allowed in vain.
    EXPECT_EQ(seen, allowed);
  }

  const TemporaryRoot served_;
  StoredFiles old_;
  StoredFiles new_;
};

TEST_F(RepositoryFault, FirstRefreshStoresEachRoleAfterThoseAboveIt) {
  begin_and_publish([] {});
  const StoredFiles before = {{"root.json", old_.at("root.json")}};
  try_all("refresh", before, {"n---", "nn--", "nnn-", "nnnn"}, "nnnn");
}

TEST_F(RepositoryFault, RefreshReplacesEachRoleAfterThoseAboveIt) {
  begin_and_publish([this] { repository.rotate("root"); });
  try_all("refresh", old_, {"oooo", "nooo", "nnoo", "nnno", "nnnn"}, "nnnn");
}

TEST_F(RepositoryFault, ChangeOfKeysLeavesNoDocumentOfTheOldOnesBehind) {
  begin_and_publish([this] { repository.rotate("timestamp"); });
  try_all("refresh", old_, {"oooo", "oooo!", "nooo!", "n-oo!", "no-o!", "n--o!", "n--o", "nn-o", "nnno", "nnnn"},
          "nnnn");
}

TEST_F(RepositoryFault, OpeningFinishesAChangeOfKeys) {
  begin_and_publish([this] { repository.rotate("snapshot"); });
  StoredFiles before = old_;
  before["root.json"] = new_.at("root.json");
  before[mark] = R"({"version":2})";
  try_all("open", before, {"nooo!", "n-oo!", "no-o!", "n--o!", "n--o"}, "n--o");
}

TEST_F(RepositoryFault, WorkFromTheDiskChangesNothing) {
  begin_and_publish([] {});
  FaultPlan plan;
  plan.run = sample("load");
  plan.root = directory;
  plan.reset = [&] { reset(old_); };
  plan.judge = [&](const FaultOutcome& outcome) {
    // A role that cannot be read would come from the network, and there is none.
    if (!outcome.result.errors.starts_with("network: ")) {
      judge_ending(outcome);
    }
    EXPECT_EQ(stored(), old_);
    expect_finished_by("load", old_);
  };
  const FaultTable table = run_faults(plan);
  std::cout << table;
  EXPECT_GT(table.runs, 20u);
}

TEST_F(RepositoryFault, FirstRootIsThereWholeOrNotAtAll) {
  begin_and_publish([] {});
  FaultPlan plan;
  plan.run = sample("initialize");
  plan.root = directory;
  plan.reset = [&] { reset({}); };
  plan.judge = [&](const FaultOutcome& outcome) {
    judge_ending(outcome);
    judge_strays(outcome);
    const bool is_there = stored().contains("root.json");
    if (is_there) {
      EXPECT_EQ(stored().at("root.json"), repository.root_text(1));
    } else {
      EXPECT_NE(outcome.result.exit_code, 0);
      EXPECT_EQ(run_program(sample("initialize")).exit_code, 0);
    }
    expect_finished_by("refresh", new_);
  };
  const FaultTable table = run_faults(plan);
  std::cout << table;
  EXPECT_GT(table.runs, 20u);
}

}  // namespace
}  // namespace ravok::testing::repository_fault_test
