#include "platform/file/tree_walk.hpp"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/file/status.hpp"
#include "support/deep_tree.hpp"
#include "support/failure.hpp"
#include "support/fast_volume.hpp"
#include "support/few_descriptors.hpp"
#include "support/ordinary_user.hpp"
#include "support/temporary_root.hpp"

namespace ravok::tree_walk_test {
namespace {

using testing::DeepTree;
using testing::FewDescriptors;
using testing::OrdinaryUser;
using testing::TemporaryRoot;
using testing::WithMode;

constexpr const char* cannot_read = "Cannot read a directory of the tree";

void ignore(const TreeEntry&) {}

std::vector<std::string> paths_of(const std::filesystem::path& root) {
  std::vector<std::string> paths;
  walk_tree(open_tree(root), [&](const TreeEntry& entry) { paths.emplace_back(entry.path); });
  return paths;
}

// --- open_tree -----------------------------------------------------------------------------

TEST(OpenTree, OpensADirectoryAlsoWithASeparatorAtItsEnd) {
  const TemporaryRoot root;
  root.directory("tree");
  for (const char* name : {"tree", "tree/", "tree//"}) {
    const Handle tree = *open_tree(root / name);
    ASSERT_TRUE(tree) << name;
    EXPECT_TRUE(same_file(*status_of(tree.get()), *link_status_of(root / "tree"))) << name;
    EXPECT_EQ(fcntl(tree.get(), F_GETFD), FD_CLOEXEC) << name;
  }
  EXPECT_TRUE(open_tree("/"));
}

TEST(OpenTree, OpensNothingElse) {
  const TemporaryRoot root;
  root.directory("tree");
  root.write("file", "x");
  std::filesystem::create_directory_symlink("tree", root / "link");
  for (const char* name : {"missing", "file", "link", "link/", "file/"}) {
    EXPECT_FALSE(open_tree(root / name)) << name;
  }
}

// --- walk_tree -----------------------------------------------------------------------------

TEST(WalkTree, VisitsEverythingOnceWithItsType) {
  const TemporaryRoot root;
  root.write("tree/a/b/file", "x");
  root.write("tree/file", "x");
  root.directory("tree/empty");
  std::filesystem::create_directory_symlink("a", root / "tree/link");
  std::filesystem::create_symlink("missing", root / "tree/a/dangling");
  ASSERT_EQ(mkfifo((root / "tree/queue").c_str(), 0600), 0);

  std::map<std::string, EntryType> seen;
  walk_tree(open_tree(root / "tree"), [&](const TreeEntry& entry) {
    EXPECT_TRUE(seen.emplace(entry.path, entry.type).second) << entry.path;
    // The directory and the name that the visitor was given lead to the entry.
    const auto held = link_status_at(entry.directory, entry.name);
    ASSERT_TRUE(held) << entry.path;
    EXPECT_TRUE(same_file(*held, *link_status_of(root / "tree" / entry.path))) << entry.path;
    EXPECT_TRUE(std::filesystem::path(entry.path).filename() == entry.name) << entry.path;
  });
  const std::map<std::string, EntryType> expected = {{"a", EntryType::directory},     {"a/b", EntryType::directory},
                                                     {"a/b/file", EntryType::file},   {"a/dangling", EntryType::link},
                                                     {"empty", EntryType::directory}, {"file", EntryType::file},
                                                     {"link", EntryType::link},       {"queue", EntryType::other}};
  EXPECT_EQ(seen, expected);
}

TEST(WalkTree, VisitsADirectoryAheadOfWhatItHolds) {
  const TemporaryRoot root;
  for (const char* path : {"a/b/c/d", "e/f", "e/g/h", "i"}) {
    root.write(path, "x");
  }
  const std::vector<std::string> paths = paths_of(root.path());
  EXPECT_EQ(paths.size(), 9u);
  for (auto path = paths.begin(); path != paths.end(); ++path) {
    const std::size_t separator = path->rfind('/');
    if (separator != std::string::npos) {
      EXPECT_NE(std::find(paths.begin(), path, path->substr(0, separator)), path) << *path;
    }
  }
}

TEST(WalkTree, VisitsNothingInAnEmptyDirectory) {
  const TemporaryRoot root;
  EXPECT_EQ(paths_of(root.path()), std::vector<std::string>{});
}

TEST(WalkTree, VisitsNamesThatLookLikeThoseWithoutANameOfTheirOwn) {
  const TemporaryRoot root;
  for (const char* name : {"...", ".hidden", "..x", " "}) {
    root.write(name, "x");
  }
  std::vector<std::string> paths = paths_of(root.path());
  std::sort(paths.begin(), paths.end());
  EXPECT_EQ(paths, (std::vector<std::string>{" ", "...", "..x", ".hidden"}));
}

TEST(WalkTree, WalksDeepTreesAndLeavesNothingOpen) {
  const TemporaryRoot root;
  std::string path = "d";
  for (int i = 0; i < 200; ++i) {
    path += "/d";
  }
  root.write(path + "/file", "x");
  const auto open_files = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator());
  };
  const auto before = open_files();
  EXPECT_EQ(paths_of(root.path()).size(), 202u);
  EXPECT_THROW(walk_tree(open_tree(root.path()),
                         [&](const TreeEntry& entry) {
                           if (entry.type == EntryType::file) {
                             throw std::runtime_error("far below");
                           }
                         }),
               std::runtime_error);
  EXPECT_EQ(open_files(), before);
}

