#include "platform/file/allocated_file.hpp"

#include <cerrno>
#include <fstream>
#include <functional>
#include <limits>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/os.hpp"
#include "support/failure.hpp"
#include "support/temporary_root.hpp"

namespace ravok::allocated_file_test {
namespace {

using testing::TemporaryRoot;

using Names = std::vector<std::string>;

constexpr std::uint64_t largest_length = std::numeric_limits<std::int64_t>::max();
constexpr const char* no_parent = "Allocation requires an ordinary parent directory";
constexpr const char* not_ordinary = "Allocation requires an ordinary single-link file";
constexpr const char* preserved = "Prepared file was replaced or changed; reserved content was preserved";

const std::string not_private = std::string(os::system_name()) + " allocation must remain private and owned";

std::string cannot_open(int problem) {
  return "Cannot exclusively create or reopen a prepared allocation (" + std::to_string(problem) + ")";
}

struct stat status_at(const std::filesystem::path& path) {
  struct stat status;
  EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
  return status;
}

void set_mode(const std::filesystem::path& path, mode_t mode) { ASSERT_EQ(chmod(path.c_str(), mode), 0); }

void hard_link(const std::filesystem::path& from, const std::filesystem::path& to) {
  std::filesystem::create_hard_link(from, to);
}

class AllocatedFileTest : public ::testing::Test {
 protected:
  const TemporaryRoot root;
  const std::filesystem::path path = root / "file";

  // Moves our file away, so that it keeps its inode, and puts a foreign one in its place.
  void replace() const {
    std::filesystem::rename(path, root / "moved");
    write_foreign();
  }

  void write_foreign() const { set_mode(root.write("file", "foreign"), 0600); }

  // Makes a file of `length` bytes on the disk and returns its reservation.
  FileReservation reserve(std::uint64_t length) const { return AllocatedFile(path, length, {}).retain_reservation(); }

