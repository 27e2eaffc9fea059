// The data folders of every version that were at rest: what they say of themselves, and that this version repairs,
// starts, updates and removes them.

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "app/brand/brand.hpp"
#include "app/brand/theme_folder.hpp"
#include "app/command/direct_start.hpp"
#include "app/command/platformed_game.hpp"
#include "app/download/installed_repository.hpp"
#include "app/launcher/start_marker.hpp"
#include "artefacts/kept_installation.hpp"
#include "domain/sdk_session.hpp"
#include "platform/file/directory_identity.hpp"
#include "platform/shortcut/shortcuts.hpp"
#include "platform/snapshot/install_records.hpp"
#include "support/bytes_of.hpp"
#include "support/failure.hpp"

namespace ravok::kept_installations_test {
namespace {

using testing::KeptFolder;
using testing::KeptInstallation;
using testing::KeptVersion;
using testing::TreeState;

void expect_last(const KeptInstallation& kept, const std::string& action, const std::string& outcome,
                 const std::string& message) {
  const NativeInstallStatus status = kept.status();
  ASSERT_TRUE(status.last_operation);
  EXPECT_EQ(status.last_operation->action, action);
  EXPECT_EQ(status.last_operation->outcome, outcome);
  EXPECT_EQ(status.last_operation->message, message);
}

TEST(KeptInstallations, AFreshOneIsStartedUpdatedAndRemoved) {
  for (const KeptVersion& version : testing::kept_versions()) {
    SCOPED_TRACE(version.version);
    const KeptInstallation kept(version, "data-fresh");
    const NativeInstallStatus status = kept.status();
    EXPECT_TRUE(status.installed);
    EXPECT_EQ(status.launcher_build, "1.0.0");
    EXPECT_EQ(status.bootstrap_build, "bootstrap-1");
    EXPECT_EQ(status.shortcuts.size(), 1u);
    expect_last(kept, "install", "succeeded", "");
    EXPECT_EQ(testing::build_of(kept.data(), "candidate"), "1.0.0");
    EXPECT_EQ(kept.start(), "1.0.0");
    kept.expect_to_go_on();
  }
}

TEST(KeptInstallations, ABrandedOneKeepsItsBrand) {
  for (const KeptVersion& version : testing::kept_versions()) {
    SCOPED_TRACE(version.version);
    const KeptInstallation kept(version, "data-branded", "package-branded");
    EXPECT_EQ(installed_brand(kept.data()), (Brand{"Brightwood", "brightwood", "Brightwood Games", true}));
    EXPECT_TRUE(load_theme(theme_directory(kept.data())));
    EXPECT_FALSE(testing::bytes_of(kept.paths().menu_icon).empty());
    EXPECT_EQ(installed_repository(kept.data()).ca_bundle, kept.paths().repository_ca);
    EXPECT_EQ(kept.start(), "1.0.0");
    kept.expect_to_go_on();
  }
}

TEST(KeptInstallations, AMissingMenuEntryIsToldAndMadeByARepair) {
  for (const KeptVersion& version : testing::kept_versions()) {
    SCOPED_TRACE(version.version);
    const KeptInstallation kept(version, "data-no-shortcut");
    EXPECT_TRUE(kept.status().shortcuts.empty());
    ASSERT_TRUE(kept.status().last_operation);
    EXPECT_EQ(kept.status().last_operation->outcome, "succeeded");
    EXPECT_NE(kept.status().last_operation->message, "");
    EXPECT_TRUE(std::filesystem::remove(kept.folder / "home/.local/share/applications"));
    EXPECT_TRUE(kept.repair().shortcut_missing);
    NativeInstaller::create_shortcut(kept.data(), "", "", "");
    EXPECT_EQ(kept.status().shortcuts.size(), 1u);
    EXPECT_EQ(kept.start(), "1.0.0");
    kept.expect_to_go_on();
  }
}

TEST(KeptInstallations, MenuEntriesAreTheirsUnlessTheirUserHasChangedThem) {
  for (const KeptVersion& version : testing::kept_versions()) {
    SCOPED_TRACE(version.version);
    const KeptInstallation kept(version, "data-shortcuts");
    EXPECT_EQ(kept.status().shortcuts.size(), 4u);
    EXPECT_EQ(kept.menu_entries().size(), 3u);
    // A repair makes the one again that is missing.
    EXPECT_EQ(kept.repair().shortcuts.size(), 1u);
    EXPECT_EQ(kept.menu_entries().size(), 4u);
    const ShortcutRemoval removal = NativeInstaller::remove_shortcuts(kept.data());
    EXPECT_EQ(removal.removed.size(), 3u);
    ASSERT_EQ(removal.changed.size(), 1u);
    EXPECT_NE(testing::bytes_of(removal.changed.front()).find("Comment=Mine"), std::string::npos);
    EXPECT_EQ(kept.menu_entries().size(), 1u);
    EXPECT_TRUE(owned_native_shortcuts(kept.data()).empty());
  }
  for (const KeptVersion& version : testing::kept_versions()) {
    SCOPED_TRACE(version.version + ", removed whole");
    const KeptInstallation kept(version, "data-shortcuts");
    EXPECT_EQ(kept.uninstall().changed_shortcuts.size(), 1u);
    EXPECT_EQ(kept.menu_entries().size(), 1u);
    EXPECT_FALSE(std::filesystem::exists(kept.data()));
  }
}

TEST(KeptInstallations, ADamagedOneIsRepaired) {
  for (const KeptVersion& version : testing::kept_versions()) {
    SCOPED_TRACE(version.version);
    const KeptInstallation kept(version, "data-damaged");
    expect_last(kept, "repair", "failed", "Ravok or a game from this folder is still running; close it and try again");
    const TreeState player = kept.player_files();
    EXPECT_FALSE(player.empty());
    EXPECT_EQ(kept.repair().replaced, (std::vector<std::string>{"bootstrap", "launcher", "trust"}));
    expect_last(kept, "repair", "succeeded", "");
    EXPECT_TRUE(testing::same_tree(kept.player_files(), player));
    EXPECT_EQ(kept.start(), "1.0.0");
    kept.expect_to_go_on();
  }
}

TEST(KeptInstallations, ARepairedOneNeedsNothing) {
  for (const KeptVersion& version : testing::kept_versions()) {
    SCOPED_TRACE(version.version);
    const KeptInstallation kept(version, "data-repaired");
    expect_last(kept, "repair", "succeeded", "");
    EXPECT_TRUE(kept.repair().replaced.empty());
    EXPECT_EQ(kept.start(), "1.0.0");
    kept.expect_to_go_on();
  }
}

TEST(KeptInstallations, ARemovedOneIsInstalledAgainBesideThePlayersData) {
  for (const KeptVersion& version : testing::kept_versions()) {
    SCOPED_TRACE(version.version);
    const KeptInstallation kept(version, "data-uninstalled");
    EXPECT_FALSE(kept.status().installed);
    const TreeState player = kept.player_files();
    EXPECT_EQ(player.size(), 4u);
    EXPECT_TRUE(testing::same_tree(testing::tree_state(kept.data()), player));
    kept.install();
    EXPECT_TRUE(testing::same_tree(kept.player_files(), player));
    EXPECT_EQ(kept.start(), "1.0.0");
    kept.expect_to_go_on();
  }
}

TEST(KeptInstallations, AnUpdatedOneKnowsItsVersionsAndTheOneThatFailed) {
  for (const KeptVersion& version : testing::kept_versions()) {
    SCOPED_TRACE(version.version);
    const KeptInstallation kept(version, "data-updated");
    EXPECT_EQ(kept.status().launcher_build, "1.1.0");
    EXPECT_EQ(testing::build_of(kept.data(), "rollback"), "1.0.0");
    EXPECT_EQ(testing::build_of(kept.data(), "failed_candidate"), "1.2.0");
    EXPECT_EQ(LauncherStore::existing(kept.data())->load().at("failed_candidate").at("problem"), "startup_failed");
    // Some time after that start, whatever the clock of this machine says.
    const auto started = kept.folder.json("data/launcher/start-attempt.json").at("started_at").get<std::int64_t>();
    const FailedStarts failed = failed_launcher_starts(kept.data(), started + 60);
    EXPECT_EQ(failed.attempts, 1u);
    EXPECT_EQ(failed.manifest_sha256,
              LauncherStore::existing(kept.data())->load().at("active").at("manifest_sha256").get<std::string>());
    EXPECT_EQ(kept.start(), "1.1.0");
    kept.expect_to_go_on();
  }
}

TEST(KeptInstallations, ADamagedVersionGivesWayToTheOneBefore) {
  for (const KeptVersion& version : testing::kept_versions()) {
    SCOPED_TRACE(version.version);
    const KeptInstallation kept(version, "data-updated");
    const LauncherStore store(kept.data());
    std::filesystem::remove(store.payload(store.load().at("active")) / "bin/ravok");
    EXPECT_EQ(kept.start(), "1.0.0");
    // An update replaces neither of the two, and a start finds it.
    EXPECT_EQ(kept.stage().at("staged"), true);
    EXPECT_EQ(kept.start(), "1.4.0");
    kept.expect_to_be_removed();
  }
}

TEST(KeptInstallations, AVersionThatWaitsIsTriedAndGivenUp) {
  for (const KeptVersion& version : testing::kept_versions()) {
    SCOPED_TRACE(version.version);
    const KeptInstallation kept(version, "data-waiting");
    EXPECT_EQ(testing::build_of(kept.data(), "candidate"), "1.2.0");
    EXPECT_EQ(kept.start(), "1.1.0");
    EXPECT_EQ(testing::build_of(kept.data(), "failed_candidate"), "1.2.0");
    kept.expect_to_go_on();
  }
}

TEST(KeptInstallations, AnInstalledGameIsFoundAndGoesWithThem) {
  for (const KeptVersion& version : testing::kept_versions()) {
    SCOPED_TRACE(version.version);
    const KeptInstallation kept(version, "data-game");
    const LocatedGame game = locate_installed_game(kept.data(), "first-game");
    EXPECT_EQ(game.directory, kept.data() / "games/first-game/versions/1.0");
    EXPECT_EQ(testing::run_program({game.program, {}, {{"PATH", "/usr/bin:/bin"}}, ""}).output, "game\n");
    // A damaged client starts the game all the same.
    std::filesystem::remove_all(kept.launcher().versions);
    std::filesystem::create_directory(kept.launcher().versions);
    std::filesystem::permissions(kept.launcher().versions, std::filesystem::perms::owner_all);
    const testing::ProgramResult started =
        testing::run_program({RAVOK_BOOTSTRAP,
                              {"--data-dir", kept.data(), "--launch", "first-game"},
                              {{"HOME", kept.folder / "home"}, {"PATH", "/usr/bin:/bin"}},
                              ""});
    EXPECT_EQ(started.output, "game\n") << started.errors;
    EXPECT_EQ(kept.repair().replaced, (std::vector<std::string>{"launcher"}));
    kept.expect_to_be_removed();
  }
}

TEST(KeptInstallations, GamesOfOtherStoresAndTheirSessionsAreRead) {
  for (const KeptVersion& version : testing::kept_versions()) {
    SCOPED_TRACE(version.version);
    const KeptFolder platform(version, "platformed-game");
    const PlatformedGame game = parse_platformed_game(platform.json(platformed_game_file), platform.path());
    EXPECT_EQ(game.game_id, "first-game");
    EXPECT_EQ(game.channel, "stable");
    EXPECT_EQ(game.executable, platform / "bin/game");

    const KeptFolder sessions(version, "sdk-sessions");
    const SessionBinding binding = {"session-1", "nonce-1", "first-game", "game-1", 4321};
    std::uint64_t last = 0;
    for (const char* const state : {"starting", "ready", "clean_exit"}) {
      const Json record = validate_sdk_record(sessions.json(std::string(state) + ".json"), binding, last);
      EXPECT_EQ(record.at("state"), state);
      last = record.at("sequence").get<std::uint64_t>();
    }
    EXPECT_EQ(last, 3u);
    EXPECT_EQ(testing::failure_of([&] { validate_sdk_record(sessions.json("ready.json"), binding, last); })->code,
              "session_replay");
  }
}

// The folder of a kept game's files on their way, and its records.
struct KeptGame {
  explicit KeptGame(const KeptVersion& version) : folder(version, "game-install") {}
  GameManifest manifest() const { return GameManifest::parse(folder.json("manifest.json")); }
  std::filesystem::path staging() const { return folder / "staging/1.0"; }
  std::filesystem::path destination() const { return folder / "versions/1.0"; }
  // The record as it would be if the folder had never been moved.
  Json in_place(const std::string& record) const {
    Json document = folder.json(record);
    const DirectoryIdentity identity = inspect_storage_directory(staging());
    document["staging_identity"] = {identity.device, identity.inode};
    return document;
  }
  const KeptFolder folder;
};

TEST(KeptInstallations, AGameOnItsWayIsRemovedWhereItsRecordIsStillTrue) {
  for (const KeptVersion& version : testing::kept_versions()) {
    SCOPED_TRACE(version.version);
    const KeptGame game(version);
    const TreeState before = testing::tree_state(game.folder.path());
    validate_install_preparation(game.folder.json("unrecorded.json"));
    validate_install_ready(game.folder.json("ready.json"));
    // Unpacked here, the folder is another one than that of the records, which may not be removed.
    EXPECT_EQ(testing::failure_of([&] {
                cleanup_prepared_install(game.manifest(), game.folder.json("prepared.json"), game.staging(),
                                         game.destination());
              })->code,
              "allocation_changed");
    EXPECT_EQ(testing::failure_of([&] {
                cleanup_ready_install(game.manifest(), game.folder.json("ready.json"), game.staging(),
                                      game.destination(), true);
              })->code,
              "allocation_changed");
    EXPECT_EQ(testing::failure_of([&] {
                cleanup_prepared_install(game.manifest(), game.folder.json("unrecorded.json"), game.staging(),
                                         game.destination());
              })->code,
              "install_preparation_state");
    EXPECT_TRUE(testing::same_tree(testing::tree_state(game.folder.path()), before));
    cleanup_prepared_install(game.manifest(), game.in_place("prepared.json"), game.staging(), game.destination());
    EXPECT_FALSE(std::filesystem::exists(game.staging()));
  }
  for (const KeptVersion& version : testing::kept_versions()) {
    SCOPED_TRACE(version.version + ", activated");
    const KeptGame game(version);
    const Json ready = game.in_place("ready.json");
    std::filesystem::rename(game.staging(), game.destination());
    cleanup_ready_install(game.manifest(), ready, game.staging(), game.destination(), true);
    EXPECT_FALSE(std::filesystem::exists(game.destination()));
  }
}

}  // namespace
}  // namespace ravok::kept_installations_test
