#include "app/maintenance/maintenance_entry.hpp"

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "app/brand/brand.hpp"
#include "platform/file/native_lock.hpp"
#include "support/failure.hpp"
#include "support/fast_volume.hpp"
#include "support/install_place.hpp"
#include "support/launcher_place.hpp"
#include "support/process.hpp"
#include "support/temporary_root.hpp"
#include "support/tree_state.hpp"
#include "support/with_environment.hpp"
#include "support/working_directory.hpp"

namespace ravok::maintenance_entry_test {
namespace {

using testing::bytes_of;
using testing::InstallPlace;
using testing::LauncherPlace;
using testing::ProgramResult;
using testing::same_tree;
using testing::TemporaryRoot;
using testing::tree_state;
using testing::TreeState;
using testing::WithEnvironment;
using testing::write_bytes;

using Words = std::vector<std::string>;

constexpr const char* starting = "Ravok is still starting; remove it once it has started";
constexpr const char* no_console = "Start the installed Ravok or use the external installer to remove it";
constexpr const char* no_window = "Start the installed Ravok GUI or use the external installer to review removal";
constexpr const char* other_console = "Maintenance handoff requires this build's verified CLI image";
constexpr const char* other_window = "Maintenance handoff requires this build's verified GUI image";
constexpr const char* in_use = "Another Ravok operation is using this state";
constexpr const char* damaged_helper = "The maintenance helper is damaged; run the Ravok installer to repair it";
constexpr const char* cancelled = "Uninstall cancelled";

const Words self_uninstall = {"self", "uninstall"};

TEST(PrepareConsoleMaintenance, AsksWhetherTheUserStillWants) {
  const LauncherPlace place;
  const Json build = place.add_version("build-1");
  const TreeState before = tree_state(place.root.path());
  EXPECT_FAILURE(prepare_console_maintenance(
                     place.store, build, {}, [] { return true; }, true),
                 "cancelled", cancelled);
  for (const bool observed : {false, true}) {
    EXPECT_NE(prepare_console_maintenance(
                  place.store, build, {}, [] { return false; }, observed),
              nullptr);
    EXPECT_NE(prepare_console_maintenance(place.store, build, {}, {}, observed), nullptr);
  }
  EXPECT_TRUE(same_tree(tree_state(place.root.path()), before));
}

TEST(PrepareConsoleMaintenance, AsksAgainWhenTheHelperHasBeenRead) {
  const LauncherPlace place;
  const Json build = place.add_version("build-1");
  int asked = 0;
  const auto in_the_meantime = [&] { return ++asked == 2; };
  EXPECT_FAILURE(prepare_console_maintenance(place.store, build, {}, in_the_meantime, false), "cancelled", cancelled);
  // A damaged helper is told of before that.
  asked = 0;
  write_bytes(place.store.payload(build) / "bin/helper", "#!other!");
  EXPECT_FAILURE(prepare_console_maintenance(place.store, build, {}, in_the_meantime, false), "content_mismatch",
                 damaged_helper);
  EXPECT_EQ(asked, 1);
}

TEST(PrepareConsoleMaintenance, NeedsTheHelperOfItsRole) {
  const LauncherPlace place;
  const Json build = place.add_version("build-1");
  write_bytes(place.store.payload(build) / "bin/helper", "#!other!");
  EXPECT_FAILURE(prepare_console_maintenance(place.store, build, {}, {}, false), "content_mismatch", damaged_helper);
}

// This test is a program that no store manages.
class UnmanagedClient : public ::testing::Test {
 protected:
  ~UnmanagedClient() override { EXPECT_TRUE(same_tree(tree_state(place.root.path()), before)); }

  int uninstall(const std::function<bool()>& wish = {}) const {
    return run_cli_maintenance(place.root.path(), self_uninstall, wish);
  }
  auto prepare(const std::function<bool()>& wish = {}) const {
    return prepare_gui_maintenance(place.root.path(), {}, wish);
  }

