// ravok-maintenance as a user meets it: a process with arguments, two streams and an exit code.

#include <array>
#include <csignal>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "app/setup/setup_command.hpp"
#include "platform/file/handle.hpp"
#include "platform/file/native_lock.hpp"
#include "support/install_place.hpp"
#include "support/process.hpp"

namespace ravok {
namespace {

using testing::ProgramResult;
using testing::run_program;

ProgramResult maintenance(const std::vector<std::string>& arguments) {
  return run_program({RAVOK_MAINTENANCE, arguments, {{"HOME", "/nowhere"}}, ""});
}

TEST(Maintenance, RefusesToInstall) {
  for (const std::vector<std::string>& arguments : {std::vector<std::string>{}, {"install"}, {"repair"}}) {
    const ProgramResult result = maintenance(arguments);
    EXPECT_EQ(result.exit_code, 2);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors, "Use the Ravok installer to install or repair Ravok\n");
  }
}

TEST(Maintenance, RefusesToInstallInJson) {
  const ProgramResult result = maintenance({"--json", "install"});
  EXPECT_EQ(result.exit_code, 2);
  EXPECT_EQ(result.output,
            "{\"problem\":{\"code\":\"usage\",\"message\":\"Use the Ravok installer to install or repair "
            "Ravok\"},\"schema_version\":1}\n");
  EXPECT_EQ(result.errors, "Use the Ravok installer to install or repair Ravok\n");
}

TEST(Maintenance, PrintsNoJsonForABadCommandLine) {
  const ProgramResult result = maintenance({"--json", "--bogus"});
  EXPECT_EQ(result.exit_code, 2);
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(result.errors, "Unknown option: --bogus\n");
}

TEST(Maintenance, PrintsItsUsage) {
  const ProgramResult result = maintenance({"--help"});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.output, setup_usage("ravok-maintenance", false));
  EXPECT_EQ(result.errors, "");
}

TEST(Maintenance, RefusesArgumentsThatAreEmptyUnknownRepeatedOrNotUtf8) {
  const struct {
    std::vector<std::string> arguments;
    std::string message;
  } cases[] = {{{""}, "Unknown command: "},
               {{"--data-dir", ""}, "Option --data-dir needs a value"},
               {{"x"}, "Unknown command: x"},
               {{"-x"}, "Unknown option: -x"},
               {{"status", "status"}, "Choose one command"},
               {{"\xff\xfe"}, "Unknown command: \\xff\\xfe"},
               {{"--\xff"}, "Unknown option: --\\xff"},
               {{"--json", "status", "--\xff"}, "Unknown option: --\\xff"},
               {{"shortcut"}, "Use shortcut create or shortcut remove"},
               {{"shortcut", "list"}, "Use shortcut create or shortcut remove"}};
  for (const auto& [arguments, message] : cases) {
    const ProgramResult result = maintenance(arguments);
    EXPECT_EQ(result.exit_code, 2) << message;
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors, message + "\n");
  }
}

TEST(Maintenance, TakesADataFolderThatIsNotUtf8) {
  const ProgramResult result = maintenance({"--json", "install", "--data-dir", "\xff"});
  EXPECT_EQ(result.exit_code, 2);
  EXPECT_NE(result.output.find("\"code\":\"usage\""), std::string::npos);
}

TEST(Maintenance, NeedsAnAbsoluteHome) {
  for (const auto& environment :
       {std::map<std::string, std::string>{}, std::map<std::string, std::string>{{"HOME", "relative"}}}) {
    const ProgramResult result = run_program({RAVOK_MAINTENANCE, {"--json", "status"}, environment, ""});
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors, "HOME must identify an absolute user directory\n");
  }
}

