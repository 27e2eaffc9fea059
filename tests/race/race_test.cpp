// Guarded operations while another process swaps directories for links, files for links and hard
// links, and renames what lies above. Whatever the outcome of one operation, none follows a link
// and none acts outside its root; and each succeeds, or fails in a way that it promises.

#include <algorithm>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <system_error>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include "domain/error.hpp"
#include "platform/atomic_commit.hpp"
#include "platform/file_status.hpp"
#include "platform/files.hpp"
#include "platform/native_lock.hpp"
#include "platform/posix_files.hpp"
#include "platform/tree.hpp"
#include "support/companion.hpp"
#include "support/fast_volume.hpp"
#include "support/manifest_builder.hpp"
#include "support/temporary_root.hpp"

namespace ravok {
namespace {

using testing::Companion;
using testing::fast_volume;
using testing::TemporaryRoot;
using Path = std::filesystem::path;

// A node as a test must find it again: type and mode, inode, size, time of the last change of its
// content in nanoseconds, and the content.
using Node = std::tuple<mode_t, ino_t, off_t, std::int64_t, std::string>;

using Codes = std::set<std::string>;

enum class Outcome { done, refused };

class Races : public ::testing::Test {
 protected:
  Races() {
    // A link in a directory that others may write to is never the system's own, whoever made it.
    directory("root", 0777);
    directory("root/place");
    directory("victim");
    directory("victim/a");
    directory("victim/b");
    directory("victim/inner", 0750);
    file("victim/inner/file", "inner", 0640);
    file("victim/record", "the victim's", 0600);
    file("victim/empty", "", 0600);
    file("victim/linked", "", 0600);
    link("link", "../victim");
  }

  Path directory(const std::string& name, mode_t mode = 0700) {
    const Path path = root_.directory(name);
    EXPECT_EQ(chmod(path.c_str(), mode), 0);
    return path;
  }
  Path file(const std::string& name, const std::string& content, mode_t mode = 0600) {
    const Path path = root_.write(name, content);
    EXPECT_EQ(chmod(path.c_str(), mode), 0);
    return path;
  }
  void link(const std::string& name, const std::string& target) {
    std::filesystem::create_symlink(target, root_ / "root" / name);
  }

  std::map<std::string, Node> victim() const {
    std::map<std::string, Node> nodes;
    for (const std::string& name : root_.names()) {
      if (name.starts_with("victim/")) {
        const FileStatus status = link_status_of(root_ / name).value();
        nodes[name] = {status.st_mode, status.st_ino, status.st_size,
                       std::int64_t{status.st_mtim.tv_sec} * 1'000'000'000 + status.st_mtim.tv_nsec,
                       S_ISREG(status.st_mode) ? root_.read(name) : std::string()};
      }
    }
    return nodes;
  }

  // Exchanges two names below the root directory, over and over.
  std::vector<std::string> exchange(const std::string& first, const std::string& second) const {
    return {"exchange", root_ / "root" / first, root_ / "root" / second};
  }
  // Renames one there to the other and back, over and over.
  std::vector<std::string> rename(const std::string& first, const std::string& second) const {
    return {"rename", root_ / "root" / first, root_ / "root" / second};
  }

  // Runs the operation so many times, with the number of each run, against those changes. Every
  // failure must be of one of the codes, and the victim must be as it was. Returns each outcome.
  std::vector<Outcome> run(int times, const std::vector<std::vector<std::string>>& changes, const Codes& codes,
                           const std::function<void(int)>& operation) {
    std::vector<std::string> words;
    for (const auto& change : changes) {
      words.insert(words.end(), change.begin(), change.end());
    }
    const auto before = victim();
    std::vector<Outcome> outcomes;
    Companion adversary(RAVOK_RACE_ADVERSARY, words);
    EXPECT_EQ(adversary.read_line(), "ready");
    for (int i = 0; i < times; ++i) {
      outcomes.push_back(outcome_of(codes, [&] { operation(i); }));
    }
    adversary.close_input();
    EXPECT_NE(adversary.read_line(), "");
    EXPECT_EQ(adversary.wait(), 0);
    EXPECT_EQ(victim(), before);
    return outcomes;
  }

  std::size_t entries_of(const std::string& name) const {
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(root_ / name), {}));
  }

  static std::size_t done(const std::vector<Outcome>& outcomes) {
    return static_cast<std::size_t>(std::count(outcomes.begin(), outcomes.end(), Outcome::done));
  }

