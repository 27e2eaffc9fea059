#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "app/install/native_install.hpp"
#include "platform/file/native_lock.hpp"
#include "support/clock_calls.hpp"
#include "support/failure.hpp"
#include "support/ordinary_user.hpp"
#include "support/setup_place.hpp"
#include "support/tree_state.hpp"
#include "support/with_environment.hpp"

namespace ravok {
namespace {

using testing::OrdinaryUser;
using testing::SetupPlace;
using testing::WithMode;
using Files = std::map<std::string, std::string>;
using Names = std::vector<std::string>;
using Paths = std::vector<std::filesystem::path>;

constexpr const char* running = "Ravok or a game from this folder is still running; close it and try again";

class NativeUninstall : public ::testing::Test {
 protected:
  // Everything in the home and in the data folder, without the locks that an attempt may have made.
  Files without_locks() const {
    Files files = place_.all();
    files.erase("data/.ravok-setup.lock");
    files.erase("data/.native-bootstrap.lock");
    return files;
  }

  // The uninstall fails in this way and changes nothing.
  void expect_refused(const std::function<void()>& uninstall, const std::string& code,
                      const std::string& message) const {
    const Files before = without_locks();
    EXPECT_FAILURE(uninstall(), code, message);
    EXPECT_EQ(without_locks(), before);
  }

  std::string not_installed() const { return "Ravok is not installed in " + place_.data().native(); }

  void write_marker() const {
    place_.write(".ravok-setup-incomplete", "{\"kind\":\"ravok-setup-incomplete\",\"schema_version\":1}");
  }

  // Something has failed after the marker was written: the folder is interrupted, and a second uninstall finishes.
  void expect_finished_by_second() const {
    EXPECT_TRUE(place_.status().incomplete);
    EXPECT_FALSE(place_.status().installed);
    EXPECT_EQ(place_.read(".ravok-setup-incomplete"), "{\"kind\":\"ravok-setup-incomplete\",\"schema_version\":1}");
    const NativeUninstallResult result = place_.uninstall(true);
    EXPECT_TRUE(result.data_removed);
    EXPECT_TRUE(is_missing(place_.data()));
  }

