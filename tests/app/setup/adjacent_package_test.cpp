#include "app/setup/adjacent_package.hpp"

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "platform/process/native_platform.hpp"
#include "support/temporary_root.hpp"

namespace ravok::adjacent_package_test {
namespace {

using testing::TemporaryRoot;

TEST(MacosInstallerPackage, LiesInTheResourcesOfTheBundle) {
  EXPECT_EQ(macos_installer_package("/x/RavokInstaller.app/Contents/MacOS/ravok-install-gui"),
            "/x/RavokInstaller.app/Contents/Resources/initial-package");
  EXPECT_EQ(macos_installer_package("RavokInstaller.app/Contents/MacOS/ravok-install-gui"),
            "RavokInstaller.app/Contents/Resources/initial-package");
}

TEST(MacosInstallerPackage, ComparesWholeComponents) {
  for (const char* executable :
       {"", "/", "ravok-install-gui", "/x/RavokInstaller.app/Contents/MacOS/ravok-install",
        "/x/Other.app/Contents/MacOS/ravok-install-gui", "/x/XRavokInstaller.app/Contents/MacOS/ravok-install-gui",
        "/x/RavokInstaller.app/contents/MacOS/ravok-install-gui",
        "/x/RavokInstaller.app/Contents/MacOS/x/ravok-install-gui", "/x/RavokInstaller.app/MacOS/ravok-install-gui"}) {
    EXPECT_EQ(macos_installer_package(executable), "") << executable;
  }
}

TEST(LinuxInstallerPackage, LiesBesideTheInstaller) {
  for (const char* executable : {"/x/ravok-install", "/x/ravok-install-gui"}) {
    EXPECT_EQ(linux_installer_package(executable), "/x/initial-package") << executable;
  }
  for (const char* executable :
       {"", "/x/ravok-install-gui-", "/x/xravok-install-gui", "/x/ravok-install-", "/x/ravok-maintenance",
        "/x/ravok-maintenance-gui", "/x/ravok-install/y", "/x/ravok-install-gui/y"}) {
    EXPECT_EQ(linux_installer_package(executable), "") << executable;
  }
}

// Where this platform looks for the package of an installer.
struct Installer {
  std::string executable;
  std::string package;
};

Installer native_installer() {
  if (!programs_are_bundles()) {
    return {"ravok-install-gui", "initial-package"};
  }
  return {"RavokInstaller.app/Contents/MacOS/ravok-install-gui",
          "RavokInstaller.app/Contents/Resources/initial-package"};
}

TEST(AdjacentInitialPackage, IsTheDirectoryThatLiesThere) {
  const TemporaryRoot root;
  const Installer installer = native_installer();
  root.write(installer.executable, "");
  EXPECT_EQ(adjacent_initial_package(root / installer.executable), "");
  root.directory(installer.package);
  EXPECT_EQ(adjacent_initial_package(root / installer.executable), root / installer.package);
}

TEST(AdjacentInitialPackage, MayBeALinkToADirectory) {
  const TemporaryRoot root;
  const Installer installer = native_installer();
  root.write(installer.executable, "");
  root.directory("elsewhere");
  std::filesystem::create_directories((root / installer.package).parent_path());
  std::filesystem::create_symlink(root / "elsewhere", root / installer.package);
  EXPECT_EQ(adjacent_initial_package(root / installer.executable), root / installer.package);
}

TEST(AdjacentInitialPackage, IsNeitherAFileNorADanglingLink) {
  const TemporaryRoot root;
  const Installer installer = native_installer();
  root.write(installer.executable, "");
  root.write(installer.package, "");
  EXPECT_EQ(adjacent_initial_package(root / installer.executable), "");
  std::filesystem::remove(root / installer.package);
  std::filesystem::create_symlink("nowhere", root / installer.package);
  EXPECT_EQ(adjacent_initial_package(root / installer.executable), "");
}

TEST(AdjacentInitialPackage, NeverFailsForWhatTheFileSystemAnswers) {
  const std::filesystem::path endless = "/" + std::string(5000, 'x');
  EXPECT_EQ(adjacent_initial_package(endless / native_installer().executable), "");
  EXPECT_EQ(adjacent_initial_package(""), "");
}

}  // namespace
}  // namespace ravok::adjacent_package_test