  const LauncherPlace place;
  const Json build = place.add_version("build-1");
  const TreeState before = tree_state(place.root.path());
};

TEST_F(UnmanagedClient, IsToldHowElseItIsRemoved) {
  EXPECT_FAILURE(uninstall(), "maintenance_unavailable", no_console);
  EXPECT_FAILURE(prepare(), "maintenance_unavailable", no_window);
}

TEST_F(UnmanagedClient, IsNotAskedWhetherTheUserStillWants) {
  bool asked = false;
  const auto wish = [&] { return asked = true; };
  EXPECT_FAILURE(uninstall(wish), "maintenance_unavailable", no_console);
  EXPECT_FAILURE(prepare(wish), "maintenance_unavailable", no_window);
  EXPECT_FALSE(asked);
}

TEST_F(UnmanagedClient, HandsNothingOverWhileItIsTriedOut) {
  const WithEnvironment authority("RAVOK_LAUNCHER_HEALTH_NONCE", std::string(32, 'a'));
  EXPECT_FAILURE(uninstall(), "maintenance_unavailable", starting);
  EXPECT_FAILURE(prepare(), "maintenance_unavailable", starting);
}

TEST_F(UnmanagedClient, ExpectsACommandOfMaintenance) {
  for (const Words& arguments : {Words{}, {"--json"}, {"status"}, {"self", "status"}, {"uninstall", "game"}}) {
    EXPECT_FAILURE(run_cli_maintenance(place.root.path(), arguments), "usage", "Expected a native maintenance command");
  }
  EXPECT_FAILURE(run_cli_maintenance({}, {"status"}), "usage", "Expected a native maintenance command");
  EXPECT_FAILURE(run_cli_maintenance(place.root.path(), {"self", "uninstall", "--bogus"}), "usage",
                 "Use self uninstall [--remove-data]");
  EXPECT_FAILURE(run_cli_maintenance(place.root.path(), {"self", "shortcut"}), "usage",
                 "Use self shortcut create [--game GAME] or self shortcut remove");
}

TEST(MaintenanceShortcuts, AreChangedByAnyClientWhichPrintsTheDocument) {
  const InstallPlace place;
  place.install();
  const std::filesystem::path shortcut = native_menu_entry(place.data(), "first-game", "");
  // A client on trial may do this too.
  const WithEnvironment authority("RAVOK_LAUNCHER_HEALTH_NONCE", std::string(32, 'a'));
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(run_cli_maintenance(place.data(), {"self", "shortcut", "create", "--game", "first-game", "--json"}), 0);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            R"({"created":[")" + shortcut.native() + "\"],\"schema_version\":1}\n");
  EXPECT_TRUE(std::filesystem::exists(shortcut));
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(run_cli_maintenance(place.data(), {"self", "shortcut", "remove"}, [] { return true; }), 0);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            R"({"changed":[],"removed":[")" + shortcut.native() + "\"],\"schema_version\":1}\n");
  EXPECT_FALSE(std::filesystem::exists(shortcut));
  set_product_name("Ravok");
}

TEST(MaintenanceShortcuts, TellWhenTheDocumentCannotBeWritten) {
  const InstallPlace place;
  place.install();
  const ProgramResult result = testing::run_program(
      {RAVOK_HANDOFF_COMPANION, {"bare", place.data(), "self", "shortcut", "remove"}, {{"HOME", place.home()}}, ""});
  EXPECT_EQ(result.exit_code, 0);
  const ProgramResult full = testing::run_program({RAVOK_HANDOFF_COMPANION,
                                                   {"bare", place.data(), "self", "shortcut", "remove"},
                                                   {{"HOME", place.home()}},
                                                   "/dev/full"});
  EXPECT_EQ(full.exit_code, 3);
  EXPECT_EQ(full.errors, "output_failed: Cannot write to standard output\n");
}

