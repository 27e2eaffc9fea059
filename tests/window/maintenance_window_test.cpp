// ravok-maintenance-gui: the window in which a client is removed, as a client that hands over to it starts it.

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "app/install/native_install.hpp"
#include "app/launcher/launcher_store.hpp"
#include "app/maintenance/maintenance_runtime.hpp"
#include "platform/process/child_process.hpp"
#include "support/bytes_of.hpp"
#include "support/failure.hpp"
#include "support/launcher_release.hpp"
#include "support/process.hpp"
#include "support/with_environment.hpp"
#include "window/window_place.hpp"

namespace ravok::maintenance_window_test {
namespace {

using testing::HeldCall;
using testing::ShownWindow;
using testing::TreeState;
using testing::WindowProgram;

// However long a slow machine takes, in milliseconds.
constexpr std::uint64_t endless = 600'000;

class MaintenanceWindow : public ::testing::Test, protected testing::WindowPlace {
 protected:
  MaintenanceWindow() {
    player = place.write_player_data();
    place.install(true);
  }

  std::unique_ptr<WindowProgram> start_maintenance(const testing::Environment& more = {}) {
    return start_program(RAVOK_MAINTENANCE_GUI, {"--data-dir", place.data()}, more);
  }
  void expect_removed() const {
    EXPECT_TRUE(testing::same_tree(place.state(), player));
    EXPECT_FALSE(std::filesystem::exists(place.entry()));
  }

  TreeState player;
};

TEST_F(MaintenanceWindow, RemovesTheClientAndKeepsTheSaves) {
  auto window = start_maintenance();
  const ShownWindow shown = window->wait_for_screen("remove");
  EXPECT_FALSE(shown.find("remove_data")->checked);
  window->picture("maintenance-remove");
  window->click("remove");
  window->wait_for_screen("removed");
  window->picture("maintenance-removed");
  window->click("close");
  EXPECT_EQ(window->wait(), 0) << window->errors();
  EXPECT_EQ(window->errors(), "");
  expect_removed();
}

TEST_F(MaintenanceWindow, RemovesTheSavesTooWhereThatIsTicked) {
  auto window = start_maintenance();
  window->click("remove_data");
  window->wait_for("the tick", [](const ShownWindow& shown) { return shown.find("remove_data")->checked; });
  window->tab_to("remove");
  window->press("Return");
  window->wait_for_screen("removed");
  window->press("Escape");
  EXPECT_EQ(window->wait(), 0) << window->errors();
  EXPECT_FALSE(std::filesystem::exists(place.data()));
}

TEST_F(MaintenanceWindow, RemovesNothingWhenItIsClosed) {
  const TreeState whole = place.state();
  for (const char* const way : {"close", "Escape", ""}) {
    auto window = start_maintenance();
    window->wait_for_screen("remove");
    if (*way == '\0') {
      window->ask_to_close();
    } else if (std::string(way) == "close") {
      window->click("close");
    } else {
      window->press(way);
    }
    EXPECT_EQ(window->wait(), 0) << way;
    EXPECT_TRUE(testing::same_tree(place.state(), whole));
  }
}

TEST_F(MaintenanceWindow, DrawsOnWhileItsWorkerIsHeldAndEndsTheRemovalWhateverComes) {
  for (const int way : {0, 1, SIGTERM}) {
    HeldCall held("unlinkat", "bootstrap.json");
    auto window = start_maintenance(held.environment());
    window->click("remove");
    held.wait([&] { return window->has_ended(); });
    window->wait_for_screen("working");
    if (way == 1) {
      window->ask_to_close();
    } else if (way == SIGTERM) {
      window->send_signal(SIGTERM);
    }
    if (way != 0) {
      window->wait_for("the wish to stop", [](const ShownWindow& shown) { return !shown.offers("cancel"); });
    }
    window->wait_for_frames(5);
    held.release();
    if (way == 0) {
      window->wait_for_screen("removed");
      window->click("close");
    }
    EXPECT_EQ(window->wait(), 0) << way << window->errors();
    expect_removed();
    place.install(true);
  }
}

TEST_F(MaintenanceWindow, EndsByItselfWhenItsDisplayEndsAndTheNextFinishes) {
  testing::Display own;
  HeldCall held("unlinkat", "bootstrap.json");
  testing::Environment environment = held.environment();
  environment["DISPLAY"] = own.name();
  WindowProgram window(own, {.program = RAVOK_MAINTENANCE_GUI,
                             .arguments = {"--data-dir", place.data()},
                             .environment = testing::window_environment(own, place.home(), environment)});
  window.click("remove");
  held.wait([&] { return window.has_ended(); });
  own.crash();
  held.release();
  EXPECT_GE(window.wait(), 0);
  if (std::filesystem::exists(place.paths().native)) {
    auto next = start_maintenance();
    next->click("remove");
    next->wait_for_screen("removed");
    next->click("close");
    EXPECT_EQ(next->wait(), 0);
  }
  expect_removed();
}

TEST_F(MaintenanceWindow, SaysInOneLineThatThereIsNoDisplay) {
  const TreeState whole = place.state();
  testing::Environment without = environment();
  without.erase("DISPLAY");
  const testing::ProgramResult result =
      testing::run_program({RAVOK_MAINTENANCE_GUI, {"--data-dir", place.data()}, without, ""});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(std::count(result.errors.begin(), result.errors.end(), '\n'), 1) << result.errors;
  EXPECT_TRUE(testing::same_tree(place.state(), whole));
}

TEST_F(MaintenanceWindow, EndsAfterItsFirstFrameWhereThatIsAllThatIsWanted) {
  const TreeState whole = place.state();
  const testing::ProgramResult result =
      testing::run_program({RAVOK_MAINTENANCE_GUI, {"--data-dir", place.data(), "--smoke"}, environment(), ""});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.errors, "");
  EXPECT_TRUE(testing::same_tree(place.state(), whole));
}

TEST_F(MaintenanceWindow, OpensHoweverManyDescriptorsItInherits) {
  testing::StartedProgram program({.program = RAVOK_MAINTENANCE_GUI,
                                   .arguments = {"--data-dir", place.data(), "--smoke"},
                                   .environment = environment(),
                                   .inherited_descriptors = testing::too_many_for_a_window});
  EXPECT_EQ(program.wait(), 0);
  EXPECT_EQ(program.errors(), "");
}

// A client whose release has the program as its helper with a window.
class MaintenanceWindowHandOver : public ::testing::Test, protected testing::WindowPlace {
 protected:
  MaintenanceWindowHandOver() : values_(environment()) {
    testing::LauncherPrograms programs;
    programs.maintenance_window = testing::bytes_of(RAVOK_MAINTENANCE_GUI);
    testing::use_launcher(place.package, testing::publish_launcher(place.root(), "1.0.0", programs, "first"));
    publish();
    player = place.write_player_data();
    place.install(true);
  }