TEST(WalkTree, NeedsFewDescriptorsAtAnyDepth) {
  const TemporaryRoot root(testing::fast_volume());
  constexpr std::size_t levels = 20'000;
  const DeepTree deep(root.path(), levels);
  std::size_t visits = 0;
  std::size_t leaves = 0;
  TreeVisitor visitor;
  visitor.visit = [&](const TreeEntry&) { ++visits; };
  visitor.leave = [&](const TreeEntry& entry, int self) {
    ++leaves;
    // The directory and the name that the visitor was given lead to the directory that was walked through.
    EXPECT_TRUE(same_file(*link_status_at(entry.directory, entry.name), *status_of(self)));
  };
  const FewDescriptors few(40);
  walk_tree(open_tree(root.path()), visitor);
  EXPECT_EQ(visits, levels + 1);
  EXPECT_EQ(leaves, levels);
}

TEST(WalkTree, SaysThatDescriptorsHaveRunOut) {
  if (!testing::can_do_without_descriptors) {
    GTEST_SKIP() << "the sanitizer needs descriptors of its own";
  }
  const TemporaryRoot root;
  root.directory("a/b/c");
  Result<Handle> tree = open_tree(root.path());
  const FewDescriptors none(0);
  EXPECT_FAILURE(walk_tree(std::move(tree), ignore), "too_many_files",
                 "Too many files are open; close other programs and try again");
}

TEST(WalkTree, LeavesADirectoryBehindAllThatItHolds) {
  const TemporaryRoot root;
  root.write("a/b/file", "x");
  root.directory("a/c");
  std::vector<std::string> order;
  TreeVisitor visitor;
  visitor.visit = [&](const TreeEntry& entry) { order.push_back("+" + std::string(entry.path)); };
  visitor.leave = [&](const TreeEntry& entry, int) { order.push_back("-" + std::string(entry.path)); };
  walk_tree(open_tree(root.path()), visitor);
  const auto place = [&](const char* step) { return std::find(order.begin(), order.end(), step) - order.begin(); };
  EXPECT_EQ(order.size(), 7u);
  EXPECT_LT(place("+a/b"), place("+a/b/file"));
  EXPECT_LT(place("+a/b/file"), place("-a/b"));
  EXPECT_LT(place("-a/b"), place("-a"));
  EXPECT_LT(place("-a/c"), place("-a"));
}

TEST(WalkTree, NoticesThatADirectoryIsMovedAwayWhileItIsFarBelow) {
  const TemporaryRoot root;
  std::string path = "tree/moved";
  for (int i = 0; i < 60; ++i) {
    path += "/d";
  }
  root.write(path + "/file", "x");
  root.directory("elsewhere");
  EXPECT_FAILURE(walk_tree(open_tree(root / "tree"),
                           [&](const TreeEntry& entry) {
                             if (entry.type == EntryType::file) {
                               std::filesystem::rename(root / "tree/moved", root / "elsewhere/moved");
                             }
                           }),
                 "tree_read", "A directory of the tree was moved while it was read");
}

