// Whatever call of a guarded file operation is spoilt, the old state or the new one is there afterwards, the message is
// one that the operation knows, and the next run finishes.

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <optional>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "fault/fault_runner.hpp"
#include "support/temporary_root.hpp"
#include "support/tree_state.hpp"

namespace ravok::testing::files_fault_test {
namespace {

using Messages = std::set<std::string>;

Messages operator+(Messages some, const Messages& others) {
  some.insert(others.begin(), others.end());
  return some;
}

const Messages private_storage = {
    "unsafe_path: Cannot anchor Linux directory ancestry",
    "unsafe_path: Linux directory ancestry is missing or linked",
    "unsafe_path: Linux directory ancestry changed",
    "unsafe_path: Linux private directory path changed",
    "permissions: Cannot reserve a new Linux private directory",
    "permissions: Cannot restrict Linux directory permissions",
    "permissions: New Linux private storage ownership changed",
    "permissions: Cannot make new Linux storage private",
    "permissions: Linux private storage must be ordinary, owned and accessible only to this user",
    "permissions: Cannot inspect the Linux private storage ACL",
    "file_sync: Cannot synchronize new Linux directory ownership",
};

const std::string disk_is_full = "insufficient_space: Local storage cannot save data; free space and try again";

// After these the record's new content is in place, but perhaps not durable.
const Messages directory_flush = {
    "file_sync: Cannot open directory for synchronization",
    "file_sync: Could not durably synchronize directory",
};

const Messages write_record = private_storage + directory_flush +
                              Messages{
                                  disk_is_full,
                                  "file_write: Cannot create transaction file TRANSACTION (5)",
                                  "file_write: Cannot write transaction file (5)",
                                  "file_write: Cannot synchronize transaction file (5)",
                                  "file_write: Cannot commit transaction file (5)",
                              };

const Messages create_record = write_record + Messages{
                                                  "file_write: Cannot create export; the destination may already "
                                                  "exist (5)",
                                                  "file_write: Cannot finish export transaction (5)",
                                              };

const Messages read_record = {
    "file_read: Cannot open file: PATH",
    "file_read: Cannot read file",
    "file_read: Cannot finish reading file",
    "unsafe_path: Expected an ordinary file: PATH",
};

const Messages sample_itself = {"sample: Cannot look at a path"};

// After these the exchange has taken place.
const Messages after_exchange = {
    "file_sync: Cannot synchronize exchanged native directories",
    "native_install_commit: Native directory exchange committed with changed ownership; recover its recorded "
    "identities",
};

const Messages exchange_directories =
    write_record + after_exchange + sample_itself +
    Messages{
        "native_install_commit: Directory exchange requires private owned roots and parents",
        "native_install_commit: Directory exchange requires distinct roots on one volume",
        "native_install_commit: Directory exchange identities changed during verification",
        "native_install_commit: Cannot atomically exchange native directories",
    };

const Messages fill_allocation = {
    "unsafe_path: Allocation requires an ordinary parent directory",
    "unsafe_path: Cannot exclusively create or reopen a prepared allocation (5)",
    "unsafe_path: Allocation requires an ordinary single-link file",
    "permissions: Linux allocation must remain private and owned",
    "permissions: Cannot inspect the Linux private storage ACL",
    "insufficient_space: Cannot allocate game storage; free space or choose another location",
    "insufficient_space: Cannot reserve file data; free space or choose other game storage",
    "space_reservation: Native file allocation failed (5)",
    "file_write: Cannot write staged file data (5)",
    "file_write: Cannot set allocated file length (5)",
    "file_sync: Cannot synchronize reserved file data",
    "file_permissions: Cannot set private allocated file permissions",
    "allocation_changed: Allocated file changed before completion",
    "allocation_changed: Allocated file changed during writing",
    "allocation_changed: Partial file changed before synchronization",
    "allocation_changed: Allocated file changed before setting executable permissions",
    "allocation_changed: Allocated file changed while setting executable permissions",
};

const Messages make_allocation = fill_allocation + write_record + sample_itself +
                                 Messages{
                                     "allocation_changed: New allocation path changed before recording ownership",
                                     "allocation_changed: New allocation changed while recording ownership",
                                     "allocation_changed: New allocation changed during preparation",
                                 };

const Messages resume_allocation = fill_allocation + read_record + sample_itself +
                                   Messages{
                                       "allocation_changed: Prepared file was replaced or changed; reserved content "
                                       "was preserved",
                                       "allocation_changed: Prepared allocation path changed",
                                       "allocation_changed: Resume allocation changed",
                                   };

const Messages commit_path = directory_flush + sample_itself +
                             Messages{
                                 "unsafe_path: Directory commit requires ordinary existing ancestry",
                                 "permissions: Cannot inspect the Linux private storage ACL",
                                 "native_install_commit: Commit source must be private and owned by this user",
                                 "native_install_commit: Source identity changed during verification",
                                 "native_install_commit: Cannot atomically install without replacing an existing "
                                 "destination",
                             };

// After these there may be a new directory.
const Messages after_new_directory = {
    "permissions: Cannot anchor new Linux staging directory",
    "permissions: New Linux private storage ownership changed",
    "permissions: Cannot make new Linux storage private",
    "permissions: Linux private storage must be ordinary, owned and accessible only to this user",
    "permissions: Cannot inspect the Linux private storage ACL",
    "permissions: New private staging directory permissions changed",
    "native_install_commit: New private staging directory path changed",
    "unsafe_path: Cannot open new private directory ancestry",
    "unsafe_path: New private directory requires ordinary existing parents",
};

const Messages new_directory = after_new_directory + directory_flush + sample_itself +
                               Messages{"native_install_commit: Cannot reserve new private staging directory"};

const Messages take_lock = private_storage + Messages{
                                                 "lock_failed: Cannot open operation lock",
                                                 "lock_failed: Operation lock must be an ordinary private owned file",
                                                 "busy: Another Ravok operation is using this state",
                                                 "sample: The lock is not that of its path",
                                             };

const Messages take_ownership = {
    "lock_failed: Native ownership requires ordinary existing parents",
    "lock_failed: Native ownership requires an ordinary empty private file",
    "lock_failed: Cannot acquire native installation ownership",
    "lock_failed: Native ownership path changed while locking",
    "permissions: New Linux private storage ownership changed",
    "permissions: Cannot make new Linux storage private",
    "permissions: Linux private storage must be ordinary, owned and accessible only to this user",
    "permissions: Cannot inspect the Linux private storage ACL",
    "sample: The lock is not that of its path",
};

// With these, nothing of a tree was removed.
const Messages before_removal = {
    "unsafe_path: Tree cleanup requires an ordinary directory",
    "unsafe_path: Expected a plain directory",
    "unsafe_path: Tree contains a link or special file",
    "tree_read: Cannot read a directory of the tree",
};

// With these, none of a snapshot's files was removed.
const Messages before_retirement = {
    "unsafe_path: Managed snapshot retirement requires an ordinary directory",
    "unsafe_path: A managed snapshot path became a link or special file; it was preserved",
};

const Messages retire_files =
    before_retirement + directory_flush +
    Messages{
        "unsafe_path: Changed managed paths were preserved",   "unsafe_path: Changed managed directory was preserved",
        "file_remove: Cannot remove a declared managed file",  "file_remove: Cannot retire empty managed directory",
        "file_remove: Cannot retire empty snapshot directory",
    };

// What the sample said, without its line's end and without what is different in every run.
std::string said(const ProgramResult& result) {
  std::string text = result.errors;
  if (text.ends_with('\n')) {
    text.pop_back();
  }
  text = std::regex_replace(text, std::regex("/[^ ]*\\.[0-9a-f]{32}\\.tmp"), "TRANSACTION");
  return std::regex_replace(text, std::regex("file: /.*"), "file: PATH");
}

bool is_transaction(const std::string& path) {
  static const std::regex form(".*\\.[0-9a-f]{32}\\.tmp");
  return std::regex_match(path, form);
}

bool is_one_of(const std::string& name, std::initializer_list<const char*> names) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

// Returns the whole message that a failed step of a record's writing must give, or an empty text for a step that has
// none of its own.
std::string message_of_step(const FaultOutcome& outcome) {
  if (!is_transaction(outcome.call.path)) {
    return "";
  }
  const bool full = outcome.mode == FaultMode::enospc;
  const std::string& name = outcome.call.name;
  if (name == "write") {
    return full ? disk_is_full : "file_write: Cannot write transaction file (5)";
  }
  if (name == "fsync") {
    return full ? disk_is_full : "file_write: Cannot synchronize transaction file (5)";
  }
  if (is_one_of(name, {"open", "open64", "openat", "openat64"})) {
    return full ? disk_is_full : "file_write: Cannot create transaction file TRANSACTION (5)";
  }
  if (is_one_of(name, {"rename", "renameat"})) {
    return full ? disk_is_full : "file_write: Cannot commit transaction file (5)";
  }
  if (is_one_of(name, {"link", "linkat"})) {
    return full ? disk_is_full : "file_write: Cannot create export; the destination may already exist (5)";
  }
  if (is_one_of(name, {"unlink", "unlinkat"})) {
    return "file_write: Cannot finish export transaction (5)";
  }
  return "";
}

class FilesFault : public ::testing::Test {
 protected:
  FilesFault() : home_(root_ / "private") {}

