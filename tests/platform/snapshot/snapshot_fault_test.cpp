// Snapshots whose system or library calls fail. The linker leads the calls through the wrappers below, which a test
// lets fail.

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <archive.h>
#include <archive_entry.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zstd.h>

#include "platform/file/tree_walk.hpp"
#include "platform/snapshot/reserved_tree.hpp"
#include "platform/snapshot/snapshot_archive.hpp"
#include "platform/snapshot/snapshot_tree.hpp"
#include "publisher/snapshot_pack.hpp"
#include "support/failure.hpp"
#include "support/snapshot_builder.hpp"
#include "support/temporary_root.hpp"

namespace {

// The answers to give in place of the system's or the library's own, where there are any.
struct Answers {
  bool blocks_can_be_held = true;
  bool contexts_can_be_made = true;
  bool windows_can_be_bounded = true;
  bool readers_can_be_made = true;
  bool types_are_told = true;
  bool names_can_be_looked_at = true;
  bool names_can_be_read = true;
  bool files_are_told_once = true;
  bool compressors_can_be_made = true;
  bool content_can_be_compressed = true;
  bool writers_can_be_made = true;
  bool headers_can_be_written = true;
  std::size_t longest_read = std::numeric_limits<std::size_t>::max();
  std::function<std::optional<ssize_t>(const std::string& path)> read;
  std::function<bool(const std::string& path)> flush;
  std::function<std::optional<la_ssize_t>(void* bytes, std::size_t size)> content;
};
Answers answers;

std::string path_of(int descriptor) {
  std::array<char, 4096> path{};
  const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
  const ssize_t size = readlink(link.c_str(), path.data(), path.size());
  return size < 0 ? std::string() : std::string(path.data(), static_cast<std::size_t>(size));
}

}  // namespace

extern "C" {

int __real_fallocate(int descriptor, int mode, off_t offset, off_t length);
int __wrap_fallocate(int descriptor, int mode, off_t offset, off_t length) {
  if (!answers.blocks_can_be_held) {
    errno = EOPNOTSUPP;
    return -1;
  }
  return __real_fallocate(descriptor, mode, offset, length);
}

int __real_fstatat(int directory, const char* name, struct stat* status, int flags);
int __wrap_fstatat(int directory, const char* name, struct stat* status, int flags) {
  if (!answers.names_can_be_looked_at) {
    errno = EIO;
    return -1;
  }
  return __real_fstatat(directory, name, status, flags);
}

int __real_fsync(int descriptor);
int __wrap_fsync(int descriptor) {
  if (answers.flush && !answers.flush(path_of(descriptor))) {
    errno = EIO;
    return -1;
  }
  return __real_fsync(descriptor);
}

ssize_t __real_read(int descriptor, void* bytes, std::size_t size);
ssize_t __wrap_read(int descriptor, void* bytes, std::size_t size) {
  const auto answer = answers.read ? answers.read(path_of(descriptor)) : std::nullopt;
  return answer ? *answer : __real_read(descriptor, bytes, std::min(size, answers.longest_read));
}

// The entry that was read last, until the next one is read or the directory is closed.
static dirent* told = nullptr;

int __real_closedir(DIR* directory);
int __wrap_closedir(DIR* directory) {
  told = nullptr;
  return __real_closedir(directory);
}

dirent* __real_readdir(DIR* directory);
dirent* __wrap_readdir(DIR* directory) {
  if (!answers.names_can_be_read) {
    errno = EIO;
    return nullptr;
  }
  if (dirent* const again = std::exchange(told, nullptr); again != nullptr && !answers.files_are_told_once) {
    return again;
  }
  dirent* const entry = __real_readdir(directory);
  told = entry != nullptr && entry->d_type == DT_REG ? entry : nullptr;
  if (entry != nullptr && !answers.types_are_told) {
    entry->d_type = DT_UNKNOWN;
  }
  return entry;
}

ZSTD_DCtx* __real_ZSTD_createDCtx();
ZSTD_DCtx* __wrap_ZSTD_createDCtx() { return answers.contexts_can_be_made ? __real_ZSTD_createDCtx() : nullptr; }

std::size_t __real_ZSTD_DCtx_setParameter(ZSTD_DCtx* context, ZSTD_dParameter parameter, int value);
std::size_t __wrap_ZSTD_DCtx_setParameter(ZSTD_DCtx* context, ZSTD_dParameter parameter, int value) {
  // A value out of bounds is the library's own way to fail.
  return __real_ZSTD_DCtx_setParameter(context, parameter, answers.windows_can_be_bounded ? value : -1);
}

ZSTD_CCtx* __real_ZSTD_createCCtx();
ZSTD_CCtx* __wrap_ZSTD_createCCtx() { return answers.compressors_can_be_made ? __real_ZSTD_createCCtx() : nullptr; }

std::size_t __real_ZSTD_compressStream2(ZSTD_CCtx* context, ZSTD_outBuffer* output, ZSTD_inBuffer* input,
                                        ZSTD_EndDirective directive);
std::size_t __wrap_ZSTD_compressStream2(ZSTD_CCtx* context, ZSTD_outBuffer* output, ZSTD_inBuffer* input,
                                        ZSTD_EndDirective directive) {
  // The library returns its errors as the largest numbers.
  return answers.content_can_be_compressed ? __real_ZSTD_compressStream2(context, output, input, directive)
                                           : static_cast<std::size_t>(-1);
}

::archive* __real_archive_write_new();
::archive* __wrap_archive_write_new() { return answers.writers_can_be_made ? __real_archive_write_new() : nullptr; }

int __real_archive_write_header(::archive* writer, archive_entry* entry);
int __wrap_archive_write_header(::archive* writer, archive_entry* entry) {
  return answers.headers_can_be_written ? __real_archive_write_header(writer, entry) : ARCHIVE_FATAL;
}

::archive* __real_archive_read_new();
::archive* __wrap_archive_read_new() { return answers.readers_can_be_made ? __real_archive_read_new() : nullptr; }

la_ssize_t __real_archive_read_data(::archive* reader, void* bytes, std::size_t size);
la_ssize_t __wrap_archive_read_data(::archive* reader, void* bytes, std::size_t size) {
  const auto answer = answers.content ? answers.content(bytes, size) : std::nullopt;
  return answer ? *answer : __real_archive_read_data(reader, bytes, size);
}

}  // extern "C"

