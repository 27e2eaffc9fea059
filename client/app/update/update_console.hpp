// The commands of a launcher's console that bring newer versions and remove older ones: "self update", "updates check
// --background" and "self cleanup".
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "app/command/cli_entry.hpp"
#include "app/launcher/launcher_runtime.hpp"

namespace ravok {

// Whether the command is one of these three, whatever its options.
bool is_update_command(const std::vector<std::string>& arguments);

// Runs one of these for the launcher that runs, and returns the exit code: 0; 4 when the user has cancelled; 1 for
// every other failure. `cancelled`, which may be empty, answers true once the user wants to stop.
//
// "self update" shows its progress in one line where standard error is a terminal, and then says what came of each part
// in a line; with --json it writes the document of the update and nothing else. A failure is told in a line on standard
// error and is in the document too, beside what the other part came to.
//
// "updates check --background" shows no progress, and without --json it says nothing but failures. That no answer can
// be had now is none.
//
// "self cleanup" removes what the launcher's store holds that nothing needs any more, as clean_launcher_store does, and
// says what that was, or with --json writes its document.
//
// Fails with "unavailable" for the options of "self cleanup", with "not_installed" for a launcher that runs outside any
// installation (`runtime` is null), with "launcher_identity" for another data folder than its own, with
// "output_failed", and as update_client and clean_launcher_store do. While the bootstrap still tries this launcher out,
// a command fails with "busy", and the check in the background is skipped.
int run_update_command(const CliEntry& entry, const LauncherRuntime* runtime, const std::function<bool()>& cancelled);

}  // namespace ravok
