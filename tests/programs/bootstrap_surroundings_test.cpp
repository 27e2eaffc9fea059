// Starts of the client in strange surroundings: without streams, without a working directory, with few descriptors,
// with what an earlier launcher has left in the environment, and in a folder where nothing can be written.

#include <csignal>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "app/launcher/launcher_startup.hpp"
#include "domain/launcher_contract.hpp"
#include "programs/client_place.hpp"
#include "support/mounted_volume.hpp"
#include "support/on_a_terminal.hpp"
#include "support/ordinary_user.hpp"
#include "support/working_directory.hpp"

namespace ravok::testing::bootstrap_surroundings_test {
namespace {

class BootstrapSurroundings : public ::testing::Test {
 protected:
  // Makes a version the one that is started.
  Json use(const LauncherPrograms& programs) const {
    Json version = place.add("used", programs);
    place.name("active", version);
    return version;
  }
  // A program that leaves what it says in a file instead of on its streams.
  std::string noting() const { return "#!/bin/sh\necho \"noted:$*\" > '" + note.native() + "'\n"; }

  const ClientPlace place;
  const std::filesystem::path note = place.root / "note";
};

TEST_F(BootstrapSurroundings, AStartNeedsNoStandardStreams) {
  use({noting(), noting()});
  for (const ClientPlace::Arguments& arguments : {ClientPlace::Arguments{}, {"self", "status"}}) {
    ProgramStart start = place.start_of(arguments);
    start.closed = {0, 1, 2};
    EXPECT_EQ(StartedProgram(start).wait(), 0);
    EXPECT_EQ(bytes_of(note), place.says("noted", arguments.empty() ? "" : "self status"));
    std::filesystem::remove(note);
  }
}

TEST_F(BootstrapSurroundings, ATrialNeedsNoStandardStreams) {
  for (const ClientPlace::Arguments& arguments : {ClientPlace::Arguments{}, {"self", "status"}}) {
    const Json candidate =
        place.add(arguments.empty() ? "window" : "console", {bytes_of(RAVOK_LAUNCHER), bytes_of(RAVOK_LAUNCHER_GUI)});
    place.name("candidate", candidate);
    ProgramStart start = place.start_of(arguments);
    start.closed = {0, 1, 2};
    EXPECT_EQ(StartedProgram(start).wait(), 0);
    EXPECT_TRUE(place.is_active(candidate));
  }
}

// As after `stty tostop`. The launcher on trial is in a group of its own, and so in the background.
TEST_F(BootstrapSurroundings, ATrialMaySpeakOnATerminalThatStopsProgramsInTheBackground) {
  const Json candidate = place.add("candidate", {bytes_of(RAVOK_LAUNCHER), bytes_of(RAVOK_LAUNCHER_GUI)});
  place.name("candidate", candidate);
  const std::string data = place.data.native();
  const std::string home = "HOME=" + (place.root / "home").native();
  OnATerminal terminal([&] {
    termios mode{};
    bool is_set = tcgetattr(STDOUT_FILENO, &mode) == 0;
    mode.c_lflag |= TOSTOP;
    is_set = is_set && tcsetattr(STDOUT_FILENO, TCSANOW, &mode) == 0;
    // Nobody else would end it.
    alarm(60);
    const char* const arguments[] = {RAVOK_BOOTSTRAP, "--data-dir", data.c_str(), "self", "status", nullptr};
    const char* const environment[] = {home.c_str(), nullptr};
    return is_set ? execve(RAVOK_BOOTSTRAP, const_cast<char* const*>(arguments), const_cast<char* const*>(environment))
                  : 1;
  });
  EXPECT_EQ(terminal.end(), 0);
  EXPECT_NE(terminal.shown().find("On trial: "), std::string::npos) << terminal.shown();
  EXPECT_TRUE(place.is_active(candidate));
}

TEST_F(BootstrapSurroundings, AStartNeedsNoWorkingDirectory) {
  use(programs_saying("active"));
  const WorkingDirectory gone(place.root.directory("gone"));
  std::filesystem::remove(place.root / "gone");
  const ProgramResult result = place.run({"self", "status"});
  EXPECT_EQ(result.output, place.says("active console", "self status"));
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(result.exit_code, 0);
}

TEST_F(BootstrapSurroundings, ATrialKnowsTheEndOfItsLauncherWhereEndsOfChildrenAreIgnored) {
  const Json candidate = place.add("candidate", {bytes_of(RAVOK_LAUNCHER), bytes_of(RAVOK_LAUNCHER_GUI)});
  place.name("candidate", candidate);
  ProgramStart start = place.start_of({"self", "status"});
  start.ignored = {SIGCHLD};
  StartedProgram program(start);
  EXPECT_EQ(program.wait(), 0) << program.errors();
  EXPECT_TRUE(place.is_active(candidate));
}

TEST_F(BootstrapSurroundings, AnActiveVersionInheritsNoAuthorityOfAnEarlierTrial) {
  const std::string showing = "#!/bin/sh\nenv | grep '^RAVOK_LAUNCHER_' | sort\n";
  use({showing, showing});
  ClientPlace::Environment stale;
  for (const std::string_view variable : startup_variables) {
    stale.emplace(variable, std::string(32, 'a'));
  }
  const ProgramResult result = place.run({"self", "status"}, stale);
  EXPECT_EQ(result.output,
            "RAVOK_LAUNCHER_BUILD=\nRAVOK_LAUNCHER_DATA_ROOT=\nRAVOK_LAUNCHER_HEALTH_NONCE=\n"
            "RAVOK_LAUNCHER_INTERFACE=\nRAVOK_LAUNCHER_MANIFEST=\n");
  EXPECT_EQ(result.errors, "");

  // A real launcher takes the same for a start that is no trial.
  const ProgramResult real = [&] {
    const Json version = place.add("real", {bytes_of(RAVOK_LAUNCHER), bytes_of(RAVOK_LAUNCHER_GUI)});
    place.name("active", version);
    return place.run({"self", "status"}, stale);
  }();
  EXPECT_EQ(real.exit_code, 0) << real.errors;
}

TEST_F(BootstrapSurroundings, FewDescriptorsAreEnoughOrAreTold) {
  use(programs_saying("active"));
  bool was_enough = false;
  for (std::size_t descriptors = 4; descriptors <= 24; ++descriptors) {
    ProgramStart start = place.start_of({"self", "status"});
    start.descriptor_limit = descriptors;
    StartedProgram program(start);
    const std::string output = program.output();
    const std::string errors = program.errors();
    const bool is_enough = output == place.says("active console", "self status");
    EXPECT_EQ(program.wait() == 0, is_enough) << descriptors;
    EXPECT_EQ(errors == "", is_enough) << errors;
    EXPECT_TRUE(is_enough || !was_enough) << descriptors;
    was_enough = is_enough;
  }
  EXPECT_TRUE(was_enough);
}

TEST_F(BootstrapSurroundings, AnOwnerMayStartTheClientInAFolderWithoutPermissionToWrite) {
  use(programs_saying("active"));
  EXPECT_EQ(place.run({"self", "status"}).exit_code, 0);
  const OrdinaryUser user(place.root);
  const WithMode data(place.data, 0500);
  const WithMode launcher(place.paths.store, 0500);
  const ProgramResult console = place.run({"self", "status"});
  EXPECT_EQ(console.output + console.errors, place.says("active console", "self status"));
  EXPECT_EQ(console.exit_code, 0);
  const ProgramResult window = place.run({});
  EXPECT_EQ(window.output + window.errors, place.says("active window"));
  EXPECT_EQ(window.exit_code, 0);
}

TEST_F(BootstrapSurroundings, AReadOnlyVolumeTellsWhyNothingStarts) {
  const MountedVolume volume(place.root.directory("volume"), "tmpfs", "size=64m");
  if (!volume.mounted()) {
    GTEST_SKIP() << "mounting a volume needs user 0";
  }
  std::filesystem::create_directory(place.root / "volume/data");
  const ClientPlace there(place.root / "volume/data");
  there.name("active", there.add("used", programs_saying("active")));
  EXPECT_EQ(there.run({"self", "status"}).exit_code, 0);
  ASSERT_TRUE(volume.remount("ro"));
  for (const ClientPlace::Arguments& arguments : {ClientPlace::Arguments{}, {"self", "status"}}) {
    const ProgramResult refused = there.run(arguments);
    EXPECT_EQ(refused.output, "");
    EXPECT_EQ(refused.errors, "Native ownership requires an ordinary empty private file\n");
    EXPECT_EQ(refused.exit_code, 1);
  }
  ASSERT_TRUE(volume.remount("rw"));
}

TEST_F(BootstrapSurroundings, AFullVolumeStartsTheConsoleAndTellsWhyNoWindowOpens) {
  const MountedVolume volume(place.root.directory("volume"), "tmpfs", "size=64m");
  if (!volume.mounted()) {
    GTEST_SKIP() << "mounting a volume needs user 0";
  }
  std::filesystem::create_directory(place.root / "volume/data");
  const ClientPlace there(place.root / "volume/data");
  there.name("active", there.add("used", programs_saying("active")));
  EXPECT_EQ(there.run({"self", "status"}).exit_code, 0);
  std::ofstream(place.root / "volume/filling") << std::string(std::size_t{65} << 20, '.');
  const ProgramResult console = there.run({"self", "status"});
  EXPECT_EQ(console.output + console.errors, there.says("active console", "self status"));
  const ProgramResult window = there.run({});
  EXPECT_EQ(window.output, "");
  EXPECT_EQ(window.errors,
            "ravok: launcher version unusable (insufficient_space): Local storage cannot save data; free space and try "
            "again\nLocal storage cannot save data; free space and try again\n");
  EXPECT_EQ(window.exit_code, 1);
}

TEST_F(BootstrapSurroundings, AFolderThatIsMovedAwayStaysAway) {
  const Json version = place.add("used", troubled_programs());
  place.name("candidate", version);
  const std::filesystem::path moved = place.root / "moved";
  // While the client waits for a launcher that has proved itself.
  const auto launcher = place.start_troubled("stay");
  wait_until([&] { return place.is_active(version); });
  std::filesystem::rename(place.data, moved);
  launcher->send_signal(SIGINT);
  EXPECT_EQ(launcher->errors(), "Cancelled\n");
  EXPECT_EQ(launcher->wait(), 4);
  EXPECT_FALSE(std::filesystem::exists(place.data));
  std::filesystem::rename(moved, place.data);

  // While a start waits for a setup.
  const auto setup = std::make_unique<NativeFileLock>(DataPaths(place.data).bootstrap_lock, false,
                                                      NativeLockSharing::none, LockMode::exclusive);
  const OpenedFile lock(DataPaths(place.data).bootstrap_lock);
  const auto start = place.start({"self", "status"});
  lock.wait(4);
  std::filesystem::rename(place.data, moved);
  EXPECT_EQ(start->errors(), "Ravok is not installed in " + place.data.native() + "\n");
  EXPECT_EQ(start->wait(), 1);
  EXPECT_FALSE(std::filesystem::exists(place.data));
}

}  // namespace
}  // namespace ravok::testing::bootstrap_surroundings_test
