// Whatever call of a shortcut's making, removal or restoring is spoilt, the ledger is the old one or the new one, it
// knows every file that is there, what is not the client's own stays as it was, and the next run does its work.

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "domain/crypto.hpp"
#include "fault/fault_runner.hpp"
#include "platform/file/posix_files.hpp"
#include "platform/shortcut/linux_shortcuts.hpp"
#include "support/process.hpp"
#include "support/shortcut_place.hpp"

namespace ravok::testing::shortcuts_fault_test {
namespace {

using Codes = std::set<std::string>;
using Files = std::map<std::string, std::string>;

const Codes codes_of_reading = {"busy",        "file_read",       "file_sync",  "lock_failed",
                                "permissions", "shortcut_ledger", "unsafe_path"};

Codes operator+(Codes some, const Codes& others) {
  some.insert(others.begin(), others.end());
  return some;
}

const Codes codes_of_writing = codes_of_reading + Codes{"file_write", "insufficient_space"};
const Codes codes_of_making = codes_of_writing + Codes{"already_exists", "native_install_incomplete", "shortcut_path"};
const Codes codes_of_removing = codes_of_writing + Codes{"file_remove", "file_system"};
const Codes codes_of_releasing = codes_of_reading + Codes{"file_system"};

class ShortcutsFault : public ::testing::Test {
 protected:
  void SetUp() override {
    place_.write(place_.home() / "target.desktop", "foreign");
    made_ = linux_desktop_entry(place_.shortcut());
  }

  // Besides what a run is about, there are always four others: a shortcut that is recorded and unchanged, one that the
  // user has edited, one in whose place there is a link to a file that looks like it, and a file that was never
  // recorded.
  void reset(bool with_edited_new = false) const {
    std::filesystem::remove_all(place_.desktop());
    std::filesystem::create_directory(place_.desktop());
    std::filesystem::remove_all(place_.data() / "native");
    place_.write(path("ours"), made_);
    place_.write(path("edited"), "edited by the user");
    std::filesystem::create_symlink(place_.home() / "target.desktop", path("linked"));
    place_.write(path("foreign"), made_);
    Json entries = old_entries();
    if (with_edited_new) {
      place_.write(path("new"), "edited by the user");
      entries.push_back(row("new", digest("as it once was", "sha256")));
    }
    place_.write_ledger(ledger_document(entries).dump());
  }

  Json row(const std::string& name, const std::string& sha256) const { return ledger_entry(path(name), sha256); }
  Json old_entries() const {
    return Json::array({row("ours", digest(made_, "sha256")), row("edited", digest(made_, "sha256")),
                        row("linked", digest("foreign", "sha256"))});
  }
  std::string old_ledger() const { return ledger_document(old_entries()).dump(); }
  std::string new_ledger() const {
    Json entries = old_entries();
    entries.push_back(row("new", digest(made_, "sha256")));
    return ledger_document(entries).dump();
  }
  static std::string empty_ledger() { return ledger_document(Json::array()).dump(); }

  std::filesystem::path path(const std::string& name) const { return place_.desktop() / (name + ".desktop"); }

  static ProgramRun sample(const std::vector<std::string>& arguments) {
    return {RAVOK_SAMPLE_SHORTCUTS, arguments, {{"HOME", "/nowhere"}}, ""};
  }
  ProgramRun creating() const { return sample({"create", place_.data(), place_.bootstrap(), path("new")}); }
  ProgramRun removing() const { return sample({"remove", place_.data()}); }
  ProgramRun releasing() const { return sample({"release", place_.data()}); }
  ProgramRun restoring() const { return sample({"restore", place_.data(), place_.bootstrap()}); }
  ProgramResult after(const ProgramRun& run) const { return run_with_fault(run, place_.root().path()).result; }

  // Returns the files on the desktop with their content, without those that no program would show.
  Files files() const {
    Files found;
    for (const auto& each : std::filesystem::directory_iterator(place_.desktop())) {
      const std::string name = each.path().filename();
      if (!is_transaction(name) && !each.is_symlink()) {
        found[name] = place_.read(each.path());
      }
    }
    return found;
  }

