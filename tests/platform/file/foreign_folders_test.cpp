#include "platform/file/foreign_folders.hpp"

#include <filesystem>
#include <optional>

#include <gtest/gtest.h>
#include <unistd.h>

#include "support/ordinary_user.hpp"
#include "support/temporary_root.hpp"
#include "support/with_environment.hpp"

namespace ravok::foreign_folders_test {
namespace {

using testing::TemporaryRoot;
using testing::WithEnvironment;

constexpr uid_t somebody = 65534;

class ForeignFolders : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!testing::is_root()) {
      GTEST_SKIP() << "only root writes among another user's files";
    }
    ASSERT_EQ(chown(root.directory("theirs").c_str(), somebody, somebody), 0);
    root.directory("ours");
  }

  const TemporaryRoot root;
};

TEST_F(ForeignFolders, AreThoseOfAnotherUserAndWhatWouldLieInThem) {
  EXPECT_EQ(foreign_folder(root / "theirs"), root / "theirs");
  EXPECT_EQ(foreign_folder(root / "theirs/"), root / "theirs/");
  EXPECT_EQ(foreign_folder(root / "theirs/new/folder"), root / "theirs");
  EXPECT_EQ(foreign_folder(root / "ours/../theirs/new"), root / "theirs");
}

TEST_F(ForeignFolders, AreNotThoseOfRoot) {
  for (const std::filesystem::path& path :
       {root / "ours", root / "ours/new/folder", root / "new", std::filesystem::path("/"),
        std::filesystem::path("/nowhere/at/all"), std::filesystem::path()}) {
    EXPECT_EQ(foreign_folder(path), std::nullopt) << path;
  }
  root.directory("theirs/ours");
  EXPECT_EQ(foreign_folder(root / "theirs/ours/new"), std::nullopt);
}

TEST_F(ForeignFolders, AreJudgedWhereALinkLeads) {
  std::filesystem::create_directory_symlink(root / "theirs", root / "to theirs");
  std::filesystem::create_directory_symlink(root / "ours", root / "theirs/to ours");
  std::filesystem::create_directory_symlink(root / "missing", root / "theirs/to nothing");
  EXPECT_EQ(foreign_folder(root / "to theirs/new"), root / "to theirs");
  EXPECT_EQ(foreign_folder(root / "theirs/to ours/new"), std::nullopt);
  EXPECT_EQ(foreign_folder(root / "theirs/to nothing/new"), root / "theirs");
}

TEST_F(ForeignFolders, AHomeIsOne) {
  const auto home = [](const std::optional<std::string>& value) {
    const WithEnvironment set("HOME", value);
    return foreign_home();
  };
  EXPECT_EQ(home(root / "theirs"), root / "theirs");
  EXPECT_EQ(home(root / "ours"), std::nullopt);
  EXPECT_EQ(home(""), std::nullopt);
  EXPECT_EQ(home(std::nullopt), std::nullopt);
}

TEST(ForeignFoldersOfAnybody, AreNoneForAnOrdinaryUser) {
  const TemporaryRoot root;
  const testing::OrdinaryUser user(root);
  for (const std::filesystem::path& path : {root / "new", std::filesystem::path("/"), std::filesystem::path("/new")}) {
    EXPECT_EQ(foreign_folder(path), std::nullopt) << path;
  }
  const WithEnvironment home("HOME", "/");
  EXPECT_EQ(foreign_home(), std::nullopt);
}

}  // namespace
}  // namespace ravok::foreign_folders_test
