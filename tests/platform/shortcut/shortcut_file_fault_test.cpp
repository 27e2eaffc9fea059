// Shortcuts that others change, or whose calls fail, while they are made, replaced or removed.

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "domain/crypto.hpp"
#include "platform/file/posix_files.hpp"
#include "platform/os.hpp"
#include "platform/shortcut/linux_shortcuts.hpp"
#include "platform/shortcut/shortcuts.hpp"
#include "support/failure.hpp"
#include "support/file_calls.hpp"
#include "support/shortcut_place.hpp"

namespace ravok::shortcut_file_fault_test {
namespace {

using testing::failing;
using testing::ledger_document;
using testing::ledger_entry;
using testing::meanwhile;
using testing::Planned;

using Paths = std::vector<std::filesystem::path>;

constexpr const char* not_replaced = "Cannot replace a changed shortcut";

// A plan in which the call fails and the event happens just before it.
testing::Plan failing_after(std::string_view call, int problem, int countdown, std::function<void()> event) {
  testing::Plan plan = failing(call, problem, countdown);
  plan.meanwhile = std::move(event);
  return plan;
}

class ShortcutFault : public ::testing::Test {
 protected:
  void SetUp() override {
    if (os::shortcut_form() != os::ShortcutForm::desktop_entry) {
      GTEST_SKIP() << "shortcuts of this system need its registered applications";
    }
    text_ = linux_desktop_entry(place_.shortcut());
  }

  std::filesystem::path entry() const { return place_.desktop() / "entry.desktop"; }
  Json create() const { return create_owned_native_shortcut(place_.shortcut(), entry()); }
  ShortcutRemoval remove() const { return remove_owned_native_shortcuts(place_.data()); }
  std::string ledger() const { return place_.read(place_.ledger()); }
  std::string recorded() const {
    return ledger_document(Json::array({ledger_entry(entry(), digest(text_, "sha256"))})).dump();
  }

  // Puts somebody else's file where the shortcut is or will be.
  void replace(const std::string& content) const {
    place_.write(place_.home() / "foreign", content);
    std::filesystem::rename(place_.home() / "foreign", entry());
  }

  // Only somebody else's file is on the desktop.
  void expect_foreign(const std::string& content) const {
    EXPECT_EQ(names(), (std::vector<std::string>{"entry.desktop"}));
    EXPECT_EQ(place_.read(entry()), content);
  }

  std::vector<std::string> names() const {
    std::vector<std::string> found;
    for (const auto& each : std::filesystem::directory_iterator(place_.desktop())) {
      found.push_back(each.path().filename());
    }
    return found;
  }

  // Moves the desktop away and puts a link to another folder in its place, where there is a file like the shortcut.
  void swap_desktop() const {
    std::filesystem::rename(place_.desktop(), place_.home() / "moved");
    place_.write(place_.home() / "far/entry.desktop", text_);
    testing::make_users_link(place_.home() / "far", place_.desktop());
  }

