// Every failing call of reads and writes. The linker leads the calls through the wrappers below,
// which fail the one that a test names.

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>

#include <gtest/gtest.h>
#include <sys/types.h>
#include <unistd.h>

#include "platform/files.hpp"
#include "support/failure.hpp"
#include "support/temporary_root.hpp"

namespace {

std::string_view failing;
int failure_errno = 0;  // 0 makes a transfer answer that nothing more can be moved
int calls_before = 0;   // how many calls of that name go through first
int interruptions = 0;  // how many calls of that name are interrupted before they go through

bool fails(std::string_view call) {
  if (failing != call) {
    return false;
  }
  if (interruptions > 0) {
    --interruptions;
    errno = EINTR;
    return true;
  }
  if (failure_errno < 0 || calls_before-- > 0) {
    return false;
  }
  errno = failure_errno;
  return true;
}

class Failing {
 public:
  explicit Failing(std::string_view call, int problem = EIO, int before = 0) {
    failing = call;
    failure_errno = problem;
    calls_before = before;
  }
  ~Failing() { failing = {}; }
  Failing(const Failing&) = delete;
  Failing& operator=(const Failing&) = delete;
};

class Interrupting {
 public:
  explicit Interrupting(std::string_view call) {
    failing = call;
    failure_errno = -1;
    interruptions = 3;
  }
  ~Interrupting() {
    EXPECT_EQ(interruptions, 0) << "the call was not made again";
    failing = {};
    interruptions = 0;
  }
  Interrupting(const Interrupting&) = delete;
  Interrupting& operator=(const Interrupting&) = delete;
};

ssize_t transfer_result() { return errno == 0 ? 0 : -1; }

}  // namespace

extern "C" {

ssize_t __real_read(int file, void* buffer, std::size_t count);
ssize_t __wrap_read(int file, void* buffer, std::size_t count) {
  return fails("read") ? transfer_result() : __real_read(file, buffer, count);
}

ssize_t __real_write(int file, const void* buffer, std::size_t count);
ssize_t __wrap_write(int file, const void* buffer, std::size_t count) {
  return fails("write") ? transfer_result() : __real_write(file, buffer, count);
}

int __real_fsync(int file);
int __wrap_fsync(int file) { return fails("fsync") ? -1 : __real_fsync(file); }

off_t __real_lseek(int file, off_t offset, int origin);
off_t __wrap_lseek(int file, off_t offset, int origin) {
  return fails("lseek") ? -1 : __real_lseek(file, offset, origin);
}

int __real_rename(const char* from, const char* to);
int __wrap_rename(const char* from, const char* to) { return fails("rename") ? -1 : __real_rename(from, to); }

int __real_link(const char* from, const char* to);
int __wrap_link(const char* from, const char* to) { return fails("link") ? -1 : __real_link(from, to); }

int __real_unlink(const char* path);
int __wrap_unlink(const char* path) { return fails("unlink") ? -1 : __real_unlink(path); }

}  // extern "C"

namespace ravok {
namespace {

constexpr const char* full = "Local storage cannot save data; free space and try again";

std::string with_number(const std::string& message, int number) {
  return message + " (" + std::to_string(number) + ")";
}

class FilesFault : public ::testing::Test {
 protected:
  // The destination keeps its old content, and nothing else is left.
  void expect_unchanged() {
    EXPECT_EQ(root_.read("record"), "old");
    EXPECT_EQ(root_.names(), std::vector<std::string>{"record"});
  }

