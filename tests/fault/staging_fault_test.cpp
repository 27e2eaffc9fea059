// Whatever call is spoilt while an update is staged or a store is cleaned, nothing that runs is touched, the store
// stays within its bounds, and the next run finishes the work.

#include <csignal>
#include <filesystem>
#include <iostream>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "app/launcher/launcher_staging.hpp"
#include "app/launcher/launcher_store.hpp"
#include "fault/copied_downloads.hpp"
#include "fault/fault_chain.hpp"
#include "fault/fault_runner.hpp"
#include "platform/file/posix_files.hpp"
#include "platform/snapshot/snapshot_tree.hpp"
#include "support/failure.hpp"
#include "support/fast_volume.hpp"
#include "support/staging_place.hpp"
#include "support/tree_state.hpp"

namespace ravok::testing::staging_fault_test {
namespace {

using Codes = std::set<std::string>;

// The codes with which a run may refuse when a call of it fails.
const Codes codes_of_staging = {"allocation_changed",
                                "archive",
                                "busy",
                                "content_mismatch",
                                "content_mode",
                                "file_digest",
                                "file_permissions",
                                "file_read",
                                "file_remove",
                                "file_sync",
                                "file_system",
                                "file_write",
                                "insufficient_space",
                                "lock_failed",
                                "missing_file",
                                "permissions",
                                "native_install_incomplete",
                                "space_reservation",
                                "staging_exists",
                                "tree_read",
                                "unsafe_path"};

class StagingFault : public ::testing::Test {
 protected:
  StagingFault() {
    place_.update(former_);
    place_.update(active_);
    plan_.root = root_.path();
    plan_.most_calls = 10'000;
  }

  std::filesystem::path data() const { return root_ / "data"; }
  std::filesystem::path trust() const { return elsewhere_ / "trust"; }
  std::filesystem::path repository() const { return elsewhere_ / "repository"; }
  LauncherPaths paths() const { return LauncherPaths(data() / "launcher"); }

  ProgramRun sample(const std::vector<std::string>& arguments) const {
    return {RAVOK_SAMPLE_STAGING, arguments, {{"HOME", "/nowhere"}}, ""};
  }
  ProgramRun staging() const { return sample({"stage", data(), trust(), repository()}); }
  ProgramRun cleaning() const { return sample({"clean", data()}); }

  // Puts the store and the trusted state back as they are when the program starts.
  void reset() const {
    for (const auto& [from, to] : {std::pair(place_.root().path(), data()), std::pair(place_.tuf.directory, trust())}) {
      std::filesystem::remove_all(to);
      std::filesystem::copy(from, to, std::filesystem::copy_options::recursive);
      std::filesystem::permissions(to, std::filesystem::perms::owner_all);
    }
  }

  void expect_again(const ProgramRun& run) const {
    const ProgramResult result = run_with_fault(run, root_.path()).result;
    EXPECT_EQ(result.exit_code, 0) << result.errors;
  }

  void judge_ending(const FaultOutcome& outcome) const {
    if (ends_process(outcome.mode) && !outcome.at_end()) {
      EXPECT_EQ(outcome.result.signal, SIGKILL);
    } else if (!outcome.call.path.native().starts_with(root_.path().native())) {
      // The repository and the trusted state, whose own crashes are tried by themselves, lie elsewhere.
      EXPECT_LE(outcome.result.exit_code, 3) << outcome.result.errors;
    } else if (outcome.result.exit_code == 1) {
      const std::string code = outcome.result.errors.substr(0, outcome.result.errors.find(':'));
      EXPECT_TRUE(codes_of_staging.contains(code)) << outcome.result.errors;
    } else if (outcome.result.exit_code != 0) {
      // The data root could not be resolved.
      EXPECT_TRUE(outcome.result.errors.starts_with("file system: ")) << outcome.result.errors;
    }
  }

  // A version that the document names is whole.
  void expect_whole(const LauncherStore& store, const Json& reference) const {
    EXPECT_NO_THROW(verify_snapshot_tree(store.manifest(reference), store.payload(reference), {})) << reference;
  }

  void judge_store(const Json& candidate) const {
    const auto store = LauncherStore::for_launch(data());
    const Json document = store->load();
    EXPECT_EQ(document.at("active"), active_.reference());
    EXPECT_EQ(document.at("rollback"), former_.reference());
    EXPECT_TRUE(document.at("candidate").is_null() || document.at("candidate") == candidate) << document;
    for (const char* key : {"active", "rollback", "candidate"}) {
      if (!document.at(key).is_null()) {
        expect_whole(*store, document.at(key));
      }
    }
    EXPECT_NO_THROW(require_launcher_budget(paths(), 0));
  }

  // Adds the newest version, which nothing names, and what a staging and a start leave.
  void leave_much_to_clean() {
    place_.update(newest_);
    Json document = place_.launcher.store.load();
    document["active"] = active_.reference();
    document["rollback"] = former_.reference();
    place_.launcher.store.save(document);
    const auto write = [&](const std::string& path, const std::string& bytes) {
      std::filesystem::permissions(place_.root().write("launcher/" + path, bytes), std::filesystem::perms(0600));
    };
    write("intents/" + left_nonce_ + ".json", Json({{"schema_version", 1},
                                                    {"kind", "ravok-launcher-staging"},
                                                    {"nonce", left_nonce_},
                                                    {"reference", newest_.reference()}})
                                                  .dump());
    write("staging/" + left_nonce_ + "/file", "half");
    write("health/" + left_nonce_ + ".json", "{}");
    write("leases/attempts/" + left_nonce_ + ".json", "{}");
    write("leases/attempts/" + left_nonce_ + ".lock", "");
  }

  void try_all() const {
    const FaultTable table = run_faults(plan_);
    std::cout << table;
    EXPECT_GT(table.runs, 50u);
  }