  ProgramRun sample(const std::vector<std::string>& arguments) const {
    return {RAVOK_SAMPLE_FILES, arguments, {{"HOME", "/nowhere"}}, ""};
  }

  // Empties the place and makes its private directory.
  void reset() const {
    std::filesystem::remove_all(home_);
    make_private(home_);
  }

  static void make_private(const std::filesystem::path& directory) {
    std::filesystem::create_directory(directory);
    std::filesystem::permissions(directory, std::filesystem::perms::owner_all);
  }

  std::optional<std::string> content(const std::string& name) const {
    if (!std::filesystem::exists(home_ / name)) {
      return std::nullopt;
    }
    return root_.read("private/" + name);
  }

  // Counts the names in the private directory that are not known. Each must be that of a transaction file.
  std::size_t strays(const std::set<std::string>& known) const {
    std::size_t count = 0;
    if (std::filesystem::exists(home_)) {
      for (const auto& entry : std::filesystem::directory_iterator(home_)) {
        if (!known.contains(entry.path().filename())) {
          EXPECT_TRUE(is_transaction(entry.path())) << entry.path();
          ++count;
        }
      }
    }
    return count;
  }

  // The program ended by itself with a message that it knows, or was ended by the library.
  static void judge_ending(const FaultOutcome& outcome, const Messages& messages) {
    if (ends_process(outcome.mode)) {
      EXPECT_EQ(outcome.result.signal, SIGKILL);
    } else if (outcome.result.exit_code != 0) {
      EXPECT_EQ(outcome.result.exit_code, 1);
      EXPECT_TRUE(messages.contains(said(outcome.result))) << said(outcome.result);
    } else {
      EXPECT_EQ(outcome.result.errors, "");
    }
  }

