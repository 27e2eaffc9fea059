#include "app/screen/setup_dialog.hpp"

#include <algorithm>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <optional>
#include <ostream>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "app/brand/brand.hpp"
#include "platform/file/native_lock.hpp"
#include "platform/file/status.hpp"
#include "support/clock_calls.hpp"
#include "support/dialog_user.hpp"
#include "support/failure.hpp"
#include "support/install_place.hpp"
#include "support/ordinary_user.hpp"
#include "support/screen_text.hpp"

namespace ravok::setup_dialog_test {
namespace {

using testing::DialogUser;
using testing::items_of;
using testing::problem_of;
using testing::text_of;

// What a screen shows, without how much room a volume has. Each letter presses one thing on it.
std::string shown(const Screen& screen) {
  std::set<char> letters;
  const auto take_letter = [&](const std::string& label) {
    const std::size_t at = label.find('&');
    ASSERT_NE(at, std::string::npos) << label;
    EXPECT_TRUE(letters.insert(static_cast<char>(label.at(at + 1) | 0x20)).second) << screen.id << ": " << label;
  };
  for (const ScreenAction& action : screen.actions) {
    take_letter(action.label);
  }
  for (const ScreenItem& item : screen.items) {
    if (const auto* const tick = std::get_if<ScreenTick>(&item)) {
      take_letter(tick->label);
    } else if (const auto* const field = std::get_if<ScreenField>(&item)) {
      take_letter(field->browse);
    }
  }
  return std::regex_replace(testing::whole_screen(screen),
                            std::regex("Needs [0-9.]+ [KMG]iB; [0-9.]+ [KMGT]iB are free\\."), "ROOM");
}

// Whether a screen has such a button, one beside a field too.
bool has_button(const Screen& screen, std::string_view id) {
  const bool has_field = items_of(screen).find("folder [") != std::string::npos;
  return (id == "browse" && has_field) || std::any_of(screen.actions.begin(), screen.actions.end(),
                                                      [&](const ScreenAction& action) { return action.id == id; });
}

// A program that was to be started.
struct Started {
  std::filesystem::path image;
  std::filesystem::path data_root;

  bool operator==(const Started&) const = default;
};

class SetupDialogTest : public ::testing::Test {
 protected:
  SetupDialogTest() {
    place.package.brand.reset();
    place.package.featured_game.reset();
    place.republish();
  }
  ~SetupDialogTest() override { set_product_name("Ravok"); }

  // Makes the package that of a brand, whose name the process has.
  void brand() {
    place.package.brand = {{"name", "Acme Games"}, {"id", "acme"}, {"publisher", "Acme"}};
    place.republish();
    set_product_name("Acme Games");
  }

  // What the screen of an installation offers that cannot be started.
  std::string repair_or_uninstall() const {
    return "folder [Folder|" + data() +
           "|Chan&ge…]\n"
           "repair_keeps muted: Repair makes Ravok whole again, and keeps the games, saves and settings that are still "
           "there.\n"
           "uninstall_keeps muted: Uninstall removes Ravok and its games, and keeps saves and settings unless you say "
           "otherwise.\n"
           "(repair &Repair!, uninstall &Uninstall!!, close &Close)";
  }

  SetupSubject installer() const {
    SetupSubject subject;
    subject.data_root = place.data();
    subject.package_seal = place.seal();
    subject.package = place.package_directory();
    subject.manifests = package_manifests(place.package_directory(), place.seal());
    subject.game = package_featured_game(place.package_directory(), place.seal());
    return subject;
  }
  SetupSubject maintenance() const {
    SetupSubject subject;
    subject.data_root = place.data();
    return subject;
  }
  // Starts nothing, and says what it should have started.
  StartProgram start() {
    return [this](const std::filesystem::path& image, const std::filesystem::path& data_root) {
      started.push_back({image, data_root});
    };
  }

  // Takes the lock of the record of menu entries, so that none can be made.
  std::optional<FileLock> lock_entries() const {
    place.write("native/shortcuts.json", "");
    std::filesystem::remove(place.paths().shortcut_ledger);
    return std::optional<FileLock>(std::in_place, place.paths().shortcut_lock, true, LockMode::exclusive);
  }

  std::string data() const { return place.data().native(); }
  Started the_client() const { return {place.paths().bootstrap_directory / "bin/ravok-bootstrap", place.data()}; }
  std::string choose_screen(const std::string& problem, const std::string& room, const std::string& notice = "") const {
    return "choose: Install Ravok\n"
           "about: Ravok build-1 will be installed for your user account.\n"
           "folder [Folder|" +
           data() + "|Chan&ge…]" + (problem.empty() ? "" : " " + problem) + "\n" + "room muted: " + room + "\n" +
           (notice.empty() ? "" : "notice warning: " + notice + "\n") +
           "(install &Install!, close &Close) first install";
  }
  std::string installed_screen(const std::string& notice = "") const {
    return "installed success: Ravok is installed\n"
           "status: Ravok is installed in " +
           data() +
           " (bootstrap build-1, launcher build-1).\n"
           "folder [Folder|" +
           data() +
           "|Chan&ge…]\n"
           "repair_keeps muted: Repair replaces damaged files, and keeps games, saves and settings.\n"
           "uninstall_keeps muted: Uninstall removes Ravok and its games, and keeps saves and settings unless you say "
           "otherwise.\n" +
           (notice.empty() ? "" : "notice warning: " + notice + "\n") +
           "(start &Start!, repair &Repair, uninstall &Uninstall!!, close &Close)";
  }
  std::string done_screen() const {
    return "done success: Ravok is installed\n"
           "summary: Installed Ravok in " +
           data() +
           ".\n"
           "entry muted: Menu entry: " +
           place.entry().native() +
           "\n"
           "(start &Start!, close &Close)";
  }

  // Presses every button that the screen does not have. Nothing happens.
  void expect_no_other_action(DialogUser& user) const {
    const Screen screen = user.dialog.screen();
    const std::string before = shown(screen);
    const int exit_code = user.dialog.exit_code();
    const testing::TreeState tree = testing::tree_state(place.root().path());
    for (const char* action : {"install", "repair", "start", "uninstall", "remove", "cancel", "retry", "back", "close",
                               "use", "browse", "", "nonsense", "folder", "remove_data"}) {
      if (!has_button(screen, action)) {
        user.dialog.press(action);
        EXPECT_EQ(shown(user.dialog.screen()), before) << action;
      }
    }
    for (const char* id : {"", "nonsense", "about", "remove_data", "install"}) {
      user.dialog.write(id, "/elsewhere");
    }
    for (const char* id : {"", "nonsense", "folder", "remove"}) {
      user.dialog.tick(id, true);
    }
    if (items_of(screen).find("folder [") == std::string::npos) {
      user.dialog.write("folder", "/elsewhere");
    }
    if (items_of(screen).find("remove_data [") == std::string::npos) {
      user.dialog.tick("remove_data", true);
    }
    EXPECT_EQ(shown(user.dialog.screen()), before);
    EXPECT_FALSE(user.dialog.closed());
    EXPECT_EQ(user.dialog.exit_code(), exit_code);
    EXPECT_TRUE(started.empty());
    EXPECT_TRUE(testing::same_tree(testing::tree_state(place.root().path()), tree));
  }
  // The button ends the dialog, with this exit code.
  static void expect_closes(DialogUser& user, std::string_view action, int exit_code) {
    EXPECT_FALSE(user.dialog.closed());
    user.dialog.press(action);
    EXPECT_TRUE(user.dialog.closed());
    EXPECT_EQ(user.dialog.exit_code(), exit_code);
  }