  std::unique_ptr<MaintenanceRuntime> prepare() const {
    const LauncherStore store(place.data());
    return MaintenanceRuntime::prepare(store, current_build(store.status()), "maintenance-gui",
                                       place.root() / "copies");
  }

  TreeState player;

 private:
  // The helper inherits the environment of the client, which is the test.
  const testing::WithEnvironments values_;
};

TEST_F(MaintenanceWindowHandOver, RemovesTheClientThatItCameWith) {
  const std::unique_ptr<MaintenanceRuntime> runtime = prepare();
  const std::unique_ptr<ChildProcess> child = runtime->launch_gui({"--data-dir", place.data()}, endless);
  const testing::WindowUser window(display, [&]() -> std::optional<std::string> {
    const std::optional<std::uint64_t> code = child->poll();
    return code ? std::optional(std::to_string(*code)) : std::nullopt;
  });
  window.click("remove");
  window.wait_for_screen("removed");
  window.click("close");
  std::optional<std::uint64_t> code;
  while (!(code = child->poll())) {
    std::this_thread::sleep_for(std::chrono::milliseconds(3));
  }
  EXPECT_EQ(*code, 0u);
  EXPECT_TRUE(testing::same_tree(place.state(), player));
}

TEST_F(MaintenanceWindowHandOver, IsToldOfAHelperThatFindsNoDisplay) {
  const testing::WithEnvironment none("DISPLAY", std::nullopt);
  const std::unique_ptr<MaintenanceRuntime> runtime = prepare();
  EXPECT_FAILURE(runtime->launch_gui({"--data-dir", place.data()}, endless), "maintenance_startup",
                 "The uninstall window did not open");
  expect_installed();
}

}  // namespace
}  // namespace ravok::maintenance_window_test
