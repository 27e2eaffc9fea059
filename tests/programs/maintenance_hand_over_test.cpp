// ravok-maintenance as a client that hands over to it starts it.

#include <csignal>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "app/launcher/launcher_store.hpp"
#include "app/maintenance/maintenance_runtime.hpp"
#include "app/setup/setup_command.hpp"
#include "platform/file/native_lock.hpp"
#include "platform/process/child_process.hpp"
#include "support/fast_volume.hpp"
#include "support/install_place.hpp"
#include "support/launcher_release.hpp"
#include "support/process.hpp"

namespace ravok::maintenance_hand_over_test {
namespace {

using testing::InstallPlace;
using testing::ProgramResult;
using testing::TemporaryRoot;
using testing::TreeState;

using Names = std::vector<std::string>;

// A temporary copy of the program, with a file beside it and one beside its folder.
class MaintenanceCopy : public ::testing::Test {
 protected:
  MaintenanceCopy() {
    std::filesystem::copy_file(RAVOK_MAINTENANCE, folder / "ravok-maintenance");
    root.write("ravok-maintenance-1/library", "of the copy");
    root.write("beside", "of somebody");
  }

  ProgramResult run(const std::vector<std::string>& arguments, std::map<std::string, std::string> environment) const {
    environment.emplace("HOME", root / "home");
    return testing::run_program({folder / "ravok-maintenance", arguments, environment, ""});
  }

  // Everything there but the bytes of the program, which take long to read.
  Names state() const {
    Names state = root.names();
    state.push_back(root.read("beside"));
    state.push_back(root.read("ravok-maintenance-1/library"));
    return state;
  }

  const TemporaryRoot root{testing::fast_volume()};
  const std::filesystem::path folder = root.directory("ravok-maintenance-1");
};

TEST_F(MaintenanceCopy, GoesWithTheProgramAfterItsOutput) {
  const ProgramResult result = run({"--help"}, {{"RAVOK_MAINTENANCE_COPY", folder}});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.output, setup_usage("ravok-maintenance", false));
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(root.names(), (Names{"beside"}));
}

TEST_F(MaintenanceCopy, GoesAlsoWhenTheCommandFails) {
  const ProgramResult result = run({"install"}, {{"RAVOK_MAINTENANCE_COPY", folder}});
  EXPECT_EQ(result.exit_code, 2);
  EXPECT_EQ(result.errors, "Use the Ravok installer to install or repair Ravok\n");
  EXPECT_EQ(root.names(), (Names{"beside"}));
}

TEST_F(MaintenanceCopy, RemovesTheInstallationAndThenItself) {
  InstallPlace place;
  place.install();
  place.write_player_data();
  const TreeState player_data = place.player_data();
  const ProgramResult result = run({"uninstall", "--data-dir", place.data(), "--json"},
                                   {{"RAVOK_MAINTENANCE_COPY", folder}, {"HOME", place.home()}});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(place.state(), player_data);
  EXPECT_EQ(root.names(), (Names{"beside"}));
}

TEST_F(MaintenanceCopy, StaysWithoutAHandOver) {
  const Names before = state();
  for (const std::map<std::string, std::string>& environment :
       {std::map<std::string, std::string>{},
        {{"RAVOK_MAINTENANCE_COPY", ""}, {"RAVOK_MAINTENANCE_READY", ""}},
        {{"RAVOK_MAINTENANCE_READY", root / "ready"}}}) {
    EXPECT_EQ(run({"--help"}, environment).exit_code, 0);
    EXPECT_EQ(state(), before);
  }
}

TEST_F(MaintenanceCopy, IsTheOnlyFolderThatTheProgramRemoves) {
  std::filesystem::create_directory_symlink("ravok-maintenance-1", root / "ravok-maintenance-link");
  root.directory("ravok-maintenance-2");
  const Names before = state();
  for (const std::filesystem::path& forged :
       {root.path(), root / "ravok-maintenance-2", root / "ravok-maintenance-link", folder / "", folder / ".",
        folder / "..", root / "beside/../ravok-maintenance-1", std::filesystem::path("ravok-maintenance-1")}) {
    const ProgramResult result = run({"--help"}, {{"RAVOK_MAINTENANCE_COPY", forged}});
    // No command was read yet, so the failure is nobody's to print.
    EXPECT_EQ(result.signal, SIGABRT) << forged;
    EXPECT_EQ(result.output, "");
    EXPECT_NE(result.errors.find("Maintenance helper copy path is invalid"), std::string::npos) << result.errors;
    EXPECT_EQ(state(), before);
  }
}

// An installation whose launcher has the program as its helper.
class MaintenanceHelper : public ::testing::Test {
 protected:
  MaintenanceHelper() {
    testing::LauncherPrograms programs;
    programs.maintenance = testing::bytes_of(RAVOK_MAINTENANCE);
    testing::use_launcher(place.package, testing::publish_launcher(root, "1.0.0", programs, "first"));
    place.republish();
    place.install();
    place.write_player_data();
  }

  std::unique_ptr<MaintenanceRuntime> prepare() const {
    const LauncherStore store(place.data());
    return MaintenanceRuntime::prepare(store, current_build(store.status()), "maintenance", root / "copies");
  }
  static std::uint64_t run(MaintenanceRuntime& runtime, const std::vector<std::string>& arguments) {
    const auto child = runtime.launch_console(arguments);
    for (;;) {
      if (const auto code = child->poll()) {
        return *code;
      }
    }
  }

  const TemporaryRoot root{testing::fast_volume()};
  InstallPlace place;
};

TEST_F(MaintenanceHelper, RemovesTheInstallationThatItRunsFrom) {
  const TreeState player_data = place.player_data();
  const std::unique_ptr<MaintenanceRuntime> runtime = prepare();
  ::testing::internal::CaptureStdout();
  const std::uint64_t code = run(*runtime, {"uninstall", "--data-dir", place.data(), "--json"});
  const Json result = Json::parse(::testing::internal::GetCapturedStdout());
  EXPECT_EQ(code, 0u);
  EXPECT_EQ(result.at("data_removed"), false);
  EXPECT_EQ(place.state(), player_data);
}

TEST_F(MaintenanceHelper, LeavesTheInstallationThatAnotherSetupWorksOn) {
  const std::unique_ptr<MaintenanceRuntime> runtime = prepare();
  const NativeFileLock held(place.paths().setup_lock, true, NativeLockSharing::others, LockMode::exclusive);
  const TreeState before = place.state();
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(run(*runtime, {"uninstall", "--data-dir", place.data()}), 1u);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "Another worker owns this native installation\n");
  EXPECT_EQ(place.state(), before);
}

}  // namespace
}  // namespace ravok::maintenance_hand_over_test
