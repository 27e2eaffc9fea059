// The run of the bootstrap, the program that users start: chooses the version of the launcher, tries out one that
// waits, goes back to another when one is damaged, and becomes the chosen one.
#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/file/native_lock.hpp"

namespace ravok {

// Starts the client of a data folder. `interface` is "cli" for a command of the client's grammar on the console, and
// "gui" for the windowed launcher; `arguments` are the user's, without the data folder. `startup_limit` is how long a
// new version may take to be ready while another works, 1 to 30,000 milliseconds. `lifetime` is the caller's lock of
// bootstrap_lifetime, or null; it stays held to the end of the call, and is given up only for the program that may
// remove the installation.
//
// On the console, help and `self shortcut` are answered here, and the result is 0; `self uninstall` becomes the
// maintenance program. All else becomes the launcher, with its version's folder as the working directory: this process
// is replaced then, and the call does not return. A version that waits for its first start is started as a child
// instead; once it has proved itself, the result is its exit code. Otherwise the versions are tried in their order: the
// active one, the one before it, and the newest other on disk. What is wrong with a version is told on standard error
// in a line. When none can be started, `--launch GAME` alone, with "gui", starts the game itself.
//
// Fails with
// - "launcher_interface" and "launcher_health" for what the caller chose;
// - "usage" and the other codes of parse_cli_entry for the arguments;
// - "cancelled" when the user pressed Ctrl+C before the launcher ran;
// - "native_install_incomplete" for a folder whose setup has not ended;
// - "busy" or "launcher_running" while another bootstrap runs its attempt; and with the other codes of
//   run_launcher_attempt when a version that waits fails and none works;
// - "launcher_damaged", or the code of the last version, when no version can be started;
// - the codes of NativeInstaller, MaintenanceRuntime and start_installed_game for what these do.
int run_launcher_bootstrap(const std::filesystem::path& data_root, std::string_view interface,
                           const std::vector<std::string>& arguments, std::chrono::milliseconds startup_limit,
                           std::unique_ptr<NativeFileLock>* lifetime);

}  // namespace ravok
