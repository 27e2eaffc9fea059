#include "app/install/native_install.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "app/brand/theme_folder.hpp"
#include "app/install/setup_marker.hpp"
#include "app/launcher/launcher_store.hpp"
#include "app/launcher/start_marker.hpp"
#include "domain/crypto.hpp"
#include "domain/paths.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/file/native_lock.hpp"
#include "platform/snapshot/complete_install.hpp"
#include "support/desktop_entry.hpp"
#include "support/failure.hpp"
#include "support/file_calls.hpp"
#include "support/icon_builder.hpp"
#include "support/install_place.hpp"
#include "support/mounted_volume.hpp"
#include "support/ordinary_user.hpp"
#include "support/snapshot_builder.hpp"
#include "support/working_directory.hpp"

namespace ravok {
namespace {

using testing::archive_name;
using testing::failure_of;
using testing::InstallPlace;
using testing::meanwhile;
using testing::noise;
using testing::OrdinaryUser;
using testing::Planned;
using testing::same_tree;
using testing::tree_state;
using testing::TreeState;
using testing::utc_now;
using testing::without;

using Names = std::vector<std::string>;
using Paths = std::vector<std::filesystem::path>;

constexpr const char* cancelled_words = "Setup was cancelled";
constexpr const char* busy_words = "Another worker owns this native installation";
constexpr const char* running_words = "Ravok or a game from this folder is still running; close it and try again";
constexpr const char* choose_folder = "Choose an empty folder or an earlier Ravok data folder";
constexpr const char* no_archive = "Snapshot must contain exactly one ordinary Zstandard frame";

class NativeInstall : public ::testing::Test {
 protected:
  std::string in_data(const std::string& words) const { return words + data.native(); }

  std::string launcher_sha256() const { return digest(place.package.launcher.dump(), "sha256"); }
  std::string launcher_program() const { return "launcher/versions/" + launcher_sha256() + "/bin/launcher"; }

  void damage_bootstrap() const { place.write("native/bootstrap/data/notes", "other"); }
  void damage_launcher() const { place.write(launcher_program(), "other"); }
  void damage_trust() const { place.write("trust/root.json", "{"); }
  void damage_all() const {
    damage_bootstrap();
    damage_launcher();
    damage_trust();
  }

  // The state without what every run writes anew, what it may leave, and the locks.
  TreeState lasting() const {
    return without(place.state(),
                   {"native/staging", "native/installation.json", "native/setup-status.json", "native/shortcuts.json",
                    "native/shortcuts.lock", ".ravok-setup.lock", ".native-bootstrap.lock"});
  }

  void expect_status(const std::string& action, const std::string& outcome, const std::string& message) const {
    const Json record = place.record("native/setup-status.json");
    EXPECT_EQ(record.at("action"), action);
    EXPECT_EQ(record.at("outcome"), outcome);
    EXPECT_EQ(record.at("message"), message);
  }

  void forget_status() const { std::filesystem::remove(paths.status_record); }

  // Asks to stop at the `at`th question, and counts the questions.
  void cancel_at(int at) {
    questions = 0;
    place.callbacks.cancelled = [this, at] { return ++questions == at; };
  }

  bool is_locked(const std::filesystem::path& lock) const {
    const auto failure =
        failure_of([&] { NativeFileLock(lock, false, NativeLockSharing::others, LockMode::exclusive); });
    return failure && failure->code == "busy";
  }

  // The folder holds every name of an installation and no other, each of its kind and mode, with the right content.
  void expect_whole_tree() const {
    const std::string version = "launcher/versions/" + launcher_sha256();
    std::vector<std::pair<std::string, std::string>> kinds;
    for (const auto& [path, node] : place.state()) {
      kinds.emplace_back(path, node.substr(0, node.find(' ', 4)));
    }
    const std::vector<std::pair<std::string, std::string>> expected = {
        {".native-bootstrap.lock", "600 file"},
        {".ravok-setup.lock", "600 file"},
        {"launcher", "700 directory"},
        {"launcher/bootstrap.lock", "600 file"},
        {"launcher/download-intents", "700 directory"},
        {"launcher/downloads", "700 directory"},
        {"launcher/health", "700 directory"},
        {"launcher/installation.json", "600 file"},
        {"launcher/intents", "700 directory"},
        {"launcher/leases", "700 directory"},
        {"launcher/leases/attempts", "700 directory"},
        {"launcher/leases/versions", "700 directory"},
        {"launcher/manifests", "700 directory"},
        {"launcher/manifests/" + launcher_sha256() + ".json", "600 file"},
        {"launcher/staging", "700 directory"},
        {"launcher/versions", "700 directory"},
        {version, "700 directory"},
        {version + "/bin", "700 directory"},
        {version + "/bin/launcher", "700 file"},
        {version + "/bin/window", "700 file"},
        {"native", "700 directory"},
        {"native/bootstrap", "700 directory"},
        {"native/bootstrap.json", "600 file"},
        {"native/bootstrap/bin", "700 directory"},
        {"native/bootstrap/bin/ravok-bootstrap", "700 file"},
        {"native/bootstrap/data", "700 directory"},
        {"native/bootstrap/data/notes", "600 file"},
        {"native/brand.ico", "600 file"},
        {"native/brand.png", "600 file"},
        {"native/installation.json", "600 file"},
        {"native/setup-status.json", "600 file"},
        {"native/theme", "700 directory"},
        {"native/theme/badge.bmp", "600 file"},
        {"native/theme/plain.ttf", "600 file"},
        {"native/theme/theme.json", "600 file"},
        {"repository-ca.pem", "600 file"},
        {"repository.json", "600 file"},
        {"trust", "700 directory"},
        {"trust/.lock", "600 file"},
        {"trust/root.json", "600 file"},
    };
    EXPECT_EQ(::testing::PrintToString(kinds), ::testing::PrintToString(expected));
    EXPECT_TRUE(NativeInstaller::status(data).installed);
    EXPECT_FALSE(NativeInstaller::status(data).incomplete);
    EXPECT_EQ(place.read("native/bootstrap/bin/ravok-bootstrap"), "#!bin/ravok-bootstrap");
    EXPECT_EQ(place.read(launcher_program()), "#!bin/launcher");
    EXPECT_EQ(place.read("trust/root.json"), place.package.root);
  }

  void install_unbranded() {
    place.package.brand.reset();
    place.package.featured_game.reset();
    place.republish();
    place.install(true);
  }

  // Seals bytes that are no archive in the place of the archive.
  void spoil_bootstrap_archive() {
    place.package.set_bootstrap_archive(noise(1000));
    place.republish();
  }
  void spoil_launcher_archive() {
    place.package.set_launcher_archive(noise(1000));
    place.republish();
  }

  InstallPlace place;
  const DataPaths& paths = place.paths();
  const std::filesystem::path& data = place.data();
  int questions = 0;
};

const Names all_parts = {"bootstrap", "launcher", "trust"};

// --- A first install ---------------------------------------------------------------------------

TEST_F(NativeInstall, LeavesTheWholeTree) {
  place.install();
  expect_whole_tree();
  EXPECT_EQ(std::filesystem::status(data).permissions(), std::filesystem::perms::owner_all);
  EXPECT_TRUE(same_tree(tree_state(place.home()), TreeState()));
}

TEST_F(NativeInstall, PutsTheBrandWhereTheProgramsLookForIt) {
  place.install();
  const std::string icon = brand_icon_path(data).lexically_relative(data);
  EXPECT_EQ(place.read(icon), *place.package.icon);
  const std::optional<Theme> theme = load_theme(theme_directory(data));
  ASSERT_TRUE(theme);
  EXPECT_EQ(theme->regular_font, place.package.theme_files.at("plain.ttf"));
  place.package.brand.reset();
  place.package.featured_game.reset();
  place.republish();
  place.repair();
  EXPECT_FALSE(std::filesystem::exists(brand_icon_path(data)));
  EXPECT_FALSE(std::filesystem::exists(paths.menu_icon));
  EXPECT_FALSE(std::filesystem::exists(theme_directory(data)));
}

TEST_F(NativeInstall, WritesTheDocumentsOfThePackage) {
  const std::string before = utc_now();
  place.install();
  const testing::InitialPackage& package = place.package;
  EXPECT_EQ(place.read("native/bootstrap.json"), package.bootstrap.dump());
  EXPECT_EQ(place.read("native/bootstrap/bin/ravok-bootstrap"), "#!bin/ravok-bootstrap");
  EXPECT_EQ(place.read("native/bootstrap/data/notes"), "notes");
  EXPECT_EQ(place.read(launcher_program()), "#!bin/launcher");
  EXPECT_EQ(place.read("launcher/manifests/" + launcher_sha256() + ".json"), package.launcher.dump());
  EXPECT_EQ(place.read("trust/root.json"), package.root);
  EXPECT_EQ(place.read("repository-ca.pem"), *package.ca_bundle);
  EXPECT_EQ(place.read("repository.json"), R"({"ca_bundle":")" + (data / "repository-ca.pem").native() +
                                               R"(","origin":"https://games.example","schema_version":1})");
  EXPECT_EQ(place.read("native/brand.ico"), *package.icon);
  EXPECT_EQ(place.read("native/brand.png"), testing::png_image(32, 32));
  EXPECT_EQ(place.read("native/theme/theme.json"), package.theme->dump());
  EXPECT_EQ(place.read("native/theme/plain.ttf"), package.theme_files.at("plain.ttf"));
  EXPECT_EQ(place.read("native/theme/badge.bmp"), package.theme_files.at("badge.bmp"));
  const Json reference = {{"manifest_sha256", launcher_sha256()}, {"build_id", "build-1"}};
  EXPECT_EQ(place.record("launcher/installation.json"), Json({{"schema_version", 1},
                                                              {"format", "ravok-launcher-store-v1"},
                                                              {"generation", 1},
                                                              {"active", nullptr},
                                                              {"rollback", nullptr},
                                                              {"candidate", reference},
                                                              {"attempt", nullptr},
                                                              {"failed_candidate", nullptr}}));
  const std::string installed_at = place.record("native/installation.json").at("installed_at").get<std::string>();
  const std::string finished_at = place.record("native/setup-status.json").at("finished_at").get<std::string>();
  EXPECT_EQ(place.read("native/installation.json"),
            R"({"brand":{"icon":true,"id":"acme","name":"Acme Games","publisher":"Acme"},"descriptor_sha256":")" +
                place.seal() + R"(","installed_at":")" + installed_at +
                R"(","kind":"ravok-installation","origin":"https://games.example","schema_version":1})");
  EXPECT_EQ(place.read("native/setup-status.json"),
            R"({"action":"install","finished_at":")" + finished_at +
                R"(","kind":"ravok-setup-status","message":"","outcome":"succeeded","schema_version":1})");
  EXPECT_LE(before, installed_at);
  EXPECT_LE(installed_at, finished_at);
  EXPECT_LE(finished_at, utc_now());
}

