#include "app/screen/screen_parts.hpp"

#include <string>

#include <gtest/gtest.h>

#include "app/brand/brand.hpp"
#include "app/screen/message_dialog.hpp"
#include "app/screen/setup_advice.hpp"
#include "support/screen_text.hpp"

namespace ravok::screen_parts_test {
namespace {

using testing::items_of;
using testing::whole_screen;

class ScreenParts : public ::testing::Test {
 protected:
  ~ScreenParts() override { set_product_name("Ravok"); }
};

TEST_F(ScreenParts, EndSentences) {
  EXPECT_EQ(sentence("It is so"), "It is so.");
  EXPECT_EQ(sentence("It is so."), "It is so.");
  EXPECT_EQ(sentence(""), "");
}

TEST_F(ScreenParts, AreHeadedInTheNameOfTheProduct) {
  set_product_name("Acme\x1b");
  const Screen screen = new_screen("id", "Install Ravok", TextTone::success);
  EXPECT_EQ(whole_screen(screen), "id success: Install Acme\\x1b\n()");
  EXPECT_EQ(screen.title, screen.heading);
}

TEST_F(ScreenParts, ShowTextsEscapedAndNoEmptyOnes) {
  Screen screen;
  add_text(screen, "a", "");
  add_text(screen, "b", "x\n\xff", TextTone::muted);
  add_text(screen, "b", "Ravok stays", TextTone::warning);
  EXPECT_EQ(items_of(screen), "b muted: x\\x0a\\xff\nb warning: Ravok stays\n");
}

TEST_F(ScreenParts, ShowFourPathsAndHowManyMore) {
  const auto lines = [](const Json& paths) {
    Screen screen;
    add_paths(screen, "p", "At ", paths, TextTone::normal);
    return items_of(screen);
  };
  EXPECT_EQ(lines(Json::array()), "");
  EXPECT_EQ(lines({"/1\x07"}), "p: At /1\\x07\n");
  const std::string four = "p: At /1\np: At /2\np: At /3\np: At /4\n";
  EXPECT_EQ(lines({"/1", "/2", "/3", "/4"}), four);
  EXPECT_EQ(lines({"/1", "/2", "/3", "/4", "/5"}), four + "p: And 1 more path.\n");
  EXPECT_EQ(lines({"/1", "/2", "/3", "/4", "/5", "/6"}), four + "p: And 2 more paths.\n");
}

TEST_F(ScreenParts, AreFoundByKindAndName) {
  Screen screen;
  add_text(screen, "a", "x");
  screen.items.emplace_back(ScreenTick{"t", "T"});
  screen.actions = {{"go", "&Go"}};
  EXPECT_TRUE(has_item<ScreenText>(screen, "a"));
  EXPECT_FALSE(has_item<ScreenText>(screen, "t"));
  EXPECT_TRUE(has_item<ScreenTick>(screen, "t"));
  EXPECT_FALSE(has_item<ScreenTick>(screen, ""));
  EXPECT_TRUE(has_action(screen, "go"));
  EXPECT_FALSE(has_action(screen, "a"));
  EXPECT_FALSE(has_action(screen, ""));
  EXPECT_FALSE(has_action(screen, "browse"));
  screen.items.emplace_back(ScreenField{"f", "F", "", "&Look", ""});
  EXPECT_TRUE(has_action(screen, "browse"));
  EXPECT_FALSE(has_action(screen, "f"));
}

TEST_F(ScreenParts, TellOneThingUntilItIsClosed) {
  set_product_name("Acme");
  const ScreenDialog dialog = message_dialog("Ravok cannot begin", "The folder a\x1b is gone");
  dialog.set_wakeup([] { ADD_FAILURE() << "nothing changes"; });
  EXPECT_EQ(whole_screen(dialog.screen()),
            "message: Acme cannot begin\n"
            "problem warning: The folder a\\x1b is gone\n"
            "(close &Close!)");
  dialog.press("install");
  dialog.write("problem", "x");
  dialog.tick("problem", true);
  dialog.choose("problem", 0);
  dialog.open("problem", 0);
  EXPECT_FALSE(dialog.closed());
  dialog.press("close");
  EXPECT_TRUE(dialog.closed());
  dialog.press("install");
  EXPECT_TRUE(dialog.closed());

  const ScreenDialog other = message_dialog("Ravok", "x");
  other.close();
  EXPECT_TRUE(other.closed());
}

// --- What a player is told about a failure ---

std::string advice(const char* code, SetupCommandKind kind, const char* message = "It failed") {
  return std::string(setup_advice(code, message, kind));
}

constexpr auto install = SetupCommandKind::install;
constexpr auto repair = SetupCommandKind::repair;
constexpr auto uninstall = SetupCommandKind::uninstall;

TEST(SetupAdvice, SpeaksOfTheInstallerWhereOneIsAtWork) {
  for (const char* code : {"usage", "native_install_trust", "invalid_native_package", "content_mismatch",
                           "invalid_manifest", "invalid_json", "invalid_theme", "signature_threshold", "size_limit",
                           "length_mismatch", "archive", "archive_path", "archive_inventory"}) {
    for (const SetupCommandKind kind : {install, repair}) {
      EXPECT_EQ(advice(code, kind), "This installer is damaged or incomplete. Get it again.") << code;
    }
    EXPECT_EQ(advice(code, uninstall), "") << code;
  }
  for (const char* code : {"expired_metadata", "launcher_incompatible", "unsupported_schema"}) {
    EXPECT_NE(advice(code, install), "") << code;
    EXPECT_EQ(advice(code, repair), advice(code, install)) << code;
    EXPECT_EQ(advice(code, uninstall), "") << code;
  }
}

TEST(SetupAdvice, SpeaksOfRoomAndTheDisk) {
  EXPECT_EQ(advice("insufficient_space", install), "Free some space, or choose a folder on another disk.");
  EXPECT_EQ(advice("insufficient_space", repair), "Free some space, and try again.");
  EXPECT_EQ(advice("insufficient_space", uninstall), "Free some space, and try again.");
  const std::string disk = "Look whether the disk is in order, and whether you may write to the folder.";
  for (const char* code : {"file_write", "file_sync", "file_remove", "file_system", "permissions"}) {
    for (const SetupCommandKind kind : {install, repair, uninstall}) {
      EXPECT_EQ(advice(code, kind), disk) << code;
    }
  }
  EXPECT_EQ(advice("file_read", install), "Look whether the disk is in order, or get the installer again.");
  EXPECT_EQ(advice("file_read", uninstall), disk);
  EXPECT_EQ(advice("busy", uninstall), "Wait until the other setup has ended, and try again.");
}

TEST(SetupAdvice, SaysNothingTwiceAndNothingUnknown) {
  EXPECT_EQ(advice("content_mismatch", install, "This installer was damaged; get it again"), "");
  for (const char* code : {"", "ravok_running", "user_path", "setup_failed", "nonsense"}) {
    EXPECT_EQ(advice(code, install), "") << code;
  }
}

TEST(SetupRemains, SaysWhatIsLeft) {
  SetupCommand command;
  command.command = install;
  EXPECT_EQ(setup_remains(command, "file_write"),
            "Your saves and settings were not touched. What was begun has been removed, or is finished when you try "
            "again.");
  command.command = repair;
  EXPECT_EQ(setup_remains(command, "file_write"), "Your saves and settings were not touched.");
  command.command = uninstall;
  EXPECT_EQ(setup_remains(command, "file_remove"),
            "Your saves and settings were not touched. Some of the rest may be removed already. Trying again removes "
            "what is left.");
  for (const char* code : {"not_installed", "busy", "ravok_running", "user_path", "lock_failed"}) {
    EXPECT_EQ(setup_remains(command, code), "Your saves and settings were not touched.");
  }
  command.remove_data = true;
  EXPECT_EQ(setup_remains(command, "file_remove"),
            "Some of it may be removed already, saves and settings too. Trying again removes what is left.");
  EXPECT_EQ(setup_remains(command, "busy"), "");
}

}  // namespace
}  // namespace ravok::screen_parts_test
