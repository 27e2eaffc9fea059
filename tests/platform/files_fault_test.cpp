// Every failure of the calls that reading and writing files make. The linker leads the calls
// through the wrappers below, which fail, cut short or precede with an event what a test names.

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/files.hpp"
#include "platform/os.hpp"
#include "support/failure.hpp"
#include "support/temporary_root.hpp"

namespace {

using Calls = std::vector<std::string>;

struct Plan {
  std::string_view call = {};
  int countdown = 0;  // the call that is meant, counted from 1
  bool fails = false;
  int problem = 0;                       // errno of the failure; 0 makes the call answer 0
  std::function<void()> meanwhile = {};  // runs ahead of the call
};

Plan plan;
Calls calls;
std::size_t longest_piece = std::string::npos;
std::size_t longest_read = 0;

// Whether the call is the one that the plan fails, with errno set.
bool is_failed(std::string_view call) {
  calls.emplace_back(call);
  if (plan.call != call || --plan.countdown != 0) {
    return false;
  }
  if (plan.meanwhile) {
    std::exchange(plan.meanwhile, {})();
  }
  errno = plan.problem;
  return plan.fails;
}

int answer() { return errno == 0 ? 0 : -1; }

std::string_view name_of_open(std::string_view path, int flags) {
  if ((flags & O_CREAT) != 0) {
    return "create";
  }
  if ((flags & ravok::os::passage_flags()) == ravok::os::passage_flags()) {
    return "level";
  }
  if ((flags & O_DIRECTORY) != 0) {
    return path == "/" ? "anchor" : "open directory";
  }
  return "open";
}

}  // namespace

extern "C" {

int __real_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return is_failed(name_of_open(path, flags)) ? answer() : __real_open(path, flags, mode);
}

int __real_openat(int parent, const char* path, int flags, ...);
int __wrap_openat(int parent, const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  // Every other directory that is opened by its name is a level on the way.
  const bool is_level = (flags & O_DIRECTORY) != 0 && std::string_view(path) != ".";
  return is_failed(is_level ? "level" : name_of_open(path, flags)) ? answer()
                                                                   : __real_openat(parent, path, flags, mode);
}

int __real_fstat(int file, struct stat* status);
int __wrap_fstat(int file, struct stat* status) { return is_failed("fstat") ? answer() : __real_fstat(file, status); }

off_t __real_lseek(int file, off_t offset, int whence);
off_t __wrap_lseek(int file, off_t offset, int whence) {
  return is_failed("lseek") ? answer() : __real_lseek(file, offset, whence);
}

ssize_t __real_read(int file, void* bytes, std::size_t size);
ssize_t __wrap_read(int file, void* bytes, std::size_t size) {
  longest_read = std::max(longest_read, size);
  return is_failed("read") ? answer() : __real_read(file, bytes, std::min(size, longest_piece));
}

ssize_t __real_write(int file, const void* bytes, std::size_t size);
ssize_t __wrap_write(int file, const void* bytes, std::size_t size) {
  return is_failed("write") ? answer() : __real_write(file, bytes, std::min(size, longest_piece));
}

int __real_fchmod(int file, mode_t mode);
int __wrap_fchmod(int file, mode_t mode) { return is_failed("fchmod") ? answer() : __real_fchmod(file, mode); }

int __real_fsync(int file);
int __wrap_fsync(int file) { return is_failed("fsync") ? answer() : __real_fsync(file); }

int __real_renameat(int from_parent, const char* from, int to_parent, const char* to);
int __wrap_renameat(int from_parent, const char* from, int to_parent, const char* to) {
  return is_failed("rename") ? answer() : __real_renameat(from_parent, from, to_parent, to);
}

int __real_linkat(int from_parent, const char* from, int to_parent, const char* to, int flags);
int __wrap_linkat(int from_parent, const char* from, int to_parent, const char* to, int flags) {
  return is_failed("link") ? answer() : __real_linkat(from_parent, from, to_parent, to, flags);
}

int __real_unlinkat(int parent, const char* path, int flags);
int __wrap_unlinkat(int parent, const char* path, int flags) {
  return is_failed("unlink") ? answer() : __real_unlinkat(parent, path, flags);
}

}  // extern "C"

namespace ravok {
namespace {

using Names = std::vector<std::string>;
using Writer = void (*)(const std::filesystem::path&, std::string_view);

constexpr const char* changed_while_reading = "File changed while reading";
constexpr const char* no_space = "Local storage cannot save data; free space and try again";

// A plan for as long as it lives.
class Planned {
 public:
  explicit Planned(Plan set) {
    plan = std::move(set);
    calls.clear();
  }
  ~Planned() {
    plan = {};
    longest_piece = std::string::npos;
  }
  Planned(const Planned&) = delete;
  Planned& operator=(const Planned&) = delete;

  // Whether the call that was meant was made.
  bool happened() const { return plan.countdown <= 0; }
};

Plan failing(std::string_view call, int problem, int countdown = 1) {
  return {.call = call, .countdown = countdown, .fails = true, .problem = problem};
}

Plan meanwhile(std::string_view call, std::function<void()> event, int countdown = 1) {
  return {.call = call, .countdown = countdown, .meanwhile = std::move(event)};
}

// The calls, of those named, in the order in which `work` makes them.
Calls order_of(const std::function<void()>& work, const Calls& named) {
  const Planned set({});
  work();
  Calls order;
  std::copy_if(calls.begin(), calls.end(), std::back_inserter(order),
               [&](const std::string& call) { return std::find(named.begin(), named.end(), call) != named.end(); });
  return order;
}

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
  const Planned set({});
  longest_piece = 2;
  EXPECT_EQ(read_file(file, 7), "content");
}

TEST_F(FileCallFault, ReadingAsksForAtMost64KiBAtOnce) {
  const auto file = root_.write("file", std::string(200000, 'x'));
  longest_read = 0;
  read_file(file, 200000);
  EXPECT_EQ(longest_read, 65536u);
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
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "fsync"), 2);
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

