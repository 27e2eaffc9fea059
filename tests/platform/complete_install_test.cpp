#include "platform/complete_install.hpp"

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/failure.hpp"
#include "support/temporary_root.hpp"

namespace ravok {
namespace {

using testing::TemporaryRoot;

std::string unfinished(const std::filesystem::path& root) {
  return "Ravok setup did not finish in " + root.string() + ". Run the Ravok installer again to repair it.";
}

const std::vector<std::string> package_markers = {".ravok-native-bundle-incomplete.json",
                                                  ".ravok-initial-package-incomplete.json",
                                                  ".ravok-launcher-package-incomplete.json"};

constexpr const char* unfinished_package = "This image belongs to an unfinished package; it cannot start";

std::filesystem::path levels(int count) {
  std::filesystem::path path = "/";
  for (int i = 0; i < count; ++i) {
    path /= "d";
  }
  return path / "program";
}

TEST(RequireCompleteNativeInstall, PassesAFolderWithoutTheMarker) {
  const TemporaryRoot root;
  EXPECT_NO_THROW(require_complete_native_install(root.path()));
  EXPECT_NO_THROW(require_complete_native_install(root / "nowhere"));
  root.write("below/.ravok-setup-incomplete", "");
  EXPECT_NO_THROW(require_complete_native_install(root.path()));
}

TEST(RequireCompleteNativeInstall, TellsTheUserToRepair) {
  const TemporaryRoot root;
  root.write(".ravok-setup-incomplete", "");
  const auto failure = testing::failure_of([&] { require_complete_native_install(root.path()); });
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->code, "native_install_incomplete");
  EXPECT_EQ(failure->what(), unfinished(root.path()));
  EXPECT_EQ(failure->details, std::vector<std::string>{"Run the Ravok installer and choose Repair"});
  EXPECT_EQ(root.names(), std::vector<std::string>{".ravok-setup-incomplete"});
}

TEST(RequireCompleteNativeInstall, TakesAMarkerOfAnyKind) {
  const TemporaryRoot root;
  const std::filesystem::path marker = root / ".ravok-setup-incomplete";
  const auto expect_marked = [&] {
    EXPECT_FAILURE(require_complete_native_install(root.path()), "native_install_incomplete", unfinished(root.path()));
    std::filesystem::remove(marker);
  };
  root.directory(".ravok-setup-incomplete");
  expect_marked();
  std::filesystem::create_symlink("nowhere", marker);
  expect_marked();
  ASSERT_EQ(mkfifo(marker.c_str(), 0600), 0);
  expect_marked();
}

TEST(RequireCompleteNativeInstallImage, PassesAProgramInAFinishedTree) {
  const TemporaryRoot root;
  root.directory("a/b");
  EXPECT_NO_THROW(require_complete_native_install_image(root / "a/b/program"));
  root.write("a/b/c/.ravok-setup-incomplete", "");
  EXPECT_NO_THROW(require_complete_native_install_image(root / "a/b/program"));
}

TEST(RequireCompleteNativeInstallImage, LooksAtEveryFolderAboveTheProgram) {
  const TemporaryRoot root;
  root.directory("a/b");
  for (const std::string folder : {"a/b", "a", "."}) {
    const std::filesystem::path marked = folder == "." ? root.path() : root / folder;
    std::filesystem::create_symlink("nowhere", marked / ".ravok-setup-incomplete");
    EXPECT_FAILURE(require_complete_native_install_image(root / "a/b/program"), "native_install_incomplete",
                   unfinished(marked));
    std::filesystem::remove(marked / ".ravok-setup-incomplete");
    for (const std::string& name : package_markers) {
      std::filesystem::create_symlink("nowhere", marked / name);
      EXPECT_FAILURE(require_complete_native_install_image(root / "a/b/program"), "native_install_incomplete",
                     unfinished_package);
      std::filesystem::remove(marked / name);
    }
  }
}

TEST(RequireCompleteNativeInstallImage, BoundsTheFoldersAboveTheProgram) {
  EXPECT_NO_THROW(require_complete_native_install_image(levels(256)));
  EXPECT_FAILURE(require_complete_native_install_image(levels(257)), "unsafe_path", "Native image path is too deep");
}

}  // namespace
}  // namespace ravok
