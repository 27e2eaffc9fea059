#include "app/setup/setup_execution.hpp"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "app/brand/brand.hpp"
#include "app/install/installation_record.hpp"
#include "platform/file/native_lock.hpp"
#include "support/bytes_of.hpp"
#include "support/clock_calls.hpp"
#include "support/desktop_entry.hpp"
#include "support/failure.hpp"
#include "support/install_place.hpp"

namespace ravok {
namespace {

using testing::InstallPlace;
using Names = std::vector<std::string>;

constexpr auto install = SetupCommandKind::install;
constexpr auto repair = SetupCommandKind::repair;
constexpr auto status = SetupCommandKind::status;
constexpr auto uninstall = SetupCommandKind::uninstall;
constexpr auto shortcut_create = SetupCommandKind::shortcut_create;
constexpr auto shortcut_remove = SetupCommandKind::shortcut_remove;

SetupCommand of_kind(SetupCommandKind kind) {
  SetupCommand command;
  command.command = kind;
  return command;
}

class RunSetupCommand : public ::testing::Test {
 protected:
  RunSetupCommand() {
    place.package.brand.reset();
    place.republish();
  }

  SetupCommand command(SetupCommandKind kind) const {
    SetupCommand command = of_kind(kind);
    command.data_root = place.data();
    if (needs_package(kind)) {
      command.package = place.package_directory();
    }
    return command;
  }
  Json run(const SetupCommand& command) const { return run_setup_command(command, place.seal(), place.callbacks); }
  Json run(SetupCommandKind kind) const { return run(command(kind)); }

  Json status_document() const {
    return {{"schema_version", 1},
            {"data_root", place.data()},
            {"installed", true},
            {"incomplete", false},
            {"bootstrap_build", "build-1"},
            {"launcher_build", "build-1"},
            {"bootstrap_update_pending", false},
            {"shortcuts", {place.entry()}},
            {"last_operation", {{"action", "install"}, {"outcome", "succeeded"}, {"message", ""}}}};
  }

  // What a status says, without the time that the last operation ended.
  Json timeless_status() const {
    Json document = run(status);
    if (!document.at("last_operation").is_null()) {
      EXPECT_EQ(text_at(document.at("last_operation"), "finished_at").size(), 20u);
      document["last_operation"].erase("finished_at");
    }
    return document;
  }

  Json setup_document(bool repaired, const Json& replaced) const {
    return {{"schema_version", 1},
            {"installed", true},
            {"repaired", repaired},
            {"data_root", place.data()},
            {"bootstrap", place.data() / "native/bootstrap/bin/ravok-bootstrap"},
            {"replaced", replaced},
            {"shortcuts", Json::array()},
            {"shortcut_problem", nullptr}};
  }

  void change_shortcut() const {
    place.root().write(place.entry().lexically_relative(place.root().path()).native(), "changed");
  }

