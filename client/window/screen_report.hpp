// What a window shows, told to other programs: a property of the window named _RAVOK_SCREEN, for those who try the
// window out or read it to its user.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

class Fl_Window;

namespace ravok {

struct ShownItem {
  std::string id;
  std::string kind;  // "heading", "text", "problem", "field", "tick", "progress", "list" or "button"
  std::string text;
  int left = 0;  // in the window, in the toolkit's units, as the three below
  int top = 0;
  int across = 0;
  int down = 0;
  bool checked = false;
};

// Sets the property of a window that is on the display: a JSON object of "screen", "focus" (the item that has the
// keyboard, or empty), "frames" (how often the window was drawn), "width" and "height" of the window, and "items", each
// with "id", "kind", "text", "checked", "x", "y", "width" and "height". All lengths there are pixels of the window.
void report_screen(Fl_Window& window, const std::string& screen, const std::string& focus, std::uint64_t frames,
                   const std::vector<ShownItem>& items);

}  // namespace ravok
