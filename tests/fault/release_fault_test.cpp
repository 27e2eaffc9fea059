// Whatever call of a command is spoilt that changes a repository, clients read what was there before or what was to
// come, and the next command goes on.

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fault/fault_runner.hpp"
#include "publisher/repository/repository_check.hpp"
#include "support/repository_place.hpp"

namespace ravok::testing::release_fault_test {
namespace {

class ReleaseFault : public ::testing::Test {
 protected:
  ReleaseFault() {
    place_.now = present_tuf_time();
    place_.init();
    place_.release({place_.launcher("1", "one")});
    save();
  }

  // Takes the present state for uploaded.
  void upload() const {
    std::filesystem::copy(place_.folder / "public", uploaded_, std::filesystem::copy_options::recursive);
    std::filesystem::remove(place_.folder / "upload.txt");
  }

  // Makes the present state the one that every run starts from.
  void save() const {
    std::filesystem::remove_all(before_);
    std::filesystem::copy(place_.folder, before_, std::filesystem::copy_options::recursive);
  }

  ProgramRun command(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), "repository");
    arguments.insert(arguments.end(), {"--key", place_.key("online")});
    return {RAVOK_PUBLISH, arguments, {{"HOME", "/nowhere"}}, ""};
  }

  void reset() const {
    std::filesystem::remove_all(place_.folder);
    std::filesystem::remove_all(place_.root / "clients");
    std::filesystem::copy(before_, place_.folder, std::filesystem::copy_options::recursive);
    // The client knows what was there before.
    ASSERT_EQ(place_.seen_build(), "1");
  }

  // Nothing but documents and target files may ever lie where a web server looks.
  static void expect_nothing_unfinished(const std::filesystem::path& folder) {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
      EXPECT_NE(entry.path().extension(), ".tmp") << entry.path();
    }
  }

  // With what the list names, and the timestamp of now, a server serves what clients can follow.
  void expect_uploadable() const {
    const std::filesystem::path server = place_.root / "server";
    std::filesystem::remove_all(server);
    std::filesystem::copy(uploaded_, server, std::filesystem::copy_options::recursive);
    const auto send = [&](const std::string& file) {
      const std::filesystem::path from = place_.folder / "public" / file;
      if (std::filesystem::exists(from)) {
        std::filesystem::create_directories((server / file).parent_path());
        std::filesystem::copy_file(from, server / file, std::filesystem::copy_options::overwrite_existing);
      }
    };
    std::ifstream list(place_.folder / "upload.txt");
    for (std::string file; std::getline(list, file);) {
      send(file);
    }
    send("tuf/metadata/timestamp.json");
    const RepositoryCheck check = check_folder(server, {place_.root.read("root.json"), place_.now}, {});
    EXPECT_TRUE(check.works());
    for (const RepositoryFinding& problem : check.walk.problems) {
      ADD_FAILURE() << problem.file << ": " << problem.message;
    }
  }

  void judge(const FaultOutcome& outcome, const ProgramRun& run, const std::string& next) const {
    const std::string seen = place_.seen_build();
    EXPECT_TRUE(seen == "1" || seen == next) << seen;
    if (!ends_process(outcome.mode) && outcome.result.exit_code == 0) {
      EXPECT_EQ(seen, next);
    }
    expect_nothing_unfinished(place_.folder / "public");
    expect_uploadable();
    // The same command again: it finishes what was begun, or begins anew, or finds nothing left to do.
    const ProgramResult again = run_program(run);
    EXPECT_TRUE(again.exit_code == 0 || (next.empty() && again.errors.starts_with("The repository describes no build")))
        << again.errors;
    EXPECT_EQ(place_.seen_build(), next);
    EXPECT_EQ(place_.seen_build("launcher-linux-x86_64.manifest.json", "new"), next);
    expect_nothing_unfinished(place_.folder);
    expect_uploadable();
    EXPECT_EQ(std::filesystem::exists(place_.folder / "draft/draft.json"), waits_);
  }

  void expect_old_or_new(const ProgramRun& run, const std::string& next, const std::vector<FaultMode>& modes) {
    FaultPlan plan;
    plan.run = run;
    plan.root = place_.folder;
    plan.modes = modes;
    plan.reset = [&] { reset(); };
    plan.judge = [&](const FaultOutcome& outcome) { judge(outcome, run, next); };
    const FaultTable table = run_faults(plan);
    std::cout << table;
    EXPECT_GT(table.runs, 30u);
  }

  RepositoryPlace place_;
  const std::filesystem::path before_ = place_.root / "before";
  const std::filesystem::path uploaded_ = place_.root.directory("uploaded");
  bool waits_ = false;  // whether a draft waits for other signatures, which no run may touch
};

const std::vector<FaultMode> every_mode = {std::begin(all_fault_modes), std::end(all_fault_modes)};

TEST_F(ReleaseFault, AReleaseIsSeenWholeOrNotAtAll) {
  upload();
  save();
  const std::filesystem::path manifest = place_.launcher("2", "two");
  expect_old_or_new(command({"release", place_.folder, "--manifest", manifest}), "2", every_mode);
}

TEST_F(ReleaseFault, ARefreshLeavesTheDraftBesideWhichItRuns) {
  upload();
  place_.release({place_.launcher("2", "two")}, {});
  waits_ = true;
  save();
  expect_old_or_new(command({"refresh", place_.folder, "--force"}), "1", every_mode);
}

TEST_F(ReleaseFault, AWithdrawalIsSeenWholeOrNotAtAll) {
  expect_old_or_new(command({"withdraw", place_.folder, "--build", "1"}), "", {FaultMode::exit, FaultMode::power});
}

}  // namespace
}  // namespace ravok::testing::release_fault_test
