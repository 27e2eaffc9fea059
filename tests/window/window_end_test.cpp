// How the installer with a window ends: cancelled, closed, told to end, and without its display; in every phase.

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "app/install/native_install.hpp"
#include "support/process.hpp"
#include "window/window_place.hpp"

namespace ravok::window_end_test {
namespace {

using testing::HeldCall;
using testing::ProgramResult;
using testing::ShownWindow;
using testing::TreeState;
using testing::WindowProgram;

// A step of the worker at which it is held.
struct Phase {
  const char* name;
  const char* call;
  std::string path_end;
  bool can_stop;  // whether it is still possible to stop the work here
};

class WindowEnd : public ::testing::Test, protected testing::WindowPlace {
 protected:
  // Of an installation.
  std::vector<Phase> phases() const {
    return {{"verifying", "open", testing::archive_name(place.package.bootstrap), true},
            {"installing", "open", "native/staging/bootstrap/bin/ravok-bootstrap", true},
            {"committing", "renameat", ".ravok-setup-incomplete", false}};
  }

  // Starts an installation, which is held at the phase.
  std::unique_ptr<WindowProgram> held_at(HeldCall& held) {
    auto window = start_held(held);
    window->click("install");
    held.wait([&] { return window->has_ended(); });
    window->wait_for_screen("working");
    return window;
  }

