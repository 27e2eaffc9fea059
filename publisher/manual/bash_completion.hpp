// Completion of command lines in bash.
#pragma once

#include <string>

#include "app/command/command_outline.hpp"

namespace ravok {

// Returns the script that completes a program's command line. It needs nothing that bash does not have by itself.
std::string bash_completion(const ProgramOutline& program);

}  // namespace ravok
