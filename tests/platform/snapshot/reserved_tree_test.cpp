#include "platform/snapshot/reserved_tree.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "platform/file/directory_identity.hpp"
#include "platform/file/status.hpp"
#include "support/failure.hpp"
#include "support/manifest_builder.hpp"
#include "support/temporary_root.hpp"
#include "support/working_directory.hpp"

namespace ravok::reserved_tree_test {
namespace {

using testing::ManifestFile;
using testing::TemporaryRoot;

using Names = std::vector<std::string>;
using Steps = std::vector<std::pair<std::uint64_t, std::uint64_t>>;

constexpr const char* not_fresh = "A fresh reservation directory is required";
constexpr const char* no_parent = "Allocation requires an ordinary parent directory";
constexpr const char* cancelled = "Storage preparation cancelled before download";
constexpr const char* another_file = "File differs from the prepared inventory";
constexpr const char* another_snapshot = "Prepared tree differs from the requested snapshot";

SnapshotManifest manifest_of(const std::vector<ManifestFile>& files) {
  return SnapshotManifest::parse(testing::manifest_document(files));
}

class ReservedTreeTest : public ::testing::Test {
 protected:
  // "bin/program" of 10 bytes, and these: 75,010 bytes in all.
  const SnapshotManifest manifest =
      manifest_of({{"data/levels/empty", 0}, {"data/levels/one", 5000}, {"readme", 70000}});
  const TemporaryRoot root;
  const std::filesystem::path staging = root / "staging";

  ReservedTree reserve() const { return ReservedTree(manifest, staging, {}, {}); }

  // Does something ahead of the file of this number, from 1, and goes on.
  static ProgressCallback ahead_of(int number, const std::function<void()>& event) {
    return [number, event, count = 0](std::uint64_t, std::uint64_t) mutable {
      if (++count == number) {
        event();
      }
      return true;
    };
  }

  // Does something ahead of the file of this number, from 1, and cancels.
  static ProgressCallback cancelling_at(
      int number, const std::function<void()>& event = [] {}) {
    return [number, event, count = 0](std::uint64_t, std::uint64_t) mutable {
      if (++count == number) {
        event();
      }
      return count < number;
    };
  }

  // Moves the root away and puts a foreign directory in its place.
  void replace_root() const {
    std::filesystem::rename(staging, root / "moved");
    root.write("staging/foreign", "foreign");
  }

