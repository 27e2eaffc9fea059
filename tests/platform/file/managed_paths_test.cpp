#include "platform/file/managed_paths.hpp"

#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/os.hpp"
#include "platform/process/native_platform.hpp"
#include "support/failure.hpp"
#include "support/temporary_root.hpp"
#include "support/with_environment.hpp"

namespace ravok::managed_paths_test {
namespace {

using testing::TemporaryRoot;
using testing::WithEnvironment;

constexpr const char* link_in_path = "Managed path contains a symbolic link";

TEST(SafeJoin, JoinsWhatExistsAndWhatDoesNot) {
  const TemporaryRoot root;
  root.write("a/b/file", "");
  EXPECT_EQ(safe_join(root.path(), "a/b/file", true), root / "a/b/file");
  EXPECT_EQ(safe_join(root.path(), "a/missing/file", true), root / "a/missing/file");
}

TEST(SafeJoin, RefusesALinkAtAnyLevelWhetherOrNotTheEndExists) {
  const TemporaryRoot root;
  root.write("real/file", "");
  std::filesystem::create_symlink("real", root / "link");
  std::filesystem::create_directory(root / "dir");
  std::filesystem::create_symlink("../real", root / "dir/link");
  std::filesystem::create_symlink("nowhere", root / "dangling");
  for (const char* relative : {"link", "link/file", "link/missing", "dir/link/file", "dir/link/missing", "dangling"}) {
    EXPECT_FAILURE(safe_join(root.path(), relative, true), "unsafe_path", link_in_path) << relative;
  }
}

TEST(SafeJoin, DoesNotLookAtTheRootItself) {
  const TemporaryRoot root;
  root.write("real/file", "");
  std::filesystem::create_symlink("real", root / "link");
  EXPECT_EQ(safe_join(root / "link", "file", true), root / "link/file");
}

TEST(SafeJoin, RefusesAPathThatItsRulesRefuse) {
  const TemporaryRoot root;
  EXPECT_FAILURE(safe_join(root.path(), "../x", false), "unsafe_path", "Path contains an unsafe component");
  EXPECT_FAILURE(safe_join(root.path(), "a?", true), "unsafe_path", "Path is not portable across supported platforms");
  EXPECT_EQ(safe_join(root.path(), "a?", false), root / "a?");
}

TEST(ResolveSystemLinks, MakesThePathAbsoluteAndNormal) {
  const TemporaryRoot root;
  EXPECT_EQ(resolve_system_links(root / "a/../b/./c"), root / "b/c");
  EXPECT_EQ(resolve_system_links("missing-here/x"), std::filesystem::current_path() / "missing-here/x");
  EXPECT_EQ(resolve_system_links("/"), "/");
}

TEST(ResolveSystemLinks, KeepsATailThatDoesNotExist) {
  const TemporaryRoot root;
  root.directory("a");
  EXPECT_EQ(resolve_system_links(root / "a/missing/b/c"), root / "a/missing/b/c");
  EXPECT_EQ(resolve_system_links(root / "a/missing/"), root / "a/missing/");
}

TEST(ResolveSystemLinks, RefusesAnEmptyPath) {
  EXPECT_FAILURE(resolve_system_links(""), "unsafe_path", "Cannot make a path absolute");
}

TEST(ResolveSystemLinks, LeavesALinkOfAnOrdinaryUser) {
  const TemporaryRoot root;
  root.directory("real");
  std::filesystem::create_symlink("real", root / "link");
  if (testing::is_root()) {
    ASSERT_EQ(lchown((root / "link").c_str(), 1000, 1000), 0);
  }
  EXPECT_EQ(resolve_system_links(root / "link/x"), root / "link/x");
}

// Links that count as the system's own can only be made by user 0.
class SystemLinks : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!testing::is_root()) {
      GTEST_SKIP() << "only user 0 can make the system's links";
    }
  }
  TemporaryRoot root_;
};

TEST_F(SystemLinks, AreFollowedWhenRelativeAndWhenAbsolute) {
  root_.directory("real");
  std::filesystem::create_symlink("real", root_ / "relative");
  std::filesystem::create_symlink(root_ / "real", root_ / "absolute");
  EXPECT_EQ(resolve_system_links(root_ / "relative/x/y"), root_ / "real/x/y");
  EXPECT_EQ(resolve_system_links(root_ / "absolute"), root_ / "real");
}

TEST_F(SystemLinks, AreFollowedToAPlaceThatDoesNotExist) {
  std::filesystem::create_symlink("../nowhere/./x", root_ / "link");
  EXPECT_EQ(resolve_system_links(root_ / "link/y"), root_.path().parent_path() / "nowhere/x/y");
}

TEST_F(SystemLinks, AreLeftInADirectoryThatOthersMayWriteTo) {
  root_.directory("real");
  std::filesystem::create_symlink("real", root_ / "link");
  for (const mode_t mode : {0720u, 0702u, 01777u}) {
    ASSERT_EQ(chmod(root_.path().c_str(), mode), 0);
    EXPECT_EQ(resolve_system_links(root_ / "link"), root_ / "link") << std::oct << mode;
  }
  ASSERT_EQ(chmod(root_.path().c_str(), 0755), 0);
  EXPECT_EQ(resolve_system_links(root_ / "link"), root_ / "real");
}

TEST_F(SystemLinks, AreLeftInADirectoryOfAnotherUser) {
  root_.directory("real");
  std::filesystem::create_symlink("real", root_ / "link");
  ASSERT_EQ(chown(root_.path().c_str(), 1000, 1000), 0);
  EXPECT_EQ(resolve_system_links(root_ / "link"), root_ / "link");
}

TEST_F(SystemLinks, ResolveInAChainOfSixteenButNotOfSeventeen) {
  root_.directory("0");
  for (int i = 1; i <= 17; ++i) {
    std::filesystem::create_symlink(std::to_string(i - 1), root_ / std::to_string(i));
  }
  EXPECT_EQ(resolve_system_links(root_ / "16/x"), root_ / "0/x");
  EXPECT_FAILURE(resolve_system_links(root_ / "17/x"), "unsafe_path", "Too many system links in a path");
}

TEST_F(SystemLinks, ThatLeadToThemselvesEndAtTheBound) {
  std::filesystem::create_symlink("loop", root_ / "loop");
  EXPECT_FAILURE(resolve_system_links(root_ / "loop"), "unsafe_path", "Too many system links in a path");
}

TEST(UserDataRoot, LiesBelowHome) {
  const WithEnvironment home("HOME", "/home/somebody");
  const std::string expected =
      native_platform() == "linux-x86_64" ? ".local/share/Ravok" : "Library/Application Support/Ravok";
  EXPECT_EQ(user_data_root(), "/home/somebody/" + expected);
  EXPECT_EQ(os::data_root_below_home(), expected);
}

TEST(UserDataRoot, NeedsAnAbsoluteHome) {
  for (const std::optional<std::string>& value :
       std::vector<std::optional<std::string>>{std::nullopt, "", "relative/home", "~"}) {
    const WithEnvironment home("HOME", value);
    EXPECT_FAILURE(user_data_root(), "user_path", "HOME must identify an absolute user directory");
  }
}

TEST(RequirePathRoom, HasRoomOnThisPlatform) { EXPECT_NO_THROW(require_path_room("/root", "tree", 1 << 20)); }

}  // namespace
}  // namespace ravok::managed_paths_test
