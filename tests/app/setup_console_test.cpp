#include "app/setup_console.hpp"

#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace ravok {
namespace {

struct Outcome {
  int code;
  std::string output;
  std::string errors;
};

Outcome run(const std::vector<std::string>& arguments, std::string_view program = "ravok-maintenance") {
  ::testing::internal::CaptureStdout();
  ::testing::internal::CaptureStderr();
  const int code = run_setup_console(arguments, program, "", {});
  return {code, ::testing::internal::GetCapturedStdout(), ::testing::internal::GetCapturedStderr()};
}

std::string announced(const NativeSetupCallbacks& callbacks, const std::vector<std::string>& phases) {
  ::testing::internal::CaptureStderr();
  std::uint64_t done = 0;
  for (const std::string& phase : phases) {
    callbacks.progress(phase, done++, 100);
  }
  return ::testing::internal::GetCapturedStderr();
}

TEST(RunSetupConsole, LetsOnlyTheInstallerInstallAndRepair) {
  for (const char* program : {"ravok-maintenance", "ravok-install-gui", "ravok-instal", "ravok-install2", ""}) {
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{}, {"install"}, {"repair"}, {"install", "--package", "x"}}) {
      const Outcome result = run(arguments, program);
      EXPECT_EQ(result.code, 2);
      EXPECT_EQ(result.output, "");
      EXPECT_EQ(result.errors, "Use the Ravok installer to install or repair Ravok\n");
    }
  }
}

TEST(RunSetupConsole, PrintsTheProblemDocumentUnderJson) {
  const Outcome result = run({"--json", "install"});
  EXPECT_EQ(result.code, 2);
  EXPECT_EQ(result.output,
            "{\"problem\":{\"code\":\"usage\",\"message\":\"Use the Ravok installer to install or repair "
            "Ravok\"},\"schema_version\":1}\n");
  EXPECT_EQ(result.errors, "Use the Ravok installer to install or repair Ravok\n");
}

TEST(RunSetupConsole, PrintsNoDocumentForABadCommandLine) {
  const Outcome result = run({"--json", "--bogus"});
  EXPECT_EQ(result.code, 2);
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(result.errors, "Unknown option: --bogus\n");
}

TEST(RunSetupConsole, EndsWithOneForABadGame) {
  const Outcome result = run({"--json", "shortcut", "create", "--game", "Game"});
  EXPECT_EQ(result.code, 1);
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(result.errors, "Game and build IDs use lower-case letters, digits, dots and hyphens\n");
}

TEST(RunSetupConsole, PrintsTheUsageOfTheProgram) {
  for (const char* option : {"--help", "-h"}) {
    const Outcome result = run({option});
    EXPECT_EQ(result.code, 0);
    EXPECT_TRUE(result.output.starts_with("Usage: ravok-maintenance [COMMAND]")) << result.output;
    EXPECT_EQ(result.output.find("install ["), result.output.find("uninstall [") + 2) << result.output;
    EXPECT_EQ(result.errors, "");
  }
  EXPECT_NE(run({"--help"}, "ravok-install").output.find("  install [--package DIR]"), std::string::npos);
}

TEST(RunSetupConsole, PrintsHelpForInstallWhateverTheProgram) {
  const Outcome result = run({"install", "--json", "--help"});
  EXPECT_EQ(result.code, 0);
  EXPECT_TRUE(result.output.starts_with("Usage: ")) << result.output;
}

TEST(RunSetupConsole, FailsWithoutAHomeBeforeJsonIsKnown) {
  const std::string before = std::getenv("HOME") ? std::getenv("HOME") : "/";
  unsetenv("HOME");
  const Outcome result = run({"--json", "status"});
  setenv("HOME", before.c_str(), 1);
  EXPECT_EQ(result.code, 1);
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(result.errors, "HOME must identify an absolute user directory\n");
}

TEST(RunSetupConsole, FailsForACommandThatThisBuildCannotRun) {
  const Outcome text = run({"status"});
  EXPECT_EQ(text.code, 1);
  EXPECT_EQ(text.output, "");
  EXPECT_EQ(text.errors, "This command is not available in this build of Ravok\n");
  EXPECT_EQ(run({"status", "--json"}).output,
            "{\"problem\":{\"code\":\"command_unavailable\",\"message\":\"This command is not available in this build "
            "of Ravok\"},\"schema_version\":1}\n");
}

TEST(ExitCode, LooksOnlyAtTheCode) {
  EXPECT_EQ(exit_code(Error("usage", "x")), 2);
  EXPECT_EQ(exit_code(Error("cancelled", "x")), 4);
  for (const char* code : {"", "Usage", "usage ", "busy", "unsafe_path"}) {
    EXPECT_EQ(exit_code(Error(code, "usage")), 1) << code;
  }
}

TEST(ConsoleCallbacks, AnnounceEachChangeOfPhaseOnce) {
  const NativeSetupCallbacks callbacks = console_callbacks(false, {});
  EXPECT_EQ(announced(callbacks, {"verifying", "verifying", "removing", "verifying", "installing", "installing"}),
            "Verifying…\nRemoving…\nVerifying…\nInstalling…\n");
}

TEST(ConsoleCallbacks, CallEveryOtherPhaseRemoving) {
  EXPECT_EQ(announced(console_callbacks(false, {}), {"tidying", "removing"}), "Removing…\nRemoving…\n");
}

TEST(ConsoleCallbacks, SayNothingForAnEmptyPhaseAtTheStart) {
  EXPECT_EQ(announced(console_callbacks(false, {}), {"", "verifying", ""}), "Verifying…\nRemoving…\n");
}

TEST(ConsoleCallbacks, ShareThePhaseBetweenCopies) {
  const NativeSetupCallbacks callbacks = console_callbacks(false, {});
  const NativeSetupCallbacks copy = callbacks;
  EXPECT_EQ(announced(callbacks, {"verifying"}), "Verifying…\n");
  EXPECT_EQ(announced(copy, {"verifying"}), "");
}

TEST(ConsoleCallbacks, StaySilentUnderJson) { EXPECT_FALSE(console_callbacks(true, {}).progress); }

TEST(ConsoleCallbacks, HandTheCancelCallableOn) {
  EXPECT_FALSE(console_callbacks(false, {}).cancelled);
  bool stop = false;
  const NativeSetupCallbacks callbacks = console_callbacks(true, [&stop] { return stop; });
  EXPECT_FALSE(callbacks.cancelled());
  stop = true;
  EXPECT_TRUE(callbacks.cancelled());
}

}  // namespace
}  // namespace ravok