  const testing::ShortcutPlace place_;
  std::string text_;
};

// --- Making ------------------------------------------------------------------------------------

TEST_F(ShortcutFault, AFileThatComesFirstStaysAlsoWhenItIsTheSame) {
  for (const std::string& content : {text_, std::string("mine")}) {
    const Planned set(meanwhile("link", [&] { replace(content); }));
    EXPECT_FAILURE(create_native_shortcut(place_.shortcut(), entry()), "file_write",
                   "Cannot create export; the destination may already exist (17)");
    EXPECT_TRUE(set.happened());
    expect_foreign(content);
    std::filesystem::remove(entry());
  }
}

TEST_F(ShortcutFault, AFileThatCannotBeFlushedIsRemoved) {
  // The file's own flush is the first.
  const Planned set(failing("fsync", EIO, 2));
  EXPECT_FAILURE(create_native_shortcut(place_.shortcut(), entry()), "file_sync",
                 "Could not durably synchronize directory");
  EXPECT_TRUE(names().empty());
}

TEST_F(ShortcutFault, AFileThatKeepsItsTransactionsNameIsRemoved) {
  const Planned set(failing("unlink", EIO));
  EXPECT_FAILURE(create_native_shortcut(place_.shortcut(), entry()), "file_write",
                 "Cannot finish export transaction (5)");
  EXPECT_TRUE(names().empty());
}

TEST_F(ShortcutFault, AFileThatReplacedTheNewOneStaysWhenTheMakingFails) {
  for (const char* const call : {"fsync", "unlink"}) {
    for (const std::string& content : {text_, std::string("mine")}) {
      const int countdown = call == std::string("fsync") ? 2 : 1;
      const Planned set(failing_after(call, EIO, countdown, [&] { replace(content); }));
      EXPECT_TRUE(testing::failure_of([&] { create_native_shortcut(place_.shortcut(), entry()); }).has_value());
      EXPECT_TRUE(set.happened());
      expect_foreign(content);
      std::filesystem::remove(entry());
    }
  }
}

TEST_F(ShortcutFault, AShortcutThatCannotBeMadeIsNotRecorded) {
  for (const int problem : {EIO, EEXIST}) {
    const Planned set(failing("link", problem));
    EXPECT_FAILURE(create(), "file_write",
                   "Cannot create export; the destination may already exist (" + std::to_string(problem) + ")");
    EXPECT_EQ(ledger(), ledger_document(Json::array()).dump());
    EXPECT_TRUE(names().empty());
  }
}

TEST_F(ShortcutFault, AShortcutIsRecordedBeforeItsFileIsThere) {
  const Planned set(meanwhile("link", [&] {
    EXPECT_EQ(ledger(), recorded());
    EXPECT_FALSE(std::filesystem::exists(entry()));
  }));
  EXPECT_EQ(create().at("created"), true);
  EXPECT_TRUE(set.happened());
  EXPECT_EQ(ledger(), recorded());
}

// Who made it may have ended before its name was durable.
TEST_F(ShortcutFault, AShortcutThatIsThereIsFlushedBeforeThatIsTold) {
  create();
  {
    const Planned set(failing("fsync", EIO));
    EXPECT_FAILURE(create(), "file_sync", "Could not durably synchronize directory");
    EXPECT_TRUE(set.happened());
  }
  EXPECT_EQ(place_.read(entry()), text_);
  EXPECT_EQ(ledger(), recorded());
  EXPECT_EQ(create().at("created"), false);
}

TEST_F(ShortcutFault, AShortcutOfAFormerLedgerIsFlushedBeforeItIsTold) {
  create();
  ASSERT_EQ(remove().removed, Paths{entry()});
  place_.write(entry(), text_);
  // Those of the ledger come first: its file's, and its folder's.
  const Planned set(failing("fsync", EIO, 3));
  EXPECT_FAILURE(create(), "file_sync", "Could not durably synchronize directory");
  EXPECT_TRUE(set.happened());
  EXPECT_EQ(place_.read(entry()), text_);
  EXPECT_EQ(ledger(), ledger_document(Json::array()).dump());
}

TEST_F(ShortcutFault, ADefaultFolderThatIsThereIsFlushedBeforeItHoldsAnything) {
  const std::filesystem::path menu = native_menu_directory();
  private_directory(menu);
  const Planned set(failing("fsync", EIO));
  EXPECT_FAILURE(create_native_shortcut(place_.shortcut(), menu / "entry.desktop"), "file_sync",
                 "Cannot synchronize Linux directory ancestry");
  EXPECT_TRUE(set.happened());
  EXPECT_TRUE(std::filesystem::is_empty(menu));
}

TEST_F(ShortcutFault, AFileThatComesFirstIsPreservedAndRecordedByTheNextCall) {
  {
    const Planned set(meanwhile("link", [&] { replace(text_); }));
    EXPECT_FAILURE(create(), "file_write", "Cannot create export; the destination may already exist (17)");
    expect_foreign(text_);
    EXPECT_EQ(ledger(), ledger_document(Json::array()).dump());
  }
  EXPECT_EQ(create().at("created"), false);
  EXPECT_EQ(ledger(), recorded());
}

TEST_F(ShortcutFault, NoFileIsMadeThroughALinkThatComesInTheFoldersPlace) {
  std::filesystem::create_directory(place_.home() / "far");
  const Planned set(meanwhile("link", [&] {
    std::filesystem::rename(place_.desktop(), place_.home() / "moved");
    testing::make_users_link(place_.home() / "far", place_.desktop());
  }));
  EXPECT_EQ(create().at("created"), true);
  EXPECT_TRUE(std::filesystem::is_empty(place_.home() / "far"));
  EXPECT_EQ(place_.read(place_.home() / "moved/entry.desktop"), text_);
}

// Both calls find nothing at first. The other one then holds the lock and makes the shortcut between two looks of this
// one.
TEST_F(ShortcutFault, ACallThatWaitsForAnotherToldOfTheSameShortcutFindsItMade) {
  create();
  ASSERT_EQ(remove().removed, Paths{entry()});
  for (const int look : {1, 2, 3, 4, 5, 6}) {
    {
      const Planned set(meanwhile(
          "anchor", [&] { EXPECT_EQ(create().at("created"), true); }, look));
      EXPECT_EQ(create().at("created"), false) << look;
      EXPECT_TRUE(set.happened()) << look;
    }
    EXPECT_EQ(ledger(), recorded());
    {
      const Planned set(meanwhile(
          "anchor", [&] { EXPECT_EQ(remove().removed, Paths{entry()}); }, look));
      EXPECT_EQ(create().at("created"), true) << look;
      EXPECT_TRUE(set.happened()) << look;
    }
    EXPECT_EQ(ledger(), recorded());
    EXPECT_EQ(remove().removed, Paths{entry()});
  }
}

// --- Replacing ---------------------------------------------------------------------------------

class ShortcutReplacement : public ShortcutFault {
 protected:
  void SetUp() override {
    ShortcutFault::SetUp();
    if (!IsSkipped()) {
      create();
      place_.write(entry(), "changed");
    }
  }
};

TEST_F(ShortcutReplacement, AChangedFileComesBackWhenTheNewOneCannotBeMade) {
  const Planned set(failing("link", EIO));
  EXPECT_FAILURE(create(), "file_write", "Cannot create export; the destination may already exist (5)");
  expect_foreign("changed");
  EXPECT_EQ(ledger(), recorded());
}

TEST_F(ShortcutReplacement, AChangedFileThatCannotBeMovedStays) {
  // The ledger's is the first.
  const Planned set(failing("rename", EACCES, 2));
  EXPECT_FAILURE(create(), "shortcut_path", not_replaced);
  expect_foreign("changed");
  EXPECT_EQ(ledger(), recorded());
}

TEST_F(ShortcutReplacement, AFileThatComesAfterTheLookComesBack) {
  const Planned set(meanwhile(
      "rename", [&] { replace("another"); }, 2));
  EXPECT_FAILURE(create(), "shortcut_path", not_replaced);
  EXPECT_TRUE(set.happened());
  expect_foreign("another");
  EXPECT_EQ(ledger(), recorded());
}

TEST_F(ShortcutReplacement, AFileThatComesMeanwhileStaysAndTheChangedOneStandsAside) {
  const Planned set(meanwhile("link", [&] { replace("another"); }));
  EXPECT_FAILURE(create(), "file_write", "Cannot create export; the destination may already exist (17)");
  EXPECT_EQ(place_.read(entry()), "another");
  std::vector<std::string> found = names();
  ASSERT_EQ(found.size(), 2u);
  std::sort(found.begin(), found.end());
  EXPECT_EQ(place_.read(place_.desktop() / found[1]), "changed");
}

TEST_F(ShortcutReplacement, OnlyTheFolderThatWasProvedIsTouched) {
  const Planned set(meanwhile(
      "rename", [&] { swap_desktop(); }, 2));
  EXPECT_TRUE(testing::failure_of([&] { create(); }).has_value());
  EXPECT_TRUE(set.happened());
  EXPECT_EQ(place_.read(place_.home() / "far/entry.desktop"), text_);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(place_.home() / "far"), {}), 1);
  EXPECT_EQ(place_.read(place_.home() / "moved/entry.desktop"), "changed");
}