TEST_F(FileCallFault, ADurableWriteFlushesTheFileBeforeItsNameAndTheDirectoryAfterIt) {
  const Calls named = {"create", "fchmod", "write", "fsync", "rename", "link", "unlink"};
  EXPECT_EQ(order_of([&] { atomic_write(root_ / "record", "x"); }, named),
            (Calls{"create", "fchmod", "write", "fsync", "rename", "fsync"}));
  EXPECT_EQ(order_of([&] { atomic_private_create(root_ / "new", "x"); }, named),
            (Calls{"create", "fchmod", "write", "fsync", "link", "unlink", "fsync"}));
  EXPECT_EQ(order_of([&] { atomic_create(root_ / "export", "x"); }, named),
            (Calls{"create", "write", "fsync", "link", "unlink", "fsync"}));
}

TEST_F(FileCallFault, AWriteWhoseLossIsHarmlessFlushesNothing) {
  const Calls named = {"create", "fchmod", "write", "fsync", "rename", "link", "unlink"};
  EXPECT_EQ(order_of([&] { replace_private_file(root_ / "cache", "x"); }, named),
            (Calls{"create", "fchmod", "write", "rename"}));
}

TEST_F(FileCallFault, WritingIsRepeatedAfterAnInterruptionAndGoesOnAfterAShortAnswer) {
  {
    const Planned set(failing("write", EINTR));
    atomic_write(root_ / "record", "content");
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "write"), 2);
  }
  EXPECT_EQ(root_.read("record"), "content");
  {
    const Planned set({});
    longest_piece = 2;
    atomic_write(root_ / "record", "another");
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "write"), 4);
  }
  EXPECT_EQ(root_.read("record"), "another");
}

struct Step {
  const char* call;
  int problem;
  const char* message;
};

// Fails one step of a writer in every way, and looks that the destination is as it was.
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

  void expect_unchanged_after(const Plan& set_plan, Writer write, const std::string& code, const std::string& message) {
    const Planned set(set_plan);
    EXPECT_FAILURE(write(destination_, "new"), code, message);
    EXPECT_EQ(root_.names(), before_);
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
      expect_unchanged_after(failing("create", problem), write, "insufficient_space", no_space);
    }
  }
}

TEST_F(FileCallFaultOfAWriter, AFileThatCannotBeMadePrivateHoldsNoByteAndIsRemoved) {
  for (const Writer write : {atomic_write, atomic_private_create, replace_private_file}) {
    expect_unchanged_after(failing("fchmod", EPERM), write, "permissions", "Cannot make new Linux storage private");
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "write"), 0);
  }
}

TEST_F(FileCallFaultOfAWriter, ATransactionFileOfAnotherIsNeitherUsedNorRemoved) {
  const Planned set(failing("create", EEXIST));
  const auto failure = testing::failure_of([&] { atomic_write(destination_, "new"); });
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->code, "file_write");
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "unlink"), 0);
}

TEST_F(FileCallFaultOfAWriter, ANameThatAppearsMeanwhileIsNotReplacedByACreate) {
  const Planned set(meanwhile("link", [this] { root_.write("record", "theirs"); }));
  EXPECT_FAILURE(atomic_create(destination_, "new"), "file_write",
                 with_number("Cannot create export; the destination may already exist", EEXIST));
  EXPECT_EQ(root_.names(), Names{"record"});
  EXPECT_EQ(root_.read("record"), "theirs");
}

TEST_F(FileCallFaultOfAWriter, AParentThatWasReplacedMeanwhileGetsNothing) {
  root_.write("place/record", "old");
  for (const Writer write : {atomic_write, replace_private_file, atomic_private_create, atomic_create}) {
    const bool replaces = write == atomic_write || write == replace_private_file;
    const Planned set(meanwhile("write", [this] {
      std::filesystem::rename(root_ / "place", root_ / "away");
      root_.directory("other");
      std::filesystem::create_symlink("other", root_ / "place");
    }));
    EXPECT_FAILURE(write(root_ / "place/record", "new"), "file_write",
                   with_number(replaces ? "Cannot commit transaction file"
                                        : "Cannot create export; the destination may already exist",
                               ENOENT));
    EXPECT_EQ(root_.names(), (Names{"away/", "away/record", "other/", "place@"}));
    EXPECT_EQ(root_.read("away/record"), "old");
    std::filesystem::remove(root_ / "place");
    std::filesystem::rename(root_ / "away", root_ / "place");
  }
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
          {failing("open directory", EMFILE), "Cannot open directory for synchronization"}}) {
      std::filesystem::remove(destination_);
      const Planned set(set_plan);
      EXPECT_FAILURE(write(destination_, "new"), "file_sync", message);
      EXPECT_EQ(root_.names(), Names{"record"});
      EXPECT_EQ(root_.read("record"), "new");
    }
  }
}

}  // namespace
}  // namespace ravok