  const TemporaryRoot root_{fast_volume()};
  const Path place_ = root_ / "root/place";

 private:
  static Outcome outcome_of(const Codes& codes, const std::function<void()>& operation) {
    try {
      operation();
      return Outcome::done;
    } catch (const Error& error) {
      EXPECT_TRUE(codes.contains(error.code)) << error.code << ": " << error.what();
      return Outcome::refused;
    }
  }
};

// --- Walks ---------------------------------------------------------------------------------

TEST_F(Races, PrivateDirectoryMakesNothingBehindALink) {
  directory("root/other");
  run(300, {exchange("place", "link"), exchange("place", "other")}, {"unsafe_path", "permissions"},
      [&](int i) { private_directory(place_ / std::to_string(i)); });
}

TEST_F(Races, PrivateDirectoryTightensNothingBehindALink) {
  directory("root/loose", 0755);
  link("inner-link", "../victim/inner");
  run(2000, {exchange("loose", "inner-link")}, {"unsafe_path", "permissions"},
      [&](int) { private_directory(root_ / "root/loose"); });
}

TEST_F(Races, PrivateDirectoryNewMakesNothingBehindALink) {
  run(2000, {exchange("place", "link"), rename("place", "away")},
      {"unsafe_path", "permissions", "native_install_commit"},
      [&](int i) { private_directory_new(place_ / std::to_string(i)); });
}

TEST_F(Races, RequirePrivatePathNeverTakesALinkForTheFile) {
  file("root/node", "", 0644);
  link("node-link", "../victim/record");
  std::filesystem::create_hard_link(root_ / "victim/linked", root_ / "root/node-hard");
  const auto outcomes = run(3000, {exchange("node", "node-link"), exchange("node", "node-hard")}, {"permissions"},
                            [&](int) { posix_files::require_private_path(root_ / "root/node", false); });
  EXPECT_EQ(done(outcomes), 0u);
}

TEST_F(Races, RequirePrivatePathNeverTakesALinkForTheDirectory) {
  directory("root/node", 0755);
  const auto outcomes = run(3000, {exchange("node", "link"), rename("node", "away")}, {"permissions"},
                            [&](int) { posix_files::require_private_path(root_ / "root/node", true); });
  EXPECT_EQ(done(outcomes), 0u);
}

// --- Locks ---------------------------------------------------------------------------------

TEST_F(Races, FileLocksAreMadeInTheirOwnDirectoryOnly) {
  run(8000, {exchange("place", "link")}, {"unsafe_path", "permissions", "lock_failed"},
      [&](int i) { FileLock(place_ / std::to_string(i % 100), false, LockMode::exclusive); });
}

TEST_F(Races, FileLocksAreNeverTakenThroughALink) {
  file("root/place/lock", "", 0644);
  link("place/lock-link", "../../victim/record");
  link("place/lock-dangling", "../../victim/new");
  std::filesystem::create_hard_link(root_ / "victim/linked", place_ / "lock-hard");
  const auto outcomes = run(3000,
                            {exchange("place/lock", "place/lock-link"), exchange("place/lock", "place/lock-dangling"),
                             exchange("place/lock", "place/lock-hard")},
                            {"lock_failed"}, [&](int) { FileLock(place_ / "lock", false, LockMode::shared); });
  EXPECT_EQ(done(outcomes), 0u);
}

TEST_F(Races, NativeFileLocksAreMadeInTheirOwnDirectoryOnly) {
  run(2000, {exchange("place", "link"), rename("place", "away")}, {"unsafe_path", "lock_failed"},
      [&](int i) { NativeFileLock(place_ / std::to_string(i), true, NativeLockSharing::none, LockMode::exclusive); });
}

TEST_F(Races, NativeFileLocksAreNeverTakenThroughALink) {
  file("root/place/lock", "", 0644);
  link("place/lock-link", "../../victim/empty");
  link("place/lock-dangling", "../../victim/new");
  std::filesystem::create_hard_link(root_ / "victim/linked", place_ / "lock-hard");
  const auto outcomes = run(3000,
                            {exchange("place/lock", "place/lock-link"), exchange("place/lock", "place/lock-dangling"),
                             exchange("place/lock", "place/lock-hard")},
                            {"unsafe_path", "lock_failed"}, [&](int) {
                              NativeFileLock(place_ / "lock", true, NativeLockSharing::none, LockMode::shared);
                            });
  EXPECT_EQ(done(outcomes), 0u);
}

