// What the console entry and the windowed entry of this launcher share.
#pragma once

#include <string_view>

#include "app/command/cli_entry.hpp"
#include "app/launcher/launcher_runtime.hpp"
#include "domain/error.hpp"
#include "domain/json.hpp"

namespace launcher {

// The build of this program. It must be the build ID that the release's manifest states, or the launcher will not
// attach.
std::string_view build_id();

// Tells the bootstrap that the launcher is ready, where the bootstrap is trying this version out and waits for that.
// Call it once everything is initialised that can fail.
void report_ready(const ravok::LauncherRuntime* runtime);

// Returns the document of `self status`: this build, and the versions that the store names. `runtime` is null for a
// build that is run outside any installation.
ravok::Json status_document(const ravok::LauncherRuntime* runtime);

// Runs a command of the client's grammar. Fails with "unavailable" for one that this launcher does not have.
void run_command(const ravok::CliEntry& entry, const ravok::Json& status);

// Writes to standard output. Fails with "output_failed".
void print(std::string_view text);

// Tells the user of a failure, with `json` also as a document, and returns the exit code.
int tell(const ravok::Error& error, bool json);

}  // namespace launcher
