// Allocated files whose system calls fail, or are preceded by what another process does. The linker leads
// the calls through the wrappers below, which a test sets.

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/file/allocated_file.hpp"
#include "support/failure.hpp"
#include "support/temporary_root.hpp"

namespace {

// Returns the answer to give in place of the system's, or nothing to let the system answer.
using Answer = std::function<std::optional<ssize_t>()>;

struct Hook {
  std::string_view call;
  Answer answer;
};
std::vector<Hook> hooks;
std::function<void(struct stat&)> change_status;

std::optional<ssize_t> hooked(std::string_view call) {
  for (Hook& hook : hooks) {
    if (hook.call == call && hook.answer) {
      // Calls made by the answer itself go to the system.
      const Answer answer = std::exchange(hook.answer, nullptr);
      const std::optional<ssize_t> result = answer();
      hook.answer = answer;
      return result;
    }
  }
  return std::nullopt;
}

template <typename Result, typename Call>
Result through(std::string_view call, Call real) {
  const std::optional<ssize_t> answer = hooked(call);
  return answer ? static_cast<Result>(*answer) : real();
}

}  // namespace

extern "C" {

int __real_close(int descriptor);
int __wrap_close(int descriptor) {
  return through<int>("close", [&] { return __real_close(descriptor); });
}

int __real_fallocate(int descriptor, int mode, off_t offset, off_t length);
int __wrap_fallocate(int descriptor, int mode, off_t offset, off_t length) {
  return through<int>("fallocate", [&] { return __real_fallocate(descriptor, mode, offset, length); });
}

int __real_fchmod(int descriptor, mode_t mode);
int __wrap_fchmod(int descriptor, mode_t mode) {
  return through<int>("fchmod", [&] { return __real_fchmod(descriptor, mode); });
}

int __real_fstat(int descriptor, struct stat* status);
int __wrap_fstat(int descriptor, struct stat* status) {
  const int result = through<int>("fstat", [&] { return __real_fstat(descriptor, status); });
  if (result == 0 && change_status) {
    change_status(*status);
  }
  return result;
}

int __real_fsync(int descriptor);
int __wrap_fsync(int descriptor) {
  return through<int>("fsync", [&] { return __real_fsync(descriptor); });
}

int __real_ftruncate(int descriptor, off_t length);
int __wrap_ftruncate(int descriptor, off_t length) {
  return through<int>("ftruncate", [&] { return __real_ftruncate(descriptor, length); });
}

off_t __real_lseek(int descriptor, off_t offset, int whence);
off_t __wrap_lseek(int descriptor, off_t offset, int whence) {
  return through<off_t>("lseek", [&] { return __real_lseek(descriptor, offset, whence); });
}

ssize_t __real_pread(int descriptor, void* bytes, std::size_t count, off_t offset);
ssize_t __wrap_pread(int descriptor, void* bytes, std::size_t count, off_t offset) {
  return through<ssize_t>("pread", [&] { return __real_pread(descriptor, bytes, count, offset); });
}

int __real_unlinkat(int directory, const char* path, int flags);
int __wrap_unlinkat(int directory, const char* path, int flags) {
  return through<int>("unlink", [&] { return __real_unlinkat(directory, path, flags); });
}

// The most bytes that one call writes; 0 for no limit.
std::size_t write_limit = 0;
std::vector<std::size_t> write_requests;

ssize_t __real_write(int descriptor, const void* bytes, std::size_t count);
ssize_t __wrap_write(int descriptor, const void* bytes, std::size_t count) {
  return through<ssize_t>("write", [&] {
    write_requests.push_back(count);
    return __real_write(descriptor, bytes, write_limit != 0 && count > write_limit ? write_limit : count);
  });
}

}  // extern "C"

namespace ravok {
namespace {

using testing::TemporaryRoot;

using Names = std::vector<std::string>;

constexpr const char* no_room_for_blocks = "Cannot reserve file data; free space or choose other game storage";
constexpr const char* no_room = "Cannot allocate game storage; free space or choose another location";

std::string numbered(const std::string& message, int problem) { return message + " (" + std::to_string(problem) + ")"; }

class AllocatedFileFault : public ::testing::Test {
 protected:
  ~AllocatedFileFault() override { heal(); }