  // Only an ended process leaves a transaction file behind.
  void judge_strays(const FaultOutcome& outcome, const std::set<std::string>& known) const {
    EXPECT_LE(strays(known), ends_process(outcome.mode) ? 1u : 0u);
  }

  // Runs the same action, unspoilt, on what was left.
  ProgramResult again(const FaultPlan& plan) const { return run_with_fault(plan.run, plan.root).result; }

  // A power cut can take nothing from a finished operation: every written file was flushed, and the directory of every
  // changed name.
  void expect_all_flushed(const FaultTable& table) const {
    ASSERT_TRUE(table.end);
    const std::vector<FaultMode>& modes = table.end->modes;
    EXPECT_EQ(std::find(modes.begin(), modes.end(), FaultMode::power), modes.end());
    for (const std::uint64_t change : table.end->pending) {
      // The lock alone may be lost: the next run makes it again.
      EXPECT_EQ(table.calls.at(change - 1).path, home_ / "lock");
    }
  }

  void try_all(const FaultPlan& plan) const {
    const FaultTable table = run_faults(plan);
    std::cout << table;
    EXPECT_GT(table.runs, 20u);  // enough for a beginning, a middle and an end
    expect_all_flushed(table);
  }

  void try_writes(const std::optional<std::string>& old, const std::function<void()>& prepare) const {
    FaultPlan plan;
    plan.run = sample({"atomic_write", home_ / "record.json", "new content"});
    plan.root = root_.path();
    plan.reset = prepare;
    plan.judge = [&](const FaultOutcome& outcome) {
      judge_ending(outcome, write_record);
      judge_strays(outcome, {"record.json"});
      const std::optional<std::string> now = content("record.json");
      if (ends_process(outcome.mode)) {
        EXPECT_TRUE(now == old || now == "new content") << now.value_or("nothing");
      } else {
        const std::string message = message_of_step(outcome);
        EXPECT_TRUE(message.empty() || said(outcome.result) == message) << message;
        const bool in_place = outcome.result.exit_code == 0 || directory_flush.contains(said(outcome.result));
        EXPECT_EQ(now, in_place ? "new content" : old);
      }
      EXPECT_EQ(again(plan).exit_code, 0);
      EXPECT_EQ(content("record.json"), "new content");
    };
    try_all(plan);
  }

