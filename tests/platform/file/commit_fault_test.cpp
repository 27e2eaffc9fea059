// An exchange whose system calls fail, or whose directories others change meanwhile. The linker leads those calls
// through the functions below.

#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/file/atomic_commit.hpp"
#include "platform/file/status.hpp"
#include "support/failure.hpp"
#include "support/temporary_root.hpp"

namespace {

struct Spoiler {
  std::vector<ravok::Status> flushed;
  std::size_t failing_flush = 0;  // the number of the flush that fails, from 1
  int failing_rename = 0;         // the error that a rename gives, or 0
  std::function<void()> before_rename;
  std::function<void()> after_rename;
};

Spoiler spoiler;

}  // namespace

extern "C" {

int __real_fsync(int descriptor);
int __real_renameat2(int from_parent, const char* from, int to_parent, const char* to, unsigned int flags);
int __wrap_fsync(int descriptor);
int __wrap_renameat2(int from_parent, const char* from, int to_parent, const char* to, unsigned int flags);

int __wrap_fsync(int descriptor) {
  spoiler.flushed.push_back(*ravok::status_of(descriptor));
  if (spoiler.flushed.size() == spoiler.failing_flush) {
    errno = EIO;
    return -1;
  }
  return __real_fsync(descriptor);
}

int __wrap_renameat2(int from_parent, const char* from, int to_parent, const char* to, unsigned int flags) {
  if (spoiler.failing_rename != 0) {
    errno = spoiler.failing_rename;
    return -1;
  }
  if (spoiler.before_rename) {
    spoiler.before_rename();
  }
  const int result = __real_renameat2(from_parent, from, to_parent, to, flags);
  if (spoiler.after_rename) {
    spoiler.after_rename();
  }
  return result;
}

}  // extern "C"

namespace ravok {
namespace {

using testing::TemporaryRoot;
using Path = std::filesystem::path;

constexpr const char* not_flushed = "Cannot synchronize exchanged native directories";
constexpr const char* committed_changed =
    "Native directory exchange committed with changed ownership; recover its recorded identities";

class CommitFaults : public ::testing::Test {
 protected:
  CommitFaults() {
    spoiler = {};
    for (const char* name : {"left", "right", "left/a", "right/b"}) {
      EXPECT_EQ(chmod(root_.directory(name).c_str(), 0700), 0);
    }
    root_.write("left/a/token", "A");
    root_.write("right/b/token", "B");
  }
  ~CommitFaults() override { spoiler = {}; }

  void exchange() const { exchange_private_directories(root_ / "left/a", root_ / "right/b", {}); }

  void expect_exchanged() const {
    EXPECT_EQ(root_.read("left/a/token"), "B");
    EXPECT_EQ(root_.read("right/b/token"), "A");
  }

  void expect_untouched() const {
    EXPECT_EQ(root_.read("left/a/token"), "A");
    EXPECT_EQ(root_.read("right/b/token"), "B");
    EXPECT_TRUE(spoiler.flushed.empty());
  }

  TemporaryRoot root_;
};

TEST_F(CommitFaults, AnExchangeFlushesTheFirstParentAndThenTheSecond) {
  exchange();
  ASSERT_EQ(spoiler.flushed.size(), 2u);
  EXPECT_TRUE(same_file(spoiler.flushed[0], *link_status_of(root_ / "left")));
  EXPECT_TRUE(same_file(spoiler.flushed[1], *link_status_of(root_ / "right")));
}

TEST_F(CommitFaults, ACommitFlushesNothing) {
  commit_private_path_new(root_ / "left/a", root_ / "right/new", {});
  EXPECT_TRUE(spoiler.flushed.empty());
}

TEST_F(CommitFaults, AnExchangeThatCannotBeFlushedSaysSoAndIsDone) {
  for (const std::size_t failing : {1u, 2u}) {
    spoiler = {};
    spoiler.failing_flush = failing;
    EXPECT_FAILURE(exchange(), "file_sync", not_flushed) << failing;
    EXPECT_EQ(spoiler.flushed.size(), failing);
    expect_exchanged();
    spoiler = {};
    exchange();
  }
}

TEST_F(CommitFaults, AnExchangeThatCannotBeDoneLeavesBoth) {
  spoiler.failing_rename = EIO;
  EXPECT_FAILURE(exchange(), "native_install_commit", "Cannot atomically exchange native directories");
  expect_untouched();
}

TEST_F(CommitFaults, ACommitTellsAnExistingDestinationFromEveryOtherFailure) {
  constexpr const char* not_installed = "Cannot atomically install without replacing an existing destination";
  const auto commit = [&] { commit_private_path_new(root_ / "left/a", root_ / "right/new", {}); };
  spoiler.failing_rename = EEXIST;
  EXPECT_FAILURE(commit(), "already_installed", not_installed);
  for (const int problem : {EIO, ENOTEMPTY, EINVAL, ENOSYS, EINTR}) {
    spoiler.failing_rename = problem;
    EXPECT_FAILURE(commit(), "native_install_commit", not_installed) << problem;
  }
  expect_untouched();
}

TEST_F(CommitFaults, AnExchangeOfWhatWasReplacedAtTheLastMomentIsReported) {
  spoiler.before_rename = [&] {
    std::filesystem::rename(root_ / "right/b", root_ / "right/away");
    EXPECT_EQ(chmod(root_.directory("right/b").c_str(), 0700), 0);
  };
  EXPECT_FAILURE(exchange(), "native_install_commit", committed_changed);
  EXPECT_EQ(root_.read("right/b/token"), "A");
  EXPECT_EQ(root_.read("right/away/token"), "B");
  EXPECT_TRUE(std::filesystem::is_empty(root_ / "left/a"));
}

TEST_F(CommitFaults, AnExchangeOfALinkAtTheLastMomentDoesNotFollowIt) {
  spoiler.before_rename = [&] {
    std::filesystem::rename(root_ / "right/b", root_ / "right/away");
    std::filesystem::create_symlink("away", root_ / "right/b");
  };
  EXPECT_FAILURE(exchange(), "native_install_commit", committed_changed);
  EXPECT_TRUE(std::filesystem::is_symlink(root_ / "left/a"));
  EXPECT_EQ(root_.read("right/b/token"), "A");
  EXPECT_EQ(root_.read("right/away/token"), "B");
}

TEST_F(CommitFaults, AnExchangeWhoseRootsChangeAfterItIsReported) {
  for (const char* name : {"left/a", "right/b"}) {
    spoiler.after_rename = [&] { EXPECT_EQ(chmod((root_ / name).c_str(), 0750), 0); };
    EXPECT_FAILURE(exchange(), "native_install_commit", committed_changed) << name;
    expect_exchanged();
    spoiler = {};
    EXPECT_EQ(chmod((root_ / name).c_str(), 0700), 0);
    exchange();
  }
}

TEST_F(CommitFaults, AnExchangeWhoseParentsMoveAfterItIsReported) {
  for (const std::string name : {"left", "right"}) {
    const Path parent = root_ / name;
    spoiler.after_rename = [&] {
      std::filesystem::rename(parent, root_ / "away");
      std::filesystem::create_symlink("away", parent);
    };
    EXPECT_FAILURE(exchange(), "native_install_commit", committed_changed) << name;
    spoiler = {};
    std::filesystem::remove(parent);
    std::filesystem::rename(root_ / "away", parent);
    expect_exchanged();
    exchange();
  }
}

}  // namespace
}  // namespace ravok
