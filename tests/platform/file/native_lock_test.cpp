#include "platform/file/native_lock.hpp"

#include <csignal>
#include <optional>
#include <string>
#include <type_traits>

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/file/status.hpp"
#include "platform/os.hpp"
#include "support/companion.hpp"
#include "support/failure.hpp"
#include "support/temporary_root.hpp"
#include "support/working_directory.hpp"

namespace ravok::native_lock_test {
namespace {

using testing::Companion;
using testing::TemporaryRoot;

constexpr const char* in_use = "Another Ravok operation is using this state";
constexpr const char* not_opened = "Cannot open operation lock";
constexpr const char* not_ordinary = "Operation lock must be an ordinary private owned file";
constexpr const char* owned = "Another worker owns this native installation";
constexpr const char* not_empty = "Native ownership requires an ordinary empty private file";
constexpr const char* no_parents = "Native ownership requires ordinary existing parents";
constexpr const char* unbounded = "Native ownership requires a bounded lock path and known sharing";

static_assert(!std::is_copy_constructible_v<FileLock> && !std::is_copy_assignable_v<FileLock>);
static_assert(!std::is_copy_constructible_v<NativeFileLock> && !std::is_copy_assignable_v<NativeFileLock>);

std::uint32_t mode_of(const std::filesystem::path& path) {
  const auto status = link_status_of(path);
  return status ? status->permissions : 0;
}

FileLock take(const std::filesystem::path& path, LockMode mode = LockMode::exclusive) { return {path, false, mode}; }

NativeFileLock own(const std::filesystem::path& path, LockMode mode = LockMode::exclusive, bool create = true) {
  return {path, create, NativeLockSharing::none, mode};
}

class Locks : public ::testing::Test {
 protected:
  // A link in a directory that others may write to is never the system's own, whoever made it.
  void let_others_write() { ASSERT_EQ(chmod(root_.path().c_str(), 0777), 0); }

  std::filesystem::path file(const std::string& name, const std::string& content, mode_t mode) {
    const auto path = root_.write(name, content);
    EXPECT_EQ(chmod(path.c_str(), mode), 0);
    return path;
  }

