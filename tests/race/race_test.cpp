// Guarded operations while another process swaps directories for links, files for links and hard
// links, and renames what lies above. Whatever the outcome of one operation, none follows a link
// and none acts outside its root; and each succeeds, or fails in a way that it promises.
//
// A race proves nothing unless operations succeed and changes happen during them. So each race goes on until every
// answer that it needs was given and every change has happened in the middle of an attempt. It fails when that has not
// come about after a great number of attempts.

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <tuple>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "domain/error.hpp"
#include "platform/file/atomic_commit.hpp"
#include "platform/file/files.hpp"
#include "platform/file/handle.hpp"
#include "platform/file/native_lock.hpp"
#include "platform/file/posix_files.hpp"
#include "platform/file/status.hpp"
#include "platform/file/tree.hpp"
#include "platform/snapshot/snapshot_retirement.hpp"
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

// A change that the other process makes and undoes, over and over: what it does, and to which two names.
using Change = std::array<std::string, 3>;

// One race: operations against changes.
struct Race {
  std::size_t least;  // attempts, however early everything has been seen
  std::vector<Change> changes;
  Codes codes;                      // of every failure that is allowed
  std::vector<std::string> needed;  // parts of answers, each of which must be given; "done", or a failure's words
  std::function<void(std::size_t)> operation;     // given the number of the attempt
  std::function<void(std::size_t)> prepare = {};  // what comes before it, and is no part of the attempt
};

// The outcome of a race.
struct Tally {
  std::size_t done = 0;
  std::size_t attempts = 0;
  std::map<std::string, std::size_t> answers;  // how often each was given
  std::vector<std::size_t> hits;               // for each change, the attempts during which it happened

  bool has(const std::string& part) const {
    return std::any_of(answers.begin(), answers.end(),
                       [&](const auto& answer) { return answer.first.find(part) != std::string::npos; });
  }

  // What the race has not seen yet; empty once it proves something.
  std::string unseen(const Race& race) const {
    std::string words;
    for (const std::string& part : race.needed) {
      words += has(part) ? "" : "\n  no answer \"" + part + "\"";
    }
    for (std::size_t i = 0; i < hits.size(); ++i) {
      words += hits[i] > 0 ? "" : "\n  no " + race.changes[i][0] + " of " + race.changes[i][1] + " during an attempt";
    }
    return words;
  }
};

// How often the other process has made each change, in memory that both processes share.
class Counts {
 public:
  Counts(const Path& file, std::size_t number) : number_(number), bytes_(number * sizeof(Count)) {
    const Handle opened(open(file.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (!opened || ftruncate(opened.get(), static_cast<off_t>(bytes_)) != 0) {
      throw std::runtime_error("Cannot make the counts of a race");
    }
    void* const memory = mmap(nullptr, bytes_, PROT_READ | PROT_WRITE, MAP_SHARED, opened.get(), 0);
    if (memory == MAP_FAILED) {
      throw std::runtime_error("Cannot map the counts of a race");
    }
    counts_ = static_cast<Count*>(memory);
  }
  ~Counts() { munmap(counts_, bytes_); }
  Counts(const Counts&) = delete;
  Counts& operator=(const Counts&) = delete;

  std::vector<std::uint64_t> now() const { return {counts_, counts_ + number_}; }

 private:
  using Count = std::atomic<std::uint64_t>;

  std::size_t number_;
  std::size_t bytes_;
  Count* counts_ = nullptr;
};

class Races : public ::testing::Test {
 protected:
  Races() {
    // The directory may be written by others, so no link in it counts as the system's own, whoever made it.
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
        struct stat status;
        EXPECT_EQ(lstat((root_ / name).c_str(), &status), 0);
        nodes[name] = {status.st_mode, status.st_ino, status.st_size,
                       std::int64_t{status.st_mtim.tv_sec} * 1'000'000'000 + status.st_mtim.tv_nsec,
                       S_ISREG(status.st_mode) ? root_.read(name) : std::string()};
      }
    }
    return nodes;
  }

  // Exchanges two names below the root directory, over and over.
  Change exchange(const std::string& first, const std::string& second) const {
    return {"exchange", root_ / "root" / first, root_ / "root" / second};
  }
  // Renames one there to the other and back, over and over.
  Change rename(const std::string& first, const std::string& second) const {
    return {"rename", root_ / "root" / first, root_ / "root" / second};
  }