  void try_commit(const std::string& content_name, const std::function<void()>& prepare) const {
    FaultPlan plan;
    plan.run = sample({"commit", home_ / "prepared", home_ / "live"});
    plan.root = root_.path();
    plan.reset = prepare;
    prepare();
    const TreeState whole = only(tree_state(home_), "prepared");
    plan.judge = [&](const FaultOutcome& outcome) {
      judge_ending(outcome, commit_path);
      const bool committed = std::filesystem::exists(home_ / "live");
      EXPECT_NE(std::filesystem::exists(home_ / "prepared"), committed);
      EXPECT_EQ(tree_state(home_).size(), whole.size());
      EXPECT_EQ(content((committed ? "live" : "prepared") + content_name), "new content");
      if (!ends_process(outcome.mode)) {
        EXPECT_EQ(committed, outcome.result.exit_code == 0 || directory_flush.contains(said(outcome.result)));
      }
      EXPECT_EQ(again(plan).exit_code, 0);
      EXPECT_EQ(content("live" + content_name), "new content");
      EXPECT_EQ(tree_state(home_).size(), whole.size());
    };
    try_all(plan);
  }

  // The lock's file is missing, or it is the empty private file that it must be; and the next run takes the lock.
  void try_lock(const std::string& action, const Messages& messages, const std::function<void()>& prepare) const {
    FaultPlan plan;
    plan.run = sample({action, home_ / "lock"});
    plan.root = root_.path();
    plan.reset = prepare;
    plan.judge = [&](const FaultOutcome& outcome) {
      judge_ending(outcome, messages);
      const TreeState lock = {{"lock", "600 file "}};
      const TreeState left = tree_state(home_);
      EXPECT_TRUE(left.empty() || same_tree(left, lock));
      EXPECT_TRUE(outcome.result.exit_code != 0 || !left.empty());
      EXPECT_EQ(again(plan).errors, "");
      EXPECT_TRUE(same_tree(tree_state(home_), lock));
    };
    try_all(plan);
  }