TEST(Maintenance, SaysSoWhenItsOutputCannotBeWritten) {
  const ProgramResult result = run_program({RAVOK_MAINTENANCE, {"--help"}, {{"HOME", "/nowhere"}}, "/dev/full"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.errors, "Cannot write to standard output\n");
}

// The program in a home with an installation.
class MaintenanceAt : public ::testing::Test {
 protected:
  MaintenanceAt() {
    place.package.featured_game.reset();
    place.republish();
  }

  ProgramResult run(std::vector<std::string> arguments) const {
    arguments.insert(arguments.end(), {"--data-dir", place.data()});
    return run_program({RAVOK_MAINTENANCE, arguments, {{"HOME", place.home()}}, ""});
  }
  static void expect(const ProgramResult& result, int exit_code, const std::string& output, const std::string& errors) {
    EXPECT_EQ(result.exit_code, exit_code);
    EXPECT_EQ(result.output, output);
    EXPECT_EQ(result.errors, errors);
  }
  static std::string problem(const std::string& code, const std::string& message) {
    return Json{{"schema_version", 1}, {"problem", {{"code", code}, {"message", message}}}}.dump() + "\n";
  }

  testing::InstallPlace place;
};

TEST_F(MaintenanceAt, ReportsOnAnInstallationAndRemovesIt) {
  place.install(true);
  place.write_player_data();
  const std::string data = place.data();
  expect(run({"status"}), 0, "Acme Games is installed in " + data + " (bootstrap build-1, launcher build-1).\n", "");
  expect(run({"shortcut", "remove"}), 0, "Removed 1 shortcut(s).\n", "");
  expect(run({"shortcut", "remove"}), 0, "Removed 0 shortcut(s).\n", "");
  expect(run({"--json", "shortcut", "create"}), 0,
         Json{{"schema_version", 1}, {"created", {place.entry()}}}.dump() + "\n", "");
  expect(run({"uninstall"}), 0, "Removed Acme Games from " + data + ". Saves and settings were kept.\n", "Removing…\n");
  EXPECT_EQ(place.state(), place.player_data());
  expect(run({"status"}), 0, "Ravok is not installed in " + data + ".\n", "");
}

TEST_F(MaintenanceAt, SaysWhatIsNotInstalled) {
  const std::string message = "Ravok is not installed in " + place.data().native();
  expect(run({"uninstall"}), 1, "", message + "\n");
  expect(run({"uninstall", "--json"}), 1, problem("not_installed", message), message + "\n");
  EXPECT_FALSE(std::filesystem::exists(place.data()));
}

TEST_F(MaintenanceAt, SaysWhatIsNotFinished) {
  place.install();
  place.write(".ravok-setup-incomplete", "{}");
  expect(run({"status"}), 0, "Acme Games setup did not finish in " + place.data().native() + "; run repair.\n", "");
}

TEST_F(MaintenanceAt, DoesNothingButHelpWithinAnInstallThatIsNotFinished) {
  const std::filesystem::path program = place.root().directory("unfinished/bin") / "ravok-maintenance";
  std::filesystem::copy_file(RAVOK_MAINTENANCE, program);
  place.root().write("unfinished/.ravok-setup-incomplete", "{}");
  const std::string message = "Ravok setup did not finish in " + (place.root() / "unfinished").native() +
                              ". Run the Ravok installer again to repair it.";
  const auto run_there = [&](const std::vector<std::string>& arguments) {
    return run_program({program, arguments, {{"HOME", place.home()}}, ""});
  };
  for (const char* command : {"status", "install"}) {
    expect(run_there({command}), 1, "", message + "\n");
    expect(run_there({command, "--json"}), 1, problem("native_install_incomplete", message), message + "\n");
  }
  expect(run_there({"--help"}), 0, setup_usage("ravok-maintenance", false), "");
}

// A removal waits for a running client, whose part the test plays, and asks for the request to stop meanwhile.
TEST_F(MaintenanceAt, EndsWithFourWhenItIsInterruptedBeforeItRemovesAnything) {
  place.install(true);
  const testing::TreeState before = testing::without(place.state(), {".ravok-setup.lock"});
  const NativeFileLock running(place.paths().bootstrap_lock, true, NativeLockSharing::none, LockMode::exclusive);
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe(ends.data()), 0);
  const Handle reader(ends[0]);
  const Handle writer(ends[1]);
  ASSERT_EQ(fcntl(writer.get(), F_SETFD, FD_CLOEXEC), 0);
  for (const bool json : {false, true}) {
    ASSERT_EQ(write(writer.get(), "\1", 1), 1);
    std::vector<std::string> arguments = {"uninstall", "--data-dir", place.data()};
    if (json) {
      arguments.emplace_back("--json");
    }
    const ProgramResult result =
        run_program({RAVOK_MAINTENANCE,
                     arguments,
                     {{"HOME", place.home()}, {"RAVOK_LAUNCHER_INTERRUPT_READER", "1:" + std::to_string(ends[0])}},
                     ""});
    expect(result, 4, json ? problem("cancelled", "Setup was cancelled") : "", "Setup was cancelled\n");
    EXPECT_EQ(testing::without(place.state(), {".ravok-setup.lock"}), before);
    EXPECT_TRUE(std::filesystem::exists(place.entry()));
  }
}

TEST(Maintenance, EndsAtOnceForAChannelThatIsWrong) {
  const ProgramResult result = run_program(
      {RAVOK_MAINTENANCE, {"--help"}, {{"HOME", "/nowhere"}, {"RAVOK_LAUNCHER_INTERRUPT_READER", "2:7"}}, ""});
  EXPECT_EQ(result.signal, SIGABRT);
  EXPECT_EQ(result.output, "");
}

TEST(Maintenance, EndsAtOnceForMoreArgumentsThanItReads) {
  EXPECT_EQ(maintenance(std::vector<std::string>(256, "--json")).exit_code, 2);
  const ProgramResult result = maintenance(std::vector<std::string>(257, "--json"));
  EXPECT_EQ(result.signal, SIGABRT);
  EXPECT_EQ(result.output, "");
}

}  // namespace
}  // namespace ravok