  // What each of the ways to stop the work leads to, once the worker goes on.
  void expect_end(const Phase& phase, WindowProgram& window) {
    EXPECT_EQ(window.wait(), phase.can_stop ? 4 : 0) << phase.name << window.errors();
    EXPECT_EQ(window.errors(), "") << phase.name;
    expect_state(phase);
  }
  void expect_state(const Phase& phase) {
    if (phase.can_stop) {
      expect_nothing_left();
    } else {
      expect_installed();
      std::filesystem::remove_all(place.data());
      std::filesystem::remove_all(place.home() / ".local/share/applications");
    }
  }
};

TEST_F(WindowEnd, DrawsOnWhileItsWorkerIsHeld) {
  for (const Phase& phase : phases()) {
    HeldCall held(phase.call, phase.path_end);
    auto window = held_at(held);
    window->wait_for_frames(10);
    window->picture(std::string("working-") + phase.name);
    held.release();
    window->wait_for_screen("done");
    window->click("close");
    EXPECT_EQ(window->wait(), 0);
    expect_state({phase.name, "", "", false});
  }
}

TEST_F(WindowEnd, CancelsWhereThatIsStillPossible) {
  for (const Phase& phase : phases()) {
    HeldCall held(phase.call, phase.path_end);
    auto window = held_at(held);
    window->click("cancel");
    window->wait_for("the wish to stop", [](const ShownWindow& shown) { return !shown.offers("cancel"); });
    window->wait_for_frames(3);
    window->picture(std::string("cancelling-") + phase.name);
    held.release();
    window->wait_for_screen(phase.can_stop ? "choose" : "done");
    if (phase.can_stop) {
      expect_nothing_left();
    }
    window->click("close");
    expect_end(phase, *window);
  }
}

TEST_F(WindowEnd, CancelsByEscape) {
  const Phase phase = phases().at(1);
  HeldCall held(phase.call, phase.path_end);
  auto window = held_at(held);
  window->press("Escape");
  window->wait_for("the wish to stop", [](const ShownWindow& shown) { return !shown.offers("cancel"); });
  held.release();
  window->wait_for_screen("choose");
  expect_nothing_left();
}

TEST_F(WindowEnd, InstallsAfterACancelledInstallation) {
  const Phase phase = phases().at(1);
  HeldCall held(phase.call, phase.path_end);
  auto window = held_at(held);
  window->click("cancel");
  window->wait_for("the wish to stop", [](const ShownWindow& shown) { return !shown.offers("cancel"); });
  held.release();
  window->wait_for_screen("choose");
  window->click("install");
  window->wait_for_screen("done");
  window->click("close");
  EXPECT_EQ(window->wait(), 0);
  expect_installed();
}

TEST_F(WindowEnd, ClosesInEveryPhaseOnceTheWorkHasEnded) {
  for (const Phase& phase : phases()) {
    HeldCall held(phase.call, phase.path_end);
    auto window = held_at(held);
    window->ask_to_close();
    window->wait_for("the wish to stop", [](const ShownWindow& shown) { return !shown.offers("cancel"); });
    held.release();
    expect_end(phase, *window);
  }
}

TEST_F(WindowEnd, EndsInEveryPhaseWhenItIsToldTo) {
  const std::vector<int> signals = {SIGTERM, SIGINT, SIGHUP};
  for (std::size_t i = 0; i < phases().size(); ++i) {
    const Phase phase = phases().at(i);
    HeldCall held(phase.call, phase.path_end);
    auto window = held_at(held);
    window->send_signal(signals.at(i));
    window->wait_for("the wish to stop", [](const ShownWindow& shown) { return !shown.offers("cancel"); });
    held.release();
    expect_end(phase, *window);
  }
}

TEST_F(WindowEnd, EndsByItselfInEveryPhaseWhenItsDisplayEnds) {
  for (const Phase& phase : phases()) {
    testing::Display own;
    HeldCall held(phase.call, phase.path_end);
    testing::Environment environment = held.environment();
    environment["DISPLAY"] = own.name();
    WindowProgram window(own, {.program = installer(),
                               .arguments = {"--package", place.package_directory(), "--data-dir", place.data()},
                               .environment = testing::window_environment(own, place.home(), environment)});
    window.click("install");
    held.wait([&] { return window.has_ended(); });
    own.crash();
    held.release();
    EXPECT_GE(window.wait(), 0) << phase.name;
    // Whatever was left, the next installer knows what to do with it.
    auto next = start();
    const ShownWindow shown = next->wait_for(
        "a way on", [](const ShownWindow& now) { return now.offers("install") || now.offers("repair"); });
    next->click(shown.offers("repair") ? "repair" : "install");
    next->wait_for_screen("done");
    next->click("close");
    EXPECT_EQ(next->wait(), 0);
    expect_state({phase.name, "", "", false});
  }
}

TEST_F(WindowEnd, ClosesOnEveryOtherScreen) {
  const auto leave = [&](WindowProgram& window, const std::string& screen, int signal) {
    window.wait_for_screen(screen);
    if (signal == 0) {
      window.ask_to_close();
    } else {
      window.send_signal(signal);
    }
    EXPECT_GE(window.wait(), 0) << screen << " " << signal;
    EXPECT_EQ(window.errors(), "") << screen;
  };
  for (const int signal : {0, SIGTERM}) {
    leave(*start(), "choose", signal);
    expect_nothing_left();
    auto window = start();
    window->click("install");
    leave(*window, "done", signal);
    leave(*start(), "installed", signal);
    expect_installed();
    window = start();
    window->click("uninstall");
    leave(*window, "remove", signal);
    expect_installed();
    window = start();
    window->click("uninstall");
    window->click("remove");
    leave(*window, "removed", signal);
    EXPECT_FALSE(std::filesystem::exists(place.data()));
    std::filesystem::remove(place.entry().parent_path());
  }
}

TEST_F(WindowEnd, EndsAfterItsFirstFrameWhereThatIsAllThatIsWanted) {
  const ProgramResult result =
      testing::run_program({installer(), {"--package", place.package_directory(), "--smoke"}, environment(), ""});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(result.errors, "");
  expect_nothing_left();
}

TEST_F(WindowEnd, ComesAfterItsFirstFrameHoweverManyDescriptorsItInherits) {
  testing::StartedProgram program({.program = installer(),
                                   .arguments = {"--package", place.package_directory(), "--smoke"},
                                   .environment = environment(),
                                   .inherited_descriptors = testing::too_many_for_a_window});
  EXPECT_EQ(program.wait(), 0);
  EXPECT_EQ(program.errors(), "");
}

TEST_F(WindowEnd, SaysInOneLineThatThereIsNoDisplay) {
  const std::string beyond = ":" + std::to_string(65'000);
  for (const char* const name : {"", beyond.c_str(), "nonsense"}) {
    testing::Environment without = environment();
    without["DISPLAY"] = name;
    if (*name == '\0') {
      without.erase("DISPLAY");
    }
    const ProgramResult result =
        testing::run_program({installer(), {"--package", place.package_directory()}, without, ""});
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(std::count(result.errors.begin(), result.errors.end(), '\n'), 1) << result.errors;
    EXPECT_NE(result.errors.find("display"), std::string::npos) << result.errors;
    expect_nothing_left();
  }
}

}  // namespace
}  // namespace ravok::window_end_test
