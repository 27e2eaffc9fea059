#include "platform/snapshot/snapshot_retirement.hpp"

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/types.h>
#include <unistd.h>

#include "support/failure.hpp"
#include "support/manifest_builder.hpp"
#include "support/ordinary_user.hpp"
#include "support/temporary_root.hpp"
#include "support/tree_state.hpp"

namespace ravok::snapshot_retirement_test {
namespace {

using testing::OrdinaryUser;
using testing::TemporaryRoot;
using testing::WithMode;

constexpr mode_t read_only = 0500;

SnapshotManifest manifest_of(const std::vector<std::string>& paths) {
  std::vector<testing::ManifestFile> files;
  for (const std::string& path : paths) {
    files.push_back({path});
  }
  return SnapshotManifest::parse(testing::manifest_document(files));
}

TEST(ValidateSnapshotRetirement, AcceptsWhatIsThereAndWhatIsMissing) {
  const TemporaryRoot root;
  const SnapshotManifest manifest = manifest_of({"data/a", "data/b"});
  EXPECT_NO_THROW(validate_snapshot_retirement(manifest, root / "missing"));
  root.write("data/a", "anything");
  EXPECT_NO_THROW(validate_snapshot_retirement(manifest, root.path()));
}

TEST(ValidateSnapshotRetirement, NeedsAnOrdinaryRoot) {
  constexpr const char* ordinary = "Managed snapshot retirement requires an ordinary directory";
  const TemporaryRoot root;
  root.write("file", "x");
  std::filesystem::create_symlink(".", root / "link");
  for (const char* name : {"file", "link"}) {
    EXPECT_FAILURE(validate_snapshot_retirement(manifest_of({}), root / name), "unsafe_path", ordinary);
  }
}

TEST(ValidateSnapshotRetirement, PreservesAPathThatBecameSomethingElse) {
  const TemporaryRoot root;
  const SnapshotManifest manifest = manifest_of({"data/a", "data/b"});
  root.write("bin/program", "x");
  root.directory("data/b");
  EXPECT_FAILURE(retire_snapshot_files(manifest, root.path(), {}), "unsafe_path",
                 "A managed snapshot path became a link or special file; it was preserved");
  std::filesystem::remove(root / "data/b");
  std::filesystem::create_symlink("/etc/passwd", root / "data/b");
  EXPECT_FAILURE(retire_snapshot_files(manifest, root.path(), {}), "unsafe_path",
                 "Managed path contains a symbolic link");
  EXPECT_EQ(root.names(), (std::vector<std::string>{"bin/", "bin/program", "data/", "data/b@"}));
}

TEST(RetireSnapshotFiles, RemovesAllThatTheManifestNamesAndTheRoot) {
  const TemporaryRoot root;
  const SnapshotManifest manifest = manifest_of({"a/b/c/file", "a/other", "top"});
  for (const char* path : {"tree/bin/program", "tree/a/b/c/file", "tree/a/other", "tree/top"}) {
    root.write(path, "x");
  }
  retire_snapshot_files(manifest, root / "tree", {});
  EXPECT_TRUE(root.names().empty());
  EXPECT_NO_THROW(retire_snapshot_files(manifest, root / "tree", {}));
}

TEST(RetireSnapshotFiles, KeepsWhatTheManifestDoesNotName) {
  const TemporaryRoot root;
  const SnapshotManifest manifest = manifest_of({"a/b/file", "a/c/file"});
  for (const char* path : {"tree/bin/program", "tree/a/b/file", "tree/a/c/file"}) {
    root.write(path, "x");
  }
  root.write("tree/a/b/mine", "mine");
  retire_snapshot_files(manifest, root / "tree", {});
  EXPECT_EQ(root.names(), (std::vector<std::string>{"tree/", "tree/a/", "tree/a/b/", "tree/a/b/mine"}));
  EXPECT_EQ(root.read("tree/a/b/mine"), "mine");
  EXPECT_NO_THROW(retire_snapshot_files(manifest, root / "tree", {}));
}

TEST(RetireSnapshotFiles, RetiresDirectoriesWhoseFilesAreAlreadyGone) {
  const TemporaryRoot root;
  root.directory("tree/a/b");
  retire_snapshot_files(manifest_of({"a/b/file"}), root / "tree", {});
  EXPECT_TRUE(root.names().empty());
}

TEST(RetireSnapshotFiles, StopsWhereTheHookSaysAndGoesOnLater) {
  const TemporaryRoot root;
  const SnapshotManifest manifest = manifest_of({"a", "z"});
  for (const char* path : {"tree/a", "tree/bin/program", "tree/z"}) {
    root.write(path, "x");
  }
  int calls = 0;
  const auto stop = [&calls] { require(++calls < 3, "cancelled", "Stopped"); };
  EXPECT_FAILURE(retire_snapshot_files(manifest, root / "tree", stop), "cancelled", "Stopped");
  EXPECT_EQ(root.names(), (std::vector<std::string>{"tree/", "tree/bin/", "tree/z"}));
  retire_snapshot_files(manifest, root / "tree", {});
  EXPECT_TRUE(root.names().empty());
}

TEST(RetireSnapshotFiles, PreservesWhatChangesUnderTheWork) {
  const TemporaryRoot root;
  root.write("tree/bin/program", "x");
  root.write("tree/z", "x");
  const auto swap = [&root] {
    if (std::filesystem::is_regular_file(root / "tree/z")) {
      std::filesystem::remove(root / "tree/z");
      root.write("tree/z/mine", "mine");
    }
  };
  EXPECT_FAILURE(retire_snapshot_files(manifest_of({"z"}), root / "tree", swap), "unsafe_path",
                 "Changed managed paths were preserved");
  EXPECT_EQ(root.read("tree/z/mine"), "mine");
}

// A tree and, outside of it, directories that hold the same names.
class RetirementOfASwappedTree : public ::testing::Test {
 protected:
  RetirementOfASwappedTree() {
    for (const char* path : {"bin/program", "c/one", "c/two", "d/file"}) {
      root_.write("tree/" + std::string(path), "x");
      root_.write("outside/" + std::string(path), "theirs");
    }
  }

