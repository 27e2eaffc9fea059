#include "platform/file/held_directory.hpp"

#include <cerrno>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/file/mounts.hpp"
#include "support/failure.hpp"
#include "support/mounted_volume.hpp"
#include "support/ordinary_user.hpp"
#include "support/temporary_root.hpp"

namespace ravok::held_directory_test {
namespace {

using testing::MountedVolume;
using testing::OrdinaryUser;
using testing::TemporaryRoot;
using testing::WithMode;

using Names = std::vector<std::string>;

constexpr const char* linked = "Linux directory ancestry is missing or linked";

class HeldDirectoryTest : public ::testing::Test {
 protected:
  HeldDirectoryTest() {
    root.write("held/file", "file");
    root.write("held/tree/below", "below");
    root.write("outside/secret", "secret");
  }

  const TemporaryRoot root;
};

TEST_F(HeldDirectoryTest, IsReachedThroughNoLink) {
  // Links that user 0 makes count as the system's own.
  const OrdinaryUser user(root);
  std::filesystem::create_directory_symlink("held", root / "link");
  EXPECT_FAILURE(HeldDirectory::open(root / "link"), "unsafe_path", linked);
  EXPECT_FAILURE(HeldDirectory::open(root / "link/tree"), "unsafe_path", linked);
  EXPECT_FAILURE(HeldDirectory::open(root / "missing"), "unsafe_path", linked);
  EXPECT_FAILURE(HeldDirectory::open(root / "held/file"), "unsafe_path", linked);
  EXPECT_FAILURE(HeldDirectory::open_private(root / "link/new"), "unsafe_path", linked);
  EXPECT_EQ(HeldDirectory::open(root / "held").path(), root / "held");
  EXPECT_EQ(root.names().size(), 7u);
}

TEST_F(HeldDirectoryTest, MayBeTheRootOfTheFileSystem) {
  const HeldDirectory directory = HeldDirectory::open("/");
  EXPECT_EQ(directory.type_of("proc"), EntryType::directory);
  const std::vector<std::string> names = directory.names();
  EXPECT_NE(std::find(names.begin(), names.end(), "proc"), names.end());
}

TEST_F(HeldDirectoryTest, IsMadePrivateWhereItIsMissing) {
  const HeldDirectory made = HeldDirectory::open_private(root / "new/last");
  EXPECT_TRUE(made.is_in_place());
  const HeldDirectory below = made.private_directory("below");
  EXPECT_TRUE(below.is_in_place());
  EXPECT_EQ(below.path(), root / "new/last/below");
  for (const char* name : {"new", "new/last", "new/last/below"}) {
    EXPECT_EQ(link_status_of(root / name)->permissions, 0700u) << name;
  }
}

TEST_F(HeldDirectoryTest, FindsPlainDirectoriesOnly) {
  const HeldDirectory held = HeldDirectory::open(root / "held");
  std::filesystem::create_directory_symlink(root / "outside", root / "held/link");
  EXPECT_FALSE(held.find_directory("link"));
  EXPECT_FALSE(held.find_directory("file"));
  EXPECT_FALSE(held.find_directory("missing"));
  ASSERT_TRUE(held.find_directory("tree"));
  EXPECT_EQ(held.find_directory("tree")->names(), Names{"below"});
  EXPECT_FAILURE(held.private_directory("link"), "unsafe_path", linked);
}

TEST_F(HeldDirectoryTest, TellsWhyADirectoryCannotBeFound) {
  const HeldDirectory held = HeldDirectory::open(root / "held");
  const OrdinaryUser user(root);
  const WithMode closed(root / "held/tree", 0);
  EXPECT_FAILURE(held.find_directory("tree"), "permissions",
                 "Cannot open " + (root / "held/tree").native() + ": Permission denied");
}

TEST_F(HeldDirectoryTest, TellsTypesAndFollowsNothing) {
  const HeldDirectory held = HeldDirectory::open(root / "held");
  std::filesystem::create_symlink("file", root / "held/link");
  ASSERT_EQ(mkfifo((root / "held/queue").c_str(), 0600), 0);
  EXPECT_EQ(held.type_of("file"), EntryType::file);
  EXPECT_EQ(held.type_of("tree"), EntryType::directory);
  EXPECT_EQ(held.type_of("link"), EntryType::link);
  EXPECT_EQ(held.type_of("queue"), EntryType::other);
  EXPECT_EQ(held.type_of("missing"), std::nullopt);
  EXPECT_FAILURE(held.type_of(std::string(300, 'x')), "unsafe_path",
                 "Cannot look at " + (root / "held" / std::string(300, 'x')).native());
}

TEST_F(HeldDirectoryTest, GoesWithItsDirectoryAndNotWithItsPath) {
  const HeldDirectory held = HeldDirectory::open(root / "held");
  std::filesystem::rename(root / "held", root / "moved");
  std::filesystem::create_directory_symlink(root / "outside", root / "held");
  EXPECT_FALSE(held.is_in_place());
  held.remove_tree("secret");
  held.remove_quietly("secret");
  held.remove("file");
  held.remove_itself_quietly();
  held.move("tree", held, "secret");
  EXPECT_EQ(root.names(),
            (Names{"held@", "moved/", "moved/secret/", "moved/secret/below", "outside/", "outside/secret"}));
}

TEST_F(HeldDirectoryTest, WritesNothingBehindAPathThatLeadsElsewhere) {
  const HeldDirectory held = HeldDirectory::open(root / "held");
  std::filesystem::rename(root / "held", root / "moved");
  std::filesystem::create_directory_symlink(root / "outside", root / "held");
  const Names before = root.names();
  EXPECT_FAILURE(held.write("secret", "new"), "file_write", "Cannot commit transaction file (2)");
  EXPECT_EQ(root.names(), before);
  EXPECT_EQ(root.read("outside/secret"), "secret");
}

TEST_F(HeldDirectoryTest, WritesOverALinkAndNotThroughIt) {
  const HeldDirectory held = HeldDirectory::open(root / "held");
  std::filesystem::create_symlink("../outside/secret", root / "held/record");
  held.write("record", "new");
  EXPECT_EQ(root.read("held/record"), "new");
  EXPECT_EQ(root.read("outside/secret"), "secret");
  EXPECT_TRUE(is_file(*link_status_of(root / "held/record")));
  EXPECT_EQ(link_status_of(root / "held/record")->permissions, 0600u);
  held.write("record", "newer");
  EXPECT_EQ(root.read("held/record"), "newer");
}

TEST_F(HeldDirectoryTest, WritesOverNoDirectory) {
  const HeldDirectory held = HeldDirectory::open(root / "held");
  const Names before = root.names();
  EXPECT_FAILURE(held.write("tree", "new"), "file_write",
                 "Cannot commit transaction file (" + std::to_string(EISDIR) + ")");
  EXPECT_EQ(root.names(), before);
}

TEST_F(HeldDirectoryTest, MovesInPlaceOfFilesAndTellsWhyItCannot) {
  const HeldDirectory held = HeldDirectory::open(root / "held");
  const HeldDirectory tree = *held.find_directory("tree");
  held.move("file", tree, "below");
  EXPECT_EQ(root.read("held/tree/below"), "file");
  EXPECT_TRUE(held.try_move("missing", tree, "other") == Cause::missing);
  EXPECT_FAILURE(held.move("missing", tree, "other"), "file_write",
                 "Cannot move " + (root / "held/missing").native() + " into place");
}

TEST_F(HeldDirectoryTest, RemovesFilesLinksAndEmptyDirectories) {
  const HeldDirectory held = HeldDirectory::open(root / "held");
  std::filesystem::create_directory_symlink("../outside", root / "held/link");
  root.directory("held/empty");
  for (const char* name : {"file", "link", "empty", "missing"}) {
    held.remove(name);
  }
  EXPECT_FAILURE(held.remove("tree"), "file_remove", "Cannot remove " + (root / "held/tree").native());
  held.remove_quietly("tree");
  EXPECT_EQ(held.names(), Names{"tree"});
  EXPECT_EQ(root.read("outside/secret"), "secret");
}

TEST_F(HeldDirectoryTest, RemovesWhatMatchesAtAnyDepth) {
  const HeldDirectory held = HeldDirectory::open(root / "held");
  for (const char* name : {"held/a.old", "held/tree/b.old", "held/tree/c.old/kept", "held/d.old.not"}) {
    root.write(name, "x");
  }
  root.directory("held/tree/e.old");
  std::filesystem::create_directory_symlink(root / "outside", root / "held/f.old");
  held.remove_matching_quietly([](const std::string& name) { return name.ends_with(".old"); });
  EXPECT_EQ(root.names(), (Names{"held/", "held/d.old.not", "held/file", "held/tree/", "held/tree/below",
                                 "held/tree/c.old/", "held/tree/c.old/kept", "outside/", "outside/secret"}));
}

TEST_F(HeldDirectoryTest, RemovesItselfOnlyWhileItIsEmptyAndInPlace) {
  const HeldDirectory held = HeldDirectory::open(root / "held");
  held.remove_itself_quietly();
  EXPECT_TRUE(held.is_in_place());
  const HeldDirectory tree = *held.find_directory("tree");
  tree.remove("below");
  tree.remove_itself_quietly();
  EXPECT_FALSE(held.find_directory("tree"));
  root.directory("held/tree");
  tree.remove_itself_quietly();
  EXPECT_TRUE(held.find_directory("tree"));
}

TEST_F(HeldDirectoryTest, ListsOnlySoManyNamesAsAreAskedFor) {
  const HeldDirectory held = HeldDirectory::open(root / "held");
  EXPECT_EQ(held.names().size(), 2u);
  EXPECT_EQ(held.names(1).size(), 1u);
  EXPECT_EQ(held.names(0).size(), 0u);
}

TEST_F(HeldDirectoryTest, KnowsWhatIsMountedBelow) {
  const HeldDirectory held = HeldDirectory::open(root / "held");
  const auto all = [](const std::filesystem::path&) { return true; };
  require_no_mounts(held.handle(), held.path(), all);
  const MountedVolume volume(root / "held/tree", "tmpfs", "size=1m");
  if (!volume.mounted()) {
    GTEST_SKIP() << "needs leave to mount a volume";
  }
  EXPECT_FAILURE(require_no_mounts(held.handle(), held.path(), all), "unsafe_path",
                 "A volume is mounted at " + (root / "held/tree").native() + "; unmount it and try again");
  require_no_mounts(held.handle(), held.path(),
                    [&](const std::filesystem::path& place) { return place != root / "held/tree"; });
  const HeldDirectory outside = HeldDirectory::open(root / "outside");
  require_no_mounts(outside.handle(), outside.path(), all);
}

}  // namespace
}  // namespace ravok::held_directory_test
