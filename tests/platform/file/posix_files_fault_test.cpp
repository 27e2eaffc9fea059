// Every failure of the calls that private storage makes, and directories that others swap between two calls.

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <iterator>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "platform/file/handle.hpp"
#include "platform/file/posix_files.hpp"
#include "platform/file/status.hpp"
#include "support/failure.hpp"
#include "support/file_calls.hpp"
#include "support/temporary_root.hpp"

namespace ravok::posix_files_fault_test {
namespace {

using testing::failing;
using testing::meanwhile;
using testing::Plan;
using testing::Planned;

using Names = std::vector<std::string>;

std::uint32_t mode_of(const std::filesystem::path& path) {
  const auto status = link_status_of(path);
  return status ? status->permissions : 0;
}

class PosixFilesFault : public ::testing::Test {
 protected:
  PosixFilesFault() {
    const auto relative = root_.path().relative_path();
    levels_ = static_cast<int>(std::distance(relative.begin(), relative.end()));
  }

  // Puts another private directory in the place of `name`.
  void swap(const std::string& name) const {
    std::filesystem::rename(root_ / name, root_ / "moved");
    make_private(name);
  }

  std::filesystem::path make_private(const std::string& name) const {
    auto path = root_.directory(name);
    EXPECT_EQ(chmod(path.c_str(), 0700), 0);
    return path;
  }

  Handle open_file(const std::string& content) const {
    return Handle(open(root_.write("file", content).c_str(), O_RDWR | O_CLOEXEC));
  }

