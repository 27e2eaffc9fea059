#include "platform/file/posix_files.hpp"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "platform/file/atomic_commit.hpp"
#include "platform/file/files.hpp"
#include "platform/file/handle.hpp"
#include "platform/file/native_lock.hpp"
#include "platform/file/status.hpp"
#include "platform/os.hpp"
#include "support/access_list.hpp"
#include "support/failure.hpp"
#include "support/ordinary_user.hpp"
#include "support/temporary_root.hpp"

namespace ravok::posix_files_test {
namespace {

using testing::TemporaryRoot;
using Entry = testing::AccessEntry;

constexpr const char* access_list = "system.posix_acl_access";
constexpr const char* default_list = "system.posix_acl_default";
constexpr const char* foreign = "Existing Linux storage grants another identity access; preserve it";
constexpr const char* not_private = "Linux private storage must be ordinary, owned and accessible only to this user";

// An access list as the kernel stores it, with the entries of `named` among the usual ones.
std::string list_of(const std::vector<Entry>& named, std::uint16_t group = 0) {
  std::vector<Entry> entries = {{0x01, 7}};
  entries.insert(entries.end(), named.begin(), named.end());
  entries.push_back({0x04, group});
  entries.push_back({0x10, 0});
  entries.push_back({0x20, 0});
  std::stable_sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) { return a.tag < b.tag; });
  return testing::stored_access_list(entries);
}

// `count` users' entries that grant nothing, in the ascending order that the kernel wants.
std::vector<Entry> denied_users(std::size_t count) {
  std::vector<Entry> entries;
  for (std::size_t i = 0; i < count; ++i) {
    entries.push_back({0x02, 0, static_cast<std::uint32_t>(70000 + i)});
  }
  return entries;
}

std::string stored_list(const std::filesystem::path& path, const char* name) {
  std::string list(65536, '\0');
  const ssize_t size = getxattr(path.c_str(), name, list.data(), list.size());
  return size < 0 ? std::string() : list.substr(0, static_cast<std::size_t>(size));
}

std::uint32_t mode_of(const std::filesystem::path& path) {
  const auto status = link_status_of(path);
  return status ? status->permissions : 0;
}

