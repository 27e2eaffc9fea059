// What a data folder says of its installation: the record that every commit writes last, the record of how the last
// setup ended, and the status that follows from both.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "app/install/data_folder.hpp"
#include "app/install/native_package.hpp"
#include "domain/data_layout.hpp"
#include "domain/json.hpp"
#include "domain/manifest.hpp"
#include "platform/file/held_directory.hpp"

namespace ravok {

// How the last install or repair ended.
struct SetupOutcome {
  std::string action;       // "install" or "repair"
  std::string outcome;      // "succeeded" or "failed"
  std::string message;      // of the failure, or of a shortcut that could not be made
  std::string finished_at;  // UTC, such as "2030-01-31T23:59:59Z"
};

struct NativeInstallStatus {
  std::filesystem::path data_root;
  bool installed = false;
  bool incomplete = false;      // a setup has begun and not ended
  std::string bootstrap_build;  // empty if unknown
  std::string launcher_build;   // empty if none is known
  bool bootstrap_update_pending = false;
  std::vector<std::filesystem::path> shortcuts;
  std::optional<SetupOutcome> last_operation;

  Json to_json() const;
};

// The state of a data folder, by its marker and its record alone.
enum class InstallationState {
  none,
  complete,
  interrupted,  // a setup has begun and not ended
};

// Returns the state of a folder, and follows no link for it. Fails with "permissions" or "file_system" for a folder
// that may not be looked into, and with "unsafe_path" where a link has the place of the folder "native" and there is no
// marker.
InstallationState installation_state(const DataPaths& paths);

// Returns what a data folder says of itself; writes nothing and takes no lock. Fails with "unsupported_schema" for a
// record that cannot be read or understood, with "shortcut_ledger" for such a ledger, and as installation_state and
// current_bootstrap do.
NativeInstallStatus installation_status(const DataPaths& paths);

// Accepts only an installation record of this kind and version. Fails with "unsupported_schema".
void check_installation(const DataPaths& paths);

// Writes the record of a finished installation of a package into its folder "native". Fails with "insufficient_space",
// "file_write" or "file_sync" as HeldDirectory::write does.
void write_installation(const HeldDirectory& native, const NativePackage& package);

// Records how a setup ended, as far as that can be done: never fails.
void write_status(const DataPaths& paths, std::string_view action, std::string_view outcome,
                  std::string_view message) noexcept;

// Returns the manifest of the installed bootstrap. Fails with "file_read" for a missing one, and as read_file,
// parse_json and SnapshotManifest::parse do ("unsafe_path", "invalid_json", "invalid_manifest").
SnapshotManifest current_bootstrap(const DataPaths& paths);

// Returns the path of the program that a shortcut should start. Fails as current_bootstrap does, and with "unsafe_path"
// for a link on the way to the program.
std::filesystem::path shortcut_bootstrap(const DataPaths& paths);

// Returns whether an update of the bootstrap waits for the next start.
bool bootstrap_update_pending(const std::filesystem::path& data_root);

}  // namespace ravok
