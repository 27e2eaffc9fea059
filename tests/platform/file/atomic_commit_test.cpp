#include "platform/file/atomic_commit.hpp"

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "platform/file/status.hpp"
#include "platform/os.hpp"
#include "support/failure.hpp"
#include "support/second_volume.hpp"
#include "support/temporary_root.hpp"
#include "support/working_directory.hpp"

namespace ravok::atomic_commit_test {
namespace {

using testing::SecondVolume;
using testing::TemporaryRoot;
using Path = std::filesystem::path;

constexpr const char* not_distinct = "Directory commit requires distinct bounded paths";
constexpr const char* no_ancestry = "Directory commit requires ordinary existing ancestry";
constexpr const char* not_private = "Commit source must be private and owned by this user";
constexpr const char* source_changed = "Source identity changed during verification";
constexpr const char* not_installed = "Cannot atomically install without replacing an existing destination";

constexpr const char* exchange_not_distinct = "Directory exchange needs distinct bounded paths";
constexpr const char* exchange_not_private = "Directory exchange requires private owned roots and parents";
constexpr const char* one_volume = "Directory exchange requires distinct roots on one volume";
constexpr const char* identities_changed = "Directory exchange identities changed during verification";
constexpr const char* not_exchanged = "Cannot atomically exchange native directories";

const std::string foreign_access =
    "Existing " + std::string(os::system_name()) + " storage grants another identity access; preserve it";

struct HookFailure : std::runtime_error {
  HookFailure() : std::runtime_error("hook") {}
};

class CommitTest : public ::testing::Test {
 protected:
  Path file(const std::string& name, const std::string& content, mode_t mode = 0600) {
    const Path path = root_.write(name, content);
    EXPECT_EQ(chmod(path.c_str(), mode), 0);
    return path;
  }
  Path directory(const std::string& name, mode_t mode = 0700) {
    const Path path = root_.directory(name);
    EXPECT_EQ(chmod(path.c_str(), mode), 0);
    return path;
  }
  Path link(const std::string& name, const std::string& target) {
    std::filesystem::create_symlink(target, root_ / name);
    return root_ / name;
  }
  // A link in a directory that others may write to is never the system's own, whoever made it.
  void let_others_write() { ASSERT_EQ(chmod(root_.path().c_str(), 0777), 0); }

  // Grants another user access to a node, or skips where the volume has no access lists.
  void grant_another_user(const Path& path) {
    const std::string list(
        "\2\0\0\0"
        "\1\0\7\0\377\377\377\377"
        "\2\0\4\0\160\21\1\0"
        "\4\0\0\0\377\377\377\377"
        "\20\0\0\0\377\377\377\377"
        "\40\0\0\0\377\377\377\377",
        44);
    if (setxattr(path.c_str(), "system.posix_acl_access", list.data(), list.size(), 0) != 0) {
      GTEST_SKIP() << "the volume has no access lists";
    }
  }