// --- Removing ----------------------------------------------------------------------------------

class ShortcutRemovalFault : public ShortcutFault {
 protected:
  void SetUp() override {
    ShortcutFault::SetUp();
    if (!IsSkipped()) {
      create();
    }
  }

  Paths restore() const { return restore_owned_native_shortcuts(place_.data(), place_.bootstrap()); }

  // Returns the number of the last such call before the first `next` in an undisturbed removal.
  int last_before(const std::string& call, const std::string& next) {
    std::vector<std::string> order;
    {
      const Planned set({});
      remove();
      order = set.order_of({call, next});
    }
    create();
    return static_cast<int>(std::find(order.begin(), order.end(), next) - order.begin());
  }
};

TEST_F(ShortcutRemovalFault, AFileThatCameAfterTheLookIsChanged) {
  const int last = last_before("fstatat", "unlink");
  ASSERT_GT(last, 0);
  for (const std::string& content : {text_, std::string("mine")}) {
    const Planned set(meanwhile(
        "fstatat", [&] { replace(content); }, last));
    const ShortcutRemoval removal = remove();
    EXPECT_TRUE(set.happened());
    EXPECT_TRUE(removal.removed.empty());
    EXPECT_EQ(removal.changed, Paths{entry()});
    expect_foreign(content);
    std::filesystem::remove(entry());
    create();
  }
}

