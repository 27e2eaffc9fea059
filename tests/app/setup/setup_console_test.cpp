#include "app/setup/setup_console.hpp"

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "app/brand/brand.hpp"
#include "support/install_place.hpp"
#include "support/ordinary_user.hpp"
#include "support/with_environment.hpp"
#include "support/working_directory.hpp"

namespace ravok::setup_console_test {
namespace {

using testing::InstallPlace;
using Arguments = std::vector<std::string>;

struct Outcome {
  int code;
  std::string output;
  std::string errors;
};

Outcome run(const std::vector<std::string>& arguments, std::string_view program = "ravok-maintenance",
            std::string_view seal = "", const std::function<bool()>& cancel = {}) {
  ::testing::internal::CaptureStdout();
  ::testing::internal::CaptureStderr();
  const int code = run_setup_console(arguments, program, seal, cancel);
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
  const testing::WithEnvironment home("HOME", std::nullopt);
  // What is wrong with the command line comes after it. A value is no option.
  for (const Arguments& arguments :
       {Arguments{"--json", "status"}, {"--json", "--bogus"}, {"--help", "bogus"}, {"--data-dir", "--help"}}) {
    const Outcome result = run(arguments);
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors, "HOME must identify an absolute user directory\n");
  }
}

TEST(RunSetupConsole, PrintsHelpWithoutAHome) {
  const std::string usage = run({"--help"}).output;
  for (const std::optional<std::string>& value : {std::optional<std::string>(), {""}, {"relative"}}) {
    const testing::WithEnvironment home("HOME", value);
    for (const Arguments& arguments : {Arguments{"--help"}, {"-h"}, {"status", "--json", "--help"}}) {
      const Outcome result = run(arguments);
      EXPECT_EQ(result.code, 0);
      EXPECT_EQ(result.output, usage);
      EXPECT_EQ(result.errors, "");
    }
  }
}

// The installer and the maintenance program in one home.
class SetupConsole : public ::testing::Test {
 protected:
  ~SetupConsole() override {
    set_product_name("Ravok");
    set_product_icon({});
  }

  Outcome installer(std::vector<std::string> arguments, const std::function<bool()>& cancel = {}) const {
    arguments.insert(arguments.end(), {"--package", place.package_directory()});
    return run(arguments, "ravok-install", place.seal(), cancel);
  }
  std::filesystem::path default_folder(const std::string& name) const { return place.home() / ".local/share" / name; }
  static void expect(const Outcome& outcome, int code, const std::string& output, const std::string& errors) {
    EXPECT_EQ(outcome.code, code);
    EXPECT_EQ(outcome.output, output);
    EXPECT_EQ(outcome.errors, errors);
  }
  static std::string problem(const std::string& code, const std::string& message) {
    return Json{{"schema_version", 1}, {"problem", {{"code", code}, {"message", message}}}}.dump() + "\n";
  }
  void expect_nothing_installed() const { EXPECT_EQ(place.root().names(), before); }