  // The same, with content written to it.
  FileReservation reserve_with(std::uint64_t length, std::string_view content) const {
    const FileReservation reservation = reserve(length);
    AllocatedFile(reservation).write(content);
    return reservation;
  }
};

// --- Making --------------------------------------------------------------------------------

TEST_F(AllocatedFileTest, MakesAPrivateFileWithAllItsBlocks) {
  const AllocatedFile file(path, 100'000, {});
  const struct stat status = status_at(path);
  EXPECT_EQ(status.st_mode, S_IFREG | 0600u);
  EXPECT_EQ(status.st_size, 100'000);
  EXPECT_GE(status.st_blocks * 512, 100'000);
  EXPECT_EQ(file.allocated_bytes(), static_cast<std::uint64_t>(status.st_blocks) * 512);
  EXPECT_EQ(file.written(), 0u);
  EXPECT_EQ(file.size(), 100'000u);
  const FileReservation expected{path, 100'000, static_cast<std::uint32_t>(status.st_dev), status.st_ino, true};
  EXPECT_EQ(file.reservation(), expected);
}

TEST_F(AllocatedFileTest, MakesAFileWithoutContentThatHasNoBlocks) {
  AllocatedFile file(path, 0, {});
  EXPECT_FALSE(file.reservation().allocated);
  EXPECT_EQ(file.allocated_bytes(), 0u);
  EXPECT_FAILURE(file.write("x"), "size_limit", "Write exceeds the authenticated file length");
  file.finish(true);
  EXPECT_EQ(root.read("file"), "");
}

TEST_F(AllocatedFileTest, MakesAPathAbsolute) {
  const auto relative = root.path().lexically_relative(std::filesystem::current_path()) / "file";
  ASSERT_TRUE(relative.is_relative());
  const AllocatedFile file(relative, 1, {});
  EXPECT_TRUE(file.reservation().path.is_absolute());
  EXPECT_TRUE(std::filesystem::equivalent(file.reservation().path, path));
}

TEST_F(AllocatedFileTest, TellsOfANewFileBeforeItsBlocksAreClaimed) {
  std::vector<FileReservation> told;
  const AllocatedFile file(path, 100'000, [&](const FileReservation& reservation) {
    told.push_back(reservation);
    EXPECT_EQ(status_at(path).st_size, 0);
    EXPECT_EQ(status_at(path).st_blocks, 0);
  });
  FileReservation expected = file.reservation();
  expected.allocated = false;
  EXPECT_EQ(told, std::vector{expected});
}

TEST_F(AllocatedFileTest, IsNotReopenedWithWhatWasToldBeforeItsBlocksWereClaimed) {
  FileReservation told;
  AllocatedFile file(path, 100'000, [&](const FileReservation& reservation) { told = reservation; });
  const FileReservation made = file.retain_reservation();
  AllocatedFile::verify_identity(told);
  EXPECT_FAILURE(AllocatedFile{told}, "allocation_changed", preserved);
  EXPECT_EQ(AllocatedFile(made).reservation(), made);
}

TEST_F(AllocatedFileTest, IsGoneWhenItsOwnershipCannotBeRecorded) {
  EXPECT_THROW(AllocatedFile(path, 10, [](const FileReservation&) { throw std::runtime_error("no record"); }),
               std::runtime_error);
  EXPECT_EQ(root.names(), Names{});
}

TEST_F(AllocatedFileTest, NeverTakesANameThatExists) {
  write_foreign();
  EXPECT_FAILURE(AllocatedFile(path, 10, {}), "unsafe_path", cannot_open(EEXIST));
  EXPECT_EQ(root.read("file"), "foreign");
}

TEST_F(AllocatedFileTest, NeverMakesAFileThroughALink) {
  std::filesystem::create_symlink("elsewhere", path);
  EXPECT_FAILURE(AllocatedFile(path, 10, {}), "unsafe_path", cannot_open(EEXIST));
  EXPECT_EQ(root.names(), Names{"file@"});
}

// The system would take such a path to end at its NUL.
TEST_F(AllocatedFileTest, MakesAndOpensNoPathWithANul) {
  constexpr const char* with_nul = "Native path contains a NUL byte";
  const std::filesystem::path longer = path.native() + std::string("\0more", 5);
  EXPECT_FAILURE(AllocatedFile(longer, 4, {}), "unsafe_path", with_nul);
  EXPECT_EQ(root.names(), Names());
  EXPECT_FAILURE(AllocatedFile(longer, largest_length + 1, {}), "size_limit",
                 "File allocation exceeds native length bounds");
  FileReservation reservation = AllocatedFile(path, 4, {}).retain_reservation();
  reservation.path = longer;
  EXPECT_FAILURE(AllocatedFile{reservation}, "unsafe_path", with_nul);
  EXPECT_FAILURE(AllocatedFile(reservation, 0), "unsafe_path", with_nul);
  EXPECT_FAILURE(AllocatedFile::verify_identity(reservation), "unsafe_path", with_nul);
  EXPECT_FAILURE(AllocatedFile::inspect_file(longer), "unsafe_path", with_nul);
  EXPECT_EQ(root.names(), Names{"file"});
}

TEST_F(AllocatedFileTest, RefusesALengthThatTheSystemCannotHold) {
  EXPECT_FAILURE(AllocatedFile(path, largest_length + 1, {}), "size_limit",
                 "File allocation exceeds native length bounds");
  EXPECT_FAILURE(AllocatedFile("", largest_length + 1, {}), "size_limit",
                 "File allocation exceeds native length bounds");
  EXPECT_EQ(root.names(), Names{});
}

TEST_F(AllocatedFileTest, NeedsAnOrdinaryParentDirectory) {
  root.directory("real");
  root.write("plain", "x");
  std::filesystem::create_directory_symlink("real", root / "link");
  const Names before = root.names();
  for (const char* parent : {"missing", "plain", "link"}) {
    EXPECT_FAILURE(AllocatedFile(root / parent / "file", 10, {}), "unsafe_path", no_parent) << parent;
  }
  EXPECT_FAILURE(AllocatedFile("", 10, {}), "unsafe_path", no_parent);
  EXPECT_EQ(root.names(), before);
}

TEST_F(AllocatedFileTest, IsLeftAloneWhenReplacedWhileItsOwnershipIsRecorded) {
  EXPECT_FAILURE(AllocatedFile(path, 10, [&](const FileReservation&) { replace(); }), "allocation_changed",
                 "New allocation changed while recording ownership");
  EXPECT_EQ(root.read("file"), "foreign");
  EXPECT_EQ(root.read("moved"), "");
}

TEST_F(AllocatedFileTest, IsNotUsedWhenItGetsASecondNameWhileItsOwnershipIsRecorded) {
  EXPECT_FAILURE(AllocatedFile(path, 10, [&](const FileReservation&) { hard_link(path, root / "second"); }),
                 "unsafe_path", not_ordinary);
  EXPECT_EQ(root.names(), Names{"second"});
  EXPECT_EQ(root.read("second"), "");
}

TEST_F(AllocatedFileTest, IsNotUsedWhenOpenedToOthersWhileItsOwnershipIsRecorded) {
  EXPECT_FAILURE(AllocatedFile(path, 10, [&](const FileReservation&) { set_mode(path, 0604); }), "permissions",
                 not_private);
  EXPECT_EQ(root.names(), Names{});
}

TEST_F(AllocatedFileTest, MustHaveItsSizeAfterItsPreparation) {
  EXPECT_FAILURE(AllocatedFile(path, 0, [&](const FileReservation&) { root.write("file", "x"); }), "allocation_changed",
                 "New allocation changed during preparation");
  EXPECT_EQ(root.names(), Names{});
}

// --- Reopening -----------------------------------------------------------------------------

TEST_F(AllocatedFileTest, ReopensAReservedFileAndLeavesItBehind) {
  const FileReservation reservation = reserve(10);
  {
    AllocatedFile file(reservation);
    EXPECT_EQ(file.reservation(), reservation);
    EXPECT_EQ(file.written(), 0u);
    file.write("abc");
  }
  EXPECT_EQ(root.read("file"), std::string("abc") + std::string(7, '\0'));
}

TEST_F(AllocatedFileTest, ReopensAFileWhoseBlocksWereNotClaimed) {
  FileReservation reservation = reserve(10);
  std::filesystem::resize_file(path, 0);
  reservation.allocated = false;
  AllocatedFile file(reservation);
  file.write("0123456789");
  file.finish(true);
  EXPECT_EQ(root.read("file"), "0123456789");
}

TEST_F(AllocatedFileTest, GoesOnBehindTheRecordedContent) {
  const FileReservation reservation = reserve_with(10, "abcd");
  AllocatedFile file(reservation, 4);
  EXPECT_EQ(file.written(), 4u);
  file.write("efghij");
  EXPECT_EQ(file.written(), 10u);
  file.finish(true);
  EXPECT_EQ(root.read("file"), "abcdefghij");
}

TEST_F(AllocatedFileTest, ResumesAFileOfAnySizeBetweenItsContentAndItsLength) {
  const FileReservation reservation = reserve_with(10, "abcd");
  for (const std::uint64_t size : {10u, 7u, 4u}) {
    std::filesystem::resize_file(path, size);
    EXPECT_EQ(AllocatedFile(reservation, 4).written(), 4u) << size;
  }
  std::filesystem::resize_file(path, 10);
  EXPECT_EQ(AllocatedFile(reservation, 10).written(), 10u);
}

TEST_F(AllocatedFileTest, LeavesAFileOfAnotherIdentityAlone) {
  const FileReservation reservation = reserve_with(10, "abcd");
  FileReservation other_device = reservation;
  ++other_device.device;
  FileReservation other_inode = reservation;
  ++other_inode.inode;
  for (const FileReservation& other : {other_device, other_inode}) {
    EXPECT_FAILURE(AllocatedFile{other}, "allocation_changed", preserved);
    EXPECT_FAILURE(AllocatedFile(other, 4), "allocation_changed", preserved);
  }
  EXPECT_EQ(root.read("file"), std::string("abcd") + std::string(6, '\0'));
}

TEST_F(AllocatedFileTest, LeavesAReplacedFileAlone) {
  const FileReservation reservation = reserve(7);
  replace();
  EXPECT_FAILURE(AllocatedFile{reservation}, "allocation_changed", preserved);
  EXPECT_FAILURE(AllocatedFile(reservation, 7), "allocation_changed", preserved);
  EXPECT_EQ(root.read("file"), "foreign");
  EXPECT_EQ(root.read("moved"), std::string(7, '\0'));
}

TEST_F(AllocatedFileTest, RefusesAReservedFileOfAnotherSize) {
  FileReservation reservation = reserve(10);
  for (const std::uint64_t size : {0u, 9u, 11u}) {
    std::filesystem::resize_file(path, size);
    EXPECT_FAILURE(AllocatedFile{reservation}, "allocation_changed", preserved) << size;
    EXPECT_EQ(std::filesystem::file_size(path), size);
  }
  reservation.allocated = false;
  for (const std::uint64_t size : {1u, 10u}) {
    std::filesystem::resize_file(path, size);
    EXPECT_FAILURE(AllocatedFile{reservation}, "allocation_changed", preserved) << size;
    EXPECT_EQ(std::filesystem::file_size(path), size);
  }
}

TEST_F(AllocatedFileTest, RefusesToResumeAFileThatIsShorterThanItsContentOrLongerThanItsLength) {
  const FileReservation reservation = reserve_with(10, "abcd");
  for (const std::uint64_t size : {3u, 11u}) {
    std::filesystem::resize_file(path, size);
    EXPECT_FAILURE(AllocatedFile(reservation, 4), "allocation_changed", preserved) << size;
    EXPECT_EQ(std::filesystem::file_size(path), size);
  }
  std::filesystem::resize_file(path, 10);
  EXPECT_FAILURE(AllocatedFile(reservation, 11), "allocation_changed", preserved);
}

TEST_F(AllocatedFileTest, ReopensOnlyWhatIsThere) {
  const FileReservation reservation = reserve(10);
  std::filesystem::remove(path);
  EXPECT_FAILURE(AllocatedFile{reservation}, "unsafe_path", cannot_open(ENOENT));
  EXPECT_EQ(root.names(), Names{});
}

TEST_F(AllocatedFileTest, ReopensNothingThroughALink) {
  const FileReservation reservation = reserve(10);
  std::filesystem::rename(path, root / "moved");
  std::filesystem::create_symlink("moved", path);
  EXPECT_FAILURE(AllocatedFile{reservation}, "unsafe_path", cannot_open(ELOOP));
  EXPECT_EQ(root.names(), (Names{"file@", "moved"}));
}

TEST_F(AllocatedFileTest, ReopensNoDirectory) {
  FileReservation reservation = reserve(10);
  reservation.path = root.directory("folder");
  EXPECT_FAILURE(AllocatedFile{reservation}, "unsafe_path", cannot_open(EISDIR));
}

TEST_F(AllocatedFileTest, RefusesAQueueWithoutWaitingForItsOtherEnd) {
  const FileReservation reservation = reserve(10);
  std::filesystem::remove(path);
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  EXPECT_FAILURE(AllocatedFile{reservation}, "unsafe_path", not_ordinary);
  EXPECT_TRUE(std::filesystem::is_fifo(path));
}

TEST_F(AllocatedFileTest, ReopensNoFileWithASecondName) {
  const FileReservation reservation = reserve(10);
  hard_link(path, root / "second");
  EXPECT_FAILURE(AllocatedFile{reservation}, "unsafe_path", not_ordinary);
  EXPECT_EQ(root.names(), (Names{"file", "second"}));
}

TEST_F(AllocatedFileTest, ReopensNoFileThatIsNotPrivate) {
  const FileReservation reservation = reserve(10);
  for (const mode_t mode : {0640u, 0604u, 0610u, 04600u, 02600u, 01600u}) {
    set_mode(path, mode);
    EXPECT_FAILURE(AllocatedFile{reservation}, "permissions", not_private) << std::oct << mode;
    EXPECT_EQ(status_at(path).st_mode & 07777u, mode);
  }
}

TEST_F(AllocatedFileTest, ReopensNoFileOfAnotherUser) {
  if (!testing::is_root()) {
    GTEST_SKIP() << "only user 0 can give a file away";
  }
  const FileReservation reservation = reserve(10);
  ASSERT_EQ(chown(path.c_str(), 1, static_cast<gid_t>(-1)), 0);
  EXPECT_FAILURE(AllocatedFile{reservation}, "permissions", not_private);
  EXPECT_EQ(status_at(path).st_uid, 1u);
}

TEST_F(AllocatedFileTest, ReopensOnlyALengthThatTheSystemCanHoldInAnOrdinaryDirectory) {
  FileReservation reservation = reserve(10);
  reservation.size = largest_length + 1;
  EXPECT_FAILURE(AllocatedFile{reservation}, "size_limit", "File allocation exceeds native length bounds");
  reservation.size = 10;
  std::filesystem::create_directory_symlink(".", root / "link");
  reservation.path = root / "link/file";
  EXPECT_FAILURE(AllocatedFile{reservation}, "unsafe_path", no_parent);
}

// --- Writing -------------------------------------------------------------------------------

TEST_F(AllocatedFileTest, WritesPiecesOfAnySizeOneBehindTheOther) {
  std::string content(3 * 65536 + 5, '\0');
  for (std::size_t i = 0; i < content.size(); ++i) {
    content[i] = static_cast<char>(i * 31 >> 3);
  }
  AllocatedFile file(path, content.size(), {});
  const std::string_view text = content;
  file.write(text.substr(0, 1));
  file.write({});
  file.write(text.substr(1, 65536));
  EXPECT_EQ(file.written(), 65537u);
  file.write(text.substr(65537));
  EXPECT_EQ(file.written(), content.size());
  file.finish(true);
  EXPECT_EQ(root.read("file"), content);
}

TEST_F(AllocatedFileTest, WritesNothingOfWhatGoesOneByteBeyondItsLength) {
  AllocatedFile file(path, 5, {});
  file.write("ab");
  EXPECT_FAILURE(file.write("cdef"), "size_limit", "Write exceeds the authenticated file length");
  EXPECT_EQ(file.written(), 2u);
  EXPECT_EQ(root.read("file"), std::string("ab") + std::string(3, '\0'));
  file.write("cde");
  EXPECT_EQ(root.read("file"), "abcde");
}

// --- Ending --------------------------------------------------------------------------------

TEST_F(AllocatedFileTest, IsRemovedWhenItIsDropped) {
  {
    AllocatedFile file(path, 10, {});
    file.write("abc");
  }
  EXPECT_EQ(root.names(), Names{});
}

TEST_F(AllocatedFileTest, StaysWhenItIsDroppedAfterItWasPreserved) {
  {
    AllocatedFile file(path, 10, {});
    file.write("abc");
    file.preserve();
  }
  EXPECT_EQ(root.read("file"), std::string("abc") + std::string(7, '\0'));
}

TEST_F(AllocatedFileTest, LeavesAFileThatReplacedItAloneWhenItIsDropped) {
  {
    const AllocatedFile file(path, 10, {});
    replace();
  }
  EXPECT_EQ(root.read("file"), "foreign");
  EXPECT_EQ(root.read("moved"), std::string(10, '\0'));
}

TEST_F(AllocatedFileTest, LeavesALinkToItselfAloneWhenItIsDropped) {
  {
    const AllocatedFile file(path, 10, {});
    std::filesystem::rename(path, root / "moved");
    std::filesystem::create_symlink("moved", path);
  }
  EXPECT_EQ(root.names(), (Names{"file@", "moved"}));
}

TEST_F(AllocatedFileTest, IsDurableAndStaysWhenItIsFinished) {
  {
    AllocatedFile file(path, 5, {});
    file.write("abcde");
    file.finish(true);
    EXPECT_EQ(file.written(), 5u);
  }
  EXPECT_EQ(root.read("file"), "abcde");
  EXPECT_EQ(status_at(path).st_mode, S_IFREG | 0600u);
}

TEST_F(AllocatedFileTest, GivesBackWhatIsBehindItsContentWhenItIsFinishedShorter) {
  {
    AllocatedFile file(path, 1'000'000, {});
    file.write("abc");
    file.finish(false);
    EXPECT_LT(file.allocated_bytes(), 1'000'000u);
  }
  EXPECT_EQ(root.read("file"), "abc");
}

TEST_F(AllocatedFileTest, IsNotFinishedShorterWhereItsLengthIsExact) {
  {
    AllocatedFile file(path, 5, {});
    file.write("abcd");
    EXPECT_FAILURE(file.finish(true), "length_mismatch", "File data is shorter than its authenticated length");
    EXPECT_EQ(root.read("file"), std::string("abcd") + std::string(1, '\0'));
    file.write("e");
    file.finish(true);
  }
  EXPECT_EQ(root.read("file"), "abcde");
}

TEST_F(AllocatedFileTest, IsGoneWhenItIsDiscarded) {
  AllocatedFile file(path, 10, {});
  file.write("abc");
  file.discard();
  EXPECT_EQ(root.names(), Names{});
  EXPECT_FAILURE(file.allocated_bytes(), "volume_query", "Cannot inspect existing file allocation");
}

TEST_F(AllocatedFileTest, IsGoneWhenItIsDiscardedThoughItWasReopened) {
  const FileReservation reservation = reserve_with(10, "abc");
  AllocatedFile(reservation, 3).discard();
  EXPECT_EQ(root.names(), Names{});
}

TEST_F(AllocatedFileTest, LeavesItsNameToOthersOnceItIsDiscarded) {
  {
    AllocatedFile file(path, 10, {});
    file.discard();
    write_foreign();
  }
  EXPECT_EQ(root.read("file"), "foreign");
}

TEST_F(AllocatedFileTest, LeavesItsReservedFileToTheCaller) {
  FileReservation reservation;
  {
    AllocatedFile file(path, 10, {});
    reservation = file.retain_reservation();
    EXPECT_FAILURE(file.write("x"), "file_write", "Cannot write staged file data (" + std::to_string(EBADF) + ")");
    EXPECT_EQ(file.reservation(), reservation);
  }
  EXPECT_EQ(root.read("file"), std::string(10, '\0'));
  EXPECT_EQ(AllocatedFile(reservation).reservation(), reservation);
}

TEST_F(AllocatedFileTest, RetainsNothingThatWasWrittenTo) {
  {
    AllocatedFile file(path, 10, {});
    file.write("x");
    EXPECT_FAILURE(file.retain_reservation(), "allocation_changed", "Cannot retain a changed allocation");
    file.write("y");
  }
  EXPECT_EQ(root.names(), Names{});
}

// --- Steps in between ----------------------------------------------------------------------

TEST_F(AllocatedFileTest, WritesFromTheStartAgainAfterARestart) {
  AllocatedFile file(path, 5, {});
  file.write("abcde");
  file.restart();
  EXPECT_EQ(file.written(), 0u);
  EXPECT_EQ(root.read("file"), "abcde");
  file.write("xy");
  EXPECT_EQ(root.read("file"), "xycde");
  file.finish(false);
  EXPECT_EQ(root.read("file"), "xy");
}

TEST_F(AllocatedFileTest, ClaimsTheRemainingBlocksOfAResumedFile) {
  const FileReservation reservation = reserve_with(1'000'000, "abcd");
  std::filesystem::resize_file(path, 4);
  AllocatedFile file(reservation, 4);
  ASSERT_LT(file.allocated_bytes(), 1'000'000u);
  file.reserve_remaining();
  EXPECT_GE(file.allocated_bytes(), 1'000'000u);
  EXPECT_EQ(std::filesystem::file_size(path), 1'000'000u);
  EXPECT_TRUE(file.reservation().allocated);
  file.write("ef");
  file.finish(false);
  EXPECT_EQ(root.read("file"), "abcdef");
}

TEST_F(AllocatedFileTest, ReservesNothingForAFileWithoutContent) {
  AllocatedFile file(path, 0, {});
  file.reserve_remaining();
  EXPECT_FALSE(file.reservation().allocated);
  EXPECT_EQ(std::filesystem::file_size(path), 0u);
}

TEST_F(AllocatedFileTest, IsSynchronizedWithoutBeingFinished) {
  {
    AllocatedFile file(path, 10, {});
    file.write("abc");
    file.synchronize();
    EXPECT_EQ(std::filesystem::file_size(path), 10u);
  }
  EXPECT_EQ(root.names(), Names{});
}

TEST_F(AllocatedFileTest, BecomesExecutableForItsUserAloneAndBack) {
  AllocatedFile file(path, 3, {});
  file.set_executable(true);
  EXPECT_EQ(status_at(path).st_mode, S_IFREG | 0700u);
  file.set_executable(false);
  EXPECT_EQ(status_at(path).st_mode, S_IFREG | 0600u);
  file.set_executable(true);
  file.write("abc");
  file.finish(true);
  EXPECT_EQ(status_at(path).st_mode, S_IFREG | 0700u);
}

// --- Files changed behind the object's back ------------------------------------------------

struct Step {
  const char* name;
  std::function<void(AllocatedFile&)> run;
  const char* changed;
};

// The steps on a file of 10 bytes of which "abcd" is written. The first five look at the open file.
const std::vector<Step>& steps() {
  static const std::vector<Step> all = {
      {"finish", [](AllocatedFile& file) { file.finish(false); }, "Allocated file changed before completion"},
      {"reserve_remaining", [](AllocatedFile& file) { file.reserve_remaining(); }, "Resume allocation changed"},
      {"synchronize", [](AllocatedFile& file) { file.synchronize(); }, "Partial file changed before synchronization"},
      {"set_executable", [](AllocatedFile& file) { file.set_executable(true); },
       "Allocated file changed before setting executable permissions"},
      {"read_prefix",
       [](AllocatedFile& file) { file.read_prefix(4, [](std::string_view) { ADD_FAILURE() << "read"; }, {}); },
       "Recorded prefix changed"},
      {"restart", [](AllocatedFile& file) { file.restart(); }, "Cannot restart a replaced partial file"},
      {"preserve", [](AllocatedFile& file) { file.preserve(); }, "Cannot preserve a replaced partial file"},
      {"discard", [](AllocatedFile& file) { file.discard(); }, "Cannot discard a replaced partial file"},
      {"retain_reservation", [](AllocatedFile& file) { file.retain_reservation(); },
       "Cannot retain a changed allocation"},
  };
  return all;
}

constexpr std::size_t inspecting_steps = 5;

class ChangedFile : public ::testing::TestWithParam<std::size_t> {
 protected:
  const TemporaryRoot root;
  const std::filesystem::path path = root / "file";
  const Step& step = steps()[GetParam()];
  const std::string held = std::string("abcd") + std::string(6, '\0');

  // Makes the file, changes it, and expects the step to fail; then drops the object.
  void expect_failure(const std::function<void()>& change, const std::string& code, const std::string& message) const {
    AllocatedFile file(path, 10, {});
    // A file that was written to is never retained, whatever else became of it.
    if (step.name != std::string("retain_reservation")) {
      file.write("abcd");
    }
    change();
    EXPECT_FAILURE(step.run(file), code, message);
  }
};

std::string step_name(const ::testing::TestParamInfo<std::size_t>& info) { return steps()[info.param].name; }

INSTANTIATE_TEST_SUITE_P(EveryStep, ChangedFile, ::testing::Range<std::size_t>(0, 9), step_name);

TEST_P(ChangedFile, IsLeftAloneWhenAnotherFileStandsAtThePath) {
  expect_failure(
      [&] {
        std::filesystem::rename(path, root / "moved");
        set_mode(root.write("file", "foreign"), 0600);
      },
      "allocation_changed", step.changed);
  EXPECT_EQ(root.read("file"), "foreign");
  EXPECT_EQ(status_at(path).st_mode, S_IFREG | 0600u);
  EXPECT_EQ(std::filesystem::file_size(root / "moved"), 10u);
  EXPECT_EQ(status_at(root / "moved").st_mode, S_IFREG | 0600u);
}

TEST_P(ChangedFile, IsNotUsedWhenItsNameIsGone) {
  expect_failure([&] { std::filesystem::rename(path, root / "moved"); }, "allocation_changed", step.changed);
  EXPECT_EQ(root.names(), Names{"moved"});
}

TEST_P(ChangedFile, IsNotUsedThroughALink) {
  expect_failure(
      [&] {
        std::filesystem::rename(path, root / "moved");
        std::filesystem::create_symlink("moved", path);
      },
      "allocation_changed", step.changed);
  EXPECT_EQ(root.names(), (Names{"file@", "moved"}));
}

class ChangedOpenFile : public ChangedFile {};

INSTANTIATE_TEST_SUITE_P(EveryStep, ChangedOpenFile, ::testing::Range<std::size_t>(0, inspecting_steps), step_name);

TEST_P(ChangedOpenFile, IsNotUsedWhenItGetsASecondName) {
  expect_failure([&] { hard_link(path, root / "second"); }, "unsafe_path", not_ordinary);
  EXPECT_EQ(root.names(), Names{"second"});
  EXPECT_EQ(root.read("second"), held);
}

TEST_P(ChangedOpenFile, IsNotUsedWhenOpenedToOthers) {
  expect_failure([&] { set_mode(path, 0640); }, "permissions", not_private);
  EXPECT_EQ(root.names(), Names{});
}

// Bytes after the prefix do not matter to its reader.
class GrownFile : public ChangedFile {};

INSTANTIATE_TEST_SUITE_P(EveryStep, GrownFile, ::testing::Values<std::size_t>(0, 1, 2, 3), step_name);

TEST_P(GrownFile, IsNotUsedBeyondItsLength) {
  expect_failure([&] { std::filesystem::resize_file(path, 11); }, "allocation_changed", step.changed);
  EXPECT_EQ(root.names(), Names{});
}

// A change of mode does not need the content.
class ShortenedFile : public ChangedFile {};

INSTANTIATE_TEST_SUITE_P(EveryStep, ShortenedFile, ::testing::Values<std::size_t>(0, 1, 2, 4), step_name);

TEST_P(ShortenedFile, IsNotUsedWithoutAllOfItsContent) {
  expect_failure([&] { std::filesystem::resize_file(path, 3); }, "allocation_changed", step.changed);
  EXPECT_EQ(root.names(), Names{});
}

// --- Prefixes ------------------------------------------------------------------------------

using Reports = std::vector<std::pair<std::uint64_t, std::uint64_t>>;

TEST_F(AllocatedFileTest, ReadsARecordedPrefixInPiecesAndTellsHowFarItIs) {
  const std::string content = std::string(65536, 'a') + std::string(65536, 'b') + "c";
  AllocatedFile file(path, 200'000, {});
  file.write(content);
  file.write("not asked for");
  std::vector<std::string> pieces;
  Reports reports;
  file.read_prefix(
      content.size(), [&](std::string_view bytes) { pieces.emplace_back(bytes); },
      [&](std::uint64_t done, std::uint64_t total) {
        reports.emplace_back(done, total);
        return true;
      });
  EXPECT_EQ(pieces, (std::vector{std::string(65536, 'a'), std::string(65536, 'b'), std::string("c")}));
  EXPECT_EQ(reports, (Reports{{0, 131073}, {65536, 131073}, {131072, 131073}, {131073, 131073}}));
}

TEST_F(AllocatedFileTest, ReadsAPrefixWithoutTellingAnybodyAndWithoutMovingTheNextWrite) {
  AllocatedFile file(path, 6, {});
  file.write("abcd");
  std::string read;
  file.read_prefix(4, [&](std::string_view bytes) { read += bytes; }, {});
  EXPECT_EQ(read, "abcd");
  file.write("ef");
  EXPECT_EQ(root.read("file"), "abcdef");
}

TEST_F(AllocatedFileTest, TellsOnceOfAPrefixWithoutContent) {
  AllocatedFile file(path, 6, {});
  Reports reports;
  file.read_prefix(
      0, [](std::string_view) { ADD_FAILURE() << "read"; },
      [&](std::uint64_t done, std::uint64_t total) {
        reports.emplace_back(done, total);
        return true;
      });
  EXPECT_EQ(reports, (Reports{{0, 0}}));
}

TEST_F(AllocatedFileTest, ReadsNoMoreOfAPrefixOnceItIsCancelled) {
  AllocatedFile file(path, 100'000, {});
  for (const std::uint64_t end : {0u, 65536u, 100'000u}) {
    std::uint64_t read = 0;
    EXPECT_FAILURE(file.read_prefix(
                       100'000, [&](std::string_view bytes) { read += bytes.size(); },
                       [&](std::uint64_t done, std::uint64_t) { return done < end; }),
                   "cancelled", "Partial verification cancelled");
    EXPECT_EQ(read, end);
  }
}

TEST_F(AllocatedFileTest, RefusesAPrefixThatIsReplacedWhileItIsRead) {
  AllocatedFile file(path, 4, {});
  EXPECT_FAILURE(file.read_prefix(4, [&](std::string_view) { replace(); }, {}), "allocation_changed",
                 "Partial file changed during prefix verification");
  EXPECT_EQ(root.read("file"), "foreign");
}

TEST_F(AllocatedFileTest, RefusesAPrefixThatGetsASecondNameWhileItIsRead) {
  AllocatedFile file(path, 4, {});
  EXPECT_FAILURE(file.read_prefix(4, [&](std::string_view) { hard_link(path, root / "second"); }, {}), "unsafe_path",
                 not_ordinary);
}

TEST_F(AllocatedFileTest, RefusesAPrefixThatEndsWhileItIsRead) {
  AllocatedFile file(path, 100'000, {});
  EXPECT_FAILURE(file.read_prefix(100'000, [&](std::string_view) { std::filesystem::resize_file(path, 65536); }, {}),
                 "file_read", "Cannot read recorded partial prefix");
}

TEST_F(AllocatedFileTest, LetsTheFailureOfASinkThrough) {
  AllocatedFile file(path, 4, {});
  EXPECT_THROW(file.read_prefix(4, [](std::string_view) { throw std::runtime_error("sink"); }, {}), std::runtime_error);
}

// --- Files that are only looked at ---------------------------------------------------------

TEST_F(AllocatedFileTest, VerifiesAReservedFileOfAnySizeUpToItsLength) {
  const FileReservation reservation = reserve(10);
  for (const std::uint64_t size : {0u, 5u, 10u}) {
    std::filesystem::resize_file(path, size);
    EXPECT_NO_THROW(AllocatedFile::verify_identity(reservation)) << size;
    EXPECT_EQ(std::filesystem::file_size(path), size);
  }
}

TEST_F(AllocatedFileTest, VerifiesTheIdentityOfAFileThatOthersMayRead) {
  const FileReservation reservation = reserve(10);
  set_mode(path, 0644);
  EXPECT_NO_THROW(AllocatedFile::verify_identity(reservation));
}

TEST_F(AllocatedFileTest, VerifiesNoFileThatIsLongerThanItsReservation) {
  const FileReservation reservation = reserve(10);
  std::filesystem::resize_file(path, 11);
  EXPECT_FAILURE(AllocatedFile::verify_identity(reservation), "allocation_changed",
                 "Owned partial file identity or bounds changed");
  EXPECT_EQ(std::filesystem::file_size(path), 11u);
}

TEST_F(AllocatedFileTest, VerifiesNoFileOfAnotherIdentity) {
  const FileReservation reservation = reserve(10);
  FileReservation other_device = reservation;
  ++other_device.device;
  FileReservation other_inode = reservation;
  ++other_inode.inode;
  for (const FileReservation& other : {other_device, other_inode}) {
    EXPECT_FAILURE(AllocatedFile::verify_identity(other), "allocation_changed", "Prepared allocation identity changed");
  }
  replace();
  EXPECT_FAILURE(AllocatedFile::verify_identity(reservation), "allocation_changed",
                 "Prepared allocation identity changed");
  EXPECT_EQ(root.read("file"), "foreign");
}

TEST_F(AllocatedFileTest, VerifiesNothingThatIsNoOrdinaryFile) {
  FileReservation reservation = reserve(10);
  hard_link(path, root / "second");
  EXPECT_FAILURE(AllocatedFile::verify_identity(reservation), "unsafe_path", not_ordinary);
  ASSERT_EQ(mkfifo((root / "queue").c_str(), 0600), 0);
  reservation.path = root / "queue";
  EXPECT_FAILURE(AllocatedFile::verify_identity(reservation), "unsafe_path", not_ordinary);
  reservation.path = root.path();
  EXPECT_FAILURE(AllocatedFile::verify_identity(reservation), "unsafe_path", not_ordinary);
}

TEST_F(AllocatedFileTest, VerifiesNothingThatIsMissingOrALink) {
  const FileReservation reservation = reserve(10);
  std::filesystem::rename(path, root / "moved");
  EXPECT_FAILURE(AllocatedFile::verify_identity(reservation), "unsafe_path",
                 "Cannot inspect owned partial file identity");
  std::filesystem::create_symlink("moved", path);
  EXPECT_FAILURE(AllocatedFile::verify_identity(reservation), "unsafe_path",
                 "Cannot inspect owned partial file identity");
}

TEST_F(AllocatedFileTest, InspectsAFileAsItStands) {
  root.write("file", "content");
  set_mode(path, 0644);
  const struct stat status = status_at(path);
  const FileReservation expected{path, 7, static_cast<std::uint32_t>(status.st_dev), status.st_ino, false};
  EXPECT_EQ(AllocatedFile::inspect_file(path), expected);
  EXPECT_NO_THROW(AllocatedFile::verify_identity(expected));
  EXPECT_EQ(root.read("file"), "content");
  EXPECT_EQ(status_at(path).st_mode, S_IFREG | 0644u);
}

TEST_F(AllocatedFileTest, InspectsAFileByItsAbsolutePath) {
  write_foreign();
  const auto relative = root.path().lexically_relative(std::filesystem::current_path()) / "file";
  const FileReservation reservation = AllocatedFile::inspect_file(relative);
  EXPECT_TRUE(reservation.path.is_absolute());
  EXPECT_TRUE(std::filesystem::equivalent(reservation.path, path));
}

TEST_F(AllocatedFileTest, InspectsOnlyAnOrdinaryFile) {
  const auto message = "Cannot inspect cache file identity";
  EXPECT_FAILURE(AllocatedFile::inspect_file(path), "unsafe_path", message);
  EXPECT_FAILURE(AllocatedFile::inspect_file(""), "unsafe_path", message);
  write_foreign();
  std::filesystem::create_symlink("file", root / "link");
  EXPECT_FAILURE(AllocatedFile::inspect_file(root / "link"), "unsafe_path", message);
  hard_link(path, root / "second");
  EXPECT_FAILURE(AllocatedFile::inspect_file(path), "unsafe_path", not_ordinary);
  EXPECT_FAILURE(AllocatedFile::inspect_file(root.path()), "unsafe_path", not_ordinary);
}

}  // namespace
}  // namespace ravok::allocated_file_test
