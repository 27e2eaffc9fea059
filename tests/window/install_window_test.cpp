// ravok-install-gui as a player uses it, with mouse and keyboard.

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "app/install/native_install.hpp"
#include "platform/file/native_lock.hpp"
#include "support/bytes_of.hpp"
#include "support/desktop_entry.hpp"
#include "support/launcher_release.hpp"
#include "support/mounted_volume.hpp"
#include "window/window_place.hpp"

namespace ravok::install_window_test {
namespace {

using testing::Arguments;
using testing::MountedVolume;
using testing::ShownItem;
using testing::ShownWindow;
using testing::TreeState;
using testing::WindowProgram;

class InstallWindow : public ::testing::Test, protected testing::WindowPlace {
 protected:
  // Starts the installer and goes through the installation, with the window open at its end.
  std::unique_ptr<WindowProgram> installed_by_window() {
    auto window = start();
    window->click("install");
    window->wait_for_screen("done");
    return window;
  }
  void close(WindowProgram& window, int exit_code = 0) {
    window.click("close");
    EXPECT_EQ(window.wait(), exit_code) << window.errors();
    EXPECT_EQ(window.errors(), "");
  }
  std::vector<std::filesystem::path> shortcuts() const { return NativeInstaller::status(place.data()).shortcuts; }
  // The folder but for what every setup writes there.
  TreeState lasting() const {
    TreeState state = place.state();
    std::erase_if(state, [](const auto& node) {
      return node.first == "native/setup-status.json" || node.first == "native/installation.json" ||
             node.first.ends_with(".lock");
    });
    return state;
  }
};

// Whether a text of this kind is shown.
bool shows(const ShownWindow& shown, const std::string& kind, const std::string& text) {
  for (const ShownItem& item : shown.items) {
    if (item.kind == kind && item.text == text) {
      return true;
    }
  }
  return false;
}

bool mentions(const ShownWindow& shown, const std::string& words) {
  return shown.texts().find(words) != std::string::npos;
}

TEST_F(InstallWindow, InstallsByMouse) {
  auto window = start();
  const ShownWindow first = window->wait_for_item("install");
  EXPECT_EQ(first.screen, "choose");
  EXPECT_NE(first.title.find("Acme Games"), std::string::npos) << first.title;
  EXPECT_EQ(first.find("folder")->text, place.data().native());
  window->picture("choose");
  window->click("install");
  const ShownWindow done = window->wait_for_screen("done");
  EXPECT_TRUE(mentions(done, place.data())) << done.texts();
  EXPECT_TRUE(mentions(done, place.entry())) << done.texts();
  window->picture("done");
  EXPECT_EQ(shortcuts(), (std::vector{place.entry()}));
  close(*window);
  expect_installed();
}

TEST_F(InstallWindow, InstallsByKeyboard) {
  auto window = start();
  window->tab_to("install");
  window->press("Return");
  window->wait_for_screen("done");
  EXPECT_EQ(shortcuts(), (std::vector{place.entry()}));
  window->tab_to("close");
  window->press("space");
  EXPECT_EQ(window->wait(), 0);
  expect_installed();
}

TEST_F(InstallWindow, InstallsInTheFolderThatIsWritten) {
  const std::filesystem::path other = place.home() / "Games of Acme";
  auto window = start();
  window->fill("folder", other);
  window->click("install");
  window->wait_for_screen("done");
  close(*window);
  EXPECT_TRUE(NativeInstaller::status(other).installed);
  EXPECT_FALSE(std::filesystem::exists(place.data()));
}

TEST_F(InstallWindow, InstallsInTheFolderOfItsBrandWhenNoneIsNamed) {
  auto window = start_program(installer(), {"--package", place.package_directory()});
  const std::filesystem::path folder = place.home() / ".local/share/Acme Games";
  EXPECT_EQ(window->wait_for_item("install").find("folder")->text, folder.native());
  window->click("install");
  window->wait_for_screen("done");
  close(*window);
  EXPECT_TRUE(NativeInstaller::status(folder).installed);
}

TEST_F(InstallWindow, InstallsInTheFolderThatIsLookedFor) {
  place.root().directory("disk/Games");
  auto window =
      start_program(installer(), {"--package", place.package_directory(), "--data-dir", place.root() / "disk/data"});
  window->click("browse");
  window->wait_for("the folders", [](const ShownWindow& shown) {
    return shown.screen == "folders" && shown.find("folders")->text == "..\nGames\n";
  });
  window->picture("folders");
  // Below the folder above, which comes first.
  window->tab_to("folders");
  window->press("Down");
  window->press("Down");
  window->press("Return");
  const ShownWindow opened = window->wait_for("what lies in the folder", [](const ShownWindow& shown) {
    return shown.screen == "folders" && shown.find("folders")->text == "..\n" && shown.offers("use");
  });
  EXPECT_TRUE(mentions(opened, place.root() / "disk/Games")) << opened.texts();
  EXPECT_EQ(opened.focus, "folders");
  window->click("use");
  const ShownWindow chosen = window->wait_for_screen("choose");
  EXPECT_EQ(chosen.find("folder")->text, place.root() / "disk/Games/Acme Games");
  window->click("install");
  window->wait_for_screen("done");
  close(*window);
  EXPECT_TRUE(NativeInstaller::status(place.root() / "disk/Games/Acme Games").installed);
}

TEST_F(InstallWindow, ShowsARefusalOfTheFolderBesideTheFieldAsItIs) {
  place.root().write("home/mine/letter", "mine");
  auto window = start();
  window->wait_for_item("install");
  window->fill("folder", place.home() / "mine");
  const ShownWindow refused = window->wait_for("the refusal", [](const ShownWindow& shown) {
    return shows(shown, "problem", "Choose an empty folder or an earlier Ravok data folder");
  });
  EXPECT_EQ(refused.screen, "choose");
  window->picture("wrong-folder");
  window->fill("folder", place.package_directory() / "inner");
  window->wait_for("the other refusal", [](const ShownWindow& shown) {
    return shows(shown, "problem", "The package and data folders overlap");
  });
  window->fill("folder", place.data());
  window->wait_for("no refusal", [](const ShownWindow& shown) { return shown.find("folder_problem") == nullptr; });
  close(*window);
  EXPECT_EQ(place.root().read("home/mine/letter"), "mine");
}

TEST_F(InstallWindow, ShowsWhatIsWrongWithADamagedPackage) {
  place.root().write("package/" + testing::archive_name(place.package.launcher),
                     std::string(place.package.launcher_archive.size(), 'x'));
  before = names();
  auto window = start();
  window->click("install");
  const ShownWindow failed = window->wait_for_screen("failed");
  EXPECT_TRUE(mentions(failed, "Initial package resource changed: " + testing::archive_name(place.package.launcher)))
      << failed.texts();
  window->picture("damaged-package");
  close(*window, 1);
  expect_nothing_left();
}

TEST_F(InstallWindow, ShowsThatItsPackageIsAnother) {
  place.package.origin = "https://others.example";
  place.republish();
  before = names();
  auto window = start();
  const ShownWindow broken = window->wait_for_screen("broken");
  EXPECT_TRUE(mentions(broken, "This package is not the one this installer was built for")) << broken.texts();
  window->picture("other-package");
  close(*window, 1);
  expect_nothing_left();
}

TEST_F(InstallWindow, SaysThatAVolumeIsFullAndInstallsOnceThereIsRoom) {
  const MountedVolume volume(place.root().directory("small"), "tmpfs", "size=64k,mode=0700");
  if (!volume.mounted()) {
    GTEST_SKIP() << "needs leave to mount a volume";
  }
  const std::filesystem::path folder = place.root() / "small/data";
  auto window = start_program(installer(), {"--package", place.package_directory(), "--data-dir", folder});
  window->wait_for("that there is no room",
                   [](const ShownWindow& shown) { return mentions(shown, "64.0 KiB are free"); });
  window->click("install");
  const ShownWindow failed = window->wait_for_screen("failed");
  EXPECT_TRUE(mentions(failed, "Free some space, or choose a folder on another disk.")) << failed.texts();
  window->picture("disk-full");
  EXPECT_TRUE(std::filesystem::is_empty(place.root() / "small"));
  ASSERT_TRUE(volume.remount("size=64m"));
  window->click("retry");
  window->wait_for_screen("done");
  EXPECT_TRUE(NativeInstaller::status(folder).installed);
  close(*window);
}

TEST_F(InstallWindow, StartsTheInstalledClient) {
  place.root().write(
      "starter",
      "#!/bin/sh\nprintf '%s\\n' \"$@\" >\"$HOME/started.new\"\nmv \"$HOME/started.new\" \"$HOME/started\"\n");
  testing::use_bootstrap(place.package, place.root(), place.root() / "starter");
  publish();
  auto window = installed_by_window();
  window->click("start");
  EXPECT_EQ(window->wait(), 0);
  while (!std::filesystem::exists(place.home() / "started")) {
  }
  EXPECT_EQ(place.root().read("home/started"), "--data-dir\n" + place.data().native() + "\n");
}

TEST_F(InstallWindow, GivesAFeaturedGameAnEntryOfItsOwn) {
  place.package.featured_game = {{"id", "first-game"}, {"name", "The First Game"}};
  publish();
  auto window = installed_by_window();
  const std::vector<std::filesystem::path> made = shortcuts();
  ASSERT_EQ(made.size(), 1u);
  EXPECT_TRUE(mentions(window->wait_for_screen("done"), made.front()));
  const std::string entry = testing::bytes_of(made.front());
  EXPECT_EQ(testing::desktop_entry(entry).at("Name"), "The First Game");
  const std::vector<std::string> started = testing::started_by(entry);
  EXPECT_EQ((std::vector(started.end() - 2, started.end())), (std::vector<std::string>{"--launch", "first-game"}));
  close(*window);
  expect_installed();
}

TEST_F(InstallWindow, OffersWhatCanBeDoneWithAnInstallation) {
  place.install(true);
  auto window = start();
  const ShownWindow shown = window->wait_for_screen("installed");
  for (const char* action : {"start", "repair", "uninstall", "close"}) {
    EXPECT_TRUE(shown.offers(action)) << action;
  }
  EXPECT_FALSE(shown.offers("install"));
  window->picture("installed");
  close(*window);
  expect_installed();
}

TEST_F(InstallWindow, RepairsADamagedInstallation) {
  place.install(true);
  const TreeState player = place.write_player_data();
  const TreeState whole = lasting();
  place.write("native/bootstrap/data/notes", "damaged");
  auto window = start();
  window->click("repair");
  const ShownWindow done = window->wait_for_screen("done");
  window->picture("repaired");
  close(*window);
  EXPECT_TRUE(testing::same_tree(lasting(), whole));
  EXPECT_TRUE(testing::same_tree(place.player_data(), player));
  expect_installed();
}

TEST_F(InstallWindow, FinishesAnInstallationThatWasCutShort) {
  place.install();
  place.write(".ravok-setup-incomplete", "");
  auto window = start();
  EXPECT_FALSE(window->wait_for_item("repair").offers("start"));
  window->picture("interrupted");
  window->click("repair");
  window->wait_for_screen("done");
  close(*window);
  expect_installed();
}

TEST_F(InstallWindow, RemovesAnInstallationAndKeepsTheSaves) {
  const TreeState player = place.write_player_data();
  place.install(true);
  auto window = start();
  window->click("uninstall");
  EXPECT_FALSE(window->wait_for_screen("remove").find("remove_data")->checked);
  window->picture("remove");
  window->click("remove");
  const ShownWindow removed = window->wait_for_screen("removed");
  window->picture("removed");
  close(*window);
  EXPECT_TRUE(testing::same_tree(place.state(), player));
  EXPECT_FALSE(std::filesystem::exists(place.entry()));
}

TEST_F(InstallWindow, RemovesTheSavesTooWhereThatIsTicked) {
  place.write_player_data();
  place.install(true);
  auto window = start();
  window->click("uninstall");
  window->tab_to("remove_data");
  window->press("space");
  window->wait_for("the tick", [](const ShownWindow& shown) { return shown.find("remove_data")->checked; });
  window->click("remove");
  window->wait_for_screen("removed");
  close(*window);
  EXPECT_FALSE(std::filesystem::exists(place.data()));
}

TEST_F(InstallWindow, GoesBackFromTheRemovalByEscape) {
  place.install(true);
  const TreeState whole = place.state();
  auto window = start();
  window->click("uninstall");
  window->wait_for_screen("remove");
  window->press("Escape");
  window->wait_for_screen("installed");
  close(*window);
  EXPECT_TRUE(testing::same_tree(place.state(), whole));
}

TEST_F(InstallWindow, SaysThatTheClientMustBeClosedFirst) {
  place.install(true);
  place.write("native/bootstrap/data/notes", "damaged");
  const TreeState damaged = lasting();
  auto window = start();
  window->wait_for_item("repair");
  {
    const NativeFileLock running(place.paths().bootstrap_lock, true, NativeLockSharing::none, LockMode::exclusive);
    window->click("repair");
    const ShownWindow failed = window->wait_for_screen("failed");
    EXPECT_TRUE(mentions(failed, "Ravok or a game from this folder is still running; close it and try again"))
        << failed.texts();
    window->picture("client-runs");
    EXPECT_TRUE(testing::same_tree(lasting(), damaged));
  }
  window->click("retry");
  window->wait_for_screen("done");
  close(*window);
  expect_installed();
}

}  // namespace
}  // namespace ravok::install_window_test