  InstallPlace place;
  const std::vector<std::string> before = place.root().names();
};

TEST_F(SetupConsole, InstallsABrandIntoAFolderOfItsName) {
  const std::string folder = default_folder("Acme Games");
  expect(installer({}), 0, "Installed Acme Games in " + folder + ".\n", "Verifying…\nInstalling…\n");
  EXPECT_TRUE(std::filesystem::exists(folder + "/native/installation.json"));
  EXPECT_FALSE(std::filesystem::exists(default_folder("Ravok")));
  EXPECT_EQ(product_name(), "Acme Games");
}

TEST_F(SetupConsole, InstallsIntoItsOwnFolderWithoutABrand) {
  place.package.brand.reset();
  place.republish();
  const std::string folder = default_folder("Ravok");
  expect(installer({"install"}), 0, "Installed Ravok in " + folder + ".\n", "Verifying…\nInstalling…\n");
  EXPECT_TRUE(std::filesystem::exists(folder + "/native/installation.json"));
}

TEST_F(SetupConsole, InstallsIntoTheFolderThatWasChosenWhateverTheBrand) {
  expect(installer({"--data-dir", place.data()}), 0, "Installed Acme Games in " + place.data().native() + ".\n",
         "Verifying…\nInstalling…\n");
  EXPECT_FALSE(std::filesystem::exists(default_folder("Acme Games")));
}

TEST_F(SetupConsole, SaysNothingOfProgressUnderJson) {
  const Outcome installed = installer({"--json", "--data-dir", place.data()});
  expect(installed, 0,
         Json{{"schema_version", 1},
              {"installed", true},
              {"repaired", false},
              {"data_root", place.data()},
              {"bootstrap", place.data() / "native/bootstrap/bin/ravok-bootstrap"},
              {"replaced", {"bootstrap", "launcher", "trust"}},
              {"shortcuts", Json::array()},
              {"shortcut_problem", nullptr}}
                 .dump() +
             "\n",
         "");
}

TEST_F(SetupConsole, SpeaksInTheNameOfWhatIsInstalled) {
  place.install();
  const std::string data = place.data();
  const std::vector<std::string> folder = {"--data-dir", data};
  const auto maintenance = [&](std::vector<std::string> arguments) {
    set_product_name("Ravok");
    arguments.insert(arguments.end(), folder.begin(), folder.end());
    return run(arguments);
  };
  expect(maintenance({"status"}), 0, "Acme Games is installed in " + data + " (bootstrap build-1, launcher build-1).\n",
         "");
  expect(maintenance({"shortcut", "create"}), 0, "Created 1 shortcut(s).\n", "");
  expect(maintenance({"shortcut", "remove"}), 0, "Removed 1 shortcut(s).\n", "");
  expect(installer({"repair", "--data-dir", data}), 0,
         "Repaired Acme Games in " + data + ". Everything was already intact.\n", "Verifying…\n");
  expect(maintenance({"uninstall"}), 0, "Removed Acme Games from " + data + ".\n", "Removing…\n");
  expect(maintenance({"status"}), 0, "Ravok is not installed in " + data + ".\n", "");
}

TEST_F(SetupConsole, IsNotStoppedByADamagedTheme) {
  place.install();
  const std::string data = place.data();
  std::filesystem::remove(place.data() / "native/theme/plain.ttf");
  expect(run({"status", "--data-dir", data}), 0,
         "Acme Games is installed in " + data + " (bootstrap build-1, launcher build-1).\n", "");
  place.write("native/theme/theme.json", "{");
  expect(run({"shortcut", "create", "--data-dir", data}), 0, "Created 1 shortcut(s).\n", "");
  expect(run({"uninstall", "--data-dir", data}), 0, "Removed Acme Games from " + data + ".\n", "Removing…\n");
}

TEST_F(SetupConsole, AsksForThePackageThatDoesNotLieBesideIt) {
  const std::string message = "Choose the initial package with --package DIR";
  for (const char* command : {"install", "repair"}) {
    expect(run({command}, "ravok-install", place.seal()), 2, "", message + "\n");
    expect(run({command, "--json"}, "ravok-install", place.seal()), 2, problem("usage", message), message + "\n");
  }
  expect_nothing_installed();
}

TEST_F(SetupConsole, AsksForThePackageInTheNameOfTheInstalledBrand) {
  place.install();
  expect(run({"repair", "--data-dir", place.data()}, "ravok-install", place.seal()), 2, "",
         "Choose the initial package with --package DIR\n");
  EXPECT_EQ(product_name(), "Acme Games");
}

TEST_F(SetupConsole, RefusesAPackageThatItIsNotSealedFor) {
  const std::string unsealed = "This installer has no package seal; build it with RAVOK_INITIAL_PACKAGE_SHA256";
  const std::string other = "This package is not the one this installer was built for";
  const std::vector<std::string> arguments = {"--json", "--package", place.package_directory()};
  expect(run(arguments, "ravok-install"), 1, problem("native_install_trust", unsealed), unsealed + "\n");
  expect(run(arguments, "ravok-install", std::string(64, 'a')), 1, problem("native_install_trust", other),
         other + "\n");
  expect_nothing_installed();
}

TEST_F(SetupConsole, EndsWithFourWhenTheUserCancels) {
  const auto cancel = [] { return true; };
  expect(installer({}, cancel), 4, "", "Verifying…\nSetup was cancelled\n");
  expect(installer({"--json"}, cancel), 4, problem("cancelled", "Setup was cancelled"), "Setup was cancelled\n");
  expect_nothing_installed();
}

TEST_F(SetupConsole, PassesAFailureOfTheCancelCallableOn) {
  expect(installer({"--json"}, []() -> bool { fail("launcher_control", "Cannot read the channel"); }), 1,
         problem("launcher_control", "Cannot read the channel"), "Cannot read the channel\n");
  expect_nothing_installed();
}

TEST_F(SetupConsole, FailsInTheWordsOfTheOperation) {
  const std::string message = "Ravok is not installed in " + place.data().native();
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"uninstall"}, {"shortcut", "create"}, {"shortcut", "remove"}}) {
    std::vector<std::string> whole = arguments;
    whole.insert(whole.end(), {"--data-dir", place.data()});
    expect(run(whole), 1, "", message + "\n");
    whole.emplace_back("--json");
    expect(run(whole), 1, problem("not_installed", message), message + "\n");
  }
  expect_nothing_installed();
}