TEST(WalkTree, TellsOfADirectoryThatItCannotReadWhereItIsAsked) {
  const TemporaryRoot root;
  root.write("d/file", "x");
  root.write("e/file", "x");
  const OrdinaryUser user(root);
  const WithMode closed(root / "d", 0);
  std::vector<std::string> unreadable;
  std::vector<std::string> visited;
  TreeVisitor visitor;
  visitor.visit = [&](const TreeEntry& entry) { visited.emplace_back(entry.path); };
  visitor.unreadable = [&](const TreeEntry& entry, const Problem& problem) {
    EXPECT_TRUE(problem == Cause::denied);
    unreadable.emplace_back(entry.path);
  };
  walk_tree(open_tree(root.path()), visitor);
  std::sort(visited.begin(), visited.end());
  EXPECT_EQ(visited, (std::vector<std::string>{"d", "e", "e/file"}));
  EXPECT_EQ(unreadable, std::vector<std::string>{"d"});
}

TEST(NamesIn, AreAllButThoseWithoutANameOfTheirOwn) {
  const TemporaryRoot root;
  root.write("a/file", "x");
  root.write("b", "x");
  const Handle tree = *open_tree(root.path());
  std::vector<std::string> names = names_in(tree.get(), 10);
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(names_in(tree.get(), 10).size(), 2u);
  EXPECT_EQ(names_in(tree.get(), 1).size(), 1u);
}

TEST(WalkTree, StopsWhereItsVisitThrows) {
  const TemporaryRoot root;
  root.write("a", "x");
  root.write("b", "x");
  int visits = 0;
  EXPECT_FAILURE(walk_tree(open_tree(root.path()), [&](const TreeEntry&) { require(++visits < 1, "code", "Stopped"); }),
                 "code", "Stopped");
  EXPECT_EQ(visits, 1);
}

TEST(WalkTree, NeedsAnOpenDirectory) {
  const TemporaryRoot root;
  const std::filesystem::path file = root.write("file", "x");
  EXPECT_FAILURE(walk_tree(Handle(), ignore), "tree_read", cannot_read);
  EXPECT_FAILURE(walk_tree(Handle(open(file.c_str(), O_RDONLY | O_CLOEXEC)), ignore), "tree_read", cannot_read);
}

TEST(WalkTree, ReportsADirectoryThatItCannotRead) {
  const TemporaryRoot root;
  root.write("d/file", "x");
  const OrdinaryUser user(root);
  const WithMode closed(root / "d", 0);
  EXPECT_FAILURE(walk_tree(open_tree(root.path()), ignore), "tree_read", cannot_read);
}

TEST(WalkTree, NeverGoesThroughALinkThatReplacesADirectory) {
  const TemporaryRoot root;
  root.write("tree/d/file", "x");
  root.write("outside/secret", "x");
  std::vector<std::string> paths;
  EXPECT_FAILURE(walk_tree(open_tree(root / "tree"),
                           [&](const TreeEntry& entry) {
                             paths.emplace_back(entry.path);
                             std::filesystem::rename(root / "tree/d", root / "moved");
                             std::filesystem::create_directory_symlink(root / "outside", root / "tree/d");
                           }),
                 "tree_read", cannot_read);
  EXPECT_EQ(paths, std::vector<std::string>{"d"});
}

TEST(WalkTree, ReportsADirectoryThatIsGoneMeanwhile) {
  const TemporaryRoot root;
  root.directory("d");
  EXPECT_FAILURE(walk_tree(open_tree(root.path()), [&](const TreeEntry&) { std::filesystem::remove(root / "d"); }),
                 "tree_read", cannot_read);
}

// --- TreePaths -----------------------------------------------------------------------------

class TreePathsTest : public ::testing::Test {
 protected:
  const TemporaryRoot root;
  TreePaths paths{*open_tree(root.path())};

  void expect_opened(const std::string& path) {
    const Result<Handle> file = paths.open(path, os::OpenAs::file);
    ASSERT_TRUE(file) << path;
    EXPECT_TRUE(same_file(*status_of(file->get()), *link_status_of(root / path))) << path;
  }

  void expect_none(const std::string& path, int problem) {
    const Result<Handle> file = paths.open(path, os::OpenAs::file);
    EXPECT_EQ(file.problem().number, problem) << path;
    EXPECT_FALSE(file) << path;
  }
};

