#include "app/launcher/start_marker.hpp"

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/failure.hpp"
#include "support/temporary_root.hpp"

namespace ravok::start_marker_test {
namespace {

using testing::TemporaryRoot;

using Names = std::vector<std::string>;

TEST(ConfirmLauncherStart, RemovesTheRecordAlone) {
  const TemporaryRoot root;
  root.write("data/launcher/start-attempt.json", "{}");
  root.write("data/launcher/installation.json", "{}");
  confirm_launcher_start(root / "data");
  EXPECT_EQ(root.names(), (Names{"data/", "data/launcher/", "data/launcher/installation.json"}));
  // There is no record any more.
  confirm_launcher_start(root / "data");
  EXPECT_EQ(root.names(), (Names{"data/", "data/launcher/", "data/launcher/installation.json"}));
}

TEST(ConfirmLauncherStart, FindsTheDataFolderInEveryForm) {
  const TemporaryRoot root;
  std::filesystem::create_directory_symlink("data", root / "link");
  for (const std::filesystem::path& folder : {root / "data/", root / "data/../data", root / "link"}) {
    root.write("data/launcher/start-attempt.json", "{}");
    confirm_launcher_start(folder);
    EXPECT_EQ(root.names(), (Names{"data/", "data/launcher/", "link@"})) << folder;
  }
}

TEST(ConfirmLauncherStart, RemovesALinkAndNotWhatItLeadsTo) {
  const TemporaryRoot root;
  root.directory("data/launcher");
  root.write("elsewhere", "of somebody");
  std::filesystem::create_symlink("../../elsewhere", root / "data/launcher/start-attempt.json");
  confirm_launcher_start(root / "data");
  EXPECT_EQ(root.names(), (Names{"data/", "data/launcher/", "elsewhere"}));
}

TEST(ConfirmLauncherStart, SaysSoWhenTheRecordCannotBeRemoved) {
  const TemporaryRoot root;
  root.write("data/launcher/start-attempt.json/file", "");
  EXPECT_FAILURE(confirm_launcher_start(root / "data"), "file_remove",
                 "Cannot remove " + (root / "data/launcher/start-attempt.json").native());
  EXPECT_EQ(root.read("data/launcher/start-attempt.json/file"), "");
}

TEST(ConfirmLauncherStart, NeedsAStoreWhoseSetupHasEnded) {
  const TemporaryRoot root;
  root.directory("data");
  EXPECT_EQ(testing::failure_of([&] { confirm_launcher_start(root / "data"); })->code, "unsafe_path");
  EXPECT_EQ(root.names(), (Names{"data/"}));
  root.write("data/.ravok-setup-incomplete", "");
  root.write("data/launcher/start-attempt.json", "{}");
  EXPECT_FAILURE(
      confirm_launcher_start(root / "data"), "native_install_incomplete",
      "Ravok setup did not finish in " + (root / "data").native() + ". Run the Ravok installer again to repair it.");
  EXPECT_EQ(root.read("data/launcher/start-attempt.json"), "{}");
}

}  // namespace
}  // namespace ravok::start_marker_test