TEST_F(SetupConsole, PrintsNoDocumentForAnExceptionThatIsNotItsOwn) {
  // A relative folder has no absolute path where there is no current directory.
  const testing::WorkingDirectory working(place.root().directory("gone"));
  std::filesystem::remove(place.root() / "gone");
  std::string message;
  try {
    static_cast<void>(std::filesystem::absolute("relative"));
  } catch (const std::filesystem::filesystem_error& error) {
    message = error.what();
  }
  const Outcome outcome = run({"status", "--json", "--data-dir", "relative"});
  expect(outcome, 1, "", message + "\n");
}

TEST_F(SetupConsole, PrintsNoDocumentThatIsNotUtf8) {
  const std::string folder = place.root() / "\xff";
  const std::string shown = place.root() / "\\xff";
  expect(run({"status", "--data-dir", folder}), 0, "Ravok is not installed in " + shown + ".\n", "");
  const Outcome outcome = run({"status", "--json", "--data-dir", folder});
  EXPECT_EQ(outcome.code, 1);
  EXPECT_EQ(outcome.output, "");
  EXPECT_EQ(outcome.errors, "[json.exception.type_error.316] invalid UTF-8 byte at index " +
                                std::to_string(folder.size() - 1) + ": 0xFF\n");
}

TEST_F(SetupConsole, PrintsAProblemDocumentWhateverTheMessageHolds) {
  const auto expect_problem = [&](const std::string& name, const std::string& in_document, const std::string& shown) {
    const std::string message = "Ravok is not installed in " + place.root().path().native() + "/";
    expect(run({"uninstall", "--json", "--data-dir", place.root() / name}), 1,
           problem("not_installed", message + in_document), message + shown + "\n");
  };
  expect_problem("a\xff", "a\\xff", "a\\xff");
  expect_problem("\x1b[2J\xff", "\\x1b[2J\\xff", "\\x1b[2J\\xff");
  // A document holds text in UTF-8 as it is.
  expect_problem("a\x1b\xc2\x9b\xc3\xa4", "a\x1b\xc2\x9b\xc3\xa4", "a\\x1b\\xc2\\x9b\xc3\xa4");
  expect_nothing_installed();
}