  InstallPlace place;
};

TEST_F(RunSetupCommand, InstallsWithAShortcut) {
  Json expected = setup_document(false, {"bootstrap", "launcher", "trust"});
  expected["shortcuts"] = {place.entry()};
  EXPECT_EQ(run(install), expected);
  EXPECT_TRUE(std::filesystem::is_regular_file(place.entry()));
}

TEST_F(RunSetupCommand, LeavesTheShortcutOfABrandedGameToOthers) {
  place.package = testing::InitialPackage();
  place.republish();
  EXPECT_EQ(run(install), setup_document(false, {"bootstrap", "launcher", "trust"}));
  EXPECT_FALSE(std::filesystem::exists(place.entry()));
}

TEST_F(RunSetupCommand, InstallsEvenWhereAShortcutCannotBeMade) {
  place.root().write("home/.local/share/applications", "in the way");
  Json expected = setup_document(false, {"bootstrap", "launcher", "trust"});
  expected["shortcut_problem"] = "Linux setup ancestry is linked, unavailable or changed";
  EXPECT_EQ(run(install), expected);
  EXPECT_EQ(place.root().read("home/.local/share/applications"), "in the way");
}

TEST_F(RunSetupCommand, RepairsWhatIsDamagedAlone) {
  run(install);
  EXPECT_EQ(run(repair), setup_document(true, Json::array()));
  place.write("native/bootstrap/data/notes", "changed");
  EXPECT_EQ(run(repair), setup_document(true, {"bootstrap"}));
  EXPECT_EQ(place.read("native/bootstrap/data/notes"), "notes");
  std::filesystem::remove_all(place.paths().trust);
  std::filesystem::remove_all(place.paths().launcher);
  EXPECT_EQ(run(repair), setup_document(true, {"launcher", "trust"}));
}

TEST_F(RunSetupCommand, MakesAMissingShortcutAgainWhenItRepairs) {
  run(install);
  std::filesystem::remove(place.entry());
  Json expected = setup_document(true, Json::array());
  expected["shortcuts"] = {place.entry()};
  EXPECT_EQ(run(repair), expected);
}

// A command of a front end, which knows the featured game of its package.
class RunSetupCommandOfAGame : public RunSetupCommand {
 protected:
  Json run_with_game(SetupCommandKind kind) const {
    SetupCommand with_game = command(kind);
    with_game.game = "first-game";
    with_game.game_name = "The First Game";
    return run(with_game);
  }
  // A package of a brand that features the game, so that the client gets no shortcut of its own.
  void brand() {
    place.package = testing::InitialPackage();
    place.republish();
  }
  std::string text_of_entry() const { return testing::bytes_of(game_entry); }

