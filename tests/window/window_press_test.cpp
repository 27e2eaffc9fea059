// What a user presses once too often, on a screen that has changed by then.

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "app/install/native_install.hpp"
#include "window/window_place.hpp"

namespace ravok::window_press_test {
namespace {

using testing::ShownWindow;

class WindowPress : public ::testing::Test, protected testing::WindowPlace {
 protected:
  // The window answers keys in their order, so that it has answered all before once the focus has moved.
  static ShownWindow after_moving_on(testing::WindowUser& window, const std::string& screen) {
    const std::string before = window.wait_for_screen(screen).focus;
    window.press("Tab");
    return window.wait_for("the focus elsewhere",
                           [&](const ShownWindow& shown) { return shown.screen != screen || shown.focus != before; });
  }
};

TEST_F(WindowPress, AHeldKeyInstallsAndDoesNoMore) {
  auto window = start();
  window->tab_to("install");
  window->hold("Return");
  window->wait_for_screen("done");
  EXPECT_EQ(after_moving_on(*window, "done").screen, "done");
  window->let_go("Return");
  window->tab_to("close");
  window->press("Return");
  EXPECT_EQ(window->wait(), 0);
  expect_installed();
}

TEST_F(WindowPress, ReturnPressedAgainDoesNotStopWhatItHasBegun) {
  testing::HeldCall held("open", "native/staging/bootstrap/bin/ravok-bootstrap");
  auto window = start_held(held);
  window->tab_to("install");
  window->press("Return");
  held.wait([&] { return window->has_ended(); });
  EXPECT_EQ(window->wait_for_screen("working").focus, "");
  window->press("Return");
  EXPECT_EQ(after_moving_on(*window, "working").focus, "cancel");
  held.release();
  window->wait_for_screen("done");
  expect_installed();
}

TEST_F(WindowPress, TheSecondClickOfTwoAsksNothingMore) {
  {
    auto window = start();
    window->click("install");
    window->wait_for_screen("done");
    window->click("close");
    EXPECT_EQ(window->wait(), 0);
  }
  auto window = start();
  window->wait_for_screen("installed");
  window->double_click("uninstall");
  EXPECT_EQ(after_moving_on(*window, "remove").screen, "remove");
  EXPECT_TRUE(NativeInstaller::status(place.data()).installed);
}

}  // namespace
}  // namespace ravok::window_press_test
