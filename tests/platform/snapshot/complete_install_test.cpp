#include "platform/snapshot/complete_install.hpp"

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/failure.hpp"
#include "support/temporary_root.hpp"

namespace ravok::complete_install_test {
namespace {

using testing::TemporaryRoot;

constexpr const char* unfinished_package = "This image belongs to an unfinished package; it cannot start";

std::string unfinished(const std::filesystem::path& folder) {
  return "Ravok setup did not finish in " + folder.native() + ". Run the Ravok installer again to repair it.";
}

// Makes a marker at the path in every form that it can have, one after the other.
template <typename Look>
void with_each_kind(const std::filesystem::path& path, Look look) {
  ASSERT_EQ(mkfifo(path.c_str(), 0), 0);
  look();
  std::filesystem::remove(path);
  std::filesystem::create_symlink("nowhere", path);
  look();
  std::filesystem::remove(path);
  std::filesystem::create_symlink(path.filename(), path);
  look();
  std::filesystem::remove(path);
  std::filesystem::create_directory(path);
  look();
  std::filesystem::remove(path);
}

TEST(CompleteInstall, IsAFolderWithoutTheMarker) {
  const TemporaryRoot root;
  root.write("ravok-setup-incomplete", "");
  root.write("below/.ravok-setup-incomplete", "");
  EXPECT_NO_THROW(require_complete_native_install(root.path()));
  EXPECT_NO_THROW(require_complete_native_install(root / "missing"));
  EXPECT_NO_THROW(require_complete_native_install(root / "ravok-setup-incomplete"));
}

TEST(CompleteInstall, IsRefusedWithTheMarkerAndTheWayOut) {
  const TemporaryRoot root;
  root.write(".ravok-setup-incomplete", "");
  EXPECT_FAILURE(require_complete_native_install(root.path()), "native_install_incomplete", unfinished(root.path()));
  const auto failure = testing::failure_of([&] { require_complete_native_install(root.path()); });
  ASSERT_TRUE(failure.has_value());
  EXPECT_EQ(failure->details, (std::vector<std::string>{"Run the Ravok installer and choose Repair"}));
  EXPECT_EQ(root.names(), (std::vector<std::string>{".ravok-setup-incomplete"}));
}

TEST(CompleteInstall, IsRefusedWithAMarkerOfAnyKind) {
  const TemporaryRoot root;
  with_each_kind(root / incomplete_install_marker, [&] {
    EXPECT_FAILURE(require_complete_native_install(root.path()), "native_install_incomplete", unfinished(root.path()));
  });
}

TEST(CompleteInstallImage, PassesWhereNoFolderAboveItIsMarked) {
  const TemporaryRoot root;
  root.write("beside/.ravok-setup-incomplete", "");
  root.write("a/b/below/.ravok-native-bundle-incomplete.json", "");
  EXPECT_NO_THROW(require_complete_native_install_image(root / "a/b/program"));
  EXPECT_NO_THROW(require_complete_native_install_image("/program"));
  EXPECT_NO_THROW(require_complete_native_install_image("program"));
}

TEST(CompleteInstallImage, IsRefusedBelowAFolderInRepairAtAnyLevel) {
  for (const char* const folder : {"", "a", "a/b"}) {
    const TemporaryRoot root;
    root.directory("a/b");
    root.write(std::string(folder) + (*folder == '\0' ? "" : "/") + ".ravok-setup-incomplete", "");
    const std::filesystem::path marked = *folder == '\0' ? root.path() : root / folder;
    EXPECT_FAILURE(require_complete_native_install_image(root / "a/b/program"), "native_install_incomplete",
                   unfinished(marked))
        << folder;
  }
}

TEST(CompleteInstallImage, IsRefusedBelowEachUnfinishedPackage) {
  for (const char* const marker : {".ravok-native-bundle-incomplete.json", ".ravok-initial-package-incomplete.json",
                                   ".ravok-launcher-package-incomplete.json"}) {
    const TemporaryRoot root;
    root.directory("a/b");
    for (const std::filesystem::path& folder : {root.path(), root / "a", root / "a/b"}) {
      with_each_kind(folder / marker, [&] {
        EXPECT_FAILURE(require_complete_native_install_image(root / "a/b/program"), "native_install_incomplete",
                       unfinished_package)
            << folder;
      });
    }
  }
}

TEST(CompleteInstallImage, NamesTheRepairBeforeThePackage) {
  const TemporaryRoot root;
  root.write(".ravok-setup-incomplete", "");
  root.write(".ravok-initial-package-incomplete.json", "");
  EXPECT_FAILURE(require_complete_native_install_image(root / "program"), "native_install_incomplete",
                 unfinished(root.path()));
}

TEST(CompleteInstallImage, LiesInAtMost256Folders) {
  std::string path = "/";
  for (int folder = 0; folder < 256; ++folder) {
    path += "x/";
  }
  EXPECT_NO_THROW(require_complete_native_install_image(path + "program"));
  EXPECT_FAILURE(require_complete_native_install_image(path + "x/program"), "unsafe_path",
                 "Native image path is too deep");
}

TEST(ImageFolders, AreVisitedFromTheNearestToTheLastBelowTheRoot) {
  const struct {
    const char* program;
    std::vector<std::string> folders;
  } cases[] = {{"/a/b/c/program", {"/a/b/c", "/a/b", "/a"}},
               {"a/program", {"a"}},
               {"/program", {}},
               {"program", {}},
               {"/", {}},
               {"", {}}};
  for (const auto& [program, folders] : cases) {
    std::vector<std::string> visited;
    visit_image_folders(program, [&](const std::filesystem::path& folder) { visited.push_back(folder.native()); });
    EXPECT_EQ(visited, folders) << program;
  }
}

}  // namespace
}  // namespace ravok::complete_install_test