TEST_F(NativeInstall, TellsWhatItHasDone) {
  place.package.featured_game.reset();
  place.republish();
  const NativeInstallResult result = place.install(true);
  EXPECT_EQ(result.data_root, data);
  EXPECT_EQ(result.executable, data / "native/bootstrap/bin/ravok-bootstrap");
  EXPECT_FALSE(result.repaired);
  EXPECT_EQ(result.replaced, all_parts);
  EXPECT_EQ(result.shortcuts, Paths{place.entry()});
  EXPECT_EQ(result.shortcut_problem, "");
  EXPECT_EQ(result.to_json(), Json({{"schema_version", 1},
                                    {"installed", true},
                                    {"repaired", false},
                                    {"data_root", data.native()},
                                    {"bootstrap", (data / "native/bootstrap/bin/ravok-bootstrap").native()},
                                    {"replaced", {"bootstrap", "launcher", "trust"}},
                                    {"shortcuts", {place.entry().native()}},
                                    {"shortcut_problem", nullptr}}));
}

TEST_F(NativeInstall, NormalisesTheChoiceOfAFolder) {
  const NativeInstallRequest request = {place.package_directory(), data / "../x/.././data"};
  EXPECT_EQ(NativeInstaller::install(request, place.seal(), {}).data_root, data);
  EXPECT_TRUE(NativeInstaller::status(data).installed);
}

