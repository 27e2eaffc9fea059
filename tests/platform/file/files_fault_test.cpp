// Every failure of the calls that reading and writing files make.

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "platform/file/files.hpp"
#include "support/failure.hpp"
#include "support/file_calls.hpp"
#include "support/temporary_root.hpp"

namespace ravok::files_fault_test {
namespace {

using testing::failing;
using testing::meanwhile;
using testing::Plan;
using testing::Planned;

using Names = std::vector<std::string>;
using Calls = std::vector<std::string>;
using Writer = void (*)(const std::filesystem::path&, std::string_view);

constexpr const char* changed_while_reading = "File changed while reading";
constexpr const char* no_space = "Local storage cannot save data; free space and try again";

std::string with_number(const std::string& message, int problem) {
  return message + " (" + std::to_string(problem) + ")";
}

class FileCallFault : public ::testing::Test {
 protected:
  void append(const std::string& name, std::string_view text) const {
    root_.write(name, root_.read(name) + std::string(text));
  }

  testing::TemporaryRoot root_;
};

TEST_F(FileCallFault, ReadingIsRepeatedAfterAnInterruption) {
  const auto file = root_.write("file", "content");
  for (const int countdown : {1, 2}) {
    const Planned set(failing("read", EINTR, countdown));
    EXPECT_EQ(read_file(file, 7), "content");
    EXPECT_TRUE(set.happened());
  }
}

TEST_F(FileCallFault, ReadingGoesOnAfterAShortAnswer) {
  const auto file = root_.write("file", "content");
  const Planned set({.longest_piece = 2});
  EXPECT_EQ(read_file(file, 7), "content");
}

TEST_F(FileCallFault, ReadingAsksForAtMost64KiBAtOnce) {
  const auto file = root_.write("file", std::string(200000, 'x'));
  const Planned set({});
  read_file(file, 200000);
  EXPECT_EQ(set.longest_read(), 65536u);
}

TEST_F(FileCallFault, AFileBeyondTheLimitIsNotRead) {
  const auto file = root_.write("file", "content");
  const Planned set(failing("read", EIO));
  EXPECT_FAILURE(read_file(file, 6), "size_limit", "File exceeds read limit");
  EXPECT_FALSE(set.happened());
}

TEST_F(FileCallFault, ReadingNamesTheStepThatFailed) {
  const auto file = root_.write("file", "content");
  {
    const Planned set(failing("read", EIO));
    EXPECT_FAILURE(read_file(file, 7), "file_read", "Cannot read file");
  }
  {
    const Planned set(failing("read", EIO, 2));
    EXPECT_FAILURE(read_file(file, 7), "file_read", "Cannot finish reading file");
  }
  {
    const Planned set(failing("lseek", EIO));
    EXPECT_FAILURE(read_file_tail(file, 3, nullptr), "file_read", "Cannot read file");
  }
  {
    const Planned set(failing("fstat", EIO));
    EXPECT_FAILURE(read_file(file, 7), "unsafe_path", "Expected an ordinary file: " + file.string());
  }
}

TEST_F(FileCallFault, OpeningTellsALinkFromEveryOtherFailure) {
  const auto file = root_.write("file", "content");
  for (const auto& [problem, code] : {std::pair{ELOOP, "unsafe_path"}, {EACCES, "file_read"}, {EMFILE, "file_read"}}) {
    const Planned set(failing("open", problem));
    EXPECT_FAILURE(read_file(file, 7), code, "Cannot open file: " + file.string()) << problem;
  }
}

TEST_F(FileCallFault, AFileThatGrowsDuringTheReadIsRefused) {
  const auto file = root_.write("file", "content");
  for (const int countdown : {1, 2}) {
    const Planned set(meanwhile(
        "read", [this] { append("file", "x"); }, countdown));
    EXPECT_FAILURE(read_file(file, 100), "file_read", changed_while_reading);
  }
}

TEST_F(FileCallFault, AFileThatShrinksDuringTheReadIsRefused) {
  const auto file = root_.write("file", "content");
  const Planned set(meanwhile("read", [&] { std::filesystem::resize_file(file, 3); }));
  EXPECT_FAILURE(read_file(file, 100), "file_read", changed_while_reading);
}

TEST_F(FileCallFault, ATailThatGrowsDuringTheReadIsRefused) {
  const auto file = root_.write("file", "content");
  std::uint64_t total = 0;
  const Planned set(meanwhile("read", [this] { append("file", "x"); }));
  EXPECT_FAILURE(read_file_tail(file, 3, &total), "file_read", changed_while_reading);
  EXPECT_EQ(total, 7u);
}

TEST_F(FileCallFault, SyncFileReportsAFailedFlush) {
  const auto file = root_.write("file", "content");
  const Planned set(failing("fsync", EIO));
  EXPECT_FAILURE(sync_file(file), "file_sync", "Could not durably synchronize file");
}

TEST_F(FileCallFault, SyncFileNeedsTheStatusOfTheFile) {
  const auto file = root_.write("file", "content");
  const Planned set(failing("fstat", EIO));
  EXPECT_FAILURE(sync_file(file), "file_sync", "Synchronization requires an ordinary single-link file");
}

TEST_F(FileCallFault, SyncFileIsRepeatedAfterAnInterruption) {
  const auto file = root_.write("file", "content");
  const Planned set(failing("fsync", EINTR));
  EXPECT_NO_THROW(sync_file(file));
  EXPECT_EQ(set.count("fsync"), 2);
}

TEST_F(FileCallFault, SyncFileNoticesThatThePathNamesAnotherFile) {
  const auto file = root_.path() / "file";
  const auto other = root_.path() / "other";
  const std::pair<const char*, std::function<void()>> events[] = {
      {"removed", [&] { std::filesystem::remove(file); }},
      {"replaced", [&] { std::filesystem::rename(other, file); }},
      {"linked twice", [&] { std::filesystem::create_hard_link(file, root_ / "second"); }},
      {"made a link", [&] {
         std::filesystem::remove(file);
         std::filesystem::create_symlink("other", file);
       }}};
  for (const auto& [what, event] : events) {
    std::filesystem::remove(file);
    std::filesystem::remove(root_ / "second");
    root_.write("file", "content");
    root_.write("other", "content");
    const Planned set(meanwhile("fsync", event));
    EXPECT_FAILURE(sync_file(file), "file_sync", "Synchronized file path changed") << what;
  }
}

TEST_F(FileCallFault, SyncDirectoryNamesTheStepThatFailed) {
  {
    const Planned set(failing("open directory", EMFILE));
    EXPECT_FAILURE(sync_directory(root_.path()), "file_sync", "Cannot open directory for synchronization");
  }
  const Planned set(failing("fsync", EIO));
  EXPECT_FAILURE(sync_directory(root_.path()), "file_sync", "Could not durably synchronize directory");
}

// The calls that write and name a file, in the order in which `work` makes them.
Calls order_of(const std::function<void()>& work) {
  const Planned set({});
  work();
  return set.order_of({"create", "fchmod", "write", "fsync", "rename", "link", "unlink"});
}

TEST_F(FileCallFault, ADurableWriteFlushesTheFileBeforeItsNameAndTheDirectoryAfterIt) {
  EXPECT_EQ(order_of([&] { atomic_write(root_ / "record", "x"); }),
            (Calls{"create", "fchmod", "write", "fsync", "rename", "fsync"}));
  EXPECT_EQ(order_of([&] { atomic_private_create(root_ / "new", "x"); }),
            (Calls{"create", "fchmod", "write", "fsync", "link", "unlink", "fsync"}));
  EXPECT_EQ(order_of([&] { atomic_create(root_ / "export", "x"); }),
            (Calls{"create", "write", "fsync", "link", "unlink", "fsync"}));
}

TEST_F(FileCallFault, AWriteWhoseLossIsHarmlessFlushesNothing) {
  EXPECT_EQ(order_of([&] { replace_private_file(root_ / "cache", "x"); }),
            (Calls{"create", "fchmod", "write", "rename"}));
}

TEST_F(FileCallFault, WritingIsRepeatedAfterAnInterruptionAndGoesOnAfterAShortAnswer) {
  {
    const Planned set(failing("write", EINTR));
    atomic_write(root_ / "record", "content");
    EXPECT_EQ(set.count("write"), 2);
  }
  EXPECT_EQ(root_.read("record"), "content");
  {
    const Planned set({.longest_piece = 2});
    atomic_write(root_ / "record", "another");
    EXPECT_EQ(set.count("write"), 4);
  }
  EXPECT_EQ(root_.read("record"), "another");
}

struct Step {
  const char* call;
  int problem;
  const char* message;
};

// Fails one step of a writer in every way, and expects the destination as it was.
class FileCallFaultOfAWriter : public FileCallFault {
 protected:
  void expect_failures(Writer write, const std::vector<Step>& steps) {
    for (const Step& step : steps) {
      for (const int problem : {step.problem, ENOSPC, EDQUOT}) {
        const Planned set(failing(step.call, problem));
        if (problem == step.problem) {
          EXPECT_FAILURE(write(destination_, "new"), "file_write",
                         with_number(step.message, problem == 0 ? EIO : problem))
              << step.call;
        } else {
          EXPECT_FAILURE(write(destination_, "new"), "insufficient_space", no_space) << step.call << ' ' << problem;
        }
        EXPECT_TRUE(set.happened()) << step.call;
        EXPECT_EQ(root_.names(), before_) << step.call;
      }
    }
  }

