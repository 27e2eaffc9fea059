#include "app/install/data_folder.hpp"

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "platform/file/posix_files.hpp"
#include "platform/os.hpp"
#include "support/clock_calls.hpp"
#include "support/companion.hpp"
#include "support/failure.hpp"
#include "support/temporary_root.hpp"
#include "support/with_environment.hpp"

namespace ravok::data_folder_test {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using testing::Companion;
using testing::TemporaryRoot;
using testing::WithEnvironment;

constexpr const char* not_chosen = "Choose a data folder";
constexpr const char* is_root = "The data folder cannot be a filesystem root";
constexpr const char* is_link = "The data folder cannot be a symbolic link";
constexpr const char* running = "Ravok or a game from this folder is still running; close it and try again";

TEST(DataPaths, AreTheNamesOfOneFolder) {
  const std::filesystem::path root = "/data/Ravok";
  const DataPaths paths(root);
  EXPECT_EQ(paths.root, root);
  EXPECT_EQ(paths.native, root / "native");
  EXPECT_EQ(paths.incomplete_marker, root / ".ravok-setup-incomplete");
  EXPECT_EQ(paths.setup_lock, root / ".ravok-setup.lock");
  EXPECT_EQ(paths.bootstrap_lock, root / ".native-bootstrap.lock");
  EXPECT_EQ(paths.installation_record, root / "native/installation.json");
  EXPECT_EQ(paths.status_record, root / "native/setup-status.json");
  EXPECT_EQ(paths.bootstrap_directory, root / "native/bootstrap");
  EXPECT_EQ(paths.bootstrap_manifest, root / "native/bootstrap.json");
  EXPECT_EQ(paths.staging, root / "native/staging");
  EXPECT_EQ(paths.launcher, root / "launcher");
  EXPECT_EQ(paths.trust, root / "trust");
  EXPECT_EQ(paths.repository_record, root / "repository.json");
  EXPECT_EQ(paths.repository_ca, root / "repository-ca.pem");
}

TEST(DataPaths, TouchNoFile) {
  const TemporaryRoot root;
  const DataPaths paths(root / "data");
  EXPECT_TRUE(root.names().empty());
}

TEST(DataPaths, TellAnEarlierFolderAndThePlayersData) {
  EXPECT_EQ(std::vector<std::string_view>(ravok_entries.begin(), ravok_entries.end()),
            (std::vector<std::string_view>{"native", "launcher", "userdata", "settings.json"}));
  EXPECT_EQ(std::vector<std::string_view>(player_data.begin(), player_data.end()),
            (std::vector<std::string_view>{"userdata", "settings.json"}));
}

TEST(DataFolder, IsAbsoluteAndNormal) {
  EXPECT_EQ(data_folder("/data/./a/../Ravok"), std::filesystem::path("/data/Ravok"));
  EXPECT_EQ(data_folder("some/../folder"), std::filesystem::current_path() / "folder");
  EXPECT_EQ(data_folder("/data//Ravok"), std::filesystem::path("/data/Ravok"));
}

TEST(DataFolder, NeedNotBeThereAndIsNotMade) {
  const TemporaryRoot root;
  EXPECT_EQ(data_folder(root / "a/b"), root / "a/b");
  EXPECT_TRUE(root.names().empty());
  root.write("file", "content");
  EXPECT_EQ(data_folder(root / "file"), root / "file");
  EXPECT_EQ(data_folder(root.path()), root.path());
}

TEST(DataFolder, MustBeChosen) {
  EXPECT_FAILURE(data_folder(""), "unsafe_path", not_chosen);
  EXPECT_FAILURE(data_folder(std::string("/data\0/Ravok", 12)), "unsafe_path", not_chosen);
}

TEST(DataFolder, IsNamedByAtMost4096Bytes) {
  const std::string longest = "/" + std::string(4095, 'n');
  EXPECT_EQ(data_folder(longest), std::filesystem::path(longest));
  EXPECT_FAILURE(data_folder(longest + "n"), "unsafe_path", not_chosen);
}

TEST(DataFolder, IsNoRootAndEndsWithItsName) {
  for (const char* path : {"/", "//", "/..", "/data/..", "/data/", "/data/.", "/data/x/..", ".", "./"}) {
    EXPECT_FAILURE(data_folder(path), "unsafe_path", is_root) << path;
  }
}

TEST(DataFolder, IsNoLinkButMayLieBehindOne) {
  const TemporaryRoot root;
  root.directory("real/data");
  std::filesystem::create_symlink(root / "real/data", root / "link");
  std::filesystem::create_symlink(root / "nowhere", root / "dangling");
  std::filesystem::create_symlink(root / "real", root / "above");
  EXPECT_FAILURE(data_folder(root / "link"), "unsafe_path", is_link);
  EXPECT_FAILURE(data_folder(root / "dangling"), "unsafe_path", is_link);
  EXPECT_EQ(data_folder(root / "above/data"), root / "above/data");
}

TEST(DefaultInstallFolder, LiesBesideThatOfRavokUnderTheBrandsName) {
  const WithEnvironment home("HOME", "/home/somebody");
  const std::filesystem::path root = std::filesystem::path("/home/somebody") / os::data_root_below_home();
  EXPECT_EQ(default_install_folder(std::nullopt), root);
  EXPECT_EQ(default_install_folder(Brand{"Foo Games", "foo", "Foo Ltd.", false}), root.parent_path() / "Foo Games");
}

TEST(DefaultInstallFolder, NeedsAnAbsoluteHome) {
  for (const std::optional<std::string>& value : {std::optional<std::string>(), {""}, {"home"}}) {
    const WithEnvironment home("HOME", value);
    EXPECT_FAILURE(default_install_folder(std::nullopt), "user_path", "HOME must identify an absolute user directory");
    EXPECT_FAILURE(default_install_folder(Brand{"Foo", "foo", "Foo", false}), "user_path",
                   "HOME must identify an absolute user directory");
  }
}

TEST(Within, GoesByTheTextOfThePaths) {
  EXPECT_TRUE(within("/a/b", "/a"));
  EXPECT_TRUE(within("/a/b/c", "/a"));
  EXPECT_TRUE(within("/a", "/a"));
  EXPECT_TRUE(within("/a", "/"));
  EXPECT_FALSE(within("/a", "/a/b"));
  EXPECT_FALSE(within("/ab", "/a"));
  EXPECT_FALSE(within("/b", "/a"));
  EXPECT_FALSE(within("a", "/a"));
  EXPECT_FALSE(within("/a", "a"));
  EXPECT_TRUE(within("/a/..b", "/a"));
}

TEST(CancellationCheck, FailsOnceTheUserHasAskedToStop) {
  NativeSetupCallbacks callbacks;
  EXPECT_NO_THROW(Cancellation(callbacks).check());
  callbacks.cancelled = [] { return false; };
  EXPECT_NO_THROW(Cancellation(callbacks).check());
  callbacks.cancelled = [] { return true; };
  EXPECT_FAILURE(Cancellation(callbacks).check(), "cancelled", "Setup was cancelled");
}

class RavokClosed : public ::testing::Test {
 protected:
  RavokClosed() {
    callbacks_.cancelled = [this] {
      ++asked_;
      return on_asking_ && on_asking_();
    };
  }