  Status status_at(const std::string& name) const {
    const auto status = link_status_of(staging / name);
    EXPECT_TRUE(status) << name;
    return *status;
  }
};

// --- Places --------------------------------------------------------------------------------

TEST_F(ReservedTreeTest, TakesASeparatorAtTheEndOfItsRootForNothing) {
  for (const char* end : {"/", "//"}) {
    std::filesystem::remove_all(staging);
    const ReservedTree tree(manifest, staging.native() + end, {}, {});
    EXPECT_EQ(tree.root(), staging);
    EXPECT_EQ(tree.file("readme", 70000).path, staging / "readme");
    EXPECT_NO_THROW(tree.validate(manifest, staging));
    EXPECT_NO_THROW(tree.validate(manifest, staging.native() + end));
  }
  EXPECT_NO_THROW(ReservedTree(manifest, root / "other", {}, {}).validate(manifest, (root / "other").native() + "/"));
}

TEST_F(ReservedTreeTest, RefusesWhatIsThereWithOrWithoutASeparator) {
  root.write("file", "x");
  root.directory("real");
  std::filesystem::create_symlink("real", root / "link");
  std::filesystem::create_symlink("nowhere", root / "dangling");
  const Names before = root.names();
  for (const char* name : {"file", "real", "link", "dangling"}) {
    for (const char* end : {"", "/"}) {
      EXPECT_FAILURE(ReservedTree(manifest, (root / name).native() + end, {}, {}), "staging_exists", not_fresh)
          << name << end;
    }
  }
  EXPECT_EQ(root.names(), before);
}

TEST_F(ReservedTreeTest, RefusesAPathWithoutAPlace) {
  EXPECT_FAILURE(ReservedTree(manifest, "", {}, {}), "unsafe_path", no_parent);
  EXPECT_FAILURE(reserve().validate(manifest, ""), "allocation_changed", another_snapshot);
}

// --- Making --------------------------------------------------------------------------------

TEST_F(ReservedTreeTest, MakesAPrivateFileWithItsBlocksForEveryFile) {
  const ReservedTree tree = reserve();
  EXPECT_EQ(root.names(),
            (Names{"staging/", "staging/bin/", "staging/bin/program", "staging/data/", "staging/data/levels/",
                   "staging/data/levels/empty", "staging/data/levels/one", "staging/readme"}));
  for (const auto& [path, expected] : manifest.files) {
    const Status status = status_at(path);
    EXPECT_TRUE(is_single_link_file(status)) << path;
    EXPECT_EQ(status.permissions, 0600u) << path;
    EXPECT_EQ(status.size, expected.length) << path;
    EXPECT_GE(status.allocated, expected.length) << path;
    const FileReservation reservation{staging / path, expected.length, static_cast<std::uint32_t>(status.device),
                                      status.inode, expected.length != 0};
    EXPECT_EQ(tree.file(path, expected.length), reservation);
  }
  for (const char* directory : {"", "bin", "data", "data/levels"}) {
    EXPECT_TRUE(is_directory(status_at(directory))) << directory;
    EXPECT_EQ(status_at(directory).permissions, 0700u) << directory;
  }
}

TEST_F(ReservedTreeTest, KnowsItsRootAndItsIdentity) {
  const ReservedTree tree = reserve();
  EXPECT_EQ(tree.root(), staging);
  EXPECT_EQ(tree.identity(), inspect_storage_directory(staging));
}

TEST_F(ReservedTreeTest, MakesItsRootAbsolute) {
  std::optional<testing::WorkingDirectory> working(std::in_place, root.path());
  const ReservedTree tree(manifest, "staging", {}, {});
  EXPECT_NO_THROW(tree.validate(manifest, "staging"));
  working.reset();
  EXPECT_EQ(tree.root(), staging);
  EXPECT_EQ(tree.file("readme", 70000).path, staging / "readme");
}

TEST_F(ReservedTreeTest, SumsUpWhatWasAskedForAndWhatIsHeld) {
  EXPECT_EQ(reserve().summary(), Json::parse(R"({"requested_bytes": 75010, "reserved_bytes": 75010, "file_count": 4,
                                                 "data_reserved": true})"));
}

TEST_F(ReservedTreeTest, TellsBeforeEachFileHowManyBytesAreReserved) {
  Steps told;
  std::vector<std::size_t> files;
  const ReservedTree tree(manifest, staging,
                          [&](std::uint64_t done, std::uint64_t total) {
                            told.emplace_back(done, total);
                            files.push_back(0);
                            for (const auto& [path, file] : manifest.files) {
                              files.back() += std::filesystem::exists(staging / path) ? 1U : 0U;
                            }
                            return true;
                          },
                          {});
  EXPECT_EQ(told, (Steps{{0, 75010}, {10, 75010}, {10, 75010}, {5010, 75010}}));
  EXPECT_EQ(files, (std::vector<std::size_t>{0, 1, 2, 3}));
}

TEST_F(ReservedTreeTest, NeverTakesARootThatExists) {
  root.write("directory/file", "x");
  root.write("file", "x");
  std::filesystem::create_symlink("nowhere", root / "link");
  const Names before = root.names();
  bool told = false;
  for (const char* name : {"directory", "file", "link"}) {
    EXPECT_FAILURE(ReservedTree(manifest, root / name, {}, [&](const DirectoryIdentity&) { told = true; }),
                   "staging_exists", not_fresh)
        << name;
  }
  EXPECT_FALSE(told);
  EXPECT_EQ(root.names(), before);
}

TEST_F(ReservedTreeTest, NeedsAnOrdinaryParentDirectory) {
  root.directory("real");
  root.write("plain", "x");
  std::filesystem::create_directory_symlink("real", root / "link");
  const Names before = root.names();
  for (const char* parent : {"missing", "plain", "link"}) {
    EXPECT_FAILURE(ReservedTree(manifest, root / parent / "staging", {}, {}), "unsafe_path", no_parent) << parent;
  }
  EXPECT_EQ(root.names(), before);
}

TEST_F(ReservedTreeTest, LooksForTheRootBeforeItsParent) {
  root.directory("real/staging");
  std::filesystem::create_directory_symlink("real", root / "link");
  EXPECT_FAILURE(ReservedTree(manifest, root / "link/staging", {}, {}), "staging_exists", not_fresh);
}

// --- Recording -----------------------------------------------------------------------------

TEST_F(ReservedTreeTest, TellsOnceOfTheEmptyPrivateRootBeforeAnythingIsReserved) {
  std::vector<DirectoryIdentity> told;
  const ReservedTree tree(
      manifest, staging, [&](std::uint64_t, std::uint64_t) { return !told.empty(); },
      [&](const DirectoryIdentity& identity) {
        told.push_back(identity);
        EXPECT_EQ(identity, inspect_storage_directory(staging));
        EXPECT_EQ(root.names(), Names{"staging/"});
        EXPECT_TRUE(is_directory(status_at("")));
        EXPECT_EQ(status_at("").permissions, 0700u);
      });
  EXPECT_EQ(told, std::vector{tree.identity()});
}

TEST_F(ReservedTreeTest, IsGoneWhenItsOwnershipCannotBeRecorded) {
  EXPECT_THROW(
      ReservedTree(manifest, staging, {}, [](const DirectoryIdentity&) { throw std::runtime_error("no record"); }),
      std::runtime_error);
  EXPECT_EQ(root.names(), Names{});
}

TEST_F(ReservedTreeTest, LeavesARootAloneThatIsReplacedWhileItIsRecorded) {
  EXPECT_FAILURE(ReservedTree(manifest, staging, {}, [&](const DirectoryIdentity&) { replace_root(); }),
                 "allocation_changed", "Prepared root changed while recording ownership");
  EXPECT_EQ(root.names(), (Names{"moved/", "staging/", "staging/foreign"}));
  EXPECT_EQ(root.read("staging/foreign"), "foreign");
}

TEST_F(ReservedTreeTest, IsNotMadeAgainWhenItGoesWhileItIsRecorded) {
  EXPECT_FAILURE(
      ReservedTree(manifest, staging, {}, [&](const DirectoryIdentity&) { std::filesystem::remove(staging); }),
      "unsafe_path", "Cannot inspect prepared directory identity");
  EXPECT_EQ(root.names(), Names{});
}

// --- Giving up -----------------------------------------------------------------------------

TEST_F(ReservedTreeTest, IsGoneWhenCancelledAheadOfAnyFile) {
  for (int number = 1; number <= 4; ++number) {
    EXPECT_FAILURE(ReservedTree(manifest, staging, cancelling_at(number), {}), "cancelled", cancelled) << number;
    EXPECT_EQ(root.names(), Names{}) << number;
  }
  EXPECT_NO_THROW(ReservedTree(manifest, staging, cancelling_at(5), {}));
}

TEST_F(ReservedTreeTest, IsGoneWhenItsCallbackThrowsAndPassesThatOn) {
  for (int number = 1; number <= 4; ++number) {
    const auto throwing = ahead_of(number, [] { throw std::runtime_error("no progress"); });
    EXPECT_THROW(ReservedTree(manifest, staging, throwing, {}), std::runtime_error) << number;
    EXPECT_EQ(root.names(), Names{}) << number;
  }
}

TEST_F(ReservedTreeTest, LeavesForeignFilesBehindWhenCancelled) {
  const auto event = [&] { root.write("staging/bin/foreign", "foreign"); };
  EXPECT_FAILURE(ReservedTree(manifest, staging, cancelling_at(4, event), {}), "cancelled", cancelled);
  EXPECT_EQ(root.names(), (Names{"staging/", "staging/bin/", "staging/bin/foreign"}));
  EXPECT_EQ(root.read("staging/bin/foreign"), "foreign");
}

TEST_F(ReservedTreeTest, LeavesAReplacedFileBehindWhenCancelled) {
  const auto event = [&] {
    std::filesystem::rename(staging / "bin/program", root / "moved");
    root.write("staging/bin/program", "foreign");
  };
  EXPECT_FAILURE(ReservedTree(manifest, staging, cancelling_at(4, event), {}), "cancelled", cancelled);
  EXPECT_EQ(root.read("staging/bin/program"), "foreign");
  EXPECT_EQ(root.read("moved"), std::string(10, '\0'));
}

TEST_F(ReservedTreeTest, LeavesAFileBehindThatGrewWhenCancelled) {
  const auto event = [&] { root.write("staging/bin/program", "eleven byte"); };
  EXPECT_FAILURE(ReservedTree(manifest, staging, cancelling_at(4, event), {}), "cancelled", cancelled);
  EXPECT_EQ(root.read("staging/bin/program"), "eleven byte");
}

TEST_F(ReservedTreeTest, LeavesAReplacedRootBehindWhenCancelled) {
  EXPECT_FAILURE(ReservedTree(manifest, staging, cancelling_at(2, [&] { replace_root(); }), {}), "cancelled",
                 cancelled);
  EXPECT_EQ(root.names(), (Names{"moved/", "moved/bin/", "moved/bin/program", "staging/", "staging/foreign"}));
}

TEST_F(ReservedTreeTest, NeverTakesAFileThatExists) {
  const auto event = [&] { root.write("staging/data/levels/one", "foreign"); };
  EXPECT_FAILURE(ReservedTree(manifest, staging, ahead_of(3, event), {}), "unsafe_path",
                 "Cannot exclusively create or reopen a prepared allocation (" + std::to_string(EEXIST) + ")");
  EXPECT_EQ(root.names(), (Names{"staging/", "staging/data/", "staging/data/levels/", "staging/data/levels/one"}));
  EXPECT_EQ(root.read("staging/data/levels/one"), "foreign");
}

TEST_F(ReservedTreeTest, NeverReservesThroughALink) {
  root.directory("elsewhere");
  const auto event = [&] { std::filesystem::create_directory_symlink("../elsewhere", staging / "data"); };
  EXPECT_FAILURE(ReservedTree(manifest, staging, ahead_of(2, event), {}), "unsafe_path",
                 "Managed path contains a symbolic link");
  EXPECT_EQ(root.names(), (Names{"elsewhere/", "staging/", "staging/data@"}));
}

TEST_F(ReservedTreeTest, LeavesARootAloneThatIsReplacedDuringTheReservation) {
  const auto event = [&] {
    std::filesystem::rename(staging, root / "moved");
    std::filesystem::copy(root / "moved", staging, std::filesystem::copy_options::recursive);
  };
  EXPECT_FAILURE(ReservedTree(manifest, staging, ahead_of(4, event), {}), "allocation_changed",
                 "Prepared directory changed during reservation");
  const Names left = root.names();
  EXPECT_EQ(std::count(left.begin(), left.end(), "moved/data/levels/one"), 1);
  EXPECT_EQ(std::count(left.begin(), left.end(), "staging/data/levels/one"), 1);
}

// --- The inventory -------------------------------------------------------------------------

TEST_F(ReservedTreeTest, KnowsAFileByItsPathAndItsLengthOnly) {
  const ReservedTree tree = reserve();
  EXPECT_EQ(tree.file("data/levels/one", 5000).size, 5000u);
  EXPECT_EQ(tree.file("data/levels/empty", 0).size, 0u);
  for (const std::uint64_t length : {4999u, 5001u, 0u}) {
    EXPECT_FAILURE(tree.file("data/levels/one", length), "allocation_changed", another_file) << length;
  }
  for (const char* path : {"", "data", "data/levels/two", "DATA/levels/one", "/data/levels/one"}) {
    EXPECT_FAILURE(tree.file(path, 5000), "allocation_changed", another_file) << path;
  }
}

TEST_F(ReservedTreeTest, IsTheTreeOfItsManifestAtItsPlace) {
  const ReservedTree tree = reserve();
  EXPECT_NO_THROW(tree.validate(manifest, staging));
}

TEST_F(ReservedTreeTest, IsNotTheTreeOfAnotherNumberOfFiles) {
  const ReservedTree tree = reserve();
  // The sum of the lengths is the same.
  const std::vector<std::vector<ManifestFile>> others = {
      {{"data/levels/one", 5000}, {"readme", 70000}},
      {{"data/levels/empty", 0}, {"data/levels/one", 5000}, {"data/levels/two", 0}, {"readme", 70000}}};
  for (const std::vector<ManifestFile>& files : others) {
    EXPECT_FAILURE(tree.validate(manifest_of(files), staging), "allocation_changed", another_snapshot);
  }
}

TEST_F(ReservedTreeTest, IsNotTheTreeOfOtherLengths) {
  const ReservedTree tree = reserve();
  EXPECT_FAILURE(
      tree.validate(manifest_of({{"data/levels/empty", 0}, {"data/levels/one", 5001}, {"readme", 70000}}), staging),
      "allocation_changed", another_snapshot);
  // The sum of the lengths is the same.
  EXPECT_FAILURE(
      tree.validate(manifest_of({{"data/levels/empty", 0}, {"data/levels/one", 5001}, {"readme", 69999}}), staging),
      "allocation_changed", another_file);
}

TEST_F(ReservedTreeTest, IsNotTheTreeOfOtherPaths) {
  const ReservedTree tree = reserve();
  EXPECT_FAILURE(
      tree.validate(manifest_of({{"data/levels/empty", 0}, {"data/levels/two", 5000}, {"readme", 70000}}), staging),
      "allocation_changed", another_file);
}

TEST_F(ReservedTreeTest, IsNotTheTreeAtAnotherPlace) {
  const ReservedTree tree = reserve();
  EXPECT_FAILURE(tree.validate(manifest, root.path()), "allocation_changed", another_snapshot);
  std::filesystem::create_directory_symlink("staging", root / "link");
  EXPECT_FAILURE(tree.validate(manifest, root / "link"), "allocation_changed", another_snapshot);
}

TEST_F(ReservedTreeTest, IsNotTheTreeInAReplacedRoot) {
  const ReservedTree tree = reserve();
  replace_root();
  EXPECT_FAILURE(tree.validate(manifest, staging), "allocation_changed", another_snapshot);
  EXPECT_FAILURE(tree.validate(manifest, root / "moved"), "allocation_changed", another_snapshot);
  std::filesystem::remove_all(staging);
  EXPECT_FAILURE(tree.validate(manifest, staging), "unsafe_path", "Cannot inspect prepared directory identity");
}

TEST_F(ReservedTreeTest, StaysWithoutTheObject) {
  { const ReservedTree tree = reserve(); }
  EXPECT_EQ(status_at("readme").size, 70000u);
}

}  // namespace
}  // namespace ravok::reserved_tree_test
