// The windowed entry of the sample launcher, as the bootstrap starts it.

#include <chrono>
#include <csignal>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "app/launcher/launcher_attempt.hpp"
#include "app/launcher/start_marker.hpp"
#include "platform/file/files.hpp"
#include "programs/client_place.hpp"
#include "support/failure.hpp"
#include "support/with_environment.hpp"
#include "window/window_place.hpp"

namespace ravok::launcher_window_test {
namespace {

using testing::ClientPlace;
using testing::ShownWindow;
using testing::WindowProgram;

// The most that a trial may be given.
constexpr std::chrono::seconds longest_trial(30);

class LauncherWindow : public ::testing::Test {
 protected:
  // An active version, whose start has no deadline.
  LauncherWindow() {
    version = place.add("real", {testing::bytes_of(RAVOK_LAUNCHER), testing::bytes_of(RAVOK_LAUNCHER_GUI)});
    place.name("active", version);
  }

  std::unique_ptr<WindowProgram> start(const testing::Arguments& arguments = {}) {
    return std::make_unique<WindowProgram>(
        display, place.start_of(arguments, testing::window_environment(display, place.root / "home")));
  }

  const ClientPlace place;
  testing::Display display;
  Json version;
};

TEST_F(LauncherWindow, OpensFromTheBootstrapAndConfirmsItsStart) {
  auto window = start();
  const ShownWindow shown = window->wait_for_screen("launcher");
  EXPECT_NE(shown.title.find("Ravok"), std::string::npos) << shown.title;
  EXPECT_NE(shown.texts().find(RAVOK_LAUNCHER_BUILD_ID), std::string::npos) << shown.texts();
  window->wait_for("its start confirmed",
                   [&](const ShownWindow&) { return !std::filesystem::exists(start_marker(place.data)); });
  window->picture("launcher");
  window->ask_to_close();
  EXPECT_EQ(window->wait(), 0) << window->errors();
  EXPECT_EQ(window->errors(), "");
}

TEST_F(LauncherWindow, OpensHoweverManyDescriptorsTheBootstrapInherits) {
  testing::ProgramStart many = place.start_of({}, testing::window_environment(display, place.root / "home"));
  many.inherited_descriptors = testing::too_many_for_a_window;
  WindowProgram window(display, many);
  window.wait_for_screen("launcher");
  window.ask_to_close();
  EXPECT_EQ(window.wait(), 0) << window.errors();
  EXPECT_EQ(window.errors(), "");
}

TEST_F(LauncherWindow, ProvesItselfAsACandidateOnceItIsDrawn) {
  Json document = place.store.load();
  document["active"] = nullptr;
  document["candidate"] = version;
  const testing::WithEnvironments values(testing::window_environment(display, place.root / "home"));
  // A machine that stands still for the time of a trial gets another.
  std::optional<Error> failure;
  int trials = 0;
  do {
    place.store.save(document);
    failure = testing::failure_of([&] {
      EXPECT_EQ(run_launcher_attempt(place.store, {"gui", {"--smoke"}, longest_trial, {}, {}}), 0);
    });
  } while (failure && ++trials < 20 &&
           (failure->code == "launcher_startup_timeout" || failure->code == "launcher_lease"));
  EXPECT_FALSE(failure) << failure->code << ": " << failure->what();
  EXPECT_TRUE(place.is_active(version));
}

TEST_F(LauncherWindow, ClosesByKeyboardAndBySignals) {
  auto window = start();
  window->wait_for_screen("launcher");
  window->press("Escape");
  EXPECT_EQ(window->wait(), 0) << window->errors();
  window = start();
  window->wait_for_screen("launcher");
  window->send_signal(SIGTERM);
  EXPECT_GE(window->wait(), 0) << window->errors();
}

TEST_F(LauncherWindow, DoesNotConfirmAStartWithoutADisplay) {
  testing::ProgramStart start = place.start_of({});
  testing::StartedProgram program(start);
  EXPECT_EQ(program.wait(), 1);
  EXPECT_NE(program.errors().find("display"), std::string::npos);
  EXPECT_TRUE(std::filesystem::exists(start_marker(place.data)));
}

// An installation whose release has the real helpers.
class LauncherWindowRemoval : public ::testing::Test, protected testing::WindowPlace {
 protected:
  LauncherWindowRemoval() {
    testing::LauncherPrograms programs = {testing::bytes_of(RAVOK_LAUNCHER), testing::bytes_of(RAVOK_LAUNCHER_GUI)};
    programs.maintenance_window = testing::bytes_of(RAVOK_MAINTENANCE_GUI);
    testing::use_launcher(place.package,
                          testing::publish_launcher(place.root(), RAVOK_LAUNCHER_BUILD_ID, programs, "whole"));
    publish();
    player = place.write_player_data();
    place.install(true);
    // The version has passed its trial.
    const LauncherStore store(place.data());
    Json document = store.load();
    document["active"] = document["candidate"];
    document["candidate"] = nullptr;
    store.save(document);
  }

  testing::TreeState player;
};

TEST_F(LauncherWindowRemoval, HandsOverToTheWindowThatRemovesIt) {
  const testing::WindowUser anybody(display, [] { return std::nullopt; });
  std::unique_ptr<WindowProgram> launcher;
  // A machine that is too slow for the time that the launcher gives the helper makes it say so, and offer it again.
  for (bool gave_up = true; gave_up;) {
    launcher = start_program(RAVOK_BOOTSTRAP, {"--data-dir", place.data()});
    launcher->click("uninstall");
    gave_up = false;
    anybody.wait_for("the launcher's end, or a word of it", [&](const ShownWindow& now) {
      // It has no notice before the click.
      gave_up = now.screen == "launcher" && now.find("notice") != nullptr && now.offers("uninstall");
      return gave_up || launcher->has_ended();
    });
    if (gave_up) {
      launcher->send_signal(SIGTERM);
      launcher->wait();
    }
  }
  EXPECT_EQ(launcher->wait(), 0) << launcher->errors();
  anybody.click("remove");
  anybody.wait_for_screen("removed");
  EXPECT_TRUE(testing::same_tree(place.state(), player));
  anybody.click("close");
  while (!display.windows().empty()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(3));
  }
}

}  // namespace
}  // namespace ravok::launcher_window_test