  // Retires "a/b/one", "a/two" and "bin/program" of a tree that holds these files besides.
  void try_retirement(const std::vector<std::string>& unmanaged) const {
    const std::vector<std::string> managed = {"a/b/one", "a/two", "bin/program"};
    FaultPlan plan;
    plan.run = sample({"retire", home_ / "tree", managed[0], managed[1]});
    plan.root = root_.path();
    plan.reset = [&] {
      reset();
      root_.write("private/beside", "beside");
      for (const std::string& name : managed) {
        root_.write("private/tree/" + name, "managed");
      }
      for (const std::string& name : unmanaged) {
        root_.write("private/tree/" + name, "mine");
      }
    };
    plan.reset();
    const TreeState whole = tree_state(home_);
    // The names that are gone in the end.
    std::vector<std::string> gone = {"tree/a/b/one", "tree/a/two", "tree/bin"};
    gone.emplace_back(unmanaged.empty() ? "tree" : "tree/a/b");
    const TreeState retired = without(whole, gone);
    plan.judge = [&](const FaultOutcome& outcome) {
      judge_ending(outcome, retire_files);
      const TreeState now = tree_state(home_);
      for (const auto& [path, node] : retired) {
        EXPECT_EQ(now.contains(path) ? now.at(path) : "nothing", node) << path;
      }
      for (const auto& [path, node] : now) {
        EXPECT_EQ(whole.contains(path) ? whole.at(path) : "nothing", node) << path;
      }
      if (!ends_process(outcome.mode) && before_retirement.contains(said(outcome.result))) {
        EXPECT_TRUE(same_tree(now, whole));
      }
      if (outcome.result.exit_code == 0) {
        EXPECT_TRUE(same_tree(now, retired));
      }
      EXPECT_EQ(again(plan).errors, "");
      EXPECT_TRUE(same_tree(tree_state(home_), retired));
    };
    try_all(plan);
  }

  // All that the sample writes into its allocated file.
  static std::string whole() {
    std::string text(204800, ' ');
    for (std::size_t i = 0; i < text.size(); ++i) {
      text[i] = static_cast<char>('a' + i % 23);
    }
    return text;
  }

  void expect_whole_executable() const {
    EXPECT_TRUE(content("file") == whole());
    EXPECT_EQ(std::filesystem::status(home_ / "file").permissions(), std::filesystem::perms::owner_all);
  }

