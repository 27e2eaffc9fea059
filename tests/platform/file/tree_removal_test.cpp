#include "platform/file/tree_removal.hpp"

#include <cerrno>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/file/handle.hpp"
#include "platform/file/tree_walk.hpp"
#include "support/deep_tree.hpp"
#include "support/failure.hpp"
#include "support/fast_volume.hpp"
#include "support/few_descriptors.hpp"
#include "support/mounted_volume.hpp"
#include "support/ordinary_user.hpp"
#include "support/temporary_root.hpp"

namespace ravok::tree_removal_test {
namespace {

using testing::DeepTree;
using testing::FewDescriptors;
using testing::MountedVolume;
using testing::OrdinaryUser;
using testing::TemporaryRoot;
using testing::WithMode;

using Names = std::vector<std::string>;

class TreeRemoval : public ::testing::Test {
 protected:
  void remove(const std::string& name) const { remove_tree_at(held.get(), name, root / name); }
  Problem remove_quietly(const std::string& name) const { return remove_tree_quietly_at(held.get(), name); }

  const TemporaryRoot root{testing::fast_volume()};
  const Handle held{*open_tree(root.path())};
};

TEST_F(TreeRemoval, TakesATreeWithAllThatItHolds) {
  root.write("tree/a/b/file", "x");
  root.write("tree/file", "x");
  root.directory("tree/empty");
  root.write("beside", "x");
  ASSERT_EQ(mkfifo((root / "tree/queue").c_str(), 0600), 0);
  remove("tree");
  EXPECT_EQ(root.names(), Names{"beside"});
}

TEST_F(TreeRemoval, TakesAFileAndPassesWhatIsMissing) {
  root.write("file", "x");
  remove("file");
  remove("file");
  EXPECT_FALSE(remove_quietly("file"));
  EXPECT_EQ(root.names(), Names());
}

TEST_F(TreeRemoval, TakesLinksThemselvesAndNothingThatTheyLeadTo) {
  root.write("outside/secret", "x");
  root.directory("tree/a");
  for (const char* link : {"link", "tree/link", "tree/a/link"}) {
    std::filesystem::create_directory_symlink(root / "outside", root / link);
  }
  remove("link");
  remove("tree");
  EXPECT_EQ(root.names(), (Names{"outside/", "outside/secret"}));
}

TEST_F(TreeRemoval, ActsInTheDirectoryThatIsHeldWhateverBecomesOfItsPath) {
  const TemporaryRoot other(testing::fast_volume());
  other.write("held/tree/file", "x");
  other.write("outside/tree/file", "x");
  const Handle moved = *open_tree(other / "held");
  std::filesystem::rename(other / "held", other / "moved");
  std::filesystem::create_directory_symlink(other / "outside", other / "held");
  remove_tree_at(moved.get(), "tree", other / "held/tree");
  EXPECT_EQ(other.names(), (Names{"held@", "moved/", "outside/", "outside/tree/", "outside/tree/file"}));
}

TEST_F(TreeRemoval, NamesTheEntryThatItCannotRemove) {
  root.write("tree/locked/file", "x");
  const OrdinaryUser user(root);
  const WithMode locked(root / "tree/locked", 0500);
  EXPECT_FAILURE(remove("tree"), "file_remove", "Cannot remove " + (root / "tree/locked/file").native());
  EXPECT_TRUE(remove_quietly("tree") == Cause::denied);
  EXPECT_EQ(root.names(), (Names{"tree/", "tree/locked/", "tree/locked/file"}));
}

TEST_F(TreeRemoval, GoesOnBehindAnEntryThatItCannotRemoveWhereItIsQuiet) {
  root.write("tree/locked/file", "x");
  for (const char* name : {"tree/a", "tree/b/c", "tree/d"}) {
    root.write(name, "x");
  }
  const OrdinaryUser user(root);
  const WithMode locked(root / "tree/locked", 0500);
  EXPECT_TRUE(remove_quietly("tree"));
  EXPECT_EQ(root.names(), (Names{"tree/", "tree/locked/", "tree/locked/file"}));
}

TEST_F(TreeRemoval, TakesAnEmptyDirectoryThatMayNotBeRead) {
  root.directory("tree/closed");
  root.directory("closed");
  const OrdinaryUser user(root);
  EXPECT_EQ(chmod((root / "tree/closed").c_str(), 0), 0);
  EXPECT_EQ(chmod((root / "closed").c_str(), 0), 0);
  remove("tree");
  remove("closed");
  EXPECT_EQ(root.names(), Names());
}

TEST_F(TreeRemoval, SaysThatADirectoryWithSomethingInItMayNotBeRead) {
  root.write("tree/closed/file", "x");
  const OrdinaryUser user(root);
  const WithMode closed(root / "tree/closed", 0300);
  EXPECT_FAILURE(remove("tree"), "tree_read", "Cannot read a directory of the tree");
  EXPECT_EQ(access((root / "tree/closed/file").c_str(), F_OK), 0);
}

TEST_F(TreeRemoval, EntersNoMountedVolume) {
  root.write("tree/a/file", "x");
  const std::filesystem::path place = root.directory("tree/volume");
  const MountedVolume volume(place, "tmpfs", "size=1m");
  if (!volume.mounted()) {
    GTEST_SKIP() << "needs leave to mount a volume";
  }
  root.write("tree/volume/mine", "x");
  EXPECT_FAILURE(remove("tree"), "unsafe_path", "A volume is mounted in the tree: volume");
  EXPECT_TRUE(remove_quietly("tree") == Cause::other_volume);
  EXPECT_EQ(root.read("tree/volume/mine"), "x");
  EXPECT_FAILURE(remove_tree_at(open_tree(root / "tree")->get(), "volume", place), "unsafe_path",
                 "A volume is mounted in the tree: " + place.native());
  EXPECT_EQ(root.read("tree/volume/mine"), "x");
}

TEST_F(TreeRemoval, EntersNoPartOfTheSameVolumeThatIsMountedThere) {
  root.write("outside/mine", "x");
  const std::filesystem::path place = root.directory("tree/part");
  if (!testing::run_quietly("mount --bind '" + (root / "outside").native() + "' '" + place.native() + "'")) {
    GTEST_SKIP() << "needs leave to mount a volume";
  }
  EXPECT_FAILURE(remove("tree"), "unsafe_path", "A volume is mounted in the tree: part");
  EXPECT_TRUE(testing::run_quietly("umount '" + place.native() + "'"));
  EXPECT_EQ(root.read("outside/mine"), "x");
  remove("tree");
  EXPECT_EQ(root.names(), (Names{"outside/", "outside/mine"}));
}

TEST_F(TreeRemoval, NeedsFewDescriptorsAtAnyDepth) {
  const DeepTree deep(root.path(), 20'000);
  const FewDescriptors few(64);
  remove(DeepTree::name);
  EXPECT_EQ(root.names(), Names());
}

TEST_F(TreeRemoval, SaysThatDescriptorsHaveRunOut) {
  if (!testing::can_do_without_descriptors) {
    GTEST_SKIP() << "the sanitizer needs descriptors of its own";
  }
  root.write("tree/a/b/c/file", "x");
  {
    const FewDescriptors few(0);
    EXPECT_FAILURE(remove("tree"), "too_many_files", "Too many files are open; close other programs and try again");
    EXPECT_TRUE(remove_quietly("tree") == Cause::too_many_open);
  }
  EXPECT_EQ(root.read("tree/a/b/c/file"), "x");
}

}  // namespace
}  // namespace ravok::tree_removal_test