  TemporaryRoot root_;
};

using FileLocks = Locks;
using NativeFileLocks = Locks;

TEST_F(FileLocks, MakeThePrivateDirectoryAndAnEmptyPrivateFile) {
  const auto lock = take(root_ / "state/inner/lock");
  EXPECT_EQ(root_.names(), (std::vector<std::string>{"state/", "state/inner/", "state/inner/lock"}));
  EXPECT_EQ(mode_of(root_ / "state"), 0700u);
  EXPECT_EQ(mode_of(root_ / "state/inner"), 0700u);
  EXPECT_EQ(mode_of(root_ / "state/inner/lock"), 0600u);
  EXPECT_EQ(root_.read("state/inner/lock"), "");
}

TEST_F(FileLocks, MakeAFileOfExactModeUnderAnyMask) {
  const mode_t before = umask(0277);
  EXPECT_NO_THROW(take(root_ / "lock"));
  umask(before);
  EXPECT_EQ(mode_of(root_ / "lock"), 0600u);
}

TEST_F(FileLocks, ExcludeAnotherExclusiveOneInTheSameProcess) {
  const auto lock = take(root_ / "lock");
  EXPECT_FAILURE(take(root_ / "lock"), "busy", in_use);
}

TEST_F(FileLocks, CoexistWhenShared) {
  const auto first = take(root_ / "lock", LockMode::shared);
  const auto second = take(root_ / "lock", LockMode::shared);
  EXPECT_TRUE(first.matches_path(root_ / "lock"));
  EXPECT_TRUE(second.matches_path(root_ / "lock"));
}

TEST_F(FileLocks, SharedAndExclusiveExcludeEachOther) {
  {
    const auto shared = take(root_ / "lock", LockMode::shared);
    EXPECT_FAILURE(take(root_ / "lock", LockMode::exclusive), "busy", in_use);
  }
  const auto exclusive = take(root_ / "lock", LockMode::exclusive);
  EXPECT_FAILURE(take(root_ / "lock", LockMode::shared), "busy", in_use);
}

TEST_F(FileLocks, AreFreeAgainWhenTheirObjectEnds) {
  { const auto lock = take(root_ / "lock"); }
  EXPECT_NO_THROW(take(root_ / "lock"));
  EXPECT_TRUE(std::filesystem::exists(root_ / "lock"));
}

TEST_F(FileLocks, AreFreeAgainAfterARefusal) {
  {
    const auto shared = take(root_ / "lock", LockMode::shared);
    EXPECT_FAILURE(take(root_ / "lock"), "busy", in_use);
  }
  EXPECT_NO_THROW(take(root_ / "lock"));
}

TEST_F(FileLocks, MoveWithTheirObject) {
  auto first = take(root_ / "lock");
  const auto second = std::move(first);
  EXPECT_TRUE(second.matches_path(root_ / "lock"));
  EXPECT_FAILURE(take(root_ / "lock"), "busy", in_use);
}

TEST_F(FileLocks, AcceptAFileThatHoldsSomethingAndLeaveIt) {
  file("lock", "content", 0600);
  EXPECT_TRUE(take(root_ / "lock").matches_path(root_ / "lock"));
  EXPECT_EQ(root_.read("lock"), "content");
}

TEST_F(FileLocks, RefuseEveryModeBut0600AndLeaveIt) {
  for (const mode_t mode : {0640u, 0604u, 0700u, 04600u, 02600u, 01600u}) {
    file("lock", "", mode);
    EXPECT_FAILURE(take(root_ / "lock"), "lock_failed", not_ordinary) << std::oct << mode;
    EXPECT_EQ(mode_of(root_ / "lock"), mode);
  }
}

TEST_F(FileLocks, RefuseAFileThatTheyCannotOpen) {
  if (testing::is_root()) {
    GTEST_SKIP() << "user 0 can open every file";
  }
  file("lock", "", 0400);
  EXPECT_FAILURE(take(root_ / "lock"), "lock_failed", not_opened);
}

TEST_F(FileLocks, RefuseASecondHardLink) {
  file("lock", "", 0600);
  std::filesystem::create_hard_link(root_ / "lock", root_ / "second");
  EXPECT_FAILURE(take(root_ / "lock"), "lock_failed", not_ordinary);
}

TEST_F(FileLocks, RefuseALinkInPlaceOfTheFile) {
  file("real", "", 0600);
  std::filesystem::create_symlink("real", root_ / "lock");
  std::filesystem::create_symlink("nowhere", root_ / "dangling");
  EXPECT_FAILURE(take(root_ / "lock"), "lock_failed", not_opened);
  EXPECT_FAILURE(take(root_ / "dangling"), "lock_failed", not_opened);
  EXPECT_FALSE(std::filesystem::exists(root_ / "nowhere"));
}

TEST_F(FileLocks, RefuseWhatIsNoRegularFile) {
  root_.directory("directory");
  ASSERT_EQ(mkfifo((root_ / "fifo").c_str(), 0600), 0);
  EXPECT_FAILURE(take(root_ / "directory"), "lock_failed", not_opened);
  EXPECT_FAILURE(take(root_ / "fifo"), "lock_failed", not_ordinary);
}

TEST_F(FileLocks, RefuseAFileOfAnotherUser) {
  if (!testing::is_root()) {
    GTEST_SKIP() << "only user 0 can give a file away";
  }
  ASSERT_EQ(chown(file("lock", "", 0600).c_str(), 1000, 1000), 0);
  EXPECT_FAILURE(take(root_ / "lock"), "lock_failed", not_ordinary);
}

TEST_F(FileLocks, RefuseAPathThatNamesNoFile) {
  EXPECT_FAILURE(take(root_ / "state/"), "lock_failed", not_opened);
  EXPECT_FAILURE(take(root_ / "state/."), "lock_failed", not_opened);
  EXPECT_FAILURE(take(root_ / "state/.."), "lock_failed", not_opened);
  EXPECT_FAILURE(take((root_ / "lock").native() + std::string("\0x", 2)), "lock_failed", not_opened);
  EXPECT_FAILURE(take(root_ / std::string(256, 'x')), "lock_failed", not_opened);
  EXPECT_EQ(root_.names(), (std::vector<std::string>{"state/"}));
}

TEST_F(FileLocks, RefuseADirectoryReachedThroughALink) {
  root_.directory("real");
  let_others_write();
  std::filesystem::create_symlink("real", root_ / "link");
  EXPECT_FAILURE(take(root_ / "link/lock"), "unsafe_path",
                 std::string(os::system_name()) + " directory ancestry is missing or linked");
  EXPECT_TRUE(std::filesystem::is_empty(root_ / "real"));
}

TEST_F(FileLocks, MatchTheirPathOnlyWhileItsFileIsThatOfTheLock) {
  const auto lock = take(root_ / "lock");
  EXPECT_TRUE(lock.matches_path(root_ / "lock"));
  std::filesystem::rename(root_ / "lock", root_ / "away");
  EXPECT_FALSE(lock.matches_path(root_ / "lock"));
  EXPECT_TRUE(lock.matches_path(root_ / "away"));
  file("lock", "", 0600);
  EXPECT_FALSE(lock.matches_path(root_ / "lock"));
}

TEST_F(FileLocks, DoNotMatchAPathOnceTheirFileIsNotPrivate) {
  const auto lock = take(root_ / "lock");
  ASSERT_EQ(chmod((root_ / "lock").c_str(), 0640), 0);
  EXPECT_FALSE(lock.matches_path(root_ / "lock"));
  ASSERT_EQ(chmod((root_ / "lock").c_str(), 0600), 0);
  std::filesystem::create_hard_link(root_ / "lock", root_ / "second");
  EXPECT_FALSE(lock.matches_path(root_ / "lock"));
  std::filesystem::remove(root_ / "second");
  EXPECT_TRUE(lock.matches_path(root_ / "lock"));
}

TEST_F(FileLocks, DoNotMatchALinkToTheirFileOrNoPathAtAll) {
  const auto lock = take(root_ / "lock");
  std::filesystem::create_symlink("lock", root_ / "link");
  EXPECT_FALSE(lock.matches_path(root_ / "link"));
  EXPECT_FALSE(lock.matches_path(""));
  EXPECT_FALSE(lock.matches_path(root_.path()));
  EXPECT_FALSE(lock.matches_path("/" + std::string(4096, 'x')));
}

TEST_F(FileLocks, MatchARelativePath) {
  std::optional<testing::WorkingDirectory> working(std::in_place, root_.path());
  EXPECT_FAILURE(take("lock"), "unsafe_path", "Linux private directory needs a bounded path below a root");
  const auto lock = take("./lock");
  EXPECT_TRUE(lock.matches_path("lock"));
  working.reset();
  EXPECT_TRUE(lock.matches_path(root_ / "lock"));
}

TEST_F(FileLocks, RetainedForTheProcessStayHeldAndMatchNothing) {
  {
    auto lock = take(root_ / "lock");
    lock.retain_until_process_exit();
    EXPECT_FALSE(lock.matches_path(root_ / "lock"));
  }
  EXPECT_FAILURE(take(root_ / "lock"), "busy", in_use);
}

TEST_F(FileLocks, RetainedByAProcessEndWithIt) {
  Companion companion(RAVOK_LOCK_COMPANION, {"retain", root_ / "lock"});
  ASSERT_EQ(companion.read_line(), "held");
  EXPECT_FAILURE(take(root_ / "lock"), "busy", in_use);
  companion.close_input();
  EXPECT_EQ(companion.wait(), 0);
  EXPECT_NO_THROW(take(root_ / "lock"));
}

TEST_F(FileLocks, ExcludeAnotherProcess) {
  Companion companion(RAVOK_LOCK_COMPANION, {"hold", root_ / "lock", "exclusive"});
  ASSERT_EQ(companion.read_line(), "held");
  EXPECT_FAILURE(take(root_ / "lock"), "busy", in_use);
  EXPECT_FAILURE(take(root_ / "lock", LockMode::shared), "busy", in_use);
}

TEST_F(FileLocks, OfAKilledProcessAreFreeAtOnce) {
  Companion companion(RAVOK_LOCK_COMPANION, {"hold", root_ / "lock", "exclusive"});
  ASSERT_EQ(companion.read_line(), "held");
  companion.send_signal(SIGKILL);
  EXPECT_EQ(companion.wait(), -SIGKILL);
  EXPECT_NO_THROW(take(root_ / "lock"));
}

TEST_F(FileLocks, WaitUntilTheHolderIsDone) {
  std::optional<FileLock> lock(take(root_ / "lock"));
  Companion companion(RAVOK_LOCK_COMPANION, {"wait", root_ / "lock", root_ / "note"});
  ASSERT_EQ(companion.read_line(), "waiting");
  root_.write("note", "done");
  lock.reset();
  EXPECT_EQ(companion.read_line(), "done");
  EXPECT_EQ(companion.wait(), 0);
}

TEST_F(FileLocks, HaveOneExclusiveHolderThroughAThousandContendedRounds) {
  constexpr int rounds = 500;
  root_.write("counter", "0");
  const std::vector<std::string> arguments = {"count", root_ / "lock", root_.path(), std::to_string(rounds)};
  Companion first(RAVOK_LOCK_COMPANION, arguments);
  Companion second(RAVOK_LOCK_COMPANION, arguments);
  EXPECT_EQ(first.wait(), 0) << first.read_line();
  EXPECT_EQ(second.wait(), 0) << second.read_line();
  EXPECT_EQ(root_.read("counter"), std::to_string(2 * rounds));
  EXPECT_EQ(root_.names(), (std::vector<std::string>{"counter", "lock"}));
}

TEST_F(NativeFileLocks, MakeAnEmptyPrivateFileInADirectoryThatNeedNotBePrivate) {
  root_.directory("place");
  ASSERT_EQ(chmod((root_ / "place").c_str(), 0755), 0);
  const auto lock = own(root_ / "place/lock");
  EXPECT_EQ(mode_of(root_ / "place/lock"), 0600u);
  EXPECT_EQ(root_.read("place/lock"), "");
  EXPECT_EQ(mode_of(root_ / "place"), 0755u);
}

TEST_F(NativeFileLocks, MakeNoFileUnlessTheyAreTo) {
  EXPECT_FAILURE(own(root_ / "lock", LockMode::exclusive, false), "lock_failed", not_empty);
  EXPECT_TRUE(root_.names().empty());
}

TEST_F(NativeFileLocks, OpenTheMarkerThatAnInstallerMade) {
  file("lock", "", 0600);
  EXPECT_TRUE(own(root_ / "lock", LockMode::exclusive, false).matches_path(root_ / "lock"));
  EXPECT_TRUE(own(root_ / "lock", LockMode::exclusive, true).matches_path(root_ / "lock"));
}

TEST_F(NativeFileLocks, MakeNoDirectory) {
  EXPECT_FAILURE(own(root_ / "missing/lock"), "lock_failed", no_parents);
  EXPECT_TRUE(root_.names().empty());
}

TEST_F(NativeFileLocks, RefuseAParentThatIsALinkOrAFile) {
  root_.directory("real/inner");
  file("file", "", 0600);
  let_others_write();
  std::filesystem::create_symlink("real", root_ / "link");
  for (const char* path : {"link/lock", "link/inner/lock", "file/lock"}) {
    EXPECT_FAILURE(own(root_ / path), "lock_failed", no_parents) << path;
  }
  EXPECT_EQ(root_.names(), (std::vector<std::string>{"file", "link@", "real/", "real/inner/"}));
}

TEST_F(NativeFileLocks, FollowALinkOfTheSystem) {
  if (!testing::is_root()) {
    GTEST_SKIP() << "only user 0 can make the system's links";
  }
  root_.directory("real");
  std::filesystem::create_symlink("real", root_ / "link");
  EXPECT_TRUE(own(root_ / "link/lock").matches_path(root_ / "real/lock"));
}

TEST_F(NativeFileLocks, RefuseALinkInPlaceOfTheFileWhoeverMadeIt) {
  file("real", "", 0600);
  std::filesystem::create_symlink("real", root_ / "lock");
  std::filesystem::create_symlink("nowhere", root_ / "dangling");
  EXPECT_FAILURE(own(root_ / "lock"), "lock_failed", not_empty);
  EXPECT_FAILURE(own(root_ / "dangling"), "lock_failed", not_empty);
  let_others_write();
  EXPECT_FAILURE(own(root_ / "lock"), "lock_failed", not_empty);
  EXPECT_FALSE(std::filesystem::exists(root_ / "nowhere"));
}

TEST_F(NativeFileLocks, WalkAtMost128Levels) {
  std::filesystem::path path = root_.path();
  const auto relative = path.relative_path();
  for (auto level = std::distance(relative.begin(), relative.end()); level < 128; ++level) {
    path /= "d";
  }
  std::filesystem::create_directories(path / "d");
  EXPECT_NO_THROW(own(path / "lock"));
  EXPECT_FAILURE(own(path / "d/lock"), "lock_failed", no_parents);
}

TEST_F(NativeFileLocks, NeedABoundedPath) {
  for (const std::string& path : {std::string(), "/" + std::string(4096, 'x'), std::string("/tmp/a\0b", 8)}) {
    EXPECT_FAILURE(own(path), "lock_failed", unbounded);
  }
}

TEST_F(NativeFileLocks, KnowTwoSharingsAndTwoModes) {
  constexpr auto exclusive = LockMode::exclusive;
  EXPECT_NO_THROW(NativeFileLock(root_ / "lock", true, static_cast<NativeLockSharing>(0), exclusive));
  EXPECT_NO_THROW(NativeFileLock(root_ / "lock", true, static_cast<NativeLockSharing>(1), exclusive));
  for (const int unknown : {-1, 2}) {
    EXPECT_FAILURE(NativeFileLock(root_ / "new", true, static_cast<NativeLockSharing>(unknown), exclusive),
                   "lock_failed", unbounded);
    EXPECT_FAILURE(own(root_ / "new", static_cast<LockMode>(unknown)), "lock_failed", unbounded);
  }
  EXPECT_EQ(root_.names(), (std::vector<std::string>{"lock"}));
}

TEST_F(NativeFileLocks, RefuseWhatIsNoEmptyPrivateFile) {
  file("filled", "x", 0600);
  file("linked", "", 0600);
  std::filesystem::create_hard_link(root_ / "linked", root_ / "second");
  root_.directory("directory");
  ASSERT_EQ(mkfifo((root_ / "fifo").c_str(), 0600), 0);
  for (const char* name : {"filled", "linked", "directory", "fifo", "", "."}) {
    EXPECT_FAILURE(own(root_.path() / name), "lock_failed", not_empty) << name;
  }
  for (const mode_t mode : {0640u, 0604u, 0700u}) {
    file("lock", "", mode);
    EXPECT_FAILURE(own(root_ / "lock"), "lock_failed", not_empty) << std::oct << mode;
    EXPECT_EQ(mode_of(root_ / "lock"), mode);
  }
  EXPECT_EQ(root_.read("filled"), "x");
}

TEST_F(NativeFileLocks, RefuseAFileOfAnotherUser) {
  if (!testing::is_root()) {
    GTEST_SKIP() << "only user 0 can give a file away";
  }
  ASSERT_EQ(chown(file("lock", "", 0600).c_str(), 1000, 1000), 0);
  EXPECT_FAILURE(own(root_ / "lock"), "lock_failed", not_empty);
}

TEST_F(NativeFileLocks, ExcludeAnotherExclusiveOneInTheSameProcess) {
  const auto lock = own(root_ / "lock");
  EXPECT_FAILURE(own(root_ / "lock"), "busy", owned);
}

TEST_F(NativeFileLocks, CoexistWhenSharedAndExcludeAnExclusiveOne) {
  const auto first = own(root_ / "lock", LockMode::shared);
  const auto second = own(root_ / "lock", LockMode::shared);
  EXPECT_FAILURE(own(root_ / "lock", LockMode::exclusive), "busy", owned);
}

TEST_F(NativeFileLocks, ExcludeASharedOneWhenExclusive) {
  const auto lock = own(root_ / "lock", LockMode::exclusive);
  EXPECT_FAILURE(own(root_ / "lock", LockMode::shared), "busy", owned);
}

TEST_F(NativeFileLocks, AreFreeAgainWhenTheirObjectEnds) {
  { const auto lock = own(root_ / "lock"); }
  EXPECT_NO_THROW(own(root_ / "lock"));
  EXPECT_TRUE(std::filesystem::exists(root_ / "lock"));
}

TEST_F(NativeFileLocks, ExcludeAnOperationLockOnTheSameFile) {
  const auto lock = own(root_ / "lock");
  EXPECT_FAILURE(take(root_ / "lock"), "busy", in_use);
}

TEST_F(NativeFileLocks, ExcludeAnotherProcessUntilItIsKilled) {
  Companion companion(RAVOK_LOCK_COMPANION, {"hold-native", root_ / "lock", "exclusive"});
  ASSERT_EQ(companion.read_line(), "held");
  EXPECT_FAILURE(own(root_ / "lock"), "busy", owned);
  companion.send_signal(SIGKILL);
  EXPECT_EQ(companion.wait(), -SIGKILL);
  EXPECT_NO_THROW(own(root_ / "lock"));
}

TEST_F(NativeFileLocks, ShareBetweenProcesses) {
  Companion companion(RAVOK_LOCK_COMPANION, {"hold-native", root_ / "lock", "shared"});
  ASSERT_EQ(companion.read_line(), "held");
  EXPECT_NO_THROW(own(root_ / "lock", LockMode::shared));
  EXPECT_FAILURE(own(root_ / "lock", LockMode::exclusive), "busy", owned);
}

TEST_F(NativeFileLocks, MatchTheirPathOnlyWhileItsFileIsThatOfTheLock) {
  root_.directory("place");
  const auto lock = own(root_ / "place/lock");
  EXPECT_TRUE(lock.matches_path(root_ / "place/lock"));
  std::filesystem::rename(root_ / "place/lock", root_ / "place/away");
  EXPECT_FALSE(lock.matches_path(root_ / "place/lock"));
  EXPECT_TRUE(lock.matches_path(root_ / "place/away"));
  file("place/lock", "", 0600);
  EXPECT_FALSE(lock.matches_path(root_ / "place/lock"));
}

TEST_F(NativeFileLocks, DoNotMatchOnceTheDirectoryWasMovedOrLinked) {
  root_.directory("place");
  let_others_write();
  const auto lock = own(root_ / "place/lock");
  std::filesystem::rename(root_ / "place", root_ / "away");
  EXPECT_FALSE(lock.matches_path(root_ / "place/lock"));
  std::filesystem::create_symlink("away", root_ / "place");
  EXPECT_FALSE(lock.matches_path(root_ / "place/lock"));
}

TEST_F(NativeFileLocks, DoNotMatchOnceTheirFileIsNoEmptyPrivateFile) {
  const auto lock = own(root_ / "lock");
  ASSERT_EQ(chmod((root_ / "lock").c_str(), 0640), 0);
  EXPECT_FALSE(lock.matches_path(root_ / "lock"));
  file("lock", "x", 0600);
  EXPECT_FALSE(lock.matches_path(root_ / "lock"));
  file("lock", "", 0600);
  EXPECT_TRUE(lock.matches_path(root_ / "lock"));
  std::filesystem::create_hard_link(root_ / "lock", root_ / "second");
  EXPECT_FALSE(lock.matches_path(root_ / "lock"));
}

TEST_F(NativeFileLocks, DoNotMatchAPathBeyondTheirBounds) {
  const auto lock = own(root_ / "lock");
  EXPECT_FALSE(lock.matches_path(""));
  EXPECT_FALSE(lock.matches_path("/" + std::string(4096, 'x')));
  EXPECT_FALSE(lock.matches_path((root_ / "lock").native() + std::string("\0", 1)));
}

TEST_F(NativeFileLocks, MatchNothingOnceReleasedByAMove) {
  auto first = own(root_ / "lock");
  const auto second = std::move(first);
  // NOLINTNEXTLINE(bugprone-use-after-move): what the move leaves is what is asked for
  EXPECT_FALSE(first.matches_path(root_ / "lock"));
  EXPECT_TRUE(second.matches_path(root_ / "lock"));
}

}  // namespace
}  // namespace ravok::native_lock_test