// Root, in the home of another user or with a folder of that user's.
class ConsoleOfRoot : public SetupConsole {
 protected:
  void SetUp() override {
    if (!testing::is_root()) {
      GTEST_SKIP() << "only root writes among another user's files";
    }
  }
  static void give(const std::filesystem::path& path) { ASSERT_EQ(chown(path.c_str(), 65534, 65534), 0); }
  void expect_refused(const std::vector<std::string>& arguments, const std::string& message) const {
    expect(installer(arguments), 1, "", message + "\n");
    std::vector<std::string> json = arguments;
    json.emplace_back("--json");
    expect(installer(json), 1, problem("user_path", message), message + "\n");
  }
  // The commands that take no package, by the maintenance program.
  void expect_commands_refused(const std::vector<std::string>& folder, const std::string& message) const {
    for (std::vector<std::string> arguments :
         {std::vector<std::string>{"uninstall"}, {"shortcut", "create"}, {"shortcut", "remove"}}) {
      arguments.insert(arguments.end(), folder.begin(), folder.end());
      expect(run(arguments), 1, "", message + "\n");
    }
  }
  static constexpr const char* remedy = ", who could not use what root writes there; run this as that user, or name ";
};

TEST_F(ConsoleOfRoot, RefusesTheHomeOfAnotherUser) {
  give(place.home());
  expect(run({"status"}), 0, "Ravok is not installed in " + default_folder("Ravok").native() + ".\n", "");
  const std::string message = std::string("HOME is the home of another user") + remedy + "a folder with --data-dir";
  expect_refused({"install"}, message);
  expect_refused({"repair"}, message);
  expect_commands_refused({}, message);
  // A wrong command line is reported before anything else.
  expect(run({"install"}, "ravok-install", place.seal()), 2, "", "Choose the initial package with --package DIR\n");
  expect(run({"install"}), 2, "", "Use the Ravok installer to install or repair Ravok\n");
  EXPECT_EQ(run({"install", "--help"}).code, 0);
  expect_nothing_installed();
}

TEST_F(ConsoleOfRoot, RefusesAFolderOfAnotherUser) {
  const std::filesystem::path theirs = place.root().directory("theirs");
  give(theirs);
  for (const std::filesystem::path& folder : {theirs, theirs / "new/data"}) {
    const std::string message =
        theirs.native() + " belongs to another user" + remedy + "another folder with --data-dir";
    expect_refused({"install", "--data-dir", folder}, message);
    expect_refused({"repair", "--data-dir", folder}, message);
    expect_commands_refused({"--data-dir", folder}, message);
    EXPECT_EQ(run({"status", "--data-dir", folder}).code, 0);
  }
  EXPECT_TRUE(std::filesystem::is_empty(theirs));
}

TEST_F(ConsoleOfRoot, InstallsBesideTheMenuOfAnotherUser) {
  place.package.featured_game.reset();
  place.republish();
  give(place.home());
  const std::string data = place.data();
  const std::string message =
      "The application menu lies in " + place.home().native() + ", which belongs to another user";
  expect(installer({"--data-dir", data}), 0,
         "Installed Acme Games in " + data + ". The shortcut could not be created: " + message + ".\n",
         "Verifying…\nInstalling…\n");
  expect(run({"shortcut", "create", "--data-dir", data}), 1, "", message + "\n");
  EXPECT_TRUE(std::filesystem::is_empty(place.home()));
  expect(installer({"repair", "--data-dir", data, "--json"}).code == 0 ? run({"uninstall", "--data-dir", data})
                                                                       : Outcome{-1, "", ""},
         0, "Removed Acme Games from " + data + ".\n", "Removing…\n");
  EXPECT_TRUE(std::filesystem::is_empty(place.home()));
}

TEST_F(SetupConsole, RefusesAnOrdinaryUserNoFolder) {
  const testing::OrdinaryUser user(place.root());
  const testing::WithEnvironment home("HOME", "/");
  expect(run({"uninstall"}), 1, "", "Ravok is not installed in /.local/share/Ravok\n");
  expect(run({"uninstall", "--data-dir", "/new"}), 1, "", "Ravok is not installed in /new\n");
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
}  // namespace ravok::setup_console_test
