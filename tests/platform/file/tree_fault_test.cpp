// Every failure of the calls that measure and remove a tree. Nothing counts as removed that may still be there, and a
// later call continues.

#include <cerrno>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "platform/file/held_directory.hpp"
#include "platform/file/tree.hpp"
#include "platform/snapshot/snapshot_retirement.hpp"
#include "support/failure.hpp"
#include "support/file_calls.hpp"
#include "support/manifest_builder.hpp"
#include "support/temporary_root.hpp"

namespace ravok::tree_fault_test {
namespace {

using testing::failing;
using testing::meanwhile;
using testing::Planned;

using Names = std::vector<std::string>;

constexpr const char* file_stays = "Cannot remove a declared managed file";
constexpr const char* directory_stays = "Cannot retire empty managed directory";
constexpr const char* not_ordinary = "Managed snapshot retirement requires an ordinary directory";
constexpr const char* not_flushed = "Could not durably synchronize directory";
constexpr const char* not_opened = "Cannot open directory for synchronization";

class TreeFault : public ::testing::Test {
 protected:
  TreeFault() {
    root_.write("tree/bin/program", "x");
    root_.write("tree/d/file", "x");
  }

  void retire() const { retire_snapshot_files(manifest_, root_ / "tree", {}); }

  void expect_retired_later() const {
    EXPECT_NO_THROW(retire());
    EXPECT_EQ(root_.names(), Names{});
  }

