// What the installer's window looks like with a product in it as a studio would ship it. The pictures in the documents
// are taken here.

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "app/install/native_install.hpp"
#include "support/icon_builder.hpp"
#include "support/launcher_release.hpp"
#include "support/theme_builder.hpp"
#include "window/window_place.hpp"

namespace ravok::window_look_test {
namespace {

using testing::HeldCall;
using testing::ShownWindow;
using testing::WindowProgram;

// A bitmap whose rows of pixels, from the top, are told by a function.
template <typename ColorAt>
std::string painted(std::uint32_t width, std::uint32_t height, ColorAt color_at) {
  std::string image = testing::bitmap(width, height);
  const std::size_t row_bytes = (std::size_t{width} * 3 + 3) / 4 * 4;
  for (std::uint32_t y = 0; y < height; ++y) {
    for (std::uint32_t x = 0; x < width; ++x) {
      testing::put_number(image, 54 + (height - 1 - y) * row_bytes + std::size_t{x} * 3, color_at(x, y), 3);
    }
  }
  return image;
}

Json bright_colors() {
  return {{"background", "#e9dfc9"},  {"panel", "#f7f1e3"},    {"raised", "#efe5cf"},
          {"well", "#fffaf0"},        {"border", "#8a6d3b"},   {"text", "#2b2014"},
          {"muted", "#5b4a33"},       {"accent", "#8c1d18"},   {"accent_hover", "#a3261f"},
          {"accent_text", "#ffffff"}, {"danger", "#7a1020"},   {"danger_hover", "#8f1a2b"},
          {"danger_text", "#ffffff"}, {"warning", "#7a4300"},  {"success", "#1d5c2a"},
          {"focus", "#0b5cad"},       {"disabled", "#d8ccb4"}, {"disabled_text", "#6d6250"},
          {"paper", "#fffaf0"},       {"ink", "#2b2014"},      {"ink_muted", "#5b4a33"}};
}

// A disc of one colour on another.
std::string badge() {
  constexpr std::uint32_t side = 64;
  return painted(side, side, [](std::uint32_t x, std::uint32_t y) {
    const double distance = std::hypot(x - 31.5, y - 31.5);
    return distance < 20 ? 0xf7f1e3u : distance < 30 ? 0x8c1d18u : 0xe9dfc9u;
  });
}

// Stripes that grow darker.
std::string banner() {
  return painted(600, 60, [](std::uint32_t x, std::uint32_t y) {
    const std::uint32_t step = (x + 2 * y) / 60;
    return 0x8c1d18u - (step % 12) * 0x040100u;
  });
}

class WindowLook : public ::testing::Test, protected testing::WindowPlace {
 protected:
  explicit WindowLook(const testing::DisplayForm& form = {}) : WindowPlace(form) {
    const testing::TemporaryRoot& root = place.root();
    for (int part = 0; part < 24; ++part) {
      root.write("releases/whole/tree/data/part-" + std::to_string(part), std::string(2'000'000, 'a'));
    }
    testing::use_launcher(place.package, testing::publish_launcher(root, "1.4.2", {}, "whole"));
    place.package.brand.reset();
    publish();
  }

  // Starts the installer for its own default folder.
  std::unique_ptr<WindowProgram> start_at_home(const testing::Environment& more = {}) {
    // Pictures for others to look at show a home as others have it.
    testing::Environment environment = more;
    if (const char* const home = std::getenv("RAVOK_PICTURE_HOME")) {
      environment["HOME"] = home;
    }
    return start_program(installer(), {"--package", place.package_directory()}, environment);
  }
};

TEST_F(WindowLook, TellsHowFarItIs) {
  HeldCall held("openat", "part-3");
  auto window = start_at_home(held.environment());
  window->wait_for_item("install");
  window->wait_for("the room",
                   [](const ShownWindow& shown) { return shown.texts().find("Needs ") != std::string::npos; });
  window->picture("installer-start");
  window->click("install");
  held.wait([&] { return window->has_ended(); });
  window->wait_for("a share of it", [](const ShownWindow& shown) {
    return shown.texts().find("MB of 48") != std::string::npos || shown.texts().find("MiB of 4") != std::string::npos;
  });
  window->wait_for_frames(3);
  window->picture("installer-progress");
  held.release();
  window->wait_for_screen("done");
  window->picture("installer-done");
  window->click("close");
  EXPECT_EQ(window->wait(), 0);
}

TEST_F(WindowLook, TellsWhyItCannotGoOn) {
  HeldCall held("open", testing::archive_name(place.package.launcher));
  auto window = start_at_home(held.environment());
  window->click("install");
  held.wait([&] { return window->has_ended(); });
  place.root().write("package/" + testing::archive_name(place.package.launcher),
                     std::string(place.package.launcher_archive.size(), 'x'));
  held.release();
  window->wait_for_screen("failed");
  window->picture("installer-failure");
  window->click("close");
  EXPECT_EQ(window->wait(), 1);
}

TEST_F(WindowLook, IsThatOfItsBrand) {
  place.package.brand = {{"name", "Kestrel Games"}, {"id", "kestrel"}, {"publisher", "Kestrel Interactive"}};
  place.package.featured_game = {{"id", "first-game"}, {"name", "Harbour of Storms"}};
  Json theme = testing::theme_definition();
  theme["colors"] = bright_colors();
  theme["images"] = {{"icon", {{"file", "badge.bmp"}, {"pixel_art", false}}},
                     {"banner", {{"file", "banner.bmp"}, {"pixel_art", false}}}};
  place.package.theme = theme;
  place.package.theme_files = {{"badge.bmp", badge()}, {"banner.bmp", banner()}};
  publish();
  auto window = start_at_home();
  window->wait_for_item("install");
  const ShownWindow shown = window->wait_for(
      "the room", [](const ShownWindow& now) { return now.texts().find("Needs ") != std::string::npos; });
  EXPECT_NE(shown.title.find("Kestrel Games"), std::string::npos) << shown.title;
  for (const char* words : {"Kestrel Games", "Kestrel Interactive", "Harbour of Storms", "1.4.2"}) {
    EXPECT_NE(shown.texts().find(words), std::string::npos) << words;
  }
  EXPECT_EQ(shown.texts().find("Ravok"), std::string::npos) << shown.texts();
  // The window's lower left corner is of the theme's background, and the desktop gets the theme's icon.
  EXPECT_EQ(display.color_at(shown.area.x + 1, shown.area.bottom() - 2), 0xe9dfc9u);
  EXPECT_GE(display.property_size(shown.window, "_NET_WM_ICON"), 64u * 64 * 4);
  window->picture("installer-branded");
  window->click("close");
  EXPECT_EQ(window->wait(), 0);
}

class WindowLookOnADenseScreen : public WindowLook {
 protected:
  WindowLookOnADenseScreen() : WindowLook({.width = 2560, .height = 1440, .dpi = 192}) {}
};

TEST_F(WindowLookOnADenseScreen, IsTwiceAsLarge) {
  auto window = start_at_home();
  window->wait_for_item("install");
  const ShownWindow shown = window->wait_for(
      "the room", [](const ShownWindow& now) { return now.texts().find("Needs ") != std::string::npos; });
  window->picture("installer-dense");
  EXPECT_GE(shown.area.width, 1200);
  window->click("close");
  EXPECT_EQ(window->wait(), 0);
}

}  // namespace
}  // namespace ravok::window_look_test