  TemporaryRoot root_;
};

// --- Commit --------------------------------------------------------------------------------

using CommitPrivatePathNew = CommitTest;

TEST_F(CommitPrivatePathNew, MovesADirectoryWithAllThatItHolds) {
  directory("source");
  file("source/inner/file", "content");
  commit_private_path_new(root_ / "source", root_ / "place", {});
  EXPECT_EQ(root_.names(), (std::vector<std::string>{"place/", "place/inner/", "place/inner/file"}));
  EXPECT_EQ(root_.read("place/inner/file"), "content");
}

TEST_F(CommitPrivatePathNew, MovesAFileAndKeepsItsIdentity) {
  const auto before = link_status_of(file("source", "content"));
  directory("inner");
  commit_private_path_new(root_ / "source", root_ / "inner/place", {});
  const auto after = link_status_of(root_ / "inner/place");
  ASSERT_TRUE(before && after);
  EXPECT_TRUE(same_file(*before, *after));
  EXPECT_EQ(after->permissions, 0600u);
  EXPECT_EQ(root_.names(), (std::vector<std::string>{"inner/", "inner/place"}));
}

TEST_F(CommitPrivatePathNew, TakesParentsThatAreNotPrivate) {
  directory("from", 0755);
  directory("to", 0755);
  directory("from/source");
  EXPECT_NO_THROW(commit_private_path_new(root_ / "from/source", root_ / "to/place", {}));
  EXPECT_EQ(root_.names(), (std::vector<std::string>{"from/", "to/", "to/place/"}));
}

TEST_F(CommitPrivatePathNew, TakesRelativePathsDotsAndSeparatorsAtTheEnd) {
  const testing::WorkingDirectory working(root_.path());
  directory("source");
  EXPECT_NO_THROW(commit_private_path_new("./source/", "other/../place/", {}));
  EXPECT_EQ(root_.names(), (std::vector<std::string>{"place/"}));
}

TEST_F(CommitPrivatePathNew, NeverReplacesADestination) {
  file("source", "new");
  directory("empty");
  file("file", "old");
  let_others_write();
  link("dangling", "nowhere");
  for (const char* name : {"empty", "file", "dangling"}) {
    EXPECT_FAILURE(commit_private_path_new(root_ / "source", root_ / name, {}), "already_installed", not_installed)
        << name;
  }
  EXPECT_EQ(root_.names(), (std::vector<std::string>{"dangling@", "empty/", "file", "source"}));
  EXPECT_EQ(root_.read("source"), "new");
  EXPECT_EQ(root_.read("file"), "old");
}

TEST_F(CommitPrivatePathNew, RunsTheHookBeforeTheStep) {
  directory("source");
  bool was_there = false;
  commit_private_path_new(root_ / "source", root_ / "place", [&] {
    was_there = std::filesystem::exists(root_ / "source") && !std::filesystem::exists(root_ / "place");
  });
  EXPECT_TRUE(was_there);
}

TEST_F(CommitPrivatePathNew, MovesNothingWhenTheHookThrows) {
  directory("source");
  EXPECT_THROW(commit_private_path_new(root_ / "source", root_ / "place", [] { throw HookFailure(); }), HookFailure);
  EXPECT_EQ(root_.names(), (std::vector<std::string>{"source/"}));
}

TEST_F(CommitPrivatePathNew, NeedsDistinctBoundedPathsBelowARoot) {
  const Path source = directory("source");
  const Path beyond = "/" + std::string(4096, 'x');
  const Path with_nul = source.native() + std::string("\0x", 2);
  const std::vector<std::pair<Path, Path>> refused = {{"", root_ / "place"},
                                                      {source, ""},
                                                      {"/", root_ / "place"},
                                                      {source, "/"},
                                                      {source, source},
                                                      {source, root_ / "./source/"},
                                                      {beyond, root_ / "place"},
                                                      {source, beyond},
                                                      {with_nul, root_ / "place"},
                                                      {source, with_nul}};
  for (const auto& paths : refused) {
    EXPECT_FAILURE(commit_private_path_new(paths.first, paths.second, {}), "unsafe_path", not_distinct)
        << paths.first << paths.second;
  }
  EXPECT_EQ(root_.names(), (std::vector<std::string>{"source/"}));
}

TEST_F(CommitPrivatePathNew, NeedsExistingParentsThatAreNoLinks) {
  const Path source = directory("source");
  directory("real/inner");
  file("file", "x");
  let_others_write();
  link("link", "real");
  for (const char* place : {"missing/place", "file/place", "link/place", "link/inner/place"}) {
    EXPECT_FAILURE(commit_private_path_new(source, root_ / place, {}), "unsafe_path", no_ancestry) << place;
    EXPECT_FAILURE(commit_private_path_new(root_ / place, root_ / "new", {}), "unsafe_path", no_ancestry) << place;
  }
  EXPECT_EQ(root_.names(), (std::vector<std::string>{"file", "link@", "real/", "real/inner/", "source/"}));
}

TEST_F(CommitPrivatePathNew, FollowsALinkOfTheSystem) {
  if (!testing::is_root()) {
    GTEST_SKIP() << "only user 0 can make the system's links";
  }
  directory("source");
  directory("real");
  link("link", "real");
  commit_private_path_new(root_ / "source", root_ / "link/place", {});
  EXPECT_EQ(root_.names(), (std::vector<std::string>{"link@", "real/", "real/place/"}));
}

TEST_F(CommitPrivatePathNew, PassesParentsThatItMayNotRead) {
  if (testing::is_root()) {
    GTEST_SKIP() << "user 0 may read every directory";
  }
  directory("closed/inner");
  directory("closed/inner/source");
  directory("closed", 0100);
  EXPECT_NO_THROW(commit_private_path_new(root_ / "closed/inner/source", root_ / "closed/inner/place", {}));
  directory("closed", 0700);
  EXPECT_TRUE(std::filesystem::exists(root_ / "closed/inner/place"));
}

TEST_F(CommitPrivatePathNew, RefusesASourceThatIsNotPrivate) {
  for (const mode_t mode : {0755u, 0701u, 0500u, 0600u}) {
    directory("directory", mode);
    EXPECT_FAILURE(commit_private_path_new(root_ / "directory", root_ / "place", {}), "native_install_commit",
                   not_private)
        << std::oct << mode;
  }
  for (const mode_t mode : {0644u, 0700u, 0400u}) {
    file("file", "", mode);
    EXPECT_FAILURE(commit_private_path_new(root_ / "file", root_ / "place", {}), "native_install_commit", not_private)
        << std::oct << mode;
    ASSERT_EQ(chmod((root_ / "file").c_str(), 0600), 0);
  }
  EXPECT_EQ(root_.names(), (std::vector<std::string>{"directory/", "file"}));
}

TEST_F(CommitPrivatePathNew, LooksAtNoSetIdOrStickyBitAndKeepsThem) {
  for (const mode_t bits : {01000u, 02000u, 04000u}) {
    commit_private_path_new(directory("source", bits | 0700), root_ / "place", {});
    EXPECT_EQ(link_status_of(root_ / "place")->permissions, bits | 0700) << std::oct << bits;
    std::filesystem::remove(root_ / "place");
    commit_private_path_new(file("source", "x", bits | 0600), root_ / "place", {});
    EXPECT_EQ(link_status_of(root_ / "place")->permissions, bits | 0600) << std::oct << bits;
    std::filesystem::remove(root_ / "place");
  }
  const Path source = directory("source");
  EXPECT_NO_THROW(
      commit_private_path_new(source, root_ / "place", [&] { ASSERT_EQ(chmod(source.c_str(), 01700), 0); }));
}

TEST_F(CommitPrivatePathNew, RefusesASourceWithASecondHardLink) {
  file("source", "x");
  std::filesystem::create_hard_link(root_ / "source", root_ / "second");
  EXPECT_FAILURE(commit_private_path_new(root_ / "source", root_ / "place", {}), "native_install_commit", not_private);
  EXPECT_EQ(root_.names(), (std::vector<std::string>{"second", "source"}));
}

TEST_F(CommitPrivatePathNew, RefusesALinkAMissingSourceAndASpecialFile) {
  directory("real");
  let_others_write();
  link("link", "real");
  ASSERT_EQ(mkfifo((root_ / "fifo").c_str(), 0600), 0);
  for (const char* name : {"link", "missing", "fifo"}) {
    EXPECT_FAILURE(commit_private_path_new(root_ / name, root_ / "place", {}), "native_install_commit", not_private)
        << name;
  }
  EXPECT_EQ(root_.names(), (std::vector<std::string>{"fifo", "link@", "real/"}));
}

TEST_F(CommitPrivatePathNew, RefusesASourceOfAnotherUser) {
  if (!testing::is_root()) {
    GTEST_SKIP() << "only user 0 can give a file away";
  }
  ASSERT_EQ(chown(directory("source").c_str(), 1000, 1000), 0);
  EXPECT_FAILURE(commit_private_path_new(root_ / "source", root_ / "place", {}), "native_install_commit", not_private);
}

TEST_F(CommitPrivatePathNew, RefusesForeignAccessBeforeAndAfterTheHook) {
  const Path source = directory("source");
  EXPECT_FAILURE(commit_private_path_new(source, root_ / "place",
                                         [&] {
                                           grant_another_user(source);
                                           // The list's mask shows as the group's permissions.
                                           ASSERT_EQ(link_status_of(source)->permissions, 0700u);
                                         }),
                 "permissions", foreign_access);
  if (IsSkipped()) {
    return;
  }
  bool ran = false;
  EXPECT_FAILURE(commit_private_path_new(source, root_ / "place", [&] { ran = true; }), "permissions", foreign_access);
  EXPECT_FALSE(ran);
  EXPECT_EQ(root_.names(), (std::vector<std::string>{"source/"}));
}

TEST_F(CommitPrivatePathNew, RefusesASourceThatTheHookReplaced) {
  const Path source = directory("source");
  const auto replace = [&](const auto& put) {
    return [&, put] {
      std::filesystem::rename(source, root_ / "away");
      put();
    };
  };
  const auto put_back = [&] {
    std::filesystem::remove_all(source);
    std::filesystem::rename(root_ / "away", source);
  };
  const std::vector<std::function<void()>> puts = {[] {}, [&] { directory("source"); }, [&] { file("source", ""); },
                                                   [&] { link("source", "away"); }};
  for (const auto& put : puts) {
    EXPECT_FAILURE(commit_private_path_new(source, root_ / "place", replace(put)), "native_install_commit",
                   source_changed);
    EXPECT_FALSE(std::filesystem::exists(root_ / "place"));
    put_back();
  }
}

TEST_F(CommitPrivatePathNew, RefusesASourceWhoseModeTheHookChanged) {
  const Path source = directory("source");
  EXPECT_FAILURE(commit_private_path_new(source, root_ / "place", [&] { ASSERT_EQ(chmod(source.c_str(), 0755), 0); }),
                 "native_install_commit", source_changed);
}

TEST_F(CommitPrivatePathNew, RefusesASourceThatTheHookGaveASecondName) {
  const Path source = file("source", "x");
  EXPECT_FAILURE(commit_private_path_new(source, root_ / "place",
                                         [&] { std::filesystem::create_hard_link(source, root_ / "second"); }),
                 "native_install_commit", source_changed);
}

TEST_F(CommitPrivatePathNew, RefusesASourceThatTheHookGaveAway) {
  if (!testing::is_root()) {
    GTEST_SKIP() << "only user 0 can give a file away";
  }
  const Path source = file("source", "x");
  EXPECT_FAILURE(
      commit_private_path_new(source, root_ / "place", [&] { ASSERT_EQ(chown(source.c_str(), 1000, 1000), 0); }),
      "native_install_commit", source_changed);
}

TEST_F(CommitPrivatePathNew, DoesNotFollowAParentOfTheSourceThatTheHookReplacedByALink) {
  directory("from");
  const Path source = directory("from/source");
  EXPECT_FAILURE(commit_private_path_new(source, root_ / "place",
                                         [&] {
                                           std::filesystem::rename(root_ / "from", root_ / "away");
                                           directory("other/source");
                                           link("from", "other");
                                         }),
                 "native_install_commit", source_changed);
  EXPECT_EQ(root_.names(), (std::vector<std::string>{"away/", "away/source/", "from@", "other/", "other/source/"}));
}

TEST_F(CommitPrivatePathNew, DoesNotFollowAParentOfTheDestinationThatTheHookReplacedByALink) {
  const Path source = directory("source");
  directory("to");
  directory("other");
  EXPECT_FAILURE(commit_private_path_new(source, root_ / "to/place",
                                         [&] {
                                           std::filesystem::rename(root_ / "to", root_ / "away");
                                           link("to", "other");
                                         }),
                 "native_install_commit", not_installed);
  EXPECT_EQ(root_.names(), (std::vector<std::string>{"away/", "other/", "source/", "to@"}));
}

TEST_F(CommitPrivatePathNew, FailsWhenTheHookMadeTheDestination) {
  const Path source = directory("source");
  EXPECT_FAILURE(commit_private_path_new(source, root_ / "place", [&] { directory("place"); }), "already_installed",
                 not_installed);
  EXPECT_EQ(root_.names(), (std::vector<std::string>{"place/", "source/"}));
}

TEST_F(CommitPrivatePathNew, FailsInsideTheSourceItself) {
  directory("source/inner");
  directory("source");
  EXPECT_FAILURE(commit_private_path_new(root_ / "source", root_ / "source/inner/place", {}), "native_install_commit",
                 not_installed);
  EXPECT_EQ(root_.names(), (std::vector<std::string>{"source/", "source/inner/"}));
}

TEST_F(CommitPrivatePathNew, DoesNotMoveToAnotherVolume) {
  const SecondVolume volume(root_.path());
  if (!volume) {
    GTEST_SKIP() << "there is no second volume here";
  }
  directory("source");
  EXPECT_FAILURE(commit_private_path_new(root_ / "source", volume.path() / "place", {}), "native_install_commit",
                 not_installed);
  EXPECT_EQ(root_.names(), (std::vector<std::string>{"source/"}));
  EXPECT_TRUE(std::filesystem::is_empty(volume.path()));
}

// --- Exchange ------------------------------------------------------------------------------

class ExchangePrivateDirectories : public CommitTest {
 protected:
  ExchangePrivateDirectories() {
    directory("left");
    directory("right");
    a_ = directory("left/a");
    b_ = directory("right/b");
    file("left/a/token", "A");
    file("right/b/token", "B");
  }