  const TemporaryRoot root_{fast_volume()};
  const TemporaryRoot elsewhere_{fast_volume()};
  StagingPlace place_;
  const LauncherUpdate former_{"build-1"};
  const LauncherUpdate active_{"build-2"};
  const LauncherUpdate newest_{"build-3", noise(3000)};
  const std::string left_nonce_ = std::string(32, '1');
  FaultPlan plan_;
};

TEST_F(StagingFault, NextStagingReachesTheCandidate) {
  place_.publish(newest_);
  place_.tuf.refresh();
  place_.tuf.repository.write(repository());
  plan_.run = staging();
  plan_.reset = [&] { reset(); };
  plan_.judge = [&](const FaultOutcome& outcome) {
    judge_ending(outcome);
    judge_store(newest_.reference());
    expect_again(staging());
    judge_store(newest_.reference());
    EXPECT_EQ(LauncherStore::for_launch(data())->load().at("candidate"), newest_.reference());
  };
  try_all();
}

TEST_F(StagingFault, NextCleanupFinishes) {
  leave_much_to_clean();
  const std::string nonce = left_nonce_;
  plan_.run = cleaning();
  plan_.reset = [&] { reset(); };
  plan_.judge = [&](const FaultOutcome& outcome) {
    judge_ending(outcome);
    judge_store(nullptr);
    // What is left of the version that goes is whole, or nobody takes it for a version.
    const auto store = LauncherStore::for_launch(data());
    if (std::filesystem::exists(paths().manifest(newest_.sha256())) &&
        std::filesystem::exists(paths().version(newest_.sha256()))) {
      expect_whole(*store, newest_.reference());
    }
    const bool is_done = !std::filesystem::exists(paths().version(newest_.sha256()));
    // A version whose manifest cannot be read is kept.
    EXPECT_TRUE(is_done || outcome.result.exit_code != 0 || !ends_process(outcome.mode));
    expect_again(cleaning());
    judge_store(nullptr);
    const TreeState state = tree_state(paths().store);
    for (const std::string& gone : {"versions/" + newest_.sha256(), "manifests/" + newest_.sha256() + ".json",
                                    "manifests/" + newest_.sha256() + ".json.removed", std::string("cleanup.json"),
                                    "staging/" + nonce, "intents/" + nonce + ".json", "health/" + nonce + ".json",
                                    "leases/attempts/" + nonce + ".json", "leases/attempts/" + nonce + ".lock"}) {
      EXPECT_FALSE(state.contains(gone)) << gone;
    }
    EXPECT_EQ(only(state, "downloads").size(), 1u);
    EXPECT_EQ(only(state, "download-intents").size(), 1u);
    for (const auto& [path, node] : state) {
      EXPECT_FALSE(path.ends_with(".tmp")) << path;
    }
  };
  try_all();
}

TEST_F(StagingFault, WhatAChainOfCleanupsHasRemovedStaysRemoved) {
  leave_much_to_clean();
  FaultChainPlan plan;
  plan.root = root_.path();
  plan.folders = {data(), trust()};
  plan.copied = [&] { adopt_downloads(data()); };
  plan.chains = 5;
  // One that began at each removal which the next one may take for done.
  plan.most_begun = 60;
  plan.reset = [&] { reset(); };
  plan.next = [&](ChainRandom&) { return cleaning(); };
  plan.judge = [&](const ChainLink& link) -> std::string {
    if (link.call && !link.is_cut()) {
      judge_ending({*link.call, link.mode, link.result});
    }
    judge_store(nullptr);
    const auto is_clean = [&] {
      return !std::filesystem::exists(paths().version(newest_.sha256())) && !std::filesystem::exists(paths().cleanup);
    };
    EXPECT_TRUE(is_clean() || !link.at_end());
    expect_again(cleaning());
    judge_store(nullptr);
    EXPECT_TRUE(is_clean());
    return link.at_end() ? "ended" : "cut short";
  };
  std::cout << run_fault_chains(plan);
}

TEST_F(StagingFault, InChainsReachesTheCandidateAndKeepsIt) {
  place_.publish(newest_);
  place_.tuf.refresh();
  place_.tuf.repository.write(repository());
  // Once a staging has ended well, nothing takes its candidate away.
  bool promised = false;
  FaultChainPlan plan;
  plan.root = root_.path();
  plan.folders = {data(), trust()};
  plan.copied = [&] { adopt_downloads(data()); };
  plan.chains = 10;
  plan.reset = [&] {
    promised = false;
    reset();
  };
  plan.next = [&](ChainRandom& random) {
    // Nothing is staged while a clean-up is to be finished.
    const bool must_clean = std::filesystem::exists(paths().store / "cleanup.json");
    return must_clean || random.chance(25) ? cleaning() : staging();
  };
  plan.judge = [&](const ChainLink& link) -> std::string {
    if (link.call && !link.is_cut()) {
      judge_ending({*link.call, link.mode, link.result});
    }
    promised = promised || (link.has_succeeded() && link.run.arguments.front() == "stage");
    judge_store(newest_.reference());
    const bool is_there = !LauncherStore::for_launch(data())->load().at("candidate").is_null();
    EXPECT_TRUE(is_there || !promised);
    expect_again(cleaning());
    judge_store(newest_.reference());
    EXPECT_EQ(!LauncherStore::for_launch(data())->load().at("candidate").is_null(), is_there);
    expect_again(staging());
    judge_store(newest_.reference());
    EXPECT_EQ(LauncherStore::for_launch(data())->load().at("candidate"), newest_.reference());
    return is_there ? "staged" : "not staged";
  };
  std::cout << run_fault_chains(plan);
}

}  // namespace
}  // namespace ravok::testing::staging_fault_test