TEST_F(TreePathsTest, OpensFilesAtAnyDepthInAnyOrder) {
  const std::vector<std::string> names = {"top", "a/file", "a/b/file", "a/b/c/file", "ab/file", "a/file2", "b/b/file"};
  for (const std::string& name : names) {
    root.write(name, name);
  }
  for (const std::string& first : names) {
    for (const std::string& second : names) {
      expect_opened(first);
      expect_opened(second);
    }
  }
}

TEST_F(TreePathsTest, NeedsFewDescriptorsAtAnyDepth) {
  std::vector<std::string> files;
  std::string path;
  for (int i = 0; i < 100; ++i) {
    path += "d/";
    files.push_back(path + "file");
    root.write(files.back(), "x");
  }
  const FewDescriptors few(40);
  for (const std::string& file : files) {
    expect_opened(file);
  }
  for (const std::string& file : {files.back(), files.front(), files[50], files.back(), files[98]}) {
    expect_opened(file);
  }
}

TEST_F(TreePathsTest, OpensInTheWayThatIsAskedFor) {
  root.write("a/file", "x");
  const Handle file = *paths.open("a/file", os::OpenAs::file_to_change);
  EXPECT_EQ(fcntl(file.get(), F_GETFL) & O_ACCMODE, O_RDWR);
  EXPECT_EQ(fcntl(file.get(), F_GETFD), FD_CLOEXEC);
}

TEST_F(TreePathsTest, OpensNothingThroughALink) {
  root.write("a/file", "x");
  std::filesystem::create_symlink("a/file", root / "link");
  std::filesystem::create_symlink("file", root / "a/link");
  std::filesystem::create_directory_symlink("a", root / "d");
  expect_none("link", ELOOP);
  expect_none("a/link", ELOOP);
  expect_none("d/file", ENOTDIR);
  expect_opened("a/file");
}

TEST_F(TreePathsTest, TellsWhyThereIsNone) {
  root.write("a/file", "x");
  expect_none("missing", ENOENT);
  expect_none("a/missing", ENOENT);
  expect_none("missing/file", ENOENT);
  expect_none("a/b/c/file", ENOENT);
  expect_none("a/file/below", ENOTDIR);
}

TEST_F(TreePathsTest, FindsItsWayAgainAfterAFailure) {
  root.write("a/b/file", "x");
  root.write("a/file", "x");
  root.write("file", "x");
  expect_opened("a/b/file");
  expect_none("a/missing/file", ENOENT);
  expect_opened("a/b/file");
  expect_none("a/missing/file", ENOENT);
  expect_opened("a/file");
  expect_none("missing/file", ENOENT);
  expect_opened("file");
  expect_none("a/b/missing/file", ENOENT);
  expect_opened("file");
}

TEST_F(TreePathsTest, KeepsADirectoryOpenForTheNextPath) {
  root.write("a/b/first", "1");
  root.write("a/b/second", "2");
  const Handle first = *paths.open("a/b/first", os::OpenAs::file);
  ASSERT_TRUE(first);
  // The last directory stays open, so the one that replaces it is not looked at.
  std::filesystem::rename(root / "a", root / "moved");
  const Handle second = *paths.open("a/b/second", os::OpenAs::file);
  ASSERT_TRUE(second);
  EXPECT_TRUE(same_file(*status_of(second.get()), *link_status_of(root / "moved/b/second")));
}

TEST_F(TreePathsTest, TellsTheDirectoryThatHoldsAPath) {
  root.directory("a/b");
  const auto expect_parent = [&](std::string_view path, std::string_view parent) {
    const Result<int> directory = paths.parent_of(path);
    ASSERT_TRUE(directory) << path;
    EXPECT_TRUE(same_file(*status_of(*directory), *link_status_of(root / parent))) << path;
  };
  expect_parent("file", "");
  expect_parent("a/file", "a");
  expect_parent("a/b/missing", "a/b");
  expect_parent("a/b/other", "a/b");
  expect_parent("missing", "");
  EXPECT_TRUE(paths.parent_of("missing/file").problem() == Cause::missing);
  expect_parent("a/b/file", "a/b");
}

TEST_F(TreePathsTest, FindsNothingInATreeThatIsNotOpen) {
  TreePaths none{Handle()};
  EXPECT_FALSE(none.open("a/file", os::OpenAs::file));
  EXPECT_FALSE(none.open("file", os::OpenAs::file));
}

}  // namespace
}  // namespace ravok::tree_walk_test
