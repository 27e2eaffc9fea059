// What the programs do when they are told to end, and when nobody reads what they write.

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/file/native_lock.hpp"
#include "programs/installer_place.hpp"
#include "programs/started_program.hpp"
#include "support/temporary_root.hpp"

namespace ravok {
namespace {

using testing::ProgramResult;
using testing::ProgramStart;
using testing::run_program;
using testing::StartedProgram;
using Arguments = std::vector<std::string>;

const std::string verifying = "Verifying…\n";
const std::string installing = "Installing…\n";

class SignalledInstaller : public ::testing::Test, protected testing::InstallerPlace {
 protected:
  // The installer, which can announce its first phase and not its second.
  ProgramStart held(const std::vector<int>& ignored = {}) const {
    return {.program = program(),
            .arguments = {"--data-dir", place.data()},
            .environment = environment(),
            .ignored = ignored,
            .error_room = verifying.size()};
  }
  // Waits until the installation is under way: from here on it has something to clean up.
  void wait_until_staged(StartedProgram& installer) const {
    EXPECT_TRUE(installer.wait_until_full());
    while (!std::filesystem::exists(place.paths().staging) && !installer.has_ended()) {
    }
    EXPECT_FALSE(installer.has_ended());
  }
  void expect_installed() const {
    const ProgramResult result = run_program({program(), {"status", "--data-dir", place.data()}, environment(), ""});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.output,
              "Acme Games is installed in " + place.data().native() + " (bootstrap build-1, launcher build-1).\n");
    EXPECT_FALSE(std::filesystem::exists(place.paths().staging));
  }
  void remove_installation() const {
    std::filesystem::remove_all(place.data());
    std::filesystem::remove_all(place.home() / ".local/share/applications");
  }
};

TEST_F(SignalledInstaller, EndsWithFourAndLeavesNothingWhenItIsToldToEnd) {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    StartedProgram installer(held());
    wait_until_staged(installer);
    installer.send_signal(signal);
    EXPECT_EQ(installer.errors(), verifying + installing + "Setup was cancelled\n") << signal;
    EXPECT_EQ(installer.output(), "");
    EXPECT_EQ(installer.wait(), 4) << signal;
    expect_nothing_left();
  }
  EXPECT_EQ(run_program({program(), {"--data-dir", place.data()}, environment(), ""}).exit_code, 0);
  expect_installed();
}

TEST_F(SignalledInstaller, GoesOnAfterASignalThatItWasStartedToIgnore) {
  for (const int signal : {SIGHUP, SIGTERM}) {
    StartedProgram installer(held({signal}));
    wait_until_staged(installer);
    installer.send_signal(signal);
    EXPECT_EQ(installer.errors(), verifying + installing);
    EXPECT_EQ(installer.output(), "Installed Acme Games in " + place.data().native() + ".\n");
    EXPECT_EQ(installer.wait(), 0) << signal;
    expect_installed();
    remove_installation();
  }
}

TEST_F(SignalledInstaller, GoesOnWhenNobodyHearsOfItsProgress) {
  StartedProgram installer(held());
  wait_until_staged(installer);
  installer.close_errors();
  EXPECT_EQ(installer.output(), "Installed Acme Games in " + place.data().native() + ".\n");
  EXPECT_EQ(installer.wait(), 0);
  expect_installed();
}

TEST_F(SignalledInstaller, SaysSoWhenNobodyReadsItsResult) {
  for (const Arguments& arguments : {Arguments{}, Arguments{"--json"}, Arguments{"status"}}) {
    ProgramStart start = held();
    start.arguments.insert(start.arguments.end(), arguments.begin(), arguments.end());
    start.error_room = 4096;
    std::filesystem::remove_all(place.data());
    start.output_is_read = false;
    StartedProgram installer(start);
    EXPECT_TRUE(installer.errors().ends_with("Cannot write to standard output\n"));
    EXPECT_EQ(installer.wait(), 1);
    if (arguments != Arguments{"status"}) {
      expect_installed();
    }
  }
}