  std::unique_ptr<NativeFileLock> wait(milliseconds timeout) const {
    return wait_for_ravok_closed(paths_, timeout, Cancellation(callbacks_));
  }

  NativeFileLock bootstrap(LockMode mode = LockMode::exclusive) const {
    return {paths_.bootstrap_lock, true, NativeLockSharing::none, mode};
  }

  std::filesystem::path leases() const {
    posix_files::private_directory(paths_.launcher / "leases/versions");
    return paths_.launcher / "leases/versions";
  }
  FileLock lease(const std::string& name, LockMode mode = LockMode::shared) const {
    return {leases() / name, false, mode};
  }

  bool bootstrap_is_free() const {
    return !testing::failure_of([&] { bootstrap(); });
  }

  const TemporaryRoot root_;
  const DataPaths paths_{root_.path()};
  NativeSetupCallbacks callbacks_;
  std::function<bool()> on_asking_;
  int asked_ = 0;
};

TEST_F(RavokClosed, IsTheLockOfTheBootstrapForAsLongAsItIsKept) {
  auto lock = wait(milliseconds(0));
  ASSERT_TRUE(lock);
  EXPECT_TRUE(lock->matches_path(paths_.bootstrap_lock));
  EXPECT_EQ(root_.names(), std::vector<std::string>{".native-bootstrap.lock"});
  EXPECT_FALSE(bootstrap_is_free());
  lock.reset();
  EXPECT_TRUE(bootstrap_is_free());
  EXPECT_EQ(asked_, 0);
}

TEST_F(RavokClosed, FailsAtOnceWithoutPatience) {
  for (const LockMode mode : {LockMode::exclusive, LockMode::shared}) {
    const NativeFileLock held = bootstrap(mode);
    EXPECT_FAILURE(wait(milliseconds(0)), "ravok_running", running);
  }
  EXPECT_EQ(asked_, 0);  // each sleep follows a question
}

TEST_F(RavokClosed, FailsAfterItsPatience) {
  const NativeFileLock held = bootstrap();
  const testing::StillClock clock;
  EXPECT_FAILURE(wait(milliseconds(150)), "ravok_running", running);
  EXPECT_EQ(clock.slept(), milliseconds(200));
  EXPECT_EQ(asked_, 2);
}

TEST_F(RavokClosed, WaitsUntilTheBootstrapEnds) {
  auto held = std::make_unique<NativeFileLock>(bootstrap());
  on_asking_ = [&] {
    if (asked_ == 2) {
      held.reset();
    }
    return false;
  };
  const testing::StillClock clock;
  EXPECT_TRUE(wait(hours(1)));
  EXPECT_EQ(asked_, 2);
  EXPECT_EQ(clock.slept(), milliseconds(200));
}

TEST_F(RavokClosed, SeesAnotherProcess) {
  Companion companion(RAVOK_LOCK_COMPANION, {"hold-native", paths_.bootstrap_lock, "exclusive"});
  ASSERT_EQ(companion.read_line(), "held");
  EXPECT_FAILURE(wait(milliseconds(0)), "ravok_running", running);
  companion.close_input();
  EXPECT_EQ(companion.wait(), 0);
  EXPECT_TRUE(wait(milliseconds(0)));
}

TEST_F(RavokClosed, WaitsUntilEveryLeaseEndsAndHoldsTheBootstrapMeanwhile) {
  lease("a.lock");
  auto held = std::make_unique<FileLock>(lease("b.lock"));
  on_asking_ = [&] {
    EXPECT_FALSE(bootstrap_is_free());
    held.reset();
    return false;
  };
  const auto lock = wait(hours(1));
  EXPECT_EQ(asked_, 1);
  EXPECT_TRUE(lock->matches_path(paths_.bootstrap_lock));
  EXPECT_NO_THROW(lease("a.lock", LockMode::exclusive));
  EXPECT_NO_THROW(lease("b.lock", LockMode::exclusive));
}

TEST_F(RavokClosed, LetsGoOfAllWhenALeaseIsKept) {
  lease("a.lock");
  const FileLock held = lease("b.lock");
  EXPECT_FAILURE(wait(milliseconds(0)), "ravok_running", running);
  EXPECT_TRUE(bootstrap_is_free());
  EXPECT_NO_THROW(lease("a.lock", LockMode::exclusive));
  EXPECT_EQ(asked_, 0);
}

TEST_F(RavokClosed, CanBeCancelledWhileItWaits) {
  on_asking_ = [] { return true; };
  {
    const NativeFileLock held = bootstrap();
    EXPECT_FAILURE(wait(hours(1)), "cancelled", "Setup was cancelled");
    EXPECT_EQ(asked_, 1);
    EXPECT_FAILURE(wait(milliseconds(0)), "ravok_running", running);
  }
  const FileLock held = lease("a.lock");
  EXPECT_FAILURE(wait(hours(1)), "cancelled", "Setup was cancelled");
  EXPECT_EQ(asked_, 2);
  EXPECT_TRUE(bootstrap_is_free());
}

TEST_F(RavokClosed, NeedsNoLeases) {
  root_.directory("launcher");
  EXPECT_TRUE(wait(milliseconds(0)));
  root_.write("launcher/leases/versions", "no directory");
  EXPECT_TRUE(wait(milliseconds(0)));
  EXPECT_EQ(root_.read("launcher/leases/versions"), "no directory");
}

TEST_F(RavokClosed, PassesOnEveryOtherFailure) {
  root_.write(".native-bootstrap.lock", "content");
  EXPECT_FAILURE(wait(hours(1)), "lock_failed", "Native ownership requires an ordinary empty private file");
  EXPECT_EQ(root_.read(".native-bootstrap.lock"), "content");
  std::filesystem::remove(paths_.bootstrap_lock);

  std::filesystem::create_directory(leases() / "directory");
  EXPECT_FAILURE(wait(hours(1)), "lock_failed", "Cannot open operation lock");
  EXPECT_TRUE(bootstrap_is_free());
  EXPECT_EQ(asked_, 0);
}

}  // namespace
}  // namespace ravok::data_folder_test