  // Runs the operation against the changes until all has been seen that the race needs. Every failure must be of one of
  // the codes, and the victim must be as it was.
  Tally run(const Race& race) const {
    const Counts counts(root_ / "counts", race.changes.size());
    std::vector<std::string> words = {root_ / "counts"};
    for (const Change& change : race.changes) {
      words.insert(words.end(), change.begin(), change.end());
    }
    const auto before = victim();
    Tally tally;
    tally.hits.resize(race.changes.size());
    Companion adversary(RAVOK_RACE_ADVERSARY, words);
    EXPECT_EQ(adversary.read_line(), "ready");
    while (tally.attempts < race.least || (!tally.unseen(race).empty() && tally.attempts < most_attempts)) {
      attempt(race, counts, tally);
      if (tally.attempts > race.least && tally.attempts % 16 == 0) {
        // The system may have paused the other process in the middle of a change.
        sched_yield();
      }
    }
    adversary.close_input();
    EXPECT_NE(adversary.read_line(), "");
    EXPECT_EQ(adversary.wait(), 0);
    EXPECT_EQ(victim(), before);
    EXPECT_EQ(tally.unseen(race), "") << tally.attempts << " attempts prove nothing";
    return tally;
  }

  std::size_t entries_of(const std::string& name) const {
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(root_ / name), {}));
  }

  static constexpr std::size_t most_attempts = 50'000;
  const TemporaryRoot root_{fast_volume()};
  const Path place_ = root_ / "root/place";

 private:
  static void attempt(const Race& race, const Counts& counts, Tally& tally) {
    if (race.prepare) {
      race.prepare(tally.attempts);
    }
    const std::vector<std::uint64_t> before = counts.now();
    std::string answer = "done";
    try {
      race.operation(tally.attempts);
      ++tally.done;
    } catch (const Error& error) {
      answer = error.code + ": " + error.what();
      EXPECT_TRUE(race.codes.contains(error.code)) << answer;
    }
    const std::vector<std::uint64_t> after = counts.now();
    for (std::size_t i = 0; i < before.size(); ++i) {
      tally.hits[i] += after[i] == before[i] ? 0U : 1U;
    }
    ++tally.answers[answer];
    ++tally.attempts;
  }
};

// --- Walks ---------------------------------------------------------------------------------

constexpr const char* done = "done";

TEST_F(Races, PrivateDirectoryMakesNothingBehindALink) {
  directory("root/other");
  const Tally tally = run({300,
                           {exchange("place", "link"), exchange("place", "other")},
                           {"unsafe_path", "permissions"},
                           {done, "unsafe_path: "},
                           [&](std::size_t i) { private_directory(place_ / std::to_string(i)); }});
  EXPECT_GE(entries_of("root/place") + entries_of("root/other"), tally.done);
}