// --- Commit and exchange -------------------------------------------------------------------

const Codes commit_codes = {"unsafe_path", "native_install_commit"};

TEST_F(Races, ACommitHappensInItsOwnPlaceOrNotAtAll) {
  constexpr int times = 1000;
  for (int i = 0; i < times; ++i) {
    directory("root/work/" + std::to_string(i));
  }
  const auto outcomes = run(times, {exchange("place", "link"), rename("place", "away")}, commit_codes, [&](int i) {
    commit_private_path_new(root_ / "root/work" / std::to_string(i), place_ / std::to_string(i), {});
  });
  EXPECT_EQ(entries_of("root/place"), done(outcomes));
  EXPECT_EQ(entries_of("root/work"), times - done(outcomes));
}

TEST_F(Races, ACommitTakesNothingFromBehindALink) {
  constexpr int times = 300;
  link("work-link", "../victim/work");
  for (int i = 0; i < times; ++i) {
    directory("root/work/" + std::to_string(i));
    directory("victim/work/" + std::to_string(i));
  }
  const auto outcomes = run(times, {exchange("work", "work-link")}, commit_codes, [&](int i) {
    commit_private_path_new(root_ / "root/work" / std::to_string(i), place_ / std::to_string(i), {});
  });
  EXPECT_EQ(entries_of("root/place"), done(outcomes));
  EXPECT_EQ(entries_of("root/work"), times - done(outcomes));
}

TEST_F(Races, ACommitNeverTakesALinkForItsSource) {
  file("root/source", "", 0644);
  link("source-link", "../victim/record");
  std::filesystem::create_hard_link(root_ / "victim/linked", root_ / "root/source-hard");
  const auto outcomes = run(3000, {exchange("source", "source-link"), exchange("source", "source-hard")}, commit_codes,
                            [&](int) { commit_private_path_new(root_ / "root/source", place_ / "new", {}); });
  EXPECT_EQ(done(outcomes), 0u);
  EXPECT_EQ(entries_of("root/place"), 0u);
}

TEST_F(Races, AnExchangeSwapsItsOwnDirectoriesOrNone) {
  directory("root/place/a");
  directory("root/place/b");
  file("root/place/a/token", "A");
  file("root/place/b/token", "B");
  link("place/a-link", "../../victim/inner");
  run(500, {exchange("place/a", "place/a-link"), exchange("place", "link"), rename("place", "away")}, commit_codes,
      [&](int) { exchange_private_directories(place_ / "a", place_ / "b", {}); });
  std::multiset<std::string> left;
  for (const char* name : {"a", "b", "a-link"}) {
    const Path path = place_ / name;
    left.insert(std::filesystem::is_symlink(path) ? "a link"
                                                  : root_.read("root/place/" + std::string(name) + "/token"));
  }
  EXPECT_EQ(left, (std::multiset<std::string>{"A", "B", "a link"}));
}

// --- Records -------------------------------------------------------------------------------

const Codes write_codes = {"unsafe_path", "permissions", "file_write", "file_sync"};

TEST_F(Races, RecordsAreWrittenInTheirOwnDirectoryOnly) {
  directory("root/other");
  run(400, {exchange("place", "link"), exchange("place", "other")}, write_codes,
      [&](int) { atomic_write(place_ / "record", "mine"); });
  run(2000, {exchange("place", "link"), exchange("place", "other")}, write_codes,
      [&](int) { replace_private_file(place_ / "record", "mine"); });
  for (const std::string& name : root_.names()) {
    EXPECT_FALSE(name.ends_with(".tmp")) << name;
  }
}

TEST_F(Races, NewRecordsAreMadeInTheirOwnDirectoryOnly) {
  directory("root/other");
  run(300, {exchange("place", "link"), exchange("place", "other")}, write_codes, [&](int i) {
    const Path path = place_ / std::to_string(i);
    i % 2 == 0 ? atomic_private_create(path, "mine") : atomic_create(path, "mine");
  });
  for (const std::string& name : root_.names()) {
    EXPECT_FALSE(name.ends_with(".tmp")) << name;
  }
}

TEST_F(Races, ARecordIsNeverWrittenThroughALink) {
  file("root/place/record", "mine");
  link("place/record-link", "../../victim/record");
  std::filesystem::create_hard_link(root_ / "victim/linked", place_ / "record-hard");
  run(2000, {exchange("place/record", "place/record-link"), exchange("place/record", "place/record-hard")}, write_codes,
      [&](int) { replace_private_file(place_ / "record", "mine"); });
}