  testing::InstallPlace place;
  std::vector<Started> started;
};

// --- Where to install ---

TEST_F(SetupDialogTest, AsksWhereToInstall) {
  DialogUser user(installer(), start());
  EXPECT_EQ(shown(user.dialog.screen()), choose_screen("", "ROOM"));
  expect_no_other_action(user);
  expect_closes(user, "close", 0);
  EXPECT_TRUE(is_missing(place.data()));
}

TEST_F(SetupDialogTest, ClosesWithItsWindow) {
  DialogUser user(installer(), start());
  user.dialog.close();
  EXPECT_TRUE(user.dialog.closed());
  EXPECT_EQ(user.dialog.exit_code(), 0);
}

TEST_F(SetupDialogTest, NamesTheBrandItsPublisherAndItsGame) {
  place.package.featured_game = {{"id", "first-game"}, {"name", "The First Game"}};
  brand();
  SetupSubject subject = installer();
  subject.publisher = "Acme";
  DialogUser user(subject, start());
  const Screen screen = user.dialog.screen();
  EXPECT_EQ(screen.heading, "Install Acme Games");
  EXPECT_EQ(screen.title, "Install Acme Games");
  EXPECT_EQ(text_of(screen, "about"),
            "Acme Games build-1 by Acme will be installed for your user account. The First Game gets an entry of its "
            "own in the menu.");
}

TEST_F(SetupDialogTest, SaysTooLittleRoom) {
  SetupSubject subject = installer();
  subject.manifests->bootstrap.files.begin()->second.length = std::uint64_t{1} << 60;
  DialogUser user(subject, start());
  const std::string items = items_of(user.dialog.screen());
  EXPECT_TRUE(std::regex_search(
      items, std::regex("\nroom warning: Needs 1048576\\.0 TiB, but only [0-9.]+ [KMGT]iB are free\\.\n$")))
      << items;
}

TEST_F(SetupDialogTest, KeepsThePlaceOfTheRoomWhereItIsNotKnown) {
  SetupSubject subject = installer();
  subject.manifests.reset();
  DialogUser user(subject, start());
  EXPECT_EQ(shown(user.dialog.screen()),
            "choose: Install Ravok\n"
            "about: Ravok will be installed for your user account.\n"
            "folder [Folder|" +
                data() +
                "|Chan&ge…]\n"
                "room muted:  \n"
                "(install &Install!, close &Close) first install");
}

TEST_F(SetupDialogTest, FollowsTheFieldToAnotherFolder) {
  place.install();
  place.root().write("other/notes", "");
  SetupSubject subject = installer();
  subject.data_root = place.root() / "new";
  DialogUser user(subject, start());
  EXPECT_EQ(user.dialog.screen().id, "choose");
  user.dialog.write("folder", (place.root() / "other").native());
  Screen screen = user.until([](const Screen& now) { return !problem_of(now).empty(); });
  EXPECT_EQ(problem_of(screen), "Choose an empty folder or an earlier Ravok data folder");
  EXPECT_EQ(text_of(screen, "room"), " ");
  user.dialog.write("folder", data());
  EXPECT_EQ(shown(user.until("installed")), installed_screen());
  // What is known of one folder offers nothing for another.
  user.dialog.write("folder", (place.root() / "new").native());
  EXPECT_EQ(user.dialog.screen().id, "choose");
  EXPECT_EQ(problem_of(user.dialog.screen()), "");
}

TEST_F(SetupDialogTest, ShowsEveryRefusalBesideTheField) {
  DialogUser user(installer(), start());
  for (const auto& [text, problem] : std::vector<std::pair<std::string, std::string>>{
           {"", "Choose a data folder"},
           {"/", "The data folder cannot be a filesystem root"},
           {data() + "/", "The data folder cannot be a filesystem root"},
           {std::string("/a\0b", 4), "Native path contains a NUL byte"},
           {data() + "\xff", "The path of the data folder must be valid UTF-8"},
           {place.package_directory().native(), "The package and data folders overlap"}}) {
    user.dialog.write("folder", text);
    const Screen screen = user.until([](const Screen& now) { return !problem_of(now).empty(); });
    EXPECT_EQ(screen.id, "choose");
    EXPECT_EQ(problem_of(screen), problem);
    // The button says the same.
    EXPECT_EQ(problem_of(user.press("install")), problem);
    EXPECT_EQ(user.dialog.exit_code(), 1);
  }
  EXPECT_TRUE(is_missing(place.data()));
  user.dialog.write("folder", data());
  EXPECT_EQ(problem_of(user.dialog.screen()), "");
  EXPECT_EQ(user.press("install").id, "done");
  EXPECT_EQ(user.dialog.exit_code(), 0);
}

TEST_F(SetupDialogTest, ShowsARefusalOfTheCommandUntilTheFolderIsAnother) {
  DialogUser user(installer(), start());
  place.root().write("data/notes", "");
  const std::string problem = "Choose an empty folder or an earlier Ravok data folder";
  user.press("install");
  const Screen screen = user.until([](const Screen& now) { return text_of(now, "room") == " "; });
  EXPECT_EQ(shown(screen), choose_screen(problem, " "));
  EXPECT_EQ(user.dialog.exit_code(), 1);
  expect_no_other_action(user);
  user.dialog.write("folder", (place.root() / "new").native());
  EXPECT_EQ(problem_of(user.dialog.screen()), "");
  std::filesystem::remove(place.data() / "notes");
  user.dialog.write("folder", data());
  user.until([](const Screen& now) { return problem_of(now).empty(); });
  EXPECT_EQ(user.press("install").id, "done");
}

TEST_F(SetupDialogTest, FindsAnInstallationThatWasMadeMeanwhile) {
  DialogUser user(installer(), start());
  place.install();
  user.dialog.press("install");
  const Screen screen = user.until("installed");
  EXPECT_EQ(problem_of(screen), "Ravok is already installed in " + data() + "; use repair");
  EXPECT_EQ(user.press("repair").id, "done");
}

TEST_F(SetupDialogTest, LooksForAFolder) {
  place.root().write("games/file", "");
  const std::filesystem::path real = std::filesystem::canonical(place.root().path());
  DialogUser user(installer(), start());
  user.dialog.write("folder", (place.root() / "games").native());
  user.dialog.press("browse");
  Screen screen = user.until([](const Screen& now) { return text_of(now, "where").ends_with("/games"); });
  user.until([](const Screen& now) { return items_of(now).ends_with("folders:\n  ..\n"); });
  EXPECT_EQ(screen.id, "folders");
  expect_no_other_action(user);
  user.dialog.press("use");
  EXPECT_EQ(user.dialog.screen().id, "choose");
  EXPECT_TRUE(items_of(user.dialog.screen()).find("|" + (real / "games/Ravok").native() + "|") != std::string::npos);
  EXPECT_EQ(user.press("install").id, "done");
  EXPECT_TRUE(std::filesystem::exists(real / "games/Ravok/native"));
}

TEST_F(SetupDialogTest, LeavesTheFieldAsItWasAfterALook) {
  for (const std::string& text : {data(), std::string(), std::string("/a\0b", 4), std::string(5000, 'x')}) {
    DialogUser user(installer(), start());
    user.dialog.write("folder", text);
    user.dialog.press("browse");
    EXPECT_EQ(user.dialog.screen().id, "folders");
    user.until([](const Screen& now) { return items_of(now).find("folders:\n  ..") != std::string::npos; });
    user.dialog.press("back");
    const Screen screen = user.dialog.screen();
    EXPECT_EQ(screen.id, "choose");
    EXPECT_EQ(std::get<ScreenField>(screen.items.at(1)).text, text);
  }
}

// --- An installation ---

TEST_F(SetupDialogTest, Installs) {
  DialogUser user(installer(), start());
  EXPECT_EQ(shown(user.press("install")), done_screen());
  EXPECT_EQ(NativeInstaller::status(place.data()).installed, true);
  EXPECT_FALSE(is_missing(place.entry()));
  expect_no_other_action(user);
  expect_closes(user, "close", 0);
}

TEST_F(SetupDialogTest, ShowsHowFarAnInstallationIs) {
  DialogUser user(installer(), start());
  user.press_and_hold("install");
  EXPECT_EQ(shown(user.dialog.screen()),
            "working busy: Installing Ravok\n"
            "progress 0/0: Verifying…\n"
            "(cancel &Cancel) escape cancel");
  expect_no_other_action(user);
  std::set<std::string> lines;
  while (user.dialog.screen().busy) {
    const auto progress = std::get<ScreenProgress>(user.dialog.screen().items.at(0));
    EXPECT_LE(progress.done, progress.total);
    lines.insert(std::regex_replace(progress.text, std::regex("[0-9.]+ (bytes|KiB)"), "N"));
    user.step();
  }
  user.release();
  EXPECT_EQ(lines, (std::set<std::string>{"Verifying…", "Verifying… N of N", "Installing… N of N"}));
  EXPECT_EQ(shown(user.dialog.screen()), done_screen());
}

TEST_F(SetupDialogTest, StartsTheClientAndCloses) {
  DialogUser user(installer(), start());
  user.press("install");
  expect_closes(user, "start", 0);
  EXPECT_EQ(started, std::vector<Started>{the_client()});
}

TEST_F(SetupDialogTest, TellsOfAStartThatFailsAndStays) {
  bool fails = true;
  DialogUser user(installer(), [&](const std::filesystem::path&, const std::filesystem::path&) {
    require(!fails, "process_start", "Cannot start \x1b");
  });
  user.press("install");
  const std::string before = done_screen();
  EXPECT_EQ(shown(user.press("start")),
            std::string(before).insert(before.find("(start"), "notice warning: Cannot start \\x1b.\n"));
  EXPECT_FALSE(user.dialog.closed());
  EXPECT_EQ(user.dialog.exit_code(), 1);
  fails = false;
  expect_closes(user, "start", 0);
}

TEST_F(SetupDialogTest, TellsOfAProgramThatIsNotThere) {
  DialogUser user(installer());
  user.press("install");
  std::filesystem::remove_all(place.paths().bootstrap_directory);
  EXPECT_NE(text_of(user.press("start"), "notice"), "");
  EXPECT_FALSE(user.dialog.closed());
  std::filesystem::remove(place.paths().bootstrap_manifest);
  EXPECT_NE(text_of(user.press("start"), "notice"), "");
  EXPECT_FALSE(user.dialog.closed());
  expect_closes(user, "close", 1);
}

TEST_F(SetupDialogTest, ReallyStartsTheClient) {
  const std::filesystem::path pipe = place.root() / "pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  DialogUser user(installer());
  user.press("install");
  std::ofstream(the_client().image) << "#!/bin/sh\necho \"$PWD $*\" > '" << pipe.native() << "'\n";
  expect_closes(user, "start", 0);
  std::string line;
  std::ifstream told(pipe);
  std::getline(told, line);
  EXPECT_EQ(line, the_client().image.parent_path().native() + " --data-dir " + data());
}

TEST_F(SetupDialogTest, TellsThatThereIsNoEntryInTheMenu) {
  DialogUser user(installer(), start());
  std::filesystem::create_directories(place.home() / ".local/share");
  place.root().write("home/.local/share/applications", "a file has the place of the menu");
  const Screen screen = user.press("install");
  EXPECT_EQ(screen.id, "done");
  EXPECT_TRUE(
      text_of(screen, "summary").starts_with("Installed Ravok in " + data() + ". The shortcut could not be created: "))
      << text_of(screen, "summary");
  EXPECT_EQ(text_of(screen, "entry"), "");
  EXPECT_EQ(user.dialog.exit_code(), 0);
}

TEST_F(SetupDialogTest, CancelsAnInstallationAndLeavesNothing) {
  DialogUser user(installer(), start());
  user.press_and_hold("install");
  user.dialog.press("cancel");
  EXPECT_EQ(shown(user.dialog.screen()),
            "working busy: Installing Ravok\n"
            "progress 0/0: Verifying…\n"
            "stopping muted: Stopping at the next safe point…\n"
            "()");
  expect_no_other_action(user);
  user.release();
  EXPECT_EQ(shown(user.until_idle()), choose_screen("", "ROOM", "Setup was cancelled."));
  EXPECT_TRUE(is_missing(place.data()));
  EXPECT_EQ(user.dialog.exit_code(), 4);
  expect_no_other_action(user);
  // The next one goes through.
  EXPECT_EQ(shown(user.press("install")), done_screen());
  EXPECT_EQ(user.dialog.exit_code(), 0);
}

TEST_F(SetupDialogTest, ForgetsWhatItToldOnceTheFolderIsAnother) {
  DialogUser user(installer(), start());
  user.press_and_hold("install");
  user.dialog.press("cancel");
  user.release();
  EXPECT_EQ(text_of(user.until_idle(), "notice"), "Setup was cancelled.");
  user.dialog.write("folder", data());
  EXPECT_EQ(text_of(user.dialog.screen(), "notice"), "Setup was cancelled.");
  user.dialog.write("folder", data() + "-2");
  EXPECT_EQ(text_of(user.dialog.screen(), "notice"), "");
}

// --- Its end ---

TEST_F(SetupDialogTest, ClosesOnceTheCommandHasStopped) {
  DialogUser user(installer(), start());
  user.press_and_hold("install");
  user.dialog.close();
  EXPECT_FALSE(user.dialog.closed());
  EXPECT_EQ(text_of(user.dialog.screen(), "stopping"), "Stopping at the next safe point…");
  expect_no_other_action(user);
  user.dialog.close();
  EXPECT_FALSE(user.dialog.closed());
  user.release();
  user.until_idle();
  EXPECT_TRUE(user.dialog.closed());
  EXPECT_EQ(user.dialog.exit_code(), 4);
  EXPECT_TRUE(is_missing(place.data()));
}

TEST_F(SetupDialogTest, ClosesWithSuccessWhereTheCommandCouldNotStopAnyMore) {
  DialogUser user(installer(), start());
  user.press_and_hold("install");
  while (user.dialog.screen().busy && NativeInstaller::status(place.data()).installed == false) {
    user.step();
  }
  user.dialog.close();
  user.release();
  user.until_idle();
  EXPECT_TRUE(user.dialog.closed());
  EXPECT_EQ(user.dialog.exit_code(), 0);
  EXPECT_TRUE(NativeInstaller::status(place.data()).installed);
}

TEST_F(SetupDialogTest, ClosesAfterAFailureToo) {
  DialogUser user(installer(), start());
  // The last file that is verified.
  std::ofstream(place.package_directory() / "ca.pem", std::ios::app) << 'x';
  user.press_and_hold("install");
  user.dialog.close();
  user.release();
  user.until_idle();
  EXPECT_TRUE(user.dialog.closed());
  EXPECT_NE(user.dialog.exit_code(), 0);
}

TEST_F(SetupDialogTest, StopsTheCommandWhenItIsDropped) {
  {
    DialogUser user(installer(), start());
    user.press_and_hold("install");
    user.dialog.press("cancel");
  }
  EXPECT_TRUE(is_missing(place.data()));
}

TEST_F(SetupDialogTest, ServesAWindow) {
  std::mutex mutex;
  std::condition_variable changed;
  int wakes = 0;
  SetupDialog dialog(installer(), start());
  const ScreenDialog window = dialog.for_window();
  window.set_wakeup([&] {
    const std::lock_guard lock(mutex);
    ++wakes;
    changed.notify_all();
  });
  const auto wait_until = [&](const std::string& id) {
    while (window.screen().id != id) {
      std::unique_lock lock(mutex);
      changed.wait(lock, [&] { return wakes != 0; });
      wakes = 0;
    }
  };
  window.press("browse");
  while (items_of(window.screen()).find("  ..\n") == std::string::npos) {
    std::unique_lock lock(mutex);
    changed.wait(lock, [&] { return wakes != 0; });
    wakes = 0;
  }
  window.choose("folders", 0);
  EXPECT_NE(items_of(window.screen()).find("folders 0:"), std::string::npos);
  window.open("folders", 0);
  window.press("back");
  window.write("folder", (place.root() / "other").native());
  window.press("install");
  wait_until("done");
  window.press("start");
  EXPECT_TRUE(window.closed());
  EXPECT_EQ(started.size(), 1u);
  EXPECT_EQ(started.at(0).data_root, place.root() / "other");

  SetupDialog removal(maintenance());
  const ScreenDialog other = removal.for_window();
  other.tick("remove_data", true);
  EXPECT_TRUE(std::get<ScreenTick>(other.screen().items.at(2)).checked);
  other.close();
  EXPECT_TRUE(other.closed());
}

// --- Failures ---

TEST_F(SetupDialogTest, TellsOfAFailureAndTriesAgain) {
  DialogUser user(installer(), start());
  const std::filesystem::path file = place.package_directory() / "ca.pem";
  std::filesystem::rename(file, place.root() / "ca.pem");
  EXPECT_EQ(shown(user.press("install")),
            "failed: Ravok could not be installed\n"
            "problem warning: Cannot open file: " +
                file.native() +
                ".\n"
                "advice: Look whether the disk is in order, or get the installer again.\n"
                "kept muted: Your saves and settings were not touched. What was begun has been removed, or is finished "
                "when you try again.\n"
                "(retry &Try again!, back &Back, close &Close) escape back");
  EXPECT_EQ(user.dialog.exit_code(), 1);
  EXPECT_TRUE(is_missing(place.data()));
  expect_no_other_action(user);
  EXPECT_EQ(user.press("retry").id, "failed");
  EXPECT_EQ(shown(user.press("back")), choose_screen("", "ROOM"));
  EXPECT_EQ(user.press("install").id, "failed");
  std::filesystem::rename(place.root() / "ca.pem", file);
  EXPECT_EQ(shown(user.press("retry")), done_screen());
  EXPECT_EQ(user.dialog.exit_code(), 0);
}

TEST_F(SetupDialogTest, ClosesAfterAFailure) {
  DialogUser user(installer(), start());
  std::filesystem::remove(place.package_directory() / "ca.pem");
  user.press("install");
  expect_closes(user, "close", 1);
}

TEST_F(SetupDialogTest, SaysWhyNothingCanBeInstalled) {
  SetupSubject subject = installer();
  subject.problem = "It is \x9f damaged";
  subject.problem_code = "content_mismatch";
  DialogUser user(subject, start());
  EXPECT_EQ(shown(user.dialog.screen()),
            "broken: Ravok cannot be installed\n"
            "problem warning: It is \\x9f damaged.\n"
            "advice: This installer is damaged or incomplete. Get it again.\n"
            "(close &Close!)");
  expect_no_other_action(user);
  expect_closes(user, "close", 1);
}

TEST_F(SetupDialogTest, AdvisesOnlyWhatHelps) {
  SetupSubject subject;
  subject.data_root = place.data();
  subject.problem = "HOME is not set.";
  subject.problem_code = "user_path";
  DialogUser user(subject, start());
  EXPECT_EQ(items_of(user.dialog.screen()), "problem warning: HOME is not set.\n");

  subject.problem = installer_damaged;
  subject.problem_code = "content_mismatch";
  DialogUser other(subject, start());
  EXPECT_EQ(items_of(other.dialog.screen()), "problem warning: This installer was damaged; get it again.\n");
}

// A package that cannot be installed, and what a player is told to do about it.
struct Refusal {
  std::string name;
  std::function<void(testing::InitialPackage&)> spoil;  // before it is sealed
  std::string problem;
  std::string advice;
};

void PrintTo(const Refusal& refusal, std::ostream* out) { *out << refusal.name; }

const std::string get_again = "This installer is damaged or incomplete. Get it again.";

const std::vector<Refusal>& refusals() {
  static const std::vector<Refusal> all = {
      {"Archive", [](auto& package) { package.set_bootstrap_archive("no archive"); },
       "Snapshot must contain exactly one ordinary Zstandard frame.", get_again},
      {"Theme",
       [](auto& package) {
         package.brand = {{"name", "Acme"}, {"id", "acme"}, {"publisher", "Acme"}};
         package.theme = Json::object();
         package.theme_files.clear();
       },
       "Theme definition is malformed.", get_again},
      {"Signature", [](auto& package) { package.root = testing::signed_document(package.root_body, {}); },
       "Metadata does not meet its authorized signature threshold.", get_again},
      {"Manifest", [](auto& package) { package.bootstrap.erase("files"); },
       "Snapshot manifest has missing or malformed fields.", get_again},
      {"Age",
       [](auto& package) {
         package.root_body["expires"] = "2001-01-01T00:00:00Z";
         package.sign_root();
       },
       "The initial package's TUF root has expired.",
       "This installer is too old, or the clock of this computer is wrong. Set the clock right, or get a newer "
       "installer."},
      {"Platform", [](auto& package) { package.bootstrap["platform"] = "macos-aarch64"; },
       "Package images are for another platform.",
       "This installer is for another kind of computer. Get the one for yours."},
  };
  return all;
}

class SetupDialogRefusal : public SetupDialogTest, public ::testing::WithParamInterface<Refusal> {};

TEST_P(SetupDialogRefusal, IsToldWithWhatToDo) {
  GetParam().spoil(place.package);
  place.republish();
  SetupSubject subject;
  subject.data_root = place.data();
  subject.package_seal = place.seal();
  subject.package = place.package_directory();
  DialogUser user(subject, start());
  const Screen screen = user.press("install");
  EXPECT_EQ(screen.id, "failed");
  EXPECT_EQ(text_of(screen, "problem"), GetParam().problem);
  EXPECT_EQ(text_of(screen, "advice"), GetParam().advice);
  EXPECT_EQ(user.dialog.exit_code(), 1);
  EXPECT_TRUE(is_missing(place.data()));
}

INSTANTIATE_TEST_SUITE_P(Packages, SetupDialogRefusal, ::testing::ValuesIn(refusals()),
                         [](const auto& refusal) { return refusal.param.name; });

TEST_F(SetupDialogTest, AdvisesForAnotherPackage) {
  DialogUser user(installer(), start());
  std::ofstream(place.package_directory() / "initial-package.json", std::ios::app) << ' ';
  const Screen screen = user.press("install");
  EXPECT_EQ(text_of(screen, "problem"), "This package is not the one this installer was built for.");
  EXPECT_EQ(text_of(screen, "advice"), get_again);
}

TEST_F(SetupDialogTest, AdvisesForAResourceThatIsTooLarge) {
  Json descriptor = place.package.descriptor();
  descriptor["root"]["length"] = 0;
  SetupSubject subject = maintenance();
  subject.package = place.package_directory();
  subject.package_seal = testing::write_descriptor(place.package_directory(), descriptor.dump());
  DialogUser user(subject, start());
  const Screen screen = user.press("install");
  EXPECT_EQ(text_of(screen, "problem"), "Initial package resource exceeds its size limit.");
  EXPECT_EQ(text_of(screen, "advice"), get_again);
}

TEST_F(SetupDialogTest, AdvisesForADescriptorThatIsNoJson) {
  SetupSubject subject = maintenance();
  subject.package = place.package_directory();
  subject.package_seal = testing::write_descriptor(place.package_directory(), "{");
  DialogUser user(subject, start());
  const Screen screen = user.press("install");
  EXPECT_EQ(screen.id, "failed");
  EXPECT_EQ(text_of(screen, "advice"), get_again);
}

TEST_F(SetupDialogTest, AdvisesToWaitForAnotherSetup) {
  place.install();
  DialogUser user(installer(), start());
  const NativeFileLock other(place.paths().setup_lock, true, NativeLockSharing::others, LockMode::exclusive);
  const Screen screen = user.press("repair");
  EXPECT_EQ(text_of(screen, "problem"), "Another worker owns this native installation.");
  EXPECT_EQ(text_of(screen, "advice"), "Wait until the other setup has ended, and try again.");
}

TEST_F(SetupDialogTest, AdvisesForAnInstallationOfALaterVersion) {
  place.install();
  DialogUser user(installer(), start());
  place.write("native/installation.json", "{\"schema_version\":2,\"kind\":\"ravok-installation\"}");
  const Screen screen = user.press("repair");
  EXPECT_EQ(text_of(screen, "problem"),
            "Unsupported installation record " + place.paths().installation_record.native() + ".");
  EXPECT_EQ(text_of(screen, "advice"), "A newer version may have made this installation. Get a newer installer.");
  user.dialog.press("back");
  EXPECT_EQ(problem_of(user.until("choose")),
            "Unsupported installation record " + place.paths().installation_record.native());
}

TEST_F(SetupDialogTest, AdvisesForAFolderThatMayNotBeWritten) {
  DialogUser user(installer(), start());
  const testing::OrdinaryUser ordinary(place.root());
  const testing::WithMode closed(place.root().path(), 0500);
  const Screen screen = user.press("install");
  EXPECT_EQ(screen.id, "failed");
  EXPECT_EQ(text_of(screen, "problem"), "Cannot reserve a new Linux private directory.");
  EXPECT_EQ(text_of(screen, "advice"), "Look whether the disk is in order, and whether you may write to the folder.");
}

// --- A game of its own ---

TEST_F(SetupDialogTest, GivesAFeaturedGameAnEntryBesideTheClients) {
  place.package.featured_game = {{"id", "first-game"}, {"name", "The First Game"}};
  place.republish();
  DialogUser user(installer(), start());
  const std::filesystem::path entry = native_menu_entry(place.data(), "first-game", "");
  EXPECT_EQ(items_of(user.press("install")), "summary: Installed Ravok in " + data() +
                                                 ".\n"
                                                 "entry muted: Menu entry: " +
                                                 place.entry().native() +
                                                 "\n"
                                                 "entry muted: Menu entry: " +
                                                 entry.native() + "\n");
  EXPECT_NE(place.root().read(entry.lexically_relative(place.root().path()).native()).find("Name=The First Game\n"),
            std::string::npos);
}

TEST_F(SetupDialogTest, GivesTheGameOfABrandTheOnlyEntry) {
  place.package.featured_game = {{"id", "first-game"}, {"name", "The First Game"}};
  brand();
  DialogUser user(installer(), start());
  const std::filesystem::path entry = native_menu_entry(place.data(), "first-game", "");
  EXPECT_EQ(shown(user.press("install")),
            "done success: Acme Games is installed\n"
            "summary: Installed Acme Games in " +
                data() +
                ".\n"
                "entry muted: Menu entry: " +
                entry.native() +
                "\n"
                "(start &Start!, close &Close)");
  EXPECT_TRUE(is_missing(place.entry()));
  EXPECT_FALSE(is_missing(entry));
}

TEST_F(SetupDialogTest, TellsOfAGameThatGotNoEntry) {
  place.package.featured_game = {{"id", "first-game"}, {"name", "The First Game"}};
  place.republish();
  DialogUser user(installer(), start());
  const std::filesystem::path entry = native_menu_entry(place.data(), "first-game", "");
  std::filesystem::create_directories(entry.parent_path());
  std::ofstream(entry) << "of somebody else";
  const Screen screen = user.press("install");
  EXPECT_EQ(screen.id, "done");
  EXPECT_EQ(text_of(screen, "summary"), "Installed Ravok in " + data() + ".");
  EXPECT_EQ(text_of(screen, "entry"), "Menu entry: " + place.entry().native());
  const std::string problem = text_of(screen, "entry_problem");
  EXPECT_TRUE(problem.starts_with("The First Game got no entry of its own in the menu: ")) << problem;
  EXPECT_TRUE(problem.ends_with(".")) << problem;
  EXPECT_EQ(user.dialog.exit_code(), 0);
  std::string content;
  std::getline(std::ifstream(entry), content);
  EXPECT_EQ(content, "of somebody else");
}

// The window may be gone when the installation is done, with its display or with the process.
TEST_F(SetupDialogTest, GivesTheGameItsEntryWhoeverStillLooksAtIt) {
  place.package.featured_game = {{"id", "first-game"}, {"name", "The First Game"}};
  brand();
  const std::filesystem::path entry = native_menu_entry(place.data(), "first-game", "");
  {
    DialogUser user(installer(), start());
    user.press_and_hold("install");
    while (is_missing(place.data()) || !NativeInstaller::status(place.data()).installed) {
      user.step();
    }
  }
  EXPECT_FALSE(is_missing(entry));
}

TEST_F(SetupDialogTest, GivesTheGameItsEntryWhenItRepairsAnInstallationWithoutAny) {
  place.package.featured_game = {{"id", "first-game"}, {"name", "The First Game"}};
  brand();
  place.install(true);
  const std::filesystem::path entry = native_menu_entry(place.data(), "first-game", "");
  ASSERT_TRUE(is_missing(entry));
  DialogUser user(installer(), start());
  EXPECT_EQ(items_of(user.press("repair")), "summary: Repaired Acme Games in " + data() +
                                                ". Everything was already intact.\n"
                                                "entry muted: Menu entry: " +
                                                entry.native() + "\n");
  EXPECT_FALSE(is_missing(entry));
}

TEST_F(SetupDialogTest, ClosesOnceTheGameHasItsEntry) {
  place.package.featured_game = {{"id", "first-game"}, {"name", "The First Game"}};
  brand();
  DialogUser user(installer(), start());
  std::optional<FileLock> entries = lock_entries();
  user.dialog.press("install");
  Screen screen = user.until([](const Screen& now) {
    const auto* const progress = std::get_if<ScreenProgress>(&now.items.at(0));
    return progress == nullptr || progress->text == "Making the menu entry…";
  });
  EXPECT_EQ(shown(screen),
            "working busy: Installing Acme Games\n"
            "progress 0/0: Making the menu entry…\n"
            "()");
  expect_no_other_action(user);
  user.dialog.close();
  EXPECT_FALSE(user.dialog.closed());
  entries.reset();
  user.until_idle();
  EXPECT_TRUE(user.dialog.closed());
  EXPECT_EQ(user.dialog.exit_code(), 0);
  EXPECT_FALSE(is_missing(native_menu_entry(place.data(), "first-game", "")));
}

TEST_F(SetupDialogTest, StaysOpenFromTheInstallationToTheEntryOfTheGame) {
  place.package.featured_game = {{"id", "first-game"}, {"name", "The First Game"}};
  place.republish();
  DialogUser user(installer(), start());
  std::optional<FileLock> entries = lock_entries();
  user.dialog.press("install");
  // All is installed but for the client's entry, and nothing stops the command any more.
  while (is_missing(place.paths().installation_record) || !is_missing(place.paths().incomplete_marker)) {
    std::this_thread::yield();
  }
  user.dialog.close();
  EXPECT_FALSE(user.dialog.closed());
  entries.reset();
  user.until([&](const Screen& screen) {
    EXPECT_NE(user.dialog.closed(), screen.busy);
    return !screen.busy;
  });
  EXPECT_EQ(user.dialog.exit_code(), 0);
  EXPECT_FALSE(is_missing(place.entry()));
  EXPECT_FALSE(is_missing(native_menu_entry(place.data(), "first-game", "")));
}

// --- What is there already ---

TEST_F(SetupDialogTest, ShowsAnInstallation) {
  place.install();
  DialogUser user(installer(), start());
  EXPECT_EQ(shown(user.dialog.screen()), installed_screen());
  expect_no_other_action(user);
  expect_closes(user, "start", 0);
  EXPECT_EQ(started, std::vector<Started>{the_client()});
}

TEST_F(SetupDialogTest, LeavesAnInstallationAsItIs) {
  place.install();
  const testing::TreeState before = place.state();
  DialogUser user(installer(), start());
  expect_closes(user, "close", 0);
  EXPECT_TRUE(testing::same_tree(place.state(), before));
}

TEST_F(SetupDialogTest, RepairsADamagedInstallation) {
  place.install(true);
  const testing::TreeState player = place.write_player_data();
  place.write("native/bootstrap/data/notes", "damage");
  DialogUser user(installer(), start());
  EXPECT_EQ(shown(user.press("repair")),
            "done success: Ravok is repaired\n"
            "summary: Repaired Ravok in " +
                data() +
                ".\n"
                "(start &Start!, close &Close)");
  EXPECT_EQ(place.read("native/bootstrap/data/notes"), "notes");
  EXPECT_TRUE(testing::same_tree(place.player_data(), player));
  expect_no_other_action(user);
}

TEST_F(SetupDialogTest, RepairsAnEntryInTheMenuAndSaysSo) {
  place.install(true);
  std::filesystem::remove(place.entry());
  DialogUser user(installer(), start());
  EXPECT_EQ(items_of(user.press("repair")), "summary: Repaired Ravok in " + data() +
                                                ". Everything was already intact.\n"
                                                "entry muted: Menu entry: " +
                                                place.entry().native() + "\n");
}

TEST_F(SetupDialogTest, TellsOfARepairedClientWithoutAnEntry) {
  place.install();
  DialogUser user(installer(), start());
  EXPECT_EQ(items_of(user.press("repair")), "summary: Repaired Ravok in " + data() +
                                                ". Everything was already intact.\n"
                                                "no_entry muted: Ravok has no entry in the menu.\n");
}

TEST_F(SetupDialogTest, ShowsAndCancelsARepair) {
  place.install(true);
  DialogUser user(installer(), start());
  user.press_and_hold("repair");
  EXPECT_EQ(shown(user.dialog.screen()),
            "working busy: Repairing Ravok\n"
            "progress 0/0: Verifying…\n"
            "(cancel &Cancel) escape cancel");
  user.dialog.press("cancel");
  user.release();
  user.until_idle();
  EXPECT_EQ(shown(user.dialog.screen()), installed_screen("Setup was cancelled."));
  EXPECT_EQ(user.dialog.exit_code(), 4);
  // It is told until something else happens.
  user.dialog.press("uninstall");
  EXPECT_EQ(text_of(user.dialog.screen(), "notice"), "");
}

TEST_F(SetupDialogTest, TellsOfARepairThatFails) {
  place.install(true);
  DialogUser user(installer(), start());
  const NativeFileLock running(place.paths().bootstrap_lock, true, NativeLockSharing::none, LockMode::exclusive);
  EXPECT_EQ(shown(user.press("repair")),
            "failed: Ravok could not be repaired\n"
            "problem warning: Ravok or a game from this folder is still running; close it and try again.\n"
            "kept muted: Your saves and settings were not touched.\n"
            "(retry &Try again!, back &Back, close &Close) escape back");
  expect_no_other_action(user);
  EXPECT_EQ(user.press("back").id, "installed");
}

TEST_F(SetupDialogTest, FinishesASetupThatDidNotEnd) {
  place.install(true);
  place.write(".ravok-setup-incomplete", "");
  DialogUser user(installer(), start());
  EXPECT_EQ(shown(user.dialog.screen()),
            "installed: Ravok setup did not finish\n"
            "status: Ravok setup did not finish in " +
                data() + "; run repair.\n" + repair_or_uninstall());
  expect_no_other_action(user);
  EXPECT_EQ(user.press("repair").heading, "Ravok is repaired");
  EXPECT_TRUE(NativeInstaller::status(place.data()).installed);
}

TEST_F(SetupDialogTest, RepairsAndRemovesAnInstallationWhoseStatusCannotBeTold) {
  place.install(true);
  const std::string record = place.paths().status_record;
  place.write(place.paths().status_record.lexically_relative(place.data()), "{");
  DialogUser user(installer(), start());
  EXPECT_EQ(shown(user.dialog.screen()),
            "installed: Ravok is damaged\n"
            "status warning: Setup status record is malformed: " +
                record + ".\n" + repair_or_uninstall());
  expect_no_other_action(user);
  EXPECT_EQ(user.press("uninstall").id, "remove");
  EXPECT_EQ(user.press("back").id, "installed");
  EXPECT_EQ(user.press("repair").heading, "Ravok is repaired");
  EXPECT_TRUE(NativeInstaller::status(place.data()).installed);
}

// --- A removal ---

TEST_F(SetupDialogTest, AsksBeforeARemoval) {
  place.install();
  DialogUser user(installer(), start());
  user.dialog.press("uninstall");
  EXPECT_EQ(shown(user.dialog.screen()),
            "remove: Remove Ravok?\n"
            "what: Ravok and its games will be removed from " +
                data() +
                ".\n"
                "data muted: Your saves and settings stay. Everything else in this folder is removed too.\n"
                "remove_data [ ] Remove saves and &settings too\n"
                "(remove &Remove!!, back &Back) first back escape back");
  expect_no_other_action(user);
  user.dialog.tick("remove_data", true);
  EXPECT_EQ(
      items_of(user.dialog.screen()),
      "what: Ravok and its games will be removed from " + data() +
          ".\n"
          "data warning: Your saves and settings are removed too, and everything else in this folder. They cannot "
          "be brought back.\n"
          "remove_data [x] Remove saves and &settings too\n");
  user.dialog.press("back");
  EXPECT_EQ(shown(user.dialog.screen()), installed_screen());
  // The next time, they stay again.
  user.dialog.press("uninstall");
  EXPECT_NE(items_of(user.dialog.screen()).find("remove_data [ ]"), std::string::npos);
}

TEST_F(SetupDialogTest, RemovesTheClientAndKeepsSavesAndSettings) {
  place.install(true);
  const testing::TreeState player = place.write_player_data();
  DialogUser user(installer(), start());
  user.dialog.press("uninstall");
  const Screen screen = user.press("remove");
  EXPECT_EQ(screen.id, "removed");
  EXPECT_EQ(screen.heading, "Ravok is removed");
  EXPECT_EQ(testing::actions_of(screen), "close &Close!");
  EXPECT_EQ(text_of(screen, "summary"), "Removed Ravok from " + data() + ". Saves and settings were kept.");
  const std::string items = items_of(screen);
  EXPECT_NE(items.find("kept muted: Kept: " + data() + "/userdata\n"), std::string::npos);
  EXPECT_NE(items.find("kept muted: Kept: " + data() + "/settings.json\n"), std::string::npos);
  EXPECT_TRUE(testing::same_tree(place.state(), player));
  EXPECT_TRUE(is_missing(place.entry()));
  expect_no_other_action(user);
  expect_closes(user, "close", 0);
}

TEST_F(SetupDialogTest, RemovesSavesAndSettingsToo) {
  place.install();
  place.write_player_data();
  DialogUser user(maintenance(), start());
  user.dialog.tick("remove_data", true);
  EXPECT_EQ(shown(user.press("remove")),
            "removed success: Ravok is removed\n"
            "summary: Removed Ravok from " +
                data() +
                ".\n"
                "(close &Close!)");
  EXPECT_TRUE(is_missing(place.data()));
  EXPECT_EQ(user.dialog.exit_code(), 0);
}

TEST_F(SetupDialogTest, NamesWhatItLeavesAndNoMoreThanFourPaths) {
  place.install();
  std::vector<std::filesystem::path> entries;
  for (int i = 0; i < 7; ++i) {
    entries.push_back(NativeInstaller::create_shortcut(place.data(), "game-" + std::to_string(i), "", {}));
    std::ofstream(entries.back(), std::ios::app) << "# changed\n";
  }
  DialogUser user(maintenance(), start());
  const Screen screen = user.press("remove");
  EXPECT_EQ(text_of(screen, "summary"), "Removed Ravok from " + data() + ". Changed shortcuts were left in place.");
  ASSERT_EQ(screen.items.size(), 6u);
  for (std::size_t i = 1; i < 5; ++i) {
    const auto& line = std::get<ScreenText>(screen.items.at(i));
    EXPECT_EQ(line.id, "changed");
    EXPECT_TRUE(line.text.starts_with("Left in place: " + place.home().native())) << line.text;
  }
  EXPECT_EQ(std::get<ScreenText>(screen.items.at(5)).text, "And 3 more paths.");
  for (const std::filesystem::path& entry : entries) {
    EXPECT_FALSE(is_missing(entry));
  }
}

TEST_F(SetupDialogTest, OffersTheRemovalAlone) {
  place.install();
  DialogUser user(maintenance(), start());
  EXPECT_EQ(shown(user.dialog.screen()),
            "remove: Remove Ravok?\n"
            "what: Ravok and its games will be removed from " +
                data() +
                ".\n"
                "data muted: Your saves and settings stay. Everything else in this folder is removed too.\n"
                "remove_data [ ] Remove saves and &settings too\n"
                "(remove &Remove!!, close &Cancel) first close escape close");
  expect_no_other_action(user);
  expect_closes(user, "close", 0);
  EXPECT_TRUE(NativeInstaller::status(place.data()).installed);
}

TEST_F(SetupDialogTest, TellsThatThereIsNothingToRemove) {
  DialogUser user(maintenance(), start());
  EXPECT_EQ(shown(user.press("remove")),
            "failed: Ravok could not be removed\n"
            "problem warning: Ravok is not installed in " +
                data() +
                ".\n"
                "kept muted: Your saves and settings were not touched.\n"
                "(retry &Try again!, back &Back, close &Close) escape back");
  EXPECT_TRUE(is_missing(place.data()));
  EXPECT_EQ(user.press("back").id, "remove");
  expect_closes(user, "close", 1);
}

TEST_F(SetupDialogTest, FinishesARemovalThatFailed) {
  place.install();
  place.write_player_data();
  // A directory has the place of the record, which then cannot be removed.
  std::filesystem::remove(place.paths().installation_record);
  place.write("native/installation.json/child", "in the way");
  DialogUser user(maintenance(), start());
  EXPECT_EQ(shown(user.press("remove")),
            "failed: Ravok could not be removed\n"
            "problem warning: Cannot remove " +
                place.paths().installation_record.native() +
                ".\n"
                "advice: Look whether the disk is in order, and whether you may write to the folder.\n"
                "kept muted: Your saves and settings were not touched. Some of the rest may be removed already. Trying "
                "again removes what is left.\n"
                "(retry &Try again!, back &Back, close &Close) escape back");
  user.press("back");
  user.dialog.tick("remove_data", true);
  EXPECT_EQ(text_of(user.press("remove"), "kept"),
            "Some of it may be removed already, saves and settings too. Trying again removes what is left.");
  std::filesystem::remove(place.data() / "native/installation.json/child");
  EXPECT_EQ(user.press("retry").id, "removed");
  EXPECT_TRUE(is_missing(place.data()));
  EXPECT_EQ(user.dialog.exit_code(), 0);
}

// A client that runs, and a removal that waits until it is closed.
class WaitingRemoval : public SetupDialogTest {
 protected:
  WaitingRemoval() : clock([this] { sleep(); }) {
    place.install();
    running.emplace(place.paths().bootstrap_lock, true, NativeLockSharing::none, LockMode::exclusive);
  }
  ~WaitingRemoval() override { go_on(); }

