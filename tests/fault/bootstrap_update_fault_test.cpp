// Whatever call of an update of the bootstrap is spoilt, a bootstrap that starts stands at its name at once, and the
// next starts reach the old bootstrap or the new one as a whole.

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fault/copied_downloads.hpp"
#include "fault/fault_chain.hpp"
#include "fault/fault_runner.hpp"
#include "support/bootstrap_place.hpp"
#include "support/fast_volume.hpp"
#include "support/temporary_root.hpp"
#include "support/tuf_repository.hpp"
#include "tuf/tuf.hpp"

namespace ravok::testing::bootstrap_update_fault_test {
namespace {

// A program that starts where it was prepared and nowhere else.
constexpr const char* failing_in_place = "#!/bin/sh\ncase $0 in */bootstrap-update/*) exit 0;; *) exit 9;; esac\n";

class BootstrapUpdateFault : public ::testing::Test {
 protected:
  BootstrapUpdateFault() {
    plan_.root = root_.path();
    plan_.run = sample({"apply", data()});
  }

  std::string data() const { return place_.data.root; }
  static ProgramRun sample(const std::vector<std::string>& arguments) {
    return {RAVOK_SAMPLE_BOOTSTRAP_UPDATE, arguments, {{"HOME", "/nowhere"}, {"PATH", "/usr/bin:/bin"}}, ""};
  }
  // Runs the sample without a fault and returns what it says.
  static std::string say(const std::vector<std::string>& arguments) {
    const ProgramResult result = run_program(sample(arguments));
    EXPECT_EQ(result.exit_code, 0) << result.errors;
    return result.output;
  }

  // Whether a program that starts has the name of the bootstrap.
  ::testing::AssertionResult starts() const {
    const ProgramResult result =
        run_program({place_.program(), {}, {{"RAVOK_BOOTSTRAP_START_CHECK", "1"}, {"PATH", "/usr/bin:/bin"}}, ""});
    return result.exit_code == 0 ? ::testing::AssertionSuccess()
                                 : ::testing::AssertionFailure() << "ended with " << result.exit_code;
  }

  // Which of the two is installed. Old files that could not be removed may stay beside their mark.
  std::string installed() const {
    if (place_.holds(old_)) {
      return "old";
    }
    TreeState files = place_.installed();
    if (std::filesystem::exists(place_.paths.old_files_mark)) {
      std::erase_if(files, [](const auto& node) { return node.first.ends_with(".old"); });
    }
    const auto is_new = same_tree(files, BootstrapPlace::files_of(next_));
    return is_new && BootstrapPlace::read(place_.paths.manifest) == next_.text()
               ? "new"
               : std::string("neither: ") + is_new.message();
  }

  // Starts twice more, and returns which bootstrap stands then.
  std::string reached() const {
    say({"apply", data()});
    const std::string first = installed();
    const std::string said = say({"apply", data()});
    EXPECT_EQ(said, "none\n");
    EXPECT_EQ(installed(), first);
    EXPECT_FALSE(std::filesystem::exists(place_.paths.update_manifest));
    EXPECT_TRUE(starts());
    return first;
  }

  void judge_end(const FaultOutcome& outcome) const {
    if (ends_process(outcome.mode)) {
      EXPECT_TRUE(outcome.at_end() || outcome.result.signal == SIGKILL);
    } else {
      EXPECT_EQ(outcome.result.exit_code, 0) << outcome.result.errors;
    }
  }

  std::map<std::string, int> try_all(const std::function<std::string(const FaultOutcome&)>& judge) {
    std::map<std::string, int> states;
    plan_.judge = [&](const FaultOutcome& outcome) { ++states[judge(outcome)]; };
    const FaultTable table = run_faults(plan_);
    std::cout << table;
    for (const auto& [state, count] : states) {
      std::cout << state << " (" << count << ")\n";
    }
    EXPECT_GT(table.runs, 50u);
    return states;
  }

