#include "platform/file/files.hpp"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "platform/file/handle.hpp"
#include "platform/file/status.hpp"
#include "support/failure.hpp"
#include "support/temporary_root.hpp"
#include "support/working_directory.hpp"

namespace ravok::files_test {
namespace {

using testing::TemporaryRoot;
using testing::WorkingDirectory;

constexpr const char* refused_link = "Refusing to replace a symbolic link";
constexpr const char* refused_parent = "Export parent must be an existing plain directory";

std::string with_number(const std::string& message, int problem) {
  return message + " (" + std::to_string(problem) + ")";
}

const std::string refused_existing = with_number("Cannot create export; the destination may already exist", EEXIST);

std::uint32_t mode_of(const std::filesystem::path& path) {
  const auto status = link_status_of(path);
  return status ? status->permissions : 0;
}

// Sets the process's file mode mask for as long as it lives.
class FileModeMask {
 public:
  explicit FileModeMask(mode_t mask) : before_(umask(mask)) {}
  ~FileModeMask() { umask(before_); }
  FileModeMask(const FileModeMask&) = delete;
  FileModeMask& operator=(const FileModeMask&) = delete;

 private:
  mode_t before_;
};

using Names = std::vector<std::string>;

class Files : public ::testing::Test {
 protected:
  // Lets others write to the root. A link of user 0 in it then does not count as the system's own.
  void let_others_write() { ASSERT_EQ(chmod(root_.path().c_str(), 0777), 0); }