  const std::filesystem::path game_entry = native_menu_entry(place.data(), "first-game", "");
};

TEST_F(RunSetupCommandOfAGame, MakesItsShortcutWithTheInstallation) {
  brand();
  Names phases;
  place.callbacks.progress = [&](std::string_view phase, std::uint64_t, std::uint64_t) {
    if (phases.empty() || phases.back() != phase) {
      phases.emplace_back(phase);
    }
  };
  Json expected = setup_document(false, {"bootstrap", "launcher", "trust"});
  expected["shortcuts"] = {game_entry};
  EXPECT_EQ(run_with_game(install), expected);
  EXPECT_EQ(testing::desktop_entry(text_of_entry()).at("Name"), "The First Game");
  EXPECT_EQ(phases, (Names{"verifying", "installing", "menu"}));
  EXPECT_EQ(setup_phase_line("menu"), "Making the menu entry…");
}

TEST_F(RunSetupCommandOfAGame, MakesItsShortcutBesideTheClients) {
  Json expected = setup_document(false, {"bootstrap", "launcher", "trust"});
  expected["shortcuts"] = {place.entry(), game_entry};
  EXPECT_EQ(run_with_game(install), expected);
}

TEST_F(RunSetupCommandOfAGame, MakesItsShortcutEvenWhenTheUserAsksToStopAfterTheInstallation) {
  brand();
  place.callbacks.cancelled = [this] { return std::filesystem::exists(place.paths().status_record); };
  run_with_game(install);
  EXPECT_TRUE(std::filesystem::exists(game_entry));
}

TEST_F(RunSetupCommandOfAGame, MakesItsShortcutWhenItRepairsAnInstallationWithoutAny) {
  brand();
  run(install);
  EXPECT_EQ(run(repair), setup_document(true, Json::array()));
  Json expected = setup_document(true, Json::array());
  expected["shortcuts"] = {game_entry};
  EXPECT_EQ(run_with_game(repair), expected);
  EXPECT_TRUE(std::filesystem::exists(game_entry));
  // The next one finds it, and one that has gone is made again as any other.
  EXPECT_EQ(run_with_game(repair), setup_document(true, Json::array()));
  std::filesystem::remove(game_entry);
  EXPECT_EQ(run_with_game(repair), expected);
}

TEST_F(RunSetupCommandOfAGame, LeavesTheShortcutsOfARepairedInstallationAsTheyAre) {
  run(install);
  EXPECT_EQ(run_with_game(repair), setup_document(true, Json::array()));
  EXPECT_FALSE(std::filesystem::exists(game_entry));
}

TEST_F(RunSetupCommandOfAGame, InstallsEvenWhereItsShortcutCannotBeMade) {
  std::filesystem::create_directories(game_entry);
  const Json document = run_with_game(install);
  Json expected = setup_document(false, {"bootstrap", "launcher", "trust"});
  expected["shortcuts"] = {place.entry()};
  expected["game_shortcut_problem"] = document.value("game_shortcut_problem", "");
  EXPECT_EQ(document, expected);
  EXPECT_NE(expected.at("game_shortcut_problem"), "");
  EXPECT_TRUE(NativeInstaller::status(place.data()).installed);
  EXPECT_EQ(setup_summary(command(install), document), "Installed Ravok in " + place.data().native() + ".");
}

TEST_F(RunSetupCommandOfAGame, RepairsEvenWhereItsShortcutCannotBeMade) {
  brand();
  run(install);
  std::filesystem::create_directories(game_entry);
  const Json document = run_with_game(repair);
  EXPECT_EQ(document.at("shortcuts"), Json::array());
  EXPECT_NE(document.value("game_shortcut_problem", ""), "");
}

TEST_F(RunSetupCommandOfAGame, IsNotTriedWhereTheClientsOwnShortcutHasAProblem) {
  place.root().write("home/.local/share/applications", "in the way");
  Json expected = setup_document(false, {"bootstrap", "launcher", "trust"});
  expected["shortcut_problem"] = "Linux setup ancestry is linked, unavailable or changed";
  EXPECT_EQ(run_with_game(install), expected);
}

TEST_F(RunSetupCommand, AsksForThePackageItNeeds) {
  for (const SetupCommandKind kind : {install, repair}) {
    SetupCommand without_package = command(kind);
    without_package.package.clear();
    EXPECT_FAILURE(run(without_package), "usage", "Choose the initial package with --package DIR");
    EXPECT_FALSE(std::filesystem::exists(place.data()));
  }
}

TEST_F(RunSetupCommand, RefusesACommandThatIsNone) {
  EXPECT_FAILURE(run(static_cast<SetupCommandKind>(6)), "usage", "Unknown setup command");
  EXPECT_FAILURE(setup_summary(of_kind(static_cast<SetupCommandKind>(6)), Json::object()), "usage",
                 "Unknown setup command");
  EXPECT_FALSE(std::filesystem::exists(place.data()));
}

TEST_F(RunSetupCommand, PassesTheFailureOfAnOperationOn) {
  EXPECT_FAILURE(run(repair), "not_installed", "Ravok is not installed in " + place.data().native());
  EXPECT_FAILURE(run(uninstall), "not_installed", "Ravok is not installed in " + place.data().native());
  EXPECT_FAILURE(run(shortcut_create), "not_installed", "Ravok is not installed in " + place.data().native());
  EXPECT_FAILURE(run(shortcut_remove), "not_installed", "Ravok is not installed in " + place.data().native());
  EXPECT_FALSE(std::filesystem::exists(place.data()));
  run(install);
  EXPECT_FAILURE(run(install), "already_installed",
                 "Ravok is already installed in " + place.data().native() + "; use repair");
}

TEST_F(RunSetupCommand, HandsTheCallbacksOn) {
  Names phases;
  place.callbacks.progress = [&](std::string_view phase, std::uint64_t, std::uint64_t) {
    if (phases.empty() || phases.back() != phase) {
      phases.emplace_back(phase);
    }
  };
  run(install);
  run(uninstall);
  EXPECT_EQ(phases, (Names{"verifying", "installing", "removing"}));
  place.callbacks.cancelled = [] { return true; };
  EXPECT_FAILURE(run(install), "cancelled", "Setup was cancelled");
  EXPECT_FALSE(std::filesystem::exists(place.data()));
}

TEST_F(RunSetupCommand, ReportsWithoutASealAndWhateverTheUserAsks) {
  run(install);
  NativeSetupCallbacks callbacks;
  callbacks.cancelled = [] { return true; };
  callbacks.progress = [](std::string_view, std::uint64_t, std::uint64_t) { FAIL(); };
  EXPECT_EQ(run_setup_command(command(status), "", callbacks).at("installed"), true);
}

TEST_F(RunSetupCommand, ReportsAnInstallation) {
  run(install);
  EXPECT_EQ(timeless_status(), status_document());
}

TEST_F(RunSetupCommand, ReportsNoOperationWithoutARecordOfIt) {
  run(install);
  std::filesystem::remove(place.paths().status_record);
  Json expected = status_document();
  expected["last_operation"] = nullptr;
  EXPECT_EQ(timeless_status(), expected);
}

TEST_F(RunSetupCommand, ReportsARepairThatFailed) {
  run(install);
  place.write("native/bootstrap/data/notes", "changed");
  place.callbacks.cancelled = [calls = 0]() mutable { return ++calls > 20; };
  EXPECT_FAILURE(run(repair), "cancelled", "Setup was cancelled");
  Json expected = status_document();
  expected["last_operation"] = {{"action", "repair"}, {"outcome", "failed"}, {"message", "Setup was cancelled"}};
  EXPECT_EQ(timeless_status(), expected);
}

TEST_F(RunSetupCommand, ReportsAnUpdateThatWaitsAndALauncherThatIsGone) {
  run(install);
  place.write("native/bootstrap-update.json", "{}");
  std::filesystem::remove_all(place.paths().launcher);
  Json expected = status_document();
  expected["bootstrap_update_pending"] = true;
  expected["launcher_build"] = "";
  EXPECT_EQ(timeless_status(), expected);
}

TEST_F(RunSetupCommand, ReportsAFolderThatIsNotThereOrNotFinished) {
  Json expected = {{"schema_version", 1},
                   {"data_root", place.data()},
                   {"installed", false},
                   {"incomplete", false},
                   {"bootstrap_build", ""},
                   {"launcher_build", ""},
                   {"bootstrap_update_pending", false},
                   {"shortcuts", Json::array()},
                   {"last_operation", nullptr}};
  EXPECT_EQ(run(status), expected);
  EXPECT_FALSE(std::filesystem::exists(place.data()));
  run(install);
  place.write(".ravok-setup-incomplete", "{}");
  expected["incomplete"] = true;
  EXPECT_EQ(run(status), expected);
}

TEST_F(RunSetupCommand, UninstallsAndSaysWhatItLeft) {
  run(install);
  const testing::TreeState player = place.write_player_data();
  change_shortcut();
  Json expected = {{"schema_version", 1},
                   {"uninstalled", true},
                   {"data_root", place.data()},
                   {"data_removed", false},
                   {"kept", Json::array()},
                   {"deferred", Json::array()},
                   {"changed_shortcuts", {place.entry()}}};
  Json document = run(uninstall);
  Names kept = document.at("kept").get<Names>();
  std::sort(kept.begin(), kept.end());
  EXPECT_EQ(kept, (Names{place.data() / "settings.json", place.data() / "userdata"}));
  document["kept"] = Json::array();
  EXPECT_EQ(document, expected);
  EXPECT_EQ(place.state(), player);
  EXPECT_TRUE(std::filesystem::exists(place.entry()));
}

TEST_F(RunSetupCommand, GivesAClientFifteenSecondsToClose) {
  place.install();
  const NativeFileLock running(place.paths().bootstrap_lock, true, NativeLockSharing::none, LockMode::exclusive);
  const testing::TreeState before = testing::without(place.state(), {".ravok-setup.lock"});
  const testing::StillClock clock;
  EXPECT_FAILURE(run(uninstall), "ravok_running",
                 "Ravok or a game from this folder is still running; close it and try again");
  EXPECT_EQ(clock.slept(), std::chrono::seconds(15));
  EXPECT_TRUE(testing::same_tree(testing::without(place.state(), {".ravok-setup.lock"}), before));
}

TEST_F(RunSetupCommand, UninstallsThePlayersDataWhenToldTo) {
  run(install);
  place.write_player_data();
  SetupCommand all = command(uninstall);
  all.remove_data = true;
  const Json expected = {
      {"schema_version", 1},   {"uninstalled", true},       {"data_root", place.data()},         {"data_removed", true},
      {"kept", Json::array()}, {"deferred", Json::array()}, {"changed_shortcuts", Json::array()}};
  EXPECT_EQ(run(all), expected);
  EXPECT_FALSE(std::filesystem::exists(place.data()));
  EXPECT_FALSE(std::filesystem::exists(place.entry()));
}

TEST_F(RunSetupCommand, MakesAndRemovesShortcuts) {
  run(install);
  EXPECT_EQ(run(shortcut_remove),
            (Json{{"schema_version", 1}, {"removed", {place.entry()}}, {"changed", Json::array()}}));
  EXPECT_EQ(run(shortcut_create), (Json{{"schema_version", 1}, {"created", {place.entry()}}}));
  SetupCommand of_game = command(shortcut_create);
  of_game.game = "first-game";
  const std::filesystem::path game_entry = native_menu_entry(place.data(), "first-game", "");
  EXPECT_EQ(run(of_game), (Json{{"schema_version", 1}, {"created", {game_entry}}}));
  change_shortcut();
  EXPECT_EQ(run(shortcut_remove),
            (Json{{"schema_version", 1}, {"removed", {game_entry}}, {"changed", {place.entry()}}}));
  const Json nothing = run(shortcut_remove);
  EXPECT_EQ(nothing, (Json{{"schema_version", 1}, {"removed", Json::array()}, {"changed", Json::array()}}));
  EXPECT_EQ(setup_summary(command(shortcut_remove), nothing), "Removed 0 shortcut(s).");
}

TEST_F(RunSetupCommand, SaysInASentenceWhatItDid) {
  const std::string root = place.data();
  const auto said = [&](SetupCommandKind kind) { return setup_summary(command(kind), run(kind)); };
  EXPECT_EQ(said(status), "Ravok is not installed in " + root + ".");
  EXPECT_EQ(said(install), "Installed Ravok in " + root + ".");
  EXPECT_EQ(said(status), "Ravok is installed in " + root + " (bootstrap build-1, launcher build-1).");
  EXPECT_EQ(said(repair), "Repaired Ravok in " + root + ". Everything was already intact.");
  EXPECT_EQ(said(shortcut_create), "Created 1 shortcut(s).");
  EXPECT_EQ(said(shortcut_remove), "Removed 1 shortcut(s).");
  EXPECT_EQ(said(uninstall), "Removed Ravok from " + root + ".");
}

// In the name of a product, for as long as a test runs.
class SetupSummary : public ::testing::TestWithParam<std::string> {
 protected:
  SetupSummary() { set_product_name(GetParam()); }
  ~SetupSummary() override { set_product_name("Ravok"); }

