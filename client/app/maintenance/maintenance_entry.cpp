#include "app/maintenance/maintenance_entry.hpp"

#include <optional>
#include <string_view>
#include <utility>

#include "app/command/cli_entry.hpp"
#include "app/command/console_output.hpp"
#include "app/launcher/launcher_image.hpp"
#include "app/launcher/launcher_runtime.hpp"
#include "app/maintenance/maintenance_command.hpp"
#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/file/native_files.hpp"
#include "platform/file/native_lock.hpp"
#include "platform/process/process.hpp"

namespace ravok {
namespace {

void require_wanted(const std::function<bool()>& cancelled) {
  require(!cancelled || !cancelled(), "cancelled", "Uninstall cancelled");
}

// One of the two programs by which a version is started.
struct ClientEntry {
  std::string LauncherManifest::*program;
  std::string_view unmanaged;  // the message for a program in no store
  std::string_view other;      // the message for a program that is not this entry
};

constexpr ClientEntry console_entry = {&LauncherManifest::executable,
                                       "Start the installed Ravok or use the external installer to remove it",
                                       "Maintenance handoff requires this build's verified CLI image"};
constexpr ClientEntry window_entry = {&LauncherManifest::gui_executable,
                                      "Start the installed Ravok GUI or use the external installer to review removal",
                                      "Maintenance handoff requires this build's verified GUI image"};

// The version that this process runs as. Nobody removes its files while this object lives.
struct RunningClient {
  std::filesystem::path image;
  LauncherStore store;
  Json build;
  std::unique_ptr<FileLock> lease;
};

RunningClient running_client(const std::filesystem::path& data_root, const ClientEntry& entry) {
  require(!launcher_startup_pending(), "maintenance_unavailable",
          "Ravok is still starting; remove it once it has started");
  std::filesystem::path image = current_executable_path();
  reject_staged_image(image);
  const std::optional<ManagedVersion> version = managed_version(image);
  require(version.has_value(), "maintenance_unavailable", entry.unmanaged);
  // The helper would otherwise remove another installation than the one that was asked.
  require(is_same_folder(version->root, data_root), "launcher_identity", entry.other);
  LauncherStore store(version->root);
  const std::unique_ptr<FileLock> owner = store.owner();
  Json build = store.stored_reference(version->manifest_sha256);
  std::unique_ptr<FileLock> lease = store.version_guard(build, LockMode::shared);
  const LauncherManifest manifest = store.manifest(build);
  require(image == safe_join(store.payload(build), manifest.*entry.program, true), "launcher_identity", entry.other);
  return {std::move(image), std::move(store), std::move(build), std::move(lease)};
}

}  // namespace

std::unique_ptr<MaintenanceRuntime> prepare_console_maintenance(const LauncherStore& store, const Json& build,
                                                                const std::filesystem::path& directory,
                                                                const std::function<bool()>& cancelled, bool) {
  require_wanted(cancelled);
  std::unique_ptr<MaintenanceRuntime> runtime = MaintenanceRuntime::prepare(store, build, "maintenance", directory);
  // The helper's digest takes a while, and whoever has asked to stop meanwhile must not find the client removed.
  require_wanted(cancelled);
  return runtime;
}

int run_cli_maintenance(const std::filesystem::path& data_root, const std::vector<std::string>& arguments,
                        const std::function<bool()>& cancelled) {
  const Json document = native_maintenance_control(data_root, arguments);
  if (!document.is_null()) {
    print_result(document.dump() + "\n");
    return 0;
  }
  // No client has an empty path, which has no absolute form.
  const std::filesystem::path root = data_root.empty() ? data_root : std::filesystem::absolute(data_root);
  const std::vector<std::string> translated = maintenance_arguments(arguments, root);
  require(!translated.empty(), "usage", "Expected a native maintenance command");
  // Its lease ends with this process's program, so that the helper finds the version in nobody's use.
  const RunningClient client = running_client(root, console_entry);
  const CliEntry command = parse_cli_entry(with_json_first(arguments), root);
  prepare_console_maintenance(client.store, client.build, native_files::temporary_directory(client.image), cancelled,
                              !command.json)
      ->replace(translated);
}

std::unique_ptr<MaintenanceRuntime> prepare_gui_maintenance(const std::filesystem::path& data_root,
                                                            const std::filesystem::path& directory,
                                                            const std::function<bool()>& cancelled) {
  const RunningClient client = running_client(data_root, window_entry);
  require_wanted(cancelled);
  std::unique_ptr<MaintenanceRuntime> runtime =
      MaintenanceRuntime::prepare(client.store, client.build, "maintenance-gui", directory);
  require_wanted(cancelled);
  return runtime;
}

}  // namespace ravok
