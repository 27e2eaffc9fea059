#include "app/install/install_folder.hpp"

#include <algorithm>
#include <string>
#include <system_error>
#include <vector>

#include "app/install/data_folder.hpp"
#include "app/install/installation_record.hpp"
#include "domain/error.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "domain/text_rules.hpp"
#include "platform/file/held_directory.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/file/status.hpp"
#include "platform/file/storage.hpp"

namespace ravok {
namespace {

// Whether a folder that holds no installation, whole or interrupted, may take one: it must be empty, or an earlier data
// folder.
bool may_take_installation(const DataPaths& paths) {
  const auto status = link_status_of(paths.root);
  if (!status || !is_directory(*status)) {
    return false;
  }
  const std::vector<std::string> names = HeldDirectory::open(paths.root).names();
  const auto is_known = [](const std::string& name) {
    return std::find(ravok_entries.begin(), ravok_entries.end(), name) != ravok_entries.end();
  };
  return std::any_of(names.begin(), names.end(), is_known) ||
         std::all_of(names.begin(), names.end(), [&](const auto& name) { return name == name_of(paths.setup_lock); });
}

// A launcher starts from no other folder, so an installation there would be of no use.
void require_startable(const DataPaths& paths) {
  require(is_utf8(path_utf8(paths.root)), "unsafe_path", "The path of the data folder must be valid UTF-8");
  require(path_utf8(paths.root.relative_path()).find_first_of("\\:") == std::string::npos, "unsafe_path",
          "The path of the data folder must hold no backslash and no colon");
}

void require_apart(const DataPaths& paths, const std::filesystem::path& package) {
  require(!within(paths.root, package) && !within(package, paths.root), "unsafe_path",
          "The package and data folders overlap");
}

void require_room(const DataPaths& paths, const SnapshotManifest& bootstrap, const SnapshotManifest& launcher) {
  const LauncherPaths store(DataPaths(StagingPaths(paths.staging).launcher_root).launcher);
  const std::filesystem::path version = store.versions / std::string(sha256_characters, '0');
  require_path_room(paths.staging, version.lexically_relative(paths.staging), launcher.longest_native_path());
  require_path_room(paths.native, name_of(paths.bootstrap_update_tree), bootstrap.longest_native_path());
}

// Returns the directory itself, or the nearest one above it that exists, without links.
std::filesystem::path nearest_directory(const std::filesystem::path& root) {
  std::filesystem::path directory = root;
  std::error_code problem;
  while (!std::filesystem::is_directory(directory, problem) && directory != directory.parent_path()) {
    directory = directory.parent_path();
  }
  return std::filesystem::canonical(directory);
}

}  // namespace

void require_install_place(const DataPaths& paths, const std::filesystem::path& package,
                           const SnapshotManifest& bootstrap, const SnapshotManifest& launcher) {
  require_startable(paths);
  require_apart(paths, package);
  require_room(paths, bootstrap, launcher);
}

void require_install_state(const DataPaths& paths, bool missing, bool repair) {
  const InstallationState state = missing ? InstallationState::none : installation_state(paths);
  if (state == InstallationState::complete) {
    check_installation(paths);
    require(repair, "already_installed", "Ravok is already installed in " + path_utf8(paths.root) + "; use repair");
  } else if (state == InstallationState::none) {
    require(!repair, "not_installed", not_installed_in(paths.root));
    require(missing || may_take_installation(paths), "unsafe_path",
            "Choose an empty folder or an earlier Ravok data folder");
  }
}

std::optional<InstallRoom> install_room(const std::filesystem::path& root, const SnapshotManifest& bootstrap,
                                        const SnapshotManifest& launcher) {
  try {
    const StorageVolume volume = inspect_storage_volume(nearest_directory(root));
    const Json budget = plan_native_payload_storage(bootstrap, launcher, volume, 0).at("volume");
    return InstallRoom{budget.at("additional_bytes").get<std::uint64_t>(), volume.available_bytes};
  } catch (const Error&) {
    return std::nullopt;
  } catch (const std::filesystem::filesystem_error&) {
    return std::nullopt;
  }
}

}  // namespace ravok