  // Puts a link to the directory of that name outside in its place, before the file of that number, from 1.
  std::function<void()> swap(const std::string& name, int before) {
    return [this, name, before] {
      if (++calls_ == before) {
        std::filesystem::rename(root_ / "tree" / name, root_ / "moved");
        std::filesystem::create_directory_symlink(root_ / "outside" / name, root_ / "tree" / name);
      }
    };
  }

  void expect_refused(const std::function<void()>& hook, const char* message) {
    const testing::TreeState outside = testing::tree_state(root_ / "outside");
    EXPECT_FAILURE(retire_snapshot_files(manifest_of({"c/one", "c/two", "d/file"}), root_ / "tree", hook),
                   "unsafe_path", message);
    EXPECT_TRUE(testing::same_tree(testing::tree_state(root_ / "outside"), outside));
  }

  const TemporaryRoot root_;
  int calls_ = 0;
};

TEST_F(RetirementOfASwappedTree, GoesOnInTheDirectoryThatItHoldsAndThenRefusesTheLink) {
  expect_refused(swap("c", 3), "Changed managed directory was preserved");
  EXPECT_TRUE(std::filesystem::is_symlink(root_ / "tree/c"));
  EXPECT_TRUE(std::filesystem::is_empty(root_ / "moved"));
}

TEST_F(RetirementOfASwappedTree, RefusesALinkThatItComesTo) {
  expect_refused(swap("d", 4), "Managed path contains a symbolic link");
  EXPECT_TRUE(std::filesystem::is_symlink(root_ / "tree/d"));
  EXPECT_EQ(root_.read("moved/file"), "x");
}

TEST_F(RetirementOfASwappedTree, RefusesALinkInPlaceOfADirectoryThatIsEmptyAlready) {
  std::filesystem::remove(root_ / "tree/d/file");
  expect_refused(swap("d", 4), "Managed path contains a symbolic link");
  EXPECT_TRUE(std::filesystem::is_symlink(root_ / "tree/d"));
}

TEST_F(RetirementOfASwappedTree, EmptiesTheTreeThatItHoldsAndPreservesWhatStandsInItsPlace) {
  const auto swap_root = [this] {
    if (++calls_ == 2) {
      std::filesystem::rename(root_ / "tree", root_ / "moved");
      std::filesystem::create_directory_symlink("outside", root_ / "tree");
    }
  };
  expect_refused(swap_root, "Changed managed directory was preserved");
  EXPECT_TRUE(std::filesystem::is_symlink(root_ / "tree"));
  EXPECT_TRUE(std::filesystem::is_empty(root_ / "moved"));
}

TEST_F(RetirementOfASwappedTree, PreservesAnEmptyDirectoryThatStandsInItsPlace) {
  const auto replace_root = [this] {
    if (++calls_ == 2) {
      std::filesystem::rename(root_ / "tree", root_ / "moved");
      root_.directory("tree");
    }
  };
  expect_refused(replace_root, "Changed managed directory was preserved");
  EXPECT_TRUE(std::filesystem::is_directory(root_ / "tree"));
}

TEST(RetireSnapshotFiles, RunsTheHookBeforeEachFileAlsoAMissingOne) {
  const TemporaryRoot root;
  root.write("tree/a", "x");
  std::vector<std::size_t> left;
  retire_snapshot_files(manifest_of({"a", "z"}), root / "tree", [&] { left.push_back(root.names().size()); });
  EXPECT_EQ(left, (std::vector<std::size_t>{2, 1, 1}));
}

TEST(RetireSnapshotFiles, PreservesWhatStandsInADirectorysPlace) {
  const TemporaryRoot root;
  root.write("tree/a", "mine");
  EXPECT_FAILURE(retire_snapshot_files(manifest_of({"a/file"}), root / "tree", {}), "unsafe_path",
                 "Changed managed directory was preserved");
  EXPECT_EQ(root.read("tree/a"), "mine");
}

TEST(RetireSnapshotFiles, ReportsAFileThatItCannotRemoveAndGoesOnLater) {
  const TemporaryRoot root;
  const SnapshotManifest manifest = manifest_of({"a", "d/file"});
  for (const char* path : {"tree/a", "tree/bin/program", "tree/d/file"}) {
    root.write(path, "x");
  }
  const OrdinaryUser user(root);
  {
    const WithMode fixed(root / "tree/d", read_only);
    EXPECT_FAILURE(retire_snapshot_files(manifest, root / "tree", {}), "file_remove",
                   "Cannot remove a declared managed file");
  }
  EXPECT_EQ(root.names(), (std::vector<std::string>{"tree/", "tree/bin/", "tree/d/", "tree/d/file"}));
  retire_snapshot_files(manifest, root / "tree", {});
  EXPECT_TRUE(root.names().empty());
}

TEST(RetireSnapshotFiles, ReportsADirectoryThatItCannotRemove) {
  const TemporaryRoot root;
  root.directory("tree/d/inner");
  const OrdinaryUser user(root);
  const WithMode fixed(root / "tree/d", read_only);
  EXPECT_FAILURE(retire_snapshot_files(manifest_of({"d/inner/file"}), root / "tree", {}), "file_remove",
                 "Cannot retire empty managed directory");
  EXPECT_EQ(root.names(), (std::vector<std::string>{"tree/", "tree/d/", "tree/d/inner/"}));
}

TEST(RetireSnapshotFiles, ReportsARootThatItCannotRemove) {
  const TemporaryRoot root;
  root.write("above/tree/a", "x");
  const OrdinaryUser user(root);
  const WithMode fixed(root / "above", read_only);
  EXPECT_FAILURE(retire_snapshot_files(manifest_of({"a"}), root / "above/tree", {}), "file_remove",
                 "Cannot retire empty snapshot directory");
  EXPECT_EQ(root.names(), (std::vector<std::string>{"above/", "above/tree/"}));
}

}  // namespace
}  // namespace ravok::snapshot_retirement_test