TEST_F(ShortcutRemovalFault, AFileThatIsGoneAfterTheLookIsForgotten) {
  const int last = last_before("fstatat", "unlink");
  for (const char* const call : {"fstatat", "unlink"}) {
    const Planned set(meanwhile(
        call, [&] { std::filesystem::remove(entry()); }, call == std::string("unlink") ? 1 : last));
    const ShortcutRemoval removal = remove();
    EXPECT_TRUE(set.happened());
    EXPECT_TRUE(removal.removed.empty() && removal.changed.empty());
    EXPECT_EQ(ledger(), ledger_document(Json::array()).dump());
    create();
  }
}

TEST_F(ShortcutRemovalFault, OnlyTheFolderThatWasProvedIsTouched) {
  const Planned set(meanwhile("unlink", [&] { swap_desktop(); }));
  EXPECT_EQ(remove().removed, Paths{entry()});
  EXPECT_TRUE(set.happened());
  EXPECT_EQ(place_.read(place_.home() / "far/entry.desktop"), text_);
  EXPECT_TRUE(std::filesystem::is_empty(place_.home() / "moved"));
}

TEST_F(ShortcutRemovalFault, ARemovalThatCannotBeFlushedKeepsTheLedger) {
  {
    const Planned set(failing("fsync", EIO));
    EXPECT_FAILURE(remove(), "file_sync", "Could not durably synchronize directory");
  }
  EXPECT_EQ(ledger(), recorded());
  EXPECT_TRUE(remove().removed.empty());
  EXPECT_EQ(ledger(), ledger_document(Json::array()).dump());
}

TEST_F(ShortcutRemovalFault, AReleaseIsToldAlsoWhenItCannotBeFlushedOrRecorded) {
  for (const testing::Plan& plan : {failing("fsync", EIO), failing("rename", ENOSPC)}) {
    {
      const Planned set(plan);
      EXPECT_EQ(release_owned_native_shortcuts(place_.data()).removed, Paths{entry()});
      EXPECT_TRUE(set.happened());
    }
    EXPECT_EQ(ledger(), recorded());
    EXPECT_TRUE(names().empty());
    create();
  }
}

