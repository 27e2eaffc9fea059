#include "app/setup/setup_command.hpp"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/failure.hpp"

namespace ravok::setup_command_test {
namespace {

SetupCommand parse(const std::vector<std::string>& arguments) { return parse_setup_command(arguments, "/default"); }

void refuses(const std::vector<std::string>& arguments, const std::string& message) {
  EXPECT_FAILURE(parse(arguments), "usage", message) << ::testing::PrintToString(arguments);
}

TEST(ParseSetupCommand, TakesNoArgumentsForInstall) {
  const SetupCommand command = parse({});
  EXPECT_EQ(command.command, SetupCommandKind::install);
  EXPECT_EQ(command.data_root, "/default");
  EXPECT_TRUE(command.package.empty());
  EXPECT_TRUE(command.game.empty());
  EXPECT_FALSE(command.data_root_chosen);
  EXPECT_FALSE(command.remove_data);
  EXPECT_FALSE(command.json);
  EXPECT_FALSE(command.help);
}

TEST(ParseSetupCommand, KnowsEveryCommandWord) {
  EXPECT_EQ(parse({"install"}).command, SetupCommandKind::install);
  EXPECT_EQ(parse({"repair"}).command, SetupCommandKind::repair);
  EXPECT_EQ(parse({"status"}).command, SetupCommandKind::status);
  EXPECT_EQ(parse({"uninstall"}).command, SetupCommandKind::uninstall);
  EXPECT_EQ(parse({"shortcut", "create"}).command, SetupCommandKind::shortcut_create);
  EXPECT_EQ(parse({"shortcut", "remove"}).command, SetupCommandKind::shortcut_remove);
}

TEST(ParseSetupCommand, FixesTheNumbersOfTheCommands) {
  EXPECT_EQ(static_cast<std::uint32_t>(SetupCommandKind::install), 0u);
  EXPECT_EQ(static_cast<std::uint32_t>(SetupCommandKind::repair), 1u);
  EXPECT_EQ(static_cast<std::uint32_t>(SetupCommandKind::status), 2u);
  EXPECT_EQ(static_cast<std::uint32_t>(SetupCommandKind::uninstall), 3u);
  EXPECT_EQ(static_cast<std::uint32_t>(SetupCommandKind::shortcut_create), 4u);
  EXPECT_EQ(static_cast<std::uint32_t>(SetupCommandKind::shortcut_remove), 5u);
  EXPECT_TRUE(needs_package(SetupCommandKind::install));
  EXPECT_TRUE(needs_package(SetupCommandKind::repair));
  EXPECT_FALSE(needs_package(SetupCommandKind::status));
}

TEST(ParseSetupCommand, TakesOptionsInAnyOrder) {
  const SetupCommand command = parse({"--json", "--data-dir", "/data", "uninstall", "--remove-data", "-h"});
  EXPECT_EQ(command.command, SetupCommandKind::uninstall);
  EXPECT_EQ(command.data_root, "/data");
  EXPECT_TRUE(command.data_root_chosen);
  EXPECT_TRUE(command.json);
  EXPECT_TRUE(command.remove_data);
  EXPECT_TRUE(command.help);
}

TEST(ParseSetupCommand, KeepsTheLastOfARepeatedOption) {
  const SetupCommand command = parse({"--package", "/a", "--package", "/b", "--data-dir", "/c", "--data-dir", "d"});
  EXPECT_EQ(command.package, "/b");
  EXPECT_EQ(command.data_root, "d");
  EXPECT_EQ(parse({"shortcut", "create", "--game", "a", "--game", "b"}).game, "b");
}

TEST(ParseSetupCommand, MarksADataFolderThatIsTheDefaultAsChosen) {
  EXPECT_TRUE(parse({"--data-dir", "/default"}).data_root_chosen);
}

TEST(ParseSetupCommand, RefusesUnknownWords) {
  refuses({"x"}, "Unknown command: x");
  refuses({"Status"}, "Unknown command: Status");
  refuses({"shortcut create"}, "Unknown command: shortcut create");
  refuses({""}, "Unknown command: ");
  refuses({"\xff"}, "Unknown command: \xff");
}

TEST(ParseSetupCommand, RefusesUnknownOptions) {
  refuses({"-x"}, "Unknown option: -x");
  refuses({"-"}, "Unknown option: -");
  refuses({"--"}, "Unknown option: --");
  refuses({"--data-dir=/x"}, "Unknown option: --data-dir=/x");
  refuses({"status", "--\xff"}, "Unknown option: --\xff");
}

TEST(ParseSetupCommand, RefusesASecondCommand) {
  refuses({"status", "status"}, "Choose one command");
  refuses({"status", "repair"}, "Choose one command");
  refuses({"status", ""}, "Choose one command");
  refuses({"shortcut", "create", "x"}, "Choose one command");
}

TEST(ParseSetupCommand, RefusesAShortcutWithoutItsWord) {
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"shortcut"}, {"shortcut", "list"}, {"shortcut", ""}, {"shortcut", "--json"}}) {
    refuses(arguments, "Use shortcut create or shortcut remove");
  }
}

