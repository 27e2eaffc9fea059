// Whatever call of the launcher store is spoilt, its document is the old one or the new one, whole, and the next run
// loads it and finishes.

#include <csignal>
#include <filesystem>
#include <functional>
#include <iostream>
#include <optional>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "app/launcher/launcher_store.hpp"
#include "fault/fault_runner.hpp"
#include "support/launcher_builder.hpp"
#include "support/temporary_root.hpp"

namespace ravok::testing::store_fault_test {
namespace {

using Codes = std::set<std::string>;

// The codes with which a run may refuse when a call of it fails.
const Codes codes_of_opening = {"unsafe_path", "permissions", "file_sync", "file_read", "native_install_incomplete"};
const Codes codes_of_saving = {
    "unsafe_path", "permissions",        "file_sync", "file_read", "native_install_incomplete",
    "lock_failed", "insufficient_space", "busy",      "file_write"};
const Codes codes_of_seeding = {"unsafe_path",        "permissions",
                                "file_sync",          "file_read",
                                "lock_failed",        "busy",
                                "file_write",         "insufficient_space",
                                "allocation_changed", "archive",
                                "content_mismatch",   "file_permissions",
                                "space_reservation",  "staging_exists",
                                "tree_read",          "native_install_incomplete",
                                "volume_query",       "already_installed"};

class StoreFault : public ::testing::Test {
 protected:
  StoreFault() : launcher_(root_) { manifest_ = root_.write("manifest", launcher_.text()); }

  ProgramRun sample(const std::vector<std::string>& arguments) const {
    return {RAVOK_SAMPLE_STORE, arguments, {{"HOME", "/nowhere"}}, ""};
  }
  ProgramRun opening() const { return sample({"open", home_}); }
  ProgramRun saving() const { return sample({"save", home_, "new"}); }
  ProgramRun seeding() const { return sample({"seed", home_, manifest_, launcher_.archive}); }

  void reset() const {
    std::filesystem::remove_all(home_);
    std::filesystem::create_directory(home_);
    std::filesystem::permissions(home_, std::filesystem::perms::owner_all);
  }

  // A store whose document is the third and has the build "old" active.
  Json reset_to_old() const {
    reset();
    const LauncherStore store(home_);
    Json document = store.load();
    document["generation"] = 2;
    document["active"] = reference("old");
    store.save(document);
    return store.load();
  }

  static Json reference(const char* build_id) {
    return {{"manifest_sha256", std::string(64, 'a')}, {"build_id", build_id}};
  }

  Json loaded() const { return LauncherStore::for_launch(home_)->load(); }
  // The same document as its file has it, which is compact.
  std::string text() const { return root_.read("home/launcher/installation.json"); }
  bool has_document() const { return std::filesystem::exists(home_ / "launcher/installation.json"); }

  // The standard library looks for the root's one form, and fails in its own way.
  bool is_look_at_root(const FaultCall& call) const { return call.name == "stat" && call.path == home_; }

  void judge_ending(const FaultOutcome& outcome, const Codes& codes) const {
    if (ends_process(outcome.mode)) {
      EXPECT_EQ(outcome.result.signal, SIGKILL);
    } else if (outcome.result.exit_code == 2) {
      EXPECT_TRUE(is_look_at_root(outcome.call)) << outcome.result.errors;
    } else if (outcome.result.exit_code != 0) {
      EXPECT_EQ(outcome.result.exit_code, 1) << outcome.result.errors;
      EXPECT_TRUE(codes.contains(code_of(outcome))) << outcome.result.errors;
    } else {
      EXPECT_EQ(outcome.result.errors, "");
    }
  }

  static std::string code_of(const FaultOutcome& outcome) {
    return outcome.result.errors.substr(0, outcome.result.errors.find(':'));
  }

  // Only an ended process leaves a transaction file behind, and at most one.
  void judge_strays(const FaultOutcome& outcome) const {
    static const std::regex transaction(".*\\.[0-9a-f]{32}\\.tmp");
    int strays = 0;
    for (const std::string& name : root_.names()) {
      strays += std::regex_match(name, transaction) ? 1 : 0;
    }
    EXPECT_LE(strays, ends_process(outcome.mode) ? 1 : 0);
  }

  void expect_again(const FaultPlan& plan) const {
    const ProgramResult result = run_with_fault(plan.run, plan.root).result;
    EXPECT_EQ(result.exit_code, 0) << result.errors;
  }

  void try_all(const FaultPlan& plan) const {
    const FaultTable table = run_faults(plan);
    std::cout << table;
    EXPECT_GT(table.runs, 20u);
  }

