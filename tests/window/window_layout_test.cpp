// Where the installer's window and all that it shows lie on small screens, at every scale and with long names.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "platform/file/native_lock.hpp"
#include "support/theme_builder.hpp"
#include "window/window_place.hpp"

namespace ravok::window_layout_test {
namespace {

using testing::Area;
using testing::DisplayForm;
using testing::HeldCall;
using testing::ShownItem;
using testing::ShownWindow;

// A name as long as a brand may have, of words as German has them.
constexpr const char* long_name = "Donaudampfschifffahrtsgesellschaftsspielesammlungsverwaltung AG";
constexpr const char* long_game = "Rindfleischetikettierungsüberwachungsaufgabenübertragungsgesetz – Das Spiel";

std::string described(const ShownItem& item) {
  return item.kind + " " + item.id + " \"" + item.text + "\" at " + std::to_string(item.area.x) + "," +
         std::to_string(item.area.y) + " of " + std::to_string(item.area.width) + "x" +
         std::to_string(item.area.height);
}

void expect_in_order(const ShownWindow& shown, const Area& screen) {
  EXPECT_TRUE(screen.contains(shown.area)) << shown.screen << ": the window leaves the screen: " << shown.area.x << ","
                                           << shown.area.y << " " << shown.area.width << "x" << shown.area.height;
  const Area window = {0, 0, shown.area.width, shown.area.height};
  for (std::size_t i = 0; i < shown.items.size(); ++i) {
    const ShownItem& item = shown.items[i];
    EXPECT_TRUE(item.area.width > 0 && item.area.height > 0) << shown.screen << ": " << described(item);
    EXPECT_TRUE(window.contains(item.area)) << shown.screen << ": out of the window: " << described(item);
    for (std::size_t other = 0; other < i; ++other) {
      EXPECT_FALSE(item.area.overlaps(shown.items[other].area))
          << shown.screen << ": " << described(item) << " overlaps " << described(shown.items[other]);
    }
  }
}

class WindowLayout : public ::testing::TestWithParam<std::uint32_t>, protected testing::WindowPlace {
 protected:
  WindowLayout() : WindowPlace({.width = 1024, .height = 600, .dpi = GetParam()}) {
    place.package.brand = {{"name", long_name}, {"id", "acme"}, {"publisher", "Spielwarenvertriebsgesellschaft mbH"}};
    place.package.featured_game = {{"id", "first-game"}, {"name", long_game}};
    publish();
  }

  void look(testing::WindowProgram& window, const std::string& screen) {
    const ShownWindow shown = window.wait_for_screen(screen);
    expect_in_order(shown, display.screen());
    window.picture(screen + "-" + std::to_string(GetParam()));
  }
};

TEST_P(WindowLayout, KeepsEverythingInSightAndApart) {
  auto window = start();
  window->wait_for_item("install");
  look(*window, "choose");
  window->fill("folder", place.package_directory() / "a folder with a name that is quite long as well");
  window->wait_for("a refusal", [](const ShownWindow& shown) { return shown.find("folder_problem") != nullptr; });
  look(*window, "choose");
  window->click("close");
  window->wait();

  HeldCall held("open", "native/staging/bootstrap/bin/ravok-bootstrap");
  window = start_held(held);
  window->click("install");
  held.wait([&] { return window->has_ended(); });
  look(*window, "working");
  held.release();
  look(*window, "done");
  window->click("close");
  window->wait();

  window = start();
  look(*window, "installed");
  window->click("uninstall");
  look(*window, "remove");
  window->press("Escape");
  window->wait_for_screen("installed");
  {
    const NativeFileLock running(place.paths().bootstrap_lock, true, NativeLockSharing::none, LockMode::exclusive);
    place.write("native/bootstrap/data/notes", "damaged");
    window->click("repair");
    look(*window, "failed");
  }
  window->click("close");
  window->wait();

  window = start();
  window->click("uninstall");
  window->click("remove");
  look(*window, "removed");
  window->click("close");
  window->wait();

  place.root().write("package/initial-package.json", "{}");
  window = start();
  look(*window, "broken");
}

INSTANTIATE_TEST_SUITE_P(OfScale, WindowLayout, ::testing::Values(96, 144, 192),
                         [](const auto& dpi) { return std::to_string(dpi.param); });

// A theme may ask for large text.
class WindowText : public ::testing::TestWithParam<std::uint32_t>, protected testing::WindowPlace {
 protected:
  WindowText() : WindowPlace({.width = 1024, .height = 600}) {
    Json theme = testing::theme_definition();
    theme["text_sizes"] = {{"title", GetParam()}, {"heading", GetParam()}, {"body", GetParam()}, {"small", GetParam()}};
    place.package.theme = theme;
    place.package.theme_files = {};
    place.package.brand = {{"name", "Acme"}, {"id", "acme"}, {"publisher", "Acme"}};
    publish();
  }
};

TEST_P(WindowText, KeepsEverythingInSightAndApart) {
  auto window = start();
  const ShownWindow shown = window->wait_for_item("install");
  expect_in_order(shown, display.screen());
  // Most of a usual folder can be read.
  EXPECT_GT(shown.find("folder")->area.width, shown.area.width / 3);
  window->click("install");
  expect_in_order(window->wait_for_screen("done"), display.screen());
  window->click("close");
  window->wait();
  window = start();
  window->click("uninstall");
  expect_in_order(window->wait_for_screen("remove"), display.screen());
}

INSTANTIATE_TEST_SUITE_P(OfSize, WindowText, ::testing::Values(10, 48),
                         [](const auto& size) { return std::to_string(size.param); });

// What is drawn grows with the scale of the screen.
TEST(WindowScale, IsThatOfTheScreen) {
  std::int64_t height = 0;
  for (const std::uint32_t dpi : {96u, 144u, 192u}) {
    testing::WindowPlace place({.width = 2560, .height = 1440, .dpi = dpi});
    auto window = place.start();
    const ShownWindow shown = window->wait_for_item("install");
    expect_in_order(shown, place.display.screen());
    window->picture("scale-" + std::to_string(dpi));
    const std::int64_t here = shown.find("install")->area.height;
    EXPECT_GT(here * 10, height * 12) << dpi;
    height = here;
  }
}

}  // namespace
}  // namespace ravok::window_layout_test