  static std::string said(SetupCommandKind kind, const Json& changes) {
    Json document = {{"data_root", "/games/Ravok (Ravok)"},
                     {"replaced", {"trust"}},
                     {"shortcut_problem", nullptr},
                     {"installed", true},
                     {"incomplete", false},
                     {"bootstrap_build", "b-1"},
                     {"launcher_build", "l-1"},
                     {"bootstrap_update_pending", false},
                     {"kept", Json::array()},
                     {"deferred", Json::array()},
                     {"changed_shortcuts", Json::array()}};
    document.update(changes);
    return setup_summary(of_kind(kind), document);
  }
};

TEST_P(SetupSummary, OfAnInstall) {
  const std::string in_root = "Installed " + GetParam() + " in /games/Ravok (Ravok).";
  EXPECT_EQ(said(install, Json::object()), in_root);
  EXPECT_EQ(said(install, {{"replaced", Json::array()}}), in_root);
  EXPECT_EQ(said(install, {{"shortcut_problem", "No Ravok here"}}),
            in_root + " The shortcut could not be created: No Ravok here.");
}

TEST_P(SetupSummary, OfARepair) {
  const std::string in_root = "Repaired " + GetParam() + " in /games/Ravok (Ravok).";
  EXPECT_EQ(said(repair, Json::object()), in_root);
  EXPECT_EQ(said(repair, {{"replaced", Json::array()}}), in_root + " Everything was already intact.");
  EXPECT_EQ(said(repair, {{"replaced", Json::array()}, {"shortcut_problem", "No Ravok here"}}),
            in_root + " Everything was already intact. The shortcut could not be created: No Ravok here.");
  EXPECT_EQ(said(repair, {{"shortcut_missing", true}}), in_root + " There is no shortcut; shortcut create makes one.");
  EXPECT_EQ(said(repair, {{"shortcut_missing", true}, {"shortcut_problem", "Oh"}}),
            in_root + " The shortcut could not be created: Oh.");
}

TEST_P(SetupSummary, OfAnUninstall) {
  const std::string from_root = "Removed " + GetParam() + " from /games/Ravok (Ravok).";
  const Json kept = {{"kept", {"/a", "/b"}}};
  EXPECT_EQ(said(uninstall, Json::object()), from_root);
  EXPECT_EQ(said(uninstall, {{"deferred", {"/a"}}}), from_root);
  EXPECT_EQ(said(uninstall, kept), from_root + " Saves and settings were kept.");
  EXPECT_EQ(said(uninstall, {{"changed_shortcuts", {"/a"}}}), from_root + " Changed shortcuts were left in place.");
  EXPECT_EQ(said(uninstall, {{"kept", {"/a"}}, {"changed_shortcuts", {"/a"}}}),
            from_root + " Saves and settings were kept. Changed shortcuts were left in place.");
}

TEST_P(SetupSummary, OfAStatus) {
  const std::string& name = GetParam();
  EXPECT_EQ(said(status, {{"incomplete", true}}), name + " setup did not finish in /games/Ravok (Ravok); run repair.");
  EXPECT_EQ(said(status, {{"incomplete", true}, {"installed", false}}),
            name + " setup did not finish in /games/Ravok (Ravok); run repair.");
  EXPECT_EQ(said(status, {{"installed", false}, {"bootstrap_update_pending", true}}),
            name + " is not installed in /games/Ravok (Ravok).");
  EXPECT_EQ(said(status, Json::object()),
            name + " is installed in /games/Ravok (Ravok) (bootstrap b-1, launcher l-1).");
  EXPECT_EQ(said(status, {{"launcher_build", ""}}),
            name + " is installed in /games/Ravok (Ravok) (bootstrap b-1, launcher not started yet).");
  EXPECT_EQ(said(status, {{"bootstrap_update_pending", true}, {"bootstrap_build", "Ravok"}}),
            name + " is installed in /games/Ravok (Ravok) (bootstrap Ravok, launcher l-1). A " + name +
                " update is applied on the next start.");
}

TEST_P(SetupSummary, OfShortcuts) {
  EXPECT_EQ(said(shortcut_create, {{"created", {"/a"}}}), "Created 1 shortcut(s).");
  EXPECT_EQ(said(shortcut_remove, {{"removed", {"/a", "/b"}}, {"changed", {"/c"}}}), "Removed 2 shortcut(s).");
  EXPECT_EQ(said(shortcut_remove, {{"removed", Json::array()}, {"changed", {"/c"}}}), "Removed 0 shortcut(s).");
}

INSTANTIATE_TEST_SUITE_P(Names, SetupSummary, ::testing::Values("Ravok", "Acme Games"),
                         [](const auto& name) { return name.param == "Ravok" ? "Ravok" : "Brand"; });

}  // namespace
}  // namespace ravok