TEST_F(NativeInstall, OfABarePackageLeavesOutWhatThatHasNot) {
  place.package.ca_bundle.reset();
  place.package.brand.reset();
  place.package.featured_game.reset();
  place.republish();
  place.install();
  const TreeState state = place.state();
  for (const char* name : {"repository-ca.pem", "native/brand.ico", "native/brand.png", "native/theme"}) {
    EXPECT_FALSE(state.contains(name)) << name;
  }
  EXPECT_EQ(place.read("repository.json"), R"({"ca_bundle":"","origin":"https://games.example","schema_version":1})");
  EXPECT_FALSE(place.record("native/installation.json").contains("brand"));
}

TEST_F(NativeInstall, ReportsVerifyingAndThenInstalling) {
  std::vector<std::tuple<std::string, std::uint64_t, std::uint64_t>> reports;
  place.callbacks.progress = [&](std::string_view phase, std::uint64_t done, std::uint64_t total) {
    reports.emplace_back(phase, done, total);
    if (phase == "verifying") {
      EXPECT_FALSE(std::filesystem::exists(data));
    }
  };
  place.install();
  ASSERT_FALSE(reports.empty());
  EXPECT_EQ(reports.front(), std::make_tuple("verifying", 0, 0));
  const auto phase_of = [](const auto& report) { return std::get<0>(report); };
  const auto installing = std::find_if(reports.begin(), reports.end(),
                                       [&](const auto& report) { return phase_of(report) == "installing"; });
  ASSERT_NE(installing, reports.end());
  EXPECT_TRUE(std::all_of(reports.begin(), installing, [&](const auto& r) { return phase_of(r) == "verifying"; }));
  EXPECT_TRUE(std::all_of(installing, reports.end(), [&](const auto& r) { return phase_of(r) == "installing"; }));
  const auto& last_verified = *(installing - 1);
  EXPECT_GT(std::get<2>(last_verified), 0u);
  EXPECT_EQ(std::get<1>(last_verified), std::get<2>(last_verified));
}

TEST_F(NativeInstall, HoldsBothLocksUntilTheCommitIsDone) {
  std::vector<bool> held;
  place.callbacks.progress = [&](std::string_view phase, std::uint64_t, std::uint64_t) {
    if (phase == "installing") {
      held.push_back(is_locked(paths.setup_lock) && is_locked(paths.bootstrap_lock));
    }
  };
  place.install();
  EXPECT_FALSE(held.empty());
  EXPECT_EQ(std::count(held.begin(), held.end(), false), 0);
  EXPECT_FALSE(is_locked(paths.setup_lock));
  EXPECT_FALSE(is_locked(paths.bootstrap_lock));
}

// --- What is refused before anything is written -------------------------------------------------

TEST_F(NativeInstall, RefusesAnotherSeal) {
  const NativeInstallRequest request = {place.package_directory(), data};
  EXPECT_FAILURE(NativeInstaller::install(request, std::string(64, 'a'), {}), "native_install_trust",
                 "This package is not the one this installer was built for");
  EXPECT_FALSE(std::filesystem::exists(data));
}

TEST_F(NativeInstall, RefusesABadChoiceOfAFolder) {
  const auto install_in = [&](const std::filesystem::path& folder) {
    NativeInstaller::install({place.package_directory(), folder}, place.seal(), {});
  };
  EXPECT_FAILURE(install_in(""), "unsafe_path", "Choose a data folder");
  EXPECT_FAILURE(install_in("/"), "unsafe_path", "The data folder cannot be a filesystem root");
  EXPECT_FAILURE(install_in(data / ""), "unsafe_path", "The data folder cannot be a filesystem root");
  std::filesystem::create_directory_symlink(place.root().directory("elsewhere"), data);
  EXPECT_FAILURE(place.install(), "unsafe_path", "The data folder cannot be a symbolic link");
  EXPECT_TRUE(same_tree(tree_state(place.root() / "elsewhere"), TreeState()));
}

TEST_F(NativeInstall, RefusesAFolderThatNoLauncherStartsFrom) {
  constexpr const char* not_utf8 = "The path of the data folder must be valid UTF-8";
  constexpr const char* other = "The path of the data folder must hold no backslash and no colon";
  NativeInstallRequest request;
  request.package = place.package_directory();
  const Names before = place.root().names();
  for (const auto& [folder, message] :
       {std::pair("\xff", not_utf8), {"a\\b", other}, {"a\\/data", other}, {"a:b", other}, {":/data", other}}) {
    request.data_root = place.root() / folder;
    for (const bool repair : {false, true}) {
      request.repair = repair;
      EXPECT_FAILURE(NativeInstaller::install(request, place.seal(), {}), "unsafe_path", message);
    }
    EXPECT_EQ(place.root().names(), before) << folder;
  }
}

TEST_F(NativeInstall, KeepsPackageAndDataApart) {
  constexpr const char* overlap = "The package and data folders overlap";
  const std::filesystem::path package = place.package_directory();
  const TreeState before = tree_state(place.root().path());
  for (const bool repair : {false, true}) {
    for (const auto& folder : Paths{package, package / "data", package / "deeper/data", place.root().path()}) {
      EXPECT_FAILURE(NativeInstaller::install({package, folder, repair}, place.seal(), {}), "unsafe_path", overlap)
          << folder;
    }
  }
  EXPECT_TRUE(same_tree(tree_state(place.root().path()), before));
}

TEST_F(NativeInstall, RefusesARepairWhereNothingIsInstalled) {
  const std::string words = in_data("Ravok is not installed in ");
  EXPECT_FAILURE(place.repair(), "not_installed", words);
  EXPECT_FALSE(std::filesystem::exists(data));
  place.write_player_data();
  place.write("native/bootstrap.json", "{}");
  place.write("native/staging/x", "");
  const TreeState before = place.state();
  EXPECT_FAILURE(place.repair(), "not_installed", words);
  EXPECT_TRUE(same_tree(place.state(), before));
}

TEST_F(NativeInstall, RefusesASecondInstall) {
  place.write_player_data();
  place.install();
  std::filesystem::remove(paths.setup_lock);
  const TreeState before = place.state();
  EXPECT_FAILURE(place.install(), "already_installed", in_data("Ravok is already installed in ") + "; use repair");
  EXPECT_TRUE(same_tree(place.state(), before));
}

TEST_F(NativeInstall, RefusesADamagedRecordBeforeAnyLock) {
  place.write_player_data();
  place.install();
  const std::vector<std::pair<std::string, std::string>> damages = {
      {"{", "Installation record is malformed: "},
      {R"({"schema_version":2,"kind":"ravok-installation"})", "Unsupported installation record "}};
  const NativeFileLock other(paths.setup_lock, true, NativeLockSharing::others, LockMode::exclusive);
  for (const auto& [text, words] : damages) {
    place.write("native/installation.json", text);
    const TreeState before = place.state();
    const std::string message = words + paths.installation_record.native();
    EXPECT_FAILURE(place.install(), "unsupported_schema", message);
    EXPECT_FAILURE(place.repair(), "unsupported_schema", message);
    EXPECT_TRUE(same_tree(place.state(), before));
  }
}

TEST_F(NativeInstall, RepairsADamagedRecordOnceTheMarkerStands) {
  place.install();
  place.write("native/installation.json", "{");
  write_setup_marker(HeldDirectory::open_private(paths.root));
  EXPECT_EQ(place.repair().replaced, Names());
  EXPECT_EQ(place.record("native/installation.json").at("descriptor_sha256"), place.seal());
  EXPECT_TRUE(NativeInstaller::status(data).installed);
}

TEST_F(NativeInstall, InstallsAnewWhereTheRecordIsGone) {
  const TreeState player = place.write_player_data();
  place.install();
  std::filesystem::remove(paths.installation_record);
  EXPECT_FAILURE(place.repair(), "not_installed", in_data("Ravok is not installed in "));
  EXPECT_EQ(place.install().replaced, all_parts);
  EXPECT_TRUE(same_tree(place.player_data(), player));
}

TEST_F(NativeInstall, RefusesAFolderOfOtherThings) {
  place.write("notes.txt", "notes");
  TreeState before = place.state();
  EXPECT_FAILURE(place.install(), "unsafe_path", choose_folder);
  EXPECT_TRUE(same_tree(place.state(), before));
  place.write(".ravok-setup.lock", "");
  place.write("trust/root.json", "{}");
  place.write("repository.json", "{}");
  before = place.state();
  EXPECT_FAILURE(place.install(), "unsafe_path", choose_folder);
  EXPECT_TRUE(same_tree(place.state(), before));
}

TEST_F(NativeInstall, RefusesAFileInPlaceOfAFolder) {
  place.root().write("data", "a file");
  EXPECT_FAILURE(place.install(), "unsafe_path", choose_folder);
  EXPECT_FAILURE(place.repair(), "not_installed", in_data("Ravok is not installed in "));
  EXPECT_EQ(place.root().read("data"), "a file");
}

TEST_F(NativeInstall, RefusesAFolderBehindALink) {
  place.root().directory("elsewhere");
  const OrdinaryUser user(place.root());
  std::filesystem::create_directory_symlink("elsewhere", place.root() / "link");
  EXPECT_FAILURE(NativeInstaller::install({place.package_directory(), place.root() / "link/data"}, place.seal(), {}),
                 "unsafe_path", "Linux directory ancestry is missing or linked");
  EXPECT_TRUE(same_tree(tree_state(place.root() / "elsewhere"), TreeState()));
}

TEST_F(NativeInstall, TakesAnEmptyFolder) {
  std::filesystem::create_directory(data);
  std::filesystem::permissions(data, std::filesystem::perms(0755));
  EXPECT_EQ(place.install().replaced, all_parts);
  expect_whole_tree();
  EXPECT_EQ(std::filesystem::status(data).permissions(), std::filesystem::perms::owner_all);
}

TEST_F(NativeInstall, TakesAFolderThatHoldsTheSetupLockAlone) {
  place.write(".ravok-setup.lock", "");
  EXPECT_EQ(place.install().replaced, all_parts);
  expect_whole_tree();
}

TEST_F(NativeInstall, TakesAnEarlierDataFolderWithWhateverElseIsThere) {
  for (const std::string entry : {"native", "launcher", "userdata", "settings.json"}) {
    const InstallPlace other;
    other.write("notes.txt", "notes");
    other.write(entry == "settings.json" ? entry : entry + "/own", "own");
    EXPECT_EQ(other.install().replaced, all_parts) << entry;
    EXPECT_EQ(other.read("notes.txt"), "notes");
    EXPECT_EQ(other.state().contains("launcher/own"), false);
    if (entry != "launcher") {
      EXPECT_EQ(other.read(entry == "settings.json" ? entry : entry + "/own"), "own");
    }
  }
}

TEST_F(NativeInstall, KeepsThePlayersDataByteForByte) {
  const TreeState player = place.write_player_data();
  place.install();
  EXPECT_TRUE(same_tree(place.player_data(), player));
  damage_all();
  EXPECT_EQ(place.repair().replaced, all_parts);
  EXPECT_TRUE(same_tree(place.player_data(), player));
}

// --- Locks and running clients -----------------------------------------------------------------

TEST_F(NativeInstall, FailsAtOnceWhileAnotherSetupRuns) {
  const TreeState player = place.write_player_data();
  place.write("native/staging/x", "of the other");
  const NativeFileLock other(paths.setup_lock, true, NativeLockSharing::others, LockMode::exclusive);
  const TreeState before = place.state();
  EXPECT_FAILURE(place.install(), "busy", busy_words);
  EXPECT_TRUE(same_tree(place.state(), before));
  EXPECT_TRUE(same_tree(place.player_data(), player));
}

TEST_F(NativeInstall, TakesTheSetupLockFirst) {
  place.write_player_data();
  const NativeFileLock other(paths.setup_lock, true, NativeLockSharing::others, LockMode::exclusive);
  const NativeFileLock client(paths.bootstrap_lock, true, NativeLockSharing::none, LockMode::shared);
  const TreeState before = place.state();
  EXPECT_FAILURE(place.install(), "busy", busy_words);
  EXPECT_TRUE(same_tree(place.state(), before));
}

TEST_F(NativeInstall, MakesItsShortcutWithoutALock) {
  place.package.featured_game.reset();
  place.republish();
  bool held = true;
  // The first new file is the launcher's manifest, the second the shortcut.
  const Planned plan(meanwhile(
      "link",
      [&] {
        EXPECT_TRUE(std::filesystem::is_directory(place.entry().parent_path()));
        held = is_locked(paths.setup_lock) || is_locked(paths.bootstrap_lock);
      },
      2));
  EXPECT_EQ(place.install(true).shortcuts, Paths{place.entry()});
  EXPECT_FALSE(held);
}

TEST_F(NativeInstall, RecordsARepairThatFoundAnotherSetup) {
  place.install();
  place.write("native/staging/x", "of the other");
  const NativeFileLock other(paths.setup_lock, true, NativeLockSharing::others, LockMode::exclusive);
  const TreeState before = without(place.state(), {"native/setup-status.json"});
  EXPECT_FAILURE(place.repair(), "busy", busy_words);
  EXPECT_TRUE(same_tree(without(place.state(), {"native/setup-status.json"}), before));
  expect_status("repair", "failed", busy_words);
}

TEST_F(NativeInstall, RemovesTheEmptyFolderThatItMadeWithoutALock) {
  std::filesystem::create_directory(place.root() / "volume");
  const testing::MountedVolume volume(place.root() / "volume", "tmpfs", "nr_inodes=2");
  if (!volume.mounted()) {
    GTEST_SKIP() << "no volume can be mounted here";
  }
  const NativeInstallRequest request = {place.package_directory(), place.root() / "volume/data"};
  EXPECT_FAILURE(NativeInstaller::install(request, place.seal(), {}), "lock_failed",
                 "Native ownership requires an ordinary empty private file");
  EXPECT_TRUE(same_tree(tree_state(place.root() / "volume"), TreeState()));
}

TEST_F(NativeInstall, FailsAtOnceWithARunningClient) {
  place.install();
  damage_all();
  const TreeState before = lasting();
  const NativeFileLock client(paths.bootstrap_lock, false, NativeLockSharing::none, LockMode::shared);
  EXPECT_FAILURE(place.repair(), "ravok_running", running_words);
  EXPECT_TRUE(same_tree(lasting(), before));
  expect_status("repair", "failed", running_words);
  EXPECT_FALSE(is_locked(paths.setup_lock));
  EXPECT_FALSE(NativeInstaller::status(data).incomplete);
}

TEST_F(NativeInstall, FailsAtOnceWithARunningGame) {
  place.install();
  damage_all();
  const FileLock game(paths.launcher / "leases/versions/game", false, LockMode::shared);
  const TreeState before = lasting();
  EXPECT_FAILURE(place.repair(), "ravok_running", running_words);
  EXPECT_TRUE(same_tree(lasting(), before));
  expect_status("repair", "failed", running_words);
  EXPECT_FALSE(is_locked(paths.bootstrap_lock));
}

TEST_F(NativeInstall, IntoAnEarlierFolderWithARunningClientKeepsThePlayersData) {
  place.write_player_data();
  const NativeFileLock client(paths.bootstrap_lock, true, NativeLockSharing::none, LockMode::shared);
  const TreeState before = place.state();
  EXPECT_FAILURE(place.install(), "ravok_running", running_words);
  EXPECT_TRUE(same_tree(place.state(), before));
}

TEST_F(NativeInstall, TellsWhyTheLeasesCannotBeAskedFor) {
  place.install();
  damage_trust();
  const OrdinaryUser user(place.root());
  const std::filesystem::path leases = paths.launcher / "leases/versions";
  const testing::WithMode closed(leases, 0);
  const std::string words = "Cannot open " + leases.native() + ": Permission denied";
  EXPECT_FAILURE(place.repair(), "permissions", words);
  expect_status("repair", "failed", words);
}

// --- A failed install --------------------------------------------------------------------------

TEST_F(NativeInstall, ThatFailsInANewFolderLeavesNothing) {
  spoil_bootstrap_archive();
  const TreeState before = tree_state(place.root().path());
  EXPECT_FAILURE(place.install(true), "archive", no_archive);
  EXPECT_TRUE(same_tree(tree_state(place.root().path()), before));
}

TEST_F(NativeInstall, ThatFailsAtTheLauncherLeavesNothing) {
  spoil_launcher_archive();
  const TreeState before = tree_state(place.root().path());
  EXPECT_FAILURE(place.install(true), "archive", no_archive);
  EXPECT_TRUE(same_tree(tree_state(place.root().path()), before));
}

TEST_F(NativeInstall, ThatFailsInAnEarlierFolderKeepsWhatWasThere) {
  place.write_player_data();
  place.write("launcher/old", "old");
  place.write("trust/old", "old");
  place.write("notes.txt", "notes");
  const TreeState before = place.state();
  spoil_launcher_archive();
  EXPECT_FAILURE(place.install(), "archive", no_archive);
  EXPECT_TRUE(same_tree(place.state(), before));
}

TEST_F(NativeInstall, ThatFailsTakesTheNativeFolderOfNoInstallation) {
  const TreeState player = place.write_player_data();
  place.write("native/bootstrap/x", "");
  place.write(".native-bootstrap.lock", "");
  spoil_bootstrap_archive();
  EXPECT_FAILURE(place.install(), "archive", no_archive);
  EXPECT_TRUE(same_tree(place.state(), player));
}

TEST_F(NativeInstall, ThatFailsOverAnInterruptedOneKeepsAllButStaging) {
  place.write_player_data();
  place.install();
  for (const bool recorded : {true, false}) {
    write_setup_marker(HeldDirectory::open_private(paths.root));
    if (!recorded) {
      std::filesystem::remove(paths.installation_record);
    }
    place.write("native/staging/old-trust/root.json", "old");
    const TreeState before = without(place.state(), {"native/staging"});
    spoil_bootstrap_archive();
    EXPECT_FAILURE(place.install(), "archive", no_archive);
    EXPECT_TRUE(same_tree(place.state(), before));
  }
}

TEST_F(NativeInstall, CancelledAtAnyQuestionLeavesNothing) {
  cancel_at(0);
  place.install();
  const int all = questions;
  std::filesystem::remove_all(data);
  const TreeState before = tree_state(place.root().path());
  ASSERT_GE(all, 3);
  for (int at = 1; at <= all; ++at) {
    cancel_at(at);
    EXPECT_FAILURE(place.install(true), "cancelled", cancelled_words) << at;
    EXPECT_EQ(questions, at);
    EXPECT_TRUE(same_tree(tree_state(place.root().path()), before)) << at;
  }
}

TEST_F(NativeInstall, CancelledAtAnyQuestionKeepsAnEarlierDataFolder) {
  cancel_at(0);
  place.install();
  const int all = questions;
  std::filesystem::remove_all(data);
  place.write_player_data();
  place.write("launcher/old", "old");
  place.write("trust/root.json", "old");
  const TreeState before = place.state();
  for (int at = 1; at <= all; ++at) {
    cancel_at(at);
    EXPECT_FAILURE(place.install(), "cancelled", cancelled_words) << at;
    EXPECT_TRUE(same_tree(place.state(), before)) << at;
  }
}

// Whoever copies saves into the new folder while setup works in it gets them back.
TEST_F(NativeInstall, CancelledKeepsWhatThePlayerHasPutThereMeanwhile) {
  for (const bool is_missing_before : {true, false}) {
    std::filesystem::remove_all(data);
    if (!is_missing_before) {
      std::filesystem::create_directory(data);
    }
    bool is_put = false;
    place.callbacks.progress = [&](std::string_view phase, std::uint64_t, std::uint64_t) {
      if (phase == "installing") {
        place.write("userdata/save", "a long way");
        place.write("notes.txt", "notes");
        is_put = true;
      }
    };
    place.callbacks.cancelled = [&] { return is_put; };
    EXPECT_FAILURE(place.install(), "cancelled", cancelled_words);
    EXPECT_EQ(place.read("userdata/save"), "a long way");
    EXPECT_EQ(place.read("notes.txt"), "notes");
    const TreeState left = place.state();
    EXPECT_EQ(left.size(), 3u) << ::testing::PrintToString(left);
  }
  place.callbacks = {};
  EXPECT_NO_THROW(place.install());
}

TEST_F(NativeInstall, ThatFailsInItsCommitKeepsWhatThePlayerHasPutThereMeanwhile) {
  int taken_back = 0;
  bool happened = true;
  for (int count = 1; happened; ++count) {
    std::filesystem::remove_all(data);
    bool is_put = false;
    place.callbacks.progress = [&](std::string_view phase, std::uint64_t, std::uint64_t) {
      if (phase == "installing" && !is_put) {
        is_put = true;
        place.write("userdata/save", "a long way");
        place.write("notes.txt", "notes");
      }
    };
    const Planned plan(testing::failing("rename", EIO, count));
    const bool failed = failure_of([&] { place.install(); }).has_value();
    happened = plan.happened();
    EXPECT_TRUE(!is_put || place.read("userdata/save") == "a long way") << count;
    EXPECT_TRUE(!is_put || place.read("notes.txt") == "notes") << count;
    if (failed && is_put && !std::filesystem::exists(paths.installation_record)) {
      ++taken_back;
      EXPECT_EQ(place.state().size(), 3u) << count << ::testing::PrintToString(place.state());
    }
  }
  EXPECT_GE(taken_back, 5);
}

// Its path tells nothing of it any more, so its marker must.
TEST_F(NativeInstall, ThatFailsForAFolderMovedInItsCommitKeepsItsMarker) {
  const std::filesystem::path aside = place.root() / "aside";
  int kept = 0;
  for (const char* call : {"create", "rename", "fsync"}) {
    bool happened = true;
    for (int count = 1; happened; ++count) {
      std::filesystem::remove_all(data);
      std::filesystem::remove_all(aside);
      place.write_player_data();
      bool failed = false;
      {
        const Planned plan(meanwhile(
            call, [&] { std::filesystem::rename(data, aside); }, count));
        failed = failure_of([&] { place.install(); }).has_value();
        happened = plan.happened();
      }
      const DataPaths moved(aside);
      if (failed && is_there(moved.launcher) && !is_there(moved.installation_record)) {
        ++kept;
        EXPECT_TRUE(is_there(moved.incomplete_marker)) << call << count;
      }
    }
  }
  EXPECT_GE(kept, 3);
}

TEST_F(NativeInstall, CancelledLeavesNothingOfAMarkerWhoseWriteWasEnded) {
  cancel_at(0);
  place.install();
  const int all = questions;
  std::filesystem::remove_all(data);
  for (int at = 1; at <= all; ++at) {
    place.write("native/staging/bootstrap/x", "");
    place.write(".ravok-setup-incomplete." + std::string(32, 'a') + ".tmp", "{");
    place.write(".ravok-setup-incomplete.aa.tmp", "another's");
    cancel_at(at);
    EXPECT_FAILURE(place.install(), "cancelled", cancelled_words) << at;
    // Cancelled before it has looked at the folder, it changes nothing.
    if (place.state().contains("native")) {
      EXPECT_TRUE(place.state().contains("native/staging/bootstrap/x")) << at;
      std::filesystem::remove_all(paths.native);
    } else {
      EXPECT_EQ(place.state().size(), 1u) << at;
    }
    EXPECT_EQ(place.read(".ravok-setup-incomplete.aa.tmp"), "another's") << at;
  }
  EXPECT_FALSE(place.state().contains(".native-bootstrap.lock"));
}

// Whatever could not be removed once, the next install takes the folder.
TEST_F(NativeInstall, CancelledLeavesAFolderThatIsTakenAgainWhateverStays) {
  enum class Start { missing, missing_but_shared, empty, begun };
  const auto begun_marker = [](char c) { return ".ravok-setup-incomplete." + std::string(32, c) + ".tmp"; };
  for (const Start start : {Start::missing, Start::missing_but_shared, Start::empty, Start::begun}) {
    std::set<std::string> stayed;
    bool happened = true;
    for (int count = 1; happened; ++count) {
      std::filesystem::remove_all(data);
      if (start == Start::empty || start == Start::begun) {
        std::filesystem::create_directory(data);
      }
      if (start == Start::begun) {
        place.write("native/staging/bootstrap/x", "");
        place.write(begun_marker('a'), "{");
        place.write(begun_marker('b'), "{");
      }
      place.callbacks.cancelled = [&] {
        const bool is_prepared = std::filesystem::exists(paths.staging / "trust/root.json");
        if (is_prepared && start == Start::missing_but_shared) {
          place.write("launcher/x", "");
        }
        return is_prepared;
      };
      {
        const Planned plan(testing::failing("unlink", EIO, count));
        EXPECT_TRUE(failure_of([&] { place.install(); }).has_value());
        happened = plan.happened();
      }
      for (const std::string& name : {name_of(paths.bootstrap_lock), begun_marker('a'), begun_marker('b')}) {
        if (std::filesystem::exists(data / name)) {
          stayed.insert(name);
          EXPECT_FALSE(std::filesystem::exists(paths.staging)) << count;
        }
      }
      place.callbacks = {};
      EXPECT_NO_THROW(place.install()) << count;
      EXPECT_TRUE(NativeInstaller::status(data).installed) << count;
    }
    EXPECT_EQ(stayed.size(), start == Start::begun ? 3u : 1u);
  }
}

TEST_F(NativeInstall, RefusedForALockThatIsNoneKeepsWhatMarksTheFolder) {
  private_directory(paths.native);
  place.write(".native-bootstrap.lock", "of another");
  const TreeState before = place.state();
  EXPECT_FAILURE(place.install(), "lock_failed", "Native ownership requires an ordinary empty private file");
  EXPECT_TRUE(same_tree(place.state(), before));
}

// Its programs may lie there, though no record says so.
TEST_F(NativeInstall, RefusedForARunningClientKeepsAllOfIt) {
  place.write_player_data();
  place.write("native/bootstrap/bin/program", "running");
  const TreeState before = place.state();
  {
    const NativeFileLock client(paths.bootstrap_lock, true, NativeLockSharing::none, LockMode::shared);
    EXPECT_FAILURE(place.install(), "ravok_running", running_words);
    EXPECT_EQ(place.read("native/bootstrap/bin/program"), "running");
    // Without its file, its lock would keep nobody out.
    EXPECT_TRUE(client.matches_path(paths.bootstrap_lock));
  }
  std::filesystem::remove(paths.bootstrap_lock);
  EXPECT_TRUE(same_tree(place.state(), before));
  place.write("launcher/leases/versions/game", "");
  const TreeState with_lease = place.state();
  const FileLock game(paths.launcher / "leases/versions/game", false, LockMode::shared);
  EXPECT_FAILURE(place.install(), "ravok_running", running_words);
  EXPECT_TRUE(same_tree(place.state(), with_lease));
}

TEST_F(NativeInstall, IsLastAskedBeforeAnythingIsChanged) {
  place.install();
  damage_all();
  const TreeState before = lasting();
  std::vector<bool> untouched;
  place.callbacks.cancelled = [&] {
    untouched.push_back(lasting() == before && installation_state(paths) != InstallationState::interrupted);
    return false;
  };
  place.callbacks.progress = [&](std::string_view, std::uint64_t, std::uint64_t) {
    untouched.push_back(lasting() == before && installation_state(paths) != InstallationState::interrupted);
  };
  EXPECT_EQ(place.repair().replaced, all_parts);
  EXPECT_GE(untouched.size(), 5u);
  EXPECT_EQ(std::count(untouched.begin(), untouched.end(), false), 0);
  EXPECT_FALSE(same_tree(lasting(), before));
}

// What somebody does to the folder once all parts are prepared, and before any of them is put into its place.
class NativeInterference : public NativeInstall {
 protected:
  NativeInterference() {
    player = place.write_player_data();
    place.install();
    damage_all();
  }

  void interfere(std::function<void()> event) {
    place.callbacks.cancelled = [this, event = std::move(event)] {
      if (std::filesystem::exists(paths.staging / "trust/root.json")) {
        event();
      }
      return false;
    };
  }

  TreeState player;
};

TEST_F(NativeInterference, WithTheScratchFolderIsRefused) {
  interfere([&] { place.write("native/staging/mine", "mine"); });
  const TreeState before = lasting();
  EXPECT_FAILURE(place.repair(), "unsafe_path",
                 in_data("Setup cannot clear ") + "/native/staging/mine; remove it and try again");
  EXPECT_TRUE(same_tree(lasting(), before));
  EXPECT_NE(installation_state(paths), InstallationState::interrupted);
}

TEST_F(NativeInterference, WithAFolderThatIsReplacedIsRefused) {
  for (const auto& folder : Paths{paths.staging, paths.native, data}) {
    SCOPED_TRACE(folder);
    const std::filesystem::path aside = place.root() / "aside";
    TreeState before;
    interfere([&] {
      before = lasting();
      std::filesystem::rename(folder, aside);
      private_directory(folder);
    });
    EXPECT_FAILURE(place.repair(), "unsafe_path", "The data folder was changed while setup worked in it");
    std::filesystem::remove_all(folder);
    std::filesystem::rename(aside, folder);
    std::filesystem::remove_all(paths.staging);
    EXPECT_TRUE(same_tree(lasting(), before));
    EXPECT_TRUE(same_tree(place.player_data(), player));
    EXPECT_NE(installation_state(paths), InstallationState::interrupted);
  }
}

TEST_F(NativeInstall, IsAskedBehindEachPartThatItPrepares) {
  const auto prepared = [&](const char* path) { return std::filesystem::exists(paths.staging / path); };
  bool behind_bootstrap = false;
  bool behind_launcher = false;
  bool behind_trust = false;
  bool reported = false;
  place.callbacks.progress = [&](std::string_view, std::uint64_t, std::uint64_t) { reported = true; };
  place.callbacks.cancelled = [&] {
    if (!std::exchange(reported, false)) {
      const bool launcher = prepared("launcher-root/launcher/installation.json");
      behind_bootstrap = behind_bootstrap || (prepared("bootstrap/data/notes") && !prepared("launcher-root"));
      behind_launcher = behind_launcher || (launcher && !prepared("trust"));
      behind_trust = behind_trust || (launcher && prepared("trust/root.json"));
    }
    return false;
  };
  place.install();
  EXPECT_TRUE(behind_bootstrap);
  EXPECT_TRUE(behind_launcher);
  EXPECT_TRUE(behind_trust);
}

TEST_F(NativeInstall, CancelledRepairKeepsAllAndIsRecorded) {
  place.write_player_data();
  place.install();
  damage_all();
  const TreeState damaged = lasting();
  cancel_at(0);
  place.repair();
  const int all = questions;
  damage_all();
  ASSERT_TRUE(same_tree(lasting(), damaged));
  bool reported = false;
  std::string phase;
  place.callbacks.progress = [&](std::string_view now, std::uint64_t, std::uint64_t) {
    phase = now;
    reported = true;
  };
  int recorded = 0;
  for (int at = 1; at <= all; ++at) {
    forget_status();
    bool verifying = false;
    questions = 0;
    place.callbacks.cancelled = [&] {
      verifying = std::exchange(reported, false) && phase == "verifying";
      return ++questions == at;
    };
    EXPECT_FAILURE(place.repair(), "cancelled", cancelled_words) << at;
    EXPECT_TRUE(same_tree(lasting(), damaged)) << at;
    EXPECT_NE(installation_state(paths), InstallationState::interrupted);
    if (verifying) {
      EXPECT_FALSE(std::filesystem::exists(paths.status_record)) << at;
    } else {
      ++recorded;
      expect_status("repair", "failed", cancelled_words);
    }
  }
  EXPECT_GE(recorded, 3);
  EXPECT_LT(recorded, all);
  place.callbacks = {};
  EXPECT_EQ(place.repair().replaced, all_parts);
}

// What was prepared takes as much room as the client itself.
TEST_F(NativeInstall, ThatFailsAsARepairKeepsNothingOfWhatItHasPrepared) {
  place.install();
  damage_all();
  spoil_launcher_archive();
  EXPECT_FAILURE(place.repair(), "archive", no_archive);
  EXPECT_FALSE(std::filesystem::exists(paths.staging));
  EXPECT_EQ(place.read("native/bootstrap/data/notes"), "other");
  expect_status("repair", "failed", no_archive);
}

TEST_F(NativeInstall, ThatFailsAsARepairOfAnInterruptedSetupKeepsNothingOfWhatItHasPrepared) {
  place.install();
  damage_all();
  write_setup_marker(HeldDirectory::open_private(paths.root));
  spoil_launcher_archive();
  EXPECT_FAILURE(place.repair(), "archive", no_archive);
  EXPECT_FALSE(std::filesystem::exists(paths.staging));
  EXPECT_TRUE(is_there(paths.incomplete_marker));
  expect_status("repair", "failed", no_archive);
}

// Until it makes its own, the former trees of the interrupted commit may lie there.
TEST_F(NativeInstall, RefusedAsARepairOfAnInterruptedSetupKeepsTheFormerTrees) {
  place.install();
  write_setup_marker(HeldDirectory::open_private(paths.root));
  place.write("native/staging/old-trust/root.json", "old");
  const FileLock game(paths.launcher / "leases/versions/game", false, LockMode::shared);
  EXPECT_FAILURE(place.repair(), "ravok_running", running_words);
  EXPECT_EQ(place.read("native/staging/old-trust/root.json"), "old");
}

TEST_F(NativeInstall, ThatFailsInTheCommitOfARepairKeepsTheFormerTrees) {
  place.install();
  damage_all();
  int kept = 0;
  bool happened = true;
  for (int count = 1; happened; ++count) {
    const Planned plan(testing::failing("rename", EIO, count));
    const bool failed = failure_of([&] { place.repair(); }).has_value();
    happened = plan.happened();
    if (failed && is_there(paths.incomplete_marker)) {
      EXPECT_TRUE(std::filesystem::exists(paths.staging)) << count;
      ++kept;
    }
    damage_all();
  }
  EXPECT_GE(kept, 3);
}

TEST_F(NativeInstall, RecordsAFailedRepairWithoutALock) {
  place.install();
  const FileLock game(paths.launcher / "leases/versions/game", false, LockMode::shared);
  bool held = true;
  const Planned plan(meanwhile("rename", [&] {
    EXPECT_TRUE(place.state().contains("native/setup-status.json"));
    held = is_locked(paths.setup_lock) || is_locked(paths.bootstrap_lock);
  }));
  EXPECT_FAILURE(place.repair(), "ravok_running", running_words);
  EXPECT_EQ(plan.count("rename"), 1);
  EXPECT_FALSE(held);
}

// Whichever call fails, the folder is as it was, or says that it must be repaired, or is whole.
TEST_F(NativeInstall, ThatFailsAnywhereKeepsThePlayersDataAndAKnownState) {
  const TreeState player = place.write_player_data();
  for (const char* call : {"open", "openat", "create", "rename", "mkdirat", "fsync"}) {
    int unchanged = 0;
    int known = 0;
    for (int count = 1;; ++count) {
      const auto [failed, happened] = [&] {
        const Planned plan(testing::failing(call, EIO, count));
        const bool failure = failure_of([&] { place.install(); }).has_value();
        return std::make_pair(failure, plan.happened());
      }();
      const NativeInstallStatus status = NativeInstaller::status(data);
      EXPECT_TRUE(same_tree(place.player_data(), player)) << call << count;
      EXPECT_TRUE(failed || status.installed) << call << count;
      if (failed && !status.installed && !status.incomplete) {
        ++unchanged;
        EXPECT_TRUE(same_tree(place.state(), player)) << call << count;
      } else {
        ++known;
        EXPECT_NO_THROW(place.repair()) << call << count;
        EXPECT_TRUE(NativeInstaller::status(data).installed) << call << count;
      }
      for (const auto& entry : std::filesystem::directory_iterator(data)) {
        if (entry.path().filename() != "userdata" && entry.path().filename() != "settings.json") {
          std::filesystem::remove_all(entry.path());
        }
      }
      if (!happened) {
        break;
      }
    }
    EXPECT_GE(unchanged, 1) << call;
    EXPECT_GE(known, 2) << call;
  }
}

// Whatever fails once the record is written, the installation is kept.
TEST_F(NativeInstall, ThatFailsBehindItsRecordIsKept) {
  int kept = 0;
  for (const char* call : {"open", "openat", "fsync", "unlink"}) {
    bool happened = true;
    for (int count = 1; happened; ++count) {
      bool failed = false;
      {
        const Planned plan(testing::failing(call, EIO, count));
        failed = failure_of([&] { place.install(); }).has_value();
        happened = plan.happened();
      }
      // A folder that was made, and nothing more, is no installation yet.
      if (failed && std::filesystem::exists(data) && !std::filesystem::is_empty(data)) {
        ++kept;
        EXPECT_TRUE(std::filesystem::exists(paths.installation_record)) << call << count;
        place.repair();
        EXPECT_TRUE(NativeInstaller::status(data).installed) << call << count;
      }
      std::filesystem::remove_all(data);
    }
  }
  EXPECT_GE(kept, 2);
}

TEST_F(NativeInstall, TellsThatARepairedClientHasNoShortcut) {
  install_unbranded();
  EXPECT_FALSE(place.repair(true).shortcut_missing);
  std::filesystem::remove(paths.native / "shortcuts.json");
  const NativeInstallResult result = place.repair(true);
  EXPECT_TRUE(result.shortcut_missing);
  EXPECT_EQ(result.to_json().at("shortcut_missing"), true);
  EXPECT_EQ(result.shortcut_problem, "");
}

TEST_F(NativeInstall, PassesFailuresOfAnotherTypeThrough) {
  place.callbacks.progress = [](std::string_view phase, std::uint64_t, std::uint64_t) {
    if (phase == "installing") {
      throw std::runtime_error("of the listener");
    }
  };
  EXPECT_THROW(place.install(), std::runtime_error);
  EXPECT_TRUE(std::filesystem::is_directory(paths.staging));
  EXPECT_FALSE(is_locked(paths.setup_lock));
  place.callbacks.progress = {};
  place.install();
  damage_bootstrap();
  forget_status();
  place.callbacks.progress = [](std::string_view phase, std::uint64_t, std::uint64_t) {
    if (phase == "installing") {
      throw std::runtime_error("of the listener");
    }
  };
  EXPECT_THROW(place.repair(), std::runtime_error);
  EXPECT_FALSE(std::filesystem::exists(paths.status_record));
  EXPECT_NE(installation_state(paths), InstallationState::interrupted);
}

TEST_F(NativeInstall, ThrowsAwayWhatAnEarlierRunLeftInStaging) {
  place.write("native/staging/bootstrap/junk", "junk");
  place.write("native/staging/trust/root.json", "junk");
  place.write("native/staging/launcher-root/launcher/junk", "junk");
  place.write("native/staging/theme/junk", "junk");
  place.write("native/staging/old-bootstrap/junk", "junk");
  std::filesystem::create_symlink("/", paths.staging / "link");
  place.install();
  for (const auto& [path, node] : place.state()) {
    EXPECT_FALSE(path.find("junk") != std::string::npos || node.ends_with("junk")) << path;
  }
  EXPECT_FALSE(std::filesystem::exists(paths.staging));
}

// --- Repair ------------------------------------------------------------------------------------

TEST_F(NativeInstall, RepairLetsAVersionBeStartedAgainWhoseWindowDidNotOpen) {
  place.install();
  const TreeState before = lasting();
  mark_start(data, std::string(64, 'a'), 2, 0);
  ASSERT_FALSE(same_tree(lasting(), before));
  EXPECT_EQ(place.repair().replaced, Names());
  EXPECT_TRUE(same_tree(lasting(), before));

  // A folder of the record's name is none of setup's.
  std::filesystem::create_directories(start_marker(data) / "kept");
  EXPECT_EQ(place.repair().replaced, Names());
  EXPECT_TRUE(std::filesystem::exists(start_marker(data) / "kept"));
}

TEST_F(NativeInstall, RepairOfAnIntactFolderReplacesNothing) {
  place.write_player_data();
  place.install();
  Json record = place.record("native/installation.json");
  record["installed_at"] = "2000-01-01T00:00:00Z";
  place.write("native/installation.json", record.dump());
  const TreeState before = lasting();
  const std::string now = utc_now();
  const NativeInstallResult result = place.repair();
  EXPECT_TRUE(result.repaired);
  EXPECT_EQ(result.replaced, Names());
  EXPECT_EQ(result.executable, data / "native/bootstrap/bin/ravok-bootstrap");
  EXPECT_TRUE(same_tree(lasting(), before));
  EXPECT_LE(now, place.record("native/installation.json").at("installed_at").get<std::string>());
  EXPECT_NE(installation_state(paths), InstallationState::interrupted);
  EXPECT_FALSE(std::filesystem::exists(paths.staging));
  expect_status("repair", "succeeded", "");
}

TEST_F(NativeInstall, RepairReplacesOnlyWhatIsDamaged) {
  place.install();
  const TreeState good = lasting();
  const std::vector<std::pair<std::string, std::function<void()>>> damages = {
      {"bootstrap", [&] { damage_bootstrap(); }},
      {"bootstrap", [&] { std::filesystem::remove_all(paths.bootstrap_directory); }},
      {"bootstrap", [&] { std::filesystem::remove(paths.bootstrap_manifest); }},
      {"bootstrap", [&] { place.write("native/bootstrap.json", "{"); }},
      {"bootstrap", [&] { place.write("native/bootstrap/more", ""); }},
      {"bootstrap",
       [&] {
         std::filesystem::permissions(paths.bootstrap_directory / "bin/ravok-bootstrap",
                                      std::filesystem::perms::owner_read);
       }},
      {"launcher", [&] { damage_launcher(); }},
      {"launcher", [&] { std::filesystem::remove_all(paths.launcher); }},
      {"launcher", [&] { place.write("launcher/installation.json", "{"); }},
      {"launcher", [&] { std::filesystem::remove(paths.launcher / "installation.json"); }},
      {"launcher", [&] { place.write("launcher/manifests/" + launcher_sha256() + ".json", "{}"); }},
      {"trust", [&] { damage_trust(); }},
      {"trust", [&] { std::filesystem::remove_all(paths.trust); }},
      {"trust", [&] { place.write("trust/root.json", "{}" + std::string(524'288, ' ')); }},
  };
  for (std::size_t at = 0; at < damages.size(); ++at) {
    damages[at].second();
    ASSERT_FALSE(same_tree(lasting(), good)) << at;
    EXPECT_EQ(place.repair().replaced, Names{damages[at].first}) << at;
    EXPECT_TRUE(same_tree(lasting(), good)) << at;
    EXPECT_FALSE(std::filesystem::exists(paths.staging)) << at;
  }
}

TEST_F(NativeInstall, RepairOfTrustKeepsTheLauncherStore) {
  place.install();
  place.write("launcher/downloads/part", "part");
  Json document = place.record("launcher/installation.json");
  document["active"] = std::exchange(document["candidate"], nullptr);
  document["generation"] = 9;
  place.write("launcher/installation.json", document.dump());
  place.write("trust/timestamp.json", "{}");
  const TreeState launcher = testing::only(place.state(), "launcher");
  damage_trust();
  EXPECT_EQ(place.repair().replaced, Names{"trust"});
  EXPECT_TRUE(same_tree(testing::only(place.state(), "launcher"), launcher));
  EXPECT_EQ(place.read("trust/root.json"), place.package.root);
  EXPECT_FALSE(place.state().contains("trust/timestamp.json"));
}

TEST_F(NativeInstall, RepairJudgesTheActiveLauncherBeforeTheCandidate) {
  place.install();
  Json document = place.record("launcher/installation.json");
  const Json whole = document["candidate"];
  const Json missing = {{"manifest_sha256", std::string(64, 'd')}, {"build_id", "build-2"}};
  document["active"] = whole;
  document["candidate"] = missing;
  place.write("launcher/installation.json", document.dump());
  EXPECT_EQ(place.repair().replaced, Names());
  document["active"] = missing;
  document["candidate"] = whole;
  place.write("launcher/installation.json", document.dump());
  EXPECT_EQ(place.repair().replaced, Names{"launcher"});
}

TEST_F(NativeInstall, RepairTakesARootThatOnlyParses) {
  place.install();
  place.write("trust/root.json", "{}");
  EXPECT_EQ(place.repair().replaced, Names());
  EXPECT_EQ(place.read("trust/root.json"), "{}");
}

TEST_F(NativeInstall, RepairRemovesOldImagesBeforeItVerifies) {
  place.install();
  const TreeState good = lasting();
  place.write("native/bootstrap/bin/ravok-bootstrap.1.old", "old");
  place.write("native/bootstrap/data/notes.old", "old");
  EXPECT_EQ(place.repair().replaced, Names());
  EXPECT_TRUE(same_tree(lasting(), good));
}

TEST_F(NativeInstall, RepairLeavesTheWayBackOfABrokenUpdateUntilItHasReplacedTheTree) {
  place.install();
  const TreeState good = lasting();
  const std::string program = "native/bootstrap/bin/ravok-bootstrap";
  place.write(program + ".old", place.read(program));
  place.write(program, "new");
  place.write("native/bootstrap-update.json", "update");
  const TreeState broken = lasting();
  int at = 1;
  for (bool ended = false; !ended; ++at) {
    cancel_at(at);
    const auto failure = testing::failure_of([&] { EXPECT_EQ(place.repair().replaced, Names{"bootstrap"}); });
    ended = !failure;
    EXPECT_TRUE(same_tree(lasting(), ended ? good : broken)) << at;
  }
  EXPECT_GT(at, 4);
}

TEST_F(NativeInstall, RepairRemovesOldImagesBesideAnUpdateThatHasNotBegun) {
  place.install();
  place.write("native/bootstrap-update.json", "update");
  const TreeState waiting = lasting();
  place.write("native/bootstrap/data/notes.old", "old");
  EXPECT_EQ(place.repair().replaced, Names());
  EXPECT_TRUE(same_tree(lasting(), waiting));
}

TEST_F(NativeInstall, RepairRemovesNothingElseThatLooksOld) {
  place.install();
  place.write("launcher/downloads/part.old", "kept");
  place.write("native/bootstrap/data/notes.older", "not old");
  EXPECT_EQ(place.repair().replaced, Names{"bootstrap"});
  EXPECT_EQ(place.read("launcher/downloads/part.old"), "kept");
}

constexpr std::array<const char*, 3> update_trees = {"bootstrap-update", "bootstrap-update.partial",
                                                     "bootstrap-downloads"};
constexpr std::array<const char*, 3> update_records = {"bootstrap-update.json", "bootstrap-update.rejected",
                                                       "bootstrap-old-files"};

TEST_F(NativeInstall, ForgetsAnUpdateOnlyOfTheBootstrapThatItReplaces) {
  place.install();
  const TreeState good = lasting();
  for (const char* name : update_trees) {
    place.write(std::string("native/") + name + "/below/file", "update");
  }
  for (const char* name : update_records) {
    place.write(std::string("native/") + name, "update");
  }
  const TreeState updating = lasting();
  damage_trust();
  EXPECT_EQ(place.repair().replaced, Names{"trust"});
  EXPECT_TRUE(same_tree(lasting(), updating));
  damage_bootstrap();
  EXPECT_EQ(place.repair().replaced, Names{"bootstrap"});
  EXPECT_TRUE(same_tree(lasting(), good));
}

TEST_F(NativeInstall, RepairWithAnotherPackageKeepsWhatIsWholeAndTakesItsRecords) {
  place.install();
  const TreeState before = place.state();
  place.package.ca_bundle.reset();
  place.package.origin = "https://other.example";
  place.package.brand.reset();
  place.package.featured_game.reset();
  place.republish();
  EXPECT_EQ(place.repair().replaced, Names());
  const TreeState after = place.state();
  EXPECT_EQ(place.read("repository-ca.pem"), "-----BEGIN CERTIFICATE-----\n");
  EXPECT_EQ(place.read("repository.json"), R"({"ca_bundle":"","origin":"https://other.example","schema_version":1})");
  EXPECT_FALSE(after.contains("native/brand.ico"));
  EXPECT_FALSE(after.contains("native/brand.png"));
  EXPECT_FALSE(after.contains("native/theme"));
  const Json record = place.record("native/installation.json");
  EXPECT_FALSE(record.contains("brand"));
  EXPECT_EQ(record.at("descriptor_sha256"), place.seal());
  EXPECT_EQ(record.at("origin"), "https://other.example");
  for (const char* tree : {"launcher", "trust", "native/bootstrap", "native/bootstrap.json"}) {
    EXPECT_TRUE(same_tree(testing::only(after, tree), testing::only(before, tree))) << tree;
  }
}

TEST_F(NativeInstall, RepairPutsTheWholeThemeOfThePackageInPlace) {
  place.install();
  const TreeState good = lasting();
  place.write("native/theme/more", "more");
  place.write("native/theme/theme.json", "{}");
  place.write("native/brand.ico", "changed");
  place.write("native/brand.png", "changed");
  place.write("repository-ca.pem", "changed");
  place.write("repository.json", "changed");
  EXPECT_EQ(place.repair().replaced, Names());
  EXPECT_TRUE(same_tree(lasting(), good));
  std::filesystem::remove_all(paths.native / "theme");
  std::filesystem::remove(paths.native / "brand.ico");
  std::filesystem::remove(paths.native / "brand.png");
  place.repair();
  EXPECT_TRUE(same_tree(lasting(), good));
}

TEST_F(NativeInstall, RepairThatCannotUnpackIsRecordedAndChangesNothing) {
  place.write_player_data();
  place.install();
  damage_all();
  spoil_launcher_archive();
  const TreeState before = lasting();
  EXPECT_FAILURE(place.repair(), "archive", no_archive);
  EXPECT_TRUE(same_tree(lasting(), before));
  EXPECT_NE(installation_state(paths), InstallationState::interrupted);
  expect_status("repair", "failed", no_archive);
  EXPECT_FALSE(is_locked(paths.setup_lock));
  EXPECT_FALSE(is_locked(paths.bootstrap_lock));
}

// --- The commit, stopped on its way -------------------------------------------------------------

class NativeCommit : public NativeInstall {
 protected:
  NativeCommit() {
    player = place.write_player_data();
    place.install();
    good = lasting();
    forget_status();
  }

  // A repair stopped in the commit, where it has to write a record.
  void repair_stopped_at(const std::filesystem::path& record) {
    const std::optional<Error> failure = [&] {
      const Planned plan(testing::failing_to_write(record.filename(), EIO));
      return failure_of([&] { place.repair(); });
    }();
    ASSERT_TRUE(failure) << record;
    EXPECT_EQ(failure->code, "file_write");
    EXPECT_TRUE(std::string(failure->what()).starts_with("Cannot create transaction file " + record.native() + "."));
    expect_status("repair", "failed", failure->what());
    EXPECT_TRUE(same_tree(place.player_data(), player));
  }

  void expect_interrupted() const {
    EXPECT_EQ(installation_state(paths), InstallationState::interrupted);
    EXPECT_FALSE(NativeInstaller::status(data).installed);
    EXPECT_TRUE(NativeInstaller::status(data).incomplete);
    EXPECT_FAILURE(require_complete_native_install(data), "native_install_incomplete",
                   in_data("Ravok setup did not finish in ") + ". Run the Ravok installer again to repair it.");
  }

  void expect_good() const {
    EXPECT_TRUE(same_tree(lasting(), good));
    EXPECT_FALSE(std::filesystem::exists(paths.staging));
    EXPECT_TRUE(NativeInstaller::status(data).installed);
  }

  bool has_old(const char* part) const { return std::filesystem::exists(paths.staging / part); }

  TreeState player;
  TreeState good;
};

TEST_F(NativeCommit, ChangesNothingUntilTheMarkerStands) {
  damage_all();
  const TreeState before = lasting();
  repair_stopped_at(paths.incomplete_marker);
  EXPECT_TRUE(same_tree(lasting(), before));
}

TEST_F(NativeCommit, StoppedAtTheBootstrapHasReplacedNothingElse) {
  damage_all();
  repair_stopped_at(paths.bootstrap_manifest);
  expect_interrupted();
  EXPECT_EQ(place.read("native/bootstrap/data/notes"), "notes");
  EXPECT_EQ(place.read("native/staging/old-bootstrap/data/notes"), "other");
  EXPECT_EQ(place.read(launcher_program()), "other");
  EXPECT_EQ(place.read("trust/root.json"), "{");
  // The manifest was not replaced, but it is of the same build.
  EXPECT_EQ(place.repair().replaced, (Names{"launcher", "trust"}));
  expect_good();
}

TEST_F(NativeCommit, StoppedAtTheRepositoryHasReplacedAllParts) {
  damage_all();
  place.write("native/brand.ico", "changed");
  const std::string record = place.read("native/installation.json");
  for (const auto& path : Paths{paths.repository_ca, paths.repository_record}) {
    repair_stopped_at(path);
    expect_interrupted();
    EXPECT_EQ(place.read("native/bootstrap/data/notes"), "notes");
    EXPECT_EQ(place.read(launcher_program()), "#!bin/launcher");
    EXPECT_EQ(place.read("trust/root.json"), place.package.root);
    EXPECT_EQ(place.read("native/brand.ico"), "changed");
    EXPECT_EQ(place.read("native/installation.json"), record);
  }
  EXPECT_EQ(place.repair().replaced, Names());
  expect_good();
}

TEST_F(NativeCommit, KeepsTheOldTreesUntilTheRecordIsWritten) {
  damage_all();
  repair_stopped_at(paths.native / "brand.ico");
  expect_interrupted();
  EXPECT_EQ(place.read("native/staging/old-bootstrap/data/notes"), "other");
  EXPECT_EQ(place.read("native/staging/old-launcher/" + launcher_program().substr(9)), "other");
  EXPECT_EQ(place.read("native/staging/old-trust/root.json"), "{");
  EXPECT_EQ(place.repair().replaced, Names());
  expect_good();
}

TEST_F(NativeCommit, WritesTheIconOfTheMenuAheadOfTheTheme) {
  const std::string record = place.read("native/installation.json");
  place.write("native/brand.ico", "changed");
  place.write("native/brand.png", "changed");
  place.write("native/theme/theme.json", "old");
  repair_stopped_at(paths.menu_icon);
  expect_interrupted();
  EXPECT_EQ(place.read("native/brand.ico"), *place.package.icon);
  EXPECT_EQ(place.read("native/brand.png"), "changed");
  EXPECT_EQ(place.read("native/theme/theme.json"), "old");
  EXPECT_EQ(place.read("native/installation.json"), record);
  EXPECT_EQ(place.repair().replaced, Names());
  expect_good();
}

TEST_F(NativeCommit, HasNoIconOfTheMenuWhereThePackageHasNoImageForIt) {
  place.package.icon = testing::icon_file(64);
  place.republish();
  place.repair();
  EXPECT_EQ(place.read("native/brand.ico"), testing::icon_file(64));
  EXPECT_FALSE(std::filesystem::exists(paths.menu_icon));
  place.package.icon = testing::icon_of({testing::png_image(8, 8)});
  place.republish();
  place.repair();
  EXPECT_EQ(place.read("native/brand.png"), testing::png_image(8, 8));
  place.package.icon.reset();
  place.republish();
  place.repair();
  EXPECT_FALSE(std::filesystem::exists(brand_icon_path(data)));
  EXPECT_FALSE(std::filesystem::exists(paths.menu_icon));
  EXPECT_TRUE(NativeInstaller::status(data).installed);
}

TEST_F(NativeCommit, NamesADirectoryInThePlaceOfAnIcon) {
  for (const auto& icon : Paths{brand_icon_path(data), paths.menu_icon}) {
    std::filesystem::remove(icon);
    place.write(icon.lexically_relative(data).native() + "/mine", "mine");
    const TreeState before = lasting();
    EXPECT_FAILURE(place.repair(), "unsafe_path",
                   "Setup cannot write " + icon.native() + ": a directory has that name; move it away and try again");
    EXPECT_TRUE(same_tree(lasting(), before));
    EXPECT_NE(installation_state(paths), InstallationState::interrupted);
    std::filesystem::remove_all(icon);
    place.repair();
    expect_good();
  }
}

TEST_F(NativeCommit, WritesTheRecordBehindTheTheme) {
  write_setup_marker(HeldDirectory::open_private(paths.root));
  place.write("native/theme/theme.json", "old");
  repair_stopped_at(paths.installation_record);
  expect_interrupted();
  EXPECT_EQ(place.read("native/theme/theme.json"), place.package.theme->dump());
  EXPECT_EQ(place.read("native/staging/old-theme/theme.json"), "old");
  EXPECT_EQ(place.repair().replaced, Names());
  expect_good();
}

TEST_F(NativeCommit, StoppedAtTheThemeHasNoNewRecord) {
  const std::string record = place.read("native/installation.json");
  place.write("native/brand.ico", "changed");
  repair_stopped_at(paths.staging / "theme/theme.json");
  expect_interrupted();
  EXPECT_EQ(place.read("native/brand.ico"), *place.package.icon);
  EXPECT_EQ(place.read("native/installation.json"), record);
  EXPECT_EQ(place.repair().replaced, Names());
  expect_good();
}

TEST_F(NativeCommit, TakesAwayAFileInPlaceOfAThemeThatThePackageHasNot) {
  std::filesystem::remove_all(paths.native / "theme");
  place.write("native/theme", "a file");
  place.package.brand.reset();
  place.package.featured_game.reset();
  place.republish();
  place.repair();
  EXPECT_FALSE(std::filesystem::exists(paths.native / "brand.ico"));
  EXPECT_FALSE(std::filesystem::exists(paths.native / "theme"));
  EXPECT_TRUE(NativeInstaller::status(data).installed);
}

TEST_F(NativeCommit, ReplacesATreeWithLinksInIt) {
  std::filesystem::create_symlink("nowhere", paths.bootstrap_directory / "link");
  EXPECT_EQ(place.repair().replaced, Names{"bootstrap"});
  expect_good();
}

TEST_F(NativeCommit, ReplacesALinkInPlaceOfATreeAndLeavesWhatItNames) {
  const std::filesystem::path elsewhere = place.root().directory("elsewhere");
  place.root().write("elsewhere/mine", "mine");
  std::filesystem::remove_all(paths.bootstrap_directory);
  std::filesystem::create_directory_symlink(elsewhere, paths.bootstrap_directory);
  EXPECT_EQ(place.repair().replaced, Names{"bootstrap"});
  expect_good();
  EXPECT_EQ(place.root().read("elsewhere/mine"), "mine");
}

TEST_F(NativeCommit, InterruptedIsInstalledAnewInFull) {
  write_setup_marker(HeldDirectory::open_private(paths.root));
  place.write("userdata/saves/second", "save");
  const TreeState kept = place.player_data();
  const NativeInstallResult result = place.install();
  EXPECT_FALSE(result.repaired);
  EXPECT_EQ(result.replaced, all_parts);
  EXPECT_TRUE(same_tree(place.player_data(), kept));
  EXPECT_TRUE(NativeInstaller::status(data).installed);
  expect_status("install", "succeeded", "");
}

TEST_F(NativeCommit, InterruptedWithoutARecordIsRepaired) {
  write_setup_marker(HeldDirectory::open_private(paths.root));
  std::filesystem::remove(paths.installation_record);
  EXPECT_EQ(place.repair().replaced, Names());
  expect_good();
}

TEST_F(NativeCommit, RepairReplacesATreeThatIsMissing) {
  const std::vector<std::pair<std::filesystem::path, std::string>> trees = {
      {paths.bootstrap_directory, "bootstrap"}, {paths.launcher, "launcher"}, {paths.trust, "trust"}};
  for (const auto& [tree, part] : trees) {
    write_setup_marker(HeldDirectory::open_private(paths.root));
    std::filesystem::create_directory(paths.staging);
    std::filesystem::rename(tree, paths.staging / ("old-" + part));
    EXPECT_EQ(place.repair().replaced, Names{part});
    expect_good();
    EXPECT_TRUE(same_tree(place.player_data(), player));
  }
}

// Ends a setup like a power cut, just before each call of that name, and lets the next run follow.
class NativeCrash : public NativeCommit {
 protected:
  // Whether the run came so far.
  template <typename Work>
  static bool dies_at(const char* call, int count, Work work) {
    const pid_t child = fork();
    if (child == 0) {
      const Planned plan(meanwhile(
          call, [] { _exit(42); }, count));
      try {
        work();
      } catch (...) {
        _exit(1);
      }
      _exit(0);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && (WEXITSTATUS(status) == 0 || WEXITSTATUS(status) == 42)) << status;
    return WEXITSTATUS(status) == 42;
  }
};

TEST_F(NativeCrash, OfARepairIsFollowedByARepair) {
  damage_all();
  const TreeState damaged = lasting();
  Json former = place.record("native/installation.json");
  former["installed_at"] = "2000-01-01T00:00:00Z";
  place.write("native/installation.json", former.dump());
  for (const char* call : {"fsync", "rename"}) {
    int untouched = 0;
    int interrupted = 0;
    int count = 1;
    for (; dies_at(call, count, [&] { place.repair(); }); ++count) {
      EXPECT_TRUE(same_tree(place.player_data(), player)) << count;
      if (installation_state(paths) == InstallationState::interrupted) {
        ++interrupted;
        expect_interrupted();
      } else if (place.record("native/installation.json") == former) {
        ++untouched;
        // Transaction files may lie beside the files that they were to become.
        for (const auto& [path, node] : damaged) {
          EXPECT_EQ(place.state().at(path), node) << count;
        }
      }
      place.repair();
      EXPECT_NE(installation_state(paths), InstallationState::interrupted) << count;
      EXPECT_TRUE(same_tree(place.player_data(), player)) << count;
      for (const auto& [path, node] : good) {
        EXPECT_EQ(place.state().at(path), node) << count;
      }
      EXPECT_FALSE(std::filesystem::exists(paths.staging)) << count;
      damage_all();
      place.write("native/installation.json", former.dump());
    }
    EXPECT_GE(untouched, 3) << call;
    EXPECT_GT(interrupted, 5) << call;
    damage_all();
    place.write("native/installation.json", former.dump());
  }
}

TEST_F(NativeCrash, OfAFirstInstallIsFollowedByAnInstall) {
  std::filesystem::remove_all(data);
  int interrupted = 0;
  for (int count = 1; dies_at("fsync", count, [&] { place.install(); }); ++count) {
    const NativeInstallStatus status = NativeInstaller::status(data);
    if (status.installed) {
      EXPECT_FAILURE(place.install(), "already_installed", in_data("Ravok is already installed in ") + "; use repair");
    } else {
      interrupted += status.incomplete ? 1 : 0;
      EXPECT_EQ(place.install().replaced, all_parts) << count;
    }
    for (const auto& [path, node] : good) {
      if (!path.starts_with("userdata") && path != "settings.json") {
        EXPECT_EQ(place.state().at(path), node) << count;
      }
    }
    EXPECT_TRUE(NativeInstaller::status(data).installed) << count;
    std::filesystem::remove_all(data);
  }
  EXPECT_GT(interrupted, 5);
}

// --- Shortcuts of an install and a repair ------------------------------------------------------

TEST_F(NativeInstall, MakesTheShortcutOfTheClient) {
  install_unbranded();
  const std::string text = place.root().read(place.entry().lexically_relative(place.root().path()).native());
  EXPECT_EQ(testing::desktop_entry(text).at("Name"), "Ravok");
  EXPECT_EQ(testing::started_by(text).front(), (data / "native/bootstrap/bin/ravok-bootstrap").native());
  const Json rows = place.record("native/shortcuts.json").at("entries");
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].at("path"), place.entry().native());
  EXPECT_EQ(rows[0].at("game"), "");
  EXPECT_EQ(rows[0].at("name"), "Ravok");
}

TEST_F(NativeInstall, NamesTheShortcutByTheBrand) {
  place.package.featured_game.reset();
  place.republish();
  EXPECT_EQ(place.install(true).shortcuts, Paths{place.entry()});
  EXPECT_EQ(place.record("native/shortcuts.json").at("entries")[0].at("name"), "Acme Games");
  const std::string text = place.root().read(place.entry().lexically_relative(place.root().path()).native());
  EXPECT_EQ(testing::desktop_entry(text).at("Icon"), paths.menu_icon.native());
}

TEST_F(NativeInstall, MakesTheShortcutOfAFeaturedGameWithoutABrand) {
  place.package.brand.reset();
  place.republish();
  EXPECT_EQ(place.install(true).shortcuts, Paths{place.entry()});
  EXPECT_EQ(place.record("native/shortcuts.json").at("entries")[0].at("name"), "Ravok");
}

TEST_F(NativeInstall, LeavesTheShortcutOfABrandsFeaturedGameToItsFrontEnd) {
  EXPECT_EQ(place.install(true).shortcuts, Paths());
  EXPECT_TRUE(same_tree(tree_state(place.home()), TreeState()));
  EXPECT_FALSE(std::filesystem::exists(paths.native / "shortcuts.json"));
}

TEST_F(NativeInstall, SucceedsWithoutAShortcutThatCannotBeMade) {
  constexpr const char* problem = "Cannot locate the user's application menu";
  place.package.featured_game.reset();
  place.republish();
  const testing::WithEnvironment homeless("HOME", std::nullopt);
  const NativeInstallResult result = place.install(true);
  EXPECT_EQ(result.shortcuts, Paths());
  EXPECT_EQ(result.shortcut_problem, problem);
  EXPECT_EQ(result.to_json().at("shortcut_problem"), problem);
  EXPECT_EQ(result.replaced, all_parts);
  expect_status("install", "succeeded", problem);
  EXPECT_TRUE(NativeInstaller::status(data).installed);
}

TEST_F(NativeInstall, RepairMakesMissingShortcutsAgain) {
  install_unbranded();
  const std::string entry = place.entry().lexically_relative(place.root().path()).native();
  const std::string text = place.root().read(entry);
  EXPECT_EQ(place.repair().shortcuts, Paths());
  std::filesystem::remove(place.entry());
  EXPECT_EQ(place.repair().shortcuts, Paths{place.entry()});
  EXPECT_EQ(place.root().read(entry), text);
  place.root().write(entry, "changed");
  EXPECT_EQ(place.repair().shortcuts, Paths());
  EXPECT_EQ(place.root().read(entry), "changed");
}

TEST_F(NativeInstall, RepairMakesNoShortcutThatNeverWas) {
  place.package.featured_game.reset();
  place.republish();
  place.install(false);
  EXPECT_EQ(place.repair(true).shortcuts, Paths());
  EXPECT_EQ(place.read("native/shortcuts.json"), R"({"entries":[],"kind":"ravok-shortcuts","schema_version":1})");
  EXPECT_TRUE(same_tree(tree_state(place.home()), TreeState()));
}

TEST_F(NativeInstall, RepairSucceedsWithALedgerThatCannotBeRead) {
  install_unbranded();
  place.write("native/shortcuts.json", "{");
  const std::string problem = "Shortcut list is malformed: " + (paths.native / "shortcuts.json").native();
  const NativeInstallResult result = place.repair();
  EXPECT_EQ(result.shortcut_problem, problem);
  expect_status("repair", "succeeded", problem);
  EXPECT_EQ(place.read("native/shortcuts.json"), "{");
}

// --- Shortcuts on request ----------------------------------------------------------------------

TEST_F(NativeInstall, ShortcutsNeedAnInstallation) {
  const std::string words = in_data("Ravok is not installed in ");
  EXPECT_FAILURE(NativeInstaller::create_shortcut(data, "", "", ""), "not_installed", words);
  EXPECT_FAILURE(NativeInstaller::remove_shortcuts(data), "not_installed", words);
  EXPECT_FAILURE(NativeInstaller::create_shortcut("", "", "", ""), "unsafe_path", "Choose a data folder");
  EXPECT_FAILURE(NativeInstaller::remove_shortcuts("/"), "unsafe_path", "The data folder cannot be a filesystem root");
  place.write("native/shortcuts.json", "{");
  EXPECT_FAILURE(NativeInstaller::remove_shortcuts(data), "not_installed", words);
  EXPECT_TRUE(same_tree(tree_state(place.home()), TreeState()));
}

TEST_F(NativeInstall, ShortcutsAreNotMadeOfAnInterruptedSetup) {
  place.install();
  write_setup_marker(HeldDirectory::open_private(paths.root));
  EXPECT_FAILURE(NativeInstaller::create_shortcut(data, "", "", ""), "native_install_incomplete",
                 in_data("Ravok setup did not finish in ") + ". Run the Ravok installer again to repair it.");
  EXPECT_TRUE(same_tree(tree_state(place.home()), TreeState()));
}

TEST_F(NativeInstall, ShortcutsAreNamedByWhatIsGiven) {
  place.install();
  const auto last_row = [&] { return place.record("native/shortcuts.json").at("entries").back(); };
  const std::string product = product_name();
  set_product_name("Product");
  EXPECT_EQ(NativeInstaller::create_shortcut(data, "", "", ""), place.entry());
  set_product_name(product);
  EXPECT_EQ(last_row().at("name"), "Product");
  EXPECT_EQ(last_row().at("game"), "");
  const std::filesystem::path of_game = native_menu_entry(data, "game", "");
  EXPECT_EQ(NativeInstaller::create_shortcut(data, "game", "", ""), of_game);
  EXPECT_EQ(last_row().at("name"), "game");
  EXPECT_EQ(last_row().at("game"), "game");
  const std::filesystem::path chosen = place.home() / "Chosen.desktop";
  EXPECT_EQ(NativeInstaller::create_shortcut(data, "game", "The Game", place.home() / "x/../Chosen.desktop"), chosen);
  EXPECT_EQ(last_row().at("name"), "The Game");
  EXPECT_EQ(last_row().at("path"), chosen.native());
  for (const auto& path : Paths{place.entry(), of_game, chosen}) {
    const std::string text = place.root().read(path.lexically_relative(place.root().path()).native());
    EXPECT_EQ(testing::started_by(text).front(), (data / "native/bootstrap/bin/ravok-bootstrap").native());
  }
}

TEST_F(NativeInstall, ShortcutsOfARelativePathLieBelowTheCurrentFolder) {
  place.install();
  const testing::WorkingDirectory working(place.home());
  EXPECT_EQ(NativeInstaller::create_shortcut(data, "", "", "Here.desktop"), place.home() / "Here.desktop");
  EXPECT_TRUE(std::filesystem::exists(place.home() / "Here.desktop"));
}

TEST_F(NativeInstall, ShortcutsAreRemovedUnlessTheyWereChanged) {
  install_unbranded();
  const std::filesystem::path changed = place.home() / "Changed.desktop";
  NativeInstaller::create_shortcut(data, "game", "The Game", changed);
  place.root().write("home/Changed.desktop", "changed");
  const ShortcutRemoval removal = NativeInstaller::remove_shortcuts(data);
  EXPECT_EQ(removal.removed, Paths{place.entry()});
  EXPECT_EQ(removal.changed, Paths{changed});
  EXPECT_FALSE(std::filesystem::exists(place.entry()));
  EXPECT_EQ(place.root().read("home/Changed.desktop"), "changed");
  EXPECT_EQ(place.record("native/shortcuts.json").at("entries"), Json::array());
}

// --- Seeding -----------------------------------------------------------------------------------

TEST_F(NativeInstall, SeedsAStoreWhileTheMarkerStands) {
  const auto seed = [&] {
    NativeInstaller::seed_launcher(data, place.package.launcher.dump(),
                                   place.package_directory() / archive_name(place.package.launcher), {});
  };
  place.write(".ravok-setup-incomplete", "");
  seed();
  EXPECT_EQ(place.record("launcher/installation.json").at("candidate").at("manifest_sha256"), launcher_sha256());
  const TreeState before = place.state();
  EXPECT_FAILURE(seed(), "already_installed", "Initial launcher seeding requires a new owned profile");
  EXPECT_TRUE(same_tree(place.state(), before));
}

}  // namespace
}  // namespace ravok
