// Each call of a guarded operation fails in turn. The operation then ends with one of its own failures, and leaves no
// descriptor open and no transaction file behind.

#include <cerrno>
#include <filesystem>
#include <functional>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "platform/file/allocated_file.hpp"
#include "platform/file/atomic_commit.hpp"
#include "platform/file/directory_identity.hpp"
#include "platform/file/files.hpp"
#include "platform/file/native_lock.hpp"
#include "platform/file/path_keys.hpp"
#include "platform/file/posix_files.hpp"
#include "platform/file/storage.hpp"
#include "platform/file/tree.hpp"
#include "platform/file/tree_walk.hpp"
#include "platform/snapshot/snapshot_retirement.hpp"
#include "support/failure.hpp"
#include "support/fast_volume.hpp"
#include "support/file_calls.hpp"
#include "support/manifest_builder.hpp"
#include "support/temporary_root.hpp"

namespace ravok::descriptors_fault_test {
namespace {

using testing::failing;
using testing::failure_of;
using testing::Planned;
using testing::TemporaryRoot;
using Path = std::filesystem::path;

constexpr const char* all_calls[] = {"open",  "openat", "open directory", "reopen directory", "anchor",    "create",
                                     "fstat", "lstat",  "fstatat",        "mkdirat",          "lseek",     "read",
                                     "write", "fchmod", "fgetxattr",      "fremovexattr",     "fallocate", "ftruncate",
                                     "fsync", "rename", "link",           "unlink",           "readlink"};

std::vector<int> open_descriptors() {
  std::vector<int> open;
  for (int descriptor = 0; descriptor < 256; ++descriptor) {
    if (fcntl(descriptor, F_GETFD) >= 0) {
      open.push_back(descriptor);
    }
  }
  return open;
}

void make_private(const Path& directory) { ASSERT_EQ(chmod(directory.c_str(), 0700), 0); }

// A guarded operation on what every test finds in its root: a private record and a private directory that holds a
// file, each also under a name for which an operation needs two of them.
struct Operation {
  const char* name;
  std::function<void(const TemporaryRoot&)> run;
};

std::ostream& operator<<(std::ostream& stream, const Operation& operation) { return stream << operation.name; }

void prepare(const TemporaryRoot& root) {
  make_private(root.path());
  for (const char* tree : {"tree", "other"}) {
    make_private(root.directory(tree));
    root.write(std::string(tree) + "/d/file", "x");
  }
  ASSERT_EQ(chmod(root.write("record", "content").c_str(), 0600), 0);
  ASSERT_EQ(chmod(root.write("lock", "").c_str(), 0600), 0);
}

void refuse() { throw std::runtime_error("The hook refuses"); }

SnapshotManifest manifest() { return SnapshotManifest::parse(testing::manifest_document({{"d/file"}, {"d/more"}})); }

void make_and_fill(const TemporaryRoot& root) {
  AllocatedFile file(root / "allocated", 5000, [&](const FileReservation&) { atomic_write(root / "receipt", "mine"); });
  file.write("content");
  file.finish(false);
  file.set_executable(true);
}

void reopen_and_discard(const TemporaryRoot& root) {
  AllocatedFile::verify_identity(AllocatedFile::inspect_file(root / "record"));
  AllocatedFile file(AllocatedFile::inspect_file(root / "record"), 7);
  file.read_prefix(7, [](std::string_view) {}, {});
  file.reserve_remaining();
  file.restart();
  file.write("new");
  file.discard();
}

const Operation operations[] = {
    {"read_file", [](const auto& root) { read_file(root / "record", 64); }},
    {"read_file_tail", [](const auto& root) { read_file_tail(root / "record", 3, nullptr); }},
    {"sync_file", [](const auto& root) { sync_file(root / "record"); }},
    {"sync_directory", [](const auto& root) { sync_directory(root.path()); }},
    {"atomic_write", [](const auto& root) { atomic_write(root / "new/record", "content"); }},
    {"atomic_private_create", [](const auto& root) { atomic_private_create(root / "new", "content"); }},
    {"atomic_create", [](const auto& root) { atomic_create(root / "new", "content"); }},
    {"replace_private_file", [](const auto& root) { replace_private_file(root / "record", "new"); }},
    {"ExportFile",
     [](const auto& root) {
       ExportFile file(root / "new");
       file.write("content");
       file.commit();
     }},
    {"private_directory", [](const auto& root) { private_directory(root / "a/b"); }},
    {"private_directory_new", [](const auto& root) { private_directory_new(root / "new"); }},
    {"require_private_path",
     [](const auto& root) {
       posix_files::require_private_path(root / "record", false);
       posix_files::require_private_path(root / "tree", true);
     }},
    {"FileLock",
     [](const auto& root) {
       const FileLock made(root / "locks/new", false, LockMode::exclusive);
       const FileLock there(root / "lock", true, LockMode::shared);
       static_cast<void>(there.matches_path(root / "lock"));
     }},
    {"NativeFileLock",
     [](const auto& root) {
       const NativeFileLock made(root / "new", true, NativeLockSharing::none, LockMode::exclusive);
       const NativeFileLock there(root / "lock", false, NativeLockSharing::others, LockMode::shared);
     }},
    {"commit_private_path_new",
     [](const auto& root) { commit_private_path_new(root / "record", root / "committed", {}); }},
    {"exchange_private_directories",
     [](const auto& root) { exchange_private_directories(root / "tree", root / "other", {}); }},
    {"path_key", [](const auto& root) { path_keys::path_key(root / "record"); }},
    {"directory_key", [](const auto& root) { path_keys::directory_key(root / "tree/new"); }},
    {"tree_bytes", [](const auto& root) { tree_bytes(root / "tree", 10); }},
    {"remove_plain_tree", [](const auto& root) { remove_plain_tree(root / "tree"); }},
    {"retire_snapshot_files", [](const auto& root) { retire_snapshot_files(manifest(), root / "tree", {}); }},
    {"AllocatedFile", make_and_fill},
    {"AllocatedFile again", reopen_and_discard},
    {"inspect_storage_volume", [](const auto& root) { inspect_storage_volume(root / "tree"); }},
    {"inspect_storage_directory", [](const auto& root) { inspect_storage_directory(root / "tree"); }},
};

class EveryFailure : public ::testing::TestWithParam<Operation> {
 protected:
  // Runs the operation with that call failing. Returns whether it came to that call.
  static bool try_failing(const char* call, int problem, int countdown) {
    const TemporaryRoot root(testing::fast_volume());
    prepare(root);
    const std::vector<int> before = open_descriptors();
    bool happened = false;
    {
      const Planned set(failing(call, problem, countdown));
      const std::optional<Error> failure = failure_of([&] { GetParam().run(root); });
      happened = set.happened();
      EXPECT_TRUE(!failure || (!failure->code.empty() && failure->what() != std::string()));
      EXPECT_TRUE(happened || !failure) << failure->what();
    }
    EXPECT_EQ(open_descriptors(), before) << call << ' ' << countdown;
    for (const std::string& name : root.names()) {
      EXPECT_FALSE(name.ends_with(".tmp")) << name << " after " << call << ' ' << countdown;
    }
    return happened;
  }
};

TEST_P(EveryFailure, LeavesNoDescriptorOpenAndNoTransactionFile) {
  int failures = 0;
  for (const char* call : all_calls) {
    for (const int problem : {EIO, ENOSPC}) {
      for (int countdown = 1; try_failing(call, problem, countdown); ++countdown) {
        ++failures;
        ASSERT_LT(countdown, 1000) << call;
      }
    }
  }
  EXPECT_GE(failures, 2);
}

std::string test_name(const ::testing::TestParamInfo<Operation>& operation) {
  std::string name = operation.param.name;
  std::erase_if(name, [](char c) { return c == ' ' || c == '_'; });
  return name;
}

INSTANTIATE_TEST_SUITE_P(Operations, EveryFailure, ::testing::ValuesIn(operations), test_name);

TEST(EveryHook, ThatThrowsLeavesNoDescriptorOpenAndNothingMade) {
  const TemporaryRoot root(testing::fast_volume());
  prepare(root);
  const auto names = root.names();
  const std::vector<int> before = open_descriptors();
  EXPECT_THROW(commit_private_path_new(root / "record", root / "committed", refuse), std::runtime_error);
  EXPECT_THROW(exchange_private_directories(root / "tree", root / "other", refuse), std::runtime_error);
  EXPECT_THROW(retire_snapshot_files(manifest(), root / "tree", refuse), std::runtime_error);
  EXPECT_THROW(AllocatedFile(root / "allocated", 5000, [](const FileReservation&) { refuse(); }), std::runtime_error);
  EXPECT_THROW(walk_tree(open_tree(root / "tree"), [](const TreeEntry&) { refuse(); }), std::runtime_error);
  const FileReservation record = AllocatedFile::inspect_file(root / "record");
  EXPECT_THROW(AllocatedFile(record, 7).read_prefix(7, [](std::string_view) { refuse(); }, {}), std::runtime_error);
  EXPECT_EQ(open_descriptors(), before);
  EXPECT_EQ(root.names(), names);
}

}  // namespace
}  // namespace ravok::descriptors_fault_test
