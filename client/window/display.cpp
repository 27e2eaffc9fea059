#include "window/display.hpp"

#include <cstdlib>
#include <string>

#include <FL/Fl.H>
#include <FL/Fl_Preferences.H>
#include <FL/platform.H>

#include "app/command/console_output.hpp"
#include "domain/error.hpp"

namespace ravok {
namespace {

std::function<void()>& lost_handler() {
  static std::function<void()> handler;
  return handler;
}

// The toolkit calls this where it cannot go on, which is when the display is gone.
[[noreturn]] void end_without_display(const char*, ...) {
  print_notice("The display of this window is gone");
  if (lost_handler()) {
    lost_handler()();
  }
  std::_Exit(EXIT_FAILURE);
}

}  // namespace

void open_display(std::string_view otherwise) {
  if (fl_display != nullptr) {
    return;
  }
  Display* const display = XOpenDisplay(nullptr);
  if (display == nullptr) {
    const char* const name = std::getenv("DISPLAY");
    const std::string reason = name == nullptr || *name == '\0'
                                   ? "There is no display to open a window on"
                                   : "The display " + std::string(name) + " does not answer";
    fail("display", reason + "; " + std::string(otherwise));
  }
  // The toolkit would keep settings of its own in the user's home, which an installer must leave as it is.
  Fl_Preferences::file_access(Fl_Preferences::NONE);
  // The toolkit takes this connection for its own.
  fl_display = display;
  fl_open_display();
  Fl::fatal = end_without_display;
}

void set_display_lost(std::function<void()> lost) { lost_handler() = std::move(lost); }

}  // namespace ravok
