// The data folders of every version in which something was broken off: this version recognises what it was and brings
// it to its end.

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "app/download/launcher_downloads.hpp"
#include "artefacts/kept_installation.hpp"
#include "support/bytes_of.hpp"
#include "support/failure.hpp"

namespace ravok::kept_interruptions_test {
namespace {

using testing::KeptFolder;
using testing::KeptInstallation;
using testing::KeptVersion;
using testing::TreeState;

void expect_incomplete(const KeptInstallation& kept) {
  const NativeInstallStatus status = kept.status();
  EXPECT_TRUE(status.incomplete);
  EXPECT_FALSE(status.installed);
  const testing::ProgramResult start = testing::run_program(
      {RAVOK_BOOTSTRAP, {"--data-dir", kept.data(), "self", "status"}, {{"HOME", kept.folder / "home"}}, ""});
  EXPECT_EQ(start.exit_code, 1);
  EXPECT_NE(start.errors.find("Ravok setup did not finish in " + kept.data().native()), std::string::npos)
      << start.errors;
}

TEST(KeptInterruptions, SetupsAreFinishedByARepairAnInstallOrARemoval) {
  for (const KeptVersion& version : testing::kept_versions()) {
    for (const char* const artefact : {"data-install-cut", "data-repair-cut", "data-uninstall-cut"}) {
      for (const char* const next : {"repair", "install", "uninstall"}) {
        SCOPED_TRACE(version.version + ": " + artefact + ", then " + next);
        const KeptInstallation kept(version, artefact, "package-branded");
        expect_incomplete(kept);
        const TreeState player = kept.player_files();
        EXPECT_EQ(player.empty(), artefact == std::string("data-install-cut"));
        if (next == std::string("uninstall")) {
          kept.expect_to_be_removed();
          continue;
        }
        kept.setup(next == std::string("repair"));
        EXPECT_TRUE(kept.status().installed);
        EXPECT_FALSE(std::filesystem::exists(kept.paths().staging));
        EXPECT_TRUE(testing::same_tree(kept.player_files(), player));
        EXPECT_EQ(kept.start(), "1.0.0");
        kept.expect_to_go_on();
      }
    }
  }
}

TEST(KeptInterruptions, WhatARepairHasOnlyPreparedIsThrownAway) {
  for (const KeptVersion& version : testing::kept_versions()) {
    SCOPED_TRACE(version.version);
    const KeptInstallation kept(version, "data-repair-prepared");
    EXPECT_TRUE(kept.status().installed);
    EXPECT_TRUE(std::filesystem::exists(kept.paths().staging));
    EXPECT_EQ(kept.repair().replaced, (std::vector<std::string>{"bootstrap", "launcher", "trust"}));
    EXPECT_FALSE(std::filesystem::exists(kept.paths().staging));
    EXPECT_EQ(kept.start(), "1.0.0");
    kept.expect_to_go_on();
  }
}

TEST(KeptInterruptions, AnAttemptWithoutItsBootstrapIsGivenUp) {
  for (const KeptVersion& version : testing::kept_versions()) {
    SCOPED_TRACE(version.version);
    const KeptInstallation kept(version, "data-attempt-cut");
    EXPECT_EQ(testing::build_of(kept.data(), "attempt"), "1.2.0");
    EXPECT_EQ(kept.start(), "1.1.0");
    EXPECT_EQ(testing::build_of(kept.data(), "failed_candidate"), "1.2.0");
    EXPECT_EQ(LauncherStore::existing(kept.data())->load().at("failed_candidate").at("problem"), "startup_interrupted");
    kept.expect_to_go_on();
  }
}

// The only file in the store's downloads whose name ends so.
std::filesystem::path download_that_ends(const KeptInstallation& kept, const std::string& ending) {
  for (const auto& entry : std::filesystem::directory_iterator(kept.launcher().downloads)) {
    if (entry.path().native().ends_with(ending)) {
      return entry.path();
    }
  }
  return {};
}

TEST(KeptInterruptions, ADownloadGoesOnWithTheBytesThatAreThere) {
  for (const KeptVersion& version : testing::kept_versions()) {
    SCOPED_TRACE(version.version);
    const KeptInstallation kept(version, "data-download-cut");
    const std::filesystem::path checkpoint = download_that_ends(kept, ".partial.resume.json");
    const std::filesystem::path partial = download_that_ends(kept, ".partial");
    Json state = Json::parse(testing::bytes_of(checkpoint));
    EXPECT_EQ(state.at("received"), 512);
    // The checkpoint as it would be if the file had never been moved.
    struct stat status {};
    ASSERT_EQ(stat(partial.c_str(), &status), 0);
    state["identity"] = {std::uint64_t{status.st_dev}, std::uint64_t{status.st_ino}};
    std::ofstream(checkpoint) << state.dump();
    testing::KeptRepository repository(kept.repository());
    EXPECT_EQ(testing::stage_launcher(kept.data(), repository).at("staged"), true);
    EXPECT_EQ(repository.archive_offset, 512u);
    EXPECT_EQ(kept.start(), "1.4.0");
    kept.expect_to_go_on();
  }
}

// The kept folder is a copy, so that the file has another identity than its checkpoint says.
TEST(KeptInterruptions, ADownloadOfACopiedFolderIsBegunAnew) {
  for (const KeptVersion& version : testing::kept_versions()) {
    SCOPED_TRACE(version.version);
    const KeptInstallation kept(version, "data-download-cut");
    testing::KeptRepository repository(kept.repository());
    EXPECT_EQ(testing::stage_launcher(kept.data(), repository).at("staged"), true);
    EXPECT_EQ(repository.archive_offset, 0u);
    EXPECT_EQ(download_that_ends(kept, ".partial"), std::filesystem::path());
    EXPECT_EQ(download_that_ends(kept, ".partial.resume.json"), std::filesystem::path());
    EXPECT_EQ(kept.start(), "1.4.0");
    kept.expect_to_go_on();
  }
}

TEST(KeptInterruptions, ADownloadWhoseBytesAreOthersIsPreserved) {
  for (const KeptVersion& version : testing::kept_versions()) {
    SCOPED_TRACE(version.version);
    const KeptInstallation kept(version, "data-download-cut");
    const std::filesystem::path partial = download_that_ends(kept, ".partial");
    const std::string bytes = testing::bytes_of(partial);
    std::ofstream(partial) << "other" + bytes.substr(5);
    const TreeState before = testing::tree_state(kept.launcher().downloads);
    EXPECT_EQ(launcher_download_receipts(kept.launcher().store).size(), 4u);
    EXPECT_FAILURE(kept.stage(), "allocation_changed",
                   "Prepared file was replaced or changed; reserved content was preserved");
    EXPECT_TRUE(testing::same_tree(testing::tree_state(kept.launcher().downloads), before));
    // A clean-up removes all else and names the file.
    const std::string name = partial.filename();
    EXPECT_EQ(clean_launcher_store(LauncherStore(kept.data())).at("kept"),
              Json::array({{{"path", "downloads/" + name}, {"reason", "changed"}}}));
    EXPECT_EQ(download_that_ends(kept, ".partial"), partial);
    EXPECT_EQ(kept.start(), "1.1.0");
    // Once its user has removed it, the update begins anew.
    std::filesystem::remove(partial);
    std::filesystem::remove(partial.native() + ".resume.json");
    kept.expect_to_go_on();
  }
}

TEST(KeptInterruptions, AStagingIsBegunAnew) {
  for (const KeptVersion& version : testing::kept_versions()) {
    SCOPED_TRACE(version.version);
    const KeptInstallation kept(version, "data-staging-cut");
    EXPECT_FALSE(std::filesystem::is_empty(kept.launcher().intents));
    EXPECT_FALSE(std::filesystem::is_empty(kept.launcher().staging));
    EXPECT_EQ(kept.start(), "1.1.0");
    kept.expect_to_go_on();
  }
}

TEST(KeptInterruptions, ACleanupIsFinishedBeforeTheNextUpdate) {
  for (const KeptVersion& version : testing::kept_versions()) {
    SCOPED_TRACE(version.version);
    const KeptInstallation kept(version, "data-cleanup-cut");
    EXPECT_EQ(kept.start(), "1.4.0");
    EXPECT_EQ(testing::failure_of([&] { kept.stage(); })->code, "launcher_cleanup_pending");
    const Json cleaned = clean_launcher_store(LauncherStore(kept.data()));
    // The one that was half removed, and the one that had failed before the newest was confirmed.
    EXPECT_EQ(cleaned.at("removed").at("versions"), 2) << cleaned;
    EXPECT_FALSE(std::filesystem::exists(kept.launcher().cleanup));
    kept.expect_to_go_on();
  }
}

TEST(KeptInterruptions, AChangeOfKeysIsFinished) {
  for (const KeptVersion& version : testing::kept_versions()) {
    SCOPED_TRACE(version.version);
    const KeptInstallation kept(version, "data-trust-cut");
    EXPECT_TRUE(std::filesystem::exists(kept.paths().trust / trust_rotation_mark));
    EXPECT_EQ(kept.start(), "1.1.0");
    kept.expect_to_go_on();
    // What was forgotten stays so, also for a client that never reaches its repository.
    const KeptInstallation alone(version, "data-trust-cut");
    testing::KeptRepository transport(alone.repository());
    { const testing::KeptTuf opened(alone.data(), transport); }
    EXPECT_FALSE(std::filesystem::exists(alone.paths().trust / trust_rotation_mark));
    EXPECT_FALSE(std::filesystem::exists(alone.paths().trust / "timestamp.json"));
    EXPECT_FALSE(std::filesystem::exists(alone.paths().trust / "snapshot.json"));
  }
}

TEST(KeptInterruptions, UpdatesOfTheBootstrapAreApplied) {
  for (const KeptVersion& version : testing::kept_versions()) {
    {
      SCOPED_TRACE(version.version + ", unpacked");
      const KeptInstallation kept(version, "data-bootstrap-unpacked");
      EXPECT_FALSE(kept.status().bootstrap_update_pending);
      EXPECT_EQ(kept.stage_bootstrap(), "staged");
      EXPECT_FALSE(std::filesystem::exists(kept.paths().bootstrap_update_tree));
      kept.expect_to_go_on();
    }
    SCOPED_TRACE(version.version + ", pending");
    const KeptInstallation kept(version, "data-bootstrap-pending");
    EXPECT_TRUE(kept.status().bootstrap_update_pending);
    EXPECT_EQ(kept.stage_bootstrap(), "pending");
    EXPECT_EQ(testing::apply_bootstrap(kept.data()), "applied");
    EXPECT_EQ(kept.status().bootstrap_build, "bootstrap-2");
    kept.expect_to_go_on();
  }
}

// The bootstrap that a kept data folder began with is there, whole and alone.
void expect_first_bootstrap(const KeptInstallation& kept) {
  EXPECT_EQ(kept.status().bootstrap_build, "bootstrap-1");
  EXPECT_FALSE(kept.status().bootstrap_update_pending);
  const KeptFolder snapshots(kept.version, "snapshots");
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(kept.paths().bootstrap_directory)) {
    if (entry.is_regular_file()) {
      names.push_back(entry.path().lexically_relative(kept.paths().bootstrap_directory));
      EXPECT_EQ(testing::bytes_of(entry.path()), snapshots.read("bootstrap/tree/" + names.back()));
    }
  }
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"bin/ravok-bootstrap", "data/note", "data/of-bootstrap-1"}));
}