  // Faults in one application after the other. What one of them has said holds from then on, whatever comes next.
  void try_chains(const std::function<void()>& start, const std::function<std::string()>& judge) {
    std::string promised;
    FaultChainPlan plan;
    plan.root = root_.path();
    plan.folders = {data()};
    plan.chains = 30;
    plan.most_begun = 60;
    plan.reset = [&] {
      promised.clear();
      start();
    };
    plan.next = [&](ChainRandom&) { return sample({"apply", data()}); };
    plan.judge = [&](const ChainLink& link) {
      if (!link.is_cut()) {
        EXPECT_EQ(link.result.exit_code, 0) << link.result.errors;
      }
      const std::string state = judge();
      if (link.has_succeeded() && (link.said() == "applied\n" || link.said() == "rejected\n")) {
        promised = link.said() == "applied\n" ? "new" : "old";
      }
      EXPECT_TRUE(promised.empty() || state == promised) << state << " where " << promised << " was told";
      return state;
    };
    std::cout << run_fault_chains(plan);
  }

  const TemporaryRoot root_{fast_volume()};
  const BootstrapPlace place_{root_.path() / "data"};
  const BootstrapRelease old_ =
      bootstrap_release("build-1", ending_program(0, "old"), {{"data/note", "old note"}, {"only-old", "gone"}});
  const BootstrapRelease next_ =
      bootstrap_release("build-2", ending_program(0, "new"), {{"data/note", "new note"}, {"more/new", "added"}});
  FaultPlan plan_;
};

TEST_F(BootstrapUpdateFault, OfAnApplicationReachesTheOldOrTheNewBootstrap) {
  plan_.reset = [&] {
    place_.install(old_);
    place_.prepare(next_);
  };
  const auto states = try_all([&](const FaultOutcome& outcome) {
    judge_end(outcome);
    EXPECT_TRUE(starts());
    const std::string state = reached();
    EXPECT_TRUE(state == "old" || state == "new") << state;
    if (outcome.result.output == "applied\n") {
      EXPECT_EQ(state, "new");
    }
    if (outcome.result.output == "rejected\n") {
      EXPECT_EQ(state, "old");
    }
    return state;
  });
  EXPECT_EQ(states.size(), 2u);
}

TEST_F(BootstrapUpdateFault, OfAnApplicationThatIsTakenBackReachesTheOldBootstrap) {
  const BootstrapRelease bad =
      bootstrap_release("build-2", failing_in_place, {{"data/note", "bad note"}, {"more/new", "added"}});
  plan_.reset = [&] {
    place_.install(old_);
    place_.prepare(bad);
  };
  const auto states = try_all([&](const FaultOutcome& outcome) {
    judge_end(outcome);
    const std::string program = BootstrapPlace::read(place_.program());
    EXPECT_TRUE(program == old_.files.front().content || program == failing_in_place) << program;
    const std::string state = reached();
    EXPECT_EQ(state, "old");
    return state + ", " + outcome.result.output;
  });
  EXPECT_FALSE(states.contains("old, applied\n"));
}

TEST_F(BootstrapUpdateFault, OfAWayBackReachesTheOldBootstrap) {
  plan_.reset = [&] {
    place_.install(old_);
    place_.prepare(next_);
    for (const SampleFile& file : old_.files) {
      const std::filesystem::path path = place_.paths.tree / file.path;
      std::filesystem::create_hard_link(path, path.native() + ".old");
    }
    std::filesystem::remove(place_.paths.tree / "only-old");
    std::filesystem::create_directory(place_.paths.tree / "more");
    for (const SampleFile& file : next_.files) {
      std::filesystem::rename(place_.paths.update_tree / file.path, place_.paths.tree / file.path);
    }
  };
  try_all([&](const FaultOutcome& outcome) {
    judge_end(outcome);
    EXPECT_TRUE(starts());
    const std::string state = reached();
    EXPECT_EQ(state, "old");
    return state;
  });
}

TEST_F(BootstrapUpdateFault, OfACleanUpKeepsTheNewBootstrap) {
  plan_.reset = [&] {
    place_.install(next_);
    place_.prepare(next_);
    root_.write("data/native/bootstrap/data/note.old", "old note");
    root_.write("data/native/bootstrap/only-old.old", "gone");
  };
  try_all([&](const FaultOutcome& outcome) {
    judge_end(outcome);
    EXPECT_TRUE(starts());
    say({"apply", data()});
    EXPECT_FALSE(std::filesystem::exists(place_.paths.update_manifest));
    EXPECT_EQ(installed(), "new");
    return std::filesystem::exists(place_.paths.old_files_mark) ? "with old files" : "alone";
  });
}

TEST_F(BootstrapUpdateFault, InChainsReachesTheOldOrTheNewBootstrap) {
  const auto start = [&] {
    place_.install(old_);
    place_.prepare(next_);
  };
  try_chains(start, [&] {
    EXPECT_TRUE(starts());
    const std::string state = reached();
    EXPECT_TRUE(state == "old" || state == "new") << state;
    return state;
  });
}

TEST_F(BootstrapUpdateFault, InChainsThatAreTakenBackReachesTheOldBootstrap) {
  const BootstrapRelease bad =
      bootstrap_release("build-2", failing_in_place, {{"data/note", "bad note"}, {"more/new", "added"}});
  const auto start = [&] {
    place_.install(old_);
    place_.prepare(bad);
  };
  try_chains(start, [&] {
    const std::string program = BootstrapPlace::read(place_.program());
    EXPECT_TRUE(program == old_.files.front().content || program == failing_in_place) << program;
    const std::string state = reached();
    EXPECT_EQ(state, "old");
    return state;
  });
}

class BootstrapUpdateCalls : public BootstrapUpdateFault {
 protected:
  // Returns the names of the directories of the installed tree, "" for its own, that a run flushes before it removes
  // the update's manifest, without which no later run comes back to them.
  std::set<std::string> flushed_before_the_end() const {
    const FaultRun run = run_with_fault(plan_.run, plan_.root);
    EXPECT_EQ(run.result.exit_code, 0) << run.result.errors;
    std::set<std::string> flushed;
    for (const FaultCall& call : run.calls) {
      const std::string below = call.path.lexically_relative(place_.paths.tree);
      if (call.name == "fsync" && !below.starts_with("..")) {
        flushed.insert(below == "." ? "" : below);
      }
      if (call.name.starts_with("unlink") && call.path.filename() == place_.paths.update_manifest.filename()) {
        return flushed;
      }
    }
    ADD_FAILURE() << "the update's manifest is not removed";
    return flushed;
  }
};

TEST_F(BootstrapUpdateCalls, ACleanUpFlushesWhatAnEarlierOneMayHaveRemoved) {
  place_.install(next_);
  place_.prepare(next_);
  EXPECT_EQ(flushed_before_the_end(), (std::set<std::string>{"", "bin", "data", "more"}));
  EXPECT_EQ(installed(), "new");
}

TEST_F(BootstrapUpdateCalls, AWayBackFlushesWhatAnEarlierOneMayHavePutBack) {
  place_.install(old_);
  place_.prepare(next_);
  // The update has failed, and all is back but not flushed.
  atomic_write(place_.paths.rejected, next_.sha256());
  EXPECT_EQ(flushed_before_the_end(), (std::set<std::string>{"", "bin", "data"}));
  EXPECT_EQ(installed(), "old");
}

class BootstrapStagingFault : public BootstrapUpdateFault {
 protected:
  BootstrapStagingFault() {
    repository_.targets().add("bootstrap-" + std::string(native_platform()) + ".manifest.json", next_.text());
    repository_.targets().add(next_.archive_target(), next_.archive);
    repository_.publish();
    repository_.write(elsewhere_ / "repository");
    plan_.run = sample(stage_);
  }

