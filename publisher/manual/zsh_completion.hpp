// Completion of command lines in zsh.
#pragma once

#include <string>

#include "app/command/command_outline.hpp"

namespace ravok {

// Returns the function that completes a program's command line, as the file of its name in a folder of such functions.
std::string zsh_completion(const ProgramOutline& program);

}  // namespace ravok