// A version whose programs are all the companion, each of other bytes.
class RunningClients : public ::testing::Test {
 protected:
  static LauncherPlace make_place() { return LauncherPlace(testing::fast_volume()); }
  static testing::LauncherPrograms programs() {
    const std::string companion = bytes_of(RAVOK_HANDOFF_COMPANION);
    return {companion, companion + " ", companion + "  ", companion + "   "};
  }

  std::string data_root() const { return place.root.path().native(); }
  std::filesystem::path payload() const { return place.store.payload(version); }
  std::filesystem::path program(const std::string& name = "program") const { return payload() / "bin" / name; }

  // What a client says that runs with these words.
  static std::string say(const std::filesystem::path& image, const Words& words, int exit_code = 3,
                         const std::map<std::string, std::string>& environment = {}) {
    const ProgramResult result = testing::run_program({image, words, environment, ""});
    EXPECT_EQ(result.exit_code, exit_code) << result.output;
    EXPECT_EQ(result.errors, "");
    return result.output;
  }
  // What the console's entry says, and that of the window, when both are refused.
  std::string uninstall() const { return say(program(), {"bare", data_root(), "self", "uninstall"}); }
  std::string prepare() const { return say(program("window"), {"gui", data_root()}); }

  // Everything there but the locks, which a refused client may have made, and the bytes of the programs.
  TreeState state() const {
    TreeState state = testing::without(tree_state(place.root / "launcher"), {"bootstrap.lock", "leases", "versions"});
    for (const std::string& name : place.root.names()) {
      if (name.starts_with("launcher/versions")) {
        state.emplace(name, "");
      }
    }
    return state;
  }
  void expect_no_lock_left() const {
    EXPECT_FALSE(testing::is_lock_busy(place.version_lease_path(version)));
    EXPECT_NO_THROW(place.store.owner());
  }

  const LauncherPlace place = make_place();
  const Json version = place.add_version("build-1", programs());
};

TEST_F(RunningClients, BecomeTheHelperWhichFindsNoLockHeld) {
  for (const auto& [words, arguments] : std::map<Words, Words>{
           {{"self", "uninstall"}, {"uninstall", "--data-dir", data_root()}},
           {{"self", "uninstall", "--remove-data"}, {"uninstall", "--data-dir", data_root(), "--remove-data"}},
           {{"--json", "self", "uninstall"}, {"uninstall", "--data-dir", data_root(), "--json"}},
           {{"self", "uninstall", "--json", "--remove-data"},
            {"uninstall", "--data-dir", data_root(), "--remove-data", "--json"}}}) {
    Words all = {"cli", data_root()};
    all.insert(all.end(), words.begin(), words.end());
    const Json told = Json::parse(say(program(), all, 7));
    EXPECT_EQ(told.at("image"), program("helper").native());
    EXPECT_EQ(told.at("directory"), program("helper").parent_path().native());
    EXPECT_EQ(told.at("arguments"), arguments);
    EXPECT_EQ(told.at("environment"), (Json{{"RAVOK_LAUNCHER_BUILD", ""},
                                            {"RAVOK_LAUNCHER_DATA_ROOT", ""},
                                            {"RAVOK_LAUNCHER_HEALTH_NONCE", ""},
                                            {"RAVOK_LAUNCHER_INTERFACE", ""},
                                            {"RAVOK_LAUNCHER_MANIFEST", ""},
                                            {"RAVOK_MAINTENANCE_COPY", ""},
                                            {"RAVOK_MAINTENANCE_READY", ""}}));
    EXPECT_EQ(told.at("free"), (Json{{"owner", true}, {"version", true}}));
  }
}

TEST_F(RunningClients, TellTheHelperAnAbsoluteFolder) {
  const testing::WorkingDirectory working(place.root.path().parent_path());
  const std::string relative = place.root.path().filename();
  const Json told = Json::parse(say(program(), {"cli", relative, "self", "uninstall"}, 7));
  EXPECT_EQ(told.at("arguments"), (Words{"uninstall", "--data-dir", data_root()}));
}