  // From here on the system answers every call.
  static void heal() {
    hooks.clear();
    change_status = nullptr;
    write_limit = 0;
    write_requests.clear();
  }

  static void answer(std::string_view call, Answer answer) { hooks.push_back({call, std::move(answer)}); }

  static void break_call(std::string_view call, int problem) {
    answer(call, [problem] {
      errno = problem;
      return ssize_t{-1};
    });
  }

  // Does something just before the first call of that name.
  static void before(std::string_view call, std::function<void()> work) {
    answer(call, [work = std::move(work), done = false]() mutable -> std::optional<ssize_t> {
      if (!std::exchange(done, true)) {
        work();
      }
      return std::nullopt;
    });
  }

  // Interrupts the first call of that name.
  static void interrupt(std::string_view call) {
    answer(call, [done = false]() mutable -> std::optional<ssize_t> {
      if (std::exchange(done, true)) {
        return std::nullopt;
      }
      errno = EINTR;
      return -1;
    });
  }

  void replace() const {
    std::filesystem::rename(path, root / "moved");
    root.write("file", "foreign");
    std::filesystem::permissions(path, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  }

  std::uintmax_t size_on_disk() const { return std::filesystem::file_size(path); }

  const TemporaryRoot root;
  const std::filesystem::path path = root / "file";
};

// --- Claiming blocks -----------------------------------------------------------------------

TEST_F(AllocatedFileFault, IsNotMadeOnAVolumeWithoutRoom) {
  for (const int problem : {ENOSPC, EDQUOT}) {
    break_call("fallocate", problem);
    EXPECT_FAILURE(AllocatedFile(path, 10, {}), "insufficient_space", no_room_for_blocks) << problem;
    EXPECT_EQ(root.names(), Names{});
    heal();
  }
}

TEST_F(AllocatedFileFault, NamesEveryOtherFailureToClaimBlocksByItsNumber) {
  for (const int problem : {EIO, EFBIG, ENODEV}) {
    break_call("fallocate", problem);
    EXPECT_FAILURE(AllocatedFile(path, 10, {}), "space_reservation",
                   numbered("Native file allocation failed", problem));
    EXPECT_EQ(root.names(), Names{});
    heal();
  }
}

TEST_F(AllocatedFileFault, WorksOnAVolumeThatCannotClaimBlocks) {
  const std::string rest(99'995, 'x');
  for (const int problem : {EOPNOTSUPP, ENOTSUP, ENOSYS}) {
    break_call("fallocate", problem);
    AllocatedFile file(path, 100'000, {});
    EXPECT_FALSE(file.reservation().allocated) << problem;
    EXPECT_EQ(size_on_disk(), 0u);
    file.write("abcde");
    EXPECT_EQ(size_on_disk(), 5u);
    file.write(rest);
    file.finish(true);
    EXPECT_EQ(root.read("file"), "abcde" + rest);
    std::filesystem::remove(path);
    heal();
  }
}

TEST_F(AllocatedFileFault, GoesOnAfterAResumeOnAVolumeThatCannotClaimBlocks) {
  const FileReservation reservation = AllocatedFile(path, 100'000, {}).retain_reservation();
  AllocatedFile(reservation).write("abcde");
  std::filesystem::resize_file(path, 5);
  break_call("fallocate", EOPNOTSUPP);
  AllocatedFile file(reservation, 5);
  file.reserve_remaining();
  EXPECT_FALSE(file.reservation().allocated);
  EXPECT_EQ(size_on_disk(), 5u);
  file.write("fgh");
  file.finish(false);
  EXPECT_EQ(root.read("file"), "abcdefgh");
}

TEST_F(AllocatedFileFault, ClaimsBlocksAgainWhenASignalCameBetween) {
  interrupt("fallocate");
  const AllocatedFile file(path, 100'000, {});
  EXPECT_GE(file.allocated_bytes(), 100'000u);
}

TEST_F(AllocatedFileFault, KeepsItsContentWhenTheRemainingBlocksCannotBeClaimed) {
  AllocatedFile file(path, 1'000'000, {});
  file.write("abcd");
  std::filesystem::resize_file(path, 4);
  break_call("fallocate", ENOSPC);
  EXPECT_FAILURE(file.reserve_remaining(), "insufficient_space", no_room_for_blocks);
  heal();
  break_call("fallocate", EIO);
  EXPECT_FAILURE(file.reserve_remaining(), "space_reservation", numbered("Native file allocation failed", EIO));
  heal();
  EXPECT_EQ(root.read("file"), "abcd");
  file.reserve_remaining();
  file.write("ef");
  file.finish(false);
  EXPECT_EQ(root.read("file"), "abcdef");
}

TEST_F(AllocatedFileFault, IsNotMadeWhenItsSizeCannotBeSet) {
  break_call("ftruncate", EIO);
  EXPECT_FAILURE(AllocatedFile(path, 10, {}), "space_reservation", numbered("Native file allocation failed", EIO));
  EXPECT_EQ(root.names(), Names{});
}

TEST_F(AllocatedFileFault, IsLeftAloneWhenReplacedWhileItsBlocksAreClaimed) {
  before("fallocate", [&] { replace(); });
  EXPECT_FAILURE(AllocatedFile(path, 10, {}), "allocation_changed", "New allocation changed during preparation");
  EXPECT_EQ(root.read("file"), "foreign");
  EXPECT_EQ(root.names(), (Names{"file", "moved"}));
}

// --- The first look ------------------------------------------------------------------------

TEST_F(AllocatedFileFault, LeavesANewFileThatCannotBeMadePrivateBecauseItIsNotProvedToBeOurs) {
  break_call("fchmod", EIO);
  EXPECT_EQ(testing::failure_of([&] { AllocatedFile(path, 10, {}); })->code, "permissions");
  EXPECT_EQ(root.read("file"), "");
}

TEST_F(AllocatedFileFault, MustBeginEmpty) {
  // The first three looks belong to making the file private.
  answer("fstat", [this, looks = 0]() mutable -> std::optional<ssize_t> {
    if (++looks == 3) {
      root.write("file", "early");
    }
    return std::nullopt;
  });
  EXPECT_FAILURE(AllocatedFile(path, 10, {}), "unsafe_path", "A new allocation must begin empty");
  EXPECT_EQ(root.names(), Names{});
}

TEST_F(AllocatedFileFault, IsLeftAloneWhenReplacedBeforeItsOwnershipIsRecorded) {
  before("fchmod", [&] { replace(); });
  bool told = false;
  EXPECT_FAILURE(AllocatedFile(path, 10, [&](const FileReservation&) { told = true; }), "allocation_changed",
                 "New allocation path changed before recording ownership");
  EXPECT_FALSE(told);
  EXPECT_EQ(root.read("file"), "foreign");
  EXPECT_EQ(root.names(), (Names{"file", "moved"}));
}

TEST_F(AllocatedFileFault, IsNotReopenedWhenReplacedWhileItIsOpened) {
  const FileReservation reservation = AllocatedFile(path, 7, {}).retain_reservation();
  before("fstat", [&] { replace(); });
  EXPECT_FAILURE(AllocatedFile{reservation}, "allocation_changed", "Prepared allocation path changed");
  EXPECT_EQ(root.read("file"), "foreign");
  EXPECT_EQ(root.read("moved"), std::string(7, '\0'));
}

TEST_F(AllocatedFileFault, IsNotVerifiedWhenReplacedWhileItIsLookedAt) {
  const FileReservation reservation = AllocatedFile(path, 7, {}).retain_reservation();
  before("fstat", [&] { replace(); });
  EXPECT_FAILURE(AllocatedFile::verify_identity(reservation), "allocation_changed",
                 "Owned partial file identity or bounds changed");
}

TEST_F(AllocatedFileFault, IsNotInspectedWhenReplacedWhileItIsLookedAt) {
  root.write("file", "cached");
  before("fstat", [&] { replace(); });
  EXPECT_FAILURE(AllocatedFile::inspect_file(path), "allocation_changed", "Cache file changed during inspection");
}

TEST_F(AllocatedFileFault, IsNotRecordedWithHalfOfADeviceNumber) {
  root.write("file", "content");
  change_status = [](struct stat& status) { status.st_dev |= std::uint64_t{1} << 32; };
  EXPECT_FAILURE(AllocatedFile::inspect_file(path), "unsafe_path",
                 "Allocation requires a device number of at most 32 bits");
  change_status = [](struct stat& status) { status.st_dev = 0xffffffff; };
  EXPECT_FAILURE(AllocatedFile::inspect_file(path), "allocation_changed", "Cache file changed during inspection");
}

TEST_F(AllocatedFileFault, IsNotUsedWhenItCannotBeLookedAtOrHasANegativeSize) {
  AllocatedFile file(path, 10, {});
  break_call("fstat", EIO);
  EXPECT_FAILURE(file.synchronize(), "unsafe_path", "Allocation requires an ordinary single-link file");
  heal();
  change_status = [](struct stat& status) { status.st_size = -1; };
  EXPECT_FAILURE(file.synchronize(), "unsafe_path", "Allocation requires an ordinary single-link file");
}

TEST_F(AllocatedFileFault, IsNotUsedWhenItBelongsToAnotherUser) {
  AllocatedFile file(path, 10, {});
  change_status = [](struct stat& status) { ++status.st_uid; };
  EXPECT_FAILURE(file.synchronize(), "permissions", "Linux allocation must remain private and owned");
}

TEST_F(AllocatedFileFault, IsNotUsedWhenTheOpenFileIsNoLongerTheRecordedOne) {
  AllocatedFile file(path, 10, {});
  change_status = [](struct stat& status) { ++status.st_ino; };
  EXPECT_FAILURE(file.synchronize(), "allocation_changed", "Prepared allocation identity changed");
}

TEST_F(AllocatedFileFault, CannotTellItsBlocksWithoutTheSystem) {
  const AllocatedFile file(path, 10, {});
  break_call("fstat", EIO);
  EXPECT_FAILURE(file.allocated_bytes(), "volume_query", "Cannot inspect existing file allocation");
  heal();
  change_status = [](struct stat& status) { status.st_blocks = -1; };
  EXPECT_FAILURE(file.allocated_bytes(), "volume_query", "Cannot inspect existing file allocation");
  change_status = [](struct stat& status) { status.st_blocks = blkcnt_t{1} << 55; };
  EXPECT_FAILURE(file.allocated_bytes(), "volume_query", "Cannot inspect existing file allocation");
}

// --- Writing -------------------------------------------------------------------------------

TEST_F(AllocatedFileFault, WritesInPiecesOfSixtyFourKibibytes) {
  AllocatedFile file(path, 200'000, {});
  file.write(std::string(65536 + 65536 + 1, 'x'));
  EXPECT_EQ(write_requests, (std::vector<std::size_t>{65536, 65536, 1}));
}

TEST_F(AllocatedFileFault, GoesOnBehindAShortWrite) {
  AllocatedFile file(path, 10, {});
  write_limit = 3;
  file.write("abcdefghij");
  EXPECT_EQ(write_requests, (std::vector<std::size_t>{10, 7, 4, 1}));
  EXPECT_EQ(file.written(), 10u);
  EXPECT_EQ(root.read("file"), "abcdefghij");
}

TEST_F(AllocatedFileFault, WritesAgainWhenASignalCameBetween) {
  AllocatedFile file(path, 3, {});
  interrupt("write");
  file.write("abc");
  EXPECT_EQ(root.read("file"), "abc");
}

TEST_F(AllocatedFileFault, ReportsAFailedWriteAndCountsWhatWasWrittenBefore) {
  AllocatedFile file(path, 200'000, {});
  int writes = 0;
  answer("write", [&]() -> std::optional<ssize_t> {
    if (++writes < 3) {
      return std::nullopt;
    }
    errno = EIO;
    return -1;
  });
  EXPECT_FAILURE(file.write(std::string(200'000, 'x')), "file_write", numbered("Cannot write staged file data", EIO));
  EXPECT_EQ(file.written(), 2u * 65536);
  heal();
  file.write("abc");
  file.finish(false);
  EXPECT_EQ(root.read("file"), std::string(std::size_t{2} * 65536, 'x') + "abc");
}

TEST_F(AllocatedFileFault, TellsThatTheVolumeIsFullWhenItIsOnlyFoundWhileWriting) {
  AllocatedFile file(path, 10, {});
  for (const int problem : {ENOSPC, EDQUOT}) {
    break_call("write", problem);
    EXPECT_FAILURE(file.write("abc"), "insufficient_space", no_room) << problem;
    EXPECT_EQ(file.written(), 0u);
    heal();
  }
}

TEST_F(AllocatedFileFault, DoesNotTryForEverToWriteNothing) {
  AllocatedFile file(path, 10, {});
  answer("write", [] { return ssize_t{0}; });
  EXPECT_FAILURE(file.write("abc"), "file_write", "Cannot advance staged file data");
  EXPECT_EQ(file.written(), 0u);
}

TEST_F(AllocatedFileFault, ReportsAPlaceThatCannotBeReached) {
  const FileReservation reservation = AllocatedFile(path, 10, {}).retain_reservation();
  const std::string message = numbered("Cannot position staged file data", EIO);
  {
    AllocatedFile file(reservation);
    file.write("abcd");
    break_call("lseek", EIO);
    EXPECT_FAILURE(file.restart(), "file_write", message);
    EXPECT_EQ(file.written(), 4u);
    EXPECT_FAILURE(file.reserve_remaining(), "file_write", message);
  }
  EXPECT_FAILURE(AllocatedFile(reservation, 4), "file_write", message);
  EXPECT_EQ(root.read("file"), std::string("abcd") + std::string(6, '\0'));
}

// --- Reading -------------------------------------------------------------------------------

TEST_F(AllocatedFileFault, ReportsAPrefixThatCannotBeRead) {
  AllocatedFile file(path, 10, {});
  std::string read;
  const auto sink = [&](std::string_view bytes) { read += bytes; };
  break_call("pread", EIO);
  EXPECT_FAILURE(file.read_prefix(10, sink, {}), "file_read", "Cannot read recorded partial prefix");
  heal();
  answer("pread", [] { return ssize_t{0}; });
  EXPECT_FAILURE(file.read_prefix(10, sink, {}), "file_read", "Cannot read recorded partial prefix");
  EXPECT_EQ(read, "");
}

TEST_F(AllocatedFileFault, ReadsAgainWhenASignalCameBetween) {
  AllocatedFile file(path, 3, {});
  file.write("abc");
  interrupt("pread");
  std::string read;
  file.read_prefix(3, [&](std::string_view bytes) { read += bytes; }, {});
  EXPECT_EQ(read, "abc");
}

// --- Ending --------------------------------------------------------------------------------

TEST_F(AllocatedFileFault, IsNotFinishedWhenItsLengthCannotBeSet) {
  {
    AllocatedFile file(path, 10, {});
    file.write("abc");
    break_call("ftruncate", EIO);
    EXPECT_FAILURE(file.finish(false), "file_write", numbered("Cannot set allocated file length", EIO));
    heal();
    break_call("ftruncate", ENOSPC);
    EXPECT_FAILURE(file.finish(false), "insufficient_space", no_room);
    EXPECT_EQ(size_on_disk(), 10u);
  }
  EXPECT_EQ(root.names(), Names{});
}

TEST_F(AllocatedFileFault, IsFinishedWhenASignalComesBetween) {
  AllocatedFile file(path, 10, {});
  file.write("abc");
  interrupt("ftruncate");
  interrupt("fsync");
  file.finish(false);
  EXPECT_EQ(root.read("file"), "abc");
}

TEST_F(AllocatedFileFault, IsNotFinishedWhenItChangesWhileItsLengthIsSet) {
  {
    AllocatedFile file(path, 10, {});
    file.write("abc");
    answer("ftruncate", [] { return ssize_t{0}; });
    EXPECT_FAILURE(file.finish(false), "allocation_changed", "Allocated file changed during writing");
    heal();
    before("ftruncate", [&] { replace(); });
    EXPECT_FAILURE(file.finish(false), "allocation_changed", "Allocated file changed during writing");
  }
  EXPECT_EQ(root.read("file"), "foreign");
  EXPECT_EQ(root.read("moved"), "abc");
}

TEST_F(AllocatedFileFault, IsNotFinishedBeforeItIsDurable) {
  {
    AllocatedFile file(path, 3, {});
    file.write("abc");
    break_call("fsync", EIO);
    EXPECT_FAILURE(file.finish(true), "file_sync", "Cannot synchronize reserved file data");
    EXPECT_FAILURE(file.synchronize(), "file_sync", "Cannot synchronize reserved file data");
    EXPECT_EQ(root.read("file"), "abc");
  }
  EXPECT_EQ(root.names(), Names{});
}

TEST_F(AllocatedFileFault, IsNotDiscardedWhenReplacedWhileItIsClosed) {
  {
    AllocatedFile file(path, 10, {});
    before("close", [&] { replace(); });
    EXPECT_FAILURE(file.discard(), "allocation_changed", "Partial path changed before disposal");
  }
  EXPECT_EQ(root.read("file"), "foreign");
  EXPECT_EQ(root.names(), (Names{"file", "moved"}));
}

TEST_F(AllocatedFileFault, ReportsAFileThatCannotBeDiscarded) {
  const FileReservation reservation = AllocatedFile(path, 10, {}).retain_reservation();
  AllocatedFile file(reservation);
  break_call("unlink", EPERM);
  EXPECT_FAILURE(file.discard(), "file_remove", "Cannot remove a discarded partial file");
  EXPECT_EQ(root.names(), Names{"file"});
}

TEST_F(AllocatedFileFault, ReportsADisposalThatMayNotBeDurable) {
  AllocatedFile file(path, 10, {});
  break_call("fsync", EIO);
  EXPECT_FAILURE(file.discard(), "file_sync", "Could not durably synchronize directory");
  EXPECT_EQ(root.names(), Names{});
}

TEST_F(AllocatedFileFault, StaysWithoutAWordWhenItCannotBeRemovedAsItIsDropped) {
  break_call("unlink", EPERM);
  EXPECT_NO_THROW(AllocatedFile(path, 10, {}));
  EXPECT_EQ(root.names(), Names{"file"});
}

// --- Modes ---------------------------------------------------------------------------------

TEST_F(AllocatedFileFault, ReportsAModeThatCannotBeSet) {
  AllocatedFile file(path, 10, {});
  break_call("fchmod", EPERM);
  EXPECT_FAILURE(file.set_executable(true), "file_permissions", "Cannot set private allocated file permissions");
  EXPECT_EQ(std::filesystem::status(path).permissions(),
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

TEST_F(AllocatedFileFault, IsNotUsedWhenReplacedWhileItsModeIsSet) {
  AllocatedFile file(path, 10, {});
  before("fchmod", [&] { replace(); });
  EXPECT_FAILURE(file.set_executable(true), "allocation_changed",
                 "Allocated file changed while setting executable permissions");
  EXPECT_EQ(std::filesystem::status(path).permissions(),
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

// --- Real volumes --------------------------------------------------------------------------

// A volume that only this process sees, or nothing where the process may not mount one.
class MountedVolume {
 public:
  MountedVolume(const std::filesystem::path& place, const char* kind, const char* options) {
    if (unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
        mount(kind, place.c_str(), kind, 0, options) == 0) {
      place_ = place;
    }
  }
  ~MountedVolume() {
    if (*this) {
      umount2(place_.c_str(), MNT_DETACH);
    }
  }
  MountedVolume(const MountedVolume&) = delete;
  MountedVolume& operator=(const MountedVolume&) = delete;

  explicit operator bool() const { return !place_.empty(); }

 private:
  std::filesystem::path place_;
};

TEST_F(AllocatedFileFault, WorksOnARealVolumeThatCannotClaimBlocks) {
  const MountedVolume volume(root.directory("volume"), "ramfs", nullptr);
  if (!volume) {
    GTEST_SKIP() << "only user 0 can mount a volume";
  }
  AllocatedFile file(root / "volume/file", 10, {});
  EXPECT_FALSE(file.reservation().allocated);
  EXPECT_EQ(std::filesystem::file_size(root / "volume/file"), 0u);
  file.write("0123456789");
  file.finish(true);
  EXPECT_EQ(root.read("volume/file"), "0123456789");
}

TEST_F(AllocatedFileFault, TakesNothingOfARealVolumeThatIsTooSmall) {
  const MountedVolume volume(root.directory("volume"), "tmpfs", "size=1m");
  if (!volume) {
    GTEST_SKIP() << "only user 0 can mount a volume";
  }
  EXPECT_FAILURE(AllocatedFile(root / "volume/file", 2'000'000, {}), "insufficient_space", no_room_for_blocks);
  EXPECT_EQ(root.names(), Names{"volume/"});
  EXPECT_EQ(AllocatedFile(root / "volume/file", 1'000'000, {}).reservation().allocated, true);
}

}  // namespace
}  // namespace ravok
