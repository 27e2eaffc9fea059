#include "app/launcher/bootstrap_image.hpp"

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/clock_calls.hpp"
#include "support/companion.hpp"
#include "support/failure.hpp"
#include "support/temporary_root.hpp"
#include "support/with_environment.hpp"

namespace ravok::bootstrap_image_test {
namespace {

using testing::Companion;
using testing::failure_of;
using testing::StillClock;
using testing::TemporaryRoot;
using testing::WithEnvironment;
using Names = std::vector<std::string>;

constexpr const char* entry = "native/bootstrap/bin/ravok-bootstrap";
constexpr const char* shortcut_entry = "native/bootstrap/bin/RavokShortcut.app/Contents/MacOS/ravok-shortcut";
constexpr const char* unknown_entry = "Unknown installed bootstrap entry";
constexpr const char* not_normal = "Bootstrap image path must be absolute and normalized";
constexpr const char* owned = "Another worker owns this native installation";
constexpr const char* lock_name = ".native-bootstrap.lock";

std::string incomplete(const std::filesystem::path& root) {
  return "Ravok setup did not finish in " + root.native() + ". Run the Ravok installer again to repair it.";
}

// Whether a bootstrap holds the lock of this data folder.
bool is_held(const std::filesystem::path& root) {
  const auto refusal = failure_of(
      [&] { const NativeFileLock lock(root / lock_name, true, NativeLockSharing::others, LockMode::exclusive); });
  EXPECT_TRUE(!refusal || refusal->code == "busy") << refusal->what();
  return refusal.has_value();
}

TEST(BootstrapStartCheck, IsWhatItsVariableSaysUnlessItIsEmpty) {
  const std::string variable(bootstrap_start_check_variable);
  EXPECT_EQ(variable, "RAVOK_BOOTSTRAP_START_CHECK");
  for (const std::optional<std::string>& value : {std::optional<std::string>(), std::optional<std::string>("")}) {
    const WithEnvironment environment(variable, value);
    EXPECT_FALSE(is_bootstrap_start_check());
  }
  for (const std::string& value : {std::string("1"), std::string("0"), std::string(" "), std::string(8192, 'x')}) {
    const WithEnvironment environment(variable, value);
    EXPECT_TRUE(is_bootstrap_start_check());
  }
  const WithEnvironment environment(variable, std::string(8193, 'x'));
  EXPECT_EQ(failure_of([] { is_bootstrap_start_check(); })->code, "environment_limit");
}

TEST(InstalledDataRoot, IsAboveTheEntryOfABootstrap) {
  for (const char* const name : {entry, shortcut_entry}) {
    EXPECT_EQ(installed_data_root(std::filesystem::path("/data") / name), "/data");
    EXPECT_EQ(installed_data_root(std::filesystem::path("/home/a user/.local/share/Ravok") / name),
              "/home/a user/.local/share/Ravok");
    EXPECT_EQ(installed_data_root(std::filesystem::path("/") / name), "/");
  }
  const std::string nested = std::string("/data/") + entry + "/" + entry;
  EXPECT_EQ(installed_data_root(nested), std::string("/data/") + entry);
}

TEST(InstalledDataRoot, IsNotFoundForAnImageInAnyOtherPlace) {
  for (const char* const image :
       {"/", "/ravok-bootstrap", "/bin/ravok-bootstrap", "/data/bootstrap/bin/ravok-bootstrap",
        "/data/native/bootstrap/ravok-bootstrap", "/data/native/bootstrap/bin/ravok",
        "/data/native/bootstrap/bin/ravok-bootstrap.old", "/data/native/bootstrap/bin/Ravok-bootstrap",
        "/data/native/bootstrap/bin/ravok-bootstrap/", "/data/native/bootstrap/bin/ravok-shortcut",
        "/data/native/bootstrap-update/bin/ravok-bootstrap", "/data/Native/bootstrap/bin/ravok-bootstrap",
        "/data/native/bootstrap/bin/extra/ravok-bootstrap",
        "/data/native/bootstrap/bin/RavokShortcut.app/Contents/MacOS/ravok-bootstrap",
        "/data/native/bootstrap/bin/RavokShortcut.app/Contents/ravok-shortcut",
        "/data/native/bootstrap/RavokShortcut.app/Contents/MacOS/ravok-shortcut"}) {
    EXPECT_FAILURE(installed_data_root(image), "native_install_trust", unknown_entry) << image;
  }
}

TEST(InstalledDataRoot, WantsAnAbsoluteNormalPath) {
  for (const char* const image :
       {"", ".", entry, "./native/bootstrap/bin/ravok-bootstrap", "/data/../data/native/bootstrap/bin/ravok-bootstrap",
        "/data/./native/bootstrap/bin/ravok-bootstrap", "/data/native/bootstrap/bin/./ravok-bootstrap",
        "/data//native/bootstrap/bin/ravok-bootstrap", "/data/native/bootstrap/bin/ravok-bootstrap/."}) {
    EXPECT_FAILURE(installed_data_root(image), "unsafe_path", not_normal) << image;
  }
}

TEST(BootstrapLifetime, IsSharedWithOthers) {
  const TemporaryRoot root;
  const auto first = bootstrap_lifetime(root / entry);
  const auto second = bootstrap_lifetime(root / shortcut_entry);
  const auto third = bootstrap_lifetime_in(root.path());
  for (const auto& lock : {&first, &second, &third}) {
    EXPECT_TRUE((*lock)->matches_path(root / lock_name));
  }
  EXPECT_TRUE(is_held(root.path()));
  EXPECT_EQ(root.names(), (Names{lock_name}));
}

TEST(BootstrapLifetime, FailsAsItsPlaceDoes) {
  const TemporaryRoot root;
  EXPECT_FAILURE(bootstrap_lifetime(root / "ravok-bootstrap"), "native_install_trust", unknown_entry);
  EXPECT_FAILURE(bootstrap_lifetime(entry), "unsafe_path", not_normal);
  EXPECT_EQ(root.names(), Names{});
}

TEST(BootstrapLifetime, WantsASetupThatHasEnded) {
  const TemporaryRoot root;
  root.write(".ravok-setup-incomplete", "");
  EXPECT_FAILURE(bootstrap_lifetime_in(root.path()), "native_install_incomplete", incomplete(root.path()));
  EXPECT_EQ(root.names(), (Names{".ravok-setup-incomplete"}));
}

TEST(BootstrapLifetime, WaitsForASetupThatEndsWell) {
  const TemporaryRoot root;
  Companion setup(RAVOK_LOCK_COMPANION, {"hold-native", root / lock_name, "exclusive"});
  ASSERT_EQ(setup.read_line(), "held");
  int looks = 0;
  const StillClock clock([&] {
    if (++looks == 3) {
      setup.close_input();
      EXPECT_EQ(setup.wait(), 0);
    }
  });
  const auto lock = bootstrap_lifetime_in(root.path());
  EXPECT_TRUE(lock->matches_path(root / lock_name));
  EXPECT_EQ(looks, 3);
}

TEST(BootstrapLifetime, NoticesThatTheSetupWhichItWaitedForWasKilled) {
  const TemporaryRoot root;
  Companion setup(RAVOK_LOCK_COMPANION, {"hold-native", root / lock_name, "exclusive"});
  ASSERT_EQ(setup.read_line(), "held");
  const StillClock clock([&] {
    if (!setup.has_ended()) {
      root.write(".ravok-setup-incomplete", "");
      setup.close_input();
      EXPECT_EQ(setup.wait(), 0);
    }
  });
  EXPECT_FAILURE(bootstrap_lifetime_in(root.path()), "native_install_incomplete", incomplete(root.path()));
  EXPECT_FALSE(is_held(root.path()));
}

TEST(BootstrapLifetime, GivesUpAfterFifteenSeconds) {
  const TemporaryRoot root;
  Companion setup(RAVOK_LOCK_COMPANION, {"hold-native", root / lock_name, "exclusive"});
  ASSERT_EQ(setup.read_line(), "held");
  const StillClock clock;
  EXPECT_FAILURE(bootstrap_lifetime_in(root.path()), "busy", owned);
  EXPECT_EQ(clock.slept(), std::chrono::seconds(15));
}

TEST(BootstrapLifetime, DoesNotWaitForALockThatIsNone) {
  const TemporaryRoot root;
  root.write("elsewhere", "of somebody");
  std::filesystem::create_symlink("elsewhere", root / lock_name);
  const StillClock clock;
  EXPECT_EQ(failure_of([&] { bootstrap_lifetime_in(root.path()); })->code, "lock_failed");
  EXPECT_EQ(clock.sleeps(), 0u);
  EXPECT_EQ(root.read("elsewhere"), "of somebody");
}

// An installation, another one and a folder without one.
class BootstrapOf : public ::testing::Test {
 protected:
  const TemporaryRoot root;
  const std::filesystem::path own = root.directory("own/native").parent_path();
  const std::filesystem::path other = root.directory("other/launcher").parent_path();
  const std::filesystem::path image = own / entry;
  const Names before = root.names();
};

TEST_F(BootstrapOf, AnInstallationRunsOnIt) {
  const RunningBootstrap bootstrap = run_bootstrap_in(std::nullopt, image);
  EXPECT_EQ(bootstrap.data_root, own);
  EXPECT_TRUE(bootstrap.lifetime->matches_path(own / lock_name));
  EXPECT_EQ(bootstrap.image_lifetime, nullptr);
  EXPECT_FALSE(std::filesystem::exists(other / lock_name));
}

TEST_F(BootstrapOf, AnInstallationRunsOnItAlsoWhereItIsNamed) {
  std::filesystem::create_directory_symlink("own", root / "link");
  for (const std::filesystem::path& name : {own, own / "", own / "../own", root / "link", root / "link/native/.."}) {
    const RunningBootstrap bootstrap = run_bootstrap_in(name, image);
    EXPECT_EQ(bootstrap.data_root, own) << name;
    EXPECT_TRUE(bootstrap.lifetime->matches_path(own / lock_name));
    EXPECT_EQ(bootstrap.image_lifetime, nullptr);
  }
}

TEST_F(BootstrapOf, AnInstallationHoldsItsOwnWhileItRunsOnAnother) {
  const RunningBootstrap bootstrap = run_bootstrap_in(other, image);
  EXPECT_EQ(bootstrap.data_root, other);
  EXPECT_TRUE(bootstrap.lifetime->matches_path(other / lock_name));
  ASSERT_NE(bootstrap.image_lifetime, nullptr);
  EXPECT_TRUE(bootstrap.image_lifetime->matches_path(own / lock_name));
}

TEST_F(BootstrapOf, NoInstallationRunsOnANamedOneAlone) {
  const RunningBootstrap bootstrap = run_bootstrap_in(other, root / "ravok-bootstrap");
  EXPECT_EQ(bootstrap.data_root, other);
  EXPECT_TRUE(bootstrap.lifetime->matches_path(other / lock_name));
  EXPECT_EQ(bootstrap.image_lifetime, nullptr);
  EXPECT_FALSE(std::filesystem::exists(own / lock_name));
  EXPECT_FAILURE(run_bootstrap_in(std::nullopt, root / "ravok-bootstrap"), "native_install_trust", unknown_entry);
}

TEST_F(BootstrapOf, AnInstallationTouchesNoFolderWithoutOne) {
  root.write("plain/file", "of somebody");
  const Names with_plain = root.names();
  for (const std::filesystem::path& folder : {root / "plain", root / "missing", root / "plain/file"}) {
    EXPECT_FAILURE(run_bootstrap_in(folder, image), "not_installed", "Ravok is not installed in " + folder.native());
    EXPECT_EQ(root.names(), with_plain);
  }
}

TEST_F(BootstrapOf, AnUnfinishedInstallationRunsOnNone) {
  root.write("own/.ravok-setup-incomplete", "");
  EXPECT_FAILURE(run_bootstrap_in(std::nullopt, image), "native_install_incomplete", incomplete(own));
  EXPECT_FAILURE(run_bootstrap_in(other, image), "native_install_incomplete", incomplete(own));
  EXPECT_FALSE(std::filesystem::exists(other / lock_name));
  EXPECT_FALSE(std::filesystem::exists(own / lock_name));
}

TEST_F(BootstrapOf, AnInstallationDoesNotRunOnAnUnfinishedOne) {
  root.write("other/.ravok-setup-incomplete", "");
  EXPECT_FAILURE(run_bootstrap_in(other, image), "native_install_incomplete", incomplete(other));
  EXPECT_FALSE(std::filesystem::exists(other / lock_name));
  EXPECT_FALSE(is_held(own));
}

}  // namespace
}  // namespace ravok::bootstrap_image_test