  // Returns the transaction files on the desktop and beside the ledger.
  std::vector<std::string> strays() const {
    std::vector<std::string> found;
    for (const std::string& name : place_.root().names()) {
      if (is_transaction(name)) {
        found.push_back(name);
      }
    }
    return found;
  }
  static bool is_transaction(const std::string& name) {
    static const std::regex form(".*\\.[0-9a-f]{32}\\.tmp");
    return std::regex_match(name, form);
  }

  bool exists(const std::string& name) const { return files().contains(name + ".desktop"); }
  std::string ledger() const { return place_.read(place_.ledger()); }

  static void judge_ending(const FaultOutcome& outcome, const Codes& codes) {
    if (ends_process(outcome.mode)) {
      EXPECT_EQ(outcome.result.signal, SIGKILL);
    } else if (outcome.result.exit_code != 0) {
      EXPECT_EQ(outcome.result.exit_code, 1);
      const std::string code = outcome.result.errors.substr(0, outcome.result.errors.find(':'));
      EXPECT_TRUE(codes.contains(code)) << outcome.result.errors;
    } else {
      EXPECT_EQ(outcome.result.errors, "");
    }
  }

  // What is not the client's own is as it was.
  void judge_foreign() const {
    const Files now = files();
    EXPECT_EQ(now.count("foreign.desktop"), 1u);
    EXPECT_EQ(now.at("foreign.desktop"), made_);
    EXPECT_EQ(now.at("edited.desktop"), "edited by the user");
    EXPECT_EQ(std::filesystem::read_symlink(path("linked")), place_.home() / "target.desktop");
    EXPECT_EQ(place_.read(place_.home() / "target.desktop"), "foreign");
  }

