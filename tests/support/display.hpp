// A private X server for one test: the windows on it, what a user does there with mouse and keyboard, and pictures.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "domain/json.hpp"

namespace ravok::testing {

struct DisplayForm {
  std::uint32_t width = 1280;
  std::uint32_t height = 800;
  std::uint32_t dpi = 96;
};

// A rectangle in pixels.
struct Area {
  std::int64_t x = 0;
  std::int64_t y = 0;
  std::int64_t width = 0;
  std::int64_t height = 0;

  std::int64_t right() const { return x + width; }
  std::int64_t bottom() const { return y + height; }
  bool contains(const Area& inner) const {
    return inner.x >= x && inner.y >= y && inner.right() <= right() && inner.bottom() <= bottom();
  }
  bool overlaps(const Area& other) const {
    return other.x < right() && x < other.right() && other.y < bottom() && y < other.bottom();
  }
};

// Something that a window shows.
struct ShownItem {
  std::string id;
  std::string kind;
  std::string text;
  Area area;  // within the window
  bool checked = false;
};

// A window that tells what it shows, as it was when it was looked at.
struct ShownWindow {
  std::uint32_t window = 0;
  std::string title;
  Area area;  // on the screen
  std::string screen;
  std::uint64_t frames = 0;
  std::string focus;
  std::vector<ShownItem> items;

  // The item of this name, or null.
  const ShownItem* find(const std::string& id) const;
  // Whether this item is there.
  bool offers(const std::string& id) const;
  // All texts that it shows, one a line.
  std::string texts() const;
};

class Display {
 public:
  // Starts the server, which ends with this object or with the process that has made it.
  explicit Display(const DisplayForm& form = {});
  ~Display();
  Display(const Display&) = delete;
  Display& operator=(const Display&) = delete;

  // What programs must be given as DISPLAY.
  const std::string& name() const { return name_; }
  Area screen() const { return {0, 0, form_.width, form_.height}; }

  // Ends the server at once, as one does that crashes.
  void crash();

  // The windows that are on the screen and tell what they show.
  std::vector<ShownWindow> windows() const;
  // The names of all windows that are on the screen.
  std::vector<std::string> titles() const;

  // Give a window the keyboard, and ask it to close, as a window manager does.
  void focus(std::uint32_t window) const;
  void ask_to_close(std::uint32_t window) const;

  // Real events, in the order of the calls. A key is named as X names it, with modifiers as in "alt+i".
  void click(std::int64_t x, std::int64_t y) const;
  void double_click(std::int64_t x, std::int64_t y) const;
  void point_at(std::int64_t x, std::int64_t y) const;
  void press(const std::string& key) const;
  // Keeps a key down until it is let go.
  void hold(const std::string& key) const;
  void let_go(const std::string& key) const;
  void type(const std::string& text) const;

  // The colour of a point of the screen, as 0xRRGGBB.
  std::uint32_t color_at(std::int64_t x, std::int64_t y) const;
  // How many bytes a property of a window has; 0 where it is missing.
  std::size_t property_size(std::uint32_t window, const std::string& name) const;
  // Writes a picture of a part of the screen as a PNG file.
  void picture(const Area& area, const std::filesystem::path& path) const;

  // From now on each change of what the window tells is noted.
  void watch(std::uint32_t window) const;
  // When the changes since the last call came, in milliseconds by the server's clock.
  std::vector<std::uint32_t> changes() const;

 private:
  struct Connection;

  // The part of the screen that is in the area, 4 bytes a pixel: blue, green, red, and one that means nothing.
  std::string pixels(const Area& area) const;

  const DisplayForm form_;
  std::string name_;
  int process_ = 0;
  std::unique_ptr<Connection> connection_;
};

}  // namespace ravok::testing
