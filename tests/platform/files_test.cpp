#include "platform/files.hpp"

#include <cerrno>
#include <functional>
#include <regex>
#include <string>

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/file_status.hpp"
#include "support/failure.hpp"
#include "support/temporary_root.hpp"

namespace ravok {
namespace {

using testing::TemporaryRoot;

mode_t mode_of(const std::filesystem::path& path) {
  const auto status = link_status_of(path);
  return status ? mode_bits(*status) : 0;
}

TEST(ReadFile, ReadsAFileOfExactlyTheLimit) {
  const TemporaryRoot root;
  EXPECT_EQ(read_file(root.write("file", std::string(32, 'x')), 32), std::string(32, 'x'));
  EXPECT_EQ(read_file(root.write("empty", ""), 0), "");
  EXPECT_EQ(read_file(root.write("large", std::string(200000, 'y')), 1 << 20), std::string(200000, 'y'));
}

TEST(ReadFile, RefusesOneByteBeyondTheLimit) {
  const TemporaryRoot root;
  EXPECT_FAILURE(read_file(root.write("file", std::string(33, 'x')), 32), "size_limit", "File exceeds read limit");
}

TEST(ReadFile, RefusesALargeFileBeforeItTakesAnyMemory) {
  const TemporaryRoot root;
  const auto file = root.write("file", "");
  std::filesystem::resize_file(file, std::uintmax_t{1} << 43);
  EXPECT_FAILURE(read_file(file, 1 << 20), "size_limit", "File exceeds read limit");
}

TEST(ReadFile, RefusesALinkWhereverItLeads) {
  const TemporaryRoot root;
  root.write("file", "x");
  std::filesystem::create_symlink("file", root / "link");
  std::filesystem::create_symlink("nowhere", root / "dangling");
  for (const char* name : {"link", "dangling"}) {
    EXPECT_FAILURE(read_file(root / name, 10), "unsafe_path", "Cannot open file: " + (root / name).string());
  }
}

TEST(ReadFile, ReportsAMissingFile) {
  const TemporaryRoot root;
  EXPECT_FAILURE(read_file(root / "missing", 10), "file_read", "Cannot open file: " + (root / "missing").string());
}

TEST(ReadFile, RefusesWhatIsNoOrdinaryFileWithoutWaitingForIt) {
  const TemporaryRoot root;
  ASSERT_EQ(mkfifo((root / "fifo").c_str(), 0600), 0);
  EXPECT_FAILURE(read_file(root / "fifo", 10), "unsafe_path", "Expected an ordinary file: " + (root / "fifo").string());
  EXPECT_FAILURE(read_file(root.path(), 10), "unsafe_path", "Expected an ordinary file: " + root.path().string());
  EXPECT_FAILURE(read_file("/dev/null", 10), "unsafe_path", "Expected an ordinary file: /dev/null");
}

TEST(ReadFile, RefusesAFileThatHoldsMoreThanItsSizeSays) {
  // The kernel's own files tell a size of 0 and give bytes all the same, as a growing file does.
  EXPECT_FAILURE(read_file("/proc/self/status", 1 << 20), "file_read", "File changed while reading");
}

TEST(ReadFileTail, ReadsTheLastBytesAndTellsTheWholeSize) {
  const TemporaryRoot root;
  const auto file = root.write("file", "0123456789");
  std::uint64_t total = 0;
  EXPECT_EQ(read_file_tail(file, 4, &total), "6789");
  EXPECT_EQ(total, 10u);
  EXPECT_EQ(read_file_tail(file, 0, nullptr), "");
}

TEST(ReadFileTail, ReadsASmallerFileWhole) {
  const TemporaryRoot root;
  const auto file = root.write("file", "0123456789");
  std::uint64_t total = 0;
  for (const std::uint64_t limit : {10u, 11u, 1000u}) {
    EXPECT_EQ(read_file_tail(file, limit, &total), "0123456789");
    EXPECT_EQ(total, 10u);
  }
}

TEST(ReadFileTail, RefusesWhatReadFileRefuses) {
  const TemporaryRoot root;
  root.write("file", "x");
  std::filesystem::create_symlink("file", root / "link");
  EXPECT_FAILURE(read_file_tail(root / "link", 10, nullptr), "unsafe_path",
                 "Cannot open file: " + (root / "link").string());
}

TEST(SyncFile, FlushesAnOrdinaryFile) {
  const TemporaryRoot root;
  EXPECT_NO_THROW(sync_file(root.write("file", "x")));
}

TEST(SyncFile, NeedsABoundedPath) {
  constexpr const char* message = "File synchronization requires a bounded path without NUL bytes";
  EXPECT_FAILURE(sync_file(""), "file_sync", message);
  EXPECT_FAILURE(sync_file("/" + std::string(4096, 'x')), "file_sync", message);
  EXPECT_FAILURE(sync_file(std::string("/tmp/a\0b", 8)), "file_sync", message);
}

TEST(SyncFile, NeedsAnOrdinaryFileWithOneName) {
  constexpr const char* message = "Synchronization requires an ordinary single-link file";
  const TemporaryRoot root;
  const auto file = root.write("file", "x");
  std::filesystem::create_symlink("file", root / "link");
  EXPECT_FAILURE(sync_file(root / "link"), "file_sync", message);
  EXPECT_FAILURE(sync_file(root / "missing"), "file_sync", message);
  EXPECT_FAILURE(sync_file(root.path()), "file_sync", message);
  std::filesystem::create_hard_link(file, root / "second");
  EXPECT_FAILURE(sync_file(file), "file_sync", message);
}

TEST(SyncDirectory, FlushesADirectoryAlsoThroughALink) {
  const TemporaryRoot root;
  root.directory("real");
  std::filesystem::create_symlink("real", root / "link");
  EXPECT_NO_THROW(sync_directory(root / "real"));
  EXPECT_NO_THROW(sync_directory(root / "link"));
}

TEST(SyncDirectory, ReportsWhatIsNoDirectory) {
  const TemporaryRoot root;
  for (const auto& path : {root / "missing", root.write("file", "x")}) {
    EXPECT_FAILURE(sync_directory(path), "file_sync", "Cannot open directory for synchronization");
  }
}

using Writer = std::function<void(const std::filesystem::path&, std::string_view)>;

struct NamedWriter {
  const char* name;
  Writer write;
};

const NamedWriter replacing[] = {{"atomic_write", atomic_write}, {"replace_private_file", replace_private_file}};
const NamedWriter creating[] = {{"atomic_private_create", atomic_private_create}, {"atomic_create", atomic_create}};

TEST(Writers, LeaveTheContentAtMode0600AndNoTransactionFile) {
  for (const auto& writers : {replacing, creating}) {
    for (const NamedWriter* writer = writers; writer != writers + 2; ++writer) {
      const TemporaryRoot root;
      const std::string content(100000, 'x');
      writer->write(root / "record.json", content);
      EXPECT_EQ(root.read("record.json"), content) << writer->name;
      EXPECT_EQ(mode_of(root / "record.json"), 0600u) << writer->name;
      EXPECT_EQ(root.names(), std::vector<std::string>{"record.json"}) << writer->name;
    }
  }
}

TEST(Writers, ReplaceAPrivateRecordWhole) {
  for (const NamedWriter& writer : replacing) {
    const TemporaryRoot root;
    root.write("record.json", std::string(5000, 'o'));
    writer.write(root / "record.json", "new");
    EXPECT_EQ(root.read("record.json"), "new") << writer.name;
    EXPECT_EQ(mode_of(root / "record.json"), 0600u) << writer.name;
    EXPECT_EQ(root.names(), std::vector<std::string>{"record.json"}) << writer.name;
  }
}

TEST(Writers, NeverReplaceWhenTheyCreate) {
  const std::string message =
      "Cannot create export; the destination may already exist (" + std::to_string(EEXIST) + ")";
  for (const NamedWriter& writer : creating) {
    const TemporaryRoot root;
    root.write("record.json", "old");
    EXPECT_FAILURE(writer.write(root / "record.json", "new"), "file_write", message) << writer.name;
    EXPECT_EQ(root.read("record.json"), "old");
    EXPECT_EQ(root.names(), std::vector<std::string>{"record.json"});
  }
}

TEST(Writers, RefuseADestinationThatIsALink) {
  for (const auto& writers : {replacing, creating}) {
    for (const NamedWriter* writer = writers; writer != writers + 2; ++writer) {
      const TemporaryRoot root;
      root.write("file", "old");
      std::filesystem::create_symlink("file", root / "link");
      std::filesystem::create_symlink("nowhere", root / "dangling");
      for (const char* name : {"link", "dangling"}) {
        EXPECT_FAILURE(writer->write(root / name, "new"), "unsafe_path", "Refusing to replace a symbolic link")
            << writer->name;
      }
      EXPECT_EQ(root.names(), (std::vector<std::string>{"dangling@", "file", "link@"}));
      EXPECT_EQ(root.read("file"), "old");
    }
  }
}

TEST(Writers, MakeTheParentOfAPrivateRecordPrivate) {
  const TemporaryRoot root;
  root.directory("existing");
  ASSERT_EQ(chmod((root / "existing").c_str(), 0755), 0);
  atomic_write(root / "existing/record", "x");
  atomic_private_create(root / "new/deep/record", "x");
  EXPECT_EQ(mode_of(root / "existing"), 0700u);
  EXPECT_EQ(mode_of(root / "new"), 0700u);
  EXPECT_EQ(mode_of(root / "new/deep"), 0700u);
}

TEST(Writers, LeaveTheParentOfAnExportAsItIs) {
  const TemporaryRoot root;
  root.directory("export");
  ASSERT_EQ(chmod((root / "export").c_str(), 0755), 0);
  atomic_create(root / "export/file", "x");
  EXPECT_EQ(mode_of(root / "export"), 0755u);
}

TEST(Writers, NeedAnExistingPlainDirectoryForAnExport) {
  constexpr const char* message = "Export parent must be an existing plain directory";
  const TemporaryRoot root;
  root.directory("real");
  root.write("file", "x");
  std::filesystem::create_symlink("real", root / "link");
  for (const char* path : {"missing/x", "file/x", "link/x"}) {
    EXPECT_FAILURE(atomic_create(root / path, "x"), "unsafe_path", message) << path;
  }
  EXPECT_EQ(root.names(), (std::vector<std::string>{"file", "link@", "real/"}));
}

TEST(Writers, CleanUpAfterADestinationThatCannotBeReplaced) {
  const TemporaryRoot root;
  root.write("directory/file", "x");
  EXPECT_FAILURE(atomic_write(root / "directory", "new"), "file_write",
                 "Cannot commit transaction file (" + std::to_string(EISDIR) + ")");
  EXPECT_EQ(root.names(), (std::vector<std::string>{"directory/", "directory/file"}));
}

TEST(Writers, NameTheTransactionFileThatCannotBeMade) {
  const TemporaryRoot root;
  // The name itself fits; with what a transaction file adds to it, it does not.
  const std::string name(250, 'n');
  const auto failure = testing::failure_of([&] { atomic_write(root / name, "x"); });
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->code, "file_write");
  const std::regex form("Cannot create transaction file (.*)/n{250}\\.[0-9a-f]{32}\\.tmp \\(" +
                        std::to_string(ENAMETOOLONG) + "\\)");
  EXPECT_TRUE(std::regex_match(failure->what(), form)) << failure->what();
  EXPECT_TRUE(root.names().empty());
}

TEST(Writers, SayThatAFullDiskIsFull) {
  const TemporaryRoot root;
  const auto volume = root.directory("volume");
  if (!testing::is_root() || mount("tmpfs", volume.c_str(), "tmpfs", 0, "size=64k,mode=0700") != 0) {
    GTEST_SKIP() << "a small volume cannot be mounted here";
  }
  constexpr const char* full = "Local storage cannot save data; free space and try again";
  atomic_write(volume / "record", "old");
  for (const Writer& write : {Writer(atomic_write), Writer(replace_private_file)}) {
    EXPECT_FAILURE(write(volume / "record", std::string(100000, 'x')), "insufficient_space", full);
  }
  for (const Writer& write : {Writer(atomic_create), Writer(atomic_private_create)}) {
    EXPECT_FAILURE(write(volume / "other", std::string(100000, 'x')), "insufficient_space", full);
  }
  EXPECT_EQ(root.read("volume/record"), "old");
  EXPECT_EQ(root.names(), (std::vector<std::string>{"volume/", "volume/record"}));
  EXPECT_EQ(umount(volume.c_str()), 0);
}

}  // namespace
}  // namespace ravok