  std::ptrdiff_t rows_of(const std::string& name) const {
    const Json document = parse_json(ledger(), 262'144);
    const Json& entries = document.at("entries");
    return std::count_if(entries.begin(), entries.end(),
                         [&](const Json& entry) { return entry.at("path") == path(name).native(); });
  }

  // Whether no spoilt run has left this state before.
  bool is_new_state() {
    static const std::regex random("[0-9a-f]{32}");
    std::string state = ledger();
    for (const std::string& name : place_.root().names()) {
      state += "\n" + std::regex_replace(name, random, "RANDOM");
    }
    for (const auto& each : files()) {
      state += "\n" + each.first + ": " + each.second;
    }
    return states_.insert(state).second;
  }

  // A shortcut can be made, and everything that is the client's own can be removed. Tried once for each state.
  bool judge_next_runs() {
    if (!is_new_state()) {
      return false;
    }
    EXPECT_EQ(after(creating()).errors, "");
    EXPECT_EQ(place_.read(path("new")), made_);
    EXPECT_EQ(rows_of("new"), 1);
    const ProgramResult removal = after(removing());
    EXPECT_EQ(removal.errors, "");
    EXPECT_FALSE(exists("new"));
    EXPECT_EQ(ledger(), empty_ledger());
    for (const std::string& name : strays()) {
      EXPECT_NE(place_.root().read(name), made_) << name;
    }
    judge_foreign();
    return true;
  }

  void try_all(FaultPlan plan) const {
    plan.root = place_.root().path();
    const FaultTable table = run_faults(plan);
    std::cout << table;
    EXPECT_GT(table.runs, 20u);  // enough for a beginning, a middle and an end
  }

  const ShortcutPlace place_;
  std::string made_;
  std::set<std::string> states_;
};

TEST_F(ShortcutsFault, ANewShortcutIsMadeAndRecordedOrIsNeither) {
  FaultPlan plan;
  plan.run = creating();
  plan.reset = [&] { reset(); };
  plan.judge = [&](const FaultOutcome& outcome) {
    judge_ending(outcome, codes_of_making);
    judge_foreign();
    EXPECT_TRUE(exists("ours"));
    const bool recorded = ledger() == new_ledger();
    EXPECT_TRUE(recorded || ledger() == old_ledger()) << ledger();
    EXPECT_LE(strays().size(), ends_process(outcome.mode) ? 1u : 0u);
    EXPECT_TRUE(!exists("new") || (recorded && place_.read(path("new")) == made_));
    if (outcome.result.exit_code == 0) {
      EXPECT_TRUE(exists("new"));
    } else if (!ends_process(outcome.mode)) {
      EXPECT_FALSE(recorded || exists("new")) << outcome.result.errors;
    }
    judge_next_runs();
  };
  try_all(plan);
}

// Any of the levels may have been made by a run that ended before that level's name was durable.
TEST_F(ShortcutsFault, ADefaultFolderIsFlushedWithAllItsLevelsBeforeItHoldsAnything) {
  const std::filesystem::path share = place_.home() / ".local/share";
  const std::filesystem::path entry = share / "applications/entry.desktop";
  private_directory(share);
  ProgramRun run = sample({"create", place_.data(), place_.bootstrap(), entry});
  run.environment = {{"HOME", place_.home()}};
  for (const bool is_missing : {true, false}) {
    const FaultRun made = run_with_fault(run, place_.root().path());
    ASSERT_EQ(made.result.exit_code, 0) << made.result.errors;
    const auto begin = std::find_if(made.calls.begin(), made.calls.end(), [&](const FaultCall& call) {
      return call.path.native().starts_with(entry.native() + ".");
    });
    ASSERT_NE(begin, made.calls.end());
    const auto is_flushed = [&](const std::filesystem::path& folder) {
      return std::any_of(made.calls.begin(), begin,
                         [&](const FaultCall& call) { return call.name == "fsync" && call.path == folder; });
    };
    for (const std::filesystem::path& parent : {share, share.parent_path(), place_.home()}) {
      EXPECT_TRUE(is_flushed(parent)) << parent << is_missing;
    }
    std::filesystem::remove(entry);
  }
}

// The ledger was removed with its data folder, and the file is exactly what would be written.
TEST_F(ShortcutsFault, AShortcutOfAFormerLedgerIsRecordedAndNeverTouched) {
  FaultPlan plan;
  plan.run = creating();
  struct stat before = {};
  plan.reset = [&] {
    reset();
    place_.write(path("new"), made_);
    ASSERT_EQ(lstat(path("new").c_str(), &before), 0);
  };
  plan.judge = [&](const FaultOutcome& outcome) {
    judge_ending(outcome, codes_of_making);
    judge_foreign();
    struct stat now = {};
    ASSERT_EQ(lstat(path("new").c_str(), &now), 0);
    EXPECT_EQ(now.st_ino, before.st_ino);
    EXPECT_EQ(place_.read(path("new")), made_);
    const bool recorded = ledger() == new_ledger();
    EXPECT_TRUE(recorded || ledger() == old_ledger()) << ledger();
    EXPECT_TRUE(recorded || outcome.result.exit_code != 0);
    judge_next_runs();
  };
  try_all(plan);
}

TEST_F(ShortcutsFault, AnEditedShortcutIsReplacedOrStaysSomewhere) {
  FaultPlan plan;
  plan.run = creating();
  plan.reset = [&] { reset(true); };
  Json entries = old_entries();
  entries.push_back(row("new", digest("as it once was", "sha256")));
  const std::string edited_ledger = ledger_document(entries).dump();
  plan.judge = [&](const FaultOutcome& outcome) {
    judge_ending(outcome, codes_of_making);
    judge_foreign();
    const bool recorded = ledger() == new_ledger();
    EXPECT_TRUE(recorded || ledger() == edited_ledger) << ledger();
    if (outcome.result.exit_code == 0) {
      EXPECT_TRUE(recorded);
      EXPECT_EQ(place_.read(path("new")), made_);
    } else if (ends_process(outcome.mode)) {
      // Until the new shortcut is in its place, what the user wrote is still there, set aside or in its own place.
      const std::vector<std::string> aside = strays();
      const bool stays = (exists("new") && place_.read(path("new")) == "edited by the user") ||
                         std::any_of(aside.begin(), aside.end(), [&](const std::string& name) {
                           return place_.root().read(name) == "edited by the user";
                         });
      EXPECT_TRUE(stays || (recorded && exists("new") && place_.read(path("new")) == made_));
      EXPECT_TRUE(!exists("new") || recorded || place_.read(path("new")) == "edited by the user");
    } else {
      EXPECT_EQ(place_.read(path("new")), "edited by the user") << outcome.result.errors;
      EXPECT_FALSE(recorded) << outcome.result.errors;
    }
    judge_next_runs();
  };
  try_all(plan);
}

TEST_F(ShortcutsFault, ARemovalTakesOnlyTheClientsOwn) {
  FaultPlan plan;
  plan.run = removing();
  plan.reset = [&] { reset(); };
  plan.judge = [&](const FaultOutcome& outcome) {
    judge_ending(outcome, codes_of_removing);
    judge_foreign();
    EXPECT_LE(strays().size(), ends_process(outcome.mode) ? 1u : 0u);
    EXPECT_TRUE(ledger() == old_ledger() || ledger() == empty_ledger()) << ledger();
    if (outcome.result.exit_code == 0) {
      EXPECT_EQ(ledger(), empty_ledger());
      // A shortcut that cannot be read is not known to be the client's own.
      const std::string said = exists("ours") ? "changed " : "removed ";
      EXPECT_NE(outcome.result.output.find(said + path("ours").native() + "\n"), std::string::npos);
    } else if (ledger() == empty_ledger()) {
      EXPECT_FALSE(exists("ours"));
    }
    judge_next_runs();
  };
  try_all(plan);
}

TEST_F(ShortcutsFault, AReleaseTellsOfEveryShortcutThatStays) {
  FaultPlan plan;
  plan.run = releasing();
  plan.reset = [&] { reset(); };
  plan.judge = [&](const FaultOutcome& outcome) {
    judge_ending(outcome, codes_of_releasing);
    judge_foreign();
    const std::string kept_ledger = ledger_document(Json::array({row("ours", digest(made_, "sha256"))})).dump();
    EXPECT_TRUE(ledger() == old_ledger() || ledger() == kept_ledger || ledger() == empty_ledger()) << ledger();
    if (outcome.result.exit_code == 0) {
      for (const char* const name : {"ours", "edited", "linked"}) {
        const bool is_there = name != std::string("ours") || exists(name);
        const std::string said = (is_there ? "changed " : "removed ") + path(name).native() + "\n";
        EXPECT_NE(outcome.result.output.find(said), std::string::npos) << outcome.result.output;
      }
    }
    judge_next_runs();
  };
  try_all(plan);
}

// The data folder has another bootstrap by now, and so the restored shortcut has another content.
TEST_F(ShortcutsFault, ARestoringForAnotherBootstrapLeavesNoFileThatTheLedgerDoesNotKnow) {
  DesktopShortcut moved = place_.shortcut();
  moved.bootstrap = place_.write(place_.data() / "new/bin/ravok-bootstrap", "");
  const std::string text = linux_desktop_entry(moved);
  Json entries = old_entries();
  entries[0] = row("ours", digest(text, "sha256"));
  const std::string restored_ledger = ledger_document(entries).dump();
  FaultPlan plan;
  plan.run = sample({"restore", place_.data(), moved.bootstrap});
  plan.reset = [&] {
    reset();
    std::filesystem::remove(path("ours"));
  };
  plan.judge = [&](const FaultOutcome& outcome) {
    judge_ending(outcome, codes_of_making);
    judge_foreign();
    EXPECT_TRUE(ledger() == old_ledger() || ledger() == restored_ledger) << ledger();
    EXPECT_TRUE(!exists("ours") || (place_.read(path("ours")) == text && ledger() == restored_ledger));
    if (is_new_state()) {
      EXPECT_EQ(after(plan.run).errors, "");
      EXPECT_EQ(place_.read(path("ours")), text);
      EXPECT_EQ(ledger(), restored_ledger);
      EXPECT_EQ(after(removing()).errors, "");
      EXPECT_FALSE(exists("ours"));
      judge_foreign();
    }
  };
  try_all(plan);
}

TEST_F(ShortcutsFault, ARestoringMakesOnlyWhatIsMissing) {
  FaultPlan plan;
  plan.run = restoring();
  plan.reset = [&] {
    reset();
    std::filesystem::remove(path("ours"));
  };
  plan.judge = [&](const FaultOutcome& outcome) {
    judge_ending(outcome, codes_of_making);
    judge_foreign();
    EXPECT_LE(strays().size(), ends_process(outcome.mode) ? 1u : 0u);
    EXPECT_EQ(ledger(), old_ledger());
    EXPECT_TRUE(!exists("ours") || place_.read(path("ours")) == made_);
    const ProgramResult again = after(restoring());
    EXPECT_EQ(again.errors, "");
    EXPECT_EQ(place_.read(path("ours")), made_);
    EXPECT_EQ(ledger(), old_ledger());
    EXPECT_TRUE(!judge_next_runs() || !exists("ours"));
  };
  try_all(plan);
}

}  // namespace
}  // namespace ravok::testing::shortcuts_fault_test
