#include "platform/file/tree.hpp"

#include <cstdint>
#include <filesystem>
#include <limits>
#include <string>
#include <system_error>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/file/status.hpp"
#include "support/failure.hpp"
#include "support/ordinary_user.hpp"
#include "support/temporary_root.hpp"
#include "support/working_directory.hpp"

namespace ravok::tree_test {
namespace {

using testing::OrdinaryUser;
using testing::TemporaryRoot;
using testing::WithMode;

constexpr const char* special = "Tree contains a link or special file";

TEST(TreeBytes, SumsTheFilesOfAllLevels) {
  const TemporaryRoot root;
  EXPECT_EQ(tree_bytes(root.path(), 0), 0u);
  root.write("a", "123");
  root.write("d/e/b", "4567");
  root.directory("empty");
  EXPECT_EQ(tree_bytes(root.path(), 5), 7u);
}

TEST(TreeBytes, BoundsTheEntries) {
  const TemporaryRoot root;
  root.write("d/a", "");
  root.write("d/b", "");
  EXPECT_NO_THROW(tree_bytes(root.path(), 3));
  EXPECT_FAILURE(tree_bytes(root.path(), 2), "size_limit", "Directory entry count exceeds bounds");
}

TEST(TreeBytes, NeedsAPlainDirectory) {
  constexpr const char* plain = "Expected a plain directory";
  const TemporaryRoot root;
  root.directory("real");
  std::filesystem::create_symlink("real", root / "link");
  for (const auto& path : {root / "missing", root / "link", root.write("file", "x")}) {
    EXPECT_FAILURE(tree_bytes(path, 10), "unsafe_path", plain) << path;
  }
}

TEST(TreeBytes, RefusesLinksAndSpecialFiles) {
  const TemporaryRoot root;
  root.directory("d");
  std::filesystem::create_symlink("/", root / "d/link");
  EXPECT_FAILURE(tree_bytes(root.path(), 10), "unsafe_path", special);
  std::filesystem::remove(root / "d/link");
  ASSERT_EQ(mkfifo((root / "d/fifo").c_str(), 0600), 0);
  EXPECT_FAILURE(tree_bytes(root.path(), 10), "unsafe_path", special);
}

// A volume in memory holds sparse files of any size, and many files quickly.
constexpr const char* in_memory = "/dev/shm";

TEST(TreeBytes, AddsUpToTheGreatestSumAndNotBeyond) {
  const TemporaryRoot root(in_memory);
  for (const char* name : {"a", "b"}) {
    std::error_code problem;
    std::filesystem::resize_file(root.write(name, ""), std::numeric_limits<std::int64_t>::max(), problem);
    if (problem) {
      GTEST_SKIP() << "the volume holds no files of that size";
    }
  }
  root.write("c", "1");
  EXPECT_EQ(tree_bytes(root.path(), 3), std::numeric_limits<std::uint64_t>::max());
  root.write("c", "12");
  EXPECT_FAILURE(tree_bytes(root.path(), 3), "size_limit", "Tree size overflowed");
}

constexpr mode_t read_only = 0500;

TEST(TreeBytes, ReportsADirectoryThatItCannotRead) {
  const TemporaryRoot root;
  root.write("d/file", "x");
  const OrdinaryUser user(root);
  const WithMode closed(root / "d", 0);
  EXPECT_FAILURE(tree_bytes(root.path(), 10), "tree_read", "Cannot read a directory of the tree");
  EXPECT_FAILURE(tree_bytes(root / "d", 10), "tree_read", "Cannot read a directory of the tree");
}

TEST(RemovePlainTree, RemovesADirectoryWithAllThatItHolds) {
  const TemporaryRoot root;
  root.write("tree/d/e/file", "x");
  root.write("other", "x");
  remove_plain_tree(root / "tree");
  EXPECT_EQ(root.names(), std::vector<std::string>{"other"});
}

TEST(RemovePlainTree, AcceptsAMissingPath) {
  const TemporaryRoot root;
  EXPECT_NO_THROW(remove_plain_tree(root / "missing"));
}

TEST(RemovePlainTree, RefusesWhatIsNoDirectory) {
  constexpr const char* ordinary = "Tree cleanup requires an ordinary directory";
  const TemporaryRoot root;
  root.write("real/file", "x");
  root.write("file", "x");
  std::filesystem::create_symlink("real", root / "link");
  EXPECT_FAILURE(remove_plain_tree(root / "file"), "unsafe_path", ordinary);
  EXPECT_FAILURE(remove_plain_tree(root / "link"), "unsafe_path", ordinary);
  EXPECT_EQ(root.names(), (std::vector<std::string>{"file", "link@", "real/", "real/file"}));
}

TEST(RemovePlainTree, RemovesNothingOfATreeWithALink) {
  const TemporaryRoot root;
  root.write("tree/a/file", "x");
  std::filesystem::create_symlink("a", root / "tree/z");
  EXPECT_FAILURE(remove_plain_tree(root / "tree"), "unsafe_path", special);
  EXPECT_EQ(root.names(), (std::vector<std::string>{"tree/", "tree/a/", "tree/a/file", "tree/z@"}));
}

TEST(RemovePlainTree, RemovesNothingOfATreeOfTooManyEntries) {
  const TemporaryRoot root(in_memory);
  constexpr int maximum_entries = 250000;
  const std::string first = root.write("tree/0", "");
  const std::string prefix = root / "tree/";
  for (int i = 1; i <= maximum_entries; ++i) {
    ASSERT_EQ(link(first.c_str(), (prefix + std::to_string(i)).c_str()), 0) << i;
  }
  EXPECT_FAILURE(remove_plain_tree(root / "tree"), "size_limit", "Directory entry count exceeds bounds");
  EXPECT_EQ(link_status_of(first)->links, maximum_entries + 1u);
  std::filesystem::remove(root / "tree/1");
  remove_plain_tree(root / "tree");
  EXPECT_TRUE(root.names().empty());
}

TEST(RemovePlainTree, PassesOnTheFileSystemsOwnFailure) {
  const TemporaryRoot root;
  root.write("tree/d/file", "x");
  const OrdinaryUser user(root);
  const WithMode fixed(root / "tree/d", read_only);
  EXPECT_THROW(remove_plain_tree(root / "tree"), std::filesystem::filesystem_error);
  EXPECT_EQ(root.names(), (std::vector<std::string>{"tree/", "tree/d/", "tree/d/file"}));
}

TEST(RemovePlainTree, TakesANameInTheWorkingDirectoryAndASeparatorAtTheEnd) {
  const TemporaryRoot root;
  root.write("tree/file", "x");
  root.write("other/file", "x");
  const testing::WorkingDirectory working(root.path());
  EXPECT_NO_THROW(remove_plain_tree("tree"));
  EXPECT_NO_THROW(remove_plain_tree("other/"));
  EXPECT_TRUE(root.names().empty());
}

TEST(RemovePathQuietly, RemovesWhateverThereIs) {
  const TemporaryRoot root;
  root.write("tree/file", "x");
  std::filesystem::create_symlink("tree", root / "link");
  EXPECT_TRUE(remove_path_quietly(root / "link"));
  EXPECT_EQ(root.names(), (std::vector<std::string>{"tree/", "tree/file"}));
  EXPECT_TRUE(remove_path_quietly(root / "tree"));
  EXPECT_TRUE(remove_path_quietly(root / "missing"));
  EXPECT_TRUE(root.names().empty());
}

TEST(RemovePathQuietly, AnswersAFailureWithoutThrowing) { EXPECT_FALSE(remove_path_quietly("/proc/self/status")); }

}  // namespace
}  // namespace ravok::tree_test
