// Whatever call is spoilt while a target is fetched, the next run puts the target into its place. What was there before
// is never anything but whole.

#include <csignal>
#include <filesystem>
#include <iostream>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "fault/fault_runner.hpp"
#include "platform/file/posix_files.hpp"
#include "support/temporary_root.hpp"
#include "support/tuf_repository.hpp"
#include "tuf/tuf.hpp"

namespace ravok::testing::fetch_fault_test {
namespace {

using Codes = std::set<std::string>;

constexpr const char* target = "games/a";

// The codes with which a run may refuse when a call of it fails.
const Codes codes_of_fetching = {"unsafe_path", "permissions", "file_sync",          "file_read",
                                 "file_write",  "file_remove", "insufficient_space", "allocation_changed",
                                 "tree_read",   "file_system", "space_reservation"};

class FetchFault : public ::testing::Test {
 protected:
  FetchFault() {
    repository_.targets().add(target, content_);
    repository_.publish();
    repository_.write(elsewhere_ / "repository");
    plan_.root = root_.path();
    plan_.run = {
        RAVOK_SAMPLE_FETCH, {trust(), elsewhere_ / "repository", folder(), target}, {{"HOME", "/nowhere"}}, ""};
  }

  // The trusted state lies elsewhere, since its own crashes are tried by themselves.
  std::filesystem::path trust() const { return elsewhere_ / "trust"; }
  std::filesystem::path folder() const { return root_ / "downloads"; }
  std::string downloaded() const { return root_.read(std::string("downloads/") + target); }

  void reset() const {
    std::filesystem::remove_all(folder());
    std::filesystem::remove_all(trust());
    private_directory(trust());
    TufClient::initialize(trust(), repository_.root_text());
    private_directory(folder() / "games");
  }

  void run_once() const {
    const ProgramResult result = run_with_fault(plan_.run, root_.path()).result;
    EXPECT_EQ(result.exit_code, 0) << result.errors;
    EXPECT_EQ(downloaded(), content_);
  }

  // Not one of the trusted state, or of the sample's own reading of the repository.
  bool is_download_call(const FaultCall& call) const { return call.path.native().starts_with(root_.path().native()); }

  void judge(const FaultOutcome& outcome, const std::string& before) const {
    const bool is_whole = std::filesystem::exists(folder() / target) && downloaded() == content_;
    if (ends_process(outcome.mode) && !outcome.at_end()) {
      EXPECT_EQ(outcome.result.signal, SIGKILL);
    } else if (outcome.result.exit_code != 0 && is_download_call(outcome.call)) {
      EXPECT_EQ(outcome.result.exit_code, 1) << outcome.result.errors;
      const std::string code = outcome.result.errors.substr(0, outcome.result.errors.find(':'));
      EXPECT_TRUE(codes_of_fetching.contains(code)) << outcome.result.errors;
    } else if (outcome.result.exit_code == 0) {
      EXPECT_TRUE(is_whole);
    }
    if (!is_whole && !before.empty()) {
      EXPECT_EQ(downloaded(), before);
    }
    run_once();
  }

  // At least so many runs; how many there are depends on the calls that the volume needs.
  void try_all(std::uint64_t least) const {
    const FaultTable table = run_faults(plan_);
    std::cout << table;
    EXPECT_GT(table.runs, least);
  }

  const TemporaryRoot root_;
  const TemporaryRoot elsewhere_;
  const std::string content_ = std::string(2500, 'c') + "end";
  TufRepository repository_;
  FaultPlan plan_;
};

TEST_F(FetchFault, NewTargetIsFetchedByTheNextRun) {
  plan_.reset = [&] { reset(); };
  plan_.judge = [&](const FaultOutcome& outcome) { judge(outcome, ""); };
  try_all(100);
}

TEST_F(FetchFault, OldFileStaysUntilTheTargetReplacesIt) {
  plan_.reset = [&] {
    reset();
    root_.write(std::string("downloads/") + target, "old");
  };
  plan_.judge = [&](const FaultOutcome& outcome) { judge(outcome, "old"); };
  plan_.modes = {FaultMode::exit, FaultMode::names};
  try_all(30);
}

}  // namespace
}  // namespace ravok::testing::fetch_fault_test
