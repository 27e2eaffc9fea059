// The removal of an installation, which may be carried out by a program that lies in it: the marker goes up
// first, so that a half-removed folder never starts, and goes last.

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "app/brand.hpp"
#include "app/data_folder.hpp"
#include "app/json_paths.hpp"
#include "app/native_install.hpp"
#include "app/setup_marker.hpp"
#include "app/system_failures.hpp"
#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file_status.hpp"
#include "platform/files.hpp"
#include "platform/native_files.hpp"
#include "platform/native_lock.hpp"
#include "platform/shortcuts.hpp"

namespace ravok {
namespace {

// The direct entries of a directory.
std::vector<std::filesystem::path> children(const std::filesystem::path& path) {
  std::error_code problem;
  std::vector<std::filesystem::path> found;
  std::filesystem::directory_iterator entry(path, problem);
  for (; !problem && entry != std::filesystem::directory_iterator(); entry.increment(problem)) {
    found.push_back(entry->path());
  }
  require(!problem, "tree_read", "Cannot read a directory of the tree");
  return found;
}

class Removal {
 public:
  Removal(const NativeUninstallRequest& request, const NativeSetupCallbacks& callbacks)
      : request_(request),
        callbacks_(callbacks),
        cancellation_(callbacks),
        paths_(data_folder(request.data_root)),
        trash_(native_files::temporary_directory(paths_.root) / ("ravok-removed-" + random_id())) {}

  NativeUninstallResult run() {
    require(!is_missing(paths_.installation_record) || !is_missing(paths_.incomplete_marker), "not_installed",
            "Ravok is not installed in " + path_utf8(paths_.root));
    result_.data_root = paths_.root;
    const NativeFileLock setup_lock(paths_.setup_lock, true, NativeLockSharing::others, LockMode::exclusive);
    const std::unique_ptr<NativeFileLock> bootstrap_lock =
        wait_for_ravok_closed(paths_, request_.close_timeout, cancellation_);
    cancellation_.check();
    report(0);
    withdraw();
    for (const std::filesystem::path& child : children(paths_.root)) {
      remove_child(child);
    }
    // Still under the locks, so that nobody begins an installation in a folder that is about to go.
    remove_traces();
    if (!result_.deferred.empty()) {
      native_files::remove_after_exit(trash_);
    }
    result_.data_removed = is_missing(paths_.root);
    report(1);
    return std::move(result_);
  }

 private:
  void report(std::uint64_t done) const {
    if (callbacks_.progress) {
      callbacks_.progress("removing", done, done);
    }
  }

  // Ends the installation as such; what remains are files.
  void withdraw() {
    write_setup_marker(paths_);
    const std::optional<Brand> brand = installed_brand(paths_.root);
    native_files::remove_or_trash(paths_.installation_record, trash_);
    if (!is_missing(paths_.native)) {
      // The record is not to outlive the marker.
      sync_directory(paths_.native);
    }
    remove_uninstall_entry(uninstall_entry_key(brand));
    try {
      result_.changed_shortcuts = remove_owned_native_shortcuts(paths_.root).changed;
    } catch (const Error&) {
      // Shortcuts never stop an uninstall.
    }
  }

  void remove_child(const std::filesystem::path& child) {
    if (child == paths_.incomplete_marker || child == paths_.bootstrap_lock || child == paths_.setup_lock) {
      return;
    }
    const std::string name = child.filename();
    if (!request_.remove_data && std::find(player_data.begin(), player_data.end(), name) != player_data.end()) {
      result_.kept.push_back(child);
      return;
    }
    remove_entry(child);
  }

  void remove_entry(const std::filesystem::path& path) {
    const auto status = link_status_of(path);
    if (!status || !is_directory(*status)) {
      if (!native_files::remove_or_trash(path, trash_)) {
        result_.deferred.push_back(path);
      }
      return;
    }
    for (const std::filesystem::path& child : children(path)) {
      remove_entry(child);
    }
    std::error_code problem;
    std::filesystem::remove(path, problem);
    require(!problem || !result_.deferred.empty(), "file_remove", "Cannot remove " + path_utf8(path));
  }

  void remove_traces() const {
    std::error_code problem;
    std::filesystem::remove(paths_.bootstrap_lock, problem);
    remove_setup_marker(paths_);
    // Last, since without its file the lock excludes nobody.
    std::filesystem::remove(paths_.setup_lock, problem);
    const bool empty = std::filesystem::is_empty(paths_.root, problem) && !problem;
    if (empty || request_.remove_data) {
      std::filesystem::remove(paths_.root, problem);
    }
  }

  const NativeUninstallRequest& request_;
  const NativeSetupCallbacks& callbacks_;
  const Cancellation cancellation_;
  const DataPaths paths_;
  const std::filesystem::path trash_;
  NativeUninstallResult result_;
};

}  // namespace

NativeUninstallResult NativeInstaller::uninstall(const NativeUninstallRequest& request,
                                                 const NativeSetupCallbacks& callbacks) {
  return with_system_failures([&] { return Removal(request, callbacks).run(); });
}

Json NativeUninstallResult::to_json() const {
  return {{"schema_version", 1},
          {"uninstalled", true},
          {"data_root", path_utf8(data_root)},
          {"data_removed", data_removed},
          {"kept", paths_json(kept)},
          {"deferred", paths_json(deferred)},
          {"changed_shortcuts", paths_json(changed_shortcuts)}};
}

}  // namespace ravok
