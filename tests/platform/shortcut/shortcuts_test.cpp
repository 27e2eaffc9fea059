#include "platform/shortcut/shortcuts.hpp"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "platform/file/native_lock.hpp"
#include "platform/file/path_keys.hpp"
#include "platform/os.hpp"
#include "platform/shortcut/linux_shortcuts.hpp"
#include "support/failure.hpp"
#include "support/lock_calls.hpp"
#include "support/ordinary_user.hpp"
#include "support/shortcut_place.hpp"
#include "support/with_environment.hpp"

namespace ravok::shortcuts_test {
namespace {

using testing::ledger_document;
using testing::ledger_entry;
using testing::WithEnvironment;

constexpr const char* preserved = "Desktop-entry destination already exists; it was preserved";
constexpr const char* not_plain = "Shortcut paths need existing plain files and directories";
constexpr const char* link_in_path = "Shortcut path contains a symbolic link";

// A client whose shortcuts are entries of the desktop's menu.
class Shortcuts : public ::testing::Test {
 protected:
  void SetUp() override {
    if (os::shortcut_form() != os::ShortcutForm::desktop_entry) {
      GTEST_SKIP() << "shortcuts of this system need its registered applications";
    }
  }

  std::filesystem::path entry(const std::string& name = "entry") const {
    return place_.desktop() / (name + ".desktop");
  }
  Json create(const std::filesystem::path& path, const std::string& game = "game") const {
    return create_owned_native_shortcut(place_.shortcut(game), path);
  }
  ShortcutRemoval remove() const { return remove_owned_native_shortcuts(place_.data()); }
  std::vector<std::filesystem::path> restore() const {
    return restore_owned_native_shortcuts(place_.data(), place_.bootstrap());
  }
  std::vector<OwnedShortcut> rows() const { return owned_native_shortcuts(place_.data()); }
  std::string ledger() const { return place_.read(place_.ledger()); }

  // A shortcut never replaces a link. A link of user 0 may count as the system's own, and then the place has a key.
  void expect_refused_link(const std::filesystem::path& link) const {
    if (testing::is_root()) {
      EXPECT_FAILURE(create(link), "already_exists", preserved);
    } else {
      EXPECT_FAILURE(create(link), "unsafe_path", "Linux setup ancestry is linked, unavailable or changed");
    }
  }

