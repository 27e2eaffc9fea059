// The exit codes of all console programs.
#pragma once

#include "domain/error.hpp"

namespace ravok {

// Returns the exit code of a program that failed: 2 for "usage", 4 for "cancelled", otherwise 1.
int exit_code(const Error& error);

}  // namespace ravok
