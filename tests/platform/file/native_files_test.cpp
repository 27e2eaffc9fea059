#include "platform/file/native_files.hpp"

#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/failure.hpp"
#include "support/ordinary_user.hpp"
#include "support/temporary_root.hpp"
#include "support/with_environment.hpp"

namespace ravok {
namespace {

using testing::OrdinaryUser;
using testing::TemporaryRoot;
using testing::WithEnvironment;
using testing::WithMode;
using Names = std::vector<std::string>;

TEST(RemoveOrTrash, RemovesAFileAnEmptyDirectoryAndALink) {
  const TemporaryRoot root;
  root.write("file", "content");
  root.directory("empty");
  root.write("kept/file", "content");
  std::filesystem::create_directory_symlink("kept", root / "link");
  for (const char* name : {"file", "empty", "link"}) {
    EXPECT_TRUE(native_files::remove_or_trash(root / name, root / "trash"));
  }
  EXPECT_EQ(root.names(), (Names{"kept/", "kept/file"}));
}

TEST(RemoveOrTrash, TakesWhatIsAlreadyGoneForRemoved) {
  const TemporaryRoot root;
  EXPECT_TRUE(native_files::remove_or_trash(root / "missing", root / "trash"));
  EXPECT_EQ(root.names(), Names{});
}

TEST(RemoveOrTrash, RefusesADirectoryThatHoldsSomething) {
  const TemporaryRoot root;
  root.write("full/file", "content");
  EXPECT_FAILURE(native_files::remove_or_trash(root / "full", root / "trash"), "file_remove",
                 "Cannot remove " + (root / "full").native());
  EXPECT_EQ(root.names(), (Names{"full/", "full/file"}));
}

TEST(RemoveOrTrash, NamesWhatItMayNotRemove) {
  const TemporaryRoot root;
  root.write("locked/file", "content");
  const OrdinaryUser user(root);
  const WithMode locked(root / "locked", 0500);
  EXPECT_FAILURE(native_files::remove_or_trash(root / "locked/file", root / "trash"), "file_remove",
                 "Cannot remove " + (root / "locked/file").native());
  EXPECT_EQ(root.read("locked/file"), "content");
}

TEST(RemoveAfterExit, RemovesAWholeTreeAndFollowsNoLink) {
  const TemporaryRoot root;
  root.write("tree/deep/file", "content");
  root.write("kept", "content");
  std::filesystem::create_symlink("../kept", root / "tree/link");
  native_files::remove_after_exit(root / "tree");
  EXPECT_EQ(root.names(), Names{"kept"});
}

TEST(RemoveAfterExit, IgnoresWhatIsMissingOrMayNotGo) {
  const TemporaryRoot root;
  root.write("locked/file", "content");
  EXPECT_NO_THROW(native_files::remove_after_exit(root / "missing"));
  const OrdinaryUser user(root);
  const WithMode locked(root / "locked", 0500);
  EXPECT_NO_THROW(native_files::remove_after_exit(root / "locked"));
  EXPECT_EQ(root.read("locked/file"), "content");
}

TEST(TemporaryDirectory, IsTheSystemsWhateverThePath) {
  const TemporaryRoot root;
  const WithEnvironment variable("TMPDIR", root.path().native());
  EXPECT_EQ(native_files::temporary_directory("/"), root.path());
  EXPECT_EQ(native_files::temporary_directory("/missing/path"), root.path());
}

TEST(TemporaryDirectory, HasADefault) {
  const WithEnvironment variable("TMPDIR", std::nullopt);
  EXPECT_EQ(native_files::temporary_directory("/dev/shm/data"), "/tmp");
}

TEST(TemporaryDirectory, FallsBackWhereTheSystemsIsNone) {
  const TemporaryRoot root;
  const WithEnvironment variable("TMPDIR", (root / "missing").native());
  EXPECT_EQ(native_files::temporary_directory("/"), "/tmp");
}

TEST(RenameReplace, GivesAFileOrADirectoryAnotherName) {
  const TemporaryRoot root;
  root.write("file", "content");
  root.write("tree/file", "content");
  native_files::rename_replace(root / "file", root / "renamed");
  native_files::rename_replace(root / "tree", root / "moved");
  EXPECT_EQ(root.names(), (Names{"moved/", "moved/file", "renamed"}));
}

TEST(RenameReplace, ReplacesAFileAndAnEmptyDirectory) {
  const TemporaryRoot root;
  root.write("new", "new");
  root.write("old", "old");
  root.write("tree/file", "content");
  root.directory("empty");
  native_files::rename_replace(root / "new", root / "old");
  native_files::rename_replace(root / "tree", root / "empty");
  EXPECT_EQ(root.names(), (Names{"empty/", "empty/file", "old"}));
  EXPECT_EQ(root.read("old"), "new");
}

TEST(RenameReplace, ReplacesALinkAndNotWhatItLeadsTo) {
  const TemporaryRoot root;
  root.write("new", "new");
  root.write("kept", "kept");
  std::filesystem::create_symlink("kept", root / "link");
  native_files::rename_replace(root / "new", root / "link");
  EXPECT_EQ(root.names(), (Names{"kept", "link"}));
  EXPECT_EQ(root.read("kept"), "kept");
  EXPECT_EQ(root.read("link"), "new");
}

TEST(RenameReplace, NamesWhatItCannotMove) {
  const TemporaryRoot root;
  root.write("file", "file");
  root.write("full/inner", "inner");
  root.directory("tree");
  const Names before = root.names();
  const std::pair<std::filesystem::path, std::filesystem::path> cases[] = {{root / "missing", root / "file"},
                                                                           {root / "file", root / "full"},
                                                                           {root / "tree", root / "full"},
                                                                           {root / "tree", root / "file"},
                                                                           {root / "file", root / "missing/file"}};
  for (const auto& each : cases) {
    EXPECT_FAILURE(native_files::rename_replace(each.first, each.second), "file_write",
                   "Cannot move " + each.first.native() + " into place");
    EXPECT_EQ(root.names(), before);
  }
  EXPECT_EQ(root.read("file"), "file");
}

}  // namespace
}  // namespace ravok