  // The names on the desktop, sorted.
  std::vector<std::string> on_desktop() const {
    std::vector<std::string> names;
    for (const auto& each : std::filesystem::directory_iterator(place_.desktop())) {
      names.push_back(each.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  // Returns a row that records a file as it is.
  Json row_of(const std::filesystem::path& path) const {
    return ledger_entry(path, digest(place_.read(path), "sha256"));
  }
  void record(const Json& entries) const { place_.write_ledger(ledger_document(entries).dump()); }

  // Returns the text that a shortcut for a game would have now.
  std::string text(const std::string& game = "game") const { return linux_desktop_entry(place_.shortcut(game)); }

  struct stat status(const std::filesystem::path& path) const {
    struct stat status = {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status;
  }

  // A ledger of this many rows, of which none has a file.
  void fill_ledger(std::size_t count) const {
    Json entries = Json::array();
    for (std::size_t i = 0; i < count; ++i) {
      entries.push_back(ledger_entry(entry("row-" + std::to_string(i))));
    }
    place_.write_ledger(ledger_document(entries).dump());
  }

  // Every operation that reads the ledger refuses it with this message. The ledger and all shortcuts stay.
  void expect_refused_ledger(const std::string& content, const std::string& message) const {
    place_.write_ledger(content);
    place_.write(entry("mine"), "mine");
    EXPECT_FAILURE(rows(), "shortcut_ledger", message) << content;
    EXPECT_FAILURE(create(entry("new")), "shortcut_ledger", message) << content;
    EXPECT_FAILURE(remove(), "shortcut_ledger", message) << content;
    EXPECT_FAILURE(restore(), "shortcut_ledger", message) << content;
    EXPECT_EQ(ledger(), content);
    EXPECT_EQ(on_desktop(), (std::vector<std::string>{"mine.desktop"}));
  }

  const testing::ShortcutPlace place_;
};

// --- The default place -------------------------------------------------------------------------

TEST_F(Shortcuts, HaveTheExtensionOfTheirForm) { EXPECT_EQ(native_shortcut_extension(), ".desktop"); }

TEST_F(Shortcuts, DefaultToTheApplicationMenu) {
  EXPECT_EQ(native_menu_directory(), place_.home() / ".local/share/applications");
  const WithEnvironment data_home("XDG_DATA_HOME", "/elsewhere");
  EXPECT_EQ(native_menu_directory(), "/elsewhere/applications");
}

TEST_F(Shortcuts, DefaultToAFileNamedByTheFolderAndTheGame) {
  const std::string key = digest(path_keys::directory_key(place_.data()), "sha256");
  const std::filesystem::path menu = native_menu_directory();
  EXPECT_EQ(native_menu_entry(place_.data(), "game", "Any name"), menu / ("ravok-" + key + "-game-game.desktop"));
  EXPECT_EQ(native_menu_entry(place_.data(), "", "Any name"), menu / ("ravok-" + key + "-launcher.desktop"));
}

TEST_F(Shortcuts, DefaultToTheSameFileWhateverTheirNameAndTheFoldersSpelling) {
  const std::filesystem::path path = native_menu_entry(place_.data(), "game", "A");
  EXPECT_EQ(native_menu_entry(place_.data(), "game", ""), path);
  EXPECT_EQ(native_menu_entry(place_.home() / "../data", "game", "B"), path);
  EXPECT_EQ(native_menu_entry(place_.data().lexically_relative(std::filesystem::current_path()), "game", "C"), path);
  EXPECT_NE(native_menu_entry(place_.home(), "game", "A"), path);
  EXPECT_NE(native_menu_entry(place_.data(), "other", "A"), path);
}

TEST_F(Shortcuts, HaveNoDefaultForWhatIsNoGame) {
  EXPECT_EQ(testing::failure_of([&] { native_menu_entry(place_.data(), "../game", "A"); }).value().code,
            "invalid_identity");
}

TEST_F(Shortcuts, HaveNoDefaultWithoutAHome) {
  for (const std::optional<std::string>& value :
       std::vector<std::optional<std::string>>{std::nullopt, "", "relative"}) {
    const WithEnvironment home("HOME", value);
    EXPECT_FAILURE(native_menu_entry(place_.data(), "game", "A"), "user_path",
                   "Cannot locate the user's application menu");
  }
}

TEST_F(Shortcuts, HaveNoDefaultBelowAHomeThatIsNotNormal) {
  const WithEnvironment home("HOME", place_.home().native() + "/../home");
  EXPECT_FAILURE(native_menu_entry(place_.data(), "game", "A"), "shortcut_path",
                 "Shortcut paths must be absolute and normalized");
}

// --- Their place -------------------------------------------------------------------------------

TEST_F(Shortcuts, MakeTheMissingDefaultFolderPrivate) {
  const std::filesystem::path path = native_menu_entry(place_.data(), "game", "A");
  create_native_shortcut(place_.shortcut(), path);
  EXPECT_TRUE(std::filesystem::is_regular_file(path));
  EXPECT_EQ(std::filesystem::status(path.parent_path()).permissions(), std::filesystem::perms::owner_all);
  EXPECT_FALSE(std::filesystem::exists(place_.ledger()));
}

TEST_F(Shortcuts, LeaveAnExistingDefaultFolderItsMode) {
  std::filesystem::create_directories(native_menu_directory());
  ASSERT_EQ(chmod(native_menu_directory().c_str(), 0755), 0);
  create_native_shortcut(place_.shortcut(), native_menu_entry(place_.data(), "game", "A"));
  EXPECT_EQ(std::filesystem::status(native_menu_directory()).permissions(), std::filesystem::perms(0755));
}

// Its parent may belong to somebody else, who lets others pass only.
TEST_F(Shortcuts, TakeAnExistingDefaultFolderWhoseParentCannotBeRead) {
  const std::filesystem::path share = place_.home() / "share";
  std::filesystem::create_directories(share / "applications");
  const testing::OrdinaryUser user(place_.root());
  const WithEnvironment data_home("XDG_DATA_HOME", share.native());
  const testing::WithMode unreadable(share, 0311);
  for (const mode_t mode : {0755u, 0700u}) {
    const std::filesystem::path path = native_menu_directory() / (std::to_string(mode) + ".desktop");
    ASSERT_EQ(chmod(native_menu_directory().c_str(), mode), 0);
    EXPECT_NO_THROW(create_native_shortcut(place_.shortcut(), path)) << mode;
    EXPECT_TRUE(std::filesystem::exists(path)) << mode;
  }
}

TEST_F(Shortcuts, MakeNoOtherFolder) {
  EXPECT_FAILURE(create_native_shortcut(place_.shortcut(), place_.home() / "missing/a.desktop"), "shortcut_path",
                 "Custom shortcut destinations require an existing parent directory");
  EXPECT_FALSE(std::filesystem::exists(place_.home() / "missing"));
}

TEST_F(Shortcuts, HaveNoLinkOnTheirWay) {
  std::filesystem::create_directory_symlink(place_.home(), place_.base() / "link");
  std::filesystem::create_directory_symlink(place_.desktop(), place_.home() / "last");
  std::filesystem::create_symlink("nowhere", place_.home() / "dangling");
  for (const std::filesystem::path& parent :
       {place_.base() / "link/Desktop", place_.home() / "last", place_.home() / "dangling"}) {
    EXPECT_FAILURE(create_native_shortcut(place_.shortcut(), parent / "a.desktop"), "shortcut_path", link_in_path)
        << parent;
  }
  EXPECT_TRUE(on_desktop().empty());
}

TEST_F(Shortcuts, HaveOnlyDirectoriesOnTheirWay) {
  place_.write(place_.home() / "file", "mine");
  ASSERT_EQ(mkfifo((place_.home() / "pipe").c_str(), 0600), 0);
  for (const char* const name : {"file", "pipe"}) {
    EXPECT_FAILURE(create_native_shortcut(place_.shortcut(), place_.home() / name / "a.desktop"), "shortcut_path",
                   not_plain)
        << name;
  }
  EXPECT_EQ(place_.read(place_.home() / "file"), "mine");
}

TEST_F(Shortcuts, HaveAnAbsoluteNormalPath) {
  for (const std::filesystem::path& bad : {std::filesystem::path("a.desktop"), place_.home() / "../home/a.desktop"}) {
    EXPECT_FAILURE(create_native_shortcut(place_.shortcut(), bad), "shortcut_path",
                   "Shortcut paths must be absolute and normalized");
    EXPECT_FAILURE(create(bad), "shortcut_path", "Shortcut paths must be absolute and normalized");
  }
  DesktopShortcut shortcut = place_.shortcut();
  shortcut.data_root = "data";
  EXPECT_FAILURE(create_owned_native_shortcut(shortcut, entry()), "shortcut_path",
                 "Shortcut paths must be absolute and normalized");
  EXPECT_TRUE(on_desktop().empty());
}

TEST_F(Shortcuts, LieOutsideTheDataFolder) {
  for (const std::filesystem::path& bad :
       {place_.data(), place_.data() / "a.desktop", place_.data() / "missing/a.desktop"}) {
    EXPECT_FAILURE(create(bad), "shortcut_path", "Shortcuts must be outside the data folder") << bad;
  }
  testing::make_users_link(place_.desktop(), place_.home() / "link");
  EXPECT_FAILURE(create(place_.home() / "link/a.desktop"), "unsafe_path",
                 "Linux setup ancestry is linked, unavailable or changed");
  // Not even a lock file was made.
  EXPECT_FALSE(std::filesystem::exists(place_.data() / "native"));
  create(place_.write(place_.base() / "data2/keep", "").parent_path() / "a.desktop");
  EXPECT_EQ(rows().size(), 1u);
}

// --- Making ------------------------------------------------------------------------------------

TEST_F(Shortcuts, AreMadeAndRecorded) {
  EXPECT_EQ(create(entry()),
            Json({{"schema_version", 1}, {"created", true}, {"path", entry().native()}, {"game_id", "game"}}));
  const std::string sha256 = digest(place_.read(entry()), "sha256");
  EXPECT_EQ(ledger(), R"({"entries":[{"game":"game","name":"The Game","path":")" + entry().native() +
                          R"(","sha256":")" + sha256 + R"("}],"kind":"ravok-shortcuts","schema_version":1})");
  ASSERT_EQ(rows().size(), 1u);
  EXPECT_EQ(rows()[0].path, entry());
  EXPECT_EQ(rows()[0].game, "game");
  EXPECT_EQ(rows()[0].name, "The Game");
  EXPECT_EQ(rows()[0].sha256, sha256);
}

TEST_F(Shortcuts, KeepTheirLedgerPrivate) {
  create(entry());
  EXPECT_EQ(std::filesystem::status(place_.ledger()).permissions(), std::filesystem::perms(0600));
  EXPECT_TRUE(std::filesystem::is_regular_file(place_.data() / "native/shortcuts.lock"));
}

TEST_F(Shortcuts, OfTheClientNameNoGame) {
  EXPECT_EQ(create(entry(), "").at("game_id"), "");
  EXPECT_EQ(rows().at(0).game, "");
}

TEST_F(Shortcuts, AreRecordedInTheOrderInWhichTheyWereMade) {
  for (const char* const name : {"b", "a", "c"}) {
    create(entry(name));
  }
  std::vector<std::filesystem::path> paths;
  for (const OwnedShortcut& row : rows()) {
    paths.push_back(row.path);
  }
  EXPECT_EQ(paths, (std::vector<std::filesystem::path>{entry("b"), entry("a"), entry("c")}));
}

TEST_F(Shortcuts, ThatAreThereUnchangedAreLeftAlone) {
  create(entry());
  const std::string before = ledger();
  const struct stat made = status(entry());
  EXPECT_EQ(create(entry(), "other"),
            Json({{"schema_version", 1}, {"created", false}, {"path", entry().native()}, {"game_id", "game"}}));
  EXPECT_EQ(status(entry()).st_ino, made.st_ino);
  EXPECT_EQ(ledger(), before);
}

TEST_F(Shortcuts, ThatTheUserChangedAreReplacedWhenAskedForAgain) {
  create(entry());
  const std::string made = place_.read(entry());
  place_.write(entry(), "changed");
  EXPECT_EQ(create(entry()).at("created"), true);
  EXPECT_EQ(place_.read(entry()), made);
  EXPECT_EQ(rows().size(), 1u);
  EXPECT_EQ(on_desktop(), (std::vector<std::string>{"entry.desktop"}));
  EXPECT_EQ(remove().removed, (std::vector<std::filesystem::path>{entry()}));
}

TEST_F(Shortcuts, ThatTheUserChangedStayWhenTheirReplacementFails) {
  create(entry());
  place_.write(entry(), "changed");
  const std::string before = ledger();
  EXPECT_EQ(testing::failure_of([&] { create(entry(), "No Game"); }).value().code, "invalid_identity");
  EXPECT_EQ(place_.read(entry()), "changed");
  EXPECT_EQ(ledger(), before);
  EXPECT_EQ(on_desktop(), (std::vector<std::string>{"entry.desktop"}));
}

TEST_F(Shortcuts, ThatAreMissingAreMadeAgainInTheirRow) {
  create(entry("a"));
  create(entry("b"));
  std::filesystem::remove(entry("a"));
  EXPECT_EQ(create(entry("a"), "other").at("created"), true);
  ASSERT_EQ(rows().size(), 2u);
  EXPECT_EQ(rows()[0].path, entry("a"));
  EXPECT_EQ(rows()[0].game, "other");
}

TEST_F(Shortcuts, NeverTakeThePlaceOfAnothersFile) {
  place_.write(entry("file"), "mine");
  std::filesystem::create_symlink("nowhere", entry("link"));
  std::filesystem::create_directory(entry("directory"));
  for (const char* const name : {"file", "directory"}) {
    EXPECT_FAILURE(create(entry(name)), "already_exists", preserved) << name;
  }
  expect_refused_link(entry("link"));
  EXPECT_EQ(place_.read(entry("file")), "mine");
  EXPECT_EQ(std::filesystem::read_symlink(entry("link")), "nowhere");
  EXPECT_TRUE(rows().empty());
}

TEST_F(Shortcuts, NeverTakeThePlaceOfALinkOrADirectoryThatReplacedThem) {
  create(entry("link"));
  create(entry("directory"));
  const std::string before = ledger();
  const std::filesystem::path moved = place_.home() / "moved.desktop";
  std::filesystem::rename(entry("link"), moved);
  std::filesystem::create_symlink(moved, entry("link"));
  std::filesystem::remove(entry("directory"));
  std::filesystem::create_directory(entry("directory"));
  EXPECT_FAILURE(create(entry("directory")), "already_exists", preserved);
  expect_refused_link(entry("link"));
  EXPECT_TRUE(std::filesystem::is_symlink(entry("link")));
  EXPECT_TRUE(std::filesystem::is_regular_file(moved));
  EXPECT_TRUE(std::filesystem::is_directory(entry("directory")));
  EXPECT_EQ(ledger(), before);
}

TEST_F(Shortcuts, OutliveTheirDataFolderAndBelongToItsSuccessor) {
  create(entry());
  const struct stat made = status(entry());
  std::filesystem::remove_all(place_.data() / "native");
  EXPECT_EQ(create(entry()),
            Json({{"schema_version", 1}, {"created", false}, {"path", entry().native()}, {"game_id", "game"}}));
  const struct stat now = status(entry());
  EXPECT_EQ(now.st_ino, made.st_ino);
  EXPECT_EQ(now.st_mtim.tv_sec, made.st_mtim.tv_sec);
  EXPECT_EQ(now.st_mtim.tv_nsec, made.st_mtim.tv_nsec);
  EXPECT_EQ(now.st_ctim.tv_nsec, made.st_ctim.tv_nsec);
  EXPECT_EQ(ledger(), ledger_document(Json::array({row_of(entry())})).dump());
  EXPECT_EQ(on_desktop(), (std::vector<std::string>{"entry.desktop"}));
  EXPECT_EQ(remove().removed, (std::vector<std::filesystem::path>{entry()}));
}

// Whoever made it was ended before it had taken the name of its transaction away.
TEST_F(Shortcuts, AreAdoptedWithTheNameOfTheirTransaction) {
  create(entry());
  std::filesystem::create_hard_link(entry(), entry().native() + "." + std::string(32, '1') + ".tmp");
  std::filesystem::remove_all(place_.data() / "native");
  EXPECT_EQ(create(entry()).at("created"), false);
  EXPECT_EQ(on_desktop(), (std::vector<std::string>{"entry.desktop"}));
  EXPECT_EQ(remove().removed, (std::vector<std::filesystem::path>{entry()}));
}

TEST_F(Shortcuts, ThatAreAsTheyWouldBeWrittenReplaceAStaleDigestUntouched) {
  place_.write(entry(), text());
  const struct stat made = status(entry());
  record(Json::array({ledger_entry(entry())}));
  EXPECT_EQ(create(entry()).at("created"), false);
  EXPECT_EQ(status(entry()).st_ino, made.st_ino);
  EXPECT_EQ(ledger(), ledger_document(Json::array({row_of(entry())})).dump());
  EXPECT_EQ(remove().removed, (std::vector<std::filesystem::path>{entry()}));
}

TEST_F(Shortcuts, AreAdoptedOnlyWhenTheyAreTheUsersOwnToTheByte) {
  place_.write(entry("longer"), text() + "\n");
  place_.write(entry("shorter"), text().substr(0, text().size() - 1));
  place_.write(entry("other game"), text("other"));
  place_.write(entry("two names"), text());
  std::filesystem::create_hard_link(entry("two names"), place_.home() / "second");
  place_.write(place_.home() / "target", text());
  std::filesystem::create_symlink(place_.home() / "target", entry("link"));
  std::vector<std::string> names = {"longer", "shorter", "other game", "two names"};
  if (testing::is_root()) {
    place_.write(entry("foreign"), text());
    ASSERT_EQ(chown(entry("foreign").c_str(), 65534, 65534), 0);
    names.push_back("foreign");
  }
  for (const std::string& name : names) {
    const std::string before = place_.read(entry(name));
    const struct stat status_before = status(entry(name));
    EXPECT_FAILURE(create(entry(name)), "already_exists", preserved) << name;
    EXPECT_EQ(place_.read(entry(name)), before);
    EXPECT_EQ(status(entry(name)).st_ino, status_before.st_ino);
  }
  expect_refused_link(entry("link"));
  EXPECT_TRUE(rows().empty());
}

TEST_F(Shortcuts, AreAdoptedOnlyWhereTheyCouldBeMade) {
  const std::filesystem::path payload = place_.base() / "other/launcher/versions/a.desktop";
  place_.write(payload, text());
  EXPECT_FAILURE(create(payload), "shortcut_path", "Desktop entries must be outside managed launcher payloads");
  DesktopShortcut shortcut = place_.shortcut();
  shortcut.bootstrap = place_.write(place_.data() / "bin/other", "");
  place_.write(entry(), linux_desktop_entry(shortcut));
  EXPECT_FAILURE(create_owned_native_shortcut(shortcut, entry()), "shortcut_bootstrap",
                 "Linux shortcuts require the stable native bootstrap");
  EXPECT_TRUE(rows().empty());
}

TEST_F(Shortcuts, AreNotAdoptedByAMakingThatRecordsNothing) {
  create_native_shortcut(place_.shortcut(), entry());
  EXPECT_FAILURE(create_native_shortcut(place_.shortcut(), entry()), "already_exists", preserved);
  EXPECT_FAILURE(create_linux_desktop_entry(place_.shortcut(), entry()), "already_exists", preserved);
}

TEST_F(Shortcuts, NeverTakeThePlaceOfAChangedFileThatNoShortcutCanBe) {
  create(entry());
  const std::string before = ledger();
  const std::string longest(65'536, 'a');
  place_.write(entry(), longest + "a");
  EXPECT_FAILURE(create(entry()), "already_exists", preserved);
  EXPECT_EQ(place_.read(entry()), longest + "a");
  EXPECT_EQ(ledger(), before);
  place_.write(entry(), longest);
  EXPECT_EQ(create(entry()).at("created"), true);
  EXPECT_EQ(on_desktop(), (std::vector<std::string>{"entry.desktop"}));
}

TEST_F(Shortcuts, AreNotMadeForAClientInRepair) {
  place_.write(place_.data() / ".ravok-setup-incomplete", "");
  EXPECT_FAILURE(
      create(entry()), "native_install_incomplete",
      "Ravok setup did not finish in " + place_.data().native() + ". Run the Ravok installer again to repair it.");
  EXPECT_TRUE(on_desktop().empty());
  EXPECT_FALSE(std::filesystem::exists(place_.data() / "native"));
}

TEST_F(Shortcuts, Are128AtMost) {
  fill_ledger(127);
  EXPECT_EQ(create(entry("new")).at("created"), true);
  EXPECT_EQ(rows().size(), 128u);
  const std::string before = ledger();
  EXPECT_FAILURE(create(entry("one more")), "size_limit", "Too many recorded shortcuts");
  EXPECT_EQ(ledger(), before);
  EXPECT_EQ(on_desktop(), (std::vector<std::string>{"new.desktop"}));
}

TEST_F(Shortcuts, AreMadeAgainAlsoWhenTheLedgerIsFull) {
  fill_ledger(128);
  EXPECT_EQ(create(entry("row-7")).at("created"), true);
  place_.write(entry("row-7"), "changed");
  EXPECT_EQ(create(entry("row-7")).at("created"), true);
  EXPECT_EQ(create(entry("row-7")).at("created"), false);
  EXPECT_EQ(rows().size(), 128u);
}

TEST_F(Shortcuts, NeverMakeALedgerThatCouldNotBeReadAgain) {
  std::filesystem::path deep = place_.home() / "missing";
  for (int i = 0; i < 10; ++i) {
    deep /= std::string(200, 'd');
  }
  Json entries = Json::array();
  for (int i = 0; i < 100; ++i) {
    entries.push_back(ledger_entry(deep / (std::to_string(i) + ".desktop")));
  }
  entries.push_back(ledger_entry(entry("changed")));
  // Longer names in as many rows as needed fill the rest of the room.
  for (std::size_t rest = 262'144 - ledger_document(entries).dump().size(), i = 0; rest > 0; ++i) {
    const std::size_t part = std::min<std::size_t>(rest, 500);
    entries.at(i)["name"] = text_at(entries.at(i), "name") + std::string(part, 'n');
    rest -= part;
  }
  const std::string full = ledger_document(entries).dump();
  ASSERT_EQ(full.size(), 262'144u);
  place_.write_ledger(full);
  place_.write(entry("changed"), "changed");
  EXPECT_FAILURE(create(entry("new")), "size_limit", "Too many recorded shortcuts");
  EXPECT_FAILURE(create(entry("changed"), "game2"), "size_limit", "Too many recorded shortcuts");
  // The shortcut that could not be recorded does not exist, and the one that it was to replace does.
  EXPECT_EQ(on_desktop(), (std::vector<std::string>{"changed.desktop"}));
  EXPECT_EQ(place_.read(entry("changed")), "changed");
  EXPECT_EQ(ledger(), full);
  EXPECT_EQ(create(entry("changed")).at("created"), true);
}

TEST_F(Shortcuts, AreMadeOneAfterTheOther) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&, i] {
      for (int j = 0; j < 4; ++j) {
        create(entry(std::to_string(i) + "-" + std::to_string(j)));
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(rows().size(), 16u);
  EXPECT_EQ(remove().removed.size(), 16u);
}

// --- The ledger --------------------------------------------------------------------------------

TEST_F(Shortcuts, AreNoneWithoutALedger) {
  EXPECT_TRUE(rows().empty());
  EXPECT_FALSE(std::filesystem::exists(place_.data() / "native"));
}

TEST_F(Shortcuts, RefuseALedgerOfAnotherFormOrTooManyRows) {
  const std::string message = "Unsupported shortcut list " + place_.ledger().native();
  for (const char* const content :
       {R"({"schema_version":2,"kind":"ravok-shortcuts","entries":[]})",
        R"({"schema_version":"1","kind":"ravok-shortcuts","entries":[]})",
        R"({"schema_version":true,"kind":"ravok-shortcuts","entries":[]})",
        R"({"schema_version":1,"kind":"ravok-shortcut","entries":[]})", R"({"schema_version":1,"kind":1,"entries":[]})",
        R"({"schema_version":1,"kind":"ravok-shortcuts","entries":{}})",
        R"({"schema_version":1,"kind":"ravok-shortcuts","entries":null})"}) {
    expect_refused_ledger(content, message);
  }
  Json entries = Json::array();
  for (int i = 0; i < 129; ++i) {
    entries.push_back(ledger_entry(entry(std::to_string(i))));
  }
  expect_refused_ledger(ledger_document(entries).dump(), message);
}

// As an uninstall does while a status is read.
TEST_F(Shortcuts, AreNoneWhereTheLedgerIsRemovedMeanwhile) {
  for (int round = 0; round < 500; ++round) {
    place_.write_ledger(ledger_document(Json::array()).dump());
    std::atomic<int> ready = 0;
    std::thread removal([&] {
      for (++ready; ready < 2;) {
      }
      // Each round comes to another instant of the reading.
      const auto instant = std::chrono::steady_clock::now() + std::chrono::nanoseconds(round * 40);
      while (std::chrono::steady_clock::now() < instant) {
      }
      std::filesystem::remove(place_.ledger());
    });
    for (++ready; ready < 2;) {
    }
    std::optional<Error> failure;
    try {
      EXPECT_TRUE(rows().empty());
    } catch (const Error& error) {
      failure = error;
    }
    removal.join();
    ASSERT_FALSE(failure) << failure->what() << " in round " << round;
  }
}

TEST_F(Shortcuts, RefuseALedgerThatIsMalformed) {
  const std::string message = "Shortcut list is malformed: " + place_.ledger().native();
  for (const std::string& content :
       {std::string(), std::string("{"), std::string("[]"), std::string("null"), std::string("{}"), std::string("\xff"),
        std::string(R"({"schema_version":1,"kind":"ravok-shortcuts"})"),
        std::string(R"({"schema_version":1.0,"kind":"ravok-shortcuts","entries":[]})"),
        std::string(R"({"schema_version":1,"schema_version":1,"kind":"ravok-shortcuts","entries":[]})"),
        std::string(R"({"schema_version":1,"kind":"ravok-shortcuts","entries":[1]})"),
        std::string(R"({"schema_version":1,"kind":"ravok-shortcuts","entries":[[]]})"),
        ledger_document(Json::array()).dump() + std::string(262'144, ' ')}) {
    expect_refused_ledger(content, message);
  }
}

TEST_F(Shortcuts, RefuseALedgerWithARowThatIsMalformed) {
  const std::string message = "Shortcut list is malformed: " + place_.ledger().native();
  for (const char* const key : {"path", "game", "name", "sha256"}) {
    Json row = ledger_entry(entry());
    row.erase(key);
    expect_refused_ledger(ledger_document(Json::array({ledger_entry(entry("good")), row})).dump(), message);
    for (const Json& value : {Json(1), Json(nullptr), Json(Json::array())}) {
      row[key] = value;
      expect_refused_ledger(ledger_document(Json::array({row})).dump(), message);
    }
  }
  Json row = ledger_entry(entry());
  row["path"] = std::string("/a\0b", 4);
  expect_refused_ledger(ledger_document(Json::array({row})).dump(), message);
}

TEST_F(Shortcuts, RefuseALedgerWithARowThatNoCreationWrites) {
  const std::string message = "Shortcut list is malformed: " + place_.ledger().native();
  const std::vector<std::pair<const char*, Json>> bad = {
      {"path", "mine.desktop"},
      {"path", "../Desktop/mine.desktop"},
      {"path", (place_.home() / "../home/Desktop/mine.desktop").native()},
      {"path", (place_.desktop() / "./mine.desktop").native()},
      {"path", place_.desktop().native() + "//mine.desktop"},
      {"path", entry("mine").native() + "/"},
      {"path", (place_.desktop() / "mine").native()},
      {"path", (place_.desktop() / "mine.txt").native()},
      {"path", (place_.desktop() / "mine.ravok-launch").native()},
      {"path", (place_.desktop() / ".desktop").native()},
      {"path", (place_.desktop() / "mi\nne.desktop").native()},
      {"path", "/" + std::string(4096, 'a') + ".desktop"},
      {"path", "/"},
      {"path", ""},
      {"path", (place_.data() / "a.desktop").native()},
      {"path", (place_.data() / "bootstrap/a.desktop").native()},
      {"path", (place_.base() / "other/launcher/versions/1/a.desktop").native()},
      {"game", "Game"},
      {"game", "../game"},
      {"game", std::string(81, 'g')},
      {"name", ""},
      {"name", std::string(513, 'n')},
      {"name", "two\nlines"},
      {"sha256", ""},
      {"sha256", std::string(63, 'a')},
      {"sha256", std::string(65, 'a')},
      {"sha256", std::string(64, 'A')},
      {"sha256", std::string(64, 'g')},
  };
  for (const auto& [key, value] : bad) {
    Json row = ledger_entry(entry("mine"), digest("mine", "sha256"));
    row[key] = value;
    expect_refused_ledger(ledger_document(Json::array({ledger_entry(entry("good")), row})).dump(), message);
  }
}

TEST_F(Shortcuts, RefuseALedgerWithOnePathTwice) {
  const Json row = ledger_entry(entry("mine"), digest("mine", "sha256"));
  Json other = ledger_entry(entry("mine"));
  other["game"] = "other";
  for (const Json& second : {row, other}) {
    expect_refused_ledger(ledger_document(Json::array({row, second})).dump(),
                          "Shortcut list is malformed: " + place_.ledger().native());
  }
}

TEST_F(Shortcuts, RefuseALedgerWithARowInTheDataFolderBehindTheSystemsLink) {
  if (!testing::is_root()) {
    GTEST_SKIP() << "only user 0 can make a link that counts as the system's";
  }
  std::filesystem::create_directory_symlink(place_.data(), place_.base() / "system");
  const std::filesystem::path inside = place_.data() / "a.desktop";
  place_.write(inside, "mine");
  place_.write_ledger(
      ledger_document(Json::array({ledger_entry(place_.base() / "system/a.desktop", digest("mine", "sha256"))}))
          .dump());
  EXPECT_FAILURE(remove(), "shortcut_ledger", "Shortcut list is malformed: " + place_.ledger().native());
  EXPECT_EQ(place_.read(inside), "mine");
}

TEST_F(Shortcuts, ReadEveryRowThatACreationWrites) {
  const std::vector<std::string> names = {"a", std::string(512, 'n'), " \"';=%\\", "\xc3\xa9 \xf0\x9f\x8e\xae"};
  const std::vector<std::string> games = {"", "a", std::string(80, 'g'), "a-b.c0"};
  std::vector<std::filesystem::path> paths = {
      entry("a.b"), entry(" "),       entry("%f=\"\\$`'"),         entry("\xc3\xa9 \xe6\xb8\xb8"),
      entry("-"),   entry(".hidden"), entry(std::string(200, 'p'))};
  const std::filesystem::path similar = place_.base() / "data2/launcher/version";
  std::filesystem::create_directories(similar);
  paths.push_back(similar / "a.desktop");
  for (std::size_t i = 0; i < paths.size(); ++i) {
    const std::string& name = names[i % names.size()];
    const std::string& game = games[i / 2 % games.size()];
    create_owned_native_shortcut(place_.shortcut(game, name), paths[i]);
    ASSERT_EQ(rows().size(), i + 1);
    EXPECT_EQ(rows()[i].path, paths[i]);
    EXPECT_EQ(rows()[i].game, game);
    EXPECT_EQ(rows()[i].name, name);
  }
  EXPECT_EQ(remove().removed, paths);
}

TEST_F(Shortcuts, ReadALedgerUpToItsBound) {
  std::string content = ledger_document(Json::array()).dump();
  content.resize(262'144, ' ');
  place_.write_ledger(content);
  EXPECT_TRUE(rows().empty());
}

TEST_F(Shortcuts, RefuseALedgerThatIsNoFile) {
  const std::string message = "Shortcut list is malformed: " + place_.ledger().native();
  create(entry());
  const std::filesystem::path moved = place_.data() / "native/moved.json";
  std::filesystem::rename(place_.ledger(), moved);
  std::filesystem::create_symlink("moved.json", place_.ledger());
  EXPECT_FAILURE(rows(), "shortcut_ledger", message);
  EXPECT_FAILURE(remove(), "shortcut_ledger", message);
  EXPECT_FAILURE(create(entry("new")), "shortcut_ledger", message);
  std::filesystem::remove(place_.ledger());
  std::filesystem::create_directory(place_.ledger());
  EXPECT_FAILURE(restore(), "shortcut_ledger", message);
  EXPECT_EQ(on_desktop(), (std::vector<std::string>{"entry.desktop"}));
}

// --- Removing ----------------------------------------------------------------------------------

TEST_F(Shortcuts, HaveNothingToRemoveWithoutAnInstallation) {
  for (const std::filesystem::path& root : {place_.base() / "missing", place_.data()}) {
    const ShortcutRemoval removal = remove_owned_native_shortcuts(root);
    EXPECT_TRUE(removal.removed.empty() && removal.changed.empty());
    EXPECT_FALSE(std::filesystem::exists(root / "native"));
  }
  place_.write(place_.base() / "other/native", "a file");
  EXPECT_NO_THROW(remove_owned_native_shortcuts(place_.base() / "other"));
  EXPECT_NO_THROW(remove_owned_native_shortcuts(place_.base() / "other/native/below"));
  std::filesystem::remove(place_.base() / "other/native");
  std::filesystem::create_symlink("native", place_.base() / "other/native");
  EXPECT_NO_THROW(remove_owned_native_shortcuts(place_.base() / "other"));
}

TEST_F(Shortcuts, AreNotForgottenInAFolderThatCannotBeLookedInto) {
  create(entry());
  const std::string refusal = "Cannot look at " + (place_.data() / "native").native() + ": Permission denied";
  const testing::OrdinaryUser user(place_.root());
  const testing::WithMode closed(place_.data(), 0);
  EXPECT_FAILURE(remove(), "permissions", refusal);
  EXPECT_FAILURE(release_owned_native_shortcuts(place_.data()), "permissions", refusal);
  EXPECT_EQ(on_desktop(), (std::vector<std::string>{"entry.desktop"}));
}

TEST_F(Shortcuts, AreRemovedAndForgotten) {
  create(entry("a"));
  create(entry("b"));
  place_.write(entry("mine"), place_.read(entry("a")));
  const ShortcutRemoval removal = remove();
  EXPECT_EQ(removal.removed, (std::vector<std::filesystem::path>{entry("a"), entry("b")}));
  EXPECT_TRUE(removal.changed.empty());
  EXPECT_EQ(on_desktop(), (std::vector<std::string>{"mine.desktop"}));
  EXPECT_EQ(ledger(), ledger_document(Json::array()).dump());
}

TEST_F(Shortcuts, AreRemovedWithWhatTheirMakingHasLeft) {
  create(entry("a"));
  create(entry("b"));
  const std::string content = place_.read(entry("a"));
  std::filesystem::remove(entry("b"));
  const auto write_beside = [&](const std::string& name, const std::string& ending, const std::string& bytes) {
    place_.write(entry(name).native() + ending, bytes);
    return entry(name + ".desktop" + ending).stem().native();
  };
  const std::string random(32, '1');
  for (const char* const name : {"a", "b"}) {
    write_beside(name, "." + random + ".tmp", content);
  }
  std::vector<std::string> others = {write_beside("a", "." + std::string(32, '2') + ".tmp", "of another"),
                                     write_beside("a", "." + std::string(31, '1') + ".tmp", content),
                                     write_beside("a", "." + std::string(32, 'g') + ".tmp", content),
                                     write_beside("a", "." + random + ".new", content),
                                     write_beside("a", "-" + random + ".tmp", content),
                                     write_beside("c", "." + random + ".tmp", content)};
  EXPECT_EQ(remove().removed, (std::vector<std::filesystem::path>{entry("a")}));
  std::sort(others.begin(), others.end());
  EXPECT_EQ(on_desktop(), others);
}

TEST_F(Shortcuts, ThatAreGoneAreForgottenInSilence) {
  create(entry("a"));
  create(entry("b"));
  std::filesystem::remove(entry("a"));
  const ShortcutRemoval removal = remove();
  EXPECT_EQ(removal.removed, (std::vector<std::filesystem::path>{entry("b")}));
  EXPECT_TRUE(removal.changed.empty());
  EXPECT_TRUE(rows().empty());
}

TEST_F(Shortcuts, ThatTheUserChangedAreNeverRemoved) {
  const std::filesystem::path moved = place_.home() / "moved.desktop";
  const std::vector<std::pair<std::string, std::function<void(const std::filesystem::path&)>>> changes = {
      {"edited", [&](const auto& path) { place_.write(path, place_.read(path) + "\n"); }},
      {"emptied", [&](const auto& path) { place_.write(path, ""); }},
      {"long", [&](const auto& path) { place_.write(path, std::string(65'537, 'a')); }},
      {"linked",
       [&](const auto& path) {
         std::filesystem::rename(path, moved);
         std::filesystem::create_symlink(moved, path);
       }},
      {"dangling",
       [&](const auto& path) {
         std::filesystem::remove(path);
         std::filesystem::create_symlink("nowhere", path);
       }},
      {"directory",
       [&](const auto& path) {
         std::filesystem::remove(path);
         std::filesystem::create_directory(path);
       }},
      {"pipe",
       [&](const auto& path) {
         std::filesystem::remove(path);
         EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
       }},
  };
  std::vector<std::filesystem::path> changed;
  for (const auto& [name, change] : changes) {
    create(entry(name));
    change(entry(name));
    changed.push_back(entry(name));
  }
  create(entry("ours"));
  const ShortcutRemoval removal = remove();
  EXPECT_EQ(removal.removed, (std::vector<std::filesystem::path>{entry("ours")}));
  EXPECT_EQ(removal.changed, changed);
  EXPECT_EQ(on_desktop().size(), changes.size());
  EXPECT_TRUE(std::filesystem::is_regular_file(moved));
  // A changed shortcut is no longer the client's, so the next removal does not mention it.
  EXPECT_TRUE(rows().empty());
  EXPECT_TRUE(remove().changed.empty());
}

TEST_F(Shortcuts, ThatCannotBeReadCountAsChanged) {
  create(entry());
  const testing::OrdinaryUser user(place_.root());
  ASSERT_EQ(chmod(entry().c_str(), 0), 0);
  EXPECT_EQ(remove().changed, (std::vector<std::filesystem::path>{entry()}));
  EXPECT_EQ(on_desktop(), (std::vector<std::string>{"entry.desktop"}));
}

TEST_F(Shortcuts, BehindALinkCountAsChanged) {
  create(entry());
  const std::filesystem::path moved = place_.home() / "moved";
  std::filesystem::rename(place_.desktop(), moved);
  testing::make_users_link(moved, place_.desktop());
  const ShortcutRemoval removal = remove();
  EXPECT_TRUE(removal.removed.empty());
  EXPECT_EQ(removal.changed, (std::vector<std::filesystem::path>{entry()}));
  EXPECT_EQ(place_.read(moved / "entry.desktop"), text());
  EXPECT_TRUE(rows().empty());
}

TEST_F(Shortcuts, BehindALinkAreNotReplaced) {
  const std::filesystem::path far = place_.home() / "far";
  const std::filesystem::path file = place_.write(far / "entry.desktop", "mine");
  const struct stat before = status(file);
  // The row was written while the folder existed. By the time of the request, a link has its name.
  create(entry());
  std::filesystem::remove_all(place_.desktop());
  testing::make_users_link(far, place_.desktop());
  const std::string old = ledger();
  EXPECT_FAILURE(create(entry()), "unsafe_path", "Linux setup ancestry is linked, unavailable or changed");
  EXPECT_EQ(place_.read(file), "mine");
  EXPECT_EQ(status(file).st_ino, before.st_ino);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(far), {}), 1);
  EXPECT_EQ(ledger(), old);
}

TEST_F(Shortcuts, ThatCannotBeRemovedKeepTheLedgerButNotTheOthers) {
  std::filesystem::create_directory(place_.home() / "closed");
  const std::filesystem::path kept = place_.home() / "closed/entry.desktop";
  create(entry("a"));
  create(kept);
  create(entry("b"));
  const std::string before = ledger();
  {
    const testing::OrdinaryUser user(place_.root());
    const testing::WithMode closed(place_.home() / "closed", 0500);
    EXPECT_FAILURE(remove(), "file_remove", "Cannot remove a recorded shortcut");
    EXPECT_EQ(ledger(), before);
    EXPECT_TRUE(on_desktop().empty());
    EXPECT_TRUE(std::filesystem::exists(kept));
  }
  const testing::OrdinaryUser user(place_.root());
  const ShortcutRemoval removal = remove();
  EXPECT_EQ(removal.removed, (std::vector<std::filesystem::path>{kept}));
  EXPECT_TRUE(removal.changed.empty());
  EXPECT_TRUE(rows().empty());
}

// --- Releasing ---------------------------------------------------------------------------------

TEST_F(Shortcuts, AreReleasedAsTheyAreRemoved) {
  create(entry("ours"));
  create(entry("edited"));
  create(entry("gone"));
  place_.write(entry("edited"), "changed");
  std::filesystem::remove(entry("gone"));
  const ShortcutRemoval release = release_owned_native_shortcuts(place_.data());
  EXPECT_EQ(release.removed, (std::vector<std::filesystem::path>{entry("ours")}));
  EXPECT_EQ(release.changed, (std::vector<std::filesystem::path>{entry("edited")}));
  EXPECT_EQ(on_desktop(), (std::vector<std::string>{"edited.desktop"}));
  EXPECT_EQ(ledger(), ledger_document(Json::array()).dump());
}

TEST_F(Shortcuts, ThatCannotBeRemovedAreToldOfByEveryRelease) {
  std::filesystem::create_directory(place_.home() / "closed");
  const std::filesystem::path kept = place_.home() / "closed/entry.desktop";
  create(entry("a"));
  create(kept);
  create(entry("b"));
  create(entry("edited"));
  place_.write(entry("edited"), "changed");
  {
    const testing::OrdinaryUser user(place_.root());
    const testing::WithMode closed(place_.home() / "closed", 0500);
    ShortcutRemoval release = release_owned_native_shortcuts(place_.data());
    EXPECT_EQ(release.removed, (std::vector<std::filesystem::path>{entry("a"), entry("b")}));
    EXPECT_EQ(release.changed, (std::vector<std::filesystem::path>{kept, entry("edited")}));
    EXPECT_EQ(on_desktop(), (std::vector<std::string>{"edited.desktop"}));
    EXPECT_EQ(ledger(), ledger_document(Json::array({row_of(kept)})).dump());
    release = release_owned_native_shortcuts(place_.data());
    EXPECT_TRUE(release.removed.empty());
    EXPECT_EQ(release.changed, (std::vector<std::filesystem::path>{kept}));
  }
  const testing::OrdinaryUser user(place_.root());
  const ShortcutRemoval release = release_owned_native_shortcuts(place_.data());
  EXPECT_EQ(release.removed, (std::vector<std::filesystem::path>{kept}));
  EXPECT_TRUE(release.changed.empty());
  EXPECT_TRUE(rows().empty());
}

TEST_F(Shortcuts, AreNotReleasedByALedgerThatCannotBeRead) {
  create(entry());
  place_.write_ledger("{");
  EXPECT_FAILURE(release_owned_native_shortcuts(place_.data()), "shortcut_ledger",
                 "Shortcut list is malformed: " + place_.ledger().native());
  EXPECT_EQ(on_desktop(), (std::vector<std::string>{"entry.desktop"}));
  EXPECT_EQ(ledger(), "{");
}

TEST_F(Shortcuts, HaveNothingToReleaseWithoutAnInstallation) {
  const ShortcutRemoval release = release_owned_native_shortcuts(place_.data());
  EXPECT_TRUE(release.removed.empty() && release.changed.empty());
  EXPECT_FALSE(std::filesystem::exists(place_.data() / "native"));
}

// --- Restoring ---------------------------------------------------------------------------------

TEST_F(Shortcuts, ThatAreMissingAreRestored) {
  create(entry("a"));
  create(entry("b"), "");
  const std::string before = ledger();
  const std::string content = place_.read(entry("b"));
  std::filesystem::remove(entry("b"));
  EXPECT_EQ(restore(), (std::vector<std::filesystem::path>{entry("b")}));
  EXPECT_EQ(place_.read(entry("b")), content);
  EXPECT_EQ(ledger(), before);
  EXPECT_TRUE(restore().empty());
}

TEST_F(Shortcuts, AreRestoredForTheBootstrapAsItIsNow) {
  create(entry());
  std::filesystem::remove(entry());
  const std::filesystem::path bootstrap = place_.write(place_.data() / "new/bin/ravok-bootstrap", "");
  restore_owned_native_shortcuts(place_.data(), bootstrap);
  EXPECT_NE(place_.read(entry()).find(bootstrap.native()), std::string::npos);
  EXPECT_EQ(rows().at(0).sha256, digest(place_.read(entry()), "sha256"));
  EXPECT_EQ(remove().removed, (std::vector<std::filesystem::path>{entry()}));
}

// Only the former row tells what is the client's own of it.
TEST_F(Shortcuts, AreMadeWithAnotherTextWithoutWhatAFormerMakingHasLeft) {
  const std::string ending = "." + std::string(32, '1') + ".tmp";
  const std::filesystem::path bootstrap = place_.write(place_.data() / "new/bin/ravok-bootstrap", "");
  DesktopShortcut moved = place_.shortcut();
  moved.bootstrap = bootstrap;
  const std::vector<std::function<void()>> makings = {[&] { restore_owned_native_shortcuts(place_.data(), bootstrap); },
                                                      [&] { create_owned_native_shortcut(moved, entry()); }};
  for (const auto& make : makings) {
    create(entry());
    std::filesystem::rename(entry(), entry().native() + ending);
    make();
    EXPECT_EQ(on_desktop(), (std::vector<std::string>{"entry.desktop"}));
    EXPECT_EQ(remove().removed, (std::vector<std::filesystem::path>{entry()}));
  }
}

TEST_F(Shortcuts, ThatTheUserChangedAreNotRestoredAndKeepTheirRow) {
  create(entry("edited"));
  create(entry("linked"));
  const std::string before = ledger();
  place_.write(entry("edited"), "changed");
  std::filesystem::remove(entry("linked"));
  std::filesystem::create_symlink("nowhere", entry("linked"));
  EXPECT_TRUE(restore().empty());
  EXPECT_EQ(place_.read(entry("edited")), "changed");
  EXPECT_EQ(std::filesystem::read_symlink(entry("linked")), "nowhere");
  EXPECT_EQ(ledger(), before);
}

TEST_F(Shortcuts, WriteALedgerAlsoWhenNothingIsRestored) {
  EXPECT_TRUE(restore().empty());
  EXPECT_EQ(ledger(), ledger_document(Json::array()).dump());
}

TEST_F(Shortcuts, ThatAreRestoredBeforeOneThatCannotBeAreStillTheClientsOwn) {
  create(entry());
  const std::filesystem::path folder = place_.home() / "folder";
  std::filesystem::create_directory(folder);
  create(folder / "gone.desktop");
  std::filesystem::remove(entry());
  std::filesystem::remove_all(folder);
  const std::filesystem::path bootstrap = place_.write(place_.data() / "new/bin/ravok-bootstrap", "");
  EXPECT_FAILURE(restore_owned_native_shortcuts(place_.data(), bootstrap), "shortcut_path",
                 "Custom shortcut destinations require an existing parent directory");
  EXPECT_EQ(rows().at(0).sha256, digest(place_.read(entry()), "sha256"));
  const ShortcutRemoval removal = remove();
  EXPECT_EQ(removal.removed, (std::vector<std::filesystem::path>{entry()}));
  EXPECT_TRUE(removal.changed.empty());
}

TEST_F(Shortcuts, AreNotRestoredInAFolderThatIsGone) {
  const std::filesystem::path gone = place_.home() / "missing/a.desktop";
  record(Json::array({ledger_entry(gone)}));
  const std::string before = ledger();
  EXPECT_FAILURE(restore(), "shortcut_path", "Custom shortcut destinations require an existing parent directory");
  EXPECT_FALSE(std::filesystem::exists(gone.parent_path()));
  EXPECT_EQ(ledger(), before);
}

TEST_F(Shortcuts, AreNotRestoredThroughALink) {
  testing::make_users_link(place_.desktop(), place_.home() / "link");
  record(Json::array({ledger_entry(place_.home() / "link/a.desktop")}));
  const std::string before = ledger();
  EXPECT_FAILURE(restore(), "shortcut_path", link_in_path);
  EXPECT_TRUE(on_desktop().empty());
  EXPECT_EQ(ledger(), before);
}

// --- One after the other -----------------------------------------------------------------------

// Eight processes begin at once and ask 250 times each: for shortcuts that all of them want, and for some of their own.
TEST_F(Shortcuts, AreMadeOnceHoweverManyProcessesAsk) {
  constexpr int processes = 8;
  constexpr int calls = 250;
  std::array<int, 2> start = {};
  ASSERT_EQ(pipe(start.data()), 0);
  std::vector<pid_t> children;
  for (int process = 0; process < processes; ++process) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      close(start[1]);
      char end = 0;
      static_cast<void>(!read(start[0], &end, 1));
      std::string told;
      for (int call = 0; call < calls; ++call) {
        const std::string name = call % 100 == 99 ? "own-" + std::to_string(process) + "-" + std::to_string(call)
                                                  : "shared-" + std::to_string(call % 20);
        std::string answer;
        try {
          answer = create(entry(name)).at("created") == true ? "made" : "there";
        } catch (const Error& error) {
          answer = error.code + ": " + error.what();
        }
        told += name + " " + answer + "\n";
      }
      std::ofstream(place_.base() / ("told-" + std::to_string(process))) << told;
      _exit(0);
    }
    children.push_back(child);
  }
  close(start[0]);
  close(start[1]);
  for (const pid_t child : children) {
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }
  std::map<std::string, int> made;
  int answers = 0;
  for (int process = 0; process < processes; ++process) {
    std::ifstream told(place_.base() / ("told-" + std::to_string(process)));
    std::string name;
    std::string answer;
    while (told >> name && std::getline(told >> std::ws, answer)) {
      ++answers;
      EXPECT_TRUE(answer == "made" || answer == "there") << name << " " << answer;
      made[name] += answer == "made" ? 1 : 0;
    }
  }
  EXPECT_EQ(answers, processes * calls);
  for (const auto& [name, times] : made) {
    EXPECT_EQ(times, 1) << name;
  }
  EXPECT_EQ(made.size(), 20u + 2 * processes);
  EXPECT_EQ(rows().size(), made.size());
  EXPECT_EQ(on_desktop().size(), made.size());
  EXPECT_EQ(remove().removed.size(), made.size());
}

TEST_F(Shortcuts, WaitForWhoeverHoldsTheirLedger) {
  create(entry());
  std::optional<FileLock> held(std::in_place, place_.data() / "native/shortcuts.lock", true, LockMode::exclusive);
  const testing::WhenLocked when_locked([&] {
    EXPECT_TRUE(std::filesystem::exists(entry()));
    held.reset();
  });
  remove();
  EXPECT_EQ(when_locked.count(), 1u);
  EXPECT_FALSE(std::filesystem::exists(entry()));
}

}  // namespace
}  // namespace ravok::shortcuts_test