  testing::TemporaryRoot root_;
  std::filesystem::path record_ = root_.write("record", "old");
};

TEST_F(FilesFault, ReadsNameTheStepThatFailed) {
  {
    const Failing call("read");
    EXPECT_FAILURE(read_file(record_, 10), "file_read", "Cannot read file");
  }
  {
    const Failing call("read", EIO, 1);
    EXPECT_FAILURE(read_file(record_, 10), "file_read", "Cannot finish reading file");
  }
  {
    const Failing call("read", 0);
    EXPECT_FAILURE(read_file(record_, 10), "file_read", "File changed while reading");
  }
  {
    const Failing call("lseek");
    EXPECT_FAILURE(read_file_tail(record_, 1, nullptr), "file_read", "Cannot read file");
  }
}

TEST_F(FilesFault, CallsThatASignalInterruptsAreMadeAgain) {
  {
    const Interrupting call("read");
    EXPECT_EQ(read_file(record_, 10), "old");
  }
  {
    const Interrupting call("write");
    atomic_write(record_, "new");
  }
  EXPECT_EQ(root_.read("record"), "new");
  {
    const Interrupting call("fsync");
    atomic_write(record_, "newer");
  }
  EXPECT_EQ(root_.read("record"), "newer");
}

TEST_F(FilesFault, AFailedWriteKeepsTheOldRecord) {
  {
    const Failing call("write");
    EXPECT_FAILURE(atomic_write(record_, "new"), "file_write", with_number("Cannot write transaction file", EIO));
  }
  expect_unchanged();
  {
    const Failing call("write", 0);
    EXPECT_FAILURE(atomic_write(record_, "new"), "file_write", with_number("Cannot write transaction file", EIO));
  }
  expect_unchanged();
}

TEST_F(FilesFault, AFailedFlushKeepsTheOldRecord) {
  {
    const Failing call("fsync");
    EXPECT_FAILURE(atomic_write(record_, "new"), "file_write", with_number("Cannot synchronize transaction file", EIO));
  }
  expect_unchanged();
}

TEST_F(FilesFault, AFailedRenameKeepsTheOldRecord) {
  {
    const Failing call("rename", EACCES);
    EXPECT_FAILURE(atomic_write(record_, "new"), "file_write", with_number("Cannot commit transaction file", EACCES));
  }
  expect_unchanged();
}

TEST_F(FilesFault, AFailedLinkMakesNothing) {
  {
    const Failing call("link", EPERM);
    EXPECT_FAILURE(atomic_private_create(root_ / "new", "new"), "file_write",
                   with_number("Cannot create export; the destination may already exist", EPERM));
  }
  expect_unchanged();
}

TEST_F(FilesFault, AFullDiskIsNamedAtEveryStep) {
  for (const int problem : {ENOSPC, EDQUOT}) {
    for (const char* name : {"write", "fsync", "rename"}) {
      {
        const Failing call(name, problem);
        EXPECT_FAILURE(atomic_write(record_, "new"), "insufficient_space", full) << name;
      }
      expect_unchanged();
    }
    {
      const Failing call("link", problem);
      EXPECT_FAILURE(atomic_create(root_ / "new", "new"), "insufficient_space", full);
    }
    expect_unchanged();
  }
}

TEST_F(FilesFault, AFailedFlushOfTheDirectoryLeavesTheNewContentInPlace) {
  {
    const Failing call("fsync", EIO, 1);
    EXPECT_FAILURE(atomic_write(record_, "new"), "file_sync", "Could not durably synchronize directory");
  }
  EXPECT_EQ(root_.read("record"), "new");
  EXPECT_EQ(root_.names(), std::vector<std::string>{"record"});
}

TEST_F(FilesFault, AFailedEndOfACreateLeavesTheDestinationComplete) {
  {
    const Failing call("unlink", EACCES);
    EXPECT_FAILURE(atomic_create(root_ / "new", "new"), "file_write",
                   with_number("Cannot finish export transaction", EACCES));
  }
  EXPECT_EQ(root_.read("new"), "new");
}

TEST_F(FilesFault, AFileThatIsReplacedInAHurryIsNotFlushed) {
  const Failing call("fsync");
  EXPECT_NO_THROW(replace_private_file(record_, "new"));
}

TEST_F(FilesFault, FlushesReportTheirFailure) {
  const Failing call("fsync");
  EXPECT_FAILURE(sync_file(record_), "file_sync", "Could not durably synchronize file");
  const Failing again("fsync");
  EXPECT_FAILURE(sync_directory(root_.path()), "file_sync", "Could not durably synchronize directory");
}

}  // namespace
}  // namespace ravok