TEST(ParseSetupCommand, RefusesAnOptionWithoutItsValue) {
  for (const std::string option : {"--data-dir", "--package", "--game"}) {
    refuses({option}, "Option " + option + " needs a value");
    refuses({option, ""}, "Option " + option + " needs a value");
  }
}

TEST(ParseSetupCommand, TakesAValueThatBeginsWithADash) {
  const SetupCommand command = parse({"--data-dir", "--json"});
  EXPECT_EQ(command.data_root, "--json");
  EXPECT_FALSE(command.json);
}

TEST(ParseSetupCommand, RefusesAPathWithANulByte) {
  EXPECT_FAILURE(parse({"--data-dir", std::string("a\0b", 3)}), "unsafe_path", "Native path contains a NUL byte");
  EXPECT_FAILURE(parse({"--package", std::string("a\0b", 3)}), "unsafe_path", "Native path contains a NUL byte");
}

TEST(ParseSetupCommand, RefusesOptionsThatTheCommandDoesNotHave) {
  refuses({"--package", "DIR", "status"}, "--package only applies to install and repair");
  refuses({"status", "--package", "X", "--help"}, "--package only applies to install and repair");
  refuses({"--remove-data"}, "--remove-data only applies to uninstall");
  refuses({"status", "--remove-data"}, "--remove-data only applies to uninstall");
  refuses({"uninstall", "--game", "ID"}, "--game only applies to shortcut create");
  refuses({"shortcut", "remove", "--game", "a"}, "--game only applies to shortcut create");
}

TEST(ParseSetupCommand, NamesTheFirstOfSeveralMisplacedOptions) {
  refuses({"status", "--game", "a", "--remove-data", "--package", "x"}, "--package only applies to install and repair");
  refuses({"status", "--game", "a", "--remove-data"}, "--remove-data only applies to uninstall");
}

TEST(ParseSetupCommand, ValidatesTheGameInTheWordsOfIdentifiers) {
  EXPECT_EQ(parse({"shortcut", "create", "--game", "game-1"}).game, "game-1");
  EXPECT_FAILURE(parse({"shortcut", "create", "--game", "Game"}), "invalid_identity",
                 "Game and build IDs use lower-case letters, digits, dots and hyphens");
  EXPECT_FAILURE(parse({"shortcut", "create", "--game", "con"}), "unsafe_path", "Path uses a reserved platform name");
}

TEST(ParseSetupCommand, DoesNotEndAtHelp) { refuses({"--help", "--bogus"}, "Unknown option: --bogus"); }

TEST(SetupUsage, NamesTheProgramAndTheCommandsOfMaintenance) {
  EXPECT_EQ(setup_usage("ravok-maintenance", false),
            "Usage: ravok-maintenance [COMMAND] [--data-dir DIR] [--json]\n"
            "\n"
            "Commands:\n"
            "  status                    Show what is installed\n"
            "  uninstall [--remove-data] Remove Ravok and its games; saves and settings stay\n"
            "                            unless --remove-data is given\n"
            "  shortcut create [--game ID] | shortcut remove\n");
}

TEST(SetupUsage, AddsTheCommandsOfAnInstaller) {
  EXPECT_EQ(setup_usage("ravok-install", true),
            "Usage: ravok-install [COMMAND] [--data-dir DIR] [--json]\n"
            "\n"
            "Commands:\n"
            "  install [--package DIR]   Install Ravok (the default command)\n"
            "  repair [--package DIR]    Replace damaged Ravok files; keeps games, saves and settings\n"
            "  status                    Show what is installed\n"
            "  uninstall [--remove-data] Remove Ravok and its games; saves and settings stay\n"
            "                            unless --remove-data is given\n"
            "  shortcut create [--game ID] | shortcut remove\n");
}

}  // namespace
}  // namespace ravok::setup_command_test
