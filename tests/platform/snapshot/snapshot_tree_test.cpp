#include "platform/snapshot/snapshot_tree.hpp"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "domain/paths.hpp"
#include "support/deep_tree.hpp"
#include "support/failure.hpp"
#include "support/few_descriptors.hpp"
#include "support/ordinary_user.hpp"
#include "support/snapshot_builder.hpp"
#include "support/temporary_root.hpp"
#include "support/tree_state.hpp"

namespace ravok::snapshot_tree_test {
namespace {

using testing::noise;
using testing::OrdinaryUser;
using testing::SampleFile;
using testing::TemporaryRoot;
using testing::WithMode;

using Files = std::vector<SampleFile>;
using Names = std::vector<std::string>;

constexpr std::size_t piece_bytes = 65536;
constexpr int maximum_entries = 250'000;
// A volume in memory holds many entries quickly.
constexpr const char* in_memory = "/dev/shm";

constexpr const char* no_root = "Game content directory is missing or linked";
constexpr const char* too_many = "Game directory entry count exceeds bounds";
constexpr const char* linked = "Game tree contains a symbolic link";
constexpr const char* unmanaged = "Game tree contains an unmanaged file";
constexpr const char* incomplete = "Game content is incomplete; repair is available";
constexpr const char* not_executable = "Game executable permission is missing";
constexpr const char* cancelled = "Operation cancelled at a safe boundary";

std::string differs(const std::string& path) { return "Game content differs from the verified manifest: " + path; }

struct Report {
  std::uint64_t done;
  std::uint64_t total;
};

class SnapshotTreeTest : public ::testing::Test {
 protected:
  const TemporaryRoot root;
  const std::filesystem::path tree = root / "tree";
  const Files files = {{"bin/program", "#!program", 0755},
                       {"data/deep/large", noise(2 * piece_bytes + 5)},
                       {"data/empty"},
                       {"data/text", "some text"},
                       {"tool", "#!tool", 0755}};
  const SnapshotManifest manifest = testing::manifest_of(files, "archive");

  SnapshotTreeTest() { put_all(); }

  void put_all() const {
    for (const SampleFile& file : files) {
      put(file.path, file.content);
      set_mode(file.path, file.mode == 0755 ? 0700 : 0600);
    }
  }

  std::filesystem::path put(const std::string& path, const std::string& content) const {
    return root.write("tree/" + path, content);
  }

  void set_mode(const std::string& path, mode_t mode) const { ASSERT_EQ(chmod((tree / path).c_str(), mode), 0); }

  void append(const std::string& path, const std::string& content) const {
    std::ofstream(tree / path, std::ios::binary | std::ios::app) << content;
  }

  void verify(const ProgressCallback& progress = {}) const { verify_snapshot_tree(manifest, tree, progress); }

  DamagedFiles damaged(std::size_t limit = 100, const ProgressCallback& progress = {}) const {
    return damaged_snapshot_files(manifest, tree, progress, limit);
  }

  void expect_damaged(const Names& paths) const {
    const DamagedFiles found = damaged();
    EXPECT_EQ(found.count, paths.size());
    EXPECT_EQ(found.paths, paths);
  }