  const TemporaryRoot root_;
  const std::filesystem::path home_ = root_ / "home";
  const SampleLauncher launcher_;
  std::filesystem::path manifest_;
};

TEST_F(StoreFault, SavedDocumentIsOldOrNew) {
  const Json old = reset_to_old();
  Json changed = old;
  changed["generation"] = 4;
  changed["active"] = reference("new");
  FaultPlan plan;
  plan.run = saving();
  plan.root = root_.path();
  plan.reset = [&] { reset_to_old(); };
  plan.judge = [&](const FaultOutcome& outcome) {
    judge_ending(outcome, codes_of_saving);
    judge_strays(outcome);
    const bool is_new = text() == changed.dump();
    EXPECT_TRUE(is_new || text() == old.dump()) << text();
    EXPECT_EQ(loaded(), is_new ? changed : old);
    if (outcome.result.exit_code == 0) {
      EXPECT_TRUE(is_new);
    } else if (!ends_process(outcome.mode)) {
      // When the new content is in place, only the last flush can have failed.
      EXPECT_TRUE(!is_new || code_of(outcome) == "file_sync") << outcome.result.errors;
    }
    expect_again(plan);
    EXPECT_EQ(loaded().at("generation"), is_new ? 5 : 4);
    EXPECT_EQ(loaded().at("active"), reference("new"));
  };
  try_all(plan);
}

TEST_F(StoreFault, FirstSavedDocumentIsNewOrNone) {
  FaultPlan plan;
  plan.run = saving();
  plan.root = root_.path();
  plan.reset = [&] {
    reset();
    LauncherStore store(home_);
  };
  plan.judge = [&](const FaultOutcome& outcome) {
    judge_ending(outcome, codes_of_saving);
    judge_strays(outcome);
    const bool is_new = has_document();
    EXPECT_EQ(loaded().at("generation"), is_new ? 1 : 0);
    EXPECT_EQ(loaded().at("active"), is_new ? reference("new") : Json(nullptr));
    EXPECT_TRUE(is_new || outcome.result.exit_code != 0);
    expect_again(plan);
    EXPECT_EQ(loaded().at("generation"), is_new ? 2 : 1);
  };
  try_all(plan);
}

TEST_F(StoreFault, UnknownDocumentIsNeverTouched) {
  const std::string unknown = R"({"schema_version":1,"format":"ravok-launcher-store-v2"})";
  FaultPlan plan;
  plan.root = root_.path();
  reset_to_old();
  root_.write("home/launcher/installation.json", unknown);
  const FaultRun unspoilt = run_with_fault(saving(), plan.root);
  EXPECT_EQ(unspoilt.result.errors, "unsupported_schema: Unknown launcher state was preserved\n");
  EXPECT_GT(unspoilt.calls.size(), 5u);
  for (const FaultCall& call : unspoilt.calls) {
    for (const FaultMode mode : call.modes) {
      const ProgramResult result = run_with_fault(saving(), plan.root, call.number, mode).result;
      EXPECT_TRUE(result.exit_code == (is_look_at_root(call) ? 2 : 1) || result.signal == SIGKILL)
          << call.name << ": " << result.errors;
      EXPECT_EQ(text(), unknown) << call.name;
    }
  }
}

TEST_F(StoreFault, OpenedStoreKeepsItsDocument) {
  const Json old = reset_to_old();
  FaultPlan plan;
  plan.run = opening();
  plan.root = root_.path();
  plan.modes = {FaultMode::exit, FaultMode::eio};
  plan.reset = [&] {
    reset_to_old();
    for (const char* name : {"staging", "health", "leases/attempts"}) {
      std::filesystem::remove(home_ / "launcher" / name);
    }
  };
  plan.judge = [&](const FaultOutcome& outcome) {
    judge_ending(outcome, codes_of_opening);
    EXPECT_EQ(text(), old.dump());
    expect_again(plan);
    EXPECT_EQ(loaded(), old);
  };
  try_all(plan);
}

TEST_F(StoreFault, SeededStoreNamesAWholeVersionOrNone) {
  const Json reference = launcher_.reference();
  FaultPlan plan;
  plan.run = seeding();
  plan.root = root_.path();
  plan.modes = {FaultMode::exit, FaultMode::eio};
  plan.reset = [&] {
    reset();
    LauncherStore store(home_);
  };
  plan.judge = [&](const FaultOutcome& outcome) {
    judge_ending(outcome, codes_of_seeding);
    const auto store = LauncherStore::for_launch(home_);
    const Json document = store->load();
    EXPECT_TRUE(document.at("active").is_null());
    EXPECT_EQ(document.at("generation"), has_document() ? 1 : 0);
    EXPECT_EQ(document.at("candidate"), has_document() ? reference : Json(nullptr));
    EXPECT_TRUE(has_document() || outcome.result.exit_code != 0);
    if (has_document()) {
      EXPECT_EQ(store->manifest(reference).build_id, "build-1");
      for (const SampleFile& file : launcher_.files) {
        EXPECT_EQ(root_.read(store->payload(reference).lexically_relative(root_.path()).string() + "/" + file.path),
                  file.content);
      }
    }
  };
  try_all(plan);
}

}  // namespace
}  // namespace ravok::testing::store_fault_test
