// What the console entry and the windowed entry of this launcher share.
#pragma once

#include <exception>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "app/command/cli_entry.hpp"
#include "app/command/program_version.hpp"
#include "app/launcher/launcher_runtime.hpp"
#include "domain/error.hpp"
#include "domain/json.hpp"

namespace launcher {

// The build of this program. It must be the build ID that the release's manifest states, or the launcher will not
// attach.
std::string_view build_id();

// Returns what the program of this name says when it is asked for its version.
ravok::ProgramVersion version_of(std::string_view program);

// Returns the console's command line. `json` becomes what parse_cli_entry makes of it. The user's own data folder is
// looked for only where it is needed, so that a launcher that is told its folder runs without a home. Fails as
// parse_cli_entry and user_data_root do.
ravok::CliEntry command_line(const std::vector<std::string>& arguments, bool* json);

// Tells the bootstrap that the launcher is ready, where the bootstrap is trying this version out and waits for that.
// Call it once everything is initialised that can fail.
void report_ready(const ravok::LauncherRuntime* runtime);

// Returns the document of `self status`: this build, the versions that the store names, and whether an update of the
// bootstrap waits. `runtime` is null for a build that is run outside any installation.
ravok::Json status_document(const ravok::LauncherRuntime* runtime);

// Returns the same in words, a line for each thing that it says, with its end.
std::string status_text(const ravok::Json& status);

// Runs a command of the client's grammar and returns the exit code. Does not return from `self uninstall`, which
// replaces this process. `cancelled` tells whether the user has asked to stop. Fails with "unavailable" for a command
// that this launcher does not have, and as run_cli_maintenance and run_update_command do.
int run_command(const ravok::CliEntry& entry, const ravok::LauncherRuntime* runtime, const ravok::Json& status,
                const std::function<bool()>& cancelled);

// Writes to standard output. Fails with "output_failed".
void print(std::string_view text);

// Tell the user of a failure, with `json` also as a document, and return the exit code. A failure that has no code of
// its own has the code "launcher_failed" in the document.
int tell(const ravok::Error& error, bool json);
int tell(const std::exception& problem, bool json);

}  // namespace launcher
