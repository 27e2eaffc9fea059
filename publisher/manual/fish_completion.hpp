// Completion of command lines in fish.
#pragma once

#include <string>

#include "app/command/command_outline.hpp"

namespace ravok {

// Returns the script that completes a program's command line.
std::string fish_completion(const ProgramOutline& program);

}  // namespace ravok