TEST_F(SignalledInstaller, SaysSoAndLeavesNothingWhenItsFilesMayNotGrow) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizer writes files of its own before the program starts";
#endif
  int refused = 0;
  int installed = 0;
  for (const std::size_t limit : {0u, 1u, 64u, 512u, 1024u, 4096u, 16384u, 65536u, 1048576u}) {
    ProgramStart start = held();
    start.arguments.emplace_back("--json");
    start.file_size_limit = limit;
    start.error_room = 4096;
    StartedProgram installer(start);
    const Json document = Json::parse(installer.output());
    const int code = installer.wait();
    if (code == 0) {
      ++installed;
      expect_installed();
      remove_installation();
      continue;
    }
    ++refused;
    EXPECT_EQ(code, 1) << limit;
    const std::string problem = text_at(document.at("problem"), "code");
    EXPECT_TRUE(problem == "file_write" || problem == "space_reservation") << limit << document;
    EXPECT_EQ(installer.errors(), document.at("problem").at("message").get<std::string>() + "\n");
    expect_nothing_left();
  }
  EXPECT_GT(refused, 0);
  EXPECT_GT(installed, 0);
}

// The removal waits for a running client, whose part the test plays.
TEST(SignalledMaintenance, EndsWithFourAndRemovesNothingWhenItIsToldToEnd) {
  const testing::InstallPlace place;
  place.install(true);
  const testing::TreeState before = testing::without(place.state(), {".ravok-setup.lock"});
  const NativeFileLock running(place.paths().bootstrap_lock, true, NativeLockSharing::none, LockMode::exclusive);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    StartedProgram maintenance({.program = RAVOK_MAINTENANCE,
                                .arguments = {"uninstall", "--data-dir", place.data()},
                                .environment = {{"HOME", place.home()}}});
    // SIGHUP is the last of the three signals that the program handles.
    while (!maintenance.catches(SIGHUP) && !maintenance.has_ended()) {
    }
    maintenance.send_signal(signal);
    EXPECT_EQ(maintenance.errors(), "Setup was cancelled\n") << signal;
    EXPECT_EQ(maintenance.wait(), 4) << signal;
    EXPECT_EQ(testing::without(place.state(), {".ravok-setup.lock"}), before);
  }
}

// The publisher packs a tree so large that it is still at work when a signal comes.
class SignalledPublisher : public ::testing::Test {
 protected:
  SignalledPublisher() {
    std::filesystem::permissions(root.write("tree/program", "#!program"), std::filesystem::perms(0755));
    std::filesystem::permissions(root.write("tree/large", ""), std::filesystem::perms(0644));
  }
  ProgramStart start() const {
    return {
        .program = RAVOK_PUBLISH,
        .arguments = {"snapshot", root / "tree", "--kind", "game", "--build-id", "build-1", "--executable", "program",
                      "--game-id", "game", "--display-name", "The Game", "--level", "1", "--output", output},
        .environment = {}};
  }

  const testing::TemporaryRoot root;
  const std::filesystem::path output = root.directory("output");
};

TEST_F(SignalledPublisher, EndsWithFourAndLeavesNothingWhenItIsToldToEnd) {
  std::filesystem::resize_file(root / "tree/large", std::uint64_t{1} << 36);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    StartedProgram publisher(start());
    while (std::filesystem::is_empty(output) && !publisher.has_ended()) {
    }
    publisher.send_signal(signal);
    EXPECT_EQ(publisher.wait(), 4) << signal;
    EXPECT_EQ(publisher.output(), "");
    EXPECT_EQ(publisher.errors(), "Operation cancelled at a safe boundary\n");
    EXPECT_TRUE(std::filesystem::is_empty(output));
  }
}

TEST_F(SignalledPublisher, SaysSoAndLeavesNothingWhenItsFilesMayNotGrow) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizer writes files of its own before the program starts";
#endif
  std::filesystem::resize_file(root / "tree/large", 1 << 20);
  for (const std::size_t limit : {0u, 64u}) {
    ProgramStart limited = start();
    limited.file_size_limit = limit;
    StartedProgram publisher(limited);
    EXPECT_EQ(publisher.output(), "");
    EXPECT_NE(publisher.errors(), "");
    EXPECT_EQ(publisher.wait(), 1) << limit;
    EXPECT_TRUE(std::filesystem::is_empty(output));
  }
}

TEST_F(SignalledPublisher, SaysSoWhenNobodyReadsItsResult) {
  for (const Arguments& arguments : {Arguments{"--help"}, start().arguments}) {
    ProgramStart unheard = start();
    unheard.arguments = arguments;
    unheard.output_is_read = false;
    StartedProgram publisher(unheard);
    EXPECT_EQ(publisher.errors(), "Cannot write to standard output\n");
    EXPECT_EQ(publisher.wait(), 1);
  }
}

}  // namespace
}  // namespace ravok