  const testing::TemporaryRoot root_;
  const SnapshotManifest manifest_ = SnapshotManifest::parse(testing::manifest_document({{"d/file"}}));
};

TEST_F(TreeFault, AFileThatCannotBeMeasuredIsNotPlain) {
  const Planned set(failing("fstatat", EIO));
  EXPECT_FAILURE(tree_bytes(root_ / "tree", 10), "unsafe_path", "Tree contains a link or special file");
}

TEST_F(TreeFault, ARootThatCannotBeLookedAtIsNotPlain) {
  const Planned set(failing("lstat", EIO));
  EXPECT_FAILURE(tree_bytes(root_ / "tree", 10), "unsafe_path", "Expected a plain directory");
}

TEST_F(TreeFault, ARootThatCannotBeOpenedIsNotRead) {
  for (const int problem : {EACCES, ELOOP}) {
    const Planned set(failing("openat", problem));
    EXPECT_FAILURE(tree_bytes(root_ / "tree", 10), "tree_read", "Cannot read a directory of the tree") << problem;
  }
  for (const int problem : {EMFILE, ENFILE}) {
    const Planned set(failing("openat", problem));
    EXPECT_FAILURE(tree_bytes(root_ / "tree", 10), "too_many_files",
                   "Too many files are open; close other programs and try again")
        << problem;
  }
}

TEST_F(TreeFault, ARemovalEndsAtADirectoryThatCannotBeRead) {
  const Names before = root_.names();
  const HeldDirectory directory = HeldDirectory::open(root_.path());
  {
    const Planned set(failing("openat", EACCES));
    EXPECT_FAILURE(directory.remove_tree("tree"), "tree_read", "Cannot read a directory of the tree");
  }
  {
    const Planned set(failing("openat", EACCES));
    EXPECT_FALSE(directory.remove_tree_quietly("tree"));
  }
  EXPECT_EQ(root_.names(), before);
}

TEST_F(TreeFault, NothingIsRemovedOfATreeThatCannotBeMeasured) {
  const Names before = root_.names();
  {
    const Planned set(failing("fstatat", EIO));
    EXPECT_FAILURE(remove_plain_tree(root_ / "tree"), "unsafe_path", "Tree contains a link or special file");
  }
  {
    const Planned set(failing("openat", EMFILE, 2));
    EXPECT_FAILURE(remove_plain_tree(root_ / "tree"), "too_many_files",
                   "Too many files are open; close other programs and try again");
  }
  // Without a look at the name, it cannot be told whether it is missing.
  const Planned set(failing("lstat", EACCES));
  EXPECT_FAILURE(remove_plain_tree(root_ / "missing"), "unsafe_path", "Tree cleanup requires an ordinary directory");
  EXPECT_EQ(root_.names(), before);
}

TEST_F(TreeFault, ARemovalThatMayNotBeDurableIsReported) {
  {
    const Planned set(failing("fsync", EIO));
    EXPECT_FAILURE(remove_plain_tree(root_ / "tree"), "file_sync", not_flushed);
    EXPECT_EQ(root_.names(), Names{});
  }
  root_.directory("tree");
  // The first two are those of the tree itself and of the directory in which it is removed.
  const Planned set(failing("open directory", EMFILE, 3));
  EXPECT_FAILURE(remove_plain_tree(root_ / "tree"), "file_sync", not_opened);
  EXPECT_EQ(root_.names(), Names{});
}

TEST_F(TreeFault, ARetirementStopsAtAFileThatItCannotLookAt) {
  const Names before = root_.names();
  const Planned set(failing("fstatat", EIO));
  EXPECT_FAILURE(retire(), "file_remove", file_stays);
  EXPECT_EQ(root_.names(), before);
}

TEST_F(TreeFault, ARetirementStopsAtAFileThatItCannotRemove) {
  {
    const Planned set(failing("unlink", EBUSY, 2));
    EXPECT_FAILURE(retire(), "file_remove", file_stays);
  }
  EXPECT_EQ(root_.names(), (Names{"tree/", "tree/bin/", "tree/d/", "tree/d/file"}));
  expect_retired_later();
}

// The two files come first, then the two directories.
TEST_F(TreeFault, ARetirementTakesNoDirectoryForGoneThatItCannotLookAt) {
  for (const int problem : {EIO, EACCES, ESTALE}) {
    const Planned set(failing("fstatat", problem, 3));
    EXPECT_FAILURE(retire(), "file_remove", directory_stays) << problem;
    EXPECT_EQ(root_.names(), (Names{"tree/", "tree/bin/", "tree/d/"})) << problem;
    root_.write("tree/bin/program", "x");
    root_.write("tree/d/file", "x");
  }
  expect_retired_later();
}

TEST_F(TreeFault, ARetirementStopsAtADirectoryThatItCannotRemove) {
  {
    const Planned set(failing("unlink", EBUSY, 4));
    EXPECT_FAILURE(retire(), "file_remove", directory_stays);
  }
  EXPECT_EQ(root_.names(), (Names{"tree/", "tree/d/"}));
  expect_retired_later();
}

TEST_F(TreeFault, ARetirementNeedsItsRootOpen) {
  const Names before = root_.names();
  for (const int problem : {EACCES, EMFILE}) {
    const Planned set(failing("open directory", problem));
    EXPECT_FAILURE(retire(), "unsafe_path", not_ordinary) << problem;
  }
  EXPECT_EQ(root_.names(), before);
}

TEST_F(TreeFault, ARetirementReportsEveryFlushThatFails) {
  root_.write("tree/d/mine", "mine");
  // The first flush is that of the directory that stays, the second that of the root.
  for (const int flush : {1, 2}) {
    const Planned set(failing("fsync", EIO, flush));
    EXPECT_FAILURE(retire(), "file_sync", not_flushed) << flush;
    EXPECT_EQ(root_.names(), (Names{"tree/", "tree/d/", "tree/d/mine"})) << flush;
  }
  std::filesystem::remove(root_ / "tree/d/mine");
  // The first flush is that of the root before its removal, the second that of the directory above it.
  {
    const Planned set(failing("fsync", EIO));
    EXPECT_FAILURE(retire(), "file_sync", not_flushed);
    EXPECT_EQ(root_.names(), Names{"tree/"});
  }
  const Planned set(failing("fsync", EIO, 2));
  EXPECT_FAILURE(retire(), "file_sync", not_flushed);
  EXPECT_EQ(root_.names(), Names{});
}

TEST_F(TreeFault, ARetirementFlushesAllThatStaysAndWhatHeldARootThatGoes) {
  {
    const Planned set({});
    retire();
    EXPECT_EQ(set.count("fsync"), 2);
  }
  root_.write("tree/a/b/file", "x");
  root_.write("tree/a/mine", "mine");
  const Planned set({});
  retire_snapshot_files(SnapshotManifest::parse(testing::manifest_document({{"a/b/file"}})), root_ / "tree", {});
  EXPECT_EQ(set.count("fsync"), 2);
  EXPECT_EQ(root_.names(), (Names{"tree/", "tree/a/", "tree/a/mine"}));
}

TEST_F(TreeFault, ARetirementLeavesALinkThatReplacesADirectoryAtTheLastMoment) {
  root_.directory("outside");
  const auto swap = [this] {
    std::filesystem::rename(root_ / "tree/d", root_ / "moved");
    std::filesystem::create_directory_symlink("../outside", root_ / "tree/d");
  };
  const Planned set(meanwhile("unlink", swap, 4));
  EXPECT_FAILURE(retire(), "file_remove", directory_stays);
  EXPECT_EQ(root_.names(), (Names{"moved/", "outside/", "tree/", "tree/d@"}));
}

}  // namespace
}  // namespace ravok::tree_fault_test
