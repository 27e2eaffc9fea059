// The command line of the publisher's program.
#pragma once

#include <functional>

namespace ravok {

// Runs one command and returns the exit code: 0, 1 for a failure, 2 for a wrong command line, 4 when
// `cancelled` answered true. Results go to standard output, failures and progress to standard error.
int run_publish_console(int count, const char* const* words, const std::function<bool()>& cancelled);

}  // namespace ravok
