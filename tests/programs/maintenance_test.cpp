// ravok-maintenance as a user meets it: a process with arguments, two streams and an exit code.

#include <csignal>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "app/setup_command.hpp"
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
               {{"\xff\xfe"}, "Unknown command: \xff\xfe"},
               {{"--\xff"}, "Unknown option: --\xff"},
               {{"--json", "status", "--\xff"}, "Unknown option: --\xff"},
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
    const ProgramResult result = run_program({RAVOK_MAINTENANCE, {"--json", "--help"}, environment, ""});
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

TEST(Maintenance, EndsAtOnceForMoreArgumentsThanItReads) {
  EXPECT_EQ(maintenance(std::vector<std::string>(256, "--json")).exit_code, 2);
  const ProgramResult result = maintenance(std::vector<std::string>(257, "--json"));
  EXPECT_EQ(result.signal, SIGABRT);
  EXPECT_EQ(result.output, "");
}

}  // namespace
}  // namespace ravok