  std::filesystem::path destination_ = root_ / "record";
  Names before_;
};

TEST_F(FileCallFaultOfAWriter, ReplacingKeepsTheOldContentWhateverStepFails) {
  before_ = {"record"};
  root_.write("record", "old");
  const std::vector<Step> steps = {{"write", EIO, "Cannot write transaction file"},
                                   {"write", 0, "Cannot write transaction file"},
                                   {"rename", EROFS, "Cannot commit transaction file"}};
  expect_failures(atomic_write, steps);
  expect_failures(replace_private_file, steps);
  expect_failures(atomic_write, {{"fsync", EIO, "Cannot synchronize transaction file"}});
  EXPECT_EQ(root_.read("record"), "old");
}

TEST_F(FileCallFaultOfAWriter, CreatingMakesNothingWhateverStepFails) {
  const std::vector<Step> steps = {{"write", EIO, "Cannot write transaction file"},
                                   {"write", 0, "Cannot write transaction file"},
                                   {"fsync", EIO, "Cannot synchronize transaction file"},
                                   {"link", EPERM, "Cannot create export; the destination may already exist"}};
  expect_failures(atomic_create, steps);
  expect_failures(atomic_private_create, steps);
}

TEST_F(FileCallFaultOfAWriter, AFullDiskIsToldAlsoWhenNoTransactionFileCanBeMade) {
  for (const Writer write : {atomic_write, atomic_create, atomic_private_create, replace_private_file}) {
    for (const int problem : {ENOSPC, EDQUOT}) {
      const Planned set(failing("create", problem));
      EXPECT_FAILURE(write(destination_, "new"), "insufficient_space", no_space);
      EXPECT_TRUE(root_.names().empty());
    }
  }
}

TEST_F(FileCallFaultOfAWriter, AFileThatCannotBeMadePrivateHoldsNoByteAndIsRemoved) {
  for (const Writer write : {atomic_write, atomic_private_create, replace_private_file}) {
    const Planned set(failing("fchmod", EPERM));
    EXPECT_FAILURE(write(destination_, "new"), "permissions", "Cannot make new Linux storage private");
    EXPECT_TRUE(root_.names().empty());
    EXPECT_EQ(set.count("write"), 0);
  }
}

TEST_F(FileCallFaultOfAWriter, ATransactionFileOfAnotherIsNeitherUsedNorRemoved) {
  const Planned set(failing("create", EEXIST));
  const auto failure = testing::failure_of([&] { atomic_write(destination_, "new"); });
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->code, "file_write");
  EXPECT_EQ(set.count("unlink"), 0);
}

TEST_F(FileCallFaultOfAWriter, ANameThatAppearsMeanwhileIsNotReplacedByACreate) {
  const Planned set(meanwhile("link", [this] { root_.write("record", "theirs"); }));
  EXPECT_FAILURE(atomic_create(destination_, "new"), "file_write",
                 with_number("Cannot create export; the destination may already exist", EEXIST));
  EXPECT_EQ(root_.names(), Names{"record"});
  EXPECT_EQ(root_.read("record"), "theirs");
}

TEST_F(FileCallFaultOfAWriter, AFailedUnlinkLeavesTheNewFileAndIsTriedAgain) {
  for (const Writer write : {atomic_create, atomic_private_create}) {
    std::filesystem::remove(destination_);
    const Planned set(failing("unlink", EIO));
    EXPECT_FAILURE(write(destination_, "new"), "file_write", with_number("Cannot finish export transaction", EIO));
    EXPECT_EQ(root_.names(), Names{"record"});
    EXPECT_EQ(root_.read("record"), "new");
  }
}

TEST_F(FileCallFaultOfAWriter, AFailedFlushOfTheDirectoryLeavesTheNewContent) {
  for (const Writer write : {atomic_write, atomic_create, atomic_private_create}) {
    for (const auto& [set_plan, message] :
         {std::pair{failing("fsync", EIO, 2), "Could not durably synchronize directory"},
          {failing("reopen directory", EMFILE), "Cannot open directory for synchronization"}}) {
      std::filesystem::remove(destination_);
      const Planned set(set_plan);
      EXPECT_FAILURE(write(destination_, "new"), "file_sync", message);
      EXPECT_EQ(root_.names(), Names{"record"});
      EXPECT_EQ(root_.read("record"), "new");
    }
  }
}

}  // namespace
}  // namespace ravok::files_fault_test