TEST_F(RunningClients, AcceptAnyFormOfTheirFolder) {
  const TemporaryRoot beside;
  std::filesystem::create_directory_symlink(place.root.path(), beside / "link");
  const std::string link = beside / "link";
  const Json told = Json::parse(say(program(), {"cli", link, "self", "uninstall"}, 7));
  EXPECT_EQ(told.at("arguments"), (Words{"uninstall", "--data-dir", link}));
  EXPECT_NE(say(program("window"), {"gui", link}, 0), "");
}

TEST_F(RunningClients, PrepareTheWindowWithoutTheStoresLock) {
  EXPECT_EQ(say(program("window"), {"gui", data_root()}, 0), "{\"owner\":true,\"version\":true}\n");
}

TEST_F(RunningClients, AreTheEntryOfTheirVersionAndNoOtherProgram) {
  const TreeState before = state();
  for (const char* const name : {"window", "helper", "window-helper"}) {
    EXPECT_EQ(say(program(name), {"bare", data_root(), "self", "uninstall"}),
              std::string("launcher_identity: ") + other_console + "\n");
  }
  for (const char* const name : {"program", "helper", "window-helper"}) {
    EXPECT_EQ(say(program(name), {"gui", data_root()}), std::string("launcher_identity: ") + other_window + "\n");
  }
  EXPECT_TRUE(same_tree(state(), before));
  expect_no_lock_left();
}

TEST_F(RunningClients, RemoveNoOtherFolderThanTheirOwn) {
  const TemporaryRoot other;
  for (const std::string& folder : {other.path().native(), (other / "missing").native()}) {
    EXPECT_EQ(say(program(), {"bare", folder, "self", "uninstall"}),
              std::string("launcher_identity: ") + other_console + "\n");
    EXPECT_EQ(say(program("window"), {"gui", folder}), std::string("launcher_identity: ") + other_window + "\n");
  }
  EXPECT_EQ(say(program(), {"bare", "", "self", "uninstall"}),
            std::string("launcher_identity: ") + other_console + "\n");
  EXPECT_TRUE(other.names().empty());
}

TEST_F(RunningClients, HandNothingOverWhileTheyAreTriedOut) {
  const std::map<std::string, std::string> authority = {{"RAVOK_LAUNCHER_HEALTH_NONCE", std::string(32, 'a')}};
  EXPECT_EQ(say(program(), {"bare", data_root(), "self", "uninstall"}, 3, authority),
            std::string("maintenance_unavailable: ") + starting + "\n");
  EXPECT_EQ(say(program("window"), {"gui", data_root()}, 3, authority),
            std::string("maintenance_unavailable: ") + starting + "\n");
}

TEST_F(RunningClients, StopWhenTheUserNoLongerWants) {
  const TreeState before = state();
  for (const char* const time : {"cancelled", "late"}) {
    EXPECT_EQ(say(program(), {time, "cli", data_root(), "self", "uninstall"}),
              std::string("cancelled: ") + cancelled + "\n");
    EXPECT_EQ(say(program("window"), {time, "gui", data_root()}), std::string("cancelled: ") + cancelled + "\n");
  }
  EXPECT_TRUE(same_tree(state(), before));
  expect_no_lock_left();
}

TEST_F(RunningClients, KeepToTheGrammarOfTheClient) {
  EXPECT_EQ(say(program(), {"cli", data_root(), "self", "uninstall", "--remove-data", "--remove-data"}),
            "usage: Use self uninstall [--remove-data]\n");
}

TEST_F(RunningClients, WaitForTheStoreAndThenGiveUp) {
  const auto owner = place.store.owner();
  const TreeState before = state();
  EXPECT_EQ(say(program(), {"still", "bare", data_root(), "self", "uninstall"}), std::string("busy: ") + in_use + "\n");
  EXPECT_EQ(say(program("window"), {"still", "gui", data_root()}), std::string("busy: ") + in_use + "\n");
  EXPECT_TRUE(same_tree(state(), before));
}

