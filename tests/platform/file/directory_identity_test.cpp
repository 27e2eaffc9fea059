#include "platform/file/directory_identity.hpp"

#include <filesystem>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/failure.hpp"
#include "support/temporary_root.hpp"

namespace ravok::directory_identity_test {
namespace {

using testing::TemporaryRoot;

constexpr const char* cannot_inspect = "Cannot inspect prepared directory identity";

TEST(InspectStorageDirectory, TellsTheDeviceAndTheInode) {
  const TemporaryRoot root;
  struct stat status;
  ASSERT_EQ(lstat(root.path().c_str(), &status), 0);
  const DirectoryIdentity expected{status.st_dev, status.st_ino};
  EXPECT_EQ(inspect_storage_directory(root.path()), expected);
  EXPECT_EQ(inspect_storage_directory(root / ""), expected);
}

TEST(InspectStorageDirectory, TellsADirectoryFromAnotherAndKnowsItAfterAMove) {
  const TemporaryRoot root;
  const DirectoryIdentity first = inspect_storage_directory(root.directory("first"));
  EXPECT_NE(inspect_storage_directory(root.directory("second")), first);
  std::filesystem::rename(root / "first", root / "third");
  EXPECT_EQ(inspect_storage_directory(root / "third"), first);
}

TEST(InspectStorageDirectory, RefusesWhatIsNoDirectory) {
  const TemporaryRoot root;
  EXPECT_FAILURE(inspect_storage_directory(root / "missing"), "unsafe_path", cannot_inspect);
  EXPECT_FAILURE(inspect_storage_directory(root.write("file", "")), "unsafe_path", cannot_inspect);
  EXPECT_FAILURE(inspect_storage_directory(""), "unsafe_path", cannot_inspect);
}

TEST(InspectStorageDirectory, RefusesALinkAlsoWithASeparatorBehindIt) {
  const TemporaryRoot root;
  root.directory("real");
  std::filesystem::create_directory_symlink("real", root / "link");
  EXPECT_FAILURE(inspect_storage_directory(root / "link"), "unsafe_path", cannot_inspect);
  EXPECT_FAILURE(inspect_storage_directory(root / "link/"), "unsafe_path", cannot_inspect);
}

}  // namespace
}  // namespace ravok::directory_identity_test