TEST_F(Races, ARecordIsNeverReadThroughALink) {
  file("root/place/record", "mine");
  link("place/record-link", "../../victim/record");
  std::set<std::string> seen;
  run(3000, {exchange("place/record", "place/record-link"), rename("place/record", "place/away")},
      {"unsafe_path", "file_read"}, [&](int) { seen.insert(read_file(place_ / "record", 64)); });
  seen.erase("mine");
  EXPECT_TRUE(seen.empty());
}

// --- Removal of trees ----------------------------------------------------------------------

// Trees that come to one name, one after the other, to be removed there. The victim holds the same, and links to it are
// put in the place of the tree, or of a directory in it, in the middle of the work.
class TreeRaces : public Races {
 protected:
  TreeRaces() {
    make_tree("victim/copy");
    link("tree-link", "../victim/copy");
    std::filesystem::create_directory_symlink(root_ / "victim/copy/sub", root_ / "root/sub-link");
    directory("root/left");
    for (int i = 0; i < times; ++i) {
      make_tree("root/work/" + std::to_string(i));
    }
  }

  void run_removals(const Codes& codes, const std::function<void()>& operation) {
    const std::vector<std::vector<std::string>> changes[] = {
        {plant("tree/sub", "sub-link")}, {plant("tree/sub/inner", "sub-link")}, {plant("tree", "tree-link")}};
    int next = 0;
    for (const auto& change : changes) {
      run(times / 3, change, codes, [&](int) {
        std::error_code ignored;
        const std::string number = std::to_string(next++);
        std::filesystem::rename(root_ / "root/work" / number, tree_, ignored);
        const MovedAway moved{tree_, root_ / "root/left" / number};
        operation();
      });
    }
  }

  const Path tree_ = root_ / "root/tree";
  const SnapshotManifest manifest_ = SnapshotManifest::parse(testing::manifest_document(manifest_files()));

 private:
  static constexpr int times = 600;
  static constexpr int files = 12;

  // Whatever is left there makes room for the next.
  struct MovedAway {
    ~MovedAway() {
      std::error_code ignored;
      std::filesystem::rename(from, to, ignored);
    }
    Path from;
    Path to;
  };

  static std::vector<std::string> names() {
    std::vector<std::string> names;
    for (int i = 0; i < files; ++i) {
      names.push_back("sub/" + std::to_string(i));
      names.push_back("sub/inner/" + std::to_string(i));
    }
    return names;
  }

  static std::vector<testing::ManifestFile> manifest_files() {
    std::vector<testing::ManifestFile> described;
    for (const std::string& name : names()) {
      described.push_back({name});
    }
    return described;
  }

  void make_tree(const std::string& tree) {
    for (const std::string& name : names()) {
      file(tree + "/" + name, "x");
    }
    file(tree + "/bin/program", "x");
  }

  std::vector<std::string> plant(const std::string& name, const std::string& planted) const {
    return {"plant", root_ / "root" / name, root_ / "root" / planted};
  }
};

TEST_F(TreeRaces, ATreeIsRemovedQuietlyWithoutAnythingBehindALink) {
  run_removals({}, [&] { remove_path_quietly(tree_); });
}

TEST_F(TreeRaces, APlainTreeIsRemovedWithoutAnythingBehindALink) {
  run_removals({"unsafe_path", "tree_read"}, [&] {
    try {
      remove_plain_tree(tree_);
    } catch (const std::filesystem::filesystem_error&) {
      // What is changed in the middle of its removal is left as it is.
    }
  });
}

TEST_F(TreeRaces, ASnapshotIsRetiredWithoutAnythingBehindALink) {
  run_removals({"unsafe_path", "file_remove", "file_sync"},
               [&] { retire_snapshot_files(manifest_, tree_, [] { sched_yield(); }); });
}

TEST_F(TreeRaces, ATreeIsMeasuredWithoutAnythingBehindALink) {
  file("victim/copy/sub/large", std::string(1000, 'x'));
  file("victim/copy/sub/inner/large", std::string(1000, 'x'));
  std::uint64_t most = 0;
  run_removals({"unsafe_path", "tree_read"}, [&] { most = std::max(most, tree_bytes(tree_, 100)); });
  EXPECT_LE(most, 25u);
}

}  // namespace
}  // namespace ravok