  testing::TemporaryRoot root_;
  int levels_ = 0;  // how many levels the root lies below the root of the file system
};

TEST_F(PosixFilesFault, SyncIsRepeatedAfterAnInterruption) {
  const Handle file = open_file("x");
  const Planned set(failing("fsync", EINTR));
  EXPECT_EQ(posix_files::sync(file.get()), 0);
  EXPECT_EQ(set.count("fsync"), 2);
}

TEST_F(PosixFilesFault, TheNamesOfPrivateLevelsAreFlushedUpToTheFirstThatIsNot) {
  make_private("plain/a");
  const std::filesystem::path path = make_private("plain/a/b");
  ASSERT_EQ(chmod((root_ / "plain").c_str(), 0755), 0);
  const Planned set(failing("fsync", EIO, 100));
  posix_files::flush_private_levels(path);
  EXPECT_EQ(set.count("fsync"), 2);
}

TEST_F(PosixFilesFault, NamesOfPrivateLevelsThatCannotBeFlushedAreTold) {
  const std::filesystem::path path = make_private("a");
  for (const char* const call : {"fsync", "open directory"}) {
    const Planned set(failing(call, EIO));
    EXPECT_FAILURE(posix_files::flush_private_levels(path), "file_sync", "Cannot synchronize Linux directory ancestry");
  }
}

TEST_F(PosixFilesFault, TheNamesOfALevelThatCannotBeLookedAtAreNotFlushed) {
  const std::filesystem::path path = make_private("a");
  // Resolving the system's own links takes one look at each level.
  const Planned set(failing("lstat", EIO, levels_ + 2));
  posix_files::flush_private_levels(path);
  EXPECT_TRUE(set.happened());
  EXPECT_EQ(set.count("fsync"), 0);
}

TEST_F(PosixFilesFault, ALevelThatMayNotBeListedIsPassedOver) {
  make_private("plain/a");
  const std::filesystem::path path = make_private("plain/a/b");
  ASSERT_EQ(chmod((root_ / "plain").c_str(), 0755), 0);
  const Planned set(failing("open directory", EACCES));
  posix_files::flush_private_levels(path);
  EXPECT_EQ(set.count("fsync"), 1);
}

TEST_F(PosixFilesFault, ReserveAnswersTheNumberOfTheCallThatFailed) {
  const Handle file = open_file("x");
  for (const auto& [call, problem] :
       {std::pair{"fstat", EIO}, {"fallocate", ENOSPC}, {"fallocate", EOPNOTSUPP}, {"fallocate", EDQUOT}}) {
    const Planned set(failing(call, problem));
    EXPECT_EQ(posix_files::reserve(file.get(), 100000), problem) << call;
    EXPECT_EQ(root_.read("file"), "x") << call;
  }
  const Planned set(failing("ftruncate", EIO));
  EXPECT_EQ(posix_files::reserve(file.get(), 100000), EIO);
  EXPECT_EQ(root_.read("file"), "x");
}

TEST_F(PosixFilesFault, ReserveIsRepeatedAfterAnInterruption) {
  for (const char* call : {"fallocate", "ftruncate"}) {
    const Handle file = open_file("");
    const Planned set(failing(call, EINTR));
    EXPECT_EQ(posix_files::reserve(file.get(), 100000), 0) << call;
    EXPECT_EQ(set.count(call), 2) << call;
    EXPECT_EQ(std::filesystem::file_size(root_ / "file"), 100000u);
  }
}

TEST_F(PosixFilesFault, ReserveOfWhatIsAllocatedClaimsNoBlocks) {
  const Handle file = open_file("x");
  const auto revise = [](struct stat& status) { status.st_blocks = 8; };
  {
    const Planned set({.revise = revise});
    EXPECT_EQ(posix_files::reserve(file.get(), 4096), 0);
    EXPECT_EQ(set.count("fallocate"), 0);
  }
  const Planned set({.revise = revise});
  EXPECT_EQ(posix_files::reserve(file.get(), 4097), 0);
  EXPECT_EQ(set.count("fallocate"), 1);
}

TEST_F(PosixFilesFault, ReserveRefusesSizesAndBlocksThatCannotBe) {
  const Handle file = open_file("x");
  const std::pair<std::function<void(struct stat&)>, int> cases[] = {
      {[](struct stat& status) { status.st_size = -1; }, EINVAL},
      {[](struct stat& status) { status.st_blocks = -1; }, EINVAL},
      {[](struct stat& status) { status.st_blocks = blkcnt_t{1} << 55; }, EOVERFLOW},
      {[](struct stat& status) { status.st_blocks = std::numeric_limits<blkcnt_t>::max(); }, EOVERFLOW}};
  for (const auto& [revise, problem] : cases) {
    const Planned set({.revise = revise});
    EXPECT_EQ(posix_files::reserve(file.get(), 1), problem);
    EXPECT_EQ(set.count("ftruncate"), 0);
  }
  const Planned set({.revise = [](struct stat& status) { status.st_blocks = (blkcnt_t{1} << 55) - 1; }});
  EXPECT_EQ(posix_files::reserve(file.get(), 1), 0);
}

TEST_F(PosixFilesFault, SecureNewPrivateNamesTheStepThatFailed) {
  const Handle file = open_file("");
  const struct {
    Plan plan;
    const char* message;
  } steps[] = {
      {failing("fstat", EIO), "New Linux private storage ownership changed"},
      {failing("fremovexattr", EIO), "Cannot make new Linux storage private"},
      {failing("fchmod", EPERM), "Cannot make new Linux storage private"},
      {failing("fstat", EIO, 2), "Linux private storage must be ordinary, owned and accessible only to this user"},
      {failing("fgetxattr", EIO), "Cannot inspect the Linux private storage ACL"},
      {failing("fgetxattr", EIO, 2), "Cannot inspect the Linux private storage ACL"},
  };
  for (const auto& step : steps) {
    const Planned set(step.plan);
    EXPECT_FAILURE(posix_files::secure_new_private(file.get(), false), "permissions", step.message) << step.plan.call;
  }
}

TEST_F(PosixFilesFault, AVolumeWithoutAccessListsGrantsNobodyAnything) {
  const Handle file = open_file("");
  for (const auto& [call, countdown] : {std::pair{"fremovexattr", 1}, {"fgetxattr", 1}, {"fgetxattr", 2}}) {
    const Planned set(failing(call, EOPNOTSUPP, countdown));
    EXPECT_NO_THROW(posix_files::secure_new_private(file.get(), false)) << call;
    EXPECT_TRUE(set.happened()) << call;
  }
}

TEST_F(PosixFilesFault, RequirePrivatePathNoticesASwap) {
  make_private("node");
  const Planned set(meanwhile("lstat", [this] { swap("node"); }));
  EXPECT_FAILURE(posix_files::require_private_path(root_ / "node", true), "permissions",
                 "Linux private storage path changed during inspection");
}

TEST_F(PosixFilesFault, RequirePrivatePathNeedsBothViewsAtTheEnd) {
  make_private("node");
  for (const Plan& plan : {failing("fstat", EIO, 2), failing("lstat", ENOENT)}) {
    const Planned set(plan);
    EXPECT_FAILURE(posix_files::require_private_path(root_ / "node", true), "permissions",
                   "Linux private storage path changed during inspection");
  }
}

TEST_F(PosixFilesFault, PrivateDirectoryMakesEachLevelDurableBeforeTheNext) {
  const Planned set({});
  private_directory(root_ / "a/b");
  EXPECT_EQ(set.order_of({"mkdirat", "fchmod", "fsync"}),
            (Names{"mkdirat", "fchmod", "fsync", "mkdirat", "fchmod", "fsync"}));
}

TEST_F(PosixFilesFault, PrivateDirectoryFlushesNothingWhenAllLevelsExist) {
  make_private("a");
  const Planned set({});
  private_directory(root_ / "a");
  EXPECT_EQ(set.order_of({"mkdirat", "fchmod", "fsync"}), Names());
}

TEST_F(PosixFilesFault, PrivateDirectoryNamesTheStepThatFailedAndMakesNothing) {
  const struct {
    Plan plan;
    const char* code;
    const char* message;
  } steps[] = {
      {failing("anchor", EMFILE), "unsafe_path", "Cannot anchor Linux directory ancestry"},
      {failing("openat", EMFILE, levels_ + 1), "unsafe_path", "Linux directory ancestry is missing or linked"},
      {failing("mkdirat", ENOSPC), "permissions", "Cannot reserve a new Linux private directory"},
      {failing("mkdirat", EEXIST), "unsafe_path", "Linux directory ancestry is missing or linked"},
  };
  for (const auto& step : steps) {
    const Planned set(step.plan);
    EXPECT_FAILURE(private_directory(root_ / "a/b"), step.code, step.message);
    EXPECT_TRUE(root_.names().empty()) << step.message;
  }
}

TEST_F(PosixFilesFault, PrivateDirectoryLeavesANewLevelPrivateAndEmptyAndGoesOnLater) {
  const struct {
    Plan plan;
    const char* code;
    const char* message;
  } steps[] = {
      {failing("openat", EMFILE, levels_ + 2), "unsafe_path", "Linux directory ancestry is missing or linked"},
      {failing("fstat", EIO, levels_ + 1), "unsafe_path", "Linux directory ancestry changed"},
      {failing("fstatat", EIO, levels_ + 1), "unsafe_path", "Linux directory ancestry changed"},
      {failing("fchmod", EPERM), "permissions", "Cannot make new Linux storage private"},
      {failing("fsync", EIO), "file_sync", "Cannot synchronize new Linux directory ownership"},
  };
  for (const auto& step : steps) {
    {
      const Planned set(step.plan);
      EXPECT_FAILURE(private_directory(root_ / "a/b"), step.code, step.message);
    }
    EXPECT_EQ(root_.names(), Names{"a/"}) << step.message;
    EXPECT_EQ(mode_of(root_ / "a"), 0700u) << step.message;
    private_directory(root_ / "a/b");
    EXPECT_EQ(root_.names(), (Names{"a/", "a/b/"}));
    std::filesystem::remove_all(root_ / "a");
  }
}

TEST_F(PosixFilesFault, PrivateDirectoryReportsAModeThatItCannotRestrict) {
  const auto directory = make_private("a");
  ASSERT_EQ(chmod(directory.c_str(), 0755), 0);
  const Planned set(failing("fchmod", EPERM));
  EXPECT_FAILURE(private_directory(directory), "permissions", "Cannot restrict Linux directory permissions");
  EXPECT_EQ(mode_of(directory), 0755u);
}

TEST_F(PosixFilesFault, PrivateDirectoryNoticesALevelThatIsSwappedWhileItIsOpened) {
  make_private("a/b");
  const std::pair<const char*, std::function<void()>> events[] = {
      {"another directory", [this] { swap("a"); }}, {"a link", [this] {
                                                       std::filesystem::rename(root_ / "a", root_ / "moved");
                                                       std::filesystem::create_symlink("moved", root_ / "a");
                                                     }}};
  for (const auto& [what, event] : events) {
    const Planned set(meanwhile("fstatat", event, levels_ + 1));
    EXPECT_FAILURE(private_directory(root_ / "a/b"), "unsafe_path", "Linux directory ancestry changed") << what;
    EXPECT_TRUE(set.happened()) << what;
    std::filesystem::remove_all(root_ / "a");
    std::filesystem::rename(root_ / "moved", root_ / "a");
  }
}

TEST_F(PosixFilesFault, PrivateDirectoryNoticesASwapAfterTheWalk) {
  make_private("a");
  // Resolving the system's own links takes one look at each level. The last look at the path comes after them.
  const Planned set(meanwhile(
      "lstat", [this] { swap("a"); }, levels_ + 2));
  EXPECT_FAILURE(private_directory(root_ / "a"), "unsafe_path", "Linux private directory path changed");
}

TEST_F(PosixFilesFault, PrivateDirectoryNewNamesTheStepThatFailed) {
  const struct {
    Plan plan;
    const char* code;
    const char* message;
  } steps[] = {
      {failing("anchor", EMFILE), "unsafe_path", "Cannot open new private directory ancestry"},
      {failing("openat", EMFILE), "unsafe_path", "New private directory requires ordinary existing parents"},
      {failing("mkdirat", ENOSPC), "native_install_commit", "Cannot reserve new private staging directory"},
      {failing("openat", EMFILE, levels_ + 1), "permissions", "Cannot anchor new Linux staging directory"},
      {failing("fchmod", EPERM), "permissions", "Cannot make new Linux storage private"},
      {failing("fstat", EIO, 3), "permissions", "New private staging directory permissions changed"},
      {failing("anchor", EMFILE, 2), "unsafe_path", "Cannot open new private directory ancestry"},
      {failing("fstat", EIO, 4), "native_install_commit", "New private staging directory path changed"},
      {failing("fstat", EIO, 5), "native_install_commit", "New private staging directory path changed"},
      {failing("fstatat", EIO), "native_install_commit", "New private staging directory path changed"},
  };
  for (const auto& step : steps) {
    const Planned set(step.plan);
    EXPECT_FAILURE(private_directory_new(root_ / "new"), step.code, step.message);
    EXPECT_TRUE(set.happened()) << step.message;
    std::filesystem::remove(root_ / "new");
  }
}

TEST_F(PosixFilesFault, PrivateDirectoryNewNoticesAModeThatChanges) {
  const auto widen = [this] { EXPECT_EQ(chmod((root_ / "new").c_str(), 0750), 0); };
  const Planned set(meanwhile("fstat", widen, 3));
  EXPECT_FAILURE(private_directory_new(root_ / "new"), "permissions",
                 "New private staging directory permissions changed");
}

TEST_F(PosixFilesFault, PrivateDirectoryNewNoticesASwap) {
  constexpr const char* changed = "New private staging directory path changed";
  {
    const Planned set(meanwhile("fstatat", [this] { swap("new"); }));
    EXPECT_FAILURE(private_directory_new(root_ / "new"), "native_install_commit", changed);
  }
  std::filesystem::remove(root_ / "moved");
  make_private("parent");
  const auto swap_parent = [this] {
    swap("parent");
    std::filesystem::rename(root_ / "moved/new", root_ / "parent/new");
  };
  const Planned set(meanwhile("anchor", swap_parent, 2));
  EXPECT_FAILURE(private_directory_new(root_ / "parent/new"), "native_install_commit", changed);
}

TEST_F(PosixFilesFault, PrivateDirectoryNewLeavesWhatItMadeBeforeAFailure) {
  const Planned set(failing("anchor", EMFILE, 2));
  EXPECT_FAILURE(private_directory_new(root_ / "new"), "unsafe_path", "Cannot open new private directory ancestry");
  EXPECT_EQ(root_.names(), Names{"new/"});
}

}  // namespace
}  // namespace ravok::posix_files_fault_test
