// The connection to the display, and the loss of it.
#pragma once

#include <functional>
#include <string_view>

namespace ravok {

// Connects to the X display that the environment names, unless this process has done so. `otherwise` is the sentence
// that tells the user what works without one. Fails with "display".
void open_display(std::string_view otherwise);

// Sets what ends the program's work when the display goes away, after which the process ends with exit code 1. It is
// called on the thread that draws, in the middle of anything, and must not draw.
void set_display_lost(std::function<void()> lost);

}  // namespace ravok
