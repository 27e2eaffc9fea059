// The run of a program with a window, from the first frame to the end.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "app/screen/screen.hpp"
#include "domain/error.hpp"

namespace ravok {

struct WindowRun {
  std::string program;                 // by which the desktop knows the kind of window
  std::string otherwise;               // what works without a display, in a sentence for the user
  std::string icon_file;               // the bytes of an icon file; empty for none
  bool smoke = false;                  // ends once the window was drawn
  std::function<void()> shown;         // called once the window was drawn; may be empty
  std::function<bool()> interrupted;   // whether the user has asked the program to end; may be empty; for any thread
  std::function<void()> display_lost;  // ends the work when the display is gone; may be empty; for any thread
};

// Shows a dialog until it is closed. Fails with "display" where no window can be opened, and with what `shown` throws.
// Does not return when the display goes away: the process then ends with exit code 1, once the work has stopped. Nor
// does it where the display does not answer and the user has asked the program to end: then with 4.
void run_dialog(const ScreenDialog& dialog, const WindowRun& run);

// Tells of a failure that ends the program: in a line on standard error and, since nobody may see that, in a window
// under this heading. There is no window for a wrong command line and where none can be opened. Returns the exit code.
int tell_in_window(const Error& error, std::string_view heading, const WindowRun& run);

}  // namespace ravok
