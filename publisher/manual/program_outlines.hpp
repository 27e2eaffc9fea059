// The programs that have manual pages and completions: their command lines, and what else the manual says of them.
#pragma once

#include <vector>

#include "app/command/command_outline.hpp"

namespace ravok {

// Returns the outlines of all programs, in the order of their names.
std::vector<ProgramOutline> program_outlines();

}  // namespace ravok