TEST_F(ShortcutRemovalFault, AReleaseTellsOfWhatCannotBeRemovedAndKeepsItsRow) {
  {
    const Planned set(failing("unlink", EPERM));
    const ShortcutRemoval release = release_owned_native_shortcuts(place_.data());
    EXPECT_TRUE(release.removed.empty());
    EXPECT_EQ(release.changed, Paths{entry()});
  }
  EXPECT_EQ(ledger(), recorded());
  EXPECT_EQ(release_owned_native_shortcuts(place_.data()).removed, Paths{entry()});
}

// --- Restoring ---------------------------------------------------------------------------------

TEST_F(ShortcutRemovalFault, ARestoringFlushesWhatIsThere) {
  {
    // Those of the ledger come first: its file's, and its folder's.
    const Planned set(failing("fsync", EIO, 3));
    EXPECT_FAILURE(restore(), "file_sync", "Could not durably synchronize directory");
    EXPECT_TRUE(set.happened());
  }
  EXPECT_EQ(place_.read(entry()), text_);
  EXPECT_TRUE(restore().empty());
}

TEST_F(ShortcutRemovalFault, ARestoringMakesWhatIsMissingAlsoWhereWhatIsThereCannotBeFlushed) {
  const std::filesystem::path missing = place_.home() / "missing.desktop";
  create_owned_native_shortcut(place_.shortcut(), missing);
  bool happened = true;
  for (int count = 1; happened; ++count) {
    std::filesystem::remove(missing);
    const Planned set(failing("fsync", EIO, count));
    const bool failed = testing::failure_of([&] { restore(); }).has_value();
    happened = set.happened();
    EXPECT_EQ(failed, happened) << count;
    // The first two are its own: its file's, and its folder's.
    EXPECT_EQ(std::filesystem::exists(missing), count > 2) << count;
  }
}

TEST_F(ShortcutRemovalFault, WhatAMakingHasLeftIsGoneForGoodBeforeItsRowIsReplaced) {
  std::filesystem::rename(entry(), entry().native() + "." + std::string(32, '1') + ".tmp");
  DesktopShortcut moved = place_.shortcut();
  moved.bootstrap = place_.write(place_.data() / "new/bin/ravok-bootstrap", "");
  {
    const Planned set(failing("fsync", EIO));
    EXPECT_FAILURE(restore_owned_native_shortcuts(place_.data(), moved.bootstrap), "file_sync",
                   "Could not durably synchronize directory");
    EXPECT_EQ(set.count("link"), 0);
  }
  EXPECT_TRUE(names().empty());
  EXPECT_EQ(ledger(), recorded());
}

TEST_F(ShortcutRemovalFault, ARestoringForAnotherBootstrapIsRecordedBeforeTheFileIsThere) {
  DesktopShortcut moved = place_.shortcut();
  moved.bootstrap = place_.write(place_.data() / "new/bin/ravok-bootstrap", "");
  const std::string sha256 = digest(linux_desktop_entry(moved), "sha256");
  std::filesystem::remove(entry());
  const auto restore = [&] { return restore_owned_native_shortcuts(place_.data(), moved.bootstrap); };
  {
    const Planned set(
        failing_after("link", EIO, 1, [&] { EXPECT_EQ(owned_native_shortcuts(place_.data()).at(0).sha256, sha256); }));
    EXPECT_FAILURE(restore(), "file_write", "Cannot create export; the destination may already exist (5)");
    EXPECT_EQ(ledger(), recorded());
  }
  EXPECT_EQ(restore(), Paths{entry()});
  EXPECT_EQ(owned_native_shortcuts(place_.data()).at(0).sha256, sha256);
  EXPECT_EQ(remove().removed, Paths{entry()});
}

}  // namespace
}  // namespace ravok::shortcut_file_fault_test
