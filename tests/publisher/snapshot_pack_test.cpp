#include "publisher/snapshot_pack.hpp"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "domain/crypto.hpp"
#include "platform/snapshot/snapshot_archive.hpp"
#include "support/failure.hpp"
#include "support/ordinary_user.hpp"
#include "support/snapshot_builder.hpp"
#include "support/temporary_root.hpp"

namespace ravok {
namespace {

using testing::noise;
using testing::OrdinaryUser;
using testing::SampleFile;
using testing::TemporaryRoot;
using testing::WithMode;

constexpr std::size_t piece_bytes = 65536;
constexpr int maximum_files = 100'000;
constexpr int maximum_entries = 250'000;
// A volume in memory holds many entries quickly.
constexpr const char* in_memory = "/dev/shm";

constexpr const char* bad_level = "The compression level is a number from 1 to 19";
constexpr const char* cancelled = "Operation cancelled at a safe boundary";

std::string changed(const std::string& path) { return "The tree changed while it was packed: " + path; }
std::string not_opened(const std::string& path) { return "Cannot open file: " + path; }

class SnapshotPackTest : public ::testing::Test {
 protected:
  const TemporaryRoot root;
  const std::filesystem::path tree = root / "tree";
  const std::vector<SampleFile> files = {{"bin/program", "#!program", 0755},
                                         {"data/deep/large", noise(3 * piece_bytes + 5)},
                                         {"data/empty"},
                                         {"readme", "text"}};

  SnapshotPackTest() { put_all(); }

  void put(const std::string& path, std::string_view content, mode_t mode = 0644) const {
    ASSERT_EQ(chmod(root.write("tree/" + path, content).c_str(), mode), 0) << path;
  }

  void put_all() const {
    for (const SampleFile& file : files) {
      put(file.path, file.content, file.mode);
    }
  }

  SnapshotInventory scan() const { return scan_snapshot_tree(tree); }

  // Packs what was scanned and forgets it.
  void pack(SnapshotInventory inventory, const ProgressCallback& progress = {}) const {
    pack_snapshot(
        tree, inventory, 1, [](std::string_view) {}, progress);
  }

  // Something happens to the tree after its scan. Packing it fails, and the tree is made again.
  void expect_noticed(const std::function<void()>& event, const char* code, const std::string& message) const {
    const SnapshotInventory inventory = scan();
    event();
    EXPECT_FAILURE(pack(inventory), code, message);
    std::filesystem::remove_all(tree);
    put_all();
  }