Handle open_node(const std::filesystem::path& path) {
  return Handle(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
}

class PosixFiles : public ::testing::Test {
 protected:
  // A private directory or file of this test's own.
  std::filesystem::path private_node(const std::string& name, bool directory) {
    const auto path = directory ? root_.directory(name) : root_.write(name, "");
    EXPECT_EQ(chmod(path.c_str(), directory ? 0700 : 0600), 0);
    return path;
  }

  // Puts an access list on a node, or skips where the volume has none.
  void put_list(const std::filesystem::path& path, const char* name, const std::string& list) {
    if (setxattr(path.c_str(), name, list.data(), list.size(), 0) != 0) {
      ASSERT_EQ(errno, EOPNOTSUPP) << std::strerror(errno);
      GTEST_SKIP() << "the volume has no access lists";
    }
  }

  TemporaryRoot root_;
};

TEST_F(PosixFiles, SyncFlushesAFileAndADirectory) {
  EXPECT_EQ(posix_files::sync(open_node(root_.write("file", "x")).get()), 0);
  EXPECT_EQ(posix_files::sync(open_node(root_.path()).get()), 0);
}

TEST_F(PosixFiles, SyncAnswersAFailureWithErrno) {
  EXPECT_LT(posix_files::sync(-1), 0);
  EXPECT_EQ(errno, EBADF);
}

TEST_F(PosixFiles, ReserveClaimsTheBlocksAndSetsTheSize) {
  const Handle file(open(root_.write("file", "").c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(posix_files::reserve(file.get(), 100000), 0);
  const auto status = status_of(file.get());
  EXPECT_EQ(status->size, 100000u);
  EXPECT_GE(status->allocated, 100000u);
}

TEST_F(PosixFiles, ReserveOfNothingChangesNothing) {
  const Handle file(open(root_.write("file", "content").c_str(), O_RDWR | O_CLOEXEC));
  EXPECT_EQ(posix_files::reserve(file.get(), 0), 0);
  EXPECT_EQ(root_.read("file"), "content");
}

TEST_F(PosixFiles, ReserveOfWhatIsAllocatedOnlySetsTheSize) {
  const Handle file(open(root_.write("file", std::string(100000, 'x')).c_str(), O_RDWR | O_CLOEXEC));
  const auto before = status_of(file.get());
  ASSERT_EQ(posix_files::reserve(file.get(), 4096), 0);
  EXPECT_EQ(root_.read("file"), std::string(4096, 'x'));
  ASSERT_EQ(posix_files::reserve(file.get(), 100), 0);
  EXPECT_LE(status_of(file.get())->allocated, before->allocated);
  EXPECT_EQ(status_of(file.get())->size, 100u);
}

TEST_F(PosixFiles, ReserveRefusesLengthsBeyondTheNativeBound) {
  const Handle file(open(root_.write("file", "x").c_str(), O_RDWR | O_CLOEXEC));
  EXPECT_EQ(posix_files::reserve(file.get(), std::uint64_t{1} << 63), EFBIG);
  EXPECT_EQ(posix_files::reserve(file.get(), std::numeric_limits<std::uint64_t>::max()), EFBIG);
  EXPECT_EQ(root_.read("file"), "x");
}

TEST_F(PosixFiles, ReserveRefusesWhatIsNoFile) {
  EXPECT_EQ(posix_files::reserve(open_node(root_.path()).get(), 1), EINVAL);
  EXPECT_EQ(posix_files::reserve(-1, 1), EBADF);
}

TEST_F(PosixFiles, ReserveWithoutRoomClaimsNothing) {
  const Handle file(open(root_.write("file", "").c_str(), O_RDWR | O_CLOEXEC));
  const int problem = posix_files::reserve(file.get(), std::uint64_t{1} << 50);
  EXPECT_TRUE(problem == ENOSPC || problem == EFBIG) << std::strerror(problem);
  const auto status = status_of(file.get());
  EXPECT_EQ(status->size, 0u);
  EXPECT_EQ(status->allocated, 0u);
}

TEST_F(PosixFiles, SecureNewPrivateSetsTheExactMode) {
  const auto file = root_.write("file", "");
  const auto directory = root_.directory("directory");
  ASSERT_EQ(chmod(file.c_str(), 0664), 0);
  ASSERT_EQ(chmod(directory.c_str(), 01777), 0);
  posix_files::secure_new_private(open_node(file).get(), false);
  posix_files::secure_new_private(open_node(directory).get(), true);
  EXPECT_EQ(mode_of(file), 0600u);
  EXPECT_EQ(mode_of(directory), 0700u);
}

TEST_F(PosixFiles, SecureNewPrivateRefusesWhatIsNotNew) {
  constexpr const char* changed = "New Linux private storage ownership changed";
  const auto filled = root_.write("filled", "x");
  EXPECT_FAILURE(posix_files::secure_new_private(open_node(filled).get(), false), "permissions", changed);
  EXPECT_FAILURE(posix_files::secure_new_private(open_node(filled).get(), true), "permissions", changed);
  EXPECT_FAILURE(posix_files::secure_new_private(open_node(root_.path()).get(), false), "permissions", changed);
  const auto linked = root_.write("linked", "");
  std::filesystem::create_hard_link(linked, root_ / "second");
  EXPECT_FAILURE(posix_files::secure_new_private(open_node(linked).get(), false), "permissions", changed);
  EXPECT_FAILURE(posix_files::secure_new_private(-1, false), "permissions", changed);
}

TEST_F(PosixFiles, SecureNewPrivateRemovesInheritedAccessLists) {
  const auto parent = private_node("parent", true);
  put_list(parent, default_list, list_of({{0x02, 7, 70000}}, 5));
  if (IsSkipped()) {
    return;
  }
  const auto file = root_.write("parent/file", "");
  const auto directory = root_.directory("parent/directory");
  ASSERT_NE(stored_list(file, access_list) + stored_list(directory, default_list), "");
  posix_files::secure_new_private(open_node(file).get(), false);
  posix_files::secure_new_private(open_node(directory).get(), true);
  EXPECT_EQ(stored_list(file, access_list), "");
  EXPECT_EQ(stored_list(directory, access_list), "");
  EXPECT_EQ(stored_list(directory, default_list), "");
}

TEST_F(PosixFiles, PrivateNodesAreProvedByModeLinksAndOwner) {
  const auto file = private_node("file", false);
  const auto directory = private_node("directory", true);
  EXPECT_NO_THROW(posix_files::require_private_path(file, false));
  EXPECT_NO_THROW(posix_files::require_private_path(directory, true));
  for (const mode_t mode : {0400u, 0500u, 0700u}) {
    ASSERT_EQ(chmod(file.c_str(), mode), 0);
    EXPECT_NO_THROW(posix_files::require_private_path(file, false)) << std::oct << mode;
  }
  for (const mode_t mode : {0640u, 0604u, 04600u, 01600u}) {
    ASSERT_EQ(chmod(file.c_str(), mode), 0);
    EXPECT_FAILURE(posix_files::require_private_path(file, false), "permissions", not_private) << std::oct << mode;
  }
  for (const mode_t mode : {0500u, 0750u, 0701u, 01700u}) {
    ASSERT_EQ(chmod(directory.c_str(), mode), 0);
    EXPECT_FAILURE(posix_files::require_private_path(directory, true), "permissions", not_private) << std::oct << mode;
  }
  ASSERT_EQ(chmod(directory.c_str(), 0700), 0);
}

TEST_F(PosixFiles, APrivateFileHasOneName) {
  const auto file = private_node("file", false);
  std::filesystem::create_hard_link(file, root_ / "second");
  EXPECT_FAILURE(posix_files::require_private_path(file, false), "permissions", not_private);
  std::filesystem::remove(root_ / "second");
  EXPECT_NO_THROW(posix_files::require_private_path(file, false));
}

TEST_F(PosixFiles, ANodeOfAnotherUserIsNotPrivate) {
  if (!testing::is_root()) {
    GTEST_SKIP() << "only user 0 can give a file away";
  }
  const auto file = private_node("file", false);
  ASSERT_EQ(chown(file.c_str(), 1000, 1000), 0);
  EXPECT_FAILURE(posix_files::require_private_path(file, false), "permissions", not_private);
  EXPECT_FAILURE(posix_files::secure_new_private(open_node(file).get(), false), "permissions",
                 "New Linux private storage ownership changed");
}

TEST_F(PosixFiles, RequirePrivatePathNeedsABoundedAbsolutePath) {
  constexpr const char* unbounded = "Linux private storage needs a bounded absolute path";
  EXPECT_FAILURE(posix_files::require_private_path("relative", false), "unsafe_path", unbounded);
  EXPECT_FAILURE(posix_files::require_private_path("", false), "unsafe_path", unbounded);
  EXPECT_FAILURE(posix_files::require_private_path("/" + std::string(4096, 'x'), false), "unsafe_path", unbounded);
  EXPECT_FAILURE(posix_files::require_private_path(std::string("/a\0b", 4), false), "unsafe_path", unbounded);
}

TEST_F(PosixFiles, RequirePrivatePathRefusesWhatItCannotOpenAsItIs) {
  constexpr const char* unopened = "Cannot open ordinary Linux private storage";
  private_node("file", false);
  std::filesystem::create_symlink("file", root_ / "link");
  EXPECT_FAILURE(posix_files::require_private_path(root_ / "missing", false), "permissions", unopened);
  EXPECT_FAILURE(posix_files::require_private_path(root_ / "link", false), "permissions", unopened);
  EXPECT_FAILURE(posix_files::require_private_path(root_ / "file", true), "permissions", unopened);
  EXPECT_FAILURE(posix_files::require_private_path(root_.path(), false), "permissions", not_private);
}

TEST_F(PosixFiles, AnAccessListThatGrantsNobodyElseAnythingPasses) {
  const auto file = private_node("file", false);
  put_list(file, access_list, list_of({{0x02, 0, 70000}, {0x02, 7, static_cast<std::uint32_t>(geteuid())}}));
  if (IsSkipped()) {
    return;
  }
  EXPECT_NO_THROW(posix_files::require_private_acl(open_node(file).get()));
}

TEST_F(PosixFiles, ADenyEntryForAnotherUserPasses) {
  const auto directory = private_node("directory", true);
  put_list(directory, access_list, list_of(denied_users(1)));
  put_list(directory, default_list, list_of(denied_users(1)));
  if (IsSkipped()) {
    return;
  }
  EXPECT_NO_THROW(posix_files::require_private_path(directory, true));
}

TEST_F(PosixFiles, AnEntryThatGrantsAnotherUserOrGroupIsRefusedAndPreserved) {
  const auto directory = private_node("directory", true);
  for (const std::string& list : {list_of({{0x02, 4, 70000}}), list_of({{0x08, 1, 70000}}), list_of({}, 5)}) {
    for (const char* name : {access_list, default_list}) {
      put_list(directory, name, list);
      if (IsSkipped()) {
        return;
      }
      const std::string before = stored_list(directory, name);
      EXPECT_FAILURE(posix_files::require_private_acl(open_node(directory).get()), "permissions", foreign) << name;
      EXPECT_EQ(stored_list(directory, name), before);
      ASSERT_EQ(removexattr(directory.c_str(), name), 0);
    }
  }
}

TEST_F(PosixFiles, AnAccessListHoldsAtMost128Entries) {
  // Every list has four entries besides those of the users.
  const auto directory = private_node("directory", true);
  put_list(directory, access_list, list_of(denied_users(124)));
  if (IsSkipped()) {
    return;
  }
  EXPECT_NO_THROW(posix_files::require_private_acl(open_node(directory).get()));
  put_list(directory, access_list, list_of(denied_users(125)));
  EXPECT_FAILURE(posix_files::require_private_acl(open_node(directory).get()), "permissions",
                 "Linux storage ACL exceeds its bound or is invalid");
}

TEST_F(PosixFiles, AnAccessListThatCannotBeReadIsRefused) {
  EXPECT_FAILURE(posix_files::require_private_acl(-1), "permissions", "Cannot inspect the Linux private storage ACL");
}

TEST_F(PosixFiles, PrivateDirectoryMakesEveryMissingLevelPrivate) {
  private_directory(root_ / "a/b/c");
  for (const char* level : {"a", "a/b", "a/b/c"}) {
    EXPECT_EQ(mode_of(root_ / level), 0700u) << level;
  }
  EXPECT_NO_THROW(private_directory(root_ / "a/b/c"));
}

TEST_F(PosixFiles, PrivateDirectoryAcceptsASeparatorAtTheEndAndDots) {
  private_directory(root_ / "a/./b/");
  EXPECT_EQ(mode_of(root_ / "a/b"), 0700u);
}

TEST_F(PosixFiles, PrivateDirectoryTightensOnlyTheLastLevel) {
  root_.directory("a/b");
  ASSERT_EQ(chmod((root_ / "a").c_str(), 0755), 0);
  ASSERT_EQ(chmod((root_ / "a/b").c_str(), 0755), 0);
  private_directory(root_ / "a/b");
  EXPECT_EQ(mode_of(root_ / "a"), 0755u);
  EXPECT_EQ(mode_of(root_ / "a/b"), 0700u);
}

TEST_F(PosixFiles, PrivateDirectoryRefusesALastLevelThatItCannotRead) {
  private_node("a", true);
  const testing::OrdinaryUser user(root_);
  for (const mode_t mode : {0000u, 0100u, 0200u, 0300u}) {
    const testing::WithMode closed(root_ / "a", mode);
    for (const char* path : {"a", "a/"}) {
      EXPECT_FAILURE(private_directory(root_ / path), "unsafe_path", "Linux directory ancestry is missing or linked")
          << std::oct << mode;
    }
    EXPECT_FAILURE(atomic_write(root_ / "a/record", "content"), "unsafe_path",
                   "Linux directory ancestry is missing or linked");
    EXPECT_EQ(mode_of(root_ / "a"), mode);
  }
  EXPECT_EQ(root_.names(), (std::vector<std::string>{"a/"}));
}

TEST_F(PosixFiles, PrivateDirectorySetsTheModeOfALastLevelThatItCanRead) {
  private_node("a", true);
  const testing::OrdinaryUser user(root_);
  for (const mode_t mode : {0400u, 0500u, 0600u, 0755u, 01700u, 02700u, 04700u}) {
    ASSERT_EQ(chmod((root_ / "a").c_str(), mode), 0);
    private_directory(root_ / "a");
    EXPECT_EQ(mode_of(root_ / "a"), 0700u) << std::oct << mode;
  }
}

TEST_F(PosixFiles, PrivateDirectoryRefusesAnUnreadableLastLevelOfAnotherUser) {
  if (!testing::is_root()) {
    GTEST_SKIP() << "only user 0 can leave a directory of its own to another user";
  }
  private_node("a", true);
  const testing::OrdinaryUser user(root_);
  ASSERT_EQ(seteuid(0), 0);
  ASSERT_EQ(chown((root_ / "a").c_str(), 0, 0), 0);
  ASSERT_EQ(chmod((root_ / "a").c_str(), 0711), 0);
  ASSERT_EQ(seteuid(65534), 0);
  EXPECT_FAILURE(private_directory(root_ / "a"), "unsafe_path", "Linux directory ancestry is missing or linked");
  EXPECT_EQ(mode_of(root_ / "a"), 0711u);
}

TEST_F(PosixFiles, PrivateDirectoryNewClearsASetGroupBitOfItsParent) {
  private_node("a", true);
  ASSERT_EQ(chmod((root_ / "a").c_str(), 02700), 0);
  private_directory_new(root_ / "a/new");
  private_directory(root_ / "a/made");
  EXPECT_EQ(mode_of(root_ / "a/new"), 0700u);
  EXPECT_EQ(mode_of(root_ / "a/made"), 0700u);
}

TEST_F(PosixFiles, PrivateDirectoryRefusesADirectoryOfAnotherUser) {
  if (!testing::is_root()) {
    GTEST_SKIP() << "only user 0 can give a directory away";
  }
  const auto directory = root_.directory("a");
  ASSERT_EQ(chmod(directory.c_str(), 0755), 0);
  ASSERT_EQ(chown(directory.c_str(), 1000, 1000), 0);
  EXPECT_FAILURE(private_directory(directory), "permissions", not_private);
  EXPECT_EQ(mode_of(directory), 0755u);
}

TEST_F(PosixFiles, PrivateDirectoryPreservesAForeignAccessListAndTheMode) {
  const auto directory = private_node("a", true);
  put_list(directory, access_list, list_of({{0x02, 5, 70000}}));
  if (IsSkipped()) {
    return;
  }
  ASSERT_EQ(chmod(directory.c_str(), 0750), 0);
  const std::string before = stored_list(directory, access_list);
  EXPECT_FAILURE(private_directory(directory), "permissions", foreign);
  EXPECT_EQ(stored_list(directory, access_list), before);
  EXPECT_EQ(mode_of(directory), 0750u);
}

// The directory that holds all homes may be one that this user cannot list.
TEST_F(PosixFiles, PrivateStorageIsReachedThroughLevelsThatMayNotBeRead) {
  private_node("homes/mine", true);
  const testing::OrdinaryUser user(root_);
  const testing::WithMode closed(root_ / "homes", 0100);
  const auto mine = root_ / "homes/mine";
  private_directory(mine);
  private_directory(mine / "a/b");
  private_directory_new(mine / "new");
  for (const char* name : {"a", "a/b", "new"}) {
    EXPECT_NO_THROW(posix_files::require_private_path(mine / name, true)) << name;
  }
  atomic_write(mine / "record", "content");
  EXPECT_EQ(read_file(mine / "record", 64), "content");
  EXPECT_TRUE(FileLock(mine / "locks/lock", false, LockMode::exclusive).matches_path(mine / "locks/lock"));
  EXPECT_NO_THROW(NativeFileLock(mine / "own", true, NativeLockSharing::none, LockMode::exclusive));
  commit_private_path_new(mine / "new", mine / "a/b/live", {});
  EXPECT_EQ(mode_of(mine / "a/b/live"), 0700u);
}

TEST_F(PosixFiles, NothingIsMadeBelowALevelThatMayNotBePassed) {
  private_node("homes/mine", true);
  {
    const testing::OrdinaryUser user(root_);
    const testing::WithMode closed(root_ / "homes", 0600);
    EXPECT_FAILURE(private_directory(root_ / "homes/mine/a"), "unsafe_path",
                   "Linux directory ancestry is missing or linked");
    EXPECT_FAILURE(private_directory_new(root_ / "homes/mine/new"), "unsafe_path",
                   "New private directory requires ordinary existing parents");
    EXPECT_FAILURE(NativeFileLock(root_ / "homes/mine/own", true, NativeLockSharing::none, LockMode::exclusive),
                   "lock_failed", "Native ownership requires ordinary existing parents");
  }
  EXPECT_EQ(root_.names(), (std::vector<std::string>{"homes/", "homes/mine/"}));
}

TEST_F(PosixFiles, PrivateDirectoryRefusesALinkAtAnyLevel) {
  constexpr const char* linked = "Linux directory ancestry is missing or linked";
  root_.directory("real/inner");
  // A link in a directory that others may write to does not count as the system's own, so it is not followed.
  ASSERT_EQ(chmod(root_.path().c_str(), 0777), 0);
  std::filesystem::create_symlink("real", root_ / "link");
  std::filesystem::create_symlink("nowhere", root_ / "dangling");
  for (const char* path : {"link", "link/inner", "link/new", "dangling"}) {
    EXPECT_FAILURE(private_directory(root_ / path), "unsafe_path", linked) << path;
  }
  EXPECT_EQ(root_.names(), (std::vector<std::string>{"dangling@", "link@", "real/", "real/inner/"}));
}

TEST_F(PosixFiles, PrivateDirectoryFollowsALinkOfTheSystem) {
  if (!testing::is_root()) {
    GTEST_SKIP() << "only user 0 can make the system's links";
  }
  root_.directory("real");
  std::filesystem::create_symlink("real", root_ / "link");
  private_directory(root_ / "link/new");
  EXPECT_EQ(mode_of(root_ / "real/new"), 0700u);
}

TEST_F(PosixFiles, PrivateDirectoryRefusesAFileOnTheWay) {
  root_.write("file", "x");
  for (const char* path : {"file", "file/x"}) {
    EXPECT_FAILURE(private_directory(root_ / path), "unsafe_path", "Linux directory ancestry is missing or linked");
  }
  EXPECT_EQ(root_.read("file"), "x");
}

TEST_F(PosixFiles, PrivateDirectoryNeedsABoundedPathBelowARoot) {
  constexpr const char* unbounded = "Linux private directory needs a bounded path below a root";
  EXPECT_FAILURE(private_directory("/"), "unsafe_path", unbounded);
  EXPECT_FAILURE(private_directory(""), "unsafe_path", unbounded);
  EXPECT_FAILURE(private_directory(std::string("/tmp/a\0b", 8)), "unsafe_path", unbounded);
  EXPECT_FAILURE(private_directory("/" + std::string(4096, 'x')), "unsafe_path", unbounded);
}

TEST_F(PosixFiles, PrivateDirectoryDoesNotTraverseParents) {
  EXPECT_FAILURE(private_directory(root_ / "a/../b"), "unsafe_path", "Linux private directory cannot traverse parents");
  EXPECT_TRUE(root_.names().empty());
}

// The root with single-letter levels below it, `levels` in all from the root of the file system.
std::filesystem::path deep_path(const std::filesystem::path& root, std::ptrdiff_t levels) {
  const auto relative = root.relative_path();
  std::filesystem::path path = root;
  for (auto level = std::distance(relative.begin(), relative.end()); level < levels; ++level) {
    path /= "d";
  }
  return path;
}

TEST_F(PosixFiles, PrivateDirectoryWalksAtMost128Levels) {
  EXPECT_NO_THROW(private_directory(deep_path(root_.path(), 128)));
  EXPECT_FAILURE(private_directory(deep_path(root_.path(), 129)), "size_limit",
                 "Linux directory ancestry exceeds its bound");
}

TEST_F(PosixFiles, PrivateDirectoryReportsALevelThatItCannotMake) {
  EXPECT_FAILURE(private_directory("/proc/ravok/x"), "permissions", "Cannot reserve a new Linux private directory");
}

TEST_F(PosixFiles, PrivateDirectoryNewMakesOnePrivateLevel) {
  private_directory_new(root_ / "new");
  EXPECT_EQ(mode_of(root_ / "new"), 0700u);
  EXPECT_NO_THROW(posix_files::require_private_path(root_ / "new", true));
}

TEST_F(PosixFiles, PrivateDirectoryNewRefusesAnExistingName) {
  constexpr const char* reserved = "Cannot reserve new private staging directory";
  root_.write("directory/file", "x");
  root_.write("file", "x");
  std::filesystem::create_symlink("nowhere", root_ / "link");
  for (const char* name : {"directory", "file", "link"}) {
    if (std::string(name) == "link" && testing::is_root()) {
      continue;  // a link of the system's own is resolved first
    }
    EXPECT_FAILURE(private_directory_new(root_ / name), "native_install_commit", reserved) << name;
  }
  EXPECT_EQ(root_.read("directory/file"), "x");
}

TEST_F(PosixFiles, PrivateDirectoryNewNeedsOrdinaryExistingParents) {
  constexpr const char* ordinary = "New private directory requires ordinary existing parents";
  root_.write("file", "x");
  root_.directory("real");
  ASSERT_EQ(chmod(root_.path().c_str(), 0777), 0);
  std::filesystem::create_symlink("real", root_ / "link");
  for (const char* path : {"missing/new", "file/new", "link/new"}) {
    EXPECT_FAILURE(private_directory_new(root_ / path), "unsafe_path", ordinary) << path;
  }
  EXPECT_EQ(root_.names(), (std::vector<std::string>{"file", "link@", "real/"}));
}

TEST_F(PosixFiles, PrivateDirectoryNewNeedsABoundedPath) {
  constexpr const char* bounded = "New private directory requires a bounded path without NUL bytes";
  EXPECT_FAILURE(private_directory_new(""), "unsafe_path", bounded);
  EXPECT_FAILURE(private_directory_new("/" + std::string(4096, 'x')), "unsafe_path", bounded);
  EXPECT_FAILURE(private_directory_new(std::string("/a\0b", 4)), "unsafe_path", bounded);
  EXPECT_FAILURE(private_directory_new("/"), "unsafe_path",
                 "New private directory cannot be a filesystem root or exceed its absolute path bound");
  EXPECT_FAILURE(private_directory_new(std::string(4096, 'x')), "unsafe_path",
                 "New private directory cannot be a filesystem root or exceed its absolute path bound");
  EXPECT_FAILURE(private_directory_new(root_ / "a/../b"), "unsafe_path",
                 "New private directory cannot traverse parents");
}

TEST_F(PosixFiles, PrivateDirectoryNewWalksAtMost128ParentLevels) {
  private_directory(deep_path(root_.path(), 128));
  EXPECT_NO_THROW(private_directory_new(deep_path(root_.path(), 129)));
  EXPECT_FAILURE(private_directory_new(deep_path(root_.path(), 130)), "size_limit",
                 "New private directory ancestry exceeds its bound");
}

TEST(PrivateDirectory, IsMadeByAllWhoAskForItAtOnce) {
  constexpr int rounds = 200;
  const TemporaryRoot root;
  std::atomic<int> refused{0};
  std::vector<std::thread> askers;
  for (int i = 0; i < 4; ++i) {
    askers.emplace_back([&] {
      for (int round = 0; round < rounds; ++round) {
        refused += testing::failure_of([&] { private_directory(root / (std::to_string(round) + "/a/b")); }) ? 1 : 0;
      }
    });
  }
  for (std::thread& asker : askers) {
    asker.join();
  }
  EXPECT_EQ(refused, 0);
}

}  // namespace
}  // namespace ravok::posix_files_test