  TemporaryRoot root_;
};

class ReadFile : public Files {};
class ReadFileTail : public Files {};
class SyncFile : public Files {};
class SyncDirectory : public Files {};
class AtomicWrite : public Files {};
class AtomicPrivateCreate : public Files {};
class AtomicCreate : public Files {};
class ReplacePrivateFile : public Files {};

TEST_F(ReadFile, ReturnsTheWholeContent) {
  for (const std::size_t size : {0u, 1u, 65535u, 65536u, 65537u, 200000u}) {
    std::string content(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
      content[i] = static_cast<char>(i * 31 >> 3);
    }
    EXPECT_EQ(read_file(root_.write("file", content), 1 << 20), content) << size;
  }
}

TEST_F(ReadFile, AcceptsAFileOfExactlyTheLimit) {
  EXPECT_EQ(read_file(root_.write("file", "12345678"), 8), "12345678");
  EXPECT_EQ(read_file(root_.write("empty", ""), 0), "");
}

TEST_F(ReadFile, RefusesOneByteBeyondTheLimit) {
  EXPECT_FAILURE(read_file(root_.write("file", "12345678"), 7), "size_limit", "File exceeds read limit");
  EXPECT_FAILURE(read_file(root_.write("byte", "1"), 0), "size_limit", "File exceeds read limit");
}

TEST_F(ReadFile, RefusesALargeFileBeforeItTakesAnyMemory) {
  const auto file = root_.write("file", "");
  std::filesystem::resize_file(file, std::uintmax_t{1} << 43);
  EXPECT_FAILURE(read_file(file, 1 << 20), "size_limit", "File exceeds read limit");
}

TEST_F(ReadFile, RefusesALinkAtItsEndOnly) {
  root_.write("real/file", "x");
  std::filesystem::create_symlink("real/file", root_ / "link");
  std::filesystem::create_symlink("nowhere", root_ / "dangling");
  std::filesystem::create_directory_symlink("real", root_ / "directory");
  for (const char* name : {"link", "dangling"}) {
    EXPECT_FAILURE(read_file(root_ / name, 8), "unsafe_path", "Cannot open file: " + (root_ / name).string());
  }
  EXPECT_EQ(read_file(root_ / "directory/file", 8), "x");
}

TEST_F(ReadFile, RefusesAFifoWithoutWaitingForAWriter) {
  ASSERT_EQ(mkfifo((root_ / "fifo").c_str(), 0600), 0);
  EXPECT_FAILURE(read_file(root_ / "fifo", 8), "unsafe_path",
                 "Expected an ordinary file: " + (root_ / "fifo").string());
}

TEST_F(ReadFile, RefusesADirectory) {
  EXPECT_FAILURE(read_file(root_.path(), 8), "unsafe_path", "Expected an ordinary file: " + root_.path().string());
}

TEST_F(ReadFile, RefusesADevice) {
  EXPECT_FAILURE(read_file("/dev/null", 8), "unsafe_path", "Expected an ordinary file: /dev/null");
}

TEST_F(ReadFile, RefusesASocket) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = root_ / "socket";
  ASSERT_LT(path.size(), sizeof address.sun_path);
  std::memcpy(address.sun_path, path.c_str(), path.size());
  const Handle socket_end(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(bind(socket_end.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  EXPECT_FAILURE(read_file(path, 8), "file_read", "Cannot open file: " + path);
}

TEST_F(ReadFile, ReportsAMissingFile) {
  EXPECT_FAILURE(read_file(root_ / "missing", 8), "file_read", "Cannot open file: " + (root_ / "missing").string());
  EXPECT_FAILURE(read_file("", 8), "file_read", "Cannot open file: ");
}

TEST_F(ReadFile, ReportsAFileThatItMayNotOpen) {
  if (testing::is_root()) {
    GTEST_SKIP() << "user 0 may open every file";
  }
  const auto file = root_.write("file", "x");
  ASSERT_EQ(chmod(file.c_str(), 0), 0);
  EXPECT_FAILURE(read_file(file, 8), "file_read", "Cannot open file: " + file.string());
}

TEST_F(ReadFile, RefusesAFileThatHoldsMoreThanItSays) {
  const std::filesystem::path file = "/proc/self/stat";
  const auto status = link_status_of(file);
  if (!status || !is_file(*status) || status->size != 0) {
    GTEST_SKIP() << "no file here holds more than it says";
  }
  EXPECT_FAILURE(read_file(file, 1 << 20), "file_read", "File changed while reading");
}

TEST_F(ReadFileTail, ReturnsTheEndOfALargerFileAndItsWholeSize) {
  std::uint64_t total = 0;
  EXPECT_EQ(read_file_tail(root_.write("file", "0123456789"), 4, &total), "6789");
  EXPECT_EQ(total, 10u);
}

TEST_F(ReadFileTail, ReturnsAllOfAFileWithinTheLimit) {
  const auto file = root_.write("file", "0123456789");
  for (const std::uint64_t limit : {10u, 11u, 1000u}) {
    std::uint64_t total = 0;
    EXPECT_EQ(read_file_tail(file, limit, &total), "0123456789") << limit;
    EXPECT_EQ(total, 10u) << limit;
  }
}

TEST_F(ReadFileTail, ReturnsMoreThanOnePiece) {
  const std::string content = std::string(100000, 'a') + std::string(150000, 'b');
  std::uint64_t total = 0;
  EXPECT_EQ(read_file_tail(root_.write("file", content), 200000, &total), content.substr(50000));
  EXPECT_EQ(total, 250000u);
}

TEST_F(ReadFileTail, ReturnsNothingForALimitOfNothing) {
  std::uint64_t total = 0;
  EXPECT_EQ(read_file_tail(root_.write("file", "0123456789"), 0, &total), "");
  EXPECT_EQ(total, 10u);
}

TEST_F(ReadFileTail, NeedsNoPlaceForTheSize) {
  EXPECT_EQ(read_file_tail(root_.write("file", "0123456789"), 3, nullptr), "789");
}

TEST_F(ReadFileTail, RefusesWhatReadFileRefusesAndStoresNoSize) {
  root_.write("file", "0123456789");
  std::filesystem::create_symlink("file", root_ / "link");
  std::uint64_t total = 77;
  EXPECT_FAILURE(read_file_tail(root_ / "link", 4, &total), "unsafe_path",
                 "Cannot open file: " + (root_ / "link").string());
  EXPECT_FAILURE(read_file_tail(root_.path(), 4, &total), "unsafe_path",
                 "Expected an ordinary file: " + root_.path().string());
  EXPECT_FAILURE(read_file_tail(root_ / "missing", 4, &total), "file_read",
                 "Cannot open file: " + (root_ / "missing").string());
  EXPECT_EQ(total, 77u);
}

TEST_F(SyncFile, FlushesAnOrdinaryFile) {
  const auto file = root_.write("file", "content");
  EXPECT_NO_THROW(sync_file(file));
  EXPECT_EQ(root_.read("file"), "content");
}

TEST_F(SyncFile, NeedsABoundedPathWithoutNul) {
  constexpr const char* bounded = "File synchronization requires a bounded path without NUL bytes";
  root_.write("file", "x");
  EXPECT_FAILURE(sync_file(""), "file_sync", bounded);
  EXPECT_FAILURE(sync_file(std::string(4097, 'x')), "file_sync", bounded);
  EXPECT_FAILURE(sync_file((root_ / "file").string() + std::string("\0x", 2)), "file_sync", bounded);
}

TEST_F(SyncFile, NeedsAnOrdinaryFileWithOneName) {
  constexpr const char* ordinary = "Synchronization requires an ordinary single-link file";
  root_.write("file", "x");
  std::filesystem::create_symlink("file", root_ / "link");
  ASSERT_EQ(mkfifo((root_ / "fifo").c_str(), 0600), 0);
  for (const char* name : {"missing", "link", "fifo", "."}) {
    EXPECT_FAILURE(sync_file(root_ / name), "file_sync", ordinary) << name;
  }
  EXPECT_FAILURE(sync_file(std::string(4096, 'x')), "file_sync", ordinary);
  std::filesystem::create_hard_link(root_ / "file", root_ / "second");
  EXPECT_FAILURE(sync_file(root_ / "file"), "file_sync", ordinary);
}

TEST_F(SyncDirectory, FlushesADirectoryAlsoThroughALink) {
  root_.directory("directory");
  std::filesystem::create_directory_symlink("directory", root_ / "link");
  EXPECT_NO_THROW(sync_directory(root_ / "directory"));
  EXPECT_NO_THROW(sync_directory(root_ / "link"));
}

TEST_F(SyncDirectory, ReportsWhatIsNoDirectory) {
  root_.write("file", "x");
  for (const char* name : {"missing", "file"}) {
    EXPECT_FAILURE(sync_directory(root_ / name), "file_sync", "Cannot open directory for synchronization") << name;
  }
}

TEST_F(AtomicWrite, MakesAPrivateFileInAPrivateParent) {
  atomic_write(root_ / "a/b/record.json", "content");
  EXPECT_EQ(root_.names(), (Names{"a/", "a/b/", "a/b/record.json"}));
  EXPECT_EQ(root_.read("a/b/record.json"), "content");
  EXPECT_EQ(mode_of(root_ / "a/b/record.json"), 0600u);
  EXPECT_EQ(mode_of(root_ / "a/b"), 0700u);
}

TEST_F(AtomicWrite, ReplacesTheFileAndLeavesNoTransactionFile) {
  for (const std::string& content :
       {std::string("first"), std::string(300000, 'x'), std::string("a\0b", 3), std::string()}) {
    atomic_write(root_ / "record.json", content);
    EXPECT_EQ(root_.read("record.json"), content);
    EXPECT_EQ(root_.names(), Names{"record.json"});
  }
}

TEST_F(AtomicWrite, GivesTheExactModeWhateverTheMask) {
  for (const mode_t mask : {0u, 022u, 0777u}) {
    const FileModeMask set(mask);
    atomic_write(root_ / "record.json", "content");
    EXPECT_EQ(mode_of(root_ / "record.json"), 0600u) << std::oct << mask;
  }
}

TEST_F(AtomicWrite, TightensTheParent) {
  root_.directory("parent");
  ASSERT_EQ(chmod((root_ / "parent").c_str(), 0755), 0);
  atomic_write(root_ / "parent/record.json", "content");
  EXPECT_EQ(mode_of(root_ / "parent"), 0700u);
}

TEST_F(AtomicWrite, ReplacesOneNameOfAFileAndKeepsTheOthers) {
  root_.write("record.json", "old");
  std::filesystem::create_hard_link(root_ / "record.json", root_ / "second");
  atomic_write(root_ / "record.json", "new");
  EXPECT_EQ(root_.read("record.json"), "new");
  EXPECT_EQ(root_.read("second"), "old");
}

TEST_F(AtomicWrite, NeedsAPathWithADirectoryAndLeavesTheWorkingOneAlone) {
  ASSERT_EQ(chmod(root_.path().c_str(), 0755), 0);
  const WorkingDirectory set(root_.path());
  for (const char* name : {"", "record.json"}) {
    EXPECT_FAILURE(atomic_write(name, "content"), "unsafe_path",
                   "Linux private directory needs a bounded path below a root");
  }
  EXPECT_EQ(root_.names(), Names{});
  EXPECT_EQ(link_status_of(root_.path())->permissions & permissions::everybody, 0755u);
  atomic_write("./record.json", "content");
  EXPECT_EQ(root_.read("record.json"), "content");
}

TEST_F(AtomicWrite, RefusesANulWhichWouldCutThePathShort) {
  root_.write("record", "old");
  const std::filesystem::path path = (root_ / "record").native() + std::string("\0x", 2);
  EXPECT_FAILURE(atomic_write(path, "new"), "unsafe_path", "Native path contains a NUL byte");
  EXPECT_FAILURE(atomic_create(path, "new"), "unsafe_path", "Native path contains a NUL byte");
  EXPECT_FAILURE(read_file(path, 10), "unsafe_path", "Native path contains a NUL byte");
  EXPECT_EQ(root_.read("record"), "old");
  EXPECT_EQ(root_.names(), Names{"record"});
}

TEST_F(AtomicWrite, RefusesALinkAndKeepsItAndItsTarget) {
  root_.write("target", "old");
  std::filesystem::create_symlink("target", root_ / "record.json");
  std::filesystem::create_symlink("nowhere", root_ / "dangling");
  EXPECT_FAILURE(atomic_write(root_ / "record.json", "new"), "unsafe_path", refused_link);
  EXPECT_FAILURE(atomic_write(root_ / "dangling", "new"), "unsafe_path", refused_link);
  EXPECT_EQ(root_.read("target"), "old");
  EXPECT_EQ(root_.names(), (Names{"dangling@", "record.json@", "target"}));
}

TEST_F(AtomicWrite, RefusesAParentThatIsALink) {
  let_others_write();
  root_.directory("real");
  std::filesystem::create_directory_symlink("real", root_ / "link");
  EXPECT_FAILURE(atomic_write(root_ / "link/record.json", "new"), "unsafe_path",
                 "Linux directory ancestry is missing or linked");
  EXPECT_EQ(root_.names(), (Names{"link@", "real/"}));
}

TEST_F(AtomicWrite, WritesThroughALinkOfTheSystem) {
  if (!testing::is_root()) {
    GTEST_SKIP() << "only user 0 can make the system's links";
  }
  root_.directory("real");
  std::filesystem::create_symlink("real", root_ / "link");
  atomic_write(root_ / "link/record.json", "new");
  EXPECT_EQ(root_.names(), (Names{"link@", "real/", "real/record.json"}));
}

TEST_F(AtomicWrite, CannotReplaceADirectory) {
  root_.directory("record.json");
  EXPECT_FAILURE(atomic_write(root_ / "record.json", "new"), "file_write",
                 with_number("Cannot commit transaction file", EISDIR));
  EXPECT_EQ(root_.names(), Names{"record.json/"});
}

TEST_F(AtomicWrite, NamesTheTransactionFileThatItCannotCreate) {
  const std::string destination = root_ / std::string(255, 'n');
  const auto failure = testing::failure_of([&] { atomic_write(destination, "new"); });
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->code, "file_write");
  const std::string message = failure->what();
  const std::string before = "Cannot create transaction file " + destination + ".";
  const std::string after = with_number(".tmp", ENAMETOOLONG);
  ASSERT_EQ(message.size(), before.size() + 32 + after.size()) << message;
  EXPECT_TRUE(message.starts_with(before) && message.ends_with(after)) << message;
  EXPECT_EQ(message.substr(before.size(), 32).find_first_not_of("0123456789abcdef"), std::string::npos) << message;
  EXPECT_TRUE(root_.names().empty());
}

TEST_F(AtomicWrite, GivesTheFileNoneOfTheAccessListsThatItWouldInherit) {
  // Everything for the owner, nothing for user 70000, the group, the mask and others.
  const std::string list(
      "\2\0\0\0\x01\0\7\0\xff\xff\xff\xff\x02\0\0\0\x70\x11\1\0\x04\0\0\0\xff\xff\xff\xff"
      "\x10\0\0\0\xff\xff\xff\xff\x20\0\0\0\xff\xff\xff\xff",
      44);
  const auto parent = root_.directory("parent");
  if (setxattr(parent.c_str(), "system.posix_acl_default", list.data(), list.size(), 0) != 0) {
    ASSERT_EQ(errno, EOPNOTSUPP) << std::strerror(errno);
    GTEST_SKIP() << "the volume has no access lists";
  }
  ASSERT_GT(getxattr(root_.write("parent/plain", "x").c_str(), "system.posix_acl_access", nullptr, 0), 0);
  atomic_write(parent / "record.json", "content");
  EXPECT_EQ(getxattr((parent / "record.json").c_str(), "system.posix_acl_access", nullptr, 0), -1);
  EXPECT_EQ(errno, ENODATA);
}

// A very small volume, mounted at a directory for as long as the object lives.
class SmallVolume {
 public:
  explicit SmallVolume(std::filesystem::path path)
      : path_(std::move(path)), mounted_(mount("tmpfs", path_.c_str(), "tmpfs", 0, "size=32k,mode=0700") == 0) {}
  ~SmallVolume() {
    if (mounted_) {
      umount2(path_.c_str(), MNT_DETACH);
    }
  }
  SmallVolume(const SmallVolume&) = delete;
  SmallVolume& operator=(const SmallVolume&) = delete;

  bool is_mounted() const { return mounted_; }

 private:
  std::filesystem::path path_;
  bool mounted_;
};

TEST_F(AtomicWrite, ReportsAFullDiskAndKeepsTheOldContent) {
  const SmallVolume volume(root_.directory("volume"));
  if (!volume.is_mounted()) {
    GTEST_SKIP() << "only user 0, where it may mount, can have a full disk";
  }
  atomic_write(root_ / "volume/record.json", "old");
  for (const auto& write : {atomic_write, replace_private_file}) {
    EXPECT_FAILURE(write(root_ / "volume/record.json", std::string(100000, 'x')), "insufficient_space",
                   "Local storage cannot save data; free space and try again");
  }
  for (const auto& create : {atomic_create, atomic_private_create}) {
    EXPECT_FAILURE(create(root_ / "volume/new.json", std::string(100000, 'x')), "insufficient_space",
                   "Local storage cannot save data; free space and try again");
  }
  EXPECT_EQ(root_.names(), (Names{"volume/", "volume/record.json"}));
  EXPECT_EQ(root_.read("volume/record.json"), "old");
}

TEST_F(AtomicPrivateCreate, MakesAPrivateFileWithOneNameInAPrivateParent) {
  atomic_private_create(root_ / "a/record.json", "content");
  EXPECT_EQ(root_.names(), (Names{"a/", "a/record.json"}));
  EXPECT_EQ(root_.read("a/record.json"), "content");
  EXPECT_EQ(mode_of(root_ / "a/record.json"), 0600u);
  EXPECT_EQ(mode_of(root_ / "a"), 0700u);
  EXPECT_EQ(link_status_of(root_ / "a/record.json")->links, 1u);
}

TEST_F(AtomicPrivateCreate, NeedsAPathWithADirectory) {
  const WorkingDirectory set(root_.path());
  EXPECT_FAILURE(atomic_private_create("record.json", "content"), "unsafe_path",
                 "Linux private directory needs a bounded path below a root");
  EXPECT_EQ(root_.names(), Names{});
  atomic_private_create("./record.json", "content");
  EXPECT_EQ(root_.read("record.json"), "content");
}

TEST_F(AtomicPrivateCreate, NeverReplaces) {
  root_.write("record.json", "old");
  root_.directory("directory");
  EXPECT_FAILURE(atomic_private_create(root_ / "record.json", "new"), "file_write", refused_existing);
  EXPECT_FAILURE(atomic_private_create(root_ / "directory", "new"), "file_write", refused_existing);
  EXPECT_EQ(root_.read("record.json"), "old");
  EXPECT_EQ(root_.names(), (Names{"directory/", "record.json"}));
}

TEST_F(AtomicPrivateCreate, RefusesALink) {
  std::filesystem::create_symlink("nowhere", root_ / "record.json");
  EXPECT_FAILURE(atomic_private_create(root_ / "record.json", "new"), "unsafe_path", refused_link);
  EXPECT_EQ(root_.names(), Names{"record.json@"});
}

TEST_F(AtomicCreate, MakesAFileWithOneNameAndLeavesItsParentAsItIs) {
  root_.directory("exports");
  ASSERT_EQ(chmod((root_ / "exports").c_str(), 0755), 0);
  const FileModeMask set(022);
  atomic_create(root_ / "exports/export.json", "content");
  EXPECT_EQ(root_.names(), (Names{"exports/", "exports/export.json"}));
  EXPECT_EQ(root_.read("exports/export.json"), "content");
  EXPECT_EQ(mode_of(root_ / "exports/export.json"), 0600u);
  EXPECT_EQ(mode_of(root_ / "exports"), 0755u);
  EXPECT_EQ(link_status_of(root_ / "exports/export.json")->links, 1u);
}

TEST_F(AtomicCreate, LeavesTheModeToTheMask) {
  const FileModeMask set(0200);
  atomic_create(root_ / "export.json", "content");
  EXPECT_EQ(mode_of(root_ / "export.json"), 0400u);
}

TEST_F(AtomicCreate, TakesThePathOfTheWorkingDirectoryButNoBareName) {
  const WorkingDirectory set(root_.path());
  for (const char* name : {"", "export.json"}) {
    EXPECT_FAILURE(atomic_create(name, "content"), "unsafe_path", refused_parent);
  }
  atomic_create("./export.json", "content");
  EXPECT_EQ(root_.read("export.json"), "content");
}

TEST_F(AtomicCreate, NeedsAnExistingPlainParent) {
  root_.write("real/file", "x");
  std::filesystem::create_directory_symlink("real", root_ / "link");
  for (const char* name : {"missing/export", "real/file/export", "link/export"}) {
    EXPECT_FAILURE(atomic_create(root_ / name, "new"), "unsafe_path", refused_parent) << name;
  }
  EXPECT_EQ(root_.names(), (Names{"link@", "real/", "real/file"}));
}

TEST_F(AtomicCreate, ReachesItsParentThroughLinksAboveIt) {
  root_.directory("real/inner");
  std::filesystem::create_directory_symlink("real", root_ / "link");
  atomic_create(root_ / "link/inner/export", "content");
  EXPECT_EQ(root_.read("real/inner/export"), "content");
}

TEST_F(AtomicCreate, NeverReplaces) {
  root_.write("export.json", "old");
  EXPECT_FAILURE(atomic_create(root_ / "export.json", "new"), "file_write", refused_existing);
  EXPECT_EQ(root_.read("export.json"), "old");
  EXPECT_EQ(root_.names(), Names{"export.json"});
}

TEST_F(AtomicCreate, RefusesALink) {
  std::filesystem::create_symlink("nowhere", root_ / "export.json");
  EXPECT_FAILURE(atomic_create(root_ / "export.json", "new"), "unsafe_path", refused_link);
  EXPECT_EQ(root_.names(), Names{"export.json@"});
}

TEST_F(ReplacePrivateFile, MakesAndReplacesAPrivateFile) {
  for (const char* content : {"first", "second"}) {
    replace_private_file(root_ / "a/cache.json", content);
    EXPECT_EQ(root_.read("a/cache.json"), content);
    EXPECT_EQ(root_.names(), (Names{"a/", "a/cache.json"}));
    EXPECT_EQ(mode_of(root_ / "a/cache.json"), 0600u);
    EXPECT_EQ(mode_of(root_ / "a"), 0700u);
  }
}

TEST_F(ReplacePrivateFile, NeedsAPathWithADirectory) {
  const WorkingDirectory set(root_.path());
  EXPECT_FAILURE(replace_private_file("cache.json", "content"), "unsafe_path",
                 "Linux private directory needs a bounded path below a root");
  EXPECT_EQ(root_.names(), Names{});
  replace_private_file("./cache.json", "content");
  EXPECT_EQ(root_.read("cache.json"), "content");
}

TEST(AtomicCreateOrRemove, NeedsAPathWithADirectory) {
  const TemporaryRoot root;
  const WorkingDirectory set(root.path());
  EXPECT_FAILURE(atomic_create_or_remove("export.json", "content"), "unsafe_path", "Cannot make a path absolute");
  EXPECT_EQ(root.names(), Names{});
  atomic_create_or_remove("./export.json", "content");
  EXPECT_EQ(root.read("export.json"), "content");
}

TEST_F(ReplacePrivateFile, RefusesALink) {
  root_.write("target", "old");
  std::filesystem::create_symlink("target", root_ / "cache.json");
  EXPECT_FAILURE(replace_private_file(root_ / "cache.json", "new"), "unsafe_path", refused_link);
  EXPECT_EQ(root_.read("target"), "old");
}

}  // namespace
}  // namespace ravok::files_test
