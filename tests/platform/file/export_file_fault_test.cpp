// Every failure of the calls that the writing of an exported file makes.

#include <cerrno>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "platform/file/files.hpp"
#include "support/failure.hpp"
#include "support/file_calls.hpp"
#include "support/temporary_root.hpp"

namespace ravok::export_file_fault_test {
namespace {

using testing::failing;
using testing::failure_of;
using testing::Plan;
using testing::Planned;

using Names = std::vector<std::string>;

constexpr const char* no_space = "Local storage cannot save data; free space and try again";
constexpr const char* not_created = "Cannot create export; the destination may already exist";

std::string with_number(const std::string& message, int problem) {
  return message + " (" + std::to_string(problem) + ")";
}

class ExportFileFault : public ::testing::Test {
 protected:
  void write_export() const {
    ExportFile file(path);
    file.write("content");
    file.commit();
  }

  // Expects this failure under the plan, and these names afterwards.
  void expect_failure(const Plan& plan, const char* code, const std::string& message, const Names& left) const {
    {
      const Planned set(plan);
      EXPECT_FAILURE(write_export(), code, message) << plan.call;
      EXPECT_TRUE(set.happened()) << plan.call;
    }
    EXPECT_EQ(root.names(), left) << plan.call;
    std::filesystem::remove(path);
  }

  const testing::TemporaryRoot root;
  const std::filesystem::path path = root / "export";
};

TEST_F(ExportFileFault, TheDataIsFlushedBeforeItGetsItsNameAndTheNameAfterwards) {
  const Planned set({});
  write_export();
  EXPECT_EQ(set.order_of({"create", "write", "fsync", "link", "unlink"}),
            (std::vector<std::string>{"create", "write", "fsync", "link", "unlink", "fsync"}));
}

TEST_F(ExportFileFault, WritingGoesOnAfterAnInterruptionAndAShortAnswer) {
  {
    const Planned set(failing("write", EINTR));
    write_export();
    EXPECT_TRUE(set.happened());
  }
  EXPECT_EQ(root.read("export"), "content");
  std::filesystem::remove(path);
  const Planned set({.longest_piece = 2});
  write_export();
  EXPECT_EQ(root.read("export"), "content");
  EXPECT_EQ(set.count("write"), 4);
}

TEST_F(ExportFileFault, AFullDiskIsToldAsSuchAtAnyStep) {
  for (const int problem : {ENOSPC, EDQUOT}) {
    for (const char* call : {"create", "write", "fsync", "link"}) {
      expect_failure(failing(call, problem), "insufficient_space", no_space, {});
    }
  }
}

TEST_F(ExportFileFault, AFailureNamesItsStepAndLeavesNothingBehind) {
  expect_failure(failing("write", EIO), "file_write", with_number("Cannot write transaction file", EIO), {});
  expect_failure(failing("write", 0), "file_write", with_number("Cannot write transaction file", EIO), {});
  expect_failure(failing("fsync", EIO), "file_write", with_number("Cannot synchronize transaction file", EIO), {});
  expect_failure(failing("link", EPERM), "file_write", with_number(not_created, EPERM), {});
}

TEST_F(ExportFileFault, AFileThatCannotBeMadeIsNamed) {
  const Planned set(failing("create", EACCES));
  const auto failure = failure_of([&] { write_export(); });
  ASSERT_TRUE(failure);
  const std::string message = failure->what();
  const std::string head = "Cannot create transaction file " + path.string() + ".";
  const std::string tail = with_number(".tmp", EACCES);
  EXPECT_EQ(failure->code, "file_write");
  EXPECT_TRUE(message.starts_with(head) && message.ends_with(tail)) << message;
  EXPECT_EQ(message.size(), head.size() + 32 + tail.size()) << message;
}

TEST_F(ExportFileFault, AFileThatHasItsNameKeepsIt) {
  expect_failure(failing("unlink", EIO), "file_write", with_number("Cannot finish export transaction", EIO),
                 {"export"});
  expect_failure(failing("reopen directory", EIO), "file_sync", "Cannot open directory for synchronization",
                 {"export"});
  expect_failure(failing("fsync", EIO, 2), "file_sync", "Could not durably synchronize directory", {"export"});
}

}  // namespace
}  // namespace ravok::export_file_fault_test