TEST(KeptInterruptions, AnUpdateOfTheBootstrapThatIsHalfAppliedGoesBack) {
  for (const KeptVersion& version : testing::kept_versions()) {
    SCOPED_TRACE(version.version);
    KeptInstallation kept(version, "data-bootstrap-half");
    EXPECT_TRUE(kept.status().bootstrap_update_pending);
    EXPECT_EQ(testing::apply_bootstrap(kept.data()), "rejected");
    expect_first_bootstrap(kept);
    EXPECT_EQ(kept.stage_bootstrap(), "rejected");
    // What comes after it is taken.
    kept.publish_bootstrap("bootstrap-3");
    kept.expect_to_go_on();
  }
}

TEST(KeptInterruptions, AnUpdateOfTheBootstrapThatHasChangedIsGivenUp) {
  for (const KeptVersion& version : testing::kept_versions()) {
    SCOPED_TRACE(version.version);
    KeptInstallation kept(version, "data-bootstrap-pending");
    std::ofstream(BootstrapPaths(kept.data()).update_tree / "data/note") << "changed";
    EXPECT_EQ(testing::apply_bootstrap(kept.data()), "rejected");
    expect_first_bootstrap(kept);
    kept.publish_bootstrap("bootstrap-3");
    kept.expect_to_go_on();
  }
}