  // The same for what happens when the first bytes of the large file are packed.
  void expect_noticed_meanwhile(const std::function<void()>& event, const std::string& message) const {
    bool happened = false;
    const auto progress = [&](std::uint64_t done, std::uint64_t) {
      if (done > piece_bytes && !happened) {
        happened = true;
        event();
      }
      return true;
    };
    EXPECT_FAILURE(pack(scan(), progress), "content_mismatch", message);
    EXPECT_TRUE(happened);
    put_all();
  }
};

// --- Scanning ------------------------------------------------------------------------------

TEST_F(SnapshotPackTest, FindsTheFilesWithTheirLengthsAndModesAndNoDigests) {
  const SnapshotInventory inventory = scan();
  EXPECT_EQ(inventory.size(), files.size());
  for (const SampleFile& file : files) {
    const SnapshotFile& found = inventory.at(file.path);
    EXPECT_EQ(found.length, file.content.size()) << file.path;
    EXPECT_EQ(found.executable, file.mode == 0755) << file.path;
    EXPECT_EQ(found.sha256, "") << file.path;
  }
}

TEST_F(SnapshotPackTest, ScansNoDirectoryThatItCannotRead) {
  const OrdinaryUser user(root);
  const WithMode closed(tree / "data/deep", 0);
  EXPECT_FAILURE(scan(), "tree_read", "Cannot read a directory of the tree");
}

TEST(SnapshotPackBounds, TakeAsManyFilesAsASnapshotMayHoldAndNotOneMore) {
  const TemporaryRoot root(in_memory);
  const std::string prefix = root.directory("tree") / "";
  for (int i = 0; i < maximum_files; ++i) {
    ASSERT_EQ(mknod((prefix + std::to_string(i)).c_str(), S_IFREG | 0644, 0), 0) << i;
  }
  EXPECT_EQ(scan_snapshot_tree(root / "tree").size(), static_cast<std::size_t>(maximum_files));
  root.write("tree/more", "");
  EXPECT_FAILURE(scan_snapshot_tree(root / "tree"), "size_limit", "Package file count exceeds bounds");
}

TEST(SnapshotPackBounds, WalkAsManyEntriesAsTheClientWouldAndNotOneMore) {
  const TemporaryRoot root(in_memory);
  const std::string prefix = root.directory("tree") / "";
  root.write("tree/0/file", "x");
  for (int i = 1; i < maximum_entries - 1; ++i) {
    ASSERT_EQ(mkdir((prefix + std::to_string(i)).c_str(), 0755), 0) << i;
  }
  // All of them were looked at.
  EXPECT_FAILURE(scan_snapshot_tree(root / "tree"), "archive_type", "Snapshots hold no empty directories: 1");
  root.directory("tree/more");
  EXPECT_FAILURE(scan_snapshot_tree(root / "tree"), "size_limit", "Game directory entry count exceeds bounds");
}

TEST_F(SnapshotPackTest, BoundsTheSumOfAllLengths) {
  constexpr std::uint64_t maximum_bytes = std::uint64_t{1} << 42;
  std::filesystem::remove_all(tree);
  put("half", "");
  put("other", "");
  std::error_code problem;
  std::filesystem::resize_file(tree / "half", maximum_bytes / 2, problem);
  if (problem) {
    GTEST_SKIP() << "the volume holds no files of that size";
  }
  std::filesystem::resize_file(tree / "other", maximum_bytes / 2);
  EXPECT_EQ(scan().size(), 2u);
  std::filesystem::resize_file(tree / "other", maximum_bytes / 2 + 1);
  const auto failure = testing::failure_of([&] { scan(); });
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->code, "size_limit");
  // The file that is scanned last is refused; the volume chooses the order.
  const std::string message = failure->what();
  EXPECT_TRUE(message == "Expanded package exceeds size bounds: half" ||
              message == "Expanded package exceeds size bounds: other")
      << message;
}

// --- Packing -------------------------------------------------------------------------------

TEST_F(SnapshotPackTest, TellsTheBytesThatItHandsOutAndTheDigestsOfTheFiles) {
  for (const int level : {1, 19}) {
    SnapshotInventory inventory = scan();
    std::string bytes;
    const PackedArchive packed =
        pack_snapshot(tree, inventory, level, [&](std::string_view piece) { bytes += piece; }, {});
    EXPECT_EQ(packed.length, bytes.size());
    EXPECT_EQ(packed.sha256, digest(bytes, "sha256"));
    for (const SampleFile& file : files) {
      EXPECT_EQ(inventory.at(file.path).sha256, digest(file.content, "sha256")) << file.path;
    }
    const testing::Sample sample = testing::write_sample(root, files, bytes);
    extract_snapshot(sample.manifest, sample.archive, root / "staging", {}, nullptr);
    std::filesystem::remove_all(root / "staging");
  }
}

TEST_F(SnapshotPackTest, HandsOutNothingAtALevelThatThereIsNot) {
  SnapshotInventory inventory = scan();
  for (const int level : {-1, 0, 20}) {
    EXPECT_FAILURE(pack_snapshot(tree, inventory, level, [](std::string_view) { ADD_FAILURE(); }, {}), "usage",
                   bad_level)
        << level;
  }
}

TEST_F(SnapshotPackTest, NoticesAFileThatIsNotAsItWasScanned) {
  const std::filesystem::path program = tree / "bin/program";
  const auto instead = [&](const std::function<void()>& make) {
    return [&program, make] {
      std::filesystem::remove(program);
      make();
    };
  };
  const std::string message = changed("bin/program");
  expect_noticed([&] { put("bin/program", "#!program!", 0755); }, "content_mismatch", message);
  expect_noticed([&] { put("bin/program", "#!progra", 0755); }, "content_mismatch", message);
  for (const mode_t mode : {0644u, 0700u, 04755u}) {
    expect_noticed([&] { put("bin/program", "#!program", mode); }, "content_mismatch", message);
  }
  expect_noticed(instead([&] { root.directory("tree/bin/program"); }), "content_mismatch", message);
  expect_noticed(instead([&] { ASSERT_EQ(mkfifo(program.c_str(), 0755), 0); }), "content_mismatch", message);
}

TEST_F(SnapshotPackTest, LooksOnlyAtTheOwnersPermissionWhereModesAreNormalized) {
  put("bin/program", "#!program", 0700);
  SnapshotScanRules rules;
  rules.modes = SnapshotModes::by_owner;
  const auto never = [](const SnapshotRefusal& refusal) { ADD_FAILURE() << refusal.message; };
  SnapshotInventory inventory = scan_snapshot_tree(tree, rules, never, {}).files;
  const auto pack_by_owner = [&] {
    pack_snapshot(
        tree, inventory, 1, [](std::string_view) {}, {}, rules.modes);
  };
  put("bin/program", "#!program", 0711);
  pack_by_owner();
  EXPECT_EQ(inventory.at("bin/program").sha256, digest("#!program", "sha256"));
  put("bin/program", "#!program", 0655);
  EXPECT_FAILURE(pack_by_owner(), "content_mismatch", changed("bin/program"));
}

TEST_F(SnapshotPackTest, StopsLookingWhereItIsCancelled) {
  std::uint64_t seen = 0;
  const auto progress = [&](std::uint64_t entries, std::uint64_t total) {
    EXPECT_EQ(total, 0u);
    seen = entries;
    return entries < 3;
  };
  EXPECT_FAILURE(scan_snapshot_tree(
                     tree, {}, [](const SnapshotRefusal&) {}, progress),
                 "cancelled", cancelled);
  EXPECT_EQ(seen, 3u);
}

TEST_F(SnapshotPackTest, GoesOnBesideADirectoryThatItCannotRead) {
  put("bin/wrong", "x", 0600);
  std::vector<std::string> refused;
  const auto note = [&](const SnapshotRefusal& refusal) { refused.push_back(refusal.code + " " + refusal.name); };
  const OrdinaryUser user(root);
  const WithMode closed(tree / "data/deep", 0);
  scan_snapshot_tree(tree, {}, note, {});
  std::sort(refused.begin(), refused.end());
  EXPECT_EQ(refused, (std::vector<std::string>{"invalid_manifest bin/wrong", "tree_read data/deep"}));
  SnapshotScanRules rules;
  rules.exclude = {PathPattern("deep"), PathPattern("wrong")};
  refused.clear();
  scan_snapshot_tree(tree, rules, note, {});
  EXPECT_EQ(refused, std::vector<std::string>{});
}

TEST_F(SnapshotPackTest, OpensNothingThatIsGoneOrLiesBehindALink) {
  expect_noticed([&] { std::filesystem::remove(tree / "readme"); }, "file_read", not_opened("readme"));
  expect_noticed(
      [&] {
        std::filesystem::remove(tree / "readme");
        std::filesystem::create_symlink("bin/program", tree / "readme");
      },
      "file_read", not_opened("readme"));
  expect_noticed(
      [&] {
        std::filesystem::rename(tree / "data", root / "data");
        std::filesystem::create_directory_symlink(root / "data", tree / "data");
      },
      "file_read", not_opened("data/deep/large"));
}

TEST_F(SnapshotPackTest, SaysWhichFileItCannotRead) {
  const OrdinaryUser user(root);
  const SnapshotInventory inventory = scan();
  const WithMode closed(tree / "bin", 0);
  EXPECT_FAILURE(pack(inventory), "file_read", not_opened("bin/program"));
}

TEST_F(SnapshotPackTest, NoticesAFileThatGrowsOrShrinksWhileItIsPacked) {
  const std::filesystem::path large = tree / "data/deep/large";
  expect_noticed_meanwhile([&] { std::ofstream(large, std::ios::app) << "x"; }, changed("data/deep/large"));
  expect_noticed_meanwhile([&] { std::filesystem::resize_file(large, 3 * piece_bytes + 4); },
                           changed("data/deep/large"));
  expect_noticed_meanwhile([&] { std::filesystem::resize_file(large, 0); }, changed("data/deep/large"));
}

TEST_F(SnapshotPackTest, TellsHowFarItIsAndStopsWhereverItIsCancelled) {
  std::vector<std::uint64_t> told;
  pack(scan(), [&](std::uint64_t done, std::uint64_t total) {
    EXPECT_EQ(total, 9 + 3 * piece_bytes + 5 + 4);
    told.push_back(done);
    return true;
  });
  EXPECT_EQ(told, (std::vector<std::uint64_t>{0, 9, 9 + piece_bytes, 9 + 2 * piece_bytes, 9 + 3 * piece_bytes,
                                              14 + 3 * piece_bytes, 18 + 3 * piece_bytes}));
  for (std::size_t point = 1; point <= told.size(); ++point) {
    std::size_t calls = 0;
    EXPECT_FAILURE(pack(scan(), [&](std::uint64_t, std::uint64_t) { return ++calls < point; }), "cancelled", cancelled);
    EXPECT_EQ(calls, point);
  }
}

TEST_F(SnapshotPackTest, PassesOnWhatItsSinkThrowsAndHandsOutNothingMore) {
  int pieces = 0;
  SnapshotInventory inventory = scan();
  pack_snapshot(tree, inventory, 1, [&](std::string_view bytes) { pieces += bytes.empty() ? 0 : 1; }, {});
  ASSERT_GT(pieces, 1);
  for (int last = 1; last <= pieces; ++last) {
    int taken = 0;
    const auto full = [&](std::string_view bytes) {
      taken += bytes.empty() ? 0 : 1;
      if (taken >= last) {
        fail("insufficient_space", "full");
      }
    };
    EXPECT_FAILURE(pack_snapshot(tree, inventory, 1, full, {}), "insufficient_space", "full") << last;
    EXPECT_EQ(taken, last);
  }
  EXPECT_THROW(pack_snapshot(tree, inventory, 1, [](std::string_view) { throw std::runtime_error("full"); }, {}),
               std::runtime_error);
}

}  // namespace
}  // namespace ravok
