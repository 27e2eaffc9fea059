#include "platform/file/path_keys.hpp"

#include <fstream>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/file/handle.hpp"
#include "platform/os.hpp"
#include "support/failure.hpp"
#include "support/mounted_volume.hpp"
#include "support/ordinary_user.hpp"
#include "support/temporary_root.hpp"

namespace ravok::path_keys_test {
namespace {

using path_keys::directory_key;
using path_keys::path_key;
using testing::MountedVolume;
using testing::OrdinaryUser;
using testing::TemporaryRoot;
using testing::WithMode;

constexpr const char* linked = "Linux setup ancestry is linked, unavailable or changed";

void make_image(const std::filesystem::path& image) {
  std::ofstream(image).close();
  std::filesystem::resize_file(image, 16 << 20);
}

TEST(PathKey, NamesTheVolumeItsComparisonAndThePlace) {
  const TemporaryRoot root;
  const std::string key = directory_key(root.directory("a"));
  EXPECT_TRUE(key.starts_with("linux-v1/")) << key;
  EXPECT_NE(key.find("/s/"), std::string::npos) << key;
  EXPECT_TRUE(key.ends_with("/" + root.path().filename().string() + "/a")) << key;
}

TEST(PathKey, OfAPlaceBeginsWithThatOfTheDirectoriesAbove) {
  const TemporaryRoot root;
  EXPECT_EQ(directory_key(root / "a/b"), directory_key(root.path()) + "/a/b");
}

TEST(PathKey, OfAVolumesRootEndsInASeparatorAndHoldsNoName) {
  const TemporaryRoot root;
  const MountedVolume volume(root.directory("volume"), "tmpfs", "size=64k");
  if (!volume.mounted()) {
    GTEST_SKIP() << "volumes cannot be mounted here";
  }
  const std::string key = directory_key(root / "volume");
  EXPECT_TRUE(key.ends_with("/s/")) << key;
  EXPECT_EQ(directory_key(root / "volume/x"), key + "x");
}

TEST(PathKey, IsTheSameForEverySpelling) {
  const TemporaryRoot root;
  root.directory("a/b");
  const std::string key = directory_key(root / "a/b");
  EXPECT_EQ(directory_key(root / "a/./b/"), key);
  EXPECT_EQ(directory_key(root / "a/../a/b"), key);
  EXPECT_EQ(path_key(root / "a/b"), key);
}

TEST(PathKey, TellsNamesApartThatDifferInCaseOrForm) {
  const TemporaryRoot root;
  EXPECT_NE(directory_key(root / "Game"), directory_key(root / "game"));
  EXPECT_NE(directory_key(root / "\xc3\xa4"), directory_key(root / "a\xcc\x88"));
}

TEST(PathKey, HoldsAnyBytesWhereNamesAreBytes) {
  const TemporaryRoot root;
  EXPECT_TRUE(path_key(root / "\xff").ends_with("/\xff"));
}

TEST(PathKey, IsTheSameBeforeAndAfterThePlaceExists) {
  const TemporaryRoot root;
  const std::string before = directory_key(root / "new/deeper");
  EXPECT_TRUE(before.ends_with("/new/deeper")) << before;
  root.directory("new/deeper");
  EXPECT_EQ(directory_key(root / "new/deeper"), before);
}

TEST(PathKey, TakesAFileAtItsEndOnlyWhereAsked) {
  const TemporaryRoot root;
  root.write("file", "x");
  EXPECT_TRUE(path_key(root / "file").ends_with("/file"));
  EXPECT_FAILURE(directory_key(root / "file"), "unsafe_path", linked);
  EXPECT_FAILURE(path_key(root / "file/below"), "unsafe_path", linked);
}

TEST(PathKey, IsTheSameBelowADirectoryThatMayOnlyBePassedThrough) {
  const TemporaryRoot root;
  root.directory("homes/mine");
  const std::string key = directory_key(root / "homes/mine/new");
  const OrdinaryUser user(root);
  const WithMode closed(root / "homes", 0300);
  EXPECT_EQ(directory_key(root / "homes/mine/new"), key);
  EXPECT_EQ(path_key(root / "homes/mine/new"), key);
}

TEST(PathKey, RefusesAPlaceBelowADirectoryThatMayNotBePassed) {
  const TemporaryRoot root;
  root.directory("homes/mine");
  const OrdinaryUser user(root);
  const WithMode closed(root / "homes", 0600);
  EXPECT_FAILURE(directory_key(root / "homes/mine"), "unsafe_path", linked);
  EXPECT_FAILURE(path_key(root / "homes/new"), "unsafe_path", linked);
}

TEST(PathKey, RefusesLinks) {
  const TemporaryRoot root;
  root.directory("real/inner");
  // A link in a directory that others may write to does not count as the system's own.
  ASSERT_EQ(chmod(root.path().c_str(), 0777), 0);
  std::filesystem::create_symlink("real", root / "link");
  EXPECT_FAILURE(directory_key(root / "link"), "unsafe_path", linked);
  EXPECT_FAILURE(path_key(root / "link"), "unsafe_path", linked);
  EXPECT_FAILURE(path_key(root / "link/inner"), "unsafe_path", linked);
}

TEST(PathKey, FollowsALinkOfTheSystem) {
  if (!testing::is_root()) {
    GTEST_SKIP() << "only user 0 can make the system's links";
  }
  const TemporaryRoot root;
  root.directory("real");
  std::filesystem::create_symlink("real", root / "link");
  EXPECT_EQ(directory_key(root / "link/x"), directory_key(root / "real/x"));
}

TEST(PathKey, NeedsABoundedAbsolutePath) {
  constexpr const char* ordinary = "Linux setup needs a bounded ordinary destination";
  EXPECT_FAILURE(path_key(""), "unsafe_path", ordinary);
  EXPECT_FAILURE(path_key("/" + std::string(4096, 'x')), "unsafe_path", ordinary);
  EXPECT_FAILURE(path_key(std::string("/a\0b", 4)), "unsafe_path", ordinary);
  EXPECT_FAILURE(path_key("relative"), "unsafe_path", "Linux setup needs a bounded absolute destination");
}

TEST(PathKey, WalksAtMost128Levels) {
  std::string path;
  for (int i = 0; i < 128; ++i) {
    path += "/missing";
  }
  EXPECT_NO_THROW(path_key(path));
  EXPECT_NO_THROW(path_key(path + "/./x/.."));
  EXPECT_FAILURE(path_key(path + "/x"), "unsafe_path", "Linux setup ancestry exceeds its bound");
}

TEST(PathKey, ExistsForTheRootOfAVolume) {
  EXPECT_TRUE(directory_key("/").starts_with("linux-v1/"));
  EXPECT_TRUE(directory_key("/").find("//") == std::string::npos);
}

TEST(PathKey, TellsVolumesApart) {
  const TemporaryRoot root;
  const MountedVolume first(root.directory("first"), "tmpfs", "size=64k");
  const MountedVolume second(root.directory("second"), "tmpfs", "size=64k");
  if (!first.mounted() || !second.mounted()) {
    GTEST_SKIP() << "volumes cannot be mounted here";
  }
  EXPECT_NE(directory_key(root / "first/x"), directory_key(root / "second/x"));
}

TEST(PathKey, IsTheSameThroughASecondMountOfTheSamePlace) {
  const TemporaryRoot root;
  root.directory("real/inner");
  const auto view = root.directory("view");
  if (!testing::is_root() || mount((root / "real").c_str(), view.c_str(), nullptr, MS_BIND, nullptr) != 0) {
    GTEST_SKIP() << "a second mount cannot be made here";
  }
  const std::string through_view = directory_key(view / "inner/new");
  EXPECT_EQ(umount2(view.c_str(), MNT_DETACH), 0);
  EXPECT_EQ(through_view, directory_key(root / "real/inner/new"));
}

TEST(PathKey, FoldsNamesInACaseFoldDirectoryOnly) {
  const TemporaryRoot root;
  make_image(root / "image");
  if (!testing::is_root() || !testing::run_quietly("mkfs.ext4 -q -O casefold '" + (root / "image").string() + "'")) {
    GTEST_SKIP() << "no ext4 image with case folding can be made here";
  }
  const MountedVolume volume(root.directory("volume"), "ext4", "", root / "image");
  if (!volume.mounted()) {
    GTEST_SKIP() << "the kernel does not mount ext4 with case folding";
  }
  root.directory("volume/Folded");
  ASSERT_TRUE(testing::run_quietly("chattr +F '" + (root / "volume/Folded").string() + "'"));

  // In a directory that folds case, all spellings of a name give one key, before and after it exists.
  const std::string before = directory_key(root /
                                           "volume/Folded/Game/Stra\xc3\x9f"
                                           "e");
  EXPECT_EQ(directory_key(root / "volume/Folded/game/STRASSE"), before);
  EXPECT_NE(before.find("/i/"), std::string::npos) << before;
  root.directory("volume/Folded/GAME/strasse");
  EXPECT_EQ(directory_key(root / "volume/Folded/Game/Strasse"), before);
  EXPECT_EQ(path_key(root / "volume/Folded/\xc3\xa4"), path_key(root / "volume/Folded/A\xcc\x88"));
  EXPECT_FAILURE(path_key(root / "volume/Folded/\xff"), "unsafe_path", "Linux setup names must be valid UTF-8");

  // Outside it, and for its own name, different spellings give different keys.
  EXPECT_NE(directory_key(root / "volume/Game"), directory_key(root / "volume/game"));
  EXPECT_NE(directory_key(root / "volume/Folded"), directory_key(root / "volume/folded"));
}

TEST(PathKey, FoldsNamesOnAVolumeThatNeverComparesCase) {
  const TemporaryRoot root;
  make_image(root / "image");
  if (!testing::is_root() || !testing::run_quietly("mkfs.vfat '" + (root / "image").string() + "'")) {
    GTEST_SKIP() << "no vfat image can be made here";
  }
  const MountedVolume volume(root.directory("volume"), "vfat", "utf8", root / "image");
  if (!volume.mounted()) {
    GTEST_SKIP() << "the kernel does not mount vfat";
  }
  root.directory("volume/Games");
  EXPECT_EQ(directory_key(root / "volume/games/X"), directory_key(root / "volume/GAMES/x"));
}

TEST(PathKey, RefusesAVolumeOfAnotherMachine) {
  const TemporaryRoot root;
  // A local directory, mounted through the kernel's plan 9 client, stands in for another machine's.
  const MountedVolume volume(root.directory("volume"), "9p", "trans=fd,rfdno=0,wfdno=1");
  if (!volume.mounted()) {
    GTEST_SKIP() << "no network volume can be mounted here";
  }
  EXPECT_FAILURE(directory_key(root / "volume"), "unsafe_path", "Linux setup control storage requires a local volume");
}

TEST(ComparedName, KeepsBytesWhereCaseCounts) { EXPECT_EQ(os::compared_name("A\xff", true), "A\xff"); }

TEST(ComparedName, DecomposesAndFoldsWhereItDoesNot) {
  EXPECT_EQ(os::compared_name("Game", false), "game");
  EXPECT_EQ(os::compared_name("\xc3\x84", false), "a\xcc\x88");
  EXPECT_EQ(os::compared_name("A\xcc\x88", false), "a\xcc\x88");
  EXPECT_EQ(os::compared_name("\xc3\x9f", false), "ss");
  EXPECT_FAILURE(os::compared_name("\xff", false), "unsafe_path", "Linux setup names must be valid UTF-8");
}

TEST(ComparedName, HoldsAtMost4096BytesOnceItIsFolded) {
  constexpr const char* beyond = "Normalized Linux setup names exceed their bound";
  EXPECT_EQ(os::compared_name(std::string(4096, 'A'), false), std::string(4096, 'a'));
  EXPECT_FAILURE(os::compared_name(std::string(4097, 'A'), false), "unsafe_path", beyond);
  // Decomposition makes three bytes out of this letter's two.
  std::string letters;
  for (int i = 0; i < 1366; ++i) {
    letters += "\xc3\xa9";
  }
  EXPECT_FAILURE(os::compared_name(letters, false), "unsafe_path", beyond);
  EXPECT_EQ(os::compared_name(letters.substr(2), false).size(), 4095u);
}

TEST(DescriptorPath, IsThePathAsLongAsThereIsOne) {
  const TemporaryRoot root;
  root.directory("a");
  const Handle directory(open((root / "a").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  EXPECT_EQ(os::descriptor_path(directory.get()), (root / "a").string());
  std::filesystem::rename(root / "a", root / "b");
  EXPECT_EQ(os::descriptor_path(directory.get()), (root / "b").string());
  std::filesystem::remove(root / "b");
  EXPECT_FALSE(os::descriptor_path(directory.get()).has_value());
  EXPECT_FALSE(os::descriptor_path(-1).has_value());
}

}  // namespace
}  // namespace ravok::path_keys_test
