#include "app/screen/window_command.hpp"

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/failure.hpp"

namespace ravok::window_command_test {
namespace {

using Words = std::vector<std::string>;

// Answers a folder, and fails the test where no home may be asked for.
std::filesystem::path default_folder() { return "/default"; }
std::filesystem::path no_home() {
  ADD_FAILURE() << "a home was asked for";
  return "/home";
}

WindowCommand parse(const Words& arguments, bool installer = true) {
  return parse_window_command(arguments, installer, default_folder);
}

void refuses(const Words& arguments, bool installer, const std::string& message) {
  EXPECT_FAILURE(parse_window_command(arguments, installer, no_home), "usage", message)
      << ::testing::PrintToString(arguments);
}

TEST(ParseWindowCommand, TakesNoArguments) {
  for (const bool installer : {true, false}) {
    const WindowCommand command = parse({}, installer);
    EXPECT_EQ(command.package, "");
    EXPECT_EQ(command.data_root, "/default");
    EXPECT_FALSE(command.data_root_chosen);
    EXPECT_FALSE(command.smoke);
    EXPECT_FALSE(command.help);
  }
}

TEST(ParseWindowCommand, TakesEveryOption) {
  const WindowCommand command = parse_window_command({"--smoke", "--package", "p", "--data-dir", "d"}, true, no_home);
  EXPECT_EQ(command.package, "p");
  EXPECT_EQ(command.data_root, "d");
  EXPECT_TRUE(command.data_root_chosen);
  EXPECT_TRUE(command.smoke);
  EXPECT_FALSE(command.help);
}

TEST(ParseWindowCommand, TakesTheLastOfARepeatedOption) {
  const WindowCommand command = parse({"--package", "p", "--data-dir", "d", "--package", "q", "--data-dir", "--smoke"});
  EXPECT_EQ(command.package, "q");
  EXPECT_EQ(command.data_root, "--smoke");
  EXPECT_FALSE(command.smoke);
}

TEST(ParseWindowCommand, AsksForNoHomeForHelpOrAChosenFolder) {
  for (const char* word : {"--help", "-h"}) {
    const WindowCommand command = parse_window_command({word}, false, no_home);
    EXPECT_TRUE(command.help);
    EXPECT_EQ(command.data_root, "");
  }
  EXPECT_FALSE(parse_window_command({"--data-dir", "d"}, false, no_home).help);
}

TEST(ParseWindowCommand, FailsAsTheDefaultFolderDoes) {
  EXPECT_FAILURE(parse_window_command({}, true, []() -> std::filesystem::path { fail("user_path", "No home"); }),
                 "user_path", "No home");
}

TEST(ParseWindowCommand, RefusesWhatItDoesNotKnow) {
  for (const bool installer : {true, false}) {
    refuses({"--remove-data"}, installer, "Unknown option: --remove-data");
    refuses({"--help", "-x"}, installer, "Unknown option: -x");
    refuses({"-"}, installer, "Unknown option: -");
    refuses({"--data-dir=/d"}, installer, "Unknown option: --data-dir=/d");
    refuses({"install"}, installer, "Unexpected argument: install");
    refuses({""}, installer, "Unexpected argument: ");
  }
  refuses({"--package", "p"}, false, "Unknown option: --package");
}

TEST(ParseWindowCommand, RefusesAnOptionWithoutItsValue) {
  refuses({"--data-dir"}, false, "Option --data-dir needs a value");
  refuses({"--data-dir", ""}, true, "Option --data-dir needs a value");
  refuses({"--package"}, true, "Option --package needs a value");
  refuses({"--package", ""}, true, "Option --package needs a value");
}

TEST(ParseWindowCommand, RefusesANulByteInAPath) {
  const std::string text("a\0b", 3);
  EXPECT_FAILURE(parse({"--data-dir", text}), "unsafe_path", "Native path contains a NUL byte");
  EXPECT_FAILURE(parse({"--package", text}), "unsafe_path", "Native path contains a NUL byte");
}

TEST(WindowUsage, SaysWhatTheOptionsDo) {
  EXPECT_EQ(window_usage("a-program", true),
            "Usage: a-program [OPTION]...\n"
            "\n"
            "Options:\n"
            "  --package DIR     The folder of the initial package, in place of the one that comes with the program\n"
            "  --data-dir DIR    The folder of the installation, in place of the default one\n"
            "  --smoke           Ends the program once its window was drawn, to try whether it can\n"
            "  --help            Prints a short help\n");
  EXPECT_EQ(window_usage("another", false),
            "Usage: another [OPTION]...\n"
            "\n"
            "Options:\n"
            "  --data-dir DIR    The folder of the installation, in place of the default one\n"
            "  --smoke           Ends the program once its window was drawn, to try whether it can\n"
            "  --help            Prints a short help\n");
}

// The options of an outline, as the usage shows them.
std::string usage_of(const ProgramOutline& outline) {
  std::string usage = "Usage: " + outline.program + " [OPTION]...\n\nOptions:\n";
  for (const OptionOutline& option : outline.options) {
    std::string line = "  " + option.name + (option.value.empty() ? "" : " " + option.value);
    line.resize(20, ' ');
    usage += line + option.text + "\n";
  }
  return usage;
}

TEST(WindowOutline, HasTheOptionsOfTheUsage) {
  EXPECT_EQ(install_window_outline().program, "ravok-install-gui");
  EXPECT_EQ(usage_of(install_window_outline()), window_usage("ravok-install-gui", true));
  EXPECT_EQ(maintenance_window_outline().program, "ravok-maintenance-gui");
  EXPECT_EQ(usage_of(maintenance_window_outline()), window_usage("ravok-maintenance-gui", false));
}

}  // namespace
}  // namespace ravok::window_command_test