TEST(KeptInterruptions, ARejectedBootstrapIsNotTriedAgainAndANewerOneIs) {
  for (const KeptVersion& version : testing::kept_versions()) {
    SCOPED_TRACE(version.version);
    const KeptInstallation kept(version, "data-bootstrap-rejected");
    EXPECT_EQ(kept.status().bootstrap_build, "bootstrap-1");
    EXPECT_FALSE(kept.status().bootstrap_update_pending);
    EXPECT_TRUE(std::filesystem::exists(BootstrapPaths(kept.data()).rejected));
    EXPECT_EQ(testing::apply_bootstrap(kept.data()), "none");
    kept.expect_to_go_on();
  }
}

TEST(KeptInterruptions, OldFilesOfTheBootstrapGoWithTheNextRepair) {
  for (const KeptVersion& version : testing::kept_versions()) {
    SCOPED_TRACE(version.version);
    const KeptInstallation kept(version, "data-bootstrap-old-files");
    EXPECT_EQ(kept.status().bootstrap_build, "bootstrap-2");
    const std::filesystem::path old_file = kept.paths().bootstrap_directory / "data/of-bootstrap-1.old";
    EXPECT_TRUE(std::filesystem::exists(old_file));
    EXPECT_TRUE(kept.repair().replaced.empty());
    EXPECT_FALSE(std::filesystem::exists(old_file));
    kept.expect_to_go_on();
  }
}

}  // namespace
}  // namespace ravok::kept_interruptions_test