  void wait_until_it_waits() {
    std::unique_lock lock(mutex);
    changed.wait(lock, [&] { return waits; });
  }
  void go_on() {
    const std::lock_guard lock(mutex);
    goes_on = true;
    changed.notify_all();
  }

  std::optional<NativeFileLock> running;

 private:
  void sleep() {
    std::unique_lock lock(mutex);
    waits = true;
    changed.notify_all();
    changed.wait(lock, [&] { return goes_on; });
  }

  std::mutex mutex;
  std::condition_variable changed;
  bool waits = false;
  bool goes_on = false;
  const testing::StillClock clock;
};

constexpr const char* waiting_screen =
    "working busy: Removing Ravok\n"
    "progress 0/0: Waiting until Ravok is closed…\n"
    "(cancel &Cancel) escape cancel";

TEST_F(WaitingRemoval, IsCancelledAndChangesNothing) {
  DialogUser user(maintenance(), start());
  user.dialog.press("remove");
  wait_until_it_waits();
  EXPECT_EQ(shown(user.dialog.screen()), waiting_screen);
  user.dialog.press("cancel");
  go_on();
  const Screen screen = user.until_idle();
  EXPECT_EQ(screen.id, "remove");
  EXPECT_EQ(text_of(screen, "notice"), "Setup was cancelled.");
  EXPECT_EQ(user.dialog.exit_code(), 4);
  EXPECT_TRUE(NativeInstaller::status(place.data()).installed);
  expect_closes(user, "close", 4);
}

TEST_F(WaitingRemoval, ReturnsToTheInstallationWhenItIsCancelled) {
  DialogUser user(installer(), start());
  user.dialog.press("uninstall");
  user.dialog.press("remove");
  wait_until_it_waits();
  user.dialog.press("cancel");
  go_on();
  EXPECT_EQ(shown(user.until_idle()), installed_screen("Setup was cancelled."));
}

TEST_F(WaitingRemoval, GoesOnOnceTheClientIsClosed) {
  DialogUser user(maintenance(), start());
  user.dialog.press("remove");
  wait_until_it_waits();
  running.reset();
  go_on();
  EXPECT_EQ(user.until_idle().id, "removed");
}

TEST_F(WaitingRemoval, GivesUpAfterAWhile) {
  go_on();
  DialogUser user(maintenance(), start());
  user.dialog.tick("remove_data", true);
  EXPECT_EQ(shown(user.press("remove")),
            "failed: Ravok could not be removed\n"
            "problem warning: Ravok or a game from this folder is still running; close it and try again.\n"
            "(retry &Try again!, back &Back, close &Close) escape back");
  EXPECT_TRUE(NativeInstaller::status(place.data()).installed);
}

TEST_F(WaitingRemoval, EndsWithTheDialog) {
  {
    DialogUser user(maintenance(), start());
    user.dialog.press("remove");
    wait_until_it_waits();
    user.dialog.close();
    go_on();
  }
  EXPECT_TRUE(NativeInstaller::status(place.data()).installed);
}

// --- Texts from outside ---

TEST_F(SetupDialogTest, ShowsTextsFromOutsideEscaped) {
  place.package.featured_game = {{"id", "first-game"}, {"name", "First"}};
  place.republish();
  SetupSubject subject = installer();
  subject.publisher = "Ac\x1bme\xff";
  subject.game->name = "Ga\nme";
  DialogUser user(subject, start());
  EXPECT_EQ(text_of(user.dialog.screen(), "about"),
            "Ravok build-1 by Ac\\x1bme\\xff will be installed for your user account. Ga\\x0ame gets an entry of its "
            "own in the menu.");
  Screen screen = user.press("install");
  EXPECT_TRUE(text_of(screen, "entry_problem").starts_with("Ga\\x0ame got no entry of its own in the menu: "));

  subject.data_root = place.root() / "da\x07ta";
  DialogUser other(subject, start());
  screen = other.press("install");
  EXPECT_TRUE(text_of(screen, "summary")
                  .starts_with("Installed Ravok in " + (place.root() / "da").native() + "\\x07ta. The shortcut "))
      << text_of(screen, "summary");
}

TEST_F(SetupDialogTest, ShowsTheFolderOfARemovalWholeAndEscaped) {
  SetupSubject subject = maintenance();
  subject.data_root = place.root() / "x/../da\x1bta";
  DialogUser user(subject, start());
  EXPECT_EQ(text_of(user.dialog.screen(), "what"),
            "Ravok and its games will be removed from " + (place.root() / "da").native() + "\\x1bta.");
}

TEST_F(SetupDialogTest, KeepsTheWordInFoldersAndNamesOfProducts) {
  set_product_name("Ravok Deluxe Ravok");
  SetupSubject subject = installer();
  subject.data_root = place.root() / "My Ravok games/Ravok";
  DialogUser user(subject, start());
  const std::string folder = subject.data_root.native();
  EXPECT_EQ(user.dialog.screen().heading, "Install Ravok Deluxe Ravok");
  EXPECT_EQ(text_of(user.dialog.screen(), "about"),
            "Ravok Deluxe Ravok build-1 will be installed for your user account.");
  Screen screen = user.press("install");
  EXPECT_EQ(screen.heading, "Ravok Deluxe Ravok is installed");
  EXPECT_EQ(text_of(screen, "summary"), "Installed Ravok Deluxe Ravok in " + folder + ".");

  DialogUser again(subject, start());
  EXPECT_EQ(text_of(again.dialog.screen(), "status"),
            "Ravok Deluxe Ravok is installed in " + folder + " (bootstrap build-1, launcher build-1).");
  again.dialog.press("uninstall");
  EXPECT_EQ(text_of(again.dialog.screen(), "what"),
            "Ravok Deluxe Ravok and its games will be removed from " + folder + ".");
  screen = again.press("remove");
  EXPECT_EQ(screen.heading, "Ravok Deluxe Ravok is removed");
  EXPECT_EQ(text_of(screen, "summary"), "Removed Ravok Deluxe Ravok from " + folder + ".");
}

}  // namespace
}  // namespace ravok::setup_dialog_test