  const TemporaryRoot root_;
  const std::filesystem::path home_;
};

TEST_F(FilesFault, ReplacedRecordIsOldOrNew) {
  try_writes("old content", [&] {
    reset();
    root_.write("private/record.json", "old content");
  });
}

TEST_F(FilesFault, FirstRecordInAMissingDirectoryIsNewOrNothing) {
  try_writes(std::nullopt, [&] { std::filesystem::remove_all(home_); });
}

TEST_F(FilesFault, CreatedRecordIsWholeOrNothing) {
  FaultPlan plan;
  plan.run = sample({"atomic_private_create", home_ / "record.json", "new content"});
  plan.root = root_.path();
  plan.reset = [&] { reset(); };
  plan.judge = [&](const FaultOutcome& outcome) {
    judge_ending(outcome, create_record);
    judge_strays(outcome, {"record.json"});
    const std::optional<std::string> now = content("record.json");
    if (ends_process(outcome.mode)) {
      EXPECT_TRUE(!now || now == "new content") << *now;
    } else {
      const std::string words = said(outcome.result);
      const std::string message = message_of_step(outcome);
      EXPECT_TRUE(message.empty() || words == message) << message;
      const bool in_place = outcome.result.exit_code == 0 || directory_flush.contains(words) ||
                            words == "file_write: Cannot finish export transaction (5)";
      EXPECT_EQ(now, in_place ? std::optional<std::string>("new content") : std::nullopt);
    }
    const ProgramResult second = again(plan);
    EXPECT_EQ(second.errors,
              now ? "file_write: Cannot create export; the destination may already exist (17)\n" : std::string());
    EXPECT_EQ(content("record.json"), "new content");
  };
  try_all(plan);
}

TEST_F(FilesFault, ExchangedDirectoriesAreBothWholeUnderEitherName) {
  FaultPlan plan;
  plan.run = sample({"exchange", home_ / "first", home_ / "second"});
  plan.root = root_.path();
  plan.reset = [&] {
    reset();
    for (const std::string name : {"first", "second"}) {
      make_private(home_ / name);
      root_.write("private/" + name + "/content", name);
    }
  };
  plan.judge = [&](const FaultOutcome& outcome) {
    judge_ending(outcome, exchange_directories);
    judge_strays(outcome, {"first", "second", "exchange.record"});
    const bool exchanged = content("first/content") == "second";
    EXPECT_EQ(content("first/content"), exchanged ? "second" : "first");
    EXPECT_EQ(content("second/content"), exchanged ? "first" : "second");
    if (!ends_process(outcome.mode)) {
      EXPECT_EQ(exchanged, outcome.result.exit_code == 0 || after_exchange.contains(said(outcome.result)));
    }
    // The directories are exchanged only after that was recorded.
    EXPECT_TRUE(!exchanged || content("exchange.record"));
    EXPECT_EQ(again(plan).exit_code, 0);
    EXPECT_EQ(content("first/content"), "second");
    EXPECT_EQ(content("second/content"), "first");
  };
  try_all(plan);
}

TEST_F(FilesFault, AllocatedFileIsWholeOrKnownOrEmpty) {
  FaultPlan plan;
  plan.run = sample({"allocated", home_ / "file"});
  plan.root = root_.path();
  plan.reset = [&] { reset(); };
  plan.judge = [&](const FaultOutcome& outcome) {
    judge_ending(outcome, make_allocation);
    judge_strays(outcome, {"file", "file.record"});
    const bool recorded = content("file.record").has_value();
    struct stat status = {};
    const bool present = lstat((home_ / "file").c_str(), &status) == 0;
    // A file that is not recorded has no content and no blocks.
    EXPECT_TRUE(!present || recorded || (status.st_size == 0 && status.st_blocks == 0));
    if (outcome.result.exit_code == 0) {
      expect_whole_executable();
    } else if (ends_process(outcome.mode)) {
      // The file's name was there before the record, but a power cut may take the name back and leave the record.
      EXPECT_TRUE(present || !recorded || outcome.mode == FaultMode::names);
      EXPECT_LE(status.st_size, 204800);
    } else {
      // An abandoned file is removed. One that stays was finished before its mode could be set.
      EXPECT_TRUE(!present || !recorded || content("file") == whole());
    }
    EXPECT_EQ(again(plan).exit_code, 0);
    expect_whole_executable();
  };
  try_all(plan);
}

TEST_F(FilesFault, ResumedAllocatedFileIsNeverGivenUp) {
  FaultPlan plan;
  plan.run = sample({"allocated", home_ / "file"});
  plan.root = root_.path();
  reset();
  const std::vector<FaultCall> calls = run_with_fault(plan.run, plan.root).calls;
  const auto last_write = std::find_if(calls.rbegin(), calls.rend(), [&](const FaultCall& call) {
    return call.name == "write" && call.path == home_ / "file";
  });
  ASSERT_NE(last_write, calls.rend());
  plan.reset = [&] {
    reset();
    run_with_fault(plan.run, plan.root, last_write->number, FaultMode::torn);
  };
  plan.judge = [&](const FaultOutcome& outcome) {
    judge_ending(outcome, resume_allocation);
    judge_strays(outcome, {"file", "file.record"});
    EXPECT_TRUE(content("file").has_value());
    EXPECT_TRUE(content("file.record").has_value());
    if (outcome.result.exit_code == 0) {
      expect_whole_executable();
    }
    EXPECT_EQ(again(plan).exit_code, 0);
    expect_whole_executable();
  };
  try_all(plan);
}

TEST_F(FilesFault, CommittedDirectoryIsWholeUnderOneOfItsNames) {
  try_commit("/record.json", [&] {
    reset();
    make_private(home_ / "prepared");
    root_.write("private/prepared/record.json", "new content");
  });
}

TEST_F(FilesFault, CommittedFileIsWholeUnderOneOfItsNames) {
  try_commit("", [&] {
    reset();
    std::filesystem::permissions(root_.write("private/prepared", "new content"),
                                 std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  });
}

TEST_F(FilesFault, NewPrivateDirectoryIsPrivateOrNotThere) {
  FaultPlan plan;
  plan.run = sample({"private_directory_new", home_ / "new"});
  plan.root = root_.path();
  plan.reset = [&] { reset(); };
  const TreeState made = {{"new", "700 directory"}};
  plan.judge = [&](const FaultOutcome& outcome) {
    judge_ending(outcome, new_directory);
    const TreeState left = tree_state(home_);
    EXPECT_TRUE(left.empty() || same_tree(left, made));
    const std::string words = said(outcome.result);
    if (outcome.result.exit_code == 0 || (!ends_process(outcome.mode) && directory_flush.contains(words))) {
      EXPECT_FALSE(left.empty());
    }
    EXPECT_TRUE(left.empty() || ends_process(outcome.mode) || outcome.result.exit_code == 0 ||
                after_new_directory.contains(words) || directory_flush.contains(words));
    EXPECT_EQ(again(plan).errors, "");
    EXPECT_TRUE(same_tree(tree_state(home_), made));
  };
  try_all(plan);
}

TEST_F(FilesFault, NewOperationLockIsAPrivateFileOrNotThere) {
  try_lock("file_lock", take_lock, [&] { reset(); });
}

TEST_F(FilesFault, OperationLockInAMissingDirectoryIsAPrivateFileOrNotThere) {
  try_lock("file_lock", take_lock, [&] { std::filesystem::remove_all(home_); });
}

TEST_F(FilesFault, NewOwnershipIsAnEmptyPrivateFileOrNotThere) {
  try_lock("native_lock", take_ownership, [&] { reset(); });
}

TEST_F(FilesFault, RemovedTreeIsWholeUntilItIsMeasuredAndGoneInTheEnd) {
  FaultPlan plan;
  plan.run = sample({"remove", home_ / "tree"});
  plan.root = root_.path();
  plan.reset = [&] {
    reset();
    for (const char* name : {"beside", "tree/a/b/one", "tree/a/two", "tree/three"}) {
      root_.write("private/" + std::string(name), name);
    }
  };
  plan.reset();
  const TreeState whole = tree_state(home_);
  const TreeState removed = without(whole, {"tree"});
  plan.judge = [&](const FaultOutcome& outcome) {
    // The removal passes on the file system's own failure.
    const bool halfway = outcome.result.exit_code == 2;
    if (halfway) {
      EXPECT_EQ(said(outcome.result), "file system: Input/output error");
    } else {
      judge_ending(outcome, before_removal + directory_flush);
    }
    const TreeState now = tree_state(home_);
    EXPECT_TRUE(now.contains("beside"));
    for (const auto& [path, node] : now) {
      EXPECT_EQ(whole.contains(path) ? whole.at(path) : "nothing", node) << path;
    }
    if (!ends_process(outcome.mode) && !halfway) {
      EXPECT_TRUE(same_tree(now, before_removal.contains(said(outcome.result)) ? whole : removed));
    }
    EXPECT_EQ(again(plan).errors, "");
    EXPECT_TRUE(same_tree(tree_state(home_), removed));
  };
  try_all(plan);
}

TEST_F(FilesFault, RetiredSnapshotLosesItsOwnFilesOnlyAndGoesInTheEnd) { try_retirement({}); }

TEST_F(FilesFault, RetiredSnapshotKeepsWhatIsNotItsOwn) { try_retirement({"a/mine"}); }

}  // namespace
}  // namespace ravok::testing::files_fault_test
