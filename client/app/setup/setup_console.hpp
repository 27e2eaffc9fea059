// The console front end of the setup commands: from an argument list to printed words and an
// exit code.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "app/install/setup_callbacks.hpp"
#include "app/setup/setup_package.hpp"
#include "domain/error.hpp"
#include "domain/exit_code.hpp"

namespace ravok {

// Runs one setup command and returns the exit code: 0 for success, 2 for a wrong command line, 4 when the user
// cancelled, 1 for every other failure. The result goes to standard output as a sentence, or with --json as one JSON
// document; progress and failures go to standard error. A sentence shows escaped what would steer a terminal, such as a
// control character in a folder's name; a document holds it as it is, except for a failure's message that is not UTF-8.
// Only the program name "ravok-install" may install and repair. `package_seal` is the digest of the one initial package
// that the program may read, or empty. `cancel` answers true once the user wants the command to stop, and may be empty.
// `find_place` answers where the running program's own file carries that package, if it does, and may be empty. It is
// asked only by a command that needs the package and was given no other; what it throws is that command's failure.
int run_setup_console(const std::vector<std::string>& arguments, std::string_view program_name,
                      std::string_view package_seal, const std::function<bool()>& cancel,
                      const FindAppendedPlace& find_place = {});

// Returns the callbacks of a console run: `cancel` as it is, and, unless `json` is set, a
// progress that announces each change of phase once on standard error.
NativeSetupCallbacks console_callbacks(bool json, const std::function<bool()>& cancel);

}  // namespace ravok
