#include "domain/path_tree.hpp"

#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/failure.hpp"

namespace ravok::path_tree_test {
namespace {

constexpr const char* duplicate = "Package contains duplicate or case-colliding paths";
constexpr const char* case_only = "Package directories differ only in case";

PathTree tree_of(const std::vector<std::string>& paths) {
  PathTree tree;
  for (const std::string& path : paths) {
    tree.add_file(path);
  }
  return tree;
}

void refuses(const std::vector<std::string>& paths, const char* message) {
  EXPECT_FAILURE(tree_of(paths), "path_collision", message) << paths.front() << " and " << paths.back();
}

// The tree keeps views, so `paths` has to live while it is asked.
void finds_above(const std::vector<std::string>& paths, const std::string& name) {
  const PathTree tree = tree_of(paths);
  EXPECT_EQ(tree.file_above_another(), name) << paths.front() << " and " << paths.back();
}

TEST(PathTree, HoldsPathsThatDiffer) {
  const std::vector<std::string> paths = {"a/b", "a/c", "b", "a/d/e", "ab", "a-b/c", "d/a/b", "a[", "a{", "a@", "a`"};
  EXPECT_EQ(tree_of(paths).file_above_another(), std::nullopt);
}

TEST(PathTree, HoldsNothingAtFirst) { EXPECT_EQ(PathTree().file_above_another(), std::nullopt); }

TEST(PathTree, RefusesAFileTwice) {
  refuses({"a", "a"}, duplicate);
  refuses({"a/b/c", "a/b/c"}, duplicate);
  refuses({"a/b", "a/c", "a/b"}, duplicate);
}

TEST(PathTree, RefusesAFileThatDiffersOnlyInCase) {
  refuses({"readme", "README"}, duplicate);
  refuses({"a/z", "a/Z"}, duplicate);
  refuses({"a/b", "A/B"}, duplicate);
  refuses({"a/b", "A/b"}, duplicate);
}

TEST(PathTree, RefusesADirectoryThatDiffersOnlyInCase) {
  refuses({"dir/f", "DIR/g"}, case_only);
  refuses({"a/dir/f", "a/Dir/g"}, case_only);
  refuses({"a/b/c/d", "A/e"}, case_only);
  refuses({"a/b/c", "a/B/d/e"}, case_only);
  refuses({"a/x", "b/x", "A/y"}, case_only);
}

TEST(PathTree, RefusesADirectoryAsOftenAsItIsAdded) {
  PathTree tree;
  tree.add_file("dir/f");
  for (const char* path : {"DIR/g", "DIR/g", "DIR/h"}) {
    EXPECT_FAILURE(tree.add_file(path), "path_collision", case_only) << path;
  }
  EXPECT_NO_THROW(tree.add_file("dir/g"));
}

TEST(PathTree, HoldsTheSameNameInSeveralSpellingsBelowDifferentDirectories) {
  const std::vector<std::string> paths = {"a/dir/f", "b/DIR/f", "a/f", "b/F"};
  EXPECT_EQ(tree_of(paths).file_above_another(), std::nullopt);
}

TEST(PathTree, FindsAFileWhereAnotherNeedsADirectory) {
  finds_above({"x", "x/y"}, "x");
  finds_above({"x/y", "x"}, "x");
  finds_above({"a/b/c/d", "a/b"}, "b");
  finds_above({"a/b", "a/b/c/d", "e"}, "b");
}

TEST(PathTree, FindsItInTheSpellingOfTheDirectory) {
  finds_above({"X", "x/y"}, "x");
  finds_above({"x/y", "X"}, "x");
}

TEST(PathTree, GoesAsDeepAsAPathMay) {
  std::string deep;
  for (int i = 0; i < 2047; ++i) {
    deep += "a/";
  }
  refuses({deep + "b", deep + "c", deep + "B"}, duplicate);
  finds_above({deep + "b", deep.substr(0, deep.size() - 1)}, "a");
}

}  // namespace
}  // namespace ravok::path_tree_test