  // Both walks end with this failure.
  void expect_both_refuse(const std::string& code, const std::string& message) const {
    EXPECT_FAILURE(verify(), code, message);
    EXPECT_FAILURE(damaged(), code, message);
  }
};

// A tree as deep as a managed path can be. A walk by full paths would take minutes.
TEST_F(SnapshotTreeTest, PassesADeepChainOfDirectoriesWithFewDescriptors) {
  const testing::DeepTree chain(tree / "data", 2000);
  std::filesystem::remove_all(tree / "data" / "text");
  {
    const testing::FewDescriptors few(80);
    EXPECT_EQ(damaged().count, 2u);
    EXPECT_FAILURE(verify(), "unexpected_file", unmanaged);
  }
}

TEST_F(SnapshotTreeTest, RefusesAChainDeeperThanAnyManagedPath) {
  const testing::DeepTree chain(tree / "data", 5000);
  expect_both_refuse("unsafe_path", "Path must be a safe relative path");
}

TEST_F(SnapshotTreeTest, SaysThatDescriptorsHaveRunOut) {
  if (!testing::can_do_without_descriptors) {
    GTEST_SKIP() << "the sanitizer needs descriptors of its own";
  }
  const testing::FewDescriptors none(0);
  expect_both_refuse("too_many_files", "Too many files are open; close other programs and try again");
}

// --- A whole tree --------------------------------------------------------------------------

TEST_F(SnapshotTreeTest, AcceptsExactlyTheManifestsFiles) {
  verify();
  expect_damaged({});
}

TEST_F(SnapshotTreeTest, AcceptsEmptyDirectoriesThatTheManifestDoesNotName) {
  root.directory("tree/data/extra/empty");
  root.directory("tree/con");
  root.directory("tree/name. ");
  verify();
  expect_damaged({});
}

TEST_F(SnapshotTreeTest, AcceptsAFileThatIsExecutableThoughItNeedNotBe) {
  set_mode("data/text", 0755);
  verify();
  expect_damaged({});
}

TEST_F(SnapshotTreeTest, AcceptsAnyModesWithTheOwnersPermission) {
  set_mode("bin/program", 0500);
  set_mode("tool", 0777);
  set_mode("data/text", 0444);
  verify();
  expect_damaged({});
}

TEST_F(SnapshotTreeTest, TakesASeparatorAtTheRootsEnd) {
  verify_snapshot_tree(manifest, root / "tree/", {});
  EXPECT_EQ(damaged_snapshot_files(manifest, root / "tree/", {}, 10).count, 0u);
}

TEST_F(SnapshotTreeTest, TellsHowFarItIsAtLeastOnceAPiece) {
  std::vector<Report> reports;
  const auto keep = [&](std::uint64_t done, std::uint64_t total) {
    reports.push_back({done, total});
    return true;
  };
  const auto expect_steps = [&] {
    ASSERT_FALSE(reports.empty());
    EXPECT_EQ(reports.front().done, 0u);
    std::uint64_t last = 0;
    for (const Report& report : reports) {
      EXPECT_GE(report.done, last);
      EXPECT_LE(report.done - last, piece_bytes);
      EXPECT_EQ(report.total, manifest.expanded_length);
      last = report.done;
    }
    EXPECT_EQ(last, manifest.expanded_length);
    reports.clear();
  };
  verify(keep);
  expect_steps();
  damaged(10, keep);
  expect_steps();
}

TEST(SnapshotTreeProgress, IsToldBeforeEachFileWithinItAndAtTheEnd) {
  const TemporaryRoot root;
  const Files files = {{"a", "one", 0755}, {"b", "four"}};
  const SnapshotManifest manifest = testing::manifest_of(files, "archive");
  for (const SampleFile& file : files) {
    ASSERT_EQ(chmod(root.write("tree/" + file.path, file.content).c_str(), 0700), 0);
  }
  std::vector<std::uint64_t> done;
  const auto keep = [&](std::uint64_t bytes, std::uint64_t) {
    done.push_back(bytes);
    return true;
  };
  const std::vector<std::uint64_t> expected = {0, 0, 3, 3, 3, 7, 7};
  verify_snapshot_tree(manifest, root / "tree", keep);
  EXPECT_EQ(std::exchange(done, {}), expected);
  damaged_snapshot_files(manifest, root / "tree", keep, 10);
  EXPECT_EQ(done, expected);
}

TEST_F(SnapshotTreeTest, CountsDamagedFilesAsDone) {
  std::filesystem::remove(tree / "data/deep/large");
  append("data/text", "x");
  std::vector<std::uint64_t> done;
  damaged(10, [&](std::uint64_t bytes, std::uint64_t) {
    done.push_back(bytes);
    return true;
  });
  EXPECT_TRUE(std::is_sorted(done.begin(), done.end()));
  EXPECT_EQ(done.back(), manifest.expanded_length);
}

TEST_F(SnapshotTreeTest, StopsWhereverItIsCancelled) {
  int points = 0;
  const auto count = [&](std::uint64_t, std::uint64_t) {
    ++points;
    return true;
  };
  verify(count);
  const int of_verification = std::exchange(points, 0);
  damaged(10, count);
  const int of_inventory = points;
  ASSERT_GT(of_verification, 6);
  ASSERT_GT(of_inventory, 6);
  for (int point = 1; point <= std::max(of_verification, of_inventory); ++point) {
    int calls = 0;
    const auto stop = [&](std::uint64_t, std::uint64_t) { return ++calls < point; };
    if (point <= of_verification) {
      EXPECT_FAILURE(verify(stop), "cancelled", cancelled) << point;
      EXPECT_EQ(std::exchange(calls, 0), point);
    }
    if (point <= of_inventory) {
      EXPECT_FAILURE(damaged(10, stop), "cancelled", cancelled) << point;
      EXPECT_EQ(calls, point);
    }
  }
}

// --- The walk ------------------------------------------------------------------------------

TEST_F(SnapshotTreeTest, NeedsADirectoryAsItsRoot) {
  std::filesystem::create_directory_symlink("tree", root / "link");
  root.write("file", "x");
  for (const char* name : {"missing", "link", "link/", "file", "tree/tool"}) {
    EXPECT_FAILURE(verify_snapshot_tree(manifest, root / name, {}), "unsafe_path", no_root) << name;
    EXPECT_FAILURE(damaged_snapshot_files(manifest, root / name, {}, 10), "unsafe_path", no_root) << name;
  }
}

TEST_F(SnapshotTreeTest, WalksNoTreeWithALink) {
  const struct {
    const char* target;
    const char* link;
  } cases[] = {{"text", "data/link"}, {"/etc", "link"}, {"missing", "data/deep/dangling"}, {".", "loop"}};
  for (const auto& link : cases) {
    std::filesystem::create_symlink(link.target, tree / link.link);
    expect_both_refuse("unsafe_path", linked);
    std::filesystem::remove(tree / link.link);
  }
  verify();
}

TEST_F(SnapshotTreeTest, TellsALinkAheadOfItsName) {
  for (const char* name : {"back\\slash", "a:b"}) {
    std::filesystem::create_symlink("tool", tree / name);
    expect_both_refuse("unsafe_path", linked);
    std::filesystem::remove(tree / name);
  }
}

TEST_F(SnapshotTreeTest, TakesNoLinkForAFileOrADirectoryOfTheManifest) {
  std::filesystem::rename(tree / "tool", root / "tool");
  std::filesystem::create_symlink(root / "tool", tree / "tool");
  expect_both_refuse("unsafe_path", linked);
  std::filesystem::remove(tree / "tool");
  std::filesystem::rename(root / "tool", tree / "tool");

  std::filesystem::rename(tree / "data", root / "data");
  std::filesystem::create_directory_symlink(root / "data", tree / "data");
  expect_both_refuse("unsafe_path", linked);
}

TEST_F(SnapshotTreeTest, WalksNoTreeWithANameThatNobodyCouldManage) {
  put("back\\slash", "x");
  expect_both_refuse("unsafe_path", "Path must be a safe relative path");
  std::filesystem::remove(tree / "back\\slash");
  root.directory("tree/data/a:b");
  expect_both_refuse("unsafe_path", "Path contains an unsafe component");
}

TEST_F(SnapshotTreeTest, MeetsNamesThatOtherPlatformsHaveNot) {
  for (const char* name : {"con", "a?b", "name.", "\xff"}) {
    put(name, "x");
    EXPECT_FAILURE(verify(), "unexpected_file", unmanaged) << name;
    expect_damaged({name});
    std::filesystem::remove(tree / name);
  }
}

TEST_F(SnapshotTreeTest, FindsFilesThatTheManifestDoesNotName) {
  for (const char* name : {"extra", "data/extra", "TOOL", "data/deep/x/y"}) {
    put(name, "x");
    EXPECT_FAILURE(verify(), "unexpected_file", unmanaged) << name;
    expect_damaged({name});
    std::filesystem::remove(tree / name);
  }
}

TEST_F(SnapshotTreeTest, FindsSpecialFiles) {
  ASSERT_EQ(mkfifo((tree / "queue").c_str(), 0600), 0);
  EXPECT_FAILURE(verify(), "unexpected_file", unmanaged);
  expect_damaged({"queue"});
}

TEST_F(SnapshotTreeTest, FindsASpecialFileInTheWalkAndInTheManifest) {
  std::filesystem::remove(tree / "data/text");
  ASSERT_EQ(mkfifo((tree / "data/text").c_str(), 0600), 0);
  EXPECT_FAILURE(verify(), "unexpected_file", unmanaged);
  expect_damaged({"data/text", "data/text"});
}

// --- Missing files -------------------------------------------------------------------------

TEST_F(SnapshotTreeTest, MissesAFileBeforeItReadsAny) {
  put("bin/program", "#!damaged");
  std::filesystem::remove(tree / "tool");
  int calls = 0;
  EXPECT_FAILURE(verify([&](std::uint64_t, std::uint64_t) { return ++calls < 0; }), "missing_file", incomplete);
  EXPECT_EQ(calls, 0);
  expect_damaged({"bin/program", "tool"});
}

TEST_F(SnapshotTreeTest, MissesEachFile) {
  for (const SampleFile& file : files) {
    std::filesystem::rename(tree / file.path, root / "moved");
    EXPECT_FAILURE(verify(), "missing_file", incomplete) << file.path;
    expect_damaged({file.path});
    std::filesystem::rename(root / "moved", tree / file.path);
  }
  verify();
}

TEST_F(SnapshotTreeTest, MissesAllOfAnEmptyTree) {
  std::filesystem::remove_all(tree);
  root.directory("tree");
  EXPECT_FAILURE(verify(), "missing_file", incomplete);
  expect_damaged({"bin/program", "data/deep/large", "data/empty", "data/text", "tool"});
}

TEST_F(SnapshotTreeTest, MissesAFileThatADirectoryStandsFor) {
  std::filesystem::remove(tree / "tool");
  root.directory("tree/tool");
  EXPECT_FAILURE(verify(), "missing_file", incomplete);
  expect_damaged({"tool"});
}

TEST_F(SnapshotTreeTest, FindsAFileInADirectorysPlace) {
  std::filesystem::remove_all(tree / "data/deep");
  put("data/deep", "x");
  EXPECT_FAILURE(verify(), "unexpected_file", unmanaged);
  expect_damaged({"data/deep", "data/deep/large"});
}

// --- Other files ---------------------------------------------------------------------------

TEST_F(SnapshotTreeTest, FindsEveryChangeOfContent) {
  const std::string large = noise(2 * piece_bytes + 5);
  for (const std::size_t i : {std::size_t{0}, piece_bytes, large.size() - 1}) {
    std::string changed = large;
    changed[i] = static_cast<char>(changed[i] ^ 1);
    put("data/deep/large", changed);
    EXPECT_FAILURE(verify(), "content_mismatch", differs("data/deep/large")) << i;
    EXPECT_FAILURE(verify([](std::uint64_t, std::uint64_t) { return true; }), "content_mismatch",
                   differs("data/deep/large"))
        << i;
    expect_damaged({"data/deep/large"});
  }
}

TEST_F(SnapshotTreeTest, FindsEveryOtherLength) {
  for (const char* content : {"", "some tex", "some text!"}) {
    put("data/text", content);
    EXPECT_FAILURE(verify(), "content_mismatch", differs("data/text")) << content;
    expect_damaged({"data/text"});
  }
  put("data/text", "some text");
  put("data/empty", "x");
  EXPECT_FAILURE(verify(), "content_mismatch", differs("data/empty"));
  expect_damaged({"data/empty"});
}

TEST_F(SnapshotTreeTest, NamesTheFirstOfSeveralInTheManifestsOrder) {
  put("tool", "#!pool");
  put("data/text", "some next");
  EXPECT_FAILURE(verify(), "content_mismatch", differs("data/text"));
  expect_damaged({"data/text", "tool"});
}

TEST_F(SnapshotTreeTest, FindsAnExecutableThatItsOwnerMayNotStart) {
  for (const mode_t mode : {0600u, 0611u, 0655u, 0400u}) {
    set_mode("tool", mode);
    EXPECT_FAILURE(verify(), "content_mode", not_executable) << std::oct << mode;
    expect_damaged({"tool"});
  }
}

TEST_F(SnapshotTreeTest, LooksAtTheContentAheadOfTheMode) {
  put("tool", "#!pool");
  set_mode("tool", 0600);
  EXPECT_FAILURE(verify(), "content_mismatch", differs("tool"));
  expect_damaged({"tool"});
}

TEST_F(SnapshotTreeTest, FindsAFileThatGrowsWhileItIsRead) {
  const auto grow = [&](std::uint64_t done, std::uint64_t) {
    // The first report with bytes of the large file.
    if (done >= 9 + piece_bytes && std::filesystem::file_size(tree / "data/deep/large") == 2 * piece_bytes + 5) {
      append("data/deep/large", "x");
    }
    return true;
  };
  EXPECT_FAILURE(verify(grow), "content_mismatch", differs("data/deep/large"));
  std::filesystem::resize_file(tree / "data/deep/large", 2 * piece_bytes + 5);
  const DamagedFiles found = damaged(10, grow);
  EXPECT_EQ(found.paths, Names{"data/deep/large"});
  EXPECT_EQ(found.count, 1u);
}

TEST_F(SnapshotTreeTest, FollowsNoLinkThatComesAfterTheWalk) {
  std::filesystem::rename(tree / "data", root / "data");
  std::filesystem::create_directory(tree / "data");
  const auto swap = [&](std::uint64_t, std::uint64_t) {
    std::error_code ignored;
    if (std::filesystem::remove(tree / "data", ignored)) {
      std::filesystem::create_directory_symlink(root / "data", tree / "data");
    }
    return true;
  };
  EXPECT_FAILURE(damaged(10, swap), "unsafe_path", "Managed path contains a symbolic link");
}

// Changes of the tree after the walk and before the first file is read.
TEST_F(SnapshotTreeTest, FindsWhatBecomesOfAFileAfterTheWalk) {
  const struct {
    std::function<void()> event;
    const char* code;
    std::string message;
  } cases[] = {
      {[] {}, "content_mismatch", differs("data/text")},
      {[&] { root.directory("tree/data/text"); }, "content_mismatch", differs("data/text")},
      {[&] { ASSERT_EQ(mkfifo((tree / "data/text").c_str(), 0600), 0); }, "content_mismatch", differs("data/text")},
      {[&] { std::filesystem::create_symlink(root / "moved", tree / "data/text"); }, "unsafe_path",
       "Managed path contains a symbolic link"}};
  for (const auto& change : cases) {
    bool happened = false;
    const auto replace = [&](std::uint64_t, std::uint64_t) {
      if (!std::exchange(happened, true)) {
        std::filesystem::rename(tree / "data/text", root / "moved");
        change.event();
      }
      return true;
    };
    EXPECT_FAILURE(verify(replace), change.code, change.message);
    std::filesystem::remove(tree / "data/text");
    std::filesystem::rename(root / "moved", tree / "data/text");
  }
  verify();
}

// Whatever was done to a tree, one of the two functions finds damage exactly when the other does.
TEST_F(SnapshotTreeTest, IsWholeForTheOneWalkExactlyWhereItIsForTheOther) {
  const auto replace = [&](const std::string& path, const std::function<void()>& make) {
    std::filesystem::remove_all(tree / path);
    make();
  };
  const std::vector<std::function<void(const std::string&)>> events = {
      [](const std::string&) {},
      [&](const std::string& path) { append(path, "x"); },
      [&](const std::string& path) { replace(path, [] {}); },
      [&](const std::string& path) { replace(path, [&] { root.directory("tree/" + path); }); },
      [&](const std::string& path) { replace(path, [&] { EXPECT_EQ(mkfifo((tree / path).c_str(), 0700), 0); }); },
      [&](const std::string& path) { replace(path, [&] { std::filesystem::create_symlink("x", tree / path); }); },
      [&](const std::string& path) { replace(path, [&] { put(path, ""); }); },
      [&](const std::string& path) { root.directory("tree/more/" + path); },
      [&](const std::string& path) { put("more/" + path + ".more", "x"); },
      [&](const std::string& path) { set_mode(path, 0700); },
      [&](const std::string& path) { set_mode(path, 0600); },
  };
  int whole = 0;
  for (std::size_t event = 0; event < events.size(); ++event) {
    for (const SampleFile& file : files) {
      events[event](file.path);
      const auto refusal = testing::failure_of([&] { verify(); });
      std::optional<DamagedFiles> found;
      const auto problem = testing::failure_of([&] { found = damaged(); });
      const bool has_damage = problem || found->count > 0;
      EXPECT_EQ(has_damage, refusal.has_value()) << event << " of " << file.path;
      EXPECT_TRUE(problem || found->paths.size() == found->count);
      whole += refusal ? 0 : 1;
      std::filesystem::remove_all(tree);
      put_all();
    }
  }
  // These trees are whole: unchanged, with empty directories, and with modes that do not matter.
  EXPECT_EQ(whole, 5 + 1 + 5 + 5 + 3);
}

TEST_F(SnapshotTreeTest, LeavesTheTreeAsItIs) {
  put("bin/program", "#!damaged");
  set_mode("tool", 0600);
  root.directory("tree/extra");
  const testing::TreeState before = testing::tree_state(tree);
  EXPECT_FAILURE(verify(), "content_mismatch", differs("bin/program"));
  expect_damaged({"bin/program", "tool"});
  EXPECT_TRUE(testing::same_tree(testing::tree_state(tree), before));
}

TEST_F(SnapshotTreeTest, ReportsOrCountsAFileThatItCannotRead) {
  const OrdinaryUser user(root);
  const WithMode closed(tree / "data/text", 0);
  EXPECT_FAILURE(verify(), "file_read", "Could not open file for verification: " + path_utf8(tree / "data/text"));
  expect_damaged({"data/text"});
}

TEST_F(SnapshotTreeTest, ReportsADirectoryThatItCannotRead) {
  const OrdinaryUser user(root);
  const WithMode closed(tree / "data/deep", 0);
  expect_both_refuse("tree_read", "Cannot read a directory of the tree");
}

// --- Bounds --------------------------------------------------------------------------------

TEST_F(SnapshotTreeTest, KeepsNoMorePathsThanItIsAskedFor) {
  put("extra", "x");
  put("bin/program", "#!pogramm");
  std::filesystem::remove(tree / "data/empty");
  set_mode("tool", 0600);
  const Names all = {"extra", "bin/program", "data/empty", "tool"};
  for (std::size_t limit = 0; limit <= 5; ++limit) {
    const DamagedFiles found = damaged(limit);
    EXPECT_EQ(found.count, 4u) << limit;
    EXPECT_EQ(found.paths, Names(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(std::min(limit, all.size()))));
  }
}

TEST_F(SnapshotTreeTest, KeepsCountingFilesOfTheWalkBeyondItsLimit) {
  for (const char* name : {"extra1", "extra2", "extra3"}) {
    put(name, "x");
  }
  const DamagedFiles found = damaged(2);
  EXPECT_EQ(found.count, 3u);
  EXPECT_EQ(found.paths.size(), 2u);
}

TEST(SnapshotTreeBounds, WalksAsManyEntriesAsItsBoundAndNotOneMore) {
  const TemporaryRoot root(in_memory);
  const SnapshotManifest manifest = testing::manifest_of({{"a", "x", 0755}, {"b", "x"}}, "archive");
  const std::string first = root.write("tree/a", "x");
  ASSERT_EQ(chmod(first.c_str(), 0700), 0);
  root.write("tree/b", "x");
  const std::string prefix = root / "tree/";
  for (int i = 2; i < maximum_entries; ++i) {
    ASSERT_EQ(mkdir((prefix + std::to_string(i)).c_str(), 0700), 0) << i;
  }
  verify_snapshot_tree(manifest, root / "tree", {});
  EXPECT_EQ(damaged_snapshot_files(manifest, root / "tree", {}, 10).count, 0u);
  ASSERT_EQ(mkdir((prefix + "more").c_str(), 0700), 0);
  EXPECT_FAILURE(verify_snapshot_tree(manifest, root / "tree", {}), "size_limit", too_many);
  EXPECT_FAILURE(damaged_snapshot_files(manifest, root / "tree", {}, 10), "size_limit", too_many);
}

TEST(SnapshotTreeBounds, CountsDamageUpToItsBoundOnEntries) {
  const TemporaryRoot root(in_memory);
  const SnapshotManifest manifest = testing::manifest_of({{"a", "x", 0755}}, "archive");
  const std::string first = root.write("tree/0", "x");
  const std::string prefix = root / "tree/";
  for (int i = 1; i <= maximum_entries; ++i) {
    ASSERT_EQ(link(first.c_str(), (prefix + std::to_string(i)).c_str()), 0) << i;
  }
  EXPECT_FAILURE(damaged_snapshot_files(manifest, root / "tree", {}, 10), "size_limit", too_many);
  std::filesystem::remove(root / "tree/1");
  const DamagedFiles found = damaged_snapshot_files(manifest, root / "tree", {}, 10);
  EXPECT_EQ(found.count, maximum_entries + 1u);
  EXPECT_EQ(found.paths.size(), 10u);
}

}  // namespace
}  // namespace ravok::snapshot_tree_test
