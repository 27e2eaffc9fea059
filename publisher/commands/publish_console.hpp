// The command line of the publisher's program.
#pragma once

#include <functional>

namespace ravok {

// Runs one command and returns the exit code:
//   0  it was done
//   1  it failed, for every reason but the two below
//   2  the command line was wrong: it has no such form, or the value of an option is refused without a look at any file
//   4  `cancelled` answered true
// Results go to standard output; failures, notices and progress go to standard error. With --json, one JSON document
// goes to standard output, for a failure too, a wrong command line included; a failure's message goes to standard error
// all the same, and no progress is shown.
int run_publish_console(int count, const char* const* words, const std::function<bool()>& cancelled);

}  // namespace ravok
