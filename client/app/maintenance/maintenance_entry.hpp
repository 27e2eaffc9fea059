// How a running client hands over to the maintenance helper of its release.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "app/launcher/launcher_store.hpp"
#include "app/maintenance/maintenance_runtime.hpp"
#include "domain/json.hpp"

namespace ravok {

// Returns the hand-over to the console helper of a release, whose reference in the store is `build`. `directory` and
// `observed`, whether the user is told of progress, are for a system that copies the helper; this one uses neither.
// `cancelled`, which may be empty, is asked before and after the helper's file is read. Fails with "cancelled" when it
// answers true, and as MaintenanceRuntime::prepare does.
std::unique_ptr<MaintenanceRuntime> prepare_console_maintenance(const LauncherStore& store, const Json& build,
                                                                const std::filesystem::path& directory,
                                                                const std::function<bool()>& cancelled, bool observed);

// The two entries for a running launcher, which hands over to the helper of the version that it runs as. `data_root` is
// the data folder of that version. The launcher keeps its own leases; only the store's lock and what it protects is
// taken here, and for a moment. `cancelled`, which may be empty, is asked once all that is proved, and again when the
// helper's file has been read.
//
// Both fail with "maintenance_unavailable" while the bootstrap still tries the launcher out, and for a program that no
// store manages; with "launcher_identity" for a program that is not the entry of its version, and for a version of
// another data folder; with "busy" while the bootstrap works on the store or waits for a launcher that it has tried
// out; with "launcher_state" for a manifest that states no build; with "cancelled"; and as current_executable_path,
// reject_staged_image, managed_version, LauncherStore and MaintenanceRuntime::prepare do. Nothing has changed then.

// Runs a command of the family "self shortcut", writes its document to standard output and returns 0; or replaces this
// process with the helper for "self uninstall", and then returns only by failing. "--json" may stand anywhere. Fails
// with "usage" for any other command; with "output_failed"; as native_maintenance_control, maintenance_arguments and
// parse_cli_entry do; and as MaintenanceRuntime::replace does.
int run_cli_maintenance(const std::filesystem::path& data_root, const std::vector<std::string>& arguments,
                        const std::function<bool()>& cancelled = {});

// Returns the hand-over to the helper with a window, for a launcher with one. `directory` is as above.
std::unique_ptr<MaintenanceRuntime> prepare_gui_maintenance(const std::filesystem::path& data_root,
                                                            const std::filesystem::path& directory,
                                                            const std::function<bool()>& cancelled = {});

}  // namespace ravok
