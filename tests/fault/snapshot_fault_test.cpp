// Whatever call of an unpacking or an installation is spoilt, the next run finishes, nothing passes for complete that
// is not, and what no record binds is preserved.

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <optional>
#include <regex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "domain/game_manifest.hpp"
#include "fault/fault_runner.hpp"
#include "platform/file/directory_identity.hpp"
#include "platform/snapshot/install_records.hpp"
#include "platform/snapshot/snapshot_tree.hpp"
#include "publisher/snapshot_pack.hpp"
#include "support/game_at_hand.hpp"
#include "support/process.hpp"
#include "support/temporary_root.hpp"

namespace ravok::testing::snapshot_fault_test {
namespace {

using Names = std::vector<std::string>;
using Codes = std::set<std::string>;

// The codes with which a run may refuse when a call of it fails.
const Codes codes_of_unpacking = {
    "allocation_changed", "archive",    "content_mismatch",   "file_permissions", "file_read",
    "file_sync",          "file_write", "insufficient_space", "permissions",      "space_reservation",
    "staging_exists",     "tree_read",  "unsafe_path",
};
const Codes codes_of_installing = {
    "allocation_changed", "archive",           "content_mismatch", "destination_exists", "file_permissions",
    "file_read",          "file_sync",         "file_write",       "insufficient_space", "native_install_commit",
    "permissions",        "space_reservation", "staging_exists",   "tree_read",          "unsafe_path",
};
const Codes codes_of_abandoning = {
    "allocation_changed", "file_read", "file_sync", "tree_read", "unexpected_file", "unsafe_path",
};

// The archive of a small game and its manifest.
class PackedGame {
 public:
  explicit PackedGame(const TemporaryRoot& root)
      : archive(root / "game/archive"), manifest(root / "game/manifest.json") {
    root.write("game/tree/bin/program", std::string(70'000, 'p'));
    root.write("game/tree/data/one", "content");
    root.write("game/tree/data/two", "");
    EXPECT_EQ(chmod((root / "game/tree/bin/program").c_str(), 0755), 0);
    SnapshotInventory inventory = scan_snapshot_tree(root / "game/tree");
    std::ofstream file(archive, std::ios::binary);
    const PackedArchive packed =
        pack_snapshot(root / "game/tree", inventory, 1, [&](std::string_view bytes) { file << bytes; }, {});
    file.close();

    Json document = as_game(manifest_document());
    document["files"] = Json::array();
    std::uint64_t expanded = 0;
    for (const auto& [path, entry] : inventory) {
      document["files"].push_back({{"path", path},
                                   {"length", entry.length},
                                   {"mode", entry.executable ? 0755 : 0644},
                                   {"sha256", entry.sha256}});
      expanded += entry.length;
    }
    document["archive"]["length"] = packed.length;
    document["archive"]["sha256"] = packed.sha256;
    document["archive"]["expanded_length"] = expanded;
    root.write("game/manifest.json", document.dump());
    game = GameManifest::parse(document);
  }

  const std::filesystem::path archive;
  const std::filesystem::path manifest;
  GameManifest game;
};

class SnapshotFault : public ::testing::Test {
 protected:
  SnapshotFault() : packed_(root_), home_(root_ / "home"), staging_(home_ / "staging") {}

  static ProgramRun sample(const std::vector<std::string>& arguments) {
    return {RAVOK_SAMPLE_SNAPSHOT, arguments, {{"HOME", "/nowhere"}}, ""};
  }
  ProgramRun unpacking() const { return sample({"unpack", packed_.manifest, packed_.archive, staging_}); }
  ProgramRun installing() const { return sample({"install", packed_.manifest, packed_.archive, home_}); }
  ProgramRun abandoning() const { return sample({"abandon", packed_.manifest, home_}); }

  // Empties the home, except for files that no operation may touch.
  void reset() const {
    std::filesystem::remove_all(home_);
    root_.write("home/beside/file", "foreign");
    root_.write("home/versions/0.9/file", "foreign");
    std::filesystem::permissions(home_, std::filesystem::perms::owner_all);
  }

  // Leaves what a run of the installation leaves that is ended within its last file.
  void cut_short() const {
    if (cut_ == 0) {
      reset();
      for (const FaultCall& call : run_with_fault(installing(), root_.path()).calls) {
        cut_ = call.name == "write" && call.path.string().starts_with(staging_.string()) ? call.number : cut_;
      }
    }
    reset();
    EXPECT_EQ(run_with_fault(installing(), root_.path(), cut_, FaultMode::torn).result.signal, SIGKILL);
  }

  // Returns everything in the home with the content of the files, without the transaction files that an ended process
  // leaves.
  std::map<std::string, std::string> all() const {
    static const std::regex transaction(".*\\.[0-9a-f]{32}\\.tmp");
    std::map<std::string, std::string> found;
    for (const std::string& name : root_.names()) {
      if (name.starts_with("home/") && name != "home/" && !std::regex_match(name, transaction)) {
        found[name.substr(5)] = name.ends_with('/') ? std::string() : root_.read(name);
      }
    }
    return found;
  }

  // Returns the names in the home when nothing was done, and these more.
  static Names names_with(const Names& more) {
    Names names = {"beside/", "beside/file", "versions/", "versions/0.9/", "versions/0.9/file"};
    names.insert(names.end(), more.begin(), more.end());
    std::sort(names.begin(), names.end());
    return names;
  }

  static Names names_of(const std::map<std::string, std::string>& found) {
    Names names;
    for (const auto& [name, content] : found) {
      names.push_back(name);
    }
    return names;
  }

  std::optional<Json> record(const std::string& name) const {
    const std::filesystem::path path = home_ / name;
    return std::filesystem::exists(path) ? std::optional(Json::parse(root_.read("home/" + name))) : std::nullopt;
  }

  Json identity_of_staging() const {
    const DirectoryIdentity identity = inspect_storage_directory(staging_);
    return Json::array({identity.device, identity.inode});
  }

  // The program ended by itself with a code that it knows, or was ended by the library.
  static void judge_ending(const FaultOutcome& outcome, const Codes& codes) {
    const ProgramResult& result = outcome.result;
    if (ends_process(outcome.mode)) {
      EXPECT_EQ(result.signal, SIGKILL);
    } else if (result.exit_code == 0) {
      EXPECT_EQ(result.errors, "");
    } else if (result.exit_code == 2) {
      // This is the removal of a tree that failed half-way.
      EXPECT_EQ(result.errors, "file system: Input/output error\n");
    } else {
      EXPECT_EQ(result.exit_code, 1);
      EXPECT_TRUE(codes.contains(result.errors.substr(0, result.errors.find(':')))) << result.errors;
    }
    if (outcome.mode == FaultMode::enospc && (outcome.call.name == "write" || outcome.call.name == "fallocate")) {
      EXPECT_TRUE(result.errors.starts_with("insufficient_space: ")) << result.errors;
    }
  }

  void expect_whole_tree() const { EXPECT_NO_THROW(verify_snapshot_tree(packed_.game, staging_, {})); }

  // A power cut can take nothing from a finished operation: every written file was flushed, and every directory after
  // the last time that a name was made in it.
  static void expect_all_flushed(const std::vector<FaultCall>& calls) {
    EXPECT_FALSE(can(calls.back(), FaultMode::power));
    std::set<std::filesystem::path> unflushed;
    for (const FaultCall& call : calls) {
      const bool makes_name = call.name.starts_with("open") || call.name == "mkdirat" || call.name == "renameat";
      if (makes_name && can(call, FaultMode::enospc)) {
        unflushed.insert(call.path.parent_path());
      } else if (call.name == "fsync") {
        unflushed.erase(call.path);
      }
    }
    EXPECT_EQ(unflushed, std::set<std::filesystem::path>{});
  }

  static bool can(const FaultCall& call, FaultMode mode) {
    return std::find(call.modes.begin(), call.modes.end(), mode) != call.modes.end();
  }

  static FaultTable try_all(const FaultPlan& plan) {
    FaultTable table = run_faults(plan);
    std::cout << table;
    EXPECT_GT(table.runs, 50u);  // enough for a beginning, a middle and an end
    return table;
  }

  const TemporaryRoot root_;
  const PackedGame packed_;
  const std::filesystem::path home_;
  const std::filesystem::path staging_;
  const Names tree_ = {"staging/",      "staging/bin/",     "staging/bin/program",
                       "staging/data/", "staging/data/one", "staging/data/two"};

 private:
  mutable std::uint64_t cut_ = 0;
};

TEST_F(SnapshotFault, AnUnpackedTreeIsWholeOrUnpackedAgain) {
  FaultPlan plan;
  plan.run = unpacking();
  plan.root = root_.path();
  plan.reset = [&] {
    reset();
    // These files were left by an earlier run.
    root_.write("home/staging/bin/program", "begun");
    root_.write("home/staging/data/one", "content");
  };
  plan.judge = [&](const FaultOutcome& outcome) {
    judge_ending(outcome, codes_of_unpacking);
    if (outcome.result.exit_code == 0) {
      expect_whole_tree();
    }
    EXPECT_EQ(run_program(plan.run).errors, "");
    expect_whole_tree();
    EXPECT_EQ(names_of(all()), names_with(tree_));
  };
  expect_all_flushed(try_all(plan).calls);
}

TEST_F(SnapshotFault, AnInstallationIsFinishedByTheNextRun) {
  FaultPlan plan;
  plan.run = installing();
  plan.root = root_.path();
  plan.reset = [&] { reset(); };
  std::uint64_t unrecorded_roots = 0;
  plan.judge = [&](const FaultOutcome& outcome) {
    judge_ending(outcome, codes_of_installing);
    const auto left = all();
    const std::optional<Json> preparation = record("preparation.json");
    const std::optional<Json> ready = record("ready.json");
    // Every record is whole, and says what is true.
    if (preparation) {
      EXPECT_NO_THROW(validate_install_preparation(*preparation));
    }
    if (ready) {
      EXPECT_NO_THROW(validate_install_ready(*ready));
      EXPECT_EQ(ready->at("staging_identity"), identity_of_staging());
      expect_whole_tree();
    }
    EXPECT_TRUE(ready || outcome.result.exit_code != 0);
    if (left.contains("staging/") && !(preparation && !preparation->at("staging_identity").is_null())) {
      // A root that is not recorded yet holds no reservation, and no run may remove it.
      ++unrecorded_roots;
      EXPECT_EQ(names_of(left), names_with({"preparation.json", "staging/"}));
      EXPECT_EQ(run_program(plan.run).errors, "install_preparation_state: Unrecorded preparation root was preserved\n");
      EXPECT_EQ(all(), left);
      std::filesystem::remove(staging_);
    }
    EXPECT_EQ(run_program(plan.run).errors, "");
    expect_whole_tree();
    Names names = tree_;
    names.insert(names.end(), {"preparation.json", "ready.json"});
    EXPECT_EQ(names_of(all()), names_with(names));
    EXPECT_EQ(record("ready.json").value_or(Json::object()).value("staging_identity", Json()), identity_of_staging());
  };
  expect_all_flushed(try_all(plan).calls);
  EXPECT_GT(unrecorded_roots, 0u);
}

TEST_F(SnapshotFault, AnAbandonedPreparationIsGoneAfterTheNextRun) {
  FaultPlan plan;
  plan.run = abandoning();
  plan.root = root_.path();
  plan.reset = [&] { cut_short(); };
  plan.judge = [&](const FaultOutcome& outcome) {
    judge_ending(outcome, codes_of_abandoning);
    const auto left = all();
    // As long as anything of the tree is left, so is the record that binds it.
    EXPECT_TRUE(left.contains("preparation.json") || !left.contains("staging/"));
    EXPECT_EQ(run_program(plan.run).errors, "");
    EXPECT_EQ(names_of(all()), names_with({}));
  };
  try_all(plan);
}

TEST_F(SnapshotFault, AnAbandonedActivationIsGoneAfterTheNextRun) {
  FaultPlan plan;
  plan.run = abandoning();
  plan.root = root_.path();
  plan.reset = [&] {
    reset();
    EXPECT_EQ(run_program(installing()).exit_code, 0);
    std::filesystem::rename(staging_, home_ / "versions/1.0");
  };
  plan.judge = [&](const FaultOutcome& outcome) {
    judge_ending(outcome, codes_of_abandoning);
    const auto left = all();
    EXPECT_TRUE(left.contains("ready.json") || !left.contains("versions/1.0/"));
    EXPECT_EQ(run_program(plan.run).errors, "");
    EXPECT_EQ(names_of(all()), names_with({}));
  };
  try_all(plan);
}

TEST_F(SnapshotFault, WhatWasPutIntoAPreparedTreeIsPreserved) {
  cut_short();
  root_.write("home/staging/data/foreign", "foreign");
  const auto left = all();
  for (const ProgramRun& run : {installing(), abandoning()}) {
    EXPECT_EQ(run_program(run).errors,
              "unexpected_file: Prepared cleanup preserves unmanaged, linked or oversized files\n");
    EXPECT_EQ(all(), left);
  }
  std::filesystem::remove(staging_ / "data/foreign");
  EXPECT_EQ(run_program(installing()).errors, "");
  expect_whole_tree();
}

TEST_F(SnapshotFault, WhatReplacedAPreparedTreeIsPreserved) {
  cut_short();
  std::filesystem::rename(staging_, home_ / "moved");
  std::filesystem::copy(home_ / "moved", staging_, std::filesystem::copy_options::recursive);
  const auto left = all();
  for (const ProgramRun& run : {installing(), abandoning()}) {
    EXPECT_EQ(run_program(run).errors,
              "allocation_changed: Prepared directory identity changed; preserve its replacement\n");
    EXPECT_EQ(all(), left);
  }
  std::filesystem::remove_all(staging_);
  std::filesystem::rename(home_ / "moved", staging_);
  EXPECT_EQ(run_program(installing()).errors, "");
  expect_whole_tree();
}

TEST_F(SnapshotFault, ACompleteInstallationIsNotTouched) {
  reset();
  EXPECT_EQ(run_program(installing()).exit_code, 0);
  const std::vector<FaultCall> calls = run_with_fault(installing(), root_.path()).calls;
  EXPECT_GT(calls.size(), 5u);
  EXPECT_TRUE(std::none_of(calls.begin(), calls.end(), [](const FaultCall& call) {
    return can(call, FaultMode::enospc) || call.name.starts_with("unlink") || call.name == "remove";
  }));
}

}  // namespace
}  // namespace ravok::testing::snapshot_fault_test