namespace ravok {
namespace {

using testing::noise;
using testing::Sample;
using testing::SampleFile;
using testing::TemporaryRoot;

using Names = std::vector<std::string>;

class SnapshotFaultTest : public ::testing::Test {
 protected:
  ~SnapshotFaultTest() override { answers = {}; }

  const TemporaryRoot root;
  const std::filesystem::path staging = root / "staging";
  const std::vector<SampleFile> files = {
      {"bin/program", "#!program", 0755}, {"data/deep/large", noise(150'000)}, {"data/empty"}, {"readme", "text"}};
  const Sample snapshot = testing::write_tar_sample(root, files, testing::tar_archive(testing::members_of(files)));

  void extract(const ProgressCallback& progress = {}, const ReservedTree* reserved = nullptr) const {
    extract_snapshot(snapshot.manifest, snapshot.archive, staging, progress, reserved);
  }

  void expect_unpacked() const {
    for (const SampleFile& file : files) {
      EXPECT_TRUE(root.read("staging/" + file.path) == file.content) << file.path;
    }
  }

  // Lets the reads of a file fail, from the `countdown`th on.
  static void fail_reads_of(const std::filesystem::path& path, int countdown = 1) {
    answers.read = [path, countdown](const std::string& read) mutable -> std::optional<ssize_t> {
      if (read != path.native() || --countdown > 0) {
        return std::nullopt;
      }
      errno = EIO;
      return -1;
    };
  }
};

// --- Volumes -------------------------------------------------------------------------------

TEST_F(SnapshotFaultTest, UnpacksWhereNoBlocksCanBeHeld) {
  answers.blocks_can_be_held = false;
  extract();
  expect_unpacked();
}

TEST_F(SnapshotFaultTest, UnpacksAgainIntoATreeWithoutBlocksWhereverItWasCancelled) {
  answers.blocks_can_be_held = false;
  for (int point = 1;; ++point) {
    const ReservedTree reserved(snapshot.manifest, staging, {}, {});
    ASSERT_EQ(std::filesystem::file_size(staging / "data/deep/large"), 0u);
    int calls = 0;
    const auto failure =
        testing::failure_of([&] { extract([&](std::uint64_t, std::uint64_t) { return ++calls < point; }, &reserved); });
    if (!failure) {
      EXPECT_GT(point, 10);
      break;
    }
    ASSERT_EQ(failure->code, "cancelled");
    extract({}, &reserved);
    expect_unpacked();
    std::filesystem::remove_all(staging);
  }
  expect_unpacked();
}

// The place at which a path was flushed last.
std::ptrdiff_t last_flush(const Names& order, const std::string& path) {
  const auto found = std::find(order.rbegin(), order.rend(), path);
  EXPECT_NE(found, order.rend()) << path << " was not flushed";
  return std::distance(found, order.rend());
}

TEST_F(SnapshotFaultTest, FlushesFilesThenEachDirectoryAheadOfTheOneThatHoldsIt) {
  Names order;
  answers.flush = [&](const std::string& path) {
    order.push_back(path);
    return true;
  };
  extract();
  const auto at = [&](const std::string& path) { return last_flush(order, staging.native() + path); };
  for (const SampleFile& file : files) {
    EXPECT_LT(at("/" + file.path), at("/bin"));
    EXPECT_LT(at("/" + file.path), at("/data/deep"));
  }
  EXPECT_LT(at("/data/deep"), at("/data"));
  EXPECT_LT(at("/data"), at(""));
  EXPECT_LT(at("/bin"), at(""));
  EXPECT_EQ(order.back(), staging.native());
}

TEST_F(SnapshotFaultTest, FailsWhereADirectoryCannotBeFlushedAtTheEnd) {
  bool files_are_unpacked = false;
  answers.flush = [&](const std::string& path) {
    files_are_unpacked = files_are_unpacked || path == staging.native() + "/readme";
    return !files_are_unpacked || path != staging.native();
  };
  EXPECT_FAILURE(extract(), "file_sync", "Could not durably synchronize directory");
  expect_unpacked();
}

TEST_F(SnapshotFaultTest, FailsWhereTheArchiveCannotBeReadAnyLonger) {
  // It is read once to be digested, and then to be unpacked.
  int reads = 0;
  answers.read = [&](const std::string& path) -> std::optional<ssize_t> {
    reads += path == snapshot.archive.native() ? 1 : 0;
    return std::nullopt;
  };
  extract();
  std::filesystem::remove_all(staging);
  ASSERT_GT(reads, 6);

  fail_reads_of(snapshot.archive);
  EXPECT_FAILURE(extract(), "file_read", "Error reading file during verification");
  EXPECT_FALSE(std::filesystem::exists(staging));

  fail_reads_of(snapshot.archive, reads);
  EXPECT_FAILURE(extract(), "archive", "Snapshot read failed");
  EXPECT_FALSE(std::filesystem::exists(staging / "readme"));
}

TEST_F(SnapshotFaultTest, ReadsOnWhenASignalInterruptsIt) {
  bool interrupted = false;
  answers.read = [&](const std::string& path) -> std::optional<ssize_t> {
    interrupted = path == snapshot.archive.native() && !interrupted;
    if (!interrupted) {
      return std::nullopt;
    }
    errno = EINTR;
    return -1;
  };
  extract();
  expect_unpacked();
}

TEST_F(SnapshotFaultTest, ReadsOnWhenAVolumeHandsOutLessThanItIsAskedFor) {
  const auto pack = [&] {
    SnapshotInventory inventory = scan_snapshot_tree(root / "tree");
    return pack_snapshot(root / "tree", inventory, 1, [](std::string_view) {}, {}).sha256;
  };
  ASSERT_EQ(chmod(root.write("tree/file", noise(1000)).c_str(), 0644), 0);
  const std::string whole = pack();
  for (const std::size_t longest : {1u, 7u, 65'535u}) {
    answers.longest_read = longest;
    extract();
    expect_unpacked();
    EXPECT_EQ(damaged_snapshot_files(snapshot.manifest, staging, {}, 10).count, 0u);
    EXPECT_EQ(pack(), whole);
    std::filesystem::remove_all(staging);
  }
}

TEST_F(SnapshotFaultTest, ReportsOrCountsAFileThatFailsWhileItIsRead) {
  extract();
  for (const ProgressCallback& progress : {ProgressCallback(), ProgressCallback([](auto, auto) { return true; })}) {
    fail_reads_of(staging / "data/deep/large", 2);
    EXPECT_FAILURE(verify_snapshot_tree(snapshot.manifest, staging, progress), "file_read",
                   "Error reading file during verification");
    fail_reads_of(staging / "data/deep/large", 2);
    const DamagedFiles damaged = damaged_snapshot_files(snapshot.manifest, staging, progress, 10);
    EXPECT_EQ(damaged.count, 1u);
    EXPECT_EQ(damaged.paths, Names{"data/deep/large"});
  }
}

TEST_F(SnapshotFaultTest, WalksAVolumeThatDoesNotTellWhatItsEntriesAre) {
  root.write("tree/a/file", "x");
  std::filesystem::create_symlink("a", root / "tree/link");
  ASSERT_EQ(mkfifo((root / "tree/queue").c_str(), 0600), 0);
  answers.types_are_told = false;
  std::map<std::string, EntryType> seen;
  walk_tree(open_tree(root / "tree"), [&](const TreeEntry& entry) { seen.emplace(entry.path, entry.type); });
  const std::map<std::string, EntryType> expected = {
      {"a", EntryType::directory}, {"a/file", EntryType::file}, {"link", EntryType::link}, {"queue", EntryType::other}};
  EXPECT_EQ(seen, expected);
}

TEST_F(SnapshotFaultTest, FailsWhereATypeCannotBeFoundOut) {
  extract();
  answers.types_are_told = false;
  answers.names_can_be_looked_at = false;
  EXPECT_FAILURE(verify_snapshot_tree(snapshot.manifest, staging, {}), "tree_read",
                 "Cannot read a directory of the tree");
}

TEST_F(SnapshotFaultTest, FailsWhereADirectoryCannotBeReadToItsEnd) {
  extract();
  answers.names_can_be_read = false;
  EXPECT_FAILURE(verify_snapshot_tree(snapshot.manifest, staging, {}), "tree_read",
                 "Cannot read a directory of the tree");
}

TEST_F(SnapshotFaultTest, FindsMoreFilesThanTheManifestHasWhereAVolumeTellsThemTwice) {
  extract();
  const Names before = root.names();
  answers.files_are_told_once = false;
  EXPECT_FAILURE(verify_snapshot_tree(snapshot.manifest, staging, {}), "size_limit",
                 "Game tree contains too many files");
  EXPECT_EQ(damaged_snapshot_files(snapshot.manifest, staging, {}, 10).count, 0u);
  answers.files_are_told_once = true;
  EXPECT_EQ(root.names(), before);
}

// --- Libraries -----------------------------------------------------------------------------

TEST_F(SnapshotFaultTest, NeedsItsDecoders) {
  const struct {
    bool Answers::*answer;
    const char* message;
  } cases[] = {{&Answers::contexts_can_be_made, "Cannot open bounded snapshot decoder"},
               {&Answers::windows_can_be_bounded, "Cannot set the 64 MiB decoder window limit"},
               {&Answers::readers_can_be_made, "Cannot allocate archive decoder"}};
  for (const auto& missing : cases) {
    answers.*missing.answer = false;
    EXPECT_FAILURE(extract(), "archive", missing.message);
    EXPECT_TRUE(std::filesystem::is_empty(staging));
    std::filesystem::remove_all(staging);
    answers = {};
  }
}

TEST_F(SnapshotFaultTest, PacksOnlyWithItsEncoders) {
  ASSERT_EQ(chmod(root.write("tree/file", "x").c_str(), 0644), 0);
  SnapshotInventory inventory = scan_snapshot_tree(root / "tree");
  std::size_t bytes = 0;
  const auto pack = [&] {
    pack_snapshot(root / "tree", inventory, 1, [&](std::string_view piece) { bytes += piece.size(); }, {});
  };
  const struct {
    bool Answers::*answer;
    const char* message;
  } cases[] = {{&Answers::compressors_can_be_made, "Cannot start the archive's compression"},
               {&Answers::writers_can_be_made, "Cannot write the archive"},
               {&Answers::headers_can_be_written, "Cannot write the archive"},
               {&Answers::content_can_be_compressed, "Cannot compress the archive"}};
  for (const auto& missing : cases) {
    answers.*missing.answer = false;
    EXPECT_FAILURE(pack(), "archive", missing.message);
    EXPECT_EQ(bytes, 0u);
    answers = {};
  }
  pack();
  EXPECT_GT(bytes, 0u);
}

TEST_F(SnapshotFaultTest, WritesNothingBeyondTheLengthOfAFile) {
  answers.content = [](void* bytes, std::size_t size) {
    std::memset(bytes, 'x', size);
    return static_cast<la_ssize_t>(size);
  };
  EXPECT_FAILURE(extract(), "size_limit", "Archive expands beyond authenticated file length");
  EXPECT_EQ(root.names(), (Names{"archive", "staging/", "staging/bin/"}));
}

TEST_F(SnapshotFaultTest, WritesNotOneByteBeyondTheLengthOfAFile) {
  int calls = 0;
  answers.content = [&](void* bytes, std::size_t) -> la_ssize_t {
    // Nine bytes, as they should be, and one more.
    std::memcpy(bytes, "#!program", 9);
    return ++calls == 1 ? 9 : 1;
  };
  EXPECT_FAILURE(extract(), "size_limit", "Archive expands beyond authenticated file length");
  EXPECT_EQ(calls, 2);
}

TEST_F(SnapshotFaultTest, TellsAFileThatEndsBeforeItsLength) {
  int calls = 0;
  answers.content = [&](void* bytes, std::size_t) -> la_ssize_t {
    std::memcpy(bytes, "#!progra", 8);
    return ++calls == 1 ? 8 : 0;
  };
  EXPECT_FAILURE(extract(), "archive", "Snapshot file is truncated");
  EXPECT_EQ(root.names(), (Names{"archive", "staging/", "staging/bin/"}));
}

}  // namespace
}  // namespace ravok
