// Locks that the system refuses, or whose file is replaced meanwhile. The linker leads the call through
// the function below.

#include <cerrno>
#include <functional>

#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>

#include "platform/file/native_lock.hpp"
#include "support/failure.hpp"
#include "support/temporary_root.hpp"

namespace {

int failing_lock = 0;   // the error that the call gives, or 0
int interruptions = 0;  // how many calls a signal interrupts first
std::function<void()> before_lock;

}  // namespace

extern "C" {

int __real_flock(int descriptor, int operation);
int __wrap_flock(int descriptor, int operation);

int __wrap_flock(int descriptor, int operation) {
  if (interruptions > 0) {
    --interruptions;
    errno = EINTR;
    return -1;
  }
  if (failing_lock != 0) {
    errno = failing_lock;
    return -1;
  }
  if (before_lock) {
    before_lock();
  }
  return __real_flock(descriptor, operation);
}

}  // extern "C"

namespace ravok {
namespace {

using testing::TemporaryRoot;

class LockFaults : public ::testing::Test {
 protected:
  ~LockFaults() override {
    failing_lock = 0;
    before_lock = nullptr;
  }

  NativeFileLock own() const { return {root_ / "place/lock", true, NativeLockSharing::none, LockMode::exclusive}; }

  void expect_noticed(const std::function<void()>& change) {
    before_lock = change;
    EXPECT_FAILURE(own(), "lock_failed", "Native ownership path changed while locking");
    before_lock = nullptr;
  }

  const TemporaryRoot root_;
  const std::filesystem::path place_ = root_.directory("place");
};

TEST_F(LockFaults, AnOperationLockIsBusyWhateverTheSystemSays) {
  for (const int problem : {EWOULDBLOCK, EIO, ENOLCK}) {
    for (const bool wait : {false, true}) {
      failing_lock = problem;
      EXPECT_FAILURE(FileLock(root_ / "lock", wait, LockMode::exclusive), "busy",
                     "Another Ravok operation is using this state");
      failing_lock = 0;
      EXPECT_TRUE(FileLock(root_ / "lock", wait, LockMode::exclusive).matches_path(root_ / "lock"));
    }
  }
}

TEST_F(LockFaults, ALockThatASignalInterruptsIsAskedForAgain) {
  for (const bool wait : {false, true}) {
    interruptions = 3;
    EXPECT_NO_THROW(FileLock(root_ / "lock", wait, LockMode::exclusive));
    EXPECT_EQ(interruptions, 0);
  }
  interruptions = 3;
  EXPECT_NO_THROW(own());
  EXPECT_EQ(interruptions, 0);
}

TEST_F(LockFaults, OwnershipTellsAnotherOwnerFromEveryOtherFailure) {
  failing_lock = EWOULDBLOCK;
  EXPECT_FAILURE(own(), "busy", "Another worker owns this native installation");
  for (const int problem : {EIO, ENOLCK, EINVAL}) {
    failing_lock = problem;
    EXPECT_FAILURE(own(), "lock_failed", "Cannot acquire native installation ownership") << problem;
  }
  failing_lock = 0;
  EXPECT_NO_THROW(own());
}

TEST_F(LockFaults, OwnershipOfAFileThatWasReplacedMeanwhileIsRefusedAndGivenUp) {
  const auto lock = root_ / "place/lock";
  expect_noticed([&] { std::filesystem::rename(lock, root_ / "away"); });
  EXPECT_NO_THROW(own());
  expect_noticed([&] {
    std::filesystem::remove(lock);
    std::filesystem::rename(root_ / "away", lock);
  });
  EXPECT_NO_THROW(own());
  expect_noticed([&] { std::filesystem::create_hard_link(lock, root_ / "second"); });
  std::filesystem::remove(root_ / "second");
  EXPECT_NO_THROW(own());
  expect_noticed([&] {
    std::filesystem::rename(lock, root_ / "away");
    std::filesystem::create_symlink("../away", lock);
  });
}

TEST_F(LockFaults, OwnershipOfAFileThatWasFilledMeanwhileIsRefused) {
  expect_noticed([&] { root_.write("place/lock", "x"); });
  EXPECT_EQ(root_.read("place/lock"), "x");
}

TEST_F(LockFaults, OwnershipInADirectoryThatWasReplacedMeanwhileIsRefused) {
  expect_noticed([&] {
    std::filesystem::rename(place_, root_ / "away");
    ASSERT_EQ(chmod(root_.write("place/lock", "").c_str(), 0600), 0);
  });
  EXPECT_EQ(root_.names(), (std::vector<std::string>{"away/", "away/lock", "place/", "place/lock"}));
}

}  // namespace
}  // namespace ravok
