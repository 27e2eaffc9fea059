// A dialog that tells the user one thing.
#pragma once

#include <memory>
#include <string_view>

#include "app/screen/screen.hpp"

namespace ravok {

// Returns a dialog that tells what went wrong, in the name of the product, until the user closes it. Its screen is
// "message", its text "problem" and its action "close".
ScreenDialog message_dialog(std::string_view heading, std::string_view problem);

}  // namespace ravok
