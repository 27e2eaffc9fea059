// Manual pages.
#pragma once

#include <string>

#include "app/command/command_outline.hpp"

namespace ravok {

// Returns the manual page of a program, in the macros of man(7).
std::string man_page(const ProgramOutline& program);

}  // namespace ravok