  // Neither directory has the other's content.
  void expect_nothing_exchanged() {
    EXPECT_EQ(root_.read("left/a/token"), "A");
    EXPECT_EQ(root_.read("right/b/token"), "B");
  }

  // Expects that the exchange fails with this message when the hook does `change`, and exchanges nothing. `undo` then
  // reverts the change.
  void expect_refusal_after(const std::function<void()>& change, const std::function<void()>& undo) {
    EXPECT_FAILURE(exchange_private_directories(a_, b_, change), "native_install_commit", identities_changed);
    undo();
    expect_nothing_exchanged();
  }

  std::function<void()> renames(const std::string& from, const std::string& to) {
    return [this, from, to] { std::filesystem::rename(root_ / from, root_ / to); };
  }

  Path a_;
  Path b_;
};

TEST_F(ExchangePrivateDirectories, SwapsTheContentOfTheTwo) {
  const auto a = link_status_of(a_);
  const auto b = link_status_of(b_);
  exchange_private_directories(a_, b_, {});
  EXPECT_EQ(root_.read("left/a/token"), "B");
  EXPECT_EQ(root_.read("right/b/token"), "A");
  EXPECT_TRUE(same_file(*link_status_of(a_), *b));
  EXPECT_TRUE(same_file(*link_status_of(b_), *a));
}

TEST_F(ExchangePrivateDirectories, SwapsTwoInOneParentAndBackAgain) {
  const Path c = directory("left/c");
  file("left/c/token", "C");
  exchange_private_directories(a_, c, {});
  EXPECT_EQ(root_.read("left/a/token"), "C");
  exchange_private_directories(a_, c, {});
  EXPECT_EQ(root_.read("left/a/token"), "A");
}

TEST_F(ExchangePrivateDirectories, TakesRelativePathsDotsAndSeparatorsAtTheEnd) {
  const testing::WorkingDirectory working(root_.path());
  EXPECT_NO_THROW(exchange_private_directories("left/./a/", "left/../right/b", {}));
  EXPECT_EQ(root_.read("left/a/token"), "B");
}

TEST_F(ExchangePrivateDirectories, RunsTheHookBeforeTheStep) {
  std::string seen;
  exchange_private_directories(a_, b_, [&] { seen = root_.read("left/a/token") + root_.read("right/b/token"); });
  EXPECT_EQ(seen, "AB");
}

TEST_F(ExchangePrivateDirectories, SwapsNothingWhenTheHookThrows) {
  EXPECT_THROW(exchange_private_directories(a_, b_, [] { throw HookFailure(); }), HookFailure);
  expect_nothing_exchanged();
}

TEST_F(ExchangePrivateDirectories, NeedsDistinctBoundedPathsBelowARoot) {
  const Path beyond = "/" + std::string(4096, 'x');
  const Path with_nul = b_.native() + std::string("\0x", 2);
  for (const Path& other : {Path(), Path("/"), a_, root_ / "left/./a/", beyond, with_nul}) {
    EXPECT_FAILURE(exchange_private_directories(a_, other, {}), "unsafe_path", exchange_not_distinct) << other;
    EXPECT_FAILURE(exchange_private_directories(other, a_, {}), "unsafe_path", exchange_not_distinct) << other;
  }
}

TEST_F(ExchangePrivateDirectories, RefusesARootAboveWhichALinkTakesThePlaceOfTheProbe) {
  link("right/b/exchange-ancestry", "nowhere");
  EXPECT_FAILURE(exchange_private_directories(a_, b_, {}), "unsafe_path", "Managed path contains a symbolic link");
  expect_nothing_exchanged();
}

TEST_F(ExchangePrivateDirectories, RefusesRootsAndParentsThatAreNotPrivate) {
  for (const char* name : {"left", "left/a", "right", "right/b"}) {
    for (const mode_t mode : {0755u, 0710u, 01700u, 02700u, 04700u}) {
      directory(name, mode);
      EXPECT_FAILURE(exchange_private_directories(a_, b_, {}), "native_install_commit", exchange_not_private)
          << name << std::oct << mode;
      EXPECT_FAILURE(exchange_private_directories(b_, a_, {}), "native_install_commit", exchange_not_private)
          << name << std::oct << mode;
    }
    directory(name);
  }
  expect_nothing_exchanged();
}

TEST_F(ExchangePrivateDirectories, RefusesRootsAndParentsOfAnotherUser) {
  if (!testing::is_root()) {
    GTEST_SKIP() << "only user 0 can give a directory away";
  }
  for (const char* name : {"left", "left/a", "right", "right/b"}) {
    ASSERT_EQ(chown((root_ / name).c_str(), 1000, 1000), 0);
    EXPECT_FAILURE(exchange_private_directories(a_, b_, {}), "native_install_commit", exchange_not_private) << name;
    ASSERT_EQ(chown((root_ / name).c_str(), 0, 0), 0);
  }
  expect_nothing_exchanged();
}

TEST_F(ExchangePrivateDirectories, RefusesWhatIsNoDirectory) {
  file("left/file", "");
  link("left/link", "a");
  for (const char* name : {"left/file", "left/link", "left/missing"}) {
    EXPECT_FAILURE(exchange_private_directories(root_ / name, b_, {}), "native_install_commit", exchange_not_private)
        << name;
    EXPECT_FAILURE(exchange_private_directories(b_, root_ / name, {}), "native_install_commit", exchange_not_private)
        << name;
  }
}

TEST_F(ExchangePrivateDirectories, RefusesAParentThatIsALink) {
  link("link", "left");
  EXPECT_FAILURE(exchange_private_directories(root_ / "link/a", b_, {}), "native_install_commit", exchange_not_private);
  EXPECT_FAILURE(exchange_private_directories(b_, root_ / "link/a", {}), "native_install_commit", exchange_not_private);
  expect_nothing_exchanged();
}

TEST_F(ExchangePrivateDirectories, RefusesOneDirectoryUnderTwoNames) {
  link("again", root_.path().filename());
  std::filesystem::rename(root_ / "again", root_.path().native() + ".again");
  const Path again = root_.path().native() + ".again/left/a";
  EXPECT_FAILURE(exchange_private_directories(a_, again, {}), "native_install_commit", one_volume);
  std::filesystem::remove(root_.path().native() + ".again");
  EXPECT_EQ(root_.read("left/a/token"), "A");
}

TEST_F(ExchangePrivateDirectories, RefusesTwoVolumes) {
  const SecondVolume volume(root_.path());
  if (!volume) {
    GTEST_SKIP() << "there is no second volume here";
  }
  const Path other = volume.path() / "other";
  std::filesystem::create_directory(other);
  ASSERT_EQ(chmod(other.c_str(), 0700), 0);
  bool ran = false;
  EXPECT_FAILURE(exchange_private_directories(a_, other, [&] { ran = true; }), "native_install_commit", one_volume);
  EXPECT_FALSE(ran);
  expect_nothing_exchanged();
}

TEST_F(ExchangePrivateDirectories, RefusesADirectoryWithOneInsideIt) {
  directory("left/a/inner");
  EXPECT_FAILURE(exchange_private_directories(a_, root_ / "left/a/inner", {}), "native_install_commit", not_exchanged);
  expect_nothing_exchanged();
}

TEST_F(ExchangePrivateDirectories, RefusesForeignAccessToAnyOfTheFourBeforeTheHook) {
  for (const char* name : {"left/a", "right/b", "left", "right"}) {
    grant_another_user(root_ / name);
    if (IsSkipped()) {
      return;
    }
    bool ran = false;
    EXPECT_FAILURE(exchange_private_directories(a_, b_, [&] { ran = true; }), "permissions", foreign_access) << name;
    EXPECT_FALSE(ran) << name;
    ASSERT_EQ(removexattr((root_ / name).c_str(), "system.posix_acl_access"), 0);
  }
  expect_nothing_exchanged();
}

TEST_F(ExchangePrivateDirectories, RefusesForeignAccessToAnyOfTheFourAfterTheHook) {
  for (const char* name : {"left/a", "right/b", "left", "right"}) {
    EXPECT_FAILURE(exchange_private_directories(a_, b_, [&] { grant_another_user(root_ / name); }), "permissions",
                   foreign_access)
        << name;
    if (IsSkipped()) {
      return;
    }
    ASSERT_EQ(removexattr((root_ / name).c_str(), "system.posix_acl_access"), 0);
  }
  expect_nothing_exchanged();
}

TEST_F(ExchangePrivateDirectories, RefusesARootThatTheHookReplaced) {
  for (const std::string name : {"left/a", "right/b"}) {
    const auto put_back = [&] {
      std::filesystem::remove_all(root_ / name);
      renames("away", name)();
    };
    expect_refusal_after(renames(name, "away"), put_back);
    expect_refusal_after(
        [&] {
          renames(name, "away")();
          directory(name);
        },
        put_back);
    expect_refusal_after(
        [&] {
          renames(name, "away")();
          link(name, root_ / "away");
        },
        put_back);
  }
}

TEST_F(ExchangePrivateDirectories, RefusesARootWhoseModeTheHookChanged) {
  for (const char* name : {"left/a", "right/b"}) {
    expect_refusal_after([&] { directory(name, 0750); }, [&] { directory(name); });
  }
}

TEST_F(ExchangePrivateDirectories, RefusesAParentThatTheHookReplaced) {
  for (const std::string name : {"left", "right"}) {
    const std::string child = name == "left" ? "a" : "b";
    // The same root under another parent of the same name.
    expect_refusal_after(
        [&] {
          renames(name, "away")();
          directory(name);
          renames("away/" + child, name + "/" + child)();
        },
        [&] {
          renames(name + "/" + child, "away/" + child)();
          std::filesystem::remove_all(root_ / name);
          renames("away", name)();
        });
    expect_refusal_after(
        [&] {
          renames(name, "away")();
          link(name, "away");
        },
        [&] {
          std::filesystem::remove(root_ / name);
          renames("away", name)();
        });
  }
}

TEST_F(ExchangePrivateDirectories, RefusesWhatTheHookAlreadyExchanged) {
  EXPECT_FAILURE(exchange_private_directories(a_, b_, [&] { exchange_private_directories(a_, b_, {}); }),
                 "native_install_commit", identities_changed);
  EXPECT_EQ(root_.read("left/a/token"), "B");
  EXPECT_EQ(root_.read("right/b/token"), "A");
}

TEST_F(ExchangePrivateDirectories, DoesNotAskForTheModeOfAParentAgain) {
  EXPECT_NO_THROW(exchange_private_directories(a_, b_, [&] { directory("left", 0750); }));
  EXPECT_EQ(root_.read("left/a/token"), "B");
}

}  // namespace
}  // namespace ravok::atomic_commit_test