TEST_F(RunningClients, LeaveAVersionThatSomebodyRemoves) {
  const auto removal = place.store.version_guard(version, LockMode::exclusive);
  EXPECT_EQ(uninstall(), std::string("busy: ") + in_use + "\n");
  EXPECT_EQ(prepare(), std::string("busy: ") + in_use + "\n");
}

TEST_F(RunningClients, NeedTheManifestOfTheirVersion) {
  const std::filesystem::path manifest = place.manifest_path(version);
  const std::string text = bytes_of(manifest);
  write_bytes(manifest, text + " ");
  EXPECT_EQ(uninstall(), "content_mismatch: Stored launcher manifest changed\n");
  EXPECT_EQ(prepare(), "content_mismatch: Stored launcher manifest changed\n");
  for (const char* const damaged : {"{}", "[]", R"({"build_id": 1})"}) {
    write_bytes(manifest, damaged);
    EXPECT_EQ(uninstall(), "launcher_state: Launcher installation record is malformed; it was preserved\n");
    EXPECT_EQ(prepare(), "launcher_state: Launcher installation record is malformed; it was preserved\n");
  }
  expect_no_lock_left();
}

TEST_F(RunningClients, LeaveADamagedStoreDocumentAlone) {
  const std::filesystem::path document = place.root / "launcher/installation.json";
  place.set("active", version);
  write_bytes(document, "{");
  EXPECT_TRUE(uninstall().starts_with("invalid_json: ")) << uninstall();
  EXPECT_TRUE(prepare().starts_with("invalid_json: ")) << prepare();
  EXPECT_EQ(bytes_of(document), "{");
}

TEST_F(RunningClients, NeedAWholeHelper) {
  for (const char* const name : {"helper", "window-helper"}) {
    write_bytes(program(name), "#!damaged");
  }
  EXPECT_EQ(uninstall(), std::string("content_mismatch: ") + damaged_helper + "\n");
  EXPECT_EQ(prepare(), std::string("content_mismatch: ") + damaged_helper + "\n");
  expect_no_lock_left();
}

TEST_F(RunningClients, StartInNoUnfinishedInstallation) {
  place.root.write(".ravok-setup-incomplete", "{}");
  const std::string refusal = "native_install_incomplete: Ravok setup did not finish in " + data_root() +
                              ". Run the Ravok installer again to repair it.\n"
                              "hint: Run the Ravok installer and choose Repair\n";
  EXPECT_EQ(uninstall(), refusal);
  EXPECT_EQ(prepare(), refusal);
}

TEST_F(RunningClients, AreNeitherStagedNorATemporaryCopy) {
  const std::string staged =
      "launcher_staging: A staged Ravok image cannot initialize; start the installed bootstrap\nhint: self status\n";
  const std::string copied = "maintenance_copy: A temporary maintenance helper cannot start Ravok\n";
  for (const auto& [folder, refusal] :
       std::map<std::string, std::string>{{"launcher/staging/one/bin", staged}, {"ravok-maintenance-1", copied}}) {
    const std::filesystem::path image = place.root.directory(folder) / "program";
    std::filesystem::copy_file(RAVOK_HANDOFF_COMPANION, image);
    EXPECT_EQ(say(image, {"bare", data_root(), "self", "uninstall"}), refusal);
    EXPECT_EQ(say(image, {"gui", data_root()}), refusal);
  }
}

TEST_F(RunningClients, NeedAReleaseThatHasAWindowsHelper) {
  const Json other = place.add_version("build-2", {"#!program", bytes_of(RAVOK_HANDOFF_COMPANION), "#!helper", ""});
  EXPECT_EQ(say(place.store.payload(other) / "bin/window", {"gui", data_root()}),
            "maintenance_unavailable: This Ravok version has no maintenance-gui helper; use the Ravok installer to "
            "uninstall\n");
}

}  // namespace
}  // namespace ravok::maintenance_entry_test