TEST_F(Races, PrivateDirectoryTightensNothingBehindALink) {
  const Path loose = directory("root/loose", 0755);
  const Handle own(open(loose.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  link("inner-link", "../victim/inner");
  run({2000,
       {exchange("loose", "inner-link")},
       {"unsafe_path", "permissions"},
       {done, "unsafe_path: "},
       [&](std::size_t) {
         ASSERT_EQ(fchmod(own.get(), 0755), 0);
         private_directory(loose);
         EXPECT_EQ(status_of(own.get())->permissions, 0700u);
       }});
}

TEST_F(Races, PrivateDirectoryNewMakesNothingBehindALink) {
  const Tally tally = run({2000,
                           {exchange("place", "link"), rename("place", "away")},
                           {"unsafe_path", "permissions", "native_install_commit"},
                           {done, "unsafe_path: "},
                           [&](std::size_t i) { private_directory_new(place_ / std::to_string(i)); }});
  EXPECT_GE(entries_of("root/place"), tally.done);
}

// The directory at that place is open to others and never accepted, so a success could only have gone through a link.
constexpr const char* not_opened = "permissions: Cannot open ordinary ";
constexpr const char* not_private = " private storage must be ordinary, owned and accessible only to this user";

TEST_F(Races, RequirePrivatePathNeverTakesALinkForTheFile) {
  const Path node = file("root/node", "", 0644);
  link("node-link", "../victim/record");
  std::filesystem::create_hard_link(root_ / "victim/linked", root_ / "root/node-hard");
  const Tally tally = run({3000,
                           {exchange("node", "node-link"), exchange("node", "node-hard")},
                           {"permissions"},
                           {not_opened, not_private},
                           [&](std::size_t) { posix_files::require_private_path(node, false); }});
  EXPECT_EQ(tally.done, 0u);
  ASSERT_EQ(chmod(node.c_str(), 0600), 0);
  EXPECT_NO_THROW(posix_files::require_private_path(node, false));
}

TEST_F(Races, RequirePrivatePathNeverTakesALinkForTheDirectory) {
  const Path node = directory("root/node", 0755);
  const Tally tally = run({3000,
                           {exchange("node", "link"), rename("node", "away")},
                           {"permissions"},
                           {not_opened, not_private},
                           [&](std::size_t) { posix_files::require_private_path(node, true); }});
  EXPECT_EQ(tally.done, 0u);
  ASSERT_EQ(chmod(node.c_str(), 0700), 0);
  EXPECT_NO_THROW(posix_files::require_private_path(node, true));
}

// --- Locks ---------------------------------------------------------------------------------

TEST_F(Races, FileLocksAreMadeInTheirOwnDirectoryOnly) {
  run({3000,
       {exchange("place", "link")},
       {"unsafe_path", "permissions", "lock_failed"},
       {done, "unsafe_path: "},
       [&](std::size_t i) { FileLock(place_ / std::to_string(i % 100), false, LockMode::exclusive); }});
  EXPECT_GT(entries_of("root/place"), 0u);
}

TEST_F(Races, NativeFileLocksAreMadeInTheirOwnDirectoryOnly) {
  const Tally tally =
      run({2000,
           {exchange("place", "link"), rename("place", "away")},
           {"unsafe_path", "lock_failed"},
           {done, "lock_failed: "},
           [&](std::size_t i) {
             NativeFileLock(place_ / std::to_string(i), true, NativeLockSharing::none, LockMode::exclusive);
           }});
  EXPECT_GE(entries_of("root/place"), tally.done);
}

class LockRaces : public Races {
 protected:
  LockRaces() {
    link("place/lock-link", "../../victim/empty");
    link("place/lock-dangling", "../../victim/new");
    std::filesystem::create_hard_link(root_ / "victim/linked", place_ / "lock-hard");
  }

  std::vector<Change> changes() const {
    return {exchange("place/lock", "place/lock-link"), exchange("place/lock", "place/lock-dangling"),
            exchange("place/lock", "place/lock-hard")};
  }

  // The lock that was taken is that of the file that had this name at first, and of no other.
  void expect_own_is_locked() const {
    EXPECT_EQ(flock(own_.get(), LOCK_SH | LOCK_NB), -1);
    EXPECT_EQ(errno, EWOULDBLOCK);
  }

  const Path lock_ = file("root/place/lock", "");
  const Handle own_{open(lock_.c_str(), O_RDWR | O_CLOEXEC)};
};

TEST_F(LockRaces, FileLocksAreNeverTakenThroughALink) {
  run({3000, changes(), {"lock_failed"}, {done, "Cannot open operation lock"}, [&](std::size_t) {
         const FileLock taken(lock_, false, LockMode::exclusive);
         expect_own_is_locked();
       }});
}

TEST_F(LockRaces, NativeFileLocksAreNeverTakenThroughALink) {
  run({3000,
       changes(),
       {"unsafe_path", "lock_failed"},
       {done, "Native ownership requires an ordinary empty private file"},
       [&](std::size_t) {
         const NativeFileLock taken(lock_, true, NativeLockSharing::none, LockMode::exclusive);
         expect_own_is_locked();
       }});
}

// --- Commit and exchange -------------------------------------------------------------------

const Codes commit_codes = {"unsafe_path", "native_install_commit"};

TEST_F(Races, ACommitHappensInItsOwnPlaceOrNotAtAll) {
  const Tally tally = run({1000,
                           {exchange("place", "link"), rename("place", "away")},
                           commit_codes,
                           {done, "unsafe_path: "},
                           [&](std::size_t i) {
                             const Path source = directory("root/work/" + std::to_string(i));
                             commit_private_path_new(source, place_ / std::to_string(i), {});
                           }});
  EXPECT_EQ(entries_of("root/place"), tally.done);
  EXPECT_EQ(entries_of("root/work"), tally.attempts - tally.done);
}

TEST_F(Races, ACommitTakesNothingFromBehindALink) {
  constexpr std::size_t sources = 2000;
  link("work-link", "../victim/work");
  for (std::size_t i = 0; i < sources; ++i) {
    directory("root/work/" + std::to_string(i));
    directory("victim/work/" + std::to_string(i));
  }
  const Tally tally =
      run({300, {exchange("work", "work-link")}, commit_codes, {done, "unsafe_path: "}, [&](std::size_t i) {
             // After the last source there is nothing to commit, which is one more failure.
             commit_private_path_new(root_ / "root/work" / std::to_string(i), place_ / std::to_string(i), {});
           }});
  EXPECT_EQ(entries_of("root/place"), tally.done);
  EXPECT_EQ(entries_of("root/work"), sources - tally.done);
}

TEST_F(Races, ACommitNeverTakesALinkForItsSource) {
  // The directory at that place is open to others and never accepted.
  const Path source = file("root/source", "own", 0644);
  link("source-link", "../victim/record");
  std::filesystem::create_hard_link(root_ / "victim/linked", root_ / "root/source-hard");
  const Tally tally = run({3000,
                           {exchange("source", "source-link"), exchange("source", "source-hard")},
                           commit_codes,
                           {"native_install_commit: Commit source must be private and owned by this user"},
                           [&](std::size_t) { commit_private_path_new(source, place_ / "new", {}); }});
  EXPECT_EQ(tally.done, 0u);
  EXPECT_EQ(entries_of("root/place"), 0u);
  ASSERT_EQ(chmod(source.c_str(), 0600), 0);
  commit_private_path_new(source, place_ / "new", {});
  EXPECT_EQ(root_.read("root/place/new"), "own");
}

TEST_F(Races, AnExchangeSwapsItsOwnDirectoriesOrNone) {
  directory("root/place/a");
  directory("root/place/b");
  file("root/place/a/token", "A");
  file("root/place/b/token", "B");
  link("place/a-link", "../../victim/inner");
  run({500,
       {exchange("place/a", "place/a-link"), exchange("place", "link"), rename("place", "away")},
       commit_codes,
       {done, "native_install_commit: "},
       [&](std::size_t) { exchange_private_directories(place_ / "a", place_ / "b", {}); }});
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

class RecordRaces : public Races {
 protected:
  RecordRaces() { directory("root/other"); }

  Tally run_writes(std::size_t least, const std::function<void(std::size_t)>& operation) const {
    return run({least,
                {exchange("place", "link"), exchange("place", "other")},
                write_codes,
                {done, "unsafe_path: "},
                operation});
  }

  // Returns how many files were made, wherever the other process has put their directory. None may be a transaction
  // file.
  std::size_t made() const {
    std::size_t number = 0;
    for (const std::string& name : root_.names()) {
      if (name.starts_with("root/place/") || name.starts_with("root/other/")) {
        number += name.ends_with('/') ? 0U : 1U;
        EXPECT_FALSE(name.ends_with(".tmp")) << name;
      }
    }
    return number;
  }
};

TEST_F(RecordRaces, RecordsAreWrittenInTheirOwnDirectoryOnly) {
  run_writes(400, [&](std::size_t) { atomic_write(place_ / "record", "mine"); });
  EXPECT_GE(made(), 1u);
  run_writes(2000, [&](std::size_t) { replace_private_file(place_ / "replaced", "mine"); });
  EXPECT_GE(made(), 2u);
}

TEST_F(RecordRaces, NewRecordsAreMadeInTheirOwnDirectoryOnly) {
  const Tally private_ones =
      run_writes(150, [&](std::size_t i) { atomic_private_create(place_ / ("private" + std::to_string(i)), "mine"); });
  const Tally exported =
      run_writes(150, [&](std::size_t i) { atomic_create(place_ / ("exported" + std::to_string(i)), "mine"); });
  EXPECT_GE(made(), private_ones.done + exported.done);
}

TEST_F(RecordRaces, ARecordIsNeverWrittenThroughALink) {
  file("root/place/record", "mine");
  const std::array<const char*, 3> names = {"record", "record-link", "record-hard"};
  const auto none_is = [&](const Path& node) {
    return std::none_of(names.begin(), names.end(), [&](const char* name) {
      const auto found = link_status_of(place_ / name);
      return found && same_file(*found, *link_status_of(node));
    });
  };
  // A write may replace a link with its file. The link, of which there is a second name, is then put back.
  const auto put_back = [&](const Path& node, const Path& name) {
    if (none_is(node)) {
      std::filesystem::remove(name);
      EXPECT_EQ(linkat(AT_FDCWD, node.c_str(), AT_FDCWD, name.c_str(), 0), 0);
    }
  };
  link("record-link", "../victim/record");
  run({2000,
       {exchange("place/record", "place/record-link"), exchange("place/record", "place/record-hard")},
       write_codes,
       {done, "unsafe_path: Refusing to replace a symbolic link"},
       [&](std::size_t) { replace_private_file(place_ / "record", "mine"); },
       [&](std::size_t) {
         put_back(root_ / "root/record-link", place_ / "record-link");
         put_back(root_ / "victim/linked", place_ / "record-hard");
       }});
}

TEST_F(RecordRaces, ARecordIsNeverReadThroughALink) {
  file("root/place/record", "mine");
  link("place/record-link", "../../victim/record");
  run({3000,
       {exchange("place/record", "place/record-link"), rename("place/record", "place/away")},
       {"unsafe_path", "file_read"},
       {done, "unsafe_path: ", "file_read: "},
       [&](std::size_t) { EXPECT_EQ(read_file(place_ / "record", 64), "mine"); }});
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
    directory("root/work");
  }

  // Makes a tree for each attempt, and puts it in its place at once.
  void run_trees(Codes codes, const std::function<void()>& operation) {
    codes.insert(elsewhere);
    int number = 0;
    for (const Change& change :
         {plant("tree/sub", "sub-link"), plant("tree/sub/inner", "sub-link"), plant("tree", "tree-link")}) {
      run({80,
           {change},
           codes,
           {done},
           [&](std::size_t) { operation(); },
           [&](std::size_t) {
             const std::string name = std::to_string(number++);
             make_tree("root/work/" + name);
             program_ = Handle(open((root_ / "root/work" / name / program).c_str(), O_RDONLY | O_CLOEXEC));
             clear_place();
             std::error_code ignored;
             std::filesystem::rename(root_ / "root/work" / name, tree_, ignored);
           }});
      // A link in the tree would lead the next changes to the victim.
      clear_place();
    }
  }

  // Only a removal that has taken a file of the tree itself counts as done.
  void run_removals(const Codes& codes, const std::function<void()>& operation) {
    run_trees(codes, [&] {
      operation();
      require(status_of(program_.get())->links == 0, elsewhere, "The tree had been moved");
    });
  }

  static constexpr const char* elsewhere = "elsewhere";  // the other process moved the tree before the attempt
  const Path tree_ = root_ / "root/tree";
  const SnapshotManifest manifest_ = SnapshotManifest::parse(testing::manifest_document(manifest_files()));

 private:
  static constexpr int files = 12;
  static constexpr const char* program = "bin/program";

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
    file(tree + "/" + program, "x");
  }

  Change plant(const std::string& name, const std::string& planted) const {
    return {"plant", root_ / "root" / name, root_ / "root" / planted};
  }

  void clear_place() {
    std::error_code ignored;
    std::filesystem::rename(tree_, root_ / "root/left" / std::to_string(left_++), ignored);
  }

  Handle program_;
  int left_ = 0;
};

TEST_F(TreeRaces, ATreeIsRemovedQuietlyWithoutAnythingBehindALink) {
  run_removals({}, [&] { remove_path_quietly(tree_); });
}

TEST_F(TreeRaces, APlainTreeIsRemovedWithoutAnythingBehindALink) {
  run_removals({"unsafe_path", "tree_read"}, [&] {
    try {
      remove_plain_tree(tree_);
    } catch (const std::filesystem::filesystem_error&) {
      // A tree that is changed in the middle of its removal is left as it is.
    }
  });
}

TEST_F(TreeRaces, ASnapshotIsRetiredWithoutAnythingBehindALink) {
  run_removals({"unsafe_path", "file_remove", "file_sync"}, [&] { retire_snapshot_files(manifest_, tree_, {}); });
}

TEST_F(TreeRaces, ATreeIsMeasuredWithoutAnythingBehindALink) {
  file("victim/copy/sub/large", std::string(1000, 'x'));
  file("victim/copy/sub/inner/large", std::string(1000, 'x'));
  run_trees({"unsafe_path", "tree_read"}, [&] {
    const std::uint64_t bytes = tree_bytes(tree_, 100);
    EXPECT_LE(bytes, 25u);
    require(bytes == 25, elsewhere, "A part of the tree had been moved");
  });
}

}  // namespace
}  // namespace ravok