  const SetupPlace place_;
};

TEST_F(NativeUninstall, RefusesAMissingFolder) {
  expect_refused([&] { place_.uninstall(); }, "not_installed", not_installed());
  EXPECT_TRUE(is_missing(place_.data()));
}

TEST_F(NativeUninstall, RefusesAFolderWithNeitherRecordNorMarkerAndMakesNoLock) {
  place_.write_player_data();
  place_.write("native/bootstrap/file", "not a record");
  const Files before = place_.all();
  for (const bool remove_data : {false, true}) {
    EXPECT_FAILURE(place_.uninstall(remove_data), "not_installed", not_installed());
    EXPECT_EQ(place_.all(), before);
  }
}

TEST_F(NativeUninstall, RefusesWhatIsNoDataFolder) {
  const auto uninstall = [](const std::filesystem::path& path) {
    NativeInstaller::uninstall({path, true, std::chrono::milliseconds(0)}, {});
  };
  place_.install();
  std::filesystem::create_directory_symlink("data", place_.place() / "link");
  const Files before = place_.all();
  EXPECT_FAILURE(uninstall(""), "unsafe_path", "Choose a data folder");
  EXPECT_FAILURE(uninstall(std::string(4097, 'x')), "unsafe_path", "Choose a data folder");
  EXPECT_FAILURE(uninstall("/"), "unsafe_path", "The data folder cannot be a filesystem root");
  EXPECT_FAILURE(uninstall(place_.data() / ""), "unsafe_path", "The data folder cannot be a filesystem root");
  EXPECT_FAILURE(uninstall(place_.place() / "link"), "unsafe_path", "The data folder cannot be a symbolic link");
  EXPECT_EQ(place_.all(), before);
}

TEST_F(NativeUninstall, KeepsThePlayersDataAndNamesIt) {
  place_.write_player_data();
  const Files before = place_.all();
  place_.install();
  const NativeUninstallResult result = place_.uninstall();
  EXPECT_EQ(result.data_root, place_.data());
  EXPECT_FALSE(result.data_removed);
  Paths kept = result.kept;
  std::sort(kept.begin(), kept.end());
  EXPECT_EQ(kept, (Paths{place_.data() / "settings.json", place_.data() / "userdata"}));
  EXPECT_EQ(result.deferred, Paths{});
  EXPECT_EQ(result.changed_shortcuts, Paths{});
  Files after = place_.all();
  // The folders above the user's shortcuts belong to the user.
  std::erase_if(after, [](const auto& file) { return file.first.starts_with("home/") && file.first.ends_with("/"); });
  Files expected = before;
  expected.erase("home/");
  EXPECT_EQ(after, expected);
  EXPECT_FALSE(place_.status().installed);
  EXPECT_FALSE(place_.status().incomplete);
}

TEST_F(NativeUninstall, NamesOnlyWhatThereIsOfThePlayersData) {
  place_.install();
  place_.write("settings.json", "{}");
  const NativeUninstallResult result = place_.uninstall();
  EXPECT_EQ(result.kept, Paths{place_.data() / "settings.json"});
  EXPECT_FALSE(result.data_removed);
  EXPECT_EQ(place_.top_names(), Names{"settings.json"});
}

TEST_F(NativeUninstall, RemovesTheFolderWhereNoPlayersDataIs) {
  place_.install();
  const NativeUninstallResult result = place_.uninstall();
  EXPECT_TRUE(result.data_removed);
  EXPECT_EQ(result.kept, Paths{});
  EXPECT_TRUE(is_missing(place_.data()));
  EXPECT_TRUE(is_missing(place_.shortcut()));
}

TEST_F(NativeUninstall, RemovesThePlayersDataTooWhenItIsTold) {
  place_.write_player_data();
  place_.install();
  const NativeUninstallResult result = place_.uninstall(true);
  EXPECT_TRUE(result.data_removed);
  EXPECT_EQ(result.kept, Paths{});
  EXPECT_TRUE(is_missing(place_.data()));
}

TEST_F(NativeUninstall, RemovesUnknownFilesWithTheRest) {
  place_.install();
  place_.write("notes.txt", "mine");
  place_.write("native/other/deep/file", "mine");
  place_.write("userdata-old/save", "a name that only begins like the player's");
  place_.write("native/userdata/save", "not directly in the folder");
  EXPECT_TRUE(place_.uninstall().data_removed);
  EXPECT_TRUE(is_missing(place_.data()));
}

TEST_F(NativeUninstall, RemovesLinksAndFollowsNone) {
  place_.install();
  place_.root().write("place/home/precious/file", "precious");
  place_.root().write("place/home/precious.txt", "precious");
  std::filesystem::create_directory_symlink(place_.home() / "precious", place_.data() / "native/link");
  std::filesystem::create_directory_symlink(place_.home() / "precious", place_.data() / "link");
  std::filesystem::create_symlink(place_.home() / "precious.txt", place_.data() / "native/file");
  std::filesystem::create_symlink("/nowhere", place_.data() / "native/dangling");
  std::filesystem::create_symlink("round", place_.data() / "native/round");
  EXPECT_TRUE(place_.uninstall().data_removed);
  EXPECT_EQ(place_.root().read("place/home/precious/file"), "precious");
  EXPECT_EQ(place_.root().read("place/home/precious.txt"), "precious");
}

TEST_F(NativeUninstall, KeepsALinkInThePlaceOfThePlayersData) {
  place_.install();
  place_.root().write("place/home/saves/save", "elsewhere");
  std::filesystem::create_directory_symlink(place_.home() / "saves", place_.data() / "userdata");
  EXPECT_EQ(place_.uninstall().kept, Paths{place_.data() / "userdata"});
  EXPECT_EQ(place_.read("userdata/save"), "elsewhere");
  place_.install();
  EXPECT_TRUE(place_.uninstall(true).data_removed);
  EXPECT_EQ(place_.root().read("place/home/saves/save"), "elsewhere");
}

TEST_F(NativeUninstall, RemovesNodesThatAreNeitherFilesNorFolders) {
  place_.install();
  ASSERT_EQ(mkfifo((place_.data() / "native/pipe").c_str(), 0600), 0);
  EXPECT_TRUE(place_.uninstall().data_removed);
}

TEST_F(NativeUninstall, TakesWhatAnInterruptedSetupHasLeft) {
  write_marker();
  place_.write("native/staging/bootstrap/file", "half");
  place_.write_player_data();
  const NativeUninstallResult result = place_.uninstall();
  EXPECT_EQ(result.kept.size(), 2u);
  EXPECT_EQ(place_.top_names(), (Names{"settings.json", "userdata"}));
}

TEST_F(NativeUninstall, TakesAFolderWithOnlyTheMarker) {
  std::filesystem::create_directory(place_.data());
  write_marker();
  EXPECT_TRUE(place_.uninstall().data_removed);
}

TEST_F(NativeUninstall, ReplacesAMarkerThatIsALink) {
  place_.install();
  const std::filesystem::path elsewhere = place_.root().write("elsewhere", "kept");
  std::filesystem::create_symlink(elsewhere, place_.data() / ".ravok-setup-incomplete");
  EXPECT_TRUE(place_.uninstall(true).data_removed);
  EXPECT_EQ(place_.root().read("elsewhere"), "kept");
}

TEST_F(NativeUninstall, TakesADamagedRecord) {
  place_.install();
  place_.write("native/installation.json", "damage");
  EXPECT_TRUE(place_.uninstall().data_removed);
}

TEST_F(NativeUninstall, ReportsItsBeginningAndItsEnd) {
  place_.install();
  Names reports;
  NativeSetupCallbacks callbacks;
  callbacks.progress = [&](std::string_view phase, std::uint64_t done, std::uint64_t total) {
    reports.push_back(std::string(phase) + " " + std::to_string(done) + " " + std::to_string(total) +
                      (is_missing(place_.data()) ? " gone" : " there"));
  };
  place_.uninstall(false, callbacks);
  EXPECT_EQ(reports, (Names{"removing 0 0 there", "removing 1 1 gone"}));
}

TEST_F(NativeUninstall, HasTheMarkerUpBeforeTheRecordGoes) {
  place_.install();
  // A directory has the place of the record, which then cannot be removed. The uninstall must stop there, and the
  // marker says so.
  std::filesystem::remove(place_.paths().installation_record);
  place_.write("native/installation.json/child", "in the way");
  const std::string record = place_.paths().installation_record;
  EXPECT_FAILURE(place_.uninstall(), "file_remove", "Cannot remove " + record);
  EXPECT_FALSE(is_missing(place_.shortcut()));
  EXPECT_FALSE(is_missing(place_.paths().launcher));
  std::filesystem::remove(place_.data() / "native/installation.json/child");
  expect_finished_by_second();
}

TEST_F(NativeUninstall, IsRefusedWhileAnotherSetupRuns) {
  place_.install();
  const NativeFileLock setup(place_.paths().setup_lock, true, NativeLockSharing::others, LockMode::exclusive);
  expect_refused([&] { place_.uninstall(); }, "busy", "Another worker owns this native installation");
}

TEST_F(NativeUninstall, IsRefusedAtOnceWhileTheClientRunsAndNobodyWaits) {
  place_.install();
  const NativeFileLock client(place_.paths().bootstrap_lock, true, NativeLockSharing::none, LockMode::exclusive);
  expect_refused([&] { place_.uninstall(); }, "ravok_running", running);
}

TEST_F(NativeUninstall, IsRefusedWhileALeaseIsHeld) {
  place_.install();
  const std::filesystem::path leases = place_.data() / "launcher/leases/versions";
  const FileLock lease(leases / "some.lock", false, LockMode::shared);
  expect_refused([&] { place_.uninstall(true); }, "ravok_running", running);
}

TEST_F(NativeUninstall, WaitsAsLongAsItIsToldAndNoLonger) {
  place_.install();
  const NativeFileLock client(place_.paths().bootstrap_lock, true, NativeLockSharing::none, LockMode::exclusive);
  const testing::StillClock clock;
  expect_refused(
      [&] {
        NativeInstaller::uninstall({place_.data(), true, std::chrono::milliseconds(250)}, {});
      },
      "ravok_running", running);
  EXPECT_EQ(clock.slept(), std::chrono::milliseconds(300));
}

TEST_F(NativeUninstall, GoesOnOnceTheClientHasClosed) {
  place_.install();
  auto client = std::make_unique<NativeFileLock>(place_.paths().bootstrap_lock, true, NativeLockSharing::none,
                                                 LockMode::exclusive);
  NativeSetupCallbacks callbacks;
  // The callback is called while the uninstall waits.
  callbacks.cancelled = [&] {
    client.reset();
    return false;
  };
  const NativeUninstallResult result =
      NativeInstaller::uninstall({place_.data(), false, std::chrono::milliseconds(15'000)}, callbacks);
  EXPECT_TRUE(result.data_removed);
}

TEST_F(NativeUninstall, CanBeCancelledWhileItWaits) {
  place_.install();
  const NativeFileLock client(place_.paths().bootstrap_lock, true, NativeLockSharing::none, LockMode::exclusive);
  NativeSetupCallbacks callbacks;
  callbacks.cancelled = [] { return true; };
  expect_refused(
      [&] {
        NativeInstaller::uninstall({place_.data(), false, std::chrono::milliseconds(15'000)}, callbacks);
      },
      "cancelled", "Setup was cancelled");
}

TEST_F(NativeUninstall, CanBeCancelledUntilItBegins) {
  place_.install();
  NativeSetupCallbacks callbacks;
  bool reported = false;
  callbacks.progress = [&](std::string_view, std::uint64_t, std::uint64_t) { reported = true; };
  callbacks.cancelled = [] { return true; };
  expect_refused([&] { place_.uninstall(true, callbacks); }, "cancelled", "Setup was cancelled");
  EXPECT_FALSE(reported);
}

TEST_F(NativeUninstall, RemovesNothingOfAFolderThatIsReplacedMeanwhile) {
  place_.install();
  const std::filesystem::path aside = place_.root() / "aside";
  NativeSetupCallbacks callbacks;
  // Asked once both locks are held.
  callbacks.cancelled = [&] {
    std::filesystem::rename(place_.data(), aside);
    std::filesystem::copy(aside, place_.data(), std::filesystem::copy_options::recursive);
    return false;
  };
  const Files before = place_.all();
  EXPECT_FAILURE(place_.uninstall(true, callbacks), "unsafe_path",
                 "The data folder was changed while setup worked in it");
  std::filesystem::remove_all(place_.data());
  std::filesystem::rename(aside, place_.data());
  EXPECT_EQ(place_.all(), before);
}

TEST_F(NativeUninstall, CannotBeCancelledOnceItHasBegun) {
  place_.install();
  NativeSetupCallbacks callbacks;
  bool reported = false;
  callbacks.progress = [&](std::string_view, std::uint64_t, std::uint64_t) { reported = true; };
  callbacks.cancelled = [&] { return reported; };
  EXPECT_TRUE(place_.uninstall(false, callbacks).data_removed);
}

TEST_F(NativeUninstall, LeavesAnEditedShortcutAndNamesIt) {
  place_.install();
  const std::filesystem::path shortcut = place_.shortcut();
  place_.root().write(shortcut.lexically_relative(place_.root().path()).native(), "edited by the user");
  const NativeUninstallResult result = place_.uninstall();
  EXPECT_EQ(result.changed_shortcuts, Paths{shortcut});
  EXPECT_EQ(place_.root().read(shortcut.lexically_relative(place_.root().path()).native()), "edited by the user");
  EXPECT_TRUE(result.data_removed);
}

TEST_F(NativeUninstall, IsNotStoppedByALedgerThatCannotBeRead) {
  place_.install();
  const std::filesystem::path shortcut = place_.shortcut();
  place_.write("native/shortcuts.json", "damage");
  const NativeUninstallResult result = place_.uninstall();
  EXPECT_TRUE(result.data_removed);
  // Nothing shows that the shortcut is the client's own, so it stays and is reported.
  EXPECT_EQ(result.changed_shortcuts, Paths{shortcut});
  EXPECT_FALSE(is_missing(shortcut));
}

TEST_F(NativeUninstall, IsFinishedByASecondOneAfterAnInterruption) {
  place_.write_player_data();
  place_.install();
  write_marker();
  std::filesystem::remove(place_.paths().installation_record);
  std::filesystem::remove_all(place_.paths().bootstrap_directory);
  EXPECT_TRUE(place_.status().incomplete);
  EXPECT_FALSE(place_.status().installed);
  const NativeUninstallResult result = place_.uninstall();
  EXPECT_EQ(result.kept.size(), 2u);
  EXPECT_EQ(place_.top_names(), (Names{"settings.json", "userdata"}));
  EXPECT_FAILURE(place_.uninstall(), "not_installed", not_installed());
}

TEST_F(NativeUninstall, CanBeFollowedByARepairOrAnInstallAfterAnInterruption) {
  for (const bool repair : {true, false}) {
    std::filesystem::create_directory(place_.data());
    write_marker();
    const NativeInstallResult result = repair ? place_.repair() : place_.install();
    EXPECT_EQ(result.replaced, (Names{"bootstrap", "launcher", "trust"}));
    place_.expect_complete();
    EXPECT_TRUE(place_.uninstall().data_removed);
  }
}

TEST_F(NativeUninstall, NamesAFileThatCannotBeRemoved) {
  place_.install();
  const std::filesystem::path programs = place_.paths().bootstrap_directory / "bin";
  const OrdinaryUser user(place_.root());
  {
    const WithMode locked(programs, 0500);
    EXPECT_FAILURE(place_.uninstall(), "file_remove", "Cannot remove " + (programs / "ravok-bootstrap").native());
    EXPECT_FALSE(is_missing(programs / "ravok-bootstrap"));
  }
  expect_finished_by_second();
}

TEST_F(NativeUninstall, NamesAFolderThatCannotBeRemoved) {
  place_.install();
  const std::filesystem::path folder = place_.data() / "extra/inner";
  std::filesystem::create_directories(folder);
  const OrdinaryUser user(place_.root());
  {
    const WithMode locked(folder.parent_path(), 0500);
    EXPECT_FAILURE(place_.uninstall(), "file_remove", "Cannot remove " + folder.native());
    EXPECT_FALSE(is_missing(folder));
  }
  expect_finished_by_second();
}

TEST_F(NativeUninstall, SaysThatAFolderCannotBeRead) {
  place_.install();
  const std::filesystem::path programs = place_.paths().bootstrap_directory / "bin";
  const OrdinaryUser user(place_.root());
  {
    const WithMode locked(programs, 0300);
    EXPECT_FAILURE(place_.uninstall(), "tree_read", "Cannot read a directory of the tree");
    EXPECT_FALSE(is_missing(programs / "ravok-bootstrap"));
  }
  expect_finished_by_second();
}

TEST_F(NativeUninstall, WritesNoStatus) {
  place_.install();
  const std::string status = place_.read("native/setup-status.json");
  std::filesystem::remove(place_.paths().installation_record);
  place_.write("native/installation.json/child", "in the way");
  EXPECT_FAILURE(place_.uninstall(), "file_remove", "Cannot remove " + place_.paths().installation_record.native());
  EXPECT_EQ(place_.read("native/setup-status.json"), status);
}

TEST_F(NativeUninstall, LeavesARootThatCannotBeRemoved) {
  place_.install();
  const OrdinaryUser user(place_.root());
  const WithMode locked(place_.place(), 0500);
  const NativeUninstallResult result = place_.uninstall(true);
  EXPECT_FALSE(result.data_removed);
  EXPECT_EQ(result.kept, Paths{});
  EXPECT_EQ(place_.top_names(), Names{});
}

TEST_F(NativeUninstall, LetsGoOfItsLocksWhenItFails) {
  place_.install();
  std::filesystem::remove(place_.paths().installation_record);
  place_.write("native/installation.json/child", "in the way");
  EXPECT_FAILURE(place_.uninstall(), "file_remove", "Cannot remove " + place_.paths().installation_record.native());
  EXPECT_NO_THROW(NativeFileLock(place_.paths().setup_lock, true, NativeLockSharing::others, LockMode::exclusive));
  EXPECT_NO_THROW(NativeFileLock(place_.paths().bootstrap_lock, true, NativeLockSharing::none, LockMode::exclusive));
}

TEST_F(NativeUninstall, LeavesTheTemporaryDirectoryAsItWas) {
  const std::filesystem::path temporary = place_.root().directory("temporary");
  place_.root().write("temporary/ravok-removed-0123/file", "of another removal");
  place_.root().write("temporary/file", "of another program");
  const testing::WithEnvironment variable("TMPDIR", temporary.native());
  const testing::TreeState before = testing::tree_state(temporary);
  ASSERT_EQ(before.size(), 3u);
  place_.install();
  // One uninstall fails half-way, and the next finishes it.
  std::filesystem::remove(place_.paths().installation_record);
  place_.write("native/installation.json/child", "in the way");
  EXPECT_FAILURE(place_.uninstall(), "file_remove", "Cannot remove " + place_.paths().installation_record.native());
  EXPECT_TRUE(testing::same_tree(testing::tree_state(temporary), before));
  std::filesystem::remove(place_.data() / "native/installation.json/child");
  const NativeUninstallResult result = place_.uninstall();
  EXPECT_TRUE(result.data_removed);
  EXPECT_EQ(result.deferred, Paths{});
  EXPECT_TRUE(testing::same_tree(testing::tree_state(temporary), before));
}

TEST(NativeUninstallResult, SaysItselfInJson) {
  NativeUninstallResult result;
  result.data_root = "/data";
  result.kept = {"/data/userdata"};
  result.deferred = {"/data/image"};
  result.changed_shortcuts = {"/home/entry"};
  EXPECT_EQ(result.to_json().dump(),
            "{\"changed_shortcuts\":[\"/home/entry\"],\"data_removed\":false,\"data_root\":\"/data\",\"deferred\":[\"/"
            "data/image\"],\"kept\":[\"/data/userdata\"],\"schema_version\":1,\"uninstalled\":true}");
  result.data_removed = true;
  EXPECT_EQ(result.to_json().at("data_removed"), true);
}

}  // namespace
}  // namespace ravok