  void reset() const {
    std::filesystem::remove_all(trust_);
    private_directory(trust_);
    TufClient::initialize(trust_, repository_.root_text());
    place_.install(old_);
    std::filesystem::remove(place_.paths.update_lock);
  }

  // Faults in one staging after the other, and in the applications between them.
  std::optional<ProgramRun> stage_or_apply(ChainRandom& random) const {
    const bool is_waiting = std::filesystem::exists(place_.paths.update_manifest);
    return sample(is_waiting && random.chance(60) ? std::vector<std::string>{"apply", data()} : stage_);
  }

  // The trusted state lies elsewhere, since its own crashes are tried by themselves.
  const TemporaryRoot elsewhere_;
  const std::filesystem::path trust_ = elsewhere_ / "trust";
  const std::vector<std::string> stage_ = {"stage", data(), trust_, elsewhere_ / "repository"};
  TufRepository repository_;
};

TEST_F(BootstrapStagingFault, KeepsTheInstalledBootstrapAndGoesOn) {
  plan_.reset = [&] { reset(); };
  const auto states = try_all([&](const FaultOutcome& outcome) -> std::string {
    if (ends_process(outcome.mode) && !outcome.at_end()) {
      EXPECT_EQ(outcome.result.signal, SIGKILL);
    }
    EXPECT_EQ(installed(), "old");
    const bool was_pending = std::filesystem::exists(place_.paths.update_manifest);
    EXPECT_EQ(say(stage_), was_pending ? "pending\n" : "staged\n");
    // What waits is whole, so the next start applies it.
    EXPECT_EQ(say({"apply", data()}), "applied\n");
    EXPECT_EQ(reached(), "new");
    return was_pending ? "pending" : "not staged";
  });
  EXPECT_EQ(states.size(), 2u);
}

TEST_F(BootstrapStagingFault, IsNoObstacleToTheNextStart) {
  plan_.reset = [&] { reset(); };
  const auto states = try_all([&](const FaultOutcome&) {
    const std::string state = reached();
    EXPECT_TRUE(state == "old" || state == "new") << state;
    return state;
  });
  EXPECT_EQ(states.size(), 2u);
}

TEST_F(BootstrapStagingFault, InChainsReachesTheNewBootstrap) {
  // The most that was told, which nothing takes back: that an update waits, or that it was applied. Only an application
  // that was ended half-way or fails gives the update up, for good.
  enum class Told { nothing, staged, applied };
  Told told = Told::nothing;
  bool may_be_rejected = false;
  FaultChainPlan plan;
  plan.root = root_.path();
  plan.folders = {data(), trust_};
  plan.copied = [&] { adopt_downloads(data()); };
  plan.chains = 15;
  plan.reset = [&] {
    told = Told::nothing;
    may_be_rejected = false;
    reset();
  };
  plan.next = [&](ChainRandom& random) { return stage_or_apply(random); };
  plan.judge = [&](const ChainLink& link) -> std::string {
    may_be_rejected = may_be_rejected || (link.call && link.run.arguments.front() == "apply");
    if (link.has_succeeded()) {
      const std::string& said = link.said();
      EXPECT_TRUE(may_be_rejected || said != "rejected\n");
      told = std::max(told, said == "applied\n"                         ? Told::applied
                            : said == "staged\n" || said == "pending\n" ? Told::staged
                                                                        : Told::nothing);
    }
    EXPECT_TRUE(starts());
    const bool is_pending = std::filesystem::exists(place_.paths.update_manifest);
    const std::string before = installed();
    EXPECT_TRUE(told < Told::applied || before == "new") << before;
    say({"apply", data()});
    const bool is_rejected = may_be_rejected && std::filesystem::exists(place_.paths.rejected);
    const std::string first = reached();
    EXPECT_TRUE(told < Told::staged || first == "new" || is_rejected) << first;
    EXPECT_EQ(first, (is_pending || before == "new") && !is_rejected ? "new" : "old");
    say(stage_);
    say({"apply", data()});
    EXPECT_EQ(reached(), is_rejected ? "old" : "new");
    return is_rejected ? "rejected" : is_pending ? "pending" : first;
  };
  std::cout << run_fault_chains(plan);
}

}  // namespace
}  // namespace ravok::testing::bootstrap_update_fault_test
